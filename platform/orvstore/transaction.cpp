// What is done in a store that is there. Every use begins by asking the environment for it, which sees to it
// that it is open and the right one; every failure ends there, as it may be one after which the store has to
// be opened again.

#include <orvstore/transaction.h>

#include "opened.h"

#include <lmdb.h>

#include <utility>

namespace orv::store {

namespace {

MDB_val to_value(std::string_view bytes)
{
    return {bytes.size(), const_cast<char*>(bytes.data())}; // LMDB does not write to it
}

std::string_view to_bytes(const MDB_val& value)
{
    return {static_cast<const char*>(value.mv_data), value.mv_size};
}

} // namespace

Error Transaction::failed(const char* doing, int code) const
{
    return m_environment.operation_failed(*m_opened, doing, code);
}

Error Transaction::refuse(const char* why) const
{
    m_environment.report(Severity::error, why);
    return Error::input_output;
}

std::uint64_t Transaction::id() const
{
    return m_transaction ? mdb_txn_id(m_transaction) : 0;
}

Error Transaction::get(std::size_t tree, std::string_view key, std::string_view& value)
{
    MDB_val mdb_key = to_value(key);
    MDB_val mdb_value{};
    const int code = mdb_get(m_transaction, m_opened->tree(tree), &mdb_key, &mdb_value);
    if (code == MDB_NOTFOUND)
        return Error::no_such_key;
    if (code != MDB_SUCCESS)
        return failed("read", code);
    value = to_bytes(mdb_value);
    return Error::none;
}

std::size_t Transaction::entries(std::size_t tree)
{
    MDB_stat status{};
    const int code = mdb_stat(m_transaction, m_opened->tree(tree), &status);
    if (code != MDB_SUCCESS)
        (void)failed("count entries", code);
    return status.ms_entries;
}

Usage Transaction::usage() const
{
    return m_opened->usage(m_transaction);
}

Read::Read(Environment& environment) : Transaction(environment)
{
    m_opened = environment.use_for_reading();
    if (!m_opened)
        m_error = Error::input_output;
    else if (const int code = m_opened->begin_read(); code != MDB_SUCCESS)
        m_error = failed("begin to read", code);
    else
        m_transaction = m_opened->reader();
}

Read::~Read()
{
    if (m_transaction)
        m_opened->end_read();
}

Write::Write(Environment& environment, Kind kind) : Transaction(environment), m_kind(kind)
{
    m_error = environment.use_for_writing(m_opened);
    if (m_error != Error::none)
        return;
    if (const int code = m_opened->begin_write(m_transaction, kind == Kind::removing); code != MDB_SUCCESS) {
        m_opened->end_exclusion(); // first: there may be no memory to tell
        m_error = failed("begin to write", code);
    }
}

Write::~Write()
{
    if (!m_transaction || !m_opened->is_own())
        return;
    mdb_txn_abort(m_transaction);
    m_opened->end_exclusion();
}

Error Write::check_room(std::string_view key, std::string_view value)
{
    if (m_opened->has_room(m_transaction, key.size() + value.size()))
        return Error::none;
    m_environment.report_about(Severity::error, "cannot write: it is full");
    return Error::input_output;
}

Error Write::put(std::size_t tree, std::string_view key, std::string_view value)
{
    if (m_kind == Kind::adding)
        if (const Error error = check_room(key, value); error != Error::none)
            return error;
    MDB_val mdb_key = to_value(key);
    MDB_val mdb_value = to_value(value);
    const int code = mdb_put(m_transaction, m_opened->tree(tree), &mdb_key, &mdb_value, 0);
    return code == MDB_SUCCESS ? Error::none : failed("write", code);
}

Error Write::remove(std::size_t tree, std::string_view key)
{
    MDB_val mdb_key = to_value(key);
    const int code = mdb_del(m_transaction, m_opened->tree(tree), &mdb_key, nullptr);
    if (code == MDB_NOTFOUND)
        return Error::no_such_key;
    return code == MDB_SUCCESS ? Error::none : failed("remove", code);
}

Error Write::commit()
{
    const int code = mdb_txn_commit(std::exchange(m_transaction, nullptr));
    m_opened->end_exclusion(); // first: there may be no memory to tell
    return code == MDB_SUCCESS ? Error::none : failed("commit", code);
}

Cursor::Cursor(Transaction& transaction, std::size_t tree) : m_transaction(transaction)
{
    const int code = mdb_cursor_open(transaction.m_transaction, transaction.m_opened->tree(tree), &m_cursor);
    if (code != MDB_SUCCESS)
        m_error = transaction.failed("open a cursor", code);
}

Cursor::~Cursor()
{
    if (m_cursor)
        mdb_cursor_close(m_cursor);
}

bool Cursor::first()
{
    return move(MDB_FIRST);
}

bool Cursor::last()
{
    return move(MDB_LAST);
}

bool Cursor::next()
{
    return move(MDB_NEXT);
}

bool Cursor::seek(std::string_view key)
{
    if (key.empty())
        return first();
    m_key = key;
    return move(MDB_SET_RANGE);
}

bool Cursor::move(int operation)
{
    if (!m_cursor)
        return false;
    MDB_val key = to_value(m_key);
    MDB_val value{};
    const int code = mdb_cursor_get(m_cursor, &key, &value, static_cast<MDB_cursor_op>(operation));
    if (code != MDB_SUCCESS) {
        if (code != MDB_NOTFOUND)
            m_error = m_transaction.failed("move a cursor", code);
        return false;
    }
    m_key = to_bytes(key);
    m_value = to_bytes(value);
    return true;
}

Error Cursor::remove()
{
    if (!m_cursor)
        return m_error;
    const int code = mdb_cursor_del(m_cursor, 0);
    return code == MDB_SUCCESS ? Error::none : m_transaction.failed("remove", code);
}

} // namespace orv::store
