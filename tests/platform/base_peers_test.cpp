// Who is at the other end of a connection, and whether he may be.

#include "base_support.h"
#include "memory_support.h"

#include <orvutils/sockutl.h>

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <new>
#include <string>

namespace {

using orv::sockutl::AllowedUids;
using orv::sockutl::peer_uid;

constexpr uid_t kNobody = 65534;

TEST(PeerUid, IsTheUserWhoConnectedAndForHimTheOneWhoListens)
{
    const TemporaryRoot root;
    sockaddr_un local{};
    local.sun_family = AF_UNIX;
    (root.path() + "/socket").copy(local.sun_path, sizeof local.sun_path - 1);
    const auto* address = reinterpret_cast<const sockaddr*>(&local);
    const Fd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(listener, address, sizeof local), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    const uid_t listening = geteuid();
    // Only root can be somebody else.
    const uid_t connecting = listening == 0 ? kNobody : listening;
    const Fd client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(::chmod(root.path().c_str(), 0755), 0);
    ASSERT_EQ(::chmod(local.sun_path, 0777), 0);
    ASSERT_EQ(seteuid(connecting), 0);
    const int connected = connect(client, address, sizeof local);
    ASSERT_EQ(seteuid(listening), 0);
    ASSERT_EQ(connected, 0);
    const Fd server(accept(listener, nullptr, nullptr));
    EXPECT_EQ(peer_uid(server), connecting);
    EXPECT_EQ(peer_uid(client), listening);
}

TEST(PeerUid, CannotBeToldOfAnythingElse)
{
    const Ends pipe = make_pipe();
    const Fd unconnected(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const Fd network(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    for (const int fd : {-1, pipe.first.get(), unconnected.get(), network.get()})
        EXPECT_FALSE(peer_uid(fd)) << fd;
}

TEST(AllowedUids, EverybodyWithoutAList)
{
    for (const AllowedUids& allowed : {AllowedUids(), AllowedUids("")}) {
        EXPECT_TRUE(allowed.is_valid());
        EXPECT_TRUE(allowed.admit_everybody());
        EXPECT_TRUE(allowed.admit(1000));
        EXPECT_TRUE(allowed.admit(std::nullopt));
    }
}

TEST(AllowedUids, ThoseOfTheListRootAndOurOwn)
{
    const AllowedUids allowed("1001,1000,4294967294,1001");
    EXPECT_TRUE(allowed.is_valid());
    EXPECT_FALSE(allowed.admit_everybody());
    for (const uid_t uid : {uid_t{0}, geteuid(), uid_t{1000}, uid_t{1001}, uid_t{4294967294U}})
        EXPECT_TRUE(allowed.admit(uid)) << uid;
    for (const uid_t uid : {100U, 1002U, kNobody, 4294967295U})
        EXPECT_FALSE(allowed.admit(uid)) << uid;
    EXPECT_FALSE(allowed.admit(std::nullopt));
    EXPECT_FALSE(AllowedUids("0").admit(1000));
}

TEST(AllowedUids, NobodyElseThanRootAndOurOwnWhenTheListCannotBeRead)
{
    for (const char* list :
         {",", "1000,", ",1000", "1000,,1001", "1000, 1001", "1000;1001", "everybody", "-1", "+1000", "0x10",
          "1000\n", " ", "4294967295", "4294967296", "1000,99999999999999999999"}) {
        const AllowedUids allowed{std::string_view(list)};
        EXPECT_FALSE(allowed.is_valid()) << list;
        EXPECT_FALSE(allowed.admit_everybody()) << list;
        EXPECT_FALSE(allowed.admit(1000)) << list;
        EXPECT_TRUE(allowed.admit(0)) << list;
        EXPECT_TRUE(allowed.admit(geteuid())) << list;
    }
    EXPECT_FALSE(AllowedUids(std::string_view("1000\0,1", 7)).is_valid());
}

TEST(AllowedUids, WithoutMemoryAreNotMade)
{
    const FailingMemory memory(1, /*from_then_on=*/true);
    EXPECT_THROW(AllowedUids("1000"), std::bad_alloc);
}

} // namespace
