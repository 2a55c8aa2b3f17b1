// Running scripts. Between fork() and exec the child restricts itself to system calls: it gets back the
// signal mask and dispositions that programs expect (the daemon blocks the signals that stop it), marks every
// descriptor above the standard three close-on-exec, and leads a process group of its own, so that a script
// that hangs is killed with everything it has started. The parent waits on a pidfd where the kernel has it;
// otherwise it looks every few milliseconds.

#include <orvutils/script.h>

#include "script_run.h"

#include <orvbase/clock.h>
#include <orvbase/descriptor.h>
#include <orvbase/error_number.h>
#include <orvutils/log_format.h>

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstring>

namespace orv {

namespace {

using base::Clock;
using base::TimePoint;
using std::chrono::milliseconds;

constexpr int kExecFailed = 127; ///< as shells report it
constexpr milliseconds kPollInterval{5};
constexpr int kFallbackDescriptorLimit = 4096;

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

void close_on_exec(int fd)
{
    if (fd > STDERR_FILENO)
        (void)fcntl(fd, F_SETFD, FD_CLOEXEC); // fails for those that are not open
}

/// The descriptor that an entry of /proc/self/fd names; -1 for "." and "..".
int parse_descriptor(const char* name)
{
    int fd = 0;
    for (; *name >= '0' && *name <= '9'; ++name)
        fd = fd * 10 + (*name - '0');
    return *name == '\0' ? fd : -1;
}

/// One buffer of directory entries as getdents64(2) lays them out: 64 bits inode, 64 bits offset, 16 bits
/// length of the entry, 8 bits type, name.
void close_on_exec_all(const char* entries, std::size_t size)
{
    constexpr std::size_t kLengthOffset = 16;
    constexpr std::size_t kNameOffset = 19;
    for (std::size_t at = 0; at < size;) {
        std::uint16_t length = 0;
        std::memcpy(&length, entries + at + kLengthOffset, sizeof length);
        close_on_exec(parse_descriptor(entries + at + kNameOffset));
        at += length;
    }
}

/// opendir() would allocate memory, so the directory is read by its system call.
bool close_on_exec_listed()
{
    const int directory = open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory == -1)
        return false;
    alignas(std::uint64_t) char entries[1024];
    long size = 0;
    while ((size = syscall(SYS_getdents64, directory, entries, sizeof entries)) > 0)
        close_on_exec_all(entries, static_cast<std::size_t>(size));
    return size == 0;
}

void close_on_exec_up_to_limit()
{
    rlimit limit{};
    int end = kFallbackDescriptorLimit;
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < INT_MAX)
        end = static_cast<int>(limit.rlim_cur);
    for (int fd = STDERR_FILENO + 1; fd < end; ++fd)
        close_on_exec(fd);
}

[[noreturn]] void become_script(char* const* words)
{
    (void)setpgid(0, 0); // the parent does it as well: whoever comes first
    restore_signals();
    if (!close_on_exec_listed())
        close_on_exec_up_to_limit();
    execv(words[0], words);
    _exit(kExecFailed);
}

// ---- in the parent

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

/// The status of a process that has ended or is about to; -1 if there is none to be had.
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

int wait_for_script(pid_t process, const std::string& script, int limit_ms)
{
    if (wait_for_end(process, Clock::now() + milliseconds(limit_ms)))
        return judge(script, reap(process));
    (void)kill(-process, SIGKILL);
    (void)reap(process);
    ORV_LOG(log::kWarning, "'{}' was killed after {} ms", script, limit_ms);
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
    const pid_t process = fork();
    if (process == -1)
        return base::fail(Error::input_output);
    if (process == 0)
        become_script(words.data());
    (void)setpgid(process, process); // fails when the child is past its exec, and so has done it itself
    return wait_for_script(process, command.front(), limit_ms);
}

} // namespace

namespace detail {

int exec_script_within(const std::vector<std::vector<std::string>>& commands, const std::string& interpreter,
                       int limit_ms)
{
    for (const Command& command : commands) {
        const int result = run_script(command, interpreter, limit_ms);
        if (result < 0)
            return result;
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
