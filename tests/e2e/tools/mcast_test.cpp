// Memberships on a real network: the kernel's tables, reports on the wire, groups of ordinary programs.
#include "tool_lab.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>

using namespace tool_test;
using nlohmann::json;

namespace {

class Multicast : public ToolTest {
protected:
    std::string members() { return lab.run(lab.adapter, "cat /proc/net/igmp"); }

    // An ordinary program's datagram to a group, from one of the peer's addresses.
    void socat(const std::string &text, const std::string &group, const std::string &source = "10.77.0.2")
    {
        lab.run(lab.peer, "printf '%s' '" + text + "' | socat -u - 'UDP4-DATAGRAM:" + group + ",bind=" + source +
                              ":40000,ip-multicast-if=" + source + "'");
    }

    json next(test_support::Program &program)
    {
        std::string line;
        EXPECT_TRUE(program.read_line(&line)) << program;
        return parse(line);
    }

    static std::string text(const json &line)
    {
        const std::string hex = line.at("payload");
        std::string bytes;
        for (size_t i = 0; i < hex.size(); i += 2)
            bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
        return bytes;
    }
};

} // namespace

TEST_F(Multicast, JoinAndLeave_KernelTableAndReportsOnTheWire)
{
    auto tcpdump = lab.start(lab.peer, {"tcpdump", "-i", "peer0", "-l", "-n", "-v", "igmp"});
    ASSERT_TRUE(tcpdump->wait_for_err("listening")) << *tcpdump;
    EXPECT_EQ(members().find("030201EF"), std::string::npos);
    auto program = receiver({"-p", "5000", "-g", "239.1.2.3"});
    EXPECT_NE(members().find("030201EF"), std::string::npos);
    EXPECT_TRUE(tcpdump->wait_for_out("igmp v3 report, 1 group record(s) [gaddr 239.1.2.3 to_ex")) << *tcpdump;
    program->signal(SIGINT);
    EXPECT_TRUE(program->finish());
    EXPECT_EQ(members().find("030201EF"), std::string::npos);
    EXPECT_TRUE(tcpdump->wait_for_out("[gaddr 239.1.2.3 to_in")) << *tcpdump;
}

TEST_F(Multicast, GroupOfAnOrdinaryProgram_TwoPortsAndTwoProcesses_EachGetsItsOwn)
{
    auto first = receiver({"-p", "5000", "-p", "5001", "-g", "239.1.2.3", "--reuse", "--json"});
    auto second = receiver({"-p", "5000", "-g", "239.1.2.3", "--reuse", "--json"});
    socat("to 5000", "239.1.2.3:5000");
    socat("to 5001", "239.1.2.3:5001");
    socat("another", "239.1.2.3:5000");

    const json a = next(*first), b = next(*first), c = next(*first);
    EXPECT_EQ(a["to"], "239.1.2.3:5000");
    EXPECT_EQ(text(a), "to 5000");
    EXPECT_EQ(b["to"], "239.1.2.3:5001");
    EXPECT_EQ(text(b), "to 5001");
    EXPECT_EQ(text(c), "another");
    EXPECT_EQ(text(next(*second)), "to 5000"); // not the other port's
    EXPECT_EQ(text(next(*second)), "another");
}

TEST_F(Multicast, MembershipOfOneSource_OtherSource_NotDeliveredAndCountedAsFiltered)
{
    lab.run(lab.peer, "ip address add 10.77.0.3/24 dev peer0");
    auto program = receiver({"-p", "5000", "-g", "239.1.2.3@10.77.0.2", "--json", "--stats"});
    const std::string filters = lab.run(lab.adapter, "cat /proc/net/mcfilter");
    EXPECT_NE(filters.find("0xef010203 0x0a4d0002"), std::string::npos) << filters;
    for (int i = 0; i < 3; i++) {
        socat("unwanted", "239.1.2.3:5000", "10.77.0.3");
        socat("wanted " + std::to_string(i), "239.1.2.3:5000");
    }
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(text(next(*program)), "wanted " + std::to_string(i));
    program->signal(SIGINT);
    const json stats = next(*program)["stats"];
    EXPECT_EQ(stats["delivered"], 3);
    EXPECT_EQ(stats["dropped_badfilter"], 3);
}

TEST_F(Multicast, HundredsOfGroupsAndEveryTag_TakenRefusedReleasedAndTakenAgain)
{
    lab.run(lab.adapter, "echo 5000 > /proc/sys/net/ipv4/igmp_max_memberships");
    lab.run(lab.adapter,
            "test ! -e /proc/sys/net/core/optmem_max || echo 4194304 > /proc/sys/net/core/optmem_max || true");
    const auto group_lines = [this] {
        const std::string table = members();
        size_t n = 0;
        for (size_t at = table.find("01EF "); at != std::string::npos; at = table.find("01EF ", at + 1))
            n++;
        return n;
    };
    ScratchDir scratch;
    const std::string input = scratch.file("input");
    lab.run(lab.adapter, "mkfifo " + input);
    auto program = lab.start(lab.adapter, {"sh", "-c",
                                           bin("rukrun") + " --soft=oxel0 -- " + RUK_BINARY_DIR +
                                               "/tests/mcast_program 10.77.0.1 500 <" + input});
    const int go = open(input.c_str(), O_WRONLY);
    std::string line;
    for (int round = 0; round < 2; round++) {
        ASSERT_TRUE(program->read_line(&line)) << *program;
        EXPECT_EQ(line, "joined 500");
        EXPECT_EQ(group_lines(), 500u);
        ASSERT_EQ(write(go, "\n", 1), 1);
        ASSERT_TRUE(program->read_line(&line)) << *program;
        EXPECT_EQ(line, "left 500");
        EXPECT_EQ(group_lines(), 0u);
        ASSERT_EQ(write(go, "\n", 1), 1);
    }
    for (int round = 0; round < 2; round++) {
        ASSERT_TRUE(program->read_line(&line, 60000)) << *program;
        EXPECT_EQ(line, "tags 3968, then ENOMEM");
    }
    close(go);
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
}
