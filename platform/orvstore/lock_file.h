#pragma once

#include <orvbase/clock.h>
#include <orvbase/descriptor.h>
#include <orvstore/layout.h>

#include <string>

namespace orv::store {

/// LMDB's lock file of one store: its locks, and the table of its readers, which every reading writes to.
///
/// That of a synced store lies in memory, below tmp/ of the agent's root, and its name in the store's directory
/// is a link, so that reading does not wear the flash.
class LockFile {
public:
    LockFile(const std::string& directory, const Layout& layout);

    [[nodiscard]] const std::string& name() const { return m_name; }

    /// Whether some process has the store open, as far as LMDB's own lock tells. Must not be asked by a process
    /// that has it open itself, which would lose its lock. Yes, when in doubt.
    [[nodiscard]] bool is_in_use() const;

    /// Moves it into memory, if it is not there and nobody uses it. Where that is not possible it stays.
    void move_to_memory(bool is_in_use) const;

    /// Not open, with errno set, when that fails.
    [[nodiscard]] base::Descriptor open() const;

private:
    const Layout& m_layout;
    std::string m_directory;
    std::string m_name;
};

/// Makes sure that all of a lock file that LMDB touches is there. An errno value, 0 for success.
[[nodiscard]] int reserve_lock_file(int fd);

/// Takes the lock that says that the store is open, before LMDB does. EWOULDBLOCK when another process keeps
/// it for itself until the deadline.
[[nodiscard]] int announce_use(int fd, base::TimePoint deadline);

/// How many processes can have a store open.
constexpr int kReaders = 126;

} // namespace orv::store
