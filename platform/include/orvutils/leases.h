#pragma once

#include <string_view>

namespace orv {

/// Which daemon gives out the network's leases.
enum class OrvleasesMode : int {
    orv = 0, ///< "orvleases-orv", the default
    ng = 1,  ///< "orvleases-ng"
};

/// The mode, from the settings key /leases/mode.
[[nodiscard]] OrvleasesMode get_orvleases_mode();

/// "orvleases-orv", "orvleases-ng", "(unknown)" for any other value.
[[nodiscard]] std::string_view orvleases_mode_to_str(OrvleasesMode mode);

} // namespace orv
