#include "refusal_support.h"

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/syscall.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <utility>
#include <vector>

namespace {

#ifdef SYS_mmap2
constexpr long kMapCall = SYS_mmap2;
#else
constexpr long kMapCall = SYS_mmap;
#endif

using Instruction = sock_filter;
using Program = std::vector<Instruction>;

Instruction load(std::size_t offset)
{
    return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offset));
}

/// The lower half of an argument: flags fit into it.
Instruction load_argument(std::size_t index)
{
    constexpr std::size_t kLowerHalf = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? 0 : 4;
    return load(offsetof(seccomp_data, args) + index * sizeof(std::uint64_t) + kLowerHalf);
}

/// Passes over so many instructions unless what was loaded is this value.
Instruction skip_unless(long value, std::uint8_t count)
{
    return BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(value), 0, count);
}

Instruction keep_bits(std::uint32_t mask)
{
    return BPF_STMT(BPF_ALU | BPF_AND | BPF_K, mask);
}

Instruction refuse(int error)
{
    return BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(error));
}

bool install(Program program)
{
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0)
        return true;
    std::fprintf(stderr, "system calls cannot be filtered here: %s\n", std::strerror(errno));
    return false;
}

} // namespace

bool refuse_calls(std::initializer_list<RefusedCall> calls)
{
    Program program{load(offsetof(seccomp_data, nr))};
    for (const RefusedCall& call : calls) {
        program.push_back(skip_unless(call.number, 1));
        program.push_back(refuse(call.error));
    }
    return install(std::move(program));
}

bool refuse_shared_mappings(int protection)
{
    return install({load(offsetof(seccomp_data, nr)), skip_unless(kMapCall, 6), load_argument(3),
                    keep_bits(MAP_TYPE), skip_unless(MAP_SHARED, 3), load_argument(2),
                    skip_unless(protection, 1), refuse(ENODEV)});
}
