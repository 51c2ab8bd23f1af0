/* Unbinding a channel: what goes in which order, and what another channel inherits. */
#include "channel_test.h"

#include <unistd.h>

using namespace test_support;

namespace {

class UnbindTest : public ChannelTest {};

TEST_F(UnbindTest, NullChannel_Invalid) { EXPECT_EQ(ruk_unbind(nullptr), EINVAL); }

TEST_F(UnbindTest, GroupsThenUnicastThenBroadcastThenSocket)
{
    ruk_channel_t ch = bind(5000, RUK_BIND_BROADCAST);
    for (const char *group : {"239.1.2.3", "239.1.2.4", "239.1.2.5"})
        ASSERT_EQ(join(ch, group), 0);
    const int fd = ch->ch_fd;
    driver.take_trace();
    host.sockets.clear();
    EXPECT_EQ(ruk_unbind(ch), 0);
    EXPECT_EQ(driver.trace, (Lines{"50EB 030201ef881300000200010000", "50EB 040201ef881300000300010000",
                                   "50EB 050201ef881300000400010000", "50EB 0100007f881300000000010000",
                                   "50EB ffffffff881300000100010000"}));
    EXPECT_EQ(driver.filters.size(), 0u);
    EXPECT_EQ(options(), (Lines{"36 ef0102037f000001", "36 ef0102047f000001", "36 ef0102057f000001"}));
    EXPECT_EQ(host.sockets.log().back().slot, Slot::close);
    EXPECT_EQ(host.sockets.log().back().fd, fd);
    EXPECT_TRUE(channels().empty());
    EXPECT_TRUE(TAILQ_EMPTY(&dev->rep_tag_uniq));
    EXPECT_TRUE(TAILQ_EMPTY(&dev->rep_tag_delayq));
    std::vector<int> free_tags = tags_of(dev->rep_tag_filterq);
    EXPECT_EQ(std::vector<int>(free_tags.end() - 5, free_tags.end()), (std::vector<int>{2, 3, 4, 0, 1}))
        << "in the order of their release";
    EXPECT_EQ(dev->rep_tag_cnt, 1);
    EXPECT_TRUE(lock_is_free());
}

TEST_F(UnbindTest, PacketsPending_TagsKeptBackUntilConsumed)
{
    ruk_channel_t ch = bind();
    for (const char *group : {"239.1.2.3", "239.1.2.4", "239.1.2.5"})
        ASSERT_EQ(join(ch, group), 0);
    ruk_channel_t other = bind(5001);
    set_pending(2);
    EXPECT_EQ(ruk_unbind(ch), 0);
    EXPECT_EQ(tags_of(dev->rep_tag_delayq), (std::vector<int>{0x8001, 0x8002, 0x8003, 0x8000}));
    for (const struct ruk__tag_entry *entry : entries_of(dev->rep_tag_delayq)) {
        EXPECT_EQ(entry->tage_recycle, 2u);
        EXPECT_EQ(entry->tage_channel, nullptr);
    }
    dev->rep_num_packets = 2;
    ASSERT_EQ(join(other, "239.1.2.3"), 0);
    EXPECT_EQ(entries_of(other->ch_tag_multiq).back()->tage_nuv_tag, 5) << "a tag never used";
    dev->rep_num_packets = 3;
    ASSERT_EQ(join(other, "239.1.2.4"), 0);
    EXPECT_EQ(entries_of(other->ch_tag_multiq).back()->tage_nuv_tag, 1);
}

TEST_F(UnbindTest, SharedPort_FilterHandedToTheWaitingChannel)
{
    ruk_channel_t owner = bind(5000, RUK_BIND_REUSE | RUK_BIND_KERNEL);
    struct ruk__tag_entry *entry = owner->ch_uni_entry;
    ruk_channel_t heir = bind(5000, RUK_BIND_REUSE);
    EXPECT_EQ(ruk_unbind(owner), 0);
    EXPECT_EQ(driver.trace, Lines{}) << "the filter stays as it is";
    EXPECT_EQ(heir->ch_uni_entry, entry);
    EXPECT_EQ(heir->ch_deferred_uni_entry, nullptr);
    EXPECT_EQ(entry->tage_channel, heir);
    EXPECT_EQ(entry->tage_bindflags, 0x2 | 0x4) << "the first owner's";
    EXPECT_EQ(entries_of(dev->rep_tag_uniq), std::vector<struct ruk__tag_entry *>{entry});
    EXPECT_EQ(channels(), std::vector<ruk_channel_t>{heir});
    EXPECT_EQ(ruk_unbind(heir), 0);
    EXPECT_EQ(driver.trace, Lines{"50EB 0100007f881300000000010000"});
    EXPECT_TRUE(TAILQ_EMPTY(&dev->rep_tag_uniq));
}

TEST_F(UnbindTest, SeveralWait_EarliestInheritsEachTime)
{
    ruk_channel_t first = bind(5000, RUK_BIND_REUSE);
    struct ruk__tag_entry *entry = first->ch_uni_entry;
    bind(5001);
    ruk_channel_t second = bind(5000, RUK_BIND_REUSE), third = bind(5000, RUK_BIND_REUSE);
    EXPECT_EQ(ruk_unbind(first), 0);
    EXPECT_EQ(second->ch_uni_entry, entry);
    EXPECT_EQ(third->ch_uni_entry, nullptr);
    EXPECT_EQ(third->ch_deferred_uni_entry, entry) << "now waiting for the new owner's";
    EXPECT_EQ(ruk_unbind(second), 0);
    EXPECT_EQ(third->ch_uni_entry, entry);
    EXPECT_EQ(driver.trace, Lines{});
    EXPECT_EQ(ruk_unbind(third), 0);
    EXPECT_EQ(driver.trace.size(), 1u);
}

TEST_F(UnbindTest, WaitingChannel_LeavesNothingToRelease)
{
    ruk_channel_t owner = bind(5000, RUK_BIND_REUSE);
    ruk_channel_t waiting = bind(5000, RUK_BIND_REUSE);
    EXPECT_EQ(ruk_unbind(waiting), 0);
    EXPECT_EQ(driver.trace, Lines{});
    EXPECT_EQ(owner->ch_uni_entry->tage_channel, owner);
    EXPECT_EQ(host.sockets.count(Slot::close), 1u);
    EXPECT_EQ(ruk_unbind(owner), 0);
    EXPECT_EQ(driver.trace.size(), 1u);
}

TEST_F(UnbindTest, BroadcastNeverHandedOver)
{
    ruk_channel_t owner = bind(5000, RUK_BIND_REUSE | RUK_BIND_BROADCAST);
    ruk_channel_t heir = bind(5000, RUK_BIND_REUSE | RUK_BIND_BROADCAST);
    EXPECT_EQ(ruk_unbind(owner), 0);
    EXPECT_EQ(driver.trace, Lines{"50EB ffffffff881300000100010000"});
    EXPECT_EQ(tags_of(dev->rep_tag_uniq), (std::vector<int>{0, 2}));
    EXPECT_EQ(ruk_unbind(heir), 0);
}

/* Unlike with groups, a removal that fails is only reported. */
TEST_F(UnbindTest, AdapterRefusesTheRemoval_SaidAndTagReleasedAllTheSame)
{
    ruk_channel_t ch = bind(5000, RUK_BIND_BROADCAST);
    std::string uni = printed(ch->ch_uni_entry), bc = printed(ch->ch_bc_entry);
    driver.fail(OXEL_RX_FILTER, 1, EIO, 2);
    StreamCapture streams;
    EXPECT_EQ(ruk_unbind(ch), 0);
    EXPECT_EQ(streams.err(), "filter-del ip 7f000001, port 1388 to tag 0 entry is " + uni +
                                 " : FAILED with return value 5\n"
                                 "filter-del ip ffffffff, port 1388 to tag 1 entry is " +
                                 bc + " : FAILED with return value 5\n");
    EXPECT_EQ(streams.out(), "");
    EXPECT_TRUE(TAILQ_EMPTY(&dev->rep_tag_uniq));
    EXPECT_EQ(entries_of(dev->rep_tag_filterq).size(), 128u);
    EXPECT_TRUE(channels().empty());
}

TEST_F(UnbindTest, KernelRefusesADrop_SaidAndTheRestGoesOn)
{
    ruk_channel_t ch = bind();
    ASSERT_EQ(join(ch, "239.1.2.3"), 0);
    ASSERT_EQ(join(ch, "239.1.2.4"), 0);
    host.sockets.fail(Slot::setsockopt, 1, ENODEV);
    StreamCapture streams;
    EXPECT_EQ(ruk_unbind(ch), 0);
    EXPECT_EQ(streams.err(), "Ignoring error from IP_MULTICAST_DROP_MEMBERSHIP: No such device\n");
    EXPECT_EQ(driver.filters.size(), 0u);
}

TEST_F(UnbindTest, SendHandles_AllFreed)
{
    host.add_route("oxel0", "127.0.0.0", "0.0.0.0", "255.0.0.0");
    close();
    driver.taken.clear();
    open();
    ruk_channel_t ch = bind();
    for (int i = 0; i < 300; i++) { /* more than there are queues; leaks show under the address sanitizer */
        struct ruk__send *dhs = static_cast<struct ruk__send *>(calloc(1, sizeof *dhs));
        dhs->dhs_chan = ch;
        TAILQ_INSERT_TAIL(&ch->ch_sendhandleq[i % 256], dhs, dhs_link);
    }
    EXPECT_EQ(ruk_unbind(ch), 0);
    EXPECT_TRUE(channels().empty());
}

TEST_F(UnbindTest, UnderTheEndpointLock)
{
    ruk_channel_t ch = bind();
    int held = 0;
    auto answer = host.sockets.close;
    host.sockets.close = [&](int fd) {
        held = pthread_mutex_trylock(&dev->rep_lock);
        return answer(fd);
    };
    EXPECT_EQ(ruk_unbind(ch), 0);
    host.sockets.close = answer;
    EXPECT_EQ(held, EBUSY);
    EXPECT_TRUE(lock_is_free());
}

/* ------------------------------------------------------------------ all at once */

TEST_F(UnbindTest, UnbindAll_ChannelsInBindOrder_MixForgotten)
{
    ruk_channel_t first = bind(5000), second = bind(5001);
    const int fds[] = {first->ch_fd, second->ch_fd};
    ASSERT_EQ(join(second, "239.1.2.3"), 0);
    driver.take_trace();
    host.sockets.clear();
    dev->rep_channel_mix = 3;
    pthread_mutex_lock(&dev->rep_lock); /* the caller holds it */
    ruk__unbind_all(dev);
    EXPECT_FALSE(lock_is_free());
    pthread_mutex_unlock(&dev->rep_lock);
    EXPECT_TRUE(channels().empty());
    EXPECT_EQ(dev->rep_channel_mix, 0u);
    EXPECT_EQ(driver.trace, (Lines{"50EB 0100007f881300000000010000", "50EB 030201ef891300000200010000",
                                   "50EB 0100007f891300000100010000"}));
    std::vector<int> closed;
    for (const SocketCall &call : host.sockets.log())
        if (call.slot == Slot::close)
            closed.push_back(call.fd);
    EXPECT_EQ(closed, std::vector<int>(fds, fds + 2));
    ruk__unbind_all(dev);
    EXPECT_TRUE(channels().empty());
}

TEST_F(UnbindTest, UnbindAll_SharedPort_FilterGoesWithTheLast)
{
    bind(5000, RUK_BIND_REUSE);
    bind(5000, RUK_BIND_REUSE);
    bind(5000, RUK_BIND_REUSE);
    ruk__unbind_all(dev);
    EXPECT_EQ(driver.trace, Lines{"50EB 0100007f881300000000010000"});
    EXPECT_TRUE(TAILQ_EMPTY(&dev->rep_tag_uniq));
}

TEST_F(UnbindTest, ManyChannels_AllTagsTakenAndTakenAgain)
{
    for (int round = 0; round < 2; round++) {
        ruk_channel_t ch = bind(5000);
        struct in_addr group;
        for (uint32_t i = 1; i < 3968; i++) {
            group.s_addr = htonl(0xEF000000 + i);
            ASSERT_EQ(ruk_mcast_join(ch, &group, nullptr), 0) << i;
        }
        group.s_addr = htonl(0xEF000000 + 3968);
        EXPECT_EQ(ruk_mcast_join(ch, &group, nullptr), ENOMEM);
        EXPECT_EQ(driver.filters.size(), 3968u);
        EXPECT_EQ(ruk_unbind(ch), 0);
        EXPECT_EQ(driver.filters.size(), 0u);
        EXPECT_EQ(entries_of(dev->rep_tag_filterq).size(), 3968u);
    }
}

} // namespace
