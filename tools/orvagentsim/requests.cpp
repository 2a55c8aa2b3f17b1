// Each participant declares its handlers with what they need and no more; the adapters here give all of them
// the one signature that a row has.

#include "requests.h"

#include "device_manager.h"
#include "schedule.h"

#include <algorithm>

namespace orvagentsim {
namespace {

/// A handler that needs nothing but the call.
template <Reply (*Process)(const Call&)>
std::optional<Reply> plain(Participants& /*participants*/, const Call& call)
{
    return Process(call);
}

template <auto Process>
std::optional<Reply> agent(Participants& participants, const Call& call)
{
    return (participants.agent.*Process)(call);
}

template <auto Process>
std::optional<Reply> scanner(Participants& participants, const Call& call)
{
    return (participants.scanner.*Process)(call);
}

} // namespace

const std::vector<Request>& requests()
{
    // clang-format off
    static const std::vector<Request> rows{
        {Participant::device_manager, "set_friendly_name",  plain<set_friendly_name>,  nullptr},
        {Participant::device_manager, "set_traffic_status", plain<set_traffic_status>, nullptr},
        {Participant::device_manager, "set_online_status",  plain<set_online_status>,  nullptr},
        {Participant::device_manager, "register_tuvo",      plain<register_tuvo>,      nullptr},
        {Participant::device_manager, "remove_satellites",  plain<remove_satellites>,  nullptr},

        {Participant::scanner, "va_scan_status",        scanner<&Scanner::va_scan_status>,        nullptr},
        {Participant::scanner, "va_network_scan_start", scanner<&Scanner::va_network_scan_start>, nullptr},
        {Participant::scanner, "va_self_scan_start",    scanner<&Scanner::va_self_scan_start>,    nullptr},
        {Participant::scanner, "va_scan_stop",          scanner<&Scanner::va_scan_stop>,          nullptr},

        {Participant::settings, "va_set_schedule", plain<va_set_schedule>, nullptr},

        {Participant::agent, "start_cloud_registration",
         agent<&Agent::start_cloud_registration>, agent<&Agent::fail_cloud_registration>},
        {Participant::agent, "telemetry_event", agent<&Agent::telemetry_event>, nullptr},
        {Participant::agent, "update_subscription",
         plain<update_subscription>, plain<fail_subscription_update>},
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
