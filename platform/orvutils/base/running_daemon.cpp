// Not in the framework's own source: who has a framework of his own can call it, too.

#include <orvutils/running_daemon.h>

namespace orv::daemon {

namespace {
bool g_is_running = false;
} // namespace

bool is_running()
{
    return g_is_running;
}

void set_running()
{
    g_is_running = true;
}

} // namespace orv::daemon
