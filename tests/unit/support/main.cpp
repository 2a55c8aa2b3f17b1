// The name of the daemon's socket is fixed, and abstract names are per network namespace: each run of the
// tests gets a namespace of its own, so that several can run side by side.

#include <gmock/gmock.h>

#include <jansson.h>

#include <sched.h>

#include <csignal>
#include <cstdio>

int main(int argc, char** argv)
{
    testing::InitGoogleMock(&argc, argv);
    if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0) {
        std::perror("cannot enter a network namespace of its own");
        return 1;
    }
    json_object_seed(1);           // else the first object reads its seed from a file
    std::signal(SIGPIPE, SIG_IGN); // as the daemon framework does
    return RUN_ALL_TESTS();
}
