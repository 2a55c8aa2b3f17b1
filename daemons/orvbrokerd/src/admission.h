#pragma once

#include <orvutils/log_format.h>

namespace orv::brokerd {

/// Whether the process at the other end of an accepted socket may be a client, as the settings say; if not, with a line
/// in the log, at most one a second per user. The settings are read each time, so a change counts from the next
/// client on; while they cannot be read, what they said before does, and before that only root and the daemon's
/// own user are admitted.
[[nodiscard]] bool admit(int fd, log::Caller caller);

} // namespace orv::brokerd
