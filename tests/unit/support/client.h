#pragma once

#include <optional>
#include <string>

namespace orv::test {

/// The other end of a connection to the daemon. Nothing here waits: what is not there yet is not there.
class Client {
public:
    Client() = default;
    /// Takes over a connected socket.
    explicit Client(int fd) : m_fd(fd) {}
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;
    Client(Client&& other) noexcept;
    ~Client() { close(); }

    /// Connects to the daemon's socket.
    void connect();
    [[nodiscard]] bool is_open() const { return m_fd != -1; }

    /// How many of them the connection has taken.
    std::size_t send(const std::string& bytes);
    /// The next frame's text; nothing when it has not arrived completely.
    std::optional<std::string> frame();
    /// All bytes that have arrived and no frame() has taken.
    std::string bytes();
    /// Whether the daemon has closed the connection, and all it sent was taken.
    bool is_closed();
    /// Closes this end for writing only.
    void shut_down_writing();
    void close();

private:
    void receive();

    std::string m_received;
    int m_fd = -1;
    bool m_closed = false;
};

/// A frame as it goes over the socket.
std::string framed(const std::string& text);

} // namespace orv::test
