#pragma once

#include "orvex.h"

#include <orvutils/json.h>

namespace orv::brokerd {

/// The answer to "start_cloud_registration": goes to the clients subscribed to "cloud_registration_status".
/// `arg` points to the daemon's epoll descriptor.
void orvex_cloud_registration_status_cb(void* arg, const Message* answer);

/// What a registration result says: `ok` is 1 for success; `json` is the text for clients, null when the
/// result is malformed.
struct RegistrationStatus {
    int ok = 0;
    TextPtr json;
};
[[nodiscard]] RegistrationStatus process_cloud_registration_status(const Message* msg);

/// Makes the client event of a user-agent sighting: 0 with the text (freed by the caller with free()) and its
/// length, -1 when there is nothing to forward.
[[nodiscard]] int process_guster_user_agent_event(const Message* msg, char** out_json, int* out_len);

/// Forgets all user agents that were seen: for tests, each of which begins with none.
void forget_user_agents();

// The callbacks of g_exchange_events.
int orvex_default_cb(const std::vector<Connection*>& conns, const Message* msg);
int orvex_va_status_changed_cb(const std::vector<Connection*>& conns, const Message* msg);
int orvex_guster_user_agent_cb(const std::vector<Connection*>& conns, const Message* msg);
int orvex_orvagent_started_cb(const std::vector<Connection*>& conns, const Message* msg);

} // namespace orv::brokerd
