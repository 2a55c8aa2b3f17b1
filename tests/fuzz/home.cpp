#include "home.h"

#include "make_device.h"

#include <initializer_list>
#include <utility>

namespace orv::fuzz {
namespace {

using Settings = std::initializer_list<std::pair<const char*, const char*>>;

void set(fake::Fake& platform, const Settings& settings)
{
    for (const auto& [key, value] : settings)
        platform.settings[key] = value;
}

void add_device(fake::Fake& platform, const devMgmt::Device& device)
{
    platform.devices[device.did] = device;
}

void add_devices(fake::Fake& platform)
{
    auto television = test::make_device("d1");
    television.macs[sockutl::macaddr("02:00:00:00:00:01")] = {sockutl::address("192.168.1.20"),
                                                              sockutl::address("fe80::1")};
    television.macs[sockutl::macaddr("02:00:00:00:00:02")];
    add_device(platform, television);

    auto satellite = test::make_device("d2");
    satellite.device_type = "satellite";
    satellite.friendly_name.clear();
    satellite.traffic_blocked = 1;
    satellite.macs[sockutl::macaddr("02:00:00:00:00:03")] = {sockutl::address("192.168.1.30")};
    add_device(platform, satellite);

    auto nameless = test::make_device("d3");
    nameless.display_name = "\xff"; // no UTF-8
    nameless.device_os.clear();
    add_device(platform, nameless);

    auto router = test::make_device("router-1");
    router.macs[sockutl::macaddr("02:00:00:00:00:04")] = {sockutl::address("192.168.1.1")};
    add_device(platform, router);
    add_device(platform, test::make_device("d5", "router-2"));
}

} // namespace

void furnish(fake::Fake& platform, std::uint8_t home)
{
    add_devices(platform);
    set(platform, {{"/registration/device_id", "router-1"},
                   {"/registration/user_token", "token"},
                   {"/registration/tuvo_name", "Home"},
                   {"/registration/device_model", "Model 1"},
                   {"/registration/feature_set_level", "velm-pro"},
                   {"/registration/mac", "02:00:00:00:00:04"},
                   {"/network/interfaces/br0", "lan"},
                   {"/network/interfaces/eth0", "wan"},
                   {"/protection/enabled", "1"},
                   {"/va/cloud_trigger", "1"},
                   {"/va/blacklist/exclusions", "aa:bb:cc:dd:ee:ff,aa:bb:cc:dd:ee:0[1-3]"},
                   {"/va/blacklist/satellites", "02:00:00:00:00:09"},
                   {"/features/telemetry", "disabled"}});
    if ((home & kLeasesNg) != 0)
        set(platform, {{"/leases/mode", "orvleases-ng"}});
    if ((home & kUnregistered) != 0)
        platform.settings.erase("/registration/user_token");
    if ((home & kUnsubscribed) == 0)
        set(platform, {{"/tmp/subscription/global/status", "valid"},
                       {"/tmp/subscription/global/expiry", "1800000000"},
                       {"/tmp/subscription/last_update_ts", "1700000000"},
                       {"/tmp/subscription/last_error", "0"}});
    if ((home & kOddSettings) != 0)
        set(platform, {{"/protection/enabled", "?"},
                       {"/registration/tuvo_name", "\xff"},
                       {"/tmp/subscription/global/status", "odd"},
                       {"/tmp/subscription/global/expiry", "0"},
                       {"/tmp/subscription/last_error", "7"},
                       {"/tmp/daemons/orvleases-ng/requests/count", "100"},
                       {"/tmp/daemons/orvbrokerd/d1/friendly_name", "Given"},
                       {"/va/blacklist/exclusions", ""},
                       {"/va/blacklist/exclusions/max_size", "2"}});
    platform.outbox = {R"({"type": "tuvo_agent_status", "id": "1"})", R"({"type": "x"})"};
}

} // namespace orv::fuzz
