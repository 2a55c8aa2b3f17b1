// What one client can send: any bytes, in pieces of any size. The input's first byte says what the home is
// like and how the other daemons answer, the second how large the pieces are; the rest is sent. Then all
// events happen, for the client, if it has subscribed to one, and for another one beside it.

#include "input.h"
#include "session.h"

#include "client_events.h"

#include <algorithm>
#include <cstdint>
#include <iterator>

using namespace orv::fuzz;

namespace {

constexpr std::size_t kMostPieces = 64;

struct Answer {
    const char* type;
    const char* data;
};
/// The upper half of the first byte says which; beyond them there is none until the end.
constexpr Answer kAnswers[] = {
    {"0", R"({"result": "ok"})"},
    {"0", R"({"state": "idle"})"},
    {"0", "no JSON"},
    {"0", ""},
    {"2", "refused"},
    {"-3", R"({"result": 5})"},
    {"x", "[]"},
    {"99999999999999", "{}"},
};

} // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/)
{
    prepare_process();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    const unsigned home = input.byte();
    std::size_t piece = input.byte() + std::size_t{1};
    piece = std::max(piece, size / kMostPieces);
    Session session(static_cast<std::uint8_t>(home & 0xfU));
    session.add({Act::subscribe, 1, {}, orv::brokerd::kVaStatusChanged});
    while (!input.is_empty())
        session.add({Act::send, 0, {}, std::string(input.bytes(piece))});
    if (home >> 4U < std::size(kAnswers))
        session.add({Act::answer_all, 0, kAnswers[home >> 4U].type, kAnswers[home >> 4U].data});
    session.add({Act::event, 0, "va_status_changed", "{}"});
    session.add({Act::event, 0, "orvagent_started", "{}"});
    session.add({Act::device, 0, "d1", "display_name"});
    session.add({Act::tell_devices, 0, {}, {}});
    session.add({Act::refresh, 0, {}, {}});
    session.run();
    return 0;
}
