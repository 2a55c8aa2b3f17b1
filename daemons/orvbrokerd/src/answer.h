#pragma once

#include "connection.h"

#include <orvexchange/orvexchange.h>
#include <orvutils/json.h>

#include <utility>

// What a handler returns, and the answer that is made of it.

namespace orv::brokerd {

/// Error codes in the error object.
constexpr int kErrorSchema = 2;  ///< the data matches no schema of the command
constexpr int kErrorCommand = 3; ///< the command is not usable at all
constexpr char kInvalidCommand[] = "daemon received invalid command";

/// What a command handler or a response callback returns.
using Result = int;
constexpr Result kDone = 0;
constexpr Result kFailed = -1;
constexpr Result kPending = 1; ///< the answer comes later, from a response callback

/// The response envelope {"data": data, "status": status} as text; takes ownership of `data`. Null when it
/// cannot be built: without memory, for null data, and for a text whose length finds no room in 32 bits.
/// Freed by the caller with free().
[[nodiscard]] char* build_response(int status, json_t* data);

/// Queues the same envelope on a connection, as a frame, and takes ownership of `data`. However large it is,
/// it is nowhere in memory but in the send buffer. False, with nothing queued, when it cannot be built.
[[nodiscard]] bool queue_response(Connection* conn, int status, json_t* data, int epfd);

/// Puts `value` (a new reference) where a handler leaves what the client gets, dropping what was there.
inline void set_out(json_t*& out, JsonPtr value)
{
    json_decref(out);
    out = value.release();
}

/// The same, and what a handler returns then: done with what there is, failed without.
[[nodiscard]] inline Result respond(json_t*& out, JsonPtr value)
{
    if (!value)
        return kFailed;
    set_out(out, std::move(value));
    return kDone;
}

/// The payload of an answer or event of the exchange as JSON; null when it is none.
[[nodiscard]] JsonPtr parse_payload(const Message* msg);

/// A new error object {"code": code, "description": description}.
[[nodiscard]] json_t* build_error_response(int code, const char* description);

} // namespace orv::brokerd
