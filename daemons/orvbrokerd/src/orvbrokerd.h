#pragma once

#include "state.h"

namespace orv::brokerd {

/// The whole life of the daemon; returns the process's exit status.
int daemon_main(int argc, char** argv);

/// Start-up: acquires every resource in a fixed order, and gives back in reverse order what it has when a
/// step fails. True when the loop may start.
bool init();

/// The loop, until the daemon is asked to stop, and the shutdown after it. Returns 0.
int run();

/// Ends a connection: out of epoll, closed, out of every table that could name it, freed. The caller erases
/// its entry of g_connections.
void destroy_connection(Connection* conn);

/// Submits the telemetry events of the outbox again.
void retry_karma_events();

} // namespace orv::brokerd
