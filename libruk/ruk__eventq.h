/*
 * Reader of the event ring. All of it runs under the endpoint's receive lock, but for ruk__eventq_count(), which may
 * run beside a receiver.
 */
#ifndef RUK__EVENTQ_H
#define RUK__EVENTQ_H

#include "arista_switch.h"
#include "nuv_events.h"
#include "tov_io.h"

/* A translation unit may ask for linkable copies of these functions. */
#ifndef RUK_EVENTQ_INLINE
#define RUK_EVENTQ_INLINE inline
#endif

struct ruk__ep;

/* One received frame of the current event. */
struct ruk__evpacket {
    uint8_t *pkt;                   /* first byte of the frame; may lie beyond the ring's end: wrap it */
    uint16_t tag;                   /* filter tag */
    uint16_t length;                /* frame bytes with trailer; less 4 once a switch stamp is stripped */
    uint16_t offset;                /* running byte position within the event */
    uint16_t nfrags;                /* 0 */
    uint64_t timestamp;             /* ns; 0 unknown; all ones = keyframe candidate */
    struct ruk__evpacket *evp_next; /* next frame of the event, null at the last */
};

struct ruk__event_state {
    uint64_t evs_timestamp;      /* the event's time, ns; 0 when adapter timestamping is off */
    uint64_t evs_timestamp_last; /* the last packet time handed out */
    uint16_t evs_length;         /* bytes of the event */
    uint16_t evs_length_pkts;    /* sum of length + 4 over its packets */
    uint16_t evs_pkt_cnt;        /* packets of the event */
    uint16_t pad0;
    volatile nuv_uevt_ruk_t *evs_uevt_cur; /* the current event; null while the queues are not set up */
    struct ruk__evpacket *evs_pkt_cur;     /* next packet to hand out; null = not parsed yet, or consumed */
    struct ruk__evpacket evs_pkts[NUV_UEVT_MAX_PKTS];
};

struct ruk__eventq {
    uintptr_t evq_recvq_offset; /* of the current event from the base, bytes */
    uintptr_t evq_recvq_base;
    uintptr_t evq_recvq_size; /* bytes */
    uintptr_t evq_recvq_end;  /* base + size */
    uint64_t evq_recvq_flow;  /* bytes consumed since the queues were set up */
    struct ruk__event_state evq_recvq_state;
    oxel_flow_window_t *evq_flow; /* receive flow window, shared with the driver */
    uint64_t *evq_flow_be64;      /* doorbell word of the adapter */
};

extern "C" {

/* Parses the event at evs_uevt_cur, dates its packets and waits for its completion; the first packet or null. */
struct ruk__evpacket *ruk__eventq_process_uevt(struct ruk__ep *ep, struct ruk__eventq *evq);

/* An address within or past the ring, brought back into it. Past its end by one size at most, unless lengths lie. */
RUK_EVENTQ_INLINE uintptr_t _eventq_wrap(const struct ruk__eventq *evq, uintptr_t addr)
{
    if (__builtin_expect(addr < evq->evq_recvq_end, 1))
        return addr;
    addr -= evq->evq_recvq_size;
    if (__builtin_expect(addr < evq->evq_recvq_end, 1))
        return addr;
    return evq->evq_recvq_base + (addr - evq->evq_recvq_base) % evq->evq_recvq_size;
}

/* batch_len in host order. */
RUK_EVENTQ_INLINE uint16_t _uevt_length(const volatile nuv_uevt_ruk_t *uevt)
{
    return tov_be16(tov_ld16(&uevt->batch_len));
}

/* Address of an event's last byte, wrapped; len 0 takes the event's own length. */
RUK_EVENTQ_INLINE const volatile uint8_t *_eventq_crcbyte(const struct ruk__eventq *evq,
                                                          const volatile nuv_uevt_ruk_t *uevt, uint16_t len)
{
    if (len == 0)
        len = _uevt_length(uevt);
    return (const volatile uint8_t *)_eventq_wrap(evq, (uintptr_t)uevt + len - 1);
}

/* Spins until the firmware has written an event's last byte. */
RUK_EVENTQ_INLINE void _eventq_wait_completion(const volatile uint8_t *byte)
{
    while (tov_ld8_acq(byte) != 0)
        ;
}

/* Frees one slot. */
RUK_EVENTQ_INLINE void _eventq_clear(volatile uint8_t *slot)
{
    tov_st8(slot + NUV_UEVT_PRESENT, 0);
    tov_st8(slot + NUV_UEVT_COMPLETE, NUV_UEVT_FREE_BYTE);
}

/* Whether an event waits at the current position. */
RUK_EVENTQ_INLINE uint8_t _eventq_present(const struct ruk__eventq *evq)
{
    return tov_ld8_acq((const volatile uint8_t *)evq->evq_recvq_state.evs_uevt_cur + NUV_UEVT_PRESENT);
}

/* The next packet to receive, or null. */
RUK_EVENTQ_INLINE struct ruk__evpacket *ruk__eventq_first(struct ruk__ep *ep, struct ruk__eventq *evq)
{
    if (_eventq_present(evq) == 0)
        return nullptr;
    if (evq->evq_recvq_state.evs_pkt_cur)
        return evq->evq_recvq_state.evs_pkt_cur;
    return ruk__eventq_process_uevt(ep, evq);
}

/* The current position is also read by a thread that counts pending packets without the receive lock. */
RUK_EVENTQ_INLINE void _eventq_set_current(struct ruk__event_state *evs, uintptr_t event)
{
    __atomic_store_n(&evs->evs_uevt_cur, (volatile nuv_uevt_ruk_t *)event, __ATOMIC_RELAXED);
}
RUK_EVENTQ_INLINE uintptr_t _eventq_current(const struct ruk__event_state *evs)
{
    return (uintptr_t)__atomic_load_n(&evs->evs_uevt_cur, __ATOMIC_RELAXED);
}

/* Frees the slots from `event` to `next`, none of them behind the ring's end. */
[[gnu::always_inline]] inline void _eventq_clear_slots(uintptr_t event, uintptr_t next)
{
    uintptr_t slot = event;
    for (const uintptr_t last = next - NUV_UEVT_SLOT; slot < last; slot += 2 * NUV_UEVT_SLOT) {
        _eventq_clear((volatile uint8_t *)slot);
        _eventq_clear((volatile uint8_t *)slot + NUV_UEVT_SLOT);
    }
    if (__builtin_expect(slot < next, 1))
        _eventq_clear((volatile uint8_t *)slot);
}

/* The event of len bytes before `current`, whose slots are free, is consumed. */
[[gnu::always_inline]] inline void _eventq_report(struct ruk__eventq *evq, uintptr_t current, uint32_t len)
{
    /* 1. The position. */
    const uintptr_t offset = current - evq->evq_recvq_base;
    const uint64_t consumed = evq->evq_recvq_flow + len;
    evq->evq_recvq_offset = offset;
    evq->evq_recvq_flow = consumed;
    _eventq_set_current(&evq->evq_recvq_state, current);

    /* 2. Report it: the cleared slots must be visible before the writer sees them as free. */
    oxel_flow_window_t *flow = evq->evq_flow;
    const uint32_t desc = flow->flow_desc + 1;
    const uint32_t units = (uint32_t)(consumed >> 12);
    tov_st64_rel(&flow->flow_data_off, offset);
    tov_st32_rel(&flow->flow_desc, desc);
    tov_st32_rel(&flow->flow_data, units);

    /* 3. Once in 64 KiB also ring the adapter. */
    if (((units - 1) & 15) == 0) {
        tov_st64(evq->evq_flow_be64, tov_be64((uint64_t)desc << 32 | units));
        tov_wmb();
    }
}

/* Frees the current event, len bytes from `event` on, and reports the new position. */
[[gnu::always_inline]] inline void _eventq_release(struct ruk__eventq *evq, uintptr_t event, uint32_t len)
{
    const uintptr_t next = event + len;
    const bool wraps = next >= evq->evq_recvq_end;
    if (__builtin_expect(!wraps, 1))
        _eventq_clear_slots(event, next);
    else
        for (uintptr_t slot = event; slot < next; slot += NUV_UEVT_SLOT)
            _eventq_clear((volatile uint8_t *)_eventq_wrap(evq, slot));
    _eventq_report(evq, wraps ? next - evq->evq_recvq_size : next, len);
}

/* Consumes the packet handed out last; with the event's last packet the whole event is freed and reported. */
RUK_EVENTQ_INLINE void ruk__eventq_advance(struct ruk__eventq *evq)
{
    struct ruk__event_state *evs = &evq->evq_recvq_state;
    if (evs->evs_pkt_cur) {
        evs->evs_pkt_cur = evs->evs_pkt_cur->evp_next;
        if (evs->evs_pkt_cur)
            return;
    }
    _eventq_release(evq, (uintptr_t)evs->evs_uevt_cur, evs->evs_length);
}

/*
 * Packets that the events now in the ring will deliver; those of the current event count whole. A receiver may
 * consume events meanwhile: an event that vanishes under the walk is not waited for.
 */
RUK_EVENTQ_INLINE int ruk__eventq_count(const struct ruk__eventq *evq)
{
    int count = 0;
    intptr_t remaining = (intptr_t)evq->evq_recvq_size;
    uintptr_t cursor = _eventq_current(&evq->evq_recvq_state);
    if (cursor == 0)
        return 0; /* the queues are not set up */
    while (remaining > 0) {
        const volatile nuv_uevt_ruk_t *uevt = (const volatile nuv_uevt_ruk_t *)cursor;
        uint8_t pkts = tov_ld8_acq(&uevt->pkt_cnt);
        uint16_t len = _uevt_length(uevt);
        if (pkts == 0 || len == 0)
            break;
        count += pkts;
        const volatile uint8_t *last = _eventq_crcbyte(evq, uevt, len);
        while (tov_ld8_acq(last) != 0 && tov_ld8_acq(&uevt->pkt_cnt) != 0)
            ;
        cursor = _eventq_wrap(evq, cursor + len);
        remaining -= len;
    }
    return count;
}

} /* extern "C" */

#endif
