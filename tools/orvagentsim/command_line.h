#pragma once

#include "options.h"

#include <optional>

namespace orvagentsim {

constexpr int kSuccess = 0;
constexpr int kUsage = 2;       ///< the command line cannot be used
constexpr int kUnavailable = 3; ///< no exchange, no store, or a participant's name is taken

/// Fills in `options`; empty when there is work to do. Else everything has been said (--help, --version, or
/// what is wrong with the line) and this is the exit status.
[[nodiscard]] std::optional<int> parse_command_line(int argc, char** argv, Options& options);

} // namespace orvagentsim
