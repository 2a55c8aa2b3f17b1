#pragma once

/// Lack of memory, for C++: while one of these lives, an allocation fails, and with `from_then_on` all after it,
/// too. Counted from 1 on; 0 lets all of them succeed.
class FailingMemory {
public:
    explicit FailingMemory(unsigned long number, bool from_then_on = false);
    FailingMemory(const FailingMemory&) = delete;
    FailingMemory& operator=(const FailingMemory&) = delete;
    ~FailingMemory();

    /// Whether an allocation was made to fail.
    [[nodiscard]] static bool has_failed();
    /// Allocations since it began.
    [[nodiscard]] static unsigned long allocations();
};

/// While one of these lives there is memory: for what a test does in between.
class EnoughMemory {
public:
    EnoughMemory();
    EnoughMemory(const EnoughMemory&) = delete;
    EnoughMemory& operator=(const EnoughMemory&) = delete;
    ~EnoughMemory();

private:
    bool m_was_armed;
};

/// Calls `attempt` with 1, 2, 3 ... until it returns false: it is to let that allocation fail, and to say
/// whether there was one.
template <typename Attempt>
void for_each_allocation(const Attempt& attempt)
{
    for (unsigned long number = 1; attempt(number); ++number) {
    }
}
