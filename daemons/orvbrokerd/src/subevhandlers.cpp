// Changes of devices and of the service subscription, turned into events for clients: field changes at once,
// the list of changed devices collected until the next tick of the cached-events timer.

#include "subevhandlers.h"

#include "device_view.h"
#include "evhandler.h"
#include "formatters.h"

#include <orvutils/log_format.h>
#include <orvutils/setmgmt.h>
#include <orvutils/subs.h>

#include <algorithm>
#include <cstring>
#include <set>

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

void attach_fields(json_t* event, const devMgmt::Device& dev)
{
    for (const auto& name : g_dev_info_fields) {
        if (name == "macs")
            continue;
        ORV_LOG(log::kDebug, "Attaching cached field {:s}", name);
        const std::string value = field_value(dev, name);
        if (!value.empty())
            json_object_set_new(event, name.c_str(), json_string(value.c_str()));
    }
}

void send_field(const std::vector<Connection*>& conns, const devMgmt::Device& dev, const std::string& field)
{
    const std::string value = field_value(dev, field);
    for (const auto& entry : dev.macs) {
        const std::string mac = entry.first.to_string(false);
        const JsonPtr event(json_pack("{s:s,s:s}", "mac", mac.c_str(), field.c_str(), value.c_str()));
        send_json(conns, event.get());
    }
}

void send_macs(const std::vector<Connection*>& conns, const devMgmt::Device& dev)
{
    for (const auto& [mac, addresses] : dev.macs) {
        const std::string mac_text = mac.to_string(false);
        const std::string ip = first_v4_text(addresses);
        const JsonPtr event(json_pack("{s:s,s:s}", "mac", mac_text.c_str(), "ip", ip.c_str()));
        attach_fields(event.get(), dev);
        send_json(conns, event.get());
    }
}

void delete_given_name(const std::string& did)
{
    const path key = kDaemonTmpPath / did / "friendly_name";
    ORV_LOG(log::kDebug, "Deleting key {}", key);
    if (setMgmt::deleteKey(key) < 0)
        ORV_LOG(log::kWarning, "failed to delete key {}", key);
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

} // namespace

// ---- devices

void on_device_info_change_old_cb(devMgmt::DevInfoChangeType type, const devMgmt::Device& dev,
                                  const std::string& field)
{
    if (type == devMgmt::DevInfoChangeType::added || type == devMgmt::DevInfoChangeType::removed)
        return;
    if (field == "friendly_name")
        return;

    const auto conns = find_connections("device_discovery");
    if (field == "macs")
        send_macs(conns, dev);
    else
        send_field(conns, dev, field);
}

void on_device_info_change_cb(devMgmt::DevInfoChangeType type, const devMgmt::Device& dev,
                              const std::string& field)
{
    const std::lock_guard<std::mutex> lock(g_events_cache_mutex);
    if (field == "friendly_name")
        delete_given_name(dev.did);
    else
        note_change(type, dev.did);
}

int process_cached_events(int epfd)
{
    {
        const std::lock_guard<std::mutex> lock(g_events_cache_mutex);
        if (g_events_cache.empty())
            return -1;
    }
    const JsonPtr events(json_array());
    if (!events)
        return -1;

    std::unique_lock<std::mutex> lock(g_events_cache_mutex);
    for (const auto& [did, kind] : g_events_cache) {
        json_t* event = json_pack("{s:s,s:s}", "device_id", did.c_str(), "status", kind.c_str());
        if (json_array_append_new(events.get(), event) != 0)
            return -1;
        ORV_LOG(log::kTrace, "Attached device_id={:s} status={:s}", did, kind);
    }
    const auto conns = find_connections("devices_list_updated");
    if (conns.empty()) {
        ORV_LOG(log::kDebug, "no connections for devices_list_updated event");
        return -1;
    }
    const TextPtr text(json_dumps(events.get(), 0));
    if (!text)
        return -1;
    g_events_cache.clear();
    lock.unlock();

    const auto len = static_cast<std::uint32_t>(std::strlen(text.get()));
    for (Connection* conn : conns)
        queue_frame(conn, text.get(), len, epfd);
    ORV_LOG(log::kInfo, "send json: {:s}", text.get());
    return 0;
}

// ---- the service subscription

namespace {

JsonPtr subscription_event(const subs::Subscription& subscription)
{
    if (subscription.status == subs::Status::valid && subscription.expiry == 0)
        return JsonPtr(json_pack("{s:s}", "status", "valid"));
    return JsonPtr(json_pack("{s:s,s:I}", "status", subs::status_to_str(subscription.status).data(), "expiry",
                             static_cast<json_int_t>(subscription.expiry)));
}

} // namespace

int on_subscription_changed_cb(int epfd)
{
    static JsonPtr last_reported;

    ORV_LOG(log::kInfo, "processing subscription changed");
    subs::MultiSubscription subscriptions;
    if (!subscriptions.load()) {
        ORV_LOG(log::kError, "failed to load subscription data");
        return -1;
    }
    const subs::Subscription global = subscriptions.get("global");
    if (global.status > subs::Status::expired) {
        ORV_LOG(log::kWarning, "ignoring status: '{}'", subs::status_to_str(global.status));
        return -1;
    }
    ORV_LOG(log::kInfo, "subscription status={} expiry={}", subs::status_to_str(global.status),
            global.expiry);

    JsonPtr event = subscription_event(global);
    if (!event)
        return -1;
    if (last_reported && json_equal(last_reported.get(), event.get()) != 0) {
        const TextPtr text(json_dumps(event.get(), 0));
        ORV_LOG(log::kInfo, "skipping already reported subscription: {}", text ? text.get() : "");
        return 0;
    }
    last_reported = std::move(event);

    const TextPtr text(json_dumps(last_reported.get(), 0));
    if (!text)
        return -1;
    ORV_LOG(log::kInfo, "subscription changed JSON: {}", text.get());
    const auto len = static_cast<std::uint32_t>(std::strlen(text.get()));
    for (Connection* conn : find_connections("subscription_changed"))
        queue_frame(conn, text.get(), len, epfd);
    return 0;
}

} // namespace orv::brokerd
