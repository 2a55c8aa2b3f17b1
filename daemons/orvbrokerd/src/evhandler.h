#pragma once

#include "json.h"

#include <orvutils/connection_buffer.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace orv::brokerd {

// What a client can run into.
constexpr unsigned kBufferInitialSize = 4096;             ///< bytes, of each of a connection's two buffers
constexpr unsigned kBufferMaximumSize = 4U * 1024 * 1024; ///< bytes; a request's line must be shorter
constexpr int kMaxSendPerEvent = 16384;                   ///< bytes written to a client at a time

/// Error codes in the error object.
constexpr int kErrorSchema = 2;  ///< the data matches no schema of the command
constexpr int kErrorCommand = 3; ///< the command is not usable at all
constexpr char kInvalidCommand[] = "daemon received invalid command";

/// What a command handler or a response callback returns.
using Result = int;
constexpr Result kDone = 0;
constexpr Result kFailed = -1;
constexpr Result kPending = 1; ///< the answer comes later, from a response callback

/// What a connection is used for. It never goes back from subscriber to command.
constexpr int kCommandMode = 0;
constexpr int kSubscriberMode = 1;

/// One client. Owned by g_connections; everything else that names one is told when it ends
/// (forget_connection()).
struct Connection {
    explicit Connection(int socket);

    /// Appends to the send buffer. What does not fit below its maximum is dropped.
    void put(const void* data, unsigned len);

    int fd;
    bool close_after_send = false; ///< ends once the send buffer has drained
    bool close_requested = false;  ///< ends after the exchange input that is being handled
    int mode = kCommandMode;
    std::string subscription; ///< name of the one event that it has subscribed to
    ConnectionBuffer rx;
    ConnectionBuffer tx;
};

/// Handles what epoll reported for a connection: reads and runs at most one request, writes what is pending.
/// 0 to keep the connection, -1 to have it destroyed.
[[nodiscard]] int process_client_events(Connection* conn, unsigned events, const int& epfd);

/// Runs one request. -1 when it is no usable request and the connection is to be dropped without an answer,
/// else 0.
[[nodiscard]] int handle_command(Connection* conn, const char* text, const int& epfd);

/// The names of all commands, in the order of their table.
[[nodiscard]] std::vector<std::string_view> command_names();

/// Appends one frame to a connection's send buffer: a 4-byte length in native byte order and the text.
void put_frame(Connection* conn, const char* text, std::uint32_t len);

/// Watches a connection for input and output, so that what is pending gets written. `epfd` may be -1 while
/// there is no loop.
void watch_for_output(const Connection* conn, int epfd);

/// Both of the above.
void queue_frame(Connection* conn, const char* text, std::uint32_t len, int epfd);

/// The response envelope {"data": data, "status": status} as text; takes ownership of `data`. Null when it
/// cannot be built, also for null data. Freed by the caller with free().
[[nodiscard]] char* build_response(int status, json_t* data);

/// A new error object {"code": code, "description": description}.
[[nodiscard]] json_t* build_error_response(int code, const char* description);

/// Connections by the client event that they have subscribed to, in the order of subscription. Does not own
/// them. When one of them ends by itself, its event's whole entry goes: the others stay connected, but
/// receive nothing more from here until somebody subscribes to that event again.
extern std::unordered_map<std::string, std::vector<Connection*>> g_client_subscriptions;

/// The connections subscribed to a client event; none when there is no entry.
[[nodiscard]] std::vector<Connection*> find_connections(const char* event);

/// Queues an event, serialised once, on every connection. 0, or -1 when it cannot be serialised. Does not
/// take ownership.
int send_json(const std::vector<Connection*>& connections, json_t* event);

/// Takes a connection that is about to be destroyed out of the subscription tables, whichever way it ended.
void forget_connection(const Connection* conn);

enum class AgentStatus : int {
    deployed = 0,
    registered = 1,
    activated = 2,
    deactivated = 3,
};

/// Submits the telemetry event "tuvo_agent_status". `extra` is accepted and not used.
void report_agent_status(AgentStatus status, TextPtr extra);

} // namespace orv::brokerd
