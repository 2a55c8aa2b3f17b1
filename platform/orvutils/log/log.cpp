// Writing log lines. A client's request costs two of them, so a line is stamped from a template that is kept
// ready: its date and time change once a second, its process id after a fork, and only the milliseconds and
// the level are put in line by line. Nothing here allocates memory, and a foreground line is one write(2).
//
// All channels share the one sink; a line on a channel that nobody opened is written too, as losing it would
// be worse. errno is left as it was, so that logging a failure does not disturb who looks at its cause next.

#include <orvutils/log.h>

#include <orvutils/log_control.h>

#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

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

struct State {
    char stamp[sizeof kPrefixArea];
    std::time_t second; ///< that the stamp shows
    bool has_second;
    bool has_process;
    bool in_background;
};

constexpr State initial_state()
{
    State state{};
    for (std::size_t i = 0; i < kPrefixAreaSize; ++i)
        state.stamp[i] = kPrefixArea[i];
    return state;
}

State g_state = initial_state();

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

void forget_process()
{
    g_state.has_process = false;
}

void stamp_process()
{
    static bool watching_forks = false;
    if (!watching_forks)
        watching_forks = pthread_atfork(nullptr, nullptr, forget_process) == 0;
    put_number(g_state.stamp, kProcess, getpid(), ' ');
    g_state.has_process = watching_forks; // else ask for each line
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
    g_state.second = second;
    g_state.has_second = true;
}

void fill_prefix(char* area, int level)
{
    if (!g_state.has_process)
        stamp_process();
    timespec now{};
    (void)clock_gettime(CLOCK_REALTIME, &now); // this clock is always there
    if (!g_state.has_second || now.tv_sec != g_state.second)
        stamp_second(now.tv_sec);
    std::memcpy(area, g_state.stamp, kPrefixAreaSize);
    put_number(area, kMilliseconds, now.tv_nsec / 1000000, '0');
    put_number(area, kLevel, level, ' ');
}

void write_line(const char* data, std::size_t size)
{
    while (size > 0) {
        const ssize_t written = write(STDERR_FILENO, data, size);
        if (written < 0 && errno == EINTR)
            continue;
        if (written < 0)
            return;
        data += written;
        size -= static_cast<std::size_t>(written);
    }
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

/// syslog() stamps a line itself, and ends it.
void send_to_syslog(int level, const Text& line)
{
    const std::size_t begin = std::min(kPrefixAreaSize, line.size);
    std::size_t end = line.size;
    while (end > begin && line.data[end - 1] == '\n')
        --end;
    syslog(priority(level), "%.*s", static_cast<int>(end - begin), line.data + begin);
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

void use_syslog(const char* program)
{
    openlog(program, LOG_PID, LOG_DAEMON);
    g_state.in_background = true;
}

void print(int /*channel*/, int level, Text line)
{
    const int error = errno;
    if (g_state.in_background) {
        send_to_syslog(level, line);
    } else {
        if (line.size >= kPrefixAreaSize)
            fill_prefix(line.data, level);
        write_line(line.data, line.size);
    }
    errno = error;
}

bool open_channel(int channel)
{
    return channel >= 0;
}

} // namespace orv::log
