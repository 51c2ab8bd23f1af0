/*
 * The formats shared with the firmware, byte for byte: event ring, flow windows, requests. And the frame headers.
 */
#include "record_layout.h"

#include "nuv_events.h"
#include "nuv_requests.h"
#include "ruk__eventq.h"
#include "ruk__ipdefs.h"

using layout::big_endian;
using layout::expect_offsets;
using layout::from_bytes;

TEST(EventHeader, LiteralBytes_GiveTheFields)
{
    {
        using R = nuv_uevt_ruk_t;
        expect_offsets("nuv_uevt_ruk_t", sizeof(R), 32,
                       {LAYOUT_AT(0, 4, timestamp_hi), LAYOUT_AT(4, 4, timestamp_lo), LAYOUT_AT(8, 20, pkts),
                        LAYOUT_AT(28, 2, batch_len), LAYOUT_AT(30, 1, pkt_cnt), LAYOUT_AT(31, 1, offset)});
    }
    {
        using R = nuv_uevt_pkt_t;
        expect_offsets("nuv_uevt_pkt_t", sizeof(R), 4, {LAYOUT_AT(0, 2, length), LAYOUT_AT(2, 2, tag)});
    }

    const uint8_t bytes[] = {0x00, 0x00, 0x00, 0x12, 0x34, 0x56, 0x78, 0x9A, /* ticks */
                             0x00, 0x40, 0x00, 0x81, 0x05, 0xEE, 0x0F, 0x7F, /* packets 0 and 1 */
                             0x00, 0x01, 0x00, 0x02, 0x00, 0x03, 0x00, 0x04, /* 2 and 3 */
                             0x00, 0x05, 0x00, 0x06, 0x06, 0x80, 0x05, 0x20};
    nuv_uevt_ruk_t e = from_bytes<nuv_uevt_ruk_t>(bytes);
    EXPECT_EQ(0x12u, big_endian(&e.timestamp_hi, 4));
    EXPECT_EQ(0x3456789Au, big_endian(&e.timestamp_lo, 4));
    EXPECT_EQ(64u, big_endian(&e.pkts[0].length, 2));
    EXPECT_EQ(129u, big_endian(&e.pkts[0].tag, 2));
    EXPECT_EQ(1518u, big_endian(&e.pkts[1].length, 2));
    EXPECT_EQ(3967u, big_endian(&e.pkts[1].tag, 2));
    EXPECT_EQ(5u, big_endian(&e.pkts[4].length, 2));
    EXPECT_EQ(6u, big_endian(&e.pkts[4].tag, 2));
    EXPECT_EQ(1664u, big_endian(&e.batch_len, 2));
    EXPECT_EQ(5u, e.pkt_cnt);
    EXPECT_EQ(32u, e.offset);
    EXPECT_EQ(1664u, _uevt_length(&e));
}

TEST(EventRing, SlotConstants_AreTheFirmwares)
{
    EXPECT_EQ(64u, NUV_UEVT_SLOT);
    EXPECT_EQ(30u, NUV_UEVT_PRESENT);
    EXPECT_EQ(63u, NUV_UEVT_COMPLETE);
    EXPECT_EQ(0xFFu, NUV_UEVT_FREE_BYTE);
    EXPECT_EQ(5u, NUV_UEVT_MAX_PKTS);
    EXPECT_EQ(8u, NUV_UEVT_FRAME_OFFSET);
    EXPECT_EQ(16376u, NUV_DOORBELL_OFFSET);
}

/* A packet takes its length and 12 bytes more, rounded up to 16. */
TEST(EventRing, PacketSpace_IsLengthAndTwelveRoundedUpToSixteen)
{
    EXPECT_EQ(16u, nuv_uevt_pkt_space(0));
    EXPECT_EQ(16u, nuv_uevt_pkt_space(4));
    EXPECT_EQ(32u, nuv_uevt_pkt_space(5));
    EXPECT_EQ(80u, nuv_uevt_pkt_space(64));
    EXPECT_EQ(80u, nuv_uevt_pkt_space(68));
    EXPECT_EQ(96u, nuv_uevt_pkt_space(69));
    EXPECT_EQ(1536u, nuv_uevt_pkt_space(1518));
}

/* Freeing a slot writes two bytes and leaves the other 62 alone. */
TEST(EventRing, SlotCleared_OnlyPresenceAndCompletionBytesChange)
{
    alignas(64) uint8_t slot[64];
    for (unsigned i = 0; i < 64; ++i)
        slot[i] = uint8_t(i + 1);
    _eventq_clear(slot);
    for (unsigned i = 0; i < 64; ++i)
        EXPECT_EQ(i == 30 ? 0u : i == 63 ? 0xFFu : i + 1, unsigned(slot[i])) << "byte " << i;
}

TEST(FlowWindow, LiteralBytes_GiveTheFields)
{
    {
        using R = oxel_flow_window_t;
        expect_offsets("oxel_flow_window_t", sizeof(R), 24,
                       {LAYOUT_AT(0, 4, flow_desc), LAYOUT_AT(4, 4, flow_seqnum), LAYOUT_AT(8, 4, flow_data),
                        LAYOUT_AT(12, 4, flow_desc_off), LAYOUT_AT(16, 8, flow_data_off)});
    }
    {
        using R = oxel_endpt_flow_t;
        expect_offsets("oxel_endpt_flow_t", sizeof(R), 128,
                       {LAYOUT_AT(0, 24, rx_flow), LAYOUT_AT(24, 40, pad_rx), LAYOUT_AT(64, 24, tx_flow),
                        LAYOUT_AT(88, 40, pad_tx)});
    }

    uint8_t bytes[128];
    for (unsigned i = 0; i < 128; ++i)
        bytes[i] = uint8_t(i);
    oxel_endpt_flow_t f = from_bytes<oxel_endpt_flow_t>(bytes);
    EXPECT_EQ(0x03020100u, f.rx_flow.flow_desc);
    EXPECT_EQ(0x0B0A0908u, f.rx_flow.flow_data);
    EXPECT_EQ(UINT64_C(0x1716151413121110), f.rx_flow.flow_data_off);
    EXPECT_EQ(0x43424140u, f.tx_flow.flow_desc);
    EXPECT_EQ(UINT64_C(0x5756555453525150), f.tx_flow.flow_data_off);
}

TEST(Request, Types_AreTheFirmwares)
{
    EXPECT_EQ(0, NUV_UREQ_NONE);
    EXPECT_EQ(1, NUV_UREQ_SEND_TRUC);
    EXPECT_EQ(2, NUV_UREQ_SEND_CONNECT);
    EXPECT_EQ(3, NUV_UREQ_SEND_TINY);
    EXPECT_EQ(4, NUV_UREQ_SEND_SMALL);
    EXPECT_EQ(5, NUV_UREQ_SEND_MEDIUM);
    EXPECT_EQ(6, NUV_UREQ_SEND_RNDV);
    EXPECT_EQ(7, NUV_UREQ_SEND_NOTIFY);
    EXPECT_EQ(8, NUV_UREQ_PULL);
    EXPECT_EQ(9, NUV_UREQ_WAKE);
    EXPECT_EQ(10, NUV_UREQ_PIOBENCH);
    EXPECT_EQ(11, NUV_UREQ_PUT_TINY);
    EXPECT_EQ(12, NUV_UREQ_PUT_LARGE);
    EXPECT_EQ(13, NUV_UREQ_RUK_PIO);
    EXPECT_EQ(14, NUV_UREQ_RUK_DMA);
    EXPECT_EQ(15, NUV_UREQ_LAST_TYPE);
}

TEST(Request, LiteralBytes_GiveTheFields)
{
    {
        using R = nuv_ureq_ruk_t;
        expect_offsets("nuv_ureq_ruk_t", sizeof(R), 64,
                       {LAYOUT_AT(0, 4, ruk_data_offset), LAYOUT_AT(4, 2, ruk_data_length),
                        LAYOUT_AT(6, 56, ruk_header), LAYOUT_AT(62, 1, header_length), LAYOUT_AT(63, 1, type)});
    }

    uint8_t bytes[64] = {0x00, 0x00, 0x1F, 0xFB, 0x05, 0xC0, 0x01, 0x00, 0x5E};
    bytes[61] = 0x77;
    bytes[62] = 42;
    bytes[63] = 13;
    nuv_ureq_ruk_t r = from_bytes<nuv_ureq_ruk_t>(bytes);
    EXPECT_EQ(8187u, big_endian(&r.ruk_data_offset, 4));
    EXPECT_EQ(1472u, big_endian(&r.ruk_data_length, 2));
    EXPECT_EQ(0x01u, r.ruk_header[0]);
    EXPECT_EQ(0x5Eu, r.ruk_header[2]);
    EXPECT_EQ(0x77u, r.ruk_header[55]);
    EXPECT_EQ(42u, r.header_length);
    EXPECT_EQ(unsigned(NUV_UREQ_RUK_PIO), r.type);
}

/* A request of type t lies at byte t * 256 of its area, and its last byte is the type. */
TEST(Request, AreaConstants_AreTheFirmwares)
{
    EXPECT_EQ(0xD00u, NUV_UREQ_RUK_PIO * NUV_UREQ_STRIDE);
    EXPECT_EQ(0xE00u, NUV_UREQ_RUK_DMA * NUV_UREQ_STRIDE);
    EXPECT_EQ(64u, sizeof(nuv_ureq_t));
    EXPECT_EQ(56u, NUV_UREQ_MAX_HEADER);
    EXPECT_EQ(8192u, NUV_PIO_BYTES);
    EXPECT_EQ(4096u, NUV_DMA_PAGE);
}

/* A datagram of 3 bytes from 10.77.0.2:40000 to 10.77.0.1:5000, untagged. */
TEST(FrameView, UntaggedFrame_GivesTheHeaderFields)
{
    {
        using R = ruk__eth_hdr;
        expect_offsets("ruk__eth_hdr", sizeof(R), 56,
                       {LAYOUT_AT(0, 2, pad0), LAYOUT_AT(2, 14, eth), LAYOUT_AT(16, 20, ip), LAYOUT_AT(36, 20, ul4)});
    }
    const uint8_t bytes[60] = {0,    0,                         /* before the frame */
                               0x02, 0x6F, 0x78, 0,    0,    1, /* to */
                               0x02, 0x6F, 0x78, 0,    0,    2, /* from */
                               0x08, 0x00,                      /* IPv4 */
                               0x45, 0x00, 0x00, 0x1F, 0x12, 0x34, 0x40, 0x00, 0x40, 17,   0xAB, 0xCD, 10,  77,  0,  2,
                               10,   77,   0,    1,    0x9C, 0x40, 0x13, 0x88, 0x00, 0x0B, 0x55, 0xAA, 'a', 'b', 'c'};
    ruk__eth_generic_hdr view = from_bytes<ruk__eth_generic_hdr>(bytes);
    EXPECT_EQ(1u, view.eth.eth.eth_dest[5]);
    EXPECT_EQ(2u, view.eth.eth.eth_source[5]);
    EXPECT_EQ(0x0800u, big_endian(&view.eth.eth.eth_proto_be16, 2));
    EXPECT_EQ(0x45u, view.eth.ip.ip_ihl_version);
    EXPECT_EQ(0u, view.eth.ip.ip_tos);
    EXPECT_EQ(31u, big_endian(&view.eth.ip.ip_tot_len_be16, 2));
    EXPECT_EQ(0x1234u, big_endian(&view.eth.ip.ip_id_be16, 2));
    EXPECT_EQ(0x4000u, big_endian(&view.eth.ip.ip_frag_off_be16, 2));
    EXPECT_EQ(64u, view.eth.ip.ip_ttl);
    EXPECT_EQ(17u, view.eth.ip.ip_protocol);
    EXPECT_EQ(0xABCDu, big_endian(&view.eth.ip.ip_check_be16, 2));
    EXPECT_EQ(0x0A4D0002u, big_endian(&view.eth.ip.ip_saddr_be32, 4));
    EXPECT_EQ(0x0A4D0001u, big_endian(&view.eth.ip.ip_daddr_be32, 4));
    EXPECT_EQ(40000u, big_endian(&view.eth.ul4.udp.udp_sport_be16, 2));
    EXPECT_EQ(5000u, big_endian(&view.eth.ul4.udp.udp_dport_be16, 2));
    EXPECT_EQ(11u, big_endian(&view.eth.ul4.udp.udp_len_be16, 2));
    EXPECT_EQ(0x55AAu, big_endian(&view.eth.ul4.udp.udp_check_be16, 2));
    EXPECT_EQ('a', bytes[44]);
    EXPECT_EQ(44u, RUK_VIEW_HDRLEN);
}

/* The same on VLAN 7 with priority 7. */
TEST(FrameView, TaggedFrame_GivesTheHeaderFields)
{
    {
        using R = ruk__eth_vlan_hdr;
        expect_offsets("ruk__eth_vlan_hdr", sizeof(R), 60,
                       {LAYOUT_AT(0, 2, pad0), LAYOUT_AT(2, 18, eth), LAYOUT_AT(20, 20, ip), LAYOUT_AT(40, 20, ul4)});
    }
    const uint8_t bytes[60] = {0,    0,    0x02, 0x6F, 0x78, 0,    0,    1,    0x02, 0x6F, 0x78, 0,    0,
                               2,    0x81, 0x00, 0xE0, 0x07, 0x08, 0x00, 0x45, 0x00, 0x00, 0x1F, 0x12, 0x34,
                               0x40, 0x00, 0x40, 17,   0xAB, 0xCD, 10,   77,   0,    2,    10,   77,   0,
                               1,    0x9C, 0x40, 0x13, 0x88, 0x00, 0x0B, 0x55, 0xAA, 'a',  'b',  'c'};
    ruk__eth_generic_hdr view = from_bytes<ruk__eth_generic_hdr>(bytes);
    EXPECT_EQ(0x8100u, big_endian(&view.vlan.eth.eth_vlan_proto_be16, 2));
    EXPECT_EQ(0xE007u, big_endian(&view.vlan.eth.eth_vlan_tag_be16, 2));
    EXPECT_EQ(0x0800u, big_endian(&view.vlan.eth.eth_proto_be16, 2));
    EXPECT_EQ(0x0A4D0002u, big_endian(&view.vlan.ip.ip_saddr_be32, 4));
    EXPECT_EQ(0x0A4D0001u, big_endian(&view.vlan.ip.ip_daddr_be32, 4));
    EXPECT_EQ(40000u, big_endian(&view.vlan.ul4.udp.udp_sport_be16, 2));
    EXPECT_EQ(11u, big_endian(&view.vlan.ul4.udp.udp_len_be16, 2));
    EXPECT_EQ('a', bytes[48]);
    EXPECT_EQ(48u, RUK_VIEW_VLAN_HDRLEN);
}
