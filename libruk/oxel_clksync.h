/*
 * Adapter ticks to host nanoseconds, through the clock record that the driver publishes in the kernel window.
 */
#ifndef OXEL_CLKSYNC_H
#define OXEL_CLKSYNC_H

#include "nuv_types.h"
#include "tov_io.h"

/* Reads fields of the window by read(); false, and perhaps nothing read, where the driver is or was rewriting them. */
template <typename Read> inline bool oxel_clksync_try(const oxel_clksync_seq_t *seq, Read read)
{
    const uint32_t before = tov_ld32_acq(&seq->seqnum);
    if (__builtin_expect(before & 1, 0))
        return false;
    tov_mb(); /* the fields are read after the counter ... */
    read();
    tov_mb(); /* ... and before it is read again */
    return __builtin_expect(tov_ld32_acq(&seq->seqnum) == before, 1);
}

/* The same until no rewrite overlaps. Spins while the driver is writing. */
template <typename Read> inline void oxel_clksync_read(const oxel_clksync_seq_t *seq, Read read)
{
    while (!oxel_clksync_try(seq, read))
        ;
}

/* One field of a packed record that another party may be rewriting. */
template <typename T> inline T oxel_clksync_field(const void *field)
{
    static_assert(sizeof(T) == 4 || sizeof(T) == 8);
    if constexpr (sizeof(T) == 4)
        return (T)tov_ld32((const uint32_t *)field);
    else
        return (T)tov_ld64_packed(field);
}

extern "C" {

/* Copies the window's tick parameters. */
inline void oxel_clksync_copy_nticks_params(oxel_clksync_nticks_t *to, const kz_kernel_window_t *window)
{
    const oxel_clksync_nticks_t *from = &window->clksync.nticks;
    oxel_clksync_read(&window->clksync, [&] {
        to->ticks = oxel_clksync_field<uint64_t>(&from->ticks);
        to->ticks_mask = oxel_clksync_field<uint64_t>(&from->ticks_mask);
        to->nsecs = oxel_clksync_field<uint64_t>(&from->nsecs);
        to->nt_numerator = oxel_clksync_field<uint32_t>(&from->nt_numerator);
        to->nt_denominator = oxel_clksync_field<uint32_t>(&from->nt_denominator);
    });
}

/* Ticks to nanoseconds through the endpoint's own parameters: masked difference, truncating division. */
inline uint64_t oxel_clksync_nticks_update(const oxel_clksync_nticks_t *nt, uint64_t ticks)
{
    return ((ticks - nt->ticks) & nt->ticks_mask) * nt->nt_numerator / nt->nt_denominator + nt->nsecs;
}

/* The drift correction for a time ns: the product keeps its low 64 bits, the shift is arithmetic. */
inline uint64_t __oxel_clksync_convert_nsecs(uint64_t ns, uint64_t nsecs_base, int64_t drift, int64_t multiplier)
{
    int64_t product = (int64_t)((ns - nsecs_base) * (uint64_t)multiplier);
    return ns + (uint64_t)drift + (uint64_t)(product >> 30);
}

/* The window's current drift. */
struct oxel_clksync_drift {
    uint64_t base;
    int64_t drift, multiplier;
};
/* Reads it; false as oxel_clksync_try(). */
inline bool oxel_clksync_try_drift(const kz_kernel_window_t *window, struct oxel_clksync_drift *now)
{
    const oxel_clksync_params_t *clkp = &window->clksync.clkp;
    return oxel_clksync_try(&window->clksync, [=] {
        now->multiplier = oxel_clksync_field<int64_t>(&clkp->multiplier);
        now->drift = oxel_clksync_field<int64_t>(&clkp->hostnic_drift_nsecs);
        now->base = oxel_clksync_field<uint64_t>(&clkp->nsecs_base);
    });
}

/* The correction by it. */
inline uint64_t oxel_clksync_convert_nsecs(const kz_kernel_window_t *window, uint64_t ns)
{
    struct oxel_clksync_drift now = {};
    while (!oxel_clksync_try_drift(window, &now))
        ;
    return __oxel_clksync_convert_nsecs(ns, now.base, now.drift, now.multiplier);
}

/* Ticks to nanoseconds through the window's current reference point: no mask, no drift correction. */
inline uint64_t oxel_timesync_ticks2nsecs(const kz_kernel_window_t *window, uint64_t ticks)
{
    oxel_clksync_nticks_t nt = {};
    oxel_clksync_copy_nticks_params(&nt, window);
    nt.ticks_mask = ~UINT64_C(0);
    return oxel_clksync_nticks_update(&nt, ticks);
}

} /* extern "C" */

#endif
