// The bounded cache whose entries expire by age.

#include "support/fixture.h"

#include "instants.h"

#include <orvutils/orvcommon/cache.h>

namespace orv::test {
namespace {

/// Seconds, as the test sets them.
struct TestClock {
    static std::time_t now() { return seconds; }
    static inline std::time_t seconds = 0;
};

using TestCache = Cache<std::string, std::string, TestClock>;

class BoundedCache : public PlatformTest {
protected:
    BoundedCache() { TestClock::seconds = 1000; }

    const fake::Logs full = lines({{1, "Could not add entry in cache. Cache is full"}});
};

TEST_F(BoundedCache, HoldsWhatWasAdded)
{
    TestCache cache(4, 10);
    EXPECT_FALSE(cache.exists("a", "1"));
    EXPECT_TRUE(cache.add("a", "1"));
    EXPECT_TRUE(cache.add("a", "2"));
    EXPECT_TRUE(cache.add("b", "1"));

    EXPECT_TRUE(cache.exists("a", "1"));
    EXPECT_TRUE(cache.exists("a", "2"));
    EXPECT_TRUE(cache.exists("b", "1"));
    EXPECT_FALSE(cache.exists("b", "2"));
    EXPECT_FALSE(cache.exists("c", "1"));
    EXPECT_EQ(cache.count(), 3U);
}

TEST_F(BoundedCache, DoesNotLookForDuplicates)
{
    TestCache cache(4, 10);
    EXPECT_TRUE(cache.add("a", "1"));
    EXPECT_TRUE(cache.add("a", "1"));
    EXPECT_EQ(cache.count(), 2U);
}

TEST_F(BoundedCache, RejectsAThirdEntryWhenItsTwoAreYoungAndTakesItWhenOneHasExpired)
{
    TestCache cache(2, 10);
    EXPECT_TRUE(cache.add("a", "1"));
    TestClock::seconds += 5;
    EXPECT_TRUE(cache.add("b", "2"));
    EXPECT_FALSE(cache.add("c", "3"));
    EXPECT_EQ(platform->take_logs(), full);
    EXPECT_FALSE(cache.exists("c", "3"));

    TestClock::seconds += 5; // "a" is now as old as the lifetime
    EXPECT_TRUE(cache.add("c", "3"));
    EXPECT_TRUE(platform->take_logs().empty());
    EXPECT_FALSE(cache.exists("a", "1"));
    EXPECT_TRUE(cache.exists("b", "2"));
    EXPECT_TRUE(cache.exists("c", "3"));
    EXPECT_EQ(cache.count(), 2U);
}

TEST_F(BoundedCache, KeepsAnEntryThatIsOneSecondYoungerThanItsLifetime)
{
    TestCache cache(1, 10);
    EXPECT_TRUE(cache.add("a", "1"));
    TestClock::seconds += 9;
    EXPECT_FALSE(cache.add("b", "2"));
    EXPECT_EQ(platform->take_logs(), full);
    EXPECT_TRUE(cache.exists("a", "1"));
}

TEST_F(BoundedCache, FindsAnExpiredEntryAsLongAsItNeverBecameFull)
{
    TestCache cache(3, 10);
    EXPECT_TRUE(cache.add("a", "1"));
    TestClock::seconds += 1000;
    EXPECT_TRUE(cache.exists("a", "1"));
    EXPECT_TRUE(cache.add("b", "2"));
    EXPECT_TRUE(cache.exists("a", "1"));
    EXPECT_EQ(cache.count(), 2U);
}

TEST_F(BoundedCache, DropsEveryExpiredEntryAtOnceWhenItIsFull)
{
    TestCache cache(4, 10);
    EXPECT_TRUE(cache.add("a", "1"));
    EXPECT_TRUE(cache.add("a", "2"));
    EXPECT_TRUE(cache.add("b", "3"));
    TestClock::seconds += 4;
    EXPECT_TRUE(cache.add("a", "4"));
    TestClock::seconds += 6;
    EXPECT_TRUE(cache.add("c", "5"));

    EXPECT_EQ(cache.count(), 2U);
    EXPECT_FALSE(cache.exists("a", "1"));
    EXPECT_FALSE(cache.exists("a", "2"));
    EXPECT_FALSE(cache.exists("b", "3"));
    EXPECT_TRUE(cache.exists("a", "4"));
    EXPECT_TRUE(cache.exists("c", "5"));
}

TEST_F(BoundedCache, TakesEntriesFromTheFutureForYoung)
{
    TestCache cache(1, 10);
    EXPECT_TRUE(cache.add("a", "1"));
    TestClock::seconds -= 500; // the clock was set back
    EXPECT_FALSE(cache.add("b", "2"));
    EXPECT_TRUE(cache.exists("a", "1"));
}

TEST_F(BoundedCache, KnowsTheAgeOfItsEntriesWhateverTheTimeIs)
{
    for (const Instant& instant : kInstants) {
        TestClock::seconds = instant.seconds;
        TestCache cache(1, 10);
        EXPECT_TRUE(cache.add("a", "1"));
        TestClock::seconds += 9;
        EXPECT_FALSE(cache.add("b", "2")) << instant.text;
        TestClock::seconds += 1;
        EXPECT_TRUE(cache.add("b", "2")) << instant.text;
        EXPECT_EQ(platform->take_logs(), full);
    }
}

TEST_F(BoundedCache, WithoutRoomRejectsEverything)
{
    TestCache cache(0, 10);
    EXPECT_FALSE(cache.add("a", "1"));
    EXPECT_EQ(platform->take_logs(), full);
    EXPECT_EQ(cache.count(), 0U);
}

TEST_F(BoundedCache, TakesItsTimeFromTheSystemsClock)
{
    Cache<std::string, std::string> cache(1, 120);
    EXPECT_TRUE(cache.add("a", "1"));
    platform->now += 119;
    EXPECT_FALSE(cache.add("b", "2"));
    platform->now += 1;
    EXPECT_TRUE(cache.add("b", "2"));
}

} // namespace
} // namespace orv::test
