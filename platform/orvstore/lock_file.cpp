// LMDB locks the first byte of the lock file: a process that has the store open has a part in that lock; one
// that is the first to open it, or in newer versions perhaps the last to close it, has it to itself for a
// while.

#include "lock_file.h"

#include "files.h"

#include <orvbase/root.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <ctime>
#include <string_view>

namespace orv::store {

namespace {

using base::Descriptor;

constexpr char kLocks[] = "tmp/locks";
/// LMDB's reader table: a cache line for each of its two locks and for each reader.
constexpr off_t kLockFileSize = off_t{kReaders + 2} * 64;
constexpr long kPauseNs = 1'000'000;

struct flock first_byte(short type)
{
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_len = 1;
    return lock;
}

/// From a directory below the root to the locks: "../../tmp/locks".
std::string way_to_locks(std::string_view directory)
{
    std::string way;
    for (auto levels = std::count(directory.begin(), directory.end(), '/') + 1; levels > 0; --levels)
        way += "../";
    return way + kLocks;
}

/// In the directory of the locks: "var-settings.lock".
std::string lock_name(std::string directory)
{
    std::replace(directory.begin(), directory.end(), '/', '-');
    return directory + ".lock";
}

bool is_same_directory(const std::string& one, const std::string& other)
{
    struct stat status {};
    struct stat other_status {};
    return stat(one.c_str(), &status) == 0 && stat(other.c_str(), &other_status) == 0 &&
           status.st_dev == other_status.st_dev && status.st_ino == other_status.st_ino;
}

/// Empty when it is no link.
std::string read_link(const std::string& name)
{
    std::array<char, PATH_MAX> buffer{};
    const ssize_t size = readlink(name.c_str(), buffer.data(), buffer.size());
    return size > 0 ? std::string(buffer.data(), static_cast<std::size_t>(size)) : std::string();
}

/// Whether what a link in `from` says is `name` in the directory `to`.
bool leads_to(const std::string& target, const std::string& from, const std::string& to,
              const std::string& name)
{
    const auto slash = target.rfind('/');
    if (slash == std::string::npos || target.compare(slash + 1, std::string::npos, name) != 0)
        return false;
    const std::string parent = target.substr(0, slash);
    return is_same_directory(target.front() == '/' ? parent : from + "/" + parent, to);
}

} // namespace

LockFile::LockFile(const std::string& directory, const Layout& layout)
    : m_layout(layout), m_directory(directory), m_name(lock_file_in(directory))
{
}

bool LockFile::is_in_use() const
{
    const Descriptor file(::open(m_name.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!file.is_open())
        return errno != ENOENT;
    struct flock lock = first_byte(F_WRLCK);
    return fcntl(file.get(), F_GETLK, &lock) < 0 || lock.l_type != F_UNLCK;
}

void LockFile::move_to_memory(bool is_in_use) const
{
    const std::string locks = base::root_path(kLocks);
    if (!m_layout.synced || !base::make_directories(locks, base::kDirectoryMode) ||
        !base::find_distrust(locks).directory.empty())
        return;
    const std::string name = lock_name(m_layout.directory);
    if (leads_to(read_link(m_name), m_directory, locks, name))
        return;
    if (!is_in_use)
        (void)unlink(m_name.c_str()); // what cannot be removed is used
    // A relative link holds wherever the root is. But it is followed from where the directory really is,
    // which is not below the root when var/, say, is a link to another partition.
    const std::string way = way_to_locks(m_layout.directory);
    const std::string target = (is_same_directory(m_directory + "/" + way, locks) ? way : locks) + "/" + name;
    const int linked = symlink(target.c_str(), m_name.c_str());
    (void)linked; // without a link it is created where it is
}

Descriptor LockFile::open() const
{
    return Descriptor(::open(m_name.c_str(), O_RDWR | O_CREAT | O_NONBLOCK | O_CLOEXEC, kFileMode));
}

int reserve_lock_file(int fd)
{
    return allocate(fd, kLockFileSize);
}

int announce_use(int fd, base::TimePoint deadline)
{
    struct flock lock = first_byte(F_RDLCK);
    while (fcntl(fd, F_SETLK, &lock) < 0) {
        if (errno != EAGAIN && errno != EACCES && errno != EINTR)
            return errno;
        if (base::Clock::now() >= deadline)
            return EWOULDBLOCK;
        const timespec pause{0, kPauseNs};
        (void)nanosleep(&pause, nullptr); // a signal only shortens it
    }
    return 0;
}

} // namespace orv::store
