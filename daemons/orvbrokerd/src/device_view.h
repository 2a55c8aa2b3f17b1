#pragma once

#include <orvutils/path.h>
#include <orvutils/sockutl.h>

#include <set>
#include <string>

namespace orv::brokerd {

/// The daemon's own part of the settings store: keys that do not survive a reboot.
inline const path kDaemonTmpPath{"/tmp/daemons/orvbrokerd"};

/// Where the name is kept that was last given to a device through this daemon.
[[nodiscard]] path given_name_key(const std::string& did);

/// What clients are told as the IP address of a MAC: its first IPv4 address; empty when it has none.
[[nodiscard]] std::string first_v4_text(const std::set<sockutl::address>& addresses);

} // namespace orv::brokerd
