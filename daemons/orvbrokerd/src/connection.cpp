// A frame is a 4-byte length and the text. Queuing one and watching for output are the only ways in which
// anything reaches a client.

#include "connection.h"

#include <orvutils/io.h>

#include <fmt/format.h>

#include <sys/epoll.h>

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

void put_frame(Connection* conn, const char* text, std::uint32_t len)
{
    conn->put(&len, sizeof len);
    conn->put(text, len);
}

void watch_for_output(const Connection* conn, int epfd)
{
    if (epfd != -1)
        io::epoll_set_fd(epfd, conn->fd, EPOLLIN | EPOLLOUT);
}

void queue_frame(Connection* conn, const char* text, std::uint32_t len, int epfd)
{
    put_frame(conn, text, len);
    watch_for_output(conn, epfd);
}

} // namespace orv::brokerd
