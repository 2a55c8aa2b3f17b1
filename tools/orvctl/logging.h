#pragma once

/// The platform libraries' log, which goes to standard error as orvctl's own messages do. Where ORV_LOG_LEVEL
/// is set, it alone says what is logged, and nothing here has an effect.
namespace orvctl {

/// Leaves of the log the failures only: what the libraries survive or return is for orvctl to tell.
void log_failures_only();

/// Whether ORV_LOG_LEVEL says so: then failures that are told by a message of orvctl's own are logged as
/// well.
[[nodiscard]] bool is_log_wanted();

} // namespace orvctl
