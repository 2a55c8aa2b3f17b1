// Random numbers come straight from std::mt19937, whose sequence is the same everywhere; the distributions of
// the standard library are not.

#include "home.h"

#include <orvutils/keys.h>
#include <orvutils/setmgmt.h>

#include <fmt/format.h>
#include <orvdevmgmt/device_writer.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <set>
#include <string_view>

namespace orvagentsim {
namespace {

using orv::devMgmt::Device;
using orv::sockutl::address;
using orv::sockutl::macaddr;

constexpr std::string_view kIdPrefix = "sim-";
constexpr char kRefused[] = "the device store refuses";

struct Kind {
    const char* name;
    const char* type;
    const char* manufacturer;
    const char* os;
    std::array<const char*, 2> os_versions; ///< before and after an update
};

// The first six are the home that the program makes when nobody asks for another number.
constexpr std::array<Kind, 10> kKinds{{
    {"Phone", "phone", "Nordlicht", "Android", {"13", "14"}},
    {"Living Room TV", "tv", "Panorama", "Linux", {"5.4", "5.10"}},
    {"Satellite", "satellite", "Orvane", "Linux", {"5.15", "6.1"}},
    {"Notebook", "computer", "Feldberg", "Debian", {"11", "12"}},
    {"Printer", "printer", "Tintenfisch", "", {"1.8.2", "1.9.0"}},
    {"Doorbell Camera", "camera", "Wachturm", "Linux", {"4.19", "4.19.3"}},
    {"Tablet", "tablet", "Nordlicht", "Android", {"12", "13"}},
    {"Game Console", "game_console", "Halbkreis", "FreeBSD", {"12.4", "13.2"}},
    {"Speaker", "speaker", "Klangwerk", "Linux", {"4.14", "5.4"}},
    {"Light Bulb", "iot", "Glimmer", "", {"2.0", "2.1"}},
}};

const Kind& kind_of(std::uint32_t number)
{
    return kKinds.at((number - 1) % kKinds.size());
}

std::string id_of(std::uint32_t number)
{
    return fmt::format("{}{}", kIdPrefix, number);
}

bool is_ours(const Device& device)
{
    return device.did.compare(0, kIdPrefix.size(), kIdPrefix) == 0;
}

std::string router_id()
{
    return orv::setMgmt::getKeyValue(orv::kDeviceIdKey, "");
}

/// A locally administered address that no other device has: the number is in it.
macaddr make_mac(std::uint32_t vendor, std::uint32_t number)
{
    return macaddr(fmt::format("02:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", vendor >> 8U & 0xffU, vendor & 0xffU,
                               number >> 16U & 0xffU, number >> 8U & 0xffU, number & 0xffU));
}

address link_local(const macaddr& mac)
{
    const auto& b = mac.bytes();
    return address(fmt::format("fe80::{:x}:{:x}ff:fe{:02x}:{:x}", (b[0] ^ 2U) << 8U | b[1], b[2], b[3],
                               static_cast<unsigned>(b[4]) << 8U | b[5]));
}

constexpr unsigned kHostsPerNet = 200;
constexpr unsigned kFirstHost = 20;
constexpr unsigned kNets = 100;

/// Each device has two IPv4 addresses of its own, used in turn, so that no two devices ever share one.
address make_v4(std::uint32_t number, bool is_second)
{
    const unsigned net = 1 + number / kHostsPerNet % kNets + (is_second ? kNets : 0);
    return address(fmt::format("192.168.{}.{}", net, kFirstHost + number % kHostsPerNet));
}

std::uint32_t number_of(const Device& device)
{
    return static_cast<std::uint32_t>(std::stoul(device.did.substr(kIdPrefix.size())));
}

// What can change about a device. Each makes its own undoing the next time.

void rename(Device& device)
{
    const std::string plain = kind_of(number_of(device)).name;
    device.display_name = device.display_name == plain ? plain + " (2)" : plain;
}

void update_os(Device& device)
{
    const auto& versions = kind_of(number_of(device)).os_versions;
    device.device_os_version = device.device_os_version == versions[0] ? versions[1] : versions[0];
}

void move_address(Device& device)
{
    if (device.macs.empty())
        return;
    const std::uint32_t number = number_of(device);
    auto& addresses = std::min_element(device.macs.begin(), device.macs.end(), [](auto& a, auto& b) {
                          return a.first < b.first;
                      })->second;
    const bool was_first = addresses.erase(make_v4(number, false)) != 0;
    addresses.erase(make_v4(number, true));
    addresses.insert(make_v4(number, was_first));
}

constexpr std::uint32_t kSecondInterface = 0xff00; ///< the vendor's part of every second MAC address

void toggle_second_interface(Device& device)
{
    const macaddr second = make_mac(kSecondInterface, number_of(device));
    if (device.macs.erase(second) == 0)
        device.macs[second] = {link_local(second)};
}

struct Alteration {
    const char* what;
    void (*make)(Device& device);
};

constexpr std::array<Alteration, 4> kAlterations{{
    {"is called otherwise", rename},
    {"updates its system", update_os},
    {"gets another address", move_address},
    {"switches its second interface", toggle_second_interface},
}};

} // namespace

std::uint32_t Home::random(std::size_t below)
{
    return static_cast<std::uint32_t>(m_random() % below);
}

Device Home::make_device(std::uint32_t number) const
{
    std::mt19937 own(m_seed + number * 2654435761U);
    const Kind& kind = kind_of(number);
    const macaddr mac = make_mac(static_cast<std::uint32_t>(own() % kSecondInterface), number);
    Device device;
    device.did = id_of(number);
    device.owner = router_id();
    device.macs[mac] = {make_v4(number, false), link_local(mac)};
    device.display_name = kind.name;
    device.device_type = kind.type;
    device.device_os = kind.os;
    device.device_os_version = kind.os_versions.at(own() % kind.os_versions.size());
    device.device_manufacturer = kind.manufacturer;
    return device;
}

bool Home::furnish(unsigned count)
{
    std::vector<Device> present;
    if (orv::devMgmt::get_devices(present) != 0)
        return false;
    for (std::uint32_t number = 1; number <= count; ++number) {
        if (orv::devMgmt::put_device(make_device(number)) != 0)
            return false;
        m_ids.push_back(id_of(number));
    }
    m_made = count;
    m_usual = count;
    return std::all_of(present.begin(), present.end(), [this](const Device& device) {
        const bool stays = !is_ours(device) || std::count(m_ids.begin(), m_ids.end(), device.did) != 0;
        return stays || orv::devMgmt::remove_device(device.did) == 0;
    });
}

bool Home::adopt()
{
    const std::string owner = router_id();
    std::vector<Device> devices;
    if (orv::devMgmt::get_devices(devices) != 0)
        return false;
    for (auto& device : devices) {
        if (!is_ours(device) || device.owner == owner)
            continue;
        device.owner = owner;
        if (orv::devMgmt::put_device(device) != 0)
            return false;
    }
    return true;
}

bool Home::pick(Device& device)
{
    while (!m_ids.empty()) {
        const auto chosen = m_ids.begin() + static_cast<std::ptrdiff_t>(random(m_ids.size()));
        if (orv::devMgmt::get_device(*chosen, device) != 0)
            return true;
        m_ids.erase(chosen); // somebody else has removed it
    }
    return false;
}

std::string Home::change()
{
    enum : std::uint32_t { comes, goes, ways };
    const std::uint32_t way = random(ways + 2); // changes are as frequent as comings and goings together
    Device device;
    if (!pick(device) || (way == comes && m_ids.size() < 2 * m_usual))
        return add();
    if (way == goes && m_ids.size() > m_usual / 2)
        return remove(device);
    return alter(device);
}

std::string Home::add()
{
    const Device device = make_device(++m_made);
    if (orv::devMgmt::put_device(device) != 0)
        return kRefused;
    m_ids.push_back(device.did);
    return fmt::format("{} ({}) comes", device.did, device.display_name);
}

std::string Home::remove(const Device& device)
{
    if (orv::devMgmt::remove_device(device.did) != 0)
        return kRefused;
    m_ids.erase(std::find(m_ids.begin(), m_ids.end(), device.did));
    return fmt::format("{} ({}) goes", device.did, device.display_name);
}

std::string Home::alter(Device& device)
{
    const Alteration& alteration = kAlterations.at(random(kAlterations.size()));
    alteration.make(device);
    if (orv::devMgmt::put_device(device) != 0)
        return kRefused;
    return fmt::format("{} ({}) {}", device.did, device.display_name, alteration.what);
}

std::optional<Sighting> Home::listen()
{
    Device device;
    if (!pick(device))
        return std::nullopt;
    for (const auto& [mac, addresses] : device.macs) {
        const auto ip = std::find_if(addresses.begin(), addresses.end(), [](auto& a) { return a.is_v4(); });
        if (ip == addresses.end())
            continue;
        return Sighting{ip->to_string(false), mac.to_string(false),
                        fmt::format("Mozilla/5.0 ({} {}; {})", device.device_os, device.device_os_version,
                                    device.device_manufacturer)};
    }
    return std::nullopt;
}

} // namespace orvagentsim
