// One number per process, which has one thread.

#include <orvbase/error_number.h>

namespace orv::base {

namespace {
Error g_error = Error::none;
} // namespace

void set_error(Error error)
{
    g_error = error;
}

int error_number()
{
    return static_cast<int>(g_error);
}

int fail(Error error)
{
    set_error(error);
    return -static_cast<int>(error);
}

int failed(Error error)
{
    set_error(error);
    return -1;
}

} // namespace orv::base
