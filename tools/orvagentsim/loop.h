#pragma once

#include <orvbase/descriptor.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <unordered_map>
#include <utility>
#include <vector>

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

    /// The same for a descriptor that may come, go and be another one each time: it is asked for before each
    /// wait, at least once a second. Below 0 there is none for now.
    void follow(std::function<int()> descriptor, Work work);

    /// Calls `work` once, after a delay.
    TimerId after(std::chrono::milliseconds delay, Work work);
    void cancel(const TimerId& timer);

    /// Serves until a signal asks for the end. False with errno set on failure.
    [[nodiscard]] bool run();

private:
    struct Followed {
        std::function<int()> descriptor;
        Work work;
    };

    void watch_followed();
    void set_alarm();
    void run_timers();

    orv::base::Descriptor m_epoll;
    orv::base::Descriptor m_signals;
    orv::base::Descriptor m_alarm;
    std::unordered_map<int, Work> m_watched;
    std::vector<Followed> m_followed;
    std::map<TimerId, Work> m_timers; ///< in the order of their times
    std::uint64_t m_timers_started = 0;
    bool m_is_stopped = false;
};

} // namespace orvagentsim
