// The time of day as the tools show it: before 2000, beyond 2038, and after it was set.

#include "base_support.h"
#include "fake_clock.h"
#include "instants.h"
#include "narration.h"
#include "texts.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>

namespace {

TEST(ToolsClock, Stamps_of_events_are_right_whatever_the_time_is)
{
    for (const Instant& instant : kInstants) {
        const FakeClock clock(instant.seconds, 7000000);
        std::string expected = instant.text;
        expected.replace(10, 1, "T").append(".007Z");
        EXPECT_EQ(orvctl::time_stamp(), expected);
    }
}

TEST(ToolsClock, The_simulated_agent_tells_the_time_of_day_whatever_the_year_is)
{
    const Outcome outcome = in_child([] {
        setenv("TZ", "UTC0", /*replace=*/1);
        tzset();
        for (const Instant& instant : kInstants) {
            const FakeClock clock(instant.seconds, 7000000);
            orvagentsim::narrate("somebody", "says {}", 1);
        }
        return 0;
    });
    std::string expected;
    for (const Instant& instant : kInstants)
        expected.append(instant.text + 11).append(".007 somebody        says 1\n");
    EXPECT_EQ(outcome.err, expected);
}

} // namespace
