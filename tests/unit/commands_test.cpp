// Requests and the command table: which argument each command needs, what it does, how its result becomes an
// answer.

#include "support/fixture.h"

#include "answer.h"
#include "make_device.h"
#include "orvbrokerd.h"

#include <algorithm>
#include <cctype>

namespace orv::test {
namespace {

using brokerd::build_error_response;
using brokerd::build_response;
using fake::Calls;
using fake::Logs;
using testing::ElementsAre;

const std::string kDone = R"({"data": null, "status": 0})";
const std::string kFailed = R"({"data": null, "status": -1})";

class Commands : public ServiceTest {
protected:
    /// What a request made the daemon do, and how it was answered.
    struct Outcome {
        std::optional<std::string> answer; ///< none when it is still to come, or never does
        Calls calls;                       ///< between reading the request and queuing the answer
        Logs logs;                         ///< between the event's line and the status
        int status = 0;                    ///< as logged
        bool stays_open = false;
    };

    Outcome run(const std::string& line)
    {
        Peer peer = connect();
        return run(peer, line);
    }

    Outcome run(Peer& peer, const std::string& line)
    {
        forget_records();
        Outcome outcome;
        EXPECT_TRUE(receive(peer, line + "\n"));
        for (const std::string& call : platform->take_calls())
            if (call.rfind("recv(", 0) != 0 && call.rfind("epoll_ctl(MOD, client", 0) != 0)
                outcome.calls.push_back(call);
        outcome.logs = platform->take_logs();
        outcome.logs.erase(outcome.logs.begin());
        EXPECT_EQ(outcome.logs.back().level, 2);
        EXPECT_EQ(sscanf(outcome.logs.back().text.c_str(), "last operation status is %d", &outcome.status),
                  1);
        outcome.logs.pop_back();
        outcome.stays_open = drain(peer);
        outcome.answer = peer.client.frame();
        EXPECT_EQ(peer.client.bytes(), "");
        return outcome;
    }
};

// ---- the table

using brokerd::Argument;

struct Row {
    const char* name;
    Argument argument;
    const char* without_argument; ///< the answer to a request without the argument that it needs
};

constexpr char kPlainFailure[] = R"({"data": null, "status": -1})";
constexpr char kInvalidCommand[] =
    R"({"data": {"code": 3, "description": "daemon received invalid command"}, "status": -1})";

const Row kRows[] = {
    {"start_cloud_registration", Argument::required, kPlainFailure},
    {"start_registration", Argument::explained, kInvalidCommand},
    {"set_router_model", Argument::string, kPlainFailure},
    {"set_router_name", Argument::string, kPlainFailure},
    {"set_router_feature_set_level", Argument::string, kPlainFailure},
    {"set_router_interfaces", Argument::required, kPlainFailure},
    {"enable_services", Argument::none, nullptr},
    {"disable_services", Argument::none, nullptr},
    {"get_services_status", Argument::none, nullptr},
    {"get_subscription_status", Argument::none, nullptr},
    {"update_subscription_status", Argument::none, nullptr},
    {"get_version_info", Argument::none, nullptr},
    {"set_device_name", Argument::required, kPlainFailure},
    {"set_device_traffic_blocked", Argument::required, kPlainFailure},
    {"set_device_online_status", Argument::required, kPlainFailure},
    {"get_devices", Argument::optional, nullptr},
    {"remove_satellite", Argument::required, kPlainFailure},
    {"va_start", Argument::none, nullptr},
    {"va_stop", Argument::none, nullptr},
    {"va_status", Argument::none, nullptr},
    {"va_self_scan_start", Argument::none, nullptr},
    {"va_set_schedule", Argument::required, kPlainFailure},
    {"va_set_exclusions", Argument::required, kPlainFailure},
    {"va_get_exclusions", Argument::none, nullptr},
    {"pro_features_enable", Argument::none, nullptr},
    {"pro_features_disable", Argument::none, nullptr},
    {"set_va_cloud_trigger", Argument::required, kPlainFailure},
    {"get_va_cloud_trigger", Argument::none, nullptr},
    {"get_router_name", Argument::none, nullptr},
    {"get_router_model", Argument::none, nullptr},
    {"get_router_feature_set_level", Argument::none, nullptr},
    {"get_router_interfaces", Argument::none, nullptr},
    {"reapply_firewall_rules", Argument::none, nullptr},
    {"get_feature", Argument::optional, nullptr},
    {"set_feature", Argument::optional, nullptr},
    {"list_all_features", Argument::none, nullptr},
    {"get_diagnosis_report", Argument::none, nullptr},
    {"get_status_report", Argument::none, nullptr},
};

TEST_F(Commands, AreTheseThirtyEightInThisOrder)
{
    const auto commands = brokerd::commands();
    ASSERT_EQ(commands.size(), std::size(kRows));
    ASSERT_EQ(commands.size(), 38U);
    for (std::size_t i = 0; i < commands.size(); ++i) {
        EXPECT_EQ(commands[i].name, kRows[i].name);
        EXPECT_EQ(commands[i].argument, kRows[i].argument) << kRows[i].name;
    }
}

TEST_F(Commands, WithoutTheArgumentThatTheyNeedFailBeforeAnythingIsDone)
{
    for (const Row& row : kRows) {
        if (!row.without_argument)
            continue;
        SCOPED_TRACE(row.name);
        const Outcome outcome = run(command(row.name));
        EXPECT_EQ(outcome.answer, row.without_argument);
        EXPECT_EQ(outcome.status, -1);
        EXPECT_FALSE(outcome.stays_open);
        EXPECT_TRUE(outcome.calls.empty());
        EXPECT_EQ(outcome.logs, lines({{2, "process " + std::string(row.name) + " command"}}));
    }
}

TEST_F(Commands, ThatNeedAStringFailOnEverythingElseBeforeAnythingIsDone)
{
    for (const Row& row : kRows)
        for (const char* data : {"null", "true", "5", "1.5", "{}", "[]", "[\"text\"]"}) {
            if (row.argument != Argument::string)
                continue;
            SCOPED_TRACE(std::string(row.name) + ", " + data);
            const Outcome outcome = run(command(row.name, data));
            EXPECT_EQ(outcome.answer, kFailed);
            EXPECT_FALSE(outcome.stays_open);
            EXPECT_TRUE(outcome.calls.empty());
        }
}

TEST_F(Commands, AreLoggedAndRunWithoutAnArgumentWhereTheyNeedNone)
{
    for (const Row& row : kRows) {
        if (row.argument != Argument::none)
            continue;
        SCOPED_TRACE(row.name);
        const Outcome outcome = run(command(row.name));
        EXPECT_EQ(outcome.logs.front(),
                  (fake::LogLine{2, "process " + std::string(row.name) + " command", {}, {}}));
        EXPECT_TRUE(!outcome.calls.empty() || outcome.answer != kDone) << "it is no unknown command";
    }
}

TEST_F(Commands, AreFoundByTheirExactNameOnly)
{
    for (const Row& row : kRows) {
        const std::string name = row.name;
        std::string upper = name;
        std::transform(upper.begin(), upper.end(), upper.begin(),
                       [](unsigned char c) { return std::toupper(c); });
        for (const std::string& other :
             {upper, name + " ", " " + name, name + "2", name.substr(0, name.size() - 1)}) {
            SCOPED_TRACE(other);
            const Outcome outcome = run(command(other));
            EXPECT_EQ(outcome.answer, kDone);
            EXPECT_TRUE(outcome.stays_open);
            EXPECT_TRUE(outcome.calls.empty());
        }
    }
}

TEST_F(Commands, ThatNobodyKnowsSucceedAndLeaveTheConnectionOpen)
{
    for (const char* name : {"no_such_command", "", "subscribe", "{}", "%s%n"}) {
        SCOPED_TRACE(name);
        const Outcome outcome = run(command(name));
        EXPECT_EQ(outcome.answer, kDone);
        EXPECT_EQ(outcome.status, 0);
        EXPECT_TRUE(outcome.stays_open);
        EXPECT_EQ(outcome.logs, lines({{2, "process " + std::string(name) + " command"}}));
    }
}

// ---- conversations

/// A command, what it finds, and what must come of it.
struct Conversation {
    std::string request;
    std::map<std::string, std::string> settings;
    const char* failing; ///< the call that fails, null for none
    std::string answer;
    Calls calls;
    Logs logged; ///< after the line that names the command
    bool stays_open;
};

std::string state(const std::string& status)
{
    return R"({"agent_state": ")" + status + R"("})";
}

Calls set_and_report(const std::string& value, const std::string& status)
{
    return {"setMgmt::setKey(/protection/enabled, " + value + ")",
            "karma::build_karma_event_json(tuvo_agent_status, " + state(status) + ")",
            R"(karma::submit_karma_event({"type": "tuvo_agent_status", "data": )" + state(status) + "})"};
}

const Calls kReadProtection{"setMgmt::getKeyValue(/protection/enabled, \"1\")"};
constexpr char kProtection[] = "/protection/enabled";

Conversation set_trigger(const std::string& data, const std::string& value)
{
    return {command("set_va_cloud_trigger", data),
            {},
            nullptr,
            kDone,
            {"setMgmt::setKey(/va/cloud_trigger, " + value + ")"},
            {},
            true};
}

Conversation refused_trigger(const std::string& data)
{
    return {command("set_va_cloud_trigger", data), {}, nullptr, kFailed, {}, {}, false};
}

Conversation message(const std::string& name, const std::string& sent)
{
    return {command(name),
            {},
            nullptr,
            kDone,
            {"orvex_send_message(" + sent + ", {})"},
            lines({{2, "successfully sent " + sent + " message: {}"}}),
            true};
}

Conversation failing_message(const std::string& name, const std::string& sent)
{
    return {command(name),
            {},
            "orvex_send_message(",
            kFailed,
            {"orvex_send_message(" + sent + ", {})"},
            lines({{0, "failed to send " + sent + " message: {}"}}),
            false};
}

Conversation failing_set(const std::string& request, const std::string& call, const std::string& logged)
{
    return {request, {}, "setMgmt::setKey(", kFailed, {call}, lines({{0, logged}}), false};
}

Conversation services_status(const std::string& value, const std::string& answer)
{
    return {command("get_services_status"),
            {{kProtection, value}},
            nullptr,
            answer,
            kReadProtection,
            {},
            answer != kFailed};
}

const std::string kOn = R"({"data": {"status": 1}, "status": 0})";
const std::string kOff = R"({"data": {"status": 0}, "status": 0})";

const std::vector<Conversation> kConversations{
    // protection
    {command("enable_services"), {}, nullptr, kDone, set_and_report("1", "activated"), {}, true},
    {command("disable_services"), {}, nullptr, kDone, set_and_report("0", "deactivated"), {}, true},
    {command("enable_services"), {}, "karma::submit", kDone, set_and_report("1", "activated"), {}, true},
    failing_set(command("enable_services"), "setMgmt::setKey(/protection/enabled, 1)",
                "failed to set protection_enabled key to 1"),
    failing_set(command("disable_services"), "setMgmt::setKey(/protection/enabled, 0)",
                "failed to set protection_enabled key to 0"),
    {command("get_services_status"), {}, nullptr, kOn, kReadProtection, {}, true},
    {command("get_services_status"), {}, "setMgmt::getKeyValue(", kOn, kReadProtection, {}, true},
    services_status("1", kOn),
    services_status("0", kOff),
    services_status("2", kFailed),
    services_status("", kFailed),
    services_status("01", kFailed),
    services_status("-1", kFailed),
    services_status("1 ", kFailed),
    services_status("true", kFailed),
    // pro features
    {command("pro_features_enable"),
     {},
     nullptr,
     kDone,
     {"setMgmt::setKey(/protection/pro_features_enabled, 1)"},
     {},
     true},
    {command("pro_features_disable"),
     {},
     nullptr,
     kDone,
     {"setMgmt::setKey(/protection/pro_features_enabled, 0)"},
     {},
     true},
    failing_set(command("pro_features_enable"), "setMgmt::setKey(/protection/pro_features_enabled, 1)",
                "failed to set kProFeaturesEnabledKey key to 1"),
    failing_set(command("pro_features_disable"), "setMgmt::setKey(/protection/pro_features_enabled, 0)",
                "failed to set kProFeaturesEnabledKey key to 0"),
    // scans
    message("va_start", "orvvad:va_network_scan_start"),
    message("va_stop", "orvvad:va_scan_stop"),
    message("va_self_scan_start", "orvvad:va_self_scan_start"),
    failing_message("va_start", "orvvad:va_network_scan_start"),
    failing_message("va_stop", "orvvad:va_scan_stop"),
    failing_message("va_self_scan_start", "orvvad:va_self_scan_start"),
    // the cloud trigger
    set_trigger("true", "1"),
    set_trigger("false", "0"),
    set_trigger("0", "0"),
    set_trigger("1", "1"),
    set_trigger("5", "1"),
    set_trigger("-1", "1"),
    set_trigger("9223372036854775807", "1"),
    set_trigger("4294967296", "1"),
    refused_trigger("null"),
    refused_trigger("\"1\""),
    refused_trigger("1.0"),
    refused_trigger("{}"),
    refused_trigger("[true]"),
    failing_set(command("set_va_cloud_trigger", "true"), "setMgmt::setKey(/va/cloud_trigger, 1)",
                "failed to set kVaCloudTriggerKey key"),
    // an argument that may be left out; results that are 0 or -1
    {command("get_devices"),
     {},
     nullptr,
     R"({"data": [], "status": 0})",
     {"devMgmt::get_devices()", "setMgmt::getKeyValue(/registration/device_id, \"\")"},
     {},
     true},
    {command("get_devices"), {}, "devMgmt::get_devices()", kFailed, {"devMgmt::get_devices()"}, {}, false},
    {command("get_feature"),
     {},
     nullptr,
     kFailed,
     {},
     lines({{0, "Invalid parameters for get_feature"}}),
     false},
    {command("set_feature"),
     {},
     nullptr,
     kFailed,
     {},
     lines({{0, "Invalid parameters for get_feature"}}),
     false},
    {command("get_version_info"),
     {},
     nullptr,
     R"({"data": {"version": "1.2.3", "patch_level": "4"}, "status": 0})",
     {"get_release_version()", "get_patch_version()"},
     {},
     true},
    // registration: its outcome is an event
    {command("start_cloud_registration", R"({"b":1,"a":[ "x" ]})"),
     {},
     nullptr,
     kDone,
     {R"(orvex_send_request(start_cloud_registration, {"b": 1, "a": ["x"]}))"},
     lines({{2, R"(successfully sent start_cloud_registration request: {"b": 1, "a": ["x"]})"}}),
     true},
    {command("start_cloud_registration", "{}"),
     {},
     "orvex_send_request(",
     kDone,
     {"orvex_send_request(start_cloud_registration, {})"},
     lines({{0, "failed to send start_cloud_registration request: {}"}}),
     true},
    {command("start_cloud_registration", "\"text\""), {}, nullptr, kFailed, {}, {}, false},
    {command("start_cloud_registration", "null"), {}, nullptr, kFailed, {}, {}, false},
};

TEST_F(Commands, DoAndAnswerWhatTheyShould)
{
    for (const Conversation& c : kConversations) {
        SCOPED_TRACE(c.request + (c.failing ? std::string(" with failing ") + c.failing : ""));
        platform->settings = c.settings;
        if (c.failing)
            platform->fail(c.failing);
        Outcome outcome = run(c.request);
        EXPECT_EQ(outcome.answer, c.answer);
        EXPECT_EQ(outcome.calls, c.calls);
        outcome.logs.erase(outcome.logs.begin());
        EXPECT_EQ(outcome.logs, c.logged);
        EXPECT_EQ(outcome.stays_open, c.stays_open);
        platform->requests.clear(); // of the registration: they own nothing
    }
}

TEST_F(Commands, CanFollowOneAnotherOnOneConnection)
{
    Peer peer = connect();
    EXPECT_EQ(ask(peer, command("disable_services")), kDone);
    EXPECT_EQ(ask(peer, command("get_services_status")), kOff);
    EXPECT_EQ(ask(peer, command("enable_services")), kDone);
    EXPECT_EQ(ask(peer, command("get_services_status")), kOn);
}

TEST_F(Commands, IgnoreOtherMembersOfTheRequest)
{
    EXPECT_EQ(
        run(R"({"id":7,"name":"get_services_status","more":{"type":1},"type":"command","data":5})").answer,
        kOn);
}

// ---- answers that come later

TEST_F(Commands, ThatAskAnotherDaemonAreAnsweredWhenItAnswers)
{
    Peer peer = connect();
    const Outcome outcome = run(peer, command("va_status"));
    EXPECT_EQ(outcome.answer, std::nullopt);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(outcome.stays_open);
    EXPECT_THAT(outcome.calls, ElementsAre("orvex_send_request(orvvad:va_scan_status, {})"));
    EXPECT_FALSE(peer.conn->close_after_send);

    platform->answer(R"({"state":"running","progress":5})");
    read_exchange();
    EXPECT_FALSE(drain(peer));
    EXPECT_EQ(peer.client.frame(), R"({"data": {"state": "running", "progress": 5}, "status": 0})");
    EXPECT_TRUE(peer.client.is_closed());
}

TEST_F(Commands, ThatCannotAskAnotherDaemonFail)
{
    platform->fail("orvex_send_request(");
    const Outcome outcome = run(command("va_status"));
    EXPECT_EQ(outcome.answer, kFailed);
    EXPECT_EQ(outcome.status, -1);
    EXPECT_FALSE(outcome.stays_open);
}

TEST_F(Commands, ServeOthersWhileAnAnswerIsOutstanding)
{
    Peer waiting = connect();
    ASSERT_TRUE(receive(waiting, command("va_status") + "\n"));
    EXPECT_EQ(run(command("get_services_status")).answer, kOn);
    EXPECT_EQ(ask(waiting, command("get_services_status")), kOn) << "also on the same connection";
}

// ---- the envelope

TEST(ResponseEnvelope, HasTheDataFirstAndTheStatusSecond)
{
    struct Case {
        int status;
        const char* data;
        const char* envelope;
    };
    for (const Case& c :
         {Case{0, "null", R"({"data": null, "status": 0})"},
          Case{-1, "{\"a\":[1,2]}", R"({"data": {"a": [1, 2]}, "status": -1})"},
          Case{2147483647, "\"x\\u00e9\"", "{\"data\": \"x\xc3\xa9\", \"status\": 2147483647}"}}) {
        const TextPtr text(build_response(c.status, json_loads(c.data, JSON_DECODE_ANY, nullptr)));
        EXPECT_STREQ(text.get(), c.envelope);
    }
}

TEST(ResponseEnvelope, TakesTheDatasOwnership)
{
    json_t* data = json_object();
    json_incref(data);
    const TextPtr text(build_response(0, data));
    EXPECT_EQ(data->refcount, 1U);
    json_decref(data);
}

TEST(ResponseEnvelope, CannotBeBuiltWithoutAValue)
{
    EXPECT_EQ(build_response(0, nullptr), nullptr);
}

/// A list that holds an object so many times, and others between.
json_t* repetitive(json_t* object, unsigned count)
{
    json_t* list = json_array();
    json_array_append_new(list, json_string("first"));
    for (unsigned i = 0; i < count; ++i) {
        json_array_append(list, object);
        if (i % 1000 == 999)
            json_array_append_new(list, json_pack("{s:[n,b]}", "other", 1));
    }
    return list;
}

TEST(ResponseEnvelope, HoldsARepeatedObjectAsOftenAsItIsThere)
{
    // Up to 64 KiB, about, and beyond.
    for (const unsigned count : {1U, 2U, 999U, 1000U, 3000U, 5000U, 20000U}) {
        const JsonPtr object(json_pack("{s:s}", "a", "0123456789"));
        json_t* list = repetitive(object.get(), count);
        const TextPtr alone(json_dumps(list, 0));
        const TextPtr text(build_response(0, list));
        EXPECT_EQ(text.get(), R"({"data": )" + std::string(alone.get()) + R"(, "status": 0})");
    }
}

TEST(ResponseEnvelope, CannotBeBuiltWhenItsLengthFindsNoRoomIn32Bits)
{
    const JsonPtr object(json_pack("{s:s}", "a", std::string(1 << 20, 'x').c_str()));
    EXPECT_EQ(build_response(0, repetitive(object.get(), 4096)), nullptr);
}

TEST(ErrorObject, HasACodeAndADescription)
{
    const JsonPtr error(build_error_response(3, "daemon received invalid command"));
    ASSERT_TRUE(error);
    const TextPtr text(json_dumps(error.get(), 0));
    EXPECT_STREQ(text.get(), R"({"code": 3, "description": "daemon received invalid command"})");
    EXPECT_EQ(error->refcount, 1U);
}

TEST_F(Commands, WhoseAnswerCannotBeBuiltGetNoneAndTheNextOneIsAnswered)
{
    // Only a list needs memory to be written: one whose text is beyond 64 KiB, and that holds a device twice.
    platform->settings["/registration/device_id"] = "router-1";
    platform->devices["d1"] = make_device("d1", "router-1");
    platform->devices["d1"].display_name.assign(70000, 'x');
    const std::string line = command("get_devices", R"(["d1", "d1"])");
    int unanswered = 0;
    bool failed = true;
    for (unsigned n = 1; failed; ++n) {
        Peer peer = connect();
        forget_records();
        platform->fail_memory("throwing new", n);
        const bool stays = receive(peer, line + "\n");
        failed = platform->memory_failed("throwing new");
        platform->fail_memory("throwing new", 0);
        const Logs logs = platform->take_logs();
        if (!failed || logs.back().text != "last operation status is 0")
            continue; // it was answered, or failed before
        SCOPED_TRACE(n);
        ASSERT_TRUE(stays);
        ASSERT_TRUE(drain(peer));
        EXPECT_EQ(peer.client.bytes(), "");
        EXPECT_FALSE(peer.client.is_closed());
        const Outcome next = run(peer, command("get_services_status"));
        EXPECT_EQ(next.answer, R"({"data": {"status": 1}, "status": 0})");
        EXPECT_TRUE(next.stays_open);
        ++unanswered;
    }
    EXPECT_GT(unanswered, 0);
}

TEST_F(Commands, WhoseEnvelopeCannotBeBuiltHaveNone)
{
    platform->fail_json_allocation(1, true);
    EXPECT_EQ(build_error_response(3, "text"), nullptr);
    platform->fail_json_allocation(0);
    platform->fail_memory("malloc");
    EXPECT_EQ(build_response(0, json_null()), nullptr);
    EXPECT_TRUE(platform->memory_failed("malloc"));

    const JsonPtr object(json_pack("{s:s}", "a", std::string(100000, 'x').c_str()));
    json_t* list = repetitive(object.get(), 2);
    platform->fail_memory("throwing new");
    const fake::Fake::Inside inside;
    EXPECT_EQ(build_response(0, list), nullptr);
}

TEST_F(Commands, HaveTheSameEnvelopeAroundDataOfAnySize)
{
    constexpr std::size_t kKept = std::size_t{64} * 1024; // what is longer is written twice
    for (std::size_t size = kKept - 40; size < kKept + 4; ++size) {
        const std::string member(size, 'x');
        const TextPtr text(build_response(0, json_pack("{s:s}", "a", member.c_str())));
        ASSERT_TRUE(text);
        EXPECT_TRUE(text.get() == R"({"data": {"a": ")" + member + R"("}, "status": 0})") << size;
    }
}

TEST_F(Commands, HaveAWholeEnvelopeOrNoneWhenMemoryIsShort)
{
    const std::string member(100000, 'x'); // too long to be kept: it is written twice
    const std::string whole = R"({"data": {"a": ")" + member + R"("}, "status": 0})";
    bool failed = true;
    for (unsigned n = 1; failed; ++n) {
        json_t* data = json_pack("{s:s}", "a", member.c_str());
        platform->fail_memory("malloc", n);
        const TextPtr text(build_response(0, data));
        failed = platform->memory_failed("malloc");
        platform->fail_memory("malloc", 0);
        EXPECT_TRUE(failed ? text == nullptr : text.get() == whole) << n;
    }
}

} // namespace
} // namespace orv::test
