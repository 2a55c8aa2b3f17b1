#include "requests.h"

#include "agent.h"
#include "device_manager.h"
#include "scanner.h"
#include "schedule.h"

#include <algorithm>

namespace orvagentsim {

const std::vector<Request>& requests()
{
    // clang-format off
    static const std::vector<Request> rows{
        {Participant::device_manager, "set_friendly_name", set_friendly_name, nullptr},
        {Participant::device_manager, "set_traffic_status", set_traffic_status, nullptr},
        {Participant::device_manager, "set_online_status", set_online_status, nullptr},
        {Participant::device_manager, "register_tuvo", register_tuvo, nullptr},
        {Participant::device_manager, "remove_satellites", remove_satellites, nullptr},

        {Participant::scanner, "va_scan_status",        va_scan_status,           nullptr},
        {Participant::scanner, "va_network_scan_start", va_network_scan_start,    nullptr},
        {Participant::scanner, "va_self_scan_start",    va_self_scan_start,       nullptr},
        {Participant::scanner, "va_scan_stop",          va_scan_stop,             nullptr},

        {Participant::settings, "va_set_schedule", va_set_schedule, nullptr},

        {Participant::agent, "start_cloud_registration", start_cloud_registration, fail_cloud_registration},
        {Participant::agent, "telemetry_event",          telemetry_event,          nullptr},
        {Participant::agent, "update_subscription", update_subscription, fail_subscription_update},
    };
    // clang-format on
    return rows;
}

const Request* find_request(Participant participant, std::string_view name)
{
    const auto& rows = requests();
    const auto row = std::find_if(rows.begin(), rows.end(), [&](const Request& request) {
        return request.participant == participant && request.name == name;
    });
    return row != rows.end() ? &*row : nullptr;
}

std::string without_participant(const std::string& name)
{
    const auto colon = name.find(':');
    return colon == std::string::npos ? name : name.substr(colon + 1);
}

bool is_request(const std::string& name)
{
    const auto& rows = requests();
    return std::any_of(rows.begin(), rows.end(), [&](const Request& request) {
        return name == request.name || name == std::string(name_of(request.participant)) + ':' + request.name;
    });
}

} // namespace orvagentsim
