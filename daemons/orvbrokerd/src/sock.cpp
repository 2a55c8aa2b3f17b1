// The listening socket. Its name is abstract: no file is made, so there is nothing to remove at exit and
// nothing in the way of a new start. The two line feeds at the end of some messages are meant: they set these
// lines apart in the log.

#include "sock.h"

#include <orvutils/error.h>
#include <orvutils/log_format.h>
#include <orvutils/sockutl.h>

#include <sys/socket.h>
#include <unistd.h>

#include <string>

namespace orv::brokerd {
namespace {

/// Clients that may wait for being accepted.
constexpr int kBacklog = 8;

} // namespace

int create_server_socket(const char* text)
{
    sockutl::address address(text);
    if (!address.is_valid()) {
        ORV_LOG(log::kError, "Invalid server address: {}", _get_orverrno());
        return -1;
    }

    const std::string name = address.to_string(/*with_family=*/false); // while there is nothing to be lost
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd == -1) {
        ORV_LOG(log::kError, "failed to create socket");
        return -1;
    }
    if (bind(fd, address, address) == -1) {
        ORV_LOG(log::kError, "failed to bind socket {:d} to {:s}", fd, name);
        (void)close_server_socket(fd); // gone either way
        return -1;
    }
    if (listen(fd, kBacklog) == -1) {
        ORV_LOG(log::kError, "failed to listen on socket {:d}", fd);
        (void)close_server_socket(fd); // as above
        return -1;
    }
    ORV_LOG(log::kDebug, "listening for connections on socket {:d} ({:s})\n", fd, name);
    return fd;
}

int close_server_socket(int fd)
{
    ORV_LOG(log::kDebug, "closing server socket {:d}\n", fd);
    return close(fd) == -1 ? -1 : 0;
}

} // namespace orv::brokerd
