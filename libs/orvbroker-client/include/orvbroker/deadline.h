#pragma once

#include <algorithm>
#include <chrono>

/// Time-outs as points in time, for a loop that waits several times within one limit: the client's own, and
/// that of whoever watches its descriptor.
namespace orvbroker {

/// A point in time by which something must have happened; time_point::max() for never.
using Deadline = std::chrono::steady_clock::time_point;

[[nodiscard]] inline Deadline deadline_after(std::chrono::milliseconds timeout)
{
    const auto now = std::chrono::steady_clock::now();
    // Compared as milliseconds: the clock's own, finer unit would overflow.
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(Deadline::max() - now);
    return timeout >= left ? Deadline::max() : now + std::max(timeout, std::chrono::milliseconds{0});
}

[[nodiscard]] inline bool is_over(Deadline deadline)
{
    return deadline != Deadline::max() && std::chrono::steady_clock::now() >= deadline;
}

/// The time until then, 0 once it is over; milliseconds::max() for never.
[[nodiscard]] inline std::chrono::milliseconds time_left(Deadline deadline)
{
    if (deadline == Deadline::max())
        return std::chrono::milliseconds::max();
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return std::max(left, std::chrono::milliseconds{0});
}

/// The time until then for poll(): milliseconds, rounded up so that it does not wake too early, or -1.
/// A far deadline is waited for in steps of an hour.
[[nodiscard]] inline int poll_timeout(Deadline deadline)
{
    if (deadline == Deadline::max())
        return -1;
    constexpr std::chrono::milliseconds kHour{3'600'000};
    return static_cast<int>(std::min(time_left(deadline), kHour).count());
}

} // namespace orvbroker
