/* The three ways to open an endpoint: what they ask for, in which order, what they leave behind when they fail. */
#include "endpoint_test.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>

using namespace test_support;

namespace {

/* The adapter list of one board, as it precedes every open. */
const Lines list_one_board = {"open /dev/oxelBp0", "4D05",          "4D0D 00000000", "4D0A 00000000", "4D32",
                              "50B4 00000000",     "4D37 00000000", "close"};
const Lines count_endpoints = {"open /dev/oxelBp0", "4D32", "close"};
const Lines claim_first = {"open /dev/oxelBp0", "50E9 00000000c8000000"};
const Lines read_params = {"4D9C"};
const Lines set_up = {"50EA",
                      "5091",
                      "mmap 20000+8000 rw",
                      "mmap 10000+4000 rw",
                      "mmap 40000+4000 rw",
                      "mmap 50000+1000 rw",
                      "mmap 60000+1000 ro",
                      "mmap 70000+1000 rw",
                      "mmap 80000+1000 ro",
                      "5097"};
const Lines release = {"munmap 10000+4000", "munmap 10000+4000", "munmap 20000+8000", "munmap 40000+4000",
                       "munmap 50000+1000", "munmap 60000+1000", "munmap 70000+1000", "munmap 80000+1000"};

class OpenTest : public EndpointTest {
protected:
    int open_by_mac(uint8_t last_byte, const char *address, int flags = 0)
    {
        uint8_t mac[6] = {0x02, 0x6f, 0x78, 0, 0, last_byte};
        struct in_addr addr = in_addr_of(address);
        return ruk_open_by_perm_mac(mac, &addr, flags, &dev);
    }
    /* A second adapter with an interface of its own. */
    void add_second_board()
    {
        driver.boards.push_back({0x026f78000002, 0x026f78000002});
        host.interfaces.push_back({.name = "oxel1", .mac = {0x02, 0x6f, 0x78, 0, 0, 2}, .address = "10.77.0.2"});
    }
};

/* ------------------------------------------------------------------ by address */

TEST_F(OpenTest, ByAddress_DriverAskedInOrder)
{
    open();
    EXPECT_EQ(driver.trace, list_one_board + count_endpoints + claim_first + read_params + set_up);
    EXPECT_EQ(dev->rep_state, REP_STATE_OPEN);
    driver.take_trace();
    int handle = dev->rep_handle;
    EXPECT_EQ(driver.handles(), std::vector<int>{handle});
    close();
    EXPECT_EQ(driver.trace, release + Lines{"close"});
}

TEST_F(OpenTest, ByAddress_KernelSocketBetweenParametersAndQueues)
{
    open();
    std::vector<SocketCall> log = host.sockets.log();
    size_t at = 0;
    while (at < log.size() && !(log[at].slot == Slot::ioctl && log[at].request == OXEL_GET_RUK_PARAMS))
        at++;
    ASSERT_LT(at + 5, log.size());
    EXPECT_EQ(log[at + 1].slot, Slot::socket);
    EXPECT_EQ(log[at + 1].level, AF_INET);
    EXPECT_EQ(log[at + 1].name, SOCK_DGRAM);
    int fd = log[at + 1].result;
    EXPECT_EQ(log[at + 2].slot, Slot::bind);
    EXPECT_EQ(log[at + 2].fd, fd);
    EXPECT_EQ(hex(log[at + 2].to.data(), log[at + 2].to.size()), "020000007f000001" + std::string(16, '0'));
    EXPECT_EQ(log[at + 3].slot, Slot::getsockname);
    EXPECT_EQ(log[at + 4].slot, Slot::getsockname);
    EXPECT_EQ(log[at + 4].fd, fd);
    EXPECT_EQ(log[at + 5].request, static_cast<unsigned long>(OXEL_ENABLE_ENDPT));
    EXPECT_EQ(host.sockets.count(Slot::setsockopt), 0u);

    EXPECT_EQ(dev->rep_send_fd, fd);
    EXPECT_EQ(dev->rep_send_sin.sin_family, AF_INET);
    EXPECT_EQ(dev->rep_send_sin.sin_port, htons(40001));
    EXPECT_EQ(dev->rep_send_sin.sin_addr.s_addr, be32("127.0.0.1"));

    host.sockets.clear();
    int handle = dev->rep_handle;
    close();
    ASSERT_EQ(host.sockets.count(Slot::close), 2u);
    EXPECT_EQ(host.sockets.log()[0].fd, handle);
    EXPECT_EQ(host.sockets.log()[1].fd, fd);
}

TEST_F(OpenTest, Disabled_NothingSetUp)
{
    open(RUK_OPEN_DISABLED);
    EXPECT_EQ(driver.trace, list_one_board + count_endpoints + claim_first + read_params);
    EXPECT_EQ(dev->rep_state, REP_STATE_ALLOC);
    struct ruk__map none;
    memset(&none, 0, sizeof none);
    EXPECT_EQ(memcmp(&dev->rep_map, &none, sizeof none), 0);
    EXPECT_EQ(dev->rep_sreq_alloc, nullptr);
    EXPECT_EQ(dev->rep_sreq_pool, nullptr);
    EXPECT_GE(dev->rep_send_fd, 0);
    driver.take_trace();
    close();
    EXPECT_EQ(driver.trace, Lines{"close"});
}

TEST_F(OpenTest, NewRecord_InitialValues)
{
    driver.params = {1111, 65536, 2, 0};
    open(RUK_OPEN_DISABLED);
    EXPECT_EQ(dev->rep_inuse, 0u);
    EXPECT_EQ(dev->rep_shutdown, 0u);
    EXPECT_EQ(dev->rep_epid, 0u);
    EXPECT_EQ(dev->rep_unit, 0u);
    EXPECT_EQ(dev->rep_lockp, nullptr);
    EXPECT_EQ(dev->rep_rx_lockp, nullptr);
    EXPECT_EQ(dev->rep_flow, nullptr);
    EXPECT_EQ(dev->rep_ipaddr_be32, be32("127.0.0.1"));
    ASSERT_NE(dev->rep_mif, nullptr);
    EXPECT_EQ(dev->rep_mif, dev->rep_mif_addrs);
    EXPECT_STREQ(dev->rep_mif->tov_ifa_name, "oxel0");
    EXPECT_NE(dev->rep_routes, nullptr);
    EXPECT_EQ(dev->rep_max_routes, 16u);
    EXPECT_EQ(dev->rep_num_valid_rts, 0u);
    EXPECT_EQ(dev->rep_channel_mix, 0u);
    EXPECT_TRUE(TAILQ_EMPTY(&dev->rep_chanq));
    EXPECT_TRUE(TAILQ_EMPTY(&dev->rep_tag_uniq));
    EXPECT_TRUE(TAILQ_EMPTY(&dev->rep_tag_filterq));
    EXPECT_TRUE(TAILQ_EMPTY(&dev->rep_tag_delayq));
    EXPECT_EQ(dev->rep_tag_cnt, 0);
    for (const struct ruk__tag_entry *block : dev->rep_tag_table)
        EXPECT_EQ(block, nullptr);
    EXPECT_EQ(dev->rep_dmasend_threshold, 1111u);
    EXPECT_EQ(dev->rep_recvq_size, 65536u);
    EXPECT_EQ(dev->rep_recvq_filter_mode, RUK_RECV_FILTER_RAW);
    EXPECT_EQ(dev->rep_timestamping_enabled, 0u);
    EXPECT_EQ(dev->rep_sreq_inflight, 0);
    EXPECT_EQ(dev->rep_num_packets, 0u);
    const unsigned char *cache = reinterpret_cast<const unsigned char *>(dev->rep_mac_cache);
    EXPECT_EQ(hex(cache, sizeof dev->rep_mac_cache), std::string(2 * sizeof dev->rep_mac_cache, '0'));
}

TEST_F(OpenTest, ThreadSafe_LocksOfTheRecordReachable)
{
    open(RUK_OPEN_THREAD_SAFE);
    EXPECT_EQ(dev->rep_lockp, &dev->rep_lock);
    EXPECT_EQ(dev->rep_rx_lockp, &dev->rep_rx_lock);
    EXPECT_EQ(dev->rep_timestamping_enabled, 0u);
    EXPECT_EQ(pthread_mutex_trylock(&dev->rep_lock), 0) << "free once opened";
    EXPECT_EQ(pthread_mutex_trylock(&dev->rep_rx_lock), 0);
    EXPECT_EQ(pthread_mutex_trylock(&dev->rep_lock), EBUSY) << "default mutexes do not nest";
    pthread_mutex_unlock(&dev->rep_lock);
    pthread_mutex_unlock(&dev->rep_rx_lock);
}

TEST_F(OpenTest, TimestampingFlag_Remembered_OtherBitsIgnored)
{
    open(RUK_OPEN_HW_TIMESTAMPING);
    EXPECT_EQ(dev->rep_timestamping_enabled, 1u);
    EXPECT_EQ(dev->rep_lockp, nullptr);
    close();
    driver.taken.clear();
    open(~7);
    EXPECT_EQ(dev->rep_timestamping_enabled, 0u);
    EXPECT_EQ(dev->rep_lockp, nullptr);
    EXPECT_EQ(dev->rep_state, REP_STATE_OPEN);
}

TEST_F(OpenTest, InterfaceOfAnotherBoard_ThatBoardsFileOpened)
{
    add_second_board();
    struct in_addr addr = in_addr_of("10.77.0.2");
    ASSERT_EQ(ruk_open(&addr, RUK_OPEN_DISABLED, &dev), 0);
    EXPECT_EQ(dev->rep_unit, 1u);
    EXPECT_EQ(dev->rep_ipaddr_be32, be32("10.77.0.2"));
    EXPECT_STREQ(dev->rep_mif->tov_ifa_name, "oxel1");
    EXPECT_STREQ(dev->rep_mif_addrs->tov_ifa_name, "oxel0") << "the whole list is kept";
    Lines last(driver.trace.end() - 6, driver.trace.end());
    EXPECT_EQ(last, (Lines{"open /dev/oxelBp0", "4D32", "close", "open /dev/oxelBp1", "50E9 00000000c8000000", "4D9C"}))
        << "the endpoint count is asked of any board";
}

TEST_F(OpenTest, FirstEndpointTaken_NextFreeOneClaimed)
{
    driver.taken = {0, 1, 3};
    open(RUK_OPEN_DISABLED);
    EXPECT_EQ(dev->rep_epid, 2u);
    EXPECT_EQ(driver.trace,
              (list_one_board + count_endpoints +
               Lines{"open /dev/oxelBp0", "50E9 00000000c8000000", "close", "open /dev/oxelBp0",
                     "50E9 01000000c8000000", "close", "open /dev/oxelBp0", "50E9 02000000c8000000", "4D9C"}));
}

TEST_F(OpenTest, AllEndpointsTaken_Busy)
{
    driver.max_endpts = 2;
    driver.taken = {0, 1};
    EXPECT_EQ(ruk_open(&loopback, 0, &dev), EBUSY);
    EXPECT_EQ(dev, nullptr);
    EXPECT_EQ(driver.count("50E9"), 2u);
    EXPECT_EQ(driver.handles().size(), 0u);
}

TEST_F(OpenTest, ClaimRefusedOtherwise_NoFurtherEndpointTried)
{
    driver.fail(OXEL_SET_ENDPT, 1, EPERM);
    EXPECT_EQ(ruk_open(&loopback, 0, &dev), EPERM);
    EXPECT_EQ(driver.trace, list_one_board + count_endpoints + claim_first + Lines{"close"});
    EXPECT_EQ(dev, nullptr);
}

/* The first two opens are those of the adapter list and of the endpoint count. */
TEST_F(OpenTest, DeviceFileFailsForOneEndpoint_NextOneTried)
{
    LibcHookGuard hooks;
    int opens = 0;
    hooks->open = [&, next = hooks->open](const char *path, int flags) {
        opens++;
        if (opens == 3 || opens == 4) { /* both names */
            errno = EMFILE;
            return -1;
        }
        return next(path, flags);
    };
    open(RUK_OPEN_DISABLED);
    EXPECT_EQ(dev->rep_epid, 1u);
    EXPECT_EQ(driver.count("50E9"), 1u);
}

TEST_F(OpenTest, DeviceFileFailsForEveryEndpoint_LastErrorReturned)
{
    LibcHookGuard hooks;
    int opens = 0;
    hooks->open = [&, next = hooks->open](const char *path, int flags) {
        opens++;
        if (opens >= 3) {
            errno = opens <= 9 ? EMFILE : ENFILE;
            return -1;
        }
        return next(path, flags);
    };
    EXPECT_EQ(ruk_open(&loopback, 0, &dev), ENFILE);
    EXPECT_EQ(opens, 2 + 4 * 2);
    EXPECT_EQ(dev, nullptr);
}

TEST_F(OpenTest, AdapterWithoutEndpoints_NoSuchDevice)
{
    driver.max_endpts = 0;
    EXPECT_EQ(ruk_open(&loopback, 0, &dev), ENODEV);
    EXPECT_EQ(dev, nullptr);
}

/* ------------------------------------------------------------------ arguments */

TEST_F(OpenTest, NullArguments_InvalidWithoutAWord)
{
    StreamCapture streams;
    ruk__api_version = 0;
    EXPECT_EQ(ruk_open(nullptr, 0, &dev), EINVAL);
    EXPECT_EQ(ruk_open(&loopback, 0, nullptr), EINVAL);
    EXPECT_EQ(ruk_open_if(nullptr, 0, &dev), EINVAL);
    EXPECT_EQ(ruk_open_if("oxel0", 0, nullptr), EINVAL);
    EXPECT_EQ(streams.out() + streams.err(), "");
    EXPECT_EQ(driver.trace, Lines{});
}

TEST_F(OpenTest, LibraryNotInitialised_SaidAndRefused)
{
    StreamCapture streams;
    ruk__api_version = 0;
    ruk__init_ext = 1;
    EXPECT_EQ(ruk_open(&loopback, 0, &dev), EINVAL);
    EXPECT_EQ(streams.err(), "RUK must be initialized with ruk_init()\n");
    streams.clear();
    EXPECT_EQ(ruk_open_if("oxel0", 0, &dev), EINVAL);
    EXPECT_EQ(streams.err(), "RUK must be initialized with ruk_init()\n");
    EXPECT_EQ(streams.out(), "");
    EXPECT_EQ(driver.trace, Lines{});
    EXPECT_EQ(dev, nullptr);
}

TEST_F(OpenTest, AddressZero_NoSuchDevice_NothingAsked)
{
    struct in_addr any = {0};
    EXPECT_EQ(ruk_open(&any, 0, &dev), ENODEV);
    EXPECT_EQ(driver.trace, Lines{});
    EXPECT_EQ(host.getifaddrs_calls, 0u);
}

TEST_F(OpenTest, AddressOfNoAdapterInterface_NoSuchDevice)
{
    host.interfaces.push_back({.name = "eth0", .mac = {0, 1, 2, 3, 4, 5}, .address = "10.1.1.1"});
    struct in_addr foreign = in_addr_of("10.1.1.1");
    EXPECT_EQ(ruk_open(&foreign, 0, &dev), ENODEV);
    EXPECT_EQ(driver.trace, list_one_board);
    EXPECT_EQ(dev, nullptr);

    driver.boards.clear();
    driver.open_errors["/dev/oxelB0"] = 0; /* the driver is there, with no adapter */
    EXPECT_EQ(ruk_open(&loopback, 0, &dev), ENODEV);
}

TEST_F(OpenTest, HostInterfacesCannotBeListed_ErrorReturned)
{
    host.getifaddrs_error = ENOBUFS;
    EXPECT_EQ(ruk_open(&loopback, 0, &dev), ENOBUFS);
    EXPECT_EQ(driver.trace, list_one_board);
    EXPECT_EQ(dev, nullptr);
}

/* ------------------------------------------------------------------ progress lines */

TEST_F(OpenTest, Verbose_ProgressOnStandardOutput)
{
    __ruk_verbose = 1;
    add_second_board();
    struct in_addr addr = in_addr_of("10.77.0.2");
    StreamCapture streams;
    ASSERT_EQ(ruk_open(&addr, 0, &dev), 0);
    EXPECT_EQ(streams.out(), "RUK using RUK API\n"
                             "Attempting to open NIC at 10.77.0.2\n"
                             "Attempting to open board 1\n"
                             "Board 1 mac addr: 02:6f:78:00:00:02\n");
    EXPECT_EQ(streams.err(), "Arista timestamping [off] \n");
    size_t claim = 0;
    while (driver.trace[claim] != "50E9 00000000c8000000")
        claim++;
    EXPECT_EQ(driver.trace[claim + 1], "4D0D 01000000");
    EXPECT_EQ(driver.trace[claim + 2], "4D9C");
}

TEST_F(OpenTest, NotVerbose_Silent)
{
    StreamCapture streams;
    open();
    close();
    EXPECT_EQ(streams.out() + streams.err(), "");
}

TEST_F(OpenTest, VerboseOpenOfNoInterface_AttemptAtTheAddressButAtNoBoard)
{
    __ruk_verbose = 1;
    ruk__init_ext = 1;
    struct in_addr any = {0}, foreign = in_addr_of("10.99.1.2");
    StreamCapture streams;
    EXPECT_EQ(ruk_open(&any, 0, &dev), ENODEV);
    EXPECT_EQ(streams.out(), "RUK using RUK API\n"
                             "Attempting to open NIC at 0.0.0.0\n");
    const std::string banner_line = streams.err();
    EXPECT_TRUE(matches(banner_line, "[^\n]+\\[[0-9]+\\] RUK " + version_form + " [^\n]+\n")) << banner_line;
    streams.clear();
    EXPECT_EQ(ruk_open(&foreign, 0, &dev), ENODEV);
    EXPECT_EQ(streams.out(), "RUK using RUK API\n"
                             "Attempting to open NIC at 10.99.1.2\n");
    EXPECT_EQ(streams.err(), "") << "the banner has been";
}

/* The identity is asked for twice: for the adapter list, and to be printed. */
TEST_F(OpenTest, VerboseOpen_IdentityRefusedForPrinting_ErrorReturned_AllReleased)
{
    __ruk_verbose = 1;
    driver.fail(OXEL_GET_NIC_ID, 2, ENOLINK);
    StreamCapture streams;
    EXPECT_EQ(ruk_open(&loopback, 0, &dev), ENOLINK);
    EXPECT_EQ(streams.out(), "RUK using RUK API\n"
                             "Attempting to open NIC at 127.0.0.1\n"
                             "Attempting to open board 0\n");
    EXPECT_EQ(dev, nullptr);
    EXPECT_EQ(driver.trace, list_one_board + count_endpoints + claim_first + Lines({"4D0D 00000000", "close"}));
    EXPECT_EQ(driver.handles().size(), 0u);
}

/* ------------------------------------------------------------------ failures */

struct Refusal {
    const char *name;
    unsigned long command;
    unsigned nth;
};
void PrintTo(const Refusal &r, std::ostream *os) { *os << r.name; }

class OpenRefusalTest : public OpenTest, public testing::WithParamInterface<Refusal> {};

TEST_P(OpenRefusalTest, CommandFails_ErrorReturned_AllReleased)
{
    driver.fail(GetParam().command, GetParam().nth, ENOLINK);
    StreamCapture streams;
    ruk_device_t untouched = reinterpret_cast<ruk_device_t>(0x1234);
    EXPECT_EQ(ruk_open(&loopback, RUK_OPEN_THREAD_SAFE, &untouched), ENOLINK);
    EXPECT_EQ(untouched, reinterpret_cast<ruk_device_t>(0x1234));
    EXPECT_EQ(driver.handles().size(), 0u);
    EXPECT_EQ(host.sockets.count(Slot::socket), host.sockets.count(Slot::close) - driver.count("close") + 1)
        << "the interface query closes its socket directly, the others go through the table";
    EXPECT_EQ(streams.out() + streams.err(), "");
}

INSTANTIATE_TEST_SUITE_P(Steps, OpenRefusalTest,
                         testing::Values(Refusal{"MaxEndpoints", OXEL_GET_MAX_ENDPTS, 2},
                                         Refusal{"Claim", OXEL_SET_ENDPT, 1}, Refusal{"Params", OXEL_GET_RUK_PARAMS, 1},
                                         Refusal{"Enable", OXEL_ENABLE_ENDPT, 1},
                                         Refusal{"Copyblock", OXEL_GET_COPYBLOCK, 1},
                                         Refusal{"SendRequests", OXEL_GET_SREQS_CNT, 1}),
                         [](const auto &info) { return info.param.name; });

TEST_F(OpenTest, KernelSocketFails_ItsErrno)
{
    host.sockets.fail(Slot::bind, 1, EADDRNOTAVAIL);
    EXPECT_EQ(ruk_open(&loopback, 0, &dev), EADDRNOTAVAIL);
    driver.taken.clear();
    host.sockets.fail(Slot::getsockname, 1, ENOBUFS);
    EXPECT_EQ(ruk_open(&loopback, 0, &dev), ENOBUFS);
    driver.taken.clear();
    host.sockets.fail(Slot::getsockname, 2, EIO);
    EXPECT_EQ(ruk_open(&loopback, 0, &dev), EIO);
    EXPECT_EQ(dev, nullptr);
    EXPECT_EQ(driver.count("50EA"), 0u);
    EXPECT_EQ(driver.handles().size(), 0u);
}

/* Binding does without a socket that cannot be had, asking for its name does not. */
TEST_F(OpenTest, KernelSocketCannotBeHad_NameQueryFails)
{
    host.sockets.fail(Slot::socket, 2, EMFILE); /* the first one reads the interface's MAC address */
    EXPECT_EQ(ruk_open(&loopback, 0, &dev), EBADF);
    EXPECT_EQ(dev, nullptr);
}

TEST_F(OpenTest, EveryAllocationInTurn_OutOfMemory_AllReleased)
{
    unsigned allocations;
    {
        AllocFault count;
        open();
        allocations = count.calls();
    }
    close();
    ASSERT_GE(allocations, 6u) << "adapter list, interface list, record, routes, requests, pool";
    for (unsigned nth = 1; nth <= allocations; nth++) {
        driver.taken.clear();
        AllocFault fault(nth);
        EXPECT_EQ(ruk_open(&loopback, RUK_OPEN_THREAD_SAFE, &dev), ENOMEM) << nth;
        EXPECT_EQ(dev, nullptr) << nth;
        EXPECT_EQ(driver.handles().size(), 0u) << nth;
        EXPECT_EQ(host.unreleased_lists(), 0u) << nth;
    }
}

TEST_F(OpenTest, RouteTableCannotGrow_ErrorWithAnOpenEndpoint)
{
    for (int i = 0; i < 17; i++)
        host.add_route("oxel0", "10." + std::to_string(i) + ".0.0", "0.0.0.0", "255.255.0.0");
    unsigned allocations;
    {
        AllocFault count;
        open();
        allocations = count.calls();
    }
    close();
    driver.taken.clear();
    StreamCapture streams;
    AllocFault fault(allocations);
    EXPECT_EQ(ruk_open(&loopback, 0, &dev), ENOMEM);
    EXPECT_EQ(streams.err(), "Unable to grow route table\n");
    ASSERT_NE(dev, nullptr) << "the caller owns it and is to close it";
    EXPECT_EQ(dev->rep_state, REP_STATE_OPEN);
    EXPECT_EQ(dev->rep_num_valid_rts, 16u);
}

/* ------------------------------------------------------------------ by name */

TEST_F(OpenTest, ByName_EndpointOfTheInterfacesAddress)
{
    add_second_board();
    ASSERT_EQ(ruk_open_if("oxel1", RUK_OPEN_DISABLED, &dev), 0);
    EXPECT_EQ(dev->rep_ipaddr_be32, be32("10.77.0.2"));
    EXPECT_EQ(dev->rep_unit, 1u);
}

TEST_F(OpenTest, ByName_QueryHasRoomFor2048Bytes_AndClosesItsSocket)
{
    int room = 0;
    auto answer = host.sockets.on_ioctl[SIOCGIFCONF];
    host.sockets.on_ioctl[SIOCGIFCONF] = [&](int fd, void *arg) {
        room = static_cast<struct ifconf *>(arg)->ifc_len;
        return answer(fd, arg);
    };
    EXPECT_EQ(ruk_open_if("eth7", 0, &dev), ENXIO);
    EXPECT_EQ(room, 2048);
    std::vector<SocketCall> log = host.sockets.log();
    ASSERT_EQ(log.size(), 3u);
    EXPECT_EQ(log[0].slot, Slot::socket);
    EXPECT_EQ(log[0].name, SOCK_DGRAM);
    EXPECT_EQ(log[2].slot, Slot::close);
    EXPECT_EQ(log[2].fd, log[0].result);
}

TEST_F(OpenTest, ByNameThatNoInterfaceHas_AdapterNotTouched)
{
    for (const char *name : {"eth7", "oxel", "oxel00", "", "oxel0-and-a-name-too-long"})
        EXPECT_EQ(ruk_open_if(name, 0, &dev), ENXIO) << name;
    EXPECT_EQ(driver.trace, Lines{});
    EXPECT_EQ(dev, nullptr);
}

TEST_F(OpenTest, ByName_HostCannotBeAsked_NegativeErrno)
{
    host.sockets.fail(Slot::socket, 1, EMFILE);
    EXPECT_EQ(ruk_open_if("oxel0", 0, &dev), -EMFILE);
    host.sockets.fail_ioctl(SIOCGIFCONF, 1, ENOTTY);
    EXPECT_EQ(ruk_open_if("oxel0", 0, &dev), -ENOTTY);
    host.sockets.fail_ioctl(SIOCGIFADDR, 1, EADDRNOTAVAIL);
    EXPECT_EQ(ruk_open_if("oxel0", 0, &dev), -EADDRNOTAVAIL);
    EXPECT_EQ(host.sockets.count(Slot::close), 2u);
    EXPECT_EQ(driver.trace, Lines{});
    EXPECT_EQ(dev, nullptr);
}

/* As in a program that closed its standard input. */
TEST_F(OpenTest, SocketOfDescriptorZero_IsOneToo)
{
    const int standard_input = dup(0);
    ASSERT_EQ(::close(0), 0);
    struct in_addr addr = {};
    const int rc = iface_to_interface_addr("oxel0", &addr);
    if (standard_input >= 0)
        dup2(standard_input, 0), ::close(standard_input);
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(addr.s_addr, inet_addr("127.0.0.1"));
    EXPECT_EQ(host.sockets.log().back().fd, 0) << "closed again";
}

/* ------------------------------------------------------------------ by permanent MAC address */

TEST_F(OpenTest, ByMac_AdaptersListedThenInterfaces)
{
    ASSERT_EQ(open_by_mac(1, "127.0.0.1"), 0);
    EXPECT_EQ(driver.trace, list_one_board + list_one_board + count_endpoints + claim_first + read_params + set_up);
    EXPECT_STREQ(dev->rep_mif->tov_ifa_name, "oxel0");
    EXPECT_EQ(dev->rep_ipaddr_be32, be32("127.0.0.1"));
    EXPECT_EQ(dev->rep_state, REP_STATE_OPEN);
}

TEST_F(OpenTest, ByMac_PermanentAddressCounts_FirstMatchTaken)
{
    driver.boards = {{0x026f78000009, 0x026f78000001}, {0x026f78000001, 0x026f78000007}, {0x026f78000001, 1}};
    ASSERT_EQ(open_by_mac(1, "127.0.0.1", RUK_OPEN_DISABLED), 0);
    EXPECT_EQ(dev->rep_unit, 1u);
    EXPECT_EQ(dev->rep_mif->tov_ifa_boardnum, 0u) << "the interface is found by its address alone";
}

TEST_F(OpenTest, ByMac_InterfaceMissing_OpensWithoutOne)
{
    host.add_route("oxel0", "127.0.0.0", "0.0.0.0", "255.0.0.0");
    ASSERT_EQ(open_by_mac(1, "10.9.9.9", RUK_OPEN_THREAD_SAFE), 0);
    EXPECT_EQ(dev->rep_mif, nullptr);
    EXPECT_NE(dev->rep_mif_addrs, nullptr);
    EXPECT_EQ(dev->rep_ipaddr_be32, be32("10.9.9.9"));
    EXPECT_EQ(dev->rep_unit, 0u);
    EXPECT_EQ(dev->rep_lockp, &dev->rep_lock);
    EXPECT_EQ(dev->rep_num_valid_rts, 0u);
}

/* Address 0 is one that no interface has, and nothing more, for an adapter that is already chosen. */
TEST_F(OpenTest, ByMac_AddressZero_OpensWithoutAnInterface)
{
    ASSERT_EQ(open_by_mac(1, "0.0.0.0"), 0);
    EXPECT_EQ(dev->rep_mif, nullptr);
    EXPECT_EQ(dev->rep_ipaddr_be32, 0u);
    EXPECT_EQ(dev->rep_state, REP_STATE_OPEN);
    EXPECT_EQ(driver.trace, list_one_board + list_one_board + count_endpoints + claim_first + read_params + set_up);
}

TEST_F(OpenTest, ByMac_LibraryNotInitialised_OpensAllTheSame)
{
    ruk__api_version = 0;
    StreamCapture streams;
    EXPECT_EQ(open_by_mac(1, "127.0.0.1"), 0);
    EXPECT_EQ(streams.out() + streams.err(), "");
}

TEST_F(OpenTest, ByMac_NeitherSubnetCheckNorSwitchTimestamps)
{
    ScopedEnv check("RUK_IP_ACCELERATION", nullptr);
    ScopedEnv arista("OXEL_ARISTA_ENABLE_TIMESTAMPING", "1");
    __ruk_verbose = 1;
    host.interfaces.push_back({.name = "eth0", .mac = {0, 1, 2, 3, 4, 5}, .address = "127.0.0.3"});
    StreamCapture streams;
    ASSERT_EQ(open_by_mac(1, "127.0.0.1"), 0);
    EXPECT_EQ(streams.err(), "");
    EXPECT_EQ(streams.out(), "RUK using RUK API\n"
                             "Attempting to open NIC at 127.0.0.1\n"
                             "Attempting to open board 0\n"
                             "Board 0 mac addr: 02:6f:78:00:00:01\n");
    EXPECT_EQ(driver.count("50EB"), 0u);
    EXPECT_EQ(dev->arista_control.arct_status, ARISTA_STATUS_DISABLED);
    streams.clear();
    close();
    EXPECT_EQ(streams.out() + streams.err(), "");
}

TEST_F(OpenTest, ByMacOfNoAdapter_Invalid)
{
    EXPECT_EQ(open_by_mac(2, "127.0.0.1"), EINVAL);
    EXPECT_EQ(driver.take_trace(), list_one_board) << "the host's interfaces are not asked for";
    EXPECT_EQ(host.getifaddrs_calls, 0u);
    driver.boards.clear();
    driver.open_errors["/dev/oxelB0"] = 0;
    EXPECT_EQ(open_by_mac(1, "127.0.0.1"), EINVAL);
    EXPECT_EQ(dev, nullptr);
}

TEST_F(OpenTest, ByMac_NullArguments_Invalid)
{
    uint8_t mac[6] = {0x02, 0x6f, 0x78, 0, 0, 1};
    EXPECT_EQ(ruk_open_by_perm_mac(nullptr, &loopback, 0, &dev), EINVAL);
    EXPECT_EQ(ruk_open_by_perm_mac(mac, nullptr, 0, &dev), EINVAL);
    EXPECT_EQ(ruk_open_by_perm_mac(mac, &loopback, 0, nullptr), EINVAL);
    EXPECT_EQ(driver.trace, Lines{});
}

TEST_F(OpenTest, ByMac_ListsFailOrAreEmpty_ErrorReturned)
{
    driver.fail(OXEL_GET_BOARD_CNT, 1, EIO);
    EXPECT_EQ(open_by_mac(1, "127.0.0.1"), EIO);
    host.getifaddrs_error = ENOBUFS;
    EXPECT_EQ(open_by_mac(1, "127.0.0.1"), ENOBUFS);
    host.getifaddrs_error.reset();
    host.interfaces[0].mac[5] = 7;
    EXPECT_EQ(open_by_mac(1, "127.0.0.1"), ENODEV);
    EXPECT_EQ(dev, nullptr);
}

TEST_F(OpenTest, ByMac_StepsAfterTheRecordFail_ErrorReturned_AllReleased)
{
    driver.fail(OXEL_ENABLE_ENDPT, 1, EIO);
    EXPECT_EQ(open_by_mac(1, "127.0.0.1"), EIO);
    EXPECT_EQ(dev, nullptr);
    EXPECT_EQ(driver.handles().size(), 0u);
}

} // namespace
