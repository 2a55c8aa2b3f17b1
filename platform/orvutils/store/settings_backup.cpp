// A backup is taken apart completely before the first write, and restored in one transaction: what is in the
// store and not in the backup is removed, the rest is written where it differs.

#include <orvutils/settings_backup.h>

#include "batch.h"
#include "settings_store.h"

#include <orvbase/error_number.h>
#include <orvutils/setmgmt.h>

#include <algorithm>
#include <charconv>
#include <map>
#include <utility>

namespace orv::detail {

namespace {

using store::Cursor;
using store::Transaction;

constexpr std::string_view kHeader = "orvane settings 1\n";
constexpr std::string_view kEnd = "end ";

/// From the key's path to its value.
using Settings = std::map<std::string, std::string>;

std::string to_path(std::string_view bytes)
{
    std::string path = "/" + std::string(bytes);
    std::replace(path.begin(), path.end(), '\0', '/');
    return path;
}

Error read_all(Transaction& transaction, Settings& settings)
{
    Cursor cursor(transaction, kValues);
    for (bool found = cursor.first(); found; found = cursor.next()) {
        SettingsKey key;
        SettingsRecord record;
        if (!key.parse(to_path(cursor.key())) || key.bytes() != cursor.key())
            return transaction.refuse("settings: a malformed key");
        if (const Error error = read_record(transaction, key, record); error != Error::none)
            return error;
        settings.emplace(to_path(cursor.key()), record.value);
    }
    return cursor.error();
}

/// Takes a number, and the character after it, off the text.
bool take_number(std::string_view& text, char after, std::size_t& number)
{
    const char* end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, number);
    if (parsed.ec != std::errc() || parsed.ptr == end || *parsed.ptr != after)
        return false;
    text.remove_prefix(static_cast<std::size_t>(parsed.ptr - text.data()) + 1);
    return true;
}

bool take(std::string_view& text, std::string_view expected)
{
    if (text.substr(0, expected.size()) != expected)
        return false;
    text.remove_prefix(expected.size());
    return true;
}

bool take_setting(std::string_view& text, Settings& settings)
{
    std::size_t key_size = 0;
    std::size_t value_size = 0;
    if (!take_number(text, ' ', key_size) || !take_number(text, '\n', value_size) || key_size > text.size() ||
        value_size > text.size() - key_size || value_size > setMgmt::kMaxValueSize)
        return false;
    const std::string_view path = text.substr(0, key_size);
    const std::string_view value = text.substr(key_size, value_size);
    text.remove_prefix(key_size + value_size);
    SettingsKey key;
    return key.parse(path) && !key.is_root() && !key.is_volatile() && take(text, "\n") &&
           settings.emplace(to_path(key.bytes()), value).second;
}

bool parse(std::string_view text, Settings& settings)
{
    if (!take(text, kHeader))
        return false;
    while (text.substr(0, kEnd.size()) != kEnd)
        if (!take_setting(text, settings))
            return false;
    std::size_t count = 0;
    return take(text, kEnd) && take_number(text, '\n', count) && count == settings.size() && text.empty();
}

int remove_others(const Settings& present, const Settings& wanted)
{
    for (const auto& [path, value] : present) {
        if (wanted.count(path) != 0)
            continue;
        // It may be gone already, with one above it.
        const int result = setMgmt::deleteKey(path);
        if (result < 0 && result != -static_cast<int>(Error::no_such_key))
            return result;
    }
    return 0;
}

int write_differing(const Settings& wanted)
{
    for (const auto& [path, value] : wanted) {
        std::string present;
        if (setMgmt::getKey(path, present) >= 0 && present == value)
            continue;
        if (const int result = setMgmt::setKey(path, value); result < 0)
            return result;
    }
    return 0;
}

/// Puts into the open batch what makes the store what is wanted.
int replace(const Settings& wanted)
{
    // With its transaction begun, nobody else changes anything in between.
    Error error = Error::none;
    store::Write* transaction = open_batch()->to_write(durable_settings(), error);
    Settings present;
    if (transaction)
        error = read_all(*transaction, present);
    if (error != Error::none)
        return base::fail(error);
    const int result = remove_others(present, wanted);
    return result < 0 ? result : write_differing(wanted);
}

} // namespace
} // namespace orv::detail

namespace orv::setMgmt {

int backup(std::string& text)
{
    detail::Settings settings;
    {
        store::Read snapshot(detail::durable_settings());
        Error error = snapshot.error();
        if (error == Error::none)
            error = detail::read_all(snapshot, settings);
        if (error != Error::none)
            return base::fail(error);
    }
    text = detail::kHeader;
    for (const auto& [path, value] : settings) {
        text.append(std::to_string(path.size())).append(" ");
        text.append(std::to_string(value.size())).append("\n");
        text.append(path).append(value).append("\n");
    }
    text.append(detail::kEnd).append(std::to_string(settings.size())).append("\n");
    return 0;
}

int restore(std::string_view text)
{
    detail::Settings settings;
    if (!detail::parse(text, settings) || detail::open_batch())
        return base::fail(Error::invalid_argument);
    Batch batch;
    const int result = detail::replace(settings);
    return result < 0 ? result : batch.commit();
}

} // namespace orv::setMgmt
