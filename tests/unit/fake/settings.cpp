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

/// The key as "/a/b", "/" for the root; nothing when it is none.
std::optional<std::string> normal(const std::string& key)
{
    std::string text;
    bool at_piece = false;
    for (const char c : key) {
        if (c != '/' && !at_piece)
            text += '/';
        at_piece = c != '/';
        if (at_piece)
            text += c;
    }
    const std::size_t limit = kMaxKeySize + (key.empty() || key.front() == '/' ? 0 : 1);
    if (key.empty() || text.size() > limit || text.find('\0') != std::string::npos)
        return std::nullopt;
    return text.empty() ? "/" : text;
}

/// What the keys below this one begin with.
std::string prefix_of(const std::string& key)
{
    return key == "/" ? key : key + "/";
}

bool has_children(const std::string& key)
{
    const std::string prefix = prefix_of(key);
    const auto next = platform().settings.lower_bound(prefix);
    return next != platform().settings.end() && next->first.compare(0, prefix.size(), prefix) == 0;
}

/// Records the use of a key and brings it into its normal form. 0, or what it has to return.
int use(const char* what, std::string& key, const std::string& more = {}, bool needs_store = true)
{
    Fake& fake = platform();
    if (fake.fails(std::string("setMgmt::") + what + "(" + key + more + ")"))
        return -fake.error();
    const auto parsed = normal(key);
    if (!parsed)
        return base::fail(Error::invalid_argument);
    if (needs_store && !fake.settings_are_open)
        return base::fail(Error::input_output);
    key = *parsed;
    const auto error = fake.setting_errors.find(key);
    return error == fake.setting_errors.end() ? 0 : base::fail(static_cast<Error>(error->second));
}

int read(const std::string& key, std::string& value)
{
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
    if (platform().fails("setMgmt::init()"))
        return -platform().error();
    platform().settings_are_open = true;
    return 0;
}

void uninit()
{
    const Fake::Calm calm;
    platform().note("setMgmt::uninit()");
    platform().drop_batch();
    platform().settings_are_open = false;
    if (!platform().keeps_watch)
        platform().watch_callback = nullptr;
}

int getKey(const std::string& key, std::string& value)
{
    const Fake::Calm calm;
    std::string used = key;
    const int result = use("getKey", used);
    return result < 0 ? result : read(used, value);
}

int getKeyValue(const std::string& key, int fallback)
{
    const Fake::Calm calm;
    std::string used = key;
    std::string value;
    int number = 0;
    if (use("getKeyValue", used, ", " + std::to_string(fallback)) < 0 || read(used, value) < 0 ||
        !parse(value, number))
        return fallback;
    return number;
}

std::string getKeyValue(const std::string& key, const std::string& fallback)
{
    const Fake::Calm calm;
    std::string used = key;
    std::string value;
    if (use("getKeyValue", used, ", \"" + fallback + "\"") < 0 || read(used, value) < 0)
        return fallback;
    return value;
}

int setKey(const std::string& key, const std::string& value)
{
    const Fake::Calm calm;
    std::string used = key;
    if (const int result = use("setKey", used, ", " + value); result < 0)
        return result;
    if (used == "/" || value.size() > kMaxValueSize)
        return base::fail(Error::invalid_argument);
    platform().settings[used] = value;
    platform().touch(used);
    return 0;
}

int deleteKey(const std::string& key)
{
    const Fake::Calm calm;
    std::string used = key;
    if (const int result = use("deleteKey", used); result < 0)
        return result;
    if (used == "/")
        return base::fail(Error::invalid_argument);
    auto& settings = platform().settings;
    if (settings.count(used) == 0 && !has_children(used))
        return base::fail(Error::no_such_key);
    settings.erase(used);
    platform().touch(used);
    while (has_children(used)) {
        const auto child = settings.lower_bound(prefix_of(used));
        platform().touch(child->first);
        settings.erase(child);
    }
    return 0;
}

int enumSubkeys(const std::string& key, std::vector<std::string>& names)
{
    const Fake::Calm calm;
    std::string used = key;
    if (const int result = use("enumSubkeys", used); result < 0)
        return result;
    const std::string prefix = prefix_of(used);
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
    if (platform().open_batch)
        return;
    platform().open_batch = this;
    platform().before_batch = platform().settings;
}

Batch::~Batch()
{
    const Fake::Calm calm;
    if (platform().open_batch == this)
        platform().drop_batch();
}

int Batch::commit()
{
    const Fake::Calm calm;
    if (platform().fails("setMgmt::Batch::commit()"))
        return -platform().error();
    if (platform().open_batch != this)
        return platform().open_batch ? 0 : base::fail(Error::input_output);
    platform().open_batch = nullptr;
    platform().before_batch.reset();
    if (std::exchange(platform().has_touched_watch, false))
        platform().notify_watch();
    return 0;
}

int lockKey(const std::string& key)
{
    const Fake::Calm calm;
    std::string used = key;
    const int result = use("lockKey", used, {}, /*needs_store=*/false);
    if (result >= 0)
        ++platform().locked[used];
    return result;
}

int unlockKey(const std::string& key)
{
    const Fake::Calm calm;
    std::string used = key;
    const int result = use("unlockKey", used, {}, /*needs_store=*/false);
    const auto held = platform().locked.find(normal(key).value_or(""));
    if (held == platform().locked.end())
        return result < 0 ? result : base::fail(Error::invalid_argument);
    if (--held->second == 0) // as far as the daemon is concerned, also when it fails
        platform().locked.erase(held);
    return result;
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
    platform().watch_key = normal(key).value_or("/");
    platform().watch_callback = platform().watch_key == "/" ? nullptr : std::move(callback);
    platform().keeps_watch = keep;
    if (platform().fd("watch") == -1)
        platform().name_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK), "watch");
    if (notify_now)
        platform().notify_watch();
}

MonitoredKey::~MonitoredKey()
{
    cancel();
}

int MonitoredKey::get_fd() const
{
    const Fake::Calm calm;
    need_memory();
    if (platform().fails("MonitoredKey::get_fd()") || !platform().watch_callback)
        return -1;
    return platform().fd("watch");
}

void MonitoredKey::read_notifications()
{
    const Fake::Calm calm;
    platform().note("MonitoredKey::read_notifications()");
    eventfd_t pending = 0;
    if (eventfd_read(platform().fd("watch"), &pending) != 0)
        return;
    if (platform().read_watch() == pending || !platform().watch_callback)
        return;
    const auto callback = platform().watch_callback;
    const bool goes_on = callback(m_watch->m_key, m_watch->m_user);
    platform().note(goes_on ? "the watch's callback returned true" : "the watch's callback returned false");
    if (!goes_on)
        platform().watch_callback = nullptr;
}

void MonitoredKey::cancel()
{
    const Fake::Calm calm;
    platform().note("MonitoredKey::cancel()");
    platform().watch_callback = nullptr;
}

} // namespace orv::setMgmt

namespace orv::fake {

void Fake::touch(const std::string& key)
{
    if (!watch_callback || key != watch_key)
        return;
    has_touched_watch = open_batch != nullptr;
    if (!open_batch)
        notify_watch();
}

void Fake::drop_batch()
{
    open_batch = nullptr;
    has_touched_watch = false;
    if (before_batch)
        settings = *std::exchange(before_batch, std::nullopt);
}

} // namespace orv::fake

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
    return !platform().fails("featureutl::init()") &&
           (platform().settings_are_open || base::fail(Error::input_output) == 0);
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
    const std::string name(feature_to_str(feature));
    if (platform().fails("featureutl::get_feature(" + name + ")") || name.empty() ||
        !platform().settings_are_open)
        return FeatureStatus::unknown;
    const auto found = platform().settings.find(key_of(feature));
    return found == platform().settings.end() ? FeatureStatus::enabled : str_to_feature_status(found->second);
}

int set_feature(Feature feature, FeatureStatus status)
{
    const Fake::Calm calm;
    const std::string name(feature_to_str(feature));
    const std::string text(feature_status_to_str(status));
    if (platform().fails("featureutl::set_feature(" + name + ", " + text + ")") || name.empty() ||
        text.empty() || !platform().settings_are_open)
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

namespace {

/// False for a text that is none; a status or expiry that is not there is as it was.
bool read_member(const std::string& key, const std::string& value, const std::string& name,
                 Subscription& subscription)
{
    if (key == status_key(name).str()) {
        subscription.status = status_from_str(value);
        return status_to_str(subscription.status) == value;
    }
    return key != expiry_key(name).str() || (parse(value, subscription.expiry) && subscription.expiry >= 0);
}

} // namespace

bool MultiSubscription::load()
{
    const Fake::Calm calm;
    if (platform().fails("subs::load()") || !platform().settings_are_open)
        return false;
    decltype(m_subscriptions) subscriptions;
    for (const auto& [key, value] : platform().settings) {
        if (key.compare(0, kRoot.size(), kRoot) != 0)
            continue;
        const std::string name = key.substr(kRoot.size(), key.find('/', kRoot.size()) - kRoot.size());
        if (!read_member(key, value, name, subscriptions[name]))
            return false;
    }
    m_subscriptions = std::move(subscriptions);
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
    if (found == platform().settings.end() || !platform().settings_are_open ||
        found->second == orvleases_mode_to_str(OrvleasesMode::orv))
        return OrvleasesMode::orv;
    return found->second == orvleases_mode_to_str(OrvleasesMode::ng) ? OrvleasesMode::ng
                                                                     : static_cast<OrvleasesMode>(-1);
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
