#pragma once

#include <orvdevmgmt/orvdevmgmt.h>

#include <string>

namespace orv::test {

/// A device with all texts set, without addresses.
inline devMgmt::Device make_device(const std::string& did, const std::string& owner = "router-1")
{
    devMgmt::Device device;
    device.did = did;
    device.owner = owner;
    device.display_name = "TV";
    device.friendly_name = "My TV";
    device.device_type = "tv";
    device.device_os = "Linux";
    device.device_os_version = "6.1";
    device.device_manufacturer = "Acme";
    device.last_va_scan_ts = "1699999999";
    return device;
}

} // namespace orv::test
