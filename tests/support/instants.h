#pragma once

#include <array>
#include <cstdint>

/// A time, as a clock may show it.
struct Instant {
    std::int64_t seconds; ///< since 1970
    const char* text;     ///< in UTC
};

/// Where clocks begin, and where numbers of 31, 32 and, in nanoseconds, 63 bits end; not in order, so that
/// whoever goes through them sees the time jump both ways.
constexpr std::array<Instant, 6> kInstants = {{
    {16725225600, "2500-01-01 00:00:00"},
    {0, "1970-01-01 00:00:00"},
    {4294967296, "2106-02-07 06:28:16"},
    {946684799, "1999-12-31 23:59:59"},
    {2147483648, "2038-01-19 03:14:08"},
    {9223372037, "2262-04-11 23:47:17"},
}};
