/* The endpoint's copy of the host's routes: when it is read, what is kept of it, and which route a destination takes.
 */
#include "route_rig.h"

#include <dirent.h>

namespace {

using namespace route_rig;

unsigned open_descriptors()
{
    unsigned n = 0;
    DIR *dir = opendir("/proc/self/fd");
    while (dir && readdir(dir))
        n++;
    closedir(dir);
    return n;
}

class RouteTableTest : public ResolveTest {
protected:
    /* A line of the file: numbers as the file has them, "00004D0A" for 10.77.0.0. */
    static std::string line(const std::string &dst, const std::string &gw = "00000000", const char *flags = "0001",
                            const std::string &mask = "00FFFFFF", const std::string &name = "oxel0")
    {
        return name + "\t" + dst + "\t" + gw + "\t" + flags + "\t0\t0\t0\t" + mask + "\t0\t0\t0\n";
    }
    /* Each route as "DST GATEWAY MASK FLAGS" of eight digits each. */
    Lines routes() const
    {
        Lines all;
        for (uint32_t i = 0; i < dev->rep_num_valid_rts; i++) {
            char text[64];
            const struct rep_rtentry &r = dev->rep_routes[i];
            snprintf(text, sizeof text, "%08x %08x %08x %08x", r.dst_addr, r.gw_addr, r.mask, r.flags);
            all.push_back(text);
        }
        return all;
    }
    /* Reads the file anew into the open endpoint. */
    Lines read(const std::string &text)
    {
        host.routes = text;
        EXPECT_EQ(ruk__arp_init(dev), 0);
        return routes();
    }
};

/* ------------------------------------------------------------------ the file */

TEST_F(RouteTableTest, Line_FieldsInTheFilesOrder)
{
    open_here();
    EXPECT_EQ(read("titles\noxel0 0000000A FE004D0A 0003 11 12 13 000000FF 14 15 16\n"),
              (Lines{"0000000a fe004d0a 000000ff 00000003"}));
    EXPECT_EQ(read("titles\n  oxel0\t \tdeadbeef 0xCafe 7 -1 -2 -3 ffffffff -4 -5 -6"),
              (Lines{"deadbeef 0000cafe ffffffff 00000007"}))
        << "the last line needs no end, blanks and letters are free";
}

TEST_F(RouteTableTest, LineThatIsNoRoute_ItsEntryTakenByTheNext)
{
    open_here();
    EXPECT_EQ(read("titles\n" + line("0000010A") + line("0000020A", "00000000", "0000") +
                   line("0000030A", "00000000", "0001", "00FFFFFF", "eth1") + "oxel0 0000040A 0 1 0 0 0 FFFF 0 0\n" +
                   line("0000050A", "00000000", "0005")),
              (Lines{"0000010a 00000000 00ffffff 00000001", "0000050a 00000000 00ffffff 00000005"}));
    EXPECT_EQ(dev->rep_max_routes, 16u);
}

/* A name is read to its sixteenth character; what is left of it is no number. */
TEST_F(RouteTableTest, NameOfMoreThanSixteenCharacters_NoRoute)
{
    open_here();
    EXPECT_EQ(read("titles\n" + line("0000010A", "00000000", "0001", "00FFFFFF", "oxel0-of-a-long-name")), Lines{});
    EXPECT_EQ(read("titles\n" + line("0000010A", "00000000", "0001", "00FFFFFF", "oxel0-16letters.")), Lines{});
}

TEST_F(RouteTableTest, LineLimit_RestOfALongLineIsALineOfItsOwn)
{
    open_here();
    const std::string a = line("0000010A"), b = line("0000020A");
    EXPECT_EQ(read("titles\n" + a.substr(0, a.size() - 1) + std::string(1023 - (a.size() - 1), ' ') + b),
              (Lines{"0000010a 00000000 00ffffff 00000001", "0000020a 00000000 00ffffff 00000001"}))
        << "blanks fill the line to its limit, and the next begins without an end between them";
    EXPECT_EQ(read("titles\n" + a.substr(0, a.size() - 1) + std::string(1022 - (a.size() - 1), ' ') + b),
              (Lines{"0000010a 00000000 00ffffff 00000001"}))
        << "its first letter is lost to the line before";
}

TEST_F(RouteTableTest, NoInterfacesOfAnAdapter_NoRoutes)
{
    open_here();
    struct tov_ifaddrs *list = dev->rep_mif_addrs;
    dev->rep_mif_addrs = nullptr;
    EXPECT_EQ(read("titles\n" + line("0000010A")), Lines{});
    dev->rep_mif_addrs = list;
    EXPECT_EQ(read("titles\n" + line("0000010A")).size(), 1u);
}

TEST_F(RouteTableTest, CannotGrow_ToldAndRoutesSoFarKept)
{
    open_here();
    std::string text = "titles\n";
    for (int i = 0; i < 20; i++)
        text += line("00000" + std::to_string(100 + i));
    host.routes = text;
    StreamCapture streams;
    const unsigned before = open_descriptors();
    {
        unsigned allocations;
        {
            AllocFault count; /* what is allocated up to the first growth, and that one */
            ASSERT_EQ(ruk__arp_init(dev), 0);
            allocations = count.calls();
        }
        dev->rep_max_routes = 16;
        AllocFault fault(allocations);
        EXPECT_EQ(ruk__arp_init(dev), ENOMEM);
    }
    EXPECT_EQ(streams.err(), "Unable to grow route table\n");
    EXPECT_EQ(streams.out(), "");
    EXPECT_EQ(open_descriptors(), before) << "the file is closed";
    ASSERT_EQ(dev->rep_num_valid_rts, 16u);
    EXPECT_EQ(dev->rep_max_routes, 16u);
    EXPECT_EQ(routes().at(15), "00000115 00000000 00ffffff 00000001");
}

TEST_F(RouteTableTest, Read_FileClosedAndNothingPrinted)
{
    open_here();
    StreamCapture streams;
    const unsigned before = open_descriptors();
    read("titles\n" + line("0000010A"));
    read("titles\n");
    read("");
    read("titles\n" + line("0000010A"));
    host.routes.reset();
    EXPECT_EQ(ruk__arp_init(dev), 0);
    EXPECT_EQ(routes(), Lines{}) << "nothing is left of the reading before";
    EXPECT_EQ(open_descriptors(), before);
    EXPECT_EQ(streams.out() + streams.err(), "");
}

/* ------------------------------------------------------------------ when it is read */

TEST_F(RouteTableTest, EachWayOfOpening_ReadsThemOnceAtItsEnd)
{
    host.routes = "titles\n" + line("0000010A");
    struct in_addr address = in_addr_of("10.77.0.1");
    uint8_t mac[6] = {0x02, 0x6f, 0x78, 0x00, 0x00, 0x01};
    for (int way = 0; way < 4; way++) {
        unsigned opens_when_enabled = 99;
        if (way != 1)
            host.sockets.on_ioctl[OXEL_GET_SREQS_CNT] =
                [&, next = host.sockets.on_ioctl[OXEL_GET_SREQS_CNT]](int fd, void *arg) {
                    opens_when_enabled = host.route_opens;
                    return next(fd, arg);
                };
        host.route_opens = 0;
        if (way == 0)
            ASSERT_EQ(ruk_open(&address, 0, &dev), 0);
        else if (way == 1)
            ASSERT_EQ(ruk_open(&address, RUK_OPEN_DISABLED, &dev), 0);
        else if (way == 2)
            ASSERT_EQ(ruk_open_if("oxel0", 0, &dev), 0);
        else
            ASSERT_EQ(ruk_open_by_perm_mac(mac, &address, 0, &dev), 0);
        EXPECT_EQ(host.route_opens, 1u) << way;
        if (way != 1) {
            EXPECT_EQ(opens_when_enabled, 0u) << "after the queues are set up";
        }
        EXPECT_EQ(routes().size(), 1u) << way;
        EXPECT_EQ(dev->rep_max_routes, 16u);
        ASSERT_EQ(ruk_device_enable(dev), way == 1 ? 0 : EINVAL);
        EXPECT_EQ(host.route_opens, 1u) << "enabling reads nothing";
        close();
        driver.taken.clear();
        forget();
    }
}

TEST_F(RouteTableTest, OpenedByMacOnAnAddressOfNoInterface_NoRoutes)
{
    host.routes = "titles\n" + line("0000010A");
    struct in_addr address = in_addr_of("10.99.0.1");
    uint8_t mac[6] = {0x02, 0x6f, 0x78, 0x00, 0x00, 0x01};
    ASSERT_EQ(ruk_open_by_perm_mac(mac, &address, RUK_OPEN_THREAD_SAFE, &dev), 0);
    forget();
    EXPECT_EQ(dev->rep_mif, nullptr);
    EXPECT_EQ(routes(), Lines{});
    StreamCapture streams;
    EXPECT_EQ(lookup("10.1.0.1").rc, EHOSTUNREACH);
    EXPECT_EQ(streams.err(), "No route to host 10.1.0.1\n");
}

TEST_F(RouteTableTest, CannotGrow_ReturnedByEachWayOfOpening)
{
    host.routes = "titles\n";
    for (int i = 0; i < 17; i++)
        *host.routes += line("00000" + std::to_string(100 + i));
    struct in_addr address = in_addr_of("10.77.0.1");
    uint8_t mac[6] = {0x02, 0x6f, 0x78, 0x00, 0x00, 0x01};
    const std::function<int()> ways[] = {
        [&] { return ruk_open(&address, 0, &dev); },
        [&] { return ruk_open_if("oxel0", 0, &dev); },
        [&] { return ruk_open_by_perm_mac(mac, &address, 0, &dev); },
    };
    for (const auto &open_it : ways) {
        unsigned allocations;
        {
            AllocFault count;
            ASSERT_EQ(open_it(), 0);
            allocations = count.calls();
        }
        close();
        driver.taken.clear();
        StreamCapture streams;
        AllocFault fault(allocations);
        EXPECT_EQ(open_it(), ENOMEM);
        EXPECT_EQ(streams.err(), "Unable to grow route table\n");
        ASSERT_NE(dev, nullptr) << "an open endpoint, to be closed by the caller";
        EXPECT_EQ(dev->rep_num_valid_rts, 16u);
        close();
        driver.taken.clear();
        forget();
    }
}

TEST_F(RouteTableTest, RoutesThatComeLater_AreNotSeen)
{
    host.add_route("oxel0", "10.77.0.0", "0.0.0.0", "255.255.255.0");
    open_here();
    host.add_route("oxel0", "0.0.0.0", "10.77.0.254", "0.0.0.0", RTF_UP | RTF_GATEWAY);
    StreamCapture streams;
    EXPECT_EQ(lookup("8.8.8.8").rc, EHOSTUNREACH);
    EXPECT_EQ(host.route_opens, 1u);
}

/* ------------------------------------------------------------------ which route */

TEST_F(RouteTableTest, NoRoutesOrNoneThatMatches_Unreachable)
{
    open_here();
    for (const char *text : {"", "oxel0 0000010A 00000000 0001 0 0 0 00FFFFFF 0 0 0\n"}) {
        read(std::string("titles\n") + text);
        StreamCapture streams;
        Lookup got = lookup("192.168.200.17");
        EXPECT_EQ(got.rc, EHOSTUNREACH);
        EXPECT_EQ(got.valid, 0);
        EXPECT_EQ(got.mac, "eeeeeeeeeeee");
        EXPECT_EQ(streams.err(), "No route to host 192.168.200.17\n");
        EXPECT_EQ(streams.out(), "");
    }
    EXPECT_EQ(trace, Lines{}) << "nobody is asked";
}

TEST_F(RouteTableTest, LongestMask_WhereverItStands)
{
    open_here();
    const std::string wide = line("0000000A", "01004D0A", "0003", "000000FF"),
                      middle = line("0000020A", "02004D0A", "0003", "0000FFFF"),
                      narrow = line("0003020A", "03004D0A", "0003", "00FFFFFF"),
                      narrower = line("8003020A", "04004D0A", "0003", "80FFFFFF"),
                      host_route = line("8103020A", "05004D0A", "0003", "FFFFFFFF");
    for (const std::string &text :
         {wide + middle + narrow + narrower + host_route, host_route + narrower + narrow + middle + wide,
          narrow + wide + host_route + middle + narrower}) {
        ASSERT_EQ(read("titles\n" + text).size(), 5u);
        EXPECT_EQ(next_hop_of("10.9.9.9"), "10.77.0.1");
        EXPECT_EQ(next_hop_of("10.2.9.9"), "10.77.0.2");
        EXPECT_EQ(next_hop_of("10.2.3.9"), "10.77.0.3");
        EXPECT_EQ(next_hop_of("10.2.3.130"), "10.77.0.4");
        EXPECT_EQ(next_hop_of("10.2.3.129"), "10.77.0.5");
    }
}

TEST_F(RouteTableTest, EqualMasks_TheLaterOneInTheFile)
{
    open_here();
    const std::string first = line("0000020A", "01004D0A", "0003", "0000FFFF"),
                      second = line("0000020A", "02004D0A", "0003", "0000FFFF");
    read("titles\n" + first + second);
    EXPECT_EQ(next_hop_of("10.2.0.1"), "10.77.0.2");
    read("titles\n" + second + first);
    EXPECT_EQ(next_hop_of("10.2.0.1"), "10.77.0.1");
}

TEST_F(RouteTableTest, DefaultRoute_OnlyWhereNothingElseMatches)
{
    open_here();
    const std::string standard = line("00000000", "FE004D0A", "0003", "00000000"), own = line("00004D0A");
    for (const std::string &text : {standard + own, own + standard}) {
        read("titles\n" + text);
        EXPECT_EQ(next_hop_of("8.8.8.8"), "10.77.0.254");
        EXPECT_EQ(next_hop_of("10.77.0.9"), "10.77.0.9");
    }
}

TEST_F(RouteTableTest, GatewayCountsByItsFlagAlone)
{
    open_here();
    read("titles\n" + line("0000020A", "FE004D0A", "0001", "0000FFFF"));
    EXPECT_EQ(next_hop_of("10.2.0.1"), "10.2.0.1");
    read("titles\n" + line("0000020A", "FE004D0A", "0007", "0000FFFF"));
    EXPECT_EQ(next_hop_of("10.2.0.1"), "10.77.0.254");
}

TEST_F(RouteTableTest, RouteWithBitsBesideItsMask_NeverMatches)
{
    open_here();
    read("titles\n" + line("05004D0A", "00000000", "0001", "00FFFFFF"));
    StreamCapture streams;
    EXPECT_EQ(lookup("10.77.0.5").rc, EHOSTUNREACH);
    EXPECT_EQ(lookup("10.77.0.6").rc, EHOSTUNREACH);
}

/* Masks are compared as the file's numbers: 255.0.0.255 is above 255.255.255.0. */
TEST_F(RouteTableTest, MaskWithAHole_ComparedAsANumber)
{
    open_here();
    read("titles\n" + line("0900000A", "01004D0A", "0003", "FF0000FF") +
         line("0003020A", "02004D0A", "0003", "00FFFFFF"));
    EXPECT_EQ(next_hop_of("10.2.3.9"), "10.77.0.1");
    EXPECT_EQ(next_hop_of("10.2.3.8"), "10.77.0.2");
}

TEST_F(RouteTableTest, HundredRoutes_AllInTheirOrder)
{
    open_here();
    std::string text = "titles\n";
    for (int i = 0; i < 100; i++)
        text += line("00000" + std::to_string(100 + i), "01004D0A", "0003", "FFFFFFFF");
    Lines all = read(text);
    ASSERT_EQ(all.size(), 100u);
    EXPECT_EQ(dev->rep_max_routes, 112u);
    for (int i = 0; i < 100; i++)
        EXPECT_EQ(all[static_cast<size_t>(i)].substr(0, 8), "00000" + std::to_string(100 + i));
}

} // namespace
