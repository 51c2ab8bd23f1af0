// ruk-recv and ruk-info over the software adapter: what a user sees of datagrams from a kernel socket.
#include "schema.h"
#include "tool_lab.h"

#include <chrono>
#include <csignal>
#include <map>
#include <regex>

using namespace tool_test;
using nlohmann::json;

namespace {

using Clock = std::chrono::steady_clock;

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

class ReceiveTool : public ToolTest {
protected:
    std::string next_line(test_support::Program &program)
    {
        std::string line;
        EXPECT_TRUE(program.read_line(&line)) << program;
        return line;
    }
};

} // namespace

TEST_F(ReceiveTool, Json_DatagramFromAKernelSocket_IsOneObjectALine)
{
    KernelSocket peer(lab, lab.peer, 40000);
    auto program = receiver({"-p", "5000", "-n", "1", "-t", "20", "--json", "--hw-timestamps"});
    peer.send("abc", "10.77.0.1", 5000);
    const std::string line = next_line(*program);
    const std::regex shape(R"(\{"from":"10\.77\.0\.2:40000","to":"10\.77\.0\.1:5000","len":3,)"
                           R"("timestamp_ns":([0-9]{19}),"payload":"616263","timestamp_source":"adapter"\})");
    std::smatch match;
    ASSERT_TRUE(std::regex_match(line, match, shape)) << line;
    expect_schema("ruk-recv", line);
    // Host time: within a minute of now.
    EXPECT_NEAR(static_cast<double>(std::stoull(match[1])) / 1e9, static_cast<double>(time(nullptr)), 60);
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
}

TEST_F(ReceiveTool, Text_DatagramFromAKernelSocket_IsOneLine)
{
    KernelSocket peer(lab, lab.peer, 40000);
    auto program = receiver({"-p", "5000", "-n", "2", "-t", "20"});
    peer.send("a\"b\\c\x01", "10.77.0.1", 5000);
    peer.send(std::string(33, 'x'), "10.77.0.1", 5000);
    EXPECT_EQ(next_line(*program), R"(- 10.77.0.2:40000 > 10.77.0.1:5000 len 6 "a\"b\\c\x01")");
    EXPECT_EQ(next_line(*program), "- 10.77.0.2:40000 > 10.77.0.1:5000 len 33 \"" + std::string(32, 'x') + "\"...");
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
}

TEST_F(ReceiveTool, Json_EmptyAndLargestPayload_ArriveWhole)
{
    KernelSocket peer(lab, lab.peer, 40000);
    auto program = receiver({"-p", "5000", "-n", "2", "-t", "20", "--json"});
    peer.send("", "10.77.0.1", 5000);
    peer.send(std::string(1472, 'z'), "10.77.0.1", 5000);
    json line = parse(next_line(*program));
    EXPECT_EQ(line["len"], 0);
    EXPECT_EQ(line["payload"], "");
    EXPECT_EQ(line["timestamp_ns"], 0); // not asked for
    line = parse(next_line(*program));
    EXPECT_EQ(line["len"], 1472);
    std::string expected;
    for (int i = 0; i < 1472; i++)
        expected += "7a";
    EXPECT_EQ(line["payload"], expected);
}

TEST_F(ReceiveTool, SeveralPorts_EachDatagramNamesItsOwn)
{
    KernelSocket peer(lab, lab.peer, 40000);
    auto program = soft({"ruk-recv", "-a", "10.77.0.1", "-p", "5000", "-p", "5001", "-n", "2", "-t", "20", "--json"});
    ASSERT_TRUE(program->wait_for_err("listening on 10.77.0.1:5000, 10.77.0.1:5001")) << *program;
    peer.send("second", "10.77.0.1", 5001);
    peer.send("first", "10.77.0.1", 5000);
    EXPECT_EQ(parse(next_line(*program))["to"], "10.77.0.1:5001");
    EXPECT_EQ(parse(next_line(*program))["to"], "10.77.0.1:5000");
}

TEST_F(ReceiveTool, Time_RunsOutBeforeCount_EndsWithStatusOne)
{
    for (const char *wait : {"spin", "nonblock", "block"}) {
        KernelSocket peer(lab, lab.peer, 40000);
        auto program = receiver({"-p", "5000", "-n", "2", "-t", "2", "--wait", wait});
        peer.send("one", "10.77.0.1", 5000);
        EXPECT_TRUE(program->finish()) << wait;
        EXPECT_TRUE(program->exited_with(1)) << wait << *program;
        EXPECT_NE(program->out().find("len 3 \"one\""), std::string::npos) << wait << *program;
    }
}

TEST_F(ReceiveTool, Time_RunsOutWithoutCount_EndsWithStatusZero)
{
    auto program = receiver({"-p", "5000", "-t", "0.3"});
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
}

TEST_F(ReceiveTool, Interrupt_InEveryWaitMode_EndsCleanlyWithStatistics)
{
    for (const char *wait : {"spin", "nonblock", "block"}) {
        KernelSocket peer(lab, lab.peer, 40000);
        auto program = receiver({"-p", "5000", "--wait", wait, "--json", "--stats"});
        peer.send("before", "10.77.0.1", 5000);
        EXPECT_EQ(parse(next_line(*program))["len"], 6) << wait;
        const auto start = Clock::now();
        program->signal(SIGINT);
        const json stats = parse(next_line(*program))["stats"];
        EXPECT_EQ(stats["delivered"], 1) << wait;
        EXPECT_EQ(stats["dropped_runts"], 0) << wait;
        EXPECT_TRUE(program->finish()) << wait;
        EXPECT_TRUE(program->exited_with(0)) << wait << *program;
        EXPECT_LT(seconds_since(start), 3) << wait;
    }
}

TEST_F(ReceiveTool, Interrupt_BeforeCount_EndsWithStatusOne)
{
    auto program = receiver({"-p", "5000", "-n", "1"});
    program->signal(SIGTERM);
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(1)) << *program;
}

TEST_F(ReceiveTool, Stats_OfAnEndpoint_AreTheLibrarysElevenCounters)
{
    auto program = receiver({"-p", "5000", "-t", "0.2", "--json", "--stats"});
    ASSERT_TRUE(program->finish());
    const auto stats = nlohmann::ordered_json::parse(program->out())["stats"];
    std::vector<std::string> names;
    for (const auto &[name, value] : stats.items()) {
        names.push_back(name);
        EXPECT_EQ(value, 0) << name;
    }
    const std::vector<std::string> expected = {"delivered",
                                               "malformed",
                                               "dropped_badproto",
                                               "dropped_badfilter",
                                               "dropped_nosock",
                                               "dropped_runts",
                                               "dropped_badlength",
                                               "dropped_csum",
                                               "dropped_oo_bouncebufs",
                                               "dropped_oo_events",
                                               "dropped_broadcast_filtered",
                                               "used_borrowbufs",
                                               "used_bouncebufs"};
    EXPECT_EQ(names, expected);
}

TEST_F(ReceiveTool, LengthNoDatagramCanHave_IsShownAsMalformedWithoutBytes)
{
    KernelSocket peer(lab, lab.peer, 40000);
    auto program = receiver({"-p", "5000", "-n", "1", "-t", "20", "--json", "--stats"});
    put_frame(0x0800, datagram_with_length_field(4)); // 4 - 8 wraps
    const std::string printed = next_line(*program);
    expect_schema("ruk-recv", printed);
    const json line = parse(printed);
    EXPECT_EQ(line["len"], 4294967292u);
    EXPECT_EQ(line["malformed"], true);
    EXPECT_FALSE(line.contains("payload"));
    // It does not count: the next one is the first.
    peer.send("good", "10.77.0.1", 5000);
    EXPECT_EQ(parse(next_line(*program))["payload"], "676f6f64");
    EXPECT_EQ(parse(next_line(*program))["stats"]["malformed"], 1);
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
}

TEST_F(ReceiveTool, LengthNoDatagramCanHave_InText_IsShownAsMalformed)
{
    auto program = receiver({"-p", "5000", "-t", "20"});
    put_frame(0x0800, datagram_with_length_field(0));
    EXPECT_EQ(next_line(*program), "- 10.77.0.2:40000 > 10.77.0.1:5000 len 4294967288 malformed");
    program->signal(SIGINT);
    EXPECT_TRUE(program->finish());
}

TEST_F(ReceiveTool, LengthBeyondItsFrame_IsShownAsMalformed_OneThatFillsItIsNot)
{
    auto program = receiver({"-p", "5000", "-t", "20"});
    for (const auto &[length, printed] : std::map<uint16_t, std::string>{{18, "18 \"eighteen bytes....\""},
                                                                         {19, "19 malformed"},
                                                                         {400, "400 malformed"},
                                                                         {1473, "1473 malformed"}}) {
        put_frame(0x0800, datagram_with_length_field(static_cast<uint16_t>(length + 8)));
        EXPECT_EQ(next_line(*program), "- 10.77.0.2:40000 > 10.77.0.1:5000 len " + printed);
    }
    program->signal(SIGINT);
    EXPECT_TRUE(program->finish());
}

TEST_F(ReceiveTool, Broadcast_IsReceivedWhenAskedFor)
{
    KernelSocket peer(lab, lab.peer, 40000);
    const int on = 1;
    ASSERT_EQ(setsockopt(peer.fd(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on), 0);
    auto program = receiver({"-p", "5000", "-n", "1", "-t", "20", "--broadcast", "--json"});
    peer.send("all", "255.255.255.255", 5000);
    EXPECT_EQ(parse(next_line(*program))["to"], "255.255.255.255:5000");
}

TEST_F(ReceiveTool, Group_IsReceivedFromTheSourcesAskedFor)
{
    lab.run(lab.peer, "ip address add 10.77.0.3/24 dev peer0");
    KernelSocket wanted(lab, lab.peer, 40000);
    auto program =
        receiver({"-p", "5000", "-g", "239.1.1.1", "-g", "239.1.1.2@10.77.0.2", "-n", "2", "-t", "20", "--json"});
    // From the wrong source first: were it delivered, it would be the first line.
    lab.run(lab.peer, "python3 -c \"import socket\n"
                      "s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
                      "s.bind(('10.77.0.3', 40001))\n"
                      "s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, socket.inet_aton('10.77.0.3'))\n"
                      "s.sendto(b'unwanted', ('239.1.1.2', 5000))\"");
    in_addr out{};
    inet_pton(AF_INET, "10.77.0.2", &out);
    ASSERT_EQ(setsockopt(wanted.fd(), IPPROTO_IP, IP_MULTICAST_IF, &out, sizeof out), 0);
    wanted.send("from the source", "239.1.1.2", 5000);
    wanted.send("from anyone", "239.1.1.1", 5000);
    json line = parse(next_line(*program));
    EXPECT_EQ(line["to"], "239.1.1.2:5000");
    EXPECT_EQ(line["len"], 15);
    line = parse(next_line(*program));
    EXPECT_EQ(line["to"], "239.1.1.1:5000");
    EXPECT_EQ(line["len"], 11);
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
}

// A receiver that sleeps in the library is woken by each, and the library drops it.
TEST_F(ReceiveTool, Block_FramesOfAnotherSourceKeepComing_TimeRunsOutAllTheSame)
{
    lab.run(lab.peer, "ip address add 10.77.0.3/24 dev peer0");
    auto other = lab.start(lab.peer, {"python3", "-B", "-c",
                                      "import socket, time\n"
                                      "s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
                                      "s.setsockopt(socket.IPPROTO_IP, socket.IP_MULTICAST_IF, "
                                      "socket.inet_aton('10.77.0.3'))\n"
                                      "s.bind(('10.77.0.3', 40001))\n"
                                      "print('sending', flush=True)\n"
                                      "while True:\n"
                                      "    s.sendto(b'unwanted', ('239.1.1.2', 5000))\n"
                                      "    time.sleep(0.15)\n"});
    ASSERT_TRUE(other->wait_for_out("sending")) << *other;
    auto program = receiver({"-p", "5000", "-g", "239.1.1.2@10.77.0.2", "--wait", "block", "-t", "2"});
    EXPECT_TRUE(program->finish(60000)) << *program;
    EXPECT_TRUE(program->exited_with(0)) << *program;
    EXPECT_EQ(program->out(), "");
}

TEST_F(ReceiveTool, AllmultiFilter_GroupNobodyJoined_IsShownWithItAlone)
{
    KernelSocket peer(lab, lab.peer, 40000);
    in_addr out{};
    inet_pton(AF_INET, "10.77.0.2", &out);
    ASSERT_EQ(setsockopt(peer.fd(), IPPROTO_IP, IP_MULTICAST_IF, &out, sizeof out), 0);
    for (const std::string filter : {"normal", "allmulti"}) {
        auto program = receiver({"-p", "5000", "--filter", filter, "-t", "20", "--json"});
        peer.send("to the group", "239.1.1.9", 5000);
        peer.send("to the host", "10.77.0.1", 5000);
        if (filter == "allmulti") {
            json line;
            do // hosts send to groups of their own, too
                line = parse(next_line(*program));
            while (line["payload"] != "746f207468652067726f7570");
            EXPECT_EQ(line["from"], "10.77.0.2:40000");
            EXPECT_EQ(line["to"], "239.1.1.9:5000");
        }
        const json line = parse(next_line(*program));
        EXPECT_EQ(line["payload"], "746f2074686520686f7374") << filter;
        EXPECT_EQ(line["to"], "10.77.0.1:5000") << filter;
        program->signal(SIGINT);
        EXPECT_TRUE(program->finish());
    }
}

TEST_F(ReceiveTool, Block_OfAJoinedGroup_IsAskedOfTheKernelSocket)
{
    auto program = receiver({"-p", "5000", "-g", "239.1.1.1", "--block", "239.1.1.1@10.77.0.2", "-t", "20"});
    // Group, interface, source, and in the last two columns how often it is included and excluded.
    const std::string filters = lab.run(lab.adapter, "cat /proc/net/mcfilter");
    EXPECT_TRUE(std::regex_search(filters, std::regex("0xef010101 0x0a4d0002 +0 +1"))) << filters;
    program->signal(SIGINT);
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
}

TEST_F(ReceiveTool, Group_IsLeftAtTheEnd)
{
    auto members = [this] { return lab.run(lab.adapter, "cat /proc/net/igmp"); };
    auto program = receiver({"-p", "5000", "-g", "239.1.1.1", "-t", "20"});
    EXPECT_NE(members().find("010101EF"), std::string::npos) << members();
    program->signal(SIGINT);
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
    EXPECT_EQ(members().find("010101EF"), std::string::npos) << members();
}

TEST_F(ReceiveTool, Reuse_TwoProgramsShareAPort)
{
    auto first = receiver({"-p", "5000", "--reuse", "-t", "20"});
    auto second = soft({"ruk-recv", "-i", "oxel0", "-p", "5000", "-t", "0.1"});
    EXPECT_TRUE(second->finish());
    EXPECT_TRUE(second->exited_with(2)) << *second; // did not ask for it
    second = soft({"ruk-recv", "-i", "oxel0", "-p", "5000", "--reuse", "-t", "0.1"});
    EXPECT_TRUE(second->finish());
    EXPECT_TRUE(second->exited_with(0)) << *second;
}

TEST_F(ReceiveTool, KernelSocketRefusesAnOption_MessageNamesTheCause)
{
    auto program =
        soft_differing("sockets refuse broadcasts", {"ruk-recv", "-i", "oxel0", "-p", "5000", "--broadcast"});
    ASSERT_TRUE(program->finish()) << *program;
    EXPECT_TRUE(program->exited_with(2)) << *program;
    // Behind what the loader may say of a shell of the other word size.
    const std::string last = "ruk-recv: cannot bind port 5000: Operation not permitted\n";
    ASSERT_GE(program->err().size(), last.size()) << *program;
    EXPECT_EQ(program->err().substr(program->err().size() - last.size()), last);
}

TEST_F(ReceiveTool, RawFilter_FrameWithoutAddresses_IsShownAsFrame)
{
    auto program = receiver({"--filter", "raw", "-t", "20"});
    put_frame(0x88b5, "experimental");
    std::string line;
    do // other frames of the host may come too
        ASSERT_TRUE(program->read_line(&line)) << *program;
    while (line.find("experimental") == std::string::npos && line.find("\\x88\\xb5") == std::string::npos);
    // 60 bytes and the 4-byte trailer, less the 2 that the library leaves out in this mode.
    EXPECT_EQ(line.rfind("- frame len 62 \"", 0), 0u) << line;
    program->signal(SIGINT);
    EXPECT_TRUE(program->finish());
}

TEST_F(ReceiveTool, RawFilter_FrameWithoutAddresses_HasNullForThemInJson)
{
    auto program = receiver({"--filter", "raw", "-t", "20", "--json"});
    put_frame(0x88b5, "experimental");
    std::string line;
    do // other frames of the host may come too
        ASSERT_TRUE(program->read_line(&line)) << *program;
    while (line.find("6578706572696d656e74616c") == std::string::npos);
    expect_schema("ruk-recv", line);
    EXPECT_TRUE(parse(line)["from"].is_null()) << line;
    EXPECT_TRUE(parse(line)["to"].is_null()) << line;
    program->signal(SIGINT);
    EXPECT_TRUE(program->finish());
}

TEST_F(ReceiveTool, RawFilter_LargestFrame_IsShownWhole)
{
    auto program = receiver({"--filter", "raw", "-t", "20", "--json"});
    KernelSocket peer(lab, lab.peer, 40000);
    peer.send("largest of all" + std::string(1472 - 14, '.'), "10.77.0.1", 5000);
    std::string line;
    do // other frames of the host may come too
        ASSERT_TRUE(program->read_line(&line)) << *program;
    while (line.find("6c617267657374206f6620616c6c") == std::string::npos);
    EXPECT_EQ(parse(line)["len"], 1516); // 14 + 1500 and the 4-byte trailer, less 2
    EXPECT_EQ(parse(line).count("malformed"), 0u) << line;
    program->signal(SIGINT);
    EXPECT_TRUE(program->finish());
}

// Over a bridge, which hands frames to other stations up only while somebody asks it to.
TEST_F(ReceiveTool, RawFilter_FrameToAnotherStation_IsShown_AndTheInterfaceIsAsBeforeWhenTheProgramIsKilled)
{
    lab.run(lab.adapter, "ip link add br7 address 02:6f:78:00:00:07 type bridge && ip link set oxel0 master br7"
                         " && ip addr add 10.77.7.1/24 dev br7 && ip link set br7 up");
    const auto promiscuity = [&] {
        return json::parse(lab.run(lab.adapter, "ip -d -j link show dev br7")).at(0).at("promiscuity").get<int>();
    };
    const auto start = [&](const std::string &filter) {
        auto program = lab.start(lab.adapter, {bin("rukrun"), "--soft=br7", bin("ruk-recv"), "-i", "br7", "-p", "5000",
                                               "--filter", filter, "-t", "20"});
        EXPECT_TRUE(program->wait_for_err("listening")) << *program;
        return program;
    };
    for (const char *filter : {"normal", "allmulti"}) {
        auto program = start(filter);
        EXPECT_EQ(promiscuity(), 0) << filter;
        EXPECT_EQ(json::parse(lab.run(lab.adapter, "ip -d -j link show dev br7")).at(0).at("allmulti"), 1) << filter;
        program->signal(SIGINT);
        EXPECT_TRUE(program->finish());
    }
    auto program = start("raw");
    EXPECT_EQ(promiscuity(), 1);
    std::string frame("\x02\x00\x00\x00\x77\x77\x02\x00\x00\x00\x00\x02\x88\xb5to another station", 32);
    frame.resize(60);
    const int wire = lab.packet_socket(lab.peer);
    EXPECT_EQ(write(wire, frame.data(), frame.size()), 60);
    close(wire);
    EXPECT_TRUE(program->wait_for_out("another station")) << *program;
    program->signal(SIGKILL);
    EXPECT_TRUE(program->finish());
    EXPECT_EQ(promiscuity(), 0);
}

TEST_F(ReceiveTool, PortInUse_IsNamed)
{
    KernelSocket occupant(lab, lab.adapter, 5000);
    auto program = soft({"ruk-recv", "-i", "oxel0", "-p", "5000", "-t", "1"});
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(2)) << *program;
    EXPECT_EQ(program->err(), "ruk-recv: port 5000 of 10.77.0.1 is in use by another program\n");
}

TEST_F(ReceiveTool, InterfaceThatIsNoAdapter_IsNamed)
{
    auto program = soft({"ruk-recv", "-i", "lo", "-p", "5000", "-t", "1"});
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(2)) << *program;
    EXPECT_NE(program->err().find("interface lo (127.0.0.1) is not on an adapter"), std::string::npos) << *program;
}

TEST_F(ReceiveTool, Info_ShowsBoardAndInterface)
{
    auto program = soft({"ruk-info", "--json"});
    ASSERT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
    expect_schema("ruk-info", program->out());
    const json info = parse(program->out());
    EXPECT_EQ(info["driver"]["interface"], "4.0");
    ASSERT_EQ(info["boards"].size(), 1u);
    const json &board = info["boards"][0];
    EXPECT_EQ(board["board"], 0);
    EXPECT_EQ(board["mac"], "02:6f:78:00:00:01");
    EXPECT_EQ(board["link"], "up");
    EXPECT_GE(board["endpoints"], 8);
    const json expected = {{{"name", "oxel0"},
                            {"address", "10.77.0.1"},
                            {"netmask", "255.255.255.0"},
                            {"broadcast", nullptr},
                            {"multicast", true},
                            {"vlan", nullptr}}};
    json interfaces = board["interfaces"];
    interfaces[0]["broadcast"] = nullptr; // as the host set it up
    EXPECT_EQ(interfaces, expected);

    auto text = soft({"ruk-info"});
    ASSERT_TRUE(text->finish());
    EXPECT_NE(text->out().find("MAC 02:6f:78:00:00:01"), std::string::npos) << *text;
    EXPECT_NE(text->out().find("  oxel0: address 10.77.0.1, netmask 255.255.255.0"), std::string::npos) << *text;
}

TEST_F(ReceiveTool, Info_VlanInterface_IsShownWithItsTag)
{
    // The library takes the tag from the name, so any interface of the adapter's address will do.
    lab.run(lab.adapter, "ip link add oxel0.5 address 02:6f:78:00:00:01 type veth peer name other5"
                         " && ip addr add 10.77.5.1/24 dev oxel0.5 && ip link set oxel0.5 up && ip link set other5 up");
    auto program = soft({"ruk-info", "--json"});
    ASSERT_TRUE(program->finish());
    expect_schema("ruk-info", program->out());
    std::map<std::string, json> tags;
    const json info = parse(program->out());
    for (const json &interface : info.at("boards").at(0).at("interfaces"))
        tags[interface.at("name")] = interface.at("vlan");
    const std::map<std::string, json> expected = {{"oxel0", nullptr}, {"oxel0.5", 5}};
    EXPECT_EQ(tags, expected) << *program;

    auto text = soft({"ruk-info"});
    ASSERT_TRUE(text->finish());
    EXPECT_TRUE(std::regex_search(text->out(), std::regex("\n  oxel0\\.5: address 10\\.77\\.5\\.1, [^\n]*, VLAN 5\n")))
        << *text;
    EXPECT_FALSE(std::regex_search(text->out(), std::regex("\n  oxel0: [^\n]*VLAN"))) << *text;
}

TEST_F(ReceiveTool, Info_CableUnpluggedAndBack_LinkIsShownDownAndUp)
{
    // The kernel tells of a lost carrier when it gets round to it.
    const auto wait_for_state = [this](const std::string &state) {
        const auto now = [this] {
            return json::parse(lab.run(lab.adapter, "ip -j link show dev oxel0")).at(0).at("operstate");
        };
        for (int i = 0; i < 400 && now() != state; i++)
            usleep(25000);
        ASSERT_EQ(now(), state);
    };
    const auto expect_link = [this](const std::string &state) {
        auto program = soft({"ruk-info", "--json"});
        ASSERT_TRUE(program->finish());
        expect_schema("ruk-info", program->out());
        EXPECT_EQ(parse(program->out()).at("boards").at(0).at("link"), state) << *program;
        auto text = soft({"ruk-info"});
        ASSERT_TRUE(text->finish());
        EXPECT_NE(text->out().find(", link " + state + "\n"), std::string::npos) << *text;
    };
    lab.run(lab.peer, "ip link set peer0 down");
    wait_for_state("DOWN");
    expect_link("down");
    lab.run(lab.peer, "ip link set peer0 up");
    wait_for_state("UP");
    expect_link("up");
}
