/* Preloaded into a program: its time of day is the machine's and so many seconds more, a number of 64 bits that the file
 * named by SETTABLE_CLOCK holds and may be changed at any time. The clocks that timers run by stay as they are. */

#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

static int64_t seconds_ahead(void)
{
    static const volatile int64_t *ahead;
    if (!ahead) {
        const char *name = getenv("SETTABLE_CLOCK");
        const int file = name ? open(name, O_RDONLY | O_CLOEXEC) : -1;
        void *mapped = mmap(NULL, sizeof *ahead, PROT_READ, MAP_SHARED, file, 0);
        if (file >= 0)
            (void)close(file);
        if (mapped == MAP_FAILED)
            return 0;
        ahead = mapped;
    }
    return *ahead;
}

int clock_gettime(clockid_t clock, struct timespec *now)
{
#ifdef SYS_clock_gettime64
    const long result = syscall(SYS_clock_gettime64, clock, now);
#else
    const long result = syscall(SYS_clock_gettime, clock, now);
#endif
    if (result == 0 && (clock == CLOCK_REALTIME || clock == CLOCK_REALTIME_COARSE))
        now->tv_sec += seconds_ahead();
    return (int)result;
}

time_t time(time_t *result)
{
    struct timespec now;
    (void)clock_gettime(CLOCK_REALTIME, &now); /* this clock is always there */
    if (result)
        *result = now.tv_sec;
    return now.tv_sec;
}

int gettimeofday(struct timeval *restrict now, void *restrict zone)
{
    struct timespec precise;
    (void)zone;
    (void)clock_gettime(CLOCK_REALTIME, &precise);
    now->tv_sec = precise.tv_sec;
    now->tv_usec = (suseconds_t)(precise.tv_nsec / 1000);
    return 0;
}
