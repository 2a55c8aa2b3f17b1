#pragma once

#include <string>
#include <string_view>

/// Texts about other texts.
namespace orvctl {

[[nodiscard]] bool is_json(std::string_view text);

/// A payload as a JSON line or a part of one: itself when it is JSON, its line breaks replaced by blanks,
/// else a JSON string.
[[nodiscard]] std::string as_json(std::string_view payload);

/// The text on one line, with a question mark for each control character but tabs, which become blanks, lest
/// what others have written steers the terminal. Those in `kept` stay.
[[nodiscard]] std::string printable(std::string_view text, std::string_view kept = {});

/// This moment in UTC, in ISO 8601 with milliseconds.
[[nodiscard]] std::string time_stamp();

} // namespace orvctl
