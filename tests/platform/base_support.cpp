// What the tests of the platform's base share: child processes and their output, descriptors, roots.

#include "base_support.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::chrono::seconds kPatience(20);
constexpr int kSignalStatus = 1000;

int check(int result, const char* what)
{
    if (result == -1)
        throw std::runtime_error(what);
    return result;
}

/// Whether the descriptor has something to read before the deadline.
bool wait_readable(int fd, Clock::time_point deadline)
{
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd watched = {fd, POLLIN, 0};
    return left.count() > 0 && poll(&watched, 1, static_cast<int>(left.count())) > 0;
}

/// A file without a name that takes a child's output, so that a talkative child never has to wait for its
/// reader.
class Capture {
public:
    Capture() : m_file(std::tmpfile())
    {
        if (!m_file)
            throw std::runtime_error("tmpfile");
    }
    Capture(const Capture&) = delete;
    Capture& operator=(const Capture&) = delete;
    ~Capture() { std::fclose(m_file); }

    [[nodiscard]] int fd() const { return fileno(m_file); }

    [[nodiscard]] std::string text() const
    {
        std::rewind(m_file);
        std::string text;
        for (int c = 0; (c = std::fgetc(m_file)) != EOF;)
            text.push_back(static_cast<char>(c));
        return text;
    }

private:
    std::FILE* m_file;
};

} // namespace

Ends make_pipe()
{
    int ends[2] = {-1, -1};
    check(pipe2(ends, O_CLOEXEC), "pipe2");
    return {Fd(ends[0]), Fd(ends[1])};
}

Ends make_sockets(int type)
{
    int ends[2] = {-1, -1};
    check(socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends), "socketpair");
    return {Fd(ends[0]), Fd(ends[1])};
}

TemporaryRoot::TemporaryRoot()
{
    char name[] = "/tmp/orv-base-test-XXXXXX";
    if (!mkdtemp(name))
        throw std::runtime_error("mkdtemp");
    m_path = name;
    setenv("ORV_ROOT", name, 1);
}

TemporaryRoot::~TemporaryRoot()
{
    unsetenv("ORV_ROOT");
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

Outcome in_child(const std::function<int()>& body)
{
    const Capture out;
    const Capture err;
    std::fflush(nullptr); // or what is still to be written appears among the child's output
    const pid_t child = check(fork(), "fork");
    if (child == 0) {
        dup2(out.fd(), STDOUT_FILENO);
        dup2(err.fd(), STDERR_FILENO);
        const int status = body();
        std::fflush(stdout);
        _exit(status);
    }
    Outcome outcome;
    outcome.process = child;
    outcome.status = wait_for(child);
    outcome.out = out.text();
    outcome.err = err.text();
    return outcome;
}

std::string read_until(int fd, std::string_view end)
{
    const auto deadline = Clock::now() + kPatience;
    std::string text;
    char byte = 0;
    const auto complete = [&] {
        return !end.empty() && text.size() >= end.size() &&
               text.compare(text.size() - end.size(), end.size(), end) == 0;
    };
    while (!complete() && wait_readable(fd, deadline) && read(fd, &byte, 1) == 1)
        text.push_back(byte);
    return text;
}

int wait_for(pid_t process)
{
    int status = 0;
    while (waitpid(process, &status, 0) == -1)
        if (errno != EINTR)
            throw std::runtime_error("waitpid");
    return WIFSIGNALED(status) ? kSignalStatus + WTERMSIG(status) : WEXITSTATUS(status);
}

std::vector<std::string> lines_of(const std::string& text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

std::string slurp(const std::string& file)
{
    std::ifstream in(file);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void spill(const std::string& file, std::string_view text)
{
    std::ofstream(file) << text;
}
