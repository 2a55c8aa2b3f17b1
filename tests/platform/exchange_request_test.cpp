// Requests in both directions, and one-way messages.

#include "exchange_support.h"
#include "process_support.h"

#include <algorithm>
#include <functional>
#include <new>
#include <string>

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr std::size_t kMax = kOrvexMaxPayload;

class ExchangeRequests : public ExchangeTest {
protected:
    bool serve_until_answered(std::size_t count)
    {
        return serve_until([this, count] { return m_answers.all.size() >= count; });
    }
};

TEST_F(ExchangeRequests, ABareNameGoesToTheAgent)
{
    RawPeer agent(m_bus.address(), "orvagent");
    ASSERT_EQ(request("start", "{\"a\": 1}"), 0);
    const RawMessage call = agent.receive();
    EXPECT_EQ(member_of(call), "Request");
    EXPECT_TRUE(wants_reply(call));
    ASSERT_TRUE(content_of(call));
    EXPECT_EQ(content_of(call)->text, "start");
    EXPECT_EQ(content_of(call)->bytes, "{\"a\": 1}");
    agent.answer(*call, "0", "done");
    ASSERT_TRUE(serve_until_answered(1));
    EXPECT_EQ(m_answers.all[0].type, "0");
    EXPECT_EQ(m_answers.all[0].from, "orvagent");
    EXPECT_EQ(m_answers.all[0].data, "done");
}

TEST_F(ExchangeRequests, APrefixNamesTheParticipant)
{
    RawPeer peer(m_bus.address(), "broker-devmgmt");
    ASSERT_EQ(request("broker-devmgmt:set:it"), 0);
    const RawMessage call = peer.receive();
    ASSERT_TRUE(content_of(call));
    EXPECT_EQ(content_of(call)->text, "set:it");
    peer.answer(*call, "7", "");
    ASSERT_TRUE(serve_until_answered(1));
    EXPECT_EQ(m_answers.all[0].type, "7");
    EXPECT_EQ(m_answers.all[0].from, "broker-devmgmt");
    EXPECT_EQ(m_answers.all[0].data, "");
}

TEST_F(ExchangeRequests, BadNamesAndPayloadsAreRefused)
{
    const std::string too_long(128, 'n');
    const std::string too_much(kMax + 1, 'x');
    for (const std::string& name :
         {std::string{}, std::string{":x"}, std::string{"p:"}, std::string{"p p:x"}, std::string{"1p:x"},
          std::string{"p..q:x"}, std::string{"\xff"}, std::string{"p:\xff"}, std::string{"\xc3\xa9:x"},
          too_long, "p:" + too_long, too_long + ":x"}) {
        EXPECT_EQ(request(name.c_str()), -1) << name;
        EXPECT_EQ(orvex_send_message(m_broker.get(), name.c_str(), "", 0), -1) << name;
    }
    EXPECT_EQ(request(nullptr), -1);
    EXPECT_EQ(request("x", too_much), -1);
    EXPECT_EQ(orvex_send_message(m_broker.get(), "x", too_much.data(), too_much.size()), -1);
    EXPECT_EQ(orvex_send_message(m_broker.get(), "x", nullptr, 1), -1);
    EXPECT_EQ(orvex_send_message(m_broker.get(), "x", nullptr, 0), 0);
    EXPECT_EQ(orvex_send_request(m_broker.get(), "x", "", 0, nullptr, nullptr), -1);
    EXPECT_TRUE(m_answers.all.empty());
}

TEST_F(ExchangeRequests, APayloadThatIsTooLargeIsRefusedWithALineThatSaysSo)
{
    const std::string too_much(kMax + 1, 'x');
    RawPeer peer(m_bus.address());
    const std::uint32_t serial = peer.call("broker", "Request", "x", "");
    ASSERT_TRUE(serve_until([] { return s_received.size() == 1; }));
    const auto log_of = [](const std::function<int()>& send) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(send(), -1);
        return testing::internal::GetCapturedStderr();
    };
    const std::string reason = "cannot send 4194301 bytes: a payload has 4194300 at most\n";
    Orvex* orvex = m_broker.get();
    const std::string logs[] = {
        log_of([&] { return request("x", too_much); }),
        log_of([&] { return orvex_send_message(orvex, "x", too_much.data(), too_much.size()); }),
        log_of([&] { return orvex_publish(orvex, "x", too_much.data(), too_much.size(), nullptr); }),
        log_of([&] {
            return orvex_send_response(orvex, 0, s_received[0].id, too_much.data(), too_much.size());
        }),
    };
    for (const std::string& log : logs) {
        EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
        EXPECT_NE(log.find(reason), std::string::npos) << log;
    }
    EXPECT_EQ(orvex_send_response(orvex, 0, s_received[0].id, "less", 4), 0) << "it can still be answered";
    EXPECT_EQ(reply_serial_of(peer.receive()), serial);
}

TEST_F(ExchangeRequests, TheLongestNamesPass)
{
    const std::string participant(127, 'p');
    const std::string name(127, 'n');
    RawPeer peer(m_bus.address(), participant);
    ASSERT_EQ(request((participant + ":" + name).c_str()), 0);
    const RawMessage call = peer.receive();
    EXPECT_EQ(content_of(call)->text, name);
    peer.answer(*call, "0", "");
    ASSERT_TRUE(serve_until_answered(1));
    EXPECT_EQ(m_answers.all[0].from, participant);
}

TEST_F(ExchangeRequests, AFullPayloadPassesBothWays)
{
    std::string data(kMax, 'd');
    data.back() = 'z';
    RawPeer agent(m_bus.address(), "orvagent");
    ASSERT_EQ(request("big", data), 0);
    // It is written as the bus takes it, so both sides have to be served.
    RawMessage call;
    ASSERT_TRUE(serve_until([&] {
        agent.sync();
        return !is_readable(orvex_get_fd(m_broker.get()), milliseconds{20});
    }));
    call = agent.receive();
    ASSERT_TRUE(content_of(call));
    EXPECT_TRUE(content_of(call)->bytes == data);
    agent.answer(*call, "0", data);
    ASSERT_TRUE(serve_until_answered(1));
    EXPECT_EQ(m_answers.all[0].type, "0");
    EXPECT_TRUE(m_answers.all[0].data == data);
}

TEST_F(ExchangeRequests, ToNobodyAreAnsweredWithTheError)
{
    ASSERT_EQ(request("nobody:x"), 0);
    EXPECT_TRUE(m_answers.all.empty()) << "never before orvex_read_fd";
    ASSERT_TRUE(serve_until_answered(1));
    EXPECT_EQ(m_answers.all[0].type, "2");
    EXPECT_EQ(m_answers.all[0].from, "nobody");
    EXPECT_NE(m_answers.all[0].data.find("net.orvane.exchange.nobody"), std::string::npos);
}

TEST_F(ExchangeRequests, AnErrorReplyIsAnAnswerOfType2WithItsText)
{
    RawPeer agent(m_bus.address(), "orvagent");
    ASSERT_EQ(request("x"), 0);
    agent.answer_with_error(*agent.receive(), "out of order");
    ASSERT_TRUE(serve_until_answered(1));
    EXPECT_EQ(m_answers.all[0].type, "2");
    EXPECT_EQ(m_answers.all[0].data, "out of order");
}

TEST_F(ExchangeRequests, AReceiverThatDiesIsAnAnswerOfType2)
{
    RawPeer agent(m_bus.address(), "orvagent");
    ASSERT_EQ(request("x"), 0);
    ASSERT_TRUE(content_of(agent.receive()));
    agent.leave();
    ASSERT_TRUE(serve_until_answered(1));
    EXPECT_EQ(m_answers.all[0].type, "2");
    EXPECT_EQ(m_answers.all[0].from, "orvagent");
    EXPECT_NE(m_answers.all[0].data, "");
}

TEST_F(ExchangeRequests, AnAnswerForWhichItsCallbackHasNoMemoryIsALogLine)
{
    RawPeer agent(m_bus.address(), "orvagent");
    m_answers.also = [](const Message&) { throw std::bad_alloc(); };
    capture_log();
    ASSERT_EQ(request("x"), 0);
    agent.answer(*agent.receive(), "0", "");
    ASSERT_TRUE(serve_until_answered(1));
    EXPECT_EQ(logged(captured_log()),
              std::vector<std::string>{"1 an answer from orvagent is lost: out of memory"});
    m_answers.also = nullptr;
    ASSERT_EQ(request("y"), 0);
    agent.answer(*agent.receive(), "0", "");
    ASSERT_TRUE(serve_until_answered(2));
}

TEST_F(ExchangeRequests, AMalformedAnswerIsOneOfType2AndALogLine)
{
    RawPeer agent(m_bus.address(), "orvagent");
    capture_log();
    ASSERT_EQ(request("empty"), 0);
    agent.send(raw_reply(*agent.receive()));
    ASSERT_EQ(request("long type"), 0);
    agent.answer(*agent.receive(), std::string(128, 't'), "");
    ASSERT_TRUE(serve_until_answered(2));
    const std::string log = captured_log();
    EXPECT_EQ(m_answers.all[0].type, "2");
    EXPECT_EQ(m_answers.all[0].data, "malformed answer");
    EXPECT_EQ(m_answers.all[1].type, "2");
    EXPECT_EQ(logged(log), (std::vector<std::string>{"1 malformed answer from orvagent",
                                                     "1 malformed answer from orvagent"}));
}

TEST_F(ExchangeRequests, AnswersComeInTheOrderOfTheAnswering)
{
    RawPeer agent(m_bus.address(), "orvagent");
    std::vector<RawMessage> calls;
    for (int i = 0; i < 10; ++i) {
        ASSERT_EQ(request("x", std::to_string(i)), 0);
        calls.push_back(agent.receive());
    }
    for (auto call = calls.rbegin(); call != calls.rend(); ++call)
        agent.answer(**call, "0", content_of(*call)->bytes);
    ASSERT_TRUE(serve_until_answered(10));
    for (std::size_t i = 0; i < 10; ++i)
        EXPECT_EQ(m_answers.all[i].data, std::to_string(9 - i));
}

TEST_F(ExchangeRequests, ASecondAnswerIsIgnored)
{
    RawPeer agent(m_bus.address(), "orvagent");
    ASSERT_EQ(request("x"), 0);
    const RawMessage call = agent.receive();
    agent.answer(*call, "0", "first");
    agent.answer(*call, "0", "second");
    ASSERT_EQ(request("y"), 0);
    RawMessage next = agent.receive();
    while (next && member_of(next) != "Request") // the bus refuses to pass the second one on
        next = agent.receive();
    ASSERT_NE(next, nullptr);
    agent.answer(*next, "0", "third");
    ASSERT_TRUE(serve_until_answered(2));
    EXPECT_EQ(m_answers.all[0].data, "first");
    EXPECT_EQ(m_answers.all[1].data, "third");
    EXPECT_EQ(m_answers.all.size(), 2U);
}

TEST_F(ExchangeRequests, TheCallbackMaySendTheNext)
{
    RawPeer agent(m_bus.address(), "orvagent");
    m_answers.also = [this](const Message&) {
        if (m_answers.all.size() < 3) {
            EXPECT_EQ(request("again"), 0);
            EXPECT_EQ(subscribe({"something"}), 0);
        }
    };
    ASSERT_EQ(request("first"), 0);
    for (std::size_t i = 1; i <= 3; ++i) {
        agent.answer(*agent.receive(), "0", "");
        ASSERT_TRUE(serve_until_answered(i));
    }
    EXPECT_EQ(m_answers.all.size(), 3U);
}

TEST_F(ExchangeRequests, OneWithoutAnAnswerTimesOutAndALateAnswerIsIgnored)
{
    rejoin_with_request_time(milliseconds{200});
    RawPeer agent(m_bus.address(), "orvagent");
    const auto start = steady_clock::now();
    ASSERT_EQ(request("slow"), 0);
    const RawMessage slow = agent.receive();
    ASSERT_TRUE(serve_until_answered(1));
    EXPECT_GE(steady_clock::now() - start, milliseconds{200});
    EXPECT_EQ(m_answers.all[0].type, "2");
    EXPECT_EQ(m_answers.all[0].data, "timed out");
    agent.answer(*slow, "0", "late");
    ASSERT_EQ(request("quick"), 0);
    agent.answer(*agent.receive(), "0", "quick");
    ASSERT_TRUE(serve_until_answered(2));
    EXPECT_EQ(m_answers.all[1].data, "quick");
}

TEST_F(ExchangeRequests, TimeOutsComeInTheOrderOfSendingAndOnlyToTheUnanswered)
{
    rejoin_with_request_time(milliseconds{300});
    RawPeer agent(m_bus.address(), "orvagent");
    Answers each[3];
    std::string order;
    for (int i = 0; i < 3; ++i) {
        each[i].also = [&order, i](const Message&) { order += std::to_string(i); };
        ASSERT_EQ(orvex_send_request(m_broker.get(), "x", "", 0, Answers::take, &each[i]), 0);
    }
    (void)agent.receive();
    agent.answer(*agent.receive(), "0", "");
    ASSERT_TRUE(serve_until([&] { return order.size() == 3; }));
    EXPECT_EQ(order, "102");
    EXPECT_EQ(each[1].all[0].type, "0");
    EXPECT_EQ(each[2].all[0].type, "2");
}

TEST_F(ExchangeRequests, WaitAMinuteForTheirAnswersUnlessSetOtherwise)
{
    RawPeer agent(m_bus.address(), "orvagent");
    while (is_readable(orvex_get_fd(m_broker.get()), milliseconds{50}))
        (void)orvex_read_fd(m_broker.get());
    EXPECT_FALSE(time_to_alarm());
    ASSERT_EQ(request("x"), 0);
    ASSERT_TRUE(time_to_alarm());
    EXPECT_LE(*time_to_alarm(), milliseconds{60000});
    EXPECT_GT(*time_to_alarm(), milliseconds{50000});
}

TEST_F(ExchangeRequests, OnesThatWaitForTheSameParticipantAre4096)
{
    RawPeer silent(m_bus.address(), "silent");
    RawPeer agent(m_bus.address(), "orvagent");
    for (int i = 0; i < 4096; ++i)
        ASSERT_EQ(request("silent:x"), 0) << i;
    EXPECT_EQ(request("silent:x"), -1);
    EXPECT_EQ(orvex_send_message(m_broker.get(), "silent:x", "", 0), 0) << "nothing waits for its answer";
    ASSERT_EQ(request("x"), 0);
    RawMessage call;
    ASSERT_TRUE(serve_until([&] { return (call = agent.receive(milliseconds{0})) != nullptr; }))
        << "so many are written only as the bus takes them";
    agent.answer(*call, "0", "");
    ASSERT_TRUE(serve_until_answered(1));
    EXPECT_EQ(m_answers.all[0].from, "orvagent");

    silent.answer(*silent.receive(), "0", "");
    ASSERT_TRUE(serve_until_answered(2));
    EXPECT_EQ(request("silent:x"), 0) << "instead of the one that is answered";
    EXPECT_EQ(request("silent:x"), -1);
    silent.leave();
    ASSERT_TRUE(serve_until_answered(2 + 4096));
    EXPECT_EQ(request("silent:x"), 0);
}

TEST_F(ExchangeRequests, OnesThatTimedOutDoNotCountAnyMore)
{
    rejoin_with_request_time(milliseconds{300});
    RawPeer agent(m_bus.address(), "orvagent");
    for (int i = 0; i < 4096; ++i)
        ASSERT_EQ(request("x"), 0) << i;
    EXPECT_EQ(request("x"), -1);
    ASSERT_TRUE(serve_until_answered(4096));
    EXPECT_EQ(m_answers.all[0].data, "timed out");
    EXPECT_EQ(request("x"), 0);
}

TEST_F(ExchangeRequests, ThatAreNeverAnsweredAreForgottenByTheBusToo)
{
    m_bus.kill();
    m_bus.change_limit("max_replies_per_connection", "70");
    m_bus.change_limit("reply_timeout", "400");
    ASSERT_TRUE(m_bus.start());
    rejoin_with_request_time(milliseconds{250});
    RawPeer silent(m_bus.address(), "silent");
    RawPeer agent(m_bus.address(), "orvagent");
    for (std::size_t round = 1; round <= 6; ++round) {
        for (int i = 0; i < 20; ++i)
            ASSERT_EQ(request("silent:x"), 0);
        ASSERT_TRUE(serve_until_answered(round * 21 - 1));
        EXPECT_EQ(m_answers.all.back().data, "timed out");
        ASSERT_EQ(request("x"), 0);
        const RawMessage call = agent.receive();
        ASSERT_NE(call, nullptr);
        agent.answer(*call, "0", "");
        ASSERT_TRUE(serve_until_answered(round * 21));
        EXPECT_EQ(m_answers.all.back().type, "0") << m_answers.all.back().data;
    }
}

TEST_F(ExchangeRequests, LeavingDropsThoseInFlight)
{
    RawPeer agent(m_bus.address(), "orvagent");
    ASSERT_EQ(request("x"), 0);
    m_broker.reset();
    EXPECT_TRUE(m_answers.all.empty());
    EXPECT_EQ(member_of(agent.receive()), "Request") << "what was sent before is delivered";
}

TEST_F(ExchangeRequests, AOneWayMessageWantsNoReply)
{
    RawPeer peer(m_bus.address(), "orvvad");
    EXPECT_EQ(orvex_send_message(m_broker.get(), "orvvad:scan", "{}", 2), 0);
    const RawMessage message = peer.receive();
    EXPECT_EQ(member_of(message), "Message");
    EXPECT_FALSE(wants_reply(message));
    EXPECT_EQ(content_of(message)->text, "scan");
    EXPECT_EQ(content_of(message)->bytes, "{}");
    EXPECT_EQ(orvex_send_message(m_broker.get(), "nobody:scan", "{}", 2), 0) << "handed over all the same";
}

// ---- requests to us

TEST_F(ExchangeRequests, ToUsAreAnsweredByTheirIdentifier)
{
    RawPeer peer(m_bus.address());
    const std::uint32_t first = peer.call("broker", "Request", "one", "1");
    const std::uint32_t second = peer.call("broker", "Request", "two", "2");
    ASSERT_TRUE(serve_until([] { return s_received.size() == 2; }));
    EXPECT_EQ(s_received[0].type, "one");
    EXPECT_EQ(s_received[0].from, peer.unique_name());
    EXPECT_EQ(s_received[0].data, "1");
    EXPECT_EQ(orvex_send_response(m_broker.get(), 0, s_received[1].id, "b", 1), 0);
    EXPECT_EQ(orvex_send_response(m_broker.get(), 0, s_received[0].id, "a", 1), 0);
    EXPECT_EQ(orvex_send_response(m_broker.get(), 0, s_received[0].id, "a", 1), -1);
    const RawMessage to_second = peer.receive();
    EXPECT_EQ(reply_serial_of(to_second), second);
    EXPECT_EQ(content_of(to_second)->text, "0");
    EXPECT_EQ(content_of(to_second)->bytes, "b");
    EXPECT_EQ(reply_serial_of(peer.receive()), first);
}

TEST_F(ExchangeRequests, ToUsThatAreForgottenAreRefused)
{
    RawPeer peer(m_bus.address());
    const std::uint32_t first = peer.call("broker", "Request", "x", "");
    for (int i = 0; i < 1024; ++i)
        (void)peer.call("broker", "Request", "x", "");
    ASSERT_TRUE(serve_until([] { return s_received.size() == 1025; }));
    const RawMessage refusal = peer.receive();
    EXPECT_EQ(reply_serial_of(refusal), first);
    EXPECT_EQ(error_of(refusal), "net.orvane.Exchange1.Error.Unanswered");
}

TEST_F(ExchangeRequests, ToUsAreRefusedByTheBusWhenWeLeave)
{
    RawPeer peer(m_bus.address());
    (void)peer.call("broker", "Request", "x", "");
    ASSERT_TRUE(serve_until([] { return s_received.size() == 1; }));
    m_broker.reset();
    EXPECT_EQ(error_of(peer.receive()), "org.freedesktop.DBus.Error.NoReply");
}

TEST_F(ExchangeRequests, MessagesToUsHaveNothingToAnswer)
{
    RawPeer peer(m_bus.address());
    (void)peer.call("broker", "Message", "quiet", "1", false);
    const std::uint32_t polite = peer.call("broker", "Message", "polite", "2");
    (void)peer.call("broker", "Request", "careless", "3", false);
    ASSERT_TRUE(serve_until([] { return s_received.size() == 3; }));
    EXPECT_EQ(s_received[0].id, 0U);
    EXPECT_EQ(s_received[0].data, "1");
    EXPECT_EQ(s_received[1].id, 0U);
    EXPECT_EQ(s_received[2].id, 0U);
    EXPECT_EQ(reply_serial_of(peer.receive()), polite);
}

TEST_F(ExchangeRequests, WhatToolsAskEverybodyOnABusIsAnswered)
{
    RawPeer peer(m_bus.address());
    capture_log();
    const auto ask = [&](const char* interface, const char* member) {
        const std::uint32_t serial = peer.send(raw_call("broker", member, interface));
        RawMessage reply;
        EXPECT_TRUE(serve_until([&] { return (reply = peer.receive(milliseconds{1})) != nullptr; }));
        EXPECT_EQ(reply_serial_of(reply), serial);
        EXPECT_EQ(error_of(reply), "");
        return text_of(reply);
    };
    EXPECT_EQ(ask("org.freedesktop.DBus.Peer", "Ping"), "");
    EXPECT_NE(ask("org.freedesktop.DBus.Introspectable", "Introspect")
                  .find("<interface name=\"net.orvane.Exchange1\">"),
              std::string::npos);
    EXPECT_EQ(captured_log(), "");
}

TEST_F(ExchangeRequests, MalformedCallsGetAnErrorAndALogLine)
{
    RawPeer peer(m_bus.address());
    capture_log();
    for (const char* member : {"Request", "Message", "Respond"}) {
        const RawMessage call = raw_call("broker", member);
        add_number(*call, 1);
        (void)peer.send(call);
    }
    (void)peer.call("broker", "Request", std::string(128, 'n'), "");
    (void)peer.call("broker", "Request", "x", std::string(kMax + 1, 'x'));
    (void)peer.call("broker", "Reqest", "x", "");
    (void)peer.call("broker", "Request", "good", "");
    ASSERT_TRUE(serve_until([] { return !s_received.empty(); }));
    const std::string log = captured_log();
    ASSERT_EQ(s_received.size(), 1U);
    EXPECT_EQ(s_received[0].type, "good");
    const std::string from = " from " + peer.unique_name();
    EXPECT_EQ(logged(log),
              (std::vector<std::string>{"1 malformed request" + from, "1 malformed message" + from,
                                        "1 malformed answer to an event" + from, "1 malformed request" + from,
                                        "1 malformed request" + from, "1 unknown method" + from}));
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(error_of(peer.receive()), "net.orvane.Exchange1.Error.BadArguments");
    EXPECT_EQ(error_of(peer.receive()), "org.freedesktop.DBus.Error.UnknownMethod");
}

TEST_F(ExchangeRequests, ToOurselvesPassThroughTheBus)
{
    ASSERT_EQ(request("broker:self", "hello"), 0);
    ASSERT_TRUE(serve_until([] { return s_received.size() == 1; }));
    EXPECT_EQ(orvex_send_response(m_broker.get(), 0, s_received[0].id, "hello back", 10), 0);
    ASSERT_TRUE(serve_until_answered(1));
    EXPECT_EQ(m_answers.all[0].data, "hello back");
}

} // namespace
