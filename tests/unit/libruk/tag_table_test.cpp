/* The table of filter tags: who gets which tag, and when a released one comes back. */
#include "endpoint_test.h"

using namespace test_support;

namespace {

/* An endpoint's table over a ring of the test's making: no driver, no host. */
class TagTableTest : public testing::Test {
protected:
    static constexpr size_t ring_size = 4096;

    TagTableTest()
    {
        TAILQ_INIT(&rep.rep_chanq);
        TAILQ_INIT(&rep.rep_tag_uniq);
        TAILQ_INIT(&rep.rep_tag_filterq);
        TAILQ_INIT(&rep.rep_tag_delayq);
        mif.tov_ifa_nicid = 0x026f78000001;
        rep.rep_mif = &mif;
        for (size_t slot = 0; slot < ring_size; slot += 64)
            ring[slot + 63] = 0xFF;
        struct ruk__eventq *evq = &rep.rep_eventq;
        evq->evq_recvq_base = reinterpret_cast<uintptr_t>(ring);
        evq->evq_recvq_size = ring_size;
        evq->evq_recvq_end = evq->evq_recvq_base + ring_size;
        evq->evq_recvq_state.evs_uevt_cur = reinterpret_cast<nuv_uevt_ruk_t *>(ring);
    }
    ~TagTableTest() override
    {
        for (struct ruk__tag_entry *block : rep.rep_tag_table)
            free(block);
    }

    struct ruk__tag_entry *get(const char *address = "10.0.0.1", uint16_t port = 5000)
    {
        struct ruk__tag_entry *entry = nullptr;
        EXPECT_EQ(ruk__get_tag_entry(&rep, be32(address), htons(port), 0, &entry), 0);
        return entry;
    }
    void take(unsigned count)
    {
        for (unsigned i = 0; i < count; i++)
            get();
    }
    /* Pending packets: one whole event of a slot at the ring's start. */
    void set_pending(uint8_t packets)
    {
        memset(ring, 0, 64);
        ring[29] = 64; /* length, big-endian */
        ring[30] = packets;
        ring[63] = packets ? 0 : 0xFF;
    }

    alignas(64) unsigned char ring[ring_size] = {};
    struct tov_ifaddrs mif = {};
    struct ruk__ep rep = {};
};

TEST_F(TagTableTest, FreshTable_TagsAscending)
{
    for (int tag = 0; tag < 300; tag++)
        EXPECT_EQ(get()->tage_nuv_tag, tag);
    EXPECT_EQ(rep.rep_tag_cnt, 3);
    EXPECT_EQ(rep.rep_tag_table[3], nullptr);
}

TEST_F(TagTableTest, BlocksOf128_TagFindsItsEntry)
{
    take(128);
    EXPECT_EQ(rep.rep_tag_cnt, 1) << "grown only when an entry is asked for and none is free";
    EXPECT_TRUE(TAILQ_EMPTY(&rep.rep_tag_filterq));
    struct ruk__tag_entry *first_of_second = get();
    EXPECT_EQ(rep.rep_tag_cnt, 2);
    EXPECT_EQ(first_of_second, &rep.rep_tag_table[1][0]);
    for (int i = 0; i < 128; i++) {
        EXPECT_EQ(rep.rep_tag_table[0][i].tage_nuv_tag, i);
        EXPECT_EQ(rep.rep_tag_table[1][i].tage_nuv_tag, 128 + i);
    }
    std::vector<int> free_tags;
    for (int tag = 129; tag < 256; tag++)
        free_tags.push_back(tag);
    EXPECT_EQ(tags_of(rep.rep_tag_filterq), free_tags);
}

TEST_F(TagTableTest, AllTagsTaken_NextOneRefused)
{
    take(3967);
    EXPECT_EQ(get()->tage_nuv_tag, 3967);
    EXPECT_EQ(rep.rep_tag_cnt, 31);
    struct ruk__tag_entry *entry = nullptr;
    EXPECT_EQ(ruk__get_tag_entry(&rep, be32("10.0.0.1"), 0, 0, &entry), ENOMEM);
    EXPECT_EQ(entry, nullptr);
    EXPECT_EQ(rep.rep_tag_cnt, 31);
    EXPECT_EQ(rep.rep_tag_table[31], nullptr) << "the last slot is never used";
}

TEST_F(TagTableTest, AllTagsTakenAndOneDelayed_TryAgain)
{
    take(3967);
    struct ruk__tag_entry *last = get();
    set_pending(2);
    rep.rep_num_packets = 100;
    ruk__delay_put_tag_entry(&rep, last);
    struct ruk__tag_entry *entry = nullptr;
    EXPECT_EQ(ruk__get_tag_entry(&rep, be32("10.0.0.1"), 0, 0, &entry), EAGAIN);
    rep.rep_num_packets = 102;
    EXPECT_EQ(ruk__get_tag_entry(&rep, be32("10.0.0.1"), 0, 0, &entry), EAGAIN) << "as many as were pending";
    EXPECT_EQ(entries_of(rep.rep_tag_delayq), std::vector<struct ruk__tag_entry *>{last}) << "nothing changed";
    rep.rep_num_packets = 103;
    EXPECT_EQ(ruk__get_tag_entry(&rep, be32("10.0.0.1"), 0, 0, &entry), 0) << "one more";
    EXPECT_EQ(entry, last);
    EXPECT_EQ(entry->tage_nuv_tag, 3967) << "the mark of delay is gone";
}

TEST_F(TagTableTest, MemoryShort_RefusedUntilItComesBack)
{
    struct ruk__tag_entry *entry = nullptr;
    {
        AllocFault fault(1);
        EXPECT_EQ(ruk__get_tag_entry(&rep, be32("10.0.0.1"), 0, 0, &entry), ENOMEM);
    }
    EXPECT_EQ(rep.rep_tag_cnt, 0);
    take(128);
    set_pending(1);
    ruk__delay_put_tag_entry(&rep, &rep.rep_tag_table[0][0]);
    {
        AllocFault fault(1);
        EXPECT_EQ(ruk__get_tag_entry(&rep, be32("10.0.0.1"), 0, 0, &entry), EAGAIN);
    }
    EXPECT_EQ(get()->tage_nuv_tag, 128);
}

TEST_F(TagTableTest, ReleasedWithNothingPending_FirstInFirstOut)
{
    struct ruk__tag_entry *first = get(), *second = get();
    ruk__delay_put_tag_entry(&rep, second);
    ruk__put_tag_entry(&rep, first);
    EXPECT_EQ(second->tage_nuv_tag, 1);
    for (int tag = 2; tag < 128; tag++)
        EXPECT_EQ(get()->tage_nuv_tag, tag);
    EXPECT_EQ(get(), second);
    EXPECT_EQ(get(), first);
    EXPECT_EQ(rep.rep_tag_cnt, 1);
}

TEST_F(TagTableTest, ReleasedWithPacketsPending_MarkedStampedAndKeptBack)
{
    struct ruk__tag_entry *entry = get();
    struct ruk__channel chan = {};
    entry->tage_channel = &chan;
    rep.rep_num_packets = 1000;
    set_pending(5);
    ruk__delay_put_tag_entry(&rep, entry);
    EXPECT_EQ(entry->tage_recycle, 1005u);
    EXPECT_EQ(entry->tage_nuv_tag, 0x8000) << "no event's tag equals it";
    EXPECT_EQ(entry->tage_channel, nullptr);
    EXPECT_EQ(entries_of(rep.rep_tag_delayq), std::vector<struct ruk__tag_entry *>{entry});
    EXPECT_EQ(rep.rep_tag_table[0], entry) << "it stays where its tag finds it";

    rep.rep_num_packets = 1005;
    EXPECT_EQ(get()->tage_nuv_tag, 1) << "a free tag";
    rep.rep_num_packets = 1006;
    EXPECT_EQ(get(), entry) << "the delayed one goes before free ones";
    EXPECT_EQ(entry->tage_nuv_tag, 0);
    EXPECT_TRUE(TAILQ_EMPTY(&rep.rep_tag_delayq));
}

TEST_F(TagTableTest, StampComparedAsASignedDistance)
{
    struct ruk__tag_entry *entry = get();
    rep.rep_num_packets = UINT64_MAX - 1;
    set_pending(3);
    ruk__delay_put_tag_entry(&rep, entry);
    EXPECT_EQ(entry->tage_recycle, 1u) << "past the counter's wrap";
    EXPECT_NE(get(), entry);
    rep.rep_num_packets = 2;
    EXPECT_EQ(get(), entry);
}

TEST_F(TagTableTest, OnlyTheFirstDelayedEntryIsLookedAt)
{
    struct ruk__tag_entry *slow = get(), *fast = get();
    set_pending(9);
    ruk__delay_put_tag_entry(&rep, slow);
    set_pending(1);
    ruk__delay_put_tag_entry(&rep, fast);
    EXPECT_EQ(entries_of(rep.rep_tag_delayq), (std::vector<struct ruk__tag_entry *>{slow, fast}));
    rep.rep_num_packets = 5; /* past the second one's stamp only */
    EXPECT_EQ(get()->tage_nuv_tag, 2);
    rep.rep_num_packets = 10;
    EXPECT_EQ(get(), slow);
    EXPECT_EQ(get(), fast);
}

TEST_F(TagTableTest, ReleaseWithNothingPending_FreesTheDelayedOnesToo)
{
    struct ruk__tag_entry *a = get(), *b = get(), *c = get();
    set_pending(1);
    ruk__delay_put_tag_entry(&rep, a);
    ruk__delay_put_tag_entry(&rep, b);
    set_pending(0);
    ruk__delay_put_tag_entry(&rep, c);
    EXPECT_TRUE(TAILQ_EMPTY(&rep.rep_tag_delayq));
    std::vector<struct ruk__tag_entry *> free_ones = entries_of(rep.rep_tag_filterq);
    ASSERT_EQ(free_ones.size(), 128u);
    EXPECT_EQ(free_ones[125], c) << "itself first, then those in their order";
    EXPECT_EQ(free_ones[126], a);
    EXPECT_EQ(free_ones[127], b);
    EXPECT_EQ(a->tage_nuv_tag, 0x8000) << "the mark stays until the tag is taken";
    take(125);
    EXPECT_EQ(get()->tage_nuv_tag, 2);
    EXPECT_EQ(get()->tage_nuv_tag, 0);
    EXPECT_EQ(get()->tage_nuv_tag, 1);
}

TEST_F(TagTableTest, PlainRelease_AtOnceEvenWithPacketsPending)
{
    struct ruk__tag_entry *entry = get();
    set_pending(4);
    ruk__put_tag_entry(&rep, entry);
    EXPECT_TRUE(TAILQ_EMPTY(&rep.rep_tag_delayq));
    EXPECT_EQ(entries_of(rep.rep_tag_filterq).back(), entry);
    EXPECT_EQ(entry->tage_nuv_tag, 0);
}

TEST_F(TagTableTest, PendingPacketsOfSeveralEvents_AllCounted)
{
    struct ruk__tag_entry *entry = get();
    set_pending(3);
    unsigned char *second = ring + 64; /* 128 bytes, 2 packets */
    memset(second, 0, 128);
    second[29] = 128;
    second[30] = 2;
    second[63] = 0xFF; /* only the last slot's byte tells completion */
    ruk__delay_put_tag_entry(&rep, entry);
    EXPECT_EQ(entry->tage_recycle, 5u);
}

TEST_F(TagTableTest, QueuesNotSetUp_NothingPending)
{
    struct ruk__tag_entry *entry = get();
    rep.rep_eventq = {};
    ruk__delay_put_tag_entry(&rep, entry);
    EXPECT_EQ(entries_of(rep.rep_tag_filterq).back(), entry);
}

/* ------------------------------------------------------------------ what an entry is filled with */

TEST_F(TagTableTest, UnicastAndBroadcast_IdentityOfTheInterface)
{
    struct ruk__tag_entry *entry = nullptr;
    ASSERT_EQ(ruk__get_tag_entry(&rep, be32("10.1.2.3"), htons(5000), 0, &entry), 0);
    EXPECT_EQ(entry->tage_nicid, 0x026f78000001u);
    EXPECT_EQ(entry->tage_ip_addr, 0x0A010203u);
    EXPECT_EQ(entry->tage_udp_port, 5000);
    EXPECT_EQ(entry->tage_tcp, 0);
    ASSERT_EQ(ruk__get_tag_entry(&rep, 0xFFFFFFFF, htons(5000), 1, &entry), 0);
    EXPECT_EQ(entry->tage_nicid, 0x026f78000001u);
    EXPECT_EQ(entry->tage_ip_addr, 0xFFFFFFFFu);
    EXPECT_EQ(entry->tage_tcp, 1);
}

TEST_F(TagTableTest, Group_IdentityOfItsMacAddress)
{
    EXPECT_EQ(get("239.1.2.3")->tage_nicid, 0x01005E010203u);
    EXPECT_EQ(get("224.129.2.3")->tage_nicid, 0x01005E010203u) << "the second octet's top bit is dropped";
    EXPECT_EQ(get("224.0.0.1")->tage_nicid, 0x01005E000001u);
    EXPECT_EQ(get("239.255.255.255")->tage_nicid, 0x01005E7FFFFFu);
    EXPECT_EQ(get("223.1.2.3")->tage_nicid, 0x026f78000001u);
    EXPECT_EQ(get("240.1.2.3")->tage_nicid, 0x026f78000001u);
    EXPECT_EQ(get("239.1.2.3")->tage_ip_addr, 0xEF010203u);
}

TEST_F(TagTableTest, EntryTakenAgain_OtherFieldsAsTheLastUseLeftThem)
{
    struct ruk__tag_entry *entry = get();
    EXPECT_EQ(entry->tage_src_ip_addr, 0u);
    EXPECT_EQ(entry->tage_channel, nullptr);
    entry->tage_src_ip_addr = 0x0A000009;
    entry->tage_src_ip_port = 9;
    entry->tage_bindflags = 0x14;
    entry->tage_recycle = 77;
    ruk__put_tag_entry(&rep, entry);
    take(127);
    ASSERT_EQ(get("239.0.0.1", 6000), entry);
    EXPECT_EQ(entry->tage_src_ip_addr, 0x0A000009u);
    EXPECT_EQ(entry->tage_src_ip_port, 9);
    EXPECT_EQ(entry->tage_bindflags, 0x14);
    EXPECT_EQ(entry->tage_recycle, 77u);
    EXPECT_EQ(entry->tage_udp_port, 6000);
}

} // namespace
