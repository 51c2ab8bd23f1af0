/*
 * What leaves for the adapter while sending, access by access: the sources of sending and of the copy are built
 * here over a recorder, and stand in for the archive's.
 */
#include "recording_io.h"

#include "tov.h"

/* The cycle counter reads what the test says. */
namespace recorded {
inline std::vector<uint64_t> cycle_readings;
inline uint64_t next_cycles()
{
    uint64_t v = cycle_readings.front();
    cycle_readings.erase(cycle_readings.begin());
    return v;
}
} // namespace recorded
#define tov_get_cycles recorded::next_cycles
#include "../../../libruk/ruk_core_send.cpp"
#undef tov_get_cycles
#include "../../../common/tov_piocopy.cpp"

#include "send_rig.h"

namespace {

using namespace send_rig;
using recorded::Access;
using recorded::Kind;

using Accesses = std::vector<Access>;

class OrderTest : public RequestTest {
protected:
    ~OrderTest() override
    {
        recorded::recording = false;
        recorded::accesses.clear();
        recorded::before_load16 = nullptr;
        recorded::cycle_readings.clear();
    }
    /* The accesses that a call makes. */
    Accesses of(const std::function<void()> &call)
    {
        recorded::accesses.clear();
        recorded::recording = true;
        call();
        recorded::recording = false;
        return recorded::accesses;
    }
    static Accesses stores_and_fences(const Accesses &all)
    {
        Accesses some;
        for (const Access &a : all)
            if (a.kind == Kind::store32 || a.kind == Kind::fence)
                some.push_back(a);
        return some;
    }
    static unsigned count(const Accesses &all, Kind kind)
    {
        unsigned n = 0;
        for (const Access &a : all)
            n += a.kind == kind ? 1 : 0;
        return n;
    }
    static uint32_t word_of(const Bytes &bytes, size_t at)
    {
        return static_cast<uint32_t>(bytes[at]) | static_cast<uint32_t>(bytes[at + 1]) << 8 |
               static_cast<uint32_t>(bytes[at + 2]) << 16 | static_cast<uint32_t>(bytes[at + 3]) << 24;
    }
    uintptr_t slot_address(unsigned type) const { return dev->rep_map.map_zreq + type * 256; }
    uintptr_t flow_address() const { return dev->rep_map.map_kflow_window + 64; }
};

TEST_F(OrderTest, PioDatagram_PayloadWordsFenceRequestWordsFence)
{
    open_with(1400);
    memcpy(buffer, "ABCDEFGHIJ", 10);
    const Accesses all = stores_and_fences(of([this] { ASSERT_EQ(send(10), 0); }));
    const uintptr_t ring = dev->rep_map.map_sram;
    Accesses expected = {{Kind::store32, ring, 0x44434241},
                         {Kind::store32, ring + 4, 0x48474645},
                         {Kind::store32, ring + 8, 0x48474a49}, /* two bytes of the word before at its end */
                         {Kind::fence}};
    /* Offset 0, length 10, header 00 to 29, then what the request leaves open, its length and type. */
    Bytes request = unhex("00000000 000a 000102030405060708090a0b0c0d0e0f 101112131415161718191a1b1c1d1e1f "
                          "20212223242526272829");
    ASSERT_EQ(request.size(), 48u);
    for (uintptr_t i = 0; i < 12; i++)
        expected.push_back({Kind::store32, slot_address(13) + 4 * i, word_of(request, 4 * i)});
    ASSERT_EQ(all.size(), 4u + 16 + 1);
    EXPECT_EQ(Accesses(all.begin(), all.begin() + 16), expected);
    for (size_t i = 12; i < 16; i++) {
        EXPECT_EQ(all[4 + i].kind, Kind::store32);
        EXPECT_EQ(all[4 + i].at, slot_address(13) + 4 * i) << "ascending to the last";
    }
    EXPECT_EQ(all[19].value >> 16, 0x0d2au) << "the last store carries header length and type";
    EXPECT_EQ(all[20], Access{Kind::fence});
}

TEST_F(OrderTest, DmaDatagram_TheSameIntoItsOwnRingAndSlot)
{
    open_with(0);
    const Accesses all = stores_and_fences(of([this] { ASSERT_EQ(send(buffer + 1, 100), 0); }));
    ASSERT_EQ(all.size(), 26u + 1 + 16 + 1);
    for (size_t i = 0; i < 26; i++) {
        EXPECT_EQ(all[i].kind, Kind::store32);
        EXPECT_EQ(all[i].at, dev->rep_map.map_sendq + 4 * i);
    }
    EXPECT_EQ(all[26].kind, Kind::fence);
    for (size_t i = 0; i < 16; i++) {
        EXPECT_EQ(all[27 + i].kind, Kind::store32);
        EXPECT_EQ(all[27 + i].at, slot_address(14) + 4 * i);
    }
    EXPECT_EQ(all[42].value >> 16, 0x0e2au);
    EXPECT_EQ(all[43].kind, Kind::fence);
}

TEST_F(OrderTest, EmptyDatagram_FenceRequestFence)
{
    open_with(1400);
    const Accesses all = stores_and_fences(of([this] { ASSERT_EQ(send(0), 0); }));
    ASSERT_EQ(all.size(), 1u + 16 + 1);
    EXPECT_EQ(all.front().kind, Kind::fence);
    EXPECT_EQ(all[1].at, slot_address(13));
    EXPECT_EQ(all.back().kind, Kind::fence);
}

TEST_F(OrderTest, NothingCompleted_OneLookAtTheCounter)
{
    open_with(1400);
    const Accesses all = of([this] { ASSERT_EQ(send(4), 0); });
    ASSERT_EQ(count(all, Kind::load16), 1u);
    EXPECT_EQ(all.front().kind, Kind::load16);
    EXPECT_EQ(all.front().at, dev->rep_map.map_send_compcnt + 2 * dev->rep_epid);
}

TEST_F(OrderTest, SomethingCompleted_ReportedBeforeThePayload)
{
    open_with(1400);
    ASSERT_EQ(send(4), 0);
    complete();
    const Accesses all = stores_and_fences(of([this] { ASSERT_EQ(send(4), 0); }));
    ASSERT_EQ(all.size(), 1u + 1 + 1 + 16 + 1);
    EXPECT_EQ(all[0], (Access{Kind::store32, flow_address(), 1}));
    EXPECT_EQ(all[1].at, dev->rep_map.map_sram + 4);
}

TEST_F(OrderTest, Refused_NothingIsStored)
{
    open_with(1400, 8);
    for (int i = 0; i < 8; i++)
        ASSERT_EQ(send(4), 0);
    const Accesses all = of([this] { ASSERT_EQ(send(4), EAGAIN); });
    EXPECT_TRUE(stores_and_fences(all).empty());
    EXPECT_EQ(count(all, Kind::load16), 2u) << "before the attempt, and the one reap after it";
}

/* ------------------------------------------------------------------ through a handle */

/* 10.77.0.1:5000 of 02:6f:78:00:00:01 to 10.77.0.2:5001 by 02:00:00:00:00:02. */
class HandleOrderTest : public OrderTest {
protected:
    ruk_send_t handle(uint16_t vlan = 0)
    {
        memcpy(mif_.tov_ifa_macaddr, "\x02\x6f\x78\x00\x00\x01", 6);
        dev->rep_mif = &mif_;
        channel_.ch_rep = dev;
        channel_.ch_ipaddr_be32 = be32("10.77.0.1");
        channel_.ch_port_be16 = htons(5000);
        channel_.ch_vlan_be16 = htons(vlan);
        const ruk__peer_addr peer = {be32("10.77.0.2"), {2, 0, 0, 0, 0, 2}, 1};
        const struct sockaddr_in to = ipv4("10.77.0.2", 5001);
        ruk__sendhandle_init(&handle_, &channel_, &peer, &to, 0, 17);
        return &handle_;
    }
    /* Payload words into their ring, a fence, the request's words in ascending order into its slot, a fence. */
    Accesses expected(uintptr_t ring, const std::vector<uint32_t> &payload, unsigned type, const Bytes &request) const
    {
        Accesses all;
        for (size_t i = 0; i < payload.size(); i++)
            all.push_back({Kind::store32, ring + 4 * i, payload[i]});
        all.push_back({Kind::fence});
        for (size_t i = 0; i < 16; i++)
            all.push_back({Kind::store32, slot_address(type) + 4 * i, word_of(request, 4 * i)});
        all.push_back({Kind::fence});
        return all;
    }

private:
    tov_ifaddrs mif_ = {};
    ruk__channel channel_ = {};
    ruk__send handle_ = {};
};

const char ETHERNET[] = "020000000002 026f78000001";

TEST_F(HandleOrderTest, PioDatagram_PayloadWordsFenceRequestWordsFence)
{
    open_with(1400);
    memcpy(buffer, "ABCDEFGHIJ", 10);
    ruk_send_t to = handle();
    const Accesses all = stores_and_fences(of([&] { ASSERT_EQ(ruk_send(to, buffer, 10, RUK_NONBLOCK), 0); }));
    const Bytes request = unhex(std::string("00000000 000a ") + ETHERNET +
                                " 0800 4500 0026 0000 4000 4011 262b 0a4d0001 0a4d0002 "
                                "1388 1389 0012 69bd 0000000000000000000000000000 2a 0d");
    EXPECT_EQ(all, expected(dev->rep_map.map_sram, {0x44434241, 0x48474645, 0x48474a49}, 13, request));
}

TEST_F(HandleOrderTest, DmaDatagram_TheSameIntoItsOwnRingAndSlot)
{
    open_with(0);
    memcpy(buffer, "ABCDEFGHIJ", 10);
    ruk_send_t to = handle();
    const Accesses all = stores_and_fences(of([&] { ASSERT_EQ(ruk_send(to, buffer, 10, RUK_NONBLOCK), 0); }));
    const Bytes request = unhex(std::string("00000000 000a ") + ETHERNET +
                                " 0800 4500 0026 0000 4000 4011 262b 0a4d0001 0a4d0002 "
                                "1388 1389 0012 69bd 0000000000000000000000000000 2a 0e");
    EXPECT_EQ(all, expected(dev->rep_map.map_sendq, {0x44434241, 0x48474645, 0x48474a49}, 14, request));
}

/*
 * The payload begins at its source's byte of a word, behind zeros. Behind its end stand those bytes of the word before.
 */
std::vector<uint32_t> ring_words(const Bytes &payload, size_t at)
{
    Bytes bytes(at, 0);
    bytes.insert(bytes.end(), payload.begin(), payload.end());
    while (bytes.size() % 4 != 0)
        bytes.push_back(bytes[bytes.size() - 4]);
    std::vector<uint32_t> words;
    for (size_t i = 0; i < bytes.size(); i += 4)
        words.push_back(static_cast<uint32_t>(bytes[i]) | static_cast<uint32_t>(bytes[i + 1]) << 8 |
                        static_cast<uint32_t>(bytes[i + 2]) << 16 | static_cast<uint32_t>(bytes[i + 3]) << 24);
    return words;
}

/* Where the payload begins on a word: a block of 64 bytes, one of 32, a word and three bytes, or less of them. */
TEST_F(HandleOrderTest, LongPayloadFromEveryAlignment_WordsAscendingFenceRequestWordsFence)
{
    using recv_rig::be16, recv_rig::be32, recv_rig::operator+;
    open_with(1400);
    ruk_send_t to = handle();
    const auto check = [](const Bytes &covered) { return be16(static_cast<uint16_t>(~internet_sum(covered))); };
    const Bytes addresses = unhex("0a4d0001 0a4d0002");
    uint32_t offset = 0;
    for (unsigned length : {103u, 99u, 67u})
        for (uint32_t at = 0; at < 4; at++) {
            const uint8_t *const from = buffer + 64 * at + at;
            const Bytes payload(from, from + length);
            const std::vector<uint32_t> words = ring_words(payload, at);
            const Accesses all = stores_and_fences(
                of([&] { ASSERT_EQ(ruk_send(to, from, static_cast<int>(length), RUK_NONBLOCK), 0); }));
            const Bytes ip = unhex("4500") + be16(28 + length) + unhex("0000 4000 4011");
            const Bytes udp = unhex("1388 1389") + be16(8 + length);
            const Bytes udp_check = check(addresses + unhex("0011") + be16(8 + length) + udp + payload);
            ASSERT_NE(udp_check, be16(0)); /* which would be sent as ffff */
            const Bytes request = be32(offset + at) + be16(length) + unhex(ETHERNET) + unhex("0800") + ip +
                                  check(ip + addresses) + addresses + udp + udp_check +
                                  unhex("0000000000000000000000000000 2a 0d");
            ASSERT_EQ(request.size(), 64u);
            EXPECT_EQ(all, expected(dev->rep_map.map_sram + offset, words, 13, request)) << length << " at " << at;
            offset += 4 * static_cast<uint32_t>(words.size());
        }
}

TEST_F(HandleOrderTest, EmptyDatagram_FenceRequestFence)
{
    open_with(1400);
    ruk_send_t to = handle();
    const Accesses all = stores_and_fences(of([&] { ASSERT_EQ(ruk_send(to, buffer, 0, RUK_NONBLOCK), 0); }));
    const Bytes request = unhex(std::string("00000000 0000 ") + ETHERNET +
                                " 0800 4500 001c 0000 4000 4011 2635 0a4d0001 0a4d0002 "
                                "1388 1389 0008 c430 0000000000000000000000000000 2a 0d");
    EXPECT_EQ(all, expected(dev->rep_map.map_sram, {}, 13, request));
}

TEST_F(HandleOrderTest, TaggedDatagram_TheSameOrder)
{
    open_with(1400);
    memcpy(buffer, "ABCDEFGHIJ", 10);
    ruk_send_t to = handle(0xe005);
    const Accesses all = stores_and_fences(of([&] { ASSERT_EQ(ruk_send(to, buffer, 10, RUK_NONBLOCK), 0); }));
    ASSERT_EQ(all.size(), 3u + 1 + 16 + 1);
    EXPECT_EQ(all[3], Access{Kind::fence});
    for (size_t i = 0; i < 16; i++) {
        EXPECT_EQ(all[4 + i].kind, Kind::store32);
        EXPECT_EQ(all[4 + i].at, slot_address(13) + 4 * i);
    }
    EXPECT_EQ(all[19].value >> 16, 0x0d2eu) << "46 bytes of header";
    EXPECT_EQ(all[20], Access{Kind::fence});
}

/* ------------------------------------------------------------------ spinning */

class SpinTest : public OrderTest {
protected:
    void fill()
    {
        open_with(1400, 8);
        for (int i = 0; i < 8; i++)
            ASSERT_EQ(send(4), 0);
    }
};

TEST_F(SpinTest, Full_ThousandReapsBeforeTheFirstWait_OneBetweenWaits)
{
    fill();
    std::vector<unsigned> looks; /* at the counter, when each wait begins */
    on_wait = [&] {
        looks.push_back(count(recorded::accesses, Kind::load16));
        return waits.size() == 4 ? EIO : 0;
    };
    of([this] { EXPECT_EQ(send(buffer, 4, 0), EIO); });
    EXPECT_EQ(looks, (std::vector<unsigned>{1 + 1000, 1 + 1001, 1 + 1002, 1 + 1003}));
}

TEST_F(SpinTest, RoomComesOnTheLastAttempt_NoWait)
{
    fill();
    unsigned looks = 0;
    recorded::before_load16 = [&] {
        if (++looks == 1 + 1000)
            complete();
    };
    of([this] { EXPECT_EQ(send(buffer, 4, 0), 0); });
    EXPECT_EQ(waits.size(), 0u);
    EXPECT_EQ(looks, 1001u);
}

/* Without waiting as well: what the failing attempt itself finds completed is made use of. */
TEST_F(SpinTest, NonblockAndRoomComesWhileFailing_SentAfterTwoLooks)
{
    fill();
    unsigned looks = 0;
    recorded::before_load16 = [&] {
        if (++looks == 2)
            complete();
    };
    of([this] { EXPECT_EQ(send(buffer, 4, RUK_NONBLOCK), 0); });
    EXPECT_EQ(looks, 2u);
    EXPECT_EQ(waits.size(), 0u);
}

TEST_F(SpinTest, RoomComesOneAttemptLater_OneWait)
{
    fill();
    unsigned looks = 0;
    recorded::before_load16 = [&] {
        if (++looks == 1 + 1001)
            complete();
    };
    on_wait = [] { return 0; };
    of([this] { EXPECT_EQ(send(buffer, 4, 0), 0); });
    EXPECT_EQ(waits.size(), 1u);
}

/* Only attempts that reaped nothing use up the budget. */
TEST_F(SpinTest, ReapsThatDoNotHelp_CostNothingOfTheBudget)
{
    open_with(8192, 64);
    for (int i = 0; i < 60; i++)
        ASSERT_EQ(send(4), 0);
    ASSERT_EQ(send(4000), 0); /* 3952 bytes are left at the end */
    unsigned looks = 0;
    recorded::before_load16 = [&] {
        looks++;
        if (looks >= 2 && looks < 2 + 60)
            complete(); /* four bytes each */
    };
    unsigned looks_at_wait = 0;
    on_wait = [&] {
        looks_at_wait = looks;
        return EIO;
    };
    of([this] { EXPECT_EQ(send(buffer, 5000, 0), EIO); });
    EXPECT_EQ(looks_at_wait, 1u + 60 + 1000);
}

/* ------------------------------------------------------------------ measuring the copy */

class CopyOrderTest : public OrderTest {
protected:
    int copy(uint32_t length, int iterations, int do_csum, uint64_t from, uint64_t to)
    {
        recorded::cycle_readings = {from, to};
        return ruk__piocopy_test(dev, iterations, length, do_csum, &nsecs, &mbytes);
    }
    uint64_t nsecs = 0, mbytes = 0;

private:
    recv_rig::Scoped<uint64_t> rate_{cycles_per_second, 2000000000};
};

TEST_F(CopyOrderTest, WithoutSum_LastWordBehindAFenceOfItsOwn_EachRound)
{
    open_with(1400);
    const Accesses all = of([this] { ASSERT_EQ(copy(16, 2, 0, 0, 1000), 0); });
    const uintptr_t ring = dev->rep_map.map_sram;
    ASSERT_EQ(all.size(), 2u * 6);
    for (size_t round = 0; round < 2; round++) {
        const Access *a = &all[6 * round];
        for (size_t i = 0; i < 3; i++) {
            EXPECT_EQ(a[i].kind, Kind::store32);
            EXPECT_EQ(a[i].at, ring + 4 * i);
        }
        EXPECT_EQ(a[3].kind, Kind::fence);
        EXPECT_EQ(a[4].kind, Kind::store32);
        EXPECT_EQ(a[4].at, ring + 12);
        EXPECT_EQ(a[5].kind, Kind::fence);
    }
}

TEST_F(CopyOrderTest, WithSum_TheChecksummingCopy_EachRound)
{
    open_with(1400);
    const Accesses all = of([this] { ASSERT_EQ(copy(16, 3, 1, 0, 1000), 0); });
    ASSERT_EQ(all.size(), 3u * 5);
    for (size_t round = 0; round < 3; round++) {
        for (size_t i = 0; i < 4; i++) {
            EXPECT_EQ(all[5 * round + i].kind, Kind::store32);
            EXPECT_EQ(all[5 * round + i].at, dev->rep_map.map_sram + 4 * i);
        }
        EXPECT_EQ(all[5 * round + 4].kind, Kind::fence);
    }
}

TEST_F(CopyOrderTest, TimeAndRate_FromTheCycles)
{
    open_with(1400);
    /* 4,000,000 cycles are 2 ms: 1000 rounds of 2000 bytes, 2000 ns each, 10^9 bytes/s = 953.67 MiB/s. */
    EXPECT_EQ(copy(2000, 1000, 1, 5000, 4005000), 0);
    EXPECT_EQ(nsecs, 2000u);
    EXPECT_EQ(mbytes, 953u);
    /* Rounded down: 1001 cycles are 500 ns, over 3 rounds 166; 12 bytes in 500 ns, 22.88 MiB/s. */
    EXPECT_EQ(copy(4, 3, 0, 0, 1001), 0);
    EXPECT_EQ(nsecs, 166u);
    EXPECT_EQ(mbytes, 22u);
}

TEST_F(CopyOrderTest, CycleCounter_LowHalvesAreCompared)
{
    open_with(1400);
    EXPECT_EQ(copy(64, 1, 1, 0x1fffffc18, 0x2000003e8), 0); /* 2000 cycles across the boundary */
    EXPECT_EQ(nsecs, 1000u);
    EXPECT_EQ(copy(64, 1, 1, 0, 0x1000007d0), 0); /* 2^32 more are not seen */
    EXPECT_EQ(nsecs, 1000u);
}

TEST_F(CopyOrderTest, NoTimePassed_DoesNotDivideByIt)
{
    open_with(1400);
    EXPECT_EQ(copy(64, 1, 1, 7, 7), 0);
    EXPECT_EQ(nsecs, 0u);
}

/* A host whose clock stands still: the counter's rate cannot be found, nor a time be told. */
TEST_F(CopyOrderTest, RateUnknown_DoesNotDivideByIt)
{
    const ScopedEnv rate("TOV_CYCLES_PER_SECOND", nullptr), old_rate("KZ_CYCLES_PER_SECOND", nullptr);
    const recv_rig::Scoped<double> period(seconds_per_cycle, seconds_per_cycle);
    LibcHookGuard hooks;
    hooks->gettimeofday = [](struct timeval *now) {
        *now = {5, 5};
        return 0;
    };
    hooks->usleep = [](useconds_t) { return 0; };
    open_with(1400);
    cycles_per_second = 0;
    nsecs = 7;
    EXPECT_EQ(copy(64, 1, 1, 0, 1000), 0);
    EXPECT_EQ(nsecs, 0u);
    EXPECT_EQ(mbytes, 61035u) << "64 bytes in a nanosecond";
    EXPECT_EQ(cycles_per_second, 0u) << "still unknown";
}

} // namespace
