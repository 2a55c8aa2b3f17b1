#pragma once

#include "options.h"

namespace orvctl {

/// Prints how the agent is: one screen for people, else one JSON object. Asks the daemon, and looks into the
/// stores for what the daemon cannot tell. kUnavailable unless daemon, bus and stores are all there.
[[nodiscard]] int run_status(const Options& options, Output& output);

} // namespace orvctl
