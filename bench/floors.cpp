/*
 * Floors: see floors.h. A file of its own, so that each is one call, as the library is.
 */
#include "floors.h"

#include "tov_io.h"

#include <cerrno>
#include <cstring>
#include <emmintrin.h>

namespace bench {

namespace {

uint16_t load16(const void *p)
{
    uint16_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
uint32_t load32(const void *p)
{
    uint32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
uint64_t load64(const void *p)
{
    uint64_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

inline void move16(uint8_t *to, const uint8_t *from)
{
    _mm_storeu_si128(reinterpret_cast<__m128i *>(to), _mm_loadu_si128(reinterpret_cast<const __m128i *>(from)));
}

/* Small datagrams without a call: moves of 16 bytes, the last ones overlapping. */
inline void copy(uint8_t *to, const uint8_t *from, size_t n)
{
    if (n >= 32 && n <= 64) {
        move16(to, from);
        move16(to + 16, from + 16);
        move16(to + n - 32, from + n - 32);
        move16(to + n - 16, from + n - 16);
        return;
    }
    if (n < 16 || n > 256) {
        std::memcpy(to, from, n);
        return;
    }
    size_t i = 0;
    for (; i + 64 <= n; i += 64)
        for (size_t k = 0; k < 64; k += 16)
            move16(to + i + k, from + i + k);
    for (; i + 16 <= n; i += 16)
        move16(to + i, from + i);
    if (i < n)
        move16(to + n - 16, from + n - 16);
}

uint64_t date(const FloorReceiver *r, const uint8_t *event)
{
    const uint64_t ticks = __builtin_bswap64(load64(event));
    const oxel_clksync_seq_t *seq = &r->clock->clksync;
    for (;;) {
        const uint32_t before = tov_ld32_acq(&seq->seqnum);
        if (before & 1)
            continue;
        tov_mb();
        const oxel_clksync_nticks_t nt = seq->nticks;
        const oxel_clksync_params_t drift = seq->clkp;
        tov_mb();
        if (tov_ld32_acq(&seq->seqnum) != before)
            continue;
        const uint64_t ns = ((ticks - nt.ticks) & nt.ticks_mask) * nt.nt_numerator / nt.nt_denominator + nt.nsecs;
        const int64_t product = int64_t((ns - drift.nsecs_base) * uint64_t(drift.multiplier));
        return ns + uint64_t(drift.hostnic_drift_nsecs) + uint64_t(product >> 30);
    }
}

/* One datagram. An event that reaches the ring's end is received by a function of its own, `round`. */
template <bool dated, bool ahead, bool round>
inline int receive(FloorReceiver *r, void *buf, size_t len, ruk_recv_info *info);

template <bool dated, bool ahead>
[[gnu::noinline, gnu::cold]] int receive_round(FloorReceiver *r, void *buf, size_t len, ruk_recv_info *info)
{
    return receive<dated, ahead, true>(r, buf, len, info);
}

template <bool dated, bool ahead, bool round>
inline int receive(FloorReceiver *r, void *buf, size_t len, ruk_recv_info *info)
{
    uint8_t *const event = r->cur;
    if (tov_ld8_acq(event + NUV_UEVT_PRESENT) == 0)
        return EAGAIN;
    const uint32_t bytes = tov_be16(load16(event + 28));
    if (!round && __builtin_expect(event + bytes >= r->end, 0))
        return receive_round<dated, ahead>(r, buf, len, info);
    const size_t size = size_t(r->end - r->base);
    auto wrapped = [r, size](uint8_t *p) { return !round || p < r->end ? p : p - size; };

    if constexpr (ahead)
        for (uint32_t k = 0; k < bytes; k += 64)
            __builtin_prefetch(event + 8 * bytes + k, 1);
    while (tov_ld8_acq(wrapped(event + bytes - 1)) != 0)
        ;

    /* Headers and payload; a copy of them where they straddle the ring's end. */
    uint8_t *frame = wrapped(event + sizeof(nuv_uevt_ruk_t) + NUV_UEVT_FRAME_OFFSET);
    uint8_t whole[round ? 2048 : 1];
    if (round && frame + bytes > r->end) {
        const size_t first = size_t(r->end - frame);
        std::memcpy(whole, frame, first);
        std::memcpy(whole + first, r->base, bytes - first);
        frame = whole;
    }
    info->chan = r->channels[tov_be16(load16(event + 10))];
    info->chan_context = nullptr;
    info->sin_from.sin_family = AF_INET;
    info->sin_from.sin_port = load16(frame + 34);
    info->sin_from.sin_addr.s_addr = load32(frame + 26);
    info->sin_to.sin_family = AF_INET;
    info->sin_to.sin_port = load16(frame + 36);
    info->sin_to.sin_addr.s_addr = load32(frame + 30);
    const uint32_t payload = tov_be16(load16(frame + 38)) - 8u;
    info->msg_len = payload;
    if constexpr (dated) {
        uint64_t time = date(r, event);
        if (time < r->last_time)
            time = r->last_time;
        r->last_time = time;
        info->timestamp = time;
    } else {
        info->timestamp = 0;
    }
    copy(static_cast<uint8_t *>(buf), frame + 42, payload < len ? payload : len);

    for (uint32_t k = 0; k < bytes; k += 64) {
        uint8_t *slot = wrapped(event + k);
        tov_st8(slot + NUV_UEVT_PRESENT, 0);
        tov_st8(slot + NUV_UEVT_COMPLETE, NUV_UEVT_FREE_BYTE);
    }
    r->cur = wrapped(event + bytes);
    r->consumed += bytes;
    const uint32_t units = uint32_t(r->consumed >> 12);
    const uint32_t events = r->flow->flow_desc + 1;
    tov_st64_rel(&r->flow->flow_data_off, uint64_t(r->cur - r->base));
    tov_st32_rel(&r->flow->flow_desc, events);
    tov_st32_rel(&r->flow->flow_data, units);
    if ((units & 15) == 1) {
        tov_st64(r->doorbell, tov_be64(uint64_t(events) << 32 | units));
        tov_wmb();
    }
    return 0;
}

} // namespace

int floor_receive(FloorReceiver *r, void *buf, size_t len, ruk_recv_info *info)
{
    return receive<false, false, false>(r, buf, len, info);
}
int floor_receive_ahead(FloorReceiver *r, void *buf, size_t len, ruk_recv_info *info)
{
    return receive<false, true, false>(r, buf, len, info);
}
int floor_receive_dated(FloorReceiver *r, void *buf, size_t len, ruk_recv_info *info)
{
    return receive<true, false, false>(r, buf, len, info);
}

namespace {

inline uint64_t add(uint64_t sum, uint64_t v)
{
    uint64_t result;
    return __builtin_add_overflow(sum, v, &result) ? result + 1 : result;
}

inline uint64_t add4(uint64_t sum, uint64_t a, uint64_t b, uint64_t c, uint64_t d)
{
#if defined(__x86_64__)
    __asm__("addq %1, %0; adcq %2, %0; adcq %3, %0; adcq %4, %0; adcq $0, %0"
            : "+&r"(sum)
            : "r"(a), "r"(b), "r"(c), "r"(d)
            : "cc");
    return sum;
#else
    return add(add(add(add(sum, a), b), c), d);
#endif
}

/* A sum of any width down to 16 bits. */
inline uint16_t fold(uint64_t sum)
{
    sum = (sum & 0xFFFFFFFF) + (sum >> 32);
    sum = (sum & 0xFFFFFFFF) + (sum >> 32);
    uint32_t s = uint32_t(sum);
    s = (s & 0xFFFF) + (s >> 16);
    return uint16_t(s + (s >> 16));
}

inline uint64_t copy32(uint32_t *to, const uint8_t *from, uint64_t sum)
{
    const uint64_t a = load64(from), b = load64(from + 8), c = load64(from + 16), d = load64(from + 24);
    sum = add4(sum, a, b, c, d); /* before the stores: their upper halves are then moved down in place */
    tov_st32(to, uint32_t(a));
    tov_st32(to + 1, uint32_t(a >> 32));
    tov_st32(to + 2, uint32_t(b));
    tov_st32(to + 3, uint32_t(b >> 32));
    tov_st32(to + 4, uint32_t(c));
    tov_st32(to + 5, uint32_t(c >> 32));
    tov_st32(to + 6, uint32_t(d));
    tov_st32(to + 7, uint32_t(d >> 32));
    return sum;
}

/* Payloads begin on a word, as the measured ones do. Two sums, so that neither waits for the other. */
inline uint64_t copy_and_sum(uint32_t *to, const uint8_t *from, size_t len)
{
    uint64_t even = 0, odd = 0;
    size_t i = 0;
    for (; i + 64 <= len; i += 64, to += 16) {
        even = copy32(to, from + i, even);
        odd = copy32(to + 8, from + i + 32, odd);
    }
    if (i + 32 <= len) {
        even = copy32(to, from + i, even);
        i += 32;
        to += 8;
    }
    for (; i + 4 <= len; i += 4) {
        const uint32_t a = load32(from + i);
        tov_st32(to++, a);
        even = add(even, a);
    }
    if (i < len) {
        uint32_t last = 0;
        std::memcpy(&last, from + i, len - i);
        tov_st32(to, last);
        odd = add(odd, last);
    }
    return add(even, odd);
}

} // namespace

void floor_sender_init(FloorSender *s, const uint8_t *header, uint8_t type)
{
    auto *request = reinterpret_cast<uint8_t *>(s->words);
    std::memset(request, 0, sizeof s->words);
    std::memcpy(request + 6, header, 42);
    request[62] = 42;
    request[63] = type;
    s->ip_sum = s->udp_sum = 0;
    for (size_t i = 14; i < 34; i += 2)
        s->ip_sum += load16(header + i);
    for (size_t i = 26; i < 38; i += 2)
        s->udp_sum += load16(header + i);
    s->udp_sum += 17 << 8;
    s->tail = 0;
    s->posted = 0;
}

int floor_send(FloorSender *s, const void *buf, size_t len)
{
    if (uint16_t(s->posted - tov_be16(tov_ld16_acq(s->completions))) >= 64)
        return EAGAIN;
    const uint32_t need = (uint32_t(len) + s->grain - 1) & ~(s->grain - 1);
    uint32_t offset = s->tail;
    if (offset + need > s->size)
        offset = 0;
    s->tail = offset + need;
    s->posted++;

    const uint64_t sum =
        copy_and_sum(reinterpret_cast<uint32_t *>(s->payloads + offset), static_cast<const uint8_t *>(buf), len);
    tov_wmb();

    const uint16_t ip_len = tov_be16(uint16_t(len + 28)), udp_len = tov_be16(uint16_t(len + 8));
    const uint32_t ip_sum = s->ip_sum + ip_len, ip_fold = (ip_sum & 0xFFFF) + (ip_sum >> 16); /* of 20 bits */
    const uint16_t ip_check = uint16_t(~(ip_fold + (ip_fold >> 16)));
    uint16_t udp_check = uint16_t(~fold(add(sum, s->udp_sum + 2ull * udp_len)));
    if (udp_check == 0)
        udp_check = 0xFFFF;

    tov_st32(s->slot, tov_be32(offset));
    tov_st32(s->slot + 1, s->words[1] | tov_be16(uint16_t(len)));
    tov_st32(s->slot + 2, s->words[2]);
    tov_st32(s->slot + 3, s->words[3]);
    tov_st32(s->slot + 4, s->words[4]);
    tov_st32(s->slot + 5, s->words[5] | uint32_t(ip_len) << 16);
    tov_st32(s->slot + 6, s->words[6]);
    tov_st32(s->slot + 7, s->words[7] | uint32_t(ip_check) << 16);
    tov_st32(s->slot + 8, s->words[8]);
    tov_st32(s->slot + 9, s->words[9]);
    tov_st32(s->slot + 10, s->words[10]);
    tov_st32(s->slot + 11, udp_len | uint32_t(udp_check) << 16);
    for (int i = 12; i < 16; i++)
        tov_st32(s->slot + i, s->words[i]);
    tov_wmb();
    return 0;
}

void floor_copy32(uint32_t *to, const uint8_t *from, size_t len)
{
    size_t i = 0;
    for (; i + 32 <= len; i += 32, to += 8) {
        const uint64_t a = load64(from + i), b = load64(from + i + 8);
        const uint64_t c = load64(from + i + 16), d = load64(from + i + 24);
        tov_st32(to, uint32_t(a));
        tov_st32(to + 1, uint32_t(a >> 32));
        tov_st32(to + 2, uint32_t(b));
        tov_st32(to + 3, uint32_t(b >> 32));
        tov_st32(to + 4, uint32_t(c));
        tov_st32(to + 5, uint32_t(c >> 32));
        tov_st32(to + 6, uint32_t(d));
        tov_st32(to + 7, uint32_t(d >> 32));
    }
    for (; i < len; i += 4)
        tov_st32(to++, load32(from + i));
    tov_wmb();
}

} // namespace bench
