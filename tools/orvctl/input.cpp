// Read to its end before anything is done, so that a request is whole or is not sent. The limit is that of
// what will be made of it: nobody is let type or pipe more than can be of use.

#include "input.h"

#include "output.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace orvctl {

namespace {

constexpr std::size_t kMebibyte = 1048576;

enum class End { whole, too_long, failed };

/// Reads to the end; errno tells why it has failed.
End read_all(int fd, std::string& text, std::size_t limit)
{
    std::array<char, 16384> chunk{};
    while (text.size() <= limit) {
        const ssize_t got = ::read(fd, chunk.data(), chunk.size());
        if (got == 0)
            return End::whole;
        if (got == -1 && errno != EINTR)
            return End::failed;
        text.append(chunk.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    }
    return End::too_long;
}

bool write_all(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t put = ::write(fd, text.data(), text.size());
        if (put == -1 && errno != EINTR)
            return false;
        text.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(put, 0)));
    }
    return true;
}

bool fail(const std::string& what)
{
    complain(what + ": " + std::strerror(errno));
    return false;
}

} // namespace

bool read_standard_input(std::string& text, std::size_t limit, std::string_view what)
{
    if (::isatty(STDIN_FILENO) == 1)
        complain("reading " + std::string(what) + " from standard input, end it with Ctrl-D");
    switch (read_all(STDIN_FILENO, text, limit)) {
    case End::whole:
        return true;
    case End::failed:
        return fail("cannot read standard input");
    case End::too_long:
        break;
    }
    complain("standard input is longer than can be sent (" + std::to_string(limit / kMebibyte) + " MiB)");
    return false;
}

bool read_file(const std::string& file, std::string& text, std::size_t limit, std::string_view what)
{
    if (file == "-")
        return read_standard_input(text, limit, what);
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    const End end = fd < 0 ? End::failed : read_all(fd, text, limit);
    const int error = errno;
    if (fd >= 0)
        (void)::close(fd); // nothing was written
    errno = error;
    if (end == End::failed)
        return fail("cannot read " + file);
    if (end == End::too_long)
        complain(file + " is longer than " + std::to_string(limit / kMebibyte) + " MiB");
    return end == End::whole;
}

bool write_file(const std::string& file, std::string_view text)
{
    if (file == "-")
        return write_all(STDOUT_FILENO, text) || fail("cannot write standard output");
    std::string made = file + ".XXXXXX";
    const int fd = ::mkstemp(made.data());
    if (fd < 0)
        return fail("cannot write " + file);
    const bool is_written = write_all(fd, text) && ::fsync(fd) == 0;
    const bool is_made = ::close(fd) == 0 && is_written && std::rename(made.c_str(), file.c_str()) == 0;
    if (is_made)
        return true;
    const int error = errno;
    (void)::unlink(made.c_str()); // the failure that counts is told
    errno = error;
    return fail("cannot write " + file);
}

} // namespace orvctl
