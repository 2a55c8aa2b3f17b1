// The records are in the device store and nowhere else, so each request reads what it changes and writes it
// back: whatever another process did to a record in between its requests is kept.

#include "device_manager.h"

#include "narration.h"

#include <orvdevmgmt/orvdevmgmt.h>
#include <orvtools/json.h>

#include <orvdevmgmt/device_writer.h>

#include <optional>
#include <set>

namespace orvagentsim {
namespace {

using orv::devMgmt::Device;

constexpr char kName[] = "broker-devmgmt";
constexpr char kMalformed[] = "malformed request";
constexpr char kNotWritable[] = "device store not writable";

const json_t* destination(const json_t* data)
{
    return json_object_get(data, "connect_destination");
}

/// Finds the device that a request is about; without one, the answer says why.
std::optional<Reply> find_device(const json_t* data, Device& device)
{
    const char* id = orvtools::string_member(destination(data), "device_id");
    if (!id)
        return refusal(kMalformed);
    if (orv::devMgmt::get_device(id, device) == 0)
        return refusal(std::string("no such device: ") + id);
    return std::nullopt;
}

Reply keep(const Device& device)
{
    return orv::devMgmt::put_device(device) == 0 ? success("{}") : refusal(kNotWritable);
}

bool is_mac_list(const json_t* list)
{
    const std::size_t count = json_array_size(list);
    for (std::size_t i = 0; i < count; ++i) {
        const char* text = json_string_value(json_array_get(list, i));
        if (!text || !orv::sockutl::macaddr(text).is_valid())
            return false;
    }
    return count > 0;
}

/// The devices of a request, each of which has a record; without them, the answer says why.
std::optional<Reply> find_devices(const json_t* list, std::set<std::string>& ids)
{
    const std::size_t count = json_array_size(list);
    if (count == 0)
        return refusal(kMalformed);
    for (std::size_t i = 0; i < count; ++i) {
        const char* id = json_string_value(json_array_get(list, i));
        if (!id)
            return refusal(kMalformed);
        if (Device device; orv::devMgmt::get_device(id, device) == 0)
            return refusal(std::string("no such device: ") + id);
        ids.insert(id);
    }
    return std::nullopt;
}

} // namespace

void publish_sighting(Exchange& exchange, const Sighting& sighting)
{
    const orv::JsonPtr event{json_pack("{s:s,s:s,s:s}", "src_ip", sighting.ip.c_str(), "src_mac",
                                       sighting.mac.c_str(), "user_agent", sighting.user_agent.c_str())};
    exchange.publish(Participant::device_manager, "guster_user_agent", orvtools::to_text(event.get()));
    narrate(kName, "{} is heard as {}", sighting.mac, sighting.user_agent);
}

Reply set_friendly_name(const Call& call)
{
    const char* name = orvtools::string_member(call.data, "friendly_name");
    if (!name)
        return refusal(kMalformed);
    if (!destination(call.data)) {
        narrate(kName, "the router is called '{}'", name);
        return success("{}");
    }
    Device device;
    if (auto problem = find_device(call.data, device))
        return *problem;
    device.friendly_name = name;
    narrate(kName, "{} is called '{}'", device.did, name);
    return keep(device);
}

Reply set_traffic_status(const Call& call)
{
    const json_t* blocked = json_object_get(call.data, "blocked");
    const json_int_t value = json_integer_value(blocked);
    if (!json_is_integer(blocked) || value < 0 || value > 1)
        return refusal(kMalformed);
    Device device;
    if (auto problem = find_device(call.data, device))
        return *problem;
    device.traffic_blocked = static_cast<std::int32_t>(value);
    narrate(kName, "{} is {}", device.did, value == 1 ? "blocked" : "free");
    return keep(device);
}

Reply set_online_status(const Call& call)
{
    if (!call.data)
        return refusal(kMalformed);
    narrate(kName, "online status: {}", orvtools::to_text(call.data));
    return success("{}");
}

Reply register_tuvo(const Call& call)
{
    const char* name = orvtools::string_member(call.data, "tuvo_detected_name");
    if (!name || !is_mac_list(json_object_get(call.data, "macs")))
        return refusal(kMalformed);
    narrate(kName, "the cloud knows the router '{}': {}", name, orvtools::to_text(call.data));
    return success(R"({"result": "ok"})");
}

Reply remove_satellites(const Call& call)
{
    std::set<std::string> ids;
    if (auto problem = find_devices(json_object_get(call.data, "device_ids"), ids))
        return *problem;
    for (const auto& id : ids) {
        if (orv::devMgmt::remove_device(id) != 0)
            return refusal(kNotWritable);
        narrate(kName, "{} is forgotten", id);
    }
    return success("{}");
}

} // namespace orvagentsim
