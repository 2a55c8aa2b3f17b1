#pragma once

#include "answer.h"
#include "connection.h"

#include <orvexchange/orvexchange.h>
#include <orvutils/path.h>

#include <optional>
#include <string>
#include <unordered_set>

// The handlers of the client commands. A handler returns kDone, kFailed or, when it has sent a request over
// the exchange, kPending; what it leaves in `out` (an owned value, JSON null beforehand) becomes the
// answer's data. A response callback works the same way on the exchange's answer.

namespace orv::brokerd {

// Registration. The outcome reaches clients as the event "cloud_registration_status".
Result process_start_cloud_registration(json_t* data);
Result process_start_registration(json_t* data, json_t*& out);
Result process_register(json_t* data, json_t*& out);

// Features.
Result process_get_feature(const json_t* data, json_t*& out);
Result process_set_feature(const json_t* data, json_t*& out);
Result process_get_features_list(json_t*& out);

// Devices.
Result process_get_devices(json_t* data, json_t*& out);
Result process_set_device_name(json_t* data, Connection* conn, int epfd);
Result set_friendly_name_cb(const Message* answer, json_t*& out, void* arg);
Result process_set_device_traffic_blocked(json_t* data, Connection* conn, int epfd);
Result set_device_traffic_blocked_cb(const Message* answer, json_t*& out, void* arg);
Result process_set_device_online_status(json_t* data);

// The router's identity and interfaces.
Result process_get_router_name(json_t*& out);
Result process_get_router_model(json_t*& out);
Result process_get_router_feature_set_level(json_t*& out);
Result process_set_router_name(const std::string& name, Connection* conn, int epfd);
Result process_set_router_model(const std::string& model, Connection* conn, int epfd);
Result process_set_router_feature_set_level(const std::string& level, Connection* conn, int epfd);
Result set_router_model_cb(const Message* answer, json_t*& out, void* arg);
Result set_feature_set_level_cb(const Message* answer, json_t*& out, void* arg);
Result process_get_router_interfaces(json_t*& out);
Result process_set_router_interfaces(json_t* data);
Result process_reapply_firewall_rules();

// Satellites.
Result process_remove_satellite(const json_t* data, Connection* conn, int epfd, json_t*& out);
Result remove_satellite_cb(const Message* answer, json_t*& out, void* arg);

/// The entries of a key that holds a list joined with ","; empty when the key cannot be read.
[[nodiscard]] std::optional<std::unordered_set<std::string>> get_key_with_sep(const path& key);

/// Adds an entry to such a key. 0 when it is there now, below 0 on failure. Takes the key's lock and keeps
/// it.
[[nodiscard]] int blacklist_add(const path& key, const std::string& entry);

// Vulnerability assessment.
Result process_va_start();
Result process_va_stop();
Result process_va_self_scan_start();
Result process_va_status(Connection* conn, int epfd);
Result get_va_scan_status_cb(const Message* answer, json_t*& out, void* arg);
Result process_va_set_schedule(const json_t* data, Connection* conn, int epfd);
Result va_set_schedule_cb(const Message* answer, json_t*& out, void* arg);
Result process_va_set_exclusions(const json_t* data, json_t*& out);
Result process_va_get_exclusions(json_t*& out);
Result process_get_va_cloud_trigger(json_t*& out);

// Reports.
Result process_get_version_info(json_t*& out);
Result process_get_subscription_status(json_t*& out);
Result process_update_subscription_status(Connection* conn, int epfd);
Result update_subscription_cb(const Message* answer, json_t*& out, void* arg);
Result process_get_diagnosis_report(json_t*& out);
Result process_get_status_report(json_t*& out);

} // namespace orv::brokerd
