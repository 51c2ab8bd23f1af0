/*
 * A host of one adapter interface that any number of threads may ask at once: nothing of it is ever written, so that
 * asking it orders nothing between them. (A fake host with a log and counters would need a lock, and a lock hides
 * races.)
 */
#pragma once

#include "libc_seam.h"

#include <atomic>
#include <cstdint>

namespace threads {

class PlainHost {
public:
    /*
     * An interface "oxel0" of 127.0.0.1/8, the neighbour 127.0.0.2, and one route to both. Timing the cycle counter
     * takes no time: each thread has a clock of its own for it.
     */
    explicit PlainHost(const uint8_t *mac);
    PlainHost(const PlainHost &) = delete;
    PlainHost &operator=(const PlainHost &) = delete;

    /* Threads now in the driver's wait for room to send, and how often the calling thread has been there. */
    int waiting() const { return waiting_.load(std::memory_order_relaxed); }
    static unsigned own_waits();

private:
    int wait_in_driver(int fd, unsigned long request, void *arg);

    uint8_t mac_[6];
    std::atomic<int> waiting_{0};
    test_support::LibcHookGuard hooks_;
};

} // namespace threads
