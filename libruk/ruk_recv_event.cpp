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

/* Without a mask. */
[[gnu::noinline]] static uint64_t whole_ticks_to_timestamp(struct ruk__ep *ep, uint64_t ticks)
{
    return oxel_timesync_ticks2nsecs(ep->rep_kwindow, ticks);
}

[[gnu::always_inline]] static inline uint64_t ticks_to_timestamp(struct ruk__ep *ep, uint64_t ticks)
{
    if (ep->rep_nticks.ticks_mask == 0)
        return whole_ticks_to_timestamp(ep, ticks);
    /* The window first: a fence waits for what was begun before it, and a division is long. */
    const struct oxel_clksync_drift now = oxel_clksync_read_drift(ep->rep_kwindow);
    const uint64_t ns = oxel_clksync_nticks_update(&ep->rep_nticks, ticks);
    return __oxel_clksync_convert_nsecs(ns, now.base, now.drift, now.multiplier);
}

extern "C" uint64_t ruk__clk_ticks_to_timestamp(struct ruk__ep *ep, uint64_t ticks)
{
    return ticks_to_timestamp(ep, ticks);
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

/* The adapter's clock in an event, whose halves lie side by side, as host time. */
[[gnu::always_inline]] static inline uint64_t event_time(struct ruk__ep *ep, const volatile nuv_uevt_ruk_t *uevt)
{
    return ticks_to_timestamp(ep, tov_be64(tov_ld64((const volatile uint64_t *)&uevt->timestamp_hi)));
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

/* Tag and length, as one number from the event's header; running position; no fragments. All stored at once. */
[[gnu::always_inline]] static inline void set_packet_numbers(struct ruk__evpacket *evp, uint32_t numbers,
                                                             uint32_t offset)
{
    constexpr size_t at = offsetof(ruk__evpacket, tag);
    static_assert(offsetof(ruk__evpacket, length) == at + 2 && offsetof(ruk__evpacket, offset) == at + 4 &&
                  offsetof(ruk__evpacket, nfrags) == at + 6);
    const uint64_t fields = numbers | (uint64_t)(uint16_t)offset << 32;
    memcpy((uint8_t *)evp + at, &fields, sizeof fields);
}

/* One packet of the event at the cursor, running position `offset`. Returns length << 16 | tag. */
[[gnu::always_inline]] static inline uint32_t parse_packet(const volatile nuv_uevt_pkt_t *header, uintptr_t cursor,
                                                           uint32_t offset, struct ruk__evpacket *next,
                                                           struct ruk__evpacket *evp)
{
    const uint32_t numbers = tov_be32(tov_ld32((const volatile uint32_t *)header));
    evp->pkt = (uint8_t *)(cursor + NUV_UEVT_FRAME_OFFSET);
    set_packet_numbers(evp, numbers, offset);
    evp->timestamp = 0;
    evp->evp_next = next;
    return numbers;
}

/* What the event state holds of an event and of its packets' lengths. */
[[gnu::always_inline]] static inline void set_event_numbers(struct ruk__event_state *evs, uint32_t length,
                                                            uint32_t length_pkts, uint32_t pkt_cnt)
{
    evs->evs_length = (uint16_t)length;
    evs->evs_length_pkts = (uint16_t)length_pkts;
    evs->evs_pkt_cnt = (uint16_t)pkt_cnt;
}

/* The packets after the first, whose slot and length are given: four at most. */
[[gnu::always_inline]] static inline void parse_further(struct ruk__event_state *evs, uint32_t pkt_cnt,
                                                        uintptr_t cursor, uint32_t length)
{
    const volatile nuv_uevt_pkt_t *headers = evs->evs_uevt_cur->pkts;
    struct ruk__evpacket *evp = evs->evs_pkts;
    uint32_t length_pkts = length + 4;
    uint32_t i = 1;
#pragma GCC unroll 4
    for (; i < NUV_UEVT_MAX_PKTS; i++) { /* it is left within: unrolling wants a condition here */
        cursor += nuv_uevt_pkt_space(length);
        length = parse_packet(&headers[i], cursor, length_pkts, evp + i + 1, evp + i) >> 16;
        length_pkts += length + 4;
        if (i + 1 == pkt_cnt || i + 1 == NUV_UEVT_MAX_PKTS)
            break;
    }
    evp[i].evp_next = nullptr;
    evs->evs_length_pkts = (uint16_t)length_pkts;
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

/*
 * Parses the event of pkt_cnt packets at the current position; its first one is the next to hand out. `plain`: no clock
 * counts and there are no keyframes.
 */
[[gnu::always_inline]] static inline void parse_event(struct ruk__ep *ep, struct ruk__eventq *evq, uint32_t pkt_cnt,
                                                      bool plain)
{
    struct ruk__event_state *evs = &evq->evq_recvq_state;
    const volatile nuv_uevt_ruk_t *uevt = evs->evs_uevt_cur;
    const uint32_t arista = plain ? (uint32_t)ARISTA_STATUS_DISABLED : ep->arista_control.arct_status;

    /* 1. The header; it is read before the event is known to be complete. */
    const uint16_t length = _uevt_length(uevt);
    struct ruk__evpacket *first = evs->evs_pkts;
    evs->evs_pkt_cur = first;
    if (__builtin_expect(length <= FETCH_LINES * NUV_UEVT_SLOT, 1))
        fetch_ahead((uintptr_t)uevt);

    /* 2. The event's own time, where the adapter's clock counts. */
    const bool dated = !plain && (arista >= ARISTA_STATUS_ACTIVE || tov_ld32(&ep->rep_timestamping_enabled) != 0);
    if (__builtin_expect(!dated, 1))
        evs->evs_timestamp = 0;
    else if (arista < ARISTA_STATUS_ACTIVE)
        evs->evs_timestamp = event_time(ep, uevt);

    /* 3. The packets. */
    const uintptr_t cursor = (uintptr_t)uevt + tov_ld8(&uevt->offset);
    const uint32_t numbers = parse_packet(&uevt->pkts[0], cursor, 0, pkt_cnt > 1 ? first + 1 : nullptr, first);
    set_event_numbers(evs, length, (numbers >> 16) + 4, pkt_cnt < NUV_UEVT_MAX_PKTS ? pkt_cnt : NUV_UEVT_MAX_PKTS);
    if (pkt_cnt > 1)
        parse_further(evs, pkt_cnt, cursor, numbers >> 16);
    if (__builtin_expect(arista != ARISTA_STATUS_DISABLED, 0))
        mark_keyframes(evq);

    /* 4. Their times. */
    if (__builtin_expect(dated, 0))
        date_packets(ep, evs, arista);

    /* 5. Nothing is handed out before the firmware has written all of it. */
    _eventq_wait_completion((const volatile uint8_t *)_eventq_wrap(evq, (uintptr_t)uevt + length - 1));
}

/* An event of any kind. */
[[gnu::noinline]] static void process_uevt(struct ruk__ep *ep, struct ruk__eventq *evq, uint32_t pkt_cnt)
{
    parse_event(ep, evq, pkt_cnt, false);
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
[[gnu::always_inline]] static inline struct ruk__channel *channel_that_fits(struct ruk__ep *rep, uint32_t tag,
                                                                            frame_view view)
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

static inline void fill_from_channel(struct ruk__channel *chan, frame_view view, uint32_t msg_len,
                                     struct ruk_recv_info *info)
{
    info->chan = chan;
    info->chan_context = chan->ch_ucontext;
    info->sin_from.sin_family = AF_INET;
    info->sin_from.sin_port = view.udp()->udp_sport_be16;
    info->sin_from.sin_addr.s_addr = view.ip()->ip_saddr_be32;
    info->sin_to.sin_family = AF_INET;
    info->sin_to.sin_port = view.udp()->udp_dport_be16;
    info->sin_to.sin_addr.s_addr = view.ip()->ip_daddr_be32;
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

/* The receive loop: packets go through handle() until one is delivered or the wait ends. */
template <typename Handle>
[[gnu::always_inline]] static inline int receive(struct ruk__ep *rep, enum ruk_recvmode mode, Handle handle)
{
    struct ruk__eventq *evq = &rep->rep_eventq;
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
                                              struct ruk_recv_info *info)
{
    return receive(
        rep, mode, [=](const packet *p) __attribute__((always_inline)) {
            const packet_fate fate = handle_packet(rep, p, mode, buf, len, info);
            if (fate != PACKET_PEEK && ruk__api_version > 1)
                info->timestamp = p->timestamp;
            return fate;
        });
}

/*
 * Nearly every datagram is IPv4 with its headers in one piece, for a channel whose tag entry fits in every part, on an
 * endpoint without locks, in its normal filter mode. Three functions receive by the same steps, each less those that
 * can have no effect on what it takes; what does not fit goes to the next, with nothing of it counted or consumed:
 *
 *   receive_single()    alone in its event, which ends before the ring's end and holds headers and payload; no VLAN tag
 *   receive_first_of(), then receive_one_of()
 *                       one of several, or with a VLAN tag; headers and payload end before the ring's end
 *   receive_datagram()  everything else: locks, other modes, peeking, keyframes, drops, waiting, the ring's end
 */

/*
 * Channel, information and payload of such a datagram, which with its headers is in one piece and has `room` bytes for
 * the payload; false where it is none. A small one's payload is copied in line.
 */
template <uint32_t headers, bool small>
[[gnu::always_inline]] static inline bool take_plain(struct ruk__ep *rep, uintptr_t start, uint32_t tag, uint32_t room,
                                                     void *buf, size_t len, struct ruk_recv_info *info)
{
    const frame_view view = {start, (const uint8_t *)start, headers};
    struct ruk__channel *chan = channel_that_fits(rep, tag, view);
    const uint32_t msg_len = payload_of(view);
    if (__builtin_expect(!chan || msg_len > room, 0))
        return false;
    const size_t count = msg_len < len ? msg_len : len;
    tov_st64(&rep->rep_num_packets, rep->rep_num_packets + 1);
    fill_from_channel(chan, view, msg_len, info);
    if constexpr (small)
        copy_small((uint8_t *)buf, (const uint8_t *)start + headers, count);
    else
        copy_out((uint8_t *)buf, (const uint8_t *)start + headers, count);
    return true;
}

static inline uint16_t ethertype(uintptr_t start)
{
    return tov_be16(((const ruk__eth_generic_hdr *)start)->eth.eth.eth_proto_be16);
}

static inline bool peeks(enum ruk_recvmode mode) { return mode == RUK_RECV_PEEK || mode == RUK_RECV_PEEK_MSG; }

/* Out of an endpoint without locks that is closing. */
[[gnu::noinline, gnu::cold]] static int finish_closing(struct ruk__ep *rep)
{
    if (take_close(rep))
        ruk_close(rep);
    return 0;
}

/*
 * The next packet of an event that is parsed: one of several, or with a VLAN tag. `entered`: this thread is counted as
 * inside the endpoint already.
 */
template <uint32_t headers, bool small, bool entered>
[[gnu::noinline]] static int receive_one_of(struct ruk__ep *rep, enum ruk_recvmode mode, void *buf, size_t len,
                                            struct ruk_recv_info *info)
{
    struct ruk__eventq *evq = &rep->rep_eventq;
    struct ruk__event_state *evs = &evq->evq_recvq_state;
    const uint32_t inuse = rep->rep_inuse - (entered ? 1 : 0);

    /* 1. The packet. It lies before the ring's end, and has its headers. */
    const struct ruk__evpacket *evp = evs->evs_pkt_cur;
    const uintptr_t start = (uintptr_t)evp->pkt - RUK_VIEW_PAD;
    const uint32_t room = evp->length - headers;         /* and the view's pad, which is none of the frame */
    if (small && __builtin_expect(room > SMALL_COPY, 0)) /* or below 0 */
        return receive_one_of<headers, false, entered>(rep, mode, buf, len, info);
    if (__builtin_expect((!small && evp->length < headers) ||
                             start + headers + room + RUK_VIEW_PAD > evq->evq_recvq_end ||
                             evp->timestamp == ARISTA_KEYFRAME_MARK,
                         0)) {
        if (entered)
            tov_st32(&rep->rep_inuse, inuse);
        return receive_datagram(rep, mode, buf, len, info);
    }
    if (headers == RUK_VIEW_HDRLEN && __builtin_expect(ethertype(start) == RUK_ETHERTYPE_VLAN, 0))
        return receive_one_of<RUK_VIEW_VLAN_HDRLEN, small, entered>(rep, mode, buf, len, info);
    if (!entered)
        tov_st32(&rep->rep_inuse, inuse + 1);

    /* 2. The datagram. */
    if (__builtin_expect((headers == RUK_VIEW_HDRLEN && ethertype(start) != RUK_ETHERTYPE_IPV4) ||
                             !take_plain<headers, small>(rep, start, evp->tag, room + RUK_VIEW_PAD, buf, len, info),
                         0)) {
        tov_st32(&rep->rep_inuse, inuse);
        return receive_datagram(rep, mode, buf, len, info);
    }
    if (ruk__api_version > 1)
        info->timestamp = evp->timestamp;

    /* 3. Consumed; with the last one the event is. */
    struct ruk__evpacket *const next = evp->evp_next;
    evs->evs_pkt_cur = next;
    if (__builtin_expect(!next, 0))
        _eventq_release(evq, (uintptr_t)evs->evs_uevt_cur, evs->evs_length);
    tov_st32(&rep->rep_inuse, inuse);
    if (inuse == 0 && __builtin_expect(state_of(rep) == REP_STATE_CLOSING, 0))
        return finish_closing(rep);
    return 0;
}

/* The first packet of an event of any kind, or of one without times and keyframes. */
[[gnu::noinline]] static int receive_first_of_any(struct ruk__ep *rep, enum ruk_recvmode mode, void *buf, size_t len,
                                                  struct ruk_recv_info *info, uint32_t pkt_cnt)
{
    tov_st32(&rep->rep_inuse, rep->rep_inuse + 1);
    process_uevt(rep, &rep->rep_eventq, pkt_cnt);
    return receive_one_of<RUK_VIEW_HDRLEN, true, true>(rep, mode, buf, len, info);
}

[[gnu::noinline]] static int receive_first_of(struct ruk__ep *rep, enum ruk_recvmode mode, void *buf, size_t len,
                                              struct ruk_recv_info *info, uint32_t pkt_cnt)
{
    if (__builtin_expect(rep->arista_control.arct_status != ARISTA_STATUS_DISABLED ||
                             tov_ld32(&rep->rep_timestamping_enabled) != 0,
                         0))
        return receive_first_of_any(rep, mode, buf, len, info, pkt_cnt);
    tov_st32(&rep->rep_inuse, rep->rep_inuse + 1);
    parse_event(rep, &rep->rep_eventq, pkt_cnt, true);
    return receive_one_of<RUK_VIEW_HDRLEN, true, true>(rep, mode, buf, len, info);
}

/*
 * The packet that is alone in the next event. Of what the event state holds for those that come back for further
 * packets it gets what is told of a packet that was received: how many there were, and its tag and length.
 */
template <bool dated, bool small>
[[gnu::noinline]] static int receive_single(struct ruk__ep *rep, enum ruk_recvmode mode, void *buf, size_t len,
                                            struct ruk_recv_info *info)
{
    struct ruk__eventq *evq = &rep->rep_eventq;
    struct ruk__event_state *evs = &evq->evq_recvq_state;
    const volatile nuv_uevt_ruk_t *uevt = evs->evs_uevt_cur;

    /* 1. The event. It lies before the ring's end, and in it the headers, behind its own as firmware has them. */
    constexpr uint32_t before = sizeof *uevt + NUV_UEVT_FRAME_OFFSET - RUK_VIEW_PAD;
    constexpr uint32_t least = before + sizeof(ruk__eth_generic_hdr), most = FETCH_LINES * NUV_UEVT_SLOT;
    const uint32_t length = _uevt_length(uevt);
    const uintptr_t start = (uintptr_t)uevt + before, next = (uintptr_t)uevt + length;
    if (small && __builtin_expect(length - least > most - least, 0))
        return receive_single<dated, false>(rep, mode, buf, len, info);
    if (__builtin_expect(
            tov_ld8(&uevt->offset) != sizeof *uevt || (!small && length < least) || next >= evq->evq_recvq_end, 0))
        return receive_first_of(rep, mode, buf, len, info, 1);
    if (small)
        fetch_ahead((uintptr_t)uevt);
    const uint32_t inuse = rep->rep_inuse;
    tov_st32(&rep->rep_inuse, inuse + 1);

    /* 2. Its time, never below the last one given; then all of it is waited for. */
    uint64_t time = dated ? event_time(rep, uevt) : 0;
    if (dated && time != 0 && time < evs->evs_timestamp_last)
        time = evs->evs_timestamp_last;
    const uint32_t numbers = tov_be32(tov_ld32((const volatile uint32_t *)&uevt->pkts[0])); /* length, tag */
    set_packet_numbers(&evs->evs_pkts[0], numbers, 0);
    evs->evs_pkt_cnt = 1, evs->pad0 = 0; /* one store of 32 bits */
    _eventq_wait_completion((const volatile uint8_t *)next - 1);

    /* 3. The datagram. */
    const uint32_t room = (uint32_t)(next - start) - RUK_VIEW_HDRLEN;
    if (__builtin_expect((dated && time == ARISTA_KEYFRAME_MARK) || ethertype(start) != RUK_ETHERTYPE_IPV4 ||
                             numbers >> 16 < RUK_VIEW_HDRLEN ||
                             !take_plain<RUK_VIEW_HDRLEN, small>(rep, start, (uint16_t)numbers, room, buf, len, info),
                         0)) {
        tov_st32(&rep->rep_inuse, inuse);
        return receive_first_of(rep, mode, buf, len, info, 1);
    }
    if (ruk__api_version > 1)
        info->timestamp = time;
    if (dated && time != 0)
        evs->evs_timestamp_last = time;

    /* 4. Consumed, and the event with it. */
    _eventq_clear_slots((uintptr_t)uevt, next);
    _eventq_report(evq, next, length);
    tov_st32(&rep->rep_inuse, inuse);
    if (inuse == 0 && __builtin_expect(state_of(rep) == REP_STATE_CLOSING, 0))
        return finish_closing(rep);
    return 0;
}

extern "C" int ruk__recvpacket(struct ruk__ep *rep, enum ruk_recvmode mode, void *buf, size_t len,
                               struct ruk_recv_info *info)
{
    return receive_datagram(rep, mode, buf, len, info);
}

extern "C" int ruk_recvfrom(ruk_device_t rep, enum ruk_recvmode recv_mode, void *buf, size_t len,
                            struct ruk_recv_info *info)
{
    if (!rep || !info || state_of(rep) == REP_STATE_ALLOC)
        return EINVAL;
    tov_st32(&rep->rep_shutdown, 0); /* a shutdown asked for earlier is forgotten */

    /* A few tests: what they lead to saves the registers that it needs, and no more. Two of them are one. */
    static_assert(offsetof(ruk__ep, rep_recvq_filter_mode) == offsetof(ruk__ep, rep_timestamping_enabled) + 4 &&
                  RUK_RECV_FILTER_NORMAL == 0);
    const struct ruk__event_state *evs = &rep->rep_eventq.evq_recvq_state;
    const bool plain = !rep->rep_rx_lockp && !peeks(recv_mode);
    if (__builtin_expect(plain && tov_ld64_packed(&rep->rep_timestamping_enabled) == 0, 1)) {
        const uint32_t pkt_cnt = _eventq_present(&rep->rep_eventq);
        if (pkt_cnt != 0 && evs->evs_pkt_cur)
            return receive_one_of<RUK_VIEW_HDRLEN, true, false>(rep, recv_mode, buf, len, info);
        if (__builtin_expect(pkt_cnt == 1 && rep->arista_control.arct_status == ARISTA_STATUS_DISABLED, 1))
            return receive_single<false, true>(rep, recv_mode, buf, len, info);
        if (pkt_cnt != 0)
            return receive_first_of(rep, recv_mode, buf, len, info, pkt_cnt);
    } else if (plain && rep->rep_recvq_filter_mode == RUK_RECV_FILTER_NORMAL) {
        const uint32_t pkt_cnt = _eventq_present(&rep->rep_eventq);
        if (pkt_cnt != 0 && evs->evs_pkt_cur)
            return receive_one_of<RUK_VIEW_HDRLEN, true, false>(rep, recv_mode, buf, len, info);
        if (pkt_cnt == 1 && rep->arista_control.arct_status == ARISTA_STATUS_DISABLED)
            return receive_single<true, true>(rep, recv_mode, buf, len, info);
        if (pkt_cnt != 0)
            return receive_first_of_any(rep, recv_mode, buf, len, info, pkt_cnt);
    }
    return receive_datagram(rep, recv_mode, buf, len, info);
}

static inline void copy_frame(const struct ruk__eventq *evq, const struct ruk__evpacket *evp, void *buf)
{
    ring_copy(evq, buf, (uintptr_t)evp->pkt, evp->length);
}

extern "C" int ruk_raw_recv(ruk_device_t rep, enum ruk_recvmode recv_mode, void *buf, size_t *len, uint64_t *timestamp)
{
    if (state_of(rep) == REP_STATE_ALLOC)
        return EINVAL;
    return receive(rep, recv_mode, [=](const packet *p) {
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
