#pragma once

#include <orvutils/json.h>

#include <string>

namespace orv::karma {

/// A new identifier, higher than every one made by this process before and than `last`. Empty when the system
/// has no random numbers.
[[nodiscard]] std::string make_event_id(const std::string& last);

/// The event's identifier; null when it is no event.
[[nodiscard]] const char* event_id(const json_t* event);

/// The event as JSON text in one line; empty on failure.
[[nodiscard]] std::string event_text(const json_t* event);

/// The event that a text holds, null when it holds none or memory is short. Its memory is that of `beside`,
/// an event that was parsed before, unless there is none.
[[nodiscard]] JsonPtr parse_event(const std::string& text, const json_t* beside, bool& lacks_memory);

} // namespace orv::karma
