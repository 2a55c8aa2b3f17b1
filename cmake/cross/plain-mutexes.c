/* For tests under an emulator that knows no robust mutexes: asking for one gives a plain one. */
#include <errno.h>
#include <pthread.h>

int __real_pthread_mutexattr_setrobust(pthread_mutexattr_t* attributes, int robust);
int __wrap_pthread_mutexattr_setrobust(pthread_mutexattr_t* attributes, int robust);

int __wrap_pthread_mutexattr_setrobust(pthread_mutexattr_t* attributes, int robust)
{
    const int error = __real_pthread_mutexattr_setrobust(attributes, robust);
    return error == ENOSYS ? 0 : error;
}
