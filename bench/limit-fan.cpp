// limit-fan - the least that the daemon's way of delivering an event can cost.
//
//   limit-fan --listen @name|/path --event NAME
//
// The daemon hands an event of the exchange to its subscribers in a fixed
// order of system calls: every subscriber's socket is watched for output;
// then, eight ready sockets at a time, each gets the event and is watched for
// input alone again, and around every wait the exchange is watched anew and
// the settings watch is put in and taken out. This program makes the same
// calls and nothing more: no command, no JSON, no buffers that grow, no log.
// A connection's first bytes subscribe it, and are answered by an empty object.
// What limit-server has ahead of it is the price of those calls and of the hop
// over the bus; what it has ahead of the daemon is the daemon's own.

#include "options.h"
#include "uwire.h"

#include <orvexchange/orvexchange.h>

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

namespace uwire {
namespace {

constexpr int kReadyAtOnce = 8;

struct Connection {
    int fd = -1;
    bool subscribed = false;
    unsigned pending = 0;
    char out[1024];
};

int g_epoll = -1;
std::vector<Connection*> g_connections; // by descriptor
std::vector<Connection*> g_subscribers;

int watch(int fd, std::uint32_t events)
{
    epoll_event ev{};
    ev.events = events;
    ev.data.fd = fd;
    if (epoll_ctl(g_epoll, EPOLL_CTL_MOD, fd, &ev) == 0)
        return 0;
    return errno == ENOENT ? epoll_ctl(g_epoll, EPOLL_CTL_ADD, fd, &ev) : -1;
}

void must_watch(int fd, std::uint32_t events)
{
    if (watch(fd, events) != 0)
        die("epoll_ctl: %s", strerror(errno));
}

void put(Connection* c, const char* text, std::size_t size)
{
    const auto length = static_cast<std::uint32_t>(std::min(size, sizeof c->out - sizeof(std::uint32_t)));
    memcpy(c->out, &length, sizeof length);
    memcpy(c->out + sizeof length, text, length);
    c->pending = static_cast<unsigned>(sizeof length) + length;
}

void on_event(const Message* event)
{
    for (auto* c : g_subscribers)
        put(c, event->data, event->datalen);
    for (auto* c : g_subscribers)
        must_watch(c->fd, EPOLLIN | EPOLLOUT);
}

void accept_client(int listener)
{
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0)
        return;
    if (static_cast<std::size_t>(fd) >= g_connections.size())
        g_connections.resize(static_cast<std::size_t>(fd) + 1);
    g_connections[static_cast<std::size_t>(fd)] = new Connection;
    g_connections[static_cast<std::size_t>(fd)]->fd = fd;
    must_watch(fd, EPOLLIN);
}

void drop(Connection* c)
{
    g_subscribers.erase(std::remove(g_subscribers.begin(), g_subscribers.end(), c), g_subscribers.end());
    g_connections[static_cast<std::size_t>(c->fd)] = nullptr;
    close(c->fd);
    delete c;
}

// False when the client has gone.
bool read_client(Connection* c)
{
    char in[4096];
    if (recv(c->fd, in, sizeof in, MSG_DONTWAIT) <= 0)
        return false;
    if (c->subscribed)
        return true;
    c->subscribed = true;
    g_subscribers.push_back(c);
    put(c, "{}", 2);
    must_watch(c->fd, EPOLLIN | EPOLLOUT);
    return true;
}

bool write_client(Connection* c)
{
    if (send(c->fd, c->out, c->pending, MSG_DONTWAIT | MSG_NOSIGNAL) != static_cast<ssize_t>(c->pending))
        return false;
    c->pending = 0;
    must_watch(c->fd, EPOLLIN);
    return true;
}

void serve_client(const epoll_event& ev)
{
    Connection* c = g_connections[static_cast<std::size_t>(ev.data.fd)];
    if ((ev.events & EPOLLIN) != 0 && !read_client(c))
        return drop(c);
    if ((ev.events & EPOLLOUT) != 0 && !write_client(c))
        return drop(c);
}

[[noreturn]] void serve(int listener, Orvex* exchange, int settings)
{
    must_watch(listener, EPOLLIN);
    epoll_event events[kReadyAtOnce];
    for (;;) {
        must_watch(orvex_get_fd(exchange), EPOLLIN);
        must_watch(settings, EPOLLIN);
        const int n = epoll_wait(g_epoll, events, kReadyAtOnce, 1000);
        for (int i = 0; i < n; ++i)
            if (events[i].data.fd == orvex_get_fd(exchange))
                (void)orvex_read_fd(exchange);
            else if (events[i].data.fd == listener)
                accept_client(listener);
            else
                serve_client(events[i]);
        if (n > 0)
            epoll_ctl(g_epoll, EPOLL_CTL_DEL, settings, nullptr);
    }
}

[[noreturn]] void run(int argc, char** argv)
{
    std::string address, event;
    Options options("limit-fan --listen ADDRESS --event NAME");
    options.text("listen", address).text("event", event).read(argc, argv);
    if (address.empty() || event.empty())
        options.refuse();
    signal(SIGPIPE, SIG_IGN);
    raise_fd_limit();
    g_epoll = epoll_create1(EPOLL_CLOEXEC);
    const int settings = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    Orvex* exchange = orvex_init_eventloop("limitfan", on_event, 0, 0);
    const char* names[] = {event.c_str()};
    if (g_epoll < 0 || settings < 0 || !exchange || orvex_subscribe(exchange, names, 1) != 0)
        die("cannot join the exchange");
    serve(listen_on(address, 1024), exchange, settings);
}

} // namespace
} // namespace uwire

int main(int argc, char** argv)
{
    uwire::run(argc, argv);
}
