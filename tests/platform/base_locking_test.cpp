// File locks between processes.

#include "base_support.h"
#include "memory_support.h"
#include "process_support.h"
#include "refusal_support.h"

#include <orvutils/error.h>
#include <orvutils/locking.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <string>
#include <utility>

namespace {

using namespace orv::locking;

#ifdef SYS_fcntl64
constexpr long kLockCall = SYS_fcntl64;
#else
constexpr long kLockCall = SYS_fcntl;
#endif

constexpr int kNotMade = 9;

/// The result of trying to lock the file, as an exit status.
int try_lock(const std::string& file, type which)
{
    auto lock = plock::make(file, flags::none);
    return lock ? static_cast<int>(lock->lock(which)) : kNotMade;
}

int try_lock_elsewhere(const std::string& file, type which)
{
    return in_child([&] { return try_lock(file, which); }).status;
}

plock locked(const std::string& file, type which)
{
    auto lock = plock::make(file, flags::create);
    EXPECT_TRUE(lock);
    EXPECT_EQ(lock->lock(which), result::locked);
    return std::move(*lock);
}

constexpr int kBusy = static_cast<int>(result::busy);
constexpr int kLocked = static_cast<int>(result::locked);

TEST(Lock, ExclusiveKeepsOtherProcessesOut)
{
    const TemporaryRoot root;
    const std::string file = root.path() + "/lock";
    const plock lock = locked(file, type::exclusive);
    EXPECT_EQ(try_lock_elsewhere(file, type::exclusive), kBusy);
    EXPECT_EQ(try_lock_elsewhere(file, type::shared), kBusy);
}

TEST(Lock, SharedAdmitsOtherSharedOnes)
{
    const TemporaryRoot root;
    const std::string file = root.path() + "/lock";
    const plock lock = locked(file, type::shared);
    EXPECT_EQ(try_lock_elsewhere(file, type::shared), kLocked);
    EXPECT_EQ(try_lock_elsewhere(file, type::exclusive), kBusy);
}

TEST(Lock, OfTheSameProcessStaysWhenAnotherDescriptorOfTheFileIsClosed)
{
    const TemporaryRoot root;
    const std::string file = root.path() + "/lock";
    const plock lock = locked(file, type::exclusive);
    EXPECT_EQ(try_lock(file, type::exclusive), kBusy);
    spill(file, "1.3");
    EXPECT_EQ(try_lock_elsewhere(file, type::exclusive), kBusy);
}

TEST(Lock, EndsWithItsOwnerObject)
{
    const TemporaryRoot root;
    const std::string file = root.path() + "/lock";
    {
        const plock lock = locked(file, type::exclusive);
    }
    EXPECT_EQ(try_lock_elsewhere(file, type::exclusive), kLocked);
}

TEST(Lock, EndsWithItsOwnersDeath)
{
    const TemporaryRoot root;
    const std::string file = root.path() + "/lock";
    Ends ends = make_pipe();
    const pid_t owner = fork();
    ASSERT_NE(owner, -1);
    if (owner == 0) {
        const plock lock = locked(file, type::exclusive);
        if (write(ends.second, "L", 1) != 1)
            _exit(1);
        for (;;)
            pause();
    }
    ASSERT_EQ(read_until(ends.first, "L"), "L");
    EXPECT_EQ(try_lock_elsewhere(file, type::exclusive), kBusy);
    kill(owner, SIGKILL);
    EXPECT_EQ(wait_for(owner), 1000 + SIGKILL);
    EXPECT_EQ(try_lock_elsewhere(file, type::exclusive), kLocked);
}

TEST(Lock, MovesWithItsObject)
{
    const TemporaryRoot root;
    const std::string file = root.path() + "/lock";
    plock global;
    EXPECT_EQ(global.lock(type::exclusive), result::failed) << "there is no file";
    {
        plock lock = locked(file, type::exclusive);
        global = std::move(lock);
    }
    EXPECT_EQ(try_lock_elsewhere(file, type::exclusive), kBusy);
    const plock last = std::move(global);
    // NOLINTNEXTLINE(bugprone-use-after-move): what is left behind is the question
    EXPECT_EQ(global.lock(type::exclusive), result::failed) << "it went with the object";
    EXPECT_EQ(try_lock_elsewhere(file, type::exclusive), kBusy);
}

TEST(Lock, FileIsMadeOnlyWhenAskedFor)
{
    const TemporaryRoot root;
    const std::string file = root.path() + "/tmp/locks/key";
    EXPECT_FALSE(plock::make(file, flags::none));
    EXPECT_EQ(orv::_get_orverrno(), static_cast<int>(orv::Error::input_output));
    const mode_t before = umask(022);
    EXPECT_TRUE(plock::make(file, flags::create)) << "with its directories, below the root";
    umask(before);
    struct stat status {};
    ASSERT_EQ(stat(file.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U) << "a lock of others would keep the daemon from starting";
    ASSERT_EQ(stat((root.path() + "/tmp").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0700U);
}

TEST(Lock, DirectoriesOutsideTheRootAreNotMade)
{
    const TemporaryRoot outside;
    const TemporaryRoot root; // the one in force
    EXPECT_FALSE(plock::make(outside.path() + "/new/lock", flags::create));
    EXPECT_FALSE(plock::make(root.path() + "-beside/lock", flags::create));
    EXPECT_FALSE(std::filesystem::exists(root.path() + "-beside"));
    EXPECT_FALSE(plock::make("", flags::create));
    EXPECT_EQ(orv::_get_orverrno(), static_cast<int>(orv::Error::invalid_argument));
}

TEST(Lock, WithoutMemoryIsNotMadeAndNoException)
{
    const TemporaryRoot root;
    const orv::path file(root.path() + "/a/directory/of/some/length/lock");
    unsigned long failures = 0;
    for_each_allocation([&](unsigned long number) {
        bool made = false;
        EXPECT_FALSE(plock::make(orv::path(""), flags::none)); // leaves another error
        {
            const FailingMemory memory(number, /*from_then_on=*/true);
            made = plock::make(file, flags::create).has_value();
        }
        EXPECT_NE(made, FailingMemory::has_failed()) << number;
        EXPECT_EQ(orv::_get_orverrno(), made ? 1 : 2);
        failures += made ? 0 : 1;
        return !made;
    });
    EXPECT_GT(failures, 0U);
}

TEST(Lock, FollowsNoLinkAndTrustsNoDirectoryOfOthersBelowTheRoot)
{
    const TemporaryRoot root;
    const std::string directory = root.path() + "/run";
    const std::string target = root.path() + "/target";
    ASSERT_EQ(mkdir(directory.c_str(), 0700), 0);
    spill(target, "precious");
    ASSERT_EQ(symlink(target.c_str(), (directory + "/lock").c_str()), 0);
    EXPECT_FALSE(plock::make(directory + "/lock", flags::create));
    EXPECT_TRUE(plock::make(directory + "/other", flags::create));
    ASSERT_EQ(chmod(directory.c_str(), 0777), 0);
    EXPECT_FALSE(plock::make(directory + "/other", flags::create));
    EXPECT_EQ(orv::_get_orverrno(), static_cast<int>(orv::Error::input_output));
}

TEST(Lock, OnAFileSystemWithoutLocksFailsWithTheErrorNumber)
{
    const TemporaryRoot root;
    const Outcome outcome = in_child([&]() -> int {
        auto lock = plock::make(root.path() + "/lock", flags::create);
        REQUIRE(lock);
        REQUIRE(!plock::make(orv::path(""), flags::none)); // leaves another error
        REQUIRE(refuse_calls({{kLockCall, ENOLCK}}));
        REQUIRE(lock->lock(type::exclusive) == result::failed);
        return orv::_get_orverrno();
    });
    EXPECT_EQ(outcome.status, 2) << outcome.err;
}

TEST(Lock, OfAFileInADirectoryOfOthersTellsWhy)
{
    const TemporaryRoot root;
    const std::string directory = root.path() + "/run";
    std::filesystem::create_directory(directory);
    std::filesystem::permissions(directory, std::filesystem::perms::all);
    const Outcome outcome = in_child([&] {
        setenv("ORV_ROOT", root.path().c_str(), 1);
        return plock::make(directory + "/lock", flags::create) ? 0 : orv::_get_orverrno();
    });
    EXPECT_EQ(outcome.status, 2);
    EXPECT_EQ(logged(outcome.err), std::vector<std::string>{"0 cannot trust the directory " + directory +
                                                            ": others can write to it"});
}

TEST(Lock, LeavesTheFilesContentAlone)
{
    const TemporaryRoot root;
    const std::string file = root.path() + "/orvbrokerd.version";
    spill(file, "1.3");
    const plock lock = locked(file, type::exclusive);
    EXPECT_EQ(slurp(file), "1.3");
}

} // namespace
