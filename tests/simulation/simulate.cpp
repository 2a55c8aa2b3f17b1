// Simulations of the daemon, one for each seed, until one breaks a rule.

#include "campaign.h"

#include "support/own_process.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

using namespace orv::simulation;

namespace {

constexpr char kUsage[] = "Usage: simulate [OPTION...]\n"
                          "\n"
                          "Runs the daemon in simulated worlds, one for each seed, and checks what each "
                          "client receives. At the first world\n"
                          "in which a rule does not hold, tells the seed, the rule and the fewest steps that "
                          "break it; exit status 1.\n"
                          "\n"
                          "      --seeds N   how many worlds (1000)\n"
                          "      --from S    the first seed (1)\n"
                          "      --steps K   how long a world is (60)\n"
                          "      --verbose   tell all that happens\n"
                          "  -h, --help      show this text and exit\n";

struct Options {
    std::uint64_t seeds = 1000;
    std::uint64_t from = 1;
    unsigned steps = 60;
    bool is_verbose = false;
};

bool to_number(const char* text, std::uint64_t& number)
{
    char* end = nullptr;
    number = text ? std::strtoull(text, &end, 10) : 0;
    return text && end != text && *end == '\0';
}

bool read_options(char** arguments, Options& options)
{
    for (; *arguments; ++arguments) {
        const std::string option = *arguments;
        if (option == "--verbose") {
            options.is_verbose = true;
            continue;
        }
        std::uint64_t number = 0;
        if (!to_number(arguments[1], number))
            return false;
        ++arguments;
        if (option == "--seeds")
            options.seeds = number;
        else if (option == "--from")
            options.from = number;
        else if (option == "--steps")
            options.steps = static_cast<unsigned>(number);
        else
            return false;
    }
    return true;
}

void tell(const Campaign& campaign, const Plan& plan, const Outcome& outcome)
{
    std::printf("seed %llu: %s\n", static_cast<unsigned long long>(plan.seed), outcome.rule.c_str());
    const Plan shorter = campaign.shorten(plan, outcome.rule);
    std::printf("%s\n", campaign.run(shorter, /*is_verbose=*/true).output.c_str());
    std::printf("%zu of its %zu steps are enough:\n", shorter.steps.size(), plan.steps.size());
    for (const Step& step : shorter.steps)
        std::printf("  %s\n", to_text(step).c_str());
}

int simulate(const Options& options)
{
    const Campaign campaign;
    for (std::uint64_t i = 0; i < options.seeds; ++i) {
        const Plan plan = make_plan(options.from + i, options.steps);
        const Outcome outcome = campaign.run(plan, options.is_verbose);
        if (options.is_verbose)
            std::printf("%s", outcome.output.c_str());
        if (!outcome.is_good) {
            tell(campaign, plan, outcome);
            return 1;
        }
    }
    std::printf("%llu seeds from %llu: all rules hold\n", static_cast<unsigned long long>(options.seeds),
                static_cast<unsigned long long>(options.from));
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && (std::strcmp(argv[1], "-h") == 0 || std::strcmp(argv[1], "--help") == 0)) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    Options options;
    if (!read_options(argv + 1, options)) {
        std::fputs(kUsage, stderr);
        return 2;
    }
    return orv::test::set_up_process() ? simulate(options) : 1;
}
