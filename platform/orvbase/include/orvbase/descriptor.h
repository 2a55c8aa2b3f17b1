#pragma once

#include <unistd.h>

#include <utility>

namespace orv::base {

/// An open file descriptor, or -1; closed with its owner.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : m_fd(fd) {}
    Descriptor(Descriptor&& other) noexcept : m_fd(other.release()) {}
    Descriptor& operator=(Descriptor&& other) noexcept
    {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    ~Descriptor()
    {
        if (is_open())
            (void)::close(m_fd); // what it wrote was either checked or not worth it
    }

    [[nodiscard]] bool is_open() const { return m_fd >= 0; }
    [[nodiscard]] int get() const { return m_fd; }

    void reset() { *this = Descriptor(); }
    /// Gives the descriptor to the caller, who closes it.
    [[nodiscard]] int release() { return std::exchange(m_fd, -1); }

private:
    int m_fd = -1;
};

} // namespace orv::base
