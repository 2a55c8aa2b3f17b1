// The handlers of the client commands. Each takes what the dispatcher has checked by the command table, reads
// or changes the stores or asks another daemon over the exchange, and returns; nothing here waits.

#include "commandsproc.h"

#include "orvbrokerd.h"
#include "orvex.h"

#include <orvutils/keys.h>
#include <orvutils/log_format.h>
#include <orvutils/setmgmt.h>

namespace orv::brokerd {
namespace {

constexpr char kEmptyPayload[] = "{}";

int set_flag(const path& key, const char* value, const char* failure)
{
    if (setMgmt::setKey(key, value) >= 0)
        return kDone;
    ORV_LOG(log::kError, fmt::runtime(failure));
    return kFailed;
}

int send_empty_message(const char* name)
{
    return orvex_send_msg(name, kEmptyPayload) == 0 ? kDone : kFailed;
}

} // namespace

// ---- protection services
// -----------------------------------------------------------------------------------

int process_enable_services()
{
    if (set_flag(kProtectionEnabledKey, "1", "failed to set protection_enabled key to 1") != kDone)
        return kFailed;
    report_agent_status(AgentStatus::activated, nullptr);
    return kDone;
}

int process_disable_services()
{
    if (set_flag(kProtectionEnabledKey, "0", "failed to set protection_enabled key to 0") != kDone)
        return kFailed;
    report_agent_status(AgentStatus::deactivated, nullptr);
    return kDone;
}

int process_get_services_status(json_t*& response)
{
    static const std::string fallback = fmt::format("{:d}", kProtectionEnabledDefault);
    const std::string value = setMgmt::getKeyValue(kProtectionEnabledKey, fallback);
    if (value != "0" && value != "1")
        return kFailed;
    set_response(response, JsonPtr(json_pack("{s:i}", "status", value == "1" ? 1 : 0)));
    return kDone;
}

int process_pro_features_enable()
{
    return set_flag(kProFeaturesEnabledKey, "1", "failed to set kProFeaturesEnabledKey key to 1");
}

int process_pro_features_disable()
{
    return set_flag(kProFeaturesEnabledKey, "0", "failed to set kProFeaturesEnabledKey key to 0");
}

// ---- registration
// ------------------------------------------------------------------------------------------

int process_start_cloud_registration(json_t* data)
{
    const TextPtr payload(json_dumps(data, 0));
    if (!payload)
        return kFailed;
    orvex_send_req("start_cloud_registration", payload.get(), epollfd);
    return kDone;
}

// ---- vulnerability assessment
// ------------------------------------------------------------------------------

int process_set_va_cloud_trigger(json_t* data)
{
    if (!json_is_boolean(data) && !json_is_integer(data))
        return kFailed;
    const bool on = json_is_true(data) || json_integer_value(data) != 0;
    return set_flag(kVaCloudTriggerKey, on ? "1" : "0", "failed to set kVaCloudTriggerKey key");
}

int process_va_start()
{
    return send_empty_message("orvvad:va_network_scan_start");
}

int process_va_stop()
{
    return send_empty_message("orvvad:va_scan_stop");
}

int process_va_self_scan_start()
{
    return send_empty_message("orvvad:va_self_scan_start");
}

int process_va_status(Connection* conn, int epfd)
{
    const int sent =
        orvex_send_req("orvvad:va_scan_status", kEmptyPayload, get_va_scan_status_cb, nullptr, conn, epfd);
    return sent == 1 ? kPending : kFailed;
}

Result get_va_scan_status_cb(const Message* response, json_t*& out, void* /*arg*/)
{
    // The scanner's object goes to the client unchanged; where there is none, the client gets no answer.
    set_response(out, JsonPtr(json_loadb(response->data, response->datalen, 0, nullptr)));
    return out ? kDone : kFailed;
}

} // namespace orv::brokerd
