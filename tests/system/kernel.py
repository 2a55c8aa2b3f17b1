"""Kernels that lack something: has this one refuse system calls to a process and its children (seccomp)."""

import ctypes
import errno
import platform
import struct

# Of each kind of program that a machine runs: the kernel's number for it, and numbers of its system calls. A
# pair is a call that does several things, and the first argument that tells this one.
_X86_64 = (0xc000003e, {"connect": (42,), "fallocate": (285,), "getrandom": (318,)})
_I386 = (0x40000003, {"connect": (362, (102, 3)), "fallocate": (324,), "getrandom": (355,)})
_AARCH64 = (0xc00000b7, {"connect": (203,), "fallocate": (47,), "getrandom": (278,)})
_ARM = (0x40000028, {"connect": (283,), "fallocate": (352,), "getrandom": (384,)})
_RISCV64 = (0xc00000f3, {"connect": (203,), "fallocate": (47,), "getrandom": (278,)})
_EVERYWHERE = {"pidfd_open": (434,), "close_range": (436,)}
_MACHINES = {"x86_64": (_X86_64, _I386), "i686": (_I386,), "aarch64": (_AARCH64, _ARM), "armv7l": (_ARM,),
             "riscv64": (_RISCV64,)}

# What kernels before 5.3 and file systems as JFFS2 do not have.
OLD = {"pidfd_open": errno.ENOSYS, "close_range": errno.ENOSYS, "getrandom": errno.ENOSYS, "fallocate": errno.EOPNOTSUPP}

# Instructions of a filter, and where it finds what.
_LOAD, _JUMP_IF_EQUAL, _GIVE = 0x20, 0x15, 0x06
_ALLOW, _FAIL = 0x7fff0000, 0x00050000
_NUMBER, _KIND, _FIRST_ARGUMENT = 0, 4, 16


def refuse(refusals):
    """Has each of these calls fail with its error number, for good; to be called in a child before it runs a program."""
    instructions = []
    for kind, numbers in _MACHINES[platform.machine()]:
        own = []
        for call, error in refusals.items():
            for number in (_EVERYWHERE.get(call) or numbers[call]):
                own += _refuse_one(number, error)
        own.append((_GIVE, 0, 0, _ALLOW))
        instructions += [(_LOAD, 0, 0, _KIND), (_JUMP_IF_EQUAL, 0, len(own), kind), *own]
    instructions.append((_GIVE, 0, 0, _ALLOW))
    program = b"".join(struct.pack("=HBBI", *instruction) for instruction in instructions)
    buffer = ctypes.create_string_buffer(program)
    filter_program = struct.pack("@HP", len(instructions), ctypes.addressof(buffer))
    libc = ctypes.CDLL(None, use_errno=True)
    no_new_privileges, set_filter, filter_mode = 38, 22, 2
    if libc.prctl(no_new_privileges, 1, 0, 0, 0) != 0 or libc.prctl(set_filter, filter_mode, filter_program) != 0:
        raise OSError(ctypes.get_errno(), "seccomp")


def _refuse_one(number, error):
    number, argument = number if isinstance(number, tuple) else (number, None)
    refusal = [(_GIVE, 0, 0, _FAIL | error)]
    if argument is not None:
        refusal = [(_LOAD, 0, 0, _FIRST_ARGUMENT), (_JUMP_IF_EQUAL, 0, 1, argument), *refusal]
    return [(_LOAD, 0, 0, _NUMBER), (_JUMP_IF_EQUAL, 0, len(refusal), number), *refusal]


def number_of(call):
    """The number of a call of this very program's."""
    return (_EVERYWHERE.get(call) or _MACHINES[platform.machine()][0][1][call])[0]
