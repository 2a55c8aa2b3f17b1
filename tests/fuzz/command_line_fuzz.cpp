// The command line of orvctl, without what it would do: each sub-command ends in a function of its own, and
// these do nothing here but look at what they are given. The input is the arguments, with NULs between them.

#include "input.h"
#include "require.h"

#include "calling.h"
#include "command_line.h"
#include "devices.h"
#include "exchange.h"
#include "exit_status.h"
#include "settings.h"
#include "status.h"
#include "telemetry.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

using orv::fuzz::Input;
using orv::fuzz::require;

namespace {

constexpr std::size_t kMostArguments = 16;

bool g_has_run = false;

int run(const orvctl::Options* options = nullptr)
{
    g_has_run = true;
    if (options && options->timeout)
        require(options->timeout->count() > 0, "a time-out is one");
    return orvctl::kSuccess;
}

} // namespace

namespace orvctl {

// Nothing is printed.

Output::Output(bool json, Color /*color*/) : m_json(json), m_for_people(!json), m_colors(false) {}
void Output::text(std::string_view /*text*/) {}
void Output::line(std::string_view /*text*/) {}
void Output::json(std::string_view /*text*/) {}
void Output::table(const std::vector<std::string>& titles, std::vector<std::vector<std::string>> rows)
{
    for (const auto& row : rows)
        require(row.size() == titles.size(), "a row has what its titles say");
}
std::string Output::emphasized(std::string_view text) const
{
    return std::string(text);
}
int Output::finish(int status) const
{
    return status;
}
void complain(std::string_view text)
{
    require(!text.empty(), "what is wrong is said");
}

// Nothing is done.

int run_call(const CallOptions& /*call*/, const Options& options, Output& /*output*/)
{
    return run(&options);
}
int run_subscribe(const SubscribeOptions& /*subscribe*/, const Options& options, Output& /*output*/)
{
    return run(&options);
}
int run_device_list(Output& /*output*/)
{
    return run();
}
int run_device_show(const std::string& /*id*/, Output& /*output*/)
{
    return run();
}
int run_device_put(const std::string& /*data*/)
{
    return run();
}
int run_device_backup(const std::string& /*file*/)
{
    return run();
}
int run_device_restore(const std::string& /*file*/)
{
    return run();
}
int run_device_remove(const std::string& /*id*/)
{
    return run();
}
int run_exchange_request(const SendOptions& /*send*/, const Options& options, Output& /*output*/)
{
    return run(&options);
}
int run_exchange_message(const SendOptions& /*send*/, const Options& options)
{
    return run(&options);
}
int run_exchange_publish(const SendOptions& /*send*/, const Options& options)
{
    return run(&options);
}
int run_exchange_monitor(const MonitorOptions& /*monitor*/, const Options& options, Output& /*output*/)
{
    return run(&options);
}
int run_settings_get(const std::string& /*key*/, Output& /*output*/)
{
    return run();
}
int run_settings_set(const std::string& /*key*/, const std::string& /*value*/)
{
    return run();
}
int run_settings_delete(const std::string& /*key*/)
{
    return run();
}
int run_settings_list(const std::string& /*key*/, Output& /*output*/)
{
    return run();
}
int run_settings_tree(const std::string& /*key*/, Output& /*output*/)
{
    return run();
}
int run_settings_backup(const std::string& /*file*/)
{
    return run();
}
int run_settings_restore(const std::string& /*file*/)
{
    return run();
}
int run_settings_watch(const std::string& /*key*/, unsigned long /*count*/, const Options& options,
                       Output& /*output*/)
{
    return run(&options);
}
int run_status(const Options& options, Output& /*output*/)
{
    return run(&options);
}
int run_telemetry_list(Output& /*output*/)
{
    return run();
}
int run_telemetry_clear()
{
    return run();
}

} // namespace orvctl

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    Input input(data, size);
    std::vector<std::string> words{"orvctl"};
    while (!input.is_empty() && words.size() < kMostArguments)
        words.emplace_back(input.until('\0'));
    std::vector<char*> arguments;
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);
    g_has_run = false;
    const int status = orvctl::run_command_line(static_cast<int>(words.size()), arguments.data());
    require(status == orvctl::kSuccess || status == orvctl::kUsage, "a line is right or it is not");
    require(status == orvctl::kSuccess || !g_has_run, "nothing is done for a line that is wrong");
    return 0;
}
