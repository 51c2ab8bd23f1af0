// ruk-ping: libruk and kernel sockets in either role.
#include "schema.h"
#include "tool_lab.h"

#include <chrono>
#include <csignal>
#include <sched.h>
#include <sstream>

using namespace tool_test;
using nlohmann::json;

namespace {

class PingTool : public ToolTest {
protected:
    /* An answering ruk-ping server over kernel sockets on the other host. */
    std::unique_ptr<test_support::Program> kernel_server()
    {
        auto server = lab.start(lab.peer, {bin("ruk-ping"), "server", "--kernel", "-i", "peer0", "-p", "7000"});
        EXPECT_TRUE(server->wait_for_err("answering on 10.77.0.2:7000")) << *server;
        return server;
    }

    static std::vector<int> allowed_processors()
    {
        std::vector<int> processors;
        cpu_set_t set;
        EXPECT_EQ(sched_getaffinity(0, sizeof set, &set), 0);
        for (int i = 0; i < CPU_SETSIZE; i++)
            if (CPU_ISSET(static_cast<size_t>(i), &set))
                processors.push_back(i);
        return processors;
    }

    static void expect_complete(const test_support::Program &client, const std::string &via, size_t count)
    {
        EXPECT_TRUE(client.exited_with(0)) << client;
        const auto result = nlohmann::ordered_json::parse(client.out(), nullptr, false);
        ASSERT_TRUE(result.is_object()) << client;
        expect_schema("ruk-ping", client.out());
        EXPECT_EQ(result["via"], via);
        EXPECT_EQ(result["sent"], count);
        EXPECT_EQ(result["answered"], count);
        EXPECT_EQ(result["lost"], 0);
        std::vector<std::string> names;
        double last = 0;
        for (const auto &[name, ns] : result["half_round_trip_ns"].items()) {
            names.push_back(name);
            EXPECT_GE(ns.get<double>(), last) << name;
            last = ns.get<double>();
        }
        const std::vector<std::string> expected = {"min", "p50", "p90", "p99", "p99.9", "p99.99", "p99.999", "max"};
        EXPECT_EQ(names, expected);
        EXPECT_GT(result["half_round_trip_ns"]["min"], 0);
    }
};

} // namespace

TEST_F(PingTool, Client_OverLibruk_MeasuresAgainstAPlainEcho)
{
    auto server = kernel_server();
    for (const char *how : {"--connect", "--sendto"}) {
        auto client = soft(
            {"ruk-ping", "client", "-i", "oxel0", "10.77.0.2:7000", "--count", "200", "--warmup", "20", "--json", how});
        EXPECT_TRUE(client->finish()) << *client;
        expect_complete(*client, "libruk", 200);
    }
}

TEST_F(PingTool, Client_InEveryWaitMode_GetsItsAnswers)
{
    auto server = kernel_server();
    for (const char *wait : {"spin", "nonblock", "block"}) {
        auto client = soft({"ruk-ping", "client", "-i", "oxel0", "10.77.0.2:7000", "-n", "50", "--warmup", "5",
                            "--json", "--wait", wait});
        EXPECT_TRUE(client->finish()) << wait << *client;
        expect_complete(*client, "libruk", 50);
        EXPECT_EQ(parse(client->out())["wait"], wait);
    }
}

TEST_F(PingTool, Server_OverLibruk_AnswersAKernelClient)
{
    auto server = soft({"ruk-ping", "server", "-i", "oxel0", "-p", "7000"});
    ASSERT_TRUE(server->wait_for_err("answering on 10.77.0.1:7000")) << *server;
    auto client = lab.start(lab.peer, {bin("ruk-ping"), "client", "--kernel", "-i", "peer0", "10.77.0.1:7000",
                                       "--count", "100", "--warmup", "10", "--json"});
    EXPECT_TRUE(client->finish()) << *client;
    expect_complete(*client, "kernel", 100);
    server->signal(SIGINT);
    EXPECT_TRUE(server->finish());
    EXPECT_TRUE(server->exited_with(0)) << *server;
    EXPECT_EQ(server->out(), "answered 110 of 110 requests\n");
}

TEST_F(PingTool, Client_WithNobodyThere_SaysSoAndEndsWithStatusOne)
{
    auto client =
        soft({"ruk-ping", "client", "-i", "oxel0", "10.77.0.2:7000", "--count", "1000", "--timeout", "20", "--json"});
    EXPECT_TRUE(client->finish()) << *client;
    expect_schema("ruk-ping", client->out());
    EXPECT_TRUE(client->exited_with(1)) << *client;
    EXPECT_NE(client->err().find("no request was answered"), std::string::npos) << *client;
}

TEST_F(PingTool, Client_LostRequests_AreCounted)
{
    auto server = lab.start(lab.peer, {bin("ruk-ping"), "server", "--kernel", "-i", "peer0", "-p", "7000", "-n", "30"});
    ASSERT_TRUE(server->wait_for_err("answering")) << *server;
    auto client = soft({"ruk-ping", "client", "-i", "oxel0", "10.77.0.2:7000", "--count", "24", "--warmup", "10",
                        "--timeout", "500", "--json"});
    EXPECT_TRUE(client->finish()) << *client;
    EXPECT_TRUE(client->exited_with(1)) << *client;
    const json result = parse(client->out());
    EXPECT_EQ(result["sent"], 24);
    EXPECT_EQ(result["answered"], 20);
    EXPECT_EQ(result["lost"], 4);
}

// The fifth request is answered twice, the tenth when the next has come, the fifteenth by something else first.
TEST_F(PingTool, Client_AnswersThatAreNotTheAwaitedOne_AreCountedApart)
{
    const char *echo = R"(
import socket, sys
s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
s.bind(("10.77.0.2", 7000))
print("answering", file=sys.stderr, flush=True)
held = None
for n in range(1, 31):
    data, sender = s.recvfrom(2048)
    if n == 10:
        held = data
        continue
    answers = ([held] if n == 11 else []) + ([data + b"x"] if n == 15 else []) + [data] * (2 if n == 5 else 1)
    for answer in answers:
        s.sendto(answer, sender)
)";
    auto server = lab.start(lab.peer, {"python3", "-c", echo});
    ASSERT_TRUE(server->wait_for_err("answering")) << *server;
    auto client = soft({"ruk-ping", "client", "-i", "oxel0", "10.77.0.2:7000", "--count", "28", "--warmup", "2",
                        "--timeout", "1000", "--json"});
    EXPECT_TRUE(client->finish()) << *client;
    const json result = parse(client->out());
    EXPECT_EQ(result["sent"], 28);
    EXPECT_EQ(result["answered"], 27);
    EXPECT_EQ(result["lost"], 1);
    EXPECT_EQ(result["late"], 3);
}

TEST_F(PingTool, Client_TimeRunsOut_EndsWithWhatItHas)
{
    auto server = kernel_server();
    auto client = soft({"ruk-ping", "client", "-i", "oxel0", "10.77.0.2:7000", "--count", "1000000", "--warmup", "2",
                        "--interval", "1000", "-t", "0.5", "--json"});
    EXPECT_TRUE(client->finish()) << *client;
    EXPECT_TRUE(client->exited_with(0)) << *client;
    const json result = parse(client->out());
    EXPECT_GT(result["sent"], 0);
    EXPECT_LE(result["sent"], 500);
    EXPECT_EQ(result["sent"], result["answered"]);
}

TEST_F(PingTool, Client_SmallAndLargePayloads_AreAnswered)
{
    auto server = kernel_server();
    for (const char *size : {"0", "1", "1472"}) {
        auto client = soft({"ruk-ping", "client", "-i", "oxel0", "10.77.0.2:7000", "--count", "20", "--warmup", "2",
                            "--json", "--size", size});
        EXPECT_TRUE(client->finish()) << size << *client;
        expect_complete(*client, "libruk", 20);
    }
    auto client = soft({"ruk-ping", "client", "-i", "oxel0", "10.77.0.2:7000", "--size", "1473"});
    EXPECT_TRUE(client->finish());
    EXPECT_TRUE(client->exited_with(2)) << *client;
}

TEST_F(PingTool, Csv_HoldsEveryRoundTrip)
{
    auto server = kernel_server();
    ScratchDir scratch;
    auto client = soft({"ruk-ping", "client", "-i", "oxel0", "10.77.0.2:7000", "--count", "100", "--warmup", "5",
                        "--csv", scratch.file("out.csv")});
    EXPECT_TRUE(client->finish());
    EXPECT_TRUE(client->exited_with(0)) << *client;
    std::istringstream csv(contents(scratch.file("out.csv")));
    std::string line;
    ASSERT_TRUE(std::getline(csv, line));
    EXPECT_EQ(line, "half_round_trip_ns,count,share");
    uint64_t total = 0;
    while (std::getline(csv, line))
        total += std::stoull(line.substr(line.find(',') + 1));
    EXPECT_EQ(total, 100u);
}

TEST_F(PingTool, Plot_IsAPngFile)
{
    if (system("command -v gnuplot >/dev/null") != 0)
        GTEST_SKIP() << "gnuplot is not installed";
    auto server = kernel_server();
    ScratchDir scratch;
    auto client = soft({"ruk-ping", "client", "-i", "oxel0", "10.77.0.2:7000", "--count", "100", "--warmup", "5",
                        "--plot", scratch.file("it's.png")});
    EXPECT_TRUE(client->finish());
    EXPECT_TRUE(client->exited_with(0)) << *client;
    EXPECT_EQ(contents(scratch.file("it's.png")).substr(0, 8), "\x89PNG\r\n\x1a\n");
}

TEST_F(PingTool, Plot_WithoutGnuplot_IsRefusedBeforeMeasuring)
{
    auto client = lab.start(lab.adapter,
                            {bin("ruk-ping"), "client", "--kernel", "-i", "oxel0", "10.77.0.2:7000", "--plot", "x.png"},
                            {"PATH=/nonexistent"});
    EXPECT_TRUE(client->finish());
    EXPECT_TRUE(client->exited_with(2)) << *client;
    EXPECT_NE(client->err().find("gnuplot"), std::string::npos) << *client;
}

TEST_F(PingTool, Placement_TellsWhoSpinsAndWhoSleeps)
{
    auto server = kernel_server();
    EXPECT_NE(server->err().find("server through kernel sockets sleeps"), std::string::npos) << *server;
    auto client = soft({"ruk-ping", "client", "-i", "oxel0", "10.77.0.2:7000", "--count", "20", "--warmup", "2"});
    EXPECT_TRUE(client->finish());
    EXPECT_NE(client->err().find("client through libruk spins; software adapter's thread spins; on processor"),
              std::string::npos)
        << *client;
    EXPECT_NE(client->err().find("on this machine too: server through kernel sockets (process " +
                                 std::to_string(server->pid()) + ") sleeps"),
              std::string::npos)
        << *client;
    EXPECT_NE(client->out().find("thread ruk-ping ("), std::string::npos) << *client;
}

TEST_F(PingTool, Placement_MoreSpinnersThanProcessors_IsWarnedOf)
{
    // Each spins at most as long as this test; they sleep in the kernel between looks only with --wait block.
    std::vector<std::unique_ptr<test_support::Program>> servers;
    const long processors = sysconf(_SC_NPROCESSORS_ONLN);
    if (processors > 8)
        GTEST_SKIP() << "too many processors to fill";
    for (long i = 0; i < processors; i++) {
        const std::string port = std::to_string(7000 + i);
        servers.push_back(lab.start(lab.peer, {bin("ruk-ping"), "server", "--kernel", "-i", "peer0", "-p", port,
                                               "--wait", "spin", "-t", "20"}));
        ASSERT_TRUE(servers.back()->wait_for_err("answering")) << *servers.back();
    }
    auto client = lab.start(lab.adapter, {bin("ruk-ping"), "client", "--kernel", "-i", "oxel0", "10.77.0.2:7000",
                                          "--count", "1", "--warmup", "0"});
    EXPECT_TRUE(client->wait_for_err("expect milliseconds")) << *client;
    // Others on this machine may ping as well.
    size_t spinners = 0, counted = 0;
    const size_t warning = client->err().find("warning: ");
    ASSERT_NE(warning, std::string::npos) << *client;
    ASSERT_EQ(sscanf(client->err().c_str() + warning, "warning: %zu spinners on %zu processors", &spinners, &counted),
              2);
    EXPECT_EQ(counted, static_cast<size_t>(processors));
    EXPECT_GT(spinners, counted);
}

TEST_F(PingTool, Cpu_ClientRunsOnThatProcessor)
{
    auto server = kernel_server();
    for (const int processor : allowed_processors()) {
        const std::string number = std::to_string(processor);
        auto client = soft({"ruk-ping", "client", "-i", "oxel0", "10.77.0.2:7000", "--count", "30", "--warmup", "2",
                            "--json", "--cpu", number});
        EXPECT_TRUE(client->finish()) << *client;
        expect_complete(*client, "libruk", 30);
        size_t measuring = 0;
        const json threads = parse(client->out())["threads"];
        for (const json &thread : threads)
            if (thread["name"] == "ruk-ping") {
                measuring++;
                EXPECT_EQ(thread["processor"], processor) << client->out();
            }
        EXPECT_EQ(measuring, 1u) << client->out();
        EXPECT_NE(client->err().find("on processor " + number + " "), std::string::npos) << *client;
        if (processor >= 3)
            break; // enough of them
    }
}

TEST_F(PingTool, SpinningClientSharesItsProcessor_IsWarnedOf_ASleepingOneNot)
{
    const std::string processor = std::to_string(allowed_processors().front());
    auto server = kernel_server();
    std::vector<std::unique_ptr<test_support::Program>> busy;
    for (int i = 0; i < 2; i++)
        busy.push_back(lab.start(lab.peer, {"taskset", "-c", processor, "sh", "-c", "while :; do :; done"}));
    for (const char *wait : {"spin", "block"}) {
        auto client = soft({"ruk-ping", "client", "-i", "oxel0", "10.77.0.2:7000", "--cpu", processor, "--count",
                            "1000000", "--timeout", "2000", "--wait", wait, "-t", "1"});
        EXPECT_TRUE(client->finish()) << *client;
        EXPECT_EQ(client->err().find("warning: the spinning client had only ") != std::string::npos,
                  std::string(wait) == "spin")
            << *client;
    }
}

TEST_F(PingTool, Cpu_ServerStaysOnThatProcessor)
{
    const int processor = allowed_processors().back();
    auto server = lab.start(lab.peer, {bin("ruk-ping"), "server", "--kernel", "-i", "peer0", "-p", "7000", "--cpu",
                                       std::to_string(processor)});
    ASSERT_TRUE(server->wait_for_err("answering on 10.77.0.2:7000")) << *server;
    cpu_set_t allowed;
    ASSERT_EQ(sched_getaffinity(server->pid(), sizeof allowed, &allowed), 0);
    EXPECT_EQ(CPU_COUNT(&allowed), 1);
    EXPECT_TRUE(CPU_ISSET(static_cast<size_t>(processor), &allowed));
}

TEST_F(PingTool, Cpu_ProcessorThatIsNotThere_IsRefused)
{
    for (const char *role : {"client", "server"}) {
        std::vector<std::string> command = {bin("ruk-ping"), role, "--kernel", "-i", "oxel0", "--cpu", "1023"};
        for (const char *more : std::string(role) == "client" ? std::vector<const char *>{"10.77.0.2:7000"}
                                                              : std::vector<const char *>{"-p", "7000"})
            command.push_back(more);
        auto program = lab.start(lab.adapter, command);
        EXPECT_TRUE(program->finish()) << *program;
        EXPECT_TRUE(program->exited_with(2)) << *program;
        EXPECT_EQ(program->err(), "ruk-ping: cannot run on processor 1023: Invalid argument\n");
    }
}
