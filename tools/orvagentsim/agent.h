#pragma once

#include "requests.h"

/// What "orvagent" does: registration with the cloud, telemetry, the subscription.
namespace orvagentsim {

/// Publishes "orvagent_started". Whoever subscribes to it acknowledges it.
void announce_start(Simulation& simulation);

/// {"router_id": ...} or {"token": ..., "mac": ..., "redeem": ...}: registers the router after the usual
/// delay. When the registration keys are stored, {"result": "ok"} is the answer and is published as
/// "registration_status_changed"; a failure is {"result": "error", "reason": ...} in both.
std::optional<Reply> start_cloud_registration(Simulation& simulation, const Call& call);
std::optional<Reply> fail_cloud_registration(Simulation& simulation, const Call& call);

/// Any JSON object: counted.
std::optional<Reply> telemetry_event(Simulation& simulation, const Call& call);

/// Whatever the payload: renews the subscription "global" for a year. When it is made to fail, it leaves the
/// subscription as it is and the error beside it.
std::optional<Reply> update_subscription(Simulation& simulation, const Call& call);
std::optional<Reply> fail_subscription_update(Simulation& simulation, const Call& call);

} // namespace orvagentsim
