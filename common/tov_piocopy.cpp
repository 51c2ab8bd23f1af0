/*
 * The checksumming copy by its names.
 */
#include "tov_piocopy_inline.h"

tov_wcsum wcsum_copy_odd(void *dst, const uint8_t *src, uint32_t len, tov_wcsum wcsum)
{
    uint32_t word;
    wcsum = stage_head(&word, src, len, wcsum);
    tov_st32(static_cast<volatile uint32_t *>(dst), word);
    return wcsum;
}

uint32_t tov_piocopy_csum(uintptr_t *to, const uint8_t *from, uint32_t len, uint32_t *misalign)
{
    return tov_piocopy_csum_inline(to, from, len, misalign);
}
