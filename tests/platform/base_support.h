#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

/// A descriptor that is closed with its owner.
class Fd {
public:
    explicit Fd(int fd = -1) : m_fd(fd) {}
    Fd(Fd&& other) noexcept;
    Fd& operator=(Fd&& other) noexcept;
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    ~Fd() { reset(); }

    operator int() const { return m_fd; } // NOLINT(google-explicit-constructor)
    void reset();

private:
    int m_fd;
};

/// Two connected ends: bytes written to the second are read from the first.
struct Ends {
    Fd first;
    Fd second;
};
Ends make_pipe();
Ends make_sockets(int type);

/// An agent's root of its own, removed at the end.
class TemporaryRoot {
public:
    TemporaryRoot();
    TemporaryRoot(const TemporaryRoot&) = delete;
    TemporaryRoot& operator=(const TemporaryRoot&) = delete;
    ~TemporaryRoot();

    [[nodiscard]] const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

/// What a process has left behind: its exit status, or 1000 + the signal that it died by.
struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
    pid_t process = -1;
};

/// Runs `body` in a child process with standard output and error caught; its result is the exit status.
Outcome in_child(const std::function<int()>& body);

/// Runs the probe daemon with these options and these additions to the environment ("NAME=value").
/// `prepare` runs right before it, in the same process.
Outcome run_probe(const std::vector<std::string>& options, const std::vector<std::string>& environment = {},
                  const std::function<void()>& prepare = nullptr);

/// The probe, running, with its standard output to be read.
struct Running {
    pid_t process = -1;
    Fd out;
};
[[nodiscard]] Running start_probe(const std::vector<std::string>& options,
                                  const std::vector<std::string>& environment = {});

/// Reads until the text ends with `end` (never, if that is empty), the end of file, or 20 seconds have
/// passed.
std::string read_until(int fd, std::string_view end);

/// Waits for a child's end; as Outcome::status.
int wait_for(pid_t process);

std::vector<std::string> lines_of(const std::string& text);
std::string slurp(const std::string& file);
void spill(const std::string& file, std::string_view text);
