// An application that dies at any moment leaves the host as it was, and its neighbour on the same interface alone.
#include "tool_lab.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <random>
#include <set>
#include <thread>

using namespace tool_test;

namespace {

std::set<std::string> entries(const std::string &directory)
{
    std::set<std::string> names;
    for (const auto &entry : std::filesystem::directory_iterator(directory))
        names.insert(entry.path().filename());
    return names;
}

class Crash : public ToolTest {
protected:
    void SetUp() override
    {
        ToolTest::SetUp();
        if (IsSkipped())
            return;
        neighbour_ = receiver({"-p", "6000"});
        to_neighbour_.emplace(lab, lab.peer, 40001);
        baseline_ = state();
        ASSERT_GE(std::stoi(baseline_), 1) << "the neighbour has no table of its own to compare with";
        shared_memory_ = entries("/dev/shm");
    }

    // What an adapter leaves on a host as long as it lives: its steering, packet sockets, and sockets of its ports.
    std::string state()
    {
        std::string tables = lab.run(lab.adapter, "nft list tables | wc -l"), sockets;
        lab.on(lab.adapter, [&] {
            for (const char *file : {"/proc/self/net/packet", "/proc/self/net/udp"}) {
                const std::string text = contents(file);
                sockets += std::to_string(std::count(text.begin(), text.end(), '\n')) + " ";
            }
        });
        return tables + sockets;
    }

    // The kernel gives up what a killed process had in its own time.
    bool clean()
    {
        for (int attempt = 0; attempt < 500; attempt++) {
            if (state() == baseline_)
                return true;
            usleep(10000);
        }
        return false;
    }

    // Sends to the other program on the interface all the while: also as the victim starts, dies, and its rules go.
    std::jthread traffic()
    {
        return std::jthread([this](const std::stop_token &over) {
            for (; !over.stop_requested(); usleep(1000)) {
                to_neighbour_.value().send("to the neighbour " + std::to_string(sent_), "10.77.0.1", 6000);
                sent_++;
            }
        });
    }
    // It gets all that is sent to it, in order.
    void expect_neighbour_has_all()
    {
        for (const unsigned sent = sent_; read_ < sent; read_++) {
            std::string line;
            ASSERT_TRUE(neighbour_->read_line(&line)) << *neighbour_;
            ASSERT_NE(line.find("\"to the neighbour " + std::to_string(read_) + "\""), std::string::npos) << line;
        }
    }

    std::unique_ptr<test_support::Program> neighbour_;
    std::string baseline_;
    std::set<std::string> shared_memory_;
    std::optional<KernelSocket> to_neighbour_;
    std::atomic<unsigned> sent_{0};
    unsigned read_ = 0;
};

} // namespace

TEST_F(Crash, ApplicationKilledAtRandomInstants_HostCleanAndNeighbourLosesNothing)
{
    const bool many = getenv("RUK_TEST_LONG") != nullptr;
    const unsigned rounds = many ? 1000 : 20;
    const unsigned seed = std::random_device()();
    RecordProperty("seed", std::to_string(seed));
    std::mt19937 random(seed);
    KernelSocket peer(lab, lab.peer, 40000);
    unsigned at_work = 0;
    const std::jthread to_the_neighbour = traffic();
    for (unsigned round = 0; round < rounds; round++) {
        SCOPED_TRACE("round " + std::to_string(round) + ", seed " + std::to_string(seed));
        const bool sender = round % 2 != 0;
        auto victim = sender ? soft({"ruk-send", "-i", "oxel0", "10.77.0.2:9", "--size", "100", "-n", "1000000000"})
                             : soft({"ruk-recv", "-i", "oxel0", "-p", "5000", "-g", "239.1.2.3"});
        // From the first instruction to well after it has begun its work.
        const unsigned instant_us = random() % 100000;
        for (unsigned waited = 0; waited < instant_us; waited += 2000) {
            peer.send("to the victim", "10.77.0.1", 5000);
            usleep(std::min(2000u, instant_us - waited));
        }
        at_work += state() != baseline_;
        kill(victim->pid(), SIGKILL);
        ASSERT_TRUE(victim->finish());
        ASSERT_TRUE(victim->killed_by(SIGKILL)) << *victim;

        ASSERT_TRUE(clean()) << "left: " << state() << "\nbefore: " << baseline_;
        ASSERT_EQ(entries("/dev/shm"), shared_memory_);
        KernelSocket kernel(lab, lab.adapter, 5000);
        peer.send("to the kernel", "10.77.0.1", 5000);
        ASSERT_EQ(kernel.receive(), "10.77.0.2:40000 to the kernel");
        expect_neighbour_has_all();
    }
    EXPECT_GE(at_work, rounds / 5); // kills during start-up alone would show little
    printf("%u kills, %u of them with sockets or filters in place; %u datagrams to the neighbour, 0 lost\n", rounds,
           at_work, sent_.load());
}
