#pragma once

#include <orvbroker/deadline.h>

namespace orvctl {

enum class Wake { input, output_closed, timed_out };

/// Whether there is a point in waiting once nobody reads standard output any more.
enum class Reader { needed, not_needed };

/// Waits for input on a descriptor. Ends, too, when a reader of standard output is needed and has gone, so
/// that a pipe into "head" is over with its last line and not with the next event.
[[nodiscard]] Wake wait_for_input(int fd, orvbroker::Deadline deadline, Reader reader = Reader::needed);

} // namespace orvctl
