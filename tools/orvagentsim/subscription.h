#pragma once

#include <orvutils/subs.h>

#include <cstdint>
#include <string>

/// The subscription "global" in the settings store, with the outcome of its last refresh beside it in
/// /tmp/subscription: "last_update_ts" (seconds since 1970) and "last_error" ("0", or a text). Both functions
/// give false when the store refuses.
namespace orvagentsim {

/// Also touches /tmp/subscription/refresh, the key that others watch.
[[nodiscard]] bool store_subscription(const orv::subs::Subscription& subscription, std::int64_t now);

/// The subscription stays as it is.
[[nodiscard]] bool store_subscription_failure(const std::string& error, std::int64_t now);

} // namespace orvagentsim
