#pragma once

#include <string_view>

namespace orv::brokerd {

/// Whether a text is an exclusion pattern of the vulnerability scanner: one MAC address or a set of them,
/// such as "aa:bb:0[0-3|a-f]:dd:ee:f[0|5]".
///
///     pattern  = group 5(":" group)
///     group    = position position
///     position = digit / "[" item *("|" item) "]"
///     item     = digit / digit "-" digit
///
/// A digit is hexadecimal. The ends of a range are both decimal, both upper-case or both lower-case, in
/// ascending order. Within one class, letters count without their case, and no value may be named twice.
[[nodiscard]] bool va_validate_exclusion(std::string_view pattern);

} // namespace orv::brokerd
