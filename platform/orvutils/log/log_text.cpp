// Nearly every text is plain, so that is found out eight bytes at a time, and only what is not is looked at
// byte by byte.

#include "log_text.h"

#include <fmt/format.h>

#include <cstdint>
#include <cstring>

namespace orv::log {

namespace {

constexpr std::size_t kEscapeSize = 4;

constexpr bool is_control(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    return byte < 0x20 || byte == 0x7f;
}

constexpr bool is_continuation(char c)
{
    return (static_cast<unsigned char>(c) & 0xc0U) == 0x80U;
}

/// Whether one of eight bytes is a control character. A subtraction borrows from the byte above only after it
/// has set the highest bit of its own, so that the answer, if not its place, is exact; a byte from 0x80 on
/// never counts.
constexpr bool has_control(std::uint64_t bytes)
{
    constexpr std::uint64_t kOnes = 0x0101010101010101U;
    constexpr std::uint64_t kHighest = 0x80 * kOnes;
    const std::uint64_t below_blank = (bytes - 0x20 * kOnes) & ~bytes;
    const std::uint64_t different = bytes ^ 0x7f * kOnes;
    const std::uint64_t deleted = (different - kOnes) & ~different;
    return ((below_blank | deleted) & kHighest) != 0;
}

/// The start of the character that the cut would go through. What is no UTF-8 is cut anywhere.
std::size_t between_characters(std::string_view text, std::size_t cut)
{
    constexpr std::size_t kLongest = 4;
    for (std::size_t back = 0; back < kLongest && back < cut; ++back)
        if (!is_continuation(text[cut - back]))
            return cut - back;
    return cut;
}

} // namespace

bool is_plain(std::string_view text)
{
    std::uint64_t bytes = 0;
    for (; text.size() >= sizeof bytes; text.remove_prefix(sizeof bytes)) {
        std::memcpy(&bytes, text.data(), sizeof bytes);
        if (has_control(bytes))
            return false;
    }
    for (const char c : text)
        if (is_control(c))
            return false;
    return true;
}

std::size_t fitting(std::string_view text, std::size_t room)
{
    if (text.size() * kEscapeSize <= room)
        return text.size();
    std::size_t taken = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        taken += is_control(text[at]) ? kEscapeSize : 1;
        if (taken > room)
            return between_characters(text, at);
    }
    return text.size();
}

std::size_t put_escaped(char* to, std::string_view text)
{
    char* const begin = to;
    for (const char c : text) {
        if (!is_control(c)) {
            *to++ = c;
            continue;
        }
        constexpr char kDigits[] = "0123456789abcdef";
        const auto byte = static_cast<unsigned char>(c);
        *to++ = '\\';
        *to++ = 'x';
        *to++ = kDigits[byte >> 4U];
        *to++ = kDigits[byte & 0xfU];
    }
    return static_cast<std::size_t>(to - begin);
}

std::size_t put_mark(char* to, std::size_t full_size)
{
    return fmt::format_to_n(to, kMaxMark, "... ({} bytes)", full_size).size;
}

} // namespace orv::log
