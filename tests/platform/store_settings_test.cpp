// Reading, writing, removing and listing of settings.

#include "settings_store.h"
#include "store_support.h"

#include <orvutils/error.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <random>
#include <utility>

using namespace orv::setMgmt;

class SettingsTest : public StoreTest {};

TEST_F(SettingsTest, A_value_comes_back_as_it_was_written)
{
    const std::string binary("a\0b\n\xff", 5);
    ASSERT_EQ(setKey("/binary", binary), 0);
    ASSERT_EQ(setKey("/tmp/binary", binary), 0);
    std::string value = "before";
    EXPECT_EQ(getKey("/binary", value), 5);
    EXPECT_EQ(value, binary);
    EXPECT_EQ(getKey("/tmp/binary", value), 5);
    EXPECT_EQ(value, binary);
}

TEST_F(SettingsTest, A_record_is_eight_bytes_of_its_commit_and_the_value_whatever_the_size_of_a_word)
{
    ASSERT_EQ(setKey("/some/key", "value"), 0);
    orv::store::Read snapshot(orv::detail::settings_environment({}));
    std::string_view record;
    ASSERT_EQ(snapshot.get(orv::detail::kValues, std::string_view("some\0key", 8), record), orv::Error::none);
    const std::uint64_t commit = snapshot.id();
    EXPECT_EQ(record, std::string(reinterpret_cast<const char*>(&commit), 8) + "value");
}

TEST_F(SettingsTest, An_empty_value_has_length_0)
{
    ASSERT_EQ(setKey("/empty", ""), 0);
    std::string value = "before";
    EXPECT_EQ(getKey("/empty", value), 0);
    EXPECT_EQ(value, "");
}

TEST_F(SettingsTest, An_absent_key_is_error_4_and_one_with_only_children_error_5)
{
    ASSERT_EQ(setKey("/parent/child", "x"), 0);
    std::string value = "before";
    EXPECT_EQ(getKey("/absent", value), -4);
    EXPECT_EQ(orv::_get_orverrno(), 4);
    EXPECT_EQ(getKey("/parent", value), -5);
    EXPECT_EQ(orv::_get_orverrno(), 5);
    EXPECT_EQ(getKey("/", value), -5);
    EXPECT_EQ(value, "before");
}

TEST_F(SettingsTest, A_node_can_have_a_value_and_children)
{
    ASSERT_EQ(setKey("/node", "own"), 0);
    ASSERT_EQ(setKey("/node/child", "other"), 0);
    EXPECT_EQ(value_of("/node"), "own");
    EXPECT_EQ(value_of("/node/child"), "other");
}

TEST_F(SettingsTest, Doubled_slashes_collapse_and_dots_mean_nothing)
{
    ASSERT_EQ(setKey("//a///b/", "x"), 0);
    EXPECT_EQ(value_of("/a/b"), "x");
    EXPECT_EQ(value_of("a/b"), "x");
    EXPECT_EQ(value_of("/a/./b"), "error 4");
    EXPECT_EQ(value_of("/c/../a/b"), "error 4");
}

TEST_F(SettingsTest, Keys_with_alike_names_do_not_interfere)
{
    for (const char* key : {"/a", "/a-b", "/a/b", "/ab", "/a/b/c", "/a\x01"})
        ASSERT_EQ(setKey(key, key), 0);
    ASSERT_EQ(deleteKey("/a"), 0);
    EXPECT_EQ(value_of("/a"), "error 4");
    EXPECT_EQ(value_of("/a/b/c"), "error 4");
    EXPECT_EQ(value_of("/a-b"), "/a-b");
    EXPECT_EQ(value_of("/ab"), "/ab");
    EXPECT_EQ(value_of("/a\x01"), "/a\x01");
}

TEST_F(SettingsTest, Impossible_keys_are_error_1_and_change_nothing)
{
    ASSERT_EQ(setKey("/a", "x"), 0);
    const std::string with_nul("/a\0b", 4);
    const std::string too_long = "/" + std::string(kMaxKeySize, 'k');
    std::string value;
    std::vector<std::string> names;
    for (const std::string& key : {std::string(), with_nul, too_long}) {
        EXPECT_EQ(setKey(key, "y"), -1);
        EXPECT_EQ(deleteKey(key), -1);
        EXPECT_EQ(getKey(key, value), -1);
        EXPECT_EQ(enumSubkeys(key, names), -1);
        EXPECT_EQ(lockKey(key), -1);
        EXPECT_EQ(orv::_get_orverrno(), 1);
    }
    EXPECT_EQ(setKey("/", "y"), -1);
    EXPECT_EQ(deleteKey("//"), -1);
    EXPECT_EQ(enumSubkeys("/", names), 1);
    EXPECT_EQ(value_of("/a"), "x");
}

TEST_F(SettingsTest, Keys_of_511_bytes_and_values_of_a_mebibyte_are_the_largest)
{
    const std::string key = "/" + std::string(kMaxKeySize - 1, 'k');
    const std::string value(kMaxValueSize, 'v');
    ASSERT_EQ(setKey(key, value), 0);
    EXPECT_EQ(value_of(key), value);
    EXPECT_EQ(setKey(key, value + "v"), -1);
    EXPECT_EQ(value_of(key), value);
    std::vector<std::string> names;
    EXPECT_EQ(enumSubkeys(key, names), 0);
}

TEST_F(SettingsTest, Deleting_takes_everything_below_along_and_nothing_else)
{
    for (const char* key : {"/d/a", "/d/a/b", "/d/a/b/c", "/d/b", "/tmp/d/a"})
        ASSERT_EQ(setKey(key, "x"), 0);
    EXPECT_EQ(deleteKey("/d/a"), 0);
    EXPECT_EQ(value_of("/d/a/b/c"), "error 4");
    EXPECT_EQ(value_of("/d/b"), "x");
    EXPECT_EQ(deleteKey("/d/a"), -4);
    EXPECT_EQ(deleteKey("/d"), 0);
    EXPECT_EQ(value_of("/d"), "error 4");
    EXPECT_EQ(value_of("/tmp/d/a"), "x");
    EXPECT_EQ(deleteKey("/tmp"), 0);
    EXPECT_EQ(value_of("/tmp"), "error 4");
}

TEST_F(SettingsTest, Children_are_listed_once_in_lexical_order)
{
    for (const char* key : {"/n/b/x", "/n/b/y", "/n/a", "/n/a-b", "/n/a/z", "/n/a\x01", "/n/c/d/e"})
        ASSERT_EQ(setKey(key, "x"), 0);
    std::vector<std::string> names = {"from before"};
    EXPECT_EQ(enumSubkeys("/n", names), 5);
    EXPECT_EQ(names, (std::vector<std::string>{"a", "a\x01", "a-b", "b", "c"}));
    EXPECT_EQ(enumSubkeys("/absent", names), 0);
    EXPECT_TRUE(names.empty());
}

TEST_F(SettingsTest, The_root_lists_the_keys_of_both_environments)
{
    for (const char* key : {"/zz", "/a", "/tmp/x", "/tmpfoo"})
        ASSERT_EQ(setKey(key, "x"), 0);
    std::vector<std::string> names;
    EXPECT_EQ(enumSubkeys("/", names), 4);
    EXPECT_EQ(names, (std::vector<std::string>{"a", "tmp", "tmpfoo", "zz"}));
}

TEST_F(SettingsTest, Only_decimal_integers_are_numbers)
{
    const std::pair<const char*, int> cases[] = {
        {"12", 12},         {"-3", -3},   {"0", 0},    {"2147483647", 2147483647},
        {"2147483648", 77}, {"", 77},     {"12x", 77}, {" 1", 77},
        {"1 ", 77},         {"0x10", 77}, {"+1", 77},  {"--1", 77},
        {"00012", 12},
    };
    for (const auto& [text, number] : cases) {
        ASSERT_EQ(setKey("/number", text), 0);
        EXPECT_EQ(getKeyValue("/number", 77), number) << '"' << text << '"';
    }
    EXPECT_EQ(getKeyValue("/absent", 5), 5);
    EXPECT_EQ(getKeyValue("/absent", std::string("fallback")), "fallback");
}

TEST_F(SettingsTest, What_has_a_fallback_does_not_ask_whether_an_absent_key_has_children)
{
    ASSERT_EQ(setKey("/parent/child", "x"), 0);
    for (const char* absent : {"/parent", "/nothing"}) {
        EXPECT_EQ(getKeyValue(absent, std::string("fallback")), "fallback");
        EXPECT_EQ(orv::_get_orverrno(), 4);
        EXPECT_EQ(getKeyValue(absent, 5), 5);
        EXPECT_EQ(orv::_get_orverrno(), 4);
    }
    EXPECT_EQ(getKeyValue("/parent/child", std::string("fallback")), "x");
}

TEST_F(SettingsTest, Keys_below_tmp_and_only_they_go_with_the_volatile_directory)
{
    ASSERT_EQ(setKey("/tmp/x", "volatile"), 0);
    ASSERT_EQ(setKey("/tmpx", "durable"), 0);
    uninit();
    std::filesystem::remove_all(m_root.path() + "/tmp");
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(value_of("/tmp/x"), "error 4");
    EXPECT_EQ(value_of("/tmpx"), "durable");
}

TEST_F(SettingsTest, Store_files_are_for_their_owner_only)
{
    ASSERT_EQ(setKey("/a", "x"), 0);
    for (const char* name : {"/var/settings", "/tmp/settings"}) {
        struct stat status {};
        ASSERT_EQ(stat((m_root.path() + name).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 0777U, 0700U);
        for (const char* file : {"/data.mdb", "/lock.mdb"}) {
            ASSERT_EQ(stat((m_root.path() + name + file).c_str(), &status), 0);
            EXPECT_EQ(status.st_mode & 0777U, 0600U);
        }
    }
}

TEST_F(SettingsTest, Programs_that_are_started_inherit_no_descriptor)
{
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error;
        const std::string file = std::filesystem::read_symlink(entry, error).string();
        if (file.find(m_root.path()) == std::string::npos)
            continue;
        const int flags = fcntl(std::stoi(entry.path().filename().string()), F_GETFD);
        EXPECT_NE(flags & FD_CLOEXEC, 0) << file;
    }
}

TEST_F(SettingsTest, A_closed_store_is_an_error_and_can_be_opened_again)
{
    ASSERT_EQ(setKey("/a", "x"), 0);
    uninit();
    EXPECT_EQ(value_of("/a"), "error 2");
    EXPECT_EQ(setKey("/a", "y"), -2);
    EXPECT_EQ(deleteKey("/a"), -2);
    std::vector<std::string> names;
    EXPECT_EQ(enumSubkeys("/", names), -2);
    ASSERT_EQ(init(), 0);
    ASSERT_EQ(init(), 0) << "opening an open store does nothing";
    EXPECT_EQ(value_of("/a"), "x");
}

TEST_F(SettingsTest, What_one_process_commits_every_other_sees_at_once)
{
    for (int i = 0; i < 20; ++i) {
        const std::string text = std::to_string(i);
        const Outcome writer = in_process_with_store([&]() -> int {
            REQUIRE(setKey("/shared", text) == 0);
            REQUIRE(setKey("/tmp/shared", text) == 0);
            return 0;
        });
        ASSERT_EQ(writer.status, 0) << writer.err;
        EXPECT_EQ(value_of("/shared"), text);
        EXPECT_EQ(value_of("/tmp/shared"), text);
    }
}

namespace {

/// Counts up in two keys and confirms each write with a byte, until it is killed.
int count_up(Companion::Ends ends, int from)
{
    uninit();
    REQUIRE(init() == 0);
    for (int number = from + 1;; ++number) {
        REQUIRE(setKey("/count", std::to_string(number)) == 0);
        REQUIRE(write(ends.out, "d", 1) == 1);
        REQUIRE(setKey("/tmp/count", std::to_string(number)) == 0);
        REQUIRE(write(ends.out, "v", 1) == 1);
    }
}

} // namespace

TEST_F(SettingsTest, Every_confirmed_write_outlives_the_kill_of_its_writer)
{
    std::mt19937 random(7);
    int durable = 0;
    int in_memory = 0;
    for (int round = 0; round < 40; ++round) {
        Companion writer([&](Companion::Ends ends) { return count_up(ends, std::max(durable, in_memory)); });
        const auto confirmations = random() % 8;
        int last_durable = durable;
        int last_in_memory = in_memory;
        int next = std::max(durable, in_memory) + 1;
        for (std::size_t i = 0; i <= confirmations; ++i) {
            const char kind = writer.hear();
            ASSERT_NE(kind, '\0');
            if (kind == 'd')
                last_durable = next;
            else
                last_in_memory = next++;
        }
        writer.kill();
        ASSERT_EQ(writer.join(), 1000 + SIGKILL);
        durable = getKeyValue("/count", -1);
        in_memory = getKeyValue("/tmp/count", last_in_memory == 0 ? 0 : -1);
        EXPECT_GE(durable, last_durable);
        EXPECT_GE(in_memory, last_in_memory);
        ASSERT_EQ(setKey("/tmp/after", "x"), 0) << "a dead writer holds nobody up";
    }
}
