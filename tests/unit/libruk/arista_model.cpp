#include "arista_model.h"

namespace arista_model {

using namespace recv_rig;

/* ------------------------------------------------------------------ numbers */

namespace {

struct Wide {
    uint64_t hi, lo;
};

Wide shifted_left(const Wide &w, int n) /* n from 0 to 127 */
{
    if (n == 0)
        return w;
    return n < 64 ? Wide{w.hi << n | w.lo >> (64 - n), w.lo << n} : Wide{w.lo << (n - 64), 0};
}

/* w * 2^e, and a bit more when sticky, to a format of so many bits (at most 53), to nearest and even. */
Binary rounded(const Wide &w, int e, bool sticky, int bits)
{
    if (w.hi == 0 && w.lo == 0)
        return {};
    const int zeros = w.hi ? __builtin_clzll(w.hi) : 64 + __builtin_clzll(w.lo);
    const Wide top = shifted_left(w, zeros); /* the first one is bit 127 */
    Binary r;
    r.kind = Binary::finite;
    r.m = top.hi >> (64 - bits);
    r.e = e + 128 - zeros - bits;
    const Wide rest = shifted_left(top, bits); /* what is cut off: from its half down */
    const bool half = rest.hi >> 63;
    const bool below = rest.hi << 1 || rest.lo || sticky;
    if (half && (below || (r.m & 1)))
        r.m++;
    if (r.m >> bits) {
        r.m >>= 1;
        r.e++;
    }
    return r;
}

Wide product(uint64_t a, uint64_t b)
{
    const uint64_t al = a & 0xffffffff, ah = a >> 32, bl = b & 0xffffffff, bh = b >> 32;
    const uint64_t low = al * bl, mid1 = ah * bl, mid2 = al * bh;
    const uint64_t carry = (low >> 32) + (mid1 & 0xffffffff) + (mid2 & 0xffffffff);
    return {ah * bh + (mid1 >> 32) + (mid2 >> 32) + (carry >> 32), carry << 32 | (low & 0xffffffff)};
}

} // namespace

Binary binary64(uint64_t v) { return rounded({0, v}, 0, false, 53); }

Binary multiply64(const Binary &a, const Binary &b)
{
    if (a.kind == Binary::none || b.kind == Binary::none)
        return {Binary::none};
    if (a.kind == Binary::infinite || b.kind == Binary::infinite)
        return {a.kind == Binary::zero || b.kind == Binary::zero ? Binary::none : Binary::infinite};
    if (a.kind == Binary::zero || b.kind == Binary::zero)
        return {};
    return rounded(product(a.m, b.m), a.e + b.e, false, 53);
}

Binary divide64(const Binary &a, const Binary &b)
{
    if (b.kind == Binary::zero)
        return {a.kind == Binary::zero ? Binary::none : Binary::infinite};
    if (a.kind == Binary::zero)
        return {};
    /* a.m * 2^64 / b.m, digit by digit. */
    Wide quotient = {0, 0};
    uint64_t rest = 0;
    for (int i = 127; i >= 0; i--) {
        rest = rest << 1 | (i >= 64 ? a.m >> (i - 64) & 1 : 0);
        const bool digit = rest >= b.m;
        if (digit)
            rest -= b.m;
        quotient.hi = quotient.hi << 1 | quotient.lo >> 63;
        quotient.lo = quotient.lo << 1 | digit;
    }
    return rounded(quotient, a.e - b.e - 64, rest != 0, 53);
}

Binary binary32(const Binary &v)
{
    if (v.kind != Binary::finite)
        return v;
    Binary r = rounded({0, v.m}, v.e, false, 24);
    if (r.e + 23 > 127)
        return {Binary::infinite};
    return r;
}

uint64_t integer(const Binary &v)
{
    if (v.kind == Binary::none)
        return UINT64_C(1) << 63;
    if (v.kind != Binary::finite || v.e > 40)
        return 0;
    if (v.e >= 0)
        return v.m << v.e; /* 24 bits: up to e = 40 it fits */
    return v.e > -64 ? v.m >> -v.e : 0;
}

/* ------------------------------------------------------------------ frames */

Bytes Keyframe::bytes() const
{
    Bytes payload = be64(asic_time) + be64(utc_time) + be64(last_sync_time);
    if (has_skew)
        payload = payload + be64(skew_numerator) + be64(skew_denominator);
    payload = payload + be64(kf_timestamp) + be64(dropped_frames) + be16(device_id) + be16(egress_swport);
    payload.push_back(fcs_type);
    payload.push_back(reserved);

    Bytes frame = {0x02, 0x6f, 0x78, 0, 0, 1, 0x00, 0x1c, 0x73, 0, 0, 1};
    if (tagged)
        frame = frame + be16(0x8100) + be16(1234);
    frame = frame + be16(0x0800) + Bytes{0x45, 0} + be16(20 + payload.size()) + be32(0) + Bytes{64, 253} + be16(0) +
            be32(0x0a000001) + be32(0x01010100);
    frame = frame + payload;
    /* 84 or 100 bytes with the trailer; a tagged one has no room for that. */
    frame.resize((has_skew ? 100u : 84u) + static_cast<size_t>(extra), 0);
    return frame;
}

uint32_t word_of(uint32_t stamp, bool bit7) { return (stamp & 0x7fffff80) << 1 | (bit7 ? 0x80 : 0) | (stamp & 0x7f); }

/* ------------------------------------------------------------------ the switch */

Binary Switch::factor() const
{
    if (!factor_) {
        /* 2.857142857142857 as the nearest double: both parts are exact. */
        const Binary tick = divide64(binary64(2857142857142857), binary64(1000000000000000));
        factor_ = has_skew ? multiply64(divide64(binary64(last.skew_denominator), binary64(last.skew_numerator)), tick)
                           : tick;
    }
    return *factor_;
}

void Switch::say(uint64_t when, const std::string &what)
{
    messages += std::to_string(when % 0x100000000) + ": Arista switch " + what + "\n";
}

uint64_t Switch::date(uint32_t word)
{
    const uint32_t stamp = word / 256 * 128 + word % 128;
    if (stamp < last_stamp && last_stamp > 4294963200 && stamp < 4095) {
        flips++;
        all_flips++;
    }
    last_stamp = stamp;
    const uint64_t ticks = flips * 2147483647 + stamp - last.asic_time % 2147483648;
    uint64_t time = integer(binary32(multiply64(binary64(ticks), factor()))) + last.utc_time;
    if (time < last_time) {
        time = last_time;
        neg_adj++;
    }
    last_time = time;
    if (check_rate && flips == 3 && status != 6) {
        status = 6;
        kfneeded++;
        say(time, "keyframe shortage beginning ");
    }
    return time;
}

void Switch::keyframe(const Keyframe &kf, size_t length, uint64_t now)
{
    const size_t expected = has_skew ? 100 : 84;
    if (length != expected) {
        malformed++;
        malformed_len = length;
        messages += "---: Arista switch sent malformed IP PROTO 253 packet, expected=" + std::to_string(expected) +
                    " got=" + std::to_string(length) + ".\n";
        return;
    }
    const Keyframe before = last;
    last = kf;
    if (!has_skew) {
        last.skew_numerator = before.skew_numerator;
        last.skew_denominator = before.skew_denominator;
    }
    factor_.reset();
    kfrecv++;
    flips = 0;

    const bool shortage_ended = status == 6, was_changed = status == 2, bad = kf.fcs_type != 1;
    const bool disabled = bad && !was_changed, reenabled = !bad && was_changed;
    if (disabled) {
        unsupported++;
        status = 2;
    } else if (shortage_ended || reenabled) {
        status = 4;
    }
    bool lost = false, resync = false;
    if (check_ptp && kf.last_sync_time != 0 && status == 5) {
        deadline.reset();
        resync = true;
        status = 4;
    } else if (check_ptp && kf.last_sync_time == 0 && status != 5) {
        if (!deadline)
            deadline = now + 7000000000;
        if (*deadline < now) {
            deadline.reset();
            lost = true;
            ptpoos++;
            status = 5;
        }
    }
    if (!shortage_ended && !disabled && !reenabled && !lost && !resync)
        status = 4;

    if (disabled)
        say(kf.utc_time, "timestamp feature disabled by the switch ");
    if (reenabled)
        say(kf.utc_time, "timestamp feature re-enabled by the switch ");
    if (shortage_ended)
        say(kf.utc_time, "keyframe shortage ended ");
    if (lost)
        say(kf.utc_time, "can't PTP sync anymore, time might be unreliable ");
    if (resync)
        say(kf.utc_time, "did resync with PTP protocol ");
}

} // namespace arista_model
