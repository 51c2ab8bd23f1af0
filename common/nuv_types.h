/*
 * Interface to the adapter's kernel driver: command codes, their argument records, and the memory that the
 * driver publishes. Every record has one layout on 32- and 64-bit builds, little-endian, asserted here.
 */
#ifndef NUV_TYPES_H
#define NUV_TYPES_H

#include <stddef.h>
#include <stdint.h>

#define NUV_ASSERT_AT(type, field, off)                                                                                \
    static_assert(offsetof(type, field) == (off), #type "." #field " is not at " #off)
#define NUV_ASSERT_SIZE(type, size) static_assert(sizeof(type) == (size), #type " is not of size " #size)

/* First three bytes of the MAC address of every adapter of the family. */
#define OXEL_MAC_PREFIX_0 0x02
#define OXEL_MAC_PREFIX_1 0x6f
#define OXEL_MAC_PREFIX_2 0x78

/* Driver interface version: major in bits 8 to 15, minor in bits 0 to 7. */
#define OXEL_DRIVER_API_MAGIC 0x0400

/* Request codes, passed to ioctl() unchanged. (bytes of the argument, direction) */
enum oxel_command : unsigned {
    OXEL_GET_VERSION = 0x4D01,          /* oxel_get_version_t, out */
    OXEL_GET_BOARD_CNT = 0x4D05,        /* uint32_t, out */
    OXEL_GET_NIC_TYPE = 0x4D0A,         /* uint32_t: board in, type out */
    OXEL_GET_NIC_ID = 0x4D0D,           /* oxel_get_nic_id_t, in and out */
    OXEL_GET_NIC_TICKS = 0x4D29,        /* oxel_get_nic_ticks_t, in and out */
    OXEL_GET_MAX_ENDPTS = 0x4D32,       /* uint32_t, out */
    OXEL_ARP_RESOLVE = 0x4D36,          /* uint32_t next hop, network byte order, in */
    OXEL_GET_CURR_NIC_ID = 0x4D37,      /* oxel_get_nic_id_t, in and out */
    OXEL_RAW_SEND = 0x4D5B,             /* oxel_raw_send_t, in */
    OXEL_RAW_NEXT_EVENT = 0x4D5C,       /* oxel_raw_next_event_t, in and out */
    OXEL_WAIT_SEND_COMPLETION = 0x4D9B, /* int32_t timeo, -1 = without limit, in */
    OXEL_GET_RUK_PARAMS = 0x4D9C,       /* oxel_ruk_params, out */
    OXEL_SET_RUK_PARAMS = 0x4D9D,       /* oxel_ruk_params, in */
    OXEL_SET_FILTER_MODE = 0x4D9F,      /* uint32_t enum ruk_filter_mode, in */
    OXEL_ATTACH_SOFT = 0x4DA0,          /* uint32_t descriptor of the new handle, in */
    OXEL_POST_SOFT_DATA = 0x4DA1,       /* none */
    OXEL_GET_COPYBLOCK = 0x5091,        /* kz_get_copyblock_t, out */
    OXEL_GET_SREQS_CNT = 0x5097,        /* uint32_t, out */
    OXEL_GET_LINK_STATE = 0x50B4,       /* uint32_t: board in, state (bit 0) out */
    OXEL_RAW_OPEN = 0x50C3,             /* none */
    OXEL_SET_ENDPT = 0x50E9,            /* oxel_set_endpt_t, in */
    OXEL_ENABLE_ENDPT = 0x50EA,         /* none */
    OXEL_RX_FILTER = 0x50EB,            /* oxel_rx_filter_t, in */
};

typedef struct {
    uint32_t driver_api_magic; /* OXEL_DRIVER_API_MAGIC form */
    char version_str[60];      /* zero-terminated */
    char build_str[128];       /* zero-terminated */
} oxel_get_version_t;
NUV_ASSERT_SIZE(oxel_get_version_t, 192);
NUV_ASSERT_AT(oxel_get_version_t, driver_api_magic, 0);
NUV_ASSERT_AT(oxel_get_version_t, version_str, 4);
NUV_ASSERT_AT(oxel_get_version_t, build_str, 64);

typedef struct {
    uint32_t board;  /* library: adapter number */
    uint32_t pad;    /* unused */
    uint64_t nic_id; /* driver: MAC address, first byte most significant */
} oxel_get_nic_id_t;
NUV_ASSERT_SIZE(oxel_get_nic_id_t, 16);
NUV_ASSERT_AT(oxel_get_nic_id_t, board, 0);
NUV_ASSERT_AT(oxel_get_nic_id_t, pad, 4);
NUV_ASSERT_AT(oxel_get_nic_id_t, nic_id, 8);

typedef struct {
    uint64_t board;            /* library: 0, the handle selects the adapter */
    uint64_t nic_ticks;        /* driver: adapter clock, ticks */
    uint64_t host_nsecs;       /* driver: host time at the same moment, ns */
    uint64_t host_nsecs_delay; /* driver: duration of the paired reading, ns */
} oxel_get_nic_ticks_t;
NUV_ASSERT_SIZE(oxel_get_nic_ticks_t, 32);
NUV_ASSERT_AT(oxel_get_nic_ticks_t, board, 0);
NUV_ASSERT_AT(oxel_get_nic_ticks_t, nic_ticks, 8);
NUV_ASSERT_AT(oxel_get_nic_ticks_t, host_nsecs, 16);
NUV_ASSERT_AT(oxel_get_nic_ticks_t, host_nsecs_delay, 24);

/* Raw frame to send; written by the library. Addresses of 32-bit builds have an upper half of 0. */
typedef struct {
    uint64_t data_pointer;  /* frame */
    uint64_t route_pointer; /* route bytes */
    uint64_t context;       /* returned with the completion */
    uint8_t route_length;   /* bytes */
    uint8_t physical_port;  /* adapter port */
    uint16_t data_length;   /* bytes */
    uint32_t pad;           /* not set */
} oxel_raw_send_t;
NUV_ASSERT_SIZE(oxel_raw_send_t, 32);
NUV_ASSERT_AT(oxel_raw_send_t, data_pointer, 0);
NUV_ASSERT_AT(oxel_raw_send_t, route_pointer, 8);
NUV_ASSERT_AT(oxel_raw_send_t, context, 16);
NUV_ASSERT_AT(oxel_raw_send_t, route_length, 24);
NUV_ASSERT_AT(oxel_raw_send_t, physical_port, 25);
NUV_ASSERT_AT(oxel_raw_send_t, data_length, 26);

typedef struct {
    uint64_t recv_buffer;   /* library: address of the receive buffer */
    uint64_t context;       /* driver: context of the completed send */
    uint64_t nic_ticks;     /* driver: adapter clock at the event, ticks */
    uint32_t incoming_port; /* driver: port of a received frame */
    uint32_t recv_bytes;    /* library: buffer size; driver: bytes received */
    uint32_t timeout;       /* library: wait limit, ms */
    uint32_t status;        /* driver: event kind, 1 = a send completed */
} oxel_raw_next_event_t;
NUV_ASSERT_SIZE(oxel_raw_next_event_t, 40);
NUV_ASSERT_AT(oxel_raw_next_event_t, recv_buffer, 0);
NUV_ASSERT_AT(oxel_raw_next_event_t, context, 8);
NUV_ASSERT_AT(oxel_raw_next_event_t, nic_ticks, 16);
NUV_ASSERT_AT(oxel_raw_next_event_t, incoming_port, 24);
NUV_ASSERT_AT(oxel_raw_next_event_t, recv_bytes, 28);
NUV_ASSERT_AT(oxel_raw_next_event_t, timeout, 32);
NUV_ASSERT_AT(oxel_raw_next_event_t, status, 36);

typedef struct oxel_ruk_params {
    uint32_t dmasend_threshold; /* largest payload sent by PIO, bytes */
    uint32_t recvq_size;        /* receive queue size, bytes */
    uint32_t recvq_filter_mode; /* enum ruk_filter_mode */
    uint32_t reserved_0;        /* 0 */
} oxel_ruk_params_t;
NUV_ASSERT_SIZE(oxel_ruk_params_t, 16);
NUV_ASSERT_AT(oxel_ruk_params_t, dmasend_threshold, 0);
NUV_ASSERT_AT(oxel_ruk_params_t, recvq_size, 4);
NUV_ASSERT_AT(oxel_ruk_params_t, recvq_filter_mode, 8);
NUV_ASSERT_AT(oxel_ruk_params_t, reserved_0, 12);

/* Offset for mmap() on the endpoint's device file and length in bytes of each region; written by the driver. */
typedef struct {
    uint32_t sendq_offset, sendq_len;                         /* send data queue: DMA payloads */
    uint32_t recvq_offset, recvq_len;                         /* receive data queue: the event ring */
    uint32_t eventq_offset, eventq_len;                       /* unused: events lie in the receive data queue */
    uint32_t user_mmapped_sram_offset, user_mmapped_sram_len; /* PIO payloads and the doorbell word */
    uint32_t user_mmapped_zreq_offset, user_mmapped_zreq_len; /* request window */
    uint32_t kernel_window_offset, kernel_window_len;         /* kz_kernel_window_t, read-only */
    uint32_t flow_window_offset, flow_window_len;             /* oxel_endpt_flow_t */
    uint32_t send_compcnt_offset, send_compcnt_len;           /* completion counters, read-only */
} kz_get_copyblock_t;
NUV_ASSERT_SIZE(kz_get_copyblock_t, 64);
NUV_ASSERT_AT(kz_get_copyblock_t, sendq_offset, 0);
NUV_ASSERT_AT(kz_get_copyblock_t, sendq_len, 4);
NUV_ASSERT_AT(kz_get_copyblock_t, recvq_offset, 8);
NUV_ASSERT_AT(kz_get_copyblock_t, recvq_len, 12);
NUV_ASSERT_AT(kz_get_copyblock_t, eventq_offset, 16);
NUV_ASSERT_AT(kz_get_copyblock_t, eventq_len, 20);
NUV_ASSERT_AT(kz_get_copyblock_t, user_mmapped_sram_offset, 24);
NUV_ASSERT_AT(kz_get_copyblock_t, user_mmapped_sram_len, 28);
NUV_ASSERT_AT(kz_get_copyblock_t, user_mmapped_zreq_offset, 32);
NUV_ASSERT_AT(kz_get_copyblock_t, user_mmapped_zreq_len, 36);
NUV_ASSERT_AT(kz_get_copyblock_t, kernel_window_offset, 40);
NUV_ASSERT_AT(kz_get_copyblock_t, kernel_window_len, 44);
NUV_ASSERT_AT(kz_get_copyblock_t, flow_window_offset, 48);
NUV_ASSERT_AT(kz_get_copyblock_t, flow_window_len, 52);
NUV_ASSERT_AT(kz_get_copyblock_t, send_compcnt_offset, 56);
NUV_ASSERT_AT(kz_get_copyblock_t, send_compcnt_len, 60);

enum oxel_endpt_type : uint32_t {
    OXEL_ES_FREE = 0,
    OXEL_ES_RAW = 1,
    OXEL_ES_KZ = 100,
    OXEL_ES_RUK = 200,
    OXEL_ES_RUK_SOFT = 201,
};

/* Claims an endpoint for the handle; written by the library. */
typedef struct {
    int32_t endpoint;    /* endpoint number */
    uint32_t endpt_type; /* enum oxel_endpt_type */
} oxel_set_endpt_t;
NUV_ASSERT_SIZE(oxel_set_endpt_t, 8);
NUV_ASSERT_AT(oxel_set_endpt_t, endpoint, 0);
NUV_ASSERT_AT(oxel_set_endpt_t, endpt_type, 4);

/* Value of oxel_rx_filter_t.tcp. */
enum oxel_filter_proto : uint8_t {
    OXEL_FILTER_UDP = 0,
    OXEL_FILTER_TCP = 1,
    OXEL_FILTER_IP253 = 2, /* keyframes of an Arista switch */
};

/* Installs or removes a receive filter; written by the library. */
typedef struct {
    uint32_t ip_addr; /* destination address, host byte order */
    uint16_t port;    /* destination port, host byte order */
    uint16_t vlan;    /* 802.1Q tag control word, host byte order, 0 = untagged */
    uint16_t tag;     /* tag of the events of matching frames */
    uint8_t remove;   /* 0 install, 1 remove */
    uint8_t kernel;   /* 1: matching frames also go to the kernel (install only) */
    uint8_t tcp;      /* enum oxel_filter_proto */
    uint8_t pad[3];   /* not set */
} oxel_rx_filter_t;
NUV_ASSERT_SIZE(oxel_rx_filter_t, 16);
NUV_ASSERT_AT(oxel_rx_filter_t, ip_addr, 0);
NUV_ASSERT_AT(oxel_rx_filter_t, port, 4);
NUV_ASSERT_AT(oxel_rx_filter_t, vlan, 6);
NUV_ASSERT_AT(oxel_rx_filter_t, tag, 8);
NUV_ASSERT_AT(oxel_rx_filter_t, remove, 10);
NUV_ASSERT_AT(oxel_rx_filter_t, kernel, 11);
NUV_ASSERT_AT(oxel_rx_filter_t, tcp, 12);
NUV_ASSERT_AT(oxel_rx_filter_t, pad, 13);

/* ------------------------------------------------------------------ kernel window: the adapter clock */

/* Drift of host time against the adapter's, published by the driver. */
typedef struct __attribute__((packed, aligned(4))) {
    uint64_t nsecs_base;         /* ns at which the drift was taken */
    int64_t hostnic_drift_nsecs; /* ns to add */
    int64_t multiplier;          /* drift per ns, signed fixed point with 30 fraction bits */
    int64_t error_nsecs;         /* not used by the library */
} oxel_clksync_params_t;
NUV_ASSERT_SIZE(oxel_clksync_params_t, 32);
NUV_ASSERT_AT(oxel_clksync_params_t, nsecs_base, 0);
NUV_ASSERT_AT(oxel_clksync_params_t, hostnic_drift_nsecs, 8);
NUV_ASSERT_AT(oxel_clksync_params_t, multiplier, 16);
NUV_ASSERT_AT(oxel_clksync_params_t, error_nsecs, 24);

/* A reference point of the adapter clock and its rate, published by the driver. */
typedef struct __attribute__((packed, aligned(4))) {
    uint64_t ticks;          /* adapter clock at the reference point, ticks */
    uint64_t ticks_mask;     /* applied to a tick difference; 0 = not used */
    uint64_t nsecs;          /* ns at the reference point */
    uint32_t nt_numerator;   /* ns a tick = numerator / denominator */
    uint32_t nt_denominator; /* never 0 */
} oxel_clksync_nticks_t;
NUV_ASSERT_SIZE(oxel_clksync_nticks_t, 32);
NUV_ASSERT_AT(oxel_clksync_nticks_t, ticks, 0);
NUV_ASSERT_AT(oxel_clksync_nticks_t, ticks_mask, 8);
NUV_ASSERT_AT(oxel_clksync_nticks_t, nsecs, 16);
NUV_ASSERT_AT(oxel_clksync_nticks_t, nt_numerator, 24);
NUV_ASSERT_AT(oxel_clksync_nticks_t, nt_denominator, 28);

/* Both under a sequence counter that is odd while the driver rewrites them and differs after each rewrite. */
typedef struct __attribute__((packed, aligned(4))) {
    uint32_t seqnum;
    oxel_clksync_params_t clkp;
    oxel_clksync_nticks_t nticks;
} oxel_clksync_seq_t;
NUV_ASSERT_SIZE(oxel_clksync_seq_t, 68);
NUV_ASSERT_AT(oxel_clksync_seq_t, seqnum, 0);
NUV_ASSERT_AT(oxel_clksync_seq_t, clkp, 4);
NUV_ASSERT_AT(oxel_clksync_seq_t, nticks, 36);

/* The kernel window: host byte order, written by the driver, read by every endpoint of the adapter. */
typedef struct __attribute__((packed, aligned(4))) {
    uint32_t jiffies; /* driver's own; not used by the library */
    uint32_t hz;      /* driver's own; not used by the library */
    uint8_t pad0[56];
    oxel_clksync_seq_t clksync;
    uint8_t pad1[60];
} kz_kernel_window_t;
NUV_ASSERT_SIZE(kz_kernel_window_t, 192);
NUV_ASSERT_AT(kz_kernel_window_t, jiffies, 0);
NUV_ASSERT_AT(kz_kernel_window_t, hz, 4);
NUV_ASSERT_AT(kz_kernel_window_t, pad0, 8);
NUV_ASSERT_AT(kz_kernel_window_t, clksync, 64);
NUV_ASSERT_AT(kz_kernel_window_t, pad1, 132);

#endif
