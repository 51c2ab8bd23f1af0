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
    json examine_after(const std::string &script, const std::string &run = "")
    {
        auto program = lab.start(lab.adapter, {"unshare", "-m", "sh", "-euc",
                                               script + "\nexec " + run + " " + bin("ruk-info") + " --doctor --json"});
        EXPECT_TRUE(program->finish()) << *program;
        status_ = program->status();
        expect_schema("ruk-info-doctor", program->out());
        return parse(program->out());
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

TEST_F(Doctor, DeviceFileThatMayNotBeOpened_IsAFailureThatNamesThePermission)
{
    const json report = examine_after(std::string(plain_device_files) + "chmod 000 /dev/oxelA0 /dev/oxelB0",
                                      "setpriv --bounding-set=-dac_override,-dac_read_search");
    EXPECT_EQ(worst(report, "device_files")["status"], "failure");
    EXPECT_EQ(worst(report, "device_files")["found"], "/dev/oxelB* cannot be opened: Permission denied");
    EXPECT_EQ(worst(report, "device_files")["remedy"], "give this user read and write permission on /dev/oxelB*");
    EXPECT_EQ(status_, 2);
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
    EXPECT_EQ(worst(examine(), "routes")["found"], "oxel0: the kernel has no route over it, so nothing can be sent");
    EXPECT_EQ(status_, 1);
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
}

TEST_F(Doctor, WatchpointsThatAreTaken_AreAWarning)
{
    const json found = worst(examine_after("", without_watchpoints), "watchpoints");
    EXPECT_EQ(found["status"], "warning");
    EXPECT_EQ(found["found"].get<std::string>().find("hardware watchpoints are refused: "), 0u) << found;
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
    EXPECT_EQ(clock("tsc", "flags : fpu")["status"], "warning");
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
