// Used by the unit tests and by the fuzz targets, so without a test framework: what must hold here ends the
// program when it does not.

#include "stage.h"

#include "orvbrokerd.h"
#include "orvex.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

namespace orv::test {

using brokerd::Connection;
using fake::Fake;

namespace {

void need(bool holds, const char* what)
{
    if (holds)
        return;
    std::perror(what);
    std::abort();
}

} // namespace

Stage::Stage(Fake& platform) : m_platform(platform)
{
    const Fake::Paused paused;
    brokerd::epollfd = epoll_create1(EPOLL_CLOEXEC);
    need(brokerd::epollfd != -1, "epoll_create1");
    m_platform.name_fd(brokerd::epollfd, "epoll");
    brokerd::orvex = m_platform.connect(brokerd::orvex_callback);
    m_platform.settings_are_open = m_platform.devices_are_open = m_platform.outbox_is_open = true;
}

Stage::~Stage()
{
    while (!m_platform.requests.empty()) {
        m_platform.answer("{}");
        need(orvex_read_fd(brokerd::orvex) == 0, "orvex_read_fd");
    }
    while (!brokerd::g_connections.empty())
        destroy(brokerd::g_connections.begin()->second);
    const Fake::Paused paused;
    close(brokerd::epollfd);
    brokerd::epollfd = -1;
    brokerd::orvex = nullptr;
}

Stage::Ends Stage::connect()
{
    const Fake::Paused paused;
    int ends[2] = {-1, -1};
    need(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
    auto* conn = new Connection(ends[0]);
    need(conn->tx.init(brokerd::kBufferInitialSize, brokerd::kBufferMaximumSize) &&
             conn->rx.init(brokerd::kBufferInitialSize, brokerd::kBufferMaximumSize),
         "ConnectionBuffer::init");
    brokerd::g_connections[ends[0]] = conn;
    m_platform.name_fd(ends[0], m_platform.next_name("client"));
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = ends[0];
    need(epoll_ctl(brokerd::epollfd, EPOLL_CTL_ADD, ends[0], &event) == 0, "epoll_ctl");
    return {conn, ends[1]};
}

void Stage::destroy(Connection* conn)
{
    const int fd = conn->fd;
    brokerd::destroy_connection(conn);
    brokerd::g_connections.erase(fd);
}

std::string command(const std::string& name, const std::string& data)
{
    return R"({"type":"command","name":")" + name + "\"" + (data.empty() ? "" : ",\"data\":" + data) + "}";
}

std::string subscription(const std::string& event)
{
    return R"({"type":"subscribe","name":")" + event + "\"}";
}

} // namespace orv::test
