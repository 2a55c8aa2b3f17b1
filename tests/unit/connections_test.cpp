// Client connections: framing in both directions, and what ends a connection.

#include "support/fixture.h"

#include "orvbrokerd.h"

#include <cerrno>
#include <cstring>

namespace orv::test {
namespace {

using brokerd::kBufferMaximumSize;
using brokerd::kMaxSendPerEvent;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

const std::string kStatusRequest = R"({"type":"command","name":"get_services_status"})";
const std::string kStatusAnswer = R"({"data": {"status": 1}, "status": 0})";
const std::string kUnknownRequest = R"({"type":"command","name":"no_such_command"})";
const std::string kUnknownAnswer = R"({"data": null, "status": 0})";
const std::string kFailingRequest = R"({"type":"command"})";
const std::string kFailingAnswer = R"({"data": null, "status": -1})";

class ClientConnection : public ServiceTest {
protected:
    [[nodiscard]] static std::string number(const Peer& peer) { return std::to_string(peer.conn->fd); }

    /// Queues a frame with that text the way exchange events do.
    void queue(Peer& peer, const std::string& text)
    {
        brokerd::queue_frame(peer.conn, text, brokerd::epollfd);
    }
};

// ---- requests

TEST_F(ClientConnection, AnswersALineWithALengthInNativeByteOrderAndTheText)
{
    Peer peer = connect();
    ASSERT_TRUE(receive(peer, kStatusRequest + "\n"));
    ASSERT_TRUE(handle(peer, EPOLLOUT));

    const std::uint32_t length = 36;
    std::string expected(sizeof length, '\0');
    std::memcpy(expected.data(), &length, sizeof length);
    EXPECT_EQ(peer.client.bytes(), expected + kStatusAnswer);
}

TEST_F(ClientConnection, TakesARequestThatArrivesByteByByte)
{
    Peer peer = connect();
    for (const char byte : kStatusRequest) {
        ASSERT_TRUE(receive(peer, std::string(1, byte)));
        ASSERT_EQ(watched_for(peer), unsigned{EPOLLIN});
    }
    ASSERT_TRUE(receive(peer, "\n"));
    EXPECT_TRUE(drain(peer));
    EXPECT_EQ(peer.client.frame(), kStatusAnswer);
}

TEST_F(ClientConnection, HandlesTheFirstOfTwoRequestsAtOnceAndTheSecondWhenMoreBytesCome)
{
    Peer peer = connect();
    ASSERT_TRUE(receive(peer, kStatusRequest + "\n" + kUnknownRequest + "\n"));
    ASSERT_TRUE(drain(peer));
    EXPECT_EQ(peer.client.frame(), kStatusAnswer);
    EXPECT_EQ(peer.client.bytes(), "");

    ASSERT_TRUE(receive(peer, "{"));
    ASSERT_TRUE(drain(peer));
    EXPECT_EQ(peer.client.frame(), kUnknownAnswer);
    EXPECT_EQ(peer.client.bytes(), "");
}

TEST_F(ClientConnection, NeverProcessesARequestWithoutItsNewline)
{
    Peer peer = connect();
    ASSERT_TRUE(receive(peer, kStatusRequest));
    ASSERT_TRUE(handle(peer, EPOLLOUT));
    EXPECT_EQ(peer.client.bytes(), "");

    peer.client.close();
    EXPECT_FALSE(handle(peer, EPOLLIN));
    EXPECT_THAT(platform->take_logs(),
                Not(Contains(lines({{2, "process get_services_status command"}}).front())));
}

TEST_F(ClientConnection, TakesALineOfManyBuffersLength)
{
    Peer peer = connect();
    const std::string padding(100000, ' ');
    ASSERT_TRUE(receive_all(peer, padding + kStatusRequest + padding));
    ASSERT_TRUE(receive_all(peer, "\n"));
    ASSERT_TRUE(drain(peer));
    EXPECT_EQ(peer.client.frame(), kStatusAnswer);
}

TEST_F(ClientConnection, EndsWhenALineFillsTheReceiveBuffer)
{
    Peer peer = connect();
    const std::string part(65536, ' ');
    std::size_t sent = 0;
    while (receive_all(peer, part))
        ASSERT_LE(sent += part.size(), kBufferMaximumSize);
    EXPECT_GE(sent, kBufferMaximumSize - part.size());
    EXPECT_TRUE(peer.client.is_closed());
}

TEST_F(ClientConnection, EndsWithoutAnAnswerOnALineThatIsNoRequest)
{
    struct Case {
        std::string line;
        std::string logged;
    };
    const Case cases[] = {
        {"", "failed to load json: "},
        {"hello", "failed to load json: hello"},
        {"{", "failed to load json: {"},
        {R"({"type":"command"} trailing)", R"(failed to load json: {"type":"command"} trailing)"},
        {"17", "failed to load json: 17"},
        {"{\"type\":\"\xff\"}", "failed to load json: {\"type\":\"\xff\"}"},
        {std::string(3000, '['), "failed to load json: " + std::string(3000, '[')},
        {"[]", "no 'type' field in json: []"},
        {"{}", "no 'type' field in json: {}"},
        {R"({"name":"va_start"})", R"(no 'type' field in json: {"name":"va_start"})"},
        {R"({"type":1})", R"('type' is not a valid string in json: {"type":1})"},
        {R"({"type":null})", R"('type' is not a valid string in json: {"type":null})"},
        {R"({"type":["command"]})", R"('type' is not a valid string in json: {"type":["command"]})"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.line.substr(0, 100));
        Peer peer = connect();
        const std::string fd = number(peer);
        forget_records();
        EXPECT_FALSE(receive(peer, c.line + "\n"));
        EXPECT_EQ(platform->take_logs(),
                  lines({{4, "received event on client socket " + fd}, {0, c.logged}}));
        EXPECT_EQ(peer.client.bytes(), "");
        EXPECT_TRUE(peer.client.is_closed());
    }
}

TEST_F(ClientConnection, AnswersARequestItCannotServeWithStatusMinusOneAndThenEnds)
{
    for (const char* line : {
             R"({"type":"command"})",
             R"({"type":"command","name":7})",
             R"({"type":"command","name":null})",
             R"({"type":"question","name":"get_services_status"})",
             R"({"type":"","name":"get_services_status"})",
             R"({"type":"Command","name":"get_services_status"})",
             R"({"type":"question"})",
         }) {
        SCOPED_TRACE(line);
        Peer peer = connect();
        ASSERT_TRUE(receive(peer, std::string(line) + "\n"));
        EXPECT_TRUE(is_connected(peer));
        EXPECT_FALSE(drain(peer));
        EXPECT_EQ(peer.client.frame(), kFailingAnswer);
        EXPECT_TRUE(peer.client.is_closed());
    }
}

TEST_F(ClientConnection, StaysOpenAfterAnAnswerWithStatusZero)
{
    Peer peer = connect();
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(ask(peer, kUnknownRequest), kUnknownAnswer);
    EXPECT_TRUE(is_connected(peer));
    EXPECT_FALSE(peer.client.is_closed());
}

TEST_F(ClientConnection, HandlesARequestAndWritesItsAnswerInOneEventThatHasBoth)
{
    Peer peer = connect();
    peer.client.send(kStatusRequest + "\n");
    ASSERT_TRUE(handle(peer, EPOLLIN | EPOLLOUT));
    EXPECT_EQ(peer.client.frame(), kStatusAnswer);
    EXPECT_EQ(watched_for(peer), unsigned{EPOLLIN});
}

TEST_F(ClientConnection, DoesNothingForAnEventThatIsNeitherReadableNorWritable)
{
    Peer peer = connect();
    forget_records();
    EXPECT_TRUE(handle(peer, EPOLLHUP));
    EXPECT_TRUE(handle(peer, EPOLLERR));
    EXPECT_TRUE(handle(peer, 0));
    EXPECT_TRUE(platform->take_calls().empty());
    EXPECT_EQ(platform->take_logs().size(), 3U);
}

TEST_F(ClientConnection, ReadsOncePerReadableEvent)
{
    Peer peer = connect();
    forget_records();
    ASSERT_TRUE(receive(peer, std::string(100000, ' ')));
    EXPECT_THAT(platform->take_calls(), ElementsAre("recv(client1)"));
}

TEST_F(ClientConnection, GoesOnWhenThereWasNothingToReadAfterAll)
{
    Peer peer = connect();
    EXPECT_TRUE(handle(peer, EPOLLIN));
    platform->fail("recv(", 1, EAGAIN);
    EXPECT_TRUE(receive(peer, kStatusRequest + "\n"));
    EXPECT_TRUE(handle(peer, EPOLLIN));
    EXPECT_TRUE(drain(peer));
    EXPECT_EQ(peer.client.frame(), kStatusAnswer);
}

TEST_F(ClientConnection, EndsOnAReceiveErrorWithoutALine)
{
    Peer peer = connect();
    platform->fail("recv(", 1, ECONNRESET);
    const std::string fd = number(peer);
    EXPECT_FALSE(receive(peer, kStatusRequest + "\n"));
    EXPECT_EQ(platform->take_logs(), lines({{4, "received event on client socket " + fd}}));
}

TEST_F(ClientConnection, EndsOnTheReadableEventWhenItsClientGoesWhileAnAnswerIsPending)
{
    Peer peer = connect();
    ASSERT_TRUE(receive(peer, kStatusRequest + "\n"));
    peer.client.shut_down_writing();
    forget_records();
    EXPECT_FALSE(handle(peer, EPOLLIN | EPOLLOUT));
    EXPECT_THAT(platform->take_calls(),
                ElementsAre("recv(client1)", "epoll_ctl(DEL, client1)", "close(client1)"));
    EXPECT_EQ(peer.client.bytes(), "");
    EXPECT_TRUE(peer.client.is_closed());
}

TEST_F(ClientConnection, EndsWhenThereIsNoMemoryToTakeItsRequestOut)
{
    Peer peer = connect();
    platform->fail_memory("throwing new");
    EXPECT_FALSE(receive(peer, kStatusRequest + "\n"));
    EXPECT_TRUE(platform->memory_failed("throwing new"));
    EXPECT_TRUE(peer.client.is_closed());
    EXPECT_EQ(peer.client.bytes(), "");
}

// ---- answers

TEST_F(ClientConnection, IsWatchedForWritingOnlyWhileSomethingIsPending)
{
    Peer peer = connect();
    EXPECT_EQ(watched_for(peer), unsigned{EPOLLIN});
    ASSERT_TRUE(receive(peer, kStatusRequest + "\n"));
    EXPECT_EQ(watched_for(peer), unsigned{EPOLLIN | EPOLLOUT});
    ASSERT_TRUE(handle(peer, EPOLLOUT));
    EXPECT_EQ(watched_for(peer), unsigned{EPOLLIN});
}

TEST_F(ClientConnection, WritesNoMoreThanSixteenKibibytesPerWritableEvent)
{
    Peer peer = connect();
    const std::string text(40000, 'x');
    queue(peer, text);
    forget_records();

    std::string received;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(watched_for(peer), unsigned{EPOLLIN | EPOLLOUT});
        ASSERT_TRUE(handle(peer, EPOLLOUT));
        const std::string part = peer.client.bytes();
        EXPECT_LE(part.size(), std::size_t{kMaxSendPerEvent});
        received += part;
    }
    EXPECT_EQ(received, framed(text));
    EXPECT_THAT(platform->take_calls(), ElementsAre("send(client1, 16384)", "send(client1, 16384)",
                                                    "send(client1, 7236)", "epoll_ctl(MOD, client1, IN)"));
}

TEST_F(ClientConnection, StaysWatchedForWritingWhileItsClientDoesNotRead)
{
    Peer peer = connect();
    queue(peer, std::string(1000000, 'x'));
    platform->fail_from("send(", 1, EAGAIN);
    for (int i = 0; i < 10; ++i)
        ASSERT_TRUE(handle(peer, EPOLLOUT));
    EXPECT_EQ(watched_for(peer), unsigned{EPOLLIN | EPOLLOUT});
    EXPECT_EQ(peer.conn->tx.pending(), 1000004U);
}

TEST_F(ClientConnection, EndsOnASendError)
{
    Peer peer = connect();
    ASSERT_TRUE(receive(peer, kStatusRequest + "\n"));
    platform->fail("send(", 1, ECONNRESET);
    EXPECT_FALSE(handle(peer, EPOLLOUT));
}

TEST_F(ClientConnection, EndsWhenItsClientHasGoneBeforeTheAnswerIsWritten)
{
    Peer peer = connect();
    ASSERT_TRUE(receive(peer, kStatusRequest + "\n"));
    peer.client.close();
    EXPECT_FALSE(handle(peer, EPOLLOUT));
}

TEST_F(ClientConnection, SendsAFailureCompletelyBeforeItEnds)
{
    Peer peer = connect();
    queue(peer, std::string(40000, 'x')); // what is pending goes first
    ASSERT_TRUE(receive(peer, kFailingRequest + "\n"));
    EXPECT_TRUE(peer.conn->close_after_send);
    ASSERT_TRUE(handle(peer, EPOLLOUT));
    ASSERT_TRUE(handle(peer, EPOLLOUT));
    EXPECT_FALSE(handle(peer, EPOLLOUT));
    EXPECT_EQ(peer.client.frame(), std::string(40000, 'x'));
    EXPECT_EQ(peer.client.frame(), kFailingAnswer);
    EXPECT_TRUE(peer.client.is_closed());
}

TEST_F(ClientConnection, CutsAFrameShortWhenItsSendBufferIsFull)
{
    Peer peer = connect();
    const std::string text(kBufferMaximumSize + 1000, 'x');
    forget_records();
    queue(peer, text);
    EXPECT_EQ(peer.conn->tx.pending(), kBufferMaximumSize);
    EXPECT_TRUE(platform->take_logs().empty());

    queue(peer, "this does not fit at all");
    EXPECT_EQ(peer.conn->tx.pending(), kBufferMaximumSize);

    std::string received;
    while (watched_for(peer) & EPOLLOUT) {
        ASSERT_TRUE(handle(peer, EPOLLOUT));
        received += peer.client.bytes();
    }
    EXPECT_EQ(received, framed(text).substr(0, kBufferMaximumSize));
}

TEST_F(ClientConnection, EndsWhenThereIsNoMemoryForAllOfAFrame)
{
    Peer peer = connect();
    platform->fail_memory("realloc", 1, /*onwards=*/true);
    queue(peer, std::string(100000, 'x'));
    platform->fail_memory("realloc", 0);
    EXPECT_FALSE(handle(peer, EPOLLIN)) << "as if the client had gone";
    EXPECT_TRUE(peer.client.is_closed());
}

TEST_F(ClientConnection, PutsWhatFitsOfEachPieceWhenItsSendBufferIsNearlyFull)
{
    Peer peer = connect();
    const std::string filling(kBufferMaximumSize - 6, 'x');
    peer.conn->put(filling.data(), static_cast<unsigned>(filling.size()));
    brokerd::put_frame(peer.conn, "abcdef");
    EXPECT_EQ(peer.conn->tx.pending(), kBufferMaximumSize);

    std::string received;
    while (peer.conn->tx.pending() > 0) {
        ASSERT_TRUE(handle(peer, EPOLLOUT));
        received += peer.client.bytes();
    }
    EXPECT_EQ(received.substr(filling.size()), framed("abcdef").substr(0, 6));
}

TEST_F(ClientConnection, EndsWhenThereIsNoMemoryForAllOfItsAnswer)
{
    for (const std::string& request : {kStatusRequest, kFailingRequest}) {
        Peer peer = connect();
        ASSERT_TRUE(peer.conn->tx.init(16, 16)); // as if it could not grow
        ASSERT_TRUE(receive(peer, request + "\n"));
        EXPECT_TRUE(peer.client.is_closed()); // with nothing of the answer
        EXPECT_FALSE(handle(peer, EPOLLIN | EPOLLOUT));
    }
}

TEST_F(ClientConnection, QueuesAlsoWhileThereIsNoLoop)
{
    Peer peer = connect();
    forget_records();
    brokerd::queue_frame(peer.conn, "{}", -1);
    EXPECT_EQ(peer.conn->tx.pending(), 6U);
    EXPECT_TRUE(platform->take_calls().empty());
}

TEST_F(ClientConnection, IsWatchedAnewWhenEpollDoesNotKnowItAnyMore)
{
    Peer peer = connect();
    epoll_ctl(brokerd::epollfd, EPOLL_CTL_DEL, peer.conn->fd, nullptr);
    forget_records();
    queue(peer, "{}");
    EXPECT_THAT(platform->take_calls(),
                ElementsAre("epoll_ctl(MOD, client1, IN|OUT)", "epoll_ctl(ADD, client1, IN|OUT)"));
}

// ---- subscribers

TEST_F(ClientConnection, DiscardsWhatASubscriberSends)
{
    Peer peer = subscribe("anything");
    EXPECT_EQ(peer.conn->mode, brokerd::kSubscriberMode);
    ASSERT_TRUE(receive_all(peer, kStatusRequest + "\n" + kFailingRequest + "\nnot json\n" +
                                      std::string(10000, 'x')));
    EXPECT_EQ(peer.conn->rx.pending(), 0U);
    EXPECT_EQ(watched_for(peer), unsigned{EPOLLIN});
    EXPECT_EQ(peer.client.bytes(), "");
}

TEST_F(ClientConnection, DiscardsAtOnceWhatFollowsASubscriptionInTheSameSegment)
{
    Peer peer = connect();
    ASSERT_TRUE(receive(peer, "{\"type\":\"subscribe\",\"name\":\"x\"}\n" + kStatusRequest + "\n"));
    EXPECT_EQ(peer.conn->rx.pending(), 0U);
    ASSERT_TRUE(drain(peer));
    EXPECT_EQ(peer.client.frame(), kUnknownAnswer);
    EXPECT_EQ(peer.client.bytes(), "");
}

TEST_F(ClientConnection, TakesNoMoreMemoryHoweverMuchASubscriberSends)
{
    Peer peer = subscribe("anything");
    for (int i = 0; i < 100; ++i)
        ASSERT_TRUE(receive_all(peer, std::string(65536, 'x')));
    EXPECT_EQ(peer.conn->rx.pending(), 0U);
    EXPECT_LE(peer.conn->rx.capacity(), brokerd::kBufferInitialSize);
}

TEST_F(ClientConnection, OfASubscriberSaysWhatItUnsubscribesFromWhenItEnds)
{
    Peer peer = subscribe("anything");
    const std::string fd = number(peer);
    peer.client.close();
    EXPECT_FALSE(handle(peer, EPOLLIN));

    const fake::Logs logs = platform->take_logs();
    EXPECT_EQ(logs, lines({{4, "received event on client socket " + fd}, {2, "unsubscribe from anything"}}));
    EXPECT_EQ(logs.back().function, "unsubscribe");
    EXPECT_EQ(logs.back().file, "daemons/orvbrokerd/src/evhandler.cpp");
}

TEST_F(ClientConnection, OfASubscriberUnsubscribesOnEveryWayOfEnding)
{
    const auto was_unsubscribed = [this] {
        return testing::Value(platform->take_logs(),
                              Contains(lines({{2, "unsubscribe from anything"}}).front()));
    };
    Peer receiving = subscribe("anything");
    platform->fail("recv(");
    EXPECT_FALSE(receive(receiving, "x"));
    EXPECT_TRUE(was_unsubscribed());

    Peer sending = subscribe("anything");
    queue(sending, "{}");
    platform->fail("send(");
    EXPECT_FALSE(handle(sending, EPOLLOUT));
    EXPECT_TRUE(was_unsubscribed());

    Peer last_frame = subscribe("anything");
    last_frame.conn->close_after_send = true;
    queue(last_frame, "{}");
    EXPECT_FALSE(handle(last_frame, EPOLLOUT));
    EXPECT_EQ(last_frame.client.frame(), "{}");
    EXPECT_TRUE(was_unsubscribed());
}

} // namespace
} // namespace orv::test
