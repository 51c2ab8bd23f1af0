/*
 * The checksumming copy, against a reference that goes byte by byte, and its stores as they leave.
 */
#include "tov_piocopy.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <string.h>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

/* ------------------------------------------------------------------ the same source, its stores recorded */

namespace recorded {

struct Store {
    uintptr_t at; /* address; 0 for a store fence */
    uint32_t value;
    bool operator==(const Store &) const = default;
};
std::vector<Store> stores;

} // namespace recorded

/* The device access vocabulary is replaced, so nothing but a recorded store can touch the destination. */
#define TOV_IO_H
static inline void tov_st32(volatile uint32_t *p, uint32_t v)
{
    recorded::stores.push_back({reinterpret_cast<uintptr_t>(p), v});
}
static inline void tov_wmb() { recorded::stores.push_back({0, 0}); }
#define tov_piocopy_csum recorded_piocopy_csum
#define wcsum_copy_odd   recorded_copy_odd
extern "C" {
uint32_t recorded_piocopy_csum(uintptr_t *to, const uint8_t *from, uint32_t len, uint32_t *misalign);
tov_wcsum recorded_copy_odd(void *dst, const uint8_t *src, uint32_t len, tov_wcsum wcsum);
}
#include "../../../common/tov_piocopy.cpp"
#undef tov_piocopy_csum
#undef wcsum_copy_odd

/* ------------------------------------------------------------------ reference */

namespace {

/* What the copy must leave and return, from the bytes alone, one by one. */
struct Reference {
    std::vector<uint32_t> words; /* stored, in order */
    uint32_t sum;
};

Reference reference(uint32_t misalign, const uint8_t *from, uint32_t len)
{
    Reference ref;
    uint32_t head = misalign ? std::min(4 - misalign, len) : 0;
    uint32_t body = (len - head) / 4 * 4;
    uint64_t total = 0; /* of place values; congruent to the ones'-complement sum, 0 only for zero bytes */
    std::vector<uint8_t> image;

    if (misalign) {
        image.assign(4, 0);
        for (uint32_t i = 0; i < head; i++) {
            image[misalign + i] = from[i];
            total += static_cast<uint64_t>(from[i]) << ((misalign + i) % 2 ? 8 : 0);
        }
    }
    for (uint32_t i = 0; i < body; i++) {
        image.push_back(from[head + i]);
        total += static_cast<uint64_t>(from[head + i]) << (8 * (i % 4));
    }
    if (uint32_t tail = len - head - body) {
        std::vector<uint8_t> last(4, 0);
        if (!image.empty())
            std::copy(image.end() - 4, image.end(), last.begin());
        for (uint32_t i = 0; i < tail; i++) {
            last[i] = from[head + body + i];
            total += static_cast<uint64_t>(last[i]) << (i % 2 ? 8 : 0);
        }
        image.insert(image.end(), last.begin(), last.end());
    }
    for (size_t i = 0; i < image.size(); i += 4)
        ref.words.push_back(image[i] | image[i + 1] << 8 | image[i + 2] << 16 |
                            static_cast<uint32_t>(image[i + 3]) << 24);

    /* A sum that is not 0 never becomes 0: end-around carry gives 1 .. 2^n - 1. */
    if (misalign % 2 == 0) {
        ref.sum = total == 0 ? 0 : static_cast<uint32_t>((total - 1) % 0xffffffffu + 1);
    } else {
        uint32_t folded = total == 0 ? 0 : static_cast<uint32_t>((total - 1) % 0xffff + 1);
        ref.sum = (folded & 0xff) << 8 | folded >> 8;
    }
    return ref;
}

/* The Internet checksum's sum over the bytes as they stand in a datagram: 16-bit words in memory order. */
uint32_t internet_sum(const uint8_t *p, size_t len)
{
    uint32_t sum = 0;
    for (size_t i = 0; i < len; i++) {
        sum += i % 2 ? static_cast<uint32_t>(p[i]) << 8 : p[i];
        sum = (sum & 0xffff) + (sum >> 16);
    }
    return sum;
}

uint32_t fold(uint32_t sum)
{
    sum = (sum & 0xffff) + (sum >> 16);
    return (sum & 0xffff) + (sum >> 16);
}

/* Memory whose neighbourhood faults: a read outside what was asked for ends the test. */
class Fenced {
public:
    explicit Fenced(size_t size) : page_(static_cast<size_t>(sysconf(_SC_PAGESIZE)))
    {
        inner_ = (size + page_ - 1) / page_ * page_;
        base_ =
            static_cast<uint8_t *>(mmap(nullptr, inner_ + 2 * page_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        mprotect(base_ + page_, inner_, PROT_READ | PROT_WRITE);
    }
    ~Fenced() { munmap(base_, inner_ + 2 * page_); }
    Fenced(const Fenced &) = delete;
    Fenced &operator=(const Fenced &) = delete;
    uint8_t *begin() { return base_ + page_; }
    uint8_t *end() { return base_ + page_ + inner_; }
    uint8_t *unreadable() { return base_; }

private:
    size_t page_, inner_;
    uint8_t *base_;
};

constexpr uint32_t max_len = 2048;

/* Payload contents: random, extreme, and such that nearly every addition carries. */
struct Contents {
    const char *name;
    void (*fill)(uint8_t *p, size_t n);
};

const Contents contents[] = {
    {"Random",
     [](uint8_t *p, size_t n) {
         std::mt19937 rng(20);
         for (size_t i = 0; i < n; i++)
             p[i] = static_cast<uint8_t>(rng());
     }},
    {"Zeros", [](uint8_t *p, size_t n) { memset(p, 0x00, n); }},
    {"Ones", [](uint8_t *p, size_t n) { memset(p, 0xff, n); }},
    {"Carrying",
     [](uint8_t *p, size_t n) {
         static const uint8_t pattern[] = {0xff, 0xff, 0xff, 0xff, 0x01, 0, 0, 0, 0xff, 0xff, 0xff, 0x80, 0x01};
         for (size_t i = 0; i < n; i++)
             p[i] = pattern[i % sizeof pattern];
     }},
    {"NearlyZero",
     [](uint8_t *p, size_t n) {
         memset(p, 0, n);
         for (size_t i = 0; i < n; i += 257)
             p[i] = 1;
     }},
};

void PrintTo(const Contents &c, std::ostream *os) { *os << c.name; }

class PioCopy : public testing::TestWithParam<Contents> {};

INSTANTIATE_TEST_SUITE_P(Contents, PioCopy, testing::ValuesIn(contents),
                         [](const testing::TestParamInfo<Contents> &info) { return std::string(info.param.name); });

} // namespace

/* ------------------------------------------------------------------ stored words, result, misalign */

TEST_P(PioCopy, EveryAlignmentAndLength_Copied_AsTheReference)
{
    Fenced source(max_len + 8);
    alignas(64) static uint32_t dst[max_len / 4 + 8];
    for (uint32_t misalign = 0; misalign < 4; misalign++)
        for (uint32_t len = misalign ? 1 : 0; len <= max_len; len++) {
            /* At the end of the readable page where the length allows, so that reading on would fault. */
            uint8_t *from = source.end() - len;
            from -= (reinterpret_cast<uintptr_t>(from) - misalign) & 3;
            GetParam().fill(from, len);
            Reference ref = reference(misalign, from, len);

            memset(dst, 0xc3, sizeof dst);
            uint32_t told = 99;
            uint32_t sum = tov_piocopy_csum(reinterpret_cast<uintptr_t *>(dst + 2), from, len, &told);
            ASSERT_EQ(told, misalign) << len;
            ASSERT_EQ(sum, ref.sum) << "misalign " << misalign << " length " << len;
            ASSERT_TRUE(std::equal(ref.words.begin(), ref.words.end(), dst + 2)) << misalign << " " << len;
            ASSERT_EQ(dst[1], 0xc3c3c3c3u) << misalign << " " << len;
            ASSERT_EQ(dst[2 + ref.words.size()], 0xc3c3c3c3u) << misalign << " " << len;
        }
}

TEST_P(PioCopy, EveryAlignmentAndLength_Summed_AsTheInternetChecksum)
{
    std::vector<uint32_t> source(max_len / 4 + 4), dst(max_len / 4 + 4);
    uint8_t *base = reinterpret_cast<uint8_t *>(source.data());
    std::vector<uint8_t> payload(max_len);
    GetParam().fill(payload.data(), max_len);
    for (uint32_t len = 1; len <= max_len; len++) {
        uint32_t expected = internet_sum(payload.data(), len);
        for (uint32_t misalign = 0; misalign < 4; misalign++) {
            memcpy(base + misalign, payload.data(), len);
            uint32_t told;
            uint32_t sum = tov_piocopy_csum(reinterpret_cast<uintptr_t *>(dst.data()), base + misalign, len, &told);
            ASSERT_EQ(fold(sum), expected) << "misalign " << misalign << " length " << len;
            if (misalign % 2) {
                ASSERT_LE(sum, 0xffffu) << "folded already";
            }
        }
    }
}

TEST_P(PioCopy, LongPayload_Copied_AsTheReference)
{
    constexpr uint32_t len = 300001;
    std::vector<uint32_t> source(len / 4 + 4), dst(len / 4 + 4);
    for (uint32_t misalign = 0; misalign < 4; misalign++) {
        uint8_t *from = reinterpret_cast<uint8_t *>(source.data()) + misalign;
        GetParam().fill(from, len);
        Reference ref = reference(misalign, from, len);
        uint32_t told;
        EXPECT_EQ(tov_piocopy_csum(reinterpret_cast<uintptr_t *>(dst.data()), from, len, &told), ref.sum);
        EXPECT_EQ(told, misalign);
        EXPECT_TRUE(std::equal(ref.words.begin(), ref.words.end(), dst.begin()));
    }
}

TEST_P(PioCopy, SourceAtTheStartOfAPage_Copied_NothingBeforeItRead)
{
    Fenced source(64);
    uint32_t dst[24];
    for (uint32_t len = 1; len <= 64; len++) {
        GetParam().fill(source.begin(), len);
        uint32_t told;
        uint32_t sum = tov_piocopy_csum(reinterpret_cast<uintptr_t *>(dst), source.begin(), len, &told);
        EXPECT_EQ(fold(sum), internet_sum(source.begin(), len));
    }
}

/* ------------------------------------------------------------------ the stores */

TEST_P(PioCopy, EveryAlignmentAndLength_Stored_AlignedAscendingOnceThenFence)
{
    /* No byte of the destination can be read or written: the copy lives by its recorded stores alone. */
    Fenced device(4096);
    uint8_t *unreadable = device.unreadable();
    Fenced source(max_len + 8);
    GetParam().fill(source.begin(), max_len + 4);
    for (uint32_t misalign = 0; misalign < 4; misalign++)
        for (uint32_t len = misalign ? 1 : 0; len <= max_len; len++) {
            const uint8_t *from = source.begin() + misalign;
            Reference ref = reference(misalign, from, len);
            std::vector<recorded::Store> expected;
            for (size_t i = 0; i < ref.words.size(); i++)
                expected.push_back({reinterpret_cast<uintptr_t>(unreadable) + 4 * i, ref.words[i]});
            expected.push_back({0, 0});

            recorded::stores.clear();
            uint32_t told;
            uint32_t sum = recorded_piocopy_csum(reinterpret_cast<uintptr_t *>(unreadable), from, len, &told);
            ASSERT_EQ(recorded::stores, expected) << "misalign " << misalign << " length " << len;
            ASSERT_EQ(sum, ref.sum);
        }
}

TEST(PioCopyStores, Tail_Stored_BehindItTheWordBefore)
{
    alignas(8) const uint8_t payload[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    uint32_t dst[3] = {0xdeadbeef, 0xdeadbeef, 0xdeadbeef};
    uint32_t told;
    tov_piocopy_csum(reinterpret_cast<uintptr_t *>(dst), payload, 5, &told);
    EXPECT_EQ(memcmp(dst, "\x01\x02\x03\x04\x05\x02\x03\x04", 8), 0);
    tov_piocopy_csum(reinterpret_cast<uintptr_t *>(dst), payload, 6, &told);
    EXPECT_EQ(memcmp(dst, "\x01\x02\x03\x04\x05\x06\x03\x04", 8), 0);
    tov_piocopy_csum(reinterpret_cast<uintptr_t *>(dst), payload, 7, &told);
    EXPECT_EQ(memcmp(dst, "\x01\x02\x03\x04\x05\x06\x07\x04", 8), 0);
    EXPECT_EQ(dst[2], 0xdeadbeefu);
}

TEST(PioCopyStores, TailBehindAHead_Stored_BehindItTheHeadWord)
{
    alignas(4) const uint8_t payload[8] = {0xee, 1, 2, 3, 4, 5, 6, 0xee};
    uint32_t dst[2] = {0xdeadbeef, 0xdeadbeef};
    uint32_t told;
    EXPECT_EQ(tov_piocopy_csum(reinterpret_cast<uintptr_t *>(dst), payload + 1, 6, &told), 0x0c09u)
        << "0x0201 + 0x0403 + 0x0605";
    EXPECT_EQ(told, 1u);
    EXPECT_EQ(memcmp(dst, "\x00\x01\x02\x03\x04\x05\x06\x03", 8), 0);
}

TEST(PioCopyStores, TailWithoutAWordBefore_Stored_ZerosBehindIt)
{
    alignas(4) const uint8_t payload[4] = {1, 2, 3, 4};
    for (uint32_t len = 1; len <= 3; len++) {
        uint32_t dst = 0xdeadbeef;
        uint32_t told;
        tov_piocopy_csum(reinterpret_cast<uintptr_t *>(&dst), payload, len, &told);
        uint8_t expected[4] = {};
        memcpy(expected, payload, len);
        EXPECT_EQ(memcmp(&dst, expected, 4), 0) << len;
    }
}

TEST(PioCopyStores, OneByteAtTheWordsEnd_Copied_AloneInItsWord)
{
    alignas(4) const uint8_t payload[4] = {0xee, 0xee, 0xee, 0x5b};
    uint32_t dst = 0xdeadbeef;
    uint32_t told = 0;
    EXPECT_EQ(tov_piocopy_csum(reinterpret_cast<uintptr_t *>(&dst), payload + 3, 1, &told), 0x5bu);
    EXPECT_EQ(told, 3u);
    EXPECT_EQ(memcmp(&dst, "\x00\x00\x00\x5b", 4), 0);
}

TEST(PioCopyStores, TwoBytesAtAnEvenPlace_Copied_UnfoldedSumOfOneWord)
{
    alignas(4) const uint8_t payload[8] = {0xee, 0xee, 1, 2, 0xff, 0xff, 0xff, 0xff};
    uint32_t dst[2] = {};
    uint32_t told = 0;
    EXPECT_EQ(tov_piocopy_csum(reinterpret_cast<uintptr_t *>(dst), payload + 2, 6, &told), 0x0201u)
        << "0x0201 + 0xffffffff with the carry added back";
    EXPECT_EQ(told, 2u);
    EXPECT_EQ(memcmp(dst, "\x00\x00\x01\x02\xff\xff\xff\xff", 8), 0);
}

TEST(PioCopyStores, WholeWords_Summed_Unfolded)
{
    alignas(4) const uint8_t payload[8] = {0x78, 0x56, 0x34, 0x12, 0x01, 0x00, 0x00, 0x40};
    uint32_t dst[2];
    uint32_t told;
    EXPECT_EQ(tov_piocopy_csum(reinterpret_cast<uintptr_t *>(dst), payload, 8, &told), 0x52345679u);
}

TEST(PioCopyStores, NothingAligned_Copied_NoStoreSumZero)
{
    alignas(4) const uint8_t payload[4] = {1, 2, 3, 4};
    uint32_t dst = 0xdeadbeef;
    uint32_t told = 99;
    EXPECT_EQ(tov_piocopy_csum(reinterpret_cast<uintptr_t *>(&dst), payload, 0, &told), 0u);
    EXPECT_EQ(dst, 0xdeadbeefu);
    EXPECT_EQ(told, 0u);
}

TEST(PioCopyStores, NothingMisaligned_Copied_NothingReadAWordOfZerosStoredSumZero)
{
    Fenced memory(4096);
    for (uint32_t misalign = 1; misalign < 4; misalign++) {
        uint32_t dst[2] = {0xdeadbeef, 0xdeadbeef};
        uint32_t told = 99;
        EXPECT_EQ(tov_piocopy_csum(reinterpret_cast<uintptr_t *>(dst), memory.unreadable() + misalign, 0, &told), 0u);
        EXPECT_EQ(told, misalign);
        EXPECT_EQ(dst[0], 0u);
        EXPECT_EQ(dst[1], 0xdeadbeefu);
    }
}

/* ------------------------------------------------------------------ the head alone */

TEST(PioCopyHead, EveryPlaceAndLength_Staged_ZerosBeforeAndSumContinued)
{
    alignas(4) const uint8_t src[8] = {0xee, 0xa1, 0xb2, 0xc3, 0xd4, 0xe5, 0xf6, 0xee};
    const struct {
        uint32_t at, len;
        const char *word;
        uint32_t sum; /* from 0 */
    } cases[] = {
        {1, 1, "\x00\xa1\x00\x00", 0xa100},
        {1, 2, "\x00\xa1\xb2\x00", 0xa100 + 0xb2},
        {1, 3, "\x00\xa1\xb2\xc3", 0xa100 + 0xc3b2},
        {1, 9, "\x00\xa1\xb2\xc3", 0xa100 + 0xc3b2},
        {2, 1, "\x00\x00\xb2\x00", 0xb2},
        {2, 2, "\x00\x00\xb2\xc3", 0xc3b2},
        {2, 3, "\x00\x00\xb2\xc3", 0xc3b2},
        {3, 1, "\x00\x00\x00\xc3", 0xc300},
        {3, 2, "\x00\x00\x00\xc3", 0xc300},
    };
    for (auto c : cases) {
        uint32_t word = 0xdeadbeef;
        EXPECT_EQ(wcsum_copy_odd(&word, src + c.at, c.len, 0), c.sum) << c.at << " " << c.len;
        EXPECT_EQ(memcmp(&word, c.word, 4), 0) << c.at << " " << c.len;
        EXPECT_EQ(wcsum_copy_odd(&word, src + c.at, c.len, 0x11220000), 0x11220000 + c.sum);
        EXPECT_EQ(wcsum_copy_odd(&word, src + c.at, c.len, 0xffffffff), c.sum) << "the carry comes back";
    }
}
