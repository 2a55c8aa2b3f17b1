// The publishing side, and looking on.

#include "exchange_support.h"

#include <algorithm>
#include <string>

namespace {

struct Handled {
    OrvexKind kind;
    Received message;
};

struct Observed {
    OrvexTraffic::Kind kind;
    std::string name, from, to, type, data;
    std::uint64_t id;
};

class ExchangePublisher : public ExchangeTest {
protected:
    OrvexPtr join_as(const char* name)
    {
        return OrvexPtr{orvex_join(
            name,
            [this](OrvexKind kind, const Message& message) {
                m_handled.push_back({kind,
                                     {message.type, message.from, message.request_id,
                                      std::string(message.data, message.datalen)}});
            },
            true)};
    }
    static int publish(const OrvexPtr& orvex, const std::string& name, const std::string& data,
                       std::uint64_t* identifier = nullptr)
    {
        return orvex_publish(orvex.get(), name.c_str(), data.data(), data.size(), identifier);
    }

    std::vector<Handled> m_handled;
};

TEST_F(ExchangePublisher, EventsReachTheirSubscribersAndAnswersTheirPublisher)
{
    const OrvexPtr publisher = join_as("orvvad");
    ASSERT_NE(publisher, nullptr);
    ASSERT_TRUE(subscribe_and_wait({"va_status_changed"}));
    std::uint64_t first = 0;
    std::uint64_t second = 0;
    ASSERT_EQ(publish(publisher, "va_status_changed", "1", &first), 0);
    ASSERT_EQ(publish(publisher, "va_status_changed", "2", &second), 0);
    EXPECT_NE(first, second);
    ASSERT_TRUE(serve_until([] { return s_received.size() == 2; }));
    EXPECT_EQ(s_received[0].from, "orvvad");
    EXPECT_EQ(s_received[1].data, "2");

    ASSERT_EQ(orvex_send_response(m_broker.get(), 0, s_received[1].id, "thanks", 6), 0);
    ASSERT_TRUE(::serve_until(publisher.get(), [this] { return !m_handled.empty(); }));
    EXPECT_EQ(m_handled[0].kind, OrvexKind::respond);
    EXPECT_EQ(m_handled[0].message.id, second);
    EXPECT_EQ(m_handled[0].message.type, "0");
    EXPECT_EQ(m_handled[0].message.data, "thanks");
}

TEST_F(ExchangePublisher, AnswersToEventsThatNeverWereAreRefused)
{
    const OrvexPtr publisher = join_as("orvvad");
    ASSERT_NE(publisher, nullptr);
    ASSERT_EQ(publish(publisher, "event", ""), 0);
    RawPeer peer(m_bus.address());
    for (const std::uint64_t identifier :
         {std::uint64_t{0}, std::uint64_t{2}, UINT64_MAX, std::uint64_t{1}}) {
        const RawMessage respond = raw_call("orvvad", "Respond");
        add_number(*respond, identifier);
        add_bytes(*respond, "x");
        (void)peer.send(respond);
    }
    ASSERT_TRUE(::serve_until(publisher.get(), [this] { return !m_handled.empty(); }));
    EXPECT_EQ(m_handled.size(), 1U);
    EXPECT_EQ(m_handled[0].message.id, 1U);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(error_of(peer.receive()), "net.orvane.Exchange1.Error.BadArguments");
    EXPECT_EQ(error_of(peer.receive()), "");
}

TEST_F(ExchangePublisher, RequestsAreAnsweredWithAnyType)
{
    const OrvexPtr agent = join_as("orvagent");
    ASSERT_NE(agent, nullptr);
    ASSERT_EQ(request("x"), 0);
    ASSERT_EQ(orvex_send_message(m_broker.get(), "orvagent:m", "", 0), 0);
    ASSERT_TRUE(::serve_until(agent.get(), [this] { return m_handled.size() == 2; }));
    EXPECT_EQ(m_handled[0].kind, OrvexKind::request);
    EXPECT_EQ(m_handled[1].kind, OrvexKind::message);
    const std::uint64_t id = m_handled[0].message.id;
    EXPECT_EQ(orvex_send_response_typed(agent.get(), id, std::string(128, 't').c_str(), "", 0), -1);
    EXPECT_EQ(orvex_send_response_typed(agent.get(), id, nullptr, "", 0), -1);
    EXPECT_EQ(orvex_send_response_typed(agent.get(), id, "1", "refused", 7), 0);
    ASSERT_TRUE(serve_until([this] { return !m_answers.all.empty(); }));
    EXPECT_EQ(m_answers.all[0].type, "1");
    EXPECT_EQ(m_answers.all[0].data, "refused");
}

TEST_F(ExchangePublisher, ANamelessOneTakesPartAllTheSame)
{
    const OrvexPtr nameless = join_as(nullptr);
    const OrvexPtr another = join_as(nullptr);
    ASSERT_NE(nameless, nullptr);
    ASSERT_NE(another, nullptr);
    Answers answers;
    ASSERT_EQ(orvex_send_request(nameless.get(), "broker:x", "", 0, Answers::take, &answers), 0);
    ASSERT_TRUE(serve_until([] { return !s_received.empty(); }));
    ASSERT_EQ(orvex_send_response(m_broker.get(), 0, s_received[0].id, "y", 1), 0);
    ASSERT_TRUE(::serve_until(nameless.get(), [&] { return !answers.all.empty(); }));
    EXPECT_EQ(answers.all[0].data, "y");

    const char* name = "event";
    ASSERT_EQ(orvex_subscribe(another.get(), &name, 1), 0);
    ASSERT_EQ(orvex_send_request(another.get(), "nobody:x", "", 0, Answers::take, &answers), 0);
    ASSERT_TRUE(::serve_until(another.get(), [&] { return answers.all.size() == 2; })) << "subscribed by now";
    ASSERT_EQ(publish(nameless, "event", ""), 0);
    ASSERT_TRUE(::serve_until(another.get(), [&] { return !m_handled.empty(); }));
    EXPECT_EQ(m_handled[0].message.from.front(), ':') << "a unique name";
}

TEST_F(ExchangePublisher, BadEventsAreRefused)
{
    EXPECT_EQ(publish(m_broker, "", ""), -1);
    EXPECT_EQ(publish(m_broker, std::string(128, 'n'), ""), -1);
    EXPECT_EQ(publish(m_broker, "\xff", ""), -1);
    EXPECT_EQ(publish(m_broker, "x", std::string(kOrvexMaxPayload + 1, 'x')), -1);
    EXPECT_EQ(orvex_publish(nullptr, "x", "", 0, nullptr), -1);
    EXPECT_EQ(orvex_publish(m_broker.get(), nullptr, "", 0, nullptr), -1);
    EXPECT_EQ(orvex_join("x", nullptr, false), nullptr);
    EXPECT_EQ(orvex_monitor(nullptr, false), nullptr);
}

TEST_F(ExchangePublisher, AnOnlookerSeesAllTraffic)
{
    std::vector<Observed> seen;
    const OrvexPtr monitor{orvex_monitor(
        [&](const OrvexTraffic& t) {
            seen.push_back({t.kind, std::string{t.name}, std::string{t.from}, std::string{t.to},
                            std::string{t.type}, std::string{t.data}, t.id});
        },
        true)};
    ASSERT_NE(monitor, nullptr);
    EXPECT_EQ(orvex_send_message(monitor.get(), "x", "", 0), -1);
    EXPECT_EQ(publish(monitor, "x", ""), -1);
    EXPECT_EQ(orvex_subscribe(monitor.get(), nullptr, 0), -1);

    RawPeer agent(m_bus.address(), "orvagent");
    ASSERT_EQ(subscribe({"event"}), 0);
    ASSERT_EQ(request("ask", "question"), 0);
    agent.answer(*agent.receive(), "0", "reply");
    ASSERT_TRUE(serve_until([this] { return m_answers.all.size() == 1; }));
    ASSERT_EQ(orvex_send_message(m_broker.get(), "orvagent:tell", "news", 4), 0);
    (void)agent.receive();
    ASSERT_EQ(request("nobody:x"), 0);
    ASSERT_TRUE(serve_until([this] { return m_answers.all.size() == 2; }));
    agent.emit("event", "payload", 9);
    ASSERT_TRUE(serve_until([] { return !s_received.empty(); }));
    ASSERT_EQ(orvex_send_response(m_broker.get(), 0, s_received[0].id, "ok", 2), 0);
    ASSERT_TRUE(::serve_until(monitor.get(), [&] { return seen.size() == 7; }));

    using Kind = OrvexTraffic::Kind;
    EXPECT_EQ(seen[0].kind, Kind::request);
    EXPECT_EQ(seen[0].name, "ask");
    EXPECT_EQ(seen[0].to, "orvagent");
    EXPECT_EQ(seen[0].data, "question");
    EXPECT_EQ(seen[1].kind, Kind::answer);
    EXPECT_EQ(seen[1].name, "ask");
    EXPECT_EQ(seen[1].id, seen[0].id);
    EXPECT_EQ(seen[1].from, agent.unique_name());
    EXPECT_EQ(seen[1].to, seen[0].from);
    EXPECT_EQ(seen[1].type, "0");
    EXPECT_EQ(seen[1].data, "reply");
    EXPECT_EQ(seen[2].kind, Kind::message);
    EXPECT_EQ(seen[2].name, "tell");
    EXPECT_EQ(seen[3].kind, Kind::request);
    EXPECT_EQ(seen[4].kind, Kind::error);
    EXPECT_EQ(seen[4].id, seen[3].id);
    EXPECT_FALSE(seen[4].data.empty());
    EXPECT_EQ(seen[5].kind, Kind::event);
    EXPECT_EQ(seen[5].from, "raw");
    EXPECT_EQ(seen[5].id, 9U);
    EXPECT_EQ(seen[6].kind, Kind::respond);
    EXPECT_EQ(seen[6].id, 9U);
    EXPECT_EQ(seen[6].data, "ok");
}

TEST_F(ExchangePublisher, AnOnlookerComesBackAfterTheExchangeWasAway)
{
    int events = 0;
    const OrvexPtr monitor{orvex_monitor([&](const OrvexTraffic&) { ++events; }, true)};
    ASSERT_NE(monitor, nullptr);
    m_bus.kill();
    ASSERT_TRUE(m_bus.start());
    RawPeer peer(m_bus.address());
    ASSERT_TRUE(::serve_until(monitor.get(), [&] {
        peer.emit("event", "");
        return events > 0;
    }));
}

} // namespace
