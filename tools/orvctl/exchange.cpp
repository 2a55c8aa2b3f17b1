// Joins the exchange without a name of its own, so that no daemon's name is taken away from it, and leaves
// when its work is done. The library's one descriptor is waited for; everything happens inside
// orvex_read_fd().
#include "exchange.h"

#include "exit_status.h"
#include "texts.h"
#include "waiting.h"

#include <exchange_publisher.h>
#include <orvbroker/client.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>

namespace orvctl {
namespace {

using Handle = std::unique_ptr<Orvex, decltype(&orvex_uninit)>;
using Kind = OrvexTraffic::Kind;

/// What fits into the socket at once for certain; more has to be waited for before leaving.
constexpr std::size_t kSurelyWritten = 65536;

int no_bus()
{
    complain(
        "cannot reach the message exchange: is its bus running? (socket run/exchange.skt below ORV_ROOT, "
        "or ORVEX_ADDRESS)");
    return kUnavailable;
}

Handle join()
{
    return {orvex_join(
                nullptr, [](OrvexKind, const Message&) {}, false),
            &orvex_uninit};
}

/// Whatever ends the waiting: done() is true, the bus has gone, nobody reads the output, or the time is over.
enum class End { done, bus_gone, output_closed, timed_out };

End serve_until(Orvex* orvex, orvbroker::Deadline deadline, const std::function<bool()>& done)
{
    while (!done()) {
        switch (wait_for_input(orvex_get_fd(orvex), deadline)) {
        case Wake::input:
            if (orvex_read_fd(orvex) != 0 && !done()) {
                return End::bus_gone;
            }
            break;
        case Wake::output_closed:
            return End::output_closed;
        case Wake::timed_out:
            return End::timed_out;
        }
    }
    return End::done;
}

struct Answer {
    std::string type;
    std::string data;
};

void keep_answer(void* arg, const Message* response)
{
    *static_cast<std::optional<Answer>*>(arg) = Answer{response->type, {response->data, response->datalen}};
}

/// Sends a request and waits for its answer. Complains, with the exit status as the result, unless one came.
int request(const SendOptions& send, const Options& options, std::optional<Answer>& answer)
{
    const Handle orvex = join();
    if (orvex == nullptr) {
        return no_bus();
    }
    if (orvex_send_request(orvex.get(), send.name.c_str(), send.data.data(), send.data.size(), keep_answer,
                           &answer) != 0) {
        complain("cannot send to " + orvbroker::quote(send.name) +
                 ": names have 1 to 127 bytes, as in participant:request");
        return kUsage;
    }
    const auto deadline = orvbroker::deadline_after(options.timeout.value_or(orvbroker::kCallTimeout));
    switch (serve_until(orvex.get(), deadline, [&answer] { return answer.has_value(); })) {
    case End::done:
        return kSuccess;
    case End::output_closed:
        return kFailed;
    case End::bus_gone:
        complain("the message exchange has gone");
        return kUnavailable;
    case End::timed_out:
        break;
    }
    complain("timed out waiting for the answer");
    return kUnavailable;
}

/// Replaces "-" by what standard input holds.
bool complete(SendOptions& send)
{
    if (send.data != "-") {
        return true;
    }
    send.data.clear();
    return read_standard_input(send.data, kOrvexMaxPayload, "the payload");
}

/// Waits until all that was sent before is on the bus: it answers in order, were it with an error.
bool flush(Orvex* orvex, const Options& options)
{
    std::optional<Answer> answer;
    if (orvex_send_request(orvex, "orvctl:flush", "", 0, keep_answer, &answer) != 0) {
        return false;
    }
    const auto deadline = orvbroker::deadline_after(options.timeout.value_or(orvbroker::kCallTimeout));
    return serve_until(orvex, deadline, [&answer] { return answer.has_value(); }) == End::done;
}

/// Sends what wants no answer.
int send_one_way(SendOptions send, const Options& options,
                 const std::function<int(Orvex*, const SendOptions&)>& work)
{
    if (!complete(send)) {
        return kUsage;
    }
    const Handle orvex = join();
    if (orvex == nullptr) {
        return no_bus();
    }
    if (work(orvex.get(), send) != 0) {
        complain("cannot send " + orvbroker::quote(send.name) + ": names have 1 to 127 bytes");
        return kUsage;
    }
    if (send.data.size() > kSurelyWritten && !flush(orvex.get(), options)) {
        complain("the message exchange has gone");
        return kUnavailable;
    }
    return kSuccess;
}

const char* text_of(Kind kind)
{
    switch (kind) {
    case Kind::event:
        return "event";
    case Kind::request:
        return "request";
    case Kind::message:
        return "message";
    case Kind::respond:
        return "respond";
    case Kind::answer:
        return "answer";
    case Kind::error:
        return "error";
    }
    return "";
}

bool is_wanted(const MonitorOptions& monitor, const OrvexTraffic& traffic)
{
    const auto matches = [&traffic](const std::string& name) {
        return name == traffic.name || name == traffic.to ||
               name == std::string(traffic.to) + ":" + std::string(traffic.name);
    };
    return monitor.names.empty() || std::any_of(monitor.names.begin(), monitor.names.end(), matches);
}

std::string to_json(const OrvexTraffic& traffic)
{
    return R"({"time": ")" + time_stamp() + R"(", "kind": ")" + text_of(traffic.kind) + R"(", "name": )" +
           orvbroker::quote(traffic.name) + R"(, "from": )" + orvbroker::quote(traffic.from) + R"(, "to": )" +
           orvbroker::quote(traffic.to) + R"(, "type": )" + orvbroker::quote(traffic.type) + R"(, "id": )" +
           std::to_string(traffic.id) + R"(, "data": )" + as_json(traffic.data) + "}";
}

std::string to_line(const OrvexTraffic& traffic, const Output& output)
{
    std::string line = time_stamp() + " " + text_of(traffic.kind) + " " + output.emphasized(traffic.name);
    line.append(" ").append(traffic.from);
    if (!traffic.to.empty()) {
        line.append(" -> ").append(traffic.to);
    }
    if (!traffic.type.empty()) {
        line.append(" type ").append(traffic.type);
    }
    return line + " " + as_json(traffic.data);
}

} // namespace

int run_exchange_request(const SendOptions& send, const Options& options, Output& output)
{
    SendOptions complete_send = send;
    if (!complete(complete_send)) {
        return kUsage;
    }
    std::optional<Answer> answer;
    const int status = request(complete_send, options, answer);
    if (!answer) {
        return status;
    }
    if (output.is_json_wanted()) {
        output.json(R"({"type": )" + orvbroker::quote(answer->type) + R"(, "data": )" +
                    as_json(answer->data) + "}");
    } else {
        output.json(answer->data);
    }
    if (answer->type != "0") {
        complain("the answer is of type " + orvbroker::quote(answer->type));
        return kFailed;
    }
    return kSuccess;
}

int run_exchange_message(const SendOptions& send, const Options& options)
{
    return send_one_way(send, options, [](Orvex* orvex, const SendOptions& what) {
        return orvex_send_message(orvex, what.name.c_str(), what.data.data(), what.data.size());
    });
}

int run_exchange_publish(const SendOptions& send, const Options& options)
{
    return send_one_way(send, options, [](Orvex* orvex, const SendOptions& what) {
        return orvex_publish(orvex, what.name.c_str(), what.data.data(), what.data.size(), nullptr);
    });
}

int run_exchange_monitor(const MonitorOptions& monitor, const Options& options, Output& output)
{
    unsigned long seen = 0;
    const auto is_enough = [&] { return !output.is_open() || (monitor.count != 0 && seen >= monitor.count); };
    const auto print = [&](const OrvexTraffic& traffic) {
        if (is_enough() || !is_wanted(monitor, traffic)) {
            return;
        }
        ++seen;
        if (output.is_for_people()) {
            output.line(to_line(traffic, output));
        } else {
            output.json(to_json(traffic));
        }
    };
    const Handle orvex(orvex_monitor(print, false), &orvex_uninit);
    if (orvex == nullptr) {
        return no_bus();
    }
    const auto deadline = orvbroker::deadline_after(options.timeout.value_or(orvbroker::kForever));
    switch (serve_until(orvex.get(), deadline, is_enough)) {
    case End::done:
    case End::output_closed:
        return kSuccess;
    case End::timed_out:
        return monitor.count == 0 ? kSuccess : kFailed;
    case End::bus_gone:
        break;
    }
    complain("the message exchange has gone");
    return kUnavailable;
}

} // namespace orvctl
