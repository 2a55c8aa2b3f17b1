#pragma once

#include <string>
#include <string_view>

namespace orvctl {

/// Writes a file that only its owner may read, in the place of one with that name, whole or not at all, and has it
/// on disk; to standard output for "-". False, after a complaint, when that fails.
[[nodiscard]] bool write_backup(const std::string& file, std::string_view text);

} // namespace orvctl
