// Opening a store: why it fails, who is told, and how it is tried again.

#include "process_support.h"

#include <orvstore/transaction.h>

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

using namespace orv::store;
using orv::Error;
namespace fs = std::filesystem;

namespace {

constexpr std::size_t kMapSize = std::size_t{1024} * 1024;

/// What stores have told, each line after the number of its severity.
std::vector<std::string>& told()
{
    static std::vector<std::string> lines;
    return lines;
}

void tell(Severity severity, const std::string& text)
{
    told().push_back(std::to_string(static_cast<int>(severity)) + " " + text);
}

using Lines = std::vector<std::string>;

class OpeningTest : public testing::Test {
protected:
    void SetUp() override { told().clear(); }

    static Layout layout(const char* directory = "store", const char* tree = "a")
    {
        return {directory, {tree}, kMapSize, true, tell};
    }

    [[nodiscard]] std::string directory() const { return m_root.path() + "/store"; }
    [[nodiscard]] std::string data_file() const { return directory() + "/data.mdb"; }
    [[nodiscard]] std::string lock_file() const { return directory() + "/lock.mdb"; }

    /// Gives up root's right to ignore permissions.
    [[nodiscard]] bool become_nobody() const
    {
        constexpr uid_t kNobody = 65534;
        return geteuid() != 0 ||
               (chown(m_root.path().c_str(), kNobody, kNobody) == 0 && setuid(kNobody) == 0);
    }

    TemporaryRoot m_root;
};

TEST_F(OpeningTest, Keeps_why_it_has_failed_and_what_is_in_the_way)
{
    struct Case {
        std::function<void()> obstacle;
        Failure::Kind kind;
        std::string path, doing, reason;
    };
    const Case cases[] = {
        {[&] { spill(directory(), "in the way"); }, Failure::Kind::directory, directory(),
         "create the directory", "Not a directory"},
        {[&] { spill(data_file(), "garbage"); }, Failure::Kind::damage, data_file(),
         "use the data file, it is damaged", "no store's first page"},
        {[&] { fs::create_directory(data_file()); }, Failure::Kind::damage, data_file(),
         "use the data file, it is damaged", "no regular file"},
        {[&] { fs::create_symlink("data.mdb", data_file()); }, Failure::Kind::data_file, data_file(),
         "open the data file", std::strerror(ELOOP)},
        {[&] { fs::create_directory(lock_file()); }, Failure::Kind::lock_file, lock_file(),
         "open the lock file", "Is a directory"},
    };
    for (const Case& one : cases) {
        fs::remove_all(directory());
        if (one.kind != Failure::Kind::directory)
            fs::create_directory(directory());
        one.obstacle();
        told().clear();
        Environment environment(layout());
        ASSERT_EQ(environment.open(), Error::input_output) << one.doing;
        EXPECT_EQ(environment.failure().kind, one.kind) << one.doing;
        EXPECT_EQ(environment.failure().path, one.path);
        EXPECT_EQ(environment.failure().doing, one.doing);
        EXPECT_EQ(environment.failure().reason, one.reason);
        EXPECT_EQ(told(), Lines{"0 store store: cannot " + one.doing + ": " + one.reason});
        EXPECT_FALSE(environment.is_wanted());
        EXPECT_EQ(environment.generation(), 0U);
    }
}

TEST_F(OpeningTest, Of_a_lock_file_that_cannot_be_created_names_the_directory)
{
    const Outcome outcome = in_child([&]() -> int {
        REQUIRE(become_nobody());
        REQUIRE(mkdir(directory().c_str(), 0500) == 0);
        Environment environment(layout());
        REQUIRE(environment.open() == Error::input_output);
        REQUIRE(environment.failure().kind == Failure::Kind::lock_file);
        REQUIRE(environment.failure().path == directory());
        REQUIRE(environment.failure().text() == "cannot open the lock file: Permission denied");
        return 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
}

TEST_F(OpeningTest, Where_others_could_have_planted_something_is_refused)
{
    ASSERT_EQ(chmod(m_root.path().c_str(), 0777), 0);
    Environment environment(layout());
    EXPECT_EQ(environment.open(), Error::input_output);
    EXPECT_EQ(environment.failure().kind, Failure::Kind::directory);
    EXPECT_EQ(told(), Lines{"0 store store: cannot trust the directory " + m_root.path() +
                            ": others can write to it"});
    ASSERT_EQ(chmod(m_root.path().c_str(), 0755), 0);
    EXPECT_EQ(environment.open(), Error::none);
}

TEST_F(OpeningTest, That_succeeds_leaves_no_failure)
{
    Environment environment(layout());
    EXPECT_EQ(environment.failure().kind, Failure::Kind::none);
    spill(directory(), "in the way");
    ASSERT_EQ(environment.open(), Error::input_output);
    fs::remove(directory());
    ASSERT_EQ(environment.open(), Error::none);
    EXPECT_EQ(environment.failure().kind, Failure::Kind::none);
    environment.close();
    EXPECT_EQ(environment.failure().kind, Failure::Kind::none);
}

TEST_F(OpeningTest, That_nobody_listens_to_does_no_harm)
{
    Layout silent = layout();
    silent.report = nullptr;
    spill(directory(), "in the way");
    Environment environment(silent);
    EXPECT_EQ(environment.open(), Error::input_output);
    EXPECT_EQ(told(), Lines{});
}

TEST_F(OpeningTest, Of_a_store_that_went_is_tried_again_and_told_once_each_way)
{
    Environment environment(layout());
    ASSERT_EQ(environment.open(), Error::none);
    fs::rename(directory(), m_root.path() + "/away");
    spill(directory(), "in the way");
    for (int i = 0; i < 3; ++i)
        environment.refresh();
    EXPECT_EQ(environment.failure().kind, Failure::Kind::directory);
    EXPECT_TRUE(environment.is_wanted());
    EXPECT_EQ(environment.generation(), 0U);
    fs::remove(directory());
    fs::rename(m_root.path() + "/away", directory());
    environment.refresh(); // at once, as there is another file by now
    EXPECT_EQ(environment.failure().kind, Failure::Kind::none);
    EXPECT_EQ(environment.generation(), 1U) << "it is the same store";
    EXPECT_EQ(told(), (Lines{"0 store store: cannot create the directory: Not a directory",
                             "2 store store: is back"}));
}

TEST_F(OpeningTest, Of_another_store_that_succeeds_at_the_second_attempt_counts_as_another_one)
{
    const Outcome outcome = in_child([&]() -> int {
        REQUIRE(become_nobody());
        {
            Environment other(layout("other", "b"));
            REQUIRE(other.open() == Error::none);
        }
        Environment environment(layout());
        REQUIRE(environment.open() == Error::none);
        const unsigned first = environment.generation();
        fs::rename(m_root.path() + "/other/data.mdb", data_file());
        fs::permissions(data_file(), fs::perms::owner_read); // so that its trees cannot be made
        environment.refresh();
        REQUIRE(environment.generation() == 0);
        REQUIRE(environment.failure().doing == "open the trees");
        fs::permissions(data_file(), fs::perms::owner_read | fs::perms::owner_write);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (environment.generation() == 0 && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
            environment.refresh();
        }
        REQUIRE(environment.generation() != 0);
        REQUIRE(environment.generation() != first);
        return 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
}

} // namespace

TEST_F(OpeningTest, Takes_the_place_of_a_dead_reader)
{
    Environment environment(layout()); // while it is open, the table of readers stays
    ASSERT_EQ(environment.open(), Error::none);
    for (int i = 0; i < 130; ++i) { // more than have a place in it
        const pid_t process = fork();
        if (process == 0) {
            Environment own(layout());
            const Error error = own.open();
            (void)kill(getpid(), error == Error::none ? SIGKILL : SIGTERM);
        }
        ASSERT_EQ(wait_for(process), 1000 + SIGKILL) << i;
    }
    const Outcome outcome = in_child([]() -> int {
        Environment own(layout());
        REQUIRE(own.open() == Error::none);
        return 0;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_EQ(told(), Lines{});
}
