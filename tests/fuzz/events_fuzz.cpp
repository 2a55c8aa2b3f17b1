// What the exchange can deliver: events of any name and payload, and answers of any type and payload to each
// request that a client can make the daemon send. The input is a byte that says what the home is like, a
// letter that says what comes, a name or type up to the first line feed, and the payload. There is a
// subscriber of every event.

#include "input.h"
#include "session.h"

#include "client_events.h"

#include <algorithm>
#include <cstdint>
#include <string>

using namespace orv::fuzz;

namespace {

constexpr char kEvent = 'e';

/// Commands whose answers come from the exchange, by the letter for an answer to them.
struct Question {
    char letter;
    const char* request;
};
constexpr Question kQuestions[] = {
    {'a', R"({"type":"command","name":"va_status"})"},
    {'b',
     R"({"type":"command","name":"set_device_traffic_blocked","data":{"device_id":"d1","traffic_blocked":1}})"},
    {'l', R"({"type":"command","name":"set_router_feature_set_level","data":"velm-basic-1.1"})"},
    {'m', R"({"type":"command","name":"set_router_model","data":"Model 2"})"},
    {'n', R"({"type":"command","name":"set_device_name","data":{"device_id":"d1","name":"Set"}})"},
    {'o', R"({"type":"command","name":"set_router_name","data":"Set"})"},
    {'r', R"({"type":"command","name":"start_cloud_registration","data":{}})"},
    {'s', R"({"type":"command","name":"va_set_schedule","data":{}})"},
    {'u', R"({"type":"command","name":"update_subscription_status"})"},
    {'x', R"({"type":"command","name":"remove_satellite","data":{"mac":"02:00:00:00:00:03"}})"},
};

void add_subscribers(Session& session)
{
    unsigned who = 1;
    for (const char* event : orv::brokerd::kClientEvents)
        session.add({Act::subscribe, who++, {}, event});
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    prepare_process();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    Session session(input.byte() & 0xfU);
    const auto letter = static_cast<char>(input.byte());
    std::string name(input.line());
    name.resize(std::min(name.size(), name.find('\0')));
    const std::string payload(input.rest());

    add_subscribers(session);
    const auto question = std::find_if(std::begin(kQuestions), std::end(kQuestions),
                                       [letter](const Question& one) { return one.letter == letter; });
    if (question != std::end(kQuestions)) {
        session.add({Act::say, 0, {}, question->request});
        session.add({Act::answer, 0, name, payload});
    } else if (letter == kEvent) {
        session.add({Act::event, 0, name, payload});
        session.add({Act::event, 0, name, payload}); // what was seen lately is not told again
    }
    session.run();
    return 0;
}
