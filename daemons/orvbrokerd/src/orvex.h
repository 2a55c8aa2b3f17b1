#pragma once

#include "answer.h"
#include "connection.h"

#include <orvexchange/orvexchange.h>

#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace orv::brokerd {

/// What an exchange event means for the connections that receive it. 0 when output was queued on them.
using EventCallback = int (*)(const std::vector<Connection*>& conns, const Message* msg);

/// A command's handler of the exchange's answer: leaves the client's data in `out` (an owned value, JSON null
/// beforehand), frees what `arg` owns and returns the client's status. Called with a null `out` never.
using ResponseCallback = Result (*)(const Message* answer, json_t*& out, void* arg);

/// The library's own form of a response callback.
using LibraryCallback = void (*)(void* arg, const Message* answer);

// What exchange events and answers mean: orvexproc, which stands above, fills this in.

/// Handlers of the answers to requests that no client connection waits for, by request name.
extern const std::unordered_map<std::string, LibraryCallback> g_request_callbacks;

/// Client events that come from the exchange: {exchange event name, callback} by client event name.
extern const std::unordered_map<std::string, std::vector<std::pair<std::string, EventCallback>>>
    g_exchange_events;

/// What becomes of "registration_status_changed", which is received whether or not a client listens.
void orvex_process_registration_status_changed(const Message* msg);

/// The entry point of everything that arrives over the exchange and is no answer.
void orvex_callback(const Message* msg);

/// Who receives which exchange event: connections by callback by exchange event name. Does not own them. An
/// event has an entry exactly while a connection is registered for it.
extern std::unordered_map<std::string, std::unordered_map<EventCallback, std::vector<Connection*>>>
    g_exchange_subscriptions;

/// Hands the list of all events that anybody here wants to the exchange. 0, or -1 without memory; a refusal
/// is logged, and made good by the next call.
[[nodiscard]] int orvex_subscribe();

/// Registers a connection for an exchange event; twice, if called twice.
void orvex_add_sub(const std::string& event, Connection* conn, EventCallback callback);

/// Takes a connection out of an exchange event, however often it is registered.
void orvex_del_sub(const std::string& event, const Connection* conn);

/// Gives an event to the connections registered for it. -1 when there is no such event, else 0.
[[nodiscard]] int orvex_process_event(const Message* msg, int epfd);

/// Sends a request whose answer goes to `conn`: the callback makes it, the connection gets it as its last
/// frame. Of several requests in flight for it, the first answer that comes is that frame; the others only
/// run their callbacks. 1 when sent; 0 when not, then the callback will not be called and `arg` stays the
/// caller's.
[[nodiscard]] int orvex_send_req(const std::string& name, const char* payload, ResponseCallback callback,
                                 void* arg, Connection* conn, int epfd);

/// Sends a request whose answer goes to its callback in g_request_callbacks, together with the address of
/// `epfd`, which must live as long as the daemon.
void orvex_send_req(const std::string& name, const char* payload, const int& epfd);

/// Sends a one-way message; returns the library's result, 0 for success.
[[nodiscard]] int orvex_send_msg(const std::string& name, const char* payload);

/// Sends a JSON value as a one-way message. 1, or 0 on failure. Does not take ownership.
[[nodiscard]] int orvex_cloud_message(Orvex* handle, const std::string& name, json_t* json);

/// Makes every answer that `conn` waits for go nowhere: its callback will still run.
void orvex_forget_waiting(const Connection* conn);

} // namespace orv::brokerd
