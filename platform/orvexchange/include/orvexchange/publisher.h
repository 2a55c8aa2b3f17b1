#pragma once

#include <orvexchange/orvexchange.h>

#include <chrono>
#include <functional>
#include <string_view>

/// The other side of the exchange, for programs that play the agent's other daemons and for tools: publishing
/// events, answering requests with a type of one's choice, looking on. The handles are those of
/// orvexchange.h, and so are all the other operations and rules.

/// Whether a text can name an event, request or message.
[[nodiscard]] bool orvex_is_name(const char* text);

/// Whether a text says where a request or message goes: "participant:name" or "name".
[[nodiscard]] bool orvex_is_target(const char* text);

/// What a handler of orvex_join() is called for.
enum class OrvexKind {
    event,
    request, ///< to be answered by its request_id
    message, ///< a one-way message, or a request that wants no answer; its request_id is 0
    respond, ///< someone's answer to the event that this participant published as `request_id`; type "0"
};

/// `message` and what it points to live until the handler returns. For everything but events, `from` is the
/// sender's unique bus name.
using OrvexHandler = std::function<void(OrvexKind kind, const Message& message)>;

/// How long joining waits for the exchange, unless told otherwise.
constexpr std::chrono::milliseconds kOrvexJoinTime{5000};

/// As orvex_init_eventloop(), whose callback is not told of answers to events. With a null `name` the
/// participant has none: it can publish, send and subscribe, but nobody can address it but by answering.
/// Waits at most `patience` in all.
[[nodiscard]] Orvex* orvex_join(const char* name, OrvexHandler handler, bool auto_reconnect,
                                std::chrono::milliseconds patience = kOrvexJoinTime);

/// Sends an event to all that have subscribed to it. `identifier`, unless null, is set to the number under
/// which answers will come. 0, or -1.
[[nodiscard]] int orvex_publish(Orvex* orvex, const char* name, const char* data, std::size_t length,
                                std::uint64_t* identifier);

/// Answers a request with a type of at most kOrvexMaxName bytes ("0" for success). For an event's answer the
/// type has no meaning and is left out. 0, or -1.
[[nodiscard]] int orvex_send_response_typed(Orvex* orvex, std::uint64_t request_id, const char* type,
                                            const char* data, std::size_t length);

/// One thing that happens on the exchange. The texts live until the observer returns.
struct OrvexTraffic {
    enum class Kind { event, request, message, respond, answer, error };
    Kind kind;
    std::string_view name; ///< of the event, request or message; of the request that is answered; else empty
    std::string_view from; ///< an event's own word; else the sender's unique bus name
    std::string_view to;   ///< a participant, or a unique bus name; empty for an event
    std::string_view type; ///< an answer's type, "0" for success; an error's D-Bus name; else empty
    std::uint64_t id; ///< of the event, or of the event answered; else the request's, the same in its answer
    std::string_view data; ///< the payload; an error's text
};

using OrvexObserver = std::function<void(const OrvexTraffic& traffic)>;

/// Joins as an onlooker that sees all traffic and takes no part in it: every operation that sends fails.
/// Only the bus's own user may. Leave with orvex_uninit(). Null when the exchange cannot be reached.
[[nodiscard]] Orvex* orvex_monitor(OrvexObserver observer, bool auto_reconnect,
                                   std::chrono::milliseconds patience = kOrvexJoinTime);
