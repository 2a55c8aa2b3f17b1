#pragma once

#include "connection.h"

#include <orvutils/json.h>

#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace orv::brokerd {

/// Handles what epoll reported for a connection: reads and runs at most one request, writes what is pending.
/// 0 to keep the connection, -1 to have it destroyed.
[[nodiscard]] int process_client_events(Connection* conn, unsigned events, const int& epfd);

/// Runs one request. -1 when it is no usable request and the connection is to be dropped without an answer,
/// else 0.
[[nodiscard]] int handle_command(Connection* conn, const char* text, const int& epfd);

/// What a command needs as "data"; a request that has not got it fails before the handler runs.
enum class Argument {
    none,
    optional,
    required,
    explained, ///< required, and who leaves it out is told so by an error object
    string,
};

/// What a client has to know to call a command.
struct CommandShape {
    std::string_view name;
    Argument argument;
};

/// All commands, in the order of their table.
[[nodiscard]] std::vector<CommandShape> commands();

/// Connections by the client event that they have subscribed to, in the order of subscription. Does not own
/// them. When one of them ends by itself, its event's whole entry goes: the others stay connected, but
/// receive nothing more from here until somebody subscribes to that event again.
extern std::unordered_map<std::string, std::vector<Connection*>> g_client_subscriptions;

/// The connections subscribed to a client event; none when there is no entry.
[[nodiscard]] std::vector<Connection*> find_connections(const char* event);

/// Queues an event, serialised once, on every connection. 0, or -1 when it cannot be serialised. Does not
/// take ownership.
[[nodiscard]] int send_json(const std::vector<Connection*>& conns, json_t* event);

/// Takes a connection that is about to be destroyed out of the subscriptions and of the requests in flight,
/// whichever way it ended.
void forget_connection(const Connection* conn);

} // namespace orv::brokerd
