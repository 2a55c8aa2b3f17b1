#pragma once

#include <sys/types.h>

#include <functional>

/// A child process that goes on from system call to system call: it is stopped before and after each.
class Stepped {
public:
    explicit Stepped(const std::function<int()>& body);
    Stepped(const Stepped&) = delete;
    Stepped& operator=(const Stepped&) = delete;
    ~Stepped();

    /// On to the next stop; false when it has ended instead.
    bool step();
    /// So many steps; false when it has ended before.
    bool step(int count);
    void kill();
    /// Lets it go on to its end.
    void let_go();

    /// The exit status, or 1000 + the signal that it died by.
    [[nodiscard]] int status() const { return m_status; }

private:
    bool wait();

    pid_t m_process;
    bool m_is_there = false;
    int m_status = -1;
};
