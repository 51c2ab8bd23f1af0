#include "region.h"

#include "sys.h"

#include <cstdio>
#include <utility>

namespace softnic {

void Region::swap(Region &other) noexcept
{
    std::swap(data_, other.data_);
    std::swap(readonly_, other.readonly_);
    std::swap(size_, other.size_);
}

int Region::create(const char *name, size_t len, bool readonly_views)
{
    const int fd = static_cast<int>(::syscall(SYS_memfd_create, name, MFD_CLOEXEC));
    if (fd < 0)
        return errno;
    int rc = 0;
    void *data = MAP_FAILED;
    if (::ftruncate(fd, static_cast<off_t>(len)) == 0)
        data = sys::mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_SHARED, fd);
    if (data == MAP_FAILED) {
        rc = errno;
    } else {
        reset();
        data_ = static_cast<uint8_t *>(data);
        size_ = len;
        if (readonly_views)
            open_readonly(fd);
    }
    sys::close(fd);
    return rc;
}

void Region::open_readonly(int fd)
{
    char path[32];
    snprintf(path, sizeof(path), "/proc/self/fd/%d", fd);
    const int reader = sys::open(path, O_RDONLY | O_CLOEXEC);
    if (reader < 0)
        return;
    void *view = sys::mmap(nullptr, size_, PROT_READ, MAP_SHARED, reader);
    readonly_ = view == MAP_FAILED ? nullptr : static_cast<uint8_t *>(view);
    sys::close(reader);
}

void Region::reset()
{
    if (data_ != nullptr)
        sys::munmap(data_, size_);
    if (readonly_ != nullptr)
        sys::munmap(readonly_, size_);
    forget();
}

void Region::forget()
{
    data_ = readonly_ = nullptr;
    size_ = 0;
}

void *Region::view(void *addr, bool fixed, size_t offset, size_t len, int prot, bool read_only) const
{
    uint8_t *origin = read_only && readonly_ != nullptr ? readonly_ : data_;
    // An old length of 0 makes a second mapping of the same shared pages.
    void *at = fixed ? ::mremap(origin + offset, 0, len, MREMAP_MAYMOVE | MREMAP_FIXED, addr)
                     : ::mremap(origin + offset, 0, len, MREMAP_MAYMOVE);
    if (at == MAP_FAILED)
        return at;
    const int given = origin == readonly_ ? PROT_READ : PROT_READ | PROT_WRITE;
    if (prot != given && ::mprotect(at, len, prot) != 0) {
        const int saved = errno;
        sys::munmap(at, len);
        errno = saved;
        return MAP_FAILED;
    }
    return at;
}

} // namespace softnic
