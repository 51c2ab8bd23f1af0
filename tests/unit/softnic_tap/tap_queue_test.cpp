// The queue between signal handlers and the firmware.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "tap_queue.h"

namespace {

using softnic::TapQueue;

nuv_ureq_t numbered(uint32_t number, uint32_t from = 0)
{
    nuv_ureq_t request = {};
    for (uint32_t &word : request.words)
        word = number;
    request.words[15] = from;
    return request;
}

TEST(TapQueue, Empty_Pop_GivesNothing)
{
    TapQueue queue;
    nuv_ureq_t out;
    EXPECT_TRUE(queue.empty());
    EXPECT_FALSE(queue.pop(&out));
}

TEST(TapQueue, Full_Push_IsRefusedAndNothingIsOverwritten)
{
    TapQueue queue;
    for (uint32_t i = 0; i < 512; i++)
        ASSERT_TRUE(queue.push(numbered(i)));
    EXPECT_FALSE(queue.push(numbered(512)));
    nuv_ureq_t out;
    for (uint32_t i = 0; i < 512; i++) {
        ASSERT_TRUE(queue.pop(&out));
        EXPECT_EQ(out.words[0], i);
        EXPECT_EQ(out.words[14], i);
    }
    EXPECT_FALSE(queue.pop(&out));
}

TEST(TapQueue, ManyRounds_PushAndPop_KeepTheOrder)
{
    TapQueue queue;
    nuv_ureq_t out;
    uint32_t in = 0, next = 0;
    for (int round = 0; round < 3000; round++) {
        for (int i = 0; i < 300; i++)
            ASSERT_TRUE(queue.push(numbered(in++)));
        while (queue.pop(&out))
            ASSERT_EQ(out.words[0], next++);
    }
    EXPECT_EQ(next, in);
}

// Handlers of one endpoint follow each other; should a program break that rule, requests still stay whole.
TEST(TapQueue, ThreePushers_OnePopper_EachStreamInOrderAndWhole)
{
    TapQueue queue;
    constexpr uint32_t each = 50000;
    std::vector<std::thread> pushers;
    for (uint32_t from = 0; from < 3; from++)
        pushers.emplace_back([&queue, from] {
            for (uint32_t i = 0; i < each; i++)
                while (!queue.push(numbered(i, from)))
                    std::this_thread::yield();
        });
    uint32_t next[3] = {}, got = 0;
    while (got < 3 * each) {
        nuv_ureq_t out;
        if (!queue.pop(&out)) {
            std::this_thread::yield();
            continue;
        }
        got++;
        ASSERT_LT(out.words[15], 3u);
        ASSERT_EQ(out.words[0], next[out.words[15]]++);
        ASSERT_EQ(out.words[14], out.words[0]);
    }
    for (std::thread &pusher : pushers)
        pusher.join();
}

} // namespace
