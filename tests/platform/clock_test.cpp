// What is made of the time of day: before 2000, beyond 2038, beyond what fits into numbers, and after it was
// set.

#include "fake_clock.h"
#include "files.h"
#include "instants.h"
#include "karma_support.h"
#include "orvstore_support.h"
#include "process_support.h"

#include <orvbase/clock.h>
#include <orvdiagnosis/orvdiagnosis.h>
#include <orvstore/transaction.h>
#include <orvutils/log_format.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <map>
#include <string>
#include <vector>

using namespace orv::store;
using orv::Error;
using std::chrono::milliseconds;
namespace fs = std::filesystem;

namespace {

void use_utc()
{
    setenv("TZ", "UTC0", /*replace=*/1);
    tzset();
}

std::string in_utc(std::time_t time, const char* format)
{
    std::tm parts{};
    std::array<char, 64> text{};
    (void)gmtime_r(&time, &parts);
    return {text.data(), std::strftime(text.data(), text.size(), format, &parts)};
}

/// Gives a file this time, or the nearest that the file system has; returns it.
std::int64_t set_time(const std::string& file, std::int64_t seconds)
{
    std::array<timespec, 2> times{};
    times[0].tv_sec = times[1].tv_sec = seconds;
    struct stat status {};
    EXPECT_EQ(utimensat(AT_FDCWD, file.c_str(), times.data(), 0), 0);
    EXPECT_EQ(stat(file.c_str(), &status), 0);
    return status.st_mtim.tv_sec;
}

TEST(LogClock, Stamps_are_right_whatever_the_time_is_and_however_it_jumps)
{
    const Outcome outcome = in_child([] {
        use_utc();
        for (const Instant& instant : kInstants) {
            const FakeClock clock(instant.seconds, 123456789);
            ORV_LOG(orv::log::kError, "line at {}", instant.text);
        }
        return 0;
    });
    const auto lines = lines_of(outcome.err);
    ASSERT_EQ(lines.size(), kInstants.size()) << outcome.err;
    for (std::size_t i = 0; i < kInstants.size(); ++i)
        EXPECT_EQ(lines[i].substr(0, 24), std::string(kInstants.at(i).text) + ".123 ");
}

TEST(LogClock, Lines_that_repeat_are_told_by_the_second_that_passes_and_not_by_the_clock_that_is_set)
{
    const Outcome outcome = in_child([] {
        for (const Instant& instant : kInstants) {
            const FakeClock clock(instant.seconds);
            ORV_LOG(orv::log::kError, "the same");
        }
        return 0;
    });
    const auto lines = lines_of(outcome.err);
    // How often it came would be told at the end of the process, which it leaves by _exit().
    ASSERT_EQ(lines.size(), 1U) << outcome.err;
}

} // namespace

TEST_F(KarmaTest, Events_have_the_time_as_it_is_and_ids_that_ascend_even_when_it_is_set_back)
{
    std::string before;
    std::uint64_t highest = 0;
    for (const Instant& instant : kInstants) {
        const FakeClock clock(instant.seconds, 123456789);
        const orv::JsonPtr made = event();
        ASSERT_TRUE(made);
        EXPECT_EQ(json_integer_value(json_object_get(made.get(), "timestamp")), instant.seconds);
        const std::string id = id_of(made);
        EXPECT_GT(id, before);
        const std::uint64_t microseconds = static_cast<std::uint64_t>(instant.seconds) * 1000000 + 123456;
        highest = std::max(highest + 1, microseconds);
        EXPECT_EQ(std::stoull(id.substr(0, 16), nullptr, 16), highest);
        ASSERT_EQ(orv::karma::submit_karma_event(made.get(), &m_exchange), 0);
        EXPECT_EQ(stored().back(), id) << "the order of the outbox is that of their making";
        before = id;
    }
    EXPECT_EQ(m_exchange.requests.size(), kInstants.size());
}

TEST(DiagnosisClock, The_report_has_the_time_of_its_making)
{
    const TemporaryRoot root;
    for (const Instant& instant : kInstants) {
        const FakeClock clock(instant.seconds);
        const orv::diagnosis::Manager manager;
        const orv::JsonPtr report{manager.report()};
        std::string expected = instant.text;
        expected.replace(10, 1, "T").append("Z");
        const char* stamp = json_string_value(json_object_get(report.get(), "generated_at"));
        EXPECT_STREQ(stamp, expected.c_str());
    }
}

namespace {

using Lines = std::vector<std::string>;

Lines& told()
{
    static Lines lines;
    return lines;
}

/// A store with a copy, which is due when it is a second old.
class StoreClock : public testing::Test {
protected:
    void SetUp() override
    {
        told().clear();
        ASSERT_EQ(m_environment.open(), Error::none);
    }

    static Layout layout()
    {
        const auto tell = [](Severity, const std::string& text) { told().push_back(text); };
        Layout layout{"store", {"a"}, std::size_t{1024} * 1024, true, tell};
        layout.when_damaged = WhenDamaged::restore;
        layout.copy_after = milliseconds(0);
        layout.copy_interval = milliseconds(1);
        return layout;
    }

    [[nodiscard]] std::string data_file() const { return m_root.path() + "/store/data.mdb"; }
    [[nodiscard]] std::string copy_file() const { return data_file() + ".copy"; }

    [[nodiscard]] ino_t copy() const { return file_state(copy_file()).inode; }

    /// Looks after the store until its copy is another file.
    void wait_for_a_copy_other_than(ino_t before)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while ((copy() == before || copy() == 0) && std::chrono::steady_clock::now() < deadline)
            m_environment.look_after();
        ASSERT_NE(copy(), before);
        m_environment.look_after();
    }

    /// So often that the copy's age was asked for.
    void look_after_it_for_a_while()
    {
        const std::int64_t begin = orv::base::coarse_now_ms();
        while (orv::base::coarse_now_ms() - begin < 20)
            m_environment.look_after();
    }

    TemporaryRoot m_root;
    Environment m_environment{layout()};
};

} // namespace

TEST_F(StoreClock, A_file_is_known_by_its_time_whenever_that_is)
{
    const std::string file = m_root.path() + "/file";
    spill(file, "");
    for (const Instant& instant : kInstants) {
        const std::int64_t time = set_time(file, instant.seconds);
        const FileState state = file_state(file);
        EXPECT_EQ(state.modified_s, time);
        EXPECT_TRUE(file_state(file).is_unchanged(state));
        (void)set_time(file, time - 1);
        EXPECT_FALSE(file_state(file).is_unchanged(state));
    }
}

TEST_F(StoreClock, The_copys_age_is_right_whatever_the_time_is)
{
    ASSERT_EQ(write(m_environment, "key", "first"), Error::none);
    wait_for_a_copy_other_than(0);
    for (const Instant& instant : kInstants) {
        const std::int64_t made = set_time(copy_file(), instant.seconds);
        const ino_t before = copy();
        FakeClock clock(made);
        ASSERT_EQ(write(m_environment, "key", instant.text), Error::none);
        look_after_it_for_a_while();
        EXPECT_EQ(copy(), before) << "not a second old at " << instant.text;
        FakeClock::set(made + 1);
        wait_for_a_copy_other_than(before);
    }
    EXPECT_EQ(told(), Lines{});
}

TEST_F(StoreClock, A_copy_of_the_future_is_renewed)
{
    ASSERT_EQ(write(m_environment, "key", "first"), Error::none);
    wait_for_a_copy_other_than(0);
    for (const Instant& instant : kInstants) {
        const std::int64_t made = set_time(copy_file(), instant.seconds);
        if (made == 0)
            continue; // there is no time before
        const ino_t before = copy();
        const FakeClock clock(0); // as a router starts that has no battery
        ASSERT_EQ(write(m_environment, "key", instant.text), Error::none);
        wait_for_a_copy_other_than(before);
    }
}

TEST_F(StoreClock, A_restored_copys_time_is_told_as_it_is)
{
    use_utc();
    for (const Instant& instant : kInstants) {
        ASSERT_EQ(write(m_environment, "key", instant.text), Error::none);
        wait_for_a_copy_other_than(copy());
        m_environment.close();
        const std::int64_t made = set_time(copy_file(), instant.seconds);
        spill(data_file(), "garbage");
        told().clear();
        ASSERT_EQ(m_environment.open(), Error::none);
        ASSERT_EQ(told().size(), 1U);
        const std::string expected = "and the copy of " + in_utc(made, "%Y-%m-%d %H:%M") + " is in its place";
        EXPECT_NE(told().front().find(expected), std::string::npos) << told().front();
        EXPECT_EQ(value_in(m_environment, "key"), instant.text);
    }
}
