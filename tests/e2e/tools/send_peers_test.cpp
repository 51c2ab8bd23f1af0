// What libruk sends, as ordinary programs and the kernel of the other host see it.
#include "tool_lab.h"

#include <algorithm>
#include <csignal>
#include <map>
#include <regex>
#include <sstream>

using namespace tool_test;
using nlohmann::json;

namespace {

constexpr size_t kSizes = 1473;

// The n-th payload: n printable bytes that occur nowhere else.
std::string line_of(size_t n)
{
    std::string line(n, ' ');
    uint32_t state = static_cast<uint32_t>(n) * 2654435761u + 99;
    for (char &c : line) {
        state = state * 1664525u + 1013904223u;
        c = static_cast<char>('!' + (state >> 24) % 94);
    }
    return line;
}

size_t occurrences(const std::string &text, const std::string &what)
{
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1))
        n++;
    return n;
}

class SendPeers : public ToolTest {
protected:
    // Each line of the text is a datagram.
    std::unique_ptr<test_support::Program> send_lines(const std::string &text, const std::string &to,
                                                      const std::string &options = "",
                                                      const std::string &interface = "oxel0")
    {
        const std::string input = scratch.file("input");
        std::ofstream(input, std::ios::binary) << text;
        return lab.start(lab.adapter, {"sh", "-c",
                                       "exec " + bin("rukrun") + " --soft=" + interface + " -- " + bin("ruk-send") +
                                           " -i " + interface + " -p 5000 " + to + " " + options + " <" + input});
    }

    static void expect_sent(test_support::Program &program)
    {
        EXPECT_TRUE(program.finish()) << program;
        EXPECT_TRUE(program.exited_with(0)) << program;
    }

    // UDP counters of a host, by name.
    std::map<std::string, uint64_t> udp_counters(const test_support::LabHost &host)
    {
        std::istringstream lines(lab.run(host, "grep ^Udp: /proc/net/snmp"));
        std::string names, values, name;
        std::getline(lines, names);
        std::getline(lines, values);
        std::istringstream n(names), v(values);
        std::map<std::string, uint64_t> counters;
        n >> name;
        v >> name;
        uint64_t value;
        while (n >> name && v >> value)
            counters[name] = value;
        return counters;
    }

    std::unique_ptr<test_support::Program> dump(const test_support::LabHost &host, const std::string &interface,
                                                const std::string &count)
    {
        auto tcpdump = lab.start(
            host, {"tcpdump", "-i", interface, "-n", "-e", "-vv", "-B", "16384", "-c", count, "udp or (vlan and udp)"});
        EXPECT_TRUE(tcpdump->wait_for_err("listening")) << *tcpdump;
        return tcpdump;
    }

    // Destination MAC addresses of the datagrams that reach the other host's interface.
    std::string next_hop_of(const std::string &destination)
    {
        auto tcpdump = lab.start(
            lab.peer, {"tcpdump", "-i", "peer0", "-n", "-e", "-l", "-c", "1", "udp and dst host " + destination});
        EXPECT_TRUE(tcpdump->wait_for_err("listening")) << *tcpdump;
        auto program = send_lines("x\n", destination + ":6000");
        expect_sent(*program);
        EXPECT_TRUE(tcpdump->finish()) << *tcpdump;
        std::smatch mac;
        const std::string line = tcpdump->out();
        return std::regex_search(line, mac, std::regex("> ([0-9a-f:]{17}), ethertype IPv4")) ? mac[1].str() : line;
    }

    ScratchDir scratch;
};

} // namespace

TEST_F(SendPeers, EveryPayloadSize_AtAKernelSocket_UnchangedAndNoChecksumError)
{
    KernelSocket peer(lab, lab.peer, 6000);
    // A test that is kept waiting loses nothing: the whole stream has room, where this user may ask for so much.
    const int room = 16 << 20;
    setsockopt(peer.fd(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
    const auto before = udp_counters(lab.peer);
    std::string text;
    for (size_t n = 0; n < kSizes; n++)
        text += line_of(n) + "\n";
    auto program = send_lines(text, "10.77.0.2:6000", "-r 4000");
    for (size_t n = 0; n < kSizes; n++)
        ASSERT_EQ(peer.receive(), "10.77.0.1:5000 " + line_of(n)) << n << *program;
    expect_sent(*program);
    auto after = udp_counters(lab.peer);
    EXPECT_EQ(after["InCsumErrors"], before.at("InCsumErrors"));
    EXPECT_EQ(after["InErrors"], before.at("InErrors"));
    EXPECT_EQ(after["InDatagrams"] - before.at("InDatagrams"), kSizes);
}

TEST_F(SendPeers, Socat_ReceivesWhatWasSent)
{
    const std::string file = scratch.file("received");
    auto socat = lab.start(
        lab.peer, {"socat", "-d", "-d", "-u", "UDP4-RECV:6001,bind=10.77.0.2", "OPEN:" + file + ",creat,append"});
    ASSERT_TRUE(socat->wait_for_err("starting data transfer loop")) << *socat;
    std::string text, expected;
    for (const size_t n : {1, 2, 3, 64, 500, 1471, 1472}) {
        text += line_of(n) + "\n";
        expected += line_of(n);
    }
    auto program = send_lines(text, "10.77.0.2:6001", "-r 200");
    expect_sent(*program);
    for (int i = 0; i < 200 && contents(file).size() < expected.size(); i++)
        usleep(10000);
    EXPECT_EQ(contents(file), expected);
    socat->signal(SIGTERM);
    socat->finish();
}

TEST_F(SendPeers, Tcpdump_FindsBothChecksumsGood)
{
    KernelSocket peer(lab, lab.peer, 6000);
    std::string text;
    for (size_t n = 0; n < kSizes; n += 8)
        text += line_of(n) + "\n";
    const size_t frames = occurrences(text, "\n");
    auto tcpdump = dump(lab.peer, "peer0", std::to_string(frames));
    auto program = send_lines(text, "10.77.0.2:6000", "-r 2000");
    expect_sent(*program);
    ASSERT_TRUE(tcpdump->finish()) << *tcpdump;
    EXPECT_EQ(occurrences(tcpdump->out(), "[udp sum ok]"), frames);
    EXPECT_EQ(occurrences(tcpdump->out(), "bad cksum"), 0u);
    EXPECT_EQ(occurrences(tcpdump->out(), "bad udp cksum"), 0u);
    EXPECT_EQ(occurrences(tcpdump->out(), "id 0, offset 0, flags [DF], proto UDP (17)"), frames);
}

TEST_F(SendPeers, VlanInterface_FramesAreTaggedWithoutUdpChecksum)
{
    lab.run(lab.adapter, "ip link add vlan7 address 02:6f:78:00:00:07 type veth peer name trunk;"
                         "ip addr add 10.88.0.1/24 dev vlan7; ip link set vlan7 up; ip link set trunk up;"
                         "ip neigh add 10.88.0.2 lladdr 02:00:00:00:00:09 dev vlan7 nud permanent");
    auto tcpdump = dump(lab.adapter, "trunk", "3");
    auto program = send_lines("a\nbb\nccc\n", "10.88.0.2:6000", "-r 100", "vlan7");
    expect_sent(*program);
    ASSERT_TRUE(tcpdump->finish()) << *tcpdump;
    EXPECT_EQ(occurrences(tcpdump->out(), "ethertype 802.1Q (0x8100)"), 3u) << *tcpdump;
    EXPECT_EQ(occurrences(tcpdump->out(), "vlan 7, p 7"), 3u) << *tcpdump;
    EXPECT_EQ(occurrences(tcpdump->out(), "[no cksum]"), 3u) << *tcpdump;
    EXPECT_EQ(occurrences(tcpdump->out(), "bad cksum"), 0u) << *tcpdump;
    EXPECT_EQ(occurrences(tcpdump->out(), "02:6f:78:00:00:07 > 02:00:00:00:00:09"), 3u) << *tcpdump;
}

TEST_F(SendPeers, UnknownNeighbour_FirstDatagram_ResolvedThroughTheKernelsArp)
{
    lab.run(lab.adapter, "ip neigh del 10.77.0.2 dev oxel0");
    KernelSocket peer(lab, lab.peer, 6000);
    auto program = send_lines("first\nsecond\n", "10.77.0.2:6000");
    EXPECT_EQ(peer.receive(), "10.77.0.1:5000 first") << *program;
    EXPECT_EQ(peer.receive(), "10.77.0.1:5000 second");
    expect_sent(*program);
    EXPECT_NE(lab.run(lab.adapter, "ip neigh show 10.77.0.2").find("lladdr 02:00:00:00:00:02"), std::string::npos);
}

TEST_F(SendPeers, DestinationsOffTheLink_GoToTheBestRoutesGateway_DefaultLast)
{
    lab.run(lab.adapter, "ip neigh add 10.77.0.9 lladdr 02:00:00:00:00:09 dev oxel0 nud permanent;"
                         "ip neigh add 10.77.0.8 lladdr 02:00:00:00:00:08 dev oxel0 nud permanent;"
                         "ip route add default via 10.77.0.2 dev oxel0;"
                         "ip route add 10.99.0.0/16 via 10.77.0.9 dev oxel0;"
                         "ip route add 10.99.5.0/24 via 10.77.0.8 dev oxel0");
    EXPECT_EQ(next_hop_of("10.99.1.1"), "02:00:00:00:00:09");
    EXPECT_EQ(next_hop_of("10.99.5.1"), "02:00:00:00:00:08");
    EXPECT_EQ(next_hop_of("192.0.2.1"), "02:00:00:00:00:02");
    EXPECT_EQ(next_hop_of("10.77.0.9"), "02:00:00:00:00:09");
}

TEST_F(SendPeers, NonblockingBeyondTheRing_RefusesAndLosesNothingItAccepted)
{
    KernelSocket peer(lab, lab.peer, 6000);
    const int room = 16 << 20;
    setsockopt(peer.fd(), SOL_SOCKET, SO_RCVBUFFORCE, &room, sizeof room);
    const std::string file = scratch.file("payload");
    const std::string payload = line_of(1400);
    std::ofstream(file, std::ios::binary) << payload;
    // One request may be outstanding in this mode: sends without a pause between them find the ring full.
    auto program = soft(
        {"ruk-send", "-i", "oxel0", "-p", "5000", "10.77.0.2:6000", "-f", file, "-n", "3000", "--nonblock", "--json"});
    ASSERT_TRUE(program->finish()) << *program;
    EXPECT_TRUE(program->exited_with(1)) << *program;
    const json summary = parse(program->out());
    const uint64_t sent = summary["sent"], refused = summary["refused"].value("EAGAIN", 0);
    EXPECT_GE(refused, 1u);
    EXPECT_EQ(sent + refused, 3000u);
    for (uint64_t i = 0; i < sent; i++)
        ASSERT_EQ(peer.receive(), "10.77.0.1:5000 " + payload) << i << " of " << sent;
    EXPECT_EQ(peer.receive(50), "nothing");
}

namespace {

// 10.77.0.9, a neighbour that is not there, or not yet; without waiting for it.
class SendWithoutWaiting : public SendPeers {
protected:
    // Datagrams that the adapter's host sent by its own sockets: the library sends by a packet socket, and prompts the
    // kernel by an empty datagram each.
    uint64_t prompts() { return udp_counters(lab.adapter)["OutDatagrams"]; }

    // As many as there can be with 50 ms from the end of one try to the next, but for the first: 1, 2, 4 ... 32 ms.
    static uint64_t most_prompts(const json &summary)
    {
        return 7 + static_cast<uint64_t>(summary.at("seconds").get<double>() / 0.05);
    }
};

} // namespace

TEST_F(SendWithoutWaiting, AbsentNeighbour_AllIsRefusedAndTheKernelPromptedSeldom)
{
    const uint64_t before = prompts();
    auto program = soft({"ruk-send", "-i", "oxel0", "-p", "5000", "10.77.0.9:6000", "-m", "never", "--sendto",
                         "--nonblock", "-r", "1000", "-n", "300", "--json"});
    ASSERT_TRUE(program->finish()) << *program;
    EXPECT_TRUE(program->exited_with(1)) << *program;
    const json summary = parse(program->out());
    EXPECT_EQ(summary["sent"], 0);
    EXPECT_EQ(summary["refused"], json({{"EADDRNOTAVAIL", 300}}));
    EXPECT_GE(prompts() - before, 1u);
    EXPECT_LE(prompts() - before, most_prompts(summary)) << *program;
}

TEST_F(SendWithoutWaiting, NeighbourThatComesLater_IsFound_AndASignalEndsItWithItsSummary)
{
    test_support::LabHost anywhere = lab.peer;
    anywhere.address = "0.0.0.0";
    KernelSocket peer(lab, anywhere, 6000);
    const uint64_t before = prompts();
    auto program = soft({"ruk-send", "-i", "oxel0", "-p", "5000", "10.77.0.9:6000", "-m", "found", "--sendto",
                         "--nonblock", "-r", "1000", "-n", "1000000", "--json"});
    for (int i = 0; i < 2000 && prompts() == before; i++)
        usleep(10000);
    ASSERT_GT(prompts(), before) << *program;
    lab.run(lab.peer, "ip address add 10.77.0.9/32 dev peer0");
    EXPECT_EQ(peer.receive(), "10.77.0.1:5000 found") << *program;
    program->signal(SIGTERM);
    ASSERT_TRUE(program->finish()) << *program;
    EXPECT_TRUE(program->exited_with(1)) << *program;
    const json summary = parse(program->out());
    EXPECT_GE(summary["sent"], 1);
    EXPECT_GE(summary["refused"].value("EADDRNOTAVAIL", 0), 1);
    EXPECT_LE(prompts() - before, most_prompts(summary)) << *program;
}
