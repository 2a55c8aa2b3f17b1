// std::chrono::steady_clock is CLOCK_MONOTONIC on Linux, so its points are a timerfd's own, and the coarse
// clock is the same one as of the kernel's last tick, which is read without looking at any hardware.

#include <orvbase/clock.h>

#include <algorithm>
#include <ctime>

namespace orv::base {

std::int64_t coarse_now_ms()
{
    timespec time{};
    (void)clock_gettime(CLOCK_MONOTONIC_COARSE, &time); // a clock that exists cannot fail
    return std::int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1000000;
}

itimerspec expiry_at(TimePoint when)
{
    using std::chrono::nanoseconds;
    using std::chrono::seconds;
    // 0 would switch the timer off.
    const nanoseconds since = std::max<nanoseconds>(when.time_since_epoch(), nanoseconds{1});
    const auto whole = std::chrono::duration_cast<seconds>(since);
    itimerspec spec{};
    spec.it_value.tv_sec = static_cast<time_t>(whole.count());
    spec.it_value.tv_nsec = static_cast<long>((since - whole).count());
    return spec;
}

} // namespace orv::base
