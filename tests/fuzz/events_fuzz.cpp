// What the exchange can deliver: events of any name and payload, answers of any type and payload. The input
// is a letter that says what comes, a name or type up to the first line feed, and the payload.

#include "stage.h"

#include <unistd.h>

#include <algorithm>

using namespace orv::fuzz;

namespace {

constexpr char kAsk[] = "{\"type\":\"command\",\"name\":\"va_status\"}\n";
constexpr char kRegister[] = "{\"type\":\"command\",\"name\":\"start_cloud_registration\",\"data\":{}}\n";

std::string cut_line(std::string_view& rest)
{
    const std::size_t end = rest.find('\n');
    std::string line(rest.substr(0, end));
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    return line;
}

void ask(Stage& stage, const char* request)
{
    Stage::Peer peer = stage.connect();
    require(stage.receive(peer, request), "a client can ask");
    close(peer.client);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size < 1)
        return 0;
    std::string_view rest(reinterpret_cast<const char*>(data + 1), size - 1);
    std::string name = cut_line(rest);
    name.resize(std::min(name.find('\0'), std::min(name.size(), kOrvexMaxName)));
    const std::string payload(rest);

    Stage stage;
    for (const char* event :
         {"device_discovery", "orvagent_started", "va_status_changed", "cloud_registration_status"}) {
        const Stage::Peer peer = stage.subscribe(event);
        close(peer.client);
    }
    if (data[0] == 'r' || data[0] == 'a') {
        ask(stage, data[0] == 'r' ? kRegister : kAsk);
        stage.platform.answer(payload, name);
    } else {
        stage.platform.deliver(name, payload, size);
    }
    stage.read_exchange();
    return 0;
}
