#include "command_line.h"
#include "simulation.h"

int main(int argc, char** argv)
{
    orvagentsim::Options options;
    if (const auto status = orvagentsim::parse_command_line(argc, argv, options))
        return *status;
    orvagentsim::Simulation simulation(options);
    return simulation.run();
}
