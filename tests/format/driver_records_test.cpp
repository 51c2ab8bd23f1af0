/*
 * The driver's command codes and argument records, byte for byte: driver and library are built apart, so a code
 * or offset that moved would be noticed by neither.
 */
#include "record_layout.h"

#include "nuv_types.h"

using layout::expect_offsets;
using layout::from_bytes;

TEST(DriverCommands, Codes_AreTheDrivers)
{
    EXPECT_EQ(19713u, unsigned(OXEL_GET_VERSION));
    EXPECT_EQ(19717u, unsigned(OXEL_GET_BOARD_CNT));
    EXPECT_EQ(19722u, unsigned(OXEL_GET_NIC_TYPE));
    EXPECT_EQ(19725u, unsigned(OXEL_GET_NIC_ID));
    EXPECT_EQ(19753u, unsigned(OXEL_GET_NIC_TICKS));
    EXPECT_EQ(19762u, unsigned(OXEL_GET_MAX_ENDPTS));
    EXPECT_EQ(19766u, unsigned(OXEL_ARP_RESOLVE));
    EXPECT_EQ(19767u, unsigned(OXEL_GET_CURR_NIC_ID));
    EXPECT_EQ(19803u, unsigned(OXEL_RAW_SEND));
    EXPECT_EQ(19804u, unsigned(OXEL_RAW_NEXT_EVENT));
    EXPECT_EQ(19867u, unsigned(OXEL_WAIT_SEND_COMPLETION));
    EXPECT_EQ(19868u, unsigned(OXEL_GET_RUK_PARAMS));
    EXPECT_EQ(19869u, unsigned(OXEL_SET_RUK_PARAMS));
    EXPECT_EQ(19871u, unsigned(OXEL_SET_FILTER_MODE));
    EXPECT_EQ(19872u, unsigned(OXEL_ATTACH_SOFT));
    EXPECT_EQ(19873u, unsigned(OXEL_POST_SOFT_DATA));
    EXPECT_EQ(20625u, unsigned(OXEL_GET_COPYBLOCK));
    EXPECT_EQ(20631u, unsigned(OXEL_GET_SREQS_CNT));
    EXPECT_EQ(20660u, unsigned(OXEL_GET_LINK_STATE));
    EXPECT_EQ(20675u, unsigned(OXEL_RAW_OPEN));
    EXPECT_EQ(20713u, unsigned(OXEL_SET_ENDPT));
    EXPECT_EQ(20714u, unsigned(OXEL_ENABLE_ENDPT));
    EXPECT_EQ(20715u, unsigned(OXEL_RX_FILTER));
}

TEST(DriverCommands, EndpointTypes_AreTheDrivers)
{
    EXPECT_EQ(0u, unsigned(OXEL_ES_FREE));
    EXPECT_EQ(1u, unsigned(OXEL_ES_RAW));
    EXPECT_EQ(100u, unsigned(OXEL_ES_KZ));
    EXPECT_EQ(200u, unsigned(OXEL_ES_RUK));
    EXPECT_EQ(201u, unsigned(OXEL_ES_RUK_SOFT));
}

TEST(DriverCommands, FilterProtocols_AreTheDrivers)
{
    EXPECT_EQ(0u, unsigned(OXEL_FILTER_UDP));
    EXPECT_EQ(1u, unsigned(OXEL_FILTER_TCP));
    EXPECT_EQ(2u, unsigned(OXEL_FILTER_IP253));
}

TEST(DriverVersionRecord, LiteralBytes_GiveTheFields)
{
    using R = oxel_get_version_t;
    expect_offsets("oxel_get_version_t", sizeof(R), 192,
                   {LAYOUT_AT(0, 4, driver_api_magic), LAYOUT_AT(4, 60, version_str), LAYOUT_AT(64, 128, build_str)});

    uint8_t bytes[192] = {0x23, 0x04, 0x00, 0x00, '3', '.', '1', 0};
    bytes[63] = 'v';
    bytes[64] = 'B';
    bytes[65] = 'd';
    bytes[191] = 'z';
    R r = from_bytes<R>(bytes);
    EXPECT_EQ(0x0423u, r.driver_api_magic);
    EXPECT_STREQ("3.1", r.version_str);
    EXPECT_EQ('v', r.version_str[59]);
    EXPECT_STREQ("Bd", r.build_str);
    EXPECT_EQ('z', r.build_str[127]);
}

TEST(DriverNicIdRecord, LiteralBytes_GiveTheFields)
{
    using R = oxel_get_nic_id_t;
    expect_offsets("oxel_get_nic_id_t", sizeof(R), 16,
                   {LAYOUT_AT(0, 4, board), LAYOUT_AT(4, 4, pad), LAYOUT_AT(8, 8, nic_id)});

    /* The identity is a number in the host's order: 02:11:22:33:44:55 has 0x55 as its lowest byte. */
    const uint8_t bytes[] = {7, 0, 0, 0, 0, 0, 0, 0, 0x55, 0x44, 0x33, 0x22, 0x11, 0x02, 0, 0};
    R r = from_bytes<R>(bytes);
    EXPECT_EQ(7u, r.board);
    EXPECT_EQ(UINT64_C(0x021122334455), r.nic_id);
}

TEST(DriverTicksRecord, LiteralBytes_GiveTheFields)
{
    using R = oxel_get_nic_ticks_t;
    expect_offsets("oxel_get_nic_ticks_t", sizeof(R), 32,
                   {LAYOUT_AT(0, 8, board), LAYOUT_AT(8, 8, nic_ticks), LAYOUT_AT(16, 8, host_nsecs),
                    LAYOUT_AT(24, 8, host_nsecs_delay)});

    const uint8_t bytes[] = {1,    2,    3,    4,    5,    6,    7,    8,    0x11, 0x12, 0x13,
                             0x14, 0x15, 0x16, 0x17, 0x18, 0x21, 0x22, 0x23, 0x24, 0x25, 0x26,
                             0x27, 0x28, 0x31, 0x32, 0x33, 0x34, 0x35, 0x36, 0x37, 0x38};
    R r = from_bytes<R>(bytes);
    EXPECT_EQ(UINT64_C(0x0807060504030201), r.board);
    EXPECT_EQ(UINT64_C(0x1817161514131211), r.nic_ticks);
    EXPECT_EQ(UINT64_C(0x2827262524232221), r.host_nsecs);
    EXPECT_EQ(UINT64_C(0x3837363534333231), r.host_nsecs_delay);
}

TEST(DriverParamsRecord, LiteralBytes_GiveTheFields)
{
    using R = oxel_ruk_params_t;
    expect_offsets("oxel_ruk_params_t", sizeof(R), 16,
                   {LAYOUT_AT(0, 4, dmasend_threshold), LAYOUT_AT(4, 4, recvq_size), LAYOUT_AT(8, 4, recvq_filter_mode),
                    LAYOUT_AT(12, 4, reserved_0)});

    const uint8_t bytes[] = {0x00, 0x01, 0, 0, 0x00, 0x00, 0x40, 0x00, 2, 0, 0, 0, 9, 0, 0, 0};
    R r = from_bytes<R>(bytes);
    EXPECT_EQ(256u, r.dmasend_threshold);
    EXPECT_EQ(4194304u, r.recvq_size);
    EXPECT_EQ(2u, r.recvq_filter_mode);
    EXPECT_EQ(9u, r.reserved_0);
}

TEST(DriverEndpointRecord, LiteralBytes_GiveTheFields)
{
    using R = oxel_set_endpt_t;
    expect_offsets("oxel_set_endpt_t", sizeof(R), 8, {LAYOUT_AT(0, 4, endpoint), LAYOUT_AT(4, 4, endpt_type)});

    const uint8_t bytes[] = {0xFE, 0xFF, 0xFF, 0xFF, 200, 0, 0, 0};
    R r = from_bytes<R>(bytes);
    EXPECT_EQ(-2, r.endpoint);
    EXPECT_EQ(unsigned(OXEL_ES_RUK), r.endpt_type);
}

TEST(DriverFilterRecord, LiteralBytes_GiveTheFields)
{
    using R = oxel_rx_filter_t;
    expect_offsets("oxel_rx_filter_t", sizeof(R), 16,
                   {LAYOUT_AT(0, 4, ip_addr), LAYOUT_AT(4, 2, port), LAYOUT_AT(6, 2, vlan), LAYOUT_AT(8, 2, tag),
                    LAYOUT_AT(10, 1, remove), LAYOUT_AT(11, 1, kernel), LAYOUT_AT(12, 1, tcp), LAYOUT_AT(13, 3, pad)});

    /* 10.77.0.1 port 5000 on VLAN 7 with priority 7, to tag 129, kept from the kernel. */
    const uint8_t bytes[] = {0x01, 0x00, 0x4D, 0x0A, 0x88, 0x13, 0x07, 0xE0, 0x81, 0x00, 1, 0, 2, 0, 0, 0};
    R r = from_bytes<R>(bytes);
    EXPECT_EQ(0x0A4D0001u, r.ip_addr);
    EXPECT_EQ(5000u, r.port);
    EXPECT_EQ(0xE007u, r.vlan);
    EXPECT_EQ(129u, r.tag);
    EXPECT_EQ(1u, r.remove);
    EXPECT_EQ(0u, r.kernel);
    EXPECT_EQ(2u, r.tcp);
}

TEST(DriverRegionRecord, LiteralBytes_GiveTheFields)
{
    using R = kz_get_copyblock_t;
    expect_offsets("kz_get_copyblock_t", sizeof(R), 64,
                   {LAYOUT_AT(0, 4, sendq_offset), LAYOUT_AT(4, 4, sendq_len), LAYOUT_AT(8, 4, recvq_offset),
                    LAYOUT_AT(12, 4, recvq_len), LAYOUT_AT(16, 4, eventq_offset), LAYOUT_AT(20, 4, eventq_len),
                    LAYOUT_AT(24, 4, user_mmapped_sram_offset), LAYOUT_AT(28, 4, user_mmapped_sram_len),
                    LAYOUT_AT(32, 4, user_mmapped_zreq_offset), LAYOUT_AT(36, 4, user_mmapped_zreq_len),
                    LAYOUT_AT(40, 4, kernel_window_offset), LAYOUT_AT(44, 4, kernel_window_len),
                    LAYOUT_AT(48, 4, flow_window_offset), LAYOUT_AT(52, 4, flow_window_len),
                    LAYOUT_AT(56, 4, send_compcnt_offset), LAYOUT_AT(60, 4, send_compcnt_len)});

    uint8_t bytes[64];
    for (unsigned i = 0; i < 64; ++i)
        bytes[i] = uint8_t(i);
    R r = from_bytes<R>(bytes);
    EXPECT_EQ(0x03020100u, r.sendq_offset);
    EXPECT_EQ(0x0F0E0D0Cu, r.recvq_len);
    EXPECT_EQ(0x1B1A1918u, r.user_mmapped_sram_offset);
    EXPECT_EQ(0x27262524u, r.user_mmapped_zreq_len);
    EXPECT_EQ(0x2B2A2928u, r.kernel_window_offset);
    EXPECT_EQ(0x37363534u, r.flow_window_len);
    EXPECT_EQ(0x3B3A3938u, r.send_compcnt_offset);
}

TEST(DriverRawSendRecord, LiteralBytes_GiveTheFields)
{
    using R = oxel_raw_send_t;
    expect_offsets("oxel_raw_send_t", sizeof(R), 32,
                   {LAYOUT_AT(0, 8, data_pointer), LAYOUT_AT(8, 8, route_pointer), LAYOUT_AT(16, 8, context),
                    LAYOUT_AT(24, 1, route_length), LAYOUT_AT(25, 1, physical_port), LAYOUT_AT(26, 2, data_length)});

    const uint8_t bytes[] = {0x10, 0x20, 0x30, 0x40, 0, 0, 0, 0, 0x11, 0x21, 0x31, 0x41, 1, 0, 0, 0,
                             0xEF, 0xBE, 0xAD, 0xDE, 0, 0, 0, 0, 5,    3,    0xEA, 0x05, 0, 0, 0, 0};
    R r = from_bytes<R>(bytes);
    EXPECT_EQ(UINT64_C(0x40302010), r.data_pointer);
    EXPECT_EQ(UINT64_C(0x141312111), r.route_pointer);
    EXPECT_EQ(UINT64_C(0xDEADBEEF), r.context);
    EXPECT_EQ(5u, r.route_length);
    EXPECT_EQ(3u, r.physical_port);
    EXPECT_EQ(1514u, r.data_length);
}

TEST(DriverRawEventRecord, LiteralBytes_GiveTheFields)
{
    using R = oxel_raw_next_event_t;
    expect_offsets("oxel_raw_next_event_t", sizeof(R), 40,
                   {LAYOUT_AT(0, 8, recv_buffer), LAYOUT_AT(8, 8, context), LAYOUT_AT(16, 8, nic_ticks),
                    LAYOUT_AT(24, 4, incoming_port), LAYOUT_AT(28, 4, recv_bytes), LAYOUT_AT(32, 4, timeout),
                    LAYOUT_AT(36, 4, status)});

    const uint8_t bytes[] = {1, 0, 0, 0,    0, 0, 0, 0x7F, 2,    0,    0, 0, 0,    0,    0, 0x80, 3, 0, 0, 0,
                             0, 0, 0, 0x40, 4, 0, 0, 0,    0xEE, 0x05, 0, 0, 0xE8, 0x03, 0, 0,    1, 0, 0, 0};
    R r = from_bytes<R>(bytes);
    EXPECT_EQ(UINT64_C(0x7F00000000000001), r.recv_buffer);
    EXPECT_EQ(UINT64_C(0x8000000000000002), r.context);
    EXPECT_EQ(UINT64_C(0x4000000000000003), r.nic_ticks);
    EXPECT_EQ(4u, r.incoming_port);
    EXPECT_EQ(1518u, r.recv_bytes);
    EXPECT_EQ(1000u, r.timeout);
    EXPECT_EQ(1u, r.status);
}

TEST(KernelWindow, LiteralBytes_GiveTheFields)
{
    {
        using R = kz_kernel_window_t;
        expect_offsets("kz_kernel_window_t", sizeof(R), 192,
                       {LAYOUT_AT(0, 4, jiffies), LAYOUT_AT(4, 4, hz), LAYOUT_AT(8, 56, pad0),
                        LAYOUT_AT(64, 68, clksync), LAYOUT_AT(132, 60, pad1)});
    }
    {
        using R = oxel_clksync_seq_t;
        expect_offsets("oxel_clksync_seq_t", sizeof(R), 68,
                       {LAYOUT_AT(0, 4, seqnum), LAYOUT_AT(4, 32, clkp), LAYOUT_AT(36, 32, nticks)});
    }
    {
        using R = oxel_clksync_params_t;
        expect_offsets("oxel_clksync_params_t", sizeof(R), 32,
                       {LAYOUT_AT(0, 8, nsecs_base), LAYOUT_AT(8, 8, hostnic_drift_nsecs), LAYOUT_AT(16, 8, multiplier),
                        LAYOUT_AT(24, 8, error_nsecs)});
    }
    {
        using R = oxel_clksync_nticks_t;
        expect_offsets("oxel_clksync_nticks_t", sizeof(R), 32,
                       {LAYOUT_AT(0, 8, ticks), LAYOUT_AT(8, 8, ticks_mask), LAYOUT_AT(16, 8, nsecs),
                        LAYOUT_AT(24, 4, nt_numerator), LAYOUT_AT(28, 4, nt_denominator)});
    }

    uint8_t bytes[192];
    for (unsigned i = 0; i < 192; ++i)
        bytes[i] = uint8_t(i);
    kz_kernel_window_t w = from_bytes<kz_kernel_window_t>(bytes);
    EXPECT_EQ(0x03020100u, w.jiffies);
    EXPECT_EQ(0x07060504u, w.hz);
    EXPECT_EQ(64u + 0x43424100u, w.clksync.seqnum);
    EXPECT_EQ(UINT64_C(0x4B4A494847464544), w.clksync.clkp.nsecs_base);
    EXPECT_EQ(INT64_C(0x535251504F4E4D4C), w.clksync.clkp.hostnic_drift_nsecs);
    EXPECT_EQ(INT64_C(0x5B5A595857565554), w.clksync.clkp.multiplier);
    EXPECT_EQ(INT64_C(0x636261605F5E5D5C), w.clksync.clkp.error_nsecs);
    EXPECT_EQ(UINT64_C(0x6B6A696867666564), w.clksync.nticks.ticks);
    EXPECT_EQ(UINT64_C(0x737271706F6E6D6C), w.clksync.nticks.ticks_mask);
    EXPECT_EQ(UINT64_C(0x7B7A797877767574), w.clksync.nticks.nsecs);
    EXPECT_EQ(0x7F7E7D7Cu, w.clksync.nticks.nt_numerator);
    EXPECT_EQ(0x83828180u, w.clksync.nticks.nt_denominator);
    EXPECT_EQ(132u, w.pad1[0]);
}
