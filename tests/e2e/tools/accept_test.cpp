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

    // The run with --json, of these probes alone.
    std::unique_ptr<test_support::Program> probe(const std::vector<std::string> &names,
                                                 const std::vector<std::string> &options = {})
    {
        std::vector<std::string> command = {"ruk-accept", "run",       "-i",   "oxel0",
                                            "10.77.0.2",  "--minutes", "0.02", "--json"};
        for (const std::string &name : names)
            command.insert(command.end(), {"--only", name});
        command.insert(command.end(), options.begin(), options.end());
        return soft(command);
    }

    // The entry of the only probe, which differs.
    json differing(const std::string &name)
    {
        auto run = probe({name});
        EXPECT_TRUE(run->finish(120000)) << *run;
        EXPECT_TRUE(run->exited_with(1)) << *run;
        expect_schema("ruk-accept", run->out());
        json report = parse(run->out());
        EXPECT_EQ(report["result"], "differs");
        EXPECT_EQ(report["probes"].size(), 1u);
        json entry = report["probes"][0];
        EXPECT_EQ(entry["probe"], name);
        EXPECT_EQ(entry["result"], "differs") << entry;
        return entry;
    }

    // Frames that leave the other host and match are lost.
    void lose_of_peer(const std::string &match)
    {
        lab.run(lab.peer, "nft 'add table netdev loss; add chain netdev loss out "
                          "{ type filter hook egress device peer0 priority 0; }; "
                          "add rule netdev loss out " +
                              match + " drop'");
    }

    // What a kernel drops that it would hand to its programs.
    void drop_at(const test_support::LabHost &host, const std::string &match)
    {
        lab.run(host, "nft 'add table ip deaf; add chain ip deaf in { type filter hook input priority 0; }; "
                      "add rule ip deaf in " +
                          match + " drop'");
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
    // The datagrams of that probe are 2 ms apart; the host's own clock may be steered meanwhile.
    const json &rate = report["probes"][9]["measured"]["rate"];
    EXPECT_GT(rate["host_ns"], 900'000'000);
    EXPECT_LT(std::abs(rate["deviation_ppb"].get<int64_t>()), 1'000'000) << rate;
    EXPECT_EQ(report["probes"][0]["measured"]["opened_beside_this_one"], 7);

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

// An adapter that differs is found out: here ones that the link or a host takes frames from.
TEST_F(AcceptTool, WireThatLosesFrames_DeliveryDiffers)
{
    auto peer = serve();
    lose_of_peer("ip protocol udp ip length > 1000 numgen inc mod 10 == 0");
    const json measured = differing("delivery")["measured"];
    EXPECT_EQ(measured["sent"], 1473);
    EXPECT_LT(measured["received"], measured["sent"]);
}

TEST_F(AcceptTool, GroupsThatDoNotArrive_FilterModesDiffer)
{
    auto peer = serve();
    lose_of_peer("ip daddr 239.255.77.77");
    const json measured = differing("filter_modes")["measured"];
    for (const char *mode : {"normal", "allmulti", "raw"}) {
        EXPECT_EQ(measured[mode]["group_not_joined"], 0) << mode;
        EXPECT_GE(measured[mode]["own"], 10) << mode;
        if (mode != std::string("raw"))
            EXPECT_EQ(measured[mode]["other_port"], 0) << mode;
    }
    EXPECT_GE(measured["raw"]["other_port"], 10);
}

TEST_F(AcceptTool, KernelThatGetsNoCopy_KernelDuplicateDiffers)
{
    auto peer = serve();
    drop_at(lab.adapter, "udp length 72");
    const json measured = differing("kernel_duplicate")["measured"];
    EXPECT_EQ(measured["asked_for"], json({{"library", 10}, {"kernel", 0}}));
    EXPECT_EQ(measured["not_asked_for"], json({{"library", 10}, {"kernel", 0}}));
}

TEST_F(AcceptTool, LongDatagramsThatDoNotArrive_ThresholdsDiffer)
{
    auto peer = serve();
    drop_at(lab.peer, "udp dport 7701 udp length > 1478");
    const json measured = differing("thresholds")["measured"];
    uint32_t lost = 0;
    for (const json &size : measured["sizes"])
        lost += size.get<int>() > 1470;
    EXPECT_GE(lost, 2u);
    EXPECT_EQ(measured["failed"], lost);
}

TEST_F(AcceptTool, DatagramsThatGetLost_BlockingDiffers)
{
    auto peer = serve();
    lose_of_peer("udp length 72 numgen inc mod 10 == 0");
    EXPECT_EQ(differing("blocking")["measured"], json({{"sent", 50}, {"received", 45}}));
}

// ------------------------------------------------------------------ what goes wrong on the way

TEST_F(AcceptTool, PeerThatEndsMidway_WhatWasMeasuredIsReportedWithTheReasons)
{
    auto peer = serve();
    drop_at(lab.peer, "udp dport 7701"); // nothing is echoed: five seconds until that probe gives up
    const std::string file = scratch.file("report.json");
    auto run = probe({"delivery", "store_to_wire", "full_ring"}, {"-o", file});
    ASSERT_TRUE(run->wait_for_err("2 of 3: store_to_wire", 60000)) << *run;
    peer->signal(SIGKILL);
    ASSERT_TRUE(run->finish(120000)) << *run;
    EXPECT_TRUE(run->exited_with(1)) << *run;
    expect_schema("ruk-accept", contents(file));
    const json report = json::parse(contents(file));
    EXPECT_EQ(report, parse(run->out()));
    EXPECT_EQ(report["result"], "failed");
    ASSERT_EQ(report["probes"].size(), 3u);
    EXPECT_EQ(report["probes"][0]["result"], "as expected");
    EXPECT_EQ(report["probes"][0]["measured"]["received"], 1473);
    EXPECT_EQ(report["probes"][1]["result"], "failed");
    EXPECT_EQ(report["probes"][1]["reason"], "nothing came back from the peer, five times in a row");
    EXPECT_EQ(report["probes"][1]["measured"]["64"]["lost"], 5);
    EXPECT_EQ(report["probes"][1]["measured"]["64"]["completed"], 5);
    EXPECT_EQ(report["probes"][2]["result"], "failed");
    EXPECT_EQ(report["probes"][2]["reason"], "no answer from 10.77.0.2:7700: is 'ruk-accept peer' running there?");
}

TEST_F(AcceptTool, InterruptMidway_WhatWasMeasuredIsReported)
{
    auto peer = serve();
    drop_at(lab.peer, "udp dport 7701");
    const std::string file = scratch.file("report.json");
    auto run = probe({"delivery", "store_to_wire", "full_ring"}, {"-o", file});
    ASSERT_TRUE(run->wait_for_err("2 of 3: store_to_wire", 60000)) << *run;
    // Already there, in case that the run does not get so far as to end in order.
    const json before = json::parse(contents(file));
    EXPECT_EQ(before["result"], "unfinished");
    ASSERT_EQ(before["probes"].size(), 1u);
    EXPECT_EQ(before["probes"][0]["measured"]["received"], 1473);

    run->signal(SIGINT);
    ASSERT_TRUE(run->finish(60000)) << *run;
    EXPECT_TRUE(run->exited_with(1)) << *run;
    expect_schema("ruk-accept", contents(file));
    const json report = json::parse(contents(file));
    EXPECT_EQ(report, parse(run->out()));
    EXPECT_EQ(report["result"], "unfinished");
    ASSERT_EQ(report["probes"].size(), 2u);
    EXPECT_EQ(report["probes"][0], before["probes"][0]);
    EXPECT_EQ(report["probes"][1]["result"], "failed");
    EXPECT_EQ(report["probes"][1]["reason"], "stopped");
    EXPECT_TRUE(report["probes"][1]["measured"].contains("64"));
}

TEST_F(AcceptTool, ReportThatCannotBeWritten_IsFoundOutBeforeTheRun)
{
    const std::string file = scratch.file("missing") + "/report.json";
    auto run = probe({"delivery"}, {"-o", file});
    ASSERT_TRUE(run->finish());
    EXPECT_TRUE(run->exited_with(2)) << *run;
    EXPECT_NE(run->err().find("cannot write " + file), std::string::npos) << *run;
    EXPECT_EQ(run->err().find("delivery ..."), std::string::npos) << *run;
}

TEST_F(AcceptTool, ProbeOfNoSuchName_IsAUsageError)
{
    auto unknown = soft({"ruk-accept", "run", "-i", "oxel0", "10.77.0.2", "--only", "everything"});
    ASSERT_TRUE(unknown->finish());
    EXPECT_TRUE(unknown->exited_with(2));
    EXPECT_EQ(unknown->err(), "ruk-accept: there is no probe named 'everything'\n");
}
