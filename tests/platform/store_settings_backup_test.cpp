// All durable settings as one text, and back.

#include "settings_store.h"
#include "store_support.h"

#include <orvutils/error.h>
#include <orvutils/settings_backup.h>

#include <string>
#include <vector>

using namespace orv::setMgmt;

namespace {

std::string backed_up()
{
    std::string text;
    EXPECT_EQ(backup(text), 0);
    return text;
}

std::uint64_t last_commit()
{
    const orv::store::Read snapshot(orv::detail::settings_environment({}));
    return snapshot.id();
}

class BackupTest : public StoreTest {};

} // namespace

TEST_F(BackupTest, Has_every_durable_key_with_any_bytes)
{
    ASSERT_EQ(setKey("/b", std::string("1\0\n", 3)), 0);
    ASSERT_EQ(setKey("/a/b", ""), 0);
    ASSERT_EQ(setKey("/tmp/a", "volatile"), 0);
    EXPECT_EQ(backed_up(), std::string("orvane settings 1\n4 0\n/a/b\n2 3\n/b1\0\n\nend 2\n", 43));
}

TEST_F(BackupTest, Restores_everything_in_one_commit_and_tells_what_has_changed)
{
    for (const char* key : {"/same", "/changed", "/removed/child", "/parent", "/parent/child"})
        ASSERT_EQ(setKey(key, "old"), 0);
    const std::string text = backed_up();
    ASSERT_EQ(setKey("/changed", "new"), 0);
    ASSERT_EQ(deleteKey("/removed"), 0);
    ASSERT_EQ(setKey("/added/child", "new"), 0);
    ASSERT_EQ(deleteKey("/parent"), 0);
    ASSERT_EQ(setKey("/tmp/volatile", "kept"), 0);
    int same = 0;
    int changed = 0;
    const auto count = [](const orv::path&, void* user) { return ++*static_cast<int*>(user) > 0; };
    MonitoredKey watch_same("/same", count, false, &same, false);
    MonitoredKey watch_changed("/changed", count, false, &changed, false);
    const std::uint64_t before = last_commit();
    ASSERT_EQ(restore(text), 0);
    EXPECT_EQ(last_commit(), before + 1);
    EXPECT_EQ(backed_up(), text);
    EXPECT_EQ(value_of("/added"), "error 4");
    EXPECT_EQ(value_of("/tmp/volatile"), "kept");
    while (is_readable(watch_same.get_fd(), 0))
        watch_same.read_notifications();
    EXPECT_EQ(same, 0);
    EXPECT_EQ(changed, 1);
    ASSERT_EQ(restore(text), 0);
    EXPECT_EQ(last_commit(), before + 1) << "nothing to do";
}

TEST_F(BackupTest, Removes_a_parent_and_keeps_its_child)
{
    ASSERT_EQ(setKey("/parent/child", "x"), 0);
    const std::string text = backed_up();
    ASSERT_EQ(setKey("/parent", "new"), 0);
    int told = 0;
    int child_told = 0;
    const auto count = [](const orv::path&, void* user) { return ++*static_cast<int*>(user) > 0; };
    MonitoredKey watch("/parent", count, false, &told, false);
    MonitoredKey watch_child("/parent/child", count, false, &child_told, false);
    ASSERT_EQ(restore(text), 0);
    EXPECT_EQ(value_of("/parent"), "error 5");
    EXPECT_EQ(value_of("/parent/child"), "x");
    while (is_readable(watch.get_fd(), 0))
        watch.read_notifications();
    EXPECT_EQ(told, 1);
    EXPECT_EQ(child_told, 0);
}

TEST_F(BackupTest, That_is_cut_off_or_malformed_changes_nothing)
{
    ASSERT_EQ(setKey("/a", "1"), 0);
    ASSERT_EQ(setKey("/b", "2"), 0);
    const std::string text = backed_up();
    ASSERT_EQ(setKey("/a", "new"), 0);
    for (std::size_t size = 0; size < text.size(); ++size)
        ASSERT_EQ(restore(text.substr(0, size)), -1) << size;
    const std::string header = "orvane settings 1\n";
    for (const std::string& wrong :
         {std::string(text + "x"), header + "end 1\n", header + "6 1\n/tmp/a1\nend 1\n",
          header + "1 1\n/1\nend 1\n", header + "2 1\n/a1\n2 1\n/a1\nend 2\n",
          header + "99999999999999999999 1\n/a1\nend 1\n", header + "2 18446744073709551615\n/a1\nend 1\n",
          header + "-1 1\n/a1\nend 1\n", std::string("orvane settings 2\nend 0\n")})
        EXPECT_EQ(restore(wrong), -1) << wrong;
    EXPECT_EQ(orv::_get_orverrno(), 1);
    EXPECT_EQ(value_of("/a"), "new");
    EXPECT_EQ(restore(header + "end 0\n"), 0);
    EXPECT_EQ(value_of("/a"), "error 4");
}

TEST_F(BackupTest, Of_a_closed_store_is_an_error)
{
    const std::string text = backed_up();
    uninit();
    std::string untouched = "untouched";
    EXPECT_EQ(backup(untouched), -2);
    EXPECT_EQ(untouched, "untouched");
    EXPECT_EQ(restore(text), -2);
    ASSERT_EQ(init(), 0);
}

TEST_F(BackupTest, Of_a_malformed_key_is_an_error_with_a_line)
{
    ASSERT_EQ(setKey("/a", "1"), 0);
    const std::string before = backed_up();
    for (const std::string_view malformed : {std::string_view("a/b"), std::string_view("a\0", 2)}) {
        orv::store::Write planting(orv::detail::durable_settings());
        ASSERT_EQ(planting.put(orv::detail::kValues, malformed, "12345678value"), orv::Error::none);
        ASSERT_EQ(planting.commit(), orv::Error::none);
        const Outcome other = in_process_with_store([&]() -> int {
            std::string untouched = "untouched";
            REQUIRE(backup(untouched) == -2);
            REQUIRE(untouched == "untouched");
            REQUIRE(restore(before) == -2);
            return 0;
        });
        EXPECT_EQ(other.status, 0) << other.err;
        EXPECT_NE(other.err.find("settings: a malformed key\n"), std::string::npos) << other.err;
        orv::store::Write cleaning(orv::detail::durable_settings());
        ASSERT_EQ(cleaning.remove(orv::detail::kValues, malformed), orv::Error::none);
        ASSERT_EQ(cleaning.commit(), orv::Error::none);
    }
    EXPECT_EQ(backed_up(), before);
}

TEST_F(BackupTest, Of_a_value_that_is_too_large_changes_nothing)
{
    ASSERT_EQ(setKey("/a", "1"), 0);
    const std::string before = backed_up();
    const auto with_value_of = [](std::size_t size) {
        return "orvane settings 1\n2 " + std::to_string(size) + "\n/b" + std::string(size, 'v') + "\nend 1\n";
    };
    EXPECT_EQ(restore(with_value_of(kMaxValueSize + 1)), -1);
    EXPECT_EQ(backed_up(), before);
    uninit();
    EXPECT_EQ(restore(with_value_of(kMaxValueSize + 1)), -1) << "the store is not even looked at";
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(restore(with_value_of(kMaxValueSize)), 0);
    EXPECT_EQ(value_of("/b").size(), kMaxValueSize);
}

TEST_F(BackupTest, Is_not_restored_within_a_batch)
{
    ASSERT_EQ(setKey("/a", "1"), 0);
    const std::string before = backed_up();
    {
        Batch batch;
        ASSERT_EQ(setKey("/a", "2"), 0);
        EXPECT_EQ(restore("orvane settings 1\nend 0\n"), -1);
        EXPECT_EQ(value_of("/a"), "2") << "the batch goes on";
    }
    EXPECT_EQ(backed_up(), before);
}

TEST_F(BackupTest, That_does_not_fit_changes_nothing)
{
    ASSERT_EQ(setKey("/a", "1"), 0);
    const std::string before = backed_up();
    std::string text = "orvane settings 1\n";
    const std::string value(kMaxValueSize, 'v');
    for (int i = 0; i < 64; ++i) // the store holds 60 MiB
        text += "4 " + std::to_string(value.size()) + "\n/b" + std::to_string(10 + i) + value + "\n";
    EXPECT_EQ(restore(text + "end 64\n"), -2);
    EXPECT_EQ(backed_up(), before);
    EXPECT_EQ(setKey("/c", "x"), 0);
}
