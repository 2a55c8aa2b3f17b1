// Each system call is a stop of the tracer's, before and after it.

#include "stepped.h"

#include "base_support.h"

#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <utility>

Stepped::Stepped(const std::function<int()>& body) : m_process(fork())
{
    if (m_process == 0) {
        if (ptrace(PTRACE_TRACEME, 0, nullptr, nullptr) != 0)
            _exit(111);
        (void)raise(SIGSTOP);
        _exit(body());
    }
    m_is_there = wait();
}

Stepped::~Stepped()
{
    kill();
}

bool Stepped::step()
{
    m_is_there = m_is_there && ptrace(PTRACE_SYSCALL, m_process, nullptr, nullptr) == 0 && wait();
    return m_is_there;
}

bool Stepped::step(int count)
{
    while (count > 0 && step())
        --count;
    return count == 0;
}

void Stepped::kill()
{
    if (!std::exchange(m_is_there, false))
        return;
    (void)::kill(m_process, SIGKILL);
    (void)wait_for(m_process);
}

void Stepped::let_go()
{
    if (!std::exchange(m_is_there, false))
        return;
    (void)ptrace(PTRACE_DETACH, m_process, nullptr, nullptr);
    m_status = wait_for(m_process);
}

bool Stepped::wait()
{
    int status = 0;
    if (waitpid(m_process, &status, 0) != m_process)
        return false;
    if (WIFSTOPPED(status))
        return true;
    m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
    return false;
}
