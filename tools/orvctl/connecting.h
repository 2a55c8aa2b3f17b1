#pragma once

#include <orvbroker/client.h>

#include <chrono>

namespace orvctl {

/// Connects to the daemon. The first time that it is another user than root or this process's own who serves
/// it, that is told on standard error.
[[nodiscard]] orvbroker::Error connect(orvbroker::Client& client, std::chrono::milliseconds timeout);

} // namespace orvctl
