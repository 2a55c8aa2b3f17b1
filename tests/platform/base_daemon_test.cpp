// The daemon framework, seen from outside: the probe's options, exit statuses, signals and its way to the
// background.

#include "memory_support.h"
#include "probe_support.h"
#include "process_support.h"
#include "refusal_support.h"

#include <orvutils/daemon.h>
#include <orvutils/script.h>
#include <orvutils/standard_streams.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace {

std::string value_of(const std::string& text, const std::string& name)
{
    const auto begin = text.find(name + "=");
    if (begin == std::string::npos)
        return {};
    const auto from = begin + name.size() + 1;
    return text.substr(from, text.find_first_of(" \n", from) - from);
}

bool contains(const std::string& text, const std::string& part)
{
    return text.find(part) != std::string::npos;
}

/// The levels of the lines that the probe logged for its five levels.
std::string levels_logged(const std::vector<std::string>& options,
                          const std::vector<std::string>& environment = {})
{
    auto all = environment;
    all.emplace_back("PROBE_RUN=0");
    const Outcome outcome = run_probe(options, all);
    std::string levels;
    for (const auto& line : lines_of(outcome.err))
        if (contains(line, "]: level "))
            levels.push_back(line.back());
    return levels;
}

TEST(DaemonOptions, VersionIsPrintedWithTheProgramsName)
{
    const Outcome outcome = run_probe({"--version"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "base_probe 1.3\n");
    EXPECT_EQ(outcome.err, "");
}

TEST(DaemonOptions, HelpNamesEveryOptionAndEnvironmentVariable)
{
    const Outcome outcome = run_probe({"--help"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out.rfind("Usage: base_probe [OPTION]", 0), 0U);
    for (const char* part :
         {"-f, --foreground", "-d, --daemonize", "-l, --log-level=N", "--version", "--help", "ORV_ROOT",
          "ORV_LOG_LEVEL", "ORVEX_ADDRESS", "NOTIFY_SOCKET", "Exit status"})
        EXPECT_TRUE(contains(outcome.out, part)) << part;
}

TEST(DaemonOptions, WrongCommandLineIsToldAndEndsWithStatusTwo)
{
    const struct {
        std::vector<std::string> options;
        const char* message;
    } table[] = {
        {{"--unknown"}, "invalid option '--unknown'"},
        {{"-x"}, "invalid option '-x'"},
        {{"-fx"}, "invalid option '-x'"},
        {{"--foreground=yes"}, "invalid option '--foreground=yes'"},
        {{"stray"}, "unexpected argument 'stray'"},
        {{"-f", "stray"}, "unexpected argument 'stray'"},
        {{"--", "--version"}, "unexpected argument '--version'"},
        {{"-l"}, "option '-l' needs a value"},
        {{"--log-level"}, "option '--log-level' needs a value"},
        {{"-l", "5"}, "invalid log level '5': must be a number from 0 to 4"},
        {{"-l", "-1"}, "invalid log level '-1': must be a number from 0 to 4"},
        {{"--log-level="}, "invalid log level '': must be a number from 0 to 4"},
        {{"--log-level=02"}, "invalid log level '02': must be a number from 0 to 4"},
        {{"--log-level=2x"}, "invalid log level '2x': must be a number from 0 to 4"},
    };
    for (const auto& row : table) {
        const Outcome outcome = run_probe(row.options);
        EXPECT_EQ(outcome.status, 2) << row.message;
        EXPECT_EQ(outcome.out, "") << row.message;
        EXPECT_EQ(outcome.err, std::string("base_probe: ") + row.message + "\nTry 'base_probe --help'.\n");
    }
}

TEST(DaemonOptions, LogLevelTwoIsTheDefault)
{
    EXPECT_EQ(levels_logged({}), "012");
}

TEST(DaemonOptions, LogLevelComesFromTheCommandLine)
{
    EXPECT_EQ(levels_logged({"-l", "0"}), "0");
    EXPECT_EQ(levels_logged({"-l4"}), "01234");
    EXPECT_EQ(levels_logged({"--log-level=3"}), "0123");
    EXPECT_EQ(levels_logged({"--log-level", "1"}), "01");
}

TEST(DaemonOptions, LogLevelComesFromTheEnvironmentUnlessTheCommandLineHasOne)
{
    EXPECT_EQ(levels_logged({}, {"ORV_LOG_LEVEL=4"}), "01234");
    EXPECT_EQ(levels_logged({"-l", "1"}, {"ORV_LOG_LEVEL=4"}), "01");
}

TEST(DaemonOptions, WrongLogLevelInTheEnvironmentIsToldAndIgnored)
{
    const Outcome outcome = run_probe({}, {"ORV_LOG_LEVEL=loud", "PROBE_RUN=0"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(logged(outcome.err)[0], "1 ORV_LOG_LEVEL 'loud' is not a number from 0 to 4, ignoring");
    EXPECT_EQ(levels_logged({}, {"ORV_LOG_LEVEL=loud"}), "012");
}

TEST(DaemonHooks, FailedInitIsStatusOneAndNothingRuns)
{
    const Outcome outcome = run_probe({}, {"PROBE_INIT=fail"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.out, "init\n");
}

TEST(DaemonHooks, RunsResultIsTheExitStatus)
{
    const Outcome outcome = run_probe({}, {"PROBE_RUN=7"});
    EXPECT_EQ(outcome.status, 7);
    EXPECT_EQ(value_of(outcome.out, "pid"), std::to_string(outcome.process))
        << "the foreground is the same process";
}

constexpr uid_t kNobody = 65534;

/// What the probe says for its five levels, as far as it is asked for.
const std::vector<std::string> kProbeLines = {"0 level 0", "1 level 1", "2 level 2"};

Outcome run_below(const TemporaryRoot& root, const std::function<void()>& prepare = nullptr)
{
    const std::string variable = "ORV_ROOT=" + root.path();
    return run_probe({}, {variable, "PROBE_RUN=0"}, prepare);
}

TEST(DaemonDirectories, ThatBelongToSomebodyElseAreRefused)
{
    for (const char* name : {"run", "tmp", "var"}) {
        const TemporaryRoot root;
        const std::string directory = root.path() + "/" + name;
        Outcome outcome;
        if (geteuid() == 0) {
            std::filesystem::create_directory(directory);
            ASSERT_EQ(chown(directory.c_str(), kNobody, kNobody), 0);
            outcome = run_below(root);
        } else {
            std::filesystem::create_symlink("/usr", directory);
            outcome = run_below(root, [] { (void)enter_mount_namespace(); });
        }
        EXPECT_EQ(outcome.status, 1);
        EXPECT_EQ(outcome.out, "") << "before the init hook";
        EXPECT_EQ(logged(outcome.err)[0],
                  "0 cannot trust the directory " + directory + ": it belongs to user 65534");
    }
}

TEST(DaemonDirectories, BehindALinkAreLookedAtToo)
{
    const TemporaryRoot root;
    std::filesystem::create_directory(root.path() + "/elsewhere");
    ASSERT_EQ(chmod((root.path() + "/elsewhere").c_str(), 0777), 0);
    std::filesystem::create_symlink(root.path() + "/elsewhere", root.path() + "/run");
    const Outcome outcome = run_below(root);
    EXPECT_EQ(outcome.status, 1);
    EXPECT_TRUE(contains(outcome.err,
                         "]: cannot trust the directory " + root.path() + "/run: others can write to it\n"))
        << outcome.err;
}

TEST(DaemonDirectories, OfOurOwnAreClosedToOthers)
{
    const TemporaryRoot root;
    const std::string directory = root.path() + "/run";
    std::filesystem::create_directory(directory);
    ASSERT_EQ(chmod(directory.c_str(), 0755), 0);
    const Outcome outcome = run_below(root);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(logged(outcome.err), kProbeLines);
    struct stat status {};
    ASSERT_EQ(stat(directory.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0700U);
}

TEST(DaemonDirectories, ThatCannotBeClosedToOthersAreUsedAllTheSameWithALine)
{
    const TemporaryRoot root;
    const std::string directory = root.path() + "/run";
    std::filesystem::create_directory(directory);
    ASSERT_EQ(chmod(directory.c_str(), 0755), 0);
    const Outcome outcome = run_below(root, [] {
        if (!refuse_calls({{SYS_chmod, EROFS}, {SYS_fchmodat, EROFS}}))
            _exit(126);
    });
    EXPECT_EQ(outcome.status, 0);
    std::vector<std::string> wanted = {"1 cannot close " + directory +
                                       " to other users: Read-only file system, ignoring"};
    wanted.insert(wanted.end(), kProbeLines.begin(), kProbeLines.end());
    EXPECT_EQ(logged(outcome.err), wanted);
}

TEST(DaemonBackground, WithoutWhatItTakesIsALineAndStatusOne)
{
    constexpr std::pair<long, int> kRefused[] = {
        {SYS_clone, EAGAIN},
#ifndef ORV_SANITIZED // the sanitizers make this call, too, and do not survive that it fails
        {SYS_pipe2, EMFILE},
#endif
    };
    for (const auto& [call, error] : kRefused) {
        const Outcome outcome = run_probe({"-d"}, {}, [call = call, error = error] {
            if (!refuse_calls({{call, error}}))
                _exit(126);
        });
        EXPECT_EQ(outcome.status, 1);
        EXPECT_EQ(outcome.out, "");
        EXPECT_EQ(
            logged(outcome.err),
            std::vector<std::string>{std::string("0 cannot go to the background: ") + std::strerror(error)});
    }
}

TEST(DaemonSignals, ThatCannotBePreparedLeaveNoStopDescriptor)
{
    constexpr int kNoDescriptor = 124; // the probe's
    constexpr long kRefused[] = {
        SYS_signalfd4,
#ifndef ORV_SANITIZED // as above
        SYS_rt_sigaction,
        SYS_rt_sigprocmask,
#endif
    };
    for (const long call : kRefused)
        for (const char* option : {"-f", "-d"}) {
            const Outcome outcome = run_probe({option}, {}, [call] {
                if (!refuse_calls({{call, EINVAL}}))
                    _exit(126);
            });
            EXPECT_EQ(outcome.status, kNoDescriptor) << call;
        }
}

TEST(DaemonMemory, ThatRunsOutOfAHookIsStatusOne)
{
    for (const char* hook : {"PROBE_INIT=no memory", "PROBE_RUN=no memory"}) {
        const Outcome outcome = run_probe({}, {hook});
        EXPECT_EQ(outcome.status, 1) << hook;
        EXPECT_TRUE(contains(outcome.err, "[run()]: out of memory\n")) << outcome.err;
        EXPECT_EQ(logged(outcome.err).back(), "0 out of memory");
    }
}

TEST(DaemonMemory, ThatRunsOutAtTheStartIsStatusOne)
{
    const Outcome outcome = in_child([] {
        char name[] = "a daemon whose name does not fit into a short string";
        char* arguments[] = {name, nullptr};
        const FailingMemory memory(1, /*from_then_on=*/true);
        (void)orv::daemon::instance(1, arguments);
        return 3;
    });
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(outcome.err, "out of memory\n");
}

void close_standard_streams()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        close(fd);
}

/// Whether the descriptor stands for the null device, opened in this mode and left to children.
bool is_null_device(int fd, int mode)
{
    struct stat opened {};
    struct stat null {};
    return fstat(fd, &opened) == 0 && stat("/dev/null", &null) == 0 && opened.st_rdev == null.st_rdev &&
           (fcntl(fd, F_GETFL) & O_ACCMODE) == mode && fcntl(fd, F_GETFD) == 0;
}

/// Opens the standard streams where those whose bits are set are missing; 0 when all are then as they should
/// be.
int open_missing_streams(unsigned missing)
{
    const int other = open("/dev/null", O_RDONLY | O_CLOEXEC);
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if ((missing >> fd & 1U) != 0)
            close(fd);
        else
            dup2(other, fd);
    if (!orv::open_standard_streams())
        return 1;
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (!is_null_device(fd, (missing >> fd & 1U) != 0 ? O_RDWR : O_RDONLY))
            return 2;
    return open("/dev/null", O_RDONLY | O_CLOEXEC) == other + 1 ? 0 : 3; // 3: it opened more than these
}

TEST(DaemonStreams, ThoseThatAreMissingLeadToTheNullDeviceAndTheOthersStay)
{
    for (unsigned missing = 0; missing < 8; ++missing)
        EXPECT_EQ(in_child([missing] { return open_missing_streams(missing); }).status, 0) << missing;
}

void expect_orderly_stop(int signal)
{
    const Running probe = start_probe({});
    const std::string before = read_until(probe.out, "waiting\n");
    EXPECT_TRUE(contains(before, "pipe broken\n"));
    ASSERT_EQ(kill(probe.process, signal), 0);
    EXPECT_EQ(read_until(probe.out, ""), "stop is readable\nstop stays readable\n");
    EXPECT_EQ(wait_for(probe.process), 0);
}

TEST(DaemonSignals, SigtermMakesTheStopDescriptorReadableWithoutInterruptingAWait)
{
    expect_orderly_stop(SIGTERM);
}

TEST(DaemonSignals, SigintMakesTheStopDescriptorReadableWithoutInterruptingAWait)
{
    expect_orderly_stop(SIGINT);
}

TEST(DaemonSignals, SighupMakesTheStopDescriptorReadableInTheForeground)
{
    expect_orderly_stop(SIGHUP);
}

TEST(DaemonSignals, SighupThatTheStarterIgnoredIsIgnored)
{
    const auto before = std::signal(SIGHUP, SIG_IGN);
    const Running probe = start_probe({});
    (void)std::signal(SIGHUP, before);
    (void)read_until(probe.out, "waiting\n");
    ASSERT_EQ(kill(probe.process, SIGHUP), 0);
    pollfd told = {probe.out, POLLIN, 0};
    EXPECT_EQ(poll(&told, 1, 100), 0) << "it waits on";
    ASSERT_EQ(kill(probe.process, SIGTERM), 0);
    EXPECT_EQ(read_until(probe.out, ""), "stop is readable\nstop stays readable\n");
    EXPECT_EQ(wait_for(probe.process), 0);
}

TEST(DaemonSignals, AScriptsStatusIsSeenEvenIfTheStarterIgnoredItsChildren)
{
    const Outcome outcome = in_child([] {
        (void)std::signal(SIGCHLD, SIG_IGN);
        char name[] = "daemon";
        char* arguments[] = {name, nullptr};
        const auto instance = orv::daemon::instance(1, arguments);
        return orv::exec_script({{"-c", "exit 0"}}, "/bin/sh", 0) == 0 ? 0 : 1;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
}

/// A datagram socket, and a service manager's name for one: a path, or "@" and an abstract name.
class Datagrams {
public:
    explicit Datagrams(const std::string& name)
    {
        m_address.sun_family = AF_UNIX;
        name.copy(m_address.sun_path, sizeof m_address.sun_path - 1);
        if (name.front() == '@')
            m_address.sun_path[0] = '\0';
        m_length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    }

    [[nodiscard]] bool listen() const { return bind(m_socket, address(), m_length) == 0; }
    /// Sends until the queue is full.
    void fill() const
    {
        while (sendto(m_socket, "x", 1, 0, address(), m_length) == 1) {
        }
    }
    /// The next one, "" when there is none.
    [[nodiscard]] std::string receive() const
    {
        char text[64] = {};
        const auto size = recv(m_socket, text, sizeof text, 0);
        return size > 0 ? std::string(text, static_cast<std::size_t>(size)) : "";
    }

private:
    [[nodiscard]] const sockaddr* address() const { return reinterpret_cast<const sockaddr*>(&m_address); }

    Fd m_socket{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    sockaddr_un m_address{};
    socklen_t m_length = 0;
};

TEST(DaemonReadiness, TheServiceManagerIsToldBetweenTheHooks)
{
    const TemporaryRoot directory;
    for (const std::string& name :
         {directory.path() + "/manager", "@orv-readiness-" + std::to_string(getpid())}) {
        const Datagrams manager(name);
        ASSERT_TRUE(manager.listen());
        const Running probe = start_probe({}, {"NOTIFY_SOCKET=" + name});
        const std::string told = read_until(probe.out, "waiting\n");
        EXPECT_EQ(value_of(told, "notify"), "-") << "it is nobody else's to tell";
        EXPECT_EQ(manager.receive(), "READY=1");
        EXPECT_EQ(manager.receive(), "") << "once";
        ASSERT_EQ(kill(probe.process, SIGTERM), 0);
        EXPECT_EQ(wait_for(probe.process), 0);
    }
}

TEST(DaemonReadiness, AFailedStartIsNotTold)
{
    const TemporaryRoot directory;
    const Datagrams manager(directory.path() + "/manager");
    ASSERT_TRUE(manager.listen());
    const Outcome outcome =
        run_probe({}, {"NOTIFY_SOCKET=" + directory.path() + "/manager", "PROBE_INIT=fail"});
    EXPECT_EQ(outcome.status, 1);
    EXPECT_EQ(manager.receive(), "");
}

TEST(DaemonReadiness, AManagerThatCannotBeToldIsSurvivedWithALine)
{
    for (const auto& [name, reason] :
         {std::pair<std::string, std::string>{"/nowhere/manager", std::strerror(ENOENT)},
          {"/" + std::string(107, 'x'), std::strerror(ENAMETOOLONG)}}) {
        const Outcome outcome = run_probe({}, {"NOTIFY_SOCKET=" + name, "PROBE_RUN=0"});
        EXPECT_EQ(outcome.status, 0);
        EXPECT_EQ(logged(outcome.err).back(),
                  "1 cannot tell " + name + " that the daemon is up: " + reason + ", ignoring");
    }
}

TEST(DaemonReadiness, AManagerThatDoesNotReadHoldsTheDaemonForASecondOnly)
{
    const TemporaryRoot directory;
    const std::string name = directory.path() + "/manager";
    const Datagrams manager(name);
    ASSERT_TRUE(manager.listen());
    Datagrams(name).fill();
    const Outcome outcome = run_probe({}, {"NOTIFY_SOCKET=" + name, "PROBE_RUN=0"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_TRUE(contains(outcome.err, "that the daemon is up: Resource temporarily unavailable, ignoring\n"))
        << outcome.err;
}

/// A probe in the background, which tells what it sees through a pipe.
struct Background {
    Outcome started;
    Fd told;
};

Background start_in_background(std::vector<std::string> environment,
                               const std::function<void()>& prepare = nullptr)
{
    Ends ends = make_pipe();
    const int told = dup(ends.second); // inherited: not close-on-exec
    environment.push_back("PROBE_FD=" + std::to_string(told));
    Background background = {run_probe({"--daemonize"}, environment, prepare), std::move(ends.first)};
    close(told);
    return background;
}

TEST(DaemonBackground, TheStarterEndsOnceTheDaemonIsUp)
{
    Background background = start_in_background({});
    EXPECT_EQ(background.started.status, 0);
    EXPECT_EQ(background.started.out + background.started.err, "") << "the daemon logs to syslog";
    const std::string told = read_until(background.told, "waiting\n");
    const std::string process = value_of(told, "pid");
    EXPECT_NE(process, std::to_string(background.started.process));
    EXPECT_EQ(value_of(told, "leader"), "true");
    EXPECT_EQ(value_of(told, "directory"), "/");
    for (const char* stream : {"in", "out", "err"})
        EXPECT_EQ(value_of(told, stream), "/dev/null");
    ASSERT_EQ(kill(std::stoi(process), SIGTERM), 0);
    EXPECT_EQ(read_until(background.told, ""), "stop is readable\nstop stays readable\n");
}

TEST(DaemonBackground, SighupIsIgnored)
{
    Background background = start_in_background({});
    const std::string process = value_of(read_until(background.told, "waiting\n"), "pid");
    ASSERT_EQ(kill(std::stoi(process), SIGHUP), 0);
    pollfd told = {background.told, POLLIN, 0};
    EXPECT_EQ(poll(&told, 1, 100), 0) << "it waits on";
    ASSERT_EQ(kill(std::stoi(process), SIGTERM), 0);
    EXPECT_EQ(read_until(background.told, ""), "stop is readable\nstop stays readable\n");
}

TEST(DaemonBackground, TheStarterEndsWithStatusOneWhenInitFails)
{
    Background background = start_in_background({"PROBE_INIT=fail"});
    EXPECT_EQ(background.started.status, 1);
    EXPECT_EQ(background.started.err, "base_probe: failed to start, see the system log\n");
    EXPECT_EQ(read_until(background.told, ""), "init\n");
}

TEST(DaemonBackground, TheDaemonComesUpWithoutAnyStandardStream)
{
    Background background = start_in_background({"PROBE_RUN=0"}, close_standard_streams);
    EXPECT_EQ(background.started.status, 0);
    const std::string told = read_until(background.told, "");
    for (const char* stream : {"in", "out", "err"})
        EXPECT_EQ(value_of(told, stream), "/dev/null");
}

TEST(DaemonBackground, ARelativeRootStaysTheSameDirectory)
{
    Background background = start_in_background({"ORV_ROOT=some/where", "PROBE_RUN=0"});
    EXPECT_EQ(background.started.status, 0);
    const std::string here = std::filesystem::current_path().string();
    EXPECT_EQ(value_of(read_until(background.told, ""), "root"), here + "/some/where");
}

} // namespace
