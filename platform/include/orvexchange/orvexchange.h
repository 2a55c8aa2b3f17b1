#pragma once

#include <cstddef>
#include <cstdint>

/// One participant's end of the message exchange that links the agent's daemons: events, requests with
/// answers, one-way messages. Results: 0 success, -1 failure, a lack of memory included, unless said
/// otherwise. Nothing throws. Nothing blocks but orvex_init_eventloop(). Not thread-safe; callbacks run only
/// from inside orvex_read_fd().
struct Orvex;

/// What the exchange hands to every callback: an event, a request, a message or an answer. It and what it
/// points to live until the callback returns. The layout is the exchange's own, fixed on 32-bit systems.
struct Message {
    std::uint32_t reserved0;
    char type[128]; ///< NUL-terminated name of the event or request; an answer's result, "0" for success
    char from[128]; ///< NUL-terminated name of the sender; of a request or message, its unique bus name
    std::uint32_t reserved1;
    std::uint64_t request_id; ///< passed to orvex_send_response() to answer this message; 0: wants no answer
    std::uint64_t reserved2;
    std::uint32_t datalen; ///< bytes of payload
    const char* data;      ///< the payload, not NUL-terminated
};

static_assert(sizeof(void*) != 4 || (offsetof(Message, type) == 4 && offsetof(Message, from) == 132 &&
                                     offsetof(Message, request_id) == 264 &&
                                     offsetof(Message, datalen) == 280 && offsetof(Message, data) == 284),
              "the record's layout is fixed on 32-bit systems");

/// Names of participants, events and requests: at most this many bytes.
constexpr std::size_t kOrvexMaxName = 127;
/// Payloads: at most this many bytes, which is what the broker's clients can be sent in one piece: 4 MiB less
/// the length that goes before it. More is refused where it is sent, with a line in the log.
constexpr std::size_t kOrvexMaxPayload = std::size_t{4} * 1024 * 1024 - 4;
/// Requests that may wait for the answers of one participant: at most this many.
constexpr std::size_t kOrvexMaxRequests = 4096;

/// Connects as participant `name`; `event_callback` is called for every event, request and message that
/// arrives. Waits at most 5 s in all. Null, with the reason in the log, when the exchange cannot be reached,
/// does not answer by then, or the name is taken. `flags` is 0; `auto_reconnect` is
/// 1 for a participant that comes back by itself, name and subscriptions included, after the exchange was
/// away.
[[nodiscard]] Orvex* orvex_init_eventloop(const char* name, void (*event_callback)(const Message*), int flags,
                                          int auto_reconnect);

/// The one descriptor to watch for input, or -1.
[[nodiscard]] int orvex_get_fd(Orvex* orvex);

/// Does what is to be done: reads, writes, times out, reconnects; calls the callbacks, for at most 16
/// messages and as many requests that have failed: the descriptor stays readable while there are more. -1
/// when called from a callback, and when the exchange is gone for good (without auto_reconnect).
[[nodiscard]] int orvex_read_fd(Orvex* orvex);

/// Replaces the events that this participant receives. -1 as well while the exchange is away, or when not all
/// of it could be asked for; the list is kept even so (one of more than 16 as long as there is memory for
/// it). What is missing, be it that the exchange has refused it, is asked for again by the next call and once
/// a second, and all of it when the exchange is back after it was away. A bad name changes nothing.
[[nodiscard]] int orvex_subscribe(Orvex* orvex, const char** names, int count);

/// Sends a request to "participant:request", or with a bare request name to "orvagent". After 0,
/// `response_callback(arg, answer)` is called exactly once, in the order of the answers: type "0" for
/// success, type "2" with the error's text when there is no answer (not deliverable, receiver gone, timed
/// out, exchange gone, orvex_uninit() excepted: it drops what is pending). After -1 it is never called.
/// -1 as well while kOrvexMaxRequests to the same participant wait for their answers, so that one that never
/// answers does not use up what the exchange keeps for all.
[[nodiscard]] int orvex_send_request(Orvex* orvex, const char* name, const char* data, std::size_t length,
                                     void (*response_callback)(void* arg, const Message* response),
                                     void* arg);

/// Sends a one-way message; success says that it was handed over, not that anyone received it.
[[nodiscard]] int orvex_send_message(Orvex* orvex, const char* name, const char* data, std::size_t length);

/// Answers the event or request whose identifier is `request_id`, once; after -1 it can be tried again, be it
/// with less. `status` is 0. The identifiers of the
/// last 1024 events and requests are known; a request that is older and has no answer is refused by itself.
[[nodiscard]] int orvex_send_response(Orvex* orvex, int status, std::uint64_t request_id, const char* data,
                                      std::size_t length);

/// Leaves the exchange and frees the handle; what was sent before is written out as far as that does not
/// block. Requests in flight are dropped: their callbacks are not called.
void orvex_uninit(Orvex* orvex);
