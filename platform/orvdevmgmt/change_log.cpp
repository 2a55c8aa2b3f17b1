// One tree with three kinds of keys: the state; "c" and a number, a change; "r" and a removal's number, the mark
// of what was removed. Numbers are eight bytes, the highest first, so that key order is their order.
//
// A field that changes again takes its change to a higher number, so there is never more than one of each
// field, and a reader that comes late finds all that is left to tell by going through the numbers beyond its
// place. Nothing is kept for the sake of readers that may never come, but for the marks: a removal and what
// went before it can be told of as long as the mark is there. Marks are limited; the number of the last one
// that was dropped tells a reader whether it has to find out by itself who is gone.
//
// The former format was a journal: eight bytes as keys, and no state. Its numbers are gone on from.

#include "change_log.h"

#include "device_trees.h"

#include <sys/random.h>

#include <algorithm>
#include <ctime>

namespace orv::devMgmt {

namespace {

using store::Cursor;
using store::Transaction;

constexpr std::string_view kState = "s";
constexpr char kChangePrefix = 'c';
constexpr char kMarkPrefix = 'r';
constexpr std::size_t kNumberSize = 8;

/// Short enough not to need memory of its own.
std::string key_of(char prefix, std::uint64_t number)
{
    std::string key(1 + kNumberSize, prefix);
    for (std::size_t i = kNumberSize; i > 0; --i, number >>= 8U)
        key[i] = static_cast<char>(number & 0xffU);
    return key;
}

/// The number at the end of a key.
std::uint64_t number_in(std::string_view key)
{
    std::uint64_t number = 0;
    if (key.size() >= kNumberSize)
        for (const char byte : key.substr(key.size() - kNumberSize))
            number = number << 8U | static_cast<unsigned char>(byte);
    return number;
}

bool is_numbered(std::string_view key, char prefix)
{
    return key.size() == 1 + kNumberSize && key.front() == prefix;
}

/// Of a log whose state is not there or makes no sense. That is short, or is met once.
Error find_last_number(Transaction& transaction, std::uint64_t& last)
{
    Cursor cursor(transaction, kChanges);
    for (bool found = cursor.first(); found; found = cursor.next())
        last = std::max(last, number_in(cursor.key()));
    return cursor.error();
}

/// Another one for every store.
std::uint64_t make_identity()
{
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now); // this clock is always there
    std::uint64_t number = 0;
    if (getrandom(&number, sizeof number, GRND_NONBLOCK) != sizeof number)
        number = 0; // the time has to do
    number ^= static_cast<std::uint64_t>(now.tv_sec) << 30U ^ static_cast<std::uint64_t>(now.tv_nsec);
    return std::max<std::uint64_t>(number, 1);
}

} // namespace

Error read_state(Transaction& transaction, LogState& state)
{
    state = {};
    std::string_view bytes;
    const Error error = transaction.get(kChanges, kState, bytes);
    if (error != Error::none && error != Error::no_such_key)
        return error;
    if (error == Error::none && decode_state(bytes, state))
        return Error::none;
    state = {};
    return find_last_number(transaction, state.last);
}

Error read_mark(Transaction& transaction, std::uint64_t removal, Mark& mark)
{
    std::string_view bytes;
    if (const Error error = transaction.get(kChanges, key_of(kMarkPrefix, removal), bytes);
        error != Error::none)
        return error;
    return decode_mark(bytes, mark) ? Error::none : Error::no_such_key;
}

// ---- reading

ChangeCursor::ChangeCursor(Transaction& transaction) : m_cursor(transaction, kChanges) {}

bool ChangeCursor::seek_after(std::uint64_t number)
{
    const std::string key = key_of(kChangePrefix, number + 1);
    if (!m_cursor.seek(key) || !is_numbered(m_cursor.key(), kChangePrefix))
        return false;
    m_number = number_in(m_cursor.key());
    return true;
}

MarkCursor::MarkCursor(Transaction& transaction) : m_cursor(transaction, kChanges) {}

bool MarkCursor::seek_after(std::uint64_t number)
{
    const std::string key = key_of(kMarkPrefix, number + 1);
    return settle(m_cursor.seek(key));
}

bool MarkCursor::next()
{
    return settle(m_cursor.next());
}

bool MarkCursor::settle(bool found)
{
    for (; found && is_numbered(m_cursor.key(), kMarkPrefix); found = m_cursor.next()) {
        m_number = number_in(m_cursor.key());
        if (decode_mark(m_cursor.value(), m_mark))
            return true;
    }
    return false;
}

// ---- writing

Error ChangeLog::begin()
{
    if (const Error error = read_state(m_transaction, m_state); error != Error::none)
        return error;
    if (m_state.identity != 0)
        return Error::none;
    m_state.identity = make_identity();
    return clear();
}

Error ChangeLog::clear()
{
    Cursor cursor(m_transaction, kChanges);
    for (bool found = cursor.first(); found; found = cursor.next())
        if (const Error error = cursor.remove(); error != Error::none)
            return error;
    return cursor.error();
}

Error ChangeLog::finish()
{
    return m_transaction.put(kChanges, kState, encode_state(m_state));
}

Error ChangeLog::put(std::uint64_t number, const Change& change)
{
    return m_transaction.put(kChanges, key_of(kChangePrefix, number), encode_change(change));
}

Error ChangeLog::add(const std::string& did, History& history)
{
    if (const Error error = forget_life(did, history); error != Error::none)
        return error;
    history = {};
    history.born = ++m_state.last;
    return put(history.born, {DevInfoChangeType::added, 0, history.born, 0, did});
}

Error ChangeLog::update(const std::string& did, const Fields& fields, History& history)
{
    for (std::size_t i = 0; i < fields.size(); ++i) {
        if (!fields[i])
            continue;
        if (const Error error = forget(history.changed[i], did); error != Error::none)
            return error;
        history.changed[i] = ++m_state.last;
        if (const Error error =
                put(history.changed[i], {DevInfoChangeType::updated, i, history.born, 0, did});
            error != Error::none)
            return error;
    }
    return Error::none;
}

/// Takes out a change of a device. A record that was brought in from elsewhere may name others'.
Error ChangeLog::forget(std::uint64_t number, std::string_view did)
{
    if (number == 0)
        return Error::none;
    const std::string key = key_of(kChangePrefix, number);
    std::string_view bytes;
    Change change;
    Error error = m_transaction.get(kChanges, key, bytes);
    if (error == Error::none && decode_change(bytes, change) && change.did == did)
        error = m_transaction.remove(kChanges, key);
    return error == Error::no_such_key ? Error::none : error;
}

Error ChangeLog::forget_life(std::string_view did, const History& history)
{
    Error error = forget(history.born, did);
    for (const std::uint64_t number : history.changed)
        if (error == Error::none)
            error = forget(number, did);
    return error;
}

/// Notes in a change of a device that the device is gone.
Error ChangeLog::bury(std::uint64_t number, std::string_view did, std::uint64_t died)
{
    if (number == 0)
        return Error::none;
    std::string_view bytes;
    Change change;
    const Error error = m_transaction.get(kChanges, key_of(kChangePrefix, number), bytes);
    if (error != Error::none)
        return error == Error::no_such_key ? Error::none : error;
    if (!decode_change(bytes, change) || change.did != did)
        return Error::none;
    change.died = died;
    return put(number, change);
}

Error ChangeLog::remove(const std::string& did, std::string_view record, bool with_mark)
{
    History history;
    std::string_view device;
    (void)split_record(record, history, device); // of a malformed one nothing is known
    const std::uint64_t died = ++m_state.last;
    if (!with_mark) {
        m_state.dropped = died;
        return forget_life(did, history);
    }
    Error error = bury(history.born, did, died);
    for (const std::uint64_t number : history.changed)
        if (error == Error::none)
            error = bury(number, did, died);
    if (error == Error::none)
        error = put(died, {DevInfoChangeType::removed, 0, history.born, died, did});
    return error == Error::none ? add_mark({did, record}) : error;
}

Error ChangeLog::add_mark(const Mark& mark)
{
    const std::string bytes = encode_mark(mark);
    ++m_state.mark_count;
    m_state.mark_bytes += bytes.size();
    Error error = m_transaction.put(kChanges, key_of(kMarkPrefix, m_state.last), bytes);
    while (error == Error::none && (m_state.mark_count > kMaxMarks || m_state.mark_bytes > kMaxMarkBytes))
        error = drop_oldest_mark();
    return error;
}

/// Takes out a mark with all that is kept of the device's changes.
Error ChangeLog::drop_oldest_mark()
{
    std::uint64_t number = 0;
    std::string bytes;
    {
        Cursor cursor(m_transaction, kChanges);
        const std::string first = key_of(kMarkPrefix, 0);
        if (!cursor.seek(first) || !is_numbered(cursor.key(), kMarkPrefix)) {
            m_state.mark_count = m_state.mark_bytes = 0; // it had been counted wrongly
            return cursor.error();
        }
        number = number_in(cursor.key());
        bytes = cursor.value();
        if (const Error error = cursor.remove(); error != Error::none)
            return error;
    }
    m_state.dropped = std::max(m_state.dropped, number);
    m_state.mark_count -= std::min<std::uint64_t>(m_state.mark_count, 1);
    m_state.mark_bytes -= std::min<std::uint64_t>(m_state.mark_bytes, bytes.size());
    Mark mark;
    History history;
    std::string_view device;
    if (!decode_mark(bytes, mark))
        return Error::none; // its changes are passed over by all who meet them
    (void)split_record(mark.record, history, device);
    const Error error = forget_life(mark.did, history);
    return error == Error::none ? forget(number, mark.did) : error;
}

} // namespace orv::devMgmt
