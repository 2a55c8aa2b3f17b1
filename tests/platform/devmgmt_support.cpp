// What the tests of the device store share.

#include "devmgmt_support.h"

using orv::devMgmt::Device;

Device make_device(const std::string& did)
{
    Device device;
    device.did = did;
    device.owner = "router";
    device.macs[orv::sockutl::macaddr("aa:bb:cc:00:00:01")] = {orv::sockutl::address("192.168.1.20"),
                                                               orv::sockutl::address("fe80::1")};
    device.macs[orv::sockutl::macaddr("aa:bb:cc:00:00:02")];
    device.display_name = "TV";
    device.friendly_name = "Big \"TV\"";
    device.device_type = "tv";
    device.device_os = "tvos";
    device.device_os_version = "1.2";
    device.device_manufacturer = "ACME";
    device.last_va_scan_ts = "1700000000";
    device.traffic_blocked = 1;
    return device;
}

std::string text_of(const Device& device)
{
    const orv::JsonPtr json(orv::devMgmt::device_to_json(device));
    const orv::TextPtr text(json_dumps(json.get(), 0));
    return text ? text.get() : "no JSON";
}

std::string stored(const std::string& did)
{
    Device device;
    return orv::devMgmt::get_device(did, device) != 0 ? text_of(device) : "none";
}
