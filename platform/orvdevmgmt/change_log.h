#pragma once

#include "device_record.h"

#include <orvstore/transaction.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// What has happened to the devices, as far as a reader can still need it: of every device that is there its
/// birth and each field's last change, and all of a removed one as long as a mark of it is kept. Changes are
/// numbered in their order.
namespace orv::devMgmt {

/// Of removed devices that many marks are kept, and so many bytes of them: the latest ones.
constexpr std::size_t kMaxMarks = 4096;
constexpr std::size_t kMaxMarkBytes = std::size_t{4} * 1024 * 1024;

/// How far the store has come; a store that nobody has written a change to has no identity.
[[nodiscard]] Error read_state(store::Transaction& transaction, LogState& state);

/// A place among the changes, in the order of their numbers.
class ChangeCursor {
public:
    explicit ChangeCursor(store::Transaction& transaction);

    /// The first change with a higher number than this one. False when there is none; error() tells whether
    /// that is a failure.
    bool seek_after(std::uint64_t number);

    [[nodiscard]] std::uint64_t number() const { return m_number; }
    /// False for a malformed one.
    [[nodiscard]] bool decode(Change& change) const { return decode_change(m_cursor.value(), change); }
    [[nodiscard]] Error error() const { return m_cursor.error(); }

private:
    store::Cursor m_cursor;
    std::uint64_t m_number = 0;
};

/// The marks of removed devices, in the order of the removals.
class MarkCursor {
public:
    explicit MarkCursor(store::Transaction& transaction);

    /// The first mark of a removal with a higher number than this one; malformed ones are passed over.
    bool seek_after(std::uint64_t number);
    bool next();

    [[nodiscard]] std::uint64_t number() const { return m_number; }
    [[nodiscard]] const Mark& mark() const { return m_mark; }
    [[nodiscard]] Error error() const { return m_cursor.error(); }

private:
    bool settle(bool found);

    store::Cursor m_cursor;
    std::uint64_t m_number = 0;
    Mark m_mark;
};

/// The mark of a removal.
[[nodiscard]] Error read_mark(store::Transaction& transaction, std::uint64_t removal, Mark& mark);

/// Writes down what a transaction changes.
class ChangeLog {
public:
    explicit ChangeLog(store::Write& transaction) : m_transaction(transaction) {}

    /// To be called first. Empties a log of the former format, which no reader of this one needs.
    [[nodiscard]] Error begin();

    /// A device is new, perhaps in place of one that made no sense, whose history this was; makes it the new
    /// one's.
    [[nodiscard]] Error add(const std::string& did, History& history);
    /// Fields of a device have changed; moves its history on.
    [[nodiscard]] Error update(const std::string& did, const Fields& fields, History& history);
    /// A device is gone, whose record this was. Without a mark only readers that know the device, or nobody,
    /// will learn of it.
    [[nodiscard]] Error remove(const std::string& did, std::string_view record, bool with_mark);

    /// To be called last.
    [[nodiscard]] Error finish();

private:
    [[nodiscard]] Error clear();
    [[nodiscard]] Error put(std::uint64_t number, const Change& change);
    [[nodiscard]] Error forget(std::uint64_t number, std::string_view did);
    [[nodiscard]] Error forget_life(std::string_view did, const History& history);
    [[nodiscard]] Error bury(std::uint64_t number, std::string_view did, std::uint64_t died);
    [[nodiscard]] Error add_mark(const Mark& mark);
    [[nodiscard]] Error drop_oldest_mark();

    store::Write& m_transaction;
    LogState m_state;
};

} // namespace orv::devMgmt
