"""Kernels that lack something: has this one refuse system calls to a process and its children (seccomp)."""

import ctypes
import errno
import platform
import struct

import world

# Numbers of system calls; those from 424 on are the same everywhere.
_NUMBERS = {
    "x86_64": {"connect": 42, "fallocate": 285, "getrandom": 318},
    "aarch64": {"connect": 203, "fallocate": 47, "getrandom": 278},
    "riscv64": {"connect": 203, "fallocate": 47, "getrandom": 278},
    "armv7l": {"connect": 283, "fallocate": 352, "getrandom": 384},
    "i686": {"connect": 362, "fallocate": 324, "getrandom": 355},
}
# What 32-bit x86 programs may call instead: one call for all that concerns sockets, which its first argument tells apart.
_SOCKETCALL, _CONNECTING = 102, 3
_COMMON = {"pidfd_open": 434, "close_range": 436}

# What kernels before 5.3 and file systems as JFFS2 do not have.
OLD = {"pidfd_open": errno.ENOSYS, "close_range": errno.ENOSYS, "getrandom": errno.ENOSYS, "fallocate": errno.EOPNOTSUPP}


def machine():
    """Whose system calls the programs make: 32-bit programs on a 64-bit machine have their own."""
    name = platform.machine()
    return "i686" if name == "x86_64" and world.is_32_bit() else name


def number_of(call):
    return _COMMON.get(call) or _NUMBERS[machine()][call]


def refuse(refusals):
    """Has each of these calls fail with its error number, for good; to be called in a child before it runs a program."""
    load, number, first_argument, jump_if_equal, give, allow, fail = 0x20, 0, 16, 0x15, 0x06, 0x7fff0000, 0x00050000
    instructions = [(load, 0, 0, number)]
    for call, error in refusals.items():
        instructions += [(jump_if_equal, 0, 1, number_of(call)), (give, 0, 0, fail | error)]
        if call == "connect" and machine() == "i686":
            instructions += [(jump_if_equal, 0, 4, _SOCKETCALL), (load, 0, 0, first_argument), (jump_if_equal, 0, 1, _CONNECTING),
                             (give, 0, 0, fail | error), (load, 0, 0, number)]
    instructions.append((give, 0, 0, allow))
    program = b"".join(struct.pack("=HBBI", *instruction) for instruction in instructions)
    buffer = ctypes.create_string_buffer(program)
    filter_program = struct.pack("@HP", len(instructions), ctypes.addressof(buffer))
    libc = ctypes.CDLL(None, use_errno=True)
    no_new_privileges, set_filter, filter_mode = 38, 22, 2
    if libc.prctl(no_new_privileges, 1, 0, 0, 0) != 0 or libc.prctl(set_filter, filter_mode, filter_program) != 0:
        raise OSError(ctypes.get_errno(), "seccomp")
