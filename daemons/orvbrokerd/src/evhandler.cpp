// Client connections: framing, the command table, subscriptions and the fan-out of events.
//
// A request is one line of JSON, an answer or event is a 4-byte length and JSON. At most one request is taken
// per readable event, and at most 16 KiB are written per writable one, so that no client can keep the loop
// for itself. A connection that ends by itself is torn down here (teardown()); whatever else ends it goes
// through forget_connection(), so that no table ever names a connection that is gone.

#include "evhandler.h"

#include "answer.h"
#include "commandsproc.h"
#include "orvex.h"
#include "state.h"

#include <orvutils/io.h>
#include <orvutils/log_format.h>

#include <sys/epoll.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

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
    if (conn->rx.recv(conn->fd, 0) < 1)
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
bool write_output(Connection* conn, const int& epfd)
{
    const int pending = conn->tx.send(conn->fd, kMaxSendPerEvent);
    if (pending == -1)
        return false;
    if (pending > 0)
        return true;
    if (conn->close_after_send)
        return false;
    io::epoll_set_fd(epfd, conn->fd, EPOLLIN);
    return true;
}

} // namespace

int process_client_events(Connection* conn, unsigned events, const int& epfd)
{
    ORV_LOG(log::kTrace, "received event on client socket {:d}", conn->fd);
    if ((events & EPOLLIN) != 0 && !read_input(conn, epfd))
        return teardown(conn);
    if ((events & EPOLLOUT) != 0 && !write_output(conn, epfd))
        return teardown(conn);
    return 0;
}

// ---- commands

namespace {

struct Request {
    Connection* conn;
    int epfd;
    json_t* data;      ///< the request's argument, null without one
    json_t*& response; ///< what becomes the answer's data
};

/// What a command needs as "data"; a request that has not got it fails before the handler runs.
enum class Argument {
    none,
    optional,
    required,
    string,
};

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
Result call(int (*handler)(), Request&)
{
    return handler();
}
Result call(int (*handler)(json_t*&), Request& request)
{
    return handler(request.response);
}
Result call(int (*handler)(json_t*), Request& request)
{
    return handler(request.data);
}
Result call(int (*handler)(json_t*, json_t*&), Request& request)
{
    return handler(request.data, request.response);
}
Result call(int (*handler)(const json_t*, json_t*&), Request& request)
{
    return handler(request.data, request.response);
}
Result call(int (*handler)(Connection*, int), Request& request)
{
    return handler(request.conn, request.epfd);
}
Result call(int (*handler)(json_t*, Connection*, int), Request& request)
{
    return handler(request.data, request.conn, request.epfd);
}
Result call(int (*handler)(const json_t*, Connection*, int), Request& request)
{
    return handler(request.data, request.conn, request.epfd);
}
Result call(int (*handler)(const json_t*, Connection*, int, json_t*&), Request& request)
{
    return handler(request.data, request.conn, request.epfd, request.response);
}
Result call(int (*handler)(const std::string&, Connection*, int), Request& request)
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
    Command{"start_cloud_registration",     needs::required, as_returned,    process<process_start_cloud_registration>},
    Command{"start_registration",           needs::optional, as_returned,    process<process_start_registration>},
    Command{"set_router_model",             needs::string,   as_returned,    process<process_set_router_model>},
    Command{"set_router_name",              needs::string,   as_returned,    process<process_set_router_name>},
    Command{"set_router_feature_set_level", needs::string,   as_returned,    process<process_set_router_feature_set_level>},
    Command{"set_router_interfaces",        needs::required, as_returned,    process<process_set_router_interfaces>},
    Command{"enable_services",              needs::none,     as_returned,    process<process_enable_services>},
    Command{"disable_services",             needs::none,     as_returned,    process<process_disable_services>},
    Command{"get_services_status",          needs::none,     as_returned,    process<process_get_services_status>},
    Command{"get_subscription_status",      needs::none,     zero_or_failed, process<process_get_subscription_status>},
    Command{"update_subscription_status",   needs::none,     as_returned,    process<process_update_subscription_status>},
    Command{"get_version_info",             needs::none,     zero_or_failed, process<process_get_version_info>},
    Command{"set_device_name",              needs::required, as_returned,    process<process_set_device_name>},
    Command{"set_device_traffic_blocked",   needs::required, as_returned,    process<process_set_device_traffic_blocked>},
    Command{"set_device_online_status",     needs::required, as_returned,    process<process_set_device_online_status>},
    Command{"get_devices",                  needs::optional, zero_or_failed, process<process_get_devices>},
    Command{"remove_satellite",             needs::required, as_returned,    process<process_remove_satellite>},
    Command{"va_start",                     needs::none,     as_returned,    process<process_va_start>},
    Command{"va_stop",                      needs::none,     as_returned,    process<process_va_stop>},
    Command{"va_status",                    needs::none,     as_returned,    process<process_va_status>},
    Command{"va_self_scan_start",           needs::none,     as_returned,    process<process_va_self_scan_start>},
    Command{"va_set_schedule",              needs::required, as_returned,    process<process_va_set_schedule>},
    Command{"va_set_exclusions",            needs::required, as_returned,    process<process_va_set_exclusions>},
    Command{"va_get_exclusions",            needs::none,     as_returned,    process<process_va_get_exclusions>},
    Command{"pro_features_enable",          needs::none,     as_returned,    process<process_pro_features_enable>},
    Command{"pro_features_disable",         needs::none,     as_returned,    process<process_pro_features_disable>},
    Command{"set_va_cloud_trigger",         needs::required, as_returned,    process<process_set_va_cloud_trigger>},
    Command{"get_va_cloud_trigger",         needs::none,     as_returned,    process<process_get_va_cloud_trigger>},
    Command{"get_router_name",              needs::none,     as_returned,    process<process_get_router_name>},
    Command{"get_router_model",             needs::none,     as_returned,    process<process_get_router_model>},
    Command{"get_router_feature_set_level", needs::none,     as_returned,    process<process_get_router_feature_set_level>},
    Command{"get_router_interfaces",        needs::none,     as_returned,    process<process_get_router_interfaces>},
    Command{"reapply_firewall_rules",       needs::none,     as_returned,    process<process_reapply_firewall_rules>},
    Command{"get_feature",                  needs::optional, as_returned,    process<process_get_feature>},
    Command{"set_feature",                  needs::optional, as_returned,    process<process_set_feature>},
    Command{"list_all_features",            needs::none,     as_returned,    process<process_get_features_list>},
    Command{"get_diagnosis_report",         needs::none,     as_returned,    process<process_get_diagnosis_report>},
    Command{"get_status_report",            needs::none,     as_returned,    process<process_get_status_report>},
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
        return data != nullptr;
    case Argument::string:
        return json_is_string(data);
    }
    return false;
}

Result run(const Command& command, Request& request)
{
    if (!has_argument(command, request.data))
        return kFailed;
    const Result result = command.process(request);
    if (command.status == Status::zero_or_failed)
        return result == kFailed ? kFailed : kDone;
    return result;
}

Result process_command(const char* name, Request& request)
{
    ORV_LOG(log::kInfo, "process {:s} command", name);
    const std::string_view wanted(name);
    for (const Command& command : kCommands)
        if (command.name == wanted)
            return run(command, request);
    return kDone; // unknown commands are not rejected, on purpose
}

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
    orvex_subscribe();
}

Result process_request(std::string_view type, const json_t* root, Request& request)
{
    const char* name = json_string_value(json_object_get(root, "name"));
    if (!name)
        return kFailed;
    if (type == "command")
        return process_command(name, request);
    if (type == "subscribe") {
        process_subscription(request.conn, name);
        return kDone;
    }
    return kFailed;
}

} // namespace

std::vector<std::string_view> command_names()
{
    std::vector<std::string_view> names;
    names.reserve(kCommands.size());
    for (const Command& command : kCommands)
        names.push_back(command.name);
    return names;
}

int handle_command(Connection* conn, const char* text, const int& epfd)
{
    const JsonPtr root(json_loads(text, 0, nullptr));
    if (!root) {
        ORV_LOG(log::kError, "failed to load json: {:s}", text);
        return -1;
    }
    const json_t* type_value = json_object_get(root.get(), "type");
    if (!type_value) {
        ORV_LOG(log::kError, "no 'type' field in json: {:s}", text);
        return -1;
    }
    const char* type = json_string_value(type_value);
    if (!type) {
        ORV_LOG(log::kError, "'type' is not a valid string in json: {:s}", text);
        return -1;
    }

    json_t* response = json_null();
    Request request{conn, epfd, json_object_get(root.get(), "data"), response};
    const Result status = process_request(type, root.get(), request);
    ORV_LOG(log::kInfo, "last operation status is {:d}", status);
    if (status == kPending) {
        json_decref(response);
        return 0;
    }

    const TextPtr answer(build_response(status, response));
    if (answer) {
        queue_frame(conn, answer.get(), static_cast<std::uint32_t>(std::strlen(answer.get())), epfd);
        if (status != kDone)
            conn->close_after_send = true;
    }
    if (std::strcmp(type, "subscribe") == 0)
        conn->mode = kSubscriberMode;
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
    orvex_subscribe();
}

bool is_bound(const std::string& exchange_event, const Connection* conn)
{
    const auto found = g_exchange_subscriptions.find(exchange_event);
    if (found == g_exchange_subscriptions.end())
        return false;
    for (const auto& [callback, connections] : found->second)
        if (std::find(connections.begin(), connections.end(), conn) != connections.end())
            return true;
    return false;
}

void forget_subscription(const Connection* conn)
{
    const auto found = g_client_subscriptions.find(conn->subscription);
    if (found == g_client_subscriptions.end())
        return;
    auto& connections = found->second;
    connections.erase(std::remove(connections.begin(), connections.end(), conn), connections.end());
    if (connections.empty())
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
        orvex_subscribe();
}

} // namespace

void forget_connection(const Connection* conn)
{
    orvex_forget_waiting(conn);
    if (conn->mode != kSubscriberMode)
        return;
    forget_subscription(conn);
    forget_bindings(conn);
}

std::vector<Connection*> find_connections(const char* event)
{
    const auto found = g_client_subscriptions.find(event);
    return found == g_client_subscriptions.end() ? std::vector<Connection*>() : found->second;
}

int send_json(const std::vector<Connection*>& connections, json_t* event)
{
    if (connections.empty())
        return 0;
    const TextPtr text(json_dumps(event, 0));
    if (!text)
        return -1;

    const auto len = static_cast<std::uint32_t>(std::strlen(text.get()));
    for (Connection* conn : connections)
        queue_frame(conn, text.get(), len, epollfd);
    ORV_LOG(log::kInfo, "send json: {:s}", text.get());
    return 0;
}

} // namespace orv::brokerd
