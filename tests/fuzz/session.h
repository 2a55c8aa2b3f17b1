#pragma once

#include "fake/fake.h"
#include "support/client.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orv::fuzz {

/// What may happen to the daemon, from outside.
enum class Act {
    say,          ///< a client, which connects if it has not yet, sends `text` and a line feed
    send,         ///< the same without the line feed
    subscribe,    ///< to the event `text`
    leave,        ///< a client closes its end
    stop_sending, ///< a client closes its end for writing
    stop_reading, ///< a client leaves what is sent to it where it is, or takes it again
    event,        ///< of the exchange: `name` and `text`
    answer,       ///< to the oldest request in flight: `name` is its type
    answer_all,   ///< the same to all of them
    device,       ///< `name` changes, in the field `text`; "+" is a new device and "-" one that is gone
    tell_devices, ///< the timer of the list of changed devices
    telemetry,    ///< the timer of telemetry
    refresh,      ///< the service subscription has changed
    set,          ///< the setting `name` becomes `text`
    unset,        ///< the setting `name` goes
    clock,        ///< `number` seconds pass
    fail,         ///< the `number`-th call from now on that begins with `text` fails with the error `error`
    fail_on,      ///< that one and all after it
    memory,       ///< the `number`-th request for memory of the kind `text` gets none
    json_memory,  ///< the same of the JSON library's
    stranger,     ///< from now on another user connects, or the daemon's own again
    renew,        ///< the exchange's descriptor becomes another one
    interrupt,    ///< a signal interrupts the daemon's wait
};

struct Step {
    Act act = Act::say;
    unsigned who = 0; ///< which client, below kClients
    std::string name;
    std::string text;
    int number = 0;
    int error = 0;
};

constexpr unsigned kClients = 8;

/// A step as a line says it: a letter, the client's digit where there is one, and what else it takes, with
/// blanks between them. Nothing for a line that says none.
[[nodiscard]] std::optional<Step> parse_step(std::string_view line);

/// Once per process, before all else: what a session needs of it. Ends the process when that cannot be had.
void prepare_process();

/// The whole daemon from its start to its end, on the fake platform, with what happens to it meanwhile.
/// Whatever that is, this must hold, and the program ends if it does not: clients get whole frames of JSON
/// only; each request gets one answer, with its status, unless the connection ends; nobody gets an event but
/// who has subscribed to it, and once only; nobody's connection ends without a reason; at the end a newcomer
/// is served as always, and no table names anybody.
///
/// Steps that make something fail and come first count from the daemon's start-up on. Once something has
/// failed on purpose, answers and connections may be lost, and events come late.
class Session {
public:
    explicit Session(std::uint8_t home);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session();

    void add(Step step) { m_steps.push_back(std::move(step)); }
    void run();

private:
    /// One connection of one client.
    struct Peer {
        test::Client socket;
        std::string name; ///< of the daemon's descriptor, empty until it has accepted
        int fd = -1;
        bool is_gone = false; ///< the daemon has closed it
        bool is_deaf = false; ///< reads nothing
        bool is_subscriber = false;
        bool may_end = false;    ///< there is a reason
        bool may_be_cut = false; ///< a reason for which nothing more is sent
        bool was_answered = false;
        std::string event;                  ///< that it has subscribed to
        std::deque<int> statuses;           ///< of answers that are on their way
        unsigned requests = 0;              ///< whose answers come from the exchange
        std::size_t events = 0;             ///< that it may get, at most
        std::optional<std::string> payload; ///< of an event that it must get
        bool must_get = false;              ///< all these events
    };

    // ---- the daemon's passes
    void at_wait();
    void observe();
    void observe(const fake::LogLine& line);
    void find_accepted();
    void find_ended();
    void take_frames(Peer& peer);
    void check_frame(Peer& peer, const std::string& text);
    void check_event(Peer& peer, const std::string& text);
    void check_all_told();
    [[nodiscard]] bool take_status(Peer& peer, int status) const;
    [[nodiscard]] bool is_quiet() const;
    [[nodiscard]] bool is_connected(const Peer& peer) const;
    [[nodiscard]] bool has_failed() const { return m_may_fail; }

    // ---- steps
    void act(const Step& step);
    void act_as_client(const Step& step);
    bool fail(const Step& step);
    void connect(unsigned who);
    static void send(Peer& peer, const std::string& bytes);
    void deliver(const Step& step);
    void answer_oldest(const std::string& type, const std::string& data);
    void change_device(const Step& step);
    void expect_events(std::string_view event, std::size_t count, bool must = false,
                       const std::string* payload = nullptr);
    bool notified(const path& key, void* user);

    // ---- the end
    bool settle();
    void check_end();

    fake::Fake m_platform;
    std::deque<Step> m_steps;
    std::vector<std::unique_ptr<Peer>> m_peers;
    std::array<Peer*, kClients> m_clients{};
    std::deque<Peer*> m_connecting; ///< not accepted yet, oldest first
    std::vector<Peer*> m_owners;    ///< of the daemon's descriptors
    Peer* m_current = nullptr;      ///< whose input the daemon handles
    Peer* m_newcomer = nullptr;
    unsigned m_accepted = 0;
    unsigned m_passes = 0; ///< since the last step
    unsigned m_ends = 0;   ///< steps to the end
    bool m_may_fail = false;
    bool m_is_refreshed = false;
    setMgmt::MonitoredKey::Callback m_told;
    struct Change {
        devMgmt::DevInfoChangeType type;
        devMgmt::Device device;
        std::string field;
    };
    std::vector<Change> m_changes; ///< that the daemon will be told of
};

} // namespace orv::fuzz
