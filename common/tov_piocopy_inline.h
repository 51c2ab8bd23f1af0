/*
 * The checksumming copy into a send buffer of the adapter, in line for the sending path.
 *
 * Device rule: 32-bit stores, aligned, in ascending order, one at a time; nothing is read back. Loads and
 * additions may be wider, since a ones'-complement sum over 64 bits folds to the one over 32: both are 0
 * only when every word was 0, and else the same residue modulo 2^32 - 1 in the range 1 to 2^32 - 1.
 */
#ifndef TOV_PIOCOPY_INLINE_H
#define TOV_PIOCOPY_INLINE_H

#include "tov_io.h"
#include "tov_piocopy.h"

#include <string.h>

static inline uint16_t load16(const uint8_t *p)
{
    uint16_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

static inline uint32_t load32(const uint8_t *p)
{
    uint32_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

static inline uint64_t load64(const uint8_t *p)
{
    uint64_t v;
    memcpy(&v, p, sizeof v);
    return v;
}

/* Addition with end-around carry. */
static inline tov_wcsum add32(tov_wcsum sum, uint32_t v)
{
    sum += v;
    return sum + (sum < v);
}

static inline uint64_t add64(uint64_t sum, uint64_t v)
{
    sum += v;
    return sum + (sum < v);
}

/* Four of them. */
static inline uint64_t add64x4(uint64_t sum, uint64_t a, uint64_t b, uint64_t c, uint64_t d)
{
#if defined(__x86_64__)
    __asm__("addq %1, %0\n\tadcq %2, %0\n\tadcq %3, %0\n\tadcq %4, %0\n\tadcq $0, %0"
            : "+&r"(sum)
            : "r"(a), "r"(b), "r"(c), "r"(d)
            : "cc");
    return sum;
#else
    return add64(add64(add64(add64(sum, a), b), c), d);
#endif
}

/* Two stores, the lower address first. */
static inline void store64(volatile uint32_t *dst, uint64_t v)
{
    tov_st32(dst, static_cast<uint32_t>(v));
    tov_st32(dst + 1, static_cast<uint32_t>(v >> 32));
}

/* To the 32 bits of the same sum. */
static inline tov_wcsum fold64(uint64_t sum)
{
    return add32(static_cast<uint32_t>(sum), static_cast<uint32_t>(sum >> 32));
}

/* Copies and adds 32 bytes; the last word stored. Added first: their upper halves are then moved down in place. */
static inline uint32_t copy32(volatile uint32_t *dst, const uint8_t *from, uint64_t *sum)
{
    const uint64_t a = load64(from), b = load64(from + 8), c = load64(from + 16), d = load64(from + 24);
    *sum = add64x4(*sum, a, b, c, d);
    store64(dst, a);
    store64(dst + 2, b);
    store64(dst + 4, c);
    store64(dst + 6, d);
    return static_cast<uint32_t>(d >> 32);
}

/*
 * Copies len bytes from an aligned source and adds them to `sum`. The whole of it reaches the adapter before whatever
 * the caller writes next. Where the payload ends within a word, the rest of that is filled with what the word stored
 * before it has there: `last` is that word when there is none in these len bytes.
 */
[[gnu::always_inline]] static inline tov_wcsum tov_piocopy_csum_aligned(volatile uint32_t *dst, const uint8_t *from,
                                                                        uint32_t len, uint32_t last, tov_wcsum sum)
{
    /* 1. Blocks. Two sums, so that neither addition waits for the other. */
    uint64_t wide = sum, other = 0;
    for (const uint8_t *const end = from + (len & ~63u); from != end; from += 64, dst += 16) {
        copy32(dst, from, &wide);
        last = copy32(dst + 8, from + 32, &other);
    }
    if (len & 32) {
        last = copy32(dst, from, &wide);
        from += 32, dst += 8;
    }
    wide = add64(wide, other);

    /* 2. Words. */
    for (const uint8_t *const end = from + (len & 28); from != end; from += 4) {
        last = load32(from);
        tov_st32(dst++, last);
        wide = add64(wide, last);
    }
    sum = fold64(wide);

    /* 3. Bytes. Behind them stand left-over bytes of the word before; the adapter goes by the length. */
    if (len & 3) {
        if (len & 2) {
            uint32_t pair = load16(from);
            from += 2;
            last = (last & 0xFFFF0000u) | pair;
            sum = add32(sum, pair);
        }
        if (len & 1) {
            uint32_t shift = len & 2 ? 16 : 0;
            uint32_t byte = *from;
            last = (last & ~(0xFFu << shift)) | byte << shift;
            sum = add32(sum, byte);
        }
        tov_st32(dst, last);
    }
    tov_wmb();
    return sum;
}

#endif
