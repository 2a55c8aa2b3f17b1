// Read to its end before anything is done, so that a request is whole or is not sent. The limit is that of
// what will be made of it: nobody is let type or pipe more than can be of use.

#include "input.h"

#include "output.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

namespace orvctl {

bool read_standard_input(std::string& text, std::size_t limit, std::string_view what)
{
    if (::isatty(STDIN_FILENO) == 1)
        complain("reading " + std::string(what) + " from standard input, end it with Ctrl-D");
    std::array<char, 16384> chunk{};
    while (text.size() <= limit) {
        const ssize_t got = ::read(STDIN_FILENO, chunk.data(), chunk.size());
        if (got == 0)
            return true;
        if (got == -1 && errno != EINTR) {
            complain(std::string("cannot read standard input: ") + std::strerror(errno));
            return false;
        }
        text.append(chunk.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    }
    constexpr std::size_t kMebibyte = 1048576;
    const std::string most = limit % kMebibyte == 0 ? std::to_string(limit / kMebibyte) + " MiB"
                                                    : std::to_string(limit) + " bytes";
    complain("standard input is longer than can be sent (" + most + ")");
    return false;
}

} // namespace orvctl
