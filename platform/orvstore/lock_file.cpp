// LMDB locks the first byte of the lock file: a process that has the store open has a part in that lock; one
// that is the first to open it, or in newer versions perhaps the last to close it, has it to itself for a while.

#include "lock_file.h"

#include "files.h"

#include <orvbase/root.h>

#include <fcntl.h>
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

/// Where a link in a directory below the root has to lead: "../../tmp/locks/var-settings.lock".
std::string link_target(std::string_view directory)
{
    std::string target;
    for (auto levels = std::count(directory.begin(), directory.end(), '/') + 1; levels > 0; --levels)
        target += "../";
    std::string name(directory);
    std::replace(name.begin(), name.end(), '/', '-');
    return target + kLocks + "/" + name + ".lock";
}

bool leads_to(const std::string& link, const std::string& target)
{
    std::array<char, PATH_MAX> buffer{};
    const ssize_t size = readlink(link.c_str(), buffer.data(), buffer.size());
    return size >= 0 && std::string_view(buffer.data(), static_cast<std::size_t>(size)) == target;
}

} // namespace

LockFile::LockFile(const std::string& directory, const Layout& layout)
    : m_layout(layout), m_name(lock_file_in(directory))
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
    const std::string target = link_target(m_layout.directory);
    if (leads_to(m_name, target))
        return;
    if (!is_in_use)
        (void)unlink(m_name.c_str()); // what cannot be removed is used
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
