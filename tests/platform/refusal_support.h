#pragma once

#include <initializer_list>

/// A system call that fails at once, as on a kernel or file system without it.
struct RefusedCall {
    long number; ///< SYS_...
    int error;
};

/// Has the kernel (seccomp) refuse calls to this process and all that it starts from here on; to be called in a child.
/// False, with a line that says so, where that cannot be done, as in user-mode emulation.
[[nodiscard]] bool refuse_calls(std::initializer_list<RefusedCall> calls);

/// The same for shared mappings with exactly this protection (PROT_READ ...), with ENODEV: what file systems say that
/// have none.
[[nodiscard]] bool refuse_shared_mappings(int protection);

/// What a child returns that could not be refused anything, and what its test then says of itself.
constexpr int kNotRefused = 77;
#define SKIP_IF_NOT_REFUSED(outcome)                                                                         \
    do {                                                                                                     \
        if ((outcome).status == kNotRefused)                                                                 \
            GTEST_SKIP() << "NOT TESTED: " << (outcome).err;                                                 \
    } while (false)
