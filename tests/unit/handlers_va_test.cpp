// The vulnerability assessment: state, schedule, exclusions, the cloud's trigger.

#include "support/scenario.h"

#include "commandsproc.h"

#include <orvutils/json.h>

#include <fmt/format.h>

#include <algorithm>

namespace orv::test {
namespace {

class Scanner : public ScenarioTest {};

// ---- the state

constexpr char kState[] = "orvvad:va_scan_status";

Scenario state()
{
    return Scenario("va_status").asks(kState, "{}");
}

TEST_F(Scanner, StateIsHandedToTheClientUnchanged)
{
    for (const auto& [data, text] : std::vector<std::pair<std::string, std::string>>{
             {"{}", "{}"},
             {"[]", "[]"},
             {R"({"state":"running","progress":5})", R"({"state": "running", "progress": 5})"},
             {R"({"b":[1,2.5,null,true],"a":"\u00e9"})",
              "{\"b\": [1, 2.5, null, true], \"a\": \"\xc3\xa9\"}"},
             {R"({"text":")" + std::string(100000, 'x') + "\"}",
              R"({"text": ")" + std::string(100000, 'x') + "\"}"}})
        for (const char* type : {"0", "1", "2", "no number", ""}) // of no interest here
            check(state().then(type, data).succeeds(text));
}

TEST_F(Scanner, StateThatIsNoJsonHangsUp)
{
    for (const char* data : {"", "idle", "\"idle\"", "5", "null", "{", R"({"a":1} x)", "{\"a\":\"\xff\"}"})
        for (const char* type : {"0", "2"})
            check(state().then(type, data).hangs_up());
}

TEST_F(Scanner, StateCannotBeAskedForWithoutTheExchange)
{
    check(Scenario("va_status")
              .failing("orvex_send_request(")
              .calls({"orvex_send_request(orvvad:va_scan_status, {})"})
              .logs({{0, "failed to send orvvad:va_scan_status request: {}"}})
              .fails());
}

// ---- the schedule

constexpr char kSchedule[] = "orvtuvosettings:va_set_schedule";

Scenario schedule(const std::string& data = R"({"enabled":true})",
                  const std::string& text = R"({"enabled": true})")
{
    return Scenario("va_set_schedule", data).asks(kSchedule, text);
}

TEST_F(Scanner, ScheduleIsPassedThroughWithoutInspection)
{
    for (const auto& [data, text] : std::vector<std::pair<std::string, std::string>>{
             {R"({"enabled":true,"scheduled":"0 3 * * *"})",
              R"({"enabled": true, "scheduled": "0 3 * * *"})"},
             {R"({"scheduled":[],"enabled":"?"})", R"({"scheduled": [], "enabled": "?"})"},
             {"{}", "{}"},
             {"[]", "[]"}})
        check(schedule(data, text).then("0").succeeds());
}

TEST_F(Scanner, ScheduleIsSetUnlessTheAnswerIsOfTypeTwo)
{
    for (const char* type : {"0", "1", "3", "-1", "-2", "22", "20", "2147483647", "-2147483648", " 0", "1x"})
        for (const char* data : {"", "busy", R"({"error":"x"})", "\xff"})
            check(schedule().then(type, data).succeeds());
}

TEST_F(Scanner, ScheduleThatIsRefusedFailsWithTheAnswersText)
{
    for (const char* type : {"2", "+2", " 2", "02", "2 and more", "2.5"}) {
        check(schedule().then(type, "busy").fails(R"({"error": "busy"})"));
        check(schedule().then(type, "").fails(R"({"error": ""})"));
        check(schedule().then(type, R"({"a":"b"})").fails(R"({"error": "{\"a\":\"b\"}"})"));
    }
}

TEST_F(Scanner, ScheduleWhoseAnswerCannotBeReadHangsUp)
{
    for (const char* type : {"", " ", "x", "x2", "-", "error", "2147483648", "4294967298"})
        for (const char* data : {"", "busy", "{}"})
            check(schedule().then(type, data).hangs_up());
    for (const char* data : {"\xff", "bus\xc3"}) // no UTF-8
        check(schedule().then("2", data).logs({{0, "failed to pack error response"}}).hangs_up());
}

TEST_F(Scanner, ScheduleNeedsSomethingThatHasAText)
{
    for (const char* data : {"null", "true", "5", R"("daily")"})
        check(Scenario("va_set_schedule", data).logs({{0, "Failed to build payload"}}).fails());
}

TEST_F(Scanner, ScheduleCannotBeSetWithoutTheExchange)
{
    check(Scenario("va_set_schedule", "{}")
              .failing("orvex_send_request(")
              .calls({"orvex_send_request(" + std::string(kSchedule) + ", {})"})
              .logs({{0, "failed to send " + std::string(kSchedule) + " request: {}"},
                     {0, "Failed to send set_schedule request"}})
              .fails());
}

// ---- exclusions

constexpr char kKey[] = "/va/blacklist/exclusions";
const std::string kReadMost = "setMgmt::getKeyValue(" + std::string(kKey) + "/max_size, \"\")";

Scenario exclude(const std::string& list)
{
    return Scenario("va_set_exclusions", list).calls({kReadMost});
}

std::string store(const std::string& value)
{
    return "setMgmt::setKey(" + std::string(kKey) + ", " + value + ")";
}

std::string stored(const std::string& value)
{
    return "Set entries of '" + std::string(kKey) + "' to: " + value;
}

/// The i-th of many patterns.
std::string pattern(int i)
{
    return fmt::format("aa:bb:cc:dd:{:02x}:{:02x}", i / 256, i % 256);
}

/// An array of the first n.
std::string patterns(int n)
{
    std::string list = "[";
    for (int i = 0; i < n; ++i)
        list += (i == 0 ? "\"" : ",\"") + pattern(i) + "\"";
    return list + "]";
}

Scenario refuse(const std::string& list, const std::string& message)
{
    const JsonPtr text(json_string(message.c_str()));
    const TextPtr json(json_dumps(text.get(), JSON_ENCODE_ANY));
    return exclude(list).with({{kKey, "00:00:00:00:00:00"}}).logs({{0, message}}).fails(json.get());
}

TEST_F(Scanner, ExclusionsAreStored)
{
    for (const char* text : {"aa:bb:cc:dd:ee:ff", "AA:bb:0[0-3|a-f]:dd:ee:f[0|5]"})
        check(exclude("[\"" + std::string(text) + "\"]")
                  .calls({store(text)})
                  .logs({{2, stored(text)}})
                  .leaves({{kKey, text}})
                  .succeeds());
    check(exclude("[]")
              .with({{kKey, "aa:bb:cc:dd:ee:ff"}})
              .calls({store("")})
              .logs({{2, stored("")}})
              .leaves({{kKey, ""}})
              .succeeds());
}

TEST_F(Scanner, ExclusionsAreStoredOnce)
{
    check(exclude(R"(["aa:bb:cc:dd:ee:ff","aa:bb:cc:dd:ee:ff"])")
              .calls({store("aa:bb:cc:dd:ee:ff")})
              .logs({{2, stored("aa:bb:cc:dd:ee:ff")}})
              .leaves({{kKey, "aa:bb:cc:dd:ee:ff"}})
              .succeeds());
}

TEST_F(Scanner, ExclusionsComeBackAsASet)
{
    Peer peer = connect();
    EXPECT_EQ(ask(peer, command("va_set_exclusions", patterns(16))), R"({"data": null, "status": 0})");
    const auto frame = ask(peer, command("va_get_exclusions"));
    ASSERT_TRUE(frame);
    const JsonPtr answer(json_loads(frame->c_str(), 0, nullptr));
    const json_t* list = json_object_get(answer.get(), "data");
    std::set<std::string> read;
    for (std::size_t i = 0; i < json_array_size(list); ++i)
        read.insert(json_string_value(json_array_get(list, i)));
    std::set<std::string> expected;
    for (int i = 0; i < 16; ++i)
        expected.insert(pattern(i));
    EXPECT_EQ(json_array_size(list), 16U);
    EXPECT_EQ(read, expected);
}

TEST_F(Scanner, ExclusionsAreSixteenAtMostUnlessAKeySaysOtherwise)
{
    struct Case {
        const char* most; ///< null when the key is not there
        int size;
        const char* message; ///< null when it is accepted
    };
    for (const Case& c : {
             Case{nullptr, 16, nullptr},
             Case{nullptr, 17, "input size 17 is greater than the maximum allowed (16)"},
             Case{nullptr, 1000, "input size 1000 is greater than the maximum allowed (16)"},
             Case{"17", 17, nullptr},
             Case{"17", 18, "input size 18 is greater than the maximum allowed (17)"},
             Case{"1", 1, nullptr},
             Case{"1", 2, "input size 2 is greater than the maximum allowed (1)"},
             Case{"0", 0, nullptr},
             Case{"0", 1, "input size 1 is greater than the maximum allowed (0)"},
             Case{"4000000000", 17, nullptr},
             Case{"99999999999999999999", 17, nullptr},
             Case{"-1", 17, "input size 17 is greater than the maximum allowed (16)"},
             Case{"0x20", 17, "input size 17 is greater than the maximum allowed (16)"},
             Case{"many", 17, "input size 17 is greater than the maximum allowed (16)"},
         }) {
        SCOPED_TRACE(fmt::format("{} of {}", c.size, c.most ? c.most : "(unset)"));
        platform->settings.clear();
        if (c.most)
            platform->settings[std::string(kKey) + "/max_size"] = c.most;
        const Settings before = platform->settings;
        Peer peer = connect();
        ASSERT_TRUE(receive_all(peer, command("va_set_exclusions", patterns(c.size)) + "\n"));
        drain(peer);
        EXPECT_EQ(peer.client.frame(), c.message ? fmt::format(R"({{"data": "{}", "status": -1}})", c.message)
                                                 : R"({"data": null, "status": 0})");
        EXPECT_EQ(platform->settings == before, c.message != nullptr);
    }
}

TEST_F(Scanner, ExclusionsAreCountedBeforeTheyAreLookedAt)
{
    std::string list = "[0";
    for (int i = 1; i < 17; ++i)
        list += ",null";
    check(refuse(list + "]", "input size 17 is greater than the maximum allowed (16)"));
}

TEST_F(Scanner, ExclusionsMustAllBeStrings)
{
    for (const char* entry : {"5", "null", "true", "1.5", "{}", "[]", R"(["aa:bb:cc:dd:ee:ff"])"}) {
        check(refuse("[" + std::string(entry) + "]", "expected string value at index 0"));
        check(refuse(R"(["aa:bb:cc:dd:ee:ff",)" + std::string(entry) + ",\"invalid\"]",
                     "expected string value at index 1"));
    }
}

TEST_F(Scanner, ExclusionsMustAllBePatterns)
{
    for (const char* text : {"aa:bb:cc:dd:ee:[0-5|5-9]f", "", "x", "aa:bb:cc:dd:ee", "aa,bb", "{}%s%n"}) {
        check(refuse("[\"" + std::string(text) + "\"]",
                     "invalid value '" + std::string(text) + "' at index 0"));
        check(refuse(R"(["aa:bb:cc:dd:ee:ff",")" + std::string(text) + "\",5]",
                     "invalid value '" + std::string(text) + "' at index 1"));
    }
    check(refuse(R"(["say \"x\"\n"])", "invalid value 'say \"x\"\n' at index 0"));
}

TEST_F(Scanner, ExclusionsNeedAnArray)
{
    for (const char* data : {"null", "true", "5", R"("aa:bb:cc:dd:ee:ff")", "{}"})
        check(Scenario("va_set_exclusions", data).fails());
}

TEST_F(Scanner, ExclusionsThatCannotBeStoredFail)
{
    check(exclude(R"(["aa:bb:cc:dd:ee:ff"])")
              .with({{kKey, "00:00:00:00:00:00"}})
              .failing("setMgmt::setKey(", 3)
              .calls({store("aa:bb:cc:dd:ee:ff")})
              .logs({{0, "setKey('" + std::string(kKey) + "'): 3"}})
              .fails());
    check(Scenario("va_set_exclusions", patterns(17)) // without the key's value, sixteen
              .with({{std::string(kKey) + "/max_size", "17"}})
              .failing("setMgmt::getKeyValue(")
              .calls({kReadMost})
              .logs({{0, "input size 17 is greater than the maximum allowed (16)"}})
              .fails("\"input size 17 is greater than the maximum allowed (16)\""));
}

const std::string kRead = "setMgmt::getKey(" + std::string(kKey) + ")";

std::string entries(const std::string& list = {})
{
    return "Entries of '" + std::string(kKey) + "': " + list;
}

TEST_F(Scanner, ExclusionsAreReadAsAList)
{
    check(Scenario("va_get_exclusions").calls({kRead}).logs({{3, entries()}}).succeeds("[]"));
    check(Scenario("va_get_exclusions")
              .with({{kKey, ""}})
              .calls({kRead})
              .logs({{3, entries()}})
              .succeeds("[]"));
    check(Scenario("va_get_exclusions")
              .with({{std::string(kKey) + "/max_size", "3"}})
              .calls({kRead})
              .logs({{3, entries()}})
              .succeeds("[]"));
    check(Scenario("va_get_exclusions")
              .with({{kKey, "no pattern"}}) // whatever is there
              .calls({kRead})
              .logs({{3, entries("no pattern")}})
              .succeeds(R"(["no pattern"])"));
}

TEST_F(Scanner, ExclusionsThatCannotBeReadFail)
{
    for (const int error : {1, 2, 3})
        check(Scenario("va_get_exclusions")
                  .with({{kKey, "aa:bb:cc:dd:ee:ff"}})
                  .failing(kRead, error)
                  .calls({kRead})
                  .logs({{0, fmt::format("getKey('{}'): {}", kKey, error)}})
                  .fails());
    check(Scenario("va_get_exclusions")
              .with({{kKey, "\xff"}})
              .calls({kRead})
              .logs({{3, entries("\xff")}})
              .fails());
}

// ---- the trigger

TEST_F(Scanner, TriggerIsOnWhenTheKeyHoldsOneAndOnlyThen)
{
    const std::string read = "setMgmt::getKey(/va/cloud_trigger)";
    for (const auto& [value, text] : std::vector<std::pair<std::string, std::string>>{{"1", "true"},
                                                                                      {"0", "false"},
                                                                                      {"true", "false"},
                                                                                      {"", "false"},
                                                                                      {"11", "false"},
                                                                                      {"1 ", "false"},
                                                                                      {"01", "false"},
                                                                                      {"2", "false"}})
        check(Scenario("get_va_cloud_trigger")
                  .with({{"/va/cloud_trigger", value}})
                  .calls({read})
                  .succeeds(text));
    check(Scenario("get_va_cloud_trigger").calls({read}).fails());
    check(Scenario("get_va_cloud_trigger")
              .with({{"/va/cloud_trigger", "1"}})
              .failing(read)
              .calls({read})
              .fails());
}

TEST_F(Scanner, TriggerIsReadAsItWasSet)
{
    Peer peer = connect();
    for (const auto& [data, answer] : std::vector<std::pair<std::string, std::string>>{
             {"true", "true"}, {"false", "false"}, {"7", "true"}, {"0", "false"}}) {
        EXPECT_EQ(ask(peer, command("set_va_cloud_trigger", data)), R"({"data": null, "status": 0})");
        EXPECT_EQ(ask(peer, command("get_va_cloud_trigger")), R"({"data": )" + answer + R"(, "status": 0})");
    }
}

// ---- whatever fails

} // namespace
} // namespace orv::test
