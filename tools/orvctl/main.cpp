#include "command_line.h"

#include <csignal>

int main(int argc, char** argv)
{
    // Writing to a pipe without a reader is an error like any other, and a quiet end: see Output.
    (void)std::signal(SIGPIPE, SIG_IGN);
    return orvctl::run_command_line(argc, argv);
}
