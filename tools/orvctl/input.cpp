// Read to its end before anything is done, so that a request is whole or is not sent. The limit is that of
// what will be made of it: nobody is let type or pipe more than can be of use.

#include "input.h"

#include "output.h"

#include <orvbase/descriptor.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace orvctl {

namespace {

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

std::string size_text(std::size_t limit)
{
    constexpr std::size_t kMebibyte = 1048576;
    return limit % kMebibyte == 0 ? std::to_string(limit / kMebibyte) + " MiB"
                                  : std::to_string(limit) + " bytes";
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
    complain("standard input is longer than can be sent (" + size_text(limit) + ")");
    return false;
}

bool is_regular_file(const std::string& file)
{
    struct stat status {};
    return (file == "-" ? ::fstat(STDIN_FILENO, &status) : ::stat(file.c_str(), &status)) == 0 &&
           S_ISREG(status.st_mode);
}

bool read_file(const std::string& file, std::string& text, std::size_t limit, std::string_view what)
{
    if (file == "-")
        return read_standard_input(text, limit, what);
    const orv::base::Descriptor opened(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    struct stat status {};
    End end = End::failed;
    if (opened.is_open() && ::fstat(opened.get(), &status) == 0)
        end = static_cast<std::uintmax_t>(status.st_size) > limit ? End::too_long
                                                                  : read_all(opened.get(), text, limit);
    if (end == End::failed)
        return fail("cannot read " + file);
    if (end == End::too_long)
        complain(file + " is longer than " + size_text(limit));
    return end == End::whole;
}

} // namespace orvctl
