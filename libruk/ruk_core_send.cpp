/*
 * Sending: payload space, the request ring, completions, datagrams through a handle.
 */
#include "ruk__iputils.h"
#include "ruk_core.h"
#include "tov_piocopy_inline.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#define SPIN_BUDGET 1000 /* attempts before the first wait in the driver */

/* ------------------------------------------------------------------ payload space and requests */

static inline struct ruk__sendbuf *sendbuf_of(struct ruk__ep *rep, enum ruk_req_type type)
{
    return type == RUK_REQ_SEND_DMA ? &rep->rep_dmabuf : &rep->rep_pioreq.pio_sb;
}

/*
 * Reserves need contiguous bytes and a request record, which goes to the end of the in-flight queue; null when
 * either is short. A reservation that would cross the ring's end starts at its base and takes the end as well.
 */
static inline struct ruk__request *reserve(struct ruk__ep *rep, enum ruk_req_type type, uint32_t need)
{
    /* 1. Room. */
    struct ruk__sendbuf *sb = sendbuf_of(rep, type);
    if (need > sb->sb_avail)
        return nullptr;
    uint32_t off = sb->sb_tail & (sb->sb_length - 1);
    if (__builtin_expect(off + need > sb->sb_length, 0)) {
        uint32_t skipped = sb->sb_length - off;
        if (need > sb->sb_avail - skipped)
            return nullptr;
        off = 0;
        need += skipped;
    }
    uintptr_t address = sb->sb_base + off;
    if (address == 0)
        return nullptr;

    /* 2. A record. */
    struct ruk__request *req = (struct ruk__request *)tov_mpool_take(rep->rep_sreq_pool);
    if (!req)
        return nullptr;
    rep->rep_sreq_inflight++;
    req->req_buf = address;
    req->req_size = need;
    req->req_num = rep->rep_sreq_inflight;
    req->req_qoff = off;
    req->req_type = type;

    /* 3. Both are taken. */
    STAILQ_INSERT_TAIL(&rep->rep_sreq_inflightq, req, req_link);
    sb->sb_tail += need;
    sb->sb_avail -= need;
    return req;
}

/* Gives a request's space and record back. */
static inline void release(struct ruk__ep *rep, struct ruk__request *req)
{
    if (req->req_type == RUK_REQ_SEND_PIO || req->req_type == RUK_REQ_SEND_DMA) {
        struct ruk__sendbuf *sb = sendbuf_of(rep, req->req_type);
        sb->sb_head += req->req_size;
        /* Not modulo the length: an empty payload released from a full ring would then free all of it. */
        sb->sb_avail = sb->sb_length - (sb->sb_tail - sb->sb_head);
    }
    req->req_type = RUK_REQ_SEND_NONE;
    req->req_size = 0;
    req->req_num = -1;
    tov_mpool_put(rep->rep_sreq_pool, req);
}

/* ------------------------------------------------------------------ completions */

/* Requests that the adapter has completed, modulo 65536. */
static inline uint16_t completed(const struct ruk__ep *rep)
{
    return tov_be16(tov_ld16_acq(rep->rep_pioreq.compl_done));
}

/* Of those, the ones reaped. */
static inline uint16_t reaped(const struct ruk__ep *rep)
{
    return (uint16_t)tov_ld32(&rep->rep_pioreq.tx_flow->flow_desc);
}

/* Takes back what is complete when the adapter's counter stands at `done`; the number of requests. */
static inline int reap(struct ruk__ep *rep, uint16_t done)
{
    const uint16_t before = reaped(rep);
    if (done == before)
        return 0;
    for (uint16_t last = before; last != done; last++) {
        struct ruk__request *req = STAILQ_FIRST(&rep->rep_sreq_inflightq); /* completions come in order */
        if (!req)
            break;
        STAILQ_REMOVE_HEAD(&rep->rep_sreq_inflightq, req_link);
        release(rep, req);
    }
    tov_st32(&rep->rep_pioreq.tx_flow->flow_desc, done); /* tells the driver how far */
    return (uint16_t)(done - before);
}

extern "C" int ruk__try_send_completion(struct ruk__ep *rep) { return reap(rep, completed(rep)); }

/* ------------------------------------------------------------------ waiting for room */

/* Debug output of the wait: once begun, its end is told as well. */
struct wait_debug {
    bool printed;
    void begin(int timeo)
    {
        if (__ruk_debug && !printed) {
            printf("processing for ruk__get_requests, timeo %d\n", timeo);
            printed = true;
        }
    }
    int fail(int rc)
    {
        if (__ruk_debug && printed)
            printf("processing for ruk__get_requests ended with error %d\n", rc);
        return rc;
    }
    void succeed()
    {
        if (printed)
            puts("processing for ruk__get_requests completed fine");
    }
};

/* Blocks in the driver until the adapter has completed a request; without the endpoint lock. */
static int wait_send_completion(struct ruk__ep *rep, int32_t timeo)
{
    ruk__ep_unlock(rep);
    int rc = tov_ioctl(rep->rep_handle, OXEL_WAIT_SEND_COMPLETION, &timeo, sizeof timeo);
    ruk__ep_lock(rep);
    return rc;
}

/*
 * Reserves after a first attempt has failed: reaps and spins, then waits in the driver, as flags allow. Null with the
 * reason in *rc_o.
 */
[[gnu::noinline]] static struct ruk__request *reserve_slowly(struct ruk__ep *rep, enum ruk_req_type type, uint32_t need,
                                                             int flags, int *rc_o)
{
    const int32_t timeo = (flags & RUK_NONBLOCK) ? 0 : -1;
    int spins = SPIN_BUDGET;
    wait_debug debug = {};
    for (;;) {
        debug.begin(timeo);
        if (ruk__try_send_completion(rep) == 0) {
            int rc = 0;
            if (timeo == 0) {
                rc = EAGAIN;
            } else if (--spins == 0) {
                rc = wait_send_completion(rep, timeo);
                spins = 1; /* one attempt between waits */
            }
            if (rc != 0) {
                *rc_o = debug.fail(rc);
                return nullptr;
            }
        }
        if (struct ruk__request *req = reserve(rep, type, need)) {
            debug.succeed();
            return req;
        }
    }
}

/* ------------------------------------------------------------------ posting */

/* PIO or DMA, by length alone. */
static inline enum ruk_req_type type_of(const struct ruk__ep *rep, int paylen)
{
    return (uint32_t)paylen > rep->rep_dmasend_threshold ? RUK_REQ_SEND_DMA : RUK_REQ_SEND_PIO;
}

/*
 * Reaps what has completed, and reserves room for a datagram. Whole words are copied; DMA takes whole pages. Null with
 * the reason in *rc_o.
 */
static inline struct ruk__request *place(struct ruk__ep *rep, enum ruk_req_type type, const uint8_t *buffer, int paylen,
                                         int flags, int *rc_o)
{
    uint32_t need = ((uint32_t)paylen + ((uintptr_t)buffer & 3) + 3) & ~3u;
    if (type == RUK_REQ_SEND_DMA)
        need = (need + NUV_DMA_PAGE - 1) & ~(NUV_DMA_PAGE - 1);

    reap(rep, completed(rep));
    struct ruk__request *req = reserve(rep, type, need);
    return __builtin_expect(req != nullptr, 1) ? req : reserve_slowly(rep, type, need, flags, rc_o);
}

/* tov_piocopy_csum(), in line for a payload that begins on a word. */
static inline uint32_t copy_payload(const struct ruk__request *req, const uint8_t *from, uint32_t len,
                                    uint32_t *misalign)
{
    if (__builtin_expect(((uintptr_t)from & 3) != 0, 0))
        return tov_piocopy_csum((uintptr_t *)req->req_buf, from, len, misalign);
    *misalign = 0;
    return tov_piocopy_csum_aligned((volatile uint32_t *)req->req_buf, from, len, 0, 0);
}

/* The UDP checksum from the payload's sum and that of the rest. */
static inline uint16_t udp_checksum(uint32_t payload_sum, uint32_t partial)
{
    const uint16_t check = ruk__csum_fold(ruk__csum_add(payload_sum, partial));
    return check == 0 ? 0xFFFF : check;
}

static inline nuv_ureq_t *slot_of(const struct ruk__ep *rep, enum ruk_req_type type)
{
    return (nuv_ureq_t *)((uint8_t *)rep->rep_pioreq.pio_req_db + type * NUV_UREQ_STRIDE);
}

/* Writes a request into its slot. The word that carries the type comes last: it hands the request over. */
static inline void post(nuv_ureq_t *slot, const nuv_ureq_t *req)
{
    for (int i = 0; i < 16; i++)
        tov_st32(&slot->words[i], req->words[i]);
    tov_wmb();
}

extern "C" int ruk_raw_send(ruk_device_t rep, uint8_t *hdr, int hdrlen, uint32_t chksum_hdr, int chksum_offset,
                            const uint8_t *buffer, int paylen, int flags)
{
    if (__builtin_expect(rep->rep_state == REP_STATE_ALLOC, 0))
        return EINVAL;

    /*
     * 1. The header is taken now: waiting for room lets go of the lock, and another thread that sends on the same
     * handle then writes its own lengths into the template.
     */
    alignas(64) nuv_ureq_t ureq = {};
    memcpy(ureq.ruk.ruk_header, hdr, (size_t)hdrlen);

    /* 2. Room. */
    int rc;
    const enum ruk_req_type type = type_of(rep, paylen);
    const struct ruk__request *req = place(rep, type, buffer, paylen, flags, &rc);
    if (__builtin_expect(!req, 0))
        return rc;

    /* 3. The payload, summed on the way; it is visible to the adapter before the request. */
    uint32_t misalign;
    const uint32_t sum = tov_piocopy_csum((uintptr_t *)req->req_buf, buffer, (uint32_t)paylen, &misalign);

    /* 4. The rest of the request. */
    if (chksum_offset > 0) {
        const uint16_t check = udp_checksum(sum, chksum_hdr);
        memcpy(ureq.ruk.ruk_header + chksum_offset, &check, sizeof check);
    }
    ureq.ruk.ruk_data_offset = tov_be32(req->req_qoff + misalign);
    ureq.ruk.ruk_data_length = tov_be16((uint16_t)paylen);
    ureq.ruk.header_length = (uint8_t)hdrlen;
    ureq.ruk.type = (uint8_t)type;

    /* 5. Into the adapter. Nothing waits for it. */
    post(slot_of(rep, type), &ureq);
    return 0;
}

/* ------------------------------------------------------------------ datagrams through a handle */

/* What a datagram changes in its handle's template, as it lies in memory. */
struct datagram_fields {
    uint16_t ip_len, ip_check, udp_len;
    uint32_t udp_partial; /* sum of what the UDP checksum covers besides the payload */
};

/*
 * Writes the request of an untagged datagram: the template's words, those with fields of this datagram put together
 * in registers. A buffer written in halves and read back in words would stall on each of them.
 */
static inline void post_untagged(nuv_ureq_t *slot, const struct ruk__hdrinfo *info, const datagram_fields *fields,
                                 uint16_t udp_check, uint32_t data_offset, uint16_t paylen, enum ruk_req_type type)
{
    const uint32_t *words = info->ureq->words;
    const uint32_t ver_tos = load16(info->ureq->bytes + 20), ttl_proto = load16(info->ureq->bytes + 28);
    tov_st32(&slot->words[0], tov_be32(data_offset));
    tov_st32(&slot->words[1], words[1] | tov_be16(paylen));
    tov_st32(&slot->words[2], words[2]);
    tov_st32(&slot->words[3], words[3]);
    tov_st32(&slot->words[4], words[4]);
    tov_st32(&slot->words[5], ver_tos | (uint32_t)fields->ip_len << 16);
    tov_st32(&slot->words[6], words[6]);
    tov_st32(&slot->words[7], ttl_proto | (uint32_t)fields->ip_check << 16);
    tov_st32(&slot->words[8], words[8]);
    tov_st32(&slot->words[9], words[9]);
    tov_st32(&slot->words[10], words[10]);
    tov_st32(&slot->words[11], fields->udp_len | (uint32_t)udp_check << 16);
    tov_st32(&slot->words[12], words[12]);
    tov_st32(&slot->words[13], words[13]);
    tov_st32(&slot->words[14], words[14]);
    tov_st32(&slot->words[15], words[15] | (uint32_t)type << 24);
    tov_wmb();
}

/* Sends an untagged datagram; the same steps as ruk_raw_send(), less the copy of the header. */
static inline int send_untagged(struct ruk__ep *rep, const struct ruk__hdrinfo *info, const datagram_fields *fields,
                                const uint8_t *buf, int paylen, int flags)
{
    if (__builtin_expect(rep->rep_state == REP_STATE_ALLOC, 0))
        return EINVAL;

    /* 1. Room. */
    int rc;
    const enum ruk_req_type type = type_of(rep, paylen);
    const struct ruk__request *req = place(rep, type, buf, paylen, flags, &rc);
    if (__builtin_expect(!req, 0))
        return rc;

    /* 2. The payload, summed on the way; it is visible to the adapter before the request. */
    uint32_t misalign;
    const uint32_t sum = copy_payload(req, buf, (uint32_t)paylen, &misalign);

    /* 3. The request, into the adapter. Nothing waits for it. */
    post_untagged(slot_of(rep, type), info, fields, udp_checksum(sum, fields->udp_partial), req->req_qoff + misalign,
                  (uint16_t)paylen, type);
    return 0;
}

extern "C" int ruk_send(ruk_send_t dhs, const void *buf, int paylen, int flags)
{
    struct ruk__ep *rep = dhs->dhs_rep;
    struct ruk__hdrinfo *info = &dhs->dhs_peer_hdrinfo;
    ruk__ep_lock(rep);

    /* 1. The lengths; the header's checksum; what the UDP checksum covers besides the payload: its length twice. */
    datagram_fields fields;
    fields.udp_len = tov_be16((uint16_t)(paylen + 8));
    fields.ip_len = tov_be16((uint16_t)(paylen + 28));
    fields.ip_check = ruk__csum_fold(ruk__csum_add(info->csum_ip_partial, fields.ip_len));
    fields.udp_partial = ruk__csum_add(info->csum_hdr_partial, 2u * fields.udp_len);

    /* 2. The template keeps them. */
    info->hdr_udp->udp_len_be16 = fields.udp_len;
    info->hdr_ip->ip_tot_len_be16 = fields.ip_len;
    info->hdr_ip->ip_check_be16 = fields.ip_check;

    /*
     * 3. On its way. On a tagged channel hdr_eth lies two bytes before the header, so that the checksum goes
     * behind it and the datagram leaves without one.
     */
    int rc;
    if (__builtin_expect(info->eth_proto == RUK_ETHERTYPE_IPV4, 1)) {
        rc = send_untagged(rep, info, &fields, (const uint8_t *)buf, paylen, flags);
    } else {
        const int csum_offset = (int)((const uint8_t *)&info->hdr_udp->udp_check_be16 - (const uint8_t *)info->hdr_eth);
        rc = ruk_raw_send(rep, info->ureq->ruk.ruk_header, info->ureq->ruk.header_length, fields.udp_partial,
                          csum_offset, (const uint8_t *)buf, paylen, flags);
    }
    ruk__ep_unlock(rep);
    return rc;
}

/* ------------------------------------------------------------------ measuring the copy */

#define PIOCOPY_TEST_MAX 2048

/* A copy without a sum: the last word goes behind a fence of its own. */
static void plain_copy(uint32_t *to, const uint32_t *from, uint32_t len)
{
    uint32_t words = len / 4;
    for (uint32_t i = 0; i + 1 < words; i++)
        tov_st32(to + i, from[i]);
    tov_wmb();
    if (words > 0)
        tov_st32(to + words - 1, from[words - 1]);
    tov_wmb();
}

extern "C" int ruk__piocopy_test(ruk_device_t rep, int iterations, uint32_t len, int do_csum, uint64_t *t_nsecs,
                                 uint64_t *bw_MB)
{
    alignas(64) static const uint32_t test_data[PIOCOPY_TEST_MAX / 4] = {};
    if (rep->rep_state == REP_STATE_ALLOC)
        return EINVAL;
    len = (len + 3) & ~3u;
    if (len > PIOCOPY_TEST_MAX || iterations == 0)
        return EINVAL;
    struct ruk__request *req = reserve(rep, RUK_REQ_SEND_PIO, len);
    if (!req)
        return EBUSY;

    const uint32_t start = (uint32_t)tov_get_cycles();
    for (int i = 0; i < iterations; i++) {
        uint32_t misalign;
        if (do_csum)
            tov_piocopy_csum((uintptr_t *)req->req_buf, (const uint8_t *)test_data, len, &misalign);
        else
            plain_copy((uint32_t *)req->req_buf, test_data, len);
    }
    const uint32_t cycles = (uint32_t)tov_get_cycles() - start;
    release(rep, req); /* the record stays in the in-flight queue */

    const uint64_t nsecs_per_sec = UINT64_C(1000000000);
    const uint64_t rate = tov_cycles_per_second(); /* 0 when the host's clock stood still as it was found */
    uint64_t elapsed_ns = rate ? cycles * nsecs_per_sec / rate : 0;
    *t_nsecs = elapsed_ns / (uint64_t)iterations;
    *bw_MB = (nsecs_per_sec * (uint64_t)iterations * len / (elapsed_ns ? elapsed_ns : 1)) >> 20;
    return 0;
}
