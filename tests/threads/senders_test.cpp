/*
 * Several threads that wait for room on one endpoint: each lets go of the endpoint lock around the driver's wait, so
 * that the others go on, and wait there as well.
 */
#include "rig.h"
#include "ruk_core.h"

#include <functional>
#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace {

using namespace threads;

constexpr unsigned EACH = 50;

struct Sender {
    const char *name;
    std::function<int(Shared &)> send;
    unsigned wrong = 0, waits = 0;
};

int send_frame(Shared &s)
{
    uint8_t header[42] = {};
    ruk__ep_lock(s.dev);
    const int rc = ruk_raw_send(s.dev, header, sizeof header, 0, 0, header, 20, 0);
    ruk__ep_unlock(s.dev);
    return rc;
}

std::vector<Sender> senders()
{
    static const uint8_t payload[1472] = {};
    return {{"ruk_send", [](Shared &s) { return ruk_send(s.handle, payload, 64, 0); }},
            {"ruk_send, the same handle", [](Shared &s) { return ruk_send(s.handle, payload, 7, 0); }},
            {"ruk_send, by DMA", [](Shared &s) { return ruk_send(s.handle, payload, sizeof payload, 0); }},
            {"ruk_sendto",
             [](Shared &s) {
                 const sockaddr_in to = peer_address(1);
                 return ruk_sendto(s.ch, &to, payload, 100, 0);
             }},
            {"ruk_raw_send", send_frame}};
}

TEST(ThreadSenders, NoRoom_AllWaitInTheDriverWithoutTheLock_EachDatagramLeaves)
{
    Adapter adapter;
    Shared shared(adapter);
    std::vector<Sender> all = senders();
    shared.fill();
    ASSERT_EQ(shared.posted.load(), static_cast<unsigned>(REQUESTS));

    std::atomic<size_t> left{all.size()};
    std::vector<std::thread> running;
    running.reserve(all.size());
    for (Sender &sender : all)
        running.emplace_back([&] {
            for (unsigned i = 0; i < EACH; i++) {
                if (sender.send(shared) == 0)
                    shared.posted.fetch_add(1, std::memory_order_relaxed);
                else
                    sender.wrong++;
            }
            sender.waits = PlainHost::own_waits();
            left.fetch_sub(1, std::memory_order_relaxed);
        });

    /* 1. None has found room, and none keeps the lock while it waits for some. */
    for (int i = 0; adapter.host->waiting() != static_cast<int>(all.size()); i++)
        pause(i);
    EXPECT_EQ(pthread_mutex_trylock(&shared.dev->rep_lock), 0);
    pthread_mutex_unlock(&shared.dev->rep_lock);
    EXPECT_EQ(shared.posted.load(std::memory_order_relaxed), static_cast<unsigned>(REQUESTS));

    /* 2. One completion lets one of them through, again and again. */
    for (int i = 0; left.load(std::memory_order_relaxed) != 0; i++) {
        shared.complete_one();
        pause(i);
    }
    for (std::thread &thread : running)
        thread.join();
    for (const Sender &sender : all) {
        EXPECT_EQ(sender.wrong, 0u) << sender.name;
        EXPECT_GE(sender.waits, 1u) << sender.name;
    }
    EXPECT_EQ(shared.posted.load(), REQUESTS + EACH * all.size());

    /* 3. And all room comes back. */
    shared.settle();
    EXPECT_EQ(shared.dev->rep_sreq_pool->elem_avail, REQUESTS);
    EXPECT_EQ(shared.dev->rep_pioreq.pio_sb.sb_avail, 8192u);
    EXPECT_EQ(shared.dev->rep_dmabuf.sb_avail, shared.dev->rep_dmabuf.sb_length);
}

} // namespace
