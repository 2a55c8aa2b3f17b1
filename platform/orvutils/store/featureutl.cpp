// A feature that is not mentioned in the settings store is on.

#include <orvutils/featureutl.h>

#include <orvutils/error.h>
#include <orvutils/setmgmt.h>

#include <algorithm>
#include <array>
#include <string>

namespace orv::featureutl {

namespace {

constexpr std::array<std::string_view, 8> kNames = {
    "protection", "device_discovery", "user_agent_detection", "traffic_blocking",
    "va_scan",    "va_self_scan",     "satellites",           "telemetry",
};
static_assert(static_cast<std::size_t>(Feature::telemetry) + 1 == kNames.size(), "every feature has a name");

constexpr std::array<std::string_view, 2> kStatusTexts = {"disabled", "enabled"};

/// The index of a text in a list, which is its value in the enumeration; -1 when it is not there.
template <std::size_t size>
int index_of(const std::array<std::string_view, size>& texts, std::string_view text)
{
    const auto found = std::find(texts.begin(), texts.end(), text);
    return found == texts.end() ? -1 : static_cast<int>(found - texts.begin());
}

template <std::size_t size>
std::string_view text_at(const std::array<std::string_view, size>& texts, int index)
{
    const auto place = static_cast<std::size_t>(index);
    return index < 0 || place >= size ? std::string_view{} : texts.at(place);
}

std::string feature_key(std::string_view name)
{
    return "/features/" + std::string(name);
}

bool is_absence(int result)
{
    return result == -static_cast<int>(Error::no_such_key) || result == -static_cast<int>(Error::no_value);
}

} // namespace

bool init()
{
    std::string value;
    const int result = setMgmt::getKey("/features", value);
    return result >= 0 || is_absence(result);
}

void uninit() {}

std::vector<Feature> list_features()
{
    std::vector<Feature> features;
    for (std::size_t i = 0; i < kNames.size(); ++i)
        features.push_back(static_cast<Feature>(i));
    return features;
}

Feature str_to_feature(std::string_view name)
{
    return static_cast<Feature>(index_of(kNames, name));
}

std::string_view feature_to_str(Feature feature)
{
    return text_at(kNames, static_cast<int>(feature));
}

FeatureStatus str_to_feature_status(std::string_view text)
{
    return static_cast<FeatureStatus>(index_of(kStatusTexts, text));
}

std::string_view feature_status_to_str(FeatureStatus status)
{
    return text_at(kStatusTexts, static_cast<int>(status));
}

FeatureStatus get_feature(Feature feature)
{
    const std::string_view name = feature_to_str(feature);
    if (name.empty())
        return FeatureStatus::unknown;
    std::string text;
    const int result = setMgmt::getKey(feature_key(name), text);
    if (is_absence(result))
        return FeatureStatus::enabled;
    return result < 0 ? FeatureStatus::unknown : str_to_feature_status(text);
}

int set_feature(Feature feature, FeatureStatus status)
{
    const std::string_view name = feature_to_str(feature);
    const std::string_view text = feature_status_to_str(status);
    if (name.empty() || text.empty())
        return 0;
    return setMgmt::setKey(feature_key(name), std::string(text)) == 0 ? 1 : 0;
}

} // namespace orv::featureutl
