#pragma once

/// What orvctl tells its caller.
namespace orvctl {

constexpr int kSuccess = 0;
constexpr int kFailed = 1; ///< the answer's status is not 0, a device is refused, or something is not there
constexpr int kUsage = 2;  ///< the command line, or data in it, cannot be used
constexpr int kUnavailable = 3; ///< no daemon, no bus, no store, connection lost or timed out

} // namespace orvctl
