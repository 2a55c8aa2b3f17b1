// What the stores say. A key that is absent has a meaning, its default; a store that cannot be read has none,
// and the record is null.

#include "records.h"

#include <orvdevmgmt/orvdevmgmt.h>
#include <orvutils/error.h>
#include <orvutils/keys.h>
#include <orvutils/setmgmt.h>
#include <orvutils/subs.h>
#include <orvutils/version.h>

#include <algorithm>

namespace orv::diagnosis {
namespace {

constexpr char kUnknownVersion[] = "2.0.0.0";
constexpr char kSubscription[] = "global";
constexpr char kScheduleKey[] = "/va/schedule";

json_t* version()
{
    return json_string(agent_version().c_str());
}

json_t* registered()
{
    const auto token = read_setting(kUserTokenKey);
    const auto id = read_setting(kDeviceIdKey);
    return token && id ? json_boolean(!token->empty() && !id->empty()) : nullptr;
}

json_t* subscription()
{
    subs::MultiSubscription subscriptions;
    if (!subscriptions.load())
        return nullptr;
    const std::string status(subs::status_to_str(subscriptions.get(kSubscription).status));
    return json_string(status.c_str());
}

json_t* enabled()
{
    auto value = read_setting(kProtectionEnabledKey);
    if (value && value->empty())
        value = std::to_string(kProtectionEnabledDefault);
    return value && (*value == "0" || *value == "1") ? json_boolean(*value == "1") : nullptr;
}

/// The schedule is an object with the Boolean members "scheduled" and "enabled", either of which may be
/// absent: scans are scheduled when one of them says so and none denies it.
json_t* scheduled()
{
    const auto text = read_setting(kScheduleKey);
    if (!text)
        return nullptr;
    if (text->empty())
        return json_false();
    const JsonPtr schedule = orv::parse_json(*text);
    if (!json_is_object(schedule.get()))
        return nullptr;
    const json_t* members[] = {json_object_get(schedule.get(), "scheduled"),
                               json_object_get(schedule.get(), "enabled")};
    const auto says = [](const json_t* member) { return json_is_true(member); };
    const auto denies = [](const json_t* member) { return json_is_false(member); };
    return json_boolean(std::any_of(std::begin(members), std::end(members), says) &&
                        std::none_of(std::begin(members), std::end(members), denies));
}

json_t* device_count()
{
    std::vector<devMgmt::Device> devices;
    if (devMgmt::get_devices(devices) != 0)
        return nullptr;
    return json_integer(static_cast<json_int_t>(devices.size()));
}

json_t* blocked_device_count()
{
    std::vector<devMgmt::Device> devices;
    if (devMgmt::get_devices(devices) != 0)
        return nullptr;
    return json_integer(std::count_if(devices.begin(), devices.end(),
                                      [](const auto& device) { return device.traffic_blocked != 0; }));
}

} // namespace

std::string agent_version()
{
    return get_release_version().value_or(kUnknownVersion);
}

std::optional<std::string> read_setting(const path& key)
{
    std::string value;
    const int result = setMgmt::getKey(key, value);
    const bool is_absent =
        result == -static_cast<int>(Error::no_such_key) || result == -static_cast<int>(Error::no_value);
    return result >= 0 || is_absent ? std::optional(value) : std::nullopt;
}

std::vector<Record> agent_records()
{
    return {
        {{"agent", "version"}, version},
        {{"agent", "registered"}, registered},
        {{"agent", "subscription"}, subscription},
        {{"agent", "enabled"}, enabled},
        {{"va", "scheduled"}, scheduled},
        {{"devices", "count"}, device_count},
        {{"devices", "blocked"}, blocked_device_count},
    };
}

} // namespace orv::diagnosis
