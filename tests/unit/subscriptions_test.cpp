// Subscriptions: who is in which table, what an event costs without subscribers, how the agent's status is
// reported.

#include "support/fixture.h"

#include "orvbrokerd.h"
#include "orvex.h"

#include <cstring>
#include <functional>
#include <utility>

namespace orv::test {
namespace {

using brokerd::AgentStatus;
using brokerd::find_connections;
using brokerd::g_client_subscriptions;
using brokerd::g_exchange_subscriptions;
using brokerd::report_agent_status;
using brokerd::send_json;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

const std::string kDone = R"({"data": null, "status": 0})";
const std::string kFailed = R"({"data": null, "status": -1})";

std::string subscription(const std::string& event)
{
    return R"({"type":"subscribe","name":")" + event + R"("})";
}

class Subscription : public ServiceTest {
protected:
    static std::vector<brokerd::Connection*> all(std::initializer_list<const Peer*> peers)
    {
        std::vector<brokerd::Connection*> connections;
        for (const Peer* peer : peers)
            connections.push_back(peer->conn);
        return connections;
    }

    /// The connection ends because its client does.
    void end(Peer& peer)
    {
        peer.client.close();
        EXPECT_FALSE(handle(peer, EPOLLIN));
    }
};

TEST_F(Subscription, IsAnsweredWithStatusZeroAndMakesTheConnectionASubscriber)
{
    Peer peer = connect();
    const std::string fd = std::to_string(peer.conn->fd);
    forget_records();
    ASSERT_TRUE(receive(peer, subscription("subscription_changed") + "\n"));

    const fake::Logs logs = platform->take_logs();
    EXPECT_EQ(logs, lines({{4, "received event on client socket " + fd},
                           {2, "process subscription_changed subscription"},
                           {2, "last operation status is 0"}}));
    EXPECT_EQ(logs.at(1).function, "process_subscription");
    EXPECT_THAT(platform->take_calls(), ElementsAre("recv(client1)", "epoll_ctl(MOD, client1, IN|OUT)"));
    EXPECT_EQ(peer.conn->mode, brokerd::kSubscriberMode);
    EXPECT_EQ(peer.conn->subscription, "subscription_changed");
    ASSERT_TRUE(drain(peer));
    EXPECT_EQ(peer.client.frame(), kDone);
    EXPECT_THAT(find_connections("subscription_changed"), ElementsAre(peer.conn));
}

TEST_F(Subscription, WithoutANameIsAFailureThatStillMakesASubscriberAndThenEndsTheConnection)
{
    for (const char* line : {R"({"type":"subscribe"})", R"({"type":"subscribe","name":5})",
                             R"({"type":"subscribe","name":null})"}) {
        SCOPED_TRACE(line);
        Peer peer = connect();
        const std::string fd = std::to_string(peer.conn->fd);
        forget_records();
        ASSERT_TRUE(receive(peer, std::string(line) + "\n"));
        EXPECT_EQ(peer.conn->mode, brokerd::kSubscriberMode);
        EXPECT_FALSE(drain(peer));
        EXPECT_EQ(peer.client.frame(), kFailed);
        EXPECT_TRUE(peer.client.is_closed());
        EXPECT_EQ(platform->take_logs(), lines({{4, "received event on client socket " + fd},
                                                {2, "last operation status is -1"},
                                                {4, "received event on client socket " + fd},
                                                {2, "unsubscribe from "}}));
    }
}

TEST_F(Subscription, ToANameThatNobodyProducesSucceeds)
{
    Peer peer = connect();
    EXPECT_EQ(ask(peer, subscription("no such event {}")), kDone);
    EXPECT_TRUE(is_connected(peer));
    EXPECT_THAT(find_connections("no such event {}"), ElementsAre(peer.conn));
}

TEST_F(Subscription, KeepsSubscribersInTheirOrder)
{
    const Peer a = subscribe("x");
    const Peer b = subscribe("x");
    const Peer c = subscribe("y");
    const Peer d = subscribe("x");
    EXPECT_EQ(find_connections("x"), all({&a, &b, &d}));
    EXPECT_EQ(find_connections("y"), all({&c}));
    EXPECT_THAT(find_connections("z"), IsEmpty());
    EXPECT_EQ(g_client_subscriptions.count("z"), 0U) << "looking up makes no entry";
}

TEST_F(Subscription, ToAnExchangeEventSubscribesOnTheExchangeToo)
{
    struct Case {
        const char* event;
        const char* call;
    };
    for (const Case& c :
         {Case{"device_discovery", "orvex_subscribe(guster_user_agent, registration_status_changed)"},
          Case{"orvagent_started", "orvex_subscribe(orvagent_started, registration_status_changed)"},
          Case{"va_status_changed", "orvex_subscribe(va_status_changed, registration_status_changed)"}}) {
        SCOPED_TRACE(c.event);
        Peer peer = connect();
        forget_records();
        ASSERT_TRUE(receive(peer, subscription(c.event) + "\n"));
        EXPECT_THAT(platform->take_calls(),
                    ElementsAre("recv(" + platform->name(peer.conn->fd) + ")", c.call,
                                "epoll_ctl(MOD, " + platform->name(peer.conn->fd) + ", IN|OUT)"));
        end(peer);
        EXPECT_THAT(platform->take_calls(), Contains("orvex_subscribe(registration_status_changed)"));
    }
}

TEST_F(Subscription, SucceedsAlsoWhenTheExchangeRefusesIt)
{
    platform->fail("orvex_subscribe(");
    Peer peer = connect();
    EXPECT_EQ(ask(peer, subscription("va_status_changed")), kDone);
    EXPECT_TRUE(is_connected(peer));
    EXPECT_THAT(platform->take_logs(),
                Contains(lines({{0, "orvex_subscribe() failed; auto-retrying..."}}).front()));
}

TEST_F(Subscription, OfOneEndingTakesAllSubscribersOfItsEventOutUntilSomebodySubscribesAgain)
{
    Peer first = subscribe("device_discovery");
    Peer second = subscribe("device_discovery");
    const Peer other = subscribe("subscription_changed");

    end(first);

    EXPECT_THAT(find_connections("device_discovery"), IsEmpty());
    EXPECT_EQ(g_client_subscriptions.count("device_discovery"), 0U);
    EXPECT_EQ(find_connections("subscription_changed"), all({&other}));
    EXPECT_TRUE(is_connected(second));
    const JsonPtr event(json_object());
    EXPECT_EQ(send_json(find_connections("device_discovery"), event.get()), 0);
    EXPECT_TRUE(drain(second));
    EXPECT_EQ(second.client.bytes(), "");

    const Peer third = subscribe("device_discovery");
    EXPECT_EQ(find_connections("device_discovery"), all({&third}));
}

TEST_F(Subscription, OfOneEndingLeavesTheOthersTheirEventsFromTheExchange)
{
    Peer first = subscribe("va_status_changed");
    Peer second = subscribe("va_status_changed");
    end(first);

    platform->deliver("va_status_changed", "{}");
    read_exchange();
    ASSERT_TRUE(drain(second));
    EXPECT_EQ(second.client.frame(), "{}");
}

TEST_F(Subscription, OfOneClosedOnRequestLeavesTheOthersTheirsInBothTables)
{
    Peer first = subscribe("va_status_changed");
    Peer second = subscribe("va_status_changed");
    destroy(first);

    EXPECT_EQ(find_connections("va_status_changed"), all({&second}));
    EXPECT_THAT(platform->subscribed, ElementsAre("va_status_changed", "registration_status_changed"));
    platform->deliver("va_status_changed", "{}");
    read_exchange();
    ASSERT_TRUE(drain(second));
    EXPECT_EQ(second.client.frame(), "{}");
}

TEST_F(Subscription, OfTheLastOneClosedOnRequestEndsOnTheExchangeAtOnce)
{
    for (const char* event : {"device_discovery", "orvagent_started", "va_status_changed"}) {
        SCOPED_TRACE(event);
        Peer peer = subscribe(event);
        ASSERT_EQ(platform->subscribed.size(), 2U);
        destroy(peer);
        EXPECT_THAT(platform->subscribed, ElementsAre("registration_status_changed"));
        EXPECT_EQ(g_client_subscriptions.count(event), 0U);
    }
}

TEST_F(Subscription, EndsOnTheExchangeWithOneNewList)
{
    Peer first = subscribe("va_status_changed");
    Peer second = subscribe("va_status_changed");
    platform->take_calls();
    first.client.close();
    EXPECT_FALSE(handle(first, EPOLLIN));
    EXPECT_THAT(platform->take_calls(),
                ElementsAre("recv(client1)",
                            "orvex_subscribe(va_status_changed, registration_status_changed)",
                            "epoll_ctl(DEL, client1)", "close(client1)"));
    second.client.close();
    EXPECT_FALSE(handle(second, EPOLLIN));
    EXPECT_THAT(platform->take_calls(),
                ElementsAre("recv(client2)", "orvex_subscribe(registration_status_changed)",
                            "epoll_ctl(DEL, client2)", "close(client2)"));
}

/// Whether any table of the daemon names a connection.
bool is_named(const brokerd::Connection* conn)
{
    for (const auto& [event, connections] : g_client_subscriptions)
        for (const auto* other : connections)
            if (other == conn)
                return true;
    for (const auto& [event, callbacks] : g_exchange_subscriptions)
        for (const auto& [callback, connections] : callbacks)
            for (const auto* other : connections)
                if (other == conn)
                    return true;
    return false;
}

TEST_F(Subscription, LeavesNoTableNamingAConnectionThatHasEndedInWhicheverWay)
{
    struct Case {
        const char* name;
        std::function<void(Peer&)> end;
    };
    const Case cases[] = {
        {"the client has gone", [this](Peer& peer) { end(peer); }},
        {"a send error",
         [this](Peer& peer) {
             platform->fail("send(");
             brokerd::queue_frame(peer.conn, "{}", brokerd::epollfd);
             EXPECT_FALSE(handle(peer, EPOLLOUT));
         }},
        {"its last frame was sent",
         [this](Peer& peer) {
             peer.conn->close_after_send = true;
             EXPECT_FALSE(handle(peer, EPOLLOUT));
         }},
        {"closing was requested", [this](Peer& peer) { destroy(peer); }},
    };
    for (const char* event : {"device_discovery", "orvagent_started", "va_status_changed", "anything"})
        for (const Case& c : cases) {
            SCOPED_TRACE(std::string(event) + ", " + c.name);
            Peer peer = subscribe(event);
            Peer other = subscribe(event);
            const brokerd::Connection* conn = peer.conn;
            EXPECT_TRUE(is_named(conn));
            c.end(peer);
            EXPECT_FALSE(is_named(conn));
            EXPECT_TRUE(is_connected(other));
            end(other);
            EXPECT_TRUE(g_client_subscriptions.empty());
            EXPECT_TRUE(g_exchange_subscriptions.empty());
            EXPECT_THAT(platform->subscribed,
                        testing::AnyOf(IsEmpty(), ElementsAre("registration_status_changed")));
        }
}

TEST_F(Subscription, OfAConnectionThatWaitsForAnAnswerEndsAfterThatAnswer)
{
    Peer peer = connect();
    ASSERT_TRUE(receive(peer, "{\"type\":\"command\",\"name\":\"va_status\"}\n"));
    EXPECT_EQ(ask(peer, subscription("device_discovery")), kDone);
    platform->answer(R"({"state": "idle"})");
    read_exchange();
    EXPECT_FALSE(drain(peer));
    EXPECT_EQ(peer.client.frame(), R"({"data": {"state": "idle"}, "status": 0})");
    EXPECT_TRUE(peer.client.is_closed());
}

// ---- sending

TEST_F(Subscription, WithoutConnectionsAnEventIsNotEvenSerialised)
{
    const JsonPtr event(json_object());
    platform->fail_json_allocation(1, true);
    EXPECT_EQ(send_json({}, event.get()), 0);
    EXPECT_FALSE(platform->json_allocation_failed());
    EXPECT_TRUE(platform->take_logs().empty());
    platform->fail_json_allocation(0);
}

TEST_F(Subscription, SendsAnEventToEachConnectionAndLogsItOnce)
{
    Peer a = subscribe("x");
    Peer b = subscribe("x");
    const JsonPtr event(json_pack("{s:s,s:[i,i]}", "text", "\"\xc3\xa9", "list", 1, 2));
    forget_records();

    EXPECT_EQ(send_json(find_connections("x"), event.get()), 0);

    const std::string text = "{\"text\": \"\\\"\xc3\xa9\", \"list\": [1, 2]}";
    EXPECT_EQ(platform->take_logs(), lines({{2, "send json: " + text}}));
    EXPECT_THAT(platform->take_calls(),
                ElementsAre("epoll_ctl(MOD, client1, IN|OUT)", "epoll_ctl(MOD, client2, IN|OUT)"));
    for (Peer* peer : {&a, &b}) {
        ASSERT_TRUE(drain(*peer));
        EXPECT_EQ(peer->client.bytes(), framed(text));
    }
}

TEST_F(Subscription, ToldToSendWhatCannotBeSerialisedQueuesNothing)
{
    Peer peer = subscribe("x");
    const JsonPtr event(json_object());
    EXPECT_EQ(send_json(find_connections("x"), nullptr), -1);
    platform->fail_json_allocation(1, true);
    EXPECT_EQ(send_json(find_connections("x"), event.get()), -1);
    platform->fail_json_allocation(0);
    EXPECT_EQ(peer.conn->tx.pending(), 0U);
    EXPECT_TRUE(platform->take_logs().empty());
}

TEST_F(Subscription, ThatLacksMemoryAnywhereNamesTheConnectionNowhereOnceItHasEnded)
{
    for (const char* event : {"device_discovery", "subscription_changed"}) {
        for (unsigned n = 1, failed = 1; failed != 0; ++n) {
            SCOPED_TRACE(event + std::to_string(n));
            Peer peer = connect();
            const brokerd::Connection* conn = peer.conn;
            platform->fail_memory("throwing new", n);
            const bool stays = receive(peer, subscription(event) + "\n");
            failed = platform->memory_failed("throwing new") ? 1 : 0;
            platform->fail_memory("throwing new", 0);
            EXPECT_NE(stays, failed != 0);
            if (stays)
                destroy(peer);
            EXPECT_THAT(find_connections(event), Not(Contains(conn)));
            EXPECT_TRUE(g_exchange_subscriptions.empty());
            forget_records();
        }
    }
}

TEST_F(Subscription, QueuesWithoutWatchingWhileThereIsNoLoop)
{
    Peer peer = subscribe("x");
    const JsonPtr event(json_object());
    const int epollfd = std::exchange(brokerd::epollfd, -1);
    EXPECT_EQ(send_json(find_connections("x"), event.get()), 0);
    brokerd::epollfd = epollfd;
    EXPECT_TRUE(platform->take_calls().empty());
    EXPECT_EQ(peer.conn->tx.pending(), 6U);
}

TEST_F(Subscription, DoesNotTakeTheEventsOwnership)
{
    const Peer peer = subscribe("x");
    const JsonPtr event(json_object());
    EXPECT_EQ(send_json(find_connections("x"), event.get()), 0);
    EXPECT_EQ(event->refcount, 1U);
}

// ---- the agent's status

class AgentStatusReport : public ServiceTest {};

TEST_F(AgentStatusReport, SubmitsTheStatusText)
{
    struct Case {
        AgentStatus status;
        std::string text;
    };
    for (const Case& c :
         {Case{AgentStatus::deployed, "deployed"}, Case{AgentStatus::registered, "registered"},
          Case{AgentStatus::activated, "activated"}, Case{AgentStatus::deactivated, "deactivated"},
          Case{static_cast<AgentStatus>(4), "(unknown)"}, Case{static_cast<AgentStatus>(-1), "(unknown)"}}) {
        SCOPED_TRACE(c.text);
        forget_records();
        report_agent_status(c.status, nullptr);
        const std::string state = R"({"agent_state": ")" + c.text + R"("})";
        EXPECT_THAT(platform->take_calls(),
                    ElementsAre("karma::build_karma_event_json(tuvo_agent_status, " + state + ")",
                                R"(karma::submit_karma_event({"type": "tuvo_agent_status", "data": )" +
                                    state + "})"));
        EXPECT_TRUE(platform->take_logs().empty());
    }
}

TEST_F(AgentStatusReport, TakesATextAndDoesNotUseIt)
{
    TextPtr extra(strdup("something else"));
    report_agent_status(AgentStatus::registered, std::move(extra));
    for (const std::string& call : platform->take_calls())
        EXPECT_EQ(call.find("something else"), std::string::npos);
}

TEST_F(AgentStatusReport, SubmitsNothingWhenTheEventCannotBeBuilt)
{
    platform->fail("karma::build_karma_event_json");
    report_agent_status(AgentStatus::deployed, nullptr);
    EXPECT_EQ(platform->take_calls().size(), 1U);

    platform->fail_json_allocation(1, true);
    report_agent_status(AgentStatus::deployed, nullptr);
    platform->fail_json_allocation(0);
    EXPECT_TRUE(platform->take_calls().empty());
    EXPECT_TRUE(platform->take_logs().empty());
}

} // namespace
} // namespace orv::test
