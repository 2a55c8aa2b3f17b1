// Through the library's own threshold and not its channels: it is what the library looks at first, before it
// makes a line.

#include "logging.h"

#include <orvutils/log.h>
#include <orvutils/log_control.h>

#include <cstdlib>

namespace orvctl {

bool is_log_wanted()
{
    return orv::log::parse_level(std::getenv("ORV_LOG_LEVEL")).has_value();
}

void log_failures_only()
{
    if (!is_log_wanted())
        orv::log::set_threshold(orv::log::kError);
}

} // namespace orvctl
