#pragma once

#include <orvutils/error.h>

namespace orv::detail {

/// Remembers the error for orv::_get_orverrno().
void set_orverrno(Error error);

/// The same, and gives the negated number that a failing operation returns.
[[nodiscard]] int fail(Error error);

} // namespace orv::detail
