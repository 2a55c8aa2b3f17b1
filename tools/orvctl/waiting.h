#pragma once

#include "client/deadline.h"

namespace orvctl {

enum class Wake { input, output_closed, timed_out };

/// Waits for input on a descriptor. Ends, too, when nobody reads standard output any more, so that a pipe
/// into "head" is over with its last line and not with the next event.
[[nodiscard]] Wake wait_for_input(int fd, orvbroker::Deadline deadline);

} // namespace orvctl
