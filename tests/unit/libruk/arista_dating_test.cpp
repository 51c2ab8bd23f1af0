/* Frames dated by the switch: the stamp's bits, the arithmetic, and a million frames against exact numbers. */
#include "arista_model.h"
#include "capture.h"
#include "sanitizer.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <gtest/gtest.h>
#include <limits>
#include <random>

using namespace recv_rig;
using arista_model::Keyframe;
using arista_model::word_of;
using test_support::StreamCapture;

namespace {

constexpr uint64_t UTC = 1700000000000000000;

RigEndpoint::Options plain() { return RigEndpoint::Options(); }

struct DatingRig : RigEndpoint {
    explicit DatingRig(arista_tsp_status status = ARISTA_STATUS_ACTIVE, const Options &options = plain())
        : RigEndpoint(options), api(ruk__api_version, 4)
    {
        ctl().arct_status = status;
        ctl().arct_lastkf.ak_utc_time = UTC;
        ctl().arct_kf_check_rate = 1;
        bind(0, 0x0a4d0001, 5000);
    }
    Scoped<uint32_t> api;
    arista_control &ctl() { return ep->arista_control; }

    /* The time of a datagram that ends in this word. */
    uint64_t time_of(uint32_t word)
    {
        UdpFrame frame;
        frame.payload = text("payload");
        frame.trailer = word;
        ring.put({{frame.bytes(), 0}});
        Received got = recv();
        EXPECT_EQ(got.rc, 0);
        return got.info.timestamp;
    }
};

} // namespace

/* ------------------------------------------------------------------ the stamp */

TEST(SwitchStamp, WordOfTheFrame_BitSevenSkipped)
{
    const struct {
        uint32_t word, stamp;
    } cases[] = {
        {0x00000000, 0},          {0x00000001, 1},          {0x0000007f, 127},        {0x00000080, 0},
        {0x000000ff, 127},        {0x00000100, 128},        {0x00000180, 128},        {0x00000200, 256},
        {0x000001ff, 255},        {0x80000000, 0x40000000}, {0xffffffff, 0x7fffffff}, {0xffffff7f, 0x7fffffff},
        {0x12345678, 0x091a2b78}, {0x123456f8, 0x091a2b78}, {0xdeadbeef, 0x6f56df6f},
    };
    for (const auto &c : cases) {
        DatingRig rig;
        uint8_t *at = rig.ring.base() + 100;
        const Bytes frame = pattern(60) + be32(c.word);
        std::copy(frame.begin(), frame.end(), at);
        ruk__evpacket packet = {};
        packet.pkt = at;
        packet.length = 64;
        EXPECT_EQ(arista_retrieve_frame_timestamp(rig.ep, &packet), c.stamp) << std::hex << c.word;
    }
}

TEST(SwitchStamp, AcrossTheRingsEnd_ReadRoundTheCorner)
{
    for (size_t before_end = 0; before_end <= 64; before_end++) {
        DatingRig rig;
        const Bytes frame = pattern(60) + be32(0x12345678);
        for (size_t i = 0; i < frame.size(); i++)
            rig.ring.at(8192 - before_end + i) = frame[i];
        ruk__evpacket packet = {};
        packet.pkt = rig.ring.base() + 8192 - before_end;
        packet.length = 64;
        EXPECT_EQ(arista_retrieve_frame_timestamp(rig.ep, &packet), 0x091a2b78u) << before_end;
    }
}

TEST(SwitchStamp, DatedFrame_TrailerStripped)
{
    DatingRig rig;
    const Bytes frame = pattern(60) + be32(7);
    rig.ring.put({{frame, 5}, {frame, 6}});
    uint8_t buf[2048];
    size_t len = 0;
    uint64_t time = 0;
    int tag = 0;
    EXPECT_EQ(ruk_raw_recv_nb(rig.ep, buf, &len, &time, &tag), 0);
    EXPECT_EQ(len, 60u);
    EXPECT_EQ(Bytes(buf, buf + 60), pattern(60));
    EXPECT_EQ(time, UTC + 20); /* 7 ticks of 20/7 ns */
    EXPECT_EQ(tag, 5);
    EXPECT_EQ(ruk_raw_recv(rig.ep, RUK_RECV_NONBLOCK, buf, &len, nullptr), 0);
    EXPECT_EQ(len, 60u);
}

TEST(SwitchStamp, ShortestDatagram_RuntOnceStripped)
{
    /* 46 bytes with the trailer pass while the adapter dates them, but 42 do not. */
    DatingRig rig;
    rig.ring.put({{UdpFrame().bytes(), 0}});
    EXPECT_EQ(rig.recv().rc, EAGAIN);
    EXPECT_EQ(rig.ep->rep_stats.dropped_runts, 1u);
    rig.ctl().arct_status = ARISTA_STATUS_INITED;
    rig.ring.put({{UdpFrame().bytes(), 0}});
    EXPECT_EQ(rig.recv().rc, 0);
}

TEST(SwitchStamp, BelowActive_NeitherReadNorStripped)
{
    for (auto status :
         {ARISTA_STATUS_DISABLED, ARISTA_STATUS_INITED, ARISTA_STATUS_CHANGEDMODE, ARISTA_STATUS_FALLBACK_LOCAL}) {
        DatingRig rig(status);
        rig.ring.put({{pattern(60) + be32(7), 5}});
        uint8_t buf[2048];
        size_t len = 0;
        uint64_t time = 1;
        EXPECT_EQ(ruk_raw_recv_nb(rig.ep, buf, &len, &time, nullptr), 0);
        EXPECT_EQ(len, 64u);
        EXPECT_EQ(time, 0u);
        EXPECT_EQ(rig.ctl().arct_kf_last_ts, 0u);
    }
}

TEST(SwitchStamp, AdapterTimestampsOnToo_TheSwitchWins)
{
    for (auto status : {ARISTA_STATUS_ACTIVE, ARISTA_STATUS_OUTOFSYNC, ARISTA_STATUS_NEED_KEYFRAME}) {
        DatingRig rig(status);
        rig.ep->rep_timestamping_enabled = 1;
        rig.clock_is_ticks();
        rig.ep->rep_eventq.evq_recvq_state.evs_timestamp = 4;
        rig.ep->rep_eventq.evq_recvq_state.evs_timestamp_last = 5;
        UdpFrame frame;
        frame.payload = text("payload");
        frame.trailer = word_of(14);
        EventOptions event;
        event.ticks = 999;
        rig.ring.put({{frame.bytes(), 0}}, event);
        EXPECT_EQ(rig.recv().info.timestamp, UTC + 40);
        /* The adapter's times are left alone. */
        EXPECT_EQ(rig.ep->rep_eventq.evq_recvq_state.evs_timestamp, 4u);
        EXPECT_EQ(rig.ep->rep_eventq.evq_recvq_state.evs_timestamp_last, 5u);
    }
}

/* ------------------------------------------------------------------ the arithmetic */

TEST(SwitchTime, TicksSinceTheKeyframe_TwentySeventhsOfANanosecond)
{
    DatingRig rig;
    rig.ctl().arct_lastkf.ak_asic_time = 0x100000000 + 1000; /* its low 31 bits count */
    EXPECT_EQ(rig.time_of(word_of(1000)), UTC);
    EXPECT_EQ(rig.time_of(word_of(1001)), UTC + 2);
    EXPECT_EQ(rig.time_of(word_of(1002)), UTC + 5);
    EXPECT_EQ(rig.time_of(word_of(1007)), UTC + 20);
    EXPECT_EQ(rig.time_of(word_of(1000 + 3500000, true)), UTC + 10000000);
    EXPECT_EQ(rig.ctl().arct_kf_last_ts, 1000u + 3500000);
    EXPECT_EQ(rig.ctl().arct_last_ts, UTC + 10000000);
}

TEST(SwitchTime, LongSinceTheKeyframe_CoarseInSteps)
{
    DatingRig rig;
    /* 350,000,000 ticks are a second; 30 bits of it keep 24, so that times come in steps of 64 ns. */
    EXPECT_EQ(rig.time_of(word_of(350000000)), UTC + 1000000000);
    EXPECT_EQ(rig.time_of(word_of(350000007)), UTC + 1000000000); /* 1000000020 */
    EXPECT_EQ(rig.time_of(word_of(350000014)), UTC + 1000000064); /* 1000000040 */
    EXPECT_EQ(rig.time_of(word_of(350000021)), UTC + 1000000064); /* 1000000060 */
}

/* What users are told of the accuracy: the largest error against exact sevenths, and that it does get near that. */
TEST(SwitchTime, TimeSinceTheKeyframe_ErrorWithinItsBoundAndNearIt)
{
    DatingRig rig;
    std::mt19937_64 random(6);
    uint64_t from = 1;
    for (auto [ms, bound] : {std::pair<uint64_t, int64_t>{30, 1},
                             {100, 4},
                             {200, 8},
                             {500, 16},
                             {1000, 32},
                             {2000, 64},
                             {4000, 128},
                             {6100, 256}}) {
        const uint64_t to = ms * 350000;
        int64_t largest = 0;
        for (int i = 0; i < 20000; i++) {
            const uint64_t ticks = from + random() % (to - from);
            rig.ctl().arct_last_ts = 0;
            const uint64_t time = arista_compute_timestamp(rig.ep, static_cast<uint32_t>(ticks));
            /* In sevenths of a nanosecond. */
            const int64_t error = static_cast<int64_t>(7 * (time - UTC)) - static_cast<int64_t>(20 * ticks);
            largest = std::max(largest, error < 0 ? -error : error);
        }
        EXPECT_LE(largest, 7 * bound) << ms << " ms";
        EXPECT_GE(largest, 7 * bound * 3 / 4) << ms << " ms";
        from = to;
    }
}

TEST(SwitchTime, StampBeforeTheKeyframe_UnsignedDifferenceGoesRound)
{
    DatingRig rig;
    rig.ctl().arct_lastkf.ak_asic_time = 1000;
    /* 2^64 - 1 ticks: more than 2^64 ns, which become 0. */
    EXPECT_EQ(rig.time_of(word_of(999)), UTC);
}

TEST(SwitchTime, EarlierThanTheFrameBefore_RaisedToItAndCounted)
{
    DatingRig rig;
    EXPECT_EQ(rig.time_of(word_of(7000)), UTC + 20000);
    EXPECT_EQ(rig.time_of(word_of(3500)), UTC + 20000);
    EXPECT_EQ(rig.ctl().arct_stats.arst_neg_adj_event, 1u);
    EXPECT_EQ(rig.time_of(word_of(7000)), UTC + 20000); /* the same time again is no step back */
    EXPECT_EQ(rig.ctl().arct_stats.arst_neg_adj_event, 1u);
    EXPECT_EQ(rig.time_of(word_of(7007)), UTC + 20020);
    EXPECT_EQ(rig.ctl().arct_kf_last_ts, 7007u);
}

TEST(SwitchTime, Skew_DenominatorOverNumerator)
{
    DatingRig rig;
    rig.ctl().arct_kf_hasskew = 1;
    rig.ctl().arct_lastkf.ak_skew_numerator = 1000;
    rig.ctl().arct_lastkf.ak_skew_denominator = 2000;
    EXPECT_EQ(rig.time_of(word_of(7)), UTC + 40);
    rig.ctl().arct_lastkf.ak_skew_numerator = 4000;
    EXPECT_EQ(rig.time_of(word_of(70)), UTC + 100);
    rig.ctl().arct_kf_hasskew = 0; /* the fields alone do nothing */
    EXPECT_EQ(rig.time_of(word_of(70)), UTC + 200);
}

TEST(SwitchTime, SkewNumeratorZero_AsDivisionGives)
{
    DatingRig rig;
    rig.ctl().arct_kf_hasskew = 1;
    rig.ctl().arct_lastkf.ak_skew_denominator = 1;
    EXPECT_EQ(rig.time_of(word_of(7)), UTC); /* infinite: becomes 0 */
    rig.ctl().arct_lastkf.ak_skew_denominator = 0;
    EXPECT_EQ(rig.time_of(word_of(7)), UTC + (UINT64_C(1) << 63)); /* no number */
    rig.ctl().arct_lastkf.ak_skew_numerator = 1;
    rig.ctl().arct_last_ts = 0;
    EXPECT_EQ(rig.time_of(word_of(7)), UTC); /* the factor is 0 */
}

TEST(SwitchTime, Between2To63And2To64_ConvertedInTwoSteps)
{
    DatingRig rig;
    rig.ctl().arct_lastkf.ak_utc_time = 0;
    rig.ctl().arct_kf_hasskew = 1;
    rig.ctl().arct_lastkf.ak_skew_numerator = 5;
    rig.ctl().arct_lastkf.ak_skew_denominator = UINT64_C(7) << 60; /* 2^62 ns a tick, nearly */
    EXPECT_EQ(rig.time_of(word_of(1)), UINT64_C(1) << 62);
    EXPECT_EQ(rig.time_of(word_of(2)), UINT64_C(1) << 63);
    EXPECT_EQ(rig.time_of(word_of(3)), UINT64_C(3) << 62);
    rig.ctl().arct_last_ts = 0;
    EXPECT_EQ(rig.time_of(word_of(4)), 0u); /* 2^64 */
}

/* ------------------------------------------------------------------ wraps and shortage */

TEST(SwitchWrap, ExactBounds_CountedOnlyWithinThem)
{
    const struct {
        uint32_t last, stamp;
        bool wrap;
    } cases[] = {
        {0xfffff001, 0, true},           {0xfffff001, 0xffe, true}, {0xfffff001, 0xfff, false},
        {0xfffff001, 0x7fffffff, false}, {0xfffff000, 0, false},    {0xffffffff, 0, true},
        {0xffffffff, 0xffe, true},       {0x7fffffff, 0, false},    {0x7fffffff, 0xffe, false},
    };
    for (const auto &c : cases) {
        DatingRig rig;
        rig.ctl().arct_kf_last_ts = c.last;
        const uint64_t time = rig.time_of(word_of(c.stamp));
        EXPECT_EQ(rig.ctl().arct_kf_flipped, c.wrap ? 1u : 0u) << std::hex << c.last << " " << c.stamp;
        EXPECT_EQ(rig.ctl().arct_stats.arst_flips, c.wrap ? 1u : 0u);
        EXPECT_EQ(rig.ctl().arct_kf_last_ts, c.stamp);
        if (c.wrap && c.stamp == 0) {
            EXPECT_EQ(time, UTC + 6135667712); /* 0x7fffffff ticks: 6135667562.85 ns, of which 24 bits stay */
        }
    }
}

TEST(SwitchWrap, RealStamps_NeverCounted)
{
    DatingRig rig;
    rig.time_of(word_of(0x7fffffff));
    rig.time_of(word_of(0));
    rig.time_of(word_of(0x7ffff001));
    rig.time_of(word_of(1));
    EXPECT_EQ(rig.ctl().arct_kf_flipped, 0u);
    EXPECT_EQ(rig.ctl().arct_stats.arst_flips, 0u);
}

TEST(SwitchShortage, ThirdWrap_ReportedOnceAndEndedByAKeyframe)
{
    for (auto status : {ARISTA_STATUS_ACTIVE, ARISTA_STATUS_OUTOFSYNC}) {
        DatingRig rig(status);
        uint64_t time = 0;
        {
            StreamCapture streams;
            for (int wrap = 1; wrap <= 2; wrap++) {
                rig.ctl().arct_kf_last_ts = 0xffffffff;
                rig.time_of(word_of(0));
            }
            EXPECT_EQ(streams.err(), "");
            EXPECT_EQ(rig.ctl().arct_status, status);
            rig.ctl().arct_kf_last_ts = 0xffffffff;
            time = rig.time_of(word_of(0));
            /* 3 * 0x7fffffff ticks are 18407002688.57 ns, to a multiple of 2048. */
            EXPECT_EQ(time, UINT64_C(1700000018407002112));
            EXPECT_EQ(streams.err(), "2135855104: Arista switch keyframe shortage beginning \n");
        }
        EXPECT_EQ(rig.ctl().arct_status, ARISTA_STATUS_NEED_KEYFRAME);
        EXPECT_EQ(rig.ctl().arct_stats.arst_kfneeded, 1u);
        EXPECT_EQ(rig.ctl().arct_stats.arst_flips, 3u);
        EXPECT_EQ(rig.ctl().arct_kf_flipped, 3u);
        StreamCapture streams;
        EXPECT_GE(rig.time_of(word_of(7)), time); /* still dated by the switch */
        EXPECT_EQ(streams.err(), "");
        Keyframe kf;
        kf.utc_time = UTC;
        rig.ring.put({{kf.bytes(), 0}});
        EXPECT_EQ(rig.recv().rc, EAGAIN);
        EXPECT_EQ(streams.err(), std::to_string(UTC & 0xffffffff) + ": Arista switch keyframe shortage ended \n");
        EXPECT_EQ(rig.ctl().arct_status, ARISTA_STATUS_ACTIVE);
        EXPECT_EQ(rig.ctl().arct_stats.arst_kfneeded, 1u);
    }
}

TEST(SwitchShortage, RateCheckOffOrOtherCounts_NotDeclared)
{
    const struct {
        uint8_t check;
        uint64_t wraps;
        arista_tsp_status status;
        bool declared;
    } cases[] = {
        {1, 3, ARISTA_STATUS_ACTIVE, true},    {0, 3, ARISTA_STATUS_ACTIVE, false},
        {1, 2, ARISTA_STATUS_ACTIVE, false},   {1, 4, ARISTA_STATUS_ACTIVE, false},
        {1, 3, ARISTA_STATUS_OUTOFSYNC, true}, {1, 3, ARISTA_STATUS_NEED_KEYFRAME, false},
        {1, 0, ARISTA_STATUS_ACTIVE, false},   {255, 3, ARISTA_STATUS_ACTIVE, true},
    };
    for (const auto &c : cases) {
        DatingRig rig(c.status);
        rig.ctl().arct_kf_check_rate = c.check;
        rig.ctl().arct_kf_flipped = c.wraps;
        StreamCapture streams;
        rig.time_of(word_of(7));
        EXPECT_EQ(streams.err() != "", c.declared);
        EXPECT_EQ(rig.ctl().arct_stats.arst_kfneeded, c.declared ? 1u : 0u);
        EXPECT_EQ(rig.ctl().arct_status, c.declared ? ARISTA_STATUS_NEED_KEYFRAME : c.status);
    }
}

/* ------------------------------------------------------------------ events with keyframes among frames */

TEST(SwitchTime, UnsupportedModeTwice_FramesLoseFourBytesAndATimeTooHighHoldsLaterOnesBack)
{
    DatingRig rig(ARISTA_STATUS_CHANGEDMODE);
    StreamCapture streams;
    Keyframe other;
    other.fcs_type = 2;
    other.utc_time = UTC;
    rig.ring.put({{other.bytes(), 0}});
    EXPECT_EQ(rig.recv().rc, EAGAIN);
    ASSERT_EQ(rig.ctl().arct_status, ARISTA_STATUS_ACTIVE); /* without a word */
    EXPECT_EQ(streams.err(), "");

    EXPECT_EQ(rig.time_of(word_of(0x70000000)), UTC + UINT64_C(5368709120)); /* whatever ended that frame */
    Keyframe right;
    right.utc_time = UTC + 1000000000;
    rig.ring.put({{right.bytes(), 0}});
    EXPECT_EQ(rig.recv().rc, EAGAIN);
    EXPECT_EQ(rig.time_of(word_of(7)), UTC + UINT64_C(5368709120));
    EXPECT_EQ(rig.ctl().arct_stats.arst_neg_adj_event, 1u);
}

TEST(SwitchEvent, KeyframeBetweenFrames_FramesOfItsEventDatedByTheOneBefore)
{
    for (bool locks : {false, true}) {
        DatingRig rig(ARISTA_STATUS_ACTIVE, {.ring = 8192, .locks = locks});
        UdpFrame frame;
        frame.payload = text("payload");
        frame.trailer = word_of(7000);
        Keyframe kf;
        kf.asic_time = 7000;
        kf.utc_time = UTC + 5000000;
        rig.ring.put({{kf.bytes(), 0}, {frame.bytes(), 0}});
        frame.trailer = word_of(7007);
        rig.ring.put({{frame.bytes(), 0}});
        EXPECT_EQ(rig.recv().info.timestamp, UTC + 20000);
        EXPECT_EQ(rig.recv().info.timestamp, UTC + 5000020);
    }
}

TEST(SwitchEvent, FirstKeyframe_FramesOfItsEventUndated)
{
    for (bool locks : {false, true}) {
        DatingRig rig(ARISTA_STATUS_INITED, {.ring = 8192, .locks = locks});
        UdpFrame frame;
        frame.payload = text("payload");
        frame.trailer = word_of(7000);
        Keyframe kf;
        kf.utc_time = UTC;
        rig.ring.put({{kf.bytes(), 0}, {frame.bytes(), 0}});
        Received got = rig.recv();
        EXPECT_EQ(got.rc, 0);
        EXPECT_EQ(got.info.timestamp, 0u);
        EXPECT_EQ(rig.ctl().arct_status, ARISTA_STATUS_ACTIVE);
        EXPECT_EQ(rig.time_of(word_of(7000)), UTC + 20000);
    }
}

/* ------------------------------------------------------------------ the reference itself */

TEST(ExactNumbers, KnownValues_Rounded)
{
    using namespace arista_model;
    EXPECT_EQ(integer(binary32(binary64(16777217))), 16777216u); /* half: to even */
    EXPECT_EQ(integer(binary32(binary64(16777219))), 16777220u);
    EXPECT_EQ(integer(binary32(binary64(33554433))), 33554432u);
    EXPECT_EQ(integer(binary32(binary64(33554435))), 33554436u);
    EXPECT_EQ(integer(binary32(binary64(0xffffffffffffffff))), 0u); /* 2^64 */
    EXPECT_EQ(integer(binary32(binary64(0xffffff0000000000))), 0xffffff0000000000u);
    EXPECT_EQ(integer(divide64(binary64(20), binary64(7))), 2u);
    EXPECT_EQ(integer(Binary()), 0u);
}

/* The processor's own arithmetic is a second witness for the integer one. */
TEST(ExactNumbers, RandomValues_EqualToTheProcessors)
{
    using namespace arista_model;
    std::mt19937_64 random(5);
    auto as_double = [](const Binary &b) {
        switch (b.kind) {
        case Binary::zero:
            return 0.0;
        case Binary::infinite:
            return std::numeric_limits<double>::infinity();
        default:
            return std::ldexp(static_cast<double>(b.m), b.e);
        }
    };
    for (int i = 0; i < 100000; i++) {
        const uint64_t a = random() >> random() % 64, b = random() >> random() % 64;
        ASSERT_EQ(as_double(binary64(a)), static_cast<double>(a));
        volatile double x = static_cast<double>(a), y = static_cast<double>(b);
        volatile double product = x * y;
        ASSERT_EQ(as_double(multiply64(binary64(a), binary64(b))), product);
        if (b != 0) {
            volatile double quotient = x / y;
            ASSERT_EQ(as_double(divide64(binary64(a), binary64(b))), quotient);
        }
        ASSERT_EQ(as_double(binary32(multiply64(binary64(a), binary64(b)))),
                  static_cast<double>(static_cast<float>(product)));
    }
}

/* ------------------------------------------------------------------ a million frames */

namespace {

/* One random switch in front of one endpoint. */
class Scenario {
public:
    explicit Scenario(unsigned seed) : random_(seed), rig_(ARISTA_STATUS_INITED, ring())
    {
        model_.has_skew = random_() % 2;
        model_.check_rate = random_() % 4 != 0;
        model_.check_ptp = random_() % 2;
        model_.last.utc_time = UTC;
        arista_control &ctl = rig_.ctl();
        ctl.arct_kf_hasskew = model_.has_skew;
        ctl.arct_kf_check_rate = model_.check_rate;
        ctl.arct_kf_check_ptp = model_.check_ptp;
        ctl.arct_kf_ptp_wait = UINT64_MAX;
        UdpFrame longest;
        longest.payload = Bytes(42, 0x55);
        template_ = longest.bytes();
        interval_ = 1 + random_() % 3000;
        wild_ = random_() % 4 == 0;
        other_modes_ = random_() % 3 == 0;
        lost_ = random_() % 3;
        asic_ = keyframe_asic_ = random_();
        utc_ = wild_ && random_() % 4 == 0 ? random_() : UTC + random_() % 1000000000000;
        hooks_->clock_gettime = [this](clockid_t, struct timespec *ts) {
            ts->tv_sec = static_cast<time_t>(now_ / 1000000000);
            ts->tv_nsec = static_cast<long>(now_ % 1000000000);
            return 0;
        };
    }

    /* Receives so many frames; false at the first difference. */
    void run(unsigned frames)
    {
        StreamCapture streams;
        while (frames_ < frames && !testing::Test::HasFailure())
            event();
        const std::string said = streams.err();
        EXPECT_EQ(said.size(), model_.messages.size());
        EXPECT_TRUE(said == model_.messages);
    }

    void compare_state()
    {
        const arista_control &ctl = rig_.ctl();
        EXPECT_EQ(ctl.arct_stats.arst_kfrecv, model_.kfrecv);
        EXPECT_EQ(ctl.arct_stats.arst_kfneeded, model_.kfneeded);
        EXPECT_EQ(ctl.arct_stats.arst_kfmalformed, model_.malformed);
        EXPECT_EQ(ctl.arct_stats.arst_kfmalformedlen, model_.malformed_len);
        EXPECT_EQ(ctl.arct_stats.arst_flips, model_.all_flips);
        EXPECT_EQ(ctl.arct_stats.arst_ptpoos, model_.ptpoos);
        EXPECT_EQ(ctl.arct_stats.arst_unsupported_mode, model_.unsupported);
        EXPECT_EQ(ctl.arct_stats.arst_dropped, 0u);
        EXPECT_EQ(ctl.arct_stats.arst_neg_adj_event, model_.neg_adj);
        EXPECT_EQ(static_cast<int>(ctl.arct_status), model_.status);
        EXPECT_EQ(ctl.arct_kf_flipped, model_.flips);
        EXPECT_EQ(ctl.arct_kf_last_ts, model_.last_stamp);
        EXPECT_EQ(ctl.arct_last_ts, model_.last_time);
    }

    uint64_t frames() const { return frames_; }
    uint64_t dated() const { return dated_; }
    const arista_model::Switch &model() const { return model_; }

private:
    static RigEndpoint::Options ring()
    {
        RigEndpoint::Options options;
        options.ring = 4096;
        return options;
    }

    Bytes a_frame()
    {
        if (!after_wrap_)
            asic_ += wild_ ? random_() >> (24 + random_() % 40) : random_() % 100000;
        after_wrap_ = false;
        const uint32_t word = random_() % 50 == 0 && wild_ ? static_cast<uint32_t>(random_())
                                                           : word_of(static_cast<uint32_t>(asic_), random_() % 2);
        Bytes frame(template_.begin(), template_.begin() + 44 + static_cast<long>(random_() % 40));
        for (int shift = 24; shift >= 0; shift -= 8)
            frame.push_back(static_cast<uint8_t>(word >> shift));
        return frame;
    }

    Keyframe a_keyframe()
    {
        Keyframe kf;
        kf.has_skew = model_.has_skew;
        kf.tagged = random_() % 3 == 0;
        kf.asic_time = asic_;
        /* UTC runs as the clock does and not behind what frames already have, so that few of them are raised;
           sometimes it is set anew. */
        if (wild_ || random_() % 64 == 0)
            utc_ += random_() % 1000000000;
        else
            utc_ = std::max(utc_ + (asic_ > keyframe_asic_ ? (asic_ - keyframe_asic_) * 20 / 7 : 0), model_.last_time) +
                   random_() % 1000;
        keyframe_asic_ = asic_;
        kf.utc_time = utc_;
        kf.last_sync_time = random_() % 2 ? random_() : 0;
        kf.fcs_type = other_modes_ && random_() % 4 == 0 ? static_cast<uint8_t>(random_()) : 1;
        /* Parts per million beside 1, or anything. */
        kf.skew_numerator = wild_ ? random_() >> random_() % 64 : 1000000000 + random_() % 200000;
        kf.skew_denominator = wild_ ? random_() >> random_() % 64 : 1000000000 + random_() % 200000;
        kf.kf_timestamp = random_();
        kf.dropped_frames = random_();
        if (random_() % 20 == 0)
            kf.extra = static_cast<int>(random_() % 9) - 4;
        return kf;
    }

    void event()
    {
        now_ += random_() % 2000000000;
        if (random_() % 40 == 0) { /* a wrap, which the stamps alone never make */
            model_.last_stamp = 0xfffff000 + static_cast<uint32_t>(random_() % 0x1000);
            rig_.ctl().arct_kf_last_ts = model_.last_stamp;
            asic_ = asic_ / 0x80000000 * 0x80000000 + random_() % 0x1800;
            after_wrap_ = true;
        }
        struct Item {
            bool is_keyframe;
            Keyframe kf;
            Bytes bytes;
            uint64_t time;
        };
        std::vector<Item> items;
        std::vector<Packet> packets;
        for (unsigned n = 1 + random_() % 5; n != 0; n--) {
            Item item = {};
            item.is_keyframe = random_() % interval_ == 0 && random_() % 4 >= lost_;
            if (item.is_keyframe) {
                item.kf = a_keyframe();
                item.bytes = item.kf.bytes();
            } else {
                item.bytes = a_frame();
            }
            packets.push_back({item.bytes, 0});
            items.push_back(item);
        }
        rig_.ring.put(packets);
        /* The whole event is dated before its first packet is handed out. */
        const bool by_switch = model_.status >= 4;
        for (Item &item : items) {
            if (item.is_keyframe || !by_switch)
                continue;
            const Bytes &b = item.bytes;
            const size_t n = b.size();
            item.time = model_.date(static_cast<uint32_t>(b[n - 4]) << 24 | b[n - 3] << 16 | b[n - 2] << 8 | b[n - 1]);
            dated_++;
        }
        for (const Item &item : items) {
            if (item.is_keyframe) {
                model_.keyframe(item.kf, item.bytes.size(), now_);
                continue;
            }
            uint8_t buf[64];
            ruk_recv_info info = {};
            frames_++;
            ASSERT_EQ(ruk_recvfrom(rig_.ep, RUK_RECV_NONBLOCK, buf, sizeof buf, &info), 0) << "frame " << frames_;
            ASSERT_EQ(info.timestamp, item.time) << "frame " << frames_;
        }
        ruk_recv_info info = {};
        ASSERT_EQ(ruk_recvfrom(rig_.ep, RUK_RECV_NONBLOCK, nullptr, 0, &info), EAGAIN); /* a keyframe at the end */
        ASSERT_EQ(static_cast<int>(rig_.ctl().arct_status), model_.status);
    }

    std::mt19937_64 random_;
    DatingRig rig_;
    arista_model::Switch model_;
    test_support::LibcHookGuard hooks_;
    Bytes template_; /* the headers and some payload */
    uint64_t now_ = UTC, asic_ = 0, keyframe_asic_ = 0, utc_ = 0, frames_ = 0, dated_ = 0;
    unsigned interval_ = 0, lost_ = 0;
    bool wild_ = false, other_modes_ = false, after_wrap_ = false;
};

} // namespace

TEST(SwitchReference, MillionFramesOverRandomSwitches_EqualToTheNanosecond)
{
    constexpr uint64_t part = test_support::kSanitized ? 10 : 1;
    uint64_t dated = 0, shortages = 0, flips = 0, raised = 0, lost = 0, changed = 0;
    for (unsigned seed = 1; dated - raised < 1000000 / part;
         seed++) { /* a raised time says nothing of the arithmetic */
        Scenario scenario(seed);
        scenario.run(5000);
        scenario.compare_state();
        ASSERT_FALSE(HasFailure()) << "seed " << seed;
        ASSERT_LT(seed, 2000u);
        dated += scenario.dated();
        shortages += scenario.model().kfneeded;
        flips += scenario.model().all_flips;
        raised += scenario.model().neg_adj;
        lost += scenario.model().ptpoos;
        changed += scenario.model().unsupported;
    }
    /* The scenarios did reach what they are for. */
    EXPECT_GT(flips, 1000 / part);
    EXPECT_GT(shortages, 50 / part);
    EXPECT_GT(raised, 1000 / part);
    EXPECT_GT(lost, 10 / part);
    EXPECT_GT(changed, 10 / part);
}
