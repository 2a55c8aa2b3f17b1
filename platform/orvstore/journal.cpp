// Entries are keyed by their number as eight bytes, the highest first, so that key order is the order of
// time. A place is the number of the last entry read. The journal is never emptied once it has an entry, so
// that numbers do not start again.

#include <orvstore/journal.h>

#include <array>

namespace orv::store {

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

Error to_number(const Transaction& transaction, std::string_view key, std::uint64_t& number)
{
    if (key.size() != NumberKey{}.size())
        return transaction.refuse("journal: a malformed key");
    number = 0;
    for (const char byte : key)
        number = number << 8U | static_cast<unsigned char>(byte);
    return Error::none;
}

/// The number of the first or last entry; 0 when there is none.
Error number_at(const Transaction& transaction, Cursor& cursor, bool (Cursor::*edge)(), std::uint64_t& number)
{
    number = 0;
    return (cursor.*edge)() ? to_number(transaction, cursor.key(), number) : cursor.error();
}

/// The numbers of the oldest entry, on which the cursor then stands, and of the newest; both 0 without any.
Error edges(Transaction& transaction, Cursor& cursor, std::uint64_t& first, std::uint64_t& last)
{
    const Error error = number_at(transaction, cursor, &Cursor::last, last);
    return error != Error::none ? error : number_at(transaction, cursor, &Cursor::first, first);
}

} // namespace

Error Journal::append(Write& transaction, std::string_view entry) const
{
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    {
        Cursor cursor(transaction, m_tree);
        if (const Error error = edges(transaction, cursor, first, last); error != Error::none)
            return error;
        if (first != 0 && last - first + 1 >= m_capacity)
            if (const Error error = cursor.remove(); error != Error::none)
                return error;
    }
    return transaction.put(m_tree, to_bytes(to_key(last + 1)), entry);
}

Error Journal::end(Transaction& transaction, std::uint64_t& place) const
{
    Cursor cursor(transaction, m_tree);
    return number_at(transaction, cursor, &Cursor::last, place);
}

Error Journal::read(Transaction& transaction, std::uint64_t& place, std::size_t limit,
                    std::vector<std::string>& entries, bool& lost) const
{
    std::uint64_t first = 0;
    std::uint64_t last = 0;
    Cursor cursor(transaction, m_tree);
    if (const Error error = edges(transaction, cursor, first, last); error != Error::none)
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
        if (const Error error = to_number(transaction, cursor.key(), place); error != Error::none)
            return error;
        entries.emplace_back(cursor.value());
    }
    return cursor.error();
}

} // namespace orv::store
