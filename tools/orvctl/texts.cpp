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
    complain("standard input is longer than can be sent (" + std::to_string(limit / kMebibyte) + " MiB)");
    return false;
}

bool is_json(std::string_view text)
{
    // The flags keep the parser from refusing most of what JSON allows and C cannot hold.
    constexpr std::size_t kFlags = JSON_DECODE_ANY | JSON_ALLOW_NUL | JSON_DECODE_INT_AS_REAL;
    json_t* value = json_loadb(text.data(), text.size(), kFlags, nullptr);
    json_decref(value);
    return value != nullptr;
}

std::string as_json(std::string_view payload)
{
    if (!is_json(payload))
        return orvbroker::quote(payload);
    // Line breaks stand between the tokens only.
    const auto is_line_break = [](char byte) { return byte == '\n' || byte == '\r'; };
    std::string text(payload);
    std::replace_if(text.begin(), text.end(), is_line_break, ' ');
    return text;
}

std::string printable(std::string_view text, std::string_view kept)
{
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        const auto next = static_cast<unsigned char>(i + 1 < text.size() ? text[i + 1] : 0);
        if (byte == 0xC2 && next >= 0x80 && next <= 0x9F) { // U+0080 to U+009F in UTF-8
            out += '?';
            ++i;
        } else if (byte == '\t') {
            out += ' ';
        } else if ((byte < 0x20 || byte == 0x7F) && kept.find(text[i]) == std::string_view::npos) {
            out += '?';
        } else {
            out += text[i];
        }
    }
    return out;
}

std::string time_stamp()
{
    timespec now{};
    (void)::clock_gettime(CLOCK_REALTIME, &now); // cannot fail for this clock
    std::tm parts{};
    std::array<char, 32> seconds{};
    if (::gmtime_r(&now.tv_sec, &parts) == nullptr ||
        std::strftime(seconds.data(), seconds.size(), "%Y-%m-%dT%H:%M:%S", &parts) == 0)
        return "-";
    const std::string milliseconds = std::to_string(1000 + now.tv_nsec / 1000000);
    return std::string(seconds.data()) + "." + milliseconds.substr(1) + "Z";
}

} // namespace orvctl
