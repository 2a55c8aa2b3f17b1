#pragma once

#include <string_view>
#include <vector>

/// The agent's features and their states, kept in the settings store under /features/NAME.
namespace orv::featureutl {

enum class Feature : int {
    unknown = -1,
    protection = 0,
    device_discovery,
    user_agent_detection,
    traffic_blocking,
    va_scan,
    va_self_scan,
    satellites,
    telemetry,
};

enum class FeatureStatus : int {
    unknown = -1,
    disabled = 0,
    enabled = 1, ///< the default
};

/// Prepares the library; the settings store must be open. False on failure.
[[nodiscard]] bool init();
void uninit();

/// All features.
[[nodiscard]] std::vector<Feature> list_features();

/// -1 for an unknown name or text; an empty text for an unknown value.
[[nodiscard]] Feature str_to_feature(std::string_view name);
[[nodiscard]] std::string_view feature_to_str(Feature feature);
[[nodiscard]] FeatureStatus str_to_feature_status(std::string_view text);
[[nodiscard]] std::string_view feature_status_to_str(FeatureStatus status);

/// The feature's state, or -1 when it is unknown or cannot be read.
[[nodiscard]] FeatureStatus get_feature(Feature feature);
/// Not 0 on success, 0 on failure.
[[nodiscard]] int set_feature(Feature feature, FeatureStatus status);

} // namespace orv::featureutl
