// The command line, declared sub-command by sub-command. A declaration binds the arguments to storage that
// lives as long as the parser and names the work to run once everything has been parsed; work starts only
// after the whole line has proved right. CLI11 throws for a wrong line and for --help, so this is the one
// place with a try block: its own exit codes end here.

#include "command_line.h"

#include "calling.h"
#include "catalogue.h"
#include "completion.h"
#include "devices.h"
#include "exchange.h"
#include "exit_status.h"
#include "settings.h"
#include "status.h"
#include "telemetry.h"

#include <orvbase/root.h>
#include <orvbroker/client.h>

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <utility>

namespace orvctl {
namespace {

constexpr const char* kVersion = "orvctl 1.3";
constexpr const char* kSurroundings =
    "In a pipe each answer, event or row is one JSON line; settings get and settings list print raw text.\n"
    "The environment's ORV_ROOT names the agent's root directory, {} unless set. A word after --\n"
    "is taken as it is, though it begins with a dash.\n\n";
constexpr const char* kExitStatuses =
    "Exit status: 0 success, 1 the answer's status is not 0 (or what was asked for is not there),\n"
    "2 usage, 3 no daemon, no bus, no store, connection lost, or no answer in time.\n";

/// What the sub-command that was given does.
using Work = std::function<int(const Options&, Output&)>;

struct CommandLine {
    CLI::App app{"Talks to the broker daemon and looks into the agent.", "orvctl"};
    Options options;
    double timeout_seconds = 0;
    Work work;
};

/// Declares a sub-command together with the examples that end its help.
CLI::App* add(CLI::App& parent, const std::string& name, const std::string& summary,
              const std::string& examples)
{
    CLI::App* command = parent.add_subcommand(name, summary);
    command->footer("\nExamples:\n" + examples +
                    "\n--json, --color and --timeout are taken here, too: see orvctl --help.\n");
    return command;
}

/// What a sub-command does, once the whole line has proved right.
void set_work(CommandLine& line, CLI::App& command, Work work)
{
    command.callback([&line, work = std::move(work)] { line.work = work; });
}

/// The same with arguments of the sub-command's own, which live as long as its work.
template <typename Arguments, typename Run>
void set_work(CommandLine& line, CLI::App& command, const std::shared_ptr<Arguments>& arguments, Run run)
{
    set_work(line, command, [arguments, run = std::move(run)](const Options& options, Output& output) {
        return run(*arguments, options, output);
    });
}

std::string check_seconds(const std::string& text)
{
    constexpr double kLongest = 1e9;
    double seconds = 0;
    const bool usable = CLI::detail::lexical_cast(text, seconds) && seconds > 0 && seconds <= kLongest;
    return usable ? "" : "'" + text + "' is not a number of seconds greater than 0";
}

std::string check_count(const std::string& text)
{
    const bool digits = text.find_first_not_of("0123456789") == std::string::npos;
    unsigned long count = 0;
    const bool usable = digits && CLI::detail::lexical_cast(text, count) && count > 0;
    return usable ? "" : "'" + text + "' is not a whole number greater than 0";
}

/// Ends after so many what would go on for ever.
void add_count(CLI::App& command, unsigned long& count, const std::string& what)
{
    command.add_option("--count", count, "End after N " + what)->check(check_count)->type_name("N");
}

const std::map<std::string, Color> kColors{
    {"auto", Color::automatic}, {"always", Color::always}, {"never", Color::never}};

std::string check_color(const std::string& text)
{
    return kColors.count(text) != 0 ? "" : "'" + text + "' is neither auto nor always nor never";
}

void add_global_options(CommandLine& line)
{
    line.app.add_flag("--json", line.options.json, "Print JSON lines, on a terminal too");
    const auto set_color = [&line](const std::string& when) { line.options.color = kColors.at(when); };
    line.app.add_option_function<std::string>("--color", set_color, "Colours: auto, always or never")
        ->check(check_color)
        ->type_name("WHEN");
    line.app
        .add_option("--timeout", line.timeout_seconds,
                    "How long to wait at most: for an answer (65 unless given, 5 for status), in all when "
                    "subscribing, watching or monitoring (for ever unless given)")
        ->check(check_seconds)
        ->type_name("SECONDS");
    line.app.set_version_flag("--version", kVersion);
}

void add_call(CommandLine& line)
{
    const auto call = std::make_shared<CallOptions>();
    CLI::App* command =
        add(line.app, "call", "Send the daemon one command and print the envelope of its answer",
            "  orvctl call get_services_status\n"
            "  orvctl call set_va_cloud_trigger true\n"
            "  orvctl call start_cloud_registration '{\"router_id\": \"r1\"}'\n"
            "  generate-json | orvctl call start_cloud_registration -\n"
            "\nThe daemon ignores a name that it does not know: null data and status 0.\n");
    command->add_option("NAME", call->name, "The command, see orvctl commands")->required();
    command->add_option("DATA", call->data, "Its data as JSON, - to read it from standard input");
    set_work(line, *command, call, run_call);
}

void add_subscribe(CommandLine& line)
{
    const auto subscribe = std::make_shared<SubscribeOptions>();
    CLI::App* command =
        add(line.app, "subscribe", "Print each event of the daemon's as it arrives",
            "  orvctl subscribe devices_list_updated\n"
            "  orvctl subscribe va_status_changed --count 1 --timeout 60\n"
            "  orvctl subscribe device_discovery --timestamps | tee discoveries.jsonl\n"
            "\nGoes on until interrupted, unless --count or --timeout is given. With both, fewer "
            "events in that\ntime are exit status 1. In a pipe each event is one JSON line.\n"
            "\nWhen it ends, others with the same event must subscribe anew: of devices_list_updated,\n"
            "subscription_changed and cloud_registration_status they get nothing more, of device_discovery\n"
            "the user agents only.\n");
    command->add_option("EVENT", subscribe->event, "The event, see orvctl events")->required();
    add_count(*command, subscribe->count, "events");
    command->add_flag("--timestamps", subscribe->timestamps, "Tell when each event arrived, in UTC");
    set_work(line, *command, subscribe, run_subscribe);
}

/// One row of the catalogue: its name and what it is, then the shapes of its data, each on a line of its own.
void print_entry(std::string_view name, std::string_view summary,
                 const std::vector<std::pair<std::string, std::string_view>>& shapes, Output& output)
{
    if (output.is_for_people()) {
        output.line(output.emphasized(name) + "  " + std::string(summary));
        for (const auto& [label, shape] : shapes)
            output.line("    " + label + ": " + std::string(shape));
        return;
    }
    std::string line =
        R"({"name": )" + orvbroker::quote(name) + R"(, "summary": )" + orvbroker::quote(summary);
    for (const auto& [label, shape] : shapes)
        line += ", " + orvbroker::quote(label) + ": " + orvbroker::quote(shape);
    output.json(line + "}");
}

int print_commands(Output& output)
{
    for (const auto& row : commands())
        print_entry(row.name, row.summary, {{"data", row.argument}, {"answer", row.answer}}, output);
    return kSuccess;
}

int print_events(Output& output)
{
    for (const auto& row : events())
        print_entry(row.name, row.summary, {{"data", row.shape}}, output);
    return kSuccess;
}

void add_catalogue(CommandLine& line)
{
    CLI::App* commands = add(line.app, "commands", "List the commands that can be called",
                             "  orvctl commands\n"
                             "  orvctl commands --json\n");
    set_work(line, *commands, [](const Options&, Output& output) { return print_commands(output); });
    CLI::App* events = add(line.app, "events", "List the events that can be subscribed to",
                           "  orvctl events\n"
                           "  orvctl events --json\n");
    set_work(line, *events, [](const Options&, Output& output) { return print_events(output); });
}

constexpr const char* kKeyOrRoot = "The key, such as /protection; the whole store unless given";

/// A sub-command on one key of the settings store.
CLI::App* add_on_key(CommandLine& line, CLI::App& parent, const std::string& name, const std::string& summary,
                     const std::string& examples,
                     std::function<int(const std::string&, const Options&, Output&)> work)
{
    const auto key = std::make_shared<std::string>("/");
    CLI::App* command = add(parent, name, summary, examples);
    command->add_option("KEY", *key, "The key, such as /protection/enabled");
    set_work(line, *command, key, std::move(work));
    return command;
}

void add_settings_changes(CommandLine& line, CLI::App& settings)
{
    const auto value = std::make_shared<std::string>();
    CLI::App* set = add_on_key(
        line, settings, "set", "Write a value",
        "  orvctl settings set /protection/enabled 1\n"
        "  orvctl settings set /some/key -1\n"
        "  orvctl settings set /some/key -- -a       (-- comes before a dash and what is no digit)\n",
        [value](const std::string& key, const Options&, Output&) { return run_settings_set(key, *value); });
    set->get_option("KEY")->required();
    set->add_option("VALUE", *value, "The value, any text")->required();

    const auto remove = [](const std::string& key, const Options&, Output&) {
        return run_settings_delete(key);
    };
    add_on_key(line, settings, "delete", "Remove a key with everything below it",
               "  orvctl settings delete /va/blacklist/exclusions\n", remove)
        ->get_option("KEY")
        ->required();

    const auto count = std::make_shared<unsigned long>(0);
    CLI::App* watch = add_on_key(line, settings, "watch", "Print a key's value after each change",
                                 "  orvctl settings watch /protection/enabled\n"
                                 "  orvctl settings watch /protection/enabled --count 1 --timeout 10\n"
                                 "\nGoes on until interrupted, unless --count or --timeout is given. With "
                                 "both, fewer changes in that\n"
                                 "time are exit status 1.\n",
                                 [count](const std::string& key, const Options& options, Output& output) {
                                     return run_settings_watch(key, *count, options, output);
                                 });
    watch->get_option("KEY")->required();
    add_count(*watch, *count, "changes");
}

void add_settings_backup(CommandLine& line, CLI::App& settings)
{
    const auto add_on_file = [&](const char* name, const char* summary, const char* examples,
                                 int (*run)(const std::string&)) {
        const auto file = std::make_shared<std::string>();
        CLI::App* command = add(settings, name, summary, examples);
        command->add_option("FILE", *file, "The file, - for standard input or output")->required();
        set_work(line, *command, [file, run](const Options&, Output&) { return run(*file); });
    };
    add_on_file("backup", "Write all settings that survive a reboot to a file",
                "  orvctl settings backup /mnt/settings.backup\n"
                "  orvctl settings backup - | ssh host 'cat > settings.backup'\n",
                run_settings_backup);
    add_on_file(
        "restore", "Make all settings that survive a reboot those of a file",
        "  orvctl settings restore /mnt/settings.backup\n"
        "\nAll of them or none; whoever watches a key that changes is told. Keys that are not in the file "
        "are\nremoved.\n",
        run_settings_restore);
}

void add_settings(CommandLine& line)
{
    CLI::App* settings =
        add(line.app, "settings", "Read, change and watch the settings store; the daemon need not run",
            "  orvctl settings get /protection/enabled\n"
            "  orvctl settings tree /registration\n");
    settings->require_subcommand(1);
    const auto get = [](const std::string& key, const Options&, Output& output) {
        return run_settings_get(key, output);
    };
    add_on_key(line, *settings, "get", "Print a key's value", "  orvctl settings get /protection/enabled\n",
               get)
        ->get_option("KEY")
        ->required();
    add_settings_changes(line, *settings);
    add_settings_backup(line, *settings);
    const auto list = [](const std::string& key, const Options&, Output& output) {
        return run_settings_list(key, output);
    };
    add_on_key(line, *settings, "list", "Print the names of a key's children",
               "  orvctl settings list\n"
               "  orvctl settings list /features\n",
               list)
        ->get_option("KEY")
        ->description(kKeyOrRoot);
    const auto tree = [](const std::string& key, const Options&, Output& output) {
        return run_settings_tree(key, output);
    };
    add_on_key(line, *settings, "tree", "Print all keys from one downwards, with their values",
               "  orvctl settings tree\n"
               "  orvctl settings tree /tmp --json\n",
               tree)
        ->get_option("KEY")
        ->description(kKeyOrRoot);
}

/// A sub-command that sends something into the exchange.
void add_sending(CommandLine& line, CLI::App& parent, const std::string& name, const std::string& summary,
                 const std::string& target, const std::string& examples,
                 std::function<int(const SendOptions&, const Options&, Output&)> work)
{
    const auto send = std::make_shared<SendOptions>();
    CLI::App* command = add(parent, name, summary, examples);
    command->add_option("NAME", send->name, target)->required();
    command->add_option("DATA", send->data, "Its payload, {} unless given, - to read it from standard input");
    set_work(line, *command, send, std::move(work));
}

void add_exchange_monitor(CommandLine& line, CLI::App& exchange)
{
    const auto monitor = std::make_shared<MonitorOptions>();
    CLI::App* command = add(
        exchange, "monitor", "Print what happens on the exchange",
        "  orvctl exchange monitor\n"
        "  orvctl exchange monitor va_status_changed orvvad\n"
        "  orvctl exchange monitor broker-devmgmt:set_friendly_name --json\n"
        "\nGoes on until interrupted, unless --count or --timeout is given. With both, fewer lines in that\n"
        "time are exit status 1.\n");
    command->add_option("NAME", monitor->names,
                        "Only what has one of these names or goes to one of these participants");
    add_count(*command, monitor->count, "lines");
    set_work(line, *command, monitor, run_exchange_monitor);
}

void add_exchange(CommandLine& line)
{
    CLI::App* exchange = add(line.app, "exchange", "Take part in the message exchange between the daemons",
                             "  orvctl exchange request orvvad:va_scan_status\n"
                             "  orvctl exchange monitor\n");
    exchange->require_subcommand(1);
    const std::string target = "PARTICIPANT:NAME, or a bare name for the participant orvagent";
    add_sending(line, *exchange, "request", "Send a request and print its answer", target,
                "  orvctl exchange request orvvad:va_scan_status\n"
                "  orvctl exchange request update_subscription '{}'\n"
                "\nAn answer of another type than \"0\" is exit status 1; type \"2\" says why there is none: "
                "nobody has\n"
                "that name, the receiver has gone, or 60 seconds are over.\n",
                run_exchange_request);
    add_sending(line, *exchange, "message", "Send a one-way message", target,
                "  orvctl exchange message orvvad:va_scan_stop\n"
                "\nSuccess says that it was sent, not that anyone has received it.\n",
                [](const SendOptions& send, const Options& options, Output&) {
                    return run_exchange_message(send, options);
                });
    add_sending(line, *exchange, "publish", "Publish an event", "The event",
                "  orvctl exchange publish va_status_changed '{\"state\": \"running\"}'\n"
                "  orvctl exchange publish orvagent_started\n"
                "\nSuccess says that it was sent, not that anyone has received it.\n",
                [](const SendOptions& send, const Options& options, Output&) {
                    return run_exchange_publish(send, options);
                });
    add_exchange_monitor(line, *exchange);
}

/// A sub-command on one device, or on what describes it.
void add_on_device(CommandLine& line, CLI::App& parent, const std::string& name, const std::string& summary,
                   const std::string& argument, const std::string& meaning, const std::string& examples,
                   std::function<int(const std::string&, Output&)> work)
{
    const auto value = std::make_shared<std::string>();
    CLI::App* command = add(parent, name, summary, examples);
    command->add_option(argument, *value, meaning)->required();
    set_work(line, *command, value,
             [work = std::move(work)](const std::string& text, const Options&, Output& output) {
                 return work(text, output);
             });
}

void add_device(CommandLine& line)
{
    CLI::App* device = add(line.app, "device", "See and change the device store; the daemon need not run",
                           "  orvctl device list\n"
                           "  orvctl device show d1\n");
    device->require_subcommand(1);
    CLI::App* list = add(*device, "list", "Print all devices",
                         "  orvctl device list\n"
                         "  orvctl device list --json > devices.jsonl\n");
    set_work(line, *list, [](const Options&, Output& output) { return run_device_list(output); });
    add_on_device(line, *device, "show", "Print one device", "ID", "The device's id",
                  "  orvctl device show d1\n", run_device_show);
    add_on_device(
        line, *device, "put", "Store devices, new or in place of those with their ids", "DATA",
        "A device as JSON, or several, - to read them from standard input",
        "  orvctl device put '{\"did\": \"d1\", \"macs\": {\"aa:bb:cc:00:00:01\": [\"192.168.1.20\"]}}'\n"
        "  orvctl device put - < devices.jsonl\n"
        "\nOnly \"did\" must be there; without \"owner\" the device belongs to this router. When one of "
        "several\n"
        "is not of the right shape, none is stored.\n",
        [](const std::string& data, Output&) { return run_device_put(data); });
    add_on_device(line, *device, "backup", "Write all devices to a file", "FILE",
                  "The file, which is replaced, or - for standard output",
                  "  orvctl device backup devices.json\n"
                  "\nAll as they are at one moment; nothing needs to be stopped.\n",
                  [](const std::string& file, Output&) { return run_device_backup(file); });
    add_on_device(
        line, *device, "restore", "Make the device store hold what a backup holds", "FILE",
        "A file that \"device backup\" has written, or - for standard input",
        "  orvctl device restore devices.json\n"
        "\nDevices that are not in the file are removed. All together or not at all; nothing needs to "
        "be\n"
        "stopped, and whoever watches the store is told of what is different.\n",
        [](const std::string& file, Output&) { return run_device_restore(file); });
    add_on_device(line, *device, "remove", "Remove one device", "ID", "The device's id",
                  "  orvctl device remove d1\n",
                  [](const std::string& id, Output&) { return run_device_remove(id); });
}

void add_telemetry(CommandLine& line)
{
    CLI::App* telemetry = add(line.app, "telemetry", "See and empty the outbox of telemetry events",
                              "  orvctl telemetry list\n"
                              "  orvctl telemetry clear\n");
    telemetry->require_subcommand(1);
    CLI::App* list = add(*telemetry, "list", "Print the events that the agent has not confirmed yet",
                         "  orvctl telemetry list\n");
    set_work(line, *list, [](const Options&, Output& output) { return run_telemetry_list(output); });
    CLI::App* clear =
        add(*telemetry, "clear", "Remove all events from the outbox", "  orvctl telemetry clear\n");
    set_work(line, *clear, [](const Options&, Output&) { return run_telemetry_clear(); });
}

void add_status(CommandLine& line)
{
    CLI::App* status =
        add(line.app, "status", "Show how the agent is: daemon, bus, registration, devices, telemetry",
            "  orvctl status\n"
            "  orvctl status --json | jq .daemon.state\n"
            "\nExit status 3 when the daemon, the bus or a store is not there; all that is known is printed "
            "then, too.\n");
    set_work(line, *status, run_status);
}

// ---- completion: what can be typed is read off the declarations, so that the scripts know all of it

template <typename Rows>
std::vector<Word> words_of(const Rows& rows)
{
    std::vector<Word> words;
    words.reserve(rows.size());
    for (const auto& row : rows)
        words.push_back({std::string(row.name), std::string(row.summary)});
    return words;
}

/// What the first argument of a sub-command can be, where that is known.
std::vector<Word> first_arguments(const std::string& path)
{
    if (path == " call")
        return words_of(commands());
    if (path == " subscribe")
        return words_of(events());
    if (path == " completion")
        return {{"bash", "for bash"}, {"fish", "for fish"}, {"zsh", "for zsh"}};
    return {};
}

OptionWord option_word(const CLI::Option& option, const std::string& name)
{
    OptionWord result{{name, option.get_description()}, option.get_items_expected_max() > 0, {}};
    if (name == "--color")
        for (const auto& [when, color] : kColors)
            result.values.push_back(when);
    return result;
}

void add_options(const CLI::App& app, Level& level)
{
    for (const CLI::Option* option : app.get_options()) {
        for (const auto& name : option->get_lnames())
            level.options.push_back(option_word(*option, "--" + name));
        for (const auto& name : option->get_snames())
            level.options.push_back(option_word(*option, "-" + name));
    }
}

/// One level for a sub-command, after it one for each below.
void add_levels(const CLI::App& root, const CLI::App& app, const std::string& path,
                std::vector<Level>& levels)
{
    Level level{path, {}, first_arguments(path)};
    add_options(app, level);
    if (&app != &root) {
        const auto own_help = level.options.size();
        add_options(root, level); // which every sub-command takes, too
        // Its own --help is the one that counts.
        const auto is_repeated = [&](const OptionWord& option) {
            return option.word.text == "--help" || option.word.text == "-h" ||
                   option.word.text == "--version";
        };
        level.options.erase(std::remove_if(level.options.begin() + static_cast<std::ptrdiff_t>(own_help),
                                           level.options.end(), is_repeated),
                            level.options.end());
    }
    const auto below = app.get_subcommands([](const CLI::App*) { return true; });
    for (const CLI::App* command : below)
        level.words.push_back({command->get_name(), command->get_description()});
    levels.push_back(std::move(level));
    for (const CLI::App* command : below)
        add_levels(root, *command, path + " " + command->get_name(), levels);
}

const std::map<std::string, std::string (*)(const std::vector<Level>&)> kShells{
    {"bash", bash_completion}, {"fish", fish_completion}, {"zsh", zsh_completion}};

std::string check_shell(const std::string& text)
{
    return kShells.count(text) != 0 ? "" : "'" + text + "' is neither bash nor zsh nor fish";
}

void add_completion(CommandLine& line)
{
    const auto shell = std::make_shared<std::string>();
    CLI::App* command = add(line.app, "completion", "Print a completion script for a shell",
                            "  source <(orvctl completion bash)\n"
                            "  orvctl completion zsh > ~/.zfunc/_orvctl\n"
                            "  orvctl completion fish > ~/.config/fish/completions/orvctl.fish\n");
    command->add_option("SHELL", *shell, "bash, zsh or fish")->required()->check(check_shell);
    set_work(line, *command, [&line, shell](const Options&, Output& output) {
        std::vector<Level> levels;
        add_levels(line.app, line.app, "", levels);
        output.text(kShells.at(*shell)(levels));
        return kSuccess;
    });
}

void declare(CommandLine& line)
{
    line.app.require_subcommand(1);
    line.app.fallthrough();
    line.app.footer(std::string("\nExamples:\n"
                                "  orvctl call get_services_status\n"
                                "  orvctl subscribe devices_list_updated --timestamps\n"
                                "  orvctl settings get /protection/enabled\n\n") +
                    fmt::format(kSurroundings, orv::base::default_root()) + kExitStatuses);
    add_global_options(line);
    add_status(line);
    add_call(line);
    add_catalogue(line);
    add_subscribe(line);
    add_settings(line);
    add_device(line);
    add_exchange(line);
    add_telemetry(line);
    add_completion(line);
}

/// Prints what --help and --version ask for.
int print_information(const CommandLine& line, const CLI::ParseError& request)
{
    std::ostringstream text;
    (void)line.app.exit(request, text, text);
    Output output(line.options.json, line.options.color);
    output.text(text.str());
    return output.finish(kSuccess);
}

/// Tells what is wrong with the line, or prints the information that it asks for.
int end_without_work(const CommandLine& line, const CLI::ParseError& problem)
{
    if (problem.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success))
        return print_information(line, problem);
    // A misspelt sub-command shows as one that is missing; what is left over names the mistake.
    const auto unknown = line.app.remaining(true);
    const bool misspelt =
        problem.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError) && !unknown.empty();
    const std::string text = misspelt ? "not understood: " + unknown.front() : std::string(problem.what());
    complain(text + " (see orvctl --help)");
    return kUsage;
}

} // namespace

int run_command_line(int argc, char** argv)
{
    CommandLine line;
    declare(line);
    try {
        line.app.parse(argc, argv);
    } catch (const CLI::ParseError& problem) {
        return end_without_work(line, problem);
    }
    if (line.timeout_seconds > 0) {
        line.options.timeout =
            std::chrono::milliseconds{static_cast<long long>(std::ceil(line.timeout_seconds * 1000))};
    }
    Output output(line.options.json, line.options.color);
    return output.finish(line.work(line.options, output));
}

} // namespace orvctl
