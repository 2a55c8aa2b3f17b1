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

#include "uwire.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

using namespace uwire;

namespace {

struct Options {
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
    size_t have = 0;
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
    c.have += size_t(n);
    unsigned frames = 0;
    size_t at = 0;
    while (at < c.have) {
        size_t size = framing.frame(c.in.data() + at, c.have - at);
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
    explicit Fan(const Options& o)
        : o_(o), framing_(make_framing(o.framing, o.subscribe.size())),
          pub_framing_(make_framing(o.publish_framing, o.publish.size())),
          event_(pub_framing_->encode(o.publish)), subs_(o.subscribers), events_(o.subscribers + 1)
    {
        ep_ = epoll_create1(EPOLL_CLOEXEC);
        acks_ = o.acks >= 0 ? o.acks : framing_->subscription_acks();
        std::string request = framing_->encode(o.subscribe);
        for (auto& c : subs_)
            subscribe(c, request);
        pub_.publisher = true;
        pub_.fd = must_connect(o.publish_to);
        pub_framing_->greet(pub_.fd);
        watch(pub_);
        usleep(200000);
        // Without acknowledgements only an event that arrives everywhere shows
        // that every subscription has been taken.
        for (int tries = 0; !round(nullptr, nullptr); ++tries) {
            if (tries == 5)
                die("%u of %u subscribers get no event", missing_, o.subscribers);
            drain();
        }
    }

    // Publishes once; false if not all have it after two seconds.
    bool round(Histogram* last, Histogram* any)
    {
        missing_ = o_.subscribers;
        uint64_t sent = now_ns();
        write_all(pub_.fd, event_.data(), event_.size());
        while (missing_ > 0) {
            int n = epoll_wait(ep_, events_.data(), int(events_.size()), 2000);
            if (n == 0)
                return false;
            for (int i = 0; i < n; ++i) {
                auto& c = *static_cast<Connection*>(events_[size_t(i)].data.ptr);
                if (c.publisher) {
                    receive(c, *pub_framing_);
                    continue;
                }
                unsigned frames = receive(c, *framing_);
                if (frames == 0)
                    continue;
                missing_ -= frames < missing_ ? frames : missing_;
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
        c.fd = must_connect(o_.connect);
        framing_->greet(c.fd);
        write_all(c.fd, request.data(), request.size());
        if (acks_ < 0) {
            pollfd p{c.fd, POLLIN, 0};
            acks_ = poll(&p, 1, 300) == 1 ? 1 : 0;
        }
        for (unsigned got = 0; got < unsigned(acks_);)
            got += receive(c, *framing_);
        watch(c);
    }
    void watch(Connection& c)
    {
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.ptr = &c;
        if (epoll_ctl(ep_, EPOLL_CTL_ADD, c.fd, &ev) < 0)
            die("epoll_ctl: %s", strerror(errno));
    }
    void drain()
    {
        int n;
        while ((n = epoll_wait(ep_, events_.data(), int(events_.size()), 300)) > 0)
            for (int i = 0; i < n; ++i) {
                auto& c = *static_cast<Connection*>(events_[size_t(i)].data.ptr);
                receive(c, c.publisher ? *pub_framing_ : *framing_);
            }
    }

    const Options& o_;
    std::unique_ptr<Framing> framing_, pub_framing_;
    std::string event_;
    std::vector<Connection> subs_;
    std::vector<epoll_event> events_;
    Connection pub_;
    int ep_ = -1, acks_ = -1;
    unsigned missing_ = 0;
};

Options parse(int argc, char** argv)
{
    static const option longs[] = {{"connect", 1, nullptr, 'c'},     {"framing", 1, nullptr, 'f'},
                                   {"subscribe", 1, nullptr, 'u'},   {"publish", 1, nullptr, 'b'},
                                   {"publish-to", 1, nullptr, 't'},  {"publish-framing", 1, nullptr, 'g'},
                                   {"subscribers", 1, nullptr, 'n'}, {"seconds", 1, nullptr, 's'},
                                   {"acks", 1, nullptr, 'a'},        {"pids", 1, nullptr, 'p'},
                                   {nullptr, 0, nullptr, 0}};
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
        case 'u':
            o.subscribe = optarg;
            break;
        case 'b':
            o.publish = optarg;
            break;
        case 't':
            o.publish_to = optarg;
            break;
        case 'g':
            o.publish_framing = optarg;
            break;
        case 'n':
            o.subscribers = unsigned(atoi(optarg));
            break;
        case 's':
            o.seconds = atof(optarg);
            break;
        case 'a':
            o.acks = atoi(optarg);
            break;
        case 'p':
            o.pids = parse_pids(optarg);
            break;
        default:
            die("usage: see the head of ufan.cpp");
        }
    }
    if (o.publish_to.empty())
        o.publish_to = o.connect;
    if (o.publish_framing.empty())
        o.publish_framing = o.framing;
    if (o.connect.empty() || o.subscribers == 0)
        die("ufan --connect ADDRESS --subscribe TEXT --publish TEXT ...");
    return o;
}

} // namespace

int main(int argc, char** argv)
{
    Options o = parse(argc, argv);
    raise_fd_limit();
    Fan fan(o);
    static Histogram last, any;
    uint64_t peer_before = cpu_ns(o.pids), own_before = own_cpu_ns();
    uint64_t start = now_ns(), until = start + uint64_t(o.seconds * 1e9);
    while (now_ns() < until)
        if (!fan.round(&last, &any))
            die("an event did not reach every subscriber within two seconds");
    auto elapsed = double(now_ns() - start);
    auto own = double(own_cpu_ns() - own_before), peer = double(cpu_ns(o.pids) - peer_before);
    double deliveries = double(last.count()) * o.subscribers;
    printf("dps=%.0f last_p50_us=%.1f last_p99_us=%.1f any_p50_us=%.1f events=%.0f "
           "peer_cpu_us=%.3f own_cpu_us=%.3f\n",
           deliveries * 1e9 / elapsed, last.percentile_us(50), last.percentile_us(99), any.percentile_us(50),
           double(last.count()), peer / 1e3 / deliveries, own / 1e3 / deliveries);
    return 0;
}
