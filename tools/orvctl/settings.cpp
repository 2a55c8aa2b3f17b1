// Straight on the settings store's own library: what is written here is noticed by whoever watches the key.
#include "settings.h"

#include "exit_status.h"
#include "stores.h"
#include "texts.h"
#include "waiting.h"

#include <orvbroker/client.h>
#include <orvutils/setmgmt.h>

#include <algorithm>
#include <optional>
#include <vector>

namespace orvctl {
namespace {

namespace store = orv::setMgmt;

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
        complain("not a usable key or value (keys have 1 to 511 bytes, values at most 1 MiB): " + key);
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

std::optional<std::string> value_of(const std::string& key)
{
    std::string value;
    return store::getKey(key, value) >= 0 ? std::optional(std::move(value)) : std::nullopt;
}

std::string last_piece(const std::string& key)
{
    return key.substr(key.rfind('/') + 1);
}

/// One key and, indented by its depth, everything below it.
void print_tree(const orv::path& key, std::size_t depth, Output& output)
{
    constexpr std::size_t kIndent = 2;
    const auto value = value_of(key);
    if (output.is_for_people()) {
        output.line(std::string(depth * kIndent, ' ') +
                    output.emphasized(printable(depth == 0 ? key.str() : last_piece(key))) +
                    (value ? " = " + printable(*value) : ""));
    } else if (value) {
        output.json(to_json(key, value));
    }
    std::vector<std::string> names;
    store::enumSubkeys(key, names);
    for (const auto& name : names) {
        print_tree(key / name, depth + 1, output);
    }
}

/// Whether a key or anything below it is there; complains when not.
int check_presence(const std::string& key)
{
    std::string value;
    const int result = store::getKey(key, value);
    if (result >= 0 || result == -static_cast<int>(orv::Error::no_value)) {
        return kSuccess;
    }
    std::vector<std::string> names;
    const int children = store::enumSubkeys(key, names);
    // The root itself is never a key.
    return children > 0 || orv::path(key) == orv::path("/") ? kSuccess : report(key, result);
}

void print_change(const std::string& key, Output& output)
{
    const auto value = value_of(key);
    if (!output.is_for_people()) {
        output.json(to_json(key, value));
    } else {
        output.line(output.emphasized(key) + (value ? " = " + printable(*value) : " deleted"));
    }
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
            if (orvbroker::is_over(deadline)) {
                return count == 0 ? kSuccess : kFailed;
            }
            break;
        }
    }
    return kSuccess;
}

} // namespace

int run_settings_get(const std::string& key, Output& output)
{
    const SettingsStore opened;
    if (!opened.is_open()) {
        return report_closed("settings");
    }
    std::string value;
    const int result = store::getKey(key, value);
    if (result < 0) {
        return report(key, result);
    }
    if (output.is_json_wanted()) {
        output.json(to_json(key, value));
    } else {
        output.line(value);
    }
    return kSuccess;
}

int run_settings_set(const std::string& key, const std::string& value)
{
    const SettingsStore opened;
    if (!opened.is_open()) {
        return report_closed("settings");
    }
    const int result = store::setKey(key, value);
    return result < 0 ? report(key, result) : kSuccess;
}

int run_settings_delete(const std::string& key)
{
    const SettingsStore opened;
    if (!opened.is_open()) {
        return report_closed("settings");
    }
    const int result = store::deleteKey(key);
    return result < 0 ? report(key, result) : kSuccess;
}

int run_settings_list(const std::string& key, Output& output)
{
    const SettingsStore opened;
    if (!opened.is_open()) {
        return report_closed("settings");
    }
    if (const int status = check_presence(key); status != kSuccess) {
        return status;
    }
    std::vector<std::string> names;
    store::enumSubkeys(key, names);
    for (const auto& name : names) {
        const orv::path child = orv::path(key) / name;
        if (output.is_json_wanted()) {
            output.json(to_json(child, value_of(child)));
        } else {
            output.line(name);
        }
    }
    return kSuccess;
}

int run_settings_tree(const std::string& key, Output& output)
{
    const SettingsStore opened;
    if (!opened.is_open()) {
        return report_closed("settings");
    }
    if (const int status = check_presence(key); status != kSuccess) {
        return status;
    }
    print_tree(key, 0, output);
    return kSuccess;
}

int run_settings_watch(const std::string& key, unsigned long count, const Options& options, Output& output)
{
    const SettingsStore opened;
    if (!opened.is_open()) {
        return report_closed("settings");
    }
    unsigned long seen = 0;
    const auto on_change = [&](const orv::path&, void*) {
        print_change(key, output);
        return ++seen != count;
    };
    store::MonitoredKey watch(key.c_str(), on_change, false, nullptr, true);
    if (watch.get_fd() < 0) {
        complain("cannot watch the key: " + key);
        return kUnavailable;
    }
    return follow(watch, seen, count, options, output);
}

} // namespace orvctl
