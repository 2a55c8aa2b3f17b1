// Reading, writing and listing of settings. Records and environments are described in settings_store.h.

#include "batch.h"
#include "settings_store.h"

#include <orvbase/error_number.h>
#include <orvutils/log_format.h>
#include <orvutils/running_daemon.h>
#include <orvutils/settings_failure.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <utility>

namespace orv::detail {

namespace {

using store::Cursor;
using store::Environment;
using store::Read;
using store::Transaction;
using store::Write;

constexpr std::size_t kMegabyte = std::size_t{1024} * 1024;
constexpr std::size_t kStampSize = sizeof(std::uint64_t);

void report(store::Severity severity, const std::string& text)
{
    ORV_LOG(static_cast<int>(severity), "{}", text);
}

/// The router cannot get its settings back from anywhere else.
store::Layout durable_layout()
{
    store::Layout layout{"var/settings", {"values", "removals"}, 64 * kMegabyte, true, report};
    layout.when_damaged = store::WhenDamaged::restore;
    layout.renews_copy = daemon::is_running; // who looks at something with a tool does not write to the flash
    return layout;
}

struct Environments {
    Environment durable{durable_layout()};
    Environment volatile_keys{
        {"tmp/settings", {"values", "removals", "rewrites"}, 32 * kMegabyte, false, report}};
};

/// Live as long as the process: they hold what the operating system releases anyhow.
Environments& environments()
{
    static auto* instance = new Environments;
    return *instance;
}

bool starts_with(std::string_view text, std::string_view prefix)
{
    return text.substr(0, prefix.size()) == prefix;
}

bool is_within(const SettingsKey& key, std::string_view bytes)
{
    return bytes == key.bytes() || starts_with(bytes, key.prefix());
}

/// Whether a key without a value has children.
Error tell_absence(Transaction& transaction, const SettingsKey& key)
{
    Cursor cursor(transaction, kValues);
    if (cursor.seek(key.prefix()) && starts_with(cursor.key(), key.prefix()))
        return Error::no_value;
    return cursor.error() != Error::none ? cursor.error() : Error::no_such_key;
}

/// Calls a function with what is to be read: what the open batch has written there, or a snapshot.
template <typename Function>
Error read_in(Environment& environment, Function&& function)
{
    if (OpenBatch* batch = open_batch())
        if (Transaction* transaction = batch->to_read(environment))
            return function(*transaction);
    Read snapshot(environment);
    return snapshot.error() == Error::none ? function(snapshot) : snapshot.error();
}

/// Calls a function with a transaction that it is to write to, and commits it unless it is a batch's.
template <typename Function>
Error write_in(Environment& environment, Write::Kind kind, Function&& function)
{
    if (OpenBatch* batch = open_batch()) {
        Error error = Error::none;
        Write* transaction = batch->to_write(environment, error);
        return transaction ? function(*transaction) : error;
    }
    Write transaction(environment, kind);
    if (transaction.error() != Error::none)
        return transaction.error();
    const Error error = function(transaction);
    return error == Error::none ? transaction.commit() : error;
}

/// For an error that may have left half of a change in an open batch.
Error fail_batch(Error error)
{
    if (OpenBatch* batch = open_batch(); batch && error != Error::none)
        batch->fail();
    return error;
}

Error read_value_in(Transaction& transaction, const SettingsKey& key, std::string& value)
{
    SettingsRecord record;
    const Error error = key.is_root() ? Error::no_such_key : read_record(transaction, key, record);
    if (error == Error::none)
        value = record.value;
    return error;
}

/// A key without a value is no_such_key, whether or not it has children.
Error read_value(const SettingsKey& key, std::string& value)
{
    return read_in(settings_environment(key),
                   [&](Transaction& transaction) { return read_value_in(transaction, key, value); });
}

/// The same, but looks for children when there is no value.
Error read_value_or_tell(const SettingsKey& key, std::string& value)
{
    return read_in(settings_environment(key), [&](Transaction& transaction) {
        const Error error = read_value_in(transaction, key, value);
        return error == Error::no_such_key ? tell_absence(transaction, key) : error;
    });
}

/// Whether the key has this value already, in the store that a write would go to.
bool has_value(const SettingsKey& key, std::string_view value)
{
    Environment& environment = settings_environment(key);
    environment.doubt();
    return read_in(environment, [&](Transaction& transaction) {
               SettingsRecord record;
               const Error error = read_record(transaction, key, record);
               return error == Error::none && record.value != value ? Error::no_value : error;
           }) == Error::none;
}

/// A durable value that is there already is left where it is. False when nobody can be told that way.
bool rewrite_value(const SettingsKey& key, std::string_view value)
{
    if (key.is_volatile() || !has_value(key, value))
        return false;
    if (OpenBatch* batch = open_batch()) {
        batch->note_rewrite(key);
        return true;
    }
    return tell_rewrites({std::string(key.bytes())}) == Error::none;
}

Error put_value(Write& transaction, const SettingsKey& key, std::string_view value)
{
    const std::uint64_t commit = transaction.id();
    std::string record(kStampSize + value.size(), '\0');
    std::memcpy(record.data(), &commit, kStampSize);
    if (!value.empty())
        std::memcpy(record.data() + kStampSize, value.data(), value.size());
    if (open_batch()) // its transactions do not look for room by themselves
        if (const Error error = transaction.check_room(key.bytes(), record); error != Error::none)
            return error;
    return fail_batch(transaction.put(kValues, key.bytes(), record));
}

Error write_value(const SettingsKey& key, std::string_view value)
{
    if (rewrite_value(key, value))
        return Error::none;
    return write_in(settings_environment(key), Write::Kind::adding,
                    [&](Write& transaction) { return put_value(transaction, key, value); });
}

/// Removes every node from the key down that has a value, and tells the journal of each.
Error remove_nodes(Write& transaction, const SettingsKey& key)
{
    Cursor cursor(transaction, kValues);
    bool found = cursor.seek(key.bytes()) && is_within(key, cursor.key());
    if (!found)
        return cursor.error() != Error::none ? cursor.error() : Error::no_such_key;
    if (cursor.key() != key.bytes()) // the node itself goes too, though it has no value
        if (const Error error = kRemovalJournal.append(transaction, key.bytes()); error != Error::none)
            return error;
    while (found) {
        const std::string node(cursor.key());
        Error error = cursor.remove();
        if (error == Error::none)
            error = kRemovalJournal.append(transaction, node);
        if (error != Error::none)
            return error;
        found = cursor.next() && is_within(key, cursor.key());
    }
    return cursor.error();
}

Error remove_tree(const SettingsKey& key)
{
    return write_in(settings_environment(key), Write::Kind::removing, [&](Write& transaction) {
        const Error error = remove_nodes(transaction, key);
        return error == Error::no_such_key ? error : fail_batch(error);
    });
}

/// Whether a piece of a stored key can be one of a path: else the path would lead somewhere else.
bool is_name(std::string_view piece)
{
    return !piece.empty() && piece.find('/') == std::string_view::npos;
}

Error report_malformed(const char* what)
{
    ORV_LOG(log::kError, "settings: a malformed {}", what);
    return Error::input_output;
}

/// Appends the names of a key's children in one environment.
Error list_children_in(Transaction& transaction, const SettingsKey& key, std::vector<std::string>& names)
{
    Cursor cursor(transaction, kValues);
    const std::string_view prefix = key.prefix();
    std::string from(prefix);
    for (bool found = cursor.seek(from); found; found = cursor.seek(from)) {
        if (cursor.key() < from) // only damage leads backwards, and then perhaps in circles
            return report_malformed("tree");
        if (!starts_with(cursor.key(), prefix))
            break;
        const std::string_view rest = cursor.key().substr(prefix.size());
        const std::string_view name = rest.substr(0, rest.find('\0'));
        if (!is_name(name))
            return report_malformed("key");
        names.emplace_back(name);
        // The next sibling is beyond all keys that begin with this name and a NUL.
        from = std::string(prefix).append(name) + '\1';
    }
    return cursor.error();
}

Error list_children(Environment& environment, const SettingsKey& key, std::vector<std::string>& names)
{
    return read_in(environment,
                   [&](Transaction& transaction) { return list_children_in(transaction, key, names); });
}

Error list_all_children(const SettingsKey& key, std::vector<std::string>& names)
{
    const Error error = list_children(settings_environment(key), key, names);
    if (error != Error::none || !key.is_root())
        return error;
    std::vector<std::string> tmp;
    const Error tmp_error = list_children(environments().volatile_keys, key, tmp);
    const auto place = std::lower_bound(names.begin(), names.end(), "tmp");
    names.insert(place, tmp.begin(), tmp.end());
    return tmp_error;
}

int result(Error error)
{
    return error == Error::none ? 0 : base::fail(error);
}

} // namespace

Environment& settings_environment(const SettingsKey& key)
{
    return key.is_volatile() ? environments().volatile_keys : environments().durable;
}

Environment& durable_settings()
{
    return environments().durable;
}

Environment& volatile_settings()
{
    return environments().volatile_keys;
}

Error tell_rewrites(const std::vector<std::string>& keys)
{
    // Like a removal's it is bounded, so it may use the room that is kept back.
    Write transaction(volatile_settings(), Write::Kind::removing);
    if (transaction.error() != Error::none)
        return transaction.error();
    for (const std::string& key : keys)
        if (const Error error = kRewriteJournal.append(transaction, key); error != Error::none)
            return error;
    return transaction.commit();
}

Error read_record(Transaction& transaction, const SettingsKey& key, SettingsRecord& record)
{
    std::string_view bytes;
    if (const Error error = transaction.get(kValues, key.bytes(), bytes); error != Error::none)
        return error;
    if (bytes.size() < kStampSize)
        return report_malformed("record");
    std::memcpy(&record.commit, bytes.data(), kStampSize);
    record.value = bytes.substr(kStampSize);
    return Error::none;
}

} // namespace orv::detail

namespace orv::setMgmt {

using detail::SettingsKey;

namespace {

int open_both(Error (store::Environment::*open)())
{
    detail::Environments& settings = detail::environments();
    if (settings.durable.is_wanted())
        return 0;
    if (const Error error = (settings.durable.*open)(); error != Error::none)
        return base::fail(error);
    if (const Error error = (settings.volatile_keys.*open)(); error != Error::none) {
        settings.durable.close();
        return base::fail(error);
    }
    detail::settings_opened();
    return 0;
}

} // namespace

int init()
{
    return open_both(&store::Environment::open);
}

int try_to_init()
{
    return open_both(&store::Environment::try_to_open);
}

void uninit()
{
    detail::drop_batch();
    detail::settings_closing();
    detail::environments().volatile_keys.close();
    detail::environments().durable.close();
}

const store::Failure& failure()
{
    const store::Failure& durable = detail::environments().durable.failure();
    return durable.kind != store::Failure::Kind::none ? durable
                                                      : detail::environments().volatile_keys.failure();
}

Error measure(store::Usage& durable, store::Usage& below_tmp)
{
    const Error error = detail::environments().durable.measure(durable);
    return error == Error::none ? detail::environments().volatile_keys.measure(below_tmp) : error;
}

namespace {

int read_key(const std::string& key, std::string& value, Error (*read)(const SettingsKey&, std::string&))
{
    SettingsKey parsed;
    if (!parsed.parse(key))
        return base::fail(Error::invalid_argument);
    if (const Error error = read(parsed, value); error != Error::none)
        return base::fail(error);
    return static_cast<int>(value.size());
}

/// For a caller who has a fallback: most settings are never set, so that this is what reading mostly is.
int read_key_or_none(const std::string& key, std::string& value)
{
    return read_key(key, value, detail::read_value);
}

} // namespace

int getKey(const std::string& key, std::string& value)
{
    return read_key(key, value, detail::read_value_or_tell);
}

int getKeyValue(const std::string& key, int fallback)
{
    std::string text;
    if (read_key_or_none(key, text) < 0)
        return fallback;
    int number = 0;
    const char* end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, number);
    return parsed.ec == std::errc() && parsed.ptr == end ? number : fallback;
}

std::string getKeyValue(const std::string& key, const std::string& fallback)
{
    std::string value;
    return read_key_or_none(key, value) < 0 ? fallback : value;
}

int setKey(const std::string& key, const std::string& value)
{
    SettingsKey parsed;
    if (!parsed.parse(key) || parsed.is_root() || value.size() > kMaxValueSize)
        return base::fail(Error::invalid_argument);
    return detail::result(detail::write_value(parsed, value));
}

int deleteKey(const std::string& key)
{
    SettingsKey parsed;
    if (!parsed.parse(key) || parsed.is_root())
        return base::fail(Error::invalid_argument);
    return detail::result(detail::remove_tree(parsed));
}

int enumSubkeys(const std::string& key, std::vector<std::string>& names)
{
    SettingsKey parsed;
    if (!parsed.parse(key))
        return base::fail(Error::invalid_argument);
    std::vector<std::string> found;
    if (const Error error = detail::list_all_children(parsed, found); error != Error::none)
        return base::fail(error);
    names = std::move(found);
    return static_cast<int>(names.size());
}

} // namespace orv::setMgmt
