// Requests are lines of JSON, answers and events are frames: a 32-bit length in native byte order and that
// many bytes. The socket itself blocks only while connecting, where the kernel's send time-out is the bound
// (a full backlog of a Unix socket cannot be waited for with poll); everything after uses MSG_DONTWAIT and
// poll against one deadline. A frame is read by exactly its own bytes, so that whoever watches the descriptor
// never misses an event that already sits in a buffer here.

#include <orvbroker/client.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

namespace orvbroker {
namespace {

using Length = std::uint32_t;

/// Storage grows by at most this much ahead of what has really arrived.
constexpr std::size_t kReadStep = 65536;

Error connect_error()
{
    switch (errno) {
    case ECONNREFUSED:
    case ENOENT:
        return Error::not_running;
    case EACCES:
    case EPERM:
        return Error::not_permitted;
    case EAGAIN:
        return Error::timed_out;
    default:
        return Error::system;
    }
}

/// The error of a failed send or recv; none when it is to be tried again.
Error transfer_error()
{
    switch (errno) {
    case EINTR:
    case EAGAIN:
        return Error::none;
    case EPIPE:
    case ECONNRESET:
        return Error::connection_lost;
    default:
        return Error::system;
    }
}

timeval to_timeval(std::chrono::milliseconds time)
{
    // An all-zero time-out would mean none at all.
    const auto milliseconds = std::clamp<std::chrono::milliseconds::rep>(time.count(), 1, 3'600'000);
    timeval value{};
    value.tv_sec = static_cast<decltype(value.tv_sec)>(milliseconds / 1000);
    value.tv_usec = static_cast<decltype(value.tv_usec)>(milliseconds % 1000 * 1000);
    return value;
}

int connect_retrying(int fd, const sockaddr_un& address, std::size_t name_size)
{
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name_size);
    int result = 0;
    do {
        result = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), length);
    } while (result == -1 && errno == EINTR);
    return result;
}

std::string request_line(std::string_view type, std::string_view name, std::string_view data)
{
    std::string line = R"({"type": ")" + std::string(type) + R"(", "name": )" + quote(name);
    if (!data.empty()) {
        line.append(R"(, "data": )").append(data);
        std::replace(line.begin(), line.end(), '\n', ' ');
    }
    line += "}\n";
    return line;
}

bool is_sendable(const std::string& request)
{
    return request.size() <= kMaxRequestSize && request.find('\0') == std::string::npos;
}

} // namespace

const char* message(Error error)
{
    switch (error) {
    case Error::none:
        return "no error";
    case Error::not_running:
        return "the broker daemon is not running (nobody listens on its socket in this network namespace)";
    case Error::not_permitted:
        return "not permitted to connect to the broker daemon (a security policy of the system forbids it)";
    case Error::connection_lost:
        return "connection lost: the broker daemon closed it without an answer";
    case Error::timed_out:
        return "timed out waiting for the broker daemon";
    case Error::malformed_answer:
        return "malformed answer: this is not the broker daemon, or not its version";
    case Error::refused:
        return "the broker daemon refused the subscription";
    case Error::invalid_argument:
        return "invalid request: it holds a NUL byte, is longer than 4 MiB, or the connection is subscribed";
    case Error::system:
        return "a system call failed";
    }
    return "unknown error";
}

Client::Client(Client&& other) noexcept
    : m_fd(std::exchange(other.m_fd, -1)), m_subscribed(std::exchange(other.m_subscribed, false)),
      m_frame(std::move(other.m_frame))
{
}

Client& Client::operator=(Client&& other) noexcept
{
    std::swap(m_fd, other.m_fd);
    std::swap(m_subscribed, other.m_subscribed);
    std::swap(m_frame, other.m_frame);
    return *this;
}

Client::~Client()
{
    close();
}

std::optional<uid_t> Client::server_uid() const
{
    ucred server{};
    socklen_t size = sizeof server;
    if (::getsockopt(m_fd, SOL_SOCKET, SO_PEERCRED, &server, &size) == -1)
        return std::nullopt;
    return server.uid;
}

void Client::close()
{
    if (m_fd != -1)
        ::close(m_fd);
    m_fd = -1;
    m_subscribed = false;
    m_frame.clear();
}

Error Client::fail(Error error)
{
    const int reason = errno;
    close();
    errno = reason;
    return error;
}

Error Client::connect(std::chrono::milliseconds timeout, std::string_view socket_name)
{
    close();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (socket_name.size() >= sizeof(address.sun_path))
        return Error::invalid_argument;
    // The NUL byte before the name makes it an abstract one.
    std::memcpy(address.sun_path + 1, socket_name.data(), socket_name.size());

    m_fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_fd == -1)
        return Error::system;
    const timeval limit = to_timeval(timeout);
    if (::setsockopt(m_fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit)) == -1)
        return fail(Error::system);
    if (connect_retrying(m_fd, address, socket_name.size()) == -1)
        return fail(connect_error());
    return Error::none;
}

Error Client::call(std::string_view name, std::string_view data, Answer& answer,
                   std::chrono::milliseconds timeout)
{
    return exchange(request_line("command", name, data), answer, deadline_after(timeout));
}

Error Client::subscribe(std::string_view event, std::chrono::milliseconds timeout)
{
    Answer answer;
    const Error error = exchange(request_line("subscribe", event, ""), answer, deadline_after(timeout));
    if (error != Error::none)
        return error;
    if (answer.status() != 0)
        return fail(Error::refused);
    m_subscribed = true;
    return Error::none;
}

Error Client::next_event(std::string& event, std::chrono::milliseconds timeout)
{
    const Error error = receive_frame(event, deadline_after(timeout));
    return error == Error::none || error == Error::timed_out ? error : fail(error);
}

Error Client::exchange(const std::string& request, Answer& answer, Deadline deadline)
{
    if (m_subscribed || !is_sendable(request))
        return Error::invalid_argument;
    Error error = send(request, deadline);
    std::string text;
    if (error == Error::none)
        error = receive_frame(text, deadline);
    if (error == Error::none && !answer.parse(std::move(text)))
        error = Error::malformed_answer;
    // A late answer must not be taken for the next call's, hence no connection survives a time-out.
    return error == Error::none ? error : fail(error);
}

Error Client::send(std::string_view bytes, Deadline deadline)
{
    if (m_fd == -1)
        return Error::connection_lost;
    while (!bytes.empty()) {
        const ssize_t sent = ::send(m_fd, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent > 0) {
            bytes.remove_prefix(static_cast<std::size_t>(sent));
            continue;
        }
        Error error = transfer_error();
        if (error == Error::none)
            error = wait(POLLOUT, deadline);
        if (error != Error::none)
            return error;
    }
    return Error::none;
}

Error Client::receive_frame(std::string& text, Deadline deadline)
{
    if (m_fd == -1)
        return Error::connection_lost;
    Length length = 0;
    Error error = fill(sizeof(length), deadline);
    if (error != Error::none)
        return error;
    std::memcpy(&length, m_frame.data(), sizeof(length));
    if (length > kMaxFrameSize)
        return Error::malformed_answer;
    error = fill(sizeof(length) + length, deadline);
    if (error != Error::none)
        return error;
    text.assign(m_frame, sizeof(length), length);
    m_frame.clear();
    return Error::none;
}

/// Receives until the current frame has `size` bytes.
Error Client::fill(std::size_t size, Deadline deadline)
{
    while (m_frame.size() < size) {
        const std::size_t have = m_frame.size();
        m_frame.resize(std::min(size, have + kReadStep));
        const ssize_t got = ::recv(m_fd, &m_frame[have], m_frame.size() - have, MSG_DONTWAIT);
        m_frame.resize(have + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
        if (got > 0)
            continue;
        Error error = got == 0 ? Error::connection_lost : transfer_error();
        if (error == Error::none)
            error = wait(POLLIN, deadline);
        if (error != Error::none)
            return error;
    }
    return Error::none;
}

Error Client::wait(short events, Deadline deadline) const
{
    pollfd watched{m_fd, events, 0};
    const int ready = ::poll(&watched, 1, poll_timeout(deadline));
    if (ready == -1)
        return errno == EINTR ? Error::none : Error::system;
    return ready == 0 && is_over(deadline) ? Error::timed_out : Error::none;
}

} // namespace orvbroker
