#pragma once

#include <string>
#include <vector>

namespace orv {

/// Runs each command (a list of words) with the interpreter, without a shell in between, and waits for it.
/// Stops at the first that fails: it cannot be started, ends with a status other than 0, dies by a signal or
/// runs longer than 10 seconds (it is then killed; what does not end by that either, as it hangs in the
/// kernel, is left after half a second more). Returns 0, or the negated error number. The scripts see
/// no descriptor of this process but the standard three. `flags` is reserved: 0.
[[nodiscard]] int exec_script(const std::vector<std::vector<std::string>>& commands,
                              const std::string& interpreter, int flags);

} // namespace orv
