// A long run through wire, preloaded adapter and library, at half of what they can do: nothing lost, nothing grown.
#include "tool_lab.h"

#include <algorithm>
#include <cstdio>

using namespace tool_test;
using nlohmann::json;

namespace {

struct Footprint {
    long resident_kb = 0;
    long descriptors = 0;
};

Footprint footprint(pid_t pid)
{
    const std::string process = "/proc/" + std::to_string(pid);
    Footprint f;
    const std::string status = contents(process + "/status");
    f.resident_kb = atol(status.substr(status.find("VmRSS:") + 6).c_str());
    for ([[maybe_unused]] const auto &fd : std::filesystem::directory_iterator(process + "/fd"))
        f.descriptors++;
    return f;
}

class Soak : public ToolTest {
protected:
    struct Run {
        uint64_t received = 0, disorder = 0;
        double per_second = 0;
        Footprint early, late;
        std::string ledger; // where a frame that is missing was lost
    };

    std::string ledger()
    {
        auto info = lab.start(lab.adapter, {bin("ruk-info"), "--stats"});
        EXPECT_TRUE(info->finish()) << *info;
        return info->out();
    }

    // Sends so many datagrams at that rate, 0 being as many as the sender can.
    Run run(uint64_t count, uint64_t rate)
    {
        const std::string program = std::string(RUK_BINARY_DIR) + "/tests/soak_program";
        auto receiver =
            lab.start(lab.adapter, {bin("rukrun"), "--soft=oxel0", "--", program, "receive", "10.77.0.1", "5000"},
                      {"RUK_SOFTNIC_RECVQ=16777216", "RUK_SOFTNIC_PACKETQ=67108864"});
        EXPECT_TRUE(receiver->wait_for_err("listening")) << *receiver;
        auto sender =
            lab.start(lab.peer, {program, "send", "10.77.0.1", "5000", std::to_string(count), std::to_string(rate)});
        Run result;
        const int seconds = rate != 0 ? static_cast<int>(count / rate) : 60;
        usleep(std::min(seconds * 1000000 / 10, 10000000));
        result.early = footprint(receiver->pid());
        std::string line;
        EXPECT_TRUE(sender->read_line(&line, (seconds * 2 + 60) * 1000)) << *sender; // all is sent
        result.late = footprint(receiver->pid());
        result.ledger = ledger();
        EXPECT_TRUE(receiver->finish()) << *receiver;
        EXPECT_TRUE(receiver->exited_with(0)) << *receiver;
        const json end = parse(receiver->out());
        result.received = end["received"];
        result.disorder = end["disorder"];
        result.per_second = static_cast<double>(result.received) * 1e9 / static_cast<double>(end["ns"]);
        return result;
    }
};

} // namespace

TEST_F(Soak, HalfTheCeiling_NothingIsLostAndNothingGrows)
{
    const char *datagrams = getenv("RUK_SOAK_DATAGRAMS"), *seconds = getenv("RUK_SOAK_SECONDS");
    const bool is_long = datagrams != nullptr || seconds != nullptr;
    double ceiling = 0;
    for (int i = 0; i < 2; i++)
        ceiling = std::max(ceiling, run(is_long ? 1000000 : 200000, 0).per_second);
    const auto rate = static_cast<uint64_t>(ceiling / 2);
    const uint64_t count = datagrams != nullptr ? strtoull(datagrams, nullptr, 10)
                                                : rate * (seconds != nullptr ? strtoull(seconds, nullptr, 10) : 3);
    ASSERT_GT(rate, 1000u);

    const Run half = run(count, rate);
    printf("ceiling %.0f/s; at %llu/s received %llu of %llu; resident %ld to %ld KiB, descriptors %ld to %ld\n",
           ceiling, static_cast<unsigned long long>(rate), static_cast<unsigned long long>(half.received),
           static_cast<unsigned long long>(count), half.early.resident_kb, half.late.resident_kb,
           half.early.descriptors, half.late.descriptors);
    EXPECT_EQ(half.received, count) << half.ledger;
    EXPECT_EQ(half.disorder, 0u);
    EXPECT_EQ(half.late.descriptors, half.early.descriptors);
    EXPECT_LE(half.late.resident_kb, half.early.resident_kb + 1024);
}
