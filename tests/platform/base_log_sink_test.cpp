// Logging where nobody reads, and the same line over and over. Each test logs in a child process; one that
// waited would hang it.

#include "base_support.h"
#include "probe_support.h"
#include "refusal_support.h"

#include <orvutils/daemon.h>
#include <orvutils/log_control.h>
#include <orvutils/log_format.h>
#include <orvutils/time.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <utility>
#include <vector>

namespace {

using namespace orv::log;

constexpr Source kSource = {"some/file.cpp", 42, "work"};
constexpr char kHead[] = "[some/file.cpp:42][work()]: ";

template <typename Number>
void log_number(Number number)
{
    vformat_and_print(kDefaultChannel, kInfo, kSource, "line {}, one of many", fmt::make_format_args(number));
}

void log_text(int level, const std::string& text)
{
    vformat_and_print(kDefaultChannel, level, kSource, "{}", fmt::make_format_args(text));
}

/// What lines say, each from its level on; "?" for one that does not begin like a line.
std::vector<std::string> told_by(const std::string& text)
{
    static const std::regex s_line(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} [ \d]{6}\d     (\d \[.*))");
    std::vector<std::string> told;
    for (const std::string& line : lines_of(text)) {
        std::smatch match;
        told.push_back(std::regex_match(line, match, s_line) ? match.str(1) : "? " + line);
    }
    return told;
}

/// Reads what is there, and says it to the test.
std::string drain(int fd)
{
    std::string text;
    char bytes[4096];
    pollfd readable = {fd, POLLIN, 0};
    while (poll(&readable, 1, 0) == 1) {
        const ssize_t size = read(fd, bytes, sizeof bytes);
        if (size <= 0)
            break;
        text.append(bytes, static_cast<std::size_t>(size));
    }
    text.erase(std::remove(text.begin(), text.end(), '\r'), text.end()); // a terminal adds them
    return text;
}

constexpr int kLines = 20000;

/// The test's process gets standard error's other end; `prepare` runs before the first line.
Outcome log_without_a_reader(const Ends& ends, const std::function<void()>& prepare = nullptr)
{
    return in_child([&] {
        dup2(ends.second, STDERR_FILENO);
        if (prepare)
            prepare();
        for (int i = 0; i < kLines; ++i)
            log_number(i);
        const std::string first = drain(ends.first);
        log_number(kLines);
        log_number(kLines + 1);
        (void)!write(STDOUT_FILENO, first.data(), first.size());
        const std::string second = drain(ends.first);
        (void)!write(STDOUT_FILENO, second.data(), second.size());
        return (fcntl(ends.second, F_GETFL) & O_NONBLOCK) == 0 ? 0 : 1;
    });
}

/// Every line is whole; those that are missing were counted, at the place where they are missing.
void expect_gaps_are_told(const Outcome& outcome)
{
    EXPECT_EQ(outcome.status, 0) << "what others share must not change";
    static const std::regex s_lost(R"(1 \[log\]: (\d+) lines lost)");
    int next = 0;
    int gaps = 0;
    for (const std::string& line : told_by(outcome.out)) {
        std::smatch match;
        if (std::regex_match(line, match, s_lost)) {
            next += std::stoi(match.str(1));
            ++gaps;
        } else {
            ASSERT_EQ(line, fmt::format("2 {}line {}, one of many", kHead, next));
            ++next;
        }
    }
    EXPECT_EQ(next, kLines + 2);
    EXPECT_GT(gaps, 0) << "the reader was too quick";
}

TEST(LogWithoutReader, APipeThatIsFullLosesLinesAndTellsHowManyWhenThereIsRoom)
{
    expect_gaps_are_told(log_without_a_reader(make_pipe()));
}

TEST(LogWithoutReader, APipeThatCannotBeOpenedOnceMoreDoesTheSame)
{
    expect_gaps_are_told(log_without_a_reader(make_pipe(), [] {
        const rlimit none = {3, 3};
        setrlimit(RLIMIT_NOFILE, &none);
    }));
}

TEST(LogWithoutReader, AStreamSocketTakesLinesInPartsAndNoneIsTorn)
{
    const Ends ends = make_sockets(SOCK_STREAM);
    const int size = 4096;
    ASSERT_EQ(setsockopt(ends.second, SOL_SOCKET, SO_SNDBUF, &size, sizeof size), 0);
    expect_gaps_are_told(log_without_a_reader(ends));
}

TEST(LogWithoutReader, ATerminalThatIsStoppedLosesLinesAndNoneIsTorn)
{
    Ends ends;
    ends.first = Fd(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
    ASSERT_EQ(grantpt(ends.first), 0);
    ASSERT_EQ(unlockpt(ends.first), 0);
    char name[128] = {};
    ASSERT_EQ(ptsname_r(ends.first, name, sizeof name), 0);
    ends.second = Fd(open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
    expect_gaps_are_told(log_without_a_reader(ends));
}

TEST(LogWithoutReader, TheRestOfATornLineIsWrittenAtTheEndOfTheProcess)
{
    const TemporaryRoot root;
    const std::string file = root.path() + "/log";
    const Outcome outcome = in_child([&]() -> int {
        const Fd log(open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
        dup2(log, STDERR_FILENO);
        constexpr rlim_t kTorn = 1000; // within a line
        rlimit limit{};
        getrlimit(RLIMIT_FSIZE, &limit);
        const rlim_t all = std::exchange(limit.rlim_cur, kTorn);
        setrlimit(RLIMIT_FSIZE, &limit);
        for (int i = 0; std::filesystem::file_size(file) < kTorn; ++i)
            log_number(i);
        limit.rlim_cur = all; // there is room again
        setrlimit(RLIMIT_FSIZE, &limit);
        if (slurp(file).back() == '\n')
            return 1;
        std::exit(0);
    });
    EXPECT_EQ(outcome.status, 0);
    const std::string written = slurp(file);
    EXPECT_EQ(written.back(), '\n');
    int number = 0;
    for (const std::string& line : told_by(written))
        EXPECT_EQ(line, fmt::format("2 {}line {}, one of many", kHead, number++));
    EXPECT_GT(number, 5);
}

TEST(LogWithoutReader, AnotherStreamInItsPlaceGetsWholeLines)
{
    const Ends stopped = make_sockets(SOCK_STREAM);
    const Ends pipe = make_pipe();
    const Outcome outcome = in_child([&] {
        dup2(stopped.second, STDERR_FILENO);
        for (int i = 0; i < kLines; ++i)
            log_number(i); // the last one that was taken was maybe taken in part
        begin_anew();
        dup2(pipe.second, STDERR_FILENO);
        log_number(kLines);
        return 0;
    });
    EXPECT_EQ(outcome.status, 0);
    const auto told = told_by(drain(pipe.first));
    ASSERT_EQ(told.size(), 2U);
    EXPECT_TRUE(std::regex_match(told[0], std::regex(R"(1 \[log\]: \d+ lines lost)"))) << told[0];
    EXPECT_EQ(told[1], fmt::format("2 {}line {}, one of many", kHead, kLines));
}

TEST(LogWithoutReader, StandardErrorIsLeftWhenLinesGoElsewhere)
{
    Ends pipe = make_pipe();
    Ends kept = make_pipe();
    const pid_t child = fork();
    ASSERT_NE(child, -1);
    if (child == 0) {
        dup2(pipe.second, STDERR_FILENO);
        pipe.second.reset();
        kept.second.reset();
        log_number(1);
        use_syslog("probe", "/no/such/socket");
        dup2(STDOUT_FILENO, STDERR_FILENO);
        (void)read_until(kept.first, "");
        _exit(0);
    }
    pipe.second.reset();
    EXPECT_NE(read_until(pipe.first, "\n"), "");
    char byte = 0;
    EXPECT_EQ(read(pipe.first, &byte, 1), 0) << "nobody holds the pipe any more";
    kept.second.reset();
    EXPECT_EQ(wait_for(child), 0);
}

// ---- the same line over and over

TEST(LogRepetition, IsCountedAndToldBeforeAnotherLine)
{
    const Outcome outcome = in_child([] {
        for (int i = 0; i < 1000; ++i)
            log_text(kError, "the same");
        log_text(kError, "another");
        log_text(kError, "the same");
        log_text(kWarning, "the same");
        return 0;
    });
    const std::string same = std::string(kHead) + "the same";
    EXPECT_EQ(told_by(outcome.err),
              (std::vector<std::string>{"0 " + same, "0 [log]: last line repeated 999 times",
                                        "0 " + std::string(kHead) + "another", "0 " + same, "1 " + same}));
}

TEST(LogRepetition, IsToldOnceASecondWhileItGoesOn)
{
    const Outcome outcome = in_child([] {
        unsigned long lines = 0;
        const auto begin = std::chrono::steady_clock::now();
        while (std::chrono::steady_clock::now() < begin + std::chrono::milliseconds(2500)) {
            log_text(kInfo, "the same");
            ++lines;
        }
        log_text(kInfo, std::to_string(lines));
        return 0;
    });
    const auto told = told_by(outcome.err);
    ASSERT_GE(told.size(), 4U);
    EXPECT_LE(told.size(), 5U) << "the line, twice or thrice its count, and how many there were";
    unsigned long lines = 1;
    for (std::size_t i = 1; i + 1 < told.size(); ++i) {
        std::smatch match;
        ASSERT_TRUE(
            std::regex_match(told[i], match, std::regex(R"(2 \[log\]: last line repeated (\d+) times)")));
        lines += std::stoul(match.str(1));
    }
    EXPECT_EQ(told.back(), "2 " + std::string(kHead) + std::to_string(lines));
}

TEST(LogRepetition, IsToldByATimerOfTheDaemon)
{
    const Ends pipe = make_pipe();
    const Outcome outcome = in_child([&] {
        dup2(pipe.second, STDERR_FILENO);
        for (int i = 0; i < 5; ++i)
            log_text(kInfo, "the same");
        const int timer = orv::time::timer_init(orv::time::TimerType::monotonic);
        if (orv::time::timer_start(timer, 1, 1, /*absolute=*/false) != 0)
            return 1;
        std::string told = drain(pipe.first);
        for (int seconds = 0; seconds < 20 && told.find("repeated") == std::string::npos; ++seconds) {
            pollfd expired = {timer, POLLIN, 0};
            (void)poll(&expired, 1, -1);
            (void)orv::time::timer_tick(timer);
            told += drain(pipe.first);
        }
        (void)!write(STDOUT_FILENO, told.data(), told.size());
        return 0;
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(told_by(outcome.out), (std::vector<std::string>{"2 " + std::string(kHead) + "the same",
                                                              "2 [log]: last line repeated 4 times"}));
}

TEST(LogRepetition, IsToldAtTheEndOfTheProcess)
{
    const Outcome outcome = run_probe({}, {"PROBE_REPEAT=7", "PROBE_RUN=0"});
    EXPECT_EQ(outcome.status, 0);
    const auto told = told_by(outcome.err);
    ASSERT_EQ(told.size(), 5U) << outcome.err;
    EXPECT_NE(told[3].find("]: again and again"), std::string::npos);
    EXPECT_EQ(told[4], "1 [log]: last line repeated 6 times");
}

TEST(LogRepetition, OfTheParentIsNotToldByItsChild)
{
    const Outcome outcome = in_child([] {
        log_text(kInfo, "the same");
        log_text(kInfo, "the same");
        const Outcome child = in_child([] {
            log_text(kInfo, "the same"); // the first of another process
            return 0;
        });
        (void)!write(STDOUT_FILENO, child.err.data(), child.err.size());
        return 0;
    });
    EXPECT_EQ(told_by(outcome.out), std::vector<std::string>{"2 " + std::string(kHead) + "the same"});
}

TEST(LogRepetition, OfALineThatWasLostIsLostToo)
{
    const Ends pipe = make_pipe();
    const Outcome outcome = in_child([&] {
        dup2(pipe.second, STDERR_FILENO);
        log_number(1);
        const int flags = fcntl(pipe.second, F_GETFL);
        (void)fcntl(pipe.second, F_SETFL, flags | O_NONBLOCK);
        while (write(pipe.second, "\n", 1) == 1) { // somebody else's
        }
        for (int i = 0; i < 10; ++i)
            log_text(kInfo, "the same");
        (void)drain(pipe.first);
        log_number(1); // not repeated: other lines came in between
        log_text(kInfo, "the same");
        const std::string told = drain(pipe.first);
        (void)!write(STDOUT_FILENO, told.data(), told.size());
        return 0;
    });
    EXPECT_EQ(
        told_by(outcome.out),
        (std::vector<std::string>{"1 [log]: 10 lines lost", "2 " + std::string(kHead) + "line 1, one of many",
                                  "2 " + std::string(kHead) + "the same"}));
}

TEST(LogRepetition, IsToldBeforeStandardErrorLeadsElsewhereAndStartsAnewThere)
{
    const Ends first = make_pipe();
    const Ends second = make_pipe();
    (void)in_child([&] {
        dup2(first.second, STDERR_FILENO);
        log_text(kInfo, "the same");
        log_text(kInfo, "the same");
        begin_anew();
        dup2(second.second, STDERR_FILENO);
        log_text(kInfo, "the same");
        return 0;
    });
    const std::string same = "2 " + std::string(kHead) + "the same";
    EXPECT_EQ(told_by(drain(first.first)),
              (std::vector<std::string>{same, "2 [log]: last line repeated 1 times"}));
    EXPECT_EQ(told_by(drain(second.first)), std::vector<std::string>{same});
}

// ---- the system log

/// A system log: the datagram socket that it reads.
class SystemLog {
public:
    SystemLog() { listen(); }

    void listen()
    {
        m_socket = Fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        sockaddr_un local{};
        local.sun_family = AF_UNIX;
        m_path.copy(local.sun_path, sizeof local.sun_path - 1);
        (void)unlink(m_path.c_str());
        EXPECT_EQ(bind(m_socket, reinterpret_cast<const sockaddr*>(&local), sizeof local), 0);
    }
    void stop() { m_socket.reset(); }

    /// The next message; "(none)" when there is none.
    std::string next()
    {
        char message[8192];
        const ssize_t size = recv(m_socket, message, sizeof message, 0);
        return size == -1 ? "(none)" : std::string(message, static_cast<std::size_t>(size));
    }
    /// The same from its tag on.
    std::string next_text()
    {
        const std::string message = next();
        const auto at = message.find("probe[");
        return at == std::string::npos ? message : message.substr(message.find("]: ", at) + 3);
    }
    [[nodiscard]] int fd() const { return m_socket; }
    [[nodiscard]] const char* path() const { return m_path.c_str(); }

private:
    TemporaryRoot m_root;
    std::string m_path = m_root.path() + "/log";
    Fd m_socket;
};

TEST(LogBackground, LinesGoToTheSystemLogByTheirPriorityWithItsOwnStamp)
{
    SystemLog system_log;
    const Outcome outcome = in_child([&] {
        use_syslog("probe", system_log.path());
        log_text(kError, "e");
        log_text(kWarning, "w %d\n");
        log_text(kInfo, std::string("i\0\n\n", 4));
        log_text(kDebug, "d");
        log_text(kTrace, "t");
        return 0;
    });
    EXPECT_EQ(outcome.err, "");
    const std::string head = kHead;
    const std::vector<std::string> priorities = {"27", "28", "30", "31", "31"};
    const std::vector<std::string> texts = {"e", "w %d", "i\\x00\\x0a", "d", "t"};
    const std::regex layout(
        R"(<(\d+)>(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ \d]\d \d\d:\d\d:\d\d probe\[(\d+)\]: )"
        R"(\[some/file\.cpp:42\]\[work\(\)\]: (.*))");
    for (std::size_t i = 0; i < texts.size(); ++i) {
        const std::string message = system_log.next();
        std::smatch match;
        ASSERT_TRUE(std::regex_match(message, match, layout)) << message;
        EXPECT_EQ(match.str(1), priorities[i]);
        EXPECT_EQ(match.str(3), std::to_string(outcome.process));
        EXPECT_EQ(match.str(4), texts[i]);
    }
    EXPECT_EQ(system_log.next(), "(none)");
}

TEST(LogBackground, ThatNobodyWaitsForTheDaemonToBeUpIsALineForDebugging)
{
    SystemLog system_log;
    const Outcome outcome = in_child([&] {
        char program[] = "probe";
        char background[] = "-d";
        char level[] = "-l4";
        char* arguments[] = {program, background, level, nullptr};
        const auto instance = orv::daemon::instance(3, arguments);
        instance->init_hook = [&] {
            use_syslog("probe", system_log.path());
            return refuse_calls({{SYS_write, EPIPE}});
        };
        return instance->run();
    });
    EXPECT_EQ(outcome.status, 1) << "it is not told";
    const std::string message = system_log.next();
    EXPECT_EQ(message.find("<31>"), 0U) << message;
    EXPECT_NE(message.find("]: nobody waits for the daemon to be up, ignoring"), std::string::npos)
        << message;
}

TEST(LogBackground, TheStampIsTheLocalTime)
{
    SystemLog system_log;
    (void)in_child([&] {
        setenv("TZ", "XYZ-5:30", 1);
        tzset();
        use_syslog("probe", system_log.path());
        log_text(kInfo, "x");
        return 0;
    });
    const std::string message = system_log.next();
    const std::time_t now = std::time(nullptr) + std::time_t{5} * 3600 + std::time_t{30} * 60;
    bool found = false;
    for (std::time_t at = now - 60; at <= now + 1;
         ++at) { // time() lags behind the log's clock by up to a tick
        std::tm fields{};
        gmtime_r(&at, &fields);
        char stamp[32] = {};
        (void)std::strftime(stamp, sizeof stamp, "<30>%b %e %H:%M:%S probe[", &fields);
        found = found || message.rfind(stamp, 0) == 0;
    }
    EXPECT_TRUE(found) << message;
}

TEST(LogBackground, ASystemLogThatDoesNotReadLosesLinesAndIsToldHowMany)
{
    SystemLog system_log;
    const Outcome outcome = in_child([&] {
        use_syslog("probe", system_log.path());
        for (int i = 0; i < 1000; ++i)
            log_number(i);
        int taken = 0;
        while (system_log.next_text() == fmt::format("{}line {}, one of many", kHead, taken))
            ++taken;
        log_number(1000);
        const bool told = taken > 0 && taken < 1000 &&
                          system_log.next_text() == fmt::format("[log]: {} lines lost", 1000 - taken) &&
                          system_log.next_text() == std::string(kHead) + "line 1000, one of many";
        return told ? 0 : 1;
    });
    EXPECT_EQ(outcome.status, 0);
}

TEST(LogBackground, TheNameOfTheProgramOutlivesWhoeverHasTold)
{
    SystemLog system_log;
    (void)in_child([&] {
        auto name = std::make_unique<std::string>("probe");
        use_syslog(name->c_str(), system_log.path());
        name->replace(0, 5, "other");
        log_text(kError, "e");
        return 0;
    });
    EXPECT_THAT(system_log.next(), testing::HasSubstr(" probe["));
}

TEST(LogBackground, ALongNameIsCut)
{
    SystemLog system_log;
    (void)in_child([&] {
        use_syslog(std::string(100, 'n').c_str(), system_log.path());
        log_text(kError, "e");
        return 0;
    });
    EXPECT_THAT(system_log.next(), testing::HasSubstr(" " + std::string(47, 'n') + "["));
}

TEST(LogBackground, ANewSystemLogInThePlaceOfOneThatEndedIsFound)
{
    const Outcome outcome = in_child([] {
        SystemLog system_log;
        use_syslog("probe", system_log.path());
        log_number(1);
        system_log.stop();
        log_number(2);
        log_number(3);
        system_log.listen();
        log_number(4);
        const bool told = system_log.next_text() == "[log]: 2 lines lost" &&
                          system_log.next_text() == std::string(kHead) + "line 4, one of many" &&
                          system_log.next() == "(none)";
        return told ? 0 : 1;
    });
    EXPECT_EQ(outcome.status, 0);
}

TEST(LogBackground, ANewSystemLogInThePlaceOfOneThatHangsIsFound)
{
    SystemLog hanging;
    const Outcome outcome = in_child([&] {
        use_syslog("probe", hanging.path());
        for (int i = 0; i < 1000; ++i)
            log_number(i);
        const Fd stuck(dup(hanging.fd())); // it is there, but does not read
        hanging.listen();
        std::string text = "(none)";
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        for (int i = 1000; text == "(none)" && std::chrono::steady_clock::now() < deadline; ++i) {
            log_number(i);
            text = hanging.next_text();
        }
        return std::regex_match(text, std::regex(R"(\[log\]: \d+ lines lost)")) ? 0 : 1;
    });
    EXPECT_EQ(outcome.status, 0);
}

} // namespace
