#pragma once

/// What orvagentsim tells its caller.
namespace orvagentsim {

constexpr int kSuccess = 0;
constexpr int kUsage = 2;       ///< the command line cannot be used
constexpr int kUnavailable = 3; ///< no exchange, no store, or a participant's name is taken

} // namespace orvagentsim
