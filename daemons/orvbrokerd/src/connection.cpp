// A frame is a 4-byte length and the text. Queuing one and watching for output are the only ways in which
// anything reaches a client.

#include "connection.h"

#include <orvutils/io.h>

#include <fmt/format.h>

#include <sys/epoll.h>
#include <sys/socket.h>

namespace orv::brokerd {

Connection::Connection(int socket)
    : fd(socket), rx(ConnectionBufferType::receive, fmt::format_int(socket).str()),
      tx(ConnectionBufferType::send, fmt::format_int(socket).str())
{
}

void Connection::put(const void* data, unsigned len)
{
    const char* rest = static_cast<const char*>(data);
    while (len > 0) {
        const unsigned taken = tx.put(rest, len);
        if (taken == 0)
            return;
        rest += taken;
        len -= taken;
    }
}

void end_if_cut(const Connection* conn, std::uint64_t wanted)
{
    const unsigned pending = conn->tx.pending();
    if (pending < wanted && pending != kBufferMaximumSize)
        (void)shutdown(conn->fd, SHUT_RDWR); // the loop sees its end; else it has gone already
}

void put_frame(Connection* conn, std::string_view text)
{
    const auto len = static_cast<std::uint32_t>(text.size());
    const std::uint64_t wanted = std::uint64_t{conn->tx.pending()} + sizeof len + text.size();
    conn->put(&len, sizeof len);
    conn->put(text.data(), len);
    end_if_cut(conn, wanted);
}

void watch_for_output(const Connection* conn, int epfd)
{
    if (epfd == -1)
        return;
    // The socket is ours and watched already: nothing can fail, and what is queued stays for the next time.
    (void)io::epoll_set_fd(epfd, conn->fd, EPOLLIN | EPOLLOUT);
}

void queue_frame(Connection* conn, std::string_view text, int epfd)
{
    put_frame(conn, text);
    watch_for_output(conn, epfd);
}

void put_frames(const std::vector<Connection*>& conns, std::string_view text)
{
    for (Connection* conn : conns)
        put_frame(conn, text);
}

void queue_frames(const std::vector<Connection*>& conns, std::string_view text, int epfd)
{
    for (Connection* conn : conns)
        queue_frame(conn, text, epfd);
}

} // namespace orv::brokerd
