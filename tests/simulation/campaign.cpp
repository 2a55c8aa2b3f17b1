#include "campaign.h"

#include "world.h"

#include <ftw.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#ifdef __has_feature
#if __has_feature(address_sanitizer)
#define ORV_FINDS_LEAKS
#endif
#endif
#ifdef ORV_FINDS_LEAKS
#include <sanitizer/lsan_interface.h>
#endif

namespace orv::simulation {
namespace {

constexpr unsigned kDeadline = 30; ///< seconds for one plan: a daemon that blocks is a finding

std::string read_all(int fd)
{
    std::string text;
    std::array<char, 65536> part{};
    for (ssize_t count = 0; (count = read(fd, part.data(), part.size())) > 0;)
        text.append(part.data(), static_cast<std::size_t>(count));
    return text;
}

std::string rule_in(const std::string& output, int status)
{
    constexpr std::string_view kMark = "violated: ";
    const std::size_t mark = output.rfind(kMark);
    if (mark != std::string::npos) {
        const std::size_t begin = mark + kMark.size();
        return output.substr(begin, output.find(": ", begin) - begin);
    }
    if (WIFSIGNALED(status))
        return "the process survives (signal " + std::to_string(WTERMSIG(status)) + ")";
    return "the process ends with status 0 (" + std::to_string(WEXITSTATUS(status)) + ")";
}

} // namespace

Campaign::Campaign(Belief belief) : m_belief(belief)
{
    char root[] = "/tmp/orvbrokerd-simulation-XXXXXX";
    m_root = mkdtemp(root);
    mkdir((m_root + "/6").c_str(), S_IRWXU);
}

Campaign::~Campaign()
{
    const auto remove_entry = [](const char* path, const struct stat*, int, FTW*) {
        return std::remove(path);
    };
    nftw(m_root.c_str(), remove_entry, 8, FTW_DEPTH | FTW_PHYS);
}

void Campaign::run_here(const Plan& plan, bool is_verbose) const
{
    alarm(kDeadline);
    {
        World world(plan, m_root, m_belief, is_verbose);
        world.run();
    }
    std::fflush(stdout);
#ifdef ORV_FINDS_LEAKS
    if (__lsan_do_recoverable_leak_check() != 0)
        _exit(1);
#endif
    _exit(0);
}

Outcome Campaign::run(const Plan& plan, bool is_verbose) const
{
    int ends[2] = {-1, -1};
    if (pipe(ends) != 0)
        return {false, "a pipe can be made", {}};
    std::fflush(stdout);
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        dup2(ends[1], STDERR_FILENO);
        close(ends[0]);
        close(ends[1]);
        run_here(plan, is_verbose);
    }
    close(ends[1]);
    Outcome outcome;
    outcome.output = read_all(ends[0]);
    close(ends[0]);
    int status = 0;
    waitpid(child, &status, 0);
    outcome.is_good = WIFEXITED(status) && WEXITSTATUS(status) == 0;
    if (!outcome.is_good)
        outcome.rule = rule_in(outcome.output, status);
    return outcome;
}

Plan Campaign::shorten(const Plan& plan, const std::string& rule) const
{
    return shortened(plan, [&](const Plan& shorter) {
        const Outcome outcome = run(shorter);
        return !outcome.is_good && outcome.rule == rule;
    });
}

namespace {

Plan without(const Plan& plan, std::size_t begin, std::size_t count)
{
    Plan shorter = plan;
    const auto from = shorter.steps.begin() + static_cast<std::ptrdiff_t>(begin);
    shorter.steps.erase(from, from + static_cast<std::ptrdiff_t>(count));
    return shorter;
}

} // namespace

Plan shortened(Plan plan, const std::function<bool(const Plan&)>& still_fails)
{
    std::size_t part = std::max<std::size_t>(plan.steps.size() / 2, 1);
    while (!plan.steps.empty()) {
        bool is_shorter = false;
        // From the end: what comes last seldom matters to what has come before.
        for (std::size_t end = plan.steps.size(); end > 0;) {
            const std::size_t begin = end > part ? end - part : 0;
            Plan shorter = without(plan, begin, end - begin);
            if (still_fails(shorter)) {
                plan = std::move(shorter);
                is_shorter = true;
            }
            end = begin;
        }
        if (part == 1 && !is_shorter)
            break;
        part = std::max<std::size_t>(part / 2, 1);
    }
    return plan;
}

} // namespace orv::simulation
