// Client connections: the dispatch of requests, the command table, subscriptions and the fan-out of events.
//
// A request is one line of JSON. At most one is taken per readable event, and at most 16 KiB are written per
// writable one, so that no client can keep the loop for itself. A connection that ends by itself is torn down
// here (teardown()); whatever else ends it goes through forget_connection(), so that no table ever names a
// connection that is gone.

#include "evhandler.h"

#include "agent_status.h"
#include "answer.h"
#include "commandsproc.h"
#include "orvex.h"
#include "state.h"
#include "within_memory.h"

#include <orvutils/io.h>
#include <orvutils/keys.h>
#include <orvutils/log_format.h>
#include <orvutils/setmgmt.h>

#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <memory>

namespace orv::brokerd {

// ---- connections

namespace {

void unsubscribe(const Connection* conn);

int teardown(const Connection* conn)
{
    if (conn->mode == kSubscriberMode)
        unsubscribe(conn);
    return -1;
}

/// False when the connection is to be torn down.
bool read_input(Connection* conn, const int& epfd)
{
    if (conn->rx.recv(conn->fd, /*flags=*/0) < 1)
        return false;
    if (conn->mode == kCommandMode) {
        // One request only, however many are there: the next one waits for the next readable event.
        const std::unique_ptr<char[]> line(conn->rx.get('\n'));
        if (line && handle_command(conn, line.get(), epfd) != 0)
            return false;
    }
    if (conn->mode == kSubscriberMode) // from this very request on, too
        conn->rx.reset();
    return true;
}

/// False when the connection is to be torn down.
bool write_output(Connection* conn, int epfd)
{
    const int pending = conn->tx.send(conn->fd, kMaxSendPerEvent);
    if (pending == -1)
        return false;
    if (pending > 0)
        return true;
    if (conn->close_after_send)
        return false;
    // If it failed, the next writable event, with nothing to write, would try again.
    (void)io::epoll_set_fd(epfd, conn->fd, EPOLLIN);
    return true;
}

} // namespace

int process_client_events(Connection* conn, unsigned events, const int& epfd)
{
    ORV_LOG(log::kTrace, "received event on client socket {:d}", conn->fd);
    bool stays = true;
    const bool had_memory = within_memory([&] {
        stays = ((events & EPOLLIN) == 0 || read_input(conn, epfd)) &&
                ((events & EPOLLOUT) == 0 || write_output(conn, epfd));
    });
    return stays && had_memory ? 0 : teardown(conn);
}

// ---- the commands that the dispatcher carries out by itself

namespace {

struct Request {
    Connection* conn;
    int epfd;
    json_t* data;       ///< the request's argument, null without one
    json_t*& out;       ///< what the client gets as the answer's data
    log::Caller caller; ///< in whose name the dispatcher's own commands log
};

Result set_flag(const Request& request, const path& key, const char* value, const char* failure)
{
    if (setMgmt::setKey(key, value) >= 0)
        return kDone;
    ORV_LOG_AS(request.caller, log::kError, "{}", failure);
    return kFailed;
}

Result enable_services(Request& request)
{
    if (set_flag(request, kProtectionEnabledKey, "1", "failed to set protection_enabled key to 1") != kDone)
        return kFailed;
    report_agent_status(AgentStatus::activated, /*extra=*/nullptr);
    return kDone;
}

Result disable_services(Request& request)
{
    if (set_flag(request, kProtectionEnabledKey, "0", "failed to set protection_enabled key to 0") != kDone)
        return kFailed;
    report_agent_status(AgentStatus::deactivated, /*extra=*/nullptr);
    return kDone;
}

Result get_services_status(Request& request)
{
    static const std::string fallback = fmt::format("{:d}", kProtectionEnabledDefault);
    const std::string value = setMgmt::getKeyValue(kProtectionEnabledKey, fallback);
    if (value != "0" && value != "1")
        return kFailed;
    return respond(request.out, JsonPtr(json_pack("{s:i}", "status", value == "1" ? 1 : 0)));
}

Result pro_features_enable(Request& request)
{
    return set_flag(request, kProFeaturesEnabledKey, "1", "failed to set kProFeaturesEnabledKey key to 1");
}

Result pro_features_disable(Request& request)
{
    return set_flag(request, kProFeaturesEnabledKey, "0", "failed to set kProFeaturesEnabledKey key to 0");
}

Result set_va_cloud_trigger(Request& request)
{
    if (!json_is_boolean(request.data) && !json_is_integer(request.data))
        return kFailed;
    const bool on = json_is_true(request.data) || json_integer_value(request.data) != 0;
    return set_flag(request, kVaCloudTriggerKey, on ? "1" : "0", "failed to set kVaCloudTriggerKey key");
}

} // namespace

// ---- the command table

namespace {

/// How a handler's result becomes the answer's status.
enum class Status {
    as_returned,
    zero_or_failed, ///< -1 stays, everything else is 0
};

struct Command {
    std::string_view name;
    Argument argument;
    Status status;
    Result (*process)(Request& request);
};

// Handlers have the parameters that they need; these call each shape.
Result call(Result (*handler)(), Request&)
{
    return handler();
}
Result call(Result (*handler)(json_t*&), Request& request)
{
    return handler(request.out);
}
Result call(Result (*handler)(json_t*), Request& request)
{
    return handler(request.data);
}
template <typename Json> // json_t, const or not
Result call(Result (*handler)(Json*, json_t*&), Request& request)
{
    return handler(request.data, request.out);
}
Result call(Result (*handler)(Connection*, int), Request& request)
{
    return handler(request.conn, request.epfd);
}
template <typename Json>
Result call(Result (*handler)(Json*, Connection*, int), Request& request)
{
    return handler(request.data, request.conn, request.epfd);
}
Result call(Result (*handler)(const json_t*, Connection*, int, json_t*&), Request& request)
{
    return handler(request.data, request.conn, request.epfd, request.out);
}
Result call(Result (*handler)(const std::string&, Connection*, int), Request& request)
{
    return handler(json_string_value(request.data), request.conn, request.epfd);
}

template <auto handler>
Result process(Request& request)
{
    return call(handler, request);
}

using needs = Argument;
constexpr Status as_returned = Status::as_returned;
constexpr Status zero_or_failed = Status::zero_or_failed;

constexpr std::array kCommands{
    // clang-format off
    Command{"start_cloud_registration",     needs::required,  as_returned,    process<process_start_cloud_registration>},
    Command{"start_registration",           needs::explained, as_returned,    process<process_start_registration>},
    Command{"set_router_model",             needs::string,    as_returned,    process<process_set_router_model>},
    Command{"set_router_name",              needs::string,    as_returned,    process<process_set_router_name>},
    Command{"set_router_feature_set_level", needs::string,    as_returned,    process<process_set_router_feature_set_level>},
    Command{"set_router_interfaces",        needs::required,  as_returned,    process<process_set_router_interfaces>},
    Command{"enable_services",              needs::none,      as_returned,    enable_services},
    Command{"disable_services",             needs::none,      as_returned,    disable_services},
    Command{"get_services_status",          needs::none,      as_returned,    get_services_status},
    Command{"get_subscription_status",      needs::none,      zero_or_failed, process<process_get_subscription_status>},
    Command{"update_subscription_status",   needs::none,      as_returned,    process<process_update_subscription_status>},
    Command{"get_version_info",             needs::none,      zero_or_failed, process<process_get_version_info>},
    Command{"set_device_name",              needs::required,  as_returned,    process<process_set_device_name>},
    Command{"set_device_traffic_blocked",   needs::required,  as_returned,    process<process_set_device_traffic_blocked>},
    Command{"set_device_online_status",     needs::required,  as_returned,    process<process_set_device_online_status>},
    Command{"get_devices",                  needs::optional,  zero_or_failed, process<process_get_devices>},
    Command{"remove_satellite",             needs::required,  as_returned,    process<process_remove_satellite>},
    Command{"va_start",                     needs::none,      as_returned,    process<process_va_start>},
    Command{"va_stop",                      needs::none,      as_returned,    process<process_va_stop>},
    Command{"va_status",                    needs::none,      as_returned,    process<process_va_status>},
    Command{"va_self_scan_start",           needs::none,      as_returned,    process<process_va_self_scan_start>},
    Command{"va_set_schedule",              needs::required,  as_returned,    process<process_va_set_schedule>},
    Command{"va_set_exclusions",            needs::required,  as_returned,    process<process_va_set_exclusions>},
    Command{"va_get_exclusions",            needs::none,      as_returned,    process<process_va_get_exclusions>},
    Command{"pro_features_enable",          needs::none,      as_returned,    pro_features_enable},
    Command{"pro_features_disable",         needs::none,      as_returned,    pro_features_disable},
    Command{"set_va_cloud_trigger",         needs::required,  as_returned,    set_va_cloud_trigger},
    Command{"get_va_cloud_trigger",         needs::none,      as_returned,    process<process_get_va_cloud_trigger>},
    Command{"get_router_name",              needs::none,      as_returned,    process<process_get_router_name>},
    Command{"get_router_model",             needs::none,      as_returned,    process<process_get_router_model>},
    Command{"get_router_feature_set_level", needs::none,      as_returned,    process<process_get_router_feature_set_level>},
    Command{"get_router_interfaces",        needs::none,      as_returned,    process<process_get_router_interfaces>},
    Command{"reapply_firewall_rules",       needs::none,      as_returned,    process<process_reapply_firewall_rules>},
    Command{"get_feature",                  needs::optional,  as_returned,    process<process_get_feature>},
    Command{"set_feature",                  needs::optional,  as_returned,    process<process_set_feature>},
    Command{"list_all_features",            needs::none,      as_returned,    process<process_get_features_list>},
    Command{"get_diagnosis_report",         needs::none,      as_returned,    process<process_get_diagnosis_report>},
    Command{"get_status_report",            needs::none,      as_returned,    process<process_get_status_report>},
    // clang-format on
};
static_assert(kCommands.size() == 38);

constexpr bool names_are_unique()
{
    for (std::size_t i = 0; i < kCommands.size(); ++i)
        for (std::size_t k = i + 1; k < kCommands.size(); ++k)
            if (kCommands[i].name == kCommands[k].name)
                return false;
    return true;
}
static_assert(names_are_unique());

bool has_argument(const Command& command, const json_t* data)
{
    switch (command.argument) {
    case Argument::none:
    case Argument::optional:
        return true;
    case Argument::required:
    case Argument::explained:
        return data != nullptr;
    case Argument::string:
        return json_is_string(data);
    }
    return false;
}

Result run(const Command& command, Request& request)
{
    if (!has_argument(command, request.data)) {
        if (command.argument == Argument::explained)
            set_out(request.out, JsonPtr(build_error_response(kErrorCommand, kInvalidCommand)));
        return kFailed;
    }
    const Result result = command.process(request);
    if (command.status == Status::zero_or_failed)
        return result == kFailed ? kFailed : kDone;
    return result;
}

Result process_command(const char* name, Request& request)
{
    ORV_LOG_AS(request.caller, log::kInfo, "process {:s} command", name);
    const std::string_view wanted(name);
    for (const Command& command : kCommands)
        if (command.name == wanted)
            return run(command, request);
    return kDone; // unknown commands are not rejected, on purpose
}

} // namespace

std::vector<CommandShape> commands()
{
    std::vector<CommandShape> shapes;
    shapes.reserve(kCommands.size());
    for (const Command& command : kCommands)
        shapes.push_back({command.name, command.argument});
    return shapes;
}

// ---- requests

namespace {

void process_subscription(Connection* conn, const char* name)
{
    ORV_LOG(log::kInfo, "process {:s} subscription", name);
    conn->subscription = name;
    g_client_subscriptions[conn->subscription].push_back(conn);

    const auto found = g_exchange_events.find(conn->subscription);
    if (found == g_exchange_events.end())
        return;
    for (const auto& [event, callback] : found->second)
        orvex_add_sub(event, conn, callback);
    (void)orvex_subscribe(); // what it cannot do now is made good by the next subscription
}

Result process_request(std::string_view type, const json_t* root, Request& request)
{
    const char* name = json_string_value(json_object_get(root, "name"));
    if (!name)
        return kFailed;
    if (type == "command")
        return process_command(name, request);
    if (type != "subscribe")
        return kFailed;
    process_subscription(request.conn, name);
    return kDone;
}

/// Null, with a line in the log, when the request is not usable.
const char* find_type(const json_t* root, const char* text, log::Caller caller = log::caller())
{
    if (!root) {
        ORV_LOG_AS(caller, log::kError, "failed to load json: {:s}", text);
        return nullptr;
    }
    const json_t* value = json_object_get(root, "type");
    if (!value) {
        ORV_LOG_AS(caller, log::kError, "no 'type' field in json: {:s}", text);
        return nullptr;
    }
    const char* type = json_string_value(value);
    if (!type)
        ORV_LOG_AS(caller, log::kError, "'type' is not a valid string in json: {:s}", text);
    return type;
}

} // namespace

int handle_command(Connection* conn, const char* text, const int& epfd)
{
    const JsonPtr root = parse_json(text);
    const char* type = find_type(root.get(), text);
    if (!type)
        return -1;

    json_t* out = json_null();
    Request request{conn, epfd, json_object_get(root.get(), "data"), out, log::caller()};
    const Result status = process_request(type, root.get(), request);
    ORV_LOG(log::kInfo, "last operation status is {:d}", status);
    if (status == kPending) {
        json_decref(out); // the answer comes from the exchange
        return 0;
    }
    if (std::string_view(type) == "subscribe")
        conn->mode = kSubscriberMode;
    if (queue_response(conn, status, out, epfd) && status != kDone)
        conn->close_after_send = true;
    return 0;
}

// ---- subscriptions

std::unordered_map<std::string, std::vector<Connection*>> g_client_subscriptions;

namespace {

void unsubscribe(const Connection* conn)
{
    ORV_LOG(log::kInfo, "unsubscribe from {:s}", conn->subscription);
    g_client_subscriptions.erase(conn->subscription); // all subscribers of this event, on purpose

    const auto found = g_exchange_events.find(conn->subscription);
    if (found == g_exchange_events.end())
        return;
    for (const auto& binding : found->second)
        orvex_del_sub(binding.first, conn);
    (void)orvex_subscribe(); // as above
}

bool is_bound(const std::string& exchange_event, const Connection* conn)
{
    const auto found = g_exchange_subscriptions.find(exchange_event);
    if (found == g_exchange_subscriptions.end())
        return false;
    for (const auto& [callback, conns] : found->second)
        if (std::find(conns.begin(), conns.end(), conn) != conns.end())
            return true;
    return false;
}

void forget_subscription(const Connection* conn)
{
    const auto found = g_client_subscriptions.find(conn->subscription);
    if (found == g_client_subscriptions.end())
        return;
    auto& conns = found->second;
    conns.erase(std::remove(conns.begin(), conns.end(), conn), conns.end());
    if (conns.empty())
        g_client_subscriptions.erase(found);
}

void forget_bindings(const Connection* conn)
{
    const auto found = g_exchange_events.find(conn->subscription);
    if (found == g_exchange_events.end())
        return;
    bool changed = false;
    for (const auto& binding : found->second) {
        if (!is_bound(binding.first, conn))
            continue;
        orvex_del_sub(binding.first, conn);
        changed = true;
    }
    if (changed && orvex)
        (void)orvex_subscribe(); // as above
}

} // namespace

void forget_connection(const Connection* conn)
{
    // Whatever its mode: a subscription may have failed half-way.
    orvex_forget_waiting(conn);
    forget_subscription(conn);
    forget_bindings(conn);
}

std::vector<Connection*> find_connections(const char* event)
{
    const auto found = g_client_subscriptions.find(event);
    return found == g_client_subscriptions.end() ? std::vector<Connection*>() : found->second;
}

int send_json(const std::vector<Connection*>& conns, json_t* event)
{
    if (conns.empty())
        return 0;
    const TextPtr text = dump(event);
    if (!text)
        return -1;

    queue_frames(conns, text.get(), epollfd);
    ORV_LOG(log::kInfo, "send json: {:s}", text.get());
    return 0;
}

} // namespace orv::brokerd
