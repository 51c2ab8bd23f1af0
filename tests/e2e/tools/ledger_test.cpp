// The ledger: where every frame went, seen by ruk-recv itself and by ruk-info and ruk-top from outside.
#include "schema.h"
#include "tool_lab.h"

#include <csignal>
#include <regex>

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
    EXPECT_EQ(info->err(), "ruk-info: no running program uses the software adapter (that this user may look into)\n");
    auto as_json = run({"ruk-info", "--stats", "--json"});
    EXPECT_TRUE(as_json->exited_with(1));
    EXPECT_EQ(as_json->out(), "{\"ledgers\":[]}\n");
    expect_schema("ruk-info-stats", as_json->out());
    auto top = run({"ruk-top", "-n", "1"});
    EXPECT_TRUE(top->exited_with(1));
}

TEST_F(Ledger, RunningReceiver_Info_AccountsForEveryFrame)
{
    KernelSocket peer(lab, lab.peer, 40000);
    auto program = receiver({"-p", "5000", "--json", "--stats"});
    for (int i = 0; i < 7; i++)
        peer.send("abc", "10.77.0.1", 5000);
    for (int i = 0; i < 3; i++)
        put_frame(0x88b5, "for nobody"); // an experimental EtherType
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
    EXPECT_EQ(board["drops"][0]["meaning"], "frames that no endpoint asked for: the kernel's");

    kill(program->pid(), SIGINT);
    EXPECT_TRUE(program->finish());
    std::string last, line;
    while (program->read_line(&line))
        last = line;
    expect_schema("ruk-recv-stats", last);
    const json end = parse(last);
    EXPECT_EQ(end["stats"]["delivered"], 7);
    ASSERT_EQ(end["adapters"].size(), 1u);
    expect_sums(end["adapters"][0]);
    EXPECT_EQ(n(end["adapters"][0]["endpoints"][0], "delivered"), 7u);
}

TEST_F(Ledger, Text_OfAReceiverThatLosesFrames_AddsUpInEveryProgram)
{
    KernelSocket peer(lab, lab.peer, 40000);
    const std::string file = scratch_.file("stats");
    auto program = lab.start(
        lab.adapter, {bin("rukrun"), "--soft=oxel0", "--", bin("ruk-recv"), "-i", "oxel0", "-p", "5000", "--stats"},
        {"RUK_SOFTNIC_RECVQ=16384", "RUK_SOFTNIC_STATS=" + file});
    ASSERT_TRUE(program->wait_for_err("listening")) << *program;
    kill(program->pid(), SIGSTOP);
    for (int i = 0; i < 200; i++)
        peer.send(std::string(1000, 'x'), "10.77.0.1", 5000);
    put_frame(0x88b5, "for nobody");
    kill(program->pid(), SIGCONT);
    for (int attempt = 0; attempt < 200; attempt++) { // all of them have arrived, whatever became of them
        const json board = parse(run({"ruk-info", "--stats", "--json"})->out()).at("ledgers").at(0);
        expect_sums(board);
        if (n(board.at("endpoints").at(0), "steered") + n(board["port"], "rx_dropped") >= 200)
            break;
        usleep(20000);
    }
    EXPECT_EQ(expect_sums_of_text(run({"ruk-info", "--stats"})->out()), 3);
    kill(program->pid(), SIGINT);
    ASSERT_TRUE(program->finish()) << *program;
    EXPECT_EQ(expect_sums_of_text(program->out().substr(program->out().find("counters:"))), 3);

    // The file that the program leaves, and the drops that were told, name the same losses.
    expect_schema("rukrun-stats", contents(file));
    json board = json::parse(contents(file)).at("boards").at(0);
    expect_sums(board);
    const json &endpoint = board["endpoints"][0];
    EXPECT_EQ(n(endpoint, "steered") + n(board["port"], "rx_dropped"), 200u);
    if (const uint64_t lost = n(endpoint, "ring_full"); lost != 0) {
        EXPECT_NE(program->out().find("ring_full (endpoint 0): " + std::to_string(lost) + ": "), std::string::npos)
            << *program;
    }
}

TEST_F(Ledger, BurstWhileTheReceiverIsStopped_Info_ShowsTheHighWaterMark)
{
    KernelSocket peer(lab, lab.peer, 40000);
    auto program = receiver({"-p", "5000"});
    kill(program->pid(), SIGSTOP); // its firmware too: frames wait in the interface's ring
    for (int i = 0; i < 50; i++)
        peer.send(std::string(1000, 'x'), "10.77.0.1", 5000);
    kill(program->pid(), SIGCONT);
    const json board = board_with(50);
    expect_sums(board);
    EXPECT_EQ(n(board["endpoints"][0], "ring_full"), 0u);
    EXPECT_GT(n(board["endpoints"][0], "high_water"), 0u);
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
