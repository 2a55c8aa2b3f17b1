#pragma once

namespace orv::io {

/// Sets what `epfd` watches `fd` for (EPOLLIN, EPOLLOUT), the event's data holding the descriptor: changes
/// the interest of a watched descriptor, adds one that is not watched yet. Returns 0, or -1 with errno set.
[[nodiscard]] int epoll_set_fd(int epfd, int fd, unsigned events);

/// The same for input only.
[[nodiscard]] int epoll_set_fd_ro(int epfd, int fd);

} // namespace orv::io
