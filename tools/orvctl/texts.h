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

/// A payload as a JSON line or a part of one: itself when it is JSON, its line breaks replaced by blanks, else
/// a JSON string.
[[nodiscard]] std::string as_json(std::string_view payload);

/// The text on one line, with a question mark for each control character but tabs, which become blanks, lest
/// what others have written steers the terminal. Those in `kept` stay.
[[nodiscard]] std::string printable(std::string_view text, std::string_view kept = {});

/// This moment in UTC, in ISO 8601 with milliseconds.
[[nodiscard]] std::string time_stamp();

} // namespace orvctl
