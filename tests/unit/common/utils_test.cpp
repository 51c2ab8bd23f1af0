/* The host's interfaces on adapters, their addresses, and the VLAN of an interface's name. */
#include "fake_driver.h"
#include "fake_host.h"
#include "tov.h"

#include <ctype.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

using namespace test_support;

namespace {

struct HostInterfaces : testing::Test {
    HostInterfaces()
    {
        driver.files["/dev/oxelBp0"] = 0;
        driver.boards = {{0x026f78000001, 0x026f78000001, 7, 1, 0}, {0x026f78000002, 0x026f78000002, 7, 0, 0}};
        host.interfaces.clear();
    }
    ~HostInterfaces() override
    {
        EXPECT_EQ(host.unreleased_lists(), 0u) << "the host's list is freed on every way out";
        if (list != untouched)
            tov_freeifaddrs(list);
    }
    void add(const std::string &name, Mac mac, const std::string &address)
    {
        FakeInterface i;
        i.name = name;
        i.mac = mac;
        i.address = address;
        host.interfaces.push_back(i);
    }

    static constexpr Mac board0 = {0x02, 0x6f, 0x78, 0, 0, 1};
    static constexpr Mac board1 = {0x02, 0x6f, 0x78, 0, 0, 2};
    static constexpr Mac foreign = {0x00, 0x16, 0x3e, 1, 2, 3};

    struct tov_ifaddrs *const untouched = reinterpret_cast<struct tov_ifaddrs *>(16);
    struct tov_ifaddrs *list = untouched;
    int num = -5;
    FakeDriver driver;
    FakeHost host;
};

} // namespace

TEST_F(HostInterfaces, AdapterAndOtherInterfaces_Listed_OnlyTheAdaptersInHostOrder)
{
    add("lo", {}, "127.0.0.1");
    add("oxel1", board1, "10.1.0.1");
    add("eth0", foreign, "10.2.0.1");
    add("oxel0", board0, "10.3.0.1");
    host.interfaces[1].netmask = "255.255.240.0";
    host.interfaces[1].broadcast = "10.1.15.255";
    driver.max_endpts = 9;

    ASSERT_EQ(tov_getifaddrs(&list, 1, &num), 0);
    ASSERT_EQ(num, 2);
    EXPECT_STREQ(list->tov_ifa_name, "oxel1");
    EXPECT_EQ(list->tov_ifa_flags, 3u);
    EXPECT_EQ(memcmp(&list->tov_ifa_ipaddr, "\x0a\x01\x00\x01", 4), 0);
    EXPECT_EQ(memcmp(&list->tov_ifa_netmask, "\xff\xff\xf0\x00", 4), 0);
    EXPECT_EQ(memcmp(&list->tov_ifa_bcastaddr, "\x0a\x01\x0f\xff", 4), 0);
    EXPECT_EQ(list->tov_ifa_boardnum, 1u);
    EXPECT_EQ(list->tov_ifa_nicid, 0x026f78000002u);
    EXPECT_EQ(memcmp(list->tov_ifa_macaddr, "\x02\x6f\x78\x00\x00\x02", 6), 0);
    EXPECT_EQ(list->tov_ifa_max_endpoints, 9u);
    EXPECT_EQ(list->tov_ifa_link_state, 0u);

    struct tov_ifaddrs *second = list->tov_ifa_next;
    ASSERT_EQ(second, list + 1);
    EXPECT_STREQ(second->tov_ifa_name, "oxel0");
    EXPECT_EQ(memcmp(&second->tov_ifa_ipaddr, "\x0a\x03\x00\x01", 4), 0);
    EXPECT_EQ(second->tov_ifa_boardnum, 0u);
    EXPECT_EQ(second->tov_ifa_link_state, 1u);
    EXPECT_EQ(second->tov_ifa_next, nullptr);
}

TEST_F(HostInterfaces, SeveralRecords_Listed_OneBlockRecordsThenNameSlots)
{
    add("oxel0", board0, "10.0.0.1");
    add("oxel1", board1, "10.1.0.1");
    add("oxel0", board0, "10.0.0.2");
    {
        AllocFault allocations;
        ASSERT_EQ(tov_getifaddrs(&list, 1, &num), 0);
        EXPECT_EQ(allocations.calls(), 2u) << "the adapters' and this list";
    }
    ASSERT_EQ(num, 3);
    char *names = reinterpret_cast<char *>(list + 3);
    for (int i = 0; i < 3; i++)
        EXPECT_EQ(list[i].tov_ifa_name, names + 16 * i);
    EXPECT_EQ(list[0].tov_ifa_next, &list[1]);
    EXPECT_EQ(list[1].tov_ifa_next, &list[2]);
    EXPECT_EQ(list[2].tov_ifa_next, nullptr);
#if UINTPTR_MAX == UINT32_MAX
    EXPECT_EQ(sizeof *list, 52u) << "68 bytes with the name";
#endif
}

TEST_F(HostInterfaces, FlagsOfTheHost_Listed_BroadcastIsTwoMulticastIsOne)
{
    const struct {
        unsigned host_flags;
        uint32_t flags;
    } cases[] = {{IFF_UP | IFF_RUNNING, 0},
                 {IFF_BROADCAST, 2},
                 {IFF_MULTICAST | IFF_UP, 1},
                 {IFF_BROADCAST | IFF_MULTICAST | IFF_PROMISC, 3}};
    for (auto c : cases) {
        add("oxel0", board0, "10.0.0.1");
        host.interfaces.back().flags = c.host_flags;
    }
    ASSERT_EQ(tov_getifaddrs(&list, 1, &num), 0);
    ASSERT_EQ(num, 4);
    for (int i = 0; i < 4; i++)
        EXPECT_EQ(list[i].tov_ifa_flags, cases[i].flags);
}

TEST_F(HostInterfaces, Aliases_Listed_RecordEachWithTheSameAdapter)
{
    add("oxel0", board0, "10.0.0.1");
    add("oxel0", board0, "10.0.0.2");
    ASSERT_EQ(tov_getifaddrs(&list, 1, &num), 0);
    ASSERT_EQ(num, 2);
    EXPECT_EQ(list[0].tov_ifa_ipaddr, ipv4("10.0.0.1").sin_addr.s_addr);
    EXPECT_EQ(list[1].tov_ifa_ipaddr, ipv4("10.0.0.2").sin_addr.s_addr);
    EXPECT_EQ(list[0].tov_ifa_nicid, list[1].tov_ifa_nicid);
    EXPECT_EQ(list[0].tov_ifa_boardnum, list[1].tov_ifa_boardnum);
    EXPECT_STREQ(list[1].tov_ifa_name, "oxel0");
}

TEST_F(HostInterfaces, LongName_Listed_CutToFifteenCharacters)
{
    add("sixteen_and_more", board0, "10.0.0.1");
    std::string asked;
    host.sockets.on_ioctl[SIOCGIFHWADDR] = [&](int, void *arg) {
        struct ifreq *req = static_cast<struct ifreq *>(arg);
        asked = std::string(req->ifr_name, sizeof req->ifr_name);
        memcpy(req->ifr_hwaddr.sa_data, board0.data(), 6);
        return 0;
    };
    ASSERT_EQ(tov_getifaddrs(&list, 1, &num), 0);
    ASSERT_EQ(num, 1);
    EXPECT_EQ(std::string(list->tov_ifa_name, 16), std::string("sixteen_and_mor\0", 16));
    EXPECT_EQ(asked, std::string("sixteen_and_mor\0", 16));
}

TEST_F(HostInterfaces, MacChangedAdministratively_Listed_MatchesByTheOneInUse)
{
    driver.boards[0].curr_nic_id = 0x02deadbeef01;
    add("oxel0", {0x02, 0xde, 0xad, 0xbe, 0xef, 0x01}, "10.0.0.1");
    ASSERT_EQ(tov_getifaddrs(&list, 1, &num), 0);
    ASSERT_EQ(num, 1);
    EXPECT_EQ(list->tov_ifa_nicid, 0x026f78000001u) << "the permanent identity is reported";
    EXPECT_EQ(memcmp(list->tov_ifa_macaddr, board0.data(), 6), 0);
}

TEST_F(HostInterfaces, DriverDoesNotFollowTheChange_Listed_NoMatch)
{
    add("oxel0", {0x02, 0xde, 0xad, 0xbe, 0xef, 0x01}, "10.0.0.1");
    ASSERT_EQ(tov_getifaddrs(&list, 1, &num), 0);
    EXPECT_EQ(num, 0);
    EXPECT_EQ(list, nullptr);
}

TEST_F(HostInterfaces, PermanentMacOnly_Listed_DoesNotMatch)
{
    driver.boards[0].curr_nic_id = 0x02deadbeef01;
    add("oxel0", board0, "10.0.0.1");
    ASSERT_EQ(tov_getifaddrs(&list, 1, &num), 0);
    EXPECT_EQ(num, 0);
}

TEST_F(HostInterfaces, TwoAdaptersOfOneIdentity_Listed_FirstMatches)
{
    driver.boards[1].curr_nic_id = driver.boards[0].curr_nic_id;
    add("oxel0", board0, "10.0.0.1");
    ASSERT_EQ(tov_getifaddrs(&list, 1, &num), 0);
    ASSERT_EQ(num, 1);
    EXPECT_EQ(list->tov_ifa_boardnum, 0u);
}

TEST_F(HostInterfaces, HardwareAddressUnreadable_Listed_EntryLeftOut)
{
    add("oxel0", board0, "10.0.0.1");
    add("oxel1", board1, "10.1.0.1");
    host.interfaces[0].hwaddr_error = EPERM;
    ASSERT_EQ(tov_getifaddrs(&list, 1, &num), 0);
    ASSERT_EQ(num, 1);
    EXPECT_STREQ(list->tov_ifa_name, "oxel1");
}

TEST_F(HostInterfaces, HardwareAddressUnreadable_Listed_AZeroIdentityDoesNotMatch)
{
    driver.boards[0].curr_nic_id = 0;
    add("oxel0", board0, "10.0.0.1");
    host.interfaces[0].hwaddr_error = EPERM;
    ASSERT_EQ(tov_getifaddrs(&list, 1, &num), 0);
    EXPECT_EQ(num, 0);
}

TEST_F(HostInterfaces, OtherFamilies_ListedInetOnly_LeftOut)
{
    add("oxel0", board0, "10.0.0.1");
    add("oxel0", board0, "10.0.0.2");
    add("oxel0", board0, "");
    host.interfaces[0].family = AF_INET6;
    ASSERT_EQ(tov_getifaddrs(&list, 1, &num), 0);
    ASSERT_EQ(num, 1);
    EXPECT_EQ(list->tov_ifa_ipaddr, ipv4("10.0.0.2").sin_addr.s_addr);
    EXPECT_EQ(host.sockets.count_ioctl(SIOCGIFHWADDR), 1u);
}

TEST_F(HostInterfaces, OtherFamilies_ListedAll_EveryEntryWithAnAddress)
{
    add("oxel0", board0, "10.0.0.1");
    add("oxel0", board0, "10.0.0.2");
    add("oxel0", board0, "");
    host.interfaces[0].family = AF_PACKET;
    ASSERT_EQ(tov_getifaddrs(&list, 0, &num), 0);
    ASSERT_EQ(num, 2);
    EXPECT_EQ(list[0].tov_ifa_ipaddr, ipv4("10.0.0.1").sin_addr.s_addr) << "the word at the same position";
    EXPECT_EQ(list[0].tov_ifa_nicid, 0x026f78000001u);
}

TEST_F(HostInterfaces, NetmaskAndBroadcastMissing_Listed_WithoutThem)
{
    add("oxel0", board0, "10.0.0.1");
    host.interfaces[0].netmask = "";
    ASSERT_EQ(tov_getifaddrs(&list, 1, &num), 0);
    ASSERT_EQ(num, 1);
    EXPECT_EQ(list->tov_ifa_ipaddr, ipv4("10.0.0.1").sin_addr.s_addr);
}

TEST_F(HostInterfaces, NoAdapter_Listed_EmptyWithoutAskingTheHost)
{
    driver.boards.clear();
    add("oxel0", board0, "10.0.0.1");
    ASSERT_EQ(tov_getifaddrs(&list, 1, &num), 0);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(num, 0);
    EXPECT_EQ(host.getifaddrs_calls, 0u);
}

TEST_F(HostInterfaces, NoInterfaceMatches_Listed_Empty)
{
    add("eth0", foreign, "10.0.0.1");
    ASSERT_EQ(tov_getifaddrs(&list, 1, &num), 0);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(num, 0);
    EXPECT_EQ(host.getifaddrs_calls, 1u);
}

TEST_F(HostInterfaces, HostWithoutInterfaces_Listed_Empty)
{
    ASSERT_EQ(tov_getifaddrs(&list, 1, &num), 0);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(num, 0);
}

TEST_F(HostInterfaces, AdapterListFails_Listed_ItsErrorOutputsUnwritten)
{
    add("oxel0", board0, "10.0.0.1");
    driver.table.fail_ioctl(OXEL_GET_NIC_TYPE, 1, EPROTO);
    EXPECT_EQ(tov_getifaddrs(&list, 1, &num), EPROTO);
    driver.files.clear();
    EXPECT_EQ(tov_getifaddrs(&list, 1, &num), ENOENT);
    EXPECT_EQ(list, untouched);
    EXPECT_EQ(num, -5);
    EXPECT_EQ(host.getifaddrs_calls, 0u);
}

TEST_F(HostInterfaces, EnumerationFails_Listed_ErrnoOutputsUnwritten)
{
    add("oxel0", board0, "10.0.0.1");
    host.getifaddrs_error = EMFILE;
    EXPECT_EQ(tov_getifaddrs(&list, 1, &num), EMFILE);
    EXPECT_EQ(list, untouched);
    EXPECT_EQ(num, -5);
}

TEST_F(HostInterfaces, EnumerationFailsWithErrnoZero_Listed_SuccessAndEmpty)
{
    add("oxel0", board0, "10.0.0.1");
    host.getifaddrs_error = 0;
    EXPECT_EQ(tov_getifaddrs(&list, 1, &num), 0);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(num, 0);
}

TEST_F(HostInterfaces, NoMemory_Listed_EnomemOutputsUnwritten)
{
    add("oxel0", board0, "10.0.0.1");
    for (unsigned nth : {1u, 2u}) {
        AllocFault fault(nth);
        EXPECT_EQ(tov_getifaddrs(&list, 1, &num), ENOMEM);
        EXPECT_EQ(fault.calls(), nth);
    }
    EXPECT_EQ(list, untouched);
    EXPECT_EQ(num, -5);
}

TEST_F(HostInterfaces, HostChanged_ListedAgain_ReadAfresh)
{
    add("oxel0", board0, "10.0.0.1");
    ASSERT_EQ(tov_getifaddrs(&list, 1, &num), 0);
    EXPECT_EQ(num, 1);
    tov_freeifaddrs(list);
    list = untouched;
    add("oxel1", board1, "10.1.0.1");
    driver.boards[0].link = 0;
    ASSERT_EQ(tov_getifaddrs(&list, 1, &num), 0);
    EXPECT_EQ(num, 2);
    EXPECT_EQ(list->tov_ifa_link_state, 0u);
}

TEST(HostInterfaceRelease, NullList_Freed_Harmless) { tov_freeifaddrs(nullptr); }

/* ------------------------------------------------------------------ address to MAC address */

TEST_F(HostInterfaces, AddressHeld_MacAsked_AdaptersPermanentOne)
{
    add("oxel0", board0, "10.0.0.1");
    add("oxel1", {0x02, 1, 1, 1, 1, 1}, "10.1.0.1");
    driver.boards[1].curr_nic_id = 0x020101010101;
    uint8_t mac[8];
    memset(mac, 0xa5, sizeof mac);
    EXPECT_EQ(tov_ifaddr_to_macaddr(ipv4("10.1.0.1").sin_addr.s_addr, mac + 1), 0);
    EXPECT_EQ(memcmp(mac, "\xa5\x02\x6f\x78\x00\x00\x02\xa5", 8), 0);
}

TEST_F(HostInterfaces, AddressOnTwoAdapters_MacAsked_FirstOfTheList)
{
    add("oxel1", board1, "10.0.0.1");
    add("oxel0", board0, "10.0.0.1");
    uint8_t mac[6] = {};
    EXPECT_EQ(tov_ifaddr_to_macaddr(ipv4("10.0.0.1").sin_addr.s_addr, mac), 0);
    EXPECT_EQ(memcmp(mac, board1.data(), 6), 0);
}

TEST_F(HostInterfaces, AddressUnknownOrElsewhere_MacAsked_Enodev)
{
    uint8_t mac[6] = {9, 9, 9, 9, 9, 9};
    EXPECT_EQ(tov_ifaddr_to_macaddr(ipv4("10.0.0.1").sin_addr.s_addr, mac), ENODEV) << "empty list";
    add("oxel0", board0, "10.0.0.1");
    add("eth0", foreign, "10.2.0.1");
    EXPECT_EQ(tov_ifaddr_to_macaddr(ipv4("10.0.0.2").sin_addr.s_addr, mac), ENODEV);
    EXPECT_EQ(tov_ifaddr_to_macaddr(ipv4("10.2.0.1").sin_addr.s_addr, mac), ENODEV);
    host.interfaces[0].family = AF_INET6;
    EXPECT_EQ(tov_ifaddr_to_macaddr(ipv4("10.0.0.1").sin_addr.s_addr, mac), ENODEV) << "IPv4 only";
    EXPECT_EQ(memcmp(mac, "\x9\x9\x9\x9\x9\x9", 6), 0);
}

TEST_F(HostInterfaces, ListFails_MacAsked_ItsError)
{
    uint8_t mac[6];
    host.getifaddrs_error = EMFILE;
    EXPECT_EQ(tov_ifaddr_to_macaddr(1, mac), EMFILE);
}

/* ------------------------------------------------------------------ MAC address of a name */

TEST(InterfaceMac, KnownName_Asked_ThroughTableSocketClosedDirectly)
{
    FakeHost host;
    host.interfaces[0].mac = {0x02, 1, 2, 3, 4, 5};
    LibcHookGuard hooks;
    std::vector<int> closed;
    hooks->close = [&](int fd) {
        closed.push_back(fd);
        return real::close(fd);
    };
    uint8_t mac[8];
    memset(mac, 0xa5, sizeof mac);
    EXPECT_EQ(tov_get_macaddr("oxel0", mac + 1), 0);
    EXPECT_EQ(memcmp(mac, "\xa5\x02\x01\x02\x03\x04\x05\xa5", 8), 0);

    std::vector<SocketCall> log = host.sockets.log();
    ASSERT_EQ(log.size(), 2u) << "the table's close is not used";
    EXPECT_EQ(log[0].slot, Slot::socket);
    EXPECT_EQ(log[0].level, AF_INET);
    EXPECT_EQ(log[0].name, SOCK_DGRAM);
    EXPECT_EQ(log[1].request, 0x8927u);
    EXPECT_EQ(log[1].fd, log[0].result);
    EXPECT_EQ(closed, std::vector<int>{log[0].result});
}

TEST(InterfaceMac, LongName_Asked_ByItsFirst15Characters)
{
    FakeHost host;
    host.interfaces[0].name = "abcdefghijklmno";
    host.interfaces[0].mac = {0x02, 1, 2, 3, 4, 5};
    uint8_t mac[6] = {};
    EXPECT_EQ(tov_get_macaddr("abcdefghijklmnopqrs", mac), 0);
    EXPECT_EQ(memcmp(mac, "\x02\x01\x02\x03\x04\x05", 6), 0);
}

TEST(InterfaceMac, UnknownName_Asked_EnodevWhateverCloseSays)
{
    FakeHost host;
    LibcHookGuard hooks;
    unsigned closes = 0;
    hooks->close = [&](int fd) {
        closes++;
        real::close(fd);
        errno = EIO;
        return -1;
    };
    uint8_t mac[6] = {9, 9, 9, 9, 9, 9};
    EXPECT_EQ(tov_get_macaddr("eth9", mac), ENODEV);
    EXPECT_EQ(closes, 1u);
    EXPECT_EQ(memcmp(mac, "\x9\x9\x9\x9\x9\x9", 6), 0);
}

TEST(InterfaceMac, SocketFails_Asked_ErrnoAndNothingElseDone)
{
    FakeHost host;
    host.sockets.fail(Slot::socket, 1, EMFILE);
    LibcHookGuard hooks;
    unsigned closes = 0;
    hooks->close = [&](int fd) {
        closes++;
        return real::close(fd);
    };
    uint8_t mac[6];
    EXPECT_EQ(tov_get_macaddr("oxel0", mac), EMFILE);
    EXPECT_EQ(host.sockets.count(Slot::ioctl), 0u);
    EXPECT_EQ(closes, 0u);
}

/* ------------------------------------------------------------------ VLAN of a name */

struct VlanCase {
    const char *ifname;
    int vlan; /* -1: none */
};

static void PrintTo(const VlanCase &c, std::ostream *os) { *os << c.ifname; }

/* "n3_eth0_x": a number, since some names differ in their punctuation only. */
static std::string case_name(const testing::TestParamInfo<VlanCase> &info)
{
    std::string name = "n" + std::to_string(info.index) + "_";
    for (const char *c = info.param.ifname; *c; c++)
        name += isalnum(static_cast<unsigned char>(*c)) ? *c : '_';
    return name;
}

class VlanTag : public testing::TestWithParam<VlanCase> {};

TEST_P(VlanTag, Name_Asked_TagInNetworkOrderWithPrioritySeven)
{
    uint16_t tag = tov_get_vlan_tag(GetParam().ifname);
    unsigned char bytes[2];
    memcpy(bytes, &tag, 2);
    int vlan = GetParam().vlan;
    EXPECT_EQ(bytes[0], vlan < 0 ? 0 : 0xe0 | vlan >> 8) << GetParam().ifname;
    EXPECT_EQ(bytes[1], vlan < 0 ? 0 : vlan & 0xff) << GetParam().ifname;
}

INSTANTIATE_TEST_SUITE_P(
    Names, VlanTag,
    testing::Values(VlanCase{"vlan5", 5}, VlanCase{"vlan100", 100}, VlanCase{"vlan4095", 4095}, VlanCase{"vlan0", 0},
                    VlanCase{"vlan007", 7}, VlanCase{"vlan7x", 7}, VlanCase{"vlan100.5", 100},
                    /* the first rule does not hold, the second is asked */
                    VlanCase{"vlan4096", -1}, VlanCase{"vlan5000", -1}, VlanCase{"vlan4096.7", 7}, VlanCase{"vlan", -1},
                    VlanCase{"vlanx", -1}, VlanCase{"vlan.12", 12}, VlanCase{"xvlan5", -1}, VlanCase{"Vlan5", -1},
                    VlanCase{"vlan65541", -1}, VlanCase{"vlan65541.8", 8}, VlanCase{"vlan-65535", -1},
                    VlanCase{"vlan-65535.9", 9}, VlanCase{"vlan4294967301", -1}, VlanCase{"vlan4294967301.10", 10},
                    VlanCase{"vlan-1", -1}, VlanCase{"vlan18446744073709551621", -1},
                    VlanCase{"vlan18446744073709551621.11", 11}, VlanCase{"vlan-18446744073709551611.12", 12},
                    /* number behind the first dot */
                    VlanCase{"eth2.100", 100}, VlanCase{"eth0.4095", 4095}, VlanCase{"eth0.4096", -1},
                    VlanCase{"eth0.0", 0}, VlanCase{"eth0.x", -1}, VlanCase{"eth0", -1}, VlanCase{"", -1},
                    VlanCase{"eth0.", -1}, VlanCase{"eth0.-5", -1}, VlanCase{"eth0.+5", -1}, VlanCase{"eth0. 5", -1},
                    VlanCase{"eth0.12ab", 12}, VlanCase{"eth0.1.200", 1}, VlanCase{"eth0.x.200", -1},
                    VlanCase{".33", 33}, VlanCase{"eth0.010", 10},
                    /* counted modulo 65536 before the range is looked at */
                    VlanCase{"eth2.65636", 100}, VlanCase{"eth2.65536", 0}, VlanCase{"eth2.69632", -1},
                    VlanCase{"eth2.65535", -1}),
    case_name);
