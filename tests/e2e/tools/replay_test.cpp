// rukrun --replay: what a capture file holds arrives at the application.
#include "tool_lab.h"

#include <chrono>
#include <csignal>
#include <cstring>
#include <sys/stat.h>

using namespace tool_test;

namespace {

using Clock = std::chrono::steady_clock;

class ReplayTool : public ToolTest {
protected:
    // tcpdump's own capture of datagrams "0", "1", ... that were sent some milliseconds apart.
    std::string captured_feed(unsigned datagrams, unsigned apart_us, const char *to = "10.77.0.1")
    {
        const std::string file = scratch.file("feed.pcap");
        auto tcpdump = lab.start(lab.adapter, {"tcpdump", "-i", "oxel0", "-U", "-w", file, "-c",
                                               std::to_string(datagrams), "udp port 5000"});
        EXPECT_TRUE(tcpdump->wait_for_err("listening")) << *tcpdump;
        KernelSocket peer(lab, lab.peer, 40000);
        in_addr out{};
        inet_pton(AF_INET, lab.peer.address, &out);
        EXPECT_EQ(setsockopt(peer.fd(), IPPROTO_IP, IP_MULTICAST_IF, &out, sizeof out), 0);
        for (unsigned i = 0; i < datagrams; i++) {
            peer.send(std::to_string(i), to, 5000);
            usleep(apart_us);
        }
        EXPECT_TRUE(tcpdump->finish()) << *tcpdump;
        return file;
    }

    // The capture file with its frames dated so many seconds apart.
    static void spread_out(const std::string &file, uint32_t seconds)
    {
        std::string bytes = contents(file);
        uint32_t at = 1600000000;
        for (size_t record = 24; record + 16 <= bytes.size();) {
            uint32_t fields[4]; // seconds, microseconds, length in the file, length
            memcpy(fields, &bytes[record], sizeof fields);
            fields[0] = at;
            fields[1] = 0;
            at += seconds;
            memcpy(&bytes[record], fields, sizeof fields);
            record += sizeof fields + fields[2];
        }
        std::ofstream(file, std::ios::binary) << bytes;
    }

    // Starts the replay, has it end with all five datagrams, and tells how many seconds that took.
    double replayed(const std::string &what)
    {
        const Clock::time_point start = Clock::now();
        auto program = replay(what, {"-n", "5", "-t", "60"});
        for (int i = 0; i < 5; i++) {
            std::string line;
            EXPECT_TRUE(program->read_line(&line, 60000)) << *program;
            EXPECT_EQ(line, "- 10.77.0.2:40000 > 10.77.0.1:5000 len 1 \"" + std::to_string(i) + "\"");
        }
        EXPECT_TRUE(program->finish());
        EXPECT_TRUE(program->exited_with(0)) << *program;
        return std::chrono::duration<double>(Clock::now() - start).count();
    }

    std::unique_ptr<test_support::Program> replay(const std::string &what, const std::vector<std::string> &options)
    {
        std::vector<std::string> command = {
            bin("rukrun"), "--soft=oxel0", "--replay=" + what, "--", bin("ruk-recv"), "-i", "oxel0", "-p", "5000"};
        command.insert(command.end(), options.begin(), options.end());
        return lab.start(lab.adapter, command);
    }

    ScratchDir scratch;
};

} // namespace

TEST_F(ReplayTool, CapturedFeed_ArrivesInOrderAtItsPaceAndFaster)
{
    const std::string feed = captured_feed(5, 100000);
    EXPECT_GE(replayed(feed), 0.4);
    spread_out(feed, 100); // as it is, it would take far longer than anybody waits here
    EXPECT_GE(replayed(feed + ",speed=1000"), 0.4);
}

// There is no filter that the replay could begin with.
TEST_F(ReplayTool, ProgramThatTakesAllGroupsByItsFilterMode_BeginsTheReplay)
{
    const std::string feed = captured_feed(3, 1000, "239.1.2.3");
    auto program = lab.start(lab.adapter, {bin("rukrun"), "--soft=oxel0", "--replay=" + feed, "--", bin("ruk-recv"),
                                           "-i", "oxel0", "--filter", "allmulti", "-n", "3", "-t", "60"});
    for (int i = 0; i < 3; i++) {
        std::string line;
        EXPECT_TRUE(program->read_line(&line, 60000)) << *program;
        EXPECT_EQ(line, "- 10.77.0.2:40000 > 239.1.2.3:5000 len 1 \"" + std::to_string(i) + "\"");
    }
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
}

// The bind installs a filter of its own, and with that speed all frames are due at once.
constexpr char kJoinsLater[] = R"(
#include "ruk.h"
#include <arpa/inet.h>
#include <stdio.h>
#include <unistd.h>

int main(void)
{
    ruk_device_t dev;
    ruk_channel_t channel;
    struct ruk_recv_info info;
    struct in_addr group;
    char payload[1500];
    inet_pton(AF_INET, "239.1.2.3", &group);
    if (ruk_init(RUK_API_VERSION) || ruk_open_if("oxel0", 0, &dev) || ruk_bind(dev, 0, 5000, NULL, &channel))
        return 2;
    usleep(20000);
    if (ruk_mcast_join(channel, &group, NULL) || ruk_recvfrom(dev, RUK_RECV_BLOCK, payload, sizeof payload, &info))
        return 3;
    printf("%.*s\n", (int)info.msg_len, payload);
    return ruk_close(dev);
}
)";

TEST_F(ReplayTool, ProgramThatBindsAndThenJoins_GetsTheFirstFrame)
{
    const std::string feed = captured_feed(3, 1000, "239.1.2.3");
    const std::string source_dir = RUK_SOURCE_DIR, as_the_library = sizeof(void *) == 4 ? " -m32" : "";
    std::ofstream(scratch.file("joins.c")) << kJoinsLater;
    lab.run(lab.adapter, std::string(RUK_C_COMPILER) + as_the_library + " -I" + source_dir + "/libruk -I" + source_dir +
                             "/common " + scratch.file("joins.c") +
                             " -L" RUK_BINARY_DIR "/lib -lruk -Wl,-rpath," RUK_BINARY_DIR "/lib -o " +
                             scratch.file("joins"));
    auto program = lab.start(lab.adapter, {bin("rukrun"), "--soft=oxel0", "--replay=" + feed + ",speed=1000000", "--",
                                           scratch.file("joins")});
    std::string line;
    EXPECT_TRUE(program->read_line(&line, 20000)) << *program;
    EXPECT_EQ(line, "0");
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
}

TEST_F(ReplayTool, FileThatIsCutOff_ArrivesUpToThereAndIsTold)
{
    const std::string feed = captured_feed(3, 1000);
    std::filesystem::resize_file(feed, std::filesystem::file_size(feed) - 1);
    auto program = replay(feed, {"-n", "2", "-t", "60"});
    EXPECT_TRUE(program->finish(60000));
    EXPECT_TRUE(program->exited_with(0)) << *program;
    EXPECT_NE(
        program->err().find("softnic: " + feed + " is cut off or damaged within a frame: the replay ends there\n"),
        std::string::npos)
        << *program;
}

TEST_F(ReplayTool, FramesThatGotNowhere_AccountTellsWhatHelpsWithAReplay)
{
    const std::string feed = captured_feed(2, 1000);
    std::string bytes = contents(feed);
    uint32_t first; // its length; the second record's length on the wire
    memcpy(&first, &bytes[24 + 8], sizeof first);
    bytes[24 + 16 + first + 12]++;
    std::ofstream(feed, std::ios::binary) << bytes;
    auto program = lab.start(lab.adapter, {bin("rukrun"), "--soft=oxel0", "--replay=" + feed, "--", bin("ruk-recv"),
                                           "-i", "oxel0", "-p", "5001", "-t", "1", "--stats"});
    EXPECT_TRUE(program->finish(60000));
    const std::string &said = program->out();
    EXPECT_NE(said.find("for a replay bind or join before it begins"), std::string::npos) << *program;
    EXPECT_NE(said.find("for a replay capture whole frames (tcpdump -s 0)"), std::string::npos) << *program;
}

TEST_F(ReplayTool, FileNamedRelativelyAndAProgramThatChangesItsDirectory_Arrives)
{
    captured_feed(1, 1000);
    auto program = lab.start(lab.adapter, {"sh", "-c",
                                           "cd " + scratch.file("") + " && exec " + bin("rukrun") +
                                               " --soft=oxel0 --replay=feed.pcap,speed=2 -- sh -c 'cd / && exec " +
                                               bin("ruk-recv") + " -i oxel0 -p 5000 -n 1 -t 60'"});
    EXPECT_TRUE(program->finish(60000));
    EXPECT_TRUE(program->exited_with(0)) << *program;
    EXPECT_EQ(program->out(), "- 10.77.0.2:40000 > 10.77.0.1:5000 len 1 \"0\"\n");
}

TEST_F(ReplayTool, FileThatIsNone_IsRefusedBeforeTheProgramRuns)
{
    auto missing = replay(scratch.file("none"), {"-t", "0"});
    EXPECT_TRUE(missing->finish());
    EXPECT_TRUE(missing->exited_with(125)) << *missing;
    EXPECT_EQ(missing->err(), "rukrun: replay: " + scratch.file("none") + ": No such file or directory\n");
    for (const std::string &other : {scratch.file(""), scratch.file("pipe")}) {
        mkfifo(scratch.file("pipe").c_str(), 0600);
        auto refused = replay(other, {"-t", "0"});
        EXPECT_TRUE(refused->finish());
        EXPECT_TRUE(refused->exited_with(125)) << *refused;
        EXPECT_EQ(refused->err(), "rukrun: replay: " + other + " is no regular file\n");
    }
    auto wrong = replay("/proc/version,speed=fast", {"-t", "0"});
    EXPECT_TRUE(wrong->finish());
    EXPECT_TRUE(wrong->exited_with(125)) << *wrong;
    EXPECT_EQ(wrong->err(), "rukrun: replay: speed 'fast' is not a number above 0, at most 1000000\n");
}
