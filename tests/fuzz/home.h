#pragma once

#include "fake/fake.h"

#include <cstdint>
#include <string>

namespace orv::fuzz {

/// What a home is like, each a bit of one byte of the input.
enum Home : std::uint8_t {
    kLeasesNg = 1,     ///< else the leases daemon is the other one
    kUnregistered = 2, ///< the router has no token
    kUnsubscribed = 4, ///< nothing is known of the service subscription
    kOddSettings = 8,  ///< what others write is not always what it should be
};

/// Furnishes a fake platform: devices, satellites among them, settings, telemetry that waits.
void furnish(fake::Fake& platform, std::uint8_t home);

} // namespace orv::fuzz
