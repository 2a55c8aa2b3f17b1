// The daemon framework. SIGTERM and SIGINT, and SIGHUP in the foreground, stay blocked and are received
// through a signalfd: the daemon's waiting is never interrupted by them, and as nobody reads the descriptor
// it stays readable once it is. In the background there is no terminal that could hang up. Going to the
// background happens in run(), before the init hook, so that everything the hooks open belongs to the final
// process; the process that the user started lives until the init hook's result is known and hands it on as
// its exit status.

#include <orvutils/daemon.h>

#include "own_directories.h"
#include "readiness.h"

#include <orvbase/descriptor.h>
#include <orvbase/io.h>
#include <orvbase/root.h>
#include <orvutils/log_control.h>
#include <orvutils/log_format.h>
#include <orvutils/running_daemon.h>
#include <orvutils/standard_streams.h>

#include <fcntl.h>
#include <getopt.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <optional>
#include <string>
#include <utility>

namespace orv::daemon {

namespace {

using base::Descriptor;

constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

// ---- command line

constexpr char kUsage[] =
    "Usage: {0} [OPTION]...\n"
    "\n"
    "  -f, --foreground     stay in the foreground and log to standard error (default)\n"
    "  -d, --daemonize      go to the background and log to syslog; returns when the\n"
    "                       daemon is up or has failed to start\n"
    "  -l, --log-level=N    log up to this level: 0 failures, 1 warnings,\n"
    "                       2 normal operation (default), 3 detail, 4 traces\n"
    "      --version        print the version and exit\n"
    "      --help           print this text and exit\n"
    "\n"
    "Environment:\n"
    "  ORV_ROOT             the agent's root directory (default {1})\n"
    "  ORV_LOG_LEVEL        the log level, unless --log-level is given\n"
    "  ORVEX_ADDRESS        D-Bus address of the message exchange, instead of the socket\n"
    "                       below the root\n"
    "  NOTIFY_SOCKET        socket of a service manager that is told when the daemon is up\n"
    "\n"
    "SIGTERM and SIGINT stop the daemon. So does SIGHUP in the foreground, unless it was\n"
    "started with that ignored (nohup); in the background SIGHUP is ignored.\n"
    "\n"
    "Exit status: 0 stopped, or running in the background; 1 failed to start;\n"
    "2 wrong command line.\n";

// Above every character, so that a long option is never taken for a short one.
enum LongOption : int { kForeground = 256, kDaemonize, kLogLevel, kVersion, kHelp };

constexpr char kShortOptions[] = ":fdl:";
constexpr std::array<option, 6> kLongOptions = {{
    {"foreground", no_argument, nullptr, kForeground},
    {"daemonize", no_argument, nullptr, kDaemonize},
    {"log-level", required_argument, nullptr, kLogLevel},
    {"version", no_argument, nullptr, kVersion},
    {"help", no_argument, nullptr, kHelp},
    {nullptr, 0, nullptr, 0},
}};

struct Options {
    bool background = false;
    std::optional<int> log_level;
};

std::string program_name(int argc, char** argv)
{
    if (argc < 1 || !argv[0])
        return "daemon";
    const char* slash = std::strrchr(argv[0], '/');
    return slash ? slash + 1 : argv[0];
}

[[noreturn]] void refuse(const std::string& program, const std::string& what)
{
    const auto text = fmt::format("{0}: {1}\nTry '{0} --help'.\n", program, what);
    (void)std::fputs(text.c_str(), stderr);
    std::exit(kExitUsage);
}

[[noreturn]] void print_and_exit(const std::string& text)
{
    const bool printed = std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0;
    std::exit(printed ? 0 : kExitFailure);
}

int parse_log_level(const std::string& program, const char* text)
{
    const auto level = log::parse_level(text);
    if (!level)
        refuse(program, fmt::format("invalid log level '{}': must be a number from 0 to 4", text));
    return *level;
}

/// The option that getopt_long() did not like: a letter of a group, or a whole word.
std::string refused_option(char** argv)
{
    if (optopt > 0 && optopt < kForeground)
        return {'-', static_cast<char>(optopt)};
    return argv[optind - 1];
}

void take_option(Options& options, int choice, const std::string& program, char** argv)
{
    switch (choice) {
    case 'f':
    case kForeground:
        options.background = false;
        return;
    case 'd':
    case kDaemonize:
        options.background = true;
        return;
    case 'l':
    case kLogLevel:
        options.log_level = parse_log_level(program, optarg);
        return;
    case kVersion:
        print_and_exit(fmt::format("{} {}\n", program, ORV_PROJECT_VERSION));
    case kHelp:
        print_and_exit(fmt::format(kUsage, program, base::default_root()));
    case ':':
        refuse(program, fmt::format("option '{}' needs a value", refused_option(argv)));
    default:
        refuse(program, fmt::format("invalid option '{}'", refused_option(argv)));
    }
}

Options parse_options(int argc, char** argv, const std::string& program)
{
    Options options;
    opterr = 0;
    int choice = 0;
    while ((choice = getopt_long(argc, argv, kShortOptions, kLongOptions.data(), nullptr)) != -1)
        take_option(options, choice, program, argv);
    if (optind < argc)
        refuse(program, fmt::format("unexpected argument '{}'", argv[optind]));
    return options;
}

void choose_log_level(const std::optional<int>& chosen)
{
    const char* configured = std::getenv("ORV_LOG_LEVEL");
    if (chosen)
        log::set_threshold(*chosen);
    else if (configured && !log::parse_level(configured))
        ORV_LOG(log::kWarning, "ORV_LOG_LEVEL '{}' is not a number from 0 to 4, ignoring", configured);
}

// ---- signals

bool set_action(int signal, void (*handler)(int))
{
    struct sigaction action {};
    action.sa_handler = handler;
    return sigaction(signal, &action, nullptr) == 0;
}

bool is_ignored(int signal)
{
    struct sigaction action {};
    return sigaction(signal, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

/// The stop descriptor, or -1. Who starts the daemon may ignore its own children, and that is inherited: the
/// statuses of the daemon's scripts would be lost. That it ignores SIGHUP, on the other hand, is meant for
/// us; blocked, the signal would be received all the same.
int prepare_signals(bool background)
{
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    if (background && !set_action(SIGHUP, SIG_IGN))
        return -1;
    if (!is_ignored(SIGHUP))
        sigaddset(&stop, SIGHUP);
    if (!set_action(SIGPIPE, SIG_IGN) || !set_action(SIGCHLD, SIG_DFL) ||
        sigprocmask(SIG_BLOCK, &stop, nullptr) == -1)
        return -1;
    return signalfd(-1, &stop, SFD_NONBLOCK | SFD_CLOEXEC);
}

// ---- background

/// In the process that the user started: the exit status, told by the child when it is up. Its end without a
/// word is a failure. The stop signals work here as anywhere, as there is nothing yet to be stopped in order.
int wait_until_up(int report, const std::string& program)
{
    sigset_t none;
    sigemptyset(&none);
    (void)sigprocmask(SIG_SETMASK, &none, nullptr);
    char word = 0;
    if (base::read_some(report, &word, 1) == 1)
        return 0;
    const auto text = fmt::format("{}: failed to start, see the system log\n", program);
    (void)std::fputs(text.c_str(), stderr);
    return kExitFailure;
}

bool detach_standard_streams()
{
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (null == -1)
        return false;
    bool done = true;
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        done = (fd == null ? fcntl(fd, F_SETFD, 0) : dup2(null, fd)) != -1 && done;
    if (null > STDERR_FILENO)
        (void)close(null);
    return done;
}

/// In the child: leaves the session, directory and streams of the user. A relative root is made absolute
/// first.
bool leave_foreground(const char* program)
{
    if (std::getenv("ORV_ROOT") && setenv("ORV_ROOT", orv::base::root_path("").c_str(), 1) == -1)
        return false;
    log::use_syslog(program);
    if (setsid() != -1 && chdir("/") == 0 && detach_standard_streams())
        return true;
    ORV_LOG(log::kError, "cannot go to the background: {}", std::strerror(errno));
    return false;
}

class Process final : public Instance {
public:
    Process(std::string program, bool background, int stop_fd)
        : m_program(std::move(program)), m_background(background), m_stop_fd(stop_fd)
    {
    }

    int on_stop_pipe() override { return m_stop_fd; }
    int run() override;

private:
    int run_in_background();
    int run_hooks(Descriptor report);

    std::string m_program;
    bool m_background;
    int m_stop_fd; ///< not owned: the hooks close it
};

int Process::run()
try {
    return m_background ? run_in_background() : run_hooks({});
} catch (const std::bad_alloc&) {
    ORV_LOG(log::kError, "out of memory");
    return kExitFailure;
}

int Process::run_in_background()
{
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) == -1) {
        ORV_LOG(log::kError, "cannot go to the background: {}", std::strerror(errno));
        return kExitFailure;
    }
    Descriptor reader(ends[0]);
    Descriptor writer(ends[1]);
    const pid_t child = fork();
    if (child == 0) {
        reader.reset();
        return leave_foreground(m_program.c_str()) ? run_hooks(std::move(writer)) : kExitFailure;
    }
    if (child == -1) {
        ORV_LOG(log::kError, "cannot go to the background: {}", std::strerror(errno));
        return kExitFailure;
    }
    writer.reset(); // or its end would never be read
    return wait_until_up(reader.get(), m_program);
}

/// `report` is where the parent waits to hear of a successful start; closed when nobody does.
int Process::run_hooks(Descriptor report)
{
    set_running();
    if (!own_directories() || (init_hook && !init_hook()))
        return kExitFailure;
    if (report.is_open() && write(report.get(), "", 1) != 1)
        ORV_LOG(log::kDebug, "nobody waits for the daemon to be up, ignoring");
    report.reset();
    tell_readiness();
    return run_hook ? run_hook() : 0;
}

} // namespace

std::shared_ptr<Instance> instance(int argc, char** argv)
try {
    std::string program = program_name(argc, argv);
    if (!open_standard_streams()) {
        const auto text = fmt::format("{}: cannot open /dev/null: {}\n", program, std::strerror(errno));
        (void)std::fputs(text.c_str(), stderr); // unless that is the stream in question
        std::exit(kExitFailure);
    }
    const Options options = parse_options(argc, argv, program);
    choose_log_level(options.log_level);
    const int stop_fd = prepare_signals(options.background);
    return std::make_shared<Process>(std::move(program), options.background, stop_fd);
} catch (const std::bad_alloc&) {
    (void)std::fputs("out of memory\n", stderr);
    std::exit(kExitFailure);
}

} // namespace orv::daemon
