// Messages that are not held as a whole: what their headers say, and what becomes of them.

#include "exchange_support.h"
#include "frame.h"

#include <dbus/dbus.h>

#include <algorithm>
#include <array>
#include <random>
#include <string>
#include <vector>

using namespace orv::exchange;

namespace {

std::string header_of(DBusMessage& message)
{
    const std::string bytes = marshalled(message);
    return bytes.substr(0, frame_size(bytes.data())->header);
}

FrameHeader read(const std::string& header)
{
    // A copy of exactly its size: a sanitizer sees what reads beyond it.
    const std::vector<char> bytes(header.begin(), header.end());
    return read_frame_header(bytes.data(), bytes.size());
}

RawMessage call_from(const char* sender)
{
    RawMessage call = raw_call("broker", "Request");
    add_text(*call, "name");
    add_bytes(*call, std::string(1000, 'x'));
    EXPECT_TRUE(dbus_message_set_sender(call.get(), sender));
    return call;
}

TEST(ExchangeFrame, TheSizeOfAMessageIsInItsFirstBytes)
{
    const RawMessage call = call_from(":1.7");
    const std::string bytes = marshalled(*call);
    const auto size = frame_size(bytes.data());
    ASSERT_TRUE(size);
    EXPECT_EQ(size->total, bytes.size());
    EXPECT_LT(size->header, bytes.size() - 1000);
    EXPECT_EQ(size->header % 8, 0U);
    EXPECT_TRUE(frame_size(std::string("B\1\0\1\0\0\0\0\0\0\0\1\0\0\0\0", 16).data()));
    EXPECT_EQ(frame_size(std::string("B\1\0\1\0\0\0\2\0\0\0\1\0\0\0\4", 16).data())->total, 26U);
    EXPECT_FALSE(frame_size(std::string("x\1\0\1\0\0\0\0\0\0\0\1\0\0\0\0", 16).data())) << "byte order";
    EXPECT_FALSE(frame_size(std::string("B\1\0\2\0\0\0\0\0\0\0\1\0\0\0\0", 16).data())) << "version";
    EXPECT_FALSE(frame_size(std::string("B\1\0\1\xff\0\0\0\0\0\0\1\0\0\0\0", 16).data())) << "body";
    EXPECT_FALSE(frame_size(std::string("B\1\0\1\0\0\0\0\0\0\0\1\0\1\0\1", 16).data())) << "fields";
}

TEST(ExchangeFrame, AHeaderTellsWhomToAnswer)
{
    const RawMessage call = call_from(":1.7");
    FrameHeader header = read(header_of(*call));
    EXPECT_EQ(header.type, DBUS_MESSAGE_TYPE_METHOD_CALL);
    EXPECT_TRUE(header.wants_reply);
    EXPECT_EQ(header.serial, 1U);
    EXPECT_EQ(header.reply_serial, 0U);
    EXPECT_STREQ(header.sender, ":1.7");
    EXPECT_STREQ(frame_header_of(*call).sender, ":1.7");
    EXPECT_TRUE(frame_header_of(*call).wants_reply);

    const RawMessage quiet = call_from(":1.7");
    dbus_message_set_no_reply(quiet.get(), TRUE);
    EXPECT_FALSE(read(header_of(*quiet)).wants_reply);

    const RawMessage reply = raw_reply(4711);
    header = read(header_of(*reply));
    EXPECT_EQ(header.type, DBUS_MESSAGE_TYPE_METHOD_RETURN);
    EXPECT_FALSE(header.wants_reply);
    EXPECT_EQ(header.reply_serial, 4711U);
    EXPECT_STREQ(header.sender, "");
    EXPECT_EQ(frame_header_of(*reply).reply_serial, 4711U);
}

TEST(ExchangeFrame, ASenderThatCannotBeWrittenToIsNone)
{
    for (const char* sender :
         {"org.freedesktop.DBus", ":1.7777777777777777777777777777777777777777777777777777777777777777"})
        EXPECT_STREQ(read(header_of(*call_from(sender))).sender, "") << sender;
    for (const char bad : {'\xff', '/', '.'}) {
        std::string header = header_of(*call_from(":1.7"));
        header[header.find(":1.7") + 1] = bad;
        EXPECT_STREQ(read(header).sender, "");
    }
}

TEST(ExchangeFrame, AHeaderThatIsCutOffOrDamagedIsReadToItsEndAtMost)
{
    const std::string whole = header_of(*call_from(":1.7"));
    for (std::size_t size = kFramePrefix; size < whole.size(); ++size)
        (void)read(whole.substr(0, size));
    std::mt19937 random(1);
    for (int i = 0; i < 20000; ++i) {
        std::string damaged = whole;
        for (int k = 0; k < 3; ++k)
            damaged[random() % damaged.size()] = static_cast<char>(random());
        const FrameHeader header = read(damaged);
        EXPECT_TRUE(*header.sender == '\0' || dbus_validate_bus_name(header.sender, nullptr));
    }
}

/// A bus that passes on more than the exchange's payloads.
class ExchangeLarge : public ExchangeTest {
protected:
    void SetUp() override
    {
        ExchangeTest::SetUp();
        m_broker.reset();
        m_bus.kill();
        m_bus.change_limit("max_message_size", "40000000");
        m_bus.change_limit("max_incoming_bytes", "100000000");
        m_bus.change_limit("max_outgoing_bytes", "100000000");
        ASSERT_TRUE(m_bus.start());
        m_broker = join("broker");
        ASSERT_NE(m_broker, nullptr);
    }
    const std::string m_large = std::string(std::size_t{20} * 1024 * 1024, 'x');
};

TEST_F(ExchangeLarge, ARequestIsRefusedWithOneLine)
{
    RawPeer peer(m_bus.address());
    testing::internal::CaptureStderr();
    const std::uint32_t serial = peer.call("broker", "Request", "large", m_large);
    (void)peer.call("broker", "Request", "good", "");
    ASSERT_TRUE(serve_until([] { return !s_received.empty(); }));
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(s_received[0].type, "good") << "what follows is read as ever";
    EXPECT_EQ(s_received.size(), 1U);
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 1) << log;
    EXPECT_NE(log.find("a message from " + peer.unique_name() + " is lost: too large"), std::string::npos)
        << log;
    const RawMessage refusal = peer.receive();
    EXPECT_EQ(reply_serial_of(refusal), serial);
    EXPECT_EQ(error_of(refusal), "net.orvane.Exchange1.Error.BadArguments");
}

TEST_F(ExchangeLarge, AnAnswerIsOneOfType2)
{
    RawPeer agent(m_bus.address(), "orvagent");
    ASSERT_EQ(request("x"), 0);
    agent.answer(*agent.receive(), "0", m_large);
    ASSERT_TRUE(serve_until([this] { return !m_answers.all.empty(); }));
    EXPECT_EQ(m_answers.all[0].type, "2");
    EXPECT_EQ(m_answers.all[0].data, "too large");
}

TEST_F(ExchangeLarge, AnEventIsDroppedWithOneLine)
{
    std::array<RawPeer, 3> peers{RawPeer(m_bus.address()), RawPeer(m_bus.address()),
                                 RawPeer(m_bus.address())};
    ASSERT_TRUE(subscribe_and_wait({"large", "small"}));
    testing::internal::CaptureStderr();
    for (RawPeer& peer : peers)
        peer.emit("large", m_large);
    peers.back().emit("small", "");
    ASSERT_TRUE(serve_until([] { return !s_received.empty(); }));
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(s_received[0].type, "small");
    EXPECT_EQ(std::count(log.begin(), log.end(), '\n'), 3) << log;
}

TEST_F(ExchangeLarge, AnOnlookerSaysNothingOfIt)
{
    int seen = 0;
    OrvexPtr monitor{
        orvex_monitor([&seen](const OrvexTraffic& t) { seen += t.name == "small" ? 1 : 0; }, false)};
    ASSERT_NE(monitor, nullptr);
    RawPeer peer(m_bus.address(), "peer");
    (void)peer.call("peer", "Request", "large", m_large);
    peer.emit("small", "");
    ASSERT_TRUE(::serve_until(monitor.get(), [&seen] { return seen == 1; }));
    EXPECT_EQ(orvex_read_fd(monitor.get()), 0) << "whoever looks on and speaks is shown the door";
    EXPECT_EQ(member_of(peer.receive()), "Request");
    EXPECT_EQ(error_of(peer.receive(std::chrono::milliseconds{100})), "");
}

} // namespace
