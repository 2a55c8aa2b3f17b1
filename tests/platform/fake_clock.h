#pragma once

#include <cstdint>

/// The time of day as a test sets it, for all that is linked with this; the clocks that timers run by stay
/// the machine's.
class FakeClock {
public:
    explicit FakeClock(std::int64_t seconds, long nanoseconds = 0) { set(seconds, nanoseconds); }
    FakeClock(const FakeClock&) = delete;
    FakeClock& operator=(const FakeClock&) = delete;
    ~FakeClock();

    /// Seconds since 1970.
    static void set(std::int64_t seconds, long nanoseconds = 0);
};
