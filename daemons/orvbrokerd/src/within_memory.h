#pragma once

#include <orvutils/log_format.h>

#include <new>

namespace orv::brokerd {

/// Runs something that may find no memory. False, with a line in the log, when it found none: the caller then
/// gives up the one request or connection that it was for. What the action has begun must be undone by its
/// own destructors.
template <typename Action>
[[nodiscard]] bool within_memory(const Action& action, log::Caller caller = log::caller())
{
    try {
        action();
        return true;
    } catch (const std::bad_alloc&) {
        ORV_LOG_AS(caller, log::kError, "out of memory");
        return false;
    }
}

} // namespace orv::brokerd
