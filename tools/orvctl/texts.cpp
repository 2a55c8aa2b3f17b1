// What a text of somebody else's may do to a line of JSON or to a terminal is decided here, byte by byte; the
// text itself is never understood.

#include "texts.h"

#include <orvbroker/client.h>
#include <orvtools/json.h>

#include <algorithm>
#include <array>
#include <ctime>

namespace orvctl {

bool is_json(std::string_view text)
{
    // The flags keep the parser from refusing most of what JSON allows and C cannot hold.
    constexpr std::size_t kFlags = JSON_DECODE_ANY | JSON_ALLOW_NUL | JSON_DECODE_INT_AS_REAL;
    return orvtools::parse_json(text, kFlags) != nullptr;
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
    if (!::gmtime_r(&now.tv_sec, &parts) ||
        std::strftime(seconds.data(), seconds.size(), "%Y-%m-%dT%H:%M:%S", &parts) == 0)
        return "-";
    const std::string milliseconds = std::to_string(1000 + now.tv_nsec / 1000000);
    return std::string(seconds.data()) + "." + milliseconds.substr(1) + "Z";
}

} // namespace orvctl
