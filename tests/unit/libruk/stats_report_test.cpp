/* The report of an endpoint's counters. */
#include "capture.h"
#include "recv_rig.h"

#include <cstddef>
#include <cstring>
#include <gtest/gtest.h>

using namespace recv_rig;
using test_support::StreamCapture;

namespace {

void set_counters(RigEndpoint &rig, const std::array<uint64_t, 12> &values)
{
    memcpy(&rig.ep->rep_stats, values.data(), sizeof values);
}

std::string report(RigEndpoint &rig, int non_zero)
{
    StreamCapture streams;
    ruk_dump_stats(rig.ep, non_zero);
    EXPECT_EQ(streams.err(), "");
    return streams.out();
}

} // namespace

TEST(Stats, Record_TwelveCountersInOrder)
{
    EXPECT_EQ(sizeof(ruk__epstats), 96u);
    EXPECT_EQ(offsetof(ruk__epstats, dropped_badproto), 0u);
    EXPECT_EQ(offsetof(ruk__epstats, dropped_badfilter), 8u);
    EXPECT_EQ(offsetof(ruk__epstats, dropped_nosock), 16u);
    EXPECT_EQ(offsetof(ruk__epstats, dropped_runts), 24u);
    EXPECT_EQ(offsetof(ruk__epstats, dropped_noborrow), 32u);
    EXPECT_EQ(offsetof(ruk__epstats, dropped_badlength), 40u);
    EXPECT_EQ(offsetof(ruk__epstats, dropped_csum), 48u);
    EXPECT_EQ(offsetof(ruk__epstats, dropped_oo_bouncebufs), 56u);
    EXPECT_EQ(offsetof(ruk__epstats, dropped_oo_events), 64u);
    EXPECT_EQ(offsetof(ruk__epstats, dropped_broadcast_filtered), 72u);
    EXPECT_EQ(offsetof(ruk__epstats, used_borrowbufs), 80u);
    EXPECT_EQ(offsetof(ruk__epstats, used_bouncebufs), 88u);
}

TEST(Stats, AllZero_ElevenLinesOrNone)
{
    RigEndpoint rig;
    EXPECT_EQ(report(rig, 1), "");
    EXPECT_EQ(report(rig, -1), "");
    EXPECT_EQ(report(rig, 0), "\tdropped_badproto =            0\n"
                              "\tdropped_badfilter =            0\n"
                              "\tdropped_nosock =            0\n"
                              "\tdropped_runts =            0\n"
                              "\tdropped_badlength =            0\n"
                              "\tdropped_csum =            0\n"
                              "\tdropped_oo_bouncebufs =            0\n"
                              "\tdropped_oo_events =            0\n"
                              "\tdropped_broadcast_filtered =            0\n"
                              "\tused_borrowbufs =            0\n"
                              "\tused_bouncebufs =            0\n");
}

TEST(Stats, EachCounter_OnItsOwnLineAndNoborrowNever)
{
    RigEndpoint rig;
    set_counters(
        rig, {1, 22, 333, 1234, 55555, 666666, 7777777, 88888888, 999999999, 1000000000000, 18446744073709551615u, 9});
    const char *expected = "\tdropped_badproto =            1\n"
                           "\tdropped_badfilter =           22\n"
                           "\tdropped_nosock =          333\n"
                           "\tdropped_runts =         1234\n"
                           "\tdropped_badlength =       666666\n"
                           "\tdropped_csum =      7777777\n"
                           "\tdropped_oo_bouncebufs =     88888888\n"
                           "\tdropped_oo_events =    999999999\n"
                           "\tdropped_broadcast_filtered = 1000000000000\n"
                           "\tused_borrowbufs = 18446744073709551615\n"
                           "\tused_bouncebufs =            9\n";
    EXPECT_EQ(report(rig, 0), expected);
    EXPECT_EQ(report(rig, 1), expected);
}

TEST(Stats, BothLocksHeld_PrintedWithoutThem)
{
    RigEndpoint::Options options;
    options.locks = true;
    RigEndpoint rig(options);
    set_counters(rig, {7});
    ASSERT_EQ(pthread_mutex_lock(&rig.ep->rep_rx_lock), 0);
    ASSERT_EQ(pthread_mutex_lock(&rig.ep->rep_lock), 0);
    EXPECT_EQ(report(rig, 1), "\tdropped_badproto =            7\n");
    pthread_mutex_unlock(&rig.ep->rep_lock);
    pthread_mutex_unlock(&rig.ep->rep_rx_lock);
}

TEST(Stats, OneCounterSet_OnlyItsLineWhenZerosAreLeftOut)
{
    const char *names[12] = {"dropped_badproto",
                             "dropped_badfilter",
                             "dropped_nosock",
                             "dropped_runts",
                             nullptr,
                             "dropped_badlength",
                             "dropped_csum",
                             "dropped_oo_bouncebufs",
                             "dropped_oo_events",
                             "dropped_broadcast_filtered",
                             "used_borrowbufs",
                             "used_bouncebufs"};
    for (size_t i = 0; i < 12; i++) {
        RigEndpoint rig;
        std::array<uint64_t, 12> values = {};
        values[i] = 1234;
        set_counters(rig, values);
        EXPECT_EQ(report(rig, 1), names[i] ? "\t" + std::string(names[i]) + " =         1234\n" : "") << i;
    }
}
