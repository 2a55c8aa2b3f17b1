// CLI11 throws for a wrong line and for --help; its exceptions and its exit codes end here.

#include "command_line.h"

#include "exit_status.h"
#include "requests.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <cmath>
#include <iostream>

namespace orvagentsim {
namespace {

constexpr char kVersion[] = "orvagentsim 1.3";
constexpr unsigned kMaxDevices = 1000;
constexpr double kMaxChurnSeconds = 1e6;
constexpr unsigned kMaxDelayMs = 3600U * 1000U;

constexpr char kExamples[] =
    "\nRequests that --fail knows, with or without their participant:\n{}"
    "\nExamples:\n"
    "  orvagentsim                                    six devices, a change every ten seconds\n"
    "  orvagentsim --devices 40 --churn 0.5           a busy home\n"
    "  orvagentsim --churn 0 --seed 7                 the same home at each start, and it stays so\n"
    "  orvagentsim --fail va_set_schedule --fail orvagent:update_subscription\n"
    "\nThe exchange (see orvexchanged) and the stores are those of the root in ORV_ROOT.\n"
    "Exit status: 0 stopped by SIGTERM or SIGINT, 2 usage, 3 no exchange, no store, or name taken.\n";

std::string footer()
{
    std::string names;
    for (const auto& request : requests())
        names += fmt::format("  {}:{}\n", name_of(request.participant), request.name);
    return fmt::format(kExamples, names);
}

std::string check_request(const std::string& name)
{
    return is_request(name) ? "" : "'" + name + "' is no request, see --help";
}

void declare(CLI::App& app, Options& options, double& churn_seconds, unsigned& delay_ms,
             std::vector<std::string>& failing)
{
    app.add_option("--devices", options.devices, "How many devices the home has at first")
        ->check(CLI::Range(0U, kMaxDevices))
        ->capture_default_str()
        ->type_name("N");
    app.add_option("--churn", churn_seconds, "Time between two changes among the devices; 0: none")
        ->check(CLI::Range(0.0, kMaxChurnSeconds))
        ->capture_default_str()
        ->type_name("SECONDS");
    app.add_option("--delay", delay_ms, "How long a registration, and each step of a scan, takes")
        ->check(CLI::Range(0U, kMaxDelayMs))
        ->capture_default_str()
        ->type_name("MS");
    app.add_option("--seed", options.seed, "The same number makes the same devices change the same way")
        ->capture_default_str()
        ->type_name("N");
    app.add_option("--fail", failing, "Answer this request with an error (may be given again)")
        ->check(check_request)
        ->allow_extra_args(false)
        ->type_name("NAME");
    app.set_version_flag("--version", kVersion);
    app.footer(footer());
}

std::chrono::milliseconds to_milliseconds(double seconds)
{
    return std::chrono::milliseconds{static_cast<std::int64_t>(std::ceil(seconds * 1000))};
}

} // namespace

std::optional<int> parse_command_line(int argc, char** argv, Options& options)
{
    CLI::App app{"Plays the other daemons of the agent, for demonstrations, tests and client developers.",
                 "orvagentsim"};
    double churn_seconds = static_cast<double>(options.churn.count()) / 1000;
    auto delay_ms = static_cast<unsigned>(options.delay.count());
    std::vector<std::string> failing;
    declare(app, options, churn_seconds, delay_ms, failing);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& problem) {
        if (problem.get_exit_code() == static_cast<int>(CLI::ExitCodes::Success)) {
            (void)app.exit(problem);
            return kSuccess;
        }
        std::cerr << "orvagentsim: " << problem.what() << " (see orvagentsim --help)\n";
        return kUsage;
    }
    options.churn = to_milliseconds(churn_seconds);
    options.delay = std::chrono::milliseconds{delay_ms};
    for (const auto& name : failing)
        options.failing.insert(without_participant(name));
    return std::nullopt;
}

} // namespace orvagentsim
