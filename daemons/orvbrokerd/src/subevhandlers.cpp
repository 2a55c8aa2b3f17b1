// Changes of devices and of the service subscription, turned into events for clients: field changes at once,
// the list of changed devices collected until the next tick of the cached-events timer.
//
// What the device library's callbacks share with the timer stands under a mutex, since it is the library's
// business where it calls from. The event that is sent is made of what the cache holds under one lock, so
// that no change is told twice or lost between the two.

#include "subevhandlers.h"

#include "client_events.h"
#include "device_view.h"
#include "evhandler.h"
#include "formatters.h"
#include "state.h"
#include "within_memory.h"

#include <orvutils/log_format.h>
#include <orvutils/setmgmt.h>
#include <orvutils/subs.h>

namespace orv::brokerd {

const std::vector<std::string> g_dev_info_fields{
    "display_name",      "device_type", "device_manufacturer", "device_os",
    "device_os_version", "macs",        "traffic_blocked",     "friendly_name",
};

std::unordered_map<std::string, std::string> g_events_cache;
std::mutex g_events_cache_mutex;

namespace {

std::string field_value(const devMgmt::Device& dev, const std::string& field)
{
    if (field == "display_name")
        return dev.display_name;
    if (field == "device_type")
        return dev.device_type;
    if (field == "device_manufacturer")
        return dev.device_manufacturer;
    if (field == "device_os")
        return dev.device_os;
    if (field == "device_os_version")
        return dev.device_os_version;
    if (field == "friendly_name")
        return dev.friendly_name;
    if (field == "traffic_blocked")
        return fmt::format_int(dev.traffic_blocked).str();
    return {};
}

void attach_fields(json_t* event, const devMgmt::Device& dev, log::Caller caller)
{
    for (const auto& name : g_dev_info_fields) {
        if (name == "macs")
            continue;
        ORV_LOG_AS(caller, log::kDebug, "Attaching cached field {:s}", name);
        const std::string value = field_value(dev, name);
        if (!value.empty())
            json_object_set_new(event, name.c_str(), json_string(value.c_str()));
    }
}

// An event that cannot be built or serialised is left out: there is nobody to tell.

void send_field(const std::vector<Connection*>& conns, const devMgmt::Device& dev, const std::string& field)
{
    const std::string value = field_value(dev, field);
    for (const auto& entry : dev.macs) {
        const std::string mac = entry.first.to_string(/*upper_case=*/false);
        const JsonPtr event(json_pack("{s:s,s:s}", "mac", mac.c_str(), field.c_str(), value.c_str()));
        (void)send_json(conns, event.get());
    }
}

void send_macs(const std::vector<Connection*>& conns, const devMgmt::Device& dev, log::Caller caller)
{
    for (const auto& [mac, addresses] : dev.macs) {
        const std::string mac_text = mac.to_string(/*upper_case=*/false);
        const std::string ip = first_v4_text(addresses);
        const JsonPtr event(json_pack("{s:s,s:s}", "mac", mac_text.c_str(), "ip", ip.c_str()));
        attach_fields(event.get(), dev, caller);
        (void)send_json(conns, event.get());
    }
}

void delete_given_name(const std::string& did, log::Caller caller)
{
    const path key = given_name_key(did);
    ORV_LOG_AS(caller, log::kDebug, "Deleting key {}", key);
    if (setMgmt::deleteKey(key) < 0)
        ORV_LOG_AS(caller, log::kWarning, "failed to delete key {}", key);
}

void note_change(devMgmt::DevInfoChangeType type, const std::string& did)
{
    switch (type) {
    case devMgmt::DevInfoChangeType::added:
        g_events_cache[did] = "new";
        return;
    case devMgmt::DevInfoChangeType::removed:
        g_events_cache[did] = "removed";
        return;
    case devMgmt::DevInfoChangeType::updated:
        // A device that is new or gone in this period stays so.
        g_events_cache.emplace(did, "updated");
        return;
    }
}

void tell_change(devMgmt::DevInfoChangeType type, const devMgmt::Device& dev, const std::string& field,
                 log::Caller caller)
{
    if (type == devMgmt::DevInfoChangeType::added || type == devMgmt::DevInfoChangeType::removed)
        return;
    if (field == "friendly_name")
        return;

    const auto conns = find_connections(kDeviceDiscovery);
    if (field == "macs")
        send_macs(conns, dev, caller);
    else
        send_field(conns, dev, field);
}

} // namespace

// ---- devices

void on_device_info_change_old_cb(devMgmt::DevInfoChangeType type, const devMgmt::Device& dev,
                                  const std::string& field)
{
    const log::Caller caller = log::caller();
    (void)within_memory([&] { tell_change(type, dev, field, caller); }); // it has said so
}
void on_device_info_change_cb(devMgmt::DevInfoChangeType type, const devMgmt::Device& dev,
                              const std::string& field)
{
    const log::Caller caller = log::caller();
    (void)within_memory([&] { // it has said so
        const std::lock_guard<std::mutex> lock(g_events_cache_mutex);
        if (field == "friendly_name")
            delete_given_name(dev.did, caller);
        else
            note_change(type, dev.did);
    });
}

// ---- the list of changed devices

namespace {

bool is_cache_empty()
{
    const std::lock_guard<std::mutex> lock(g_events_cache_mutex);
    return g_events_cache.empty();
}

/// Called with the cache locked.
bool append_cached(json_t* events, log::Caller caller)
{
    for (const auto& [did, kind] : g_events_cache) {
        json_t* event = json_pack("{s:s,s:s}", "device_id", did.c_str(), "status", kind.c_str());
        if (json_array_append_new(events, event) != 0)
            return false;
        ORV_LOG_AS(caller, log::kTrace, "Attached device_id={:s} status={:s}", did, kind);
    }
    return true;
}

/// Empties the cache into the event's text; null, with the cache as it was, when there is nobody to send it
/// to or no memory.
TextPtr take_cached_events(json_t* events, std::vector<Connection*>& conns,
                           log::Caller caller = log::caller())
{
    const std::lock_guard<std::mutex> lock(g_events_cache_mutex);
    if (!append_cached(events, caller))
        return nullptr;
    conns = find_connections(kDevicesListUpdated);
    if (conns.empty()) {
        ORV_LOG_AS(caller, log::kDebug, "no connections for devices_list_updated event");
        return nullptr;
    }
    TextPtr text = dump(events);
    if (text)
        g_events_cache.clear();
    return text;
}

} // namespace

int process_cached_events(int epfd)
{
    if (is_cache_empty())
        return -1;
    // Made between the two locks: to make it takes no lock, and an idle tick makes nothing.
    const JsonPtr events(json_array());
    if (!events)
        return -1;

    std::vector<Connection*> conns;
    const TextPtr text = take_cached_events(events.get(), conns);
    if (!text)
        return -1;
    queue_frames(conns, text.get(), epfd);
    ORV_LOG(log::kInfo, "send json: {:s}", text.get());
    return 0;
}

// ---- the service subscription

JsonPtr g_last_reported;

namespace {

/// False, with a line in the log, when there is nothing to be told of.
bool load_subscription(subs::Subscription& global, log::Caller caller)
{
    subs::MultiSubscription subscriptions;
    if (!subscriptions.load()) {
        ORV_LOG_AS(caller, log::kError, "failed to load subscription data");
        return false;
    }
    global = subscriptions.get(kSubscriptionName);
    if (global.status > subs::Status::expired) {
        ORV_LOG_AS(caller, log::kWarning, "ignoring status: '{}'", subs::status_to_str(global.status));
        return false;
    }
    ORV_LOG_AS(caller, log::kInfo, "subscription status={} expiry={}", subs::status_to_str(global.status),
               global.expiry);
    return true;
}

JsonPtr subscription_event(const subs::Subscription& subscription)
{
    if (subscription.status == subs::Status::valid && subscription.expiry == 0)
        return JsonPtr(json_pack("{s:s}", "status", "valid"));
    return JsonPtr(json_pack("{s:s,s:I}", "status", subs::status_to_str(subscription.status).data(), "expiry",
                             static_cast<json_int_t>(subscription.expiry)));
}

bool is_reported(const json_t* event, log::Caller caller)
{
    if (!g_last_reported || json_equal(g_last_reported.get(), event) == 0)
        return false;
    const TextPtr text = dump(event);
    ORV_LOG_AS(caller, log::kInfo, "skipping already reported subscription: {}", text ? text.get() : "");
    return true;
}

int tell_subscription(int epfd, log::Caller caller)
{
    subs::Subscription global;
    if (!load_subscription(global, caller))
        return -1;
    JsonPtr event = subscription_event(global);
    if (!event)
        return -1;
    if (is_reported(event.get(), caller))
        return 0;
    g_last_reported = std::move(event);

    const TextPtr text = dump(g_last_reported.get());
    if (!text)
        return -1;
    ORV_LOG_AS(caller, log::kInfo, "subscription changed JSON: {}", text.get());
    queue_frames(find_connections(kSubscriptionChanged), text.get(), epfd);
    return 0;
}

} // namespace

int on_subscription_changed_cb(int epfd)
{
    ORV_LOG(log::kInfo, "processing subscription changed");
    const log::Caller caller = log::caller();
    int result = -1;
    return within_memory([&] { result = tell_subscription(epfd, caller); }) ? result : -1;
}

} // namespace orv::brokerd
