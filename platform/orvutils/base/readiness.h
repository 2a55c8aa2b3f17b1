#pragma once

namespace orv {

/// Tells the service manager, if there is one that has asked for it (NOTIFY_SOCKET), that the daemon is up. Whoever the
/// daemon starts later has nothing to tell it. Waits a second at most; a failure is logged and survived.
void tell_readiness();

} // namespace orv
