// ruk-send over the software adapter, seen by a kernel socket on the other host.
#include "schema.h"
#include "tool_lab.h"

#include <csignal>
#include <fcntl.h>

using namespace tool_test;
using nlohmann::json;

namespace {

/* A terminal that the test looks at. */
class Terminal {
public:
    Terminal() : screen_(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK))
    {
        EXPECT_TRUE(screen_ >= 0 && grantpt(screen_) == 0 && unlockpt(screen_) == 0) << strerror(errno);
        // What was written stays readable as long as some end is open.
        line_ = open(name().c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
        EXPECT_GE(line_, 0) << strerror(errno);
    }
    ~Terminal()
    {
        close(line_);
        close(screen_);
    }
    Terminal(const Terminal &) = delete;
    Terminal &operator=(const Terminal &) = delete;

    std::string name() const
    {
        char text[64];
        return ptsname_r(screen_, text, sizeof text) == 0 ? text : "no terminal";
    }

    /* What has been written so far. */
    std::string shown() const
    {
        std::string text;
        char chunk[4096];
        for (ssize_t n; (n = read(screen_, chunk, sizeof chunk)) > 0;)
            text.append(chunk, static_cast<size_t>(n));
        return text;
    }

private:
    int screen_;
    int line_ = -1;
};

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
        auto program = start_with_input(input, options);
        EXPECT_TRUE(program->finish()) << *program;
        return program;
    }
    std::unique_ptr<test_support::Program> start_with_input(const std::string &input, const std::string &options)
    {
        std::ofstream(scratch_.file("input")) << input;
        return start_shell(options + " <" + scratch_.file("input"));
    }
    /* With a terminal for standard error. */
    std::unique_ptr<test_support::Program> start_on(const std::string &terminal, const std::string &options)
    {
        return start_shell(options + " 2>" + terminal);
    }
    std::unique_ptr<test_support::Program> start_shell(const std::string &options)
    {
        return lab.start(lab.adapter, {"sh", "-c",
                                       "exec " + bin("rukrun") + " --soft=oxel0 -- " + bin("ruk-send") +
                                           " -i oxel0 -p 5000 10.77.0.2:40000 " + options});
    }

    ScratchDir scratch_;
};

/* 10.77.0.9, a neighbour that is not there yet. */
class SendToLateNeighbour : public SendTool {
protected:
    void SetUp() override
    {
        SendTool::SetUp();
        if (!IsSkipped())
            wire_ = lab.packet_socket(lab.peer);
    }
    void TearDown() override
    {
        if (wire_ >= 0)
            close(wire_);
    }

    /* Waits until the kernel of the adapter's host asks for the MAC address of 10.77.0.`host`. */
    bool asked_for(uint8_t host = 9)
    {
        const std::string request("\x08\x06\x00\x01\x08\x00\x06\x04\x00\x01", 10);
        const std::string target = {'\x0a', '\x4d', '\x00', static_cast<char>(host)};
        constexpr size_t ether_type = 12, target_address = 38;
        char frame[2048];
        for (pollfd waiting = {wire_, POLLIN, 0}; poll(&waiting, 1, 20000) == 1;) {
            const ssize_t n = read(wire_, frame, sizeof frame);
            if (n >= 42 && std::string(frame + ether_type, request.size()) == request &&
                std::string(frame + target_address, target.size()) == target)
                return true;
        }
        return false;
    }

    void appear(int host = 9) { lab.run(lab.peer, "ip address add 10.77.0." + std::to_string(host) + "/32 dev peer0"); }

    /* Ways to send, each to an address of its own: questions about one say nothing of the other. */
    const std::vector<std::pair<std::string, uint8_t>> ways_ = {{"--connect", 9}, {"--sendto", 10}};

    static std::string late(uint8_t host) { return "10.77.0." + std::to_string(host) + ":40000"; }

    /* A socket that is there before the address is. */
    test_support::LabHost anywhere()
    {
        test_support::LabHost host = lab.peer;
        host.address = "0.0.0.0";
        return host;
    }

private:
    int wire_ = -1;
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

// The neighbour's address comes only after the kernel was made to ask for it.
TEST_F(SendToLateNeighbour, LibraryCallThatMayBlock_WaitsForIt)
{
    KernelSocket peer(lab, anywhere(), 40000);
    auto program = soft({RUK_BINARY_DIR "/examples/example-send", "oxel0", "10.77.0.9", "40000", "late"});
    ASSERT_TRUE(asked_for()) << *program;
    appear();
    EXPECT_TRUE(program->finish()) << *program;
    EXPECT_TRUE(program->exited_with(0)) << *program;
    for (int i = 0; i < 2; i++) { // on a handle, and to the address
        const std::string got = peer.receive();
        EXPECT_EQ(got.substr(got.find(' ')), " late");
    }
}

TEST_F(SendToLateNeighbour, ProgramWaitsForIt)
{
    for (const auto &[way, host] : ways_) {
        KernelSocket peer(lab, anywhere(), 40000);
        auto program = soft({"ruk-send", "-i", "oxel0", "-p", "5000", late(host), "-m", "late", way});
        ASSERT_TRUE(asked_for(host)) << *program;
        appear(host);
        EXPECT_TRUE(program->finish()) << *program;
        EXPECT_TRUE(program->exited_with(0)) << way << "\n" << *program;
        EXPECT_EQ(peer.receive(), "10.77.0.1:5000 late");
        EXPECT_EQ(program->out().rfind("sent 1 datagrams, 4 bytes", 0), 0u) << *program;
    }
}

TEST_F(SendToLateNeighbour, Terminated_ProgramEndsWithItsSummary)
{
    for (const auto &[way, host] : ways_) {
        auto program = soft({"ruk-send", "-i", "oxel0", late(host), "-m", "never", way});
        ASSERT_TRUE(asked_for(host)) << *program;
        program->signal(SIGTERM);
        EXPECT_TRUE(program->finish()) << *program;
        EXPECT_TRUE(program->exited_with(1)) << way << "\n" << *program;
        EXPECT_EQ(program->out().rfind("sent 0 datagrams, 0 bytes", 0), 0u) << *program;
        EXPECT_NE(program->out().find("; refused 0\n"), std::string::npos) << *program;
    }
}

// ARP is never asked for an address of the host itself.
TEST_F(SendTool, DestinationIsTheEndpointsOwnAddress_NoAnswerToArp)
{
    auto program = soft({RUK_BINARY_DIR "/examples/example-send", "oxel0", "10.77.0.1", "40000", "to myself"});
    EXPECT_TRUE(program->finish()) << *program;
    EXPECT_TRUE(program->exited_with(1)) << *program;
    EXPECT_NE(program->err().find("ruk_send_connect: Cannot assign requested address\n"), std::string::npos)
        << *program;
}

// Datagrams with numbers: one that was accepted and lost leaves a gap in the count, one sent twice or out of turn a
// number that does not grow.
TEST_F(SendTool, Nonblock_WhatIsAcceptedArrivesOnceInOrderAndTheRestIsCounted)
{
    KernelSocket peer(lab, lab.peer, 40000);
    constexpr int offered = 200; // what a socket holds, whether its reader gets a processor or not
    std::string lines;
    for (int i = 0; i < offered; i++)
        lines += std::to_string(i) + "\n";
    auto program = start_with_input(lines, "--nonblock --json");
    uint64_t arrived = 0;
    int last = -1;
    bool ended = false;
    for (;;) {
        const std::string got = peer.receive(ended ? 200 : 1000);
        if (got == "nothing") {
            if (ended)
                break;
            ended = program->has_ended();
            continue;
        }
        const int number = std::stoi(got.substr(got.find(' ')));
        ASSERT_GT(number, last) << "after " << arrived;
        ASSERT_LT(number, offered);
        last = number;
        arrived++;
    }
    ASSERT_TRUE(program->finish()) << *program;
    const json summary = parse(program->out());
    const uint64_t refused = summary["refused"].value("EAGAIN", 0);
    EXPECT_EQ(arrived, summary["sent"]);
    EXPECT_EQ(arrived + refused, static_cast<uint64_t>(offered));
    EXPECT_GE(refused, 1u) << "one request may be outstanding: sends without a pause find no room";
    EXPECT_TRUE(program->exited_with(1)) << *program;
}

TEST_F(SendTool, StandardErrorIsATerminal_LongRun_ProgressIsShown)
{
    KernelSocket peer(lab, lab.peer, 40000);
    Terminal terminal;
    auto program = start_on(terminal.name(), "-m x -n 25 -r 10"); // two and a half seconds
    ASSERT_TRUE(program->finish()) << *program;
    EXPECT_TRUE(program->exited_with(0)) << *program;
    const std::string shown = terminal.shown();
    int sent = 0, refused = -1, of = 0;
    ASSERT_EQ(sscanf(shown.c_str(), "\rruk-send: %d sent, %d refused of %d", &sent, &refused, &of), 3) << shown;
    EXPECT_GE(sent, 10); // those due in the first second
    EXPECT_LE(sent, 25);
    EXPECT_EQ(refused, 0);
    EXPECT_EQ(of, 25);
    EXPECT_EQ(shown.back(), '\n') << "the cursor stands at a line's beginning again";
    EXPECT_EQ(program->out().rfind("sent 25 datagrams", 0), 0u) << *program;
}

TEST_F(SendTool, StandardErrorIsNoTerminalOrTheRunShort_NoProgress)
{
    KernelSocket peer(lab, lab.peer, 40000);
    auto program = send({"-m", "x", "-n", "15", "-r", "10"});
    EXPECT_TRUE(program->exited_with(0)) << *program;
    EXPECT_EQ(program->err().find("ruk-send:"), std::string::npos) << *program;

    Terminal terminal;
    program = start_on(terminal.name(), "-m x");
    EXPECT_TRUE(program->finish()) << *program;
    EXPECT_EQ(terminal.shown().find("ruk-send:"), std::string::npos);
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
