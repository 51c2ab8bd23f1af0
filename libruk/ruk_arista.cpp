/*
 * Timestamps from an Arista switch: settings, keyframes, frame dating, the closing summary.
 */
#include "arista_switch.h"
#include "ruk_core.h"

#include <arpa/inet.h>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

/* ------------------------------------------------------------------ settings */

/* A switch in the environment: its number when set and not empty, else the default. */
static bool env_switch(const char *name, bool by_default)
{
    const char *value = getenv(name);
    return value && *value ? strtol(value, nullptr, 10) != 0 : by_default;
}

static const char *on_off(bool on) { return on ? "on" : "off"; }

extern "C" void arista_init(struct ruk__ep *rep)
{
    ast_ctl_t *ctl = &rep->arista_control;

    /* 1. The settings. Timestamping alone is also on when set to nothing. */
    const char *enable = getenv("OXEL_ARISTA_ENABLE_TIMESTAMPING");
    const bool on = enable && (*enable == '\0' || strtol(enable, nullptr, 10) != 0);
    char dst_ip[32] = "1.1.1.0";
    const char *address = getenv("OXEL_ARISTA_PARAM_KF_DST_IP");
    if (address && *address)
        snprintf(dst_ip, sizeof dst_ip, "%s", address);

    memset(ctl, 0, sizeof *ctl);
    ctl->arct_mode = ARISTA_FCS_TIMESTAMPING_DISABLED;
    ctl->arct_status = on ? ARISTA_STATUS_INITED : ARISTA_STATUS_DISABLED;
    ctl->arct_kf_check_rate = env_switch("OXEL_ARISTA_PARAM_KF_CHECK_RATE", true);
    ctl->arct_kf_check_ptp = env_switch("OXEL_ARISTA_PARAM_KF_CHECK_PTP", true);
    ctl->arct_kf_dupkern = env_switch("OXEL_ARISTA_PARAM_KF_KERNDUP", false);
    ctl->arct_kf_hasskew = env_switch("OXEL_ARISTA_ENABLE_SKEW", false);
    ctl->arct_kf_ptp_wait = UINT64_MAX;
    memcpy(ctl->arct_prodname, "RUK", sizeof ctl->arct_prodname);
    ctl->arct_kf_dst_ip = inet_addr(dst_ip);

    /* 2. The keyframes' filter; without it the feature is off. */
    if (on && ruk_filter_add(rep, RUK_IPPROTO_KEYFRAME, 0, ctl->arct_kf_dst_ip, 0, 0,
                             ctl->arct_kf_dupkern ? RUK_BIND_KERNEL : 0) != 0) {
        ctl->arct_status = ARISTA_STATUS_DISABLED;
        fputs("Failed to provide Arista filter to NIC: turning off Arista support\n", stderr);
        return;
    }

    /* 3. The status text. */
    if (!__ruk_verbose)
        return;
    if (!on) {
        fputs("Arista timestamping [off] \n", stderr);
        return;
    }
    fprintf(stderr,
            "Arista timestamping [on], mode: append (before-fcs), dst_ip: %s\n\t  * features: "
            "keyframe check min.rate [%s] kf check ptp [%s] kf kernel dup [%s] kf skew [%s] \n",
            dst_ip, on_off(ctl->arct_kf_check_rate), on_off(ctl->arct_kf_check_ptp), on_off(ctl->arct_kf_dupkern),
            on_off(ctl->arct_kf_hasskew));
}

/* ------------------------------------------------------------------ closing summary */

#define SUMMARY_BYTES 512

/* Counters are shown by their low 32 bits. They are read without a lock, while a receiver may be counting. */
static long low32(const uint64_t *value) { return (long)(int32_t)(uint32_t)tov_ld64(value); }

/* Prints through a format that was itself composed. */
static void format_again(char *to, const char *format, ...)
{
    va_list args;
    va_start(args, format);
    vsnprintf(to, SUMMARY_BYTES, format, args);
    va_end(args);
}

extern "C" void arista_fini(struct ruk__ep *rep)
{
    const ast_ctl_t *ctl = &rep->arista_control;
    const struct arista_stats *stats = &ctl->arct_stats;
    if (__atomic_load_n(&ctl->arct_status, __ATOMIC_RELAXED) == ARISTA_STATUS_DISABLED)
        return;

    char *line = (char *)malloc(SUMMARY_BYTES);
    char *text = (char *)malloc(SUMMARY_BYTES);
    if (!line || !text) {
        free(line);
        free(text);
        return;
    }
    snprintf(line, SUMMARY_BYTES,
             "Arista stats: KF [recv %ld, flips %ld, shortages %ld, malformed %ld] "
             "Sw [ptp out of sync. %ld, unsupp. %ld, dropped frm %ld, neg_adj_events %ld]",
             low32(&stats->arst_kfrecv), low32(&stats->arst_flips), low32(&stats->arst_kfneeded),
             low32(&stats->arst_kfmalformed), low32(&stats->arst_ptpoos), low32(&stats->arst_unsupported_mode),
             low32(&ctl->arct_lastkf.ak_dropped_frames), low32(&stats->arst_neg_adj_event));
    format_again(text, line);
    if (__ruk_verbose) {
        fprintf(stderr, "%s\n", text);
        fflush(stderr);
    }
    free(line); /* the text stays: whoever looks at the process afterwards finds it */
}

/* ------------------------------------------------------------------ status and counters */

/* The receiver, which has the receive lock, is the only writer; closing looks at them before it asks for that lock. */
static void set_status(ast_ctl_t *ctl, enum arista_tsp_status status)
{
    __atomic_store_n(&ctl->arct_status, status, __ATOMIC_RELAXED);
}

static void count(uint64_t *counter) { tov_st64(counter, *counter + 1); }

/* ------------------------------------------------------------------ dating frames */

extern "C" uint32_t arista_retrieve_frame_timestamp(struct ruk__ep *rep, const struct ruk__evpacket *evp)
{
    uint32_t word = 0;
    for (uint32_t i = 0; i < ARISTA_STAMP_LEN; i++) {
        uintptr_t at = (uintptr_t)evp->pkt + evp->length - ARISTA_STAMP_LEN + i;
        word = word << 8 | *(const uint8_t *)_eventq_wrap(&rep->rep_eventq, at);
    }
    return ((word & 0xFFFFFF00u) >> 1) | (word & 0x7Fu); /* bit 7 is not part of the stamp */
}

/*
 * Single precision to a 64-bit integer, towards zero: values of 2^63 and above less 2^63, which is added back.
 * What does not fit becomes 0, and what is no number 2^63, on every word size.
 */
static uint64_t float_to_u64(float value)
{
    const float half = 9223372036854775808.0f; /* 2^63 */
    if (value < half)
        return (uint64_t)(int64_t)value;
    if (!(value >= half))
        return UINT64_C(1) << 63;
    if (value >= 2 * half)
        return 0;
    return (uint64_t)(int64_t)(value - half) + (UINT64_C(1) << 63);
}

extern "C" uint64_t arista_compute_timestamp(struct ruk__ep *rep, uint32_t stamp)
{
    ast_ctl_t *ctl = &rep->arista_control;
    const struct arista_keyframe *kf = &ctl->arct_lastkf;

    /* 1. A wrap of the switch's clock. */
    if (stamp < ctl->arct_kf_last_ts && ctl->arct_kf_last_ts > 0xFFFFF000u && stamp <= 0xFFE) {
        ctl->arct_kf_flipped++;
        count(&ctl->arct_stats.arst_flips);
    }

    /* 2. Ticks since the keyframe, and nanoseconds a tick. */
    uint64_t ticks =
        ctl->arct_kf_flipped * ARISTA_TICKS_MASK - ((uint32_t)kf->ak_asic_time & ARISTA_TICKS_MASK) + stamp;
    double factor = ARISTA_NSECS_PER_TICK;
    if (ctl->arct_kf_hasskew)
        factor = ((double)kf->ak_skew_denominator / (double)kf->ak_skew_numerator) * ARISTA_NSECS_PER_TICK;
    ctl->arct_kf_last_ts = stamp;

    /* 3. The time, through single precision: coarse when the keyframe is long ago. It never goes back. */
    uint64_t time = float_to_u64((float)((double)ticks * factor)) + kf->ak_utc_time;
    if (time < ctl->arct_last_ts) {
        count(&ctl->arct_stats.arst_neg_adj_event);
        time = ctl->arct_last_ts;
    }
    ctl->arct_last_ts = time;
    return time;
}

extern "C" void arista_need_new_keyframe(struct ruk__ep *rep, uint64_t frame_time)
{
    ast_ctl_t *ctl = &rep->arista_control;
    if (!ctl->arct_kf_check_rate || ctl->arct_kf_flipped != 3 || ctl->arct_status == ARISTA_STATUS_NEED_KEYFRAME)
        return;
    count(&ctl->arct_stats.arst_kfneeded);
    set_status(ctl, ARISTA_STATUS_NEED_KEYFRAME);
    fprintf(stderr, "%lu: Arista switch keyframe shortage beginning %s\n", (unsigned long)(uint32_t)frame_time, "");
}

extern "C" void ruk__arista_calc_pkt_timestamps(struct ruk__ep *rep, struct ruk__evpacket *first)
{
    for (struct ruk__evpacket *evp = first; evp; evp = evp->evp_next) {
        if (evp->timestamp == ARISTA_KEYFRAME_MARK)
            continue;
        uint64_t time = arista_compute_timestamp(rep, arista_retrieve_frame_timestamp(rep, evp));
        evp->length = (uint16_t)(evp->length - ARISTA_STAMP_LEN);
        evp->timestamp = time;
        arista_need_new_keyframe(rep, time);
    }
}

/* ------------------------------------------------------------------ keyframes */

/* Reads big-endian fields one after the other. */
struct kf_reader {
    const uint8_t *at;
    uint64_t take(int bytes)
    {
        uint64_t value = 0;
        while (bytes-- > 0)
            value = value << 8 | *at++;
        return value;
    }
};

/* Payload of a keyframe, behind a 20-byte IP header and perhaps a VLAN tag, into the control record. */
static void parse_keyframe(struct ruk__ep *rep, const struct ruk__evpacket *evp)
{
    ast_ctl_t *ctl = &rep->arista_control;
    struct arista_keyframe *kf = &ctl->arct_lastkf;
    uint8_t frame[ARISTA_KF_LENGTH_SKEW + 4];
    for (uint32_t i = 0; i < sizeof frame; i++)
        frame[i] = *(const uint8_t *)_eventq_wrap(&rep->rep_eventq, (uintptr_t)evp->pkt + i);

    const bool tagged = frame[12] == 0x81 && frame[13] == 0x00;
    kf_reader payload = {frame + (tagged ? 38 : 34)};
    kf->ak_asic_time = payload.take(8);
    kf->ak_utc_time = payload.take(8);
    kf->ak_last_sync_time = payload.take(8);
    if (ctl->arct_kf_hasskew) {
        kf->ak_skew_numerator = payload.take(8);
        kf->ak_skew_denominator = payload.take(8);
    }
    kf->ak_kf_timestamp = payload.take(8);
    tov_st64(&kf->ak_dropped_frames, payload.take(8));
    kf->ak_device_id = (uint16_t)payload.take(2);
    kf->ak_egress_swport = (uint16_t)payload.take(2);
    kf->ak_fcs_type = (uint8_t)payload.take(1);
    kf->ak_reserved = (uint8_t)payload.take(1);
}

/* What a keyframe has changed. */
struct kf_changes {
    bool disabled, reenabled, shortage_ended, ptp_lost, resync;
    bool any() const { return disabled || reenabled || shortage_ended || ptp_lost || resync; }
};

static void follow_mode(ast_ctl_t *ctl, kf_changes *changes)
{
    const enum arista_tsp_status before = ctl->arct_status;
    const bool supported = ctl->arct_lastkf.ak_fcs_type == ARISTA_FCS_TIMESTAMPING_APPENDED;
    if (before == ARISTA_STATUS_NEED_KEYFRAME) {
        set_status(ctl, ARISTA_STATUS_ACTIVE);
        changes->shortage_ended = true;
    }
    if (!supported && before != ARISTA_STATUS_CHANGEDMODE) {
        count(&ctl->arct_stats.arst_unsupported_mode);
        set_status(ctl, ARISTA_STATUS_CHANGEDMODE);
        changes->disabled = true;
    } else if (supported && before == ARISTA_STATUS_CHANGEDMODE) {
        set_status(ctl, ARISTA_STATUS_ACTIVE);
        changes->reenabled = true;
    }
}

static void follow_ptp(ast_ctl_t *ctl, kf_changes *changes)
{
    if (ctl->arct_lastkf.ak_last_sync_time != 0) {
        if (ctl->arct_status == ARISTA_STATUS_OUTOFSYNC) {
            ctl->arct_kf_ptp_wait = 0;
            set_status(ctl, ARISTA_STATUS_ACTIVE);
            changes->resync = true;
        }
        return;
    }
    if (ctl->arct_status == ARISTA_STATUS_OUTOFSYNC)
        return;
    const uint64_t now = tov_host_nsecs();
    if (ctl->arct_kf_ptp_wait == 0 || ctl->arct_kf_ptp_wait == UINT64_MAX)
        ctl->arct_kf_ptp_wait = now + ARISTA_PTP_GRACE_NSECS;
    if (ctl->arct_kf_ptp_wait < now) {
        count(&ctl->arct_stats.arst_ptpoos);
        ctl->arct_kf_ptp_wait = 0;
        set_status(ctl, ARISTA_STATUS_OUTOFSYNC);
        changes->ptp_lost = true;
    }
}

static void report_changes(const kf_changes *changes, uint64_t utc_time)
{
    const unsigned long when = (uint32_t)utc_time;
    if (changes->disabled)
        fprintf(stderr, "%lu: Arista switch timestamp feature disabled by the switch %s\n", when, "");
    else if (changes->reenabled)
        fprintf(stderr, "%lu: Arista switch timestamp feature re-enabled by the switch %s\n", when, "");
    if (changes->shortage_ended)
        fprintf(stderr, "%lu: Arista switch keyframe shortage ended %s\n", when, "");
    if (changes->ptp_lost)
        fprintf(stderr, "%lu: Arista switch can't PTP sync anymore, time might be unreliable %s\n", when, "");
    else if (changes->resync)
        fprintf(stderr, "%lu: Arista switch did resync with PTP protocol %s\n", when, "");
}

extern "C" void arista_get_kf_pkt(struct ruk__ep *rep, struct ruk__evpacket *evp)
{
    ast_ctl_t *ctl = &rep->arista_control;
    const uint32_t expected = ctl->arct_kf_hasskew ? ARISTA_KF_LENGTH_SKEW : ARISTA_KF_LENGTH;
    if (evp->length != expected) {
        count(&ctl->arct_stats.arst_kfmalformed);
        ctl->arct_stats.arst_kfmalformedlen = evp->length;
        fprintf(stderr, "---: Arista switch sent malformed IP PROTO 253 packet, expected=%lu got=%d.\n",
                (unsigned long)expected, evp->length);
        return;
    }
    parse_keyframe(rep, evp);
    count(&ctl->arct_stats.arst_kfrecv);
    ctl->arct_kf_flipped = 0;

    kf_changes changes = {};
    follow_mode(ctl, &changes);
    if (ctl->arct_kf_check_ptp)
        follow_ptp(ctl, &changes);
    if (!changes.any())
        set_status(ctl, ARISTA_STATUS_ACTIVE);
    report_changes(&changes, ctl->arct_lastkf.ak_utc_time);
}
