// The daemon's view of the error number that all platform libraries note.

#include <orvutils/error.h>

#include <orvbase/error_number.h>

namespace orv {

int _get_orverrno()
{
    return base::error_number();
}

} // namespace orv
