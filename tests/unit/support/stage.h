#pragma once

#include "fake/fake.h"

#include "connection.h"

#include <string>

namespace orv::test {

/// The daemon below its main loop, on a fake platform: epoll, the exchange's handle and client connections
/// are there without start-up. At its end whoever still waits for an answer gets one, so that what it owns is
/// freed, and all connections are destroyed.
class Stage {
public:
    explicit Stage(fake::Fake& platform);
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;
    ~Stage();

    /// A connection in the daemon's table, and its other end, which is the caller's.
    struct Ends {
        brokerd::Connection* conn;
        int client;
    };
    [[nodiscard]] Ends connect();

    /// Destroys a connection the way the main loop does.
    static void destroy(brokerd::Connection* conn);

private:
    fake::Fake& m_platform;
};

/// A request line for a command, without its line feed; `data` is JSON, empty for none.
std::string command(const std::string& name, const std::string& data = {});

/// A request line for a subscription.
std::string subscription(const std::string& event);

} // namespace orv::test
