/* Keyframes of the switch: what is taken from them, how the status follows, what is reported. */
#include "arista_model.h"
#include "capture.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>

using namespace recv_rig;
using arista_model::Keyframe;
using test_support::StreamCapture;

namespace {

constexpr uint64_t NOW = 1700000000000000000;
constexpr uint64_t GRACE = 7000000000;
constexpr uint64_t NOT_WAITING = UINT64_MAX;

/* An endpoint that receives keyframes at a host time of the test's choice. */
struct KeyframeRig : RigEndpoint {
    test_support::LibcHookGuard hooks;
    uint64_t now = NOW;

    explicit KeyframeRig(arista_tsp_status status, bool skew = false, bool locks = false)
        : RigEndpoint({.ring = 8192, .locks = locks})
    {
        arista_control &ctl = ep->arista_control;
        ctl.arct_status = status;
        ctl.arct_kf_hasskew = skew;
        ctl.arct_kf_ptp_wait = NOT_WAITING;
        hooks->clock_gettime = [this](clockid_t clock, struct timespec *ts) {
            EXPECT_EQ(clock, CLOCK_REALTIME);
            ts->tv_sec = static_cast<time_t>(now / 1000000000);
            ts->tv_nsec = static_cast<long>(now % 1000000000);
            return 0;
        };
    }

    arista_control &ctl() { return ep->arista_control; }

    /* Receives the frame; what came out on standard error. */
    std::string receive(const Bytes &frame)
    {
        ring.put({{frame, 0}});
        StreamCapture streams;
        EXPECT_EQ(recv().rc, EAGAIN);
        EXPECT_EQ(streams.out(), "");
        return streams.err();
    }
};

} // namespace

/* ------------------------------------------------------------------ what is taken from a keyframe */

TEST(Keyframe, LiteralBytes_FieldsInHostOrder)
{
    for (bool skew : {false, true}) {
        for (bool tagged : {false, true}) {
            KeyframeRig rig(ARISTA_STATUS_INITED, skew);
            Bytes frame = {0x02, 0x6f, 0x78, 0, 0, 1, 0, 0x1c, 0x73, 0, 0, 1};
            if (tagged)
                frame = frame + Bytes{0x81, 0x00, 0x01, 0x02};
            frame = frame + Bytes{0x08, 0x00, 0x45, 0, 0, 66, 0, 0, 0, 0, 64, 253, 0, 0, 10, 0, 0, 1, 1, 1, 1, 0};
            frame = frame + Bytes{0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08,  /* switch clock */
                                  0x11, 0x12, 0x13, 0x14, 0x15, 0x16, 0x17, 0x18,  /* UTC */
                                  0x21, 0x22, 0x23, 0x24, 0x25, 0x26, 0x27, 0x28}; /* last synchronisation */
            if (skew)
                frame = frame + Bytes{0x31, 0x32, 0x33, 0x34, 0x35, 0x36, 0x37, 0x38,
                                      0x41, 0x42, 0x43, 0x44, 0x45, 0x46, 0x47, 0x48};
            frame = frame + Bytes{0x51, 0x52, 0x53, 0x54, 0x55, 0x56, 0x57, 0x58, /* keyframe's own stamp */
                                  0x61, 0x62, 0x63, 0x64, 0x65, 0x66, 0x67, 0x68, /* dropped frames */
                                  0x71, 0x72,                                     /* device */
                                  0x81, 0x82,                                     /* port */
                                  0x01, 0x91};                                    /* mode, reserved */
            frame.resize(skew ? 100 : 84, 0xfc);
            arista_keyframe &kf = rig.ctl().arct_lastkf;
            kf.ak_skew_numerator = 5;
            kf.ak_skew_denominator = 6;
            rig.ctl().arct_kf_flipped = 2;
            EXPECT_EQ(rig.receive(frame), "");
            EXPECT_EQ(kf.ak_asic_time, 0x0102030405060708u);
            EXPECT_EQ(kf.ak_utc_time, 0x1112131415161718u);
            EXPECT_EQ(kf.ak_last_sync_time, 0x2122232425262728u);
            EXPECT_EQ(kf.ak_skew_numerator, skew ? 0x3132333435363738u : 5u);
            EXPECT_EQ(kf.ak_skew_denominator, skew ? 0x4142434445464748u : 6u);
            EXPECT_EQ(kf.ak_kf_timestamp, 0x5152535455565758u);
            EXPECT_EQ(kf.ak_dropped_frames, 0x6162636465666768u);
            EXPECT_EQ(kf.ak_device_id, 0x7172u);
            EXPECT_EQ(kf.ak_egress_swport, 0x8182u);
            EXPECT_EQ(kf.ak_fcs_type, 1u);
            EXPECT_EQ(kf.ak_reserved, 0x91u);
            EXPECT_EQ(rig.ctl().arct_status, ARISTA_STATUS_ACTIVE);
            EXPECT_EQ(rig.ctl().arct_stats.arst_kfrecv, 1u);
            EXPECT_EQ(rig.ctl().arct_kf_flipped, 0u);
        }
    }
}

TEST(Keyframe, AcrossTheRingsEnd_ParsedWhole)
{
    for (int ahead = 99; ahead >= 1; ahead--) {
        RigEndpoint::Options options;
        options.ring = 1024;
        RigEndpoint rig(options);
        rig.ep->arista_control.arct_status = ARISTA_STATUS_INITED;
        rig.ep->arista_control.arct_kf_hasskew = 1;
        rig.ring.put({{pattern(700), 0}});
        EXPECT_EQ(rig.recv().rc, EAGAIN);
        ASSERT_EQ(rig.ring.position(), 768u);
        Keyframe kf;
        kf.has_skew = true;
        kf.asic_time = 0x0102030405060708;
        kf.utc_time = 0x1112131415161718;
        kf.skew_numerator = 0x2122232425262728;
        kf.skew_denominator = 0x3132333435363738;
        kf.dropped_frames = 0x4142434445464748;
        kf.device_id = 0x5152;
        kf.egress_swport = 0x6162;
        EventOptions event;
        event.offset = static_cast<uint8_t>(1024 - 768 - 8 - ahead);
        rig.ring.put({{kf.bytes(), 0}}, event);
        EXPECT_EQ(rig.recv().rc, EAGAIN);
        const arista_keyframe &got = rig.ep->arista_control.arct_lastkf;
        EXPECT_EQ(got.ak_asic_time, kf.asic_time) << ahead;
        EXPECT_EQ(got.ak_utc_time, kf.utc_time);
        EXPECT_EQ(got.ak_skew_numerator, kf.skew_numerator);
        EXPECT_EQ(got.ak_skew_denominator, kf.skew_denominator);
        EXPECT_EQ(got.ak_dropped_frames, kf.dropped_frames);
        EXPECT_EQ(got.ak_device_id, kf.device_id);
        EXPECT_EQ(got.ak_egress_swport, kf.egress_swport);
        EXPECT_EQ(got.ak_fcs_type, 1);
    }
}

TEST(Keyframe, Ipv6OfProtocol253_ReadAtTheSamePlaces)
{
    KeyframeRig rig(ARISTA_STATUS_INITED);
    Keyframe kf;
    kf.utc_time = 0x1112131415161718;
    Bytes frame = kf.bytes();
    frame[12] = 0x86;
    frame[13] = 0xdd;
    frame[14 + 6] = 253;
    EXPECT_EQ(rig.receive(frame), "");
    EXPECT_EQ(rig.ctl().arct_lastkf.ak_utc_time, 0x1112131415161718u);
    EXPECT_EQ(rig.ctl().arct_status, ARISTA_STATUS_ACTIVE);
}

TEST(Keyframe, AmongDatagrams_NeverReachesTheCaller)
{
    for (bool locks : {false, true}) {
        KeyframeRig rig(ARISTA_STATUS_INITED, false, locks);
        rig.bind(0, 0x0a4d0001, 5000);
        rig.ring.put({{Keyframe().bytes(), 0}, {udp_frame("one"), 0}, {Keyframe().bytes(), 0}, {udp_frame("two"), 0}});
        rig.ring.put({{Keyframe().bytes(), 0}});
        EXPECT_EQ(rig.recv(RUK_RECV_PEEK).info.msg_len, 3u); /* a peek absorbs what stands before, too */
        EXPECT_EQ(rig.ctl().arct_stats.arst_kfrecv, 1u);
        EXPECT_EQ(rig.recv(RUK_RECV_DEFAULT).data[0], 'o');
        EXPECT_EQ(rig.recv(RUK_RECV_BLOCK).data[0], 't');
        EXPECT_EQ(rig.ctl().arct_stats.arst_kfrecv, 2u);
        EXPECT_EQ(rig.recv().rc, EAGAIN);
        EXPECT_EQ(rig.ctl().arct_stats.arst_kfrecv, 3u);
        EXPECT_EQ(rig.ep->rep_num_packets, 3u); /* the peek counts, keyframes do not */
        EXPECT_EQ(rig.flow32(0), 2u);
    }
}

TEST(Keyframe, FeatureOff_OrdinaryFrame)
{
    KeyframeRig rig(ARISTA_STATUS_DISABLED);
    ruk__channel *chan = rig.bind(0, 0x01010100, 0x3344); /* whoever has tag 0 */
    const arista_control before = rig.ctl();
    Keyframe kf;
    kf.asic_time = 0x1122334400130000; /* where ports and length of a datagram would be */
    rig.ring.put({{kf.bytes(), 0}});
    Received got = rig.recv();
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(got.info.chan, chan);
    EXPECT_EQ(got.info.msg_len, 0x13u - 8);
    EXPECT_EQ(memcmp(&rig.ctl(), &before, sizeof before), 0);
}

TEST(Keyframe, AdapterTimestampsOnBelowActive_NotTakenForOne)
{
    for (auto status : {ARISTA_STATUS_INITED, ARISTA_STATUS_CHANGEDMODE, ARISTA_STATUS_FALLBACK_LOCAL}) {
        KeyframeRig rig(status);
        rig.ep->rep_timestamping_enabled = 1;
        rig.clock_is_ticks();
        EventOptions options;
        options.ticks = NOW;
        rig.ring.put({{Keyframe().bytes(), 0}}, options);
        EXPECT_EQ(rig.recv().rc, EAGAIN);
        EXPECT_EQ(rig.ctl().arct_status, status);
        EXPECT_EQ(rig.ctl().arct_stats.arst_kfrecv, 0u);
        EXPECT_EQ(rig.ep->rep_stats.dropped_nosock, 1u);
    }
    /* From ACTIVE on it is one, timestamping or not. */
    KeyframeRig rig(ARISTA_STATUS_ACTIVE);
    rig.ep->rep_timestamping_enabled = 1;
    EXPECT_EQ(rig.receive(Keyframe().bytes()), "");
    EXPECT_EQ(rig.ctl().arct_stats.arst_kfrecv, 1u);
}

/* ------------------------------------------------------------------ malformed ones */

TEST(KeyframeMalformed, AnyOtherLength_CountedReportedAndNothingElse)
{
    for (unsigned status = ARISTA_STATUS_INITED; status <= ARISTA_STATUS_NEED_KEYFRAME; status++) {
        for (bool skew : {false, true}) {
            for (size_t length : {size_t{34}, size_t{60}, size_t{83}, size_t{84}, size_t{85}, size_t{88}, size_t{99},
                                  size_t{100}, size_t{101}, size_t{1514}}) {
                if (length == (skew ? 100u : 84u))
                    continue;
                KeyframeRig rig(static_cast<arista_tsp_status>(status), skew);
                rig.ctl().arct_kf_check_ptp = 1;
                rig.ctl().arct_kf_flipped = 2;
                arista_control expected = rig.ctl();
                expected.arct_stats.arst_kfmalformed = 1;
                expected.arct_stats.arst_kfmalformedlen = static_cast<uint32_t>(length);
                Keyframe kf;
                kf.has_skew = skew;
                Bytes frame = kf.bytes();
                frame.resize(length);
                EXPECT_EQ(rig.receive(frame), "---: Arista switch sent malformed IP PROTO 253 packet, expected=" +
                                                  std::string(skew ? "100" : "84") + " got=" + std::to_string(length) +
                                                  ".\n");
                EXPECT_EQ(memcmp(&rig.ctl(), &expected, sizeof expected), 0) << status << ", " << length;
            }
        }
    }
}

TEST(KeyframeMalformed, EightyFiveBytes_ExactMessage)
{
    KeyframeRig rig(ARISTA_STATUS_ACTIVE);
    Keyframe kf;
    kf.extra = 1;
    EXPECT_EQ(rig.receive(kf.bytes()), "---: Arista switch sent malformed IP PROTO 253 packet, expected=84 got=85.\n");
    EXPECT_EQ(rig.ctl().arct_stats.arst_kfmalformed, 1u);
    EXPECT_EQ(rig.ctl().arct_stats.arst_kfmalformedlen, 85u);
    kf.extra = -1;
    EXPECT_EQ(rig.receive(kf.bytes()), "---: Arista switch sent malformed IP PROTO 253 packet, expected=84 got=83.\n");
    EXPECT_EQ(rig.ctl().arct_stats.arst_kfmalformed, 2u);
    EXPECT_EQ(rig.ctl().arct_stats.arst_kfmalformedlen, 83u);
    EXPECT_EQ(rig.ctl().arct_stats.arst_kfrecv, 0u);
}

/* ------------------------------------------------------------------ the whole state table */

namespace {

/* How the PTP watch stands when the keyframe arrives. */
enum Ptp { PTP_OFF, PTP_SYNC, PTP_GRACE, PTP_EXPIRED };

/* Status after a keyframe and the reports it makes: D disabled, R re-enabled, S shortage ended, L PTP lost,
 * Y resync, in the order printed. */
struct Outcome {
    int status;
    const char *reports;
};

struct Row {
    int before;
    bool supported;
    Outcome after[4]; /* by Ptp */
};

const Row table[] = {
    /* before, mode 1?    off         sync       in the grace  after it */
    {1, true, {{4, ""}, {4, ""}, {4, ""}, {5, "L"}}},     {1, false, {{2, "D"}, {2, "D"}, {2, "D"}, {5, "DL"}}},
    {2, true, {{4, "R"}, {4, "R"}, {4, "R"}, {5, "RL"}}}, {2, false, {{4, ""}, {4, ""}, {4, ""}, {5, "L"}}},
    {3, true, {{4, ""}, {4, ""}, {4, ""}, {5, "L"}}},     {3, false, {{2, "D"}, {2, "D"}, {2, "D"}, {5, "DL"}}},
    {4, true, {{4, ""}, {4, ""}, {4, ""}, {5, "L"}}},     {4, false, {{2, "D"}, {2, "D"}, {2, "D"}, {5, "DL"}}},
    {5, true, {{4, ""}, {4, "Y"}, {4, ""}, {4, ""}}},     {5, false, {{2, "D"}, {2, "D"}, {2, "D"}, {5, "DL"}}},
    {6, true, {{4, "S"}, {4, "S"}, {4, "S"}, {5, "SL"}}}, {6, false, {{2, "DS"}, {2, "DS"}, {2, "DS"}, {5, "DSL"}}},
};

std::string spelled(const char *reports, const std::string &when)
{
    std::string text;
    for (; *reports; reports++) {
        text += when + ": Arista switch ";
        switch (*reports) {
        case 'D':
            text += "timestamp feature disabled by the switch \n";
            break;
        case 'R':
            text += "timestamp feature re-enabled by the switch \n";
            break;
        case 'S':
            text += "keyframe shortage ended \n";
            break;
        case 'L':
            text += "can't PTP sync anymore, time might be unreliable \n";
            break;
        case 'Y':
            text += "did resync with PTP protocol \n";
            break;
        }
    }
    return text;
}

void walk(const Row &row, Ptp ptp, uint64_t sync, uint64_t wait, uint8_t mode, bool skew, bool tagged, bool check_rate)
{
    KeyframeRig rig(static_cast<arista_tsp_status>(row.before), skew);
    arista_control &ctl = rig.ctl();
    ctl.arct_kf_check_ptp = ptp != PTP_OFF;
    ctl.arct_kf_check_rate = check_rate;
    ctl.arct_kf_ptp_wait = wait;
    ctl.arct_kf_flipped = 3;
    ctl.arct_kf_last_ts = 12345;
    ctl.arct_last_ts = 777;
    Keyframe kf;
    kf.has_skew = skew;
    kf.tagged = tagged;
    kf.fcs_type = mode;
    kf.utc_time = 0x12345678fedcba98; /* its low 32 bits are 4275878552 */
    kf.asic_time = 99;
    kf.last_sync_time = sync;
    const Outcome &after = row.after[ptp];
    const std::string what = "status " + std::to_string(row.before) + ", mode " + std::to_string(mode) + ", ptp " +
                             std::to_string(ptp) + ", sync " + std::to_string(sync) + ", wait " + std::to_string(wait);

    arista_control expected = ctl;
    expected.arct_status = static_cast<arista_tsp_status>(after.status);
    expected.arct_kf_flipped = 0;
    expected.arct_stats.arst_kfrecv = 1;
    expected.arct_stats.arst_unsupported_mode = strchr(after.reports, 'D') != nullptr;
    expected.arct_stats.arst_ptpoos = strchr(after.reports, 'L') != nullptr;
    if (strpbrk(after.reports, "LY"))
        expected.arct_kf_ptp_wait = 0;
    else if (ptp == PTP_GRACE && (wait == 0 || wait == NOT_WAITING) && !(row.before == 5 && row.supported))
        expected.arct_kf_ptp_wait = NOW + GRACE;

    EXPECT_EQ(rig.receive(kf.bytes()), spelled(after.reports, "4275878552")) << what;
    EXPECT_EQ(ctl.arct_lastkf.ak_utc_time, kf.utc_time);
    expected.arct_lastkf = ctl.arct_lastkf; /* looked at elsewhere */
    EXPECT_EQ(ctl.arct_status, expected.arct_status) << what;
    EXPECT_EQ(ctl.arct_kf_ptp_wait, expected.arct_kf_ptp_wait) << what;
    EXPECT_EQ(memcmp(&ctl, &expected, sizeof expected), 0) << what; /* nothing else has changed */
}

} // namespace

TEST(KeyframeStates, EveryStatusKindAndSetting_AsInTheTable)
{
    int walked = 0;
    for (const Row &row : table) {
        for (Ptp ptp : {PTP_OFF, PTP_SYNC, PTP_GRACE, PTP_EXPIRED}) {
            const std::vector<uint64_t> waits = ptp == PTP_EXPIRED
                                                    ? std::vector<uint64_t>{1, NOW - 1}
                                                    : std::vector<uint64_t>{0, NOT_WAITING, NOW, NOW + 1, NOW + GRACE};
            const std::vector<uint8_t> modes =
                row.supported ? std::vector<uint8_t>{1} : std::vector<uint8_t>{0, 2, 3, 4, 255};
            /* Without the watch it does not matter whether the switch is synchronised. */
            const std::vector<uint64_t> syncs = ptp == PTP_OFF    ? std::vector<uint64_t>{0, 1}
                                                : ptp == PTP_SYNC ? std::vector<uint64_t>{1}
                                                                  : std::vector<uint64_t>{0};
            for (uint64_t sync : syncs)
                for (uint64_t wait : waits)
                    for (uint8_t mode : modes)
                        for (int bits = 0; bits < 8; bits++, walked++)
                            walk(row, ptp, sync, wait, mode, bits & 1, bits & 2, bits & 4);
        }
    }
    EXPECT_EQ(walked, (6 * 1 + 6 * 5) * (4 * 5 + 2) * 8);
}

TEST(KeyframeStates, SyncTimeWithinTheGrace_DoesNotEndTheWait)
{
    KeyframeRig rig(ARISTA_STATUS_ACTIVE);
    rig.ctl().arct_kf_check_ptp = 1;
    Keyframe unsynced;
    unsynced.last_sync_time = 0;
    EXPECT_EQ(rig.receive(unsynced.bytes()), "");
    EXPECT_EQ(rig.ctl().arct_kf_ptp_wait, NOW + GRACE);
    rig.now += 3000000000;
    EXPECT_EQ(rig.receive(Keyframe().bytes()), "");
    EXPECT_EQ(rig.ctl().arct_kf_ptp_wait, NOW + GRACE);
    rig.now = NOW + GRACE + 1;
    EXPECT_EQ(rig.receive(unsynced.bytes()), "0: Arista switch can't PTP sync anymore, time might be unreliable \n");
    EXPECT_EQ(rig.ctl().arct_status, ARISTA_STATUS_OUTOFSYNC);
}

TEST(KeyframeStates, SevenSecondsWithoutSync_LostOnceThenResync)
{
    KeyframeRig rig(ARISTA_STATUS_INITED);
    rig.ctl().arct_kf_check_ptp = 1;
    Keyframe unsynced;
    unsynced.last_sync_time = 0;
    unsynced.utc_time = 5;
    for (int second = 0; second <= 7; second++) {
        rig.now = NOW + static_cast<uint64_t>(second) * 1000000000;
        EXPECT_EQ(rig.receive(unsynced.bytes()), "") << second; /* seven seconds exactly are not yet past */
        EXPECT_EQ(rig.ctl().arct_status, ARISTA_STATUS_ACTIVE);
    }
    rig.now++;
    EXPECT_EQ(rig.receive(unsynced.bytes()), "5: Arista switch can't PTP sync anymore, time might be unreliable \n");
    EXPECT_EQ(rig.ctl().arct_status, ARISTA_STATUS_OUTOFSYNC);
    EXPECT_EQ(rig.ctl().arct_stats.arst_ptpoos, 1u);
    Keyframe synced;
    synced.utc_time = 6;
    EXPECT_EQ(rig.receive(synced.bytes()), "6: Arista switch did resync with PTP protocol \n");
    EXPECT_EQ(rig.ctl().arct_status, ARISTA_STATUS_ACTIVE);
    EXPECT_EQ(rig.receive(synced.bytes()), "");
    EXPECT_EQ(rig.ctl().arct_kf_ptp_wait, 0u);
}

TEST(KeyframeStates, OutOfSyncAndStillUnsynced_SilentlyActiveAndLostAgainSevenSecondsLater)
{
    KeyframeRig rig(ARISTA_STATUS_OUTOFSYNC);
    rig.ctl().arct_kf_check_ptp = 1;
    rig.ctl().arct_kf_ptp_wait = 0;
    Keyframe unsynced;
    unsynced.last_sync_time = 0;
    EXPECT_EQ(rig.receive(unsynced.bytes()), "");
    EXPECT_EQ(rig.ctl().arct_status, ARISTA_STATUS_ACTIVE);
    EXPECT_EQ(rig.ctl().arct_kf_ptp_wait, 0u);
    EXPECT_EQ(rig.receive(unsynced.bytes()), "");
    EXPECT_EQ(rig.ctl().arct_kf_ptp_wait, NOW + GRACE);
    rig.now += GRACE + 1;
    EXPECT_EQ(rig.receive(unsynced.bytes()), "0: Arista switch can't PTP sync anymore, time might be unreliable \n");
}

TEST(KeyframeStates, UnsupportedModeRepeated_ReportedEverySecondTime)
{
    KeyframeRig rig(ARISTA_STATUS_ACTIVE);
    Keyframe other;
    other.fcs_type = 2;
    const std::string disabled = "0: Arista switch timestamp feature disabled by the switch \n";
    for (uint64_t round = 1; round <= 3; round++) {
        EXPECT_EQ(rig.receive(other.bytes()), disabled);
        EXPECT_EQ(rig.ctl().arct_status, ARISTA_STATUS_CHANGEDMODE);
        EXPECT_EQ(rig.receive(other.bytes()), "");
        EXPECT_EQ(rig.ctl().arct_status, ARISTA_STATUS_ACTIVE);
        EXPECT_EQ(rig.ctl().arct_stats.arst_unsupported_mode, round);
    }
}

TEST(KeyframeStates, PtpWatchOff_ClockNotAsked)
{
    KeyframeRig rig(ARISTA_STATUS_ACTIVE);
    unsigned asked = 0;
    rig.hooks->clock_gettime = [&](clockid_t, struct timespec *) {
        asked++;
        return 0;
    };
    Keyframe unsynced;
    unsynced.last_sync_time = 0;
    EXPECT_EQ(rig.receive(unsynced.bytes()), "");
    EXPECT_EQ(asked, 0u);
    EXPECT_EQ(rig.ctl().arct_kf_ptp_wait, NOT_WAITING);
}

TEST(KeyframeStates, RawReceive_FollowsThemToo)
{
    KeyframeRig rig(ARISTA_STATUS_ACTIVE);
    Keyframe other;
    other.fcs_type = 3;
    other.utc_time = 0x100000007;
    rig.ring.put({{other.bytes(), 0}});
    uint8_t buf[2048];
    size_t len = 1;
    StreamCapture streams;
    EXPECT_EQ(ruk_raw_recv(rig.ep, RUK_RECV_NONBLOCK, buf, &len, nullptr), EAGAIN);
    EXPECT_EQ(streams.err(), "7: Arista switch timestamp feature disabled by the switch \n");
    EXPECT_EQ(rig.ctl().arct_status, ARISTA_STATUS_CHANGEDMODE);
}

TEST(KeyframeMalformed, RawReceive_CountedReportedAndNotHandedOut)
{
    KeyframeRig rig(ARISTA_STATUS_ACTIVE);
    Keyframe longer;
    longer.extra = 1;
    UdpFrame next;
    next.payload = text("the next frame");
    rig.ring.put({{longer.bytes(), 0}});
    rig.ring.put({{next.bytes(), 0}});
    uint8_t buf[2048];
    size_t len = 0;
    StreamCapture streams;
    EXPECT_EQ(ruk_raw_recv(rig.ep, RUK_RECV_NONBLOCK, buf, &len, nullptr), 0);
    EXPECT_EQ(Bytes(buf + 42, buf + len), text("the next frame")); /* its last four bytes were taken for a stamp */
    EXPECT_EQ(streams.err(), "---: Arista switch sent malformed IP PROTO 253 packet, expected=84 got=85.\n");
    EXPECT_EQ(rig.ctl().arct_stats.arst_kfmalformed, 1u);
    EXPECT_EQ(rig.ctl().arct_stats.arst_kfmalformedlen, 85u);
    EXPECT_EQ(rig.ctl().arct_stats.arst_kfrecv, 0u);
    EXPECT_EQ(rig.ctl().arct_status, ARISTA_STATUS_ACTIVE);
}
