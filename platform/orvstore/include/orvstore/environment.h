#pragma once

#include <orvutils/error.h>

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

struct MDB_env;
struct MDB_txn;
struct MDB_cursor;

namespace orv::detail {

/// Identifies a file behind a path, and its content as far as that shows from outside.
struct FileState {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    std::int64_t modified_ns = 0;

    [[nodiscard]] bool same_file(const FileState& other) const
    {
        return device == other.device && inode == other.inode;
    }
};

/// One LMDB environment: a directory with a data file that holds some named trees of byte strings, shared by
/// all processes that open it. A process opens a directory at most once.
///
/// Between open() and close() the environment looks after itself: one that was deleted, replaced or broken by
/// an input/output error is opened again as soon as it is there, on the next use. Each failure is logged
/// once.
class LmdbEnvironment {
public:
    struct Layout {
        const char* directory; ///< relative to the agent's root
        std::vector<const char*> trees;
        std::size_t map_size; ///< bytes that the data file can grow to
        /// A commit is on disk when it returns. A store that is not synced need not outlive a crash of the
        /// system: when it is damaged, and nobody has it open, it is created anew.
        bool synced;
    };

    explicit LmdbEnvironment(Layout layout);
    LmdbEnvironment(const LmdbEnvironment&) = delete;
    LmdbEnvironment& operator=(const LmdbEnvironment&) = delete;
    ~LmdbEnvironment() { close(); }

    /// Opens or creates it, below the root directory as it is named now. Falls back to reading only on a
    /// read-only file system, and where the data file, but not the lock file, must not be written. A failure
    /// leaves it closed.
    [[nodiscard]] Error open();
    void close();
    [[nodiscard]] bool is_wanted() const { return m_wanted; }

    /// Does, at most ten times a second, what every use does first: opens it again if something else lies
    /// under its name by now, or if it could not be opened so far.
    void look_after();
    /// The same, at once.
    void refresh();

    /// Makes every commit visible that has reached the data file. (A commit becomes visible to readers an
    /// instant after LMDB has written it; a writer that is killed in between leaves it for the next one.)
    void catch_up();

    /// 0 while nothing is open; else another number for every store that this environment has opened.
    [[nodiscard]] unsigned generation() const { return m_env == nullptr ? 0 : m_generation; }
    [[nodiscard]] const std::string& data_file() const { return m_data_file; }

private:
    friend class LmdbTransaction;
    friend class LmdbRead;
    friend class LmdbWrite;
    friend class LmdbCursor;

    Error report(const char* doing, int code);
    Error report_open_failure(const char* doing, const char* reason);

    Error ready(bool for_writing);
    Error reopen();
    Error open_store();
    Error sync_creation(int directory);
    Error check_data_file(bool& created);
    Error drop_damaged_file(const char* reason);
    Error reserve_lock_file();
    Error open_environment();
    Error open_trees();
    int open_trees_with(unsigned transaction_flags, unsigned tree_flags);
    int start_reader();
    void shut();
    bool is_current() const;
    bool check_is_due();

    int begin_read();
    void end_read();

    Layout m_layout;
    std::string m_directory, m_data_file, m_lock_file;
    MDB_env* m_env = nullptr;
    MDB_txn* m_reader = nullptr; ///< the one reading transaction: renewed and reset, never ended
    std::vector<unsigned> m_trees;
    unsigned m_readings = 0; ///< readings that are going on, nested ones included
    unsigned m_generation = 0;
    unsigned m_forks = 0; ///< when it was opened
    bool m_wanted = false;
    bool m_broken = false; ///< to be closed and opened again
    bool m_read_only = false;
    FileState m_opened;      ///< the data file; the last one while none is open
    timespec m_last_check{}; ///< of whether the store is still the one under its name
    FileState m_failed;      ///< the data file at the last attempt to open that failed
    timespec m_failed_at{};
    std::string m_failure; ///< its log text; empty after a success
};

/// What reading and writing transactions have in common. Bytes that it hands out live as long as it does, and
/// in a writing transaction only up to the next change.
class LmdbTransaction {
public:
    LmdbTransaction(const LmdbTransaction&) = delete;
    LmdbTransaction& operator=(const LmdbTransaction&) = delete;

    /// Error::none when it has begun, else why it has not.
    [[nodiscard]] Error error() const { return m_error; }

    /// The number of the commit that is seen, or that this transaction will be: later ones have higher ones.
    [[nodiscard]] std::uint64_t id() const;

    /// Looks a key up; Error::no_such_key, without a log line, when it is not there. Trees are numbered as in
    /// the layout.
    [[nodiscard]] Error get(std::size_t tree, std::string_view key, std::string_view& value);

    /// How many entries a tree has; 0 on failure.
    [[nodiscard]] std::size_t entries(std::size_t tree);

protected:
    explicit LmdbTransaction(LmdbEnvironment& environment) : m_environment(environment) {}
    ~LmdbTransaction() = default;

    LmdbEnvironment& m_environment;
    MDB_txn* m_transaction = nullptr;
    Error m_error = Error::none;

    friend class LmdbCursor;
};

/// Reads one snapshot; costs no system call. Readings nested in another one see its snapshot.
class LmdbRead : public LmdbTransaction {
public:
    explicit LmdbRead(LmdbEnvironment& environment);
    ~LmdbRead();
};

/// Changes the environment, all or nothing. Waits for writers in other processes; must not be nested.
class LmdbWrite : public LmdbTransaction {
public:
    explicit LmdbWrite(LmdbEnvironment& environment);
    ~LmdbWrite();

    [[nodiscard]] Error put(std::size_t tree, std::string_view key, std::string_view value);
    /// Removes an entry; Error::no_such_key, without a log line, when it is not there.
    [[nodiscard]] Error remove(std::size_t tree, std::string_view key);
    /// Ends the transaction. Without it the destructor drops everything.
    [[nodiscard]] Error commit();
};

/// A place in a tree, in key order. Ends before its transaction does. The functions that move tell whether
/// there is an entry; error() tells an end from a failure.
class LmdbCursor {
public:
    LmdbCursor(LmdbTransaction& transaction, std::size_t tree);
    LmdbCursor(const LmdbCursor&) = delete;
    LmdbCursor& operator=(const LmdbCursor&) = delete;
    ~LmdbCursor();

    bool first();
    bool last();
    bool next();
    /// The first entry whose key is not lower than this one.
    bool seek(std::string_view key);
    /// Removes the entry; next() then goes to the one after it. Only in a writing transaction.
    [[nodiscard]] Error remove();

    [[nodiscard]] std::string_view key() const { return m_key; }
    [[nodiscard]] std::string_view value() const { return m_value; }
    [[nodiscard]] Error error() const { return m_error; }

private:
    bool move(int operation);

    LmdbTransaction& m_transaction;
    MDB_cursor* m_cursor = nullptr;
    std::string_view m_key, m_value;
    Error m_error = Error::none;
};

} // namespace orv::detail
