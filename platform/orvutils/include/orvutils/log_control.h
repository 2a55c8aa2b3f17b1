#pragma once

#include <cstddef>
#include <optional>

/// What the program decides about its log: which lines are written, and where to.
namespace orv::log {

/// Bytes of a line after its prefix area, as they are written. A longer text is cut there, between two
/// characters, and goes on with "... (N bytes)", its own length. With that, a line is always short enough
/// for a pipe to take it whole or not at all.
constexpr std::size_t kMaxText = 2048;

constexpr char kSyslogAddress[] = "/dev/log";

/// The level that a text like "3" names; empty for anything but one digit from 0 to 4.
[[nodiscard]] std::optional<int> parse_level(const char* text);

/// Lines up to this level are written from now on.
void set_threshold(int level);

/// From now on lines go to syslog under this name, cut to 47 bytes: to the datagram socket at this path,
/// which the caller keeps alive until the process ends.
void use_syslog(const char* program, const char* address = kSyslogAddress);

/// Writes what is held back: how often the last line was repeated, when that began at least a second ago,
/// and how many lines were lost, if there is room for it. The next line does it too, and the end of the
/// process; a daemon calls this now and then so that it need not wait for those. timer_tick() does.
void settle();

/// Tells all that is held back, and forgets the last line: for whoever leads standard error elsewhere, right
/// before that.
void begin_anew();

} // namespace orv::log
