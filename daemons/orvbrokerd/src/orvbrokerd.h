#pragma once

#include "evhandler.h"

#include <orvexchange/orvexchange.h>
#include <orvutils/path.h>

#include <unordered_map>

namespace orv::brokerd {

/// The router's service subscription: its data lives below the first key, the second is written whenever it
/// has changed.
inline const path kSubscriptionPath{"/tmp/subscription"};
inline const path kSubscriptionRefreshPath = kSubscriptionPath / "refresh";

// The state of the process. Used from the main thread only, hence without locks.

/// The daemon's one epoll instance; -1 while the loop does not run.
extern int epollfd;
/// The connection to the message exchange; null while there is none.
extern Orvex* orvex;
/// Every accepted client connection by its descriptor. The table owns them.
extern std::unordered_map<int, Connection*> g_connections;

/// The whole life of the daemon; returns the process's exit status.
int daemon_main(int argc, char** argv);

/// Start-up: acquires every resource in a fixed order, and gives back in reverse order what it has when a
/// step fails. True when the loop may start.
bool init();

/// The loop, until the daemon is asked to stop, and the shutdown after it. Returns 0.
int run();

/// Ends a connection: out of epoll, closed, out of every table that could name it, freed. The caller erases
/// its entry of g_connections.
void destroy_connection(Connection* connection);

/// Submits the telemetry events of the outbox again.
void retry_karma_events();

} // namespace orv::brokerd
