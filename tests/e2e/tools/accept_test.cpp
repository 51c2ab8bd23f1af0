// ruk-accept: its whole run, on the software adapter.
#include "schema.h"
#include "tool_lab.h"

#include <csignal>

using namespace tool_test;
using nlohmann::json;

namespace {

class AcceptTool : public ToolTest {
protected:
    std::unique_ptr<test_support::Program> serve()
    {
        auto peer = lab.start(lab.peer, {bin("ruk-accept"), "peer", "-a", "10.77.0.2"});
        EXPECT_TRUE(peer->wait_for_err("serving")) << *peer;
        return peer;
    }

    ScratchDir scratch;
};

} // namespace

TEST_F(AcceptTool, SoftwareAdapter_EveryProbeRunsAndIsAsExpected)
{
    auto peer = serve();
    const std::string file = scratch.file("report.json");
    auto run = soft({"ruk-accept", "run", "-i", "oxel0", "10.77.0.2", "--minutes", "0.02", "--json", "-o", file});
    ASSERT_TRUE(run->finish(120000)) << *run;
    EXPECT_TRUE(run->exited_with(0)) << *run;
    expect_schema("ruk-accept", run->out());
    expect_schema("ruk-accept", contents(file));
    const json report = parse(run->out());
    EXPECT_EQ(report["result"], "as expected");
    const char *const probes[] = {"endpoints",  "delivery",      "event_order",      "coalescing", "poll",
                                  "blocking",   "filter_modes",  "kernel_duplicate", "tag_reuse",  "clock",
                                  "thresholds", "store_to_wire", "full_ring"};
    ASSERT_EQ(report["probes"].size(), std::size(probes));
    for (size_t i = 0; i < std::size(probes); i++) {
        EXPECT_EQ(report["probes"][i]["probe"], probes[i]);
        EXPECT_EQ(report["probes"][i]["result"], "as expected") << report["probes"][i];
        EXPECT_FALSE(report["probes"][i]["measured"].empty());
    }
    EXPECT_EQ(json::parse(contents(file)), report);

    // A report is not overwritten, and nothing runs for nothing.
    auto again = soft({"ruk-accept", "run", "-i", "oxel0", "10.77.0.2", "-o", file});
    ASSERT_TRUE(again->finish());
    EXPECT_TRUE(again->exited_with(2));
    EXPECT_EQ(again->err(), "ruk-accept: " + file + " is there already\n");
    peer->signal(SIGINT);
    EXPECT_TRUE(peer->finish());
    EXPECT_TRUE(peer->exited_with(0)) << *peer;
}

TEST_F(AcceptTool, NobodyAtTheOtherEnd_SaysWhatToRunThere)
{
    auto run = soft({"ruk-accept", "run", "-i", "oxel0", "10.77.0.2", "--minutes", "0.02"});
    ASSERT_TRUE(run->finish());
    EXPECT_TRUE(run->exited_with(2)) << *run;
    EXPECT_NE(run->err().find("no answer from 10.77.0.2:7700: is 'ruk-accept peer' running there?"), std::string::npos)
        << *run;
}

// An adapter that differs is found out: here one that the link takes frames from.
TEST_F(AcceptTool, WireThatLosesFrames_DeliveryDiffers)
{
    auto peer = serve();
    lab.run(lab.peer, "nft 'add table netdev loss; add chain netdev loss out "
                      "{ type filter hook egress device peer0 priority 0; }; "
                      "add rule netdev loss out ip protocol udp ip length > 1000 numgen inc mod 10 == 0 drop'");
    auto run =
        soft({"ruk-accept", "run", "-i", "oxel0", "10.77.0.2", "--minutes", "0.02", "--json", "--only", "delivery"});
    ASSERT_TRUE(run->finish(120000)) << *run;
    EXPECT_TRUE(run->exited_with(1)) << *run;
    expect_schema("ruk-accept", run->out());
    const json report = parse(run->out());
    EXPECT_EQ(report["result"], "differs");
    ASSERT_EQ(report["probes"].size(), 1u);
    EXPECT_EQ(report["probes"][0]["probe"], "delivery");
    EXPECT_EQ(report["probes"][0]["result"], "differs");
    EXPECT_LT(report["probes"][0]["measured"]["received"], report["probes"][0]["measured"]["sent"]);

    auto unknown = soft({"ruk-accept", "run", "-i", "oxel0", "10.77.0.2", "--only", "everything"});
    ASSERT_TRUE(unknown->finish());
    EXPECT_TRUE(unknown->exited_with(2));
    EXPECT_EQ(unknown->err(), "ruk-accept: there is no probe named 'everything'\n");
}
