#pragma once

#include "base_support.h"

#include <sys/types.h>

#include <cstddef>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

/// In a child process: says what does not hold and ends with status 1.
#define REQUIRE(condition)                                                                                   \
    do {                                                                                                     \
        if (!(condition)) {                                                                                  \
            std::fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #condition);                             \
            return 1;                                                                                        \
        }                                                                                                    \
    } while (false)

/// A child process that runs side by side with the test. It is killed at the end, if it is still there.
class Companion {
public:
    /// The companion's ends of two pipes.
    struct Ends {
        int in;
        int out;
    };

    explicit Companion(const std::function<int(Ends)>& body);
    Companion(const Companion&) = delete;
    Companion& operator=(const Companion&) = delete;
    ~Companion();

    /// Reads one byte that it has written, within 20 seconds; 0 at its end.
    char hear();
    void say(char byte) const;
    void kill();
    /// Waits for its end; its exit status, or 1000 + the signal that it died by.
    int join();
    [[nodiscard]] pid_t pid() const { return m_process; }

private:
    pid_t m_process = -1;
    Fd m_in;
    Fd m_out;
};

/// Whether the descriptor becomes readable within so many milliseconds.
bool is_readable(int fd, int milliseconds);
constexpr int kPatienceMs = 20000;

/// Gives this process mounts of its own. Root needs no user namespace for that; everybody else becomes root
/// in one, where the files of the real root belong to user 65534.
bool enter_mount_namespace();

/// Runs `body` in a child process that has a file system of its own at `directory`, limited in size.
Outcome on_small_disk(const std::string& directory, const char* size, const std::function<int()>& body);
/// Makes that file system read-only, or writable again. False with errno set on failure.
bool make_read_only(const std::string& directory, bool read_only);
/// Writes a file until nothing more fits in the file system.
void fill_disk(const std::string& file);
/// How many lines of a log begin like one, that is, were not written by something else.
std::size_t count_log_lines(const std::string& text);
/// The lines of a log, each as its level and its text: "1 cannot tell".
std::vector<std::string> logged(const std::string& text);
