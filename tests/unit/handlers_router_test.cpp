// The router's name, model and feature-set level, its interfaces, its firewall script.

#include "support/scenario.h"

#include "commandsproc.h"

#include <fmt/format.h>

namespace orv::test {
namespace {

class Router : public ScenarioTest {};

constexpr char kNameKey[] = "/registration/tuvo_name";
constexpr char kModelKey[] = "/registration/device_model";
constexpr char kLevelKey[] = "/registration/feature_set_level";
constexpr char kMacKey[] = "/registration/mac";
constexpr char kTokenKey[] = "/registration/user_token";
constexpr char kIdKey[] = "/registration/device_id";

const Settings kRegistered{{kTokenKey, "t"}, {kIdKey, "router-1"}};
const Settings kIdentity{
    {kTokenKey, "t"}, {kIdKey, "router-1"}, {kNameKey, "Home"}, {kMacKey, "aa:bb:cc:00:00:01"}};

constexpr char kRename[] = "broker-devmgmt:set_friendly_name";
constexpr char kRegister[] = "broker-devmgmt:register_tuvo";
constexpr char kNotRegistered[] = "Router is not registered.";

std::string get(const std::string& key)
{
    return "setMgmt::getKey(" + key + ")";
}

std::string get_or_empty(const std::string& key)
{
    return "setMgmt::getKeyValue(" + key + ", \"\")";
}

std::string set(const std::string& key, const std::string& value)
{
    return "setMgmt::setKey(" + key + ", " + value + ")";
}

Settings plus(Settings settings, const std::string& key, const std::string& value)
{
    settings[key] = value;
    return settings;
}

Settings minus(Settings settings, const std::string& key)
{
    settings.erase(key);
    return settings;
}

// ---- reading

struct Getter {
    const char* command;
    const char* key;
};

const Getter kGetters[] = {
    {"get_router_name", kNameKey},
    {"get_router_model", kModelKey},
    {"get_router_feature_set_level", kLevelKey},
};

TEST_F(Router, TellsWhatIsStoredAsABareString)
{
    for (const Getter& getter : kGetters) {
        for (const char* value : {"Home", "", "null", "{}", "\xc3\xa9"})
            check(Scenario(getter.command)
                      .with({{getter.key, value}})
                      .calls({get(getter.key)})
                      .succeeds("\"" + std::string(value) + "\""));
        check(Scenario(getter.command)
                  .with({{getter.key, "say \"x\"\\\n"}})
                  .calls({get(getter.key)})
                  .succeeds(R"("say \"x\"\\\n")"));
    }
}

TEST_F(Router, HasNothingToTellWhenNothingIsStored)
{
    for (const Getter& getter : kGetters) {
        check(Scenario(getter.command).calls({get(getter.key)}).fails());
        check(Scenario(getter.command)
                  .with({{std::string(getter.key) + "/child", "x"}})
                  .calls({get(getter.key)})
                  .fails());
        check(Scenario(getter.command)
                  .with({{getter.key, "Home"}})
                  .failing(get(getter.key))
                  .calls({get(getter.key)})
                  .fails());
    }
}

// ---- when it is registered

/// Reads of the registered test, and what is found.
struct Registration {
    Settings settings;
    const char* failing; ///< null for none
    fake::Calls calls;
};

const Registration kUnregistered[] = {
    {{}, nullptr, {get(kTokenKey)}},
    {{{kIdKey, "router-1"}}, nullptr, {get(kTokenKey)}},
    {{{kTokenKey, ""}, {kIdKey, "router-1"}}, nullptr, {get(kTokenKey)}},
    {{{kTokenKey, "t"}}, nullptr, {get(kTokenKey), get(kIdKey)}},
    {{{kTokenKey, "t"}, {kIdKey, ""}}, nullptr, {get(kTokenKey), get(kIdKey)}},
    {kRegistered, "setMgmt::getKey(/registration/user_token)", {get(kTokenKey)}},
    {kRegistered, "setMgmt::getKey(/registration/device_id)", {get(kTokenKey), get(kIdKey)}},
};

struct Kept {
    const char* command;
    const char* key;
    const char* failure;
};

const Kept kKept[] = {
    {"set_router_name", kNameKey, "Could not save router name for a future use."},
    {"set_router_model", kModelKey, "Could not save router model for a future use."},
};

TEST_F(Router, KeepsNameAndModelUntilItIsRegistered)
{
    for (const Kept& kept : kKept)
        for (const Registration& found : kUnregistered) {
            const std::string line = "Set key " + std::string(kept.key) + " with value Home";
            Scenario scenario = Scenario(kept.command, R"("Home")").with(found.settings).calls(found.calls);
            if (found.failing)
                scenario.failing(found.failing);
            check(Scenario(scenario)
                      .calls({set(kept.key, "Home")})
                      .logs({{0, kNotRegistered}, {2, line}})
                      .leaves(plus(found.settings, kept.key, "Home"))
                      .succeeds());
            check(Scenario(scenario) // the same value is stored again
                      .with({{kept.key, "Home"}})
                      .calls({set(kept.key, "Home")})
                      .logs({{0, kNotRegistered}, {2, line}})
                      .succeeds());
            check(Scenario(scenario)
                      .failing("setMgmt::setKey(")
                      .calls({set(kept.key, "Home")})
                      .logs({{0, kNotRegistered}, {0, kept.failure}, {2, line}})
                      .succeeds());
        }
}

TEST_F(Router, KeepsNoLevelUntilItIsRegistered)
{
    for (const Registration& found : kUnregistered) {
        Scenario scenario = Scenario("set_router_feature_set_level", R"("velm-pro")")
                                .with(found.settings)
                                .calls(found.calls)
                                .logs({{0, kNotRegistered}})
                                .fails();
        check(found.failing ? scenario.failing(found.failing) : scenario);
    }
}

TEST_F(Router, HasNoEmptyName)
{
    for (const Settings& settings : {Settings{}, kIdentity})
        check(Scenario("set_router_name", R"("")")
                  .with(settings)
                  .logs({{2, "Router name is empty string."}})
                  .fails());
}

TEST_F(Router, CanHaveAnEmptyModelButNoOtherThanTheStoredOneIsSent)
{
    check(Scenario("set_router_model", R"("")")
              .calls({get(kTokenKey), set(kModelKey, "")})
              .logs({{0, kNotRegistered}, {2, "Set key " + std::string(kModelKey) + " with value "}})
              .leaves({{kModelKey, ""}})
              .succeeds());
    check(Scenario("set_router_model", R"("")")
              .with(kRegistered)
              .calls({get(kTokenKey), get(kIdKey), get_or_empty(kModelKey)})
              .logs({{2, "Current router model is same as given model."}})
              .succeeds());
}

// ---- the name

constexpr char kRenamePayload[] = R"({"friendly_name": "New"})";
const fake::Calls kNameReads{get(kTokenKey), get(kIdKey), get_or_empty(kNameKey)};

Scenario renaming()
{
    return Scenario("set_router_name", R"("New")")
        .with(kIdentity)
        .calls(kNameReads)
        .asks(kRename, kRenamePayload);
}

TEST_F(Router, IsRenamedByTheDeviceManagementOnceRegistered)
{
    check(renaming()
              .then("0")
              .calls({set(kNameKey, "New")})
              .logs({{2, "Set tuvo_name=New"}})
              .leaves(plus(kIdentity, kNameKey, "New"))
              .succeeds());
    check(renaming()
              .failing("setMgmt::setKey(")
              .then("0", "")
              .calls({set(kNameKey, "New")})
              .logs({{0, "failed to set tuvo_name=New"}})
              .fails());
    for (const char* type : {"1", "2", "-1", "2147483647"})
        check(renaming().then(type).logs({{0, "Received error response from cloud"}}).fails());
    for (const char* type : {"", "x", "2147483648", "99999999999999999999"})
        check(renaming()
                  .then(type)
                  .logs({{0, "Failed to convert value " + std::string(type) + " of type to int"}})
                  .fails());
}

TEST_F(Router, ThatHasTheNameAlreadyIsNotRenamed)
{
    check(Scenario("set_router_name", R"("Home")")
              .with(kIdentity)
              .calls(kNameReads)
              .logs({{2, "Current router name is same as given name."}})
              .succeeds());
    check(Scenario("set_router_name", R"("New")") // no name can be read: then it is another one
              .with(plus(kIdentity, kNameKey, "New"))
              .failing(get_or_empty(kNameKey))
              .calls(kNameReads)
              .asks(kRename, kRenamePayload)
              .then("1")
              .logs({{0, "Received error response from cloud"}})
              .fails());
    check(Scenario("set_router_name", R"("home")") // by its exact letters
              .with(kIdentity)
              .calls(kNameReads)
              .asks(kRename, R"({"friendly_name": "home"})")
              .then("1")
              .logs({{0, "Received error response from cloud"}})
              .fails());
}

// ---- model and level

struct Setter {
    const char* command;
    const char* key;
    const char* value;
    const char* same;    ///< line when it is the stored one
    const char* payload; ///< of the request
    const char* what;    ///< in the answer's lines
};

const Setter kModel{
    "set_router_model",
    kModelKey,
    "velm-pro",
    "Current router model is same as given model.",
    R"({"macs": ["aa:bb:cc:00:00:01"], "tuvo_detected_name": "Home", "device_model": "velm-pro"})",
    "router device_model"};
const Setter kLevel{
    "set_router_feature_set_level",
    kLevelKey,
    "velm-pro",
    "Current router feature set level same as stored one.",
    R"({"macs": ["aa:bb:cc:00:00:01"], "tuvo_detected_name": "Home", "feature_set_level": ["velm-pro"]})",
    "feature_set_level"};

fake::Calls reads(const Setter& setter)
{
    return {get(kTokenKey), get(kIdKey), get_or_empty(setter.key)};
}

Scenario registering(const Setter& setter)
{
    return Scenario(setter.command, "\"" + std::string(setter.value) + "\"")
        .with(kIdentity)
        .calls(reads(setter))
        .calls({get(kNameKey), get(kMacKey)})
        .asks(kRegister, setter.payload);
}

TEST_F(Router, StoresModelAndLevelWhenTheAnswerHasAResultWhateverItIs)
{
    for (const Setter& setter : {kModel, kLevel})
        for (const char* data : {R"({"result":"ok"})", R"({"result":false})", R"({"result":null})",
                                 R"({"result":-1})", R"({"error":"denied","result":{}})"})
            for (const char* type : {"0", "1", "2", "-5", "no number", ""})
                check(registering(setter)
                          .then(type, data)
                          .calls({set(setter.key, setter.value)})
                          .logs({{2, "Set " + std::string(setter.what) + "=" + setter.value}})
                          .leaves(plus(kIdentity, setter.key, setter.value))
                          .succeeds());
}

TEST_F(Router, StoresNoModelOrLevelOnAnyOtherAnswer)
{
    for (const Setter& setter : {kModel, kLevel})
        for (const char* data : {"", "{}", R"({"Result":"ok"})", R"(["result"])", R"("result")", "null", "ok",
                                 R"({"result":"ok")", R"({"result":"ok"} behind)"})
            for (const char* type : {"0", "1", "no number"})
                check(registering(setter).then(type, data).fails());
}

TEST_F(Router, FailsWhenModelOrLevelCannotBeStored)
{
    for (const Setter& setter : {kModel, kLevel})
        check(registering(setter)
                  .failing("setMgmt::setKey(")
                  .then("0", R"({"result":"ok"})")
                  .calls({set(setter.key, setter.value)})
                  .logs({{0, "failed to set " + std::string(setter.what) + "=" + setter.value}})
                  .fails());
}

TEST_F(Router, AsksForNothingWhenModelOrLevelAreTheStoredOnes)
{
    for (const Setter& setter : {kModel, kLevel})
        check(Scenario(setter.command, "\"" + std::string(setter.value) + "\"")
                  .with(plus(kRegistered, setter.key, setter.value))
                  .calls(reads(setter))
                  .logs({{2, setter.same}})
                  .succeeds());
}

TEST_F(Router, SendsModelOrLevelWithAnEmptyNameOrMacToo)
{
    for (const Setter& setter : {kModel, kLevel})
        for (const char* key : {kNameKey, kMacKey}) {
            std::string payload = setter.payload;
            const std::string value = '"' + kIdentity.at(key) + '"';
            ASSERT_NE(payload.find(value), std::string::npos) << payload;
            payload.replace(payload.find(value), value.size(), "\"\"");
            check(Scenario(setter.command, "\"" + std::string(setter.value) + "\"")
                      .with(plus(kIdentity, key, ""))
                      .calls(reads(setter))
                      .calls({get(kNameKey), get(kMacKey)})
                      .asks(kRegister, payload)
                      .then("0", "{}")
                      .fails());
        }
}

TEST_F(Router, NeedsANameAndAMacToSendModelOrLevel)
{
    for (const Setter& setter : {kModel, kLevel}) {
        const std::string data = "\"" + std::string(setter.value) + "\"";
        const Scenario scenario = Scenario(setter.command, data).calls(reads(setter)).calls({get(kNameKey)});
        check(
            Scenario(scenario).with(minus(kIdentity, kNameKey)).logs({{0, "Router name missing."}}).fails());
        check(Scenario(scenario)
                  .with(kIdentity)
                  .failing(get(kNameKey))
                  .logs({{0, "Router name missing."}})
                  .fails());
        check(Scenario(scenario)
                  .with(minus(kIdentity, kMacKey))
                  .calls({get(kMacKey)})
                  .logs({{0, "Router registration mac missing."}})
                  .fails());
        check(Scenario(scenario)
                  .with(kIdentity)
                  .failing(get(kMacKey))
                  .calls({get(kMacKey)})
                  .logs({{0, "Router registration mac missing."}})
                  .fails());
    }
}

TEST_F(Router, FailsAtOnceWhenARequestCannotBeSent)
{
    const auto failing = [](Scenario scenario, const std::string& request, const std::string& payload) {
        return scenario.failing("orvex_send_request(")
            .calls({"orvex_send_request(" + request + ", " + payload + ")"})
            .logs({{0, "failed to send " + request + " request: " + payload}})
            .fails();
    };
    check(failing(Scenario("set_router_name", R"("New")").with(kIdentity).calls(kNameReads), kRename,
                  kRenamePayload));
    for (const Setter& setter : {kModel, kLevel})
        check(failing(Scenario(setter.command, "\"" + std::string(setter.value) + "\"")
                          .with(kIdentity)
                          .calls(reads(setter))
                          .calls({get(kNameKey), get(kMacKey)}),
                      kRegister, setter.payload));
}

TEST_F(Router, KnowsFiveLevels)
{
    for (const std::string level :
         {"velm-light-1.0", "velm-light-1.1", "velm-basic-1.0", "velm-basic-1.1", "velm-pro"})
        check(Scenario(kLevel.command, "\"" + level + "\"")
                  .with(kIdentity)
                  .calls(reads(kLevel))
                  .calls({get(kNameKey), get(kMacKey)})
                  .asks(kRegister, R"({"macs": ["aa:bb:cc:00:00:01"], "tuvo_detected_name": "Home", )"
                                   R"("feature_set_level": [")" +
                                       level + R"("]})")
                  .then("0")
                  .fails());
    for (const char* level : {"", "velm", "Velm-pro", "VELM-PRO", "velm-pro ", " velm-pro", "velm-pro-1.0",
                              "velm-light", "velm-light-1.2", "velm-basic-1.00", "velm-light-1.0\\n"})
        for (const Settings& settings : {Settings{}, kIdentity})
            check(Scenario(kLevel.command, "\"" + std::string(level) + "\"")
                      .with(settings)
                      .logs({{0, "Invalid feature set level"}})
                      .fails());
}

// ---- interfaces

const std::string kInterfaces = "/network/interfaces";
const std::string kEnumerate = "setMgmt::enumSubkeys(" + kInterfaces + ")";
const std::string kLock = "setMgmt::lockKey(" + kInterfaces + ")";
const std::string kUnlock = "setMgmt::unlockKey(" + kInterfaces + ")";

std::string child(const std::string& name)
{
    return kInterfaces + "/" + name;
}

std::string remove(const std::string& name)
{
    return "setMgmt::deleteKey(" + child(name) + ")";
}

TEST_F(Router, ListsItsInterfaces)
{
    check(Scenario("get_router_interfaces").calls({kEnumerate}).succeeds("[]"));
    check(Scenario("get_router_interfaces")
              .with({{kInterfaces, "ignored"}, {"/network/interfaces2", "ignored"}})
              .calls({kEnumerate})
              .succeeds("[]"));
    check(Scenario("get_router_interfaces")
              .with({{child("wl0"), "guest"}, {child("br0"), "lan"}, {child("eth0"), "wan"}})
              .calls({kEnumerate, get_or_empty(child("br0")), get_or_empty(child("eth0")),
                      get_or_empty(child("wl0"))})
              .succeeds(R"([{"name": "br0", "type": "lan"}, {"name": "eth0", "type": "wan"}, )"
                        R"({"name": "wl0", "type": "guest"}])"));
}

TEST_F(Router, ListsInterfacesOfNoTypeToo)
{
    check(Scenario("get_router_interfaces")
              .with({{child("eth0/deeper"), "x"}, {child("wl0"), "odd"}})
              .calls({kEnumerate, get_or_empty(child("eth0")), get_or_empty(child("wl0"))})
              .succeeds(R"([{"name": "eth0", "type": ""}, {"name": "wl0", "type": "odd"}])"));
    check(Scenario("get_router_interfaces")
              .with({{child("eth0"), "wan"}})
              .failing("setMgmt::getKeyValue(")
              .calls({kEnumerate, get_or_empty(child("eth0"))})
              .succeeds(R"([{"name": "eth0", "type": ""}])"));
}

TEST_F(Router, ListsNoInterfaceWhoseTypeIsNotUtf8)
{
    check(Scenario("get_router_interfaces")
              .with({{child("br0"), "\xff"}, {child("eth0"), "wan"}})
              .calls({kEnumerate, get_or_empty(child("br0"))})
              .fails());
}

const std::string kBegin = "setMgmt::Batch()";
const std::string kCommit = "setMgmt::Batch::commit()";

/// A list of interfaces that is stored; `previous` are the keys that were there.
Scenario interfaces(const std::string& list, int size, const Settings& previous = {})
{
    return Scenario("set_router_interfaces", list)
        .with(previous)
        .calls({kLock, kBegin, kEnumerate})
        .logs({{2, fmt::format("Found {} interfaces", size)}})
        .succeeds();
}

std::string stored(const std::string& name, const std::string& type)
{
    return "Set interface name=" + name + " type=" + type;
}

TEST_F(Router, StoresItsInterfacesAndDeletesOthers)
{
    check(interfaces(R"([{"name":"eth0","type":"wan"}])", 1)
              .calls({set(child("eth0"), "wan"), kCommit, kUnlock})
              .logs({{2, stored("eth0", "wan")}})
              .leaves({{child("eth0"), "wan"}}));
    check(
        interfaces(
            R"([{"name":"eth0","type":"wan"},{"type":"lan","name":"br0","more":1},{"name":"wl1","type":"guest"}])",
            3, {{child("eth0"), "lan"}, {child("old"), "wan"}, {child("older"), "wan"}})
            .calls({set(child("eth0"), "wan"), set(child("br0"), "lan"), set(child("wl1"), "guest"),
                    remove("old"), remove("older"), kCommit, kUnlock})
            .logs({{2, stored("eth0", "wan")}, {2, stored("br0", "lan")}, {2, stored("wl1", "guest")}})
            .leaves({{child("eth0"), "wan"}, {child("br0"), "lan"}, {child("wl1"), "guest"}}));
}

TEST_F(Router, KeepsTheStoredTypeOfAnInterfaceThatIsListedWithABadOne)
{
    const Settings previous{{child("wl1"), "guest"}, {child("old"), "lan"}};
    const Settings left{{child("eth0"), "wan"}, {child("wl1"), "guest"}};
    check(interfaces(R"([{"name":"eth0","type":"wan"},{"name":"wl1","type":"no such"}])", 2, previous)
              .calls({set(child("eth0"), "wan"), remove("old"), kCommit, kUnlock})
              .logs({{2, stored("eth0", "wan")}, {1, "invalid interface type for 'wl1', ignoring"}})
              .leaves(left));
    for (const char* type : {"5", "null", "[]", R"({"type":"wan"})", "true"})
        check(interfaces(R"([{"name":"eth0","type":"wan"},{"name":"wl1","type":)" + std::string(type) + "}]",
                         2, previous)
                  .calls({set(child("eth0"), "wan"), remove("old"), kCommit, kUnlock})
                  .logs({{2, stored("eth0", "wan")}, {0, "could not extract interface type"}})
                  .leaves(left));
    check(interfaces(R"([{"name":"eth0","type":"wan"},{"name":"wl1"}])", 2, previous)
              .calls({set(child("eth0"), "wan"), remove("old"), kCommit, kUnlock})
              .logs({{2, stored("eth0", "wan")}, {0, "could not extract interface type"}})
              .leaves(left));
}

TEST_F(Router, KnowsThreeTypesOfInterfaces)
{
    for (const char* type : {"", "WAN", "Lan", "wan ", "wlan", "guests", "lan\\u0001"})
        check(interfaces(R"([{"name":"eth0","type":")" + std::string(type) + "\"}]", 1)
                  .calls({kCommit, kUnlock})
                  .logs({{1, "invalid interface type for 'eth0', ignoring"}}));
}

TEST_F(Router, SkipsInterfacesWithoutAName)
{
    for (const char* entry :
         {"{}", R"({"type":"wan"})", R"({"name":5,"type":"wan"})", R"({"name":null,"type":"wan"})",
          R"({"name":["eth0"],"type":"wan"})", "null", "5", R"("eth0")", "[]", R"(["eth0","wan"])"})
        check(interfaces("[" + std::string(entry) + R"(,{"name":"eth0","type":"wan"}])", 2,
                         {{child("old"), "wan"}})
                  .calls({set(child("eth0"), "wan"), remove("old"), kCommit, kUnlock})
                  .logs({{0, "could not extract interface name"}, {2, stored("eth0", "wan")}})
                  .leaves({{child("eth0"), "wan"}}));
}

TEST_F(Router, StoresAnInterfaceThatIsListedTwiceTwice)
{
    check(interfaces(R"([{"name":"eth0","type":"wan"},{"name":"eth0","type":"lan"}])", 2,
                     {{child("eth0"), "guest"}})
              .calls({set(child("eth0"), "wan"), set(child("eth0"), "lan"), kCommit, kUnlock})
              .logs({{2, stored("eth0", "wan")}, {2, stored("eth0", "lan")}})
              .leaves({{child("eth0"), "lan"}}));
    check(interfaces(R"([{"name":"eth0","type":"wan"},{"name":"eth0","type":"bad"}])", 2)
              .calls({set(child("eth0"), "wan"), kCommit, kUnlock})
              .logs({{2, stored("eth0", "wan")}, {1, "invalid interface type for 'eth0', ignoring"}})
              .leaves({{child("eth0"), "wan"}}));
}

TEST_F(Router, TakesInterfaceNamesAsTheyAre)
{
    struct Case {
        std::string name;
        std::string key; ///< below the directory of interfaces
    };
    for (const Case& c : {
             Case{"eth0.100", "/eth0.100"},
             Case{"..", "/.."},
             Case{"../../registration/mac", "/../../registration/mac"},
             Case{"/etc/passwd", "/etc/passwd"},
             Case{"a/b", "/a/b"},
             Case{"a//b/", "/a/b"},
             Case{" ", "/ "},
             Case{"{}%s%n", "/{}%s%n"},
             Case{"\xc3\xa9", "/\xc3\xa9"},
             Case{std::string(480, 'n'), "/" + std::string(480, 'n')},
             Case{"", ""}, // the directory itself
             Case{"/", ""},
             Case{"///", ""},
         })
        check(interfaces(R"([{"name":")" + c.name + R"(","type":"wan"}])", 1)
                  .calls({set(kInterfaces + c.key, "wan"), kCommit, kUnlock})
                  .logs({{2, stored(c.name, "wan")}})
                  .leaves({{kInterfaces + c.key, "wan"}}));
}

TEST_F(Router, CannotStoreInterfacesWhoseNamesAreTooLong)
{
    const std::string name(1000, 'n');
    check(interfaces(R"([{"name":")" + name + R"(","type":"wan"},{"name":"eth0","type":"lan"}])", 2)
              .calls({set(child(name), "wan"), set(child("eth0"), "lan"), kCommit, kUnlock})
              .logs({{0, "failed to set interface name=" + name + " type=wan"}, {2, stored("eth0", "lan")}})
              .leaves({{child("eth0"), "lan"}}));
}

TEST_F(Router, StoresAThousandInterfaces)
{
    std::string list;
    Settings left;
    for (int i = 0; i < 1000; ++i) {
        const std::string name = fmt::format("eth{}", i);
        list += (i == 0 ? "[" : ",") + fmt::format(R"({{"name":"{}","type":"lan"}})", name);
        left[child(name)] = "lan";
    }
    Peer peer = connect();
    ASSERT_TRUE(receive_all(peer, command("set_router_interfaces", list + "]") + "\n"));
    EXPECT_TRUE(drain(peer));
    EXPECT_EQ(peer.client.frame(), R"({"data": null, "status": 0})");
    EXPECT_EQ(platform->settings, left);
}

TEST_F(Router, NeedsAListOfInterfacesThatIsNotEmpty)
{
    for (const char* data : {"[]", "{}", R"({"name":"eth0","type":"wan"})", "null", "5", "true", R"("eth0")"})
        check(Scenario("set_router_interfaces", data)
                  .with({{child("eth0"), "wan"}})
                  .logs({{0, "interfaces json object needs to be a non-empty array."}})
                  .fails());
    check(Scenario("set_router_interfaces").with({{child("eth0"), "wan"}}).fails());
}

TEST_F(Router, ListsAllInterfacesOrNoneWhenJsonLacksMemory)
{
    platform->settings = {{child("eth0"), "wan"}, {child("eth1"), "lan"}};
    bool failed = true;
    for (unsigned n = 1; failed; ++n) {
        json_t* out = json_null();
        platform->fail_json_allocation(n);
        const brokerd::Result result = brokerd::process_get_router_interfaces(out);
        failed = platform->json_allocation_failed();
        platform->fail_json_allocation(0);
        const JsonPtr owned(out);
        EXPECT_EQ(result, failed ? brokerd::kFailed : brokerd::kDone) << n;
        EXPECT_EQ(json_array_size(out), failed ? 0U : 2U) << n;
    }
}

TEST_F(Router, SkipsTheListOfInterfacesWhenThereIsNone)
{
    EXPECT_EQ(brokerd::process_set_router_interfaces(nullptr), 0);
    EXPECT_EQ(platform->take_logs(), lines({{2, "No interfaces list provided. Skipping..."}}));
    EXPECT_TRUE(platform->take_calls().empty());
}

TEST_F(Router, GoesOnWhenSomethingOfTheInterfacesFails)
{
    const Settings previous{{child("a"), "lan"}, {child("b"), "lan"}};
    constexpr char kList[] = R"([{"name":"eth0","type":"wan"},{"name":"eth1","type":"lan"}])";
    const fake::Calls calls{
        set(child("eth0"), "wan"), set(child("eth1"), "lan"), remove("a"), remove("b"), kCommit, kUnlock};
    const Settings all{{child("eth0"), "wan"}, {child("eth1"), "lan"}};
    check(interfaces(kList, 2, previous)
              .failing(set(child("eth0"), "wan"))
              .calls(calls)
              .logs({{0, "failed to set interface name=eth0 type=wan"}, {2, stored("eth1", "lan")}})
              .leaves(minus(all, child("eth0"))));
    check(interfaces(kList, 2, previous)
              .failing(remove("a"), 3)
              .calls(calls)
              .logs({{2, stored("eth0", "wan")},
                     {2, stored("eth1", "lan")},
                     {0, "failed to delete previous interface 'a'' key: 3"}})
              .leaves(plus(all, child("a"), "lan")));
    check(interfaces(kList, 2, previous)
              .failing(kUnlock, 3)
              .calls(calls)
              .logs({{2, stored("eth0", "wan")},
                     {2, stored("eth1", "lan")},
                     {1, "Failed to unlock " + kInterfaces + ", orverrno: 3"}})
              .leaves(all));
    check(
        interfaces(kList, 2, previous) // what is there cannot be told: nothing is deleted
            .failing(kEnumerate)
            .calls({set(child("eth0"), "wan"), set(child("eth1"), "lan"), kCommit, kUnlock})
            .logs({{2, stored("eth0", "wan")}, {2, stored("eth1", "lan")}})
            .leaves(
                {{child("a"), "lan"}, {child("b"), "lan"}, {child("eth0"), "wan"}, {child("eth1"), "lan"}}));
}

TEST_F(Router, ChangesNoInterfaceWhenTheyCannotBeStoredTogether)
{
    const Settings previous{{child("a"), "lan"}, {child("eth0"), "lan"}};
    check(interfaces(R"([{"name":"eth0","type":"wan"}])", 1, previous)
              .failing(kCommit, 2)
              .calls({set(child("eth0"), "wan"), remove("a"), kCommit, kUnlock})
              .logs({{2, stored("eth0", "wan")}, {0, "failed to store the interfaces: 2"}})
              .leaves(previous));
}

TEST_F(Router, TouchesNoInterfaceThatAnotherProcessHasLocked)
{
    for (const int error : {1, 2, 3})
        check(Scenario("set_router_interfaces", R"([{"name":"eth0","type":"wan"}])")
                  .with({{child("old"), "lan"}})
                  .failing(kLock, error)
                  .calls({kLock})
                  .logs({{2, "Found 1 interfaces"},
                         {1, fmt::format("Failed to lock {}, orverrno: {}", kInterfaces, error)}})
                  .fails());
}

// ---- the firewall script

class FirewallScript : public Router {
protected:
    /// Asks for it, and gives the call.
    std::string reapply(const std::string& answer, const fake::Logs& logs)
    {
        Peer peer = connect();
        forget_records();
        EXPECT_TRUE(receive(peer, command("reapply_firewall_rules") + "\n"));
        std::string call;
        for (const auto& text : platform->take_calls())
            if (text.rfind("exec_script(", 0) == 0)
                call += text;
        fake::Logs all = platform->take_logs();
        EXPECT_EQ(fake::Logs(all.begin() + 2, all.end() - 1), logs);
        EXPECT_EQ(drain(peer), logs.empty());
        EXPECT_EQ(peer.client.frame(), answer);
        return call;
    }
};

TEST_F(FirewallScript, IsRunByTheShell)
{
    const std::string done = R"({"data": null, "status": 0})";
    const std::string call = reapply(done, {});
    // The command is made once for the process, so its root directory may be that of an earlier test.
    EXPECT_THAT(call, testing::MatchesRegex(R"(exec_script\(/bin/sh, 0, \[[^ ]*/5/orv_init_fw\.sh\]\))"));
    EXPECT_EQ(reapply(done, {}), call) << "the same command each time";
}

TEST_F(FirewallScript, ThatFailsFailsTheCommand)
{
    for (const int error : {1, 2, 3}) {
        platform->fail("exec_script(", 1, error);
        reapply(R"({"data": null, "status": -1})",
                lines({{0, fmt::format("Error running reapply_firewall_rules script {}", error)}}));
    }
}

// ---- whatever fails

} // namespace
} // namespace orv::test
