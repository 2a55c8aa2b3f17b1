// The agent's status, told as telemetry.

#include "agent_status.h"

#include "state.h"

#include <orvkarma/orvkarma.h>

namespace orv::brokerd {
namespace {

const char* agent_status_text(AgentStatus status)
{
    switch (status) {
    case AgentStatus::deployed:
        return "deployed";
    case AgentStatus::registered:
        return "registered";
    case AgentStatus::activated:
        return "activated";
    case AgentStatus::deactivated:
        return "deactivated";
    }
    return "(unknown)";
}

} // namespace

void report_agent_status(AgentStatus status, TextPtr /*extra*/)
{
    const JsonPtr state(json_pack("{s:s}", "agent_state", agent_status_text(status)));
    if (!state)
        return;
    const JsonPtr event(karma::build_karma_event_json("tuvo_agent_status", state.get()));
    if (!event)
        return;
    (void)karma::submit_karma_event(event.get(), orvex); // what is not sent now stays in the outbox
}

} // namespace orv::brokerd
