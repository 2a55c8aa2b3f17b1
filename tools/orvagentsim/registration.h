#pragma once

#include <jansson.h>

#include <optional>
#include <string>

namespace orvagentsim {

/// What the cloud gives a router that registers.
struct Registration {
    std::string device_id;
    std::string user_token;
    std::string mac; ///< empty: that of the router as it is
};

/// Reads a registration request; without one, `failure` says why.
[[nodiscard]] std::optional<Registration> read_registration(const json_t* data, std::string& failure);

/// Stores the registration keys. The router's name, model and feature-set level are kept when they are there
/// already. False when the store refuses.
[[nodiscard]] bool store_registration(const Registration& registration);

} // namespace orvagentsim
