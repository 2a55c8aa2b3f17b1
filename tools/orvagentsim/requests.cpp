#include "requests.h"

#include "agent.h"
#include "scanner.h"

#include <algorithm>

namespace orvagentsim {

const std::vector<Request>& requests()
{
    // clang-format off
    static const std::vector<Request> rows{
        {Participant::scanner, "va_scan_status",        va_scan_status,           nullptr},
        {Participant::scanner, "va_network_scan_start", va_network_scan_start,    nullptr},
        {Participant::scanner, "va_self_scan_start",    va_self_scan_start,       nullptr},
        {Participant::scanner, "va_scan_stop",          va_scan_stop,             nullptr},

        {Participant::agent, "start_cloud_registration", start_cloud_registration, fail_cloud_registration},
        {Participant::agent, "telemetry_event",          telemetry_event,          nullptr},
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
