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
