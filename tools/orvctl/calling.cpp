// One command, or one subscription, on a connection of its own. Data is checked before it is sent: the daemon
// only closes the connection on what it cannot parse, which says nothing about where the mistake is.

#include "calling.h"

#include "answers.h"
#include "catalogue.h"
#include "connecting.h"
#include "exit_status.h"
#include "input.h"
#include "texts.h"
#include "waiting.h"

#include <orvbroker/client.h>
#include <orvtools/json.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace orvctl {
namespace {

using orvbroker::Error;

int report(Error error)
{
    const std::string reason =
        error == Error::system ? std::string(": ") + std::strerror(errno) : std::string();
    complain(orvbroker::message(error) + reason);
    return error == Error::invalid_argument ? kUsage : kUnavailable;
}

/// Connects within the time that there is for all that follows.
Error connect_before(orvbroker::Client& client, orvbroker::Deadline deadline)
{
    return connect(client, std::min(orvbroker::time_left(deadline), orvbroker::kConnectTimeout));
}

/// Whether data can be sent; complains when not.
bool check_json(const std::string& text)
{
    json_error_t error{};
    if (orvtools::parse_json(text, JSON_DECODE_ANY, &error))
        return true;
    complain("DATA is not JSON: " + std::string(error.text) + " (line " + std::to_string(error.line) +
             ", column " + std::to_string(error.column) +
             "); a string needs quotes of its own, as in '\"text\"'");
    return false;
}

/// The daemon answers a name that it does not know as if all were well.
void warn_of_unknown_name(const std::string& name, const orvbroker::Answer& answer)
{
    const bool known = std::any_of(commands().begin(), commands().end(),
                                   [&name](const CommandInfo& row) { return row.name == name; });
    if (!known && answer.status() == 0 && answer.data() == "null") {
        complain("note: no command " + orvbroker::quote(name) +
                 " is known, and the daemon ignores unknown names; see orvctl commands");
    }
}

void print_event(const std::string& event, const SubscribeOptions& subscribe, Output& output)
{
    if (!subscribe.timestamps) {
        output.json(event);
    } else if (output.is_for_people()) {
        output.line(output.emphasized(time_stamp()));
        output.json(event);
    } else {
        output.json(R"({"time": ")" + time_stamp() + R"(", "event": )" + orvbroker::quote(subscribe.event) +
                    R"(, "data": )" + as_json(event) + "}");
    }
}

/// Prints events until there were enough, nobody reads them, or the time is over.
int follow(orvbroker::Client& client, const SubscribeOptions& subscribe, orvbroker::Deadline deadline,
           Output& output)
{
    std::string event;
    for (unsigned long seen = 0; subscribe.count == 0 || seen < subscribe.count;) {
        const Wake wake = wait_for_input(client.fd(), deadline);
        if (wake == Wake::output_closed)
            return kSuccess;
        if (wake == Wake::timed_out)
            return subscribe.count == 0 ? kSuccess : kFailed;
        const Error error = client.next_event(event, std::chrono::milliseconds{0});
        if (error == Error::timed_out)
            continue; // a part of an event
        if (error != Error::none)
            return report(error);
        print_event(event, subscribe, output);
        if (!output.is_open())
            return kSuccess;
        ++seen;
    }
    return kSuccess;
}

} // namespace

int run_call(const CallOptions& call, const Options& options, Output& output)
{
    std::string data = call.data;
    if (data == "-") {
        data.clear();
        if (!read_standard_input(data, orvbroker::kMaxRequestSize, "JSON"))
            return kUsage;
    }
    if ((!data.empty() || call.data == "-") && !check_json(data))
        return kUsage;
    const auto deadline = orvbroker::deadline_after(options.timeout.value_or(orvbroker::kCallTimeout));
    orvbroker::Client client;
    orvbroker::Answer answer;
    Error error = connect_before(client, deadline);
    if (error == Error::none)
        error = client.call(call.name, data, answer, orvbroker::time_left(deadline));
    if (error != Error::none)
        return report(error);
    print_answer(answer, output);
    warn_of_unknown_name(call.name, answer);
    return answer.status() == 0 ? kSuccess : kFailed;
}

int run_subscribe(const SubscribeOptions& subscribe, const Options& options, Output& output)
{
    const auto deadline = orvbroker::deadline_after(options.timeout.value_or(orvbroker::kForever));
    orvbroker::Client client;
    Error error = connect_before(client, deadline);
    if (error == Error::none) {
        const auto left = std::min(orvbroker::time_left(deadline), orvbroker::kCallTimeout);
        error = client.subscribe(subscribe.event, left);
    }
    return error == Error::none ? follow(client, subscribe, deadline, output) : report(error);
}

} // namespace orvctl
