// Values: paths, socket and MAC addresses, error numbers.

#include "base_support.h"

#include <orvbase/error_number.h>
#include <orvutils/error.h>
#include <orvutils/memory.h>
#include <orvutils/path.h>
#include <orvutils/sockutl.h>

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <unordered_set>
#include <vector>

namespace {

using orv::sockutl::address;
using orv::sockutl::macaddr;

constexpr int kInvalidArgument = static_cast<int>(orv::Error::invalid_argument);

TEST(Path, SlashesCollapseAndDotsMeanNothing)
{
    const struct {
        const char* text;
        const char* normal;
    } table[] = {
        {"", ""},
        {"/", "/"},
        {"///", "/"},
        {"a", "a"},
        {"/a/b", "/a/b"},
        {"//a///b", "/a/b"},
        {"/a/b/", "/a/b"},
        {"a//", "a"},
        {"/a/./b", "/a/./b"},
        {"/a/../b", "/a/../b"},
    };
    for (const auto& row : table) {
        EXPECT_EQ(orv::path(row.text).str(), row.normal);
        EXPECT_EQ(orv::path(std::string(row.text)).str(), row.normal);
        EXPECT_STREQ(orv::path(row.text).c_str(), row.normal);
    }
}

TEST(Path, PiecesAreJoinedWithOneSlash)
{
    const struct {
        const char* left;
        const char* piece;
        const char* joined;
    } table[] = {
        {"/a", "b", "/a/b"}, {"/a/", "/b", "/a/b"}, {"/a", "b/c/", "/a/b/c"},
        {"/", "a", "/a"},    {"", "a", "a"},        {"", "/a", "/a"},
        {"/a", "", "/a"},    {"/", "/", "/"},       {"a", "//b//c", "a/b/c"},
    };
    for (const auto& row : table) {
        EXPECT_EQ((orv::path(row.left) / row.piece).str(), row.joined);
        orv::path changed(row.left);
        changed /= row.piece;
        EXPECT_EQ(changed, orv::path(row.joined));
    }
}

TEST(Path, EqualPathsAreThoseWithTheSamePieces)
{
    EXPECT_TRUE(orv::path("/a//b/") == orv::path("/a") / "b");
    EXPECT_TRUE(orv::path("/a") != orv::path("a"));
    const std::string text = orv::path("/tmp/subscription") / "refresh";
    EXPECT_EQ(text, "/tmp/subscription/refresh");
}

TEST(ErrorNumber, IsThatOfTheLastFailure)
{
    const Outcome outcome = in_child([] {
        if (orv::base::fail(orv::Error::timed_out) != -3 || orv::_get_orverrno() != 3)
            return 1;
        (void)address("127.0.0.1"); // a success leaves it as it is
        if (orv::_get_orverrno() != 3)
            return 2;
        orv::base::set_error(orv::Error::no_value);
        return orv::_get_orverrno() == 5 ? 0 : 3;
    });
    EXPECT_EQ(outcome.status, 0);
}

TEST(PtrDeleter, FreesWhatMallocGave)
{
    const std::unique_ptr<char, orv::PtrDeleter<char>> text(strdup("text"));
    EXPECT_STREQ(text.get(), "text");
}

TEST(Address, OfAnAbstractNameHasNoByteTooMany)
{
    address a(":orvbrokerd-1.3.skt");
    ASSERT_TRUE(a.is_valid());
    EXPECT_FALSE(a.is_v4());
    const std::string name("\0orvbrokerd-1.3.skt", 19);
    sockaddr* any = a;
    EXPECT_EQ(any->sa_family, AF_UNIX);
    EXPECT_EQ(static_cast<unsigned>(a), offsetof(sockaddr_un, sun_path) + name.size());
    EXPECT_EQ(std::memcmp(reinterpret_cast<sockaddr_un*>(any)->sun_path, name.data(), name.size()), 0);
    EXPECT_EQ(a.to_string(false), ":orvbrokerd-1.3.skt");
    EXPECT_EQ(a.to_string(true), "unix :orvbrokerd-1.3.skt");
}

TEST(Address, ServesBindAndConnect)
{
    address a((":orv-base-test-" + std::to_string(getpid())).c_str());
    const Fd server(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const Fd client(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(bind(server, a, a), 0);
    ASSERT_EQ(listen(server, 1), 0);
    EXPECT_EQ(connect(client, a, a), 0);
}

TEST(Address, OfASocketFileIsItsPath)
{
    address a("/run/some.skt");
    ASSERT_TRUE(a.is_valid());
    EXPECT_EQ(static_cast<unsigned>(a), offsetof(sockaddr_un, sun_path) + sizeof "/run/some.skt");
    EXPECT_EQ(a.to_string(false), "/run/some.skt");
    EXPECT_EQ(a.to_string(true), "unix /run/some.skt");
}

TEST(Address, NamesThatDoNotFitAreRefused)
{
    constexpr std::size_t kCapacity = sizeof(sockaddr_un::sun_path);
    const std::string name(kCapacity - 1, 'n');
    EXPECT_EQ(address(":" + name).to_string(false), ":" + name);
    EXPECT_EQ(static_cast<unsigned>(address(":" + name)), sizeof(sockaddr_un));
    EXPECT_FALSE(address(":" + name + "n").is_valid());
    const std::string path = "/" + name.substr(1);
    EXPECT_EQ(address(path).to_string(false), path);
    EXPECT_FALSE(address(path + "n").is_valid());
}

TEST(Address, OfInternetHostsIsReadInBothFamilies)
{
    address v4("192.168.1.20");
    ASSERT_TRUE(v4.is_v4());
    EXPECT_EQ(static_cast<unsigned>(v4), sizeof(sockaddr_in));
    EXPECT_EQ(reinterpret_cast<sockaddr_in*>(static_cast<sockaddr*>(v4))->sin_addr.s_addr,
              htonl(0xc0a80114U));
    EXPECT_EQ(v4.to_string(false), "192.168.1.20");
    EXPECT_EQ(v4.to_string(true), "inet 192.168.1.20");
    const address v6("FE80:0::1");
    ASSERT_TRUE(v6.is_valid());
    EXPECT_FALSE(v6.is_v4());
    EXPECT_EQ(static_cast<unsigned>(v6), sizeof(sockaddr_in6));
    EXPECT_EQ(v6.to_string(false), "fe80::1");
    EXPECT_EQ(v6.to_string(true), "inet6 fe80::1");
    EXPECT_EQ(address("::1").to_string(true), "inet6 ::1");
    EXPECT_EQ(address("::").to_string(false), "::");
}

TEST(Address, TextsThatAreNoneAreRefusedWithAnErrorNumber)
{
    for (const char* text : {"", ":", "host", "1.2.3", "1.2.3.256", "1.2.3.4.5", " 1.2.3.4", "1.2.3.4 ",
                             "1.2.3.4:80", "fe80::1%eth0", "fe80::1::2", "::name", "[::1]", "fe80"}) {
        orv::base::set_error(orv::Error::none);
        const address a(text);
        EXPECT_FALSE(a.is_valid()) << text;
        EXPECT_FALSE(a.is_v4()) << text;
        EXPECT_EQ(a.to_string(true), "") << text;
        EXPECT_EQ(static_cast<unsigned>(a), 0U) << text;
        EXPECT_EQ(orv::_get_orverrno(), kInvalidArgument) << text;
    }
    EXPECT_FALSE(address(static_cast<const char*>(nullptr)).is_valid());
    EXPECT_FALSE(address().is_valid());
}

TEST(Address, IsOrderedByFamilyAndThenByItsBytes)
{
    const std::vector<const char*> ordered = {"",        "/a",      "/b",           "1.2.3.4",
                                              "1.2.3.5", "9.0.0.0", "192.168.1.20", "200.0.0.1",
                                              "::1",     "fe80::1", "fe80::2"};
    for (std::size_t i = 0; i < ordered.size(); ++i)
        for (std::size_t j = 0; j < ordered.size(); ++j) {
            EXPECT_EQ(address(ordered[i]) < address(ordered[j]), i < j) << ordered[i] << " " << ordered[j];
            EXPECT_EQ(address(ordered[i]) == address(ordered[j]), i == j) << ordered[i] << " " << ordered[j];
        }
    EXPECT_TRUE(address(":a") != address(":ab"));
    EXPECT_TRUE(address(":a") < address(":ab"));
    const std::set<address> members = {address("::1"), address("0::1"), address("1.2.3.4"),
                                       address("1.2.3.4")};
    EXPECT_EQ(members.size(), 2U);
}

TEST(MacAddress, IsReadInEitherCaseAndWithEitherSeparator)
{
    for (const char* text : {"aa:bb:cc:00:0f:01", "AA:BB:CC:00:0F:01", "aA-Bb-cC-00-0f-01"}) {
        const macaddr mac(text);
        ASSERT_TRUE(mac.is_valid()) << text;
        EXPECT_EQ(mac.to_string(false), "aa:bb:cc:00:0f:01");
        EXPECT_EQ(mac.to_string(true), "AA:BB:CC:00:0F:01");
        EXPECT_EQ(mac, macaddr("aa:bb:cc:00:0f:01"));
        EXPECT_EQ(mac.bytes()[4], 0x0f);
    }
}

TEST(MacAddress, MalformedTextsAreRefused)
{
    for (const char* text :
         {"", ":", "aa:bb:cc:00:0f", "aa:bb:cc:00:0f:01:02", "aa:bb:cc:00:0f:0", "aa:bb:cc:00:0f:011",
          "aabbcc000f01", "aa:bb:cc:00:0f:0g", "aa:bb:cc-00:0f:01", "aa-bb-cc-00-0f:01", "aa.bb.cc.00.0f.01",
          " a:bb:cc:00:0f:01", "aa:bb:cc:00:0f:01 ", "+a:bb:cc:00:0f:01",
          "aa:bb:cc:00:0f:", "a:bb:cc:00:0f:011", "aa::bb:cc:0f:01x"}) {
        orv::base::set_error(orv::Error::none);
        const macaddr mac(text);
        EXPECT_FALSE(mac.is_valid()) << text;
        EXPECT_EQ(mac.to_string(false), "") << text;
        EXPECT_EQ(orv::_get_orverrno(), kInvalidArgument) << text;
    }
    EXPECT_FALSE(macaddr(static_cast<const char*>(nullptr)).is_valid());
    EXPECT_TRUE(macaddr("00:00:00:00:00:00").is_valid());
    EXPECT_NE(macaddr("00:00:00:00:00:00"), macaddr("none"));
}

TEST(MacAddress, CanBeAKey)
{
    const std::unordered_set<macaddr> hashed = {macaddr("aa:bb:cc:00:00:01"), macaddr("AA-BB-CC-00-00-01"),
                                                macaddr("aa:bb:cc:00:00:02")};
    EXPECT_EQ(hashed.size(), 2U);
    EXPECT_TRUE(macaddr("aa:bb:cc:00:00:01") < macaddr("aa:bb:cc:00:00:02"));
}

} // namespace
