// Stores on kernels and file systems that lack something: they do without, or say in one line what is
// missing.

#include "orvstore_support.h"
#include "process_support.h"
#include "refusal_support.h"

#include <orvstore/notify.h>
#include <orvstore/transaction.h>

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

using namespace orv::store;
using orv::Error;
namespace fs = std::filesystem;

namespace {

using Lines = std::vector<std::string>;

constexpr std::uintmax_t kLockFileSize = 8192; // 64 bytes for each of two locks and of 126 readers

Lines& told()
{
    static Lines lines;
    return lines;
}

void tell(Severity severity, const std::string& text)
{
    told().push_back(std::to_string(static_cast<int>(severity)) + " " + text);
}

class FallbackTest : public testing::Test {
protected:
    void SetUp() override { told().clear(); }

    static Layout layout() { return {"store", {"a"}, std::size_t{1024} * 1024, true, tell}; }

    [[nodiscard]] std::string directory() const { return m_root.path() + "/store"; }
    [[nodiscard]] std::string locks() const { return m_root.path() + "/tmp/locks"; }

    TemporaryRoot m_root;
};

} // namespace

TEST_F(FallbackTest, Without_fallocate_the_lock_file_is_filled_instead)
{
    for (const int error : {ENOSYS, EOPNOTSUPP}) {
        const Outcome outcome = in_child([&]() -> int {
            REQUIRE(refuse_calls({{SYS_fallocate, error}}));
            Environment environment(layout());
            REQUIRE(environment.open() == Error::none);
            REQUIRE(write(environment, "key", "value") == Error::none);
            REQUIRE(value_in(environment, "key") == "value");
            REQUIRE(fs::file_size(directory() + "/lock.mdb") == kLockFileSize);
            REQUIRE(told().empty());
            return 0;
        });
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        fs::remove_all(directory());
        fs::remove_all(locks());
    }
}

TEST_F(FallbackTest, Without_fallocate_a_full_file_system_is_a_failure_and_no_signal)
{
    fs::create_directories(m_root.path() + "/tmp");
    const Outcome outcome = on_small_disk(m_root.path() + "/tmp", "64k", [&]() -> int {
        REQUIRE(refuse_calls({{SYS_fallocate, EOPNOTSUPP}}));
        fs::create_directory(locks());
        fill_disk(m_root.path() + "/tmp/filler");
        Environment environment(layout());
        REQUIRE(environment.open() == Error::input_output);
        REQUIRE(told() == Lines{"0 store store: cannot allocate the lock file: No space left on device"});
        fs::remove(m_root.path() + "/tmp/filler");
        REQUIRE(environment.open() == Error::none);
        REQUIRE(write(environment, "key", "value") == Error::none);
        return 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
}

TEST_F(FallbackTest, Without_fallocate_the_locks_of_others_are_left_alone)
{
    Environment environment(layout());
    ASSERT_EQ(environment.open(), Error::none);
    ASSERT_EQ(write(environment, "key", "old"), Error::none);
    {
        const Read reading(environment);                            // a mark in the lock file
        const auto size = fs::file_size(directory() + "/lock.mdb"); // whoever closes it would lose its locks
        const Outcome outcome = in_child([&]() -> int {
            REQUIRE(refuse_calls({{SYS_fallocate, EOPNOTSUPP}}));
            Environment own(layout());
            REQUIRE(own.open() == Error::none);
            REQUIRE(fs::file_size(directory() + "/lock.mdb") == size);
            REQUIRE(write(own, "key", "new") == Error::none);
            return 0;
        });
        ASSERT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_EQ(value_in(environment, "key"), "old") << "what is being read stays";
    }
    EXPECT_EQ(value_in(environment, "key"), "new");
    EXPECT_EQ(told(), Lines{});
}

TEST_F(FallbackTest, Without_shared_mappings_of_either_file_the_line_names_the_cause_and_no_data_is_lost)
{
    for (const int protection : {PROT_READ | PROT_WRITE, PROT_READ}) { // of the lock file, of the data file
        const auto open_and_fail = [&]() -> int {
            REQUIRE(refuse_shared_mappings(protection));
            Environment environment(layout());
            REQUIRE(environment.open() == Error::input_output);
            REQUIRE(environment.failure().kind == Failure::Kind::store);
            REQUIRE(told() == Lines{"0 store store: cannot open the store: No such device: the file system "
                                    "perhaps has no shared mappings, as JFFS2"});
            return 0;
        };
        const Outcome of_new = in_child(open_and_fail);
        EXPECT_EQ(of_new.status, 0) << of_new.err;
        {
            Environment environment(layout());
            ASSERT_EQ(environment.open(), Error::none);
            ASSERT_EQ(write(environment, "key", "value"), Error::none);
        }
        const Outcome of_old = in_child(open_and_fail);
        EXPECT_EQ(of_old.status, 0) << of_old.err;
        Environment environment(layout());
        ASSERT_EQ(environment.open(), Error::none);
        EXPECT_EQ(value_in(environment, "key"), "value");
        environment.close();
        fs::remove_all(directory());
        EXPECT_EQ(told(), Lines{});
    }
}

TEST_F(FallbackTest, Without_the_kernels_notices_there_is_a_line_and_no_watch)
{
    struct Case {
        long call;
        int error;
        std::string line;
    };
    const Case cases[] = {
        {SYS_inotify_init1, EMFILE, "0 cannot open the notification descriptor: Too many open files"},
        {SYS_inotify_add_watch, ENOSPC,
         "0 cannot watch " + directory() + "/data.mdb" + ": No space left on device"},
    };
    for (const Case& one : cases) {
        const Outcome outcome = in_child([&]() -> int {
            REQUIRE(refuse_calls({{one.call, one.error}}));
            Environment environment(layout());
            REQUIRE(environment.open() == Error::none);
            notify::watch(environment);
            for (int i = 0; i < 3; ++i) // it is told once
                REQUIRE((notify::descriptor() >= 0) == (one.call == SYS_inotify_add_watch));
            REQUIRE(told() == Lines{one.line});
            if (one.call == SYS_inotify_add_watch)
                notify::wake();
            notify::unwatch(environment);
            REQUIRE(one.call == SYS_inotify_init1 ||
                    told().back() == "0 cannot wake up the notification descriptor: No space left on device");
            return 0;
        });
        EXPECT_EQ(outcome.status, 0) << outcome.err;
    }
}
