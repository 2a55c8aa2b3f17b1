// Running the probe daemon, which is a program of its own: what a daemon does to its process would be done to
// the tests.

#include "probe_support.h"

#include <unistd.h>

#include <cstdlib>
#include <stdexcept>
#include <utility>

namespace {

[[noreturn]] void become_probe(const std::vector<std::string>& options,
                               const std::vector<std::string>& environment)
{
    std::vector<char*> arguments = {const_cast<char*>(BASE_PROBE)};
    for (const auto& option : options)
        arguments.push_back(const_cast<char*>(option.c_str()));
    arguments.push_back(nullptr);
    for (const auto& variable : environment)
        putenv(const_cast<char*>(variable.c_str()));
    execv(BASE_PROBE, arguments.data());
    _exit(126);
}

} // namespace

Outcome run_probe(const std::vector<std::string>& options, const std::vector<std::string>& environment,
                  const std::function<void()>& prepare)
{
    return in_child([&]() -> int {
        if (prepare)
            prepare();
        become_probe(options, environment);
    });
}

Running start_probe(const std::vector<std::string>& options, const std::vector<std::string>& environment)
{
    Ends out = make_pipe();
    const pid_t child = fork();
    if (child == -1)
        throw std::runtime_error("fork");
    if (child == 0) {
        dup2(out.second, STDOUT_FILENO);
        become_probe(options, environment);
    }
    return {child, std::move(out.first)};
}
