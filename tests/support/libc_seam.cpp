#include "libc_seam.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

/* The linker gives calls of f to __wrap_f, and those of __real_f to f. */
extern "C" {
int __real_open(const char *path, int flags, ...);
int __real_open64(const char *path, int flags, ...);
int __real_close(int fd);
FILE *__real_fopen(const char *path, const char *mode);
FILE *__real_fopen64(const char *path, const char *mode);
int __real_ioctl(int fd, unsigned long request, ...);
void *__real_mmap(void *start, size_t length, int prot, int flags, int fd, off_t offset);
void *__real_mmap64(void *start, size_t length, int prot, int flags, int fd, off64_t offset);
int __real_munmap(void *start, size_t length);
int __real_getifaddrs(struct ifaddrs **list);
void __real_freeifaddrs(struct ifaddrs *list);
int __real_poll(struct pollfd *fds, nfds_t n, int timeout_ms);
int __real_usleep(useconds_t usecs);
int __real_gettimeofday(struct timeval *tv, void *tz);
int __real_clock_gettime(clockid_t clock, struct timespec *ts);
void *__real_malloc(size_t size);
void *__real_calloc(size_t n, size_t size);
void *__real_realloc(void *p, size_t size);
void __real_free(void *p);

int __wrap_open(const char *path, int flags, ...);
int __wrap_open64(const char *path, int flags, ...);
int __wrap_close(int fd);
FILE *__wrap_fopen(const char *path, const char *mode);
FILE *__wrap_fopen64(const char *path, const char *mode);
int __wrap_ioctl(int fd, unsigned long request, ...);
void *__wrap_mmap(void *start, size_t length, int prot, int flags, int fd, off_t offset);
void *__wrap_mmap64(void *start, size_t length, int prot, int flags, int fd, off64_t offset);
int __wrap_munmap(void *start, size_t length);
int __wrap_getifaddrs(struct ifaddrs **list);
void __wrap_freeifaddrs(struct ifaddrs *list);
int __wrap_poll(struct pollfd *fds, nfds_t n, int timeout_ms);
int __wrap_usleep(useconds_t usecs);
int __wrap_gettimeofday(struct timeval *tv, void *tz);
int __wrap_clock_gettime(clockid_t clock, struct timespec *ts);
void *__wrap_malloc(size_t size);
void *__wrap_calloc(size_t n, size_t size);
void *__wrap_realloc(void *p, size_t size);
void __wrap_free(void *p);
}

namespace test_support {

LibcHooks &libc_hooks()
{
    /* Never destroyed: a process that exit() ends goes on calling libc. */
    static LibcHooks &hooks = *new LibcHooks;
    return hooks;
}

namespace {
thread_local AllocFault *alloc_fault;
thread_local AllocWatch *alloc_watch;

bool allocation_fails()
{
    const bool refused = alloc_watch && alloc_watch->refuses();
    if (!refused && (!alloc_fault || !alloc_fault->fails_now()))
        return false;
    errno = ENOMEM;
    return true;
}

void *watched(void *block, size_t size)
{
    if (alloc_watch && block)
        alloc_watch->taken(block, size);
    return block;
}
} // namespace

AllocFault::AllocFault(unsigned nth, unsigned howmany) : nth_(nth), howmany_(howmany), outer_(alloc_fault)
{
    alloc_fault = this;
}

AllocFault::~AllocFault() { alloc_fault = outer_; }

bool AllocFault::fails_now()
{
    calls_++;
    return nth_ != 0 && calls_ >= nth_ && calls_ - nth_ < howmany_;
}

AllocWatch::AllocWatch() : outer_(alloc_watch) { alloc_watch = this; }

AllocWatch::~AllocWatch() { alloc_watch = outer_; }

namespace real {
int open(const char *path, int flags, mode_t mode) { return __real_open(path, flags, mode); }
int close(int fd) { return __real_close(fd); }
FILE *fopen(const char *path, const char *mode) { return __real_fopen(path, mode); }
int ioctl(int fd, unsigned long request, void *arg) { return __real_ioctl(fd, request, arg); }
void *mmap(void *start, size_t length, int prot, int flags, int fd, off_t offset)
{
    return __real_mmap64(start, length, prot, flags, fd, offset);
}
int munmap(void *start, size_t length) { return __real_munmap(start, length); }
int getifaddrs(struct ifaddrs **list) { return __real_getifaddrs(list); }
void freeifaddrs(struct ifaddrs *list) { __real_freeifaddrs(list); }
int poll(struct pollfd *fds, nfds_t n, int timeout_ms) { return __real_poll(fds, n, timeout_ms); }
int usleep(useconds_t usecs) { return __real_usleep(usecs); }
int gettimeofday(struct timeval *tv) { return __real_gettimeofday(tv, nullptr); }
int clock_gettime(clockid_t clock, struct timespec *ts) { return __real_clock_gettime(clock, ts); }
} // namespace real

} // namespace test_support

using test_support::libc_hooks;

/* Copied before the call, so that a hook may replace itself. */
#define HOOKED(name, ...)                                                                                              \
    if (libc_hooks().name) {                                                                                           \
        auto hook = libc_hooks().name;                                                                                 \
        return hook(__VA_ARGS__);                                                                                      \
    }

/* A mode follows the flags only when the call may create a file. */
#define OPEN_MODE(flags, mode)                                                                                         \
    mode_t mode = 0;                                                                                                   \
    if ((flags) & (O_CREAT | __O_TMPFILE)) {                                                                           \
        va_list args;                                                                                                  \
        va_start(args, flags);                                                                                         \
        mode = va_arg(args, mode_t);                                                                                   \
        va_end(args);                                                                                                  \
    }

int __wrap_open(const char *path, int flags, ...)
{
    OPEN_MODE(flags, mode)
    HOOKED(open, path, flags)
    return __real_open(path, flags, mode);
}

int __wrap_open64(const char *path, int flags, ...)
{
    OPEN_MODE(flags, mode)
    HOOKED(open, path, flags)
    return __real_open64(path, flags, mode);
}

int __wrap_close(int fd)
{
    HOOKED(close, fd)
    return __real_close(fd);
}

FILE *__wrap_fopen(const char *path, const char *mode)
{
    HOOKED(fopen, path, mode)
    return __real_fopen(path, mode);
}

FILE *__wrap_fopen64(const char *path, const char *mode)
{
    HOOKED(fopen, path, mode)
    return __real_fopen64(path, mode);
}

int __wrap_ioctl(int fd, unsigned long request, ...)
{
    va_list args;
    va_start(args, request);
    void *arg = va_arg(args, void *);
    va_end(args);
    HOOKED(ioctl, fd, request, arg)
    return __real_ioctl(fd, request, arg);
}

void *__wrap_mmap(void *start, size_t length, int prot, int flags, int fd, off_t offset)
{
    HOOKED(mmap, start, length, prot, flags, fd, offset)
    return __real_mmap(start, length, prot, flags, fd, offset);
}

void *__wrap_mmap64(void *start, size_t length, int prot, int flags, int fd, off64_t offset)
{
    HOOKED(mmap, start, length, prot, flags, fd, offset)
    return __real_mmap64(start, length, prot, flags, fd, offset);
}

int __wrap_munmap(void *start, size_t length)
{
    HOOKED(munmap, start, length)
    return __real_munmap(start, length);
}

int __wrap_getifaddrs(struct ifaddrs **list)
{
    HOOKED(getifaddrs, list)
    return __real_getifaddrs(list);
}

void __wrap_freeifaddrs(struct ifaddrs *list)
{
    HOOKED(freeifaddrs, list)
    __real_freeifaddrs(list);
}

int __wrap_poll(struct pollfd *fds, nfds_t n, int timeout_ms)
{
    HOOKED(poll, fds, n, timeout_ms)
    return __real_poll(fds, n, timeout_ms);
}

int __wrap_usleep(useconds_t usecs)
{
    HOOKED(usleep, usecs)
    return __real_usleep(usecs);
}

int __wrap_gettimeofday(struct timeval *tv, void *tz)
{
    HOOKED(gettimeofday, tv)
    return __real_gettimeofday(tv, tz);
}

int __wrap_clock_gettime(clockid_t clock, struct timespec *ts)
{
    HOOKED(clock_gettime, clock, ts)
    return __real_clock_gettime(clock, ts);
}

void *__wrap_malloc(size_t size)
{
    return test_support::allocation_fails() ? nullptr : test_support::watched(__real_malloc(size), size);
}

void *__wrap_calloc(size_t n, size_t size)
{
    return test_support::allocation_fails() ? nullptr : test_support::watched(__real_calloc(n, size), n * size);
}

void *__wrap_realloc(void *p, size_t size)
{
    if (test_support::allocation_fails())
        return nullptr;
    void *moved = __real_realloc(p, size);
    if (test_support::alloc_watch && moved && p)
        test_support::alloc_watch->given_back(p); // as a number: the block itself is gone. NOLINT
    return test_support::watched(moved, size);
}

void __wrap_free(void *p)
{
    if (test_support::alloc_watch && p)
        test_support::alloc_watch->given_back(p);
    __real_free(p);
}
