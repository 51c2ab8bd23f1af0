// ruk-info --doctor: each of its findings is provoked on a host that the test made.
#include "schema.h"
#include "tool_lab.h"

#include <algorithm>
#include <map>

using namespace tool_test;
using nlohmann::json;

namespace {

class Doctor : public ToolTest {
protected:
    // What --doctor says, as it is run on the adapter's host.
    json examine(const std::vector<std::string> &options = {})
    {
        std::vector<std::string> command = {"ruk-info", "--doctor", "--json"};
        command.insert(command.end(), options.begin(), options.end());
        auto program = soft(command);
        EXPECT_TRUE(program->finish()) << *program;
        status_ = program->status();
        expect_schema("ruk-info-doctor", program->out());
        return parse(program->out());
    }

    // The worst finding of a check, "" when it was not made.
    static json worst(const json &report, const std::string &check)
    {
        static const std::map<std::string, int> order = {{"ok", 0}, {"warning", 1}, {"failure", 2}};
        json found = {{"status", ""}, {"found", ""}, {"remedy", ""}};
        int rank = -1;
        for (const json &c : report.at("checks"))
            if (c["check"] == check && order.at(c["status"]) > rank) {
                rank = order.at(c["status"]);
                found = c;
            }
        return found;
    }

    int status_ = -1;
};

} // namespace

TEST_F(Doctor, HealthyHost_EveryCheckOfTheWayIsOk)
{
    const json report = examine();
    for (const char *check : {"device_files", "driver_interface", "adapter", "link", "address", "subnets", "routes",
                              "neighbours", "igmp_version", "memberships", "reverse_path", "packet_socket"})
        EXPECT_EQ(worst(report, check)["status"], "ok") << check << report.dump(1);
    for (const json &c : report["checks"])
        EXPECT_EQ(c["status"] == "ok", c["remedy"] == "") << c; // each complaint with what to do
    // What remains to complain of is this machine's.
    const bool warnings = std::ranges::any_of(report["checks"], [](const json &c) { return c["status"] != "ok"; });
    EXPECT_EQ(status_, warnings ? 1 : 0);
}

TEST_F(Doctor, NoDeviceFile_IsAFailureWithTheWayOut)
{
    auto program = lab.start(lab.adapter, {bin("ruk-info"), "--doctor", "--json"});
    ASSERT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(2)) << *program;
    const json found = worst(parse(program->out()), "device_files");
    EXPECT_EQ(found["status"], "failure");
    EXPECT_EQ(found["remedy"], "load the driver, or run this under 'rukrun --soft=IF --' for the software adapter");

    auto text = lab.start(lab.adapter, {bin("ruk-info"), "--doctor"});
    ASSERT_TRUE(text->finish());
    EXPECT_EQ(text->out().find("failure  device_files     there is no /dev/oxelB*\n         -> load the driver"), 0u)
        << *text;
}

TEST_F(Doctor, TwoAddressesOnOneSubnet_AreAFailure)
{
    lab.run(lab.adapter, "ip addr add 10.77.0.9/24 dev oxel0");
    const json found = worst(examine(), "subnets");
    EXPECT_EQ(found["status"], "failure");
    EXPECT_EQ(found["found"], "oxel0 (10.77.0.1) and oxel0 (10.77.0.9) are on one subnet: an open ends the process");
    EXPECT_EQ(status_, 2);
}

TEST_F(Doctor, NoLink_IsAFailure)
{
    lab.run(lab.peer, "ip link set peer0 down");
    json found;
    for (int attempt = 0; attempt < 100 && found["status"] != "failure"; attempt++) { // the kernel tells it later
        found = worst(examine(), "link");
        usleep(20000);
    }
    EXPECT_EQ(found["found"], "oxel0: the adapter has no link");
}

TEST_F(Doctor, AddressEndingIn255_IsAWarning)
{
    lab.run(lab.adapter, "ip addr flush dev oxel0; ip addr add 10.77.0.255/16 dev oxel0");
    EXPECT_EQ(worst(examine(), "address")["found"],
              "oxel0: 10.77.0.255 ends in .255, which the library takes for a broadcast");
}

TEST_F(Doctor, HostSettingsThatHinderMulticastOrTheKernel_AreWarnings)
{
    lab.run(lab.adapter, "echo 2 > /proc/sys/net/ipv4/conf/oxel0/force_igmp_version;"
                         "echo 1 > /proc/sys/net/ipv4/conf/oxel0/rp_filter;"
                         "echo 5 > /proc/sys/net/ipv4/igmp_max_memberships");
    const json report = examine({"-i", "oxel0"});
    for (const char *check : {"igmp_version", "reverse_path", "memberships"})
        EXPECT_EQ(worst(report, check)["status"], "warning") << check;
    EXPECT_EQ(worst(report, "memberships")["found"], "a channel can join 5 groups at most");
    EXPECT_EQ(status_, 1);

    lab.run(lab.adapter, "ip link set oxel0 multicast off");
    EXPECT_EQ(worst(examine(), "multicast")["found"], "oxel0: multicast is off, so groups cannot be joined");
}

TEST_F(Doctor, NeighbourThatDoesNotAnswer_IsNamed)
{
    KernelSocket socket(lab, lab.adapter, 4000);
    socket.send("x", "10.77.0.77", 9);
    json found;
    for (int attempt = 0; attempt < 100 && found["status"] != "warning"; attempt++) { // three requests, a second each
        found = worst(examine(), "neighbours");
        usleep(50000);
    }
    EXPECT_EQ(found["found"], "oxel0: no answer to ARP from 10.77.0.77");
}

TEST_F(Doctor, InterfaceOnNoAdapter_IsAFailureThatSaysSo)
{
    EXPECT_EQ(worst(examine({"-i", "lo"}), "address")["found"],
              "lo is on no adapter, or has no IPv4 address: sockets there are not accelerated");
    EXPECT_EQ(status_, 2);
    EXPECT_EQ(worst(examine({"-i", "nowhere"}), "address")["found"], "there is no interface nowhere");
}

TEST_F(Doctor, InterfaceWithoutWhatToShow_IsAUsageError)
{
    auto program = soft({"ruk-info", "-i", "oxel0"});
    ASSERT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(2)) << *program;
    EXPECT_EQ(program->err(), "ruk-info: -i goes with --stats or --doctor\n");
}
