// orvexchanged, the script that serves the bus.

#include "exchange_support.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <regex>
#include <stdexcept>
#include <string>

namespace {

struct Outcome {
    int status = -1;
    std::string output;
};

Outcome run(const std::string& arguments)
{
    FILE* pipe = popen((std::string{ORVEXCHANGED} + " " + arguments + " 2>&1").c_str(), "re");
    if (!pipe)
        return {};
    Outcome outcome;
    std::array<char, 512> piece{};
    while (std::fgets(piece.data(), static_cast<int>(piece.size()), pipe) != nullptr)
        outcome.output += piece.data();
    const int status = pclose(pipe);
    outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return outcome;
}

std::string content_of(const std::string& path)
{
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::map<std::string, long> limits_in(const std::string& path)
{
    static const std::regex kLimit(R"re(<limit name="(\w+)">(\d+)</limit>)re");
    const std::string text = content_of(path);
    std::map<std::string, long> limits;
    for (std::sregex_iterator limit(text.begin(), text.end(), kLimit), end; limit != end; ++limit)
        limits[(*limit)[1]] = std::stol((*limit)[2]);
    return limits;
}

TEST(ExchangeScript, HelpsAndRefusesUnknownArguments)
{
    EXPECT_EQ(run("--help").status, 0);
    EXPECT_NE(run("--help").output.find("Usage:"), std::string::npos);
    EXPECT_EQ(run("--unknown").status, 2);
    EXPECT_NE(run("--unknown").output.find("'--unknown'"), std::string::npos);
}

TEST(ExchangeScript, ARootIsServedOnlyOnce)
{
    Bus bus;
    ASSERT_TRUE(bus.start());
    const Outcome second = run("");
    EXPECT_EQ(second.status, 1);
    EXPECT_NE(second.output.find("served already"), std::string::npos);
    RawPeer(bus.address()).sync(); // and the first one is none the worse
}

TEST(ExchangeScript, AStaleSocketIsReplaced)
{
    Bus bus;
    ASSERT_TRUE(bus.start());
    bus.kill();
    ASSERT_TRUE(std::filesystem::exists(bus.socket()));
    ASSERT_TRUE(bus.start());
    RawPeer(bus.address()).sync();
}

mode_t mode_of(const std::string& path)
{
    struct stat status {};
    return lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

TEST(ExchangeScript, WhatIsBelowRunIsItsOwnersAlone)
{
    Bus bus;
    const std::string run = bus.root() + "/run";
    std::filesystem::create_directory(run);
    ASSERT_EQ(chmod(run.c_str(), 0777), 0);
    const mode_t old_mask = umask(0);
    const bool is_served = bus.start();
    umask(old_mask);
    ASSERT_TRUE(is_served);
    EXPECT_EQ(mode_of(run), 0700U)
        << "so nobody else reaches the socket, whatever dbus-daemon makes of its mode";
    EXPECT_EQ(mode_of(run + "/exchange.lock"), 0600U);
    EXPECT_EQ(mode_of(run + "/exchange-private.conf"), 0600U);
}

TEST(ExchangeScript, RunMayBeMadeByAnotherProgramMeanwhile)
{
    Bus bus;
    const std::string quicker = bus.root() + "/bin/mkdir";
    std::filesystem::create_directory(bus.root() + "/bin");
    std::ofstream{quicker} << "#!/bin/sh\n/bin/mkdir -p \"$ORV_ROOT/run\"\nexec /bin/mkdir \"$@\"\n";
    std::filesystem::permissions(quicker, std::filesystem::perms::owner_all);
    const std::string path = std::getenv("PATH");
    setenv("PATH", (bus.root() + "/bin:" + path).c_str(), 1);
    EXPECT_TRUE(bus.start());
    setenv("PATH", path.c_str(), 1);
}

TEST(ExchangeScript, ADirectoryOfAnotherUserIsRefused)
{
    const Bus bus;
    const std::string directory = bus.root() + "/run";
    if (geteuid() == 0) {
        std::filesystem::create_directory(directory);
        ASSERT_EQ(chown(directory.c_str(), 65534, 65534), 0);
    } else {
        std::filesystem::create_directory_symlink("/usr", directory);
    }
    const Outcome outcome = run("");
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.output,
              "orvexchanged: " + directory + " belongs to another user; remove it, or run as that user\n");
    EXPECT_FALSE(std::filesystem::exists(bus.root() + "/run/exchange.lock"));
}

TEST(ExchangeScript, PlantedLinksAreNotFollowed)
{
    Bus bus;
    const std::string victim = bus.root() + "/victim";
    std::ofstream{victim} << "precious";
    ASSERT_EQ(chmod(victim.c_str(), 0644), 0);
    std::filesystem::create_directory(bus.root() + "/run");
    for (const char* name : {"exchange.lock", "exchange-private.conf", "exchange.skt"})
        std::filesystem::create_symlink(victim, bus.root() + "/run/" + name);
    ASSERT_TRUE(bus.start());
    EXPECT_EQ(content_of(victim), "precious");
    EXPECT_EQ(mode_of(victim), 0644U);
    EXPECT_TRUE(
        std::filesystem::is_regular_file(std::filesystem::symlink_status(bus.root() + "/run/exchange.lock")));
    bus.kill();
    std::filesystem::remove(bus.root() + "/run/exchange.lock");
    std::filesystem::create_hard_link(victim, bus.root() + "/run/exchange.lock");
    ASSERT_TRUE(bus.start());
    EXPECT_EQ(content_of(victim), "precious");
}

TEST(ExchangeScript, AnUnusualRootIsServedToo)
{
    Bus outer;
    const std::string root = outer.root() + "/a <b>&'c\" \xc3\xa9%";
    setenv("ORV_ROOT", root.c_str(), 1);
    ASSERT_TRUE(outer.start());
    const OrvexPtr orvex{orvex_init_eventloop(
        "x", [](const Message*) {}, 0, 0)};
    EXPECT_NE(orvex, nullptr);
}

TEST(ExchangeScript, AnInstalledConfigurationIsUsed)
{
    Bus bus;
    std::filesystem::create_directories(bus.root() + "/etc");
    std::ofstream{bus.root() + "/etc/exchange.conf"}
        << "<busconfig><type>session</type><auth>EXTERNAL</auth><listen>unix:path=" << bus.root()
        << "/other.skt</listen>"
        << R"(<policy context="default"><allow send_destination="*"/><allow receive_sender="*"/></policy></busconfig>)";
    ASSERT_TRUE(bus.start());
    EXPECT_FALSE(std::filesystem::exists(bus.socket()));
    EXPECT_FALSE(std::filesystem::exists(bus.root() + "/run/exchange-private.conf"));
    RawPeer("unix:path=" + bus.root() + "/other.skt").sync();
}

TEST(ExchangeScript, TheInstalledConfigurationHasTheLimitsOfThePrivateOne)
{
    Bus bus;
    ASSERT_TRUE(bus.start());
    const auto limits = limits_in(bus.root() + "/run/exchange-private.conf");
    EXPECT_EQ(limits, limits_in(INSTALLED_CONFIGURATION));
    ASSERT_EQ(limits.count("reply_timeout"), 1U);
    EXPECT_GT(limits.at("reply_timeout"), 60000) << "more than the participants' own";
}

TEST(ExchangeScript, OnlyNamesOfTheExchangeCanBeOwned)
{
    Bus bus;
    ASSERT_TRUE(bus.start());
    RawPeer peer(bus.address(), "anyone");
    EXPECT_TRUE(peer.is_there("anyone"));
    EXPECT_FALSE(peer.claim("com.example.Elsewhere"));
}

// ---- what the bus bounds

class BusBounds : public ExchangeTest {};

TEST_F(BusBounds, WhoReadsNothingHasThreeOfTheLargestEventsHeldAndTheirSenderGoesOn)
{
    constexpr std::size_t kEvents = 10;
    const std::string large((std::size_t{4} << 20) - 4, 'x');
    ASSERT_TRUE(subscribe_and_wait({"large", "last"}));
    RawPeer sender(m_bus.address(), "sender");
    for (std::size_t i = 0; i < kEvents; ++i) {
        sender.emit("large", large);
        sender.sync(); // it is read from
    }
    ASSERT_TRUE(serve_until([] { return s_received.size() >= 2; }));
    bool is_over = false;
    for (int i = 0; i < 5 && !is_over; ++i) { // it is held, too, once there is room
        sender.emit("last", "");
        is_over = serve_until([] { return s_received.back().type == "last"; });
    }
    EXPECT_TRUE(is_over);
    EXPECT_EQ(s_received.size() - 1, 3U);
}

TEST_F(BusBounds, NobodyPassesADescriptor)
{
    ASSERT_TRUE(subscribe_and_wait({"after"}));
    RawPeer sender(m_bus.address(), "sender");
    const auto pass_descriptor = [&] {
        const RawMessage message = raw_signal("Event");
        add_descriptor(*message, STDERR_FILENO);
        sender.send(message);
        sender.sync();
    };
    EXPECT_THROW(pass_descriptor(), std::runtime_error);
    RawPeer(m_bus.address(), "other").emit("after", "{}");
    EXPECT_TRUE(serve_until([] { return s_received.size() == 1; }));
}

TEST(ExchangeScript, AConnectionThatDoesNotSayWhoItIsEnds)
{
    Bus bus;
    ASSERT_TRUE(bus.start());
    bus.kill();
    bus.change_limit("auth_timeout", "300"); // of 5000, so that nobody has to wait for it
    ASSERT_TRUE(bus.start());
    const auto start = std::chrono::steady_clock::now();
    const int half_open = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    bus.socket().copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(connect(half_open, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(write(half_open, "\0AUTH\r\n", 7), 7);
    char byte = 0;
    bool has_ended = false;
    while (!has_ended && is_readable(half_open, kPatience)) // it says how one may tell who one is
        has_ended = read(half_open, &byte, 1) <= 0;
    EXPECT_TRUE(has_ended);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(4));
    close(half_open);
}

} // namespace
