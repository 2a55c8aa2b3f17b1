#pragma once

#include "options.h"

#include <optional>

namespace orvagentsim {

/// Fills in `options`; empty when there is work to do. Else everything has been said (--help, --version, or
/// what is wrong with the line) and this is the exit status.
[[nodiscard]] std::optional<int> parse_command_line(int argc, char** argv, Options& options);

} // namespace orvagentsim
