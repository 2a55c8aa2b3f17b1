#pragma once

#include <fmt/format.h>

#include <string_view>

namespace orvagentsim {

void vnarrate(std::string_view who, fmt::string_view format, fmt::format_args arguments);

/// Tells on standard error, in one line with the time, what a participant does.
template <typename... Arguments>
void narrate(std::string_view who, fmt::format_string<Arguments...> format, const Arguments&... arguments)
{
    vnarrate(who, format, fmt::make_format_args(arguments...));
}

} // namespace orvagentsim
