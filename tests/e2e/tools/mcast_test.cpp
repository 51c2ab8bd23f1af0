// Memberships on a real network: the kernel's tables, reports on the wire, groups of ordinary programs.
#include "tool_lab.h"

#include <algorithm>
#include <chrono>
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

/* Membership messages on the peer's end of the cable. */
class IgmpListener {
public:
    IgmpListener(test_support::Lab &lab) : fd_(lab.packet_socket(lab.peer)) {}
    ~IgmpListener() { close(fd_); }
    IgmpListener(const IgmpListener &) = delete;
    IgmpListener &operator=(const IgmpListener &) = delete;

    // "TYPE GROUP{sources} > DESTINATION": reads until that message comes, or the other; false when none did in time.
    bool wait_for(const std::string &message, const std::string &other = "none")
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (std::chrono::steady_clock::now() < end) {
            pollfd waiting = {fd_, POLLIN, 0};
            if (poll(&waiting, 1, 1000) != 1)
                continue;
            uint8_t frame[2048];
            const ssize_t n = recv(fd_, frame, sizeof frame, 0);
            for (const std::string &m : messages(frame, n > 0 ? static_cast<size_t>(n) : 0)) {
                heard_ += m + "\n";
                if (m == message || m == other)
                    return true;
            }
        }
        return false;
    }
    const std::string &heard() const { return heard_; }

private:
    static std::string dotted(const uint8_t *p)
    {
        char text[INET_ADDRSTRLEN];
        return inet_ntop(AF_INET, p, text, sizeof text);
    }

    static std::vector<std::string> messages(const uint8_t *frame, size_t n)
    {
        std::vector<std::string> found;
        if (n < 14 + 20 || frame[12] != 0x08 || frame[13] != 0x00 || frame[14 + 9] != 2 /* IGMP */)
            return found;
        const std::string to = " > " + dotted(frame + 14 + 16);
        const size_t header = (frame[14] & 15u) * 4u;
        const size_t length = std::min<size_t>(n - 14, frame[16] << 8 | frame[17]);
        if (length < header + 8)
            return found;
        const uint8_t *igmp = frame + 14 + header, *end = frame + 14 + length;
        uint32_t sum = 0;
        for (const uint8_t *p = igmp; p < end; p += 2)
            sum += static_cast<uint32_t>(p[0] << 8 | (p + 1 < end ? p[1] : 0));
        sum = (sum & 0xffff) + (sum >> 16);
        if ((sum & 0xffff) + (sum >> 16) != 0xffff)
            return {"wrong checksum"};
        if (igmp[0] == 0x16)
            found.push_back("v2 report " + dotted(igmp + 4) + to);
        if (igmp[0] == 0x17)
            found.push_back("v2 leave " + dotted(igmp + 4) + to);
        if (igmp[0] != 0x22)
            return found;
        const char *types[] = {"?", "IS_IN", "IS_EX", "TO_IN", "TO_EX", "ALLOW", "BLOCK"};
        const uint8_t *record = igmp + 8;
        for (unsigned records = igmp[6] << 8 | igmp[7]; records != 0 && record + 8 <= end; records--) {
            std::string text = std::string(types[record[0] < 7 ? record[0] : 0]) + " " + dotted(record + 4) + "{";
            const unsigned sources = record[2] << 8 | record[3];
            for (unsigned i = 0; i < sources && record + 12 + 4 * i <= end; i++)
                text += (i != 0 ? "," : "") + dotted(record + 8 + 4 * i);
            found.push_back(text + "}" + to);
            record += 8 + 4 * sources + 4 * record[1];
        }
        return found;
    }

    int fd_;
    std::string heard_;
};

} // namespace

TEST_F(Multicast, JoinAndProgramsEnd_KernelTableAndReportsOnTheWire)
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

// The calls themselves, in a program that goes on: the channel stays bound, its socket open.
class MulticastLeave : public Multicast {
protected:
    ~MulticastLeave() override
    {
        if (go_ >= 0)
            close(go_);
    }
    void start(const std::string &arguments)
    {
        const std::string input = scratch_.file("input");
        lab.run(lab.adapter, "mkfifo " + input);
        program_ = lab.start(lab.adapter, {"sh", "-c",
                                           "exec " + bin("rukrun") + " --soft=oxel0 -- " + RUK_BINARY_DIR +
                                               "/tests/mcast_program 10.77.0.1 1 " + arguments + " <" + input});
        go_ = open(input.c_str(), O_WRONLY);
        ASSERT_GE(go_, 0);
    }
    void expect_line(const std::string &expected)
    {
        std::string line;
        ASSERT_TRUE(program_->read_line(&line)) << *program_;
        ASSERT_EQ(line, expected);
    }
    void go_on() { ASSERT_EQ(write(go_, "\n", 1), 1); }
    bool is_member() { return members().find("000001EF") != std::string::npos; }
    bool still_bound()
    {
        return !program_->has_ended() &&
               lab.run(lab.adapter, "cat /proc/net/udp").find("01004D0A:1388") != std::string::npos;
    }

    ScratchDir scratch_;
    std::unique_ptr<test_support::Program> program_;
    int go_ = -1;
};

TEST_F(MulticastLeave, LeaveCall_ReportOfNoSourcesAndTheEndInTheKernelsTable)
{
    IgmpListener listener(lab);
    start("");
    expect_line("joined 1");
    EXPECT_TRUE(is_member());
    EXPECT_TRUE(listener.wait_for("TO_EX 239.1.0.0{} > 224.0.0.22")) << listener.heard();
    EXPECT_EQ(listener.heard().find("TO_IN"), std::string::npos) << listener.heard();
    go_on();
    expect_line("left 1");
    EXPECT_FALSE(is_member());
    EXPECT_TRUE(listener.wait_for("TO_IN 239.1.0.0{} > 224.0.0.22")) << listener.heard();
    EXPECT_TRUE(still_bound());
}

TEST_F(MulticastLeave, LeaveCall_WhereRoutersSpeakTheOlderVersion_LeaveMessageToAllRouters)
{
    lab.run(lab.adapter, "echo 2 > /proc/sys/net/ipv4/conf/oxel0/force_igmp_version");
    IgmpListener listener(lab);
    start("");
    expect_line("joined 1");
    EXPECT_TRUE(is_member());
    EXPECT_TRUE(listener.wait_for("v2 report 239.1.0.0 > 239.1.0.0")) << listener.heard();
    EXPECT_EQ(listener.heard().find("leave"), std::string::npos) << listener.heard();
    go_on();
    expect_line("left 1");
    EXPECT_FALSE(is_member());
    EXPECT_TRUE(listener.wait_for("v2 leave 239.1.0.0 > 224.0.0.2")) << listener.heard();
    EXPECT_TRUE(still_bound());
}

TEST_F(MulticastLeave, LeaveSourceCall_SourceReportedAndItsEnd)
{
    IgmpListener listener(lab);
    start("10.77.0.2");
    expect_line("joined 1");
    EXPECT_TRUE(is_member());
    const std::string filters = lab.run(lab.adapter, "cat /proc/net/mcfilter");
    EXPECT_NE(filters.find("0xef010000 0x0a4d0002"), std::string::npos) << filters;
    EXPECT_TRUE(listener.wait_for("ALLOW 239.1.0.0{10.77.0.2} > 224.0.0.22")) << listener.heard();
    go_on();
    expect_line("left 1");
    EXPECT_FALSE(is_member());
    EXPECT_EQ(lab.run(lab.adapter, "cat /proc/net/mcfilter").find("0xef010000"), std::string::npos);
    EXPECT_TRUE(listener.wait_for("BLOCK 239.1.0.0{10.77.0.2} > 224.0.0.22")) << listener.heard();
    EXPECT_TRUE(still_bound());
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

// What the adapter takes is not asked for its source: blocking is the kernel socket's.
TEST_F(Multicast, BlockedSource_StillDeliveredByTheAdapterAndCountedSo)
{
    lab.run(lab.peer, "ip address add 10.77.0.3/24 dev peer0");
    auto program = receiver({"-p", "5000", "-g", "239.1.2.3", "--block", "239.1.2.3@10.77.0.3", "--json", "--stats"});
    for (int i = 0; i < 2; i++) {
        socat("blocked", "239.1.2.3:5000", "10.77.0.3");
        socat("another", "239.1.2.3:5000", "10.77.0.2");
    }
    for (int i = 0; i < 2; i++) {
        EXPECT_EQ(next(*program)["from"], "10.77.0.3:40000");
        EXPECT_EQ(next(*program)["from"], "10.77.0.2:40000");
    }
    program->signal(SIGINT);
    const json stats = next(*program)["stats"];
    EXPECT_EQ(stats["delivered"], 4);
    EXPECT_EQ(stats["dropped_badfilter"], 0);
}

// Routers are told, which is what keeps the source away from the wire.
TEST_F(Multicast, BlockedSource_ReportedOnTheWire)
{
    IgmpListener listener(lab);
    auto program = receiver({"-p", "5000", "-g", "239.1.2.3", "--block", "239.1.2.3@10.77.0.3"});
    // With the join's own report, or after it.
    EXPECT_TRUE(listener.wait_for("TO_EX 239.1.2.3{10.77.0.3} > 224.0.0.22", "BLOCK 239.1.2.3{10.77.0.3} > 224.0.0.22"))
        << listener.heard();
    EXPECT_NE(members().find("030201EF"), std::string::npos) << "the group itself stays joined";
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
