#pragma once

#include <string>

namespace orv::fuzz {

/// Makes a directory the agent's root, in memory where there is such a file system, and removes it at the end
/// of the process. Called once; ends the process when it cannot be made.
const std::string& make_root();

/// Log lines that are nobody's while inputs are tried: nothing is logged from here on.
void log_nothing();

} // namespace orv::fuzz
