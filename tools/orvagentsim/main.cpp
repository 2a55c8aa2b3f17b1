#include "command_line.h"
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
