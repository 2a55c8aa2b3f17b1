// System calls that the daemon makes by itself. The linker leads calls of NAME to __wrap_NAME, and
// __real_NAME is the original one. In a C library that is linked statically its own calls are led there, too.
// The memory that an original asks for is none of the tested code's, so the fake is paused meanwhile.

#include "fake.h"

#include <sys/socket.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <new>

using orv::fake::Fake;

namespace {

const char* operation_name(int operation)
{
    switch (operation) {
    case EPOLL_CTL_ADD:
        return "ADD";
    case EPOLL_CTL_MOD:
        return "MOD";
    case EPOLL_CTL_DEL:
        return "DEL";
    default:
        return "?";
    }
}

std::string mask_name(unsigned mask)
{
    switch (mask) {
    case EPOLLIN:
        return "IN";
    case EPOLLIN | EPOLLOUT:
        return "IN|OUT";
    default:
        return std::to_string(mask);
    }
}

std::string file_name(const char* path)
{
    const char* slash = std::strrchr(path, '/');
    return slash ? slash + 1 : path;
}

/// Memory is asked for by everybody, so requests are no calls of the record: they only can be made to fail.
bool no_memory(const char* what, std::size_t size)
{
    Fake* fake = Fake::current();
    return fake && fake->memory_fails(what, size);
}

} // namespace

extern "C" {

int __real_epoll_create(int size);
int __real_epoll_ctl(int epfd, int operation, int fd, epoll_event* event);
int __real_epoll_wait(int epfd, epoll_event* events, int capacity, int timeout);
int __real_socket(int domain, int type, int protocol);
int __real_bind(int fd, const sockaddr* address, socklen_t length);
int __real_listen(int fd, int backlog);
int __real_accept(int fd, sockaddr* address, socklen_t* length);
int __real_close(int fd);
ssize_t __real_recv(int fd, void* data, std::size_t size, int flags);
ssize_t __real_send(int fd, const void* data, std::size_t size, int flags);
FILE* __real_fopen(const char* path, const char* mode);
int __real_fclose(FILE* file);
void* __real_malloc(std::size_t size);
void* __real_realloc(void* memory, std::size_t size);
char* __real_strdup(const char* text);

int __wrap_epoll_create(int size)
{
    const Fake::Calm calm;
    Fake* fake = Fake::current();
    if (fake && fake->fails("epoll_create(" + std::to_string(size) + ")"))
        return -1;
    const int fd = __real_epoll_create(size);
    if (fake)
        fake->name_fd(fd, "epoll");
    return fd;
}

int __wrap_epoll_ctl(int epfd, int operation, int fd, epoll_event* event)
{
    const Fake::Calm calm;
    Fake* fake = Fake::current();
    if (!fake)
        return __real_epoll_ctl(epfd, operation, fd, event);
    std::string text = std::string("epoll_ctl(") + operation_name(operation) + ", " + fake->name(fd);
    if (event)
        text += ", " + mask_name(event->events);
    if (event && event->data.fd != fd)
        text += ", other data";
    return fake->fails(text + ")") ? -1 : __real_epoll_ctl(epfd, operation, fd, event);
}

int __wrap_epoll_wait(int epfd, epoll_event* events, int capacity, int timeout)
{
    const Fake::Calm calm;
    Fake* fake = Fake::current();
    return fake ? fake->wait(epfd, events, capacity, timeout)
                : __real_epoll_wait(epfd, events, capacity, timeout);
}

int __wrap_socket(int domain, int type, int protocol)
{
    const Fake::Calm calm;
    Fake* fake = Fake::current();
    const bool expected = domain == AF_UNIX && type == SOCK_STREAM && protocol == 0;
    if (fake && fake->fails(expected ? "socket(UNIX, STREAM, 0)" : "socket(of another kind)"))
        return -1;
    const int fd = __real_socket(domain, type, protocol);
    if (fake)
        fake->name_fd(fd, "server");
    return fd;
}

int __wrap_bind(int fd, const sockaddr* address, socklen_t length)
{
    const Fake::Calm calm;
    Fake* fake = Fake::current();
    return fake && fake->fails("bind(" + fake->name(fd) + ")") ? -1 : __real_bind(fd, address, length);
}

int __wrap_listen(int fd, int backlog)
{
    const Fake::Calm calm;
    Fake* fake = Fake::current();
    if (fake && fake->fails("listen(" + fake->name(fd) + ", " + std::to_string(backlog) + ")"))
        return -1;
    return __real_listen(fd, backlog);
}

int __wrap_accept(int fd, sockaddr* address, socklen_t* length)
{
    const Fake::Calm calm;
    Fake* fake = Fake::current();
    if (!fake)
        return __real_accept(fd, address, length);
    if (fake->fails("accept(" + fake->name(fd) + (address || length ? ", address)" : ")")))
        return -1;
    const int client = __real_accept(fd, address, length);
    if (client >= 0)
        fake->name_fd(client, fake->next_name("client"));
    return client;
}

#if defined __GLIBC__ && __SIZEOF_LONG__ != 8 // options may be times, for which it has functions of their own
#define GETSOCKOPT(prefix) prefix##__getsockopt64
#else
#define GETSOCKOPT(prefix) prefix##getsockopt
#endif

int GETSOCKOPT(__real_)(int fd, int level, int option, void* value, socklen_t* length);

/// The daemon asks for nothing but who has connected.
int GETSOCKOPT(__wrap_)(int fd, int level, int option, void* value, socklen_t* length)
{
    const Fake::Calm calm;
    Fake* fake = Fake::current();
    if (!fake)
        return GETSOCKOPT(__real_)(fd, level, option, value, length);
    if (fake->fails("getsockopt(" + fake->name(fd) + ")"))
        return -1;
    const int result = GETSOCKOPT(__real_)(fd, level, option, value, length);
    if (result == 0 && fake->peer_uid)
        static_cast<ucred*>(value)->uid = *fake->peer_uid;
    return result;
}

int __wrap_close(int fd)
{
    const Fake::Calm calm;
    Fake* fake = Fake::current();
    if (!fake)
        return __real_close(fd);
    const bool failing = fake->fails("close(" + fake->name(fd) + ")");
    fake->forget_fd(fd);
    const int result = __real_close(fd); // a failed close has closed all the same
    return failing ? -1 : result;
}

ssize_t __wrap_recv(int fd, void* data, std::size_t size, int flags)
{
    const Fake::Calm calm;
    Fake* fake = Fake::current();
    if (fake && fake->fails("recv(" + fake->name(fd) + ")"))
        return -1;
    return __real_recv(fd, data, size, flags);
}

ssize_t __wrap_send(int fd, const void* data, std::size_t size, int flags)
{
    const Fake::Calm calm;
    Fake* fake = Fake::current();
    if (fake && fake->fails("send(" + fake->name(fd) + ", " + std::to_string(size) + ")"))
        return -1;
    return __real_send(fd, data, size, flags);
}

static FILE* open_file(const char* path, const char* mode, FILE* (*open)(const char*, const char*))
{
    const Fake::Calm calm;
    Fake* fake = Fake::current();
    if (fake && fake->fails("fopen(" + file_name(path) + ", " + mode + ")"))
        return nullptr;
    const Fake::Paused paused;
    return open(path, mode);
}

FILE* __wrap_fopen(const char* path, const char* mode)
{
    return open_file(path, mode, __real_fopen);
}

#ifdef __GLIBC__ // other C libraries have one name for it, whatever the size of a file's offset
FILE* __real_fopen64(const char* path, const char* mode);

FILE* __wrap_fopen64(const char* path, const char* mode)
{
    return open_file(path, mode, __real_fopen64);
}
#endif

int __wrap_fclose(FILE* file)
{
    const Fake::Calm calm;
    Fake* fake = Fake::current();
    const bool failing = fake && fake->fails("fclose()");
    const int result = __real_fclose(file);
    return failing ? EOF : result;
}

void* __wrap_malloc(std::size_t size)
{
    return no_memory("malloc", size) ? nullptr : __real_malloc(size);
}

void* __wrap_realloc(void* memory, std::size_t size)
{
    // What a text of JSON grows by is as good as the JSON library's.
    return no_memory("realloc", size) || no_memory("JSON", size) ? nullptr : __real_realloc(memory, size);
}

char* __wrap_strdup(const char* text)
{
    if (no_memory("strdup", std::strlen(text) + 1))
        return nullptr;
    const Fake::Paused paused;
    return __real_strdup(text);
}

// operator new and new[]; their names hold what std::size_t is. Where the C++ runtime is linked statically
// they end up in malloc(), which then is not asked for by the code that is tested.
#if __SIZEOF_SIZE_T__ == 8
#define THROWING_NEW(prefix) prefix##_Znwm
#define NEW_OBJECT(prefix) prefix##_ZnwmRKSt9nothrow_t
#define THROWING_NEW_ARRAY(prefix) prefix##_Znam
#else
#define THROWING_NEW(prefix) prefix##_Znwj
#define NEW_OBJECT(prefix) prefix##_ZnwjRKSt9nothrow_t
#define THROWING_NEW_ARRAY(prefix) prefix##_Znaj
#endif

void* THROWING_NEW(__real_)(std::size_t size);

void* THROWING_NEW(__wrap_)(std::size_t size)
{
    if (Fake::is_inside() && no_memory("throwing new", size))
        throw std::bad_alloc();
    const Fake::Paused paused;
    return THROWING_NEW(__real_)(size);
}

void* THROWING_NEW_ARRAY(__real_)(std::size_t size);

void* THROWING_NEW_ARRAY(__wrap_)(std::size_t size)
{
    if (Fake::is_inside() && no_memory("throwing new", size))
        throw std::bad_alloc();
    const Fake::Paused paused;
    return THROWING_NEW_ARRAY(__real_)(size);
}

void* NEW_OBJECT(__real_)(std::size_t size, const std::nothrow_t& tag);

void* NEW_OBJECT(__wrap_)(std::size_t size, const std::nothrow_t& tag)
{
    if (no_memory("new", size))
        return nullptr;
    const Fake::Paused paused; // the original may call the one that throws
    return NEW_OBJECT(__real_)(size, tag);
}

// time(), whose name depends on the size of time_t.
#if __SIZEOF_LONG__ == 8
#define TIME(prefix) prefix##time
#else
#define TIME(prefix) prefix##__time64
#endif

std::time_t TIME(__real_)(std::time_t* result);

std::time_t TIME(__wrap_)(std::time_t* result)
{
    Fake* fake = Fake::current();
    return fake ? fake->now : TIME(__real_)(result);
}

} // extern "C"
