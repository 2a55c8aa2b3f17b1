// The simulated agent as others on the exchange see it: every request's answer, the sequences of events, what
// it leaves in the stores.

#include "exchange_support.h"

#include <orvdevmgmt/device_writer.h>
#include <orvdevmgmt/orvdevmgmt.h>
#include <orvutils/keys.h>
#include <orvutils/setmgmt.h>

#include <fmt/format.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>

using orv::devMgmt::Device;
using Arguments = std::vector<std::string>;

namespace {

/// The program, from its start to its end.
class AgentSim {
public:
    AgentSim(const Arguments& arguments, const std::string& log)
    {
        std::vector<const char*> line{ORVAGENTSIM};
        for (const auto& argument : arguments)
            line.push_back(argument.c_str());
        line.push_back(nullptr);
        m_process = fork();
        if (m_process == 0) {
            const int out = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
            dup2(out, STDOUT_FILENO);
            dup2(out, STDERR_FILENO);
            execv(ORVAGENTSIM, const_cast<char**>(line.data()));
            _exit(127);
        }
    }
    AgentSim(const AgentSim&) = delete;
    AgentSim& operator=(const AgentSim&) = delete;
    ~AgentSim()
    {
        signal(SIGKILL);
        (void)wait();
    }

    void signal(int number) const
    {
        if (m_process > 0)
            kill(m_process, number);
    }

    /// Its exit status, or 1000 + the signal that it died by.
    int wait()
    {
        int status = 0;
        if (m_process <= 0 || waitpid(m_process, &status, 0) != m_process)
            return -1;
        m_process = -1;
        return WIFSIGNALED(status) ? 1000 + WTERMSIG(status) : WEXITSTATUS(status);
    }

private:
    pid_t m_process = -1;
};

/// An answer's type and payload.
using Reply = std::pair<std::string, std::string>;

const Reply kDone{"0", "{}"};
const Reply kMalformed{"2", "malformed request"};
constexpr char kRouterForm[] = R"({"router_id": "r1"})";

std::string setting(const std::string& key)
{
    std::string value;
    return orv::setMgmt::getKey(key, value) >= 0 ? value : "(none)";
}

std::vector<Device> devices()
{
    std::vector<Device> all;
    EXPECT_EQ(orv::devMgmt::get_devices(all), 0);
    return all;
}

Device device(const std::string& id)
{
    Device found;
    EXPECT_NE(orv::devMgmt::get_device(id, found), 0) << id;
    return found;
}

bool has_device(const std::string& id)
{
    Device found;
    return orv::devMgmt::get_device(id, found) != 0;
}

/// All that is known of a device, in one text that is the same for the same device.
std::string describe(const Device& device)
{
    std::vector<std::string> macs;
    for (const auto& [mac, addresses] : device.macs) {
        std::string text = mac.to_string(false);
        for (const auto& address : addresses)
            text += " " + address.to_string(false);
        macs.push_back(text);
    }
    std::sort(macs.begin(), macs.end());
    std::string text = device.did + "|" + device.owner + "|" + device.display_name + "|" +
                       device.friendly_name + "|" + device.device_type + "|" + device.device_os + "|" +
                       device.device_os_version + "|" + device.device_manufacturer;
    for (const auto& mac : macs)
        text += "|" + mac;
    return text;
}

std::vector<std::string> describe_all()
{
    std::vector<std::string> all;
    for (const auto& device : devices())
        all.push_back(describe(device));
    return all;
}

} // namespace

class AgentSimTest : public ExchangeTest {
protected:
    void SetUp() override
    {
        ExchangeTest::SetUp();
        ASSERT_EQ(orv::devMgmt::init(), 0);
        ASSERT_TRUE(subscribe_and_wait(
            {"orvagent_started", "registration_status_changed", "va_status_changed", "guster_user_agent"}));
    }

    void TearDown() override
    {
        m_sim.reset();
        orv::devMgmt::uninit();
        ExchangeTest::TearDown();
    }

    /// Runs it until it announces itself. The devices stay as they are, unless told otherwise.
    void start(Arguments arguments = {})
    {
        if (std::find(arguments.begin(), arguments.end(), "--churn") == arguments.end())
            arguments.insert(arguments.end(), {"--churn", "0"});
        m_sim = std::make_unique<AgentSim>(arguments, log_path());
        ASSERT_TRUE(serve_until([] { return !events("orvagent_started").empty(); })) << log();
    }

    void stop()
    {
        m_sim->signal(SIGTERM);
        EXPECT_EQ(m_sim->wait(), 0) << log();
        m_sim.reset();
        s_received.clear();
    }

    /// Runs it with a wrong set-up, to its end.
    int status_of(const Arguments& arguments)
    {
        AgentSim sim(arguments, log_path());
        return sim.wait();
    }

    Reply ask(const std::string& name, const std::string& data = "{}")
    {
        m_answers.all.clear();
        if (request(name.c_str(), data) != 0 || !serve_until([this] { return !m_answers.all.empty(); }))
            return {"no answer", log()};
        return {m_answers.all.front().type, m_answers.all.front().data};
    }

    void send(const std::string& name)
    {
        ASSERT_EQ(orvex_send_message(m_broker.get(), name.c_str(), "{}", 2), 0);
    }

    /// The payloads of all events of that name, so far.
    static std::vector<std::string> events(const std::string& name)
    {
        std::vector<std::string> found;
        for (const auto& received : s_received)
            if (received.type == name)
                found.push_back(received.data);
        return found;
    }

    bool wait_for_event(const std::string& name, const std::string& data)
    {
        return serve_until([&] {
            const auto all = events(name);
            return std::find(all.begin(), all.end(), data) != all.end();
        });
    }

    [[nodiscard]] std::string log_path() const { return m_bus.root() + "/agentsim.log"; }
    [[nodiscard]] std::string log() const
    {
        std::ifstream file(log_path());
        return {std::istreambuf_iterator<char>(file), {}};
    }
    bool wait_for_log(const std::string& text)
    {
        return serve_until([&] { return log().find(text) != std::string::npos; });
    }

    std::unique_ptr<AgentSim> m_sim;
};

// ---- the program

TEST_F(AgentSimTest, AnnouncesItsStartAndTakesTheAcknowledgement)
{
    start();
    EXPECT_EQ(s_received.back().from, "orvagent");
    ASSERT_EQ(orvex_send_response(m_broker.get(), 0, s_received.back().id, "orvagent_started_ack", 20), 0);
    EXPECT_TRUE(wait_for_log("orvagent_started_ack from :")) << log();
}

TEST_F(AgentSimTest, EndsWithSuccessOnBothSignals)
{
    for (const int number : {SIGTERM, SIGINT}) {
        s_received.clear();
        start();
        m_sim->signal(number);
        EXPECT_EQ(m_sim->wait(), 0) << log();
    }
}

TEST_F(AgentSimTest, EndsWithStatus3WithoutAnExchangeAndWhenANameIsTaken)
{
    start();
    EXPECT_EQ(status_of({}), 3);
    EXPECT_NE(log().find("cannot join the exchange"), std::string::npos) << log();
    m_bus.kill();
    EXPECT_EQ(status_of({}), 3);
}

TEST_F(AgentSimTest, RefusesAWrongCommandLineWithStatus2)
{
    const Arguments lines[] = {{"--fail", "no_such_request"},
                               {"--devices", "-1"},
                               {"--devices", "many"},
                               {"--churn", "-1"},
                               {"--churn", "often"},
                               {"--seed", "x"},
                               {"--delay", "-5"},
                               {"--no-such-option"},
                               {"stray"},
                               {"--fail", "orvvad:telemetry_event"},
                               {"--fail"}};
    for (const auto& line : lines)
        EXPECT_EQ(status_of(line), 2) << testing::PrintToString(line);
    EXPECT_EQ(status_of({"--help"}), 0);
    EXPECT_EQ(status_of({"--version"}), 0);
    EXPECT_NE(log().find("broker-devmgmt:set_friendly_name"), std::string::npos) << log();
}

TEST_F(AgentSimTest, AnswersAgainAfterTheExchangeWasAway)
{
    start();
    m_bus.kill();
    ASSERT_TRUE(m_bus.start());
    ASSERT_TRUE(serve_until([this] { return ask("orvvad:va_scan_status").first == "0"; })) << log();
    ASSERT_TRUE(serve_until([this] { return ask("orvagent:telemetry_event").first == "0"; })) << log();
    stop();
}

// ---- requests

TEST_F(AgentSimTest, AnswersEachRequest)
{
    start();
    const std::string unregistered = R"({"result": "error", "reason": "malformed registration request"})";
    const std::string idle = R"({"state": "idle", "scan": "none", "progress": 0})";
    const std::string tuvo = R"({"macs": ["02:00:00:00:00:01"], "tuvo_detected_name": "R", )";
    const struct {
        const char* name;
        std::string data;
        Reply reply;
    } rows[] = {
        {"broker-devmgmt:set_friendly_name", R"({"friendly_name": "R"})", kDone},
        {"broker-devmgmt:set_friendly_name",
         R"({"connect_destination": {"device_id": "sim-1"}, "friendly_name": "D"})", kDone},
        {"broker-devmgmt:set_friendly_name",
         R"({"connect_destination": {"device_id": "sim-9"}, "friendly_name": "D"})",
         {"2", "no such device: sim-9"}},
        {"broker-devmgmt:set_friendly_name", R"({"connect_destination": {}, "friendly_name": "D"})",
         kMalformed},
        {"broker-devmgmt:set_friendly_name", R"({"friendly_name": 5})", kMalformed},
        {"broker-devmgmt:set_friendly_name", "{", kMalformed},
        {"broker-devmgmt:set_traffic_status",
         R"({"connect_destination": {"device_id": "sim-1"}, "blocked": 1})", kDone},
        {"broker-devmgmt:set_traffic_status",
         R"({"connect_destination": {"device_id": "sim-1"}, "blocked": 2})", kMalformed},
        {"broker-devmgmt:set_traffic_status", R"({"blocked": 1})", kMalformed},
        {"broker-devmgmt:set_online_status", R"([{"mac": "02:00:00:00:00:01", "online": true}])", kDone},
        {"broker-devmgmt:set_online_status", "", kMalformed},
        {"broker-devmgmt:register_tuvo", tuvo + R"("device_model": "M"})", {"0", R"({"result": "ok"})"}},
        {"broker-devmgmt:register_tuvo",
         tuvo + R"("feature_set_level": ["velm-pro"]})",
         {"0", R"({"result": "ok"})"}},
        {"broker-devmgmt:register_tuvo", R"({"macs": [], "tuvo_detected_name": "R"})", kMalformed},
        {"broker-devmgmt:register_tuvo", R"({"macs": ["x"], "tuvo_detected_name": "R"})", kMalformed},
        {"broker-devmgmt:remove_satellites", R"({"device_ids": ["sim-3"]})", kDone},
        {"broker-devmgmt:remove_satellites", R"({"device_ids": ["sim-3"]})", {"2", "no such device: sim-3"}},
        {"broker-devmgmt:remove_satellites", R"({"device_ids": []})", kMalformed},
        {"broker-devmgmt:remove_satellites", R"({"device_ids": [7]})", kMalformed},
        {"orvvad:va_scan_status", "{}", {"0", idle}},
        {"orvtuvosettings:va_set_schedule", R"({"enabled": true})", kDone},
        {"orvtuvosettings:va_set_schedule", "[]", {"2", "a schedule is a JSON object"}},
        {"orvtuvosettings:va_set_schedule", "{\"enabled\"", {"2", "a schedule is a JSON object"}},
        {"orvtuvosettings:va_set_schedule",
         R"({"scheduled": 1})",
         {"2", "scheduled is neither true nor false"}},
        {"start_cloud_registration", kRouterForm, {"0", R"({"result": "ok"})"}},
        {"start_cloud_registration", "[]", {"2", unregistered}},
        {"orvagent:telemetry_event", R"({"id": "1", "type": "tuvo_agent_status"})", kDone},
        {"telemetry_event", "7", {"2", "a telemetry event is a JSON object"}},
        {"update_subscription", "{}", kDone},
        {"no_such_request", "{}", {"2", "unknown request"}},
        {"orvvad:telemetry_event", "{}", {"2", "unknown request"}},
    };
    for (const auto& row : rows)
        EXPECT_EQ(ask(row.name, row.data), row.reply) << row.name << ' ' << row.data;
}

TEST_F(AgentSimTest, AnswersARequestThatIsToFailWithTypeTwoAndDoesNothing)
{
    start({"--fail", "set_friendly_name", "--fail", "orvagent:update_subscription", "--fail",
           "va_network_scan_start", "--fail", "start_cloud_registration", "--fail", "telemetry_event"});
    const Reply name = ask("broker-devmgmt:set_friendly_name",
                           R"({"connect_destination": {"device_id": "sim-1"}, "friendly_name": "D"})");
    EXPECT_EQ(name, Reply("2", "set_friendly_name fails as it was told to"));
    EXPECT_EQ(device("sim-1").friendly_name, "");
    EXPECT_EQ(ask("telemetry_event"), Reply("2", "telemetry_event fails as it was told to"));
    EXPECT_EQ(ask("orvvad:va_network_scan_start").first, "2");
    EXPECT_NE(ask("orvvad:va_scan_status").second.find("idle"), std::string::npos);
    EXPECT_EQ(ask("update_subscription"), Reply("2", "refused by the cloud"));
    EXPECT_EQ(setting("/tmp/subscription/last_error"), "refused by the cloud");
    EXPECT_EQ(setting("/tmp/subscription/global/status"), "(none)");
    const std::string refused = R"({"result": "error", "reason": "refused by the cloud"})";
    EXPECT_EQ(ask("start_cloud_registration", kRouterForm), Reply("2", refused));
    EXPECT_TRUE(wait_for_event("registration_status_changed", refused));
    EXPECT_EQ(setting(orv::kDeviceIdKey), "(none)");
    EXPECT_EQ(ask("broker-devmgmt:set_online_status"), kDone) << "only what was named fails";
}

TEST_F(AgentSimTest, NarratesInOneLineWhateverItIsSent)
{
    start();
    EXPECT_EQ(ask("telemetry_event", R"({"type": "a\nb\u001bc"})"), kDone);
    EXPECT_TRUE(wait_for_log("telemetry event 1: a?b?c\n")) << log();
}

// ---- registration, subscription, schedule

TEST_F(AgentSimTest, ARegistrationStoresItsKeysBeforeItIsAnsweredAndAnnounced)
{
    start({"--delay", "20"});
    EXPECT_EQ(
        ask("start_cloud_registration", R"({"token": "t1", "mac": "02:AB:00:00:00:0C", "redeem": "x"})"),
        Reply("0", R"({"result": "ok"})"));
    EXPECT_EQ(setting(orv::kDeviceIdKey), "router-02ab0000000c");
    EXPECT_EQ(setting(orv::kUserTokenKey), "t1");
    EXPECT_EQ(setting(orv::kRegistrationMacKey), "02:ab:00:00:00:0c");
    EXPECT_EQ(setting(orv::kRegistrationTuvoNameKey), "Home Router");
    EXPECT_EQ(setting(orv::kRegistrationDeviceModelKey), "OR-2000");
    EXPECT_EQ(setting(orv::kRegistrationFeatureSetLevelKey), "velm-basic-1.1");
    EXPECT_TRUE(wait_for_event("registration_status_changed", R"({"result": "ok"})"));
    for (const auto& each : devices())
        EXPECT_EQ(each.owner, "router-02ab0000000c") << each.did;
}

TEST_F(AgentSimTest, ARegistrationKeepsTheNameAndModelThatWereThere)
{
    ASSERT_EQ(orv::setMgmt::setKey(orv::kRegistrationTuvoNameKey, "Mine"), 0);
    ASSERT_EQ(orv::setMgmt::setKey(orv::kRegistrationDeviceModelKey, "M1"), 0);
    start({"--delay", "0"});
    EXPECT_EQ(ask("start_cloud_registration", kRouterForm).first, "0");
    EXPECT_EQ(setting(orv::kDeviceIdKey), "r1");
    EXPECT_NE(setting(orv::kUserTokenKey), "(none)");
    EXPECT_NE(setting(orv::kRegistrationMacKey), "(none)");
    EXPECT_EQ(setting(orv::kRegistrationTuvoNameKey), "Mine");
    EXPECT_EQ(setting(orv::kRegistrationDeviceModelKey), "M1");
}

TEST_F(AgentSimTest, RefusesARegistrationThatNamesNoRouter)
{
    start({"--delay", "0"});
    for (const char* data : {"", "{", "[]", "7", "{}", R"({"router_id": ""})", R"({"router_id": 5})",
                             R"({"token": "t"})", R"({"token": "t", "mac": "02:00:00:00:00:01"})"})
        EXPECT_EQ(ask("start_cloud_registration", data).first, "2") << data;
    const std::string invalid = R"({"result": "error", "reason": "invalid mac"})";
    EXPECT_EQ(ask("start_cloud_registration", R"({"token": "t", "mac": "02:00", "redeem": "x"})"),
              Reply("2", invalid));
    EXPECT_TRUE(wait_for_event("registration_status_changed", invalid));
    EXPECT_EQ(setting(orv::kDeviceIdKey), "(none)");
}

TEST_F(AgentSimTest, RenewsTheSubscriptionAndTouchesTheWatchedKey)
{
    start();
    const auto before = static_cast<std::int64_t>(std::time(nullptr));
    EXPECT_EQ(ask("update_subscription"), kDone);
    EXPECT_EQ(setting("/tmp/subscription/global/status"), "valid");
    EXPECT_GE(std::stoll(setting("/tmp/subscription/global/expiry")), before + 364LL * 24 * 3600);
    EXPECT_GE(std::stoll(setting("/tmp/subscription/last_update_ts")), before);
    EXPECT_EQ(setting("/tmp/subscription/last_error"), "0");
    EXPECT_NE(setting("/tmp/subscription/refresh"), "(none)");
    EXPECT_EQ(orv::setMgmt::lockKey("/tmp/subscription"), 0) << "the lock is free again";
    EXPECT_EQ(orv::setMgmt::unlockKey("/tmp/subscription"), 0);
}

TEST_F(AgentSimTest, KeepsTheScheduleAsItIs)
{
    start();
    const std::string schedule = R"({"scheduled": true, "enabled": false, "hour": 3})";
    EXPECT_EQ(ask("orvtuvosettings:va_set_schedule", schedule), kDone);
    EXPECT_EQ(setting("/va/schedule"), schedule);
    EXPECT_EQ(ask("orvtuvosettings:va_set_schedule", "7").first, "2");
    EXPECT_EQ(setting("/va/schedule"), schedule);
}

// ---- scans

TEST_F(AgentSimTest, AScanRunsThroughItsStatesAndTellsEach)
{
    start({"--delay", "5"});
    for (const std::string scan : {"network", "self"}) {
        s_received.clear();
        send("orvvad:va_" + scan + "_scan_start");
        const auto status = [&scan](const std::string& state, int progress) {
            return fmt::format(R"({{"state": "{}", "scan": "{}", "progress": {}}})", state, scan, progress);
        };
        ASSERT_TRUE(wait_for_event("va_status_changed", status("finished", 100))) << log();
        EXPECT_EQ(
            events("va_status_changed"),
            (std::vector<std::string>{status("running", 0), status("running", 25), status("running", 50),
                                      status("running", 75), status("finished", 100)}));
        EXPECT_EQ(ask("orvvad:va_scan_status"), Reply("0", status("finished", 100)));
    }
}

TEST_F(AgentSimTest, AScanCanBeStoppedAndStartedAgain)
{
    start({"--delay", "60000"});
    const std::string running = R"({"state": "running", "scan": "network", "progress": 0})";
    const std::string stopped = R"({"state": "stopped", "scan": "network", "progress": 0})";
    send("orvvad:va_network_scan_start");
    ASSERT_TRUE(wait_for_event("va_status_changed", running));
    send("orvvad:va_self_scan_start"); // one at a time: nothing changes
    EXPECT_EQ(ask("orvvad:va_scan_status"), Reply("0", running));
    send("orvvad:va_scan_stop");
    ASSERT_TRUE(wait_for_event("va_status_changed", stopped));
    EXPECT_EQ(ask("orvvad:va_scan_status"), Reply("0", stopped));
    send("orvvad:va_scan_stop"); // nothing runs: nothing changes
    EXPECT_EQ(ask("orvvad:va_scan_status"), Reply("0", stopped));
    EXPECT_EQ(events("va_status_changed"), (std::vector<std::string>{running, stopped}));
    send("orvvad:va_network_scan_start");
    EXPECT_TRUE(serve_until([&] { return events("va_status_changed").size() == 3; }));
}

// ---- devices

TEST_F(AgentSimTest, FurnishesTheHomeWithAsManyDevicesAsWanted)
{
    start({"--devices", "40"});
    std::set<std::string> addresses;
    EXPECT_EQ(devices().size(), 40U);
    for (const auto& each : devices()) {
        EXPECT_FALSE(each.display_name.empty() || each.device_type.empty() || !each.owner.empty())
            << each.did;
        ASSERT_EQ(each.macs.size(), 1U) << each.did;
        EXPECT_EQ(each.macs.begin()->second.size(), 2U) << "one IPv4, one IPv6";
        for (const auto& address : each.macs.begin()->second)
            addresses.insert(address.to_string(false));
        addresses.insert(each.macs.begin()->first.to_string(false));
    }
    EXPECT_EQ(addresses.size(), 3U * 40U) << "no two devices share an address";
}

TEST_F(AgentSimTest, TheSameSeedMakesTheSameDevicesChangeTheSameWay)
{
    const auto observe = [this](const std::string& seed) {
        start({"--seed", seed, "--churn", "0.01", "--devices", "4"});
        EXPECT_TRUE(serve_until([] { return events("guster_user_agent").size() >= 30; })) << log();
        stop();
        std::vector<std::string> lines;
        std::ifstream file(log_path());
        for (std::string line; std::getline(file, line) && lines.size() < 60;)
            if (line.find("broker-devmgmt ") != std::string::npos)
                lines.push_back(line.substr(line.find("broker-devmgmt ")));
        std::filesystem::remove(log_path());
        return lines;
    };
    const auto first = observe("7");
    EXPECT_EQ(first.size(), 60U) << "thirty changes, thirty sightings";
    EXPECT_EQ(observe("7"), first);
    EXPECT_NE(observe("8"), first);
}

TEST_F(AgentSimTest, TheSameSeedMakesTheSameRecordsWhateverWasThereBefore)
{
    start({"--seed", "7"});
    const auto first = describe_all();
    stop();
    start({"--seed", "8", "--devices", "9"});
    EXPECT_NE(describe_all(), first);
    stop();
    start({"--seed", "7"});
    EXPECT_EQ(describe_all(), first);
}

TEST_F(AgentSimTest, LeavesDevicesOfOthersAlone)
{
    Device other;
    other.did = "other";
    other.owner = "elsewhere";
    ASSERT_EQ(orv::devMgmt::put_device(other), 0);
    start({"--devices", "2", "--delay", "0"});
    EXPECT_EQ(ask("start_cloud_registration", kRouterForm).first, "0");
    EXPECT_EQ(devices().size(), 3U);
    EXPECT_EQ(device("other").owner, "elsewhere");
    EXPECT_EQ(device("sim-1").owner, "r1");
}

TEST_F(AgentSimTest, TheDevicesFollowTheRouterWhoeverGivesItAnotherIdentifier)
{
    start();
    ASSERT_EQ(orv::setMgmt::setKey(orv::kDeviceIdKey, "r2"), 0);
    EXPECT_TRUE(serve_until([] { return device("sim-6").owner == "r2"; })) << log();
}

TEST_F(AgentSimTest, TheDevicesFollowTheRouterIntoAReplacedStore)
{
    start();
    const std::string store = m_bus.root() + "/var/settings";
    std::filesystem::rename(store, store + ".old");
    ASSERT_EQ(orv::setMgmt::setKey(orv::kDeviceIdKey, "r2"), 0);
    ASSERT_TRUE(std::filesystem::exists(store));
    EXPECT_TRUE(serve_until([] { return device("sim-6").owner == "r2"; })) << log();
    ASSERT_EQ(orv::setMgmt::setKey(orv::kDeviceIdKey, "r3"), 0);
    EXPECT_TRUE(serve_until([] { return device("sim-6").owner == "r3"; })) << log();
}

TEST_F(AgentSimTest, ChangesTheRecordsItIsAskedToChange)
{
    start();
    EXPECT_EQ(ask("broker-devmgmt:set_friendly_name",
                  R"({"connect_destination": {"device_id": "sim-2"}, "friendly_name": "Telly"})"),
              kDone);
    EXPECT_EQ(device("sim-2").friendly_name, "Telly");
    EXPECT_EQ(device("sim-2").display_name, "Living Room TV");
    const auto block = [this](int value) {
        return ask("broker-devmgmt:set_traffic_status",
                   R"({"connect_destination": {"device_id": "sim-2"}, "blocked": )" + std::to_string(value) +
                       "}");
    };
    EXPECT_EQ(block(1), kDone);
    EXPECT_EQ(device("sim-2").traffic_blocked, 1);
    EXPECT_EQ(block(0), kDone);
    EXPECT_EQ(device("sim-2").traffic_blocked, 0);
    EXPECT_EQ(device("sim-2").friendly_name, "Telly");
}

TEST_F(AgentSimTest, RemovesAllSatellitesOfARequestOrNone)
{
    start();
    EXPECT_EQ(ask("broker-devmgmt:remove_satellites", R"({"device_ids": ["sim-1", "sim-77"]})").first, "2");
    EXPECT_TRUE(has_device("sim-1"));
    EXPECT_EQ(ask("broker-devmgmt:remove_satellites", R"({"device_ids": ["sim-1", "sim-3", "sim-1"]})"),
              kDone);
    EXPECT_FALSE(has_device("sim-1") || has_device("sim-3"));
    EXPECT_EQ(devices().size(), 4U);
}

TEST_F(AgentSimTest, DevicesComeChangeAndGoAndNamesGivenStay)
{
    start({"--churn", "0.01", "--devices", "4"});
    EXPECT_TRUE(wait_for_log(" comes")) << log();
    EXPECT_TRUE(wait_for_log(" goes")) << log();
    for (const char* change : {" is called otherwise", " updates its system", " gets another address",
                               " switches its second interface"})
        EXPECT_TRUE(wait_for_log(change)) << log();
    EXPECT_TRUE(serve_until([] { return events("guster_user_agent").size() >= 100; }));
    const auto count = devices().size();
    EXPECT_TRUE(count >= 2 && count <= 8) << count;
    const std::string event = events("guster_user_agent").front();
    for (const char* member : {"src_ip", "src_mac", "user_agent"})
        EXPECT_NE(event.find('"' + std::string(member) + '"'), std::string::npos) << event;
}

TEST_F(AgentSimTest, SurvivesThatOthersRemoveItsDevices)
{
    start({"--churn", "0.01", "--devices", "3"});
    for (int round = 0; round < 20; ++round) {
        for (const auto& each : devices())
            (void)orv::devMgmt::remove_device(each.did); // it may be quicker
        const auto seen = events("guster_user_agent").size();
        ASSERT_TRUE(serve_until([seen] { return events("guster_user_agent").size() > seen; })) << log();
    }
    stop();
}

TEST_F(AgentSimTest, AnEmptyHomeStaysEmptyWithoutChurn)
{
    start({"--devices", "0"});
    EXPECT_TRUE(devices().empty());
}
