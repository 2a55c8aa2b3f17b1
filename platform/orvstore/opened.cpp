// Opening LMDB's environment, and what is done with all of it at once.
//
// Reading: one reading transaction per environment is kept for good and only renewed (which takes the current
// snapshot) and reset (which lets go of it). Both are a few stores to the reader table in shared memory, so a
// look-up makes no system call.
//
// Trust: LMDB maps its files and believes what is in them. The data file is therefore examined before it is
// mapped, and the lock file, which LMDB would leave sparse, gets its blocks before: touching a page that a
// full file system cannot provide would be a SIGBUS. Opening is done under a lock on the directory, so that
// nobody examines a file that another process is just creating. Under that lock, too, a damaged file of a
// store that is not synced is thrown away when nobody has it open: a crash of the system may have damaged it,
// and it holds nothing that has to outlive one.
//
// Waiting: LMDB waits without a limit for its own locks, whatever state their holder is in. It therefore is
// asked for nothing that takes one unless the lock on the directory is held, which nobody waits for without a
// limit: for its mutexes, which it needs to write and to enter or sweep the reader table, and for the lock on
// the first byte of the lock file, which a process has to itself while it is the first to open the store and
// which newer ones take for a moment to close it. (A part of that lock is held from before LMDB is asked, so
// that it is never kept waiting for it.)
//
// Room: LMDB never changes a page in place, so removing takes free pages, too: the path to each entry, and, all in
// one row, those for the list of what becomes free. Adding therefore ends a sixteenth before the limit, and
// when the file has no such row at its end, removing may go beyond the limit as far as that. Other processes
// then find pages outside their map, and map the file again.
//
// Forking: a child would share its parent's place in the reader table. It therefore opens the store anew on
// its first use.

#include "opened.h"

#include "check.h"

#include <orvbase/descriptor.h>
#include <orvbase/root.h>

#include <lmdb.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <utility>

namespace orv::store {

namespace {

using base::Descriptor;

constexpr mode_t kFileMode = 0600;
constexpr int kReaders = 126; ///< processes that can have an environment open
/// LMDB's reader table: a cache line for each of its two locks and for each reader.
constexpr off_t kLockFileSize = off_t{kReaders + 2} * 64;
constexpr std::size_t kKeptBack = 16;      ///< the part of the map that is, for removing
constexpr std::size_t kPagesToRemove = 64; ///< beside the list of what becomes free: paths and splits
constexpr std::size_t kPagesToAdd =
    6; ///< beside those for the value: the pages that are always there, splits
/// LMDB's own trees.
constexpr MDB_dbi kFreeList = 0;
constexpr MDB_dbi kMainTree = 1;
constexpr long kPauseNs = 1'000'000;
/// A wait that takes longer is told about.
constexpr std::chrono::milliseconds kSilentWait{200};

/// How many forks lie between this process and the first one.
unsigned g_forks = 0;

void watch_for_forks()
{
    // Out of memory is the only possible failure; forking is then no option either.
    static const int registered = pthread_atfork(nullptr, nullptr, [] { ++g_forks; });
    (void)registered;
}

FileState to_file_state(const struct stat& status)
{
    return {status.st_dev, status.st_ino, status.st_size,
            std::int64_t{status.st_mtim.tv_sec} * 1000000000 + status.st_mtim.tv_nsec};
}

bool is_not_permitted(int code)
{
    return code == EROFS || code == EACCES || code == EPERM;
}

/// Whether some other process has the store open: LMDB then holds a lock on the first byte of the lock file.
/// Must not be asked by a process that has it open itself, which would lose its own lock. Yes, when in doubt.
bool is_in_use(const std::string& lock_file)
{
    const Descriptor file(::open(lock_file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file.is_open())
        return errno != ENOENT;
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_len = 1;
    return fcntl(file.get(), F_GETLK, &lock) < 0 || lock.l_type != F_UNLCK;
}

/// Errors after which the environment must be opened again; all others concern the one operation only.
bool is_fatal(int code)
{
    switch (code) {
    case MDB_PANIC:
    case MDB_CORRUPTED:
    case MDB_PAGE_NOTFOUND:
    case MDB_INVALID:
    case MDB_MAP_RESIZED:
    case MDB_BAD_RSLOT:
    case MDB_BAD_DBI:
        return true;
    default:
        return false;
    }
}

/// Gives the file its blocks, so that a mapping of it can be written to. Existing content stays.
int allocate(int fd, off_t size)
{
    if (fallocate(fd, 0, 0, size) == 0)
        return 0;
    if (errno != EOPNOTSUPP && errno != ENOSYS)
        return errno;
    // A file system without it: zeros go only where the file does not reach, nobody has mapped that.
    struct stat status {};
    if (fstat(fd, &status) < 0)
        return errno;
    static constexpr char kZeros[1024] = {};
    for (off_t at = status.st_size; at < size;) {
        const auto count = std::min<off_t>(size - at, sizeof kZeros);
        const ssize_t written = pwrite(fd, kZeros, static_cast<std::size_t>(count), at);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0)
            return written < 0 ? errno : ENOSPC;
        at += written;
    }
    return 0;
}

/// Takes the lock that says that the store is open, before LMDB does. EWOULDBLOCK when another process keeps
/// it for itself until the deadline.
int announce_use(int lock_file, base::TimePoint deadline)
{
    struct flock lock {};
    lock.l_type = F_RDLCK;
    lock.l_whence = SEEK_SET;
    lock.l_len = 1;
    while (fcntl(lock_file, F_SETLK, &lock) < 0) {
        if (errno != EAGAIN && errno != EACCES && errno != EINTR)
            return errno;
        if (base::Clock::now() >= deadline)
            return EWOULDBLOCK;
        const timespec pause{0, kPauseNs};
        (void)nanosleep(&pause, nullptr); // a signal only shortens it
    }
    return 0;
}

} // namespace

FileState file_state(const std::string& file)
{
    struct stat status {};
    return stat(file.c_str(), &status) == 0 ? to_file_state(status) : FileState{};
}

std::string data_file_in(const std::string& directory)
{
    return directory + "/data.mdb";
}

/// One attempt to open a store. Its steps tell whether they have succeeded, and leave the failure if not.
class Opening {
public:
    Opening(const std::string& directory, const Layout& layout, base::TimePoint deadline,
            std::unique_ptr<Opened>& before, Failure& failure)
        : m_directory(directory), m_data_file(data_file_in(directory)), m_lock_file(directory + "/lock.mdb"),
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

    bool fail_to_open(const char* reason) { return fail(Kind::store, m_directory, "open the store", reason); }

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
        if (!base::make_directories(m_directory, base::kDataDirectoryMode))
            return failed("create the directory", errno);
        if (const int code = lock().open(m_directory); code != 0)
            return failed("open the directory", code);
        // While the store is open, its lock file must be opened by LMDB only: closing it loses LMDB's locks.
        if (!m_before)
            lock().queue_at(open_lock_file());
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

    [[nodiscard]] Descriptor open_lock_file() const
    {
        return Descriptor(::open(m_lock_file.c_str(), O_RDWR | O_CREAT | O_NONBLOCK | O_CLOEXEC, kFileMode));
    }

    Lock& lock() { return m_opened->m_lock; }

    bool open_files()
    {
        if (!check_data_file() || !reserve_lock_file())
            return false;
        if (open_environment() && (!m_is_new || !m_layout.synced || sync_creation()))
            return open_trees();
        // No half of a store is left behind: it would look like a damaged one.
        m_opened.reset();
        if (m_is_new && truncate(m_data_file.c_str(), 0) < 0 && errno != ENOENT)
            m_failure.reason += std::string(", and cannot empty the data file: ") + std::strerror(errno);
        return false;
    }

    /// Whether there is a store in the file, or nothing, which is m_is_new then.
    bool check_data_file()
    {
        const Descriptor file(::open(m_data_file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
        m_is_new = !file.is_open() && errno == ENOENT;
        if (m_is_new)
            return true;
        if (!file.is_open())
            return fail(Kind::data_file, m_data_file, "open the data file", std::strerror(errno));
        const StoreVerdict verdict = check_store_file(file.get());
        m_is_new = verdict.state != StoreState::sound;
        if (verdict.state == StoreState::damaged)
            return drop_damaged_file(verdict.reason);
        if (verdict.state == StoreState::unfinished && truncate(m_data_file.c_str(), 0) < 0)
            return fail(Kind::data_file, m_data_file, "empty the data file", std::strerror(errno));
        return true;
    }

    bool drop_damaged_file(const char* reason)
    {
        if (m_layout.synced || is_in_use(m_lock_file))
            return fail(Kind::damage, m_data_file, "use the data file, it is damaged", reason);
        if (unlink(m_data_file.c_str()) < 0 && errno != ENOENT)
            return fail(Kind::data_file, m_data_file, "remove the damaged data file", std::strerror(errno));
        report(Severity::warning, std::string("its data file was damaged and is created anew: ") + reason);
        return true;
    }

    bool reserve_lock_file()
    {
        lock().queue_at(Descriptor());
        Descriptor file = open_lock_file();
        // Elsewhere somebody may be writing, and readers must leave their marks in the lock file.
        if (!file.is_open() && errno == EROFS) {
            m_opened->m_read_only = true;
            return true;
        }
        // What keeps it from being created is the directory.
        const auto failed = [this](const char* doing, const char* reason) {
            const bool is_there = access(m_lock_file.c_str(), F_OK) == 0;
            return fail(Kind::lock_file, is_there ? m_lock_file : m_directory, doing, reason);
        };
        struct stat status {};
        if (!file.is_open() || fstat(file.get(), &status) < 0)
            return failed("open the lock file", std::strerror(errno));
        if (!S_ISREG(status.st_mode))
            return failed("open the lock file", "no regular file");
        const int code = allocate(file.get(), kLockFileSize);
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
        int code = try_to_open_environment();
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
            return fail_to_open(mdb_strerror(code));
        struct stat status {};
        if (fcntl(fd, F_SETFD, FD_CLOEXEC) < 0 || fstat(fd, &status) < 0)
            return fail_to_open(std::strerror(errno));
        MDB_stat layout{};
        if (const int stat_code = mdb_env_stat(m_opened->m_environment, &layout); stat_code != MDB_SUCCESS)
            return fail_to_open(mdb_strerror(stat_code));
        m_opened->m_page_size = layout.ms_psize;
        m_opened->m_map_size = m_layout.map_size;
        m_opened->m_file = to_file_state(status);
        if (m_opened->m_read_only)
            report(Severity::warning, "can be read only");
        else // slots of dead readers; a full table shows below
            (void)mdb_reader_check(m_opened->m_environment, nullptr);
        return true;
    }

    /// Puts the new file on disk before anything is stored in it, so that one whose first pages are zero
    /// after a crash of the system is known never to have held anything.
    bool sync_creation()
    {
        if (const int code = mdb_env_sync(m_opened->m_environment, 1); code != MDB_SUCCESS)
            return fail(Kind::data_file, m_data_file, "sync the data file", mdb_strerror(code));
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
        MDB_txn* transaction = nullptr;
        int code = mdb_txn_begin(m_opened->m_environment, nullptr, transaction_flags, &transaction);
        if (code != MDB_SUCCESS)
            return code;
        m_opened->m_trees.clear();
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

    const std::string& m_directory;
    const std::string m_data_file;
    const std::string m_lock_file;
    const Layout& m_layout;
    const base::TimePoint m_deadline;
    std::unique_ptr<Opened>& m_before;
    Failure& m_failure;
    bool m_is_new = false;
    std::unique_ptr<Opened> m_opened; ///< in the making
};

std::unique_ptr<Opened> Opened::open(const std::string& directory, const Layout& layout,
                                     base::TimePoint deadline, std::unique_ptr<Opened>& before,
                                     Failure& failure)
{
    watch_for_forks();
    return Opening(directory, layout, deadline, before, failure).run();
}

Opened::Opened() : m_forks(g_forks) {}

Opened::~Opened()
{
    if (m_reader && is_own())
        mdb_txn_abort(m_reader); // in a fork's child that would give the parent's place away
    if (m_environment)
        mdb_env_close(m_environment);
}

bool Opened::is_sound() const
{
    return !m_in_doubt && is_own();
}

bool Opened::is_own() const
{
    return m_forks == g_forks;
}

int Opened::begin_read()
{
    if (m_readings == 0) {
        int code = mdb_txn_renew(m_reader);
        if (code == MDB_MAP_RESIZED) { // the file has grown beyond its limit, to remove something
            code = mdb_env_set_mapsize(m_environment, 0);
            if (code == MDB_SUCCESS)
                code = mdb_txn_renew(m_reader);
        }
        if (code != MDB_SUCCESS)
            return code;
    }
    ++m_readings;
    return MDB_SUCCESS;
}

void Opened::end_read()
{
    if (--m_readings == 0)
        mdb_txn_reset(m_reader);
}

std::uint64_t Opened::seen_commit() const
{
    return mdb_txn_id(m_reader);
}

std::uint64_t Opened::written_commit() const
{
    MDB_envinfo written{};
    return mdb_env_info(m_environment, &written) == MDB_SUCCESS ? written.me_last_txnid : 0;
}

int Opened::publish_commit()
{
    if (const int code = m_lock.try_to_take(); code != 0)
        return code;
    // Taking the writer's mutex over from the dead does it.
    MDB_txn* transaction = nullptr;
    const int code = begin_write(transaction, /*is_to_remove=*/false);
    if (code == MDB_SUCCESS)
        mdb_txn_abort(transaction);
    m_lock.release();
    return code;
}

int Opened::begin_write(MDB_txn*& transaction, bool is_to_remove)
{
    if (const int code = fit_map(is_to_remove); code != MDB_SUCCESS)
        return code;
    return mdb_txn_begin(m_environment, nullptr, 0, &transaction);
}

/// Maps as much of the file as may be in use after the transaction that is going to begin.
int Opened::fit_map(bool is_to_remove)
{
    MDB_envinfo info{};
    if (const int code = mdb_env_info(m_environment, &info); code != MDB_SUCCESS)
        return code;
    const std::size_t end = (info.me_last_pgno + 1) * m_page_size;
    const std::size_t list = m_map_size / m_page_size * sizeof(std::size_t);
    const std::size_t room = list + kPagesToRemove * m_page_size;
    std::size_t size = m_map_size;
    if (is_to_remove && end + room > size)
        size = std::min(end + room, 2 * m_map_size) / m_page_size * m_page_size;
    size = std::max(size, end);
    // What is being read must stay where it is.
    return size == info.me_mapsize || m_readings > 0 ? MDB_SUCCESS : mdb_env_set_mapsize(m_environment, size);
}

bool Opened::has_room(MDB_txn* transaction, std::size_t size) const
{
    std::size_t pages = size / m_page_size + kPagesToAdd;
    const auto add = [&](MDB_dbi tree) {
        MDB_stat status{};
        if (mdb_stat(transaction, tree, &status) == MDB_SUCCESS)
            pages += status.ms_branch_pages + status.ms_leaf_pages + status.ms_overflow_pages;
    };
    for (const MDB_dbi tree : m_trees)
        add(tree);
    add(kFreeList);
    add(kMainTree);
    return pages <= (m_map_size - m_map_size / kKeptBack) / m_page_size;
}

const char* Opened::note_failure(int code)
{
    if (code == MDB_MAP_FULL)
        (void)mdb_reader_check(m_environment, nullptr); // a reader that died may be what keeps pages in use
    m_in_doubt = m_in_doubt || is_fatal(code);
    return mdb_strerror(code);
}

} // namespace orv::store
