// The calls that reach a device file: open, close, ioctl and mmap in all their forms, and munmap. Those on the device
// files and on descriptors that came from them go to the attached driver; everything else goes on to the next
// definition.

// Both widths of file offset are defined here under their own names.
#undef _FILE_OFFSET_BITS

#include "devices.h"

#include "../driver/sys.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstring>
#include <dlfcn.h>
#include <linux/close_range.h>
#include <new>
#include <pthread.h>

namespace softnic {

Driver *(*make_driver)() = nullptr;
void (*after_fork)() = nullptr;

namespace {

// ---------------------------------------------------------------- what is ours

constexpr int kMaxDescriptors = 16384;
std::atomic<uint8_t> g_ours[kMaxDescriptors]; // numbers that open() handed out, looked at without a lock
std::atomic<int> g_highest{-1};               // of those; above the table the driver itself is asked
std::atomic<Driver *> g_driver{nullptr};
std::atomic<pid_t> g_owner{0}; // the process that the driver serves
std::atomic<bool> g_first_form{false};
std::mutex g_make_mutex;

void note_descriptor(int fd, bool ours)
{
    if (fd >= 0 && fd < kMaxDescriptors)
        g_ours[fd].store(ours ? 1 : 0, std::memory_order_relaxed);
    int highest = g_highest.load(std::memory_order_relaxed);
    while (ours && fd > highest && !g_highest.compare_exchange_weak(highest, fd, std::memory_order_relaxed)) {
    }
}

bool may_be_ours(int fd)
{
    if (fd >= 0 && fd < kMaxDescriptors)
        return g_ours[fd].load(std::memory_order_relaxed) != 0;
    return fd >= 0 && fd <= g_highest.load(std::memory_order_relaxed);
}

// The driver when the number is one of its descriptors, else null. A child that shares our memory but went
// through no fork handler has no devices.
Driver *driver_of(int fd)
{
    if (!may_be_ours(fd))
        return nullptr;
    Driver *driver = g_driver.load(std::memory_order_acquire);
    if (driver == nullptr || g_owner.load(std::memory_order_relaxed) != ::getpid() || !driver->owns(fd))
        return nullptr;
    return driver;
}

void forget_in_child()
{
    Driver *driver = g_driver.load(std::memory_order_relaxed);
    new (&g_make_mutex) std::mutex;
    for (auto &ours : g_ours)
        ours.store(0, std::memory_order_relaxed);
    g_highest.store(-1, std::memory_order_relaxed);
    sys::forget_kept();
    g_owner.store(::getpid(), std::memory_order_relaxed);
    if (after_fork != nullptr)
        after_fork();
    if (driver != nullptr && g_driver.load(std::memory_order_relaxed) == driver)
        driver->forget();
}

// The number is one of the adapter's own descriptors, of which the program knows nothing. A child that went through no
// fork handler may close its copies.
bool off_limits(int fd) { return sys::is_kept(fd) && g_owner.load(std::memory_order_relaxed) == ::getpid(); }

int plain_close_range(unsigned first, unsigned last, int flags)
{
    return static_cast<int>(::syscall(SYS_close_range, first, last, flags));
}

// Closes devices as close() does, and leaves what is off limits.
int close_all_between(unsigned first, unsigned last, int flags)
{
    if (first > last || (flags & CLOSE_RANGE_CLOEXEC) != 0 || g_owner.load(std::memory_order_relaxed) != ::getpid())
        return plain_close_range(first, last, flags);
    const int highest = std::max(kMaxDescriptors - 1, g_highest.load(std::memory_order_relaxed));
    const unsigned known = std::min(last, static_cast<unsigned>(highest));
    for (unsigned fd = first; fd <= known; fd++) {
        if (Driver *driver = driver_of(static_cast<int>(fd)))
            driver->close(static_cast<int>(fd));
        if (!off_limits(static_cast<int>(fd)))
            continue;
        if (fd > first)
            if (int rc = plain_close_range(first, fd - 1, flags))
                return rc;
        first = fd + 1;
    }
    return first <= last ? plain_close_range(first, last, flags) : 0;
}

// False when the memory must stay.
bool tell_unmapping(const void *addr, size_t len)
{
    Driver *driver = g_driver.load(std::memory_order_acquire);
    if (driver == nullptr || g_owner.load(std::memory_order_relaxed) != ::getpid())
        return true;
    return driver->unmapping(addr, len);
}

// The driver to open with, made now if need be.
Driver *driver_for_open()
{
    if (Driver *driver = g_driver.load(std::memory_order_acquire))
        return driver;
    if (make_driver == nullptr)
        return nullptr;
    std::lock_guard guard(g_make_mutex);
    Driver *driver = g_driver.load(std::memory_order_acquire);
    if (driver == nullptr && (driver = make_driver()) != nullptr)
        attach_driver(driver);
    return driver;
}

// ---------------------------------------------------------------- the next definitions

// Null until the constructor has run; system calls are made directly before.
struct Next {
    int (*open)(const char *, int, ...);
    int (*open64)(const char *, int, ...);
    int (*openat)(int, const char *, int, ...);
    int (*openat64)(int, const char *, int, ...);
    int (*open_2)(const char *, int);
    int (*open64_2)(const char *, int);
    int (*openat_2)(int, const char *, int);
    int (*openat64_2)(int, const char *, int);
    int (*close)(int);
    int (*ioctl)(int, unsigned long, ...);
    void *(*mmap)(void *, size_t, int, int, int, off_t);
    void *(*mmap64)(void *, size_t, int, int, int, off64_t);
    int (*munmap)(void *, size_t);
};
Next g_next;

template <typename Function> void resolve(Function *&slot, const char *name)
{
    slot = reinterpret_cast<Function *>(::dlsym(RTLD_NEXT, name));
}

__attribute__((constructor(101))) void resolve_next()
{
    resolve(g_next.open, "open");
    resolve(g_next.open64, "open64");
    resolve(g_next.openat, "openat");
    resolve(g_next.openat64, "openat64");
    resolve(g_next.open_2, "__open_2");
    resolve(g_next.open64_2, "__open64_2");
    resolve(g_next.openat_2, "__openat_2");
    resolve(g_next.openat64_2, "__openat64_2");
    resolve(g_next.close, "close");
    resolve(g_next.ioctl, "ioctl");
    resolve(g_next.mmap, "mmap");
    resolve(g_next.mmap64, "mmap64");
    resolve(g_next.munmap, "munmap");
    ::pthread_atfork(nullptr, nullptr, forget_in_child);
}

int raw_openat(int dir, const char *path, int flags, mode_t mode)
{
    return static_cast<int>(::syscall(SYS_openat, dir, path, flags, mode));
}

// ---------------------------------------------------------------- opening

// "/dev/oxelB<n>" and "/dev/oxelBp<n>", nothing else.
bool parse_device_path(const char *path, unsigned *board, bool *first_form)
{
    static constexpr char kPrefix[] = "/dev/oxelB";
    if (path == nullptr || strncmp(path, kPrefix, sizeof(kPrefix) - 1) != 0)
        return false;
    const char *p = path + sizeof(kPrefix) - 1;
    *first_form = *p == 'p';
    p += *first_form ? 1 : 0;
    if (*p == '\0' || (*p == '0' && p[1] != '\0'))
        return false;
    unsigned n = 0;
    for (; *p >= '0' && *p <= '9' && n < 10000; p++)
        n = n * 10 + static_cast<unsigned>(*p - '0');
    *board = n;
    return *p == '\0';
}

// True when the path is a device file of the attached driver: *result is then what open returns, with errno set.
bool open_device(const char *path, int flags, int *result)
{
    unsigned board;
    bool first_form;
    if (!parse_device_path(path, &board, &first_form))
        return false;
    Driver *driver = driver_for_open();
    if (driver == nullptr)
        return false;
    int error = 0;
    if (first_form && !g_first_form.load(std::memory_order_relaxed))
        error = ENOENT;
    else if ((flags & O_DIRECTORY) != 0)
        error = ENOTDIR;
    else if ((flags & (O_CREAT | O_EXCL)) == (O_CREAT | O_EXCL))
        error = EEXIST;
    if (error == 0) {
        *result = driver->open(board, (flags & O_CLOEXEC) != 0);
        if (*result >= 0)
            return true;
        error = -*result;
    }
    errno = error;
    *result = -1;
    return true;
}

// O_TMPFILE contains O_DIRECTORY's bit, so all of it has to be there.
bool has_mode(int flags) { return (flags & O_CREAT) != 0 || (flags & O_TMPFILE) == O_TMPFILE; }

} // namespace

int attach_driver(Driver *driver)
{
    Driver *none = nullptr;
    driver->on_descriptor = note_descriptor;
    g_owner.store(::getpid(), std::memory_order_relaxed);
    return g_driver.compare_exchange_strong(none, driver, std::memory_order_acq_rel) ? 0 : EBUSY;
}

void detach_driver(Driver *driver) { g_driver.compare_exchange_strong(driver, nullptr, std::memory_order_acq_rel); }

Driver *attached_driver() { return g_driver.load(std::memory_order_acquire); }

void answer_first_form(bool answer) { g_first_form.store(answer, std::memory_order_relaxed); }

} // namespace softnic

using namespace softnic;

#define SOFTNIC_MODE(mode, flags)                                                                                      \
    mode_t mode = 0;                                                                                                   \
    if (has_mode(flags)) {                                                                                             \
        va_list args;                                                                                                  \
        va_start(args, flags);                                                                                         \
        mode = static_cast<mode_t>(va_arg(args, unsigned));                                                            \
        va_end(args);                                                                                                  \
    }

extern "C" {

__attribute__((visibility("default"))) int open(const char *path, int flags, ...)
{
    SOFTNIC_MODE(mode, flags)
    int fd;
    if (open_device(path, flags, &fd))
        return fd;
    return g_next.open != nullptr ? g_next.open(path, flags, mode) : raw_openat(AT_FDCWD, path, flags, mode);
}

__attribute__((visibility("default"))) int open64(const char *path, int flags, ...)
{
    SOFTNIC_MODE(mode, flags)
    int fd;
    if (open_device(path, flags, &fd))
        return fd;
    return g_next.open64 != nullptr ? g_next.open64(path, flags, mode)
                                    : raw_openat(AT_FDCWD, path, flags | O_LARGEFILE, mode);
}

__attribute__((visibility("default"))) int openat(int dir, const char *path, int flags, ...)
{
    SOFTNIC_MODE(mode, flags)
    int fd;
    if (open_device(path, flags, &fd))
        return fd;
    return g_next.openat != nullptr ? g_next.openat(dir, path, flags, mode) : raw_openat(dir, path, flags, mode);
}

__attribute__((visibility("default"))) int openat64(int dir, const char *path, int flags, ...)
{
    SOFTNIC_MODE(mode, flags)
    int fd;
    if (open_device(path, flags, &fd))
        return fd;
    return g_next.openat64 != nullptr ? g_next.openat64(dir, path, flags, mode)
                                      : raw_openat(dir, path, flags | O_LARGEFILE, mode);
}

// What fortified programs call when there is no mode.
__attribute__((visibility("default"))) int __open_2(const char *path, int flags)
{
    int fd;
    if (open_device(path, flags, &fd))
        return fd;
    return g_next.open_2 != nullptr ? g_next.open_2(path, flags) : raw_openat(AT_FDCWD, path, flags, 0);
}

__attribute__((visibility("default"))) int __open64_2(const char *path, int flags)
{
    int fd;
    if (open_device(path, flags, &fd))
        return fd;
    return g_next.open64_2 != nullptr ? g_next.open64_2(path, flags)
                                      : raw_openat(AT_FDCWD, path, flags | O_LARGEFILE, 0);
}

__attribute__((visibility("default"))) int __openat_2(int dir, const char *path, int flags)
{
    int fd;
    if (open_device(path, flags, &fd))
        return fd;
    return g_next.openat_2 != nullptr ? g_next.openat_2(dir, path, flags) : raw_openat(dir, path, flags, 0);
}

__attribute__((visibility("default"))) int __openat64_2(int dir, const char *path, int flags)
{
    int fd;
    if (open_device(path, flags, &fd))
        return fd;
    return g_next.openat64_2 != nullptr ? g_next.openat64_2(dir, path, flags)
                                        : raw_openat(dir, path, flags | O_LARGEFILE, 0);
}

__attribute__((visibility("default"))) int close(int fd)
{
    if (Driver *driver = driver_of(fd))
        return driver->close(fd);
    if (off_limits(fd)) {
        errno = EBADF;
        return -1;
    }
    return g_next.close != nullptr ? g_next.close(fd) : sys::close(fd);
}

__attribute__((visibility("default"))) int close_range(unsigned first, unsigned last, int flags) noexcept
{
    return close_all_between(first, last, flags);
}

__attribute__((visibility("default"))) void closefrom(int first) noexcept
{
    close_all_between(first < 0 ? 0 : static_cast<unsigned>(first), ~0u, 0);
}

__attribute__((visibility("default"))) int ioctl(int fd, unsigned long request, ...) noexcept
{
    va_list args;
    va_start(args, request);
    void *arg = va_arg(args, void *);
    va_end(args);
    if (Driver *driver = driver_of(fd))
        return driver->ioctl(fd, request, arg);
    return g_next.ioctl != nullptr ? g_next.ioctl(fd, request, arg)
                                   : static_cast<int>(::syscall(SYS_ioctl, fd, request, arg));
}

__attribute__((visibility("default"))) void *mmap(void *addr, size_t len, int prot, int flags, int fd,
                                                  off_t offset) noexcept
{
    if ((flags & MAP_ANONYMOUS) == 0)
        if (Driver *driver = driver_of(fd))
            return driver->mmap(fd, addr, len, prot, flags, static_cast<uint64_t>(offset));
    if (g_next.mmap != nullptr)
        return g_next.mmap(addr, len, prot, flags, fd, offset);
#ifdef SYS_mmap2
    return reinterpret_cast<void *>(::syscall(SYS_mmap2, addr, len, prot, flags, fd, offset >> 12));
#else
    return reinterpret_cast<void *>(::syscall(SYS_mmap, addr, len, prot, flags, fd, offset));
#endif
}

__attribute__((visibility("default"))) void *mmap64(void *addr, size_t len, int prot, int flags, int fd,
                                                    off64_t offset) noexcept
{
    if ((flags & MAP_ANONYMOUS) == 0)
        if (Driver *driver = driver_of(fd))
            return driver->mmap(fd, addr, len, prot, flags, static_cast<uint64_t>(offset));
    if (g_next.mmap64 != nullptr)
        return g_next.mmap64(addr, len, prot, flags, fd, offset);
#ifdef SYS_mmap2
    return reinterpret_cast<void *>(::syscall(SYS_mmap2, addr, len, prot, flags, fd, static_cast<long>(offset >> 12)));
#else
    return reinterpret_cast<void *>(::syscall(SYS_mmap, addr, len, prot, flags, fd, offset));
#endif
}

__attribute__((visibility("default"))) int munmap(void *addr, size_t len) noexcept
{
    if (!tell_unmapping(addr, len))
        return 0;
    return g_next.munmap != nullptr ? g_next.munmap(addr, len) : sys::munmap(addr, len);
}

} // extern "C"
