/*
 * The checksumming copy into a send buffer of the adapter.
 */
#ifndef TOV_PIOCOPY_H
#define TOV_PIOCOPY_H

#include "tov_types.h"

TOV_BEGIN_DECLS

/* A ones'-complement sum with end-around carry, one machine word of the adapter: 32 bits. */
typedef uint32_t tov_wcsum;

/*
 * Copies len bytes to `to` (32-bit aligned) with aligned 32-bit stores in ascending order and one store
 * fence at the end, keeping the source's position within a 32-bit word: *misalign receives from mod 4, the
 * position of the first payload byte in the first word stored.
 * Returns the payload's partial Internet checksum, not complemented, as if it began at an even offset:
 * up to 32 bits unfolded when from is even, folded to 16 bits when odd.
 */
uint32_t tov_piocopy_csum(uintptr_t *to, const uint8_t *from, uint32_t len, uint32_t *misalign);

/*
 * The head of that copy: the source bytes up to the next 4-byte boundary, at most len, go to their places in
 * the 32-bit word at dst (zero before them), which is then stored, and are added to wcsum. Returns the new sum.
 */
tov_wcsum wcsum_copy_odd(void *dst, const uint8_t *src, uint32_t len, tov_wcsum wcsum);

TOV_END_DECLS

#endif
