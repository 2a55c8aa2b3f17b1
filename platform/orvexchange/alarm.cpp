// One timerfd, set to the earliest point that anybody has asked for.

#include "alarm.h"

#include <orvutils/log_format.h>

#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace orv::exchange {

bool Alarm::open()
{
    m_timer = base::Descriptor{timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)};
    return m_timer.is_open();
}

void Alarm::ring_by(TimePoint when)
{
    if (m_set_to && *m_set_to <= when)
        return;
    const itimerspec spec = base::expiry_at(when);
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
