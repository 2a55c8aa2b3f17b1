// Entries are keyed by their number as eight bytes, the highest first, so that key order is the order of
// time. A place is the number of the last entry read. The journal is never emptied once it has an entry, so
// that numbers do not start again.

#include <orvstore/journal.h>

#include <orvutils/log_format.h>

#include <array>

namespace orv::detail {

namespace {

using NumberKey = std::array<char, 8>;

NumberKey to_key(std::uint64_t number)
{
    NumberKey key{};
    for (auto digit = key.rbegin(); digit != key.rend(); ++digit, number >>= 8U)
        *digit = static_cast<char>(number & 0xffU);
    return key;
}

std::string_view to_bytes(const NumberKey& key)
{
    return {key.data(), key.size()};
}

Error to_number(std::string_view key, std::uint64_t& number)
{
    if (key.size() != NumberKey{}.size()) {
        ORV_LOG(log::kError, "journal: a malformed key");
        return Error::input_output;
    }
    number = 0;
    for (const char byte : key)
        number = number << 8U | static_cast<unsigned char>(byte);
    return Error::none;
}

/// The number of the first or last entry; 0 when there is none.
Error number_at(LmdbCursor& cursor, bool (LmdbCursor::*edge)(), std::uint64_t& number)
{
    number = 0;
    return (cursor.*edge)() ? to_number(cursor.key(), number) : cursor.error();
}

} // namespace

Error Journal::append(LmdbWrite& transaction, std::string_view entry) const
{
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    {
        LmdbCursor cursor(transaction, m_tree);
        if (const Error error = number_at(cursor, &LmdbCursor::last, last); error != Error::none)
            return error;
        if (const Error error = number_at(cursor, &LmdbCursor::first, first); error != Error::none)
            return error;
        if (first != 0 && last - first + 1 >= m_capacity)
            if (const Error error = cursor.remove(); error != Error::none)
                return error;
    }
    return transaction.put(m_tree, to_bytes(to_key(last + 1)), entry);
}

Error Journal::end(LmdbTransaction& transaction, std::uint64_t& place) const
{
    LmdbCursor cursor(transaction, m_tree);
    return number_at(cursor, &LmdbCursor::last, place);
}

Error Journal::read(LmdbTransaction& transaction, std::uint64_t& place, std::size_t limit,
                    std::vector<std::string>& entries, bool& lost) const
{
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    LmdbCursor cursor(transaction, m_tree);
    if (const Error error = number_at(cursor, &LmdbCursor::last, last); error != Error::none)
        return error;
    if (const Error error = number_at(cursor, &LmdbCursor::first, first); error != Error::none)
        return error;
    lost = place > last || (first != 0 && place + 1 < first);
    if (lost) {
        place = last;
        return Error::none;
    }
    if (place == last)
        return Error::none;
    for (bool found = cursor.seek(to_bytes(to_key(place + 1))); found && entries.size() < limit;
         found = cursor.next()) {
        if (const Error error = to_number(cursor.key(), place); error != Error::none)
            return error;
        entries.emplace_back(cursor.value());
    }
    return cursor.error();
}

} // namespace orv::detail
