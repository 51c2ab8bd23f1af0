/*
 * Ethernet, IPv4, UDP and TCP headers as they lie in a frame: network byte order, no padding.
 */
#ifndef RUK__IPDEFS_H
#define RUK__IPDEFS_H

#include "nuv_types.h"

#define RUK_ETHERTYPE_IPV4 0x0800
#define RUK_ETHERTYPE_VLAN 0x8100
#define RUK_ETHERTYPE_IPV6 0x86DD

#define RUK_IPPROTO_TCP      6
#define RUK_IPPROTO_UDP      17
#define RUK_IPPROTO_KEYFRAME 253

struct __attribute__((packed)) u_eth_hdr {
    uint8_t eth_dest[6];
    uint8_t eth_source[6];
    uint16_t eth_proto_be16;
};
NUV_ASSERT_SIZE(u_eth_hdr, 14);
NUV_ASSERT_AT(u_eth_hdr, eth_proto_be16, 12);

struct __attribute__((packed)) u_ethvlan_hdr {
    uint8_t eth_dest[6];
    uint8_t eth_source[6];
    uint16_t eth_vlan_proto_be16; /* 0x8100 */
    uint16_t eth_vlan_tag_be16;   /* tag control word */
    uint16_t eth_proto_be16;
};
NUV_ASSERT_SIZE(u_ethvlan_hdr, 18);
NUV_ASSERT_AT(u_ethvlan_hdr, eth_vlan_proto_be16, 12);
NUV_ASSERT_AT(u_ethvlan_hdr, eth_vlan_tag_be16, 14);
NUV_ASSERT_AT(u_ethvlan_hdr, eth_proto_be16, 16);

struct __attribute__((packed)) u_ipv4_hdr {
    uint8_t ip_ihl_version;
    uint8_t ip_tos;
    uint16_t ip_tot_len_be16;
    uint16_t ip_id_be16;
    uint16_t ip_frag_off_be16;
    uint8_t ip_ttl;
    uint8_t ip_protocol;
    uint16_t ip_check_be16;
    uint32_t ip_saddr_be32;
    uint32_t ip_daddr_be32;
};
NUV_ASSERT_SIZE(u_ipv4_hdr, 20);
NUV_ASSERT_AT(u_ipv4_hdr, ip_tot_len_be16, 2);
NUV_ASSERT_AT(u_ipv4_hdr, ip_frag_off_be16, 6);
NUV_ASSERT_AT(u_ipv4_hdr, ip_protocol, 9);
NUV_ASSERT_AT(u_ipv4_hdr, ip_check_be16, 10);
NUV_ASSERT_AT(u_ipv4_hdr, ip_saddr_be32, 12);
NUV_ASSERT_AT(u_ipv4_hdr, ip_daddr_be32, 16);

struct __attribute__((packed)) u_udp_hdr {
    uint16_t udp_sport_be16;
    uint16_t udp_dport_be16;
    uint16_t udp_len_be16;
    uint16_t udp_check_be16;
};
NUV_ASSERT_SIZE(u_udp_hdr, 8);
NUV_ASSERT_AT(u_udp_hdr, udp_dport_be16, 2);
NUV_ASSERT_AT(u_udp_hdr, udp_len_be16, 4);
NUV_ASSERT_AT(u_udp_hdr, udp_check_be16, 6);

struct __attribute__((packed)) u_tcp_hdr {
    uint16_t tcp_sport_be16;
    uint16_t tcp_dport_be16;
    uint32_t tcp_seq_be32;
    uint32_t tcp_ack_be32;
    uint16_t tcp_flags_be16;
    uint16_t tcp_window_be16;
    uint16_t tcp_check_be16;
    uint16_t tcp_urgent_be16;
};
NUV_ASSERT_SIZE(u_tcp_hdr, 20);
NUV_ASSERT_AT(u_tcp_hdr, tcp_dport_be16, 2);

union u_ul4_hdr {
    u_udp_hdr udp;
    u_tcp_hdr tcp;
};
NUV_ASSERT_SIZE(u_ul4_hdr, 20);

/*
 * The view through which a received frame is parsed. It starts 2 bytes before the frame, so that its fields
 * are naturally aligned when the view itself is.
 */
struct __attribute__((packed)) ruk__eth_hdr {
    uint8_t pad0[2];
    u_eth_hdr eth;
    u_ipv4_hdr ip;
    u_ul4_hdr ul4;
};
NUV_ASSERT_AT(ruk__eth_hdr, eth, 2);
NUV_ASSERT_AT(ruk__eth_hdr, ip, 16);
NUV_ASSERT_AT(ruk__eth_hdr, ul4, 36);

struct __attribute__((packed)) ruk__eth_vlan_hdr {
    uint8_t pad0[2];
    u_ethvlan_hdr eth;
    u_ipv4_hdr ip;
    u_ul4_hdr ul4;
};
NUV_ASSERT_AT(ruk__eth_vlan_hdr, eth, 2);
NUV_ASSERT_AT(ruk__eth_vlan_hdr, ip, 20);
NUV_ASSERT_AT(ruk__eth_vlan_hdr, ul4, 40);

union ruk__eth_generic_hdr {
    ruk__eth_hdr eth;
    ruk__eth_vlan_hdr vlan;
    uint8_t bytes[60];
};
NUV_ASSERT_SIZE(ruk__eth_generic_hdr, 60);

#define RUK_VIEW_PAD         2u  /* bytes of the view before the frame */
#define RUK_VIEW_HDRLEN      44u /* view start to payload, untagged */
#define RUK_VIEW_VLAN_HDRLEN 48u /* view start to payload, tagged */

#endif
