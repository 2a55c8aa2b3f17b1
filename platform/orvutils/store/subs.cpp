// A child of /tmp/subscription is a subscription when it has a status or an expiry below it; others, such as
// "refresh", which tells of changes, are something else.

#include <orvutils/subs.h>

#include <orvutils/error.h>
#include <orvutils/setmgmt.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <utility>
#include <vector>

namespace orv::subs {

namespace {

const path kSubscriptionsPath{"/tmp/subscription"};
constexpr std::array<std::string_view, 3> kStatusTexts = {"valid", "expired", "none"};

/// The value of a key that may be absent. False when it cannot be read.
bool read_optional(const path& key, std::optional<std::string>& value)
{
    std::string text;
    const int result = setMgmt::getKey(key, text);
    if (result >= 0)
        value = std::move(text);
    return result >= 0 || result == -static_cast<int>(Error::no_such_key) ||
           result == -static_cast<int>(Error::no_value);
}

bool parse_status(std::string_view text, Status& status)
{
    status = status_from_str(text);
    return status_to_str(status) == text;
}

bool parse_expiry(std::string_view text, std::int64_t& expiry)
{
    const char* end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, expiry);
    return parsed.ec == std::errc() && parsed.ptr == end && expiry >= 0;
}

/// False when it cannot be read or is malformed; empty when the name is no subscription's.
bool read_subscription(const std::string& name, std::optional<Subscription>& subscription)
{
    std::optional<std::string> status;
    std::optional<std::string> expiry;
    if (!read_optional(status_key(name), status) || !read_optional(expiry_key(name), expiry))
        return false;
    if (!status && !expiry)
        return true;
    subscription.emplace();
    return (!status || parse_status(*status, subscription->status)) &&
           (!expiry || parse_expiry(*expiry, subscription->expiry));
}

} // namespace

Status status_from_str(std::string_view text)
{
    const auto found = std::find(kStatusTexts.begin(), kStatusTexts.end(), text);
    return found == kStatusTexts.end() ? Status::none : static_cast<Status>(found - kStatusTexts.begin());
}

std::string_view status_to_str(Status status)
{
    const auto index = static_cast<std::size_t>(status);
    return index < kStatusTexts.size() ? kStatusTexts.at(index) : kStatusTexts.back();
}

path status_key(std::string_view name)
{
    return kSubscriptionsPath / name / "status";
}

path expiry_key(std::string_view name)
{
    return kSubscriptionsPath / name / "expiry";
}

bool MultiSubscription::load()
{
    std::vector<std::string> names;
    if (setMgmt::enumSubkeys(kSubscriptionsPath, names) < 0)
        return false;
    decltype(m_subscriptions) subscriptions;
    for (const std::string& name : names) {
        std::optional<Subscription> subscription;
        if (!read_subscription(name, subscription))
            return false;
        if (subscription)
            subscriptions.emplace(name, *subscription);
    }
    m_subscriptions = std::move(subscriptions);
    return true;
}

Subscription MultiSubscription::get(std::string_view name) const
{
    const auto found = m_subscriptions.find(name);
    return found == m_subscriptions.end() ? Subscription{} : found->second;
}

} // namespace orv::subs
