// The first examples do what their heads say.
#include "tool_lab.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <sys/stat.h>

using namespace tool_test;

namespace {

class Examples : public ToolTest {
protected:
    static std::string path(const std::string &name)
    {
        return std::string(RUK_BINARY_DIR) + "/examples/example-" + name;
    }

    std::unique_ptr<test_support::Program> example(const std::string &name, const std::vector<std::string> &args)
    {
        std::vector<std::string> command = {path(name)};
        command.insert(command.end(), args.begin(), args.end());
        return soft(command);
    }

    /* Sends until the program has printed the line: examples do not say when they listen. */
    void send_until_line(test_support::Program &program, KernelSocket &peer, const std::string &payload,
                         const char *address, std::string *line)
    {
        for (int i = 0; i < 200; i++) {
            peer.send(payload, address, 5000);
            if (program.read_line(line, 100))
                return;
        }
        FAIL() << program;
    }
};

} // namespace

TEST_F(Examples, Usage_WithoutArguments_IsTold)
{
    for (const char *name :
         {"receive", "send", "multicast_source", "timestamps", "capture", "threads", "epoll", "cplusplus"}) {
        auto program = lab.start(lab.adapter, {path(name)});
        EXPECT_TRUE(program->finish());
        EXPECT_TRUE(program->exited_with(2)) << name << *program;
        EXPECT_EQ(program->err().rfind("usage: ", 0), 0u) << name << *program;
    }
}

TEST_F(Examples, Receive_PrintsSenderAndPayload)
{
    KernelSocket peer(lab, lab.peer, 40000);
    auto program = example("receive", {"oxel0", "5000"});
    std::string line;
    send_until_line(*program, peer, "hello", "10.77.0.1", &line);
    EXPECT_EQ(line, "10.77.0.2:40000 hello");
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
}

TEST_F(Examples, CPlusPlus_SendsBackWhatItReceives)
{
    KernelSocket peer(lab, lab.peer, 40000);
    auto program = example("cplusplus", {"oxel0", "5000", "1"});
    std::string line;
    send_until_line(*program, peer, "hello", "10.77.0.1", &line);
    EXPECT_EQ(line, "5 bytes, dated");
    const std::string got = peer.receive();
    EXPECT_EQ(got.substr(got.find(' ') + 1), "hello");
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
}

TEST_F(Examples, CPlusPlus_DatagramThatIsCut_IsToldAndNotSentBack)
{
    KernelSocket peer(lab, lab.peer, 40000);
    auto program = example("cplusplus", {"oxel0", "5000"});
    std::string line;
    send_until_line(*program, peer, "hello", "10.77.0.1", &line);
    EXPECT_EQ(line, "5 bytes, dated");
    put_frame(0x0800, datagram_with_length_field(8 + 1473)); // the example has room for 1472
    while (line == "5 bytes, dated")                         // one may have been sent before it listened
        ASSERT_TRUE(program->read_line(&line)) << *program;
    EXPECT_EQ(line, "1472 bytes, dated, cut");
    peer.send("after", "10.77.0.1", 5000);
    std::string got;
    while ((got = peer.receive()).ends_with("hello")) { // what came before
    }
    EXPECT_EQ(got.substr(got.find(' ') + 1), "after") << "nothing of the cut one";
    program->signal(SIGTERM);
    EXPECT_TRUE(program->finish());
}

TEST_F(Examples, Send_SendsOnAHandleAndToAnAddress)
{
    KernelSocket peer(lab, lab.peer, 40000);
    auto program = example("send", {"oxel0", "10.77.0.2", "40000", "twice"});
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
    for (int i = 0; i < 2; i++) {
        const std::string got = peer.receive();
        EXPECT_EQ(got.substr(got.find(' ') + 1), "twice");
    }
    EXPECT_EQ(peer.receive(50), "nothing");
}

TEST_F(Examples, MulticastSource_PrintsTheGroupsDatagrams)
{
    KernelSocket peer(lab, lab.peer, 40000);
    in_addr out{};
    inet_pton(AF_INET, "10.77.0.2", &out);
    ASSERT_EQ(setsockopt(peer.fd(), IPPROTO_IP, IP_MULTICAST_IF, &out, sizeof out), 0);
    auto program = example("multicast_source", {"oxel0", "5000", "239.1.2.3", "10.77.0.2"});
    std::string line;
    send_until_line(*program, peer, "to the group", "239.1.2.3", &line);
    EXPECT_EQ(line, "to the group");
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
}

TEST_F(Examples, Timestamps_AreOfTheHostsScale)
{
    KernelSocket peer(lab, lab.peer, 40000);
    auto program = example("timestamps", {"oxel0", "5000"});
    std::string line;
    send_until_line(*program, peer, "x", "10.77.0.1", &line);
    unsigned long long at = 0;
    long long age = 0;
    ASSERT_EQ(sscanf(line.c_str(), "arrived at %llu ns, received %lld ns later", &at, &age), 2) << line;
    EXPECT_NEAR(static_cast<double>(at) / 1e9, static_cast<double>(time(nullptr)), 60);
    EXPECT_LT(std::abs(age), 60'000'000'000) << line;
}

TEST_F(Examples, Capture_PrintsFrames)
{
    auto program = example("capture", {"oxel0", "1000"});
    std::string line;
    for (int i = 0; i < 200 && line.find("88 b5") == std::string::npos; i++) {
        put_frame(0x88b5, "x");
        program->read_line(&line, 100);
    }
    EXPECT_NE(line.find(" 60 bytes: 02 6f 78 00 00 01 02 00 00 00 00 02 88 b5"), std::string::npos) << line;
}

TEST_F(Examples, Threads_SendStandardInputAndStopInOrder)
{
    KernelSocket peer(lab, lab.peer, 40000);
    auto program = lab.start(lab.adapter, {"sh", "-c",
                                           "printf 'one\\ntwo\\n' | " + bin("rukrun") + " --soft=oxel0 -- " +
                                               path("threads") + " oxel0 5000 10.77.0.2 40000"});
    EXPECT_EQ(peer.receive(), "10.77.0.1:5000 one");
    EXPECT_EQ(peer.receive(), "10.77.0.1:5000 two");
    for (int i = 0; i < 300 && !program->has_ended(); i++) { /* traffic that goes on does not keep it */
        peer.send("more", "10.77.0.1", 5000);
        usleep(100000);
    }
    EXPECT_TRUE(program->has_ended());
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
}

TEST_F(Examples, Threads_EarlierLineThatIsRefused_IsToldAndIsTheStatus)
{
    KernelSocket peer(lab, lab.peer, 40000);
    const ScratchDir scratch;
    const std::string input = scratch.file("input");
    ASSERT_EQ(mkfifo(input.c_str(), 0600), 0);
    // The next hop is not known, and the host lets nobody ask for it.
    lab.run(lab.adapter, "ip neigh del 10.77.0.2 dev oxel0 && nft 'add table ip mute; "
                         "add chain ip mute out { type filter hook output priority 0; }; "
                         "add rule ip mute out udp dport 67 drop'");
    auto program = lab.start(lab.adapter, {"sh", "-c",
                                           "exec " + bin("rukrun") + " --soft=oxel0 -- " + path("threads") +
                                               " oxel0 5000 10.77.0.2 40000 <" + input});
    const int end = open(input.c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(end, 0);
    ASSERT_EQ(write(end, "one\n", 4), 4);
    ASSERT_TRUE(program->wait_for_err("ruk_sendto: Operation not permitted")) << *program;
    lab.run(lab.adapter, "ip neigh add 10.77.0.2 lladdr 02:00:00:00:00:02 dev oxel0 nud permanent");
    ASSERT_EQ(write(end, "two\n", 4), 4);
    EXPECT_EQ(peer.receive(), "10.77.0.1:5000 two");
    close(end);
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(1)) << *program;
}

TEST_F(Examples, Epoll_ReceivesUntilStandardInputEnds)
{
    KernelSocket peer(lab, lab.peer, 40000);
    const ScratchDir scratch;
    const std::string input = scratch.file("input");
    ASSERT_EQ(mkfifo(input.c_str(), 0600), 0);
    auto program = lab.start(
        lab.adapter,
        {"sh", "-c", "exec " + bin("rukrun") + " --soft=oxel0 -- " + path("epoll") + " oxel0 5000 <" + input});
    const int end = open(input.c_str(), O_WRONLY | O_CLOEXEC); /* once the program is there to read */
    ASSERT_GE(end, 0);
    std::string line;
    send_until_line(*program, peer, "in the loop", "10.77.0.1", &line);
    EXPECT_EQ(line, "in the loop");
    close(end);
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
}
