#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

// What happens to the daemon in one simulation: all of it is known before it begins, so that any part can be
// left out and the rest still means the same.

namespace orv::simulation {

enum class Act {
    connect,          ///< a client
    ask,              ///< a client has one more request to send, and sends some of what it has
    say,              ///< a client sends some of what it has
    read,             ///< a client takes what has arrived; who never does, hangs
    shut_down,        ///< a client sends nothing any more
    leave,            ///< a client goes
    event,            ///< of the exchange
    answer,           ///< of the exchange, to a request in flight
    answer_twice,     ///< the same, and once more
    renew_exchange,   ///< its descriptor is another one
    device,           ///< a device changes
    subscription,     ///< the service subscription changes
    tell_devices,     ///< the timer for cached events expires
    retry_telemetry,  ///< the other timer expires
    pass_time,        ///< the clock goes on
    interrupt,        ///< a signal arrives while the daemon waits
    admission,        ///< other users may connect, or may not
    fail_call,        ///< a call fails once
    fail_calls,       ///< each such call fails
    fail_memory,      ///< a request for memory gets none
    fail_all_memory,  ///< each of a kind gets none
    fail_json_memory, ///< one of the JSON library's, or each from then on
    relent,           ///< nothing fails any more
    idle,             ///< the daemon has a pass for itself
};
constexpr unsigned kActs = static_cast<unsigned>(Act::idle) + 1;

/// The numbers say who and what, each act takes them as it needs.
struct Step {
    Act act = Act::idle;
    unsigned who = 0;
    unsigned what = 0;
    unsigned amount = 0;
    bool joined = false; ///< the next one happens before the daemon looks
};

struct Plan {
    std::uint64_t seed = 0;
    unsigned ending = 0; ///< how the daemon ends, see World
    std::vector<Step> steps;
};

/// Clients that can be there at a time.
constexpr unsigned kSlots = 6;

[[nodiscard]] Plan make_plan(std::uint64_t seed, unsigned steps);

/// A step in a few words.
[[nodiscard]] std::string to_text(const Step& step);

} // namespace orv::simulation
