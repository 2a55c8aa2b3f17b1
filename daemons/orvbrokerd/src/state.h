#pragma once

#include "connection.h"

#include <orvexchange/orvexchange.h>
#include <orvutils/path.h>

#include <unordered_map>

namespace orv::brokerd {

/// The router's service subscription: its data lives below the first key, the second is written whenever it
/// has changed.
inline const path kSubscriptionPath{"/tmp/subscription"};
inline const path kSubscriptionRefreshPath = kSubscriptionPath / "refresh";
/// Of all that it may hold, the one that is told of.
constexpr char kSubscriptionName[] = "global";

// The state of the process. Used from the main thread only, hence without locks.

/// The daemon's one epoll instance; -1 while the loop does not run.
extern int epollfd;
/// The connection to the message exchange; null while there is none.
extern Orvex* orvex;
/// Every accepted client connection by its descriptor. The table owns them.
extern std::unordered_map<int, Connection*> g_connections;

} // namespace orv::brokerd
