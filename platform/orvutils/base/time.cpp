// Timers on timerfd. A daemon's own is what wakes it when nothing else happens, so that is when the log tells
// what it has held back.

#include <orvutils/time.h>

#include <orvbase/error_number.h>
#include <orvbase/io.h>
#include <orvutils/log_control.h>

#include <sys/timerfd.h>
#include <unistd.h>

namespace orv::time {

using base::failed;

int timer_init(TimerType type)
{
    if (type != TimerType::monotonic)
        return failed(Error::invalid_argument);
    const int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    return fd != -1 ? fd : failed(Error::input_output);
}

int timer_start(int fd, long first, long period, bool absolute)
{
    if (first < 0 || period < 0)
        return failed(Error::invalid_argument);
    itimerspec when{};
    when.it_value.tv_sec = first;
    when.it_interval.tv_sec = period;
    if (timerfd_settime(fd, absolute ? TFD_TIMER_ABSTIME : 0, &when, nullptr) == -1)
        return failed(Error::input_output);
    return 0;
}

std::uint64_t timer_tick(int fd)
{
    log::settle();
    std::uint64_t expirations = 0;
    return base::read_some(fd, &expirations, sizeof expirations) == sizeof expirations ? expirations : 0;
}

void timer_uninit(int fd)
{
    if (fd >= 0)
        (void)close(fd); // nothing that could fail to be written
}

} // namespace orv::time
