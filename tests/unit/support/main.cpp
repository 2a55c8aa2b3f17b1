// Each run of the tests is a process in which the daemon can run, so that several can do so side by side.

#include "own_process.h"

#include <gmock/gmock.h>

int main(int argc, char** argv)
{
    testing::InitGoogleMock(&argc, argv);
    return orv::test::set_up_process() ? RUN_ALL_TESTS() : 1;
}
