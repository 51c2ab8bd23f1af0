// Where a card gets the requests from that an application posts in its window.
#pragma once

#include "nuv_requests.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>

namespace softnic {

// Catches each request as it is posted. A card without one looks at the window in each round instead, and misses
// what was overwritten in between.
class RequestSource {
public:
    enum class Idle {
        Work,  // something is waiting: not armed
        Armed, // the next request makes wake_fd() readable
        Timed, // cannot be armed: sleep a short time only
    };

    virtual ~RequestSource() = default;
    virtual bool pop(nuv_ureq_t *request) = 0;
    virtual void detach() = 0; // the application gives up its mapping
    virtual Idle arm_idle() = 0;
    virtual void disarm_idle() = 0;
    virtual int wake_fd() const = 0;
    // Requests that there was no room to keep, and signs of loss, behind each of which any number of them may be lost.
    virtual uint64_t lost() const = 0;
};

// app: the window as the application is about to get it; alias: the adapter's own mapping. May give null.
using MakeRequestSource =
    std::function<std::unique_ptr<RequestSource>(void *app, void *alias, size_t len, const char *name)>;

// How the requests of one endpoint are caught, and what its driver has to report to make that possible.
struct SendSetup {
    MakeRequestSource make_source; // null: the window is looked at in each round
    uint32_t sendq_size = 0;       // bytes
    uint32_t dmasend_threshold = 0;
    bool threshold_fixed = false; // catching depends on it: not to be changed
};

} // namespace softnic
