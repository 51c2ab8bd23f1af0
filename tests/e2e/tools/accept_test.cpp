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
                                                 const std::vector<std::string> &options = {},
                                                 const std::string &minutes = "0.02")
    {
        std::vector<std::string> command = {"ruk-accept", "run",       "-i",    "oxel0",
                                            "10.77.0.2",  "--minutes", minutes, "--json"};
        for (const std::string &name : names)
            command.insert(command.end(), {"--only", name});
        command.insert(command.end(), options.begin(), options.end());
        return how_.empty() ? soft(command) : soft_differing(how_, command);
    }

    // The entry of the only probe, which differs, over this adapter.
    json differing(const std::string &name, const std::string &how = {})
    {
        how_ = how;
        auto run = probe({name});
        how_.clear();
        EXPECT_TRUE(run->finish(120000)) << *run;
        EXPECT_TRUE(run->exited_with(1)) << *run;
        expect_schema("ruk-accept", run->out());
        json report = parse(run->out());
        EXPECT_EQ(report["result"], "differs");
        EXPECT_EQ(report["probes"].size(), 1u);
        json entry = report["probes"][0];
        EXPECT_EQ(entry["probe"], name);
        EXPECT_EQ(entry["result"], "differs") << entry;
        said_ = run->err();
        return entry;
    }

    // The entries of these probes over this adapter, of which the first fails.
    json failing(const std::vector<std::string> &names, const std::string &how)
    {
        how_ = how;
        ScratchDir place;
        const std::string file = place.file("report.json");
        auto run = probe(names, {"-o", file});
        how_.clear();
        EXPECT_TRUE(run->finish(120000)) << *run;
        EXPECT_TRUE(run->exited_with(1)) << *run;
        expect_schema("ruk-accept", run->out());
        json report = parse(run->out());
        EXPECT_EQ(json::parse(contents(file)), report);
        EXPECT_EQ(report["result"], "failed");
        EXPECT_EQ(report["probes"].size(), names.size());
        EXPECT_EQ(report["probes"][0]["result"], "failed") << report;
        return report["probes"];
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

    // A peer that says yes to every request, by this Python program beside it: payload(number, size) is what the
    // peer sends, s its socket of requests, run what asks.
    std::unique_ptr<test_support::Program> serve_by(const std::string &program)
    {
        auto peer = lab.start(lab.peer, {"python3", "-B", "-c",
                                         "import socket, struct, time\n"
                                         "def payload(number, size):\n"
                                         "    state, data = (number * 2654435761 + 1) & 0xffffffff, bytearray()\n"
                                         "    for _ in range(size):\n"
                                         "        state = (state * 1664525 + 1013904223) & 0xffffffff\n"
                                         "        data.append(state >> 24)\n"
                                         "    return struct.pack('<I', number) + data[4:] if size >= 4 else data\n"
                                         "def bound(port):\n"
                                         "    made = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
                                         "    made.bind(('10.77.0.2', port))\n"
                                         "    return made\n"
                                         "s, echo = bound(7700), bound(7701)\n"
                                         "print('serving', flush=True)\n" +
                                             program});
        EXPECT_TRUE(peer->wait_for_out("serving")) << *peer;
        return peer;
    }

    // What the only probe, which is as expected, measures though the peer is held up for 1.6 s soon after it began.
    json held_up(const std::string &name, const std::string &minutes)
    {
        auto peer = serve();
        auto run = probe({name}, {}, minutes);
        EXPECT_TRUE(run->wait_for_err("1 of 1: " + name, 60000)) << *run;
        peer->signal(SIGSTOP);
        usleep(1'600'000);
        EXPECT_FALSE(run->has_ended()) << "it was not held up";
        peer->signal(SIGCONT);
        EXPECT_TRUE(run->finish(60000)) << *run;
        EXPECT_TRUE(run->exited_with(0)) << *run;
        return entry_of(parse(run->out()), name)["measured"];
    }

    // The entry of a probe in a report.
    static json entry_of(const json &report, const std::string &name)
    {
        for (const json &entry : report.at("probes"))
            if (entry.at("probe") == name)
                return entry;
        ADD_FAILURE() << "no probe " << name;
        return {};
    }

    // VLAN 5 of both hosts. There are no such interfaces to be had here: the adapter's is one of that name, and a
    // program puts the tag on what leaves the other host's.
    std::unique_ptr<test_support::Program> join_vlan()
    {
        lab.run(lab.adapter, "ip link add oxel0.5 address 02:6f:78:00:00:01 type veth peer name other5"
                             " && ip addr add 10.77.5.1/24 dev oxel0.5 && ip link set oxel0.5 up && ip link set other5 "
                             "up");
        lab.run(lab.peer, "ip link add peer0.5 type veth peer name trunk5 && ip addr add 10.77.5.2/24 dev peer0.5"
                          " && ip link set peer0.5 up && ip link set trunk5 up"
                          " && ip neigh add 10.77.5.1 lladdr 02:6f:78:00:00:01 dev peer0.5 nud permanent");
        auto tagger = lab.start(lab.peer, {"python3", "-B", "-c",
                                           "import socket\n"
                                           "inner = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, socket.htons(3))\n"
                                           "inner.bind(('trunk5', 3))\n"
                                           "wire = socket.socket(socket.AF_PACKET, socket.SOCK_RAW, 0)\n"
                                           "wire.bind(('peer0', 0))\n"
                                           "print('tagging', flush=True)\n"
                                           "while True:\n"
                                           "    frame = inner.recv(2048)\n"
                                           "    wire.send(frame[:12] + b'\\x81\\x00\\x00\\x05' + frame[12:])\n"});
        EXPECT_TRUE(tagger->wait_for_out("tagging")) << *tagger;
        return tagger;
    }

    ScratchDir scratch;
    std::string how_;  // the adapter differs
    std::string said_; // on standard error by the last run that differed

    void expect_passed_over(const json &entry)
    {
        EXPECT_EQ(entry["reason"], "an event of more than 5 packets passed over, which the library does not take");
        EXPECT_NE(said_.find("ruk-accept: an event of 6 packets is passed over: the library takes 5 at most\n"),
                  std::string::npos)
            << said_;
    }
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
                                  "blocking",   "filter_modes",  "kernel_duplicate", "group",      "source_group",
                                  "broadcast",  "vlan",          "next_hop",         "tag_reuse",  "clock",
                                  "thresholds", "store_to_wire", "full_ring"};
    ASSERT_EQ(report["probes"].size(), std::size(probes));
    for (size_t i = 0; i < std::size(probes); i++) {
        const json &entry = report["probes"][i];
        EXPECT_EQ(entry["probe"], probes[i]);
        EXPECT_FALSE(entry["expected"].get<std::string>().empty()) << entry;
        if (entry["probe"] == "vlan")
            continue;
        EXPECT_EQ(entry["result"], "as expected") << entry;
        EXPECT_FALSE(entry["measured"].empty());
    }
    EXPECT_EQ(entry_of(report, "vlan")["result"], "not probed");
    EXPECT_EQ(entry_of(report, "vlan")["reason"], "the adapter has no interface of another VLAN than oxel0's with an "
                                                  "address (oxel0.5 would be one)");
    EXPECT_EQ(entry_of(report, "group")["measured"],
              json({{"before", 0}, {"joined", 10}, {"other_port", 0}, {"left", 0}, {"joined_again", 10}}));
    EXPECT_EQ(entry_of(report, "source_group")["measured"],
              json({{"of_the_source", 10}, {"left", 0}, {"of_another_source", 0}, {"kept_away_by_the_library", 10}}));
    EXPECT_EQ(entry_of(report, "broadcast")["measured"]["asked_for"]["to_all"], 10);
    EXPECT_EQ(entry_of(report, "broadcast")["measured"]["not_asked_for"], json({{"to_all", 0}, {"to_the_subnet", 0}}));
    const json hop = entry_of(report, "next_hop")["measured"];
    EXPECT_EQ(hop["next_hop"], "10.77.0.2");
    EXPECT_EQ(hop["mac"], "02:00:00:00:00:02");
    EXPECT_EQ(hop["resolved"], "02:00:00:00:00:02");
    EXPECT_EQ(hop["driver_says"], "ENOTTY");
    EXPECT_EQ(hop["echoed"], true);
    EXPECT_NE(lab.run(lab.adapter, "ip neigh show to 10.77.0.2 dev oxel0").find("PERMANENT"), std::string::npos);
    EXPECT_EQ(json::parse(contents(file)), report);
    // The datagrams of that probe are 2 ms apart; the host's own clock may be steered meanwhile.
    const json rate = entry_of(report, "clock")["measured"]["rate"];
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

// Requests come from anybody, whatever is in them.
TEST_F(AcceptTool, RequestThatNoRunMakes_IsRefused_AndThePeerGoesOn)
{
    auto peer = serve();
    KernelSocket asker(lab, lab.adapter, 40000), target(lab, lab.adapter, 5000);
    for (const char *request :
         {"send 5000 1 -5 0 0", "send 5000 1 -2 0 0", "send 5000 1 1473 0 0", "send 5000 5000001 64 0 0",
          "send 5000 -1 64 0 0", "send 5000 1 64 10001 0", "send 65536 1 64 0 0", "send 5000 1"}) {
        asker.send(request, "10.77.0.2", 7700);
        EXPECT_EQ(asker.receive(), "10.77.0.2:7700 no") << request;
    }
    asker.send("send 5000 1 4 10000 7", "10.77.0.2", 7700);
    EXPECT_EQ(asker.receive(), "10.77.0.2:7700 ok");
    EXPECT_EQ(target.receive(), std::string("10.77.0.2:7700 \x07\0\0\0", 19)) << "and nothing before it";
    asker.send("hello", "10.77.0.2", 7700);
    EXPECT_EQ(asker.receive(), "10.77.0.2:7700 ok");
    peer->signal(SIGINT);
    EXPECT_TRUE(peer->finish());
    EXPECT_TRUE(peer->exited_with(0)) << *peer;
}

// As when the answer was late.
TEST_F(AcceptTool, RequestThatIsRepeated_IsAnsweredAndServedOnce)
{
    auto peer = serve();
    KernelSocket asker(lab, lab.adapter, 40000), another(lab, lab.adapter, 40001), target(lab, lab.adapter, 5000);
    for (KernelSocket *socket : {&asker, &asker, &another}) {
        socket->send("send 5000 1 4 0 7", "10.77.0.2", 7700);
        EXPECT_EQ(socket->receive(), "10.77.0.2:7700 ok");
    }
    asker.send("send 5000 1 4 0 8", "10.77.0.2", 7700);
    EXPECT_EQ(asker.receive(), "10.77.0.2:7700 ok");
    for (const char number : {'\7', '\7', '\10'})
        EXPECT_EQ(target.receive(), std::string("10.77.0.2:7700 ") + number + std::string(3, '\0'));
}

// An adapter that differs is found out: here ones that the link or a host takes frames from.
TEST_F(AcceptTool, WireThatLosesFrames_DeliveryDiffers)
{
    auto peer = serve();
    lose_of_peer("ip protocol udp ip length > 1460 numgen inc mod 10 == 0"); // each piece with a loss costs time
    const json measured = differing("delivery")["measured"];
    EXPECT_EQ(measured["sent"], 1473);
    EXPECT_LT(measured["received"], measured["sent"]);
}

// What one request left out does not count against those that follow.
TEST_F(AcceptTool, OneDatagramGetsLost_DeliveryTellsOfThatOneAlone)
{
    auto peer = serve();
    lose_of_peer("udp length 108");
    EXPECT_EQ(differing("delivery")["measured"],
              json({{"sent", 1473}, {"received", 1472}, {"damaged", 0}, {"out_of_order", 0}}));
}

TEST_F(AcceptTool, DatagramsOutOfOrderTwiceAndDamaged_DeliveryTellsHowMany)
{
    auto peer = serve_by("while True:\n"
                         "    words, asker = s.recvfrom(256)\n"
                         "    words = words.decode().split()\n"
                         "    s.sendto(b'ok', asker)\n"
                         "    if words[0] != 'send':\n"
                         "        continue\n"
                         "    first = int(words[5])\n"
                         "    numbers = list(range(first, first + int(words[2])))\n"
                         "    data = [payload(n, n) for n in numbers]\n"
                         "    if first == 0:\n"
                         "        data[10], data[11] = data[11], data[10]\n"
                         "        data.insert(20, data[20])\n"
                         "        data[26] = data[26][:-1]\n" // too short: 25 of them, one more in front
                         "        data[28] = data[28][:-1] + b'?'\n"
                         "    for datagram in data:\n"
                         "        s.sendto(datagram, (asker[0], int(words[1])))\n");
    EXPECT_EQ(differing("delivery")["measured"],
              json({{"sent", 1473}, {"received", 1474}, {"damaged", 2}, {"out_of_order", 2}}));
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

TEST_F(AcceptTool, RunInText_EachProbeIsALineOfAssumptionFindingAndVerdict)
{
    auto peer = serve();
    auto run = soft({"ruk-accept", "run", "-i", "oxel0", "10.77.0.2", "--minutes", "0.02", "--only", "group", "--only",
                     "vlan", "--only", "blocking"});
    ASSERT_TRUE(run->finish(120000)) << *run;
    EXPECT_TRUE(run->exited_with(0)) << *run;
    EXPECT_EQ(run->out(),
              "as expected  blocking          assumed: a receiver that sleeps wakes for each datagram; seen: "
              "{\"sent\":50,\"received\":50}\n"
              "as expected  group             assumed: a joined group's datagrams to the channel's port arrive once, "
              "none before the join, to another port, or after the leave; seen: "
              "{\"before\":0,\"joined\":10,\"other_port\":0,\"left\":0,\"joined_again\":10}\n"
              "not probed   vlan              assumed: datagrams reach the channels of their own VLAN alone; seen: {}; "
              "the adapter has no interface of another VLAN than oxel0's with an address (oxel0.5 would be one)\n");
    lose_of_peer("udp length 72 numgen inc mod 10 == 0");
    auto worse = soft({"ruk-accept", "run", "-i", "oxel0", "10.77.0.2", "--minutes", "0.02", "--only", "blocking"});
    ASSERT_TRUE(worse->finish(120000)) << *worse;
    EXPECT_TRUE(worse->exited_with(1)) << *worse;
    EXPECT_EQ(worse->out(),
              "DIFFERS      blocking          assumed: a receiver that sleeps wakes for each datagram; seen: "
              "{\"sent\":50,\"received\":45}\n");
}

TEST_F(AcceptTool, VlanOnBothHosts_IsProbedAndAsExpected)
{
    auto tagger = join_vlan();
    auto peer = lab.start(lab.peer, {bin("ruk-accept"), "peer"});
    ASSERT_TRUE(peer->wait_for_err("serving")) << *peer;
    auto run = probe({"vlan"});
    ASSERT_TRUE(run->finish(120000)) << *run;
    EXPECT_TRUE(run->exited_with(0)) << *run;
    expect_schema("ruk-accept", run->out());
    const json entry = entry_of(parse(run->out()), "vlan"), all = {{"arrived", 10}, {"on_the_other_vlan", 0}};
    EXPECT_EQ(entry["result"], "as expected");
    const json own = {{"interface", "oxel0"}, {"vlan", 0}, {"unicast", all}, {"group", all}};
    const json other = {{"interface", "oxel0.5"}, {"vlan", 5}, {"unicast", all}, {"group", all}};
    EXPECT_EQ(entry["measured"], json({{"own", own}, {"other", other}}));
}

TEST_F(AcceptTool, VlanOfTheAdapterAlone_IsNotProbed)
{
    lab.run(lab.adapter, "ip link add oxel0.5 address 02:6f:78:00:00:01 type veth peer name other5"
                         " && ip addr add 10.77.5.1/24 dev oxel0.5 && ip link set oxel0.5 up && ip link set other5 up");
    auto peer = serve();
    auto run = probe({"vlan"});
    ASSERT_TRUE(run->finish(120000)) << *run;
    EXPECT_TRUE(run->exited_with(1)) << *run;
    expect_schema("ruk-accept", run->out());
    const json entry = entry_of(parse(run->out()), "vlan");
    EXPECT_EQ(entry["result"], "not probed");
    EXPECT_EQ(entry["reason"], "the peer has no interface on the subnet of 10.77.5.1, which is oxel0.5's");
}

TEST_F(AcceptTool, NextHopWithoutAPermanentEntry_IsResolvedAndTheEntryStaysOrdinary)
{
    lab.run(lab.adapter, "ip neigh del 10.77.0.2 dev oxel0");
    auto peer = serve();
    auto run = probe({"next_hop"});
    ASSERT_TRUE(run->finish(120000)) << *run;
    EXPECT_TRUE(run->exited_with(0)) << *run;
    EXPECT_EQ(entry_of(parse(run->out()), "next_hop")["result"], "as expected") << *run;
    EXPECT_EQ(lab.run(lab.adapter, "ip neigh show to 10.77.0.2 dev oxel0").find("PERMANENT"), std::string::npos);
}

// ------------------------------------------------------------------ adapters that differ by themselves

TEST_F(AcceptTool, EndpointThatIsNotThere_EndpointsDiffer)
{
    auto peer = serve();
    const json measured = differing("endpoints", "one endpoint too many")["measured"];
    EXPECT_EQ(measured["board"], 9);
    EXPECT_EQ(measured["opened_beside_this_one"], 7);
    EXPECT_EQ(measured["refusal"], "EINVAL");
}

// The library would wait for it without end.
TEST_F(AcceptTool, EventThatIsNeverCompleted_EventOrderFailsAndNothingIsReceivedAfterIt)
{
    auto peer = serve();
    const json probes =
        failing({"event_order", "coalescing", "blocking", "vlan", "full_ring"}, "an event is never completed");
    EXPECT_EQ(probes[0]["reason"], "an event was not complete after a second");
    EXPECT_EQ(probes[0]["measured"]["events"], 1);
    EXPECT_EQ(probes[0]["measured"]["seen_before_complete"], 1);
    EXPECT_GE(probes[0]["measured"]["wait_for_completion_ns"]["max"], 1'000'000'000);
    EXPECT_EQ(probes[0]["measured"]["bad_length"], 0);
    for (const size_t later : {1, 2, 4}) {
        EXPECT_EQ(probes[later]["result"], "failed") << probes[later];
        EXPECT_EQ(probes[later]["reason"], "nothing is received any more: an event was not complete after a second");
    }
    EXPECT_EQ(probes[3]["result"], "not probed");
}

// The library would go where the length says.
TEST_F(AcceptTool, EventOfABadLength_EventOrderFailsAndNothingIsReceivedAfterIt)
{
    auto peer = serve();
    const json none = failing({"event_order", "full_ring"}, "an event of no length");
    EXPECT_EQ(none[0]["measured"]["bad_length"], 1);
    EXPECT_EQ(none[0]["reason"], "an event has 0 bytes, which is no multiple of 64");
    EXPECT_EQ(none[1]["reason"], "nothing is received any more: an event has 0 bytes, which is no multiple of 64");
    const json odd = failing({"event_order", "store_to_wire"}, "an event of 100 bytes");
    EXPECT_EQ(odd[0]["measured"]["bad_length"], 1);
    EXPECT_EQ(odd[0]["reason"], "an event has 100 bytes, which is no multiple of 64");
    EXPECT_EQ(odd[1]["result"], "failed");
}

TEST_F(AcceptTool, EventOfNoLength_AnyProbeThatReceivesFails)
{
    auto peer = serve();
    const json probes = failing({"filter_modes"}, "an event of no length");
    EXPECT_EQ(probes[0]["reason"], "an event has 0 bytes, which is no multiple of 64");
}

// The library has room for five packets and does not look how many there are: it is never given such an event.
TEST_F(AcceptTool, EventOfSixPackets_IsPassedOver_EventOrderAndCoalescingDiffer)
{
    auto peer = serve();
    const json ordered = differing("event_order", "an event of six packets"), order = ordered["measured"];
    expect_passed_over(ordered);
    EXPECT_EQ(order["bad_packet_count"], 1);
    EXPECT_EQ(order["bad_length"], 0);
    EXPECT_GT(order["events"], 10) << "what follows is taken";
    const json coalescing = differing("coalescing", "an event of six packets"), coalesced = coalescing["measured"];
    expect_passed_over(coalescing);
    EXPECT_EQ(coalesced["events_by_packets"]["6"], 1) << coalesced;
    EXPECT_GT(coalesced["received"], 0);
    EXPECT_LT(coalesced["received"], 5000);
}

TEST_F(AcceptTool, EventOfSixPackets_IsPassedOver_DeliveryDiffers)
{
    auto peer = serve();
    const json entry = differing("delivery", "an event of six packets"), measured = entry["measured"];
    expect_passed_over(entry);
    EXPECT_EQ(measured["sent"], 1473);
    EXPECT_LT(measured["received"], 1473);
}

// The library's own sleep ends with it: the receiver never comes back, and the run goes on without it.
TEST_F(AcceptTool, SleepingReceiverThatIsHeldUp_BlockingDiffersAndTheRunGoesOn)
{
    auto peer = serve();
    how_ = "an event that wakes a sleeper is never completed";
    auto run = probe({"blocking", "delivery"});
    how_.clear();
    ASSERT_TRUE(run->finish(60000)) << *run;
    EXPECT_TRUE(run->exited_with(1)) << *run;
    expect_schema("ruk-accept", run->out());
    const json report = parse(run->out());
    EXPECT_EQ(entry_of(report, "blocking")["result"], "differs");
    EXPECT_EQ(entry_of(report, "blocking")["measured"], json({{"sent", 50}, {"received", 0}}));
    EXPECT_EQ(entry_of(report, "delivery")["result"], "as expected");
}

TEST_F(AcceptTool, NoEndpointForASleepingReceiver_BlockingFailsWithTheReason)
{
    auto peer = serve();
    how_ = "one endpoint only";
    auto run = probe({"blocking"});
    how_.clear();
    ASSERT_TRUE(run->finish(60000)) << *run;
    EXPECT_TRUE(run->exited_with(1)) << *run;
    const json entry = entry_of(parse(run->out()), "blocking");
    EXPECT_EQ(entry["result"], "failed");
    EXPECT_EQ(entry["reason"], "the sleeping receiver: every endpoint of the adapter behind oxel0 is in use");
}

// Behind a frame that it drops the library goes on by itself.
TEST_F(AcceptTool, UnfitEventBehindADroppedFrame_IsFoundAllTheSame)
{
    auto peer = serve();
    expect_passed_over(differing("delivery", "behind a dropped frame, an event of six packets"));
    const std::pair<const char *, const char *> unfit[] = {
        {"an event is never completed", "an event was not complete after a second"},
        {"an event of no length", "an event has 0 bytes, which is no multiple of 64"},
        {"an event of 100 bytes", "an event has 100 bytes, which is no multiple of 64"},
    };
    for (const auto &[how, reason] : unfit) {
        const json probes = failing({"delivery", "full_ring"}, std::string("behind a dropped frame, ") + how);
        EXPECT_EQ(probes[0]["reason"], reason);
        EXPECT_EQ(probes[1]["reason"], std::string("nothing is received any more: ") + reason);
    }
}

// An unbind waits for each event of the ring, and goes from one to the next by their lengths.
TEST_F(AcceptTool, UnfitEventBehindTheOneThatIsTaken_AnUnbindDoesNotMeetIt)
{
    auto peer = serve();
    const json never = failing({"tag_reuse", "full_ring"}, "second, an event is never completed");
    EXPECT_EQ(never[0]["reason"], "an event was not complete after a second");
    EXPECT_EQ(never[0]["measured"]["rounds"], 1);
    EXPECT_EQ(never[1]["reason"], "nothing is received any more: an event was not complete after a second");
    const json odd = failing({"tag_reuse"}, "second, an event of 100 bytes");
    EXPECT_EQ(odd[0]["reason"], "an event has 100 bytes, which is no multiple of 64");
}

TEST_F(AcceptTool, NothingArrives_CoalescingDiffers)
{
    auto peer = serve();
    lose_of_peer("udp length 72");
    EXPECT_EQ(differing("coalescing")["measured"],
              json({{"sent", 5000}, {"received", 0}, {"events_by_packets", json::object()}}));
}

TEST_F(AcceptTool, DescriptorThatIsNeverReadable_PollDiffers)
{
    auto peer = serve();
    const json measured = differing("poll", "the descriptor stays unreadable")["measured"];
    EXPECT_EQ(measured["rounds"], 3);
    EXPECT_EQ(measured["readable"], 0);
}

TEST_F(AcceptTool, GroupsThatAreNotTaken_GroupAndSourceGroupDiffer)
{
    auto peer = serve();
    EXPECT_EQ(differing("group", "groups are not taken")["measured"],
              json({{"before", 0}, {"joined", 0}, {"other_port", 0}, {"left", 0}, {"joined_again", 0}}));
    EXPECT_EQ(differing("source_group", "groups are not taken")["measured"]["of_the_source"], 0);
}

TEST_F(AcceptTool, GroupThatIsKeptAfterItsLeave_GroupDiffers)
{
    auto peer = serve();
    const json measured = differing("group", "groups are kept")["measured"];
    EXPECT_EQ(measured["joined"], 10);
    EXPECT_EQ(measured["left"], 10);
}

TEST_F(AcceptTool, SourceThatIsAnotherOnTheWay_SourceGroupDiffers)
{
    auto peer = serve();
    lab.run(lab.peer, "nft 'add table netdev forge; add chain netdev forge out "
                      "{ type filter hook egress device peer0 priority 0; }; "
                      "add rule netdev forge out ip daddr 239.255.77.77 ip saddr set 192.0.2.1'");
    const json measured = differing("source_group")["measured"];
    EXPECT_EQ(measured["of_the_source"], 0);
    EXPECT_EQ(measured["of_another_source"], 10);
}

TEST_F(AcceptTool, BroadcastsThatAreNotTaken_BroadcastDiffers)
{
    auto peer = serve();
    const json measured = differing("broadcast", "broadcasts are not taken")["measured"];
    EXPECT_EQ(measured["asked_for"]["to_all"], 0);
}

TEST_F(AcceptTool, VlansThatAreNotToldApart_VlanDiffers)
{
    auto tagger = join_vlan();
    auto peer = lab.start(lab.peer, {bin("ruk-accept"), "peer"});
    ASSERT_TRUE(peer->wait_for_err("serving")) << *peer;
    const json measured = differing("vlan", "VLANs are not told apart")["measured"];
    EXPECT_EQ(measured["own"]["unicast"]["arrived"], 10);
    EXPECT_EQ(measured["other"]["unicast"]["arrived"], 0);
}

TEST_F(AcceptTool, DriverThatAsksNobody_NextHopDiffers_AndThePermanentEntryIsPutBack)
{
    auto peer = serve();
    const json measured = differing("next_hop", "next hops are not asked for")["measured"];
    EXPECT_EQ(measured["resolved"], nullptr);
    EXPECT_EQ(measured["driver_says"], "done");
    EXPECT_EQ(measured["refusal"], "EADDRNOTAVAIL");
    EXPECT_NE(lab.run(lab.adapter, "ip neigh show to 10.77.0.2 dev oxel0").find("PERMANENT"), std::string::npos);
}

TEST_F(AcceptTool, NewChannelsThatMissDatagrams_TagReuseDiffers)
{
    auto peer = serve();
    lose_of_peer("udp length 72 numgen inc mod 10 == 0");
    const json measured = differing("tag_reuse")["measured"];
    EXPECT_EQ(measured["to_old_channels"], 0);
    EXPECT_LT(measured["to_new_channels"], measured["rounds"].get<int>() * 20);
}

TEST_F(AcceptTool, ClockAHundredthTooFast_ClockDiffers)
{
    auto peer = serve();
    const json rate = differing("clock", "clock too fast")["measured"]["rate"];
    EXPECT_GT(rate["deviation_ppb"], 9'000'000) << rate;
    EXPECT_LT(rate["deviation_ppb"], 11'000'000) << rate;
}

TEST_F(AcceptTool, DatagramsThatGetLost_ClockDiffers)
{
    auto peer = serve();
    lose_of_peer("udp length 72 numgen inc mod 10 == 0");
    const json measured = differing("clock")["measured"];
    EXPECT_EQ(measured["sent"], 500);
    EXPECT_EQ(measured["received"], 450);
    EXPECT_EQ(measured["backwards"], 0);
}

TEST_F(AcceptTool, AnswersThatGetLost_StoreToWireDiffers)
{
    auto peer = serve();
    lose_of_peer("udp sport 7701 numgen inc mod 900 == 0");
    const json measured = differing("store_to_wire")["measured"];
    EXPECT_EQ(measured["64"]["completed"], 1000);
    EXPECT_GE(measured["64"]["lost"], 1);
}

// An answer that comes with the next one is lost, and those that follow are not. When the peer is held up they are
// waited for.
TEST_F(AcceptTool, AnswerThatIsLate_CountsOnceInThresholdsAndStoreToWire)
{
    auto peer = serve_by("import select\n"
                         "held, echoed = {}, {}\n"
                         "while True:\n"
                         "    for ready in select.select([s, echo], [], [])[0]:\n"
                         "        data, asker = ready.recvfrom(2048)\n"
                         "        if ready is s:\n"
                         "            s.sendto(b'ok', asker)\n"
                         "            continue\n"
                         "        echoed[asker] = echoed.get(asker, 0) + 1\n"
                         "        if echoed[asker] == 1:\n"
                         "            held[asker] = data\n"
                         "            continue\n"
                         "        if echoed[asker] == 2:\n"
                         "            echo.sendto(held[asker], asker)\n"
                         "        elif echoed[asker] == 20:\n"
                         "            time.sleep(1.2)\n"
                         "        elif echoed[asker] == 50:\n"
                         "            print('fifty', flush=True)\n"
                         "        echo.sendto(data, asker)\n");
    auto run = probe({"thresholds", "store_to_wire"});
    EXPECT_TRUE(peer->wait_for_out("fifty")) << *run;
    run->signal(SIGINT);
    ASSERT_TRUE(run->finish(60000)) << *run;
    const json report = parse(run->out());
    EXPECT_EQ(entry_of(report, "thresholds")["measured"]["failed"], 1) << report;
    const json measured = entry_of(report, "store_to_wire")["measured"]["64"];
    EXPECT_EQ(measured["lost"], 1) << report;
    EXPECT_GE(measured["completed"], 49);
}

// The eleventh of those that are sent to fill it.
TEST_F(AcceptTool, OneDatagramGetsLost_FullRingTellsOfThatOneAlone)
{
    auto peer = serve();
    lose_of_peer("udp length 72 @th,64,32 0x0a000000");
    const json measured = differing("full_ring")["measured"];
    EXPECT_EQ(measured["not_the_oldest"], 1) << measured;
    EXPECT_LT(measured["kept"], measured["sent"]);
    EXPECT_EQ(measured["received_afterwards"], 10);
}

TEST_F(AcceptTool, RingThatHasGaps_FullRingDiffers)
{
    auto peer = serve();
    lose_of_peer("udp length 72 numgen inc mod 10 == 0");
    EXPECT_GT(differing("full_ring")["measured"]["not_the_oldest"], 0);
}

// ------------------------------------------------------------------ what goes wrong on the way

TEST_F(AcceptTool, PeerThatIsHeldUp_ClockWaitsForAllItsDatagrams)
{
    const json measured = held_up("clock", "0.02");
    EXPECT_EQ(measured["sent"], 500);
    EXPECT_EQ(measured["received"], 500);
}

TEST_F(AcceptTool, PeerThatIsHeldUp_DeliveryIsAsExpected)
{
    EXPECT_EQ(held_up("delivery", "0.4"),
              json({{"sent", 2946}, {"received", 2946}, {"damaged", 0}, {"out_of_order", 0}}));
}

TEST_F(AcceptTool, PeerThatEndsMidway_WhatWasMeasuredIsReportedWithTheReasons)
{
    auto peer = serve();
    drop_at(lab.peer, "udp dport 7701"); // nothing is echoed: three seconds until that probe gives up
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
    EXPECT_EQ(report["probes"][1]["reason"], "no answer from 10.77.0.2:7700: is 'ruk-accept peer' running there?");
    EXPECT_GT(report["probes"][1]["measured"]["64"]["completed"], 0);
    EXPECT_EQ(report["probes"][2]["result"], "failed");
    EXPECT_EQ(report["probes"][2]["reason"], "no answer from 10.77.0.2:7700: is 'ruk-accept peer' running there?");
}

// Nobody is there to send what these probes count, or to return what the adapter sends: no fault of the adapter.
TEST_F(AcceptTool, PeerThatIsGone_ProbesFailAndTellThatNothingWasSent)
{
    auto peer = serve();
    auto run = probe({"blocking", "clock", "thresholds", "full_ring"});
    ASSERT_TRUE(run->wait_for_err("1 of 4: blocking", 60000)) << *run;
    peer->signal(SIGKILL);
    ASSERT_TRUE(run->finish(120000)) << *run;
    EXPECT_TRUE(run->exited_with(1)) << *run;
    expect_schema("ruk-accept", run->out());
    const json report = parse(run->out());
    EXPECT_EQ(report["result"], "failed");
    for (const char *name : {"clock", "thresholds", "full_ring"}) {
        EXPECT_EQ(entry_of(report, name)["result"], "failed") << report;
        EXPECT_EQ(entry_of(report, name)["reason"],
                  "no answer from 10.77.0.2:7700: is 'ruk-accept peer' running there?");
    }
    EXPECT_EQ(entry_of(report, "clock")["measured"]["sent"], 0);
    EXPECT_EQ(entry_of(report, "full_ring")["measured"]["sent"], 0);
    EXPECT_EQ(entry_of(report, "thresholds")["measured"], json::object());
}

TEST_F(AcceptTool, PeerThatReturnsNothing_ThresholdsFail)
{
    auto peer = serve();
    drop_at(lab.peer, "udp dport 7701");
    auto run = probe({"thresholds"});
    ASSERT_TRUE(run->finish(60000)) << *run;
    EXPECT_TRUE(run->exited_with(1)) << *run;
    const json entry = entry_of(parse(run->out()), "thresholds");
    EXPECT_EQ(entry["result"], "failed");
    EXPECT_EQ(entry["reason"], "nothing came back from the peer in time, five times in a row");
    EXPECT_EQ(entry["measured"]["failed"], 5);
}

// A peer that sends when the run receives already: the ring always has room.
TEST_F(AcceptTool, RingThatNeverFills_FullRingDiffers)
{
    auto peer = serve_by("late = None\n"
                         "while True:\n"
                         "    words, asker = s.recvfrom(256)\n"
                         "    words = words.decode().split()\n"
                         "    s.sendto(b'ok', asker)\n"
                         "    if words[0] == 'send':\n"
                         "        late = words\n"
                         "    elif late:\n"
                         "        time.sleep(1.5)\n"
                         "        for n in range(int(late[2])):\n"
                         "            s.sendto(payload(n, 64), (asker[0], int(late[1])))\n"
                         "            time.sleep(0.001)\n"
                         "        late = None\n");
    auto run = lab.start(lab.adapter,
                         {bin("rukrun"), "--soft=oxel0", "--", bin("ruk-accept"), "run", "-i", "oxel0", "10.77.0.2",
                          "--minutes", "0.02", "--json", "--only", "full_ring"},
                         {"RUK_SOFTNIC_RECVQ=16384"});
    ASSERT_TRUE(run->finish(60000)) << *run;
    EXPECT_TRUE(run->exited_with(1)) << *run;
    const json entry = entry_of(parse(run->out()), "full_ring"), measured = entry["measured"];
    EXPECT_EQ(entry["result"], "differs") << entry;
    EXPECT_EQ(measured["sent"], 307); // 16384 / 64 * 6 / 5
    EXPECT_EQ(measured["kept"], 307);
    EXPECT_EQ(measured["not_the_oldest"], 0);
}

TEST_F(AcceptTool, SmallestRing_DeliveryAndTagReuseAreAsExpected)
{
    auto peer = serve();
    auto run = lab.start(lab.adapter,
                         {bin("rukrun"), "--soft=oxel0", "--", bin("ruk-accept"), "run", "-i", "oxel0", "10.77.0.2",
                          "--minutes", "0.02", "--json", "--only", "delivery", "--only", "tag_reuse"},
                         {"RUK_SOFTNIC_RECVQ=16384"});
    ASSERT_TRUE(run->finish(120000)) << *run;
    EXPECT_TRUE(run->exited_with(0)) << *run;
    const json report = parse(run->out());
    EXPECT_EQ(entry_of(report, "delivery")["measured"]["received"], 1473) << report;
    EXPECT_EQ(entry_of(report, "tag_reuse")["measured"]["to_new_channels"], 400) << report;
}

TEST_F(AcceptTool, InterruptBeforeThePeerAnswers_AnEmptyReportIsKept)
{
    const std::string file = scratch.file("report.json");
    KernelSocket silent(lab, lab.peer, 7700);
    auto run = probe({"delivery"}, {"-o", file});
    EXPECT_NE(silent.receive().find(" hello"), std::string::npos) << *run;
    run->signal(SIGINT);
    ASSERT_TRUE(run->finish(60000)) << *run;
    EXPECT_TRUE(run->exited_with(1)) << *run;
    expect_schema("ruk-accept", contents(file));
    const json report = json::parse(contents(file));
    EXPECT_EQ(report, parse(run->out()));
    EXPECT_EQ(report["result"], "unfinished");
    EXPECT_TRUE(report["probes"].empty());
}

TEST_F(AcceptTool, FileBesideTheReport_IsLeftAlone)
{
    auto peer = serve();
    const std::string file = scratch.file("report.json"), beside = file + ".new";
    std::ofstream(beside) << "another's";
    auto run = probe({"group"}, {"-o", file});
    ASSERT_TRUE(run->finish(60000)) << *run;
    EXPECT_TRUE(run->exited_with(0)) << *run;
    EXPECT_EQ(json::parse(contents(file)), parse(run->out()));
    EXPECT_EQ(contents(beside), "another's");
    size_t files = 0;
    for (const auto &entry : std::filesystem::directory_iterator(scratch.file(".")))
        files += entry.exists();
    EXPECT_EQ(files, 2u);
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
    EXPECT_EQ(unknown->err(),
              "ruk-accept: there is no probe named 'everything'; there are: endpoints, delivery, event_order, "
              "coalescing, poll, blocking, filter_modes, kernel_duplicate, group, source_group, broadcast, vlan, "
              "next_hop, tag_reuse, clock, thresholds, store_to_wire, full_ring\n");
}
