/* Request records, and what completions give back. */
#include "send_rig.h"

#include <unistd.h>

namespace {

using namespace send_rig;

/* ------------------------------------------------------------------ request records */

TEST_F(RequestTest, Sent_RecordFilledAndLastInTheQueue)
{
    open_with(100, 8);
    for (uint32_t i = 0; i < 8; i++)
        EXPECT_EQ(dev->rep_sreq_alloc[i].req_num, static_cast<int32_t>(i)) << "as they are made";
    ASSERT_EQ(send(10), 0);
    ASSERT_EQ(send(buffer + 2, 101), 0);
    ASSERT_EQ(send(buffer + 1, 20), 0);
    std::vector<ruk__request *> queue = in_flight();
    ASSERT_EQ(queue.size(), 3u);
    EXPECT_EQ(dev->rep_sreq_inflight, 3);
    EXPECT_EQ(dev->rep_sreq_pool->elem_avail, 5);

    EXPECT_EQ(queue[0]->req_buf, pio_ring().sb_base);
    EXPECT_EQ(queue[0]->req_size, 12u);
    EXPECT_EQ(queue[0]->req_num, 1);
    EXPECT_EQ(queue[0]->req_qoff, 0u);
    EXPECT_EQ(queue[0]->req_type, 13u);
    EXPECT_EQ(queue[1]->req_buf, dma_ring().sb_base);
    EXPECT_EQ(queue[1]->req_size, 4096u);
    EXPECT_EQ(queue[1]->req_num, 2);
    EXPECT_EQ(queue[1]->req_qoff, 0u);
    EXPECT_EQ(queue[1]->req_type, 14u);
    EXPECT_EQ(queue[2]->req_buf, pio_ring().sb_base + 12);
    EXPECT_EQ(queue[2]->req_size, 24u);
    EXPECT_EQ(queue[2]->req_num, 3);
    EXPECT_EQ(queue[2]->req_qoff, 12u);
    EXPECT_EQ(queue[2]->req_link.stqe_next, nullptr);
}

TEST_F(RequestTest, Completed_RecordMarkedFreeAndBackInThePool)
{
    open_with(1400, 8);
    ASSERT_EQ(send(10), 0);
    ruk__request *req = in_flight().at(0);
    complete();
    ASSERT_EQ(ruk__try_send_completion(dev), 1);
    EXPECT_EQ(req->req_type, 0u);
    EXPECT_EQ(req->req_size, 0u);
    EXPECT_EQ(req->req_num, -1);
    EXPECT_EQ(dev->rep_sreq_pool->elem_avail, 8);
    EXPECT_TRUE(in_flight().empty());
    EXPECT_EQ(dev->rep_sreq_inflightq.stqh_last, &dev->rep_sreq_inflightq.stqh_first);
    EXPECT_EQ(dev->rep_sreq_inflight, 1) << "the send counter does not go down";
    ASSERT_EQ(send(10), 0);
    EXPECT_EQ(in_flight(), (std::vector<ruk__request *>{req})) << "the record freed last is used first";
    EXPECT_EQ(req->req_num, 2);
}

TEST_F(RequestTest, AllRecordsInFlight_Nonblocking_AgainLater_NothingTaken)
{
    open_with(1400, 8);
    for (int i = 0; i < 8; i++)
        ASSERT_EQ(send(4), 0) << i;
    const State before = state_now();
    EXPECT_EQ(send(4), EAGAIN);
    EXPECT_TRUE(state_now() == before);
    EXPECT_EQ(waits.size(), 0u);
    EXPECT_EQ(host.sockets.count(Slot::ioctl), 0u) << "the driver is not asked";
    complete();
    EXPECT_EQ(send(4), 0);
    EXPECT_EQ(send(4), EAGAIN);
}

TEST_F(RequestTest, RoomInTheOneRing_DoesNotHelpTheOther)
{
    open_with(100, 16);
    ASSERT_EQ(send(0x4000), 0);
    EXPECT_EQ(send(101), EAGAIN);
    EXPECT_EQ(send(100), 0);
}

TEST_F(RequestTest, SeventyThousandSends_CountersGoRound)
{
    open_with(1400, 8);
    for (uint32_t i = 1; i <= 70000; i++) {
        ASSERT_EQ(send(static_cast<int>(i % 64)), 0) << i;
        ASSERT_EQ(in_flight().back()->req_num, static_cast<int32_t>(i % 65536));
        if (i % 5 == 0)
            complete(5);
    }
    EXPECT_EQ(dev->rep_sreq_inflight, 70000 % 65536);
    EXPECT_EQ(ruk__try_send_completion(dev), 5);
    EXPECT_EQ(reaped(), 70000u % 65536);
    EXPECT_EQ(pio_ring().sb_avail, 8192u);
    EXPECT_EQ(dev->rep_sreq_pool->elem_avail, 8);
}

/* ------------------------------------------------------------------ completions */

TEST_F(RequestTest, NothingCompleted_ReapsNothing_FlowWordLeftAlone)
{
    open_with(1400);
    ASSERT_EQ(send(4), 0);
    reaped() = 0xabcd0000; /* its upper half is nobody's business */
    EXPECT_EQ(ruk__try_send_completion(dev), 0);
    EXPECT_EQ(reaped(), 0xabcd0000u);
    EXPECT_EQ(in_flight().size(), 1u);
}

TEST_F(RequestTest, Completed_FlowWordIsTheCountInAWholeWord)
{
    open_with(1400);
    ASSERT_EQ(send(4), 0);
    ASSERT_EQ(send(4), 0);
    reaped() = 0xabcd0000;
    complete(2);
    EXPECT_EQ(ruk__try_send_completion(dev), 2);
    EXPECT_EQ(reaped(), 2u);
    EXPECT_EQ(ruk__try_send_completion(dev), 0);
}

TEST_F(RequestTest, FlowWindow_IsTheSendHalfOfTheRecord)
{
    open_with(1400);
    ASSERT_EQ(send(4), 0);
    complete();
    const uint8_t *flow = reinterpret_cast<const uint8_t *>(dev->rep_map.map_kflow_window);
    const Bytes before(flow, flow + 128);
    ASSERT_EQ(ruk__try_send_completion(dev), 1);
    Bytes expected = before;
    expected[64] = 1;
    EXPECT_EQ(Bytes(flow, flow + 128), expected);
}

TEST_F(RequestTest, CounterOfAnotherEndpoint_IsNotLookedAt)
{
    driver.taken = {0, 1};
    open_with(1400);
    ASSERT_EQ(dev->rep_epid, 2u);
    ASSERT_EQ(send(4), 0);
    const uint8_t others[8] = {0, 1, 0, 1, 0, 0, 0, 1};
    ASSERT_EQ(pwrite(dev->rep_handle, others, 8, static_cast<off_t>(driver.block.send_compcnt_offset)), 8);
    EXPECT_EQ(ruk__try_send_completion(dev), 0);
    complete();
    EXPECT_EQ(ruk__try_send_completion(dev), 1);
}

TEST_F(RequestTest, CounterIsBigEndian)
{
    open_with(1400);
    ASSERT_EQ(send(4), 0);
    reaped() = 0x00ff;
    set_counter(0x0100);
    EXPECT_EQ(ruk__try_send_completion(dev), 1);
    EXPECT_EQ(reaped(), 0x0100u);
}

TEST_F(RequestTest, CounterGoesRound_ReapsAcross)
{
    open_with(1400);
    reaped() = 65534;
    set_counter(65534);
    for (int i = 0; i < 5; i++)
        ASSERT_EQ(send(4), 0);
    complete(1);
    EXPECT_EQ(ruk__try_send_completion(dev), 1);
    EXPECT_EQ(reaped(), 65535u);
    complete(3); /* now 2 */
    EXPECT_EQ(ruk__try_send_completion(dev), 3);
    EXPECT_EQ(reaped(), 2u);
    EXPECT_EQ(in_flight().size(), 1u);
}

TEST_F(RequestTest, CompletionsBelongToTheOldest_WhateverTheirNumbers)
{
    open_with(100);
    ASSERT_EQ(send(101), 0);
    ASSERT_EQ(send(100), 0);
    for (ruk__request *req : in_flight())
        req->req_num = 777;
    complete();
    ASSERT_EQ(ruk__try_send_completion(dev), 1);
    EXPECT_EQ(dma_ring().sb_avail, 0x4000u);
    EXPECT_EQ(pio_ring().sb_avail, 8192u - 100);
    EXPECT_EQ(in_flight().size(), 1u);
    EXPECT_EQ(in_flight()[0]->req_type, RUK_REQ_SEND_PIO);
}

TEST_F(RequestTest, RequestOfAnotherType_Completed_GivesNoSpaceBack)
{
    for (uint32_t type : {0u, 1u}) {
        open_with(1400, 8);
        ASSERT_EQ(send(100), 0);
        ruk__request *req = in_flight().at(0);
        req->req_type = static_cast<enum ruk_req_type>(type);
        const ruk__sendbuf pio_before = pio_ring(), dma_before = dma_ring();
        complete();
        EXPECT_EQ(ruk__try_send_completion(dev), 1);
        EXPECT_EQ(pio_ring().sb_head, pio_before.sb_head);
        EXPECT_EQ(pio_ring().sb_avail, pio_before.sb_avail);
        EXPECT_EQ(dma_ring().sb_head, dma_before.sb_head);
        EXPECT_EQ(dma_ring().sb_avail, dma_before.sb_avail);
        EXPECT_EQ(req->req_size, 0u);
        EXPECT_EQ(req->req_num, -1);
        EXPECT_EQ(dev->rep_sreq_pool->elem_avail, 8);
        close();
        driver.taken.clear();
        counter = 0;
    }
}

TEST_F(RequestTest, CompletionsWaiting_NextSend_ReapsThemFirst)
{
    open_with(1400, 8);
    for (int i = 0; i < 8; i++)
        ASSERT_EQ(send(4), 0);
    complete(3);
    EXPECT_EQ(reaped(), 0u) << "lazily";
    ASSERT_EQ(send(4), 0);
    EXPECT_EQ(reaped(), 3u);
    EXPECT_EQ(in_flight().size(), 6u);
    EXPECT_EQ(pio_ring().sb_avail, 8192u - 24);
}

/* More completions than requests: none is invented. */
TEST_F(RequestTest, CounterAheadOfTheRequests_ReapsWhatThereIs)
{
    open_with(1400, 8);
    ASSERT_EQ(send(4), 0);
    complete(3);
    EXPECT_EQ(ruk__try_send_completion(dev), 3);
    EXPECT_EQ(reaped(), 3u);
    EXPECT_TRUE(in_flight().empty());
    EXPECT_EQ(dev->rep_sreq_pool->elem_avail, 8);
    EXPECT_EQ(send(4), 0);
}

/* Its release must not be taken for that of the whole ring: the payloads that still wait would be overwritten. */
TEST_F(RequestTest, EmptyPayloadCompletedWhileRingIsFull_NoRoomIsFreed)
{
    open_with(8192, 8);
    ASSERT_EQ(send(0), 0);
    ASSERT_EQ(send(4096), 0);
    ASSERT_EQ(send(4096), 0);
    ASSERT_EQ(pio_ring().sb_avail, 0u);
    complete();
    EXPECT_EQ(send(4), EAGAIN);
    EXPECT_EQ(pio_ring().sb_avail, 0u);
    complete();
    EXPECT_EQ(send(4096), 0);
    EXPECT_EQ(data_offset(NUV_UREQ_RUK_PIO), 0u);
}

} // namespace
