// System calls made directly. The adapter lives inside the process it serves and interposes some of these names
// itself; its own calls must neither come back to it nor be seen by others who stand at the libc boundary.
#pragma once

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace softnic::sys {

// The descriptors that the adapter has for itself. The program knows nothing of them: calls that close whatever is
// open pass them over, and their numbers lie above those that it uses.
constexpr int kMostKept = 65536, kFirstKept = 512;
inline std::atomic<uint8_t> g_kept[kMostKept];

inline bool is_kept(int fd) { return fd >= 0 && fd < kMostKept && g_kept[fd].load(std::memory_order_relaxed) != 0; }

inline int close(int fd)
{
    if (is_kept(fd))
        g_kept[fd].store(0, std::memory_order_relaxed);
    return static_cast<int>(::syscall(SYS_close, fd));
}

// Keeps a descriptor that closes on exec, until it is closed here. Returns its number from now on; passes errors on.
inline int keep(int fd)
{
    if (fd < 0)
        return fd;
    const int error = errno;
    const int high = ::fcntl(fd, F_DUPFD_CLOEXEC, kFirstKept);
    if (high >= 0)
        sys::close(fd);
    const int kept = high >= 0 ? high : fd; // few descriptors allowed: it stays where it is
    if (kept < kMostKept)
        g_kept[kept].store(1, std::memory_order_relaxed);
    errno = error;
    return kept;
}

// In a child: what was kept is the parent's.
inline void forget_kept()
{
    for (std::atomic<uint8_t> &kept : g_kept)
        kept.store(0, std::memory_order_relaxed);
}

inline int open(const char *path, int flags)
{
    return static_cast<int>(::syscall(SYS_openat, AT_FDCWD, path, flags, 0666));
}
inline void *mmap(void *addr, size_t len, int prot, int flags, int fd)
{
#ifdef SYS_mmap2
    return reinterpret_cast<void *>(::syscall(SYS_mmap2, addr, len, prot, flags, fd, 0L));
#else
    return reinterpret_cast<void *>(::syscall(SYS_mmap, addr, len, prot, flags, fd, 0L));
#endif
}
inline int munmap(void *addr, size_t len) { return static_cast<int>(::syscall(SYS_munmap, addr, len)); }
inline int pipe2(int *ends, int flags) { return static_cast<int>(::syscall(SYS_pipe2, ends, flags)); }
inline int dup3(int from, int to, int flags) { return static_cast<int>(::syscall(SYS_dup3, from, to, flags)); }
inline int64_t read(int fd, void *buf, size_t n) { return ::syscall(SYS_read, fd, buf, n); }
inline int64_t write(int fd, const void *buf, size_t n) { return ::syscall(SYS_write, fd, buf, n); }

// Copies between the driver and an address given by the application. 0 or EFAULT.
int copy_in(void *to, uint64_t from, size_t n);
int copy_out(uint64_t to, const void *from, size_t n);

} // namespace softnic::sys
