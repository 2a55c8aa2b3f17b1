// Most descriptors are watched already and only change what they are watched for, so that is tried first.

#include <orvutils/io.h>

#include <orvbase/error_number.h>

#include <sys/epoll.h>

#include <cerrno>

namespace orv::io {

int epoll_set_fd(int epfd, int fd, unsigned events)
{
    epoll_event event{};
    event.events = events;
    event.data.fd = fd;
    if (epoll_ctl(epfd, EPOLL_CTL_MOD, fd, &event) == 0)
        return 0;
    if (errno == ENOENT && epoll_ctl(epfd, EPOLL_CTL_ADD, fd, &event) == 0)
        return 0;
    base::set_error(Error::input_output);
    return -1;
}

int epoll_set_fd_ro(int epfd, int fd)
{
    return epoll_set_fd(epfd, fd, EPOLLIN);
}

} // namespace orv::io
