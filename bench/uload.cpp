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

#include "options.h"
#include "uwire.h"

#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

namespace uwire {
namespace {

struct Load {
    std::string connect, framing = "newline-len32", request;
    unsigned clients = 1;
    double seconds = 2, hold = 0;
    bool churn = false, processes = false;
    std::vector<int> pids;
};

struct Result {
    Histogram latency;
    std::uint64_t elapsed_ns = 0;
};

struct Client {
    int fd = -1;
    std::uint64_t sent_at = 0;
    std::size_t have = 0;
    std::vector<char> in = std::vector<char>(4096);
};

void run_one(const Load& load, Framing& framing, const std::string& request, std::uint64_t until,
             Result& result)
{
    std::vector<char> buffer;
    std::uint64_t start = now_ns(), now = start;
    int fd = -1;
    while (now < until) {
        if (fd < 0) {
            fd = must_connect(load.connect);
            framing.greet(fd);
            if (!load.churn)
                now = now_ns();
        }
        write_all(fd, request.data(), request.size());
        read_frame(fd, framing, buffer);
        if (load.churn) {
            close(fd);
            fd = -1;
        }
        std::uint64_t done = now_ns();
        result.latency.add(done - now);
        now = done;
    }
    result.elapsed_ns = now - start;
    if (fd >= 0)
        close(fd);
}

// Every client in a process of its own; the results come back in shared memory.
void run_processes(const Load& load, Framing& framing, const std::string& request, std::uint64_t until,
                   Result& result)
{
    std::size_t size = load.clients * sizeof(Result);
    void* shared = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED)
        die("mmap: %s", strerror(errno));
    std::uint64_t start = now_ns();
    for (unsigned i = 0; i < load.clients; ++i) {
        pid_t pid = fork();
        if (pid < 0)
            die("fork: %s", strerror(errno));
        if (pid == 0) {
            run_one(load, framing, request, until, *new (static_cast<Result*>(shared) + i) Result);
            _exit(0);
        }
    }
    int status = 0;
    while (wait(&status) > 0)
        if (status != 0)
            die("a client failed");
    result.elapsed_ns = now_ns() - start;
    for (unsigned i = 0; i < load.clients; ++i)
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
    c.have += static_cast<std::size_t>(n);
    if (framing.frame(c.in.data(), c.have) == 0)
        return false;
    c.have = 0;
    return true;
}

void run_many(const Load& load, Framing& framing, const std::string& request, std::uint64_t until,
              Result& result)
{
    int ep = epoll_create1(EPOLL_CLOEXEC);
    std::vector<Client> clients(load.clients);
    auto open = [&](Client& c) {
        c.fd = must_connect(load.connect);
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
    std::uint64_t start = now_ns();
    for (auto& c : clients) {
        c.sent_at = now_ns();
        send(c);
    }
    std::vector<epoll_event> events(load.clients);
    std::uint64_t now = start;
    while (now < until) {
        int n = epoll_wait(ep, events.data(), static_cast<int>(events.size()), 1000);
        for (int i = 0; i < n; ++i) {
            auto& c = *static_cast<Client*>(events[static_cast<std::size_t>(i)].data.ptr);
            if (!receive(c, framing))
                continue;
            if (load.churn)
                close(c.fd);
            now = now_ns();
            result.latency.add(now - c.sent_at);
            c.sent_at = now;
            if (load.churn)
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

void hold(const Load& load, Framing& framing)
{
    for (unsigned i = 0; i < load.clients; ++i)
        framing.greet(must_connect(load.connect));
    puts("ready");
    fflush(stdout);
    usleep(static_cast<useconds_t>(load.hold * 1e6));
}

Load parse(int argc, char** argv)
{
    Load load;
    Options options("uload --connect ADDRESS --framing NAME --request TEXT ... (see the head of uload.cpp)");
    options.text("connect", load.connect)
        .text("framing", load.framing)
        .text("request", load.request)
        .number("clients", load.clients)
        .flag("processes", load.processes)
        .seconds("seconds", load.seconds)
        .flag("churn", load.churn)
        .pids("pids", load.pids)
        .seconds("hold", load.hold)
        .read(argc, argv);
    if (load.connect.empty() || load.clients == 0)
        options.refuse();
    return load;
}

void print(const Result& result, std::uint64_t peer_ns, std::uint64_t own_ns)
{
    const auto n = static_cast<double>(result.latency.count());
    printf(
        "rps=%.0f p50_us=%.2f p99_us=%.2f p999_us=%.2f max_us=%.0f n=%.0f peer_cpu_us=%.3f own_cpu_us=%.3f\n",
        n * 1e9 / static_cast<double>(result.elapsed_ns), result.latency.percentile_us(50),
        result.latency.percentile_us(99), result.latency.percentile_us(99.9), result.latency.max_us(), n,
        static_cast<double>(peer_ns) / 1e3 / n, static_cast<double>(own_ns) / 1e3 / n);
}

int run(const Load& load)
{
    raise_fd_limit();
    auto framing = make_framing(load.framing, load.request.size());
    if (load.hold > 0) {
        hold(load, *framing);
        return 0;
    }
    const std::string request = framing->encode(load.request);
    const auto measure = load.processes ? run_processes : load.clients == 1 ? run_one : run_many;

    static Result warm, result;
    measure(load, *framing, request, now_ns() + 100000000u, warm);
    const std::uint64_t peer_before = cpu_ns(load.pids), own_before = own_cpu_ns();
    measure(load, *framing, request, now_ns() + static_cast<std::uint64_t>(load.seconds * 1e9), result);
    const std::uint64_t own = own_cpu_ns() - own_before, peer = cpu_ns(load.pids) - peer_before;
    print(result, peer, own);
    return 0;
}

} // namespace
} // namespace uwire

int main(int argc, char** argv)
{
    return uwire::run(uwire::parse(argc, argv));
}
