// A full store can be emptied, however it was filled.

#include "process_support.h"

#include <orvstore/transaction.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

using namespace orv::store;
using orv::Error;
namespace fs = std::filesystem;

namespace {

constexpr std::size_t kMapSize = std::size_t{512} * 1024;
constexpr std::size_t kLargeMapSize = 16 * kMapSize;

std::vector<std::string>& told()
{
    static std::vector<std::string> lines;
    return lines;
}

void tell(Severity severity, const std::string& text)
{
    told().push_back(std::to_string(static_cast<int>(severity)) + " " + text);
}

std::string key_of(int number)
{
    char key[16];
    (void)std::snprintf(key, sizeof key, "%08d", number);
    return key;
}

class RoomTest : public testing::Test {
protected:
    explicit RoomTest(std::size_t map_size = kMapSize)
        : m_environment({"store", {"a"}, map_size, false, tell})
    {
    }

    void SetUp() override
    {
        told().clear();
        ASSERT_EQ(m_environment.open(), Error::none);
    }

    Error put(int number, std::size_t size)
    {
        Write transaction(m_environment);
        if (transaction.error() != Error::none)
            return transaction.error();
        if (const Error error = transaction.put(0, key_of(number), std::string(size, 'v'));
            error != Error::none)
            return error;
        return transaction.commit();
    }

    Error remove(int number)
    {
        Write transaction(m_environment, Write::Kind::removing);
        if (transaction.error() != Error::none)
            return transaction.error();
        if (const Error error = transaction.remove(0, key_of(number)); error != Error::none)
            return error;
        return transaction.commit();
    }

    Error remove_all()
    {
        Write transaction(m_environment, Write::Kind::removing);
        if (transaction.error() != Error::none)
            return transaction.error();
        {
            Cursor cursor(transaction, 0);
            for (bool found = cursor.first(); found; found = cursor.next())
                if (const Error error = cursor.remove(); error != Error::none)
                    return error;
        }
        return transaction.commit();
    }

    /// Until nothing more fits; how many entries there are then.
    int fill(std::size_t size, int from = 0)
    {
        int number = from;
        while (put(number, size) == Error::none)
            ++number;
        return number;
    }

    std::size_t entries()
    {
        Read transaction(m_environment);
        return transaction.entries(0);
    }

    [[nodiscard]] std::uintmax_t file_size() const
    {
        return fs::file_size(m_root.path() + "/store/data.mdb");
    }

    TemporaryRoot m_root;
    Environment m_environment;
};

/// One in which the list of what becomes free takes pages in a row.
class LargeRoomTest : public RoomTest {
protected:
    LargeRoomTest() : RoomTest(kLargeMapSize) {}
};

constexpr std::size_t kSizes[] = {0, 10, 500, 1000, 1500, 2030, 2100, 4000, 4100, 9000, 50000, 150000};

} // namespace

TEST_F(RoomTest, A_store_filled_to_its_last_page_can_be_emptied_entry_by_entry)
{
    for (const std::size_t size : kSizes) {
        const int count = fill(size);
        ASSERT_GT(count, 0) << size;
        EXPECT_NE(put(count, size), Error::none) << size;
        for (int number = 0; number < count; ++number)
            ASSERT_EQ(remove(number), Error::none) << size << ", entry " << number << " of " << count;
        EXPECT_EQ(entries(), 0U);
    }
}

TEST_F(RoomTest, A_store_filled_to_its_last_page_can_be_emptied_at_once)
{
    for (int round = 0; round < 2; ++round)
        for (const std::size_t size : kSizes) {
            ASSERT_GT(fill(size), 0) << size;
            ASSERT_EQ(remove_all(), Error::none) << size;
            EXPECT_EQ(entries(), 0U);
            ASSERT_EQ(put(0, 1), Error::none) << size << ": and it can be filled again";
        }
}

TEST_F(LargeRoomTest, A_store_whose_free_pages_are_scattered_can_be_emptied_at_once)
{
    for (int round = 0; round < 4; ++round) {
        const int count = fill(2100); // a page for each
        for (int number = round % 2; number < count; number += 2)
            ASSERT_EQ(remove(number), Error::none);
        for (int number = round % 2; number < count; number += 2)
            (void)put(number, 1900);
        (void)fill(2100, count);
        ASSERT_EQ(remove_all(), Error::none) << round;
        ASSERT_EQ(put(0, 1), Error::none);
    }
    EXPECT_LT(file_size(), 2 * kLargeMapSize);
}

TEST_F(RoomTest, How_full_it_is_can_be_asked)
{
    Usage usage;
    ASSERT_EQ(m_environment.measure(usage), Error::none);
    EXPECT_LE(usage.used, 5U * 4096);
    EXPECT_EQ(usage.limit, kMapSize - kMapSize / 16);
    EXPECT_EQ(usage.file, file_size());
    (void)fill(4000);
    ASSERT_EQ(m_environment.measure(usage), Error::none);
    EXPECT_GT(usage.used, usage.limit - std::uint64_t{10} * 4096);
    EXPECT_LE(usage.used, usage.limit);
    ASSERT_EQ(remove_all(), Error::none);
    ASSERT_EQ(m_environment.measure(usage), Error::none);
    EXPECT_LE(usage.used, 10U * 4096);
    EXPECT_EQ(usage.file, file_size());
    m_environment.close();
    EXPECT_EQ(m_environment.measure(usage), Error::input_output);
}

TEST_F(RoomTest, A_full_store_says_so_in_one_line_and_goes_on)
{
    (void)fill(4000);
    EXPECT_EQ(told(), std::vector<std::string>{"0 store store: cannot write: it is full"});
    EXPECT_EQ(remove(1), Error::none);
    EXPECT_EQ(remove(2), Error::none);
    EXPECT_EQ(put(1, 4000), Error::none);
}

TEST_F(RoomTest, A_transaction_that_is_refused_an_entry_can_go_on_without_it)
{
    const int count = fill(4000);
    Write transaction(m_environment, Write::Kind::removing);
    ASSERT_EQ(transaction.error(), Error::none);
    EXPECT_EQ(transaction.check_room("large", std::string(4000, 'v')), Error::input_output);
    for (int number = 0; number < count; ++number)
        ASSERT_EQ(transaction.remove(0, key_of(number)), Error::none);
    EXPECT_EQ(transaction.check_room("large", std::string(4000, 'v')), Error::none);
    ASSERT_EQ(transaction.put(0, "large", std::string(4000, 'v')), Error::none);
    ASSERT_EQ(transaction.commit(), Error::none);
    EXPECT_EQ(entries(), 1U);
}

TEST_F(RoomTest, Other_processes_read_and_write_on_when_the_file_has_grown_beyond_its_limit)
{
    Companion other([](Companion::Ends ends) -> int {
        Environment own({"store", {"a"}, kMapSize, false, nullptr});
        REQUIRE(own.open() == Error::none);
        REQUIRE(::write(ends.out, "o", 1) == 1);
        char byte = 0;
        REQUIRE(::read(ends.in, &byte, 1) == 1);
        {
            Read transaction(own);
            REQUIRE(transaction.error() == Error::none);
            REQUIRE(transaction.entries(0) == 0);
        }
        Write transaction(own);
        REQUIRE(transaction.error() == Error::none);
        REQUIRE(transaction.put(0, "key", "its") == Error::none);
        REQUIRE(transaction.commit() == Error::none);
        return 0;
    });
    ASSERT_EQ(other.hear(), 'o');
    const int count = fill(2100);
    {
        Write transaction(m_environment, Write::Kind::removing);
        ASSERT_EQ(transaction.error(), Error::none);
        for (int number = 0; number < count && number < 40; ++number) // each to another page
            ASSERT_EQ(transaction.put(0, key_of(number), std::string(2100, 'w')), Error::none);
        ASSERT_EQ(transaction.commit(), Error::none);
    }
    EXPECT_GT(file_size(), kMapSize);
    ASSERT_EQ(remove_all(), Error::none);
    other.say('g');
    EXPECT_EQ(other.join(), 0);
    EXPECT_EQ(entries(), 1U);
    EXPECT_EQ(put(0, 1), Error::none);
}

TEST_F(LargeRoomTest, A_limit_below_what_the_store_holds_keeps_nobody_from_reading_and_removing)
{
    {
        Write transaction(m_environment); // one, which leaves no free pages
        for (int number = 0; number < 100; ++number)
            ASSERT_EQ(transaction.put(0, key_of(number), std::string(20000, 'v')), Error::none);
        ASSERT_EQ(transaction.commit(), Error::none);
    }
    m_environment.close();
    Environment smaller({"store", {"a"}, kMapSize, false, tell});
    ASSERT_EQ(smaller.open(), Error::none);
    const auto put_one = [&] {
        Write transaction(smaller);
        EXPECT_EQ(transaction.error(), Error::none);
        const Error error = transaction.put(0, "one more", "x");
        return error == Error::none ? transaction.commit() : error;
    };
    {
        Read transaction(smaller);
        ASSERT_EQ(transaction.error(), Error::none);
        Cursor cursor(transaction, 0);
        std::size_t size = 0;
        for (bool found = cursor.first(); found; found = cursor.next())
            size += cursor.value().size();
        EXPECT_EQ(size, 2000000U);
    }
    EXPECT_EQ(put_one(), Error::input_output);
    EXPECT_EQ(told(), std::vector<std::string>{"0 store store: cannot write: it is full"});
    for (int number = 0; number < 90; ++number) {
        Write transaction(smaller, Write::Kind::removing);
        ASSERT_EQ(transaction.error(), Error::none);
        ASSERT_EQ(transaction.remove(0, key_of(number)), Error::none);
        ASSERT_EQ(transaction.commit(), Error::none);
    }
    EXPECT_EQ(put_one(), Error::none);
}
