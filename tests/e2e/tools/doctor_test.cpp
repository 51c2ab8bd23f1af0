// ruk-info --doctor: each of its findings is provoked on a host that the test made.
#include "schema.h"
#include "tool_lab.h"

#include <algorithm>
#include <map>
#include <sys/timex.h>

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

    // The same without an adapter, in a mount namespace that a shell script has prepared. `run` stands before ruk-info.
    json examine_after(const std::string &script, const std::string &run = "", const std::string &options = "")
    {
        auto program = info_after(script, run, "--doctor --json " + options);
        status_ = program->status();
        expect_schema("ruk-info-doctor", program->out());
        return parse(program->out());
    }

    // ruk-info there.
    std::unique_ptr<test_support::Program> info_after(const std::string &script, const std::string &run,
                                                      const std::string &options)
    {
        // In a chroot the root is no mount point; what is mounted below it is made private one by one.
        static const std::string apart = "mount --make-rprivate / 2>/dev/null ||\n"
                                         "for at in $(cut -d' ' -f5 /proc/self/mountinfo); do\n"
                                         "    mount --make-private $at\n"
                                         "done\n";
        auto program =
            lab.start(lab.adapter, {"unshare", "-m", "--propagation", "unchanged", "sh", "-euc",
                                    apart + script + "\nexec " + run + " " + bin("ruk-info") + " " + options});
        EXPECT_TRUE(program->finish()) << *program;
        return program;
    }

    // A line for examine_after() that puts a text in the place of a file.
    std::string pretend(const std::string &file, const std::string &text)
    {
        const std::string made = scratch_.file("pretended" + std::to_string(pretended_++));
        std::ofstream(made) << text << "\n";
        return "mount --bind " + made + " " + file + "\n";
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

private:
    ScratchDir scratch_;
    int pretended_ = 0;
};

// Device files that are ordinary ones.
const char *const plain_device_files = "mount -t tmpfs none /dev; : >/dev/oxelA0; : >/dev/oxelB0\n";

// Takes all four watchpoints of its thread, and hands the thread on.
const char *const without_watchpoints = R"(python3 -c '
import ctypes, os, struct, sys
libc = ctypes.CDLL(None)
memory = ctypes.create_string_buffer(64)
address = ctypes.addressof(memory) + 7 & ~7
for i in range(4):
    attr = struct.pack("IIQQQQQIIQQ", 5, 128, 0, 1, 0, 0, 1 << 5 | 1 << 6, 0, 2, address + 8 * i, 8)
    libc.syscall(298, ctypes.create_string_buffer(attr, 128), 0, -1, -1, 0)
    # Kept over the exec.
os.execv(sys.argv[1], sys.argv[1:])
')";

} // namespace

TEST_F(Doctor, HealthyHost_EveryCheckOfTheWayIsOk)
{
    const json report = examine();
    for (const char *check :
         {"device_files", "driver_interface", "adapter", "link", "endpoints", "address", "subnets", "routes",
          "neighbours", "multicast", "igmp_version", "memberships", "reverse_path", "packet_socket", "steering"})
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

TEST_F(Doctor, NoDeviceFile_WhatTheHostHasOfTheNamedInterfaceIsCheckedAllTheSame)
{
    const auto without_adapter = [&](const std::string &interface) {
        auto program = lab.start(lab.adapter, {bin("ruk-info"), "--doctor", "--json", "-i", interface});
        EXPECT_TRUE(program->finish()) << *program;
        EXPECT_TRUE(program->exited_with(2)) << *program;
        expect_schema("ruk-info-doctor", program->out());
        const json report = parse(program->out());
        EXPECT_EQ(worst(report, "device_files")["status"], "failure") << report;
        return report;
    };
    lab.run(lab.adapter, "echo 1 > /proc/sys/net/ipv4/conf/oxel0/rp_filter;"
                         "echo 2 > /proc/sys/net/ipv4/conf/oxel0/force_igmp_version");
    json report = without_adapter("oxel0");
    EXPECT_EQ(worst(report, "address")["found"], "oxel0: 10.77.0.1") << report;
    for (const char *check : {"address", "subnets", "routes", "neighbours", "multicast", "memberships"})
        EXPECT_EQ(worst(report, check)["status"], "ok") << check << report;
    for (const char *check : {"igmp_version", "reverse_path"})
        EXPECT_EQ(worst(report, check)["status"], "warning") << check << report;
    for (const char *check : {"driver_interface", "adapter", "link", "endpoints"})
        EXPECT_EQ(worst(report, check)["status"], "") << check << report;

    lab.run(lab.adapter, "ip addr flush dev oxel0");
    report = without_adapter("oxel0");
    EXPECT_EQ(worst(report, "address")["found"], "oxel0 has no IPv4 address") << report;
    EXPECT_EQ(worst(report, "routes")["status"], "") << report;
    EXPECT_EQ(worst(without_adapter("nowhere"), "address")["found"], "there is no interface nowhere");
}

TEST_F(Doctor, TwoAddressesOnOneSubnet_AreAFailure)
{
    lab.run(lab.adapter, "ip addr add 10.77.0.9/24 dev oxel0");
    const json found = worst(examine(), "subnets");
    EXPECT_EQ(found["status"], "failure");
    EXPECT_EQ(found["found"], "oxel0 (10.77.0.1) and oxel0 (10.77.0.9) are on one subnet: an open ends the process");
    EXPECT_EQ(status_, 2);
}

TEST_F(Doctor, OtherCardsAddressOnTheSubnet_IsAFailure)
{
    lab.run(lab.adapter,
            "ip link add eth9 type veth peer name eth8; ip addr add 10.77.0.9/24 dev eth9; ip link set eth9 up");
    const json report = examine({"-i", "oxel0"});
    EXPECT_EQ(worst(report, "subnets")["found"],
              "oxel0 (10.77.0.1) and eth9 (10.77.0.9) are on one subnet: an open ends the process");
    EXPECT_EQ(status_, 2);
    // As it is.
    auto receiver = soft({"ruk-recv", "-i", "oxel0", "-p", "5000", "-t", "0.1"});
    ASSERT_TRUE(receiver->finish());
    EXPECT_NE(receiver->err().find("RUK detected two or more IPs on the same subnet."), std::string::npos) << *receiver;

    auto off = lab.start(lab.adapter, {bin("rukrun"), "--soft=oxel0", "--", bin("ruk-info"), "--doctor", "--json"},
                         {"RUK_IP_ACCELERATION=1"});
    ASSERT_TRUE(off->finish());
    EXPECT_EQ(worst(parse(off->out()), "subnets")["status"], "warning") << *off;
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
    EXPECT_EQ(worst(report, "memberships")["found"],
              "oxel0: 0 groups joined, a channel can join 5, each from 10 sources");
    EXPECT_EQ(worst(report, "memberships")["remedy"], "sysctl net.ipv4.igmp_max_memberships=1000, if that is too few");
    EXPECT_EQ(status_, 1);

    lab.run(lab.adapter, "ip link set oxel0 multicast off");
    EXPECT_EQ(worst(examine(), "multicast")["found"], "oxel0: multicast is off, so groups cannot be joined");
}

// A device on a VLAN has a dot in its name, which sysctl reads as a step down.
TEST_F(Doctor, SettingsOfADeviceWithADot_TheRemediesMendThem)
{
    lab.run(lab.adapter, "ip link add oxel0.5 address 02:6f:78:00:00:01 type veth peer name other5"
                         " && ip addr add 10.77.5.1/24 dev oxel0.5 && ip link set oxel0.5 up"
                         " && cd /proc/sys/net/ipv4/conf/oxel0.5"
                         " && echo 2 > force_igmp_version && echo 1 > rp_filter");
    const json ill = examine({"-i", "oxel0.5"});
    for (const char *check : {"igmp_version", "reverse_path"}) {
        const json found = worst(ill, check);
        EXPECT_EQ(found["status"], "warning") << found;
        const std::string remedy = found["remedy"];
        lab.run(lab.adapter, remedy.substr(0, remedy.find(" (")));
    }
    const json mended = examine({"-i", "oxel0.5"});
    EXPECT_EQ(worst(mended, "igmp_version")["found"], "oxel0.5: version 3");
    EXPECT_EQ(worst(mended, "reverse_path")["found"], "oxel0.5: loose");
}

TEST_F(Doctor, SettingsForAllInterfaces_CountAsWell)
{
    lab.run(lab.adapter, "echo 1 > /proc/sys/net/ipv4/conf/all/force_igmp_version;"
                         "echo 2 > /proc/sys/net/ipv4/conf/oxel0/force_igmp_version;"
                         "echo 1 > /proc/sys/net/ipv4/conf/all/rp_filter");
    json report = examine();
    EXPECT_EQ(worst(report, "igmp_version")["found"],
              "oxel0: IGMP is held to version 1: switches are not told of sources");
    EXPECT_EQ(worst(report, "reverse_path")["status"], "warning");

    lab.run(lab.adapter, "echo 2 > /proc/sys/net/ipv4/conf/all/force_igmp_version;"
                         "echo 0 > /proc/sys/net/ipv4/conf/oxel0/force_igmp_version;"
                         "echo 2 > /proc/sys/net/ipv4/conf/all/rp_filter");
    report = examine();
    EXPECT_EQ(worst(report, "igmp_version")["found"],
              "oxel0: IGMP is held to version 2: switches are not told of sources");
    EXPECT_EQ(worst(report, "reverse_path")["status"], "ok");
    EXPECT_EQ(worst(report, "reverse_path")["found"], "oxel0: loose");
}

// The kernel follows an older querier, without any setting.
TEST_F(Doctor, QuerierOfAnOldVersion_IsAWarning)
{
    // IGMPv2 general query: 10.77.0.2 to 224.0.0.1, time to live 1, router alert; type 0x11, answers within 10 s.
    put_frame(0x0800, std::string("\x46\0\0\x20\0\0\0\0\x01\x02\x3a\x88\x0a\x4d\0\x02\xe0\0\0\x01"
                                  "\x94\x04\0\0\x11\x64\xee\x9b\0\0\0\0",
                                  32));
    json found;
    for (int attempt = 0; attempt < 100 && found["status"] != "warning"; attempt++) { // the kernel takes it in time
        found = worst(examine(), "igmp_version");
        usleep(20000);
    }
    EXPECT_EQ(found["found"],
              "oxel0: a querier of version 2 was heard: the kernel does as it, and tells nobody of sources");
    EXPECT_EQ(found["remedy"], "let the querier of this network (a router or switch) speak version 3");
}

// The kernel's own membership of all hosts' group is none of them.
TEST_F(Doctor, GroupsJoined_AreCounted)
{
    KernelSocket socket(lab, lab.adapter, 4000);
    const auto join = [&](uint32_t group) {
        ip_mreq request{};
        request.imr_multiaddr.s_addr = htonl(group);
        inet_pton(AF_INET, lab.adapter.address, &request.imr_interface);
        return setsockopt(socket.fd(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &request, sizeof request);
    };
    lab.run(lab.adapter, "echo 20 > /proc/sys/net/ipv4/igmp_max_memberships");
    ASSERT_EQ(join(0xefff0000), 0);
    EXPECT_EQ(worst(examine(), "memberships")["found"],
              "oxel0: 1 group joined, a channel can join 20, each from 10 sources");
    for (uint32_t n = 1; n < 19; n++)
        ASSERT_EQ(join(0xefff0000 + n), 0) << n;
    EXPECT_EQ(worst(examine(), "memberships")["found"],
              "oxel0: 19 groups joined, a channel can join 20, each from 10 sources");
    EXPECT_EQ(worst(examine(), "memberships")["status"], "ok");
    ASSERT_EQ(join(INADDR_ALLHOSTS_GROUP), 0) << "one that an application can join as well";
    EXPECT_NE(join(0xefff0000 + 19), 0);
    EXPECT_EQ(
        worst(examine(), "memberships")["found"],
        "oxel0: 20 groups joined, a channel can join 20, each from 10 sources: if it was one that joined them, it "
        "gets no more");
    EXPECT_EQ(worst(examine(), "memberships")["status"], "warning");
}

TEST_F(Doctor, FewSourcesOfAGroup_AreAWarningThatTellsHowMany)
{
    lab.run(lab.adapter, "echo 20 > /proc/sys/net/ipv4/igmp_max_memberships; echo 2 > /proc/sys/net/ipv4/igmp_max_msf");
    const json found = worst(examine(), "memberships");
    EXPECT_EQ(found["status"], "warning");
    EXPECT_EQ(found["found"], "oxel0: 0 groups joined, a channel can join 20, each from 2 sources");
    EXPECT_EQ(found["remedy"], "sysctl net.ipv4.igmp_max_msf=100, if that is too few");
    // As it is.
    const std::vector<std::string> two = {
        "-p", "5000", "-t", "0.1", "-g", "239.1.2.3@10.77.0.2", "-g", "239.1.2.3@10.77.0.3"};
    auto receiver = this->receiver(two);
    ASSERT_TRUE(receiver->finish());
    EXPECT_TRUE(receiver->exited_with(0)) << *receiver;
    std::vector<std::string> three = two;
    three.insert(three.begin(), {"ruk-recv", "-i", "oxel0"});
    three.insert(three.end(), {"-g", "239.1.2.3@10.77.0.4"});
    auto refused = soft(three);
    ASSERT_TRUE(refused->finish());
    EXPECT_TRUE(refused->exited_with(2)) << *refused;
    EXPECT_NE(refused->err().find("239.1.2.3@10.77.0.4: No buffer space available"), std::string::npos) << *refused;
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
              "lo is on no adapter: sockets there are not accelerated");
    EXPECT_EQ(status_, 2);
    EXPECT_EQ(worst(examine({"-i", "lo"}), "address")["remedy"],
              "name one that is, or for the software adapter this one in 'rukrun --soft=lo --'");
    lab.run(lab.adapter, "ip link add eth9 type veth peer name eth8");
    EXPECT_EQ(worst(examine({"-i", "eth9"}), "address")["found"], "eth9 has no IPv4 address");
    EXPECT_EQ(worst(examine({"-i", "eth9"}), "address")["remedy"], "give it one: ip addr add ADDRESS/LENGTH dev eth9");
    EXPECT_EQ(worst(examine({"-i", "nowhere"}), "address")["found"], "there is no interface nowhere");
}

TEST_F(Doctor, DeviceFileThatMayNotBeOpened_IsAFailureThatNamesThePermission)
{
    const json report = examine_after(std::string(plain_device_files) + "chmod 000 /dev/oxelA0 /dev/oxelB0",
                                      "setpriv --bounding-set=-dac_override,-dac_read_search");
    EXPECT_EQ(worst(report, "device_files")["status"], "failure");
    EXPECT_EQ(worst(report, "device_files")["found"], "/dev/oxelB0 cannot be opened: Permission denied");
    EXPECT_EQ(worst(report, "device_files")["remedy"], "give this user read and write permission on /dev/oxelB0");
    EXPECT_EQ(status_, 2);
}

TEST_F(Doctor, DeviceFileOfTheOtherName_IsNotOverlooked)
{
    const json report = examine_after("mount -t tmpfs none /dev; : >/dev/oxelBp0; chmod 000 /dev/oxelBp0",
                                      "setpriv --bounding-set=-dac_override,-dac_read_search");
    EXPECT_EQ(worst(report, "device_files")["status"], "failure");
    EXPECT_EQ(worst(report, "device_files")["found"], "/dev/oxelBp0 cannot be opened: Permission denied");
    EXPECT_EQ(worst(report, "device_files")["remedy"], "give this user read and write permission on /dev/oxelBp0");
}

TEST_F(Doctor, SecondAdaptersDeviceFileAlone_IsNotFound)
{
    const json report = examine_after("mount -t tmpfs none /dev; : >/dev/oxelB1");
    EXPECT_EQ(worst(report, "device_files")["found"], "there is no /dev/oxelB*");
}

TEST_F(Doctor, DriverThatTellsNoVersion_IsAFailure)
{
    const json report = examine_after(plain_device_files);
    EXPECT_EQ(worst(report, "device_files")["status"], "ok");
    EXPECT_EQ(worst(report, "driver_interface")["status"], "failure");
    EXPECT_EQ(status_, 2);
}

TEST_F(Doctor, NoRouteOverTheInterface_IsAWarning)
{
    lab.run(lab.adapter, "ip route flush dev oxel0");
    const json found = worst(examine(), "routes");
    EXPECT_EQ(status_, 1);
    EXPECT_EQ(found["found"],
              "oxel0: no route, so nothing can be sent but to groups and to addresses that end in .255");
    EXPECT_EQ(found["remedy"], "set the interface up, or add a route: ip route add NET dev oxel0");
    // As it is. A program that opens its endpoint now:
    for (const auto &[to, status] : {std::pair("239.1.1.1", 0), {"10.77.0.255", 0}, {"10.77.0.2", 2}}) {
        auto sender = soft({"ruk-send", "-i", "oxel0", std::string(to) + ":5000", "-m", "x"});
        ASSERT_TRUE(sender->finish());
        EXPECT_TRUE(sender->exited_with(status)) << *sender;
    }
}

TEST_F(Doctor, RoutesOverAnotherInterfaceOfTheAdapter_Count)
{
    lab.run(lab.adapter, "ip link add oxel0.5 address 02:6f:78:00:00:01 type veth peer name other5"
                         " && ip addr add 10.77.5.1/24 dev oxel0.5 && ip link set oxel0.5 up && ip link set other5 up"
                         " && ip route flush dev oxel0");
    for (const std::vector<std::string> &options : {std::vector<std::string>{}, {"-i", "oxel0"}}) {
        const json found = worst(examine(options), "routes");
        EXPECT_EQ(found["found"], "oxel0, oxel0.5: 1 route; an endpoint reads them when it opens");
        EXPECT_EQ(found["status"], "ok");
    }
    lab.run(lab.adapter, "ip route add 10.90.0.0/16 via 10.77.5.2 && ip route add 10.91.0.0/16 via 10.77.5.3");
    EXPECT_EQ(worst(examine({"-i", "oxel0"}), "routes")["found"],
              "oxel0, oxel0.5: 3 routes, 2 by a gateway; an endpoint reads them when it opens");
    // It needs no route over the interface that it is opened by.
    lab.run(lab.adapter, "ip route add 10.77.0.0/24 dev oxel0.5 src 10.77.5.1");
    EXPECT_EQ(worst(examine({"-i", "oxel0"}), "routes")["found"],
              "oxel0, oxel0.5: 4 routes, 2 by a gateway; an endpoint reads them when it opens");
    auto sender = soft({"ruk-send", "-i", "oxel0", "10.77.0.2:5000", "-m", "x"});
    ASSERT_TRUE(sender->finish());
    EXPECT_TRUE(sender->exited_with(0)) << *sender;

    lab.run(lab.adapter, "ip link add eth9 type veth peer name eth8 && ip addr add 10.79.0.9/24 dev eth9"
                         " && ip link set eth9 up && ip route flush dev oxel0.5");
    EXPECT_EQ(worst(examine(), "routes")["status"], "warning") << "another card's does not count";
}

// The library compares routes with the name of the address, and the kernel tells routes by devices.
TEST_F(Doctor, AddressWithALabelAlone_NoRouteAndTheWayOut)
{
    lab.run(lab.adapter, "ip addr flush dev oxel0; ip addr add 10.77.0.1/24 dev oxel0 label oxel0:1");
    const json found = worst(examine(), "routes");
    EXPECT_EQ(found["found"],
              "oxel0:1: no route, so nothing can be sent but to groups and to addresses that end in .255");
    EXPECT_EQ(found["remedy"], "routes are told by the names of devices, and this is a label: give oxel0 an address "
                               "without one");
    // As it is.
    const auto send = [&] {
        auto sender = soft({"ruk-send", "-a", "10.77.0.1", "10.77.0.2:5000", "-m", "x"});
        EXPECT_TRUE(sender->finish());
        return sender->status();
    };
    EXPECT_EQ(send(), 2);
    lab.run(lab.adapter, "ip addr add 10.78.0.1/24 dev oxel0");
    EXPECT_EQ(worst(examine(), "routes")["status"], "ok");
    EXPECT_EQ(send(), 0);
}

TEST_F(Doctor, KernelThatHidesItsTables_IsSaidAndNoDefaultIsToldInTheirPlace)
{
    json report = examine_after("mount -t tmpfs none /proc/sys/net", "", "-i oxel0");
    for (const char *check : {"igmp_version", "memberships", "reverse_path", "socket_buffer"}) {
        EXPECT_EQ(worst(report, check)["status"], "warning") << check;
        EXPECT_NE(worst(report, check)["found"].get<std::string>().find("the kernel does not tell"), std::string::npos)
            << worst(report, check);
    }
    report = examine_after("mount -t tmpfs none /proc/$$/net", "", "-i oxel0");
    for (const char *check : {"igmp_version", "memberships"})
        EXPECT_EQ(worst(report, check)["found"], "oxel0: the kernel does not tell");
    EXPECT_EQ(worst(report, "reverse_path")["status"], "ok");
}

TEST_F(Doctor, DeviceFileThatIsNotThisUsersOrDrivers_InfoSaysSoWithStatusTwo)
{
    auto refused = info_after(std::string(plain_device_files) + "chmod 000 /dev/oxelA0 /dev/oxelB0",
                              "setpriv --bounding-set=-dac_override,-dac_read_search", "");
    EXPECT_TRUE(refused->exited_with(2)) << *refused;
    EXPECT_EQ(refused->err(), "ruk-info: no permission to open the adapter's device files (/dev/oxelB*)\n");
    auto foreign = info_after(plain_device_files, "", "--json");
    EXPECT_TRUE(foreign->exited_with(2)) << *foreign;
    expect_schema("ruk-info", foreign->out());
    EXPECT_EQ(parse(foreign->out())["error"],
              "the driver of /dev/oxelB* is not this library's: Inappropriate ioctl for device");
    auto none = info_after("mount -t tmpfs none /dev", "", "");
    EXPECT_TRUE(none->exited_with(1)) << *none;
}

TEST_F(Doctor, SmallSocketBuffers_AreAWarning)
{
    const json report = examine_after(pretend("/proc/sys/net/core/rmem_max", "65536"));
    EXPECT_EQ(worst(report, "socket_buffer")["status"], "warning");
    EXPECT_EQ(worst(report, "socket_buffer")["found"], "kernel sockets hold 65536 bytes at most");
    EXPECT_EQ(worst(examine_after(pretend("/proc/sys/net/core/rmem_max", "4194304")), "socket_buffer")["status"], "ok");
}

TEST_F(Doctor, PrivilegesThatTheSoftwareAdapterMisses_AreWarnings)
{
    const json report = examine_after("", "setpriv --bounding-set=-net_raw");
    EXPECT_EQ(worst(report, "packet_socket")["status"], "warning");
    EXPECT_EQ(worst(report, "packet_socket")["found"], "packet sockets are refused: Operation not permitted");
    const json steering = worst(examine_after("", "setpriv --bounding-set=-net_admin"), "steering");
    EXPECT_EQ(steering["status"], "warning");
    EXPECT_EQ(steering["found"],
              "the host's own stack cannot be kept from the software adapter's frames, and gets them "
              "as well: Operation not permitted");
    EXPECT_EQ(steering["remedy"], "for that the software adapter needs root, CAP_NET_ADMIN, or 'unshare -Urn'");
}

TEST_F(Doctor, WatchpointsThatAreTaken_AreAWarning)
{
    const json found = worst(examine_after("", without_watchpoints), "watchpoints");
    EXPECT_EQ(found["status"], "warning");
    EXPECT_EQ(found["found"].get<std::string>().find("hardware watchpoints are refused, "), 0u) << found;
}

TEST_F(Doctor, OneProcessor_IsAWarning)
{
    const json report =
        examine_after("processor=$(taskset -pc $$ | sed 's/.*: //;s/[,-].*//')", "taskset -c $processor");
    EXPECT_EQ(worst(report, "processors")["status"], "warning");
}

TEST_F(Doctor, GovernorOtherThanPerformance_IsAWarning)
{
    const std::string cpu = "/sys/devices/system/cpu";
    const auto governed = [&](const std::string &governor) {
        return worst(examine_after("mount -t tmpfs none " + cpu + "\nmkdir -p " + cpu + "/cpu0/cpufreq " + cpu +
                                   "/cpufreq\necho " + governor + " >" + cpu + "/cpu0/cpufreq/scaling_governor"),
                     "governor");
    };
    EXPECT_EQ(governed("powersave")["found"], "processors run under the governor 'powersave'");
    EXPECT_EQ(governed("powersave")["status"], "warning");
    EXPECT_EQ(governed("performance")["status"], "ok");
}

TEST_F(Doctor, ClockThatIsSlowOrChangesItsRate_IsAWarning)
{
    const std::string source = "/sys/devices/system/clocksource/clocksource0/current_clocksource";
    const auto clock = [&](const char *name, const char *flags) {
        return worst(examine_after(pretend(source, name) + pretend("/proc/cpuinfo", flags)), "clock");
    };
    EXPECT_EQ(clock("tsc", "flags : fpu constant_tsc")["status"], "ok");
    EXPECT_EQ(clock("hpet", "flags : fpu constant_tsc")["found"],
              "the kernel's clock source is hpet: reading the time is slow");
    EXPECT_EQ(clock("tsc", "flags : fpu")["found"],
              "the processor's time stamp counter changes its rate (clock source tsc)");
    const json unknown = worst(examine_after("mount -t tmpfs none /sys/devices/system/clocksource\n" +
                                             pretend("/proc/cpuinfo", "flags : fpu constant_tsc")),
                               "clock");
    EXPECT_EQ(unknown["status"], "warning");
    EXPECT_EQ(unknown["found"], "the kernel does not tell its clock source");
}

TEST_F(Doctor, ClockSync_IsAsTheKernelTells)
{
    timex state = {};
    ASSERT_GE(adjtimex(&state), 0);
    EXPECT_EQ(worst(examine_after(""), "clock_sync")["status"], (state.status & STA_UNSYNC) != 0 ? "warning" : "ok");
}

TEST_F(Doctor, InterfaceWithoutWhatToShow_IsAUsageError)
{
    auto program = soft({"ruk-info", "-i", "oxel0"});
    ASSERT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(2)) << *program;
    EXPECT_EQ(program->err(), "ruk-info: -i goes with --stats or --doctor\n");
}
