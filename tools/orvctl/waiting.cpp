// poll() alone sees both ends at once: what orvctl waits for, and that whoever reads its output has gone,
// which no write would tell before the next event.

#include "waiting.h"

#include "output.h"

#include <poll.h>

#include <array>
#include <cerrno>

namespace orvctl {

Wake wait_for_input(int fd, orvbroker::Deadline deadline, Reader reader)
{
    const int output = reader == Reader::needed ? Output::fd() : -1; // poll() skips what is negative
    for (;;) {
        // Without events asked for, only errors are reported: for a pipe, that its reading end is closed.
        std::array<pollfd, 2> watched{{{fd, POLLIN, 0}, {output, 0, 0}}};
        const int ready = ::poll(watched.data(), watched.size(), orvbroker::poll_timeout(deadline));
        if (ready == -1 && errno != EINTR)
            return Wake::input; // the reading that follows fails with the reason
        if (ready > 0)
            return watched[0].revents != 0 ? Wake::input : Wake::output_closed;
        if (ready == 0 && orvbroker::is_over(deadline))
            return Wake::timed_out;
    }
}

} // namespace orvctl
