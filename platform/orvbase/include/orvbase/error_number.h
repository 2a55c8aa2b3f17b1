#pragma once

#include <orvbase/error.h>

/// The error number of the last failed operation. Whoever fails towards the daemon notes it here.
namespace orv::base {

void set_error(Error error);

/// The number noted last, 0 before the first one.
[[nodiscard]] int error_number();

/// Notes the error; its negated number, for operations that fail with that.
[[nodiscard]] int fail(Error error);

/// Notes the error; -1, for operations that fail with that.
[[nodiscard]] int failed(Error error);

} // namespace orv::base
