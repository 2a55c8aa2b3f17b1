// std::chrono::steady_clock is CLOCK_MONOTONIC on Linux, so its points are the timer's own.

#include "alarm.h"

#include <orvutils/log_format.h>

#include <sys/timerfd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace orv::exchange {
namespace {

itimerspec at(TimePoint when)
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

} // namespace

bool Alarm::open()
{
    m_timer = Descriptor{timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)};
    return m_timer.get() >= 0;
}

void Alarm::ring_by(TimePoint when)
{
    if (m_set_to && *m_set_to <= when)
        return;
    const itimerspec spec = at(when);
    if (timerfd_settime(m_timer.get(), TFD_TIMER_ABSTIME, &spec, nullptr) != 0) {
        ORV_LOG(log::kError, "cannot set the exchange's timer: {}", std::strerror(errno));
        return;
    }
    m_set_to = when;
}

void Alarm::acknowledge()
{
    std::uint64_t rings = 0;
    // Nothing to read means that the alarm was set anew since: then it rings again.
    if (read(m_timer.get(), &rings, sizeof rings) == sizeof rings)
        m_set_to.reset();
}

} // namespace orv::exchange
