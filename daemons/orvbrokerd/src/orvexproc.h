#pragma once

#include "orvex.h"

namespace orv::brokerd {

/// The entry point of everything that arrives over the exchange and is no answer.
void orvex_callback(const Message* msg);

/// A change of the router's registration: reported as the agent's status.
void orvex_process_registration_status_changed(const Message* msg);

/// The answer to "start_cloud_registration": goes to the clients subscribed to "cloud_registration_status".
/// `arg` points to the daemon's epoll descriptor.
void orvex_cloud_registration_status_cb(void* arg, const Message* response);

/// What a registration result says: `ok` is 1 for success; `json` is the text for clients, null when the
/// result is malformed.
struct RegistrationStatus {
    int ok;
    TextPtr json;
};
[[nodiscard]] RegistrationStatus process_cloud_registration_status(const Message* msg);

/// Makes the client event of a user-agent sighting: 0 with the text (freed by the caller with free()) and its
/// length, -1 when there is nothing to forward.
[[nodiscard]] int process_guster_user_agent_event(const Message* msg, char** out_json, int* out_len);

// The callbacks of g_exchange_events.
int orvex_default_cb(const std::vector<Connection*>& connections, const Message* msg);
int orvex_va_status_changed_cb(const std::vector<Connection*>& connections, const Message* msg);
int orvex_guster_user_agent_cb(const std::vector<Connection*>& connections, const Message* msg);
int orvex_orvagent_started_cb(const std::vector<Connection*>& connections, const Message* msg);

} // namespace orv::brokerd
