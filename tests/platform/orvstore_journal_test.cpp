// The journal of a store: writers append, readers keep their place.

#include "process_support.h"

#include <orvstore/journal.h>

#include <gtest/gtest.h>

using namespace orv::store;

namespace {

constexpr std::uint64_t kCapacity = 8;
constexpr Journal kJournal{0, kCapacity};

class JournalTest : public testing::Test {
protected:
    void SetUp() override { ASSERT_EQ(m_environment.open(), orv::Error::none); }

    void append(int from, int to)
    {
        Write transaction(m_environment);
        for (int i = from; i <= to; ++i)
            ASSERT_EQ(kJournal.append(transaction, std::to_string(i)), orv::Error::none);
        ASSERT_EQ(transaction.commit(), orv::Error::none);
    }

    std::vector<std::string> read(std::uint64_t& place, std::size_t limit = 100)
    {
        Read transaction(m_environment);
        std::vector<std::string> entries;
        EXPECT_EQ(kJournal.read(transaction, place, limit, entries, m_lost), orv::Error::none);
        return entries;
    }

    TemporaryRoot m_root;
    Environment m_environment{{"journal", {"entries"}, std::size_t{1024} * 1024, false}};
    bool m_lost = false;
};

using Entries = std::vector<std::string>;

} // namespace

TEST_F(JournalTest, A_reader_gets_every_entry_once_and_in_order)
{
    std::uint64_t place = 0;
    append(1, 3);
    EXPECT_EQ(read(place), (Entries{"1", "2", "3"}));
    EXPECT_EQ(read(place), Entries{});
    append(4, 4);
    append(5, 5);
    EXPECT_EQ(read(place), (Entries{"4", "5"}));
    EXPECT_FALSE(m_lost);
}

TEST_F(JournalTest, A_reader_starts_at_the_end)
{
    append(1, 3);
    std::uint64_t place = 0;
    Read transaction(m_environment);
    ASSERT_EQ(kJournal.end(transaction, place), orv::Error::none);
    EXPECT_EQ(read(place), Entries{});
}

TEST_F(JournalTest, A_limited_reading_goes_on_where_it_stopped)
{
    append(1, 5);
    std::uint64_t place = 0;
    EXPECT_EQ(read(place, 2), (Entries{"1", "2"}));
    EXPECT_EQ(read(place, 2), (Entries{"3", "4"}));
    EXPECT_EQ(read(place, 2), (Entries{"5"}));
}

TEST_F(JournalTest, Only_the_last_entries_are_kept)
{
    std::uint64_t place = 0;
    append(1, 2);
    EXPECT_EQ(read(place), (Entries{"1", "2"}));
    append(3, 10);
    EXPECT_EQ(read(place), (Entries{"3", "4", "5", "6", "7", "8", "9", "10"}));
    EXPECT_FALSE(m_lost);
    Read transaction(m_environment);
    EXPECT_EQ(transaction.entries(0), kCapacity);
}

TEST_F(JournalTest, A_reader_that_fell_behind_is_told_and_goes_on_at_the_end)
{
    std::uint64_t place = 0;
    append(1, 2);
    (void)read(place);
    append(3, 11);
    EXPECT_EQ(read(place), Entries{});
    EXPECT_TRUE(m_lost);
    append(12, 12);
    EXPECT_EQ(read(place), (Entries{"12"}));
    EXPECT_FALSE(m_lost);
}

TEST_F(JournalTest, A_place_beyond_the_end_is_a_loss_too)
{
    append(1, 2);
    std::uint64_t place = 17; // of a journal that was replaced
    EXPECT_EQ(read(place), Entries{});
    EXPECT_TRUE(m_lost);
    EXPECT_EQ(place, 2U);
}

TEST_F(JournalTest, An_entry_whose_key_is_no_number_is_an_error_and_leads_nobody_in_circles)
{
    append(1, 3);
    {
        Write transaction(m_environment);
        ASSERT_EQ(transaction.put(0, std::string(9, '\0'), "first"), orv::Error::none);
        ASSERT_EQ(transaction.put(0, std::string("\0\0\0\0\0\0\0\2\0", 9), "third"), orv::Error::none);
        ASSERT_EQ(transaction.commit(), orv::Error::none);
    }
    std::uint64_t place = 1;
    std::vector<std::string> entries;
    {
        Read transaction(m_environment);
        EXPECT_EQ(kJournal.read(transaction, place, 100, entries, m_lost), orv::Error::input_output);
        EXPECT_EQ(place, 1U);
    }
    Write transaction(m_environment);
    EXPECT_EQ(kJournal.append(transaction, "4"), orv::Error::input_output);
}
