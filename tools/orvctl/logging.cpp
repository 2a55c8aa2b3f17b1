// Through the library's own threshold and not its channels: it is what the library looks at first, before it
// makes a line.

#include "logging.h"

#include <orvutils/log.h>
#include <orvutils/log_control.h>

#include <cstdlib>

namespace orvctl {
namespace {

constexpr int kNothing = orv::log::kError - 1;

void log_up_to(int level)
{
    if (!orv::log::parse_level(std::getenv("ORV_LOG_LEVEL")))
        orv::log::set_threshold(level);
}

} // namespace

void log_failures_only()
{
    log_up_to(orv::log::kError);
}

LogSilence::LogSilence()
{
    log_up_to(kNothing);
}

LogSilence::~LogSilence()
{
    log_failures_only();
}

} // namespace orvctl
