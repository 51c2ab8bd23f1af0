/* The input of a fuzzing target, taken apart field by field; past its end all is zero. */
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <span>
#include <vector>

namespace fuzz {

class Bytes {
public:
    Bytes(const uint8_t *data, size_t size) : at_(data), left_(size) {}

    bool empty() const { return left_ == 0; }
    size_t left() const { return left_; }

    uint8_t u8() { return take<uint8_t>(); }
    uint16_t u16() { return take<uint16_t>(); }
    uint32_t u32() { return take<uint32_t>(); }
    uint64_t u64() { return take<uint64_t>(); }

    void fill(void *to, size_t n)
    {
        const size_t have = std::min(n, left_);
        if (have != 0)
            memcpy(to, at_, have);
        memset(static_cast<uint8_t *>(to) + have, 0, n - have);
        at_ += have;
        left_ -= have;
    }

    /* At most n bytes where they lie: for those who copy them. */
    std::span<const uint8_t> stretch(size_t n)
    {
        n = std::min(n, left_);
        const std::span<const uint8_t> bytes(at_, n);
        at_ += n;
        left_ -= n;
        return bytes;
    }

    /* The same in memory of just their size. */
    std::vector<uint8_t> some(size_t n)
    {
        const std::span<const uint8_t> bytes = stretch(n);
        return {bytes.begin(), bytes.end()};
    }

private:
    template <typename T> T take()
    {
        T v;
        fill(&v, sizeof v);
        return v;
    }

    const uint8_t *at_;
    size_t left_;
};

/* What must hold whatever the bytes are. */
#define FUZZ_REQUIRE(condition)                                                                                        \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            fprintf(stderr, "%s:%d: does not hold: %s\n", __FILE__, __LINE__, #condition);                             \
            abort();                                                                                                   \
        }                                                                                                              \
    } while (false)

} // namespace fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);
