#pragma once

#include <initializer_list>

/// A system call that fails at once, as on a kernel or file system without it.
struct RefusedCall {
    long number; ///< SYS_...
    int error;
};

/// Has the kernel (seccomp) refuse calls to this process and all that it starts from here on; to be called in
/// a child. False, with a line that says so, where that cannot be done: then the test fails.
[[nodiscard]] bool refuse_calls(std::initializer_list<RefusedCall> calls);

/// The same for shared mappings with exactly this protection (PROT_READ ...), with ENODEV: what file systems
/// say that have none.
[[nodiscard]] bool refuse_shared_mappings(int protection);
