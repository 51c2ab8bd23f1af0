#include "device_fd.h"

#include "sys.h"

#include <cstdio>
#include <sys/stat.h>

namespace softnic {

int DeviceFd::create(bool close_on_exec)
{
    int ends[2];
    if (sys::pipe2(ends, O_CLOEXEC | O_NONBLOCK) != 0)
        return errno;
    char path[32];
    snprintf(path, sizeof(path), "/proc/self/fd/%d", ends[0]);
    const int both = sys::open(path, O_RDWR | O_NONBLOCK | O_CLOEXEC);
    const int error = errno;
    sys::close(ends[1]);
    if (both < 0) {
        sys::close(ends[0]);
        return error;
    }
    // The application gets the lowest number, as from any open.
    if (sys::dup3(both, ends[0], close_on_exec ? O_CLOEXEC : 0) < 0) {
        const int dup_error = errno;
        sys::close(both);
        sys::close(ends[0]);
        return dup_error;
    }
    sys::close(both);
    struct stat st;
    if (::fstat(ends[0], &st) != 0) {
        const int stat_error = errno;
        sys::close(ends[0]);
        return stat_error;
    }
    fd_ = ends[0];
    dev_ = st.st_dev;
    ino_ = st.st_ino;
    readable_ = false;
    return 0;
}

void DeviceFd::keep() { fd_ = sys::keep(fd_); }

bool DeviceFd::is(int fd) const
{
    struct stat st;
    return fd_ >= 0 && fd >= 0 && ::fstat(fd, &st) == 0 && st.st_dev == dev_ && st.st_ino == ino_;
}

void DeviceFd::set_readable(bool readable)
{
    if (readable == readable_ || !alive())
        return;
    char byte = 0;
    if (readable)
        sys::write(fd_, &byte, 1);
    else
        sys::read(fd_, &byte, 1);
    readable_ = readable;
}

void DeviceFd::close()
{
    if (alive())
        sys::close(fd_);
    fd_ = -1;
}

} // namespace softnic
