#pragma once

#include <orvdevmgmt/orvdevmgmt.h>
#include <orvutils/json.h>

#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

// Changes of devices and of the service subscription, as events for clients.

namespace orv::brokerd {

/// The device fields whose changes are of interest.
extern const std::vector<std::string> g_dev_info_fields;

/// Devices that have changed since the last "devices_list_updated": "new", "updated" or "removed" by device
/// identifier. Guarded by the mutex, since it is the device library that calls the change callbacks.
extern std::unordered_map<std::string, std::string> g_events_cache;
extern std::mutex g_events_cache_mutex;

/// Notes the change for the next "devices_list_updated". A changed friendly name only drops the name that was
/// given through this daemon.
void on_device_info_change_cb(devMgmt::DevInfoChangeType type, const devMgmt::Device& dev,
                              const std::string& field);

/// Tells the "device_discovery" subscribers of a changed field, one event per MAC address of the device.
void on_device_info_change_old_cb(devMgmt::DevInfoChangeType type, const devMgmt::Device& dev,
                                  const std::string& field);

/// Tells the "subscription_changed" subscribers, unless it is what they were told last. 0 when told or
/// skipped, -1 on failure.
[[nodiscard]] int on_subscription_changed_cb(int epfd);

/// The event that "subscription_changed" subscribers were told last; null before the first time.
extern JsonPtr g_last_reported;

/// Sends what g_events_cache holds to the "devices_list_updated" subscribers. 0 when sent; -1 when there is
/// nothing to send or nobody to send it to, which keeps the changes for the next time.
[[nodiscard]] int process_cached_events(int epfd);

} // namespace orv::brokerd
