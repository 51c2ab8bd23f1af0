// Watches the request window of one endpoint in this process and keeps every request posted there.
//
// Each request overwrites the window's slot of its type, so a reader that polls memory misses requests that an
// adapter would have queued. A tap catches the store of a slot's last word before the storing thread goes on.
//
//   fast      Type 14 (DMA) is polled: the driver reports a DMA threshold of 0 and a DMA ring of one page, so
//             that at most one is outstanding. Type 13 (PIO, then empty payloads alone) is caught by a watchpoint.
//   exact     A watchpoint on either slot; any threshold, any ring.
//   fallback  The page stays write-protected for the application; each store faults and is performed by the
//             fault handler through the adapter's own mapping. Any threshold, any ring, needs no debug register.
//
// While the firmware sleeps, fast mode write-protects the page, too: the first store wakes the firmware and the
// thread goes on at once. (userfaultfd would hold that thread until the firmware has been scheduled, and a firmware
// that falls asleep again too early could hold it for good.)
//
// Hypervisors lose the cause of a watchpoint's hit now and then: the kernel then sends the SIGTRAP of an int1
// instruction, and the tap looks at all watched slots itself.
//
// A mode that the host refuses or whose debug registers are used up becomes fallback, for that endpoint alone;
// fallback serves the thresholds and rings of either other mode.
//
// Requests on one endpoint are posted one at a time (under the endpoint's lock); endpoints are independent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "nuv_requests.h"

namespace softnic {

enum class TapMode { fast, exact, fallback };

const char *tap_mode_name(TapMode mode);
bool tap_mode_from_name(const char *name, TapMode *mode);

struct TapCounters {
    uint64_t queued = 0;     // requests caught in a signal handler
    uint64_t polled = 0;     // requests taken from the slot by pop()
    uint64_t async_hits = 0; // watchpoint hits that came late, because the thread blocked SIGTRAP: requests are lost
    uint64_t overflows = 0;  // requests lost because nobody popped
    uint64_t emulated = 0;   // stores that the fault handler performed
    uint64_t stepped = 0;    // stores that the fault handler had the processor perform, one instruction unprotected
    uint64_t idle_wakes = 0; // stores that ended an idle period
};

enum class TapIdle {
    work,  // something is waiting: not armed, go on
    armed, // the next request makes wake_fd() readable: sleep without limit, then disarm_idle()
    timed, // the page could not be armed: sleep a millisecond at most, then disarm_idle()
};

struct TapState;

class RequestTap {
public:
    // app is the request window as the application has mapped it, alias the adapter's own mapping of the same
    // pages; both page-aligned, len bytes. name begins the lines on standard error ("oxelp0, endpoint 1").
    // nullptr when app and alias are one mapping, the signals cannot be taken, all 1024 states are in use, there is no
    // event descriptor, or the mode is or becomes fallback and the page cannot be protected. The window is then polled,
    // and requests can be lost. To be called before the application knows app.
    static std::unique_ptr<RequestTap> create(TapMode preferred, void *app, void *alias, size_t len, const char *name);

    // What create() would give now on this thread: for a driver that reports thresholds before the window is mapped.
    // With a name it says why, when that is not what is preferred.
    static TapMode available(TapMode preferred, const char *name = nullptr);

    ~RequestTap();
    RequestTap(const RequestTap &) = delete;
    RequestTap &operator=(const RequestTap &) = delete;

    TapMode mode() const;

    // The oldest request posted and not yet popped; false when none waits. One caller at a time. A slot's last word is
    // zero again once its request is taken, so that none is taken twice; in fast mode that of the polled slot is once
    // the request was popped: advance the completion counter only then.
    bool pop(nuv_ureq_t *out);

    // Before sleeping, and after. By the caller of pop().
    TapIdle arm_idle();
    void disarm_idle();
    int wake_fd() const;

    // The application is about to unmap the window: the tap leaves those addresses alone from now on. What was
    // posted can still be popped.
    void detach();

    TapCounters counters() const;

private:
    explicit RequestTap(TapState *state) : state_(state) {}
    TapState *state_;
};

} // namespace softnic
