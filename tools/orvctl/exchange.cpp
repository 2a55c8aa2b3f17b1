// Joins the exchange without a name of its own, so that no daemon's name is taken away from it, and leaves
// when its work is done. The library's one descriptor is waited for; everything happens inside
// orvex_read_fd().

#include "exchange.h"

#include "exit_status.h"
#include "input.h"
#include "texts.h"
#include "waiting.h"

#include <orvbroker/client.h>
#include <orvexchange/publisher.h>

#include <unistd.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

namespace orvctl {
namespace {

using Handle = std::unique_ptr<Orvex, decltype(&orvex_uninit)>;
using Kind = OrvexTraffic::Kind;

/// What fits into the socket at once for certain; more has to be waited for before leaving.
constexpr std::size_t kSurelyWritten = 65536;
/// The type of the answer that the exchange itself makes up when none will come: also when the bus has gone.
constexpr std::string_view kNoAnswer = "2";

constexpr char kAnswerTimedOut[] = "timed out waiting for the answer";
constexpr char kSendingTimedOut[] = "timed out before the exchange had taken all of it";
constexpr char kJoiningTimedOut[] = "timed out before the exchange could be listened to";

constexpr std::string_view kTargetForm = "PARTICIPANT:NAME or NAME is needed, both of 1 to 127 bytes, the "
                                         "participant of letters, digits, - _ and .";
constexpr std::string_view kEventForm = "the names of events have 1 to 127 bytes of UTF-8";

int no_bus()
{
    complain(
        "cannot reach the message exchange: is its bus running? (socket run/exchange.skt below ORV_ROOT, "
        "or ORVEX_ADDRESS)");
    return kUnavailable;
}

/// Why joining by then did not succeed.
int cannot_join(orvbroker::Deadline deadline, const char* timed_out)
{
    if (!orvbroker::is_over(deadline))
        return no_bus();
    complain(timed_out);
    return kUnavailable;
}

int bus_gone()
{
    complain("the message exchange has gone");
    return kUnavailable;
}

int bad_name(const std::string& name, std::string_view form)
{
    complain("cannot send " + orvbroker::quote(name) + ": " + std::string(form));
    return kUsage;
}

/// Whether a request or message can go to "participant:name" or "name".
bool is_target(const std::string& name)
{
    return orvex_is_target(name.c_str());
}

bool is_event(const std::string& name)
{
    return orvex_is_name(name.c_str());
}

/// How long joining may take, when all has to be done by then.
std::chrono::milliseconds patience(orvbroker::Deadline deadline)
{
    return std::min(orvbroker::time_left(deadline), kOrvexJoinTime);
}

Handle join(
    orvbroker::Deadline deadline, OrvexHandler handler = [](OrvexKind, const Message&) {})
{
    return {orvex_join(nullptr, std::move(handler), /*auto_reconnect=*/false, patience(deadline)),
            &orvex_uninit};
}

/// Whether the bus has been found gone: nothing else fails when asked to do what there is to be done.
bool is_gone(Orvex* orvex)
{
    return orvex_read_fd(orvex) != 0;
}

/// Why something that can be sent, was not.
int cannot_send(Orvex* orvex)
{
    if (is_gone(orvex))
        return bus_gone();
    complain("cannot send: out of memory, or the exchange does not take more");
    return kFailed;
}

/// Whatever ends the waiting: done() is true, the bus has gone, nobody reads the output, or the time is over.
enum class End { done, bus_gone, output_closed, timed_out };

End serve_until(Orvex* orvex, orvbroker::Deadline deadline, const std::function<bool()>& done,
                Reader reader = Reader::needed)
{
    while (!done()) {
        switch (wait_for_input(orvex_get_fd(orvex), deadline, reader)) {
        case Wake::input:
            if (is_gone(orvex) && !done())
                return End::bus_gone;
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
    const auto deadline = orvbroker::deadline_after(options.timeout.value_or(orvbroker::kCallTimeout));
    const Handle orvex = join(deadline);
    if (!orvex)
        return cannot_join(deadline, kAnswerTimedOut);
    if (orvex_send_request(orvex.get(), send.name.c_str(), send.data.data(), send.data.size(), keep_answer,
                           &answer) != 0)
        return cannot_send(orvex.get());
    switch (serve_until(orvex.get(), deadline, [&answer] { return answer.has_value(); })) {
    case End::done:
        break;
    case End::output_closed:
        return kFailed;
    case End::bus_gone:
        return bus_gone();
    case End::timed_out:
        complain(kAnswerTimedOut);
        return kUnavailable;
    }
    if (answer->type == kNoAnswer && is_gone(orvex.get())) {
        answer.reset();
        return bus_gone();
    }
    return kSuccess;
}

/// Replaces "-" by what standard input holds.
bool complete(SendOptions& send)
{
    if (send.data != "-")
        return true;
    send.data.clear();
    return read_standard_input(send.data, kOrvexMaxPayload, "the payload");
}

/// Waits until the bus has taken all that was sent before. It works in order, so an event to ourselves comes
/// back after that. (The answer to a request would not do: a lost bus and a time-out are answers as well.)
int flush(Orvex* orvex, const bool& event_came, orvbroker::Deadline deadline)
{
    const std::string event = "orvctl_flush_" + std::to_string(::getpid());
    const char* name = event.c_str();
    if (orvex_subscribe(orvex, &name, 1) != 0 || orvex_publish(orvex, name, "", 0, nullptr) != 0)
        return cannot_send(orvex);
    switch (serve_until(
        orvex, deadline, [&event_came] { return event_came; }, Reader::not_needed)) {
    case End::done:
        return kSuccess;
    case End::timed_out:
        complain(kSendingTimedOut);
        return kUnavailable;
    case End::bus_gone:
    case End::output_closed: // is not looked for
        break;
    }
    return bus_gone();
}

/// Sends what wants no answer.
int send_one_way(SendOptions send, const Options& options,
                 const std::function<int(Orvex*, const SendOptions&)>& work)
{
    if (!complete(send))
        return kUsage;
    bool event_came = false;
    const auto deadline = orvbroker::deadline_after(options.timeout.value_or(orvbroker::kCallTimeout));
    const Handle orvex = join(
        deadline, [&event_came](OrvexKind kind, const Message&) { event_came |= kind == OrvexKind::event; });
    if (!orvex)
        return cannot_join(deadline, kSendingTimedOut);
    if (work(orvex.get(), send) != 0)
        return cannot_send(orvex.get());
    if (send.data.size() > kSurelyWritten)
        return flush(orvex.get(), event_came, deadline);
    return is_gone(orvex.get()) ? bus_gone() : kSuccess;
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
    std::string line =
        time_stamp() + " " + text_of(traffic.kind) + " " + output.emphasized(printable(traffic.name));
    line.append(" ").append(printable(traffic.from));
    if (!traffic.to.empty())
        line.append(" -> ").append(printable(traffic.to));
    if (!traffic.type.empty())
        line.append(" type ").append(printable(traffic.type));
    return line + " " + printable(as_json(traffic.data));
}

} // namespace

int run_exchange_request(const SendOptions& send, const Options& options, Output& output)
{
    if (!is_target(send.name))
        return bad_name(send.name, kTargetForm);
    SendOptions complete_send = send;
    if (!complete(complete_send))
        return kUsage;
    std::optional<Answer> answer;
    const int status = request(complete_send, options, answer);
    if (!answer)
        return status;
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
    if (!is_target(send.name))
        return bad_name(send.name, kTargetForm);
    return send_one_way(send, options, [](Orvex* orvex, const SendOptions& what) {
        return orvex_send_message(orvex, what.name.c_str(), what.data.data(), what.data.size());
    });
}

int run_exchange_publish(const SendOptions& send, const Options& options)
{
    if (!is_event(send.name))
        return bad_name(send.name, kEventForm);
    return send_one_way(send, options, [](Orvex* orvex, const SendOptions& what) {
        return orvex_publish(orvex, what.name.c_str(), what.data.data(), what.data.size(), nullptr);
    });
}

int run_exchange_monitor(const MonitorOptions& monitor, const Options& options, Output& output)
{
    unsigned long seen = 0;
    const auto is_enough = [&] { return !output.is_open() || (monitor.count != 0 && seen >= monitor.count); };
    const auto print = [&](const OrvexTraffic& traffic) {
        if (is_enough() || !is_wanted(monitor, traffic))
            return;
        ++seen;
        if (output.is_for_people())
            output.line(to_line(traffic, output));
        else
            output.json(to_json(traffic));
    };
    const auto deadline = orvbroker::deadline_after(options.timeout.value_or(orvbroker::kForever));
    const Handle orvex(orvex_monitor(print, /*auto_reconnect=*/false, patience(deadline)), &orvex_uninit);
    if (!orvex)
        return cannot_join(deadline, kJoiningTimedOut);
    switch (serve_until(orvex.get(), deadline, is_enough)) {
    case End::done:
    case End::output_closed:
        return kSuccess;
    case End::timed_out:
        return monitor.count == 0 ? kSuccess : kFailed;
    case End::bus_gone:
        break;
    }
    return bus_gone();
}

} // namespace orvctl
