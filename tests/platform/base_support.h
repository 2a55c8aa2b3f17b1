#pragma once

#include <orvbase/descriptor.h>

#include <sys/types.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

/// The platform's descriptor, which a test hands to system calls all the time.
class Fd : public orv::base::Descriptor {
public:
    using Descriptor::Descriptor;
    operator int() const { return get(); } // NOLINT(google-explicit-constructor)
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

/// Reads until the text ends with `end` (never, if that is empty), the end of file, or 20 seconds have
/// passed.
std::string read_until(int fd, std::string_view end);

/// Waits for a child's end; as Outcome::status.
int wait_for(pid_t process);

std::vector<std::string> lines_of(const std::string& text);
std::string slurp(const std::string& file);
void spill(const std::string& file, std::string_view text);
