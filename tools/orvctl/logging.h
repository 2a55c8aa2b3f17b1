#pragma once

/// The platform libraries' log, which goes to standard error as orvctl's own messages do. Where ORV_LOG_LEVEL
/// is set, it alone says what is logged, and nothing here has an effect.
namespace orvctl {

/// Leaves of the log the failures only: what the libraries survive or return is for orvctl to tell.
void log_failures_only();

/// While one lives nothing is logged: for what is told by a message of orvctl's own.
class LogSilence {
public:
    LogSilence();
    LogSilence(const LogSilence&) = delete;
    LogSilence& operator=(const LogSilence&) = delete;
    ~LogSilence();
};

} // namespace orvctl
