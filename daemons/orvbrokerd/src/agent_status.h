#pragma once

#include <orvutils/json.h>

namespace orv::brokerd {

enum class AgentStatus : int {
    deployed = 0,
    registered = 1,
    activated = 2,
    deactivated = 3,
};

/// Submits the telemetry event "tuvo_agent_status". `extra` is accepted and not used.
void report_agent_status(AgentStatus status, TextPtr extra);

} // namespace orv::brokerd
