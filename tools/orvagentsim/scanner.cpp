// A scan is nothing but its timer: whether one is running is whether the timer is set. Every change of state
// goes through enter(), so none can be made without being published.

#include "scanner.h"

#include "narration.h"

#include <orvtools/json.h>

namespace orvagentsim {
namespace {

constexpr char kName[] = "orvvad";
constexpr int kStepPercent = 25;
constexpr int kCompletePercent = 100;

} // namespace

Reply Scanner::va_scan_status(const Call& /*call*/) const
{
    return success(status());
}

Reply Scanner::va_network_scan_start(const Call& /*call*/)
{
    return start("network");
}

Reply Scanner::va_self_scan_start(const Call& /*call*/)
{
    return start("self");
}

Reply Scanner::va_scan_stop(const Call& /*call*/)
{
    if (!m_timer)
        return refusal("no scan is running");
    m_loop.cancel(*m_timer);
    m_timer.reset();
    enter("stopped", m_progress);
    return success(status());
}

Reply Scanner::start(const char* scan)
{
    if (m_timer)
        return refusal("a scan is running already");
    m_scan = scan;
    enter("running", 0);
    wait_for_next_step();
    return success(status());
}

std::string Scanner::status() const
{
    const orv::JsonPtr status{
        json_pack("{s:s,s:s,s:i}", "state", m_state, "scan", m_scan, "progress", m_progress)};
    return orvtools::to_text(status.get());
}

void Scanner::enter(const char* state, int progress)
{
    m_state = state;
    m_progress = progress;
    narrate(kName, "{} scan: {}, {} %", m_scan, state, progress);
    m_exchange.publish(Participant::scanner, "va_status_changed", status());
}

void Scanner::wait_for_next_step()
{
    m_timer = m_loop.after(m_step, [this] { step(); });
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

} // namespace orvagentsim
