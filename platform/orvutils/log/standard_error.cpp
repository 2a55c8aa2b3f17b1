// Writing to standard error without ever waiting for its reader. Its descriptor is shared with other
// processes, which must not find it set to O_NONBLOCK. So a pipe or a terminal is opened once more, for this
// process alone and without waiting; a socket can be asked not to wait for each message; and a file never
// makes anybody wait. Where the second opening is not possible (no /proc, a terminal of somebody else), the
// kernel is asked for room before a line is written.
//
// What standard error is can change under way. A descriptor of our own would miss that, so with one it is
// looked at for each line; otherwise once a second, as a system call is half of what a line costs.
//
// A pipe takes a line whole or not at all, as lines are shorter than PIPE_BUF. Of what may take a part of one
// (a terminal, a stream socket, a full disk) the rest is kept, and goes first the next time.

#include "log_sink.h"

#include <orvutils/log.h>

#include "log_text.h"

#include <orvbase/clock.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace orv::log {

namespace {

constexpr std::size_t kMaxLine = kPrefixAreaSize + kMaxText + kMaxMark + 2;
static_assert(kMaxLine <= PIPE_BUF);

enum class Kind {
    none,
    file, ///< or a device: never full for long
    socket,
    opened, ///< a pipe or a terminal, by a descriptor of our own
    asked,  ///< the same, but it could not be opened
};

struct Stream {
    Kind kind;
    int own;      ///< the descriptor of our own, or -1
    dev_t device; ///< of what standard error was when this was found out
    ino_t inode;
    std::int64_t looked_at;
    char rest[kMaxLine]; ///< of a line that was written in part
    std::size_t rest_size;
};

Stream g_stream = {Kind::none, -1, 0, 0, 0, {}, 0};

void adopt(const struct stat& status)
{
    leave_standard_error();
    g_stream.device = status.st_dev;
    g_stream.inode = status.st_ino;
    if (S_ISSOCK(status.st_mode)) {
        g_stream.kind = Kind::socket;
    } else if (S_ISFIFO(status.st_mode) || isatty(STDERR_FILENO) == 1) {
        g_stream.own = open("/proc/self/fd/2", O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        g_stream.kind = g_stream.own != -1 ? Kind::opened : Kind::asked;
    } else {
        g_stream.kind = Kind::file;
    }
}

bool is_known(std::int64_t now)
{
    constexpr std::int64_t kLookMs = 1000;
    return (g_stream.kind == Kind::file || g_stream.kind == Kind::socket) &&
           now - g_stream.looked_at < kLookMs;
}

/// Finds out what standard error is.
bool look()
{
    const std::int64_t now = base::coarse_now_ms();
    if (is_known(now))
        return true;
    g_stream.looked_at = now;
    struct stat status {};
    if (fstat(STDERR_FILENO, &status) == -1)
        return false;
    if (g_stream.kind == Kind::none || status.st_ino != g_stream.inode || status.st_dev != g_stream.device)
        adopt(status);
    return true;
}

bool has_room()
{
    pollfd watched = {STDERR_FILENO, POLLOUT, 0};
    return poll(&watched, 1, 0) == 1 && (watched.revents & POLLOUT) != 0;
}

ssize_t put_once(std::string_view bytes)
{
    switch (g_stream.kind) {
    case Kind::socket:
        return send(STDERR_FILENO, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    case Kind::opened:
        return write(g_stream.own, bytes.data(), bytes.size());
    case Kind::asked:
        return has_room() ? write(STDERR_FILENO, bytes.data(), bytes.size()) : -1;
    case Kind::none:
    case Kind::file:
        break;
    }
    return write(STDERR_FILENO, bytes.data(), bytes.size());
}

/// How many bytes were taken.
std::size_t put(std::string_view bytes)
{
    ssize_t count = 0;
    do {
        errno = 0;
        count = put_once(bytes);
    } while (count == -1 && errno == EINTR);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}

void keep(std::string_view rest)
{
    std::memmove(g_stream.rest, rest.data(), rest.size());
    g_stream.rest_size = rest.size();
}

bool put_rest()
{
    if (g_stream.rest_size == 0)
        return true;
    const std::string_view rest{g_stream.rest, g_stream.rest_size};
    keep(rest.substr(put(rest)));
    return g_stream.rest_size == 0;
}

} // namespace

bool write_to_standard_error(std::string_view line)
{
    if (!look() || !put_rest())
        return false;
    const std::size_t written = put(line);
    if (written > 0)
        keep(line.substr(written));
    return written > 0;
}

void write_rest_of_line()
{
    if (g_stream.rest_size > 0 && look())
        (void)put_rest(); // what is left waits for the next time
}

bool is_line_torn()
{
    return g_stream.rest_size > 0;
}

void leave_standard_error()
{
    if (g_stream.own != -1)
        (void)close(g_stream.own); // nothing is kept there
    g_stream.own = -1;
    g_stream.kind = Kind::none;
    g_stream.rest_size = 0;
}

} // namespace orv::log
