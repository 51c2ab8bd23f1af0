// ruk-capture over the software adapter: the file, byte by byte.
#include "schema.h"
#include "tool_lab.h"

#include <algorithm>
#include <csignal>
#include <fstream>

using namespace tool_test;

namespace {

struct Frame {
    uint64_t time_ns;
    uint32_t len;
    std::string bytes;
};

uint32_t word(const std::string &file, size_t at)
{
    uint32_t value = 0;
    if (at + 4 <= file.size())
        memcpy(&value, file.data() + at, 4); // the format is in the writer's byte order
    return value;
}

/* A pcap file's frames of the EtherType, other traffic of the hosts left out. */
std::vector<Frame> frames_of(const std::string &file, uint16_t ether_type)
{
    std::vector<Frame> frames;
    for (size_t at = 24; at + 16 <= file.size();) {
        Frame frame;
        frame.time_ns = word(file, at) * uint64_t{1'000'000'000} + word(file, at + 4);
        const uint32_t kept = word(file, at + 8);
        frame.len = word(file, at + 12);
        frame.bytes = file.substr(at + 16, kept);
        at += 16 + kept;
        if (frame.bytes.size() >= 14 && static_cast<uint8_t>(frame.bytes[12]) == ether_type >> 8 &&
            static_cast<uint8_t>(frame.bytes[13]) == (ether_type & 0xff))
            frames.push_back(frame);
    }
    return frames;
}

/* An Ethernet frame's check sequence, bit by bit as the polynomial is divided; its low byte goes first. */
uint32_t check_sequence(const std::string &frame)
{
    uint32_t rest = 0xffffffff;
    for (const char c : frame)
        for (int bit = 0; bit < 8; bit++) {
            const bool odd = ((rest ^ (static_cast<uint8_t>(c) >> bit)) & 1) != 0;
            rest = rest >> 1 ^ (odd ? 0xedb88320 : 0);
        }
    return ~rest;
}

class CaptureTool : public ToolTest {
protected:
    std::unique_ptr<test_support::Program> capture(const std::vector<std::string> &options)
    {
        std::vector<std::string> command = {"ruk-capture", "-i", "oxel0"};
        command.insert(command.end(), options.begin(), options.end());
        auto program = soft(command);
        EXPECT_TRUE(program->wait_for_err("capturing on oxel0")) << *program;
        return program;
    }

    /* Waits until the file holds a frame of the EtherType. */
    void await(const std::string &file, uint16_t ether_type)
    {
        for (int i = 0; i < 400 && frames_of(contents(file), ether_type).empty(); i++)
            usleep(25000);
    }

    std::string expected_frame(const std::string &body)
    {
        std::string frame(reinterpret_cast<const char *>(lab.adapter.mac), 6);
        frame.append(reinterpret_cast<const char *>(lab.peer.mac), 6);
        return frame + "\x88\xb5" + body;
    }

    ScratchDir scratch_;
};

constexpr uint16_t experimental = 0x88b5;

} // namespace

TEST_F(CaptureTool, File_HasNanosecondMagicAndWholeFramesWhileItGrows)
{
    const std::string file = scratch_.file("out.pcap");
    auto program = capture({"-w", file, "-t", "30"});
    EXPECT_EQ(word(contents(file), 0), 0xa1b23c4du);
    EXPECT_EQ(word(contents(file), 20), 1u); // Ethernet
    const std::string body = "a frame of its own type, long enough not to be padded to the minimum";
    put_frame(experimental, body);
    await(file, experimental);
    const std::vector<Frame> frames = frames_of(contents(file), experimental); // the program still runs
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].bytes, expected_frame(body));
    EXPECT_EQ(frames[0].len, 14 + body.size());
    EXPECT_NEAR(static_cast<double>(frames[0].time_ns) / 1e9, static_cast<double>(time(nullptr)), 60);

    program->signal(SIGINT);
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
    EXPECT_NE(program->err().find(" frames captured, 0 dropped by the interface"), std::string::npos) << *program;
    EXPECT_EQ(frames_of(contents(file), experimental).size(), 1u);
}

TEST_F(CaptureTool, KeepTrailer_AddsTheFourBytesOfTheCheckSequence)
{
    EXPECT_EQ(check_sequence("123456789"), 0xcbf43926u); // its well-known value
    const std::string file = scratch_.file("out.pcap");
    auto program = capture({"-w", file, "-t", "30", "--keep-trailer"});
    put_frame(experimental, std::string(46, 'p'));
    await(file, experimental);
    const std::vector<Frame> frames = frames_of(contents(file), experimental);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].len, 64u);
    const std::string frame = expected_frame(std::string(46, 'p'));
    const uint32_t check = check_sequence(frame);
    EXPECT_EQ(frames[0].bytes.substr(0, 60), frame);
    EXPECT_EQ(frames[0].bytes.substr(60),
              std::string({static_cast<char>(check), static_cast<char>(check >> 8), static_cast<char>(check >> 16),
                           static_cast<char>(check >> 24)}));
}

TEST_F(CaptureTool, Snaplen_CutsWhatIsKeptNotTheLength)
{
    const std::string file = scratch_.file("out.pcap");
    auto program = capture({"-w", file, "-t", "30", "-s", "20"});
    put_frame(experimental, std::string(100, 'p'));
    await(file, experimental);
    const std::vector<Frame> frames = frames_of(contents(file), experimental);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].len, 114u);
    EXPECT_EQ(frames[0].bytes, expected_frame(std::string(6, 'p')));
}

TEST_F(CaptureTool, Count_ReachedOrNot_IsTheStatus)
{
    auto program = capture({"-w", scratch_.file("a"), "-n", "1", "-t", "20"});
    put_frame(experimental, "x");
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
    program = capture({"-w", scratch_.file("b"), "-n", "1000", "-t", "0.2"});
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(1)) << *program;
}

TEST_F(CaptureTool, ExistingFile_IsOverwrittenOnlyWhenTold)
{
    const std::string file = scratch_.file("out.pcap");
    std::ofstream(file) << "precious";
    auto program = soft({"ruk-capture", "-i", "oxel0", "-w", file, "-t", "0.1"});
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(2)) << *program;
    EXPECT_EQ(program->err(), "ruk-capture: " + file + " exists; --force overwrites it\n");
    EXPECT_EQ(contents(file), "precious");

    program = soft({"ruk-capture", "-i", "oxel0", "-w", file, "-t", "0.1", "--force"});
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
    EXPECT_EQ(word(contents(file), 0), 0xa1b23c4du);
}

TEST_F(CaptureTool, StandardOutput_IsAPcapStream)
{
    auto program = capture({"-w", "-", "-t", "30"});
    put_frame(experimental, "x");
    // Headers and a frame of 60 bytes; waiting for its body is waiting for the whole of it.
    EXPECT_TRUE(program->wait_for_out("\x88\xb5x")) << program->err();
    program->signal(SIGINT);
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << program->err();
    EXPECT_EQ(word(program->out(), 0), 0xa1b23c4du);
    EXPECT_EQ(frames_of(program->out(), experimental).size(), 1u);
}

TEST_F(CaptureTool, Datagram_IsCapturedWithItsHeaders)
{
    const std::string file = scratch_.file("out.pcap");
    auto program = capture({"-w", file, "-t", "30"});
    KernelSocket peer(lab, lab.peer, 40000);
    peer.send(std::string(500, 'd'), "10.77.0.1", 5000);
    await(file, 0x0800);
    const std::vector<Frame> frames = frames_of(contents(file), 0x0800);
    ASSERT_GE(frames.size(), 1u);
    EXPECT_EQ(frames[0].len, 542u);
    EXPECT_EQ(frames[0].bytes.substr(42), std::string(500, 'd'));
}

TEST_F(CaptureTool, SameTraffic_CapturedByTcpdump_HasTheSameFramesInOrder)
{
    if (system("command -v tcpdump >/dev/null") != 0)
        GTEST_SKIP() << "tcpdump is not installed";
    const std::string ours = scratch_.file("ours.pcap");
    const std::string theirs = scratch_.file("theirs.pcap");
    // Without this tcpdump sees checksums that the sender has left to be completed on the way.
    lab.run(lab.peer, "ethtool -K peer0 tx off");
    auto tcpdump = lab.start(lab.adapter, {"tcpdump", "-i", "oxel0", "-Q", "in", "-Z", "root", "-U", "-B", "8192",
                                           "--time-stamp-precision=nano", "-w", theirs, "udp"});
    ASSERT_TRUE(tcpdump->wait_for_err("listening on oxel0")) << *tcpdump;
    auto program = capture({"-w", ours, "-t", "60"});

    constexpr int datagrams = 300;
    KernelSocket peer(lab, lab.peer, 40000);
    for (int i = 0; i < datagrams; i++) {
        peer.send(std::string(static_cast<size_t>(i * 1472 / (datagrams - 1)), static_cast<char>('a' + i % 26)),
                  "10.77.0.1", 5000);
        usleep(500);
    }
    for (const std::string &file : {ours, theirs})
        for (int i = 0; i < 400 && frames_of(contents(file), 0x0800).size() < datagrams; i++)
            usleep(25000);
    std::vector<Frame> captured = frames_of(contents(ours), 0x0800);
    std::vector<Frame> expected = frames_of(contents(theirs), 0x0800);
    ASSERT_EQ(captured.size(), static_cast<size_t>(datagrams));
    ASSERT_EQ(expected.size(), static_cast<size_t>(datagrams));
    for (int i = 0; i < datagrams; i++) {
        Frame &frame = expected[i];
        if (frame.bytes.size() < 60) // a card receives no shorter ones; the cable of this lab does not pad
            frame.bytes.resize(60);
        EXPECT_TRUE(captured[i].bytes == frame.bytes) << "frame " << i;
        EXPECT_LT(std::max(captured[i].time_ns, frame.time_ns) - std::min(captured[i].time_ns, frame.time_ns),
                  1'000'000u)
            << "frame " << i;
    }
}

TEST_F(CaptureTool, ReaderThatDoesNotRead_FramesLostInTheRing_AreReportedExactly)
{
    const std::string ledger = scratch_.file("ledger");
    auto program =
        lab.start(lab.adapter, {bin("rukrun"), "--soft=oxel0", "--", bin("ruk-capture"), "-i", "oxel0", "-w", "-"},
                  {"RUK_SOFTNIC_RECVQ=16384", "RUK_SOFTNIC_STATS=" + ledger});
    ASSERT_TRUE(program->wait_for_err("capturing on oxel0")) << program->err();
    // Nobody reads the pipe: the program stands still at its end, and the ring fills behind it.
    KernelSocket peer(lab, lab.peer, 40000);
    for (int i = 0; i < 1000; i++)
        peer.send(std::string(1000, 'x'), "10.77.0.1", 5000);
    program->signal(SIGINT);
    ASSERT_TRUE(program->finish()) << program->err(); // reads it all
    EXPECT_TRUE(program->exited_with(0)) << program->err();
    expect_schema("rukrun-stats", contents(ledger));
    const nlohmann::json endpoint = nlohmann::json::parse(contents(ledger))["boards"][0]["endpoints"][0];
    const uint64_t lost = endpoint["ring_full"], delivered = endpoint["delivered"];
    EXPECT_GT(lost, 0u);
    EXPECT_EQ(endpoint["steered"], lost + delivered);
    EXPECT_NE(program->err().find("ruk-capture: ring_full (endpoint 0): " + std::to_string(lost) +
                                  ": frames for which the event ring had no room: the application did not keep up"),
              std::string::npos)
        << program->err();
}

TEST_F(CaptureTool, Address_ChoosesTheInterface_AndTermEndsItCleanly)
{
    const std::string file = scratch_.file("out.pcap");
    auto program = soft({"ruk-capture", "-a", "10.77.0.1", "-w", file});
    ASSERT_TRUE(program->wait_for_err("capturing on oxel0")) << *program;
    put_frame(experimental, "x");
    await(file, experimental);
    program->signal(SIGTERM);
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
    EXPECT_EQ(frames_of(contents(file), experimental).size(), 1u);
}

TEST_F(CaptureTool, FileThatCannotBeWritten_IsNamed)
{
    const std::string file = scratch_.file("no/such/directory.pcap");
    auto program = soft({"ruk-capture", "-i", "oxel0", "-w", file});
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(2)) << *program;
    EXPECT_EQ(program->err(), "ruk-capture: cannot write " + file + ": No such file or directory\n");
}

TEST_F(CaptureTool, StandardOutputThatIsATerminal_IsRefused)
{
    auto program = lab.start(lab.adapter, {"script", "-q", "-e", "-c",
                                           bin("rukrun") + " --soft=oxel0 -- " + bin("ruk-capture") + " -i oxel0 -w -",
                                           "/dev/null"});
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(2)) << *program;
    EXPECT_NE(program->out().find("a capture is no text for a terminal"), std::string::npos) << *program;
}

TEST_F(CaptureTool, StandardOutput_IsReadByTcpdump)
{
    auto program = lab.start(lab.adapter, {"sh", "-c",
                                           bin("rukrun") + " --soft=oxel0 -- " + bin("ruk-capture") +
                                               " -i oxel0 -w - -n 3 -t 20 | tcpdump -n -r -"});
    ASSERT_TRUE(program->wait_for_err("capturing on oxel0")) << *program;
    KernelSocket peer(lab, lab.peer, 40000);
    for (int i = 0; i < 3; i++)
        peer.send(std::string(100, 'x'), "10.77.0.1", 5000);
    EXPECT_TRUE(program->finish());
    EXPECT_NE(program->out().find("10.77.0.2.40000 > 10.77.0.1.5000: UDP, length 100"), std::string::npos) << *program;
}

/* The replay begins with the filter mode, as there is no filter that it could begin with. */
TEST_F(CaptureTool, ReplayedFile_IsCapturedToo)
{
    const auto number = [](std::initializer_list<uint32_t> numbers) {
        std::string bytes;
        for (const uint32_t n : numbers)
            bytes.append(reinterpret_cast<const char *>(&n), sizeof n);
        return bytes;
    };
    std::string file = number({0xa1b2c3d4, 2 | 4 << 16, 0, 0, 65535, 1}); // Ethernet
    for (const char *text : {"the first of a file", "the second of a file"}) {
        std::string frame = "\x02\x33\x44\x55\x66\x77\x02\x33\x44\x55\x66\x88\x88\xb5"; // to nobody here
        frame += text;
        frame.resize(60);
        file += number({1600000000, 0, 60, 60}) + frame;
    }
    const std::string feed = scratch_.file("others.pcap");
    std::ofstream(feed, std::ios::binary) << file;
    auto program = lab.start(lab.adapter, {bin("rukrun"), "--soft=oxel0", "--replay=" + feed, "--", bin("ruk-capture"),
                                           "-i", "oxel0", "-w", "-", "-t", "60"});
    EXPECT_TRUE(program->wait_for_out("the first of a file")) << program->err();
    EXPECT_TRUE(program->wait_for_out("the second of a file")) << program->err();
    program->signal(SIGINT);
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << program->err();
}
