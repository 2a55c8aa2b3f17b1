#pragma once

#include "lock.h"

#include <orvbase/clock.h>
#include <orvstore/failure.h>
#include <orvstore/file_state.h>
#include <orvstore/layout.h>
#include <orvstore/usage.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

struct MDB_env;
struct MDB_txn;

namespace orv::store {

/// A store that has been opened: LMDB's handles, until they are given back. Functions that return a number
/// return LMDB's error code, 0 for success.
class Opened {
public:
    /// Opens or creates the store in `directory`. Null, with the reason, when that fails, or when other
    /// processes are at it until the deadline. `before`, the one that was open so far, is closed as soon as
    /// no other process is.
    [[nodiscard]] static std::unique_ptr<Opened> open(const std::string& directory, const Layout& layout,
                                                      base::TimePoint deadline,
                                                      std::unique_ptr<Opened>& before, Failure& failure);
    Opened(const Opened&) = delete;
    Opened& operator=(const Opened&) = delete;
    ~Opened();

    /// Whether it can go on being used: no operation has left it in doubt, and this is the process that has
    /// opened it.
    [[nodiscard]] bool is_sound() const;
    /// Whether this is the process that has opened it. What a fork's child has is its parent's: it must neither
    /// end the parent's transactions nor give the parent's locks back.
    [[nodiscard]] bool is_own() const;
    [[nodiscard]] bool is_read_only() const { return m_read_only; }
    [[nodiscard]] const FileState& file() const { return m_file; }
    /// Whether its files are still the ones under their names.
    [[nodiscard]] bool is_in_place(const std::string& directory) const;

    [[nodiscard]] MDB_env* environment() const { return m_environment; }
    [[nodiscard]] MDB_txn* reader() const { return m_reader; }
    [[nodiscard]] unsigned tree(std::size_t index) const { return m_trees[index]; }

    /// The reading transaction begins to see the present snapshot, unless it is in use already.
    [[nodiscard]] int begin_read();
    void end_read();
    [[nodiscard]] bool is_being_read() const { return m_readings > 0; }
    /// The commit that the reading transaction sees.
    [[nodiscard]] std::uint64_t seen_commit() const;
    /// The last commit in the data file, which readers need not see yet; 0 when it cannot be told.
    [[nodiscard]] std::uint64_t written_commit() const;
    /// Makes the last commit visible to readers, whose writer died before it could; EWOULDBLOCK when a
    /// process is writing, which then is to do that itself.
    [[nodiscard]] int publish_commit();

    /// Keeps all other writers out; EWOULDBLOCK when there is one until the deadline.
    [[nodiscard]] int begin_exclusion(base::TimePoint deadline) { return m_lock.take(deadline); }
    void end_exclusion() { m_lock.release(); }
    [[nodiscard]] bool is_excluding() const { return m_lock.is_held() && is_own(); }
    /// Keeps other processes from copying the store; false when there is one that does.
    [[nodiscard]] bool begin_copying() { return m_lock.begin_copying(); }
    void end_copying() { m_lock.end_copying(); }

    /// Begins a writing transaction, with all other writers kept out.
    /// If it is to remove something, there will be pages for that.
    [[nodiscard]] int begin_write(MDB_txn*& transaction, bool is_to_remove);
    /// Whether an entry of so many bytes still fits, after what the writing transaction has done so far.
    [[nodiscard]] bool has_room(MDB_txn* transaction, std::size_t size) const;
    /// How full the store is, as the transaction sees it; without the file's size.
    [[nodiscard]] Usage usage(MDB_txn* transaction) const;
    /// How many pages hold something, as the transaction sees it.
    [[nodiscard]] std::size_t used_pages(MDB_txn* transaction) const;
    /// Who keeps this process out, for a log.
    [[nodiscard]] std::string excluded_by() const { return m_lock.holder(); }

    /// Takes notice of a failed operation, and tells what its code means.
    const char* note_failure(int code);

private:
    friend class Opening;
    Opened();

    void close_environment();
    [[nodiscard]] std::size_t page_limit() const;
    [[nodiscard]] int fit_map(bool is_to_remove);

    Lock m_lock;            ///< outlives LMDB's handles
    base::Descriptor m_use; ///< the data file: others see by a lock on it that it is in use
    MDB_env* m_environment = nullptr;
    MDB_txn* m_reader = nullptr; ///< the one reading transaction: renewed and reset, never ended
    std::vector<unsigned> m_trees;
    FileState m_file; ///< the data file
    FileState m_lock_file;
    std::size_t m_page_size = 0;
    std::size_t m_map_size = 0;    ///< what the layout allows
    std::size_t m_opened_size = 0; ///< what was there when it was opened, perhaps more: under another limit
    unsigned m_readings = 0;       ///< readings that are going on, nested ones included
    unsigned m_forks;              ///< of this process, when it was opened
    bool m_read_only = false;
    bool m_in_doubt = false;
};

} // namespace orv::store
