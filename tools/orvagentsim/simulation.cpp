// Start, then dispatch by the table of requests, and the home's changes by a timer. The stores are open
// exactly as long as the loop runs; a start that fails leaves the exchange again by the destructors.

#include "simulation.h"

#include "device_manager.h"
#include "exit_status.h"
#include "narration.h"

#include <orvdevmgmt/orvdevmgmt.h>
#include <orvtools/json.h>
#include <orvutils/keys.h>

#include <cerrno>
#include <cstring>
#include <utility>

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
        if (m_close)
            m_close();
    }
    [[nodiscard]] bool is_open() const { return m_close; }

private:
    void (*m_close)();
};

} // namespace

Simulation::Simulation(Options options)
    : m_options(std::move(options)),
      m_home(m_options.seed), m_participants{{m_loop, m_exchange, m_home, m_options.delay},
                                             {m_loop, m_exchange, m_options.delay}}
{
}

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
    if (!m_loop.run()) {
        narrate(kProgram, "cannot wait for events: {}", std::strerror(errno));
        return kUnavailable;
    }
    narrate(kProgram, "stopped");
    return kSuccess;
}

bool Simulation::start()
{
    if (!m_loop.open()) {
        narrate(kProgram, "cannot set up the event loop: {}", std::strerror(errno));
        return false;
    }
    const auto receiver = [this](Participant to, OrvexKind kind, const Message& message) {
        receive(to, kind, message);
    };
    if (!m_exchange.join(m_loop, receiver) || !furnish_home() || !watch_router_id())
        return false;
    m_participants.agent.announce_start();
    narrate(kProgram, "ready");
    return true;
}

bool Simulation::furnish_home()
{
    if (!m_home.furnish(m_options.devices)) {
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
        if (!m_home.adopt())
            narrate(kProgram, "cannot write the devices");
        return true;
    };
    m_router_id =
        std::make_unique<orv::setMgmt::MonitoredKey>(orv::kDeviceIdKey.c_str(), follow,
                                                     /*notify_now=*/false, /*user=*/nullptr, /*keep=*/false);
    if (m_router_id->get_fd() < 0) {
        narrate(kProgram, "cannot watch the router's identifier");
        return false;
    }
    // Asking for the descriptor is also what notices that the store was replaced.
    m_loop.follow([this] { return m_router_id->get_fd(); }, [this] { m_router_id->read_notifications(); });
    return true;
}

void Simulation::wait_for_churn()
{
    if (m_options.churn.count() > 0)
        m_loop.after(m_options.churn, [this] { churn(); });
}

void Simulation::churn()
{
    narrate(name_of(Participant::device_manager), "{}", m_home.change());
    if (const auto sighting = m_home.listen())
        publish_sighting(m_exchange, *sighting);
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
    const Request* request = find_request(to, message.type);
    const orv::JsonPtr data = orvtools::parse_json({message.data, message.datalen});
    const Call call{message.request_id, data.get()};
    const std::optional<Reply> reply = reply_to(request, message, call);
    if (!reply)
        return;
    if (reply->is_refusal)
        narrate(name_of(to), "{}: refused: {}", message.type, reply->data);
    if (call.id != 0)
        m_exchange.answer(to, call.id, *reply);
}

std::optional<Reply> Simulation::reply_to(const Request* request, const Message& message, const Call& call)
{
    if (!request)
        return refusal("unknown request");
    if (m_options.failing.count(message.type) == 0)
        return request->process(m_participants, call);
    if (request->fail)
        return request->fail(m_participants, call);
    return refusal(std::string(message.type) + " fails as it was told to");
}

} // namespace orvagentsim
