// The main loop: what one pass asks of the system, who is served in which order, and what ends it.

#include "support/fixture.h"

#include "instants.h"
#include "orvbrokerd.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>
#include <memory>
#include <optional>
#include <vector>

namespace orv::test {
namespace {

using brokerd::g_connections;
using fake::Calls;
using fake::LogLine;
using testing::Contains;
using testing::ElementsAre;
using testing::IsSupersetOf;
using testing::Not;

const std::string kWait = "epoll_wait(8, 1000)";
const std::string kStatusRequest = "{\"type\":\"command\",\"name\":\"get_services_status\"}\n";

Calls operator+(Calls first, const Calls& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

/// What a pass does before waiting, when both descriptors are watched already.
const Calls kWatchAgain{"orvex_get_fd()", "epoll_ctl(MOD, exchange, IN)", "MonitoredKey::get_fd()",
                        "epoll_ctl(MOD, watch, IN)", kWait};
/// The same after a pass that handled something, and so has taken the settings watch out.
const Calls kWatchAfterEvents{"orvex_get_fd()",
                              "epoll_ctl(MOD, exchange, IN)",
                              "MonitoredKey::get_fd()",
                              "epoll_ctl(MOD, watch, IN)",
                              "epoll_ctl(ADD, watch, IN)",
                              kWait};
const Calls kEndOfPass{"epoll_ctl(DEL, watch)"};
/// What is asked whoever has connected.
const std::string kMayConnect = "setMgmt::getKey(/daemons/orvbrokerd/allowed_uids)";

class MainLoop : public PlatformTest {
protected:
    /// Runs the daemon to its end and splits what it did: before the loop, then one list per pass.
    void run()
    {
        EXPECT_EQ(run_daemon(), 0);
        m_passes.clear();
        m_passes.emplace_back();
        for (std::string& call : platform->take_calls()) {
            if (call == "orvex_get_fd()")
                m_passes.emplace_back();
            m_passes.back().push_back(std::move(call));
        }
        m_logs = platform->take_logs();
    }

    [[nodiscard]] const Calls& pass(std::size_t n) const { return m_passes.at(n); }

    /// What the n-th pass did after waiting.
    [[nodiscard]] Calls events_of(std::size_t n) const
    {
        const Calls& calls = m_passes.at(n);
        return {std::find(calls.begin(), calls.end(), kWait) + 1, calls.end()};
    }

    /// The lines between the start-up's and the shutdown's.
    [[nodiscard]] fake::Logs logs() const { return {m_logs.begin() + 2, m_logs.end() - 2}; }

    void connect(Client& client)
    {
        platform->on_wait([&] { client.connect(); });
    }

    [[nodiscard]] std::string number(const std::string& name) const
    {
        return std::to_string(platform->fd(name));
    }

    [[nodiscard]] brokerd::Connection* connection(const std::string& name) const
    {
        return g_connections.at(platform->fd(name));
    }

private:
    std::vector<Calls> m_passes;
    fake::Logs m_logs;
};

// ---- passes

TEST_F(MainLoop, WatchesTheExchangeAndTheSettingsAnewInEachPassAndIsSilentWhenIdle)
{
    for (int i = 0; i < 3; ++i)
        platform->on_wait([] {});
    run();

    EXPECT_THAT(pass(1), ElementsAre("orvex_get_fd()", "epoll_ctl(MOD, exchange, IN)",
                                     "epoll_ctl(ADD, exchange, IN)", "MonitoredKey::get_fd()",
                                     "epoll_ctl(MOD, watch, IN)", "epoll_ctl(ADD, watch, IN)", kWait));
    EXPECT_EQ(pass(2), kWatchAgain);
    EXPECT_EQ(pass(3), kWatchAgain);
    EXPECT_TRUE(logs().empty());
}

TEST_F(MainLoop, ServesARequestWithExactlyTheseCalls)
{
    Client client;
    connect(client);
    platform->on_wait([&] { client.send(kStatusRequest); });
    platform->on_wait([] {});
    platform->on_wait([&] { EXPECT_EQ(client.frame(), R"({"data": {"status": 1}, "status": 0})"); });
    run();

    EXPECT_EQ(events_of(1), (Calls{"accept(server)", kMayConnect, "epoll_ctl(MOD, client1, IN)",
                                   "epoll_ctl(ADD, client1, IN)"} +
                             kEndOfPass));
    const Calls request{"recv(client1)", "setMgmt::getKeyValue(/protection/enabled, \"1\")",
                        "epoll_ctl(MOD, client1, IN|OUT)"};
    const Calls answer{"send(client1, 40)", "epoll_ctl(MOD, client1, IN)"};
    EXPECT_EQ(pass(2), kWatchAfterEvents + request + kEndOfPass);
    EXPECT_EQ(pass(3), kWatchAfterEvents + answer + kEndOfPass);
    EXPECT_EQ(pass(4), kWatchAfterEvents);
    EXPECT_EQ(logs(), lines({{4, "new client socket " + number("client1") + " is connected"},
                             {4, "received event on client socket " + number("client1")},
                             {2, "process get_services_status command"},
                             {2, "last operation status is 0"},
                             {4, "received event on client socket " + number("client1")}}));
}

TEST_F(MainLoop, OnlyWarnsWhenASignalInterruptsTheWait)
{
    platform->on_wait_fail(EINTR);
    platform->on_wait([] {});
    run();

    EXPECT_TRUE(events_of(1).empty());
    EXPECT_EQ(pass(2), kWatchAgain);
    EXPECT_EQ(logs(), lines({{1, "waiting on epoll was interrupted by a signal"}}));
}

TEST_F(MainLoop, ShutsDownWhenWaitingFails)
{
    platform->on_wait_fail(EBADF);
    run();

    EXPECT_EQ(events_of(1).front(), "orvex_uninit()");
    EXPECT_EQ(events_of(1).back(), "MonitoredKey::cancel()");
    EXPECT_EQ(logs(), lines({{0, "failed to wait on epoll"}}));
}

TEST_F(MainLoop, GoesOnWithoutTheExchangesDescriptor)
{
    Client client;
    platform->fail("orvex_get_fd()");
    connect(client);
    run();

    EXPECT_THAT(pass(1), ElementsAre("orvex_get_fd()", "MonitoredKey::get_fd()", "epoll_ctl(MOD, watch, IN)",
                                     "epoll_ctl(ADD, watch, IN)", kWait, "accept(server)", kMayConnect,
                                     "epoll_ctl(MOD, client1, IN)", "epoll_ctl(ADD, client1, IN)",
                                     "epoll_ctl(DEL, watch)"));
    EXPECT_EQ(logs(), lines({{1, "failed to get orvex fd"},
                             {4, "new client socket " + number("client1") + " is connected"}}));
}

TEST_F(MainLoop, GoesOnWhenTheExchangesDescriptorCannotBeWatched)
{
    platform->fail("epoll_ctl(ADD, exchange");
    platform->on_wait([] {});
    platform->on_wait([] {});
    run();

    EXPECT_EQ(logs(), lines({{0, "failed to add orvex fd to epoll"}}));
    EXPECT_THAT(pass(2), Contains("epoll_ctl(ADD, exchange, IN)"));
}

TEST_F(MainLoop, WatchesTheExchangesNewDescriptorAfterAReconnection)
{
    platform->on_wait([&] { platform->renew_exchange_fd(); });
    platform->on_wait([&] { platform->deliver([] {}); });
    run();

    EXPECT_THAT(pass(2), IsSupersetOf({"epoll_ctl(ADD, exchange, IN)", "orvex_read_fd()"}));
}

TEST_F(MainLoop, GoesOnWithoutTheSettingsWatch)
{
    platform->fail_from("MonitoredKey::get_fd()");
    Client client;
    connect(client);
    run();

    EXPECT_THAT(pass(1), Not(Contains("epoll_ctl(MOD, watch, IN)")));
    EXPECT_THAT(pass(1), Not(Contains("epoll_ctl(DEL, watch)")));
    EXPECT_THAT(pass(1), Contains("accept(server)"));
}

TEST_F(MainLoop, SaysNothingWhenTheSettingsWatchCannotBeWatched)
{
    platform->fail_from("epoll_ctl(MOD, watch");
    platform->fail_from("epoll_ctl(DEL, watch");
    platform->on_wait([] {});
    run();
    EXPECT_TRUE(logs().empty());
}

TEST_F(MainLoop, IgnoresADescriptorThatNobodyOwns)
{
    platform->on_wait_give({{12345, EPOLLIN}});
    run();
    EXPECT_EQ(events_of(1), kEndOfPass);
    EXPECT_TRUE(logs().empty());
}

TEST_F(MainLoop, HandlesTheRestOfABatchBeforeItStops)
{
    Client client;
    connect(client);
    platform->on_wait_give({{"stop", EPOLLIN}, {"client1", EPOLLIN}},
                           [&] { client.send("{\"type\":\"command\",\"name\":\"pro_features_enable\"}\n"); });
    run();

    EXPECT_EQ(platform->settings["/protection/pro_features_enabled"], "1");
    EXPECT_THAT(events_of(2), Contains("orvex_uninit()"));
}

TEST_F(MainLoop, TakesNoMoreThanEightDescriptorsPerWaitAndTheOthersInTheNextPass)
{
    constexpr int kClients = 12;
    Client clients[kClients];
    for (Client& client : clients)
        connect(client);
    platform->on_wait([&] {
        for (Client& client : clients)
            client.send(kStatusRequest);
    });
    platform->on_wait([] {});
    run();

    const auto served = [this](std::size_t n) {
        const Calls calls = events_of(n);
        return std::count_if(calls.begin(), calls.end(),
                             [](const std::string& call) { return call.rfind("recv(", 0) == 0; });
    };
    EXPECT_EQ(served(kClients + 1), 8);
    EXPECT_GE(served(kClients + 2), kClients - 8);
}

// ---- accepting

TEST_F(MainLoop, WarnsWhenAcceptFailsAndServesTheNextEntry)
{
    Client first;
    Client second;
    connect(first);
    platform->on_wait_give({{"server", EPOLLIN}, {"client1", EPOLLIN}}, [&] {
        platform->fail("accept(server)", 1, ECONNABORTED);
        second.connect();
        first.send(kStatusRequest);
    });
    run();

    EXPECT_EQ(events_of(2).front(), "accept(server)");
    EXPECT_EQ(events_of(2).at(1), "recv(client1)");
    EXPECT_THAT(logs(), Contains(LogLine{1, "failed to accept client", {}, {}}));
}

TEST_F(MainLoop, LeavesTheListeningSocketAloneWhileThereIsNoDescriptorForAnotherClient)
{
    for (const int error : {EMFILE, ENFILE, ENOBUFS, ENOMEM}) {
        SCOPED_TRACE(error);
        renew_platform();
        Client first;
        Client second;
        connect(first);
        platform->on_wait_give({{"server", EPOLLIN}, {"client1", EPOLLIN}}, [&] {
            platform->fail("accept(server)", 1, error);
            second.connect();
            first.send(kStatusRequest);
        });
        platform->on_wait([] {}); // who waits is not seen, and the others are served
        platform->on_wait([&] { first.close(); });
        platform->on_wait([] {});
        platform->on_wait([&] { EXPECT_FALSE(second.is_closed()); });
        run();

        EXPECT_EQ(events_of(2), (Calls{"accept(server)", "epoll_ctl(DEL, server)", "recv(client1)"} +
                                 Calls{"setMgmt::getKeyValue(/protection/enabled, \"1\")",
                                       "epoll_ctl(MOD, client1, IN|OUT)"} +
                                 kEndOfPass));
        EXPECT_EQ(events_of(3).front().rfind("send(client1", 0), 0U);
        EXPECT_THAT(events_of(4), IsSupersetOf({"close(client1)", "epoll_ctl(ADD, server, IN)"}));
        EXPECT_EQ(events_of(5).front(), "accept(server)");
        EXPECT_THAT(logs(), Contains(LogLine{1, "failed to accept client", {}, {}}).Times(1));
    }
}

TEST_F(MainLoop, TriesToAcceptAgainAfterAWaitThatFoundNothing)
{
    Client client;
    platform->on_wait_give({{"server", EPOLLIN}}, [&] {
        platform->fail("accept(server)", 1, EMFILE);
        client.connect();
    });
    platform->on_wait_give({});
    platform->on_wait([] {});
    run();

    EXPECT_EQ(events_of(1), (Calls{"accept(server)", "epoll_ctl(DEL, server)"} + kEndOfPass));
    EXPECT_EQ(events_of(2), (Calls{"epoll_ctl(MOD, server, IN)", "epoll_ctl(ADD, server, IN)"}));
    EXPECT_EQ(events_of(3).front(), "accept(server)");
}

TEST_F(MainLoop, TriesToAcceptAgainWhenTheClockShowsAnotherSecond)
{
    Client client;
    platform->on_wait_give({{"server", EPOLLIN}}, [&] {
        platform->fail("accept(server)", 1, EMFILE);
        client.connect();
    });
    platform->on_wait_give({{"timer1", EPOLLIN}});
    platform->on_wait_give({{"timer1", EPOLLIN}}, [&] { --platform->now; }); // backwards, even
    platform->on_wait([] {});
    run();

    EXPECT_EQ(events_of(2), (Calls{"timer_tick(timer1)"} + kEndOfPass));
    EXPECT_EQ(events_of(3), (Calls{"timer_tick(timer1)"} + kEndOfPass +
                             Calls{"epoll_ctl(MOD, server, IN)", "epoll_ctl(ADD, server, IN)"}));
    EXPECT_EQ(events_of(4).front(), "accept(server)");
}

// ---- who may connect

const std::string kAllowed = "/daemons/orvbrokerd/allowed_uids";
constexpr uid_t kOther = 4242;

TEST_F(MainLoop, AsksNobodyWhoHeIsWithoutAList)
{
    for (const char* list : {"", static_cast<const char*>(nullptr)}) {
        renew_platform();
        platform->peer_uid = kOther;
        if (list)
            platform->settings[kAllowed] = list;
        Client client;
        connect(client);
        platform->on_wait([&] { EXPECT_FALSE(client.is_closed()); });
        run();
        EXPECT_THAT(events_of(1), Not(Contains("getsockopt(client1)")));
    }
}

TEST_F(MainLoop, ClosesClientsOfUsersWhoAreNotOnTheListAtOnce)
{
    Client refused;
    Client admitted;
    platform->settings[kAllowed] = "1000,4243";
    platform->peer_uid = kOther;
    connect(refused);
    platform->on_wait([&] {
        EXPECT_TRUE(refused.is_closed());
        EXPECT_TRUE(g_connections.empty());
        platform->peer_uid = 4243;
        admitted.connect();
    });
    platform->on_wait([&] { EXPECT_FALSE(admitted.is_closed()); });
    run();

    EXPECT_EQ(events_of(1),
              (Calls{"accept(server)", kMayConnect, "getsockopt(client1)", "close(client1)"} + kEndOfPass));
    EXPECT_THAT(events_of(2), Contains("getsockopt(client2)"));
    EXPECT_EQ(logs(), lines({{1, "refused a client of user 4242"},
                             {4, "new client socket " + number("client2") + " is connected"}}));
}

TEST_F(MainLoop, AdmitsRootAndItsOwnUserWhateverTheListSays)
{
    const std::optional<uid_t> users[] = {0, std::nullopt};
    for (const auto& user : users) {
        renew_platform();
        platform->settings[kAllowed] = "1";
        platform->peer_uid = user;
        Client client;
        connect(client);
        platform->on_wait([&] { EXPECT_FALSE(client.is_closed()); });
        run();
    }
}

TEST_F(MainLoop, TellsOfARefusedUserAtMostOnceASecond)
{
    std::vector<std::unique_ptr<Client>> clients;
    const auto refuse = [&](uid_t user, std::time_t later) {
        platform->on_wait([&, user, later] {
            platform->peer_uid = user;
            platform->now += later;
            clients.push_back(std::make_unique<Client>());
            clients.back()->connect();
        });
    };
    platform->settings[kAllowed] = "1";
    platform->now += 1000;
    refuse(kOther, 0);
    refuse(kOther, 0);
    refuse(4244, 0);
    refuse(kOther, 1); // the clock counts whole seconds, so this may be less than one
    refuse(kOther, 1);
    refuse(kOther, -500);
    run();
    EXPECT_EQ(logs(), lines({{1, "refused a client of user 4242"},
                             {1, "refused a client of user 4244"},
                             {1, "refused a client of user 4242"},
                             {1, "refused a client of user 4242"}}));
}

TEST_F(MainLoop, TellsOfARefusedUserWhateverTheTimeIs)
{
    std::vector<std::unique_ptr<Client>> clients;
    platform->settings[kAllowed] = "1";
    platform->peer_uid = kOther;
    const auto refuse_at = [&](std::time_t now) {
        platform->on_wait([&, now] {
            platform->now = now;
            clients.push_back(std::make_unique<Client>());
            clients.back()->connect();
        });
    };
    std::vector<std::int64_t> times = {0}; // when nobody has been told of yet
    for (const Instant& instant : kInstants)
        times.push_back(instant.seconds);
    for (const std::int64_t time : times) {
        refuse_at(time);
        refuse_at(time);
    }
    run();
    EXPECT_EQ(logs(), fake::Logs(times.size(), {1, "refused a client of user 4242", {}, {}}));
}

TEST_F(MainLoop, IsNotMadeToTellWithoutEndByManyUsers)
{
    std::vector<std::unique_ptr<Client>> clients;
    platform->settings[kAllowed] = "1";
    platform->now += 2000;
    for (uid_t user = 5000; user < 5040; ++user)
        platform->on_wait([&, user] {
            platform->peer_uid = user;
            clients.push_back(std::make_unique<Client>());
            clients.back()->connect();
        });
    run();
    EXPECT_EQ(logs().size(), 16U);
}

TEST_F(MainLoop, RefusesWhoeverCannotBeToldApart)
{
    Client client;
    platform->settings[kAllowed] = "1";
    platform->now += 3000;
    platform->fail("getsockopt(client1)");
    connect(client);
    platform->on_wait([&] { EXPECT_TRUE(client.is_closed()); });
    run();
    EXPECT_EQ(logs(), lines({{1, "refused a client of user ?"}}));
}

TEST_F(MainLoop, TakesAListThatMakesNoSenseForAnEmptyOneOfUsersAndSaysSoOnce)
{
    Client first;
    Client second;
    platform->settings[kAllowed] = "root";
    platform->now += 4000;
    platform->peer_uid = kOther;
    connect(first);
    connect(second);
    run();
    EXPECT_TRUE(first.is_closed() && second.is_closed());
    EXPECT_EQ(logs(), lines({{0, kAllowed + " is no list of user numbers: root"},
                             {1, "refused a client of user 4242"}}));
}

TEST_F(MainLoop, KeepsToTheListThatItReadLastWhileTheSettingsCannotBeRead)
{
    Client refused;
    Client admitted;
    platform->settings[kAllowed] = "4242";
    platform->peer_uid = kOther;
    platform->now += 5000;
    connect(admitted);
    platform->on_wait([&] {
        platform->setting_errors[kAllowed] = 2;
        platform->peer_uid = 4243;
        refused.connect();
    });
    platform->on_wait([&] {
        EXPECT_TRUE(refused.is_closed());
        EXPECT_FALSE(admitted.is_closed());
    });
    run();
}

/// In a process that has read no list yet.
TEST_F(MainLoop, AdmitsNobodyElseWhileItHasNeverReadTheList)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe"); // which begins the program anew
    const auto live = [this] {
        Client refused;
        Client admitted;
        platform->setting_errors[kAllowed] = 2;
        platform->peer_uid = kOther;
        connect(refused);
        platform->on_wait([&] {
            EXPECT_TRUE(refused.is_closed());
            platform->peer_uid = 0;
            admitted.connect();
        });
        platform->on_wait([&] { EXPECT_FALSE(admitted.is_closed()); });
        run();
        EXPECT_EQ(logs(), lines({{1, "refused a client of user 4242"},
                                 {4, "new client socket " + number("client2") + " is connected"}}));
    };
    EXPECT_EXIT(
        {
            live();
            std::exit(HasFailure() ? 1 : 0);
        },
        testing::ExitedWithCode(0), "");
}

struct AcceptFailure {
    const char* name;
    const char* kind; ///< of memory
    unsigned n;
    const char* logged;
    const char* allowed; ///< the list of users, another one than the last
};

TEST_F(MainLoop, ClosesAClientThatItHasNoMemoryForAndServesTheNextOne)
{
    const AcceptFailure failures[] = {
        {"the list of users", "throwing new", 1, "out of memory", "1,22,333"},
        {"the connection", "new", 1, "failed to create new connection", ""},
        {"the send buffer", "malloc", 1, "failed to init new connection", ""},
        {"the receive buffer", "malloc", 2, "failed to init new connection", ""},
    };
    for (const AcceptFailure& failure : failures) {
        SCOPED_TRACE(failure.name);
        renew_platform();
        platform->settings[kAllowed] = failure.allowed;
        Client first;
        Client second;
        platform->on_wait([&] {
            first.connect();
            platform->fail_memory(failure.kind, failure.n);
        });
        connect(second);
        platform->on_wait([&] {
            EXPECT_TRUE(first.is_closed());
            EXPECT_EQ(g_connections.size(), 1U);
        });
        run();

        const bool was_made = failure.kind == std::string("malloc");
        EXPECT_EQ(events_of(1), (Calls{"accept(server)", kMayConnect}) +
                                    (was_made ? Calls{"epoll_ctl(DEL, client1)", "close(client1)"}
                                              : Calls{"close(client1)"}) +
                                    kEndOfPass);
        EXPECT_EQ(logs(), lines({{0, failure.logged},
                                 {4, "new client socket " + number("client2") + " is connected"}}));
    }
}

TEST_F(MainLoop, ClosesAClientThatCannotBeWatched)
{
    for (const char* call : {"epoll_ctl(MOD, client1", "epoll_ctl(ADD, client1"}) {
        SCOPED_TRACE(call);
        renew_platform();
        Client client;
        platform->fail(call);
        connect(client);
        platform->on_wait([&] {
            EXPECT_TRUE(client.is_closed());
            EXPECT_TRUE(g_connections.empty());
        });
        run();

        const Calls calls = events_of(1);
        EXPECT_THAT(Calls(calls.end() - 3, calls.end()),
                    ElementsAre("epoll_ctl(DEL, client1)", "close(client1)", "epoll_ctl(DEL, watch)"));
        EXPECT_EQ(logs(), lines({{0, "failed to add client socket to epoll"}}));
    }
}

TEST_F(MainLoop, DestroysAConnectionWhoseClientHasGone)
{
    Client client;
    connect(client);
    platform->on_wait([&] { client.close(); });
    platform->on_wait([] { EXPECT_TRUE(g_connections.empty()); });
    run();

    EXPECT_EQ(events_of(2),
              (Calls{"recv(client1)", "epoll_ctl(DEL, client1)", "close(client1)"} + kEndOfPass));
    EXPECT_EQ(logs(), lines({{4, "new client socket " + number("client1") + " is connected"},
                             {4, "received event on client socket " + number("client1")}}));
}

// ---- timers

const std::string kFirstEvent = R"({"id": "1", "type": "a"})";
const std::string kSecondEvent = R"({"id": "2", "type": "b"})";
constexpr char kSubmitFirst[] = R"(karma::submit_karma_event({"type": "a"}))";
constexpr char kSubmitSecond[] = R"(karma::submit_karma_event({"type": "b"}))";

TEST_F(MainLoop, SubmitsTheStoredTelemetryInItsOrderWhenItsTimerExpires)
{
    platform->outbox = {kFirstEvent, kSecondEvent};
    platform->settings["/karma/tuvo_agent_status/deployed"] = "1"; // else that is stored, too
    platform->on_wait([&] { platform->expire("timer1"); });
    run();

    EXPECT_EQ(
        events_of(1),
        (Calls{"timer_tick(timer1)", "karma::read_events()", kSubmitFirst, kSubmitSecond} + kEndOfPass));
    EXPECT_TRUE(logs().empty());
}

TEST_F(MainLoop, SubmitsTheOtherTelemetryWhenOneCannotBeSubmitted)
{
    platform->outbox = {kFirstEvent, kSecondEvent};
    platform->on_wait([&] {
        platform->expire("timer1");
        platform->fail("karma::submit_karma_event");
    });
    run();
    EXPECT_THAT(events_of(1), Contains(kSubmitSecond));
    EXPECT_TRUE(logs().empty());
}

TEST_F(MainLoop, SubmitsNoTelemetryWhenItCannotBeRead)
{
    platform->outbox = {kFirstEvent};
    platform->fail("karma::read_events()");
    platform->on_wait([&] { platform->expire("timer1"); });
    run();

    EXPECT_EQ(events_of(1), (Calls{"timer_tick(timer1)", "karma::read_events()"} + kEndOfPass));
    EXPECT_EQ(logs(), lines({{0, "Could not read old events from file"}}));
}

TEST_F(MainLoop, DoesNothingForATimerThatHasNotExpired)
{
    platform->on_wait_give({{"timer1", EPOLLIN}, {"timer2", EPOLLIN}});
    run();
    EXPECT_EQ(events_of(1), (Calls{"timer_tick(timer1)", "timer_tick(timer2)"} + kEndOfPass));
    EXPECT_TRUE(logs().empty());
}

TEST_F(MainLoop, SendsTheChangedDevicesWhenTheirTimerExpires)
{
    Client client;
    connect(client);
    platform->on_wait([&] { client.send("{\"type\":\"subscribe\",\"name\":\"devices_list_updated\"}\n"); });
    platform->on_wait([&] {
        platform->deliver([&] {
            devMgmt::Device device;
            device.did = "d1";
            platform->change_device(devMgmt::DevInfoChangeType::added, device, "");
        });
    });
    platform->on_wait([&] { platform->expire("timer2"); });
    platform->on_wait([] {});
    platform->on_wait([&] {
        EXPECT_EQ(client.frame(), R"({"data": null, "status": 0})");
        EXPECT_EQ(client.frame(), R"([{"device_id": "d1", "status": "new"}])");
    });
    run();
    EXPECT_THAT(events_of(4), ElementsAre("timer_tick(timer2)", "epoll_ctl(MOD, client1, IN|OUT)",
                                          "epoll_ctl(DEL, watch)"));
}

TEST_F(MainLoop, LosesForLackOfMemoryNoMoreThanOneEventOfABatch)
{
    for (unsigned n = 1, failed = 1; failed != 0; ++n) {
        SCOPED_TRACE(n);
        renew_platform();
        Client subscriber;
        Client other;
        connect(subscriber);
        connect(other);
        platform->on_wait(
            [&] { subscriber.send("{\"type\":\"subscribe\",\"name\":\"devices_list_updated\"}\n"); });
        platform->on_wait([&] { EXPECT_EQ(subscriber.frame(), std::nullopt); });
        platform->on_wait([&] {
            EXPECT_EQ(subscriber.frame(), R"({"data": null, "status": 0})");
            platform->deliver([&] {
                devMgmt::Device device;
                device.did = "d1";
                platform->change_device(devMgmt::DevInfoChangeType::added, device, "");
            });
        });
        platform->on_wait_give({{"timer2", EPOLLIN}, {"client2", EPOLLIN}}, [&] {
            platform->expire("timer2");
            other.send(kStatusRequest);
            platform->fail_memory("throwing new", n);
        });
        platform->on_wait([&] {
            failed = platform->memory_failed("throwing new") ? 1 : 0;
            platform->fail_memory("throwing new", 0);
            platform->expire("timer2");
        });
        platform->on_wait([] {});
        platform->on_wait([&] {
            EXPECT_EQ(subscriber.frame(), R"([{"device_id": "d1", "status": "new"}])");
            // It fails for a lack of memory of its own only, when its connection ends.
            EXPECT_TRUE(other.is_closed() || other.frame() == R"({"data": {"status": 1}, "status": 0})");
        });
        run();
        const fake::Logs logged = logs();
        EXPECT_EQ(std::count_if(logged.begin(), logged.end(),
                                [](const LogLine& line) { return line.text == "out of memory"; }),
                  failed);
    }
}

TEST_F(MainLoop, WatchesInTheNextPassWhatItHasNoMemoryToWatch)
{
    Client client;
    connect(client);
    platform->on_wait([&] { platform->fail_memory("watch", 1); });
    platform->on_wait([&] { client.send(kStatusRequest); });
    platform->on_wait([] {});
    platform->on_wait([&] { EXPECT_EQ(client.frame(), R"({"data": {"status": 1}, "status": 0})"); });
    run();
    EXPECT_EQ(pass(3), (Calls{"orvex_get_fd()", "epoll_ctl(MOD, exchange, IN)", kWait} + events_of(3)));
    EXPECT_EQ(logs().at(1).text, "out of memory");
    EXPECT_EQ(logs().at(1).function, "run");
    EXPECT_THAT(pass(4), Contains("epoll_ctl(MOD, watch, IN)"));
}

// ---- the report of the first start

TEST_F(MainLoop, ReportsDeployedOnceBeforeItsFirstPass)
{
    const std::string report =
        R"(karma::submit_karma_event({"type": "tuvo_agent_status", "data": {"agent_state": "deployed"}}))";
    run();
    const Calls start = pass(0);
    const auto begin =
        std::find(start.begin(), start.end(), "setMgmt::getKeyValue(/karma/tuvo_agent_status/deployed, 0)");
    EXPECT_THAT(
        Calls(begin, start.end()),
        ElementsAre("setMgmt::getKeyValue(/karma/tuvo_agent_status/deployed, 0)",
                    R"(karma::build_karma_event_json(tuvo_agent_status, {"agent_state": "deployed"}))",
                    report, "setMgmt::setKey(/karma/tuvo_agent_status/deployed, 1)",
                    "MonitoredKey(/tmp/subscription/refresh, false, null, true)"));
}

TEST_F(MainLoop, ReportsDeployedWhenItsKeyIsUnsetOrZeroOrNoNumber)
{
    struct Case {
        std::optional<std::string> value;
        bool reports;
    };
    for (const Case& c : {Case{std::nullopt, true}, Case{"0", true}, Case{"", true}, Case{"yes", true},
                          Case{"1", false}, Case{"2", false}, Case{"-1", false}}) {
        SCOPED_TRACE(c.value.value_or("unset"));
        renew_platform();
        if (c.value)
            platform->settings["/karma/tuvo_agent_status/deployed"] = *c.value;
        run();
        EXPECT_EQ(testing::Value(pass(0), Contains("setMgmt::setKey(/karma/tuvo_agent_status/deployed, 1)")),
                  c.reports);
        EXPECT_EQ(platform->settings["/karma/tuvo_agent_status/deployed"], c.reports ? "1" : *c.value);
    }
}

TEST_F(MainLoop, RemembersTheDeployedReportAlsoWhenItFailed)
{
    for (const char* call : {"karma::build_karma_event_json", "karma::submit_karma_event"}) {
        SCOPED_TRACE(call);
        renew_platform();
        platform->fail(call);
        run();
        EXPECT_EQ(platform->settings["/karma/tuvo_agent_status/deployed"], "1");
    }
}

TEST_F(MainLoop, StartsAlsoWhenTheDeployedReportCannotBeRemembered)
{
    platform->fail("setMgmt::setKey(/karma");
    platform->on_wait([] {});
    platform->on_wait([] {});
    run();
    EXPECT_EQ(pass(2), kWatchAgain);
}

// ---- the watched key

TEST_F(MainLoop, TellsAChangedSubscriptionWhenTheWatchedKeyChanges)
{
    platform->settings["/tmp/subscription/global/status"] = "valid";
    platform->settings["/tmp/subscription/global/expiry"] = "5";
    Client client;
    connect(client);
    platform->on_wait([&] { client.send("{\"type\":\"subscribe\",\"name\":\"subscription_changed\"}\n"); });
    platform->on_wait([&] { platform->notify_watch(); });
    platform->on_wait([] {});
    platform->on_wait([&] {
        EXPECT_EQ(client.frame(), R"({"data": null, "status": 0})");
        EXPECT_EQ(client.frame(), R"({"status": "valid", "expiry": 5})");
    });
    run();

    EXPECT_THAT(events_of(3),
                IsSupersetOf({"MonitoredKey::read_notifications()", "the watch's callback returned true"}));
}

TEST_F(MainLoop, KeepsWatchingTheKeyWhenTheSubscriptionCannotBeRead)
{
    platform->fail("subs::load()");
    platform->on_wait([&] { platform->notify_watch(); });
    run();
    EXPECT_THAT(events_of(1), Contains("the watch's callback returned true"));
    EXPECT_THAT(logs(), Contains(LogLine{0, "failed to load subscription data", {}, {}}));
}

// ---- connections that end during exchange input

TEST_F(MainLoop, DestroysMarkedConnectionsRightAfterExchangeInputBeforeTheNextEntry)
{
    Client clients[3];
    for (Client& client : clients)
        connect(client);
    platform->on_wait_give(
        {{"exchange", EPOLLIN}, {"client1", EPOLLIN}, {"client2", EPOLLIN}, {"client3", EPOLLIN}}, [&] {
            for (Client& client : clients)
                client.send(kStatusRequest);
            platform->deliver([this] {
                connection("client1")->close_requested = true;
                connection("client3")->close_requested = true;
            });
        });
    platform->on_wait([&] {
        EXPECT_TRUE(clients[0].is_closed());
        EXPECT_FALSE(clients[1].is_closed());
        EXPECT_TRUE(clients[2].is_closed());
        EXPECT_EQ(g_connections.size(), 1U);
    });
    run();

    const Calls calls = events_of(4);
    ASSERT_GE(calls.size(), 6U);
    EXPECT_EQ(calls[0], "orvex_read_fd()");
    EXPECT_THAT(Calls(calls.begin() + 1, calls.begin() + 5),
                testing::UnorderedElementsAre("epoll_ctl(DEL, client1)", "close(client1)",
                                              "epoll_ctl(DEL, client3)", "close(client3)"));
    EXPECT_EQ(calls[5], "recv(client2)");
    EXPECT_THAT(calls, Not(Contains("recv(client1)")));
    EXPECT_THAT(calls, Not(Contains("recv(client3)")));
}

TEST_F(MainLoop, LooksAtTheMarkOnlyAfterExchangeInput)
{
    Client client;
    connect(client);
    platform->on_wait([&] {
        connection("client1")->close_requested = true;
        client.send(kStatusRequest);
    });
    platform->on_wait([] {});
    platform->on_wait([&] {
        EXPECT_TRUE(client.frame());
        EXPECT_FALSE(client.is_closed());
        platform->deliver([] {});
    });
    platform->on_wait([&] { EXPECT_TRUE(client.is_closed()); });
    run();
}

TEST_F(MainLoop, DoesNotBlockOnAnEventForADescriptorThatAnotherClientHasGotMeanwhile)
{
    Client old_client;
    Client new_client;
    connect(old_client);
    int number = -1;
    platform->on_wait([&] { number = platform->fd("client1"); });
    // One batch: the connection ends, the next client gets the same descriptor, an old event for it follows.
    platform->on_wait_give({{"exchange", EPOLLIN}, {"server", EPOLLIN}, {"client1", EPOLLIN | EPOLLOUT}},
                           [&] {
                               new_client.connect();
                               platform->deliver([this] { connection("client1")->close_requested = true; });
                           });
    platform->on_wait([&] { new_client.send(kStatusRequest); });
    platform->on_wait([] {});
    platform->on_wait([&] {
        EXPECT_TRUE(old_client.is_closed());
        EXPECT_EQ(new_client.frame(), R"({"data": {"status": 1}, "status": 0})");
    });
    run();
    EXPECT_EQ(platform->fd("client2"), number);
}

TEST_F(MainLoop, AnswersNobodyWhenTheAnswerComesAfterAnotherClientHasGotTheDescriptor)
{
    Client old_client;
    Client new_client;
    connect(old_client);
    platform->on_wait([&] { old_client.send("{\"type\":\"command\",\"name\":\"va_status\"}\n"); });
    platform->on_wait([&] { old_client.close(); });
    connect(new_client);
    platform->on_wait([&] {
        EXPECT_EQ(platform->fd("client2"), platform->fd("client1"));
        platform->answer(R"({"state": "idle"})");
    });
    platform->on_wait([] {});
    platform->on_wait([&] { new_client.send(kStatusRequest); });
    platform->on_wait([] {});
    platform->on_wait([&] {
        EXPECT_EQ(new_client.frame(), R"({"data": {"status": 1}, "status": 0})");
        EXPECT_EQ(new_client.bytes(), "");
        EXPECT_FALSE(new_client.is_closed());
    });
    run();
}

TEST_F(MainLoop, AnswersAWaitingClientAndThenClosesItsConnection)
{
    Client client;
    connect(client);
    platform->on_wait([&] { client.send("{\"type\":\"command\",\"name\":\"va_status\"}\n"); });
    platform->on_wait([&] { platform->answer(R"({"state": "idle"})"); });
    platform->on_wait([] {});
    platform->on_wait([&] {
        EXPECT_EQ(client.frame(), R"({"data": {"state": "idle"}, "status": 0})");
        EXPECT_TRUE(client.is_closed());
    });
    run();

    EXPECT_EQ(events_of(2),
              (Calls{"recv(client1)", "orvex_send_request(orvvad:va_scan_status, {})"} + kEndOfPass));
    EXPECT_EQ(events_of(3), (Calls{"orvex_read_fd()", "epoll_ctl(MOD, client1, IN|OUT)"} + kEndOfPass));
    EXPECT_THAT(events_of(4), ElementsAre(testing::StartsWith("send(client1"), "epoll_ctl(DEL, client1)",
                                          "close(client1)", "epoll_ctl(DEL, watch)"));
}

TEST_F(MainLoop, EndsWithARequestInFlight)
{
    Client client;
    connect(client);
    platform->on_wait([&] { client.send("{\"type\":\"command\",\"name\":\"va_status\"}\n"); });
    platform->on_wait([&] { EXPECT_EQ(platform->requests.size(), 1U); });
    run();
    EXPECT_TRUE(client.is_closed());
}

} // namespace
} // namespace orv::test
