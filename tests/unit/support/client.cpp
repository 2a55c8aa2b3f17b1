#include "client.h"

#include "fake/fake.h"

#include <orvutils/sockutl.h>

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

namespace orv::test {

void Client::connect()
{
    const fake::Fake::Paused paused;
    sockutl::address address(":orvbrokerd-1.3.skt");
    m_fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::connect(m_fd, address, address) != 0)
        close();
}

Client::Client(Client&& other) noexcept
    : m_received(std::move(other.m_received)), m_fd(std::exchange(other.m_fd, -1)), m_closed(other.m_closed)
{
}

std::size_t Client::send(const std::string& bytes)
{
    const fake::Fake::Paused paused;
    std::size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(m_fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n <= 0)
            break;
        sent += static_cast<std::size_t>(n);
    }
    return sent;
}

void Client::receive()
{
    const fake::Fake::Paused paused;
    std::array<char, 65536> part;
    for (;;) {
        const ssize_t n = ::recv(m_fd, part.data(), part.size(), MSG_DONTWAIT);
        m_closed = m_closed || n == 0 || (n == -1 && errno == ECONNRESET);
        if (n <= 0)
            return;
        m_received.append(part.data(), static_cast<std::size_t>(n));
    }
}

std::optional<std::string> Client::frame()
{
    receive();
    std::uint32_t length = 0;
    if (m_received.size() < sizeof length)
        return std::nullopt;
    std::memcpy(&length, m_received.data(), sizeof length);
    if (m_received.size() - sizeof length < length)
        return std::nullopt;
    std::string text = m_received.substr(sizeof length, length);
    m_received.erase(0, sizeof length + length);
    return text;
}

std::string Client::bytes()
{
    receive();
    return std::exchange(m_received, {});
}

bool Client::is_closed()
{
    receive();
    return m_closed && m_received.empty();
}

void Client::shut_down_writing()
{
    shutdown(m_fd, SHUT_WR);
}

void Client::close()
{
    const fake::Fake::Paused paused;
    if (m_fd != -1)
        ::close(m_fd);
    m_fd = -1;
}

std::string framed(const std::string& text)
{
    const auto length = static_cast<std::uint32_t>(text.size());
    std::string frame(sizeof length, '\0');
    std::memcpy(frame.data(), &length, sizeof length);
    return frame + text;
}

} // namespace orv::test
