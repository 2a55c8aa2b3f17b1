#pragma once

/// Runs what the command line asks for; returns the exit status.
namespace orvctl {

[[nodiscard]] int run_command_line(int argc, char** argv);

} // namespace orvctl
