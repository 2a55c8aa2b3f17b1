// Everything goes out by write(2) at once: whoever reads the other end of a pipe has each line when it
// happens.

#include "output.h"

#include "exit_status.h"
#include "texts.h"

#include <orvtools/json.h>

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace orvctl {
namespace {

constexpr std::string_view kReset = "\033[0m";
constexpr std::string_view kBold = "\033[1m";
constexpr std::string_view kKeyColor = "\033[34m";
constexpr std::string_view kStringColor = "\033[32m";
constexpr std::string_view kLiteralColor = "\033[33m";
constexpr std::string_view kStructure = "{}[],: \n";

bool are_colors_wanted(Color color, bool terminal)
{
    switch (color) {
    case Color::always:
        return true;
    case Color::never:
        return false;
    case Color::automatic:
        break;
    }
    const char* type = std::getenv("TERM");
    const char* refusal = std::getenv("NO_COLOR");
    const bool refused = refusal && *refusal != '\0';
    return terminal && !refused && type && std::strcmp(type, "dumb") != 0;
}

/// The text indented, what is not JSON as a JSON string. It may be anyone's: nothing in it steers the
/// terminal.
std::string indented(std::string_view text)
{
    constexpr std::size_t kIndent = 2;
    const orv::JsonPtr value = orvtools::parse_json(text, JSON_DECODE_ANY | JSON_ALLOW_NUL);
    if (!value)
        return printable(as_json(text));
    const std::string dumped = orvtools::to_text(value.get(), JSON_INDENT(kIndent));
    return printable(dumped.empty() ? text : dumped, "\n");
}

/// The size of the string that `text` begins with, both quotes included.
std::size_t string_size(std::string_view text)
{
    std::size_t at = 1;
    while (at < text.size() && text[at] != '"')
        at += text[at] == '\\' ? 2 : 1;
    return std::min(at + 1, text.size());
}

std::string_view color_of(std::string_view token, std::string_view rest)
{
    if (token.front() != '"')
        return kLiteralColor;
    return !rest.empty() && rest.front() == ':' ? kKeyColor : kStringColor;
}

/// JSON text with its keys, strings and literals in colours.
std::string colored(std::string_view text)
{
    std::string out;
    while (!text.empty()) {
        const std::size_t blank = std::min(text.find_first_not_of(kStructure), text.size());
        out += text.substr(0, blank);
        text.remove_prefix(blank);
        if (text.empty())
            break;
        const std::size_t size =
            text.front() == '"' ? string_size(text) : std::min(text.find_first_of(kStructure), text.size());
        const std::string_view token = text.substr(0, size);
        text.remove_prefix(size);
        out.append(color_of(token, text)).append(token).append(kReset);
    }
    return out;
}

/// How many columns a UTF-8 text takes, near enough: one for each code point.
std::size_t width(std::string_view text)
{
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char byte) {
        return (static_cast<unsigned char>(byte) & 0xC0U) != 0x80U;
    }));
}

std::string aligned(const std::vector<std::string>& cells, const std::vector<std::size_t>& widths)
{
    std::string line;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        line += cells[i];
        if (i + 1 < cells.size())
            line.append(widths[i] - width(cells[i]) + 2, ' ');
    }
    return line;
}

/// Writes all of a text, waiting for room in a descriptor that does not block: whoever shares it may have
/// made it so. False with errno set on failure.
bool write_all(int fd, std::string_view text)
{
    while (!text.empty()) {
        const ssize_t written = ::write(fd, text.data(), text.size());
        if (written >= 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (errno == EAGAIN) {
            pollfd room{fd, POLLOUT, 0};
            (void)::poll(&room, 1, -1); // a failure shows in the writing that follows
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

} // namespace

Output::Output(bool json, Color color)
    : m_json(json), m_for_people(!json && ::isatty(STDOUT_FILENO) == 1),
      m_colors(are_colors_wanted(color, m_for_people))
{
}

int Output::fd()
{
    return STDOUT_FILENO;
}

void Output::text(std::string_view text)
{
    if (!m_open || write_all(STDOUT_FILENO, text))
        return;
    m_open = false;
    m_failed = errno != EPIPE;
    if (m_failed)
        complain(std::string("cannot write: ") + std::strerror(errno));
}

void Output::line(std::string_view text)
{
    this->text(std::string(text) + "\n");
}

void Output::json(std::string_view text)
{
    const std::string shown = m_for_people ? indented(text) : as_json(text);
    line(m_colors ? colored(shown) : shown);
}

void Output::table(const std::vector<std::string>& titles, std::vector<std::vector<std::string>> rows)
{
    for (auto& row : rows) {
        std::transform(row.begin(), row.end(), row.begin(),
                       [](const std::string& cell) { return printable(cell); });
    }
    std::vector<std::size_t> widths;
    for (std::size_t i = 0; i < titles.size(); ++i) {
        std::size_t widest = width(titles[i]);
        for (const auto& row : rows)
            widest = std::max(widest, width(row[i]));
        widths.push_back(widest);
    }
    line(emphasized(aligned(titles, widths)));
    for (const auto& row : rows)
        line(aligned(row, widths));
}

std::string Output::emphasized(std::string_view text) const
{
    std::string out(text);
    return m_colors ? std::string(kBold).append(out).append(kReset) : out;
}

int Output::finish(int status) const
{
    return m_failed ? kFailed : status;
}

void complain(std::string_view text)
{
    const std::string line = "orvctl: " + printable(text) + "\n";
    // Nothing is left to be told to anyone when standard error fails.
    (void)write_all(STDERR_FILENO, line);
}

} // namespace orvctl
