/*
 * The device access vocabulary with a recorder: includes the real one and replaces what sending, receiving and the
 * clock use by versions that also write down each access. To be included before the source under test.
 */
#pragma once

#define tov_ld16_acq    real_tov_ld16_acq
#define tov_ld64_packed real_tov_ld64_packed
#define tov_ld32        real_tov_ld32
#define tov_ld32_acq    real_tov_ld32_acq
#define tov_st8         real_tov_st8
#define tov_st32        real_tov_st32
#define tov_st32_rel    real_tov_st32_rel
#define tov_st64        real_tov_st64
#define tov_st64_rel    real_tov_st64_rel
#define tov_wmb         real_tov_wmb
#define tov_mb          real_tov_mb
#include "tov_io.h"
#undef tov_ld16_acq
#undef tov_ld64_packed
#undef tov_ld32
#undef tov_ld32_acq
#undef tov_st8
#undef tov_st32
#undef tov_st32_rel
#undef tov_st64
#undef tov_st64_rel
#undef tov_wmb
#undef tov_mb

#include <cstdint>
#include <functional>
#include <ostream>
#include <vector>

namespace recorded {

enum class Kind { load16, load32, load64, store8, store32, store64, fence, full_fence };

struct Access {
    Kind kind;
    uintptr_t at = 0;
    uint64_t value = 0;
    bool operator==(const Access &) const = default;
};

inline std::vector<Access> accesses;
inline bool recording = false;
/* Called before each 16-bit load: the adapter's chance to advance its counter. */
inline std::function<void()> before_load16;
/* Called before each 32-bit load that orders what follows: the driver's chance to rewrite its record. */
inline std::function<void(const volatile uint32_t *)> before_ordered_load32;

inline std::ostream &operator<<(std::ostream &os, const Access &a)
{
    static const char *const names[] = {"load16",  "load32",  "load64", "store8",
                                        "store32", "store64", "fence",  "full fence"};
    return os << names[static_cast<int>(a.kind)] << " " << std::hex << a.at << " " << a.value << std::dec;
}

inline void note(Kind kind, const volatile void *at, uint64_t value)
{
    if (recording)
        accesses.push_back({kind, reinterpret_cast<uintptr_t>(at), value});
}

} // namespace recorded

static inline uint16_t tov_ld16_acq(const volatile uint16_t *p)
{
    if (recorded::recording && recorded::before_load16)
        recorded::before_load16();
    uint16_t v = real_tov_ld16_acq(p);
    recorded::note(recorded::Kind::load16, p, v);
    return v;
}

static inline uint64_t tov_ld64_packed(const void *p)
{
    uint64_t v = real_tov_ld64_packed(p);
    recorded::note(recorded::Kind::load64, p, v);
    return v;
}

static inline uint32_t tov_ld32(const volatile uint32_t *p)
{
    uint32_t v = real_tov_ld32(p);
    recorded::note(recorded::Kind::load32, p, v);
    return v;
}

static inline uint32_t tov_ld32_acq(const volatile uint32_t *p)
{
    if (recorded::recording && recorded::before_ordered_load32)
        recorded::before_ordered_load32(p);
    uint32_t v = real_tov_ld32_acq(p);
    recorded::note(recorded::Kind::load32, p, v);
    return v;
}

static inline void tov_st8(volatile uint8_t *p, uint8_t v)
{
    real_tov_st8(p, v);
    recorded::note(recorded::Kind::store8, p, v);
}

static inline void tov_st32(volatile uint32_t *p, uint32_t v)
{
    real_tov_st32(p, v);
    recorded::note(recorded::Kind::store32, p, v);
}

static inline void tov_st32_rel(volatile uint32_t *p, uint32_t v)
{
    real_tov_st32_rel(p, v);
    recorded::note(recorded::Kind::store32, p, v);
}

static inline void tov_st64(volatile uint64_t *p, uint64_t v)
{
    real_tov_st64(p, v);
    recorded::note(recorded::Kind::store64, p, v);
}

static inline void tov_st64_rel(volatile uint64_t *p, uint64_t v)
{
    real_tov_st64_rel(p, v);
    recorded::note(recorded::Kind::store64, p, v);
}

static inline void tov_wmb()
{
    real_tov_wmb();
    recorded::note(recorded::Kind::fence, nullptr, 0);
}

static inline void tov_mb()
{
    real_tov_mb();
    recorded::note(recorded::Kind::full_fence, nullptr, 0);
}
