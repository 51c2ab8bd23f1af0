// System calls made directly. The adapter lives inside the process it serves and interposes some of these names
// itself; its own calls must neither come back to it nor be seen by others who stand at the libc boundary.
#pragma once

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace softnic::sys {

inline int close(int fd) { return static_cast<int>(::syscall(SYS_close, fd)); }
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
