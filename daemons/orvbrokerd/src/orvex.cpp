// The daemon's side of the message exchange: who receives which event, and which client waits for which
// answer.
//
// An answer can come long after its client has gone, and by then another client may have the same descriptor
// or stand at the same address in memory. So every request in flight is in one list, and a connection that
// ends, or gets an answer, is taken out of it: further answers' callbacks still run for their effects, but
// nobody is answered. Requests that are in flight when the daemon stops are never answered; what they hold
// goes with the process.

#include "orvex.h"

#include "state.h"
#include "within_memory.h"

#include <orvutils/log_format.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>

namespace orv::brokerd {
namespace {

constexpr char kRegistrationStatusChanged[] = "registration_status_changed";

/// One request in flight. The library holds it between sending and answer; the trampoline frees it.
struct AsyncContext {
    ResponseCallback callback = nullptr;
    void* arg = nullptr;
    Connection* connection = nullptr; ///< who waits for the answer; null when gone
    int epfd = -1;

    AsyncContext* next = nullptr; ///< links of the list of requests in flight
    AsyncContext** link = nullptr;
};

AsyncContext* g_in_flight = nullptr;

void add_in_flight(AsyncContext* context)
{
    context->next = g_in_flight;
    context->link = &g_in_flight;
    if (g_in_flight)
        g_in_flight->link = &context->next;
    g_in_flight = context;
}

void remove_in_flight(AsyncContext* context)
{
    *context->link = context->next;
    if (context->next)
        context->next->link = context->link;
}

void answer_connection(Connection* conn, Result result, json_t* out, int epfd)
{
    if (queue_response(conn, result, out, epfd))
        conn->close_after_send = true;
    else
        conn->close_requested = true;
}

/// The library calls this with every answer to a request that a client waits for.
void orvex_response_trampoline(void* arg, const Message* answer)
{
    const std::unique_ptr<AsyncContext> context(static_cast<AsyncContext*>(arg));
    remove_in_flight(context.get());

    json_t* out = json_null();
    Result result = kFailed;
    if (!within_memory([&] { result = context->callback(answer, out, context->arg); })) {
        json_decref(out);
        out = nullptr; // there is nothing to answer with
    }
    if (!context->connection) {
        json_decref(out);
        return;
    }
    orvex_forget_waiting(context->connection); // its last frame: further answers may come before it is sent
    answer_connection(context->connection, result, out, context->epfd);
}

/// Hands a request over to the library, which will call `callback` with `arg` when there is an answer.
bool send_request(const std::string& name, const char* payload, LibraryCallback callback, void* arg,
                  log::Caller caller = log::caller())
{
    if (orvex_send_request(orvex, name.c_str(), payload, std::strlen(payload), callback, arg) != 0) {
        ORV_LOG_AS(caller, log::kError, "failed to send {:s} request: {:s}", name, payload);
        return false;
    }
    ORV_LOG_AS(caller, log::kInfo, "successfully sent {:s} request: {:s}", name, payload);
    return true;
}

} // namespace

std::unordered_map<std::string, std::unordered_map<EventCallback, std::vector<Connection*>>>
    g_exchange_subscriptions;

// ---- subscriptions

int orvex_subscribe()
{
    const std::size_t count = g_exchange_subscriptions.size() + 1;
    const std::unique_ptr<const char*, PtrDeleter<const char*>> names(
        static_cast<const char**>(std::malloc(count * sizeof(const char*))));
    if (!names)
        return -1;

    const char** name = names.get();
    for (const auto& subscription : g_exchange_subscriptions)
        *name++ = subscription.first.c_str();
    *name = kRegistrationStatusChanged; // of interest whether or not a client listens

    if (::orvex_subscribe(orvex, names.get(), static_cast<int>(count)) == -1)
        ORV_LOG(log::kError, "orvex_subscribe() failed; auto-retrying...");
    return 0;
}

namespace {

using Subscription = decltype(g_exchange_subscriptions)::iterator;

void drop_unused(Subscription subscription)
{
    auto& callbacks = subscription->second;
    for (auto it = callbacks.begin(); it != callbacks.end();)
        it = it->second.empty() ? callbacks.erase(it) : std::next(it);
    if (callbacks.empty())
        g_exchange_subscriptions.erase(subscription);
}

} // namespace

void orvex_add_sub(const std::string& event, Connection* conn, EventCallback callback)
{
    const Subscription subscription = g_exchange_subscriptions.try_emplace(event).first;
    try {
        subscription->second[callback].push_back(conn);
    } catch (const std::bad_alloc&) {
        drop_unused(subscription); // nobody else would take it back
        throw;
    }
}

void orvex_del_sub(const std::string& event, const Connection* conn)
{
    const auto found = g_exchange_subscriptions.find(event);
    if (found == g_exchange_subscriptions.end())
        return;
    for (auto& callback : found->second) {
        auto& conns = callback.second;
        conns.erase(std::remove(conns.begin(), conns.end(), conn), conns.end());
    }
    drop_unused(found);
}

// ---- events

namespace {

void process_message(const Message* msg, log::Caller caller)
{
    if (std::strcmp(msg->type, kRegistrationStatusChanged) == 0) {
        ORV_LOG_AS(caller, log::kInfo, "Received registration_status_changed event");
        orvex_process_registration_status_changed(msg);
        return;
    }
    if (orvex_process_event(msg, epollfd) < 0)
        ORV_LOG_AS(caller, log::kError, "unknown {:s} event", msg->type);
}

} // namespace

void orvex_callback(const Message* msg)
{
    const log::Caller caller = log::caller();
    (void)within_memory([&] { process_message(msg, caller); }); // the event is lost, and it is said
}

int orvex_process_event(const Message* msg, int epfd)
{
    const auto found = g_exchange_subscriptions.find(msg->type);
    if (found == g_exchange_subscriptions.end())
        return -1;

    ORV_LOG(log::kDebug, "{:s} event received", found->first);
    for (const auto& [callback, conns] : found->second) {
        if (callback(conns, msg) != 0)
            continue;
        for (const Connection* conn : conns)
            watch_for_output(conn, epfd);
    }
    return 0;
}

// ---- requests and messages

int orvex_send_req(const std::string& name, const char* payload, ResponseCallback callback, void* arg,
                   Connection* conn, int epfd)
{
    std::unique_ptr<AsyncContext> context(new (std::nothrow) AsyncContext{callback, arg, conn, epfd});
    if (!context) {
        conn->close_requested = true;
        return 0;
    }
    add_in_flight(context.get());
    if (!send_request(name, payload, orvex_response_trampoline, context.get())) {
        remove_in_flight(context.get());
        return 0;
    }
    (void)context.release(); // the library's until the answer
    return 1;
}

void orvex_send_req(const std::string& name, const char* payload, const int& epfd)
{
    const auto found = g_request_callbacks.find(name);
    if (found == g_request_callbacks.end() || !found->second) {
        ORV_LOG(log::kError, "failed to find orvex response callback for {:s} request", name);
        return;
    }
    // The library hands the argument back as it is; the callback only reads the descriptor through it.
    void* arg = const_cast<int*>(&epfd);
    (void)send_request(name, payload, found->second, arg); // it has said so; nobody waits for the answer
}

int orvex_send_msg(const std::string& name, const char* payload)
{
    const int result = orvex_send_message(orvex, name.c_str(), payload, std::strlen(payload));
    if (result != 0)
        ORV_LOG(log::kError, "failed to send {:s} message: {:s}", name, payload);
    else
        ORV_LOG(log::kInfo, "successfully sent {:s} message: {:s}", name, payload);
    return result;
}

int orvex_cloud_message(Orvex* handle, const std::string& name, json_t* json)
{
    const TextPtr text = dump(json);
    if (!text)
        return 0;
    if (orvex_send_message(handle, name.c_str(), text.get(), std::strlen(text.get())) != 0) {
        ORV_LOG(log::kWarning, "Failed to send message to {:s}", name);
        return 0;
    }
    return 1;
}

void orvex_forget_waiting(const Connection* conn)
{
    for (AsyncContext* context = g_in_flight; context; context = context->next)
        if (context->connection == conn)
            context->connection = nullptr;
}

} // namespace orv::brokerd
