// All timers share one timerfd, set to the earliest of them. steady_clock is CLOCK_MONOTONIC on Linux, so its
// points are the timerfd's own.

#include "loop.h"

#include <orvbase/clock.h>
#include <orvutils/io.h>

#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>

namespace orvagentsim {
namespace {

using orv::base::Descriptor;
using std::chrono::steady_clock;

constexpr std::size_t kEventsPerPass = 8;
constexpr int kLongestWaitMs = 1000;

int open_signals()
{
    sigset_t signals{};
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    if (sigprocmask(SIG_BLOCK, &signals, nullptr) != 0)
        return -1;
    return signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
}

} // namespace

bool Loop::open()
{
    m_epoll = Descriptor{epoll_create1(EPOLL_CLOEXEC)};
    m_signals = Descriptor{open_signals()};
    m_alarm = Descriptor{timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)};
    return m_epoll.get() >= 0 && watch(m_signals.get(), [this] { m_is_stopped = true; }) &&
           watch(m_alarm.get(), [this] { run_timers(); });
}

bool Loop::watch(int fd, Work work)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    if (epoll_ctl(m_epoll.get(), EPOLL_CTL_ADD, fd, &event) != 0)
        return false;
    m_watched[fd] = std::move(work);
    return true;
}

void Loop::follow(std::function<int()> descriptor, Work work)
{
    m_followed.push_back({std::move(descriptor), std::move(work)});
}

Loop::TimerId Loop::after(std::chrono::milliseconds delay, Work work)
{
    const TimerId timer{steady_clock::now() + delay, m_timers_started++};
    m_timers.emplace(timer, std::move(work));
    set_alarm();
    return timer;
}

void Loop::cancel(const TimerId& timer)
{
    m_timers.erase(timer);
}

bool Loop::run()
{
    while (!m_is_stopped) {
        std::array<epoll_event, kEventsPerPass> events{};
        watch_followed();
        const int longest = m_followed.empty() ? -1 : kLongestWaitMs;
        const int count = epoll_wait(m_epoll.get(), events.data(), static_cast<int>(events.size()), longest);
        if (count < 0 && errno != EINTR)
            return false;
        for (int i = 0; i < count; ++i)
            m_watched[events.at(static_cast<std::size_t>(i)).data.fd]();
    }
    return true;
}

/// Its descriptor may be a new one under an old number, which epoll has forgotten: hence set anew each time.
void Loop::watch_followed()
{
    for (const auto& [descriptor, work] : m_followed) {
        const int fd = descriptor();
        if (fd >= 0 && orv::io::epoll_set_fd_ro(m_epoll.get(), fd) == 0)
            m_watched[fd] = work;
    }
}

void Loop::set_alarm()
{
    if (m_timers.empty())
        return;
    // Fails for a wrong descriptor or time only: neither can be.
    const itimerspec spec = orv::base::expiry_at(m_timers.begin()->first.first);
    (void)timerfd_settime(m_alarm.get(), TFD_TIMER_ABSTIME, &spec, nullptr);
}

void Loop::run_timers()
{
    std::uint64_t rings = 0;
    if (read(m_alarm.get(), &rings, sizeof rings) < 0)
        return; // set anew since it rang: it will ring again
    const auto now = steady_clock::now();
    while (!m_timers.empty() && m_timers.begin()->first.first <= now) {
        // Taken out first: the work may start and cancel timers.
        const auto due = m_timers.extract(m_timers.begin());
        due.mapped()();
    }
    set_alarm();
}

} // namespace orvagentsim
