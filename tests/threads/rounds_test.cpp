/*
 * A receiver in each mode against shutdown and close, 10,000 rounds, and some more behind a switch; a fifth of them
 * where nothing looks for races. Sleeps end at once: poll() is answered here, so that a round takes microseconds.
 */
#include "rig.h"
#include "ruk_core.h"
#include "sanitizer.h"

#include <atomic>
#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace threads;

constexpr unsigned PART = test_support::kRacesDetected ? 1 : 5;
constexpr unsigned STOPPED_ROUNDS = 700 / PART; /* of each mode of each call, 10 in all */
constexpr unsigned CLOSED_ROUNDS = 750 / PART;  /* of each mode that waits, 4 in all */
constexpr unsigned BOTH_ROUNDS = 250 / PART;    /* of each mode that waits, 4 in all */
constexpr unsigned SWITCH_ROUNDS = 100 / PART;  /* of each mode that waits, 4 in all, behind a switch */

using Receive = int (*)(ruk_device_t, enum ruk_recvmode);

int datagram(ruk_device_t dev, enum ruk_recvmode mode)
{
    uint8_t buf[2048];
    struct ruk_recv_info info = {};
    return ruk_recvfrom(dev, mode, buf, sizeof buf, &info);
}

int frame(ruk_device_t dev, enum ruk_recvmode mode)
{
    uint8_t buf[2048];
    size_t len;
    return ruk_raw_recv(dev, mode, buf, &len, nullptr);
}

class ThreadRounds : public testing::Test {
protected:
    explicit ThreadRounds(Switch before = Switch::off) : adapter(before)
    {
        hooks->poll = [this](struct pollfd *fds, nfds_t, int) {
            polls.fetch_add(1, std::memory_order_relaxed);
            usleep(1); /* as long as the host likes */
            const bool ready = event.load(std::memory_order_relaxed);
            fds[0].revents = ready ? POLLIN : 0;
            return ready ? 1 : 0; /* else the second is over */
        };
    }

    /* A thread that receives, again and again as long as nothing came, and then tells that it has left. */
    std::thread receiver(ruk_device_t dev, Receive receive, enum ruk_recvmode mode, int *rc)
    {
        left.store(false, std::memory_order_relaxed);
        inside.store(false, std::memory_order_relaxed);
        return std::thread([this, dev, receive, mode, rc] {
            inside.store(true, std::memory_order_relaxed);
            do
                *rc = receive(dev, mode);
            while (*rc == EAGAIN && !stop.load(std::memory_order_relaxed));
            left.store(true, std::memory_order_relaxed);
        });
    }
    void await_inside() const
    {
        for (int i = 0; !inside.load(std::memory_order_relaxed); i++)
            pause(i);
    }

    Adapter adapter;
    test_support::LibcHookGuard hooks;
    std::atomic<bool> inside{false}, left{false}, stop{false}, event{false};
    std::atomic<unsigned> polls{0};
};

TEST_F(ThreadRounds, ReceiverInEachMode_ShutdownUntilItHasLeftThenClose_EndsEveryTime)
{
    unsigned rounds = 0;
    for (Receive receive : {datagram, frame}) {
        for (auto mode : {RUK_RECV_DEFAULT, RUK_RECV_NONBLOCK, RUK_RECV_BLOCK, RUK_RECV_PEEK, RUK_RECV_PEEK_MSG}) {
            const bool waits = mode == RUK_RECV_DEFAULT || mode == RUK_RECV_BLOCK;
            for (unsigned i = 0; i < STOPPED_ROUNDS; i++, rounds++) {
                ruk_device_t dev = open_endpoint();
                int rc = -1;
                stop.store(false);
                std::thread thread = receiver(dev, receive, mode, &rc);
                if (i % 2)
                    await_inside(); /* else the shutdown may come before the receiver */
                stop.store(true, std::memory_order_relaxed);
                for (int n = 0; !left.load(std::memory_order_relaxed); n++) {
                    EXPECT_EQ(ruk_shutdown(dev, 0), 0);
                    pause(n);
                }
                thread.join();
                EXPECT_EQ(rc, waits ? EINTR : EAGAIN) << "mode " << mode;
                EXPECT_EQ(ruk_close(dev), 0);
            }
        }
    }
    EXPECT_EQ(softnic_claimed(adapter.nic, 0), 0u);
    printf("thread rounds: %u receivers shut down\n", rounds);
    EXPECT_EQ(rounds, 7000u / PART);
}

TEST_F(ThreadRounds, WaitingReceiver_ClosedUnderneath_LeavesAndOneOfThemCompletesTheClose)
{
    unsigned rounds = 0;
    for (Receive receive : {datagram, frame}) {
        for (auto mode : {RUK_RECV_DEFAULT, RUK_RECV_BLOCK}) {
            for (unsigned i = 0; i < CLOSED_ROUNDS; i++, rounds++) {
                ruk_device_t dev = open_endpoint();
                int rc = -1;
                event.store(false);
                polls.store(0);
                std::thread thread = receiver(dev, receive, mode, &rc);
                await_inside();
                for (int n = 0; __atomic_load_n(&dev->rep_inuse, __ATOMIC_RELAXED) == 0; n++)
                    pause(n);
                if (i % 2 && mode == RUK_RECV_BLOCK) /* asleep for certain; else it may be on its way there */
                    for (int n = 0; polls.load(std::memory_order_relaxed) == 0; n++)
                        pause(n);
                EXPECT_EQ(ruk_close(dev), 0);
                event.store(true, std::memory_order_relaxed); /* a sleeper is woken by traffic alone */
                thread.join();
                EXPECT_EQ(rc, ENXIO) << "mode " << mode;
                ASSERT_EQ(softnic_claimed(adapter.nic, 0), 0u) << "closed by neither";
            }
        }
    }
    printf("thread rounds: %u receivers closed underneath\n", rounds);
    EXPECT_EQ(rounds, 3000u / PART);
}

/* A sleeper that a shutdown sends home leaves without the receive lock: it must not look back at what is closed. */
TEST_F(ThreadRounds, WaitingReceiver_ShutDownAndClosedAtOnce_OneOfThemCompletesTheClose)
{
    unsigned rounds = 0, shut_down = 0;
    for (Receive receive : {datagram, frame}) {
        for (auto mode : {RUK_RECV_DEFAULT, RUK_RECV_BLOCK}) {
            for (unsigned i = 0; i < BOTH_ROUNDS; i++, rounds++) {
                ruk_device_t dev = open_endpoint();
                int rc = -1;
                polls.store(0);
                std::thread thread = receiver(dev, receive, mode, &rc);
                for (int n = 0; __atomic_load_n(&dev->rep_inuse, __ATOMIC_RELAXED) == 0; n++)
                    pause(n);
                if (mode == RUK_RECV_BLOCK) /* sometimes on its way home as the close comes */
                    for (int n = 0; polls.load(std::memory_order_relaxed) < i % 3; n++)
                        pause(n);
                EXPECT_EQ(ruk_shutdown(dev, 0), 0);
                if (i % 2)
                    pause(PATIENCE);
                EXPECT_EQ(ruk_close(dev), 0);
                thread.join();
                EXPECT_TRUE(rc == EINTR || rc == ENXIO) << rc << ", mode " << mode;
                shut_down += rc == EINTR;
                ASSERT_EQ(softnic_claimed(adapter.nic, 0), 0u) << "closed by neither";
            }
        }
    }
    EXPECT_EQ(rounds, 1000u / PART);
    printf("thread rounds: %u receivers shut down and closed, %u left for the shutdown\n", rounds, shut_down);
}

/* ------------------------------------------------------------------ behind a switch */

/* Closing sums the switch's counters up before it asks for the receive lock, while a receiver may be counting. */
class ThreadRoundsBehindASwitch : public ThreadRounds {
protected:
    ThreadRoundsBehindASwitch() : ThreadRounds(Switch::on) { event.store(true); }

    /* Keyframes, and frames that a receiver of datagrams dates and drops: nothing that makes a receiver leave. */
    void feed(Receive receive, unsigned n) const
    {
        for (unsigned i = 0; i < n; i++) {
            if (receive == datagram)
                adapter.deliver(HOST, STRAY_PORT);
            else
                adapter.deliver_keyframe();
        }
    }
    static uint64_t keyframes_of(ruk_device_t dev) { return tov_ld64(&dev->arista_control.arct_stats.arst_kfrecv); }
    static ruk_device_t open_for_keyframes()
    {
        ruk_device_t dev = open_endpoint();
        EXPECT_EQ(dev->arista_control.arct_status, ARISTA_STATUS_INITED);
        add_stray(dev);
        return dev;
    }
};

TEST_F(ThreadRoundsBehindASwitch, ReceiverThatTakesKeyframes_ClosedUnderneath_LeavesAndOneOfThemCompletesTheClose)
{
    unsigned rounds = 0;
    for (Receive receive : {datagram, frame}) {
        for (auto mode : {RUK_RECV_DEFAULT, RUK_RECV_BLOCK}) {
            for (unsigned i = 0; i < SWITCH_ROUNDS; i++, rounds++) {
                ruk_device_t dev = open_for_keyframes();
                int rc = -1;
                std::thread thread = receiver(dev, receive, mode, &rc);
                await_inside();
                for (int n = 0; __atomic_load_n(&dev->rep_inuse, __ATOMIC_RELAXED) == 0; n++)
                    pause(n);
                feed(receive, 1 + i % 4);
                if (i % 2) /* taken the first for certain; else it may be about to */
                    for (int n = 0; keyframes_of(dev) == 0; n++)
                        pause(n);
                EXPECT_EQ(ruk_close(dev), 0);
                thread.join();
                EXPECT_EQ(rc, ENXIO) << "mode " << mode;
                ASSERT_EQ(softnic_claimed(adapter.nic, 0), 0u) << "closed by neither";
            }
        }
    }
    EXPECT_EQ(rounds, 400u / PART);
}

/* Nothing orders the receiver's last keyframe before the close but the library. */
TEST_F(ThreadRoundsBehindASwitch, ReceiverThatTakesKeyframes_ShutdownThenClosedAtOnce_EndsEveryTime)
{
    unsigned rounds = 0;
    event.store(false); /* sleeps end without traffic */
    for (Receive receive : {datagram, frame}) {
        for (auto mode : {RUK_RECV_DEFAULT, RUK_RECV_BLOCK}) {
            for (unsigned i = 0; i < SWITCH_ROUNDS; i++, rounds++) {
                ruk_device_t dev = open_for_keyframes();
                int rc = -1;
                feed(receive, 1 + i % 4);
                std::thread thread = receiver(dev, receive, mode, &rc);
                for (int n = 0; keyframes_of(dev) == 0; n++)
                    pause(n);
                for (int n = 0; !left.load(std::memory_order_relaxed); n++) {
                    EXPECT_EQ(ruk_shutdown(dev, 0), 0);
                    pause(n);
                }
                EXPECT_EQ(ruk_close(dev), 0);
                thread.join();
                EXPECT_EQ(rc, EINTR) << "mode " << mode;
                ASSERT_EQ(softnic_claimed(adapter.nic, 0), 0u);
            }
        }
    }
    EXPECT_EQ(rounds, 400u / PART);
}

} // namespace
