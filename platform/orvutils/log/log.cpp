// Writing log lines. A client's request costs two of them, so a line is stamped from a template that is kept
// ready: its date and time change once a second, its process id after a fork, and only the milliseconds and
// the level are put in line by line. Nothing here allocates memory or waits, and a foreground line is one
// write(2); only a line that is too long, or holds control characters, is copied.
//
// What a neighbour can make happen over and over must not drown the rest. A line with the text and level of
// the last one is counted instead of written. The count is told by the next repetition that comes a second or
// more after the last line was written, before any other line, and at the end of the process. A line that
// nobody took is counted, too, and that is told as soon as there is room again.
//
// All channels share the one sink; a line on a channel that nobody opened is written too, as losing it would
// be worse. errno is left as it was, so that logging a failure does not disturb who looks at its cause next.

#include <orvutils/log.h>

#include "log_sink.h"
#include "log_text.h"

#include <orvbase/clock.h>
#include <orvutils/log_control.h>

#include <fmt/format.h>

#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

namespace orv::log {

namespace {

constexpr int kDefaultThreshold = kInfo;

// The fields of kPrefixArea: "yyyy-mm-dd HH:MM:SS.__m ____pid __lvl ".
struct Field {
    std::size_t offset;
    std::size_t width;
};
constexpr Field kYear = {0, 4};
constexpr Field kMonth = {5, 2};
constexpr Field kDay = {8, 2};
constexpr Field kHour = {11, 2};
constexpr Field kMinute = {14, 2};
constexpr Field kSecond = {17, 2};
constexpr Field kMilliseconds = {20, 3};
constexpr Field kProcess = {24, 7};
constexpr Field kLevel = {32, 5};
static_assert(kLevel.offset + kLevel.width + 1 == kPrefixAreaSize);

/// "Mmm dd HH:MM:SS", as the system log wants it.
constexpr std::size_t kShortStampSize = 15;

/// What the system log shows of a longer name is up to it.
constexpr std::size_t kMaxProgram = 47;

struct State {
    char stamp[sizeof kPrefixArea];
    char short_stamp[kShortStampSize];
    std::time_t second; ///< that the stamps show
    bool has_second;
    bool has_process;
    char program[kMaxProgram + 1]; ///< in the background
    const char* address;           ///< of the system log; null in the foreground
};

constexpr State initial_state()
{
    State state{};
    for (std::size_t i = 0; i < kPrefixAreaSize; ++i)
        state.stamp[i] = kPrefixArea[i];
    return state;
}

State g_state = initial_state();

constexpr std::size_t kMaxWritten = kMaxText + kMaxMark;
constexpr std::int64_t kRepetitionMs = 1000;

/// The last line that was written, without its prefix area and last line feed, and what came of others.
struct Last {
    char text[kMaxWritten];
    std::size_t size; ///< 0: none that could be repeated
    int level;
    std::int64_t written_at;
    unsigned long repetitions; ///< that nobody knows of yet
    unsigned long lost;        ///< that nobody knows of yet
};

Last g_last = {};

/// Right-aligns a number in its field; of one that is too long the last digits are shown.
void put_number(char* area, Field field, long number, char padding)
{
    char* begin = area + field.offset;
    char* digit = begin + field.width;
    do {
        *--digit = static_cast<char>('0' + number % 10);
        number /= 10;
    } while (number > 0 && digit != begin);
    std::fill(begin, digit, padding);
}

/// In a new process: what was not told of the other one's lines is told by the other one.
void begin_process()
{
    g_state.has_process = false;
    g_last.size = 0;
    g_last.repetitions = 0;
    g_last.lost = 0;
    leave_standard_error();
}

void stamp_process()
{
    static bool s_watching_forks = false;
    if (!s_watching_forks)
        s_watching_forks = pthread_atfork(nullptr, nullptr, begin_process) == 0;
    put_number(g_state.stamp, kProcess, getpid(), ' ');
    g_state.has_process = s_watching_forks; // else ask for each line
}

void stamp_second(std::time_t second)
{
    std::tm local{};
    if (!localtime_r(&second, &local))
        return;
    put_number(g_state.stamp, kYear, local.tm_year + 1900L, '0');
    put_number(g_state.stamp, kMonth, local.tm_mon + 1L, '0');
    put_number(g_state.stamp, kDay, local.tm_mday, '0');
    put_number(g_state.stamp, kHour, local.tm_hour, '0');
    put_number(g_state.stamp, kMinute, local.tm_min, '0');
    put_number(g_state.stamp, kSecond, local.tm_sec, '0');
    constexpr char kMonths[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
    std::memcpy(g_state.short_stamp, kMonths + 3L * local.tm_mon, 3);
    std::memcpy(g_state.short_stamp + 3, " dd ", 4);
    put_number(g_state.short_stamp, {4, 2}, local.tm_mday, ' ');
    std::memcpy(g_state.short_stamp + 7, g_state.stamp + kHour.offset, 8);
    g_state.second = second;
    g_state.has_second = true;
}

/// Brings the stamps up to date; the milliseconds within the second.
long stamp_now()
{
    if (!g_state.has_process)
        stamp_process();
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now); // this clock is always there
    if (!g_state.has_second || now.tv_sec != g_state.second)
        stamp_second(now.tv_sec);
    return now.tv_nsec / 1000000;
}

void fill_prefix(char* area, int level)
{
    const long milliseconds = stamp_now();
    std::memcpy(area, g_state.stamp, kPrefixAreaSize);
    put_number(area, kMilliseconds, milliseconds, '0');
    put_number(area, kLevel, level, ' ');
}

int priority(int level)
{
    switch (level) {
    case kError:
        return LOG_ERR;
    case kWarning:
        return LOG_WARNING;
    case kInfo:
        return LOG_INFO;
    default:
        return LOG_DEBUG;
    }
}

std::string_view without_line_feeds(std::string_view text)
{
    while (!text.empty() && text.back() == '\n')
        text.remove_suffix(1);
    return text;
}

/// The message has the system log's own stamp, and neither prefix area nor line feeds.
bool send_in_background(int level, std::string_view text)
{
    (void)stamp_now();
    char head[16 + kShortStampSize];
    const auto head_size = fmt::format_to_n(head, sizeof head, "<{}>{} ", LOG_DAEMON | priority(level),
                                            std::string_view(g_state.short_stamp, kShortStampSize))
                               .size;
    char process[16];
    const auto process_size = fmt::format_to_n(process, sizeof process, "[{}]: ", getpid()).size;
    return send_to_syslog(g_state.address, {head, head_size}, g_state.program, {process, process_size},
                          without_line_feeds(text));
}

void tell_at_end();

/// Sends a line that can go as it is: its prefix area, its text, its line feed.
bool send_whole(int level, Text line)
{
    if (g_state.address)
        return send_in_background(level, {line.data + kPrefixAreaSize, line.size - kPrefixAreaSize});
    fill_prefix(line.data, level);
    const bool is_sent = write_to_standard_error({line.data, line.size});
    if (is_line_torn())
        tell_at_end();
    return is_sent;
}

/// Sends a line of this text with its control characters escaped, cut if it is then too long.
bool send_edited(int level, std::string_view text, std::string_view end)
{
    char copy[kPrefixAreaSize + kMaxWritten + 2];
    std::size_t size = kPrefixAreaSize;
    const bool fits = fitting(text, kMaxWritten) == text.size();
    size += put_escaped(copy + size, fits ? text : text.substr(0, fitting(text, kMaxText)));
    if (!fits)
        size += put_mark(copy + size, text.size());
    std::memcpy(copy + size, end.data(), end.size());
    return send_whole(level, {copy, size + end.size()});
}

/// Sends a line with a text that does not end in a line feed but for one that may belong to it.
bool send(int level, Text line, std::string_view text)
{
    const bool is_ended = line.size == kPrefixAreaSize + text.size() + 1;
    const std::size_t feed = !text.empty() && text.back() == '\n' ? 1 : 0;
    const std::string_view body = text.substr(0, text.size() - feed);
    if (is_ended && body.size() <= kMaxWritten && is_plain(body))
        return send_whole(level, line);
    return send_edited(level, body, feed == 0 ? "\n" : "\n\n");
}

// ---- what is counted

template <typename... Arguments>
bool tell(int level, fmt::format_string<Arguments...> format, Arguments... arguments)
{
    char line[kPrefixAreaSize + 64];
    const auto size =
        fmt::format_to_n(line + kPrefixAreaSize, sizeof line - kPrefixAreaSize, format, arguments...).size;
    return send_whole(level, {line, kPrefixAreaSize + size});
}

void tell_all();

/// Tells the last counts at the end of the process, and writes the rest of a line; not without memory for
/// that.
void tell_at_end()
{
    static bool s_registered = false;
    if (!s_registered)
        s_registered = std::atexit(tell_all) == 0;
}

bool tell_losses()
{
    if (g_last.lost > 0 && !tell(kWarning, "[log]: {} lines lost\n", g_last.lost))
        return false;
    g_last.lost = 0;
    return true;
}

void lose(unsigned long lines)
{
    tell_at_end();
    g_last.lost += lines;
    g_last.size = 0; // the last line that was written is not the last one any more
}

void tell_repetitions()
{
    const unsigned long count = g_last.repetitions;
    if (count == 0)
        return;
    g_last.repetitions = 0;
    g_last.written_at = base::coarse_now_ms();
    if (!tell(g_last.level, "[log]: last line repeated {} times\n", count))
        lose(count);
}

void tell_all()
{
    tell_repetitions();
    (void)tell_losses(); // what nobody takes now stays counted
    if (!g_state.address)
        write_rest_of_line();
}

bool is_repetition(int level, std::string_view text)
{
    return g_last.size > 0 && level == g_last.level && text == std::string_view(g_last.text, g_last.size);
}

/// Counts it, and tells the count once a second. False for one that stands alone: it is as good as new.
bool count_repetition()
{
    const bool is_due = base::coarse_now_ms() - g_last.written_at >= kRepetitionMs;
    if (is_due && g_last.repetitions == 0)
        return false;
    tell_at_end();
    ++g_last.repetitions;
    if (is_due)
        tell_repetitions();
    return true;
}

void remember(int level, std::string_view text)
{
    g_last.size = text.size() <= sizeof g_last.text ? text.size() : 0;
    std::memcpy(g_last.text, text.data(), g_last.size);
    g_last.level = level;
    g_last.written_at = base::coarse_now_ms();
}

void print_text(int level, Text line)
{
    const std::size_t ended = line.data[line.size - 1] == '\n' ? 1 : 0;
    const std::string_view text(line.data + kPrefixAreaSize,
                                std::max(line.size - ended, kPrefixAreaSize) - kPrefixAreaSize);
    if (is_repetition(level, text) && count_repetition())
        return;
    tell_repetitions();
    if (tell_losses() && send(level, line, text))
        remember(level, text);
    else
        lose(1);
}

int threshold_from_environment()
{
    return parse_level(std::getenv("ORV_LOG_LEVEL")).value_or(kDefaultThreshold);
}

} // namespace

namespace detail {
int g_threshold = threshold_from_environment();
} // namespace detail

std::optional<int> parse_level(const char* text)
{
    if (!text || std::strlen(text) != 1 || *text < '0' + kError || *text > '0' + kTrace)
        return std::nullopt;
    return *text - '0';
}

void set_threshold(int level)
{
    detail::g_threshold = level;
}

void use_syslog(const char* program, const char* address)
{
    g_state.program[std::string_view(program).copy(g_state.program, kMaxProgram)] = '\0';
    g_state.address = address;
    leave_standard_error();
}

void settle()
{
    const int error = errno;
    if (base::coarse_now_ms() - g_last.written_at >= kRepetitionMs)
        tell_all();
    errno = error;
}

void begin_anew()
{
    const int error = errno;
    tell_all();
    g_last.size = 0;
    leave_standard_error();
    errno = error;
}

void print(int /*channel*/, int level, Text line)
{
    const int error = errno;
    if (line.size >= kPrefixAreaSize)
        print_text(level, line);
    else
        (void)write_to_standard_error({line.data, line.size}); // no line, but maybe of use to somebody
    errno = error;
}

bool open_channel(int channel)
{
    return channel >= 0;
}

} // namespace orv::log
