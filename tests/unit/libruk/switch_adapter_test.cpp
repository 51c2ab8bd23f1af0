/* Times of a switch through the public calls: its model before a stepped adapter, in virtual time. */
#include "adapter_rig.h"
#include "arista_model.h"
#include "capture.h"

#include <algorithm>
#include <cerrno>
#include <gtest/gtest.h>
#include <random>

using namespace recv_rig;
using namespace test_support;
using namespace adapter_rig;
using arista_model::Keyframe;

namespace {

constexpr uint64_t SECOND = 1000000000;
constexpr uint64_t MS = 1000000;

/* An endpoint with the feature on behind a switch that starts with the virtual time; the host's clock is the same. */
struct Behind {
    ScopedEnv enable{"OXEL_ARISTA_ENABLE_TIMESTAMPING", "1"};
    ScopedEnv none[4] = {{"OXEL_ARISTA_PARAM_KF_DST_IP", nullptr},
                         {"OXEL_ARISTA_PARAM_KF_CHECK_RATE", nullptr},
                         {"OXEL_ARISTA_PARAM_KF_CHECK_PTP", nullptr},
                         {"OXEL_ARISTA_PARAM_KF_KERNDUP", nullptr}};
    ScopedEnv skew;
    Wire wire;
    LibcHookGuard hooks;
    Endpoint ep;
    uint16_t port;
    int sent = 0;

    explicit Behind(const char *options, bool with_skew = false)
        : skew("OXEL_ARISTA_ENABLE_SKEW", with_skew ? "1" : nullptr), port(ep.port_of(ep.bind()))
    {
        hooks->clock_gettime = [this](clockid_t, struct timespec *ts) {
            const uint64_t now = softnic_now(wire.nic);
            ts->tv_sec = static_cast<time_t>(now / SECOND);
            ts->tv_nsec = static_cast<long>(now % SECOND);
            return 0;
        };
        EXPECT_EQ(softnic_set_switch(wire.nic, 0, options), 0);
    }

    /* Moves time and has the library take the keyframes that came; what it said. */
    std::string pass(uint64_t ns)
    {
        softnic_advance(wire.nic, ns);
        softnic_run(wire.nic);
        StreamCapture streams;
        EXPECT_EQ(recv(ep).rc, EAGAIN);
        EXPECT_EQ(streams.out(), "");
        return streams.err();
    }

    /* The time of a datagram that passes the switch now; its bytes arrive whole. */
    uint64_t time_now()
    {
        const Bytes payload = text("datagram number ") + be32(static_cast<uint32_t>(sent++));
        wire.inject(frame_for(port, payload));
        softnic_run(wire.nic);
        const Got got = recv(ep);
        EXPECT_EQ(got.rc, 0);
        EXPECT_EQ(got.data, payload);
        return got.info.timestamp;
    }

    uint64_t now() const { return softnic_now(wire.nic); }
    uint64_t matched() const
    {
        softnic_board_counters_t c;
        softnic_board_counters(wire.nic, 0, &c);
        return c.matched;
    }
};

std::string said(uint64_t when, const std::string &what)
{
    return std::to_string(when % 0x100000000) + ": Arista switch " + what + " \n";
}

/* What a switch's clock shows so long after its start. */
uint64_t clock_after(uint64_t ns, uint64_t num = 1, uint64_t den = 1)
{
    uint64_t ticks = 0; /* 7 ticks in 20 ns, in steps that no product outgrows */
    ticks += ns / SECOND * (350000000 * num / den);
    EXPECT_EQ(350000000 * num % den, 0u);
    ticks += ns % SECOND * (350000000 / 1000 * num / den) / (SECOND / 1000);
    EXPECT_EQ(350000000 / 1000 * num % den, 0u);
    return ticks;
}

/* Whether the 31 bits of a stamp, which last six seconds, have begun anew in between. */
bool wrapped(uint64_t sent, uint64_t now, uint64_t num = 1, uint64_t den = 1)
{
    return clock_after(now - START, num, den) / 0x80000000 != clock_after(sent - START, num, den) / 0x80000000;
}

/* The reference's time of a frame that passes at now, when the last keyframe left at sent. */
uint64_t formula(arista_model::Switch &reference, uint64_t sent, uint64_t now, uint64_t num = 1, uint64_t den = 1)
{
    reference.last.asic_time = clock_after(sent - START, num, den);
    reference.last.utc_time = sent;
    return reference.date(arista_model::word_of(static_cast<uint32_t>(clock_after(now - START, num, den))));
}

} // namespace

TEST(SteppedSwitch, TimeMoves_KeyframesComeAtTheirMomentsAndFramesHaveTheFormulasTimes)
{
    Behind b("interval=100");
    arista_model::Switch reference;
    std::mt19937 random(11);
    EXPECT_EQ(b.pass(0), ""); /* the first keyframe comes at once */
    for (int n = 0; n < 2000; n++) {
        EXPECT_EQ(b.pass(random() % (40 * MS)), "");
        const uint64_t now = b.now();
        const uint64_t keyframe = now - (now - START) % (100 * MS);
        const uint64_t time = b.time_now();
        ASSERT_EQ(time, formula(reference, keyframe, now)) << n;
        if (wrapped(keyframe, now))
            continue;
        /* Half a step of single precision below 134 ms; a tick less, twice, and a nanosecond less. */
        ASSERT_LE(time, now + 4 + 3);
        ASSERT_GE(time + 4 + 3 + 1, now);
    }
    EXPECT_GT(reference.neg_adj, 0u); /* frames between a wrap and the next keyframe */
    EXPECT_LT(reference.neg_adj, 100u);
}

TEST(SteppedSwitch, LongStep_EveryKeyframeOnTheWayCameAndTheLastOneCounts)
{
    Behind b("interval=10");
    b.pass(0);
    const uint64_t before = b.matched();
    b.pass(SECOND + 5 * MS);
    EXPECT_EQ(b.matched() - before, 100u);
    arista_model::Switch reference;
    EXPECT_EQ(b.time_now(), formula(reference, START + SECOND, b.now()));
}

TEST(SteppedSwitch, FrameBeforeAKeyframe_StaysBeforeIt)
{
    Behind b("interval=100");
    EXPECT_EQ(b.pass(0), "");
    softnic_set_max_packets(b.wire.nic, 0, 1);
    softnic_advance(b.wire.nic, 99 * MS);
    b.wire.inject(frame_for(b.port, text("before the keyframe"))); /* waits, while time moves over the keyframe */
    const uint64_t passed = b.now();
    softnic_advance(b.wire.nic, 2 * MS);
    b.wire.inject(frame_for(b.port, text("behind the keyframe")));
    softnic_run(b.wire.nic);
    arista_model::Switch reference;
    Got got = recv(b.ep);
    EXPECT_EQ(got.data, text("before the keyframe"));
    EXPECT_EQ(got.info.timestamp, formula(reference, START, passed));
    got = recv(b.ep);
    EXPECT_EQ(got.data, text("behind the keyframe"));
    EXPECT_EQ(got.info.timestamp, formula(reference, START + 100 * MS, b.now()));
}

TEST(SteppedSwitch, BeforeTheFirstKeyframe_NoTime)
{
    Behind b("interval=0");
    EXPECT_EQ(b.time_now(), 0u);
    EXPECT_EQ(b.pass(3 * SECOND), "");
    EXPECT_EQ(b.time_now(), 0u);
}

TEST(SteppedSwitch, EndpointOpenedAfterTheFirstKeyframe_NoTimeUntilTheNext)
{
    ScopedEnv enable("OXEL_ARISTA_ENABLE_TIMESTAMPING", "1");
    ScopedEnv ptp("OXEL_ARISTA_PARAM_KF_CHECK_PTP", "0");
    Wire wire;
    ASSERT_EQ(softnic_set_switch(wire.nic, 0, "interval=100"), 0);
    softnic_run(wire.nic);
    Endpoint ep;
    const uint16_t port = ep.port_of(ep.bind());
    const auto time_after = [&](uint64_t ns) {
        softnic_advance(wire.nic, ns);
        softnic_run(wire.nic);
        EXPECT_EQ(recv(ep).rc, EAGAIN);
        wire.inject(frame_for(port, text("some payload")));
        softnic_run(wire.nic);
        return recv(ep).info.timestamp;
    };
    EXPECT_EQ(time_after(99 * MS), 0u);
    EXPECT_EQ(time_after(MS), START + 100 * MS);
}

TEST(SteppedSwitch, PtpLostForLong_ReportedAfterSevenSecondsThenSilentlyActiveAgain)
{
    Behind b("ptp-lost=2-15");
    std::string all;
    EXPECT_EQ(b.pass(0), "");
    for (uint64_t second = 1; second <= 20; second++) {
        const std::string line = b.pass(SECOND);
        /* The wait began at 2 s; its end at 9 s must have passed. A keyframe out of sync makes it active again. */
        EXPECT_EQ(line,
                  second == 10 ? said(START + 10 * SECOND, "can't PTP sync anymore, time might be unreliable") : "")
            << second;
        EXPECT_EQ(b.time_now(), START + second * SECOND); /* times go on all the while */
    }
}

TEST(SteppedSwitch, PtpLostForever_ReportedEveryTenSeconds)
{
    Behind b("ptp-lost=2-1000");
    EXPECT_EQ(b.pass(0), "");
    for (uint64_t second = 1; second <= 100; second++) {
        const std::string line = b.pass(SECOND);
        EXPECT_EQ(line, second % 10 == 0
                            ? said(START + second * SECOND, "can't PTP sync anymore, time might be unreliable")
                            : "")
            << second;
    }
}

TEST(SteppedSwitch, PtpLostAgainAfterAShortLoss_ReportedWithTheFirstKeyframe)
{
    /* The first loss's wait, from 2 s to 9 s, is not ended by the return at 4 s. */
    Behind first("ptp-lost=2-4");
    EXPECT_EQ(first.pass(0), "");
    for (uint64_t second = 1; second <= 20; second++)
        EXPECT_EQ(first.pass(SECOND), "") << second;
    ASSERT_EQ(softnic_set_switch(first.wire.nic, 0, "ptp-lost=0-1"), 0);
    EXPECT_EQ(first.pass(0), said(START + 20 * SECOND, "can't PTP sync anymore, time might be unreliable"));
    EXPECT_EQ(first.pass(SECOND), said(START + 21 * SECOND, "did resync with PTP protocol"));
}

TEST(SteppedSwitch, PtpRegainedAtOnce_BothReported)
{
    Behind b("ptp-lost=2-10.5");
    EXPECT_EQ(b.pass(0), "");
    for (uint64_t second = 1; second <= 15; second++) {
        const std::string line = b.pass(SECOND);
        const std::string expected = second == 10
                                         ? said(START + 10 * SECOND, "can't PTP sync anymore, time might be unreliable")
                                     : second == 11 ? said(START + 11 * SECOND, "did resync with PTP protocol")
                                                    : "";
        EXPECT_EQ(line, expected) << second;
    }
}

TEST(SteppedSwitch, KeyframesLost_TimesGoOnFromTheLastThatCame)
{
    Behind b("interval=500,lose=0.5,seed=3");
    arista_model::Switch reference;
    uint64_t last = 0, came = 0, lost = 0;
    const auto look = [&](uint64_t before) {
        const bool one = b.matched() != before;
        if (one)
            last = b.now();
        (one ? came : lost)++;
    };
    EXPECT_EQ(b.pass(0), "");
    look(0);
    for (int n = 0; n < 200; n++) {
        const uint64_t before = b.matched();
        EXPECT_EQ(b.pass(500 * MS), "");
        look(before);
        if (last == 0) {
            EXPECT_EQ(b.time_now(), 0u);
            continue;
        }
        const uint64_t time = b.time_now();
        ASSERT_EQ(time, formula(reference, last, b.now())) << n;
        if (!wrapped(last, b.now())) {
            ASSERT_LE(time, b.now() + 256);
            ASSERT_GE(time + 256, b.now());
        }
    }
    EXPECT_GT(came, 70u); /* five deviations */
    EXPECT_GT(lost, 70u);
}

TEST(SteppedSwitch, ModeChanges_TimesEndAndComeBackAsReported)
{
    Behind b("mode=2@3,mode=1@6");
    struct {
        const char *report;
        bool dated;
    } const expected[] = {
        {nullptr, true},
        {nullptr, true},
        {nullptr, true},
        {"timestamp feature disabled by the switch", false},
        {nullptr, true}, /* the second of an unsupported mode */
        {"timestamp feature disabled by the switch", false},
        {"timestamp feature re-enabled by the switch", true},
        {nullptr, true},
    };
    for (uint64_t second = 0; second < 8; second++) {
        const auto &e = expected[second];
        EXPECT_EQ(b.pass(second ? SECOND : 0), e.report ? said(START + second * SECOND, e.report) : "") << second;
        EXPECT_EQ(b.time_now(), e.dated ? START + second * SECOND : 0) << second;
    }
}

TEST(SteppedSwitch, Skew_TimesAreCorrectedByIt)
{
    /* 20 in a million slow. */
    Behind b("interval=100,skew=999980/1000000", true);
    arista_model::Switch reference;
    reference.has_skew = true;
    reference.last.skew_numerator = 999980;
    reference.last.skew_denominator = 1000000;
    std::mt19937 random(12);
    EXPECT_EQ(b.pass(0), "");
    for (int n = 0; n < 500; n++) {
        EXPECT_EQ(b.pass(random() % (40 * MS)), "");
        const uint64_t now = b.now();
        const uint64_t keyframe = now - (now - START) % (100 * MS);
        const uint64_t time = b.time_now();
        ASSERT_EQ(time, formula(reference, keyframe, now, 999980, 1000000));
        if (wrapped(keyframe, now, 999980, 1000000))
            continue;
        ASSERT_LE(time, now + 4 + 3);
        ASSERT_GE(time + 4 + 3 + 1, now);
    }
}

TEST(SteppedSwitch, SkewThatTheEndpointDoesNotExpect_KeyframesAreMalformed)
{
    {
        Behind b("skew=999980/1000000");
        EXPECT_EQ(b.pass(0), "---: Arista switch sent malformed IP PROTO 253 packet, expected=84 got=100.\n");
        EXPECT_EQ(b.time_now(), 0u);
    }
    Behind b("seed=1", true);
    EXPECT_EQ(b.pass(0), "---: Arista switch sent malformed IP PROTO 253 packet, expected=100 got=84.\n");
}

TEST(SteppedSwitch, OtherRate_TimesRunAsFastAsItsClock)
{
    Behind b("rate=175000000,interval=10000"); /* half of what the receiver takes for granted */
    EXPECT_EQ(b.pass(0), "");
    EXPECT_EQ(b.pass(2 * SECOND), "");
    EXPECT_EQ(b.time_now(), START + SECOND);
}

TEST(SteppedSwitch, KeyframesToAnotherAddress_NotTaken)
{
    Behind b("dst=1.1.1.1");
    EXPECT_EQ(b.pass(0), "");
    EXPECT_EQ(b.matched(), 0u);
    EXPECT_EQ(b.time_now(), 0u);
}

/* The 31 bits of a stamp last 6.1 s; a frame behind the wrap and before the next keyframe cannot be told apart. */
TEST(SteppedSwitch, ClockWrappedSinceTheKeyframe_TimeOfTheFrameBefore)
{
    Behind b("interval=10000");
    EXPECT_EQ(b.pass(0), "");
    EXPECT_EQ(b.pass(5 * SECOND), "");
    const uint64_t five = b.time_now();
    EXPECT_EQ(five, START + 5 * SECOND);
    EXPECT_EQ(b.pass(2 * SECOND), "");
    EXPECT_EQ(b.time_now(), five);
    EXPECT_EQ(b.pass(3 * SECOND), "");
    EXPECT_EQ(b.time_now(), START + 10 * SECOND);
}

/* A frame whole wraps behind the keyframe is dated by the rest, and nothing tells. */
TEST(SteppedSwitch, SparseTrafficLongAfterTheKeyframe_SixSecondsEarlyAndNotRaised)
{
    Behind b("interval=100000");
    EXPECT_EQ(b.pass(0), "");
    EXPECT_EQ(b.pass(SECOND), "");
    EXPECT_EQ(b.time_now(), START + SECOND);
    EXPECT_EQ(b.pass(8 * SECOND), "");
    /* 3150000000 - 2^31 = 1002516352 ticks, 2864332434.29 ns, to a multiple of 256 */
    EXPECT_EQ(b.time_now(), START + 2864332544);
    EXPECT_EQ(b.ep.dev->arista_control.arct_stats.arst_neg_adj_event, 0u);
    EXPECT_EQ(b.ep.dev->arista_control.arct_stats.arst_flips, 0u);
}

TEST(SteppedSwitch, WrapWithNoFrameSinceTheKeyframe_TheKeyframesTimeAndNotCounted)
{
    Behind b("interval=5000");
    EXPECT_EQ(b.pass(0), "");
    EXPECT_EQ(b.pass(5 * SECOND), "");
    EXPECT_EQ(b.pass(2 * SECOND), ""); /* the clock, at 5 s 1750000000, has wrapped at 6.14 s */
    EXPECT_EQ(b.time_now(), START + 5 * SECOND);
    EXPECT_EQ(b.ep.dev->arista_control.arct_stats.arst_neg_adj_event, 0u);
}

TEST(SteppedSwitch, SameSeed_SameRun)
{
    const auto run = [](const char *options) {
        Behind b(options);
        std::string transcript = b.pass(0);
        for (int n = 0; n < 300; n++) {
            transcript += b.pass(333 * MS);
            transcript += std::to_string(b.time_now()) + "\n";
        }
        return transcript;
    };
    const std::string once = run("lose=0.5,ptp-lost=10-30,mode=2@50,mode=1@55,seed=7");
    EXPECT_EQ(run("lose=0.5,ptp-lost=10-30,mode=2@50,mode=1@55,seed=7"), once);
    EXPECT_NE(run("lose=0.5,ptp-lost=10-30,mode=2@50,mode=1@55,seed=8"), once);
    EXPECT_NE(once.find("can't PTP sync"), std::string::npos);
    EXPECT_NE(once.find("disabled by the switch"), std::string::npos);
}

TEST(SteppedSwitch, TakenAway_FramesLoseTheirStampsAndNoKeyframeComes)
{
    for (const char *nothing : {static_cast<const char *>(nullptr), ""}) {
        Behind b("interval=0");
        b.wire.inject(frame_for(b.port, text("stamped, and waiting")));
        ASSERT_EQ(softnic_set_switch(b.wire.nic, 0, nothing), 0);
        b.wire.inject(frame_for(b.port, text("never stamped")));
        softnic_run(b.wire.nic);
        for (const char *payload : {"stamped, and waiting", "never stamped"}) {
            uint8_t frame[2048];
            size_t len = 0;
            ASSERT_EQ(ruk_raw_recv_nb(b.ep.dev, frame, &len, nullptr, nullptr), 0);
            EXPECT_EQ(len, 42 + strlen(payload) + 4); /* the check sequence in the stamp's place */
            EXPECT_EQ(Bytes(frame + 42, frame + len - 4), text(payload));
        }
        EXPECT_EQ(b.pass(10 * SECOND), "");
        EXPECT_EQ(b.matched(), 2u);
    }
}

TEST(SteppedSwitch, SetWhileFramesWait_TheyAreStampedToo)
{
    ScopedEnv enable("OXEL_ARISTA_ENABLE_TIMESTAMPING", nullptr);
    Wire wire;
    Endpoint ep;
    const uint16_t port = ep.port_of(ep.bind());
    wire.inject(frame_for(port, text("waiting")));
    ASSERT_EQ(softnic_set_switch(wire.nic, 0, "interval=0,rate=1000000000"), 0);
    softnic_advance(wire.nic, 0x12345678);
    wire.inject(frame_for(port, text("later")));
    softnic_run(wire.nic);
    uint8_t frame[2048];
    size_t len = 0; /* both are padded to 60 bytes before they are stamped */
    ASSERT_EQ(ruk_raw_recv_nb(ep.dev, frame, &len, nullptr, nullptr), 0);
    EXPECT_EQ(Bytes(frame + 42, frame + len), text("waiting") + Bytes(11, 0) + be32(0));
    ASSERT_EQ(ruk_raw_recv_nb(ep.dev, frame, &len, nullptr, nullptr), 0);
    EXPECT_EQ(Bytes(frame + 42, frame + len), text("later") + Bytes(13, 0) + be32(0x2468ac78));
}

TEST(SteppedSwitch, OtherBoard_KnowsNothingOfIt)
{
    softnic_board_config_t configs[2];
    for (unsigned board = 0; board < 2; board++)
        softnic_board_defaults(&configs[board], board);
    softnic_t *nic = softnic_create(configs, 2, START);
    ASSERT_EQ(softnic_set_switch(nic, 1, "seed=1"), 0);
    softnic_run(nic);
    softnic_board_counters_t counters;
    softnic_board_counters(nic, 0, &counters);
    EXPECT_EQ(counters.arrived, 0u);
    softnic_board_counters(nic, 1, &counters);
    EXPECT_EQ(counters.arrived, 1u);
    softnic_destroy(nic);
}

TEST(SteppedSwitch, NothingThatCanBeASwitch_RefusedAndNothingChanged)
{
    Wire wire;
    for (const char *options : {"model", "rate=0", "interval=1.5", "seed=1,", ",seed=1", "lose=2", "skew=1/0", " "})
        EXPECT_EQ(softnic_set_switch(wire.nic, 0, options), EINVAL) << options;
    EXPECT_EQ(softnic_set_switch(wire.nic, 1, "seed=1"), EINVAL);
    EXPECT_EQ(softnic_set_switch(wire.nic, 1, nullptr), EINVAL);
    EXPECT_EQ(softnic_set_switch(nullptr, 0, "seed=1"), EINVAL);
    softnic_advance(wire.nic, 5 * SECOND);
    softnic_run(wire.nic);
    softnic_board_counters_t counters;
    softnic_board_counters(wire.nic, 0, &counters);
    EXPECT_EQ(counters.arrived, 0u);

    ASSERT_EQ(softnic_set_switch(wire.nic, 0, "interval=1000"), 0);
    softnic_run(wire.nic);
    EXPECT_EQ(softnic_set_switch(wire.nic, 0, "interval=x"), EINVAL); /* the one that is there goes on */
    softnic_advance(wire.nic, 5 * SECOND);
    softnic_run(wire.nic);
    softnic_board_counters(wire.nic, 0, &counters);
    EXPECT_EQ(counters.arrived, 6u);
}

TEST(SteppedSwitch, BoardWhoseFramesComeStamped_Refused)
{
    Wire wire([](softnic_board_config_t &config) { config.trailer_on_wire = 1; });
    EXPECT_EQ(softnic_set_switch(wire.nic, 0, "seed=1"), EINVAL);
    EXPECT_EQ(softnic_set_switch(wire.nic, 0, nullptr), EINVAL);
}

/* ------------------------------------------------------------------ open and close */

TEST(SteppedSwitch, EndpointClosed_KeyframeFilterGoesWithItAndIsNotRemovedBefore)
{
    Behind b("seed=1");
    EXPECT_EQ(softnic_steered(b.wire.nic, 0, 0x01010100, 0, 0, 253), 1);
    ruk_channel_t other = b.ep.bind();
    softnic_clear_commands(b.wire.nic);
    EXPECT_EQ(ruk_unbind(other), 0);
    unsigned long commands[64];
    size_t n = softnic_commands(b.wire.nic, commands, 64);
    EXPECT_EQ(std::count(commands, commands + n, 0x50ebul), 1); /* a removal does show */

    Endpoint without_channels;
    softnic_clear_commands(b.wire.nic);
    EXPECT_EQ(ruk_close(without_channels.dev), 0);
    without_channels.dev = nullptr;
    n = softnic_commands(b.wire.nic, commands, 64);
    EXPECT_EQ(std::count(commands, commands + n, 0x50ebul), 0);

    EXPECT_EQ(ruk_close(b.ep.dev), 0);
    b.ep.dev = nullptr;
    EXPECT_EQ(softnic_steered(b.wire.nic, 0, 0x01010100, 0, 0, 253), 0);
}

TEST(SteppedSwitch, TwoEndpoints_EachHasItsOwnKeyframesAndState)
{
    Behind b("interval=1000");
    Endpoint second;
    const uint16_t port = second.port_of(second.bind());
    softnic_run(b.wire.nic);
    EXPECT_EQ(recv(second).rc, EAGAIN); /* the second takes its first keyframe, the first leaves its own */
    softnic_advance(b.wire.nic, 20);
    b.wire.inject(frame_for(port, text("for the second")));
    softnic_run(b.wire.nic);
    EXPECT_EQ(recv(second).info.timestamp, START + 20); /* 7 ticks */
    EXPECT_EQ(recv(b.ep).rc, EAGAIN);
    softnic_advance(b.wire.nic, 20);
    EXPECT_EQ(b.time_now(), START + 40);
}
