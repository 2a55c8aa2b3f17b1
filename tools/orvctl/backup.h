#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Files that hold a store's content. Complains about what fails.
namespace orvctl {

/// Writes a file that only its owner may read, in the place of one with that name, whole or not at all; on disk
/// when true is returned.
[[nodiscard]] bool write_backup(const std::string& file, std::string_view text);

/// Reads a whole file, of `limit` bytes at most.
[[nodiscard]] bool read_backup(const std::string& file, std::string& text, std::size_t limit);

} // namespace orvctl
