/*
 * Timestamps from an Arista switch: records, wire formats and the operations on them.
 *
 * The switch stamps each frame with a 31-bit clock in its last four bytes, and now and then sends a keyframe,
 * an IP packet of protocol 253 that ties that clock to UTC.
 */
#ifndef ARISTA_SWITCH_H
#define ARISTA_SWITCH_H

#include "nuv_types.h"

struct ruk__ep;
struct ruk__evpacket;

/* Statuses below ACTIVE date frames by the adapter's clock, the others by the switch's. */
enum arista_tsp_status : uint32_t {
    ARISTA_STATUS_DISABLED = 0,       /* feature off: keyframes are not recognised */
    ARISTA_STATUS_INITED = 1,         /* no keyframe yet */
    ARISTA_STATUS_CHANGEDMODE = 2,    /* the switch reports a mode that is not supported */
    ARISTA_STATUS_FALLBACK_LOCAL = 3, /* set by others */
    ARISTA_STATUS_ACTIVE = 4,         /* frames are dated from the last keyframe */
    ARISTA_STATUS_OUTOFSYNC = 5,      /* as ACTIVE; the switch has lost PTP */
    ARISTA_STATUS_NEED_KEYFRAME = 6,  /* as ACTIVE; three clock wraps since the last keyframe */
};

enum arista_mode : uint32_t {
    ARISTA_FCS_TIMESTAMPING_DISABLED = 0,
    ARISTA_FCS_TIMESTAMPING_APPENDED = 1, /* the only one supported */
    ARISTA_FCS_TIMESTAMPING_OVERWRITE = 2,
    ARISTA_FCS_TIMESTAMPING_TESTING_MODE = 3,
};

/* The last keyframe, in host byte order. */
struct arista_keyframe {
    uint64_t ak_asic_time;        /* switch clock at the keyframe, ticks */
    uint64_t ak_utc_time;         /* UTC at that moment, ns */
    uint64_t ak_last_sync_time;   /* the switch's last PTP synchronisation, 0 = none */
    uint64_t ak_skew_numerator;   /* with skew fields only */
    uint64_t ak_skew_denominator; /* with skew fields only */
    uint64_t ak_kf_timestamp;
    uint64_t ak_dropped_frames; /* the switch's own count */
    uint16_t ak_device_id;
    uint16_t ak_egress_swport;
    uint8_t ak_fcs_type; /* enum arista_mode */
    uint8_t ak_reserved;
};

struct arista_stats {
    uint64_t arst_kfrecv;           /* keyframes accepted */
    uint64_t arst_kfneeded;         /* keyframe shortages declared */
    uint64_t arst_kfmalformed;      /* protocol-253 packets of the wrong length */
    uint32_t arst_kfmalformedlen;   /* length of the last one */
    uint64_t arst_flips;            /* wraps of the switch clock */
    uint64_t arst_ptpoos;           /* PTP losses declared */
    uint64_t arst_unsupported_mode; /* keyframes announcing an unsupported mode */
    uint64_t arst_dropped;          /* not counted by the receive path */
    uint64_t arst_neg_adj_event;    /* frame times raised to keep time from going back */
};

/* One per endpoint; guarded by its receive lock. */
struct arista_control {
    enum arista_mode arct_mode;
    enum arista_tsp_status arct_status;
    uint8_t arct_kf_check_rate; /* declare keyframe shortages */
    uint8_t arct_kf_check_ptp;  /* watch the switch's PTP synchronisation */
    uint8_t arct_kf_recv;
    uint8_t arct_kf_dupkern;  /* keyframes also go to the kernel */
    uint32_t arct_kf_last_ts; /* the last frame timestamp read, ticks */
    struct arista_keyframe arct_lastkf;
    uint8_t arct_kf_hasskew;   /* keyframes carry the two skew fields */
    uint64_t arct_kf_flipped;  /* clock wraps since the last keyframe */
    uint64_t arct_kf_ptp_wait; /* deadline for PTP to come back, ns; 0 or all ones = not waiting */
    struct arista_stats arct_stats;
    char arct_prodname[4];   /* "RUK" */
    uint32_t arct_kf_dst_ip; /* destination of keyframes, network byte order */
    uint64_t arct_last_ts;   /* the last frame time handed out, ns */
};
typedef struct arista_control ast_ctl_t;

/* The time of a keyframe candidate. */
#define ARISTA_KEYFRAME_MARK UINT64_MAX

#define ARISTA_STAMP_LEN       4u                /* bytes of the switch's word at the end of a frame */
#define ARISTA_KF_LENGTH       84u               /* keyframe without skew fields, frame bytes with trailer */
#define ARISTA_KF_LENGTH_SKEW  100u              /* with them */
#define ARISTA_TICKS_MASK      0x7FFFFFFFu       /* the switch clock has 31 bits */
#define ARISTA_NSECS_PER_TICK  2.857142857142857 /* 350 MHz */
#define ARISTA_PTP_GRACE_NSECS UINT64_C(7000000000)

extern "C" {

/* Reads the settings from the environment, installs the keyframe filter and fills the control record. */
void arista_init(struct ruk__ep *rep);

/* Composes the closing summary, and prints it when verbose. */
void arista_fini(struct ruk__ep *rep);

/* Parses a frame marked as a keyframe, follows the switch's state and reports changes. */
void arista_get_kf_pkt(struct ruk__ep *rep, struct ruk__evpacket *evp);

/* Dates the frames of the current event by the switch's stamps and strips those. */
void ruk__arista_calc_pkt_timestamps(struct ruk__ep *rep, struct ruk__evpacket *first);

/* The switch's 31-bit stamp from a frame's last four bytes. */
uint32_t arista_retrieve_frame_timestamp(struct ruk__ep *rep, const struct ruk__evpacket *evp);

/* The frame time for a stamp, ns; never below the last one. */
uint64_t arista_compute_timestamp(struct ruk__ep *rep, uint32_t stamp);

/* Declares a keyframe shortage after three clock wraps. */
void arista_need_new_keyframe(struct ruk__ep *rep, uint64_t frame_time);

} /* extern "C" */

#endif
