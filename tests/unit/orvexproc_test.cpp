// What exchange events mean for clients.

#include "support/fixture.h"

#include "orvbrokerd.h"
#include "orvexproc.h"

#include <fmt/format.h>

namespace orv::test {
namespace {

using brokerd::process_cloud_registration_status;
using brokerd::RegistrationStatus;
using fake::MessageRecord;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

/// A report of the agent's status, as the fake records it.
std::string report(const std::string& status)
{
    return R"(karma::submit_karma_event({"type": "tuvo_agent_status", "data": {"agent_state": ")" + status +
           R"("}}))";
}

std::string described(const std::string& type, const std::string& data)
{
    return "(from:orvagent type:" + type + " datalen:" + std::to_string(data.size()) + " data:" + data + ")";
}

class ExchangeEvents : public ServiceTest {
protected:
    /// Lets an event arrive; what is recorded is only what the daemon did with it.
    void arrive(const std::string& type, const std::string& data, std::uint64_t id = 1)
    {
        forget_records();
        const MessageRecord message(type, data, id);
        const fake::Fake::Inside inside;
        platform->event_callback(message.get());
    }

    [[nodiscard]] fake::Calls reports()
    {
        fake::Calls submitted;
        for (const std::string& call : platform->take_calls())
            if (call.rfind("karma::submit_karma_event", 0) == 0)
                submitted.push_back(call);
        return submitted;
    }
};

TEST_F(ExchangeEvents, ThatNobodyListensToAreUnknown)
{
    for (const char* type :
         {"va_status_changed", "", "registration_status_changed2", "Registration_status_changed"}) {
        arrive(type, "{}");
        EXPECT_EQ(platform->take_logs(), lines({{0, "unknown " + std::string(type) + " event"}}));
        EXPECT_TRUE(platform->take_calls().empty());
    }
}

TEST_F(ExchangeEvents, WithTheLongestPossibleNameAreLoggedCompletely)
{
    const std::string name(kOrvexMaxName, 'n');
    arrive(name, "");
    EXPECT_EQ(platform->take_logs(), lines({{0, "unknown " + name + " event"}}));
}

// ---- registration results

struct RegistrationCase {
    const char* payload;
    int ok;
    const char* json;  ///< null for none
    const char* error; ///< the line at level 0, null for none
};

const RegistrationCase kRegistrationCases[] = {
    {R"({"result":"ok"})", 1, R"({"successful": true})", nullptr},
    {R"({"result":"ok","reason":"ignored","more":[1]})", 1, R"({"successful": true})", nullptr},
    {R"({"result":"denied","reason":"no token"})", 0,
     R"({"successful": false, "error": "denied", "reason": "no token"})",
     "cloud_registration error: denied (no token)"},
    {R"({"result":"OK","reason":""})", 0, R"({"successful": false, "error": "OK", "reason": ""})",
     "cloud_registration error: OK ()"},
    {R"({"result":"","reason":"{}"})", 0, R"({"successful": false, "error": "", "reason": "{}"})",
     "cloud_registration error:  ({})"},
    {R"({"result":"denied"})", 0, nullptr, nullptr},
    {R"({"result":"denied","reason":5})", 0, nullptr, nullptr},
    {R"({"result":1,"reason":"x"})", 0, nullptr, nullptr},
    {R"({"reason":"x"})", 0, nullptr, nullptr},
    {R"({})", 0, nullptr, nullptr},
    {R"(["result","ok"])", 0, nullptr, nullptr},
    {R"("ok")", 0, nullptr, nullptr},
    {R"({"result":"ok")", 0, nullptr, nullptr},
    {R"({"result":"ok"} x)", 0, nullptr, nullptr},
    {"", 0, nullptr, nullptr},
};

TEST_F(ExchangeEvents, OfRegistrationAreReadStrictly)
{
    for (const RegistrationCase& c : kRegistrationCases) {
        SCOPED_TRACE(c.payload);
        forget_records();
        const MessageRecord message("registration_status_changed", c.payload);
        const RegistrationStatus status = process_cloud_registration_status(message.get());
        EXPECT_EQ(status.ok, c.ok);
        EXPECT_STREQ(status.json.get(), c.json);

        fake::Logs expected = lines({{3, "Message: " + described("registration_status_changed", c.payload)}});
        if (c.error)
            expected.push_back({0, c.error, {}, {}});
        EXPECT_EQ(platform->take_logs(), expected);
    }
}

TEST_F(ExchangeEvents, OfRegistrationReadNoFurtherThanTheirLength)
{
    Message message = *MessageRecord("registration_status_changed", "").get();
    const std::string longer = R"({"result":"ok"})"
                               "garbage behind the payload";
    message.data = longer.data();
    message.datalen = 15;
    EXPECT_EQ(process_cloud_registration_status(&message).ok, 1);
}

TEST_F(ExchangeEvents, OfRegistrationAreReportedAsTheAgentsStatusAndTellClientsNothing)
{
    Peer listener = subscribe("cloud_registration_status");
    Peer other = subscribe("registration_status_changed");
    for (const RegistrationCase& c : kRegistrationCases) {
        SCOPED_TRACE(c.payload);
        arrive("registration_status_changed", c.payload);

        fake::Logs expected = lines({{2, "Received registration_status_changed event"},
                                     {3, "Message: " + described("registration_status_changed", c.payload)}});
        if (c.error)
            expected.push_back({0, c.error, {}, {}});
        if (!c.json)
            expected.push_back({0, "failed to process registration_status_changed event", {}, {}});
        EXPECT_EQ(platform->take_logs(), expected);
        if (c.json)
            EXPECT_THAT(reports(), ElementsAre(report(c.ok == 1 ? "registered" : "deployed")));
        else
            EXPECT_THAT(reports(), IsEmpty());
        EXPECT_EQ(listener.conn->tx.pending(), 0U);
        EXPECT_EQ(other.conn->tx.pending(), 0U);
    }
}

TEST_F(ExchangeEvents, OfRegistrationSurviveShortMemoryWithOneReportAtMost)
{
    bool failed = true;
    for (unsigned n = 1; failed; ++n) {
        SCOPED_TRACE(n);
        platform->fail_json_allocation(n);
        arrive("registration_status_changed", R"({"result":"ok"})");
        failed = platform->json_allocation_failed();
        platform->fail_json_allocation(0);
        EXPECT_LE(reports().size(), 1U);
    }
}

class RegistrationAnswer : public ExchangeEvents {
protected:
    void arrive_as_answer(const std::string& payload) { arrive_as_answer(payload, brokerd::epollfd); }

    void arrive_as_answer(const std::string& payload, const int& epoll)
    {
        brokerd::orvex_send_req("start_cloud_registration", "{}", epoll);
        forget_records();
        const fake::Request request = platform->requests.at(0);
        platform->requests.clear();
        const MessageRecord response("0", payload);
        request.callback(request.arg, response.get());
    }
};

TEST_F(RegistrationAnswer, WithoutASubscriberIsDroppedUnread)
{
    arrive_as_answer(R"({"result":"ok"})");
    EXPECT_EQ(platform->take_logs(),
              lines({{1, "failed to find connections for cloud_registration_status event"}}));
    EXPECT_TRUE(platform->take_calls().empty());
}

TEST_F(RegistrationAnswer, GoesToEverySubscriberAndSuccessIsReported)
{
    Peer a = subscribe("cloud_registration_status");
    Peer b = subscribe("cloud_registration_status");
    arrive_as_answer(R"({"result":"ok"})");

    EXPECT_EQ(platform->take_logs(), lines({{3, "Message: " + described("0", R"({"result":"ok"})")}}));
    EXPECT_THAT(
        platform->take_calls(),
        ElementsAre("epoll_ctl(MOD, client1, IN|OUT)", "epoll_ctl(MOD, client2, IN|OUT)",
                    R"(karma::build_karma_event_json(tuvo_agent_status, {"agent_state": "registered"}))",
                    report("registered")));
    for (Peer* peer : {&a, &b}) {
        EXPECT_TRUE(drain(*peer));
        EXPECT_EQ(peer->client.bytes(), framed(R"({"successful": true})"));
    }
}

TEST_F(RegistrationAnswer, HasItsSubscribersWatchedOnTheDescriptorThatTheRequestWasSentWith)
{
    const Peer peer = subscribe("cloud_registration_status");
    const OtherEpoll other;
    arrive_as_answer(R"({"result":"ok"})", other.fd());
    EXPECT_EQ(watched_for(peer, other.fd()), EPOLLIN | EPOLLOUT);
    EXPECT_EQ(watched_for(peer), EPOLLIN);
}

TEST_F(RegistrationAnswer, OfAFailureIsToldButNotReported)
{
    Peer peer = subscribe("cloud_registration_status");
    arrive_as_answer(R"({"result":"denied","reason":"no token"})");
    EXPECT_THAT(platform->take_calls(), ElementsAre("epoll_ctl(MOD, client1, IN|OUT)"));
    EXPECT_TRUE(drain(peer));
    EXPECT_EQ(peer.client.frame(), R"({"successful": false, "error": "denied", "reason": "no token"})");
}

TEST_F(RegistrationAnswer, ThatIsMalformedIsLoggedAndNotTold)
{
    const Peer peer = subscribe("cloud_registration_status");
    arrive_as_answer("timed out");
    EXPECT_EQ(platform->take_logs(), lines({{3, "Message: " + described("0", "timed out")},
                                            {0, "failed to process cloud_registration_status event"}}));
    EXPECT_TRUE(platform->take_calls().empty());
    EXPECT_EQ(peer.conn->tx.pending(), 0U);
}

// ---- scan states

TEST_F(ExchangeEvents, OfScansReachSubscribersByteForByteWhateverTheyAre)
{
    Peer a = subscribe("va_status_changed");
    Peer b = subscribe("va_status_changed");
    const std::string payloads[] = {R"({"state":"running" , "progress":  5})", "not json at all", "",
                                    std::string("a\0b\n\xff", 5), std::string(100000, 'x')};
    for (const std::string& payload : payloads) {
        arrive("va_status_changed", payload);
        EXPECT_EQ(platform->take_logs(),
                  lines({{3, "va_status_changed event received"},
                         {2, "send json: " + described("va_status_changed", payload)}}));
        EXPECT_THAT(platform->take_calls(),
                    ElementsAre("epoll_ctl(MOD, client1, IN|OUT)", "epoll_ctl(MOD, client2, IN|OUT)"));
        for (Peer* peer : {&a, &b}) {
            std::string received;
            while (watched_for(*peer) & EPOLLOUT) {
                ASSERT_TRUE(handle(*peer, EPOLLOUT));
                received += peer->client.bytes();
            }
            EXPECT_EQ(received, framed(payload));
        }
    }
}

TEST_F(ExchangeEvents, OfScansDoNotReachSubscribersOfOtherEvents)
{
    const Peer scans = subscribe("va_status_changed");
    const Peer others = subscribe("orvagent_started");
    arrive("va_status_changed", "{}");
    EXPECT_GT(scans.conn->tx.pending(), 0U);
    EXPECT_EQ(others.conn->tx.pending(), 0U);
}

// ---- the agent's start

TEST_F(ExchangeEvents, OfTheAgentsStartAreAcknowledgedAndTold)
{
    Peer peer = subscribe("orvagent_started");
    arrive("orvagent_started", "ignored", 0x123456789abcdef0);
    EXPECT_EQ(platform->take_logs(), lines({{3, "orvagent_started event received"},
                                            {4, "sending ACK for 'orvagent_started' event' ..."},
                                            {2, "send json: {}"}}));
    EXPECT_THAT(platform->take_calls(),
                ElementsAre("orvex_send_response(0, 1311768467463790320, orvagent_started_ack)",
                            "epoll_ctl(MOD, client1, IN|OUT)"));
    EXPECT_TRUE(drain(peer));
    EXPECT_EQ(peer.client.bytes(), framed("{}"));
}

TEST_F(ExchangeEvents, OfTheAgentsStartThatCannotBeAcknowledgedAreNotTold)
{
    const Peer peer = subscribe("orvagent_started");
    platform->fail("orvex_send_response(");
    arrive("orvagent_started", "", 7);
    EXPECT_EQ(platform->take_logs(), lines({{3, "orvagent_started event received"},
                                            {4, "sending ACK for 'orvagent_started' event' ..."},
                                            {0, "failed to send ACK for 'orvagent_started' event"}}));
    EXPECT_THAT(platform->take_calls(), ElementsAre("orvex_send_response(0, 7, orvagent_started_ack)"));
    EXPECT_EQ(peer.conn->tx.pending(), 0U);
}

// ---- user agents

class UserAgents : public ExchangeEvents {
protected:
    /// A MAC address that no other test has used: the cache of sightings lives as long as the process.
    static std::string new_mac()
    {
        static unsigned serial = 0;
        ++serial;
        return fmt::format("02:00:00:{:02x}:{:02x}:{:02x}", serial >> 16U, serial >> 8U & 255U,
                           serial & 255U);
    }

    /// A time by which all that any test has had remembered has expired.
    static std::time_t new_era()
    {
        static std::time_t era = 1800000000;
        return era += 1000;
    }

    /// Lets sightings of new devices arrive until one is not remembered; how many were.
    int fill_cache()
    {
        const fake::LogLine full{1, "Could not add entry in cache. Cache is full", {}, {}};
        for (int remembered = 0; remembered <= 4096; ++remembered) {
            arrive("guster_user_agent", sighting(new_mac(), "a"));
            if (testing::Value(platform->take_logs(), Contains(full)))
                return remembered;
        }
        return -1;
    }

    static std::string sighting(const std::string& mac, const std::string& user_agent)
    {
        return R"({"src_ip": "10.0.0.1", "src_mac": ")" + mac + R"(", "user_agent": ")" + user_agent + "\"}";
    }

    static std::string told(const std::string& mac, const std::string& user_agent)
    {
        return R"({"user_agent": ")" + user_agent + R"(", "ip": "10.0.0.1", "mac": ")" + mac + "\"}";
    }
};

TEST_F(UserAgents, AreToldWithTheirMembersRenamed)
{
    Peer peer = subscribe("device_discovery");
    const std::string mac = new_mac();
    arrive("guster_user_agent", sighting(mac, "Firefox"));

    EXPECT_EQ(platform->take_logs(),
              lines({{3, "guster_user_agent event received"}, {2, "send json: " + told(mac, "Firefox")}}));
    EXPECT_THAT(platform->take_calls(), ElementsAre("epoll_ctl(MOD, client1, IN|OUT)"));
    EXPECT_TRUE(drain(peer));
    EXPECT_EQ(peer.client.bytes(), framed(told(mac, "Firefox")));
}

TEST_F(UserAgents, KeepAllOtherMembers)
{
    Peer peer = subscribe("device_discovery");
    const std::string mac = new_mac();
    arrive("guster_user_agent", R"({"a":[1,2.5,null],"src_ip":{"v":4},"ip":"replaced","src_mac":")" + mac +
                                    R"(","user_agent":"x","z":true})");
    EXPECT_TRUE(drain(peer));
    EXPECT_EQ(peer.client.frame(),
              R"({"a": [1, 2.5, null], "ip": {"v": 4}, "user_agent": "x", "z": true, "mac": ")" + mac +
                  "\"}");
}

TEST_F(UserAgents, AreToldOncePerMacAndText)
{
    Peer peer = subscribe("device_discovery");
    const std::string mac = new_mac();
    const std::string other = new_mac();
    arrive("guster_user_agent", sighting(mac, "a"));
    arrive("guster_user_agent", sighting(mac, "a"));
    EXPECT_EQ(platform->take_logs(), lines({{3, "guster_user_agent event received"},
                                            {3, "device with mac " + mac + " already has user-agent a"}}));
    EXPECT_TRUE(platform->take_calls().empty());
    arrive("guster_user_agent", sighting(mac, "b"));
    arrive("guster_user_agent", sighting(other, "a"));
    arrive("guster_user_agent", sighting(mac, "a"));

    EXPECT_TRUE(drain(peer));
    EXPECT_EQ(peer.client.frame(), told(mac, "a"));
    EXPECT_EQ(peer.client.frame(), told(mac, "b"));
    EXPECT_EQ(peer.client.frame(), told(other, "a"));
    EXPECT_EQ(peer.client.bytes(), "");
}

TEST_F(UserAgents, AreStillKnownAfterTheirLifetimeWhileTheCacheNeverFills)
{
    const Peer peer = subscribe("device_discovery");
    const std::string mac = new_mac();
    arrive("guster_user_agent", sighting(mac, "a"));
    platform->now += 100000;
    arrive("guster_user_agent", sighting(mac, "a"));
    EXPECT_THAT(platform->take_logs(),
                Contains(lines({{3, "device with mac " + mac + " already has user-agent a"}}).front()));
}

TEST_F(UserAgents, AreToldAgainAndAgainWhileTheCacheIsFullAndRememberedOnceOthersHaveExpired)
{
    const Peer peer = subscribe("device_discovery");
    const fake::LogLine full{1, "Could not add entry in cache. Cache is full", {}, {}};
    platform->now -= 1000000; // so that later tests find these expired
    std::string mac;
    int known = 0;
    for (bool is_full = false; !is_full; ++known) {
        ASSERT_LE(known, 1024);
        mac = new_mac();
        arrive("guster_user_agent", sighting(mac, "a"));
        is_full = testing::Value(platform->take_logs(), Contains(full));
    }
    for (int i = 0; i < 2; ++i) {
        arrive("guster_user_agent", sighting(mac, "a"));
        const fake::Logs logs = platform->take_logs();
        EXPECT_THAT(logs, Contains(full));
        EXPECT_EQ(logs.back(), (fake::LogLine{2, "send json: " + told(mac, "a"), {}, {}}));
    }
    platform->now += 119;
    arrive("guster_user_agent", sighting(mac, "a"));
    EXPECT_THAT(platform->take_logs(), Contains(full));
    platform->now += 1;
    arrive("guster_user_agent", sighting(mac, "a"));
    EXPECT_THAT(platform->take_logs(), testing::Not(Contains(full)));
    arrive("guster_user_agent", sighting(mac, "a"));
    EXPECT_THAT(platform->take_logs(),
                Contains(lines({{3, "device with mac " + mac + " already has user-agent a"}}).front()));
}

TEST_F(UserAgents, OfOneThousandAndTwentyFourSightingsAreRemembered)
{
    const Peer peer = subscribe("device_discovery");
    platform->now = new_era();
    ASSERT_GE(fill_cache(), 0); // how many were known before depends on the tests before this one
    platform->now = new_era();
    EXPECT_EQ(fill_cache(), 1024);
    platform->now = new_era();
    arrive("guster_user_agent", sighting(new_mac(), "a")); // makes room for the tests after this one
}

TEST_F(UserAgents, ThatAreIncompleteAreDropped)
{
    const Peer peer = subscribe("device_discovery");
    for (const char* payload : {
             "",
             "not json",
             "[]",
             "[\"src_ip\", \"src_mac\"]",
             "{}",
             R"({"src_mac":"02:00:00:ff:00:01","user_agent":"a"})",
             R"({"src_ip":"1.2.3.4","user_agent":"a"})",
             R"({"src_ip":"1.2.3.4","mac":"02:00:00:ff:00:01","user_agent":"a"})",
             R"({"ip":"1.2.3.4","src_mac":"02:00:00:ff:00:01","user_agent":"a"})",
             R"({"src_ip":"1.2.3.4","src_mac":"02:00:00:ff:00:01"})",
             R"({"src_ip":"1.2.3.4","src_mac":"02:00:00:ff:00:01","user_agent":7})",
             R"({"src_ip":"1.2.3.4","src_mac":null,"user_agent":"a"})",
             R"({"src_ip":"1.2.3.4","src_mac":"02:00:00:ff:00:01","user_agent":"a"} x)",
         }) {
        SCOPED_TRACE(payload);
        arrive("guster_user_agent", payload);
        EXPECT_EQ(platform->take_logs(), lines({{3, "guster_user_agent event received"}}));
        EXPECT_TRUE(platform->take_calls().empty());
        EXPECT_EQ(peer.conn->tx.pending(), 0U);
    }
}

TEST_F(UserAgents, SurviveShortMemoryWithAWholeFrameOrNone)
{
    Peer peer = subscribe("device_discovery");
    bool failed = true;
    for (unsigned n = 1; failed; ++n) {
        SCOPED_TRACE(n);
        const std::string mac = new_mac();
        platform->fail_json_allocation(n);
        arrive("guster_user_agent", sighting(mac, "a"));
        failed = platform->json_allocation_failed();
        platform->fail_json_allocation(0);
        EXPECT_TRUE(drain(peer));
        const bool was_told = peer.client.frame().has_value();
        EXPECT_TRUE(was_told || failed);
        EXPECT_EQ(peer.client.bytes(), "");
    }
}

// ---- without memory

TEST_F(ExchangeEvents, ThatFindNoMemoryAreLostWithALineAndTheNextOneArrives)
{
    struct Case {
        const char* subscription;
        const char* type;
        const char* begin; ///< of the payload; another user agent is another sighting
        const char* end;
    };
    for (const Case& c :
         {Case{"va_status_changed", "va_status_changed", R"({"n": ")", "\"}"},
          Case{"orvagent_started", "orvagent_started", "", ""},
          Case{"device_discovery", "guster_user_agent",
               R"({"src_ip": "1.2.3.4", "src_mac": "aa:aa:aa:aa:aa:01", "user_agent": ")", "\"}"}}) {
        Peer peer = subscribe(c.subscription);
        const auto arrive_as = [&](const std::string& name) {
            arrive(c.type, c.begin + (c.begin[0] != '\0' ? name : "") + c.end);
        };
        for (unsigned n = 1, failed = 1; failed != 0; ++n) {
            SCOPED_TRACE(c.type + std::to_string(n));
            platform->fail_memory("throwing new", n);
            arrive_as("lost " + std::string(20, 'x') + std::to_string(n));
            failed = platform->memory_failed("throwing new") ? 1 : 0;
            platform->fail_memory("throwing new", 0);
            const fake::LogLine line{0, "out of memory", {}, {}};
            EXPECT_EQ(testing::Value(platform->take_logs(), Contains(line)), failed != 0);
            ASSERT_TRUE(drain(peer));
            peer.client.bytes();
            arrive_as("next " + std::string(20, 'x') + std::to_string(n));
            ASSERT_TRUE(drain(peer));
            EXPECT_TRUE(peer.client.frame().has_value());
        }
    }
}

TEST_F(ExchangeEvents, OfARegistrationThatFindNoMemoryAreLostWithALineAndTheNextOneArrives)
{
    Peer peer = subscribe("cloud_registration_status");
    for (unsigned n = 1, failed = 1; failed != 0; ++n) {
        SCOPED_TRACE(n);
        const MessageRecord answer("0", R"({"result": "ok"})");
        const auto tell = [&] {
            const fake::Fake::Inside inside;
            brokerd::orvex_cloud_registration_status_cb(const_cast<int*>(&brokerd::epollfd), answer.get());
        };
        platform->fail_memory("throwing new", n);
        tell();
        failed = platform->memory_failed("throwing new") ? 1 : 0;
        platform->fail_memory("throwing new", 0);
        const fake::Logs logs = platform->take_logs();
        if (failed != 0) {
            ASSERT_FALSE(logs.empty());
            EXPECT_EQ(logs.back().text, "out of memory");
            EXPECT_EQ(logs.back().function, "orvex_cloud_registration_status_cb");
        }
        ASSERT_TRUE(drain(peer));
        peer.client.bytes();
        tell();
        ASSERT_TRUE(drain(peer));
        EXPECT_EQ(peer.client.frame(), R"({"successful": true})");
        forget_records();
    }
}

} // namespace
} // namespace orv::test
