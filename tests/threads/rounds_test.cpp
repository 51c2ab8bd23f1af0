/*
 * A receiver in each mode against shutdown and close, 10,000 rounds. Sleeps end at once: poll() is answered here, so
 * that a round takes microseconds.
 */
#include "rig.h"
#include "ruk_core.h"

#include <atomic>
#include <errno.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace threads;

constexpr unsigned STOPPED_ROUNDS = 700; /* of each mode of each call, 10 in all */
constexpr unsigned CLOSED_ROUNDS = 750;  /* of each mode that waits, 4 in all */

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
    ThreadRounds()
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
    EXPECT_EQ(rounds, 7000u);
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
    EXPECT_EQ(rounds, 3000u);
}

} // namespace
