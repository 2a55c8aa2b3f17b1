#pragma once

#include <orvdevmgmt/orvdevmgmt.h>

#include <array>
#include <bitset>
#include <cstddef>
#include <string>
#include <string_view>

/// The fields of a device: the one place that knows them all.
namespace orv::devMgmt {

/// A field that is a text.
struct TextField {
    const char* name;
    std::string Device::*member;
};

/// All texts, in the order in which they are stored and shown.
inline constexpr std::array<TextField, 9> kTextFields = {{
    {"did", &Device::did},
    {"owner", &Device::owner},
    {"display_name", &Device::display_name},
    {"friendly_name", &Device::friendly_name},
    {"device_type", &Device::device_type},
    {"device_os", &Device::device_os},
    {"device_os_version", &Device::device_os_version},
    {"device_manufacturer", &Device::device_manufacturer},
    {"last_va_scan_ts", &Device::last_va_scan_ts},
}};

constexpr const char* kMacsField = "macs";
constexpr const char* kTrafficBlockedField = "traffic_blocked";

/// Fields have numbers, which are stored: the texts in their order, the MAC addresses, the blocked flag.
constexpr std::size_t kMacsNumber = kTextFields.size();
constexpr std::size_t kTrafficBlockedNumber = kMacsNumber + 1;
constexpr std::size_t kFieldCount = kTrafficBlockedNumber + 1;
using Fields = std::bitset<kFieldCount>;

[[nodiscard]] const char* field_name(std::size_t field);

/// The fields in which two records of a device differ.
[[nodiscard]] Fields changed_fields(const Device& before, const Device& after);

void copy_field(std::size_t field, const Device& from, Device& to);

/// Whether a text can stand in JSON, byte by byte as it is.
[[nodiscard]] bool is_utf8(std::string_view text);

/// The size of the UTF-8 sequence that a text begins with; 0 when it begins with none.
[[nodiscard]] std::size_t utf8_sequence_size(std::string_view text);

/// Whether an address can be a device's: IPv4 or IPv6.
[[nodiscard]] bool is_ip_address(sockutl::address address);

} // namespace orv::devMgmt
