// A line is put together first and written with one write(), so that lines of several programs on one
// terminal do not get mixed up.

#include "narration.h"

#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <iterator>
#include <string>

namespace orvagentsim {
namespace {

std::string time_of_day()
{
    timespec now{};
    (void)::clock_gettime(CLOCK_REALTIME, &now); // cannot fail for this clock
    std::tm local{};
    ::localtime_r(&now.tv_sec, &local);
    return fmt::format("{:02d}:{:02d}:{:02d}.{:03d}", local.tm_hour, local.tm_min, local.tm_sec,
                       now.tv_nsec / 1000000);
}

/// What others wrote must not begin a line of its own or steer a terminal.
bool is_control(char c)
{
    return static_cast<unsigned char>(c) < ' ' || c == '\x7f';
}

} // namespace

void vnarrate(std::string_view who, fmt::string_view format, fmt::format_args arguments)
{
    std::string line = fmt::format("{} {:<15} ", time_of_day(), who);
    fmt::vformat_to(std::back_inserter(line), format, arguments);
    std::replace_if(line.begin(), line.end(), is_control, '?');
    line += '\n';
    // A line that cannot be written is lost: there is nobody to tell.
    (void)!write(STDERR_FILENO, line.data(), line.size());
}

} // namespace orvagentsim
