#pragma once

#include <optional>
#include <string>
#include <vector>

namespace orv::simulation {

/// What a client may ask, as far as it matters to what it receives.
enum class Asked {
    nothing,      ///< a command that nobody knows
    protection,   ///< whether the services are on
    protect,      ///< to switch them on
    expose,       ///< to switch them off
    devices,      ///< a list of devices by their names
    scanner,      ///< the scanner's state, which another daemon tells
    registration, ///< to be registered, of which an event tells
    done,         ///< something that is done without a word
    subscription, ///< to an event
    nameless,     ///< a subscription to nothing
    refused,      ///< something that is answered with a failure
    unusable,     ///< what is no request at all
    anything,     ///< any command with any data
};

struct Request {
    Asked kind = Asked::nothing;
    std::string line;                 ///< without its line feed
    std::string event;                ///< subscribed to
    std::vector<std::string> devices; ///< asked for
};

/// The request with these two numbers.
[[nodiscard]] Request make_request(unsigned what, unsigned amount);

/// The n-th of the devices that may be there.
constexpr unsigned kDevices = 6;
[[nodiscard]] std::string device_id(unsigned n);

/// The n-th event that a client may subscribe to; nobody sends the last one.
[[nodiscard]] std::string event_name(unsigned n);

} // namespace orv::simulation
