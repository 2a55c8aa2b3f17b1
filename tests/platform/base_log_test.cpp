// Log lines, byte by byte. Each test logs in a child process, whose standard error is caught.

#include "base_support.h"
#include "memory_support.h"
#include "process_support.h"

#include <orvutils/log_control.h>
#include <orvutils/log_format.h>

#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <regex>
#include <string>

namespace {
int g_interrupted_writes = 0; ///< of the next ones
} // namespace

// The linker sends every call of write() here.
extern "C" {
ssize_t __real_write(int fd, const void* data, std::size_t size);
ssize_t __wrap_write(int fd, const void* data, std::size_t size)
{
    if (g_interrupted_writes == 0)
        return __real_write(fd, data, size);
    --g_interrupted_writes;
    errno = EINTR;
    return -1;
}
}

namespace {

using namespace orv::log;

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
        for (int i = 0; std::time(nullptr) < begin + 2; ++i)
            ORV_LOG(kInfo, "{}", i);
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

/// What a message looks like in the log, from its first byte to the end of its line.
std::string written(const std::string& message)
{
    const Outcome outcome = in_child([&] {
        ORV_LOG(kInfo, "{}", message);
        return 0;
    });
    return outcome.err.substr(outcome.err.find("()]: ") + 5);
}

TEST(LogLine, OneLineFeedOfTheMessageIsKeptAndOneIsAdded)
{
    EXPECT_EQ(written("one\n"), "one\n\n");
    EXPECT_EQ(written("\n"), "\n\n");
    EXPECT_EQ(written("\n\n"), "\\x0a\n\n");
    EXPECT_EQ(written("a forged\nline\n"), "a forged\\x0aline\n\n");
}

TEST(LogLine, ControlCharactersAreEscapedWhereverTheyStandAndAllElseStaysAsItIs)
{
    const std::string before = "\xc3\xc3\xc3\xc3\xc3\xc3\xc3\xc3\xc3\xc3\xc3\xc3\xc3"; // any place in a word
    const Outcome outcome = in_child([&] {
        for (int byte = 0; byte < 256; ++byte)
            for (const std::size_t size : {0U, 5U, 13U})
                ORV_LOG(kInfo, "{}{}end", before.substr(0, size), static_cast<char>(byte));
        return 0;
    });
    const auto lines = lines_of(outcome.err);
    ASSERT_EQ(lines.size(), 3U * 256U);
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const auto byte = static_cast<unsigned char>(i / 3);
        const bool control = byte < 0x20 || byte == 0x7f;
        const std::string shown =
            control ? fmt::format("\\x{:02x}", byte) : std::string(1, static_cast<char>(byte));
        const std::size_t size = i % 3 == 0 ? 0 : i % 3 == 1 ? 5 : 13;
        EXPECT_EQ(lines[i].substr(lines[i].find("()]: ") + 5), before.substr(0, size) + shown + "end");
    }
    EXPECT_EQ(written("caf\u00e9 \u6771\u4eac \\x1b"), "caf\u00e9 \u6771\u4eac \\x1b\n");
    EXPECT_EQ(written("\x1b]0;title\a\r"), "\\x1b]0;title\\x07\\x0d\n");
}

TEST(LogLine, IsCutAtItsBoundAndTellsItsLength)
{
    const std::string head = written("").empty() ? "" : "[some/file.cpp:42][work()]: ";
    const auto text_of = [&](const std::string& message) {
        const Outcome outcome = in_child([&] {
            vformat_and_print(kDefaultChannel, kInfo, kSource, "{}", fmt::make_format_args(message));
            return 0;
        });
        return rest_of(outcome.err);
    };
    const std::size_t room = kMaxText - head.size();
    const auto cut = [&](const std::string& start, std::size_t size) {
        return fmt::format("{}{}... ({} bytes)\n", head, start, head.size() + size);
    };
    EXPECT_EQ(text_of(std::string(room, 'm')), head + std::string(room, 'm') + "\n");
    EXPECT_EQ(text_of(std::string(room + 1, 'm')), cut(std::string(room, 'm'), room + 1));
    EXPECT_EQ(text_of(std::string(4000000, 'm')), cut(std::string(room, 'm'), 4000000));
    // Between characters, and counted as they are written.
    EXPECT_EQ(text_of(std::string(room - 1, 'm') + "\u00e9"), cut(std::string(room - 1, 'm'), room + 1));
    EXPECT_EQ(text_of(std::string(room - 2, 'm') + "\u6771x"), cut(std::string(room - 2, 'm'), room + 2));
    EXPECT_EQ(text_of(std::string(room - 4, 'm') + "\xf0\x9f\x98\x80"),
              head + std::string(room - 4, 'm') + "\xf0\x9f\x98\x80\n");
    EXPECT_EQ(text_of(std::string(room - 3, 'm') + "\x1b"
                                                   "x"),
              cut(std::string(room - 3, 'm'), room - 1));
    EXPECT_EQ(text_of(std::string(room + 9, '\x80')), cut(std::string(room, '\x80'), room + 9));
    std::string escapes;
    for (std::size_t i = 0; i < room / 4; ++i)
        escapes += "\\x00";
    EXPECT_EQ(text_of(std::string(5000, '\0')), cut(escapes, 5000));
}

TEST(LogLine, ThatSomebodyElseHasMadeIsCutAndEscapedToo)
{
    const auto print_text = [](std::string text) {
        const Outcome outcome = in_child([&] {
            std::string line = kPrefixArea + text;
            print(kDefaultChannel, kInfo, {line.data(), line.size()});
            return 0;
        });
        return rest_of(outcome.err);
    };
    EXPECT_EQ(print_text("\tx\n"), "\\x09x\n");
    EXPECT_EQ(print_text("no end"), "no end\n");
    EXPECT_EQ(print_text(""), "\n");
    EXPECT_EQ(print_text("\n"), "\n");
    EXPECT_EQ(print_text(std::string(100000, 'm') + "\n"),
              std::string(kMaxText, 'm') + "... (100000 bytes)\n");
    EXPECT_EQ(print_text(std::string(2000, '\x01') + "\n").size(), kMaxText + sizeof "... (2000 bytes)");
}

TEST(LogLine, IsWrittenWithOneWriteHoweverLong)
{
    const Ends ends = make_sockets(SOCK_SEQPACKET);
    const std::string message(1900, 'm');
    (void)in_child([&] {
        dup2(ends.second, STDERR_FILENO);
        ORV_LOG(kInfo, "{}", "short");
        ORV_LOG(kInfo, "{}", message);
        ORV_LOG(kInfo, "\x1b{}", message);
        return 0;
    });
    char packet[8192];
    for (const std::string& expected : {std::string("short"), message, "\\x1b" + message}) {
        const ssize_t size = recv(ends.first, packet, sizeof packet, MSG_DONTWAIT);
        ASSERT_GT(size, 0);
        const std::string line(packet, static_cast<std::size_t>(size));
        EXPECT_EQ(line.substr(line.find("]: ") + 3), expected + "\n");
    }
}

TEST(LogLine, TakesNoMemory)
{
    const std::string message(4000000, 'm');
    const Outcome outcome = in_child([&] {
        log_plain(kInfo, "the first line finds out where it goes");
        const FailingMemory memory(1, /*from_then_on=*/true);
        ORV_LOG(kInfo, "{}", message);
        ORV_LOG(kInfo, "{} \x1b {}", 42, message);
        return FailingMemory::allocations() == 0 ? 0 : 1;
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(lines_of(outcome.err).size(), 3U);
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

TEST(LogLine, IsNotWrittenToWhatStandardErrorWasBeforeItWasClosed)
{
    const Ends pipe = make_pipe();
    const Outcome outcome = in_child([&] {
        dup2(pipe.second, STDERR_FILENO);
        log_plain(kError, "before");
        close(STDERR_FILENO);
        log_plain(kError, "after");
        return 0;
    });
    EXPECT_EQ(outcome.status, 0);
    char text[1000] = "";
    const ssize_t size = read(pipe.first, text, sizeof text - 1);
    ASSERT_GT(size, 0);
    EXPECT_EQ(logged(text), std::vector<std::string>{"0 before"});
}

TEST(LogLine, WhoseWritingASignalInterruptsIsWrittenAllTheSame)
{
    const Outcome outcome = in_child([] {
        g_interrupted_writes = 2;
        log_plain(kError, "x");
        return g_interrupted_writes;
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(logged(outcome.err), std::vector<std::string>{"0 x"});
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

} // namespace
