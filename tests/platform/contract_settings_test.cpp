// The settings store, and what lives in it.

#include "contract_ground.h"

#include <orvutils/featureutl.h>
#include <orvutils/leases.h>
#include <orvutils/setmgmt.h>
#include <orvutils/subs.h>

#include <poll.h>

#include <map>
#include <utility>
#include <vector>

namespace orv::contract {
namespace {

using setMgmt::deleteKey;
using setMgmt::enumSubkeys;
using setMgmt::getKey;
using setMgmt::getKeyValue;
using setMgmt::kMaxKeySize;
using setMgmt::kMaxValueSize;
using setMgmt::lockKey;
using setMgmt::setKey;
using setMgmt::unlockKey;

using Names = std::vector<std::string>;

/// The value, or "error N".
std::string value_of(const std::string& key)
{
    std::string value;
    const Result result = result_of([&] { return getKey(key, value); });
    return result.value >= 0 ? value : "error " + std::to_string(result.error);
}

/// The names of the children, in brackets, or "error N".
std::string children_of(const std::string& key)
{
    Names names{"before"};
    const Result result = result_of([&] { return enumSubkeys(key, names); });
    if (result.value < 0)
        return "error " + std::to_string(result.error);
    std::string text;
    for (const std::string& name : names)
        text += "[" + name + "]";
    EXPECT_EQ(result.value, static_cast<int>(names.size()));
    return text;
}

Result set(const std::string& key, const std::string& value)
{
    return result_of([&] { return setKey(key, value); });
}

Result remove(const std::string& key)
{
    return result_of([&] { return deleteKey(key); });
}

// ---- values

class SettingsContract : public ContractTest {};

TEST_F(SettingsContract, A_value_comes_back_with_its_length)
{
    const std::string binary("a\0b\n\xff", 5);
    EXPECT_EQ(set("/binary", binary), kDone);
    EXPECT_EQ(set("/empty", ""), kDone);
    std::string value = "before";
    EXPECT_EQ(result_of([&] { return getKey("/binary", value); }), (Result{5, 0}));
    EXPECT_EQ(value, binary);
    EXPECT_EQ(result_of([&] { return getKey("/empty", value); }), kDone);
    EXPECT_EQ(value, "");
}

TEST_F(SettingsContract, What_cannot_be_read_leaves_the_text_as_it_was)
{
    ASSERT_EQ(set("/parent/child", "x"), kDone);
    std::string value = "before";
    EXPECT_EQ(result_of([&] { return getKey("/absent", value); }), failed(4));
    EXPECT_EQ(result_of([&] { return getKey("/parent", value); }), failed(5));
    EXPECT_EQ(result_of([&] { return getKey("/paren", value); }), failed(4));
    EXPECT_EQ(result_of([&] { return getKey("/", value); }), failed(5));
    EXPECT_EQ(result_of([&] { return getKey("", value); }), failed(1));
    EXPECT_EQ(value, "before");
}

TEST_F(SettingsContract, A_key_is_the_same_however_its_slashes_stand)
{
    EXPECT_EQ(set("//c//d/", "x"), kDone);
    for (const char* key : {"/c/d", "c/d", "//c//d/", "/c/d/"})
        EXPECT_EQ(value_of(key), "x") << key;
    EXPECT_EQ(value_of("/c/./d"), "error 4");
    EXPECT_EQ(children_of("//c//"), "[d]");
    EXPECT_EQ(remove("c//"), kDone);
    EXPECT_EQ(value_of("/c/d"), "error 4");
}

TEST_F(SettingsContract, A_key_or_value_that_is_none_is_refused)
{
    const std::string longest = "/" + std::string(kMaxKeySize - 1, 'k');
    const std::string too_long = longest + "k";
    const std::string with_nul("/a\0b", 4);
    for (const std::string& key : {std::string(), std::string("/"), std::string("//"), too_long, with_nul}) {
        EXPECT_EQ(set(key, "x"), failed(1)) << key;
        EXPECT_EQ(remove(key), failed(1)) << key;
    }
    for (const std::string& key : {std::string(), too_long, with_nul}) {
        EXPECT_EQ(value_of(key), "error 1") << key;
        EXPECT_EQ(children_of(key), "error 1") << key;
        EXPECT_EQ(getKeyValue(key, 7), 7) << key;
        EXPECT_EQ(getKeyValue(key, "7"), "7") << key;
    }
    EXPECT_EQ(set(longest, "x"), kDone);
    EXPECT_EQ(value_of(longest), "x");
    EXPECT_EQ(set(longest.substr(1), "y"), kDone);
    EXPECT_EQ(value_of(longest), "y");

    EXPECT_EQ(set("/large", std::string(kMaxValueSize, 'v')), kDone);
    EXPECT_EQ(set("/large", std::string(kMaxValueSize + 1, 'v')), failed(1));
    EXPECT_EQ(value_of("/large"), std::string(kMaxValueSize, 'v'));
}

TEST_F(SettingsContract, A_number_is_all_of_the_text_and_fits)
{
    const std::map<std::string, int> numbers{
        {"5", 5},   {"007", 7}, {"-5", -5},   {"2147483647", 2147483647}, {"", -1},    {" 5", -1}, {"5 ", -1},
        {"+5", -1}, {"5x", -1}, {"0x10", -1}, {"2147483648", -1},         {"1.5", -1},
    };
    for (const auto& [text, number] : numbers) {
        ASSERT_EQ(set("/number", text), kDone);
        EXPECT_EQ(getKeyValue("/number", -1), number) << text;
        EXPECT_EQ(getKeyValue("/number", "fallback"), text);
    }
    EXPECT_EQ(getKeyValue("/absent", -1), -1);
    EXPECT_EQ(getKeyValue("/absent", "fallback"), "fallback");
}

TEST_F(SettingsContract, A_removed_key_takes_along_what_is_below_it_and_nothing_else)
{
    for (const char* key : {"/a", "/a/b", "/a/b/c", "/a b", "/ab", "/a-"})
        ASSERT_EQ(set(key, "x"), kDone);
    EXPECT_EQ(remove("/absent"), failed(4));
    EXPECT_EQ(remove("/a/b/c/d"), failed(4));
    EXPECT_EQ(remove("/a"), kDone);
    EXPECT_EQ(remove("/a"), failed(4));
    EXPECT_EQ(children_of("/"), "[a b][a-][ab]");
    ASSERT_EQ(set("/only/below", "x"), kDone);
    EXPECT_EQ(remove("/only"), kDone);
    EXPECT_EQ(value_of("/only/below"), "error 4");
}

TEST_F(SettingsContract, Children_are_listed_in_their_order_each_once)
{
    for (const char* key : {"/p/b", "/p/a/1", "/p/a/2", "/p/a", "/p/a b", "/p/a-", "/p2/x", "/tmp/t"})
        ASSERT_EQ(set(key, "x"), kDone);
    EXPECT_EQ(children_of("/p"), "[a][a b][a-][b]");
    EXPECT_EQ(children_of("/p/a"), "[1][2]");
    EXPECT_EQ(children_of("/p/b"), "");
    EXPECT_EQ(children_of("/absent"), "");
    EXPECT_EQ(children_of("/"), "[p][p2][tmp]");
}

TEST_F(SettingsContract, A_list_that_cannot_be_had_leaves_the_names_as_they_were)
{
    Names names{"before"};
    EXPECT_EQ(result_of([&] { return enumSubkeys("", names); }), failed(1));
    EXPECT_EQ(names, Names{"before"});
}

TEST_F(SettingsContract, A_closed_store_fails_and_an_opened_one_is_as_it_was)
{
    ASSERT_EQ(set("/a", "x"), kDone);
    ASSERT_EQ(set("/tmp/a", "x"), kDone);
    EXPECT_EQ(result_of(setMgmt::init), kDone); // it is open already
    setMgmt::uninit();
    setMgmt::uninit();

    for (const char* key : {"/a", "/tmp/a", "/absent"}) {
        EXPECT_EQ(value_of(key), "error 2") << key;
        EXPECT_EQ(set(key, "y"), failed(2)) << key;
        EXPECT_EQ(remove(key), failed(2)) << key;
        EXPECT_EQ(children_of(key), "error 2") << key;
        EXPECT_EQ(getKeyValue(key, "7"), "7") << key;
    }
    EXPECT_EQ(value_of(""), "error 1");
    EXPECT_EQ(getKeyValue("/a", 7), 7);
    EXPECT_FALSE(featureutl::init());
    EXPECT_EQ(featureutl::get_feature(featureutl::Feature::va_scan), featureutl::FeatureStatus::unknown);
    EXPECT_EQ(featureutl::set_feature(featureutl::Feature::va_scan, featureutl::FeatureStatus::disabled), 0);
    subs::MultiSubscription subscriptions;
    EXPECT_FALSE(subscriptions.load());
    EXPECT_EQ(get_orvleases_mode(), OrvleasesMode::orv);

    EXPECT_EQ(result_of(setMgmt::init), kDone);
    EXPECT_EQ(value_of("/a"), "x");
    EXPECT_EQ(value_of("/tmp/a"), "x");
}

// ---- batches

TEST_F(SettingsContract, A_batch_that_is_not_committed_leaves_nothing)
{
    ASSERT_EQ(set("/a", "before"), kDone);
    {
        const setMgmt::Batch batch;
        EXPECT_EQ(set("/a", "within"), kDone);
        EXPECT_EQ(set("/b", "within"), kDone);
        EXPECT_EQ(value_of("/a"), "within");
        EXPECT_EQ(children_of("/"), "[a][b]");
    }
    EXPECT_EQ(value_of("/a"), "before");
    EXPECT_EQ(children_of("/"), "[a]");
}

TEST_F(SettingsContract, A_batch_is_over_with_its_commit)
{
    {
        setMgmt::Batch batch;
        EXPECT_EQ(set("/a", "within"), kDone);
        EXPECT_EQ(result_of([&] { return batch.commit(); }), kDone);
        EXPECT_EQ(result_of([&] { return batch.commit(); }), failed(2));
        EXPECT_EQ(set("/b", "after"), kDone);
    }
    EXPECT_EQ(value_of("/a"), "within");
    EXPECT_EQ(value_of("/b"), "after");
}

TEST_F(SettingsContract, A_batch_in_another_belongs_to_that)
{
    {
        setMgmt::Batch outer;
        {
            setMgmt::Batch inner;
            EXPECT_EQ(set("/a", "within"), kDone);
            EXPECT_EQ(result_of([&] { return inner.commit(); }), kDone);
        }
        EXPECT_EQ(value_of("/a"), "within");
    }
    EXPECT_EQ(value_of("/a"), "error 4");
}

TEST_F(SettingsContract, A_failure_within_a_batch_leaves_it_as_it_was)
{
    {
        setMgmt::Batch batch;
        EXPECT_EQ(set("/a", "within"), kDone);
        EXPECT_EQ(remove("/absent"), failed(4));
        EXPECT_EQ(set("/", "x"), failed(1));
        EXPECT_EQ(result_of([&] { return batch.commit(); }), kDone);
    }
    EXPECT_EQ(value_of("/a"), "within");
}

TEST_F(SettingsContract, The_end_of_the_store_is_that_of_its_batch)
{
    {
        setMgmt::Batch batch;
        EXPECT_EQ(set("/a", "within"), kDone);
        setMgmt::uninit();
        EXPECT_EQ(result_of([&] { return batch.commit(); }), failed(2));
        ASSERT_EQ(result_of(setMgmt::init), kDone);
        EXPECT_EQ(set("/b", "after"), kDone);
    }
    EXPECT_EQ(value_of("/a"), "error 4");
    EXPECT_EQ(value_of("/b"), "after");
}

// ---- locks

Result lock(const std::string& key)
{
    return result_of([&] { return lockKey(key); });
}

Result unlock(const std::string& key)
{
    return result_of([&] { return unlockKey(key); });
}

TEST_F(SettingsContract, A_lock_is_given_back_as_often_as_it_was_taken)
{
    EXPECT_EQ(unlock("/a"), failed(1));
    EXPECT_EQ(lock("/a"), kDone);
    EXPECT_EQ(lock("//a/"), kDone);
    EXPECT_EQ(unlock("/b"), failed(1));
    EXPECT_EQ(unlock("a"), kDone);
    EXPECT_EQ(unlock("/a"), kDone);
    EXPECT_EQ(unlock("/a"), failed(1));
}

TEST_F(SettingsContract, A_lock_needs_a_key_and_no_open_store)
{
    for (const std::string& key : {std::string(), "/" + std::string(kMaxKeySize, 'k')}) {
        EXPECT_EQ(lock(key), failed(1));
        EXPECT_EQ(unlock(key), failed(1));
    }
    EXPECT_EQ(lock("/"), kDone);
    setMgmt::uninit();
    EXPECT_EQ(unlock("/"), kDone);
    EXPECT_EQ(lock("/a"), kDone);
    EXPECT_EQ(unlock("/a"), kDone);
}

// ---- watches

/// A watch of /w, and how often it has told of a change.
class WatchContract : public ContractTest {
protected:
    std::unique_ptr<setMgmt::MonitoredKey> watch(const char* key, bool notify_now = false, bool keep = false)
    {
        return std::make_unique<setMgmt::MonitoredKey>(
            key,
            [this](const path& changed, void* user) {
                EXPECT_EQ(changed.str(), "/w");
                EXPECT_EQ(user, this);
                ++told;
                return goes_on;
            },
            notify_now, this, keep);
    }

    /// Reads if there is something to be read; how often that has told of a change.
    int read(setMgmt::MonitoredKey& key)
    {
        told = 0;
        pollfd entry{key.get_fd(), POLLIN, 0};
        while (entry.fd >= 0 && poll(&entry, 1, 0) == 1) {
            key.read_notifications();
            entry.fd = key.get_fd();
        }
        return told;
    }

    int told = 0;
    bool goes_on = true;
};

TEST_F(WatchContract, A_watch_tells_of_each_change_of_its_key_and_of_no_other)
{
    const auto key = watch("/w");
    ASSERT_GE(key->get_fd(), 0);
    EXPECT_EQ(read(*key), 0);
    ASSERT_EQ(set("/w", "1"), kDone);
    EXPECT_EQ(read(*key), 1);
    ASSERT_EQ(set("//w/", "1"), kDone); // once more
    EXPECT_EQ(read(*key), 1);
    ASSERT_EQ(set("/w2", "1"), kDone);
    ASSERT_EQ(set("/w/below", "1"), kDone);
    EXPECT_EQ(read(*key), 0);
    ASSERT_EQ(set("/w", "2"), kDone);
    ASSERT_EQ(set("/w", "3"), kDone);
    EXPECT_EQ(read(*key), 1);
    ASSERT_EQ(remove("/w"), kDone);
    EXPECT_EQ(read(*key), 1);
    EXPECT_EQ(read(*key), 0);
}

TEST_F(WatchContract, A_watch_tells_of_a_batch_once_it_is_committed)
{
    const auto key = watch("/w");
    {
        setMgmt::Batch batch;
        ASSERT_EQ(set("/w", "1"), kDone);
        EXPECT_EQ(read(*key), 0);
        ASSERT_EQ(batch.commit(), 0);
    }
    EXPECT_EQ(read(*key), 1);
    {
        const setMgmt::Batch batch;
        ASSERT_EQ(set("/w", "2"), kDone);
    }
    {
        setMgmt::Batch batch;
        ASSERT_EQ(set("/w2", "2"), kDone);
        ASSERT_EQ(batch.commit(), 0);
    }
    EXPECT_EQ(read(*key), 0);
}

TEST_F(WatchContract, A_watch_may_tell_once_without_a_change)
{
    const auto key = watch("/w", /*notify_now=*/true);
    EXPECT_EQ(read(*key), 1);
    EXPECT_EQ(read(*key), 0);
}

TEST_F(WatchContract, A_watch_ends_when_its_callback_says_so)
{
    const auto key = watch("/w");
    goes_on = false;
    ASSERT_EQ(set("/w", "1"), kDone);
    EXPECT_EQ(read(*key), 1);
    EXPECT_LT(key->get_fd(), 0);
    ASSERT_EQ(set("/w", "2"), kDone);
    EXPECT_EQ(read(*key), 0);
}

TEST_F(WatchContract, A_cancelled_watch_is_none)
{
    const auto key = watch("/w");
    key->cancel();
    key->cancel();
    EXPECT_LT(key->get_fd(), 0);
    ASSERT_EQ(set("/w", "1"), kDone);
    told = 0;
    key->read_notifications();
    EXPECT_EQ(told, 0);
}

TEST_F(WatchContract, A_key_that_is_none_is_not_watched)
{
    EXPECT_LT(watch("")->get_fd(), 0);
    EXPECT_LT(watch("/")->get_fd(), 0);
    const setMgmt::MonitoredKey nobody("/w", nullptr, false, nullptr, false);
    EXPECT_LT(nobody.get_fd(), 0);
}

TEST_F(WatchContract, A_closed_store_ends_a_watch_that_is_not_kept)
{
    const auto ending = watch("/w");
    setMgmt::uninit();
    EXPECT_LT(ending->get_fd(), 0);
    ASSERT_EQ(setMgmt::init(), 0);
    EXPECT_LT(ending->get_fd(), 0);
}

TEST_F(WatchContract, A_kept_watch_goes_on_when_the_store_is_open_again)
{
    const auto key = watch("/w", /*notify_now=*/false, /*keep=*/true);
    setMgmt::uninit();
    EXPECT_GE(key->get_fd(), 0);
    ASSERT_EQ(setMgmt::init(), 0);
    (void)read(*key); // what may have changed meanwhile
    ASSERT_EQ(set("/w", "1"), kDone);
    EXPECT_EQ(read(*key), 1);
}

// ---- what lives in the settings

class AgentSettingsContract : public ContractTest {};

using featureutl::Feature;
using featureutl::FeatureStatus;

TEST_F(AgentSettingsContract, Features_have_names_and_are_listed_in_their_order)
{
    std::string names;
    for (const Feature feature : featureutl::list_features()) {
        names += std::string(featureutl::feature_to_str(feature)) + " ";
        EXPECT_EQ(featureutl::str_to_feature(featureutl::feature_to_str(feature)), feature);
    }
    EXPECT_EQ(names, "protection device_discovery user_agent_detection traffic_blocking va_scan va_self_scan "
                     "satellites telemetry ");
    EXPECT_EQ(featureutl::str_to_feature("Protection"), Feature::unknown);
    EXPECT_EQ(featureutl::str_to_feature(""), Feature::unknown);
    for (const int value : {-1, 8, 1000})
        EXPECT_EQ(featureutl::feature_to_str(Feature(value)), "") << value;
    EXPECT_EQ(featureutl::str_to_feature_status("enabled"), FeatureStatus::enabled);
    EXPECT_EQ(featureutl::str_to_feature_status("disabled"), FeatureStatus::disabled);
    EXPECT_EQ(featureutl::str_to_feature_status(""), FeatureStatus::unknown);
    for (const int value : {-1, 2})
        EXPECT_EQ(featureutl::feature_status_to_str(FeatureStatus(value)), "") << value;
}

TEST_F(AgentSettingsContract, A_feature_is_on_unless_its_setting_says_otherwise)
{
    EXPECT_TRUE(featureutl::init());
    const std::map<std::string, FeatureStatus> statuses{{"disabled", FeatureStatus::disabled},
                                                        {"enabled", FeatureStatus::enabled},
                                                        {"Disabled", FeatureStatus::unknown},
                                                        {"0", FeatureStatus::unknown},
                                                        {"", FeatureStatus::unknown}};
    EXPECT_EQ(featureutl::get_feature(Feature::va_scan), FeatureStatus::enabled);
    ASSERT_EQ(set("/features/va_scan/below", "x"), kDone);
    EXPECT_EQ(featureutl::get_feature(Feature::va_scan), FeatureStatus::enabled);
    for (const auto& [text, status] : statuses) {
        ASSERT_EQ(set("/features/va_scan", text), kDone);
        EXPECT_EQ(featureutl::get_feature(Feature::va_scan), status) << text;
    }
    featureutl::uninit();
}

TEST_F(AgentSettingsContract, What_is_no_feature_or_no_status_is_not_stored)
{
    EXPECT_NE(featureutl::set_feature(Feature::telemetry, FeatureStatus::disabled), 0);
    EXPECT_EQ(value_of("/features/telemetry"), "disabled");
    for (const int feature : {-1, 8}) {
        EXPECT_EQ(featureutl::set_feature(Feature(feature), FeatureStatus::disabled), 0) << feature;
        EXPECT_EQ(featureutl::get_feature(Feature(feature)), FeatureStatus::unknown) << feature;
    }
    for (const int status : {-1, 2})
        EXPECT_EQ(featureutl::set_feature(Feature::telemetry, FeatureStatus(status)), 0) << status;
    EXPECT_EQ(value_of("/features/telemetry"), "disabled");
    EXPECT_EQ(children_of("/features"), "[telemetry]");
}

TEST_F(AgentSettingsContract, A_leases_mode_that_is_none_is_unknown)
{
    EXPECT_EQ(get_orvleases_mode(), OrvleasesMode::orv);
    ASSERT_EQ(set("/leases/mode/below", "x"), kDone);
    EXPECT_EQ(get_orvleases_mode(), OrvleasesMode::orv);
    const std::map<std::string, std::string> modes{{"orvleases-orv", "orvleases-orv"},
                                                   {"orvleases-ng", "orvleases-ng"},
                                                   {"", "(unknown)"},
                                                   {"0", "(unknown)"},
                                                   {"1", "(unknown)"},
                                                   {"2", "(unknown)"},
                                                   {"orvleases-ng ", "(unknown)"},
                                                   {"Orvleases-ng", "(unknown)"}};
    for (const auto& [text, mode] : modes) {
        ASSERT_EQ(set("/leases/mode", text), kDone);
        EXPECT_EQ(orvleases_mode_to_str(get_orvleases_mode()), mode) << text;
    }
    EXPECT_EQ(static_cast<int>(OrvleasesMode::ng), 1);
}

// ---- subscriptions

struct SubscriptionCase {
    const char* status; ///< null for no such key
    const char* expiry;
    bool is_well_formed;
    subs::Subscription loaded;
};

constexpr subs::Status kNone = subs::Status::none;

const SubscriptionCase kSubscriptions[] = {
    {"valid", "5", true, {subs::Status::valid, 5}},
    {"expired", "0", true, {subs::Status::expired, 0}},
    {"none", "007", true, {kNone, 7}},
    {"valid", "9223372036854775807", true, {subs::Status::valid, 9223372036854775807}},
    {"valid", nullptr, true, {subs::Status::valid, 0}},
    {nullptr, "5", true, {kNone, 5}},
    {nullptr, nullptr, true, {kNone, 0}},
    {"valid", "9223372036854775808", false, {}},
    {"valid", "-1", false, {}},
    {"valid", "+5", false, {}},
    {"valid", " 5", false, {}},
    {"valid", "5x", false, {}},
    {"valid", "soon", false, {}},
    {"valid", "", false, {}},
    {"", "5", false, {}},
    {"Valid", "5", false, {}},
    {"unknown", "5", false, {}},
    {"0", nullptr, false, {}},
};

TEST_F(AgentSettingsContract, A_malformed_subscription_keeps_all_of_them_from_being_loaded)
{
    for (const char* name : {"global", "other"})
        for (const SubscriptionCase& c : kSubscriptions) {
            SCOPED_TRACE(std::string(name) + " " + (c.status ? c.status : "(none)") + " " +
                         (c.expiry ? c.expiry : "(none)"));
            (void)deleteKey("/tmp/subscription");
            subs::MultiSubscription subscriptions;
            ASSERT_EQ(setKey(subs::status_key("global"), "expired"), 0);
            ASSERT_EQ(setKey(subs::expiry_key("global"), "99"), 0);
            ASSERT_TRUE(subscriptions.load());

            (void)deleteKey(path("/tmp/subscription") / name);
            ASSERT_EQ(set("/tmp/subscription/refresh", "1"), kDone);
            if (c.status) {
                ASSERT_EQ(setKey(subs::status_key(name), c.status), 0);
            }
            if (c.expiry) {
                ASSERT_EQ(setKey(subs::expiry_key(name), c.expiry), 0);
            }
            EXPECT_EQ(subscriptions.load(), c.is_well_formed);
            const subs::Subscription found = subscriptions.get(c.is_well_formed ? name : "global");
            EXPECT_EQ(found.status, c.is_well_formed ? c.loaded.status : subs::Status::expired);
            EXPECT_EQ(found.expiry, c.is_well_formed ? c.loaded.expiry : 99);
        }
}

TEST_F(AgentSettingsContract, A_subscription_that_is_not_there_is_none)
{
    ASSERT_EQ(set("/tmp/subscription/global/status", "valid"), kDone);
    ASSERT_EQ(set("/tmp/subscription/global/status/below", "x"), kDone);
    ASSERT_EQ(set("/tmp/subscription/global/other", "x"), kDone);
    ASSERT_EQ(set("/tmp/subscription/empty/expiry/below", "-1"), kDone);
    subs::MultiSubscription subscriptions;
    EXPECT_EQ(subscriptions.get("global").status, kNone);
    ASSERT_TRUE(subscriptions.load());
    EXPECT_EQ(subscriptions.get("global").status, subs::Status::valid);
    for (const char* name : {"globa", "empty", ""}) {
        EXPECT_EQ(subscriptions.get(name).status, kNone);
        EXPECT_EQ(subscriptions.get(name).expiry, 0);
    }
}

TEST_F(AgentSettingsContract, Subscription_statuses_have_texts)
{
    for (const char* text : {"valid", "expired", "none"})
        EXPECT_EQ(subs::status_to_str(subs::status_from_str(text)), text);
    EXPECT_EQ(subs::status_from_str("Valid"), kNone);
    EXPECT_EQ(subs::status_from_str(""), kNone);
    for (const int value : {-1, 3})
        EXPECT_EQ(subs::status_to_str(subs::Status(value)), "none");
}

} // namespace
} // namespace orv::contract
