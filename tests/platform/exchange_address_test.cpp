// Where the exchange is.

#include "base_support.h"

#include <orvexchange/address.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>

namespace {

TEST(ExchangeAddress, IsASocketBelowTheRootUnlessTheEnvironmentSaysOtherwise)
{
    const TemporaryRoot root;
    unsetenv("ORVEX_ADDRESS");
    EXPECT_EQ(orvex_address(), "unix:path=" + root.path() + "/run/exchange.skt");
    setenv("ORVEX_ADDRESS", "", 1);
    EXPECT_EQ(orvex_address(), "unix:path=" + root.path() + "/run/exchange.skt");
    setenv("ORVEX_ADDRESS", "tcp:host=elsewhere", 1);
    EXPECT_EQ(orvex_address(), "tcp:host=elsewhere");
    unsetenv("ORVEX_ADDRESS");
}

TEST(ExchangeAddress, EscapesTheRootAndItsPathComesBack)
{
    const TemporaryRoot root;
    const std::string odd = root.path() + "/a b,c;d%e=\xc3\xa4";
    setenv("ORV_ROOT", odd.c_str(), 1);
    EXPECT_EQ(orvex_address(), "unix:path=" + root.path() + "/a%20b%2cc%3bd%25e%3d%c3%a4/run/exchange.skt");
    EXPECT_EQ(orvex_socket_path(orvex_address()), odd + "/run/exchange.skt");
}

TEST(ExchangeAddress, HasTheSocketOfItsFirstEntry)
{
    EXPECT_EQ(orvex_socket_path("unix:path=/a"), "/a");
    EXPECT_EQ(orvex_socket_path("unix:path=/a%20b,guid=0123"), "/a b");
    EXPECT_EQ(orvex_socket_path("unix:path=/a;unix:path=/b"), "/a");
    for (const char* other :
         {"", "nonsense", "unix:abstract=/a", "tcp:host=localhost,port=1", "unix:path=/x%2",
          "unix:path=/x%zz", "launchd:path=/a", "tcp:host=a;unix:path=/b"})
        EXPECT_EQ(orvex_socket_path(other), std::nullopt) << other;
}

} // namespace
