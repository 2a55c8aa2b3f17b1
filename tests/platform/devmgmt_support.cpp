// What the tests of the device store share.

#include "devmgmt_support.h"

#include "make_device.h"

using orv::devMgmt::Device;

Device make_device(const std::string& did)
{
    Device device = orv::test::make_device(did, "router");
    device.macs[orv::sockutl::macaddr("aa:bb:cc:00:00:01")] = {orv::sockutl::address("192.168.1.20"),
                                                               orv::sockutl::address("fe80::1")};
    device.macs[orv::sockutl::macaddr("aa:bb:cc:00:00:02")];
    device.friendly_name = "Big \"TV\"";
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

std::vector<std::string> all_ids()
{
    std::vector<orv::devMgmt::Device> devices;
    EXPECT_EQ(orv::devMgmt::get_devices(devices), 0);
    std::vector<std::string> ids;
    ids.reserve(devices.size());
    for (const orv::devMgmt::Device& device : devices)
        ids.push_back(device.did);
    return ids;
}
