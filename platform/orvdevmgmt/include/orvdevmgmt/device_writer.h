#pragma once

#include <orvbase/error.h>
#include <orvdevmgmt/orvdevmgmt.h>
#include <orvstore/failure.h>
#include <orvstore/usage.h>

#include <jansson.h>

#include <cstddef>
#include <string>
#include <vector>

/// The writer's side of the device store, for the device-management daemon and tools. The store must be open
/// (init()). A change is on disk, and told to all readers, when the function has returned.
namespace orv::devMgmt {

constexpr std::size_t kMaxDeviceIdSize = 255;
constexpr std::size_t kMaxRecordSize = 8192; ///< of a whole device, as it is stored, without its history

/// As init(), but why it fails is not logged: for those who tell it themselves. What is repaired is.
[[nodiscard]] int try_to_init();

/// Why either has failed; Kind::none when the store itself could be opened.
[[nodiscard]] const store::Failure& failure();
/// How full the store is.
[[nodiscard]] Error measure(store::Usage& usage);

/// Stores a device, new or in place of the one with its id. 0, or below 0 with nothing changed: error 1 for
/// an impossible device (no id, texts that are not UTF-8, invalid addresses, with the member's name in the
/// log; too large). Storing what is there already changes nothing.
[[nodiscard]] int put_device(const Device& device);

/// What becomes of the devices that are not among those that are stored.
enum class Others { stay, go };

/// Stores many devices, and removes all others if they are to go, in one transaction: all or nothing, one wait for
/// the disk, and readers are told of what is different. 0, or below 0 with nothing changed; error 1 for an
/// impossible device, whose id is `refused` then.
[[nodiscard]] int put_devices(const std::vector<Device>& devices, Others others, std::string& refused);

/// Removes a device. 0, or below 0: error 4 when there is none with that id.
[[nodiscard]] int remove_device(const std::string& did);

/// Makes a device of its JSON form:
///
///     {"did": "d1", "owner": "r1", "macs": {"aa:bb:cc:00:00:01": ["192.168.1.20", "fe80::1"]},
///      "display_name": "TV", "friendly_name": "", "device_type": "tv", "device_os": "",
///      "device_os_version": "", "device_manufacturer": "", "last_va_scan_ts": "", "traffic_blocked": 0}
///
/// Only "did" must be there; without "owner" it is `default_owner`. False with an explanation that names the
/// offending member, and `device` untouched, when the JSON is not of that shape; without one when memory is
/// short.
[[nodiscard]] bool device_from_json(const json_t* json, const std::string& default_owner, Device& device,
                                    std::string& error);

/// The device as JSON, all members in that order, with U+FFFD for bytes that are not UTF-8; the caller
/// releases it. Null when memory is short.
[[nodiscard]] json_t* device_to_json(const Device& device);

} // namespace orv::devMgmt
