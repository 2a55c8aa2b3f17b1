// Start-up and shutdown: which calls are made, in which order, and what is given back when one of them fails.

#include "support/faults.h"

#include "orvbrokerd.h"
#include "orvexproc.h"
#include "subevhandlers.h"

#include <algorithm>
#include <fstream>
#include <sstream>

namespace orv::test {
namespace {

using fake::Calls;
using fake::LogLine;
using fake::Logs;
using testing::Contains;
using testing::ElementsAre;
using testing::Not;

const std::string kFields = "display_name device_type device_manufacturer device_os device_os_version macs "
                            "traffic_blocked friendly_name";
const std::string kSetCallback = "devMgmt::set_on_dev_info_change(" + kFields + ")";
constexpr char kUnsetOld[] = "devMgmt::unset_on_dev_info_change(callback 2)";
constexpr char kUnsetNew[] = "devMgmt::unset_on_dev_info_change(callback 1)";

// What is undone when a step fails: each as the one before, and its own step first.
using Undo = std::optional<Calls>;

Calls before(std::initializer_list<std::string> first, const Calls& others)
{
    Calls all(first);
    all.insert(all.end(), others.begin(), others.end());
    return all;
}

const Calls kNothing;
const Calls kEpoll{"close(epoll)"};
const Calls kStop = before({"close(stop)"}, kEpoll);
const Calls kServer = before({"close(server)"}, kStop);
const Calls kSettings = before({"setMgmt::uninit()"}, kServer);
const Calls kFeatures = before({"featureutl::uninit()"}, kSettings);
const Calls kKarmaTimer = before({"timer_uninit(timer1)"}, kFeatures);
const Calls kCacheTimer = before({"timer_uninit(timer2)"}, kKarmaTimer);
const Calls kDevices = before({"devMgmt::uninit()"}, kCacheTimer);
const Calls kExchange = before({kUnsetOld, kUnsetNew, "karma::uninit()"}, kDevices);
const Undo kGoesOn = std::nullopt;

const LogLine kClosing{3, "closing server socket %\n", {}, {}};

LogLine error(const std::string& text)
{
    return {0, text, {}, {}};
}

/// One call of start-up that can fail: what is logged then (% is the server socket's number), what is undone.
struct Row {
    std::string call;
    Logs logged;
    Undo undone;
};

const std::vector<Row> kRows{
    {"fopen(orvbrokerd.version, we)", {}, kNothing},
    {"fclose()", {}, kNothing},
    {"plock::make(orvbrokerd.version, 1)", {}, kNothing},
    {"plock::lock(1)", {}, Calls{"plock::close()"}},
    {"epoll_create(1)", {error("failed to open epoll")}, kNothing},
    {"epoll_ctl(MOD, stop, IN)", {error("failed to add stop exec fd to epoll")}, kEpoll},
    {"epoll_ctl(ADD, stop, IN)", {error("failed to add stop exec fd to epoll")}, kEpoll},
    {"socket(UNIX, STREAM, 0)",
     {error("failed to create socket"), error("failed to open server socket")},
     kStop},
    {"bind(server)",
     {error("failed to bind socket % to :orvbrokerd-1.3.skt"), kClosing,
      error("failed to open server socket")},
     kServer},
    {"listen(server, 8)",
     {error("failed to listen on socket %"), kClosing, error("failed to open server socket")},
     kServer},
    {"epoll_ctl(MOD, server, IN)", {error("failed to add server socket to epoll"), kClosing}, kServer},
    {"epoll_ctl(ADD, server, IN)", {error("failed to add server socket to epoll"), kClosing}, kServer},
    {"setMgmt::init()", {error("orvsetmgmt error: 2"), kClosing}, kServer},
    {"featureutl::init()", {error("featureutl error: 2"), kClosing}, kSettings},
    {"timer_init(0)", {error("failed to init karma timer"), kClosing}, kFeatures},
    {"epoll_ctl(MOD, timer1, IN)", {error("failed to add karma fd to epoll"), kClosing}, kKarmaTimer},
    {"epoll_ctl(ADD, timer1, IN)", {error("failed to add karma fd to epoll"), kClosing}, kKarmaTimer},
    {"timer_start(timer1, 5, 300, false)", {error("failed to start karma timer"), kClosing}, kKarmaTimer},
    {"timer_init(0)", {error("failed to init cache timer"), kClosing}, kKarmaTimer},
    {"epoll_ctl(MOD, timer2, IN)", {error("failed to add cache fd to epoll"), kClosing}, kCacheTimer},
    {"epoll_ctl(ADD, timer2, IN)", {error("failed to add cache fd to epoll"), kClosing}, kCacheTimer},
    {"setMgmt::getKeyValue(/daemons/orvbrokerd/cache_process_interval, 5)", {}, kGoesOn},
    {"timer_start(timer2, 5, 5, false)",
     {error("failed to start cache process timer"), kClosing},
     kCacheTimer},
    {"devMgmt::init()", {error("failed to init devmgmt"), kClosing}, kCacheTimer},
    {"karma::init()", {error("failed to init liborvkarma"), kClosing}, kDevices},
    {kSetCallback, {}, kGoesOn},
    {kSetCallback, {}, kGoesOn},
    {"orvex_init_eventloop(orvbrokerd, 0, 1)",
     {error("failed to connect to orv exchange daemon"), kClosing},
     kExchange},
    {"orvex_subscribe(registration_status_changed)",
     {error("orvex_subscribe() failed; auto-retrying...")},
     kGoesOn},
};

class StartUp : public PlatformTest {
protected:
    /// All calls of a start-up in which everything succeeds.
    static Calls all_calls()
    {
        Calls calls{"daemon::instance(1)", "Instance::on_stop_pipe()", "Instance::run()"};
        for (const Row& row : kRows)
            calls.push_back(row.call);
        return calls;
    }

    /// The same up to and including the row's call.
    static Calls calls_up_to(std::size_t row)
    {
        Calls calls = all_calls();
        calls.resize(3 + row + 1);
        return calls;
    }

    [[nodiscard]] Logs with_numbers(Logs logs) const
    {
        for (LogLine& line : logs)
            if (const auto place = line.text.find('%'); place != std::string::npos)
                line.text.replace(place, 1, std::to_string(platform->fd("server")));
        return logs;
    }

    /// The lines of a start-up that fails at that row.
    [[nodiscard]] Logs logs_of_failure(std::size_t row) const
    {
        const auto is_listen = [](const Row& r) { return r.call.rfind("listen", 0) == 0; };
        const auto listening = std::find_if(kRows.begin(), kRows.end(), is_listen) - kRows.begin();

        Logs logs = lines({{2, "start orv broker daemon"}});
        if (static_cast<std::ptrdiff_t>(row) > listening)
            logs.push_back({3, "listening for connections on socket % (:orvbrokerd-1.3.skt)\n", {}, {}});
        logs.insert(logs.end(), kRows[row].logged.begin(), kRows[row].logged.end());
        logs.push_back({2, "stop orv broker daemon", {}, {}});
        return with_numbers(logs);
    }

    static bool has_started(const Calls& calls)
    {
        return std::find(calls.begin(), calls.end(), "epoll_wait(8, 1000)") != calls.end();
    }

    [[nodiscard]] std::string version_file_content() const
    {
        std::ostringstream content;
        content << std::ifstream(version_file()).rdbuf();
        return content.str();
    }
};

TEST_F(StartUp, AcquiresEverythingInTheFixedOrder)
{
    EXPECT_EQ(run_daemon(), 0);

    Calls calls = platform->take_calls();
    const Calls expected = all_calls();
    ASSERT_GE(calls.size(), expected.size());
    calls.resize(expected.size());
    EXPECT_EQ(calls, expected);
}

TEST_F(StartUp, LogsNothingBetweenTheStartAndTheListeningLineAndTheStop)
{
    EXPECT_EQ(run_daemon(), 0);
    EXPECT_EQ(platform->take_logs(),
              with_numbers(lines({{2, "start orv broker daemon"},
                                  {3, "listening for connections on socket % (:orvbrokerd-1.3.skt)\n"},
                                  {3, "closing server socket %\n"},
                                  {2, "stop orv broker daemon"}})));
}

TEST_F(StartUp, FailingAtAnyCallUndoesWhatWasDoneNewestFirst)
{
    for (std::size_t row = 0; row < kRows.size(); ++row) {
        if (kRows[row].undone == kGoesOn)
            continue;
        SCOPED_TRACE("failing call " + std::to_string(row) + ": " + kRows[row].call);
        renew_platform();
        const auto descriptors = open_descriptors();
        const int stop = platform->fd("stop");
        platform->fail_nth(row + 2); // the first one is asking for the stop descriptor

        EXPECT_EQ(run_daemon(), 1);

        Calls expected = calls_up_to(row);
        expected.insert(expected.end(), kRows[row].undone->begin(), kRows[row].undone->end());
        EXPECT_EQ(platform->take_calls(), expected);
        EXPECT_EQ(platform->take_logs(), logs_of_failure(row));

        auto left = descriptors;
        if (std::count(expected.begin(), expected.end(), "close(stop)") == 1)
            left.erase(stop);
        EXPECT_EQ(open_descriptors(), left);
        EXPECT_TRUE(platform->change_callbacks.empty());
    }
}

TEST_F(StartUp, GoesOnWhenACallFailsWhoseResultDoesNotMatter)
{
    for (std::size_t row = 0; row < kRows.size(); ++row) {
        if (kRows[row].undone != kGoesOn)
            continue;
        SCOPED_TRACE("failing call " + std::to_string(row) + ": " + kRows[row].call);
        renew_platform();
        platform->fail_nth(row + 2);

        EXPECT_EQ(run_daemon(), 0);

        EXPECT_TRUE(has_started(platform->take_calls()));
        Logs expected = lines({{2, "start orv broker daemon"},
                               {3, "listening for connections on socket % (:orvbrokerd-1.3.skt)\n"}});
        expected.insert(expected.end(), kRows[row].logged.begin(), kRows[row].logged.end());
        expected.push_back(kClosing);
        expected.push_back({2, "stop orv broker daemon", {}, {}});
        EXPECT_EQ(platform->take_logs(), with_numbers(expected));
    }
}

TEST_F(StartUp, GoesOnWithoutMemoryForTheListOfSubscriptions)
{
    platform->fail_memory("malloc");
    EXPECT_EQ(run_daemon(), 0);
    EXPECT_TRUE(platform->memory_failed("malloc"));
    EXPECT_TRUE(has_started(platform->take_calls()));
}

/// What is open, of the platform and of the system.
class Lives : public StartUp {
protected:
    Lives()
    {
        platform.reset();
        m_descriptors = open_descriptors();
    }

    /// Lives once with each fault: `life` runs the daemon, and says whether the fault was met.
    void live_with_each_fault(const std::function<bool(const Fault&)>& life)
    {
        Fault fault{"none"};
        for (bool has_failed = false; choose_next(fault, has_failed);) {
            SCOPED_TRACE(fault.text());
            renew_platform();
            has_failed = life(fault);
            EXPECT_FALSE(platform->settings_are_open || platform->devices_are_open ||
                         platform->outbox_is_open);
            EXPECT_TRUE(platform->change_callbacks.empty());
            EXPECT_TRUE(platform->locked.empty());
            platform.reset();
            ASSERT_EQ(open_descriptors(), m_descriptors);
            ASSERT_FALSE(HasFailure());
        }
    }

private:
    std::set<int> m_descriptors;
};

TEST_F(Lives, EndInOrderOrServeWhateverFailsAtTheirStart)
{
    live_with_each_fault([this](const Fault& fault) {
        arm(*platform, fault);
        Client client;
        bool is_served = false;
        bool has_failed = false;
        platform->on_wait([&] {
            has_failed = platform->failed() != 0;
            disarm(*platform);
            client.connect();
        });
        platform->on_wait([&] { client.send(command("get_services_status") + "\n"); });
        platform->on_wait([] {});
        platform->on_wait([&] { is_served = client.frame() == R"({"data": {"status": 1}, "status": 0})"; });
        const int status = run_daemon();
        has_failed = has_failed || platform->failed() != 0;
        const Logs logs = platform->take_logs();
        if (status == 1 && logs.empty()) {
            EXPECT_EQ(platform->take_failed().front(), "Instance::on_stop_pipe()");
            return true;
        }
        EXPECT_FALSE(logs.empty());
        EXPECT_EQ(logs.back(), (LogLine{2, "stop orv broker daemon", {}, {}}));
        EXPECT_TRUE(is_served || has_failed);
        EXPECT_EQ(status, is_served || logs.back().function == "run" ? 0 : 1);
        if (!is_served && fault.is_memory() && fault.kind != "new" && fault.kind != "malloc") {
            EXPECT_THAT(logs, Contains(error("out of memory")));
        }
        return has_failed;
    });
}

TEST_F(Lives, EndInOrderWhateverFailsAtTheirEnd)
{
    live_with_each_fault([this](const Fault& fault) {
        std::array<Client, 3> clients;
        for (Client& client : clients)
            platform->on_wait([&] { client.connect(); });
        platform->on_wait([&] { clients[0].send(subscription("device_discovery") + "\n"); });
        platform->on_wait([&] { clients[1].send(command("va_status") + "\n"); });
        platform->on_wait([&] { clients[2].send("half a line"); });
        platform->on_wait([&] {
            EXPECT_EQ(platform->requests.size(), 1U);
            arm(*platform, fault);
            platform->raise_stop();
        });
        EXPECT_EQ(run_daemon(), 0);
        const bool has_failed = platform->failed() != 0;
        disarm(*platform);
        EXPECT_EQ(platform->take_logs().back(), (LogLine{2, "stop orv broker daemon", {}, {}}));
        for (Client& client : clients) {
            client.bytes();
            EXPECT_TRUE(client.is_closed());
        }
        return has_failed;
    });
}

TEST_F(StartUp, WithoutAStopDescriptorEndsAtOnceWithStatus1)
{
    platform->fail("Instance::on_stop_pipe()");

    EXPECT_EQ(run_daemon(), 1);

    EXPECT_THAT(platform->take_calls(), ElementsAre("daemon::instance(1)", "Instance::on_stop_pipe()"));
    EXPECT_TRUE(platform->take_logs().empty());
}

TEST_F(StartUp, LeavesExactlyTheVersionInTheVersionFile)
{
    std::ofstream(version_file()) << "0.9-something-longer\n";
    EXPECT_EQ(run_daemon(), 0);
    EXPECT_EQ(version_file_content(), "1.3");
}

TEST_F(StartUp, KeepsTheVersionLockOverEveryLaterFailureAndTheShutdown)
{
    platform->fail("orvex_init_eventloop");
    EXPECT_EQ(run_daemon(), 1);
    EXPECT_THAT(platform->take_calls(), Not(Contains("plock::close()")));

    renew_platform();
    EXPECT_EQ(run_daemon(), 0);
    EXPECT_THAT(platform->take_calls(), Not(Contains("plock::close()")));
}

TEST_F(StartUp, OfASecondCopyEndsAtTheVersionLockWithoutAWordAboutIt)
{
    platform->fail("plock::lock(1)");

    EXPECT_EQ(run_daemon(), 1);

    EXPECT_EQ(platform->take_logs(), lines({{2, "start orv broker daemon"}, {2, "stop orv broker daemon"}}));
    EXPECT_THAT(platform->take_calls(), Not(Contains("socket(UNIX, STREAM, 0)")));
}

TEST_F(StartUp, WithTheNameTakenLogsWhichSocketCouldNotBeBound)
{
    platform->fail("bind(server)", 1, EADDRINUSE);
    EXPECT_EQ(run_daemon(), 1);
    EXPECT_THAT(platform->take_logs(),
                Contains(error("failed to bind socket " + std::to_string(platform->fd("server")) +
                               " to :orvbrokerd-1.3.skt")));
}

TEST_F(StartUp, ReportsTheErrorNumberOfAStoreThatCannotBeOpened)
{
    platform->fail("setMgmt::init()", 1, 3);
    EXPECT_EQ(run_daemon(), 1);
    EXPECT_THAT(platform->take_logs(), Contains(error("orvsetmgmt error: 3")));

    renew_platform();
    platform->fail("featureutl::init()", 1, 1);
    EXPECT_EQ(run_daemon(), 1);
    EXPECT_THAT(platform->take_logs(), Contains(error("featureutl error: 1")));
}

TEST_F(StartUp, TakesTheCacheTimersPeriodFromTheSettings)
{
    struct Case {
        const char* value;
        const char* started;
    };
    const Case cases[] = {
        {"7", "timer_start(timer2, 7, 7, false)"},
        {"3600", "timer_start(timer2, 3600, 3600, false)"},
        {"", "timer_start(timer2, 5, 5, false)"},
        {"soon", "timer_start(timer2, 5, 5, false)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.value);
        renew_platform();
        platform->settings["/daemons/orvbrokerd/cache_process_interval"] = c.value;
        EXPECT_EQ(run_daemon(), 0);
        EXPECT_THAT(platform->take_calls(), Contains(c.started));
    }
}

TEST_F(StartUp, FailsWithAPeriodThatTheTimerRefuses)
{
    platform->settings["/daemons/orvbrokerd/cache_process_interval"] = "-1";
    EXPECT_EQ(run_daemon(), 1);
    EXPECT_THAT(platform->take_logs(), Contains(error("failed to start cache process timer")));
}

TEST_F(StartUp, RegistersTheCallbackThatCollectsBeforeTheOneThatSends)
{
    std::vector<devMgmt::DevInfoChangeCallback> registered;
    platform->on_wait([&] {
        for (const auto& callback : platform->change_callbacks)
            registered.push_back(callback.callback);
    });
    EXPECT_EQ(run_daemon(), 0);
    EXPECT_THAT(registered,
                ElementsAre(brokerd::on_device_info_change_cb, brokerd::on_device_info_change_old_cb));
}

TEST_F(StartUp, HandsItsEventEntryPointToTheExchange)
{
    EXPECT_EQ(run_daemon(), 0);
    EXPECT_EQ(platform->event_callback, brokerd::orvex_callback);
}

// ---- shutdown

class Shutdown : public PlatformTest {
protected:
    Calls calls_after_last_wait()
    {
        const Calls calls = platform->take_calls();
        const auto wait = std::find(calls.rbegin(), calls.rend(), "epoll_wait(8, 1000)");
        return {wait.base(), calls.end()};
    }
};

const Calls kGivenBackFirst{
    "orvex_uninit()",
    "karma::uninit()",
    kUnsetOld,
    kUnsetNew,
    "devMgmt::uninit()",
    "timer_uninit(timer1)",
    "timer_uninit(timer2)",
    "featureutl::uninit()",
    "setMgmt::uninit()",
};
const Calls kGivenBackLast{
    "close(server)",
    "close(epoll)",
    "close(stop)",
    "MonitoredKey::cancel()",
};

Calls joined(std::initializer_list<Calls> parts)
{
    Calls all;
    for (const Calls& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

TEST_F(Shutdown, GivesEverythingBackInTheFixedOrder)
{
    EXPECT_EQ(run_daemon(), 0);
    EXPECT_EQ(calls_after_last_wait(), joined({{"epoll_ctl(DEL, watch)"}, kGivenBackFirst, kGivenBackLast}));
    EXPECT_EQ(brokerd::epollfd, -1);
}

TEST_F(Shutdown, DestroysConnectionsBetweenTheStoresAndTheListeningSocket)
{
    Client client;
    platform->on_wait([&] { client.connect(); });
    EXPECT_EQ(run_daemon(), 0);

    EXPECT_EQ(calls_after_last_wait(), joined({{"epoll_ctl(DEL, watch)"},
                                               kGivenBackFirst,
                                               {"epoll_ctl(DEL, client1)", "close(client1)"},
                                               kGivenBackLast}));
    EXPECT_TRUE(client.is_closed());
}

TEST_F(Shutdown, AcceptsNobodyAnyMoreThoughAConnectionsEndMakesRoom)
{
    Client served;
    Client waiting;
    platform->on_wait([&] { served.connect(); });
    platform->on_wait_give({{"server", EPOLLIN}}, [&] {
        platform->fail("accept(server)", 1, EMFILE);
        waiting.connect();
    });
    EXPECT_EQ(run_daemon(), 0);
    EXPECT_EQ(calls_after_last_wait(), joined({{"epoll_ctl(DEL, watch)"},
                                               kGivenBackFirst,
                                               {"epoll_ctl(DEL, client1)", "close(client1)"},
                                               kGivenBackLast}));
}

TEST_F(Shutdown, WithSubscribersLeavesNothingBehind)
{
    Client discovery;
    Client other;
    platform->on_wait([&] { discovery.connect(); });
    platform->on_wait([&] { other.connect(); });
    platform->on_wait([&] {
        discovery.send("{\"type\":\"subscribe\",\"name\":\"device_discovery\"}\n");
        other.send("{\"type\":\"subscribe\",\"name\":\"subscription_changed\"}\n");
    });
    EXPECT_EQ(run_daemon(), 0);

    const Logs logs = platform->take_logs();
    EXPECT_EQ(logs.back(), (LogLine{2, "stop orv broker daemon", {}, {}}));
    EXPECT_EQ(discovery.frame(), R"({"data": null, "status": 0})");
    EXPECT_EQ(other.frame(), R"({"data": null, "status": 0})");
    EXPECT_TRUE(discovery.is_closed());
    EXPECT_TRUE(other.is_closed());
    EXPECT_THAT(platform->subscribed, ElementsAre("guster_user_agent", "registration_status_changed"));
    EXPECT_TRUE(brokerd::g_client_subscriptions.empty());
    EXPECT_TRUE(brokerd::g_exchange_subscriptions.empty());
}

TEST_F(Shutdown, IsDoneToTheEndWhenEveryCallOfItFails)
{
    platform->fail_from("devMgmt::unset_on_dev_info_change");
    platform->fail_from("close(");
    EXPECT_EQ(run_daemon(), 0);
    EXPECT_EQ(calls_after_last_wait(), joined({{"epoll_ctl(DEL, watch)"}, kGivenBackFirst, kGivenBackLast}));
    EXPECT_EQ(platform->take_logs().back(), (LogLine{2, "stop orv broker daemon", {}, {}}));
}

TEST_F(Shutdown, LetsTheNextStartBindTheSameNameAtOnce)
{
    EXPECT_EQ(run_daemon(), 0);
    renew_platform();
    EXPECT_EQ(run_daemon(), 0);
    EXPECT_THAT(platform->take_calls(), Contains("epoll_wait(8, 1000)"));
}

} // namespace
} // namespace orv::test
