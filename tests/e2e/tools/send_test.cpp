// ruk-send over the software adapter, seen by a kernel socket on the other host.
#include "schema.h"
#include "tool_lab.h"

#include <csignal>

using namespace tool_test;
using nlohmann::json;

namespace {

class SendTool : public ToolTest {
protected:
    /* ruk-send from 10.77.0.1:5000 to 10.77.0.2:40000, run to its end. */
    std::unique_ptr<test_support::Program> send(const std::vector<std::string> &options)
    {
        std::vector<std::string> command = {"ruk-send", "-i", "oxel0", "-p", "5000", "10.77.0.2:40000"};
        command.insert(command.end(), options.begin(), options.end());
        auto program = soft(command);
        EXPECT_TRUE(program->finish()) << *program;
        return program;
    }

    /* The same with that on its standard input. */
    std::unique_ptr<test_support::Program> send_input(const std::string &input, const std::string &options = "")
    {
        std::ofstream(scratch_.file("input")) << input;
        auto program = lab.start(lab.adapter,
                                 {"sh", "-c",
                                  bin("rukrun") + " --soft=oxel0 -- " + bin("ruk-send") +
                                      " -i oxel0 -p 5000 10.77.0.2:40000 " + options + " <" + scratch_.file("input")});
        EXPECT_TRUE(program->finish()) << *program;
        return program;
    }

    ScratchDir scratch_;
};

} // namespace

TEST_F(SendTool, Message_ArrivesAtAKernelSocket)
{
    KernelSocket peer(lab, lab.peer, 40000);
    auto program = send({"-m", "hello"});
    EXPECT_TRUE(program->exited_with(0)) << *program;
    EXPECT_EQ(peer.receive(), "10.77.0.1:5000 hello");
    EXPECT_EQ(peer.receive(50), "nothing");
    EXPECT_EQ(program->out().rfind("sent 1 datagrams, 5 bytes, in ", 0), 0u) << *program;
    EXPECT_NE(program->out().find("; refused 0\n"), std::string::npos) << *program;
}

TEST_F(SendTool, Sendto_ArrivesLikeConnect)
{
    KernelSocket peer(lab, lab.peer, 40000);
    EXPECT_TRUE(send({"-m", "by handle", "--connect"})->exited_with(0));
    EXPECT_EQ(peer.receive(), "10.77.0.1:5000 by handle");
    EXPECT_TRUE(send({"-m", "by address", "--sendto", "-n", "2"})->exited_with(0));
    EXPECT_EQ(peer.receive(), "10.77.0.1:5000 by address");
    EXPECT_EQ(peer.receive(), "10.77.0.1:5000 by address");
}

TEST_F(SendTool, StandardInput_EachLineIsADatagram)
{
    KernelSocket peer(lab, lab.peer, 40000);
    auto program = send_input("first\n\nthird\nno end");
    EXPECT_TRUE(program->exited_with(0)) << *program;
    for (const char *expected : {"first", "", "third", "no end"})
        EXPECT_EQ(peer.receive(), std::string("10.77.0.1:5000 ") + expected);
    EXPECT_EQ(program->out().rfind("sent 4 datagrams, 16 bytes", 0), 0u) << *program;
}

TEST_F(SendTool, StandardInput_CountEndsIt)
{
    KernelSocket peer(lab, lab.peer, 40000);
    EXPECT_TRUE(send_input("one\ntwo\nthree\n", "-n 2")->exited_with(0));
    EXPECT_EQ(peer.receive(), "10.77.0.1:5000 one");
    EXPECT_EQ(peer.receive(), "10.77.0.1:5000 two");
    EXPECT_EQ(peer.receive(50), "nothing");
}

TEST_F(SendTool, StandardInput_LineThatFitsNoFrame_IsRefusedAndCounted)
{
    KernelSocket peer(lab, lab.peer, 40000);
    auto program = send_input("short\n" + std::string(1473, 'x') + "\n" + std::string(1472, 'y') + "\n", "--json");
    EXPECT_TRUE(program->exited_with(1)) << *program;
    expect_schema("ruk-send", program->out());
    const json summary = parse(program->out());
    EXPECT_EQ(summary["sent"], 2);
    EXPECT_EQ(summary["bytes"], 1477);
    EXPECT_EQ(summary["refused"], (json{{"longer than 1472 bytes", 1}}));
    EXPECT_EQ(peer.receive(), "10.77.0.1:5000 short");
    EXPECT_EQ(peer.receive(), "10.77.0.1:5000 " + std::string(1472, 'y'));
}

TEST_F(SendTool, File_IsOneDatagram)
{
    KernelSocket peer(lab, lab.peer, 40000);
    std::ofstream(scratch_.file("payload")) << "two\nlines\n";
    EXPECT_TRUE(send({"-f", scratch_.file("payload")})->exited_with(0));
    EXPECT_EQ(peer.receive(), "10.77.0.1:5000 two\nlines\n");
}

TEST_F(SendTool, Size_CountsBytesUpward)
{
    KernelSocket peer(lab, lab.peer, 40000);
    EXPECT_TRUE(send({"--size", "258"})->exited_with(0));
    std::string expected = "10.77.0.1:5000 ";
    for (int i = 0; i < 258; i++)
        expected += static_cast<char>(i);
    EXPECT_EQ(peer.receive(), expected);
}

TEST_F(SendTool, PayloadThatFitsNoFrame_IsRefusedBeforeAnythingIsSent)
{
    auto program = send({"--size", "1473"});
    EXPECT_TRUE(program->exited_with(2)) << *program;
    EXPECT_EQ(program->err(), "ruk-send: a payload of 1473 bytes does not fit a frame: oxel0 carries 1472 at most\n");
    lab.run(lab.adapter, "ip link set oxel0 mtu 1000");
    program = send({"--size", "973"});
    EXPECT_TRUE(program->exited_with(2)) << *program;
    EXPECT_NE(program->err().find("oxel0 carries 972 at most"), std::string::npos) << *program;
}

TEST_F(SendTool, Rate_SpacesTheDatagrams)
{
    KernelSocket peer(lab, lab.peer, 40000);
    auto program = send({"-m", "x", "-n", "11", "-r", "20", "--json"});
    EXPECT_TRUE(program->exited_with(0)) << *program;
    expect_schema("ruk-send", program->out());
    const json summary = parse(program->out());
    EXPECT_EQ(summary["sent"], 11);
    EXPECT_GE(summary["seconds"], 0.5); // ten gaps of 50 ms
    EXPECT_LT(summary["seconds"], 5);
}

TEST_F(SendTool, Ttl_IsInTheHeader)
{
    KernelSocket peer(lab, lab.peer, 40000);
    const int on = 1;
    ASSERT_EQ(setsockopt(peer.fd(), IPPROTO_IP, IP_RECVTTL, &on, sizeof on), 0);
    for (const auto &[options, expected] : {std::pair(std::vector<std::string>{"-m", "x", "--ttl", "7"}, 7),
                                            std::pair(std::vector<std::string>{"-m", "x"}, 64)}) {
        EXPECT_TRUE(send(options)->exited_with(0));
        char payload[16], control[64];
        iovec data = {payload, sizeof payload};
        msghdr message{};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        pollfd waiting = {peer.fd(), POLLIN, 0};
        ASSERT_EQ(poll(&waiting, 1, 10000), 1);
        ASSERT_EQ(recvmsg(peer.fd(), &message, 0), 1);
        const cmsghdr *header = CMSG_FIRSTHDR(&message);
        ASSERT_NE(header, nullptr);
        int ttl = 0;
        memcpy(&ttl, CMSG_DATA(header), sizeof ttl);
        EXPECT_EQ(ttl, expected);
    }
}

TEST_F(SendTool, DestinationThatCannotBeReached_IsExplained)
{
    auto program = soft({"ruk-send", "-i", "oxel0", "192.0.2.1:5000", "-m", "x"});
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(2)) << *program;
    // The library has a line of its own before that.
    EXPECT_NE(program->err().find("\nruk-send: cannot send to 192.0.2.1:5000: no route to the destination\n"),
              std::string::npos)
        << *program;

    program = soft({"ruk-send", "-i", "oxel0", "10.77.0.9:5000", "-m", "x"});
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(2)) << *program;
    EXPECT_NE(program->err().find("ruk-send: cannot send to 10.77.0.9:5000: the next hop does not answer ARP\n"),
              std::string::npos)
        << *program;
}

TEST_F(SendTool, Nonblock_WhatIsAcceptedArrivesAndTheRestIsCounted)
{
    KernelSocket peer(lab, lab.peer, 40000);
    const int room = 4 << 20;
    setsockopt(peer.fd(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
    auto program = send({"--size", "64", "-n", "1000", "--nonblock", "--json"});
    const json summary = parse(program->out());
    const uint64_t sent = summary["sent"];
    const uint64_t refused = summary["refused"].value("EAGAIN", 0);
    EXPECT_EQ(sent + refused, 1000u);
    EXPECT_GE(sent, 1u);
    EXPECT_EQ(program->status(), refused ? 1 : 0) << *program;
    uint64_t arrived = 0;
    while (peer.receive(arrived < sent ? 5000 : 50) != "nothing")
        arrived++;
    EXPECT_EQ(arrived, sent);
}

TEST_F(SendTool, Interrupt_WhileWaitingForALine_EndsWithTheSummary)
{
    KernelSocket peer(lab, lab.peer, 40000);
    // A pipe whose writing end the program itself holds, so that it never ends.
    const std::string pipe = scratch_.file("pipe");
    auto program = lab.start(lab.adapter,
                             {"sh", "-c",
                              "mkfifo " + pipe + " && exec 3<>" + pipe + " && echo first >&3 && exec " + bin("rukrun") +
                                  " --soft=oxel0 -- " + bin("ruk-send") + " -i oxel0 -p 5000 10.77.0.2:40000 <&3"});
    EXPECT_EQ(peer.receive(), "10.77.0.1:5000 first");
    program->signal(SIGINT);
    EXPECT_TRUE(program->finish(5000)) << *program;
    EXPECT_TRUE(program->exited_with(1)) << *program; // more might have come
    EXPECT_EQ(program->out().rfind("sent 1 datagrams, 5 bytes", 0), 0u) << *program;
}
