/* The tests' own stand-ins: a seam that does not hold would make other tests pass for nothing. */
#include "capture.h"
#include "child.h"
#include "fake_host.h"
#include "scoped_env.h"
#include "tov.h"

#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

using namespace test_support;

TEST(LibcSeam, NoHooks_Calls_ReachLibc)
{
    struct timespec ts = {};
    EXPECT_EQ(clock_gettime(CLOCK_REALTIME, &ts), 0);
    EXPECT_GT(ts.tv_sec, 1000000000);
    struct ifaddrs *list = nullptr;
    ASSERT_EQ(getifaddrs(&list), 0);
    freeifaddrs(list);
}

TEST(LibcSeam, HookInScope_LibraryCall_AnsweredAndRestored)
{
    {
        LibcHookGuard hooks;
        hooks->clock_gettime = [](clockid_t, struct timespec *ts) {
            *ts = {7, 5};
            return 0;
        };
        EXPECT_EQ(tov_host_nsecs(), 7000000005u);
    }
    EXPECT_GT(tov_host_nsecs(), 1000000000000000000u);
}

TEST(AllocFault, NthCallArmed_LibraryAllocates_OnlyThatCallFails)
{
    char storage[64];
    struct tov_mpool *pool = nullptr;
    {
        AllocFault fault(2);
        struct tov_mpool *first = nullptr;
        ASSERT_EQ(tov_mpool_init(storage, sizeof storage, 16, &first), 0);
        EXPECT_EQ(tov_mpool_init(storage, sizeof storage, 16, &pool), ENOMEM);
        EXPECT_EQ(fault.calls(), 2u);
        tov_mpool_fini(first);
        ASSERT_EQ(tov_mpool_init(storage, sizeof storage, 16, &pool), 0);
        tov_mpool_fini(pool);
    }
    ASSERT_EQ(tov_mpool_init(storage, sizeof storage, 16, &pool), 0);
    tov_mpool_fini(pool);
}

TEST(SocketTable, HooksAndFaults_Calls_LoggedInOrderAndRestored)
{
    tov_init();
    tov_socket_functions_t before = _tov_fops;
    {
        SocketTable outer;
        outer.on_ioctl[0x4D05] = [](int, void *arg) {
            *static_cast<uint32_t *>(arg) = 3;
            return 0;
        };
        SocketTable table;
        table.fail(Slot::socket, 2, EMFILE);
        int s = tov_socket(AF_INET, SOCK_DGRAM, 0);
        ASSERT_GE(s, 0);
        EXPECT_EQ(tov_socket(AF_INET, SOCK_DGRAM, 0), -1);
        EXPECT_EQ(errno, EMFILE);
        uint32_t n = 0;
        table.fail_ioctl(0x4D05, 2, ENXIO);
        EXPECT_EQ(tov_ioctl(s, 0x4D05, &n, sizeof n), 0);
        EXPECT_EQ(n, 3u);
        EXPECT_EQ(tov_ioctl(s, 0x4D05, &n, sizeof n), ENXIO);
        EXPECT_EQ(tov_ioctl(s, 0x4D05, &n, sizeof n), 0);
        EXPECT_EQ(tov_closesocket(s), 0);

        ASSERT_EQ(table.log().size(), 6u);
        EXPECT_EQ(table.log()[1].slot, Slot::socket);
        EXPECT_EQ(table.log()[1].error, EMFILE);
        EXPECT_EQ(table.count_ioctl(0x4D05), 3u);
        EXPECT_EQ(outer.count_ioctl(0x4D05), 2u);
        EXPECT_EQ(table.count(Slot::close), 1u);
    }
    EXPECT_EQ(memcmp(&before, &_tov_fops, sizeof before), 0);
}

TEST(FakeHost, DefaultInterface_Enumerated_HasItsAddressesAndMac)
{
    FakeHost host;
    struct ifaddrs *list = nullptr;
    ASSERT_EQ(getifaddrs(&list), 0);
    ASSERT_NE(list, nullptr);
    EXPECT_STREQ(list->ifa_name, "oxel0");
    EXPECT_EQ(list->ifa_next, nullptr);
    EXPECT_EQ(reinterpret_cast<sockaddr_in *>(list->ifa_addr)->sin_addr.s_addr, htonl(0x7f000001));
    EXPECT_EQ(reinterpret_cast<sockaddr_in *>(list->ifa_netmask)->sin_addr.s_addr, htonl(0xff000000));
    EXPECT_EQ(host.unreleased_lists(), 1u);
    freeifaddrs(list);
    EXPECT_EQ(host.unreleased_lists(), 0u);

    uint8_t mac[6];
    ASSERT_EQ(tov_get_macaddr("oxel0", mac), 0);
    EXPECT_EQ(memcmp(mac, "\x02\x6f\x78\x00\x00\x01", 6), 0);
    EXPECT_EQ(tov_get_macaddr("eth7", mac), ENODEV);

    host.getifaddrs_error = EPERM;
    EXPECT_EQ(getifaddrs(&list), -1);
    EXPECT_EQ(errno, EPERM);
}

TEST(FakeHost, InterfaceConfiguration_DirectOrThroughTable_Answered)
{
    FakeHost host;
    host.interfaces.push_back({.name = "oxel1", .address = "127.0.0.2"});
    int s = tov_socket(AF_INET, SOCK_DGRAM, 0);
    struct ifreq reqs[4];
    struct ifconf conf = {};
    conf.ifc_len = sizeof reqs;
    conf.ifc_req = reqs;
    ASSERT_EQ(tov_ioctl(s, SIOCGIFCONF, &conf, sizeof conf), 0);
    ASSERT_EQ(conf.ifc_len, static_cast<int>(2 * sizeof(struct ifreq)));
    EXPECT_STREQ(reqs[1].ifr_name, "oxel1");
    struct ifreq req = {};
    strcpy(req.ifr_name, "oxel1");
    ASSERT_EQ(ioctl(s, SIOCGIFADDR, &req), 0);
    EXPECT_EQ(reinterpret_cast<sockaddr_in *>(&req.ifr_addr)->sin_addr.s_addr, htonl(0x7f000002));
    tov_closesocket(s);
}

TEST(FakeHost, Neighbours_ArpQuery_MatchesAddressAndDevice)
{
    FakeHost host;
    host.arp.push_back({"127.0.0.9", {2, 0, 0, 0, 0, 9}});
    host.arp.push_back({"127.0.0.10", {}, "oxel0", 0});
    struct arpreq req = {};
    struct sockaddr_in peer = ipv4("127.0.0.9");
    memcpy(&req.arp_pa, &peer, sizeof peer);
    EXPECT_EQ(tov_ioctl(0, SIOCGARP, &req, sizeof req), ENXIO) << "no device named";
    strcpy(req.arp_dev, "oxel0");
    ASSERT_EQ(tov_ioctl(0, SIOCGARP, &req, sizeof req), 0);
    EXPECT_EQ(req.arp_flags, ATF_COM);
    EXPECT_EQ(memcmp(req.arp_ha.sa_data, "\2\0\0\0\0\x09", 6), 0);
    peer = ipv4("127.0.0.10");
    memcpy(&req.arp_pa, &peer, sizeof peer);
    ASSERT_EQ(tov_ioctl(0, SIOCGARP, &req, sizeof req), 0);
    EXPECT_EQ(req.arp_flags, 0);
}

TEST(FakeHost, Routes_FileOpened_TextAsSet)
{
    FakeHost host;
    host.routes = "";
    host.add_route("oxel0", "10.77.0.0", "0.0.0.0", "255.255.255.0");
    FILE *f = fopen("/proc/net/route", "r");
    ASSERT_NE(f, nullptr);
    char line[128];
    EXPECT_STREQ(fgets(line, sizeof line, f), "oxel0\t00004D0A\t00000000\t0001\t0\t0\t0\t00FFFFFF\t0\t0\t0\n");
    EXPECT_EQ(fgets(line, sizeof line, f), nullptr);
    fclose(f);
    EXPECT_EQ(host.route_opens, 1u);
    host.routes.reset();
    EXPECT_EQ(fopen("/proc/net/route", "r"), nullptr);
    EXPECT_EQ(errno, ENOENT);
}

TEST(StreamCapture, WritesByAnyWay_Captured_SeparatedAndInOrder)
{
    StreamCapture streams;
    printf("one ");
    fflush(stdout);
    EXPECT_EQ(write(STDOUT_FILENO, "two\n", 4), 4);
    fprintf(stderr, "three\n");
    EXPECT_EQ(streams.out(), "one two\n");
    EXPECT_EQ(streams.err(), "three\n");
    streams.clear();
    printf("four");
    EXPECT_EQ(streams.out(), "four");
}

TEST(RunInChild, EveryEnding_Reported)
{
    ChildResult child = run_in_child([] {
        printf("out");
        fprintf(stderr, "err");
        return 3;
    });
    EXPECT_TRUE(child.exited_with(3)) << child;
    EXPECT_EQ(child.out, "out");
    EXPECT_EQ(child.err, "err");

    child = run_in_child([]() -> int {
        printf("last words");
        exit(4);
    });
    EXPECT_TRUE(child.exited_with(4)) << child;
    EXPECT_EQ(child.out, "last words");

    child = run_in_child([]() -> int { abort(); });
    EXPECT_TRUE(child.killed_by(SIGABRT)) << child;

    child = run_in_child([] {
        EXPECT_EQ(1, 2);
        return 0;
    });
    EXPECT_TRUE(child.exited_with(child_check_failed)) << child;
}

TEST(ScopedEnv, ScopeLeft_OldValueBack)
{
    ScopedEnv outer("TOV_TEST_VARIABLE", "a");
    {
        ScopedEnv inner("TOV_TEST_VARIABLE", nullptr);
        EXPECT_EQ(getenv("TOV_TEST_VARIABLE"), nullptr);
    }
    EXPECT_STREQ(getenv("TOV_TEST_VARIABLE"), "a");
}
