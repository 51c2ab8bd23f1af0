// Clock, frame keys, filters and the request queue, against calculations of their own.
#include "core/board.h"
#include "core/crc32.h"
#include "core/frame_key.h"
#include "frames.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <thread>

namespace softnic {
namespace {

using softnic_test::Bytes;
using softnic_test::FrameSpec;
using softnic_test::make_frame;

uint64_t random_state = 1;
uint64_t next_random()
{
    random_state ^= random_state << 13;
    random_state ^= random_state >> 7;
    random_state ^= random_state << 17;
    return random_state;
}

// One bit at a time in the order of the wire, as the standard describes it: most significant coefficient first.
uint32_t wire_crc(const uint8_t *data, size_t len)
{
    uint32_t r = 0xFFFFFFFF;
    for (size_t i = 0; i < len; i++)
        for (int bit = 0; bit < 8; bit++) {
            const bool carry = ((r >> 31) ^ (data[i] >> bit & 1u)) != 0;
            r = r << 1 ^ (carry ? 0x04C11DB7u : 0);
        }
    uint32_t reversed = 0;
    for (int bit = 0; bit < 32; bit++)
        reversed |= (r >> bit & 1u) << (31 - bit);
    return ~reversed;
}

TEST(Crc32, AllLengthsAndAlignments_AgreeWithAnIndependentOne)
{
    Bytes data(2048);
    for (uint8_t &b : data)
        b = static_cast<uint8_t>(next_random());
    for (size_t offset = 0; offset < 8; offset++)
        for (size_t len = 0; len < 1600; len += len < 70 ? 1 : 61)
            ASSERT_EQ(crc32(data.data() + offset, len), wire_crc(data.data() + offset, len)) << offset << " " << len;
}

TEST(MulDiv, LargeProducts_AreExact)
{
    EXPECT_EQ(mul_div(0xFFFFFFFFFFFFFFFFu, 7, 7), 0xFFFFFFFFFFFFFFFFu);
    EXPECT_EQ(mul_div(1000000000000000003u, 1000000001u, 1000000000u), 1000000001000000003u);
    EXPECT_EQ(mul_div(0x8000000000000000u, 0x8000000000000000u, 0x8000000000000001u), 0x7FFFFFFFFFFFFFFFu);
    EXPECT_EQ(mul_div(10, 3, 4), 7u);
}

// --- clock

ClockConfig rate(uint32_t num, uint32_t den, int64_t ppb = 0, uint64_t mask = 0)
{
    ClockConfig c;
    c.ns_numerator = num;
    c.ns_denominator = den;
    c.drift_ppb = ppb;
    c.ticks_mask = mask;
    return c;
}

oxel_clksync_seq_t record_of(const kz_kernel_window_t &window)
{
    oxel_clksync_seq_t record;
    memcpy(&record, reinterpret_cast<const uint8_t *>(&window) + 64, sizeof(record));
    return record;
}

// The library's conversion, written out again.
uint64_t convert(const oxel_clksync_nticks_t &own, const oxel_clksync_seq_t &window, uint64_t ticks)
{
    if (own.ticks_mask == 0) {
        const auto &n = window.nticks;
        return (ticks - n.ticks) * n.nt_numerator / n.nt_denominator + n.nsecs;
    }
    const uint64_t ns = ((ticks - own.ticks) & own.ticks_mask) * own.nt_numerator / own.nt_denominator + own.nsecs;
    const auto &p = window.clkp;
    const uint64_t product = (ns - p.nsecs_base) * static_cast<uint64_t>(p.multiplier);
    return ns + static_cast<uint64_t>(p.hostnic_drift_nsecs) +
           static_cast<uint64_t>(static_cast<int64_t>(product) >> 30);
}

TEST(AdapterClock, TicksAtItsRateFromItsFirstValue)
{
    ClockConfig c = rate(16, 5);
    c.first_ticks = 7;
    const Clock clock(c, Now{1000, 5000});
    EXPECT_EQ(clock.ticks(1000), 7u);
    EXPECT_EQ(clock.ticks(1016), 12u); // 16 ns are 5 ticks
    EXPECT_EQ(clock.ticks(1000 + 3200000000u), 7 + 1000000000u);
}

TEST(AdapterClock, Drift_IsPartsPerBillionFaster)
{
    const Clock fast(rate(1, 1, 50000), Now{0, 0});
    EXPECT_EQ(fast.ticks(1000000000), 1000050000u);
    const Clock slow(rate(1, 1, -50000), Now{0, 0});
    EXPECT_EQ(slow.ticks(1000000000), 999950000u);
    EXPECT_EQ(slow.ticks(uint64_t{100} * 365 * 86400 * 1000000000u / 10), 315344232000000000u); // ten years
}

TEST(AdapterClock, SequenceCounter_IsEvenAndDiffersAfterEachRewrite)
{
    const Clock clock(rate(16, 5), Now{0, 0});
    kz_kernel_window_t window = {};
    uint32_t before = 0;
    for (int i = 0; i < 5; i++) {
        clock.publish(&window, Now{uint64_t(i), uint64_t(i)});
        const uint32_t seq = record_of(window).seqnum;
        EXPECT_EQ(seq % 2, 0u);
        EXPECT_NE(seq, before);
        before = seq;
    }
    for (uint8_t byte : window.pad0)
        EXPECT_EQ(byte, 0);
    for (uint8_t byte : window.pad1)
        EXPECT_EQ(byte, 0);
}

struct ClockCase {
    const char *name;
    ClockConfig config;
};

class ClockWindow : public testing::TestWithParam<ClockCase> {};

// Whatever the drift: what a reader converts is host time, at any moment after a publication and also for an
// event of a while before it.
TEST_P(ClockWindow, ConvertedTicks_AreHostTimeNowAndForOlderEvents)
{
    const uint64_t real0 = 1700000000000000000u;
    const Clock clock(GetParam().config, Now{500, real0});
    kz_kernel_window_t window = {};
    clock.publish(&window, Now{500, real0});
    const oxel_clksync_nticks_t own = record_of(window).nticks; // as copied when the endpoint was enabled
    for (uint64_t s : {1u, 10u, 100u, 5000u, 100000u}) {
        const uint64_t at = s * 1000000000u;
        clock.publish(&window, Now{500 + at, real0 + at});
        const double drift = static_cast<double>(GetParam().config.drift_ppb) / 1e9;
        for (int64_t age : {int64_t{0}, int64_t{1000}, int64_t{1000000000}, int64_t{-100000000}}) {
            if (age > static_cast<int64_t>(at))
                continue;
            const uint64_t then = at - static_cast<uint64_t>(age);
            const auto got = static_cast<int64_t>(convert(own, record_of(window), clock.ticks(500 + then)) - real0);
            const double allowed = 20 + std::abs(drift * static_cast<double>(age)) +
                                   (GetParam().config.ticks_mask != 0 ? std::abs(static_cast<double>(age)) * 2e-9 : 0);
            EXPECT_NEAR(static_cast<double>(got - static_cast<int64_t>(then)), 0, allowed) << s << " " << age;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Rates, ClockWindow,
                         testing::Values(ClockCase{"exact", rate(16, 5)}, ClockCase{"slow", rate(16, 5, -20000)},
                                         ClockCase{"fast", rate(4, 1, 100000)},
                                         ClockCase{"masked", rate(16, 5, 0, ~uint64_t{0} >> 1)},
                                         ClockCase{"maskedSlow", rate(16, 5, -20000, ~uint64_t{0} >> 8)},
                                         ClockCase{"maskedFast", rate(20, 7, 100000, (uint64_t{1} << 50) - 1)},
                                         ClockCase{"oddFraction", rate(1000000007, 312500000, 10)}),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(ClockWindow, EventOlderThanThePublication_IsNotBeforeTheReference)
{
    const Clock clock(rate(16, 5), Now{0, 0});
    kz_kernel_window_t window = {};
    clock.publish(&window, Now{1000000000, 1000000000});
    EXPECT_LE(record_of(window).nticks.ticks, clock.ticks(0));
}

TEST(ClockWindow, ReaderBesideAWriter_NeverTakesATornRecord)
{
    const Clock clock(rate(1, 1), Now{0, 0});
    alignas(64) kz_kernel_window_t window = {};
    clock.publish(&window, Now{0, 0});
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        for (uint64_t t = 0; !stop; t += 7200000000001u)
            clock.publish(&window, Now{t, t + 5});
    });
    const auto *words = reinterpret_cast<const uint32_t *>(&window) + 16;
    for (int i = 0; i < 200000;) {
        const uint32_t before = __atomic_load_n(words, __ATOMIC_SEQ_CST);
        uint32_t copy[17];
        for (int w = 1; w < 17; w++)
            copy[w] = __atomic_load_n(words + w, __ATOMIC_SEQ_CST);
        if (before % 2 != 0 || __atomic_load_n(words, __ATOMIC_SEQ_CST) != before)
            continue;
        const uint64_t ticks = copy[9] | uint64_t{copy[10]} << 32;
        const uint64_t nsecs = copy[13] | uint64_t{copy[14]} << 32;
        if (ticks != 0) { // one tick a ns: the pair always differs by the 5 ns
            ASSERT_EQ(nsecs - ticks, 5u);
        }
        i++;
    }
    stop = true;
    writer.join();
}

// --- frame keys

// The same question answered by a field-by-field reading of the rule.
bool reference_key(const Bytes &f, SteerKey *key)
{
    const auto u8 = [&](size_t at) { return unsigned{f[at]}; };
    const auto u16 = [&](size_t at) { return u8(at) * 256 + u8(at + 1); };
    size_t ip = 14;
    *key = {};
    if (f.size() < 14)
        return false;
    if (u16(12) == 0x8100) {
        if (f.size() < 18 || u16(14) % 4096 == 0 || u16(16) != 0x0800)
            return false;
        key->vlan = static_cast<uint16_t>(u16(14) % 4096);
        ip = 18;
    } else if (u16(12) != 0x0800) {
        return false;
    }
    if (f.size() < ip + 20 || u8(ip) / 16 != 4)
        return false;
    const size_t header = u8(ip) % 16 * 4;
    if (header < 20 || u16(ip + 2) < header || ip + u16(ip + 2) > f.size() || u16(ip + 6) % 0x2000 != 0)
        return false;
    key->proto = static_cast<uint8_t>(u8(ip + 9));
    key->ip_addr = u16(ip + 16) << 16 | u16(ip + 18);
    if (key->proto == 253)
        return true;
    if ((key->proto != 6 && key->proto != 17) || f.size() < ip + header + 4)
        return false;
    key->port = static_cast<uint16_t>(u16(ip + header + 2));
    return true;
}

TEST(FrameKey, RandomFrames_AreSeenAsTheRuleSays)
{
    unsigned matched = 0;
    for (int i = 0; i < 200000; i++) {
        FrameSpec s;
        s.vlan_tci = next_random() % 3 == 0 ? static_cast<int>(next_random() % 3 == 0 ? next_random() % 65536 : 7) : -1;
        s.ihl = next_random() % 4 == 0 ? static_cast<uint8_t>(next_random() % 16) : 5;
        s.version = next_random() % 10 == 0 ? static_cast<uint8_t>(next_random() % 16) : 4;
        s.proto = static_cast<uint8_t>(std::array{17, 6, 253, 1}[next_random() % 4]);
        s.fragment = next_random() % 4 == 0 ? static_cast<uint16_t>(next_random()) : 0;
        s.payload = next_random() % 60;
        s.total_length = next_random() % 4 == 0 ? static_cast<int>(next_random() % 120) : -1;
        s.ethertype = next_random() % 10 == 0 ? uint16_t{0x86DD} : uint16_t{0x0800};
        s.pad = next_random() % 2 == 0;
        Bytes f = make_frame(s);
        if (next_random() % 4 == 0)
            f.resize(next_random() % (f.size() + 1));
        if (next_random() % 8 == 0 && !f.empty())
            f[next_random() % f.size()] = static_cast<uint8_t>(next_random());
        SteerKey got, expected;
        const bool did = parse_frame_key(f.data(), static_cast<uint32_t>(f.size()), &got);
        ASSERT_EQ(did, reference_key(f, &expected)) << i;
        if (did) {
            ASSERT_EQ(got, expected) << i;
        }
        matched += did ? 1 : 0;
    }
    EXPECT_GT(matched, 20000u);
}

// --- filters

TEST(FilterTable, RandomChanges_AgreeWithAPlainList)
{
    struct Entry {
        uint8_t ep;
        SteerKey key;
        uint16_t tag;
        bool kernel;
    };
    std::vector<Entry> model; // oldest first
    FilterTable table;
    const auto same = [](const Entry &a, const Entry &b) { return a.ep == b.ep && a.key == b.key && a.tag == b.tag; };
    for (int i = 0; i < 50000; i++) {
        Entry e{static_cast<uint8_t>(next_random() % 3),
                {},
                static_cast<uint16_t>(next_random() % 3),
                next_random() % 4 == 0};
        e.key.ip_addr = 0x0A000000 + static_cast<uint32_t>(next_random() % 3);
        e.key.port = static_cast<uint16_t>(next_random() % 2);
        e.key.proto = 17;
        const auto it = std::find_if(model.begin(), model.end(), [&](const Entry &m) { return same(m, e); });
        const auto op = next_random() % 20;
        if (op == 0) {
            table.remove_all(e.ep);
            std::erase_if(model, [&](const Entry &m) { return m.ep == e.ep; });
        } else if (op < 11) {
            table.install(e.ep, e.key, e.tag, e.kernel);
            if (it != model.end())
                model.erase(it);
            model.push_back(e);
        } else {
            ASSERT_EQ(table.remove(e.ep, e.key, e.tag), it != model.end());
            if (it != model.end())
                model.erase(it);
        }
        std::vector<Entry> of_key;
        for (const Entry &m : model)
            if (m.key == e.key)
                of_key.push_back(m);
        const auto *list = table.find(e.key);
        ASSERT_EQ(list != nullptr ? list->size() : 0, of_key.size());
        for (size_t k = 0; k < of_key.size(); k++) {
            ASSERT_EQ((*list)[k].tag, of_key[k].tag);
            ASSERT_EQ((*list)[k].endpoint, of_key[k].ep);
        }
        ASSERT_EQ(table.takes_from_host(e.key),
                  !of_key.empty() && std::none_of(of_key.begin(), of_key.end(), [](auto &m) { return m.kernel; }));
        ASSERT_EQ(table.count(e.ep), static_cast<size_t>(std::count_if(model.begin(), model.end(),
                                                                       [&](const Entry &m) { return m.ep == e.ep; })));
    }
}

// --- request queue

TEST(RequestQueue, SeveralPosters_LoseNothingAndKeepEachOnesOrder)
{
    static RequestQueue queue;
    constexpr uint32_t kEach = 20000;
    std::vector<std::thread> posters;
    for (uint32_t p = 0; p < 3; p++)
        posters.emplace_back([p] {
            for (uint32_t i = 0; i < kEach; i++) {
                nuv_ureq_t r = {};
                r.words[0] = p;
                r.words[1] = i;
                r.words[15] = p ^ i;
                while (!queue.post(r))
                    std::this_thread::yield();
            }
        });
    uint32_t next[3] = {};
    for (uint32_t n = 0; n < 3 * kEach;) {
        nuv_ureq_t r;
        if (!queue.take(&r)) {
            std::this_thread::yield();
            continue;
        }
        ASSERT_LT(r.words[0], 3u);
        ASSERT_EQ(r.words[1], next[r.words[0]]++);
        ASSERT_EQ(r.words[15], r.words[0] ^ r.words[1]);
        n++;
    }
    for (std::thread &t : posters)
        t.join();
    EXPECT_TRUE(queue.empty());
}

} // namespace
} // namespace softnic
