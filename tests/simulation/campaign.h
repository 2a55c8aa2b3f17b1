#pragma once

#include "model.h"
#include "plan.h"

#include <functional>
#include <string>

namespace orv::simulation {

/// What came of one plan.
struct Outcome {
    bool is_good = false;
    std::string rule;   ///< that does not hold; how the process ended, when it told none
    std::string output; ///< of the process
};

/// Runs plans, each in a process of its own, with a directory that is theirs for as long as this lives.
class Campaign {
public:
    explicit Campaign(Belief belief = Belief::right);
    Campaign(const Campaign&) = delete;
    Campaign& operator=(const Campaign&) = delete;
    ~Campaign();

    [[nodiscard]] Outcome run(const Plan& plan, bool is_verbose = false) const;
    /// The fewest of its steps that break the same rule: none of them can be left out.
    [[nodiscard]] Plan shorten(const Plan& plan, const std::string& rule) const;

private:
    [[noreturn]] void run_here(const Plan& plan, bool is_verbose) const;

    std::string m_root;
    Belief m_belief;
};

/// Leaves steps out as long as it `still_fails`: halves, then smaller and smaller parts, down to single ones.
[[nodiscard]] Plan shortened(Plan plan, const std::function<bool(const Plan&)>& still_fails);

} // namespace orv::simulation
