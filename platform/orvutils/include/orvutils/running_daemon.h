#pragma once

namespace orv::daemon {

/// Whether this process is a daemon, whose hooks the framework has begun to call. What it does for the good
/// of the stores by the way, as renewing their copies, is not for a tool that somebody runs.
[[nodiscard]] bool is_running();

/// Called by the framework.
void set_running();

} // namespace orv::daemon
