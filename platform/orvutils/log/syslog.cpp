// The system log's end of a datagram socket. syslog(3) would wait for a reader that does not read, and would
// not find one that has taken the place of another which hangs.

#include "log_sink.h"

#include <orvbase/clock.h>

#include <sys/socket.h>
#include <sys/uio.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>

namespace orv::log {

namespace {

constexpr std::int64_t kPatienceMs = 1000;

int g_socket = -1;
std::int64_t g_connected_at = 0;

bool connect_to(const char* address)
{
    if (g_socket != -1)
        (void)close(g_socket); // datagrams are sent or lost
    g_socket = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    g_connected_at = base::coarse_now_ms();
    if (g_socket == -1)
        return false;
    sockaddr_un local{};
    local.sun_family = AF_UNIX;
    if (std::strlen(address) < sizeof local.sun_path) {
        std::memcpy(local.sun_path, address, std::strlen(address));
        if (connect(g_socket, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0)
            return true;
    }
    (void)close(g_socket);
    g_socket = -1;
    return false;
}

iovec part(std::string_view text)
{
    return {const_cast<char*>(text.data()), text.size()};
}

bool send_once(msghdr& message)
{
    ssize_t sent = 0;
    do
        sent = sendmsg(g_socket, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    while (sent == -1 && errno == EINTR);
    return sent != -1;
}

/// Whether another connection may take what this one has refused: its reader has gone, or has not read for a
/// while, and then another one may listen in its place.
bool is_worth_another()
{
    if (errno != EAGAIN && errno != ENOBUFS)
        return errno != EMSGSIZE;
    return base::coarse_now_ms() - g_connected_at >= kPatienceMs;
}

} // namespace

bool send_to_syslog(const char* address, std::string_view head, std::string_view program,
                    std::string_view process, std::string_view text)
{
    iovec parts[] = {part(head), part(program), part(process), part(text)};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = sizeof parts / sizeof *parts;
    if (g_socket != -1 && send_once(message))
        return true;
    if (g_socket != -1 && !is_worth_another())
        return false;
    return connect_to(address) && send_once(message);
}

} // namespace orv::log
