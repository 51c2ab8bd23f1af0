/* What opening reads from the host: subnets, the environment of the switch timestamps, the routes. */
#include "endpoint_test.h"

#include <sys/ioctl.h>
#include <unistd.h>

using namespace test_support;

namespace {

constexpr Mac adapter_mac(uint8_t last) { return {0x02, 0x6f, 0x78, 0, 0, last}; }
constexpr Mac other_mac(uint8_t last) { return {0x00, 0x1b, 0x21, 0, 0, last}; }

/* ------------------------------------------------------------------ subnets */

class SubnetTest : public EndpointTest {
protected:
    void hosts(std::vector<FakeInterface> interfaces) { host.interfaces = std::move(interfaces); }

    ScopedEnv check{"RUK_IP_ACCELERATION", nullptr};
    const std::string verdict =
        "RUK detected two or more IPs on the same subnet. This mode is not supported. Exiting.\n";
};

TEST_F(SubnetTest, TwoAdapterAddressesOnOneSubnet_ProcessEnds)
{
    hosts({{.mac = adapter_mac(1), .address = "10.1.0.1", .netmask = "255.255.0.0"},
           {.name = "oxel1", .mac = adapter_mac(2), .address = "10.1.9.2", .netmask = "255.255.0.0"}});
    ChildResult child = run_in_child([&] {
        ruk_open(&loopback, 0, &dev);
        return 7;
    });
    EXPECT_TRUE(child.exited_with(1)) << child;
    EXPECT_EQ(child.err, verdict);
    EXPECT_EQ(child.out, "");
}

TEST_F(SubnetTest, CheckedBeforeTheArguments)
{
    hosts({{.mac = adapter_mac(1), .address = "10.1.0.1", .netmask = "255.255.0.0"},
           {.name = "eth0", .mac = other_mac(2), .address = "10.1.9.2", .netmask = "255.255.0.0"}});
    ruk__api_version = 0;
    ChildResult child = run_in_child([] {
        ruk_open(nullptr, 0, nullptr);
        return 7;
    });
    EXPECT_TRUE(child.exited_with(1)) << child;
    EXPECT_EQ(child.err, verdict);
}

TEST_F(SubnetTest, OpenByName_CheckedToo)
{
    hosts({{.mac = adapter_mac(1), .address = "10.1.0.1", .netmask = "255.0.0.0"},
           {.name = "eth0", .mac = other_mac(2), .address = "10.2.9.2", .netmask = "255.0.0.0"}});
    ChildResult child = run_in_child([&] {
        ruk_open_if("oxel0", 0, &dev);
        return 7;
    });
    EXPECT_TRUE(child.exited_with(1)) << child;
    EXPECT_EQ(child.err, verdict);
}

TEST_F(SubnetTest, Verdicts)
{
    const FakeInterface card = {.mac = adapter_mac(1), .address = "10.1.0.1", .netmask = "255.255.0.0"};
    FakeInterface alias = card;
    alias.address = "10.1.0.77";
    FakeInterface apart = card;
    apart.address = "10.2.0.1";
    FakeInterface other = {.name = "eth0", .mac = other_mac(1), .address = "10.1.3.3", .netmask = "255.255.0.0"};
    FakeInterface other_twin = {.name = "eth1", .mac = other_mac(2), .address = "10.1.3.4", .netmask = "255.255.0.0"};

    hosts({});
    EXPECT_EQ(krel_verify_ipsubnet(), 0) << "no interface at all";
    hosts({card});
    EXPECT_EQ(krel_verify_ipsubnet(), 0);
    hosts({card, alias});
    EXPECT_EQ(krel_verify_ipsubnet(), -1) << "aliases of one interface";
    hosts({card, apart});
    EXPECT_EQ(krel_verify_ipsubnet(), 0);
    hosts({card, other});
    EXPECT_EQ(krel_verify_ipsubnet(), -1) << "an adapter and another card";
    hosts({other, card});
    EXPECT_EQ(krel_verify_ipsubnet(), -1) << "in either order";
    hosts({other, other_twin});
    EXPECT_EQ(krel_verify_ipsubnet(), 0) << "other cards among themselves";
    hosts({other, other_twin, apart});
    EXPECT_EQ(krel_verify_ipsubnet(), 0);
    EXPECT_EQ(host.unreleased_lists(), 0u);
    EXPECT_EQ(host.sockets.count(Slot::socket), host.sockets.count(Slot::close));
}

TEST_F(SubnetTest, SubnetIsAddressAndMask)
{
    FakeInterface card = {.mac = adapter_mac(1), .address = "10.1.0.1", .netmask = "255.255.255.0"};
    FakeInterface other = {.name = "eth0", .mac = other_mac(1), .address = "10.1.0.200", .netmask = "255.255.255.128"};
    hosts({card, other});
    EXPECT_EQ(krel_verify_ipsubnet(), 0) << "10.1.0.0 and 10.1.0.128";
    other.address = "10.1.0.100";
    hosts({card, other});
    EXPECT_EQ(krel_verify_ipsubnet(), -1) << "10.1.0.0 both, under different masks";
}

TEST_F(SubnetTest, SubnetZeroAndOtherFamilies_NotCompared)
{
    FakeInterface card = {.mac = adapter_mac(1), .address = "0.0.0.1", .netmask = "255.255.0.0"};
    FakeInterface other = {.name = "eth0", .mac = other_mac(1), .address = "0.0.0.2", .netmask = "255.255.0.0"};
    hosts({card, other});
    EXPECT_EQ(krel_verify_ipsubnet(), 0);

    card.address = "10.1.0.1";
    other.address = "10.1.0.2";
    other.family = AF_INET6;
    other.hwaddr_error = EIO; /* and not asked about */
    hosts({card, other});
    EXPECT_EQ(krel_verify_ipsubnet(), 0);
    other.family = AF_INET;
    other.netmask = "";
    hosts({card, other});
    EXPECT_EQ(krel_verify_ipsubnet(), 0) << "no netmask";
    other.netmask = "255.255.0.0";
    other.address = "";
    hosts({card, other});
    EXPECT_EQ(krel_verify_ipsubnet(), 0) << "no address";

    other = {.name = "eth0", .flags = IFF_UP, .family = AF_INET6};
    hosts({other, other});
    EXPECT_EQ(krel_verify_ipsubnet(), 0) << "whatever the host says of them";
}

/* The address and the netmask are IPv4, or the entry is not looked at. */
TEST_F(SubnetTest, NetmaskOfAnotherFamily_NotComparedAndNotAskedAbout)
{
    hosts({{.mac = adapter_mac(1), .address = "10.1.0.1", .netmask = "255.255.0.0"},
           {.name = "eth0", .mac = other_mac(1), .address = "10.1.0.2", .netmask = "255.255.0.0"}});
    EXPECT_EQ(krel_verify_ipsubnet(), -1);
    host.interfaces[1].hwaddr_error = EIO;
    LibcHookGuard hooks;
    hooks->getifaddrs = [next = hooks->getifaddrs](struct ifaddrs **list) {
        int rc = next(list);
        (*list)->ifa_next->ifa_netmask->sa_family = AF_INET6;
        return rc;
    };
    EXPECT_EQ(krel_verify_ipsubnet(), 0);
}

TEST_F(SubnetTest, AdaptersAreKnownByTheirThreeByteMacPrefix)
{
    FakeInterface card = {.mac = adapter_mac(1), .address = "10.1.0.1", .netmask = "255.255.0.0"};
    FakeInterface other = {.name = "eth0", .mac = other_mac(1), .address = "10.1.0.2", .netmask = "255.255.0.0"};
    for (size_t byte = 0; byte < 3; byte++) {
        FakeInterface alien = card;
        alien.mac[byte] ^= 1;
        hosts({alien, other});
        EXPECT_EQ(krel_verify_ipsubnet(), 0) << byte;
    }
    hosts({card, other});
    EXPECT_EQ(krel_verify_ipsubnet(), -1);
}

TEST_F(SubnetTest, HostCannotBeAsked_ProcessEndsWithTheCause)
{
    auto end = [&](const std::function<void()> &prepare) {
        return run_in_child([&] {
            prepare();
            krel_verify_ipsubnet();
            return 7;
        });
    };
    ChildResult child = end([&] { host.sockets.fail(Slot::socket, 1, EMFILE); });
    EXPECT_TRUE(child.exited_with(1)) << child;
    EXPECT_EQ(child.err, "socket: Too many open files\n");
    child = end([&] { host.getifaddrs_error = EPERM; });
    EXPECT_TRUE(child.exited_with(1)) << child;
    EXPECT_EQ(child.err, "getifaddrs: Operation not permitted\n");
    child = end([&] { host.interfaces[0].hwaddr_error = ENODEV; });
    EXPECT_TRUE(child.exited_with(1)) << child;
    EXPECT_EQ(child.err, "ioctl: No such device\n");
    EXPECT_EQ(child.out, "");
    child = end([&] {
        host.interfaces[0].address = "0.0.0.1";
        host.interfaces[0].hwaddr_error = ENODEV;
    });
    EXPECT_TRUE(child.exited_with(1)) << "also asked of an interface whose subnet is 0: " << child;
    EXPECT_EQ(child.err, "ioctl: No such device\n");
}

TEST_F(SubnetTest, SkippedByEitherVariable_OneOfThemSaysSo)
{
    host.interfaces.push_back({.name = "oxel1", .mac = adapter_mac(2), .address = "127.0.0.2"});
    ruk_device_t none = nullptr;
    StreamCapture streams;
    {
        ScopedEnv bypass("RUK_BYPASS_CHECK", "");
        EXPECT_EQ(ruk_open(nullptr, 0, &none), EINVAL);
        EXPECT_EQ(streams.out(), "");
        __ruk_verbose = 1;
        EXPECT_EQ(ruk_open(nullptr, 0, &none), EINVAL);
        EXPECT_EQ(streams.out(), "Skipping IP subnet check\n");
        streams.clear();
        ScopedEnv acceleration("RUK_IP_ACCELERATION", "");
        EXPECT_EQ(ruk_open(nullptr, 0, &none), EINVAL);
        EXPECT_EQ(streams.out(), "") << "this one is silent, and goes first";
    }
    EXPECT_EQ(streams.err(), "");
    EXPECT_EQ(host.getifaddrs_calls, 0u);
    EXPECT_EQ(host.sockets.count(Slot::socket), 0u);
}

/* ------------------------------------------------------------------ switch timestamps */

class SwitchSettingsTest : public EndpointTest {
protected:
    /* Opens verbosely with these variables; standard error. The endpoint stays open. */
    std::string open_said(const std::vector<std::pair<const char *, const char *>> &variables)
    {
        std::vector<std::unique_ptr<ScopedEnv>> set;
        for (const auto &[name, value] : variables)
            set.push_back(std::make_unique<ScopedEnv>(name, value));
        __ruk_verbose = 1;
        StreamCapture streams;
        open();
        driver.taken.clear();
        return streams.err();
    }
    /* Without the closing summary, which is printed and keeps memory for good. */
    void TearDown() override
    {
        if (dev)
            dev->arista_control.arct_status = ARISTA_STATUS_DISABLED;
    }

    ScopedEnv clean[5] = {{"OXEL_ARISTA_PARAM_KF_DST_IP", nullptr},
                          {"OXEL_ARISTA_PARAM_KF_CHECK_RATE", nullptr},
                          {"OXEL_ARISTA_PARAM_KF_CHECK_PTP", nullptr},
                          {"OXEL_ARISTA_PARAM_KF_KERNDUP", nullptr},
                          {"OXEL_ARISTA_ENABLE_SKEW", nullptr}};
};

TEST_F(SwitchSettingsTest, NotSetOrZero_Off)
{
    EXPECT_EQ(open_said({}), "Arista timestamping [off] \n");
    EXPECT_EQ(driver.filter_requests.size(), 0u);
    EXPECT_EQ(dev->arista_control.arct_status, ARISTA_STATUS_DISABLED);
    close();
    for (const char *value : {"0", "00", "off"}) {
        EXPECT_EQ(open_said({{"OXEL_ARISTA_ENABLE_TIMESTAMPING", value}}), "Arista timestamping [off] \n") << value;
        close();
    }
    EXPECT_EQ(driver.filter_requests.size(), 0u);
}

TEST_F(SwitchSettingsTest, On_KeyframeFilterOfTheDefaultAddress)
{
    const std::string on = "Arista timestamping [on], mode: append (before-fcs), dst_ip: 1.1.1.0\n\t  * features: "
                           "keyframe check min.rate [on] kf check ptp [on] kf kernel dup [off] kf skew [off] \n";
    for (const char *value : {"1", "", "17"}) {
        EXPECT_EQ(open_said({{"OXEL_ARISTA_ENABLE_TIMESTAMPING", value}}), on) << value;
        EXPECT_EQ(dev->arista_control.arct_status, ARISTA_STATUS_INITED);
        EXPECT_EQ(driver.trace.back(), "50EB 00010101" /* 1.1.1.0, little-endian */
                                       "0000"          /* port */
                                       "0000"          /* VLAN */
                                       "0000"          /* tag */
                                       "00"            /* install */
                                       "00"            /* not to the kernel */
                                       "02");          /* protocol 253 */
        TearDown();
        close();
    }
}

TEST_F(SwitchSettingsTest, On_ControlRecordFilled)
{
    open_said({{"OXEL_ARISTA_ENABLE_TIMESTAMPING", "1"}});
    const ast_ctl_t *ctl = &dev->arista_control;
    EXPECT_EQ(ctl->arct_mode, ARISTA_FCS_TIMESTAMPING_DISABLED);
    EXPECT_EQ(ctl->arct_kf_check_rate, 1);
    EXPECT_EQ(ctl->arct_kf_check_ptp, 1);
    EXPECT_EQ(ctl->arct_kf_dupkern, 0);
    EXPECT_EQ(ctl->arct_kf_hasskew, 0);
    EXPECT_EQ(ctl->arct_kf_recv, 0);
    EXPECT_EQ(ctl->arct_kf_last_ts, 0u);
    EXPECT_EQ(ctl->arct_kf_flipped, 0u);
    EXPECT_EQ(ctl->arct_kf_ptp_wait, UINT64_MAX);
    EXPECT_EQ(hex(&ctl->arct_stats, sizeof ctl->arct_stats), std::string(2 * sizeof ctl->arct_stats, '0'));
    EXPECT_EQ(ctl->arct_lastkf.ak_utc_time, 0u);
    EXPECT_EQ(hex(ctl->arct_prodname, 4), "52554b00");
    EXPECT_EQ(ctl->arct_kf_dst_ip, be32("1.1.1.0"));
}

TEST_F(SwitchSettingsTest, EveryFeatureTurned)
{
    EXPECT_EQ(open_said({{"OXEL_ARISTA_ENABLE_TIMESTAMPING", "1"},
                         {"OXEL_ARISTA_PARAM_KF_DST_IP", "239.7.8.9"},
                         {"OXEL_ARISTA_PARAM_KF_CHECK_RATE", "0"},
                         {"OXEL_ARISTA_PARAM_KF_CHECK_PTP", "0x1"},
                         {"OXEL_ARISTA_PARAM_KF_KERNDUP", "1"},
                         {"OXEL_ARISTA_ENABLE_SKEW", "-1"}}),
              "Arista timestamping [on], mode: append (before-fcs), dst_ip: 239.7.8.9\n\t  * features: "
              "keyframe check min.rate [off] kf check ptp [off] kf kernel dup [on] kf skew [on] \n")
        << "numbers are decimal: 0x1 is 0";
    EXPECT_EQ(driver.trace.back(), "50EB 090807ef0000000000000001"
                                   "02")
        << "matching frames also go to the kernel";
    EXPECT_EQ(dev->arista_control.arct_kf_dst_ip, be32("239.7.8.9"));
    EXPECT_EQ(dev->arista_control.arct_kf_dupkern, 1);
}

TEST_F(SwitchSettingsTest, EmptyFeatures_Defaults)
{
    EXPECT_EQ(open_said({{"OXEL_ARISTA_ENABLE_TIMESTAMPING", "1"},
                         {"OXEL_ARISTA_PARAM_KF_DST_IP", ""},
                         {"OXEL_ARISTA_PARAM_KF_CHECK_RATE", ""},
                         {"OXEL_ARISTA_PARAM_KF_CHECK_PTP", ""},
                         {"OXEL_ARISTA_PARAM_KF_KERNDUP", ""},
                         {"OXEL_ARISTA_ENABLE_SKEW", ""}}),
              "Arista timestamping [on], mode: append (before-fcs), dst_ip: 1.1.1.0\n\t  * features: "
              "keyframe check min.rate [on] kf check ptp [on] kf kernel dup [off] kf skew [off] \n");
}

TEST_F(SwitchSettingsTest, LongAddress_CutAt31Characters)
{
    const std::string address = "1.2.3.4 and then some more text";
    ASSERT_EQ(address.size(), 31u);
    std::string said = open_said(
        {{"OXEL_ARISTA_ENABLE_TIMESTAMPING", "1"}, {"OXEL_ARISTA_PARAM_KF_DST_IP", (address + "xyz").c_str()}});
    EXPECT_NE(said.find("dst_ip: " + address + "\n"), std::string::npos) << said;
}

TEST_F(SwitchSettingsTest, FilterRefused_OffAndSaid_OpenSucceeds)
{
    driver.fail(OXEL_RX_FILTER, 1, ENOSPC);
    EXPECT_EQ(open_said({{"OXEL_ARISTA_ENABLE_TIMESTAMPING", "1"}}),
              "filter-add ip=10101,port=0: FAILED with return value 28\n"
              "Failed to provide Arista filter to NIC: turning off Arista support\n");
    ASSERT_NE(dev, nullptr);
    EXPECT_EQ(dev->arista_control.arct_status, ARISTA_STATUS_DISABLED);
    EXPECT_EQ(dev->rep_state, REP_STATE_OPEN);
}

TEST_F(SwitchSettingsTest, NotVerbose_NoStatusLine)
{
    ScopedEnv on("OXEL_ARISTA_ENABLE_TIMESTAMPING", "1");
    StreamCapture streams;
    open();
    EXPECT_EQ(streams.out() + streams.err(), "");
    EXPECT_EQ(dev->arista_control.arct_status, ARISTA_STATUS_INITED);
}

TEST_F(SwitchSettingsTest, DisabledEndpoint_FilterInstalledAllTheSame)
{
    ScopedEnv on("OXEL_ARISTA_ENABLE_TIMESTAMPING", "1");
    open(RUK_OPEN_DISABLED);
    EXPECT_EQ(driver.filters.size(), 1u);
}

/* ------------------------------------------------------------------ routes */

class RoutesTest : public EndpointTest {
protected:
    struct Route {
        uint32_t dst, gw, mask, flags;
        bool operator==(const Route &) const = default;
    };
    std::vector<Route> routes_read()
    {
        open(RUK_OPEN_DISABLED);
        std::vector<Route> all;
        for (uint32_t i = 0; i < dev->rep_num_valid_rts; i++) {
            const struct rep_rtentry &r = dev->rep_routes[i];
            all.push_back({r.dst_addr, r.gw_addr, r.mask, r.flags});
        }
        max_routes = dev->rep_max_routes;
        close();
        driver.taken.clear();
        return all;
    }
    uint32_t max_routes = 0;
};

std::string line(const std::string &name,
                 const std::string &rest = "00004D0A\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0")
{
    return name + "\t" + rest + "\n";
}

TEST_F(RoutesTest, RoutesOfTheEndpointsInterface_KeptAsTheyStand)
{
    host.routes = "titles\n" + line("oxel0", "00000000\t0101A8C0\t0003\t0\t0\t100\t00000000\t0\t0\t0") +
                  line("oxel0", "00004D0A\t00000000\t0001\t0\t0\t0\t00FFFFFF\t1500\t1\t-2");
    EXPECT_EQ(routes_read(), (std::vector<Route>{{0, 0x0101A8C0, 0, 3}, {0x00004D0A, 0, 0x00FFFFFF, 1}}));
    EXPECT_EQ(max_routes, 16u);
    EXPECT_EQ(host.route_opens, 1u);
}

TEST_F(RoutesTest, FirstLineNeverARoute)
{
    host.routes = line("oxel0") + line("oxel0");
    EXPECT_EQ(routes_read().size(), 1u);
}

TEST_F(RoutesTest, FileMissingOrEmpty_NoRoutes)
{
    host.routes.reset();
    EXPECT_EQ(routes_read().size(), 0u);
    host.routes = "";
    EXPECT_EQ(routes_read().size(), 0u);
    host.routes = "titles without an end";
    EXPECT_EQ(routes_read().size(), 0u);
}

TEST_F(RoutesTest, RouteDownIncompleteOrOfAnotherInterface_NotKept)
{
    host.routes = "titles\n" + line("oxel0", "00004D0A\t00000000\t0002\t0\t0\t0\t00FFFFFF\t0\t0\t0") + /* down */
                  line("eth0") + line("oxel") + line("oxel00") +
                  line("oxel0", "00004D0A\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0") + /* ten fields */
                  line("oxel0", "00004D0A\tgateway\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0") + "\n" +
                  line("oxel0", "00000B0A\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\textra") +
                  line("oxel0", "00000C0A\t00000000\tFF01\t0\t0\t0\t00FFFFFF\t0\t0\t0");
    EXPECT_EQ(routes_read(), (std::vector<Route>{{0x00000B0A, 0, 0x00FFFFFF, 1}, {0x00000C0A, 0, 0x00FFFFFF, 0xFF01}}));
}

TEST_F(RoutesTest, OtherInterfacesOfTheSameAdapter_Kept)
{
    driver.boards.push_back({0x026f78000002, 0x026f78000002});
    host.interfaces.push_back({.name = "oxel0.7", .address = "10.7.0.1"});
    host.interfaces.push_back({.name = "oxel1", .mac = adapter_mac(2), .address = "10.8.0.1"});
    host.routes = "titles\n" + line("oxel1", "00000B0A\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0") +
                  line("oxel0.7", "00000C0A\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0");
    EXPECT_EQ(routes_read(), (std::vector<Route>{{0x00000C0A, 0, 0x00FFFFFF, 1}}));
}

TEST_F(RoutesTest, MoreThanSixteen_TableGrowsBySixteen)
{
    host.routes = "titles\n";
    for (int i = 0; i < 16; i++)
        host.add_route("oxel0", "10." + std::to_string(i) + ".0.0", "0.0.0.0", "255.255.0.0");
    EXPECT_EQ(routes_read().size(), 16u);
    EXPECT_EQ(max_routes, 16u);
    host.add_route("oxel0", "10.16.0.0", "0.0.0.0", "255.255.0.0");
    std::vector<Route> all = routes_read();
    ASSERT_EQ(all.size(), 17u);
    EXPECT_EQ(max_routes, 32u);
    for (uint32_t i = 0; i < 17; i++)
        EXPECT_EQ(all[i], (Route{0x0000000Au | i << 8, 0, 0x0000FFFF, 1})) << i;
    for (int i = 17; i < 33; i++)
        host.add_route("oxel0", "10." + std::to_string(i) + ".0.0", "0.0.0.0", "255.255.0.0");
    EXPECT_EQ(routes_read().size(), 33u);
    EXPECT_EQ(max_routes, 48u);
}

/* The table grows for any line that comes when it is full. */
TEST_F(RoutesTest, FullTableAndAForeignLine_GrowsAllTheSame)
{
    host.routes = "titles\n";
    for (int i = 0; i < 16; i++)
        host.add_route("oxel0", "10." + std::to_string(i) + ".0.0", "0.0.0.0", "255.255.0.0");
    host.add_route("eth0", "10.99.0.0", "0.0.0.0", "255.255.0.0");
    EXPECT_EQ(routes_read().size(), 16u);
    EXPECT_EQ(max_routes, 32u);
}

/* Lines are read 1023 characters at a time: what is left over is taken for the next line. */
TEST_F(RoutesTest, OverlongLine_RestReadAsTheNextLine)
{
    std::string rest = line("oxel0", "00000D0A\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0");
    host.routes = "titles\n" + std::string(1023, 'x') + rest;
    EXPECT_EQ(routes_read(), (std::vector<Route>{{0x00000D0A, 0, 0x00FFFFFF, 1}}));
    host.routes = "titles\n" + std::string(1022, 'x') + rest;
    EXPECT_EQ(routes_read().size(), 0u);
    host.routes = std::string(1023, 't') + rest;
    EXPECT_EQ(routes_read().size(), 1u) << "the titles are a line like any other";
}

TEST_F(RoutesTest, ReadAgain_StartsAnew)
{
    host.routes = "titles\n" + line("oxel0") + line("oxel0");
    open(RUK_OPEN_DISABLED);
    EXPECT_EQ(dev->rep_num_valid_rts, 2u);
    host.routes = "titles\n" + line("oxel0");
    EXPECT_EQ(ruk__arp_init(dev), 0);
    EXPECT_EQ(dev->rep_num_valid_rts, 1u);
    host.routes.reset();
    EXPECT_EQ(ruk__arp_init(dev), 0);
    EXPECT_EQ(dev->rep_num_valid_rts, 0u);
}

} // namespace
