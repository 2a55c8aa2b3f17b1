// limit-server - the least a server can do, as the yardstick for real ones.
//
//   limit-server --listen @name|/path --mode echo|fixed|json [--batch]
//
// echo   one client at a time, blocking read and write of the same bytes
// fixed  single-threaded epoll; every line is answered with a fixed 40-byte
//        frame (32-bit length, then JSON text)
// json   the same, with the request parsed and the answer built and written
//        out by jansson
//
// fixed and json also fan out: a connection that sent SUB (fixed) or
// {"type":"subscribe"} (json) gets, unanswered, every line that another one
// sends as "PUB text" or {"type":"publish","data":...}.
//
// --batch holds the answers back until every connection that epoll_wait()
// reported has been read, then writes them out, instead of writing each answer
// as soon as it is known.

#include "options.h"
#include "uwire.h"

#include <jansson.h>

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>

namespace uwire {
namespace {

struct Connection {
    int fd = -1;
    std::size_t have = 0;
    std::string out;
    char in[1024]; // what is read comes first
};

int g_epoll = -1;
bool g_json = false, g_batch = false;
std::vector<Connection*> g_subscribers, g_waiting;

void send_now(int fd, const char* data, std::size_t size)
{
    if (write(fd, data, size) < 0 && errno != EPIPE && errno != ECONNRESET)
        die("write: %s", strerror(errno));
}

void send_frame(Connection* c, const char* text, std::size_t size)
{
    char frame[1024];
    std::uint32_t length = htole32(static_cast<std::uint32_t>(size));
    memcpy(frame, &length, 4);
    memcpy(frame + 4, text, size);
    if (!g_batch) {
        send_now(c->fd, frame, 4 + size);
        return;
    }
    if (c->out.empty())
        g_waiting.push_back(c);
    c->out.append(frame, 4 + size);
}

void flush_waiting()
{
    for (auto* c : g_waiting) {
        send_now(c->fd, c->out.data(), c->out.size());
        c->out.clear();
    }
    g_waiting.clear();
}

void publish(const char* text, std::size_t size)
{
    for (auto* c : g_subscribers)
        send_frame(c, text, size);
}

void handle_fixed(Connection* c, const char* line, std::size_t size)
{
    static const char answer[] = "{\"data\": {\"status\": 1}, \"status\": 0}";
    static_assert(sizeof answer - 1 == 36, "a frame of 40 bytes");
    if (size >= 4 && memcmp(line, "PUB ", 4) == 0)
        publish(line + 4, size - 4);
    else if (size >= 3 && memcmp(line, "SUB", 3) == 0)
        g_subscribers.push_back(c);
    else
        send_frame(c, answer, sizeof answer - 1);
}

void handle_json(Connection* c, const char* line, std::size_t size)
{
    json_t* request = json_loadb(line, size, 0, nullptr);
    const char* type = json_string_value(json_object_get(request, "type"));
    const char* name = json_string_value(json_object_get(request, "name"));
    char text[1000];
    if (type && strcmp(type, "subscribe") == 0) {
        g_subscribers.push_back(c);
    } else if (type && strcmp(type, "publish") == 0) {
        std::size_t n = json_dumpb(json_object_get(request, "data"), text, sizeof text, 0);
        publish(text, std::min(n, sizeof text));
    } else {
        int known = name && strcmp(name, "get_services_status") == 0;
        json_t *answer = json_object(), *data = json_object();
        json_object_set_new(data, "status", json_integer(known));
        json_object_set_new(answer, "data", data);
        json_object_set_new(answer, "status", json_integer(known ? 0 : 1));
        char* out = json_dumps(answer, 0);
        send_frame(c, out, std::min(strlen(out), sizeof text));
        free(out);
        json_decref(answer);
    }
    json_decref(request);
}

void drop(Connection* c)
{
    g_subscribers.erase(std::remove(g_subscribers.begin(), g_subscribers.end(), c), g_subscribers.end());
    g_waiting.erase(std::remove(g_waiting.begin(), g_waiting.end(), c), g_waiting.end());
    close(c->fd);
    delete c;
}

void readable(Connection* c)
{
    ssize_t n = read(c->fd, c->in + c->have, sizeof c->in - c->have);
    if (n <= 0) {
        drop(c);
        return;
    }
    c->have += static_cast<std::size_t>(n);
    char *at = c->in, *end = c->in + c->have;
    while (auto* nl = static_cast<char*>(memchr(at, '\n', static_cast<std::size_t>(end - at)))) {
        (g_json ? handle_json : handle_fixed)(c, at, static_cast<std::size_t>(nl - at));
        at = nl + 1;
    }
    c->have = static_cast<std::size_t>(end - at);
    if (c->have == sizeof c->in)
        drop(c);
    else
        memmove(c->in, at, c->have);
}

[[noreturn]] void serve_epoll(int listener)
{
    g_epoll = epoll_create1(EPOLL_CLOEXEC);
    epoll_event ev{};
    ev.events = EPOLLIN;
    epoll_ctl(g_epoll, EPOLL_CTL_ADD, listener, &ev);
    std::vector<epoll_event> events(64);
    for (;;) {
        int n = epoll_wait(g_epoll, events.data(), static_cast<int>(events.size()), -1);
        for (int i = 0; i < n; ++i) {
            auto* c = static_cast<Connection*>(events[static_cast<std::size_t>(i)].data.ptr);
            if (c) {
                readable(c);
                continue;
            }
            int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0)
                continue;
            c = new Connection;
            c->fd = fd;
            ev.events = EPOLLIN;
            ev.data.ptr = c;
            epoll_ctl(g_epoll, EPOLL_CTL_ADD, fd, &ev);
        }
        flush_waiting();
    }
}

[[noreturn]] void serve_echo(int listener)
{
    for (;;) {
        int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0)
            continue;
        char buffer[4096];
        ssize_t n = 0;
        while ((n = read(fd, buffer, sizeof buffer)) > 0)
            if (write(fd, buffer, static_cast<std::size_t>(n)) != n)
                break;
        close(fd);
    }
}

int run(int argc, char** argv)
{
    std::string address, mode = "fixed";
    Options options("limit-server --listen ADDRESS --mode echo|fixed|json [--batch]");
    options.text("listen", address).text("mode", mode).flag("batch", g_batch).read(argc, argv);
    if (address.empty())
        options.refuse();
    signal(SIGPIPE, SIG_IGN);
    raise_fd_limit();
    const int listener = listen_on(address, 1024);
    g_json = mode == "json";
    if (mode == "echo")
        serve_echo(listener);
    serve_epoll(listener);
}

} // namespace
} // namespace uwire

int main(int argc, char** argv)
{
    return uwire::run(argc, argv);
}
