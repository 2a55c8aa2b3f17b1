// The locks are flock()s, which the kernel gives back when their holder dies, and which are asked for again and
// again instead of waited for: nothing else bounds the wait for a process that is stopped. Alone that would be
// unfair to those who wait, since one who writes without a pause would always be there first. Hence the queue:
// only one process at a time tries to get the lock, and who has just released it has to queue up again.

#include "lock.h"

#include <orvbase/io.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>
#include <string>

namespace orv::store {

namespace {

using base::Clock;
using base::TimePoint;

constexpr long kFirstPauseNs = 50'000;
constexpr long kLongestPauseNs = 2'000'000;
constexpr std::size_t kMaxLine = 512;
constexpr std::size_t kMaxLocks = std::size_t{64} * 1024; ///< what is read of /proc/locks

int try_lock(int fd)
{
    while (flock(fd, LOCK_EX | LOCK_NB) < 0)
        if (errno != EINTR)
            return errno;
    return 0;
}

void unlock(int fd)
{
    (void)flock(fd, LOCK_UN); // of a lock that is held; closing the file gives it back in any case
}

int wait_for_lock(int fd, TimePoint deadline)
{
    for (long pause_ns = kFirstPauseNs;; pause_ns = std::min(2 * pause_ns, kLongestPauseNs)) {
        const int code = try_lock(fd);
        if (code != EWOULDBLOCK || Clock::now() >= deadline)
            return code;
        const timespec pause{0, pause_ns};
        (void)nanosleep(&pause, nullptr); // a signal only shortens it
    }
}

/// Beyond all bytes of the lock file that LMDB locks, which are the first one and one for each process id.
struct flock copying(short type)
{
    struct flock range {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = off_t{1} << 40U;
    range.l_len = 1;
    return range;
}

/// What /proc says of a process: " (orvctl), which is stopped"; nothing when it does not.
std::string describe_process(int process)
{
    const std::string line = base::read_text("/proc/" + std::to_string(process) + "/stat", kMaxLine);
    // "1234 (orvctl) T 1 ..."
    const auto open = line.find('(');
    const auto close = line.rfind(')');
    if (open == std::string::npos || close == std::string::npos || close + 2 >= line.size())
        return {};
    const char state = line[close + 2];
    return " " + line.substr(open, close + 1 - open) +
           (state == 'T' || state == 't' ? ", which is stopped" : "");
}

/// The process that holds the lock on a file, if this line of /proc/locks says so; else 0.
int holder_in(const std::string& line, const struct stat& file)
{
    // "1: FLOCK  ADVISORY  WRITE 1234 fe:00:5678 0 EOF"
    int process = 0;
    unsigned int major = 0;
    unsigned int minor = 0;
    unsigned long long inode = 0;
    const int count =
        std::sscanf(line.c_str(), // NOLINT(cert-err34-c): what is no number does not count
                    "%*u: FLOCK ADVISORY WRITE %d %x:%x:%llu", &process, &major, &minor, &inode);
    return count == 4 && inode == file.st_ino && makedev(major, minor) == file.st_dev ? process : 0;
}

} // namespace

int Lock::open(const std::string& directory)
{
    m_directory = base::Descriptor(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return m_directory.is_open() ? 0 : errno;
}

int Lock::take(TimePoint deadline)
{
    // A queue that does not work costs nothing but fairness.
    const int queued = m_queue.is_open() ? wait_for_lock(m_queue.get(), deadline) : ENOTSUP;
    if (queued == EWOULDBLOCK)
        return queued;
    const int code = wait_for_lock(m_directory.get(), deadline);
    if (queued == 0)
        unlock(m_queue.get());
    m_is_held = code == 0;
    return code;
}

int Lock::try_to_take()
{
    const int code = try_lock(m_directory.get());
    m_is_held = code == 0;
    return code;
}

void Lock::release()
{
    if (std::exchange(m_is_held, false))
        unlock(m_directory.get());
}

bool Lock::begin_copying()
{
    struct flock range = copying(F_WRLCK);
    return fcntl(m_queue.get(), F_OFD_SETLK, &range) == 0;
}

void Lock::end_copying()
{
    struct flock range = copying(F_UNLCK);
    (void)fcntl(m_queue.get(), F_OFD_SETLK, &range); // of a lock that is held
}

std::string Lock::holder() const
{
    struct stat status {};
    if (fstat(m_directory.get(), &status) < 0)
        return "another process";
    const std::string locks = base::read_text("/proc/locks", kMaxLocks);
    for (std::size_t at = 0; at < locks.size();) {
        const std::size_t end = std::min(locks.find('\n', at), locks.size());
        if (const int process = holder_in(locks.substr(at, end - at), status); process > 0)
            return "process " + std::to_string(process) + describe_process(process);
        at = end + 1;
    }
    return "another process";
}

} // namespace orv::store
