// The ledger: where every frame went, seen by ruk-recv itself and by ruk-info and ruk-top from outside.
#include "schema.h"
#include "tool_lab.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <regex>
#include <sstream>

using namespace tool_test;
using nlohmann::json;

namespace {

uint64_t n(const json &object, const char *name) { return object.at(name).get<uint64_t>(); }

// Every sum that the ledger promises.
void expect_sums(const json &board)
{
    EXPECT_EQ(n(board, "arrived"), n(board.at("port"), "received")) << board;
    EXPECT_EQ(n(board, "arrived"), n(board, "matched") + n(board, "unmatched") + n(board, "malformed")) << board;
    for (const json &e : board.at("endpoints")) {
        EXPECT_EQ(n(e, "steered"),
                  n(e, "delivered") + n(e, "pending") + n(e, "disabled") + n(e, "ring_full") + n(e, "oversize"))
            << board;
        EXPECT_EQ(n(e, "requests"), n(e, "frames_sent") + n(e, "send_errors") + n(e, "bad_type") + n(e, "bad_header") +
                                        n(e, "bad_payload"))
            << board;
    }
}

// What ruk-recv --stats --json ends with: the account of its ring adds up, and agrees with the adapter's.
void expect_account(const json &end)
{
    const json &account = end.at("account");
    uint64_t sum = 0;
    for (const auto &[name, frames] : account.at("parts").items())
        sum += frames.get<uint64_t>();
    EXPECT_EQ(n(account, "sum"), sum) << end;
    ASSERT_TRUE(account.at("in_ring").is_number()) << end;
    EXPECT_EQ(n(account, "in_ring"), sum) << end;
    ASSERT_EQ(end.at("adapters").size(), 1u) << end;
    expect_sums(end["adapters"][0]);
    EXPECT_EQ(n(account, "in_ring"), n(end["adapters"][0].at("endpoints").at(0), "delivered")) << end;
    EXPECT_EQ(account["parts"]["received"], end.at("stats").at("delivered")) << end;
    for (const auto &[name, frames] : account["parts"].items())
        if (end["stats"].contains(name))
            EXPECT_EQ(frames, end["stats"][name]) << name << end;
}

// The account in a text, by the names of its lines; empty when there is none.
std::map<std::string, uint64_t> account_of_text(const std::string &text)
{
    std::map<std::string, uint64_t> lines;
    const std::regex line("\\t([a-z_ ]*[a-z_]) += +([0-9]+)");
    std::istringstream in(text.substr(std::min(text.size(), text.find("account of the frames in the ring"))));
    std::string each;
    std::getline(in, each);
    for (std::smatch match; std::getline(in, each) && std::regex_match(each, match, line);)
        lines[match[1]] = std::stoull(match[2]);
    return lines;
}

// The sums that a text tells: "steered 5 = delivered 3 + ring_full 2". How many there were.
int expect_sums_of_text(const std::string &text)
{
    const std::regex sum(R"(\w+ (\d+) = (\w+ \d+(?: \+ \w+ \d+)*))"), part(R"(\w+ (\d+))");
    int sums = 0;
    for (std::sregex_iterator i(text.begin(), text.end(), sum), end; i != end; ++i, ++sums) {
        const std::string parts = (*i)[2];
        uint64_t total = 0;
        for (std::sregex_iterator p(parts.begin(), parts.end(), part); p != end; ++p)
            total += std::stoull((*p)[1]);
        EXPECT_EQ(std::stoull((*i)[1]), total) << text;
    }
    return sums;
}

class Ledger : public ToolTest {
protected:
    std::unique_ptr<test_support::Program> run(std::vector<std::string> command)
    {
        command[0] = bin(command[0]);
        auto program = lab.start(lab.adapter, command);
        EXPECT_TRUE(program->finish()) << *program;
        return program;
    }

    // Fills the pipe that a program prints to: it is blocked as soon as it prints, until somebody reads.
    static void stop_up(const test_support::Program &program)
    {
        const std::string output = "/proc/" + std::to_string(program.pid()) + "/fd/1";
        const int fd = open(output.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
        ASSERT_GE(fd, 0) << strerror(errno);
        EXPECT_GT(fcntl(fd, F_SETPIPE_SZ, 4096), 0) << strerror(errno);
        while (write(fd, kFiller, strlen(kFiller)) > 0) {
        }
        EXPECT_EQ(errno, EAGAIN);
        close(fd);
    }
    static constexpr char kFiller[] = "filler\n";

    // When this returns each of its threads stands.
    static void stop(pid_t pid)
    {
        kill(pid, SIGSTOP);
        for (const auto &thread : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
            const auto stands = [&] {
                const std::string status = contents(thread.path() / "stat");
                return status.substr(status.rfind(')') + 2, 1) == "T";
            };
            for (int attempt = 0; attempt < 5000 && !stands(); attempt++)
                usleep(1000);
            EXPECT_TRUE(stands()) << thread;
        }
    }

    // A receiver whose output is stopped up: its ring fills, and what is left is lost. When this returns all that was
    // sent has arrived, whatever became of it; the board then.
    std::unique_ptr<test_support::Program> overflowing_receiver(KernelSocket &peer, json *board,
                                                                std::vector<std::string> environment = {})
    {
        environment.push_back("RUK_SOFTNIC_RECVQ=16384");
        auto program = lab.start(
            lab.adapter, {bin("rukrun"), "--soft=oxel0", "--", bin("ruk-recv"), "-i", "oxel0", "-p", "5000", "--stats"},
            environment);
        EXPECT_TRUE(program->wait_for_err("listening")) << *program;
        stop_up(*program);
        for (unsigned i = 0; i < kSent; i++)
            peer.send(std::string(1000, 'x'), "10.77.0.1", 5000);
        for (int attempt = 0; attempt < 400; attempt++) {
            const json info = parse(run({"ruk-info", "--stats", "--json"})->out());
            if (!info.at("ledgers").empty() && !info["ledgers"][0].at("endpoints").empty()) {
                *board = info["ledgers"][0];
                if (n(board->at("endpoints").at(0), "steered") + n(board->at("port"), "rx_dropped") >= kSent &&
                    n(board->at("endpoints").at(0), "pending") == 0)
                    break;
            }
            usleep(20000);
        }
        expect_sums(*board);
        EXPECT_EQ(n(board->at("endpoints").at(0), "steered") + n(board->at("port"), "rx_dropped"), kSent);
        EXPECT_GT(n(board->at("endpoints").at(0), "ring_full"), 0u) << *board;
        return program;
    }
    static constexpr unsigned kSent = 200;

    // Datagrams to these ports, one after the other, until it is killed.
    std::unique_ptr<test_support::Program> flood(const std::vector<std::string> &ports)
    {
        std::vector<std::string> command = {
            "python3", "-B", "-c",
            "import socket, sys, time\n"
            "s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
            "s.bind(('10.77.0.2', 40001))\n"
            "print('sending', flush=True)\n"
            "while True:\n"
            "    for port in sys.argv[1:]:\n"
            "        s.sendto(b'x' * 18, ('239.1.1.1' if port == '5009' else '10.77.0.1', int(port)))\n"
            "    time.sleep(0.0005)\n"};
        command.insert(command.end(), ports.begin(), ports.end());
        auto program = lab.start(lab.peer, command);
        EXPECT_TRUE(program->wait_for_out("sending")) << *program;
        return program;
    }

    // The last line of a receiver that has ended, which tells where every frame went.
    json end_of(test_support::Program &program)
    {
        EXPECT_TRUE(program.finish()) << program;
        std::string last, line;
        while (program.read_line(&line))
            last = line;
        expect_schema("ruk-recv-stats", last);
        json end = parse(last);
        expect_account(end);
        return end;
    }

    // A frame of the other host to any Ethernet address.
    void put_frame_to(const std::string &station, uint16_t ether_type, const std::string &body)
    {
        std::string frame = station + std::string(reinterpret_cast<const char *>(lab.peer.mac), 6);
        frame += static_cast<char>(ether_type >> 8);
        frame += static_cast<char>(ether_type & 0xff);
        frame += body;
        frame.resize(std::max<size_t>(frame.size(), 60));
        const int fd = lab.packet_socket(lab.peer);
        EXPECT_EQ(write(fd, frame.data(), frame.size()), static_cast<ssize_t>(frame.size()));
        close(fd);
    }

    // A datagram from 10.77.0.2:40000 to port 5000; the length field of its UDP header may lie.
    static std::string datagram(const std::string &to, const std::string &payload, uint16_t udp_length)
    {
        std::string ip = {0x45, 0, 0, static_cast<char>(28 + payload.size()), 0, 0, 0x40, 0, 64, 17, 0, 0, 10,
                          77,   0, 2};
        std::string udp = {static_cast<char>(40000 >> 8), static_cast<char>(40000 & 0xff), 5000 >> 8,
                           static_cast<char>(5000 & 0xff)};
        udp += static_cast<char>(udp_length >> 8);
        udp += static_cast<char>(udp_length & 0xff);
        return ip + to + udp + std::string(2, '\0') + payload;
    }

    ScratchDir scratch_;

    // The board as an outsider sees it, once so many frames have been delivered.
    json board_with(uint64_t delivered)
    {
        for (int attempt = 0; attempt < 200; attempt++) {
            const json info = parse(run({"ruk-info", "--stats", "-i", "oxel0", "--json"})->out());
            if (info.at("ledgers").size() == 1 && info["ledgers"][0].at("endpoints").size() == 1 &&
                n(info["ledgers"][0]["endpoints"][0], "delivered") >= delivered)
                return info["ledgers"][0];
            usleep(20000);
        }
        ADD_FAILURE() << "never " << delivered << " frames";
        return {};
    }
};

} // namespace

TEST_F(Ledger, NoAdapterRunning_Info_SaysSoWithStatus1)
{
    auto info = run({"ruk-info", "--stats"});
    EXPECT_TRUE(info->exited_with(1));
    const std::string none = "no running program in this network namespace uses the software adapter",
                      whose = " (that this user may look into)\n";
    EXPECT_EQ(info->err(), "ruk-info: " + none + whose);
    auto as_json = run({"ruk-info", "--stats", "--json"});
    EXPECT_TRUE(as_json->exited_with(1));
    EXPECT_EQ(as_json->out(), "{\"ledgers\":[]}\n");
    expect_schema("ruk-info-stats", as_json->out());
    auto top = run({"ruk-top", "-n", "1"});
    EXPECT_TRUE(top->exited_with(1));
    EXPECT_EQ(top->out(), none + whose);
    // One on another interface is none to show, either.
    auto program = receiver({"-p", "5000"});
    board_with(0);
    EXPECT_EQ(run({"ruk-info", "--stats", "-i", "lo"})->err(), "ruk-info: " + none + " on lo" + whose);
    EXPECT_EQ(run({"ruk-top", "-n", "1", "-i", "lo"})->out(), none + " on lo" + whose);
}

TEST_F(Ledger, RunningReceiver_Info_AccountsForEveryFrame)
{
    KernelSocket peer(lab, lab.peer, 40000);
    auto program = receiver({"-p", "5000", "--json", "--stats"});
    for (int i = 0; i < 3; i++)
        put_frame(0x88b5, "for nobody"); // an experimental EtherType
    for (int i = 0; i < 7; i++)
        peer.send("abc", "10.77.0.1", 5000);
    const json board = board_with(7);
    expect_sums(board);
    expect_schema("ruk-info-stats", json{{"ledgers", {board}}}.dump());
    EXPECT_EQ(board["program"], "ruk-recv");
    EXPECT_EQ(board["interface"], "oxel0");
    EXPECT_EQ(board["board"], 0);
    EXPECT_EQ(n(board["endpoints"][0], "delivered"), 7u);
    EXPECT_EQ(n(board["endpoints"][0], "claimed"), 1u);
    EXPECT_GE(n(board, "unmatched"), 3u);
    ASSERT_EQ(board["drops"].size(), 1u) << board;
    EXPECT_EQ(board["drops"][0]["reason"], "unmatched");
    EXPECT_EQ(board["drops"][0]["meaning"],
              "frames that no endpoint asked for: the kernel's, but for those of a replayed file, which are lost");

    kill(program->pid(), SIGINT);
    EXPECT_TRUE(program->finish());
    std::string last, line;
    while (program->read_line(&line))
        last = line;
    expect_schema("ruk-recv-stats", last);
    const json end = parse(last);
    EXPECT_EQ(end["stats"]["delivered"], 7);
    expect_account(end);
    EXPECT_EQ(n(end["account"], "in_ring"), 7u);
    EXPECT_EQ(n(end["adapters"][0]["endpoints"][0], "delivered"), 7u);
}

TEST_F(Ledger, Text_OfAReceiverThatLosesFrames_AddsUpInEveryProgram)
{
    KernelSocket peer(lab, lab.peer, 40000);
    const std::string file = scratch_.file("stats");
    put_frame(0x88b5, "for nobody");
    json board;
    auto program = overflowing_receiver(peer, &board, {"RUK_SOFTNIC_STATS=" + file});
    EXPECT_EQ(expect_sums_of_text(run({"ruk-info", "--stats"})->out()), 3);
    kill(program->pid(), SIGINT);
    ASSERT_TRUE(program->finish()) << *program;
    EXPECT_EQ(expect_sums_of_text(program->out().substr(program->out().find("counters:"))), 3);
    auto account = account_of_text(program->out());
    EXPECT_EQ(account.size(), 16u) << *program;
    EXPECT_EQ(account["put in by the adapter"], account["received"] + account["still waiting"]) << *program;
    EXPECT_EQ(account["sum"], account["put in by the adapter"]) << *program;

    // The file that the program leaves, and the drops that were told, name the same losses.
    expect_schema("rukrun-stats", contents(file));
    board = json::parse(contents(file)).at("boards").at(0);
    expect_sums(board);
    const json &endpoint = board["endpoints"][0];
    EXPECT_EQ(n(endpoint, "steered") + n(board["port"], "rx_dropped"), kSent);
    EXPECT_EQ(n(endpoint, "enabled"), 0u) << "it is closed: the size is that of the ring it had";
    EXPECT_EQ(n(endpoint, "ring_bytes"), 16384u);
    EXPECT_GT(n(endpoint, "high_water"), 0u);
    EXPECT_LE(n(endpoint, "high_water"), 16384u);
    const uint64_t lost = n(endpoint, "ring_full");
    EXPECT_GT(lost, 0u);
    EXPECT_NE(program->out().find("ring_full (endpoint 0): " + std::to_string(lost) + ": "), std::string::npos)
        << *program;
}

// ------------------------------------------------------------------ the receiver's own half

TEST_F(Ledger, ReceiverThatHasEnough_WhatItLeavesInTheRing_IsStillWaiting)
{
    KernelSocket peer(lab, lab.peer, 40000);
    auto program = receiver({"-p", "5000", "-n", "3", "--json", "--stats"});
    stop_up(*program);
    for (int i = 0; i < 50; i++)
        peer.send("abc", "10.77.0.1", 5000);
    board_with(50);
    const json end = end_of(*program);
    EXPECT_TRUE(program->exited_with(0)) << *program;
    EXPECT_EQ(n(end["account"], "in_ring"), 50u);
    EXPECT_EQ(n(end["account"]["parts"], "received"), 3u);
    EXPECT_EQ(n(end["account"]["parts"], "waiting"), 47u);
}

TEST_F(Ledger, TrafficThatGoesOn_InEveryFilterModeAndWayOfWaiting_TheAccountOfTheRingAddsUp)
{
    auto traffic = flood({"5000", "5001", "5002", "5009"});
    auto other = receiver({"-p", "5002"}); // the frames between are its
    for (const char *filter : {"normal", "allmulti", "raw"})
        for (const char *wait : {"spin", "nonblock", "block"}) {
            SCOPED_TRACE(std::string(filter) + " " + wait);
            auto program = receiver({"-p", "5000", "-p", "5001", "--filter", filter, "--wait", wait, "-n", "100", "-t",
                                     "60", "--json", "--stats"});
            const json end = end_of(*program);
            EXPECT_TRUE(program->exited_with(0)) << *program;
            EXPECT_EQ(n(end["account"]["parts"], "received"), 100u);
        }
    EXPECT_FALSE(other->has_ended());
    EXPECT_FALSE(traffic->has_ended());
}

TEST_F(Ledger, TrafficThatGoesOnUntilAnInterrupt_TheAccountOfTheRingAddsUp)
{
    auto traffic = flood({"5000"});
    for (const char *option : {"--json", "--hw-timestamps"}) {
        auto program = receiver({"-p", "5000", "--stats", option});
        std::string line;
        for (int i = 0; i < 20; i++)
            ASSERT_TRUE(program->read_line(&line)) << *program;
        program->signal(SIGINT);
        if (option == std::string("--json")) {
            EXPECT_GE(n(end_of(*program)["account"]["parts"], "received"), 20u);
            continue;
        }
        ASSERT_TRUE(program->finish()) << *program;
        auto account = account_of_text(program->out());
        EXPECT_EQ(account["sum"], account["put in by the adapter"]) << *program;
        EXPECT_GE(account["received"], 20u) << *program;
        uint64_t sum = 0;
        for (const auto &[name, frames] : account)
            if (name != "sum" && name != "put in by the adapter")
                sum += frames;
        EXPECT_EQ(account["sum"], sum) << *program;
    }
}

TEST_F(Ledger, FramesThatTheLibraryRefuses_EachHasItsPlaceInTheSum)
{
    const std::string self(reinterpret_cast<const char *>(lab.adapter.mac), 6), everybody(6, '\xff');
    const std::string group_station = {1, 0, 0x5e, 1, 1, 1};
    {
        auto program = receiver({"-p", "5000", "-g", "239.1.1.1@10.77.0.9", "--broadcast", "--json", "--stats"});
        for (int i = 0; i < 2; i++) // lies about its length
            put_frame_to(self, 0x0800, datagram({10, 77, 0, 1}, "malformed", 4));
        for (int i = 0; i < 3; i++) // not of the source that was joined
            put_frame_to(group_station, 0x0800, datagram({static_cast<char>(239), 1, 1, 1}, "group", 13));
        for (int i = 0; i < 4; i++)
            put_frame_to(everybody, 0x0800, datagram(std::string(4, '\xff'), "broadcast", 17));
        for (int i = 0; i < 5; i++)
            put_frame_to(self, 0x0800, datagram({10, 77, 0, 1}, "good", 12));
        board_with(14);
        std::string line;
        for (int i = 0; i < 11; i++)
            ASSERT_TRUE(program->read_line(&line)) << *program;
        program->signal(SIGINT);
        const json end = end_of(*program), &parts = end["account"]["parts"];
        EXPECT_EQ(n(end["account"], "in_ring"), 14u);
        EXPECT_EQ(n(parts, "malformed"), 2u) << end;
        EXPECT_EQ(n(parts, "dropped_badfilter"), 3u) << end;
        EXPECT_EQ(n(parts, "received"), 9u) << end;
        EXPECT_EQ(n(parts, "waiting"), 0u) << end;
    }
    auto program = receiver({"-p", "5000", "--filter", "allmulti", "--json", "--stats"});
    const json before = board_with(0);
    for (int i = 0; i < 6; i++) // an experimental EtherType
        put_frame_to(group_station, 0x88b5, "neither IPv4 nor tagged");
    put_frame_to(self, 0x0800, datagram({10, 77, 0, 1}, "good", 12));
    std::string line;
    ASSERT_TRUE(program->read_line(&line)) << *program;
    program->signal(SIGINT);
    const json end = end_of(*program);
    EXPECT_GE(n(end["account"]["parts"], "dropped_badproto"), 6u) << end;
    // Others may multicast as well.
    EXPECT_EQ(n(end["account"]["parts"], "received") + n(end["account"]["parts"], "dropped_badproto") +
                  n(end["account"]["parts"], "waiting"),
              n(end["account"], "in_ring"))
        << end;
}

TEST_F(Ledger, KeyframesOfASwitch_AreInTheSumAndTheirLossIsExplained)
{
    for (const bool readable : {true, false}) {
        // A switch whose keyframes are longer than the library was told.
        const std::string model = readable ? "model,interval=20" : "model,interval=20,skew=1/1";
        auto program = lab.start(lab.adapter,
                                 {bin("rukrun"), "--soft=oxel0", "--switch=" + model, "--", bin("ruk-recv"), "-i",
                                  "oxel0", "-p", "5000", "--json", "--stats"},
                                 {"OXEL_ARISTA_ENABLE_TIMESTAMPING=1"});
        ASSERT_TRUE(program->wait_for_err("listening")) << *program;
        board_with(10);
        program->signal(SIGINT);
        const json end = end_of(*program);
        const json &parts = end["account"]["parts"];
        EXPECT_GE(n(parts, readable ? "keyframes" : "keyframes_malformed") + n(parts, "waiting"), 10u) << end;
        EXPECT_GE(n(parts, readable ? "keyframes" : "keyframes_malformed"), 1u) << end;
        EXPECT_EQ(n(parts, readable ? "keyframes_malformed" : "keyframes"), 0u) << end;
        bool explained = false;
        for (const json &drop : end["drops"])
            explained = explained || (drop["reason"] == "keyframes_malformed" && drop["where"] == "library");
        EXPECT_EQ(explained, !readable) << end;
    }
}

TEST_F(Ledger, AdapterWhoseAccountIsNotToBeHad_ItsHalfIsSaidToBeUnknown)
{
    KernelSocket peer(lab, lab.peer, 40000);
    for (const char *option : {"--json", "--hw-timestamps"}) {
        auto program =
            soft_differing("no account", {"ruk-recv", "-i", "oxel0", "-p", "5000", "-n", "2", "--stats", option});
        ASSERT_TRUE(program->wait_for_err("listening")) << *program;
        peer.send("abc", "10.77.0.1", 5000);
        peer.send("abc", "10.77.0.1", 5000);
        ASSERT_TRUE(program->finish()) << *program;
        EXPECT_TRUE(program->exited_with(0)) << *program;
        if (option == std::string("--hw-timestamps")) {
            EXPECT_NE(program->out().find("\tput in by the adapter      =      unknown: "), std::string::npos)
                << *program;
            EXPECT_NE(program->out().find("\tsum                        =            2\n"), std::string::npos)
                << *program;
            continue;
        }
        std::string last, line;
        while (program->read_line(&line))
            last = line;
        expect_schema("ruk-recv-stats", last);
        const json end = parse(last);
        EXPECT_TRUE(end["account"]["in_ring"].is_null()) << last;
        EXPECT_EQ(end["account"]["sum"], 2) << last;
        EXPECT_EQ(end["account"]["parts"]["received"], 2) << last;
        EXPECT_TRUE(end["adapters"].empty()) << last;
    }
}

TEST_F(Ledger, BurstWhileTheReceiverIsStopped_Info_ShowsTheHighWaterMark)
{
    KernelSocket peer(lab, lab.peer, 40000);
    auto program = receiver({"-p", "5000"});
    stop(program->pid()); // its firmware too: frames wait in the interface's ring
    for (int i = 0; i < 50; i++)
        peer.send(std::string(1000, 'x'), "10.77.0.1", 5000);
    kill(program->pid(), SIGCONT);
    const json board = board_with(50);
    expect_sums(board);
    EXPECT_EQ(n(board["endpoints"][0], "ring_full"), 0u);
    EXPECT_GT(n(board["endpoints"][0], "high_water"), 0u);
}

TEST_F(Ledger, AdapterThatStandsStill_PacketRing_HoldsWhatItHasRoomFor)
{
    KernelSocket peer(lab, lab.peer, 40000);
    struct {
        const char *ring;
        unsigned sent, kept; // 2 KiB a frame
    } const cases[] = {{"262144", 300, 128}, {"33554432", 6000, 6000}};
    for (const auto &c : cases) {
        auto program =
            lab.start(lab.adapter, {bin("rukrun"), "--soft=oxel0", "--", bin("ruk-recv"), "-i", "oxel0", "-p", "5000"},
                      {std::string("RUK_SOFTNIC_PACKETQ=") + c.ring});
        ASSERT_TRUE(program->wait_for_err("listening")) << *program;
        stop(program->pid());
        for (unsigned i = 0; i < c.sent; i++)
            peer.send("x", "10.77.0.1", 5000);
        kill(program->pid(), SIGCONT);
        // A few frames of the hosts' own, for neither of them, may have come between.
        json board;
        for (int attempt = 0; attempt < 200; attempt++, usleep(20000)) {
            board = board_with(c.kept - (c.kept < c.sent ? 20 : 0));
            if (n(board["endpoints"][0], "steered") + n(board["port"], "rx_dropped") >= c.sent)
                break;
        }
        expect_sums(board);
        EXPECT_LE(n(board["endpoints"][0], "steered"), c.kept) << board;
        EXPECT_GE(n(board["endpoints"][0], "steered") + n(board["port"], "rx_dropped"), c.sent) << board;
        EXPECT_EQ(n(board["port"], "rx_dropped") > 0, c.kept < c.sent) << board;
        kill(program->pid(), SIGINT);
        ASSERT_TRUE(program->finish()) << *program;
    }
}

TEST_F(Ledger, PacketRingOfNoSize_IsToldAndTheUsualOneIsMade)
{
    auto program =
        lab.start(lab.adapter, {bin("rukrun"), "--soft=oxel0", "--", bin("ruk-info")}, {"RUK_SOFTNIC_PACKETQ=4096"});
    ASSERT_TRUE(program->finish()) << *program;
    EXPECT_TRUE(program->exited_with(0)) << *program;
    EXPECT_NE(program->err().find("softnic: RUK_SOFTNIC_PACKETQ=4096 is not a number from 262144 to 268435456, "
                                  "using 8388608\n"),
              std::string::npos)
        << *program;
}

TEST_F(Ledger, RunningReceiver_Top_ShowsRatesAndRing)
{
    KernelSocket peer(lab, lab.peer, 40000);
    auto program = receiver({"-p", "5000"});
    board_with(0); // the endpoint is in the ledger a moment after it is there
    auto top = lab.start(lab.adapter, {bin("ruk-top"), "-n", "2", "-d", "0.5", "--json"});
    std::string line;
    ASSERT_TRUE(top->read_line(&line)) << *top;
    const std::string first_line = line; // looked at below: the next look comes in half a second
    const json first = parse(line);
    ASSERT_EQ(first.at("ledgers").size(), 1u) << line;
    ASSERT_EQ(first["ledgers"][0].at("endpoints").size(), 1u) << line;
    EXPECT_FALSE(first["ledgers"][0]["endpoints"][0].contains("delivered_per_second"));
    for (int i = 0; i < 100; i++)
        peer.send("abc", "10.77.0.1", 5000);
    ASSERT_TRUE(top->read_line(&line)) << *top;
    expect_schema("ruk-top", first_line);
    expect_schema("ruk-top", line);
    const json second = parse(line);
    ASSERT_EQ(second.at("ledgers").size(), 1u) << line;
    ASSERT_EQ(second["ledgers"][0].at("endpoints").size(), 1u) << line;
    const json endpoint = second["ledgers"][0]["endpoints"][0];
    EXPECT_TRUE(top->finish());
    EXPECT_TRUE(top->exited_with(0));
    EXPECT_EQ(n(endpoint, "delivered"), 100u);
    // 100 in half a second, or a little more on a busy machine.
    EXPECT_GT(endpoint["delivered_per_second"].get<double>(), 20);
    EXPECT_LE(endpoint["delivered_per_second"].get<double>(), 200);

    auto text = run({"ruk-top", "-n", "1"});
    EXPECT_TRUE(
        std::regex_search(text->out(), std::regex(R"(ruk-recv \(process [0-9]+\), board 0 on oxel0: arrived)")));
    EXPECT_EQ(text->out().find('\033'), std::string::npos); // not to a terminal
}

TEST_F(Ledger, ReceiverThatLosesFrames_TopInText_ShowsRatesRingPeakAndDropsByReason)
{
    KernelSocket peer(lab, lab.peer, 40000);
    json board;
    auto program = overflowing_receiver(peer, &board);
    const uint64_t delivered = n(board["endpoints"][0], "delivered"), lost = n(board["endpoints"][0], "ring_full");

    auto top = lab.start(lab.adapter, {bin("ruk-top"), "-n", "40", "-d", "0.5"});
    std::string line;
    // endpoint, received/s, received, dropped, ring, peak, sent/s, sent
    const std::regex row(R"( +0 +(\S+) +(\d+) +(\d+) +(\d+\.\d)% +(\d+\.\d)% +(\S+) +(\d+))");
    std::smatch match;
    const auto next_row = [&] {
        while (top->read_line(&line))
            if (std::regex_match(line, match, row))
                return true;
        return false;
    };
    ASSERT_TRUE(next_row()) << *top;
    EXPECT_EQ(match[1], "-"); // no rates yet
    EXPECT_EQ(match[2], std::to_string(delivered));
    EXPECT_EQ(match[3], std::to_string(lost));
    EXPECT_GT(std::stod(match[4]), 50) << line;
    EXPECT_GT(std::stod(match[5]), 50) << line;
    EXPECT_LE(std::stod(match[5]), 100) << line;
    EXPECT_GE(std::stod(match[5]), std::stod(match[4])) << line;
    EXPECT_EQ(match[6], "-");
    EXPECT_EQ(match[7], "0");
    const std::string drop = "\tring_full (endpoint 0): " + std::to_string(lost) +
                             ": frames for which the event ring had no room: the application did not keep up; receive "
                             "faster, or ask for a larger ring";
    ASSERT_TRUE(top->wait_for_out(drop)) << *top;

    // Somebody reads it: the ring empties, and more is received.
    for (uint64_t i = 0; i < delivered; i += line != "filler")
        ASSERT_TRUE(program->read_line(&line)) << i << *program;
    constexpr uint64_t more = 10;
    for (uint64_t i = 0; i < more; i++) {
        peer.send("abc", "10.77.0.1", 5000);
        ASSERT_TRUE(program->read_line(&line)) << *program;
    }
    double fastest = 0;
    do {
        ASSERT_TRUE(next_row()) << *top;
        fastest = std::max(fastest, std::stod(match[1]));
    } while (match[2] != std::to_string(delivered + more));
    EXPECT_GT(fastest, 0) << line;
    EXPECT_LE(fastest, more / 0.4) << line;
    EXPECT_EQ(match[3], std::to_string(lost));
    EXPECT_EQ(match[6], "0") << line;
    do
        ASSERT_TRUE(next_row()) << *top;
    while (match[4] != "0.0");
    EXPECT_GT(std::stod(match[5]), 50) << "the peak stays: " << line;
}

// The kernel cuts the name of a program after 15 bytes, be it amid a character.
TEST_F(Ledger, ProgramAndInterfaceWithUnusualNames_AreShownByAll)
{
    const std::string program_file = scratch_.file("ruk-recv-abcd\xe2\x82\xac"), name = "ruk-recv-abcd\xef\xbf\xbd";
    const std::string stats = scratch_.file("stats"), interface = R"(x"y\z)";
    std::filesystem::create_symlink(bin("ruk-recv"), program_file);
    lab.run(lab.adapter, R"(ip link set oxel0 down; ip link set oxel0 name 'x"y\z';
                            ip link set 'x"y\z' up; ip addr replace 10.77.0.1/24 dev 'x"y\z')");
    auto program = lab.start(
        lab.adapter,
        {bin("rukrun"), "--soft=" + interface, "--", program_file, "-i", interface, "-p", "5000", "--json", "--stats"},
        {"RUK_SOFTNIC_STATS=" + stats});
    ASSERT_TRUE(program->wait_for_err("listening")) << *program;
    const auto expect_names = [&](const std::string &schema, const std::string &line, const char *list) {
        expect_schema(schema, line);
        const json object = parse(line);
        ASSERT_EQ(object.at(list).size(), 1u) << line;
        EXPECT_EQ(object[list][0].at("program"), name) << line;
        EXPECT_EQ(object[list][0].at("interface"), interface) << line;
    };
    expect_names("ruk-info-stats", run({"ruk-info", "--stats", "--json"})->out(), "ledgers");
    expect_names("ruk-top", run({"ruk-top", "-n", "1", "--json"})->out(), "ledgers");
    const std::string text = run({"ruk-top", "-n", "1"})->out();
    EXPECT_NE(text.find(R"(ruk-recv-abcd\xe2\x82 (process )"), std::string::npos) << text;
    EXPECT_NE(text.find(R"(, board 0 on x"y\\z: arrived )"), std::string::npos) << text;
    kill(program->pid(), SIGINT);
    ASSERT_TRUE(program->finish()) << *program;
    EXPECT_TRUE(program->exited_with(0)) << *program;
    expect_names("ruk-recv-stats", program->out(), "adapters");
    expect_schema("rukrun-stats", contents(stats));
    EXPECT_EQ(parse(contents(stats)).at("boards").at(0).at("interface"), interface);
}

TEST_F(Ledger, AdapterOfAnotherHost_Info_DoesNotShowIt)
{
    auto program = receiver({"-p", "5000"});
    board_with(0);
    auto elsewhere = lab.start(lab.peer, {bin("ruk-info"), "--stats", "--json"});
    EXPECT_TRUE(elsewhere->finish());
    EXPECT_TRUE(elsewhere->exited_with(1));
    EXPECT_EQ(elsewhere->out(), "{\"ledgers\":[]}\n");
}

TEST_F(Ledger, ProgramThatWasKilled_Info_NoLongerFindsIt)
{
    auto program = receiver({"-p", "5000"});
    board_with(0);
    kill(program->pid(), SIGKILL);
    EXPECT_TRUE(program->finish());
    EXPECT_TRUE(run({"ruk-info", "--stats"})->exited_with(1));
}
