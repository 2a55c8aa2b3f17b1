// Versions, the subscription, the diagnosis reports.

#include "support/scenario.h"

#include <fmt/format.h>

namespace orv::test {
namespace {

class Reports : public ScenarioTest {};

// ---- versions

TEST_F(Reports, TellTheVersion)
{
    struct Case {
        std::optional<std::string> release;
        const char* patch;
        const char* answer;
    };
    for (const Case& c : {
             Case{"1.2.3", "4", R"({"version": "1.2.3", "patch_level": "4"})"},
             Case{std::nullopt, "4", R"({"version": "2.0.0.0", "patch_level": "4"})"},
             Case{std::nullopt, "", R"({"version": "2.0.0.0", "patch_level": ""})"},
         }) {
        platform->release_version = c.release;
        platform->patch_version = c.patch;
        check(Scenario("get_version_info")
                  .calls({"get_release_version()", "get_patch_version()"})
                  .succeeds(c.answer));
    }
}

TEST_F(Reports, CannotTellAVersionThatIsNotUtf8)
{
    platform->release_version = "1.\xff";
    check(Scenario("get_version_info")
              .calls({"get_release_version()", "get_patch_version()"})
              .logs({{0, "Failed to pack info into json: version=1.\xff patch=4 Invalid UTF-8 string"}})
              .fails());
}

// ---- the subscription

const std::string kSubscription = "/tmp/subscription";
const std::string kStatusKey = kSubscription + "/global/status";
const std::string kExpiryKey = kSubscription + "/global/expiry";
const std::string kTimeKey = kSubscription + "/last_update_ts";
const std::string kErrorKey = kSubscription + "/last_error";
const std::string kLock = "setMgmt::lockKey(" + kSubscription + ")";
const std::string kUnlock = "setMgmt::unlockKey(" + kSubscription + ")";

std::string get(const std::string& key)
{
    return "setMgmt::getKey(" + key + ")";
}

struct SubscriptionCase {
    const char* status;
    const char* expiry;
    const char* members; ///< of the object
};

const SubscriptionCase kSubscriptions[] = {
    {"valid", "1800000000", R"("status": "valid", "expiry": "1800000000")"},
    {"valid", "0", R"("status": "valid")"}, // for ever
    {"valid", "00", R"("status": "valid", "expiry": "00")"},
    {"valid", "", R"("status": "valid", "expiry": "")"},
    {"valid", "soon", R"("status": "valid", "expiry": "soon")"},
    {"expired", "1600000000", R"("status": "expired", "expiry": "1600000000")"},
    {"expired", "0", R"("status": "expired", "expiry": "0")"},
    {"none", "0", R"("status": "none", "expiry": "0")"},
    {"none", "", R"("status": "none", "expiry": "")"},
    {"", "0", R"("status": "none", "expiry": "0")"},
    {"Valid", "0", R"("status": "none", "expiry": "0")"},
    {"0", "5", R"("status": "none", "expiry": "5")"},
    {"broken {}", "5", R"("status": "none", "expiry": "5")"},
};

TEST_F(Reports, TellTheSubscription)
{
    for (const SubscriptionCase& c : kSubscriptions)
        check(Scenario("get_subscription_status")
                  .with({{kStatusKey, c.status}, {kExpiryKey, c.expiry}})
                  .calls({kLock, get(kStatusKey), get(kExpiryKey), kUnlock})
                  .succeeds("{" + std::string(c.members) + "}"));
}

TEST_F(Reports, TellTheSubscriptionAlsoWhenItCannotBeLocked)
{
    const Scenario scenario = Scenario("get_subscription_status")
                                  .with({{kStatusKey, "valid"}, {kExpiryKey, "0"}})
                                  .calls({kLock, get(kStatusKey), get(kExpiryKey), kUnlock})
                                  .succeeds(R"({"status": "valid"})");
    const std::string not_locked = "Failed to lock " + kSubscription + " orverrno: 3";
    const std::string not_unlocked = "Failed to unlock " + kSubscription + " orverrno: ";
    // What is not locked cannot be unlocked either.
    check(Scenario(scenario).failing(kLock, 3).logs({{1, not_locked}, {1, not_unlocked + "1"}}));
    check(Scenario(scenario).failing(kUnlock, 2).logs({{1, not_unlocked + "2"}}));
}

TEST_F(Reports, TellNoSubscriptionThatIsNotThere)
{
    const Scenario scenario =
        Scenario("get_subscription_status").calls({kLock, get(kStatusKey), get(kExpiryKey), kUnlock}).fails();
    for (const Settings& settings : {Settings{}, Settings{{kExpiryKey, "0"}}, Settings{{kStatusKey, "valid"}},
                                     Settings{{kStatusKey + "/child", "valid"}, {kExpiryKey, "0"}},
                                     Settings{{kStatusKey, "valid"}, {kExpiryKey, "\xff"}}})
        check(Scenario(scenario).with(settings));

    const Scenario full = Scenario(scenario).with({{kStatusKey, "valid"}, {kExpiryKey, "0"}});
    check(Scenario(full).failing(get(kStatusKey)));
    check(Scenario(full).failing(get(kExpiryKey)));
    check(Scenario(full)
              .failing(get(kExpiryKey))
              .failing(kUnlock, 3)
              .logs({{1, "Failed to unlock " + kSubscription + " orverrno: 3"}}));
}

// ---- its update

constexpr char kUpdate[] = "update_subscription";
const fake::Calls kUpdateReads{kLock,         get(kStatusKey), get(kExpiryKey),
                               get(kTimeKey), get(kErrorKey),  kUnlock};

Settings updated(const std::string& time, const std::string& error)
{
    return {{kStatusKey, "valid"}, {kExpiryKey, "0"}, {kTimeKey, time}, {kErrorKey, error}};
}

Scenario update(const Settings& settings)
{
    return Scenario("update_subscription_status").with(settings).asks(kUpdate, "{}");
}

TEST_F(Reports, TellTheUpdatedSubscriptionWhateverTheAnswerSays)
{
    for (const SubscriptionCase& c : kSubscriptions)
        check(update({{kStatusKey, c.status}, {kExpiryKey, c.expiry}, {kTimeKey, "1700"}, {kErrorKey, "0"}})
                  .then("0")
                  .calls(kUpdateReads)
                  .succeeds(fmt::format(R"({{{}, "subscription_update_ts": 1700, )"
                                        R"("subscription_update_error": "0", )"
                                        R"("subscription_update_status": "success"}})",
                                        c.members)));
    for (const char* type : {"0", "1", "2", "-1", "", "no number", "99999999999999999999"})
        for (const char* data : {"", "{}", "no JSON", R"({"error":"x"})"})
            check(update(updated("1700", "0"))
                      .then(type, data)
                      .calls(kUpdateReads)
                      .succeeds(R"({"status": "valid", "subscription_update_ts": 1700, )"
                                R"("subscription_update_error": "0", )"
                                R"("subscription_update_status": "success"})"));
}

TEST_F(Reports, TellWhetherTheUpdateSucceeded)
{
    for (const auto& [error, outcome] :
         std::vector<std::pair<std::string, std::string>>{{"0", "success"},
                                                          {"", "failed"},
                                                          {"1", "failed"},
                                                          {"00", "failed"},
                                                          {"0 ", "failed"},
                                                          {"-1", "failed"},
                                                          {"timeout", "failed"}})
        check(update(updated("1700", error))
                  .then("0")
                  .calls(kUpdateReads)
                  .succeeds(fmt::format(R"({{"status": "valid", "subscription_update_ts": 1700, )"
                                        R"("subscription_update_error": "{}", )"
                                        R"("subscription_update_status": "{}"}})",
                                        error, outcome)));
}

TEST_F(Reports, TellTheTimeOfTheUpdateInAnyBase)
{
    for (const auto& [text, number] :
         std::vector<std::pair<std::string, std::string>>{{"0", "0"},
                                                          {"1700000000", "1700000000"},
                                                          {"4294967296", "4294967296"},
                                                          {"9223372036854775807", "9223372036854775807"},
                                                          {"0x10", "16"},
                                                          {"010", "8"},
                                                          {" 7", "7"},
                                                          {"+7", "7"}})
        check(
            update(updated(text, "0"))
                .then("0")
                .calls(kUpdateReads)
                .succeeds(R"({"status": "valid", "subscription_update_ts": )" + number +
                          R"(, "subscription_update_error": "0", "subscription_update_status": "success"})"));
}

TEST_F(Reports, TellNoUpdateWhoseTimeIsBroken)
{
    for (const char* time : {"1700 ", "1700x", "x", "17.5", "0x", "08", "1 2", "-", "yesterday"})
        check(update(updated(time, "0"))
                  .then("0")
                  .calls({kLock, get(kStatusKey), get(kExpiryKey), get(kTimeKey), kUnlock})
                  .fails());
}

TEST_F(Reports, TellNoUpdateOfWhichSomethingIsMissing)
{
    const Settings all = updated("1700", "0");
    const std::vector<std::string> order{kStatusKey, kExpiryKey, kTimeKey, kErrorKey};
    fake::Calls calls{kLock};
    for (const std::string& key : order) {
        calls.push_back(get(key));
        fake::Calls expected = calls;
        expected.push_back(kUnlock);
        Settings without = all;
        without.erase(key);
        check(update(without).then("0").calls(expected).fails());
        check(update(all).failing(get(key)).then("0").calls(expected).fails());
    }
}

TEST_F(Reports, TellTheUpdateAlsoWhenItCannotBeLocked)
{
    const Scenario scenario = update(updated("1700", "0")).then("0").calls(kUpdateReads);
    constexpr char kData[] =
        R"({"status": "valid", "subscription_update_ts": 1700, "subscription_update_error": "0", )"
        R"("subscription_update_status": "success"})";
    check(Scenario(scenario)
              .failing(kLock, 3)
              .logs({{1, "Failed to lock " + kSubscription + " orverrno: 3"},
                     {1, "Failed to unlock " + kSubscription + " orverrno: 1"}})
              .succeeds(kData));
    check(Scenario(scenario)
              .failing(kUnlock, 3)
              .logs({{1, "Failed to unlock " + kSubscription + " orverrno: 3"}})
              .succeeds(kData));
}

TEST_F(Reports, TellNoUpdateThatCannotBeAskedFor)
{
    check(Scenario("update_subscription_status")
              .with(updated("1700", "0"))
              .failing("orvex_send_request(")
              .calls({"orvex_send_request(update_subscription, {})"})
              .logs({{0, "failed to send update_subscription request: {}"}})
              .fails());
}

// ---- diagnosis

TEST_F(Reports, TellTheDiagnosisOfAllRecords)
{
    const fake::Calls calls{"diagnosis::get_defaults()", "diagnosis::Manager::add(6 records)",
                            "diagnosis::Manager::report()"};
    check(Scenario("get_diagnosis_report")
              .calls(calls)
              .succeeds(R"({"agent": {"version": "agent.version", "registered": "agent.registered", )"
                        R"("subscription": "agent.subscription", "enabled": "agent.enabled"}, )"
                        R"("va": {"scheduled": "va.scheduled"}, )"
                        R"("network": {"interfaces": "network.interfaces"}, )"
                        R"("generated_at": "2023-11-14T22:13:20Z", "agent_version": "1.2.3"})"));
    check(Scenario("get_diagnosis_report").failing("diagnosis::Manager::report()").calls(calls).fails());
}

TEST_F(Reports, TellTheStatusByFiveRecords)
{
    const fake::Calls calls{"diagnosis::get_defaults(agent.version agent.registered agent.subscription "
                            "agent.enabled va.scheduled)",
                            "diagnosis::Manager::add(5 records)", "diagnosis::Manager::collect()"};
    check(Scenario("get_status_report")
              .calls(calls)
              .succeeds(R"({"agent": {"version": "agent.version", "registered": "agent.registered", )"
                        R"("subscription": "agent.subscription", "enabled": "agent.enabled"}, )"
                        R"("va": {"scheduled": "va.scheduled"}})"));
    check(Scenario("get_status_report").failing("diagnosis::Manager::collect()").calls(calls).fails());
}

} // namespace
} // namespace orv::test
