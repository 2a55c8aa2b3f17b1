// Formatting of log lines: the prefix area, "[file:line][function()]: ", the message, a line feed. A line is
// built on the stack and never longer than the log writes it: of a message that is longer, the end is only
// counted. So no line takes memory. The head is put together by hand, as parsing its format would cost more
// than the rest of a short line.

#include <orvutils/log_format.h>

#include "log_text.h"

#include <algorithm>
#include <cstring>
#include <exception>

namespace orv::log {

namespace {

class Line {
public:
    explicit Line(const Source& source);

    void append(std::string_view text);
    /// May throw; the line is then as before.
    void append_formatted(fmt::string_view format, fmt::format_args arguments);
    /// Cuts what is too long and ends the line.
    [[nodiscard]] Text finish();

private:
    char* end() { return m_data + kPrefixAreaSize + m_kept; }
    [[nodiscard]] std::size_t room() const { return kKept - m_kept; }

    /// With the beginning of a character that a cut would go through.
    static constexpr std::size_t kKept = kMaxText + 4;

    char m_data[kPrefixAreaSize + kMaxText + kMaxMark + 1];
    std::size_t m_kept = 0; ///< bytes of the text that are here
    std::size_t m_full = 0; ///< bytes that it has
};

Line::Line(
    const Source& source) // NOLINT(cppcoreguidelines-pro-type-member-init): 2 KiB, of which few are used
{
    std::memcpy(m_data, kPrefixArea, kPrefixAreaSize);
    append("[");
    append(source.file);
    append(":");
    const fmt::format_int number(source.line);
    append({number.data(), number.size()});
    append("][");
    append(source.function);
    append("()]: ");
}

void Line::append(std::string_view text)
{
    const std::size_t kept = std::min(text.size(), room());
    std::memcpy(end(), text.data(), kept);
    m_kept += kept;
    m_full += text.size();
}

void Line::append_formatted(fmt::string_view format, fmt::format_args arguments)
{
    const std::size_t size = fmt::vformat_to_n(end(), room(), format, arguments).size;
    m_kept += std::min(size, room());
    m_full += size;
}

Text Line::finish()
{
    const std::size_t fits = fitting({m_data + kPrefixAreaSize, m_kept}, kMaxText);
    if (fits < m_full) {
        m_kept = fits;
        m_kept += put_mark(end(), m_full);
    }
    *end() = '\n';
    return {m_data, kPrefixAreaSize + m_kept + 1};
}

/// A message that cannot be formatted is told by its format, so that the line still helps to find its cause.
void append_message(Line& line, fmt::string_view format, fmt::format_args arguments)
{
    const auto append_failure = [&](const char* cause) {
        line.append("cannot format '");
        line.append({format.data(), format.size()});
        line.append("': ");
        line.append(cause);
    };
    try {
        line.append_formatted(format, arguments);
    } catch (const std::exception& error) {
        append_failure(error.what());
    } catch (...) {
        append_failure("unknown exception");
    }
}

} // namespace

void vformat_and_print(int channel, int level, const Source& source, fmt::string_view format,
                       fmt::format_args arguments)
{
    Line line(source);
    append_message(line, format, arguments);
    print(channel, level, line.finish());
}

} // namespace orv::log
