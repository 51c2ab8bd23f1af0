// The doctor on an adapter and a host of the test's making: what no real host can be brought to say.
#include "doctor.h"

#include "fake_host.h"
#include "libc_seam.h"
#include "nuv_types.h"
#include "ruk_core.h"
#include "scoped_env.h"
#include "softnic.h"
#include "tov.h"

#include <cstdarg>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <linux/perf_event.h>
#include <optional>
#include <random>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/timex.h>
#include <unistd.h>

using namespace test_support;
using tools::Finding;
using tools::Health;

namespace {

/* What the kernel answers to the doctor alone. */
struct Kernel {
    std::optional<int> watchpoint_error; /* 0: it is given */
    std::optional<int> processors;
    std::optional<int> clock_status;
    long clock_error_us = 0;
    int steering_error = 0;
};
Kernel kernel;

} // namespace

/* The linker gives the doctor's calls to these. */
extern "C" {
long __real_syscall(long number, ...);
int __real_adjtimex(struct timex *state);
int __real_sched_getaffinity(pid_t pid, size_t size, cpu_set_t *set);
long __wrap_syscall(long number, ...);
int __wrap_adjtimex(struct timex *state);
int __wrap_sched_getaffinity(pid_t pid, size_t size, cpu_set_t *set);
int __wrap__ZN7softnic12try_steeringEv();

long __wrap_syscall(long number, ...)
{
    va_list list;
    va_start(list, number);
    long a[6];
    for (long &word : a)
        word = va_arg(list, long);
    va_end(list);
    if (number != SYS_perf_event_open || !kernel.watchpoint_error)
        return __real_syscall(number, a[0], a[1], a[2], a[3], a[4], a[5]);
    if (*kernel.watchpoint_error == 0)
        return open("/dev/null", O_RDONLY | O_CLOEXEC);
    errno = *kernel.watchpoint_error;
    return -1;
}

int __wrap_adjtimex(struct timex *state)
{
    if (!kernel.clock_status)
        return __real_adjtimex(state);
    state->status = *kernel.clock_status;
    state->maxerror = kernel.clock_error_us;
    return TIME_OK;
}

int __wrap_sched_getaffinity(pid_t pid, size_t size, cpu_set_t *set)
{
    if (!kernel.processors)
        return __real_sched_getaffinity(pid, size, set);
    if (8 * size < static_cast<size_t>(*kernel.processors)) {
        errno = EINVAL;
        return -1;
    }
    CPU_ZERO_S(size, set);
    for (int i = 0; i < *kernel.processors; i++)
        CPU_SET_S(i, size, set);
    return 0;
}

int __wrap__ZN7softnic12try_steeringEv() { return kernel.steering_error; }
}

namespace {

constexpr Mac adapter_mac = {0x02, 0x6f, 0x78, 0x00, 0x00, 0x01};
constexpr Mac other_mac = {0x00, 0x1b, 0x21, 0x00, 0x00, 0x05};

class DoctorOfModel : public testing::Test {
protected:
    ~DoctorOfModel() override
    {
        for (const tov_handle_t handle : others_)
            tov_close(handle);
        softnic_destroy(nic_);
        kernel = {};
    }

    /* The adapter of oxel0. */
    void plug(const std::function<void(softnic_board_config_t &)> &change = {})
    {
        softnic_board_config_t config;
        softnic_board_defaults(&config, 0);
        memcpy(config.mac, adapter_mac.data(), sizeof config.mac);
        if (change)
            change(config);
        nic_ = softnic_create(&config, 1, 1700000000000000000);
        ASSERT_NE(nic_, nullptr);
        ASSERT_EQ(softnic_attach(nic_), 0);
    }

    /* The driver refuses this command, or the open with 0. */
    void refuse(unsigned long command, int error)
    {
        refused_ = {command, error};
        softnic_set_command_hook(
            nic_,
            [](void *context, unsigned, unsigned long asked) {
                const auto *refused = static_cast<const std::pair<unsigned long, int> *>(context);
                return asked == refused->first ? refused->second : 0;
            },
            &refused_);
    }

    /* The endpoints that somebody has, a bit each. */
    uint64_t claimed() { return softnic_claimed(nic_, 0); }

    /* Another program has this endpoint. */
    void take(int32_t number)
    {
        tov_handle_t handle;
        ASSERT_EQ(tov_open(0, number, &handle, TOV_PRODUCT), 0);
        others_.push_back(handle);
        oxel_set_endpt_t endpoint = {number, OXEL_ES_RUK};
        ASSERT_EQ(tov_ioctl(handle, OXEL_SET_ENDPT, &endpoint, sizeof endpoint), 0);
    }

    static std::vector<Finding> findings(const std::string &check, const std::string &interface = "")
    {
        std::vector<Finding> found = tools::examine(interface);
        std::erase_if(found, [&](const Finding &f) { return f.check != check; });
        return found;
    }

    static Finding only(const std::string &check, const std::string &interface = "")
    {
        const std::vector<Finding> found = findings(check, interface);
        EXPECT_EQ(found.size(), 1u) << check;
        return found.size() == 1 ? found[0] : Finding{};
    }

    static Mac mac(bool adapter) { return adapter ? adapter_mac : other_mac; }

    void hosts(std::vector<FakeInterface> interfaces) { host.interfaces = std::move(interfaces); }

    FakeHost host{{{.mac = adapter_mac, .address = "10.1.0.1", .netmask = "255.255.255.0"}}};
    ScopedEnv acceleration{"RUK_IP_ACCELERATION", nullptr}, bypass{"RUK_BYPASS_CHECK", nullptr};

private:
    softnic_t *nic_ = nullptr;
    std::pair<unsigned long, int> refused_;
    std::vector<tov_handle_t> others_;
};

// ------------------------------------------------------------------ driver and adapter

TEST_F(DoctorOfModel, DriverOfThisRelease_IsOkWithItsInterface)
{
    plug([](softnic_board_config_t &config) { config.driver_api_magic = 4 << 8 | 7; });
    const Finding found = only("driver_interface");
    EXPECT_EQ(found.health, Health::ok);
    EXPECT_EQ(found.found, "interface 4.7");
    EXPECT_EQ(found.remedy, "");
}

TEST_F(DoctorOfModel, DriverOfAnotherMajorVersion_IsAFailureThatTellsBoth)
{
    for (const unsigned major : {3u, 5u}) {
        softnic_board_config_t config;
        softnic_board_defaults(&config, 0);
        config.driver_api_magic = major << 8 | 2;
        softnic_t *nic = softnic_create(&config, 1, 1);
        ASSERT_EQ(softnic_attach(nic), 0);
        const Finding found = only("driver_interface");
        EXPECT_EQ(found.health, Health::failure);
        EXPECT_EQ(found.found, "the driver has interface " + std::to_string(major) + ".2, the library 4.x");
        EXPECT_EQ(found.remedy, "install driver and library of one release");
        EXPECT_TRUE(findings("adapter").empty()) << "what builds on it is not looked at";
        softnic_destroy(nic);
    }
}

TEST_F(DoctorOfModel, DriverThatDoesNotListItsAdapters_IsAFailureWithTheReason)
{
    plug();
    refuse(OXEL_GET_BOARD_CNT, EIO);
    const Finding found = only("adapter");
    EXPECT_EQ(found.health, Health::failure);
    EXPECT_EQ(found.found, "the driver has no adapter: Input/output error");
    EXPECT_TRUE(findings("address").empty());
}

TEST_F(DoctorOfModel, DriverWithoutAdapters_IsAFailure)
{
    plug();
    host.sockets.on_ioctl[OXEL_GET_BOARD_CNT] = [](int, void *count) {
        memset(count, 0, 4);
        return 0;
    };
    const Finding found = only("adapter");
    EXPECT_EQ(found.health, Health::failure);
    EXPECT_EQ(found.found, "the driver has no adapter");
}

TEST_F(DoctorOfModel, InterfacesThatCannotBeListed_AreAFailure)
{
    plug();
    host.getifaddrs_error = ENOBUFS;
    const Finding found = only("address");
    EXPECT_EQ(found.health, Health::failure);
    EXPECT_EQ(found.found, "the interfaces cannot be listed: No buffer space available");
}

TEST_F(DoctorOfModel, NoInterfaceWithAnAddress_IsAFailureWithTheWayOut)
{
    plug();
    hosts({{.name = "eth0", .mac = other_mac, .address = "10.2.0.1", .netmask = "255.255.255.0"}});
    const Finding found = only("address");
    EXPECT_EQ(found.health, Health::failure);
    EXPECT_EQ(found.found, "no interface on an adapter has an IPv4 address");
    EXPECT_EQ(found.remedy, "give the adapter's interface an address: ip addr add ADDRESS/LENGTH dev IF");
}

TEST_F(DoctorOfModel, DeviceFileThatFailsOtherwise_SendsToTheKernelsLog)
{
    plug();
    refuse(0, EIO);
    const Finding found = only("device_files");
    EXPECT_EQ(found.health, Health::failure);
    EXPECT_EQ(found.found, "/dev/oxelB0 cannot be opened: Input/output error");
    EXPECT_EQ(found.remedy, "see what the driver says in the kernel's log");
}

TEST_F(DoctorOfModel, NameThatFillsItsRecord_IsFine)
{
    plug();
    hosts({{.name = "fifteen.letters", .mac = adapter_mac, .address = "10.1.0.1", .netmask = "255.255.255.0"}});
    const Finding found = only("address");
    EXPECT_EQ(found.health, Health::ok);
    EXPECT_EQ(found.found, "fifteen.letters: 10.1.0.1");
}

// ------------------------------------------------------------------ endpoints

TEST_F(DoctorOfModel, OneEndpointFree_IsOkAndIsFreeStill)
{
    plug([](softnic_board_config_t &config) { config.endpoints = 3; });
    take(2);
    take(0);
    EXPECT_EQ(claimed(), 5u);
    const Finding found = only("endpoints");
    EXPECT_EQ(found.health, Health::ok);
    EXPECT_EQ(found.found, "board 0: not all of its 3 are taken");
    EXPECT_EQ(found.remedy, "");
    EXPECT_EQ(claimed(), 5u);
    take(1);
}

TEST_F(DoctorOfModel, AllEndpointsFree_TheLastIsTried)
{
    plug();
    std::vector<int32_t> tried;
    host.sockets.on_ioctl[OXEL_SET_ENDPT] = [&](int, void *endpoint) {
        tried.push_back(static_cast<const oxel_set_endpt_t *>(endpoint)->endpoint);
        return 0;
    };
    EXPECT_EQ(only("endpoints").health, Health::ok);
    EXPECT_EQ(tried, std::vector<int32_t>{7}) << "others that open meanwhile take the first";
}

TEST_F(DoctorOfModel, AllEndpointsTaken_IsAFailureWithTheWayOut)
{
    plug([](softnic_board_config_t &config) { config.endpoints = 2; });
    take(0);
    take(1);
    for (const char *interface : {"", "oxel0"}) {
        const Finding found = only("endpoints", interface);
        EXPECT_EQ(found.health, Health::failure);
        EXPECT_EQ(found.found, "board 0: all of its 2 are taken: an open fails with EBUSY");
        EXPECT_EQ(found.remedy, "end a program that has one; 'fuser -v /dev/oxel*' tells which have");
    }
    EXPECT_EQ(claimed(), 3u);
}

TEST_F(DoctorOfModel, EndpointsThatCannotBeHadOtherwise_AreAFailureWithTheReason)
{
    plug();
    refuse(OXEL_SET_ENDPT, EIO);
    const Finding found = only("endpoints");
    EXPECT_EQ(found.health, Health::failure);
    EXPECT_EQ(found.found, "board 0: none can be had: Input/output error");
    EXPECT_EQ(found.remedy, "see what the driver says in the kernel's log");
}

TEST_F(DoctorOfModel, SecondBoardsFileRefused_EndpointsNameTheFileAndThePermission)
{
    softnic_board_config_t boards[2];
    for (unsigned i = 0; i < 2; i++) {
        softnic_board_defaults(&boards[i], i);
        memcpy(boards[i].mac, adapter_mac.data(), sizeof boards[i].mac);
        boards[i].mac[5] = static_cast<uint8_t>(1 + i);
    }
    softnic_t *nic = softnic_create(boards, 2, 1);
    ASSERT_EQ(softnic_attach(nic), 0);
    Mac second = adapter_mac;
    second[5] = 2;
    hosts({{.mac = adapter_mac, .address = "10.1.0.1", .netmask = "255.255.255.0"},
           {.name = "oxel1", .mac = second, .address = "10.3.0.1", .netmask = "255.255.255.0"}});
    int refusal = EACCES;
    softnic_set_command_hook(
        nic,
        [](void *error, unsigned board, unsigned long command) {
            return board == 1 && command == 0 ? *static_cast<const int *>(error) : 0;
        },
        &refusal);
    for (const auto &[error, text] : {std::pair(EACCES, "Permission denied"), {EPERM, "Operation not permitted"}}) {
        refusal = error;
        const std::vector<Finding> found = findings("endpoints");
        ASSERT_EQ(found.size(), 2u);
        EXPECT_EQ(found[0].health, Health::ok);
        EXPECT_EQ(found[1].health, Health::failure);
        EXPECT_EQ(found[1].found, std::string("board 1: /dev/oxelB1 cannot be opened: ") + text);
        EXPECT_EQ(found[1].remedy, "give this user read and write permission on /dev/oxelB1");
    }
    softnic_destroy(nic);
}

// ------------------------------------------------------------------ subnets

TEST_F(DoctorOfModel, AddressesApart_AreOk)
{
    plug();
    hosts({{.mac = adapter_mac, .address = "10.1.0.1", .netmask = "255.255.255.0"},
           {.name = "eth0", .mac = other_mac, .address = "10.2.0.1", .netmask = "255.255.255.0"}});
    EXPECT_EQ(only("subnets").health, Health::ok);
    EXPECT_EQ(only("subnets").found, "no other address is on the subnet of an adapter's");
}

TEST_F(DoctorOfModel, OtherCardsAddressOnTheAdaptersSubnet_IsAFailure)
{
    plug();
    hosts({{.name = "eth0", .mac = other_mac, .address = "10.1.0.9", .netmask = "255.255.255.0"},
           {.mac = adapter_mac, .address = "10.1.0.1", .netmask = "255.255.255.0"}});
    for (const char *interface : {"", "oxel0"}) {
        const Finding found = only("subnets", interface);
        EXPECT_EQ(found.health, Health::failure);
        EXPECT_EQ(found.found, "eth0 (10.1.0.9) and oxel0 (10.1.0.1) are on one subnet: an open ends the process");
    }
}

// A software adapter may be on any interface.
TEST_F(DoctorOfModel, AdapterOfAnotherMacAddress_TwoAddressesOnOneSubnet_AreAWarning)
{
    plug([](softnic_board_config_t &config) { memcpy(config.mac, other_mac.data(), sizeof config.mac); });
    hosts({{.mac = other_mac, .address = "10.1.0.1", .netmask = "255.255.255.0"},
           {.mac = other_mac, .address = "10.1.0.9", .netmask = "255.255.255.0"},
           {.name = "eth0", .mac = mac(false), .address = "10.2.0.1", .netmask = "255.255.255.0"}});
    EXPECT_EQ(krel_verify_ipsubnet(), 0);
    const Finding found = only("subnets");
    EXPECT_EQ(found.health, Health::warning);
    EXPECT_EQ(found.found, "oxel0 (10.1.0.1) and oxel0 (10.1.0.9) are on one subnet; an open knows adapters by MAC "
                           "addresses that begin with 02:6f:78 and does not see it, but on a card it ends the process");
    EXPECT_EQ(found.remedy, "leave one address on an adapter's subnet");
}

TEST_F(DoctorOfModel, SubnetsUnderDifferentMasks_AreEachByItsOwn)
{
    plug();
    FakeInterface other = {.name = "eth0", .mac = other_mac, .address = "10.1.0.200", .netmask = "255.255.255.128"};
    hosts({{.mac = adapter_mac, .address = "10.1.0.1", .netmask = "255.255.255.0"}, other});
    EXPECT_EQ(only("subnets").health, Health::ok) << "10.1.0.0 and 10.1.0.128";
    other.address = "10.1.0.100";
    host.interfaces[1] = other;
    EXPECT_EQ(only("subnets").health, Health::failure) << "10.1.0.0 both";
}

TEST_F(DoctorOfModel, InterfaceNamed_OtherAdaptersAreComparedAllTheSame)
{
    plug();
    Mac second = adapter_mac;
    second[5] = 2;
    hosts({{.mac = adapter_mac, .address = "10.1.0.1", .netmask = "255.255.255.0"},
           {.name = "oxel1", .mac = second, .address = "10.3.0.1", .netmask = "255.255.255.0"},
           {.name = "eth0", .mac = other_mac, .address = "10.3.0.2", .netmask = "255.255.255.0"}});
    const Finding found = only("subnets", "oxel0");
    EXPECT_EQ(found.health, Health::failure);
    EXPECT_EQ(found.found, "oxel1 (10.3.0.1) and eth0 (10.3.0.2) are on one subnet: an open ends the process");
}

TEST_F(DoctorOfModel, CheckOfSubnetsSwitchedOff_IsSaidAndIsNoFailure)
{
    plug();
    const std::vector<FakeInterface> clean = host.interfaces;
    std::vector<FakeInterface> doubled = clean;
    doubled.push_back({.name = "eth0", .mac = other_mac, .address = "10.1.0.2", .netmask = "255.255.255.0"});
    for (const char *variable : {"RUK_IP_ACCELERATION", "RUK_BYPASS_CHECK"}) {
        ScopedEnv off(variable, "");
        hosts(doubled);
        const Finding found = only("subnets");
        EXPECT_EQ(found.health, Health::warning);
        EXPECT_EQ(found.found, "oxel0 (10.1.0.1) and eth0 (10.1.0.2) are on one subnet; " + std::string(variable) +
                                   " is set, so an open does not look");
        hosts(clean);
        EXPECT_EQ(only("subnets").health, Health::ok);
        EXPECT_EQ(only("subnets").found, "no other address is on the subnet of an adapter's (" + std::string(variable) +
                                             " is set: an open does not look)");
    }
}

TEST_F(DoctorOfModel, InterfaceThatDoesNotTellItsHardwareAddress_IsAFailure)
{
    plug();
    host.interfaces.push_back(
        {.name = "eth0", .mac = other_mac, .address = "10.4.0.2", .netmask = "255.255.255.0", .hwaddr_error = EPERM});
    const Finding found = only("subnets");
    EXPECT_EQ(found.health, Health::failure);
    EXPECT_EQ(found.found, "the host's addresses cannot be listed, which ends the process at an open: "
                           "Operation not permitted");
}

// Over many small hosts: a failure exactly where an open would end the process.
TEST_F(DoctorOfModel, ManyHosts_SubnetsFailWhereAnOpenWould)
{
    plug();
    std::mt19937 random(20261121);
    const auto pick = [&](unsigned n) { return std::uniform_int_distribution<unsigned>(0, n - 1)(random); };
    const char *const masks[] = {"255.255.255.255", "255.255.255.128", "255.255.255.0", "255.255.0.0", "0.0.0.0", ""};
    unsigned failures = 0, rounds = 300;
    for (unsigned round = 0; round < rounds; round++) {
        std::vector<FakeInterface> list = {{.mac = adapter_mac, .address = "10.0.0.1", .netmask = masks[pick(5)]}};
        for (unsigned i = pick(4); i > 0; i--)
            list.push_back({.name = "if" + std::to_string(i),
                            .mac = mac(pick(2) == 0),
                            .address = "10." + std::to_string(pick(2)) + "." + std::to_string(pick(2)) + "." +
                                       std::to_string(1 + pick(254)),
                            .netmask = masks[pick(6)],
                            .family = pick(8) == 0 ? AF_INET6 : AF_INET});
        hosts(list);
        const bool ends = krel_verify_ipsubnet() != 0;
        failures += ends;
        bool failed = false;
        for (const Finding &f : findings("subnets", "oxel0"))
            failed = failed || f.health == Health::failure;
        EXPECT_EQ(failed, ends) << "round " << round;
    }
    EXPECT_GT(failures, rounds / 10);
    EXPECT_LT(failures, rounds - rounds / 10);
    EXPECT_EQ(host.unreleased_lists(), 0u);
}

// ------------------------------------------------------------------ the machine

TEST_F(DoctorOfModel, WatchpointsGiven_AreOk)
{
    kernel.watchpoint_error = 0;
    EXPECT_EQ(only("watchpoints").health, Health::ok);
    EXPECT_EQ(only("watchpoints").found, "hardware watchpoints can be had");
}

TEST_F(DoctorOfModel, WatchpointsRefused_TheRemedyGoesByTheReason)
{
    const std::string refused = "hardware watchpoints are refused, so the software adapter sends more slowly: ";
    const struct {
        int error;
        const char *text, *remedy;
    } cases[] = {
        {ENOSPC, "No space left on device", "all are taken: end the debugger or tracer that has them"},
        {EBUSY, "Device or resource busy", "all are taken: end the debugger or tracer that has them"},
        {EACCES, "Permission denied", "sysctl kernel.perf_event_paranoid=2 or less, or run with CAP_PERFMON"},
        {EPERM, "Operation not permitted", "sysctl kernel.perf_event_paranoid=2 or less, or run with CAP_PERFMON"},
        {ENOSYS, "Function not implemented", "this kernel or machine has none: nothing to do"},
    };
    for (const auto &[error, text, remedy] : cases) {
        kernel.watchpoint_error = error;
        const Finding found = only("watchpoints");
        EXPECT_EQ(found.health, Health::warning);
        EXPECT_EQ(found.found, refused + text);
        EXPECT_EQ(found.remedy, remedy);
    }
}

TEST_F(DoctorOfModel, Steering_IsAsTheHostAllows)
{
    EXPECT_EQ(only("steering").health, Health::ok);
    EXPECT_EQ(only("steering").found, "the host's own stack can be kept from the software adapter's frames");
    const std::string refused =
        "the host's own stack cannot be kept from the software adapter's frames, and gets them as well: ";
    const char *const privilege = "for that the software adapter needs root, CAP_NET_ADMIN, or 'unshare -Urn'";
    const char *const module = "modprobe nf_tables; before version 5.12 kernels cannot do it";
    const struct {
        int error;
        const char *text, *remedy;
    } cases[] = {
        {EPERM, "Operation not permitted", privilege},       {EACCES, "Permission denied", privilege},
        {EPROTONOSUPPORT, "Protocol not supported", module}, /* nothing that speaks to packet filters */
        {EOPNOTSUPP, "Operation not supported", module},     /* no such filters, or none with an owner */
        {ENOENT, "No such file or directory", module},       /* a part of them is missing */
    };
    for (const auto &[error, text, remedy] : cases) {
        kernel.steering_error = error;
        const Finding found = only("steering");
        EXPECT_EQ(found.health, Health::warning);
        EXPECT_EQ(found.found, refused + text);
        EXPECT_EQ(found.remedy, remedy);
    }
}

TEST_F(DoctorOfModel, Processors_TwoAreEnough)
{
    kernel.processors = 2;
    EXPECT_EQ(only("processors").health, Health::ok);
    EXPECT_EQ(only("processors").found, "2 for this process");
    kernel.processors = 5000; /* the kernel refuses a set that does not hold all of the machine's */
    EXPECT_EQ(only("processors").health, Health::ok);
    EXPECT_EQ(only("processors").found, "5000 for this process");
    kernel.processors = 1;
    EXPECT_EQ(only("processors").health, Health::warning);
}

TEST_F(DoctorOfModel, HostsClock_IsAsTheKernelTells)
{
    kernel.clock_status = STA_PLL;
    kernel.clock_error_us = 1234;
    EXPECT_EQ(only("clock_sync").health, Health::ok);
    EXPECT_EQ(only("clock_sync").found, "the host's clock is kept right, to about 1234 us");
    kernel.clock_status = STA_PLL | STA_UNSYNC;
    EXPECT_EQ(only("clock_sync").health, Health::warning);
    EXPECT_EQ(only("clock_sync").remedy, "run chronyd, ntpd or phc2sys");
}

} // namespace
