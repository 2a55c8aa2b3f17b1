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

using orv::base::default_root;
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
    EXPECT_STREQ(default_root(), ORV_DEFAULT_ROOT);
    EXPECT_EQ(root_path(""), ORV_DEFAULT_ROOT);
    EXPECT_EQ(root_path("etc/release"), ORV_DEFAULT_ROOT "/etc/release");
    setenv("ORV_ROOT", "", 1);
    EXPECT_EQ(root_path("run"), ORV_DEFAULT_ROOT "/run");
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

TEST(FindDistrust, LooksAtEveryDirectoryFromTheRootDown)
{
    using orv::base::find_distrust;
    const TemporaryRoot root;
    const std::string inner = root.path() + "/var/store";
    ASSERT_TRUE(make_directories(inner, 0700));
    EXPECT_EQ(find_distrust(inner).directory, "");
    EXPECT_EQ(find_distrust(inner + "/not/there/yet").directory, "");
    for (const std::string& name : {root.path(), root.path() + "/var", inner}) {
        ASSERT_EQ(chmod(name.c_str(), 01777), 0);
        EXPECT_EQ(find_distrust(inner).directory, name);
        EXPECT_EQ(find_distrust(inner).reason, "others can write to it");
        ASSERT_EQ(chmod(name.c_str(), 0755), 0);
        EXPECT_EQ(find_distrust(inner).directory, "");
        if (geteuid() != 0)
            continue; // only root can give something away
        ASSERT_EQ(chown(name.c_str(), 65534, 65534), 0);
        EXPECT_EQ(find_distrust(inner).directory, name);
        EXPECT_EQ(find_distrust(inner).reason, "it belongs to user 65534");
        ASSERT_EQ(chown(name.c_str(), 0, 65534), 0);
        ASSERT_EQ(chmod(name.c_str(), 0770), 0);
        EXPECT_EQ(find_distrust(inner).reason, "others can write to it");
        ASSERT_EQ(chown(name.c_str(), 0, 0), 0);
        EXPECT_EQ(find_distrust(inner).directory, "");
    }
}

TEST(FindDistrust, LooksBehindLinksAndNotAboveTheRoot)
{
    using orv::base::find_distrust;
    const TemporaryRoot root; // in /tmp, where everybody can write
    const std::string target = root.path() + "/target";
    ASSERT_EQ(mkdir(target.c_str(), 0700), 0);
    ASSERT_EQ(symlink("target", (root.path() + "/tmp").c_str()), 0);
    EXPECT_EQ(find_distrust(root.path() + "/tmp").directory, "");
    ASSERT_EQ(chmod(target.c_str(), 0777), 0);
    EXPECT_EQ(find_distrust(root.path() + "/tmp").directory, root.path() + "/tmp");
    EXPECT_EQ(find_distrust("/tmp").directory, "") << "not the agent's";
}

} // namespace
