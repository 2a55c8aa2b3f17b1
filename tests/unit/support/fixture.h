#pragma once

#include "client.h"
#include "fake/fake.h"
#include "stage.h"

#include "agent_status.h"
#include "evhandler.h"

#include <gmock/gmock.h>

#include <memory>
#include <optional>
#include <set>
#include <string>

namespace orv::test {

/// Descriptors open in this process.
std::set<int> open_descriptors();

/// An epoll descriptor that is not the daemon's.
class OtherEpoll {
public:
    OtherEpoll();
    OtherEpoll(const OtherEpoll&) = delete;
    OtherEpoll& operator=(const OtherEpoll&) = delete;
    ~OtherEpoll();
    [[nodiscard]] const int& fd() const { return m_fd; }

private:
    int m_fd;
};

/// A test with a platform and a root directory of its own. At its end, the daemon's tables must be empty and
/// the same descriptors open as at its beginning.
class PlatformTest : public testing::Test {
public:
    PlatformTest();
    ~PlatformTest() override;

protected:
    /// The whole life of the daemon, with the fake's script of waiting; its exit status.
    int run_daemon();

    [[nodiscard]] std::string version_file() const { return m_root + "/6/orvbrokerd.version"; }

    /// Puts a new platform in place of the used one.
    void renew_platform();

    std::unique_ptr<fake::Fake> platform;

private:
    void expect_tables_empty();

    std::string m_root;
    std::set<int> m_descriptors;
};

/// A test of the code below the main loop.
class ServiceTest : public PlatformTest {
public:
    ServiceTest();
    ~ServiceTest() override;

protected:
    /// A connection that is watched for input, and in the table of connections; the client has its other end.
    struct Peer {
        brokerd::Connection* conn;
        Client client;
    };
    Peer connect();
    /// A connection that has subscribed, with the answer taken and all records of it dropped.
    Peer subscribe(const std::string& event);

    /// Lets the client send that and the daemon handle it. False when the connection has ended by it; it is
    /// then destroyed.
    bool receive(Peer& peer, const std::string& bytes);
    /// The same, with as many readable events as there are bytes left.
    bool receive_all(Peer& peer, const std::string& bytes);
    /// Hands an event mask to the connection; the same.
    bool handle(Peer& peer, unsigned events);
    /// Lets the daemon write until nothing is pending. False when the connection has ended by it.
    bool drain(Peer& peer);
    /// A request line and what the client then receives: the frame, or nothing.
    std::optional<std::string> ask(Peer& peer, const std::string& line);
    /// Reads the exchange as the main loop does.
    void read_exchange();
    /// Destroys a connection the way the main loop does.
    void destroy(Peer& peer);
    [[nodiscard]] bool is_connected(const Peer& peer) const;
    /// What the daemon's epoll descriptor, or another one, watches a connection for; 0 when it does not.
    [[nodiscard]] static unsigned watched_for(const Peer& peer);
    [[nodiscard]] static unsigned watched_for(const Peer& peer, int epoll);

    /// Drops what was recorded so far.
    void forget_records();

private:
    std::optional<Stage> m_stage;
};

fake::Logs lines(std::initializer_list<std::pair<int, std::string>> list);

} // namespace orv::test
