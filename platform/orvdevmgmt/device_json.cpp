// The JSON form of a device, both ways.

#include "device_fields.h"

#include <orvbase/without_throwing.h>
#include <orvdevmgmt/device_writer.h>
#include <orvutils/json.h>

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <string_view>
#include <utility>

namespace orv::devMgmt {

namespace {

std::string text_of(const json_t* string)
{
    return {json_string_value(string), json_string_length(string)};
}

/// Takes one member over; returns what is wrong with it, nothing when it is fine.
std::string take_text(const TextField& field, const json_t* value, Device& device)
{
    if (!json_is_string(value))
        return "must be a text";
    device.*field.member = text_of(value);
    return {};
}

std::string take_traffic_blocked(const json_t* value, Device& device)
{
    if (!json_is_integer(value) || (json_integer_value(value) != 0 && json_integer_value(value) != 1))
        return "must be 0 or 1";
    device.traffic_blocked = static_cast<std::int32_t>(json_integer_value(value));
    return {};
}

std::string take_addresses(const json_t* list, std::set<sockutl::address>& addresses)
{
    if (!json_is_array(list))
        return "must hold lists of IP addresses";
    for (std::size_t i = 0; i < json_array_size(list); ++i) {
        const json_t* text = json_array_get(list, i);
        if (!json_is_string(text))
            return "must hold lists of IP addresses";
        const sockutl::address address(text_of(text));
        if (!is_ip_address(address))
            return fmt::format("\"{}\" is no IP address", text_of(text));
        addresses.insert(address);
    }
    return {};
}

std::string take_macs(const json_t* value, Device& device)
{
    if (!json_is_object(value))
        return "must be an object of MAC addresses";
    const char* text = nullptr;
    json_t* list = nullptr;
    // The macro wants an object to iterate, which it does not change.
    json_object_foreach(const_cast<json_t*>(value), text, list)
    {
        const sockutl::macaddr mac(text);
        if (!mac.is_valid())
            return fmt::format("\"{}\" is no MAC address", text);
        const auto [entry, is_new] = device.macs.try_emplace(mac);
        if (!is_new)
            return fmt::format("\"{}\" is there twice", text);
        if (std::string problem = take_addresses(list, entry->second); !problem.empty())
            return problem;
    }
    return {};
}

std::string take_member(std::string_view name, const json_t* value, Device& device)
{
    if (name == kMacsField)
        return take_macs(value, device);
    if (name == kTrafficBlockedField)
        return take_traffic_blocked(value, device);
    const auto field = std::find_if(kTextFields.begin(), kTextFields.end(),
                                    [&](const TextField& known) { return known.name == name; });
    return field == kTextFields.end() ? "is no member of a device" : take_text(*field, value, device);
}

/// A text for people: with U+FFFD in place of every byte that is not UTF-8.
std::string replace_malformed(std::string_view text)
{
    std::string result;
    while (!text.empty()) {
        const std::size_t size = utf8_sequence_size(text);
        result += size != 0 ? text.substr(0, size) : "\xef\xbf\xbd";
        text.remove_prefix(std::max<std::size_t>(size, 1));
    }
    return result;
}

JsonPtr to_json(const std::string& text)
{
    JsonPtr json(json_stringn(text.data(), text.size()));
    if (json)
        return json;
    const std::string shown = replace_malformed(text);
    return JsonPtr(json_stringn(shown.data(), shown.size()));
}

JsonPtr to_json(const std::set<sockutl::address>& addresses)
{
    JsonPtr list(json_array());
    for (const sockutl::address& address : addresses)
        if (json_array_append_new(list.get(), json_string(address.to_string(false).c_str())) != 0)
            return nullptr;
    return list;
}

JsonPtr macs_to_json(const Device& device)
{
    std::map<sockutl::macaddr, const std::set<sockutl::address>*> macs;
    for (const auto& [mac, addresses] : device.macs)
        macs.emplace(mac, &addresses);
    JsonPtr object(json_object());
    for (const auto& [mac, addresses] : macs)
        if (json_object_set_new(object.get(), mac.to_string(false).c_str(), to_json(*addresses).release()) !=
            0)
            return nullptr;
    return object;
}

bool read_device(const json_t* json, const std::string& default_owner, Device& device, std::string& error)
{
    if (!json_is_object(json)) {
        error = "a device must be an object";
        return false;
    }
    Device result;
    result.owner = default_owner;
    const char* name = nullptr;
    json_t* value = nullptr;
    json_object_foreach(const_cast<json_t*>(json), name, value)
    {
        const std::string problem = take_member(name, value, result);
        if (!problem.empty()) {
            error = fmt::format("{}: {}", name, problem);
            return false;
        }
    }
    if (result.did.empty() || result.did.size() > kMaxDeviceIdSize) {
        error = fmt::format("did: must be a text of 1 to {} bytes", kMaxDeviceIdSize);
        return false;
    }
    if (!is_utf8(result.owner)) { // the default; JSON holds no such text
        error = "owner: must be UTF-8";
        return false;
    }
    device = std::move(result);
    return true;
}

json_t* make_json(const Device& device)
{
    JsonPtr json(json_object());
    bool complete = true;
    const auto set = [&](const char* name, json_t* value) {
        complete = json_object_set_new(json.get(), name, value) == 0 && complete;
    };
    for (const TextField& field : kTextFields) {
        set(field.name, to_json(device.*field.member).release());
        if (field.member == &Device::owner)
            set(kMacsField, macs_to_json(device).release());
    }
    set(kTrafficBlockedField, json_integer(device.traffic_blocked));
    return complete ? json.release() : nullptr;
}

} // namespace

bool device_from_json(const json_t* json, const std::string& default_owner, Device& device,
                      std::string& error)
{
    return base::without_throwing(false, [&] { return read_device(json, default_owner, device, error); });
}

json_t* device_to_json(const Device& device)
{
    return base::without_throwing<json_t*>(nullptr, [&] { return make_json(device); });
}

} // namespace orv::devMgmt
