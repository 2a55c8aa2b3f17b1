#pragma once

#include "exchange.h"
#include "home.h"
#include "loop.h"
#include "options.h"
#include "requests.h"

#include <orvutils/setmgmt.h>

#include <memory>

namespace orvagentsim {

/// The four participants at work. What they share are the loop, the exchange and the stores.
class Simulation {
public:
    explicit Simulation(Options options);
    Simulation(const Simulation&) = delete;
    Simulation& operator=(const Simulation&) = delete;
    ~Simulation() = default;

    /// Plays until a signal asks for the end; returns the program's exit status.
    [[nodiscard]] int run();

private:
    [[nodiscard]] bool start();
    [[nodiscard]] bool furnish_home();
    [[nodiscard]] bool watch_router_id();
    void wait_for_churn();
    void churn();
    void receive(Participant to, OrvexKind kind, const Message& message);
    void process(Participant to, const Message& message);
    [[nodiscard]] std::optional<Reply> reply_to(const Request* request, const Message& message,
                                                const Call& call);

    const Options m_options;
    Loop m_loop;
    Exchange m_exchange;
    Home m_home;
    Participants m_participants;
    std::unique_ptr<orv::setMgmt::MonitoredKey> m_router_id;
};

} // namespace orvagentsim
