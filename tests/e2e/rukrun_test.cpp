// The launcher: what it hands to the program, and one clear line for everything that can be wrong.
#include "lab.h"

#include <cstdlib>
#include <fcntl.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <unistd.h>

using test_support::Lab;
using test_support::LabTest;

namespace {

const std::string kRukrun = RUK_BINARY_DIR "/bin/rukrun";
// Of the same build as the adapter: what is preloaded fits.
const std::string kLaunched = RUK_BINARY_DIR "/tests/launched";
const std::string kAdapterLibrary = RUK_BINARY_DIR "/lib/liboxelsoft.so";

class RukrunTest : public LabTest {
protected:
    // Ends within seconds; the launcher's line is in err().
    std::unique_ptr<test_support::Program> rukrun(std::vector<std::string> arguments,
                                                  std::vector<std::string> environment = {})
    {
        arguments.insert(arguments.begin(), kRukrun);
        // Where everything has a sanitizer the adapter comes before its run time, and that is all right.
        environment.push_back("ASAN_OPTIONS=verify_asan_link_order=0:detect_leaks=0");
        auto program = lab.start(lab.adapter, arguments, environment);
        EXPECT_TRUE(program->finish()) << *program;
        return program;
    }
};

} // namespace

TEST_F(RukrunTest, InterfacesNamed_ProgramRuns_WithAdapterPreloadedAndNamesPassedOn)
{
    auto program = rukrun({"--soft=oxel0,lo", "--mode=exact", "--", kLaunched});
    EXPECT_TRUE(program->exited_with(7)) << *program;
    EXPECT_EQ(program->out(), "LD_PRELOAD=" + kAdapterLibrary + "\nRUK_SOFTNIC=oxel0,lo\nRUK_SOFTNIC_MODE=exact\n");
    EXPECT_EQ(program->err(), "");
}

TEST_F(RukrunTest, LibrariesPreloadedAlready_ProgramRuns_TheyComeAfterTheAdapter)
{
    auto program = rukrun({"--soft=oxel0", kLaunched}, {"LD_PRELOAD=libm.so.6"});
    EXPECT_TRUE(program->exited_with(7)) << *program;
    EXPECT_EQ(program->out(),
              "LD_PRELOAD=" + kAdapterLibrary + ":libm.so.6\nRUK_SOFTNIC=oxel0\nRUK_SOFTNIC_MODE=(unset)\n");
}

// The loader's own complaint about what is not there does not matter here.
TEST_F(RukrunTest, SanitizersRunTimePreloaded_ProgramRuns_ItStaysFirst)
{
    for (const char *name : {"libasan.so.8", "libtsan.so.2", "libubsan.so.1", "liblsan.so.0", "libclang_rt.asan.so"}) {
        const std::string run_time = std::string("/not/there/") + name;
        auto program = rukrun({"--soft=oxel0", kLaunched}, {"LD_PRELOAD=libm.so.6:" + run_time});
        EXPECT_EQ(program->out().find("LD_PRELOAD=" + run_time + ":" + kAdapterLibrary + ":libm.so.6\n"), 0u)
            << *program;
    }
}

TEST_F(RukrunTest, NoInterfaceNamed_ProgramRuns_WithThoseOfTheFamilyThatAreUp)
{
    lab.run(lab.adapter, "ip link add oxel7 address 02:6f:78:00:00:07 type veth peer name other7"
                         " && ip link add oxel8 address 02:6f:78:00:00:08 type veth peer name other8"
                         " && ip link set oxel8 up && ip link set other8 up && ip link set other7 up");
    auto program = rukrun({"--soft", kLaunched});
    EXPECT_TRUE(program->exited_with(7)) << *program;
    EXPECT_NE(program->out().find("RUK_SOFTNIC=oxel0,oxel8\n"), std::string::npos) << *program;

    lab.run(lab.adapter, "ip link set oxel0 down && ip link set oxel8 down");
    program = rukrun({"--soft", "true"});
    EXPECT_TRUE(program->exited_with(125)) << *program;
    EXPECT_EQ(program->err(), "rukrun: no interface is up and has a MAC address that begins with 02:6f:78: name one\n");
}

TEST_F(RukrunTest, ArgumentsThatLookLikeOptions_AfterTheProgram_AreTheProgramsOwn)
{
    auto program = rukrun({"--soft=oxel0", kLaunched, "--soft=none", "--help", "--", "-x", ""});
    EXPECT_TRUE(program->exited_with(7)) << *program;
    EXPECT_NE(program->out().find("\n[--soft=none]\n[--help]\n[--]\n[-x]\n[]\n"), std::string::npos) << *program;
}

TEST_F(RukrunTest, WrongInterfaces_OneLineAndStatus)
{
    const std::pair<const char *, const char *> cases[] = {
        {"--soft=nosuch0", "rukrun: no interface named 'nosuch0'\n"},
        {"--soft=oxel0,nosuch0", "rukrun: no interface named 'nosuch0'\n"},
        {"--soft=oxel0,oxel0", "rukrun: interface 'oxel0' is named twice\n"},
        {"--soft=", "rukrun: empty interface name\n"},
        {"--soft=oxel0,", "rukrun: empty interface name\n"},
    };
    for (const auto &[option, line] : cases) {
        auto program = rukrun({option, "true"});
        EXPECT_TRUE(program->exited_with(125)) << *program;
        EXPECT_EQ(program->err(), line);
        EXPECT_EQ(program->out(), "");
    }
}

TEST_F(RukrunTest, WrongUsage_OneLineAndStatus)
{
    const std::pair<std::vector<std::string>, const char *> cases[] = {
        {{}, "rukrun: say --soft or --soft=INTERFACE (see rukrun --help)\n"},
        {{"true"}, "rukrun: say --soft or --soft=INTERFACE (see rukrun --help)\n"},
        {{"--soft=oxel0"}, "rukrun: no program given (see rukrun --help)\n"},
        {{"--soft=oxel0", "--"}, "rukrun: no program given (see rukrun --help)\n"},
        {{"--soft=oxel0", "--mode=slow", "true"}, "rukrun: unknown mode 'slow': it is fast, exact or fallback\n"},
        {{"--soft=oxel0", "--switch=blue", "true"},
         "rukrun: unknown switch 'blue': it is wire or model[,KEY=VALUE...]\n"},
        {{"--hard", "true"}, "rukrun: unknown option '--hard' (see rukrun --help)\n"},
    };
    for (const auto &[arguments, line] : cases) {
        auto program = rukrun(arguments);
        EXPECT_TRUE(program->exited_with(125)) << *program;
        EXPECT_EQ(program->err(), line);
    }
}

TEST_F(RukrunTest, ProgramNotFound_Status127)
{
    auto program = rukrun({"--soft=oxel0", "no-such-program"});
    EXPECT_TRUE(program->exited_with(127)) << *program;
    EXPECT_EQ(program->err(), "rukrun: program 'no-such-program' not found\n");
    program = rukrun({"--soft=oxel0", "/no/such/program"});
    EXPECT_TRUE(program->exited_with(127)) << *program;
    EXPECT_EQ(program->err(), "rukrun: program '/no/such/program' not found\n");
}

TEST_F(RukrunTest, ProgramThatCannotBeExecuted_Status126)
{
    for (const char *file : {"/etc/passwd", "/etc"}) {
        auto program = rukrun({"--soft=oxel0", file});
        EXPECT_TRUE(program->exited_with(126)) << *program;
        EXPECT_EQ(program->err(), std::string("rukrun: cannot execute '") + file + "': Permission denied\n");
    }
}

TEST_F(RukrunTest, ScriptWhoseInterpreterIsNotThere_Status126)
{
    char script[] = "/tmp/ruk-test-XXXXXX";
    const int fd = mkstemp(script);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(write(fd, "#!/no/such/shell\n", 17), 17);
    EXPECT_EQ(fchmod(fd, 0755), 0);
    close(fd);
    auto program = rukrun({"--soft=oxel0", script});
    EXPECT_TRUE(program->exited_with(126)) << *program;
    EXPECT_EQ(program->err(), "rukrun: cannot execute '" + std::string(script) + "': No such file or directory\n");
    unlink(script);
}

// The owner of host files is nobody where the tests are in a user namespace, and cannot be given away there.
TEST_F(RukrunTest, ProgramThatGainsRights_Status126)
{
    char directory[] = "/tmp/ruk-test-XXXXXX";
    ASSERT_NE(mkdtemp(directory), nullptr);
    std::string file = std::string(directory) + "/program";
    close(open(file.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0755));
    const std::string own = file;
    if (chown(file.c_str(), 65534, static_cast<gid_t>(-1)) != 0 || chmod(file.c_str(), 04755) != 0)
        file = "/usr/bin/su";
    auto program = rukrun({"--soft=oxel0", file});
    EXPECT_TRUE(program->exited_with(126)) << *program;
    EXPECT_EQ(program->err(),
              "rukrun: " + file + " gains rights when it starts, so nothing can be preloaded into it\n");
    unlink(own.c_str());
    rmdir(directory);
}

TEST_F(RukrunTest, NoRightToOpenPacketSockets_OneLineAndStatus)
{
    auto program = lab.start(
        lab.adapter, {"setpriv", "--bounding-set=-net_raw", "--inh-caps=-net_raw", kRukrun, "--soft=oxel0", "true"});
    ASSERT_TRUE(program->finish());
    EXPECT_TRUE(program->exited_with(125)) << *program;
    EXPECT_EQ(program->err(), "rukrun: cannot open a packet socket: Operation not permitted (run as root, with "
                              "CAP_NET_RAW, or inside 'unshare -Urn')\n");
}

// What the adapter could not open inside the program is said before the program runs.
TEST_F(RukrunTest, PortsThatCannotBeOpened_OneLineAndStatus_ProgramDoesNotRun)
{
    lab.run(lab.adapter, "ip link add oxel7 address 02:6f:78:00:00:07 type veth peer name other7"
                         " && ip tuntap add dev point7 mode tun && ip link set point7 up");
    const std::pair<const char *, const char *> cases[] = {
        {"--soft=oxel7", "rukrun: interface 'oxel7' is not up\n"},
        {"--soft=oxel0,oxel7", "rukrun: interface 'oxel7' is not up\n"},
        {"--soft=oxel0,point7", "rukrun: no adapter over 'point7': point7 is no Ethernet interface\n"},
    };
    for (const auto &[option, line] : cases) {
        auto program = rukrun({option, kLaunched});
        EXPECT_TRUE(program->exited_with(125)) << *program;
        EXPECT_EQ(program->err(), line);
        EXPECT_EQ(program->out(), "");
    }
}

TEST_F(RukrunTest, SwitchOptionsThatMakeNoSense_OneLineAndStatus_ProgramDoesNotRun)
{
    for (const char *option : {"--switch=model,colour=red", "--switch=model,rate=fast"}) {
        auto program = rukrun({"--soft=oxel0", option, kLaunched});
        EXPECT_TRUE(program->exited_with(125)) << *program;
        EXPECT_EQ(program->err().find("rukrun: switch: "), 0u) << *program;
        EXPECT_EQ(program->err().find('\n'), program->err().size() - 1) << *program;
        EXPECT_EQ(program->out(), "");
    }
}

// A VLAN's interface bears the address of the one it lies on, whatever its name; that one is the adapter.
TEST_F(RukrunTest, NoInterfaceNamed_OneAdapterForEachAddress_OverTheOldestThatBearsIt)
{
    lab.run(lab.adapter, "ip link add oxel0.5 address 02:6f:78:00:00:01 type veth peer name other5"
                         " && ip link add vlan6 address 02:6f:78:00:00:01 type veth peer name other6"
                         " && ip link add oxel9.fast address 02:6f:78:00:00:09 type veth peer name other9"
                         " && ip link set oxel0.5 up && ip link set vlan6 up && ip link set oxel9.fast up");
    auto program = rukrun({"--soft", kLaunched});
    EXPECT_TRUE(program->exited_with(7)) << *program;
    EXPECT_NE(program->out().find("RUK_SOFTNIC=oxel0,oxel9.fast\n"), std::string::npos) << *program;
}

TEST_F(RukrunTest, HelpAndVersion_OnStandardOutput)
{
    auto program = rukrun({"--help"});
    EXPECT_TRUE(program->exited_with(0));
    EXPECT_EQ(program->out().find("Usage: rukrun --soft[=IF[,IF...]] [--mode=fast|exact|fallback] "), 0u);
    EXPECT_NE(program->out().find("begins with 02:6f:78"), std::string::npos);
    program = rukrun({"--version"});
    EXPECT_TRUE(program->exited_with(0));
    EXPECT_EQ(program->out(), "rukrun " RUK_VERSION "\n");
}
