/* Requests as they are posted: which ring the payload goes to, how much of it, and what is written where. */
#include "send_rig.h"

namespace {

using namespace send_rig;

/* ------------------------------------------------------------------ the request */

TEST_F(RequestTest, SmallPayload_Sent_PioRequestByteForByte)
{
    open_with(1400);
    memcpy(buffer, "ABCDE", 5);
    ASSERT_EQ(send(5), 0);
    const Bytes all = window(0, dev->rep_map.map_zreq_len);
    const Bytes expected = unhex("00000000 0005 000102030405060708090a0b0c0d0e0f 101112131415161718191a1b1c1d1e1f "
                                 "20212223242526272829");
    EXPECT_EQ(Bytes(all.begin() + 0xd00, all.begin() + 0xd00 + 48), expected);
    EXPECT_EQ(all[0xd00 + 62], 42);
    EXPECT_EQ(all[0xd00 + 63], 13);
    for (size_t i = 0; i < all.size(); i++) {
        if (i < 0xd00 || i >= 0xd40) {
            ASSERT_EQ(all[i], 0xee) << "the rest of the window is not touched, " << i;
        }
    }
    EXPECT_EQ(pio(0, 5), unhex("4142434445"));
    EXPECT_EQ(pio(8, 1), unhex("ee")) << "whole words and no more";
    EXPECT_EQ(dma(0, 64), Bytes(64, 0xee));
}

TEST_F(RequestTest, LargePayload_Sent_DmaRequestByteForByte)
{
    open_with(4);
    memcpy(buffer, "ABCDE", 5);
    ASSERT_EQ(send(5), 0);
    const Bytes all = window(0, dev->rep_map.map_zreq_len);
    const Bytes expected = unhex("00000000 0005 000102030405060708090a0b0c0d0e0f 101112131415161718191a1b1c1d1e1f "
                                 "20212223242526272829");
    EXPECT_EQ(Bytes(all.begin() + 0xe00, all.begin() + 0xe00 + 48), expected);
    EXPECT_EQ(all[0xe00 + 62], 42);
    EXPECT_EQ(all[0xe00 + 63], 14);
    for (size_t i = 0; i < all.size(); i++) {
        if (i < 0xe00 || i >= 0xe40) {
            ASSERT_EQ(all[i], 0xee) << i;
        }
    }
    EXPECT_EQ(dma(0, 5), unhex("4142434445"));
    EXPECT_EQ(dma(8, 1), unhex("ee"));
    EXPECT_EQ(pio(0, 64), Bytes(64, 0xee));
}

TEST_F(RequestTest, FieldsAreBigEndian)
{
    open_with(0x1000);
    ASSERT_EQ(send(0x0102), 0);
    ASSERT_EQ(send(buffer + 1, 0x0304), 0); /* 0x104 bytes are taken, and the payload starts at byte 1 */
    EXPECT_EQ(window(0xd00, 6), unhex("00000105 0304"));
}

TEST_F(RequestTest, EachSizeOfHeader_Sent_ItsBytesAndLength)
{
    open_with(1400, 64);
    uint8_t long_header[56];
    for (size_t i = 0; i < sizeof long_header; i++)
        long_header[i] = static_cast<uint8_t>(0xc0 + i);
    for (int length = 1; length <= 56; length++) {
        ASSERT_EQ(ruk_raw_send(dev, long_header, length, 0, 0, buffer, 1, RUK_NONBLOCK), 0);
        Bytes request = slot(PIO);
        EXPECT_EQ(Bytes(request.begin() + 6, request.begin() + 6 + length), Bytes(long_header, long_header + length));
        EXPECT_EQ(request[62], length);
        EXPECT_EQ(request[63], PIO);
    }
}

TEST_F(RequestTest, LengthAtTheThreshold_Pio_OneByteMore_Dma)
{
    open_with(100);
    ASSERT_EQ(send(100), 0);
    EXPECT_EQ(slot(PIO)[63], PIO);
    EXPECT_EQ(slot(DMA)[63], 0xee);
    ASSERT_EQ(send(101), 0);
    EXPECT_EQ(slot(DMA)[63], DMA);
    EXPECT_EQ(in_flight().at(0)->req_type, RUK_REQ_SEND_PIO);
    EXPECT_EQ(in_flight().at(1)->req_type, RUK_REQ_SEND_DMA);
}

TEST_F(RequestTest, ThresholdZero_EmptyPayloadAlone_IsPio)
{
    open_with(0);
    ASSERT_EQ(send(0), 0);
    EXPECT_EQ(slot(PIO)[63], PIO);
    EXPECT_EQ(window(0xd00, 6), unhex("00000000 0000"));
    EXPECT_EQ(in_flight().at(0)->req_size, 0u) << "an empty payload takes no space";
    EXPECT_EQ(slot(DMA)[63], 0xee);
    ASSERT_EQ(send(1), 0);
    EXPECT_EQ(slot(DMA)[63], DMA);
}

TEST_F(RequestTest, ThresholdAboveAllLengths_ComparedUnsigned)
{
    open_with(0xffffffff);
    ASSERT_EQ(send(4000), 0);
    EXPECT_EQ(slot(PIO)[63], PIO);
}

/* The other threshold of the record has no say. */
TEST_F(RequestTest, InlineThreshold_NeverConsulted)
{
    open_with(1400);
    EXPECT_EQ(dev->rep_inlinesend_threshold, 0u);
    dev->rep_inlinesend_threshold = 4000;
    ASSERT_EQ(send(10), 0);
    EXPECT_EQ(slot(PIO)[63], PIO);
    EXPECT_EQ(in_flight().at(0)->req_type, RUK_REQ_SEND_PIO);
}

/* ------------------------------------------------------------------ payload space */

TEST_F(RequestTest, OneByteAtTheWordsEnd_TakesOneWord_OffsetThree)
{
    open_with(1400);
    ASSERT_EQ(send(buffer + 3, 1), 0);
    EXPECT_EQ(data_offset(PIO), 3u);
    EXPECT_EQ(in_flight().at(0)->req_size, 4u);
    EXPECT_EQ(in_flight().at(0)->req_qoff, 0u);
    EXPECT_EQ(pio(0, 5), (Bytes{0, 0, 0, buffer[3], 0xee}));
    ASSERT_EQ(send(buffer + 7, 2), 0);
    EXPECT_EQ(data_offset(PIO), 4u + 3u);
    EXPECT_EQ(in_flight().at(1)->req_size, 8u);
    EXPECT_EQ(in_flight().at(1)->req_qoff, 4u);
    EXPECT_EQ(Bytes(pio(4, 5)), (Bytes{0, 0, 0, buffer[7], buffer[8]}));
}

TEST_F(RequestTest, EveryAlignmentAndLength_WholeWordsTaken_PayloadKeepsItsPlace)
{
    open_with(1400);
    for (uint32_t at = 0; at < 4; at++) {
        for (int length = 0; length <= 40; length++) {
            if (at != 0 && length == 0)
                continue;
            const uint32_t before = pio_ring().sb_tail;
            ASSERT_EQ(send(buffer + at, length), 0);
            const uint32_t words = (at + static_cast<uint32_t>(length)) / 4 + ((at + length) % 4 ? 1 : 0);
            EXPECT_EQ(in_flight().back()->req_size, 4 * words) << at << " " << length;
            EXPECT_EQ(pio_ring().sb_tail, before + 4 * words);
            EXPECT_EQ(pio_ring().sb_avail, 8192 - 4 * words);
            EXPECT_EQ(data_offset(PIO), before % 8192 + at);
            EXPECT_EQ(pio(data_offset(PIO), static_cast<size_t>(length)), Bytes(buffer + at, buffer + at + length));
            complete();
            ASSERT_EQ(ruk__try_send_completion(dev), 1);
        }
    }
}

TEST_F(RequestTest, DmaPayloadOfOneByte_TakesAPage)
{
    open_with(0);
    ASSERT_EQ(send(1), 0);
    EXPECT_EQ(in_flight().at(0)->req_size, 4096u);
    EXPECT_EQ(dma_ring().sb_avail, 0x4000u - 4096);
    ASSERT_EQ(send(buffer + 2, 1), 0);
    EXPECT_EQ(data_offset(DMA), 4096u + 2);
    EXPECT_EQ(in_flight().at(1)->req_qoff, 4096u);
    EXPECT_EQ(pio_ring().sb_avail, 8192u);
}

TEST_F(RequestTest, DmaPayloads_TakeAsManyPagesAsTheirWords)
{
    struct {
        uint32_t at;
        int length;
        uint32_t pages;
    } const cases[] = {{0, 4093, 1}, {0, 4096, 1}, {3, 4093, 1}, {3, 4094, 2},
                       {1, 4096, 2}, {0, 4097, 2}, {2, 8190, 2}};
    open_with(0);
    for (const auto &c : cases) {
        dma_ring().sb_head = dma_ring().sb_tail = 0;
        ASSERT_EQ(send(buffer + c.at, c.length), 0);
        EXPECT_EQ(in_flight().at(0)->req_size, c.pages * 4096) << c.at << " " << c.length;
        EXPECT_EQ(dma(data_offset(DMA), static_cast<size_t>(c.length)), Bytes(buffer + c.at, buffer + c.at + c.length));
        complete();
        ASSERT_EQ(ruk__try_send_completion(dev), 1);
    }
}

TEST_F(RequestTest, ReservationUpToTheRingsEnd_Stays)
{
    open_with(8192);
    ASSERT_EQ(send(6000), 0);
    ASSERT_EQ(send(2192), 0);
    EXPECT_EQ(data_offset(PIO), 6000u);
    EXPECT_EQ(in_flight().at(1)->req_size, 2192u);
    EXPECT_EQ(pio_ring().sb_avail, 0u);
    EXPECT_EQ(send(1), EAGAIN);
    EXPECT_EQ(send(0), 0) << "nothing is needed, nothing is missing";
}

/* A payload never wraps: the end of the ring is skipped, and given back with the request. */
TEST_F(RequestTest, ReservationAcrossTheRingsEnd_StartsAtTheBase_TakesTheSkippedEnd)
{
    open_with(8192);
    ASSERT_EQ(send(3000), 0);
    ASSERT_EQ(send(3000), 0);
    complete();
    ASSERT_EQ(ruk__try_send_completion(dev), 1);
    ASSERT_EQ(pio_ring().sb_avail, 5192u);

    ASSERT_EQ(send(buffer, 2196), 0);
    EXPECT_EQ(data_offset(PIO), 0u);
    ruk__request *req = in_flight().at(1);
    EXPECT_EQ(req->req_size, 2192u + 2196);
    EXPECT_EQ(req->req_qoff, 0u);
    EXPECT_EQ(req->req_buf, pio_ring().sb_base);
    EXPECT_EQ(pio_ring().sb_tail, 6000u + 2192 + 2196);
    EXPECT_EQ(pio_ring().sb_avail, 5192u - 2192 - 2196);
    EXPECT_EQ(pio(0, 2196), Bytes(buffer, buffer + 2196));

    complete(2);
    ASSERT_EQ(ruk__try_send_completion(dev), 2);
    EXPECT_EQ(pio_ring().sb_head, pio_ring().sb_tail);
    EXPECT_EQ(pio_ring().sb_avail, 8192u);
    ASSERT_EQ(send(4), 0);
    EXPECT_EQ(data_offset(PIO), 2196u) << "behind the wrapped one";
}

TEST_F(RequestTest, SkippedEndAndNeedAboveTheRoom_Fails_ThoughTheNeedAloneFits)
{
    open_with(8192);
    ASSERT_EQ(send(3000), 0);
    ASSERT_EQ(send(3000), 0);
    complete();
    ASSERT_EQ(ruk__try_send_completion(dev), 1);
    const State before = state_now(); /* 5192 bytes free, 2192 of them at the end */
    EXPECT_EQ(send(3001), EAGAIN);
    EXPECT_TRUE(state_now() == before);
    ASSERT_EQ(send(3000), 0);
    EXPECT_EQ(pio_ring().sb_avail, 0u);
    EXPECT_EQ(data_offset(PIO), 0u);
}

TEST_F(RequestTest, DmaRing_SkipsItsEndAsWell)
{
    open_with(0);
    ASSERT_EQ(send(4096), 0);
    ASSERT_EQ(send(8192), 0);
    complete(2);
    ASSERT_EQ(send(8192), 0); /* 12288 is a page before the end */
    EXPECT_EQ(data_offset(DMA), 0u);
    EXPECT_EQ(in_flight().at(0)->req_size, 4096u + 8192);
    EXPECT_EQ(dma_ring().sb_avail, 4096u);
}

TEST_F(RequestTest, RoomAfterACompletion_IsTheLengthLessWhatIsOutstanding)
{
    open_with(8192);
    for (int length : {100, 200, 400, 800})
        ASSERT_EQ(send(length), 0);
    uint32_t outstanding = 1500;
    for (uint32_t length : {100u, 200u, 400u, 800u}) {
        complete();
        ASSERT_EQ(ruk__try_send_completion(dev), 1);
        outstanding -= length;
        EXPECT_EQ(pio_ring().sb_avail, 8192 - outstanding);
    }
}

TEST_F(RequestTest, RingCountersRunOver_RoomAndOffsetsStayRight)
{
    open_with(8192);
    pio_ring().sb_head = pio_ring().sb_tail = 0xffffe000u + 8000; /* 192 bytes before both ends */
    ASSERT_EQ(send(192), 0);
    EXPECT_EQ(data_offset(PIO), 8000u);
    EXPECT_EQ(pio_ring().sb_tail, 0u);
    ASSERT_EQ(send(100), 0);
    EXPECT_EQ(data_offset(PIO), 0u);
    complete();
    ASSERT_EQ(ruk__try_send_completion(dev), 1);
    EXPECT_EQ(pio_ring().sb_avail, 8192u - 100);
    complete();
    ASSERT_EQ(ruk__try_send_completion(dev), 1);
    EXPECT_EQ(pio_ring().sb_avail, 8192u);
}

TEST_F(RequestTest, RingAtAddressZero_CountsAsNoRoom)
{
    open_with(1400);
    const uintptr_t base = pio_ring().sb_base;
    pio_ring().sb_base = 0;
    const State before = state_now();
    EXPECT_EQ(send(10), EAGAIN);
    EXPECT_TRUE(state_now() == before);
    pio_ring().sb_base = base;
    EXPECT_EQ(send(10), 0);
}

TEST_F(RequestTest, PayloadThatNeverFits_Nonblocking_TriesAgainLater)
{
    open_with(40000);
    const State before = state_now();
    EXPECT_EQ(send(8193), EAGAIN);
    EXPECT_TRUE(state_now() == before);
    dev->rep_dmasend_threshold = 0;
    EXPECT_EQ(send(0x4001), EAGAIN);
    EXPECT_EQ(send(0x4000), 0);
}

} // namespace
