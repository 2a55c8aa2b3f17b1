// A command that the daemon learns gets its row here, in the order of the daemon's own table.
#include "catalogue.h"

namespace orvctl {

const std::vector<CommandInfo>& commands()
{
    // clang-format off
    static const std::vector<CommandInfo> rows{
        {"start_cloud_registration",
         "Register the router with the cloud; the outcome is the event cloud_registration_status",
         "object or array, passed on to the agent", "none"},
        {"enable_services", "Switch the protection on", "none", "none"},
        {"disable_services", "Switch the protection off", "none", "none"},
        {"get_services_status", "Tell whether the protection is on", "none", R"({"status": 0|1})"},
        {"va_start", "Start a vulnerability scan of the network", "none", "none"},
        {"va_stop", "Stop the running vulnerability scan", "none", "none"},
        {"va_status", "Tell the state of the vulnerability scan", "none", "the scanner's own object"},
        {"va_self_scan_start", "Start a vulnerability scan of the router itself", "none", "none"},
        {"pro_features_enable", "Switch the pro features on", "none", "none"},
        {"pro_features_disable", "Switch the pro features off", "none", "none"},
        {"set_va_cloud_trigger", "Allow or forbid scans triggered from the cloud", "true|false|int", "none"},
    };
    // clang-format on
    return rows;
}

const std::vector<EventInfo>& events()
{
    // clang-format off
    static const std::vector<EventInfo> rows{
        {"devices_list_updated", "Devices appeared, changed or went, collected over some seconds",
         R"([{"device_id": string, "status": "new"|"updated"|"removed"}, ...])"},
        {"device_discovery", "A device's field changed, or its user agent was seen",
         R"({"mac": string, FIELD: string, ...})"},
        {"subscription_changed", "The router's subscription changed",
         R"({"status": "valid"|"expired", "expiry": int})"},
        {"cloud_registration_status", "The cloud registration ended",
         R"({"successful": bool, "error": string, "reason": string})"},
        {"orvagent_started", "The agent has started", "{}"},
        {"va_status_changed", "A vulnerability scan changed its state", "the scanner's own object"},
    };
    // clang-format on
    return rows;
}

} // namespace orvctl
