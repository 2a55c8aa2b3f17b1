// Watches on keys when memory is short: every allocation is made to fail, one at a time.

#include "memory_support.h"
#include "store_support.h"

#include <orvstore/notify.h>

#include <chrono>
#include <new>

using namespace orv::setMgmt;

namespace {

using SettingsMemoryTest = StoreTest;

void read_until_told(MonitoredKey& watch, const int& calls)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (calls == 0 && std::chrono::steady_clock::now() < deadline)
        if (is_readable(watch.get_fd(), 20))
            watch.read_notifications();
}

/// Changes a key, lets every allocation of telling that fail, and sees that it is told all the same.
void expect_told(const char* key, const std::function<int(unsigned long)>& change)
{
    for (const bool from_then_on : {false, true})
        for_each_allocation([&](unsigned long number) {
            int calls = 0;
            MonitoredKey watch(
                key, [&](const orv::path&, void*) { return ++calls > 0; }, /*notify_now=*/false,
                /*user=*/nullptr, /*keep=*/false);
            EXPECT_EQ(change(number), 0);
            bool failed = false;
            {
                const FailingMemory memory(number, from_then_on);
                watch.read_notifications();
                failed = FailingMemory::has_failed();
            }
            read_until_told(watch, calls);
            EXPECT_EQ(calls, 1) << key << ", allocation " << number;
            return failed && calls == 1;
        });
    orv::store::notify::read(); // that the last watch is gone
}

} // namespace

TEST_F(SettingsMemoryTest, A_change_that_could_not_be_told_is_told_when_there_is_memory_again)
{
    for (const char* key : {"/watched/key", "/tmp/watched/key"})
        expect_told(key, [&](unsigned long number) { return setKey(key, std::to_string(number)); });
}

TEST_F(SettingsMemoryTest, A_key_that_came_and_went_is_told_when_there_is_memory_again)
{
    for (const char* key : {"/watched/key", "/tmp/watched/key"})
        expect_told(key, [&](unsigned long) { return setKey(key, "x") == 0 ? deleteKey(key) : -1; });
}

TEST_F(SettingsMemoryTest, The_same_value_is_told_when_there_is_memory_again)
{
    ASSERT_EQ(setKey("/watched/key", "x"), 0);
    expect_told("/watched/key", [](unsigned long) { return setKey("/watched/key", "x"); });
}

TEST_F(SettingsMemoryTest, A_batch_is_written_whole_or_not_at_all_and_keeps_nobody_out_afterwards)
{
    const auto values = [] { return value_of("/b/kept") + value_of("/b/gone") + value_of("/tmp/b"); };
    for (const bool from_then_on : {false, true})
        for_each_allocation([&](unsigned long number) {
            EXPECT_EQ(setKey("/b/kept", "old"), 0);
            EXPECT_EQ(setKey("/b/gone", "old"), 0);
            EXPECT_EQ(setKey("/tmp/b", "old"), 0);
            const std::string before = values();
            int result = -1;
            bool failed = false;
            {
                const std::string large(1000, 'x');
                const FailingMemory memory(number, from_then_on);
                try {
                    Batch batch;
                    if (setKey("/b/kept", large) == 0 && deleteKey("/b/gone") == 0 &&
                        setKey("/tmp/b", large) == 0)
                        result = batch.commit();
                } catch (const std::bad_alloc&) { // nothing of it was written
                }
                failed = FailingMemory::has_failed();
            }
            EXPECT_EQ(values() == before, result < 0) << "allocation " << number;
            EXPECT_EQ(setKey("/b/kept", "after"), 0);
            const Outcome other = in_process_with_store(
                [] { return setKey("/b/kept", "other") == 0 && setKey("/tmp/b", "other") == 0 ? 0 : 1; });
            EXPECT_EQ(other.status, 0) << other.err;
            return failed;
        });
}

TEST_F(SettingsMemoryTest, A_key_is_locked_or_is_not)
{
    for (const bool from_then_on : {false, true})
        for_each_allocation([&](unsigned long number) {
            int locked = -1;
            bool failed = false;
            {
                const FailingMemory memory(number, from_then_on);
                try {
                    locked = lockKey("/a/key/whose/name/needs/memory");
                } catch (const std::bad_alloc&) { // it is not locked
                }
                failed = FailingMemory::has_failed();
            }
            EXPECT_EQ(unlockKey("/a/key/whose/name/needs/memory") == 0, locked == 0)
                << "allocation " << number;
            const Outcome other =
                in_process_with_store([] { return lockKey("/a/key/whose/name/needs/memory") == 0 ? 0 : 1; });
            EXPECT_EQ(other.status, 0) << other.err;
            return failed;
        });
}
