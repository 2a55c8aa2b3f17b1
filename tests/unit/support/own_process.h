#pragma once

namespace orv::test {

/// Makes this process one in which the daemon can run beside other tests: its socket's name is fixed, and abstract
/// names are per network namespace, so it gets one of its own. False, with a line on standard error, when it cannot.
[[nodiscard]] bool set_up_process();

} // namespace orv::test
