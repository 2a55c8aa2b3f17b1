// Writes that belong together, and writes that change nothing: what they cost and who is told.

#include "settings_store.h"
#include "store_support.h"

#include <orvutils/error.h>

#include <unistd.h>

#include <filesystem>
#include <string>
#include <utility>
#include <vector>

using namespace orv::setMgmt;
namespace fs = std::filesystem;

namespace {

class BatchTest : public StoreTest {
protected:
    /// The number of the last commit to the environment of a key.
    static std::uint64_t last_commit(const char* key)
    {
        orv::detail::SettingsKey parsed;
        EXPECT_TRUE(parsed.parse(key));
        orv::store::Read snapshot(orv::detail::settings_environment(parsed));
        EXPECT_EQ(snapshot.error(), orv::Error::none);
        return snapshot.id();
    }
};

/// Another process that has the store open.
class Elsewhere {
public:
    explicit Elsewhere(std::vector<std::string> keys)
        : m_process([keys = std::move(keys)](Companion::Ends ends) -> int {
              uninit();
              REQUIRE(init() == 0);
              for (char index = 0; write(ends.out, "r", 1) == 1 && read(ends.in, &index, 1) == 1;) {
                  const std::string value = value_of(keys.at(static_cast<std::size_t>(index)));
                  REQUIRE(write(ends.out, value.data(), 1) == 1);
              }
              return 0;
          })
    {
        EXPECT_EQ(m_process.hear(), 'r');
    }

    /// The first letter of the value that it sees; 'e' for none.
    char see(char index)
    {
        m_process.say(index);
        const char value = m_process.hear();
        EXPECT_EQ(m_process.hear(), 'r');
        return value;
    }

private:
    Companion m_process;
};

/// Counts the notices of a key.
class Notices {
public:
    explicit Notices(const char* key)
        : m_monitored(
              key,
              [](const orv::path&, void* user) {
                  ++*static_cast<int*>(user);
                  return true;
              },
              false, &m_count, false)
    {
    }

    /// Those since the last time, when no more come.
    int take()
    {
        while (is_readable(m_monitored.get_fd(), 0))
            m_monitored.read_notifications();
        return std::exchange(m_count, 0);
    }

private:
    int m_count = 0;
    MonitoredKey m_monitored;
};

} // namespace

TEST_F(BatchTest, Many_writes_and_removals_are_one_commit)
{
    ASSERT_EQ(setKey("/dir/old", "x"), 0);
    Elsewhere other({"/dir/99", "/dir/old"});
    const std::uint64_t before = last_commit("/dir");
    Batch batch;
    for (int i = 0; i < 100; ++i)
        ASSERT_EQ(setKey("/dir/" + std::to_string(i), "v"), 0);
    ASSERT_EQ(deleteKey("/dir/old"), 0);
    EXPECT_EQ(last_commit("/dir"), before);
    ASSERT_EQ(batch.commit(), 0);
    EXPECT_EQ(last_commit("/dir"), before + 1);
    EXPECT_EQ(other.see(0), 'v');
    EXPECT_EQ(other.see(1), 'e');
}

TEST_F(BatchTest, Sees_its_own_writes_which_nobody_else_does)
{
    ASSERT_EQ(setKey("/dir/a", "old"), 0);
    ASSERT_EQ(setKey("/tmp/dir/a", "old"), 0);
    for (const std::string dir : {"/dir", "/tmp/dir"}) {
        Elsewhere other({dir + "/a", dir + "/b/c"});
        Batch batch;
        ASSERT_EQ(setKey(dir + "/a", "new"), 0);
        ASSERT_EQ(setKey(dir + "/b/c", "new"), 0);
        EXPECT_EQ(value_of(dir + "/a"), "new");
        EXPECT_EQ(value_of(dir + "/b"), "error 5");
        std::vector<std::string> names;
        EXPECT_EQ(enumSubkeys(dir, names), 2);
        EXPECT_EQ(other.see(0), 'o');
        ASSERT_EQ(deleteKey(dir + "/a"), 0);
        EXPECT_EQ(value_of(dir + "/a"), "error 4");
        EXPECT_EQ(deleteKey(dir + "/a"), -4);
        EXPECT_EQ(other.see(0), 'o');
        ASSERT_EQ(batch.commit(), 0);
        EXPECT_EQ(other.see(0), 'e');
        EXPECT_EQ(other.see(1), 'n');
    }
}

TEST_F(BatchTest, Without_a_commit_changes_nothing)
{
    ASSERT_EQ(setKey("/a", "old"), 0);
    ASSERT_EQ(setKey("/tmp/a", "old"), 0);
    {
        const Batch batch;
        ASSERT_EQ(setKey("/a", "new"), 0);
        ASSERT_EQ(deleteKey("/tmp/a"), 0);
    }
    EXPECT_EQ(value_of("/a"), "old");
    EXPECT_EQ(value_of("/tmp/a"), "old");
    EXPECT_EQ(setKey("/a", "newer"), 0);
    EXPECT_EQ(Elsewhere({"/a"}).see(0), 'n');
}

TEST_F(BatchTest, Goes_on_after_calls_that_fail_with_their_own_error_numbers)
{
    Batch batch;
    ASSERT_EQ(setKey("/a", "x"), 0);
    EXPECT_EQ(setKey("", "x"), -1);
    EXPECT_EQ(setKey("/large", std::string(kMaxValueSize + 1, 'v')), -1);
    EXPECT_EQ(deleteKey("/absent"), -4);
    ASSERT_EQ(setKey("/b", "y"), 0);
    ASSERT_EQ(batch.commit(), 0);
    EXPECT_EQ(value_of("/a"), "x");
    EXPECT_EQ(value_of("/b"), "y");
}

TEST_F(BatchTest, Goes_on_after_a_write_that_a_full_store_refuses)
{
    const std::string value(kMaxValueSize, 'v');
    int written = 0;
    while (setKey("/tmp/fill/" + std::to_string(written), value) == 0)
        ++written;
    Batch batch;
    EXPECT_EQ(setKey("/tmp/more", value), -2);
    ASSERT_EQ(deleteKey("/tmp/fill/0"), 0);
    ASSERT_EQ(setKey("/tmp/small", "x"), 0);
    ASSERT_EQ(batch.commit(), 0);
    EXPECT_EQ(value_of("/tmp/small"), "x");
    EXPECT_EQ(value_of("/tmp/fill/0"), "error 4");
    EXPECT_EQ(value_of("/tmp/more"), "error 4");
}

TEST_F(BatchTest, Within_a_batch_belongs_to_that_one)
{
    Elsewhere other({"/a", "/b", "/c"});
    Batch outer;
    ASSERT_EQ(setKey("/a", "x"), 0);
    {
        Batch inner;
        ASSERT_EQ(setKey("/b", "x"), 0);
        EXPECT_EQ(inner.commit(), 0);
        EXPECT_EQ(other.see(1), 'e');
        const Batch dropped;
        ASSERT_EQ(setKey("/c", "x"), 0);
    }
    ASSERT_EQ(outer.commit(), 0);
    for (const char index : {'\0', '\1', '\2'})
        EXPECT_EQ(other.see(index), 'x');
    EXPECT_EQ(outer.commit(), -2) << "it is over";
}

TEST_F(BatchTest, Ends_with_its_store)
{
    Batch batch;
    ASSERT_EQ(setKey("/a", "x"), 0);
    uninit();
    ASSERT_EQ(init(), 0);
    EXPECT_EQ(value_of("/a"), "error 4");
    EXPECT_EQ(batch.commit(), -2);
    EXPECT_EQ(setKey("/a", "x"), 0);
    EXPECT_EQ(Elsewhere({"/a"}).see(0), 'x');
}

TEST_F(BatchTest, Keeps_other_writers_out_for_no_longer_than_they_wait)
{
    const Batch batch;
    ASSERT_EQ(setKey("/a", "x"), 0);
    const Outcome other = in_child([]() -> int {
        uninit();
        REQUIRE(init() == -3);
        REQUIRE(orv::_get_orverrno() == 3);
        return 0;
    });
    EXPECT_EQ(other.status, 0) << other.err;
}

TEST_F(BatchTest, Whose_store_cannot_be_written_at_first_has_nothing_written_later)
{
    ASSERT_EQ(setKey("/a", "before"), 0);
    Companion other([](Companion::Ends ends) -> int {
        uninit();
        REQUIRE(init() == 0);
        char byte = 0;
        {
            const Batch its_own;
            REQUIRE(setKey("/other", "x") == 0);
            REQUIRE(write(ends.out, "w", 1) == 1 && read(ends.in, &byte, 1) == 1);
        }
        REQUIRE(write(ends.out, "d", 1) == 1);
        return static_cast<int>(read(ends.in, &byte, 1));
    });
    ASSERT_EQ(other.hear(), 'w');
    {
        Batch batch;
        EXPECT_EQ(setKey("/a", "x"), -3);
        other.say('e');
        ASSERT_EQ(other.hear(), 'd');
        EXPECT_EQ(setKey("/b", "y"), -3);
        EXPECT_EQ(deleteKey("/a"), -3);
        EXPECT_EQ(batch.commit(), 0);
    }
    EXPECT_EQ(value_of("/a"), "before");
    EXPECT_EQ(value_of("/b"), "error 4");
    EXPECT_EQ(setKey("/b", "y"), 0);
}

TEST_F(BatchTest, Its_changes_are_told_once_it_is_committed)
{
    ASSERT_EQ(setKey("/gone", "x"), 0);
    ASSERT_EQ(setKey("/same", "x"), 0);
    Notices set("/set");
    Notices gone("/gone");
    Notices same("/same");
    Notices other("/other");
    {
        Batch batch;
        ASSERT_EQ(setKey("/set", "x"), 0);
        ASSERT_EQ(deleteKey("/gone"), 0);
        ASSERT_EQ(setKey("/same", "x"), 0);
        EXPECT_EQ(set.take() + gone.take() + same.take(), 0);
        ASSERT_EQ(batch.commit(), 0);
    }
    EXPECT_EQ(set.take(), 1) << "one descriptor serves all";
    EXPECT_EQ(gone.take(), 1);
    EXPECT_EQ(same.take(), 1);
    EXPECT_EQ(other.take(), 0);
}

TEST_F(BatchTest, A_value_that_is_there_already_costs_no_durable_commit_and_is_told)
{
    ASSERT_EQ(setKey("/a", "x"), 0);
    ASSERT_EQ(setKey("/b", "x"), 0);
    const auto data_file = m_root.path() + "/var/settings/data.mdb";
    const auto written = fs::last_write_time(data_file);
    const std::uint64_t before = last_commit("/a");
    Notices notices("/a");
    EXPECT_EQ(notices.take(), 0);
    ASSERT_EQ(setKey("/a", "x"), 0);
    EXPECT_EQ(notices.take(), 1);
    ASSERT_EQ(setKey("/b", "x"), 0);
    EXPECT_EQ(notices.take(), 0) << "another key";
    {
        Batch batch;
        ASSERT_EQ(setKey("/a", "x"), 0);
        EXPECT_EQ(notices.take(), 0);
        ASSERT_EQ(batch.commit(), 0);
    }
    EXPECT_EQ(notices.take(), 1);
    const Outcome other = in_process_with_store([]() -> int { return setKey("/a", "x"); });
    EXPECT_EQ(other.status, 0) << other.err;
    EXPECT_EQ(notices.take(), 1);
    EXPECT_EQ(last_commit("/a"), before);
    EXPECT_EQ(fs::last_write_time(data_file), written);
    ASSERT_EQ(setKey("/a", "y"), 0);
    EXPECT_EQ(notices.take(), 1);
    EXPECT_GT(last_commit("/a"), before);
}

TEST_F(BatchTest, A_value_that_is_there_already_is_written_when_it_cannot_be_told_otherwise)
{
    ASSERT_EQ(setKey("/a", "x"), 0);
    const std::uint64_t before = last_commit("/a");
    Notices notices("/a");
    fs::remove_all(m_root.path() + "/tmp/settings");
    spill(m_root.path() + "/tmp/settings", "in the way");
    ASSERT_EQ(setKey("/a", "x"), 0);
    EXPECT_EQ(last_commit("/a"), before + 1);
    EXPECT_EQ(notices.take(), 1);
}

TEST_F(BatchTest, More_rewrites_than_are_kept_are_not_missed)
{
    ASSERT_EQ(setKey("/a", "x"), 0);
    ASSERT_EQ(setKey("/b", "x"), 0);
    Notices notices("/a");
    ASSERT_EQ(setKey("/a", "x"), 0);
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(setKey("/b", "x"), 0);
    EXPECT_EQ(notices.take(), 1);
}

TEST_F(BatchTest, More_rewrites_than_are_kept_cost_no_more_than_those_and_are_not_missed)
{
    ASSERT_EQ(setKey("/a", "x"), 0);
    ASSERT_EQ(setKey("/b", "x"), 0);
    ASSERT_EQ(setKey("/a", "x"), 0); // the journal's first
    Notices notices("/a");
    const auto told = [] {
        orv::store::Read snapshot(orv::detail::volatile_settings());
        std::uint64_t place = 0;
        EXPECT_EQ(orv::detail::kRewriteJournal.end(snapshot, place), orv::Error::none);
        return place;
    };
    const std::uint64_t before = told();
    Batch batch;
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(setKey("/b", "x"), 0);
    ASSERT_EQ(setKey("/a", "x"), 0);
    ASSERT_EQ(batch.commit(), 0);
    EXPECT_EQ(notices.take(), 1);
    EXPECT_EQ(told() - before, orv::detail::kRewriteJournal.capacity() + 1);
}
