#include "plain_host.h"
#include "nuv_types.h"

#include <arpa/inet.h>
#include <errno.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>

namespace threads {

namespace {

struct List {
    struct ifaddrs head;
    struct sockaddr_in address, mask, broadcast;
};

void set_address(struct sockaddr_in *sin, const char *text)
{
    *sin = {};
    sin->sin_family = AF_INET;
    inet_pton(AF_INET, text, &sin->sin_addr);
}

struct sockaddr *any(struct sockaddr_in *sin) { return reinterpret_cast<struct sockaddr *>(sin); }

char name_of_it[] = "oxel0";
char routes[] = "Iface\tDestination\tGateway\tFlags\tRefCnt\tUse\tMetric\tMask\tMTU\tWindow\tIRTT\n"
                "oxel0\t0000007F\t00000000\t0001\t0\t0\t0\t000000FF\t0\t0\t0\n";

int list_interfaces(struct ifaddrs **out)
{
    List *list = new List();
    set_address(&list->address, "127.0.0.1");
    set_address(&list->mask, "255.0.0.0");
    set_address(&list->broadcast, "127.255.255.255");
    list->head.ifa_name = name_of_it;
    list->head.ifa_flags = IFF_UP | IFF_RUNNING | IFF_BROADCAST | IFF_MULTICAST;
    list->head.ifa_addr = any(&list->address);
    list->head.ifa_netmask = any(&list->mask);
    list->head.ifa_broadaddr = any(&list->broadcast);
    *out = &list->head;
    return 0;
}

int refuse(int error)
{
    errno = error;
    return -1;
}

int answer_arp(struct arpreq *arp)
{
    struct sockaddr_in sin;
    memcpy(&sin, &arp->arp_pa, sizeof sin);
    if (sin.sin_addr.s_addr != htonl(0x7f000002))
        return refuse(ENXIO);
    arp->arp_flags = ATF_COM;
    arp->arp_ha.sa_family = ARPHRD_ETHER;
    memcpy(arp->arp_ha.sa_data, "\x02\0\0\0\0\2", 6);
    return 0;
}

void answer_address(struct ifreq *request)
{
    struct sockaddr_in sin;
    set_address(&sin, "127.0.0.1");
    memcpy(&request->ifr_addr, &sin, sizeof sin);
}

int list_names(struct ifconf *conf)
{
    if (conf->ifc_len < static_cast<int>(sizeof(struct ifreq)))
        return refuse(EINVAL);
    conf->ifc_len = sizeof(struct ifreq);
    *conf->ifc_req = {};
    memcpy(conf->ifc_req->ifr_name, name_of_it, sizeof name_of_it);
    answer_address(conf->ifc_req);
    return 0;
}

constexpr useconds_t CALIBRATION_USECS = 200000;

thread_local unsigned waits;

} // namespace

unsigned PlainHost::own_waits() { return waits; }

int PlainHost::wait_in_driver(int fd, unsigned long request, void *arg)
{
    waits++;
    waiting_.fetch_add(1, std::memory_order_relaxed);
    const int rc = test_support::real::ioctl(fd, request, arg);
    waiting_.fetch_sub(1, std::memory_order_relaxed);
    return rc;
}

PlainHost::PlainHost(const uint8_t *mac)
{
    namespace real = test_support::real;
    memcpy(mac_, mac, sizeof mac_);
    hooks_->usleep = [](useconds_t usecs) { return usecs == CALIBRATION_USECS ? 0 : real::usleep(usecs); };
    hooks_->gettimeofday = [](struct timeval *tv) {
        thread_local time_t now;
        *tv = {++now, 0};
        return 0;
    };
    hooks_->getifaddrs = list_interfaces;
    hooks_->freeifaddrs = [](struct ifaddrs *list) { delete reinterpret_cast<List *>(list); };
    hooks_->fopen = [](const char *path, const char *mode) {
        if (strcmp(path, "/proc/net/route") != 0)
            return real::fopen(path, mode);
        return fmemopen(routes, sizeof routes - 1, "r");
    };
    hooks_->ioctl = [this](int fd, unsigned long request, void *arg) {
        switch (request) {
        case SIOCGIFHWADDR:
            memcpy(static_cast<struct ifreq *>(arg)->ifr_hwaddr.sa_data, mac_, sizeof mac_);
            return 0;
        case SIOCGIFCONF:
            return list_names(static_cast<struct ifconf *>(arg));
        case SIOCGIFADDR:
            answer_address(static_cast<struct ifreq *>(arg));
            return 0;
        case SIOCGARP:
            return answer_arp(static_cast<struct arpreq *>(arg));
        case OXEL_WAIT_SEND_COMPLETION:
            return wait_in_driver(fd, request, arg);
        default:
            return real::ioctl(fd, request, arg);
        }
    };
}

} // namespace threads
