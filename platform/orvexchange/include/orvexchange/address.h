#pragma once

#include <optional>
#include <string>

/// The exchange's D-Bus address: what the environment variable ORVEX_ADDRESS says, else the socket
/// run/exchange.skt below the agent's root.
[[nodiscard]] std::string orvex_address();

/// The path of the Unix-domain socket that a D-Bus address names, the first one of a list; nothing when it is
/// no address, or one of another kind.
[[nodiscard]] std::optional<std::string> orvex_socket_path(const std::string& address);
