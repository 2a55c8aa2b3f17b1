// Standard streams that were closed are opened first: else a store or a socket would get their numbers, and
// the answer would be written into it.

#include "command_line.h"
#include "exit_status.h"
#include "logging.h"

#include <orvutils/standard_streams.h>

#include <csignal>

int main(int argc, char** argv)
{
    if (!orv::open_standard_streams())
        return orvctl::kUnavailable;
    orvctl::log_failures_only();
    // Writing to a pipe without a reader is an error like any other, and a quiet end: see Output.
    (void)std::signal(SIGPIPE, SIG_IGN);
    return orvctl::run_command_line(argc, argv);
}
