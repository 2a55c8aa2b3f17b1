#pragma once

#include <orvutils/sockutl.h>

#include <cstdint>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

/// The device store: what the agent knows about the devices in the home. Written by the device-management
/// daemon; this is the reader's side. Not thread-safe; results below 0 are failures, and orv::_get_orverrno()
/// tells the error.
namespace orv::devMgmt {

/// One device.
struct Device {
    std::string did;
    std::string owner; ///< device id of the router that owns it
    std::unordered_map<sockutl::macaddr, std::set<sockutl::address>> macs;
    std::string display_name;
    std::string friendly_name; ///< the name its user gave it
    std::string device_type;
    std::string device_os;
    std::string device_os_version;
    std::string device_manufacturer;
    std::string last_va_scan_ts;
    std::int32_t traffic_blocked = 0; ///< 0 or 1
};

enum class DevInfoChangeType : int {
    added = 0,
    updated = 1,
    removed = 2,
};

/// Tells of a change: one call with an empty field name for a new or removed device, one call per changed
/// field for an updated one. A removed device's record holds what was known last.
using DevInfoChangeCallback = void (*)(DevInfoChangeType type, const Device& device,
                                       const std::string& field);

/// Opens the store; changes are told from here on. 0 or -1.
[[nodiscard]] int init();
void uninit();

/// Registers a callback for new and removed devices and for changes of the listed fields. Callbacks run in
/// the order of their registration, on the caller's thread, from inside MonitoredKey::read_notifications(). 0
/// or -1.
[[nodiscard]] int set_on_dev_info_change(const std::vector<std::string>& fields,
                                         DevInfoChangeCallback callback);
/// Takes back one such registration, of the same fields. 0, or -1 when there is none.
[[nodiscard]] int unset_on_dev_info_change(const std::vector<std::string>& fields,
                                           DevInfoChangeCallback callback);

/// Not 0 when the device was found and filled in.
[[nodiscard]] int get_device(const std::string& id, Device& device);
/// Fills in all devices, in the order of their ids. 0 or -1.
[[nodiscard]] int get_devices(std::vector<Device>& devices);
/// 0 when there is a device with that MAC and its id was filled in, else -1.
[[nodiscard]] int get_device_id_by_mac(const sockutl::macaddr& mac, std::string& id);

} // namespace orv::devMgmt
