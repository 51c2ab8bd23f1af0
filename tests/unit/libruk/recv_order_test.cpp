/*
 * What is stored, loaded and fenced while events are consumed and the driver's clock record is read, access by access:
 * the source of receiving is built here over a recorder, and stands in for the archive's.
 */
#include "recording_io.h"

#include "../../../libruk/ruk_recv_event.cpp"

#include "recv_rig.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <set>

using namespace recv_rig;
using recorded::Access;
using recorded::Kind;

namespace {

using Accesses = std::vector<Access>;

/* The accesses that a call makes. */
Accesses of(const std::function<void()> &call)
{
    recorded::accesses.clear();
    recorded::recording = true;
    call();
    recorded::recording = false;
    return std::move(recorded::accesses);
}

/* ------------------------------------------------------------------ consuming an event */

/* The ways to consume a frame, each with its own code. */
struct Way {
    const char *name;
    bool locks;
    int (*receive)(ruk_device_t);
    size_t payload = 1; /* bytes */
};

int as_datagram(ruk_device_t dev)
{
    uint8_t buf[64];
    struct ruk_recv_info info;
    return ruk_recvfrom(dev, RUK_RECV_NONBLOCK, buf, sizeof buf, &info);
}
int as_frame(ruk_device_t dev)
{
    uint8_t buf[256];
    size_t len;
    return ruk_raw_recv(dev, RUK_RECV_NONBLOCK, buf, &len, nullptr);
}
int as_frame_at_once(ruk_device_t dev)
{
    uint8_t buf[256];
    size_t len;
    return ruk_raw_recv_nb(dev, buf, &len, nullptr, nullptr);
}

const Way ways[] = {{"datagram", false, as_datagram},
                    {"datagram of 33 bytes", false, as_datagram, 33},
                    {"datagram with locks", true, as_datagram},
                    {"frame", false, as_frame},
                    {"frame at once", false, as_frame_at_once}};

constexpr uint32_t ADDRESS = 0x0a4d0001;
constexpr uint16_t PORT = 5000;

class ConsumeOrder : public testing::TestWithParam<Way> {
protected:
    ConsumeOrder() : rig({.ring = 65536, .locks = GetParam().locks}) { rig.bind(0, ADDRESS, PORT); }

    /* Puts an event of so many slots, at least 2, with that many datagrams in it. */
    void put(unsigned slots, unsigned packets = 1)
    {
        UdpFrame frame;
        frame.dst = ADDRESS;
        frame.dport = PORT;
        frame.payload = Bytes(GetParam().payload, 'x');
        const std::vector<Packet> all(packets, {frame.bytes(), 0});
        const size_t at = rig.ring.position();
        rig.ring.put(all); /* for its length alone */
        EventOptions options;
        options.extra_slots = slots - static_cast<unsigned>(rig.ring.last_length() / 64);
        rig.ring.seek(at);
        rig.ring.put(all, options);
        ASSERT_EQ(rig.ring.last_length(), 64u * slots);
    }
    int receive() { return GetParam().receive(rig.ep); }

    /* Fences, and the stores into what adapter and driver share, while the next packet is consumed. */
    Accesses consumed()
    {
        Accesses shared;
        for (const Access &a : of([this] { EXPECT_EQ(receive(), 0); }))
            if (a.kind == Kind::fence || a.kind == Kind::full_fence || (is_store(a.kind) && is_shared(a.at)))
                shared.push_back(a);
        return shared;
    }
    /* Each slot's two bytes, then the position in the driver's window. */
    Accesses freed_and_reported(size_t event, size_t length, uint32_t events, uint64_t total)
    {
        Accesses expected;
        for (size_t slot = event; slot < event + length; slot += 64) {
            expected.push_back({Kind::store8, ring_at(slot + 30), 0});
            expected.push_back({Kind::store8, ring_at(slot + 63), 0xff});
        }
        const auto flow = reinterpret_cast<uintptr_t>(rig.flow_memory.data());
        expected.push_back({Kind::store64, flow + 16, total % rig.ring.size()});
        expected.push_back({Kind::store32, flow, events});
        expected.push_back({Kind::store32, flow + 8, total / 4096});
        return expected;
    }
    uintptr_t doorbell() const { return reinterpret_cast<uintptr_t>(rig.sram_memory.data()) + 16376; }
    uintptr_t ring_at(size_t offset) { return reinterpret_cast<uintptr_t>(&rig.ring.at(offset)); }

    RigEndpoint rig;

private:
    static bool is_store(Kind kind) { return kind == Kind::store8 || kind == Kind::store32 || kind == Kind::store64; }
    bool is_shared(uintptr_t at) const
    {
        for (const GuardedBytes *memory : {&rig.ring_memory, &rig.flow_memory, &rig.sram_memory}) {
            const auto begin = reinterpret_cast<uintptr_t>(memory->data());
            if (at >= begin && at < begin + memory->size())
                return true;
        }
        return false;
    }
};

/* Outside its unit of each 64 KiB the adapter is not told, and nothing is fenced. */
TEST_P(ConsumeOrder, ElsewhereIn64KiB_SlotsThenPosition_NoDoorbellAndNoFence)
{
    put(3);
    EXPECT_EQ(consumed(), freed_and_reported(0, 192, 1, 192));
}

TEST_P(ConsumeOrder, SecondUnitOf64KiB_SlotsThenPositionThenDoorbellThenStoreFence)
{
    put(60);
    put(4);  /* ends at 4096 */
    put(63); /* ends at 8128, in the same unit */
    put(3);  /* ends in the next */
    ASSERT_EQ(receive(), 0);
    for (const auto &[event, length, number] : {std::array<size_t, 3>{3840, 256, 2}, {4096, 4032, 3}}) {
        Accesses expected = freed_and_reported(event, length, static_cast<uint32_t>(number), event + length);
        /* The number of events and that of 4 KiB units, big-endian. */
        expected.push_back(
            {Kind::store64, doorbell(), number == 2 ? UINT64_C(0x0100000002000000) : 0x0100000003000000});
        expected.push_back({Kind::fence});
        EXPECT_EQ(consumed(), expected);
    }
    EXPECT_EQ(consumed(), freed_and_reported(8128, 192, 4, 8320));
}

/* The fence belongs to the doorbell: packets before the event's last one store nothing. */
TEST_P(ConsumeOrder, SeveralPackets_AllOfItWithTheLast)
{
    put(64, 3);
    EXPECT_EQ(consumed(), Accesses{});
    EXPECT_EQ(consumed(), Accesses{});
    Accesses expected = freed_and_reported(0, 4096, 1, 4096);
    expected.push_back({Kind::store64, doorbell(), 0x0100000001000000});
    expected.push_back({Kind::fence});
    EXPECT_EQ(consumed(), expected);
}

TEST_P(ConsumeOrder, EventAcrossTheRingsEnd_TheSameOrderOnWrappedSlots)
{
    put(2);
    for (int i = 0; i < 16; i++)
        put(63);
    for (int i = 0; i < 17; i++)
        ASSERT_EQ(receive(), 0);
    /* 64640 bytes: 14 slots to the end, and on to 69632 = 17 units, the second of the next 64 KiB. */
    put(78);
    Accesses expected = freed_and_reported(64640, 4992, 18, 69632);
    expected.push_back({Kind::store64, doorbell(), 0x1100000012000000});
    expected.push_back({Kind::fence});
    EXPECT_EQ(consumed(), expected);
}

TEST_P(ConsumeOrder, EventEndsWithTheRing_TheSameOrderAndOffsetZero_NextOneFromTheBase)
{
    put(2);
    for (int i = 0; i < 16; i++)
        put(63);
    for (int i = 0; i < 17; i++)
        ASSERT_EQ(receive(), 0);
    put(14); /* 64640 bytes to 65536 */
    put(3);
    const Accesses last = consumed(), next = consumed();
    EXPECT_EQ(last, freed_and_reported(64640, 896, 18, 65536)); /* 16 units: no doorbell */
    EXPECT_EQ(next, freed_and_reported(65536, 192, 19, 65728));
}

INSTANTIATE_TEST_SUITE_P(Ways, ConsumeOrder, testing::ValuesIn(ways), [](const auto &way) {
    std::string name = way.param.name;
    std::replace(name.begin(), name.end(), ' ', '_');
    return name;
});

/* ------------------------------------------------------------------ the clock record */

/* Puts a datagram of 33 bytes, alone in its event, at 1000 ticks, for an endpoint that dates by its own parameters. */
void put_dated(RigEndpoint &rig)
{
    rig.date_by(Dating::own_parameters);
    rig.bind(0, ADDRESS, PORT);
    EventOptions options;
    options.ticks = 1000;
    UdpFrame frame;
    frame.dst = ADDRESS;
    frame.dport = PORT;
    frame.payload = Bytes(33, 'x');
    rig.ring.put({{frame.bytes(), 0}}, options);
}

/* A reader of the driver's record and the fields it needs, by their offsets in the window. */
struct Reader {
    const char *name;
    void (*read)(RigEndpoint &);
    std::set<size_t> fields; /* every word of them */
};

const Reader readers[] = {
    {"conversion_by_the_window",
     [](RigEndpoint &rig) {
         rig.ep->rep_nticks.ticks_mask = 0;
         EXPECT_EQ(ruk__clk_ticks_to_timestamp(rig.ep, 1000), 1000u);
     },
     {100, 104, 116, 120, 124, 128}},
    {"drift",
     [](RigEndpoint &rig) {
         rig.ep->rep_nticks = {0, UINT64_MAX, 0, 1, 1};
         EXPECT_EQ(ruk__clk_ticks_to_timestamp(rig.ep, 1000), 1000u);
     },
     {68, 72, 76, 80, 84, 88}},
    {"datagram_alone_in_its_event",
     [](RigEndpoint &rig) {
         put_dated(rig);
         uint8_t buf[64];
         struct ruk_recv_info info;
         ASSERT_EQ(ruk_recvfrom(rig.ep, RUK_RECV_NONBLOCK, buf, sizeof buf, &info), 0);
         EXPECT_EQ(info.msg_len, 33u);
     },
     {68, 72, 76, 80, 84, 88}},
    {"copy_for_the_endpoint",
     [](RigEndpoint &rig) {
         oxel_clksync_nticks_t copy;
         oxel_clksync_copy_nticks_params(&copy, rig.ep->rep_kwindow);
         EXPECT_EQ(copy.nt_numerator, 1u);
     },
     {100, 104, 108, 112, 116, 120, 124, 128}},
};

class ClockOrder : public testing::TestWithParam<Reader> {
protected:
    ClockOrder()
    {
        rig.clock_is_ticks();
        rig.window32(64, 40);
    }
    ~ClockOrder() override { recorded::before_ordered_load32 = nullptr; }

    /* The loads of the record, and full fences. */
    Accesses read()
    {
        Accesses all = of([this] { GetParam().read(rig); });
        std::erase_if(all, [this](const Access &a) {
            return a.kind != Kind::full_fence && (a.at < window(0) || a.at >= window(192));
        });
        return all;
    }
    bool is_counter(const volatile uint32_t *at) const { return reinterpret_cast<uintptr_t>(at) == window(64); }
    Access counter(uint32_t value) const { return {Kind::load32, window(64), value}; }
    uintptr_t window(size_t offset) const { return reinterpret_cast<uintptr_t>(rig.window_memory.data()) + offset; }
    /*
     * Takes one pass off the front: the counter, a full fence, the fields and nothing else, a full fence, the counter.
     * The needed fields may be among others of the record.
     */
    void take_pass(Accesses *all, uint32_t before, uint32_t after)
    {
        auto at = all->begin();
        ASSERT_GE(all->size(), 4u);
        EXPECT_EQ(*at++, counter(before));
        EXPECT_EQ(*at++, Access{Kind::full_fence});
        std::set<size_t> fields;
        for (; at != all->end() && (at->kind == Kind::load32 || at->kind == Kind::load64); ++at) {
            fields.insert(at->at - window(0));
            if (at->kind == Kind::load64)
                fields.insert(at->at - window(0) + 4);
        }
        EXPECT_TRUE(std::includes(fields.begin(), fields.end(), GetParam().fields.begin(), GetParam().fields.end()));
        EXPECT_EQ(fields.count(64), 0u) << "the counter";
        ASSERT_GE(all->end() - at, 2);
        EXPECT_EQ(*at++, Access{Kind::full_fence});
        EXPECT_EQ(*at++, counter(after));
        all->erase(all->begin(), at);
    }

    RigEndpoint rig;
};

TEST_P(ClockOrder, ReadOnce_FieldsBetweenTwoFullFencesBetweenTheTwoLooksAtTheCounter)
{
    Accesses all = read();
    take_pass(&all, 40, 40);
    EXPECT_EQ(all, Accesses{});
}

TEST_P(ClockOrder, CounterOdd_NoFieldIsReadBeforeItIsEven)
{
    rig.window32(64, 41);
    int looks = 0;
    recorded::before_ordered_load32 = [&](const volatile uint32_t *at) {
        if (is_counter(at) && ++looks == 3)
            rig.window32(64, 42);
    };
    Accesses all = read();
    ASSERT_GE(all.size(), 2u);
    EXPECT_EQ(all[0], counter(41));
    EXPECT_EQ(all[1], counter(41));
    all.erase(all.begin(), all.begin() + 2);
    take_pass(&all, 42, 42);
    EXPECT_EQ(all, Accesses{});
}

TEST_P(ClockOrder, RewrittenMeanwhile_WholePassAgainWithItsFences)
{
    int looks = 0;
    recorded::before_ordered_load32 = [&](const volatile uint32_t *at) {
        if (is_counter(at) && ++looks == 2)
            rig.window32(64, 42);
    };
    Accesses all = read();
    take_pass(&all, 40, 42);
    take_pass(&all, 42, 42);
    EXPECT_EQ(all, Accesses{});
}

/* Neither what stood in the record while it was written nor what stood there before is a datagram's time. */
TEST(ClockRewrite, DatagramAloneInItsEvent_DatedByTheNewDrift)
{
    Scoped<uint32_t> api(ruk__api_version, 2);
    for (bool odd : {false, true}) { /* found so, twice, or changed between the two looks of a pass */
        RigEndpoint rig;
        put_dated(rig);
        rig.window32(64, odd ? 41 : 40);
        int looks = 0;
        recorded::before_ordered_load32 = [&](const volatile uint32_t *at) {
            const auto *counter = reinterpret_cast<const volatile uint32_t *>(rig.window_memory.data() + 64);
            if (at == counter && ++looks == (odd ? 3 : 2)) {
                rig.window64(76, 500);
                rig.window32(64, 42);
            }
        };
        uint8_t buf[64];
        struct ruk_recv_info info;
        int rc = -1;
        of([&] { rc = ruk_recvfrom(rig.ep, RUK_RECV_NONBLOCK, buf, sizeof buf, &info); });
        recorded::before_ordered_load32 = nullptr;
        EXPECT_EQ(rc, 0);
        EXPECT_EQ(info.timestamp, 1500u) << odd;
        EXPECT_EQ(rig.ep->rep_eventq.evq_recvq_state.evs_timestamp_last, 1500u);
        EXPECT_EQ(rig.ep->rep_inuse, 0u);
    }
}

INSTANTIATE_TEST_SUITE_P(Readers, ClockOrder, testing::ValuesIn(readers),
                         [](const auto &reader) { return std::string(reader.param.name); });

} // namespace
