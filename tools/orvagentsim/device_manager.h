#pragma once

#include "call.h"
#include "exchange.h"
#include "home.h"

/// What "broker-devmgmt" does: it keeps the device records, and its answers say whether they were changed.
namespace orvagentsim {

/// Publishes "guster_user_agent": {"src_ip": ..., "src_mac": ..., "user_agent": ...}.
void publish_sighting(Exchange& exchange, const Sighting& sighting);

/// {"connect_destination": {"device_id": ...}, "friendly_name": ...}: names the device. Without the
/// destination the router itself is meant, whose name is kept by the one who asks.
[[nodiscard]] Reply set_friendly_name(const Call& call);

/// {"connect_destination": {"device_id": ...}, "blocked": 0|1}: blocks or unblocks the device's traffic.
[[nodiscard]] Reply set_traffic_status(const Call& call);

/// Any JSON: somebody's report of devices that are online. Taken note of.
[[nodiscard]] Reply set_online_status(const Call& call);

/// {"macs": [...], "tuvo_detected_name": ..., "device_model": ... or "feature_set_level": [...]}: tells the
/// cloud what the router is. The answer is {"result": "ok"}.
[[nodiscard]] Reply register_tuvo(const Call& call);

/// {"device_ids": [...]}: forgets devices, all of them or none.
[[nodiscard]] Reply remove_satellites(const Call& call);

} // namespace orvagentsim
