// The examination of a data file: sound ones are never refused, damaged ones never crash the process.

#include "check.h"
#include "process_support.h"

#include <orvstore/transaction.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>

using namespace orv::store;
using orv::Error;

namespace {

constexpr std::size_t kMapSize = std::size_t{16} * 1024 * 1024;
constexpr std::size_t kWord = sizeof(std::size_t);
constexpr std::size_t kNodeHeader = 8; ///< data size (4), flags (2) and key size (2), before the key
constexpr std::size_t kPageHeader = kWord + 8;

class StoreCheckTest : public testing::Test {
protected:
    static Layout layout() { return {"store", {"a", "b"}, kMapSize, false}; }

    [[nodiscard]] std::string data_file() const { return m_root.path() + "/store/data.mdb"; }

    [[nodiscard]] StoreVerdict verdict() const
    {
        const Fd file(open(data_file().c_str(), O_RDONLY | O_CLOEXEC));
        return check_store_file(file);
    }

    TemporaryRoot m_root;
    std::mt19937 m_random{3};
};

template <typename T>
T number_at(const std::string& bytes, std::size_t offset)
{
    T number{};
    std::memcpy(&number, bytes.data() + offset, sizeof number);
    return number;
}

template <typename T>
void add_at(std::string& bytes, std::size_t offset, int difference)
{
    const T number = static_cast<T>(number_at<T>(bytes, offset) + static_cast<T>(difference));
    std::memcpy(bytes.data() + offset, &number, sizeof number);
}

/// Where a text begins, in current pages and in former ones.
std::vector<std::size_t> places_of(const std::string& text, const std::string& bytes)
{
    std::vector<std::size_t> places;
    for (auto at = bytes.find(text); at != std::string::npos; at = bytes.find(text, at + 1))
        places.push_back(at);
    return places;
}

/// The store's trees, in both of its meta pages.
constexpr std::size_t kTreeSize = 8 + 5 * kWord;
constexpr std::size_t kFreeList = kPageHeader + 8 + 2 * kWord;
constexpr std::size_t kTransaction = kFreeList + 2 * kTreeSize + kWord;

/// Where the meta data of the last commit begins.
std::size_t last_meta(const std::string& bytes)
{
    const auto page_size = number_at<std::uint32_t>(bytes, kFreeList);
    return number_at<std::size_t>(bytes, kTransaction) <
                   number_at<std::size_t>(bytes, page_size + kTransaction)
               ? page_size
               : 0;
}

/// The place of a node on the root page of the free list.
std::size_t free_list_node(const std::string& bytes, std::size_t index)
{
    const auto page_size = number_at<std::uint32_t>(bytes, kFreeList);
    const auto root = number_at<std::size_t>(bytes, last_meta(bytes) + kFreeList + kTreeSize - kWord);
    const std::size_t page = root * page_size;
    return page + number_at<std::uint16_t>(bytes, page + kPageHeader + 2 * index);
}

/// One transaction with a few random changes: short and long keys, small and huge values, many removals.
Error change_at_random(Environment& environment, std::mt19937& random)
{
    Write transaction(environment);
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
void use_thoroughly(Environment& environment)
{
    for (std::size_t tree = 0; tree < 2; ++tree) {
        std::size_t bytes = 0;
        Read transaction(environment);
        if (transaction.error() != Error::none)
            return;
        Cursor cursor(transaction, tree);
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
    Environment environment(layout());
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
        Environment environment(layout());
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
            Environment environment(layout());
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
        Environment environment(layout());
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

class StoreDamageTest : public StoreCheckTest {
protected:
    using Damage = std::function<void(std::string& bytes)>;

    /// A new store with some keys of three digits, one transaction for each.
    void fill(int keys)
    {
        std::filesystem::remove_all(m_root.path() + "/store");
        Environment environment(layout());
        ASSERT_EQ(environment.open(), Error::none);
        for (int i = 0; i < keys; ++i) {
            Write transaction(environment);
            ASSERT_EQ(transaction.put(0, "key " + std::to_string(100 + i), std::string(39, 'v')),
                      Error::none);
            ASSERT_EQ(transaction.commit(), Error::none);
        }
        m_sound = slurp(data_file());
        ASSERT_EQ(verdict().state, StoreState::sound);
    }

    /// The verdict on the store after a damage to the file.
    [[nodiscard]] StoreState after(const Damage& damage) const
    {
        std::string bytes = m_sound;
        damage(bytes);
        EXPECT_NE(bytes, m_sound) << "nothing was damaged";
        spill(data_file(), bytes);
        return verdict().state;
    }

    std::string m_sound;
};

TEST_F(StoreDamageTest, Nodes_that_overlap_or_leave_gaps_are_damage)
{
    fill(9);
    for (const int difference : {2, -2, 32, -32, 1024}) {
        EXPECT_EQ(after([&](std::string& bytes) {
                      for (const std::size_t place : places_of("key 104", bytes))
                          add_at<std::uint16_t>(bytes, place - kNodeHeader, difference);
                  }),
                  StoreState::damaged)
            << "data size " << difference;
        EXPECT_EQ(after([&](std::string& bytes) {
                      for (const std::size_t place : places_of("key 104", bytes))
                          add_at<std::uint16_t>(bytes, place - 2, difference);
                  }),
                  StoreState::damaged)
            << "key size " << difference;
    }
}

TEST_F(StoreDamageTest, Keys_that_do_not_ascend_are_damage)
{
    for (const int keys : {9, 300}) { // one page, and several below a branch
        fill(keys);
        for (const char* key : {"key 000", "key 999", "key 105", "\xff"}) {
            EXPECT_EQ(after([&](std::string& bytes) {
                          for (const std::size_t place : places_of("key 104", bytes))
                              bytes.replace(place, std::strlen(key), key);
                      }),
                      StoreState::damaged)
                << keys << ": " << key;
        }
    }
}

TEST_F(StoreDamageTest, Keys_of_branches_that_do_not_part_their_pages_are_damage)
{
    fill(300);
    // A branch's nodes have nothing after the key, so these are the keys whose data size is a page number.
    const auto branch_keys = [&](const std::string& bytes) {
        std::vector<std::size_t> places = places_of("key ", bytes);
        places.erase(std::remove_if(places.begin(), places.end(),
                                    [&](std::size_t place) {
                                        return number_at<std::uint32_t>(bytes, place - kNodeHeader) == 39;
                                    }),
                     places.end());
        return places;
    };
    ASSERT_GE(branch_keys(m_sound).size(), 3U);
    for (const int difference : {1, -1, 4}) {
        EXPECT_EQ(after([&](std::string& bytes) {
                      for (const std::size_t place : branch_keys(bytes))
                          add_at<unsigned char>(bytes, place + 4, difference);
                  }),
                  StoreState::damaged)
            << difference;
    }
}

TEST_F(StoreDamageTest, A_free_list_whose_transactions_do_not_ascend_is_damaged)
{
    fill(9);
    const auto key = [](const std::string& bytes, std::size_t index) {
        return free_list_node(bytes, index) + kNodeHeader;
    };
    ASSERT_LT(number_at<std::size_t>(m_sound, key(m_sound, 0)),
              number_at<std::size_t>(m_sound, key(m_sound, 1)));
    for (const int difference : {-100, 1, 2, 100}) {
        EXPECT_EQ(after([&](std::string& bytes) { add_at<std::size_t>(bytes, key(bytes, 0), difference); }),
                  StoreState::damaged)
            << difference;
    }
}

TEST_F(StoreDamageTest, A_tree_that_is_not_what_its_root_says_is_damaged)
{
    fill(9);
    constexpr std::size_t kFlags = 4;
    constexpr std::size_t kEntries = 8 + 3 * kWord;
    for (const std::size_t tree : {kFreeList, kFreeList + kTreeSize})
        for (const std::size_t member : {kFlags, kEntries})
            EXPECT_EQ(after([&](std::string& bytes) {
                          add_at<std::uint16_t>(bytes, last_meta(bytes) + tree + member, 4);
                      }),
                      StoreState::damaged)
                << tree << ", " << member;
    EXPECT_EQ(
        after([](std::string& bytes) {
            const std::string name{"\0\0\2\0\1\0a", 7}; // the end of a data size, a flag, a key size, a name
            for (const std::size_t place : places_of(name, bytes))
                add_at<std::uint16_t>(bytes, place + 2, -2);
        }),
        StoreState::damaged)
        << "a named tree without its flag";
}

TEST_F(StoreCheckTest, A_store_whose_creation_was_interrupted_is_created_again)
{
    {
        // What is written first of all, before there is any tree.
        Environment environment({"store", {}, kMapSize, true});
        ASSERT_EQ(environment.open(), Error::none);
    }
    const std::string created = slurp(data_file());
    const std::size_t page_size = created.size() / 2;
    const std::string zeros(page_size, '\0');
    for (const std::string& rest : {created.substr(0, page_size), created.substr(0, page_size + 100),
                                    created.substr(0, page_size) + zeros, zeros + created.substr(page_size),
                                    zeros, zeros + zeros, std::string(1, '\0')}) {
        spill(data_file(), rest);
        EXPECT_EQ(verdict().state, StoreState::unfinished) << rest.size();
        Environment environment({"store", {"a", "b"}, kMapSize, true});
        ASSERT_EQ(environment.open(), Error::none);
        EXPECT_EQ(change_at_random(environment, m_random), Error::none);
    }
}

TEST_F(StoreCheckTest, A_store_that_lost_pages_is_not_taken_for_an_unfinished_one)
{
    {
        Environment environment(layout());
        ASSERT_EQ(environment.open(), Error::none);
    }
    const std::string finished = slurp(data_file());
    const std::size_t page_size = number_at<std::uint32_t>(finished, kFreeList);
    const std::string zeros(page_size, '\0');
    for (const std::string& rest :
         {zeros + finished.substr(page_size),
          finished.substr(0, page_size) + zeros + finished.substr(2 * page_size),
          zeros + zeros + finished.substr(2 * page_size), zeros + finished.substr(page_size, page_size),
          std::string(finished.size(), '\0')}) {
        spill(data_file(), rest);
        EXPECT_EQ(verdict().state, StoreState::damaged) << rest.size();
    }
}

TEST_F(StoreCheckTest, No_damage_crashes_the_process)
{
    {
        Environment environment(layout());
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
            Environment environment(layout());
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
