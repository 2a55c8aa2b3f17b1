// Payloads are made by the simulation itself, in the form in which they are written again: so most of what a
// client has to receive is known as text. Of commands that may do anything only the envelope is.

#include "model.h"

#include <orvutils/json.h>

#include <algorithm>
#include <string_view>
#include <utility>

namespace orv::simulation {
namespace {

constexpr int kPendingStatus = 1;

/// The exchange's event behind a client's, empty for none.
std::string exchange_event_of(const std::string& event)
{
    if (event == "device_discovery")
        return "guster_user_agent";
    return event == "orvagent_started" || event == "va_status_changed" ? event : "";
}

std::string envelope(const std::string& data, int status)
{
    return R"({"data": )" + data + R"(, "status": )" + std::to_string(status) + "}";
}

bool is_envelope(const std::string& frame)
{
    const JsonPtr root(json_loads(frame.c_str(), 0, nullptr));
    return json_object_size(root.get()) == 2 && json_object_get(root.get(), "data") &&
           json_is_integer(json_object_get(root.get(), "status"));
}

/// Whatever is in it: without memory, a member can be there without its name.
bool is_roughly_envelope(const std::string& frame)
{
    return frame.compare(0, 9, R"({"data": )") == 0 && frame.find(R"(, "status": )") != std::string::npos;
}

bool ends_with_status(const std::string& frame, int status)
{
    const std::string end = R"(, "status": )" + std::to_string(status) + "}";
    return frame.size() > end.size() && frame.compare(frame.size() - end.size(), end.size(), end) == 0;
}

bool has_status(const std::string& frame, int status)
{
    return is_envelope(frame) && ends_with_status(frame, status);
}

std::string member(const JsonPtr& object, const char* name)
{
    const char* text = json_string_value(json_object_get(object.get(), name));
    return text ? text : "";
}

JsonPtr parse(const std::string& text)
{
    return JsonPtr(json_loadb(text.data(), text.size(), 0, nullptr));
}

std::vector<std::string> listed_in(const std::string& frame)
{
    const JsonPtr root = parse(frame);
    std::vector<std::string> ids;
    std::size_t index = 0;
    json_t* device = nullptr;
    json_array_foreach(json_object_get(root.get(), "data"), index, device)
    {
        const char* id = json_string_value(json_object_get(device, "did"));
        ids.emplace_back(id ? id : "");
    }
    return ids;
}

std::string field_of(const devMgmt::Device& device, const std::string& field)
{
    const std::map<std::string, std::string> fields{
        {"display_name", device.display_name},
        {"device_type", device.device_type},
        {"device_manufacturer", device.device_manufacturer},
        {"device_os", device.device_os},
        {"device_os_version", device.device_os_version},
        {"traffic_blocked", std::to_string(device.traffic_blocked)},
        {"friendly_name", device.friendly_name},
    };
    const auto found = fields.find(field);
    return found == fields.end() ? "" : found->second;
}

std::string all_fields_of(const devMgmt::Device& device)
{
    std::string text;
    for (const char* field : {"display_name", "device_type", "device_manufacturer", "device_os",
                              "device_os_version", "traffic_blocked", "friendly_name"})
        if (const std::string value = field_of(device, field); !value.empty())
            text += std::string(", \"") + field + "\": \"" + value + "\"";
    return text;
}

void remove(std::map<std::string, std::vector<Client*>>& table, const std::string& event, Client* client)
{
    const auto found = table.find(event);
    if (found == table.end())
        return;
    auto& clients = found->second;
    clients.erase(std::remove(clients.begin(), clients.end(), client), clients.end());
    if (clients.empty())
        table.erase(found);
}

} // namespace

std::vector<std::string> Model::take_complaints()
{
    return std::exchange(m_complaints, {});
}

void Model::tell(const std::vector<Client*>& clients, const std::string& text, bool is_certain)
{
    for (Client* client : clients)
        client->inbox.expect({text.substr(0, 200), [text](const std::string& frame) { return frame == text; },
                              [](const std::string& frame) { return !is_roughly_envelope(frame); }, m_pass,
                              is_certain});
}

void Model::doubt()
{
    for (auto it = m_seen.begin(); it != m_seen.end();) {
        const bool is_new = it->second == m_pass;
        if (is_new)
            m_doubtful.insert(it->first);
        it = is_new ? m_seen.erase(it) : std::next(it);
    }
}

// ---- requests

void Model::check_status(const Client& client, const Request& request, int status)
{
    int right = 0;
    switch (request.kind) {
    case Asked::anything:
        return;
    case Asked::scanner:
        right = kPendingStatus;
        break;
    case Asked::nameless:
    case Asked::refused:
        right = -1;
        break;
    case Asked::unusable:
        m_complaints.push_back("what is no request was handled: " + request.line);
        return;
    case Asked::nothing:
    case Asked::protection:
    case Asked::protect:
    case Asked::expose:
    case Asked::devices:
    case Asked::registration:
    case Asked::done:
    case Asked::subscription:
        break;
    }
    if (status != right)
        m_complaints.push_back("client " + std::to_string(client.number) + ": " +
                               request.line.substr(0, 200) + " has status " + std::to_string(status));
}

void Model::subscribe(Client& client, const Request& request)
{
    client.is_subscriber = true;
    if (request.kind != Asked::subscription)
        return;
    client.event = request.event;
    subscribers[client.event].push_back(&client);
    if (const std::string event = exchange_event_of(client.event); !event.empty())
        receivers[event].push_back(&client);
}

std::vector<std::string> Model::listed(const Request& request) const
{
    std::vector<std::string> ids;
    for (const std::string& id : request.devices)
        if (m_devices.count(id) != 0)
            ids.push_back(id);
    return ids;
}

void Model::expect_answer(Client& client, const Request& request, int status)
{
    const std::string what = "status " + std::to_string(status) + " for " + request.line.substr(0, 200);
    std::function<bool(const std::string&)> fits;
    if (request.kind == Asked::anything) {
        fits = [=](const std::string& frame) { return has_status(frame, status); };
    } else if (request.kind == Asked::devices && status == 0) {
        fits = [ids = listed(request)](const std::string& frame) {
            return has_status(frame, 0) && listed_in(frame) == ids;
        };
    } else {
        const bool is_told = request.kind == Asked::protection && status == 0;
        const std::string text =
            envelope(is_told ? is_protected ? R"({"status": 1})" : R"({"status": 0})" : "null", status);
        fits = [=](const std::string& frame) { return frame == text; };
    }
    const auto fits_roughly = [=](const std::string& frame) {
        return is_roughly_envelope(frame) && ends_with_status(frame, status);
    };
    client.inbox.expect({what, fits, fits_roughly, m_pass});
}

void Model::handled(Client& client, int status)
{
    if (client.unhandled.empty()) {
        m_complaints.push_back("client " + std::to_string(client.number) +
                               " is answered what it never asked");
        return;
    }
    const Request request = std::move(client.unhandled.front());
    client.unhandled.pop_front();
    check_status(client, request, status);
    if (request.kind == Asked::protect || request.kind == Asked::expose)
        is_protected = status == 0 ? request.kind == Asked::protect : is_protected;
    if (request.kind == Asked::subscription || request.kind == Asked::nameless)
        subscribe(client, request);
    if (status == kPendingStatus)
        return;
    expect_answer(client, request, status);
    if (status != 0 && m_belief != Belief::failure_goes_on)
        client.is_last = true;
}

void Model::unusable(Client& client)
{
    if (client.unhandled.empty() || client.unhandled.front().kind != Asked::unusable)
        m_complaints.push_back("client " + std::to_string(client.number) + " is refused a request");
    if (!client.unhandled.empty())
        client.unhandled.pop_front();
    client.is_dropped = true;
}

void Model::unsubscribed(Client& client)
{
    if (m_belief == Belief::others_stay)
        remove(subscribers, client.event, &client);
    else
        subscribers.erase(client.event); // and with it all others of this event
    if (const std::string event = exchange_event_of(client.event); !event.empty())
        remove(receivers, event, &client);
}

void Model::forget(Client& client)
{
    remove(subscribers, client.event, &client);
    if (const std::string event = exchange_event_of(client.event); !event.empty())
        remove(receivers, event, &client);
    for (auto& waiting : m_waiting)
        if (waiting.second.client == &client)
            waiting.second.client = nullptr;
}

// ---- the exchange

void Model::sent(unsigned request, const std::string& name, Client* client)
{
    if (name == "start_cloud_registration")
        m_waiting[request] = {nullptr, Asked::registration, true};
    else
        m_waiting[request] = {client, name == "orvvad:va_scan_status" ? Asked::scanner : Asked::anything,
                              false};
}

bool Model::answered(unsigned request, const std::string& data)
{
    const auto found = m_waiting.find(request);
    if (found == m_waiting.end())
        return false;
    const Waiting waiting = found->second;
    m_waiting.erase(found);
    if (waiting.is_registration) {
        registration_answered(data);
        return true;
    }
    if (!waiting.client)
        return true;

    Client& client = *waiting.client;
    if (m_belief != Belief::answers_add_up)
        for (auto& other : m_waiting)
            if (other.second.client == &client)
                other.second.client = nullptr;
    if (waiting.kind == Asked::anything) {
        client.inbox.expect({"an answer of the exchange", is_envelope, is_roughly_envelope, m_pass});
        client.is_last = true;
        // Some of these leave nothing to answer with when the participant has told nothing.
        client.may_be_dropped = true;
    } else if (!parse(data)) {
        client.is_dropped = true;
    } else {
        const std::string text = envelope(data, 0);
        client.inbox.expect(
            {text, [text](const std::string& frame) { return frame == text; }, is_roughly_envelope, m_pass});
        client.is_last = true;
    }
    return true;
}

void Model::registration_answered(const std::string& data)
{
    const auto found = subscribers.find("cloud_registration_status");
    if (found == subscribers.end())
        return;
    const JsonPtr root = parse(data);
    const std::string result = member(root, "result");
    const std::string reason = member(root, "reason");
    if (result == "ok")
        tell(found->second, R"({"successful": true})");
    else if (!result.empty() && !reason.empty())
        tell(found->second,
             R"({"successful": false, "error": ")" + result + R"(", "reason": ")" + reason + "\"}");
}

void Model::exchange_event(const std::string& type, const std::string& data)
{
    const auto found = receivers.find(type);
    if (found == receivers.end())
        return;
    if (type == "va_status_changed")
        tell(found->second, data);
    if (type == "orvagent_started")
        tell(found->second, "{}");
    if (type != "guster_user_agent")
        return;
    const JsonPtr root = parse(data);
    const std::string mac = member(root, "src_mac");
    const std::string agent = member(root, "user_agent");
    if (mac.empty() || agent.empty() || !m_seen.emplace(std::pair(mac, agent), m_pass).second)
        return;
    tell(found->second,
         R"({"user_agent": ")" + agent + R"(", "ip": ")" + member(root, "src_ip") + R"(", "mac": ")" + mac +
             "\"}",
         m_doubtful.erase({mac, agent}) == 0);
}

// ---- devices and the service subscription

void Model::device_changed(devMgmt::DevInfoChangeType type, const devMgmt::Device& device,
                           const std::string& field)
{
    if (field == "friendly_name")
        return;
    if (type == devMgmt::DevInfoChangeType::added)
        changes[device.did] = "new";
    else if (type == devMgmt::DevInfoChangeType::removed)
        changes[device.did] = "removed";
    else
        changes.emplace(device.did, "updated");

    const auto found = subscribers.find("device_discovery");
    if (type != devMgmt::DevInfoChangeType::updated || found == subscribers.end())
        return;
    for (const auto& entry : device.macs) {
        const std::string mac = R"({"mac": ")" + entry.first.to_string(/*upper_case=*/false) + "\"";
        tell(found->second, field == "macs"
                                ? mac + R"(, "ip": "")" + all_fields_of(device) + "}"
                                : mac + ", \"" + field + "\": \"" + field_of(device, field) + "\"}");
    }
}

void Model::devices_told(const std::string& text)
{
    const JsonPtr list = parse(text);
    std::map<std::string, std::string> told;
    std::size_t index = 0;
    json_t* entry = nullptr;
    json_array_foreach(list.get(), index, entry)
    {
        const char* id = json_string_value(json_object_get(entry, "device_id"));
        const char* status = json_string_value(json_object_get(entry, "status"));
        told[id ? id : ""] = status ? status : "";
    }
    const auto found = subscribers.find("devices_list_updated");
    if (told != changes || told.size() != json_array_size(list.get()) || found == subscribers.end()) {
        m_complaints.push_back("not what has become of devices: " + text);
        return;
    }
    tell(found->second, text);
    changes.clear();
}

void Model::subscription_changed(const std::string& status, long long expiry)
{
    if (status != "valid" && status != "expired")
        return;
    std::string text = R"({"status": ")" + status + "\"";
    if (status != "valid" || expiry != 0)
        text += R"(, "expiry": )" + std::to_string(expiry);
    text += "}";
    if (last_told == text)
        return;
    last_told = text;
    if (const auto found = subscribers.find("subscription_changed"); found != subscribers.end())
        tell(found->second, text);
}

} // namespace orv::simulation
