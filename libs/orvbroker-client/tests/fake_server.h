#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>

/// A process that listens on an abstract socket of its own, accepts one client, runs a script on it and then
/// waits to be ended. Without a script it never accepts.
class FakeServer {
public:
    /// `backlog` as for listen().
    explicit FakeServer(const std::function<void(int client)>& script, int backlog = 8);
    FakeServer(const FakeServer&) = delete;
    FakeServer& operator=(const FakeServer&) = delete;
    ~FakeServer();

    [[nodiscard]] const std::string& name() const { return m_name; }

private:
    std::string m_name;
    pid_t m_child = -1;
};

// For scripts.
void send_all(int fd, std::string_view bytes);
/// A text as the daemon sends it: its length in front.
[[nodiscard]] std::string frame(std::string_view text);
void send_frame(int fd, std::string_view text);
/// Receives up to and including a line feed, which is left out of the result.
[[nodiscard]] std::string receive_line(int fd);
/// Waits until the client sends a byte.
void wait_for_byte(int fd);
