// The examination of a data file: sound ones are never refused, damaged ones never crash the process.

#include "lmdb_check.h"
#include "lmdb_environment.h"
#include "store_support.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <random>

using namespace orv::detail;
using orv::Error;

namespace {

constexpr std::size_t kMapSize = std::size_t{16} * 1024 * 1024;

class StoreCheckTest : public testing::Test {
protected:
    static LmdbEnvironment::Layout layout() { return {"store", {"a", "b"}, kMapSize, false}; }

    [[nodiscard]] std::string data_file() const { return m_root.path() + "/store/data.mdb"; }

    [[nodiscard]] StoreVerdict verdict() const
    {
        const Fd file(open(data_file().c_str(), O_RDONLY | O_CLOEXEC));
        return check_store_file(file);
    }

    TemporaryRoot m_root;
    std::mt19937 m_random{3};
};

/// One transaction with a few random changes: short and long keys, small and huge values, many removals.
Error change_at_random(LmdbEnvironment& environment, std::mt19937& random)
{
    LmdbWrite transaction(environment);
    Error error = transaction.error();
    const auto changes = 1 + random() % 40;
    for (std::size_t i = 0; i < changes && error == Error::none; ++i) {
        const std::size_t tree = random() % 2;
        const std::string key =
            std::to_string(random() % 600) + std::string(random() % 3 == 0 ? 200 : 0, 'k');
        if (random() % 5 < 2) {
            error = transaction.remove(tree, key);
            error = error == Error::no_such_key ? Error::none : error;
        } else {
            error = transaction.put(tree, key, std::string(random() % 30 == 0 ? random() % 20000 : 30, 'v'));
        }
    }
    return error == Error::none && random() % 8 != 0 ? transaction.commit() : error;
}

/// Everything that the environment can be asked and told.
void use_thoroughly(LmdbEnvironment& environment)
{
    for (std::size_t tree = 0; tree < 2; ++tree) {
        std::size_t bytes = 0;
        LmdbRead transaction(environment);
        if (transaction.error() != Error::none)
            return;
        LmdbCursor cursor(transaction, tree);
        for (bool found = cursor.first(); found; found = cursor.next())
            bytes += static_cast<std::size_t>(
                std::count(cursor.value().begin(), cursor.value().end(), cursor.key().empty() ? 'k' : 'v'));
        EXPECT_LE(bytes, kMapSize);
    }
    std::mt19937 random(5);
    for (int i = 0; i < 10; ++i)
        (void)change_at_random(environment, random);
}

} // namespace

TEST_F(StoreCheckTest, A_store_is_sound_after_every_commit)
{
    LmdbEnvironment environment(layout());
    ASSERT_EQ(environment.open(), Error::none);
    for (int i = 0; i < 3000; ++i) {
        ASSERT_EQ(change_at_random(environment, m_random), Error::none);
        if (i < 50 || i % 20 == 0) {
            ASSERT_EQ(verdict().state, StoreState::sound) << verdict().reason << " after " << i;
        }
    }
}

TEST_F(StoreCheckTest, A_store_is_sound_while_another_process_writes_to_it)
{
    Companion writer([&](Companion::Ends ends) -> int {
        LmdbEnvironment environment(layout());
        REQUIRE(environment.open() == Error::none);
        REQUIRE(write(ends.out, "o", 1) == 1);
        for (;;)
            REQUIRE(change_at_random(environment, m_random) == Error::none);
    });
    ASSERT_EQ(writer.hear(), 'o');
    for (int i = 0; i < 3000; ++i)
        ASSERT_EQ(verdict().state, StoreState::sound) << verdict().reason;
}

TEST_F(StoreCheckTest, A_store_whose_writers_were_killed_is_sound)
{
    for (int i = 0; i < 40; ++i) {
        Companion writer([&](Companion::Ends ends) -> int {
            std::mt19937 random(static_cast<unsigned>(i));
            LmdbEnvironment environment(layout());
            REQUIRE(environment.open() == Error::none);
            for (;;) {
                REQUIRE(change_at_random(environment, random) == Error::none);
                REQUIRE(write(ends.out, "c", 1) == 1);
            }
        });
        for (auto commits = m_random() % 20; commits > 0; --commits)
            ASSERT_EQ(writer.hear(), 'c');
        writer.kill();
        ASSERT_EQ(writer.join(), 1000 + SIGKILL);
        if (std::filesystem::exists(data_file())) {
            ASSERT_NE(verdict().state, StoreState::damaged) << verdict().reason;
        }
    }
}

TEST_F(StoreCheckTest, What_is_no_store_is_told_from_an_empty_one)
{
    std::filesystem::create_directories(m_root.path() + "/store");
    spill(data_file(), "");
    EXPECT_EQ(verdict().state, StoreState::empty);
    for (const std::string& content : {std::string("x"), std::string(100000, '\0'), std::string(4096, '\xff'),
                                       std::string("no store at all, but some text")}) {
        spill(data_file(), content);
        EXPECT_EQ(verdict().state, StoreState::damaged) << content.size();
    }
}

TEST_F(StoreCheckTest, A_truncated_store_is_damaged)
{
    {
        LmdbEnvironment environment(layout());
        ASSERT_EQ(environment.open(), Error::none);
        for (int i = 0; i < 50; ++i)
            ASSERT_EQ(change_at_random(environment, m_random), Error::none);
    }
    ASSERT_EQ(verdict().state, StoreState::sound);
    for (const auto size :
         {std::filesystem::file_size(data_file()) / 2, std::uintmax_t{12288}, std::uintmax_t{8192},
          std::uintmax_t{5000}, std::uintmax_t{4096}, std::uintmax_t{40}}) {
        std::filesystem::resize_file(data_file(), size);
        EXPECT_EQ(verdict().state, StoreState::damaged) << size;
    }
}

TEST_F(StoreCheckTest, A_store_whose_creation_was_interrupted_is_created_again)
{
    {
        // What is written first of all, before there is any tree.
        LmdbEnvironment environment({"store", {}, kMapSize, false});
        ASSERT_EQ(environment.open(), Error::none);
    }
    std::filesystem::resize_file(data_file(), 4096);
    EXPECT_EQ(verdict().state, StoreState::unfinished);
    LmdbEnvironment environment(layout());
    ASSERT_EQ(environment.open(), Error::none);
    EXPECT_EQ(change_at_random(environment, m_random), Error::none);
}

TEST_F(StoreCheckTest, No_damage_crashes_the_process)
{
    {
        LmdbEnvironment environment(layout());
        ASSERT_EQ(environment.open(), Error::none);
        for (int i = 0; i < 150; ++i)
            ASSERT_EQ(change_at_random(environment, m_random), Error::none);
    }
    const std::string sound = slurp(data_file());
    int refused = 0;
    constexpr int kCases = 600;
    for (int i = 0; i < kCases; ++i) {
        std::string damaged = sound;
        const auto holes = 1 + m_random() % 3;
        for (std::size_t hole = 0; hole < holes; ++hole) {
            // Page headers and meta pages are small; they are aimed at more often.
            std::size_t at = m_random() % damaged.size();
            if (m_random() % 3 != 0)
                at = at / 4096 * 4096 + m_random() % 160;
            const std::size_t size = std::min<std::size_t>(damaged.size() - at, m_random() % 2 == 0 ? 1 : 64);
            for (std::size_t j = 0; j < size; ++j)
                damaged[at + j] = static_cast<char>(m_random() % 3 == 0 ? 0xff : m_random());
        }
        spill(data_file(), damaged);
        refused += verdict().state == StoreState::damaged ? 1 : 0;
        const Outcome outcome = in_child([&] {
            LmdbEnvironment environment(layout());
            if (environment.open() != Error::none)
                return 2;
            use_thoroughly(environment);
            return 0;
        });
        ASSERT_LT(outcome.status, 3) << "case " << i << ": " << outcome.err;
        ASSERT_LE(count_log_lines(outcome.err), outcome.status == 2 ? 1U : 100U) << outcome.err;
    }
    EXPECT_GT(refused, kCases / 10) << "the damage does hit what matters";
}
