// Times of a switch: its keyframes and stamped frames on a real wire, and its model in front of the adapter, to the
// programs.
#include "tools/tool_lab.h"
#include "wire.h"

#include <csignal>
#include <ctime>
#include <map>
#include <poll.h>

using namespace tool_test;
using nlohmann::json;
using test_support::Program;

namespace {

using Wide = unsigned __int128;

constexpr uint64_t kNone = UINT64_MAX;
const std::string kOn = "OXEL_ARISTA_ENABLE_TIMESTAMPING=1";

// A switch's keyframe, 80 bytes and its 4-byte stamp: clock 2000000000, UTC 1700000000 s, mode 1.
const Bytes kKeyframe = {
    0x02, 0x6F, 0x78, 0x00, 0x00, 0x01, 0x02, 0x00, 0x00, 0x00, 0x00, 0x02, 0x08, 0x00, // Ethernet
    0x45, 0x00, 0x00, 0x42, 0x00, 0x00, 0x00, 0x00, 0x40, 0xFD, 0x00, 0x00,             // IPv4, protocol 253
    0x0A, 0x4D, 0x00, 0x02, 0x01, 0x01, 0x01, 0x00,                                     // 10.77.0.2 to 1.1.1.0
    0x00, 0x00, 0x00, 0x00, 0x77, 0x35, 0x94, 0x00,                                     // clock
    0x17, 0x97, 0x9C, 0xFE, 0x36, 0x2A, 0x00, 0x00,                                     // UTC
    0x17, 0x97, 0x9C, 0xFE, 0x00, 0x00, 0x00, 0x00,                                     // last synchronisation
    0x17, 0x97, 0x9C, 0xFE, 0x36, 0x2A, 0x00, 0x00,                                     // sent
    0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x05,                                     // dropped frames
    0x00, 0x07, 0x00, 0x09, 0x01, 0x00,                                                 // device, port, mode
    0xEE, 0x6B, 0x28, 0x00,                                                             // stamp
};
constexpr uint64_t kClock = 2000000000, kUtc = 1700000000000000000;

// A UDP datagram's frame with the word right behind the payload, as short as that leaves it.
Bytes stamped_frame(const std::string &payload, uint32_t word)
{
    UdpFrame frame;
    frame.payload = payload;
    Bytes bytes = frame.bytes();
    put32(&bytes, word);
    return bytes;
}

// Bit 7 is the switch's own; what lies above it is shifted up.
uint32_t word_of(uint32_t clock, uint32_t bit7 = 0) { return clock / 128 * 256 + bit7 * 128 + clock % 128; }

// ticks * 20/7 * den/num in whole ns after rounding to 24 significant bits, in integers. Ticks so near a rounding
// boundary that a double's error could decide are refused.
uint64_t ns_in_single_precision(uint64_t ticks, uint64_t num = 1, uint64_t den = 1)
{
    if (ticks == 0)
        return 0;
    Wide top = Wide{20} * ticks * den, bottom = Wide{7} * num;
    int exponent = 0; // the value is top / bottom * 2^exponent, with 2^23 <= top / bottom < 2^24
    for (; top / bottom < (1u << 23); exponent--)
        top *= 2;
    for (; top / bottom >= (1u << 24); exponent++)
        bottom *= 2;
    const Wide rest = top % bottom;
    const Wide from_half = 2 * rest > bottom ? 2 * rest - bottom : bottom - 2 * rest;
    EXPECT_GT(from_half * (1u << 24), bottom) << "ticks " << ticks << " decide nothing";
    const uint64_t rounded = static_cast<uint64_t>(top / bottom) + (2 * rest > bottom ? 1 : 0);
    return exponent >= 0 ? rounded << exponent : rounded >> -exponent;
}

std::string text_of(int n) { return "datagram number " + std::to_string(1000 + n) + " of a stamped stream"; }

std::string hex(const std::string &bytes)
{
    std::string text;
    for (const char c : bytes) {
        text += "0123456789abcdef"[static_cast<uint8_t>(c) >> 4];
        text += "0123456789abcdef"[static_cast<uint8_t>(c) & 15];
    }
    return text;
}

uint64_t host_ns()
{
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
}

class SwitchTest : public ToolTest {
protected:
    void SetUp() override
    {
        ToolTest::SetUp();
        if (!IsSkipped())
            wire_ = lab.packet_socket(lab.peer);
    }
    void TearDown() override
    {
        if (wire_ >= 0)
            close(wire_);
    }

    std::unique_ptr<Program> behind(const std::string &kind, std::vector<std::string> command,
                                    std::vector<std::string> environment)
    {
        command[0] = bin(command[0]);
        std::vector<std::string> words = {bin("rukrun"), "--soft=oxel0", "--switch=" + kind, "--"};
        words.insert(words.end(), command.begin(), command.end());
        return lab.start(lab.adapter, words, environment);
    }
    std::unique_ptr<Program> receiver_behind(const std::string &kind, std::vector<std::string> environment = {kOn})
    {
        auto program =
            behind(kind, {"ruk-recv", "-a", lab.adapter.address, "-p", "5000", "-t", "60", "--json"}, environment);
        EXPECT_TRUE(program->wait_for_err("listening")) << *program;
        return program;
    }
    void put_on_wire(const Bytes &frame)
    {
        ASSERT_EQ(write(wire_, frame.data(), frame.size()), static_cast<ssize_t>(frame.size())) << strerror(errno);
    }

    // The next line of a datagram; the library's own lines are left out.
    bool read_datagram(Program &program, std::string *line)
    {
        while (program.read_line(line))
            if (line->starts_with("{")) {
                lines_++;
                return true;
            }
        return false;
    }

    // The first keyframe. Nothing tells when the library has taken it but that datagrams have times, and one in the
    // same event as the keyframe has none yet; these all bear the keyframe's stamp.
    void begin_times(Program &program, const Bytes &keyframe)
    {
        put_on_wire(keyframe);
        for (int n = 0; n < 500; n++) {
            std::string line;
            put_on_wire(stamped_frame(text_of(-1), word_of(kClock)));
            ASSERT_TRUE(read_datagram(program, &line)) << program;
            const json object = parse(line);
            if (object.at("timestamp_source") == "switch") {
                EXPECT_EQ(object.at("timestamp_ns").get<uint64_t>(), kUtc);
                return;
            }
            EXPECT_EQ(object.at("timestamp_ns").get<uint64_t>(), 0u);
            usleep(20000);
        }
        FAIL() << "the keyframe was not taken" << program;
    }

    // Sends the n-th datagram with that word and reads what the program prints.
    void expect_dated(Program &program, int n, uint32_t word, uint64_t time, const std::string &source)
    {
        expect_dated(program, text_of(n), word, time, source);
    }
    void expect_dated(Program &program, const std::string &payload, uint32_t word, uint64_t time,
                      const std::string &source)
    {
        put_on_wire(stamped_frame(payload, word));
        std::string line;
        ASSERT_TRUE(read_datagram(program, &line)) << payload << program;
        const json object = parse(line);
        EXPECT_EQ(object.at("payload"), hex(payload));
        EXPECT_EQ(object.at("timestamp_ns").get<uint64_t>(), time) << line;
        EXPECT_EQ(object.at("timestamp_source"), source) << line;
    }
    // Ends the program: it has printed nothing but what was read for datagrams that were sent.
    void expect_no_more(Program &program)
    {
        program.signal(SIGINT);
        EXPECT_TRUE(program.finish());
        int printed = 0;
        for (size_t at = 0; (at = program.out().find("\"payload\":", at)) != std::string::npos; at++)
            printed++;
        EXPECT_EQ(printed, lines_) << program;
    }

    int wire_ = -1;
    int lines_ = 0;
};

struct Captured {
    std::string frame; // as kept
    uint32_t length = 0;
    uint64_t time = 0;
};

// All whole frames that a pcap file of nanosecond times has so far, read as literal bytes.
std::vector<Captured> captured(const std::string &file)
{
    const std::string all = contents(file);
    std::vector<Captured> frames;
    for (size_t at = 24; at + 16 <= all.size();) {
        uint32_t header[4]; // seconds, nanoseconds, bytes kept, length
        memcpy(header, all.data() + at, sizeof(header));
        if (at + 16 + header[2] > all.size())
            break;
        frames.push_back({all.substr(at + 16, header[2]), header[3], header[0] * UINT64_C(1000000000) + header[1]});
        at += 16 + header[2];
    }
    return frames;
}

uint64_t big_endian(const std::string &bytes, size_t at, size_t n)
{
    uint64_t value = 0;
    for (size_t i = at; i < at + n; i++)
        value = value << 8 | static_cast<uint8_t>(bytes.at(i));
    return value;
}

// The keyframes among them, without their stamps.
std::vector<std::string> captured_keyframes(const std::string &file)
{
    std::vector<std::string> keyframes;
    for (const Captured &frame : captured(file))
        if (frame.frame.size() >= 80 && big_endian(frame.frame, 12, 2) == 0x0800 && frame.frame[23] == '\xfd')
            keyframes.push_back(frame.frame);
    return keyframes;
}

// The first that holds the text, waited for.
Captured captured(const std::string &file, const std::string &payload)
{
    for (int i = 0; i < 400; i++) {
        for (const Captured &frame : captured(file))
            if (frame.frame.find(payload) != std::string::npos)
                return frame;
        usleep(25000);
    }
    ADD_FAILURE() << "not captured: " << payload;
    return {};
}

} // namespace

TEST_F(SwitchTest, WireBeforeFirstKeyframe_NoTime_AfterIt_ExactlyTheFormulasTime)
{
    auto program = receiver_behind("wire", {kOn, "RUK_IP_VERBOSE=1"});
    expect_dated(*program, 0, 0x12345678, 0, "none");
    expect_dated(*program, 1, 0, 0, "none");
    begin_times(*program, kKeyframe);

    // Literal: 1 tick is 2.86 ns, 3501 are 10002.86, 7000001 (20 ms) lie at 20000002.86 and round to even 2 ns,
    // 100000001 ticks are 285714288.57 and round to 32 ns.
    expect_dated(*program, 2, 0xEE6B2801, kUtc + 2, "switch");
    expect_dated(*program, 3, word_of(kClock + 3501), kUtc + 10002, "switch");
    expect_dated(*program, 4, word_of(kClock + 7000001), kUtc + 20000002, "switch");
    expect_dated(*program, 5, word_of(kClock + 100000001), kUtc + 285714304, "switch");
    // All along to the wrap, with and without the bit that is not the clock's.
    int n = 6;
    for (uint64_t ticks = 100000003; kClock + ticks < 0x80000000u; ticks += 5913577, n++)
        expect_dated(*program, n, word_of(static_cast<uint32_t>(kClock + ticks), n & 1u),
                     kUtc + ns_in_single_precision(ticks), "switch");
    ASSERT_GT(n, 10);
    expect_no_more(*program);
    EXPECT_NE(program->err().find("KF [recv 1, flips 0, shortages 0, malformed 0] Sw [ptp out of sync. 0, unsupp. 0, "
                                  "dropped frm 5, neg_adj_events 0]"),
              std::string::npos)
        << *program;
}

// Frames below the wire's least are padded, and the stamp is what ends them all the same.
TEST_F(SwitchTest, WireShortDatagrams_DatedByTheirStampsAsWell)
{
    auto program = receiver_behind("wire");
    begin_times(*program, kKeyframe);
    uint32_t ticks = 0;
    for (size_t size = 0; size <= 20; size++) {
        ticks += 700; // 2000 ns
        expect_dated(*program, std::string(size, 's'), word_of(kClock + ticks), kUtc + ticks * 20 / 7, "switch");
    }
    expect_no_more(*program);
}

TEST_F(SwitchTest, WireStampBeforeTheKeyframes_TimeNeverGoesBack)
{
    auto program = receiver_behind("wire");
    begin_times(*program, kKeyframe);
    expect_dated(*program, 0, word_of(kClock - 1), kUtc, "switch"); // before the keyframe: its own time
    const uint64_t later = kUtc + ns_in_single_precision(1000003);
    expect_dated(*program, 1, word_of(kClock + 1000003), later, "switch");
    expect_dated(*program, 2, word_of(kClock + 1000000), later, "switch");
    expect_dated(*program, 3, word_of(kClock + 2000003), kUtc + ns_in_single_precision(2000003), "switch");
    expect_no_more(*program);
}

TEST_F(SwitchTest, WireKeyframesWithSkew_TimesAreCorrectedByIt)
{
    // The clock runs at 999999/1000000 of nominal: 3 numerator and denominator bytes apiece are what differs.
    Bytes keyframe = kKeyframe;
    keyframe[17] = 0x52;
    const Bytes skew = {0, 0, 0, 0, 0, 0x0F, 0x42, 0x3F, 0, 0, 0, 0, 0, 0x0F, 0x42, 0x40};
    keyframe.insert(keyframe.begin() + 58, skew.begin(), skew.end());
    ASSERT_EQ(keyframe.size(), 100u);
    auto program = receiver_behind("wire", {kOn, "OXEL_ARISTA_ENABLE_SKEW=1"});
    begin_times(*program, keyframe);
    int n = 0;
    for (uint64_t ticks = 1000003; ticks < 147000000; ticks += 14560007, n++)
        expect_dated(*program, n, word_of(static_cast<uint32_t>(kClock + ticks)),
                     kUtc + ns_in_single_precision(ticks, 999999, 1000000), "switch");
    put_on_wire(kKeyframe);
    EXPECT_TRUE(program->wait_for_err("---: Arista switch sent malformed IP PROTO 253 packet, expected=100 got=84.\n"))
        << *program;
    expect_no_more(*program);
}

TEST_F(SwitchTest, WireModeTurnsUnsupported_TimesEndAndComeBack)
{
    auto program = receiver_behind("wire");
    begin_times(*program, kKeyframe);
    expect_dated(*program, 0, word_of(kClock + 1), kUtc + 2, "switch");
    Bytes other = kKeyframe;
    other[78] = 2;
    put_on_wire(other);
    EXPECT_TRUE(program->wait_for_err("Arista switch timestamp feature disabled by the switch \n")) << *program;
    expect_dated(*program, 1, word_of(kClock + 3), 0, "none");
    put_on_wire(kKeyframe);
    EXPECT_TRUE(program->wait_for_err("Arista switch timestamp feature re-enabled by the switch \n")) << *program;
    expect_dated(*program, 2, word_of(kClock + 7001), kUtc + 20002, "switch");
    expect_no_more(*program);
}

TEST_F(SwitchTest, Model_DatesOrdinaryDatagramsByTheHostsClock)
{
    auto program = receiver_behind("model,interval=100");
    KernelSocket sender(lab, lab.peer, 40000);
    std::string first;
    do { // until the first keyframe is taken, which is sent at once
        sender.send(text_of(0), lab.adapter.address, 5000);
        ASSERT_TRUE(read_datagram(*program, &first)) << *program;
        usleep(20000);
    } while (parse(first).at("timestamp_source") != "switch" && lines_ < 500);
    uint64_t nearest = kNone;
    for (int n = 0; n < 20; n++) {
        const uint64_t before = host_ns();
        sender.send(text_of(n), lab.adapter.address, 5000);
        std::string line;
        ASSERT_TRUE(read_datagram(*program, &line)) << *program;
        const uint64_t after = host_ns();
        const json object = parse(line);
        EXPECT_EQ(object.at("payload"), hex(text_of(n)));
        EXPECT_EQ(object.at("timestamp_source"), "switch");
        const uint64_t time = object.at("timestamp_ns").get<uint64_t>();
        EXPECT_GE(time + 1000000, before);
        EXPECT_LE(time, after + 1000000);
        nearest = std::min(nearest, time > before ? time - before : before - time);
        usleep(15000);
    }
    EXPECT_LT(nearest, 1000000u);
    expect_no_more(*program);
}

TEST_F(SwitchTest, ModelThatLosesAllKeyframes_DatagramsHaveNoTime)
{
    auto program = receiver_behind("model,interval=10,lose=1");
    KernelSocket sender(lab, lab.peer, 40000);
    usleep(50000);
    sender.send(text_of(0), lab.adapter.address, 5000);
    std::string line;
    ASSERT_TRUE(program->read_line(&line)) << *program;
    const json object = parse(line);
    EXPECT_EQ(object.at("timestamp_ns"), 0);
    EXPECT_EQ(object.at("timestamp_source"), "none");
    EXPECT_EQ(object.at("payload"), hex(text_of(0)));
}

TEST_F(SwitchTest, CaptureKeepingTrailers_FilesLastFourBytesAreTheSwitchsWord)
{
    for (const bool keep : {true, false}) {
        ScratchDir scratch;
        const std::string file = scratch.file("out.pcap");
        std::vector<std::string> command = {"ruk-capture", "-i", "oxel0", "-w", file, "-t", "30"};
        if (keep)
            command.push_back("--keep-trailer");
        auto program = behind("wire", command, {});
        ASSERT_TRUE(program->wait_for_err("capturing on oxel0")) << *program;
        put_on_wire(stamped_frame(text_of(0), 0xDEADBE7F));
        const std::string frame = captured(file, text_of(0)).frame;
        ASSERT_FALSE(frame.empty()) << *program;
        EXPECT_EQ(hex(frame.substr(42)), hex(text_of(0)) + (keep ? "deadbe7f" : ""));
        put_on_wire(stamped_frame("short", 0xDEADBE7E));
        const std::string padded = captured(file, "short").frame;
        ASSERT_FALSE(padded.empty()) << *program;
        EXPECT_EQ(hex(padded.substr(42)), hex("short" + std::string(13, 0)) + (keep ? "deadbe7e" : ""));
    }
}

// A capture wants frames as they were: the feature that would absorb keyframes and strip stamps changes nothing.
TEST_F(SwitchTest, CaptureWithTheFeatureOn_KeyframesAndStampsAreInTheFile)
{
    for (const bool keep : {true, false}) {
        ScratchDir scratch;
        const std::string file = scratch.file("out.pcap");
        std::vector<std::string> command = {"ruk-capture", "-i", "oxel0", "-w", file, "-t", "30"};
        if (keep)
            command.push_back("--keep-trailer");
        auto program = behind("wire", command, {kOn});
        ASSERT_TRUE(program->wait_for_err("capturing on oxel0")) << *program;
        const uint64_t begun = host_ns();
        put_on_wire(stamped_frame(text_of(0), 0x01020304));
        put_on_wire(kKeyframe);
        captured(file, text_of(0));
        for (int n = 1; n < 4; n++) { // some of them surely in events of their own, behind the keyframe's
            put_on_wire(stamped_frame(text_of(n), 0xDEADBE70u + static_cast<uint32_t>(n)));
            const Captured frame = captured(file, text_of(n));
            EXPECT_EQ(hex(frame.frame.substr(42)),
                      hex(text_of(n)) + (keep ? "deadbe7" + std::to_string(n) : std::string()));
            EXPECT_EQ(frame.length, frame.frame.size());
            EXPECT_GE(frame.time + 1000000, begun); // the adapter's times, not the switch's
            EXPECT_LE(frame.time, host_ns() + 1000000);
        }
        int keyframes = 0;
        for (const Captured &frame : captured(file))
            if (frame.frame.size() > 23 && static_cast<uint8_t>(frame.frame[23]) == 253) {
                keyframes++;
                EXPECT_EQ(frame.frame, std::string(kKeyframe.begin(), kKeyframe.end() - (keep ? 0 : 4)));
            }
        EXPECT_EQ(keyframes, 1);
        EXPECT_EQ(program->err().find("Arista"), std::string::npos) << *program;
    }
}

TEST_F(SwitchTest, AdapterTimestampsAskedFor_EveryTimeIsTheAdaptersAndSaysSo)
{
    auto program = behind(
        "wire", {"ruk-recv", "-a", lab.adapter.address, "-p", "5000", "-t", "60", "--json", "--hw-timestamps"}, {kOn});
    ASSERT_TRUE(program->wait_for_err("listening")) << *program;
    for (int n = 0; n < 10; n++) {
        put_on_wire(kKeyframe);
        const uint64_t before = host_ns();
        put_on_wire(stamped_frame(text_of(n), word_of(kClock)));
        std::string line;
        ASSERT_TRUE(read_datagram(*program, &line)) << *program;
        const json object = parse(line);
        EXPECT_EQ(object.at("payload"), hex(text_of(n)));
        EXPECT_EQ(object.at("timestamp_source"), "adapter");
        EXPECT_GE(object.at("timestamp_ns").get<uint64_t>() + 1000000, before);
        EXPECT_LE(object.at("timestamp_ns").get<uint64_t>(), host_ns() + 1000000);
    }
    expect_no_more(*program);
}

TEST_F(SwitchTest, PrintedForPeople_ADashWhereThereIsNoTimeAndTheSourceBehindOneThatThereIs)
{
    for (const bool adapter : {false, true}) {
        std::vector<std::string> command = {"ruk-recv", "-a", lab.adapter.address, "-p", "5000", "-t", "60"};
        if (adapter)
            command.push_back("--hw-timestamps");
        auto program = behind("wire", command, {kOn});
        ASSERT_TRUE(program->wait_for_err("listening")) << *program;
        const auto line_of = [&](int n) {
            put_on_wire(stamped_frame(text_of(n), word_of(kClock)));
            std::string line;
            do
                EXPECT_TRUE(program->read_line(&line)) << *program;
            while (!testing::Test::HasFailure() && line.find("10.77.0.2:40000 > 10.77.0.1:5000") == std::string::npos);
            EXPECT_NE(line.find(text_of(n).substr(0, 32)), std::string::npos) << line;
            return line.substr(0, line.find(" 10.77"));
        };
        if (adapter) {
            const std::string time = line_of(0);
            EXPECT_TRUE(time.ends_with(" adapter")) << time;
            EXPECT_GT(time.size(), 20u) << time;
            continue;
        }
        EXPECT_EQ(line_of(0), "-");
        put_on_wire(kKeyframe);
        std::string time;
        for (int n = 1; n < 500 && (time = line_of(n)) == "-"; n++)
            usleep(20000);
        EXPECT_EQ(time, "1700000000.000000000 switch");
    }
}

// In the raw filter mode the last two bytes are missing from what is received: of the stamp, or behind it.
TEST_F(SwitchTest, EveryFrameAskedFor_DatedOnesComeWithoutTheirStampAndKeyframesDoNot)
{
    auto program = behind(
        "wire", {"ruk-recv", "-a", lab.adapter.address, "-p", "5000", "--filter", "raw", "-t", "60", "--json"}, {kOn});
    ASSERT_TRUE(program->wait_for_err("listening")) << *program;
    json object;
    const auto receive = [&](int n) {
        put_on_wire(stamped_frame(text_of(n), word_of(kClock + 7)));
        std::string line;
        while (read_datagram(*program, &line)) { // the host's own chatter comes as well
            object = parse(line);
            const std::string frame = object.at("payload");
            EXPECT_NE(frame.substr(46, 2), "fd") << "a keyframe: " << line;
            if (frame.find(hex("datagram")) == 84)
                return frame.substr(84);
        }
        return std::string("nothing more");
    };
    EXPECT_EQ(receive(0), hex(text_of(0)) + "ee6b");
    EXPECT_EQ(object.at("timestamp_source"), "none");
    EXPECT_EQ(object.at("timestamp_ns"), 0);
    put_on_wire(kKeyframe);
    for (int n = 1; n < 500; n++) {
        const std::string rest = receive(n);
        ASSERT_TRUE(object.contains("timestamp_source")) << *program;
        if (object.at("timestamp_source") == "switch") {
            const std::string whole = text_of(n);
            EXPECT_EQ(rest, hex(whole.substr(0, whole.size() - 2)));
            EXPECT_EQ(object.at("timestamp_ns").get<uint64_t>(), kUtc + 20);
            return;
        }
        EXPECT_EQ(rest, hex(text_of(n)) + "ee6b");
        usleep(20000);
    }
    FAIL() << "the keyframe was not taken" << *program;
}

// To the host that is 10.77.0.1 itself, so that its stack can have the keyframe as well.
TEST_F(SwitchTest, KeyframesForTheKernelToo_ItsSocketsGetThemOnlyWhenAskedFor)
{
    Bytes keyframe = kKeyframe;
    const uint8_t host[] = {10, 77, 0, 1};
    std::copy(host, host + 4, keyframe.begin() + 30);
    const auto sum = static_cast<uint16_t>(~ones_sum(keyframe, 14, 34));
    keyframe[24] = static_cast<uint8_t>(sum >> 8);
    keyframe[25] = static_cast<uint8_t>(sum);

    int fd = -1;
    lab.on(lab.adapter, [&] { fd = socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, 253); });
    ASSERT_GE(fd, 0) << strerror(errno);
    for (const bool wanted : {true, false}) {
        lines_ = 0;
        auto program = receiver_behind("wire", {kOn, "OXEL_ARISTA_PARAM_KF_DST_IP=10.77.0.1",
                                                std::string("OXEL_ARISTA_PARAM_KF_KERNDUP=") + (wanted ? "1" : "0")});
        begin_times(*program, keyframe); // the library has it in either case
        char packet[256];
        if (wanted) {
            pollfd waiting = {fd, POLLIN, 0};
            ASSERT_EQ(poll(&waiting, 1, 10000), 1);
            ASSERT_EQ(recv(fd, packet, sizeof(packet), 0), 66);
            EXPECT_EQ(std::string(packet + 20, 46), std::string(keyframe.begin() + 34, keyframe.begin() + 80));
        } else {
            usleep(100000);
        }
        EXPECT_EQ(recv(fd, packet, sizeof(packet), MSG_DONTWAIT), -1) << wanted;
        expect_no_more(*program);
    }
    close(fd);
}

// The keyframe filter is for untagged frames: tagged ones come where every frame is asked for.
TEST_F(SwitchTest, TaggedKeyframes_TakenAmongAllFramesAndNotByTheFilter)
{
    Bytes tagged(kKeyframe.begin(), kKeyframe.begin() + 12);
    put32(&tagged, 0x81000005);
    tagged.insert(tagged.end(), kKeyframe.begin() + 12, kKeyframe.begin() + 80);
    ASSERT_EQ(tagged.size(), 84u); // the last fields are where the stamp would be
    {
        auto program = receiver_behind("wire");
        put_on_wire(tagged);
        for (int n = 0; n < 5; n++)
            expect_dated(*program, n, word_of(kClock), 0, "none");
        expect_no_more(*program);
    }
    auto program = behind(
        "wire", {"ruk-recv", "-a", lab.adapter.address, "-p", "5000", "--filter", "raw", "-t", "60", "--json"}, {kOn});
    ASSERT_TRUE(program->wait_for_err("listening")) << *program;
    put_on_wire(tagged);
    std::string line;
    for (int n = 0; n < 500; n++) {
        put_on_wire(stamped_frame(text_of(n), word_of(kClock + 7)));
        do
            ASSERT_TRUE(read_datagram(*program, &line)) << *program;
        while (parse(line).at("payload").get<std::string>().find(hex("datagram")) != 84);
        if (parse(line).at("timestamp_source") == "switch")
            break;
        usleep(20000);
    }
    EXPECT_EQ(parse(line).at("timestamp_source"), "switch") << *program;
    EXPECT_EQ(parse(line).at("timestamp_ns").get<uint64_t>(), kUtc + 20);
    put32(&tagged, 0);
    put_on_wire(tagged);
    EXPECT_TRUE(program->wait_for_err("---: Arista switch sent malformed IP PROTO 253 packet, expected=84 got=88.\n"))
        << *program;
}

// Its options, as the keyframes on the wire have them.
TEST_F(SwitchTest, ModelWithOptions_KeyframesAreWhatTheySay)
{
    ScratchDir scratch;
    const std::string file = scratch.file("out.pcap");
    auto program = behind("model,interval=50,rate=1000000000,skew=999/1000,dst=10.9.8.7,ptp-lost=0-1,ptp-lost=3-4,"
                          "mode=2@3.5,mode=1@4.5",
                          {"ruk-capture", "-i", "oxel0", "-w", file, "-t", "60"}, {});
    ASSERT_TRUE(program->wait_for_err("capturing on oxel0")) << *program;
    // Ticks are nanoseconds, one in a thousand left out: the clock is the time since the start.
    const auto since_start = [](const std::string &keyframe) { return big_endian(keyframe, 34, 8) * 1000 / 999; };
    std::vector<std::string> keyframes;
    for (int i = 0; i < 800 && (keyframes.empty() || since_start(keyframes.back()) < 5000000000); i++) {
        usleep(25000);
        keyframes = captured_keyframes(file);
    }
    bool synced = false, lost = false, appended = false, overwriting = false;
    uint64_t before = 0;
    for (const std::string &keyframe : keyframes) {
        ASSERT_EQ(keyframe.size(), 96u);
        EXPECT_EQ(big_endian(keyframe, 30, 4), 0x0A090807u);
        EXPECT_EQ(big_endian(keyframe, 58, 8), 999u);
        EXPECT_EQ(big_endian(keyframe, 66, 8), 1000u);
        const uint64_t since = since_start(keyframe), utc = big_endian(keyframe, 42, 8);
        const uint64_t start = utc - since, first = big_endian(keyframes[0], 42, 8) - since_start(keyframes[0]);
        EXPECT_LE(start > first ? start - first : first - start, 3u); // the clock runs as UTC does
        EXPECT_GE(utc, before + 50000000);
        before = utc;
        const bool no_sync = big_endian(keyframe, 50, 8) == 0;
        const uint64_t mode = big_endian(keyframe, 94, 1);
        const uint64_t ms = (since + 10) / 1000000; // a tick is missing at most
        EXPECT_EQ(no_sync, ms < 1000 || (ms >= 3000 && ms < 4000)) << since;
        EXPECT_EQ(mode, ms >= 3500 && ms < 4500 ? 2u : 1u) << since;
        (no_sync ? lost : synced) = true;
        (mode == 1 ? appended : overwriting) = true;
    }
    EXPECT_TRUE(synced && lost && appended && overwriting) << keyframes.size() << *program;
}

TEST_F(SwitchTest, ModelLosingHalfTheKeyframes_TheSeedSaysWhich)
{
    // How many keyframes come between the losses, for 0, 1, 2 ... of them before: worked out from the generator.
    const std::map<int, std::vector<int>> expected = {
        {1, {3, 0, 3, 1, 1, 1, 0, 4, 0, 0, 0, 0, 0, 2, 3, 0, 0, 7, 3, 0, 2, 0, 0, 1, 0, 1, 3, 3, 0, 0}},
        {7, {0, 0, 2, 0, 0, 0, 0, 0, 0, 6, 3, 0, 0, 2, 0, 1, 1, 0, 0, 2, 1, 0, 2, 0, 0, 0, 5, 0, 0, 1}},
    };
    for (const auto &[seed, runs] : expected) {
        ScratchDir scratch;
        const std::string file = scratch.file("out.pcap");
        auto program = behind("model,interval=20,lose=0.5,seed=" + std::to_string(seed),
                              {"ruk-capture", "-i", "oxel0", "-w", file, "-t", "60"}, {});
        ASSERT_TRUE(program->wait_for_err("capturing on oxel0")) << *program;
        const auto losses = [](const std::string &keyframe) { return big_endian(keyframe, 66, 8); };
        std::vector<std::string> keyframes;
        for (int i = 0; i < 800 && (keyframes.empty() || losses(keyframes.back()) < 28); i++) {
            usleep(25000);
            keyframes = captured_keyframes(file);
        }
        ASSERT_FALSE(keyframes.empty()) << *program;
        std::vector<int> came(runs.size());
        for (const std::string &keyframe : keyframes)
            if (losses(keyframe) < came.size())
                came[losses(keyframe)]++;
        // Those that were sent before the capture began, or may still come, do not count.
        const uint64_t from = losses(keyframes.front()) + 1, to = std::min<uint64_t>(losses(keyframes.back()), 28);
        ASSERT_LT(from, 18u) << *program;
        for (uint64_t n = from; n < to; n++)
            EXPECT_EQ(came[n], runs[n]) << "seed " << seed << ", after " << n << " losses";
    }
}
