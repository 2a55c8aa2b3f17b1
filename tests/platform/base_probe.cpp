// A small daemon on the real framework, for the tests to run as a process. It tells on standard output (or,
// when PROBE_FD is set, on that descriptor) what it sees; PROBE_INIT=fail and PROBE_RUN=N choose its hooks'
// results, PROBE_REPEAT=N how often it logs a line over again.

#include <orvutils/daemon.h>
#include <orvutils/log_format.h>

#include <fmt/format.h>

#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <new>
#include <string>

namespace {

int g_stop_fd = -1;

void tell(const std::string& line)
{
    const char* chosen = std::getenv("PROBE_FD");
    const std::string text = line + '\n';
    if (write(chosen ? std::atoi(chosen) : STDOUT_FILENO, text.data(), text.size()) == -1)
        _exit(125);
}

std::string link_target(const std::string& name)
{
    char target[256] = {};
    const auto size = readlink(name.c_str(), target, sizeof target);
    return size > 0 ? std::string(target, static_cast<std::size_t>(size)) : "?";
}

void tell_surroundings()
{
    const char* root = std::getenv("ORV_ROOT");
    tell(fmt::format("pid={} leader={} directory={} in={} out={} err={} root={} notify={}", getpid(),
                     getsid(0) == getpid(), link_target("/proc/self/cwd"), link_target("/proc/self/fd/0"),
                     link_target("/proc/self/fd/1"), link_target("/proc/self/fd/2"), root ? root : "-",
                     std::getenv("NOTIFY_SOCKET") ? "set" : "-"));
}

bool init()
{
    for (int level = orv::log::kError; level <= orv::log::kTrace; ++level)
        ORV_LOG(level, "level {}", level);
    const char* repetitions = std::getenv("PROBE_REPEAT");
    for (int i = 0; repetitions && i < std::atoi(repetitions); ++i)
        ORV_LOG(orv::log::kWarning, "again and again");
    const char* wanted = std::getenv("PROBE_INIT");
    if (wanted && std::string(wanted) == "no memory")
        throw std::bad_alloc();
    tell("init");
    return !wanted || std::string(wanted) != "fail";
}

/// A write to a pipe without a reader, which kills who does not ignore SIGPIPE.
void break_pipe()
{
    int ends[2] = {-1, -1};
    if (pipe(ends) == -1)
        _exit(125);
    close(ends[0]);
    tell(write(ends[1], "", 1) == -1 && errno == EPIPE ? "pipe broken" : "pipe works");
    close(ends[1]);
}

void wait_for_stop()
{
    const int epoll = epoll_create1(EPOLL_CLOEXEC);
    epoll_event event{};
    event.events = EPOLLIN;
    if (epoll == -1 || epoll_ctl(epoll, EPOLL_CTL_ADD, g_stop_fd, &event) == -1)
        _exit(125);
    tell("waiting");
    const int ready = epoll_wait(epoll, &event, 1, -1);
    tell(ready == 1 ? "stop is readable" : "interrupted");
    pollfd again = {g_stop_fd, POLLIN, 0};
    tell(poll(&again, 1, 0) == 1 ? "stop stays readable" : "stop is gone");
    close(epoll);
}

int run()
{
    tell_surroundings();
    const char* status = std::getenv("PROBE_RUN");
    if (status && std::string(status) == "no memory")
        throw std::bad_alloc();
    if (status)
        return std::atoi(status);
    break_pipe();
    wait_for_stop();
    close(g_stop_fd);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    const auto instance = orv::daemon::instance(argc, argv);
    g_stop_fd = instance->on_stop_pipe();
    if (g_stop_fd == -1 || instance->on_stop_pipe() != g_stop_fd)
        return 124;
    instance->init_hook = init;
    instance->run_hook = run;
    return instance->run();
}
