#pragma once

namespace orv {

/// Makes sure that descriptors 0, 1 and 2 are open: those that the process was started without lead to
/// /dev/null from now on. To be called before anything else is opened, which would otherwise take their
/// place and be written to by whoever prints. daemon::instance() calls it. False with errno set on failure.
[[nodiscard]] bool open_standard_streams();

} // namespace orv
