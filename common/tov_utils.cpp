/*
 * The host's interfaces that sit on adapters, and the VLAN that an interface's name designates.
 */
#include "tov.h"
#include "tov_io.h"

#include <errno.h>
#include <ifaddrs.h>
#include <net/if.h>
#include <netinet/in.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

/* Bounded copy that ends in a zero; dst holds TOV_IFNAMSIZ characters. */
static void copy_ifname(char *dst, const char *name)
{
    size_t len = strnlen(name, TOV_IFNAMSIZ - 1);
    memcpy(dst, name, len);
    memset(dst + len, 0, TOV_IFNAMSIZ - len);
}

int tov_get_macaddr(const char *ifname, uint8_t *mac_addr)
{
    static_assert(IFNAMSIZ == TOV_IFNAMSIZ);

    tov_socket_t s = tov_socket(AF_INET, SOCK_DGRAM, 0);
    if (s < 0)
        return errno;

    struct ifreq ifr;
    memset(&ifr, 0, sizeof ifr);
    copy_ifname(ifr.ifr_name, ifname);
    int rc = tov_ioctl(s, SIOCGIFHWADDR, &ifr, sizeof ifr);
    if (rc == 0)
        memcpy(mac_addr, ifr.ifr_hwaddr.sa_data, 6);
    close(s);
    return rc;
}

/* The adapter that carries the interface: the one whose address in use is the interface's; null if none. */
static struct tov_nic_info *match_nic(const char *ifname, struct tov_nic_info *nics, int num_nics)
{
    uint8_t mac[6] = {};
    if (tov_get_macaddr(ifname, mac))
        return nullptr;

    uint64_t nic_id;
    tov_macaddr_to_nic_id(mac, &nic_id);
    for (int i = 0; i < num_nics; i++)
        if (nics[i].curr_nic_id == nic_id)
            return &nics[i];
    return nullptr;
}

/* The word where an IPv4 address stands; a missing address leaves *word as it is. */
static void copy_address(uint32_t *word, const struct sockaddr *addr)
{
    if (addr)
        memcpy(word, reinterpret_cast<const char *>(addr) + offsetof(struct sockaddr_in, sin_addr), sizeof *word);
}

static void fill_record(struct tov_ifaddrs *rec, const struct ifaddrs *host, const struct tov_nic_info *nic)
{
    copy_ifname(rec->tov_ifa_name, host->ifa_name);
    rec->tov_ifa_flags = 0;
    if (host->ifa_flags & IFF_BROADCAST)
        rec->tov_ifa_flags = TOV_IFF_BROADCAST;
    if (host->ifa_flags & IFF_MULTICAST)
        rec->tov_ifa_flags |= TOV_IFF_MULTICAST;
    copy_address(&rec->tov_ifa_ipaddr, host->ifa_addr);
    copy_address(&rec->tov_ifa_netmask, host->ifa_netmask);
    copy_address(&rec->tov_ifa_bcastaddr, host->ifa_broadaddr);
    rec->tov_ifa_boardnum = nic->boardnum;
    rec->tov_ifa_nicid = nic->nic_id;
    tov_nic_id_to_macaddr(nic->nic_id, rec->tov_ifa_macaddr);
    rec->tov_ifa_max_endpoints = nic->nic_max_endpoints;
    rec->tov_ifa_link_state = nic->nic_link_state;
}

/* Notes each entry's adapter in its ifa_data word, null when it has none. Returns how many have one. */
static size_t match_host_list(struct ifaddrs *host, int inet_only, struct tov_nic_info *nics, int num_nics)
{
    size_t matches = 0;
    for (struct ifaddrs *h = host; h; h = h->ifa_next) {
        h->ifa_data = nullptr;
        if (!h->ifa_addr || (inet_only && h->ifa_addr->sa_family != AF_INET))
            continue;
        h->ifa_data = match_nic(h->ifa_name, nics, num_nics);
        if (h->ifa_data)
            matches++;
    }
    return matches;
}

/* One block: the records in list order, then their names. */
static struct tov_ifaddrs *build_list(const struct ifaddrs *host, size_t n)
{
    void *block = malloc(n * (sizeof(struct tov_ifaddrs) + TOV_IFNAMSIZ));
    if (!block)
        return nullptr;

    struct tov_ifaddrs *list = static_cast<struct tov_ifaddrs *>(block);
    char *names = reinterpret_cast<char *>(list + n);
    size_t i = 0;
    for (const struct ifaddrs *h = host; h; h = h->ifa_next) {
        if (!h->ifa_data)
            continue;
        struct tov_ifaddrs *rec = &list[i];
        rec->tov_ifa_name = names + i * TOV_IFNAMSIZ;
        rec->tov_ifa_next = ++i < n ? &list[i] : nullptr;
        fill_record(rec, h, static_cast<const struct tov_nic_info *>(h->ifa_data));
    }
    return list;
}

int tov_getifaddrs(struct tov_ifaddrs **ifaddrs_o, int inet_only, int *num_ifs)
{
    struct tov_nic_info *nics = nullptr;
    int num_nics = 0;
    struct ifaddrs *host = nullptr;
    struct tov_ifaddrs *list = nullptr;
    size_t n = 0;

    int rc = tov_get_nicinfo(&nics, &num_nics);
    if (rc == 0 && num_nics > 0) {
        if (getifaddrs(&host) == -1) {
            /* errno 0: nothing to list, and no error either. */
            rc = errno;
        } else {
            n = match_host_list(host, inet_only, nics, num_nics);
            if (n > 0 && !(list = build_list(host, n)))
                rc = ENOMEM;
            freeifaddrs(host);
        }
    }
    tov_free_nicinfo(nics);

    if (rc)
        return rc;
    *ifaddrs_o = list;
    *num_ifs = static_cast<int>(n);
    return 0;
}

void tov_freeifaddrs(struct tov_ifaddrs *ifa) { free(ifa); }

int tov_ifaddr_to_macaddr(uint32_t ipaddr_be32, uint8_t *mac)
{
    struct tov_ifaddrs *list = nullptr;
    int n = 0;
    int rc = tov_getifaddrs(&list, 1, &n);
    if (rc)
        return rc;

    rc = ENODEV;
    for (struct tov_ifaddrs *rec = list; rec; rec = rec->tov_ifa_next) {
        if (rec->tov_ifa_ipaddr == ipaddr_be32) {
            memcpy(mac, rec->tov_ifa_macaddr, 6);
            rc = 0;
            break;
        }
    }
    tov_freeifaddrs(list);
    return rc;
}

uint16_t tov_get_vlan_tag(const char *ifname)
{
    /* 802.1p priority 7 in every tag. */
    const uint16_t priority = 0xe000;

    /* Read wide: a number that does not fit in 16 bits is none of a VLAN, whatever its low bits. */
    long long number;
    if (sscanf(ifname, "vlan%lld", &number) == 1 && number >= 0 && number < 4096)
        return tov_be16(static_cast<uint16_t>(number) | priority);

    const char *dot = strchr(ifname, '.');
    if (!dot || dot[1] < '0' || dot[1] > '9')
        return 0;
    /* Here the number counts modulo 65536. */
    const uint16_t vlan = static_cast<uint16_t>(strtol(dot + 1, nullptr, 10));
    return vlan > 4095 ? 0 : tov_be16(vlan | priority);
}
