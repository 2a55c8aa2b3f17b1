// Joining, leaving, and an exchange that is away, comes back, or hangs.

#include "exchange_support.h"
#include "process_support.h"
#include "refusal_support.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;

namespace {

// A C library for 32 bits takes the call without 64 bits of time, where there is one, as long as they suffice.
#ifdef SYS_timerfd_settime64
constexpr long kWideTimerCall = SYS_timerfd_settime64;
#else
constexpr long kWideTimerCall = SYS_timerfd_settime;
#endif
#ifdef SYS_timerfd_settime
constexpr long kTimerCall = SYS_timerfd_settime;
#else
constexpr long kTimerCall = kWideTimerCall;
#endif
// Some make all calls of sockets by one.
#ifdef SYS_socketcall
constexpr long kSocketCall = SYS_socketcall;
#else
constexpr long kSocketCall = SYS_socket;
#endif

class ExchangeAway : public ExchangeTest {
protected:
    /// Sending is refused exactly while the exchange is away.
    bool can_send() { return orvex_send_message(m_broker.get(), "nobody:ping", "", 0) == 0; }
    bool serve_until_away()
    {
        return serve_until([this] { return !can_send(); });
    }
    bool serve_until_back()
    {
        return serve_until([this] { return can_send(); });
    }
};

/// A listening socket in the bus's place that says nothing.
class MuteBus {
public:
    explicit MuteBus(const std::string& path, int backlog = 10)
        : m_socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0))
    {
        ::unlink(path.c_str());
        m_address.sun_family = AF_UNIX;
        std::strncpy(m_address.sun_path, path.c_str(), sizeof m_address.sun_path - 1);
        EXPECT_EQ(::bind(m_socket, reinterpret_cast<const sockaddr*>(&m_address), sizeof m_address), 0);
        EXPECT_EQ(::listen(m_socket, backlog), 0);
    }
    MuteBus(const MuteBus&) = delete;
    MuteBus& operator=(const MuteBus&) = delete;
    ~MuteBus()
    {
        ::close(m_socket);
        for (const int client : m_crowd)
            ::close(client);
    }
    /// Lets others wait for it until nobody more can.
    void fill()
    {
        for (;;) {
            m_crowd.push_back(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
            if (::connect(m_crowd.back(), reinterpret_cast<const sockaddr*>(&m_address), sizeof m_address) !=
                0)
                break;
        }
        EXPECT_EQ(errno, EAGAIN);
    }
    /// Accepts all who wait, and hangs up on them.
    void empty()
    {
        while (someone_connects(milliseconds{0}))
            ::close(accept());
    }
    [[nodiscard]] bool someone_connects(milliseconds within) const { return is_readable(m_socket, within); }
    [[nodiscard]] int accept() const { return ::accept4(m_socket, nullptr, nullptr, SOCK_CLOEXEC); }

private:
    int m_socket;
    sockaddr_un m_address{};
    std::vector<int> m_crowd;
};

/// A bus that does not listen to what it is told, but says at once all that it has to say to the first who
/// connects. Their first call has the serial number 1, the next one 2.
class RecitingBus {
public:
    RecitingBus(const std::string& path, const std::vector<RawMessage>& messages)
        : RecitingBus(path, text_of(messages))
    {
    }
    RecitingBus(const std::string& path, const std::string& text)
        : m_own(std::make_unique<MuteBus>(path)), m_listener(*m_own), m_thread([this, text] { serve(text); })
    {
    }
    /// Takes the place of a listener with a full queue, a moment later.
    RecitingBus(MuteBus& crowded, const std::vector<RawMessage>& messages)
        : m_listener(crowded), m_thread([this, text = text_of(messages)] {
              (void)::poll(nullptr, 0, 150);
              m_listener.empty();
              serve(text);
          })
    {
    }
    RecitingBus(const RecitingBus&) = delete;
    RecitingBus& operator=(const RecitingBus&) = delete;
    ~RecitingBus() { (void)heard(); }
    /// All that was said to it, until the other end left.
    [[nodiscard]] const std::string& heard()
    {
        if (m_thread.joinable())
            m_thread.join();
        return m_heard;
    }

private:
    static std::string text_of(const std::vector<RawMessage>& messages)
    {
        std::string text = "OK 0123456789abcdef0123456789abcdef\r\n";
        for (const RawMessage& message : messages)
            text += marshalled(*message);
        return text;
    }
    void serve(const std::string& text)
    {
        if (!m_listener.someone_connects(kPatience))
            return;
        const int connection = m_listener.accept();
        EXPECT_EQ(::write(connection, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        char piece[512];
        for (ssize_t size = 0; (size = ::read(connection, piece, sizeof piece)) > 0;)
            m_heard.append(piece, static_cast<std::size_t>(size));
        ::close(connection);
    }

    std::unique_ptr<MuteBus> m_own;
    MuteBus& m_listener;
    std::string m_heard;
    std::thread m_thread;
};

RawMessage reply_to_hello()
{
    RawMessage reply = raw_reply(1);
    add_text(*reply, ":1.1");
    return reply;
}

RawMessage reply_to_claim()
{
    RawMessage reply = raw_reply(2);
    add_count(*reply, 1); // the primary owner
    return reply;
}

RawMessage named_call(const char* member, const std::string& name)
{
    RawMessage call = raw_call("broker", member);
    add_text(*call, name);
    add_bytes(*call, "");
    return call;
}

RawMessage event(const std::string& name)
{
    RawMessage signal = raw_signal("Event");
    add_text(*signal, name);
    add_text(*signal, "raw");
    add_number(*signal, 1);
    add_bytes(*signal, "");
    return signal;
}

std::vector<RawMessage> calls_before_and_after_the_claim()
{
    std::vector<RawMessage> messages;
    messages.push_back(reply_to_hello());
    for (const char* member : {"Request", "Message", "Ping"})
        messages.push_back(named_call(member, "early"));
    messages.push_back(event("early"));
    messages.push_back(reply_to_claim());
    messages.push_back(named_call("Request", "in time"));
    return messages;
}

std::size_t occurrences(const std::string& text, const std::string& of)
{
    std::size_t count = 0;
    for (std::size_t at = text.find(of); at != std::string::npos; at = text.find(of, at + 1))
        ++count;
    return count;
}

TEST_F(ExchangeAway, WhatComesWhileJoiningIsRefusedAndNotHandedOver)
{
    m_broker.reset();
    m_bus.kill();
    RecitingBus bus(m_bus.socket(), calls_before_and_after_the_claim());
    capture_log();
    m_broker = join("broker");
    const std::string log = captured_log();
    ASSERT_NE(m_broker, nullptr);
    EXPECT_TRUE(s_received.empty()) << "callbacks run only inside orvex_read_fd";
    EXPECT_EQ(occurrences(log, "call while joining"), 3U) << log;
    ASSERT_TRUE(serve_until([] { return !s_received.empty(); }));
    EXPECT_EQ(s_received[0].type, "in time");
    m_broker.reset();
    EXPECT_EQ(occurrences(bus.heard(), "net.orvane.Exchange1.Error.NotJoined"), 3U);
}

TEST_F(ExchangeAway, WhatComesWhileComingBackIsRefusedAndNotHandedOver)
{
    ASSERT_EQ(subscribe({"early"}), 0);
    m_bus.kill();
    RecitingBus bus(m_bus.socket(), calls_before_and_after_the_claim());
    ASSERT_TRUE(serve_until([] { return !s_received.empty(); }));
    EXPECT_EQ(s_received.size(), 1U);
    EXPECT_EQ(s_received[0].type, "in time");
    m_broker.reset();
    EXPECT_EQ(occurrences(bus.heard(), "net.orvane.Exchange1.Error.NotJoined"), 3U);
}

TEST_F(ExchangeAway, AnOnlookerIsNotCalledWhileJoining)
{
    m_broker.reset();
    m_bus.kill();
    RecitingBus bus(m_bus.socket(), calls_before_and_after_the_claim());
    int seen = 0;
    OrvexPtr monitor{orvex_monitor([&seen](const OrvexTraffic&) { ++seen; }, false)};
    ASSERT_NE(monitor, nullptr);
    EXPECT_EQ(seen, 0);
    ASSERT_TRUE(::serve_until(monitor.get(), [&seen] { return seen > 0; }));
    EXPECT_EQ(seen, 1);
    monitor.reset();
    EXPECT_EQ(occurrences(bus.heard(), "net.orvane.Exchange1.Error.NotJoined"), 3U);
}

TEST_F(ExchangeAway, JoiningFailsWithoutABus)
{
    m_bus.kill();
    EXPECT_EQ(join("other"), nullptr);
}

TEST_F(ExchangeAway, JoiningABusThatDoesNotAnswerFailsInTime)
{
    m_broker.reset();
    m_bus.kill();
    const MuteBus mute(m_bus.socket());
    const auto start = steady_clock::now();
    EXPECT_EQ(join("other"), nullptr);
    EXPECT_GE(steady_clock::now() - start, seconds{4});
    EXPECT_LT(steady_clock::now() - start, seconds{10});
}

TEST_F(ExchangeAway, JoiningWaitsNoLongerThanItIsTold)
{
    m_broker.reset();
    m_bus.kill();
    MuteBus mute(m_bus.socket(), 0);
    for (int i = 0; i < 2; ++i) {
        const auto start = steady_clock::now();
        EXPECT_FALSE(OrvexPtr{orvex_join(
            "other", [](OrvexKind, const Message&) {}, true, milliseconds{300})});
        EXPECT_FALSE(OrvexPtr{orvex_monitor([](const OrvexTraffic&) {}, true, milliseconds{300})});
        EXPECT_GE(steady_clock::now() - start, milliseconds{600});
        EXPECT_LT(steady_clock::now() - start, milliseconds{2000});
        mute.fill(); // now they do not even get into the queue
    }
}

TEST_F(ExchangeAway, JoiningABusThatAcceptsNobodyFailsInTimeAndSaysWhy)
{
    m_broker.reset();
    m_bus.kill();
    MuteBus crowded(m_bus.socket(), 0);
    crowded.fill();
    testing::internal::CaptureStderr();
    const auto start = steady_clock::now();
    EXPECT_EQ(join("other"), nullptr);
    EXPECT_GE(steady_clock::now() - start, seconds{4});
    EXPECT_LT(steady_clock::now() - start, seconds{7});
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(occurrences(log, "cannot reach the exchange: too many wait for it already"), 1U) << log;
    EXPECT_EQ(occurrences(log, "\n"), 1U) << log;
}

TEST_F(ExchangeAway, JoiningABusThatAcceptsNobodyAtFirstSucceeds)
{
    m_broker.reset();
    m_bus.kill();
    MuteBus crowded(m_bus.socket(), 0);
    crowded.fill();
    std::vector<RawMessage> welcome;
    welcome.push_back(reply_to_hello());
    welcome.push_back(reply_to_claim());
    RecitingBus bus(crowded, welcome); // once it has found out that it is crowded
    EXPECT_NE(join("broker"), nullptr);
}

TEST_F(ExchangeAway, ABusThatAcceptsNobodyIsTriedAgainWithoutBlocking)
{
    ASSERT_EQ(subscribe({"kept"}), 0);
    m_bus.kill();
    auto crowded = std::make_unique<MuteBus>(m_bus.socket(), 0);
    crowded->fill();
    testing::internal::CaptureStderr();
    const auto start = steady_clock::now();
    auto longest = steady_clock::duration::zero();
    int wakeups = 0;
    while (steady_clock::now() - start < milliseconds{1500}) {
        wakeups += is_readable(orvex_get_fd(m_broker.get()), milliseconds{50}) ? 1 : 0;
        const auto before = steady_clock::now();
        EXPECT_EQ(orvex_read_fd(m_broker.get()), 0);
        EXPECT_FALSE(can_send());
        longest = std::max(longest, steady_clock::now() - before);
    }
    EXPECT_LT(longest, milliseconds{100});
    EXPECT_LT(wakeups, 20) << "it waits, and does not spin";
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(occurrences(log, "too many wait for it already"), 1U) << log;
    crowded->empty();
    ASSERT_TRUE(serve_until([&] { return crowded->someone_connects(milliseconds{0}); }));
    crowded.reset();
    ASSERT_TRUE(m_bus.start());
    ASSERT_TRUE(serve_until_back());
}

TEST_F(ExchangeAway, ABusThatDoesNotAnswerForTenSecondsIsTriedAnew)
{
    m_bus.kill();
    const MuteBus mute(m_bus.socket());
    ASSERT_TRUE(serve_until([&] { return mute.someone_connects(milliseconds{0}); }));
    const int connection = mute.accept();
    const auto start = steady_clock::now();
    testing::internal::CaptureStderr();
    ASSERT_TRUE(serve_until([&] { return mute.someone_connects(milliseconds{0}); }));
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(occurrences(log, "the exchange does not answer"), 1U) << log;
    EXPECT_GE(steady_clock::now() - start, seconds{9});
    char greeting[64];
    while (::recv(connection, greeting, sizeof greeting, MSG_DONTWAIT) > 0) {
    }
    EXPECT_EQ(::recv(connection, greeting, sizeof greeting, MSG_DONTWAIT), 0) << "the first one is closed";
    ::close(connection);
}

TEST_F(ExchangeAway, ABusThatDoesNotLetUsInOrTalksNonsenseIsLeft)
{
    m_broker.reset();
    m_bus.kill();
    const std::string nonsense(2000, 'x'); // no line at all
    const std::string in = "OK 0123456789abcdef0123456789abcdef\r\n";
    for (const auto& [text, reason] : std::vector<std::pair<std::string, std::string>>{
             {"REJECTED EXTERNAL\r\n", "the exchange does not let us in"},
             {"\r\n", "the exchange does not let us in"},
             {nonsense, "the exchange is gone"},
             {in + nonsense, "the exchange is gone"},
             {in + std::string("l\2\0\1\0\0\0\0\0\0\0\0\0\0\0\0", 16), "the exchange is gone"}, // serial 0
             {in + std::string("l\2\0\1\0\0\0\0\1\0\0\0\0\0\0\x7f", 16), "the exchange is gone"},
             {in + std::string("l\2\0\1\0\0\0\x7f\1\0\0\0\0\0\0\0", 16), "the exchange is gone"}}) {
        RecitingBus bus(m_bus.socket(), text);
        capture_log();
        EXPECT_EQ(join("other"), nullptr);
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(occurrences(log, reason), 1U) << log;
        EXPECT_EQ(occurrences(log, "\n"), 1U) << log;
    }
}

TEST_F(ExchangeAway, OnlyUnixSocketsAreAddresses)
{
    const std::string path = m_bus.socket();
    for (const char* address :
         {"tcp:host=localhost,port=1", "unixexec:path=/bin/true", "autolaunch:", "nonsense"}) {
        setenv("ORVEX_ADDRESS", address, 1);
        testing::internal::CaptureStderr();
        EXPECT_EQ(join("other"), nullptr);
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_EQ(occurrences(log, std::string(address) + " is no address of a Unix socket"), 1U) << log;
    }
    setenv("ORVEX_ADDRESS", ("tcp:host=localhost,port=1;unix:path=/nowhere;unix:path=" + path).c_str(), 1);
    EXPECT_NE(join("other"), nullptr) << "the first one of a list that can be reached";
}

TEST_F(ExchangeAway, ANameHasOneOwner)
{
    EXPECT_EQ(join("broker"), nullptr);
    m_broker.reset();
    EXPECT_NE(join("broker"), nullptr);
}

TEST_F(ExchangeAway, BadNamesAreRefused)
{
    for (const char* name : {"", "a b", "1a", "a..b", "\xff"})
        EXPECT_EQ(join(name), nullptr) << name;
    EXPECT_EQ(join(std::string(128, 'n').c_str()), nullptr);
    EXPECT_EQ(join(nullptr), nullptr);
    EXPECT_EQ(orvex_init_eventloop("x", nullptr, 0, 0), nullptr);
    EXPECT_NE(join("broker-devmgmt"), nullptr);
    EXPECT_NE(join(std::string(127, 'n').c_str()), nullptr);
}

TEST_F(ExchangeAway, ANullHandleFailsEverywhere)
{
    EXPECT_EQ(orvex_get_fd(nullptr), -1);
    EXPECT_EQ(orvex_read_fd(nullptr), -1);
    EXPECT_EQ(orvex_subscribe(nullptr, nullptr, 0), -1);
    EXPECT_EQ(orvex_send_request(nullptr, "x", "", 0, Answers::take, nullptr), -1);
    EXPECT_EQ(orvex_send_message(nullptr, "x", "", 0), -1);
    EXPECT_EQ(orvex_send_response(nullptr, 0, 1, "", 0), -1);
    orvex_uninit(nullptr);
}

TEST_F(ExchangeAway, TheAddressCanBeGivenByTheEnvironment)
{
    const std::string address = m_bus.address();
    setenv("ORV_ROOT", "/nowhere", 1);
    EXPECT_EQ(join("other"), nullptr);
    setenv("ORVEX_ADDRESS", address.c_str(), 1);
    EXPECT_NE(join("other"), nullptr);
    setenv("ORVEX_ADDRESS", "this is no address", 1);
    EXPECT_EQ(join("other"), nullptr);
}

TEST_F(ExchangeAway, NothingIsLeftOpen)
{
    const int before = open_descriptors();
    for (int i = 0; i < 10; ++i) {
        const OrvexPtr other = join("other");
        ASSERT_NE(other, nullptr);
        const char* name = "event";
        EXPECT_EQ(orvex_subscribe(other.get(), &name, 1), 0);
        EXPECT_EQ(join("other"), nullptr);
    }
    m_bus.kill();
    EXPECT_EQ(join("other"), nullptr);
    EXPECT_EQ(open_descriptors(), before);
    ASSERT_TRUE(serve_until_away());
    EXPECT_EQ(open_descriptors(), before - 1) << "the socket of the lost connection";
}

TEST_F(ExchangeAway, RequestsInFlightAreAnsweredInTheNextPass)
{
    RawPeer agent(m_bus.address(), "orvagent");
    for (int i = 0; i < 5; ++i)
        ASSERT_EQ(request("x"), 0);
    agent.answer(*agent.receive(), "0", "");
    agent.sync();
    m_bus.kill();
    EXPECT_TRUE(m_answers.all.empty());
    ASSERT_TRUE(is_readable(orvex_get_fd(m_broker.get()), seconds{10}));
    (void)orvex_read_fd(m_broker.get());
    ASSERT_EQ(m_answers.all.size(), 5U);
    EXPECT_EQ(m_answers.all[0].type, "0") << "what the bus had delivered comes first";
    for (std::size_t i = 1; i < 5; ++i) {
        EXPECT_EQ(m_answers.all[i].type, "2");
        EXPECT_EQ(m_answers.all[i].from, "orvagent");
        EXPECT_EQ(m_answers.all[i].data, "the exchange is gone");
    }
}

TEST_F(ExchangeAway, RequestsInFlightAreAnsweredInTheOrderOfSending)
{
    RawPeer agent(m_bus.address(), "orvagent");
    RawPeer other(m_bus.address(), "other");
    Answers each[4];
    std::string order;
    for (int i = 0; i < 4; ++i) {
        each[i].also = [&order, i](const Message& answer) { order += std::to_string(i) + answer.type; };
        ASSERT_EQ(
            orvex_send_request(m_broker.get(), i % 2 == 0 ? "x" : "other:x", "", 0, Answers::take, &each[i]),
            0);
    }
    other.sync();
    m_bus.kill();
    ASSERT_TRUE(serve_until_away());
    EXPECT_EQ(order, "02122232");
}

TEST_F(ExchangeAway, ManyRequestsInFlightAreGivenUpSixteenInAPassAndInOrder)
{
    RawPeer agent(m_bus.address(), "orvagent");
    std::vector<int> order;
    std::vector<Answers> each(100);
    for (int i = 0; i < 100; ++i) {
        each[static_cast<std::size_t>(i)].also = [&order, i](const Message&) { order.push_back(i); };
        ASSERT_EQ(
            orvex_send_request(m_broker.get(), "x", "", 0, Answers::take, &each[static_cast<std::size_t>(i)]),
            0);
    }
    agent.sync();
    m_bus.kill();
    ASSERT_TRUE(m_bus.start()); // it comes back before all of them are told
    for (std::size_t told = 0; told < 100; told = order.size()) {
        ASSERT_TRUE(is_readable(orvex_get_fd(m_broker.get()), seconds{10}));
        EXPECT_EQ(orvex_read_fd(m_broker.get()), 0);
        EXPECT_LE(order.size() - told, 16U);
    }
    EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
    ASSERT_TRUE(serve_until_back());
    EXPECT_EQ(order.size(), 100U);
}

TEST_F(ExchangeAway, WithoutReconnectionTheEndIsReportedAfterAllThatWereInFlight)
{
    m_broker.reset();
    m_broker = join("broker", 0);
    ASSERT_NE(m_broker, nullptr);
    RawPeer agent(m_bus.address(), "orvagent");
    for (int i = 0; i < 40; ++i)
        ASSERT_EQ(request("x"), 0);
    m_bus.kill();
    for (const std::size_t told : {16U, 32U}) {
        ASSERT_TRUE(is_readable(orvex_get_fd(m_broker.get()), seconds{10}));
        EXPECT_EQ(orvex_read_fd(m_broker.get()), 0);
        EXPECT_EQ(m_answers.all.size(), told);
    }
    ASSERT_TRUE(is_readable(orvex_get_fd(m_broker.get()), seconds{10}));
    EXPECT_EQ(orvex_read_fd(m_broker.get()), -1);
    EXPECT_EQ(m_answers.all.size(), 40U);
}

TEST_F(ExchangeAway, ARequestSentIntoABrokenConnectionIsAnsweredOrRefused)
{
    m_bus.kill();
    std::size_t accepted = 0;
    for (int i = 0; i < 3; ++i)
        accepted += request("x") == 0 ? 1 : 0;
    EXPECT_TRUE(m_answers.all.empty());
    ASSERT_TRUE(serve_until_away());
    EXPECT_EQ(m_answers.all.size(), accepted);
    for (const Received& answer : m_answers.all)
        EXPECT_EQ(answer.type, "2");
}

TEST_F(ExchangeAway, SendingIsRefusedWhileTheExchangeIsAway)
{
    m_bus.kill();
    ASSERT_TRUE(serve_until_away());
    EXPECT_EQ(request("x"), -1);
    EXPECT_EQ(orvex_send_message(m_broker.get(), "x", "", 0), -1);
    EXPECT_EQ(orvex_send_response(m_broker.get(), 0, 1, "", 0), -1);
    EXPECT_EQ(subscribe({"x"}), -1);
    EXPECT_GE(orvex_get_fd(m_broker.get()), 0);
    EXPECT_TRUE(m_answers.all.empty());
}

TEST_F(ExchangeAway, NameAndSubscriptionsAreRenewed)
{
    ASSERT_EQ(subscribe({"kept"}), 0);
    for (int i = 0; i < 3; ++i) {
        m_bus.kill();
        ASSERT_TRUE(serve_until_away());
        ASSERT_TRUE(m_bus.start());
        ASSERT_TRUE(serve_until_back());
        RawPeer peer(m_bus.address());
        EXPECT_TRUE(peer.is_there("broker"));
        peer.emit("kept", "back");
        s_received.clear();
        ASSERT_TRUE(serve_until([] { return !s_received.empty(); }));
        EXPECT_EQ(s_received[0].data, "back");
    }
}

TEST_F(ExchangeAway, AListGivenMeanwhileTakesEffectAfterwards)
{
    ASSERT_EQ(subscribe({"before"}), 0);
    m_bus.kill();
    ASSERT_TRUE(serve_until_away());
    EXPECT_EQ(subscribe({"meanwhile"}), -1);
    ASSERT_TRUE(m_bus.start());
    ASSERT_TRUE(serve_until_back());
    RawPeer peer(m_bus.address());
    peer.emit("before", "");
    peer.emit("meanwhile", "");
    ASSERT_TRUE(serve_until([] { return !s_received.empty(); }));
    EXPECT_EQ(s_received[0].type, "meanwhile");
}

TEST_F(ExchangeAway, OldIdentifiersCannotBeAnsweredAfterwards)
{
    ASSERT_TRUE(subscribe_and_wait({"asks"}));
    RawPeer(m_bus.address()).emit("asks", "");
    ASSERT_TRUE(serve_until([] { return !s_received.empty(); }));
    m_bus.kill();
    ASSERT_TRUE(serve_until_away());
    ASSERT_TRUE(m_bus.start());
    ASSERT_TRUE(serve_until_back());
    EXPECT_EQ(orvex_send_response(m_broker.get(), 0, s_received[0].id, "", 0), -1);
}

TEST_F(ExchangeAway, ANameTakenMeanwhileIsWaitedFor)
{
    m_bus.kill();
    ASSERT_TRUE(serve_until_away());
    ASSERT_TRUE(m_bus.start());
    auto usurper = std::make_unique<RawPeer>(m_bus.address(), "broker");
    capture_log();
    std::string log;
    ASSERT_TRUE(serve_until([&] {
        log += captured_log();
        capture_log();
        return log.find("is taken") != std::string::npos;
    }));
    captured_log();
    EXPECT_FALSE(can_send());
    usurper.reset();
    ASSERT_TRUE(serve_until_back());
    EXPECT_TRUE(RawPeer(m_bus.address()).is_there("broker"));
}

TEST_F(ExchangeAway, AnOutageIsTwoLinesInTheLog)
{
    capture_log();
    m_bus.kill();
    ASSERT_TRUE(serve_until_away());
    const auto end = steady_clock::now() + milliseconds{800}; // three attempts or so
    ASSERT_TRUE(serve_until([end] { return steady_clock::now() > end; }));
    ASSERT_TRUE(m_bus.start());
    ASSERT_TRUE(serve_until_back());
    const std::string log = captured_log();
    EXPECT_LE(std::count(log.begin(), log.end(), '\n'), 3) << log;
    EXPECT_NE(log.find("the exchange is gone"), std::string::npos);
    EXPECT_NE(log.find("back on the exchange"), std::string::npos);
}

TEST_F(ExchangeAway, AMuteBusIsWaitedForWithoutNewConnections)
{
    m_bus.kill();
    const MuteBus mute(m_bus.socket());
    ASSERT_TRUE(serve_until([&] { return mute.someone_connects(milliseconds{0}); }));
    const int connection = mute.accept();
    ASSERT_GE(connection, 0);
    const auto end = steady_clock::now() + milliseconds{1500};
    ASSERT_TRUE(serve_until([end] { return steady_clock::now() > end; }));
    EXPECT_FALSE(mute.someone_connects(milliseconds{0}));
    EXPECT_FALSE(can_send());
    ::close(connection);
    ASSERT_TRUE(serve_until([&] { return mute.someone_connects(milliseconds{0}); }))
        << "tried again when that fails";
}

TEST_F(ExchangeAway, AttemptsAreFurtherAndFurtherApartUpToFiveSeconds)
{
    m_bus.kill();
    const MuteBus mute(m_bus.socket());
    for (const int delay : {200, 400, 800, 1600, 3200, 5000}) {
        ASSERT_TRUE(serve_until([&] { return mute.someone_connects(milliseconds{0}); }));
        ::close(mute.accept());
        const auto failure = steady_clock::now();
        // Until then it is set to the time by which the bus should have answered.
        std::optional<milliseconds> left;
        ASSERT_TRUE(serve_until([&] {
            left = time_to_alarm();
            return left && *left < seconds{6};
        }));
        const auto seen = steady_clock::now();
        EXPECT_LE(*left, milliseconds{delay});
        EXPECT_GT(*left + (seen - failure), milliseconds{delay - 10});
    }
}

TEST_F(ExchangeAway, NothingIsDoneWhileNothingHappens)
{
    ASSERT_TRUE(subscribe_and_wait({"x"}));
    EXPECT_FALSE(is_readable(orvex_get_fd(m_broker.get()), milliseconds{500}));
}

TEST_F(ExchangeAway, WithoutReconnectionTheEndIsReported)
{
    m_broker.reset();
    m_broker = join("broker", 0);
    ASSERT_NE(m_broker, nullptr);
    RawPeer agent(m_bus.address(), "orvagent");
    ASSERT_EQ(request("x"), 0);
    m_bus.kill();
    ASSERT_TRUE(is_readable(orvex_get_fd(m_broker.get()), seconds{10}));
    EXPECT_EQ(orvex_read_fd(m_broker.get()), -1);
    EXPECT_EQ(m_answers.all.size(), 1U);
    ASSERT_TRUE(m_bus.start());
    EXPECT_FALSE(is_readable(orvex_get_fd(m_broker.get()), milliseconds{500}));
    EXPECT_EQ(orvex_read_fd(m_broker.get()), -1);
}

TEST_F(ExchangeAway, NoCallBlocksOnABusThatHangs)
{
    rejoin_with_request_time(milliseconds{300});
    m_bus.suspend();
    const auto start = steady_clock::now();
    const std::string data(kOrvexMaxPayload / 16, 'x');
    std::size_t accepted = 0;
    while (accepted < 1000 && request("x", data) == 0)
        ++accepted;
    EXPECT_GE(accepted, 31U) << "8 MiB are held";
    EXPECT_LT(accepted, 40U) << "and not much more";
    EXPECT_EQ(orvex_send_message(m_broker.get(), "x", data.data(), data.size()), -1);
    EXPECT_EQ(subscribe({"a", "b"}), 0);
    EXPECT_EQ(orvex_read_fd(m_broker.get()), 0);
    EXPECT_LT(steady_clock::now() - start, seconds{5});
    ASSERT_TRUE(serve_until([&] { return m_answers.all.size() == accepted; })) << "they time out";
    EXPECT_EQ(m_answers.all[0].data, "timed out");

    m_bus.resume();
    RawPeer peer(m_bus.address());
    ASSERT_TRUE(serve_until([&] { return can_send(); }));
    m_broker.reset();
}

TEST_F(ExchangeAway, LeavingABusThatHangsDoesNotBlock)
{
    m_bus.suspend();
    ASSERT_EQ(request("x", std::string(kOrvexMaxPayload, 'x')), 0);
    const auto start = steady_clock::now();
    m_broker.reset();
    EXPECT_LT(steady_clock::now() - start, seconds{2});
}

TEST_F(ExchangeAway, JoiningWithoutTheDescriptorsItTakesFailsWithALine)
{
    for (const long call : {SYS_epoll_create1, SYS_timerfd_create, SYS_epoll_ctl}) {
        const Outcome outcome = in_child([call]() -> int {
            REQUIRE(refuse_calls({{call, EMFILE}}));
            return join("other") == nullptr ? 0 : 1;
        });
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_EQ(
            logged(outcome.err),
            std::vector<std::string>{"1 cannot set up the exchange's descriptors: Too many open files"});
    }
}

TEST_F(ExchangeAway, JoiningWithoutASocketFailsWithALine)
{
    const Outcome outcome = in_child([]() -> int {
        REQUIRE(refuse_calls({{kSocketCall, EMFILE}, {SYS_socket, EMFILE}}));
        return join("other", /*auto_reconnect=*/0) == nullptr ? 0 : 1;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(logged(outcome.err),
              std::vector<std::string>{"1 cannot reach the exchange: Too many open files"});
}

TEST_F(ExchangeAway, WhatTheKernelRefusesMeanwhileIsALineAndNothingElse)
{
    const Outcome outcome = in_child([this]() -> int {
        const OrvexPtr other = join("other");
        REQUIRE(other);
        REQUIRE(refuse_calls({{kTimerCall, EINVAL}, {kWideTimerCall, EINVAL}, {SYS_epoll_ctl, EINVAL}}));
        m_bus.suspend();
        const std::string data(kOrvexMaxPayload, 'x'); // more than the socket takes
        REQUIRE(orvex_send_request(other.get(), "broker:x", data.data(), data.size(), Answers::take,
                                   &m_answers) == 0);
        m_bus.resume();
        return 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(logged(outcome.err),
              (std::vector<std::string>{"0 cannot watch the exchange's socket: Invalid argument",
                                        "0 cannot set the exchange's timer: Invalid argument"}));
}

TEST_F(ExchangeAway, AChildThatKeepsTheSocketDoesNotKeepTheLoopBusy)
{
    const pid_t child = fork();
    if (child == 0) {
        pause();
        _exit(0);
    }
    m_bus.kill();
    ASSERT_TRUE(serve_until_away());
    int passes = 0;
    for (const auto end = steady_clock::now() + milliseconds{500}; steady_clock::now() < end; ++passes) {
        if (is_readable(orvex_get_fd(m_broker.get()), milliseconds{50})) {
            EXPECT_EQ(orvex_read_fd(m_broker.get()), 0);
        }
    }
    EXPECT_LT(passes, 30);
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}

TEST_F(ExchangeAway, ReconnectingToABusThatHangsDoesNotBlock)
{
    m_bus.kill();
    ASSERT_TRUE(serve_until_away());
    ASSERT_TRUE(m_bus.start());
    m_bus.suspend();
    const auto start = steady_clock::now();
    auto longest = steady_clock::duration::zero();
    int wakeups = 0;
    while (steady_clock::now() - start < milliseconds{1000}) {
        wakeups += is_readable(orvex_get_fd(m_broker.get()), milliseconds{50}) ? 1 : 0;
        const auto before = steady_clock::now();
        EXPECT_EQ(orvex_read_fd(m_broker.get()), 0);
        EXPECT_FALSE(can_send());
        longest = std::max(longest, steady_clock::now() - before);
    }
    EXPECT_LT(longest, milliseconds{500});
    EXPECT_LT(wakeups, 20) << "it waits, and does not spin";
    m_bus.resume();
    EXPECT_TRUE(serve_until_back());
}

} // namespace
