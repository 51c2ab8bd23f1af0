// The event ring's writer against literal bytes and the format's rules.
#include "core/event_ring.h"

#include <cstring>
#include <gtest/gtest.h>
#include <numeric>

namespace softnic {
namespace {

using Bytes = std::vector<uint8_t>;

class EventRingTest : public testing::Test {
protected:
    EventRingTest() { attach(4096); }

    void attach(uint32_t size)
    {
        ring_bytes.assign(size, 0x77); // whatever was there before
        flow = {};
        memset(doorbell, 0, sizeof(doorbell));
        ring.attach(ring_bytes.data(), size, &flow, doorbell);
    }

    // One event of these frames, all of one tag.
    void write(const std::vector<Bytes> &frames, uint16_t tag = 3, bool trailer = false)
    {
        for (const Bytes &f : frames)
            ASSERT_TRUE(ring.append(f.data(), static_cast<uint32_t>(f.size()), tag, trailer, now));
        ASSERT_TRUE(ring.publish(now));
    }

    // What the library does with an event at this offset.
    uint32_t consume(uint32_t at)
    {
        const uint32_t len = ring_bytes[at + 28] << 8 | ring_bytes[at + 29];
        for (uint32_t k = 0; k < len; k += 64) {
            ring_bytes[(at + k) % ring_bytes.size() + 30] = 0;
            ring_bytes[(at + k) % ring_bytes.size() + 63] = 0xFF;
        }
        flow.flow_desc++;
        return static_cast<uint32_t>((at + len) % ring_bytes.size());
    }

    void ring_doorbell(uint32_t desc)
    {
        const uint8_t bytes[4] = {uint8_t(desc >> 24), uint8_t(desc >> 16), uint8_t(desc >> 8), uint8_t(desc)};
        memcpy(doorbell, bytes, 4);
    }

    static Bytes pattern(size_t n)
    {
        Bytes b(n);
        std::iota(b.begin(), b.end(), uint8_t{1});
        return b;
    }

    ClockConfig clock_config{1, 1, 0, 0, 0x1122334455667788u};
    Clock clock{clock_config, Now{1000, 1000}};
    EventRing ring{clock, WriterKind::InOrder, 5};
    Bytes ring_bytes;
    oxel_flow_window_t flow = {};
    alignas(8) uint8_t doorbell[8] = {};
    Now now{1000, 1000};
};

TEST_F(EventRingTest, AttachedRing_AnyOldContents_EverySlotIsFree)
{
    for (size_t slot = 0; slot < ring_bytes.size(); slot += 64) {
        EXPECT_EQ(ring_bytes[slot + 30], 0) << slot;
        EXPECT_EQ(ring_bytes[slot + 63], 0xFF) << slot;
    }
}

TEST_F(EventRingTest, FramesOfKnownArrival_PublishedLater_EventHasTheTimeOfTheLast)
{
    const Bytes f = pattern(14);
    ASSERT_TRUE(ring.append(f.data(), 14, 3, false, Now{1000 + 0x11, 0, true}));
    ASSERT_TRUE(ring.append(f.data(), 14, 3, false, Now{1000 + 0x33, 0, true})); // 34 ns later
    ASSERT_TRUE(ring.publish(Now{1000000, 1000000}));
    EXPECT_EQ(ring_bytes[30], 2); // one event
    EXPECT_EQ(Bytes(ring_bytes.begin(), ring_bytes.begin() + 8),
              (Bytes{0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88 + 0x33}));
}

TEST_F(EventRingTest, FramesThatCameApart_TakenTogether_EachHasAnEventOfItsOwnTime)
{
    const Bytes f = pattern(14);
    ASSERT_TRUE(ring.append(f.data(), 14, 3, false, Now{1000, 0, true}));
    ASSERT_TRUE(ring.append(f.data(), 14, 3, false, Now{1000 + 50000, 0, true})); // still together
    ASSERT_TRUE(ring.append(f.data(), 14, 3, false, Now{1000 + 50000 + 50001, 0, true}));
    ASSERT_TRUE(ring.publish(Now{1000000, 1000000}));
    EXPECT_EQ(ring_bytes[30], 2);
    EXPECT_EQ(ring.unconsumed(), 2u);
    const size_t second = static_cast<size_t>(ring_bytes[28] << 8 | ring_bytes[29]);
    EXPECT_EQ(ring_bytes[second + 30], 1);
    // 100001 ticks of 1 ns after 0x1122334455667788: ...6777FE29
    EXPECT_EQ(Bytes(ring_bytes.begin() + static_cast<ptrdiff_t>(second),
                    ring_bytes.begin() + static_cast<ptrdiff_t>(second) + 8),
              (Bytes{0x11, 0x22, 0x33, 0x44, 0x55, 0x66 + 1, 0xFE, 0x29}));
}

TEST_F(EventRingTest, EmptyRing_OneFrame_IsWrittenAsTheFormatSays)
{
    // 14 bytes and a check sequence of 0xCBF43926's kind: CRC-32 of 01 02 .. 0e is 0x63ffbe21 (zlib).
    write({pattern(14)}, 0x0203);

    const Bytes header = {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, // clock
                          0x00, 0x12, 0x02, 0x03,                         // 18 bytes, tag
                          0,    0,    0,    0,    0,    0,    0,    0,
                          0,    0,    0,    0,    0,    0,    0,    0, // the other four packets
                          0x00, 0x40, 0x01, 0x20};                     // 64 bytes, 1 packet, first slot at 32
    EXPECT_EQ(Bytes(ring_bytes.begin(), ring_bytes.begin() + 32), header);
    EXPECT_EQ(Bytes(ring_bytes.begin() + 40, ring_bytes.begin() + 54), pattern(14));
    EXPECT_EQ(ring_bytes[63], 0);
    EXPECT_EQ(ring_bytes[64 + 30], 0);
    EXPECT_EQ(ring_bytes[64 + 63], 0xFF);
}

TEST_F(EventRingTest, Frame_WithoutTrailer_EndsWithItsCheckSequenceLowByteFirst)
{
    const char digits[] = "123456789"; // the classic check value of this CRC is 0xCBF43926
    write({Bytes(digits, digits + 9)});
    EXPECT_EQ(Bytes(ring_bytes.begin() + 49, ring_bytes.begin() + 53), (Bytes{0x26, 0x39, 0xF4, 0xCB}));
}

TEST_F(EventRingTest, Frame_WithTrailerOnTheWire_IsTakenAsItIs)
{
    write({pattern(20)}, 3, true);
    EXPECT_EQ(ring_bytes[8] << 8 | ring_bytes[9], 20);
    EXPECT_EQ(Bytes(ring_bytes.begin() + 40, ring_bytes.begin() + 60), pattern(20));
}

TEST_F(EventRingTest, FiveFrames_OnePublish_ShareAnEventWithSlotsOf16ByteSteps)
{
    // Lengths with check sequence 60, 61, 64, 68, 100 take (length + 27) & ~15: 80, 80, 80, 80, 112.
    write({pattern(56), pattern(57), pattern(60), pattern(64), pattern(96)});
    EXPECT_EQ(ring_bytes[30], 5);
    const int lengths[] = {60, 61, 64, 68, 100};
    const size_t starts[] = {32, 112, 192, 272, 352};
    for (int i = 0; i < 5; i++) {
        EXPECT_EQ(ring_bytes[8 + 4 * i] << 8 | ring_bytes[9 + 4 * i], lengths[i]);
        EXPECT_EQ(ring_bytes[starts[i] + 8], 1) << i;
        EXPECT_EQ(ring_bytes[starts[i] + 8 + lengths[i] - 5], uint8_t(lengths[i] - 4)) << i;
    }
    // 352 + 112 = 464 bytes are 8 slots.
    EXPECT_EQ(ring_bytes[28] << 8 | ring_bytes[29], 512);
    EXPECT_EQ(ring_bytes[511], 0);
}

TEST_F(EventRingTest, SixthFrame_BeginsANewEvent)
{
    for (int i = 0; i < 6; i++)
        ASSERT_TRUE(ring.append(pattern(14).data(), 14, 3, false, now));
    EXPECT_EQ(ring.unconsumed(), 1u);
    EXPECT_EQ(ring.packets_filling(), 1u);
    ring.publish(now);
    const uint32_t first = ring_bytes[28] << 8 | ring_bytes[29];
    EXPECT_EQ(ring_bytes[30], 5);
    EXPECT_EQ(ring_bytes[first + 30], 1);
}

TEST_F(EventRingTest, FrameSlotAlwaysLeavesTheLastByteAlone_ForEveryLength)
{
    for (uint32_t len = 14; len <= 300; len++) {
        attach(4096);
        const Bytes f(len, 0xAB);
        ASSERT_TRUE(ring.append(f.data(), len, 1, false, now));
        ring.publish(now);
        const uint32_t batch = ring_bytes[28] << 8 | ring_bytes[29];
        ASSERT_EQ(batch % 64, 0u);
        ASSERT_LE(40 + len + 4, batch - 1) << len;
        ASSERT_EQ(ring_bytes[batch - 1], 0) << len;
        ASSERT_EQ(Bytes(ring_bytes.begin() + 40, ring_bytes.begin() + 40 + len), f);
    }
}

TEST_F(EventRingTest, EventAtTheEnd_IsWrappedToTheStart)
{
    attach(256);
    write({pattern(14)});
    write({pattern(14)});
    write({pattern(14)});
    uint32_t at = consume(0);
    at = consume(at);
    at = consume(at);     // 192
    write({pattern(60)}); // 32 + 80 bytes: slots 192 and 0
    EXPECT_EQ(at, 192u);
    EXPECT_EQ(ring_bytes[192 + 30], 1);
    Bytes frame;
    for (uint32_t i = 0; i < 60; i++)
        frame.push_back(ring_bytes[(192 + 40 + i) % 256]);
    EXPECT_EQ(frame, pattern(60));
    EXPECT_EQ(ring_bytes[63], 0); // the last byte of the event
    EXPECT_EQ(consume(192), 64u);
}

TEST_F(EventRingTest, FullRing_OneMoreFrame_IsDroppedAndNothingUnconsumedIsTouched)
{
    attach(256);
    for (int i = 0; i < 4; i++)
        write({Bytes(14, uint8_t(0x10 + i))});
    const Bytes before = ring_bytes;
    EXPECT_FALSE(ring.append(pattern(14).data(), 14, 3, false, now));
    EXPECT_EQ(ring.counters().ring_full, 1u);
    EXPECT_EQ(ring_bytes, before);

    consume(0);
    EXPECT_TRUE(ring.append(pattern(14).data(), 14, 3, false, now));
    ring.publish(now);
    EXPECT_EQ(ring_bytes[30], 1);
    EXPECT_EQ(ring_bytes[64 + 40], 0x11); // the second event still stands
}

TEST_F(EventRingTest, AlmostFullRing_FrameThatDoesNotFitTheEventBeingFilled_LeavesWhatIsThere)
{
    attach(128);
    ASSERT_TRUE(ring.append(pattern(40).data(), 40, 3, false, now)); // 32 + 64: both slots
    EXPECT_FALSE(ring.append(pattern(40).data(), 40, 3, false, now));
    ring.publish(now);
    EXPECT_EQ(ring_bytes[30], 1);
    EXPECT_EQ(Bytes(ring_bytes.begin() + 40, ring_bytes.begin() + 80), pattern(40));
}

TEST_F(EventRingTest, FrameLongerThanTheRing_IsCountedAsOversize)
{
    attach(256);
    const Bytes big(300, 1);
    EXPECT_FALSE(ring.append(big.data(), 300, 3, false, now));
    EXPECT_EQ(ring.counters().oversize, 1u);
    EXPECT_EQ(ring.counters().ring_full, 0u);
}

TEST_F(EventRingTest, ConsumerPositionAheadOfWhatWasWritten_IsIgnoredAndCounted)
{
    attach(256);
    for (int i = 0; i < 4; i++)
        write({pattern(14)});
    flow.flow_desc = 5;
    EXPECT_EQ(ring.poll_consumed(), 0u);
    EXPECT_EQ(ring.poll_consumed(), 0u);
    EXPECT_EQ(ring.counters().bad_flow, 1u); // one and the same value
    EXPECT_FALSE(ring.append(pattern(14).data(), 14, 3, false, now));
    flow.flow_desc = 2;
    EXPECT_EQ(ring.poll_consumed(), 2u);
}

TEST_F(EventRingTest, ConsumerPositionGoingBack_IsIgnoredAndCounted)
{
    write({pattern(14)});
    write({pattern(14)});
    consume(consume(0));
    EXPECT_EQ(ring.poll_consumed(), 2u);
    flow.flow_desc = 1;
    EXPECT_EQ(ring.poll_consumed(), 0u);
    EXPECT_EQ(ring.counters().bad_flow, 1u);
    EXPECT_EQ(ring.bytes_free(), ring_bytes.size());
}

TEST_F(EventRingTest, DoorbellAloneAdvances_FreesTheEvents)
{
    attach(256);
    for (int i = 0; i < 4; i++)
        write({pattern(14)});
    ring_doorbell(3);
    EXPECT_EQ(ring.poll_consumed(), 3u);
    EXPECT_EQ(ring.bytes_free(), 192u);
    EXPECT_EQ(ring.counters().bad_flow, 0u);
    EXPECT_EQ(ring.poll_consumed(), 0u);
    EXPECT_EQ(ring.counters().bad_flow, 1u); // beside it the flow window, still 0, makes no sense any more
}

TEST_F(EventRingTest, DoorbellThatLagsBehind_IsNoMistake)
{
    for (int i = 0; i < 3; i++)
        write({pattern(14)});
    flow.flow_desc = 3;
    ring_doorbell(1);
    EXPECT_EQ(ring.poll_consumed(), 3u);
    EXPECT_EQ(ring.counters().bad_flow, 0u);
    ring_doorbell(9);
    ring.poll_consumed();
    EXPECT_EQ(ring.counters().bad_flow, 1u);
}

TEST_F(EventRingTest, ManyEventsThroughASmallRing_KeepTheFreeBytesExact)
{
    attach(512);
    uint32_t at = 0;
    for (int i = 0; i < 10000; i++) {
        const Bytes f(14 + i % 200, uint8_t(i));
        ASSERT_TRUE(ring.append(f.data(), static_cast<uint32_t>(f.size()), 3, false, now)) << i;
        ring.publish(now);
        ASSERT_EQ(ring_bytes[at + 30], 1);
        ASSERT_EQ(ring_bytes[(at + 40) % 512], uint8_t(i));
        at = consume(at);
    }
    ring.poll_consumed();
    EXPECT_EQ(ring.bytes_free(), 512u);
    EXPECT_EQ(ring.counters().delivered, 10000u);
}

TEST_F(EventRingTest, HardwareOrder_EventIsPresentBeforeItsLastBytesAndCompletesLater)
{
    ring.set_kind(WriterKind::HardwareOrder);
    write({pattern(60), pattern(60)});
    EXPECT_EQ(ring_bytes[30], 2);
    EXPECT_EQ(ring_bytes[8] << 8 | ring_bytes[9], 64); // the header stands whole
    EXPECT_EQ(ring_bytes[255], 0xFF);                  // 32 + 80 + 80 are 4 slots less nothing: byte 191
    EXPECT_EQ(ring_bytes[191], 0xFF);
    EXPECT_EQ(Bytes(ring_bytes.begin() + 40, ring_bytes.begin() + 100), pattern(60));
    EXPECT_NE(ring_bytes[120 + 59], 60); // the last frame's last bytes do not

    EXPECT_TRUE(ring.complete());
    EXPECT_EQ(ring_bytes[191], 0);
    EXPECT_EQ(Bytes(ring_bytes.begin() + 120, ring_bytes.begin() + 180), pattern(60));
    EXPECT_FALSE(ring.complete());
}

TEST_F(EventRingTest, HardwareOrderHeld_StaysIncompleteUntilLetGo)
{
    ring.set_kind(WriterKind::HardwareOrder);
    ring.hold_completion(true);
    write({pattern(14)});
    EXPECT_FALSE(ring.complete());
    EXPECT_EQ(ring_bytes[63], 0xFF);
    ring.hold_completion(false);
    EXPECT_TRUE(ring.complete());
    EXPECT_EQ(ring_bytes[63], 0);
}

TEST_F(EventRingTest, RingMadeAnew_MostUnconsumedBytesAreOfTheNewRing)
{
    for (int i = 0; i < 10; i++)
        write({pattern(40)}); // 2 slots: 32 + 8 + 40 + 4 bytes
    EXPECT_EQ(ring.counters().ring_bytes, 4096u);
    EXPECT_EQ(ring.counters().high_water, 1280u);
    ring.detach();
    EXPECT_EQ(ring.counters().ring_bytes, 4096u) << "of the last one, as is what follows";
    EXPECT_EQ(ring.counters().high_water, 1280u);
    attach(1024);
    EXPECT_EQ(ring.counters().ring_bytes, 1024u);
    EXPECT_EQ(ring.counters().high_water, 0u);
    write({pattern(40)});
    EXPECT_EQ(ring.counters().high_water, 128u);
    EXPECT_EQ(ring.counters().delivered, 11u);
}

} // namespace
} // namespace softnic
