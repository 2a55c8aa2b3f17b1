// Scripts: their words, surroundings, results, and the end of those that hang.

#include "base_support.h"
#include "memory_support.h"
#include "process_support.h"
#include "script_run.h"

#include <orvutils/error.h>
#include <orvutils/script.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdarg>
#include <string>
#include <vector>

namespace {
bool g_old_kernel = false;
bool g_kills_work = true;
} // namespace

// The linker sends every call of these here: an old kernel, and a process that hangs in it.
extern "C" {
long __real_syscall(long number, long a, long b, long c);
long __wrap_syscall(long number, ...);
int __real_kill(pid_t process, int signal);
int __wrap_kill(pid_t process, int signal)
{
    return g_kills_work ? __real_kill(process, signal) : 0;
}
}

long __wrap_syscall(long number, ...)
{
    std::va_list arguments;
    va_start(arguments, number);
    const long a = va_arg(arguments, long);
    const long b = va_arg(arguments, long);
    const long c = va_arg(arguments, long);
    va_end(arguments);
    if (g_old_kernel) {
        errno = ENOSYS;
        return -1;
    }
    return __real_syscall(number, a, b, c);
}

namespace {

using orv::exec_script;
using orv::detail::exec_script_within;

constexpr char kShell[] = "/bin/sh";
constexpr int kFailed = -static_cast<int>(orv::Error::input_output);
constexpr int kTimedOut = -static_cast<int>(orv::Error::timed_out);
constexpr int kInvalid = -static_cast<int>(orv::Error::invalid_argument);

bool is_logged(const Outcome& outcome, const std::string& text)
{
    const std::vector<std::string> lines = logged(outcome.err);
    return std::find(lines.begin(), lines.end(), "1 " + text) != lines.end();
}

/// A root with scripts in it, and a place for their results.
class Script : public testing::Test {
protected:
    std::string write(const std::string& name, const std::string& text)
    {
        spill(m_root.path() + "/" + name, text);
        return m_root.path() + "/" + name;
    }
    [[nodiscard]] std::string result_file() const { return m_root.path() + "/result"; }
    [[nodiscard]] std::string result() const { return slurp(result_file()); }

private:
    TemporaryRoot m_root;
};

TEST_F(Script, GetsItsWordsAsTheyAre)
{
    const std::string script = write("s", "for word; do echo \"<$word>\"; done > \"$0.out\"\n");
    EXPECT_EQ(exec_script({{script, "two words", "$HOME", "*", "", "a'b\"c;d"}}, kShell, 0), 0);
    EXPECT_EQ(slurp(script + ".out"), "<two words>\n<$HOME>\n<*>\n<>\n<a'b\"c;d>\n");
}

TEST_F(Script, ListIsRunInOrderUpToTheFirstThatFails)
{
    const std::string script = write("s", "echo $2 >> $1; exit $2\n");
    const auto run = [&](const char* status) {
        return std::vector<std::string>{script, result_file(), status};
    };
    EXPECT_EQ(exec_script({run("0"), run("0"), run("3"), run("0")}, kShell, 0), kFailed);
    EXPECT_EQ(result(), "0\n0\n3\n");
    EXPECT_EQ(exec_script({}, kShell, 0), 0);
}

TEST_F(Script, FailuresAreNegativeWithTheErrorNumber)
{
    EXPECT_EQ(exec_script({{write("status", "exit 1\n")}}, kShell, 0), kFailed);
    EXPECT_EQ(orv::_get_orverrno(), -kFailed);
    EXPECT_EQ(exec_script({{write("signal", "kill -TERM $$\n")}}, kShell, 0), kFailed);
    EXPECT_EQ(exec_script({{result_file()}}, kShell, 0), kFailed) << "no such script";
    EXPECT_EQ(exec_script({{write("fine", "exit 0\n")}}, "/no/such/interpreter", 0), kFailed);
}

TEST_F(Script, WithoutWordsOrInterpreterIsRefused)
{
    EXPECT_EQ(exec_script({{}}, kShell, 0), kInvalid);
    EXPECT_EQ(orv::_get_orverrno(), -kInvalid);
    const std::string script = write("fine", "exit 0\n");
    EXPECT_EQ(exec_script({{script}}, "", 0), kInvalid);
    EXPECT_EQ(exec_script({{script}}, kShell, 1), kInvalid);
}

TEST_F(Script, FailureIsLoggedWithItsCause)
{
    const std::string ending = write("s", "exit 3\n");
    const std::string dying = write("t", "kill -KILL $$\n");
    const Outcome outcome = in_child([&] {
        return exec_script({{ending}}, kShell, 0) + exec_script({{dying}}, kShell, 0) == 2 * kFailed ? 0 : 1;
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_TRUE(is_logged(outcome, "'" + ending + "' ended with status 3"));
    EXPECT_TRUE(is_logged(outcome, "'" + dying + "' was ended by signal 9"));
}

TEST_F(Script, InheritsTheStandardStreams)
{
    const std::string script = write("s", "cat; echo out; echo err >&2\n");
    const Outcome outcome = in_child([&] {
        Ends ends = make_pipe();
        dup2(ends.first, STDIN_FILENO);
        (void)!::write(ends.second, "in\n", 3);
        ends.second.reset();
        return exec_script({{script}}, kShell, 0);
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "in\nout\n");
    EXPECT_EQ(outcome.err, "err\n");
}

TEST_F(Script, InheritsNoOtherDescriptor)
{
    const Outcome outcome = in_child([] {
        for (int i = 0; i < 200; ++i) // more than one buffer of directory entries lists
            if (dup(STDIN_FILENO) == -1)
                return 1;
        return exec_script({{"/proc/self/fd"}}, "/bin/ls", 0);
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "0\n1\n2\n3\n") << "3 is the directory that is being listed";
}

TEST_F(Script, OnAnOldKernelInheritsNoOtherDescriptorEither)
{
    const Outcome outcome = in_child([] {
        for (int i = 0; i < 200; ++i)
            if (dup(STDIN_FILENO) == -1)
                return 1;
        g_old_kernel = true;
        return exec_script({{"/proc/self/fd"}}, "/bin/ls", 0);
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "0\n1\n2\n3\n");
}

TEST_F(Script, OnAnOldKernelInheritsNoneThatIsAboveTheLimitEither)
{
    const Outcome outcome = in_child([] {
        constexpr int kHigh = 900;
        rlimit limit{};
        if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || dup2(STDIN_FILENO, kHigh) != kHigh)
            return 1;
        limit.rlim_cur = 100;
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0)
            return 2;
        g_old_kernel = true;
        return exec_script({{"/proc/self/fd"}}, "/bin/ls", 0);
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "0\n1\n2\n3\n");
}

TEST_F(Script, OnAnOldKernelIsWaitedForAndKilledLikewise)
{
    const std::string failing = write("failing", "exit 3\n");
    const std::string hanging = write("hanging", "sleep 1000 & sleep 1000\n");
    const Outcome outcome = in_child([&] {
        g_old_kernel = true;
        const auto begin = std::chrono::steady_clock::now();
        if (exec_script({{failing}}, kShell, 0) != kFailed)
            return 1;
        if (exec_script_within({{hanging}}, kShell, 100) != kTimedOut)
            return 2;
        if (std::chrono::steady_clock::now() - begin > std::chrono::seconds(8))
            return 3;
        return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD ? 0 : 4;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_TRUE(is_logged(outcome, "'" + failing + "' ended with status 3"));
    EXPECT_TRUE(is_logged(outcome, "'" + hanging + "' was killed after 100 ms"));
}

TEST_F(Script, ThatDoesNotEvenEndWhenItIsKilledIsLeftAndItsEndSeenLater)
{
    const std::string hanging = write("hanging", "echo $$ > $1; sleep 1000 & wait\n");
    const std::string fine = write("fine", "exit 0\n");
    const Outcome outcome = in_child([&] {
        g_kills_work = false;
        const auto begin = std::chrono::steady_clock::now();
        if (exec_script_within({{hanging, result_file()}}, kShell, 1000) != kTimedOut)
            return 1;
        if (std::chrono::steady_clock::now() - begin > std::chrono::seconds(8))
            return 2;
        g_kills_work = true;
        const pid_t process = std::stoi(result());
        if (exec_script({{fine}}, kShell, 0) != 0 || kill(process, 0) != 0)
            return 3; // it is not waited for while it goes on
        kill(-process, SIGKILL);
        siginfo_t info{};
        if (waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOWAIT) != 0)
            return 4;
        if (exec_script({{fine}}, kShell, 0) != 0)
            return 5;
        return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD ? 0 : 6;
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_TRUE(is_logged(outcome, "'" + hanging + "' was killed after 1000 ms"));
    EXPECT_TRUE(is_logged(outcome, "'" + hanging + "' does not end, ignoring"));
}

TEST_F(Script, WithoutMemoryIsAFailureAndNoException)
{
    const std::string script = write("s", "exit 0\n");
    const Outcome outcome = in_child([&] {
        const std::vector<std::vector<std::string>> commands = {{script}};
        const std::string shell = kShell;
        for (unsigned long number = 1;; ++number) {
            int result = 0;
            {
                const FailingMemory memory(number, /*from_then_on=*/true);
                result = exec_script(commands, shell, /*flags=*/0);
            }
            if (result == 0)
                return number > 1 && !FailingMemory::has_failed() ? 0 : 1;
            if (result != kFailed || !FailingMemory::has_failed() || orv::_get_orverrno() != -kFailed)
                return 2;
        }
    });
    EXPECT_EQ(outcome.status, 0) << outcome.err;
    EXPECT_TRUE(is_logged(outcome, "no memory to run a script"));
}

TEST_F(Script, HasDefaultSignalsThoughTheDaemonBlocksAndIgnoresSome)
{
    // Asked without a shell, which blocks signals of its own accord at times.
    const Outcome outcome = in_child([] {
        sigset_t stop;
        sigemptyset(&stop);
        sigaddset(&stop, SIGTERM);
        sigprocmask(SIG_BLOCK, &stop, nullptr);
        (void)std::signal(SIGPIPE, SIG_IGN);
        return exec_script({{"-E", "^Sig(Blk|Ign)", "/proc/self/status"}}, "/bin/grep", 0);
    });
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out, "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n");
}

TEST_F(Script, LeadsAProcessGroupOfItsOwn)
{
    const std::string script = write("s", "read -r line < /proc/$$/stat; set -- \"$1\" $line; "
                                          "[ \"$2\" = \"$6\" ] && echo leader > \"$1\"\n");
    EXPECT_EQ(exec_script({{script, result_file()}}, kShell, 0), 0);
    EXPECT_EQ(result(), "leader\n");
}

TEST_F(Script, ThatHangsIsKilledWithAllItHasStarted)
{
    // Its helper holds the pipe open as long as it lives.
    const std::string script = write("s", "sleep 1000 & sleep 1000\n");
    Ends ends = make_pipe();
    const Outcome outcome = in_child([&] {
        dup2(ends.second, STDOUT_FILENO);
        const auto begin = std::chrono::steady_clock::now();
        const int result = exec_script_within({{script}, {"never"}}, kShell, 300);
        const auto spent = std::chrono::steady_clock::now() - begin;
        if (spent < std::chrono::milliseconds(300) || spent > std::chrono::seconds(8))
            return 2;
        return result == kTimedOut && orv::_get_orverrno() == -kTimedOut ? 0 : 1;
    });
    EXPECT_EQ(outcome.status, 0);
    ends.second.reset();
    EXPECT_EQ(read_until(ends.first, ""), "");
    char byte = 0;
    EXPECT_EQ(read(ends.first, &byte, 1), 0) << "the end of file: nobody holds the pipe any more";
}

TEST_F(Script, MayTakeTenSeconds)
{
    EXPECT_EQ(orv::detail::kScriptLimitMs, 10000);
}

TEST_F(Script, LeavesNoChildBehind)
{
    const std::string fine = write("fine", "exit 0\n");
    const std::string hanging = write("hanging", "sleep 1000\n");
    const Outcome outcome = in_child([&] {
        if (exec_script({{fine}}, kShell, 0) != 0 || exec_script_within({{hanging}}, kShell, 50) != kTimedOut)
            return 1;
        return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD ? 0 : 2;
    });
    EXPECT_EQ(outcome.status, 0);
}

TEST_F(Script, LeavesOtherChildrenAlone)
{
    const std::string script = write("s", "exit 0\n");
    const pid_t other = fork();
    ASSERT_NE(other, -1);
    if (other == 0)
        _exit(5);
    EXPECT_EQ(exec_script({{script}}, kShell, 0), 0);
    EXPECT_EQ(wait_for(other), 5);
}

} // namespace
