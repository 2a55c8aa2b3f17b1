// Standard streams that were closed are opened first: else a store or the bus would get their numbers, and
// what is narrated would go into it.

#include "command_line.h"
#include "exit_status.h"
#include "simulation.h"

#include <orvutils/standard_streams.h>

int main(int argc, char** argv)
{
    if (!orv::open_standard_streams())
        return orvagentsim::kUnavailable;
    orvagentsim::Options options;
    if (const auto status = orvagentsim::parse_command_line(argc, argv, options))
        return *status;
    orvagentsim::Simulation simulation(options);
    return simulation.run();
}
