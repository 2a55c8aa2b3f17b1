#pragma once

#include <array>

// The events that clients can subscribe to. Any other name is accepted, too, and never sent.

namespace orv::brokerd {

constexpr char kDevicesListUpdated[] = "devices_list_updated"; ///< what became of devices, gathered
constexpr char kDeviceDiscovery[] = "device_discovery";        ///< a field of a device, a user agent seen
constexpr char kSubscriptionChanged[] = "subscription_changed";
constexpr char kCloudRegistrationStatus[] = "cloud_registration_status";
constexpr char kOrvagentStarted[] = "orvagent_started";
constexpr char kVaStatusChanged[] = "va_status_changed";

inline constexpr std::array kClientEvents{
    kDevicesListUpdated,      kDeviceDiscovery, kSubscriptionChanged,
    kCloudRegistrationStatus, kOrvagentStarted, kVaStatusChanged,
};

} // namespace orv::brokerd
