#include "consumer_watch.h"

#include "sys.h"

#include <linux/ioctl.h>
#include <linux/userfaultfd.h>

namespace softnic {
namespace {

int command(int fd, unsigned long request, void *arg)
{
    return static_cast<int>(::syscall(SYS_ioctl, fd, request, arg));
}

#ifndef UFFD_USER_MODE_ONLY
#define UFFD_USER_MODE_ONLY 1
#endif
#ifndef UFFD_FEATURE_WP_HUGETLBFS_SHMEM
#define UFFD_FEATURE_WP_HUGETLBFS_SHMEM (1u << 12)
#endif

} // namespace

ConsumerWatch::~ConsumerWatch()
{
    disarm();
    if (fd_ >= 0)
        sys::close(fd_);
}

bool ConsumerWatch::watch(void *page, size_t len)
{
    fd_ = sys::keep(static_cast<int>(::syscall(SYS_userfaultfd, O_CLOEXEC | O_NONBLOCK | UFFD_USER_MODE_ONLY)));
    if (fd_ < 0)
        return false;
    uffdio_api api = {};
    api.api = UFFD_API;
    api.features = UFFD_FEATURE_PAGEFAULT_FLAG_WP | UFFD_FEATURE_WP_HUGETLBFS_SHMEM;
    uffdio_register range = {};
    range.range.start = reinterpret_cast<uintptr_t>(page);
    range.range.len = len;
    range.mode = UFFDIO_REGISTER_MODE_WP;
    if (command(fd_, UFFDIO_API, &api) != 0 || command(fd_, UFFDIO_REGISTER, &range) != 0) {
        sys::close(fd_);
        fd_ = -1;
        return false;
    }
    page_ = page;
    len_ = len;
    return true;
}

bool ConsumerWatch::protect(bool on)
{
    uffdio_writeprotect wp = {};
    wp.range.start = reinterpret_cast<uintptr_t>(page_);
    wp.range.len = len_;
    wp.mode = on ? UFFDIO_WRITEPROTECT_MODE_WP : 0;
    return command(fd_, UFFDIO_WRITEPROTECT, &wp) == 0;
}

bool ConsumerWatch::arm()
{
    if (fd_ < 0)
        return false;
    armed_ = protect(true);
    return armed_;
}

void ConsumerWatch::disarm()
{
    if (!armed_)
        return;
    armed_ = false;
    uffd_msg message;
    while (sys::read(fd_, &message, sizeof(message)) == static_cast<int64_t>(sizeof(message))) {
    }
    protect(false); // and whoever waits at the page goes on
}

} // namespace softnic
