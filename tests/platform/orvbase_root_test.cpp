// The agent's root directory.

#include "base_support.h"

#include <orvbase/root.h>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

using orv::base::make_directories;
using orv::base::root_path;

mode_t mode_of(const std::string& name)
{
    struct stat status {};
    return stat(name.c_str(), &status) == 0 ? status.st_mode & 07777U : 0;
}

TEST(Root, IsTheDefaultUnlessTheEnvironmentNamesOne)
{
    unsetenv("ORV_ROOT");
    EXPECT_EQ(root_path(""), "/opt/orvane");
    EXPECT_EQ(root_path("etc/release"), "/opt/orvane/etc/release");
    setenv("ORV_ROOT", "", 1);
    EXPECT_EQ(root_path("run"), "/opt/orvane/run");
    setenv("ORV_ROOT", "/somewhere//else/", 1);
    EXPECT_EQ(root_path(""), "/somewhere/else");
    EXPECT_EQ(root_path("run"), "/somewhere/else/run");
    setenv("ORV_ROOT", "/", 1);
    EXPECT_EQ(root_path("run"), "/run");
    unsetenv("ORV_ROOT");
}

TEST(Root, ThatIsRelativeIsBelowTheWorkingDirectory)
{
    setenv("ORV_ROOT", "here", 1);
    EXPECT_EQ(root_path("run"), std::filesystem::current_path().string() + "/here/run");
    unsetenv("ORV_ROOT");
}

TEST(MakeDirectories, MakesParentsWithTheModeAndLeavesWhatIsThere)
{
    const TemporaryRoot root;
    const mode_t before = umask(0);
    ASSERT_EQ(mkdir((root.path() + "/a").c_str(), 0750), 0);
    EXPECT_TRUE(make_directories(root.path() + "/a/b/c", 0700));
    EXPECT_TRUE(make_directories(root.path() + "/a/b/c", 0755));
    umask(before);
    EXPECT_EQ(mode_of(root.path() + "/a"), 0750U);
    EXPECT_EQ(mode_of(root.path() + "/a/b"), 0700U);
    EXPECT_EQ(mode_of(root.path() + "/a/b/c"), 0700U);
}

TEST(MakeDirectories, FailsWithErrnoWhenAFileIsInTheWay)
{
    const TemporaryRoot root;
    spill(root.path() + "/file", "x");
    EXPECT_FALSE(make_directories(root.path() + "/file", 0755));
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_FALSE(make_directories(root.path() + "/file/below", 0755));
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_FALSE(make_directories("", 0755));
    EXPECT_EQ(errno, ENOENT);
}

} // namespace
