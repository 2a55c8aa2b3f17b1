// Opening a store, step by step.
//
// Trust: LMDB maps its files and believes what is in them. The data file is therefore examined before it is
// mapped by the first process that opens it, and the lock file, which LMDB would leave sparse, gets its blocks
// before: touching a page that a full file system cannot provide would be a SIGBUS. Opening is done under a
// lock on the directory, so that nobody examines a file that another process is just creating.
//
// Waiting: LMDB waits without a limit for its own locks, whatever state their holder is in. It therefore is
// asked for nothing that takes one unless the lock on the directory is held, which nobody waits for without a
// limit: for its mutexes, which it needs to write and to enter or sweep the reader table, and for the lock on
// the first byte of the lock file, which a process has to itself while it is the first to open the store and
// which newer ones take for a moment to close it. (A part of that lock is held from before LMDB is asked, so
// that it is never kept waiting for it.)

#include "copy.h"
#include "data_file.h"
#include "files.h"
#include "lock_file.h"
#include "opened.h"

#include <orvbase/descriptor.h>
#include <orvbase/root.h>

#include <lmdb.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <utility>

namespace orv::store {

namespace {

using base::Descriptor;

/// A wait that takes longer is told about.
constexpr std::chrono::milliseconds kSilentWait{200};
/// Pages of a file that are not worth the work of making it smaller.
constexpr std::size_t kFewPages = 64;

bool is_not_permitted(int code)
{
    return code == EROFS || code == EACCES || code == EPERM;
}

/// What LMDB says of a file that it does not take for a store of its own.
bool is_impossible_file(int code)
{
    return code == MDB_INVALID || code == MDB_VERSION_MISMATCH || code == MDB_CORRUPTED;
}

} // namespace

/// One attempt to open a store. Its steps tell whether they have succeeded, and leave the failure if not.
class Opening {
public:
    Opening(const std::string& directory, const Layout& layout, base::TimePoint deadline,
            std::unique_ptr<Opened>& before, Failure& failure)
        : m_directory(directory), m_data_file(directory, layout, failure), m_lock_file(directory, layout),
          m_layout(layout), m_deadline(deadline), m_before(before), m_failure(failure), m_opened(new Opened)
    {
    }

    std::unique_ptr<Opened> run()
    {
        if (!enter_directory() || !open_files())
            return nullptr;
        m_opened->m_lock.release();
        return std::move(m_opened);
    }

private:
    using Kind = Failure::Kind;

    bool fail(Kind kind, const std::string& path, const char* doing, const char* reason)
    {
        m_failure = {kind, path, doing, reason};
        return false;
    }

    bool fail_to_open(int code)
    {
        std::string reason = mdb_strerror(code);
        if (code == EINVAL || code == ENODEV)
            reason += ": the file system perhaps has no shared mappings, as JFFS2";
        return fail(Kind::store, m_directory, "open the store", reason.c_str());
    }

    void report(Severity severity, const std::string& text) const
    {
        if (m_layout.report)
            m_layout.report(severity, std::string("store ") + m_layout.directory + ": " + text);
    }

    /// Makes it, and keeps all others out.
    bool enter_directory()
    {
        const auto failed = [this](const char* doing, int code) {
            return fail(Kind::directory, m_directory, doing, std::strerror(code));
        };
        if (!base::make_directories(m_directory, base::kDirectoryMode))
            return failed("create the directory", errno);
        if (const auto distrust = base::find_distrust(m_directory); !distrust.directory.empty()) {
            const std::string doing = "trust the directory " + distrust.directory;
            return fail(Kind::directory, distrust.directory, doing.c_str(), distrust.reason.c_str());
        }
        if (const int code = lock().open(m_directory); code != 0)
            return failed("open the directory", code);
        // While the store is open, its lock file must be opened by LMDB only: closing it loses LMDB's locks.
        if (!m_before)
            lock().queue_at(m_lock_file.open());
        const int code = take_lock();
        if (code == EWOULDBLOCK)
            return fail_busy();
        m_before.reset();
        return code == 0 || failed("lock the directory", code);
    }

    int take_lock()
    {
        int code = lock().take(std::min(m_deadline, base::Clock::now() + kSilentWait));
        if (code == EWOULDBLOCK && base::Clock::now() < m_deadline) {
            report(Severity::warning, "waiting for " + lock().holder());
            code = lock().take(m_deadline);
        }
        return code;
    }

    bool fail_busy()
    {
        m_failure = {Kind::busy, m_directory, "open the store",
                     "it is being opened or written by " + lock().holder()};
        return false;
    }

    Lock& lock() { return m_opened->m_lock; }

    bool open_files()
    {
        if (!m_data_file.find())
            return false;
        // Closing any file of that name loses this process's locks on it: it is looked at before there are any.
        const bool is_in_use = m_data_file.is_in_use() || m_lock_file.is_in_use();
        const bool is_usable = is_in_use ? m_data_file.recognise() : m_data_file.prepare();
        if (!is_usable || !reserve_lock_file(is_in_use))
            return false;
        if (!open_environment() && !(is_impossible_file(m_code) && !is_in_use && start_anew()))
            return leave_nothing();
        if (m_data_file.is_new() && m_layout.synced && !sync_creation())
            return leave_nothing();
        if (!open_trees() || (!is_in_use && is_mostly_free() && !make_smaller()))
            return leave_nothing();
        m_opened->m_use = m_data_file.mark_use();
        return true;
    }

    /// No half of a store is left behind: it would look like a damaged one.
    bool leave_nothing()
    {
        m_opened->close_environment();
        if (m_data_file.is_new() && truncate(data_file_in(m_directory).c_str(), 0) < 0 && errno != ENOENT)
            m_failure.reason += std::string(", and cannot empty the data file: ") + std::strerror(errno);
        return false;
    }

    bool start_anew() { return m_data_file.give_up(mdb_strerror(m_code)) && open_environment(); }

    bool reserve_lock_file(bool is_in_use)
    {
        lock().queue_at(Descriptor());
        m_lock_file.move_to_memory(is_in_use);
        Descriptor file = m_lock_file.open();
        // Elsewhere somebody may be writing, and readers must leave their marks in the lock file.
        if (!file.is_open() && errno == EROFS) {
            m_opened->m_read_only = true;
            return true;
        }
        // What keeps it from being created is the directory.
        const auto failed = [this](const char* doing, const char* reason) {
            const bool is_there = access(m_lock_file.name().c_str(), F_OK) == 0;
            return fail(Kind::lock_file, is_there ? m_lock_file.name() : m_directory, doing, reason);
        };
        struct stat status {};
        if (!file.is_open() || fstat(file.get(), &status) < 0)
            return failed("open the lock file", std::strerror(errno));
        if (!S_ISREG(status.st_mode))
            return failed("open the lock file", "no regular file");
        m_opened->m_lock_file = to_file_state(status);
        const int code = store::reserve_lock_file(file.get());
        lock().queue_at(std::move(file));
        return code == 0 || failed("allocate the lock file", std::strerror(code));
    }

    /// An environment that LMDB has failed to open can only be closed.
    int try_to_open_environment()
    {
        MDB_env*& environment = m_opened->m_environment;
        const unsigned flags =
            MDB_NOTLS | (m_layout.synced ? 0U : MDB_NOSYNC) | (m_opened->m_read_only ? MDB_RDONLY : 0U);
        if (environment)
            mdb_env_close(environment);
        environment = nullptr;
        // Anew each time: whenever a process closes a file, all of its locks on it are gone.
        int code = lock().queue() < 0 ? 0 : announce_use(lock().queue(), m_deadline);
        if (code == MDB_SUCCESS)
            code = mdb_env_create(&environment);
        if (code == MDB_SUCCESS)
            code = mdb_env_set_maxdbs(environment, static_cast<unsigned>(m_layout.trees.size()));
        if (code == MDB_SUCCESS)
            code = mdb_env_set_mapsize(environment, m_layout.map_size);
        return code == MDB_SUCCESS ? mdb_env_open(environment, m_directory.c_str(), flags, kFileMode) : code;
    }

    bool open_environment()
    {
        int& code = m_code;
        code = try_to_open_environment();
        if (is_not_permitted(code) && !m_opened->m_read_only) {
            m_opened->m_read_only = true;
            code = try_to_open_environment();
        }
        mdb_filehandle_t fd = -1;
        if (code == MDB_SUCCESS)
            code = mdb_env_get_fd(m_opened->m_environment, &fd);
        if (code == EWOULDBLOCK)
            return fail(Kind::busy, m_directory, "open the store", "another process is closing it");
        if (code != MDB_SUCCESS)
            return fail_to_open(code);
        struct stat status {};
        if (fcntl(fd, F_SETFD, FD_CLOEXEC) < 0 || fstat(fd, &status) < 0)
            return fail_to_open(errno);
        MDB_stat layout{};
        MDB_envinfo info{};
        if (const int stat_code = mdb_env_stat(m_opened->m_environment, &layout); stat_code != MDB_SUCCESS)
            return fail_to_open(stat_code);
        if (const int info_code = mdb_env_info(m_opened->m_environment, &info); info_code != MDB_SUCCESS)
            return fail_to_open(info_code);
        m_opened->m_page_size = layout.ms_psize;
        m_opened->m_map_size = m_layout.map_size;
        m_opened->m_opened_size = (info.me_last_pgno + 1) * layout.ms_psize;
        m_opened->m_file = to_file_state(status);
        if (m_opened->m_read_only)
            report(Severity::warning, "can be read only");
        else // slots of dead readers; a full table shows below
            (void)mdb_reader_check(m_opened->m_environment, nullptr);
        return true;
    }

    /// Puts the new file on disk before anything is stored in it, so that one whose first pages are zero after
    /// a crash of the system is known never to have held anything.
    bool sync_creation()
    {
        if (const int code = mdb_env_sync(m_opened->m_environment, 1); code != MDB_SUCCESS)
            return fail(Kind::data_file, data_file_in(m_directory), "sync the data file", mdb_strerror(code));
        (void)fsync(lock().directory()); // as durable as the file system makes it
        return true;
    }

    bool open_trees()
    {
        int code = open_trees_with(MDB_RDONLY, 0);
        if (code == MDB_NOTFOUND && !m_opened->m_read_only)
            code = open_trees_with(0, MDB_CREATE);
        if (code == MDB_SUCCESS)
            code = start_reader();
        return code == MDB_SUCCESS || fail(Kind::store, m_directory, "open the trees", mdb_strerror(code));
    }

    int open_trees_with(unsigned transaction_flags, unsigned tree_flags)
    {
        m_opened->m_trees.clear();
        m_opened->m_trees.reserve(m_layout.trees.size()); // nothing may throw within the transaction
        MDB_txn* transaction = nullptr;
        int code = mdb_txn_begin(m_opened->m_environment, nullptr, transaction_flags, &transaction);
        if (code != MDB_SUCCESS)
            return code;
        for (const char* name : m_layout.trees) {
            MDB_dbi tree = 0;
            code = mdb_dbi_open(transaction, name, tree_flags, &tree);
            if (code != MDB_SUCCESS) {
                mdb_txn_abort(transaction);
                return code;
            }
            m_opened->m_trees.push_back(tree);
        }
        return mdb_txn_commit(transaction);
    }

    int start_reader()
    {
        const int code = mdb_txn_begin(m_opened->m_environment, nullptr, MDB_RDONLY, &m_opened->m_reader);
        if (code == MDB_SUCCESS)
            mdb_txn_reset(m_opened->m_reader);
        return code;
    }

    /// Whether most of the file is free pages.
    [[nodiscard]] bool is_mostly_free() const
    {
        MDB_envinfo info{};
        if (m_opened->is_read_only() || mdb_env_info(m_opened->environment(), &info) != MDB_SUCCESS ||
            m_opened->begin_read() != MDB_SUCCESS)
            return false;
        const std::size_t used = m_opened->used_pages(m_opened->reader());
        m_opened->end_read();
        const std::size_t pages = info.me_last_pgno + 1;
        return pages > kFewPages && used < pages / 2;
    }

    /// Puts a copy without the free pages in the file's place. It is no failure when that cannot be done.
    bool make_smaller()
    {
        const std::string made = new_file_in(m_directory);
        if (!Copy::make(*m_opened, m_layout, made))
            return true;
        if (rename_durably(made, data_file_in(m_directory), m_directory) != 0) {
            (void)unlink(made.c_str()); // else it is written over next time
            return true;
        }
        m_opened->close_environment();
        return open_environment() && open_trees();
    }

    const std::string& m_directory;
    DataFile m_data_file;
    const LockFile m_lock_file;
    const Layout& m_layout;
    const base::TimePoint m_deadline;
    std::unique_ptr<Opened>& m_before;
    Failure& m_failure;
    int m_code = 0;                   ///< LMDB's, of the last attempt to open the environment
    std::unique_ptr<Opened> m_opened; ///< in the making
};

std::unique_ptr<Opened> Opened::open(const std::string& directory, const Layout& layout,
                                     base::TimePoint deadline, std::unique_ptr<Opened>& before,
                                     Failure& failure)
{
    return Opening(directory, layout, deadline, before, failure).run();
}

} // namespace orv::store
