#pragma once

#include "base_support.h"

#include <functional>
#include <string>

/// What a child process is told to do with its system calls.
class CallGate {
public:
    /// From here on they are counted, and may fail.
    static void open();
    /// From here on none fails.
    static void close();
};

/// How a child process has ended, and what of its system calls has failed.
struct FaultyOutcome {
    Outcome outcome;
    unsigned calls = 0; ///< that could have failed
    bool has_failed = false;
    std::string failed;          ///< the first one that was made to
    bool was_supervised = false; ///< else nothing of this says anything
};

/// Runs `body` in a child process, in which between CallGate::open() and close() the n-th system call (from 1; 0:
/// none) of those that have to do with files, memory maps, locks, sockets and timers fails, and with `from_then_on`
/// all after it. The parent has the kernel ask it for each (seccomp), so that those of all libraries are meant.
FaultyOutcome in_child_with_failing_call(unsigned n, bool from_then_on, const std::function<int()>& body);
