/*
 * The checksumming copy by its names, from any address.
 */
#include "tov_piocopy_inline.h"

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

tov_wcsum wcsum_copy_odd(void *dst, const uint8_t *src, uint32_t len, tov_wcsum wcsum)
{
    uint32_t word;
    wcsum = stage_head(&word, src, len, wcsum);
    tov_st32(static_cast<volatile uint32_t *>(dst), word);
    return wcsum;
}

uint32_t tov_piocopy_csum(uintptr_t *to, const uint8_t *from, uint32_t len, uint32_t *misalign)
{
    volatile uint32_t *dst = reinterpret_cast<volatile uint32_t *>(to);
    const uint32_t at = reinterpret_cast<uintptr_t>(from) & 3;
    *misalign = at;
    if (at == 0)
        return tov_piocopy_csum_aligned(dst, from, len, 0, 0);

    const uint32_t n = head_bytes(from, len);
    uint32_t word;
    tov_wcsum sum = stage_head(&word, from, len, 0);
    tov_st32(dst++, word);
    sum = tov_piocopy_csum_aligned(dst, from + n, len - n, word, sum);

    /* From an odd address every byte was summed at the other parity than it has in the datagram. */
    if (at & 1) {
        uint32_t s = (sum & 0xFFFF) + (sum >> 16);
        s += s >> 16;
        sum = ((s << 8) & 0xFF00) | ((s >> 8) & 0xFF);
    }
    return sum;
}
