// The simulation itself: it does the same for the same seed, it finds out what is wrong, and it tells so in
// few steps.

#include "campaign.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <optional>

namespace orv::simulation {
namespace {

constexpr unsigned kSteps = 60;

TEST(Simulation, DoesTheSameForTheSameSeed)
{
    const Campaign campaign;
    for (std::uint64_t seed = 1; seed <= 10; ++seed) {
        const Plan plan = make_plan(seed, kSteps);
        const std::string first = campaign.run(plan, /*is_verbose=*/true).output;
        EXPECT_EQ(campaign.run(plan, /*is_verbose=*/true).output, first) << seed;
        EXPECT_NE(campaign.run(make_plan(seed + 1, kSteps), /*is_verbose=*/true).output, first) << seed;
    }
}

TEST(Simulation, ShortensAPlanToTheStepsThatMatter)
{
    const auto leaves_and_reads = [](const Plan& plan) {
        const auto leave = std::find_if(plan.steps.begin(), plan.steps.end(),
                                        [](const Step& step) { return step.act == Act::leave; });
        return std::any_of(leave, plan.steps.end(), [](const Step& step) { return step.act == Act::read; });
    };
    const Plan plan = make_plan(1, 500);
    ASSERT_TRUE(leaves_and_reads(plan));
    const Plan shorter = shortened(plan, leaves_and_reads);
    ASSERT_EQ(shorter.steps.size(), 2U);
    EXPECT_EQ(shorter.steps[0].act, Act::leave);
    EXPECT_EQ(shorter.steps[1].act, Act::read);
}

/// What a model that is wrong takes to be found out: the steps, and the rule.
struct Found {
    Plan plan;
    std::string rule;
};

std::optional<Found> find(Belief belief)
{
    const Campaign campaign(belief);
    for (std::uint64_t seed = 1; seed <= 200; ++seed) {
        const Plan plan = make_plan(seed, kSteps);
        const Outcome outcome = campaign.run(plan);
        if (!outcome.is_good)
            return Found{campaign.shorten(plan, outcome.rule), outcome.rule};
    }
    return std::nullopt;
}

TEST(Simulation, FindsOutWhereDaemonAndModelDiffer)
{
    for (const auto& [belief, rule] : {
             std::pair{Belief::others_stay, "nobody is silenced but by the one rule"},
             std::pair{Belief::failure_goes_on,
                       "a failure and an answer of the exchange are the last on their connection"},
         }) {
        const auto found = find(belief);
        ASSERT_TRUE(found) << rule;
        EXPECT_EQ(found->rule, rule);
        EXPECT_LE(found->plan.steps.size(), 12U) << rule;
    }
}

TEST(Simulation, FindsOutThatOfSeveralAnswersOneIsLost)
{
    const auto found = find(Belief::answers_add_up);
    ASSERT_TRUE(found);
    EXPECT_LE(found->plan.steps.size(), 12U);
}

} // namespace
} // namespace orv::simulation
