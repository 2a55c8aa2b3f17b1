// Listing and renaming devices, blocking their traffic, and the queue of online-status requests.

#include "make_device.h"
#include "support/scenario.h"

#include <fmt/format.h>

namespace orv::test {
namespace {

using devMgmt::Device;
using sockutl::address;
using sockutl::macaddr;

constexpr char kOwnId[] = "router-1";
const std::string kReadOwnId = "setMgmt::getKeyValue(/registration/device_id, \"\")";
const Settings kRouter{{"/registration/device_id", kOwnId}};

/// How a device is listed; `macs` is the array's text.
std::string listed(const Device& device, const std::string& macs = "[]")
{
    return fmt::format(R"({{"macs": {}, "did": "{}", "display_name": "{}", "device_type": "{}", )"
                       R"("device_manufacturer": "{}", "device_os": "{}", "device_os_version": "{}", )"
                       R"("traffic_blocked": {}, "last_va_scan_ts": "{}"}})",
                       macs, device.did, device.display_name, device.device_type, device.device_manufacturer,
                       device.device_os, device.device_os_version, device.traffic_blocked,
                       device.last_va_scan_ts);
}

std::string look_up(const std::string& did)
{
    return "devMgmt::get_device(" + did + ")";
}

class Devices : public ScenarioTest {
protected:
    Devices()
    {
        for (const char* did : {"d1", "d2", "d3"})
            platform->devices[did] = make_device(did, did[1] == '2' ? "router-2" : kOwnId);
    }

    [[nodiscard]] const Device& device(const std::string& did) { return platform->devices[did]; }
};

// ---- the list

TEST_F(Devices, AreAllListedWithoutIds)
{
    const std::string own = "[" + listed(device("d1")) + ", " + listed(device("d3")) + "]";
    for (const char* data : {"", "[]", "null", "{}", R"({"a":1})", "5", "true", R"("d1")"})
        check(Scenario("get_devices", data)
                  .with(kRouter)
                  .calls({"devMgmt::get_devices()", kReadOwnId})
                  .succeeds(own));
}

TEST_F(Devices, AreListedInTheOrderOfTheIdsAskedFor)
{
    const std::string d1 = listed(device("d1"));
    const std::string d3 = listed(device("d3"));
    struct Case {
        const char* ids;
        fake::Calls calls;
        std::string list;
    };
    for (const Case& c : {
             Case{R"(["d1"])", {look_up("d1")}, "[" + d1 + "]"},
             Case{R"(["d3","d1"])", {look_up("d3"), look_up("d1")}, "[" + d3 + ", " + d1 + "]"},
             Case{R"(["d1","d1"])", {look_up("d1")}, "[" + d1 + ", " + d1 + "]"},
             Case{R"(["d2"])", {look_up("d2")}, "[]"},
             Case{R"(["d2","d3","d2"])", {look_up("d2"), look_up("d3")}, "[" + d3 + "]"},
             Case{R"(["unknown"])", {look_up("unknown")}, "[]"},
             Case{R"([""])", {look_up("")}, "[]"},
             Case{R"([5,null,{},["d1"],"d1"])", {look_up("d1")}, "[" + d1 + "]"},
             Case{"[null]", {}, "[]"},
         }) {
        fake::Calls calls = c.calls;
        calls.push_back(kReadOwnId);
        check(Scenario("get_devices", c.ids).with(kRouter).calls(calls).succeeds(c.list));
    }
}

TEST_F(Devices, ThatFailInTheLookUpAreLeftOut)
{
    check(Scenario("get_devices", R"(["d1","d3"])")
              .with(kRouter)
              .failing("devMgmt::get_device(d1)")
              .calls({look_up("d1"), look_up("d3"), kReadOwnId})
              .succeeds("[" + listed(device("d3")) + "]"));
    check(Scenario("get_devices")
              .with(kRouter)
              .failing("devMgmt::get_devices()")
              .calls({"devMgmt::get_devices()"})
              .fails());
}

TEST_F(Devices, WithoutAnOwnerAreThoseOfARouterWithoutId)
{
    platform->devices = {{"d4", make_device("d4", "")}, {"d5", make_device("d5")}};
    const fake::Calls calls{"devMgmt::get_devices()", kReadOwnId};
    check(Scenario("get_devices").calls(calls).succeeds("[" + listed(device("d4")) + "]"));
    check(Scenario("get_devices")
              .with(kRouter)
              .failing("setMgmt::getKeyValue(")
              .calls(calls)
              .succeeds("[" + listed(device("d4")) + "]"));
    check(Scenario("get_devices").with(kRouter).calls(calls).succeeds("[" + listed(device("d5")) + "]"));
}

TEST_F(Devices, AreListedWithOneIPv4AddressPerMac)
{
    struct Case {
        std::vector<const char*> addresses;
        const char* ip;
    };
    for (const Case& c : {
             Case{{}, ""},
             Case{{"192.168.1.20"}, "192.168.1.20"},
             Case{{"fe80::1"}, ""},
             Case{{"fe80::1", "2001:db8::1"}, ""},
             Case{{"fe80::1", "192.168.1.20", "2001:db8::1"}, "192.168.1.20"},
             Case{{"10.0.0.2", "10.0.0.1", "10.0.0.1"}, "10.0.0.1"},
         }) {
        std::set<address> addresses;
        for (const char* text : c.addresses)
            addresses.emplace(text);
        Device one = make_device("d1");
        one.macs[macaddr("AA:BB:CC:00:00:01")] = addresses;
        platform->devices = {{"d1", one}};
        const std::string macs = fmt::format(R"([{{"mac": "aa:bb:cc:00:00:01", "ip": "{}"}}])", c.ip);
        check(Scenario("get_devices")
                  .with(kRouter)
                  .calls({"devMgmt::get_devices()", kReadOwnId})
                  .succeeds("[" + listed(one, macs) + "]"));
    }
}

TEST_F(Devices, AreListedWithAllTheirMacs)
{
    Device one = make_device("d1");
    for (int i = 1; i <= 5; ++i)
        one.macs[macaddr(fmt::format("aa:bb:cc:00:00:{:02x}", i))] = {address(fmt::format("10.0.0.{}", i))};
    platform->devices = {{"d1", one}};
    std::string macs;
    for (const auto& [mac, addresses] : platform->devices["d1"].macs) // in the table's order
        macs += fmt::format(R"({}{{"mac": "{}", "ip": "{}"}})", macs.empty() ? "" : ", ",
                            mac.to_string(false), addresses.begin()->to_string(false));
    check(Scenario("get_devices", R"(["d1"])")
              .with(kRouter)
              .calls({look_up("d1"), kReadOwnId})
              .succeeds("[" + listed(one, "[" + macs + "]") + "]"));
}

TEST_F(Devices, AreListedWithWhateverTheirRecordsHold)
{
    Device odd = make_device("d1");
    odd.display_name = "";
    odd.device_type = "\xc3\xa9\xe2\x82\xac\xf0\x9f\x98\x80"; // of two, three and four bytes
    odd.last_va_scan_ts = "";
    odd.traffic_blocked = 1;
    platform->devices = {{"d1", odd}};
    check(Scenario("get_devices", R"(["d1"])")
              .with(kRouter)
              .calls({look_up("d1"), kReadOwnId})
              .succeeds("[" + listed(odd) + "]"));
    for (const std::int32_t number : {INT32_MIN, -1, 2, INT32_MAX}) {
        odd.traffic_blocked = number;
        platform->devices = {{"d1", odd}};
        check(Scenario("get_devices", R"(["d1"])")
                  .with(kRouter)
                  .calls({look_up("d1"), kReadOwnId})
                  .succeeds("[" + listed(odd) + "]"));
    }
}

TEST_F(Devices, WithATextThatIsNotUtf8AreListedWithoutIt)
{
    Device broken = make_device("d1");
    broken.display_name = "caf\xe9";
    platform->devices = {{"d1", broken}};
    std::string entry = listed(broken);
    const std::string member = "\"display_name\": \"caf\xe9\", ";
    entry.erase(entry.find(member), member.size());
    check(Scenario("get_devices")
              .with(kRouter)
              .calls({"devMgmt::get_devices()", kReadOwnId})
              .succeeds("[" + entry + "]"));
}

TEST_F(Devices, AreListedAThousandAtOnce)
{
    platform->devices.clear();
    std::string list;
    for (int i = 0; i < 1000; ++i) {
        const std::string did = fmt::format("device-{:04}", i);
        platform->devices[did] = make_device(did);
        list += (i == 0 ? "[" : ", ") + listed(device(did));
    }
    Peer peer = connect();
    platform->settings = kRouter;
    ASSERT_TRUE(receive(peer, command("get_devices") + "\n"));
    std::string bytes;
    while (peer.conn->tx.pending() > 0) {
        ASSERT_TRUE(handle(peer, EPOLLOUT));
        bytes += peer.client.bytes();
    }
    EXPECT_EQ(bytes, framed(R"({"data": )" + list + R"(], "status": 0})"));
}

// ---- names

constexpr char kNameKey[] = "/tmp/daemons/orvbrokerd/d1/friendly_name";
const std::string kReadName = "setMgmt::getKey(" + std::string(kNameKey) + ")";
constexpr char kRename[] = "broker-devmgmt:set_friendly_name";
constexpr char kRenameData[] = R"({"device_id":"d1","name":"New"})";
constexpr char kRenamePayload[] = R"({"connect_destination": {"device_id": "d1"}, "friendly_name": "New"})";

Scenario rename(const std::string& data = kRenameData)
{
    return Scenario("set_device_name", data);
}

/// A rename up to the request, from the record's name.
Scenario renaming()
{
    return rename()
        .calls({kReadName, look_up("d1")})
        .logs({{2, "device_id=d1 name=New"}})
        .asks(kRename, kRenamePayload);
}

TEST_F(Devices, AreRenamedByTheDeviceManagement)
{
    check(renaming()
              .then("0", R"({"ignored":true})")
              .calls({"setMgmt::setKey(" + std::string(kNameKey) + ", New)"})
              .logs({{2, "Set name=New for device_id=d1"}})
              .leaves({{kNameKey, "New"}})
              .succeeds());
}

TEST_F(Devices, AreNotRenamedWhenTheArgumentIsMalformed)
{
    for (const char* data :
         {"null", "true", "5", R"("d1")", "[]", R"(["d1","New"])", "{}", R"({"device_id":"d1"})",
          R"({"name":"New"})", R"({"device_id":1,"name":"New"})", R"({"device_id":"d1","name":null})",
          R"({"device_id":["d1"],"name":"New"})", R"({"Device_id":"d1","name":"New"})"})
        check(rename(data).fails());
}

TEST_F(Devices, AreRenamedByNoEmptyIdOrName)
{
    check(rename(R"({"device_id":"","name":"New"})")
              .logs({{2, "device_id= name=New"}, {0, "No device_id provided"}})
              .fails());
    check(rename(R"({"device_id":"","name":""})")
              .logs({{2, "device_id= name="}, {0, "No device_id provided"}})
              .fails());
    check(rename(R"({"device_id":"d1","name":""})")
              .logs({{2, "device_id=d1 name="}, {0, "Empty string friendly_name provided"}})
              .fails());
}

TEST_F(Devices, ThatAreUnknownCannotBeRenamedUnlessTheyHadANameFromHere)
{
    check(rename(R"({"device_id":"none","name":"New"})")
              .calls({"setMgmt::getKey(/tmp/daemons/orvbrokerd/none/friendly_name)", look_up("none")})
              .logs({{2, "device_id=none name=New"}, {0, "device_id=none not found"}})
              .fails());
    check(rename(R"({"device_id":"none","name":"New"})")
              .with({{"/tmp/daemons/orvbrokerd/none/friendly_name", "Old"}})
              .calls({"setMgmt::getKey(/tmp/daemons/orvbrokerd/none/friendly_name)"})
              .logs({{2, "device_id=none name=New"}})
              .asks(kRename, R"({"connect_destination": {"device_id": "none"}, "friendly_name": "New"})")
              .then("1")
              .logs({{0, "Received error response from cloud"}})
              .fails());
}

TEST_F(Devices, ThatHaveTheNameAlreadyAreNotRenamed)
{
    constexpr char kSame[] = "Current device name is same as given name.";
    check(rename(R"({"device_id":"d1","name":"My TV"})") // as the record says
              .calls({kReadName, look_up("d1")})
              .logs({{2, "device_id=d1 name=My TV"}, {2, kSame}})
              .succeeds());
    check(rename() // as stored here, whatever the record says
              .with({{kNameKey, "New"}})
              .calls({kReadName})
              .logs({{2, "device_id=d1 name=New"}, {2, kSame}})
              .succeeds());
    check(rename(R"({"device_id":"d1","name":"My TV"})") // another one is stored here
              .with({{kNameKey, "Stored"}})
              .calls({kReadName})
              .logs({{2, "device_id=d1 name=My TV"}})
              .asks(kRename, R"({"connect_destination": {"device_id": "d1"}, "friendly_name": "My TV"})")
              .then("2")
              .logs({{0, "Received error response from cloud"}})
              .fails());
    check(rename(R"({"device_id":"d1","name":"Shown"})") // the display name is another thing
              .calls({kReadName, look_up("d1")})
              .logs({{2, "device_id=d1 name=Shown"}})
              .asks(kRename, R"({"connect_destination": {"device_id": "d1"}, "friendly_name": "Shown"})")
              .then("2")
              .logs({{0, "Received error response from cloud"}})
              .fails());
}

TEST_F(Devices, AreLookedUpWhenTheNameStoredHereCannotBeRead)
{
    check(rename(R"({"device_id":"d1","name":"My TV"})")
              .with({{kNameKey, "Stored"}})
              .failing(kReadName)
              .calls({kReadName, look_up("d1")})
              .logs({{2, "device_id=d1 name=My TV"}, {2, "Current device name is same as given name."}})
              .succeeds());
    check(rename()
              .failing(look_up("d1"))
              .calls({kReadName, look_up("d1")})
              .logs({{2, "device_id=d1 name=New"}, {0, "device_id=d1 not found"}})
              .fails());
}

TEST_F(Devices, CanHaveAnyNameThatIsNotEmpty)
{
    for (const std::string& name : {std::string(" "), std::string("a/b"), std::string("{}%s%n"),
                                    std::string("\xc3\xa9\xf0\x9f\x98\x80"), std::string(1000, 'n')})
        check(rename(R"({"device_id":"d1","name":")" + name + R"(","more":[1]})")
                  .calls({kReadName, look_up("d1")})
                  .logs({{2, "device_id=d1 name=" + name}})
                  .asks(kRename,
                        R"({"connect_destination": {"device_id": "d1"}, "friendly_name": ")" + name + "\"}")
                  .then("0")
                  .calls({"setMgmt::setKey(" + std::string(kNameKey) + ", " + name + ")"})
                  .logs({{2, "Set name=" + name + " for device_id=d1"}})
                  .leaves({{kNameKey, name}})
                  .succeeds());
}

/// What the device management's answer says by its type.
struct Answer {
    const char* type;
    bool is_number;
    bool confirms;
};

const Answer kAnswers[] = {
    {"0", true, true},
    {"00", true, true},
    {"+0", true, true},
    {"-0", true, true},
    {" 0", true, true},
    {"\t\n0", true, true},
    {"0 and more", true, true},
    {"0x1", true, true}, // base 10: the number ends before the x
    {"1", true, false},
    {"-1", true, false},
    {"2", true, false},
    {"10", true, false},
    {"2147483647", true, false},
    {"-2147483648", true, false},
    {"2147483648", false, false},
    {"-2147483649", false, false},
    {"4294967296", false, false}, // would be 0 in 32 bits
    {"18446744073709551616", false, false},
    {"", false, false},
    {" ", false, false},
    {"-", false, false},
    {"- 0", false, false},
    {"x0", false, false},
    {"ok", false, false},
    {"set_friendly_name", false, false},
};

fake::Logs refusal(const Answer& answer)
{
    if (answer.is_number)
        return lines({{0, "Received error response from cloud"}});
    return lines({{0, "Failed to convert value " + std::string(answer.type) + " of type to int"}});
}

TEST_F(Devices, AreRenamedWhenTheAnswersTypeIsZeroAndOnlyThen)
{
    for (const Answer& answer : kAnswers)
        for (const char* data : {"{}", "", "no JSON", R"({"result":"0"})"}) {
            Scenario scenario = renaming().then(answer.type, data);
            if (answer.confirms) {
                check(scenario.calls({"setMgmt::setKey(" + std::string(kNameKey) + ", New)"})
                          .logs({{2, "Set name=New for device_id=d1"}})
                          .leaves({{kNameKey, "New"}})
                          .succeeds());
                continue;
            }
            for (const auto& line : refusal(answer))
                scenario.logs({{line.level, line.text}});
            check(scenario.fails());
        }
}

TEST_F(Devices, WhoseNewNameCannotBeStoredFailSilently)
{
    check(renaming()
              .failing("setMgmt::setKey(")
              .then("0")
              .calls({"setMgmt::setKey(" + std::string(kNameKey) + ", New)"})
              .fails());
}

TEST_F(Devices, WhoseRenameCannotBeSentFailAtOnce)
{
    check(rename()
              .failing("orvex_send_request(")
              .calls({kReadName, look_up("d1"),
                      "orvex_send_request(" + std::string(kRename) + ", " + kRenamePayload + ")"})
              .logs({{2, "device_id=d1 name=New"},
                     {0, "failed to send " + std::string(kRename) + " request: " + kRenamePayload}})
              .fails());
}

TEST_F(Devices, AreRenamedAlsoWhenTheClientHasGone)
{
    Peer peer = connect();
    ASSERT_TRUE(receive(peer, command("set_device_name", kRenameData) + "\n"));
    destroy(peer);
    forget_records();
    platform->answer("{}", "0");
    read_exchange();
    EXPECT_EQ(platform->settings, (Settings{{kNameKey, "New"}}));
    EXPECT_EQ(platform->take_logs(), lines({{2, "Set name=New for device_id=d1"}}));
}

// ---- traffic

constexpr char kBlock[] = "broker-devmgmt:set_traffic_status";
constexpr char kBlockPayload[] = R"({"connect_destination": {"device_id": "d1"}, "blocked": 1})";

Scenario block(const std::string& value, const std::string& did = "d1")
{
    return Scenario("set_device_traffic_blocked",
                    R"({"device_id":")" + did + R"(","traffic_blocked":)" + value + "}");
}

Scenario blocking()
{
    return block("1")
        .calls({look_up("d1")})
        .logs({{2, "device_id=d1 traffic_blocked=1"}})
        .asks(kBlock, kBlockPayload);
}

TEST_F(Devices, AreBlockedWhenTheAnswersTypeIsZeroAndOnlyThen)
{
    for (const Answer& answer : kAnswers)
        for (const char* data : {"{}", "", "no JSON"}) {
            Scenario scenario = blocking().then(answer.type, data);
            if (answer.confirms) {
                check(scenario.logs({{2, "Set traffic_blocked=1 for device_id=d1"}}).succeeds());
                continue;
            }
            for (const auto& line : refusal(answer))
                scenario.logs({{line.level, line.text}});
            check(scenario.fails());
        }
}

TEST_F(Devices, ThatAreBlockedCanBeUnblocked)
{
    platform->devices["d1"].traffic_blocked = 1;
    check(block("0")
              .calls({look_up("d1")})
              .logs({{2, "device_id=d1 traffic_blocked=0"}})
              .asks(kBlock, R"({"connect_destination": {"device_id": "d1"}, "blocked": 0})")
              .then("0")
              .logs({{2, "Set traffic_blocked=0 for device_id=d1"}})
              .succeeds());
}

TEST_F(Devices, AreNotBlockedWhenTheArgumentIsMalformed)
{
    for (const char* data :
         {"null", "true", "1", R"("d1")", "[]", R"(["d1",1])", "{}", R"({"device_id":"d1"})",
          R"({"traffic_blocked":1})", R"({"device_id":"d1","traffic_blocked":true})",
          R"({"device_id":"d1","traffic_blocked":"1"})", R"({"device_id":"d1","traffic_blocked":1.0})",
          R"({"device_id":"d1","traffic_blocked":null})", R"({"device_id":1,"traffic_blocked":1})"})
        check(Scenario("set_device_traffic_blocked", data).fails());
}

TEST_F(Devices, CanOnlyBeBlockedOrNot)
{
    for (const char* value :
         {"2", "-1", "2147483647", "-2147483648", "4294967296", "4294967297", "-4294967295",
          "9223372036854775807", "-9223372036854775808"}) // in 32 bits, 0 and 1 would be among them
        check(block(value)
                  .logs({{2, "device_id=d1 traffic_blocked=" + std::string(value)},
                         {0, "Invalid value for traffic_blocked"}})
                  .fails());
    check(block("1", "").logs({{2, "device_id= traffic_blocked=1"}, {0, "No device_id provided"}}).fails());
    check(block("7", "").logs({{2, "device_id= traffic_blocked=7"}, {0, "No device_id provided"}}).fails());
}

TEST_F(Devices, ThatAreUnknownCannotBeBlocked)
{
    check(block("1", "none")
              .calls({look_up("none")})
              .logs({{2, "device_id=none traffic_blocked=1"}, {0, "device_id=none not found"}})
              .fails());
    check(block("1")
              .failing(look_up("d1"))
              .calls({look_up("d1")})
              .logs({{2, "device_id=d1 traffic_blocked=1"}, {0, "device_id=d1 not found"}})
              .fails());
}

TEST_F(Devices, ThatAreBlockedAlreadyAreNotBlockedAgain)
{
    for (const int now : {0, 1}) {
        platform->devices["d1"].traffic_blocked = now;
        check(block(std::to_string(now))
                  .calls({look_up("d1")})
                  .logs({{2, "device_id=d1 traffic_blocked=" + std::to_string(now)},
                         {2, "Current device traffic_blocked is same as given traffic_blocked."}})
                  .succeeds());
    }
}

TEST_F(Devices, WhoseBlockingCannotBeSentFailAtOnce)
{
    check(
        block("1")
            .failing("orvex_send_request(")
            .calls({look_up("d1"), "orvex_send_request(" + std::string(kBlock) + ", " + kBlockPayload + ")"})
            .logs({{2, "device_id=d1 traffic_blocked=1"},
                   {0, "failed to send " + std::string(kBlock) + " request: " + kBlockPayload}})
            .fails());
}

// ---- online status

const std::string kQueue = "/tmp/daemons/orvleases-ng/requests";
constexpr char kStatusMessage[] = "broker-devmgmt:set_online_status";
const Settings kQueueing{{"/leases/mode", "orvleases-ng"}};

/// An online-status report up to the queue.
Scenario online(const std::string& data = R"({"d1":1})", const std::string& text = R"({"d1": 1})")
{
    return Scenario("set_device_online_status", data)
        .with(kQueueing)
        .calls(
            {"get_orvleases_mode()", "orvex_send_message(" + std::string(kStatusMessage) + ", " + text + ")"})
        .logs({{2, "set_device_online_status: " + text},
               {2, "successfully sent " + std::string(kStatusMessage) + " message: " + text}});
}

std::string key(const std::string& piece)
{
    return kQueue + "/" + piece;
}

const std::string kLock = "setMgmt::lockKey(" + kQueue + ")";
const std::string kUnlock = "setMgmt::unlockKey(" + kQueue + ")";
const std::string kReadCount = "setMgmt::getKeyValue(" + key("count") + ", \"\")";
const std::string kEmpty = "setMgmt::deleteKey(" + kQueue + ")";

std::string put(const std::string& piece, const std::string& value)
{
    return "setMgmt::setKey(" + key(piece) + ", " + value + ")";
}

TEST_F(Devices, OnlineStatusIsPassedOnAndQueued)
{
    for (const auto& [data, text] : std::vector<std::pair<std::string, std::string>>{
             {R"({"d1":1})", R"({"d1": 1})"},
             {"{}", "{}"},
             {"[]", "[]"},
             {R"([{"device_id":"d1","online":true}])", R"([{"device_id": "d1", "online": true}])"},
             {R"({"text":")" + std::string(100000, 'x') + "\"}",
              R"({"text": ")" + std::string(100000, 'x') + "\"}"}})
        check(online(data, text)
                  .calls({kLock, kReadCount, put("0", text), put("count", "1"), kUnlock})
                  .logs({{3, "Saved req '" + text + "' at index 0"}})
                  .leaves({{"/leases/mode", "orvleases-ng"}, {key("0"), text}, {key("count"), "1"}})
                  .succeeds());
}

TEST_F(Devices, OnlineStatusIsQueuedBehindWhatIsThere)
{
    for (const int count : {1, 2, 50, 98, 99}) {
        Settings queue{{"/leases/mode", "orvleases-ng"}, {key("count"), std::to_string(count)}};
        for (int i = 0; i < count; ++i)
            queue[key(std::to_string(i))] = "{}";
        Settings left = queue;
        left[key(std::to_string(count))] = R"({"d1": 1})";
        left[key("count")] = std::to_string(count + 1);
        check(online()
                  .with(queue)
                  .calls({kLock, kReadCount, put(std::to_string(count), R"({"d1": 1})"),
                          put("count", std::to_string(count + 1)), kUnlock})
                  .logs({{3, fmt::format(R"(Saved req '{{"d1": 1}}' at index {})", count)}})
                  .leaves(left)
                  .succeeds());
    }
}

TEST_F(Devices, OnlineStatusFindsAFullQueueAndEmptiesIt)
{
    for (const char* count :
         {"100", "101", "2147483647", "2147483648", "4294967296", "18446744073709551616", "-1"}) {
        Settings queue{{key("count"), count}};
        for (int i = 0; i < 100; ++i)
            queue[key(std::to_string(i))] = "{}";
        check(online()
                  .with(queue)
                  .calls({kLock, kReadCount, kEmpty, put("0", R"({"d1": 1})"), put("count", "1"), kUnlock})
                  .logs({{3, R"(Saved req '{"d1": 1}' at index 0)"}})
                  .leaves({{"/leases/mode", "orvleases-ng"}, {key("0"), R"({"d1": 1})"}, {key("count"), "1"}})
                  .succeeds());
    }
}

TEST_F(Devices, OnlineStatusIsKeptForAHundredReportsAndThenStartsAnew)
{
    Settings settings = kQueueing;
    for (int i = 0; i < 101; ++i) {
        platform->settings = settings;
        Peer peer = connect();
        ASSERT_EQ(ask(peer, command("set_device_online_status", fmt::format("[{}]", i))),
                  R"({"data": null, "status": 0})");
        settings = platform->settings;
        if (i == 99) {
            EXPECT_EQ(settings.size(), 102U);
            EXPECT_EQ(settings[key("99")], "[99]");
            EXPECT_EQ(settings[key("count")], "100");
        }
        destroy(peer);
    }
    EXPECT_EQ(settings,
              (Settings{{"/leases/mode", "orvleases-ng"}, {key("0"), "[100]"}, {key("count"), "1"}}));
}

TEST_F(Devices, OnlineStatusWithABrokenCountStartsAtZero)
{
    for (const char* count : {"", "x", "5x", "-", "-0", "+5"})
        check(online()
                  .with({{key("count"), count}})
                  .calls({kLock, kReadCount, put("0", R"({"d1": 1})"), put("count", "1"), kUnlock})
                  .logs({{3, R"(Saved req '{"d1": 1}' at index 0)"}})
                  .leaves({{"/leases/mode", "orvleases-ng"}, {key("0"), R"({"d1": 1})"}, {key("count"), "1"}})
                  .succeeds());
}

TEST_F(Devices, OnlineStatusIsMeasuredWhenItIsLargeAndStartsTheQueueAnewWhenThatTakesTooMuch)
{
    const std::string large(100000, 'x');
    const std::string text = R"({"text": ")" + large + "\"}";
    for (const int before : {82, 83}) {
        Settings queue{{key("count"), std::to_string(before)}};
        for (int i = 0; i < before; ++i)
            queue[key(std::to_string(i))] = large;
        queue["/leases/mode"] = "orvleases-ng";
        platform->settings = queue;
        Peer peer = connect();
        ASSERT_TRUE(receive_all(peer, command("set_device_online_status", text) + "\n"));
        EXPECT_TRUE(drain(peer));
        EXPECT_EQ(peer.client.frame(), R"({"data": null, "status": 0})");
        EXPECT_EQ(platform->settings[key("count")], before == 83 ? "1" : "83");
        EXPECT_EQ(platform->settings[key(before == 83 ? "0" : "82")], text);
        EXPECT_EQ(platform->settings.size(), before == 83 ? 3U : 85U);
        destroy(peer);
    }
}

TEST_F(Devices, OnlineStatusSucceedsWhateverBecomesOfTheQueue)
{
    const Settings saved{{"/leases/mode", "orvleases-ng"}, {key("0"), R"({"d1": 1})"}, {key("count"), "1"}};
    const std::string store = put("0", R"({"d1": 1})");
    check(online()
              .failing(kLock, 3)
              .calls({kLock})
              .logs({{0, "Failed to lock key '" + kQueue + "': "}})
              .succeeds());
    check(online()
              .failing(kReadCount)
              .calls({kLock, kReadCount, store, put("count", "1"), kUnlock})
              .logs({{3, R"(Saved req '{"d1": 1}' at index 0)"}})
              .leaves(saved)
              .succeeds());
    check(online()
              .with({{key("count"), "100"}})
              .failing(kEmpty)
              .calls({kLock, kReadCount, kEmpty, store, put("count", "1"), kUnlock})
              .logs({{0, "Failed to delete key '" + kQueue + "': "},
                     {3, R"(Saved req '{"d1": 1}' at index 0)"}})
              .leaves(saved)
              .succeeds());
    check(online()
              .failing(store, 3)
              .calls({kLock, kReadCount, store, kUnlock})
              .logs({{0, R"(Failed to set key for req '{"d1": 1}': 3)"}})
              .succeeds());
    check(online()
              .failing(put("count", "1"), 2)
              .calls({kLock, kReadCount, store, put("count", "1"), kUnlock})
              .logs({{0, "Failed to set key '" + key("count") + "': 2"}})
              .leaves({{"/leases/mode", "orvleases-ng"}, {key("0"), R"({"d1": 1})"}})
              .succeeds());
    check(online()
              .failing(kUnlock, 3)
              .calls({kLock, kReadCount, store, put("count", "1"), kUnlock})
              .logs({{3, R"(Saved req '{"d1": 1}' at index 0)"},
                     {0, "Failed to unlock key '" + kQueue + "': "}})
              .leaves(saved)
              .succeeds());
    check(online()
              .failing(store)
              .failing(kUnlock)
              .calls({kLock, kReadCount, store, kUnlock})
              .logs({{0, R"(Failed to set key for req '{"d1": 1}': 2)"},
                     {0, "Failed to unlock key '" + kQueue + "': "}})
              .succeeds());
}

TEST_F(Devices, OnlineStatusThatCannotBeSentIsNotQueued)
{
    check(Scenario("set_device_online_status", "[]")
              .with(kQueueing)
              .failing("orvex_send_message(")
              .calls({"get_orvleases_mode()", "orvex_send_message(" + std::string(kStatusMessage) + ", [])"})
              .logs({{2, "set_device_online_status: []"},
                     {0, "failed to send " + std::string(kStatusMessage) + " message: []"}})
              .fails());
}

TEST_F(Devices, OnlineStatusIsIgnoredInOtherModes)
{
    for (const auto& [settings, text] :
         std::vector<std::pair<Settings, std::string>>{{{}, "orvleases-orv"},
                                                       {{{"/leases/mode", "orvleases-orv"}}, "orvleases-orv"},
                                                       {{{"/leases/mode", ""}}, "(unknown)"},
                                                       {{{"/leases/mode", "1"}}, "(unknown)"}})
        for (const char* data : {R"({"d1": 1})", "5"})
            check(Scenario("set_device_online_status", data)
                      .with(settings)
                      .calls({"get_orvleases_mode()"})
                      .logs({{2, "set_device_online_status: " + std::string(data)},
                             {1, "orvleases mode is " + text + ", ignoring set_device_online_status"}})
                      .fails());
}

TEST_F(Devices, OnlineStatusNeedsSomethingThatHasAText)
{
    for (const char* data : {"null", "true", "5", "1.5", R"("online")"})
        check(Scenario("set_device_online_status", data)
                  .with(kQueueing)
                  .calls({"get_orvleases_mode()"})
                  .logs({{2, "set_device_online_status: " + std::string(data)}})
                  .fails());
}

} // namespace
} // namespace orv::test
