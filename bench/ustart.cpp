// ustart - time from exec of a daemon until it accepts a connection, or until it answers.
//
//   ustart --connect ADDRESS [--runs N] [--framing NAME --request TEXT] -- COMMAND [ARG ...]
//
// Starts the command N times, tries to connect every 20 us (and, with --request, waits for the first answer),
// then ends it with SIGTERM, or SIGKILL where half a second of that does not help. Prints median, least and
// most in milliseconds.

#include "options.h"
#include "uwire.h"

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>

namespace uwire {
namespace {

struct Start {
    std::string connect, framing = "newline-len32", request;
    unsigned runs = 11;
    std::vector<char*> command; ///< ends with a null pointer
};

Start parse(int argc, char** argv)
{
    Start start;
    Options options(
        "ustart --connect ADDRESS [--runs N] [--framing NAME --request TEXT] -- COMMAND [ARG ...]");
    options.text("connect", start.connect)
        .number("runs", start.runs)
        .text("framing", start.framing)
        .text("request", start.request);
    start.command = options.read_leading(argc, argv);
    if (start.connect.empty() || start.command.empty() || start.runs == 0)
        options.refuse();
    start.command.push_back(nullptr);
    return start;
}

pid_t launch(const Start& start)
{
    const pid_t pid = fork();
    if (pid != 0)
        return pid;
    const int null = open("/dev/null", O_RDWR);
    dup2(null, STDOUT_FILENO);
    dup2(null, STDERR_FILENO);
    execvp(start.command[0], start.command.data());
    _exit(127);
}

int connect_when_it_accepts(const Start& start, pid_t pid, std::uint64_t since)
{
    int fd = -1;
    while ((fd = connect_to(start.connect)) < 0) {
        if (now_ns() - since > 10000000000u || waitpid(pid, nullptr, WNOHANG) == pid)
            die("%s does not accept connections", start.command[0]);
        usleep(20);
    }
    return fd;
}

void ask(const Start& start, int fd)
{
    auto framing = make_framing(start.framing, start.request.size());
    framing->greet(fd);
    const std::string bytes = framing->encode(start.request);
    std::vector<char> answer;
    write_all(fd, bytes.data(), bytes.size());
    read_frame(fd, *framing, answer);
}

// A daemon that listens before it handles signals can miss the first.
void end(pid_t pid)
{
    for (int tries = 0; waitpid(pid, nullptr, WNOHANG) != pid; ++tries) {
        kill(pid, tries < 50 ? SIGTERM : SIGKILL);
        usleep(10000);
    }
}

// How long it took, in milliseconds.
double run_once(const Start& start)
{
    if (start.connect[0] == '/')
        unlink(start.connect.c_str());
    const std::uint64_t since = now_ns();
    const pid_t pid = launch(start);
    const int fd = connect_when_it_accepts(start, pid, since);
    if (!start.request.empty())
        ask(start, fd);
    const double took = static_cast<double>(now_ns() - since) / 1e6;
    close(fd);
    end(pid);
    return took;
}

int run(const Start& start)
{
    std::vector<double> ms;
    for (unsigned i = 0; i < start.runs; ++i)
        ms.push_back(run_once(start));
    std::sort(ms.begin(), ms.end());
    printf("start_ms=%.2f min_ms=%.2f max_ms=%.2f runs=%u\n", ms[ms.size() / 2], ms.front(), ms.back(),
           start.runs);
    return 0;
}

} // namespace
} // namespace uwire

int main(int argc, char** argv)
{
    return uwire::run(uwire::parse(argc, argv));
}
