// The grammar of exclusion patterns. A class is checked as a set of sixteen values: an item that names a
// value for the second time makes the pattern invalid, be it a repeated digit, a digit inside a range or
// ranges that share a value. Decimal digits and letters need no sets of their own, since no range can span
// both.

#include "exclusion.h"

#include <cstddef>

namespace orv::brokerd {
namespace {

constexpr int kGroups = 6;
constexpr int kPositionsPerGroup = 2;

enum class Kind {
    none,
    decimal,
    upper,
    lower,
};

Kind kind_of(char digit)
{
    if (digit >= '0' && digit <= '9')
        return Kind::decimal;
    if (digit >= 'A' && digit <= 'F')
        return Kind::upper;
    if (digit >= 'a' && digit <= 'f')
        return Kind::lower;
    return Kind::none;
}

unsigned value_of(char digit)
{
    switch (kind_of(digit)) {
    case Kind::decimal:
        return static_cast<unsigned>(digit - '0');
    case Kind::upper:
        return static_cast<unsigned>(digit - 'A') + 10;
    case Kind::lower:
        return static_cast<unsigned>(digit - 'a') + 10;
    case Kind::none:
        break;
    }
    return 0;
}

/// Cuts the text up to the next separator off its front; the whole rest when there is none.
std::string_view cut(std::string_view& rest, char separator)
{
    const std::size_t end = rest.find(separator);
    const std::string_view piece = rest.substr(0, end);
    rest.remove_prefix(end == std::string_view::npos ? rest.size() : end + 1);
    return piece;
}

/// The values of one item as a set of bits; 0 when it is malformed.
unsigned item_values(std::string_view item)
{
    if (item.size() == 1 && kind_of(item[0]) != Kind::none)
        return 1U << value_of(item[0]);
    if (item.size() != 3 || item[1] != '-')
        return 0;
    const Kind kind = kind_of(item[0]);
    if (kind == Kind::none || kind != kind_of(item[2]) || item[0] > item[2])
        return 0;
    const unsigned below = (1U << value_of(item[0])) - 1;
    const unsigned up_to = (2U << value_of(item[2])) - 1;
    return up_to & ~below;
}

bool is_class(std::string_view items)
{
    unsigned named = 0;
    bool more = true;
    while (more) {
        more = items.find('|') != std::string_view::npos;
        const unsigned values = item_values(cut(items, '|'));
        if (values == 0 || (named & values) != 0)
            return false;
        named |= values;
    }
    return true;
}

/// Takes one position off the front of a group.
bool take_position(std::string_view& group)
{
    if (group.empty())
        return false;
    if (group.front() != '[') {
        const bool is_digit = kind_of(group.front()) != Kind::none;
        group.remove_prefix(1);
        return is_digit;
    }
    const std::size_t end = group.find(']');
    if (end == std::string_view::npos)
        return false;
    const std::string_view items = group.substr(1, end - 1);
    group.remove_prefix(end + 1);
    return is_class(items);
}

bool is_group(std::string_view group)
{
    for (int i = 0; i < kPositionsPerGroup; ++i)
        if (!take_position(group))
            return false;
    return group.empty();
}

} // namespace

bool va_validate_exclusion(std::string_view pattern)
{
    for (int i = 0; i < kGroups; ++i) {
        const bool last = pattern.find(':') == std::string_view::npos;
        if (last != (i == kGroups - 1) || !is_group(cut(pattern, ':')))
            return false;
    }
    return true;
}

} // namespace orv::brokerd
