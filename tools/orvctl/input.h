#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace orvctl {

/// Reads standard input to its end; `what` it is to be is announced on a terminal, so that orvctl does not
/// seem to hang. False, after a complaint, when reading fails or there is more than `limit` bytes.
[[nodiscard]] bool read_standard_input(std::string& text, std::size_t limit, std::string_view what);

/// Whether a file, or standard input for "-", is one whose size is known before it is read.
[[nodiscard]] bool is_regular_file(const std::string& file);

/// The same of a file; of standard input for "-". One that is known to be too long is not read.
[[nodiscard]] bool read_file(const std::string& file, std::string& text, std::size_t limit,
                             std::string_view what);

} // namespace orvctl
