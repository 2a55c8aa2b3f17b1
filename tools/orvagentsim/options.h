#pragma once

#include <chrono>
#include <cstdint>
#include <set>
#include <string>

namespace orvagentsim {

/// What the command line asks for.
struct Options {
    unsigned devices = 6;
    std::chrono::milliseconds churn{10000}; ///< time between two changes among the devices; 0: none ever
    std::chrono::milliseconds delay{300};   ///< how long a registration, and each step of a scan, takes
    std::uint32_t seed = 1;
    std::set<std::string, std::less<>> failing; ///< names of the requests to be answered with an error
};

} // namespace orvagentsim
