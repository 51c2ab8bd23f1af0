/*
 * Send handles: header templates, and datagrams to an address.
 */
#include "ruk__iputils.h"
#include "ruk_core.h"

#include <cstring>

#define IP_TTL_DEFAULT   64
#define IP_TTL_GROUP     1
#define IP_DONT_FRAGMENT 0x4000
#define HEADER_LENGTH    42 /* Ethernet, IPv4, UDP */
#define VLAN_TAG_LENGTH  4

static void *at(nuv_ureq_t *ureq, size_t offset) { return ureq->bytes + offset; }

/* Ethernet header, with the channel's VLAN tag; the pointers to what follows it. */
static void fill_eth(struct ruk__hdrinfo *info, const struct ruk__channel *chan, const uint8_t *dest,
                     const uint8_t *source)
{
    const bool tagged = chan->ch_vlan_be16 != 0;
    const size_t shift = tagged ? VLAN_TAG_LENGTH : 0;
    info->eth_proto = tagged ? RUK_ETHERTYPE_VLAN : RUK_ETHERTYPE_IPV4;
    info->hdr_eth = (struct u_eth_hdr *)at(info->ureq, tagged ? 4 : 6);
    info->hdr_ip = (struct u_ipv4_hdr *)at(info->ureq, 20 + shift);
    info->hdr_udp = (struct u_udp_hdr *)at(info->ureq, 40 + shift);
    info->hdr_tcp = (struct u_tcp_hdr *)at(info->ureq, 40 + shift);

    struct u_ethvlan_hdr *eth = (struct u_ethvlan_hdr *)at(info->ureq, 6);
    memcpy(eth->eth_dest, dest, 6);
    memcpy(eth->eth_source, source, 6);
    eth->eth_vlan_proto_be16 = tov_be16(info->eth_proto); /* the type itself when untagged */
    if (tagged) {
        eth->eth_vlan_tag_be16 = chan->ch_vlan_be16;
        eth->eth_proto_be16 = tov_be16(RUK_ETHERTYPE_IPV4);
    }
}

static void fill_ip(struct ruk__hdrinfo *info, uint32_t saddr_be32, uint32_t daddr_be32)
{
    struct u_ipv4_hdr *ip = info->hdr_ip;
    ip->ip_ihl_version = 0x45;
    ip->ip_tos = 0;
    ip->ip_tot_len_be16 = 0; /* both by each send */
    ip->ip_check_be16 = 0;
    ip->ip_id_be16 = 0;
    ip->ip_frag_off_be16 = tov_be16(IP_DONT_FRAGMENT);
    ip->ip_ttl = info->ip_ttl;
    ip->ip_protocol = info->ip_proto;
    ip->ip_saddr_be32 = saddr_be32;
    ip->ip_daddr_be32 = daddr_be32;

    uint16_t words[sizeof *ip / 2];
    memcpy(words, ip, sizeof words);
    info->csum_ip_partial = 0;
    for (uint16_t word : words)
        info->csum_ip_partial += word;
}

static void fill_ports(struct ruk__hdrinfo *info, uint16_t sport_be16, uint16_t dport_be16)
{
    if (info->ip_proto == RUK_IPPROTO_TCP) {
        info->hdr_tcp->tcp_sport_be16 = sport_be16;
        info->hdr_tcp->tcp_dport_be16 = dport_be16;
    } else if (info->ip_proto == RUK_IPPROTO_UDP) {
        info->hdr_udp->udp_sport_be16 = sport_be16;
        info->hdr_udp->udp_dport_be16 = dport_be16;
        info->ureq->ruk.header_length = HEADER_LENGTH + (info->eth_proto == RUK_ETHERTYPE_VLAN ? VLAN_TAG_LENGTH : 0);
    }
}

extern "C" void ruk__sendhandle_init(struct ruk__send *dhs, struct ruk__channel *dchan,
                                     const struct ruk__peer_addr *paddr, const struct sockaddr_in *psin, int ip_ttl,
                                     int ip_proto)
{
    struct ruk__hdrinfo *info = &dhs->dhs_peer_hdrinfo;
    dhs->dhs_chan = dchan;
    dhs->dhs_rep = dchan->ch_rep;
    dhs->dhs_dpeer.pa_ip_addr_be32 = paddr->pa_ip_addr_be32;
    memcpy(dhs->dhs_dpeer.pa_eth_dest, paddr->pa_eth_dest, 6);
    dhs->dhs_ip_proto = (uint8_t)ip_proto;
    dhs->dhs_dport_be16 = psin->sin_port;

    const uint32_t saddr = dchan->ch_ipaddr_be32;
    const uint32_t daddr = dhs->dhs_dpeer.pa_ip_addr_be32;
    if (ip_ttl == 0)
        ip_ttl = ruk__ip_is_group(daddr) ? IP_TTL_GROUP : IP_TTL_DEFAULT;
    info->ip_ttl = (uint8_t)ip_ttl;
    info->ip_proto = (uint8_t)ip_proto;
    info->csum_hdr_partial = ruk__csum_add((uint32_t)psin->sin_port + dchan->ch_port_be16 + (uint32_t)ip_proto * 256,
                                           ruk__csum_add(saddr, daddr));

    info->ureq = (nuv_ureq_t *)(((uintptr_t)info->ureq_data + 63) & ~(uintptr_t)63);
    info->data = info->ureq->bytes + 4;
    fill_eth(info, dchan, dhs->dhs_dpeer.pa_eth_dest, dchan->ch_rep->rep_mif->tov_ifa_macaddr);
    fill_ports(info, dchan->ch_port_be16, psin->sin_port);
    fill_ip(info, saddr, daddr);
}

extern "C" int ruk_sendto(ruk_channel_t ch, const struct sockaddr_in *sin, const void *buf, int len, int flags)
{
    ruk_send_t dhs;
    int rc = ruk__do_send_connect(ch, sin, flags, 0, &dhs, 0);
    if (rc != 0)
        return rc;
    return ruk_send(dhs, buf, len, flags);
}

extern "C" int ruk__post_soft_data(tov_handle_t d) { return tov_ioctl(d, OXEL_POST_SOFT_DATA, nullptr, 0); }
