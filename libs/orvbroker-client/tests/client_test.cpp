// The client library against servers that behave and servers that do not.

#include "fake_server.h"

#include <orvbroker/client.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

namespace {

using namespace std::chrono_literals;
using orvbroker::Answer;
using orvbroker::Client;
using orvbroker::Error;

constexpr auto kGenerous = 20s;
constexpr auto kShort = 50ms;

void answer_once(int fd, std::string_view envelope)
{
    (void)receive_line(fd);
    send_frame(fd, envelope);
}

/// Runs one call against a server with the given script.
Error call(const std::function<void(int)>& script, Answer& answer, std::string_view data = "",
           std::chrono::milliseconds timeout = kGenerous)
{
    const FakeServer server(script);
    Client client;
    const Error error = client.connect(kGenerous, server.name());
    return error == Error::none ? client.call("do", data, answer, timeout) : error;
}

bool is_readable(int fd)
{
    pollfd watched{fd, POLLIN, 0};
    return ::poll(&watched, 1, 20000) == 1;
}

TEST(Quote, EscapesWhatJsonDemandsAndReplacesWhatIsNotUtf8)
{
    const std::vector<std::pair<std::string, std::string>> table{
        {"", R"("")"},
        {"plain /text", R"("plain /text")"},
        {"say \"\\\"", R"("say \"\\\"")"},
        {"a\nb\x01\x1f", R"("a\u000ab\u0001\u001f")"},
        {std::string("a\0b", 3), R"("a\u0000b")"},
        {"\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80", "\"\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80\""},
        {"\xff", "\"\xEF\xBF\xBD\""},
        {"\x80x", "\"\xEF\xBF\xBDx\""},
        {"\xc3", "\"\xEF\xBF\xBD\""},
        {"\xc0\xaf", "\"\xEF\xBF\xBD\xEF\xBF\xBD\""},
        {"\xed\xa0\x80", "\"\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\""},
        {"\xe0\x9f\xbf", "\"\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\""},
        {"\xf4\x90\x80\x80", "\"\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD\""},
    };
    for (const auto& [text, quoted] : table)
        EXPECT_EQ(orvbroker::quote(text), quoted);
}

TEST(Answer, IsTakenApartIntoDataAndStatus)
{
    Answer answer;
    ASSERT_TRUE(answer.parse(R"({"data": {"status": 7, "x": ", \"status\": 3}"}, "status": -1})"));
    EXPECT_EQ(answer.status(), -1);
    EXPECT_EQ(answer.data(), R"({"status": 7, "x": ", \"status\": 3}"})");
    EXPECT_EQ(answer.envelope(), R"({"data": {"status": 7, "x": ", \"status\": 3}"}, "status": -1})");
}

TEST(Answer, RefusesWhatIsNoEnvelopeAndStaysAsItWas)
{
    for (const char* text :
         {"", "{}", "null", R"({"data": null})", R"({"status": 0})", R"({"data": , "status": 0})",
          R"({"data": null, "status": })", R"({"data": null, "status": 0)", R"({"data": null, "status": 0}x)",
          R"({"data": null, "status": 1.5})", R"({"data": null, "status": 99999999999})",
          R"([{"data": null, "status": 0})"}) {
        Answer answer;
        ASSERT_TRUE(answer.parse(R"({"data": 5, "status": 2})"));
        EXPECT_FALSE(answer.parse(text)) << text;
        EXPECT_EQ(answer.data(), "5");
        EXPECT_EQ(answer.status(), 2);
    }
}

TEST(Connect, SaysNotRunningWhenNobodyListens)
{
    Client client;
    EXPECT_EQ(client.connect(kGenerous, "orvbroker-test-nobody"), Error::not_running);
    EXPECT_EQ(client.fd(), -1);
}

TEST(Connect, TimesOutAtAServerWhoseBacklogIsFull)
{
    const FakeServer server(nullptr, 0);
    std::vector<Client> clients(3);
    Error error = Error::none;
    for (auto& client : clients) {
        error = client.connect(kShort, server.name());
        if (error != Error::none)
            break;
    }
    EXPECT_EQ(error, Error::timed_out);
}

TEST(Connect, TellsWhoServes)
{
    const FakeServer server(nullptr);
    Client client;
    EXPECT_FALSE(client.server_uid());
    ASSERT_EQ(client.connect(kGenerous, server.name()), Error::none);
    EXPECT_EQ(client.server_uid(), ::geteuid());
    client.close();
    EXPECT_FALSE(client.server_uid());
}

TEST(Connect, RefusesANameThatNoSocketCanHave)
{
    Client client;
    EXPECT_EQ(client.connect(kGenerous, std::string(108, 'x')), Error::invalid_argument);
}

TEST(Call, SendsOneLineAndGivesTheAnswer)
{
    const auto echo = [](int fd) {
        const std::string line = receive_line(fd);
        send_frame(fd, R"({"data": )" + orvbroker::quote(line) + R"(, "status": 0})");
    };
    Answer answer;
    ASSERT_EQ(call(echo, answer), Error::none);
    EXPECT_EQ(answer.data(), orvbroker::quote(R"({"type": "command", "name": "do"})"));
    ASSERT_EQ(call(echo, answer, "{\n\"a\":\n1}\n"), Error::none);
    EXPECT_EQ(answer.data(), orvbroker::quote(R"({"type": "command", "name": "do", "data": { "a": 1} })"));
}

TEST(Call, GivesAFailedCommandAsAnAnswer)
{
    Answer answer;
    const auto fail = [](int fd) { answer_once(fd, R"({"data": null, "status": -1})"); };
    EXPECT_EQ(call(fail, answer), Error::none);
    EXPECT_EQ(answer.status(), -1);
    EXPECT_EQ(answer.data(), "null");
}

TEST(Call, PutsAnAnswerTogetherThatComesByteByByte)
{
    Answer answer;
    const auto drip = [](int fd) {
        (void)receive_line(fd);
        for (const char byte : frame(R"({"data": "abc", "status": 0})"))
            send_all(fd, std::string_view(&byte, 1));
    };
    ASSERT_EQ(call(drip, answer), Error::none);
    EXPECT_EQ(answer.data(), R"("abc")");
}

TEST(Call, SendsSeveralRequestsOnOneConnection)
{
    const FakeServer server([](int fd) {
        answer_once(fd, R"({"data": 1, "status": 0})");
        answer_once(fd, R"({"data": 2, "status": 0})");
    });
    Client client;
    Answer answer;
    ASSERT_EQ(client.connect(kGenerous, server.name()), Error::none);
    ASSERT_EQ(client.call("a", "", answer, kGenerous), Error::none);
    EXPECT_EQ(answer.data(), "1");
    ASSERT_EQ(client.call("b", "", answer, kGenerous), Error::none);
    EXPECT_EQ(answer.data(), "2");
}

TEST(Call, LosesTheConnectionWhenTheServerClosesInsteadOfAnswering)
{
    Answer answer;
    EXPECT_EQ(call([](int fd) { (void)receive_line(fd); }, answer), Error::connection_lost);
}

TEST(Call, LosesTheConnectionInTheMiddleOfAnAnswer)
{
    Answer answer;
    const auto half = [](int fd) {
        (void)receive_line(fd);
        send_all(fd, frame(R"({"data": 1, "status": 0})").substr(0, 8));
    };
    EXPECT_EQ(call(half, answer), Error::connection_lost);
}

TEST(Call, LosesTheConnectionWhenTheRequestCannotBeSentAnyMore)
{
    const FakeServer server([](int fd) { (void)fd; });
    Client client;
    Answer answer;
    ASSERT_EQ(client.connect(kGenerous, server.name()), Error::none);
    ASSERT_TRUE(is_readable(client.fd())); // its end
    EXPECT_EQ(client.call("a", "", answer, kGenerous), Error::connection_lost);
    EXPECT_EQ(client.fd(), -1);
}

TEST(Call, TimesOutAndClosesWhenNoAnswerComes)
{
    const FakeServer server([](int fd) {
        (void)receive_line(fd);
        (void)receive_line(fd);
    });
    Client client;
    Answer answer;
    ASSERT_EQ(client.connect(kGenerous, server.name()), Error::none);
    EXPECT_EQ(client.call("a", "", answer, kShort), Error::timed_out);
    EXPECT_EQ(client.fd(), -1);
    EXPECT_EQ(client.call("a", "", answer, kShort), Error::connection_lost);
}

TEST(Call, TimesOutWhenTheRequestIsNotRead)
{
    const FakeServer server([](int) {
        for (;;)
            ::pause();
    });
    Client client;
    Answer answer;
    ASSERT_EQ(client.connect(kGenerous, server.name()), Error::none);
    const std::string big(2U << 20U, '1');
    EXPECT_EQ(client.call("a", big, answer, kShort), Error::timed_out);
}

TEST(Call, SendsAndReceivesTheLargestRequestAndAnswer)
{
    const auto full = [](int fd) {
        (void)receive_line(fd);
        const std::string head = R"({"data": ")";
        const std::string tail = R"(", "status": 0})";
        send_frame(fd, head + std::string(orvbroker::kMaxFrameSize - head.size() - tail.size(), 'x') + tail);
    };
    const std::string frame_of_request = R"({"type": "command", "name": "do", "data": })"
                                         "\n";
    const std::string data(orvbroker::kMaxRequestSize - frame_of_request.size(), '1');
    Answer answer;
    ASSERT_EQ(call(full, answer, data), Error::none);
    EXPECT_EQ(answer.envelope().size(), orvbroker::kMaxFrameSize);
    EXPECT_EQ(call(full, answer, data + "1"), Error::invalid_argument);
}

TEST(Call, RefusesANulByteInTheData)
{
    Answer answer;
    EXPECT_EQ(call([](int fd) { (void)receive_line(fd); }, answer, std::string_view("1\0", 2)),
              Error::invalid_argument);
}

TEST(Call, TakesALengthBeyondTheBoundForAMalformedAnswer)
{
    Answer answer;
    const auto huge = [](int fd) {
        (void)receive_line(fd);
        send_all(fd,
                 std::string("\x01\x00\x40\x00", 4)); // 4 MiB and one byte, little-endian; more, big-endian
        (void)receive_line(fd);
    };
    EXPECT_EQ(call(huge, answer), Error::malformed_answer);
}

TEST(Call, TakesAnythingButAnEnvelopeForAMalformedAnswer)
{
    Answer answer;
    EXPECT_EQ(call([](int fd) { answer_once(fd, R"({"hello": 1})"); }, answer), Error::malformed_answer);
    EXPECT_EQ(call([](int fd) { answer_once(fd, ""); }, answer), Error::malformed_answer);
}

TEST(Subscribe, SendsOneLineAndThenReceivesEvents)
{
    const FakeServer server([](int fd) {
        const std::string line = receive_line(fd);
        send_frame(fd, R"({"data": null, "status": 0})");
        send_frame(fd, line);
        send_frame(fd, "{}");
        send_frame(fd, "");
        (void)receive_line(fd);
    });
    Client client;
    std::string event;
    ASSERT_EQ(client.connect(kGenerous, server.name()), Error::none);
    ASSERT_EQ(client.subscribe("news \"today\"", kGenerous), Error::none);
    ASSERT_EQ(client.next_event(event, kGenerous), Error::none);
    EXPECT_EQ(event, R"({"type": "subscribe", "name": "news \"today\""})");
    ASSERT_EQ(client.next_event(event), Error::none);
    EXPECT_EQ(event, "{}");
    ASSERT_EQ(client.next_event(event, kGenerous), Error::none);
    EXPECT_EQ(event, "");
    Answer answer;
    EXPECT_EQ(client.call("a", "", answer, kGenerous), Error::invalid_argument);
    EXPECT_EQ(client.next_event(event, 0ms), Error::timed_out);
}

TEST(Subscribe, ReportsARefusal)
{
    const FakeServer server([](int fd) { answer_once(fd, R"({"data": null, "status": -1})"); });
    Client client;
    ASSERT_EQ(client.connect(kGenerous, server.name()), Error::none);
    EXPECT_EQ(client.subscribe("x", kGenerous), Error::refused);
    EXPECT_EQ(client.fd(), -1);
}

TEST(NextEvent, ContinuesAHalfReceivedEventAfterATimeOut)
{
    int go[2];
    ASSERT_EQ(::pipe(go), 0);
    const FakeServer server([&go](int fd) {
        answer_once(fd, R"({"data": null, "status": 0})");
        send_all(fd, frame("abcde").substr(0, 6));
        wait_for_byte(go[0]);
        send_all(fd, "cde");
        (void)receive_line(fd);
    });
    Client client;
    std::string event = "untouched";
    ASSERT_EQ(client.connect(kGenerous, server.name()), Error::none);
    ASSERT_EQ(client.subscribe("x", kGenerous), Error::none);
    ASSERT_TRUE(is_readable(client.fd()));
    EXPECT_EQ(client.next_event(event, kShort), Error::timed_out);
    EXPECT_EQ(event, "untouched");
    ASSERT_EQ(::write(go[1], "x", 1), 1);
    EXPECT_EQ(client.next_event(event, kGenerous), Error::none);
    EXPECT_EQ(event, "abcde");
    ::close(go[0]);
    ::close(go[1]);
}

TEST(NextEvent, LosesTheConnectionWhenTheServerCloses)
{
    const FakeServer server([](int fd) { answer_once(fd, R"({"data": null, "status": 0})"); });
    Client client;
    std::string event;
    ASSERT_EQ(client.connect(kGenerous, server.name()), Error::none);
    ASSERT_EQ(client.subscribe("x", kGenerous), Error::none);
    EXPECT_EQ(client.next_event(event, kGenerous), Error::connection_lost);
    EXPECT_EQ(client.fd(), -1);
    EXPECT_EQ(client.next_event(event, kGenerous), Error::connection_lost);
}

TEST(Client, MovesItsConnectionAndClosesEachOnce)
{
    const FakeServer server([](int fd) { answer_once(fd, R"({"data": 1, "status": 0})"); });
    Client first;
    ASSERT_EQ(first.connect(kGenerous, server.name()), Error::none);
    const int fd = first.fd();
    {
        Client second(std::move(first));
        EXPECT_EQ(second.fd(), fd);
        Client third;
        third = std::move(second);
        Answer answer;
        EXPECT_EQ(third.call("a", "", answer, kGenerous), Error::none);
    }
    EXPECT_EQ(::fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(Message, IsThereForEveryError)
{
    for (const Error error :
         {Error::not_running, Error::not_permitted, Error::connection_lost, Error::timed_out,
          Error::malformed_answer, Error::refused, Error::invalid_argument, Error::system}) {
        EXPECT_STRNE(orvbroker::message(error), orvbroker::message(Error::none));
        EXPECT_STRNE(orvbroker::message(error), "unknown error");
    }
}

} // namespace
