#include "simulation.h"

#include "agent.h"
#include "command_line.h"
#include "json.h"
#include "narration.h"
#include "requests.h"

#include <orvutils/setmgmt.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace orvagentsim {
namespace {

constexpr char kProgram[] = "orvagentsim";

/// The settings store, open as long as this lives.
class SettingsStore {
public:
    SettingsStore() : m_is_open(orv::setMgmt::init() == 0) {}
    SettingsStore(const SettingsStore&) = delete;
    SettingsStore& operator=(const SettingsStore&) = delete;
    ~SettingsStore()
    {
        if (m_is_open)
            orv::setMgmt::uninit();
    }
    [[nodiscard]] bool is_open() const { return m_is_open; }

private:
    bool m_is_open;
};

} // namespace

Simulation::Simulation(Options wanted) : options(std::move(wanted)), scanner(*this) {}

int Simulation::run()
{
    const SettingsStore store;
    if (!store.is_open()) {
        narrate(kProgram, "cannot open the settings store");
        return kUnavailable;
    }
    if (!start())
        return kUnavailable;
    if (!loop.run()) {
        narrate(kProgram, "cannot wait for events: {}", std::strerror(errno));
        return kUnavailable;
    }
    narrate(kProgram, "stopped");
    return kSuccess;
}

bool Simulation::start()
{
    if (!loop.open()) {
        narrate(kProgram, "cannot set up the event loop: {}", std::strerror(errno));
        return false;
    }
    const auto receiver = [this](Participant to, OrvexKind kind, const Message& message) {
        receive(to, kind, message);
    };
    if (!exchange.join(loop, receiver))
        return false;
    announce_start(*this);
    narrate(kProgram, "ready");
    return true;
}

void Simulation::receive(Participant to, OrvexKind kind, const Message& message)
{
    switch (kind) {
    case OrvexKind::event: // nothing is subscribed to
        break;
    case OrvexKind::respond:
        narrate(name_of(to), "{} from {}", std::string_view(message.data, message.datalen), message.from);
        break;
    case OrvexKind::request:
    case OrvexKind::message:
        process(to, message);
        break;
    }
}

void Simulation::process(Participant to, const Message& message)
{
    const Request* const request = find_request(to, message.type);
    const bool is_failing = request != nullptr && options.failing.count(message.type) != 0;
    const JsonPtr data = parse_json({message.data, message.datalen});
    const Call call{message.request_id, data.get()};

    std::optional<Reply> reply;
    if (request == nullptr)
        reply = refusal("unknown request");
    else if (!is_failing)
        reply = request->process(*this, call);
    else if (request->fail != nullptr)
        reply = request->fail(*this, call);
    else
        reply = refusal(std::string(message.type) + " fails as it was told to");

    if (!reply)
        return;
    if (reply->is_refusal)
        narrate(name_of(to), "{}: refused: {}", message.type, reply->data);
    if (call.id != 0)
        exchange.answer(to, call.id, *reply);
}

} // namespace orvagentsim
