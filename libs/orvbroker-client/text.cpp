// The few texts that a client has to write and read itself: strings of a request, and the envelope around an
// answer. The daemon writes the envelope with "data" first and "status" last, so both ends of it are fixed
// and what lies between them is the data, whatever it holds.

#include <orvbroker/client.h>

#include <array>
#include <charconv>
#include <cstdio>
#include <utility>

namespace orvbroker {
namespace {

constexpr std::string_view kHead = R"({"data": )";
constexpr std::string_view kStatus = R"(, "status": )";
constexpr std::string_view kReplacement = "\xEF\xBF\xBD"; // U+FFFD

bool parse_status(std::string_view text, int& status)
{
    if (text.empty() || text.back() != '}')
        return false;
    text.remove_suffix(1);
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, status);
    return error == std::errc{} && stop == end;
}

bool is_continuation(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0U) == 0x80U;
}

/// How many bytes a UTF-8 sequence has by its first byte; 0 when none begins with it.
std::size_t sequence_size(unsigned char first)
{
    if (first < 0x80)
        return 1;
    if (first >= 0xC2 && first <= 0xDF)
        return 2;
    if (first >= 0xE0 && first <= 0xEF)
        return 3;
    return first >= 0xF0 && first <= 0xF4 ? 4 : 0;
}

/// Over-long forms, surrogates and what lies beyond U+10FFFF show in the second byte.
bool is_second_byte_valid(unsigned char first, unsigned char second)
{
    switch (first) {
    case 0xE0:
        return second >= 0xA0;
    case 0xED:
        return second < 0xA0;
    case 0xF0:
        return second >= 0x90;
    case 0xF4:
        return second < 0x90;
    default:
        return true;
    }
}

/// The size of the valid UTF-8 sequence that `text` begins with, or 0.
std::size_t valid_prefix(std::string_view text)
{
    const auto first = static_cast<unsigned char>(text.front());
    const std::size_t size = sequence_size(first);
    if (size == 0 || size > text.size())
        return 0;
    for (std::size_t i = 1; i < size; ++i)
        if (!is_continuation(text[i]))
            return 0;
    return size == 1 || is_second_byte_valid(first, static_cast<unsigned char>(text[1])) ? size : 0;
}

void append_ascii(std::string& out, char byte)
{
    if (byte == '"' || byte == '\\') {
        out.append({'\\', byte});
    } else if (static_cast<unsigned char>(byte) >= 0x20) {
        out += byte;
    } else {
        std::array<char, 8> escape{};
        std::snprintf(escape.data(), escape.size(), "\\u%04x", static_cast<unsigned>(byte));
        out += escape.data();
    }
}

} // namespace

bool Answer::parse(std::string envelope)
{
    const std::size_t status_at = envelope.rfind(kStatus);
    if (envelope.compare(0, kHead.size(), kHead) != 0 || status_at == std::string::npos ||
        status_at <= kHead.size())
        return false;
    int status = 0;
    if (!parse_status(std::string_view(envelope).substr(status_at + kStatus.size()), status))
        return false;
    m_envelope = std::move(envelope);
    m_data_size = status_at - kHead.size();
    m_status = status;
    return true;
}

std::string_view Answer::data() const
{
    return std::string_view(m_envelope).substr(kHead.size(), m_data_size);
}

std::string quote(std::string_view text)
{
    std::string quoted = "\"";
    while (!text.empty()) {
        const std::size_t size = valid_prefix(text);
        if (size == 1)
            append_ascii(quoted, text.front());
        else
            quoted += size == 0 ? kReplacement : text.substr(0, size);
        text.remove_prefix(size == 0 ? 1 : size);
    }
    quoted += '"';
    return quoted;
}

} // namespace orvbroker
