// Formatting of log lines: the prefix area, "[file:line][function()]: ", the message, a line feed. Lines are
// built on the stack, those longer than kStackSize on the heap. The head is put together by hand, as parsing
// its format would cost more than the rest of a short line.

#include <orvutils/log_format.h>

#include <cstring>
#include <exception>

namespace orv::log {

namespace {

constexpr std::size_t kStackSize = 1024;
using Line = fmt::basic_memory_buffer<char, kStackSize>;

void append(Line& line, std::string_view text)
{
    line.append(text.data(), text.data() + text.size());
}

void append_head(Line& line, const Source& source)
{
    append(line, {kPrefixArea, kPrefixAreaSize});
    append(line, "[");
    append(line, source.file);
    append(line, ":");
    const fmt::format_int number(source.line);
    append(line, {number.data(), number.size()});
    append(line, "][");
    append(line, source.function);
    append(line, "()]: ");
}

/// A message that cannot be formatted is told by its format, so that the line still helps to find its cause.
void append_message(Line& line, fmt::string_view format, fmt::format_args arguments)
{
    const std::size_t begin = line.size();
    try {
        fmt::vformat_to(fmt::appender(line), format, arguments);
    } catch (const std::exception& error) {
        line.resize(begin);
        append(line, "cannot format '");
        append(line, {format.data(), format.size()});
        append(line, "': ");
        append(line, error.what());
    }
}

/// For when there is no memory for the line itself.
void print_loss(int channel, int level)
{
    char line[kPrefixAreaSize + 64] = {};
    std::memcpy(line, kPrefixArea, kPrefixAreaSize);
    constexpr std::string_view message = "[log]: no memory for a log line\n";
    static_assert(kPrefixAreaSize + message.size() <= sizeof line);
    std::memcpy(line + kPrefixAreaSize, message.data(), message.size());
    print(channel, level, {line, kPrefixAreaSize + message.size()});
}

} // namespace

void vformat_and_print(int channel, int level, const Source& source, fmt::string_view format,
                       fmt::format_args arguments)
{
    try {
        Line line;
        append_head(line, source);
        append_message(line, format, arguments);
        line.push_back('\n');
        print(channel, level, {line.data(), line.size()});
    } catch (const std::exception&) {
        print_loss(channel, level);
    }
}

} // namespace orv::log
