// The child hands its filter's descriptor to the parent; from then on the kernel holds each of the calls until the
// parent has said whether it is to be made. Two calls that are of no use otherwise say where counting begins and ends.

#include "syscall_support.h"

#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <vector>

namespace {

struct Call {
    long number;
    int error; ///< that it fails with
    const char* name;
};

#define CALL(name, error)                                                                                    \
    Call                                                                                                     \
    {                                                                                                        \
        SYS_##name, error, #name                                                                             \
    }

const Call kCalls[] = {
#ifdef SYS_open
    CALL(open, EMFILE),
    CALL(mkdir, ENOSPC),
    CALL(rename, EIO),
    CALL(unlink, EIO),
    CALL(chmod, EPERM),
    CALL(stat, ENOMEM),
#endif
#ifdef SYS_newfstatat
    CALL(newfstatat, ENOMEM),
#endif
#ifdef SYS_fstatat64
    CALL(fstatat64, ENOMEM),
    CALL(fcntl64, ENOLCK),
    CALL(ftruncate64, ENOSPC),
#endif
#ifndef ORV_SANITIZED // the sanitizers make these calls, too, and do not survive that they fail
    CALL(write, ENOSPC),
    CALL(pipe2, EMFILE),
#ifdef SYS_mmap2
    CALL(mmap2, ENOMEM),
#else
    CALL(mmap, ENOMEM),
#endif
#endif
#ifdef SYS_timerfd_settime
    CALL(timerfd_settime, EIO),
#endif
    CALL(openat, EMFILE),
    CALL(read, ENOMEM),
    CALL(pread64, ENOMEM),
    CALL(pwrite64, ENOSPC),
    CALL(pwritev, ENOSPC),
    CALL(fcntl, ENOLCK),
    CALL(fstat, ENOMEM),
    CALL(fsync, EIO),
    CALL(fdatasync, EIO),
    CALL(msync, EIO),
    CALL(ftruncate, ENOSPC),
    CALL(fallocate, ENOSPC),
    CALL(renameat, EIO),
    CALL(renameat2, EIO),
    CALL(mkdirat, ENOSPC),
    CALL(unlinkat, EIO),
    CALL(fchmod, EPERM),
    CALL(flock, EIO),
    CALL(epoll_create1, EMFILE),
    CALL(epoll_ctl, ENOMEM),
    CALL(timerfd_create, EMFILE),
    CALL(eventfd2, EMFILE),
    CALL(inotify_init1, EMFILE),
    CALL(inotify_add_watch, ENOSPC),
    CALL(socket, EMFILE),
    CALL(connect, ENOMEM),
    CALL(sendto, ENOBUFS),
    CALL(recvfrom, ENOMEM),
    CALL(sendmsg, ENOBUFS),
    CALL(recvmsg, ENOMEM),
    CALL(getrandom, ENOSYS),
    CALL(dup, EMFILE),
};

constexpr long kMark = SYS_getpgid;
constexpr long kOpen = 0x7ffffff1; ///< no process has these numbers
constexpr long kClose = 0x7ffffff2;
constexpr std::size_t kLowerHalf = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? 0 : 4;

sock_filter load(std::size_t offset)
{
    return BPF_STMT(BPF_LD | BPF_W | BPF_ABS, static_cast<std::uint32_t>(offset));
}

sock_filter skip(unsigned how, long value, std::uint8_t if_so, std::uint8_t if_not)
{
    return BPF_JUMP(static_cast<std::uint16_t>(BPF_JMP | BPF_K | how), static_cast<std::uint32_t>(value),
                    if_so, if_not);
}

/// All calls of the list are asked for, but for those of the descriptor of the control socket and what is
/// written to the standard streams.
std::vector<sock_filter> filter(int control)
{
    const sock_filter ask = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF);
    const sock_filter allow = BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW);
    std::vector<sock_filter> program{
        load(offsetof(seccomp_data, nr)),
        skip(BPF_JEQ, kMark, 0, 1),
        ask,
        skip(BPF_JEQ, SYS_sendmsg, 0, 3),
        load(offsetof(seccomp_data, args) + kLowerHalf),
        skip(BPF_JEQ, control, 0, 1),
        allow,
        load(offsetof(seccomp_data, nr)),
        skip(BPF_JEQ, SYS_write, 0, 3),
        load(offsetof(seccomp_data, args) + kLowerHalf),
        skip(BPF_JGT, STDERR_FILENO, 1, 0),
        allow,
        load(offsetof(seccomp_data, nr)),
    };
    for (const Call& call : kCalls) {
        program.push_back(skip(BPF_JEQ, call.number, 0, 1));
        program.push_back(ask);
    }
    program.push_back(allow);
    return program;
}

bool send_descriptor(int control, int fd)
{
    char byte = 0;
    iovec part{&byte, 1};
    alignas(cmsghdr) char buffer[CMSG_SPACE(sizeof fd)] = {};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = buffer;
    message.msg_controllen = sizeof buffer;
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = SOL_SOCKET;
    header->cmsg_type = SCM_RIGHTS;
    header->cmsg_len = CMSG_LEN(sizeof fd);
    std::memcpy(CMSG_DATA(header), &fd, sizeof fd);
    return syscall(SYS_sendmsg, control, &message, 0) == 1;
}

int receive_descriptor(int control)
{
    char byte = 0;
    iovec part{&byte, 1};
    alignas(cmsghdr) char buffer[CMSG_SPACE(sizeof(int))] = {};
    msghdr message{};
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = buffer;
    message.msg_controllen = sizeof buffer;
    if (recvmsg(control, &message, MSG_CMSG_CLOEXEC) != 1 || !CMSG_FIRSTHDR(&message))
        return -1;
    int fd = -1;
    std::memcpy(&fd, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof fd);
    return fd;
}

/// In the child. False, with a line that says so, where calls cannot be filtered.
bool submit_to_supervision(int control)
{
    auto program = filter(control);
    const sock_fprog described{static_cast<unsigned short>(program.size()), program.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0) {
        const long listener =
            syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &described);
        if (listener >= 0 && send_descriptor(control, static_cast<int>(listener))) {
            ::close(static_cast<int>(listener));
            ::close(control);
            return true;
        }
    }
    std::fprintf(stderr, "system calls cannot be supervised here: %s\n", std::strerror(errno));
    return false;
}

/// In the parent: decides until the child has ended.
class Supervisor {
public:
    Supervisor(unsigned n, bool from_then_on, FaultyOutcome& result)
        : m_n(n), m_from_then_on(from_then_on), m_result(result)
    {
    }

    void watch(int listener)
    {
        m_result.was_supervised = true;
        for (;;) {
            pollfd entry{listener, POLLIN, 0};
            if (poll(&entry, 1, 20000) != 1 || (entry.revents & POLLIN) == 0)
                return;
            seccomp_notif asked{};
            if (ioctl(listener, SECCOMP_IOCTL_NOTIF_RECV, &asked) != 0)
                continue; // it has ended meanwhile
            seccomp_notif_resp answer{};
            answer.id = asked.id;
            answer.error = -decide(asked.data);
            answer.flags = answer.error == 0 ? SECCOMP_USER_NOTIF_FLAG_CONTINUE : 0;
            (void)ioctl(listener, SECCOMP_IOCTL_NOTIF_SEND, &answer);
        }
    }

private:
    int decide(const seccomp_data& call)
    {
        if (call.nr == kMark) {
            m_is_open = static_cast<std::uint32_t>(call.args[0]) == kOpen;
            return 0;
        }
        if (!m_is_open)
            return 0;
        ++m_result.calls;
        const bool is_due = m_result.calls == m_n || (m_from_then_on && m_n != 0 && m_result.calls > m_n);
        if (!is_due)
            return 0;
        const auto* const found = std::find_if(std::begin(kCalls), std::end(kCalls),
                                               [&](const Call& known) { return known.number == call.nr; });
        if (!m_result.has_failed)
            m_result.failed = found->name;
        m_result.has_failed = true;
        return found->error;
    }

    unsigned m_n;
    bool m_from_then_on;
    bool m_is_open = false;
    FaultyOutcome& m_result;
};

} // namespace

void CallGate::open()
{
    (void)syscall(kMark, kOpen);
}

void CallGate::close()
{
    (void)syscall(kMark, kClose);
}

FaultyOutcome in_child_with_failing_call(unsigned n, bool from_then_on, const std::function<int()>& body)
{
    FaultyOutcome result;
    Ends control = make_sockets(SOCK_STREAM);
    Ends err = make_pipe();
    const pid_t child = fork();
    if (child == 0) {
        dup2(err.second, STDERR_FILENO);
        _exit(submit_to_supervision(control.second) ? body() : 1);
    }
    control.second = Fd();
    err.second = Fd();
    {
        const Fd listener(receive_descriptor(control.first));
        if (listener.is_open())
            Supervisor(n, from_then_on, result).watch(listener);
    }
    result.outcome.err = read_until(err.first, {});
    result.outcome.status = wait_for(child);
    return result;
}
