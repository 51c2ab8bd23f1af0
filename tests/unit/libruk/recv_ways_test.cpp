/*
 * An endpoint without locks receives common datagrams by quick functions of their own, one with locks all of them by
 * the general one. The same events, settings and calls are given to one of each: nobody can tell them apart.
 */
#include "capture.h"
#include "recv_rig.h"
#include "sanitizer.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace recv_ways {

using namespace recv_rig;

namespace {

constexpr uint32_t HOST = 0x0a4d0001;             /* 10.77.0.1 */
constexpr uint32_t PEER = 0x0a4d0002;             /* 10.77.0.2 */
constexpr uint32_t GROUP = 0xe0010203;            /* 224.1.2.3 */
constexpr uint32_t SUBNET_BROADCAST = 0x0a4d00ff; /* 10.77.0.255 */
constexpr uint32_t EVERYBODY = 0xffffffff;
constexpr size_t AROUND = 96; /* bytes before and after a buffer that must stay as they were */

/* ------------------------------------------------------------------ what differs */

class Differences {
public:
    void number(const char *name, uint64_t quick, uint64_t general, int index = -1)
    {
        if (quick == general)
            return;
        begin(name, index);
        text_ += std::to_string(quick) + " without locks, " + std::to_string(general) + " with them";
    }
    void bytes(const char *name, const void *quick, const void *general, size_t n)
    {
        const auto *a = static_cast<const uint8_t *>(quick), *b = static_cast<const uint8_t *>(general);
        if (memcmp(a, b, n) == 0)
            return;
        const auto at = static_cast<size_t>(std::mismatch(a, a + n, b).first - a);
        begin(name, -1);
        text_ += "first at byte " + std::to_string(at) + " of " + std::to_string(n) + ": " + std::to_string(a[at]) +
                 " without locks, " + std::to_string(b[at]) + " with them";
    }
    const std::string &text() const { return text_; }

private:
    void begin(const char *name, int index)
    {
        text_ += std::string("\n  ") + name;
        if (index >= 0)
            text_ += " " + std::to_string(index);
        text_ += ": ";
    }
    std::string text_;
};

/* A pointer as what it means in either endpoint; a null one as all ones. */
uint64_t place(const void *p, const void *base)
{
    return p ? static_cast<uint64_t>(static_cast<const uint8_t *>(p) - static_cast<const uint8_t *>(base))
             : ~uint64_t{0};
}

/* Their channels are numbers. */
void compare_infos(Differences &d, const ruk_recv_info &quick, const ruk_recv_info &general)
{
    d.bytes("chan", &quick.chan, &general.chan, sizeof quick.chan);
    d.bytes("chan_context", &quick.chan_context, &general.chan_context, sizeof quick.chan_context);
    d.bytes("sin_from", &quick.sin_from, &general.sin_from, sizeof quick.sin_from);
    d.bytes("sin_to", &quick.sin_to, &general.sin_to, sizeof quick.sin_to);
    d.number("msg_len", quick.msg_len, general.msg_len);
    d.number("timestamp", quick.timestamp, general.timestamp);
    d.bytes("info", &quick, &general, sizeof quick); /* all the rest, too */
}

void compare_counters(Differences &d, const ruk__epstats &quick, const ruk__epstats &general)
{
    uint64_t q[12], g[12];
    static_assert(sizeof q == sizeof quick);
    memcpy(q, &quick, sizeof q);
    memcpy(g, &general, sizeof g);
    for (int i = 0; i < 12; i++)
        d.number("counter of rep_stats", q[i], g[i], i);
}

/* The whole state of two event queues. */
void compare_events(Differences &d, const ruk__eventq &quick, const ruk__eventq &general)
{
    const ruk__event_state &q = quick.evq_recvq_state, &g = general.evq_recvq_state;
    const auto in_ring = [](const ruk__eventq &evq, uintptr_t at) {
        return static_cast<uint64_t>(at - evq.evq_recvq_base);
    };
    d.number("evq_recvq_offset", quick.evq_recvq_offset, general.evq_recvq_offset);
    d.number("evq_recvq_flow", quick.evq_recvq_flow, general.evq_recvq_flow);
    d.number("evs_timestamp", q.evs_timestamp, g.evs_timestamp);
    d.number("evs_timestamp_last", q.evs_timestamp_last, g.evs_timestamp_last);
    d.number("evs_length", q.evs_length, g.evs_length);
    d.number("evs_length_pkts", q.evs_length_pkts, g.evs_length_pkts);
    d.number("evs_pkt_cnt", q.evs_pkt_cnt, g.evs_pkt_cnt);
    d.number("evs_uevt_cur", in_ring(quick, reinterpret_cast<uintptr_t>(q.evs_uevt_cur)),
             in_ring(general, reinterpret_cast<uintptr_t>(g.evs_uevt_cur)));
    d.number("evs_pkt_cur", place(q.evs_pkt_cur, q.evs_pkts), place(g.evs_pkt_cur, g.evs_pkts));
    for (int i = 0; i < std::min<int>(g.evs_pkt_cnt, 5); i++) {
        const ruk__evpacket &a = q.evs_pkts[i], &b = g.evs_pkts[i];
        d.number("pkt of packet", in_ring(quick, reinterpret_cast<uintptr_t>(a.pkt)),
                 in_ring(general, reinterpret_cast<uintptr_t>(b.pkt)), i);
        d.number("tag of packet", a.tag, b.tag, i);
        d.number("length of packet", a.length, b.length, i);
        d.number("offset of packet", a.offset, b.offset, i);
        d.number("nfrags of packet", a.nfrags, b.nfrags, i);
        d.number("timestamp of packet", a.timestamp, b.timestamp, i);
        d.number("evp_next of packet", place(a.evp_next, q.evs_pkts), place(b.evp_next, g.evs_pkts), i);
    }
}

/* ------------------------------------------------------------------ one call */

struct Call {
    enum ruk_recvmode mode = RUK_RECV_NONBLOCK;
    size_t len = 2048;
    size_t shift = 0; /* the buffer begins anywhere */
    bool prints = false;
};

struct Outcome {
    int rc = -1;
    ruk_recv_info info;
    Bytes memory = {}; /* the buffer amid others */
    std::string said = {};
};

/* An endpoint and its channels in the order of their binding. */
struct Side {
    explicit Side(const RigEndpoint::Options &options) : rig(options) {}

    Outcome receive(const Call &call)
    {
        Outcome o;
        memset(&o.info, 0xee, sizeof o.info);
        o.memory.assign(AROUND + call.shift + call.len + AROUND, 0xa5);
        uint8_t *const buf = o.memory.data() + AROUND + call.shift;
        if (call.prints) {
            test_support::StreamCapture streams;
            o.rc = ruk_recvfrom(rig.ep, call.mode, buf, call.len, &o.info);
            o.said = streams.err();
        } else {
            o.rc = ruk_recvfrom(rig.ep, call.mode, buf, call.len, &o.info);
        }
        const auto chan = std::find(channels.begin(), channels.end(), o.info.chan);
        if (chan != channels.end()) /* by its number, as the other side's */
            o.info.chan = reinterpret_cast<ruk_channel_t>(static_cast<uintptr_t>(1 + chan - channels.begin()));
        return o;
    }

    RigEndpoint rig;
    std::vector<ruk__channel *> channels = {};
};

/* How often what was met; what a test asks for and nobody counts is 0. */
using Met = std::map<std::string, unsigned>;

/* ------------------------------------------------------------------ two endpoints with one life */

class Life {
public:
    Life(unsigned seed, Met &met)
        : random_(seed), met_(met), ring_(seed % 2 ? 4096 : 8192), quick_(options(ring_, false)),
          general_(options(ring_, true)), odd_clock_(seed % 3 == 0)
    {
        /* Anywhere in the ring, and often with the count of 4096 bytes about to pass 32 bits. */
        const size_t offset = 64 * below(ring_ / 64);
        const uint64_t flow = (uint64_t{1} << (below(2) ? 44 : 20)) - 64 * below(2000);
        both([&](Side &side) {
            ruk__eventq &evq = side.rig.ep->rep_eventq;
            evq.evq_recvq_offset = offset;
            evq.evq_recvq_flow = flow;
            evq.evq_recvq_state.evs_uevt_cur =
                reinterpret_cast<volatile nuv_uevt_ruk_t *>(side.rig.ring.base() + offset);
            side.rig.ring.seek(offset);
            side.rig.mif.tov_ifa_bcastaddr = htonl(SUBNET_BROADCAST);
        });
        flow_ = flow;

        /* 1. Tags whose datagrams are always delivered. */
        bind(0, HOST, 5000);
        bind(1, HOST, 5001);
        bind(2, GROUP, 5002);
        bind(200, HOST, 5003);
        sure_ = entries_.size();
        /* 2. Broadcasts, sources of a group in one block, released and delayed ones. */
        bind(3, EVERYBODY, 5004);
        bind(10, GROUP + 1, 5005, PEER);
        bind(11, GROUP + 1, 5005, PEER + 1);
        bind(12, GROUP + 2, 5005, PEER + 1);
        for (uint16_t tag : {20, 21, 22})
            bind(tag, tag == 22 ? EVERYBODY : HOST, static_cast<uint16_t>(5000 + tag));
        both([](Side &side) {
            side.rig.entry(20).tage_nuv_tag |= 0x8000;
            side.rig.entry(21).tage_channel = nullptr;
            side.rig.entry(22).tage_channel = nullptr;
        });

        const bool skew = below(2), check_rate = below(2);
        both([&](Side &side) {
            side.rig.ep->arista_control.arct_kf_hasskew = skew;
            side.rig.ep->arista_control.arct_kf_check_rate = check_rate;
        });
        set_clock();
    }

    /* Text that says where the two differ; empty when nowhere. */
    std::string round()
    {
        for (size_t events = below(3); events != 0; events--)
            put_event();
        for (size_t calls = 1 + below(3); calls != 0; calls--) {
            change_settings();
            const std::string differences = receive(some_call());
            if (!differences.empty())
                return differences;
        }
        return {};
    }

    /* What is left is received; the queue is then empty in the same place. */
    std::string drain()
    {
        both([](Side &side) {
            side.rig.ep->rep_recvq_filter_mode = RUK_RECV_FILTER_NORMAL;
            side.rig.ep->rep_inuse = 0;
            side.rig.ep->rep_state = REP_STATE_OPEN;
        });
        for (int i = 0; i < 1000; i++) {
            Call call;
            call.prints = may_print();
            int rc = 0;
            const std::string differences = receive(call, &rc);
            if (!differences.empty())
                return differences;
            if (rc == EAGAIN)
                return consumed() == put_ ? "" : "\n  an empty queue before all was consumed";
        }
        return "\n  the queue does not become empty";
    }

private:
    struct Entry {
        uint16_t tag;
        uint32_t dst;
        uint16_t port;
        uint32_t src;
    };

    static RigEndpoint::Options options(size_t ring, bool locks)
    {
        RigEndpoint::Options o;
        o.ring = ring;
        o.locks = locks;
        return o;
    }

    size_t below(size_t n) { return static_cast<size_t>(random_() % n); }
    bool one_in(size_t n) { return below(n) == 0; }
    uint64_t bits(unsigned most) { return random_() >> (64 - 1 - below(most)); } /* a number of any size */

    template <typename Do> void both(Do what)
    {
        what(quick_);
        what(general_);
    }

    void bind(uint16_t tag, uint32_t dst, uint16_t port, uint32_t src = 0)
    {
        entries_.push_back({tag, dst, port, src});
        both([&](Side &side) { side.channels.push_back(side.rig.bind(tag, dst, port, src)); });
    }

    uint64_t consumed() { return quick_.rig.ep->rep_eventq.evq_recvq_flow - flow_; }

    /* ---------------------------------------------------------------- events */

    size_t some_size()
    {
        const size_t kind = below(12);
        if (kind < 4)
            return 24 + below(48); /* about what is copied in two pieces */
        return kind < 11 ? below(301) : below(1473);
    }

    /* A keyframe, now and then of a wrong length; its times are those of a switch that is in order. */
    void make_keyframe(UdpFrame &frame)
    {
        const bool skew = quick_.rig.ep->arista_control.arct_kf_hasskew;
        frame.protocol = 253;
        frame.payload = pattern(skew ? 54 : 38, static_cast<unsigned>(random_()));
        frame.payload[0] = 0x17;                          /* UTC's first byte */
        frame.payload[skew ? 52 : 36] = below(4) ? 1 : 2; /* the mode */
        if (one_in(4))
            frame.payload.resize(30 + below(40));
    }

    Packet sure_packet()
    {
        const Entry &entry = entries_[below(sure_)];
        UdpFrame frame;
        frame.dst = entry.dst;
        frame.dport = entry.port;
        frame.payload = pattern(std::max<size_t>(some_size(), 6), static_cast<unsigned>(random_()));
        frame.trailer = static_cast<uint32_t>(random_());
        if (one_in(8))
            frame.vlan = static_cast<uint16_t>(random_());
        return {frame.bytes(), entry.tag};
    }

    Packet some_packet()
    {
        const Entry entry = below(3) ? entries_[below(sure_)] : entries_[below(entries_.size())];
        uint16_t tag = entry.tag;
        UdpFrame frame;
        frame.src = entry.src ? entry.src : PEER;
        frame.dst = entry.dst;
        if (entry.dst == EVERYBODY && below(2))
            frame.dst = SUBNET_BROADCAST + (one_in(4) ? 256 : 0);
        frame.sport = static_cast<uint16_t>(random_());
        frame.dport = entry.port;
        frame.trailer = static_cast<uint32_t>(random_());
        const bool runt = one_in(12); /* or nearly one */
        frame.payload = pattern(runt ? below(6) : some_size(), static_cast<unsigned>(random_()));
        if (one_in(6))
            frame.vlan = static_cast<uint16_t>(random_());
        switch (below(20)) {
        case 0:
            frame.ethertype = std::array<uint16_t, 3>{0x86dd, 0x0806, 0x8100}[below(3)];
            break;
        case 1:
            frame.udp_len = static_cast<uint16_t>(below(8));
            break;
        case 2:
            frame.udp_len = static_cast<uint16_t>(8 + below(frame.payload.size() + 1));
            break;
        case 3:
        case 4: /* up to what the slot's, then the event's padding holds, and beyond */
            frame.udp_len = static_cast<uint16_t>(8 + frame.payload.size() + 1 + below(100));
            break;
        case 5:
            frame.udp_len = static_cast<uint16_t>(random_());
            break;
        case 6:
            frame.src = PEER + static_cast<uint32_t>(below(3));
            break;
        case 7:
            frame.dst =
                std::array<uint32_t, 6>{HOST, GROUP, GROUP + 1, GROUP + 2, EVERYBODY, SUBNET_BROADCAST}[below(6)];
            break;
        case 8:
            frame.dport ^= 1;
            break;
        case 9:
            tag = static_cast<uint16_t>(one_in(4) ? random_() : below(300));
            break;
        case 10:
            make_keyframe(frame);
            break;
        default:
            break;
        }
        Packet packet = {frame.bytes(), tag};
        if (runt)
            packet.frame.resize(packet.frame.size() - (below(4) ? below(8) : below(packet.frame.size() + 1)));
        return packet;
    }

    void put_event()
    {
        const bool sure = one_in(3);
        std::vector<Packet> packets;
        for (size_t n = below(5) < 3 ? 1 : 1 + below(5); n != 0; n--)
            packets.push_back(sure && n == 1 ? sure_packet() : some_packet());
        EventOptions o;
        o.ticks = one_in(8) ? 0 : bits(64);
        if (one_in(12))
            o.offset = static_cast<uint8_t>(32 + 16 * below(6));
        if (one_in(10))
            o.extra_slots = static_cast<unsigned>(1 + below(3));

        /* It fits, with a free slot behind it. */
        size_t length = o.offset + 63;
        for (const Packet &p : packets)
            length += (p.frame.size() + 27) / 16 * 16;
        length = length / 64 * 64 + 64 * o.extra_slots;
        if (put_ - consumed() + length + 64 > ring_)
            return;
        const size_t event = quick_.rig.ring.position();
        both([&](Side &side) { side.rig.ring.put(packets, o); });
        ASSERT_EQ(quick_.rig.ring.last_length(), length);
        last_is_sure_ = sure;
        if (!sure)
            length = tell_lies(event, length, packets);
        put_ += length;
    }

    /* Numbers in an event's header that its packets do not bear out. Its length. */
    size_t tell_lies(size_t event, size_t length, const std::vector<Packet> &packets)
    {
        if (one_in(20)) { /* a packet's length */
            const size_t i = below(packets.size());
            const size_t told = packets[i].frame.size() + below(90);
            const Bytes field = be16(told < 30 ? 0 : told - 30);
            both([&](Side &side) {
                side.rig.ring.at(event + 8 + 4 * i) = field[0];
                side.rig.ring.at(event + 9 + 4 * i) = field[1];
            });
        }
        if (one_in(30)) { /* the number of packets */
            const auto count = static_cast<uint8_t>(1 + below(255));
            both([&](Side &side) { side.rig.ring.at(event + 30) = count; });
        }
        if (length > 64 && one_in(20)) { /* the event's length; what it had behind that is free again */
            const size_t told = 64 * (1 + below(length / 64 - 1));
            const Bytes field = be16(told);
            both([&](Side &side) {
                side.rig.ring.at(event + 28) = field[0];
                side.rig.ring.at(event + 29) = field[1];
                side.rig.ring.at(event + told - 1) = 0;
                for (size_t slot = event + told; slot < event + length; slot += 64) {
                    side.rig.ring.at(slot + 30) = 0;
                    side.rig.ring.at(slot + 63) = 0xff;
                }
                side.rig.ring.seek((event + told) % ring_);
            });
            return told;
        }
        return length;
    }

    /* ---------------------------------------------------------------- settings */

    /*
     * The endpoint's own reference point, and the window's with its drift. An odd clock also shows times about 0, and
     * all ones.
     */
    void set_clock()
    {
        oxel_clksync_nticks_t own = {}, window = {};
        uint64_t drift[3] = {}; /* base, drift, multiplier */
        for (oxel_clksync_nticks_t *n : {&own, &window}) {
            n->nt_numerator = n->nt_denominator = 1;
            n->nsecs = odd_clock_ ? 0 : uint64_t{1} << 61;
            if (below(2)) {
                n->ticks = bits(40);
                n->nsecs += bits(60);
                n->nt_numerator = static_cast<uint32_t>(1 + below(1000));
                n->nt_denominator = static_cast<uint32_t>(1 + below(1000));
            }
        }
        own.ticks_mask = one_in(3) ? 0 : ~uint64_t{0} >> below(32);
        if (below(2)) {
            drift[0] = bits(60);
            drift[1] = bits(30) - bits(30);
            drift[2] = bits(30) - bits(30);
        }
        if (odd_clock_ && one_in(3)) { /* every time is the one that marks a keyframe */
            own.nt_numerator = window.nt_numerator = 0;
            own.nsecs = window.nsecs = ~uint64_t{0};
            std::fill(std::begin(drift), std::end(drift), 0);
        }
        const bool forget = below(2);
        both([&](Side &side) {
            side.rig.ep->rep_nticks = own;
            side.rig.window64(68, drift[0]);
            side.rig.window64(76, drift[1]);
            side.rig.window64(84, drift[2]);
            side.rig.window64(100, window.ticks);
            side.rig.window64(108, window.ticks_mask);
            side.rig.window64(116, window.nsecs);
            side.rig.window32(124, window.nt_numerator);
            side.rig.window32(128, window.nt_denominator);
            if (forget)
                side.rig.ep->rep_eventq.evq_recvq_state.evs_timestamp_last = 0;
        });
    }

    void change_settings()
    {
        if (one_in(10))
            both([on = static_cast<uint32_t>(below(2))](Side &side) { side.rig.ep->rep_timestamping_enabled = on; });
        if (one_in(15))
            set_clock();
        if (one_in(12)) {
            const size_t status = below(3) ? 0 : below(2) ? 1 + below(3) : below(7);
            both([&](Side &side) {
                side.rig.ep->arista_control.arct_status = static_cast<enum arista_tsp_status>(status);
            });
        }
        if (one_in(10)) {
            const size_t mode = below(6) ? 0 : 1 + below(2);
            both([&](Side &side) { side.rig.ep->rep_recvq_filter_mode = static_cast<enum ruk_filter_mode>(mode); });
        }
        if (one_in(12))
            ruk__api_version = one_in(4) ? 1 : 2;
        if (one_in(8))
            both([](Side &side) { side.rig.ep->rep_shutdown = 1; });
        const uint32_t inuse = one_in(40),
                       state = one_in(50) ? below(2) ? REP_STATE_ALLOC : REP_STATE_NEEDCLOSE : REP_STATE_OPEN;
        both([&](Side &side) {
            side.rig.ep->rep_inuse = inuse;
            side.rig.ep->rep_state = static_cast<enum rep_state>(state);
        });
    }

    /* Keyframes are reported about: those to come, and those found while the switch still counted. */
    bool may_print() const
    {
        const ruk__event_state &evs = quick_.rig.ep->rep_eventq.evq_recvq_state;
        return odd_clock_ || quick_.rig.ep->arista_control.arct_status != ARISTA_STATUS_DISABLED ||
               std::any_of(evs.evs_pkts, evs.evs_pkts + 5,
                           [](const ruk__evpacket &p) { return p.timestamp == ARISTA_KEYFRAME_MARK; });
    }

    Call some_call()
    {
        Call call;
        call.prints = may_print();
        call.shift = below(16);

        /* The payload's size, if the next packet is what it seems to be. */
        const ruk__eventq &evq = quick_.rig.ep->rep_eventq;
        RingWriter &ring = quick_.rig.ring;
        const size_t at = evq.evq_recvq_offset + 8;
        const size_t frame = evq.evq_recvq_state.evs_pkt_cur ? evq.evq_recvq_state.evs_pkt_cur->length
                                                             : static_cast<size_t>(ring.at(at) << 8 | ring.at(at + 1));
        const size_t payload = frame < 46 ? 0 : std::min<size_t>(frame - 46, 2000);
        switch (below(8)) {
        case 0:
            call.len = 0;
            break;
        case 1:
            call.len = below(payload + 1);
            break;
        case 2:
        case 3:
            call.len = payload;
            break;
        case 4:
            call.len = payload + 1 + below(20);
            break;
        case 5:
            call.len = one_in(8) ? 3 * ring_ + below(100) : below(300); /* sometimes several times round the ring */
            break;
        default:
            break;
        }

        /* A call that waits only for what will come. */
        const bool will_come = last_is_sure_ && consumed() != put_ && !odd_clock_;
        const size_t mode = below(12);
        if (mode == 0)
            call.mode = RUK_RECV_PEEK;
        else if (mode == 1)
            call.mode = RUK_RECV_PEEK_MSG;
        else if (mode < 5 && will_come)
            call.mode = mode == 2 ? RUK_RECV_BLOCK : RUK_RECV_DEFAULT;
        else if (one_in(60))
            call.mode = static_cast<enum ruk_recvmode>(7); /* unknown: consumes as the others while something waits */
        return call;
    }

    /* ---------------------------------------------------------------- receiving */

    /* The quick side before a call. */
    struct Before {
        ruk__epstats stats;
        arista_stats switch_stats;
        ruk__evpacket *current;
        uintptr_t offset;
        uint32_t shutdown;
        bool common; /* as the quick functions want it */
        bool hardware, switched;
        Bytes doorbell;
    };

    std::string receive(const Call &call, int *rc = nullptr)
    {
        const ruk__ep *q = quick_.rig.ep, *g = general_.rig.ep;
        const Before before = {q->rep_stats,
                               q->arista_control.arct_stats,
                               q->rep_eventq.evq_recvq_state.evs_pkt_cur,
                               q->rep_eventq.evq_recvq_offset,
                               q->rep_shutdown,
                               q->rep_inuse == 0 && q->rep_state == REP_STATE_OPEN &&
                                   q->rep_recvq_filter_mode == RUK_RECV_FILTER_NORMAL && call.mode < RUK_RECV_PEEK,
                               q->rep_timestamping_enabled != 0,
                               q->arista_control.arct_status != ARISTA_STATUS_DISABLED,
                               quick_.rig.doorbell()};
        const Outcome quick = quick_.receive(call), general = general_.receive(call);
        if (rc)
            *rc = quick.rc;

        Differences d;
        d.number("return code", static_cast<uint64_t>(quick.rc), static_cast<uint64_t>(general.rc));
        compare_infos(d, quick.info, general.info);
        d.bytes("buffer and what lies around it", quick.memory.data(), general.memory.data(), quick.memory.size());
        d.number("bytes printed", quick.said.size(), general.said.size());
        d.bytes("text printed", quick.said.data(), general.said.data(),
                std::min(quick.said.size(), general.said.size()));
        compare_counters(d, q->rep_stats, g->rep_stats);
        d.number("rep_num_packets", q->rep_num_packets, g->rep_num_packets);
        d.number("rep_inuse", q->rep_inuse, g->rep_inuse);
        d.number("rep_shutdown", q->rep_shutdown, g->rep_shutdown);
        d.number("rep_state", q->rep_state, g->rep_state);
        d.number("arct_status", q->arista_control.arct_status, g->arista_control.arct_status);
        d.bytes("arista_control", &q->arista_control, &g->arista_control, sizeof q->arista_control);
        d.bytes("flow window", quick_.rig.flow_memory.data(), general_.rig.flow_memory.data(),
                quick_.rig.flow_memory.size());
        d.bytes("doorbell", quick_.rig.doorbell().data(), general_.rig.doorbell().data(), 8);
        d.bytes("ring", quick_.rig.ring.base(), general_.rig.ring.base(), ring_);
        compare_events(d, q->rep_eventq, g->rep_eventq);
        if (pthread_mutex_trylock(g->rep_rx_lockp) == 0)
            pthread_mutex_unlock(g->rep_rx_lockp);
        else
            d.number("receive lock held", 0, 1);
        if (!d.text().empty())
            return "\n  mode " + std::to_string(call.mode) + ", buffer of " + std::to_string(call.len) + d.text();
        note(call, before, quick);
        return {};
    }

    void met(bool it, const char *what) { met_[what] += it; }

    /* Counts what was met in a call that both took alike. */
    void note(const Call &call, const Before &before, const Outcome &o)
    {
        const ruk__ep *ep = quick_.rig.ep;
        const ruk__event_state &evs = ep->rep_eventq.evq_recvq_state;
        const ruk__epstats &stats = ep->rep_stats, &old = before.stats;
        met(stats.dropped_badproto != old.dropped_badproto, "badproto");
        met(stats.dropped_badfilter != old.dropped_badfilter, "badfilter");
        met(stats.dropped_nosock != old.dropped_nosock, "nosock");
        met(stats.dropped_runts != old.dropped_runts, "runts");
        met(stats.dropped_broadcast_filtered != old.dropped_broadcast_filtered, "broadcast_filtered");
        const arista_stats &switched = ep->arista_control.arct_stats, &old_switched = before.switch_stats;
        met(switched.arst_kfrecv != old_switched.arst_kfrecv, "keyframe");
        met(switched.arst_kfmalformed != old_switched.arst_kfmalformed, "malformed keyframe");
        met(switched.arst_kfmalformed != old_switched.arst_kfmalformed && before.common && !before.switched &&
                !before.current,
            "time that marks a keyframe");
        met(!o.said.empty(), "report");
        met(before.shutdown == 1 && before.common && ep->rep_shutdown == 0, "shutdown forgotten");
        met(o.rc == EAGAIN && before.common, "nothing waits");
        met(o.rc == EINVAL, "refused");
        met(o.rc == ENXIO, "closing");
        met(quick_.rig.doorbell() != before.doorbell, "doorbell");
        if (o.rc != 0)
            return;

        met(call.mode == RUK_RECV_PEEK, "peek");
        met(call.mode == RUK_RECV_PEEK_MSG, "peek with the message");
        met(call.mode == RUK_RECV_DEFAULT, "spinning mode");
        met(call.mode == RUK_RECV_BLOCK, "sleeping mode");
        met(ep->rep_recvq_filter_mode == RUK_RECV_FILTER_ALLMULTI, "allmulti");
        met(ep->rep_recvq_filter_mode == RUK_RECV_FILTER_RAW, "raw");
        if (!before.common)
            return;

        const bool dropped = memcmp(&stats, &old, sizeof stats) != 0;
        const uintptr_t offset = ep->rep_eventq.evq_recvq_offset;
        met(offset < before.offset && offset != 0 && !dropped, "event across the ring's end");
        met(offset < before.offset && offset == 0 && !dropped, "event that ends with the ring");

        /* The packet handed out; its first bytes are still in the ring. */
        const ruk__evpacket &p = evs.evs_pkt_cur ? evs.evs_pkt_cur[-1] : evs.evs_pkts[evs.evs_pkt_cnt - 1];
        const size_t at = static_cast<size_t>(p.pkt - quick_.rig.ring.base());
        RingWriter &ring = quick_.rig.ring;
        const bool vlan = ring.at(at + 12) == 0x81 && ring.at(at + 13) == 0;
        const size_t headers = vlan ? 50 : 46; /* with the trailer */
        const bool alone = !before.current && evs.evs_pkt_cnt == 1 && !dropped && !vlan;
        const bool told = ruk__api_version > 1, honest = p.length >= headers && o.info.msg_len == p.length - headers;
        const bool by_own_clock = !before.hardware || ep->rep_nticks.ticks_mask != 0;
        const bool first_way = alone && !before.switched && by_own_clock && honest && at == before.offset + 40 &&
                               before.offset + evs.evs_length < ring_;
        const char *const clock = before.hardware ? "dated by the adapter" : "undated";
        const auto met_dated = [&](bool it, const char *what) { met_[std::string(what) + ", " + clock] += it; };
        met_dated(first_way && o.info.msg_len < 32 && call.len >= o.info.msg_len, "single of less than 32 bytes");
        met_dated(first_way && o.info.msg_len >= 32 && o.info.msg_len <= 64 && call.len >= o.info.msg_len,
                  "single of 32 to 64 bytes");
        met_dated(first_way && o.info.msg_len > 64 && o.info.msg_len <= 256 && call.len >= o.info.msg_len,
                  "single of 65 to 256 bytes");
        met_dated(first_way && o.info.msg_len > 256 && call.len >= o.info.msg_len, "large single");
        met_dated(first_way && o.info.msg_len > call.len, "truncated single");
        met_dated(evs.evs_pkt_cnt > 1 && &p == evs.evs_pkts && !before.current && !before.switched && honest,
                  "first of several");
        met_dated(before.current && &p != evs.evs_pkts && !before.switched && honest, "later one of several");
        met_dated(evs.evs_pkt_cnt > 1 && o.info.msg_len > call.len && !before.switched, "truncated one of several");
        met_dated(vlan && evs.evs_pkt_cnt == 1 && !before.switched, "single with a VLAN tag");
        met_dated(vlan && evs.evs_pkt_cnt > 1 && !before.switched, "VLAN tag among several");
        met_dated(first_way && call.len == o.info.msg_len && call.len != 0, "buffer of just the size");
        met_dated(first_way && call.len == 0, "no buffer");
        met(told && o.info.timestamp != 0 && !before.switched && ep->rep_nticks.ticks_mask == 0,
            "date by the window's clock");
        met(told && o.info.timestamp != 0 && !before.switched && ep->rep_nticks.ticks_mask != 0,
            "date by the endpoint's clock");
        met(told && o.info.timestamp == evs.evs_timestamp_last && o.info.timestamp > evs.evs_timestamp &&
                !before.switched && evs.evs_pkt_cnt == 1,
            "date raised to the last one");
        met(!told && before.hardware, "time not told");
        met(ep->arista_control.arct_status >= ARISTA_STATUS_ACTIVE && o.info.timestamp != 0, "date by the switch");
        met(before.switched && ep->arista_control.arct_status < ARISTA_STATUS_ACTIVE, "switch without a keyframe");
        met(o.info.msg_len > 0xffff, "UDP length below 8");
        met(alone && o.info.msg_len < p.length - headers && !before.switched, "UDP length that is too small");
        met(alone && o.info.msg_len > p.length - headers && o.info.msg_len <= 0xffff && !before.switched &&
                at + 42 + o.info.msg_len <= before.offset + evs.evs_length,
            "UDP length up to the event's end");
        met(alone && o.info.msg_len <= 0xffff && at + 42 + o.info.msg_len > before.offset + evs.evs_length,
            "UDP length beyond the event's end");
        met(evs.evs_pkt_cnt > 1 && o.info.msg_len <= 0xffff && !honest && !before.switched,
            "UDP length that lies, among several");
        met(at < ring_ && at + 48 > ring_, "headers across the ring's end");
        met(at + 48 <= ring_ && at + p.length > ring_, "payload across the ring's end");
        met(at >= ring_, "packet behind the ring's end");
        met(before.current == nullptr && at != before.offset + 40 && evs.evs_pkts[0].pkt == p.pkt, "further offset");
        met(p.tag >= 128, "tag of another block");
        met(o.info.sin_to.sin_addr.s_addr == htonl(GROUP), "group");
        met(o.info.sin_to.sin_addr.s_addr == htonl(GROUP + 1), "group from its source");
        met(o.info.sin_to.sin_addr.s_addr == htonl(SUBNET_BROADCAST), "broadcast");
    }

    std::mt19937_64 random_;
    Met &met_;
    const size_t ring_;
    Side quick_, general_;
    const bool odd_clock_;
    std::vector<Entry> entries_ = {};
    size_t sure_ = 0;           /* of the entries, the first ones */
    uint64_t flow_ = 0;         /* evq_recvq_flow at first */
    uint64_t put_ = 0;          /* bytes of all events */
    bool last_is_sure_ = false; /* the last event's last packet will be delivered */
};

} // namespace

TEST(ReceiveWays, RandomEventsSettingsAndModes_WithAndWithoutLocksAlike)
{
    constexpr unsigned seeds = test_support::kSanitized ? 60 : 120;
    Scoped<uint32_t> api(ruk__api_version, 2);
    Met met;
    for (unsigned seed = 1; seed <= seeds; seed++) {
        Life life(seed, met);
        for (unsigned round = 0; round < 300; round++) {
            ASSERT_EQ(life.round(), "") << "seed " << seed << ", round " << round;
            ASSERT_FALSE(HasFailure()) << "seed " << seed << ", round " << round;
        }
        ASSERT_EQ(life.drain(), "") << "seed " << seed << ", at the end";
    }

    Met wanted;
    for (const char *clock : {", dated by the adapter", ", undated"})
        for (const char *what :
             {"single of less than 32 bytes", "single of 32 to 64 bytes", "single of 65 to 256 bytes", "large single",
              "truncated single", "first of several", "later one of several", "truncated one of several",
              "single with a VLAN tag", "VLAN tag among several", "buffer of just the size", "no buffer"})
            wanted[std::string(what) + clock] = 30;
    for (const char *what : {"badproto",
                             "badfilter",
                             "nosock",
                             "runts",
                             "broadcast_filtered",
                             "keyframe",
                             "malformed keyframe",
                             "time that marks a keyframe",
                             "report",
                             "shutdown forgotten",
                             "nothing waits",
                             "refused",
                             "closing",
                             "doorbell",
                             "event across the ring's end",
                             "event that ends with the ring",
                             "peek",
                             "peek with the message",
                             "spinning mode",
                             "sleeping mode",
                             "allmulti",
                             "raw",
                             "date by the window's clock",
                             "date by the endpoint's clock",
                             "date raised to the last one",
                             "time not told",
                             "date by the switch",
                             "switch without a keyframe",
                             "UDP length below 8",
                             "UDP length that is too small",
                             "UDP length up to the event's end",
                             "UDP length beyond the event's end",
                             "UDP length that lies, among several",
                             "headers across the ring's end",
                             "payload across the ring's end",
                             "packet behind the ring's end",
                             "further offset",
                             "tag of another block",
                             "group",
                             "group from its source",
                             "broadcast"})
        wanted[what] = 30;
    for (const auto &[what, times] : wanted)
        EXPECT_GE(met[what], times) << what;
}

} // namespace recv_ways
