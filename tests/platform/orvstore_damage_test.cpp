// Data files that are damaged: set aside, or replaced by their copy. How the copy is kept.

#include "check.h"
#include "memory_support.h"
#include "orvstore_support.h"
#include "process_support.h"
#include "stepped.h"

#include <orvstore/transaction.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <new>
#include <string>
#include <vector>

using namespace orv::store;
using orv::Error;
using std::chrono::milliseconds;
namespace fs = std::filesystem;

namespace {

using Lines = std::vector<std::string>;

Lines& told()
{
    static Lines lines;
    return lines;
}

void tell(Severity severity, const std::string& text)
{
    told().push_back(std::to_string(static_cast<int>(severity)) + " " + text);
}

Layout layout_with(WhenDamaged when_damaged, milliseconds interval = milliseconds(0))
{
    Layout layout{"store", {"a", "b"}, std::size_t{8} * 1024 * 1024, true, tell};
    layout.when_damaged = when_damaged;
    layout.copy_after = milliseconds(0);
    layout.copy_interval = interval;
    return layout;
}

using Content = std::map<std::string, std::string>;

Content content_of(Environment& environment, std::size_t tree)
{
    Content content;
    Read transaction(environment);
    Cursor cursor(transaction, tree);
    for (bool found = cursor.first(); found; found = cursor.next())
        content.emplace(cursor.key(), cursor.value());
    return content;
}

class DamageTest : public testing::Test {
protected:
    void SetUp() override { told().clear(); }

    [[nodiscard]] std::string directory() const { return m_root.path() + "/store"; }
    [[nodiscard]] std::string data_file() const { return directory() + "/data.mdb"; }
    [[nodiscard]] std::string copy_file() const { return data_file() + ".copy"; }
    [[nodiscard]] std::string damaged_file() const { return data_file() + ".damaged"; }

    /// Looks after the store until its copy is of the last commit.
    void renew_copy(Environment& environment) const
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (copied_commit() != last_commit(environment) && std::chrono::steady_clock::now() < deadline)
            environment.look_after();
        ASSERT_EQ(copied_commit(), last_commit(environment));
        environment.look_after();
    }

    [[nodiscard]] std::uint64_t copied_commit() const
    {
        const Fd file(open(copy_file().c_str(), O_RDONLY | O_CLOEXEC));
        return file.is_open() ? last_commit_in(file) : 0;
    }

    void damage() const
    {
        std::string bytes = slurp(data_file());
        for (std::size_t i = 0; i < bytes.size(); i += 4)
            bytes.at(i) = static_cast<char>(~bytes.at(i));
        spill(data_file(), bytes);
    }

    TemporaryRoot m_root;
};

} // namespace

TEST_F(DamageTest, A_store_that_others_can_fill_again_is_set_aside_and_made_anew_with_one_line)
{
    const Layout layout = layout_with(WhenDamaged::set_aside);
    std::string damaged;
    {
        Environment environment(layout);
        ASSERT_EQ(environment.open(), Error::none);
        ASSERT_EQ(write(environment, "key", "old"), Error::none);
        environment.close();
        damage();
        damaged = slurp(data_file());
        ASSERT_EQ(environment.open(), Error::none);
        EXPECT_EQ(told(), Lines{"0 store store: its data file was damaged (no store's first page), is now " +
                                damaged_file() + ", and is created anew"});
        EXPECT_EQ(value_in(environment, "key"), "absent");
        EXPECT_EQ(write(environment, "key", "new"), Error::none);
    }
    EXPECT_EQ(slurp(damaged_file()), damaged);
    Environment environment(layout);
    ASSERT_EQ(environment.open(), Error::none);
    EXPECT_EQ(value_in(environment, "key"), "new");
}

TEST_F(DamageTest, What_stands_in_a_data_files_place_is_set_aside_too)
{
    for (const bool is_directory : {false, true}) {
        fs::create_directories(directory());
        if (is_directory)
            fs::create_directory(data_file());
        else
            spill(data_file(), "garbage");
        Environment environment(layout_with(WhenDamaged::set_aside));
        ASSERT_EQ(environment.open(), Error::none);
        EXPECT_EQ(write(environment, "key", "new"), Error::none);
        EXPECT_TRUE(fs::exists(damaged_file()));
        environment.close();
        fs::remove_all(directory());
    }
}

TEST_F(DamageTest, A_store_that_another_process_has_open_is_not_looked_at)
{
    const Layout layout = layout_with(WhenDamaged::set_aside);
    Companion other([&](Companion::Ends ends) -> int {
        Environment own(layout);
        REQUIRE(own.open() == Error::none);
        REQUIRE(write(own, "key", "its") == Error::none);
        REQUIRE(::write(ends.out, "o", 1) == 1);
        char byte = 0;
        REQUIRE(::read(ends.in, &byte, 1) == 1);
        own.refresh();
        return value_in(own, "key") == "mine" ? 0 : 1;
    });
    ASSERT_EQ(other.hear(), 'o');
    fs::remove(directory() + "/lock.mdb"); // with the rest of tmp/, for instance
    Environment environment(layout);
    ASSERT_EQ(environment.open(), Error::none);
    EXPECT_EQ(value_in(environment, "key"), "its");
    ASSERT_EQ(write(environment, "key", "mine"), Error::none);
    EXPECT_EQ(told(), Lines{});
    other.say('g');
    EXPECT_EQ(other.join(), 0);
}

TEST_F(DamageTest, The_copy_takes_the_place_of_a_damaged_file_and_what_came_after_it_is_lost)
{
    Environment environment(layout_with(WhenDamaged::restore));
    ASSERT_EQ(environment.open(), Error::none);
    ASSERT_EQ(write(environment, "key", "copied"), Error::none);
    renew_copy(environment);
    const std::uint64_t copied = last_commit(environment);
    const std::string time = [&] {
        struct stat status {};
        EXPECT_EQ(stat(copy_file().c_str(), &status), 0);
        char text[32] = "";
        (void)std::strftime(text, sizeof text, "%Y-%m-%d %H:%M", std::localtime(&status.st_mtim.tv_sec));
        return std::string(text);
    }();
    ASSERT_EQ(write(environment, "key", "lost"), Error::none);
    environment.close();
    damage();
    ASSERT_EQ(environment.open(), Error::none);
    EXPECT_EQ(told(), Lines{"0 store store: its data file was damaged (no store's first page), is now " +
                            damaged_file() + ", and the copy of " + time + " is in its place"});
    EXPECT_EQ(value_in(environment, "key"), "copied");
    EXPECT_EQ(last_commit(environment), copied) << "numbers go on";
    ASSERT_EQ(write(environment, "key", "new"), Error::none);
    EXPECT_EQ(last_commit(environment), copied + 1);
    EXPECT_TRUE(fs::exists(damaged_file()));
    EXPECT_TRUE(fs::exists(copy_file())) << "for the next time";
}

TEST_F(DamageTest, The_copy_takes_the_place_of_a_damaged_file_that_cannot_be_kept_and_says_so)
{
    Environment environment(layout_with(WhenDamaged::restore));
    ASSERT_EQ(environment.open(), Error::none);
    ASSERT_EQ(write(environment, "key", "copied"), Error::none);
    renew_copy(environment);
    environment.close();
    damage();
    fs::create_directory(damaged_file());
    ASSERT_EQ(environment.open(), Error::none);
    const Lines lines = told();
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].find(
                  "0 store store: its data file was damaged (no store's first page), cannot be kept: File "
                  "exists, and the copy of "),
              0U)
        << lines[0];
    EXPECT_EQ(value_in(environment, "key"), "copied");
}

TEST_F(DamageTest, Without_a_sound_copy_a_damaged_store_is_refused)
{
    Environment environment(layout_with(WhenDamaged::restore));
    ASSERT_EQ(environment.open(), Error::none);
    ASSERT_EQ(write(environment, "key", "value"), Error::none);
    environment.close();
    damage();
    EXPECT_EQ(environment.open(), Error::input_output);
    EXPECT_EQ(environment.failure().kind, Failure::Kind::damage);
    spill(copy_file(), slurp(data_file()));
    EXPECT_EQ(environment.open(), Error::input_output);
    EXPECT_EQ(environment.failure().kind, Failure::Kind::damage);
}

TEST_F(DamageTest, A_copy_has_all_entries_however_large_and_is_compact)
{
    Environment environment(layout_with(WhenDamaged::restore));
    ASSERT_EQ(environment.open(), Error::none);
    for (std::size_t i = 0; i < 60; ++i)
        ASSERT_EQ(write(environment, "key " + std::to_string(i), std::string(i * i * i, 'v'), i % 2),
                  Error::none);
    for (const std::size_t size : {std::size_t{300'000}, std::size_t{0}}) // pages that nothing uses any more
        ASSERT_EQ(write(environment, "key 0", std::string(size, 'v')), Error::none);
    const Content a = content_of(environment, 0);
    const Content b = content_of(environment, 1);
    renew_copy(environment);
    EXPECT_LT(fs::file_size(copy_file()), fs::file_size(data_file()));
    environment.close();
    fs::rename(copy_file(), data_file());
    ASSERT_EQ(environment.open(), Error::none);
    EXPECT_EQ(content_of(environment, 0), a);
    EXPECT_EQ(content_of(environment, 1), b);
    EXPECT_EQ(told(), Lines{});
}

TEST_F(DamageTest, The_copy_is_renewed_only_when_there_is_something_new)
{
    Environment environment(layout_with(WhenDamaged::restore));
    ASSERT_EQ(environment.open(), Error::none);
    ASSERT_EQ(write(environment, "key", "one"), Error::none);
    renew_copy(environment);
    const auto inode = [&] {
        struct stat status {};
        return stat(copy_file().c_str(), &status) == 0 ? status.st_ino : 0;
    };
    const auto first = inode();
    const Fd keep(open(copy_file().c_str(), O_RDONLY | O_CLOEXEC)); // so that its number is not used again
    for (int i = 0; i < 100; ++i)
        environment.look_after();
    EXPECT_EQ(inode(), first);
    ASSERT_EQ(write(environment, "key", "two"), Error::none);
    renew_copy(environment);
    EXPECT_NE(inode(), first);
}

TEST_F(DamageTest, The_copy_is_renewed_no_more_often_than_the_layout_says)
{
    Environment environment(layout_with(WhenDamaged::restore, std::chrono::hours(1)));
    ASSERT_EQ(environment.open(), Error::none);
    ASSERT_EQ(write(environment, "key", "one"), Error::none);
    renew_copy(environment);
    const std::uint64_t first = copied_commit();
    ASSERT_EQ(write(environment, "key", "two"), Error::none);
    for (int i = 0; i < 100; ++i)
        environment.look_after();
    EXPECT_EQ(copied_commit(), first);
    fs::last_write_time(copy_file(), fs::file_time_type::clock::now() - std::chrono::hours(2));
    renew_copy(environment);
}

TEST_F(DamageTest, A_write_meanwhile_makes_the_copy_begin_again)
{
    Environment environment(layout_with(WhenDamaged::restore));
    ASSERT_EQ(environment.open(), Error::none);
    ASSERT_EQ(write(environment, "large", std::string(2000000, 'v')), Error::none);
    ASSERT_EQ(write(environment, "later", "x", 1), Error::none);
    environment.look_after();
    environment.look_after();
    EXPECT_EQ(copied_commit(), 0U) << "the first pieces only";
    ASSERT_EQ(write(environment, "later", "y", 1), Error::none);
    renew_copy(environment);
    EXPECT_EQ(told(), Lines{});
    environment.close();
    EXPECT_FALSE(fs::exists(copy_file() + ".new"));
}

TEST_F(DamageTest, A_store_that_is_written_faster_than_it_is_copied_in_pieces_gets_its_copy)
{
    Layout layout = layout_with(WhenDamaged::restore, milliseconds(1000));
    layout.copy_after = std::chrono::hours(1);
    Environment environment(layout);
    ASSERT_EQ(environment.open(), Error::none);
    for (int i = 0; i < 30; ++i)
        ASSERT_EQ(write(environment, "large " + std::to_string(i), std::string(100000, 'v')), Error::none);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    for (int i = 0; copied_commit() == 0 && std::chrono::steady_clock::now() < deadline; ++i) {
        environment.look_after();
        ASSERT_EQ(write(environment, "written all the time", std::to_string(i)), Error::none);
    }
    EXPECT_EQ(copied_commit() + 1, last_commit(environment));
    EXPECT_EQ(told(), Lines{});
    environment.close();
    fs::rename(copy_file(), data_file());
    ASSERT_EQ(environment.open(), Error::none);
    EXPECT_EQ(content_of(environment, 0).size(), 31U);
}

TEST_F(DamageTest, A_copy_that_a_write_has_ended_is_begun_again_after_a_tenth_of_the_interval)
{
    Environment environment(layout_with(WhenDamaged::restore, std::chrono::hours(1)));
    ASSERT_EQ(environment.open(), Error::none);
    for (int i = 0; i < 30; ++i)
        ASSERT_EQ(write(environment, "large " + std::to_string(i), std::string(100000, 'v')), Error::none);
    environment.look_after();
    ASSERT_TRUE(fs::exists(copy_file() + ".new")) << "it is copied in pieces";
    ASSERT_EQ(write(environment, "key", "value"), Error::none);
    environment.look_after();
    const auto start = std::chrono::steady_clock::now();
    while (std::chrono::steady_clock::now() - start < milliseconds(1200)) { // it looks once a second, else
        environment.look_after();
        ASSERT_FALSE(fs::exists(copy_file() + ".new"));
    }
    EXPECT_EQ(told(), Lines{});
}

TEST_F(DamageTest, A_small_store_is_copied_at_once)
{
    Environment environment(layout_with(WhenDamaged::restore));
    ASSERT_EQ(environment.open(), Error::none);
    ASSERT_EQ(write(environment, "large", std::string(900000, 'v')), Error::none);
    ASSERT_EQ(write(environment, "later", "x", 1), Error::none);
    environment.look_after();
    EXPECT_EQ(copied_commit(), last_commit(environment));
}

TEST_F(DamageTest, A_copy_maps_no_more_than_it_will_hold)
{
    Environment environment(layout_with(WhenDamaged::restore));
    ASSERT_EQ(environment.open(), Error::none);
    Write transaction(environment);
    for (std::size_t i = 0; i < 1500; ++i) { // pages that are full, half full, and in a row
        const std::size_t size = i % 100 == 0 ? 10000 : i * 617 % 2100;
        ASSERT_EQ(transaction.put(0, "key " + std::to_string(i * 7919 % 1500), std::string(size, 'v')),
                  Error::none);
    }
    ASSERT_EQ(transaction.commit(), Error::none);
    Usage usage;
    ASSERT_EQ(environment.measure(usage), Error::none);
    environment.look_after();
    environment.look_after();
    ASSERT_EQ(copied_commit(), 0U) << "the first pieces only";
    std::vector<std::size_t> mapped;
    for (const std::string& line : lines_of(slurp("/proc/self/maps"))) {
        if (line.find(copy_file() + ".new") == std::string::npos)
            continue;
        const std::size_t dash = line.find('-');
        mapped.push_back(std::stoul(line.substr(dash + 1), nullptr, 16) - std::stoul(line, nullptr, 16));
    }
    ASSERT_EQ(mapped.size(), 1U);
    EXPECT_LE(mapped.front(), usage.used + (std::size_t{1} << 20));
    EXPECT_LT(mapped.front(), std::size_t{6} << 20) << "of a store of 8 MiB";
    renew_copy(environment);
}

TEST_F(DamageTest, One_process_at_a_time_renews_the_copy)
{
    Environment environment(layout_with(WhenDamaged::restore));
    ASSERT_EQ(environment.open(), Error::none);
    ASSERT_EQ(write(environment, "large", std::string(2000000, 'v')), Error::none);
    Companion other([&](Companion::Ends ends) -> int {
        Environment own(layout_with(WhenDamaged::restore));
        REQUIRE(own.open() == Error::none);
        own.look_after();
        REQUIRE(::write(ends.out, "b", 1) == 1);
        char byte = 0;
        REQUIRE(::read(ends.in, &byte, 1) == 1);
        return 0;
    });
    ASSERT_EQ(other.hear(), 'b');
    for (int i = 0; i < 100; ++i)
        environment.look_after();
    EXPECT_EQ(copied_commit(), 0U);
    other.kill();
    EXPECT_EQ(other.join(), 1000 + SIGKILL);
    renew_copy(environment);
}

TEST_F(DamageTest, Who_has_renewed_the_copy_lets_others_do_it_the_next_time)
{
    Environment environment(layout_with(WhenDamaged::restore));
    ASSERT_EQ(environment.open(), Error::none);
    ASSERT_EQ(write(environment, "first", "x"), Error::none);
    renew_copy(environment);
    const Outcome other = in_child([&]() -> int {
        Environment own(layout_with(WhenDamaged::restore));
        REQUIRE(own.open() == Error::none);
        REQUIRE(write(own, "second", "x") == Error::none);
        renew_copy(own);
        return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(other.status, 0) << other.out;
}

TEST_F(DamageTest, Without_room_for_a_copy_there_is_one_line_and_the_last_one_stays)
{
    fs::create_directory(directory());
    const Outcome outcome = on_small_disk(directory(), "300k", [&]() -> int {
        Environment environment(layout_with(WhenDamaged::restore));
        REQUIRE(environment.open() == Error::none);
        REQUIRE(write(environment, "key", "one") == Error::none);
        for (int i = 0; i < 100; ++i)
            environment.look_after();
        const std::uint64_t first = copied_commit();
        REQUIRE(first == last_commit(environment));
        REQUIRE(write(environment, "large", std::string(100000, 'v')) == Error::none);
        fill_disk(directory() + "/filler");
        for (int i = 0; i < 100; ++i)
            environment.look_after();
        REQUIRE(copied_commit() == first);
        REQUIRE(told() == Lines{"1 store store: cannot renew the copy of its data file"});
        fs::remove(directory() + "/filler");
        for (int i = 0; i < 100; ++i)
            environment.look_after();
        REQUIRE(copied_commit() == last_commit(environment));
        return 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
}

TEST_F(DamageTest, A_restoration_killed_in_any_system_call_is_finished_by_the_next_one)
{
    const Layout layout = layout_with(WhenDamaged::restore);
    {
        Environment environment(layout);
        ASSERT_EQ(environment.open(), Error::none);
        ASSERT_EQ(write(environment, "key", "copied"), Error::none);
        renew_copy(environment);
    }
    bool is_over = false;
    for (int steps = 0; !is_over; ++steps) {
        damage();
        Stepped other([&] {
            Environment environment(layout);
            return environment.open() == Error::none ? 0 : 1;
        });
        is_over = !other.step(steps);
        other.kill();
        Environment environment(layout);
        ASSERT_EQ(environment.open(), Error::none) << steps;
        ASSERT_EQ(value_in(environment, "key"), "copied") << steps;
    }
}

TEST_F(DamageTest, The_copy_is_renewed_when_there_is_memory_again)
{
    Environment environment(layout_with(WhenDamaged::restore));
    ASSERT_EQ(environment.open(), Error::none);
    for_each_allocation([&](unsigned long number) {
        EXPECT_EQ(write(environment, "key", std::to_string(number)), Error::none);
        const auto look_after = [&] {
            try {
                environment.look_after();
            } catch (const std::bad_alloc&) { // another attempt is made
            }
        };
        bool failed = false;
        {
            const FailingMemory memory(number);
            for (int i = 0; i < 5; ++i) // it takes several to make a copy
                look_after();
            failed = FailingMemory::has_failed();
        }
        renew_copy(environment);
        return failed;
    });
}

TEST_F(DamageTest, While_the_store_is_not_idle_the_copy_is_renewed_at_ten_times_its_age)
{
    using std::chrono::hours;
    {
        Environment environment(layout_with(WhenDamaged::restore));
        ASSERT_EQ(environment.open(), Error::none);
        ASSERT_EQ(write(environment, "key", "one"), Error::none);
        renew_copy(environment);
        ASSERT_EQ(write(environment, "key", "two"), Error::none);
    }
    const std::uint64_t first = copied_commit();
    Layout layout = layout_with(WhenDamaged::restore, hours(1));
    layout.copy_after = hours(1);
    struct Case {
        hours age;
        bool is_renewed;
    };
    for (const Case& c : {Case{hours(2), false}, Case{hours(9), false}, Case{hours(11), true}}) {
        fs::last_write_time(copy_file(), fs::file_time_type::clock::now() - c.age);
        Environment environment(layout); // which looks at once
        ASSERT_EQ(environment.open(), Error::none);
        for (int i = 0; i < 20; ++i)
            environment.look_after();
        EXPECT_EQ(copied_commit() == last_commit(environment), c.is_renewed) << c.age.count();
        EXPECT_EQ(copied_commit() == first, !c.is_renewed) << c.age.count();
    }
}

TEST_F(DamageTest, A_copy_of_the_future_is_renewed_as_an_old_one)
{
    const Layout layout = layout_with(WhenDamaged::restore, std::chrono::hours(1));
    {
        Environment environment(layout);
        ASSERT_EQ(environment.open(), Error::none);
        ASSERT_EQ(write(environment, "key", "one"), Error::none);
        renew_copy(environment);
        ASSERT_EQ(write(environment, "key", "two"), Error::none);
    }
    fs::last_write_time(copy_file(), fs::file_time_type::clock::now() + std::chrono::hours(1));
    Environment environment(layout);
    ASSERT_EQ(environment.open(), Error::none);
    for (int i = 0; i < 20; ++i)
        environment.look_after();
    EXPECT_EQ(copied_commit(), last_commit(environment));
}

TEST_F(DamageTest, A_copy_that_could_not_be_made_is_tried_again_after_a_tenth_of_the_interval)
{
    fs::create_directory(directory());
    const Outcome outcome = on_small_disk(directory(), "300k", [&]() -> int {
        Environment environment(layout_with(WhenDamaged::restore, std::chrono::hours(1)));
        REQUIRE(environment.open() == Error::none);
        REQUIRE(write(environment, "large", std::string(100000, 'v')) == Error::none);
        fill_disk(directory() + "/filler");
        for (int i = 0; i < 100; ++i)
            environment.look_after();
        REQUIRE(told() == Lines{"1 store store: cannot renew the copy of its data file"});
        fs::remove(directory() + "/filler");
        const auto start = std::chrono::steady_clock::now();
        while (std::chrono::steady_clock::now() - start < milliseconds(1200)) // it looks once a second, else
            environment.look_after();
        REQUIRE(copied_commit() == 0);
        return 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
}

TEST_F(DamageTest, Without_room_to_restore_in_the_copy_is_kept_for_the_next_time)
{
    fs::create_directory(directory());
    const Outcome outcome = on_small_disk(directory(), "400k", [&]() -> int {
        Environment environment(layout_with(WhenDamaged::restore));
        REQUIRE(environment.open() == Error::none);
        REQUIRE(write(environment, "key", "copied") == Error::none);
        renew_copy(environment);
        const std::string copy = slurp(copy_file());
        environment.close();
        damage();
        fill_disk(directory() + "/filler");
        REQUIRE(environment.open() == Error::input_output);
        REQUIRE(told() ==
                Lines{"0 store store: cannot restore the data file from its copy: No space left on device"});
        REQUIRE(slurp(copy_file()) == copy);
        fs::remove(directory() + "/filler");
        REQUIRE(environment.open() == Error::none);
        REQUIRE(value_in(environment, "key") == "copied");
        return 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
}
