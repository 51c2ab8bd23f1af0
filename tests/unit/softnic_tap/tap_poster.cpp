// Compiled once for every compiler and level, with POSTER_NAME the name of the set it defines.
#include "tap_poster.h"

#include <string.h>

#include "tov_io.h"

namespace {

void one_by_one(volatile uint32_t *slot, const uint32_t *words)
{
    slot[0] = words[0];
    slot[1] = words[1];
    slot[2] = words[2];
    slot[3] = words[3];
    slot[4] = words[4];
    slot[5] = words[5];
    slot[6] = words[6];
    slot[7] = words[7];
    slot[8] = words[8];
    slot[9] = words[9];
    slot[10] = words[10];
    slot[11] = words[11];
    slot[12] = words[12];
    slot[13] = words[13];
    slot[14] = words[14];
    slot[15] = words[15];
    tov_wmb();
}

void looped(volatile uint32_t *slot, const uint32_t *words)
{
    for (int i = 0; i < 14; i += 2) {
        slot[i] = words[i];
        slot[i + 1] = words[i + 1];
    }
    slot[14] = words[14];
    slot[15] = words[15];
    tov_wmb();
}

void released(volatile uint32_t *slot, const uint32_t *words)
{
    for (int i = 0; i < 14; i += 2) {
        tov_st32(slot + i, words[i]);
        tov_st32(slot + i + 1, words[i + 1]);
    }
    tov_st32(slot + 14, words[14]);
    tov_st32_rel(slot + 15, words[15]);
    tov_wmb();
}

void halves(volatile uint32_t *slot, const uint32_t *words)
{
    volatile uint16_t *half = reinterpret_cast<volatile uint16_t *>(slot);
    volatile uint8_t *byte = reinterpret_cast<volatile uint8_t *>(slot);
    slot[0] = 0; // immediate stores of each width come first and are overwritten
    half[2] = 0x1234;
    byte[7] = 0x56;
    for (int i = 0; i < 30; i += 2) {
        half[i] = uint16_t(words[i / 2]);
        byte[2 * i + 2] = uint8_t(words[i / 2] >> 16);
        byte[2 * i + 3] = uint8_t(words[i / 2] >> 24);
    }
    slot[15] = words[15];
    tov_wmb();
}

void doubled(volatile uint32_t *slot, const uint32_t *words)
{
    volatile uint64_t *wide = reinterpret_cast<volatile uint64_t *>(slot);
    for (int i = 0; i < 7; i++)
        wide[i] = words[2 * i] | uint64_t(words[2 * i + 1]) << 32;
    slot[14] = words[14];
    slot[15] = words[15];
    tov_wmb();
}

void block(volatile uint32_t *slot, const uint32_t *words)
{
    memcpy(const_cast<uint32_t *>(slot), words, 60);
    __asm__ __volatile__("" ::: "memory");
    slot[15] = words[15];
    tov_wmb();
}

#define NAME_OF(x)   #x
#define STRING_OF(x) NAME_OF(x)

} // namespace

extern const PosterSet POSTER_NAME;
const PosterSet POSTER_NAME = {STRING_OF(POSTER_NAME), one_by_one, looped, released, halves, doubled, block};
