// Removing a satellite, and the two block lists that it goes on.

#include "support/scenario.h"

#include "commandsproc.h"

#include <fmt/format.h>

#include <algorithm>

namespace orv::test {
namespace {

using sockutl::macaddr;
using testing::Optional;
using testing::UnorderedElementsAre;

constexpr char kMac[] = "aa:bb:cc:00:00:01";
constexpr char kIdKey[] = "/registration/device_id";
constexpr char kScans[] = "/va/blacklist/satellites";
constexpr char kDiscovery[] = "/discovery/blacklist/satellites";
constexpr char kRemove[] = "broker-devmgmt:remove_satellites";
constexpr char kPayload[] = R"({"device_ids": ["sat-1"]})";
const Settings kRouter{{kIdKey, "router-1"}};

const std::string kLookUp = "devMgmt::get_device_id_by_mac(" + std::string(kMac) + ")";
const std::string kReadOwnId = "setMgmt::getKey(" + std::string(kIdKey) + ")";

class Satellites : public ScenarioTest {
protected:
    Satellites()
    {
        add("sat-1", kMac);
        add("router-1", "aa:bb:cc:00:00:ff");
        add("", "aa:bb:cc:00:00:02");
    }

    void add(const std::string& did, const char* mac)
    {
        platform->devices[did].did = did;
        platform->devices[did].macs[macaddr(mac)];
    }
};

fake::Calls listing(const std::string& key, const std::string& value = kMac)
{
    return {"setMgmt::lockKey(" + key + ")", "setMgmt::getKey(" + key + ")",
            "setMgmt::setKey(" + key + ", " + value + ")"};
}

std::string entries(const std::string& key, const std::string& list = {})
{
    return "Entries of '" + key + "': " + list;
}

std::string added(const std::string& key)
{
    return "Added entry '" + std::string(kMac) + "' to '" + key + "'";
}

/// A removal up to the point where the request goes out.
Scenario removal(const std::string& mac = kMac)
{
    return Scenario("remove_satellite", R"({"mac":")" + mac + "\"}")
        .with(kRouter)
        .calls({kLookUp, kReadOwnId})
        .logs({{3, "mac '" + std::string(kMac) + "' has device id 'sat-1'"},
               {2, "sending remove satellite request for device id 'sat-1'"}});
}

/// A removal with both lists empty.
Scenario removed(const std::string& mac = kMac)
{
    return removal(mac)
        .asks(kRemove, kPayload)
        .calls(listing(kScans))
        .calls(listing(kDiscovery))
        .logs({{3, entries(kScans)}, {3, added(kScans)}, {3, entries(kDiscovery)}, {3, added(kDiscovery)}})
        .leaves({{kIdKey, "router-1"}, {kScans, kMac}, {kDiscovery, kMac}});
}

TEST_F(Satellites, AreOnBothListsBeforeTheAnswer)
{
    for (const char* mac : {kMac, "AA:BB:CC:00:00:01", "aa-bb-cc-00-00-01", "Aa:bB:cC:00:00:01"})
        for (const char* type : {"0", "+0", " 0 and more"})
            check(removed(mac)
                      .then(type, "")
                      .logs({{2, "successfully sent remove satellite cloud request"}})
                      .succeeds());
}

TEST_F(Satellites, StayOnBothListsWhenTheAnswerIsAnError)
{
    for (const char* type : {"1", "2", "-1", "2147483647"})
        for (const char* data : {"", "{}", "no JSON"})
            check(removed()
                      .then(type, data)
                      .logs({{0, fmt::format("received timeout/error from cloud: "
                                             "(from:orvagent type:{} datalen:{} data:{})",
                                             type, std::string(data).size(), data)}})
                      .fails());
    for (const char* type : {"", "x", "-", "2147483648", "99999999999999999999"})
        check(removed()
                  .then(type)
                  .logs({{0, "Failed to convert value " + std::string(type) + " of type to int"}})
                  .fails());
}

TEST_F(Satellites, AreNamedByAMacOfSixBytes)
{
    for (const char* data : {"null", "true", "5", R"("aa:bb:cc:00:00:01")", "[]", R"(["aa:bb:cc:00:00:01"])",
                             "{}", R"({"mac":5})", R"({"mac":null})", R"({"mac":["aa:bb:cc:00:00:01"]})",
                             R"({"Mac":"aa:bb:cc:00:00:01"})"})
        check(Scenario("remove_satellite", data).with(kRouter).fails());
    for (const std::string& mac : {
             std::string(),
             std::string("a"),
             std::string("mac"),
             std::string("aabbcc000001"),
             std::string("aa:bb:cc:00:00"),
             std::string("aa:bb:cc:00:00:"),
             std::string(":aa:bb:cc:00:00"),
             std::string("aa:bb:cc:00:00:0"),
             std::string("aa:bb:cc:00:00:1"),
             std::string("a:bb:cc:00:00:01"),
             std::string("aa:bb:cc:00:00:011"),
             std::string("aa:bb:cc:00:00:01:02"),
             std::string("aa:bb:cc:00:00:01:"),
             std::string("aa:bb:cc:00:00:01 "),
             std::string(" aa:bb:cc:00:00:01"),
             std::string("aa:bb:cc:00:00:0g"),
             std::string("ga:bb:cc:00:00:01"),
             std::string("aa:bb:cc:00:00-01"),
             std::string("aa-bb:cc:00:00:01"),
             std::string("aa:bb::00:00:01"),
             std::string("aa::bb:cc:00:00:01"),
             std::string("aa.bb.cc.00.00.01"),
             std::string("aabb.cc00.0001"),
             std::string("aa:bb:cc:00:00:+1"),
             std::string("aa:bb:cc:00:00:-1"),
             std::string("aa:bb:cc:00:00: 1"),
             std::string("0xaa:bb:cc:00:00:01"),
             std::string("aa:bb:cc:00:00:0[1|2]"),
             std::string("\xc3\xa9:bb:cc:00:00:01"),
             std::string("{}%s%n"),
             std::string(10000, 'a'),
         })
        check(Scenario("remove_satellite", R"({"mac":")" + mac + "\"}")
                  .with(kRouter)
                  .logs({{0, "invalid mac: '" + mac + "'"}})
                  .fails());
}

TEST_F(Satellites, ThatNobodyKnowsAreNotFound)
{
    check(Scenario("remove_satellite", R"({"mac":"AA:bb:cc:00:00:99"})")
              .with(kRouter)
              .failing("devMgmt::get_device_id_by_mac(", 4)
              .calls({"devMgmt::get_device_id_by_mac(aa:bb:cc:00:00:99)"})
              .logs({{0, "failed to get device id for mac 'aa:bb:cc:00:00:99': 4"}})
              .fails(R"({"error": "not found", "code": -2})"));
    Peer peer = connect();
    EXPECT_EQ(ask(peer, command("remove_satellite", R"({"mac":"aa:bb:cc:00:00:99"})")),
              R"({"data": {"error": "not found", "code": -2}, "status": -1})");
}

TEST_F(Satellites, AreNeverTheRouterItself)
{
    check(Scenario("remove_satellite", R"({"mac":"aa:bb:cc:00:00:ff"})")
              .with(kRouter)
              .calls({"devMgmt::get_device_id_by_mac(aa:bb:cc:00:00:ff)", kReadOwnId})
              .logs({{3, "mac 'aa:bb:cc:00:00:ff' has device id 'router-1'"},
                     {0, "invalid/empty device id: 'router-1'"}})
              .fails());
    check(Scenario("remove_satellite", R"({"mac":"aa:bb:cc:00:00:02"})")
              .with(kRouter)
              .calls({"devMgmt::get_device_id_by_mac(aa:bb:cc:00:00:02)", kReadOwnId})
              .logs({{3, "mac 'aa:bb:cc:00:00:02' has device id ''"}, {0, "invalid/empty device id: ''"}})
              .fails());
}

TEST_F(Satellites, CannotBeToldFromARouterWithoutId)
{
    const Scenario scenario = Scenario("remove_satellite", R"({"mac":"aa:bb:cc:00:00:01"})")
                                  .calls({kLookUp, kReadOwnId})
                                  .logs({{3, "mac 'aa:bb:cc:00:00:01' has device id 'sat-1'"}})
                                  .fails();
    check(Scenario(scenario).logs({{0, "failed to get self device id: 4"}}));
    check(Scenario(scenario)
              .with(kRouter)
              .failing(kReadOwnId, 3)
              .logs({{0, "failed to get self device id: 3"}}));
}

TEST_F(Satellites, AreOnNoListWhenTheRequestCannotBeSent)
{
    check(removal()
              .failing("orvex_send_request(")
              .calls({"orvex_send_request(" + std::string(kRemove) + ", " + kPayload + ")"})
              .logs({{0, "failed to send " + std::string(kRemove) + " request: " + kPayload}})
              .fails());
}

TEST_F(Satellites, AreOnEachListOnce)
{
    const Settings both{{kIdKey, "router-1"}, {kScans, kMac}, {kDiscovery, kMac}};
    const auto read = [](const std::string& key) {
        return fake::Calls{"setMgmt::lockKey(" + key + ")", "setMgmt::getKey(" + key + ")"};
    };
    const std::string present = "Entry '" + std::string(kMac) + "' already present";
    check(removal("AA-BB-CC-00-00-01")
              .with(both)
              .asks(kRemove, kPayload)
              .calls(read(kScans))
              .calls(read(kDiscovery))
              .logs({{3, entries(kScans, kMac)}, {4, present}, {3, entries(kDiscovery, kMac)}, {4, present}})
              .then("0")
              .logs({{2, "successfully sent remove satellite cloud request"}})
              .succeeds());
}

TEST_F(Satellites, AreSentWhateverBecomesOfTheLists)
{
    const std::string key = kScans;
    const Scenario scenario = removal().asks(kRemove, kPayload);
    const Settings left{{kIdKey, "router-1"}, {kDiscovery, kMac}};
    const auto finish = [&](Scenario part) {
        check(part.calls(listing(kDiscovery))
                  .logs({{3, entries(kDiscovery)}, {3, added(kDiscovery)}})
                  .leaves(left)
                  .then("0")
                  .logs({{2, "successfully sent remove satellite cloud request"}})
                  .succeeds());
    };
    finish(Scenario(scenario)
               .failing("setMgmt::lockKey(" + key + ")", 3)
               .calls({"setMgmt::lockKey(" + key + ")"})
               .logs({{0, "lockKey('" + key + "'): 3"}}));
    finish(Scenario(scenario)
               .failing("setMgmt::getKey(" + key + ")", 3)
               .calls({"setMgmt::lockKey(" + key + ")", "setMgmt::getKey(" + key + ")"})
               .logs({{0, "getKey('" + key + "'): 3"}}));
    finish(Scenario(scenario)
               .failing("setMgmt::setKey(" + key, 2)
               .calls(listing(kScans))
               .logs({{3, entries(kScans)}, {0, "setKey('" + key + "'): 2"}}));
}

// ---- keys that hold a list

const path kListKey{"/list"};

TEST_F(Satellites, ListsAreReadFromATextWithCommas)
{
    struct Case {
        const char* text;
        std::set<std::string> entries;
    };
    for (const Case& c : {
             Case{"", {}},
             Case{"a", {"a"}},
             Case{"a,b", {"a", "b"}},
             Case{"b,a,b,a", {"a", "b"}},
             Case{"a, b", {"a", " b"}},
             Case{"a,,b", {"a", "", "b"}},
             Case{",a", {"", "a"}},
             Case{"a,", {"a", ""}},
             Case{",", {""}},
             Case{"a;b", {"a;b"}},
         }) {
        SCOPED_TRACE(c.text);
        platform->settings = {{"/list", c.text}};
        const auto list = brokerd::get_key_with_sep(kListKey);
        ASSERT_TRUE(list);
        EXPECT_EQ(std::set<std::string>(list->begin(), list->end()), c.entries);
        std::string logged;
        for (const auto& entry : *list)
            logged += (&entry == &*list->begin() ? "" : ",") + entry;
        EXPECT_EQ(platform->take_logs(), lines({{3, entries("/list", logged)}}));
    }
}

TEST_F(Satellites, ListsWithoutAValueAreEmpty)
{
    for (const int error : {4, 5}) {
        platform->fail("setMgmt::getKey(", 1, error);
        EXPECT_THAT(brokerd::get_key_with_sep(kListKey), Optional(UnorderedElementsAre()));
        EXPECT_EQ(platform->take_logs(), lines({{3, entries("/list")}}));
    }
    platform->settings = {{"/list/child", "x"}};
    EXPECT_THAT(brokerd::get_key_with_sep(kListKey), Optional(UnorderedElementsAre()));
}

TEST_F(Satellites, ListsThatCannotBeReadAreNoLists)
{
    for (const int error : {1, 2, 3, 6, 1000}) {
        platform->fail("setMgmt::getKey(", 1, error);
        EXPECT_EQ(brokerd::get_key_with_sep(kListKey), std::nullopt);
        EXPECT_EQ(platform->take_logs(), lines({{0, fmt::format("getKey('/list'): {}", error)}}));
    }
}

TEST_F(Satellites, ListsKeepTheirEntriesWhenOneIsAdded)
{
    platform->settings = {{"/list", "a,b,c"}};
    EXPECT_EQ(brokerd::blacklist_add(kListKey, "d"), 0);
    std::string text = platform->settings["/list"];
    EXPECT_EQ(text.size(), 7U);
    std::sort(text.begin(), text.end());
    EXPECT_EQ(text, ",,,abcd");
    EXPECT_EQ(platform->locked, (std::map<std::string, unsigned>{{"/list", 1}}))
        << "it is the daemon's from now on";

    EXPECT_EQ(brokerd::blacklist_add(kListKey, "b"), 0);
    EXPECT_EQ(platform->settings["/list"].size(), 7U);
}

TEST_F(Satellites, ListsFailToTakeAnEntryWhenAnyStepFails)
{
    for (const char* step : {"setMgmt::lockKey(", "setMgmt::getKey(", "setMgmt::setKey("}) {
        platform->settings = {{"/list", "a"}};
        platform->fail(step);
        EXPECT_LT(brokerd::blacklist_add(kListKey, "b"), 0) << step;
        EXPECT_EQ(platform->settings["/list"], "a");
    }
}

} // namespace
} // namespace orv::test
