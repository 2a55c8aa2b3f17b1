/* Preloaded into a program whose instructions are counted: for it, time stands still, so that what it does now and then,
 * like a look whether a file is still the same, does not depend on how fast it runs. */

#include <sys/time.h>
#include <time.h>

static const time_t the_second = 1700000000;

int clock_gettime(clockid_t clock, struct timespec *now)
{
    (void)clock;
    now->tv_sec = the_second;
    now->tv_nsec = 0;
    return 0;
}

time_t time(time_t *result)
{
    if (result)
        *result = the_second;
    return the_second;
}

int gettimeofday(struct timeval *restrict now, void *restrict zone)
{
    (void)zone;
    now->tv_sec = the_second;
    now->tv_usec = 0;
    return 0;
}
