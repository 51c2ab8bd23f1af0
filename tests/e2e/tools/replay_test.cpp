// rukrun --replay: what a capture file holds arrives at the application.
#include "tool_lab.h"

#include <chrono>

using namespace tool_test;

namespace {

using Clock = std::chrono::steady_clock;

class ReplayTool : public ToolTest {
protected:
    // tcpdump's own capture of datagrams "0", "1", ... that were sent some milliseconds apart.
    std::string captured_feed(unsigned datagrams, unsigned apart_us)
    {
        const std::string file = scratch.file("feed.pcap");
        auto tcpdump = lab.start(lab.adapter, {"tcpdump", "-i", "oxel0", "-U", "-w", file, "-c",
                                               std::to_string(datagrams), "udp port 5000"});
        EXPECT_TRUE(tcpdump->wait_for_err("listening")) << *tcpdump;
        KernelSocket peer(lab, lab.peer, 40000);
        for (unsigned i = 0; i < datagrams; i++) {
            peer.send(std::to_string(i), "10.77.0.1", 5000);
            usleep(apart_us);
        }
        EXPECT_TRUE(tcpdump->finish()) << *tcpdump;
        return file;
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
    for (const unsigned speed : {1u, 8u}) {
        const Clock::time_point start = Clock::now();
        auto program = replay(feed + ",speed=" + std::to_string(speed), {"-n", "5", "-t", "20"});
        std::string line;
        for (int i = 0; i < 5; i++) {
            ASSERT_TRUE(program->read_line(&line)) << *program;
            EXPECT_EQ(line, "- 10.77.0.2:40000 > 10.77.0.1:5000 len 1 \"" + std::to_string(i) + "\"");
        }
        EXPECT_TRUE(program->finish());
        EXPECT_TRUE(program->exited_with(0)) << *program;
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        EXPECT_GE(seconds, 0.4 / speed);
        if (speed == 8) {
            EXPECT_LT(seconds, 0.4);
        }
    }
}

TEST_F(ReplayTool, FileThatIsNone_IsRefusedBeforeTheProgramRuns)
{
    auto missing = replay(scratch.file("none"), {"-t", "0"});
    EXPECT_TRUE(missing->finish());
    EXPECT_TRUE(missing->exited_with(125)) << *missing;
    EXPECT_EQ(missing->err(), "rukrun: replay: " + scratch.file("none") + ": No such file or directory\n");
    auto wrong = replay("/proc/version,speed=fast", {"-t", "0"});
    EXPECT_TRUE(wrong->finish());
    EXPECT_TRUE(wrong->exited_with(125)) << *wrong;
    EXPECT_EQ(wrong->err(), "rukrun: replay: speed 'fast' is not a number above 0, at most 1000000\n");
}
