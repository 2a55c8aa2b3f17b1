// A command that the daemon learns gets its row here, in the order of the daemon's own table. What the lists,
// the completion and the tests know of commands and events, they know from here.

#include "catalogue.h"

namespace orvctl {

const std::vector<CommandInfo>& commands()
{
    // clang-format off
    static const std::vector<CommandInfo> rows{
        {"start_cloud_registration",
         "Register the router with data of any shape; the outcome is the event cloud_registration_status",
         "any JSON, passed on to the agent", "none"},
        {"start_registration",
         "Register the router with the cloud; the outcome is the event cloud_registration_status",
         R"({"router_id": string} or {"token": string, "mac": string, "redeem": string})", "none"},
        {"set_router_model", "Set the router's hardware model", "string", "none"},
        {"set_router_name", "Name the router", "string, not empty", "none"},
        {"set_router_feature_set_level", "Set the feature-set level of a registered router",
         R"("velm-light-1.0"|"velm-light-1.1"|"velm-basic-1.0"|"velm-basic-1.1"|"velm-pro")", "none"},
        {"set_router_interfaces", "Replace the list of the router's network interfaces",
         R"([{"name": string, "type": "wan"|"lan"|"guest"}, ...])", "none"},
        {"enable_services", "Switch the protection on", "none", "none"},
        {"disable_services", "Switch the protection off", "none", "none"},
        {"get_services_status", "Tell whether the protection is on", "none", R"({"status": 0|1})"},
        {"get_subscription_status", "Tell the state of the router's subscription", "none",
         R"({"status": "valid"} or {"status": "valid"|"expired"|"none", "expiry": string})"},
        {"update_subscription_status",
         "Have the agent ask the cloud about the subscription, and tell its state", "none",
         R"({"status": "valid"|"expired"|"none", "expiry": string, "subscription_update_ts": int, )"
         R"("subscription_update_error": string, "subscription_update_status": "success"|"failed"})"},
        {"get_version_info", "Tell the agent's version", "none",
         R"({"version": string, "patch_level": string})"},
        {"set_device_name", "Name a device", R"({"device_id": string, "name": string})", "none"},
        {"set_device_traffic_blocked", "Block a device's traffic, or let it pass",
         R"({"device_id": string, "traffic_blocked": 0|1})", "none"},
        {"set_device_online_status", "Pass on which devices are online (leases mode orvleases-ng only)",
         "any JSON, passed on to the agent", "none"},
        {"get_devices", "List the router's devices, all of them or those with the given ids",
         "[string, ...], optional",
         R"([{"macs": [{"mac": string, "ip": string}, ...], "did": string, "display_name": string, )"
         R"("device_type": string, "device_manufacturer": string, "device_os": string, )"
         R"("device_os_version": string, "traffic_blocked": 0|1, "last_va_scan_ts": string}, ...])"},
        {"remove_satellite", "Remove a satellite and keep it from being scanned and discovered",
         R"({"mac": string})", "none"},
        {"va_start", "Start a vulnerability scan of the network", "none", "none"},
        {"va_stop", "Stop the running vulnerability scan", "none", "none"},
        {"va_status", "Tell the state of the vulnerability scan", "none", "the scanner's own object"},
        {"va_self_scan_start", "Start a vulnerability scan of the router itself", "none", "none"},
        {"va_set_schedule", "Schedule vulnerability scans",
         R"({"enabled": bool, "scheduled": bool, ...}, passed on to the agent)", "none"},
        {"va_set_exclusions", "Replace the list of the devices that are not scanned",
         R"([MAC_PATTERN, ...], as in "aa:bb:cc:dd:ee:0[0-3|f]")", "none"},
        {"va_get_exclusions", "List the devices that are not scanned", "none", "[MAC_PATTERN, ...]"},
        {"pro_features_enable", "Switch the pro features on", "none", "none"},
        {"pro_features_disable", "Switch the pro features off", "none", "none"},
        {"set_va_cloud_trigger", "Allow or forbid scans triggered from the cloud", "true|false|int", "none"},
        {"get_va_cloud_trigger", "Tell whether the cloud may trigger scans", "none", "true|false"},
        {"get_router_name", "Tell the router's name", "none", "string"},
        {"get_router_model", "Tell the router's hardware model", "none", "string"},
        {"get_router_feature_set_level", "Tell the router's feature-set level", "none", "string"},
        {"get_router_interfaces", "List the router's network interfaces", "none",
         R"([{"name": string, "type": "wan"|"lan"|"guest"}, ...])"},
        {"reapply_firewall_rules", "Run the firewall script again", "none", "none"},
        {"get_feature", "Tell the states of features; unknown names are left out", "[FEATURE, ...]",
         R"({FEATURE: "enabled"|"disabled", ...})"},
        {"set_feature", "Switch features on or off; what failed is left out of the answer",
         R"({FEATURE: "enabled"|"disabled", ...})", R"({FEATURE: "enabled"|"disabled", ...})"},
        {"list_all_features", "List the names of all features", "none", "[FEATURE, ...]"},
        {"get_diagnosis_report", "Tell all that helps to find out what is wrong", "none",
         R"({"agent": {"version": string, "registered": bool, "subscription": string, )"
         R"("enabled": bool}, "va": {"scheduled": bool}, "devices": {"count": int, "blocked": int}, )"
         R"("system": {"uptime": number, "load": [number, number, number], "memory_total": int, )"
         R"("memory_available": int, "kernel": string}, "network": {"interfaces": [{"name": string, )"
         R"("type": string, "state": "up"|"down"|"absent", "addresses": [string, ...]}, ...]}, )"
         R"("exchange": {"address": string, "reachable": bool}, "generated_at": string, )"
         R"("agent_version": string}, null for what cannot be found out)"},
        {"get_status_report", "Tell the agent's state in short", "none",
         R"({"agent": {"version": string, "registered": bool, "subscription": string, )"
         R"("enabled": bool}, "va": {"scheduled": bool}})"},
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
        {"device_discovery", "A device's field or addresses changed, or its user agent was seen",
         R"({"mac": string, FIELD: string} or {"mac": string, "ip": string, FIELD: string, ...} or )"
         R"({"mac": string, "ip": string, "user_agent": string, ...})"},
        {"subscription_changed", "The router's subscription changed",
         R"({"status": "valid"} or {"status": "valid"|"expired", "expiry": int})"},
        {"cloud_registration_status", "The cloud registration ended",
         R"({"successful": true} or {"successful": false, "error": string, "reason": string})"},
        {"orvagent_started", "The agent has started", "{}"},
        {"va_status_changed", "A vulnerability scan changed its state", "the scanner's own object"},
    };
    // clang-format on
    return rows;
}

} // namespace orvctl
