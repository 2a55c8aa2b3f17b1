// The linker leads the calls here. Their names depend on the size of long: with 32 bits they were others
// once.

#include "fake_clock.h"

#include <ctime>
#include <optional>

namespace {
std::optional<timespec> g_now;
} // namespace

#if __SIZEOF_LONG__ == 4
#define TIME(prefix) prefix##__time64
#define CLOCK_GETTIME(prefix) prefix##__clock_gettime64
#else
#define TIME(prefix) prefix##time
#define CLOCK_GETTIME(prefix) prefix##clock_gettime
#endif

extern "C" {

int CLOCK_GETTIME(__real_)(clockid_t clock, timespec* now);
std::time_t TIME(__wrap_)(std::time_t* result);

int CLOCK_GETTIME(__wrap_)(clockid_t clock, timespec* now)
{
    if (!g_now || clock != CLOCK_REALTIME)
        return CLOCK_GETTIME(__real_)(clock, now);
    *now = *g_now;
    return 0;
}

std::time_t TIME(__wrap_)(std::time_t* result)
{
    timespec now{};
    (void)CLOCK_GETTIME(__wrap_)(CLOCK_REALTIME, &now); // this clock is always there
    if (result)
        *result = now.tv_sec;
    return now.tv_sec;
}

} // extern "C"

FakeClock::~FakeClock()
{
    g_now.reset();
}

void FakeClock::set(std::int64_t seconds, long nanoseconds)
{
    g_now.emplace();
    g_now->tv_sec = seconds;
    g_now->tv_nsec = nanoseconds;
}
