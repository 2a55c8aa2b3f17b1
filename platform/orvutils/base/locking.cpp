// File locks are open file description locks: they belong to the descriptor. The older kind, which belongs to
// the process, is lost as soon as the process closes any descriptor of the file.

#include <orvutils/locking.h>

#include <orvbase/error_number.h>
#include <orvbase/root.h>
#include <orvutils/log_format.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <string>
#include <utility>

namespace orv::locking {

namespace {

constexpr mode_t kLockFileMode = 0600;

/// The directory of a file that lies below the agent's root; empty for others.
std::string own_parent(const std::string& file)
{
    const std::string root = base::root_path("");
    const auto slash = file.rfind('/');
    if (slash == std::string::npos || slash < root.size() || file.compare(0, root.size(), root) != 0)
        return {};
    return file[root.size()] == '/' || root == "/" ? file.substr(0, slash) : std::string{};
}

/// Only what lies below the agent's root is ours to make, and must be nobody else's.
int open_file(const std::string& file, bool create)
{
    const std::string parent = own_parent(file);
    if (create && !parent.empty())
        (void)base::make_directories(parent, base::kDirectoryMode); // open() will tell
    if (const auto distrust = base::find_distrust(parent); !distrust.directory.empty()) {
        ORV_LOG(log::kError, "cannot trust the directory {}: {}", distrust.directory, distrust.reason);
        return -1;
    }
    const int follow = parent.empty() ? 0 : O_NOFOLLOW;
    return open(file.c_str(), O_RDWR | O_CLOEXEC | follow | (create ? O_CREAT : 0), kLockFileMode);
}

} // namespace

plock::plock(plock&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}

plock& plock::operator=(plock&& other) noexcept
{
    std::swap(m_fd, other.m_fd);
    return *this;
}

plock::~plock()
{
    if (m_fd != -1)
        (void)close(m_fd); // nothing was written
}

std::optional<plock> plock::make(const path& file, flags how)
try {
    const int fd = open_file(file.str(), how == flags::create);
    if (fd == -1) {
        base::set_error(file.str().empty() ? Error::invalid_argument : Error::input_output);
        return std::nullopt;
    }
    return plock(fd);
} catch (const std::bad_alloc&) {
    base::set_error(Error::input_output);
    return std::nullopt;
}

result plock::lock(type which)
{
    struct flock request {}; // start and length 0: the whole file
    request.l_type = which == type::exclusive ? F_WRLCK : F_RDLCK;
    request.l_whence = SEEK_SET;
    if (fcntl(m_fd, F_OFD_SETLK, &request) == 0)
        return result::locked;
    if (errno == EAGAIN || errno == EACCES)
        return result::busy;
    base::set_error(Error::input_output);
    return result::failed;
}

} // namespace orv::locking
