#pragma once

#include "model.h"
#include "plan.h"

#include "fake/fake.h"
#include "support/client.h"

#include "connection.h"

#include <array>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace orv::simulation {

/// The whole daemon, from its start to its end, in the world of one plan. To be run in a process of its own,
/// which ends with status 1 at the first rule that does not hold: the daemon's state is the process's, and a
/// daemon that crashes is one of the findings.
class World {
public:
    /// `root` is the directory of the common paths.
    World(const Plan& plan, const std::string& root, Belief belief, bool is_verbose);
    World(const World&) = delete;
    World& operator=(const World&) = delete;
    ~World();

    /// Runs it. What happened is written to standard output: all of it when verbose, and a number that stands
    /// for all of it as the last line.
    void run();

private:
    /// One connection of one client.
    struct Peer {
        explicit Peer(unsigned number) : client(number) {}

        Client client;
        test::Client socket;
        std::deque<Request> unsent; ///< the first one perhaps in part
        std::string outgoing;       ///< their bytes
        std::string name;           ///< of the daemon's descriptor, empty until it has accepted
        int fd = -1;
        bool is_gone = false;    ///< the daemon has closed it
        bool has_left = false;   ///< the client sends nothing any more
        bool is_broken = false;  ///< more than fits was to be sent: nothing is known of what comes
        bool may_hang = false;   ///< a fault may have left output that nobody watches
        bool is_excused = false; ///< a fault may have ended it
        [[nodiscard]] bool is_served() const { return !name.empty() && !is_gone; }
    };

    [[noreturn]] void fail(const std::string& rule, const std::string& what);
    void write(const std::string& line);
    void require(bool holds, const std::string& rule, const std::string& what = {});

    // ---- the daemon's passes
    void at_wait();
    void wait_again();
    void begin();
    void observe();
    void observe(const fake::LogLine& line);
    void catch_up();
    void end_pass();
    void find_ended();
    void find_accepted();
    void ended(Peer& peer);
    void accepted(Peer& peer);
    void put_model_right();
    void excuse();
    void compare();
    void check_tables();
    void check_buffers();
    void check_descriptors();
    [[nodiscard]] bool is_connected(const Peer& peer) const;
    [[nodiscard]] brokerd::Connection& connection(const Peer& peer) const;
    [[nodiscard]] Peer* peer_of(const brokerd::Connection* conn) const;
    [[nodiscard]] static std::string title(const Peer& peer);

    // ---- steps
    void act(const Step& step);
    void act_as_client(const Step& step, Peer* peer);
    void connect(const Step& step);
    void ask(Peer& peer, const Step& step);
    void send(Peer& peer, std::size_t count);
    void read(Peer& peer);
    void end_client(Peer& peer);
    void deliver(const std::string& type, const std::string& data);
    void event(const Step& step);
    void answer(const Step& step, bool twice);
    void deliver_answer(unsigned request, const std::string& type, const std::string& data);
    void change_device(const Step& step);
    void change_subscription(const Step& step);
    bool notified(const path& key, void* user);
    void fail_something(const Step& step);
    void relent();

    // ---- the end
    void settle();
    void settle_peers();
    [[nodiscard]] std::string unsettled() const;
    void trigger_all_events();
    void close_world();
    void check_end(int status);

    const Plan& m_plan;
    bool m_is_verbose;
    std::unique_ptr<fake::Fake> m_platform;
    Model m_model;
    std::vector<std::unique_ptr<Peer>> m_peers;
    std::array<Peer*, kSlots> m_slots{};
    std::deque<Peer*> m_connecting; ///< not accepted yet, oldest first
    std::map<int, Peer*> m_owners;  ///< of the daemon's descriptors
    Peer* m_current = nullptr;      ///< whose event the daemon handles
    setMgmt::MonitoredKey::Callback m_told;
    struct Change {
        devMgmt::DevInfoChangeType type;
        devMgmt::Device device;
        std::string field;
    };
    std::vector<Change> m_changes; ///< that the daemon will be told of
    bool m_is_subscription_changed = false;

    std::size_t m_next_step = 0;
    unsigned m_pass = 0;
    unsigned m_settling = 0;
    unsigned m_closing = 0;
    unsigned m_accepted = 0;
    unsigned m_requests_seen = 0;
    std::size_t m_failed_before = 0;
    bool m_is_uncertain = false; ///< something in this pass was not foreseen, after a fault
    std::size_t m_own_descriptors = 0;
    std::size_t m_first_descriptors = 0;
    std::uint64_t m_digest = 14695981039346656037U;
};

} // namespace orv::simulation
