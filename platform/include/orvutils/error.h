#pragma once

#include <orvbase/error.h>

namespace orv {

/// The error number (orv::Error) of this process's last failed platform operation, 0 before the first one.
/// A success leaves it as it is.
int _get_orverrno();

} // namespace orv
