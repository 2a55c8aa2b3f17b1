#include "exclusion_reference.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace orv::test {
namespace {

constexpr std::string_view kKinds[] = {"0123456789", "ABCDEF", "abcdef"};

/// Which kind of digit it is, counted from 1; 0 for none.
int kind(char c)
{
    for (int i = 0; i < 3; ++i)
        if (kKinds[i].find(c) != std::string_view::npos)
            return i + 1;
    return 0;
}

char folded(char c)
{
    return kind(c) == 2 ? static_cast<char>(c - 'A' + 'a') : c;
}

class Scanner {
public:
    bool accept(std::string_view text)
    {
        return std::all_of(text.begin(), text.end(), [this](char c) { return take(c); }) &&
               m_state == State::outside && m_positions == 2 && m_groups == 5;
    }

private:
    enum class State { outside, item, after_digit, range_end, after_range };

    bool take(char c)
    {
        switch (m_state) {
        case State::outside:
            return take_outside(c);
        case State::item:
            m_low = c;
            return go(State::after_digit, kind(c) != 0);
        case State::after_digit:
            if (c == '-')
                return go(State::range_end);
            m_singles.push_back(folded(m_low));
            return take_behind_item(c);
        case State::range_end:
            m_ranges.emplace_back(folded(m_low), folded(c));
            return go(State::after_range, kind(c) != 0 && kind(c) == kind(m_low) && m_low <= c);
        case State::after_range:
            return take_behind_item(c);
        }
        return false;
    }

    bool take_outside(char c)
    {
        if (c == ':') {
            ++m_groups;
            return std::exchange(m_positions, 0) == 2;
        }
        ++m_positions;
        if (c == '[')
            return go(State::item, m_positions <= 2);
        return kind(c) != 0 && m_positions <= 2;
    }

    bool take_behind_item(char c)
    {
        if (c == '|')
            return go(State::item);
        return go(State::outside, c == ']' && is_class_consistent());
    }

    bool go(State next, bool allowed = true)
    {
        m_state = next;
        return allowed;
    }

    /// Whether nothing in the class that ends here is named twice; forgets it.
    bool is_class_consistent()
    {
        auto singles = std::exchange(m_singles, {});
        auto ranges = std::exchange(m_ranges, {});
        std::sort(singles.begin(), singles.end());
        if (std::adjacent_find(singles.begin(), singles.end()) != singles.end())
            return false;
        std::sort(ranges.begin(), ranges.end());
        for (std::size_t i = 1; i < ranges.size(); ++i)
            if (ranges[i - 1].second >= ranges[i].first)
                return false;
        return std::none_of(singles.begin(), singles.end(), [&](char single) {
            return std::any_of(ranges.begin(), ranges.end(), [&](const auto& range) {
                return range.first <= single && single <= range.second;
            });
        });
    }

    State m_state = State::outside;
    int m_groups = 0;    ///< complete ones
    int m_positions = 0; ///< of this group
    char m_low = '\0';
    std::string m_singles;
    std::vector<std::pair<char, char>> m_ranges;
};

} // namespace

bool is_exclusion_pattern(std::string_view text)
{
    return Scanner().accept(text);
}

} // namespace orv::test
