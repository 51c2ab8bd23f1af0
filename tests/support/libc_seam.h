/*
 * The libc seam: libc calls that the library makes directly can be answered by the test.
 *
 * A hook that is not set leaves the call to libc. Hooks are process-wide: set them before other threads run.
 * A hook replaces the call whole; it may call real::f() for the original.
 *
 *     LibcHookGuard hooks;                                // restores on leaving the scope
 *     hooks->poll = [&](pollfd *, nfds_t, int) { polls++; return 1; };
 *
 *     AllocFault fault(2);                                // the scope's second allocation on this thread fails
 *     EXPECT_EQ(tov_get_nicinfo(&list, &n), ENOMEM);
 *
 * An AllocWatch sees each block of memory come and go, and may refuse it.
 */
#pragma once

#include <functional>
#include <ifaddrs.h>
#include <poll.h>
#include <stddef.h>
#include <stdio.h>
#include <sys/time.h>
#include <sys/types.h>
#include <time.h>

namespace test_support {

struct LibcHooks {
    std::function<int(const char *path, int flags)> open;
    std::function<int(int fd)> close;
    std::function<FILE *(const char *path, const char *mode)> fopen;
    std::function<int(int fd, unsigned long request, void *arg)> ioctl;
    std::function<void *(void *start, size_t length, int prot, int flags, int fd, off_t offset)> mmap;
    std::function<int(void *start, size_t length)> munmap;
    std::function<int(struct ifaddrs **)> getifaddrs;
    std::function<void(struct ifaddrs *)> freeifaddrs;
    std::function<int(struct pollfd *, nfds_t, int timeout_ms)> poll;
    std::function<int(useconds_t)> usleep;
    std::function<int(struct timeval *)> gettimeofday;
    std::function<int(clockid_t, struct timespec *)> clock_gettime;
};

/* The calls as they would be without hooks. */
namespace real {
int open(const char *path, int flags, mode_t mode = 0);
int close(int fd);
FILE *fopen(const char *path, const char *mode);
int ioctl(int fd, unsigned long request, void *arg);
void *mmap(void *start, size_t length, int prot, int flags, int fd, off_t offset);
int munmap(void *start, size_t length);
int getifaddrs(struct ifaddrs **list);
void freeifaddrs(struct ifaddrs *list);
int poll(struct pollfd *fds, nfds_t n, int timeout_ms);
int usleep(useconds_t usecs);
int gettimeofday(struct timeval *tv);
int clock_gettime(clockid_t clock, struct timespec *ts);
} // namespace real

/* The hooks now in force. */
LibcHooks &libc_hooks();

/* Hooks set through the guard last as long as it; those in force before come back. */
class LibcHookGuard {
public:
    LibcHookGuard() : saved_(libc_hooks()) {}
    ~LibcHookGuard() { libc_hooks() = saved_; }
    LibcHookGuard(const LibcHookGuard &) = delete;
    LibcHookGuard &operator=(const LibcHookGuard &) = delete;
    LibcHooks *operator->() { return &libc_hooks(); }

private:
    LibcHooks saved_;
};

/*
 * Counts the malloc, calloc and realloc calls of this thread from linked-in code (not operator new) while
 * alive, and lets the nth of them and the howmany - 1 after it fail with ENOMEM; nth 0 only counts.
 */
class AllocFault {
public:
    explicit AllocFault(unsigned nth = 0, unsigned howmany = 1);
    ~AllocFault();
    AllocFault(const AllocFault &) = delete;
    AllocFault &operator=(const AllocFault &) = delete;
    unsigned calls() const { return calls_; }
    bool fails_now(); /* for the interposers: counts a call, says whether it fails */

private:
    unsigned nth_;
    unsigned howmany_;
    unsigned calls_ = 0;
    AllocFault *outer_;
};

/*
 * Told of every malloc, calloc, realloc and free of this thread from linked-in code (not operator new) while alive;
 * the one made last on the thread is the one that is told.
 */
class AllocWatch {
public:
    AllocWatch();
    virtual ~AllocWatch();
    AllocWatch(const AllocWatch &) = delete;
    AllocWatch &operator=(const AllocWatch &) = delete;
    virtual bool refuses() = 0; /* asked first; true makes the call fail with ENOMEM */
    virtual void taken(void *block, size_t size) = 0;
    virtual void given_back(void *block) = 0; /* not null */

private:
    AllocWatch *outer_;
};

} // namespace test_support
