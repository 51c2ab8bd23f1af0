/* Receiving through the public calls, from the wire of a stepped adapter to the caller's buffer. */
#include "adapter_rig.h"
#include "capture.h"
#include "ruk_core.h"

#include <cerrno>
#include <cstring>
#include <deque>
#include <gtest/gtest.h>
#include <map>
#include <random>
#include <thread>

using namespace recv_rig;
using namespace test_support;
using namespace adapter_rig;

TEST(AdapterReceive, EverySize_DeliveredIntactWithSourceAndContext)
{
    Wire wire;
    Endpoint ep;
    int context = 0;
    ruk_channel_t chan = ep.bind(0, 0, &context);
    const uint16_t port = ep.port_of(chan);
    for (size_t size = 0; size <= 1472; size++) {
        UdpFrame frame = frame_for(port, pattern(size, static_cast<unsigned>(size)));
        frame.sport = static_cast<uint16_t>(size + 1);
        wire.inject(frame);
        softnic_run(wire.nic);
        Got got = recv(ep);
        ASSERT_EQ(got.rc, 0) << size;
        ASSERT_EQ(got.data, frame.payload) << size;
        ASSERT_EQ(got.info.chan, chan);
        ASSERT_EQ(got.info.chan_context, &context);
        ASSERT_EQ(ntohl(got.info.sin_from.sin_addr.s_addr), PEER);
        ASSERT_EQ(ntohs(got.info.sin_from.sin_port), size + 1);
        ASSERT_EQ(ntohl(got.info.sin_to.sin_addr.s_addr), HOST);
        ASSERT_EQ(ntohs(got.info.sin_to.sin_port), port);
        ASSERT_EQ(got.info.timestamp, 0u);
    }
    EXPECT_EQ(recv(ep).rc, EAGAIN);
}

TEST(AdapterReceive, CoalescedEventsOfEverySize_AllDeliveredInOrder)
{
    for (unsigned most = 1; most <= 5; most++) {
        Wire wire;
        softnic_set_max_packets(wire.nic, 0, most);
        Endpoint ep;
        const uint16_t port = ep.port_of(ep.bind());
        for (unsigned batch = 1; batch <= 12; batch++) {
            for (unsigned i = 0; i < batch; i++)
                wire.inject(frame_for(port, pattern(10 + i * 13, batch * 100 + i)));
            softnic_run(wire.nic);
            for (unsigned i = 0; i < batch; i++)
                ASSERT_EQ(recv(ep).data, pattern(10 + i * 13, batch * 100 + i));
            ASSERT_EQ(recv(ep).rc, EAGAIN);
        }
    }
}

TEST(AdapterReceive, AdapterTimestamps_WithinATickOfTheWiresTime)
{
    for (uint64_t mask : {UINT64_C(0), UINT64_C(0xffffffffff)}) {
        for (int64_t drift : {INT64_C(0), INT64_C(50000), INT64_C(-50000)}) {
            Wire wire([&](softnic_board_config_t &config) {
                config.clock_ticks_mask = mask;
                config.clock_drift_ppb = drift;
                config.clock_first_ticks = 0x123456789;
            });
            Endpoint ep(RUK_OPEN_HW_TIMESTAMPING);
            const uint16_t port = ep.port_of(ep.bind());
            std::mt19937 random(11);
            uint64_t before = 0;
            for (int i = 0; i < 2000; i++) {
                softnic_advance(wire.nic, random() % 10000000);
                wire.inject(frame_for(port, pattern(50)));
                softnic_run(wire.nic);
                Got got = recv(ep);
                ASSERT_EQ(got.rc, 0);
                const int64_t off = static_cast<int64_t>(got.info.timestamp - softnic_now(wire.nic));
                ASSERT_LE(off < 0 ? -off : off, 20) << "mask " << mask << ", drift " << drift << ", frame " << i;
                ASSERT_GE(got.info.timestamp, before);
                before = got.info.timestamp;
            }
        }
    }
}

TEST(AdapterReceive, HardwareOrderWriter_ReceiverThreadWaitsForTheEventsLastByte)
{
    Wire wire([](softnic_board_config_t &config) { config.hardware_order = 1; });
    Endpoint ep(RUK_OPEN_THREAD_SAFE);
    const uint16_t port = ep.port_of(ep.bind());
    for (int i = 0; i < 20; i++) {
        softnic_hold_events(wire.nic, 0, 0, 1);
        wire.inject(frame_for(port, pattern(1000, static_cast<unsigned>(i))));
        softnic_run(wire.nic);
        ASSERT_EQ(ruk_raw_recv_peek(ep.dev), 0); /* visible */
        Got got;
        bool done = false;
        std::thread receiver([&] {
            got = recv(ep, RUK_RECV_DEFAULT);
            __atomic_store_n(&done, true, __ATOMIC_RELEASE);
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        EXPECT_FALSE(__atomic_load_n(&done, __ATOMIC_ACQUIRE));
        softnic_hold_events(wire.nic, 0, 0, 0);
        softnic_run(wire.nic);
        receiver.join();
        ASSERT_EQ(got.rc, 0);
        ASSERT_EQ(got.data, pattern(1000, static_cast<unsigned>(i)));
    }
}

TEST(AdapterReceive, SleepingThread_WokenByTheDescriptorAndByShutdown)
{
    Wire wire;
    Endpoint ep(RUK_OPEN_THREAD_SAFE);
    const uint16_t port = ep.port_of(ep.bind());
    LibcHookGuard hooks;
    unsigned sleeps = 0;
    hooks->poll = [&](pollfd *fds, nfds_t n, int timeout) {
        __atomic_add_fetch(&sleeps, 1, __ATOMIC_SEQ_CST);
        return real::poll(fds, n, timeout > 2 ? 2 : timeout); /* a second in two milliseconds */
    };
    Got got;
    std::thread sleeper([&] { got = recv(ep, RUK_RECV_BLOCK); });
    while (__atomic_load_n(&sleeps, __ATOMIC_SEQ_CST) < 3)
        std::this_thread::yield();
    wire.inject(frame_for(port, text("wake")));
    softnic_run(wire.nic);
    sleeper.join();
    EXPECT_EQ(got.data, text("wake"));

    softnic_run(wire.nic); /* what was consumed is seen: the descriptor is quiet again */
    __atomic_store_n(&sleeps, 0u, __ATOMIC_SEQ_CST);
    std::thread again([&] { got = recv(ep, RUK_RECV_BLOCK); });
    while (__atomic_load_n(&sleeps, __ATOMIC_SEQ_CST) < 3)
        std::this_thread::yield();
    EXPECT_EQ(ruk_shutdown(ep.dev, 0), 0);
    again.join();
    EXPECT_EQ(got.rc, EINTR);
}

TEST(AdapterReceive, CloseWhileOneSleeps_TheSleeperFinishesIt)
{
    Wire wire;
    Endpoint ep(RUK_OPEN_THREAD_SAFE);
    const uint16_t port = ep.port_of(ep.bind());
    LibcHookGuard hooks;
    hooks->poll = [&](pollfd *fds, nfds_t n, int) {
        EXPECT_EQ(ruk_close(ep.dev), 0);
        EXPECT_EQ(softnic_claimed(wire.nic, 0), 1u);
        wire.inject(frame_for(port, text("late")));
        softnic_run(wire.nic);
        return real::poll(fds, n, 1000);
    };
    EXPECT_EQ(recv(ep, RUK_RECV_BLOCK).rc, ENXIO);
    EXPECT_EQ(softnic_claimed(wire.nic, 0), 0u);
    ep.dev = nullptr;
}

TEST(AdapterReceive, Broadcast_DeliveredOnItsEntry)
{
    Wire wire;
    Endpoint ep;
    ruk_channel_t chan = ep.bind(0, RUK_BIND_BROADCAST);
    const uint16_t port = ep.port_of(chan);
    UdpFrame frame = frame_for(port, text("b"));
    frame.dst = 0xffffffff;
    wire.inject(frame);
    softnic_run(wire.nic);
    Got got = recv(ep);
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(got.info.chan, chan);
    EXPECT_EQ(got.info.sin_to.sin_addr.s_addr, 0xffffffffu);
}

TEST(AdapterReceive, SourceMembership_OneSourceDeliveredTheOtherFiltered)
{
    Wire wire;
    Endpoint ep;
    ruk_channel_t chan = ep.bind();
    const uint16_t port = ep.port_of(chan);
    in_addr group = {htonl(GROUP)}, source = {htonl(PEER)};
    ASSERT_EQ(ruk_mcast_join_source(chan, &group, &source), 0);
    UdpFrame frame = frame_for(port, text("g"));
    frame.dst = GROUP;
    wire.inject(frame);
    frame.src = PEER + 1;
    wire.inject(frame);
    softnic_run(wire.nic);
    Got got = recv(ep);
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(got.info.chan, chan);
    EXPECT_EQ(ntohl(got.info.sin_from.sin_addr.s_addr), PEER);
    EXPECT_EQ(recv(ep).rc, EAGAIN);
    StreamCapture streams;
    ruk_dump_stats(ep.dev, 1);
    EXPECT_EQ(streams.out(), "\tdropped_badfilter =            1\n");
}

/* A group that no channel has joined is nobody's, but an endpoint may ask for every group. */
TEST(AdapterReceive, AllmultiSetAndTakenBack_GroupNotJoined_DeliveredOnlyMeanwhile)
{
    Wire wire;
    Endpoint ep;
    ruk_channel_t chan = ep.bind();
    const uint16_t port = ep.port_of(chan);
    unsigned serial = 0;
    const auto group_frame_gets = [&](int rc) {
        UdpFrame frame = frame_for(port, pattern(30, ++serial));
        frame.dst = GROUP;
        Bytes bytes = frame.bytes();
        const Bytes group_mac = {0x01, 0x00, 0x5e, 0x01, 0x02, 0x03};
        std::copy(group_mac.begin(), group_mac.end(), bytes.begin());
        bytes.resize(bytes.size() - 4); /* the adapter appends the check sequence itself */
        wire.inject_raw(bytes);
        softnic_run(wire.nic);
        const Got got = recv(ep);
        ASSERT_EQ(got.rc, rc) << serial;
        if (rc != 0)
            return;
        EXPECT_EQ(got.data, frame.payload);
        EXPECT_EQ(got.info.chan, nullptr);
        EXPECT_EQ(ntohl(got.info.sin_to.sin_addr.s_addr), GROUP);
        EXPECT_EQ(ntohs(got.info.sin_to.sin_port), port);
        EXPECT_EQ(ntohl(got.info.sin_from.sin_addr.s_addr), PEER);
    };
    group_frame_gets(EAGAIN);
    ASSERT_EQ(ruk_set_filter_mode(ep.dev, RUK_RECV_FILTER_ALLMULTI), 0);
    group_frame_gets(0);
    UdpFrame other = frame_for(static_cast<uint16_t>(port + 1), pattern(30)); /* to the host's own address */
    wire.inject(other);
    softnic_run(wire.nic);
    EXPECT_EQ(recv(ep).rc, EAGAIN);
    ASSERT_EQ(ruk_set_filter_mode(ep.dev, RUK_RECV_FILTER_NORMAL), 0);
    group_frame_gets(EAGAIN);
    EXPECT_EQ(wire.counters().steered, 1u);
}

/* A plain join or a bind takes over what source its entry had: only that source gets through. */
TEST(AdapterReceive, EntryOfAFormerSourceMembership_PlainJoinAndBindHearThatSourceAlone)
{
    for (bool binds : {false, true}) {
        Wire wire;
        Endpoint ep;
        ruk_channel_t chan = ep.bind();
        const in_addr former = {htonl(GROUP)}, group = {htonl(GROUP + 1)}, source = {htonl(PEER)};
        ASSERT_EQ(ruk_mcast_join_source(chan, &former, &source), 0); /* tag 1 */
        ASSERT_EQ(ruk_mcast_leave_source(chan, &former, &source), 0);
        for (int i = 0; i < 126; i++) { /* the block's other entries, which are older */
            struct ruk__tag_entry *entry = nullptr;
            ASSERT_EQ(ruk__get_tag_entry(ep.dev, 0, 0, 0, &entry), 0);
        }
        UdpFrame frame = frame_for(0, pattern(20));
        if (binds) {
            chan = ep.bind();
        } else {
            ASSERT_EQ(ruk_mcast_join(chan, &group, nullptr), 0);
            frame.dst = GROUP + 1;
        }
        frame.dport = ep.port_of(chan);
        frame.src = PEER + 1;
        wire.inject(frame);
        softnic_run(wire.nic);
        EXPECT_EQ(recv(ep).rc, EAGAIN) << "another source";
        EXPECT_EQ(ep.dev->rep_stats.dropped_badfilter, 1u);
        frame.src = PEER;
        wire.inject(frame);
        softnic_run(wire.nic);
        const Got got = recv(ep);
        EXPECT_EQ(got.rc, 0);
        EXPECT_EQ(got.info.chan, chan);
        EXPECT_EQ(ep.dev->rep_stats.dropped_badfilter, 1u);
    }
}

TEST(AdapterReceive, UnboundWithDatagramsWaiting_TheyAreDroppedAndTheTagRests)
{
    Wire wire;
    Endpoint ep;
    ruk_channel_t gone = ep.bind();
    const uint16_t port = ep.port_of(gone);
    for (int i = 0; i < 3; i++)
        wire.inject(frame_for(port, text("stale")));
    softnic_run(wire.nic);
    EXPECT_EQ(ruk_unbind(gone), 0);
    ruk_channel_t next = ep.bind(port);
    wire.inject(frame_for(port, text("fresh")));
    softnic_run(wire.nic);
    Got got = recv(ep);
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(got.info.chan, next);
    EXPECT_EQ(got.data, text("fresh"));
    StreamCapture streams;
    ruk_dump_stats(ep.dev, 1);
    EXPECT_EQ(streams.out(), "\tdropped_nosock =            3\n");
}

TEST(AdapterReceive, RawMode_EveryFrameBothWays)
{
    Wire wire;
    Endpoint ep;
    ASSERT_EQ(ruk_set_filter_mode(ep.dev, RUK_RECV_FILTER_RAW), 0);
    const Bytes arp = Bytes(6, 0xff) + Bytes(6, 2) + be16(0x0806) + pattern(46);
    wire.inject_raw(arp);
    wire.inject_raw(arp);
    softnic_run(wire.nic);
    Got got = recv(ep);
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(got.info.chan, nullptr);
    EXPECT_EQ(got.info.msg_len, arp.size() + 2); /* with the check sequence, less two */
    EXPECT_EQ(Bytes(got.data.begin(), got.data.begin() + static_cast<long>(arp.size())), arp);
    uint8_t buf[2048];
    size_t len = 0;
    EXPECT_EQ(ruk_raw_recv_peek(ep.dev), 0);
    EXPECT_EQ(ruk_raw_recv(ep.dev, RUK_RECV_DEFAULT, buf, &len, nullptr), 0);
    EXPECT_EQ(len, arp.size() + 4);
    EXPECT_EQ(Bytes(buf, buf + arp.size()), arp);
    EXPECT_EQ(ruk_raw_recv_peek(ep.dev), EAGAIN);
}

TEST(AdapterReceive, DisabledEndpoint_EinvalUntilEnabled)
{
    Wire wire;
    Endpoint ep(RUK_OPEN_DISABLED);
    EXPECT_EQ(recv(ep).rc, EINVAL);
    EXPECT_EQ(ruk_raw_recv_peek(ep.dev), EINVAL);
    EXPECT_EQ(ruk_device_enable(ep.dev), 0);
    EXPECT_EQ(recv(ep).rc, EAGAIN);
    const uint16_t port = ep.port_of(ep.bind());
    wire.inject(frame_for(port, text("x")));
    softnic_run(wire.nic);
    EXPECT_EQ(recv(ep).data, text("x"));
}

TEST(AdapterReceive, SmallRingOverfed_EveryFrameAccountedFor)
{
    Wire wire([](softnic_board_config_t &config) { config.recvq_size = 16384; });
    Endpoint ep;
    const uint16_t port = ep.port_of(ep.bind());
    std::mt19937 random(3);
    uint64_t sent = 0, delivered = 0;
    unsigned next = 0;
    for (int round = 0; round < 400; round++) {
        for (unsigned n = random() % 60; n != 0; n--, sent++)
            wire.inject(frame_for(port, be32(sent) + pattern(random() % 1000)));
        softnic_run(wire.nic);
        for (unsigned n = random() % 60; n != 0; n--) {
            Got got = recv(ep);
            if (got.rc == EAGAIN)
                break;
            ASSERT_EQ(got.rc, 0);
            const unsigned number =
                static_cast<unsigned>(got.data[0]) << 24 | got.data[1] << 16 | got.data[2] << 8 | got.data[3];
            ASSERT_GE(number, next); /* in order, with gaps where the ring was full */
            next = number + 1;
            delivered++;
        }
    }
    softnic_run(wire.nic);
    while (recv(ep).rc == 0)
        delivered++;
    const softnic_endpoint_counters_t c = wire.counters();
    EXPECT_GT(c.ring_full, 100u);
    EXPECT_EQ(c.bad_flow, 0u);
    EXPECT_EQ(sent, delivered + c.ring_full);
    EXPECT_EQ(c.delivered, delivered);
}

TEST(AdapterReceive, ManyChannelsAndStrangers_EachDatagramOnItsChannel)
{
    Wire wire;
    Endpoint ep;
    std::map<uint16_t, ruk_channel_t> channels;
    for (int i = 0; i < 200; i++) {
        ruk_channel_t chan = ep.bind();
        channels[ep.port_of(chan)] = chan;
    }
    std::vector<uint16_t> ports;
    for (const auto &[port, chan] : channels)
        ports.push_back(port);
    std::mt19937 random(99);
    std::deque<UdpFrame> expected;
    for (int round = 0; round < 3000; round++) {
        for (unsigned n = random() % 8; n != 0; n--) {
            UdpFrame frame = frame_for(ports[random() % ports.size()], pattern(random() % 300, random()));
            frame.sport = static_cast<uint16_t>(random());
            if (random() % 4 == 0)
                frame.dport = static_cast<uint16_t>(random()); /* most likely nobody's */
            if (random() % 10 == 0)
                frame.dst = PEER;
            wire.inject(frame);
            if (frame.dst == HOST && channels.count(frame.dport))
                expected.push_back(frame);
        }
        softnic_run(wire.nic);
        while (!expected.empty()) {
            Got got = recv(ep);
            ASSERT_EQ(got.rc, 0);
            ASSERT_EQ(got.info.chan, channels[expected.front().dport]);
            ASSERT_EQ(got.data, expected.front().payload);
            ASSERT_EQ(ntohs(got.info.sin_from.sin_port), expected.front().sport);
            expected.pop_front();
        }
        ASSERT_EQ(recv(ep).rc, EAGAIN);
    }
}

/* ------------------------------------------------------------------ behind a switch */

TEST(AdapterReceive, BehindASwitch_DatedFromTheKeyframe)
{
    ScopedEnv enable("OXEL_ARISTA_ENABLE_TIMESTAMPING", "1");
    ScopedEnv ptp("OXEL_ARISTA_PARAM_KF_CHECK_PTP", "0");
    Wire wire([](softnic_board_config_t &config) { config.trailer_on_wire = 1; });
    Endpoint ep;
    const uint16_t port = ep.port_of(ep.bind());
    UdpFrame frame = frame_for(port, text("payload"));
    auto stamped = [&](uint32_t stamp) {
        frame.trailer = (stamp & 0x7fffff80) << 1 | (stamp & 0x7f);
        wire.inject_raw(frame.bytes());
        softnic_run(wire.nic);
        return recv(ep);
    };
    Got got = stamped(1000);
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(got.info.timestamp, 0u); /* no keyframe yet */

    UdpFrame keyframe;
    Bytes bytes = keyframe.bytes();
    bytes.resize(14);
    bytes = bytes + Bytes{0x45, 0} + be16(66) + be32(0) + Bytes{64, 253} + be16(0) + be32(PEER) + be32(0x01010100);
    bytes = bytes + be64(1000) + be64(START) + be64(1) + be64(0) + be64(0) + be32(0) + Bytes{1, 0} + be32(0);
    ASSERT_EQ(bytes.size(), 84u);
    wire.inject_raw(bytes);
    softnic_run(wire.nic);
    EXPECT_EQ(recv(ep).rc, EAGAIN); /* absorbed */

    got = stamped(1000 + 7);
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(got.info.timestamp, START + 20);
    EXPECT_EQ(got.data, text("payload"));
    got = stamped(1000 + 350000);
    EXPECT_EQ(got.info.timestamp, START + 1000000);
}
