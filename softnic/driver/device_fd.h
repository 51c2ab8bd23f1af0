// The descriptor that an open of a device file gives the application.
#pragma once

#include <cstdint>
#include <sys/types.h>

namespace softnic {

// It polls readable while events wait, and is otherwise inert. A pipe whose both ends are one descriptor: unlike
// an eventfd, whose inode is that of all its kind, it has an identity that fstat() tells, so that a number which
// was closed or given to another file behind the adapter's back is never taken for it, nor written to.
class DeviceFd {
public:
    // The lowest free number. 0 or an errno value.
    int create(bool close_on_exec);

    // The descriptor is the adapter's own, not the program's.
    void keep();

    int fd() const { return fd_; }

    // The number still means this descriptor.
    bool alive() const { return is(fd_); }
    bool is(int fd) const;

    void set_readable(bool readable);
    bool readable() const { return readable_; }

    // Closes the number if it is still ours.
    void close();

private:
    int fd_ = -1;
    dev_t dev_ = 0;
    ino_t ino_ = 0;
    bool readable_ = false;
};

} // namespace softnic
