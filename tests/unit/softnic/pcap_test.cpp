// Capture files: every form of the classic format, and what is none.
#include "ports/memory.h"
#include "ports/pcap.h"
#include "ports/switch.h"
#include "scoped_env.h"
#include "softnic.h"

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

using namespace softnic;

static unsigned timers_set;

extern "C" int __real_timerfd_settime(int fd, int flags, const itimerspec *value, itimerspec *old);
extern "C" int __wrap_timerfd_settime(int fd, int flags, const itimerspec *value, itimerspec *old)
{
    timers_set++;
    return __real_timerfd_settime(fd, flags, value, old);
}

namespace {

using Bytes = std::vector<uint8_t>;

class File {
public:
    explicit File(const Bytes &bytes)
    {
        const int fd = mkstemp(name_);
        EXPECT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
        close(fd);
    }
    ~File() { unlink(name_); }
    const char *name() const { return name_; }

private:
    char name_[32] = "/tmp/ruk-pcap-XXXXXX";
};

Bytes operator+(Bytes a, const Bytes &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// Little endian, microseconds, Ethernet.
const Bytes kHeader = {0xd4, 0xc3, 0xb2, 0xa1, 2, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 4, 0, 1, 0, 0, 0};
// At 0x65000001 s and 500000 us, 62 bytes of 62.
const Bytes kRecord = {1, 0, 0, 0x65, 0x20, 0xa1, 7, 0, 62, 0, 0, 0, 62, 0, 0, 0};

Bytes frame(uint8_t fill, size_t n = 62) { return Bytes(n, fill); }

// A locale of this test's own, for hosts have no other than "C" for certain.
class DecimalComma {
public:
    DecimalComma()
    {
        const std::string dir = dir_;
        std::ofstream(dir + "/source") << "comment_char %\nescape_char /\nLC_NUMERIC\ndecimal_point \",\"\n"
                                          "thousands_sep \"\"\ngrouping -1\nEND LC_NUMERIC\n";
        // It warns of all that such a locale lacks.
        const std::string make = "localedef -c -i " + dir + "/source -f ANSI_X3.4-1968 " + dir + "/xx_XX 2>/dev/null";
        [[maybe_unused]] const int warned = system(make.c_str());
    }
    ~DecimalComma()
    {
        setlocale(LC_NUMERIC, "C");
        std::filesystem::remove_all(dir_);
    }
    bool set() const
    {
        const test_support::ScopedEnv path("LOCPATH", dir_);
        return setlocale(LC_NUMERIC, "xx_XX") != nullptr && strtod("0,5", nullptr) == 0.5;
    }

private:
    char name_[32] = "/tmp/ruk-locale-XXXXXX";
    const char *dir_ = mkdtemp(name_);
};

std::string refusal(const Bytes &bytes)
{
    const File file(bytes);
    std::string error;
    EXPECT_EQ(PcapReader::open(file.name(), &error), nullptr);
    EXPECT_EQ(error.compare(0, strlen(file.name()), file.name()), 0) << error;
    return error.substr(strlen(file.name()));
}

} // namespace

TEST(Pcap, LittleEndianMicroseconds_FrameAndTime)
{
    const File file(kHeader + kRecord + frame(7) + kRecord + frame(8));
    std::string error;
    const auto reader = PcapReader::open(file.name(), &error);
    ASSERT_NE(reader, nullptr) << error;
    uint64_t time_ns;
    Bytes bytes;
    ASSERT_TRUE(reader->next(&time_ns, &bytes));
    EXPECT_EQ(time_ns, 0x65000001u * UINT64_C(1000000000) + 500000000);
    EXPECT_EQ(bytes, frame(7));
    ASSERT_TRUE(reader->next(&time_ns, &bytes));
    EXPECT_EQ(bytes, frame(8));
    EXPECT_FALSE(reader->next(&time_ns, &bytes));
}

TEST(Pcap, BigEndianNanoseconds_FrameAndTime)
{
    const Bytes header = {0xa1, 0xb2, 0x3c, 0x4d, 0, 2, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 4, 0, 0, 0, 0, 0, 1};
    const Bytes record = {0x65, 0, 0, 1, 0, 0, 0, 9, 0, 0, 0, 14, 0, 0, 0, 14};
    const File file(header + record + frame(7, 14));
    std::string error;
    const auto reader = PcapReader::open(file.name(), &error);
    ASSERT_NE(reader, nullptr) << error;
    uint64_t time_ns;
    Bytes bytes;
    ASSERT_TRUE(reader->next(&time_ns, &bytes));
    EXPECT_EQ(time_ns, 0x65000001u * UINT64_C(1000000000) + 9);
    EXPECT_EQ(bytes, frame(7, 14) + frame(0, 46)); // padded as on the wire
}

TEST(Pcap, ShortFramesThatEndInATrailer_PaddedBeforeIt)
{
    const Bytes trailer = {0xde, 0xad, 0xbe, 0xef};
    Bytes records = kHeader;
    for (const uint8_t size : {3, 18, 63, 64, 65}) { // the first has no room for a trailer
        Bytes record = kRecord;
        record[8] = record[12] = size;
        records = records + record + (size < 4 ? frame(7, size) : frame(7, size - 4) + trailer);
    }
    const File file(records);
    std::string error;
    const auto reader = PcapReader::open(file.name(), &error, true);
    ASSERT_NE(reader, nullptr) << error;
    uint64_t time_ns;
    Bytes bytes;
    ASSERT_TRUE(reader->next(&time_ns, &bytes));
    EXPECT_EQ(bytes, frame(7, 14) + frame(0, 46) + trailer);
    ASSERT_TRUE(reader->next(&time_ns, &bytes));
    EXPECT_EQ(bytes, frame(7, 59) + frame(0, 1) + trailer);
    ASSERT_TRUE(reader->next(&time_ns, &bytes));
    EXPECT_EQ(bytes, frame(7, 60) + trailer);
    ASSERT_TRUE(reader->next(&time_ns, &bytes));
    EXPECT_EQ(bytes, frame(7, 61) + trailer);
    EXPECT_EQ(reader->passed_over(), 1u);
}

TEST(Pcap, FrameOfWhichOnlyTheBeginningWasKept_IsPassedOverAndCounted)
{
    Bytes cut = kRecord;
    cut[12] = 63;
    const File file(kHeader + cut + frame(1) + kRecord + frame(2));
    std::string error;
    const auto reader = PcapReader::open(file.name(), &error);
    uint64_t time_ns;
    Bytes bytes;
    ASSERT_TRUE(reader->next(&time_ns, &bytes));
    EXPECT_EQ(bytes, frame(2));
    EXPECT_EQ(reader->passed_over(), 1u);
}

TEST(Pcap, FileCutOffInAFrame_EndsBeforeIt)
{
    Bytes huge = kRecord; // a frame of 16 MiB, kept whole
    huge[11] = huge[15] = 1;
    const Bytes ends[] = {kRecord + frame(2, 30), Bytes(kRecord.begin(), kRecord.begin() + 9), huge + frame(2)};
    for (const Bytes &end : ends) {
        const File file(kHeader + kRecord + frame(1) + end);
        std::string error;
        const auto reader = PcapReader::open(file.name(), &error);
        uint64_t time_ns;
        Bytes bytes;
        EXPECT_TRUE(reader->next(&time_ns, &bytes));
        EXPECT_FALSE(reader->damaged());
        EXPECT_FALSE(reader->next(&time_ns, &bytes));
        EXPECT_TRUE(reader->damaged());
    }
}

TEST(Pcap, FileThatEndsBehindAFrame_IsNotDamaged)
{
    const File file(kHeader + kRecord + frame(1));
    std::string error;
    const auto reader = PcapReader::open(file.name(), &error);
    uint64_t time_ns;
    Bytes bytes;
    EXPECT_TRUE(reader->next(&time_ns, &bytes));
    EXPECT_FALSE(reader->next(&time_ns, &bytes));
    EXPECT_FALSE(reader->damaged());
}

TEST(Pcap, DamagedFileThroughThePublicInterface_IsNotTakenForItsEnd)
{
    Bytes huge = kRecord;
    huge[11] = huge[15] = 1;
    const Bytes ends[] = {kRecord + frame(2, 30), Bytes(kRecord.begin(), kRecord.begin() + 9),
                          huge + kRecord + frame(2)};
    for (const Bytes &end : ends) {
        const File file(kHeader + kRecord + frame(1) + end);
        softnic_pcap_t *capture = softnic_pcap_open(file.name(), nullptr, 0);
        ASSERT_NE(capture, nullptr);
        uint64_t time_ns;
        const void *bytes = nullptr;
        size_t len = 0;
        EXPECT_EQ(softnic_pcap_next(capture, &time_ns, &bytes, &len), 1);
        EXPECT_EQ(softnic_pcap_next(capture, &time_ns, &bytes, &len), -1);
        EXPECT_EQ(softnic_pcap_next(capture, &time_ns, &bytes, &len), -1); // and stays so
        EXPECT_EQ(len, 62u);
        softnic_pcap_close(capture);
    }
    const File whole(kHeader + kRecord + frame(1));
    softnic_pcap_t *capture = softnic_pcap_open(whole.name(), nullptr, 0);
    ASSERT_NE(capture, nullptr);
    uint64_t time_ns;
    const void *bytes;
    size_t len;
    EXPECT_EQ(softnic_pcap_next(capture, &time_ns, &bytes, &len), 1);
    EXPECT_EQ(softnic_pcap_next(capture, &time_ns, &bytes, &len), 0);
    softnic_pcap_close(capture);
}

// As on the wire: to pad it would make up bytes that nobody sent.
TEST(Pcap, ShortFrameThatEndsInsideItsDatagram_IsPassedOverAndCounted)
{
    const Bytes trailer = {0xde, 0xad, 0xbe, 0xef};
    for (const bool with_trailer : {false, true}) {
        Bytes cut = frame(2, 44), whole = frame(3, 44);
        for (Bytes *f : {&cut, &whole}) {
            (*f)[12] = 8; // IPv4: a header of 20 bytes, protocol 17
            (*f)[13] = 0;
            (*f)[14] = 0x45;
            (*f)[16] = (*f)[20] = (*f)[21] = 0;
            (*f)[23] = 17;
        }
        cut[17] = 31; // one more than are there
        whole[17] = 30;
        const Bytes end = with_trailer ? trailer : Bytes();
        Bytes record = kRecord;
        record[8] = record[12] = static_cast<uint8_t>(44 + end.size());
        const File file(kHeader + record + cut + end + record + whole + end);
        std::string error;
        const auto reader = PcapReader::open(file.name(), &error, with_trailer);
        ASSERT_NE(reader, nullptr) << error;
        uint64_t time_ns;
        Bytes bytes;
        ASSERT_TRUE(reader->next(&time_ns, &bytes));
        EXPECT_EQ(bytes, whole + frame(0, 16) + end);
        EXPECT_EQ(reader->passed_over(), 1u);
        EXPECT_FALSE(reader->next(&time_ns, &bytes));
        EXPECT_FALSE(reader->damaged());
    }
}

TEST(Pcap, WhatIsNoCaptureOfEthernetFrames_IsRefusedWithTheReason)
{
    EXPECT_EQ(refusal({1, 2, 3}), " is no capture file: it is too short");
    EXPECT_EQ(refusal(Bytes(24, 'x')), " is no capture file");
    Bytes other = kHeader;
    other[20] = 113;
    EXPECT_EQ(refusal(other), " holds no Ethernet frames");
    Bytes ng = kHeader;
    memcpy(ng.data(), "\x0a\x0d\x0d\x0a", 4);
    EXPECT_EQ(refusal(ng), " is a pcapng file: convert it with 'tcpdump -r FILE -w NEW'");
    std::string error;
    EXPECT_EQ(PcapReader::open("/nowhere/at-all.pcap", &error), nullptr);
    EXPECT_EQ(error, "/nowhere/at-all.pcap: No such file or directory");
    EXPECT_EQ(PcapReader::open("/tmp", &error), nullptr);
    EXPECT_EQ(error, "/tmp: Is a directory");
    char cut[8];
    EXPECT_EQ(softnic_pcap_open("/nowhere/at-all.pcap", cut, sizeof cut), nullptr);
    EXPECT_STREQ(cut, "/nowher");
    EXPECT_EQ(softnic_pcap_open("/nowhere/at-all.pcap", nullptr, 0), nullptr);
}

TEST(Pcap, ReplayArgument_IsTakenApart)
{
    std::string path, error;
    double speed;
    EXPECT_TRUE(parse_replay("a,b.pcap", &path, &speed, &error));
    EXPECT_EQ(path, "a,b.pcap");
    EXPECT_EQ(speed, 1);
    EXPECT_TRUE(parse_replay("feed.pcap,speed=2.5", &path, &speed, &error));
    EXPECT_EQ(path, "feed.pcap");
    EXPECT_EQ(speed, 2.5);
    for (const char *bad : {"f,speed=", "f,speed=0", "f,speed=-1", "f,speed=x", "f,speed=1e7", "f,speed=nan"})
        EXPECT_FALSE(parse_replay(bad, &path, &speed, &error)) << bad;
    EXPECT_EQ(error, "speed 'nan' is not a number above 0, at most 1000000");
    EXPECT_FALSE(parse_replay("f,speed=1e-400", &path, &speed, &error));
    EXPECT_FALSE(parse_replay(",speed=2", &path, &speed, &error));
    EXPECT_EQ(error, "no file named");
}

TEST(Pcap, SpeedUnderALocaleWithADecimalComma_HasAPoint)
{
    const DecimalComma locale;
    ASSERT_TRUE(locale.set());
    std::string path, error;
    double speed;
    EXPECT_TRUE(parse_replay("feed.pcap,speed=0.5", &path, &speed, &error)) << error;
    EXPECT_EQ(speed, 0.5);
}

TEST(Replay, FramesOfTheFile_ArriveAfterTheFirstFilterAtTheirPace)
{
    Bytes later = kRecord; // 400 us after the first
    later[4] = 0xb0;
    later[5] = 0xa2;
    const File file(kHeader + kRecord + frame(1) + later + frame(2));
    std::string error;
    uint64_t now = 5000000;
    ReplayPort port(std::make_unique<MemoryPort>(), PcapReader::open(file.name(), &error), 4, [&] { return now; });
    RxFrame got;
    EXPECT_FALSE(port.receive(&got)); // nobody has asked for anything yet
    now += 1000000000;
    EXPECT_FALSE(port.receive(&got));
    EXPECT_EQ(port.steer(SteerKey{1, 2, 0, 17}, true), 0);
    now += 99999999;
    EXPECT_FALSE(port.receive(&got)); // more may follow
    now += 1;
    ASSERT_TRUE(port.receive(&got));
    EXPECT_EQ(Bytes(got.data, got.data + got.len), frame(1));
    EXPECT_FALSE(port.receive(&got));
    now += 99999;
    EXPECT_FALSE(port.receive(&got));
    now += 1; // 100 us: four times as fast
    ASSERT_TRUE(port.receive(&got));
    EXPECT_EQ(Bytes(got.data, got.data + got.len), frame(2));
    now += 1000000000;
    EXPECT_FALSE(port.receive(&got));
    EXPECT_EQ(port.counters().received, 2u);
}

TEST(Replay, SpeedNextToNothing_HoldsTheSecondFrameBack)
{
    Bytes later = kRecord; // a second after the first
    later[0]++;
    const File file(kHeader + kRecord + frame(1) + later + frame(2));
    std::string error;
    uint64_t now = 5000000;
    ReplayPort port(std::make_unique<MemoryPort>(), PcapReader::open(file.name(), &error), 1e-300, [&] { return now; });
    EXPECT_EQ(port.steer(SteerKey{1, 2, 0, 17}, true), 0);
    now += ReplayPort::kQuietNs;
    RxFrame got;
    ASSERT_TRUE(port.receive(&got));
    now += UINT64_C(10000000000000000); // four months
    EXPECT_FALSE(port.receive(&got));
}

// As a program does that binds first and joins then.
TEST(Replay, AnotherFilterSoonAfterTheFirst_PutsTheBeginningOffAndALaterOneDoesNot)
{
    Bytes later = kRecord; // 200 ms after the first
    later[4] = 0x60;
    later[5] = 0xae;
    later[6] = 0x0a;
    const File file(kHeader + kRecord + frame(1) + later + frame(2));
    std::string error;
    uint64_t now = 5000000;
    ReplayPort port(std::make_unique<MemoryPort>(), PcapReader::open(file.name(), &error), 1, [&] { return now; });
    RxFrame got;
    EXPECT_EQ(port.steer(SteerKey{1, 2, 0, 17}, true), 0);
    now += 99999999;
    EXPECT_EQ(port.steer(SteerKey{1, 3, 0, 17}, true), 0);
    now += 99999999;
    EXPECT_FALSE(port.receive(&got));
    now += 1;
    ASSERT_TRUE(port.receive(&got));
    EXPECT_EQ(Bytes(got.data, got.data + got.len), frame(1));
    now += 100000000;
    EXPECT_EQ(port.steer(SteerKey{1, 4, 0, 17}, true), 0);
    now += 99999999;
    EXPECT_FALSE(port.receive(&got));
    now += 1;
    ASSERT_TRUE(port.receive(&got));
    EXPECT_EQ(Bytes(got.data, got.data + got.len), frame(2));
    EXPECT_EQ(port.steer(SteerKey{1, 5, 0, 17}, true), 0);
    now += 1000000000;
    EXPECT_FALSE(port.receive(&got));
    EXPECT_EQ(port.counters().received, 2u);
}

TEST(Replay, CaptureThatBeginsAtTimeZero_KeepsItsFirstGap)
{
    Bytes zero = kRecord, later = kRecord;
    for (size_t i = 0; i < 8; i++)
        zero[i] = later[i] = 0;
    later[0] = 3; // seconds
    const File file(kHeader + zero + frame(1) + later + frame(2));
    std::string error;
    uint64_t now = 5000000;
    ReplayPort port(std::make_unique<MemoryPort>(), PcapReader::open(file.name(), &error), 1, [&] { return now; });
    EXPECT_EQ(port.steer(SteerKey{1, 2, 0, 17}, true), 0);
    RxFrame got;
    now += ReplayPort::kQuietNs;
    ASSERT_TRUE(port.receive(&got));
    now += 2999999999;
    EXPECT_FALSE(port.receive(&got));
    now += 1;
    ASSERT_TRUE(port.receive(&got));
    EXPECT_EQ(Bytes(got.data, got.data + got.len), frame(2));
}

// Behind a switch as well.
TEST(Replay, AnEndpointThatTakesFramesWithoutAFilter_StartsItOnce)
{
    const File file(kHeader + kRecord + frame(1));
    std::string error;
    uint64_t now = 1;
    auto replay = std::make_unique<ReplayPort>(std::make_unique<MemoryPort>(), PcapReader::open(file.name(), &error), 1,
                                               [&] { return now; });
    SwitchPort port(
        std::move(replay), SwitchOptions{}, [] { return UINT64_C(1); }, false);
    const auto replayed = [&] { return port.wire().counters().received; };
    RxFrame got;
    while (port.receive(&got))
        ;
    EXPECT_EQ(replayed(), 0u);
    port.listen();
    EXPECT_EQ(port.steer(SteerKey{1, 2, 0, 17}, true), 0);
    port.listen();
    while (port.receive(&got))
        ;
    EXPECT_EQ(replayed(), 0u);
    now += ReplayPort::kQuietNs;
    while (port.receive(&got))
        ;
    EXPECT_EQ(replayed(), 1u);
    port.listen();
    now += ReplayPort::kQuietNs;
    while (port.receive(&got))
        ;
    EXPECT_EQ(replayed(), 1u);
}

TEST(Replay, FramesOfTheWireItself_ArriveAsWell)
{
    const File file(kHeader + kRecord + frame(1));
    std::string error;
    auto wire = std::make_unique<MemoryPort>();
    MemoryPort *memory = wire.get();
    ReplayPort port(std::move(wire), PcapReader::open(file.name(), &error), 1, [] { return UINT64_C(1); });
    const Bytes own = frame(9);
    memory->inject(own.data(), own.size());
    RxFrame got;
    ASSERT_TRUE(port.receive(&got));
    EXPECT_EQ(Bytes(got.data, got.data + got.len), own);
    pollfd waiting = {port.poll_fd(), POLLIN, 0};
    EXPECT_EQ(poll(&waiting, 1, 0), 0);
    EXPECT_EQ(port.steer(SteerKey{1, 2, 0, 17}, true), 0);
    EXPECT_EQ(poll(&waiting, 1, 1000), 1); // due since long, by the monotonic clock
}

// Or the frames of the wire would wait for the file's end.
TEST(Replay, ReplayThatIsBehind_TakesTurnsWithTheWire)
{
    const File file(kHeader + kRecord + frame(1) + kRecord + frame(2) + kRecord + frame(3) + kRecord + frame(4));
    std::string error;
    uint64_t now = 1;
    auto wire = std::make_unique<MemoryPort>();
    MemoryPort *memory = wire.get();
    ReplayPort port(std::move(wire), PcapReader::open(file.name(), &error), 1, [&] { return now; });
    EXPECT_EQ(port.steer(SteerKey{1, 2, 0, 17}, true), 0);
    now += ReplayPort::kQuietNs;
    for (const uint8_t own : {11, 12})
        memory->inject(frame(own).data(), 62);
    std::vector<int> order;
    RxFrame got;
    while (port.receive(&got))
        order.push_back(got.data[0]);
    EXPECT_EQ(order, (std::vector<int>{1, 11, 2, 12, 3, 4}));
}

TEST(Replay, ReplayThatIsBehind_SetsNoTimer)
{
    Bytes frames = kHeader;
    for (uint8_t i = 0; i < 100; i++) {
        Bytes record = kRecord; // 1 us apart
        record[4] = static_cast<uint8_t>(record[4] + i);
        frames = frames + record + frame(i);
    }
    const File file(frames);
    std::string error;
    uint64_t now = 1;
    ReplayPort port(std::make_unique<MemoryPort>(), PcapReader::open(file.name(), &error), 1, [&] { return now; });
    EXPECT_EQ(port.steer(SteerKey{1, 2, 0, 17}, true), 0);
    now += ReplayPort::kQuietNs + 98000;
    RxFrame got;
    timers_set = 0;
    for (unsigned i = 0; i < 99; i++)
        ASSERT_TRUE(port.receive(&got)) << i;
    EXPECT_EQ(timers_set, 0u);
    for (unsigned i = 0; i < 3; i++)
        EXPECT_FALSE(port.receive(&got));
    EXPECT_EQ(timers_set, 1u);
}

TEST(Replay, FrameToComeAndTheEnd_TheFirstAloneWakes)
{
    Bytes later = kRecord; // 480 us after the first
    later[5] = static_cast<uint8_t>(later[5] + 2);
    const File file(kHeader + kRecord + frame(1) + later + frame(2));
    std::string error;
    uint64_t now = 1; // the monotonic clock is further on
    ReplayPort port(std::make_unique<MemoryPort>(), PcapReader::open(file.name(), &error), 1, [&] { return now; });
    EXPECT_EQ(port.steer(SteerKey{1, 2, 0, 17}, true), 0);
    now += ReplayPort::kQuietNs;
    RxFrame got;
    ASSERT_TRUE(port.receive(&got));
    EXPECT_FALSE(port.receive(&got));
    pollfd waiting = {port.poll_fd(), POLLIN, 0};
    EXPECT_EQ(poll(&waiting, 1, 1000), 1);
    now += 512000;
    ASSERT_TRUE(port.receive(&got));
    EXPECT_FALSE(port.receive(&got));
    EXPECT_EQ(poll(&waiting, 1, 0), 0);
}

// The library adds it while it opens an endpoint with switch timestamps: the program has not asked for anything yet.
TEST(Replay, FilterOfASwitchsKeyframes_NeitherBeginsItNorPutsItOff)
{
    const File file(kHeader + kRecord + frame(1));
    std::string error;
    uint64_t now = 1;
    ReplayPort port(std::make_unique<MemoryPort>(), PcapReader::open(file.name(), &error), 1, [&] { return now; });
    EXPECT_EQ(port.steer(SteerKey{0x01010100, 0, 0, 253}, true), 0);
    now += 10 * ReplayPort::kQuietNs;
    RxFrame got;
    EXPECT_FALSE(port.receive(&got));
    EXPECT_EQ(port.steer(SteerKey{1, 2, 0, 17}, true), 0);
    now += ReplayPort::kQuietNs - 1;
    EXPECT_EQ(port.steer(SteerKey{0x01010101, 0, 0, 253}, true), 0);
    EXPECT_FALSE(port.receive(&got));
    now += 1;
    EXPECT_TRUE(port.receive(&got));
}
