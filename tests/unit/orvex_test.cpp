// The daemon's side of the message exchange: subscription lists, requests whose answer comes later, messages.

#include "support/fixture.h"

#include "orvbrokerd.h"
#include "orvex.h"
#include "orvexproc.h"

#include <algorithm>
#include <functional>

namespace orv::test {
namespace {

using brokerd::Connection;
using brokerd::g_exchange_events;
using brokerd::g_exchange_subscriptions;
using brokerd::g_request_callbacks;
using brokerd::orvex_add_sub;
using brokerd::orvex_cloud_message;
using brokerd::orvex_del_sub;
using brokerd::orvex_process_event;
using brokerd::orvex_send_msg;
using brokerd::orvex_send_req;
using brokerd::Result;
using fake::MessageRecord;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

/// What the callbacks below were called with, and what they have to give.
struct Called {
    std::vector<std::vector<Connection*>> with;
    std::vector<std::string> texts;
    void* arg = nullptr;
    int result = 0;
    const char* out = nullptr;    ///< JSON
    bool leaves_no_value = false; ///< out becomes null
};
Called g_called;

int first_callback(const std::vector<Connection*>& connections, const Message* msg)
{
    g_called.with.push_back(connections);
    g_called.texts.emplace_back(msg->data, msg->datalen);
    return g_called.result;
}

int second_callback(const std::vector<Connection*>& connections, const Message*)
{
    g_called.with.push_back(connections);
    return 0;
}

Result response_callback(const Message* response, json_t*& out, void* arg)
{
    g_called.texts.emplace_back(response->data, response->datalen);
    g_called.arg = arg;
    EXPECT_TRUE(json_is_null(out));
    if (g_called.out || g_called.leaves_no_value) {
        json_decref(out);
        out = g_called.leaves_no_value ? nullptr : json_loads(g_called.out, JSON_DECODE_ANY, nullptr);
    }
    return g_called.result;
}

class Exchange : public ServiceTest {
protected:
    Exchange() { g_called = {}; }

    [[nodiscard]] std::vector<std::string> list()
    {
        EXPECT_EQ(brokerd::orvex_subscribe(), 0);
        return platform->subscribed;
    }

    int send_request(const Peer& peer, void* arg = nullptr)
    {
        return orvex_send_req("orvvad:test", "{\"a\": 1}", response_callback, arg, peer.conn,
                              brokerd::epollfd);
    }

    /// The answer to the n-th request in flight.
    void answer(std::size_t n, const std::string& data)
    {
        const fake::Request request = platform->requests.at(n);
        platform->requests.erase(platform->requests.begin() + static_cast<std::ptrdiff_t>(n));
        const MessageRecord response("0", data);
        request.callback(request.arg, response.get());
    }
};

// ---- the subscription list

TEST_F(Exchange, IsAskedForRegistrationChangesAloneWhenNoClientListens)
{
    EXPECT_THAT(list(), ElementsAre("registration_status_changed"));
}

TEST_F(Exchange, IsAskedForEachEventOfTheTableOnceAndForRegistrationChangesLast)
{
    const Peer a = connect();
    const Peer b = connect();
    orvex_add_sub("x", a.conn, first_callback);
    orvex_add_sub("x", b.conn, second_callback);
    orvex_add_sub("y", a.conn, first_callback);

    std::vector<std::string> names = list();
    ASSERT_EQ(names.size(), 3U);
    EXPECT_EQ(names.back(), "registration_status_changed");
    names.pop_back();
    EXPECT_THAT(names, UnorderedElementsAre("x", "y"));

    orvex_del_sub("x", a.conn);
    orvex_del_sub("x", b.conn);
    orvex_del_sub("y", a.conn);
    EXPECT_THAT(list(), ElementsAre("registration_status_changed"));
}

TEST_F(Exchange, IsSentTheFullListAgainByTheNextCallAfterARefusal)
{
    const Peer peer = connect();
    orvex_add_sub("x", peer.conn, first_callback);
    platform->fail("orvex_subscribe(");
    forget_records();

    EXPECT_EQ(brokerd::orvex_subscribe(), 0);
    EXPECT_EQ(platform->take_logs(), lines({{0, "orvex_subscribe() failed; auto-retrying..."}}));
    EXPECT_EQ(platform->take_calls().size(), 1U);

    EXPECT_THAT(list(), ElementsAre("x", "registration_status_changed"));
    EXPECT_TRUE(platform->take_logs().empty());
    orvex_del_sub("x", peer.conn);
}

TEST_F(Exchange, IsNotAskedWithoutMemoryForTheList)
{
    platform->fail_memory("malloc");
    EXPECT_EQ(brokerd::orvex_subscribe(), -1);
    EXPECT_TRUE(platform->take_calls().empty());
    EXPECT_TRUE(platform->take_logs().empty());
}

TEST_F(Exchange, TableHoldsAConnectionAsOftenAsItWasAddedAndLosesItAtOnce)
{
    const Peer a = connect();
    const Peer b = connect();
    orvex_add_sub("x", a.conn, first_callback);
    orvex_add_sub("x", b.conn, first_callback);
    orvex_add_sub("x", a.conn, first_callback);
    EXPECT_THAT(g_exchange_subscriptions["x"][first_callback], ElementsAre(a.conn, b.conn, a.conn));

    orvex_del_sub("x", a.conn);
    EXPECT_THAT(g_exchange_subscriptions["x"][first_callback], ElementsAre(b.conn));
    orvex_del_sub("x", b.conn);
    EXPECT_EQ(g_exchange_subscriptions.count("x"), 0U);
}

TEST_F(Exchange, TableKeepsTheOrderOfTheOthersAndDropsCallbacksWithoutConnections)
{
    const Peer a = connect();
    const Peer b = connect();
    const Peer c = connect();
    for (const Peer* peer : {&a, &b, &c})
        orvex_add_sub("x", peer->conn, first_callback);
    orvex_add_sub("x", b.conn, second_callback);

    orvex_del_sub("x", b.conn);
    EXPECT_THAT(g_exchange_subscriptions["x"][first_callback], ElementsAre(a.conn, c.conn));
    EXPECT_EQ(g_exchange_subscriptions["x"].count(second_callback), 0U);
    orvex_del_sub("x", a.conn);
    orvex_del_sub("x", c.conn);
}

TEST_F(Exchange, TableGetsNoEntryByTakingOutWhatIsNotThere)
{
    const Peer peer = connect();
    orvex_del_sub("never heard of", peer.conn);
    EXPECT_THAT(g_exchange_subscriptions, IsEmpty());
}

TEST_F(Exchange, TablesHoldExactlyTheseEventsAndRequests)
{
    EXPECT_EQ(g_exchange_events.size(), 3U);
    EXPECT_THAT(g_exchange_events.at("device_discovery"),
                ElementsAre(std::pair<std::string, brokerd::EventCallback>(
                    "guster_user_agent", brokerd::orvex_guster_user_agent_cb)));
    EXPECT_THAT(g_exchange_events.at("orvagent_started"),
                ElementsAre(std::pair<std::string, brokerd::EventCallback>(
                    "orvagent_started", brokerd::orvex_orvagent_started_cb)));
    EXPECT_THAT(g_exchange_events.at("va_status_changed"),
                ElementsAre(std::pair<std::string, brokerd::EventCallback>(
                    "va_status_changed", brokerd::orvex_va_status_changed_cb)));
    ASSERT_EQ(g_request_callbacks.size(), 1U);
    EXPECT_EQ(g_request_callbacks.at("start_cloud_registration"),
              brokerd::orvex_cloud_registration_status_cb);
}

// ---- events

TEST_F(Exchange, EventThatNobodyIsRegisteredForIsRefused)
{
    const Peer peer = connect();
    orvex_add_sub("x", peer.conn, first_callback);
    forget_records();
    const MessageRecord message("y", "{}");
    EXPECT_EQ(orvex_process_event(message.get(), brokerd::epollfd), -1);
    EXPECT_THAT(g_called.with, IsEmpty());
    EXPECT_TRUE(platform->take_logs().empty());
    EXPECT_EQ(g_exchange_subscriptions.count("y"), 0U);
    orvex_del_sub("x", peer.conn);
}

TEST_F(Exchange, EventGoesThroughEachCallbackToItsConnectionsWhichAreThenWatchedForWriting)
{
    const Peer a = connect();
    const Peer b = connect();
    const Peer c = connect();
    orvex_add_sub("x", a.conn, first_callback);
    orvex_add_sub("x", b.conn, first_callback);
    orvex_add_sub("x", c.conn, second_callback);
    forget_records();

    const MessageRecord message("x", "payload");
    EXPECT_EQ(orvex_process_event(message.get(), brokerd::epollfd), 0);

    EXPECT_EQ(platform->take_logs(), lines({{3, "x event received"}}));
    EXPECT_THAT(g_called.with, UnorderedElementsAre(std::vector{a.conn, b.conn}, std::vector{c.conn}));
    EXPECT_THAT(g_called.texts, ElementsAre("payload"));
    EXPECT_THAT(platform->take_calls(),
                UnorderedElementsAre("epoll_ctl(MOD, client1, IN|OUT)", "epoll_ctl(MOD, client2, IN|OUT)",
                                     "epoll_ctl(MOD, client3, IN|OUT)"));
    for (const Peer* peer : {&a, &b, &c})
        orvex_del_sub("x", peer->conn);
}

TEST_F(Exchange, EventHasItsConnectionsWatchedOnTheDescriptorGiven)
{
    const Peer peer = connect();
    const OtherEpoll other;
    orvex_add_sub("x", peer.conn, second_callback);
    const MessageRecord message("x", "{}");
    EXPECT_EQ(orvex_process_event(message.get(), other.fd()), 0);
    EXPECT_EQ(watched_for(peer, other.fd()), EPOLLIN | EPOLLOUT);
    EXPECT_EQ(watched_for(peer), EPOLLIN);
    orvex_del_sub("x", peer.conn);
}

TEST_F(Exchange, EventWhoseCallbackQueuedNothingLeavesItsConnectionsAlone)
{
    const Peer a = connect();
    const Peer b = connect();
    orvex_add_sub("x", a.conn, first_callback);
    orvex_add_sub("x", b.conn, second_callback);
    forget_records();
    for (const int result : {-1, 1}) {
        g_called.result = result;
        const MessageRecord message("x", "{}");
        EXPECT_EQ(orvex_process_event(message.get(), brokerd::epollfd), 0);
        EXPECT_THAT(platform->take_calls(), ElementsAre("epoll_ctl(MOD, client2, IN|OUT)"));
    }
    orvex_del_sub("x", a.conn);
    orvex_del_sub("x", b.conn);
}

// ---- requests that a client waits for

TEST_F(Exchange, RequestIsSentAndAnsweredAsTheConnectionsLastFrame)
{
    Peer peer = connect();
    forget_records();
    int arg = 0;
    EXPECT_EQ(send_request(peer, &arg), 1);

    EXPECT_THAT(platform->take_calls(), ElementsAre("orvex_send_request(orvvad:test, {\"a\": 1})"));
    EXPECT_EQ(platform->take_logs(), lines({{2, "successfully sent orvvad:test request: {\"a\": 1}"}}));
    EXPECT_EQ(peer.conn->tx.pending(), 0U);

    g_called.out = R"({"b": 2})";
    answer(0, "the answer");
    EXPECT_THAT(g_called.texts, ElementsAre("the answer"));
    EXPECT_EQ(g_called.arg, &arg);
    EXPECT_THAT(platform->take_calls(), ElementsAre("epoll_ctl(MOD, client1, IN|OUT)"));
    EXPECT_TRUE(peer.conn->close_after_send);
    EXPECT_FALSE(peer.conn->close_requested);
    EXPECT_FALSE(drain(peer));
    EXPECT_EQ(peer.client.bytes(), framed(R"({"data": {"b": 2}, "status": 0})"));
    EXPECT_TRUE(peer.client.is_closed());
}

TEST_F(Exchange, RequestIsAnsweredWithTheCallbacksStatusAndNullWhenItLeavesNothing)
{
    for (const int status : {0, -1, 1, 3}) {
        Peer peer = connect();
        ASSERT_EQ(send_request(peer), 1);
        g_called.result = status;
        answer(0, "");
        EXPECT_FALSE(drain(peer));
        EXPECT_EQ(peer.client.frame(), R"({"data": null, "status": )" + std::to_string(status) + "}");
        EXPECT_TRUE(peer.client.is_closed());
    }
}

TEST_F(Exchange, RequestThatCannotBeSentIsAFailureAndNeverAnswered)
{
    const Peer peer = connect();
    platform->fail("orvex_send_request(");
    EXPECT_EQ(send_request(peer), 0);
    EXPECT_EQ(platform->take_logs(), lines({{0, "failed to send orvvad:test request: {\"a\": 1}"}}));
    EXPECT_THAT(g_called.texts, IsEmpty());
    EXPECT_FALSE(peer.conn->close_requested);
    EXPECT_FALSE(peer.conn->close_after_send);
}

TEST_F(Exchange, RequestWithoutMemoryForItsContextAsksForTheConnectionsEnd)
{
    const Peer peer = connect();
    platform->fail_memory("new");
    EXPECT_EQ(send_request(peer), 0);
    EXPECT_TRUE(peer.conn->close_requested);
    EXPECT_TRUE(platform->take_calls().empty());
    EXPECT_TRUE(platform->take_logs().empty());
}

TEST_F(Exchange, RequestWhoseAnswerCannotBeBuiltAsksForTheConnectionsEnd)
{
    const Peer peer = connect();
    ASSERT_EQ(send_request(peer), 1);
    forget_records();
    g_called.leaves_no_value = true;
    answer(0, "");
    EXPECT_TRUE(peer.conn->close_requested);
    EXPECT_FALSE(peer.conn->close_after_send);
    EXPECT_EQ(peer.conn->tx.pending(), 0U);
    EXPECT_TRUE(platform->take_calls().empty());
}

TEST_F(Exchange, RequestAnsweredWhenMemoryIsShortGetsAWholeFrameOrEndsTheConnection)
{
    bool failed = true;
    for (unsigned n = 1; failed; ++n) {
        SCOPED_TRACE(n);
        Peer peer = connect();
        ASSERT_EQ(send_request(peer), 1);
        platform->fail_json_allocation(n);
        answer(0, "");
        failed = platform->json_allocation_failed();
        platform->fail_json_allocation(0);
        if (peer.conn->close_requested) {
            EXPECT_TRUE(failed);
            EXPECT_EQ(peer.conn->tx.pending(), 0U);
            continue;
        }
        EXPECT_FALSE(drain(peer));
        EXPECT_TRUE(peer.client.frame()); // its text may lack what the JSON library had no memory for
        EXPECT_TRUE(peer.client.is_closed());
    }
}

TEST_F(Exchange, RequestsAreAnsweredEachToItsOwnClientInAnyOrder)
{
    Peer peers[] = {connect(), connect(), connect(), connect()};
    for (const Peer& peer : peers)
        ASSERT_EQ(send_request(peer), 1);

    const std::size_t order[] = {2, 0, 3, 1};
    std::vector<std::size_t> in_flight{0, 1, 2, 3};
    for (const std::size_t who : order) {
        const auto place = std::find(in_flight.begin(), in_flight.end(), who) - in_flight.begin();
        in_flight.erase(in_flight.begin() + place);
        g_called.result = static_cast<int>(who) + 10;
        answer(static_cast<std::size_t>(place), "");
        EXPECT_FALSE(drain(peers[who]));
        EXPECT_EQ(peers[who].client.frame(), R"({"data": null, "status": )" + std::to_string(who + 10) + "}");
    }
}

TEST_F(Exchange, RequestsOfOneClientAreAllHandledButItGetsOnlyTheFirstAnswerThatComes)
{
    Peer peer = connect();
    ASSERT_EQ(send_request(peer), 1);
    ASSERT_EQ(send_request(peer), 1);
    g_called.result = 11;
    answer(1, "first");
    g_called.result = 12;
    answer(0, "second");

    EXPECT_THAT(g_called.texts, ElementsAre("first", "second"));
    EXPECT_TRUE(peer.conn->close_after_send);
    EXPECT_FALSE(drain(peer));
    EXPECT_EQ(peer.client.bytes(), framed(R"({"data": null, "status": 11})"));
    EXPECT_TRUE(peer.client.is_closed());
}

TEST_F(Exchange, RequestsOfOneClientLeaveItsFirstAnswerAloneWhenTheSecondCannotBeBuilt)
{
    Peer peer = connect();
    ASSERT_EQ(send_request(peer), 1);
    ASSERT_EQ(send_request(peer), 1);
    answer(0, "first");
    g_called.leaves_no_value = true;
    answer(0, "second");

    EXPECT_THAT(g_called.texts, ElementsAre("first", "second"));
    EXPECT_FALSE(peer.conn->close_requested);
    EXPECT_TRUE(peer.conn->close_after_send);
    EXPECT_FALSE(drain(peer));
    EXPECT_EQ(peer.client.bytes(), framed(R"({"data": null, "status": 0})"));
    EXPECT_TRUE(peer.client.is_closed());
}

TEST_F(Exchange, RequestsOfOneClientAnswerNobodyAfterTheFirstAnswerCouldNotBeBuilt)
{
    const Peer peer = connect();
    ASSERT_EQ(send_request(peer), 1);
    ASSERT_EQ(send_request(peer), 1);
    g_called.leaves_no_value = true;
    answer(0, "first");
    g_called.leaves_no_value = false;
    answer(0, "second");

    EXPECT_THAT(g_called.texts, ElementsAre("first", "second"));
    EXPECT_TRUE(peer.conn->close_requested);
    EXPECT_FALSE(peer.conn->close_after_send);
    EXPECT_EQ(peer.conn->tx.pending(), 0U);
}

TEST_F(Exchange, RequestWhoseClientHasGoneIsHandledButAnswersNobody)
{
    Peer gone = connect();
    const int fd = gone.conn->fd;
    int arg = 0;
    ASSERT_EQ(send_request(gone, &arg), 1);
    gone.client.close();
    ASSERT_FALSE(handle(gone, EPOLLIN));

    Peer next = connect();
    ASSERT_EQ(next.conn->fd, fd) << "the next client has the same descriptor";
    forget_records();
    answer(0, "too late");

    EXPECT_THAT(g_called.texts, ElementsAre("too late"));
    EXPECT_EQ(g_called.arg, &arg) << "the callback frees what the request owns";
    EXPECT_EQ(next.conn->tx.pending(), 0U);
    EXPECT_FALSE(next.conn->close_after_send);
    EXPECT_FALSE(next.conn->close_requested);
    EXPECT_TRUE(platform->take_calls().empty());
}

TEST_F(Exchange, RequestsAreForgottenOnEveryWayOfTheirConnectionToEnd)
{
    const std::function<void(Peer&)> ends[] = {
        [this](Peer& peer) {
            peer.client.close();
            EXPECT_FALSE(handle(peer, EPOLLIN));
        },
        [this](Peer& peer) { EXPECT_FALSE(receive(peer, "not json\n")); },
        [this](Peer& peer) {
            ASSERT_TRUE(receive(peer, "{\"type\":\"command\"}\n"));
            EXPECT_FALSE(drain(peer));
        },
        [this](Peer& peer) { destroy(peer); },
    };
    for (const auto& end : ends) {
        Peer peer = connect();
        Peer other = connect();
        ASSERT_EQ(send_request(peer), 1);
        ASSERT_EQ(send_request(peer), 1);
        ASSERT_EQ(send_request(other), 1);
        end(peer);
        answer(0, "");
        answer(0, "");
        EXPECT_EQ(other.conn->tx.pending(), 0U);
        answer(0, "");
        EXPECT_FALSE(drain(other));
        EXPECT_EQ(other.client.frame(), R"({"data": null, "status": 0})");
    }
}

TEST_F(Exchange, RequestsAnswerIsWatchedForOnTheDescriptorGiven)
{
    const Peer peer = connect();
    const OtherEpoll other;
    ASSERT_EQ(orvex_send_req("orvvad:test", "{}", response_callback, nullptr, peer.conn, other.fd()), 1);
    answer(0, "");
    EXPECT_EQ(watched_for(peer, other.fd()), EPOLLIN | EPOLLOUT);
    EXPECT_EQ(watched_for(peer), EPOLLIN);
}

TEST_F(Exchange, RequestSentWhileThereIsNoLoopQueuesItsAnswerAllTheSame)
{
    const Peer peer = connect();
    ASSERT_EQ(orvex_send_req("orvvad:test", "{}", response_callback, nullptr, peer.conn, -1), 1);
    forget_records();
    answer(0, "");
    EXPECT_TRUE(platform->take_calls().empty());
    EXPECT_GT(peer.conn->tx.pending(), 0U);
}

// ---- requests that no client waits for

TEST_F(Exchange, RequestOfTheTableIsSentWithItsCallbackAndTheEpollDescriptorsAddress)
{
    orvex_send_req("start_cloud_registration", "{}", brokerd::epollfd);
    EXPECT_THAT(platform->take_calls(), ElementsAre("orvex_send_request(start_cloud_registration, {})"));
    EXPECT_EQ(platform->take_logs(), lines({{2, "successfully sent start_cloud_registration request: {}"}}));
    ASSERT_EQ(platform->requests.size(), 1U);
    EXPECT_EQ(platform->requests[0].callback, brokerd::orvex_cloud_registration_status_cb);
    EXPECT_EQ(platform->requests[0].arg, &brokerd::epollfd);
}

TEST_F(Exchange, RequestOfTheTableThatCannotBeSentIsLogged)
{
    platform->fail("orvex_send_request(");
    orvex_send_req("start_cloud_registration", "{}", brokerd::epollfd);
    EXPECT_EQ(platform->take_logs(), lines({{0, "failed to send start_cloud_registration request: {}"}}));
}

TEST_F(Exchange, RequestThatIsNotInTheTableIsNotSent)
{
    orvex_send_req("start_something", "{}", brokerd::epollfd);
    EXPECT_TRUE(platform->take_calls().empty());
    EXPECT_EQ(platform->take_logs(),
              lines({{0, "failed to find orvex response callback for start_something request"}}));
}

// ---- messages

TEST_F(Exchange, MessageIsSentOneWay)
{
    EXPECT_EQ(orvex_send_msg("orvvad:va_scan_stop", "{}"), 0);
    EXPECT_THAT(platform->take_calls(), ElementsAre("orvex_send_message(orvvad:va_scan_stop, {})"));
    EXPECT_EQ(platform->take_logs(), lines({{2, "successfully sent orvvad:va_scan_stop message: {}"}}));
}

TEST_F(Exchange, MessageThatCannotBeSentIsLoggedAndItsResultPassedOn)
{
    platform->fail("orvex_send_message(");
    EXPECT_EQ(orvex_send_msg("orvvad:va_scan_stop", "{}"), -1);
    EXPECT_EQ(platform->take_logs(), lines({{0, "failed to send orvvad:va_scan_stop message: {}"}}));
}

TEST_F(Exchange, CloudMessageIsTheValuesText)
{
    const JsonPtr json(json_pack("{s:i,s:[]}", "a", 1, "b"));
    EXPECT_EQ(orvex_cloud_message(brokerd::orvex, "cloud", json.get()), 1);
    EXPECT_THAT(platform->take_calls(), ElementsAre(R"(orvex_send_message(cloud, {"a": 1, "b": []}))"));
    EXPECT_TRUE(platform->take_logs().empty());
    EXPECT_EQ(json->refcount, 1U);
}

TEST_F(Exchange, CloudMessageGoesThroughTheHandleGiven)
{
    const JsonPtr json(json_object());
    Orvex other;
    EXPECT_EQ(orvex_cloud_message(&other, "cloud", json.get()), 1);
    EXPECT_THAT(platform->take_calls(), ElementsAre("orvex_send_message(cloud, {}, other handle)"));
}

TEST_F(Exchange, CloudMessageThatCannotBeSentWarns)
{
    const JsonPtr json(json_object());
    platform->fail("orvex_send_message(");
    EXPECT_EQ(orvex_cloud_message(brokerd::orvex, "cloud", json.get()), 0);
    EXPECT_EQ(platform->take_logs(), lines({{1, "Failed to send message to cloud"}}));
}

TEST_F(Exchange, CloudMessageThatCannotBeSerialisedIsNotSent)
{
    EXPECT_EQ(orvex_cloud_message(brokerd::orvex, "cloud", nullptr), 0);
    EXPECT_TRUE(platform->take_calls().empty());
    EXPECT_TRUE(platform->take_logs().empty());
}

} // namespace
} // namespace orv::test
