/* Measuring the copy into adapter memory. */
#include "send_rig.h"

namespace {

using namespace send_rig;

class CopyTest : public RequestTest {
protected:
    int copy(uint32_t length, int iterations = 3, int do_csum = 1)
    {
        nsecs = mbytes = 0x7777;
        return ruk__piocopy_test(dev, iterations, length, do_csum, &nsecs, &mbytes);
    }
    uint64_t nsecs = 0, mbytes = 0;

private:
    recv_rig::Scoped<uint64_t> rate_{cycles_per_second, 2000000000};
};

TEST_F(CopyTest, TooLongOrNoRounds_Invalid)
{
    open_with(1400);
    const State before = state_now();
    EXPECT_EQ(copy(2049), EINVAL);
    EXPECT_EQ(copy(2052), EINVAL);
    EXPECT_EQ(copy(64, 0), EINVAL);
    EXPECT_TRUE(state_now() == before);
    EXPECT_EQ(copy(2048), 0);
    EXPECT_EQ(copy(2048, 1, 0), 0) << "all there is to copy from, and no more, which the address sanitizer tells";
}

TEST_F(CopyTest, LengthCountsInWholeWords)
{
    open_with(1400, 8);
    EXPECT_EQ(copy(2045), 0);
    EXPECT_EQ(pio_ring().sb_tail, 2048u);
    EXPECT_EQ(copy(1), 0);
    EXPECT_EQ(pio_ring().sb_tail, 2052u);
}

TEST_F(CopyTest, NoRoomOrNoRecord_Busy)
{
    open_with(8192, 8);
    ASSERT_EQ(send(7000), 0);
    State before = state_now();
    EXPECT_EQ(copy(2048), EBUSY);
    EXPECT_TRUE(state_now() == before);
    EXPECT_EQ(waits.size(), 0u) << "it does not wait";
    for (int i = 0; i < 7; i++)
        ASSERT_EQ(send(4), 0);
    before = state_now();
    EXPECT_EQ(copy(4), EBUSY);
    EXPECT_TRUE(state_now() == before);
}

/* Nor does it look whether requests are done: that is the senders' business. */
TEST_F(CopyTest, NoRoomThoughRequestsAreDone_BusyAndNothingReaped)
{
    open_with(8192, 8);
    ASSERT_EQ(send(7000), 0);
    complete();
    const State before = state_now();
    const uint32_t reaped_before = reaped();
    EXPECT_EQ(copy(2048), EBUSY);
    EXPECT_TRUE(state_now() == before);
    EXPECT_EQ(reaped(), reaped_before);
    ASSERT_EQ(ruk__try_send_completion(dev), 1);
    EXPECT_EQ(copy(2048), 0) << "room enough once it is reaped";
}

TEST_F(CopyTest, Copied_NothingIsPostedAndTheSpaceIsGivenBack)
{
    for (int do_csum : {0, 1}) {
        open_with(1400, 8);
        const Bytes before = window(0, dev->rep_map.map_zreq_len);
        EXPECT_EQ(copy(64, 2, do_csum), 0);
        EXPECT_EQ(window(0, dev->rep_map.map_zreq_len), before);
        EXPECT_NE(pio(0, 64), Bytes(64, 0xee)) << "copied";
        EXPECT_EQ(pio(64, 64), Bytes(64, 0xee)) << "and no more";
        EXPECT_EQ(pio_ring().sb_tail, 64u);
        EXPECT_EQ(pio_ring().sb_head, 64u);
        EXPECT_EQ(pio_ring().sb_avail, 8192u);
        EXPECT_EQ(dev->rep_sreq_pool->elem_avail, 8);
        EXPECT_EQ(dev->rep_sreq_inflight, 1) << "it counts as a send";
        EXPECT_NE(nsecs, 0x7777u);
        EXPECT_NE(mbytes, 0x7777u);
        close();
        driver.taken.clear();
    }
}

/* The record is free and in the pool, and the queue still ends in it. */
TEST_F(CopyTest, Copied_RecordStaysInTheQueue)
{
    open_with(1400, 8);
    EXPECT_EQ(copy(64), 0);
    ruk__request *req = dev->rep_sreq_inflightq.stqh_first;
    ASSERT_NE(req, nullptr);
    EXPECT_EQ(dev->rep_sreq_inflightq.stqh_last, &req->req_link.stqe_next);
    EXPECT_EQ(req->req_type, 0u);
    EXPECT_EQ(req->req_size, 0u);
    EXPECT_EQ(req->req_num, -1);
    EXPECT_EQ(dev->rep_sreq_pool->elem_next, reinterpret_cast<char *>(req)) << "the next to be used";
}

TEST_F(CopyTest, SendsAfterACopy_GoOn)
{
    open_with(1400, 8);
    EXPECT_EQ(copy(64), 0);
    ruk__request *req = dev->rep_sreq_inflightq.stqh_first;
    for (int i = 0; i < 50; i++) {
        ASSERT_EQ(send(100), 0);
        EXPECT_EQ(dev->rep_sreq_inflightq.stqh_first, req);
        complete();
        ASSERT_EQ(ruk__try_send_completion(dev), 1);
        ASSERT_EQ(pio_ring().sb_avail, 8192u);
        ASSERT_EQ(dev->rep_sreq_pool->elem_avail, 8);
    }
    for (int i = 0; i < 8; i++)
        ASSERT_EQ(send(100), 0);
    EXPECT_EQ(in_flight().size(), 8u) << "several at once put the queue right";
    complete(8);
    ASSERT_EQ(ruk__try_send_completion(dev), 8);
    EXPECT_TRUE(in_flight().empty());
    EXPECT_EQ(pio_ring().sb_avail, 8192u);
    EXPECT_EQ(dev->rep_sreq_pool->elem_avail, 8);
}

} // namespace
