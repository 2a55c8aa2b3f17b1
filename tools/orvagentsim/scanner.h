#pragma once

#include "call.h"
#include "exchange.h"
#include "loop.h"

#include <chrono>
#include <optional>
#include <string>

namespace orvagentsim {

/// What "orvvad" does: vulnerability scans that run through their states by the loop's timers.
///
///     idle --start--> running (progress 0, 25, 50, 75) --> finished (100) --start--> running ...
///                     \--stop--> stopped --start--> running ...
///
/// Each change is published as "va_status_changed", with the object that every request that is not refused is
/// answered with:
/// {"state": "idle"|"running"|"finished"|"stopped", "scan": "none"|"network"|"self", "progress": 0..100}.
class Scanner {
public:
    /// `step` is how long a scan stays at each of its progresses.
    Scanner(Loop& loop, Exchange& exchange, std::chrono::milliseconds step)
        : m_loop(loop), m_exchange(exchange), m_step(step)
    {
    }
    Scanner(const Scanner&) = delete;
    Scanner& operator=(const Scanner&) = delete;
    ~Scanner() = default;

    [[nodiscard]] Reply va_scan_status(const Call& call) const;
    /// Refused while a scan is running.
    [[nodiscard]] Reply va_network_scan_start(const Call& call);
    [[nodiscard]] Reply va_self_scan_start(const Call& call);
    /// Refused when none is.
    [[nodiscard]] Reply va_scan_stop(const Call& call);

private:
    [[nodiscard]] Reply start(const char* scan);
    [[nodiscard]] std::string status() const;
    void enter(const char* state, int progress);
    void wait_for_next_step();
    void step();

    Loop& m_loop;
    Exchange& m_exchange;
    const std::chrono::milliseconds m_step;
    const char* m_state = "idle";
    const char* m_scan = "none";
    int m_progress = 0;                   ///< percent
    std::optional<Loop::TimerId> m_timer; ///< set exactly while a scan is running
};

} // namespace orvagentsim
