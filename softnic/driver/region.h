// Memory that the driver shares with the application.
#pragma once

#include <cstddef>
#include <cstdint>

namespace softnic {

// Anonymous shared memory under a name of its own in /proc/<pid>/maps. The adapter keeps a mapping and no
// descriptor, so that a program which closes every descriptor it does not know does not take the memory away:
// the application's mappings are further views of the adapter's.
class Region {
public:
    Region() = default;
    ~Region() { reset(); }
    Region(Region &&other) noexcept { swap(other); }
    Region &operator=(Region &&other) noexcept
    {
        swap(other);
        return *this;
    }

    // Zeroed memory of len bytes, a multiple of the page size. 0 or an errno value. Read-only views of it are of
    // another kind: see view().
    int create(const char *name, size_t len, bool readonly_views = false);
    void reset();

    // Drops the record and leaves the mappings, for a child process that shares them with its parent.
    void forget();

    uint8_t *data() const { return data_; }
    size_t size() const { return size_; }

    // A view for the application: of len bytes from offset, with prot as for mmap() and at addr when fixed. A view
    // made read-only cannot be made writable again, of memory created for such views. MAP_FAILED and errno on failure.
    void *view(void *addr, bool fixed, size_t offset, size_t len, int prot, bool read_only) const;

private:
    void swap(Region &other) noexcept;
    void open_readonly(int fd);

    uint8_t *data_ = nullptr;     // read and write
    uint8_t *readonly_ = nullptr; // the origin of read-only views; null without them, or where the host gives none
    size_t size_ = 0;
};

} // namespace softnic
