// A server is a child process, so that it may block in whatever its script does and be ended at any point of
// it.

#include "fake_server.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {

void require(bool condition)
{
    if (!condition)
        std::abort();
}

int listen_on(const std::string& name, int backlog)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path + 1, name.data(), name.size());
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    require(fd != -1);
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
    require(::bind(fd, reinterpret_cast<const sockaddr*>(&address), length) == 0);
    require(::listen(fd, backlog) == 0);
    return fd;
}

[[noreturn]] void serve(int listener, const std::function<void(int)>& script)
{
    if (script) {
        const int client = ::accept(listener, nullptr, nullptr);
        require(client != -1);
        script(client);
        ::close(client);
    }
    for (;;)
        ::pause();
}

} // namespace

FakeServer::FakeServer(const std::function<void(int client)>& script, int backlog)
{
    static int s_servers = 0;
    m_name = "orvbroker-test-" + std::to_string(::getpid()) + "-" + std::to_string(++s_servers);
    const int listener = listen_on(m_name, backlog);
    m_child = ::fork();
    require(m_child != -1);
    if (m_child == 0)
        serve(listener, script);
    ::close(listener);
}

FakeServer::~FakeServer()
{
    ::kill(m_child, SIGKILL);
    ::waitpid(m_child, nullptr, 0);
}

void send_all(int fd, std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        require(sent > 0);
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
}

std::string frame(std::string_view text)
{
    const auto length = static_cast<std::uint32_t>(text.size());
    std::string bytes(sizeof(length), '\0');
    std::memcpy(bytes.data(), &length, sizeof(length));
    return bytes.append(text);
}

void send_frame(int fd, std::string_view text)
{
    send_all(fd, frame(text));
}

std::string receive_line(int fd)
{
    std::string line;
    char byte = 0;
    while (::read(fd, &byte, 1) == 1 && byte != '\n')
        line += byte;
    return line;
}

void wait_for_byte(int fd)
{
    char byte = 0;
    require(::read(fd, &byte, 1) == 1);
}
