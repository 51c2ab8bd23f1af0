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

/* Two stores, the lower address first. */
static inline void store64(volatile uint32_t *dst, uint64_t v)
{
    tov_st32(dst, static_cast<uint32_t>(v));
    tov_st32(dst + 1, static_cast<uint32_t>(v >> 32));
}

static inline tov_wcsum fold64(uint64_t sum)
{
    return add32(static_cast<uint32_t>(sum), static_cast<uint32_t>(sum >> 32));
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

/* Copies and adds 32 bytes; the last word stored. */
static inline uint32_t copy32(volatile uint32_t *dst, const uint8_t *from, uint64_t *sum)
{
    const uint64_t a = load64(from), b = load64(from + 8), c = load64(from + 16), d = load64(from + 24);
    store64(dst, a);
    store64(dst + 2, b);
    store64(dst + 4, c);
    store64(dst + 6, d);
    *sum = add64x4(*sum, a, b, c, d);
    return static_cast<uint32_t>(d >> 32);
}

/* Bytes from the source to its next 4-byte boundary, at most len. */
static inline uint32_t head_bytes(const uint8_t *src, uint32_t len)
{
    uint32_t n = static_cast<uint32_t>(-reinterpret_cast<uintptr_t>(src)) & 3;
    return n < len ? n : len;
}

/* Stages the head in *word, at its place, and adds it to the sum: odd bytes are high ones. */
static inline tov_wcsum stage_head(uint32_t *word, const uint8_t *src, uint32_t len, tov_wcsum sum)
{
    uint32_t n = head_bytes(src, len);
    uint32_t at = reinterpret_cast<uintptr_t>(src) & 3;
    uint32_t staged = 0;

    if ((at & 1) && n > 0) {
        uint32_t byte = *src++;
        staged |= byte << (8 * at++);
        sum = add32(sum, byte << 8);
        n--;
    }
    if (n >= 2) {
        uint32_t pair = load16(src);
        src += 2;
        staged |= pair << (8 * at);
        sum = add32(sum, pair);
        at += 2;
        n -= 2;
    }
    if (n > 0) {
        uint32_t byte = *src;
        staged |= byte << (8 * at);
        sum = add32(sum, byte);
    }
    *word = staged;
    return sum;
}

static inline uint32_t tov_piocopy_csum_inline(uintptr_t *to, const uint8_t *from, uint32_t len, uint32_t *misalign)
{
    volatile uint32_t *dst = reinterpret_cast<volatile uint32_t *>(to);
    uint32_t at = reinterpret_cast<uintptr_t>(from) & 3;
    uint32_t last = 0; /* the word stored last */
    tov_wcsum sum = 0;

    if (at) {
        uint32_t n = head_bytes(from, len);
        sum = stage_head(&last, from, len, 0);
        tov_st32(dst++, last);
        from += n;
        len -= n;
    }

    /* Two sums, so that neither addition waits for the other. */
    uint64_t wide = sum, other = 0;
    for (; len >= 64; len -= 64, from += 64, dst += 16) {
        copy32(dst, from, &wide);
        last = copy32(dst + 8, from + 32, &other);
    }
    if (len >= 32) {
        last = copy32(dst, from, &wide);
        len -= 32, from += 32, dst += 8;
    }
    sum = fold64(add64(wide, other));
    for (; len >= 4; len -= 4, from += 4) {
        last = load32(from);
        tov_st32(dst++, last);
        sum = add32(sum, last);
    }

    /* Behind the payload's end stand left-over bytes of the word before; the adapter goes by the length. */
    if (len) {
        if (len >= 2) {
            uint32_t pair = load16(from);
            from += 2;
            last = (last & 0xFFFF0000u) | pair;
            sum = add32(sum, pair);
        }
        if (len & 1) {
            uint32_t shift = len == 3 ? 16 : 0;
            uint32_t byte = *from;
            last = (last & ~(0xFFu << shift)) | byte << shift;
            sum = add32(sum, byte);
        }
        tov_st32(dst, last);
    }

    /* The whole payload reaches the adapter before whatever the caller writes next. */
    tov_wmb();

    /* From an odd address every byte was summed at the other parity than it has in the datagram. */
    if (at & 1) {
        uint32_t s = (sum & 0xFFFF) + (sum >> 16);
        s += s >> 16;
        sum = ((s << 8) & 0xFF00) | ((s >> 8) & 0xFF);
    }
    *misalign = at;
    return sum;
}

#endif
