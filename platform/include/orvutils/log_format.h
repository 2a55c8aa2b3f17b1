#pragma once

#include <orvutils/log.h>

#include <fmt/format.h>

#include <string_view>
#include <type_traits>
#include <utility>

namespace orv::log {

/// Where a line was logged: file path in the source tree, line, function.
struct Source {
    const char* file;
    int line;
    const char* function;
};

/// In whose name a line is logged. A reader of the log knows functions, not their helpers: a helper that has
/// something to say on behalf of its caller takes one as its last parameter and logs with ORV_LOG_AS.
struct Caller {
    const char* function;
};

/// As the default of such a parameter: the function that calls the helper. As an ordinary argument: the
/// function in which it stands.
constexpr Caller caller(const char* function = __builtin_FUNCTION())
{
    return {function};
}

/// Formats a line after the house's one template and prints it. Use ORV_LOG, which asks can_log() first.
void vformat_and_print(int channel, int level, const Source& source, fmt::string_view format,
                       fmt::format_args arguments);

template <typename... Arguments>
void format_and_print(int channel, int level, const Source& source, fmt::format_string<Arguments...> format,
                      Arguments&&... arguments)
{
    static_assert((!std::is_floating_point_v<std::decay_t<Arguments>> && ...), "the log writes no fractions");
    vformat_and_print(channel, level, source, format, fmt::make_format_args(arguments...));
}

} // namespace orv::log

/// Logs one line on a channel, when its level is wanted. The format is checked at compile time where the
/// language allows it.
// NOLINTNEXTLINE(cppcoreguidelines-macro-usage): __FILE__, __LINE__ and __func__ of the caller
#define ORV_LOG_ON(channel, level, ...)                                                                      \
    do {                                                                                                     \
        if (::orv::log::can_log((channel), (level)))                                                         \
            ::orv::log::format_and_print((channel), (level), {__FILE__, __LINE__, __func__}, __VA_ARGS__);   \
    } while (false)

/// The same on the default channel.
// NOLINTNEXTLINE(cppcoreguidelines-macro-usage)
#define ORV_LOG(level, ...) ORV_LOG_ON(::orv::log::kDefaultChannel, level, __VA_ARGS__)

/// The same in the name of somebody else, a Caller.
// NOLINTNEXTLINE(cppcoreguidelines-macro-usage)
#define ORV_LOG_AS(caller, level, ...)                                                                       \
    do {                                                                                                     \
        if (::orv::log::can_log(::orv::log::kDefaultChannel, (level)))                                       \
            ::orv::log::format_and_print(::orv::log::kDefaultChannel, (level),                               \
                                         {__FILE__, __LINE__, (caller).function}, __VA_ARGS__);              \
    } while (false)
