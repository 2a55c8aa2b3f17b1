// How often what happens. Each seed has a temper of its own: some have no faults at all, so that nothing is
// excused there, and some clients that hang.

#include "plan.h"

#include "random.h"

#include <array>
#include <string_view>

namespace orv::simulation {
namespace {

struct Frequency {
    Act act;
    unsigned weight;
};

constexpr std::array kPeaceful{
    Frequency{Act::connect, 8},   Frequency{Act::ask, 30},         Frequency{Act::say, 8},
    Frequency{Act::read, 12},     Frequency{Act::shut_down, 1},    Frequency{Act::leave, 4},
    Frequency{Act::event, 8},     Frequency{Act::answer, 10},      Frequency{Act::answer_twice, 2},
    Frequency{Act::device, 6},    Frequency{Act::subscription, 4}, Frequency{Act::tell_devices, 4},
    Frequency{Act::pass_time, 2}, Frequency{Act::interrupt, 1},    Frequency{Act::retry_telemetry, 1},
    Frequency{Act::idle, 3},      Frequency{Act::admission, 1},    Frequency{Act::renew_exchange, 1},
};
constexpr std::array kFaults{
    Frequency{Act::fail_call, 4},       Frequency{Act::fail_calls, 1},       Frequency{Act::fail_memory, 4},
    Frequency{Act::fail_all_memory, 1}, Frequency{Act::fail_json_memory, 3}, Frequency{Act::relent, 2},
};

template <typename Frequencies>
Act pick(Random& random, const Frequencies& frequencies)
{
    unsigned sum = 0;
    for (const Frequency& frequency : frequencies)
        sum += frequency.weight;
    unsigned place = random.below(sum);
    for (const Frequency& frequency : frequencies) {
        if (place < frequency.weight)
            return frequency.act;
        place -= frequency.weight;
    }
    return Act::idle;
}

constexpr std::array<std::string_view, kActs> kNames{
    "connect",
    "ask",
    "say",
    "read",
    "shut down",
    "leave",
    "event",
    "answer",
    "answer twice",
    "renew exchange",
    "device",
    "subscription",
    "tell devices",
    "retry telemetry",
    "pass time",
    "interrupt",
    "admission",
    "fail call",
    "fail calls",
    "fail memory",
    "fail all memory",
    "fail JSON memory",
    "relent",
    "idle",
};

} // namespace

Plan make_plan(std::uint64_t seed, unsigned steps)
{
    Random random(seed);
    Plan plan{seed, random.below(4), {}};
    const bool has_faults = random.once_in(2);
    const unsigned joined = 2 + random.below(4); // one in so many
    plan.steps.reserve(steps);
    for (unsigned i = 0; i < steps; ++i) {
        const bool is_fault = has_faults && random.once_in(6);
        Step step;
        step.act = i < kSlots / 2 ? Act::connect : is_fault ? pick(random, kFaults) : pick(random, kPeaceful);
        step.who = i < kSlots / 2 ? i : random.below(kSlots);
        step.what = random.below(1U << 16);
        step.amount = random.below(1U << 16);
        step.joined = random.once_in(joined);
        plan.steps.push_back(step);
    }
    return plan;
}

std::string to_text(const Step& step)
{
    return std::string(kNames[static_cast<std::size_t>(step.act)]) + " (who " + std::to_string(step.who) +
           ", what " + std::to_string(step.what) + ", amount " + std::to_string(step.amount) + ")" +
           (step.joined ? " and at once" : "");
}

} // namespace orv::simulation
