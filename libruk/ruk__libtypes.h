/*
 * The library's records: endpoint, channel, tag entry, send handle and what they hold. Fields stand in a fixed
 * order; sizes made of pointers are the platform's.
 */
#ifndef RUK__LIBTYPES_H
#define RUK__LIBTYPES_H

#include "arista_switch.h"
#include "nuv_events.h"
#include "nuv_requests.h"
#include "ruk.h"
#include "ruk__eventq.h"
#include "ruk__ipdefs.h"
#include "tov.h"
#include "tov_io.h"

#include <pthread.h>
#include <sys/queue.h>

/* ------------------------------------------------------------------ channels and filter tags */

#define RUK_TAG_BLOCK       128 /* entries a block */
#define RUK_TAG_BLOCK_SHIFT 7
#define RUK_TAG_TABLE       32          /* slots of the tag table */
#define RUK_TAG_MAX_BLOCKS  31          /* blocks used at most: tags 0 to 3967 */
#define RUK_TAG_DELAYED     0x8000u     /* bit of tage_nuv_tag: waiting on the delay queue */
#define RUK_BROADCAST_ADDR  0xFFFFFFFFu /* tage_ip_addr of a broadcast entry */

/* One adapter filter and its tag. Always on exactly one queue, but while a caller holds it. Never moves. */
struct ruk__tag_entry {
    TAILQ_ENTRY(ruk__tag_entry) tage_link;
    struct ruk__channel *tage_channel; /* receiver of what the filter matches; null while out of use */
    uint64_t tage_recycle;             /* on the delay queue: rep_num_packets must exceed it */
    uint64_t tage_nicid;               /* MAC address that the filter covers */
    uint32_t tage_ip_addr;             /* destination, host order */
    uint16_t tage_udp_port;            /* destination port, host order */
    uint32_t tage_src_ip_addr;         /* source of a source-specific membership, host order */
    uint16_t tage_src_ip_port;
    uint16_t tage_nuv_tag;   /* tag in bits 0 to 14, RUK_TAG_DELAYED */
    uint16_t tage_bindflags; /* RUK_BIND_* of the channel */
    uint8_t tage_tcp;        /* enum oxel_filter_proto */
};
TAILQ_HEAD(ruk__tag_queue, ruk__tag_entry);

/* A source blocked at the kernel socket. */
struct ruk__mreq_blocked {
    TAILQ_ENTRY(ruk__mreq_blocked) mreq_link;
    struct ip_mreq_source data;
};
TAILQ_HEAD(ruk__mreq_queue, ruk__mreq_blocked);

struct ruk__send;
TAILQ_HEAD(ruk__send_queue, ruk__send);

#define RUK_SEND_BUCKETS 256

struct ruk__channel {
    uint64_t ch_type; /* 0 */
    struct ruk__ep *ch_rep;
    void *ch_ucontext;                            /* the application's */
    struct ruk__tag_entry *ch_uni_entry;          /* own unicast entry, or null */
    struct ruk__tag_entry *ch_bc_entry;           /* broadcast entry, or null */
    struct ruk__tag_entry *ch_deferred_uni_entry; /* another channel's entry, inherited when that unbinds */
    struct tov_ifaddrs *ch_mif;                   /* interface of the bound address */
    uint32_t ch_bindflags;
    int ch_fd; /* kernel socket, -1 when none */
    uint32_t ch_ipaddr_be32;
    uint16_t ch_vlan_be16; /* tag control word, 0 when untagged */
    uint16_t ch_port_be16;
    struct ruk__send_queue ch_sendhandleq[RUK_SEND_BUCKETS];
    struct ruk__tag_queue ch_tag_multiq;
    struct ruk__mreq_queue ch_mreq_blocked;
    TAILQ_ENTRY(ruk__channel) ch_link;
};
TAILQ_HEAD(ruk__channel_queue, ruk__channel);

/* ------------------------------------------------------------------ sending */

enum ruk_req_type : uint32_t {
    RUK_REQ_SEND_NONE = 0,   /* free */
    RUK_REQ_SEND_INLINE = 1, /* never produced */
    RUK_REQ_SEND_PIO = NUV_UREQ_RUK_PIO,
    RUK_REQ_SEND_DMA = NUV_UREQ_RUK_DMA,
};

/* One request in flight. */
struct ruk__request {
    STAILQ_ENTRY(ruk__request) req_link; /* in-flight queue */
    uintptr_t req_buf;                   /* where the payload's first word was written */
    uint32_t req_size;                   /* bytes reserved, with what was skipped and rounded */
    int32_t req_num;                     /* send counter, low 16 bits; -1 while free */
    uint32_t req_qoff;                   /* offset of the reservation from the buffer's base */
    enum ruk_req_type req_type;
};
STAILQ_HEAD(ruk__request_queue, ruk__request);

/* A ring of payload space; head and tail run freely. */
struct ruk__sendbuf {
    uintptr_t sb_base;
    uint32_t sb_length; /* bytes, a power of two */
    uint32_t sb_head;   /* bytes released */
    uint32_t sb_tail;   /* bytes reserved */
    uint32_t sb_avail;  /* bytes that may be reserved */
};

/* The endpoint's request channel to the adapter. */
struct ruk__pioreq {
    volatile uint16_t *compl_done; /* completion counter, big-endian, written by the adapter */
    oxel_flow_window_t *tx_flow;   /* flow_desc: completions reaped */
    nuv_ureq_t *pio_req_db;        /* request window */
    struct ruk__sendbuf pio_sb;    /* payload ring in adapter memory */
};

/* A resolved peer: an entry of the next-hop cache, and the result of a lookup. */
struct ruk__peer_addr {
    uint32_t pa_ip_addr_be32; /* 0 = free cache entry */
    uint8_t pa_eth_dest[6];
    uint16_t pa_isvalid; /* 1: pa_eth_dest is resolved */
};

/* A route that leaves through the endpoint's adapter: the numbers of the route file as they are read. */
struct rep_rtentry {
    uint32_t dst_addr;
    uint32_t gw_addr;
    uint32_t mask;
    uint32_t flags; /* RTF_UP, RTF_GATEWAY */
};

/* A header template; its 64 bytes lie at the first 64-byte boundary of ureq_data, in the layout of a request. */
struct ruk__hdrinfo {
    uint8_t ureq_data[128];
    nuv_ureq_t *ureq;
    uint16_t eth_proto; /* host order: 0x0800, or 0x8100 when tagged */
    uint8_t ip_ttl;
    uint8_t ip_proto;
    uint8_t *data; /* ureq + 4 */
    struct u_eth_hdr *hdr_eth;
    struct u_ipv4_hdr *hdr_ip;
    struct u_udp_hdr *hdr_udp;
    struct u_tcp_hdr *hdr_tcp;
    uint32_t csum_ip_partial;  /* plain sum of the ten words of the IPv4 header */
    uint32_t csum_hdr_partial; /* ones'-complement sum of addresses, ports and protocol */
};

struct ruk__send {
    void *dhs_socket; /* null: the companion TCP library's */
    TAILQ_ENTRY(ruk__send) dhs_link;
    struct ruk__ep *dhs_rep;
    struct ruk__channel *dhs_chan;
    struct ruk__peer_addr dhs_dpeer; /* destination address, next hop's MAC address */
    uint16_t dhs_dport_be16;
    uint8_t dhs_ip_proto;
    uint8_t dhs_isuser; /* 1 the application's, 0 kept by the channel */
    int dhs_hashval;    /* bucket */
    struct ruk__hdrinfo dhs_peer_hdrinfo;
};

/* ------------------------------------------------------------------ endpoint */

/* Counters of an endpoint; only those with a "frame ..." remark are incremented. */
struct ruk__epstats {
    uint64_t dropped_badproto;  /* frame neither IPv4 nor VLAN-tagged */
    uint64_t dropped_badfilter; /* frame's port, address or source does not match its tag */
    uint64_t dropped_nosock;    /* frame's tag is not in use */
    uint64_t dropped_runts;     /* frame shorter than its headers */
    uint64_t dropped_noborrow;  /* never printed */
    uint64_t dropped_badlength;
    uint64_t dropped_csum;
    uint64_t dropped_oo_bouncebufs;
    uint64_t dropped_oo_events;
    uint64_t dropped_broadcast_filtered; /* frame to another subnet's broadcast address */
    uint64_t used_borrowbufs;
    uint64_t used_bouncebufs;
};

/* Mapped regions. Address and length 0: not mapped; address all ones: mapping failed. */
struct ruk__map {
    uintptr_t map_sendq, map_sendq_len;
    uintptr_t map_recvq, map_recvq_end, map_recvq_len;
    uintptr_t map_sram, map_sram_len;
    uintptr_t map_zreq, map_zreq_len;
    uintptr_t map_kwindow, map_kwindow_len;
    uintptr_t map_kflow_window, map_kflow_window_len;
    uintptr_t map_send_compcnt, map_send_compcnt_len;
};

enum rep_state : uint32_t {
    REP_STATE_ALLOC = 0,     /* regions not set up */
    REP_STATE_OPEN = 1,      /* usable */
    REP_STATE_NEEDCLOSE = 2, /* close begun */
    REP_STATE_CLOSING = 3,   /* close left to the receiver inside */
};

#define RUK_MAC_CACHE   16
#define RUK_ROUTES_STEP 16

struct ruk__ep {
    struct sockaddr_in addr;
    enum rep_state rep_state;
    uint32_t rep_inuse;    /* threads inside receive calls */
    uint32_t rep_shutdown; /* waiting receivers are to return; set without a lock */
    uint32_t rep_epid;     /* endpoint number on the adapter */
    uint32_t rep_unit;     /* adapter number */
    pthread_mutex_t rep_lock;
    pthread_mutex_t *rep_lockp; /* endpoint lock: sending and configuration; null = no locks */
    pthread_mutex_t rep_rx_lock;
    pthread_mutex_t *rep_rx_lockp; /* receive lock; null = no locks */
    oxel_endpt_flow_t *rep_flow;
    tov_handle_t rep_handle; /* device file, -1 when none */
    struct ruk__map rep_map;
    uint32_t rep_ipaddr_be32;
    ast_ctl_t arista_control;
    struct tov_ifaddrs *rep_mif;       /* the endpoint's interface, within rep_mif_addrs; may be null */
    struct tov_ifaddrs *rep_mif_addrs; /* all adapter interfaces */
    struct rep_rtentry *rep_routes;
    uint32_t rep_max_routes;    /* entries allocated */
    uint32_t rep_num_valid_rts; /* entries filled */
    uint32_t rep_channel_mix;
    struct ruk__channel_queue rep_chanq;
    uint32_t rep_inlinesend_threshold; /* 0, never consulted */
    uint32_t rep_dmasend_threshold;    /* largest payload sent by PIO, bytes */
    struct tov_mpool *rep_sreq_pool;
    struct ruk__request *rep_sreq_alloc;          /* storage of that pool */
    uint16_t rep_sreq_inflight;                   /* send counter: only grows */
    struct ruk__request_queue rep_sreq_inflightq; /* oldest first */
    struct ruk__pioreq rep_pioreq;
    struct ruk__sendbuf rep_dmabuf; /* payload ring in the send data queue */
    int rep_send_fd;                /* kernel socket, -1 when none */
    struct sockaddr_in rep_send_sin;
    struct ruk__peer_addr rep_mac_cache[RUK_MAC_CACHE]; /* by next hop */
    uint32_t rep_recvq_size;
    uint32_t rep_timestamping_enabled;
    enum ruk_filter_mode rep_recvq_filter_mode;
    struct ruk__eventq rep_eventq;
    const kz_kernel_window_t *rep_kwindow;
    oxel_clksync_nticks_t rep_nticks;
    struct ruk__tag_queue rep_tag_uniq;    /* unicast and broadcast entries of all channels */
    struct ruk__tag_queue rep_tag_filterq; /* free entries, oldest release first */
    struct ruk__tag_queue rep_tag_delayq;  /* released entries that events may still name */
    struct ruk__tag_entry *rep_tag_table[RUK_TAG_TABLE];
    int rep_tag_cnt;          /* blocks allocated */
    uint64_t rep_num_packets; /* packets consumed by channels: the clock of recycle stamps */
    struct ruk__epstats rep_stats;
};

/* ------------------------------------------------------------------ locks */

extern "C" {

/* Endpoint lock and receive lock; nothing on an endpoint without locks. */
inline void ruk__ep_lock(struct ruk__ep *rep)
{
    if (rep->rep_lockp)
        pthread_mutex_lock(rep->rep_lockp);
}
inline void ruk__ep_unlock(struct ruk__ep *rep)
{
    if (rep->rep_lockp)
        pthread_mutex_unlock(rep->rep_lockp);
}
inline void ruk__ep_rx_lock(struct ruk__ep *rep)
{
    if (rep->rep_rx_lockp)
        pthread_mutex_lock(rep->rep_rx_lockp);
}
inline void ruk__ep_rx_unlock(struct ruk__ep *rep)
{
    if (rep->rep_rx_lockp)
        pthread_mutex_unlock(rep->rep_rx_lockp);
}

} /* extern "C" */

#endif
