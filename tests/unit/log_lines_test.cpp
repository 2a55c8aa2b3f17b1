// Every line that the daemon can log: with its level, and from the file and in the name of the function that
// a reader of the log looks for. Not here are what its libraries say by themselves, and "invalid interface
// {:d}", which the JSON library gives no occasion for: an array has an element at each index below its size.
//
// The daemon is put through everything that makes it say something, each time with another call failing or
// with another piece of memory missing. Whatever it logs must be in the table, and everything in the table
// must have been logged.

#include "make_device.h"
#include "support/scenario.h"

#include "client_events.h"
#include "commandsproc.h"
#include "orvbrokerd.h"
#include "orvex.h"
#include "sock.h"
#include "subevhandlers.h"

#include <orvutils/orvcommon/cache.h>

#include <functional>
#include <new>
#include <regex>
#include <set>
#include <tuple>

namespace orv::test {
namespace {

using fake::LogLine;

// ---- the table

constexpr char kSpine[] = "daemons/orvbrokerd/src/orvbrokerd.cpp";
constexpr char kAdmission[] = "daemons/orvbrokerd/src/admission.cpp";
constexpr char kSock[] = "daemons/orvbrokerd/src/sock.cpp";
constexpr char kEvents[] = "daemons/orvbrokerd/src/evhandler.cpp";
constexpr char kClientEvents[] = "daemons/orvbrokerd/src/subevhandlers.cpp";
constexpr char kHandlers[] = "daemons/orvbrokerd/src/commandsproc.cpp";
constexpr char kExchange[] = "daemons/orvbrokerd/src/orvex.cpp";
constexpr char kMeanings[] = "daemons/orvbrokerd/src/orvexproc.cpp";
constexpr char kMemory[] = "daemons/orvbrokerd/src/within_memory.h";
constexpr char kCache[] = "libs/orvutils/include_cpp/orvutils/orvcommon/cache.h";

struct Row {
    int level;
    const char* file;
    const char* function;
    const char* text; ///< "{...}" stands for anything, "{{}}" for two braces
};

const Row kRows[] = {
    {2, kSpine, "init", "start orv broker daemon"},
    {0, kSpine, "init", "failed to open epoll"},
    {0, kSpine, "init", "failed to add stop exec fd to epoll"},
    {0, kSpine, "init", "failed to open server socket"},
    {0, kSpine, "init", "failed to add server socket to epoll"},
    {0, kSpine, "init", "orvsetmgmt error: {}"},
    {0, kSpine, "init", "featureutl error: {}"},
    {0, kSpine, "init", "failed to init karma timer"},
    {0, kSpine, "init", "failed to add karma fd to epoll"},
    {0, kSpine, "init", "failed to start karma timer"},
    {0, kSpine, "init", "failed to init cache timer"},
    {0, kSpine, "init", "failed to add cache fd to epoll"},
    {0, kSpine, "init", "failed to start cache process timer"},
    {0, kSpine, "init", "failed to init devmgmt"},
    {0, kSpine, "init", "failed to init liborvkarma"},
    {0, kSpine, "init", "failed to connect to orv exchange daemon"},
    {2, kSpine, "init", "stop orv broker daemon"},
    {2, kSpine, "run", "stop orv broker daemon"},
    {1, kSpine, "run", "failed to get orvex fd"},
    {0, kSpine, "run", "failed to add orvex fd to epoll"},
    {1, kSpine, "run", "waiting on epoll was interrupted by a signal"},
    {0, kSpine, "run", "failed to wait on epoll"},
    {1, kSpine, "run", "failed to accept client"},
    {0, kSpine, "run", "failed to create new connection"},
    {0, kSpine, "run", "failed to init new connection"},
    {0, kSpine, "run", "failed to add client socket to epoll"},
    {4, kSpine, "run", "new client socket {:d} is connected"},
    {0, kSpine, "retry_karma_events", "Could not read old events from file"},

    {0, kMemory, "init", "out of memory"},
    {0, kMemory, "run", "out of memory"},
    {0, kMemory, "process_client_events", "out of memory"},
    {0, kMemory, "orvex_response_trampoline", "out of memory"},
    {0, kMemory, "orvex_callback", "out of memory"},
    {0, kMemory, "orvex_cloud_registration_status_cb", "out of memory"},
    {0, kMemory, "on_device_info_change_old_cb", "out of memory"},
    {0, kMemory, "on_device_info_change_cb", "out of memory"},
    {0, kMemory, "on_subscription_changed_cb", "out of memory"},

    {0, kAdmission, "run", "{} is no list of user numbers: {}"},
    {1, kAdmission, "run", "refused a client of user {}"},

    {0, kSock, "create_server_socket", "Invalid server address: {}"},
    {0, kSock, "create_server_socket", "failed to create socket"},
    {0, kSock, "create_server_socket", "failed to bind socket {:d} to {:s}"},
    {0, kSock, "create_server_socket", "failed to listen on socket {:d}"},
    {3, kSock, "create_server_socket", "listening for connections on socket {:d} ({:s})\n"},
    {3, kSock, "close_server_socket", "closing server socket {:d}\n"},

    {4, kEvents, "process_client_events", "received event on client socket {:d}"},
    {0, kEvents, "handle_command", "failed to load json: {:s}"},
    {0, kEvents, "handle_command", "no 'type' field in json: {:s}"},
    {0, kEvents, "handle_command", "'type' is not a valid string in json: {:s}"},
    {2, kEvents, "handle_command", "process {:s} command"},
    {2, kEvents, "handle_command", "last operation status is {:d}"},
    {0, kEvents, "handle_command", "failed to set protection_enabled key to 1"},
    {0, kEvents, "handle_command", "failed to set protection_enabled key to 0"},
    {0, kEvents, "handle_command", "failed to set kProFeaturesEnabledKey key to 1"},
    {0, kEvents, "handle_command", "failed to set kProFeaturesEnabledKey key to 0"},
    {0, kEvents, "handle_command", "failed to set kVaCloudTriggerKey key"},
    {2, kEvents, "process_subscription", "process {:s} subscription"},
    {2, kEvents, "unsubscribe", "unsubscribe from {:s}"},
    {2, kEvents, "send_json", "send json: {:s}"},

    {3, kClientEvents, "on_device_info_change_old_cb", "Attaching cached field {:s}"},
    {3, kClientEvents, "on_device_info_change_cb", "Deleting key {}"},
    {1, kClientEvents, "on_device_info_change_cb", "failed to delete key {}"},
    {2, kClientEvents, "on_subscription_changed_cb", "processing subscription changed"},
    {0, kClientEvents, "on_subscription_changed_cb", "failed to load subscription data"},
    {1, kClientEvents, "on_subscription_changed_cb", "ignoring status: '{}'"},
    {2, kClientEvents, "on_subscription_changed_cb", "subscription status={} expiry={}"},
    {2, kClientEvents, "on_subscription_changed_cb", "skipping already reported subscription: {}"},
    {2, kClientEvents, "on_subscription_changed_cb", "subscription changed JSON: {}"},
    {4, kClientEvents, "process_cached_events", "Attached device_id={:s} status={:s}"},
    {3, kClientEvents, "process_cached_events", "no connections for devices_list_updated event"},
    {2, kClientEvents, "process_cached_events", "send json: {:s}"},
    {1, kCache, "make_space", "Could not add entry in cache. Cache is full"},

    {2, kHandlers, "process_register", "Starting router_id registration"},
    {2, kHandlers, "process_register", "Starting token, mac, redeem registration"},
    {0, kHandlers, "process_get_feature", "Invalid parameters for get_feature"},
    {0, kHandlers, "process_set_feature", "Invalid parameters for get_feature"},
    {0, kHandlers, "process_set_feature", "Failed setting feature {} to {}"},
    {0, kHandlers, "process_get_features_list", "orv::json::to_json() failed"},

    {2, kHandlers, "process_set_device_name", "device_id={:s} name={:s}"},
    {0, kHandlers, "process_set_device_name", "No device_id provided"},
    {0, kHandlers, "process_set_device_name", "Empty string friendly_name provided"},
    {0, kHandlers, "process_set_device_name", "device_id={:s} not found"},
    {2, kHandlers, "process_set_device_name", "Current device name is same as given name."},
    {2, kHandlers, "set_friendly_name_cb", "Set name={:s} for device_id={:s}"},
    {2, kHandlers, "set_friendly_name_cb", "Set tuvo_name={:s}"},
    {0, kHandlers, "set_friendly_name_cb", "failed to set tuvo_name={:s}"},
    {0, kHandlers, "set_friendly_name_cb", "Received error response from cloud"},
    {0, kHandlers, "set_friendly_name_cb", "Failed to convert value {:s} of type to int"},
    {2, kHandlers, "process_set_device_traffic_blocked", "device_id={:s} traffic_blocked={:d}"},
    {0, kHandlers, "process_set_device_traffic_blocked", "No device_id provided"},
    {0, kHandlers, "process_set_device_traffic_blocked", "Invalid value for traffic_blocked"},
    {0, kHandlers, "process_set_device_traffic_blocked", "device_id={:s} not found"},
    {2, kHandlers, "process_set_device_traffic_blocked",
     "Current device traffic_blocked is same as given traffic_blocked."},
    {2, kHandlers, "set_device_traffic_blocked_cb", "Set traffic_blocked={:d} for device_id={:s}"},
    {0, kHandlers, "set_device_traffic_blocked_cb", "Received error response from cloud"},
    {0, kHandlers, "set_device_traffic_blocked_cb", "Failed to convert value {:s} of type to int"},
    {2, kHandlers, "process_set_device_online_status", "set_device_online_status: {}"},
    {1, kHandlers, "process_set_device_online_status",
     "orvleases mode is {}, ignoring set_device_online_status"},
    {0, kHandlers, "process_set_device_online_status", "Failed to lock key '{:s}': "},
    {0, kHandlers, "process_set_device_online_status", "Failed to delete key '{:s}': "},
    {0, kHandlers, "process_set_device_online_status", "Failed to set key for req '{:s}': {}"},
    {0, kHandlers, "process_set_device_online_status", "Failed to set key '{:s}': {}"},
    {3, kHandlers, "process_set_device_online_status", "Saved req '{:s}' at index {:d}"},
    {0, kHandlers, "process_set_device_online_status", "Failed to unlock key '{:s}': "},

    {2, kHandlers, "process_set_router_name", "Router name is empty string."},
    {2, kHandlers, "process_set_router_name", "Current router name is same as given name."},
    {0, kHandlers, "process_set_router_name", "Router is not registered."},
    {0, kHandlers, "process_set_router_name", "Could not save router name for a future use."},
    {2, kHandlers, "process_set_router_name", "Set key {} with value {:s}"},
    {2, kHandlers, "process_set_router_model", "Current router model is same as given model."},
    {0, kHandlers, "process_set_router_model", "Router name missing."},
    {0, kHandlers, "process_set_router_model", "Router registration mac missing."},
    {0, kHandlers, "process_set_router_model", "Router is not registered."},
    {0, kHandlers, "process_set_router_model", "Could not save router model for a future use."},
    {2, kHandlers, "process_set_router_model", "Set key {} with value {:s}"},
    {0, kHandlers, "process_set_router_feature_set_level", "Invalid feature set level"},
    {0, kHandlers, "process_set_router_feature_set_level", "Router is not registered."},
    {2, kHandlers, "process_set_router_feature_set_level",
     "Current router feature set level same as stored one."},
    {0, kHandlers, "process_set_router_feature_set_level", "Router name missing."},
    {0, kHandlers, "process_set_router_feature_set_level", "Router registration mac missing."},
    {2, kHandlers, "set_router_model_cb", "Set router device_model={:s}"},
    {0, kHandlers, "set_router_model_cb", "failed to set router device_model={:s}"},
    {2, kHandlers, "set_feature_set_level_cb", "Set feature_set_level={:s}"},
    {0, kHandlers, "set_feature_set_level_cb", "failed to set feature_set_level={:s}"},
    {2, kHandlers, "process_set_router_interfaces", "No interfaces list provided. Skipping..."},
    {0, kHandlers, "process_set_router_interfaces", "interfaces json object needs to be a non-empty array."},
    {2, kHandlers, "process_set_router_interfaces", "Found {:d} interfaces"},
    {1, kHandlers, "process_set_router_interfaces", "Failed to lock {}, orverrno: {}"},
    {0, kHandlers, "process_set_router_interfaces", "could not extract interface name"},
    {0, kHandlers, "process_set_router_interfaces", "could not extract interface type"},
    {1, kHandlers, "process_set_router_interfaces", "invalid interface type for '{:s}', ignoring"},
    {2, kHandlers, "process_set_router_interfaces", "Set interface name={:s} type={:s}"},
    {0, kHandlers, "process_set_router_interfaces", "failed to set interface name={:s} type={:s}"},
    {0, kHandlers, "process_set_router_interfaces", "failed to delete previous interface '{:s}'' key: {}"},
    {0, kHandlers, "process_set_router_interfaces", "failed to store the interfaces: {}"},
    {1, kHandlers, "process_set_router_interfaces", "Failed to unlock {}, orverrno: {}"},
    {0, kHandlers, "process_reapply_firewall_rules", "Error running reapply_firewall_rules script {}"},

    {0, kHandlers, "process_remove_satellite", "invalid mac: '{:s}'"},
    {0, kHandlers, "process_remove_satellite", "failed to get device id for mac '{}': {}"},
    {3, kHandlers, "process_remove_satellite", "mac '{}' has device id '{:s}'"},
    {0, kHandlers, "process_remove_satellite", "failed to get self device id: {}"},
    {0, kHandlers, "process_remove_satellite", "invalid/empty device id: '{:s}'"},
    {2, kHandlers, "process_remove_satellite", "sending remove satellite request for device id '{:s}'"},
    {0, kHandlers, "remove_satellite_cb", "Failed to convert value {:s} of type to int"},
    {2, kHandlers, "remove_satellite_cb", "successfully sent remove satellite cloud request"},
    {0, kHandlers, "remove_satellite_cb",
     "received timeout/error from cloud: (from:{} type:{} datalen:{} data:{})"},
    {0, kHandlers, "get_key_with_sep", "getKey('{}'): {}"},
    {3, kHandlers, "get_key_with_sep", "Entries of '{}': {}"},
    {0, kHandlers, "blacklist_add", "lockKey('{}'): {}"},
    {4, kHandlers, "blacklist_add", "Entry '{}' already present"},
    {3, kHandlers, "blacklist_add", "Added entry '{}' to '{}'"},
    {0, kHandlers, "blacklist_add", "setKey('{}'): {}"},

    {0, kHandlers, "process_va_set_schedule", "Failed to build payload"},
    {0, kHandlers, "process_va_set_schedule", "Failed to send set_schedule request"},
    {0, kHandlers, "va_set_schedule_cb", "failed to pack error response"},
    {0, kHandlers, "process_va_set_exclusions", "input size {} is greater than the maximum allowed ({})"},
    {0, kHandlers, "process_va_set_exclusions", "expected string value at index {}"},
    {0, kHandlers, "process_va_set_exclusions", "invalid value '{}' at index {}"},
    {2, kHandlers, "process_va_set_exclusions", "Set entries of '{}' to: {}"},
    {0, kHandlers, "process_va_set_exclusions", "setKey('{}'): {}"},

    {0, kHandlers, "process_get_version_info", "Failed to pack info into json: version={:s} patch={:s} {:s}"},
    {1, kHandlers, "process_get_subscription_status", "Failed to lock {} orverrno: {}"},
    {1, kHandlers, "process_get_subscription_status", "Failed to unlock {} orverrno: {}"},
    {1, kHandlers, "update_subscription_cb", "Failed to lock {} orverrno: {}"},
    {1, kHandlers, "update_subscription_cb", "Failed to unlock {} orverrno: {}"},

    {0, kExchange, "orvex_subscribe", "orvex_subscribe() failed; auto-retrying..."},
    {2, kExchange, "orvex_callback", "Received registration_status_changed event"},
    {0, kExchange, "orvex_callback", "unknown {:s} event"},
    {3, kExchange, "orvex_process_event", "{:s} event received"},
    {2, kExchange, "orvex_send_req", "successfully sent {:s} request: {:s}"},
    {0, kExchange, "orvex_send_req", "failed to send {:s} request: {:s}"},
    {0, kExchange, "orvex_send_req", "failed to find orvex response callback for {:s} request"},
    {2, kExchange, "orvex_send_msg", "successfully sent {:s} message: {:s}"},
    {0, kExchange, "orvex_send_msg", "failed to send {:s} message: {:s}"},
    {1, kExchange, "orvex_cloud_message", "Failed to send message to {:s}"},

    {3, kMeanings, "process_cloud_registration_status", "Message: (from:{} type:{} datalen:{} data:{})"},
    {0, kMeanings, "process_cloud_registration_status", "cloud_registration error: {:s} ({:s})"},
    {0, kMeanings, "orvex_process_registration_status_changed",
     "failed to process registration_status_changed event"},
    {1, kMeanings, "orvex_cloud_registration_status_cb",
     "failed to find connections for cloud_registration_status event"},
    {0, kMeanings, "orvex_cloud_registration_status_cb", "failed to process cloud_registration_status event"},
    {2, kMeanings, "orvex_default_cb", "send json: (from:{} type:{} datalen:{} data:{})"},
    {3, kMeanings, "process_guster_user_agent_event", "device with mac {:s} already has user-agent {:s}"},
    {2, kMeanings, "orvex_guster_user_agent_cb", "send json: {:s}"},
    {4, kMeanings, "orvex_orvagent_started_cb", "sending ACK for 'orvagent_started' event' ..."},
    {0, kMeanings, "orvex_orvagent_started_cb", "failed to send ACK for 'orvagent_started' event"},
    {2, kMeanings, "orvex_orvagent_started_cb", "send json: {{}}"},
};

std::regex pattern_of(const std::string& text)
{
    static const std::regex special(R"([\^\$\\\.\*\+\?\(\)\[\]\|])");
    static const std::regex braces(R"(\{\{\}\})");
    static const std::regex placeholder(R"(\{[^}]*\})");
    std::string pattern = std::regex_replace(text, special, R"(\$&)");
    pattern = std::regex_replace(pattern, braces, "\x01");
    pattern = std::regex_replace(pattern, placeholder, R"([^]*)");
    return std::regex(std::regex_replace(pattern, std::regex("\x01"), R"(\{\})"));
}

// ---- what makes the daemon speak

/// A command, and what the exchange may answer to the request that it sends.
struct Act {
    const char* name;
    const char* data;
    std::vector<std::pair<std::string, std::string>> answers = {}; ///< type and data
};

const std::vector<std::pair<std::string, std::string>> kCodes{{"0", "{}"}, {"7", "{}"}, {"busy", "{}"}};
const std::vector<std::pair<std::string, std::string>> kResults{{"0", R"({"result": true})"}, {"0", "{}"}};
const std::vector<std::pair<std::string, std::string>> kRegistrations{
    {"0", R"({"result": "ok"})"}, {"0", R"({"result": "no", "reason": "why"})"}, {"0", "no JSON"}};

const Act kActs[] = {
    {"start_cloud_registration", "{}", kRegistrations},
    {"start_registration", R"({"router_id": "r"})", kRegistrations},
    {"start_registration", R"({"token": "t", "mac": "m", "redeem": "r"})", kRegistrations},
    {"start_registration", "{}"},
    {"set_router_model", R"("model")", kResults},
    {"set_router_model", R"("other")", kResults},
    {"set_router_name", R"("")"},
    {"set_router_name", R"("name")", kCodes},
    {"set_router_name", R"("other")", kCodes},
    {"set_router_feature_set_level", R"("velm-pro")", kResults},
    {"set_router_feature_set_level", R"("velm-light-1.0")", kResults},
    {"set_router_feature_set_level", R"("none")"},
    {"set_router_interfaces", "[]"},
    {"set_router_interfaces",
     R"([{"name": "eth0", "type": "wan"}, {"name": "wl1", "type": "x"}, {"name": "w"}, {}])"},
    {"enable_services", ""},
    {"disable_services", ""},
    {"get_services_status", ""},
    {"get_subscription_status", ""},
    {"update_subscription_status", "", {{"0", "{}"}}},
    {"get_version_info", ""},
    {"set_device_name", R"({"device_id": "", "name": "n"})"},
    {"set_device_name", R"({"device_id": "d1", "name": ""})"},
    {"set_device_name", R"({"device_id": "d9", "name": "n"})"},
    {"set_device_name", R"({"device_id": "d1", "name": "given"})", kCodes},
    {"set_device_name", R"({"device_id": "d1", "name": "other"})", kCodes},
    {"set_device_traffic_blocked", R"({"device_id": "", "traffic_blocked": 1})"},
    {"set_device_traffic_blocked", R"({"device_id": "d1", "traffic_blocked": 2})"},
    {"set_device_traffic_blocked", R"({"device_id": "d9", "traffic_blocked": 1})"},
    {"set_device_traffic_blocked", R"({"device_id": "d1", "traffic_blocked": 0})"},
    {"set_device_traffic_blocked", R"({"device_id": "d1", "traffic_blocked": 1})", kCodes},
    {"set_device_online_status", R"({"device_id": "d1"})"},
    {"get_devices", ""},
    {"remove_satellite", R"({"mac": "no MAC"})"},
    {"remove_satellite", R"({"mac": "aa:bb:cc:00:00:09"})"},
    {"remove_satellite", R"({"mac": "aa:bb:cc:00:00:02"})"},
    {"remove_satellite", R"({"mac": "aa:bb:cc:00:00:01"})", kCodes},
    {"va_start", ""},
    {"va_stop", ""},
    {"va_status", "", {{"0", "{}"}, {"0", "no JSON"}}},
    {"va_self_scan_start", ""},
    {"va_set_schedule", "{}", {{"0", "{}"}, {"2", "busy"}, {"2", "\xff"}, {"none", ""}}},
    {"va_set_schedule", "5"},
    {"va_set_exclusions", "[1]"},
    {"va_set_exclusions", R"(["aa"])"},
    {"va_set_exclusions", R"(["aa:bb:cc:dd:ee:ff"])"},
    {"va_set_exclusions", R"(["aa:bb:cc:dd:ee:ff", "ba:bb:cc:dd:ee:ff", "ca:bb:cc:dd:ee:ff"])"},
    {"va_get_exclusions", ""},
    {"pro_features_enable", ""},
    {"pro_features_disable", ""},
    {"set_va_cloud_trigger", "true"},
    {"get_va_cloud_trigger", ""},
    {"get_router_name", ""},
    {"get_router_model", ""},
    {"get_router_feature_set_level", ""},
    {"get_router_interfaces", ""},
    {"reapply_firewall_rules", ""},
    {"get_feature", R"(["protection"])"},
    {"get_feature", "{}"},
    {"set_feature", R"({"protection": "disabled"})"},
    {"set_feature", "[]"},
    {"list_all_features", ""},
    {"get_diagnosis_report", ""},
    {"get_status_report", ""},
};

const Settings kRegistered{
    {"/registration/device_id", "r1"},
    {"/registration/user_token", "t"},
    {"/registration/tuvo_name", "name"},
    {"/registration/device_model", "model"},
    {"/registration/feature_set_level", "velm-pro"},
    {"/registration/mac", "aa:bb:cc:00:00:00"},
    {"/network/interfaces/old", "lan"},
    {"/tmp/daemons/orvbrokerd/d1/friendly_name", "given"},
    {"/tmp/subscription/global/status", "valid"},
    {"/tmp/subscription/global/expiry", "5"},
    {"/va/blacklist/exclusions/max_size", "2"},
};
const Settings kUnregistered{
    {"/leases/mode", "orvleases-ng"},
    {"/tmp/daemons/orvleases-ng/requests/count", "100"},
};
const Settings kListed{
    {"/registration/device_id", "r1"},
    {"/leases/mode", "orvleases-ng"},
    {"/va/blacklist/satellites", "aa:bb:cc:00:00:01"},
    {"/discovery/blacklist/satellites", "aa:bb:cc:00:00:01"},
};

using Seen =
    std::set<std::tuple<int, std::string, std::string, std::string>>; ///< level, file, function, text

void collect(fake::Fake& platform, Seen& seen)
{
    for (const LogLine& line : platform.take_logs())
        seen.emplace(line.level, line.file, line.function, line.text);
    platform.take_calls();
}

/// Whether the allocations of the C++ library itself can be made to fail: not where it is a shared one, as with the
/// sanitizers.
bool texts_can_lack_memory(fake::Fake& platform)
{
    platform.fail_memory("throwing new");
    try {
        const fake::Fake::Inside inside;
        (void)std::string(100, 'x').size();
    } catch (const std::bad_alloc&) { // it is told below
    }
    const bool can = platform.memory_failed("throwing new");
    platform.fail_memory("throwing new", 0);
    return can;
}

/// Nothing was logged that is not in the table, and all of it that comes from these files, or is said there
/// without memory in the name of these functions.
void expect_table(const Seen& seen, const std::set<std::string>& files,
                  const std::set<std::string>& without_memory)
{
    std::set<const Row*> missing;
    std::vector<std::pair<const Row*, std::regex>> patterns;
    for (const Row& row : kRows) {
        patterns.emplace_back(&row, pattern_of(row.text));
        if (row.file == kMemory ? without_memory.count(row.function) != 0 : files.count(row.file) != 0)
            missing.insert(&row);
    }
    for (const auto& [level, file, function, text] : seen) {
        bool is_known = false;
        for (const auto& [row, pattern] : patterns) {
            if (row->level != level || row->file != file || row->function != function ||
                !std::regex_match(text, pattern))
                continue;
            is_known = true;
            missing.erase(row);
        }
        EXPECT_TRUE(is_known) << "not in the table: " << level << " [" << file << "][" << function
                              << "()]: " << text;
    }
    for (const Row* row : missing)
        ADD_FAILURE() << "never seen: " << row->level << " [" << row->file << "][" << row->function
                      << "()]: " << row->text;
}

class LogLines : public ServiceTest {
protected:
    /// One command in one state of the stores, answered and not.
    void play(const Settings& settings, const Act& act)
    {
        run(settings, act, 0);
        for (std::size_t n = 0; n < act.answers.size(); ++n)
            run(settings, act, n);
    }

    /// The same, each time with the next failure, until none is left.
    void play_failing(const Settings& settings, const Act& act)
    {
        const std::size_t before = platform->fallible_calls();
        play(settings, act);
        const std::size_t count = platform->fallible_calls() - before;
        for (std::size_t n = 1; n <= count; ++n) {
            platform->fail_nth(platform->fallible_calls() + n);
            play(settings, act);
        }
        platform->fail_nth(0);
        for (unsigned n = 1, failed = 1; failed != 0; ++n) {
            platform->fail_json_allocation(n);
            play(settings, act);
            failed = platform->json_allocation_failed() ? 1 : 0;
            platform->fail_json_allocation(0);
        }
        starve([&] { play(settings, act); });
    }

    /// Does something with each allocation failing in turn that is made with exceptions.
    template <typename Action>
    void starve(const Action& action)
    {
        for (unsigned n = 1, failed = 1; failed != 0; ++n) {
            platform->fail_memory("throwing new", n);
            action();
            failed = platform->memory_failed("throwing new") ? 1 : 0;
            platform->fail_memory("throwing new", 0);
            collect();
        }
    }

    void ask_and_drain(const std::string& line)
    {
        Peer peer = connect();
        if (receive(peer, line + "\n") && drain(peer))
            destroy(peer);
        collect();
    }

    void collect() { test::collect(*platform, seen); }

    Seen seen;

private:
    void run(const Settings& settings, const Act& act, std::size_t answer)
    {
        platform->settings = settings;
        Peer peer = connect();
        bool is_open = receive_all(peer, command(act.name, act.data) + "\n");
        if (!platform->requests.empty() && answer < act.answers.size())
            platform->answer(act.answers[answer].second, act.answers[answer].first);
        else if (!platform->requests.empty())
            platform->answer("{}");
        read_exchange();
        is_open = is_open && drain(peer);
        if (is_open)
            destroy(peer);
        collect();
    }
};

devMgmt::Device device(const std::string& did, const std::string& mac)
{
    devMgmt::Device result = make_device(did, "r1");
    result.macs[sockutl::macaddr(mac)].insert(sockutl::address("192.168.1.20"));
    return result;
}

TEST_F(LogLines, HaveTheirLevelAndComeFromTheFunctionThatTheReaderKnows)
{
    platform->devices = {{"d1", device("d1", "aa:bb:cc:00:00:01")},
                         {"r1", device("r1", "aa:bb:cc:00:00:02")}};

    // Commands.
    for (const Settings& settings : {kRegistered, kUnregistered, kListed})
        for (const Act& act : kActs)
            play_failing(settings, act);
    for (const char* line :
         {"garbage", "{}", R"({"type": 5})", R"({"type": "subscribe"})", R"({"type": "x"})"})
        ask_and_drain(line);
    EXPECT_EQ(brokerd::process_set_router_interfaces(nullptr), 0);

    // Subscribers of everything, and whoever waits for a registration.
    std::vector<Peer> peers;
    for (const char* event : brokerd::kClientEvents) {
        peers.push_back(connect());
        (void)ask(peers.back(), subscription(event));
    }
    for (const Act& act : {kActs[0], kActs[1]})
        play(kRegistered, act);

    // Events of the exchange, with and without what they need.
    const char* sighting =
        R"({"src_ip": "1.2.3.4", "src_mac": "aa:aa:aa:aa:aa:aa", "user_agent": "log lines"})";
    for (const auto& [type, data] : std::vector<std::pair<std::string, std::string>>{
             {"registration_status_changed", R"({"result": "ok"})"},
             {"registration_status_changed", R"({"result": "no", "reason": "why"})"},
             {"registration_status_changed", "{}"},
             {"va_status_changed", "{}"},
             {"guster_user_agent", sighting},
             {"guster_user_agent", sighting},
             {"orvagent_started", "{}"},
             {"unheard_of", "{}"}}) {
        platform->deliver(type, data);
        read_exchange();
        collect();
        starve([&, &event_type = type, &payload = data] {
            platform->deliver(event_type, payload);
            read_exchange();
        });
    }
    platform->fail("orvex_send_response");
    platform->deliver("orvagent_started", "{}");
    read_exchange();
    collect();
    brokerd::orvex_send_req("unheard_of", "{}", brokerd::epollfd);
    platform->fail("orvex_send_message");
    const JsonPtr object(json_object());
    EXPECT_EQ(brokerd::orvex_cloud_message(brokerd::orvex, "agent", object.get()), 0);
    platform->fail("orvex_subscribe");
    EXPECT_EQ(brokerd::orvex_subscribe(), 0);
    collect();

    // Devices and the service subscription.
    using devMgmt::DevInfoChangeType;
    const devMgmt::Device& changed = platform->devices["d1"];
    for (const char* field : {"macs", "device_type", "friendly_name"}) {
        const auto change = [&] {
            const fake::Fake::Inside inside;
            brokerd::on_device_info_change_cb(DevInfoChangeType::updated, changed, field);
            brokerd::on_device_info_change_old_cb(DevInfoChangeType::updated, changed, field);
        };
        starve(change);
        change();
    }
    platform->fail("setMgmt::deleteKey");
    brokerd::on_device_info_change_cb(DevInfoChangeType::updated, changed, "friendly_name");
    EXPECT_EQ(brokerd::process_cached_events(brokerd::epollfd), 0);
    for (const char* status : {"valid", "valid", "none", "malformed"}) {
        platform->settings = {{"/tmp/subscription/global/status", status},
                              {"/tmp/subscription/global/expiry", "5"}};
        starve([] {
            const fake::Fake::Inside inside;
            (void)brokerd::on_subscription_changed_cb(brokerd::epollfd);
        });
    }
    platform->fail_from("subs::load()");
    (void)brokerd::on_subscription_changed_cb(brokerd::epollfd);
    (void)platform->forget_failures();
    collect();
    for (Peer& peer : peers) {
        peer.client.close();
        EXPECT_FALSE(handle(peer, EPOLLIN));
    }
    brokerd::on_device_info_change_cb(DevInfoChangeType::added, changed, "");
    EXPECT_EQ(brokerd::process_cached_events(brokerd::epollfd), -1);
    Cache<std::string, std::string> full(0, 1);
    EXPECT_FALSE(full.add("key", "value"));
    collect();

    std::set<std::string> without_memory{"process_client_events", "on_device_info_change_old_cb",
                                         "on_device_info_change_cb", "on_subscription_changed_cb"};
    if (texts_can_lack_memory(*platform))
        without_memory.insert(
            {"orvex_response_trampoline", "orvex_callback", "orvex_cloud_registration_status_cb"});
    expect_table(seen, {kEvents, kClientEvents, kHandlers, kExchange, kMeanings, kCache}, without_memory);
}

// ---- start-up, the loop, the listening socket

class SpineLogLines : public PlatformTest {
protected:
    /// A life in which a client comes and goes, the timers fire, and waiting fails in the end.
    void live()
    {
        Client client;
        platform->on_wait([&] { client.connect(); });
        platform->on_wait([&] { platform->expire("timer1"); });
        platform->on_wait_fail(EINTR);
        platform->on_wait_fail(EIO);
        (void)run_daemon();
        collect(*platform, seen);
    }

    Seen seen;
};

TEST_F(SpineLogLines, HaveTheirLevelAndComeFromTheFunctionThatTheReaderKnows)
{
    live();
    const std::size_t count = platform->fallible_calls();
    for (std::size_t n = 1; n <= count; ++n) {
        renew_platform();
        platform->fail_nth(n);
        live();
    }
    for (const char* kind : {"new", "malloc", "throwing new"}) {
        for (unsigned n = 1, failed = 1; failed != 0; ++n) {
            renew_platform();
            platform->fail_memory(kind, n);
            live();
            failed = platform->memory_failed(kind) ? 1 : 0;
        }
    }
    renew_platform();
    platform->settings["/daemons/orvbrokerd/allowed_uids"] = "nobody";
    platform->peer_uid = 4321;
    platform->now += 7000;
    live();
    renew_platform();
    EXPECT_EQ(brokerd::create_server_socket("no address"), -1);
    collect(*platform, seen);

    std::set<std::string> without_memory{"run"};
    if (texts_can_lack_memory(*platform))
        without_memory.insert("init");
    expect_table(seen, {kSpine, kAdmission, kSock}, without_memory);
}

} // namespace
} // namespace orv::test
