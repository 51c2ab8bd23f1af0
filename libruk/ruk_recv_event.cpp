/*
 * Receiving: events from the ring, datagrams and whole frames out of them, counters.
 */
#define RUK_EVENTQ_INLINE [[gnu::used]] inline
#include "oxel_clksync.h"
#include "ruk__iputils.h"
#include "ruk_core.h"

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <poll.h>
#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#define FETCH_AHEAD 1536 /* bytes from an event to the lines fetched with it */
#define FETCH_LINES 3    /* as many as an event with one small datagram has */

/* ------------------------------------------------------------------ ring memory */

#define SMALL_COPY 256 /* bytes up to which a copy is done in line */

/* Copies n bytes, `block` to twice that, by two blocks that may overlap in what they copy. */
template <size_t block> [[gnu::always_inline]] static inline void copy_ends(uint8_t *to, const uint8_t *from, size_t n)
{
    memcpy(to, from, block);
    memcpy(to + n - block, from + n - block, block);
}

/* Copies n bytes in line, in blocks of 16 where there are some. */
[[gnu::always_inline]] static inline void copy_small(uint8_t *to, const uint8_t *from, size_t n)
{
    if (__builtin_expect(n >= 32 && n <= 64, 1)) {
        copy_ends<32>(to, from, n);
    } else if (n >= 16) {
        const uint8_t *const last = from + n - 16;
        uint8_t *const end = to + n - 16;
        for (; from < last; from += 16, to += 16)
            memcpy(to, from, 16);
        memcpy(end, last, 16);
    } else if (n >= 8) {
        copy_ends<8>(to, from, n);
    } else if (n >= 4) {
        copy_ends<4>(to, from, n);
    } else {
        for (size_t i = 0; i < n; i++)
            to[i] = from[i];
    }
}

static inline void copy_out(uint8_t *to, const uint8_t *from, size_t n)
{
    if (__builtin_expect(n > SMALL_COPY, 0))
        memcpy(to, from, n);
    else
        copy_small(to, from, n);
}

/* Goes round the ring's end as often as it takes. */
[[gnu::noinline, gnu::cold]] static void ring_copy_round(const struct ruk__eventq *evq, uint8_t *dst, uintptr_t from,
                                                         size_t n)
{
    size_t first = evq->evq_recvq_end - from;
    while (n > first) {
        memcpy(dst, (const void *)from, first);
        dst += first;
        n -= first;
        from = evq->evq_recvq_base;
        first = evq->evq_recvq_size;
    }
    if (n != 0)
        memcpy(dst, (const void *)from, n);
}

/* Copies n bytes of the ring, from an address that may have to be wrapped. */
[[gnu::always_inline]] static inline void ring_copy(const struct ruk__eventq *evq, void *to, uintptr_t from, size_t n)
{
    if (__builtin_expect((uint64_t)from + n > evq->evq_recvq_end, 0))
        ring_copy_round(evq, (uint8_t *)to, _eventq_wrap(evq, from), n);
    else
        copy_out((uint8_t *)to, (const uint8_t *)from, n);
}

/* One byte of a frame, i bytes after its start. */
static inline uint8_t frame_byte(const struct ruk__eventq *evq, const uint8_t *pkt, uint32_t i)
{
    return *(const uint8_t *)_eventq_wrap(evq, (uintptr_t)pkt + i);
}

static inline uint16_t frame_be16(const struct ruk__eventq *evq, const uint8_t *pkt, uint32_t i)
{
    return (uint16_t)(frame_byte(evq, pkt, i) << 8 | frame_byte(evq, pkt, i + 1));
}

/* ------------------------------------------------------------------ parsing an event */

extern "C" int arista_check_kf_pkt(const struct ruk__eventq *evq, const uint8_t *pkt)
{
    uint32_t net = 14;
    uint16_t proto = frame_be16(evq, pkt, 12);
    if (proto == RUK_ETHERTYPE_VLAN) {
        proto = frame_be16(evq, pkt, 16);
        net = 18;
    }
    if (proto == RUK_ETHERTYPE_IPV4)
        return frame_byte(evq, pkt, net + 9) == RUK_IPPROTO_KEYFRAME;
    if (proto == RUK_ETHERTYPE_IPV6)
        return frame_byte(evq, pkt, net + 6) == RUK_IPPROTO_KEYFRAME;
    return 0;
}

extern "C" uint64_t ruk__clk_ticks_to_timestamp(struct ruk__ep *ep, uint64_t ticks)
{
    if (ep->rep_nticks.ticks_mask == 0)
        return oxel_timesync_ticks2nsecs(ep->rep_kwindow, ticks);
    return oxel_clksync_convert_nsecs(ep->rep_kwindow, oxel_clksync_nticks_update(&ep->rep_nticks, ticks));
}

/* Dates the event's packets back from its own time, a nanosecond a byte; never below the last time given. */
extern "C" void ruk__clk_calc_pkt_timestamps(struct ruk__event_state *evs)
{
    uint32_t last = evs->evs_pkt_cnt - 1u;
    uint64_t base = evs->evs_timestamp;
    if (last > 0)
        base -= (uint64_t)((int64_t)evs->evs_length_pkts - evs->evs_pkts[last].length);
    uint64_t time = 0;
    for (uint32_t i = 0; i <= last; i++) {
        time = last > 0 ? base + evs->evs_pkts[i].offset : base;
        if (time < evs->evs_timestamp_last)
            time = evs->evs_timestamp_last;
        evs->evs_pkts[i].timestamp = time;
    }
    evs->evs_timestamp_last = time;
}

/* The adapter's clock in an event, ticks; its halves lie side by side. */
[[gnu::always_inline]] static inline uint64_t event_ticks(const volatile nuv_uevt_ruk_t *uevt)
{
    return tov_be64(tov_ld64((const volatile uint64_t *)&uevt->timestamp_hi));
}

/*
 * Asks for the lines of an event to come: a ring larger than the cache is never in it. For small events alone: the
 * processor itself runs ahead in the payload of large ones. (Not a function of its own: the compiler would drop the
 * call, as it finds no effect in it. At the ring's end it asks for lines behind it: a hint, which harms nothing.)
 */
[[gnu::always_inline]] static inline void fetch_ahead(uintptr_t event)
{
    for (uint32_t line = 0; line < FETCH_LINES; line++)
        __builtin_prefetch((const void *)(event + FETCH_AHEAD + line * NUV_UEVT_SLOT), 1);
}

/* A packet to hand out and its event: what the event state holds of them, in registers. */
struct packet {
    uintptr_t event;
    uint32_t event_length;
    struct ruk__evpacket *evp;
    uint8_t *frame; /* first byte; wrap it */
    uint16_t tag, length;
    uint64_t timestamp;
    bool last; /* of its event */
};

/* Two neighbouring fields of 16 bits, the first in the lower half, in one store. */
static inline void store_two(uint16_t *first, uint32_t both) { memcpy(first, &both, sizeof both); }
static_assert(offsetof(ruk__evpacket, length) == offsetof(ruk__evpacket, tag) + 2);
static_assert(offsetof(ruk__evpacket, nfrags) == offsetof(ruk__evpacket, offset) + 2);
static_assert(offsetof(ruk__event_state, evs_length_pkts) == offsetof(ruk__event_state, evs_length) + 2);
static_assert(offsetof(ruk__event_state, pad0) == offsetof(ruk__event_state, evs_pkt_cnt) + 2);

/* Tag and length of a packet, from its part of the event's header. Returns length << 16 | tag. */
[[gnu::always_inline]] static inline uint32_t parse_numbers(const volatile nuv_uevt_pkt_t *header,
                                                            struct ruk__evpacket *evp)
{
    const uint32_t numbers = tov_be32(tov_ld32((const volatile uint32_t *)header));
    store_two(&evp->tag, numbers);
    return numbers;
}

/*
 * The packets of an event, 1 to NUV_UEVT_MAX_PKTS: where each is, tag, length, and its running position in the event;
 * without times.
 */
[[gnu::always_inline]] static inline void parse_packets(struct ruk__event_state *evs,
                                                        const volatile nuv_uevt_ruk_t *uevt, uint32_t pkt_cnt)
{
    uintptr_t frame = (uintptr_t)uevt + tov_ld8(&uevt->offset) + NUV_UEVT_FRAME_OFFSET;
    struct ruk__evpacket *evp = evs->evs_pkts;
    uint32_t length_pkts = 0, i = 0;
    evs->evs_pkt_cur = evp;
    evs->evs_pkt_cnt = (uint16_t)pkt_cnt;
#pragma GCC unroll 5
    for (; i < NUV_UEVT_MAX_PKTS; i++) { /* it is left within: unrolling wants a condition here */
        evp[i].pkt = (uint8_t *)frame;
        store_two(&evp[i].offset, (uint16_t)length_pkts); /* and nfrags */
        evp[i].timestamp = 0;
        evp[i].evp_next = evp + i + 1;
        const uint32_t length = parse_numbers(&uevt->pkts[i], evp + i) >> 16;
        length_pkts += length + 4;
        frame += nuv_uevt_pkt_space(length);
        if (i + 1 == pkt_cnt)
            break;
    }
    evp[pkt_cnt - 1].evp_next = nullptr;
    evs->evs_length_pkts = (uint16_t)length_pkts;
}

/* The same for an event of one packet right behind its header, and what is held of the event itself. Its numbers. */
[[gnu::always_inline]] static inline uint32_t
parse_single(struct ruk__event_state *evs, const volatile nuv_uevt_ruk_t *uevt, uint32_t length, uint64_t time)
{
    struct ruk__evpacket *evp = evs->evs_pkts;
    const uint32_t numbers = parse_numbers(&uevt->pkts[0], evp);
    store_two(&evs->evs_length, length + (numbers & 0xFFFF0000) + (4 << 16)); /* evs_length_pkts: its length + 4 */
    store_two(&evs->evs_pkt_cnt, 1);                                          /* and the pad */
    evp->pkt = (uint8_t *)uevt + sizeof *uevt + NUV_UEVT_FRAME_OFFSET;
    store_two(&evp->offset, 0); /* and nfrags */
    evp->timestamp = time;
    evp->evp_next = nullptr;
    return numbers;
}

/* The keyframe candidates among them. */
[[gnu::noinline]] static void mark_keyframes(struct ruk__eventq *evq)
{
    for (struct ruk__evpacket *evp = evq->evq_recvq_state.evs_pkts; evp; evp = evp->evp_next)
        if (arista_check_kf_pkt(evq, evp->pkt))
            evp->timestamp = ARISTA_KEYFRAME_MARK;
}

/* The times of the packets of an event, where a clock counts. */
[[gnu::noinline]] static void date_packets(struct ruk__ep *ep, struct ruk__event_state *evs, uint32_t arista)
{
    if (arista >= ARISTA_STATUS_ACTIVE)
        ruk__arista_calc_pkt_timestamps(ep, evs->evs_pkts);
    else if (evs->evs_timestamp != 0)
        ruk__clk_calc_pkt_timestamps(evs);
}

/* Nothing of an event is handed out before the firmware has written all of it. */
[[gnu::always_inline]] static inline void wait_for_all(const struct ruk__eventq *evq, uintptr_t uevt, uint32_t length)
{
    _eventq_wait_completion((const volatile uint8_t *)_eventq_wrap(evq, uevt + length - 1));
}

/* Parses the event at the current position, of pkt_cnt packets; its first one is the next to hand out. */
[[gnu::noinline]] static void process_uevt(struct ruk__ep *ep, struct ruk__eventq *evq, uint32_t pkt_cnt)
{
    struct ruk__event_state *evs = &evq->evq_recvq_state;
    const volatile nuv_uevt_ruk_t *uevt = evs->evs_uevt_cur;
    const uint32_t arista = ep->arista_control.arct_status;

    /* 1. The header; it is read before the event is known to be complete. */
    const uint16_t length = _uevt_length(uevt);
    evs->evs_length = length;
    if (__builtin_expect(length <= FETCH_LINES * NUV_UEVT_SLOT, 1))
        fetch_ahead((uintptr_t)uevt);

    /* 2. The event's own time, where the adapter's clock counts. */
    const bool dated = arista >= ARISTA_STATUS_ACTIVE || tov_ld32(&ep->rep_timestamping_enabled) != 0;
    if (!dated)
        evs->evs_timestamp = 0;
    else if (arista < ARISTA_STATUS_ACTIVE)
        evs->evs_timestamp = ruk__clk_ticks_to_timestamp(ep, event_ticks(uevt));

    /* 3. The packets, and the keyframe candidates among them. */
    parse_packets(evs, uevt, pkt_cnt < NUV_UEVT_MAX_PKTS ? pkt_cnt : NUV_UEVT_MAX_PKTS);
    if (arista != ARISTA_STATUS_DISABLED)
        mark_keyframes(evq);

    /* 4. Their times. */
    if (dated)
        date_packets(ep, evs, arista);

    /* 5. The rest of it. */
    wait_for_all(evq, (uintptr_t)uevt, length);
}

extern "C" struct ruk__evpacket *ruk__eventq_process_uevt(struct ruk__ep *ep, struct ruk__eventq *evq)
{
    const uint32_t pkt_cnt = _eventq_present(evq);
    if (pkt_cnt == 0)
        return nullptr;
    process_uevt(ep, evq, pkt_cnt);
    return evq->evq_recvq_state.evs_pkt_cur;
}

/* The next packet to receive; false when there is none. */
[[gnu::always_inline]] static inline bool next_packet(struct ruk__ep *ep, struct ruk__eventq *evq, packet *p)
{
    const struct ruk__event_state *evs = &evq->evq_recvq_state;
    const uint32_t pkt_cnt = _eventq_present(evq);
    if (__builtin_expect(pkt_cnt == 0, 0))
        return false;
    if (!evs->evs_pkt_cur)
        process_uevt(ep, evq, pkt_cnt);
    struct ruk__evpacket *evp = evs->evs_pkt_cur;
    *p = {(uintptr_t)evs->evs_uevt_cur, evs->evs_length, evp, evp->pkt, evp->tag, evp->length, evp->timestamp,
          evp->evp_next == nullptr};
    return true;
}

/* Consumes it, as ruk__eventq_advance() does. */
[[gnu::always_inline]] static inline void consume(struct ruk__eventq *evq, const packet *p)
{
    if (__builtin_expect(!p->last, 0)) {
        evq->evq_recvq_state.evs_pkt_cur = p->evp->evp_next;
        return;
    }
    evq->evq_recvq_state.evs_pkt_cur = nullptr;
    _eventq_release(evq, p->event, p->event_length);
}

/* ------------------------------------------------------------------ one datagram */

/* Where a frame's headers are. */
struct frame_view {
    uintptr_t start;    /* in the ring: 2 bytes before the frame */
    const uint8_t *hdr; /* the view, or a copy of it */
    uint32_t data;      /* offset of the payload from the start of the view */

    const u_udp_hdr *udp() const { return (const u_udp_hdr *)(hdr + data - sizeof(u_udp_hdr)); }
    const u_ipv4_hdr *ip() const { return (const u_ipv4_hdr *)(hdr + data - sizeof(u_udp_hdr) - sizeof(u_ipv4_hdr)); }
};

/* The channel that takes this datagram by its tag, or null with the reason counted: every check in its order. */
[[gnu::noinline]] static struct ruk__channel *find_channel_by_checks(struct ruk__ep *rep, uint16_t tag, frame_view view)
{
    const uint32_t index = tag >> RUK_TAG_BLOCK_SHIFT;
    const uint32_t dst = tov_be32(view.ip()->ip_daddr_be32);

    if (index >= (uint32_t)__atomic_load_n(&rep->rep_tag_cnt, __ATOMIC_ACQUIRE)) {
        rep->rep_stats.dropped_nosock++;
        return nullptr;
    }
    struct ruk__tag_entry *block = rep->rep_tag_table[index];
    struct ruk__tag_entry *entry = &block[tag & (RUK_TAG_BLOCK - 1)];
    struct ruk__channel *chan = __atomic_load_n(&entry->tage_channel, __ATOMIC_ACQUIRE);
    if (tov_ld16(&entry->tage_nuv_tag) != tag) {
        rep->rep_stats.dropped_nosock++;
        return nullptr;
    }
    if (tov_be16(view.udp()->udp_dport_be16) != entry->tage_udp_port) {
        rep->rep_stats.dropped_badfilter++;
        return nullptr;
    }
    if (entry->tage_ip_addr == RUK_BROADCAST_ADDR) {
        if (!chan) {
            rep->rep_stats.dropped_nosock++;
            return nullptr;
        }
        if (dst == RUK_BROADCAST_ADDR || view.ip()->ip_daddr_be32 == chan->ch_mif->tov_ifa_bcastaddr)
            return chan;
        rep->rep_stats.dropped_broadcast_filtered++;
        return nullptr;
    }
    if (entry->tage_src_ip_addr != 0) {
        /* Source-specific memberships: any entry of the block up to this one may be the source's. */
        const uint32_t src = tov_be32(view.ip()->ip_saddr_be32);
        for (struct ruk__tag_entry *e = entry; e >= block; e--) {
            chan = __atomic_load_n(&e->tage_channel, __ATOMIC_ACQUIRE);
            if (e->tage_src_ip_addr == src && e->tage_ip_addr == dst && chan)
                return chan;
        }
    } else if (entry->tage_ip_addr == dst) {
        if (!chan)
            rep->rep_stats.dropped_nosock++; /* an entry out of use */
        return chan;
    }
    rep->rep_stats.dropped_badfilter++;
    return nullptr;
}

/* Where a unicast or group entry without a source fits in every part, its channel; else null, with nothing counted. */
static inline struct ruk__channel *channel_that_fits(const struct ruk__ep *rep, uint32_t tag, frame_view view)
{
    const uint32_t index = tag >> RUK_TAG_BLOCK_SHIFT;
    if (__builtin_expect(index < (uint32_t)__atomic_load_n(&rep->rep_tag_cnt, __ATOMIC_ACQUIRE), 1)) {
        const struct ruk__tag_entry *entry = &rep->rep_tag_table[index][tag & (RUK_TAG_BLOCK - 1)];
        struct ruk__channel *chan = __atomic_load_n(&entry->tage_channel, __ATOMIC_ACQUIRE);
        if (__builtin_expect(tov_ld16(&entry->tage_nuv_tag) == tag && chan &&
                                 entry->tage_udp_port == tov_be16(view.udp()->udp_dport_be16) &&
                                 entry->tage_ip_addr == tov_be32(view.ip()->ip_daddr_be32) &&
                                 entry->tage_src_ip_addr == 0,
                             1))
            return chan;
    }
    return nullptr;
}

static inline struct ruk__channel *find_channel(struct ruk__ep *rep, uint16_t tag, frame_view view)
{
    struct ruk__channel *chan = channel_that_fits(rep, tag, view);
    return __builtin_expect(chan != nullptr, 1) ? chan : find_channel_by_checks(rep, tag, view);
}

/* Copies the payload, fills what depends on the mode, and tells what becomes of the packet. */
[[gnu::always_inline]] static inline packet_fate deliver(struct ruk__ep *rep, enum ruk_recvmode mode, frame_view view,
                                                         uint32_t msg_len, void *buf, size_t len)
{
    tov_st64(&rep->rep_num_packets, rep->rep_num_packets + 1);
    if (mode == RUK_RECV_PEEK)
        return PACKET_PEEK;
    const size_t count = msg_len < len ? msg_len : len;
    ring_copy(&rep->rep_eventq, buf, view.start + view.data, count);
    return mode == RUK_RECV_PEEK_MSG ? PACKET_PEEK : PACKET_DONE;
}

/* The length of the payload, by the UDP header. */
static inline uint32_t payload_of(frame_view view) { return tov_be16(view.udp()->udp_len_be16) - 8u; }

/* ALLMULTI and RAW filter modes: addresses from the headers, no channel. The offset of what is delivered. */
[[gnu::noinline]] static uint32_t fill_unfiltered(uint32_t length, bool raw, frame_view view,
                                                  struct ruk_recv_info *info)
{
    const bool is_udp = view.ip()->ip_protocol == RUK_IPPROTO_UDP;
    info->chan = nullptr;
    info->chan_context = nullptr;
    info->sin_from.sin_family = AF_INET;
    info->sin_from.sin_addr.s_addr = view.ip()->ip_saddr_be32;
    info->sin_to.sin_addr.s_addr = view.ip()->ip_daddr_be32;
    info->sin_from.sin_port = is_udp ? view.udp()->udp_sport_be16 : 0;
    info->sin_to.sin_port = is_udp ? view.udp()->udp_dport_be16 : 0;
    if (raw) {
        info->msg_len = length - RUK_VIEW_PAD;
        return RUK_VIEW_PAD;
    }
    info->msg_len = payload_of(view);
    return view.data;
}

/* Families, ports and addresses of a datagram for a channel. */
[[gnu::always_inline]] static inline void fill_addresses(frame_view view, struct ruk_recv_info *info)
{
#if defined(__SSE2__) /* as one vector, of which each socket address takes a half */
    static_assert(offsetof(sockaddr_in, sin_port) == 2 && offsetof(sockaddr_in, sin_addr) == 4);
    static_assert(offsetof(u_ipv4_hdr, ip_daddr_be32) == offsetof(u_ipv4_hdr, ip_saddr_be32) + 4);
    static_assert(offsetof(u_udp_hdr, udp_dport_be16) == 2);
    const __m128i addresses = _mm_loadl_epi64((const __m128i *)(view.hdr + view.data - sizeof(u_udp_hdr) - 8));
    const __m128i ports = _mm_loadl_epi64((const __m128i *)view.udp());
    const __m128i both = _mm_unpacklo_epi32(_mm_unpacklo_epi16(_mm_set1_epi16(AF_INET), ports), addresses);
    const long long upper = both[1];
    _mm_storel_epi64((__m128i *)&info->sin_from, both);
    memcpy(&info->sin_to, &upper, sizeof upper);
#else
    info->sin_from.sin_family = AF_INET;
    info->sin_from.sin_port = view.udp()->udp_sport_be16;
    info->sin_from.sin_addr.s_addr = view.ip()->ip_saddr_be32;
    info->sin_to.sin_family = AF_INET;
    info->sin_to.sin_port = view.udp()->udp_dport_be16;
    info->sin_to.sin_addr.s_addr = view.ip()->ip_daddr_be32;
#endif
}

static inline void fill_from_channel(struct ruk__channel *chan, frame_view view, uint32_t msg_len,
                                     struct ruk_recv_info *info)
{
    info->chan = chan;
    info->chan_context = chan->ch_ucontext;
    fill_addresses(view, info);
    info->msg_len = msg_len;
}

/* One packet of the ring: checks it, finds its channel, delivers it. */
[[gnu::always_inline]] static inline packet_fate handle_packet(struct ruk__ep *rep, const packet *p,
                                                               enum ruk_recvmode mode, void *buf, size_t len,
                                                               struct ruk_recv_info *info)
{
    const struct ruk__eventq *evq = &rep->rep_eventq;
    const uint32_t filter_mode = tov_ld32((const uint32_t *)&rep->rep_recvq_filter_mode);
    const bool raw = filter_mode == RUK_RECV_FILTER_RAW;

    /* 1. The headers: in place, or a copy of them where they straddle the ring's end. */
    ruk__eth_generic_hdr copy;
    frame_view view;
    view.start = (uintptr_t)p->frame - RUK_VIEW_PAD;
    view.hdr = (const uint8_t *)view.start;
    view.data = RUK_VIEW_HDRLEN;
    if (__builtin_expect(view.start + sizeof copy > evq->evq_recvq_end, 0)) {
        view.start = _eventq_wrap(evq, view.start);
        ring_copy_round(evq, copy.bytes, view.start, sizeof copy);
        view.hdr = copy.bytes;
    }

    /* 2. Untagged or tagged IPv4; anything behind a tag is taken for IPv4. */
    const uint16_t proto = tov_be16(((const ruk__eth_generic_hdr *)view.hdr)->eth.eth.eth_proto_be16);
    if (__builtin_expect(proto != RUK_ETHERTYPE_IPV4, 0)) {
        if (proto == RUK_ETHERTYPE_VLAN) {
            view.data = RUK_VIEW_VLAN_HDRLEN;
        } else if (raw) {
            info->chan = nullptr;
            info->chan_context = nullptr;
            info->msg_len = p->length - RUK_VIEW_PAD;
            view.data = RUK_VIEW_PAD;
            return deliver(rep, mode, view, info->msg_len, buf, len);
        } else {
            rep->rep_stats.dropped_badproto++;
            return PACKET_DROP;
        }
    }
    if (__builtin_expect(p->length < view.data && !raw, 0)) {
        rep->rep_stats.dropped_runts++;
        return PACKET_DROP;
    }

    /* 3. The channel. */
    if (__builtin_expect(filter_mode == RUK_RECV_FILTER_NORMAL, 1)) {
        struct ruk__channel *chan = find_channel(rep, p->tag, view);
        if (!chan)
            return PACKET_DROP;
        fill_from_channel(chan, view, payload_of(view), info);
    } else {
        view.data = fill_unfiltered(p->length, raw, view, info);
    }

    /* 4. The payload. */
    return deliver(rep, mode, view, info->msg_len, buf, len);
}

extern "C" int handle_ruk_uevt(struct ruk__ep *rep, struct ruk__evpacket *evp, enum ruk_recvmode mode, void *buf,
                               size_t len, struct ruk_recv_info *info)
{
    const packet p = {0, 0, evp, evp->pkt, evp->tag, evp->length, evp->timestamp, false};
    return handle_packet(rep, &p, mode, buf, len, info);
}

/* ------------------------------------------------------------------ waiting and leaving */

/*
 * rep_inuse is changed under the receive lock, but for the sleeper that a shutdown sends home without it; hence
 * atomic where there are locks. Entering takes the lock; leaving returns the new count and keeps the lock.
 */
static inline void enter(struct ruk__ep *rep)
{
    if (__builtin_expect(rep->rep_rx_lockp != nullptr, 0)) {
        ruk__ep_rx_lock(rep);
        __atomic_add_fetch(&rep->rep_inuse, 1, __ATOMIC_SEQ_CST);
    } else {
        rep->rep_inuse++;
    }
}

static inline uint32_t leave(struct ruk__ep *rep)
{
    if (rep->rep_rx_lockp)
        return __atomic_sub_fetch(&rep->rep_inuse, 1, __ATOMIC_SEQ_CST);
    return --rep->rep_inuse;
}

static inline uint32_t state_of(const struct ruk__ep *rep) { return tov_ld32_acq((const uint32_t *)&rep->rep_state); }

/* The last one out of an endpoint that is closing completes its close. */
[[gnu::noinline, gnu::cold]] static bool take_close(struct ruk__ep *rep)
{
    uint32_t closing = REP_STATE_CLOSING;
    return __atomic_compare_exchange_n((uint32_t *)&rep->rep_state, &closing, (uint32_t)REP_STATE_NEEDCLOSE, false,
                                       __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}

/* Out of the endpoint, which `inuse` others are still in. */
[[gnu::always_inline]] static inline int finish_left(struct ruk__ep *rep, uint32_t inuse, int rc, bool locked)
{
    const bool close_it = inuse == 0 && __builtin_expect(state_of(rep) == REP_STATE_CLOSING, 0) && take_close(rep);
    if (locked)
        ruk__ep_rx_unlock(rep);
    if (close_it)
        ruk_close(rep);
    return rc;
}

static inline int finish(struct ruk__ep *rep, int rc) { return finish_left(rep, leave(rep), rc, true); }

/* The same without the receive lock. Unless it completes a close, the endpoint may be gone once this one is out. */
[[gnu::noinline, gnu::cold]] static int finish_unlocked(struct ruk__ep *rep, int rc)
{
    ruk__use_word *word = ruk__use(rep);
    uint64_t use = __atomic_load_n(word, __ATOMIC_SEQ_CST), left;
    bool close_it;
    do {
        left = ruk__use_of(ruk__use_state(use), ruk__use_inuse(use) - 1);
        close_it = left == ruk__use_of(REP_STATE_CLOSING, 0);
        if (close_it)
            left = ruk__use_of(REP_STATE_NEEDCLOSE, 0);
    } while (!__atomic_compare_exchange_n(word, &use, left, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST));
    if (close_it)
        ruk_close(rep);
    return rc;
}

/* What an empty queue means: go on (true), or return *rc (false; the endpoint has been left). */
[[gnu::noinline]] static bool wait_for_event(struct ruk__ep *rep, enum ruk_recvmode mode, int *rc)
{
    if (state_of(rep) == REP_STATE_NEEDCLOSE) {
        leave(rep);
        ruk__ep_rx_unlock(rep);
        *rc = ENXIO;
        return false;
    }
    switch (mode) {
    case RUK_RECV_DEFAULT:
        if (tov_ld32(&rep->rep_shutdown) != 1)
            return true;
        *rc = finish(rep, EINTR);
        return false;
    case RUK_RECV_NONBLOCK:
    case RUK_RECV_PEEK:
    case RUK_RECV_PEEK_MSG:
        *rc = finish(rep, EAGAIN);
        return false;
    case RUK_RECV_BLOCK:
        break;
    default:
        *rc = finish(rep, EINVAL);
        return false;
    }

    struct pollfd pfd = {rep->rep_handle, POLLIN, 0};
    ruk__ep_rx_unlock(rep);
    int ready;
    while ((ready = poll(&pfd, 1, 1000)) == 0) {
        if (tov_ld32(&rep->rep_shutdown)) {
            *rc = finish_unlocked(rep, EINTR);
            return false;
        }
    }
    int cause = errno;
    ruk__ep_rx_lock(rep);
    if (state_of(rep) != REP_STATE_OPEN) {
        *rc = finish(rep, ENXIO);
        return false;
    }
    if (ready < 0) {
        leave(rep);
        ruk__ep_rx_unlock(rep);
        *rc = cause;
        return false;
    }
    return true;
}

/* The receive loop: packets go through handle() until one is delivered or the wait ends. `inside`: entered already. */
template <typename Handle>
[[gnu::always_inline]] static inline int receive(struct ruk__ep *rep, enum ruk_recvmode mode, bool inside,
                                                 Handle handle)
{
    struct ruk__eventq *evq = &rep->rep_eventq;
    if (!inside)
        enter(rep);
    for (;;) {
        packet p;
        if (__builtin_expect(!next_packet(rep, evq, &p), 0)) {
            int rc;
            if (wait_for_event(rep, mode, &rc))
                continue;
            return rc;
        }
        packet_fate fate = PACKET_DROP;
        if (__builtin_expect(p.timestamp == ARISTA_KEYFRAME_MARK, 0))
            arista_get_kf_pkt(rep, p.evp);
        else
            fate = handle(&p);
        if (__builtin_expect(fate == PACKET_PEEK, 0))
            return finish(rep, 0);
        consume(evq, &p);
        if (__builtin_expect(fate == PACKET_DONE, 1))
            return finish(rep, 0);
    }
}

/* ------------------------------------------------------------------ public calls */

[[gnu::noinline]] static int receive_datagram(struct ruk__ep *rep, enum ruk_recvmode mode, void *buf, size_t len,
                                              struct ruk_recv_info *info, bool inside)
{
    return receive(
        rep, mode, inside, [=](const packet *p) __attribute__((always_inline)) {
            const packet_fate fate = handle_packet(rep, p, mode, buf, len, info);
            if (fate != PACKET_PEEK && ruk__api_version > 1)
                info->timestamp = p->timestamp;
            return fate;
        });
}

/*
 * Nearly every datagram is IPv4 with its headers in one piece, for a channel whose tag entry fits in every part, on an
 * open endpoint without locks that nobody else is in, in its normal filter mode, received without peeking. The quick
 * ways receive it by the general one's steps, less those that can have no effect on it:
 *
 *   receive_single()         alone in its event, which has the common shape and ends before the ring's end
 *   receive_first_untimed()  parses an event of several packets where neither a clock nor keyframes count
 *   receive_first()          parses any other event
 *   receive_one_of()         a packet of a parsed event, which does not run past the ring's end
 *   receive_timed()          chooses among these where a clock or keyframes count; ruk_recvfrom() does elsewhere
 *
 * What turns out not to fit is left to a more general one, with nothing of it counted or consumed, in the end to
 * receive_datagram(): drops, keyframes, waiting, the ring's end, and all that ruk_recvfrom() sends there at once.
 */

/* A value of which the compiler knows nothing: else it keeps live, in a saved register, what it can compute again. */
template <typename T> [[gnu::always_inline]] static inline T found_again(T value)
{
    __asm__("" : "+r"(value));
    return value;
}

/* A datagram that is received so. */
struct plain_datagram {
    frame_view view;
    struct ruk__channel *chan;
    size_t msg_len;
};

/*
 * Finds its channel; false where its tag entry does not fit. As channel_that_fits(), but by plain accesses, since
 * without locks nobody binds meanwhile, and the channel is loaded after the comparisons: it need not be held in them.
 */
[[gnu::always_inline]] static inline bool find_plain(struct ruk__ep *rep, frame_view view, uint32_t tag,
                                                     plain_datagram *d)
{
    const uint32_t index = tag >> RUK_TAG_BLOCK_SHIFT;
    if (__builtin_expect(index >= (uint32_t)rep->rep_tag_cnt, 0))
        return false;
    const struct ruk__tag_entry *entry = &rep->rep_tag_table[index][tag & (RUK_TAG_BLOCK - 1)];
    if (__builtin_expect(entry->tage_nuv_tag != tag, 0) ||
        __builtin_expect(entry->tage_udp_port != tov_be16(view.udp()->udp_dport_be16), 0) ||
        __builtin_expect(entry->tage_ip_addr != tov_be32(view.ip()->ip_daddr_be32), 0) ||
        __builtin_expect(entry->tage_src_ip_addr != 0, 0) || __builtin_expect(!entry->tage_channel, 0))
        return false;
    d->view = view;
    d->chan = entry->tage_channel;
    d->msg_len = found_again((size_t)payload_of(view));
    return true;
}

/* Counts it and tells about it. */
[[gnu::always_inline]] static inline void tell_plain(struct ruk__ep *rep, const plain_datagram *d, uint64_t timestamp,
                                                     struct ruk_recv_info *info)
{
    tov_st64(&rep->rep_num_packets, rep->rep_num_packets + 1);
    fill_from_channel(d->chan, d->view, (uint32_t)d->msg_len, info);
    if (ruk__api_version > 1)
        info->timestamp = timestamp;
}

static inline uint16_t ethertype(const uint8_t *view)
{
    return tov_be16(((const ruk__eth_generic_hdr *)view)->eth.eth.eth_proto_be16);
}

/* Out of an endpoint without locks that is closing. */
[[gnu::noinline, gnu::cold]] static int finish_closing(struct ruk__ep *rep)
{
    if (take_close(rep))
        ruk_close(rep);
    return 0;
}

/* Leaves an endpoint that nobody else is in. */
[[gnu::always_inline]] static inline int finish_alone(struct ruk__ep *rep)
{
    tov_st32(&rep->rep_inuse, 0);
    return __builtin_expect(state_of(rep) == REP_STATE_CLOSING, 0) ? finish_closing(rep) : 0;
}

/* Whether copy_ends() copies all of a payload into len bytes. */
[[gnu::always_inline]] static inline bool is_small(size_t msg_len, size_t len)
{
    return __builtin_expect(msg_len - 32 <= 32, 1) && __builtin_expect(msg_len <= len, 1);
}

/* The event whose last packet was handed out is consumed. */
[[gnu::noinline]] static int finish_event(struct ruk__ep *rep)
{
    const struct ruk__event_state *evs = &rep->rep_eventq.evq_recvq_state;
    _eventq_release(&rep->rep_eventq, (uintptr_t)evs->evs_uevt_cur, evs->evs_length);
    return finish_alone(rep);
}

/* The packet handed out last is consumed; `next` follows it in its event. */
[[gnu::always_inline]] static inline int finish_one_of(struct ruk__ep *rep, struct ruk__evpacket *next)
{
    rep->rep_eventq.evq_recvq_state.evs_pkt_cur = next;
    return __builtin_expect(next != nullptr, 1) ? finish_alone(rep) : finish_event(rep);
}

/* The same after its payload, of which `count` bytes are wanted, of any number. */
[[gnu::noinline]] static int copy_and_finish_one_of(struct ruk__ep *rep, const uint8_t *payload, void *buf,
                                                    size_t count)
{
    copy_out((uint8_t *)buf, payload, count);
    return finish_one_of(rep, rep->rep_eventq.evq_recvq_state.evs_pkt_cur->evp_next);
}

/*
 * The next packet of a parsed event. `plain`: one that has a time is left to the general way. This thread may be
 * counted as inside already.
 */
template <uint32_t headers, bool plain>
[[gnu::noinline]] static int receive_one_of(struct ruk__ep *rep, enum ruk_recvmode mode, void *buf, size_t len,
                                            struct ruk_recv_info *info)
{
    struct ruk__eventq *evq = &rep->rep_eventq;
    struct ruk__event_state *evs = &evq->evq_recvq_state;
    tov_st32(&rep->rep_inuse, 1);

    /* 1. The packet. It lies before the ring's end, and has its headers. */
    const struct ruk__evpacket *evp = evs->evs_pkt_cur;
    const uint8_t *const start = evp->pkt - RUK_VIEW_PAD, *const payload = start + headers;
    const size_t length = evp->length, room = length - (headers - RUK_VIEW_PAD);
    if (__builtin_expect(length < headers, 0) ||
        __builtin_expect((uint64_t)(uintptr_t)evp->pkt + length > evq->evq_recvq_end, 0) ||
        __builtin_expect(plain ? evp->timestamp != 0 : evp->timestamp == ARISTA_KEYFRAME_MARK, 0))
        return receive_datagram(rep, mode, buf, len, info, true);

    /* 2. The datagram. */
    plain_datagram d;
    if (__builtin_expect((headers == RUK_VIEW_HDRLEN && ethertype(start) != RUK_ETHERTYPE_IPV4) ||
                             !find_plain(rep, {(uintptr_t)start, start, headers}, evp->tag, &d) || d.msg_len > room,
                         0)) {
        if (headers == RUK_VIEW_HDRLEN && ethertype(start) == RUK_ETHERTYPE_VLAN)
            return receive_one_of<RUK_VIEW_VLAN_HDRLEN, false>(rep, mode, buf, len, info);
        return receive_datagram(rep, mode, buf, len, info, true);
    }
    tell_plain(rep, &d, plain ? 0 : evs->evs_pkt_cur->timestamp, info);

    /* 3. Its payload; it is consumed, and with the last one the event is. */
    if (!is_small(d.msg_len, len))
        return copy_and_finish_one_of(rep, payload, buf, d.msg_len < len ? d.msg_len : len);
    copy_ends<32>((uint8_t *)buf, payload, d.msg_len);
    return finish_one_of(rep, evs->evs_pkt_cur->evp_next);
}

/* The first packet of the next event, of any kind, which has pkt_cnt. This thread may be counted as inside already. */
[[gnu::noinline]] static int receive_first_of(struct ruk__ep *rep, enum ruk_recvmode mode, void *buf, size_t len,
                                              struct ruk_recv_info *info, uint32_t pkt_cnt)
{
    tov_st32(&rep->rep_inuse, 1);
    process_uevt(rep, &rep->rep_eventq, pkt_cnt);
    return receive_one_of<RUK_VIEW_HDRLEN, false>(rep, mode, buf, len, info);
}

/* The same, where there is an event. */
[[gnu::noinline]] static int receive_first(struct ruk__ep *rep, enum ruk_recvmode mode, void *buf, size_t len,
                                           struct ruk_recv_info *info)
{
    const uint32_t pkt_cnt = _eventq_present(&rep->rep_eventq);
    if (pkt_cnt == 0)
        return receive_datagram(rep, mode, buf, len, info, false);
    return receive_first_of(rep, mode, buf, len, info, pkt_cnt);
}

/*
 * The same where neither a clock nor keyframes count. An empty queue needs no more than telling so where nobody waits:
 * a close that comes meanwhile finds nobody inside.
 */
[[gnu::noinline]] static int receive_first_untimed(struct ruk__ep *rep, enum ruk_recvmode mode, void *buf, size_t len,
                                                   struct ruk_recv_info *info)
{
    struct ruk__event_state *evs = &rep->rep_eventq.evq_recvq_state;
    const volatile nuv_uevt_ruk_t *uevt = evs->evs_uevt_cur;
    const uint32_t pkt_cnt = tov_ld8_acq(&uevt->pkt_cnt);
    if (pkt_cnt == 0 && mode == RUK_RECV_NONBLOCK)
        return EAGAIN;
    if (__builtin_expect(pkt_cnt - 2 > NUV_UEVT_MAX_PKTS - 2, 0))
        return receive_first(rep, mode, buf, len, info);
    tov_st32(&rep->rep_inuse, 1);
    const uint16_t length = _uevt_length(uevt);
    if (length <= FETCH_LINES * NUV_UEVT_SLOT)
        fetch_ahead((uintptr_t)uevt);
    evs->evs_length = length;
    evs->evs_timestamp = 0;
    parse_packets(evs, uevt, pkt_cnt);
    wait_for_all(&rep->rep_eventq, (uintptr_t)uevt, length);
    return receive_one_of<RUK_VIEW_HDRLEN, true>(rep, mode, buf, len, info);
}

/* A packet that was alone in its event is consumed, and with it the event, `length` bytes up to `next`, slots free. */
[[gnu::always_inline]] static inline int finish_single(struct ruk__ep *rep, uintptr_t next, uint32_t length)
{
    _eventq_report(&rep->rep_eventq, next, length);
    return finish_alone(rep);
}

/* The same after its payload, of which `count` bytes are wanted, of any number, in an event of any length. */
[[gnu::noinline]] static int copy_and_finish_single(struct ruk__ep *rep, const uint8_t *payload, void *buf,
                                                    size_t count, uintptr_t next, uint32_t length)
{
    if (length <= FETCH_LINES * NUV_UEVT_SLOT)
        fetch_ahead(next - length);
    copy_out((uint8_t *)buf, payload, count);
    _eventq_clear_slots(next - length, next);
    return finish_single(rep, next, length);
}

/*
 * The time of an event by the adapter's clock; false where there is no mask, or the driver is rewriting the clock. The
 * division comes first: it ends while the first fence waits for the stores of the datagram before.
 */
[[gnu::always_inline]] static inline bool single_time(struct ruk__ep *rep, const volatile nuv_uevt_ruk_t *uevt,
                                                      uint64_t *time)
{
    if (__builtin_expect(rep->rep_nticks.ticks_mask == 0, 0))
        return false;
    struct oxel_clksync_drift now = {};
    const uint64_t ns = found_again(oxel_clksync_nticks_update(&rep->rep_nticks, event_ticks(uevt)));
    if (!oxel_clksync_try_drift(rep->rep_kwindow, &now))
        return false;
    *time = __oxel_clksync_convert_nsecs(ns, now.base, now.drift, now.multiplier);
    return true;
}

/* The packet that is alone in the next event; `dated` by the adapter's clock or not at all. */
template <bool dated>
[[gnu::always_inline]] static inline int receive_single(struct ruk__ep *rep, enum ruk_recvmode mode, void *buf,
                                                        size_t len, struct ruk_recv_info *info)
{
    struct ruk__eventq *evq = &rep->rep_eventq;
    struct ruk__event_state *evs = &evq->evq_recvq_state;
    const volatile nuv_uevt_ruk_t *uevt = evs->evs_uevt_cur;
    constexpr uint32_t before = sizeof *uevt + NUV_UEVT_FRAME_OFFSET - RUK_VIEW_PAD;
    constexpr uint32_t least = before + sizeof(ruk__eth_generic_hdr), small = FETCH_LINES * NUV_UEVT_SLOT;

    /* 1. The event: one packet, right behind the event's header, with its headers; all before the ring's end. */
    if (__builtin_expect(tov_ld8_acq(&uevt->pkt_cnt) != 1, 0))
        return dated ? receive_first(rep, mode, buf, len, info) : receive_first_untimed(rep, mode, buf, len, info);
    constexpr uint32_t single = (1 << 8 | sizeof *uevt) << 16; /* pkt_cnt and offset, above batch_len */
    const uint32_t swapped = tov_be32(tov_ld32((const volatile uint32_t *)&uevt->batch_len));
    const uint32_t told = swapped << 16 | swapped >> 16;
    const uint8_t *const start = (const uint8_t *)uevt + before;
    const uintptr_t next = (uintptr_t)uevt + (uint16_t)told;
    if (__builtin_expect(told - (single | least) > UINT16_MAX - least ||
                             (uint64_t)(uintptr_t)uevt + (uint16_t)told >= evq->evq_recvq_end,
                         0))
        return receive_first(rep, mode, buf, len, info);
    tov_st32(&rep->rep_inuse, 1);

    /* 2. Its time, never below the last one given; its packet; then all of it is waited for. */
    uint64_t time = 0;
    if (dated && !single_time(rep, uevt, &time))
        return receive_first_of(rep, mode, buf, len, info, 1);
    evs->evs_timestamp = time;
    if (time != 0) {
        if (time < evs->evs_timestamp_last)
            time = evs->evs_timestamp_last;
        evs->evs_timestamp_last = time;
    }
    const uint32_t numbers = parse_single(evs, uevt, (uint16_t)told, time);
    if (__builtin_expect(tov_ld8_acq((const volatile uint8_t *)next - 1) != 0, 0))
        _eventq_wait_completion((const volatile uint8_t *)found_again(next) - 1);

    /* 3. The datagram. */
    plain_datagram d;
    if (__builtin_expect((dated && time == ARISTA_KEYFRAME_MARK) || ethertype(start) != RUK_ETHERTYPE_IPV4 ||
                             numbers >> 16 < RUK_VIEW_HDRLEN ||
                             !find_plain(rep, {(uintptr_t)start, start, RUK_VIEW_HDRLEN}, (uint16_t)numbers, &d) ||
                             (uint64_t)(uintptr_t)uevt + d.msg_len + before + RUK_VIEW_HDRLEN > next,
                         0)) {
        evs->evs_pkt_cur = evs->evs_pkts;
        return receive_one_of<RUK_VIEW_HDRLEN, false>(rep, mode, buf, len, info);
    }
    tell_plain(rep, &d, time, info);

    /* 4. Its payload; it is consumed, and the event with it. */
    const uint8_t *const payload = start + RUK_VIEW_HDRLEN;
    const uint32_t length = (uint32_t)(found_again(next) - (uintptr_t)uevt);
    if (!is_small(d.msg_len, len) || __builtin_expect(length > small, 0))
        return copy_and_finish_single(rep, payload, buf, d.msg_len < len ? d.msg_len : len, next, length);
    copy_ends<32>((uint8_t *)buf, payload, d.msg_len);
    fetch_ahead((uintptr_t)uevt);
    static_assert(least > NUV_UEVT_SLOT && small == 3 * NUV_UEVT_SLOT);
    _eventq_clear((volatile uint8_t *)uevt);
    _eventq_clear((volatile uint8_t *)uevt + NUV_UEVT_SLOT);
    if (__builtin_expect(length > 2 * NUV_UEVT_SLOT, 1))
        _eventq_clear((volatile uint8_t *)uevt + 2 * NUV_UEVT_SLOT);
    return finish_single(rep, next, length);
}

/* The next packet where a clock or keyframes count. */
[[gnu::noinline]] static int receive_timed(struct ruk__ep *rep, enum ruk_recvmode mode, void *buf, size_t len,
                                           struct ruk_recv_info *info)
{
    if (rep->rep_eventq.evq_recvq_state.evs_pkt_cur)
        return receive_one_of<RUK_VIEW_HDRLEN, false>(rep, mode, buf, len, info);
    if (__builtin_expect(rep->arista_control.arct_status != ARISTA_STATUS_DISABLED, 0))
        return receive_first(rep, mode, buf, len, info);
    return receive_single<true>(rep, mode, buf, len, info);
}

/* The general way: locks, others inside, an endpoint that is not open, a mode that peeks, another filter mode. */
[[gnu::noinline]] static int receive_generally(struct ruk__ep *rep, enum ruk_recvmode mode, void *buf, size_t len,
                                               struct ruk_recv_info *info)
{
    if (state_of(rep) == REP_STATE_ALLOC)
        return EINVAL;
    tov_st32(&rep->rep_shutdown, 0);
    return receive_datagram(rep, mode, buf, len, info, false);
}

extern "C" int ruk__recvpacket(struct ruk__ep *rep, enum ruk_recvmode mode, void *buf, size_t len,
                               struct ruk_recv_info *info)
{
    return receive_datagram(rep, mode, buf, len, info, false);
}

extern "C" int ruk_recvfrom(ruk_device_t rep, enum ruk_recvmode recv_mode, void *buf, size_t len,
                            struct ruk_recv_info *info)
{
    if (!rep || !info)
        return EINVAL;

    /* What asks for the general way; all but mode and state is zero elsewhere. */
    static_assert(RUK_RECV_FILTER_NORMAL == 0 && ARISTA_STATUS_DISABLED == 0);
    const uint32_t filter_mode = tov_ld32((const uint32_t *)&rep->rep_recvq_filter_mode);
    if (__builtin_expect(((uintptr_t)rep->rep_rx_lockp | tov_ld32(&rep->rep_inuse) | filter_mode) != 0, 0) ||
        __builtin_expect(recv_mode >= RUK_RECV_PEEK, 0) || __builtin_expect(state_of(rep) != REP_STATE_OPEN, 0))
        return receive_generally(rep, recv_mode, buf, len, info);
    tov_st32(&rep->rep_shutdown, 0); /* a shutdown asked for earlier is forgotten */
    if (__builtin_expect((tov_ld32(&rep->rep_timestamping_enabled) | rep->arista_control.arct_status) != 0, 0))
        return receive_timed(rep, recv_mode, buf, len, info);
    if (rep->rep_eventq.evq_recvq_state.evs_pkt_cur)
        return receive_one_of<RUK_VIEW_HDRLEN, true>(rep, recv_mode, buf, len, info);
    return receive_single<false>(rep, recv_mode, buf, len, info);
}

static inline void copy_frame(const struct ruk__eventq *evq, const struct ruk__evpacket *evp, void *buf)
{
    ring_copy(evq, buf, (uintptr_t)evp->pkt, evp->length);
}

extern "C" int ruk_raw_recv(ruk_device_t rep, enum ruk_recvmode recv_mode, void *buf, size_t *len, uint64_t *timestamp)
{
    if (state_of(rep) == REP_STATE_ALLOC)
        return EINVAL;
    return receive(rep, recv_mode, false, [=](const packet *p) {
        *len = p->length;
        if (recv_mode == RUK_RECV_PEEK)
            return PACKET_PEEK;
        copy_frame(&rep->rep_eventq, p->evp, buf);
        return recv_mode == RUK_RECV_PEEK_MSG ? PACKET_PEEK : PACKET_DONE;
    });
}

extern "C" int ruk_raw_recv_nb(ruk_device_t rep, void *buf, size_t *len, uint64_t *timestamp, int *tag)
{
    struct ruk__eventq *evq = &rep->rep_eventq;
    if (state_of(rep) == REP_STATE_ALLOC)
        return EINVAL;
    struct ruk__evpacket *evp = ruk__eventq_first(rep, evq);
    if (!evp)
        return EAGAIN;
    *len = evp->length;
    copy_frame(evq, evp, buf);
    if (timestamp)
        *timestamp = evp->timestamp;
    if (tag)
        *tag = evp->tag;
    ruk__eventq_advance(evq);
    return 0;
}

extern "C" int ruk_raw_recv_peek(ruk_device_t rep)
{
    if (state_of(rep) == REP_STATE_ALLOC)
        return EINVAL;
    return _eventq_present(&rep->rep_eventq) ? 0 : EAGAIN;
}

extern "C" void ruk_dump_stats(ruk_device_t rep, int non_zero)
{
    const struct ruk__epstats *stats = &rep->rep_stats;
    const struct {
        const char *name;
        uint64_t value;
    } lines[] = {
        {"dropped_badproto", stats->dropped_badproto},
        {"dropped_badfilter", stats->dropped_badfilter},
        {"dropped_nosock", stats->dropped_nosock},
        {"dropped_runts", stats->dropped_runts},
        {"dropped_badlength", stats->dropped_badlength},
        {"dropped_csum", stats->dropped_csum},
        {"dropped_oo_bouncebufs", stats->dropped_oo_bouncebufs},
        {"dropped_oo_events", stats->dropped_oo_events},
        {"dropped_broadcast_filtered", stats->dropped_broadcast_filtered},
        {"used_borrowbufs", stats->used_borrowbufs},
        {"used_bouncebufs", stats->used_bouncebufs},
    };
    for (const auto &line : lines)
        if (line.value != 0 || !non_zero)
            printf("\t%s = %12llu\n", line.name, (unsigned long long)line.value);
}
