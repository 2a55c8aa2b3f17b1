// What the tests of the stores share: companion processes, small and read-only file systems.

#include "process_support.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <utility>

Companion::Companion(const std::function<int(Ends)>& body)
{
    auto to = make_pipe();
    auto from = make_pipe();
    m_process = fork();
    if (m_process < 0)
        throw std::runtime_error("fork");
    if (m_process == 0) {
        to.second.reset();
        from.first.reset();
        _exit(body({to.first, from.second}));
    }
    m_in = std::move(from.first);
    m_out = std::move(to.second);
}

Companion::~Companion()
{
    if (m_process > 0) {
        kill();
        (void)join();
    }
}

char Companion::hear()
{
    char byte = 0;
    return is_readable(m_in, kPatienceMs) && read(m_in, &byte, 1) == 1 ? byte : '\0';
}

void Companion::say(char byte) const
{
    if (write(m_out, &byte, 1) != 1)
        throw std::runtime_error("write");
}

void Companion::kill()
{
    ::kill(m_process, SIGKILL);
}

int Companion::join()
{
    return wait_for(std::exchange(m_process, -1));
}

bool is_readable(int fd, int milliseconds)
{
    pollfd watched = {fd, POLLIN, 0};
    return poll(&watched, 1, milliseconds) > 0;
}

bool enter_mount_namespace()
{
    if (unshare(CLONE_NEWNS) == 0)
        return true;
    const std::string user = "0 " + std::to_string(geteuid()) + " 1";
    const std::string group = "0 " + std::to_string(getegid()) + " 1";
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) != 0)
        return false;
    spill("/proc/self/setgroups", "deny");
    spill("/proc/self/uid_map", user);
    spill("/proc/self/gid_map", group);
    return geteuid() == 0 && getegid() == 0;
}

Outcome on_small_disk(const std::string& directory, const char* size, const std::function<int()>& body)
{
    return in_child([&]() -> int {
        REQUIRE(enter_mount_namespace());
        REQUIRE(mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0);
        REQUIRE(mount("none", directory.c_str(), "tmpfs", 0,
                      ("mode=0700,size=" + std::string(size)).c_str()) == 0);
        return body();
    });
}

bool make_read_only(const std::string& directory, bool read_only)
{
    return mount("none", directory.c_str(), nullptr, MS_REMOUNT | (read_only ? MS_RDONLY : 0), nullptr) == 0;
}

void fill_disk(const std::string& file)
{
    const Fd fd(open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600));
    const std::string block(4096, 'x');
    while (write(fd, block.data(), block.size()) > 0) {
    }
}

std::size_t count_log_lines(const std::string& text)
{
    std::size_t count = 0;
    for (const std::string& line : lines_of(text))
        count += line.find("]: ") != std::string::npos ? 1 : 0;
    return count;
}

std::vector<std::string> logged(const std::string& text)
{
    std::vector<std::string> found;
    for (const std::string& line : lines_of(text)) {
        const auto source = line.find('[');
        const auto message = line.find("]: ");
        if (source < 2 || source == std::string::npos || message == std::string::npos)
            continue;
        found.push_back(line.substr(source - 2, 2) + line.substr(message + 3));
    }
    return found;
}
