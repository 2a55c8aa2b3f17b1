#include "texts.h"

#include "output.h"

#include <jansson.h>
#include <orvbroker/client.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>

namespace orvctl {

bool read_standard_input(std::string& text, std::size_t limit, std::string_view what)
{
    if (::isatty(STDIN_FILENO) == 1) {
        complain("reading " + std::string(what) + " from standard input, end it with Ctrl-D");
    }
    std::array<char, 16384> chunk{};
    while (text.size() <= limit) {
        const ssize_t got = ::read(STDIN_FILENO, chunk.data(), chunk.size());
        if (got == 0) {
            return true;
        }
        if (got == -1 && errno != EINTR) {
            complain(std::string("cannot read standard input: ") + std::strerror(errno));
            return false;
        }
        text.append(chunk.data(), static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    }
    constexpr std::size_t kMebibyte = 1048576;
    complain("standard input is longer than can be sent (" + std::to_string(limit / kMebibyte) + " MiB)");
    return false;
}

bool is_json(std::string_view text)
{
    json_t* value = json_loadb(text.data(), text.size(), JSON_DECODE_ANY, nullptr);
    json_decref(value);
    return value != nullptr;
}

std::string as_json(std::string_view payload)
{
    if (!is_json(payload)) {
        return orvbroker::quote(payload);
    }
    // Line feeds stand between the tokens only.
    std::string text(payload);
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

std::string time_stamp()
{
    timespec now{};
    (void)::clock_gettime(CLOCK_REALTIME, &now); // cannot fail for this clock
    std::tm parts{};
    std::array<char, 32> seconds{};
    if (::gmtime_r(&now.tv_sec, &parts) == nullptr ||
        std::strftime(seconds.data(), seconds.size(), "%Y-%m-%dT%H:%M:%S", &parts) == 0) {
        return "-";
    }
    const std::string milliseconds = std::to_string(1000 + now.tv_nsec / 1000000);
    return std::string(seconds.data()) + "." + milliseconds.substr(1) + "Z";
}

} // namespace orvctl
