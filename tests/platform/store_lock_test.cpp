// Key locks between processes and within one.

#include "refusal_support.h"
#include "store_support.h"

#include <orvutils/error.h>
#include <orvutils/log_control.h>

#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <filesystem>

using namespace orv::setMgmt;

namespace {

#ifdef SYS_fcntl64
constexpr long kLockCall = SYS_fcntl64;
#else
constexpr long kLockCall = SYS_fcntl;
#endif

class KeyLockTest : public StoreTest {
protected:
    /// lockKey() as another process gets it.
    static int lock_elsewhere(const std::string& key)
    {
        return in_child([&] { return -lockKey(key); }).status;
    }
};

/// Takes the lock, says "l", and gives it back when it is spoken to; then says "u" and waits to be killed.
int hold_lock(Companion::Ends ends, const char* key)
{
    char byte = 0;
    REQUIRE(lockKey(key) == 0);
    REQUIRE(write(ends.out, "l", 1) == 1);
    REQUIRE(read(ends.in, &byte, 1) == 1);
    REQUIRE(unlockKey(key) == 0);
    REQUIRE(write(ends.out, "u", 1) == 1);
    return static_cast<int>(read(ends.in, &byte, 1));
}

} // namespace

TEST_F(KeyLockTest, A_lock_is_exclusive_between_processes_until_it_is_given_back)
{
    Companion holder([](Companion::Ends ends) { return hold_lock(ends, "/l"); });
    ASSERT_EQ(holder.hear(), 'l');
    EXPECT_EQ(lockKey("/l"), -3);
    EXPECT_EQ(orv::_get_orverrno(), 3);
    EXPECT_EQ(unlockKey("/l"), -1) << "it is not held here";
    holder.say('u');
    ASSERT_EQ(holder.hear(), 'u');
    EXPECT_EQ(lockKey("/l"), 0);
    EXPECT_EQ(unlockKey("/l"), 0);
}

TEST_F(KeyLockTest, Waiting_ends_within_a_second)
{
    Companion holder([](Companion::Ends ends) { return hold_lock(ends, "/l"); });
    ASSERT_EQ(holder.hear(), 'l');
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(lockKey("/l"), -3);
    const auto waited = std::chrono::steady_clock::now() - start;
    EXPECT_GE(waited, std::chrono::milliseconds(890));
    EXPECT_LE(waited, std::chrono::milliseconds(2900));
}

TEST_F(KeyLockTest, Who_was_waited_for_in_vain_is_not_waited_for_again_at_once)
{
    Companion holder([](Companion::Ends ends) { return hold_lock(ends, "/l"); });
    ASSERT_EQ(holder.hear(), 'l');
    EXPECT_EQ(lockKey("/l"), -3);
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 10; ++i)
        EXPECT_EQ(lockKey("/l"), -3);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2900));
    holder.say('u');
    ASSERT_EQ(holder.hear(), 'u');
    EXPECT_EQ(lockKey("/l"), 0) << "which is free again";
    EXPECT_EQ(unlockKey("/l"), 0);
}

TEST_F(KeyLockTest, A_lock_that_was_waited_for_in_vain_is_not_waited_for_until_it_could_be_had)
{
    const auto wait_in_vain = [] {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(lockKey("/stuck"), -3);
        return std::chrono::steady_clock::now() - start;
    };
    for (int i = 0; i < 2; ++i) {
        Companion holder([](Companion::Ends ends) { return hold_lock(ends, "/stuck"); });
        ASSERT_EQ(holder.hear(), 'l');
        EXPECT_GE(wait_in_vain(), std::chrono::milliseconds(890));
        const auto start = std::chrono::steady_clock::now();
        for (int k = 0; k < 100; ++k)
            (void)wait_in_vain();
        EXPECT_LE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
        holder.say('u');
        ASSERT_EQ(holder.hear(), 'u');
        EXPECT_EQ(lockKey("/stuck"), 0);
        EXPECT_EQ(unlockKey("/stuck"), 0);
    }
}

TEST_F(KeyLockTest, A_waiting_process_gets_the_lock_when_it_is_given_back)
{
    ASSERT_EQ(lockKey("/l"), 0);
    Companion waiter([](Companion::Ends ends) -> int {
        REQUIRE(unlockKey("/l") == 0); // the copy of the parent's descriptor does not count
        REQUIRE(write(ends.out, "w", 1) == 1);
        return -lockKey("/l");
    });
    ASSERT_EQ(waiter.hear(), 'w');
    ASSERT_EQ(unlockKey("/l"), 0);
    EXPECT_EQ(waiter.join(), 0);
}

TEST_F(KeyLockTest, Locks_are_counted_within_a_process)
{
    ASSERT_EQ(lockKey("/l"), 0);
    ASSERT_EQ(lockKey("//l/"), 0) << "the same key";
    ASSERT_EQ(unlockKey("/l"), 0);
    Companion other([](Companion::Ends) -> int {
        // Its share of the lock's descriptor must not stay open: it would hold the lock, too.
        REQUIRE(unlockKey("/l") == 0);
        return -lockKey("/l");
    });
    EXPECT_EQ(other.join(), 3);
    EXPECT_EQ(unlockKey("/l"), 0);
    EXPECT_EQ(unlockKey("/l"), -1);
    EXPECT_EQ(lock_elsewhere("/l"), 0);
}

TEST_F(KeyLockTest, A_lock_falls_when_its_holder_is_killed)
{
    Companion holder([](Companion::Ends ends) { return hold_lock(ends, "/l"); });
    ASSERT_EQ(holder.hear(), 'l');
    holder.kill();
    ASSERT_EQ(holder.join(), 1000 + SIGKILL);
    EXPECT_EQ(lockKey("/l"), 0);
}

TEST_F(KeyLockTest, Locks_of_different_keys_do_not_meet)
{
    Companion holder([](Companion::Ends ends) { return hold_lock(ends, "/l"); });
    ASSERT_EQ(holder.hear(), 'l');
    for (const char* key : {"/l/l", "/", "/m", "/tmp/l"})
        EXPECT_EQ(lockKey(key), 0);
}

TEST_F(KeyLockTest, The_key_need_not_exist_and_the_store_need_not_be_open)
{
    uninit();
    EXPECT_EQ(lockKey("/never/written"), 0);
    EXPECT_EQ(unlockKey("/never/written"), 0);
}

TEST_F(KeyLockTest, The_lock_directory_may_go_and_comes_back)
{
    ASSERT_EQ(lockKey("/l"), 0);
    std::filesystem::remove_all(m_root.path() + "/tmp/locks");
    ASSERT_EQ(lockKey("/m"), 0);
    EXPECT_EQ(unlockKey("/l"), 0);
    EXPECT_EQ(lock_elsewhere("/l"), 0);
}

TEST_F(KeyLockTest, A_lock_directory_that_others_can_write_to_is_not_used)
{
    const std::string locks = m_root.path() + "/tmp/locks";
    std::filesystem::create_directories(locks);
    std::filesystem::permissions(locks, std::filesystem::perms::all);
    const Outcome other = in_child([] { return -lockKey("/new"); });
    EXPECT_EQ(other.status, 2);
    EXPECT_EQ(logged(other.err),
              std::vector<std::string>{"0 cannot trust the directory " + locks + ": others can write to it"});
    EXPECT_FALSE(std::filesystem::exists(locks + "/settings"));
}

TEST_F(KeyLockTest, A_file_system_without_locks_is_an_error_and_a_line)
{
    const Outcome other = in_child([] {
        REQUIRE(refuse_calls({{kLockCall, ENOLCK}}));
        return -lockKey("/new");
    });
    EXPECT_EQ(other.status, 2);
    EXPECT_EQ(logged(other.err), std::vector<std::string>{"0 cannot take a lock: No locks available"});
}

TEST_F(KeyLockTest, What_is_no_key_cannot_be_locked)
{
    for (const std::string& key : {std::string(), std::string("/a\0b", 4), std::string(600, 'x')}) {
        EXPECT_EQ(lockKey(key), -1);
        EXPECT_EQ(unlockKey(key), -1);
        EXPECT_EQ(orv::_get_orverrno(), 1);
    }
}

TEST_F(KeyLockTest, The_place_of_a_lock_is_that_of_other_versions)
{
    ASSERT_EQ(lockKey("/a"), 0);
    // FNV-1a of the key, without its two highest bits
    std::uint64_t hash = 14695981039346656037U;
    hash = (hash ^ 'a') * 1099511628211U;
    const Fd file(open((m_root.path() + "/tmp/locks/settings").c_str(), O_RDWR | O_CLOEXEC));
    struct flock range {};
    range.l_type = F_WRLCK;
    range.l_whence = SEEK_SET;
    range.l_start = static_cast<off_t>(hash / 4);
    range.l_len = 1;
    EXPECT_EQ(fcntl(file, F_OFD_SETLK, &range), -1) << "it is taken";
    ++range.l_start;
    EXPECT_EQ(fcntl(file, F_OFD_SETLK, &range), 0);
    EXPECT_EQ(unlockKey("/a"), 0);
}

TEST_F(KeyLockTest, A_link_in_the_place_of_the_lock_file_is_not_followed)
{
    const std::string locks = m_root.path() + "/tmp/locks";
    const std::string elsewhere = m_root.path() + "/elsewhere";
    std::filesystem::create_directories(locks);
    std::filesystem::create_symlink(elsewhere, locks + "/settings");
    orv::log::begin_anew(); // else the log itself counts what repeats
    testing::internal::CaptureStderr();
    EXPECT_EQ(lockKey("/new"), -2);
    EXPECT_EQ(logged(testing::internal::GetCapturedStderr()),
              std::vector<std::string>{"0 cannot open the lock file " + locks +
                                       "/settings: Too many levels of symbolic links"});
    EXPECT_FALSE(std::filesystem::exists(elsewhere));
    spill(elsewhere, "its own");
    EXPECT_EQ(lockKey("/new"), -2);
    EXPECT_EQ(slurp(elsewhere), "its own");
}
