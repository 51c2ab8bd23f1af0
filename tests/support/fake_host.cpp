#include "fake_host.h"

#include <algorithm>
#include <arpa/inet.h>
#include <deque>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace test_support {

static const char route_file[] = "/proc/net/route";

struct sockaddr_in ipv4(const std::string &address, uint16_t port)
{
    struct sockaddr_in sin = {};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(port);
    if (inet_pton(AF_INET, address.c_str(), &sin.sin_addr) != 1)
        abort(); /* a slip of the test's author */
    return sin;
}

/* One result of getifaddrs(), with everything that it points to. */
struct FakeHost::List {
    std::vector<struct ifaddrs> entries;
    std::deque<struct sockaddr_in> addresses;
    std::deque<std::string> names;

    struct sockaddr *address(const std::string &text, int family)
    {
        if (text.empty())
            return nullptr;
        addresses.push_back(ipv4(text));
        addresses.back().sin_family = static_cast<sa_family_t>(family);
        return reinterpret_cast<struct sockaddr *>(&addresses.back());
    }
};

FakeHost::FakeHost() : FakeHost(std::vector<FakeInterface>{FakeInterface()}) {}

FakeHost::FakeHost(std::vector<FakeInterface> ifs)
    : interfaces(std::move(ifs)),
      routes("Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT"
             "                                                       \n")
{
    libc_->getifaddrs = [this](struct ifaddrs **out) { return get_list(out); };
    libc_->freeifaddrs = [this](struct ifaddrs *list) { free_list(list); };
    libc_->fopen = [this, next = libc_->fopen](const char *path, const char *mode) -> FILE * {
        if (strcmp(path, route_file) != 0)
            return next ? next(path, mode) : real::fopen(path, mode);
        int fd = open_routes();
        return fd < 0 ? nullptr : fdopen(fd, "r");
    };
    libc_->open = [this, next = libc_->open](const char *path, int flags) {
        if (strcmp(path, route_file) != 0)
            return next ? next(path, flags) : real::open(path, flags, 0666);
        return open_routes();
    };
    libc_->ioctl = [this, next = libc_->ioctl](int fd, unsigned long request, void *arg) {
        int result;
        if (answer(request, arg, &result))
            return result;
        return next ? next(fd, request, arg) : real::ioctl(fd, request, arg);
    };
    for (unsigned long request : {SIOCGIFHWADDR, SIOCGIFCONF, SIOCGIFADDR, SIOCGARP})
        sockets.on_ioctl[request] = [this, request](int fd, void *arg) {
            (void)fd;
            int result = -1;
            answer(request, arg, &result);
            return result;
        };
}

FakeHost::~FakeHost() = default;

void FakeHost::add_route(const std::string &ifname, const std::string &dst, const std::string &gateway,
                         const std::string &mask, unsigned flags)
{
    char line[256];
    snprintf(line, sizeof line, "%s\t%08X\t%08X\t%04X\t0\t0\t0\t%08X\t0\t0\t0\n", ifname.c_str(),
             ipv4(dst).sin_addr.s_addr, ipv4(gateway).sin_addr.s_addr, flags, ipv4(mask).sin_addr.s_addr);
    routes = routes.value_or("") + line;
}

const FakeInterface *FakeHost::find(const char *name) const
{
    for (const FakeInterface &i : interfaces)
        if (i.name == name)
            return &i;
    return nullptr;
}

int FakeHost::get_list(struct ifaddrs **out)
{
    getifaddrs_calls++;
    if (getifaddrs_error) {
        errno = *getifaddrs_error;
        return -1;
    }
    *out = nullptr;
    if (interfaces.empty())
        return 0;

    auto list = std::make_unique<List>();
    list->entries.reserve(interfaces.size());
    for (const FakeInterface &i : interfaces) {
        struct ifaddrs entry = {};
        list->names.push_back(i.name);
        entry.ifa_name = list->names.back().data();
        entry.ifa_flags = i.flags;
        entry.ifa_addr = list->address(i.address, i.family);
        entry.ifa_netmask = list->address(i.netmask, i.family);
        entry.ifa_broadaddr = list->address(i.broadcast, i.family);
        entry.ifa_data = const_cast<FakeInterface *>(&i); /* real hosts put statistics here */
        list->entries.push_back(entry);
    }
    for (size_t k = 0; k + 1 < list->entries.size(); k++)
        list->entries[k].ifa_next = &list->entries[k + 1];
    *out = &list->entries[0];
    lists_.push_back(std::move(list));
    return 0;
}

void FakeHost::free_list(struct ifaddrs *head)
{
    if (!head)
        return;
    auto it = std::find_if(lists_.begin(), lists_.end(), [&](const auto &l) { return &l->entries[0] == head; });
    if (it == lists_.end())
        abort(); /* freed twice, or not one of ours */
    lists_.erase(it);
}

int FakeHost::open_routes()
{
    route_opens++;
    if (!routes) {
        errno = ENOENT;
        return -1;
    }
    int fd = memfd_create("routes", MFD_CLOEXEC);
    if (fd >= 0) {
        if (write(fd, routes->data(), routes->size()) != static_cast<ssize_t>(routes->size()))
            abort();
        lseek(fd, 0, SEEK_SET);
    }
    return fd;
}

static int fail_with(int error)
{
    errno = error;
    return -1;
}

static int answer_ifconf(const std::vector<FakeInterface> &interfaces, struct ifconf *conf)
{
    int used = 0;
    for (const FakeInterface &i : interfaces) {
        if (i.address.empty() || i.family != AF_INET)
            continue;
        if (used + static_cast<int>(sizeof(struct ifreq)) > conf->ifc_len)
            break;
        struct ifreq req = {};
        strncpy(req.ifr_name, i.name.c_str(), IFNAMSIZ - 1);
        struct sockaddr_in sin = ipv4(i.address);
        memcpy(&req.ifr_addr, &sin, sizeof sin);
        memcpy(conf->ifc_buf + used, &req, sizeof req);
        used += static_cast<int>(sizeof req);
    }
    conf->ifc_len = used;
    return 0;
}

static int answer_arp(const std::vector<FakeNeighbour> &arp, struct arpreq *req)
{
    struct sockaddr_in sin;
    memcpy(&sin, &req->arp_pa, sizeof sin);
    for (const FakeNeighbour &n : arp) {
        if (ipv4(n.address).sin_addr.s_addr != sin.sin_addr.s_addr || n.dev != req->arp_dev)
            continue;
        req->arp_flags = n.flags;
        req->arp_ha.sa_family = ARPHRD_ETHER;
        memcpy(req->arp_ha.sa_data, n.mac.data(), 6);
        return 0;
    }
    return fail_with(ENXIO);
}

/* False when the request is none of the host's. */
bool FakeHost::answer(unsigned long request, void *arg, int *result)
{
    struct ifreq *ifr = static_cast<struct ifreq *>(arg);

    switch (request) {
    case SIOCGIFHWADDR: {
        const FakeInterface *i = find(ifr->ifr_name);
        if (!i || i->hwaddr_error) {
            *result = fail_with(i ? i->hwaddr_error : ENODEV);
            return true;
        }
        ifr->ifr_hwaddr.sa_family = ARPHRD_ETHER;
        memcpy(ifr->ifr_hwaddr.sa_data, i->mac.data(), 6);
        *result = 0;
        return true;
    }
    case SIOCGIFADDR: {
        const FakeInterface *i = find(ifr->ifr_name);
        if (!i || i->address.empty()) {
            *result = fail_with(i ? EADDRNOTAVAIL : ENODEV);
            return true;
        }
        struct sockaddr_in sin = ipv4(i->address);
        memcpy(&ifr->ifr_addr, &sin, sizeof sin);
        *result = 0;
        return true;
    }
    case SIOCGIFCONF:
        *result = answer_ifconf(interfaces, static_cast<struct ifconf *>(arg));
        return true;
    case SIOCGARP:
        *result = answer_arp(arp, static_cast<struct arpreq *>(arg));
        return true;
    default:
        return false;
    }
}

} // namespace test_support
