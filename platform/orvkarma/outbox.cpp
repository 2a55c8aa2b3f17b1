// One LMDB tree: from the event's id to its text.

#include <orvkarma/outbox.h>

#include <orvstore/transaction.h>
#include <orvutils/log_format.h>

#include <utility>

namespace orv::karma::outbox {

namespace {

using store::Cursor;
using store::Environment;
using store::Read;
using store::Write;

constexpr std::size_t kEvents = 0; ///< the tree
constexpr std::size_t kMapSize = std::size_t{16} * 1024 * 1024;
/// What events may take up together: they may be spread badly, and LMDB writes a changed page to another
/// place.
constexpr std::size_t kMaxTotalSize = kMapSize / 2;

void report(store::Severity severity, const std::string& text)
{
    ORV_LOG(static_cast<int>(severity), "{}", text);
}

/// Lives as long as the process: it holds what the operating system releases anyhow.
Environment& environment()
{
    static auto* instance = [] {
        store::Layout layout{"var/telemetry", {"events"}, kMapSize, true, report};
        layout.when_damaged = store::WhenDamaged::set_aside; // telemetry is worth less than a start
        return new Environment(std::move(layout));
    }();
    return *instance;
}

std::size_t total_size(Write& transaction)
{
    std::size_t size = 0;
    Cursor cursor(transaction, kEvents);
    for (bool found = cursor.first(); found; found = cursor.next())
        size += cursor.key().size() + cursor.value().size();
    return size;
}

Error remove_first(Write& transaction, std::size_t& size)
{
    Cursor cursor(transaction, kEvents);
    if (!cursor.first())
        return cursor.error() != Error::none ? cursor.error() : Error::input_output;
    ORV_LOG(log::kWarning, "telemetry: the outbox is full, dropping event {}", cursor.key());
    size -= cursor.key().size() + cursor.value().size();
    return cursor.remove();
}

Error make_room(Write& transaction, std::size_t needed)
{
    std::size_t size = total_size(transaction);
    std::size_t count = transaction.entries(kEvents);
    while (count >= kMaxEvents || (count > 0 && size + needed > kMaxTotalSize)) {
        if (const Error error = remove_first(transaction, size); error != Error::none)
            return error;
        --count;
    }
    return Error::none;
}

} // namespace

Error open()
{
    return environment().open();
}

const store::Failure& failure()
{
    return environment().failure();
}

Error measure(store::Usage& usage)
{
    return environment().measure(usage);
}

void close()
{
    environment().close();
}

Error read(std::vector<Entry>& entries)
{
    Read transaction(environment());
    if (transaction.error() != Error::none)
        return transaction.error();
    Cursor cursor(transaction, kEvents);
    for (bool found = cursor.first(); found; found = cursor.next())
        entries.push_back({std::string(cursor.key()), std::string(cursor.value())});
    return cursor.error();
}

Error last_id(std::string& id)
{
    Read transaction(environment());
    if (transaction.error() != Error::none)
        return transaction.error();
    Cursor cursor(transaction, kEvents);
    if (!cursor.last())
        return cursor.error() != Error::none ? cursor.error() : Error::no_such_key;
    id = cursor.key();
    return Error::none;
}

Error put(std::string_view id, std::string_view text)
{
    if (id.empty() || id.size() > kMaxIdSize || text.size() > kMaxEventSize)
        return Error::invalid_argument;
    std::string_view present;
    if (Read snapshot(environment());
        snapshot.error() == Error::none && snapshot.get(kEvents, id, present) == Error::none)
        return Error::none;
    Write transaction(environment());
    if (transaction.error() != Error::none)
        return transaction.error();
    if (const Error error = make_room(transaction, id.size() + text.size()); error != Error::none)
        return error;
    if (const Error error = transaction.put(kEvents, id, text); error != Error::none)
        return error;
    return transaction.commit();
}

Error remove(std::string_view id)
{
    Write transaction(environment(), Write::Kind::removing);
    if (transaction.error() != Error::none)
        return transaction.error();
    const Error error = transaction.remove(kEvents, id);
    if (error == Error::no_such_key)
        return Error::none;
    return error == Error::none ? transaction.commit() : error;
}

Error clear()
{
    Write transaction(environment(), Write::Kind::removing);
    if (transaction.error() != Error::none)
        return transaction.error();
    {
        Cursor cursor(transaction, kEvents);
        for (bool found = cursor.first(); found; found = cursor.next())
            if (const Error error = cursor.remove(); error != Error::none)
                return error;
        if (cursor.error() != Error::none)
            return cursor.error();
    }
    return transaction.commit();
}

} // namespace orv::karma::outbox
