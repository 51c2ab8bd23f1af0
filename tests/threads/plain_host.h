/*
 * A host of one adapter interface that any number of threads may ask at once: nothing of it is ever written, so that
 * asking it orders nothing between them. (A fake host with a log and counters would need a lock, and a lock hides
 * races.)
 */
#pragma once

#include "libc_seam.h"

#include <cstdint>
#include <string>

namespace threads {

class PlainHost {
public:
    /* An interface "oxel0" of 127.0.0.1/8, the neighbour 127.0.0.2, and one route to both. */
    explicit PlainHost(const uint8_t *mac);
    PlainHost(const PlainHost &) = delete;
    PlainHost &operator=(const PlainHost &) = delete;

private:
    uint8_t mac_[6];
    test_support::LibcHookGuard hooks_;
};

} // namespace threads
