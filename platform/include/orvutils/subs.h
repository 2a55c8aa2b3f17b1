#pragma once

#include <orvutils/path.h>

#include <cstdint>
#include <map>
#include <string>
#include <string_view>

/// The router's service subscriptions, kept in the settings store under /tmp/subscription/NAME.
namespace orv::subs {

enum class Status : int {
    valid = 0,
    expired = 1,
    none = 2,
};

/// Status::none for an unknown text; "none" for an unknown value. Texts are NUL-terminated literals.
[[nodiscard]] Status status_from_str(std::string_view text);
[[nodiscard]] std::string_view status_to_str(Status status);

/// The keys of a subscription's status (a text) and expiry (seconds since 1970, decimal).
[[nodiscard]] path status_key(std::string_view name);
[[nodiscard]] path expiry_key(std::string_view name);

struct Subscription {
    Status status = Status::none;
    std::int64_t expiry = 0;
};

/// All subscriptions, as they stood at the last load().
class MultiSubscription {
public:
    /// Reads them from the settings store. False, with the old ones kept, when the store cannot be read or
    /// holds a subscription whose status or expiry is malformed.
    [[nodiscard]] bool load();

    /// The subscription of that name; {none, 0} when there is none.
    [[nodiscard]] Subscription get(std::string_view name) const;

private:
    std::map<std::string, Subscription, std::less<>> m_subscriptions;
};

} // namespace orv::subs
