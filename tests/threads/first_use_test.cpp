/*
 * What a process finds or does once, without a lock: two threads that come first at the same moment.
 */
#include "capture.h"
#include "rig.h"
#include "ruk_core.h"

#include <arpa/inet.h>
#include <atomic>
#include <functional>
#include <gtest/gtest.h>
#include <string.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace threads;
using namespace test_support;

/* Runs call(0) and call(1) on two threads, which set off together. */
void at_once(const std::function<void(int side)> &call)
{
    std::atomic<int> ready{0};
    auto run = [&](int side) {
        ready.fetch_add(1, std::memory_order_relaxed);
        for (int i = 0; ready.load(std::memory_order_relaxed) != 2; i++)
            pause(i);
        call(side);
    };
    std::thread first(run, 0), second(run, 1);
    first.join();
    second.join();
}

/* The value that a global has now comes back when the scope ends. */
template <typename T> class Kept {
public:
    explicit Kept(T &where) : where_(where), was_(where) {}
    ~Kept() { where_ = was_; }
    Kept(const Kept &) = delete;
    Kept &operator=(const Kept &) = delete;

private:
    T &where_;
    T was_;
};

std::string printed_by(const std::function<void()> &call)
{
    StreamCapture streams;
    call();
    return streams.err();
}

/* Which of them is to print it nothing decides: once at least, twice at most, and no line in another. */
TEST(ThreadFirstUse, TwoThreadsOpen_BannerOnceOrTwice)
{
    const ScopedEnv setting("RUK_BANNER", nullptr);
    const Kept<int> kept_banner(banner), kept_once(show_once), kept_wrapped(ruk__init_ext);
    Adapter adapter;
    EXPECT_EQ(ruk__init(RUK_API_VERSION), 0);
    banner = show_once = 1;
    const std::string line = printed_by([] { ruk_close(open_endpoint()); });
    ASSERT_EQ(std::count(line.begin(), line.end(), '\n'), 1) << line;
    for (int round = 0; round < 100; round++) {
        show_once = 1;
        const std::string text = printed_by([] { at_once([](int) { ruk_close(open_endpoint()); }); });
        ASSERT_TRUE(text == line || text == line + line) << text;
        ASSERT_EQ(show_once, 0);
        ASSERT_EQ(printed_by([] { ruk_close(open_endpoint()); }), "");
    }
}

/* Both switch it off where they are told to. */
TEST(ThreadFirstUse, TwoThreadsOpenWithTheBannerOff_None)
{
    const ScopedEnv setting("RUK_BANNER", "0");
    const Kept<int> kept_banner(banner), kept_once(show_once), kept_wrapped(ruk__init_ext);
    Adapter adapter;
    EXPECT_EQ(ruk__init(RUK_API_VERSION), 0);
    for (int round = 0; round < 20; round++) {
        banner = show_once = 1;
        ASSERT_EQ(printed_by([] { at_once([](int) { ruk_close(open_endpoint()); }); }), "");
        ASSERT_EQ(banner, 0);
    }
}

/* Either finds the table whole as soon as it is through, and it is as one thread fills it. */
TEST(ThreadFirstUse, TwoThreadsFillTheSocketTable_SameResult)
{
    const Kept<int> kept_done(init_done);
    const Kept<tov_socket_functions_t> kept_table(_tov_fops);
    tov_init_fops();
    const tov_socket_functions_t expected = _tov_fops;
    ASSERT_NE(expected.socket, nullptr);
    for (int round = 0; round < 300; round++) {
        _tov_fops = {};
        init_done = 0;
        tov_socket_functions_t seen[2] = {};
        at_once([&](int side) {
            tov_init();
            seen[side].ioctl = _tov_fops.ioctl;
            const tov_socket_t s = tov_socket(AF_INET, SOCK_DGRAM, 0);
            EXPECT_GE(s, 0);
            EXPECT_EQ(tov_closesocket(s), 0);
        });
        ASSERT_EQ(memcmp(&_tov_fops, &expected, sizeof expected), 0);
        ASSERT_EQ(init_done, 1);
        ASSERT_EQ(seen[0].ioctl, expected.ioctl);
        ASSERT_EQ(seen[1].ioctl, expected.ioctl);
    }
}

/* Neither waits for the other's measurement: the first one's rate holds until the second has its own. */
TEST(ThreadFirstUse, TwoThreadsAskForTheCycleRate_BothMeasureAndTheLastOnesResultStays)
{
    const ScopedEnv rate("TOV_CYCLES_PER_SECOND", nullptr), old_rate("KZ_CYCLES_PER_SECOND", nullptr);
    const Kept<uint64_t> kept_rate(cycles_per_second);
    const Kept<double> kept_period(seconds_per_cycle);
    static thread_local int me;
    static thread_local uint64_t now_us;
    unsigned sleeps[2] = {};
    std::atomic<bool> measuring[2] = {}, first_is_done{false};
    auto await = [](const std::atomic<bool> &flag) {
        for (int i = 0; !flag.load(std::memory_order_relaxed); i++)
            pause(i);
    };

    LibcHookGuard hooks;
    hooks->usleep = [&](useconds_t usecs) {
        if (usecs != 200000)
            return real::usleep(usecs);
        if (sleeps[me]++ == 0) { /* the other one is at it, too */
            measuring[me].store(true, std::memory_order_relaxed);
            await(measuring[1 - me]);
        }
        if (me == 1 && sleeps[me] == 4)
            await(first_is_done);
        return 0;
    };
    hooks->gettimeofday = [&](struct timeval *tv) {
        now_us += me == 0 ? 1 : 1000003; /* of the first one's rates each is a whole number of MHz */
        *tv = {static_cast<time_t>(now_us / 1000000), static_cast<suseconds_t>(now_us % 1000000)};
        return 0;
    };

    cycles_per_second = 0;
    seconds_per_cycle = 0;
    uint64_t found[2] = {};
    double period = 0;
    at_once([&](int side) {
        me = side;
        now_us = 1000000;
        found[side] = tov_cycles_per_second();
        if (side == 0) {
            period = tov_seconds_per_cycle();
            first_is_done.store(true, std::memory_order_relaxed);
        }
    });
    EXPECT_EQ(sleeps[0], 4u);
    EXPECT_EQ(sleeps[1], 4u);
    EXPECT_NE(found[0], 0u);
    EXPECT_EQ(found[0] % 1000000, 0u);
    EXPECT_EQ(period, 1.0 / static_cast<double>(found[0]));
    EXPECT_NE(found[1], 0u);
    EXPECT_EQ(cycles_per_second, found[1]);
    EXPECT_EQ(seconds_per_cycle, 1.0 / static_cast<double>(found[1]));
    EXPECT_EQ(tov_cycles_per_second(), found[1]) << "and nobody measures again";
    EXPECT_EQ(sleeps[0] + sleeps[1], 8u);
}

} // namespace
