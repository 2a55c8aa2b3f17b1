// The common paths below the agent's root directory.

#include "base_support.h"
#include "memory_support.h"
#include "process_support.h"

#include <orvutils/log.h>
#include <orvutils/log_control.h>
#include <orvutils/path.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <new>
#include <sstream>
#include <string>

namespace {

using orv::common_path;

std::string printed(common_path which)
{
    std::ostringstream out;
    orv::detail::print_common_path(out, which);
    EXPECT_EQ(orv::common_directory(which).str(), out.str());
    return out.str();
}

TEST(CommonPath, OfTheRunningAgentIsMadeOnFirstUse)
{
    const TemporaryRoot root;
    EXPECT_EQ(printed(common_path::run), root.path() + "/run");
    EXPECT_TRUE(std::filesystem::is_directory(root.path() + "/run"));
    EXPECT_EQ(std::filesystem::status(root.path() + "/run").permissions(), std::filesystem::perms::owner_all);
}

TEST(CommonPath, OfTheFirewallScriptsIsOnlyNamed)
{
    const TemporaryRoot root;
    EXPECT_EQ(printed(common_path::firewall), root.path() + "/lib/firewall");
    EXPECT_FALSE(std::filesystem::exists(root.path() + "/lib"));
}

TEST(CommonPath, IsNotThereWithoutMemory)
{
    const TemporaryRoot root;
    std::ostringstream out;
    {
        const FailingMemory memory(1, /*from_then_on=*/true);
        orv::detail::print_common_path(out, common_path::run);
        EXPECT_THROW((void)orv::common_directory(common_path::run), std::bad_alloc);
    }
    EXPECT_TRUE(out.fail());
    EXPECT_EQ(out.str(), "");
}

TEST(CommonPath, IsPrintedEvenWhenItCannotBeMade)
{
    const TemporaryRoot root;
    spill(root.path() + "/run", "in the way");
    const Outcome outcome = in_child([&] {
        setenv("ORV_ROOT", root.path().c_str(), /*replace=*/1);
        orv::log::set_threshold(orv::log::kDebug);
        return printed(common_path::run) == root.path() + "/run" ? 0 : 1;
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(logged(outcome.err)[0], "3 cannot create " + root.path() + "/run: Not a directory, ignoring");
}

} // namespace
