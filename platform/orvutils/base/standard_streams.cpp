// A descriptor is always the lowest free number. So a program that was started without standard streams would
// open its first files in their places, and print into them.

#include <orvutils/standard_streams.h>

#include <fcntl.h>
#include <unistd.h>

namespace orv {

bool open_standard_streams()
{
    for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
        // The lowest free descriptor is this one, as those below are open. Left to children, as a standard
        // stream is.
        if (fcntl(fd, F_GETFD) == -1 && open("/dev/null", O_RDWR) == -1)
            return false;
    }
    return true;
}

} // namespace orv
