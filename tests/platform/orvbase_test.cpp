// The base of all libraries: error numbers, descriptors, the clock, reading, the texts of paths.

#include "base_support.h"

#include <orvbase/clock.h>
#include <orvbase/error_number.h>
#include <orvbase/io.h>
#include <orvbase/path_text.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <string>
#include <string_view>
#include <utility>

namespace {

using namespace orv::base;
using orv::Error;

bool is_open(int fd)
{
    return fcntl(fd, F_GETFD) != -1;
}

TEST(ErrorNumber, IsTheOneNotedLastAndAFailureReturnsItNegatedOrMinusOne)
{
    set_error(Error::no_value);
    EXPECT_EQ(error_number(), 5);
    EXPECT_EQ(fail(Error::timed_out), -3);
    EXPECT_EQ(error_number(), 3);
    EXPECT_EQ(failed(Error::no_such_key), -1);
    EXPECT_EQ(error_number(), 4);
    set_error(Error::none);
}

TEST(Descriptor, IsClosedWithItsOwner)
{
    int fd = -1;
    {
        const orv::base::Descriptor owner(open("/dev/null", O_RDONLY | O_CLOEXEC));
        fd = owner.get();
        EXPECT_TRUE(owner.is_open());
        EXPECT_TRUE(is_open(fd));
    }
    EXPECT_FALSE(is_open(fd));
}

TEST(Descriptor, MovesResetsAndReleases)
{
    orv::base::Descriptor first(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const int fd = first.get();
    orv::base::Descriptor second(std::move(first));
    EXPECT_FALSE(first.is_open()); // NOLINT(bugprone-use-after-move): that is the question
    orv::base::Descriptor third;
    third = std::move(second);
    EXPECT_EQ(third.get(), fd);
    EXPECT_EQ(third.release(), fd);
    EXPECT_TRUE(is_open(fd));
    third = orv::base::Descriptor(fd);
    third.reset();
    EXPECT_FALSE(third.is_open());
    EXPECT_FALSE(is_open(fd));
}

TEST(Clock, OfATimerExpiresOnceAtTheTimeGiven)
{
    const TimePoint when(std::chrono::milliseconds(12345678));
    const itimerspec spec = expiry_at(when);
    EXPECT_EQ(spec.it_value.tv_sec, 12345);
    EXPECT_EQ(spec.it_value.tv_nsec, 678000000);
    EXPECT_EQ(spec.it_interval.tv_sec, 0);
    EXPECT_EQ(spec.it_interval.tv_nsec, 0);
}

TEST(Clock, OfATimerIsNeverSwitchedOffByATimeThatHasPassed)
{
    for (const TimePoint when : {TimePoint{}, TimePoint{} - std::chrono::hours(1)}) {
        const itimerspec spec = expiry_at(when);
        EXPECT_EQ(spec.it_value.tv_sec, 0);
        EXPECT_EQ(spec.it_value.tv_nsec, 1);
    }
}

TEST(Clock, ThatIsCoarseIsTheSameOne)
{
    using std::chrono::milliseconds;
    const auto now = std::chrono::duration_cast<milliseconds>(Clock::now().time_since_epoch()).count();
    EXPECT_NEAR(static_cast<double>(coarse_now_ms()), static_cast<double>(now), 1000);
}

TEST(Reading, GoesOnAfterASignal)
{
    const Ends ends = make_pipe();
    const int writer = ends.second;
    const Outcome outcome = in_child([&]() -> int {
        struct sigaction action {};
        action.sa_handler = [](int) {}; // without SA_RESTART
        sigaction(SIGALRM, &action, nullptr);
        static int end = -1;
        end = writer;
        action.sa_handler = [](int) { (void)!write(end, "x", 1); };
        sigaction(SIGALRM, &action, nullptr);
        alarm(1); // interrupts the reading, which then finds what was written meanwhile
        char byte = 0;
        return read_some(ends.first, &byte, 1) == 1 && byte == 'x' ? 0 : 1;
    });
    EXPECT_EQ(outcome.status, 0);
}

TEST(Reading, FullyTakesExactlyWhatIsThere)
{
    const TemporaryRoot root;
    spill(root.path() + "/file", "0123456789");
    const Fd file(open((root.path() + "/file").c_str(), O_RDONLY | O_CLOEXEC));
    std::string text(4, ' ');
    EXPECT_TRUE(read_fully(file, text.data(), text.size(), 6));
    EXPECT_EQ(text, "6789");
    EXPECT_FALSE(read_fully(file, text.data(), text.size(), 7));
    EXPECT_FALSE(read_fully(-1, text.data(), text.size(), 0));
}

TEST(PathText, HasSingleSlashesAndNoneAtTheEnd)
{
    const struct {
        std::string_view path, piece, result;
    } cases[] = {
        {"", "", ""},        {"", "a", "a"},
        {"", "/", "/"},      {"", "//a//b//", "/a/b"},
        {"/", "", "/"},      {"/", "a", "/a"},
        {"/a", "b", "/a/b"}, {"/a", "/b", "/a/b"},
        {"/a", "", "/a"},    {"/a", "//b///c/", "/a/b/c"},
        {"a", "..", "a/.."}, {"/a", "/", "/a"},
    };
    for (const auto& [path, piece, result] : cases) {
        std::string text(path);
        append_path(text, piece);
        EXPECT_EQ(text, result) << path << " and " << piece;
    }
}

} // namespace
