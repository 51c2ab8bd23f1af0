// Descriptors that a child process must not keep.
#pragma once

namespace softnic {

// Closes a descriptor in every child that is forked while it is guarded: a child that lived on would hold packet
// sockets, and tables in the packet filter, of a process that is long gone. The value is set to -1 there.
class ForkGuard {
public:
    ForkGuard() = default;
    ~ForkGuard() { release(); }
    ForkGuard(const ForkGuard &) = delete;
    ForkGuard &operator=(const ForkGuard &) = delete;

    void guard(int *fd);
    void release();

private:
    static void lock();
    static void unlock();
    static void close_all();

    int *fd_ = nullptr;
    ForkGuard *next_ = nullptr;
};

} // namespace softnic
