// The settings store, and what lives in it: features, subscriptions, the leases mode.

#include "fake.h"

#include <orvbase/error_number.h>

#include <orvutils/featureutl.h>
#include <orvutils/leases.h>
#include <orvutils/subs.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <set>
#include <utility>

using orv::fake::Fake;

namespace {

Fake& platform()
{
    return *Fake::current();
}

template <typename Number>
bool parse(const std::string& text, Number& number)
{
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    return !text.empty() && result.ec == std::errc() && result.ptr == end;
}

} // namespace

namespace orv::setMgmt {

namespace {

bool has_children(const std::string& key)
{
    const Fake::Calm calm;
    const auto next = platform().settings.lower_bound(key + "/");
    return next != platform().settings.end() && next->first.compare(0, key.size() + 1, key + "/") == 0;
}

/// Records the use of a key. 0, or what it has to return.
int use(const char* what, const std::string& key, const std::string& more = {})
{
    const Fake::Calm calm;
    Fake& fake = platform();
    if (fake.fails(std::string("setMgmt::") + what + "(" + key + more + ")"))
        return -fake.error();
    const auto error = fake.setting_errors.find(key);
    return error == fake.setting_errors.end() ? 0 : base::fail(static_cast<Error>(error->second));
}

int read(const std::string& key, std::string& value)
{
    const Fake::Calm calm;
    const auto found = platform().settings.find(key);
    if (found == platform().settings.end())
        return base::fail(has_children(key) ? Error::no_value : Error::no_such_key);
    value = found->second;
    return static_cast<int>(value.size());
}

} // namespace

int init()
{
    const Fake::Calm calm;
    return platform().fails("setMgmt::init()") ? -platform().error() : 0;
}

void uninit()
{
    const Fake::Calm calm;
    platform().note("setMgmt::uninit()");
}

int getKey(const std::string& key, std::string& value)
{
    const Fake::Calm calm;
    const int result = use("getKey", key);
    return result < 0 ? result : read(key, value);
}

int getKeyValue(const std::string& key, int fallback)
{
    const Fake::Calm calm;
    std::string value;
    int number = 0;
    if (use("getKeyValue", key, ", " + std::to_string(fallback)) < 0 || read(key, value) < 0 ||
        !parse(value, number))
        return fallback;
    return number;
}

std::string getKeyValue(const std::string& key, const std::string& fallback)
{
    const Fake::Calm calm;
    std::string value;
    if (use("getKeyValue", key, ", \"" + fallback + "\"") < 0 || read(key, value) < 0)
        return fallback;
    return value;
}

int setKey(const std::string& key, const std::string& value)
{
    const Fake::Calm calm;
    if (const int result = use("setKey", key, ", " + value); result < 0)
        return result;
    if (key.empty() || key.size() > kMaxKeySize || value.size() > kMaxValueSize)
        return base::fail(Error::invalid_argument);
    platform().settings[key] = value;
    return 0;
}

int deleteKey(const std::string& key)
{
    const Fake::Calm calm;
    if (const int result = use("deleteKey", key); result < 0)
        return result;
    auto& settings = platform().settings;
    const bool found = settings.count(key) != 0 || has_children(key);
    settings.erase(key);
    while (has_children(key))
        settings.erase(settings.lower_bound(key + "/"));
    return found ? 0 : base::fail(Error::no_such_key);
}

int enumSubkeys(const std::string& key, std::vector<std::string>& names)
{
    const Fake::Calm calm;
    if (const int result = use("enumSubkeys", key); result < 0)
        return result;
    const std::string prefix = key + "/";
    std::set<std::string> found;
    for (const auto& setting : platform().settings)
        if (setting.first.compare(0, prefix.size(), prefix) == 0)
            found.insert(
                setting.first.substr(prefix.size(), setting.first.find('/', prefix.size()) - prefix.size()));
    names.assign(found.begin(), found.end());
    return static_cast<int>(names.size());
}

// What a batch holds is seen at once here, and is taken back if it is not committed.

Batch::Batch()
{
    const Fake::Calm calm;
    platform().note("setMgmt::Batch()");
    platform().before_batch = platform().settings;
}

Batch::~Batch()
{
    const Fake::Calm calm;
    if (platform().before_batch)
        platform().settings = *std::exchange(platform().before_batch, std::nullopt);
}

int Batch::commit()
{
    const Fake::Calm calm;
    if (platform().fails("setMgmt::Batch::commit()"))
        return -platform().error();
    platform().before_batch.reset();
    return 0;
}

int lockKey(const std::string& key)
{
    const Fake::Calm calm;
    const int result = use("lockKey", key);
    if (result >= 0)
        platform().locked.insert(key);
    return result;
}

int unlockKey(const std::string& key)
{
    const Fake::Calm calm;
    platform().locked.erase(key); // as far as the daemon is concerned, also when it fails
    return use("unlockKey", key);
}

// ---- the watch

namespace {

void need_memory()
{
    if (platform().memory_fails("watch"))
        throw std::bad_alloc();
}

} // namespace

class MonitoredKey::Watch {
public:
    Watch(const char* key, void* user) : m_key(key), m_user(user) {}

    path m_key;
    void* m_user;
};

MonitoredKey::MonitoredKey(const char* key, Callback callback, bool notify_now, void* user, bool keep)
    : m_watch(std::make_unique<Watch>(key, user))
{
    const Fake::Calm calm;
    need_memory();
    platform().note("MonitoredKey(" + m_watch->m_key.str() + (notify_now ? ", true, " : ", false, ") +
                    (user ? "user" : "null") + (keep ? ", true)" : ", false)"));
    platform().watch_callback = std::move(callback);
    if (platform().fd("watch") == -1)
        platform().name_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "watch");
}

MonitoredKey::~MonitoredKey()
{
    cancel();
}

int MonitoredKey::get_fd() const
{
    const Fake::Calm calm;
    need_memory();
    return platform().fails("MonitoredKey::get_fd()") ? -1 : platform().fd("watch");
}

void MonitoredKey::read_notifications()
{
    const Fake::Calm calm;
    platform().note("MonitoredKey::read_notifications()");
    eventfd_t pending = 0;
    if (eventfd_read(platform().fd("watch"), &pending) != 0 || !platform().watch_callback)
        return;
    const bool goes_on = platform().watch_callback(m_watch->m_key, m_watch->m_user);
    platform().note(goes_on ? "the watch's callback returned true" : "the watch's callback returned false");
}

void MonitoredKey::cancel()
{
    const Fake::Calm calm;
    platform().note("MonitoredKey::cancel()");
    platform().watch_callback = nullptr;
}

} // namespace orv::setMgmt

// ---- features

namespace orv::featureutl {

namespace {

constexpr std::array<std::string_view, 8> kNames{
    "protection", "device_discovery", "user_agent_detection", "traffic_blocking",
    "va_scan",    "va_self_scan",     "satellites",           "telemetry",
};
constexpr std::array<std::string_view, 2> kStatuses{"disabled", "enabled"};

template <typename Value, typename Texts>
Value to_value(std::string_view text, const Texts& texts)
{
    const auto found = std::find(texts.begin(), texts.end(), text);
    return found == texts.end() ? Value(-1) : Value(static_cast<int>(found - texts.begin()));
}

template <typename Value, typename Texts>
std::string_view to_text(Value value, const Texts& texts)
{
    const auto index = static_cast<std::size_t>(value);
    return index < texts.size() ? texts[index] : std::string_view();
}

std::string key_of(Feature feature)
{
    return "/features/" + std::string(feature_to_str(feature));
}

} // namespace

bool init()
{
    const Fake::Calm calm;
    return !platform().fails("featureutl::init()");
}

void uninit()
{
    const Fake::Calm calm;
    platform().note("featureutl::uninit()");
}

std::vector<Feature> list_features()
{
    const Fake::Calm calm;
    platform().note("featureutl::list_features()");
    if (platform().features)
        return *platform().features;
    std::vector<Feature> features;
    features.reserve(kNames.size());
    for (const auto& name : kNames)
        features.push_back(str_to_feature(name));
    return features;
}

Feature str_to_feature(std::string_view name)
{
    return to_value<Feature>(name, kNames);
}

std::string_view feature_to_str(Feature feature)
{
    return to_text(feature, kNames);
}

FeatureStatus str_to_feature_status(std::string_view text)
{
    return to_value<FeatureStatus>(text, kStatuses);
}

std::string_view feature_status_to_str(FeatureStatus status)
{
    return to_text(status, kStatuses);
}

FeatureStatus get_feature(Feature feature)
{
    const Fake::Calm calm;
    if (platform().fails("featureutl::get_feature(" + std::string(feature_to_str(feature)) + ")") ||
        feature == Feature::unknown)
        return FeatureStatus::unknown;
    const auto found = platform().settings.find(key_of(feature));
    return found == platform().settings.end() ? FeatureStatus::enabled : str_to_feature_status(found->second);
}

int set_feature(Feature feature, FeatureStatus status)
{
    const Fake::Calm calm;
    const std::string text(feature_status_to_str(status));
    if (platform().fails("featureutl::set_feature(" + std::string(feature_to_str(feature)) + ", " + text +
                         ")") ||
        feature == Feature::unknown || status == FeatureStatus::unknown)
        return 0;
    if (platform().stubborn_features.count(feature) == 0)
        platform().settings[key_of(feature)] = text;
    return 1;
}

} // namespace orv::featureutl

// ---- subscriptions

namespace orv::subs {

namespace {

constexpr std::array<std::string_view, 3> kStatuses{"valid", "expired", "none"};
const std::string kRoot = "/tmp/subscription/";

} // namespace

Status status_from_str(std::string_view text)
{
    const auto found = std::find(kStatuses.begin(), kStatuses.end(), text);
    return found == kStatuses.end() ? Status::none : Status(static_cast<int>(found - kStatuses.begin()));
}

std::string_view status_to_str(Status status)
{
    const auto index = static_cast<std::size_t>(status);
    return index < kStatuses.size() ? kStatuses[index] : kStatuses.back();
}

path status_key(std::string_view name)
{
    return path(kRoot) / name / "status";
}

path expiry_key(std::string_view name)
{
    return path(kRoot) / name / "expiry";
}

bool MultiSubscription::load()
{
    const Fake::Calm calm;
    if (platform().fails("subs::load()"))
        return false;
    m_subscriptions.clear();
    for (const auto& [key, value] : platform().settings) {
        if (key.compare(0, kRoot.size(), kRoot) != 0)
            continue;
        const auto slash = key.find('/', kRoot.size());
        const std::string name = key.substr(kRoot.size(), slash - kRoot.size());
        if (key == status_key(name).str())
            m_subscriptions[name].status = status_from_str(value);
        else if (key == expiry_key(name).str() && !parse(value, m_subscriptions[name].expiry))
            return false;
    }
    return true;
}

Subscription MultiSubscription::get(std::string_view name) const
{
    const auto found = m_subscriptions.find(name);
    return found == m_subscriptions.end() ? Subscription() : found->second;
}

} // namespace orv::subs

// ---- the leases mode

namespace orv {

OrvleasesMode get_orvleases_mode()
{
    const Fake::Calm calm;
    platform().note("get_orvleases_mode()");
    const auto found = platform().settings.find("/leases/mode");
    const std::string mode = found == platform().settings.end() ? "" : found->second;
    int number = 0;
    if (parse(mode, number)) // one that the library has no name for
        return static_cast<OrvleasesMode>(number);
    return mode == "orvleases-ng" ? OrvleasesMode::ng : OrvleasesMode::orv;
}

std::string_view orvleases_mode_to_str(OrvleasesMode mode)
{
    switch (mode) {
    case OrvleasesMode::orv:
        return "orvleases-orv";
    case OrvleasesMode::ng:
        return "orvleases-ng";
    }
    return "(unknown)";
}

} // namespace orv
