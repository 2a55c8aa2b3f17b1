// Running scripts. Between fork() and exec the child restricts itself to system calls: it gets back the
// signal mask and dispositions that programs expect (the daemon blocks the signals that stop it), marks every
// descriptor above the standard three close-on-exec, and leads a process group of its own, so that a script
// that hangs is killed with everything it has started. The parent waits on a pidfd where the kernel has it;
// otherwise it looks every few milliseconds. A process that stands in the kernel does not even end when it is
// killed: it is not waited for, but looked after by the scripts that come later.

#include <orvutils/script.h>

#include "script_run.h"

#include <orvbase/clock.h>
#include <orvbase/descriptor.h>
#include <orvbase/error_number.h>
#include <orvutils/log_format.h>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

namespace orv {

namespace {

using base::Clock;
using base::TimePoint;
using std::chrono::milliseconds;

constexpr int kExecFailed = 127; ///< as shells report it
constexpr milliseconds kPollInterval{5};
constexpr int kLikelyEndOfDescriptors = 65536; ///< where nobody tells

using Command = std::vector<std::string>;

// ---- in the child: async-signal-safe calls only

void restore_signals()
{
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; ++number)
        (void)sigaction(number, &action, nullptr); // fails for those that cannot be changed
    sigset_t none;
    sigemptyset(&none);
    (void)sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// False where the kernel cannot do that: before 5.11.
bool close_on_exec_all()
{
#ifdef SYS_close_range
    constexpr unsigned kCloseOnExec = 1U << 2U; // CLOSE_RANGE_CLOEXEC of <linux/close_range.h>
    return syscall(SYS_close_range, STDERR_FILENO + 1, ~0U, kCloseOnExec) == 0;
#else
    return false;
#endif
}

void close_on_exec_below(int end)
{
    for (int fd = STDERR_FILENO + 1; fd < end; ++fd)
        (void)fcntl(fd, F_SETFD, FD_CLOEXEC); // fails for those that are not open
}

[[noreturn]] void become_script(char* const* words, int end_of_descriptors)
{
    (void)setpgid(0, 0); // the parent does it as well: whoever comes first
    restore_signals();
    if (!close_on_exec_all())
        close_on_exec_below(end_of_descriptors);
    execv(words[0], words);
    _exit(kExecFailed);
}

// ---- in the parent

/// A number above those of all open descriptors. The limit says little of that: it may be in the millions,
/// and those that were open before it was lowered are above it.
int end_of_descriptors()
{
    struct CloseDirectory {
        void operator()(DIR* directory) const { closedir(directory); }
    };
    const std::unique_ptr<DIR, CloseDirectory> directory(opendir("/proc/self/fd"));
    if (!directory)
        return kLikelyEndOfDescriptors;
    int end = 0;
    while (const dirent* entry = readdir(directory.get()))
        end = std::max(end, std::atoi(entry->d_name) + 1); // 0 for "." and ".."
    return end;
}

/// A descriptor that becomes readable when the process ends; closed where the kernel has none.
base::Descriptor open_pidfd(pid_t process)
{
#ifdef SYS_pidfd_open
    return base::Descriptor(static_cast<int>(syscall(SYS_pidfd_open, process, 0)));
#else
    (void)process;
    return {};
#endif
}

/// Whether the process has ended, which is not the same as having been waited for.
bool has_ended(pid_t process)
{
    siginfo_t info{};
    const int result = waitid(P_PID, static_cast<id_t>(process), &info, WEXITED | WNOHANG | WNOWAIT);
    return result == -1 ? errno != EINTR : info.si_pid == process;
}

/// Waits until the process ends; false when the deadline comes first.
bool wait_for_end(pid_t process, TimePoint deadline)
{
    const base::Descriptor end = open_pidfd(process);
    pollfd watched{end.get(), POLLIN, 0};
    bool ended = has_ended(process);
    for (auto left = deadline - Clock::now(); !ended && left > left.zero(); left = deadline - Clock::now()) {
        // A pollfd of -1 is ignored: then this is a short sleep.
        const auto longest = end.is_open() ? left : std::min<Clock::duration>(left, kPollInterval);
        (void)poll(&watched, 1, static_cast<int>(std::chrono::ceil<milliseconds>(longest).count()));
        ended = has_ended(process);
    }
    return ended;
}

/// The status of a process that has ended; -1 if there is none to be had.
int reap(pid_t process)
{
    int status = 0;
    pid_t result = 0;
    do
        result = waitpid(process, &status, 0);
    while (result == -1 && errno == EINTR);
    return result == process ? status : -1;
}

int judge(const std::string& script, int status)
{
    if (status == 0)
        return 0;
    if (status == -1)
        ORV_LOG(log::kWarning, "'{}' cannot be waited for: {}", script, std::strerror(errno));
    else if (WIFSIGNALED(status))
        ORV_LOG(log::kWarning, "'{}' was ended by signal {}", script, WTERMSIG(status));
    else
        ORV_LOG(log::kWarning, "'{}' ended with status {}", script, WEXITSTATUS(status));
    return base::fail(Error::input_output);
}

/// Scripts that were killed and had not ended when that was looked for.
std::vector<pid_t> g_unended;

void reap_unended()
{
    const auto is_gone = [](pid_t process) {
        if (!has_ended(process))
            return false;
        (void)reap(process);
        return true;
    };
    g_unended.erase(std::remove_if(g_unended.begin(), g_unended.end(), is_gone), g_unended.end());
}

int wait_for_script(pid_t process, const std::string& script, int limit_ms)
{
    if (wait_for_end(process, Clock::now() + milliseconds(limit_ms)))
        return judge(script, reap(process));
    (void)kill(-process, SIGKILL);
    ORV_LOG(log::kWarning, "'{}' was killed after {} ms", script, limit_ms);
    if (wait_for_end(process, Clock::now() + detail::kKillLimit)) {
        (void)reap(process);
    } else {
        ORV_LOG(log::kWarning, "'{}' does not end, ignoring", script);
        g_unended.push_back(process);
    }
    return base::fail(Error::timed_out);
}

/// The interpreter and the command's words as exec wants them; they live as long as what they point into.
std::vector<char*> make_arguments(const std::string& interpreter, const Command& command)
{
    std::vector<char*> words;
    words.reserve(command.size() + 2);
    words.push_back(const_cast<char*>(interpreter.c_str()));
    for (const std::string& word : command)
        words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    return words;
}

int run_script(const Command& command, const std::string& interpreter, int limit_ms)
{
    if (command.empty() || interpreter.empty())
        return base::fail(Error::invalid_argument);
    const std::vector<char*> words = make_arguments(interpreter, command);
    reap_unended();
    g_unended.reserve(g_unended.size() + 1); // before there is a process that could get lost
    const int end = end_of_descriptors();
    const pid_t process = fork();
    if (process == -1)
        return base::fail(Error::input_output);
    if (process == 0)
        become_script(words.data(), end);
    (void)setpgid(process, process); // fails when the child is past its exec, and so has done it itself
    return wait_for_script(process, command.front(), limit_ms);
}

} // namespace

namespace detail {

int exec_script_within(const std::vector<std::vector<std::string>>& commands, const std::string& interpreter,
                       int limit_ms)
{
    try {
        for (const Command& command : commands) {
            const int result = run_script(command, interpreter, limit_ms);
            if (result < 0)
                return result;
        }
    } catch (const std::bad_alloc&) {
        ORV_LOG(log::kWarning, "no memory to run a script");
        return base::fail(Error::input_output);
    }
    return 0;
}

} // namespace detail

int exec_script(const std::vector<std::vector<std::string>>& commands, const std::string& interpreter,
                int flags)
{
    if (flags != 0)
        return base::fail(Error::invalid_argument);
    return detail::exec_script_within(commands, interpreter, detail::kScriptLimitMs);
}

} // namespace orv
