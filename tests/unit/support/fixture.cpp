#include "fixture.h"

#include "orvbrokerd.h"
#include "orvex.h"
#include "subevhandlers.h"

#include <dirent.h>
#include <ftw.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace orv::test {

using fake::Fake;

std::set<int> open_descriptors()
{
    const Fake::Paused paused;
    std::set<int> descriptors;
    DIR* directory = opendir("/proc/self/fd");
    while (const dirent* entry = readdir(directory))
        if (entry->d_name[0] != '.')
            descriptors.insert(std::atoi(entry->d_name));
    descriptors.erase(dirfd(directory));
    closedir(directory);
    return descriptors;
}

fake::Logs lines(std::initializer_list<std::pair<int, std::string>> list)
{
    fake::Logs logs;
    for (const auto& line : list)
        logs.push_back({line.first, line.second, {}, {}});
    return logs;
}

OtherEpoll::OtherEpoll()
{
    const Fake::Paused paused;
    m_fd = epoll_create1(EPOLL_CLOEXEC);
}

OtherEpoll::~OtherEpoll()
{
    const Fake::Paused paused;
    close(m_fd);
}

// ---- PlatformTest

namespace {

constexpr unsigned kDeadline = 60; ///< seconds, for one test

} // namespace

PlatformTest::PlatformTest()
{
    alarm(kDeadline); // a daemon that blocks is a failure, not a wait
    char root[] = "/tmp/orvbrokerd-unit-XXXXXX";
    m_root = mkdtemp(root);
    mkdir((m_root + "/6").c_str(), 0700);
    m_descriptors = open_descriptors();
    renew_platform();
}

PlatformTest::~PlatformTest()
{
    alarm(0);
    expect_tables_empty();
    platform.reset();
    EXPECT_EQ(open_descriptors(), m_descriptors);
    const auto remove_entry = [](const char* path, const struct stat*, int, FTW*) {
        return std::remove(path);
    };
    nftw(m_root.c_str(), remove_entry, 8, FTW_DEPTH | FTW_PHYS);
}

void PlatformTest::renew_platform()
{
    platform.reset();
    platform = std::make_unique<Fake>();
    platform->root = m_root;
}

int PlatformTest::run_daemon()
{
    char name[] = "orvbrokerd";
    char* arguments[] = {name, nullptr};
    const Fake::Inside inside;
    return brokerd::daemon_main(1, arguments);
}

void PlatformTest::expect_tables_empty()
{
    EXPECT_TRUE(brokerd::g_connections.empty());
    for (const auto& [event, connections] : brokerd::g_client_subscriptions)
        ADD_FAILURE() << connections.size() << " connections are left as subscribers of " << event;
    for (const auto& subscription : brokerd::g_exchange_subscriptions)
        ADD_FAILURE() << "connections are left as receivers of " << subscription.first;
    brokerd::g_client_subscriptions.clear();
    brokerd::g_exchange_subscriptions.clear();
    brokerd::g_events_cache.clear();
    brokerd::g_last_reported.reset();
}

// ---- ServiceTest

ServiceTest::ServiceTest()
{
    m_stage.emplace(*platform);
}

ServiceTest::~ServiceTest()
{
    m_stage.reset(); // before the platform
}

ServiceTest::Peer ServiceTest::connect()
{
    const Stage::Ends ends = m_stage->connect();
    return {ends.conn, Client(ends.client)};
}

ServiceTest::Peer ServiceTest::subscribe(const std::string& event)
{
    Peer peer = connect();
    EXPECT_EQ(ask(peer, subscription(event)), R"({"data": null, "status": 0})");
    forget_records();
    return peer;
}

bool ServiceTest::receive(Peer& peer, const std::string& bytes)
{
    peer.client.send(bytes);
    return handle(peer, EPOLLIN);
}

bool ServiceTest::receive_all(Peer& peer, const std::string& bytes)
{
    if (!receive(peer, bytes))
        return false;
    int unread = 0;
    while (ioctl(peer.conn->fd, FIONREAD, &unread) == 0 && unread > 0)
        if (!handle(peer, EPOLLIN))
            return false;
    return true;
}

bool ServiceTest::handle(Peer& peer, unsigned events)
{
    int result = 0;
    {
        const Fake::Inside inside;
        result = brokerd::process_client_events(peer.conn, events, brokerd::epollfd);
    }
    EXPECT_TRUE(result == 0 || result == -1) << result;
    if (result >= 0)
        return true;
    destroy(peer);
    return false;
}

bool ServiceTest::drain(Peer& peer)
{
    while (watched_for(peer) & EPOLLOUT)
        if (!handle(peer, EPOLLOUT))
            return false;
    return true;
}

std::optional<std::string> ServiceTest::ask(Peer& peer, const std::string& line)
{
    if (receive(peer, line + "\n"))
        drain(peer);
    return peer.client.frame();
}

void ServiceTest::read_exchange()
{
    EXPECT_EQ(orvex_read_fd(brokerd::orvex), 0);
}

void ServiceTest::destroy(Peer& peer)
{
    Stage::destroy(peer.conn);
    peer.conn = nullptr;
}

bool ServiceTest::is_connected(const Peer& peer) const
{
    return peer.conn != nullptr;
}

unsigned ServiceTest::watched_for(const Peer& peer)
{
    return watched_for(peer, brokerd::epollfd);
}

unsigned ServiceTest::watched_for(const Peer& peer, int epoll)
{
    const Fake::Paused paused;
    std::ifstream info("/proc/self/fdinfo/" + std::to_string(epoll));
    std::string word;
    while (info >> word) {
        int fd = -1;
        unsigned events = 0;
        if (word == "tfd:" && info >> fd >> word >> std::hex >> events >> std::dec && fd == peer.conn->fd)
            return events & (EPOLLIN | EPOLLOUT);
    }
    return 0;
}

void ServiceTest::forget_records()
{
    platform->take_calls();
    platform->take_logs();
}

} // namespace orv::test
