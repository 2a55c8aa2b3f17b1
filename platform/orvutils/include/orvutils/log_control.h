#pragma once

#include <optional>

/// What the program decides about its log: which lines are written, and where to.
namespace orv::log {

/// The level that a text like "3" names; empty for anything but one digit from 0 to 4.
[[nodiscard]] std::optional<int> parse_level(const char* text);

/// Lines up to this level are written from now on.
void set_threshold(int level);

/// From now on lines go to syslog under this name, which the caller keeps alive.
void use_syslog(const char* program);

} // namespace orv::log
