// All that is found out goes into one JSON object, which is printed as it is or as a screen. It begins with
// what can be seen without the daemon; then the daemon's own answers take the places of what they tell. So
// the screen is complete, but for null where nothing is known, whatever is down.

#include "status.h"

#include "connecting.h"
#include "exit_status.h"
#include "stores.h"
#include "texts.h"

#include <orvbroker/client.h>
#include <orvdevmgmt/device_writer.h>
#include <orvdiagnosis/orvdiagnosis.h>
#include <orvkarma/outbox.h>
#include <orvtools/json.h>
#include <orvutils/settings_failure.h>
#include <orvutils/version.h>

#include <algorithm>
#include <array>
#include <cstring>

namespace orvctl {
namespace {

using orvbroker::Error;

/// How long the daemon may take for one answer: it has all of these at hand.
constexpr std::chrono::milliseconds kAnswerTimeout{5000};

constexpr std::array kStores = {"settings", "tmp", "devices", "telemetry"}; ///< their names in the output

const char* text_of(Error error)
{
    switch (error) {
    case Error::none:
        return "running";
    case Error::not_running:
        return "not running";
    case Error::not_permitted:
        return "not permitted";
    case Error::connection_lost:
    case Error::timed_out:
    case Error::malformed_answer:
    case Error::refused:
    case Error::invalid_argument:
    case Error::system:
        break;
    }
    return "not answering";
}

/// One command on a connection of its own, which the daemon closes after a failure. Null data for a failed
/// one.
Error ask(const char* command, const Options& options, orv::JsonPtr& data)
{
    const auto timeout = options.timeout.value_or(kAnswerTimeout);
    orvbroker::Client client;
    orvbroker::Answer answer;
    Error error = connect(client, timeout);
    if (error == Error::none)
        error = client.call(command, "", answer, timeout);
    if (error == Error::none && answer.status() == 0)
        data = orvtools::parse_json(answer.data());
    return error;
}

json_t* telemetry_waiting()
{
    const OpenedStore outbox(Store::telemetry, Use::reading);
    if (!outbox.is_open()) {
        (void)outbox.report_closed();
        return json_null();
    }
    std::vector<orv::karma::outbox::Entry> entries;
    const auto error = orv::karma::outbox::read(entries);
    return error == orv::Error::none ? json_integer(static_cast<json_int_t>(entries.size())) : json_null();
}

json_t* usage_of(orv::Error error, const orv::store::Usage& usage)
{
    if (error != orv::Error::none)
        return json_null();
    return json_pack("{s:I,s:I,s:I}", "used", static_cast<json_int_t>(usage.used), "limit",
                     static_cast<json_int_t>(usage.limit), "file", static_cast<json_int_t>(usage.file));
}

/// How full the stores are, as far as they are open. Null for the others.
json_t* stores()
{
    orv::store::Usage durable;
    orv::store::Usage below_tmp;
    orv::store::Usage devices;
    orv::store::Usage telemetry;
    const OpenedStore outbox(Store::telemetry, Use::reading);
    const orv::Error settings_error = orv::setMgmt::measure(durable, below_tmp);
    const orv::Error devices_error = orv::devMgmt::measure(devices);
    const orv::Error telemetry_error = orv::karma::outbox::measure(telemetry);
    return json_pack("{s:o,s:o,s:o,s:o}", "settings", usage_of(settings_error, durable), "tmp",
                     usage_of(settings_error, below_tmp), "devices", usage_of(devices_error, devices),
                     "telemetry", usage_of(telemetry_error, telemetry));
}

/// What can be seen without the daemon.
orv::JsonPtr look()
{
    const OpenedStore settings(Store::settings,
                               Use::reading); // what a closed one holds is null in what follows
    if (!settings.is_open())
        (void)settings.report_closed();
    const OpenedStore devices(Store::devices, Use::reading);
    if (!devices.is_open())
        (void)devices.report_closed();
    orv::diagnosis::Manager manager;
    manager.add(orv::diagnosis::get_defaults({{"exchange", "address"},
                                              {"exchange", "reachable"},
                                              {"agent", "version"},
                                              {"agent", "registered"},
                                              {"agent", "subscription"},
                                              {"agent", "enabled"},
                                              {"va", "scheduled"},
                                              {"devices", "count"},
                                              {"devices", "blocked"}}));
    orv::JsonPtr seen(manager.collect());
    json_object_set_new(json_object_get(seen.get(), "agent"), "patch_level",
                        json_string(orv::get_patch_version().c_str()));
    json_object_set_new(seen.get(), "telemetry", json_pack("{s:o}", "waiting", telemetry_waiting()));
    json_object_set_new(seen.get(), "stores", stores());
    return seen;
}

/// Lets an object's members take the places of those that `seen` has.
void take_over(json_t* seen, json_t* members)
{
    if (json_is_object(seen) && json_is_object(members))
        (void)json_object_update(seen, members); // without memory, what was seen stays
}

/// Lets the daemon's answers take the places of what was seen; tells how it is.
Error ask_daemon(const Options& options, json_t* seen)
{
    orv::JsonPtr report;
    orv::JsonPtr services;
    orv::JsonPtr version;
    Error error = ask("get_status_report", options, report);
    if (error == Error::none)
        error = ask("get_services_status", options, services);
    if (error == Error::none)
        error = ask("get_version_info", options, version);
    json_t* agent = json_object_get(seen, "agent");
    take_over(agent, json_object_get(report.get(), "agent"));
    take_over(json_object_get(seen, "va"), json_object_get(report.get(), "va"));
    take_over(agent, version.get());
    const json_t* status = json_object_get(services.get(), "status");
    if (status)
        (void)json_object_set_new(agent, "enabled", json_boolean(json_integer_value(status) == 1));
    return error;
}

const json_t* at(const orv::JsonPtr& status, const char* group, const char* name)
{
    return json_object_get(json_object_get(status.get(), group), name);
}

/// A value for people: texts without quotes, "unknown" for what is not known.
std::string shown(const json_t* value)
{
    if (json_is_string(value))
        return std::string(json_string_value(value), json_string_length(value));
    return !value || json_is_null(value) ? "unknown" : orvtools::to_text(value);
}

std::string either(const json_t* value, const char* yes, const char* no)
{
    return json_is_boolean(value) ? (json_is_true(value) ? yes : no) : "unknown";
}

std::string version_of(const orv::JsonPtr& status)
{
    const std::string patch = shown(at(status, "agent", "patch_level"));
    return shown(at(status, "agent", "version")) + (patch.empty() ? "" : ", patch " + patch);
}

/// "settings 3 of 60 MiB, tmp 0 of 30 MiB, ..."
std::string fullness(const orv::JsonPtr& status)
{
    constexpr json_int_t kMebibyte = 1048576;
    std::string text;
    for (const char* name : kStores) {
        const json_t* store = at(status, "stores", name);
        const auto mebibytes = [&](const char* member) {
            const json_int_t bytes = json_integer_value(json_object_get(store, member));
            return std::to_string((bytes + kMebibyte - 1) / kMebibyte);
        };
        text += (text.empty() ? "" : ", ") + std::string(name) +
                (json_is_object(store) ? " " + mebibytes("used") + " of " + mebibytes("limit") + " MiB"
                                       : " unknown");
    }
    return text;
}

void print_screen(const orv::JsonPtr& status, Output& output)
{
    const auto row = [&](const char* title, const std::string& text) {
        constexpr std::size_t kColumn = 14;
        const std::string name(title);
        output.line(output.emphasized(name) + std::string(kColumn - name.size(), ' ') + printable(text));
    };
    row("Daemon", shown(at(status, "daemon", "state")));
    row("Bus", either(at(status, "exchange", "reachable"), "reachable", "not reachable") + ", " +
                   shown(at(status, "exchange", "address")));
    row("Agent", "version " + version_of(status));
    row("Registration", either(at(status, "agent", "registered"), "registered", "not registered"));
    row("Subscription", shown(at(status, "agent", "subscription")));
    row("Services", either(at(status, "agent", "enabled"), "on", "off"));
    row("Scans", either(at(status, "va", "scheduled"), "scheduled", "not scheduled"));
    row("Devices",
        shown(at(status, "devices", "count")) + ", " + shown(at(status, "devices", "blocked")) + " blocked");
    row("Telemetry", shown(at(status, "telemetry", "waiting")) + " waiting");
    row("Stores", fullness(status));
}

bool is_all_up(const orv::JsonPtr& status, Error daemon)
{
    const auto is_open = [&](const char* store) { return json_is_object(at(status, "stores", store)); };
    return daemon == Error::none && json_is_true(at(status, "exchange", "reachable")) &&
           std::all_of(kStores.begin(), kStores.end(), is_open) &&
           json_is_integer(at(status, "devices", "count")) &&
           json_is_integer(at(status, "telemetry", "waiting"));
}

} // namespace

int run_status(const Options& options, Output& output)
{
    orv::JsonPtr seen = look();
    if (!seen) {
        complain("out of memory");
        return kUnavailable;
    }
    const Error daemon = ask_daemon(options, seen.get());
    const orv::JsonPtr status(json_pack("{s:{s:s}}", "daemon", "state", text_of(daemon)));
    take_over(status.get(), seen.get());
    const std::string text = orvtools::to_text(status.get());
    if (text.empty()) {
        complain("cannot make JSON of the status");
        return kFailed;
    }
    if (output.is_for_people())
        print_screen(status, output);
    else
        output.json(text);
    return is_all_up(status, daemon) ? kSuccess : kUnavailable;
}

} // namespace orvctl
