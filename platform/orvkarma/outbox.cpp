// One LMDB tree: from the event's id to its text.

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
using store::Write;

constexpr std::size_t kEvents = 0; ///< the tree
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

/// What events may take up together: they may be spread badly, and LMDB writes a changed page to another
/// place.
std::size_t max_total_size()
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
    while (count >= kMaxEvents || (count > 0 && size + needed > max_total_size())) {
        if (const Error error = remove_first(transaction, size); error != Error::none)
            return error;
        --count;
    }
    return Error::none;
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
    Write transaction(environment());
    if (transaction.error() != Error::none)
        return transaction.error();
    if (const Error error = make_room(transaction, id.size() + text.size()); error != Error::none)
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
