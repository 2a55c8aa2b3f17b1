// Reading, switching and listing the agent's features.

#include "support/scenario.h"

#include "commandsproc.h"

namespace orv::test {
namespace {

using featureutl::Feature;

class Features : public ScenarioTest {};

constexpr char kInvalid[] = "Invalid parameters for get_feature";

std::string get(const std::string& feature)
{
    return "featureutl::get_feature(" + feature + ")";
}

std::string set(const std::string& feature, const std::string& status)
{
    return "featureutl::set_feature(" + feature + ", " + status + ")";
}

const Settings kStates{{"/features/va_scan", "disabled"}, {"/features/telemetry", "broken"}};

const Scenarios kReading{
    Scenario("get_feature", "[]").succeeds("{}"),
    Scenario("get_feature", R"(["va_scan"])").calls({get("va_scan")}).succeeds(R"({"va_scan": "disabled"})"),
    Scenario("get_feature", R"(["protection","va_scan"])")
        .calls({get("protection"), get("va_scan")})
        .succeeds(R"({"protection": "enabled", "va_scan": "disabled"})"),
    Scenario("get_feature", R"(["no_such_feature",5,"satellites"])")
        .calls({get("satellites")})
        .succeeds(R"({"satellites": "enabled"})"),
    Scenario("get_feature", R"(["no_such_feature"])").succeeds("{}"),
    Scenario("get_feature", R"(["","Protection","protection ","protection\n"])").succeeds("{}"),
    Scenario("get_feature", R"([null,true,1.5,{},["protection"]])").succeeds("{}"),
    Scenario("get_feature", R"(["va_scan","va_scan"])")
        .calls({get("va_scan"), get("va_scan")})
        .succeeds(R"({"va_scan": "disabled"})"),
    Scenario("get_feature", R"(["telemetry","protection"])") // whose state is unknown
        .calls({get("telemetry"), get("protection")})
        .succeeds(R"({"protection": "enabled"})"),
    Scenario("get_feature", R"(["va_scan","protection"])")
        .failing("featureutl::get_feature(")
        .calls({get("va_scan"), get("protection")})
        .succeeds(R"({"protection": "enabled"})"),
};

TEST_F(Features, AreReadByName)
{
    for (Scenario scenario : kReading)
        check(scenario.with(kStates));
}

TEST_F(Features, AreReadFromAnArrayAndSetFromAnObjectOnly)
{
    for (const char* data : {"", "null", "true", "5", R"("protection")"}) {
        check(Scenario("get_feature", data).logs({{0, kInvalid}}).fails());
        check(Scenario("set_feature", data).logs({{0, kInvalid}}).fails());
    }
    check(Scenario("get_feature", R"({"protection":"enabled"})").logs({{0, kInvalid}}).fails());
    check(Scenario("set_feature", R"(["protection"])").logs({{0, kInvalid}}).fails());
    check(Scenario("set_feature", "[]").logs({{0, kInvalid}}).fails());
}

const Scenarios kSwitching{
    Scenario("set_feature", "{}").succeeds("{}"),
    Scenario("set_feature", R"({"protection":"disabled"})")
        .calls({set("protection", "disabled"), get("protection")})
        .leaves({{"/features/protection", "disabled"}})
        .succeeds(R"({"protection": "disabled"})"),
    Scenario("set_feature", R"({"va_scan":"enabled","protection":"disabled"})") // in the request's order
        .calls({set("va_scan", "enabled"), get("va_scan"), set("protection", "disabled"), get("protection")})
        .leaves({{"/features/protection", "disabled"}, {"/features/va_scan", "enabled"}})
        .succeeds(R"({"va_scan": "enabled", "protection": "disabled"})"),
    Scenario("set_feature", R"({"protection":"no_such_status"})").succeeds("{}"),
    Scenario("set_feature", R"({"protection":"","va_scan":"Enabled","satellites":"1"})").succeeds("{}"),
    Scenario("set_feature", R"({"no_such_feature":"enabled"})").succeeds("{}"),
    Scenario("set_feature", R"({"":"enabled"})").succeeds("{}"),
    Scenario("set_feature", R"({"protection":1,"va_scan":true,"satellites":null,"telemetry":["enabled"]})")
        .succeeds("{}"),
    Scenario("set_feature", R"({"va_scan":1,"satellites":"enabled","x":"enabled"})")
        .calls({set("satellites", "enabled"), get("satellites")})
        .leaves({{"/features/satellites", "enabled"}})
        .succeeds(R"({"satellites": "enabled"})"),
    Scenario("set_feature", R"({"va_scan":"disabled","satellites":"disabled"})")
        .failing("featureutl::set_feature(")
        .calls({set("va_scan", "disabled"), set("satellites", "disabled"), get("satellites")})
        .logs({{0, "Failed setting feature va_scan to disabled"}})
        .leaves({{"/features/satellites", "disabled"}})
        .succeeds(R"({"satellites": "disabled"})"),
    Scenario("set_feature", R"({"va_scan":"disabled"})")
        .failing("featureutl::set_feature(")
        .calls({set("va_scan", "disabled")})
        .logs({{0, "Failed setting feature va_scan to disabled"}})
        .succeeds("{}"),
};

TEST_F(Features, AreSwitchedByName)
{
    check(kSwitching);
}

TEST_F(Features, AreReportedAsReadBackAfterSwitching)
{
    platform->stubborn_features = {Feature::va_scan};
    check(Scenario("set_feature", R"({"va_scan":"enabled","satellites":"disabled"})")
              .with({{"/features/va_scan", "disabled"}})
              .calls({set("va_scan", "enabled"), get("va_scan"), set("satellites", "disabled"),
                      get("satellites")})
              .leaves({{"/features/va_scan", "disabled"}, {"/features/satellites", "disabled"}})
              .succeeds(R"({"va_scan": "disabled", "satellites": "disabled"})"));
}

TEST_F(Features, AreListedInAscendingOrder)
{
    struct Case {
        std::optional<std::vector<Feature>> listed;
        const char* names;
    };
    for (const Case& c : {
             Case{std::nullopt,
                  R"(["protection", "device_discovery", "user_agent_detection", "traffic_blocking", )"
                  R"("va_scan", "va_self_scan", "satellites", "telemetry"])"},
             Case{std::vector<Feature>{}, "[]"},
             Case{{{Feature::telemetry}}, R"(["telemetry"])"},
             Case{{{Feature::telemetry, Feature::protection, Feature::va_scan}},
                  R"(["protection", "va_scan", "telemetry"])"},
         }) {
        platform->features = c.listed;
        check(Scenario("list_all_features").calls({"featureutl::list_features()"}).succeeds(c.names));
        check(Scenario("list_all_features", R"({"ignored":1})")
                  .calls({"featureutl::list_features()"})
                  .succeeds(c.names));
    }
}

TEST_F(Features, ThatCannotBeListedForLackOfMemoryFail)
{
    bool failed = true;
    for (unsigned n = 1; failed; ++n) {
        json_t* out = json_null();
        platform->fail_json_allocation(n);
        const int result = brokerd::process_get_features_list(out);
        failed = platform->json_allocation_failed();
        platform->fail_json_allocation(0);
        EXPECT_EQ(result, failed ? -1 : 0);
        EXPECT_EQ(json_is_null(out), failed);
        EXPECT_EQ(platform->take_logs(), failed ? lines({{0, "orv::json::to_json() failed"}}) : lines({}));
        json_decref(out);
    }
}

} // namespace
} // namespace orv::test
