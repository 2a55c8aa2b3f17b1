#include "requests.h"

#include "client_events.h"
#include "evhandler.h"
#include "random.h"
#include "support/stage.h"

#include <array>

namespace orv::simulation {
namespace {

constexpr std::array kUnusable{
    "",
    "{",
    "[]",
    "7",
    "{}",
    "{\"type\":5}",
    "{\"name\":\"get_devices\"}",
    "\x01\xff",
    "{\"type\":\"command\"",
};
constexpr std::array kRefused{
    R"({"type":"command"})",
    R"({"type":"command","name":7})",
    R"({"type":"question","name":"get_devices"})",
    R"({"type":"command","name":"set_va_cloud_trigger","data":"1"})",
    R"({"type":"command","name":"set_va_cloud_trigger"})",
    R"({"type":"command","name":"set_router_name","data":{}})",
    R"({"type":"command","name":"get_feature"})",
};
constexpr std::array kDone{
    R"({"type":"command","name":"va_start"})",
    R"({"type":"command","name":"va_stop","data":[1,{"a":null}]})",
    R"({"type":"command","name":"set_va_cloud_trigger","data":true})",
    R"({"type":"command","name":"pro_features_enable"})",
    R"({"type":"command","name":"pro_features_disable"})",
};
constexpr std::array kData{
    "",
    "{}",
    "[]",
    "null",
    "\"a name\"",
    R"({"device_id":"device-1","name":"Set"})",
    R"({"device_id":"device-2","traffic_blocked":1})",
    R"({"device_id":"device-9","name":"Set"})",
    R"({"router_id":"r"})",
    R"(["10.0.0.0/8","192.168.1.1"])",
    R"({"mac":"02:00:00:00:00:01"})",
    R"({"protection":"enabled","telemetry":"disabled"})",
    R"(["protection","telemetry"])",
    "5",
    R"({"enabled":true,"time":"10:00"})",
    R"([{"name":"br0","type":"lan"}])",
};

std::string list_of(const std::vector<std::string>& ids)
{
    std::string list;
    for (const std::string& id : ids)
        list += (list.empty() ? "\"" : ",\"") + id + "\"";
    return "[" + list + "]";
}

Request devices(Random& random)
{
    // Few ask for much, so that answers are left over that a socket does not take at once.
    const unsigned count = random.once_in(8) ? 500 : random.once_in(40) ? 4000 : 1 + random.below(8);
    Request request{Asked::devices, {}, {}, {}};
    for (unsigned i = 0; i < count; ++i)
        request.devices.push_back(device_id(random.below(kDevices)));
    request.line = test::command("get_devices", list_of(request.devices));
    return request;
}

Request anything(Random& random)
{
    const auto commands = brokerd::commands();
    const std::string name(commands[random.below(static_cast<unsigned>(commands.size()))].name);
    if (name == "enable_services" || name == "disable_services") // these are known better
        return {Asked::nothing, test::command("anything"), {}, {}};
    return {Asked::anything, test::command(name, kData[random.below(kData.size())]), {}, {}};
}

} // namespace

std::string device_id(unsigned n)
{
    return "device-" + std::to_string(n % kDevices);
}

std::string event_name(unsigned n)
{
    n %= brokerd::kClientEvents.size() + 1;
    return n < brokerd::kClientEvents.size() ? brokerd::kClientEvents[n] : "nobody's";
}

Request make_request(unsigned what, unsigned amount)
{
    Random random((std::uint64_t{what} << 16) + amount);
    switch (random.below(16)) {
    case 0:
        return {Asked::nothing, test::command("nothing" + std::to_string(amount)), {}, {}};
    case 1:
        return {Asked::protection, test::command("get_services_status"), {}, {}};
    case 2:
        return random.once_in(2) ? Request{Asked::protect, test::command("enable_services"), {}, {}}
                                 : Request{Asked::expose, test::command("disable_services"), {}, {}};
    case 3:
    case 4:
        return devices(random);
    case 5:
    case 6:
        return {Asked::scanner, test::command("va_status"), {}, {}};
    case 7:
        return {Asked::registration,
                random.once_in(2) ? test::command("start_cloud_registration", R"({"a":1})")
                                  : test::command("start_registration", R"({"router_id":"r"})"),
                {},
                {}};
    case 8:
    case 9:
    case 10: {
        const std::string event = event_name(random.below(64));
        return {Asked::subscription, test::subscription(event), event, {}};
    }
    case 11:
        return {Asked::done, kDone[random.below(kDone.size())], {}, {}};
    case 12:
        if (random.once_in(2))
            return {Asked::nothing, test::command(std::string(6000, 'n')), {}, {}};
        return random.once_in(2) ? Request{Asked::nameless, R"({"type":"subscribe"})", {}, {}}
                                 : Request{Asked::refused, kRefused[random.below(kRefused.size())], {}, {}};
    case 13:
        if (random.once_in(2))
            return {Asked::unusable, kUnusable[random.below(kUnusable.size())], {}, {}};
        [[fallthrough]];
    default:
        return anything(random);
    }
}

} // namespace orv::simulation
