#include "simulation.h"

#include "agent.h"
#include "command_line.h"
#include "device_manager.h"
#include "json.h"
#include "narration.h"
#include "requests.h"

#include <orvdevmgmt/orvdevmgmt.h>
#include <orvutils/keys.h>
#include <orvutils/setmgmt.h>

#include <cerrno>
#include <cstring>
#include <memory>

namespace orvagentsim {
namespace {

constexpr char kProgram[] = "orvagentsim";

/// A store that is open as long as this lives.
class Store {
public:
    Store(int (*open)(), void (*close)()) : m_close(open() == 0 ? close : nullptr) {}
    Store(const Store&) = delete;
    Store& operator=(const Store&) = delete;
    ~Store()
    {
        if (m_close != nullptr)
            m_close();
    }
    [[nodiscard]] bool is_open() const { return m_close != nullptr; }

private:
    void (*m_close)();
};

} // namespace

Simulation::Simulation(Options wanted) : options(std::move(wanted)), scanner(*this), home(options.seed) {}

int Simulation::run()
{
    const Store settings(orv::setMgmt::init, orv::setMgmt::uninit);
    if (!settings.is_open()) {
        narrate(kProgram, "cannot open the settings store");
        return kUnavailable;
    }
    const Store devices(orv::devMgmt::init, orv::devMgmt::uninit);
    if (!devices.is_open()) {
        narrate(kProgram, "cannot open the device store");
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
    if (!exchange.join(loop, receiver) || !furnish_home() || !watch_router_id())
        return false;
    announce_start(*this);
    narrate(kProgram, "ready");
    return true;
}

bool Simulation::furnish_home()
{
    if (!home.furnish(options.devices)) {
        narrate(kProgram, "cannot write the devices");
        return false;
    }
    wait_for_churn();
    return true;
}

/// The devices follow their router, whoever gives it another identifier.
bool Simulation::watch_router_id()
{
    const auto follow = [this](const orv::path& /*key*/, void* /*user*/) {
        if (!home.adopt())
            narrate(kProgram, "cannot write the devices");
        return true;
    };
    m_router_id = std::make_unique<orv::setMgmt::MonitoredKey>(orv::kDeviceIdKey.c_str(), follow, false,
                                                               nullptr, false);
    if (m_router_id->get_fd() < 0) {
        narrate(kProgram, "cannot watch the router's identifier");
        return false;
    }
    // Asking for the descriptor is also what notices that the store was replaced.
    loop.follow([this] { return m_router_id->get_fd(); }, [this] { m_router_id->read_notifications(); });
    return true;
}

void Simulation::wait_for_churn()
{
    if (options.churn.count() > 0)
        loop.after(options.churn, [this] { churn(); });
}

void Simulation::churn()
{
    narrate(name_of(Participant::device_manager), "{}", home.change());
    if (const auto sighting = home.listen())
        publish_sighting(*this, *sighting);
    wait_for_churn();
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
