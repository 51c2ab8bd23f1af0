/*
 * Receive side of the firmware interface: the event ring and the flow windows.
 *
 * The ring is divided into slots of 64 bytes. An event starts on a slot and occupies whole slots; past the
 * ring's end it goes on at the start. In every free slot byte 30 reads 0 and byte 63 0xFF. The firmware
 * writes an event's header and frames, then byte 30, and last of all the event's last byte as 0; the
 * consumer restores byte 30 and byte 63 of every slot before it publishes the slots as consumed.
 */
#ifndef NUV_EVENTS_H
#define NUV_EVENTS_H

#include "nuv_types.h"

#define NUV_UEVT_SLOT         64u   /* bytes a slot */
#define NUV_UEVT_PRESENT      30u   /* byte of a slot: non-zero = an event starts here */
#define NUV_UEVT_COMPLETE     63u   /* byte of a slot: 0 in an event's last slot = completely written */
#define NUV_UEVT_FREE_BYTE    0xFFu /* value of the completion byte of a free slot */
#define NUV_UEVT_MAX_PKTS     5u    /* packets an event */
#define NUV_UEVT_FRAME_OFFSET 8u    /* frame's first byte within its packet slot */
#define NUV_UEVT_FCS_LEN      4u    /* trailer counted in a packet's length: check sequence or switch stamp */

/* Bytes that a packet of this length takes within its event. */
static inline uint32_t nuv_uevt_pkt_space(uint32_t length) { return (length + 27u) & ~15u; }

/* One packet of an event; written by the firmware. Big-endian. */
typedef struct {
    uint16_t length; /* frame bytes, trailer included */
    uint16_t tag;    /* tag of the filter that matched */
} nuv_uevt_pkt_t;
NUV_ASSERT_SIZE(nuv_uevt_pkt_t, 4);
NUV_ASSERT_AT(nuv_uevt_pkt_t, length, 0);
NUV_ASSERT_AT(nuv_uevt_pkt_t, tag, 2);

/* Start of an event's first slot; written by the firmware. Big-endian. */
typedef struct {
    uint32_t timestamp_hi;                  /* adapter clock when written, upper half, ticks */
    uint32_t timestamp_lo;                  /* lower half */
    nuv_uevt_pkt_t pkts[NUV_UEVT_MAX_PKTS]; /* the first pkt_cnt are valid */
    uint16_t batch_len;                     /* bytes of the event, a multiple of 64 */
    uint8_t pkt_cnt;                        /* 1 to 5; 0 = no event here */
    uint8_t offset;                         /* bytes from the event's start to its first packet slot */
} nuv_uevt_ruk_t;
NUV_ASSERT_SIZE(nuv_uevt_ruk_t, 32);
NUV_ASSERT_AT(nuv_uevt_ruk_t, timestamp_hi, 0);
NUV_ASSERT_AT(nuv_uevt_ruk_t, timestamp_lo, 4);
NUV_ASSERT_AT(nuv_uevt_ruk_t, pkts, 8);
NUV_ASSERT_AT(nuv_uevt_ruk_t, batch_len, 28);
NUV_ASSERT_AT(nuv_uevt_ruk_t, pkt_cnt, 30);
NUV_ASSERT_AT(nuv_uevt_ruk_t, offset, 31);

/* A flow window: host byte order, written by the library, read by the driver as a hint of progress. */
typedef struct {
    uint32_t flow_desc;     /* receive: events consumed; send: completions reaped, modulo 65536 */
    uint32_t flow_seqnum;   /* not touched */
    uint32_t flow_data;     /* receive: bytes consumed / 4096, low 32 bits */
    uint32_t flow_desc_off; /* not touched */
    uint64_t flow_data_off; /* receive: offset of the next event in the ring, bytes */
} oxel_flow_window_t;
NUV_ASSERT_SIZE(oxel_flow_window_t, 24);
NUV_ASSERT_AT(oxel_flow_window_t, flow_desc, 0);
NUV_ASSERT_AT(oxel_flow_window_t, flow_seqnum, 4);
NUV_ASSERT_AT(oxel_flow_window_t, flow_data, 8);
NUV_ASSERT_AT(oxel_flow_window_t, flow_desc_off, 12);
NUV_ASSERT_AT(oxel_flow_window_t, flow_data_off, 16);

/* The flow region of an endpoint. */
typedef struct {
    oxel_flow_window_t rx_flow;
    uint8_t pad_rx[40];
    oxel_flow_window_t tx_flow;
    uint8_t pad_tx[40];
} oxel_endpt_flow_t;
NUV_ASSERT_SIZE(oxel_endpt_flow_t, 128);
NUV_ASSERT_AT(oxel_endpt_flow_t, rx_flow, 0);
NUV_ASSERT_AT(oxel_endpt_flow_t, pad_rx, 24);
NUV_ASSERT_AT(oxel_endpt_flow_t, tx_flow, 64);
NUV_ASSERT_AT(oxel_endpt_flow_t, pad_tx, 88);

/*
 * The doorbell word: 64 bits in the last 8 bytes of the first 16 KiB of the adapter memory window, written by
 * the library as big-endian (flow_desc << 32) | flow_data once in 64 KiB of consumed data, followed by a
 * store fence; read by the firmware.
 */
#define NUV_DOORBELL_OFFSET 16376u

#endif
