#pragma once

#include <orvutils/path.h>

namespace orv {

// Keys of the settings store that several daemons share.
inline const path kDeviceIdKey{"/registration/device_id"}; ///< the router's own device id
inline const path kUserTokenKey{"/registration/user_token"};
inline const path kRegistrationTuvoNameKey{"/registration/tuvo_name"};
inline const path kRegistrationDeviceModelKey{"/registration/device_model"};
inline const path kRegistrationFeatureSetLevelKey{"/registration/feature_set_level"};
inline const path kRegistrationMacKey{"/registration/mac"};
inline const path kNetworkInterfacesKey{"/network/interfaces"};
inline const path kProtectionEnabledKey{"/protection/enabled"};
constexpr int kProtectionEnabledDefault = 1;
inline const path kProFeaturesEnabledKey{"/protection/pro_features_enabled"};
inline const path kVaCloudTriggerKey{"/va/cloud_trigger"};
inline const path kVaBlacklistExclusionsKey{"/va/blacklist/exclusions"};
inline const path kVaBlacklistSatellitesKey{"/va/blacklist/satellites"};
inline const path kDiscoveryBlacklistSatellitesKey{"/discovery/blacklist/satellites"};

} // namespace orv
