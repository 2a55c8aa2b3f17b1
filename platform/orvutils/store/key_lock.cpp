// A key lock is a lock on one byte of a common lock file, at an offset that is made of the key. Every lock
// held has a descriptor of its own, and open file description locks belong to the descriptor: they fall when
// the process dies, are not inherited by the programs it starts, and leave other locks on the file alone.
//
// A holder that is stopped would cost each of many requests a second. So a lock that was waited for in vain is
// only asked for, until it could be had once.

#include "settings_key.h"

#include <orvbase/clock.h>
#include <orvbase/descriptor.h>
#include <orvbase/error_number.h>
#include <orvbase/root.h>
#include <orvutils/log_format.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <map>
#include <set>
#include <string>
#include <utility>

namespace orv::detail {

namespace {

using base::Clock;
using base::Descriptor;
using base::TimePoint;

constexpr long kPollNs = 5'000'000;
/// A second less what there is to do beside the waiting.
constexpr std::chrono::milliseconds kTimeout{900};
constexpr mode_t kFileMode = 0600;

struct HeldLock {
    Descriptor file;
    unsigned count;
};

std::map<std::string, HeldLock, std::less<>>& held_locks()
{
    static auto* locks = new std::map<std::string, HeldLock, std::less<>>; // held until the process ends
    return *locks;
}

/// The places of the locks that were waited for in vain.
std::set<off_t>& stuck_locks()
{
    static auto* locks = new std::set<off_t>; // as many as there are keys that are locked
    return *locks;
}

/// FNV-1a, without the two highest bits: a file offset.
off_t lock_offset(std::string_view key)
{
    std::uint64_t hash = 0xcbf29ce484222325;
    for (const char byte : key)
        hash = (hash ^ static_cast<unsigned char>(byte)) * 0x100000001b3;
    return static_cast<off_t>(hash >> 2U);
}

Descriptor open_lock_file(const std::string& name)
{
    const std::string directory = base::root_path("tmp/locks");
    Descriptor file;
    if (const auto distrust = base::find_distrust(directory); !distrust.directory.empty()) {
        ORV_LOG(log::kError, "cannot trust the directory {}: {}", distrust.directory, distrust.reason);
        return file;
    }
    if (base::make_directories(directory, base::kDirectoryMode))
        file = Descriptor(::open(name.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, kFileMode));
    if (!file.is_open())
        ORV_LOG(log::kError, "cannot open the lock file {}: {}", name, std::strerror(errno));
    return file;
}

/// A lock on a file that has been deleted meanwhile is no lock.
bool is_still_named(int fd, const std::string& name)
{
    struct stat open_file {};
    struct stat named_file {};
    return fstat(fd, &open_file) == 0 && stat(name.c_str(), &named_file) == 0 &&
           open_file.st_dev == named_file.st_dev && open_file.st_ino == named_file.st_ino;
}

/// Error::timed_out when somebody else has the lock.
Error try_lock(int fd, off_t offset)
{
    struct flock range {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    range.l_start = offset;
    range.l_len = 1;
    if (fcntl(fd, F_OFD_SETLK, &range) == 0)
        return Error::none;
    if (errno == EAGAIN || errno == EACCES || errno == EINTR)
        return Error::timed_out;
    ORV_LOG(log::kError, "cannot take a lock: {}", std::strerror(errno));
    return Error::input_output;
}

Error wait_for_lock(int fd, off_t offset, TimePoint deadline)
{
    for (;;) {
        const Error error = try_lock(fd, offset);
        if (error != Error::timed_out || Clock::now() >= deadline)
            return error;
        const timespec pause{0, kPollNs};
        (void)nanosleep(&pause, nullptr); // a signal only shortens it
    }
}

Error take_lock(std::string_view key)
{
    const std::string name = base::root_path("tmp/locks/settings");
    const off_t offset = lock_offset(key);
    const TimePoint now = Clock::now();
    const TimePoint deadline = stuck_locks().count(offset) != 0 ? now : now + kTimeout;
    for (;;) {
        Descriptor file = open_lock_file(name);
        if (!file.is_open())
            return Error::input_output;
        const Error error = wait_for_lock(file.get(), offset, deadline);
        if (error == Error::none && is_still_named(file.get(), name)) {
            held_locks().emplace(key, HeldLock{std::move(file), 1});
            stuck_locks().erase(offset);
            return Error::none;
        }
        if (error == Error::timed_out)
            stuck_locks().insert(offset);
        if (error != Error::none)
            return error;
        if (Clock::now() >= deadline)
            return Error::timed_out;
    }
}

} // namespace
} // namespace orv::detail

namespace orv::setMgmt {

int lockKey(const std::string& key)
{
    detail::SettingsKey parsed;
    if (!parsed.parse(key))
        return base::fail(Error::invalid_argument);
    const auto held = detail::held_locks().find(parsed.bytes());
    if (held != detail::held_locks().end()) {
        ++held->second.count;
        return 0;
    }
    const Error error = detail::take_lock(parsed.bytes());
    return error == Error::none ? 0 : base::fail(error);
}

int unlockKey(const std::string& key)
{
    detail::SettingsKey parsed;
    if (!parsed.parse(key))
        return base::fail(Error::invalid_argument);
    const auto held = detail::held_locks().find(parsed.bytes());
    if (held == detail::held_locks().end())
        return base::fail(Error::invalid_argument);
    if (--held->second.count == 0)
        detail::held_locks().erase(held); // which closes the file and so releases the lock
    return 0;
}

} // namespace orv::setMgmt
