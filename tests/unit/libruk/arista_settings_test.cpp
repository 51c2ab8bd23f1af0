/* The switch feature's settings at open, its filter, and the summary at close. */
#include "capture.h"
#include "recv_rig.h"
#include "scoped_env.h"
#include "socket_seam.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <utility>

using namespace recv_rig;
using namespace test_support;

namespace {

const char *const ENABLE = "OXEL_ARISTA_ENABLE_TIMESTAMPING";
const char *const DST_IP = "OXEL_ARISTA_PARAM_KF_DST_IP";
const char *const CHECK_RATE = "OXEL_ARISTA_PARAM_KF_CHECK_RATE";
const char *const CHECK_PTP = "OXEL_ARISTA_PARAM_KF_CHECK_PTP";
const char *const KERNDUP = "OXEL_ARISTA_PARAM_KF_KERNDUP";
const char *const SKEW = "OXEL_ARISTA_ENABLE_SKEW";

/* An environment without any of them, and a driver that takes filters. */
struct Settings {
    ScopedEnv none[6] = {{ENABLE, nullptr},    {DST_IP, nullptr},  {CHECK_RATE, nullptr},
                         {CHECK_PTP, nullptr}, {KERNDUP, nullptr}, {SKEW, nullptr}};
    RigEndpoint rig;
    SocketTable table;
    std::vector<Bytes> filters;
    int filter_error = 0;
    std::string said;

    Settings()
    {
        table.on_ioctl[0x50eb] = [this](int, void *arg) {
            const uint8_t *record = static_cast<const uint8_t *>(arg);
            filters.emplace_back(record, record + 13); /* what follows is not set */
            errno = filter_error;
            return filter_error ? -1 : 0;
        };
        memset(&ctl(), 0x77, sizeof ctl());
    }
    arista_control &ctl() { return rig.ep->arista_control; }
    void init(bool verbose = false)
    {
        Scoped<int> v(__ruk_verbose, verbose);
        StreamCapture streams;
        arista_init(rig.ep);
        EXPECT_EQ(streams.out(), "");
        said = streams.err();
    }
};

/* address, port, vlan, tag, remove, kernel, protocol: little-endian, in host order */
Bytes filter_for(Bytes address_le, bool kernel) { return address_le + Bytes{0, 0, 0, 0, 0, 0, 0, kernel, 2}; }

} // namespace

TEST(SwitchSettings, NothingSet_OffWithTheDefaults)
{
    Settings s;
    s.init();
    EXPECT_EQ(s.said, "");
    EXPECT_TRUE(s.filters.empty());
    arista_control expected;
    memset(&expected, 0, sizeof expected);
    expected.arct_kf_check_rate = 1;
    expected.arct_kf_check_ptp = 1;
    expected.arct_kf_ptp_wait = UINT64_MAX;
    memcpy(expected.arct_prodname, "RUK", 4);
    expected.arct_kf_dst_ip = inet_addr("1.1.1.0");
    EXPECT_EQ(memcmp(&s.ctl(), &expected, sizeof expected), 0);
}

TEST(SwitchSettings, EnableVariable_SetAndEmptyOrNonZeroMeansOn)
{
    const struct {
        const char *value;
        bool on;
    } cases[] = {{"", true},   {"1", true},    {"0", false},   {"2", true},  {"-1", true}, {"00", false},
                 {"x", false}, {"yes", false}, {"0x1", false}, {"1x", true}, {" 7", true}, {" ", false}};
    for (const auto &c : cases) {
        Settings s;
        ScopedEnv enable(ENABLE, c.value);
        s.init();
        EXPECT_EQ(s.ctl().arct_status, c.on ? ARISTA_STATUS_INITED : ARISTA_STATUS_DISABLED) << c.value;
        EXPECT_EQ(s.filters.size(), c.on ? 1u : 0u);
        EXPECT_EQ(s.ctl().arct_mode, ARISTA_FCS_TIMESTAMPING_DISABLED);
    }
}

TEST(SwitchSettings, OtherSwitches_NonEmptyNumberElseDefault)
{
    const struct {
        const char *name;
        uint8_t arista_control::*field;
        uint8_t by_default;
    } switches[] = {{CHECK_RATE, &arista_control::arct_kf_check_rate, 1},
                    {CHECK_PTP, &arista_control::arct_kf_check_ptp, 1},
                    {KERNDUP, &arista_control::arct_kf_dupkern, 0},
                    {SKEW, &arista_control::arct_kf_hasskew, 0}};
    for (const auto &sw : switches) {
        for (const char *enable : {"0", "1"}) { /* they count with the feature off, too */
            ScopedEnv on(ENABLE, enable);
            auto with = [&](const char *value) {
                Settings s;
                ScopedEnv enable_again(ENABLE, enable);
                ScopedEnv var(sw.name, value);
                s.init();
                for (const auto &other : switches) {
                    if (other.name != sw.name) {
                        EXPECT_EQ(s.ctl().*other.field, other.by_default);
                    }
                }
                return s.ctl().*sw.field;
            };
            EXPECT_EQ(with(nullptr), sw.by_default) << sw.name;
            EXPECT_EQ(with(""), sw.by_default);
            EXPECT_EQ(with("0"), 0);
            EXPECT_EQ(with("1"), 1);
            EXPECT_EQ(with("256"), 1); /* on, not its low byte */
            EXPECT_EQ(with("-3"), 1);
            EXPECT_EQ(with("on"), 0);
            EXPECT_EQ(with("0x10"), 0);
        }
    }
}

TEST(SwitchSettings, On_FilterForProtocol253WithTagZero)
{
    {
        Settings s;
        ScopedEnv enable(ENABLE, "1");
        s.init();
        EXPECT_EQ(s.filters, std::vector<Bytes>{filter_for({0, 1, 1, 1}, false)}); /* 1.1.1.0 */
    }
    {
        Settings s;
        ScopedEnv enable(ENABLE, "1"), address(DST_IP, "224.0.1.129"), kernel(KERNDUP, "1");
        s.init();
        EXPECT_EQ(s.filters, std::vector<Bytes>{filter_for({129, 1, 0, 224}, true)});
        EXPECT_EQ(s.ctl().arct_kf_dst_ip, inet_addr("224.0.1.129"));
        EXPECT_EQ(s.ctl().arct_kf_dupkern, 1);
    }
}

TEST(SwitchSettings, EmptyAddress_Default)
{
    Settings s;
    ScopedEnv enable(ENABLE, "1"), address(DST_IP, "");
    s.init();
    EXPECT_EQ(s.ctl().arct_kf_dst_ip, inet_addr("1.1.1.0"));
}

TEST(SwitchSettings, LongAddress_ThirtyOneCharactersKept)
{
    Settings s;
    ScopedEnv enable(ENABLE, "1"), address(DST_IP, "10.0.0.1 .4567890123456789012345678901234567");
    s.init(true);
    EXPECT_NE(s.said.find("dst_ip: 10.0.0.1 .456789012345678901234\n"), std::string::npos) << s.said;
}

TEST(SwitchSettings, NotAnAddress_AllOnes)
{
    Settings s;
    ScopedEnv enable(ENABLE, "1"), address(DST_IP, "switch.example");
    s.init();
    EXPECT_EQ(s.ctl().arct_kf_dst_ip, 0xffffffffu);
    EXPECT_EQ(s.filters, std::vector<Bytes>{filter_for({255, 255, 255, 255}, false)});
}

TEST(SwitchSettings, Verbose_TheStatusText)
{
    {
        Settings s;
        s.init(true);
        EXPECT_EQ(s.said, "Arista timestamping [off] \n");
    }
    {
        Settings s;
        ScopedEnv enable(ENABLE, "1");
        s.init(true);
        EXPECT_EQ(s.said, "Arista timestamping [on], mode: append (before-fcs), dst_ip: 1.1.1.0\n"
                          "\t  * features: keyframe check min.rate [on] kf check ptp [on] kf kernel dup [off] "
                          "kf skew [off] \n");
    }
    {
        Settings s;
        ScopedEnv enable(ENABLE, ""), rate(CHECK_RATE, "0"), ptp(CHECK_PTP, "0"), dup(KERNDUP, "1"), skew(SKEW, "1"),
            address(DST_IP, "10.9.8.7");
        s.init(true);
        EXPECT_EQ(s.said, "Arista timestamping [on], mode: append (before-fcs), dst_ip: 10.9.8.7\n"
                          "\t  * features: keyframe check min.rate [off] kf check ptp [off] kf kernel dup [on] "
                          "kf skew [on] \n");
    }
}

TEST(SwitchSettings, NotVerbose_Silent)
{
    Settings s;
    ScopedEnv enable(ENABLE, "1");
    s.init();
    EXPECT_EQ(s.said, "");
}

TEST(SwitchSettings, FilterRefused_OffWithMessageInsteadOfTheStatusText)
{
    for (bool verbose : {false, true}) {
        Settings s;
        s.filter_error = ENOSPC;
        ScopedEnv enable(ENABLE, "1");
        s.init(verbose);
        /* The address of the filter's own line is in network order: 1.1.1.0 is 00010101. */
        EXPECT_EQ(s.said, "filter-add ip=10101,port=0: FAILED with return value 28\n"
                          "Failed to provide Arista filter to NIC: turning off Arista support\n");
        EXPECT_EQ(s.ctl().arct_status, ARISTA_STATUS_DISABLED);
    }
}

/* ------------------------------------------------------------------ the summary */

namespace {

std::string summary(arista_tsp_status status, bool verbose, void (*fill)(arista_control &) = nullptr)
{
    RigEndpoint rig;
    rig.ep->arista_control.arct_status = status;
    if (fill)
        fill(rig.ep->arista_control);
    Scoped<int> v(__ruk_verbose, verbose);
    StreamCapture streams;
    rig.close();
    EXPECT_EQ(streams.out(), "");
    return streams.err();
}

} // namespace

TEST(SwitchSummary, VerboseAndFeatureOn_OneLine)
{
    for (auto status : {ARISTA_STATUS_INITED, ARISTA_STATUS_CHANGEDMODE, ARISTA_STATUS_FALLBACK_LOCAL,
                        ARISTA_STATUS_ACTIVE, ARISTA_STATUS_OUTOFSYNC, ARISTA_STATUS_NEED_KEYFRAME}) {
        EXPECT_EQ(summary(status, true), "Arista stats: KF [recv 0, flips 0, shortages 0, malformed 0] "
                                         "Sw [ptp out of sync. 0, unsupp. 0, dropped frm 0, neg_adj_events 0]\n");
    }
}

TEST(SwitchSummary, CountersSet_EachInItsPlaceDroppedFromTheKeyframe)
{
    EXPECT_EQ(summary(ARISTA_STATUS_ACTIVE, true,
                      [](arista_control &ctl) {
                          ctl.arct_stats.arst_kfrecv = 1;
                          ctl.arct_stats.arst_flips = 2;
                          ctl.arct_stats.arst_kfneeded = 3;
                          ctl.arct_stats.arst_kfmalformed = 4;
                          ctl.arct_stats.arst_kfmalformedlen = 1000;
                          ctl.arct_stats.arst_ptpoos = 5;
                          ctl.arct_stats.arst_unsupported_mode = 6;
                          ctl.arct_stats.arst_dropped = 2000;
                          ctl.arct_lastkf.ak_dropped_frames = 7;
                          ctl.arct_stats.arst_neg_adj_event = 8;
                      }),
              "Arista stats: KF [recv 1, flips 2, shortages 3, malformed 4] "
              "Sw [ptp out of sync. 5, unsupp. 6, dropped frm 7, neg_adj_events 8]\n");
}

TEST(SwitchSummary, LargeCounters_LowHalfAsASignedNumber)
{
    EXPECT_EQ(summary(ARISTA_STATUS_ACTIVE, true,
                      [](arista_control &ctl) {
                          ctl.arct_stats.arst_kfrecv = 0x7fffffff;
                          ctl.arct_stats.arst_flips = 0x80000000;
                          ctl.arct_stats.arst_kfneeded = 0xffffffff;
                          ctl.arct_stats.arst_kfmalformed = 0x100000000;
                          ctl.arct_stats.arst_ptpoos = 0x300000009;
                          ctl.arct_stats.arst_unsupported_mode = UINT64_MAX;
                          ctl.arct_lastkf.ak_dropped_frames = 0xabcdef0012345678;
                          ctl.arct_stats.arst_neg_adj_event = 0xfffffffffffffff6;
                      }),
              "Arista stats: KF [recv 2147483647, flips -2147483648, shortages -1, malformed 0] "
              "Sw [ptp out of sync. 9, unsupp. -1, dropped frm 305419896, neg_adj_events -10]\n");
}

TEST(SwitchSummary, NotVerboseOrFeatureOff_Nothing)
{
    EXPECT_EQ(summary(ARISTA_STATUS_ACTIVE, false), "");
    EXPECT_EQ(summary(ARISTA_STATUS_DISABLED, true), "");
    EXPECT_EQ(summary(ARISTA_STATUS_DISABLED, false), "");
}

TEST(SwitchSummary, CloseDeferred_PrintedByBothPasses)
{
    RigEndpoint::Options options;
    options.locks = true;
    RigEndpoint rig(options);
    rig.ep->arista_control.arct_status = ARISTA_STATUS_ACTIVE;
    LibcHookGuard hooks;
    hooks->poll = [&](struct pollfd *, nfds_t, int) {
        EXPECT_EQ(ruk_close(rig.ep), 0);
        return 1;
    };
    Scoped<int> v(__ruk_verbose, 1);
    const std::string line = "Arista stats: KF [recv 0, flips 0, shortages 0, malformed 0] "
                             "Sw [ptp out of sync. 0, unsupp. 0, dropped frm 0, neg_adj_events 0]\n";
    StreamCapture streams;
    EXPECT_EQ(rig.recv(RUK_RECV_BLOCK).rc, ENXIO);
    EXPECT_EQ(streams.err(), line + line);
}

TEST(SwitchSummary, NoMemoryForIt_ClosedWithout)
{
    RigEndpoint rig;
    rig.ep->arista_control.arct_status = ARISTA_STATUS_ACTIVE;
    Scoped<int> v(__ruk_verbose, 1);
    StreamCapture streams;
    AllocFault fault(1, 2);
    EXPECT_EQ(rig.close(), 0);
    EXPECT_EQ(streams.err(), "");
    EXPECT_TRUE(rig.closed());
}

namespace {

/* The blocks of that size, in the order in which they were taken, and which of them were given back. */
class Blocks : public AllocWatch {
public:
    explicit Blocks(size_t size, unsigned refused = 0) : size_(size), refused_(refused) {}
    bool refuses() override { return ++asked_ == refused_; }
    void taken(void *block, size_t size) override
    {
        if (size == size_)
            blocks.push_back({block, false});
    }
    void given_back(void *block) override
    {
        for (auto &b : blocks)
            if (b.first == block)
                b.second = true;
    }
    std::vector<std::pair<void *, bool>> blocks;

private:
    size_t size_;
    unsigned refused_, asked_ = 0; /* the call that fails; 0 for none */
};

} // namespace

TEST(SwitchSummary, NoMemoryForOneBuffer_ClosedWithout_TheOtherIsGivenBack)
{
    for (unsigned refused : {1u, 2u}) {
        RigEndpoint rig;
        rig.ep->arista_control.arct_status = ARISTA_STATUS_ACTIVE;
        Scoped<int> v(__ruk_verbose, 1);
        StreamCapture streams;
        std::vector<std::pair<void *, bool>> blocks;
        {
            Blocks watch(512, refused);
            EXPECT_EQ(rig.close(), 0);
            blocks = watch.blocks;
        }
        EXPECT_EQ(streams.err(), "") << refused;
        EXPECT_TRUE(rig.closed());
        ASSERT_EQ(blocks.size(), 1u) << refused;
        EXPECT_TRUE(blocks[0].second) << refused;
    }
}

TEST(SwitchSummary, VerboseOrNot_ComposedInTwoBuffersOfWhichTheFirstIsGivenBack)
{
    for (int verbose : {0, 1}) {
        RigEndpoint rig;
        rig.ep->arista_control.arct_status = ARISTA_STATUS_ACTIVE;
        rig.ep->arista_control.arct_stats.arst_kfrecv = 77;
        Scoped<int> v(__ruk_verbose, verbose);
        StreamCapture streams;
        std::vector<std::pair<void *, bool>> blocks;
        {
            Blocks watch(512);
            rig.close();
            blocks = watch.blocks;
        }
        ASSERT_EQ(blocks.size(), 2u) << verbose;
        EXPECT_TRUE(blocks[0].second);
        ASSERT_FALSE(blocks[1].second);
        EXPECT_STREQ(static_cast<char *>(blocks[1].first),
                     "Arista stats: KF [recv 77, flips 0, shortages 0, malformed 0] "
                     "Sw [ptp out of sync. 0, unsupp. 0, dropped frm 0, neg_adj_events 0]");
        free(blocks[1].first);
    }
}

TEST(SwitchSummary, FeatureOff_NoBuffers)
{
    RigEndpoint rig;
    Scoped<int> v(__ruk_verbose, 1);
    Blocks watch(512);
    rig.close();
    EXPECT_EQ(watch.blocks.size(), 0u);
}

TEST(SwitchSummary, StandardErrorBuffered_FlushedAtOnce)
{
    RigEndpoint rig;
    rig.ep->arista_control.arct_status = ARISTA_STATUS_ACTIVE;
    Scoped<int> v(__ruk_verbose, 1);
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_NONBLOCK), 0);
    fflush(stderr);
    const int saved = dup(STDERR_FILENO);
    dup2(ends[1], STDERR_FILENO);
    static char buffer[4096];
    setvbuf(stderr, buffer, _IOFBF, sizeof buffer);
    const auto arrived = [&] {
        char bytes[4096];
        const ssize_t n = read(ends[0], bytes, sizeof bytes);
        return std::string(bytes, n > 0 ? static_cast<size_t>(n) : 0);
    };
    fputs("before; ", stderr);
    const std::string early = arrived();
    rig.close();
    const std::string late = arrived();
    fflush(stderr);
    dup2(saved, STDERR_FILENO);
    setvbuf(stderr, nullptr, _IONBF, 0);
    for (int fd : {saved, ends[0], ends[1]})
        close(fd);
    EXPECT_EQ(early, ""); /* it is buffered */
    EXPECT_EQ(late, "before; Arista stats: KF [recv 0, flips 0, shortages 0, malformed 0] "
                    "Sw [ptp out of sync. 0, unsupp. 0, dropped frm 0, neg_adj_events 0]\n");
}

/* ------------------------------------------------------------------ the records */

TEST(SwitchRecords, FieldsAndValues_InTheirPlaces)
{
    EXPECT_EQ(ARISTA_STATUS_DISABLED, 0u);
    EXPECT_EQ(ARISTA_STATUS_INITED, 1u);
    EXPECT_EQ(ARISTA_STATUS_CHANGEDMODE, 2u);
    EXPECT_EQ(ARISTA_STATUS_FALLBACK_LOCAL, 3u);
    EXPECT_EQ(ARISTA_STATUS_ACTIVE, 4u);
    EXPECT_EQ(ARISTA_STATUS_OUTOFSYNC, 5u);
    EXPECT_EQ(ARISTA_STATUS_NEED_KEYFRAME, 6u);
    EXPECT_EQ(ARISTA_FCS_TIMESTAMPING_DISABLED, 0u);
    EXPECT_EQ(ARISTA_FCS_TIMESTAMPING_APPENDED, 1u);
    EXPECT_EQ(ARISTA_FCS_TIMESTAMPING_OVERWRITE, 2u);
    EXPECT_EQ(ARISTA_FCS_TIMESTAMPING_TESTING_MODE, 3u);

    /* Each field begins where the one before ends, at its own alignment. */
    struct Field {
        size_t at, size, align;
    };
    const auto check = [](std::initializer_list<Field> fields, size_t whole) {
        size_t at = 0, widest = 1;
        for (const Field &f : fields) {
            at = (at + f.align - 1) / f.align * f.align;
            EXPECT_EQ(f.at, at);
            at += f.size;
            widest = std::max(widest, f.align);
        }
        EXPECT_EQ(whole, (at + widest - 1) / widest * widest);
    };
    struct U64 {
        uint64_t value;
    };
    const size_t a64 = alignof(U64); /* in a record: 4 where words have 32 bits */
    using K = arista_keyframe;
    check({{offsetof(K, ak_asic_time), 8, a64},
           {offsetof(K, ak_utc_time), 8, a64},
           {offsetof(K, ak_last_sync_time), 8, a64},
           {offsetof(K, ak_skew_numerator), 8, a64},
           {offsetof(K, ak_skew_denominator), 8, a64},
           {offsetof(K, ak_kf_timestamp), 8, a64},
           {offsetof(K, ak_dropped_frames), 8, a64},
           {offsetof(K, ak_device_id), 2, 2},
           {offsetof(K, ak_egress_swport), 2, 2},
           {offsetof(K, ak_fcs_type), 1, 1},
           {offsetof(K, ak_reserved), 1, 1}},
          sizeof(K));
    using S = arista_stats;
    check({{offsetof(S, arst_kfrecv), 8, a64},
           {offsetof(S, arst_kfneeded), 8, a64},
           {offsetof(S, arst_kfmalformed), 8, a64},
           {offsetof(S, arst_kfmalformedlen), 4, 4},
           {offsetof(S, arst_flips), 8, a64},
           {offsetof(S, arst_ptpoos), 8, a64},
           {offsetof(S, arst_unsupported_mode), 8, a64},
           {offsetof(S, arst_dropped), 8, a64},
           {offsetof(S, arst_neg_adj_event), 8, a64}},
          sizeof(S));
    using C = ast_ctl_t;
    check({{offsetof(C, arct_mode), 4, 4},
           {offsetof(C, arct_status), 4, 4},
           {offsetof(C, arct_kf_check_rate), 1, 1},
           {offsetof(C, arct_kf_check_ptp), 1, 1},
           {offsetof(C, arct_kf_recv), 1, 1},
           {offsetof(C, arct_kf_dupkern), 1, 1},
           {offsetof(C, arct_kf_last_ts), 4, 4},
           {offsetof(C, arct_lastkf), sizeof(K), a64},
           {offsetof(C, arct_kf_hasskew), 1, 1},
           {offsetof(C, arct_kf_flipped), 8, a64},
           {offsetof(C, arct_kf_ptp_wait), 8, a64},
           {offsetof(C, arct_stats), sizeof(S), a64},
           {offsetof(C, arct_prodname), 4, 1},
           {offsetof(C, arct_kf_dst_ip), 4, 4},
           {offsetof(C, arct_last_ts), 8, a64}},
          sizeof(C));
}
