/* The checksum that goes into a request. */
#include "send_rig.h"

#include <random>

namespace {

using namespace send_rig;

Bytes header_bytes(const Bytes &request) { return Bytes(request.begin() + 6, request.begin() + 48); }

class ChecksumTest : public RequestTest {
protected:
    /* Sends and returns the 16 bits at the checksum's place of the request, first byte first. */
    unsigned sent_checksum(const uint8_t *payload, int length, uint32_t partial, int offset = 40)
    {
        EXPECT_EQ(ruk_raw_send(dev, header, 42, partial, offset, payload, length, RUK_NONBLOCK), 0);
        complete();
        Bytes request = slot(static_cast<uint32_t>(length) > dev->rep_dmasend_threshold ? DMA : PIO);
        const size_t at = 6 + static_cast<size_t>(offset);
        return static_cast<unsigned>(request[at] << 8 | request[at + 1]);
    }
    /* The same, calculated: complement of the sum of the header's sum and the payload, 0 shown as all ones. */
    static unsigned expected(const uint8_t *payload, int length, uint32_t partial)
    {
        using recv_rig::operator+;
        const Bytes covered = recv_rig::be16(as_internet_sum(partial)) + Bytes(payload, payload + length);
        const uint16_t check = static_cast<uint16_t>(~internet_sum(covered));
        return check == 0 ? 0xffff : check;
    }
};

TEST_F(ChecksumTest, KnownDatagram_StoredInTheHeader)
{
    open_with(1400);
    /* "ab" 0x6162, partial 0x0102 in memory order: 0x6264, complement 0x9d9b. */
    memcpy(buffer, "ab", 2);
    EXPECT_EQ(sent_checksum(buffer, 2, 0x0201), 0x9d9bu);
    Bytes h = header_bytes(slot(PIO));
    EXPECT_EQ(Bytes(h.begin(), h.begin() + 40), Bytes(header, header + 40)) << "nothing else of it changes";
    EXPECT_EQ(header[40], 40) << "the caller's header is not written";
}

TEST_F(ChecksumTest, AnyAlignmentLengthAndPartialSum_AsCalculated)
{
    open_with(1000);
    std::mt19937 random(7);
    for (int i = 0; i < 4000; i++) {
        const uint32_t at = random() % 8;
        const int length = static_cast<int>(random() % 1473) + (at % 4 ? 1 : 0);
        const uint32_t partial = random();
        ASSERT_EQ(sent_checksum(buffer + at, length, partial), expected(buffer + at, length, partial))
            << at << " " << length << " " << partial;
    }
}

TEST_F(ChecksumTest, ExtremeContents_CarriesAreAddedBackIn)
{
    open_with(1000);
    for (int fill : {0x00, 0xff}) {
        memset(buffer, fill, sizeof buffer);
        for (uint32_t partial :
             {0u, 1u, 0xffffu, 0x10000u, 0x1ffffu, 0xfffeffffu, 0xffff0000u, 0xfffffffeu, 0xffffffffu})
            for (uint32_t at = 0; at < 4; at++)
                for (int length : {1, 2, 3, 4, 5, 63, 64, 65, 1471, 1472})
                    ASSERT_EQ(sent_checksum(buffer + at, length, partial), expected(buffer + at, length, partial))
                        << fill << " " << at << " " << length << " " << partial;
    }
}

TEST_F(ChecksumTest, SumThatComplementsToZero_SentAsAllOnes)
{
    open_with(1400);
    memset(buffer, 0xff, 4);
    EXPECT_EQ(sent_checksum(buffer, 2, 0), 0xffffu);
    EXPECT_EQ(sent_checksum(buffer, 4, 0xffffffff), 0xffffu);
    memset(buffer, 0, 4);
    EXPECT_EQ(sent_checksum(buffer, 4, 0xffff), 0xffffu);
    EXPECT_EQ(sent_checksum(buffer, 4, 0), 0xffffu) << "the complement of nothing";
}

TEST_F(ChecksumTest, OffsetZeroOrNegative_HeaderStaysAsGiven)
{
    open_with(1400);
    for (int offset : {0, -1, -40}) {
        ASSERT_EQ(ruk_raw_send(dev, header, 42, 0x12345678, offset, buffer, 20, RUK_NONBLOCK), 0);
        EXPECT_EQ(header_bytes(slot(PIO)), Bytes(header, header + 42)) << offset;
    }
}

TEST_F(ChecksumTest, AnyPlaceInTheHeader_EvenBehindIt)
{
    open_with(1400);
    memset(buffer, 0, 4);
    for (int offset : {1, 7, 41, 44, 46, 54}) {
        EXPECT_EQ(sent_checksum(buffer, 4, 0x0201, offset), 0xfefdu) << offset;
        EXPECT_EQ(slot(PIO)[62], 42);
        EXPECT_EQ(slot(PIO)[63], 13);
    }
}

} // namespace
