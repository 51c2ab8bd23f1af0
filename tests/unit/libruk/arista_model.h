/*
 * The switch's arithmetic and state once more, for comparison: binary floating point in integers, rounded to
 * nearest and even explicitly, and the frame times and statuses that follow from a stream of frames and keyframes.
 */
#pragma once

#include "recv_rig.h"

namespace arista_model {

using recv_rig::Bytes;

/* A non-negative number m * 2^e of a binary format; m has all the format's bits, unless the number is 0. */
struct Binary {
    enum Kind { zero, finite, infinite, none } kind = zero;
    uint64_t m = 0;
    int e = 0;
};

Binary binary64(uint64_t v);
Binary multiply64(const Binary &a, const Binary &b);
Binary divide64(const Binary &a, const Binary &b);
Binary binary32(const Binary &v);
/* Towards zero; 2^64 and more become 0, what is no number 2^63. */
uint64_t integer(const Binary &v);

/* A keyframe's fields, and its bytes on the wire. */
struct Keyframe {
    uint64_t asic_time = 0;
    uint64_t utc_time = 0;
    uint64_t last_sync_time = 1;
    uint64_t skew_numerator = 1;
    uint64_t skew_denominator = 1;
    uint64_t kf_timestamp = 0;
    uint64_t dropped_frames = 0;
    uint16_t device_id = 0;
    uint16_t egress_swport = 0;
    uint8_t fcs_type = 1;
    uint8_t reserved = 0;
    /* Not fields: */
    bool has_skew = false;
    bool tagged = false;
    int extra = 0; /* bytes more or fewer before the trailer */

    Bytes bytes() const;
};

/* The word at a frame's end for a stamp; bit 7 is the switch's own business. */
uint32_t word_of(uint32_t stamp, bool bit7 = false);

class Switch {
public:
    /* Settings. */
    bool has_skew = false, check_rate = true, check_ptp = false;

    /* State, in the terms of the control record. */
    int status = 1;
    uint32_t last_stamp = 0;
    uint64_t flips = 0; /* since the last keyframe */
    Keyframe last;
    std::optional<uint64_t> deadline; /* of the PTP grace */
    uint64_t last_time = 0;
    uint64_t kfrecv = 0, kfneeded = 0, malformed = 0, malformed_len = 0, all_flips = 0, ptpoos = 0, unsupported = 0,
             neg_adj = 0;
    std::string messages;

    /* The time of a frame that ends in this word; only for statuses 4 to 6. */
    uint64_t date(uint32_t word);
    /* A frame of protocol 253 with this length, received at that host time. */
    void keyframe(const Keyframe &kf, size_t length, uint64_t now);

private:
    Binary factor() const;
    void say(uint64_t when, const std::string &what);
    mutable std::optional<Binary> factor_; /* until the next keyframe */
};

} // namespace arista_model
