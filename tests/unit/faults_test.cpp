// Everything that the daemon can be made to do, with everything failing that can fail in it.

#include "support/faults.h"
#include "support/scenario.h"

#include "make_device.h"

#include "client_events.h"
#include "evhandler.h"
#include "orvbrokerd.h"
#include "state.h"
#include "subevhandlers.h"

#include <orvutils/json.h>

#include <map>
#include <memory>
#include <optional>
#include <set>

namespace orv::test {
namespace {

using devMgmt::DevInfoChangeType;
using sockutl::macaddr;
using Answers = std::vector<std::pair<std::string, std::string>>; ///< type and data

// ---- commands

/// What a failure may leave of a command's changes.
enum class Leaves {
    all_or_nothing,
    a_part, ///< what it does one after the other stays done
};

struct CommandCase {
    std::string name;
    std::string data;
    Settings settings = {};
    Answers answers = {{"0", "{}"}}; ///< of the exchange, if it is asked; each makes a play
    Leaves leaves = Leaves::all_or_nothing;
    std::set<std::string> kept_locks = {};
};

const Settings kRouter{{"/registration/device_id", "r1"}, {"/registration/user_token", "t"}};
const Settings kQueueing{{"/leases/mode", "orvleases-ng"}};
const Settings kSubscription{{"/tmp/subscription/global/status", "valid"},
                             {"/tmp/subscription/global/expiry", "5"}};
const Settings kUpdated{{"/tmp/subscription/global/status", "valid"},
                        {"/tmp/subscription/global/expiry", "0"},
                        {"/tmp/subscription/last_update_ts", "1700"},
                        {"/tmp/subscription/last_error", "0"}};
const Settings kFull{{"/leases/mode", "orvleases-ng"},
                     {"/tmp/daemons/orvleases-ng/requests/count", "100"},
                     {"/tmp/daemons/orvleases-ng/requests/99", "{}"}};
const Answers kCodes{{"0", "{}"}, {"1", "{}"}, {"busy", "{}"}};
const Answers kRegistered{
    {"0", R"({"result": "ok"})"}, {"0", R"({"result": "no", "reason": "why"})"}, {"0", "no JSON"}};

const CommandCase kCases[] = {
    {"start_cloud_registration", R"({"a": [1]})", {}, kRegistered},
    {"start_registration", R"({"token": "t", "mac": "m", "redeem": "r"})", {}, kRegistered},
    {"start_registration", R"({"router_id": "r1"})"},
    {"start_registration", R"({"no": "schema"})"},
    {"set_router_model", R"("model")", kRouter, kRegistered},
    {"set_router_name", R"("New")", kRouter, kCodes},
    {"set_router_feature_set_level", R"("velm-pro")", kRouter, kRegistered},
    {"set_router_interfaces",
     R"([{"name": "eth0", "type": "wan"}, {"name": "wl1", "type": "bad"}, {}])",
     {{"/network/interfaces/old", "lan"}},
     {{"0", "{}"}},
     Leaves::a_part},
    {"enable_services", "", {{"/protection/enabled", "0"}}},
    {"disable_services", ""},
    {"get_services_status", ""},
    {"get_subscription_status", "", kSubscription},
    {"update_subscription_status", "", kSubscription},
    {"update_subscription_status", "", kUpdated},
    {"get_version_info", ""},
    {"set_device_name", R"({"device_id": "d1", "name": "given"})", kRouter, kCodes},
    {"set_device_traffic_blocked", R"({"device_id": "d1", "traffic_blocked": 1})", kRouter, kCodes},
    {"set_device_online_status", R"({"d1": 1})", kQueueing, {{"0", "{}"}}, Leaves::a_part},
    {"set_device_online_status", R"({"d1": 1})", kFull, {{"0", "{}"}}, Leaves::a_part},
    {"get_devices", "", kRouter},
    {"get_devices", R"(["d1", "d3", "d1"])", kRouter},
    {"remove_satellite",
     R"({"mac": "aa:bb:cc:00:00:01"})",
     kRouter,
     kCodes,
     Leaves::a_part,
     {"/va/blacklist/satellites", "/discovery/blacklist/satellites"}},
    {"remove_satellite",
     R"({"mac": "aa:bb:cc:00:00:99"})",
     kRouter,
     kCodes,
     Leaves::a_part,
     {"/va/blacklist/satellites", "/discovery/blacklist/satellites"}},
    {"va_start", ""},
    {"va_stop", ""},
    {"va_status", "", {}, {{"0", R"({"state": "idle"})"}, {"0", "no JSON"}}},
    {"va_self_scan_start", ""},
    {"va_set_schedule", R"({"enabled": true})", {}, {{"0", "{}"}, {"2", "busy"}, {"x", ""}}},
    {"va_set_exclusions", R"(["aa:bb:cc:dd:ee:ff", "aa:bb:cc:dd:ee:f[0-9]"])"},
    {"va_set_exclusions", R"(["invalid"])"},
    {"va_get_exclusions", ""},
    {"va_get_exclusions", "", {{"/va/blacklist/exclusions", "aa:bb:cc:dd:ee:ff,aa:bb:cc:dd:ee:00"}}},
    {"pro_features_enable", ""},
    {"pro_features_disable", ""},
    {"set_va_cloud_trigger", "true"},
    {"get_va_cloud_trigger", "", {{"/va/cloud_trigger", "1"}}},
    {"get_router_name", "", {{"/registration/tuvo_name", "Home"}}},
    {"get_router_name",
     "",
     {{"/registration/tuvo_name", std::string(50000, 'n')}}}, // more than one event writes
    {"set_router_name", '"' + std::string(20000, 'n') + '"', kRouter},
    {"set_router_name", R"("for later")", {}, {{"0", "{}"}}, Leaves::a_part},
    {"set_router_model", R"("for later")", {}, {{"0", "{}"}}, Leaves::a_part},
    {"get_router_model", "", {{"/registration/device_model", "m"}}},
    {"get_router_feature_set_level", "", {{"/registration/feature_set_level", "velm-pro"}}},
    {"get_router_interfaces", "", {{"/network/interfaces/eth0", "wan"}, {"/network/interfaces/br0", "lan"}}},
    {"reapply_firewall_rules", ""},
    {"get_feature",
     R"(["va_scan", "protection"])",
     {{"/features/va_scan", "disabled"}, {"/features/protection", "?"}}},
    {"set_feature", R"({"va_scan": "enabled", "protection": "disabled"})", {}, {{"0", "{}"}}, Leaves::a_part},
    {"list_all_features", ""},
    {"get_diagnosis_report", ""},
    {"get_status_report", ""},
};

/// Calls whose failure alone is not logged.
constexpr const char* kSilent[] = {
    "recv(client",
    "send(client",
    "epoll_ctl(MOD, client",
    "setMgmt::getKey(",
    "setMgmt::getKeyValue(",
    "setMgmt::enumSubkeys(/network/interfaces)",
    "setMgmt::setKey(/tmp/daemons/orvbrokerd/d1/friendly_name",
    "devMgmt::get_device",
    "featureutl::get_feature(",
    "diagnosis::Manager::",
};

/// What a client has got.
struct Outcome {
    std::optional<std::string> frame;
    bool is_closed = false;
    Settings settings; ///< as they are then
};

class CommandFaults : public FaultTest {
protected:
    Play play(const CommandCase& c, const std::pair<std::string, std::string>& answer)
    {
        Play play;
        play.title = c.name + " " + c.data.substr(0, 100) + ", answered " + answer.first + answer.second;
        play.before = {[this, c] { prepare(c); }};
        play.steps = {[this, c] { m_client->send(command(c.name, c.data) + "\n"); },
                      [this, answer] {
                          m_has_asked = !platform->requests.empty();
                          answer_all(answer.second, answer.first);
                      }};
        const auto undisturbed = std::make_shared<Outcome>();
        play.after = {[this, c, undisturbed] { judge(c, *undisturbed); }, [this] { m_client.reset(); }};
        return play;
    }

private:
    void prepare(const CommandCase& c)
    {
        platform->settings = c.settings;
        platform->devices = {{"d1", make_device("d1", "r1")}, {"d3", make_device("d3")}};
        platform->devices["d1"].macs[macaddr("aa:bb:cc:00:00:01")];
        kept_locks = c.kept_locks;
        m_client.emplace();
        m_client->connect();
    }

    void judge(const CommandCase& c, Outcome& undisturbed)
    {
        const auto frame = m_client->frame();
        const std::string rest = m_client->bytes(); // of an answer that could not be sent any further
        const Outcome outcome{frame, m_client->is_closed(), platform->settings};
        EXPECT_TRUE(rest.empty() || (!frame && outcome.is_closed && has_failed_call("send(client"))) << rest;
        if (fault().kind == "none")
            undisturbed = outcome;
        if (!has_failed()) {
            EXPECT_EQ(outcome.frame, undisturbed.frame);
        }
        const bool is_as_ever = outcome.frame == undisturbed.frame;
        const bool is_failure = outcome.frame && !is_success(*outcome.frame);
        EXPECT_TRUE(outcome.frame || outcome.is_closed || may_stay_unanswered(undisturbed))
            << "neither answered nor closed";
        EXPECT_TRUE(outcome.is_closed || !is_failure) << *outcome.frame;
        if (c.leaves == Leaves::all_or_nothing)
            judge_settings(c, outcome, undisturbed);
        if (!is_as_ever || outcome.settings != undisturbed.settings) {
            EXPECT_TRUE(is_told() || !is_to_be_told()) << "not a word: " << testing::PrintToString(logs());
        }
    }

    void judge_settings(const CommandCase& c, const Outcome& outcome, const Outcome& undisturbed)
    {
        if (!outcome.frame) {
            EXPECT_THAT(outcome.settings, testing::AnyOf(c.settings, undisturbed.settings));
        } else if (outcome.frame == undisturbed.frame) {
            EXPECT_EQ(outcome.settings, undisturbed.settings);
        } else if (!is_success(*outcome.frame)) {
            EXPECT_EQ(outcome.settings, c.settings) << *outcome.frame;
        }
    }

    bool is_told()
    {
        return std::any_of(logs().begin(), logs().end(), [](const auto& line) { return line.level <= 1; });
    }

    /// An envelope that finds no memory when the request is handled is left out; or nobody looks after the
    /// connection.
    bool may_stay_unanswered(const Outcome& undisturbed)
    {
        const bool is_answered_later = m_has_asked && undisturbed.is_closed;
        return (fault().is_memory() && !is_answered_later) || has_failed_call("epoll_ctl(MOD, client");
    }

    /// What becomes of one connection is nobody's business. What cannot be read counts as not being there,
    /// and what finds no memory for its JSON as malformed: that is the client's to hear.
    bool is_to_be_told()
    {
        if (fault().kind == "throwing new")
            return true;
        return fault().kind == "call" &&
               std::none_of(std::begin(kSilent), std::end(kSilent),
                            [this](const char* call) { return has_failed_call(call); });
    }

    static bool is_success(const std::string& frame)
    {
        const JsonPtr envelope(json_loads(frame.c_str(), 0, nullptr));
        EXPECT_NE(json_object_get(envelope.get(), "data"), nullptr) << frame;
        const json_t* status = json_object_get(envelope.get(), "status");
        EXPECT_TRUE(json_is_integer(status)) << frame;
        return json_integer_value(status) == 0;
    }

    std::optional<Client> m_client;
    bool m_has_asked = false; ///< the exchange
};

TEST_F(CommandFaults, LeaveEachClientAnsweredOnceOrClosedAndTheOthersServed)
{
    std::set<std::string_view> missing;
    for (const auto& shape : brokerd::commands())
        missing.insert(shape.name);
    std::vector<Play> plays;
    for (const CommandCase& c : kCases) {
        missing.erase(c.name);
        for (const auto& answer : c.answers)
            plays.push_back(play(c, answer));
    }
    EXPECT_TRUE(missing.empty()) << *missing.begin();
    survive(plays);
}

TEST_F(CommandFaults, BefallTheParserWithTextsOfEveryLength)
{
    std::vector<Play> plays;
    const auto add = [&](const CommandCase& c) {
        plays.push_back(play(c, {}));
        plays.back().kinds = {"JSON", "malloc", "size"};
    };
    for (std::size_t length = 0; length <= 70; ++length) {
        const std::string text(length, 'x');
        add({text, R"({")" + text + R"(": [")" + text + R"(", "\u00e9)" + text + "\"]}"});
    }
    for (const std::size_t length : {1000U, 4000U, 5000U, 20000U})
        add({"get_services_status", "[[\"" + std::string(length, 'x') + "\"], 1.5, true]"});
    survive(plays);
}

// ---- what comes from others

/// What clients have subscribed to, before something happens that they are told of.
class EventFaults : public FaultTest {
protected:
    /// Something happens; `next` is what happens when nothing fails any more, and is told to the subscribers
    /// of `event`.
    Play play(const std::string& title, Play::Step happening, const std::string& event, Play::Step next,
              bool with_subscribers)
    {
        Play play;
        play.title = title + (with_subscribers ? ", with subscribers" : ", without subscribers");
        play.before = {[this] { prepare(); }};
        if (with_subscribers) {
            play.before.emplace_back([this] { connect(); });
            play.before.emplace_back([this] { subscribe(); });
            play.before.emplace_back([this] { expect_subscribed(); });
        }
        play.steps = {std::move(happening), [this] { answer_all(R"({"result": "ok"})"); }};
        play.after = {[this] { expect_whole_frames(); }, std::move(next),
                      [this] { answer_all(R"({"result": "ok"})"); }, [this, event] { expect_told(event); },
                      [this] { m_subscribers.clear(); }};
        return play;
    }

    Play::Step exchange_event(const std::string& type, const std::string& data, bool is_unique = false)
    {
        return [=] {
            const std::string number = is_unique ? std::to_string(++m_events) : "";
            platform->deliver(type, is_unique ? data + number + "\"}" : data);
        };
    }

    Play::Step change(DevInfoChangeType type, const std::string& field)
    {
        return [=] {
            platform->notify_watch([=] {
                devMgmt::Device device = make_device("d1", "r1");
                device.macs[macaddr("aa:bb:cc:00:00:01")].insert(sockutl::address("192.168.1.20"));
                platform->change_device(type, device, field);
            });
        };
    }

    Play::Step subscription_change(const char* status)
    {
        return [=] {
            platform->settings["/tmp/subscription/global/status"] = status;
            platform->settings["/tmp/subscription/global/expiry"] = std::to_string(++m_events);
            platform->notify_watch();
        };
    }

    /// Not looked at: nobody is told.
    static void nothing() {}

private:
    void prepare()
    {
        platform->settings = {{"/tmp/daemons/orvbrokerd/d1/friendly_name", "given"}};
        platform->outbox = {R"({"id": "1", "type": "a"})", R"({"id": "2", "type": "b"})"};
        brokerd::g_events_cache.clear();
    }

    void connect()
    {
        for (const char* event : brokerd::kClientEvents)
            m_subscribers[event].connect();
    }

    void subscribe()
    {
        for (auto& [event, client] : m_subscribers)
            client.send(subscription(event) + "\n");
    }

    void expect_subscribed()
    {
        for (auto& [event, client] : m_subscribers)
            EXPECT_EQ(client.frame(), R"({"data": null, "status": 0})") << event;
    }

    /// Whoever is there still has got whole events.
    void expect_whole_frames()
    {
        for (auto& [event, client] : m_subscribers) {
            while (const auto frame = client.frame()) {
                EXPECT_NE(JsonPtr(json_loads(frame->c_str(), 0, nullptr)), nullptr) << *frame;
            }
            const std::string rest = client.bytes();
            const bool is_closed = client.is_closed();
            EXPECT_TRUE(is_closed ? has_failed() : rest.empty()) << event;
        }
    }

    void expect_told(const std::string& event)
    {
        const auto found = m_subscribers.find(event);
        if (found == m_subscribers.end() || found->second.is_closed())
            return;
        EXPECT_TRUE(found->second.frame().has_value()) << "the next event does not arrive";
    }

    std::map<std::string, Client> m_subscribers;
    unsigned m_events = 0;
};

TEST_F(EventFaults, LeaveSubscribersWithWholeEventsAndTheNextOneArrives)
{
    const auto sighting = exchange_event(
        "guster_user_agent", R"({"src_ip": "1.2.3.4", "src_mac": "aa:aa:aa:aa:aa:01", "user_agent": "agent )",
        true);
    const auto scan = exchange_event("va_status_changed", R"({"n": ")", true);
    const auto start = exchange_event("orvagent_started", "{}");
    const auto registered = exchange_event("registration_status_changed", R"({"result": "ok"})");
    const auto refused =
        exchange_event("registration_status_changed", R"({"result": "no", "reason": "why"})");
    const auto update = change(DevInfoChangeType::updated, "display_name");
    const auto addresses = change(DevInfoChangeType::updated, "macs");
    const auto appear = change(DevInfoChangeType::added, "");
    const auto vanish = change(DevInfoChangeType::removed, "");
    const auto rename = change(DevInfoChangeType::updated, "friendly_name");
    const auto list = [this, appear] {
        appear();
        platform->expire("timer2");
    };
    const auto telemetry = [this] { platform->expire("timer1"); };

    std::vector<Play> plays;
    for (const bool with_subscribers : {false, true}) {
        const auto add = [&](const std::string& title, const Play::Step& happening, const std::string& event,
                             const Play::Step& next) {
            plays.push_back(play(title, happening, event, next, with_subscribers));
        };
        add("a sighting", sighting, "device_discovery", sighting);
        add("a scan", scan, "va_status_changed", scan);
        add("the agent's start", start, "orvagent_started", start);
        add("a registration", registered, "", nothing);
        add("a refused registration", refused, "", nothing);
        add("an event that nobody knows", exchange_event("unheard_of", "{}"), "", nothing);
        add("an event of no JSON", exchange_event("guster_user_agent", "no JSON"), "device_discovery",
            sighting);
        add("a device's change", update, "device_discovery", update);
        add("a device's new address", addresses, "device_discovery", addresses);
        add("a device's appearance", appear, "devices_list_updated", list);
        add("a device's end", vanish, "devices_list_updated", list);
        add("a device's new name", rename, "device_discovery", update);
        add("the list of changed devices", list, "devices_list_updated", list);
        add("a subscription", subscription_change("valid"), "subscription_changed",
            subscription_change("valid"));
        add("an end of the subscription", subscription_change("none"), "subscription_changed",
            subscription_change("expired"));
        add("telemetry to send again", telemetry, "", nothing);
    }
    survive(plays);
}

// ---- clients that come, subscribe and go

class ConnectionFaults : public FaultTest {
protected:
    struct Newcomer {
        const char* title;
        const char* allowed; ///< null for no list
        bool is_admitted;
    };

    Play::Step connect()
    {
        return [this] { m_clients.emplace_back().connect(); };
    }

    Play::Step send(std::size_t client, const std::string& bytes)
    {
        return [this, client, bytes] { m_clients.at(client).send(bytes); };
    }

    Play::Step leave(std::size_t client)
    {
        return [this, client] { m_clients.at(client).close(); };
    }

    Play::Step answer()
    {
        return [this] { answer_all("{}"); };
    }

    Play::Step all_leave()
    {
        return [this] { m_clients.clear(); };
    }

    Client& client() { return m_clients.front(); }

    void allow(const Newcomer& newcomer)
    {
        platform->settings.clear();
        if (newcomer.allowed)
            platform->settings["/daemons/orvbrokerd/allowed_uids"] = newcomer.allowed;
    }

    void come()
    {
        platform->peer_uid = 4321;
        platform->now += 10; // everybody who is refused is told of
        connect()();
        client().send(command("get_services_status") + "\n");
    }

    void judge(const Newcomer& newcomer)
    {
        platform->peer_uid.reset();
        const auto frame = client().frame();
        const bool is_closed = client().is_closed();
        const bool is_failure = frame == kFailure && fault().kind == "JSON";
        EXPECT_TRUE(!frame || (newcomer.is_admitted && (frame == kStatus || is_failure))) << *frame;
        EXPECT_TRUE(has_failed() || frame.has_value() == newcomer.is_admitted);
        EXPECT_TRUE(frame || is_closed || may_stay_unanswered());
        if (!is_closed)
            client().send(command("get_services_status") + "\n");
    }

    void judge_subscriber()
    {
        const auto frame = client().frame();
        const bool is_closed = client().is_closed();
        EXPECT_TRUE(!frame || frame == kDone) << *frame;
        EXPECT_TRUE(frame || (has_failed() && (is_closed || may_stay_unanswered())));
        m_is_subscribed = frame && !is_closed;
    }

    bool may_stay_unanswered() { return fault().is_memory() || has_failed_call("epoll_ctl(MOD, client"); }

    static constexpr char kDone[] = R"({"data": null, "status": 0})";
    static constexpr char kFailure[] = R"({"data": null, "status": -1})";
    static constexpr char kStatus[] = R"({"data": {"status": 1}, "status": 0})";

    std::deque<Client> m_clients;
    bool m_is_subscribed = false;
};

TEST_F(ConnectionFaults, LeaveAClientThatComesServedOrClosed)
{
    std::vector<Play> plays;
    for (const Newcomer& newcomer :
         {Newcomer{"everybody may connect", nullptr, true}, Newcomer{"this user may connect", "1,4321", true},
          Newcomer{"this user may not connect", "1,2", false},
          Newcomer{"nobody may connect", "no list", false}}) {
        Play play;
        play.title = newcomer.title;
        play.before = {[this, newcomer] { allow(newcomer); }};
        play.steps = {[this] { come(); }};
        play.after = {[this, newcomer] { judge(newcomer); },
                      [this] { EXPECT_TRUE(client().is_closed() || client().frame() == kStatus); },
                      all_leave()};
        plays.push_back(play);
    }
    survive(plays);
}

TEST_F(ConnectionFaults, LeaveASubscriberWithHisEventsOrClosed)
{
    const auto publish = [this] {
        const std::string agent = "agent " + std::to_string(serial());
        platform->deliver("orvagent_started", "{}");
        platform->deliver("va_status_changed", "{}");
        platform->deliver("guster_user_agent",
                          R"({"src_ip": "1.2.3.4", "src_mac": "aa", "user_agent": ")" + agent + "\"}");
    };
    std::vector<Play> plays;
    for (const char* event : {"device_discovery", "orvagent_started", "va_status_changed"}) {
        Play play;
        play.title = std::string("subscription to ") + event;
        play.before = {connect()};
        play.steps = {send(0, subscription(event) + "\n")};
        play.after = {[this] { judge_subscriber(); }, publish,
                      [this] { EXPECT_TRUE(!m_is_subscribed || client().frame()) << "is not told"; },
                      all_leave()};
        plays.push_back(play);
    }
    survive(plays);
}

TEST_F(ConnectionFaults, LeaveNothingOfAClientThatGoes)
{
    const std::string asking = command("start_registration", R"({"router_id": "r1"})") + "\n";
    const std::string waiting = command("va_status") + "\n";
    const std::string subscribing = subscription("device_discovery") + "\n";
    const auto ask_and_leave = [this, asking] {
        client().send(asking);
        client().close();
    };
    survive({
        {"without a word", {}, {connect()}, {leave(0)}, {all_leave()}},
        {"after half a line", {}, {connect(), send(0, "{\"type\":")}, {leave(0)}, {all_leave()}},
        {"with a line that is none", {}, {connect()}, {send(0, "no JSON\n")}, {all_leave()}},
        {"while his answer is due",
         {},
         {connect(), send(0, waiting)},
         {leave(0), answer()},
         {answer(), all_leave()}},
        {"while two answers are due",
         {},
         {connect(), send(0, waiting + asking), connect(), send(1, waiting)},
         {leave(0), answer()},
         {answer(), all_leave()}},
        {"before he is answered", {}, {connect()}, {ask_and_leave, answer()}, {answer(), all_leave()}},
        {"as a subscriber", {}, {connect(), send(0, subscribing)}, {leave(0)}, {all_leave()}},
        {"as one of two subscribers",
         {},
         {connect(), send(0, subscribing), connect(), send(1, subscribing)},
         {leave(0), leave(1)},
         {all_leave()}},
    });
}

} // namespace
} // namespace orv::test
