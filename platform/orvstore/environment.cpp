// The one source that knows LMDB.
//
// Reading: one reading transaction per environment is kept for good and only renewed (which takes the current
// snapshot) and reset (which lets go of it). Both are a few stores to the reader table in shared memory, so a
// look-up makes no system call.
//
// Trust: LMDB maps its files and believes what is in them. The data file is therefore examined before it is
// mapped, and the lock file, which LMDB would leave sparse, gets its blocks before: touching a page that a
// full file system cannot provide would be a SIGBUS. Opening is done under a lock on the directory, so that
// nobody examines a file that another process is just creating. Under that lock, too, a damaged file of a store
// that is not synced is thrown away when nobody has it open: a crash of the system may have damaged it, and it
// holds nothing that has to outlive one.
//
// Forking: a child would share its parent's place in the reader table. It therefore opens the store anew on
// its first use.
//
// Recovery: a store may be deleted, moved away or replaced under the running process. A write compares the
// open file with the one that has its name now; a reading does so when a tenth of a second has passed since
// the last time. What cannot be opened is tried again as soon as the data file has changed, else once a
// second.

#include <orvstore/environment.h>

#include "check.h"

#include <orvbase/root.h>

#include <orvutils/log_format.h>

#include <lmdb.h>

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace orv::detail {

namespace {

constexpr mode_t kFileMode = 0600;
constexpr int kReaders = 126; ///< processes that can have an environment open
constexpr std::int64_t kCheckIntervalMs = 100;
constexpr std::int64_t kRetryIntervalMs = 1000;
/// LMDB's reader table: a cache line for each of its two locks and for each reader.
constexpr off_t kLockFileSize = off_t{kReaders + 2} * 64;

/// How many forks lie between this process and the first one.
unsigned g_forks = 0;

void watch_for_forks()
{
    // Out of memory is the only possible failure; forking is then no option either.
    static const int registered = pthread_atfork(nullptr, nullptr, [] { ++g_forks; });
    (void)registered;
}

class Descriptor {
public:
    explicit Descriptor(int fd) : m_fd(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    [[nodiscard]] int get() const { return m_fd; }

private:
    int m_fd;
};

timespec now()
{
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &time); // a clock that exists cannot fail
    return time;
}

std::int64_t milliseconds_between(const timespec& earlier, const timespec& later)
{
    return (std::int64_t{later.tv_sec} - earlier.tv_sec) * 1000 +
           (std::int64_t{later.tv_nsec} - earlier.tv_nsec) / 1000000;
}

FileState to_file_state(const struct stat& status)
{
    return {status.st_dev, status.st_ino, status.st_size,
            std::int64_t{status.st_mtim.tv_sec} * 1000000000 + status.st_mtim.tv_nsec};
}

/// All zero when there is no such file.
FileState file_state(const std::string& file)
{
    struct stat status {};
    return stat(file.c_str(), &status) == 0 ? to_file_state(status) : FileState{};
}

MDB_val to_value(std::string_view bytes)
{
    return {bytes.size(), const_cast<char*>(bytes.data())}; // LMDB does not write to it
}

std::string_view to_bytes(const MDB_val& value)
{
    return {static_cast<const char*>(value.mv_data), value.mv_size};
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
    if (file.get() < 0)
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

int lock_directory(int fd)
{
    while (flock(fd, LOCK_EX) < 0)
        if (errno != EINTR)
            return errno;
    return 0;
}

} // namespace

LmdbEnvironment::LmdbEnvironment(Layout layout) : m_layout(std::move(layout)) {}

/// Logs a failed operation; after those that leave the environment in doubt it will be opened again.
Error LmdbEnvironment::report(const char* doing, int code)
{
    if (code == MDB_MAP_FULL && m_env != nullptr)
        (void)mdb_reader_check(m_env, nullptr); // a reader that died may be what keeps pages in use
    if (is_fatal(code))
        m_broken = true;
    ORV_LOG(log::kError, "store {}: cannot {}: {}", m_layout.directory, doing, mdb_strerror(code));
    return Error::input_output;
}

/// A store that cannot be opened is tried again and again; the same failure is logged only once.
Error LmdbEnvironment::report_open_failure(const char* doing, const char* reason)
{
    std::string failure = fmt::format("cannot {}: {}", doing, reason);
    if (failure != m_failure)
        ORV_LOG(log::kError, "store {}: {}", m_layout.directory, failure);
    m_failure = std::move(failure);
    return Error::input_output;
}

Error LmdbEnvironment::open()
{
    close();
    watch_for_forks();
    m_directory = base::root_path(m_layout.directory);
    m_data_file = m_directory + "/data.mdb";
    m_lock_file = m_directory + "/lock.mdb";
    m_failure.clear();
    const Error error = reopen();
    m_wanted = error == Error::none;
    return error;
}

void LmdbEnvironment::close()
{
    shut();
    m_wanted = false;
}

void LmdbEnvironment::look_after()
{
    (void)ready(false); // a failure is told to whoever uses it next
}

void LmdbEnvironment::refresh()
{
    m_last_check = {};
    look_after();
}

void LmdbEnvironment::catch_up()
{
    if (ready(false) != Error::none || m_read_only)
        return;
    MDB_envinfo written{};
    if (mdb_env_info(m_env, &written) != MDB_SUCCESS)
        return;
    if (const LmdbRead seen(*this); seen.error() != Error::none || seen.id() >= written.me_last_txnid)
        return;
    // The writer's lock is free once the commit is visible; taking it over from a dead writer makes it so.
    MDB_txn* transaction = nullptr;
    if (const int code = mdb_txn_begin(m_env, nullptr, 0, &transaction); code == MDB_SUCCESS)
        mdb_txn_abort(transaction);
    else
        (void)report("wait for a commit", code);
}

/// Sees to it that the environment is open and the right one.
Error LmdbEnvironment::ready(bool for_writing)
{
    if (!m_wanted)
        return Error::input_output;
    if (m_readings > 0)
        return Error::none; // what is being read must stay
    if (m_env != nullptr && !m_broken && m_forks == g_forks) {
        if (!for_writing && !check_is_due())
            return Error::none;
        const bool writable_again = for_writing && m_read_only && access(m_data_file.c_str(), W_OK) == 0;
        if (is_current() && !writable_again)
            return Error::none;
    }
    return reopen();
}

bool LmdbEnvironment::check_is_due()
{
    const timespec time = now();
    if (milliseconds_between(m_last_check, time) < kCheckIntervalMs)
        return false;
    m_last_check = time;
    return true;
}

bool LmdbEnvironment::is_current() const
{
    return m_opened.same_file(file_state(m_data_file));
}

Error LmdbEnvironment::reopen()
{
    const FileState found = file_state(m_data_file);
    const bool unchanged =
        found.same_file(m_failed) && found.size == m_failed.size && found.modified_ns == m_failed.modified_ns;
    if (!m_failure.empty() && unchanged && milliseconds_between(m_failed_at, now()) < kRetryIntervalMs)
        return Error::input_output;
    shut();
    m_forks = g_forks;
    const FileState before = m_opened;
    const Error error = open_store();
    if (error != Error::none) {
        shut();
        m_failed = file_state(m_data_file);
        m_failed_at = now();
        return error;
    }
    if (!m_failure.empty())
        ORV_LOG(log::kInfo, "store {}: is back", m_layout.directory);
    m_failure.clear();
    m_last_check = now();
    if (!m_opened.same_file(before))
        ++m_generation;
    return Error::none;
}

void LmdbEnvironment::shut()
{
    if (m_reader != nullptr && m_forks == g_forks)
        mdb_txn_abort(m_reader); // in a fork's child that would give the parent's place away
    if (m_env != nullptr)
        mdb_env_close(m_env);
    m_reader = nullptr;
    m_env = nullptr;
    m_trees.clear();
    m_broken = false;
    m_read_only = false;
}

Error LmdbEnvironment::open_store()
{
    if (!base::make_directories(m_directory, base::kDataDirectoryMode))
        return report_open_failure("create the directory", std::strerror(errno));
    const Descriptor directory(::open(m_directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (directory.get() < 0)
        return report_open_failure("open the directory", std::strerror(errno));
    if (const int code = lock_directory(directory.get()); code != 0)
        return report_open_failure("lock the directory", std::strerror(code));

    bool created = false;
    if (const Error error = check_data_file(created); error != Error::none)
        return error;
    if (const Error error = reserve_lock_file(); error != Error::none)
        return error;
    Error error = open_environment();
    if (error == Error::none && created && m_layout.synced)
        error = sync_creation(directory.get());
    if (error != Error::none) {
        // No half of a store is left behind: it would look like a damaged one.
        if (created && truncate(m_data_file.c_str(), 0) < 0 && errno != ENOENT)
            return report_open_failure("empty the data file", std::strerror(errno));
        return error;
    }
    return open_trees();
}

/// Puts the new file on disk before anything is stored in it, so that one whose first pages are zero after a
/// crash of the system is known never to have held anything.
Error LmdbEnvironment::sync_creation(int directory)
{
    if (const int code = mdb_env_sync(m_env, 1); code != MDB_SUCCESS)
        return report_open_failure("sync the data file", mdb_strerror(code));
    (void)fsync(directory); // as durable as the file system makes it
    return Error::none;
}

/// `created` tells that there is nothing in the file yet.
Error LmdbEnvironment::check_data_file(bool& created)
{
    const Descriptor file(::open(m_data_file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    created = file.get() < 0 && errno == ENOENT;
    if (created)
        return Error::none;
    if (file.get() < 0)
        return report_open_failure("open the data file", std::strerror(errno));
    const StoreVerdict verdict = check_store_file(file.get());
    if (verdict.state == StoreState::damaged) {
        created = true;
        return drop_damaged_file(verdict.reason);
    }
    if (verdict.state == StoreState::unfinished && truncate(m_data_file.c_str(), 0) < 0)
        return report_open_failure("empty the data file", std::strerror(errno));
    created = verdict.state != StoreState::sound;
    return Error::none;
}

Error LmdbEnvironment::drop_damaged_file(const char* reason)
{
    if (m_layout.synced || is_in_use(m_lock_file))
        return report_open_failure("use the data file, it is damaged", reason);
    if (unlink(m_data_file.c_str()) < 0 && errno != ENOENT)
        return report_open_failure("remove the damaged data file", std::strerror(errno));
    ORV_LOG(log::kWarning, "store {}: its data file was damaged and is created anew: {}", m_layout.directory,
            reason);
    return Error::none;
}

Error LmdbEnvironment::reserve_lock_file()
{
    const Descriptor file(::open(m_lock_file.c_str(), O_RDWR | O_CREAT | O_NONBLOCK | O_CLOEXEC, kFileMode));
    // Elsewhere somebody may be writing, and readers must leave their marks in the lock file.
    if (file.get() < 0 && errno == EROFS) {
        m_read_only = true;
        return Error::none;
    }
    struct stat status {};
    if (file.get() < 0 || fstat(file.get(), &status) < 0)
        return report_open_failure("open the lock file", std::strerror(errno));
    if (!S_ISREG(status.st_mode))
        return report_open_failure("open the lock file", "no regular file");
    if (const int code = allocate(file.get(), kLockFileSize); code != 0)
        return report_open_failure("allocate the lock file", std::strerror(code));
    return Error::none;
}

Error LmdbEnvironment::open_environment()
{
    const unsigned flags = MDB_NOTLS | (m_layout.synced ? 0U : MDB_NOSYNC);
    int code = MDB_SUCCESS;
    for (;;) {
        if ((code = mdb_env_create(&m_env)) != MDB_SUCCESS ||
            (code = mdb_env_set_maxdbs(m_env, static_cast<unsigned>(m_layout.trees.size()))) != MDB_SUCCESS ||
            (code = mdb_env_set_mapsize(m_env, m_layout.map_size)) != MDB_SUCCESS)
            break;
        code = mdb_env_open(m_env, m_directory.c_str(), flags | (m_read_only ? MDB_RDONLY : 0U), kFileMode);
        if (!is_not_permitted(code) || m_read_only)
            break;
        mdb_env_close(m_env);
        m_env = nullptr;
        m_read_only = true;
    }
    mdb_filehandle_t fd = -1;
    if (code == MDB_SUCCESS)
        code = mdb_env_get_fd(m_env, &fd);
    if (code != MDB_SUCCESS)
        return report_open_failure("open the store", mdb_strerror(code));
    struct stat status {};
    if (fcntl(fd, F_SETFD, FD_CLOEXEC) < 0 || fstat(fd, &status) < 0)
        return report_open_failure("open the store", std::strerror(errno));
    m_opened = to_file_state(status);
    if (m_read_only)
        ORV_LOG(log::kWarning, "store {}: can be read only", m_layout.directory);
    else
        (void)mdb_reader_check(m_env, nullptr); // slots of dead readers; a full table shows below
    return Error::none;
}

Error LmdbEnvironment::open_trees()
{
    int code = open_trees_with(MDB_RDONLY, 0);
    if (code == MDB_NOTFOUND && !m_read_only)
        code = open_trees_with(0, MDB_CREATE);
    if (code == MDB_SUCCESS)
        code = start_reader();
    return code == MDB_SUCCESS ? Error::none : report_open_failure("open the trees", mdb_strerror(code));
}

int LmdbEnvironment::open_trees_with(unsigned transaction_flags, unsigned tree_flags)
{
    MDB_txn* transaction = nullptr;
    int code = mdb_txn_begin(m_env, nullptr, transaction_flags, &transaction);
    if (code != MDB_SUCCESS)
        return code;
    m_trees.clear();
    for (const char* name : m_layout.trees) {
        MDB_dbi tree = 0;
        code = mdb_dbi_open(transaction, name, tree_flags, &tree);
        if (code != MDB_SUCCESS) {
            mdb_txn_abort(transaction);
            return code;
        }
        m_trees.push_back(tree);
    }
    return mdb_txn_commit(transaction);
}

int LmdbEnvironment::start_reader()
{
    const int code = mdb_txn_begin(m_env, nullptr, MDB_RDONLY, &m_reader);
    if (code == MDB_SUCCESS)
        mdb_txn_reset(m_reader);
    return code;
}

/// Returns an LMDB error code; -1 when there is no store, which has been logged then.
int LmdbEnvironment::begin_read()
{
    if (ready(false) != Error::none)
        return -1;
    if (m_readings == 0)
        if (const int code = mdb_txn_renew(m_reader); code != MDB_SUCCESS)
            return code;
    ++m_readings;
    return MDB_SUCCESS;
}

void LmdbEnvironment::end_read()
{
    if (--m_readings == 0)
        mdb_txn_reset(m_reader);
}

std::uint64_t LmdbTransaction::id() const
{
    return m_transaction == nullptr ? 0 : mdb_txn_id(m_transaction);
}

Error LmdbTransaction::get(std::size_t tree, std::string_view key, std::string_view& value)
{
    MDB_val mdb_key = to_value(key);
    MDB_val mdb_value{};
    const int code = mdb_get(m_transaction, m_environment.m_trees[tree], &mdb_key, &mdb_value);
    if (code == MDB_NOTFOUND)
        return Error::no_such_key;
    if (code != MDB_SUCCESS)
        return m_environment.report("read", code);
    value = to_bytes(mdb_value);
    return Error::none;
}

std::size_t LmdbTransaction::entries(std::size_t tree)
{
    MDB_stat status{};
    const int code = mdb_stat(m_transaction, m_environment.m_trees[tree], &status);
    if (code != MDB_SUCCESS)
        (void)m_environment.report("count entries", code);
    return status.ms_entries;
}

LmdbRead::LmdbRead(LmdbEnvironment& environment) : LmdbTransaction(environment)
{
    const int code = environment.begin_read();
    if (code == MDB_SUCCESS)
        m_transaction = environment.m_reader;
    else
        m_error = code == -1 ? Error::input_output : environment.report("begin to read", code);
}

LmdbRead::~LmdbRead()
{
    if (m_transaction != nullptr)
        m_environment.end_read();
}

LmdbWrite::LmdbWrite(LmdbEnvironment& environment) : LmdbTransaction(environment)
{
    m_error = environment.ready(true);
    if (m_error != Error::none)
        return;
    const int code = mdb_txn_begin(environment.m_env, nullptr, 0, &m_transaction);
    if (code != MDB_SUCCESS)
        m_error = environment.report("begin to write", code);
}

LmdbWrite::~LmdbWrite()
{
    if (m_transaction != nullptr)
        mdb_txn_abort(m_transaction);
}

Error LmdbWrite::put(std::size_t tree, std::string_view key, std::string_view value)
{
    MDB_val mdb_key = to_value(key);
    MDB_val mdb_value = to_value(value);
    const int code = mdb_put(m_transaction, m_environment.m_trees[tree], &mdb_key, &mdb_value, 0);
    return code == MDB_SUCCESS ? Error::none : m_environment.report("write", code);
}

Error LmdbWrite::remove(std::size_t tree, std::string_view key)
{
    MDB_val mdb_key = to_value(key);
    const int code = mdb_del(m_transaction, m_environment.m_trees[tree], &mdb_key, nullptr);
    if (code == MDB_NOTFOUND)
        return Error::no_such_key;
    return code == MDB_SUCCESS ? Error::none : m_environment.report("remove", code);
}

Error LmdbWrite::commit()
{
    const int code = mdb_txn_commit(std::exchange(m_transaction, nullptr));
    return code == MDB_SUCCESS ? Error::none : m_environment.report("commit", code);
}

LmdbCursor::LmdbCursor(LmdbTransaction& transaction, std::size_t tree) : m_transaction(transaction)
{
    const int code =
        mdb_cursor_open(transaction.m_transaction, transaction.m_environment.m_trees[tree], &m_cursor);
    if (code != MDB_SUCCESS)
        m_error = transaction.m_environment.report("open a cursor", code);
}

LmdbCursor::~LmdbCursor()
{
    if (m_cursor != nullptr)
        mdb_cursor_close(m_cursor);
}

bool LmdbCursor::first()
{
    return move(MDB_FIRST);
}

bool LmdbCursor::last()
{
    return move(MDB_LAST);
}

bool LmdbCursor::next()
{
    return move(MDB_NEXT);
}

bool LmdbCursor::seek(std::string_view key)
{
    if (key.empty())
        return first();
    m_key = key;
    return move(MDB_SET_RANGE);
}

bool LmdbCursor::move(int operation)
{
    if (m_cursor == nullptr)
        return false;
    MDB_val key = to_value(m_key);
    MDB_val value{};
    const int code = mdb_cursor_get(m_cursor, &key, &value, static_cast<MDB_cursor_op>(operation));
    if (code != MDB_SUCCESS) {
        if (code != MDB_NOTFOUND)
            m_error = m_transaction.m_environment.report("move a cursor", code);
        return false;
    }
    m_key = to_bytes(key);
    m_value = to_bytes(value);
    return true;
}

Error LmdbCursor::remove()
{
    if (m_cursor == nullptr)
        return m_error;
    const int code = mdb_cursor_del(m_cursor, 0);
    return code == MDB_SUCCESS ? Error::none : m_transaction.m_environment.report("remove", code);
}

} // namespace orv::detail
