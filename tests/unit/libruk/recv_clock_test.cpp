/* Adapter ticks to host time, against the formulas in exact arithmetic. */
#include "recv_rig.h"

#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <thread>

using namespace recv_rig;

namespace {

/* The reference: schoolbook arithmetic on 16-bit digits, modulo 2^64. */
uint64_t multiply(uint64_t a, uint64_t b)
{
    uint32_t sum[5] = {};
    for (int i = 0; i < 4; i++) {
        for (int j = 0; i + j < 4; j++) {
            uint64_t term = (a >> (16 * i) & 0xffff) * (b >> (16 * j) & 0xffff) + sum[i + j];
            sum[i + j] = term & 0xffff;
            for (int k = i + j + 1; k < 4 && (term >>= 16) != 0; k++) {
                term += sum[k];
                sum[k] = term & 0xffff;
            }
        }
    }
    return sum[0] | static_cast<uint64_t>(sum[1]) << 16 | static_cast<uint64_t>(sum[2]) << 32 |
           static_cast<uint64_t>(sum[3]) << 48;
}

/* Truncating division by subtraction of shifted divisors. */
uint64_t divide(uint64_t a, uint32_t b)
{
    uint64_t quotient = 0, rest = 0;
    for (int bit = 63; bit >= 0; bit--) {
        rest = rest << 1 | (a >> bit & 1);
        if (rest >= b) {
            rest -= b;
            quotient |= UINT64_C(1) << bit;
        }
    }
    return quotient;
}

/* Floor division by 2^30 of a two's-complement number. */
uint64_t shift30(uint64_t v)
{
    uint64_t low = v >> 30;
    return v >> 63 ? low | ~UINT64_C(0) << 34 : low;
}

struct Clock {
    uint64_t ticks = 0, mask = 0, nsecs = 0;
    uint32_t numerator = 1, denominator = 1;
};

struct Drift {
    uint64_t base = 0;
    uint64_t drift = 0;
    uint64_t multiplier = 0;
};

void publish(RigEndpoint &rig, const Clock &c, const Drift &d)
{
    rig.window64(68, d.base);
    rig.window64(76, d.drift);
    rig.window64(84, d.multiplier);
    rig.window64(92, 0x1234); /* the error estimate is not used */
    rig.window64(100, c.ticks);
    rig.window64(108, c.mask);
    rig.window64(116, c.nsecs);
    rig.window32(124, c.numerator);
    rig.window32(128, c.denominator);
}

void own(RigEndpoint &rig, const Clock &c)
{
    rig.ep->rep_nticks.ticks = c.ticks;
    rig.ep->rep_nticks.ticks_mask = c.mask;
    rig.ep->rep_nticks.nsecs = c.nsecs;
    rig.ep->rep_nticks.nt_numerator = c.numerator;
    rig.ep->rep_nticks.nt_denominator = c.denominator;
}

uint64_t reference(const Clock &mine, const Clock &window, const Drift &d, uint64_t ticks)
{
    if (mine.mask != 0) {
        uint64_t ns = divide(multiply((ticks - mine.ticks) & mine.mask, mine.numerator), mine.denominator) + mine.nsecs;
        return ns + d.drift + shift30(multiply(ns - d.base, d.multiplier));
    }
    return divide(multiply(ticks - window.ticks, window.numerator), window.denominator) + window.nsecs;
}

} // namespace

TEST(AdapterClock, NoMask_WindowsReferencePointAndRate)
{
    RigEndpoint rig;
    Clock window;
    window.ticks = 1000;
    window.nsecs = 1700000000000000000;
    window.numerator = 32;
    window.denominator = 10;
    Drift drift;
    drift.drift = 5000; /* not applied without a mask */
    drift.multiplier = 1 << 30;
    publish(rig, window, drift);
    EXPECT_EQ(ruk__clk_ticks_to_timestamp(rig.ep, 1000), 1700000000000000000u);
    EXPECT_EQ(ruk__clk_ticks_to_timestamp(rig.ep, 1011), 1700000000000000035u); /* 35.2 */
    /* Below the reference point the unsigned difference wraps: (2^64 - 1) * 32 mod 2^64 = 2^64 - 32. */
    EXPECT_EQ(ruk__clk_ticks_to_timestamp(rig.ep, 999), 1700000000000000000u + 1844674407370955158u);
}

TEST(AdapterClock, Mask_OwnReferencePointAndDrift)
{
    RigEndpoint rig;
    Clock window; /* its ticks do not count */
    window.ticks = 77;
    window.mask = 1;
    window.nsecs = 88;
    window.numerator = 99;
    Drift drift;
    drift.base = 1000000000;
    drift.drift = 250;
    drift.multiplier = 1 << 20; /* 2^-10 a nanosecond */
    publish(rig, window, drift);
    Clock mine;
    mine.ticks = 500;
    mine.mask = 0xffffffff;
    mine.nsecs = 1000000000;
    mine.numerator = 20;
    mine.denominator = 7;
    own(rig, mine);
    /* 7168 ticks are 20480 ns; the drift adds 250 and 20480 / 1024 = 20 */
    EXPECT_EQ(ruk__clk_ticks_to_timestamp(rig.ep, 500 + 7168), 1000000000u + 20480 + 250 + 20);
    /* Below the reference only the masked difference counts: 2^32 - 1 ticks. */
    const uint64_t ns = UINT64_C(0xffffffff) * 20 / 7 + 1000000000;
    EXPECT_EQ(ruk__clk_ticks_to_timestamp(rig.ep, 499), ns + 250 + (ns - 1000000000) / 1024);
    /* Bits above the mask do not count. */
    EXPECT_EQ(ruk__clk_ticks_to_timestamp(rig.ep, (UINT64_C(5) << 32) + 500), 1000000250u);
}

TEST(AdapterClock, NegativeMultiplier_LowersTheTimeRoundingDown)
{
    RigEndpoint rig;
    Drift drift;
    drift.multiplier = static_cast<uint64_t>(INT64_C(-1));
    publish(rig, Clock(), drift);
    Clock mine;
    mine.mask = UINT64_MAX;
    own(rig, mine);
    EXPECT_EQ(ruk__clk_ticks_to_timestamp(rig.ep, 1000000), 999999u); /* -1000000 >> 30 is -1 */
    EXPECT_EQ(ruk__clk_ticks_to_timestamp(rig.ep, UINT64_C(1) << 31), (UINT64_C(1) << 31) - 2);
    drift.drift = static_cast<uint64_t>(INT64_C(-300));
    publish(rig, Clock(), drift);
    EXPECT_EQ(ruk__clk_ticks_to_timestamp(rig.ep, 1000000), 999699u);
}

TEST(AdapterClock, NoDrift_PlainFraction)
{
    RigEndpoint rig;
    publish(rig, Clock(), Drift());
    Clock mine;
    mine.mask = UINT64_MAX;
    mine.numerator = 20;
    mine.denominator = 7;
    own(rig, mine);
    EXPECT_EQ(ruk__clk_ticks_to_timestamp(rig.ep, 1), 2u);
    EXPECT_EQ(ruk__clk_ticks_to_timestamp(rig.ep, 350000000), 1000000000u);
}

TEST(AdapterClock, ProductPast64Bits_LowBitsCount)
{
    RigEndpoint rig;
    Clock window;
    window.numerator = 3;
    window.denominator = 2;
    publish(rig, window, Drift());
    const uint64_t ticks = UINT64_C(0x8000000000000001); /* times 3 is 2^64 + 2^63 + 3 */
    EXPECT_EQ(ruk__clk_ticks_to_timestamp(rig.ep, ticks), UINT64_C(0x4000000000000001));
}

TEST(AdapterClock, RandomParameters_EqualToTheReference)
{
    RigEndpoint rig;
    std::mt19937_64 random(20261121);
    for (int i = 0; i < 300000; i++) {
        auto number = [&] { return random() >> (random() % 64); };
        Clock mine{number(), random() % 3 == 0 ? 0 : number(), number(), static_cast<uint32_t>(number()),
                   static_cast<uint32_t>(number()) | 1};
        Clock window{number(), number(), number(), static_cast<uint32_t>(number()),
                     static_cast<uint32_t>(number()) | 1};
        Drift drift{number(), random() % 2 ? number() : ~number(), random() % 2 ? number() : ~number()};
        publish(rig, window, drift);
        own(rig, mine);
        const uint64_t ticks = number();
        ASSERT_EQ(ruk__clk_ticks_to_timestamp(rig.ep, ticks), reference(mine, window, drift, ticks))
            << "round " << i << ", seed 20261121";
        ASSERT_EQ(rig.ep->rep_nticks.ticks, mine.ticks); /* the endpoint's own parameters are only read */
        ASSERT_EQ(rig.ep->rep_nticks.nsecs, mine.nsecs);
    }
}

TEST(AdapterClock, EventReceived_DatagramBearsItsTime)
{
    for (bool masked : {false, true}) {
        Scoped<uint32_t> api(ruk__api_version, 2);
        RigEndpoint rig;
        rig.ep->rep_timestamping_enabled = 1;
        rig.bind(0, 0x0a4d0001, 5000);
        Clock clock;
        clock.ticks = 0x100000000;
        clock.mask = masked ? UINT64_MAX : 0;
        clock.nsecs = 1700000000000000000;
        clock.numerator = 20;
        clock.denominator = 7;
        Drift drift;
        drift.base = clock.nsecs;
        drift.drift = 1000;
        publish(rig, clock, drift);
        own(rig, clock);
        EventOptions options;
        options.ticks = 0x100000000 + 7;
        rig.ring.put({{udp_frame("x"), 0}}, options);
        Received got = rig.recv();
        ASSERT_EQ(got.rc, 0);
        EXPECT_EQ(got.info.timestamp, 1700000000000000020u + (masked ? 1000 : 0));
    }
}

/* ------------------------------------------------------------------ the sequence counter */

TEST(ClockWindow, CounterOdd_ReaderThreadWaitsUntilEven)
{
    for (bool masked : {false, true}) {
        RigEndpoint rig;
        publish(rig, Clock(), Drift());
        Clock mine;
        mine.mask = masked ? UINT64_MAX : 0;
        own(rig, mine);
        rig.window32(64, 41);
        uint64_t result = 0;
        std::thread reader(
            [&] { __atomic_store_n(&result, ruk__clk_ticks_to_timestamp(rig.ep, 1000), __ATOMIC_RELEASE); });
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        EXPECT_EQ(__atomic_load_n(&result, __ATOMIC_ACQUIRE), 0u);
        rig.window64(116, 234); /* nanoseconds, without a mask */
        rig.window64(76, 234);  /* drift, with one */
        rig.window32(64, 42);
        reader.join();
        EXPECT_EQ(result, 1234u);
    }
}

namespace {
uint8_t *trap_window;

void put32(size_t offset, uint32_t v) { memcpy(trap_window + offset, &v, sizeof v); }
void put64(size_t offset, uint64_t v) { memcpy(trap_window + offset, &v, sizeof v); }
} // namespace

TEST(ClockWindow, RewrittenBetweenTwoFields_ReadAgain)
{
    /* The reference tick lies in one page and the reference time in the next, which traps the reader in between. */
    GuardedBytes pages(8192);
    trap_window = pages.data() + 4096 - 116;
    put32(64, 8);
    put64(100, 1000);
    put64(108, 0);
    put64(116, 5000);
    put32(124, 1);
    put32(128, 1);
    RigEndpoint rig;
    rig.ep->rep_kwindow = reinterpret_cast<const kz_kernel_window_t *>(trap_window);
    PageTrap trap(pages.data() + 4096, [] {
        put32(64, 10);
        put64(100, 2000);
        put64(116, 7000);
    });
    EXPECT_EQ(ruk__clk_ticks_to_timestamp(rig.ep, 3000), 8000u); /* neither 7000 nor 9000 */
    EXPECT_TRUE(trap.sprung());
}

TEST(ClockWindow, RewrittenAllTheTime_ReaderThreadNeverMixesTwoVersions)
{
    RigEndpoint rig;
    Clock mine;
    for (bool masked : {false, true}) {
        mine.mask = masked ? UINT64_MAX : 0;
        own(rig, mine);
        publish(rig, Clock(), Drift());
        rig.window32(64, 0);
        bool stop = false;
        /* Each version alone gives the ticks back: the reference point moves along the line ns = ticks. With a
         * mask: drift and base cancel, multiplier -2^30 takes ns - base away and drift gives it back. */
        std::thread writer([&] {
            uint32_t seq = 0;
            for (uint64_t k = 1; !__atomic_load_n(&stop, __ATOMIC_RELAXED); k++) {
                rig.window32(64, ++seq);
                rig.window64(100, k * 1000003);
                rig.window64(116, k * 1000003);
                rig.window64(68, k % 1000 * 7919);                 /* base */
                rig.window64(76, 1000000000000 - k % 1000 * 7919); /* drift */
                rig.window64(84, static_cast<uint64_t>(-(INT64_C(1) << 30)));
                rig.window32(64, ++seq);
                for (int i = 0; i < 50; i++)
                    __builtin_ia32_pause();
            }
        });
        while (__atomic_load_n(reinterpret_cast<uint32_t *>(rig.window_memory.data() + 64), __ATOMIC_ACQUIRE) < 2)
            std::this_thread::yield();
        const uint64_t expected = masked ? 1000000000000 : 123456789;
        for (int i = 0; i < 20000; i++)
            ASSERT_EQ(ruk__clk_ticks_to_timestamp(rig.ep, 123456789), expected);
        __atomic_store_n(&stop, true, __ATOMIC_RELAXED);
        writer.join();
    }
}
