#pragma once

#include <orvstore/environment.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

struct MDB_txn;
struct MDB_cursor;

namespace orv::store {

/// What reading and writing transactions have in common. Bytes that it hands out live as long as it does, and
/// in a writing transaction only up to the next change.
class Transaction {
public:
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    /// Error::none when it has begun, else why it has not.
    [[nodiscard]] Error error() const { return m_error; }

    /// The number of the commit that is seen, or that this transaction will be: later ones have higher ones.
    [[nodiscard]] std::uint64_t id() const;

    /// Looks a key up; Error::no_such_key, without a report, when it is not there. Trees are numbered as in
    /// the layout.
    [[nodiscard]] Error get(std::size_t tree, std::string_view key, std::string_view& value);

    /// How many entries a tree has; 0 on failure.
    [[nodiscard]] std::size_t entries(std::size_t tree);

    /// How full the store is, after what this transaction has done; without the file's size.
    [[nodiscard]] Usage usage() const;

    /// Reports that what is stored makes no sense; Error::input_output.
    [[nodiscard]] Error refuse(const char* why) const;

protected:
    explicit Transaction(Environment& environment) : m_environment(environment) {}
    ~Transaction() = default;

    Error failed(const char* doing, int code) const;

    Environment& m_environment;
    Opened* m_opened = nullptr;
    MDB_txn* m_transaction = nullptr;
    Error m_error = Error::none;

    friend class Cursor;
};

/// Reads one snapshot; costs no system call. Readings nested in another one see its snapshot.
class Read : public Transaction {
public:
    explicit Read(Environment& environment);
    ~Read();
};

/// Changes the environment, all or nothing. Waits for writers in other processes as long as the layout says,
/// then fails with Error::timed_out; must not be nested.
class Write : public Transaction {
public:
    /// What it is for: a full store refuses what adds to it; what removes may use the room that is kept back,
    /// and may write as well whatever tells of the removal.
    enum class Kind { adding, removing };

    explicit Write(Environment& environment, Kind kind = Kind::adding);
    ~Write();

    /// Error::input_output, with a report, when an entry of this size does not fit: nothing has happened then
    /// and the transaction can go on. An adding transaction looks for itself.
    [[nodiscard]] Error check_room(std::string_view key, std::string_view value);

    [[nodiscard]] Error put(std::size_t tree, std::string_view key, std::string_view value);
    /// Removes an entry; Error::no_such_key, without a report, when it is not there.
    [[nodiscard]] Error remove(std::size_t tree, std::string_view key);
    /// Ends the transaction. Without it the destructor drops everything.
    [[nodiscard]] Error commit();

private:
    Kind m_kind;
};

/// A place in a tree, in key order. Ends before its transaction does. The functions that move tell whether
/// there is an entry; error() tells an end from a failure.
class Cursor {
public:
    Cursor(Transaction& transaction, std::size_t tree);
    Cursor(const Cursor&) = delete;
    Cursor& operator=(const Cursor&) = delete;
    ~Cursor();

    bool first();
    bool last();
    bool next();
    /// The first entry whose key is not lower than this one.
    bool seek(std::string_view key);
    /// Removes the entry; next() then goes to the one after it. Only in a writing transaction.
    [[nodiscard]] Error remove();

    [[nodiscard]] std::string_view key() const { return m_key; }
    [[nodiscard]] std::string_view value() const { return m_value; }
    [[nodiscard]] Error error() const { return m_error; }

private:
    bool move(int operation);

    Transaction& m_transaction;
    MDB_cursor* m_cursor = nullptr;
    std::string_view m_key, m_value;
    Error m_error = Error::none;
};

} // namespace orv::store
