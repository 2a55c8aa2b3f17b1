// Straight on the settings store's own library: what is written here is noticed by whoever watches the key.

#include "settings.h"

#include "backup.h"
#include "exit_status.h"
#include "input.h"
#include "stores.h"
#include "texts.h"
#include "waiting.h"

#include <orvbroker/client.h>
#include <orvutils/setmgmt.h>
#include <orvutils/settings_backup.h>

#include <algorithm>
#include <optional>
#include <vector>

namespace orvctl {
namespace {

namespace store = orv::setMgmt;

/// All that fits into the store, and more than enough for what is around it.
constexpr std::size_t kMaxBackupSize = std::size_t{96} * 1024 * 1024;

/// Complains about a failed operation, by its negative result.
int report(const std::string& key, int result)
{
    switch (static_cast<orv::Error>(-result)) {
    case orv::Error::no_such_key:
        complain("no such key: " + key);
        return kFailed;
    case orv::Error::no_value:
        complain("the key has children but no value: " + key);
        return kFailed;
    case orv::Error::invalid_argument:
        complain(
            "not a usable key or value (a key has 1 to 511 bytes and is not /, a value at most 1 MiB): " +
            key);
        return kUsage;
    case orv::Error::none:
    case orv::Error::input_output:
    case orv::Error::timed_out:
        break;
    }
    complain("the settings store failed (error " + std::to_string(-result) + "): " + key);
    return kUnavailable;
}

std::string to_json(const std::string& key, const std::optional<std::string>& value)
{
    return R"({"key": )" + orvbroker::quote(key) + R"(, "value": )" +
           (value ? orvbroker::quote(*value) : "null") + "}";
}

/// Reads a key's value, none for a key that is not there or has only children. Below 0 when the store failed.
int read_value(const std::string& key, std::optional<std::string>& value)
{
    std::string text;
    const int result = store::getKey(key, text);
    value = result >= 0 ? std::optional(std::move(text)) : std::nullopt;
    const bool absent = result == -static_cast<int>(orv::Error::no_such_key) ||
                        result == -static_cast<int>(orv::Error::no_value);
    return absent ? 0 : result;
}

std::string last_piece(const std::string& key)
{
    return key.substr(key.rfind('/') + 1);
}

/// One key and, indented by its depth, everything below it. The exit status, after a complaint when it is not
/// 0.
int print_tree(const orv::path& key, std::size_t depth, Output& output)
{
    constexpr std::size_t kIndent = 2;
    std::optional<std::string> value;
    if (const int result = read_value(key, value); result < 0)
        return report(key, result);
    if (output.is_for_people()) {
        output.line(std::string(depth * kIndent, ' ') +
                    output.emphasized(printable(depth == 0 ? key.str() : last_piece(key))) +
                    (value ? " = " + printable(*value) : ""));
    } else if (value) {
        output.json(to_json(key, value));
    }
    std::vector<std::string> names;
    if (const int result = store::enumSubkeys(key, names); result < 0)
        return report(key, result);
    for (const auto& name : names)
        if (const int status = print_tree(key / name, depth + 1, output); status != kSuccess)
            return status;
    return kSuccess;
}

/// The root itself is never a key.
bool is_root(const std::string& key)
{
    return orv::path(key) == orv::path("/");
}

/// Whether a key or anything below it is there; complains when not.
int check_presence(const std::string& key)
{
    std::string value;
    const int result = store::getKey(key, value);
    if (result >= 0 || result == -static_cast<int>(orv::Error::no_value))
        return kSuccess;
    std::vector<std::string> names;
    const int children = store::enumSubkeys(key, names);
    if (children < 0)
        return report(key, children);
    return children > 0 || is_root(key) ? kSuccess : report(key, result);
}

/// False, after a complaint, when the value cannot be read.
bool print_change(const std::string& key, Output& output)
{
    std::optional<std::string> value;
    if (const int result = read_value(key, value); result < 0) {
        (void)report(key, result);
        return false;
    }
    if (!output.is_for_people())
        output.json(to_json(key, value));
    else
        output.line(output.emphasized(key) + (value ? " = " + printable(*value) : " deleted"));
    return true;
}

/// One row of a list; the exit status, after a complaint when it is not 0.
int print_child(const orv::path& parent, const std::string& name, Output& output)
{
    if (!output.is_json_wanted()) {
        output.line(name);
        return kSuccess;
    }
    const orv::path key = parent / name;
    std::optional<std::string> value;
    if (const int result = read_value(key, value); result < 0)
        return report(key, result);
    output.json(to_json(key, value));
    return kSuccess;
}

/// Asking for the watch's descriptor is what notices that the store was replaced, and nothing wakes us then:
/// it is asked for before each wait, and none is longer than this.
constexpr std::chrono::milliseconds kLongestWait{1000};

int follow(store::MonitoredKey& watch, const unsigned long& seen, unsigned long count, const Options& options,
           Output& output)
{
    const auto deadline = orvbroker::deadline_after(options.timeout.value_or(orvbroker::kForever));
    while (output.is_open() && (count == 0 || seen < count)) {
        const auto next_look = std::min(deadline, orvbroker::deadline_after(kLongestWait));
        switch (wait_for_input(watch.get_fd(), next_look)) {
        case Wake::input:
            watch.read_notifications();
            break;
        case Wake::output_closed:
            return kSuccess;
        case Wake::timed_out:
            if (orvbroker::is_over(deadline))
                return count == 0 ? kSuccess : kFailed;
            break;
        }
    }
    return kSuccess;
}

} // namespace

int run_settings_get(const std::string& key, Output& output)
{
    const OpenedStore opened(Store::settings, Use::reading);
    if (!opened.is_open())
        return opened.report_closed();
    std::string value;
    const int result = store::getKey(key, value);
    if (result < 0)
        return report(key, result);
    if (output.is_json_wanted())
        output.json(to_json(key, value));
    else
        output.line(value);
    return kSuccess;
}

int run_settings_set(const std::string& key, const std::string& value)
{
    const OpenedStore opened(Store::settings, Use::writing);
    if (!opened.is_open())
        return opened.report_closed();
    const int result = store::setKey(key, value);
    return result < 0 ? report(key, result) : kSuccess;
}

int run_settings_delete(const std::string& key)
{
    const OpenedStore opened(Store::settings, Use::writing);
    if (!opened.is_open())
        return opened.report_closed();
    const int result = store::deleteKey(key);
    return result < 0 ? report(key, result) : kSuccess;
}

int run_settings_list(const std::string& key, Output& output)
{
    const OpenedStore opened(Store::settings, Use::reading);
    if (!opened.is_open())
        return opened.report_closed();
    if (const int status = check_presence(key); status != kSuccess)
        return status;
    std::vector<std::string> names;
    if (const int result = store::enumSubkeys(key, names); result < 0)
        return report(key, result);
    for (const auto& name : names)
        if (const int status = print_child(key, name, output); status != kSuccess)
            return status;
    return kSuccess;
}

int run_settings_tree(const std::string& key, Output& output)
{
    const OpenedStore opened(Store::settings, Use::reading);
    if (!opened.is_open())
        return opened.report_closed();
    if (const int status = check_presence(key); status != kSuccess)
        return status;
    return print_tree(key, 0, output);
}

int run_settings_watch(const std::string& key, unsigned long count, const Options& options, Output& output)
{
    const OpenedStore opened(Store::settings, Use::reading);
    if (!opened.is_open())
        return opened.report_closed();
    const int unusable = -static_cast<int>(orv::Error::invalid_argument);
    if (std::string value; is_root(key) || store::getKey(key, value) == unusable)
        return report(key, unusable);
    unsigned long seen = 0;
    const auto on_change = [&](const orv::path&, void*) {
        seen += print_change(key, output) ? 1 : 0;
        return count == 0 || seen < count;
    };
    store::MonitoredKey watch(key.c_str(), on_change, /*notify_now=*/false, /*user=*/nullptr, /*keep=*/true);
    if (watch.get_fd() < 0) {
        complain("cannot watch the key: " + key);
        return kUnavailable;
    }
    return follow(watch, seen, count, options, output);
}

int run_settings_backup(const std::string& file)
{
    const OpenedStore settings(Store::settings, Use::reading);
    if (!settings.is_open())
        return settings.report_closed();
    std::string text;
    if (const int result = store::backup(text); result < 0)
        return report("/", result);
    return write_backup(file, text) ? kSuccess : kFailed;
}

int run_settings_restore(const std::string& file)
{
    std::string text;
    if (!read_file(file, text, kMaxBackupSize, "a backup of the settings"))
        return kFailed;
    const OpenedStore settings(Store::settings, Use::writing);
    if (!settings.is_open())
        return settings.report_closed();
    const int result = store::restore(text);
    if (result == -static_cast<int>(orv::Error::invalid_argument)) {
        complain(file + " is no backup of the settings, or not a whole one; nothing was changed");
        return kFailed;
    }
    return result < 0 ? report("/", result) : kSuccess;
}

} // namespace orvctl
