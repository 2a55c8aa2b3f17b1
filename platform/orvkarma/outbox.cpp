// One LMDB tree: from the event's id to its text.
//
// What events take is counted in pages, as LMDB does: one of half a page has a page of its own. They may fill
// half of the store, so that there are always pages to write what changes to another place, and some in a
// row.

#include <orvkarma/outbox.h>

#include <orvstore/transaction.h>
#include <orvutils/log_format.h>
#include <orvutils/store_limit.h>

#include <string>
#include <utility>

namespace orv::karma::outbox {

namespace {

using store::Cursor;
using store::Environment;
using store::Read;
using store::Transaction;
using store::Write;

constexpr std::size_t kEvents = 0;                         ///< the tree
constexpr std::size_t kPagesToAdd = std::size_t{4} * 4096; ///< beside the event's own: splits
constexpr std::size_t kMuch = std::size_t{64} * 1024;
constexpr StoreLimit kLimit = {"/karma/max_store_mib", 16, 2, 16};

std::string g_last_report; ///< since an event was last kept

/// A store that fails each time says so once.
void report(store::Severity severity, const std::string& text)
{
    if (text == g_last_report)
        return;
    g_last_report = text;
    ORV_LOG(static_cast<int>(severity), "{}", text);
}

std::size_t limit()
{
    static const std::size_t bytes = kLimit.read();
    return bytes;
}

/// What the store may hold after an event was added.
std::uint64_t max_used()
{
    return limit() / 2;
}

/// Lives as long as the process: it holds what the operating system releases anyhow.
Environment& environment()
{
    static auto* instance = [] {
        store::Layout layout{"var/telemetry", {"events"}, limit(), true, report};
        layout.when_damaged = store::WhenDamaged::set_aside; // telemetry is worth less than a start
        return new Environment(std::move(layout));
    }();
    return *instance;
}

/// How much too full it is for an event of so many bytes; 0 when there is room.
std::uint64_t excess(const Transaction& transaction, std::size_t needed)
{
    const std::uint64_t used = transaction.usage().used + needed + kPagesToAdd;
    return used > max_used() ? used - max_used() : 0;
}

Error remove_first(Write& transaction)
{
    Cursor cursor(transaction, kEvents);
    if (!cursor.first())
        return cursor.error() != Error::none ? cursor.error() : Error::input_output;
    ORV_LOG(log::kWarning, "telemetry: the outbox is full, dropping event {}", cursor.key());
    return cursor.remove();
}

Error make_room(Write& transaction, std::size_t needed)
{
    std::size_t count = transaction.entries(kEvents);
    while (count >= kMaxEvents || (count > 0 && excess(transaction, needed) > 0)) {
        if (const Error error = remove_first(transaction); error != Error::none)
            return error;
        --count;
    }
    return Error::none;
}

/// For a store that holds much more than it may, as under a lower limit, where adding finds no page to write
/// to. What a transaction frees can be written to from the next but one on: so there are two before the
/// event's own.
Error make_room_beforehand(std::size_t needed)
{
    {
        Write transaction(environment(), Write::Kind::removing);
        if (transaction.error() != Error::none)
            return transaction.error();
        if (const Error error = make_room(transaction, needed); error != Error::none)
            return error;
        if (const Error error = transaction.commit(); error != Error::none)
            return error;
    }
    Write transaction(environment(), Write::Kind::removing);
    if (transaction.error() != Error::none)
        return transaction.error();
    if (transaction.entries(kEvents) == 0)
        return Error::none;
    const Error error = remove_first(transaction);
    return error == Error::none ? transaction.commit() : error;
}

bool is_far_too_full(std::size_t needed)
{
    const Read snapshot(environment());
    return snapshot.error() == Error::none && excess(snapshot, needed) > needed + kMuch;
}

} // namespace

Error open()
{
    g_last_report.clear();
    return environment().open();
}

Error try_to_open()
{
    return environment().try_to_open();
}

bool is_open()
{
    return environment().is_wanted();
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
    for (bool found = cursor.first(); found && entries.size() < kMaxEvents; found = cursor.next())
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
    const std::size_t needed = id.size() + text.size();
    if (is_far_too_full(needed))
        if (const Error error = make_room_beforehand(needed); error != Error::none)
            return error;
    Write transaction(environment());
    if (transaction.error() != Error::none)
        return transaction.error();
    if (const Error error = make_room(transaction, needed); error != Error::none)
        return error;
    if (const Error error = transaction.put(kEvents, id, text); error != Error::none)
        return error;
    const Error error = transaction.commit();
    if (error == Error::none)
        g_last_report.clear();
    return error;
}

Error remove(const std::vector<std::string_view>& ids)
{
    Write transaction(environment(), Write::Kind::removing);
    if (transaction.error() != Error::none)
        return transaction.error();
    bool has_changed = false;
    for (const std::string_view id : ids) {
        const Error error = transaction.remove(kEvents, id);
        if (error != Error::none && error != Error::no_such_key)
            return error;
        has_changed = has_changed || error == Error::none;
    }
    return has_changed ? transaction.commit() : Error::none;
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
