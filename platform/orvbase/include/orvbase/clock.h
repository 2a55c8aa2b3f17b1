#pragma once

#include <sys/timerfd.h>

#include <chrono>
#include <cstdint>
#include <ctime>

/// The monotonic clock, which does not jump when the time is set.
namespace orv::base {

// The time of day goes on after 2038 everywhere; compile-options.cmake sees to it that it can.
static_assert(sizeof(std::time_t) == 8, "the C library has to be asked for a time_t of 64 bits");

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;

/// Milliseconds of that clock, some of them late: for questions that are asked on every use of something.
[[nodiscard]] std::int64_t coarse_now_ms();

/// What makes a timerfd of CLOCK_MONOTONIC, set with TFD_TIMER_ABSTIME, expire once at that point in time;
/// at once for one that has passed.
[[nodiscard]] itimerspec expiry_at(TimePoint when);

} // namespace orv::base
