/*
 * A host of the test's making: interfaces, routes and neighbours.
 *
 * While a FakeHost lives, these answer from it and nothing of the real host shows:
 *   getifaddrs() and freeifaddrs();
 *   SIOCGIFHWADDR, SIOCGIFCONF, SIOCGIFADDR, SIOCGARP, through the socket table or directly;
 *   "/proc/net/route", opened with fopen() or open().
 * All else, driver commands included, passes through. Members may be changed at any time by the test's thread.
 *
 *     FakeHost host;                                            // "oxel0", 127.0.0.1/8: kernel sockets can bind
 *     host.add_route("oxel0", "127.0.0.0", "0.0.0.0", "255.0.0.0");
 *     host.arp.push_back({"127.0.0.9", {2, 0, 0, 0, 0, 9}});
 *     host.sockets.fail_ioctl(SIOCGARP, 1, ENXIO);
 */
#pragma once

#include "libc_seam.h"
#include "socket_seam.h"

#include <array>
#include <memory>
#include <net/if.h>
#include <net/if_arp.h>
#include <net/route.h>
#include <optional>
#include <string>
#include <vector>

namespace test_support {

using Mac = std::array<uint8_t, 6>;

/* One entry of the host's interface list; two of one name are aliases. */
struct FakeInterface {
    std::string name = "oxel0";
    Mac mac = {0x02, 0x6f, 0x78, 0x00, 0x00, 0x01};
    std::string address = "127.0.0.1"; /* empty: the entry has none */
    std::string netmask = "255.0.0.0"; /* empty: none */
    std::string broadcast = {};        /* empty: none */
    unsigned flags = IFF_UP | IFF_RUNNING | IFF_BROADCAST | IFF_MULTICAST;
    int family = AF_INET; /* of the addresses; other families have the IPv4 bytes at the same place */
    int hwaddr_error = 0; /* errno of SIOCGIFHWADDR, 0 when it works */
};

/* One entry of the neighbour table. */
struct FakeNeighbour {
    std::string address;
    Mac mac = {};
    std::string dev = "oxel0";
    int flags = ATF_COM; /* 0: resolution still incomplete */
};

class FakeHost {
public:
    FakeHost(); /* one interface: FakeInterface() */
    explicit FakeHost(std::vector<FakeInterface> ifs);
    ~FakeHost();
    FakeHost(const FakeHost &) = delete;
    FakeHost &operator=(const FakeHost &) = delete;

    std::vector<FakeInterface> interfaces;
    std::vector<FakeNeighbour> arp; /* no entry: ENXIO */
    /* Text of the route file, title line included as made; no value: the file is missing. */
    std::optional<std::string> routes;
    /* errno of a failing getifaddrs(), which may be 0; no value: it works. */
    std::optional<int> getifaddrs_error;

    /* Appends a line in the kernel's form. */
    void add_route(const std::string &ifname, const std::string &dst, const std::string &gateway,
                   const std::string &mask, unsigned flags = RTF_UP);

    unsigned getifaddrs_calls = 0;
    unsigned route_opens = 0;
    /* Lists given out and not yet freed; the host frees them in the end. */
    size_t unreleased_lists() const { return lists_.size(); }

    SocketTable sockets; /* hooks, faults and log of the socket table while the host lives */

private:
    struct List;
    int get_list(struct ifaddrs **out);
    void free_list(struct ifaddrs *list);
    int open_routes();
    bool answer(unsigned long request, void *arg, int *result);
    const FakeInterface *find(const char *name) const;

    LibcHookGuard libc_;
    std::vector<std::unique_ptr<List>> lists_;
};

/* A socket address, its port in host order. */
struct sockaddr_in ipv4(const std::string &address, uint16_t port = 0);

} // namespace test_support
