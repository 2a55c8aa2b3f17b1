#pragma once

#include <orvbase/clock.h>
#include <orvbase/descriptor.h>

#include <string>
#include <utility>

namespace orv::store {

/// The lock on a store's directory, which whoever opens the store or writes to it holds meanwhile. It falls
/// with its holder. Functions that return a number return errno's value, 0 for success.
class Lock {
public:
    [[nodiscard]] int open(const std::string& directory);

    /// Waits in turn: before the lock itself, the one on this file is taken, and held until the lock is had.
    void queue_at(base::Descriptor file) { m_queue = std::move(file); }
    [[nodiscard]] int queue() const { return m_queue.get(); }
    [[nodiscard]] int directory() const { return m_directory.get(); }

    /// EWOULDBLOCK when another process has it until then.
    [[nodiscard]] int take(base::TimePoint deadline);
    /// The same without waiting, and out of turn.
    [[nodiscard]] int try_to_take();
    void release();
    [[nodiscard]] bool is_held() const { return m_is_held; }

    /// Keeps other processes from copying the store; false when there is one that does. Independent of the lock
    /// itself.
    [[nodiscard]] bool begin_copying();
    void end_copying();

    /// Who has it, for a log: "process 1234 (orvctl), which is stopped".
    [[nodiscard]] std::string holder() const;

private:
    base::Descriptor m_directory;
    base::Descriptor m_queue;
    bool m_is_held = false;
};

} // namespace orv::store
