// What orvctl shows of the daemon against what the daemon has.

#include "catalogue.h"

#include <evhandler.h>
#include <gtest/gtest.h>
#include <orvex.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

namespace {

template <typename Rows>
std::vector<std::string_view> names_of(const Rows& rows)
{
    std::vector<std::string_view> names;
    for (const auto& row : rows)
        names.push_back(row.name);
    return names;
}

TEST(Catalogue, ListsTheDaemonsCommandsInTheOrderOfItsTable)
{
    EXPECT_EQ(names_of(orvctl::commands()), orv::brokerd::command_names());
}

TEST(Catalogue, ListsEveryEventThatComesOverTheExchange)
{
    const auto listed = names_of(orvctl::events());
    EXPECT_FALSE(orv::brokerd::g_exchange_events.empty());
    for (const auto& [name, row] : orv::brokerd::g_exchange_events)
        EXPECT_EQ(std::count(listed.begin(), listed.end(), name), 1) << name;
}

TEST(Catalogue, NamesAreUniqueAndNothingIsLeftBlank)
{
    std::set<std::string_view> names;
    for (const auto& row : orvctl::commands()) {
        EXPECT_TRUE(names.insert(row.name).second) << row.name;
        EXPECT_FALSE(row.summary.empty() || row.argument.empty() || row.answer.empty()) << row.name;
    }
    for (const auto& row : orvctl::events()) {
        EXPECT_TRUE(names.insert(row.name).second) << row.name;
        EXPECT_FALSE(row.summary.empty() || row.shape.empty()) << row.name;
    }
}

} // namespace
