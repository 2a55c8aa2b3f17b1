#include "scanner.h"

#include "json.h"
#include "narration.h"
#include "simulation.h"

namespace orvagentsim {
namespace {

constexpr char kName[] = "orvvad";
constexpr int kStepPercent = 25;
constexpr int kCompletePercent = 100;

Reply start(Simulation& simulation, const char* scan)
{
    if (!simulation.scanner.start(scan))
        return refusal("a scan is running already");
    return success(simulation.scanner.status());
}

} // namespace

bool Scanner::start(const char* scan)
{
    if (m_timer)
        return false;
    m_scan = scan;
    enter("running", 0);
    wait_for_next_step();
    return true;
}

bool Scanner::stop()
{
    if (!m_timer)
        return false;
    m_simulation.loop.cancel(*m_timer);
    m_timer.reset();
    enter("stopped", m_progress);
    return true;
}

std::string Scanner::status() const
{
    const JsonPtr status{
        json_pack("{s:s,s:s,s:i}", "state", m_state, "scan", m_scan, "progress", m_progress)};
    return to_text(status.get());
}

void Scanner::enter(const char* state, int progress)
{
    m_state = state;
    m_progress = progress;
    narrate(kName, "{} scan: {}, {} %", m_scan, state, progress);
    m_simulation.exchange.publish(Participant::scanner, "va_status_changed", status());
}

void Scanner::wait_for_next_step()
{
    m_timer = m_simulation.loop.after(m_simulation.options.delay, [this] { step(); });
}

void Scanner::step()
{
    m_timer.reset();
    const int progress = m_progress + kStepPercent;
    if (progress >= kCompletePercent) {
        enter("finished", kCompletePercent);
        return;
    }
    enter("running", progress);
    wait_for_next_step();
}

std::optional<Reply> va_scan_status(Simulation& simulation, const Call& /*call*/)
{
    return success(simulation.scanner.status());
}

std::optional<Reply> va_network_scan_start(Simulation& simulation, const Call& /*call*/)
{
    return start(simulation, "network");
}

std::optional<Reply> va_self_scan_start(Simulation& simulation, const Call& /*call*/)
{
    return start(simulation, "self");
}

std::optional<Reply> va_scan_stop(Simulation& simulation, const Call& /*call*/)
{
    if (!simulation.scanner.stop())
        return refusal("no scan is running");
    return success(simulation.scanner.status());
}

} // namespace orvagentsim
