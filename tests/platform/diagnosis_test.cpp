// The diagnosis records, held against what is known to be true: settings that the test has written, and the
// same facts found out in another way.

#include "store_support.h"

#include <orvdevmgmt/device_writer.h>
#include <orvdevmgmt/orvdevmgmt.h>
#include <orvdiagnosis/orvdiagnosis.h>
#include <orvutils/json.h>
#include <orvutils/keys.h>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/un.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>
#include <set>

namespace diagnosis = orv::diagnosis;
using diagnosis::RecordId;

namespace {

using orv::JsonPtr;

std::string text_of(const json_t* value)
{
    const orv::TextPtr text(json_dumps(value, JSON_ENCODE_ANY | JSON_COMPACT));
    return text ? text.get() : "(no value)";
}

JsonPtr collect(const std::vector<RecordId>& filter = {})
{
    diagnosis::Manager manager;
    manager.add(diagnosis::get_defaults(filter));
    return JsonPtr{manager.collect()};
}

JsonPtr value_of_record(const char* category, const char* name)
{
    const JsonPtr all = collect({{category, name}});
    return JsonPtr{json_incref(json_object_get(json_object_get(all.get(), category), name))};
}

/// One record's value as JSON text.
std::string record(const char* category, const char* name)
{
    return text_of(value_of_record(category, name).get());
}

json_int_t number(const char* category, const char* name)
{
    return json_integer_value(value_of_record(category, name).get());
}

void set(const std::string& key, const std::string& value)
{
    ASSERT_EQ(orv::setMgmt::setKey(key, value), 0) << key;
}

/// A socket in the file system at which somebody listens.
Fd listen_at(const std::string& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << path;
    EXPECT_EQ(listen(fd, 1), 0);
    return fd;
}

} // namespace

class DiagnosisTest : public StoreTest {
protected:
    void SetUp() override
    {
        StoreTest::SetUp();
        unsetenv("ORVEX_ADDRESS");
    }
    void TearDown() override
    {
        unsetenv("ORVEX_ADDRESS");
        StoreTest::TearDown();
    }

    void make_directory(const std::string& name) const
    {
        ASSERT_EQ(mkdir((m_root.path() + "/" + name).c_str(), 0755), 0);
    }
};

/// Which request of the JSON library for memory fails, from 1; 0: none.
unsigned g_failing = 0;
unsigned g_requests = 0;

void* allocate_for_json(std::size_t size)
{
    return ++g_requests == g_failing ? nullptr : std::malloc(size); // NOLINT(cppcoreguidelines-no-malloc)
}

TEST_F(DiagnosisTest, IsWholeOrNoneWhenTheJSONLibraryHasNoMemory)
{
    set("/network/interfaces/lo", "lan");
    diagnosis::Manager manager;
    manager.add(
        diagnosis::get_defaults({{"network", "interfaces"}, {"system", "load"}, {"agent", "version"}}));
    json_set_alloc_funcs(allocate_for_json, std::free);
    unsigned failures = 0;
    for (g_failing = 1, g_requests = 1; g_requests >= g_failing; ++g_failing) {
        g_requests = 0;
        const JsonPtr report{manager.report()};
        EXPECT_TRUE(report || g_requests >= g_failing) << g_failing;
        failures += report ? 0 : 1;
        for (const char* member : {"network", "system", "agent", "generated_at", "agent_version"})
            EXPECT_TRUE(!report || json_object_get(report.get(), member)) << g_failing << ", " << member;
    }
    g_failing = 0;
    EXPECT_GT(failures, 5U);
    EXPECT_TRUE(json_is_string(json_object_get(JsonPtr{manager.report()}.get(), "agent_version")));
}

// ---- which records there are

TEST_F(DiagnosisTest, HasARecordForEachThingWorthKnowing)
{
    std::set<RecordId> ids;
    for (const auto& each : diagnosis::get_defaults())
        ids.insert(each.id);
    const std::set<RecordId> expected{
        {"agent", "version"},      {"agent", "registered"},    {"agent", "subscription"},
        {"agent", "enabled"},      {"va", "scheduled"},        {"system", "uptime"},
        {"system", "load"},        {"system", "memory_total"}, {"system", "memory_available"},
        {"system", "kernel"},      {"network", "interfaces"},  {"exchange", "address"},
        {"exchange", "reachable"}, {"devices", "count"},       {"devices", "blocked"},
    };
    EXPECT_EQ(ids, expected);
}

TEST_F(DiagnosisTest, AFilterChoosesRecordsInItsOwnOrderAndIgnoresUnknownOnes)
{
    const auto chosen =
        diagnosis::get_defaults({{"va", "scheduled"}, {"agent", "nothing"}, {"agent", "version"}});
    ASSERT_EQ(chosen.size(), 2U);
    EXPECT_EQ(chosen[0].id, RecordId("va", "scheduled"));
    EXPECT_EQ(chosen[1].id, RecordId("agent", "version"));
}

TEST_F(DiagnosisTest, TheStatusReportOfAFreshRouterIsExactlyThis)
{
    const JsonPtr status = collect({{"agent", "version"},
                                    {"agent", "registered"},
                                    {"agent", "subscription"},
                                    {"agent", "enabled"},
                                    {"va", "scheduled"}});
    EXPECT_EQ(text_of(status.get()), R"({"agent":{"version":"2.0.0.0","registered":false,)"
                                     R"("subscription":"none","enabled":true},"va":{"scheduled":false}})");
}

TEST_F(DiagnosisTest, CollectsRecordsOfOthersAndNullForThoseWithoutAValue)
{
    diagnosis::Manager manager;
    manager.add({{{"x", "one"}, [] { return json_integer(1); }}, {{"x", "none"}, [] { return nullptr; }}});
    manager.add({{{"y", "empty"}, nullptr}});
    const JsonPtr all{manager.collect()};
    EXPECT_EQ(text_of(all.get()), R"({"x":{"one":1,"none":null},"y":{"empty":null}})");
    const JsonPtr nothing{diagnosis::Manager().collect()};
    EXPECT_EQ(text_of(nothing.get()), "{}");
}

TEST_F(DiagnosisTest, TheReportAddsItsTimeAndTheVersion)
{
    diagnosis::Manager manager;
    manager.add(diagnosis::get_defaults());
    const std::time_t before = std::time(nullptr);
    const JsonPtr report{manager.report()};
    const char* stamp = json_string_value(json_object_get(report.get(), "generated_at"));
    ASSERT_NE(stamp, nullptr);
    std::tm utc{};
    const char* end = strptime(stamp, "%Y-%m-%dT%H:%M:%SZ", &utc);
    ASSERT_TRUE(end && *end == '\0') << stamp;
    EXPECT_GE(timegm(&utc), before);
    EXPECT_LE(timegm(&utc), std::time(nullptr));
    EXPECT_STREQ(json_string_value(json_object_get(report.get(), "agent_version")), "2.0.0.0");
    EXPECT_EQ(json_object_size(report.get()), 6U + 2U) << "six categories";
}

// ---- agent

TEST_F(DiagnosisTest, TellsTheReleaseVersion)
{
    make_directory("etc");
    spill(m_root.path() + "/etc/release", "version=3.1.4\npatch=2\n");
    EXPECT_EQ(record("agent", "version"), R"("3.1.4")");
}

TEST_F(DiagnosisTest, AVersionThatIsNoTextIsNullAndTheReportIsThere)
{
    make_directory("etc");
    spill(m_root.path() + "/etc/release", "version=\xff\n");
    EXPECT_EQ(record("agent", "version"), "null");
    diagnosis::Manager manager;
    manager.add(diagnosis::get_defaults({{"agent", "version"}}));
    const JsonPtr report{manager.report()};
    EXPECT_TRUE(json_is_null(json_object_get(report.get(), "agent_version"))) << text_of(report.get());
    EXPECT_TRUE(json_is_string(json_object_get(report.get(), "generated_at")));
}

TEST_F(DiagnosisTest, AnInterfaceWhoseTypeIsNoTextLacksOnlyThat)
{
    set(orv::kNetworkInterfacesKey / "lan-that-is-not", "lan");
    set(orv::kNetworkInterfacesKey / "wan-that-is-not", "\xff");
    EXPECT_EQ(record("network", "interfaces"),
              R"([{"name":"lan-that-is-not","type":"lan","state":"absent","addresses":[]},)"
              R"({"name":"wan-that-is-not","type":null,"state":"absent","addresses":[]}])");
}

TEST_F(DiagnosisTest, TheRouterIsRegisteredWithBothTokenAndIdentifier)
{
    set(orv::kUserTokenKey, "token");
    EXPECT_EQ(record("agent", "registered"), "false");
    set(orv::kDeviceIdKey, "");
    EXPECT_EQ(record("agent", "registered"), "false");
    set(orv::kDeviceIdKey, "r1");
    EXPECT_EQ(record("agent", "registered"), "true");
    set(orv::kUserTokenKey, "");
    EXPECT_EQ(record("agent", "registered"), "false");
}

TEST_F(DiagnosisTest, TellsTheStatusOfTheGlobalSubscription)
{
    set("/tmp/subscription/other/status", "valid");
    EXPECT_EQ(record("agent", "subscription"), R"("none")");
    set("/tmp/subscription/global/status", "expired");
    EXPECT_EQ(record("agent", "subscription"), R"("expired")");
    set("/tmp/subscription/global/status", "nonsense");
    EXPECT_EQ(record("agent", "subscription"), "null");
}

TEST_F(DiagnosisTest, TellsWhetherTheProtectionIsOn)
{
    set(orv::kProtectionEnabledKey, "0");
    EXPECT_EQ(record("agent", "enabled"), "false");
    set(orv::kProtectionEnabledKey, "1");
    EXPECT_EQ(record("agent", "enabled"), "true");
    set(orv::kProtectionEnabledKey, "maybe");
    EXPECT_EQ(record("agent", "enabled"), "null");
}

TEST_F(DiagnosisTest, ScansAreScheduledWhenTheScheduleSaysSoAndDoesNotDenyIt)
{
    const std::pair<const char*, const char*> rows[] = {
        {"{}", "false"},
        {R"({"scheduled": true})", "true"},
        {R"({"scheduled": false})", "false"},
        {R"({"enabled": true})", "true"},
        {R"({"enabled": false})", "false"},
        {R"({"scheduled": true, "enabled": false})", "false"},
        {R"({"scheduled": false, "enabled": true})", "false"},
        {R"({"scheduled": true, "enabled": true})", "true"},
        {R"({"hour": 3})", "false"},
        {"", "false"},
        {"[]", "null"},
        {"{", "null"},
    };
    for (const auto& [schedule, expected] : rows) {
        set("/va/schedule", schedule);
        EXPECT_EQ(record("va", "scheduled"), expected) << schedule;
    }
}

TEST_F(DiagnosisTest, WithoutAStoreWhatDependsOnItIsNullAndTheRestIsThere)
{
    orv::setMgmt::uninit();
    for (const auto& [category, name] :
         {std::pair("agent", "registered"), std::pair("agent", "subscription"), std::pair("agent", "enabled"),
          std::pair("va", "scheduled"), std::pair("network", "interfaces"), std::pair("devices", "count"),
          std::pair("devices", "blocked")})
        EXPECT_EQ(record(category, name), "null") << category << '.' << name;
    EXPECT_NE(record("system", "kernel"), "null");
    EXPECT_NE(record("agent", "version"), "null");
    ASSERT_EQ(orv::setMgmt::init(), 0);
}

// ---- devices

TEST_F(DiagnosisTest, CountsTheDevicesAndThoseThatAreBlocked)
{
    ASSERT_EQ(orv::devMgmt::init(), 0);
    EXPECT_EQ(record("devices", "count"), "0");
    for (const char* id : {"d1", "d2", "d3"}) {
        orv::devMgmt::Device device;
        device.did = id;
        device.traffic_blocked = device.did == "d2" ? 1 : 0;
        ASSERT_EQ(orv::devMgmt::put_device(device), 0);
    }
    EXPECT_EQ(record("devices", "count"), "3");
    EXPECT_EQ(record("devices", "blocked"), "1");
    orv::devMgmt::uninit();
    EXPECT_EQ(record("devices", "count"), "null");
}

// ---- the machine

TEST_F(DiagnosisTest, TellsTheMachinesUptimeMemoryLoadAndKernel)
{
    struct sysinfo info {};
    ASSERT_EQ(sysinfo(&info), 0);
    EXPECT_NEAR(static_cast<double>(number("system", "uptime")), static_cast<double>(info.uptime), 2);
    EXPECT_EQ(number("system", "memory_total"),
              static_cast<json_int_t>(info.totalram) * static_cast<json_int_t>(info.mem_unit));
    EXPECT_GT(number("system", "memory_available"), 0);
    EXPECT_LE(number("system", "memory_available"), number("system", "memory_total"));

    const JsonPtr load = value_of_record("system", "load");
    ASSERT_EQ(json_array_size(load.get()), 3U);
    EXPECT_GE(json_real_value(json_array_get(load.get(), 0)), 0);

    utsname names{};
    ASSERT_EQ(uname(&names), 0);
    EXPECT_EQ(record("system", "kernel"), '"' + std::string(names.release) + '"');
}

TEST_F(DiagnosisTest, TellsTheStateOfTheInterfacesThatAreNamedAndNoOthers)
{
    EXPECT_EQ(record("network", "interfaces"), "[]");
    set(orv::kNetworkInterfacesKey / "lo", "lan");
    set(orv::kNetworkInterfacesKey / "wan-that-is-not", "wan");
    const JsonPtr interfaces = value_of_record("network", "interfaces");
    ASSERT_EQ(json_array_size(interfaces.get()), 2U);
    const json_t* loopback = json_array_get(interfaces.get(), 0);
    EXPECT_STREQ(json_string_value(json_object_get(loopback, "name")), "lo");
    EXPECT_STREQ(json_string_value(json_object_get(loopback, "type")), "lan");
    std::ifstream flags("/sys/class/net/lo/flags");
    std::string hexadecimal;
    flags >> hexadecimal;
    const bool is_up = (std::stoul(hexadecimal, nullptr, 16) & 1U) != 0;
    EXPECT_STREQ(json_string_value(json_object_get(loopback, "state")), is_up ? "up" : "down");
    const std::string addresses = text_of(json_object_get(loopback, "addresses"));
    EXPECT_EQ(addresses.find("127.0.0.1") != std::string::npos, is_up) << addresses;
    EXPECT_EQ(text_of(json_array_get(interfaces.get(), 1)),
              R"({"name":"wan-that-is-not","type":"wan","state":"absent","addresses":[]})");
}

// ---- the exchange

TEST_F(DiagnosisTest, TellsWhereTheExchangeIsAndWhetherSomebodyListensThere)
{
    const std::string socket = m_root.path() + "/run/exchange.skt";
    EXPECT_EQ(record("exchange", "address"), "\"unix:path=" + socket + '"');
    EXPECT_EQ(record("exchange", "reachable"), "false");
    make_directory("run");
    Fd listener = listen_at(socket);
    EXPECT_EQ(record("exchange", "reachable"), "true");
    listener.reset();
    EXPECT_EQ(record("exchange", "reachable"), "false") << "the socket is there, but nobody listens";
}

TEST_F(DiagnosisTest, TakesTheExchangesAddressFromTheEnvironment)
{
    const std::string socket = m_root.path() + "/other place.skt";
    const std::string address = "unix:path=" + m_root.path() + "/other%20place.skt";
    const Fd listener = listen_at(socket);
    setenv("ORVEX_ADDRESS", (address + ",guid=0123").c_str(), 1);
    EXPECT_EQ(record("exchange", "address"), '"' + address + ",guid=0123\"");
    EXPECT_EQ(record("exchange", "reachable"), "true");
    for (const char* unusable : {"tcp:host=localhost,port=1", "unix:path=/x%2", "unix:path=/x%zz"}) {
        setenv("ORVEX_ADDRESS", unusable, 1);
        EXPECT_EQ(record("exchange", "reachable"), "null") << unusable;
    }
    setenv("ORVEX_ADDRESS", ("unix:path=/" + std::string(200, 'x')).c_str(), 1);
    EXPECT_EQ(record("exchange", "reachable"), "null") << "no socket has so long a name";
}
