#pragma once

#include <orvutils/log_control.h>

#include <cstddef>
#include <string_view>

/// What a text looks like in the log: bytes below 0x20 and 0x7f as "\xNN", and not too many of them.
namespace orv::log {

/// Room for "... (N bytes)".
constexpr std::size_t kMaxMark = 32;

/// Whether the text is written as it is.
[[nodiscard]] bool is_plain(std::string_view text);

/// How many of the text's bytes take at most `room` bytes as they are written; whole characters, if it is
/// UTF-8.
[[nodiscard]] std::size_t fitting(std::string_view text, std::size_t room);

/// Writes the text, and tells how many bytes that took: at most four for each one.
std::size_t put_escaped(char* to, std::string_view text);

/// Writes "... (N bytes)", and tells how many bytes that took: at most kMaxMark.
std::size_t put_mark(char* to, std::size_t full_size);

} // namespace orv::log
