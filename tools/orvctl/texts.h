#pragma once

#include <cstddef>
#include <string>
#include <string_view>

/// Texts that come in, and texts about other texts.
namespace orvctl {

/// Reads standard input to its end; `what` it is to be is announced on a terminal, so that orvctl does not
/// seem to hang. False, after a complaint, when reading fails or there is more than `limit` bytes.
[[nodiscard]] bool read_standard_input(std::string& text, std::size_t limit, std::string_view what);

[[nodiscard]] bool is_json(std::string_view text);

/// A payload as a member of a JSON line: itself, on one line, when it is JSON, else a JSON string.
[[nodiscard]] std::string as_json(std::string_view payload);

/// This moment in UTC, in ISO 8601 with milliseconds.
[[nodiscard]] std::string time_stamp();

} // namespace orvctl
