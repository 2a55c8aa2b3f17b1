#pragma once

#include <orvexchange/orvexchange.h>

#include <jansson.h>

#include <vector>

/// Telemetry. An event is first kept in the outbox and then sent to the agent; it leaves the outbox soon after
/// the agent has confirmed it, from inside MonitoredKey::read_notifications(), together with others. Nothing is
/// lost over a crash, a missing agent or a missing exchange; an event may arrive twice, with the same identifier.
/// Not thread-safe.
namespace orv::karma {

/// Opens the outbox. 0, also when that fails: it is then tried again with each event, once a second at most,
/// and meanwhile events are sent without being kept, of which one line is logged. -1 when memory is short.
[[nodiscard]] int init();
void uninit();

/// Loads the events that are still in the outbox, the 1000 that it can hold at most, oldest first; the caller
/// releases each. None while there is no outbox. 0 or -1.
[[nodiscard]] int read_events(std::vector<json_t*>& events);

/// A new event with a unique identifier: {"id": ..., "type": type, "timestamp": seconds, "data": data}.
/// Takes a reference of its own on `data`. Null on failure.
[[nodiscard]] json_t* build_karma_event_json(const char* type, json_t* data);

/// Keeps the event in the outbox, unless it is already there, and sends it over the exchange. Does not take
/// ownership. 0 when it is kept and sent, -1 otherwise; a kept event can be submitted again later.
[[nodiscard]] int submit_karma_event(json_t* event, Orvex* orvex);

} // namespace orv::karma
