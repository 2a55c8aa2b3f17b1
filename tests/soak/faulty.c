/* Preloaded into a daemon, it makes it one that a long run has to tell from a good one. FAULT names what is wrong:
 *
 *     lost write          a confirmed write of "true" has stored something else, now and then
 *     missed event        a subscriber is not told an event, now and then
 *     second answer       an answer comes twice, now and then
 *     leaked descriptor   one is not given back, now and then
 *     leaked memory       some is not given back with each client
 */

#include <dlfcn.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>

static int has(const char *fault)
{
    const char *wanted = getenv("FAULT");
    return wanted && strcmp(wanted, fault) == 0;
}

/* Whether this is one of so many. */
static int now_and_then(unsigned every)
{
    static unsigned count;
    return ++count % every == 0;
}

static int is_in(const char *text, const void *data, size_t size)
{
    return memmem(data, size, text, strlen(text)) != NULL;
}

static void spoil_write(char *data, size_t size)
{
    static const char kWrite[] = "\"set_va_cloud_trigger\", \"data\": true";
    char *found = memmem(data, size, kWrite, sizeof kWrite - 1);
    if (found && now_and_then(3))
        memcpy(found + sizeof kWrite - 1 - 4, "   0", 4);
}

ssize_t recv(int fd, void *data, size_t size, int flags)
{
    ssize_t (*real)(int, void *, size_t, int) = (ssize_t(*)(int, void *, size_t, int))dlsym(RTLD_NEXT, "recv");
    const ssize_t received = real(fd, data, size, flags);
    if (received > 0 && has("lost write"))
        spoil_write(data, (size_t)received);
    return received;
}

ssize_t send(int fd, const void *data, size_t size, int flags)
{
    ssize_t (*real)(int, const void *, size_t, int) = (ssize_t(*)(int, const void *, size_t, int))dlsym(RTLD_NEXT, "send");
    if (has("missed event") && is_in("{\"number\": ", data, size) && now_and_then(50))
        return (ssize_t)size;
    if (has("second answer") && is_in("\"status\": 0}", data, size) && now_and_then(50))
        (void)real(fd, data, size, flags);
    return real(fd, data, size, flags);
}

int accept(int fd, struct sockaddr *address, socklen_t *size)
{
    int (*real)(int, struct sockaddr *, socklen_t *) = (int (*)(int, struct sockaddr *, socklen_t *))dlsym(RTLD_NEXT, "accept");
    if (has("leaked descriptor") && now_and_then(20))
        (void)open("/dev/null", O_RDONLY | O_CLOEXEC);
    if (has("leaked memory")) {
        char *leaked = malloc(8192);
        if (leaked)
            memset(leaked, 1, 8192);
    }
    return real(fd, address, size);
}
