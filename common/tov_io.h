/*
 * Access to memory shared with the adapter, its firmware or its driver: the one vocabulary for it.
 *
 *   tov_ldN_acq   load; no later access moves before it. For a word that says "what follows is valid".
 *   tov_stN_rel   store; no earlier access moves after it. For a word that says "what precedes is valid".
 *   tov_ldN, tov_stN  load and store of that width, done exactly once and ordered by something else.
 *   tov_wmb       all earlier stores reach the adapter before any later one (store fence).
 *   tov_mb        full fence.
 *
 * On x86 an acquire load and a release store are the plain mov that a volatile access would be; unlike it
 * they let the thread sanitizer see both sides of a ring. 64-bit words are loaded and stored in halves on
 * 32-bit builds, low half first: no format here needs them whole there.
 */
#ifndef TOV_IO_H
#define TOV_IO_H

#include <stdint.h>

static inline uint8_t tov_ld8(const volatile uint8_t *p) { return __atomic_load_n(p, __ATOMIC_RELAXED); }
static inline uint16_t tov_ld16(const volatile uint16_t *p) { return __atomic_load_n(p, __ATOMIC_RELAXED); }
static inline uint32_t tov_ld32(const volatile uint32_t *p) { return __atomic_load_n(p, __ATOMIC_RELAXED); }
static inline uint8_t tov_ld8_acq(const volatile uint8_t *p) { return __atomic_load_n(p, __ATOMIC_ACQUIRE); }
static inline uint16_t tov_ld16_acq(const volatile uint16_t *p) { return __atomic_load_n(p, __ATOMIC_ACQUIRE); }
static inline uint32_t tov_ld32_acq(const volatile uint32_t *p) { return __atomic_load_n(p, __ATOMIC_ACQUIRE); }

static inline void tov_st8(volatile uint8_t *p, uint8_t v) { __atomic_store_n(p, v, __ATOMIC_RELAXED); }
static inline void tov_st16(volatile uint16_t *p, uint16_t v) { __atomic_store_n(p, v, __ATOMIC_RELAXED); }
static inline void tov_st32(volatile uint32_t *p, uint32_t v) { __atomic_store_n(p, v, __ATOMIC_RELAXED); }
static inline void tov_st8_rel(volatile uint8_t *p, uint8_t v) { __atomic_store_n(p, v, __ATOMIC_RELEASE); }
static inline void tov_st16_rel(volatile uint16_t *p, uint16_t v) { __atomic_store_n(p, v, __ATOMIC_RELEASE); }
static inline void tov_st32_rel(volatile uint32_t *p, uint32_t v) { __atomic_store_n(p, v, __ATOMIC_RELEASE); }

#if defined(__x86_64__)
static inline uint64_t tov_ld64(const volatile uint64_t *p) { return __atomic_load_n(p, __ATOMIC_RELAXED); }
static inline void tov_st64(volatile uint64_t *p, uint64_t v) { __atomic_store_n(p, v, __ATOMIC_RELAXED); }
static inline void tov_st64_rel(volatile uint64_t *p, uint64_t v) { __atomic_store_n(p, v, __ATOMIC_RELEASE); }
#else
static inline uint64_t tov_ld64(const volatile uint64_t *p)
{
    const volatile uint32_t *half = (const volatile uint32_t *)p;
    uint64_t low = tov_ld32(half);
    return low | (uint64_t)tov_ld32(half + 1) << 32;
}
static inline void tov_st64(volatile uint64_t *p, uint64_t v)
{
    volatile uint32_t *half = (volatile uint32_t *)p;
    tov_st32(half, (uint32_t)v);
    tov_st32(half + 1, (uint32_t)(v >> 32));
}
static inline void tov_st64_rel(volatile uint64_t *p, uint64_t v)
{
    volatile uint32_t *half = (volatile uint32_t *)p;
    tov_st32_rel(half, (uint32_t)v);
    tov_st32_rel(half + 1, (uint32_t)(v >> 32));
}
#endif

/* A 64-bit word of a packed record, at a multiple of 4, in one load on 64 bit. */
static inline uint64_t tov_ld64_packed(const void *p)
{
#if defined(__x86_64__)
    uint64_t v;
    __asm__ __volatile__("movq %1, %0" : "=r"(v) : "m"(*(const char(*)[8])p));
    return v;
#else
    return tov_ld64((const volatile uint64_t *)p);
#endif
}

static inline void tov_wmb(void) { __asm__ __volatile__("sfence" ::: "memory"); }

/*
 * In cached memory a locked access is as full a fence as mfence, for less than half of its time. It changes nothing,
 * and goes to a word of the stack that is seldom stored just before, for which it would have to wait.
 */
#if defined(__x86_64__)
static inline void tov_mb(void) { __asm__ __volatile__("lock orl $0, -64(%%rsp)" ::: "memory", "cc"); }
#else
static inline void tov_mb(void) { __asm__ __volatile__("lock orl $0, (%%esp)" ::: "memory", "cc"); }
#endif

/* Big-endian to host order and back. */
static inline uint16_t tov_be16(uint16_t v) { return __builtin_bswap16(v); }
static inline uint32_t tov_be32(uint32_t v) { return __builtin_bswap32(v); }
static inline uint64_t tov_be64(uint64_t v) { return __builtin_bswap64(v); }

#endif
