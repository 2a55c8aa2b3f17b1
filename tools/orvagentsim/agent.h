#pragma once

#include "call.h"
#include "exchange.h"
#include "home.h"
#include "loop.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace orvagentsim {

/// What "orvagent" does: registration with the cloud, telemetry, the subscription.
class Agent {
public:
    /// `delay` is how long a registration takes; the devices of `home` are the registered router's.
    Agent(Loop& loop, Exchange& exchange, Home& home, std::chrono::milliseconds delay)
        : m_loop(loop), m_exchange(exchange), m_home(home), m_delay(delay)
    {
    }
    Agent(const Agent&) = delete;
    Agent& operator=(const Agent&) = delete;
    ~Agent() = default;

    /// Publishes "orvagent_started". Whoever subscribes to it acknowledges it.
    void announce_start();

    /// {"router_id": ...} or {"token": ..., "mac": ..., "redeem": ...}: registers the router after the usual
    /// delay. When the registration keys are stored, {"result": "ok"} is the answer and is published as
    /// "registration_status_changed"; a failure is {"result": "error", "reason": ...} in both.
    [[nodiscard]] std::optional<Reply> start_cloud_registration(const Call& call);
    [[nodiscard]] std::optional<Reply> fail_cloud_registration(const Call& call);

    /// Any JSON object: counted.
    [[nodiscard]] Reply telemetry_event(const Call& call);

private:
    void end_registration(std::uint64_t request_id, const std::string& failure);
    void end_later(std::uint64_t request_id, const std::string& failure);

    Loop& m_loop;
    Exchange& m_exchange;
    Home& m_home;
    const std::chrono::milliseconds m_delay;
    std::uint64_t m_telemetry_events = 0; ///< received since the start
};

/// Whatever the payload: renews the subscription "global" for a year. When it is made to fail, it leaves the
/// subscription as it is and the error beside it.
[[nodiscard]] Reply update_subscription(const Call& call);
[[nodiscard]] Reply fail_subscription_update(const Call& call);

} // namespace orvagentsim
