#pragma once

#include <cstddef>

namespace orv::log {

/// Failures, warnings, normal operation, detail, traces.
constexpr int kError = 0;
constexpr int kWarning = 1;
constexpr int kInfo = 2;
constexpr int kDebug = 3;
constexpr int kTrace = 4;

constexpr int kDefaultChannel = 0;
constexpr int kORVSetMgmtChannel = 1;

/// What every line begins with. print() overwrites this area in place with the time stamp
/// (local time, milliseconds), the process id and the level.
constexpr char kPrefixArea[] = "yyyy-mm-dd HH:MM:SS.__m ____pid __lvl ";
constexpr std::size_t kPrefixAreaSize = sizeof kPrefixArea - 1;

namespace detail {
/// The highest level that is written. Only the logging library changes it.
extern int g_threshold;
} // namespace detail

/// Whether a line of this level would be written: ask before formatting one.
inline bool can_log(int /*channel*/, int level)
{
    return level <= detail::g_threshold;
}

/// A finished line in the caller's memory: kPrefixArea, the message and a line feed.
struct Text {
    char* data;
    std::size_t size;
};

/// Fills in the line's prefix area and writes it with one write: to standard error in the foreground,
/// to syslog in the background. Never waits: a line that is not taken at once is lost and counted, and "N
/// lines lost" is written when there is room again. A line with the text and level of the one before is
/// counted as well, for "last line repeated N times". Control characters of the text become "\xNN", and a
/// text of more than 2048 bytes is cut; one line feed before the last one stays.
void print(int channel, int level, Text line);

/// Opens a channel, which may be open already. False when there is no such channel.
[[nodiscard]] bool open_channel(int channel);

} // namespace orv::log
