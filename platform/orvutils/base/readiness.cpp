// A service manager that wants to know when a daemon is up gives it the name of a datagram socket, a path or "@" and an
// abstract name, and waits for the line READY=1: systemd's protocol (sd_notify(3)), which needs no library.

#include "readiness.h"

#include <orvbase/descriptor.h>
#include <orvutils/log_format.h>

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

namespace orv {

namespace {

constexpr char kVariable[] = "NOTIFY_SOCKET";
constexpr std::string_view kReady = "READY=1";
/// For a manager that is busy: its socket's queue is full.
constexpr timeval kPatience = {1, 0};

/// Sends it; false with errno set on failure.
bool send_ready(const std::string& name)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (name.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(address.sun_path, name.data(), name.size());
    if (name.front() == '@')
        address.sun_path[0] = '\0';
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());

    const base::Descriptor socket_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    return socket_fd.is_open() &&
           setsockopt(socket_fd.get(), SOL_SOCKET, SO_SNDTIMEO, &kPatience, sizeof kPatience) == 0 &&
           sendto(socket_fd.get(), kReady.data(), kReady.size(), MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr*>(&address), length) != -1;
}

} // namespace

void tell_readiness()
{
    const char* configured = std::getenv(kVariable);
    if (!configured || *configured == '\0')
        return;
    const std::string name = configured;
    (void)unsetenv(kVariable); // fails for names with a "=" only
    if (!send_ready(name))
        ORV_LOG(log::kWarning, "cannot tell {} that the daemon is up: {}, ignoring", name,
                std::strerror(errno));
}

} // namespace orv
