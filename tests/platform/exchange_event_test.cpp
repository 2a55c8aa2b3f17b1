// Events: which are delivered, what they carry, how they are answered.

#include "exchange_support.h"
#include "process_support.h"

#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <string>

namespace {

/// Whether there is always as much in the socket as one asks for, until the bus has nothing more.
bool g_is_bus_quick = false;

} // namespace

extern "C" {
ssize_t __real_recv(int fd, void* data, std::size_t size, int flags);

ssize_t __wrap_recv(int fd, void* data, std::size_t size, int flags)
{
    ssize_t count = __real_recv(fd, data, size, flags);
    while (g_is_bus_quick && count > 0 && static_cast<std::size_t>(count) < size &&
           is_readable(fd, std::chrono::milliseconds{100})) {
        const auto read = static_cast<std::size_t>(count);
        const ssize_t more = __real_recv(fd, static_cast<char*>(data) + read, size - read, flags);
        if (more <= 0)
            break;
        count += more;
    }
    return count;
}
}

namespace {

constexpr std::size_t kMax = kOrvexMaxPayload;

class ExchangeEvents : public ExchangeTest {
protected:
    void SetUp() override
    {
        ExchangeTest::SetUp();
        m_peer = std::make_unique<RawPeer>(m_bus.address());
    }
    /// Everybody joins anew, on a bus that takes at most so many subscriptions of each.
    bool rejoin_with_subscriptions(const char* most)
    {
        m_broker.reset();
        m_peer.reset();
        m_bus.kill();
        m_bus.change_limit("max_match_rules_per_connection", most);
        if (!m_bus.start())
            return false;
        m_broker = join("broker");
        m_peer = std::make_unique<RawPeer>(m_bus.address());
        return m_broker != nullptr;
    }

    /// Waits for an event that comes after all the others.
    bool serve_all()
    {
        m_peer->emit("end", "");
        return serve_until([] { return !s_received.empty() && s_received.back().type == "end"; });
    }

    std::unique_ptr<RawPeer> m_peer;
};

TEST_F(ExchangeEvents, OnlySubscribedOnesAreDelivered)
{
    ASSERT_TRUE(subscribe_and_wait({"wanted", "end"}));
    m_peer->emit("unwanted", "1");
    m_peer->emit("wanted", "2");
    m_peer->emit("wante", "3");
    m_peer->emit("wanted2", "4");
    ASSERT_TRUE(serve_all());
    ASSERT_EQ(s_received.size(), 2U);
    EXPECT_EQ(s_received[0].type, "wanted");
    EXPECT_EQ(s_received[0].from, "raw");
    EXPECT_EQ(s_received[0].data, "2");
    EXPECT_NE(s_received[0].id, 0U);
}

TEST_F(ExchangeEvents, TheBusDoesNotEvenSendWhatIsNotSubscribed)
{
    ASSERT_TRUE(subscribe_and_wait({"end"}));
    ASSERT_TRUE(serve_all());
    m_peer->emit("unwanted", "");
    m_peer->sync();
    EXPECT_FALSE(is_readable(orvex_get_fd(m_broker.get()), std::chrono::milliseconds{100}));
}

TEST_F(ExchangeEvents, ThePayloadIsAnyBytesAndMayBeEmpty)
{
    std::string bytes;
    for (int i = 0; i < 1000; ++i)
        bytes.push_back(static_cast<char>(i));
    ASSERT_TRUE(subscribe_and_wait({"bytes", "end"}));
    m_peer->emit("bytes", bytes);
    ASSERT_TRUE(serve_all());
    EXPECT_EQ(s_received.at(0).data, bytes);
    EXPECT_EQ(s_received.at(1).data, "");
}

TEST_F(ExchangeEvents, NamesWithQuotesBackslashesAndCommasAreMatched)
{
    const std::vector<const char*> names{"it's", "'", "''", R"(\)", R"(\')", "a,b='c'", "\xc3\xa9t\xc3\xa9",
                                         " "};
    auto all = names;
    all.push_back("end");
    ASSERT_TRUE(subscribe_and_wait(all));
    for (const char* name : names)
        m_peer->emit(name, name);
    ASSERT_TRUE(serve_all());
    ASSERT_EQ(s_received.size(), names.size() + 1);
    for (std::size_t i = 0; i < names.size(); ++i)
        EXPECT_EQ(s_received[i].type, names[i]);
}

TEST_F(ExchangeEvents, ANameMayHave127BytesAndNoMore)
{
    const std::string longest(127, 'n');
    const std::string too_long(128, 'n');
    ASSERT_TRUE(subscribe_and_wait({longest.c_str(), "end"}));
    m_peer->emit(longest, "");
    ASSERT_TRUE(serve_all());
    EXPECT_EQ(s_received.at(0).type, longest);
    EXPECT_EQ(subscribe({too_long.c_str()}), -1);
    EXPECT_EQ(subscribe({""}), -1);
    EXPECT_EQ(subscribe({"\xff"}), -1);
    EXPECT_EQ(subscribe({nullptr}), -1);
    EXPECT_EQ(orvex_subscribe(m_broker.get(), nullptr, 1), -1);
    EXPECT_EQ(orvex_subscribe(m_broker.get(), nullptr, -1), -1);
}

TEST_F(ExchangeEvents, ARefusedListLeavesTheSubscriptionsAsTheyAre)
{
    ASSERT_TRUE(subscribe_and_wait({"kept", "end"}));
    ASSERT_EQ(subscribe({"other", "\xff"}), -1);
    m_peer->emit("kept", "");
    ASSERT_TRUE(serve_all());
    EXPECT_EQ(s_received.size(), 2U);
}

TEST_F(ExchangeEvents, ANewListReplacesTheOldOne)
{
    ASSERT_TRUE(subscribe_and_wait({"a", "b", "b", "end"}));
    m_peer->emit("a", "1");
    m_peer->emit("b", "2");
    ASSERT_TRUE(serve_all());
    EXPECT_EQ(s_received.size(), 3U); // "b" once, though listed twice
    ASSERT_TRUE(subscribe_and_wait({"c", "b", "end"}));
    s_received.clear();
    m_peer->emit("a", "3");
    m_peer->emit("b", "4");
    m_peer->emit("c", "5");
    ASSERT_TRUE(serve_all());
    ASSERT_EQ(s_received.size(), 3U);
    EXPECT_EQ(s_received[0].data, "4");
    EXPECT_EQ(s_received[1].data, "5");
}

TEST_F(ExchangeEvents, OneThatIsOnItsWayWhenItIsUnsubscribedIsNotDelivered)
{
    ASSERT_TRUE(subscribe_and_wait({"late", "end"}));
    m_peer->emit("late", "");
    m_peer->sync(); // it waits in our socket
    ASSERT_EQ(subscribe({"end"}), 0);
    ASSERT_TRUE(serve_all());
    EXPECT_EQ(s_received.size(), 1U);
}

TEST_F(ExchangeEvents, WhatStaysSubscribedIsNeverMissedNorDoubled)
{
    ASSERT_TRUE(subscribe_and_wait({"stays", "end"}));
    for (int i = 0; i < 200; ++i) {
        m_peer->emit("stays", std::to_string(i));
        ASSERT_EQ(i % 2 == 0 ? subscribe({"end", "stays", "comes"}) : subscribe({"stays", "end"}), 0);
    }
    ASSERT_TRUE(serve_all());
    ASSERT_EQ(s_received.size(), 201U);
    for (std::size_t i = 0; i < 200; ++i)
        EXPECT_EQ(s_received[i].data, std::to_string(i));
}

TEST_F(ExchangeEvents, AnAnswerReachesTheSenderAsRespond)
{
    ASSERT_TRUE(subscribe_and_wait({"asks"}));
    m_peer->emit("asks", "", 4711);
    ASSERT_TRUE(serve_until([] { return s_received.size() == 1; }));
    const std::uint64_t id = s_received[0].id;
    EXPECT_EQ(orvex_send_response(m_broker.get(), 0, id, "yes", 3), 0);
    const RawMessage respond = m_peer->receive();
    ASSERT_EQ(member_of(respond), "Respond");
    EXPECT_FALSE(wants_reply(respond));
    ASSERT_TRUE(content_of(respond));
    EXPECT_EQ(content_of(respond)->number, 4711U);
    EXPECT_EQ(content_of(respond)->bytes, "yes");
    EXPECT_EQ(orvex_send_response(m_broker.get(), 0, id, "again", 5), -1) << "one answer to one event";
    EXPECT_EQ(orvex_send_response(m_broker.get(), 0, id + 1, "", 0), -1);
    EXPECT_EQ(orvex_send_response(m_broker.get(), 0, 0, "", 0), -1);
    EXPECT_EQ(orvex_send_response(m_broker.get(), 0, UINT64_MAX, "", 0), -1);
}

TEST_F(ExchangeEvents, TheLast1024CanBeAnswered)
{
    ASSERT_TRUE(subscribe_and_wait({"n"}));
    for (int i = 0; i < 1025; ++i)
        m_peer->emit("n", "", static_cast<std::uint64_t>(i));
    ASSERT_TRUE(serve_until([] { return s_received.size() == 1025; }));
    EXPECT_EQ(orvex_send_response(m_broker.get(), 0, s_received[0].id, "", 0), -1);
    EXPECT_EQ(orvex_send_response(m_broker.get(), 0, s_received[1].id, "", 0), 0);
    EXPECT_EQ(orvex_send_response(m_broker.get(), 0, s_received[1024].id, "", 0), 0);
    EXPECT_EQ(content_of(m_peer->receive())->number, 1U);
    EXPECT_EQ(content_of(m_peer->receive())->number, 1024U);
}

TEST_F(ExchangeEvents, AMalformedOneIsALogLineAndNothingElse)
{
    ASSERT_TRUE(subscribe_and_wait({"bad", "end"}));
    capture_log();
    const RawMessage wrong_types = raw_signal("Event");
    add_text(*wrong_types, "bad");
    add_text(*wrong_types, "raw");
    m_peer->send(wrong_types);
    const RawMessage too_many = raw_signal("Event");
    add_text(*too_many, "bad");
    add_text(*too_many, "raw");
    add_number(*too_many, 1);
    add_bytes(*too_many, "");
    add_text(*too_many, "more");
    m_peer->send(too_many);
    const RawMessage long_sender = raw_signal("Event");
    add_text(*long_sender, "bad");
    add_text(*long_sender, std::string(128, 's'));
    add_number(*long_sender, 1);
    add_bytes(*long_sender, "");
    m_peer->send(long_sender);
    m_peer->emit("bad", std::string(kMax + 1, 'x'));
    ASSERT_TRUE(serve_all());
    const std::string log = captured_log();
    EXPECT_EQ(s_received.size(), 1U);
    const std::string malformed = "1 malformed event from " + m_peer->unique_name();
    EXPECT_EQ(logged(log), std::vector<std::string>(4, malformed));
}

TEST_F(ExchangeEvents, PayloadsOfFourMiBLessAFramesLengthPass)
{
    std::string data(kMax, 'x');
    data.front() = 'a';
    data.back() = 'z';
    ASSERT_TRUE(subscribe_and_wait({"big", "end"}));
    m_peer->emit("big", data);
    ASSERT_TRUE(serve_all());
    EXPECT_TRUE(s_received.at(0).data == data);
}

TEST_F(ExchangeEvents, AHundredThousandArriveInOrder)
{
    constexpr int kEvents = 100000;
    constexpr int kBatch = 1000;
    ASSERT_TRUE(subscribe_and_wait({"n"}));
    for (int i = 0; i < kEvents; ++i) {
        m_peer->emit("n", std::to_string(i));
        if (i % kBatch != kBatch - 1)
            continue;
        ASSERT_TRUE(serve_until([] { return s_received.size() == kBatch; }));
        for (int k = 0; k < kBatch; ++k)
            ASSERT_EQ(s_received[static_cast<std::size_t>(k)].data, std::to_string(i - kBatch + 1 + k));
        s_received.clear();
    }
}

TEST_F(ExchangeEvents, AFloodIsDeliveredInManyPasses)
{
    constexpr int kEvents = 5000;
    ASSERT_TRUE(subscribe_and_wait({"n", "end"}));
    for (int i = 0; i < kEvents; ++i)
        m_peer->emit("n", "");
    m_peer->sync();
    for (std::size_t before = 0; before < kEvents; before = s_received.size()) {
        ASSERT_TRUE(is_readable(orvex_get_fd(m_broker.get()), kPatience));
        EXPECT_EQ(orvex_read_fd(m_broker.get()), 0);
        EXPECT_LE(s_received.size() - before, 16U);
    }
}

TEST_F(ExchangeEvents, AFloodDoesNotHoldUpTimeOuts)
{
    m_peer.reset();
    rejoin_with_request_time(std::chrono::milliseconds{100});
    m_peer = std::make_unique<RawPeer>(m_bus.address());
    RawPeer silent(m_bus.address(), "silent");
    ASSERT_TRUE(subscribe_and_wait({"n"}));
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(request("silent:x"), 0);
    for (std::size_t told = 0; told < 100; told = m_answers.all.size()) {
        for (int i = 0; i < 17; ++i) // more than one pass takes
            m_peer->emit("n", "");
        m_peer->sync();
        EXPECT_EQ(orvex_read_fd(m_broker.get()), 0);
        EXPECT_LE(m_answers.all.size() - told, 16U);
        ASSERT_LT(s_received.size(), 100000U);
    }
    EXPECT_TRUE(is_readable(orvex_get_fd(m_broker.get()), std::chrono::milliseconds{0}))
        << "the flood goes on";
}

TEST_F(ExchangeEvents, OneThatTheBusRefusesIsAskedForAgainByTheNextList)
{
    ASSERT_TRUE(rejoin_with_subscriptions("2"));
    testing::internal::CaptureStderr();
    ASSERT_TRUE(subscribe_and_wait({"a", "b", "end"}));
    const std::string log = testing::internal::GetCapturedStderr();
    ASSERT_EQ(logged(log).size(), 1U) << log;
    EXPECT_EQ(logged(log)[0].find("1 the exchange refuses a subscription: "), 0U) << log;

    ASSERT_TRUE(subscribe_and_wait({"b", "end"})); // there is room now
    m_peer->emit("b", "");
    ASSERT_TRUE(serve_all());
    EXPECT_EQ(s_received.size(), 2U);
    ASSERT_TRUE(subscribe_and_wait({"end"})); // and what was refused at first can be taken back
    ASSERT_TRUE(subscribe_and_wait({"end", "c"}));
    s_received.clear();
    m_peer->emit("c", "");
    ASSERT_TRUE(serve_all());
    EXPECT_EQ(s_received.size(), 2U);
}

TEST_F(ExchangeEvents, OneThatTheBusRefusesIsAskedForAgainWhenItComesBack)
{
    ASSERT_TRUE(rejoin_with_subscriptions("1"));
    ASSERT_TRUE(subscribe_and_wait({"a", "end"}));
    m_peer.reset(); // its connection ends with the bus
    const auto can_send = [this] { return orvex_send_message(m_broker.get(), "nobody:x", "", 0) == 0; };
    m_bus.kill();
    ASSERT_TRUE(serve_until([&] { return !can_send(); }));
    m_bus.change_limit("max_match_rules_per_connection", "10");
    ASSERT_TRUE(m_bus.start());
    ASSERT_TRUE(serve_until(can_send));
    m_peer = std::make_unique<RawPeer>(m_bus.address());
    m_peer->emit("a", "");
    ASSERT_TRUE(serve_all());
    EXPECT_EQ(s_received.size(), 2U);
}

TEST_F(ExchangeEvents, OneThatTheBusRefusesIsAskedForAgainByItself)
{
    ASSERT_TRUE(rejoin_with_subscriptions("1"));
    testing::internal::CaptureStderr();
    ASSERT_TRUE(subscribe_and_wait({"end", "refused"}));
    const auto comes_in = [this](std::chrono::milliseconds time) {
        const auto end = std::chrono::steady_clock::now() + time;
        s_received.clear();
        return serve_until([&] {
                   m_peer->emit("refused", "");
                   return !s_received.empty() || std::chrono::steady_clock::now() > end;
               }) &&
               !s_received.empty();
    };
    EXPECT_FALSE(comes_in(std::chrono::milliseconds{1500})) << "it has been refused twice by now";
    m_bus.change_limit("max_match_rules_per_connection", "2");
    m_bus.reload();
    EXPECT_TRUE(comes_in(kPatience));
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
}

TEST_F(ExchangeEvents, TheCallbackMaySubscribeSendAndAnswer)
{
    s_also = [this](const Message& message) {
        if (std::string{message.type} != "first")
            return;
        EXPECT_EQ(subscribe({"second", "end"}), 0);
        EXPECT_EQ(orvex_send_response(m_broker.get(), 0, message.request_id, "ok", 2), 0);
        EXPECT_EQ(request("nobody:x"), 0);
        EXPECT_EQ(orvex_read_fd(m_broker.get()), -1) << "not from inside a callback";
    };
    ASSERT_TRUE(subscribe_and_wait({"first"}));
    m_peer->emit("first", "");
    ASSERT_TRUE(serve_until([this] { return m_answers.all.size() == 1; }));
    m_peer->emit("second", "");
    ASSERT_TRUE(serve_all());
    EXPECT_EQ(s_received.size(), 3U);
    EXPECT_EQ(content_of(m_peer->receive())->bytes, "ok");
}

TEST_F(ExchangeEvents, ALargeOneTakesManyPassesHoweverQuickTheBusIs)
{
    ASSERT_TRUE(subscribe_and_wait({"large"}));
    m_peer->emit("large", std::string(kMax, 'x'));
    int passes = 0;
    g_is_bus_quick = true;
    while (s_received.empty() && is_readable(orvex_get_fd(m_broker.get()), kPatience)) {
        ++passes;
        EXPECT_EQ(orvex_read_fd(m_broker.get()), 0);
    }
    g_is_bus_quick = false;
    ASSERT_EQ(s_received.size(), 1U);
    EXPECT_EQ(s_received[0].data.size(), kMax);
    EXPECT_GE(passes, 16) << "each reads 256 KiB at most";
}

} // namespace
