#pragma once

#include "output.h"

/// The sub-commands on the outbox: the telemetry events that the agent has not confirmed yet. The daemon need
/// not run. Each returns the exit status.
namespace orvctl {

/// Prints the events, the oldest first.
[[nodiscard]] int run_telemetry_list(Output& output);
/// Removes them all.
[[nodiscard]] int run_telemetry_clear();

} // namespace orvctl
