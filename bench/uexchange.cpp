// uexchange - requests over the agent's message exchange, one after the other,
// with the library that the daemons use.
//
//   uexchange --serve NAME                  answers every request, as NAME
//   uexchange --request NAME:REQUEST [--seconds S] [--pids P,P]
//
// The exchange is found as by every participant (ORV_ROOT, ORVEX_ADDRESS).
// --pids names the processes whose CPU time per request is to be reported.
// The result is one line of key=value pairs, as uload prints it. Compare it
// with dbus-client and dbus-service on the same bus: what the library adds.

#include "options.h"
#include "uwire.h"

#include <orvexchange/publisher.h>

#include <poll.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace uwire {
namespace {

constexpr char kAnswer[] = R"({"status": 1})";
constexpr std::size_t kAnswerSize = sizeof kAnswer - 1;

struct Exchanging {
    std::string serve, request;
    double seconds = 2;
    std::vector<int> pids;
};

Orvex* must_join(const char* name, OrvexHandler handler)
{
    Orvex* exchange = orvex_join(name, std::move(handler), false);
    if (!exchange)
        die("cannot join the exchange");
    return exchange;
}

// Waits for something to do, and does it.
void pass(Orvex* exchange)
{
    pollfd ready{orvex_get_fd(exchange), POLLIN, 0};
    if (poll(&ready, 1, 5000) < 0 && errno != EINTR)
        die("poll: %s", strerror(errno));
    if (ready.revents == 0)
        die("nothing comes over the exchange");
    if (orvex_read_fd(exchange) != 0)
        die("the exchange is gone");
}

[[noreturn]] void serve(const char* name)
{
    static Orvex* exchange;
    exchange = must_join(name, [](OrvexKind kind, const Message& message) {
        if (kind == OrvexKind::request &&
            orvex_send_response_typed(exchange, message.request_id, "0", kAnswer, kAnswerSize) != 0)
            die("cannot answer %s", message.type);
    });
    for (;;) {
        pollfd ready{orvex_get_fd(exchange), POLLIN, 0};
        if (poll(&ready, 1, -1) > 0 && orvex_read_fd(exchange) != 0)
            exit(0);
    }
}

void on_answer(void* answered, const Message* response)
{
    if (strcmp(response->type, "0") != 0)
        die("%.*s", static_cast<int>(response->datalen), response->data);
    *static_cast<bool*>(answered) = true;
}

void ask(Orvex* exchange, const Exchanging& exchanging, double seconds, Histogram& took)
{
    std::uint64_t now = now_ns(), until = now + static_cast<std::uint64_t>(seconds * 1e9);
    while (now < until) {
        bool answered = false;
        if (orvex_send_request(exchange, exchanging.request.c_str(), "", 0, on_answer, &answered) != 0)
            die("cannot send %s", exchanging.request.c_str());
        while (!answered)
            pass(exchange);
        std::uint64_t done = now_ns();
        took.add(done - now);
        now = done;
    }
}

Exchanging parse(int argc, char** argv)
{
    Exchanging exchanging;
    Options options("uexchange --serve NAME | --request NAME:REQUEST [--seconds S] [--pids P,P]");
    options.text("serve", exchanging.serve)
        .text("request", exchanging.request)
        .seconds("seconds", exchanging.seconds)
        .pids("pids", exchanging.pids)
        .read(argc, argv);
    if (exchanging.serve.empty() == exchanging.request.empty())
        options.refuse();
    return exchanging;
}

int run(const Exchanging& exchanging)
{
    if (!exchanging.serve.empty())
        serve(exchanging.serve.c_str());

    Orvex* exchange = must_join(nullptr, [](OrvexKind, const Message&) {});
    static Histogram warm, took;
    ask(exchange, exchanging, 0.1, warm);
    const std::uint64_t peer_before = cpu_ns(exchanging.pids), own_before = own_cpu_ns(), start = now_ns();
    ask(exchange, exchanging, exchanging.seconds, took);
    const std::uint64_t elapsed = now_ns() - start;
    const std::uint64_t peer = cpu_ns(exchanging.pids) - peer_before, own = own_cpu_ns() - own_before;
    orvex_uninit(exchange);

    const auto n = static_cast<double>(took.count());
    printf("rps=%.0f p50_us=%.2f p99_us=%.2f n=%.0f peer_cpu_us=%.3f own_cpu_us=%.3f\n",
           n * 1e9 / static_cast<double>(elapsed), took.percentile_us(50), took.percentile_us(99), n,
           static_cast<double>(peer) / 1e3 / n, static_cast<double>(own) / 1e3 / n);
    return 0;
}

} // namespace
} // namespace uwire

int main(int argc, char** argv)
{
    return uwire::run(uwire::parse(argc, argv));
}
