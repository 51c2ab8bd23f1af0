/*
 * Send side of the firmware interface: the request window and the completion counters.
 *
 * A request of type t is written at byte t * 256 of the request window with 32-bit stores in ascending order;
 * the store of its last word, which carries the type, hands it to the firmware. The firmware serves several
 * libraries; this one writes types 13 and 14 only.
 *
 * The completion vector holds one 16-bit big-endian counter an endpoint, written by the adapter: requests
 * completed, in order, modulo 65536.
 */
#ifndef NUV_REQUESTS_H
#define NUV_REQUESTS_H

#include "nuv_types.h"

typedef enum {
    NUV_UREQ_NONE = 0,
    NUV_UREQ_SEND_TRUC = 1,
    NUV_UREQ_SEND_CONNECT = 2,
    NUV_UREQ_SEND_TINY = 3,
    NUV_UREQ_SEND_SMALL = 4,
    NUV_UREQ_SEND_MEDIUM = 5,
    NUV_UREQ_SEND_RNDV = 6,
    NUV_UREQ_SEND_NOTIFY = 7,
    NUV_UREQ_PULL = 8,
    NUV_UREQ_WAKE = 9,
    NUV_UREQ_PIOBENCH = 10,
    NUV_UREQ_PUT_TINY = 11,
    NUV_UREQ_PUT_LARGE = 12,
    NUV_UREQ_RUK_PIO = 13, /* payload in the adapter memory window */
    NUV_UREQ_RUK_DMA = 14, /* payload in the send data queue */
    NUV_UREQ_LAST_TYPE = 15,
} nuv_ureq_type_t;

#define NUV_UREQ_STRIDE     256u  /* bytes of the request window a type */
#define NUV_UREQ_MAX_HEADER 56u   /* bytes of frame header a request carries at most */
#define NUV_PIO_BYTES       8192u /* bytes of the adapter memory window that hold PIO payloads */
#define NUV_DMA_PAGE        4096u /* DMA payload space is reserved in whole pages */

/* One datagram to send; written by the library, read by the firmware. Big-endian. */
typedef struct {
    uint32_t ruk_data_offset;                /* of the payload's first byte in the ring of this type, bytes */
    uint16_t ruk_data_length;                /* payload, bytes */
    uint8_t ruk_header[NUV_UREQ_MAX_HEADER]; /* frame header; header_length bytes are valid */
    uint8_t header_length;                   /* bytes, 1 to 56 */
    uint8_t type;                            /* NUV_UREQ_RUK_PIO or NUV_UREQ_RUK_DMA */
} nuv_ureq_ruk_t;
NUV_ASSERT_SIZE(nuv_ureq_ruk_t, 64);
NUV_ASSERT_AT(nuv_ureq_ruk_t, ruk_data_offset, 0);
NUV_ASSERT_AT(nuv_ureq_ruk_t, ruk_data_length, 4);
NUV_ASSERT_AT(nuv_ureq_ruk_t, ruk_header, 6);
NUV_ASSERT_AT(nuv_ureq_ruk_t, header_length, 62);
NUV_ASSERT_AT(nuv_ureq_ruk_t, type, 63);

/* Any request: 64 bytes whose last is the type. */
typedef union {
    nuv_ureq_ruk_t ruk;
    uint32_t words[16];
    uint8_t bytes[64];
} nuv_ureq_t;
NUV_ASSERT_SIZE(nuv_ureq_t, 64);

#endif
