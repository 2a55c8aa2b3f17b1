// The listening socket.

#include "support/fixture.h"

#include "sock.h"

#include <sys/socket.h>

namespace orv::test {
namespace {

using brokerd::close_server_socket;
using brokerd::create_server_socket;
using testing::ElementsAre;

class ListeningSocket : public PlatformTest {
protected:
    [[nodiscard]] std::string number() const { return std::to_string(platform->fd("server")); }
};

TEST_F(ListeningSocket, IsAnAbstractStreamSocketWithRoomForEightWaitingClients)
{
    const int fd = create_server_socket();
    ASSERT_GE(fd, 0);

    EXPECT_THAT(platform->take_calls(),
                ElementsAre("socket(UNIX, STREAM, 0)", "bind(server)", "listen(server, 8)"));
    Client client;
    client.connect();
    EXPECT_TRUE(client.is_open());
    EXPECT_EQ(close_server_socket(fd), 0);
}

TEST_F(ListeningSocket, IsBoundToTheNameWithoutTheColonAndWithoutAFile)
{
    const int fd = create_server_socket();
    sockaddr_un address = {};
    socklen_t length = sizeof address;
    ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);

    const std::string name(address.sun_path, length - offsetof(sockaddr_un, sun_path));
    EXPECT_EQ(name, std::string("\0orvbrokerd-1.3.skt", 19));
    EXPECT_EQ(close_server_socket(fd), 0);
}

TEST_F(ListeningSocket, LogsItsOpeningAndClosingEachWithAnEmptyLineAfterIt)
{
    const int fd = create_server_socket();
    EXPECT_EQ(close_server_socket(fd), 0);

    const fake::Logs logs = platform->take_logs();
    EXPECT_EQ(logs,
              lines({{3, "listening for connections on socket " + number() + " (:orvbrokerd-1.3.skt)\n"},
                     {3, "closing server socket " + number() + "\n"}}));
    EXPECT_EQ(logs.at(0).file, "daemons/orvbrokerd/src/sock.cpp");
    EXPECT_EQ(logs.at(0).function, "create_server_socket");
    EXPECT_EQ(logs.at(1).function, "close_server_socket");
}

TEST_F(ListeningSocket, WithoutASocketIsAFailureOfOneLine)
{
    platform->fail("socket(");
    EXPECT_EQ(create_server_socket(), -1);
    EXPECT_EQ(platform->take_logs(), lines({{0, "failed to create socket"}}));
    EXPECT_THAT(platform->take_calls(), ElementsAre("socket(UNIX, STREAM, 0)"));
}

TEST_F(ListeningSocket, ThatCannotBeBoundIsClosed)
{
    platform->fail("bind(");
    EXPECT_EQ(create_server_socket(), -1);
    EXPECT_EQ(platform->take_logs(),
              lines({{0, "failed to bind socket " + number() + " to :orvbrokerd-1.3.skt"},
                     {3, "closing server socket " + number() + "\n"}}));
    EXPECT_THAT(platform->take_calls(),
                ElementsAre("socket(UNIX, STREAM, 0)", "bind(server)", "close(server)"));
}

TEST_F(ListeningSocket, WhoseNameIsTakenCannotBeBoundAndLeavesTheOtherAlone)
{
    const int first = create_server_socket();
    platform->take_logs();

    EXPECT_EQ(create_server_socket(), -1);

    EXPECT_EQ(platform->take_logs(),
              lines({{0, "failed to bind socket " + number() + " to :orvbrokerd-1.3.skt"},
                     {3, "closing server socket " + number() + "\n"}}));
    Client client;
    client.connect();
    EXPECT_TRUE(client.is_open());
    EXPECT_EQ(close_server_socket(first), 0);
}

TEST_F(ListeningSocket, ThatCannotListenIsClosed)
{
    platform->fail("listen(");
    EXPECT_EQ(create_server_socket(), -1);
    EXPECT_EQ(platform->take_logs(), lines({{0, "failed to listen on socket " + number()},
                                            {3, "closing server socket " + number() + "\n"}}));
    EXPECT_THAT(platform->take_calls(),
                ElementsAre("socket(UNIX, STREAM, 0)", "bind(server)", "listen(server, 8)", "close(server)"));
}

TEST_F(ListeningSocket, TellsWhenItsClosingFails)
{
    const int fd = create_server_socket();
    platform->fail("close(server)");
    EXPECT_EQ(close_server_socket(fd), -1);
}

TEST_F(ListeningSocket, CanBeOpenedAgainAsSoonAsItIsClosed)
{
    for (int i = 0; i < 3; ++i) {
        const int fd = create_server_socket();
        EXPECT_GE(fd, 0);
        EXPECT_EQ(close_server_socket(fd), 0);
    }
}

} // namespace
} // namespace orv::test
