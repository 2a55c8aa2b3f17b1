#include "own_process.h"

#include <jansson.h>

#include <sched.h>

#include <csignal>
#include <cstdio>

namespace orv::test {

bool set_up_process()
{
    if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
        std::perror("cannot enter a network namespace of its own");
        return false;
    }
    json_object_seed(1);           // else the first object reads its seed from a file
    std::signal(SIGPIPE, SIG_IGN); // as the daemon framework does
    return true;
}

} // namespace orv::test
