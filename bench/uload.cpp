// uload - request/answer load on a local stream socket, never more than one
// request in flight per client.
//
//   uload --connect @name|/path|tcp:PORT --framing NAME --request TEXT
//         [--clients N] [--processes] [--seconds S] [--churn] [--pids P,P]
//         [--hold S]
//
// With one client it blocks in read(), as an ordinary client does; with more it
// serves all of them from one epoll loop, or with --processes runs each as a
// process of its own that blocks in read(). --churn makes every request on a
// connection of its own (connect, request, answer, close). --pids names the
// processes whose CPU time per request is to be reported. --hold only opens the
// clients, prints "ready" and keeps them open for S seconds.
// The result is one line of key=value pairs.

#include "uwire.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <new>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace uwire;

namespace {

struct Options {
    std::string connect, framing = "newline-len32", request;
    unsigned clients = 1;
    double seconds = 2, hold = 0;
    bool churn = false, processes = false;
    std::vector<int> pids;
};

struct Result {
    Histogram latency;
    uint64_t elapsed_ns = 0;
};

struct Client {
    int fd = -1;
    uint64_t sent_at = 0;
    size_t have = 0;
    std::vector<char> in = std::vector<char>(4096);
};

void run_one(const Options& o, Framing& framing, const std::string& request, uint64_t until, Result& result)
{
    std::vector<char> buffer;
    uint64_t start = now_ns(), now = start;
    int fd = -1;
    while (now < until) {
        if (fd < 0) {
            fd = must_connect(o.connect);
            framing.greet(fd);
            if (!o.churn)
                now = now_ns();
        }
        write_all(fd, request.data(), request.size());
        read_frame(fd, framing, buffer);
        if (o.churn) {
            close(fd);
            fd = -1;
        }
        uint64_t done = now_ns();
        result.latency.add(done - now);
        now = done;
    }
    result.elapsed_ns = now - start;
    if (fd >= 0)
        close(fd);
}

// Every client in a process of its own; the results come back in shared memory.
void run_processes(const Options& o, Framing& framing, const std::string& request, uint64_t until,
                   Result& result)
{
    size_t size = o.clients * sizeof(Result);
    void* shared = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED)
        die("mmap: %s", strerror(errno));
    uint64_t start = now_ns();
    for (unsigned i = 0; i < o.clients; ++i) {
        pid_t pid = fork();
        if (pid < 0)
            die("fork: %s", strerror(errno));
        if (pid == 0) {
            run_one(o, framing, request, until, *new (static_cast<Result*>(shared) + i) Result);
            _exit(0);
        }
    }
    int status;
    while (wait(&status) > 0)
        if (status != 0)
            die("a client failed");
    result.elapsed_ns = now_ns() - start;
    for (unsigned i = 0; i < o.clients; ++i)
        result.latency.merge(static_cast<Result*>(shared)[i].latency);
    munmap(shared, size);
}

// True when one whole answer has come in.
bool receive(Client& c, Framing& framing)
{
    if (c.have == c.in.size())
        c.in.resize(c.in.size() * 2);
    ssize_t n = read(c.fd, c.in.data() + c.have, c.in.size() - c.have);
    if (n == 0)
        die("the peer closed the connection");
    if (n < 0) {
        if (errno == EINTR || errno == EAGAIN)
            return false;
        die("read: %s", strerror(errno));
    }
    c.have += size_t(n);
    if (framing.frame(c.in.data(), c.have) == 0)
        return false;
    c.have = 0;
    return true;
}

void run_many(const Options& o, Framing& framing, const std::string& request, uint64_t until, Result& result)
{
    int ep = epoll_create1(EPOLL_CLOEXEC);
    std::vector<Client> clients(o.clients);
    auto open = [&](Client& c) {
        c.fd = must_connect(o.connect);
        framing.greet(c.fd);
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.ptr = &c;
        if (epoll_ctl(ep, EPOLL_CTL_ADD, c.fd, &ev) < 0)
            die("epoll_ctl: %s", strerror(errno));
    };
    auto send = [&](Client& c) { write_all(c.fd, request.data(), request.size()); };

    for (auto& c : clients)
        open(c);
    uint64_t start = now_ns();
    for (auto& c : clients) {
        c.sent_at = now_ns();
        send(c);
    }
    std::vector<epoll_event> events(o.clients);
    uint64_t now = start;
    while (now < until) {
        int n = epoll_wait(ep, events.data(), int(events.size()), 1000);
        for (int i = 0; i < n; ++i) {
            auto& c = *static_cast<Client*>(events[size_t(i)].data.ptr);
            if (!receive(c, framing))
                continue;
            if (o.churn)
                close(c.fd);
            now = now_ns();
            result.latency.add(now - c.sent_at);
            c.sent_at = now;
            if (o.churn)
                open(c);
            send(c);
        }
        if (n <= 0)
            now = now_ns();
    }
    result.elapsed_ns = now - start;
    for (auto& c : clients)
        close(c.fd);
    close(ep);
}

void hold(const Options& o, Framing& framing)
{
    for (unsigned i = 0; i < o.clients; ++i)
        framing.greet(must_connect(o.connect));
    puts("ready");
    fflush(stdout);
    usleep(useconds_t(o.hold * 1e6));
}

Options parse(int argc, char** argv)
{
    static const option longs[] = {{"connect", 1, nullptr, 'c'},   {"framing", 1, nullptr, 'f'},
                                   {"request", 1, nullptr, 'r'},   {"clients", 1, nullptr, 'n'},
                                   {"seconds", 1, nullptr, 's'},   {"churn", 0, nullptr, 'x'},
                                   {"pids", 1, nullptr, 'p'},      {"hold", 1, nullptr, 'h'},
                                   {"processes", 0, nullptr, 'm'}, {nullptr, 0, nullptr, 0}};
    Options o;
    int ch;
    while ((ch = getopt_long(argc, argv, "", longs, nullptr)) != -1) {
        switch (ch) {
        case 'c':
            o.connect = optarg;
            break;
        case 'f':
            o.framing = optarg;
            break;
        case 'r':
            o.request = optarg;
            break;
        case 'n':
            o.clients = unsigned(atoi(optarg));
            break;
        case 's':
            o.seconds = atof(optarg);
            break;
        case 'm':
            o.processes = true;
            break;
        case 'x':
            o.churn = true;
            break;
        case 'p':
            o.pids = parse_pids(optarg);
            break;
        case 'h':
            o.hold = atof(optarg);
            break;
        default:
            die("usage: see the head of uload.cpp");
        }
    }
    if (o.connect.empty() || o.clients == 0)
        die("uload --connect ADDRESS --framing NAME --request TEXT ...");
    return o;
}

} // namespace

int main(int argc, char** argv)
{
    Options o = parse(argc, argv);
    raise_fd_limit();
    auto framing = make_framing(o.framing, o.request.size());
    if (o.hold > 0) {
        hold(o, *framing);
        return 0;
    }
    std::string request = framing->encode(o.request);
    auto run = o.processes ? run_processes : o.clients == 1 ? run_one : run_many;

    static Result warm, result;
    run(o, *framing, request, now_ns() + 100000000u, warm);
    uint64_t peer_before = cpu_ns(o.pids), own_before = own_cpu_ns();
    run(o, *framing, request, now_ns() + uint64_t(o.seconds * 1e9), result);
    uint64_t own = own_cpu_ns() - own_before, peer = cpu_ns(o.pids) - peer_before;

    auto n = double(result.latency.count());
    printf("rps=%.0f p50_us=%.2f p99_us=%.2f p999_us=%.2f max_us=%.0f n=%.0f "
           "peer_cpu_us=%.3f own_cpu_us=%.3f\n",
           n * 1e9 / double(result.elapsed_ns), result.latency.percentile_us(50),
           result.latency.percentile_us(99), result.latency.percentile_us(99.9), result.latency.max_us(), n,
           double(peer) / 1e3 / n, double(own) / 1e3 / n);
    return 0;
}
