// The adapter's clock and the window through which its relation to host time is published.
#pragma once

#include "nuv_types.h"

#include <cstdint>

namespace softnic {

// The moment at which something happens, handed into the core by whoever drives it.
struct Now {
    uint64_t mono_ns = 0;    // a clock that never steps: what the adapter's oscillator runs beside
    uint64_t real_ns = 0;    // the host's real-time clock
    bool of_arrival = false; // when a frame arrived, where the port knows that, and not when it was looked at
};

struct ClockConfig {
    uint32_t ns_numerator = 16; // nominal ns a tick = numerator / denominator: 312.5 MHz
    uint32_t ns_denominator = 5;
    int64_t drift_ppb = 0;    // how much faster than nominal the oscillator runs
    uint64_t ticks_mask = 0;  // width of the counter as published; 0 = 64 bits and no mask
    uint64_t first_ticks = 0; // the counter's value at power-up
};

class Clock {
public:
    Clock(const ClockConfig &config, Now power_up);

    // The counter at this moment.
    uint64_t ticks(uint64_t mono_ns) const;

    // How far behind the present, ns, a count may lie that readers convert by what publish() writes.
    uint64_t reach() const;

    // Rewrites the clock record of the window under its sequence counter. Without a mask the relation is exact as of
    // now; its reference point lies well in the past, since a tick count before it cannot be converted and events may
    // wait for their reader. With a mask the reference stays where it was at power-up, since endpoints keep the copy
    // they took when they were enabled, and the drift record carries the correction.
    void publish(kz_kernel_window_t *window, Now now) const;

private:
    ClockConfig config_;
    Now power_up_;
};

// a * b / c with a 128-bit product, truncated; the result must fit.
uint64_t mul_div(uint64_t a, uint64_t b, uint64_t c);

} // namespace softnic
