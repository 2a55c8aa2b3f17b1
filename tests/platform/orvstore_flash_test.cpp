// What a store costs the flash: nothing to read, nothing when idle, and no more room than it needs.

#include "orvstore_support.h"
#include "process_support.h"
#include "stepped.h"

#include <orvstore/notify.h>
#include <orvstore/transaction.h>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <vector>

using namespace orv::store;
using orv::Error;
namespace fs = std::filesystem;

namespace {

Layout layout(bool synced = true)
{
    return {"var/store", {"a", "b"}, std::size_t{8} * 1024 * 1024, synced};
}

Error remove(Environment& environment, const std::string& key)
{
    Write transaction(environment, Write::Kind::removing);
    if (transaction.error() != Error::none)
        return transaction.error();
    if (const Error error = transaction.remove(0, key); error != Error::none)
        return error;
    return transaction.commit();
}

/// Files that fsync() and rename() were called for, in this order.
struct DiskCall {
    ino_t file;
    std::string renamed_to; ///< empty for fsync()
};

std::vector<DiskCall> g_disk_calls;
bool g_is_logging = false;

ino_t inode_of(const std::string& name)
{
    struct stat status {};
    return stat(name.c_str(), &status) == 0 ? status.st_ino : 0;
}

/// While one of these lives, it notes what is put on disk. Places are those in its record.
class DiskLog {
public:
    DiskLog()
    {
        g_disk_calls.clear();
        g_is_logging = true;
    }
    DiskLog(const DiskLog&) = delete;
    DiskLog& operator=(const DiskLog&) = delete;
    ~DiskLog() { g_is_logging = false; }

    [[nodiscard]] std::optional<std::size_t> renaming(const std::string& to) const
    {
        for (std::size_t place = 0; place < g_disk_calls.size(); ++place)
            if (g_disk_calls[place].renamed_to == to)
                return place;
        return std::nullopt;
    }
    /// Whether the renamed file was.
    [[nodiscard]] bool was_synced_before(std::size_t renaming) const
    {
        return std::any_of(g_disk_calls.begin(), g_disk_calls.begin() + static_cast<std::ptrdiff_t>(renaming),
                           [&](const DiskCall& call) {
                               return call.renamed_to.empty() && call.file == g_disk_calls[renaming].file;
                           });
    }
    /// From that place on.
    [[nodiscard]] bool has_synced(const std::string& name, std::size_t from) const
    {
        const ino_t file = inode_of(name);
        return std::any_of(
            g_disk_calls.begin() + static_cast<std::ptrdiff_t>(from), g_disk_calls.end(),
            [file](const DiskCall& call) { return call.renamed_to.empty() && call.file == file; });
    }
};

} // namespace

extern "C" {
int __real_fsync(int fd);
int __real_rename(const char* from, const char* to);

int __wrap_fsync(int fd)
{
    struct stat status {};
    if (g_is_logging && fstat(fd, &status) == 0)
        g_disk_calls.push_back({status.st_ino, ""});
    return __real_fsync(fd);
}

int __wrap_rename(const char* from, const char* to)
{
    if (g_is_logging)
        g_disk_calls.push_back({inode_of(from), to});
    return __real_rename(from, to);
}
}

namespace {

class FlashTest : public testing::Test {
protected:
    [[nodiscard]] std::string directory() const { return m_root.path() + "/var/store"; }
    [[nodiscard]] std::string data_file() const { return directory() + "/data.mdb"; }

    /// When each file and directory below var/ was changed last.
    [[nodiscard]] std::map<std::string, std::int64_t> changes() const
    {
        sync(); // what was written to a mapping shows then
        std::map<std::string, std::int64_t> times;
        for (const auto& entry : fs::recursive_directory_iterator(m_root.path() + "/var")) {
            struct stat status {};
            EXPECT_EQ(lstat(entry.path().c_str(), &status), 0);
            times[entry.path()] = std::int64_t{status.st_mtim.tv_sec} * 1000000000 + status.st_mtim.tv_nsec;
        }
        return times;
    }

    /// Fills the store and empties it again, but for one entry.
    void fill_and_empty(Environment& environment) const
    {
        for (int i = 0; i < 40; ++i)
            ASSERT_EQ(write(environment, "key " + std::to_string(i), std::string(100000, 'v')), Error::none);
        for (int i = 0; i < 40; ++i)
            ASSERT_EQ(remove(environment, "key " + std::to_string(i)), Error::none);
        ASSERT_EQ(write(environment, "key", "kept"), Error::none);
        ASSERT_EQ(write(environment, "key", "kept, too", 1), Error::none);
    }

    TemporaryRoot m_root;
};

} // namespace

TEST_F(FlashTest, Reading_and_idling_write_nothing)
{
    Environment environment(layout());
    ASSERT_EQ(environment.open(), Error::none);
    ASSERT_EQ(write(environment, "key", "value"), Error::none);
    notify::watch(environment);
    (void)notify::descriptor();
    const auto before = changes();
    const Outcome other = in_child([]() -> int {
        Environment own(layout());
        REQUIRE(own.open() == Error::none);
        for (int i = 0; i < 1000; ++i)
            REQUIRE(value_in(own, "key") == "value");
        return 0;
    });
    EXPECT_EQ(other.status, 0) << other.err;
    for (int i = 0; i < 1000; ++i) {
        EXPECT_EQ(value_in(environment, "key"), "value");
        (void)notify::descriptor();
        notify::read();
        environment.refresh();
    }
    EXPECT_EQ(changes(), before);
    EXPECT_EQ(fs::read_symlink(directory() + "/lock.mdb"), "../../tmp/locks/var-store.lock");
    EXPECT_TRUE(fs::exists(m_root.path() + "/tmp/locks/var-store.lock"));
    notify::unwatch(environment);
}

TEST_F(FlashTest, A_lock_file_of_an_earlier_version_is_moved_when_nobody_uses_it)
{
    fs::create_directories(directory());
    spill(directory() + "/lock.mdb", "");
    Environment environment(layout());
    ASSERT_EQ(environment.open(), Error::none);
    EXPECT_TRUE(fs::is_symlink(directory() + "/lock.mdb"));
    EXPECT_EQ(write(environment, "key", "value"), Error::none);
}

TEST_F(FlashTest, A_store_lies_where_its_directory_leads_to)
{
    for (const char* link : {"var", "var/store"}) {
        SCOPED_TRACE(link);
        const TemporaryRoot root;
        const std::string name = root.path() + "/" + link;
        const std::string disk = root.path() + "/mnt/disk/data";
        fs::create_directories(disk);
        fs::create_directories(fs::path(name).parent_path());
        fs::create_directory_symlink(disk, name);
        // As it was made where no link was; here it leads to nowhere.
        fs::create_directories(root.path() + "/var/store");
        fs::create_symlink("../../tmp/locks/var-store.lock", root.path() + "/var/store/lock.mdb");

        Environment environment(layout());
        ASSERT_EQ(environment.open(), Error::none);
        ASSERT_EQ(write(environment, "key", "value"), Error::none);
        const fs::path lock_file = root.path() + "/tmp/locks/var-store.lock";
        EXPECT_TRUE(fs::equivalent(root.path() + "/var/store/lock.mdb", lock_file));
        const Outcome other = in_child([]() -> int {
            Environment own(layout());
            REQUIRE(own.open() == Error::none);
            return value_in(own, "key") == "value" ? 0 : 1;
        });
        EXPECT_EQ(other.status, 0) << other.err;
    }
}

TEST_F(FlashTest, A_lock_file_that_is_gone_with_the_memory_is_made_anew_for_all)
{
    Environment environment(layout());
    ASSERT_EQ(environment.open(), Error::none);
    ASSERT_EQ(write(environment, "key", "first"), Error::none);
    Companion other([](Companion::Ends ends) -> int {
        Environment own(layout());
        REQUIRE(own.open() == Error::none);
        REQUIRE(::write(ends.out, "o", 1) == 1);
        for (char byte = 0; ::read(ends.in, &byte, 1) == 1;) {
            REQUIRE(write(own, "key", std::string("its ") + byte) == Error::none);
            REQUIRE(::write(ends.out, "w", 1) == 1);
        }
        return 0;
    });
    ASSERT_EQ(other.hear(), 'o');
    for (const char round : {'1', '2', '3'}) {
        fs::remove_all(m_root.path() + "/tmp");
        const Outcome third = in_child([]() -> int {
            Environment own(layout());
            REQUIRE(own.open() == Error::none);
            return write(own, "key", "third") == Error::none ? 0 : 1;
        });
        EXPECT_EQ(third.status, 0) << third.err;
        environment.refresh();
        EXPECT_EQ(value_in(environment, "key"), "third");
        other.say(round);
        ASSERT_EQ(other.hear(), 'w');
        environment.refresh();
        EXPECT_EQ(value_in(environment, "key"), std::string("its ") + round);
        ASSERT_EQ(write(environment, "key", "mine"), Error::none);
        EXPECT_EQ(value_in(environment, "key"), "mine");
    }
}

TEST_F(FlashTest, A_store_that_was_emptied_gives_its_blocks_back_at_the_next_start)
{
    for (const bool synced : {true, false}) {
        Environment environment(layout(synced));
        ASSERT_EQ(environment.open(), Error::none);
        fill_and_empty(environment);
        const std::uint64_t commit = last_commit(environment);
        EXPECT_GT(fs::file_size(data_file()), 1000000U);
        environment.close();
        ASSERT_EQ(environment.open(), Error::none);
        EXPECT_LT(fs::file_size(data_file()), 100000U);
        EXPECT_EQ(value_in(environment, "key"), "kept");
        EXPECT_EQ(last_commit(environment), commit) << "numbers go on";
        ASSERT_EQ(write(environment, "key", "changed"), Error::none);
        EXPECT_EQ(last_commit(environment), commit + 1);
        environment.close();
        fs::remove_all(directory());
    }
}

TEST_F(FlashTest, A_store_that_others_have_open_stays_as_large_as_it_is)
{
    Environment environment(layout());
    ASSERT_EQ(environment.open(), Error::none);
    fill_and_empty(environment);
    const auto size = fs::file_size(data_file());
    const Outcome other = in_child([]() -> int {
        Environment own(layout());
        REQUIRE(own.open() == Error::none);
        REQUIRE(value_in(own, "key") == "kept");
        return 0;
    });
    EXPECT_EQ(other.status, 0) << other.err;
    EXPECT_EQ(fs::file_size(data_file()), size);
    environment.close();
    ASSERT_EQ(environment.open(), Error::none);
    EXPECT_LT(fs::file_size(data_file()), size / 10);
    EXPECT_EQ(value_in(environment, "key"), "kept");
}

TEST_F(FlashTest, Making_it_smaller_may_be_killed_in_any_system_call)
{
    std::string large;
    {
        Environment environment(layout());
        ASSERT_EQ(environment.open(), Error::none);
        for (int i = 0; i < 4; ++i)
            ASSERT_EQ(write(environment, "key " + std::to_string(i), std::string(100000, 'v')), Error::none);
        for (int i = 0; i < 4; ++i)
            ASSERT_EQ(remove(environment, "key " + std::to_string(i)), Error::none);
        ASSERT_EQ(write(environment, "key", "kept"), Error::none);
        environment.close();
        large = slurp(data_file());
    }
    bool is_over = false;
    for (int steps = 0; !is_over; ++steps) {
        spill(data_file(), large);
        Stepped other([] {
            Environment environment(layout());
            return environment.open() == Error::none ? 0 : 1;
        });
        is_over = !other.step(steps);
        other.kill();
        Environment environment(layout());
        ASSERT_EQ(environment.open(), Error::none) << steps;
        ASSERT_EQ(value_in(environment, "key"), "kept") << steps;
        ASSERT_EQ(write(environment, "more", "x"), Error::none) << steps;
        EXPECT_LT(fs::file_size(data_file()), large.size() / 2) << steps;
    }
}

TEST_F(FlashTest, A_volatile_store_is_empty_after_a_restart_of_the_machine)
{
    Environment environment(layout(/*synced=*/false));
    ASSERT_EQ(environment.open(), Error::none);
    ASSERT_EQ(write(environment, "key", "value"), Error::none);
    environment.close();
    ASSERT_EQ(environment.open(), Error::none);
    EXPECT_EQ(value_in(environment, "key"), "value") << "the machine is up";
    environment.close();
    for (const std::string boot : {"11111111-2222-3333-4444-555555555555\n", ""}) {
        ASSERT_EQ(environment.open(), Error::none);
        ASSERT_EQ(write(environment, "key", "value"), Error::none);
        environment.close();
        spill(directory() + "/boot_id", boot);
        ASSERT_EQ(environment.open(), Error::none);
        EXPECT_EQ(value_in(environment, "key"), "absent");
        const Outcome other = in_child([]() -> int {
            Environment own(layout(/*synced=*/false));
            REQUIRE(own.open() == Error::none);
            return write(own, "key", "its") == Error::none ? 0 : 1;
        });
        EXPECT_EQ(other.status, 0) << other.err;
        EXPECT_EQ(value_in(environment, "key"), "its") << "it is the same store";
        environment.close();
    }
}

TEST_F(FlashTest, A_lock_file_is_not_moved_to_a_directory_that_others_can_write_to)
{
    const std::string locks = m_root.path() + "/tmp/locks";
    fs::create_directories(locks);
    fs::permissions(locks, fs::perms::all);
    Environment environment(layout());
    ASSERT_EQ(environment.open(), Error::none);
    EXPECT_TRUE(fs::is_regular_file(fs::symlink_status(directory() + "/lock.mdb")));
    EXPECT_TRUE(fs::is_empty(locks));
    EXPECT_EQ(write(environment, "key", "value"), Error::none);
}

TEST_F(FlashTest, A_store_that_cannot_be_made_smaller_is_opened_as_it_is)
{
    fs::create_directories(directory());
    const Outcome outcome = on_small_disk(directory(), "12m", [&]() -> int {
        Environment environment(layout());
        REQUIRE(environment.open() == Error::none);
        fill_and_empty(environment);
        REQUIRE(!HasFailure());
        environment.close();
        const auto size = fs::file_size(data_file());
        fill_disk(directory() + "/filler");
        REQUIRE(environment.open() == Error::none);
        REQUIRE(value_in(environment, "key") == "kept");
        REQUIRE(fs::file_size(data_file()) == size);
        REQUIRE(!fs::exists(directory() + "/data.mdb.new"));
        return 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
}

TEST_F(FlashTest, What_takes_a_files_place_is_on_disk_before_and_its_name_after)
{
    Layout restored = layout();
    restored.when_damaged = WhenDamaged::restore;
    restored.copy_after = std::chrono::milliseconds(0);
    restored.copy_interval = std::chrono::milliseconds(0);
    Environment environment(restored);
    {
        const DiskLog log;
        ASSERT_EQ(environment.open(), Error::none);
        EXPECT_TRUE(log.has_synced(directory(), 0)) << "the new data file's name";
    }
    fill_and_empty(environment);
    const auto expect_renamed = [](const DiskLog& log, const std::string& to) {
        const auto rename = log.renaming(to);
        ASSERT_TRUE(rename.has_value()) << to;
        EXPECT_TRUE(log.was_synced_before(*rename)) << to;
        EXPECT_TRUE(log.has_synced(fs::path(to).parent_path(), *rename)) << to;
    };
    {
        const DiskLog log;
        for (int i = 0; i < 100; ++i)
            environment.look_after();
        expect_renamed(log, data_file() + ".copy");
    }
    environment.close();
    {
        const DiskLog log;
        ASSERT_EQ(environment.open(), Error::none); // makes it smaller
        expect_renamed(log, data_file());
    }
    environment.close();
    spill(data_file(), "garbage");
    {
        const DiskLog log;
        ASSERT_EQ(environment.open(), Error::none); // restores it
        expect_renamed(log, data_file());
    }
    EXPECT_EQ(value_in(environment, "key"), "kept");
}
