"""Kernels that lack something: has this one refuse system calls to a process and its children (seccomp)."""

import ctypes
import errno
import platform
import struct

# Numbers of system calls; those from 424 on are the same everywhere.
_NUMBERS = {
    "x86_64": {"connect": 42, "fallocate": 285, "getrandom": 318},
    "aarch64": {"connect": 203, "fallocate": 47, "getrandom": 278},
    "riscv64": {"connect": 203, "fallocate": 47, "getrandom": 278},
    "armv7l": {"connect": 283, "fallocate": 352, "getrandom": 384},
}
_COMMON = {"pidfd_open": 434, "close_range": 436}

# What kernels before 5.3 and file systems as JFFS2 do not have.
OLD = {"pidfd_open": errno.ENOSYS, "close_range": errno.ENOSYS, "getrandom": errno.ENOSYS, "fallocate": errno.EOPNOTSUPP}


def number_of(call):
    return _COMMON.get(call) or _NUMBERS[platform.machine()][call]


def refuse(refusals):
    """Has each of these calls fail with its error number, for good; to be called in a child before it runs a program."""
    load_number, jump_if_equal, give, allow, fail = 0x20, 0x15, 0x06, 0x7fff0000, 0x00050000
    instructions = [(load_number, 0, 0, 0)]
    for call, error in refusals.items():
        instructions += [(jump_if_equal, 0, 1, number_of(call)), (give, 0, 0, fail | error)]
    instructions.append((give, 0, 0, allow))
    program = b"".join(struct.pack("=HBBI", *instruction) for instruction in instructions)
    buffer = ctypes.create_string_buffer(program)
    filter_program = struct.pack("@HP", len(instructions), ctypes.addressof(buffer))
    libc = ctypes.CDLL(None, use_errno=True)
    no_new_privileges, set_filter, filter_mode = 38, 22, 2
    if libc.prctl(no_new_privileges, 1, 0, 0, 0) != 0 or libc.prctl(set_filter, filter_mode, filter_program) != 0:
        raise OSError(ctypes.get_errno(), "seccomp")
