/* Datagrams out of frames: which channel takes them, what the caller is told, what is counted instead. */
#include "recv_rig.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <numeric>
#include <random>
#include <sys/mman.h>

using namespace recv_rig;

namespace {

constexpr uint32_t HOST = 0x0a4d0001;  /* 10.77.0.1 */
constexpr uint32_t PEER = 0x0a4d0002;  /* 10.77.0.2 */
constexpr uint32_t GROUP = 0xe0010203; /* 224.1.2.3 */

/* The twelve counters in the record's order. */
std::array<uint64_t, 12> counters(const RigEndpoint &rig)
{
    std::array<uint64_t, 12> c;
    static_assert(sizeof c == sizeof rig.ep->rep_stats);
    memcpy(c.data(), &rig.ep->rep_stats, sizeof c);
    return c;
}

enum : size_t { BADPROTO = 0, BADFILTER = 1, NOSOCK = 2, RUNTS = 3, BROADCAST = 9 };

std::array<uint64_t, 12> only(size_t index, uint64_t value = 1)
{
    std::array<uint64_t, 12> c = {};
    c[index] = value;
    return c;
}

Bytes head(const Received &got, size_t n) { return Bytes(got.data.begin(), got.data.begin() + static_cast<long>(n)); }

/* The queue holds nothing any more, and all of it was given back. */
void expect_drained(RigEndpoint &rig)
{
    EXPECT_EQ(rig.ep->rep_eventq.evq_recvq_offset, rig.ring.position());
    EXPECT_EQ(rig.recv().rc, EAGAIN);
}

/* Consumes one event, from the ring's base to `at`: at least 128, a multiple of 64. */
void advance_from_base(RigEndpoint &rig, size_t at)
{
    rig.ring.put({{Bytes(at - 44, 1), 0}});
    ASSERT_EQ(rig.ring.position(), at);
    ASSERT_NE(ruk__eventq_first(rig.ep, &rig.ep->rep_eventq), nullptr);
    ruk__eventq_advance(&rig.ep->rep_eventq);
}

/* The ring with an event consumed. */
Bytes with_free_slots(Bytes ring, size_t event, size_t length)
{
    for (size_t slot = event; slot < event + length; slot += 64) {
        ring[slot % ring.size() + 30] = 0;
        ring[slot % ring.size() + 63] = 0xff;
    }
    return ring;
}

Bytes whole_ring(RigEndpoint &rig) { return Bytes(rig.ring.base(), rig.ring.base() + rig.ring.size()); }

void expect_dropped(RigEndpoint &rig, const Bytes &frame, uint16_t tag, size_t counter)
{
    rig.ring.put({{frame, tag}});
    EXPECT_EQ(rig.recv().rc, EAGAIN);
    EXPECT_EQ(counters(rig), only(counter));
    EXPECT_EQ(rig.ep->rep_num_packets, 0u);
    expect_drained(rig);
}

} // namespace

/* ------------------------------------------------------------------ a delivered datagram */

TEST(Datagram, UntaggedFrameForAChannel_DeliveredWithAllItsFields)
{
    Scoped<uint32_t> api(ruk__api_version, 4);
    RigEndpoint rig;
    ruk__channel *chan = rig.bind(3, HOST, 5000);
    rig.ep->rep_timestamping_enabled = 1;
    rig.clock_is_ticks();
    UdpFrame frame;
    frame.payload = pattern(1000);
    EventOptions options;
    options.ticks = 0x1122334455667788;
    rig.ring.put({{frame.bytes(), 3}}, options);
    Received got = rig.recv();
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(got.info.chan, chan);
    EXPECT_EQ(got.info.chan_context, chan->ch_ucontext);
    EXPECT_EQ(got.info.sin_from.sin_family, AF_INET);
    EXPECT_EQ(got.info.sin_from.sin_addr.s_addr, htonl(PEER));
    EXPECT_EQ(got.info.sin_from.sin_port, htons(40000));
    EXPECT_EQ(got.info.sin_to.sin_family, AF_INET);
    EXPECT_EQ(got.info.sin_to.sin_addr.s_addr, htonl(HOST));
    EXPECT_EQ(got.info.sin_to.sin_port, htons(5000));
    EXPECT_EQ(got.info.msg_len, 1000u);
    EXPECT_EQ(got.info.timestamp, 0x1122334455667788u);
    EXPECT_EQ(head(got, 1000), frame.payload);
    EXPECT_EQ(got.data[1000], 0xee);
    void *untouched;
    memset(&untouched, 0xee, sizeof untouched);
    EXPECT_EQ(got.info.in_buffer, untouched);
    EXPECT_EQ(rig.ep->rep_num_packets, 1u);
    EXPECT_EQ(counters(rig), (std::array<uint64_t, 12>{}));
    EXPECT_EQ(rig.ep->rep_inuse, 0u);
    expect_drained(rig);
}

TEST(Datagram, LiteralFrame_Delivered)
{
    RigEndpoint rig;
    rig.bind(0, 0xc0a80105, 0x1234);
    const Bytes frame = {
        0x02, 0x6f, 0x78, 0x00, 0x00, 0x01, 0x02, 0x00, 0x00, 0x00, 0x00, 0x02, 0x08, 0x00,             /* Ethernet */
        0x45, 0x00, 0x00, 0x1f, 0x00, 0x00, 0x40, 0x00, 0x40, 0x11, 0xb7, 0x56, 0xc0, 0xa8, 0x01, 0x09, /* IPv4 */
        0xc0, 0xa8, 0x01, 0x05, 0x9c, 0x40, 0x12, 0x34, 0x00, 0x0b, 0x00, 0x00,                         /* UDP */
        0x61, 0x62, 0x63, 0xde, 0xad, 0xbe, 0xef};
    rig.ring.put({{frame, 0}});
    Received got = rig.recv();
    ASSERT_EQ(got.rc, 0);
    EXPECT_EQ(got.info.sin_from.sin_addr.s_addr, inet_addr("192.168.1.9"));
    EXPECT_EQ(got.info.sin_to.sin_addr.s_addr, inet_addr("192.168.1.5"));
    EXPECT_EQ(ntohs(got.info.sin_from.sin_port), 40000);
    EXPECT_EQ(ntohs(got.info.sin_to.sin_port), 0x1234);
    EXPECT_EQ(got.info.msg_len, 3u);
    EXPECT_EQ(head(got, 4), (Bytes{0x61, 0x62, 0x63, 0xee}));
}

TEST(Datagram, BufferShorterThanPayload_CutSilentlyLengthTold)
{
    RigEndpoint rig;
    rig.bind(0, HOST, 5000);
    UdpFrame frame;
    frame.payload = pattern(1000);
    rig.ring.put({{frame.bytes(), 0}});
    Received got;
    got.data.assign(2048, 0xee);
    got.rc = ruk_recvfrom(rig.ep, RUK_RECV_DEFAULT, got.data.data(), 100, &got.info);
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(got.info.msg_len, 1000u);
    EXPECT_EQ(head(got, 100), Bytes(frame.payload.begin(), frame.payload.begin() + 100));
    EXPECT_EQ(Bytes(got.data.begin() + 100, got.data.end()), Bytes(1948, 0xee));
    expect_drained(rig);
}

namespace {

/*
 * Receives the datagrams of one event, of `size` bytes each, into a buffer of `len` bytes amid others: all of them are
 * then exactly what they should be.
 */
void expect_exactly(RigEndpoint &rig, size_t packets, size_t size, size_t len)
{
    constexpr size_t GUARD = 512;
    UdpFrame frame;
    std::vector<Packet> event;
    for (size_t i = 0; i < packets; i++) {
        frame.payload = pattern(size, static_cast<unsigned>(1000 * i + size));
        event.push_back({frame.bytes(), 0});
    }
    rig.ring.put(event);
    for (size_t i = 0; i < packets; i++) {
        const Bytes payload = pattern(size, static_cast<unsigned>(1000 * i + size));
        const size_t shift = (size + len + i) % 16; /* the buffer begins anywhere */
        const size_t count = std::min(size, len);
        Bytes memory(GUARD + shift + len + GUARD, 0xa5), expected = memory;
        std::copy_n(payload.begin(), count, expected.begin() + static_cast<long>(GUARD + shift));
        ruk_recv_info info = {};
        ASSERT_EQ(ruk_recvfrom(rig.ep, RUK_RECV_NONBLOCK, memory.data() + GUARD + shift, len, &info), 0);
        ASSERT_EQ(info.msg_len, size);
        ASSERT_EQ(memory, expected) << size << " bytes into " << len << ", packet " << i;
    }
}

/* One in the event, several, and an endpoint with locks are received by code of their own. */
void expect_exactly_each_way(const std::vector<size_t> &sizes, const std::function<std::vector<size_t>(size_t)> &lens)
{
    for (bool locks : {false, true})
        for (size_t packets : {1u, 2u}) {
            RigEndpoint::Options settings;
            settings.ring = 16384;
            settings.locks = locks;
            RigEndpoint rig(settings);
            rig.bind(0, HOST, 5000);
            for (size_t size : sizes)
                for (size_t len : lens(size))
                    ASSERT_NO_FATAL_FAILURE(expect_exactly(rig, packets, size, len));
            expect_drained(rig);
        }
}

std::vector<size_t> all_up_to(size_t last)
{
    std::vector<size_t> all(last + 1);
    std::iota(all.begin(), all.end(), size_t{0});
    return all;
}

} // namespace

TEST(Datagram, EverySmallSize_ExactlyThePayloadIsWritten)
{
    expect_exactly_each_way(all_up_to(300), [](size_t size) {
        return std::vector<size_t>{size, size + 1, size + 300};
    });
}

TEST(Datagram, BufferOfEverySmallSize_FilledAndNotOneByteBeyond)
{
    expect_exactly_each_way({71, 128, 256, 257, 1000}, [](size_t) { return all_up_to(70); });
}

TEST(Datagram, NoBufferAtAll_ConsumedAllTheSame)
{
    RigEndpoint rig;
    rig.bind(0, HOST, 5000);
    rig.ring.put({{udp_frame("abc"), 0}});
    ruk_recv_info info = {};
    EXPECT_EQ(ruk_recvfrom(rig.ep, RUK_RECV_NONBLOCK, nullptr, 0, &info), 0);
    EXPECT_EQ(info.msg_len, 3u);
    expect_drained(rig);
}

TEST(Datagram, InterfaceVersion_DecidesWhetherTheTimeIsWritten)
{
    for (uint32_t version : {0u, 1u, 2u, 3u, 4u})
        for (bool timestamping : {false, true})
            for (bool locks : {false, true}) {
                Scoped<uint32_t> api(ruk__api_version, version);
                RigEndpoint::Options settings;
                settings.locks = locks;
                RigEndpoint rig(settings);
                rig.bind(0, HOST, 5000);
                rig.ep->rep_timestamping_enabled = timestamping;
                rig.clock_is_ticks();
                EventOptions options;
                options.ticks = 4242;
                rig.ring.put({{udp_frame("x"), 0}}, options);
                Received got = rig.recv();
                EXPECT_EQ(got.rc, 0);
                EXPECT_EQ(got.info.timestamp, version < 2    ? 0xeeeeeeeeeeeeeeee
                                              : timestamping ? 4242
                                                             : 0)
                    << version << timestamping << locks;
            }
}

TEST(Datagram, DroppedFrame_ItsTimeStaysInTheInfo)
{
    for (uint32_t version : {1u, 2u}) {
        Scoped<uint32_t> api(ruk__api_version, version);
        RigEndpoint rig;
        rig.ep->rep_timestamping_enabled = 1;
        rig.clock_is_ticks();
        EventOptions options;
        options.ticks = 555;
        rig.ring.put({{udp_frame("x"), 0}}, options);
        Received got = rig.recv();
        EXPECT_EQ(got.rc, EAGAIN);
        EXPECT_EQ(got.info.timestamp, version > 1 ? 555u : 0xeeeeeeeeeeeeeeee);
        EXPECT_EQ(counters(rig), only(NOSOCK));
    }
}

TEST(Datagram, DatedBeforeTheLastOne_BearsTheLastTime)
{
    Scoped<uint32_t> api(ruk__api_version, 2);
    for (bool masked : {false, true})
        for (bool locks : {false, true}) {
            RigEndpoint::Options settings;
            settings.locks = locks;
            RigEndpoint rig(settings);
            rig.bind(0, HOST, 5000);
            rig.date_by(masked ? Dating::own_parameters : Dating::window);
            for (auto [ticks, time] : {std::pair{1000u, 1000u}, {999u, 1000u}, {1001u, 1001u}, {0u, 0u}}) {
                EventOptions options;
                options.ticks = ticks;
                rig.ring.put({{udp_frame("x"), 0}}, options);
                Received got = rig.recv();
                EXPECT_EQ(got.rc, 0);
                EXPECT_EQ(got.info.timestamp, time) << masked << locks << ticks;
            }
            EXPECT_EQ(rig.ep->rep_eventq.evq_recvq_state.evs_timestamp_last, 1001u);
            expect_drained(rig);
        }
}

/* A packet that was received still stands in the event state, as every part of its event does. */
TEST(Datagram, AloneInItsEvent_EventStateTellsAllOfIt)
{
    Scoped<uint32_t> api(ruk__api_version, 2);
    for (bool dated : {false, true})
        for (bool locks : {false, true}) {
            RigEndpoint::Options settings;
            settings.locks = locks;
            RigEndpoint rig(settings);
            rig.bind(0, HOST, 5000);
            rig.date_by(dated ? Dating::own_parameters : Dating::off);
            ruk__event_state &evs = rig.ep->rep_eventq.evq_recvq_state;
            memset(evs.evs_pkts, 0x77, sizeof evs.evs_pkts);
            evs.evs_timestamp = 99;
            evs.evs_timestamp_last = 4000;
            EventOptions options;
            options.ticks = 3000;
            rig.ring.put({{udp_frame(std::string(64, 'x')), 0}}, options);

            EXPECT_EQ(rig.recv().rc, 0);
            EXPECT_EQ(evs.evs_timestamp, dated ? 3000u : 0u);
            EXPECT_EQ(evs.evs_timestamp_last, 4000u);
            EXPECT_EQ(evs.evs_length, 192);
            EXPECT_EQ(evs.evs_length_pkts, 114);
            EXPECT_EQ(evs.evs_pkt_cnt, 1);
            EXPECT_EQ(evs.evs_pkt_cur, nullptr);
            const ruk__evpacket &packet = evs.evs_pkts[0];
            EXPECT_EQ(packet.pkt, rig.ring.base() + 40);
            EXPECT_EQ(packet.tag, 0);
            EXPECT_EQ(packet.length, 110);
            EXPECT_EQ(packet.offset, 0);
            EXPECT_EQ(packet.nfrags, 0);
            EXPECT_EQ(packet.timestamp, dated ? 4000u : 0u);
            EXPECT_EQ(packet.evp_next, nullptr);
            expect_drained(rig);
        }
}

/* All ones is what marks a keyframe: this one is none, and is counted as a bad one. */
TEST(Datagram, TimeOfAllOnes_TakenForAKeyframe)
{
    for (bool masked : {false, true})
        for (bool locks : {false, true}) {
            RigEndpoint::Options settings;
            settings.locks = locks;
            RigEndpoint rig(settings);
            rig.bind(0, HOST, 5000);
            rig.date_by(masked ? Dating::own_parameters : Dating::window);
            EventOptions options;
            options.ticks = UINT64_MAX;
            rig.ring.put({{udp_frame("x"), 0}}, options);
            EXPECT_EQ(rig.recv().rc, EAGAIN) << masked << locks;
            EXPECT_EQ(rig.ep->arista_control.arct_stats.arst_kfmalformed, 1u) << masked << locks;
            EXPECT_EQ(rig.ep->rep_num_packets, 0u) << masked << locks;
            expect_drained(rig);
        }
}

TEST(Datagram, VlanTag_HeadersFourBytesFurtherOnWhateverTheInnerType)
{
    for (uint16_t inner : {uint16_t{0x0800}, uint16_t{0x0806}, uint16_t{0x86dd}, uint16_t{0}}) {
        RigEndpoint rig;
        ruk__channel *chan = rig.bind(0, HOST, 5000);
        UdpFrame frame;
        frame.vlan = 0x6005;
        frame.ethertype = inner;
        frame.payload = pattern(77);
        rig.ring.put({{frame.bytes(), 0}});
        Received got = rig.recv();
        ASSERT_EQ(got.rc, 0);
        EXPECT_EQ(got.info.chan, chan);
        EXPECT_EQ(got.info.msg_len, 77u);
        EXPECT_EQ(got.info.sin_from.sin_addr.s_addr, htonl(PEER));
        EXPECT_EQ(got.info.sin_to.sin_port, htons(5000));
        EXPECT_EQ(head(got, 77), frame.payload);
    }
}

TEST(Datagram, ProtocolVersionAndChecksums_NotChecked)
{
    RigEndpoint rig;
    rig.bind(0, HOST, 5000);
    UdpFrame frame;
    frame.payload = text("ok");
    frame.protocol = 6;
    frame.ip_first = 0x4f; /* a header length of 60 bytes is taken for 20 */
    Bytes bytes = frame.bytes();
    bytes[24] = 0xba; /* IPv4 checksum */
    bytes[25] = 0xad;
    bytes[40] = 0xba; /* UDP checksum */
    bytes[41] = 0xad;
    rig.ring.put({{bytes, 0}});
    Received got = rig.recv();
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(head(got, 2), text("ok"));
}

TEST(Datagram, UdpLengthBelowEight_LengthWrapsAndTheReadStaysInTheRing)
{
    RigEndpoint::Options options;
    options.ring = 512;
    RigEndpoint rig(options);
    rig.bind(0, HOST, 5000);
    UdpFrame frame;
    frame.payload = pattern(20);
    frame.udp_len = 7;
    rig.ring.put({{frame.bytes(), 0}});
    Bytes ring(rig.ring.base(), rig.ring.base() + 512);
    Received got = rig.recv(RUK_RECV_PEEK_MSG, 3000);
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(got.info.msg_len, 0xffffffffu);
    for (size_t i = 0; i < 3000; i++) /* the ring, round and round from the payload on */
        ASSERT_EQ(got.data[i], ring[(82 + i) % 512]) << i;
    EXPECT_EQ(rig.recv(RUK_RECV_NONBLOCK, 10).info.msg_len, 0xffffffffu);
    expect_drained(rig);
}

/* Address and length together are more than 32 bits hold. */
TEST(Datagram, UdpLengthBelowEight_HugeBuffer_TheReadStaysInTheRing)
{
    constexpr size_t HUGE_BUFFER = 300 << 20;
    RigEndpoint rig;
    rig.bind(0, HOST, 5000);
    UdpFrame frame;
    frame.payload = pattern(20);
    frame.udp_len = 0;
    rig.ring.put({{frame.bytes(), 0}});
    const Bytes ring(rig.ring.base(), rig.ring.base() + 8192);
    auto *buffer = static_cast<uint8_t *>(
        mmap(nullptr, HUGE_BUFFER, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
    ASSERT_NE(buffer, MAP_FAILED);
    ruk_recv_info info = {};
    ASSERT_EQ(ruk_recvfrom(rig.ep, RUK_RECV_PEEK_MSG, buffer, HUGE_BUFFER, &info), 0);
    EXPECT_EQ(info.msg_len, 0xfffffff8u);
    for (size_t i = 0; i < HUGE_BUFFER; i += i < 20000 ? 1 : 65537)
        ASSERT_EQ(buffer[i], ring[(82 + i) % 8192]) << i;
    munmap(buffer, HUGE_BUFFER);
}

TEST(Datagram, UdpLengthBeyondTheFrame_TakenAsItIs)
{
    RigEndpoint rig;
    rig.bind(0, HOST, 5000);
    UdpFrame frame;
    frame.payload = pattern(20);
    frame.udp_len = 65535;
    rig.ring.put({{frame.bytes(), 0}});
    Received got = rig.recv(RUK_RECV_NONBLOCK, 30);
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(got.info.msg_len, 65527u);
    EXPECT_EQ(head(got, 20), frame.payload);
}

/*
 * An event that tells less than its frame needs: the frame is read from where it lies, and the event ends where it
 * says. In the ring's middle, with the frame's headers across its end, with the event's own end there, and past it.
 */
TEST(Datagram, EventShorterThanItsFrame_FrameWholeAndNextEventWhereTheLengthSays)
{
    struct {
        size_t length;
        uint8_t offset;
    } const shapes[] = {{64, 32}, {64, 96}, {128, 96}, {128, 32}}; /* the headers lie in the last alone */
    for (const auto &shape : shapes)
        for (size_t event : {1024u, 8192u - 128, 8192u - 64})
            for (bool locks : {false, true})
                for (bool fits : {true, false}) {
                    SCOPED_TRACE(testing::Message() << shape.length << " " << unsigned{shape.offset} << " at " << event
                                                    << (locks ? " locks" : "") << (fits ? "" : " other port"));
                    RigEndpoint::Options settings;
                    settings.locks = locks;
                    RigEndpoint rig(settings);
                    ruk__channel *chan = rig.bind(0, HOST, 5000);
                    ASSERT_NO_FATAL_FAILURE(advance_from_base(rig, event));
                    /* The bytes that tell an event complete and the next one present may be the frame's. */
                    UdpFrame frame;
                    frame.protocol = 0;
                    frame.dport = fits ? 5000 : 5001;
                    frame.payload = pattern(100);
                    for (size_t i : {12u, 45u, 76u})
                        frame.payload[i] = 0;
                    EventOptions options;
                    options.offset = shape.offset;
                    rig.ring.put({{frame.bytes(), 0}}, options);
                    rig.ring.at(event + 28) = 0;
                    rig.ring.at(event + 29) = static_cast<uint8_t>(shape.length);
                    const size_t next = event + shape.length;
                    rig.ring.at(next - 1) = 0;
                    const Bytes before = whole_ring(rig);
                    ASSERT_EQ(rig.ring.at(next + 30), 0);

                    Received got = rig.recv();
                    EXPECT_EQ(got.rc, fits ? 0 : EAGAIN);
                    if (fits) {
                        EXPECT_EQ(got.info.chan, chan);
                        EXPECT_EQ(got.info.msg_len, 100u);
                        EXPECT_EQ(got.info.sin_from.sin_addr.s_addr, htonl(PEER));
                        EXPECT_EQ(got.info.sin_to.sin_port, htons(5000));
                        EXPECT_EQ(head(got, 101), frame.payload + Bytes{0xee});
                    }
                    const auto counted = fits ? std::array<uint64_t, 12>{} : only(BADFILTER);
                    EXPECT_EQ(counters(rig), counted);
                    EXPECT_EQ(rig.ep->rep_num_packets, fits ? 1u : 0u);
                    EXPECT_EQ(rig.ep->rep_inuse, 0u);
                    EXPECT_EQ(whole_ring(rig), with_free_slots(before, event, shape.length));
                    EXPECT_EQ(rig.flow64(16), next % 8192);
                    EXPECT_EQ(rig.ep->rep_eventq.evq_recvq_flow, next);

                    rig.ring.seek(next % 8192);
                    rig.ring.put({{udp_frame("next"), 0}});
                    EXPECT_EQ(head(rig.recv(), 5), text("next") + Bytes{0xee});
                    EXPECT_EQ(counters(rig), counted);
                    expect_drained(rig);
                }
}

TEST(Datagram, SeveralInOneEvent_InOrder)
{
    RigEndpoint rig;
    ruk__channel *a = rig.bind(0, HOST, 5000);
    ruk__channel *b = rig.bind(1, HOST, 5001);
    UdpFrame frame;
    std::vector<Packet> packets;
    for (unsigned i = 0; i < 5; i++) {
        frame.dport = static_cast<uint16_t>(5000 + i % 2);
        frame.payload = pattern(10 + 30 * i, i);
        packets.push_back({frame.bytes(), static_cast<uint16_t>(i % 2)});
    }
    rig.ring.put(packets);
    for (unsigned i = 0; i < 5; i++) {
        Received got = rig.recv();
        ASSERT_EQ(got.rc, 0);
        EXPECT_EQ(got.info.chan, i % 2 ? b : a);
        EXPECT_EQ(head(got, 10 + 30 * i), pattern(10 + 30 * i, i));
    }
    EXPECT_EQ(rig.ep->rep_num_packets, 5u);
    expect_drained(rig);
}

/* ------------------------------------------------------------------ what is dropped */

TEST(DatagramDrop, OtherEtherType_BadProtoOnce)
{
    for (uint16_t type : {uint16_t{0x0806}, uint16_t{0x86dd}, uint16_t{0x88f7}, uint16_t{0x0801}}) {
        RigEndpoint rig;
        rig.bind(0, HOST, 5000);
        UdpFrame frame;
        frame.ethertype = type;
        expect_dropped(rig, frame.bytes(), 0, BADPROTO);
    }
}

TEST(DatagramDrop, FrameShorterThanItsHeaders_Runt)
{
    /* The least is 44 bytes untagged and 48 tagged: the headers and two bytes of the trailer. */
    for (size_t length = 14; length <= 60; length++) {
        for (bool tagged : {false, true}) {
            RigEndpoint rig;
            rig.bind(0, HOST, 5000);
            UdpFrame frame;
            if (tagged)
                frame.vlan = 7;
            frame.payload = Bytes(40, 1);
            Bytes bytes = frame.bytes();
            bytes.resize(length);
            if (length < (tagged ? 48u : 44u)) {
                expect_dropped(rig, bytes, 0, RUNTS);
            } else {
                rig.ring.put({{bytes, 0}});
                EXPECT_EQ(rig.recv().rc, 0) << length;
            }
        }
    }
}

TEST(DatagramDrop, RuntOfOtherType_BadProtoFirst)
{
    RigEndpoint rig;
    Bytes frame(12, 2);
    frame = frame + be16(0x0806) + Bytes(10, 0);
    expect_dropped(rig, frame, 0, BADPROTO);
}

TEST(DatagramDrop, TagBeyondTheTable_NoSock)
{
    for (uint16_t tag : {uint16_t{128}, uint16_t{129}, uint16_t{3967}, uint16_t{4095}, uint16_t{0x7fff},
                         uint16_t{0x8000}, uint16_t{0xffff}}) {
        RigEndpoint rig;
        rig.bind(0, HOST, 5000); /* one block: tags 0 to 127 */
        expect_dropped(rig, udp_frame("x"), tag, NOSOCK);
    }
}

TEST(DatagramDrop, NoTagsAtAll_NoSock)
{
    RigEndpoint rig;
    expect_dropped(rig, udp_frame("x"), 0, NOSOCK);
}

TEST(DatagramDrop, LastTagOfATwoBlockTable_FoundInItsBlock)
{
    RigEndpoint rig;
    rig.bind(0, HOST, 5000);
    ruk__channel *chan = rig.bind(255, HOST, 5000);
    rig.ring.put({{udp_frame("x"), 255}});
    EXPECT_EQ(rig.recv().info.chan, chan);
}

TEST(DatagramDrop, EntryWaitingForRelease_NoSock)
{
    RigEndpoint rig;
    rig.bind(5, HOST, 5000);
    rig.entry(5).tage_nuv_tag = 0x8005;
    expect_dropped(rig, udp_frame("x"), 5, NOSOCK);
}

TEST(DatagramDrop, EntryWithoutChannel_NoSock)
{
    RigEndpoint rig;
    rig.bind(5, HOST, 5000);
    rig.entry(5).tage_channel = nullptr;
    expect_dropped(rig, udp_frame("x"), 5, NOSOCK);
}

TEST(DatagramDrop, EntryWithoutChannelAndOtherPort_BadFilter)
{
    RigEndpoint rig;
    rig.bind(5, HOST, 5001);
    rig.entry(5).tage_channel = nullptr;
    expect_dropped(rig, udp_frame("x"), 5, BADFILTER);
}

TEST(DatagramDrop, EntryWithoutChannelAndOtherAddress_BadFilter)
{
    RigEndpoint rig;
    rig.bind(5, HOST + 1, 5000);
    rig.entry(5).tage_channel = nullptr;
    expect_dropped(rig, udp_frame("x"), 5, BADFILTER);
}

TEST(DatagramDrop, BroadcastEntryWithoutChannel_NoSock)
{
    for (uint32_t dst : {0xffffffffu, HOST}) {
        RigEndpoint rig;
        rig.bind(5, 0xffffffff, 5000);
        rig.entry(5).tage_channel = nullptr;
        UdpFrame frame;
        frame.dst = dst;
        expect_dropped(rig, frame.bytes(), 5, NOSOCK);
    }
}

TEST(DatagramDrop, OtherPort_BadFilter)
{
    RigEndpoint rig;
    rig.bind(0, HOST, 5001);
    expect_dropped(rig, udp_frame("x"), 0, BADFILTER);
}

TEST(DatagramDrop, PortOfTheOtherByteOrder_BadFilter)
{
    RigEndpoint rig;
    rig.bind(0, HOST, 0x8813); /* 5000 is 0x1388 */
    expect_dropped(rig, udp_frame("x"), 0, BADFILTER);
}

TEST(DatagramDrop, OtherAddress_BadFilter)
{
    RigEndpoint rig;
    rig.bind(0, HOST + 1, 5000);
    expect_dropped(rig, udp_frame("x"), 0, BADFILTER);
}

TEST(DatagramDrop, BroadcastFrameOnAUnicastEntry_BadFilter)
{
    RigEndpoint rig;
    rig.bind(0, HOST, 5000);
    UdpFrame frame;
    frame.dst = 0xffffffff;
    expect_dropped(rig, frame.bytes(), 0, BADFILTER);
}

TEST(DatagramDrop, PortIsAskedBeforeTheBroadcastAddress)
{
    RigEndpoint rig;
    rig.bind(0, 0xffffffff, 5001);
    expect_dropped(rig, udp_frame("x"), 0, BADFILTER);
}

TEST(DatagramDrop, ManyBadFramesBeforeAGoodOne_OneCallSkipsThemAll)
{
    RigEndpoint rig;
    rig.bind(0, HOST, 5000);
    rig.bind(1, 0xffffffff, 5000);
    UdpFrame arp;
    arp.ethertype = 0x0806;
    UdpFrame port;
    port.dport = 1;
    Bytes runt = UdpFrame().bytes();
    runt.resize(40);
    rig.ring.put({{arp.bytes(), 0}, {port.bytes(), 0}, {runt, 0}, {udp_frame("no"), 300}, {udp_frame("no"), 1}});
    rig.ring.put({{arp.bytes(), 0}, {udp_frame("yes"), 0}});
    Received got = rig.recv();
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(head(got, 3), text("yes"));
    EXPECT_EQ(counters(rig), (std::array<uint64_t, 12>{2, 1, 1, 1, 0, 0, 0, 0, 0, 1, 0, 0}));
    EXPECT_EQ(rig.ep->rep_num_packets, 1u);
    expect_drained(rig);
}

/* A frame alone in its event is looked at twice before it is dropped. */
TEST(DatagramDrop, AloneInItsEvent_CountedOnceAndTheNextOneDelivered)
{
    const auto fitting = [] {
        UdpFrame frame;
        frame.payload = pattern(100, 9);
        return frame;
    };
    UdpFrame other_source = fitting(), other_port = fitting(), other_address = fitting(), ipv6 = fitting(),
             unknown = fitting(), not_for_all = fitting();
    other_source.dst = GROUP;
    other_source.src = PEER + 1;
    other_port.dport = 5001;
    other_address.dst = HOST + 1;
    ipv6.ethertype = 0x86dd;
    unknown.ethertype = 0x88b5;
    Bytes runt = fitting().bytes();
    runt.resize(43);
    const struct {
        const char *what;
        Bytes frame;
        uint16_t tag;
        size_t counter;
    } refused[] = {
        {"another source than the entry's", other_source.bytes(), 1, BADFILTER},
        {"another port", other_port.bytes(), 0, BADFILTER},
        {"another address", other_address.bytes(), 0, BADFILTER},
        {"IPv6", ipv6.bytes(), 0, BADPROTO},
        {"unknown type", unknown.bytes(), 0, BADPROTO},
        {"runt", runt, 0, RUNTS},
        {"tag waiting for release", fitting().bytes(), 3, NOSOCK},
        {"tag beyond the table", fitting().bytes(), 128, NOSOCK},
        {"no broadcast", not_for_all.bytes(), 2, BROADCAST},
    };
    for (const auto &first : refused)
        for (unsigned way = 0; way < 4; way++) {
            const bool one_call = way % 2 == 0, dated = way >= 2;
            SCOPED_TRACE(testing::Message() << first.what << (one_call ? ", one call" : ", two calls") << dated);
            RigEndpoint rig;
            rig.date_by(dated ? Dating::own_parameters : Dating::off);
            EventOptions early, late;
            early.ticks = 1000;
            late.ticks = 999;
            ruk__channel *chan = rig.bind(0, HOST, 5000);
            rig.bind(1, GROUP, 5000, PEER);
            rig.bind(2, 0xffffffff, 5000);
            rig.bind(3, HOST, 5000);
            rig.entry(3).tage_nuv_tag = 0x8003;
            rig.ring.put({{first.frame, first.tag}}, early);
            if (!one_call)
                EXPECT_EQ(rig.recv().rc, EAGAIN);
            rig.ring.put({{udp_frame("good"), 0}}, late);
            Received got = rig.recv();
            EXPECT_EQ(got.rc, 0);
            EXPECT_EQ(got.info.chan, chan);
            EXPECT_EQ(got.info.msg_len, 4u);
            EXPECT_EQ(head(got, 5), text("good") + Bytes{0xee});
            EXPECT_EQ(counters(rig), only(first.counter));
            EXPECT_EQ(rig.ep->rep_num_packets, 1u);
            EXPECT_EQ(rig.ep->rep_inuse, 0u);
            EXPECT_EQ(rig.ep->rep_eventq.evq_recvq_state.evs_timestamp_last, dated ? 1000u : 0u);
            expect_drained(rig);
        }
}

/* ------------------------------------------------------------------ what is freed */

/* An event frees its own slots: two, three, more than its payload needs. */
TEST(Datagram, SmallAloneInItsEvent_FreesItsSlotsAndNoOther)
{
    for (bool dated : {false, true})
        for (unsigned payload : {32u, 33u, 50u, 64u})
            for (unsigned extra : {0u, 1u, 5u}) {
                RigEndpoint rig;
                rig.bind(0, HOST, 5000);
                rig.date_by(dated ? Dating::own_parameters : Dating::off);
                EventOptions options;
                options.extra_slots = extra;
                const auto frame = udp_frame(std::string(payload, 'p'));
                rig.ring.put({{frame, 0}}, options);
                const size_t length = rig.ring.last_length();
                rig.ring.put({{frame, 0}}, options);
                const Bytes before = whole_ring(rig);
                EXPECT_EQ(rig.recv().rc, 0);
                EXPECT_EQ(whole_ring(rig), with_free_slots(before, 0, length)) << payload << ' ' << extra;
                EXPECT_EQ(rig.recv().rc, 0);
                expect_drained(rig);
            }
}

/* The last packet before the ring's end: nothing behind it is touched, however much its UDP header promises. */
TEST(Datagram, EndsWithTheRing_UdpLengthAFewBytesMore_TheReadStaysInTheRing)
{
    for (bool tagged : {false, true})
        for (unsigned more : {0u, 1u, 2u, 3u, 4u, 5u, 8u}) {
            RigEndpoint rig;
            ruk__channel *chan = rig.bind(0, HOST, 5000);
            UdpFrame frame;
            if (tagged)
                frame.vlan = 5;
            frame.payload = pattern(tagged ? 54 : 58);
            Bytes bytes = frame.bytes();
            ASSERT_EQ(bytes.size(), 104u);
            bytes.resize(bytes.size() - 4); /* no room for the trailer: the packet ends with its payload */
            bytes[tagged ? 43 : 39] = static_cast<uint8_t>(bytes[tagged ? 43 : 39] + more);
            /* 32 for the header and twice 8 + 100 + 4: the second packet ends 4 bytes before the ring does. */
            advance_from_base(rig, 8192 - 256);
            rig.ring.put({{bytes, 0}, {bytes, 0}});
            ASSERT_EQ(rig.ring.last_length(), 256u);
            EXPECT_EQ(rig.recv().rc, 0);
            Received got = rig.recv();
            ASSERT_EQ(got.rc, 0) << tagged << more;
            EXPECT_EQ(got.info.chan, chan);
            EXPECT_EQ(got.info.msg_len, frame.payload.size() + more);
            EXPECT_EQ(head(got, frame.payload.size()), frame.payload);
            EXPECT_EQ(rig.ep->rep_inuse, 0u);
        }
}

/* ------------------------------------------------------------------ broadcast */

TEST(DatagramBroadcast, AllOnesOrTheInterfacesAddress_DeliveredOthersCounted)
{
    RigEndpoint rig;
    ruk__channel *chan = rig.bind(0, 0xffffffff, 5000);
    rig.mif.tov_ifa_bcastaddr = htonl(0x0a4d00ff);
    UdpFrame frame;
    frame.payload = text("b");
    for (uint32_t dst : {0xffffffffu, 0x0a4d00ffu}) {
        frame.dst = dst;
        rig.ring.put({{frame.bytes(), 0}});
        Received got = rig.recv();
        EXPECT_EQ(got.rc, 0);
        EXPECT_EQ(got.info.chan, chan);
        EXPECT_EQ(got.info.sin_to.sin_addr.s_addr, htonl(dst));
    }
    uint64_t dropped = 0;
    for (uint32_t dst : {0x0a4e00ffu, 0xff004d0au, HOST, 0u}) {
        frame.dst = dst;
        rig.ring.put({{frame.bytes(), 0}});
        EXPECT_EQ(rig.recv().rc, EAGAIN);
        EXPECT_EQ(counters(rig), only(BROADCAST, ++dropped));
    }
}

TEST(DatagramBroadcast, EntryWithASourceLeftFromBefore_SourceNotAsked)
{
    RigEndpoint rig;
    rig.bind(0, 0xffffffff, 5000, 0x01020304);
    UdpFrame frame;
    frame.dst = 0xffffffff;
    rig.ring.put({{frame.bytes(), 0}});
    EXPECT_EQ(rig.recv().rc, 0);
}

/* ------------------------------------------------------------------ sources */

TEST(DatagramSource, TheEntrysSource_DeliveredAndOthersBadFilter)
{
    RigEndpoint rig;
    ruk__channel *chan = rig.bind(4, GROUP, 5000, PEER);
    UdpFrame frame;
    frame.dst = GROUP;
    rig.ring.put({{frame.bytes(), 4}});
    EXPECT_EQ(rig.recv().info.chan, chan);
    frame.src = PEER + 1;
    rig.ring.put({{frame.bytes(), 4}});
    EXPECT_EQ(rig.recv().rc, EAGAIN);
    frame.src = PEER;
    frame.dst = GROUP + 1;
    rig.ring.put({{frame.bytes(), 4}});
    EXPECT_EQ(rig.recv().rc, EAGAIN);
    EXPECT_EQ(counters(rig), only(BADFILTER, 2));
}

TEST(DatagramSource, LowerEntriesOfTheBlock_WalkedDownFirstMatchTakes)
{
    RigEndpoint rig;
    ruk__channel *low = rig.bind(2, GROUP, 5000, PEER + 1);
    ruk__channel *other_port = rig.bind(3, GROUP, 9, PEER + 2); /* ports of the walked entries are not compared */
    rig.bind(4, GROUP + 1, 5000, PEER + 1);
    rig.bind(6, GROUP, 5000, PEER);
    ruk__channel *above = rig.bind(7, GROUP, 5000, PEER + 3);
    (void)above;
    UdpFrame frame;
    frame.dst = GROUP;
    auto channel_for = [&](uint32_t src) {
        frame.src = src;
        rig.ring.put({{frame.bytes(), 6}});
        Received got = rig.recv();
        return got.rc == 0 ? got.info.chan : nullptr;
    };
    EXPECT_EQ(channel_for(PEER + 1), low);
    EXPECT_EQ(channel_for(PEER + 2), other_port);
    EXPECT_EQ(channel_for(PEER + 3), nullptr); /* only above the tag */
    rig.bind(5, GROUP, 5000, PEER + 1);
    EXPECT_NE(channel_for(PEER + 1), low); /* nearer to the tag */
}

TEST(DatagramSource, WalkedEntryDelayed_TagNotComparedButWithoutChannelPassedOver)
{
    RigEndpoint rig;
    ruk__channel *one = rig.bind(1, GROUP, 5000, PEER);
    ruk__channel *two = rig.bind(2, GROUP, 5000, PEER);
    rig.bind(6, GROUP, 5000, PEER + 5);
    UdpFrame frame;
    frame.dst = GROUP;
    rig.entry(2).tage_nuv_tag = 0x8002;
    rig.ring.put({{frame.bytes(), 6}});
    EXPECT_EQ(rig.recv().info.chan, two);
    rig.entry(2).tage_channel = nullptr;
    rig.ring.put({{frame.bytes(), 6}});
    EXPECT_EQ(rig.recv().info.chan, one);
}

TEST(DatagramSource, EntryItselfWithoutChannel_LowerOneTakesIt_ElseBadFilter)
{
    for (bool lower : {true, false}) {
        RigEndpoint rig;
        ruk__channel *low = lower ? rig.bind(1, GROUP, 5000, PEER) : nullptr;
        rig.bind(6, GROUP, 5000, PEER);
        rig.entry(6).tage_channel = nullptr;
        UdpFrame frame;
        frame.dst = GROUP;
        if (lower) {
            rig.ring.put({{frame.bytes(), 6}});
            EXPECT_EQ(rig.recv().info.chan, low);
        } else {
            expect_dropped(rig, frame.bytes(), 6, BADFILTER);
        }
    }
}

TEST(DatagramSource, EntriesOfAnotherBlock_NotWalked)
{
    RigEndpoint rig;
    rig.bind(127, GROUP, 5000, PEER);
    rig.bind(130, GROUP, 5000, PEER + 1);
    UdpFrame frame;
    frame.dst = GROUP;
    expect_dropped(rig, frame.bytes(), 130, BADFILTER);
}

TEST(DatagramSource, FirstEntryOfTheBlock_StillReached)
{
    RigEndpoint rig;
    ruk__channel *chan = rig.bind(128, GROUP, 5000, PEER);
    rig.bind(255, GROUP, 5000, PEER + 1);
    UdpFrame frame;
    frame.dst = GROUP;
    rig.ring.put({{frame.bytes(), 255}});
    EXPECT_EQ(rig.recv().info.chan, chan);
}

/* ------------------------------------------------------------------ peeking */

TEST(DatagramPeek, Peek_ToldButNeitherCopiedNorConsumedNorDated)
{
    Scoped<uint32_t> api(ruk__api_version, 4);
    RigEndpoint rig;
    ruk__channel *chan = rig.bind(0, HOST, 5000);
    rig.ep->rep_timestamping_enabled = 1;
    rig.clock_is_ticks();
    EventOptions options;
    options.ticks = 99;
    rig.ring.put({{udp_frame("abc"), 0}}, options);
    for (int i = 1; i <= 3; i++) {
        Received got = rig.recv(RUK_RECV_PEEK);
        EXPECT_EQ(got.rc, 0);
        EXPECT_EQ(got.info.chan, chan);
        EXPECT_EQ(got.info.msg_len, 3u);
        EXPECT_EQ(got.info.sin_from.sin_port, htons(40000));
        EXPECT_EQ(got.info.timestamp, 0xeeeeeeeeeeeeeeeeu);
        EXPECT_EQ(got.data, Bytes(2048, 0xee));
        EXPECT_EQ(rig.ep->rep_num_packets, static_cast<uint64_t>(i)); /* each look counts */
        EXPECT_EQ(rig.flow32(0), 0u);
    }
    Received got = rig.recv(RUK_RECV_DEFAULT);
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(head(got, 3), text("abc"));
    EXPECT_EQ(got.info.timestamp, 99u);
    EXPECT_EQ(rig.recv(RUK_RECV_PEEK).rc, EAGAIN);
}

TEST(DatagramPeek, PeekMsg_CopiedButNeitherConsumedNorDated)
{
    Scoped<uint32_t> api(ruk__api_version, 4);
    RigEndpoint rig;
    rig.bind(0, HOST, 5000);
    rig.ring.put({{udp_frame("abc"), 0}, {udp_frame("def"), 0}});
    for (int i = 0; i < 2; i++) {
        Received got = rig.recv(RUK_RECV_PEEK_MSG);
        EXPECT_EQ(got.rc, 0);
        EXPECT_EQ(head(got, 4), (Bytes{'a', 'b', 'c', 0xee}));
        EXPECT_EQ(got.info.timestamp, 0xeeeeeeeeeeeeeeeeu);
    }
    EXPECT_EQ(head(rig.recv(), 3), text("abc"));
    EXPECT_EQ(head(rig.recv(RUK_RECV_PEEK_MSG), 3), text("def"));
    EXPECT_EQ(head(rig.recv(), 3), text("def"));
    EXPECT_EQ(rig.recv(RUK_RECV_PEEK_MSG).rc, EAGAIN);
}

TEST(DatagramPeek, BadFrameFirst_DroppedEvenByAPeek)
{
    RigEndpoint rig;
    rig.bind(0, HOST, 5000);
    rig.ring.put({{udp_frame("no"), 9}, {udp_frame("abc"), 0}});
    Received got = rig.recv(RUK_RECV_PEEK);
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(got.info.msg_len, 3u);
    EXPECT_EQ(counters(rig), only(BADFILTER));
    EXPECT_EQ(head(rig.recv(), 3), text("abc"));
    EXPECT_EQ(counters(rig), only(BADFILTER));
}

/* The datagram behind it is told, but not dated: what stays is the time of the one before. */
TEST(DatagramPeek, BadFrameFirst_ItsTimeInTheInfo)
{
    for (uint32_t version : {1u, 2u}) {
        for (auto mode : {RUK_RECV_PEEK, RUK_RECV_PEEK_MSG}) {
            Scoped<uint32_t> api(ruk__api_version, version);
            const uint64_t time = version > 1 ? 555 : 0xeeeeeeeeeeeeeeee;
            RigEndpoint rig;
            rig.bind(0, HOST, 5000);
            rig.ep->rep_timestamping_enabled = 1;
            rig.clock_is_ticks();
            EventOptions options;
            options.ticks = 555;
            rig.ring.put({{udp_frame("no"), 9}}, options);
            options.ticks = 777;
            rig.ring.put({{udp_frame("abc"), 0}}, options);
            Received got = rig.recv(mode);
            EXPECT_EQ(got.rc, 0);
            EXPECT_EQ(got.info.msg_len, 3u);
            EXPECT_EQ(got.info.timestamp, time) << "mode " << mode;
            EXPECT_EQ(rig.recv(mode).info.timestamp, 0xeeeeeeeeeeeeeeeeu) << "no frame was dropped";
            EXPECT_EQ(rig.recv().info.timestamp, version > 1 ? 777u : 0xeeeeeeeeeeeeeeeeu);

            options.ticks = 999;
            rig.ring.put({{udp_frame("no"), 9}}, options);
            got = rig.recv(mode);
            EXPECT_EQ(got.rc, EAGAIN);
            EXPECT_EQ(got.info.timestamp, version > 1 ? 999u : 0xeeeeeeeeeeeeeeeeu);
            EXPECT_EQ(rig.flow32(0), 3u);
        }
    }
}

/* ------------------------------------------------------------------ filter modes without channels */

namespace {

/* The frame, untagged and tagged, is told with its addresses and without a channel; `delivered` are its bytes. */
template <typename Delivered>
void expect_without_channel(enum ruk_filter_mode mode, UdpFrame frame, const Delivered &delivered)
{
    for (const std::optional<uint16_t> vlan : {std::optional<uint16_t>(), std::optional<uint16_t>(12)}) {
        RigEndpoint rig;
        rig.ep->rep_recvq_filter_mode = mode;
        frame.vlan = vlan;
        rig.ring.put({{frame.bytes(), 0xffff}});
        const Received got = rig.recv();
        EXPECT_EQ(got.rc, 0);
        EXPECT_EQ(got.info.chan, nullptr);
        EXPECT_EQ(got.info.chan_context, nullptr);
        EXPECT_EQ(got.info.sin_from.sin_family, AF_INET);
        EXPECT_EQ(got.info.sin_to.sin_family, 0xeeee); /* left as the caller had it */
        EXPECT_EQ(got.info.sin_from.sin_addr.s_addr, htonl(PEER));
        EXPECT_EQ(got.info.sin_to.sin_addr.s_addr, htonl(frame.dst));
        EXPECT_EQ(got.info.sin_from.sin_port, htons(40000));
        EXPECT_EQ(got.info.sin_to.sin_port, htons(5000));
        const Bytes bytes = delivered(frame);
        EXPECT_EQ(got.info.msg_len, bytes.size());
        EXPECT_EQ(head(got, bytes.size()), bytes);
        EXPECT_EQ(rig.ep->rep_num_packets, 1u);
    }
}

} // namespace

TEST(DatagramAllmulti, AnyIpv4_DeliveredWithoutChannel)
{
    UdpFrame frame;
    frame.dst = GROUP;
    frame.payload = pattern(50);
    expect_without_channel(RUK_RECV_FILTER_ALLMULTI, frame, [](const UdpFrame &f) { return f.payload; });
}

TEST(DatagramAllmulti, NotUdp_PortsZeroAndLengthFromWhereUdpHasIt)
{
    RigEndpoint rig;
    rig.ep->rep_recvq_filter_mode = RUK_RECV_FILTER_ALLMULTI;
    UdpFrame frame;
    frame.protocol = 2;
    frame.payload = pattern(30);
    frame.udp_len = 8 + 11;
    rig.ring.put({{frame.bytes(), 0}});
    Received got = rig.recv();
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(got.info.sin_from.sin_port, 0);
    EXPECT_EQ(got.info.sin_to.sin_port, 0);
    EXPECT_EQ(got.info.msg_len, 11u);
}

TEST(DatagramAllmulti, OtherTypesAndRunts_StillDropped)
{
    RigEndpoint rig;
    rig.ep->rep_recvq_filter_mode = RUK_RECV_FILTER_ALLMULTI;
    UdpFrame arp;
    arp.ethertype = 0x0806;
    Bytes runt = UdpFrame().bytes();
    runt.resize(43);
    rig.ring.put({{arp.bytes(), 0}, {runt, 0}});
    EXPECT_EQ(rig.recv().rc, EAGAIN);
    EXPECT_EQ(counters(rig), (std::array<uint64_t, 12>{1, 0, 0, 1}));
}

TEST(DatagramRawMode, ArpFrame_WholeFrameWithItsLengthLessTwo)
{
    RigEndpoint rig;
    rig.ep->rep_recvq_filter_mode = RUK_RECV_FILTER_RAW;
    Bytes arp = Bytes(12, 3) + be16(0x0806) + pattern(46) + be32(0x01020304);
    rig.ring.put({{arp, 0xffff}});
    Received got = rig.recv();
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(got.info.chan, nullptr);
    EXPECT_EQ(got.info.chan_context, nullptr);
    EXPECT_EQ(got.info.msg_len, arp.size() - 2);
    EXPECT_EQ(head(got, arp.size() - 2), Bytes(arp.begin(), arp.end() - 2));
    EXPECT_EQ(got.data[arp.size() - 2], 0xee);
    const Bytes untouched(sizeof(sockaddr_in), 0xee);
    EXPECT_EQ(memcmp(&got.info.sin_from, untouched.data(), untouched.size()), 0);
    EXPECT_EQ(memcmp(&got.info.sin_to, untouched.data(), untouched.size()), 0);
    EXPECT_EQ(rig.ep->rep_num_packets, 1u);
}

TEST(DatagramRawMode, Ipv4Frame_WholeFrameWithAddresses)
{
    UdpFrame frame;
    frame.dst = HOST;
    frame.src = PEER;
    frame.payload = pattern(100);
    expect_without_channel(RUK_RECV_FILTER_RAW, frame, [](const UdpFrame &f) {
        Bytes bytes = f.bytes();
        bytes.resize(bytes.size() - 2);
        return bytes;
    });
}

TEST(DatagramRawMode, Runt_Delivered)
{
    RigEndpoint rig;
    rig.ep->rep_recvq_filter_mode = RUK_RECV_FILTER_RAW;
    Bytes runt = UdpFrame().bytes();
    runt.resize(20);
    rig.ring.put({{runt, 0}});
    Received got = rig.recv();
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(got.info.msg_len, 18u);
    EXPECT_EQ(head(got, 18), Bytes(runt.begin(), runt.begin() + 18));
    EXPECT_EQ(counters(rig), (std::array<uint64_t, 12>{}));
}

/* ------------------------------------------------------------------ the ring's end */

TEST(DatagramWrap, EveryPlaceAndManySizes_DeliveredIntact)
{
    RigEndpoint::Options options;
    options.ring = 2048;
    RigEndpoint rig(options);
    rig.bind(0, HOST, 5000);
    UdpFrame frame;
    unsigned n = 0;
    for (bool tagged : {false, true}) {
        frame.vlan = tagged ? std::optional<uint16_t>(5) : std::nullopt;
        for (size_t size = 2; size <= 1472; size += 7) {
            for (uint8_t offset = 32; offset < 96; offset = static_cast<uint8_t>(offset + 4)) {
                frame.payload = pattern(size, ++n);
                EventOptions event;
                event.offset = offset;
                rig.ring.put({{frame.bytes(), 0}}, event);
                Received got = rig.recv(RUK_RECV_DEFAULT);
                ASSERT_EQ(got.rc, 0);
                ASSERT_EQ(got.info.msg_len, size);
                ASSERT_EQ(head(got, size), frame.payload) << "size " << size << ", offset " << unsigned{offset};
                ASSERT_EQ(got.info.sin_from.sin_addr.s_addr, htonl(PEER));
                ASSERT_EQ(got.info.sin_to.sin_port, htons(5000));
            }
        }
    }
    EXPECT_EQ(counters(rig), (std::array<uint64_t, 12>{}));
}

TEST(DatagramWrap, EventEndsExactlyAtTheEnd_DeliveredAndTheNextOneFromTheBase)
{
    for (bool locks : {false, true})
        for (size_t length = 128; length <= 512; length += 64)
            for (bool fullest : {false, true}) {
                SCOPED_TRACE(testing::Message() << length << (fullest ? " fullest" : "") << (locks ? " locks" : ""));
                RigEndpoint::Options settings;
                settings.ring = 1024;
                settings.locks = locks;
                RigEndpoint rig(settings);
                ruk__channel *chan = rig.bind(0, HOST, 5000);
                ASSERT_NO_FATAL_FAILURE(advance_from_base(rig, 1024 - length));
                UdpFrame frame;
                /* Header 32, slot 8 and 4, frame 42 and 4 bytes; the trailer ends 4 bytes before the ring, or early. */
                frame.payload = pattern(fullest ? length - 90 : std::max(length, size_t{153}) - 153, 3);
                rig.ring.put({{frame.bytes(), 0}});
                ASSERT_EQ(rig.ring.last_length(), length);
                ASSERT_EQ(rig.ring.position(), 0u);
                rig.ring.put({{udp_frame("next"), 0}});
                const Bytes before = whole_ring(rig);

                Received got = rig.recv();
                EXPECT_EQ(got.rc, 0);
                EXPECT_EQ(got.info.chan, chan);
                EXPECT_EQ(got.info.msg_len, frame.payload.size());
                EXPECT_EQ(head(got, frame.payload.size() + 1), frame.payload + Bytes{0xee});
                const Bytes after = with_free_slots(before, 1024 - length, length);
                EXPECT_EQ(whole_ring(rig), after);
                EXPECT_EQ(rig.ep->rep_eventq.evq_recvq_offset, 0u);
                EXPECT_EQ(rig.ep->rep_eventq.evq_recvq_flow, 1024u);
                EXPECT_EQ(rig.flow64(16), 0u);
                EXPECT_EQ(rig.flow32(0), 2u) << "events";

                EXPECT_EQ(head(rig.recv(), 5), text("next") + Bytes{0xee});
                EXPECT_EQ(whole_ring(rig), with_free_slots(after, 0, 128));
                EXPECT_EQ(rig.flow64(16), 128u);
                EXPECT_EQ(rig.flow32(0), 3u);
                EXPECT_EQ(counters(rig), (std::array<uint64_t, 12>{}));
                EXPECT_EQ(rig.ep->rep_num_packets, 2u);
                expect_drained(rig);
            }
}

TEST(DatagramWrap, EachByteOfTheHeadersFirstPastTheEnd_Delivered)
{
    /* The frame begins from 64 bytes before the ring's end to 64 behind it. */
    for (int ahead = 64; ahead >= -64; ahead -= 1) {
        for (bool tagged : {false, true}) {
            RigEndpoint::Options options;
            options.ring = 1024;
            RigEndpoint rig(options);
            rig.bind(0, HOST, 5000);
            rig.ep->rep_recvq_filter_mode = RUK_RECV_FILTER_NORMAL;
            UdpFrame filler;
            filler.payload = pattern(718); /* 764 bytes: 832 in the ring */
            rig.ring.put({{filler.bytes(), 0}});
            ASSERT_EQ(rig.recv().rc, 0);
            ASSERT_EQ(rig.ring.position(), 832u);
            UdpFrame frame;
            frame.payload = pattern(90, 5);
            if (tagged)
                frame.vlan = 1;
            EventOptions event;
            event.offset = static_cast<uint8_t>(1024 - 832 - ahead - 8);
            rig.ring.put({{frame.bytes(), 0}}, event);
            Received got = rig.recv();
            ASSERT_EQ(got.rc, 0) << ahead;
            ASSERT_EQ(head(got, 90), frame.payload) << ahead;
            ASSERT_EQ(got.info.sin_from.sin_addr.s_addr, htonl(PEER)) << ahead;
            ASSERT_EQ(got.info.sin_from.sin_port, htons(40000)) << ahead;
        }
    }
}

/* ------------------------------------------------------------------ random frames against a model */

namespace {

/* What should become of a frame, from its bytes and a plain list of the tags in use. */
struct Model {
    struct Entry {
        uint32_t dst = 0, src = 0;
        uint16_t port = 0;
        ruk_channel_t chan = nullptr;
        bool delayed = false;
    };
    std::map<unsigned, Entry> entries;
    unsigned tags = 0; /* of the allocated blocks */
    unsigned filter_mode = 0;
    uint32_t broadcast = 0;

    struct Fate {
        int counter = -1; /* dropped there */
        ruk_channel_t chan = nullptr;
        bool addresses = false;
        uint32_t src = 0, dst = 0;
        uint16_t sport = 0, dport = 0;
        uint32_t msg_len = 0;
        size_t data = 0; /* where the payload starts in the frame */
    };

    static uint64_t field(const Bytes &f, size_t at, size_t n)
    {
        uint64_t v = 0;
        while (n-- > 0)
            v = v << 8 | f.at(at++);
        return v;
    }

    Fate fate(const Bytes &f, uint16_t tag) const
    {
        Fate fate;
        const bool raw = filter_mode == 2;
        const uint64_t type = field(f, 12, 2);
        const size_t ip = type == 0x8100 ? 18 : 14;
        if (type != 0x0800 && type != 0x8100) {
            fate.counter = raw ? -1 : static_cast<int>(BADPROTO);
            fate.msg_len = static_cast<uint32_t>(f.size() - 2);
            return fate;
        }
        if (!raw && f.size() < ip + 30) {
            fate.counter = RUNTS;
            return fate;
        }
        const bool is_udp = field(f, ip + 9, 1) == 17;
        fate.addresses = true;
        fate.src = static_cast<uint32_t>(field(f, ip + 12, 4));
        fate.dst = static_cast<uint32_t>(field(f, ip + 16, 4));
        if (filter_mode == 0 || is_udp) {
            fate.sport = static_cast<uint16_t>(field(f, ip + 20, 2));
            fate.dport = static_cast<uint16_t>(field(f, ip + 22, 2));
        }
        fate.msg_len = raw ? static_cast<uint32_t>(f.size() - 2) : static_cast<uint32_t>(field(f, ip + 24, 2)) - 8;
        fate.data = raw ? 0 : ip + 28;
        if (filter_mode == 0)
            find(tag, &fate);
        return fate;
    }

    void find(uint16_t tag, Fate *fate) const
    {
        auto at = entries.find(tag);
        if (tag >= tags || (at != entries.end() && at->second.delayed)) {
            fate->counter = NOSOCK;
            return;
        }
        if (at == entries.end()) { /* an entry never used: its port is 0 */
            fate->counter = BADFILTER;
            return;
        }
        const Entry &entry = at->second;
        if (entry.port != fate->dport) {
            fate->counter = BADFILTER;
        } else if (entry.dst == 0xffffffff) {
            fate->chan = entry.chan;
            if (fate->dst != 0xffffffff && fate->dst != broadcast)
                fate->counter = BROADCAST;
        } else if (entry.src == 0) {
            fate->chan = entry.chan;
            if (fate->dst != entry.dst)
                fate->counter = BADFILTER;
        } else {
            fate->counter = BADFILTER;
            for (int t = tag; t >= tag / 128 * 128 && fate->counter >= 0; t--) {
                auto other = entries.find(static_cast<unsigned>(t));
                if (other == entries.end() || other->second.src != fate->src || other->second.dst != fate->dst)
                    continue;
                fate->chan = other->second.chan;
                fate->counter = -1;
            }
        }
    }
};

/* Small ranges, so that everything meets everything. */
uint32_t some_address(std::mt19937 &random)
{
    const uint32_t choice[] = {HOST, PEER, PEER + 1, GROUP, GROUP + 1, 0xffffffff, 0x0a4d00ff, 0x0a4e00ff};
    return choice[random() % 8];
}

} // namespace

TEST(DatagramRandom, FramesTagsAndModes_AsTheModelSays)
{
    Scoped<uint32_t> api(ruk__api_version, 4);
    for (unsigned seed = 1; seed <= 60; seed++) {
        std::mt19937 random(seed);
        RigEndpoint::Options options;
        options.ring = 4096;
        RigEndpoint rig(options);
        Model model;
        model.broadcast = 0x0a4d00ff;
        rig.mif.tov_ifa_bcastaddr = htonl(model.broadcast);
        const unsigned last = 1 + random() % 300;
        for (unsigned i = 0; i < 40; i++) {
            const auto tag = static_cast<uint16_t>(random() % (last + 1));
            Model::Entry e;
            e.dst = some_address(random);
            e.port = static_cast<uint16_t>(5000 + random() % 2);
            e.src = random() % 2 ? 0 : PEER + random() % 2;
            e.chan = rig.bind(tag, e.dst, e.port, e.src);
            e.delayed = random() % 10 == 0;
            rig.entry(tag).tage_nuv_tag = static_cast<uint16_t>(tag | (e.delayed ? 0x8000 : 0));
            model.entries[tag] = e;
        }
        model.tags = static_cast<unsigned>(rig.ep->rep_tag_cnt) * 128;

        std::array<uint64_t, 12> expected_counters = {};
        uint64_t delivered = 0;
        for (int round = 0; round < 400; round++) {
            model.filter_mode = round / 50 % 4 == 3 ? 1 + random() % 2 : 0;
            rig.ep->rep_recvq_filter_mode = static_cast<ruk_filter_mode>(model.filter_mode);
            std::vector<Packet> packets;
            for (unsigned n = 1 + random() % 5; n != 0; n--) {
                UdpFrame frame;
                frame.src = some_address(random);
                frame.dst = some_address(random);
                frame.sport = static_cast<uint16_t>(random());
                frame.dport = static_cast<uint16_t>(5000 + random() % 2);
                frame.protocol = random() % 4 ? 17 : 6;
                frame.payload = pattern(random() % 200, static_cast<unsigned>(random()));
                const uint16_t types[] = {0x0800, 0x0800, 0x0800, 0x0806, 0x86dd};
                frame.ethertype = types[random() % 5];
                if (random() % 3 == 0)
                    frame.vlan = static_cast<uint16_t>(random());
                Bytes bytes = frame.bytes();
                if (random() % 10 == 0)
                    bytes.resize(42 + random() % 8); /* the least that is told from a runt, more or less */
                auto tag = static_cast<uint16_t>(random() % (last + 40));
                if (random() % 2) { /* a tag in use */
                    auto it = model.entries.begin();
                    std::advance(it, static_cast<long>(random() % model.entries.size()));
                    tag = static_cast<uint16_t>(it->first);
                }
                packets.push_back({bytes, tag});
            }
            rig.ring.put(packets);
            const size_t buffer = random() % 3 ? 512 : random() % 64;
            for (const Packet &packet : packets) {
                const Model::Fate fate = model.fate(packet.frame, packet.tag);
                if (fate.counter >= 0) {
                    expected_counters[static_cast<size_t>(fate.counter)]++;
                    continue;
                }
                delivered++;
                Received got = rig.recv(RUK_RECV_NONBLOCK, buffer);
                ASSERT_EQ(got.rc, 0) << "seed " << seed << ", round " << round;
                ASSERT_EQ(counters(rig), expected_counters) << "seed " << seed << ", round " << round;
                ASSERT_EQ(got.info.chan, fate.chan);
                ASSERT_EQ(got.info.chan_context, fate.chan ? fate.chan->ch_ucontext : nullptr);
                ASSERT_EQ(got.info.msg_len, fate.msg_len);
                if (fate.addresses) {
                    ASSERT_EQ(got.info.sin_from.sin_addr.s_addr, htonl(fate.src));
                    ASSERT_EQ(got.info.sin_to.sin_addr.s_addr, htonl(fate.dst));
                    ASSERT_EQ(got.info.sin_from.sin_port, htons(fate.sport));
                    ASSERT_EQ(got.info.sin_to.sin_port, htons(fate.dport));
                }
                const size_t there = packet.frame.size() - fate.data;
                const size_t n = std::min({buffer, static_cast<size_t>(fate.msg_len), there});
                ASSERT_EQ(head(got, n), Bytes(packet.frame.begin() + static_cast<long>(fate.data),
                                              packet.frame.begin() + static_cast<long>(fate.data + n)))
                    << "seed " << seed << ", round " << round;
            }
            ASSERT_EQ(rig.recv().rc, EAGAIN);
            ASSERT_EQ(counters(rig), expected_counters) << "seed " << seed << ", round " << round;
            ASSERT_EQ(rig.ep->rep_num_packets, delivered);
        }
    }
}
