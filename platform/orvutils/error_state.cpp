// The error number of the last failed platform operation: one per process, which has one thread.

#include "error_state.h"

namespace orv {

namespace {
Error g_error = Error::none;
} // namespace

int _get_orverrno()
{
    return static_cast<int>(g_error);
}

namespace detail {

void set_orverrno(Error error)
{
    g_error = error;
}

int fail(Error error)
{
    set_orverrno(error);
    return -static_cast<int>(error);
}

} // namespace detail
} // namespace orv
