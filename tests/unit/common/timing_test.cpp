/* The cycle rate, from the environment or by calibration, and the host's time. */
#include "child.h"
#include "libc_seam.h"
#include "scoped_env.h"
#include "tov.h"

#include <algorithm>
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/prctl.h>
#include <ucontext.h>
#include <unistd.h>
#include <vector>

using namespace test_support;

namespace {

/* A process that does not know its rate yet, with both variables as given and calibrations counted, not slept. */
struct Timing : testing::Test {
    Timing()
    {
        hooks->usleep = [this](useconds_t usecs) {
            sleeps.push_back(usecs);
            return 0;
        };
        hooks->gettimeofday = [this](struct timeval *tv) {
            clock_reads++;
            now_us += 100000;
            *tv = {static_cast<time_t>(now_us / 1000000), static_cast<suseconds_t>(now_us % 1000000)};
            return 0;
        };
        cycles_per_second = 0;
        seconds_per_cycle = 0;
    }
    ~Timing() override
    {
        cycles_per_second = 0;
        seconds_per_cycle = 0;
    }

    bool calibrated() const { return sleeps == std::vector<useconds_t>(4, 200000) && clock_reads == 8; }

    LibcHookGuard hooks;
    std::vector<useconds_t> sleeps;
    unsigned clock_reads = 0;
    uint64_t now_us = 1000000;
};

} // namespace

TEST_F(Timing, RateInEnvironment_FirstUse_ExactAndWithoutDelay)
{
    ScopedEnv tov("TOV_CYCLES_PER_SECOND", "2400000000");
    ScopedEnv kz("KZ_CYCLES_PER_SECOND", nullptr);
    EXPECT_EQ(tov_cycles_per_second(), 2400000000u);
    EXPECT_EQ(tov_seconds_per_cycle(), 1 / 2.4e9);
    EXPECT_EQ(cycles_per_second, 2400000000u);
    EXPECT_EQ(seconds_per_cycle, 1 / 2.4e9);
    EXPECT_TRUE(sleeps.empty());
    EXPECT_EQ(clock_reads, 0u);
}

TEST_F(Timing, FirstVariableUnset_FirstUse_SecondOneCounts)
{
    ScopedEnv tov("TOV_CYCLES_PER_SECOND", nullptr);
    ScopedEnv kz("KZ_CYCLES_PER_SECOND", "1000000000");
    EXPECT_EQ(tov_seconds_per_cycle(), 1e-9);
    EXPECT_EQ(tov_cycles_per_second(), 1000000000u);
    EXPECT_TRUE(sleeps.empty());
}

TEST_F(Timing, FirstVariableEmpty_FirstUse_SecondOneCounts)
{
    ScopedEnv tov("TOV_CYCLES_PER_SECOND", "");
    ScopedEnv kz("KZ_CYCLES_PER_SECOND", "1000000000");
    EXPECT_EQ(tov_cycles_per_second(), 1000000000u);
    EXPECT_TRUE(sleeps.empty());
}

TEST_F(Timing, BothVariablesSet_FirstUse_FirstOneWins)
{
    ScopedEnv tov("TOV_CYCLES_PER_SECOND", "5");
    ScopedEnv kz("KZ_CYCLES_PER_SECOND", "6");
    EXPECT_EQ(tov_cycles_per_second(), 5u);
}

TEST_F(Timing, OddNumbers_FirstUse_TakenAsTheyParse)
{
    ScopedEnv kz("KZ_CYCLES_PER_SECOND", nullptr);
    {
        ScopedEnv tov("TOV_CYCLES_PER_SECOND", "  12x");
        tov_cycles_counter_init();
        EXPECT_EQ(cycles_per_second, 12u);
    }
    {
        ScopedEnv tov("TOV_CYCLES_PER_SECOND", "-1");
        tov_cycles_counter_init();
        EXPECT_EQ(cycles_per_second, 18446744073709551615u);
        EXPECT_EQ(seconds_per_cycle, 1.0 / 18446744073709551616.0);
    }
    EXPECT_TRUE(sleeps.empty());
}

TEST_F(Timing, NothingUsableInEnvironment_FirstUse_Calibrates)
{
    const std::pair<const char *, const char *> settings[] = {
        {nullptr, nullptr}, {nullptr, "abc"},  {nullptr, ""},   {"", ""},
        {"0", nullptr},     {"0x10", nullptr}, {"abc", "1000"}, /* the chosen value does not parse: the other is not
                                                                   asked */
        {"0", "1000"},
    };
    for (auto [tov_value, kz_value] : settings) {
        ScopedEnv tov("TOV_CYCLES_PER_SECOND", tov_value);
        ScopedEnv kz("KZ_CYCLES_PER_SECOND", kz_value);
        sleeps.clear();
        clock_reads = 0;
        cycles_per_second = 0;
        EXPECT_NE(tov_cycles_per_second(), 0u);
        EXPECT_TRUE(calibrated()) << (tov_value ? tov_value : "unset") << " " << (kz_value ? kz_value : "unset");
        EXPECT_NE(cycles_per_second, 1000u);
    }
}

TEST_F(Timing, RateKnown_UsedAgain_NotSoughtAgain)
{
    ScopedEnv kz("KZ_CYCLES_PER_SECOND", nullptr);
    uint64_t rate;
    {
        ScopedEnv tov("TOV_CYCLES_PER_SECOND", nullptr);
        rate = tov_cycles_per_second();
        EXPECT_EQ(tov_cycles_per_second(), rate);
        EXPECT_EQ(tov_seconds_per_cycle(), 1.0 / static_cast<double>(rate));
        EXPECT_TRUE(calibrated());
    }
    ScopedEnv tov("TOV_CYCLES_PER_SECOND", "7");
    EXPECT_EQ(tov_cycles_per_second(), rate);
    tov_cycles_counter_init();
    EXPECT_EQ(tov_cycles_per_second(), 7u) << "asked explicitly it looks again";
}

TEST_F(Timing, RateKnown_InitWithUselessVariable_CalibratesAnew)
{
    ScopedEnv tov("TOV_CYCLES_PER_SECOND", "nothing");
    cycles_per_second = 123;
    tov_cycles_counter_init();
    EXPECT_TRUE(calibrated());
    EXPECT_NE(cycles_per_second, 123u);
}

TEST_F(Timing, SystemClockStandsStill_Calibrated_NoCrash)
{
    ScopedEnv tov("TOV_CYCLES_PER_SECOND", nullptr);
    ScopedEnv kz("KZ_CYCLES_PER_SECOND", nullptr);
    hooks->gettimeofday = [](struct timeval *tv) {
        *tv = {5, 5};
        return 0;
    };
    tov_cycles_counter_init();
    EXPECT_EQ(cycles_per_second, 0u) << "still unknown";
}

/* ------------------------------------------------------------------ calibration on a scripted counter */

namespace {

/*
 * The counter instruction is made to trap, and the trap's handler answers it from a script: what the
 * library computes is then known exactly.
 */
constexpr int max_counter_reads = 8;
uint64_t counter_script[max_counter_reads];
volatile int counter_reads;
volatile char call_order[64];
volatile int calls_made;

void note(char call)
{
    if (calls_made < 64)
        call_order[calls_made] = call;
    calls_made = calls_made + 1;
}

void answer_counter_read(int, siginfo_t *, void *context)
{
    ucontext_t *uc = static_cast<ucontext_t *>(context);
#if defined(__x86_64__)
    greg_t *ip = &uc->uc_mcontext.gregs[REG_RIP], *low = &uc->uc_mcontext.gregs[REG_RAX],
           *high = &uc->uc_mcontext.gregs[REG_RDX];
#else
    greg_t *ip = &uc->uc_mcontext.gregs[REG_EIP], *low = &uc->uc_mcontext.gregs[REG_EAX],
           *high = &uc->uc_mcontext.gregs[REG_EDX];
#endif
    const unsigned char *code = reinterpret_cast<const unsigned char *>(*ip);
    if (code[0] != 0x0f || code[1] != 0x31 || counter_reads >= max_counter_reads)
        _exit(99); /* a real fault, or more reads than there should be */
    uint64_t value = counter_script[counter_reads];
    counter_reads = counter_reads + 1;
    note('c');
    *low = static_cast<greg_t>(value & 0xffffffff);
    *high = static_cast<greg_t>(value >> 32);
    *ip += 2;
}

struct ScriptedSample {
    uint64_t cycles;
    struct timeval before, after;
};

/* In a child: calibrates over the samples, returns the rate found through the child's standard output. */
ChildResult calibrate(const std::vector<ScriptedSample> &samples)
{
    return run_in_child([&] {
        ScopedEnv tov("TOV_CYCLES_PER_SECOND", nullptr);
        ScopedEnv kz("KZ_CYCLES_PER_SECOND", nullptr);
        LibcHookGuard hooks;
        unsigned reads = 0;
        uint64_t at = 0xfffffff0;
        for (size_t i = 0; i < samples.size(); i++) {
            counter_script[2 * i] = at;
            at += samples[i].cycles;
            counter_script[2 * i + 1] = at;
            at += 1000;
        }
        hooks->usleep = [](useconds_t) {
            note('s');
            return 0;
        };
        hooks->gettimeofday = [&](struct timeval *tv) {
            note('t');
            *tv = reads % 2 ? samples[reads / 2].after : samples[reads / 2].before;
            reads++;
            return 0;
        };
        struct sigaction action = {};
        action.sa_sigaction = answer_counter_read;
        action.sa_flags = SA_SIGINFO;
        sigaction(SIGSEGV, &action, nullptr);
        if (prctl(PR_SET_TSC, PR_TSC_SIGSEGV, 0, 0, 0) != 0)
            return 77;
        tov_cycles_counter_init();
        prctl(PR_SET_TSC, PR_TSC_ENABLE, 0, 0, 0);
        printf("%llu %d ", static_cast<unsigned long long>(cycles_per_second),
               seconds_per_cycle == 1.0 / static_cast<double>(cycles_per_second));
        for (int i = 0; i < calls_made && i < 64; i++)
            putchar(call_order[i]);
        return 0;
    });
}

ScriptedSample in_one_second(uint64_t cycles) { return {cycles, {5, 0}, {6, 0}}; }

} // namespace

#define CALIBRATE_OR_SKIP(child, ...)                                                                                  \
    ChildResult child = calibrate(__VA_ARGS__);                                                                        \
    if (child.exited_with(77))                                                                                         \
        GTEST_SKIP() << "this kernel cannot make the counter instruction trap";                                        \
    ASSERT_TRUE(child.exited_with(0)) << child

TEST(Calibration, FourSamples_Calibrated_UpperOfTheMiddleValues)
{
    CALIBRATE_OR_SKIP(child, {in_one_second(10), in_one_second(40), in_one_second(20), in_one_second(30)});
    EXPECT_EQ(child.out, "30 1 ctsctctsctctsctctsct");
}

TEST(Calibration, ReadingsAcrossASecond_Calibrated_ElapsedByBothFields)
{
    ScriptedSample s = {600, {7, 900000}, {8, 100000}}; /* 0.2 s */
    CALIBRATE_OR_SKIP(child, {s, s, s, s});
    EXPECT_EQ(child.out.substr(0, 6), "3000 1");
}

TEST(Calibration, RateNotWhole_Calibrated_Truncated)
{
    ScriptedSample s = {10, {7, 0}, {7, 3}}; /* 10 cycles in 3 us */
    CALIBRATE_OR_SKIP(child, {s, s, s, s});
    EXPECT_EQ(child.out.substr(0, 9), "3333333 1");
}

TEST(Calibration, RatesAbove32Bits_Calibrated_SortedAsUnsigned64)
{
    CALIBRATE_OR_SKIP(
        child, {in_one_second(5000000000), in_one_second(1), in_one_second(9000000000000), in_one_second(4000000000)});
    EXPECT_EQ(child.out.substr(0, 12), "5000000000 1");
}

TEST(Calibration, RealClock_Calibrated_AgreesWithAnIndependentMeasurement)
{
    ScopedEnv tov("TOV_CYCLES_PER_SECOND", nullptr);
    ScopedEnv kz("KZ_CYCLES_PER_SECOND", nullptr);
    cycles_per_second = 0;
    struct timespec start, end;
    clock_gettime(CLOCK_MONOTONIC, &start);
    uint64_t c0 = __builtin_ia32_rdtsc();
    uint64_t rate = tov_cycles_per_second();
    uint64_t c1 = __builtin_ia32_rdtsc();
    clock_gettime(CLOCK_MONOTONIC, &end);
    cycles_per_second = 0;
    double elapsed =
        static_cast<double>(end.tv_sec - start.tv_sec) + static_cast<double>(end.tv_nsec - start.tv_nsec) / 1e9;
    EXPECT_GE(elapsed, 0.8);
    double measured = static_cast<double>(c1 - c0) / elapsed;
    EXPECT_NEAR(static_cast<double>(rate) / measured, 1.0, 0.05);
}

/* ------------------------------------------------------------------ host time, counter, comparison */

TEST(HostTime, RealTimeClock_Read_SecondsAndNanosecondsAsOneNumber)
{
    LibcHookGuard hooks;
    clockid_t asked = -1;
    hooks->clock_gettime = [&](clockid_t clock, struct timespec *ts) {
        asked = clock;
        *ts = {1700000000, 999999999};
        return 0;
    };
    EXPECT_EQ(tov_host_nsecs(), 1700000000999999999u);
    EXPECT_EQ(asked, CLOCK_REALTIME);
}

TEST(CycleCounter, ReadTwice_Advances)
{
    tov_cycles_t first = tov_get_cycles();
    struct timespec pause = {0, 1000000};
    nanosleep(&pause, nullptr);
    EXPECT_GT(tov_get_cycles(), first);
}

TEST(CompareUint64, Pairs_Compared_MinusOneZeroOne)
{
    uint64_t zero = 0, one = 1, mid = 0x8000000000000000, max = UINT64_MAX;
    EXPECT_EQ(cmp_uint64(&one, &one), 0);
    EXPECT_EQ(cmp_uint64(&zero, &one), -1);
    EXPECT_EQ(cmp_uint64(&one, &zero), 1);
    EXPECT_EQ(cmp_uint64(&one, &mid), -1);
    EXPECT_EQ(cmp_uint64(&max, &one), 1);
    EXPECT_EQ(cmp_uint64(&zero, &max), -1);
    uint64_t low_smaller = 0x0000000200000001, low_bigger = 0x0000000100000002;
    EXPECT_EQ(cmp_uint64(&low_smaller, &low_bigger), 1);
}
