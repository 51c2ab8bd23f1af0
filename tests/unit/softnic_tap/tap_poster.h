// Posting code of the kinds that programs contain, compiled in several ways.
#pragma once

#include <stdint.h>

// A slot of the request window and the 16 words to store there.
using PosterFunction = void (*)(volatile uint32_t *slot, const uint32_t *words);

struct PosterSet {
    const char *name;
    PosterFunction one_by_one; // 16 stores written out
    PosterFunction looped;     // seven rounds of two, then two
    PosterFunction released;   // the same through release stores
    PosterFunction halves;     // immediate header bytes and 16-bit stores, then the last word
    PosterFunction doubled;    // 64-bit stores
    PosterFunction block;      // the compiler's block copy
};
