#pragma once

#include "loop.h"
#include "requests.h"

#include <optional>
#include <string>

namespace orvagentsim {

/// What "orvvad" does: vulnerability scans that run through their states by the loop's timers.
///
///     idle --start--> running (progress 0, 25, 50, 75) --> finished (100) --start--> running ...
///                     \--stop--> stopped --start--> running ...
///
/// Each change is published as "va_status_changed", with the object that "va_scan_status" is answered with:
/// {"state": "idle"|"running"|"finished"|"stopped", "scan": "none"|"network"|"self", "progress": 0..100}.
class Scanner {
public:
    explicit Scanner(Simulation& simulation) : m_simulation(simulation) {}

    /// False while a scan is running.
    [[nodiscard]] bool start(const char* scan);
    /// False when none is.
    [[nodiscard]] bool stop();
    [[nodiscard]] std::string status() const;

private:
    void enter(const char* state, int progress);
    void wait_for_next_step();
    void step();

    Simulation& m_simulation;
    const char* m_state = "idle";
    const char* m_scan = "none";
    int m_progress = 0;                   ///< percent
    std::optional<Loop::TimerId> m_timer; ///< set exactly while a scan is running
};

std::optional<Reply> va_scan_status(Simulation& simulation, const Call& call);
std::optional<Reply> va_network_scan_start(Simulation& simulation, const Call& call);
std::optional<Reply> va_self_scan_start(Simulation& simulation, const Call& call);
std::optional<Reply> va_scan_stop(Simulation& simulation, const Call& call);

} // namespace orvagentsim
