// Every request posted is popped, once, whole and in order: in each mode, from one thread and several, while the
// firmware spins and while it sleeps.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstring>
#include <deque>
#include <functional>
#include <thread>

#include "tap_test_support.h"
#include "tap_watch.h"
#include "tov_io.h"

namespace {

using namespace softnic;
using namespace softnic::test;

void expect_complete(TapMode mode, TrafficPlan plan)
{
    plan.one_dma_outstanding = mode == TapMode::fast;
    Window window;
    TrafficResult result = run_traffic(window, mode, plan);
    EXPECT_EQ(result.mode, mode);
    EXPECT_TRUE(complete(result, plan)) << describe(result);
    if (plan.firmware_sleeps) {
        EXPECT_GT(result.sleeps, 0u);
    }
}

void post(Window &window, uint32_t serial, unsigned type)
{
    uint32_t words[16];
    make_request(serial, type, words);
    post_words(window.slot(type), words);
}

void expect_popped(RequestTap &tap, uint32_t serial, unsigned type)
{
    uint32_t words[16];
    make_request(serial, type, words);
    nuv_ureq_t got = {};
    ASSERT_TRUE(tap.pop(&got)) << "request " << serial;
    EXPECT_EQ(std::memcmp(got.words, words, 64), 0) << "request " << serial << ", got " << got.words[0];
}

TEST(TapFast, OneThread_PostsBothTypes_AllPoppedInOrder)
{
    expect_complete(TapMode::fast, {.requests = 25000, .dma_of_ten = 5});
}

TEST(TapFast, OneThread_PostsOnlyEmptyPayloads_AllPoppedInOrder)
{
    expect_complete(TapMode::fast, {.requests = 25000, .dma_of_ten = 0});
}

TEST(TapFast, OneThread_PostsOnlyDma_AllPoppedInOrder)
{
    expect_complete(TapMode::fast, {.requests = 50000, .dma_of_ten = 10});
}

TEST(TapFast, FourThreads_PostUnderOneLock_AllPoppedInOrder)
{
    expect_complete(TapMode::fast, {.requests = 25000, .threads = 4, .dma_of_ten = 5});
}

TEST(TapFast, FourThreadsOlderThanTheTap_Post_AllPoppedInOrder)
{
    expect_complete(TapMode::fast, {.requests = 15000, .threads = 4, .dma_of_ten = 3, .threads_before_tap = true});
}

TEST(TapFast, FirmwareSleepsWhenIdle_PostsWithPauses_AllPoppedInOrder)
{
    expect_complete(TapMode::fast,
                    {.requests = 3000, .threads = 2, .dma_of_ten = 5, .firmware_sleeps = true, .pause_every = 3});
}

TEST(TapExact, OneThread_ManyOutstandingOfBothTypes_AllPoppedInOrder)
{
    expect_complete(TapMode::exact, {.requests = 25000, .dma_of_ten = 5});
}

TEST(TapExact, FourThreads_PostUnderOneLock_AllPoppedInOrder)
{
    expect_complete(TapMode::exact, {.requests = 25000, .threads = 4, .dma_of_ten = 5});
}

TEST(TapExact, FourThreadsOlderThanTheTap_Post_AllPoppedInOrder)
{
    expect_complete(TapMode::exact, {.requests = 25000, .threads = 4, .dma_of_ten = 5, .threads_before_tap = true});
}

TEST(TapExact, FirmwareSleepsWhenIdle_PostsWithPauses_AllPoppedInOrder)
{
    expect_complete(TapMode::exact,
                    {.requests = 3000, .threads = 2, .dma_of_ten = 5, .firmware_sleeps = true, .pause_every = 3});
}

TEST(TapFallback, OneThread_ManyOutstandingOfBothTypes_AllPoppedInOrder)
{
    expect_complete(TapMode::fallback, {.requests = 12000, .dma_of_ten = 5});
}

TEST(TapFallback, FourThreads_PostUnderOneLock_AllPoppedInOrder)
{
    expect_complete(TapMode::fallback, {.requests = 12000, .threads = 4, .dma_of_ten = 5});
}

TEST(TapFallback, FirmwareSleepsWhenIdle_PostsWithPauses_AllPoppedInOrder)
{
    expect_complete(TapMode::fallback,
                    {.requests = 3000, .threads = 2, .dma_of_ten = 5, .firmware_sleeps = true, .pause_every = 3});
}

// The firmware finds a DMA request in its slot and empty payloads in the queue: which came first?
TEST(TapFast, DmaBetweenEmptyPayloads_Pop_GivesPostedOrder)
{
    Window window;
    auto tap = window.tap(TapMode::fast);
    ASSERT_EQ(tap->mode(), TapMode::fast);
    post(window, 0, 13);
    post(window, 1, 13);
    post(window, 2, 14);
    post(window, 3, 13);
    expect_popped(*tap, 0, 13);
    expect_popped(*tap, 1, 13);
    expect_popped(*tap, 2, 14);
    EXPECT_EQ(window.slot(14)[15], 0u) << "the slot's last word is zeroed before the request is handed out";
    post(window, 4, 14);
    expect_popped(*tap, 3, 13);
    expect_popped(*tap, 4, 14);
    EXPECT_EQ(window.slot(14)[15], 0u);
    nuv_ureq_t none;
    EXPECT_FALSE(tap->pop(&none));
    EXPECT_EQ(tap->counters().polled, 1u);
    EXPECT_EQ(tap->counters().queued, 4u);
}

// A burst is as large as the library's pool; nothing but the queue holds it.
TEST(TapExact, SixtyFourBackToBack_PopAfterwards_AllThere)
{
    Window window;
    auto tap = window.tap(TapMode::exact);
    ASSERT_EQ(tap->mode(), TapMode::exact);
    for (uint32_t i = 0; i < 64; i++)
        post(window, i, i % 3 ? 14 : 13);
    for (uint32_t i = 0; i < 64; i++)
        expect_popped(*tap, i, i % 3 ? 14 : 13);
}

TEST(TapFallback, SixtyFourBackToBack_PopAfterwards_AllThere)
{
    Window window;
    auto tap = window.tap(TapMode::fallback);
    for (uint32_t i = 0; i < 64; i++)
        post(window, i, i % 3 ? 14 : 13);
    for (uint32_t i = 0; i < 64; i++)
        expect_popped(*tap, i, i % 3 ? 14 : 13);
    EXPECT_EQ(tap->counters().emulated, 64u * 16u);
    EXPECT_EQ(tap->counters().stepped, 0u);
}

TEST(TapFallback, RequestHalfWritten_Pop_GivesNothing)
{
    Window window;
    auto tap = window.tap(TapMode::fallback);
    for (int i = 0; i < 15; i++)
        tov_st32(window.slot(13) + i, 0xabcd);
    nuv_ureq_t none;
    EXPECT_FALSE(tap->pop(&none));
    EXPECT_EQ(window.slot(13)[14], 0xabcdu);
}

// More posted than a library ever would: the first stay whole, the rest is counted and said, not kept.
TEST(TapExact, QueueOverrun_CountsWhatIsLostAndSaysSo)
{
    ChildResult child = in_child([] {
        Window window;
        auto tap = window.tap(TapMode::exact, "oxelp7");
        for (uint32_t i = 0; i < 520; i++)
            post(window, i, 13);
        if (tap->counters().overflows != 8)
            return 1;
        for (uint32_t i = 0; i < 512; i++) {
            nuv_ureq_t got;
            if (!tap->pop(&got) || got.words[0] != i)
                return 2;
        }
        nuv_ureq_t none;
        return tap->pop(&none) ? 3 : 0;
    });
    EXPECT_EQ(child.status, 0) << child.err;
    EXPECT_EQ(count_of(child.err, "oxelp7: requests are lost"), 1u) << child.err;
}

// A thread started by another one, after both the tap and the death of the thread that the watchpoint was opened
// for, inherits it all the same.
TEST(TapFast, ThreadOfAThreadWhoseCreatorEnded_Posts_IsCaught)
{
    Window window;
    std::unique_ptr<RequestTap> tap;
    std::thread child, grandchild;
    std::thread creator([&] {
        tap = window.tap(TapMode::fast);
        child = std::thread([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20)); // its creator has ended
            post(window, 0, 13);
            grandchild = std::thread([&] { post(window, 1, 13); });
        });
    });
    creator.join();
    child.join();
    grandchild.join();
    ASSERT_EQ(tap->mode(), TapMode::fast);
    expect_popped(*tap, 0, 13);
    expect_popped(*tap, 1, 13);
    nuv_ureq_t none;
    EXPECT_FALSE(tap->pop(&none));
}

// A thread that starts while the tap is made may have inherited a watchpoint and be given another.
TEST(TapFast, WordWatchedTwice_Posted_CaughtOnce)
{
    ChildResult child = in_child([] {
        Window window;
        auto tap = window.tap(TapMode::fast);
        TapWatch second;
        TapWatch::Word word = {window.slot(13) + 15, 0}; // what the first tap of a process calls its first word
        if (second.open(&word, 1) != 0)
            return 1;
        for (uint32_t i = 0; i < 2000; i++) {
            nuv_ureq_t got, none;
            post(window, i, 13);
            if (!tap->pop(&got) || got.words[0] != i || tap->pop(&none))
                return 2;
        }
        return 0;
    });
    EXPECT_EQ(child.status, 0) << child.err;
}

// A thread that goes through steps in turn with the one that made it.
class SteppedThread {
public:
    // body is given a function that ends its step, and waits for the next one.
    explicit SteppedThread(std::function<void(const std::function<void()> &)> body)
        : thread_([this, body] {
              wait_for(1);
              body([this] {
                  turn_ = 0;
                  wait_for(1);
              });
              turn_ = 0;
          })
    {}
    ~SteppedThread() { thread_.join(); }
    void step()
    {
        turn_ = 1;
        wait_for(0);
    }

private:
    void wait_for(int turn)
    {
        while (turn_ != turn)
            std::this_thread::yield();
    }
    std::atomic<int> turn_{0};
    std::thread thread_;
};

// The adapter's own threads, which write through their own mapping, go without; others are watched as ever.
TEST(TapFast, ThreadThatAskedForNoWatchpoint_Posts_NotCaughtUntilItNoLongerAsks)
{
    Window window;
    SteppedThread own([&](const std::function<void()> &next) {
        {
            UnwatchedThread unwatched;
            next();
            post(window, 1, 13);
        }
        next();
        post(window, 2, 13);
    });
    own.step();
    nuv_ureq_t none;
    {
        auto tap = window.tap(TapMode::fast);
        EXPECT_EQ(tap->mode(), TapMode::fast);
        own.step();
        EXPECT_FALSE(tap->pop(&none));
        std::memset(window.alias, 0, Window::bytes);
        post(window, 7, 13);
        expect_popped(*tap, 7, 13);
    }
    auto tap = window.tap(TapMode::fast);
    own.step();
    expect_popped(*tap, 2, 13);
    EXPECT_FALSE(tap->pop(&none));
}

// There is room for 64. A thread beyond that is watched like any other, and has its turn when they are gone.
TEST(TapFast, MoreThreadsAskedForNoWatchpointThanThereIsRoomFor_NextOneCaughtUntilTheyAreGone)
{
    Window window;
    auto all = std::make_unique<std::array<UnwatchedThread, 64>>();
    SteppedThread own([&](const std::function<void()> &next) {
        {
            UnwatchedThread unwatched;
            next();
            post(window, 1, 13);
            next();
        }
        UnwatchedThread unwatched;
        next();
        post(window, 2, 13);
    });
    own.step();
    nuv_ureq_t none;
    {
        auto tap = window.tap(TapMode::fast);
        EXPECT_EQ(tap->mode(), TapMode::fast);
        own.step();
        expect_popped(*tap, 1, 13);
        EXPECT_FALSE(tap->pop(&none));
    }
    all.reset();
    own.step();
    auto tap = window.tap(TapMode::fast);
    EXPECT_EQ(tap->mode(), TapMode::fast);
    own.step();
    EXPECT_FALSE(tap->pop(&none));
    std::memset(window.alias, 0, Window::bytes);
    post(window, 7, 13);
    expect_popped(*tap, 7, 13);
}

// In the child of a fork a number that was such a thread's may be that of any other.
TEST(TapFast, ThreadsThatAskedForNoWatchpoint_Forgotten_Caught)
{
    Window window;
    SteppedThread own([&](const std::function<void()> &next) {
        UnwatchedThread unwatched;
        UnwatchedThread::forget_all();
        next();
        post(window, 1, 13);
    });
    own.step();
    auto tap = window.tap(TapMode::fast);
    own.step();
    expect_popped(*tap, 1, 13);
}

// Threads come and go while the taps are being made; a thread may then be watched twice, but each request is
// caught once.
TEST(TapFast, ThreadsStartWhileTapIsMade_EachPostOnce_CaughtOnce)
{
    for (int round = 0; round < 20; round++) {
        Window window;
        std::atomic<bool> stop{false}, ready{false};
        std::atomic<uint32_t> serial{0};
        std::mutex lock;
        std::deque<std::thread> threads;
        auto post_one = [&] {
            while (!ready)
                std::this_thread::yield();
            std::lock_guard held(lock);
            post(window, serial++, 13);
        };
        std::thread maker([&] {
            for (int i = 0; i < 30 && !stop; i++)
                threads.emplace_back(post_one);
        });
        auto tap = window.tap(TapMode::fast);
        stop = true;
        maker.join();
        threads.emplace_back(post_one);
        ready = true;
        for (std::thread &thread : threads)
            thread.join();
        ASSERT_EQ(tap->mode(), TapMode::fast);
        for (uint32_t i = 0; i < threads.size(); i++)
            expect_popped(*tap, i, 13);
        nuv_ureq_t none;
        ASSERT_FALSE(tap->pop(&none)) << "round " << round;
    }
}

// Sleeping costs nothing: no processor time while nobody posts, and the first store ends it.
void expect_idle_costs_nothing(TapMode mode, unsigned type)
{
    Window window;
    auto tap = window.tap(mode);
    ASSERT_EQ(tap->mode(), mode);
    uint32_t woken = 0;
    long cpu_us = -1;
    bool popped = false;
    std::thread firmware([&] {
        ASSERT_EQ(tap->arm_idle(), TapIdle::armed);
        struct pollfd wake = {tap->wake_fd(), POLLIN, 0};
        woken = uint32_t(poll(&wake, 1, 5000));
        struct rusage usage;
        getrusage(RUSAGE_THREAD, &usage);
        cpu_us =
            usage.ru_utime.tv_usec + usage.ru_stime.tv_usec + 1000000 * (usage.ru_utime.tv_sec + usage.ru_stime.tv_sec);
        tap->disarm_idle();
        nuv_ureq_t got;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(5);
        while (!(popped = tap->pop(&got)) && std::chrono::steady_clock::now() < deadline)
            std::this_thread::yield();
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    post(window, 1, type);
    firmware.join();
    EXPECT_EQ(woken, 1u);
    EXPECT_TRUE(popped);
    EXPECT_LT(cpu_us, 3000);
}

TEST(TapFast, Idle_DmaPosted_WakesWithoutHavingUsedTheProcessor) { expect_idle_costs_nothing(TapMode::fast, 14); }
TEST(TapFast, Idle_EmptyPayloadPosted_WakesWithoutHavingUsedTheProcessor)
{
    expect_idle_costs_nothing(TapMode::fast, 13);
}
TEST(TapExact, Idle_Posted_WakesWithoutHavingUsedTheProcessor) { expect_idle_costs_nothing(TapMode::exact, 14); }
TEST(TapFallback, Idle_Posted_WakesWithoutHavingUsedTheProcessor) { expect_idle_costs_nothing(TapMode::fallback, 13); }

// A store ends a sleep that is over for another reason by the time the waking write comes.
TEST(TapIdle, WakeComesAfterTheSleepIsOver_EndsAtMostOneFurtherSleep)
{
    for (TapMode mode : {TapMode::fast, TapMode::exact, TapMode::fallback}) {
        Window window;
        auto tap = window.tap(mode);
        ASSERT_EQ(tap->arm_idle(), TapIdle::armed);
        tap->disarm_idle();
        const uint64_t one = 1;
        ASSERT_EQ(write(tap->wake_fd(), &one, sizeof one), ssize_t(sizeof one));
        struct pollfd wake = {tap->wake_fd(), POLLIN, 0};
        ASSERT_EQ(tap->arm_idle(), TapIdle::armed);
        EXPECT_EQ(poll(&wake, 1, 0), 1) << tap_mode_name(mode);
        tap->disarm_idle();
        ASSERT_EQ(tap->arm_idle(), TapIdle::armed);
        EXPECT_EQ(poll(&wake, 1, 0), 0) << tap_mode_name(mode);
        tap->disarm_idle();
    }
}

TEST(TapIdle, RequestWaiting_Arm_RefusesToSleep)
{
    for (TapMode mode : {TapMode::fast, TapMode::exact, TapMode::fallback})
        for (unsigned type : {13u, 14u}) {
            Window window;
            auto tap = window.tap(mode);
            post(window, 5, type);
            EXPECT_EQ(tap->arm_idle(), softnic::TapIdle::work) << tap_mode_name(mode) << " type " << type;
            expect_popped(*tap, 5, type);
            post(window, 6, type); // the page is open, or this would never return
            expect_popped(*tap, 6, type);
        }
}

// Nine endpoints in one process: four debug registers do not reach, and each that goes without says so once.
TEST(TapNineEndpoints, FastPreferred_FourAreFastTheOthersFallBack_NothingLost)
{
    ChildResult child = in_child([] {
        Window windows[9];
        std::unique_ptr<RequestTap> taps[9];
        unsigned fast = 0;
        for (int i = 0; i < 9; i++) {
            std::string name = "endpoint " + std::to_string(i);
            taps[i] = windows[i].tap(TapMode::fast, name.c_str());
            if (!taps[i])
                return 1;
            fast += taps[i]->mode() == TapMode::fast;
        }
        if (fast != 4)
            return 2;
        // One posting thread an endpoint, all at once; a request of either type at a time.
        std::atomic<uint32_t> posted[9] = {};
        std::atomic<uint32_t> taken[9] = {};
        std::vector<std::thread> posters;
        for (int i = 0; i < 9; i++)
            posters.emplace_back([&, i] {
                for (uint32_t n = 0; n < 3000; n++) {
                    unsigned type = n % 4 == 1 ? 14 : 13;
                    while (n - taken[i] >= (type == 14 ? 1u : 60u))
                        std::this_thread::yield();
                    post(windows[i], n, type);
                    posted[i] = n + 1;
                }
            });
        int status = 0;
        auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        for (unsigned total = 0; total < 9 * 3000 && status == 0;) {
            bool any = false;
            for (int i = 0; i < 9; i++) {
                nuv_ureq_t got;
                if (!taps[i]->pop(&got))
                    continue;
                any = true;
                uint32_t n = taken[i], words[16];
                make_request(n, n % 4 == 1 ? 14 : 13, words);
                if (std::memcmp(got.words, words, 64) != 0)
                    status = 3;
                taken[i] = n + 1;
                total++;
            }
            if (!any)
                std::this_thread::yield();
            if (std::chrono::steady_clock::now() > deadline)
                status = 4;
        }
        if (status != 0)
            _exit(status); // posters may never end
        for (std::thread &poster : posters)
            poster.join();
        return 0;
    });
    EXPECT_EQ(child.status, 0) << child.err;
    for (int i = 0; i < 9; i++)
        EXPECT_EQ(count_of(child.err, "endpoint " + std::to_string(i) + ": fast mode:"), i < 4 ? 0u : 1u) << child.err;
}

TEST(TapNineEndpoints, ExactPreferred_TwoAreExactTheOthersFallBack)
{
    ChildResult child = in_child([] {
        Window windows[9];
        std::unique_ptr<RequestTap> taps[9];
        unsigned exact = 0;
        for (int i = 0; i < 9; i++) {
            taps[i] = windows[i].tap(TapMode::exact);
            exact += taps[i]->mode() == TapMode::exact;
        }
        for (uint32_t n = 0; n < 200; n++)
            for (int i = 0; i < 9; i++)
                post(windows[i], n, n % 2 ? 13 : 14);
        for (uint32_t n = 0; n < 200; n++)
            for (int i = 0; i < 9; i++) {
                nuv_ureq_t got;
                if (!taps[i]->pop(&got) || got.words[0] != n)
                    return 1;
            }
        return exact == 2 ? 0 : 2;
    });
    EXPECT_EQ(child.status, 0) << child.err;
    EXPECT_EQ(count_of(child.err, "exact mode:"), 7u) << child.err;
}

TEST(TapAvailable, RegistersUsedUp_TellsFallback)
{
    ChildResult child = in_child([] {
        Window windows[4];
        std::unique_ptr<RequestTap> taps[4];
        if (RequestTap::available(TapMode::fast) != TapMode::fast ||
            RequestTap::available(TapMode::exact) != TapMode::exact)
            return 1;
        for (int i = 0; i < 3; i++)
            taps[i] = windows[i].tap(TapMode::fast);
        if (RequestTap::available(TapMode::fast) != TapMode::fast ||
            RequestTap::available(TapMode::exact) != TapMode::fallback)
            return 2;
        taps[3] = windows[3].tap(TapMode::fast);
        if (RequestTap::available(TapMode::fast) != TapMode::fallback ||
            RequestTap::available(TapMode::fast, "oxelp5") != TapMode::fallback)
            return 3;
        taps[0].reset(); // gives its register back
        return RequestTap::available(TapMode::fast, "oxelp6") == TapMode::fast ? 0 : 4;
    });
    EXPECT_EQ(child.status, 0) << child.err;
    EXPECT_EQ(count_of(child.err, "oxelp5: fast mode: no watchpoint"), 1u) << child.err;
    EXPECT_EQ(count_of(child.err, "\n"), 1u) << "only what is named and refused is said: " << child.err;
}

// Endpoints opened and closed for hours: the next one starts clean, and the window is the program's again.
TEST(TapLife, ManyTapsOneAfterAnother_EachWorksAndLeavesTheWindowWritable)
{
    for (int round = 0; round < 60; round++)
        for (TapMode mode : {TapMode::fast, TapMode::exact, TapMode::fallback}) {
            Window window;
            auto tap = window.tap(mode);
            ASSERT_EQ(tap->mode(), mode);
            post(window, 1, 13);
            expect_popped(*tap, 1, 13);
            post(window, 2, 13); // still there when the tap goes
            if (round % 2) {
                EXPECT_EQ(tap->arm_idle(), softnic::TapIdle::work);
            }
            tap.reset();
            post(window, 3, 13);
            EXPECT_EQ(window.slot(13)[0], 3u);
        }
}

// close() comes after munmap(): the tap must not touch what has taken the window's place.
TEST(TapLife, WindowUnmappedAndAddressReused_TapLeavesItAlone)
{
    for (TapMode mode : {TapMode::fast, TapMode::exact, TapMode::fallback}) {
        Window window;
        auto tap = window.tap(mode);
        post(window, 1, 14);
        uint8_t *where = window.app;
        tap->detach();
        window.unmap_app();
        void *other =
            mmap(where, Window::bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0);
        ASSERT_EQ(other, where);
        for (size_t i = 0; i < Window::bytes; i += 4)
            *reinterpret_cast<volatile uint32_t *>(where + i) = 7;
        expect_popped(*tap, 1, 14); // posted before the window went
        nuv_ureq_t none;
        EXPECT_FALSE(tap->pop(&none)) << tap_mode_name(mode);
        EXPECT_EQ(tap->arm_idle(), softnic::TapIdle::armed);
        tap->disarm_idle();
        *reinterpret_cast<volatile uint32_t *>(where) = 8;
        tap.reset();
        *reinterpret_cast<volatile uint32_t *>(where) = 9;
        munmap(where, Window::bytes);
    }
}

TEST(TapModeNames, NameAndBack)
{
    TapMode mode = TapMode::exact;
    EXPECT_TRUE(tap_mode_from_name("fast", &mode));
    EXPECT_EQ(mode, TapMode::fast);
    EXPECT_TRUE(tap_mode_from_name("exact", &mode));
    EXPECT_EQ(mode, TapMode::exact);
    EXPECT_TRUE(tap_mode_from_name("fallback", &mode));
    EXPECT_EQ(mode, TapMode::fallback);
    EXPECT_FALSE(tap_mode_from_name("faster", &mode));
    EXPECT_FALSE(tap_mode_from_name("", &mode));
    EXPECT_STREQ(tap_mode_name(TapMode::exact), "exact");
}

} // namespace
