// The grammar of exclusion patterns: examples, and a great many of random patterns against what they were
// made to be and against a second way to tell.

#include "support/exclusion_reference.h"

#include "exclusion.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace orv::test {
namespace {

using brokerd::va_validate_exclusion;

struct Example {
    const char* pattern;
    bool valid;
};

const Example kExamples[] = {
    {"aa:bb:cc:dd:ee:ff", true},
    {"AA:bb:0[0-3|a-f]:dd:ee:f[0|5]", true},
    {"00:11:22:33:44:55", true},
    {"aA:Bb:cC:Dd:eE:Ff", true},
    {"[a]a:a[a]:[a][a]:dd:ee:ff", true},
    {"[0-9|a-f][0-9|A-F]:bb:cc:dd:ee:ff", true},
    {"[0|1|2|3|4|5|6|7|8|9|a|b|c|d|e|f]0:bb:cc:dd:ee:ff", true},
    // the number of groups
    {"", false},
    {"aa", false},
    {"aa:bb:cc:dd:ee", false},
    {"aa:bb:cc:dd:ee:ff:00", false},
    {"aa:bb:cc:dd:ee:", false},
    {":aa:bb:cc:dd:ee:ff", false},
    {"aa:bb:cc:dd:ee:ff:", false},
    {"aa:bb::dd:ee:ff", false},
    {":::::", false},
    {"aa-bb-cc-dd-ee-ff", false},
    // positions of a group
    {"aa:bb:cc:dd:ee:f", false},
    {"aa:bb:cc:dd:ee:fff", false},
    {"aa:bb:cc:dd:ee:[a]", false},
    {"aa:bb:cc:dd:ee:[a]bc", false},
    {"aa:bb:cc:dd:ee:[a][b][c]", false},
    {"aa:bb:cc:dd:ee:fg", false},
    {"aa:bb:cc:dd:ee: f", false},
    {" aa:bb:cc:dd:ee:ff", false},
    {"aa:bb:cc:dd:ee:ff ", false},
    {"aa:bb:cc:dd:ee:ff\n", false},
    {"aa:bb:cc:dd:ee:0-", false},
    {"aa:bb:cc:dd:ee:0|", false},
    {"aa:bb:cc:dd:ee:**", false},
    // brackets
    {"aa:bb:cc:dd:ee:[]f", false},
    {"aa:bb:cc:dd:ee:f[]", false},
    {"aa:bb:cc:dd:ee:f[", false},
    {"aa:bb:cc:dd:ee:f]", false},
    {"aa:bb:cc:dd:ee:[f", false},
    {"aa:bb:cc:dd:ee:]f", false},
    {"aa:bb:cc:dd:ee:[af", false},
    {"aa:bb:cc:dd:[e:f]f", false},
    {"aa:bb:cc:dd:ee:[[a]f", false},
    {"aa:bb:cc:dd:ee:[a]]f", false},
    {"aa:bb:cc:dd:ee:[[a]]f", false},
    {"aa:bb:cc:dd:ee:[a[b]f", false},
    {"[:[:[:[:[:[", false},
    // items
    {"aa:bb:cc:dd:ee:[a|]f", false},
    {"aa:bb:cc:dd:ee:[|a]f", false},
    {"aa:bb:cc:dd:ee:[a||b]f", false},
    {"aa:bb:cc:dd:ee:[|]f", false},
    {"aa:bb:cc:dd:ee:[ab]f", false},
    {"aa:bb:cc:dd:ee:[a,b]f", false},
    {"aa:bb:cc:dd:ee:[a b]f", false},
    {"aa:bb:cc:dd:ee:[g]f", false},
    {"aa:bb:cc:dd:ee:[-]f", false},
    {"aa:bb:cc:dd:ee:[^a]f", false},
    {"aa:bb:cc:dd:ee:[a|b|c]f", true},
    // ranges
    {"aa:bb:cc:dd:ee:[0-9]f", true},
    {"aa:bb:cc:dd:ee:[a-f]f", true},
    {"aa:bb:cc:dd:ee:[A-F]f", true},
    {"aa:bb:cc:dd:ee:[5-5]f", true},
    {"aa:bb:cc:dd:ee:[a-F]f", false},
    {"aa:bb:cc:dd:ee:[A-f]f", false},
    {"aa:bb:cc:dd:ee:[0-f]f", false},
    {"aa:bb:cc:dd:ee:[9-a]f", false},
    {"aa:bb:cc:dd:ee:[9-A]f", false},
    {"aa:bb:cc:dd:ee:[9-0]f", false},
    {"aa:bb:cc:dd:ee:[f-a]f", false},
    {"aa:bb:cc:dd:ee:[F-A]f", false},
    {"aa:bb:cc:dd:ee:[a-]f", false},
    {"aa:bb:cc:dd:ee:[-a]f", false},
    {"aa:bb:cc:dd:ee:[a--]f", false},
    {"aa:bb:cc:dd:ee:[a-b-c]f", false},
    {"aa:bb:cc:dd:ee:[a.b]f", false},
    {"aa:bb:cc:dd:ee:[a-g]f", false},
    {"aa:bb:cc:dd:ee:[00-9]f", false},
    {"aa:bb:cc:dd:ee:[0-99]f", false},
    // what is named twice
    {"aa:bb:cc:dd:ee:[a|a]f", false},
    {"aa:bb:cc:dd:ee:[a|A]f", false},
    {"aa:bb:cc:dd:ee:[0|1|0]f", false},
    {"aa:bb:cc:dd:ee:[0-5|3]f", false},
    {"aa:bb:cc:dd:ee:[3|0-5]f", false},
    {"aa:bb:cc:dd:ee:[0-5|0]f", false},
    {"aa:bb:cc:dd:ee:[0-5|5]f", false},
    {"aa:bb:cc:dd:ee:[0-5|6]f", true},
    {"aa:bb:cc:dd:ee:[a-c|B]f", false},
    {"aa:bb:cc:dd:ee:[A-C|b]f", false},
    {"aa:bb:cc:dd:ee:[A-C|d]f", true},
    {"aa:bb:cc:dd:ee:[0-5|5-9]f", false},
    {"aa:bb:cc:dd:ee:[5-9|0-5]f", false},
    {"aa:bb:cc:dd:ee:[0-4|5-9]f", true},
    {"aa:bb:cc:dd:ee:[5-9|0-4]f", true},
    {"aa:bb:cc:dd:ee:[0-9|3-5]f", false},
    {"aa:bb:cc:dd:ee:[3-5|0-9]f", false},
    {"aa:bb:cc:dd:ee:[0-3|0-3]f", false},
    {"aa:bb:cc:dd:ee:[a-c|C-E]f", false},
    {"aa:bb:cc:dd:ee:[a-c|D-F]f", true},
    {"aa:bb:cc:dd:ee:[0-1|4-5|8-9|2-3]f", true},
    {"aa:bb:cc:dd:ee:[0-1|4-5|8-9|1-3]f", false},
    {"aa:bb:cc:dd:ee:[5-5|5]f", false},
    {"aa:bb:cc:dd:[a]e:[a]f", true}, // each class for itself
};

TEST(ExclusionPatterns, AreWhatTheGrammarSays)
{
    for (const Example& example : kExamples) {
        EXPECT_EQ(va_validate_exclusion(example.pattern), example.valid) << example.pattern;
        EXPECT_EQ(is_exclusion_pattern(example.pattern), example.valid) << example.pattern;
    }
}

TEST(ExclusionPatterns, HoldNoZeroBytesAndNoOtherBytes)
{
    const std::string good = "aa:bb:cc:dd:ee:f[0-3]";
    for (std::size_t at = 0; at < good.size(); ++at)
        for (int c = 0; c < 256; ++c) {
            std::string pattern = good;
            pattern[at] = static_cast<char>(c);
            EXPECT_EQ(va_validate_exclusion(pattern), is_exclusion_pattern(pattern)) << pattern;
        }
    EXPECT_FALSE(va_validate_exclusion(good + '\0'));
    EXPECT_FALSE(va_validate_exclusion({"aa:bb:cc:dd:ee:f\0", 17}));
}

TEST(ExclusionPatterns, ThatAreVeryLongAreInvalid)
{
    for (const char c : {'a', ':', '[', ']', '|', '-'})
        EXPECT_FALSE(va_validate_exclusion(std::string(1000000, c)));
    std::string items = "0";
    for (int i = 0; i < 100000; ++i)
        items += "|0";
    EXPECT_FALSE(va_validate_exclusion("aa:bb:cc:dd:ee:f[" + items + "]"));
}

// ---- random patterns

constexpr int kCases = 20000; ///< of each sort
constexpr std::string_view kDigits = "0123456789abcdef";

/// Makes patterns; each seed always makes the same ones.
class Generator {
public:
    explicit Generator(unsigned seed) : m_random(seed) {}

    std::size_t below(std::size_t limit) { return static_cast<std::size_t>(m_random()) % limit; }

    /// A pattern that is valid by the way it is made.
    std::string valid()
    {
        std::string pattern;
        for (int i = 0; i < 12; ++i)
            pattern += (i > 0 && i % 2 == 0 ? ":" : "") + position();
        return pattern;
    }

    /// A class that names a value twice, as two items that may have anything else between them.
    std::string repeating_class()
    {
        const std::size_t value = below(16);
        std::vector<std::string> items{item_around(value), item_around(value)};
        if (below(2) == 0)
            items.insert(items.begin() + 1, item_around(below(16)));
        return joined(items);
    }

    std::string changed(std::string text)
    {
        constexpr std::string_view kLetters = "0123456789abcdefABCDEF[]|-::||[]--g \n";
        for (std::size_t changes = 1 + below(3); changes > 0; --changes) {
            const std::size_t at = below(text.size());
            const char letter = kLetters[below(kLetters.size())];
            switch (below(4)) {
            case 0:
                text[at] = letter;
                break;
            case 1:
                text.insert(at, 1, letter);
                break;
            case 2:
                text.erase(at, 1);
                break;
            default:
                std::swap(text[at], text[below(text.size())]);
            }
            if (text.empty())
                return text;
        }
        return text;
    }

    std::string soup()
    {
        constexpr std::string_view kLetters = "0123456789abcdefABCDEF[]|-:";
        std::string text;
        for (std::size_t length = below(60); length > 0; --length)
            text += kLetters[below(kLetters.size())];
        return text;
    }

private:
    std::string position() { return below(2) == 0 ? std::string(1, digit(below(16))) : valid_class(); }

    char digit(std::size_t value)
    {
        const char c = kDigits[value];
        return value >= 10 && below(2) == 0 ? static_cast<char>(c - 'a' + 'A') : c;
    }

    std::string range(std::size_t low, std::size_t high)
    {
        const std::size_t upper_case = low >= 10 && below(2) == 0 ? 'a' - 'A' : 0;
        return {static_cast<char>(kDigits[low] - static_cast<char>(upper_case)), '-',
                static_cast<char>(kDigits[high] - static_cast<char>(upper_case))};
    }

    /// The sixteen values cut into pieces, some left out, the others in any order.
    std::string valid_class()
    {
        std::vector<std::string> items;
        for (std::size_t low = 0; low < 16;) {
            const std::size_t end = low < 10 ? 10 : 16; // no range spans both kinds
            const std::size_t high = low + below(std::min<std::size_t>(end - low, 5));
            if (below(3) != 0)
                items.push_back(low == high && below(2) == 0 ? std::string(1, digit(low)) : range(low, high));
            low = high + 1;
        }
        if (items.empty())
            items.emplace_back(1, digit(below(16)));
        std::shuffle(items.begin(), items.end(), m_random);
        return joined(items);
    }

    /// A digit or a range with that value in it.
    std::string item_around(std::size_t value)
    {
        if (below(2) == 0)
            return std::string(1, digit(value));
        const std::size_t begin = value < 10 ? 0 : 10;
        const std::size_t end = value < 10 ? 10 : 16;
        return range(begin + below(value - begin + 1), value + below(end - value));
    }

    static std::string joined(const std::vector<std::string>& items)
    {
        return "[" +
               std::accumulate(std::next(items.begin()), items.end(), items.front(),
                               [](const std::string& a, const std::string& b) { return a + "|" + b; }) +
               "]";
    }

    std::mt19937 m_random;
};

TEST(ExclusionPatterns, MadeByTheGrammarAreValid)
{
    Generator generator(1);
    for (int i = 0; i < kCases; ++i) {
        const std::string pattern = generator.valid();
        ASSERT_TRUE(va_validate_exclusion(pattern)) << pattern;
        ASSERT_TRUE(is_exclusion_pattern(pattern)) << pattern;
    }
}

TEST(ExclusionPatterns, ThatNameAValueTwiceInOneClassAreInvalid)
{
    Generator generator(2);
    for (int i = 0; i < kCases; ++i) {
        const std::string tail = generator.repeating_class();
        const std::string pattern =
            generator.below(2) == 0 ? "aa:bb:cc:dd:ee:f" + tail : tail + "f:bb:cc:dd:ee:ff";
        ASSERT_FALSE(va_validate_exclusion(pattern)) << pattern;
        ASSERT_FALSE(is_exclusion_pattern(pattern)) << pattern;
    }
}

TEST(ExclusionPatterns, WithTooFewOrTooManyGroupsAreInvalid)
{
    Generator generator(3);
    for (int i = 0; i < kCases; ++i) {
        std::string pattern = generator.valid();
        if (generator.below(2) == 0)
            pattern.erase(pattern.rfind(':'));
        else
            pattern += ":" + pattern.substr(0, pattern.find(':'));
        ASSERT_FALSE(va_validate_exclusion(pattern)) << pattern;
    }
}

TEST(ExclusionPatterns, ThatWereChangedAreJudgedTheSameInBothWays)
{
    Generator generator(4);
    int valid = 0;
    for (int i = 0; i < kCases; ++i) {
        const std::string pattern = generator.changed(generator.valid());
        const bool expected = is_exclusion_pattern(pattern);
        ASSERT_EQ(va_validate_exclusion(pattern), expected) << pattern;
        valid += expected ? 1 : 0;
    }
    EXPECT_GT(valid, kCases / 100) << "some stay valid";
    EXPECT_LT(valid, kCases / 2) << "most do not";
}

TEST(ExclusionPatterns, OfRandomLettersAreJudgedTheSameInBothWays)
{
    Generator generator(5);
    for (int i = 0; i < kCases; ++i) {
        const std::string pattern = generator.soup();
        ASSERT_EQ(va_validate_exclusion(pattern), is_exclusion_pattern(pattern)) << pattern;
    }
}

} // namespace
} // namespace orv::test
