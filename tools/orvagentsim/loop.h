#pragma once

#include <descriptor.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <unordered_map>
#include <utility>

namespace orvagentsim {

/// The one loop of the program: input, timers, and the signals that end it.
class Loop {
public:
    using Work = std::function<void()>;
    using TimerId = std::pair<std::chrono::steady_clock::time_point, std::uint64_t>;

    /// Blocks SIGTERM and SIGINT, to receive them in the loop. False with errno set on failure.
    [[nodiscard]] bool open();

    /// Calls `work` whenever there is input. The descriptor stays the caller's, and open as long as the loop
    /// runs. False with errno set on failure.
    [[nodiscard]] bool watch(int fd, Work work);

    /// Calls `work` once, after a delay.
    TimerId after(std::chrono::milliseconds delay, Work work);
    void cancel(const TimerId& timer);

    /// Serves until a signal asks for the end. False with errno set on failure.
    [[nodiscard]] bool run();

private:
    void set_alarm();
    void run_timers();

    orv::exchange::Descriptor m_epoll;
    orv::exchange::Descriptor m_signals;
    orv::exchange::Descriptor m_alarm;
    std::unordered_map<int, Work> m_watched;
    std::map<TimerId, Work> m_timers; ///< in the order of their times
    std::uint64_t m_timers_started = 0;
    bool m_is_stopped = false;
};

} // namespace orvagentsim
