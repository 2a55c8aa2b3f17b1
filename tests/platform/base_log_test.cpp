// Log lines, byte by byte. Each test logs in a child process, whose standard error is caught.

#include "base_support.h"

#include <orvutils/log_control.h>
#include <orvutils/log_format.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <regex>
#include <string>

// What the library hands to syslog: the linker sends it here, and it is told on standard output. With
// fortified headers the library calls the second name.
extern "C" {
void __wrap_syslog(int priority, const char* format, ...);
void __wrap___syslog_chk(int priority, int flag, const char* format, ...);
}

namespace {

using namespace orv::log;

void tell_syslog(int priority, const char* format, std::va_list arguments)
{
    std::printf("<%d>", priority);
    std::vprintf(format, arguments); // NOLINT(clang-analyzer-valist.Uninitialized): the callers began it
    std::printf("$\n");
}

constexpr Source kSource = {"some/file.cpp", 42, "work"};

void log_plain(int level, fmt::string_view text)
{
    vformat_and_print(kDefaultChannel, level, kSource, text, {});
}

/// A line's bytes after the prefix area.
std::string rest_of(const std::string& line)
{
    return line.size() > kPrefixAreaSize ? line.substr(kPrefixAreaSize) : "";
}

TEST(LogLine, HasTheFixedWidthAreaThenItsSourceThenTheMessage)
{
    const Outcome outcome = in_child([] {
        log_plain(kWarning, "hello");
        return 0;
    });
    const std::regex layout(
        R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} [ \d]{6}\d     1 \[some/file\.cpp:42\]\[work\(\)\]: hello\n)");
    EXPECT_TRUE(std::regex_match(outcome.err, layout)) << outcome.err;
}

TEST(LogLine, MacroTellsFileLineAndFunctionOfItsCaller)
{
    const Outcome outcome = in_child([] {
        ORV_LOG(kError, "{} and {:s}", __LINE__, "two");
        return 0;
    });
    const std::regex layout(R"(\[(.*base_log_test\.cpp):(\d+)\]\[operator\(\)\(\)\]: (\d+) and two\n)");
    std::smatch match;
    const std::string rest = rest_of(outcome.err);
    ASSERT_TRUE(std::regex_match(rest, match, layout)) << rest;
    EXPECT_EQ(match.str(1), __FILE__);
    EXPECT_EQ(match.str(2), match.str(3));
}

TEST(LogLine, ProcessIdIsRightAlignedInSevenColumnsAndKnownAnewAfterAFork)
{
    const auto log_once = [] {
        log_plain(kInfo, "x");
        return 0;
    };
    const auto log_in_grandchild = [&] {
        log_once(); // so that this process's number is known when it forks
        const Outcome grandchild = in_child(log_once);
        std::printf("%7d\n", static_cast<int>(grandchild.process));
        std::printf("%s", grandchild.err.c_str());
        return 0;
    };
    const Outcome child = in_child(log_in_grandchild);
    EXPECT_EQ(child.err.substr(24, 7), fmt::format("{:>7}", child.process));
    const auto lines = lines_of(child.out);
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[1].substr(24, 7), lines[0]);
}

TEST(LogLine, LevelIsRightAlignedInFiveColumns)
{
    const Outcome outcome = in_child([] {
        for (int level = kError; level <= kTrace; ++level)
            log_plain(level, "x");
        return 0;
    });
    const auto lines = lines_of(outcome.err);
    ASSERT_EQ(lines.size(), 5U);
    for (std::size_t level = 0; level < lines.size(); ++level)
        EXPECT_EQ(lines[level].substr(31, 7), fmt::format(" {:>5} ", level));
}

std::string local_seconds(std::time_t second)
{
    char text[32] = {};
    std::tm local{};
    localtime_r(&second, &local);
    (void)std::strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S", &local);
    return text;
}

TEST(LogLine, TimeIsLocal)
{
    const Outcome outcome = in_child([] {
        setenv("TZ", "XYZ-5:30", 1);
        tzset();
        const std::time_t stamped = std::time(nullptr); // maybe by the test before this one
        while (std::time(nullptr) == stamped)
            continue;
        timespec before{};
        timespec after{};
        clock_gettime(CLOCK_REALTIME, &before);
        log_plain(kInfo, "x");
        clock_gettime(CLOCK_REALTIME, &after);
        std::printf("%s.%03ld\n%s.%03ld\n", local_seconds(before.tv_sec).c_str(), before.tv_nsec / 1000000,
                    local_seconds(after.tv_sec).c_str(), after.tv_nsec / 1000000);
        return 0;
    });
    const auto bounds = lines_of(outcome.out);
    ASSERT_EQ(bounds.size(), 2U);
    const std::string stamp = outcome.err.substr(0, 23);
    EXPECT_LE(bounds[0], stamp);
    EXPECT_LE(stamp, bounds[1]);
}

TEST(LogLine, TimeMovesOnFromSecondToSecond)
{
    const Outcome outcome = in_child([] {
        const std::time_t begin = std::time(nullptr);
        while (std::time(nullptr) < begin + 2)
            log_plain(kInfo, "x");
        return 0;
    });
    std::string previous;
    std::size_t seconds = 0;
    for (const auto& line : lines_of(outcome.err)) {
        const std::string stamp = line.substr(0, 23);
        EXPECT_LE(previous, stamp);
        EXPECT_EQ(stamp.find(' ', 11), std::string::npos) << "milliseconds have leading zeros";
        seconds += previous.substr(0, previous.find('.')) != stamp.substr(0, 19) ? 1U : 0U;
        previous = stamp;
    }
    EXPECT_GE(seconds, 2U);
    EXPECT_LE(seconds, 3U);
}

TEST(LogLine, LineFeedsOfTheMessageAreKeptAndOneIsAdded)
{
    const Outcome outcome = in_child([] {
        log_plain(kInfo, "one\n");
        log_plain(kInfo, "\n\n");
        return 0;
    });
    const std::string head = "[some/file.cpp:42][work()]: ";
    const auto second = outcome.err.find("\n\n") + 2;
    EXPECT_EQ(rest_of(outcome.err.substr(0, second)), head + "one\n\n");
    EXPECT_EQ(rest_of(outcome.err.substr(second)), head + "\n\n\n");
}

TEST(LogLine, MayBeLong)
{
    const std::string message(1000000, 'm');
    const Outcome outcome = in_child([&] {
        ORV_LOG(kInfo, "{}", message);
        return 0;
    });
    EXPECT_EQ(outcome.err.size(), outcome.err.find("]: ") + 3 + message.size() + 1);
    EXPECT_NE(outcome.err.find("]: " + message + "\n"), std::string::npos);
}

TEST(LogLine, IsWrittenWithOneWriteHoweverLong)
{
    const Ends ends = make_sockets(SOCK_SEQPACKET);
    const std::string message(5000, 'm');
    (void)in_child([&] {
        dup2(ends.second, STDERR_FILENO);
        ORV_LOG(kInfo, "{}", "short");
        ORV_LOG(kInfo, "{}", message);
        return 0;
    });
    char packet[8192];
    for (const std::string& expected : {std::string("short"), message}) {
        const ssize_t size = recv(ends.first, packet, sizeof packet, MSG_DONTWAIT);
        ASSERT_GT(size, 0);
        const std::string line(packet, static_cast<std::size_t>(size));
        EXPECT_EQ(line.substr(line.find("]: ") + 3), expected + "\n");
    }
}

TEST(LogLine, ThatTheReaderTakesInPiecesArrivesWhole)
{
    Ends ends = make_pipe();
    const std::string message(300000, 'm'); // several times what a pipe holds
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        dup2(ends.second, STDERR_FILENO);
        ORV_LOG(kInfo, "{}", message);
        _exit(0);
    }
    ends.second.reset();
    const std::string line = read_until(ends.first, "\n");
    EXPECT_EQ(line.substr(line.find("]: ") + 3), message + "\n");
    EXPECT_EQ(wait_for(child), 0);
}

TEST(LogLine, ThatCannotBeWrittenIsLostWithoutAWordAndLeavesErrno)
{
    const Outcome outcome = in_child([] {
        close(STDERR_FILENO);
        errno = ENOTTY;
        log_plain(kError, "x");
        return errno == ENOTTY ? 0 : 1;
    });
    EXPECT_EQ(outcome.status, 0);
}

TEST(LogLine, ThatNobodyTakesDoesNotStopTheProcess)
{
    const Ends ends = make_pipe();
    ASSERT_NE(fcntl(ends.second, F_SETFL, O_NONBLOCK), -1);
    const Outcome outcome = in_child([&] {
        dup2(ends.second, STDERR_FILENO);
        for (int i = 0; i < 2000; ++i)
            log_plain(kError, "a line of some length, many of which fill a pipe that nobody reads");
        return 3;
    });
    EXPECT_EQ(outcome.status, 3);
}

TEST(LogLine, WithAMessageThatCannotBeFormattedTellsItsFormat)
{
    for (const char* format : {"{", "}", "{0}", "{:d}"}) {
        const Outcome outcome = in_child([&] {
            log_plain(kError, format);
            return 0;
        });
        EXPECT_EQ(outcome.status, 0);
        const std::string expected = fmt::format("[some/file.cpp:42][work()]: cannot format '{}': ", format);
        EXPECT_EQ(rest_of(outcome.err).substr(0, expected.size()), expected);
        EXPECT_EQ(outcome.err.back(), '\n');
    }
}

TEST(LogLine, ShorterThanThePrefixAreaIsWrittenAsItIs)
{
    const Outcome outcome = in_child([] {
        char line[] = "tiny\n";
        print(kDefaultChannel, kInfo, {line, sizeof line - 1});
        return 0;
    });
    EXPECT_EQ(outcome.err, "tiny\n");
}

TEST(LogLevel, OnlyLinesUpToTheThresholdAreWanted)
{
    const Outcome outcome = in_child([] {
        set_threshold(kDebug);
        for (int level = kError; level <= kTrace; ++level)
            ORV_LOG(level, "level {}", level);
        return can_log(kDefaultChannel, kDebug) && !can_log(kDefaultChannel, kTrace) ? 0 : 1;
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(lines_of(outcome.err).size(), 4U);
}

TEST(LogLevel, IsOneDigitFromZeroToFour)
{
    EXPECT_EQ(parse_level("0"), 0);
    EXPECT_EQ(parse_level("4"), 4);
    for (const char* wrong : {"", "5", "-1", "00", "2 ", "x", "\xff"})
        EXPECT_FALSE(parse_level(wrong)) << wrong;
    EXPECT_FALSE(parse_level(nullptr));
}

TEST(LogChannel, CanBeOpenedAnyNumberOfTimesIfThereCanBeOne)
{
    for (const int channel : {kDefaultChannel, kORVSetMgmtChannel, kORVSetMgmtChannel, 1000})
        EXPECT_TRUE(open_channel(channel)) << channel;
    EXPECT_FALSE(open_channel(-1));
}

TEST(LogBackground, LinesGoToSyslogWithoutAreaAndLineFeedsByTheirPriority)
{
    const Outcome outcome = in_child([] {
        use_syslog("probe");
        log_plain(kError, "e");
        log_plain(kWarning, "w %d\n");
        log_plain(kInfo, "i\n\n");
        log_plain(kDebug, "d");
        log_plain(kTrace, "t");
        return 0;
    });
    const std::string head = "[some/file.cpp:42][work()]: ";
    EXPECT_EQ(outcome.err, "");
    EXPECT_EQ(outcome.out, "<3>" + head + "e$\n<4>" + head + "w %d$\n<6>" + head + "i$\n<7>" + head +
                               "d$\n<7>" + head + "t$\n");
}

} // namespace

void __wrap_syslog(int priority, const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    tell_syslog(priority, format, arguments);
    va_end(arguments);
}

void __wrap___syslog_chk(int priority, int /*flag*/, const char* format, ...)
{
    std::va_list arguments;
    va_start(arguments, format);
    tell_syslog(priority, format, arguments);
    va_end(arguments);
}
