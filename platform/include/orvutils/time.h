#pragma once

#include <cstdint>

namespace orv::time {

enum class TimerType : int {
    monotonic = 0, ///< does not jump when the clock is set
};

/// A new, unarmed timer: a descriptor that becomes readable on expiry, or -1.
[[nodiscard]] int timer_init(TimerType type);

/// Arms the timer to expire after `first` seconds and then every `period` seconds; 0 as `first` disarms it.
/// With `absolute`, `first` is a point of the timer's clock. Returns 0, or -1 on failure (a negative time).
[[nodiscard]] int timer_start(int fd, long first, long period, bool absolute);

/// How often the timer has expired since it was last asked, 0 if not at all. Never blocks.
[[nodiscard]] std::uint64_t timer_tick(int fd);

/// Releases the timer.
void timer_uninit(int fd);

} // namespace orv::time
