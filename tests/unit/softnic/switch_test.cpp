// The switch's model: what it sends and stamps, and that every option does what it says.
#include "ports/memory.h"
#include "ports/switch.h"

#include <algorithm>
#include <gtest/gtest.h>

using namespace softnic;

namespace {

using Bytes = std::vector<uint8_t>;

constexpr uint64_t kStart = 1700000000000000000;
constexpr uint64_t kSecond = 1000000000;

SwitchOptions options_of(const std::string &text)
{
    SwitchOptions options;
    std::string error;
    EXPECT_TRUE(parse_switch_options(text, &options, &error)) << error;
    return options;
}

uint64_t big_endian(const Bytes &bytes, size_t at, size_t n)
{
    uint64_t value = 0;
    for (size_t i = 0; i < n; i++)
        value = value << 8 | bytes.at(at + i);
    return value;
}

// Of a keyframe without skew fields.
constexpr size_t kClockAt = 34, kSyncAt = 50, kDroppedAt = 66, kModeAt = 78;

} // namespace

TEST(SwitchModel, KeyframeOneSecondAfterTheStart_LiteralBytes)
{
    SwitchModel model(options_of(""), kStart);
    const Bytes expected = {
        0x01, 0x00, 0x5E, 0x00, 0x00, 0xFD, 0x02, 0x00, 0x00, 0x00, 0x00, 0xFD, 0x08, 0x00, // Ethernet
        0x45, 0x00, 0x00, 0x42, 0x00, 0x00, 0x00, 0x00, 0x40, 0xFD, 0x77, 0xBF,             // 66 bytes, protocol 253
        0x00, 0x00, 0x00, 0x00, 0x01, 0x01, 0x01, 0x00,                                     // to 1.1.1.0
        0x00, 0x00, 0x00, 0x00, 0x14, 0xDC, 0x93, 0x80,                                     // 350000000 ticks
        0x17, 0x97, 0x9C, 0xFE, 0x71, 0xC4, 0xCA, 0x00,                                     // UTC
        0x17, 0x97, 0x9C, 0xFE, 0x71, 0xC4, 0xCA, 0x00,                                     // synchronised
        0x17, 0x97, 0x9C, 0xFE, 0x71, 0xC4, 0xCA, 0x00,                                     // sent
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,                                     // dropped
        0x00, 0x01, 0x00, 0x01, 0x01, 0x00,                                                 // device, port, mode
        0x29, 0xB9, 0x27, 0x00,                                                             // stamp
    };
    EXPECT_EQ(model.keyframe(kStart + kSecond), expected);
}

TEST(SwitchModel, KeyframeWithSkew_HundredBytesWithBothFields)
{
    SwitchModel model(options_of("skew=3/2"), kStart);
    const Bytes keyframe = model.keyframe(kStart + kSecond);
    ASSERT_EQ(keyframe.size(), 100u);
    EXPECT_EQ(big_endian(keyframe, 16, 2), 82u);
    EXPECT_EQ(big_endian(keyframe, kClockAt, 8), 525000000u); // 350 MHz * 3 / 2
    EXPECT_EQ(big_endian(keyframe, 58, 8), 3u);
    EXPECT_EQ(big_endian(keyframe, 66, 8), 2u);
    EXPECT_EQ(big_endian(keyframe, 94, 1), 1u);
}

TEST(SwitchModel, StampWord_LeavesBit7OutAndWrapsAt31Bits)
{
    // One tick a nanosecond, so that times are clock values.
    SwitchModel model(options_of("rate=1000000000"), kStart);
    EXPECT_EQ(model.stamp_word(kStart), 0u);
    EXPECT_EQ(model.stamp_word(kStart + 0x7F), 0x7Fu);
    EXPECT_EQ(model.stamp_word(kStart + 0x80), 0x100u);
    EXPECT_EQ(model.stamp_word(kStart + 0x12345678), 0x2468AC78u);
    EXPECT_EQ(model.stamp_word(kStart + 0x7FFFFFFF), 0xFFFFFF7Fu);
    EXPECT_EQ(model.stamp_word(kStart + 0x80000000), 0u);
    EXPECT_EQ(model.stamp_word(kStart + 0x80000081), 0x101u);
}

TEST(SwitchModel, ShortFrame_PaddedBeforeItsStamp)
{
    SwitchModel model(options_of("rate=1000000000"), kStart);
    const Bytes stamp = {0x24, 0x68, 0xAC, 0x78};
    for (const size_t size : {14, 42, 59, 60, 61}) {
        const Bytes frame(size, 0xAB);
        Bytes expected = frame;
        expected.resize(std::max<size_t>(size, 60));
        expected.insert(expected.end(), stamp.begin(), stamp.end());
        EXPECT_EQ(model.stamped(frame.data(), static_cast<uint32_t>(size), kStart + 0x12345678), expected) << size;
    }
}

TEST(SwitchModel, Ticks_StayExactOverADay)
{
    SwitchModel model(options_of(""), kStart);
    EXPECT_EQ(model.ticks(kStart + 19), 6u); // 6.65
    EXPECT_EQ(model.ticks(kStart + 20), 7u);
    EXPECT_EQ(model.ticks(kStart + 86400 * kSecond), 30240000000000u);
    EXPECT_EQ(model.ticks(kStart + 86400 * kSecond + 20), 30240000000007u);
}

TEST(SwitchModel, Keyframes_ComeAtTheIntervalAndNotBefore)
{
    SwitchModel model(options_of("interval=100"), kStart);
    EXPECT_EQ(model.keyframe(kStart).size(), 84u);
    EXPECT_EQ(model.next_keyframe_ns(), kStart + 100000000);
    EXPECT_TRUE(model.keyframe(kStart + 99999999).empty());
    EXPECT_EQ(model.keyframe(kStart + 100000000).size(), 84u);
    SwitchModel silent(options_of("interval=0"), kStart);
    EXPECT_EQ(silent.next_keyframe_ns(), UINT64_MAX);
    EXPECT_TRUE(silent.keyframe(kStart + kSecond).empty());
}

TEST(SwitchModel, PtpLost_KeyframesOfThatSpanHaveNoSyncTime)
{
    SwitchModel model(options_of("ptp-lost=2-4.5,interval=500"), kStart);
    for (uint64_t half = 0; half < 12; half++) {
        const uint64_t now = kStart + half * kSecond / 2;
        EXPECT_EQ(big_endian(model.keyframe(now), kSyncAt, 8), half >= 4 && half < 9 ? 0 : now) << half;
    }
}

TEST(SwitchModel, PtpLostTwice_EachSpanCounts)
{
    SwitchModel model(options_of("ptp-lost=1-2,ptp-lost=4-6"), kStart);
    const bool lost[] = {false, true, false, false, true, true, false};
    for (uint64_t second = 0; second < 7; second++) {
        const uint64_t now = kStart + second * kSecond;
        EXPECT_EQ(big_endian(model.keyframe(now), kSyncAt, 8), lost[second] ? 0 : now) << second;
    }
}

TEST(SwitchModel, ModeChanges_AnnouncedFromTheirTimesOn)
{
    SwitchModel model(options_of("mode=2@1,mode=1@3"), kStart);
    const int expected[] = {1, 2, 2, 1, 1};
    for (uint64_t second = 0; second < 5; second++)
        EXPECT_EQ(model.keyframe(kStart + second * kSecond).at(kModeAt), expected[second]) << second;
}

TEST(SwitchModel, LostKeyframes_RepeatBySeedAndAreCounted)
{
    const auto run = [](const std::string &text) {
        SwitchModel model(options_of(text), kStart);
        std::string fates;
        uint64_t lost = 0;
        for (uint64_t second = 0; second < 1000; second++) {
            const Bytes keyframe = model.keyframe(kStart + second * kSecond);
            lost += keyframe.empty();
            fates += keyframe.empty() ? '-' : 'k';
            if (!keyframe.empty()) {
                EXPECT_EQ(big_endian(keyframe, kDroppedAt, 8), lost);
            }
        }
        return fates;
    };
    const auto losses = [](const std::string &fates) { return std::count(fates.begin(), fates.end(), '-'); };
    const std::string once = run("lose=0.25,seed=7");
    EXPECT_EQ(run("lose=0.25,seed=7"), once);
    EXPECT_NE(run("lose=0.25,seed=8"), once);
    EXPECT_NEAR(static_cast<double>(losses(once)), 250, 70); // five standard deviations
    EXPECT_EQ(losses(run("lose=0")), 0);
    EXPECT_EQ(losses(run("lose=1")), 1000);
}

TEST(SwitchOptionsText, EveryBadOption_RefusedWithItself)
{
    for (const std::string bad : {"rate",
                                  "rate=",
                                  "rate=0",
                                  "rate=x",
                                  "rate=-1",
                                  "rate=1x",
                                  "interval=",
                                  "interval=1.5",
                                  "interval=86400001",
                                  "skew=1",
                                  "skew=1/0",
                                  "skew=0/1",
                                  "skew=1/",
                                  "ptp-lost=1",
                                  "ptp-lost=2-1",
                                  "ptp-lost=-1-2",
                                  "ptp-lost=nan-1",
                                  "lose=-0.1",
                                  "lose=1.1",
                                  "lose=nan",
                                  "lose=",
                                  "mode=1",
                                  "mode=256@1",
                                  "mode=1@",
                                  "mode=1@-1",
                                  "dst=1.1.1",
                                  "dst=host",
                                  "seed=",
                                  "seed=0x1",
                                  "unknown=1",
                                  "",
                                  "=",
                                  "mode"}) {
        SwitchOptions options;
        std::string error;
        EXPECT_FALSE(parse_switch_options("seed=1," + bad, &options, &error)) << bad;
        EXPECT_EQ(error, "switch option '" + bad +
                             "' is not one of rate=HZ, interval=MS, skew=NUM/DEN, ptp-lost=FROM-TO, lose=CHANCE, "
                             "mode=N@SECONDS, dst=ADDRESS, seed=N");
    }
    SwitchOptions options;
    std::string error;
    EXPECT_FALSE(parse_switch_options("mode=2@3,mode=1@2", &options, &error)); // not in order
}

TEST(SwitchOptionsText, Destination_IsWhereKeyframesGo)
{
    SwitchModel model(options_of("dst=10.77.0.9"), kStart);
    EXPECT_EQ(big_endian(model.keyframe(kStart), 30, 4), 0x0A4D0009u);
}

TEST(SwitchPort, SteppedUse_KeyframesWhenDueAndEveryFrameStamped)
{
    uint64_t now = kStart;
    auto memory = std::make_unique<MemoryPort>();
    MemoryPort *wire = memory.get();
    SwitchPort port(
        std::move(memory), options_of("interval=100,rate=1000000000"), [&] { return now; }, false);
    EXPECT_EQ(port.poll_fd(), -1);
    const auto received = [&] {
        RxFrame frame;
        return port.receive(&frame) ? Bytes(frame.data, frame.data + frame.len) : Bytes();
    };

    const Bytes frame(60, 0xAB);
    wire->inject(frame.data(), frame.size());
    EXPECT_EQ(received().size(), 84u); // the keyframe that is due goes first
    now += 0x12345;
    Bytes stamped = frame;
    stamped.insert(stamped.end(), {0x00, 0x02, 0x46, 0x45});
    EXPECT_EQ(received(), stamped);
    EXPECT_TRUE(received().empty());
    now = kStart + 100000000;
    EXPECT_EQ(big_endian(received(), kClockAt, 8), 100000000u);
    EXPECT_TRUE(received().empty());
    EXPECT_EQ(port.counters().received, 3u);

    EXPECT_EQ(port.send(frame.data(), frame.size()), 0); // sent frames pass as they are
    Bytes sent;
    ASSERT_TRUE(wire->take_sent(&sent));
    EXPECT_EQ(sent, frame);
}
