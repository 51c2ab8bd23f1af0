// Datagrams from a program through library and adapter to a kernel socket on another host: whatever way of catching
// requests is asked for or refused, all that was accepted arrives, in order.
#include "lab.h"
#include "send_stream.h"

#include <arpa/inet.h>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

using test_support::LabTest;
using test_support::Program;

namespace {

using Clock = std::chrono::steady_clock;

struct Expectation {
    uint32_t threads = 1;
    uint32_t count = 1000; // of each thread
    uint32_t empty = 0;
    size_t largest = 1472;
};

size_t occurrences(const std::string &text, const std::string &part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + part.size()))
        count++;
    return count;
}

// A directory of the test's own.
class Scratch {
public:
    Scratch()
    {
        std::string name = std::filesystem::temp_directory_path() / "ruk-send-XXXXXX";
        if (mkdtemp(name.data()) == nullptr)
            abort();
        path_ = name;
    }
    ~Scratch() { std::filesystem::remove_all(path_); }
    std::filesystem::path file(const std::string &name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

class SendModes : public LabTest {
protected:
    void SetUp() override
    {
        LabTest::SetUp();
        if (IsSkipped())
            return;
        socket_ = lab.udp_socket(lab.peer, 5000);
        ASSERT_GE(socket_, 0);
    }
    void TearDown() override
    {
        if (socket_ >= 0)
            close(socket_);
    }

    std::unique_ptr<Program> start(const std::string &mode, const Expectation &wanted,
                                   const std::vector<std::string> &more = {},
                                   const std::vector<std::string> &settings = {})
    {
        std::vector<std::string> command = {programs_ + "/bin/rukrun", "--soft=oxel0"};
        if (!mode.empty())
            command.push_back("--mode=" + mode);
        const std::vector<std::string> program = {"--",
                                                  programs_ + "/tests/e2e_send_stream",
                                                  "oxel0",
                                                  lab.peer.address,
                                                  "5000",
                                                  "threads=" + std::to_string(wanted.threads),
                                                  "count=" + std::to_string(wanted.count),
                                                  "empty=" + std::to_string(wanted.empty),
                                                  "sizes=" + std::to_string(wanted.largest)};
        command.insert(command.end(), program.begin(), program.end());
        command.insert(command.begin(), as_user_.begin(), as_user_.end());
        command.insert(command.end(), more.begin(), more.end());
        // A sender built with the address sanitizer has the adapter before the sanitizer's run time.
        const char *given = getenv("ASAN_OPTIONS");
        const std::string sanitizer =
            std::string("ASAN_OPTIONS=") + (given != nullptr ? given : "") + ":verify_asan_link_order=0";
        std::vector<std::string> environment = {"RUK_SOFTNIC_ENDPOINTS=16", "LD_LIBRARY_PATH=" + programs_ + "/lib",
                                                sanitizer};
        environment.insert(environment.end(), settings.begin(), settings.end());
        return lab.start(lab.adapter, command, environment);
    }

    // Senders run as a user who may open packet sockets and steer frames, and nothing else; an ordinary user who runs
    // this test is one already. The user gets copies: this directory may be closed to others.
    void become_ordinary_user()
    {
        std::string map;
        std::getline(std::ifstream("/proc/self/uid_map"), map);
        std::istringstream fields(map);
        uint32_t inside = 1, outside = 1, count = 0;
        fields >> inside >> outside >> count;
        if (inside != outside || count < 65536)
            return;
        for (const char *dir : {"bin", "lib", "tests"})
            std::filesystem::create_directory(scratch_.file(dir));
        for (const char *file : {"bin/rukrun", "tests/e2e_send_stream"})
            std::filesystem::copy(std::string(RUK_BINARY_DIR "/") + file, scratch_.file(file));
        for (const auto &entry : std::filesystem::directory_iterator(RUK_BINARY_DIR "/lib"))
            if (entry.path().filename().string().find(".so") != std::string::npos)
                std::filesystem::copy(entry.path(), scratch_.file("lib") / entry.path().filename());
        for (const auto &entry : std::filesystem::recursive_directory_iterator(scratch_.file(".")))
            std::filesystem::permissions(entry.path(), std::filesystem::perms(0755));
        std::filesystem::permissions(scratch_.file("."), std::filesystem::perms(0755));
        programs_ = scratch_.file("");
        as_user_ = {"setpriv",
                    "--reuid=65534",
                    "--regid=65534",
                    "--clear-groups",
                    "--bounding-set=-all,+net_raw,+net_admin",
                    "--inh-caps=-all,+net_raw,+net_admin",
                    "--ambient-caps=-all,+net_raw,+net_admin",
                    "--no-new-privs",
                    "--"};
    }

    // Whether the host lets its ordinary users have watchpoints.
    static bool users_may_watch()
    {
        int paranoid = 0;
        std::ifstream("/proc/sys/kernel/perf_event_paranoid") >> paranoid;
        return paranoid < 3;
    }

    void grant(uint32_t have)
    {
        sockaddr_in to = {};
        to.sin_family = AF_INET;
        to.sin_port = htons(kCreditPort);
        inet_pton(AF_INET, lab.adapter.address, &to.sin_addr);
        sendto(socket_, &have, sizeof have, 0, reinterpret_cast<sockaddr *>(&to), sizeof to);
    }

    // Takes the whole stream and checks it: every datagram of each thread once, in order and unchanged. A sender that
    // has ended will not send what is missing.
    void receive(const Expectation &wanted, Program &sender, int seconds)
    {
        const uint32_t total = wanted.threads * wanted.count;
        std::vector<uint32_t> next(wanted.threads, 0);
        const auto skip_empty = [&](uint32_t n) { return wanted.empty != 0 && n % wanted.empty == 0 ? n + 1 : n; };
        std::vector<char> got(65536), expected(wanted.largest);
        uint32_t empty = 0, misplaced = 0;
        bool sender_ended = false;
        const auto deadline = Clock::now() + std::chrono::seconds(seconds);
        for (uint32_t have = 0; have < total;) {
            pollfd wait = {socket_, POLLIN, 0};
            ASSERT_LT(Clock::now(), deadline) << have << " of " << total << "\n" << udp_counters();
            if (poll(&wait, 1, 500) == 0) {
                ASSERT_FALSE(sender_ended) << have << " of " << total << ", and the sender has ended\n"
                                           << sender << udp_counters();
                sender_ended = sender.has_ended();
                grant(have); // what granted the last ones may have been lost
                continue;
            }
            const ssize_t len = recv(socket_, got.data(), got.size(), MSG_DONTWAIT);
            if (len < 0)
                continue;
            if (++have % 4 == 0)
                grant(have);
            if (len == 0) {
                empty++;
                continue;
            }
            ASSERT_GE(len, 8);
            uint32_t thread, n;
            memcpy(&thread, got.data(), 4);
            memcpy(&n, got.data() + 4, 4);
            ASSERT_LT(thread, wanted.threads);
            const uint32_t due = skip_empty(next[thread]);
            if (n != due && misplaced++ < 8)
                ADD_FAILURE() << "datagram " << n << " of thread " << thread << " instead of " << due << ", after "
                              << have;
            next[thread] = n + 1;
            const size_t size = stream_size(n, wanted.largest);
            fill_stream_payload(expected.data(), size, thread, n);
            ASSERT_EQ(static_cast<size_t>(len), size) << "datagram " << n << " of thread " << thread;
            ASSERT_EQ(memcmp(got.data(), expected.data(), size), 0) << "datagram " << n << " of thread " << thread;
        }
        EXPECT_EQ(misplaced, 0u);
        const uint32_t empty_each = wanted.empty != 0 ? (wanted.count + wanted.empty - 1) / wanted.empty : 0;
        EXPECT_EQ(empty, wanted.threads * empty_each);
        EXPECT_LE(recv(socket_, got.data(), got.size(), MSG_DONTWAIT), 0) << "more than was sent";
    }

    // What the receiving host has counted, for a failure's message.
    std::string udp_counters() { return lab.run(lab.peer, "grep ^Udp: /proc/net/snmp"); }

    void expect_accepted(Program &program, uint32_t count)
    {
        EXPECT_TRUE(program.finish()) << program;
        EXPECT_TRUE(program.exited_with(0)) << program;
        EXPECT_NE(program.out().find("accepted " + std::to_string(count) + "\n"), std::string::npos) << program;
    }

    std::unique_ptr<Program> expect_all_arrive(const std::string &mode, const Expectation &wanted,
                                               const std::vector<std::string> &more = {}, int seconds = 60,
                                               const std::vector<std::string> &settings = {})
    {
        auto program = start(mode, wanted, more, settings);
        receive(wanted, *program, seconds);
        expect_accepted(*program, wanted.threads * wanted.count);
        return program;
    }

    void expect_every_refusal_to_cost_nothing(bool watchpoints_there)
    {
        for (const char *mode : {"fast", "exact"})
            for (const char *refused : {"none", "perf", "uffd", "both"}) {
                SCOPED_TRACE(std::string(mode) + ", refused: " + refused);
                auto program = expect_all_arrive(mode, {2, 1000, 5, 1472}, {std::string("refuse=") + refused});
                const bool watchpoints =
                    watchpoints_there && (strcmp(refused, "none") == 0 || strcmp(refused, "uffd") == 0);
                EXPECT_EQ(occurrences(program->err(), "using fallback mode"), watchpoints ? 0u : 1u) << *program;
            }
    }

    int socket_ = -1;
    Scratch scratch_;
    std::string programs_ = RUK_BINARY_DIR;
    std::vector<std::string> as_user_; // what a sender is started by
};

// The figures that are promised, with RUK_TEST_LONG set; a part of them without.
uint32_t long_or(uint32_t full, uint32_t brief) { return getenv("RUK_TEST_LONG") != nullptr ? full : brief; }

TEST_F(SendModes, Fast_FourThreadsOnOneEndpoint_AllArriveInOrder)
{
    const Expectation wanted = {4, long_or(250000, 50000), 8, 1472};
    auto program = expect_all_arrive("fast", wanted, {}, 280);
    EXPECT_EQ(program->err().find("fallback"), std::string::npos) << *program;
}

TEST_F(SendModes, Exact_FourThreadsOnOneEndpoint_AllArriveInOrder)
{
    const Expectation wanted = {4, 25000, 8, 1472};
    auto program = expect_all_arrive("exact", wanted, {}, 280);
    EXPECT_EQ(program->err().find("fallback"), std::string::npos) << *program;
}

TEST_F(SendModes, Fallback_FourThreadsOnOneEndpoint_AllArriveInOrder)
{
    expect_all_arrive("fallback", {4, long_or(25000, 17000), 8, 1472}, {}, 280); // past the wrap of a 16-bit counter
}

// Every combination of what hosts refuse: said once by each endpoint that has to do without, and nothing is lost.
TEST_F(SendModes, WatchpointsOrUserfaultRefused_AllArriveInOrder) { expect_every_refusal_to_cost_nothing(true); }

TEST_F(SendModes, OrdinaryUser_WatchpointsOrUserfaultRefused_AllArriveInOrder)
{
    become_ordinary_user();
    expect_every_refusal_to_cost_nothing(users_may_watch());
}

TEST_F(SendModes, OrdinaryUser_NineEndpoints_FourFastTheOthersFallBack_AllArriveInOrder)
{
    become_ordinary_user();
    auto program = expect_all_arrive("fast", {9, 500, 5, 1472}, {"endpoints=9"});
    EXPECT_EQ(occurrences(program->err(), "using fallback mode"), users_may_watch() ? 5u : 9u) << *program;
}

TEST_F(SendModes, NineEndpoints_FourFastTheOthersFallBack_AllArriveInOrder)
{
    auto program = expect_all_arrive("fast", {9, 1000, 5, 1472}, {"endpoints=9"});
    EXPECT_EQ(occurrences(program->err(), "using fallback mode"), 5u) << *program;
}

TEST_F(SendModes, NineEndpoints_TwoExactTheOthersFallBack_AllArriveInOrder)
{
    auto program = expect_all_arrive("exact", {9, 600, 5, 1472}, {"endpoints=9"});
    EXPECT_EQ(occurrences(program->err(), "using fallback mode"), 7u) << *program;
}

TEST_F(SendModes, SendingThreadsBlockAllSignals_AllArriveInOrder)
{
    for (const char *mode : {"fast", "exact", "fallback"}) {
        SCOPED_TRACE(mode);
        expect_all_arrive(mode, {3, 1000, 3, 1472}, {"block_signals=1"});
    }
}

// A frame of more than a page does not fit the ring of the fast way.
TEST_F(SendModes, InterfaceWithLargeFrames_FastAskedFor_LargePayloadsArrive)
{
    lab.run(lab.adapter, "ip link set oxel0 mtu 9000");
    lab.run(lab.peer, "ip link set peer0 mtu 9000");
    for (const char *mode : {"fast", "exact", "fallback"}) {
        SCOPED_TRACE(mode);
        expect_all_arrive(mode, {2, 600, 0, 8972}, {"window=6"});
    }
}

// Four endpoints have watchpoints in the fast way, two in the exact one.
TEST_F(SendModes, LargestFramesOfTheFastWayAndOneByteMore_WayIsChosenByThem)
{
    for (const bool larger : {false, true}) {
        SCOPED_TRACE(larger);
        const std::string mtu = larger ? "4001" : "4000";
        lab.run(lab.adapter, "ip link set oxel0 mtu " + mtu);
        lab.run(lab.peer, "ip link set peer0 mtu " + mtu);
        auto program = expect_all_arrive("fast", {3, 100, 0, larger ? 3973u : 3972u}, {"window=6", "endpoints=3"});
        EXPECT_EQ(occurrences(program->err(), "softnic: oxel0: an MTU of 4001 needs the exact mode\n"),
                  larger ? 1u : 0u)
            << *program;
        EXPECT_EQ(occurrences(program->err(), "softnic: oxel0, endpoint 2: exact mode: no watchpoint"),
                  larger ? 1u : 0u)
            << *program;
        EXPECT_EQ(occurrences(program->err(), "using fallback mode"), larger ? 1u : 0u) << *program;
    }
}

TEST_F(SendModes, UnknownModeInTheEnvironment_SaidAndFastUsed)
{
    auto program = expect_all_arrive("", {1, 100, 0, 1472}, {}, 60, {"RUK_SOFTNIC_MODE=quick"});
    EXPECT_EQ(
        occurrences(program->err(), "softnic: RUK_SOFTNIC_MODE=quick is none of fast, exact, fallback; using fast\n"),
        1u)
        << *program;
    EXPECT_EQ(program->err().find("fallback mode"), std::string::npos) << *program;
}

// A ring has to hold two of the largest payloads in whole pages, and 4096 bytes are all that a request can carry
// without it.
TEST_F(SendModes, RingAndThresholdBeyondTheirLimits_LargeFrames_SaidAndAllArrive)
{
    lab.run(lab.adapter, "ip link set oxel0 mtu 9000");
    lab.run(lab.peer, "ip link set peer0 mtu 9000");
    for (const char *mode : {"exact", "fallback"}) {
        SCOPED_TRACE(mode);
        auto program = expect_all_arrive(mode, {2, 300, 0, 8972}, {"window=6"}, 60,
                                         {"RUK_SOFTNIC_SENDQ=4096", "RUK_SOFTNIC_THRESHOLD=8192"});
        EXPECT_EQ(occurrences(program->err(), "softnic: RUK_SOFTNIC_SENDQ=4096 is not a number from 24576 to 16777216, "
                                              "using 262144\n"),
                  1u)
            << *program;
        EXPECT_EQ(occurrences(program->err(),
                              "softnic: RUK_SOFTNIC_THRESHOLD=8192 is not a number from 0 to 4096, using 1024\n"),
                  1u)
            << *program;
        program = expect_all_arrive(mode, {2, 300, 0, 8972}, {"window=6"}, 60,
                                    {"RUK_SOFTNIC_SENDQ=24576", "RUK_SOFTNIC_THRESHOLD=4096"});
        EXPECT_EQ(program->err().find("RUK_SOFTNIC_"), std::string::npos) << *program;
    }
}

TEST_F(SendModes, SenderIsIdle_UsesNoProcessorTimeAndGoesOn)
{
    for (const char *mode : {"fast", "exact", "fallback"}) {
        SCOPED_TRACE(mode);
        auto program = expect_all_arrive(mode, {2, 400, 4, 1472}, {"rest_ms=1000"});
        const std::string key = "cpu_idle_us ";
        const size_t at = program->out().find(key);
        ASSERT_NE(at, std::string::npos) << *program;
        EXPECT_LT(strtoul(program->out().c_str() + at + key.size(), nullptr, 10), 10000u) << "of a second, in us";
    }
}

// What was accepted leaves, though the program ends at once.
TEST_F(SendModes, CloseOrExitRightAfterTheLastSend_AllArrive)
{
    for (const char *mode : {"fast", "exact", "fallback"})
        for (const char *end : {"close", "exit"}) {
            SCOPED_TRACE(std::string(mode) + ", " + end);
            expect_all_arrive(mode, {1, 40, 4, 1472}, {std::string("end=") + end, "window=0"});
        }
}

} // namespace
