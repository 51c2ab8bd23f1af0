/* The reader of the event ring: what it makes of an event's bytes, and what it leaves behind. */
#include "recv_rig.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>
#include <random>
#include <thread>

using namespace recv_rig;

namespace {

struct Parsed {
    std::vector<ruk__evpacket> packets;
};

/* Parses the event at the head and returns its packets by following the links. */
Parsed parse(RigEndpoint &rig)
{
    Parsed parsed;
    for (ruk__evpacket *p = ruk__eventq_process_uevt(rig.ep, &rig.ep->rep_eventq); p; p = p->evp_next)
        parsed.packets.push_back(*p);
    return parsed;
}

ruk__event_state &state(RigEndpoint &rig) { return rig.ep->rep_eventq.evq_recvq_state; }

std::vector<Packet> packets_of(const std::vector<size_t> &lengths)
{
    std::vector<Packet> packets;
    uint16_t tag = 100;
    for (size_t length : lengths)
        packets.push_back({pattern(length, tag), tag++});
    return packets;
}

/* Parses and consumes the event at the head. */
void consume_event(RigEndpoint &rig)
{
    for (size_t n = parse(rig).packets.size(); n != 0; n--)
        ruk__eventq_advance(&rig.ep->rep_eventq);
}

} // namespace

/* ------------------------------------------------------------------ parsing */

TEST(EventParse, LiteralEvent_Parsed_FieldsAsInTheBytes)
{
    RigEndpoint rig;
    rig.ep->rep_timestamping_enabled = 1;
    rig.clock_is_ticks();
    const uint8_t event[192] = {
        0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08,                         /* ticks */
        0x00, 0x3c, 0x00, 0x07,                                                 /* 60 bytes, tag 7 */
        0x00, 0x0e, 0x0f, 0x7f,                                                 /* 14 bytes, tag 3967 */
        0xaa, 0xaa, 0xaa, 0xaa, 0xbb, 0xbb, 0xbb, 0xbb, 0xcc, 0xcc, 0xcc, 0xcc, /* not valid */
        0x00, 0xc0,                                                             /* 192 bytes */
        0x02,                                                                   /* two packets */
        0x20,                                                                   /* the first slot at 32 */
    };
    for (size_t i = 0; i < sizeof event; i++)
        rig.ring.at(i) = event[i];
    memset(state(rig).evs_pkts, 0x77, sizeof state(rig).evs_pkts);

    ruk__evpacket *first = ruk__eventq_process_uevt(rig.ep, &rig.ep->rep_eventq);
    ASSERT_EQ(first, &state(rig).evs_pkts[0]);
    EXPECT_EQ(state(rig).evs_pkt_cur, first);
    EXPECT_EQ(state(rig).evs_length, 192);
    EXPECT_EQ(state(rig).evs_pkt_cnt, 2);
    EXPECT_EQ(state(rig).evs_length_pkts, 60 + 4 + 14 + 4);
    EXPECT_EQ(state(rig).evs_timestamp, 0x0102030405060708u);
    const ruk__evpacket *second = first->evp_next;
    ASSERT_EQ(second, &state(rig).evs_pkts[1]);
    EXPECT_EQ(second->evp_next, nullptr);
    EXPECT_EQ(first->pkt, rig.ring.base() + 40);
    EXPECT_EQ(first->length, 60);
    EXPECT_EQ(first->tag, 7);
    EXPECT_EQ(first->offset, 0);
    EXPECT_EQ(first->nfrags, 0);
    EXPECT_EQ(second->pkt, rig.ring.base() + 32 + 80 + 8); /* (60 + 27) & ~15 = 80 */
    EXPECT_EQ(second->length, 14);
    EXPECT_EQ(second->tag, 3967);
    EXPECT_EQ(second->offset, 64);
    EXPECT_EQ(second->nfrags, 0);
}

TEST(EventParse, EmptySlot_Parsed_Null)
{
    RigEndpoint rig;
    EXPECT_EQ(ruk__eventq_process_uevt(rig.ep, &rig.ep->rep_eventq), nullptr);
    EXPECT_EQ(ruk__eventq_first(rig.ep, &rig.ep->rep_eventq), nullptr);
    EXPECT_EQ(state(rig).evs_pkt_cur, nullptr);
}

TEST(EventParse, OneToFivePackets_Parsed_LinkedInOrder)
{
    for (size_t n = 1; n <= 5; n++) {
        RigEndpoint rig;
        std::vector<size_t> lengths;
        for (size_t i = 0; i < n; i++)
            lengths.push_back(60 + 17 * i);
        auto packets = packets_of(lengths);
        rig.ring.put(packets);
        Parsed parsed = parse(rig);
        ASSERT_EQ(parsed.packets.size(), n);
        unsigned running = 0;
        for (size_t i = 0; i < n; i++) {
            const ruk__evpacket &p = parsed.packets[i];
            EXPECT_EQ(p.length, lengths[i]);
            EXPECT_EQ(p.tag, 100 + i);
            EXPECT_EQ(p.offset, running);
            EXPECT_EQ(Bytes(p.pkt, p.pkt + p.length), packets[i].frame);
            EXPECT_EQ(p.timestamp, 0u);
            running += static_cast<unsigned>(lengths[i]) + 4;
        }
        EXPECT_EQ(state(rig).evs_length_pkts, running);
        EXPECT_EQ(state(rig).evs_pkt_cnt, n);
    }
}

TEST(EventParse, EveryLengthOfTheFirstFrame_SecondFoundBehindIt)
{
    for (size_t length = 1; length <= 200; length++) {
        RigEndpoint rig;
        auto packets = packets_of({length, 33});
        rig.ring.put(packets);
        Parsed parsed = parse(rig);
        ASSERT_EQ(parsed.packets.size(), 2u);
        const uint8_t *second = parsed.packets[1].pkt;
        EXPECT_EQ(Bytes(second, second + 33), packets[1].frame) << length;
        EXPECT_EQ(second - rig.ring.base(), static_cast<ptrdiff_t>(40 + (length + 27) / 16 * 16)) << length;
    }
}

TEST(EventParse, FirstSlotFurtherOn_Parsed_FoundThere)
{
    RigEndpoint rig;
    for (uint8_t offset : {uint8_t{32}, uint8_t{48}, uint8_t{64}, uint8_t{240}}) {
        auto packets = packets_of({64});
        EventOptions options;
        options.offset = offset;
        size_t at = rig.ring.put(packets, options);
        Parsed parsed = parse(rig);
        ASSERT_EQ(parsed.packets.size(), 1u);
        EXPECT_EQ(parsed.packets[0].pkt, rig.ring.base() + at + offset + 8);
        ruk__eventq_advance(&rig.ep->rep_eventq);
    }
}

/* ------------------------------------------------------------------ packet times */

TEST(EventTimes, TimestampingOffAndNoSwitch_Zero)
{
    RigEndpoint rig;
    rig.clock_is_ticks();
    EventOptions options;
    options.ticks = 123456789;
    rig.ring.put(packets_of({60, 60, 60}), options);
    state(rig).evs_timestamp = 99;
    for (const auto &p : parse(rig).packets)
        EXPECT_EQ(p.timestamp, 0u);
    EXPECT_EQ(state(rig).evs_timestamp, 0u);
    EXPECT_EQ(state(rig).evs_timestamp_last, 0u);
}

TEST(EventTimes, OnePacket_LaterOfEventTimeAndLastTime)
{
    RigEndpoint rig;
    rig.ep->rep_timestamping_enabled = 1;
    rig.clock_is_ticks();
    EventOptions options;
    options.ticks = 1000000;
    rig.ring.put(packets_of({60}), options);
    EXPECT_EQ(parse(rig).packets[0].timestamp, 1000000u);
    EXPECT_EQ(state(rig).evs_timestamp_last, 1000000u);
    ruk__eventq_advance(&rig.ep->rep_eventq);

    options.ticks = 999999; /* earlier than the last */
    rig.ring.put(packets_of({60}), options);
    EXPECT_EQ(parse(rig).packets[0].timestamp, 1000000u);
    EXPECT_EQ(state(rig).evs_timestamp_last, 1000000u);
    EXPECT_EQ(state(rig).evs_timestamp, 999999u);
}

TEST(EventTimes, Batch_DatedBackOneNanosecondAByte)
{
    RigEndpoint rig;
    rig.ep->rep_timestamping_enabled = 1;
    rig.clock_is_ticks();
    EventOptions options;
    options.ticks = 1000000;
    rig.ring.put(packets_of({60, 100, 200}), options);
    Parsed parsed = parse(rig);
    /* 64 + 104 + 204 = 372 bytes in all; the last packet's time is the event's less the 4 bytes after it */
    EXPECT_EQ(parsed.packets[0].timestamp, 1000000u - 372 + 200);
    EXPECT_EQ(parsed.packets[1].timestamp, 1000000u - 372 + 200 + 64);
    EXPECT_EQ(parsed.packets[2].timestamp, 1000000u - 372 + 200 + 168);
    EXPECT_EQ(state(rig).evs_timestamp_last, 1000000u - 4);
}

TEST(EventTimes, BatchThatWouldGoBack_FlattenedToTheLastTime)
{
    RigEndpoint rig;
    rig.ep->rep_timestamping_enabled = 1;
    rig.clock_is_ticks();
    EventOptions options;
    options.ticks = 1000000;
    rig.ring.put(packets_of({60, 60, 60}), options);
    state(rig).evs_timestamp_last = 999900;
    Parsed parsed = parse(rig); /* 999868, 999932, 999996 */
    EXPECT_EQ(parsed.packets[0].timestamp, 999900u);
    EXPECT_EQ(parsed.packets[1].timestamp, 999932u);
    EXPECT_EQ(parsed.packets[2].timestamp, 999996u);
    EXPECT_EQ(state(rig).evs_timestamp_last, 999996u);
    for (int i = 0; i < 3; i++)
        ruk__eventq_advance(&rig.ep->rep_eventq);

    options.ticks = 999000;
    rig.ring.put(packets_of({60, 60}), options);
    for (const auto &p : parse(rig).packets)
        EXPECT_EQ(p.timestamp, 999996u);
    EXPECT_EQ(state(rig).evs_timestamp_last, 999996u);
}

/* ------------------------------------------------------------------ keyframe candidates */

TEST(KeyframeMark, EveryHeaderKind_MarkedExactlyWhenProtocol253)
{
    struct Case {
        const char *what;
        Bytes after_addresses; /* from the EtherType on */
        bool candidate;
    };
    auto ipv4 = [](uint8_t protocol) { return Bytes{0x45, 0, 0, 0, 0, 0, 0, 0, 64, protocol}; };
    auto ipv6 = [](uint8_t next) { return Bytes{0x60, 0, 0, 0, 0, 0, next, 64, 0, 0}; };
    const Case cases[] = {
        {"IPv4 253", be16(0x0800) + ipv4(253), true},
        {"IPv4 252", be16(0x0800) + ipv4(252), false},
        {"IPv4 17", be16(0x0800) + ipv4(17), false},
        {"IPv6 253", be16(0x86dd) + ipv6(253), true},
        {"IPv6 17", be16(0x86dd) + ipv6(17), false},
        {"IPv4 with 253 where IPv6 has it", be16(0x0800) + Bytes{0x45, 0, 0, 0, 0, 0, 253, 0, 64, 17}, false},
        {"IPv6 with 253 where IPv4 has it", be16(0x86dd) + Bytes{0x60, 0, 0, 0, 0, 0, 17, 64, 0, 253}, false},
        {"ARP", be16(0x0806) + ipv4(253), false},
        {"tagged IPv4 253", be16(0x8100) + be16(5) + be16(0x0800) + ipv4(253), true},
        {"tagged IPv4 17", be16(0x8100) + be16(5) + be16(0x0800) + ipv4(17), false},
        {"tagged IPv6 253", be16(0x8100) + be16(5) + be16(0x86dd) + ipv6(253), true},
        {"tagged ARP", be16(0x8100) + be16(5) + be16(0x0806) + ipv4(253), false},
        {"tagged twice", be16(0x8100) + be16(5) + be16(0x8100) + be16(6) + be16(0x0800) + ipv4(253), false},
    };
    for (unsigned status = ARISTA_STATUS_DISABLED; status <= ARISTA_STATUS_NEED_KEYFRAME; status++) {
        for (const Case &c : cases) {
            RigEndpoint rig;
            rig.ep->arista_control.arct_status = static_cast<arista_tsp_status>(status);
            rig.ring.put({{Bytes(12, 2) + c.after_addresses + Bytes(60, 0), 1}});
            Parsed parsed = parse(rig);
            const bool marked = parsed.packets[0].timestamp == UINT64_MAX;
            EXPECT_EQ(marked, c.candidate && status != ARISTA_STATUS_DISABLED) << c.what << ", status " << status;
        }
    }
}

TEST(KeyframeMark, HeaderAcrossTheRingsEnd_StillRecognised)
{
    UdpFrame keyframe;
    keyframe.protocol = 253;
    keyframe.payload = Bytes(50, 0);
    UdpFrame ordinary = keyframe;
    ordinary.protocol = 17;
    for (uint8_t offset = 32; offset <= 240; offset = static_cast<uint8_t>(offset + (offset == 240 ? 1 : 8))) {
        for (bool marked : {true, false}) {
            RigEndpoint::Options options;
            options.ring = 512;
            RigEndpoint rig(options);
            rig.ep->arista_control.arct_status = ARISTA_STATUS_INITED;
            rig.ring.put({{Bytes(270, 1), 0}});
            consume_event(rig);
            ASSERT_EQ(rig.ring.position(), 320u); /* 192 bytes before the end */
            EventOptions event;
            event.offset = offset;
            rig.ring.put({{marked ? keyframe.bytes() : ordinary.bytes(), 0}}, event);
            EXPECT_EQ(parse(rig).packets[0].timestamp == UINT64_MAX, marked) << unsigned{offset};
        }
    }
}

TEST(KeyframeMark, AdapterTimestampsOnBelowActive_OrdinaryTime)
{
    for (auto status : {ARISTA_STATUS_INITED, ARISTA_STATUS_CHANGEDMODE, ARISTA_STATUS_FALLBACK_LOCAL}) {
        RigEndpoint rig;
        rig.ep->rep_timestamping_enabled = 1;
        rig.clock_is_ticks();
        rig.ep->arista_control.arct_status = status;
        UdpFrame keyframe;
        keyframe.protocol = 253;
        EventOptions options;
        options.ticks = 777;
        rig.ring.put({{keyframe.bytes(), 0}}, options);
        EXPECT_EQ(parse(rig).packets[0].timestamp, 777u) << status;
    }
}

TEST(KeyframeMark, EventTimeZeroWithTimestampingOn_MarkStays)
{
    RigEndpoint rig;
    rig.ep->rep_timestamping_enabled = 1;
    rig.clock_is_ticks();
    rig.ep->arista_control.arct_status = ARISTA_STATUS_INITED;
    UdpFrame keyframe;
    keyframe.protocol = 253;
    rig.ring.put({{keyframe.bytes(), 0}, {udp_frame("x"), 0}}); /* ticks 0 */
    Parsed parsed = parse(rig);
    EXPECT_EQ(parsed.packets[0].timestamp, UINT64_MAX);
    EXPECT_EQ(parsed.packets[1].timestamp, 0u);
}

/* ------------------------------------------------------------------ completion */

namespace {
RigEndpoint *trap_rig;
uint8_t trap_seen[8];
} // namespace

TEST(EventCompletion, HeaderChangedBeforeTheLastByte_OldHeaderCounts)
{
    RigEndpoint rig;
    rig.ring.put({{Bytes(3988, 1), 0}});
    consume_event(rig);
    ASSERT_EQ(rig.ring.position(), 4032u);
    EventOptions options;
    options.complete = false;
    options.extra_slots = 2; /* header and frame in the first page, the last byte in the second */
    rig.ring.put({{Bytes(20, 7), 9}}, options);
    ASSERT_EQ(rig.ring.last_length(), 192u);
    trap_rig = &rig;
    /* The library touches the second page for the completion byte alone. */
    PageTrap trap(rig.ring.base() + 4096, [] {
        trap_rig->ring.at(4032 + 9) = 99;  /* the packet's length */
        trap_rig->ring.at(4032 + 11) = 99; /* its tag */
        trap_rig->ring.at(4032 + 30) = 5;  /* packets */
        trap_rig->ring.complete();
    });
    Parsed parsed = parse(rig);
    EXPECT_TRUE(trap.sprung());
    ASSERT_EQ(parsed.packets.size(), 1u);
    EXPECT_EQ(parsed.packets[0].length, 20);
    EXPECT_EQ(parsed.packets[0].tag, 9);
}

namespace {

/* Puts an event of that many datagrams for tag 9 whose last byte alone lies in the ring's second page. */
void put_across_pages(RigEndpoint &rig, unsigned howmany, const EventOptions &ticks = {})
{
    rig.ring.put({{Bytes(3860, 1), 0}});
    consume_event(rig);
    ASSERT_EQ(rig.ring.position(), 3904u);
    EventOptions options = ticks;
    options.complete = false;
    options.extra_slots = 3;
    UdpFrame frame;
    frame.payload = pattern(5);
    rig.ring.put(std::vector<Packet>(howmany, {frame.bytes(), 9}), options);
    ASSERT_GT(rig.ring.last_length(), 192u);
}

/* With locks it is another thread that has to wait; here the state is as it leaves it. */
void close_in_trap()
{
    if (trap_rig->ep->rep_rx_lockp)
        trap_rig->ep->rep_state = REP_STATE_CLOSING;
    else
        trap_seen[0] = static_cast<uint8_t>(trap_rig->close());
    trap_seen[1] = trap_rig->closed();
    trap_seen[2] = static_cast<uint8_t>(trap_rig->ep->rep_state);
}

} // namespace

/* The receive call's own quick ways keep that order, too. */
TEST(EventCompletion, HeaderChangedBeforeTheLastByte_ReceivedByTheOldHeader)
{
    for (unsigned packets : {1u, 2u})
        for (Dating timestamping : {Dating::off, Dating::window, Dating::own_parameters})
            for (bool locks : {false, true}) {
                Scoped<uint32_t> api(ruk__api_version, 2);
                RigEndpoint::Options settings;
                settings.locks = locks;
                RigEndpoint rig(settings);
                ruk__channel *chan = rig.bind(9, 0x0a4d0001, 5000);
                rig.date_by(timestamping);
                EventOptions ticks;
                ticks.ticks = 0x01020304;
                put_across_pages(rig, packets, ticks);
                const size_t length = rig.ring.last_length();
                trap_rig = &rig;
                PageTrap trap(rig.ring.base() + 4096, [] {
                    for (size_t at : {4u, 5u, 6u, 7u, 8u, 9u, 11u, 12u, 13u, 15u, 28u, 29u, 30u, 31u})
                        trap_rig->ring.at(3904 + at) = 1;         /* time, lengths, tags, event's length, packets */
                    trap_rig->ring.at(3904 + 32 + 8 + 42) = 0x5a; /* the first payload, which comes late */
                    trap_rig->ring.complete();
                });
                for (unsigned n = 0; n < packets; n++) {
                    Received got = rig.recv();
                    EXPECT_EQ(got.rc, 0);
                    EXPECT_EQ(got.info.chan, chan);
                    if (n == 0)
                        EXPECT_EQ(got.data.at(0), 0x5a);
                    if (packets == 1)
                        EXPECT_EQ(got.info.timestamp, timestamping != Dating::off ? 0x01020304u : 0u);
                }
                EXPECT_TRUE(trap.sprung());
                EXPECT_EQ(rig.ep->rep_eventq.evq_recvq_offset, (3904 + length) % 8192)
                    << packets << static_cast<int>(timestamping);
            }
}

TEST(EventCompletion, ClosedWhileTheReceiverWaitsForTheLastByte_DeliveredThenClosed)
{
    for (unsigned packets : {1u, 2u})
        for (Dating timestamping : {Dating::off, Dating::window, Dating::own_parameters})
            for (bool locks : {false, true}) {
                RigEndpoint::Options settings;
                settings.locks = locks;
                RigEndpoint rig(settings);
                rig.bind(9, 0x0a4d0001, 5000);
                rig.date_by(timestamping);
                put_across_pages(rig, packets);
                trap_rig = &rig;
                PageTrap trap(rig.ring.base() + 4096, [] {
                    close_in_trap();
                    trap_rig->ring.complete();
                });
                Received got = rig.recv();
                ASSERT_TRUE(trap.sprung());
                EXPECT_EQ(trap_seen[0], 0);
                EXPECT_EQ(trap_seen[1], 0) << "closed under the receiver";
                EXPECT_EQ(trap_seen[2], REP_STATE_CLOSING);
                EXPECT_EQ(got.rc, 0);
                EXPECT_EQ(Bytes(got.data.begin(), got.data.begin() + 5), pattern(5));
                EXPECT_TRUE(rig.closed()) << packets << static_cast<int>(timestamping) << locks;
            }
}

/* A receiver is inside from before it looks at the clock, and with each packet of an event anew. */
TEST(EventCompletion, ClosedWhileTheClockIsRead_DeliveredThenClosed)
{
    for (bool locks : {false, true}) {
        RigEndpoint::Options settings;
        settings.locks = locks;
        RigEndpoint rig(settings);
        rig.bind(9, 0x0a4d0001, 5000);
        rig.date_by(Dating::own_parameters);
        UdpFrame frame;
        frame.payload = pattern(5);
        rig.ring.put({{frame.bytes(), 9}});
        trap_rig = &rig;
        const auto window = reinterpret_cast<uintptr_t>(rig.window_memory.data());
        PageTrap trap(reinterpret_cast<void *>(window & ~uintptr_t{4095}), close_in_trap);
        Received got = rig.recv();
        ASSERT_TRUE(trap.sprung());
        EXPECT_EQ(trap_seen[1], 0) << "closed under the receiver";
        EXPECT_EQ(trap_seen[2], REP_STATE_CLOSING);
        EXPECT_EQ(got.rc, 0);
        EXPECT_TRUE(rig.closed()) << locks;
    }
}

TEST(EventCompletion, ClosedWhileTheSecondPacketIsRead_DeliveredThenClosed)
{
    for (bool locks : {false, true}) {
        RigEndpoint::Options settings;
        settings.locks = locks;
        RigEndpoint rig(settings);
        rig.bind(9, 0x0a4d0001, 5000);
        rig.ring.put({{Bytes(3732, 1), 0}});
        consume_event(rig);
        UdpFrame frame;
        frame.payload = pattern(300);
        rig.ring.put({{frame.bytes(), 9}, {frame.bytes(), 9}}); /* the second one in the next page */
        EXPECT_EQ(rig.recv().rc, 0);
        trap_rig = &rig;
        PageTrap trap(rig.ring.base() + 4096, close_in_trap);
        Received got = rig.recv();
        ASSERT_TRUE(trap.sprung());
        EXPECT_EQ(trap_seen[1], 0) << "closed under the receiver";
        EXPECT_EQ(trap_seen[2], REP_STATE_CLOSING);
        EXPECT_EQ(got.rc, 0);
        EXPECT_EQ(Bytes(got.data.begin(), got.data.begin() + 300), pattern(300));
        EXPECT_TRUE(rig.closed()) << locks;
    }
}

TEST(EventCompletion, LastByteNotZero_ReceiverThreadWaitsUntilItIs)
{
    RigEndpoint rig;
    rig.bind(0, 0x0a4d0001, 5000);
    UdpFrame frame;
    frame.payload = pattern(300);
    EventOptions options;
    options.complete = false;
    rig.ring.put({{frame.bytes(), 0}}, options);
    rig.ring.at(42 + 40 + 299) = 0; /* the frame's last payload byte is late */
    bool returned = false;
    Received got;
    std::thread receiver([&] {
        got = rig.recv(RUK_RECV_DEFAULT);
        __atomic_store_n(&returned, true, __ATOMIC_RELEASE);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_FALSE(__atomic_load_n(&returned, __ATOMIC_ACQUIRE));
    rig.ring.at(42 + 40 + 299) = frame.payload[299];
    rig.ring.complete();
    receiver.join();
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(Bytes(got.data.begin(), got.data.begin() + 300), frame.payload);
}

TEST(EventCompletion, ByteAddress_WrapsAtTheRingsEnd)
{
    RigEndpoint rig;
    const ruk__eventq *evq = &rig.ep->rep_eventq;
    auto uevt = [&](size_t offset) {
        return reinterpret_cast<const volatile nuv_uevt_ruk_t *>(rig.ring.base() + offset);
    };
    EXPECT_EQ(_eventq_crcbyte(evq, uevt(0), 64), rig.ring.base() + 63);
    EXPECT_EQ(_eventq_crcbyte(evq, uevt(8128), 64), rig.ring.base() + 8191);
    EXPECT_EQ(_eventq_crcbyte(evq, uevt(8128), 128), rig.ring.base() + 63);
    EXPECT_EQ(_eventq_crcbyte(evq, uevt(8000), 1024), rig.ring.base() + 831);
    rig.ring.at(8128 + 28) = 0x01; /* length 0: the event's own, 320 */
    rig.ring.at(8128 + 29) = 0x40;
    EXPECT_EQ(_uevt_length(uevt(8128)), 320);
    EXPECT_EQ(_eventq_crcbyte(evq, uevt(8128), 0), rig.ring.base() + 255);
}

TEST(EventCompletion, ClearSlot_OnlyTheTwoBytes)
{
    uint8_t slot[64];
    memset(slot, 0x42, sizeof slot);
    _eventq_clear(slot);
    for (int i = 0; i < 64; i++)
        EXPECT_EQ(slot[i], i == 30 ? 0 : i == 63 ? 0xff : 0x42) << i;
}

/* ------------------------------------------------------------------ handing out and consuming */

TEST(EventFirst, ParsedOnce_SamePacketUntilConsumed)
{
    RigEndpoint rig;
    ruk__eventq *evq = &rig.ep->rep_eventq;
    rig.ring.put(packets_of({60, 61}));
    ruk__evpacket *first = ruk__eventq_first(rig.ep, evq);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->length, 60);
    rig.ring.at(9) = 200; /* the header is not read again */
    EXPECT_EQ(ruk__eventq_first(rig.ep, evq), first);
    EXPECT_EQ(first->length, 60);
    ruk__eventq_advance(evq);
    ruk__evpacket *second = ruk__eventq_first(rig.ep, evq);
    EXPECT_EQ(second, first + 1);
    EXPECT_EQ(second->length, 61);
    ruk__eventq_advance(evq);
    EXPECT_EQ(ruk__eventq_first(rig.ep, evq), nullptr);
    EXPECT_EQ(state(rig).evs_pkt_cur, nullptr);
}

TEST(EventAdvance, PacketsLeft_NothingPublished)
{
    RigEndpoint rig;
    rig.ring.put(packets_of({60, 60, 60}));
    parse(rig);
    const Bytes ring(rig.ring.base(), rig.ring.base() + 8192);
    for (int i = 0; i < 2; i++) {
        ruk__eventq_advance(&rig.ep->rep_eventq);
        EXPECT_EQ(Bytes(rig.ring.base(), rig.ring.base() + 8192), ring);
        EXPECT_EQ(rig.flow32(0), 0u);
        EXPECT_EQ(rig.ep->rep_eventq.evq_recvq_offset, 0u);
    }
    ruk__eventq_advance(&rig.ep->rep_eventq);
    EXPECT_EQ(rig.flow32(0), 1u);
}

TEST(EventAdvance, LastPacket_SlotsFreedAndPositionReported)
{
    RigEndpoint rig;
    memset(rig.flow_memory.data(), 0x99, 128);
    initialize_queues(rig.ep);
    rig.ring.put({{Bytes(1000, 0x42), 0}});
    const size_t length = rig.ring.last_length();
    ASSERT_EQ(length, 1088u);
    Bytes expected(rig.ring.base(), rig.ring.base() + 8192);
    parse(rig);
    ruk__eventq_advance(&rig.ep->rep_eventq);
    for (size_t slot = 0; slot < length; slot += 64) {
        expected[slot + 30] = 0;
        expected[slot + 63] = 0xff;
    }
    EXPECT_EQ(Bytes(rig.ring.base(), rig.ring.base() + 8192), expected); /* and nothing else has changed */
    const ruk__eventq &evq = rig.ep->rep_eventq;
    EXPECT_EQ(evq.evq_recvq_offset, length);
    EXPECT_EQ(evq.evq_recvq_flow, length);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(state(rig).evs_uevt_cur),
              reinterpret_cast<uintptr_t>(rig.ring.base()) + length);
    EXPECT_EQ(rig.flow32(0), 1u);          /* events */
    EXPECT_EQ(rig.flow32(4), 0x99999999u); /* the driver's */
    EXPECT_EQ(rig.flow32(8), 0u);          /* 4 KiB units */
    EXPECT_EQ(rig.flow32(12), 0x99999999u);
    EXPECT_EQ(rig.flow64(16), length);
    for (size_t i = 24; i < 64; i++)
        EXPECT_EQ(rig.flow_memory.data()[i], 0x99);
}

TEST(EventAdvance, EventAcrossTheEnd_ClearedRoundTheCornerAndOffsetWrapped)
{
    RigEndpoint::Options options;
    options.ring = 1024;
    for (size_t slots_before_end = 1; slots_before_end <= 7; slots_before_end++) {
        RigEndpoint rig(options);
        rig.ring.put({{Bytes(1024 - 64 * slots_before_end - 32 - 12, 1), 0}});
        consume_event(rig);
        ASSERT_EQ(rig.ring.position(), 1024 - 64 * slots_before_end);
        const Bytes frame = pattern(430);
        rig.ring.put({{frame, 3}});
        ASSERT_EQ(rig.ring.last_length(), 512u);
        Parsed parsed = parse(rig);
        for (size_t i = 0; i < frame.size(); i++)
            ASSERT_EQ(rig.ring.at(static_cast<size_t>(parsed.packets[0].pkt - rig.ring.base()) + i), frame[i]);
        Bytes expected(rig.ring.base(), rig.ring.base() + 1024);
        ruk__eventq_advance(&rig.ep->rep_eventq);
        for (size_t k = 0; k < 512; k += 64) {
            size_t slot = (1024 - 64 * slots_before_end + k) % 1024;
            expected[slot + 30] = 0;
            expected[slot + 63] = 0xff;
        }
        EXPECT_EQ(Bytes(rig.ring.base(), rig.ring.base() + 1024), expected) << slots_before_end;
        EXPECT_EQ(rig.ep->rep_eventq.evq_recvq_offset, 512 - 64 * slots_before_end);
        EXPECT_EQ(rig.flow64(16), 512 - 64 * slots_before_end);
        EXPECT_EQ(rig.ep->rep_eventq.evq_recvq_flow, 1024 - 64 * slots_before_end + 512);
    }
}

TEST(EventAdvance, EventEndsAtTheEnd_OffsetZero)
{
    RigEndpoint::Options options;
    options.ring = 1024;
    RigEndpoint rig(options);
    rig.ring.put({{Bytes(1024 - 32 - 12, 1), 0}});
    ASSERT_EQ(rig.ring.last_length(), 1024u);
    consume_event(rig);
    EXPECT_EQ(rig.ep->rep_eventq.evq_recvq_offset, 0u);
    EXPECT_EQ(rig.flow64(16), 0u);
    for (size_t slot = 0; slot < 1024; slot += 64) {
        EXPECT_EQ(rig.ring.at(slot + 30), 0);
        EXPECT_EQ(rig.ring.at(slot + 63), 0xff);
    }
}

TEST(EventAdvance, PositionPublished_SlotsAlreadyFree)
{
    RigEndpoint rig;
    trap_rig = &rig;
    rig.ring.put({{Bytes(100, 1), 0}});
    parse(rig);
    PageTrap trap(rig.flow_memory.data(), [] {
        trap_seen[0] = trap_rig->ring.at(30);
        trap_seen[1] = trap_rig->ring.at(63);
        trap_seen[2] = trap_rig->ring.at(64 + 30);
        trap_seen[3] = trap_rig->ring.at(64 + 63);
        trap_seen[4] = trap_rig->ring.at(128 + 63);
    });
    ruk__eventq_advance(&rig.ep->rep_eventq);
    EXPECT_TRUE(trap.sprung());
    EXPECT_EQ(trap_seen[0], 0);
    EXPECT_EQ(trap_seen[1], 0xff);
    EXPECT_EQ(trap_seen[2], 0);
    EXPECT_EQ(trap_seen[3], 0xff);
    EXPECT_EQ(trap_seen[4], 0xff);
}

TEST(EventAdvance, DoorbellRung_FlowWindowAlreadyWritten)
{
    RigEndpoint rig;
    trap_rig = &rig;
    rig.ep->rep_eventq.evq_recvq_flow = 4096 - 64;
    rig.ring.put({{Bytes(20, 1), 0}});
    parse(rig);
    PageTrap trap(rig.sram_memory.data() + 16376, [] {
        trap_seen[0] = static_cast<uint8_t>(trap_rig->flow32(0));
        trap_seen[1] = static_cast<uint8_t>(trap_rig->flow32(8));
        trap_seen[2] = static_cast<uint8_t>(trap_rig->flow64(16));
    });
    ruk__eventq_advance(&rig.ep->rep_eventq);
    EXPECT_TRUE(trap.sprung());
    EXPECT_EQ(trap_seen[0], 1);
    EXPECT_EQ(trap_seen[1], 1);
    EXPECT_EQ(trap_seen[2], 64);
}

TEST(Doorbell, ManyEvents_RungOnlyInTheSecondUnitOfSixteen)
{
    RigEndpoint rig;
    std::mt19937 random(7);
    uint64_t consumed = 0;
    uint32_t events = 0;
    unsigned rung = 0, silent = 0;
    while (consumed < 40 * 65536) {
        memset(rig.sram_memory.data(), 0x31, 16384);
        std::vector<Packet> packets(1 + random() % 5, Packet{Bytes(20 + random() % 300, 2), 0});
        rig.ring.put(packets);
        consume_event(rig);
        consumed += rig.ring.last_length();
        events++;
        ASSERT_EQ(rig.flow32(0), events);
        ASSERT_EQ(rig.flow32(8), consumed / 4096);
        ASSERT_EQ(rig.flow64(16), consumed % 8192);
        const uint64_t end = consumed % 65536;
        Bytes expected(8, 0x31);
        if (end >= 4096 && end < 8192) {
            expected = be32(events) + be32(consumed / 4096);
            rung++;
        } else {
            silent++;
        }
        ASSERT_EQ(rig.doorbell(), expected) << consumed;
        for (size_t i = 0; i < 16376; i++)
            ASSERT_EQ(rig.sram_memory.data()[i], 0x31);
    }
    EXPECT_GT(rung, 100u);
    EXPECT_GT(silent, 1000u);
}

TEST(Doorbell, CountersPast32Bits_LowHalvesReported)
{
    RigEndpoint rig;
    rig.ep->rep_eventq.evq_recvq_flow = (UINT64_C(0x1) << 44) + 4096 - 64; /* units need more than 32 bits */
    uint32_t desc = 0xffffffff;
    memcpy(rig.flow_memory.data(), &desc, 4);
    rig.ring.put({{Bytes(20, 2), 0}});
    consume_event(rig);
    EXPECT_EQ(rig.flow32(0), 0u); /* counted up and round */
    EXPECT_EQ(rig.flow32(8), 1u);
    EXPECT_EQ(rig.flow64(16), 64u);
    EXPECT_EQ(rig.doorbell(), be32(0) + be32(1));
    EXPECT_EQ(rig.ep->rep_eventq.evq_recvq_flow, (UINT64_C(1) << 44) + 4096);
}

/* ------------------------------------------------------------------ counting what is pending */

TEST(EventCount, EventsWaiting_SumOfTheirPackets)
{
    RigEndpoint rig;
    EXPECT_EQ(ruk__eventq_count(&rig.ep->rep_eventq), 0);
    rig.ring.put(packets_of({60, 60, 60}));
    rig.ring.put(packets_of({60}));
    rig.ring.put(packets_of({60, 60, 60, 60, 60}));
    EXPECT_EQ(ruk__eventq_count(&rig.ep->rep_eventq), 9);
    parse(rig);
    ruk__eventq_advance(&rig.ep->rep_eventq); /* a partly consumed event counts whole */
    EXPECT_EQ(ruk__eventq_count(&rig.ep->rep_eventq), 9);
    ruk__eventq_advance(&rig.ep->rep_eventq);
    ruk__eventq_advance(&rig.ep->rep_eventq);
    EXPECT_EQ(ruk__eventq_count(&rig.ep->rep_eventq), 6);
    EXPECT_EQ(state(rig).evs_pkt_cur, nullptr); /* counting parses nothing */
}

TEST(EventCount, FullRing_StopsAfterOneRound)
{
    RigEndpoint::Options options;
    options.ring = 1024;
    RigEndpoint rig(options);
    for (int i = 0; i < 16; i++)
        rig.ring.put(packets_of({20}));
    EXPECT_EQ(ruk__eventq_count(&rig.ep->rep_eventq), 16);
    for (int i = 0; i < 5; i++) { /* from the middle, with the fifth event wrapped behind */
        consume_event(rig);
        rig.ring.put(packets_of({20}));
    }
    EXPECT_EQ(ruk__eventq_count(&rig.ep->rep_eventq), 16);
}

TEST(EventCount, EventAcrossTheEnd_WalkGoesOnAtTheStart)
{
    RigEndpoint::Options options;
    options.ring = 1024;
    RigEndpoint rig(options);
    rig.ring.put({{Bytes(700, 1), 0}}); /* 768 bytes */
    consume_event(rig);
    rig.ring.put(packets_of({200, 60})); /* 352 to 384 bytes, across the end */
    ASSERT_GT(768 + rig.ring.last_length(), 1024u);
    rig.ring.put(packets_of({20, 20, 20}));
    EXPECT_EQ(ruk__eventq_count(&rig.ep->rep_eventq), 5);
}

TEST(EventCount, EventNotYetComplete_CountingThreadWaits)
{
    RigEndpoint rig;
    rig.ring.put(packets_of({20}));
    EventOptions options;
    options.complete = false;
    rig.ring.put(packets_of({500, 20}), options);
    int count = -1;
    std::thread counter([&] { __atomic_store_n(&count, ruk__eventq_count(&rig.ep->rep_eventq), __ATOMIC_RELEASE); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(__atomic_load_n(&count, __ATOMIC_ACQUIRE), -1);
    rig.ring.complete();
    counter.join();
    EXPECT_EQ(count, 3);
}

/* A receiver took it: its last byte is 0xFF again, and nobody completes it. */
TEST(EventCount, EventThatVanishesMeanwhile_NotWaitedFor)
{
    RigEndpoint rig;
    EventOptions options;
    options.complete = false;
    const size_t event = rig.ring.put(packets_of({500, 20}), options);
    int count = -1;
    std::thread counter([&] { __atomic_store_n(&count, ruk__eventq_count(&rig.ep->rep_eventq), __ATOMIC_RELEASE); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(__atomic_load_n(&count, __ATOMIC_ACQUIRE), -1);
    __atomic_store_n(&rig.ring.at(event + offsetof(nuv_uevt_ruk_t, pkt_cnt)), 0, __ATOMIC_RELEASE);
    counter.join();
    EXPECT_EQ(count, 2) << "as it was when it was met";
}

TEST(RingAddress, PastTheEndByAnyDistance_BroughtBack)
{
    RigEndpoint rig;
    const ruk__eventq &evq = rig.ep->rep_eventq;
    const uintptr_t base = evq.evq_recvq_base, size = evq.evq_recvq_size;
    for (const uintptr_t rounds : {0, 1, 2, 3, 17})
        for (const uintptr_t offset : {uintptr_t{0}, uintptr_t{5}, size - 1})
            EXPECT_EQ(_eventq_wrap(&evq, base + rounds * size + offset), base + offset) << rounds << " " << offset;
}

TEST(EventCount, QueuesNotSetUp_Zero)
{
    ruk__eventq evq = {};
    EXPECT_EQ(ruk__eventq_count(&evq), 0);
}

/* ------------------------------------------------------------------ setting up */

TEST(EventQueue, SetUp_DescriptorAtTheRingsStart)
{
    RigEndpoint rig;
    ruk__eventq &evq = rig.ep->rep_eventq;
    memset(&evq, 0x55, sizeof evq);
    const uint32_t seven = 7;
    memcpy(rig.flow_memory.data(), &seven, 4);
    memcpy(rig.flow_memory.data() + 8, &seven, 4);
    initialize_queues(rig.ep);
    const uintptr_t base = reinterpret_cast<uintptr_t>(rig.ring.base());
    EXPECT_EQ(evq.evq_recvq_base, base);
    EXPECT_EQ(evq.evq_recvq_size, 8192u);
    EXPECT_EQ(evq.evq_recvq_end, base + 8192);
    EXPECT_EQ(evq.evq_recvq_offset, 0u);
    EXPECT_EQ(evq.evq_recvq_flow, 0u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(evq.evq_recvq_state.evs_uevt_cur), base);
    EXPECT_EQ(evq.evq_recvq_state.evs_pkt_cur, nullptr);
    EXPECT_EQ(evq.evq_recvq_state.evs_length, 0);
    EXPECT_EQ(evq.evq_recvq_state.evs_length_pkts, 0);
    EXPECT_EQ(evq.evq_recvq_state.evs_pkt_cnt, 0);
    EXPECT_EQ(static_cast<void *>(evq.evq_flow), rig.flow_memory.data());
    EXPECT_EQ(static_cast<void *>(evq.evq_flow_be64), rig.sram_memory.data() + 16376);
    EXPECT_EQ(rig.flow32(0), 0u);
    EXPECT_EQ(rig.flow32(8), 0u);
}
