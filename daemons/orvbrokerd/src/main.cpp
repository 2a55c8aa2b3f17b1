// orvbrokerd: the local broker of the security agent. All of it is in the library that this links.

#include "orvbrokerd.h"

int main(int argc, char** argv)
{
    return orv::brokerd::daemon_main(argc, argv);
}
