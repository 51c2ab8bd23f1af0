// What the request tap's tests share: a request window, traffic through it, and processes that are refused things.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "tap.h"
#include "tap_poster.h"

namespace softnic::test {

// A request window of one page, mapped as an application and as the adapter would.
class Window {
public:
    Window();
    ~Window();
    Window(const Window &) = delete;
    Window &operator=(const Window &) = delete;

    std::unique_ptr<RequestTap> tap(TapMode preferred, const char *name = "window")
    {
        return RequestTap::create(preferred, app, alias, bytes, name);
    }
    volatile uint32_t *slot(unsigned type) const
    {
        return reinterpret_cast<volatile uint32_t *>(app + size_t(type) * 256);
    }
    void unmap_app();

    static constexpr size_t bytes = 4096;
    uint8_t *app = nullptr;
    uint8_t *alias = nullptr;
};

// The library's order of stores: 16 words of 32 bits ascending, then a store fence.
void post_words(volatile uint32_t *slot, const uint32_t *words);

// The serial-th request of a stream: no two have a word in common but by chance, and the last word holds a
// header length and the type.
void make_request(uint32_t serial, unsigned type, uint32_t words[16]);

struct TrafficPlan {
    uint32_t requests = 0;
    unsigned threads = 1;
    unsigned dma_of_ten = 5; // how many of ten requests are of type 14
    PosterFunction poster = post_words;
    bool firmware_sleeps = false;            // sleep whenever nothing waits
    uint32_t pause_every = 0;                // posters pause after that many requests, so that it falls asleep
    std::function<void()> thread_setup = {}; // first thing in each posting thread
    bool threads_before_tap = false;         // posting threads are there before the tap is
    bool one_dma_outstanding = true;         // what a DMA ring of one page makes of the library
};

struct TrafficResult {
    TapMode mode = TapMode::fallback;
    uint32_t received = 0;
    uint32_t wrong = 0;        // not the request that had to come next, in full
    uint32_t missed_wakes = 0; // slept through what was posted
    bool timed_out = false;    // no request for so long that there will be none
    uint32_t left_over = 0;    // still came after that
    TapCounters counters;
    uint64_t sleeps = 0;
};

// Posts plan.requests from plan.threads under a lock and takes them on a thread of their own, which checks them.
TrafficResult run_traffic(Window &window, TapMode preferred, const TrafficPlan &plan);

// All of it arrived as it was posted.
bool complete(const TrafficResult &result, const TrafficPlan &plan);
std::string describe(const TrafficResult &result);

// ------------------------------------------------------------ processes

struct ChildResult {
    int status = -1; // exit status, or 128 + the signal that ended it
    std::string err; // its standard error
};

// Runs body in a child process; its return value is the exit status. The child ends within a minute.
ChildResult in_child(const std::function<int()> &body);

// In a child: makes these system calls fail with EPERM from here on.
void refuse_perf_event_open();
void refuse_userfaultfd();
// In a child: becomes an ordinary user, unless it is one already. False when that failed.
bool become_ordinary_user();
// Descriptors of this process whose link holds text.
unsigned open_descriptors_of(const std::string &text);

size_t count_of(const std::string &text, const std::string &part);

} // namespace softnic::test
