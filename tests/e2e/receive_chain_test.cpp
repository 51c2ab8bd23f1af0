// Datagrams of a kernel socket through wire, packet port, adapter and library to a program: none is lost without
// being counted, and a receiver that waits costs nothing.
#include "lab.h"
#include "wire.h"

#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <netinet/in.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

using nlohmann::json;
using test_support::Lab;
using test_support::LabTest;
using test_support::Program;

namespace {

constexpr size_t kSizes = 1473; // 0 to the largest that fits a frame

// The n-th datagram of a run: all sizes in turn, contents that occur nowhere else.
std::string numbered_payload(uint32_t n)
{
    std::string payload(n % kSizes, 0);
    uint32_t state = n * 2654435761u + 12345;
    for (char &c : payload) {
        state = state * 1664525u + 1013904223u;
        c = static_cast<char>(state >> 24);
    }
    if (payload.size() >= 4)
        memcpy(payload.data(), &n, 4);
    return payload;
}

std::string hex(const std::string &bytes)
{
    std::string text;
    text.reserve(2 * bytes.size());
    for (const char c : bytes) {
        text += "0123456789abcdef"[static_cast<uint8_t>(c) >> 4];
        text += "0123456789abcdef"[static_cast<uint8_t>(c) & 15];
    }
    return text;
}

// Without a parser: there are many, and the payload is long.
bool line_has_payload(const std::string &line, const std::string &payload)
{
    const std::string tail = "\"payload\":\"" + hex(payload) + "\",\"timestamp_source\":\"none\"}";
    return line.find("\"len\":" + std::to_string(payload.size()) + ",") != std::string::npos &&
           line.size() > tail.size() && line.compare(line.size() - tail.size(), tail.size(), tail) == 0;
}

class ReceiveChainTest : public LabTest {
protected:
    void SetUp() override
    {
        LabTest::SetUp();
        if (IsSkipped())
            return;
        sender = lab.udp_socket(lab.peer, 40000);
        ASSERT_GE(sender, 0);
        std::string name = std::filesystem::temp_directory_path() / "ruk-chain-XXXXXX";
        ASSERT_NE(mkdtemp(name.data()), nullptr);
        scratch = name;
    }
    void TearDown() override
    {
        if (sender >= 0)
            close(sender);
        if (!scratch.empty())
            std::filesystem::remove_all(scratch);
    }

    std::unique_ptr<Program> receiver(const std::vector<std::string> &more, std::vector<std::string> environment = {},
                                      const std::string &mode = "fast")
    {
        std::vector<std::string> command = {RUK_BINARY_DIR "/bin/rukrun",   "--soft=oxel0", "--mode=" + mode, "--",
                                            RUK_BINARY_DIR "/bin/ruk-recv", "-a",           "10.77.0.1"};
        command.insert(command.end(), more.begin(), more.end());
        environment.push_back("RUK_SOFTNIC_STATS=" + ledger_file());
        auto program = lab.start(lab.adapter, command, environment);
        EXPECT_TRUE(program->wait_for_err("listening on")) << *program;
        return program;
    }
    std::string ledger_file() const { return scratch / "ledger.json"; }

    bool send_to_adapter(const std::string &payload, uint16_t port = 5000)
    {
        sockaddr_in to = {};
        to.sin_family = AF_INET;
        to.sin_port = htons(port);
        inet_pton(AF_INET, lab.adapter.address, &to.sin_addr);
        return sendto(sender, payload.data(), payload.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof(to)) ==
               static_cast<ssize_t>(payload.size());
    }

    // Sends as many as the receiver has shown it can take: at most window are on their way. The first one that
    // comes out differently, or too late, ends it.
    void stream(Program &program, uint32_t count, uint32_t window)
    {
        uint32_t sent = 0;
        std::string line;
        for (uint32_t got = 0; got < count; got++) {
            for (; sent < count && sent < got + window; sent++)
                ASSERT_TRUE(send_to_adapter(numbered_payload(sent))) << strerror(errno);
            ASSERT_TRUE(program.read_line(&line)) << "datagram " << got << " did not arrive\n" << program.err();
            ASSERT_TRUE(line_has_payload(line, numbered_payload(got))) << "instead of datagram " << got << ": " << line;
        }
    }

    // Sleeps of all threads of the program in that time.
    static uint64_t sleeps_within(const Program &program, int ms)
    {
        const uint64_t before = program.sleeps();
        usleep(static_cast<useconds_t>(ms) * 1000);
        return program.sleeps() - before;
    }

    // Counters of an interface by name, summed over what names them.
    std::map<std::string, uint64_t> interface_counters(const test_support::LabHost &host)
    {
        std::map<std::string, uint64_t> counters;
        const json link = json::parse(lab.run(host, std::string("ip -s -j link show dev ") + host.ifname)).at(0);
        for (const char *direction : {"rx", "tx"})
            for (const auto &[name, value] : link.at("stats64").at(direction).items())
                counters[std::string(direction) + "_" + name] = value.get<uint64_t>();
        return counters;
    }

    json last_line_of(const Program &program)
    {
        const std::string &out = program.out();
        const size_t start = out.rfind('\n', out.size() - 2);
        return json::parse(out.substr(start == std::string::npos ? 0 : start + 1));
    }

    int sender = -1;
    std::filesystem::path scratch;
};

// Microseconds of processor time that a program has used.
uint64_t cpu_us(const Program &program)
{
    std::ifstream file("/proc/" + std::to_string(program.pid()) + "/stat");
    std::string stat{std::istreambuf_iterator<char>(file), {}};
    std::istringstream fields(stat.substr(stat.rfind(')') + 2));
    std::string skipped;
    for (int i = 0; i < 11; i++)
        fields >> skipped;
    uint64_t user = 0, system = 0;
    fields >> user >> system;
    return (user + system) * 1000000 / static_cast<uint64_t>(sysconf(_SC_CLK_TCK));
}

} // namespace

TEST_F(ReceiveChainTest, EverySize_FromKernelSocket_ArrivesWhole)
{
    auto program = receiver({"-p", "5000", "-n", std::to_string(kSizes), "--json"});
    stream(*program, kSizes, 32);
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
}

TEST_F(ReceiveChainTest, HundredThousandOfAllSizes_PacedByReceiver_NoneLostNoneChangedInOrder)
{
    const uint32_t count = getenv("RUK_TEST_LONG") ? 1000000 : 100000;
    auto program = receiver({"-p", "5000", "-n", std::to_string(count), "--json"});
    stream(*program, count, 256);
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << program->err();
    const json ledger = json::parse(std::ifstream(ledger_file())).at("boards").at(0);
    EXPECT_EQ(ledger.at("port").at("rx_dropped"), 0);
    EXPECT_EQ(ledger.at("endpoints").at(0).at("delivered"), count);
}

TEST_F(ReceiveChainTest, EveryModeOfTheAdapter_Receives)
{
    for (const char *mode : {"fast", "exact", "fallback"}) {
        auto program = receiver({"-p", "5000", "-n", "2000", "--json"}, {}, mode);
        stream(*program, 2000, 64);
        EXPECT_TRUE(program->finish()) << mode;
        EXPECT_TRUE(program->exited_with(0)) << mode << *program;
    }
}

TEST_F(ReceiveChainTest, DatagramsOfSocat_Arrive)
{
    auto program = receiver({"-p", "5000", "-n", "2", "-t", "20", "--json"});
    lab.run(lab.peer,
            "command -v socat >/dev/null || exit 9; printf first | socat - UDP:10.77.0.1:5000,sourceport=41000"
            " && printf second | socat - UDP:10.77.0.1:5000,sourceport=41001");
    std::string line;
    ASSERT_TRUE(program->read_line(&line)) << *program;
    EXPECT_EQ(json::parse(line)["from"], "10.77.0.2:41000");
    EXPECT_EQ(json::parse(line)["payload"], hex("first"));
    ASSERT_TRUE(program->read_line(&line)) << *program;
    EXPECT_EQ(json::parse(line)["from"], "10.77.0.2:41001");
    EXPECT_EQ(json::parse(line)["payload"], hex("second"));
}

TEST_F(ReceiveChainTest, MoreThanTheReceiverTakes_EachDatagramIsDeliveredOrCountedWhereItWasDropped)
{
    const auto before_adapter = interface_counters(lab.adapter), before_peer = interface_counters(lab.peer);
    auto program = receiver({"-p", "5000", "--json", "--stats"});
    uint64_t sent = 0;
    const auto send_many = [&](uint32_t n) {
        for (uint32_t i = 0; i < n; i++, sent++)
            ASSERT_TRUE(send_to_adapter(numbered_payload(1400))) << strerror(errno);
    };
    // Nobody reads the program's output: it stands, while its firmware fills the event ring ...
    send_many(8000);
    // ... and then its firmware as well, so that the packet ring fills.
    program->signal(SIGSTOP);
    send_many(8000);
    program->signal(SIGCONT);
    // Now the output is read until nothing more comes, so that nothing is left in any ring.
    uint64_t lines = 0;
    for (std::string line; program->read_line(&line, 1000);)
        lines++;
    program->signal(SIGINT);
    ASSERT_TRUE(program->finish()) << program->err();
    ASSERT_TRUE(program->exited_with(0)) << program->err();

    auto adapter = interface_counters(lab.adapter), peer = interface_counters(lab.peer);
    for (const auto &[name, value] : before_adapter)
        adapter[name] -= value;
    for (const auto &[name, value] : before_peer)
        peer[name] -= value;
    const json board = json::parse(std::ifstream(ledger_file())).at("boards").at(0);
    const json port = board.at("port"), endpoint = board.at("endpoints").at(0);
    const json library = last_line_of(*program).at("stats");
    const auto n = [](const json &object, const char *name) { return object.at(name).get<uint64_t>(); };

    // From the sender's socket to the interface.
    EXPECT_EQ(peer["tx_packets"] + peer["tx_dropped"], sent);
    EXPECT_EQ(adapter["rx_packets"], peer["tx_packets"]);
    // From the interface through the packet ring to the adapter.
    EXPECT_EQ(n(port, "received") + n(port, "rx_dropped") + n(port, "rx_malformed"), adapter["rx_packets"]);
    EXPECT_GT(n(port, "rx_dropped"), 0u);
    // Through the filters, and into the event ring.
    EXPECT_EQ(n(board, "arrived"), n(port, "received"));
    EXPECT_EQ(n(board, "matched"), n(board, "arrived"));
    EXPECT_EQ(n(endpoint, "steered"), n(board, "matched"));
    EXPECT_EQ(n(endpoint, "delivered") + n(endpoint, "ring_full") + n(endpoint, "disabled") + n(endpoint, "oversize"),
              n(endpoint, "steered"));
    EXPECT_GT(n(endpoint, "ring_full"), 0u);
    // Out of it to the program.
    EXPECT_EQ(n(library, "delivered"), lines);
    uint64_t dropped = 0;
    for (const auto &[name, value] : library.items())
        if (name.rfind("dropped_", 0) == 0)
            dropped += value.get<uint64_t>();
    EXPECT_EQ(n(endpoint, "delivered"), lines + dropped);
    // From end to end: nothing unexplained.
    EXPECT_EQ(sent, lines + dropped + n(endpoint, "ring_full") + n(endpoint, "disabled") + n(endpoint, "oversize") +
                        n(board, "malformed") + n(board, "unmatched") + n(port, "rx_dropped") +
                        n(port, "rx_malformed") + adapter["rx_dropped"] + peer["tx_dropped"]);
    if (HasFailure())
        printf("sent %lu\n%s\n%s\n", static_cast<unsigned long>(sent), board.dump(1).c_str(), library.dump(1).c_str());
}

TEST_F(ReceiveChainTest, OverloadThenQuiet_AllThatEnteredTheRingIsDelivered)
{
    const uint32_t count = 8000;
    auto program = receiver({"-p", "5000", "--json", "--stats"});
    for (uint32_t i = 0; i < count; i++)
        ASSERT_TRUE(send_to_adapter(numbered_payload(1400)));
    usleep(100000);
    // Now the output is read until nothing more comes.
    uint64_t lines = 0;
    for (std::string line; program->read_line(&line, 1000);)
        lines++;
    program->signal(SIGINT);
    ASSERT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << program->err();
    const json board = json::parse(std::ifstream(ledger_file())).at("boards").at(0);
    const json endpoint = board.at("endpoints").at(0);
    EXPECT_EQ(endpoint.at("delivered"), lines);
    EXPECT_GT(endpoint.at("ring_full"), 0);
    EXPECT_EQ(endpoint.at("delivered").get<uint64_t>() + endpoint.at("ring_full").get<uint64_t>() +
                  board.at("port").at("rx_dropped").get<uint64_t>(),
              count);
}

TEST_F(ReceiveChainTest, BlockingReceiver_NothingArrives_HardlyWakesAndUsesNoProcessor)
{
    auto program = receiver({"-p", "5000", "--wait", "block", "--json"});
    usleep(1000000);
    const uint64_t cpu = cpu_us(*program);
    EXPECT_LT(sleeps_within(*program, 2000), 20u);
    EXPECT_LE(cpu_us(*program) - cpu, 20000u);
}

TEST_F(ReceiveChainTest, BlockingReceiver_AfterADrainedBurst_SleepsAgainAndWakesAtOnce)
{
    auto program = receiver({"-p", "5000", "--wait", "block", "--json"});
    stream(*program, 2000, 64);
    EXPECT_LT(sleeps_within(*program, 1000), 10u); // from the last datagram on
    // Awake again within a moment: the best of several, as others use the processors too.
    int64_t best_us = 1000000;
    for (uint32_t i = 0; i < 10; i++) {
        usleep(20000);
        const auto start = std::chrono::steady_clock::now();
        ASSERT_TRUE(send_to_adapter("x"));
        std::string line;
        ASSERT_TRUE(program->read_line(&line));
        best_us = std::min<int64_t>(
            best_us,
            std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start).count());
    }
    EXPECT_LT(best_us, 5000);
    program->signal(SIGINT);
    EXPECT_TRUE(program->finish(5000));
    EXPECT_TRUE(program->exited_with(0)) << *program;
}

// Program and firmware share what there is: neither may wait for the other by spinning.
TEST_F(ReceiveChainTest, ProgramAndAdapterOnOneProcessor_BlockingAndPolling_ReceiveAllAndSleepAfterwards)
{
    for (const char *wait : {"block", "nonblock"}) {
        auto program = lab.start(lab.adapter, {"taskset", "-c", "0", RUK_BINARY_DIR "/bin/rukrun", "--soft=oxel0",
                                               RUK_BINARY_DIR "/bin/ruk-recv", "-a", "10.77.0.1", "-p", "5000",
                                               "--wait", wait, "--json"});
        ASSERT_TRUE(program->wait_for_err("listening on")) << *program;
        ASSERT_NO_FATAL_FAILURE(stream(*program, 2000, 16)) << wait;
        EXPECT_LT(sleeps_within(*program, 1000), 10u) << wait;
        program->signal(SIGINT);
        EXPECT_TRUE(program->finish(5000));
        EXPECT_TRUE(program->exited_with(0)) << *program;
    }
}

TEST_F(ReceiveChainTest, ProcessorOfTheFirmwareChosen_ItsThreadAloneIsHeldThere)
{
    auto program = receiver({"-p", "5000", "--json"}, {"RUK_SOFTNIC_CPU=0"});
    stream(*program, 100, 10);
    unsigned held = 0, others = 0;
    for (const auto &task : std::filesystem::directory_iterator("/proc/" + std::to_string(program->pid()) + "/task")) {
        std::ifstream status(task.path() / "status");
        for (std::string line; std::getline(status, line);)
            if (line.rfind("Cpus_allowed_list:", 0) == 0)
                (line == "Cpus_allowed_list:\t0" ? held : others)++;
    }
    if (others == 0)
        GTEST_SKIP() << "there is one processor only";
    EXPECT_EQ(held, 1u);
}

// A watchpoint in it would cost the firmware, which never posts, a microsecond at every change of threads.
TEST_F(ReceiveChainTest, Receiving_AdapterWatchesTheProgramsThreadAndNotItsOwn)
{
    auto program = receiver({"-p", "5000", "--json"});
    stream(*program, 100, 10);
    unsigned watchpoints = 0;
    for (const auto &fd : std::filesystem::directory_iterator("/proc/" + std::to_string(program->pid()) + "/fd")) {
        std::error_code gone;
        watchpoints += std::filesystem::read_symlink(fd, gone) == "anon_inode:[perf_event]";
    }
    if (watchpoints == 0)
        GTEST_SKIP() << "the host has no watchpoints";
    EXPECT_EQ(watchpoints, 1u);
}

TEST_F(ReceiveChainTest, PollingReceiver_BetweenDatagrams_WakesLessThanTenTimesASecond)
{
    auto program = receiver({"-p", "5000", "--wait", "nonblock", "--json"});
    stream(*program, 100, 10);
    usleep(1000000);
    EXPECT_LT(sleeps_within(*program, 2000), 20u);
}

TEST_F(ReceiveChainTest, Receiving_HostsOwnStack_SeesNothingOfIt)
{
    auto program = receiver({"-p", "5000", "-n", "200", "--json"});
    const std::string before = lab.run(lab.adapter, "grep '^Udp:\\|^Icmp:' /proc/net/snmp");
    stream(*program, 200, 16);
    EXPECT_EQ(lab.run(lab.adapter, "grep '^Udp:\\|^Icmp:' /proc/net/snmp"), before);
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
}

TEST_F(ReceiveChainTest, ReceiverKilled_HostReceivesAgain)
{
    auto program = receiver({"-p", "5000", "--json"});
    stream(*program, 10, 5);
    program->signal(SIGKILL);
    EXPECT_TRUE(program->finish());
    EXPECT_EQ(lab.run(lab.adapter, "nft list tables"), "");
    const int fd = lab.udp_socket(lab.adapter, 5000);
    ASSERT_TRUE(send_to_adapter("back"));
    pollfd readable = {fd, POLLIN, 0};
    EXPECT_EQ(poll(&readable, 1, 5000), 1);
    close(fd);
}

TEST_F(ReceiveChainTest, TwoProgramsOnOneInterface_EachGetsItsOwnDatagrams)
{
    auto first = receiver({"-p", "5000", "-n", "1", "--json"});
    auto second = receiver({"-p", "5001", "-n", "1", "--json"});
    ASSERT_TRUE(send_to_adapter("to the first", 5000));
    ASSERT_TRUE(send_to_adapter("to the second", 5001));
    std::string line;
    ASSERT_TRUE(first->read_line(&line)) << *first;
    EXPECT_TRUE(line_has_payload(line, "to the first")) << line;
    ASSERT_TRUE(second->read_line(&line)) << *second;
    EXPECT_TRUE(line_has_payload(line, "to the second")) << line;
}

TEST_F(ReceiveChainTest, VlanInterface_ReceiverOnIt_GetsTaggedDatagramsOnly)
{
    // The library takes the tag from the name, so any interface of the adapter's address will do.
    lab.run(lab.adapter, "ip link add oxel0.5 address 02:6f:78:00:00:01 type veth peer name other5"
                         " && ip addr add 10.77.5.1/24 dev oxel0.5 && ip link set oxel0.5 up && ip link set other5 up");
    auto program = lab.start(lab.adapter, {RUK_BINARY_DIR "/bin/rukrun", "--soft=oxel0", RUK_BINARY_DIR "/bin/ruk-recv",
                                           "-a", "10.77.5.1", "-p", "5000", "-n", "1", "-t", "20", "--json"});
    ASSERT_TRUE(program->wait_for_err("listening on")) << *program;
    UdpFrame frame;
    frame.destination = 0x0A4D0501;
    frame.payload = "untagged";
    const int wire = lab.packet_socket(lab.peer);
    ASSERT_GT(send(wire, frame.bytes().data(), frame.bytes().size(), 0), 0);
    frame.tags = {0x81000006};
    frame.payload = "other tag";
    ASSERT_GT(send(wire, frame.bytes().data(), frame.bytes().size(), 0), 0);
    frame.tags = {0x81006005};
    frame.payload = "its tag";
    ASSERT_GT(send(wire, frame.bytes().data(), frame.bytes().size(), 0), 0);
    close(wire);
    std::string line;
    ASSERT_TRUE(program->read_line(&line)) << *program;
    EXPECT_TRUE(line_has_payload(line, "its tag")) << line;
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(0)) << *program;
}
