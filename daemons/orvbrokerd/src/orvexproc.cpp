// What exchange events mean for the daemon's clients: which client event each belongs to, how its payload
// becomes the text that subscribers receive, which are acknowledged and which change the reported agent
// status.

#include "orvexproc.h"

#include "agent_status.h"
#include "client_events.h"
#include "evhandler.h"
#include "formatters.h"
#include "state.h"
#include "within_memory.h"

#include <orvutils/log_format.h>
#include <orvutils/orvcommon/cache.h>

#include <cstring>
#include <optional>

namespace orv::brokerd {
namespace {

/// User agents seen lately by MAC address: how many, and for how many seconds at least.
constexpr unsigned kUserAgentCacheCapacity = 1024;
constexpr int kUserAgentCacheLifetime = 120;

/// Moves a member to a new key. False when there is no such member.
bool rename_member(json_t* object, const char* from, const char* to)
{
    json_t* value = json_object_get(object, from);
    if (!value)
        return false;
    return json_object_set(object, to, value) == 0 && json_object_del(object, from) == 0;
}

std::optional<Cache<std::string, std::string>> g_user_agents; ///< from the first sighting on

Cache<std::string, std::string>& user_agent_cache()
{
    if (!g_user_agents)
        g_user_agents.emplace(kUserAgentCacheCapacity, kUserAgentCacheLifetime);
    return *g_user_agents;
}

} // namespace

void forget_user_agents()
{
    g_user_agents.reset();
}

const std::unordered_map<std::string, std::vector<std::pair<std::string, EventCallback>>> g_exchange_events{
    {kDeviceDiscovery, {{"guster_user_agent", orvex_guster_user_agent_cb}}},
    {kOrvagentStarted, {{"orvagent_started", orvex_orvagent_started_cb}}},
    {kVaStatusChanged, {{"va_status_changed", orvex_va_status_changed_cb}}},
};

const std::unordered_map<std::string, LibraryCallback> g_request_callbacks{
    {"start_cloud_registration", orvex_cloud_registration_status_cb},
};

// ---- registration

RegistrationStatus process_cloud_registration_status(const Message* msg)
{
    ORV_LOG(log::kDebug, "Message: {}", *msg);
    const JsonPtr root = parse_payload(msg);
    const char* result = json_string_value(json_object_get(root.get(), "result"));
    if (!result)
        return {0, nullptr};
    if (std::strcmp(result, "ok") == 0) {
        const JsonPtr status(json_pack("{s:b}", "successful", 1));
        return {1, dump(status.get())};
    }

    const char* reason = json_string_value(json_object_get(root.get(), "reason"));
    if (!reason)
        return {0, nullptr};
    ORV_LOG(log::kError, "cloud_registration error: {:s} ({:s})", result, reason);
    const JsonPtr status(json_pack("{s:b,s:s,s:s}", "successful", 0, "error", result, "reason", reason));
    return {0, dump(status.get())};
}

void orvex_process_registration_status_changed(const Message* msg)
{
    RegistrationStatus status = process_cloud_registration_status(msg);
    if (!status.json) {
        ORV_LOG(log::kError, "failed to process registration_status_changed event");
        return;
    }
    report_agent_status(static_cast<AgentStatus>(status.ok), std::move(status.json));
}

namespace {

void tell_registration_status(const Message* answer, int epfd, log::Caller caller)
{
    const auto conns = find_connections(kCloudRegistrationStatus);
    if (conns.empty()) {
        ORV_LOG_AS(caller, log::kWarning, "failed to find connections for cloud_registration_status event");
        return;
    }
    const RegistrationStatus status = process_cloud_registration_status(answer);
    if (!status.json) {
        ORV_LOG_AS(caller, log::kError, "failed to process cloud_registration_status event");
        return;
    }

    queue_frames(conns, status.json.get(), epfd);
    if (status.ok == 1)
        report_agent_status(AgentStatus::registered, /*extra=*/nullptr);
}

} // namespace

void orvex_cloud_registration_status_cb(void* arg, const Message* answer)
{
    const log::Caller caller = log::caller();
    const int epfd = *static_cast<const int*>(arg);
    (void)within_memory([&] { tell_registration_status(answer, epfd, caller); }); // it has said so
}

// ---- events for subscribers

int orvex_default_cb(const std::vector<Connection*>& conns, const Message* msg)
{
    put_frames(conns, {msg->data, msg->datalen});
    ORV_LOG(log::kInfo, "send json: {}", *msg);
    return 0;
}

int orvex_va_status_changed_cb(const std::vector<Connection*>& conns, const Message* msg)
{
    return orvex_default_cb(conns, msg);
}

int process_guster_user_agent_event(const Message* msg, char** out_json, int* out_len)
{
    const JsonPtr root = parse_payload(msg);
    if (!rename_member(root.get(), "src_ip", "ip") || !rename_member(root.get(), "src_mac", "mac"))
        return -1;

    const char* mac = json_string_value(json_object_get(root.get(), "mac"));
    const char* user_agent = json_string_value(json_object_get(root.get(), "user_agent"));
    if (!mac || !user_agent)
        return -1;
    if (user_agent_cache().exists(mac, user_agent)) {
        ORV_LOG(log::kDebug, "device with mac {:s} already has user-agent {:s}", mac, user_agent);
        return -1;
    }
    (void)user_agent_cache().add(mac, user_agent); // when it is full, clients may see a sighting twice

    TextPtr text = dump(root.get());
    if (!text)
        return -1;
    *out_len = static_cast<int>(std::strlen(text.get()));
    *out_json = text.release();
    return 0;
}

int orvex_guster_user_agent_cb(const std::vector<Connection*>& conns, const Message* msg)
{
    char* json = nullptr;
    int len = 0;
    if (process_guster_user_agent_event(msg, &json, &len) == -1)
        return -1;
    const TextPtr text(json);
    put_frames(conns, {json, static_cast<std::size_t>(len)});
    ORV_LOG(log::kInfo, "send json: {:s}", json);
    return 0;
}

int orvex_orvagent_started_cb(const std::vector<Connection*>& conns, const Message* msg)
{
    static constexpr char kAck[] = "orvagent_started_ack";
    static constexpr char kEvent[] = "{}";

    ORV_LOG(log::kTrace, "sending ACK for 'orvagent_started' event' ...");
    if (orvex_send_response(orvex, /*status=*/0, msg->request_id, kAck, sizeof kAck - 1) != 0) {
        ORV_LOG(log::kError, "failed to send ACK for 'orvagent_started' event");
        return -1;
    }
    put_frames(conns, kEvent);
    ORV_LOG(log::kInfo, "send json: {}", kEvent);
    return 0;
}

} // namespace orv::brokerd
