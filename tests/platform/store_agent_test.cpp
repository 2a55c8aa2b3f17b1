// What is kept in the settings store by convention: features, subscriptions, the leases mode; and the release
// file.

#include "store_support.h"

#include <orvutils/featureutl.h>
#include <orvutils/leases.h>
#include <orvutils/subs.h>
#include <orvutils/version.h>

#include <filesystem>

using namespace orv::setMgmt;
using namespace orv::featureutl;

class AgentSettingsTest : public StoreTest {};

TEST_F(AgentSettingsTest, Features_are_listed_in_their_order_and_have_names)
{
    const char* names[] = {"protection", "device_discovery", "user_agent_detection", "traffic_blocking",
                           "va_scan",    "va_self_scan",     "satellites",           "telemetry"};
    int index = 0;
    for (const Feature feature : list_features()) {
        EXPECT_EQ(static_cast<int>(feature), index);
        EXPECT_EQ(feature_to_str(feature), names[index]);
        EXPECT_EQ(str_to_feature(names[index]), feature);
        ++index;
    }
    EXPECT_EQ(index, 8);
    EXPECT_EQ(str_to_feature("Protection"), Feature::unknown);
    EXPECT_EQ(feature_to_str(Feature::unknown), "");
    EXPECT_EQ(feature_to_str(static_cast<Feature>(8)), "");
}

TEST_F(AgentSettingsTest, Feature_statuses_have_texts)
{
    EXPECT_EQ(feature_status_to_str(FeatureStatus::enabled), "enabled");
    EXPECT_EQ(feature_status_to_str(FeatureStatus::disabled), "disabled");
    EXPECT_EQ(feature_status_to_str(FeatureStatus::unknown), "");
    EXPECT_EQ(str_to_feature_status("enabled"), FeatureStatus::enabled);
    EXPECT_EQ(str_to_feature_status("disabled"), FeatureStatus::disabled);
    EXPECT_EQ(str_to_feature_status(""), FeatureStatus::unknown);
}

TEST_F(AgentSettingsTest, A_feature_is_on_unless_the_store_says_otherwise)
{
    ASSERT_TRUE(orv::featureutl::init());
    EXPECT_EQ(get_feature(Feature::satellites), FeatureStatus::enabled);
    EXPECT_NE(set_feature(Feature::satellites, FeatureStatus::disabled), 0);
    EXPECT_EQ(get_feature(Feature::satellites), FeatureStatus::disabled);
    EXPECT_EQ(value_of("/features/satellites"), "disabled");
    ASSERT_EQ(setKey("/features/va_scan/note", "x"), 0);
    EXPECT_EQ(get_feature(Feature::va_scan), FeatureStatus::enabled);
    orv::featureutl::uninit();
}

TEST_F(AgentSettingsTest, What_is_no_feature_or_no_status_is_unknown_and_not_stored)
{
    ASSERT_EQ(setKey("/features/telemetry", "1"), 0);
    EXPECT_EQ(get_feature(Feature::telemetry), FeatureStatus::unknown);
    EXPECT_EQ(get_feature(Feature::unknown), FeatureStatus::unknown);
    EXPECT_EQ(set_feature(Feature::unknown, FeatureStatus::enabled), 0);
    EXPECT_EQ(set_feature(Feature::telemetry, FeatureStatus::unknown), 0);
    EXPECT_EQ(value_of("/features/telemetry"), "1");
}

TEST_F(AgentSettingsTest, Features_need_an_open_store)
{
    orv::setMgmt::uninit();
    EXPECT_FALSE(orv::featureutl::init());
    EXPECT_EQ(get_feature(Feature::protection), FeatureStatus::unknown);
    EXPECT_EQ(set_feature(Feature::protection, FeatureStatus::enabled), 0);
}

TEST_F(AgentSettingsTest, Subscriptions_are_loaded_by_name)
{
    ASSERT_EQ(setKey("/tmp/subscription/global/status", "expired"), 0);
    ASSERT_EQ(setKey("/tmp/subscription/global/expiry", "4102444800"), 0);
    ASSERT_EQ(setKey("/tmp/subscription/va/status", "valid"), 0);
    ASSERT_EQ(setKey("/tmp/subscription/odd/expiry", "12"), 0);
    ASSERT_EQ(setKey("/tmp/subscription/refresh", "1"), 0);
    orv::subs::MultiSubscription subscriptions;
    ASSERT_TRUE(subscriptions.load());
    EXPECT_EQ(subscriptions.get("global").status, orv::subs::Status::expired);
    EXPECT_EQ(subscriptions.get("global").expiry, 4102444800);
    EXPECT_EQ(subscriptions.get("va").status, orv::subs::Status::valid);
    EXPECT_EQ(subscriptions.get("va").expiry, 0);
    EXPECT_EQ(subscriptions.get("odd").status, orv::subs::Status::none);
    EXPECT_EQ(subscriptions.get("refresh").status, orv::subs::Status::none);
    EXPECT_EQ(subscriptions.get("absent").expiry, 0);
}

TEST_F(AgentSettingsTest, A_malformed_subscription_leaves_the_loaded_ones_as_they_are)
{
    ASSERT_EQ(setKey("/tmp/subscription/global/status", "valid"), 0);
    orv::subs::MultiSubscription subscriptions;
    ASSERT_TRUE(subscriptions.load());
    const std::pair<const char*, const char*> cases[] = {
        {"status", "Valid"}, {"status", ""}, {"expiry", "soon"},
        {"expiry", "-1"},    {"expiry", ""}, {"expiry", "9223372036854775808"},
    };
    for (const auto& [name, text] : cases) {
        const std::string key = std::string("/tmp/subscription/bad/") + name;
        ASSERT_EQ(setKey(key, text), 0);
        EXPECT_FALSE(subscriptions.load()) << key << " = " << text;
        EXPECT_EQ(subscriptions.get("global").status, orv::subs::Status::valid);
        ASSERT_EQ(deleteKey("/tmp/subscription/bad"), 0);
    }
    EXPECT_TRUE(subscriptions.load());
    orv::setMgmt::uninit();
    EXPECT_FALSE(subscriptions.load());
    EXPECT_EQ(subscriptions.get("global").status, orv::subs::Status::valid);
}

TEST_F(AgentSettingsTest, No_subscription_at_all_is_fine)
{
    orv::subs::MultiSubscription subscriptions;
    EXPECT_TRUE(subscriptions.load());
    EXPECT_EQ(subscriptions.get("global").status, orv::subs::Status::none);
}

TEST_F(AgentSettingsTest, Subscription_statuses_and_keys_have_texts)
{
    using namespace orv::subs;
    EXPECT_EQ(status_to_str(Status::valid), "valid");
    EXPECT_EQ(status_to_str(Status::expired), "expired");
    EXPECT_EQ(status_to_str(Status::none), "none");
    EXPECT_EQ(status_to_str(static_cast<Status>(9)), "none");
    EXPECT_EQ(status_to_str(static_cast<Status>(-1)), "none");
    EXPECT_EQ(status_from_str("expired"), Status::expired);
    EXPECT_EQ(status_from_str("nonsense"), Status::none);
    EXPECT_EQ(status_key("global").str(), "/tmp/subscription/global/status");
    EXPECT_EQ(expiry_key("global").str(), "/tmp/subscription/global/expiry");
}

TEST_F(AgentSettingsTest, The_leases_mode_is_orv_unless_it_says_ng)
{
    using orv::OrvleasesMode;
    EXPECT_EQ(orv::get_orvleases_mode(), OrvleasesMode::orv);
    ASSERT_EQ(setKey("/leases/mode", "orvleases-ng"), 0);
    EXPECT_EQ(orv::get_orvleases_mode(), OrvleasesMode::ng);
    EXPECT_EQ(orv::orvleases_mode_to_str(OrvleasesMode::ng), "orvleases-ng");
    ASSERT_EQ(setKey("/leases/mode", "orvleases-orv"), 0);
    EXPECT_EQ(orv::get_orvleases_mode(), OrvleasesMode::orv);
    EXPECT_EQ(orv::orvleases_mode_to_str(OrvleasesMode::orv), "orvleases-orv");
    ASSERT_EQ(setKey("/leases/mode", "dnsmasq"), 0);
    EXPECT_EQ(orv::orvleases_mode_to_str(orv::get_orvleases_mode()), "(unknown)");
}

TEST_F(AgentSettingsTest, Versions_come_from_the_release_file_and_may_be_absent)
{
    EXPECT_FALSE(orv::get_release_version().has_value());
    EXPECT_EQ(orv::get_patch_version(), "");
    std::filesystem::create_directories(m_root.path() + "/etc");
    spill(m_root.path() + "/etc/release", "# comment\nname=agent\nversion=7.2.1\r\npatch=a=b\nversion=9\n");
    EXPECT_EQ(orv::get_release_version(), "7.2.1");
    EXPECT_EQ(orv::get_patch_version(), "a=b");
    spill(m_root.path() + "/etc/release", "version=");
    EXPECT_FALSE(orv::get_release_version().has_value()) << "no text is no version";
    spill(m_root.path() + "/etc/release", "version=\r\nversion=9\n");
    EXPECT_FALSE(orv::get_release_version().has_value());
    EXPECT_EQ(orv::get_patch_version(), "");
}
