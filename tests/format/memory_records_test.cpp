/*
 * The library's own records: fields in their fixed order and of their fixed sizes, none added between or behind.
 * Debuggers, companion libraries and tools that look into a process rely on them.
 */
#include "record_layout.h"

#include "oxel_raw.h"
#include "ruk_core.h"

#include <pthread.h>
#include <sys/select.h>

using layout::expect_offsets;
using layout::expect_whole_record;
using layout::pointer;

/* Head and link of a doubly linked tail queue, of a singly linked one: two pointers; two and one. */
constexpr size_t tailq = 2 * pointer;
constexpr size_t stailq_head = 2 * pointer;

#define WHOLE(...) expect_whole_record(__FUNCTION__, sizeof(R), alignof(R), {__VA_ARGS__})

TEST(PublicRecords, Ticks_FieldOrder)
{
    using R = ruk_ticks_t;
    expect_offsets("ruk_ticks_t", sizeof(R), 24,
                   {LAYOUT_AT(0, 8, nic_ticks), LAYOUT_AT(8, 8, host_nsecs), LAYOUT_AT(16, 8, host_nsecs_delay)});
}

TEST(PublicRecords, DeviceAttrs_FieldOrder)
{
    using R = ruk_device_attrs;
    expect_offsets("ruk_device_attrs", sizeof(R), 16,
                   {LAYOUT_AT(0, 4, recvq_filter_mode), LAYOUT_AT(4, 4, recvq_size), LAYOUT_AT(8, 4, hw_timestamping),
                    LAYOUT_AT(12, 4, reserved_1)});
}

TEST(PublicRecords, RecvInfo_FieldOrder)
{
    using R = ruk_recv_info;
    WHOLE(LAYOUT_FIELD(chan, pointer), LAYOUT_FIELD(chan_context, pointer), LAYOUT_FIELD(in_buffer, pointer),
          LAYOUT_FIELD(sin_from, 16), LAYOUT_FIELD(sin_to, 16), LAYOUT_FIELD(msg_len, 4), LAYOUT_FIELD(timestamp, 8));
}

TEST(PublicRecords, InterfaceAddress_FieldOrder)
{
    using R = tov_ifaddrs;
    WHOLE(LAYOUT_FIELD(tov_ifa_next, pointer), LAYOUT_FIELD(tov_ifa_name, pointer), LAYOUT_FIELD(tov_ifa_flags, 4),
          LAYOUT_FIELD(tov_ifa_ipaddr, 4), LAYOUT_FIELD(tov_ifa_netmask, 4), LAYOUT_FIELD(tov_ifa_bcastaddr, 4),
          LAYOUT_FIELD(tov_ifa_boardnum, 4), LAYOUT_FIELD(tov_ifa_nicid, 8), LAYOUT_FIELD(tov_ifa_macaddr, 6),
          LAYOUT_FIELD(pad, 2), LAYOUT_FIELD(tov_ifa_max_endpoints, 4), LAYOUT_FIELD(tov_ifa_link_state, 4));
    if (pointer == 4) {
        EXPECT_EQ(52u, sizeof(R)); /* with its name slot of 16 bytes 68 */
    }
}

TEST(PublicConstants, Values_AreTheInterfaces)
{
    EXPECT_EQ(0x0004, RUK_API_VERSION);
    EXPECT_EQ(0x1, RUK_OPEN_THREAD_SAFE);
    EXPECT_EQ(0x2, RUK_OPEN_DISABLED);
    EXPECT_EQ(0x4, RUK_OPEN_HW_TIMESTAMPING);
    EXPECT_EQ(0x2, RUK_BIND_REUSE);
    EXPECT_EQ(0x4, RUK_BIND_KERNEL);
    EXPECT_EQ(0x8, RUK_BIND_NO_UNICAST);
    EXPECT_EQ(0x10, RUK_BIND_BROADCAST);
    EXPECT_EQ(0x4, RUK_NONBLOCK);
    EXPECT_EQ(0, RUK_RECV_DEFAULT);
    EXPECT_EQ(1, RUK_RECV_NONBLOCK);
    EXPECT_EQ(2, RUK_RECV_BLOCK);
    EXPECT_EQ(3, RUK_RECV_PEEK);
    EXPECT_EQ(4, RUK_RECV_PEEK_MSG);
    EXPECT_EQ(0, RUK_RECV_FILTER_NORMAL);
    EXPECT_EQ(1, RUK_RECV_FILTER_ALLMULTI);
    EXPECT_EQ(2, RUK_RECV_FILTER_RAW);
    EXPECT_EQ(2u, TOV_IFF_BROADCAST);
    EXPECT_EQ(1u, TOV_IFF_MULTICAST);
}

TEST(EndpointRecord, Endpoint_FieldOrder)
{
    using R = ruk__ep;
    WHOLE(LAYOUT_FIELD(addr, 16), LAYOUT_FIELD(rep_state, 4), LAYOUT_FIELD(rep_inuse, 4), LAYOUT_FIELD(rep_shutdown, 4),
          LAYOUT_FIELD(rep_epid, 4), LAYOUT_FIELD(rep_unit, 4), LAYOUT_FIELD(rep_lock, sizeof(pthread_mutex_t)),
          LAYOUT_FIELD(rep_lockp, pointer), LAYOUT_FIELD(rep_rx_lock, sizeof(pthread_mutex_t)),
          LAYOUT_FIELD(rep_rx_lockp, pointer), LAYOUT_FIELD(rep_flow, pointer), LAYOUT_FIELD(rep_handle, 4),
          LAYOUT_FIELD(rep_map, 15 * pointer), LAYOUT_FIELD(rep_ipaddr_be32, 4),
          LAYOUT_FIELD(arista_control, sizeof(arista_control)), LAYOUT_FIELD(rep_mif, pointer),
          LAYOUT_FIELD(rep_mif_addrs, pointer), LAYOUT_FIELD(rep_routes, pointer), LAYOUT_FIELD(rep_max_routes, 4),
          LAYOUT_FIELD(rep_num_valid_rts, 4), LAYOUT_FIELD(rep_channel_mix, 4), LAYOUT_FIELD(rep_chanq, tailq),
          LAYOUT_FIELD(rep_inlinesend_threshold, 4), LAYOUT_FIELD(rep_dmasend_threshold, 4),
          LAYOUT_FIELD(rep_sreq_pool, pointer), LAYOUT_FIELD(rep_sreq_alloc, pointer),
          LAYOUT_FIELD(rep_sreq_inflight, 2), LAYOUT_FIELD(rep_sreq_inflightq, stailq_head),
          LAYOUT_FIELD(rep_pioreq, sizeof(ruk__pioreq)), LAYOUT_FIELD(rep_dmabuf, sizeof(ruk__sendbuf)),
          LAYOUT_FIELD(rep_send_fd, 4), LAYOUT_FIELD(rep_send_sin, 16), LAYOUT_FIELD(rep_mac_cache, 16 * 12),
          LAYOUT_FIELD(rep_recvq_size, 4), LAYOUT_FIELD(rep_timestamping_enabled, 4),
          LAYOUT_FIELD(rep_recvq_filter_mode, 4), LAYOUT_FIELD(rep_eventq, sizeof(ruk__eventq)),
          LAYOUT_FIELD(rep_kwindow, pointer), LAYOUT_FIELD(rep_nticks, 32), LAYOUT_FIELD(rep_tag_uniq, tailq),
          LAYOUT_FIELD(rep_tag_filterq, tailq), LAYOUT_FIELD(rep_tag_delayq, tailq),
          LAYOUT_FIELD(rep_tag_table, 32 * pointer), LAYOUT_FIELD(rep_tag_cnt, 4), LAYOUT_FIELD(rep_num_packets, 8),
          LAYOUT_FIELD(rep_stats, 96));
}

TEST(EndpointRecord, States_HaveTheirNumbers)
{
    EXPECT_EQ(0u, unsigned(REP_STATE_ALLOC));
    EXPECT_EQ(1u, unsigned(REP_STATE_OPEN));
    EXPECT_EQ(2u, unsigned(REP_STATE_NEEDCLOSE));
    EXPECT_EQ(3u, unsigned(REP_STATE_CLOSING));
}

TEST(EndpointRecord, Regions_FieldOrder)
{
    using R = ruk__map;
    WHOLE(LAYOUT_FIELD(map_sendq, pointer), LAYOUT_FIELD(map_sendq_len, pointer), LAYOUT_FIELD(map_recvq, pointer),
          LAYOUT_FIELD(map_recvq_end, pointer), LAYOUT_FIELD(map_recvq_len, pointer), LAYOUT_FIELD(map_sram, pointer),
          LAYOUT_FIELD(map_sram_len, pointer), LAYOUT_FIELD(map_zreq, pointer), LAYOUT_FIELD(map_zreq_len, pointer),
          LAYOUT_FIELD(map_kwindow, pointer), LAYOUT_FIELD(map_kwindow_len, pointer),
          LAYOUT_FIELD(map_kflow_window, pointer), LAYOUT_FIELD(map_kflow_window_len, pointer),
          LAYOUT_FIELD(map_send_compcnt, pointer), LAYOUT_FIELD(map_send_compcnt_len, pointer));
}

TEST(EndpointRecord, Statistics_FieldOrder)
{
    using R = ruk__epstats;
    expect_offsets("ruk__epstats", sizeof(R), 96,
                   {LAYOUT_AT(0, 8, dropped_badproto), LAYOUT_AT(8, 8, dropped_badfilter),
                    LAYOUT_AT(16, 8, dropped_nosock), LAYOUT_AT(24, 8, dropped_runts),
                    LAYOUT_AT(32, 8, dropped_noborrow), LAYOUT_AT(40, 8, dropped_badlength),
                    LAYOUT_AT(48, 8, dropped_csum), LAYOUT_AT(56, 8, dropped_oo_bouncebufs),
                    LAYOUT_AT(64, 8, dropped_oo_events), LAYOUT_AT(72, 8, dropped_broadcast_filtered),
                    LAYOUT_AT(80, 8, used_borrowbufs), LAYOUT_AT(88, 8, used_bouncebufs)});
}

TEST(ChannelRecords, TagEntry_FieldOrder)
{
    using R = ruk__tag_entry;
    WHOLE(LAYOUT_FIELD(tage_link, tailq), LAYOUT_FIELD(tage_channel, pointer), LAYOUT_FIELD(tage_recycle, 8),
          LAYOUT_FIELD(tage_nicid, 8), LAYOUT_FIELD(tage_ip_addr, 4), LAYOUT_FIELD(tage_udp_port, 2),
          LAYOUT_FIELD(tage_src_ip_addr, 4), LAYOUT_FIELD(tage_src_ip_port, 2), LAYOUT_FIELD(tage_nuv_tag, 2),
          LAYOUT_FIELD(tage_bindflags, 2), LAYOUT_FIELD(tage_tcp, 1));
}

TEST(ChannelRecords, Channel_FieldOrder)
{
    using R = ruk__channel;
    WHOLE(LAYOUT_FIELD(ch_type, 8), LAYOUT_FIELD(ch_rep, pointer), LAYOUT_FIELD(ch_ucontext, pointer),
          LAYOUT_FIELD(ch_uni_entry, pointer), LAYOUT_FIELD(ch_bc_entry, pointer),
          LAYOUT_FIELD(ch_deferred_uni_entry, pointer), LAYOUT_FIELD(ch_mif, pointer), LAYOUT_FIELD(ch_bindflags, 4),
          LAYOUT_FIELD(ch_fd, 4), LAYOUT_FIELD(ch_ipaddr_be32, 4), LAYOUT_FIELD(ch_vlan_be16, 2),
          LAYOUT_FIELD(ch_port_be16, 2), LAYOUT_FIELD(ch_sendhandleq, 256 * tailq), LAYOUT_FIELD(ch_tag_multiq, tailq),
          LAYOUT_FIELD(ch_mreq_blocked, tailq), LAYOUT_FIELD(ch_link, tailq));
}

TEST(ChannelRecords, BlockedSource_FieldOrder)
{
    using R = ruk__mreq_blocked;
    WHOLE(LAYOUT_FIELD(mreq_link, tailq), LAYOUT_FIELD(data, 12));
}

TEST(EventRecords, Queue_FieldOrder)
{
    using R = ruk__eventq;
    WHOLE(LAYOUT_FIELD(evq_recvq_offset, pointer), LAYOUT_FIELD(evq_recvq_base, pointer),
          LAYOUT_FIELD(evq_recvq_size, pointer), LAYOUT_FIELD(evq_recvq_end, pointer), LAYOUT_FIELD(evq_recvq_flow, 8),
          LAYOUT_FIELD(evq_recvq_state, sizeof(ruk__event_state)), LAYOUT_FIELD(evq_flow, pointer),
          LAYOUT_FIELD(evq_flow_be64, pointer));
}

TEST(EventRecords, EventState_FieldOrder)
{
    using R = ruk__event_state;
    WHOLE(LAYOUT_FIELD(evs_timestamp, 8), LAYOUT_FIELD(evs_timestamp_last, 8), LAYOUT_FIELD(evs_length, 2),
          LAYOUT_FIELD(evs_length_pkts, 2), LAYOUT_FIELD(evs_pkt_cnt, 2), LAYOUT_FIELD(pad0, 2),
          LAYOUT_FIELD(evs_uevt_cur, pointer), LAYOUT_FIELD(evs_pkt_cur, pointer),
          LAYOUT_FIELD(evs_pkts, 5 * sizeof(ruk__evpacket)));
}

TEST(EventRecords, Packet_FieldOrder)
{
    using R = ruk__evpacket;
    WHOLE(LAYOUT_FIELD(pkt, pointer), LAYOUT_FIELD(tag, 2), LAYOUT_FIELD(length, 2), LAYOUT_FIELD(offset, 2),
          LAYOUT_FIELD(nfrags, 2), LAYOUT_FIELD(timestamp, 8), LAYOUT_FIELD(evp_next, pointer));
}

TEST(SwitchRecords, Keyframe_FieldOrder)
{
    using R = arista_keyframe;
    WHOLE(LAYOUT_FIELD(ak_asic_time, 8), LAYOUT_FIELD(ak_utc_time, 8), LAYOUT_FIELD(ak_last_sync_time, 8),
          LAYOUT_FIELD(ak_skew_numerator, 8), LAYOUT_FIELD(ak_skew_denominator, 8), LAYOUT_FIELD(ak_kf_timestamp, 8),
          LAYOUT_FIELD(ak_dropped_frames, 8), LAYOUT_FIELD(ak_device_id, 2), LAYOUT_FIELD(ak_egress_swport, 2),
          LAYOUT_FIELD(ak_fcs_type, 1), LAYOUT_FIELD(ak_reserved, 1));
}

TEST(SwitchRecords, Statistics_FieldOrder)
{
    using R = arista_stats;
    WHOLE(LAYOUT_FIELD(arst_kfrecv, 8), LAYOUT_FIELD(arst_kfneeded, 8), LAYOUT_FIELD(arst_kfmalformed, 8),
          LAYOUT_FIELD(arst_kfmalformedlen, 4), LAYOUT_FIELD(arst_flips, 8), LAYOUT_FIELD(arst_ptpoos, 8),
          LAYOUT_FIELD(arst_unsupported_mode, 8), LAYOUT_FIELD(arst_dropped, 8), LAYOUT_FIELD(arst_neg_adj_event, 8));
}

TEST(SwitchRecords, Control_FieldOrder)
{
    using R = arista_control;
    WHOLE(LAYOUT_FIELD(arct_mode, 4), LAYOUT_FIELD(arct_status, 4), LAYOUT_FIELD(arct_kf_check_rate, 1),
          LAYOUT_FIELD(arct_kf_check_ptp, 1), LAYOUT_FIELD(arct_kf_recv, 1), LAYOUT_FIELD(arct_kf_dupkern, 1),
          LAYOUT_FIELD(arct_kf_last_ts, 4), LAYOUT_FIELD(arct_lastkf, sizeof(arista_keyframe)),
          LAYOUT_FIELD(arct_kf_hasskew, 1), LAYOUT_FIELD(arct_kf_flipped, 8), LAYOUT_FIELD(arct_kf_ptp_wait, 8),
          LAYOUT_FIELD(arct_stats, sizeof(arista_stats)), LAYOUT_FIELD(arct_prodname, 4),
          LAYOUT_FIELD(arct_kf_dst_ip, 4), LAYOUT_FIELD(arct_last_ts, 8));
}

TEST(SwitchRecords, StatusesAndModes_HaveTheirNumbers)
{
    EXPECT_EQ(0u, unsigned(ARISTA_STATUS_DISABLED));
    EXPECT_EQ(1u, unsigned(ARISTA_STATUS_INITED));
    EXPECT_EQ(2u, unsigned(ARISTA_STATUS_CHANGEDMODE));
    EXPECT_EQ(3u, unsigned(ARISTA_STATUS_FALLBACK_LOCAL));
    EXPECT_EQ(4u, unsigned(ARISTA_STATUS_ACTIVE));
    EXPECT_EQ(5u, unsigned(ARISTA_STATUS_OUTOFSYNC));
    EXPECT_EQ(6u, unsigned(ARISTA_STATUS_NEED_KEYFRAME));
    EXPECT_EQ(0u, unsigned(ARISTA_FCS_TIMESTAMPING_DISABLED));
    EXPECT_EQ(1u, unsigned(ARISTA_FCS_TIMESTAMPING_APPENDED));
    EXPECT_EQ(2u, unsigned(ARISTA_FCS_TIMESTAMPING_OVERWRITE));
    EXPECT_EQ(3u, unsigned(ARISTA_FCS_TIMESTAMPING_TESTING_MODE));
}

TEST(SendRecords, Request_FieldOrder)
{
    using R = ruk__request;
    WHOLE(LAYOUT_FIELD(req_link, pointer), LAYOUT_FIELD(req_buf, pointer), LAYOUT_FIELD(req_size, 4),
          LAYOUT_FIELD(req_num, 4), LAYOUT_FIELD(req_qoff, 4), LAYOUT_FIELD(req_type, 4));
    EXPECT_EQ(0u, unsigned(RUK_REQ_SEND_NONE));
    EXPECT_EQ(1u, unsigned(RUK_REQ_SEND_INLINE));
    EXPECT_EQ(13u, unsigned(RUK_REQ_SEND_PIO));
    EXPECT_EQ(14u, unsigned(RUK_REQ_SEND_DMA));
}

TEST(SendRecords, SendBuffer_FieldOrder)
{
    using R = ruk__sendbuf;
    WHOLE(LAYOUT_FIELD(sb_base, pointer), LAYOUT_FIELD(sb_length, 4), LAYOUT_FIELD(sb_head, 4),
          LAYOUT_FIELD(sb_tail, 4), LAYOUT_FIELD(sb_avail, 4));
}

TEST(SendRecords, RequestChannel_FieldOrder)
{
    using R = ruk__pioreq;
    WHOLE(LAYOUT_FIELD(compl_done, pointer), LAYOUT_FIELD(tx_flow, pointer), LAYOUT_FIELD(pio_req_db, pointer),
          LAYOUT_FIELD(pio_sb, pointer + 16));
}

TEST(SendRecords, HeaderTemplate_FieldOrder)
{
    using R = ruk__hdrinfo;
    WHOLE(LAYOUT_FIELD(ureq_data, 128), LAYOUT_FIELD(ureq, pointer), LAYOUT_FIELD(eth_proto, 2),
          LAYOUT_FIELD(ip_ttl, 1), LAYOUT_FIELD(ip_proto, 1), LAYOUT_FIELD(data, pointer),
          LAYOUT_FIELD(hdr_eth, pointer), LAYOUT_FIELD(hdr_ip, pointer), LAYOUT_FIELD(hdr_udp, pointer),
          LAYOUT_FIELD(hdr_tcp, pointer), LAYOUT_FIELD(csum_ip_partial, 4), LAYOUT_FIELD(csum_hdr_partial, 4));
}

TEST(SendRecords, SendHandle_FieldOrder)
{
    using R = ruk__send;
    WHOLE(LAYOUT_FIELD(dhs_socket, pointer), LAYOUT_FIELD(dhs_link, tailq), LAYOUT_FIELD(dhs_rep, pointer),
          LAYOUT_FIELD(dhs_chan, pointer), LAYOUT_FIELD(dhs_dpeer, 12), LAYOUT_FIELD(dhs_dport_be16, 2),
          LAYOUT_FIELD(dhs_ip_proto, 1), LAYOUT_FIELD(dhs_isuser, 1), LAYOUT_FIELD(dhs_hashval, 4),
          LAYOUT_FIELD(dhs_peer_hdrinfo, sizeof(ruk__hdrinfo)));
}

TEST(SendRecords, PeerAddress_FieldOrder)
{
    using R = ruk__peer_addr;
    expect_offsets("ruk__peer_addr", sizeof(R), 12,
                   {LAYOUT_AT(0, 4, pa_ip_addr_be32), LAYOUT_AT(4, 6, pa_eth_dest), LAYOUT_AT(10, 2, pa_isvalid)});
}

TEST(SendRecords, Route_FieldOrder)
{
    using R = rep_rtentry;
    expect_offsets(
        "rep_rtentry", sizeof(R), 16,
        {LAYOUT_AT(0, 4, dst_addr), LAYOUT_AT(4, 4, gw_addr), LAYOUT_AT(8, 4, mask), LAYOUT_AT(12, 4, flags)});
}

TEST(PlatformRecords, SocketFunctions_FieldOrder)
{
    using R = tov_socket_functions_t;
    WHOLE(LAYOUT_FIELD(dup, pointer), LAYOUT_FIELD(dup2, pointer), LAYOUT_FIELD(socket, pointer),
          LAYOUT_FIELD(bind, pointer), LAYOUT_FIELD(listen, pointer), LAYOUT_FIELD(connect, pointer),
          LAYOUT_FIELD(accept, pointer), LAYOUT_FIELD(recvfrom, pointer), LAYOUT_FIELD(sendto, pointer),
          LAYOUT_FIELD(recv, pointer), LAYOUT_FIELD(send, pointer), LAYOUT_FIELD(close, pointer),
          LAYOUT_FIELD(getsockname, pointer), LAYOUT_FIELD(getpeername, pointer), LAYOUT_FIELD(setsockopt, pointer),
          LAYOUT_FIELD(getsockopt, pointer), LAYOUT_FIELD(select, pointer), LAYOUT_FIELD(ioctl, pointer));
}

TEST(PlatformRecords, AdapterInfo_FieldOrder)
{
    using R = tov_nic_info;
    WHOLE(LAYOUT_FIELD(boardnum, 4), LAYOUT_FIELD(nic_type, 4), LAYOUT_FIELD(nic_id, 8),
          LAYOUT_FIELD(nic_max_endpoints, 4), LAYOUT_FIELD(nic_link_state, 4), LAYOUT_FIELD(curr_nic_id, 8));
}

TEST(PlatformRecords, MemoryPool_FieldOrder)
{
    using R = tov_mpool;
    WHOLE(LAYOUT_FIELD(base, pointer), LAYOUT_FIELD(size, pointer), LAYOUT_FIELD(elem_next, pointer),
          LAYOUT_FIELD(elem_sz, pointer), LAYOUT_FIELD(elem_avail, 4));
}

TEST(PlatformRecords, RawEndpoint_FieldOrder)
{
    using R = oxel_raw_endpoint;
    WHOLE(LAYOUT_FIELD(lock, sizeof(pthread_mutex_t)), LAYOUT_FIELD(next_event_lock, sizeof(pthread_mutex_t)),
          LAYOUT_FIELD(handle, 4), LAYOUT_FIELD(board_num, 4), LAYOUT_FIELD(board_type, 4),
          LAYOUT_FIELD(pending_sends, 4));
    EXPECT_EQ(64, OXEL_RAW_MAX_PENDING);
}
