// Stores that are full, read-only, missing or damaged: an error return and a log line, and recovery without a
// restart.

#include "settings_store.h"
#include "store_support.h"

#include <orvutils/error.h>
#include <orvutils/log_control.h>

#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <list>

using namespace orv::setMgmt;
namespace fs = std::filesystem;

namespace {

class StoreFailureTest : public testing::Test {
protected:
    void SetUp() override { fs::create_directories(m_root.path() + "/tmp"); }
    void TearDown() override { uninit(); }

    /// Gives up root's right to ignore permissions, and the agent's root directory with it.
    [[nodiscard]] bool become_nobody() const
    {
        constexpr uid_t kNobody = 65534;
        return geteuid() != 0 || (chown(m_root.path().c_str(), kNobody, kNobody) == 0 &&
                                  chown(tmp().c_str(), kNobody, kNobody) == 0 && setuid(kNobody) == 0);
    }

    [[nodiscard]] std::string tmp() const { return m_root.path() + "/tmp"; }

    TemporaryRoot m_root;
};

/// Whether something holds within the time that a store may take to notice.
bool comes_true(const std::function<bool()>& condition)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (!condition())
        if (std::chrono::steady_clock::now() > deadline)
            return false;
    return true;
}

/// Puts bytes in place of those that a file has; as spill(), but the file is never shorter meanwhile.
void spill_over(const std::string& file, const std::string& bytes)
{
    std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
    stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

} // namespace

TEST_F(StoreFailureTest, A_full_disk_fails_writes_only_and_only_while_it_is_full)
{
    const Outcome outcome = on_small_disk(tmp(), "400k", [&]() -> int {
        REQUIRE(init() == 0);
        REQUIRE(setKey("/tmp/first", "kept") == 0);
        fill_disk(tmp() + "/filler");
        int written = 0;
        while (setKey("/tmp/k" + std::to_string(written), std::string(3000, 'v')) == 0)
            REQUIRE(++written < 1000);
        REQUIRE(orv::_get_orverrno() == 2);
        orv::log::begin_anew();
        std::fprintf(stderr, "]: ---\n");
        REQUIRE(setKey("/tmp/again", std::string(3000, 'v')) == -2);
        REQUIRE(value_of("/tmp/first") == "kept");
        REQUIRE(value_of("/tmp/again") == "error 4");
        REQUIRE(lockKey("/tmp/first") == 0 || orv::_get_orverrno() == 2);
        fs::remove(tmp() + "/filler");
        REQUIRE(setKey("/tmp/again", std::string(3000, 'v')) == 0);
        return 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    const std::string second = outcome.err.substr(outcome.err.find("---"));
    EXPECT_LE(count_log_lines(second), 2U) << second;
    EXPECT_GE(count_log_lines(second), 1U) << second;
}

TEST_F(StoreFailureTest, A_store_that_has_reached_its_size_limit_still_reads_and_deletes)
{
    ASSERT_EQ(init(), 0);
    const std::string value(kMaxValueSize, 'v');
    int written = 0;
    while (setKey("/tmp/big/" + std::to_string(written), value) == 0)
        ASSERT_LT(++written, 1000);
    EXPECT_EQ(orv::_get_orverrno(), 2);
    EXPECT_EQ(value_of("/tmp/big/0"), value);
    EXPECT_EQ(deleteKey("/tmp/big"), 0);
    EXPECT_EQ(setKey("/tmp/small", "x"), 0) << "the room is free one commit after the removal";
    EXPECT_EQ(setKey("/tmp/big/0", value), 0);
}

TEST_F(StoreFailureTest, A_volatile_store_filled_to_its_last_page_can_be_emptied_key_by_key_and_at_once)
{
    ASSERT_EQ(init(), 0);
    for (const std::size_t size : {std::size_t{700}, std::size_t{20000}, kMaxValueSize}) {
        for (const bool at_once : {true, false}) {
            int written = 0;
            while (setKey("/tmp/fill/" + std::to_string(written), std::string(size, 'v')) == 0)
                ++written;
            ASSERT_GT(written, 20) << size;
            EXPECT_EQ(setKey("/tmp/more", std::string(size, 'v')), -2);
            if (at_once) {
                ASSERT_EQ(deleteKey("/tmp/fill"), 0) << size;
            } else {
                for (int i = 0; i < written; ++i)
                    ASSERT_EQ(deleteKey("/tmp/fill/" + std::to_string(i)), 0) << size << ", " << i;
            }
            EXPECT_EQ(value_of("/tmp/fill"), "error 4");
            ASSERT_EQ(setKey("/tmp/small", "x"), 0);
        }
    }
}

TEST_F(StoreFailureTest, A_durable_store_filled_to_its_last_page_can_be_emptied)
{
    ASSERT_EQ(init(), 0);
    const std::string value(kMaxValueSize, 'v');
    int written = 0;
    while (setKey("/fill/" + std::to_string(written), value) == 0)
        ++written;
    ASSERT_GT(written, 20);
    for (int i = 0; setKey("/fill/small/" + std::to_string(i), value.substr(0, 100000)) == 0; ++i) {
    }
    for (int i = 0; i < 12; ++i)
        ASSERT_EQ(deleteKey("/fill/" + std::to_string(i)), 0);
    EXPECT_EQ(deleteKey("/fill"), 0);
    EXPECT_EQ(value_of("/fill"), "error 4");
    EXPECT_EQ(setKey("/small", "x"), 0);
}

TEST_F(StoreFailureTest, A_store_cannot_be_created_on_a_full_disk_but_later)
{
    const Outcome outcome = on_small_disk(tmp(), "64k", [&]() -> int {
        for (unsigned left = 0; left < 10; ++left) {
            fill_disk(tmp() + "/filler");
            fs::resize_file(tmp() + "/filler", fs::file_size(tmp() + "/filler") - std::size_t{4096} * left);
            orv::log::begin_anew();
            std::fprintf(stderr, "]: ---\n");
            if (init() == 0)
                uninit();
            else
                REQUIRE(orv::_get_orverrno() == 2);
            fs::remove(tmp() + "/filler");
            REQUIRE(init() == 0);
            REQUIRE(setKey("/tmp/a", "x") == 0);
            uninit();
            fs::remove_all(tmp() + "/settings");
        }
        return 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_GT(count_log_lines(outcome.err), 10U);
    EXPECT_LE(count_log_lines(outcome.err), 20U) << outcome.err;
}

TEST_F(StoreFailureTest, A_lock_file_without_blocks_on_a_full_disk_is_an_error_and_no_crash)
{
    const Outcome outcome = on_small_disk(tmp(), "256k", [&]() -> int {
        REQUIRE(init() == 0);
        REQUIRE(setKey("/tmp/a", "x") == 0);
        uninit();
        fs::resize_file(tmp() + "/settings/lock.mdb", 0);
        fs::resize_file(tmp() + "/settings/lock.mdb", 65536); // a hole
        fill_disk(tmp() + "/filler");
        REQUIRE(init() == -2);
        fs::remove(tmp() + "/filler");
        REQUIRE(init() == 0);
        REQUIRE(value_of("/tmp/a") == "x");
        return 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(count_log_lines(outcome.err), 1U) << outcome.err;
}

TEST_F(StoreFailureTest, A_read_only_store_can_be_read_and_becomes_writable_again)
{
    const Outcome outcome = on_small_disk(tmp(), "1m", [&]() -> int {
        REQUIRE(init() == 0);
        REQUIRE(setKey("/tmp/a", "x") == 0);
        uninit();
        REQUIRE(make_read_only(tmp(), true));
        REQUIRE(init() == 0);
        REQUIRE(value_of("/tmp/a") == "x");
        std::fprintf(stderr, "]: ---\n"); // so far it is one line for each store
        std::vector<std::string> names;
        REQUIRE(enumSubkeys("/tmp", names) == 1);
        REQUIRE(setKey("/tmp/a", "y") == -2);
        REQUIRE(deleteKey("/tmp/a") == -2);
        REQUIRE(lockKey("/tmp/a") == -2);
        REQUIRE(value_of("/tmp/a") == "x");
        REQUIRE(make_read_only(tmp(), false));
        REQUIRE(setKey("/tmp/a", "y") == 0);
        REQUIRE(value_of("/tmp/a") == "y");
        return 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    const std::string first = outcome.err.substr(0, outcome.err.find("]: ---"));
    EXPECT_EQ(count_log_lines(first), 2U) << first;
    for (const char* store : {"tmp/settings", "var/settings"}) // whose lock file is in memory, too
        EXPECT_NE(first.find("]: store " + std::string(store) + ": can be read only\n"), std::string::npos)
            << first;
}

TEST_F(StoreFailureTest, A_store_whose_data_file_may_not_be_written_can_be_read)
{
    const Outcome outcome = in_child([&]() -> int {
        REQUIRE(become_nobody());
        REQUIRE(init() == 0);
        REQUIRE(setKey("/a", "x") == 0);
        uninit();
        fs::permissions(m_root.path() + "/var/settings/data.mdb", fs::perms::owner_read);
        REQUIRE(init() == 0);
        REQUIRE(value_of("/a") == "x");
        REQUIRE(setKey("/a", "y") == -2);
        fs::permissions(m_root.path() + "/var/settings/data.mdb",
                        fs::perms::owner_read | fs::perms::owner_write);
        REQUIRE(setKey("/a", "y") == 0);
        return 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
}

TEST_F(StoreFailureTest, A_lock_file_that_may_not_be_written_is_an_error_that_names_it)
{
    const Outcome outcome = in_child([&]() -> int {
        REQUIRE(become_nobody());
        REQUIRE(init() == 0);
        uninit();
        fs::permissions(m_root.path() + "/var/settings/lock.mdb", fs::perms::owner_read);
        REQUIRE(init() == -2);
        return 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(count_log_lines(outcome.err), 1U) << outcome.err;
    EXPECT_NE(outcome.err.find("cannot open the lock file: Permission denied"), std::string::npos)
        << outcome.err;
}

TEST_F(StoreFailureTest, A_missing_store_cannot_be_created_on_a_read_only_disk)
{
    const Outcome outcome = on_small_disk(tmp(), "1m", [&]() -> int {
        REQUIRE(make_read_only(tmp(), true));
        REQUIRE(init() == -2);
        REQUIRE(value_of("/tmp/a") == "error 2");
        REQUIRE(make_read_only(tmp(), false));
        REQUIRE(init() == 0);
        return 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(count_log_lines(outcome.err), 1U) << outcome.err;
}

TEST_F(StoreFailureTest, A_damaged_or_impossible_data_file_is_refused_with_one_log_line)
{
    const std::string directory = m_root.path() + "/var/settings";
    const std::string file = directory + "/data.mdb";
    fs::create_directories(directory);
    const std::function<void()> damages[] = {
        [&] { spill(file, "garbage"); },
        [&] { spill(file, std::string(65536, '\0')); },
        [&] { fs::create_directory(file); },
        [&] { ASSERT_EQ(mkfifo(file.c_str(), 0600), 0); },
    };
    for (const auto& damage : damages) {
        fs::remove_all(file);
        damage();
        const Outcome outcome = in_child([]() -> int {
            REQUIRE(init() == -2);
            REQUIRE(orv::_get_orverrno() == 2);
            REQUIRE(value_of("/a") == "error 2");
            REQUIRE(setKey("/a", "x") == -2);
            return 0;
        });
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_EQ(count_log_lines(outcome.err), 1U) << outcome.err;
    }
}

TEST_F(StoreFailureTest, A_damaged_volatile_store_is_created_anew_with_one_log_line)
{
    const std::string file = tmp() + "/settings/data.mdb";
    const std::function<void()> damages[] = {
        [&] { spill(file, "garbage"); },
        [&] { spill(file, std::string(65536, '\0')); },
        [&] { fs::resize_file(file, fs::file_size(file) / 2); },
    };
    for (const auto& damage : damages) {
        ASSERT_EQ(init(), 0);
        ASSERT_EQ(setKey("/a", "x"), 0);
        ASSERT_EQ(setKey("/tmp/a", "x"), 0);
        uninit();
        damage();
        const Outcome outcome = in_child([]() -> int {
            REQUIRE(init() == 0);
            REQUIRE(value_of("/a") == "x");
            REQUIRE(value_of("/tmp/a") == "error 4");
            REQUIRE(setKey("/tmp/a", "y") == 0);
            return 0;
        });
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_EQ(count_log_lines(outcome.err), 1U) << outcome.err;
    }
}

TEST_F(StoreFailureTest, A_damaged_volatile_store_stays_as_long_as_another_process_has_it_open)
{
    const std::string file = tmp() + "/settings/data.mdb";
    Companion other([](Companion::Ends ends) -> int {
        REQUIRE(init() == 0);
        REQUIRE(setKey("/tmp/a", "x") == 0);
        REQUIRE(write(ends.out, "o", 1) == 1);
        pause();
        return 0;
    });
    ASSERT_EQ(other.hear(), 'o');
    const std::string sound = slurp(file);
    spill_over(file, std::string(sound.size(), '\xff'));
    EXPECT_EQ(init(), -2);
    spill_over(file, sound);
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(value_of("/tmp/a"), "x") << "the file is still the same";
    uninit();
    spill_over(file, std::string(sound.size(), '\xff'));
    other.kill();
    ASSERT_EQ(other.join(), 1000 + SIGKILL);
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(value_of("/tmp/a"), "error 4");
}

TEST_F(StoreFailureTest,
       A_volatile_store_that_is_damaged_under_its_users_is_one_and_the_same_for_all_afterwards)
{
    ASSERT_EQ(init(), 0);
    ASSERT_EQ(setKey("/tmp/a", "x"), 0);
    const std::string file = tmp() + "/settings/data.mdb";
    fs::remove(file);
    spill(file, "garbage");
    ASSERT_EQ(setKey("/tmp/a", "y"), 0);
    const Outcome other = in_process_with_store([]() -> int {
        REQUIRE(value_of("/tmp/a") == "y");
        REQUIRE(setKey("/tmp/a", "z") == 0);
        return 0;
    });
    EXPECT_EQ(other.status, 0) << other.err;
    EXPECT_EQ(value_of("/tmp/a"), "z");
}

TEST_F(StoreFailureTest, A_durable_store_that_a_power_cut_kept_from_being_created_is_created_again)
{
    const std::string file = m_root.path() + "/var/settings/data.mdb";
    fs::create_directories(m_root.path() + "/var/settings");
    spill(file, std::string(2 * static_cast<std::size_t>(getpagesize()), '\0'));
    EXPECT_EQ(init(), 0);
    EXPECT_EQ(setKey("/a", "x"), 0);
    uninit();
    spill(file, std::string(static_cast<std::size_t>(fs::file_size(file)), '\0'));
    EXPECT_EQ(init(), -2) << "this one had been finished";
}

TEST_F(StoreFailureTest, Damaged_settings_are_replaced_by_their_copy)
{
    const std::string file = m_root.path() + "/var/settings/data.mdb";
    ASSERT_EQ(init(), 0);
    ASSERT_EQ(setKey("/a", "copied"), 0);
    uninit();
    fs::copy_file(file, file + ".copy");
    ASSERT_EQ(init(), 0);
    ASSERT_EQ(setKey("/a", "lost"), 0);
    uninit();
    spill_over(file, std::string(8192, '\xff'));
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(value_of("/a"), "copied");
    EXPECT_EQ(setKey("/a", "new"), 0);
    EXPECT_TRUE(fs::exists(file + ".damaged"));
}

TEST_F(StoreFailureTest, A_garbage_lock_file_that_nobody_uses_does_no_harm)
{
    ASSERT_EQ(init(), 0);
    ASSERT_EQ(setKey("/a", "x"), 0);
    uninit();
    for (const std::size_t size : {1U, 100U, 8192U, 100000U}) {
        spill(m_root.path() + "/var/settings/lock.mdb", std::string(size, '\xa5'));
        ASSERT_EQ(init(), 0);
        EXPECT_EQ(value_of("/a"), "x");
        EXPECT_EQ(setKey("/a", "x"), 0);
        uninit();
    }
}

TEST_F(StoreFailureTest, A_deleted_store_is_created_again_on_the_next_write)
{
    ASSERT_EQ(init(), 0);
    for (const char* key : {"/a", "/tmp/a"}) {
        ASSERT_EQ(setKey(key, "x"), 0);
        ASSERT_EQ(setKey(std::string(key) + "/b", "x"), 0);
    }
    fs::remove_all(m_root.path() + "/var");
    fs::remove_all(tmp());
    for (const char* key : {"/a", "/tmp/a"}) {
        EXPECT_EQ(setKey(key, "y"), 0);
        EXPECT_EQ(value_of(key), "y");
        EXPECT_EQ(value_of(std::string(key) + "/b"), "error 4");
    }
    const Outcome other = in_process_with_store([]() -> int {
        REQUIRE(value_of("/a") == "y");
        REQUIRE(value_of("/tmp/a") == "y");
        return 0;
    });
    EXPECT_EQ(other.status, 0) << other.err;
}

TEST_F(StoreFailureTest, A_value_that_only_a_deleted_store_had_is_written)
{
    ASSERT_EQ(init(), 0);
    ASSERT_EQ(setKey("/a", "x"), 0);
    fs::remove_all(m_root.path() + "/var");
    EXPECT_EQ(setKey("/a", "x"), 0);
    fs::remove_all(m_root.path() + "/var");
    {
        Batch batch;
        EXPECT_EQ(setKey("/a", "x"), 0);
        EXPECT_EQ(batch.commit(), 0);
    }
    const Outcome other = in_process_with_store([]() -> int { return value_of("/a") == "x" ? 0 : 1; });
    EXPECT_EQ(other.status, 0) << other.err;
}

TEST_F(StoreFailureTest, A_store_that_was_moved_away_and_back_is_found_again)
{
    ASSERT_EQ(init(), 0);
    ASSERT_EQ(setKey("/a", "x"), 0);
    const std::string directory = m_root.path() + "/var/settings";
    fs::rename(directory, directory + ".away");
    spill(directory, "in the way");
    EXPECT_EQ(setKey("/a", "y"), -2);
    EXPECT_TRUE(comes_true([] { return value_of("/a") == "error 2"; }));
    fs::remove(directory);
    fs::rename(directory + ".away", directory);
    EXPECT_TRUE(comes_true([] { return value_of("/a") == "x"; }));
    EXPECT_EQ(setKey("/a", "y"), 0);
}

TEST_F(StoreFailureTest, A_store_that_was_replaced_by_garbage_is_refused_until_it_is_repaired)
{
    ASSERT_EQ(init(), 0);
    ASSERT_EQ(setKey("/a", "x"), 0);
    const std::string file = m_root.path() + "/var/settings/data.mdb";
    fs::copy_file(file, file + ".backup");
    const Outcome outcome = in_process_with_store([&]() -> int {
        fs::remove(file);
        spill(file, "garbage");
        for (int i = 0; i < 1000; ++i)
            REQUIRE(setKey("/a", "y") == -2);
        REQUIRE(value_of("/a") == "error 2");
        fs::rename(file + ".backup", file);
        REQUIRE(comes_true([] { return value_of("/a") == "x"; }));
        return 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(count_log_lines(outcome.err), 2U) << "damaged, and back\n" << outcome.err;
}

TEST_F(StoreFailureTest, Malformed_keys_in_the_store_are_an_error_of_whoever_lists_them)
{
    ASSERT_EQ(init(), 0);
    ASSERT_EQ(setKey("/tmp/sound", "x"), 0);
    orv::detail::SettingsKey tmp;
    ASSERT_TRUE(tmp.parse("/tmp"));
    std::vector<std::string> names = {"before"};
    // Each of these children, if it had a name, would be its own parent or another key.
    for (const std::string_view piece : {std::string_view("\0", 1), std::string_view("\0below", 6),
                                         std::string_view("/"), std::string_view("a/b")}) {
        const std::string bytes = std::string(tmp.prefix()) + std::string(piece);
        orv::store::Write planting(orv::detail::settings_environment(tmp));
        ASSERT_EQ(planting.put(orv::detail::kValues, bytes, "12345678value"), orv::Error::none);
        ASSERT_EQ(planting.commit(), orv::Error::none);
        EXPECT_EQ(enumSubkeys("/tmp", names), -2) << piece;
        EXPECT_EQ(value_of("/tmp/sound"), "x");
        orv::store::Write cleaning(orv::detail::settings_environment(tmp));
        ASSERT_EQ(cleaning.remove(orv::detail::kValues, bytes), orv::Error::none);
        ASSERT_EQ(cleaning.commit(), orv::Error::none);
    }
    EXPECT_EQ(names, std::vector<std::string>{"before"});
    EXPECT_EQ(enumSubkeys("/tmp", names), 1);
}

TEST_F(StoreFailureTest, A_listing_ends_when_the_store_is_damaged_under_it)
{
    const std::string file = tmp() + "/settings/data.mdb";
    const Outcome outcome = in_process_with_store([&]() -> int {
        for (char name = 'b'; name <= 'z'; ++name) // each takes a ninth of a page
            REQUIRE(setKey("/tmp/" + std::string(400, name), "x") == 0);
        const std::string bytes = slurp(file);
        alarm(10); // in place of going on for ever
        int failures = 0;
        for (char name = 'c'; name <= 'z'; ++name) {
            std::string damaged = bytes;
            const std::string key(400, name);
            for (auto at = damaged.find(key); at != std::string::npos; at = damaged.find(key, at + 1))
                if (damaged.substr(at + 408, 1) == "x") // not in the branch above
                    damaged[at] = 'a';
            spill_over(file, damaged);
            std::vector<std::string> names;
            const int count = enumSubkeys("/tmp", names);
            REQUIRE(count == -2 || (count >= 0 && count <= 26));
            failures += count == -2 ? 1 : 0;
        }
        REQUIRE(failures > 0);
        return 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
}

TEST_F(StoreFailureTest, On_a_full_disk_there_is_a_place_for_each_of_a_hundred_readers)
{
    const Outcome outcome = on_small_disk(tmp(), "256k", [&]() -> int {
        REQUIRE(init() == 0);
        REQUIRE(setKey("/tmp/a", "x") == 0);
        uninit();
        fs::remove(tmp() + "/settings/lock.mdb"); // it is made anew, by the first of them
        fill_disk(tmp() + "/filler");
        // Room for what the store writes itself, and for the smallest lock file that would do for few
        // readers.
        fs::resize_file(tmp() + "/filler", fs::file_size(tmp() + "/filler") - std::size_t{8} * 1024);
        std::list<Companion> readers;
        for (int i = 0; i < 100; ++i) {
            Companion& reader = readers.emplace_back([](Companion::Ends ends) -> int {
                REQUIRE(init() == 0);
                REQUIRE(value_of("/tmp/a") == "x");
                REQUIRE(write(ends.out, "r", 1) == 1);
                char byte = 0;
                REQUIRE(read(ends.in, &byte, 1) == 1);
                return 0;
            });
            REQUIRE(reader.hear() == 'r');
            if (i == 0)
                fill_disk(tmp() + "/filler"); // no room is left for a page that is touched later
        }
        for (Companion& reader : readers) {
            reader.say('e');
            REQUIRE(reader.join() == 0);
        }
        return 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
}
