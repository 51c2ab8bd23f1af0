/*
 * What the library is measured against: the least that has to be done with the same memory, written by hand, as fast
 * as its authors could make it. None of it knows modes, filters, statistics, locks or more than one packet an event.
 */
#ifndef FLOORS_H
#define FLOORS_H

#include "nuv_events.h"
#include "nuv_requests.h"
#include "ruk.h"

namespace bench {

/* One datagram an event; the channel stands in a table by tag. */
struct FloorReceiver {
    uint8_t *cur, *base, *end;
    uint64_t consumed;
    ruk_channel_t *channels;
    oxel_flow_window_t *flow;
    uint64_t *doorbell;
    const kz_kernel_window_t *clock;
    uint64_t last_time;
};

/* 0, or EAGAIN when nothing waits. Fills info, frees the slots, reports the position, rings the doorbell. */
int floor_receive(FloorReceiver *r, void *buf, size_t len, ruk_recv_info *info);
/* The same with the lines of events to come fetched ahead. */
int floor_receive_ahead(FloorReceiver *r, void *buf, size_t len, ruk_recv_info *info);
/* The same as the first, dated: both barriers of the clock record, the division and the drift. */
int floor_receive_dated(FloorReceiver *r, void *buf, size_t len, ruk_recv_info *info);

/* A sender of one type of request to one destination. */
struct FloorSender {
    uint8_t *payloads; /* ring of payloads */
    uint32_t size;     /* bytes, a power of two */
    uint32_t grain;    /* payload space is taken in multiples of this */
    uint32_t tail;
    uint32_t *slot;
    const uint16_t *completions; /* big-endian */
    uint16_t posted;
    alignas(64) uint32_t words[16]; /* the request with lengths, offset and checksums 0 */
    uint32_t ip_sum, udp_sum;       /* of what does not change */
};

void floor_sender_init(FloorSender *s, const uint8_t *header, uint8_t type);

/* 0, or EAGAIN while 64 requests are under way. */
int floor_send(FloorSender *s, const void *buf, size_t len);

/* 32-bit stores, ascending, without a sum, and a fence. len is a multiple of 4. */
void floor_copy32(uint32_t *to, const uint8_t *from, size_t len);

} // namespace bench

#endif
