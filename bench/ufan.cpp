// ufan - how fast one event reaches N subscribers.
//
//   ufan --connect @name|/path|tcp:PORT --framing NAME --subscribe TEXT
//        --publish TEXT [--publish-to ADDRESS] [--publish-framing NAME]
//        [--subscribers N] [--seconds S] [--acks K] [--pids P,P]
//
// Opens N subscriber connections and one publisher connection. One event is in
// flight at a time: the next is published when the last subscriber has this
// one. --acks says how many frames answer a subscription (default: what the
// framing says, else found out with the first subscriber). Answers to the
// publisher are read and dropped.
// The result is one line of key=value pairs; "last" is the time from the start
// of the publishing write until the last subscriber has the whole event,
// "any" the same for every single delivery.

#include "options.h"
#include "uwire.h"

#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace uwire {
namespace {

struct Fanning {
    std::string connect, framing = "newline-len32", subscribe, publish;
    std::string publish_to, publish_framing;
    unsigned subscribers = 1;
    double seconds = 2;
    int acks = -1;
    std::vector<int> pids;
};

struct Connection {
    int fd = -1;
    bool publisher = false;
    std::size_t have = 0;
    std::vector<char> in = std::vector<char>(2048);
};

// Reads what is there; returns the number of whole frames taken out.
unsigned receive(Connection& c, Framing& framing)
{
    if (c.have == c.in.size())
        c.in.resize(c.in.size() * 2);
    ssize_t n = read(c.fd, c.in.data() + c.have, c.in.size() - c.have);
    if (n == 0)
        die("the peer closed a connection");
    if (n < 0) {
        if (errno == EINTR || errno == EAGAIN)
            return 0;
        die("read: %s", strerror(errno));
    }
    c.have += static_cast<std::size_t>(n);
    unsigned frames = 0;
    std::size_t at = 0;
    while (at < c.have) {
        std::size_t size = framing.frame(c.in.data() + at, c.have - at);
        if (size == 0)
            break;
        at += size;
        ++frames;
    }
    memmove(c.in.data(), c.in.data() + at, c.have - at);
    c.have -= at;
    return frames;
}

class Fan {
public:
    explicit Fan(const Fanning& fanning)
        : m_fanning(fanning), m_framing(make_framing(fanning.framing, fanning.subscribe.size())),
          m_pub_framing(make_framing(fanning.publish_framing, fanning.publish.size())),
          m_event(m_pub_framing->encode(fanning.publish)), m_subs(fanning.subscribers),
          m_events(fanning.subscribers + 1)
    {
        m_ep = epoll_create1(EPOLL_CLOEXEC);
        m_acks = fanning.acks >= 0 ? fanning.acks : m_framing->subscription_acks();
        std::string request = m_framing->encode(fanning.subscribe);
        for (auto& c : m_subs)
            subscribe(c, request);
        m_pub.publisher = true;
        m_pub.fd = must_connect(fanning.publish_to);
        m_pub_framing->greet(m_pub.fd);
        watch(m_pub);
        usleep(200000);
        // Without acknowledgements only an event that arrives everywhere shows
        // that every subscription has been taken.
        for (int tries = 0; !round(nullptr, nullptr); ++tries) {
            if (tries == 5)
                die("%u of %u subscribers get no event", m_missing, fanning.subscribers);
            drain();
        }
    }

    /// Publishes once; false if not all have it after two seconds.
    bool round(Histogram* last, Histogram* any)
    {
        m_missing = m_fanning.subscribers;
        std::uint64_t sent = now_ns();
        write_all(m_pub.fd, m_event.data(), m_event.size());
        while (m_missing > 0) {
            int n = epoll_wait(m_ep, m_events.data(), static_cast<int>(m_events.size()), 2000);
            if (n == 0)
                return false;
            for (int i = 0; i < n; ++i) {
                auto& c = *static_cast<Connection*>(m_events[static_cast<std::size_t>(i)].data.ptr);
                if (c.publisher) {
                    receive(c, *m_pub_framing);
                    continue;
                }
                unsigned frames = receive(c, *m_framing);
                if (frames == 0)
                    continue;
                m_missing -= frames < m_missing ? frames : m_missing;
                if (any)
                    any->add(now_ns() - sent);
            }
        }
        if (last)
            last->add(now_ns() - sent);
        return true;
    }

private:
    void subscribe(Connection& c, const std::string& request)
    {
        c.fd = must_connect(m_fanning.connect);
        m_framing->greet(c.fd);
        write_all(c.fd, request.data(), request.size());
        if (m_acks < 0) {
            pollfd p{c.fd, POLLIN, 0};
            m_acks = poll(&p, 1, 300) == 1 ? 1 : 0;
        }
        for (unsigned got = 0; got < static_cast<unsigned>(m_acks);)
            got += receive(c, *m_framing);
        watch(c);
    }
    void watch(Connection& c)
    {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.ptr = &c;
        if (epoll_ctl(m_ep, EPOLL_CTL_ADD, c.fd, &ev) < 0)
            die("epoll_ctl: %s", strerror(errno));
    }
    void drain()
    {
        int n = 0;
        while ((n = epoll_wait(m_ep, m_events.data(), static_cast<int>(m_events.size()), 300)) > 0)
            for (int i = 0; i < n; ++i) {
                auto& c = *static_cast<Connection*>(m_events[static_cast<std::size_t>(i)].data.ptr);
                receive(c, c.publisher ? *m_pub_framing : *m_framing);
            }
    }

    const Fanning& m_fanning;
    std::unique_ptr<Framing> m_framing, m_pub_framing;
    std::string m_event;
    std::vector<Connection> m_subs;
    std::vector<epoll_event> m_events;
    Connection m_pub;
    int m_ep = -1, m_acks = -1;
    unsigned m_missing = 0;
};

Fanning parse(int argc, char** argv)
{
    Fanning fanning;
    Options options("ufan --connect ADDRESS --subscribe TEXT --publish TEXT ... (see the head of ufan.cpp)");
    options.text("connect", fanning.connect)
        .text("framing", fanning.framing)
        .text("subscribe", fanning.subscribe)
        .text("publish", fanning.publish)
        .text("publish-to", fanning.publish_to)
        .text("publish-framing", fanning.publish_framing)
        .number("subscribers", fanning.subscribers)
        .seconds("seconds", fanning.seconds)
        .number("acks", fanning.acks)
        .pids("pids", fanning.pids)
        .read(argc, argv);
    if (fanning.connect.empty() || fanning.subscribers == 0)
        options.refuse();
    if (fanning.publish_to.empty())
        fanning.publish_to = fanning.connect;
    if (fanning.publish_framing.empty())
        fanning.publish_framing = fanning.framing;
    return fanning;
}

void print(const Histogram& last, const Histogram& any, double deliveries, double elapsed_ns, double peer_ns,
           double own_ns)
{
    printf("dps=%.0f last_p50_us=%.1f last_p99_us=%.1f any_p50_us=%.1f events=%.0f peer_cpu_us=%.3f "
           "own_cpu_us=%.3f\n",
           deliveries * 1e9 / elapsed_ns, last.percentile_us(50), last.percentile_us(99),
           any.percentile_us(50), static_cast<double>(last.count()), peer_ns / 1e3 / deliveries,
           own_ns / 1e3 / deliveries);
}

int run(const Fanning& fanning)
{
    raise_fd_limit();
    Fan fan(fanning);
    static Histogram last, any;
    const std::uint64_t peer_before = cpu_ns(fanning.pids), own_before = own_cpu_ns();
    const std::uint64_t start = now_ns(), until = start + static_cast<std::uint64_t>(fanning.seconds * 1e9);
    while (now_ns() < until)
        if (!fan.round(&last, &any))
            die("an event did not reach every subscriber within two seconds");
    const auto elapsed = static_cast<double>(now_ns() - start);
    const auto own = static_cast<double>(own_cpu_ns() - own_before);
    const auto peer = static_cast<double>(cpu_ns(fanning.pids) - peer_before);
    print(last, any, static_cast<double>(last.count()) * fanning.subscribers, elapsed, peer, own);
    return 0;
}

} // namespace
} // namespace uwire

int main(int argc, char** argv)
{
    return uwire::run(uwire::parse(argc, argv));
}
