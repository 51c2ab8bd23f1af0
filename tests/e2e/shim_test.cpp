// The preloaded adapter in programs that fork, exec, have several boards, endpoints and threads, leave without a
// word, or close its descriptor behind its back.
#include "tools/tool_lab.h"
#include "wire.h"

#include <algorithm>
#include <csignal>
#include <sstream>

using namespace tool_test;
using test_support::Program;

namespace {

class ShimTest : public ToolTest {
protected:
    std::unique_ptr<Program> client(const std::string &scenario, const std::string &interfaces = "oxel0",
                                    const std::vector<std::string> &environment = {})
    {
        return lab.start(
            lab.adapter,
            {bin("rukrun"), "--soft=" + interfaces, "--", RUK_BINARY_DIR "/tests/e2e_shim_client", scenario},
            environment);
    }
    void add_second_interface()
    {
        lab.run(lab.adapter,
                "ip link add oxel1 address 02:6f:78:00:00:0b type veth peer name other1"
                " && ip address add 10.78.0.1/24 dev oxel1 && ip link set oxel1 up && ip link set other1 up");
    }
    static void expect_line(Program &program, const std::string &expected)
    {
        std::string line;
        ASSERT_TRUE(program.read_line(&line)) << "instead of: " << expected << program;
        EXPECT_EQ(line, expected) << program;
    }
    // It has nothing more to say and leaves in order, and the host is as before.
    void expect_done(Program &program)
    {
        expect_line(program, "done");
        EXPECT_TRUE(program.finish()) << program;
        EXPECT_TRUE(program.exited_with(0)) << program;
        expect_nothing_wrong(program);
        expect_clean_host();
    }
    // There are watchpoints for four endpoints at most: that others go another way is said, and nothing else.
    static void expect_nothing_wrong(Program &program)
    {
        std::istringstream lines(program.err());
        for (std::string line; std::getline(lines, line);)
            EXPECT_TRUE(line.ends_with(": using fallback mode")) << line;
    }
    void expect_clean_host()
    {
        std::string rules;
        for (int i = 0; i < 100 && !(rules = lab.run(lab.adapter, "nft list ruleset")).empty(); i++)
            usleep(20000);
        EXPECT_EQ(rules, "");
    }
    void send(const std::string &payload, uint16_t port) { sender().send(payload, lab.adapter.address, port); }
    KernelSocket &sender()
    {
        if (!sender_)
            sender_ = std::make_unique<KernelSocket>(lab, lab.peer, 40000);
        return *sender_;
    }

private:
    std::unique_ptr<KernelSocket> sender_;
};

} // namespace

TEST_F(ShimTest, ForkedTwice_EachGenerationReceivesOnAnEndpointOfItsOwn)
{
    auto program = client("fork");
    for (int depth = 0; depth < 3; depth++)
        expect_line(*program, "ready " + std::to_string(depth));
    // The youngest first; the elder ones' datagrams wait in their rings meanwhile.
    for (int depth = 0; depth < 3; depth++)
        send("for generation " + std::to_string(depth), static_cast<uint16_t>(5000 + depth));
    expect_line(*program, "2 got for generation 2");
    expect_line(*program, "1 got for generation 1");
    expect_line(*program, "0 got for generation 0");
    expect_done(*program);
}

TEST_F(ShimTest, ChildrenThatCloseEverything_LeaveTheParentsEndpoint)
{
    auto program = client("child-closes");
    expect_line(*program, "ready");
    send("still here", 5000);
    expect_line(*program, "got still here");
    expect_done(*program);
}

TEST_F(ShimTest, ProgramExecuted_AdapterBeginsAnewWithEveryEndpointFree)
{
    auto program = client("exec");
    expect_line(*program, "ready first");
    send("before", 5000);
    expect_line(*program, "first got before");
    expect_line(*program, "ready second");
    send("after", 5008);
    expect_line(*program, "second got after");
    expect_done(*program);
}

TEST_F(ShimTest, LeavesWithoutClosing_LastDatagramIsSentAndTheHostIsClean)
{
    for (const char *how : {"return", "exit"}) {
        SCOPED_TRACE(how);
        auto program = client(how);
        expect_line(*program, "ready");
        send("go", 5000);
        expect_line(*program, "got go");
        EXPECT_EQ(sender().receive(), "10.77.0.1:5000 last words");
        EXPECT_TRUE(program->finish(5000)) << *program;
        EXPECT_TRUE(program->exited_with(0)) << *program;
        expect_nothing_wrong(*program);
        expect_clean_host();
    }
}

TEST_F(ShimTest, EndsAtOnce_HostIsClean)
{
    const std::pair<const char *, int> ways[] = {{"_exit", 0}, {"kill", SIGKILL}, {"abort", SIGABRT}};
    for (const auto &[how, signal] : ways) {
        SCOPED_TRACE(how);
        auto program = client(how);
        expect_line(*program, "ready");
        send("go", 5000);
        expect_line(*program, "got go");
        EXPECT_TRUE(program->finish(5000)) << *program;
        EXPECT_TRUE(signal == 0 ? program->exited_with(0) : program->killed_by(signal)) << *program;
        expect_clean_host();
        EXPECT_EQ(lab.run(lab.adapter, "ss -Hlun"), ""); // no socket either
    }
}

TEST_F(ShimTest, TwoBoardsInOneProgram_EachReceivesWhatItsInterfaceDoes)
{
    add_second_interface();
    auto program = client("boards", "oxel0,oxel1");
    expect_line(*program, "ready");
    test_support::LabHost other = lab.adapter;
    other.ifname = "other1";
    const int wire = lab.packet_socket(other);
    const auto to_second = [&](const std::string &payload) {
        UdpFrame frame;
        const uint8_t mac[6] = {0x02, 0x6F, 0x78, 0x00, 0x00, 0x0B};
        std::copy(mac, mac + 6, frame.to);
        frame.source = 0x0A4E0002;
        frame.destination = 0x0A4E0001;
        frame.payload = payload;
        const Bytes bytes = frame.bytes();
        EXPECT_EQ(write(wire, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
    };
    for (int i = 0; i < 3; i++) {
        send("a" + std::to_string(i), 5000);
        to_second("b" + std::to_string(i));
    }
    for (int i = 0; i < 3; i++) {
        expect_line(*program, "first got a" + std::to_string(i));
        expect_line(*program, "second got b" + std::to_string(i));
    }
    to_second("the first is closed");
    expect_line(*program, "second got the first is closed");
    close(wire);
    expect_done(*program);
}

TEST_F(ShimTest, ThreadsWithEndpointsOfTheirOwnAndOneShared_NothingIsLostOrMixed)
{
    auto program = client("threads");
    for (int i = 0; i < 5; i++)
        expect_line(*program, "ready");
    for (int n = 0; n < 200; n++) {
        for (uint16_t port = 5000; port < 5005; port++)
            send(std::to_string(n), port);
        usleep(200);
    }
    send("end", 5004);
    send("end", 5004);
    std::vector<std::string> lines;
    for (int i = 0; i < 5; i++) {
        std::string line;
        ASSERT_TRUE(program->read_line(&line)) << *program;
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    EXPECT_EQ(lines, (std::vector<std::string>{"shared: 200 of 200", "thread 0: 200 in order", "thread 1: 200 in order",
                                               "thread 2: 200 in order", "thread 3: 200 in order"}));
    expect_done(*program);
}

// Also when everything is closed that is open: what the adapter has for itself is not the program's to close.
TEST_F(ShimTest, DescriptorClosedBehindItsBack_NumberIsTheProgramsAndTheDeviceOpensAnew)
{
    for (const char *how : {"close_range", "dup2", "close_range of all", "closefrom", "close one by one"}) {
        SCOPED_TRACE(how);
        auto program = client(how);
        expect_line(*program, "ready lost");
        send("to the lost one", 5000);
        expect_line(*program, "lost got to the lost one");
        for (int i = 0; i < 10; i++) { // something for the adapter to do, whoever the number is
            send("for nobody", 5000);
            usleep(5000);
        }
        expect_line(*program, "ready next");
        send("to the next one", 5001);
        expect_line(*program, "next got to the next one");
        EXPECT_EQ(sender().receive(), "10.77.0.1:5001 last words");
        expect_done(*program);
    }
}

// Boards that nobody serves would take what is sent and keep it.
TEST_F(ShimTest, NoThreadForTheFirmware_ThereIsNoDevice_AndWhyIsSaidOnce)
{
    add_second_interface();
    for (const char *threads : {"0", "1"}) { // of the two that two boards need
        SCOPED_TRACE(threads);
        auto program = client("no-device", "oxel0,oxel1",
                              {"LD_PRELOAD=" RUK_NO_THREADS, std::string("RUK_TEST_THREADS=") + threads});
        expect_line(*program, "init: No such file or directory");
        expect_line(*program, "init: No such file or directory");
        expect_line(*program, "done");
        EXPECT_TRUE(program->finish()) << *program;
        EXPECT_TRUE(program->exited_with(0)) << *program;
        EXPECT_EQ(program->err(), "softnic: no thread for the firmware: Resource temporarily unavailable\n");
        expect_clean_host();
    }
}
