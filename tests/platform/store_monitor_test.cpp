// Watches on keys: told of every change by any process, and of nothing else.

#include "store_support.h"

#include <orvutils/error.h>
#include <orvutils/running_daemon.h>

#include <sys/epoll.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <memory>
#include <random>

using namespace orv::setMgmt;

namespace {

constexpr const char* kKey = "/tmp/watched/key";

class MonitorTest : public StoreTest {
protected:
    MonitoredKey::Callback count(int& calls, bool go_on = true)
    {
        return [&calls, go_on](const orv::path&, void*) {
            ++calls;
            return go_on;
        };
    }

    /// Sets keys in another process.
    static void set_elsewhere(std::initializer_list<const char*> keys)
    {
        const Outcome writer = in_process_with_store([&]() -> int {
            for (const char* key : keys)
                REQUIRE(setKey(key, "x") == 0);
            return 0;
        });
        ASSERT_EQ(writer.status, 0) << writer.err;
    }

    /// Reads whatever is there; nothing more is pending afterwards.
    static void read_pending(MonitoredKey& watch)
    {
        while (is_readable(watch.get_fd(), 0))
            watch.read_notifications();
    }
};

} // namespace

TEST_F(MonitorTest, A_change_by_another_process_is_told_once_with_key_and_user)
{
    int calls = 0;
    int user = 0;
    MonitoredKey watch(
        "//tmp/watched//key",
        [&](const orv::path& key, void* argument) {
            EXPECT_EQ(key.str(), kKey);
            EXPECT_EQ(argument, &user);
            return ++calls > 0;
        },
        false, &user, true);
    EXPECT_FALSE(is_readable(watch.get_fd(), 0));
    set_elsewhere({kKey});
    ASSERT_TRUE(is_readable(watch.get_fd(), kPatienceMs));
    watch.read_notifications();
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(is_readable(watch.get_fd(), 0));
    watch.read_notifications();
    EXPECT_EQ(calls, 1);
}

TEST_F(MonitorTest, A_change_by_the_same_process_and_a_write_of_the_same_value_are_told)
{
    for (const char* key : {kKey, "/durable/key"}) {
        ASSERT_EQ(setKey(key, "x"), 0);
        int calls = 0;
        MonitoredKey watch(key, count(calls), false, nullptr, true);
        for (int i = 1; i <= 3; ++i) {
            ASSERT_EQ(setKey(key, "x"), 0);
            ASSERT_TRUE(is_readable(watch.get_fd(), kPatienceMs));
            watch.read_notifications();
            EXPECT_EQ(calls, i);
        }
    }
}

TEST_F(MonitorTest, Changes_of_other_keys_call_nobody)
{
    ASSERT_EQ(setKey(kKey, "x"), 0);
    int calls = 0;
    MonitoredKey watch(kKey, count(calls), false, nullptr, true);
    set_elsewhere({"/tmp/watched/key2", "/tmp/watched", "/tmp/watched/key/child", "/other"});
    ASSERT_EQ(deleteKey("/tmp/watched/key/child"), 0);
    for (int i = 0; i < 2000; ++i)
        ASSERT_EQ(setKey("/tmp/noise/" + std::to_string(i % 700), "x"), 0);
    ASSERT_EQ(deleteKey("/tmp/noise"), 0) << "more removals than the journal holds";
    EXPECT_TRUE(is_readable(watch.get_fd(), 0));
    read_pending(watch);
    EXPECT_EQ(calls, 0);
}

TEST_F(MonitorTest, Several_changes_may_be_one_notice)
{
    int calls = 0;
    MonitoredKey watch(kKey, count(calls), false, nullptr, true);
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(setKey(kKey, "x"), 0);
    read_pending(watch);
    EXPECT_GE(calls, 1);
}

TEST_F(MonitorTest, Removing_the_key_or_one_above_it_is_told)
{
    int calls = 0;
    for (const char* removed : {kKey, "/tmp/watched"}) {
        ASSERT_EQ(setKey(kKey, "x"), 0);
        MonitoredKey watch(kKey, count(calls), false, nullptr, true);
        calls = 0;
        ASSERT_EQ(deleteKey(removed), 0);
        read_pending(watch);
        EXPECT_EQ(calls, 1) << removed;
    }
}

TEST_F(MonitorTest, A_key_that_comes_and_goes_between_two_readings_is_told)
{
    int calls = 0;
    MonitoredKey watch(kKey, count(calls), false, nullptr, true);
    ASSERT_EQ(setKey(kKey, "x"), 0);
    ASSERT_EQ(deleteKey(kKey), 0);
    read_pending(watch);
    EXPECT_EQ(calls, 1);
}

TEST_F(MonitorTest, Too_many_removals_to_remember_count_as_a_change_of_an_absent_key)
{
    int calls = 0;
    MonitoredKey watch(kKey, count(calls), false, nullptr, true);
    ASSERT_EQ(setKey(kKey, "x"), 0);
    ASSERT_EQ(deleteKey(kKey), 0);
    for (int i = 0; i < 600; ++i)
        ASSERT_EQ(setKey("/tmp/noise/" + std::to_string(i), "x"), 0);
    ASSERT_EQ(deleteKey("/tmp/noise"), 0);
    read_pending(watch);
    EXPECT_EQ(calls, 1);
}

TEST_F(MonitorTest, A_change_before_the_watch_was_made_is_not_told)
{
    int others = 0;
    MonitoredKey other(kKey, count(others), false, nullptr, true); // so that there is an unread event
    ASSERT_EQ(setKey(kKey, "x"), 0);
    int calls = 0;
    MonitoredKey watch(kKey, count(calls), false, nullptr, true);
    read_pending(watch);
    EXPECT_EQ(others, 1);
    EXPECT_EQ(calls, 0);
}

TEST_F(MonitorTest, On_request_the_first_reading_calls_without_a_change)
{
    int calls = 0;
    MonitoredKey watch(kKey, count(calls), true, nullptr, true);
    EXPECT_TRUE(is_readable(watch.get_fd(), 0));
    read_pending(watch);
    EXPECT_EQ(calls, 1);
    watch.read_notifications();
    EXPECT_EQ(calls, 1);
}

TEST_F(MonitorTest, All_watches_share_one_descriptor_and_reading_through_one_serves_all)
{
    int a_calls = 0;
    int b_calls = 0;
    MonitoredKey a("/tmp/a", count(a_calls), false, nullptr, true);
    MonitoredKey b("/b", count(b_calls), false, nullptr, true);
    EXPECT_EQ(a.get_fd(), b.get_fd());
    set_elsewhere({"/tmp/a", "/b"});
    read_pending(a);
    EXPECT_EQ(a_calls, 1);
    EXPECT_EQ(b_calls, 1);
}

TEST_F(MonitorTest, A_callback_that_returns_false_ends_its_watch)
{
    int calls = 0;
    MonitoredKey watch(kKey, count(calls, false), false, nullptr, true);
    ASSERT_EQ(setKey(kKey, "x"), 0);
    read_pending(watch);
    EXPECT_EQ(calls, 1);
    EXPECT_LT(watch.get_fd(), 0);
    ASSERT_EQ(setKey(kKey, "x"), 0);
    watch.read_notifications();
    EXPECT_EQ(calls, 1);
}

TEST_F(MonitorTest, A_cancelled_watch_is_not_told_any_more)
{
    int calls = 0;
    MonitoredKey watch(kKey, count(calls), false, nullptr, true);
    ASSERT_EQ(setKey(kKey, "x"), 0);
    watch.cancel();
    EXPECT_LT(watch.get_fd(), 0);
    watch.read_notifications();
    watch.cancel();
    EXPECT_EQ(calls, 0);
}

TEST_F(MonitorTest, A_watch_can_be_destroyed_by_its_own_and_by_another_callback)
{
    int calls = 0;
    std::unique_ptr<MonitoredKey> own;
    std::unique_ptr<MonitoredKey> other;
    own = std::make_unique<MonitoredKey>(
        kKey,
        [&](const orv::path&, void*) {
            own.reset();
            other.reset();
            return ++calls > 0;
        },
        false, nullptr, true);
    other = std::make_unique<MonitoredKey>(kKey, count(calls), false, nullptr, true);
    MonitoredKey last(kKey, count(calls), false, nullptr, true);
    ASSERT_EQ(setKey(kKey, "x"), 0);
    own->read_notifications();
    EXPECT_EQ(calls, 2) << "the first and the last";
}

TEST_F(MonitorTest, A_callback_may_read_write_watch_and_ask_for_notifications)
{
    int calls = 0;
    int new_calls = 0;
    std::unique_ptr<MonitoredKey> made;
    MonitoredKey watch(
        kKey,
        [&](const orv::path& key, void*) {
            ++calls;
            EXPECT_EQ(value_of(key), "x");
            EXPECT_EQ(setKey("/tmp/other", "y"), 0);
            watch.read_notifications();
            made = std::make_unique<MonitoredKey>("/tmp/other", count(new_calls), false, nullptr, true);
            return true;
        },
        false, nullptr, true);
    ASSERT_EQ(setKey(kKey, "x"), 0);
    read_pending(watch);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(new_calls, 0);
    ASSERT_EQ(setKey("/tmp/other", "z"), 0);
    read_pending(watch);
    EXPECT_EQ(new_calls, 1);
}

TEST_F(MonitorTest, A_kept_watch_outlives_the_closing_of_the_store_and_others_do_not)
{
    int kept_calls = 0;
    int other_calls = 0;
    MonitoredKey kept(kKey, count(kept_calls), false, nullptr, true);
    MonitoredKey other(kKey, count(other_calls), false, nullptr, false);
    uninit();
    EXPECT_GE(kept.get_fd(), 0);
    EXPECT_LT(other.get_fd(), 0);
    set_elsewhere({kKey});
    kept.read_notifications();
    EXPECT_EQ(kept_calls, 0) << "the store is closed";
    ASSERT_EQ(init(), 0);
    ASSERT_TRUE(is_readable(kept.get_fd(), 0));
    read_pending(kept);
    EXPECT_EQ(kept_calls, 1) << "it changed meanwhile";
    set_elsewhere({kKey});
    read_pending(kept);
    EXPECT_EQ(kept_calls, 2);
    EXPECT_EQ(other_calls, 0);
}

TEST_F(MonitorTest, A_watch_may_be_made_before_the_store_is_opened)
{
    uninit();
    int calls = 0;
    MonitoredKey watch(kKey, count(calls), false, nullptr, true);
    EXPECT_GE(watch.get_fd(), 0);
    ASSERT_EQ(init(), 0);
    read_pending(watch);
    EXPECT_EQ(calls, 0);
    set_elsewhere({kKey});
    read_pending(watch);
    EXPECT_EQ(calls, 1);
}

TEST_F(MonitorTest, What_cannot_be_watched_has_no_descriptor)
{
    int calls = 0;
    MonitoredKey root("/", count(calls), true, nullptr, true);
    MonitoredKey empty("", count(calls), true, nullptr, true);
    MonitoredKey nobody(kKey, nullptr, true, nullptr, true);
    for (MonitoredKey* watch : {&root, &empty, &nobody}) {
        EXPECT_LT(watch->get_fd(), 0);
        watch->read_notifications();
        watch->cancel();
    }
    EXPECT_EQ(calls, 0);
}

TEST_F(MonitorTest, Reading_from_a_callback_does_nothing)
{
    int calls = 0;
    MonitoredKey* self = nullptr;
    MonitoredKey watch(
        kKey,
        [&](const orv::path&, void*) {
            if (++calls < 10) {
                EXPECT_EQ(setKey(kKey, std::to_string(calls)), 0);
                self->read_notifications();
            }
            return false;
        },
        false, nullptr, false);
    self = &watch;
    ASSERT_EQ(setKey(kKey, "x"), 0);
    ASSERT_TRUE(is_readable(watch.get_fd(), kPatienceMs));
    watch.read_notifications();
    EXPECT_EQ(calls, 1);
}

TEST_F(MonitorTest, A_loop_may_add_and_remove_the_descriptor_on_every_pass)
{
    int calls = 0;
    MonitoredKey watch(kKey, count(calls), false, nullptr, true);
    const Fd epoll(epoll_create1(EPOLL_CLOEXEC));
    for (int pass = 1; pass <= 5; ++pass) {
        set_elsewhere({kKey});
        epoll_event event{};
        event.events = EPOLLIN;
        ASSERT_EQ(epoll_ctl(epoll, EPOLL_CTL_ADD, watch.get_fd(), &event), 0);
        ASSERT_EQ(epoll_wait(epoll, &event, 1, kPatienceMs), 1);
        watch.read_notifications();
        ASSERT_EQ(epoll_ctl(epoll, EPOLL_CTL_DEL, watch.get_fd(), nullptr), 0);
        EXPECT_EQ(calls, pass);
    }
}

TEST_F(MonitorTest, A_replaced_store_counts_as_a_change_and_is_watched_from_then_on)
{
    const std::string directory = m_root.path() + "/tmp/settings";
    ASSERT_EQ(setKey(kKey, "x"), 0);
    int calls = 0;
    MonitoredKey watch(kKey, count(calls), false, nullptr, true);
    for (int round = 0; round < 3; ++round) {
        calls = 0;
        std::filesystem::remove_all(directory);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (calls == 0 && std::chrono::steady_clock::now() < deadline && is_readable(watch.get_fd(), 100))
            watch.read_notifications();
        EXPECT_GE(calls, 1);
        EXPECT_EQ(value_of(kKey), "error 4");
        read_pending(watch);
        calls = 0;
        set_elsewhere({kKey});
        ASSERT_TRUE(is_readable(watch.get_fd(), kPatienceMs));
        read_pending(watch);
        EXPECT_EQ(calls, 1);
    }
}

namespace {

/// Writes rising numbers until it is killed or, with a limit, has written that many; then says "e".
int write_numbers(Companion::Ends ends, int from, int limit)
{
    uninit();
    REQUIRE(init() == 0);
    for (int number = from + 1; number <= from + limit; ++number)
        REQUIRE(setKey(kKey, std::to_string(number)) == 0);
    REQUIRE(write(ends.out, "e", 1) == 1);
    return 0;
}

} // namespace

TEST_F(MonitorTest, The_last_of_many_quick_changes_is_never_missed)
{
    int last_told = 0;
    const auto note = [&](const orv::path& key, void*) {
        last_told = getKeyValue(key, -1);
        return true;
    };
    MonitoredKey watch(kKey, note, false, nullptr, true);
    for (int round = 0; round < 300; ++round) {
        const int before = last_told;
        constexpr int kWrites = 40;
        Companion writer([&](Companion::Ends ends) { return write_numbers(ends, before, kWrites); });
        while (last_told < before + kWrites && is_readable(watch.get_fd(), kPatienceMs))
            watch.read_notifications();
        ASSERT_EQ(last_told, before + kWrites) << "round " << round;
        ASSERT_EQ(writer.join(), 0);
    }
}

TEST_F(MonitorTest, A_change_whose_writer_is_killed_is_told_or_did_not_happen)
{
    std::mt19937 random(11);
    int last_told = 0;
    const auto note = [&](const orv::path& key, void*) {
        last_told = getKeyValue(key, -1);
        return true;
    };
    MonitoredKey watch(kKey, note, false, nullptr, true);
    for (int round = 0; round < 100; ++round) {
        const int before = last_told;
        Companion writer([&](Companion::Ends ends) { return write_numbers(ends, before, 1000000); });
        const int enough = before + 1 + static_cast<int>(random() % 50);
        while (last_told < enough && is_readable(watch.get_fd(), kPatienceMs))
            watch.read_notifications();
        writer.kill();
        ASSERT_EQ(writer.join(), 1000 + SIGKILL);
        read_pending(watch);
        ASSERT_EQ(getKeyValue(kKey, -1), last_told);
        (void)deleteKey("/tmp/nothing"); // a next writer brings nothing to light
        ASSERT_EQ(getKeyValue(kKey, -1), last_told);
    }
}

TEST_F(MonitorTest, A_copy_of_the_settings_is_made_by_daemons_only)
{
    ASSERT_EQ(setKey("/key", "value"), 0);
    int calls = 0;
    const MonitoredKey watch("/key", count(calls), false, nullptr, true);
    const std::string copy = m_root.path() + "/var/settings/data.mdb.copy";
    ASSERT_GE(watch.get_fd(), 0);
    EXPECT_FALSE(std::filesystem::exists(copy));
    const Outcome daemon = in_process_with_store([&]() -> int {
        orv::daemon::set_running();
        const MonitoredKey own("/key", count(calls), false, nullptr, true);
        REQUIRE(own.get_fd() >= 0);
        REQUIRE(std::filesystem::exists(copy));
        return 0;
    });
    EXPECT_EQ(daemon.status, 0) << daemon.err;
}
