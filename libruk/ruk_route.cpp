/*
 * The endpoint's copy of the host's routes, and next-hop resolution through the host's ARP table.
 */
#include "ruk__iputils.h"
#include "ruk_core.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ifaddrs.h>
#include <net/if_arp.h>
#include <net/route.h>
#include <sys/ioctl.h>

/* The file's first line holds titles, each other line one route with its numbers in network order. */
#define ROUTE_FILE       "/proc/net/route"
#define ROUTE_LINE_BYTES 1024
#define ARP_PROMPT_PORT  67
#define CACHE_HASH_SEED  177573u

/* ------------------------------------------------------------------ routes */

/* Whether an interface of that name sits on the endpoint's adapter. */
static bool is_own_interface(const struct ruk__ep *rep, const char *name)
{
    if (!rep->rep_mif)
        return false;
    for (const struct tov_ifaddrs *ifa = rep->rep_mif_addrs; ifa; ifa = ifa->tov_ifa_next)
        if (strcmp(ifa->tov_ifa_name, name) == 0 && ifa->tov_ifa_boardnum == rep->rep_mif->tov_ifa_boardnum)
            return true;
    return false;
}

/* Parses a line into the entry; whether the route is up and leaves through the endpoint's adapter. */
static bool parse_route(const struct ruk__ep *rep, const char *line, struct rep_rtentry *rt)
{
    char name[17];
    int refcnt, use, metric, mtu, window, irtt;
    int fields = sscanf(line, "%16s %x %x %x %d %d %d %x %d %d %d\n", name, &rt->dst_addr, &rt->gw_addr, &rt->flags,
                        &refcnt, &use, &metric, &rt->mask, &mtu, &window, &irtt);
    return fields == 11 && (rt->flags & RTF_UP) && is_own_interface(rep, name);
}

static int grow_routes(struct ruk__ep *rep)
{
    size_t entries = rep->rep_max_routes + RUK_ROUTES_STEP;
    void *grown = realloc(rep->rep_routes, entries * sizeof(struct rep_rtentry));
    if (!grown) {
        fputs("Unable to grow route table\n", stderr);
        return ENOMEM;
    }
    rep->rep_routes = (struct rep_rtentry *)grown;
    rep->rep_max_routes = (uint32_t)entries;
    return 0;
}

extern "C" int ruk__arp_init(struct ruk__ep *rep)
{
    rep->rep_num_valid_rts = 0;
    FILE *file = fopen(ROUTE_FILE, "r");
    if (!file)
        return 0;

    char line[ROUTE_LINE_BYTES];
    uint32_t kept = 0;
    int rc = 0;
    if (fgets(line, sizeof line, file)) {
        while (fgets(line, sizeof line, file)) {
            if (kept == rep->rep_max_routes && (rc = grow_routes(rep)) != 0)
                break;
            if (parse_route(rep, line, &rep->rep_routes[kept]))
                kept++;
        }
    }
    rep->rep_num_valid_rts = kept;
    fclose(file);
    return rc;
}

/* The next hop of the best route: longest mask, and among equal masks the later route. False when none matches. */
static bool find_next_hop(const struct ruk__ep *rep, uint32_t dst, uint32_t *next_hop)
{
    const struct rep_rtentry *best = nullptr;
    for (uint32_t i = 0; i < rep->rep_num_valid_rts; i++) {
        const struct rep_rtentry *rt = &rep->rep_routes[i];
        if ((dst & rt->mask) == rt->dst_addr && (!best || rt->mask >= best->mask))
            best = rt;
    }
    if (!best)
        return false;
    *next_hop = (best->flags & RTF_GATEWAY) ? best->gw_addr : dst;
    return true;
}

/* ------------------------------------------------------------------ ARP */

static const char *dotted(uint32_t addr_be32, char (&text)[INET_ADDRSTRLEN])
{
    struct in_addr addr = {addr_be32};
    return inet_ntop(AF_INET, &addr, text, sizeof text);
}

static struct ruk__peer_addr *set_peer(struct ruk__peer_addr *paddr, const uint8_t *mac)
{
    memmove(paddr->pa_eth_dest, mac, 6);
    paddr->pa_isvalid = 1;
    return paddr;
}

/* The cache entry of a next hop, or the one to put it in; *hit tells which. */
static struct ruk__peer_addr *cache_slot(struct ruk__ep *rep, uint32_t nh, bool *hit)
{
    *hit = false;
    for (struct ruk__peer_addr &entry : rep->rep_mac_cache) {
        *hit = entry.pa_ip_addr_be32 == nh;
        if (*hit || entry.pa_ip_addr_be32 == 0)
            return &entry;
    }
    return &rep->rep_mac_cache[((nh & 0xFFFF) + (nh >> 16) + CACHE_HASH_SEED) % RUK_MAC_CACHE];
}

/* Makes the kernel resolve a next hop: through the driver, or by an empty datagram to it. */
static int prompt_kernel(struct ruk__ep *rep, uint32_t nh)
{
    int rc = tov_ioctl(rep->rep_handle, OXEL_ARP_RESOLVE, &nh, sizeof nh);
    if (rc != ENOTTY)
        return rc;
    struct sockaddr_in sin = {};
    sin.sin_family = AF_INET;
    sin.sin_port = tov_be16(ARP_PROMPT_PORT);
    sin.sin_addr.s_addr = nh;
    if (tov_sendto(rep->rep_send_fd, "", 0, 0, (const struct sockaddr *)&sin, sizeof sin) < 0)
        return errno;
    return 0;
}

static int get_arp(struct ruk__ep *rep, struct arpreq *arp, const char *ifname)
{
    memset(arp->arp_dev, 0, sizeof arp->arp_dev);
    strncpy(arp->arp_dev, ifname, sizeof arp->arp_dev - 1);
    return tov_ioctl(rep->rep_send_fd, SIOCGARP, arp, sizeof *arp);
}

/* Asks the kernel's ARP table, by the endpoint's interface and then by any; -1 when those cannot be listed. */
static int read_arp(struct ruk__ep *rep, struct arpreq *arp)
{
    if (get_arp(rep, arp, rep->rep_mif->tov_ifa_name) == 0 && arp->arp_flags != 0)
        return 0;
    struct ifaddrs *list = nullptr; /* stays with the process */
    if (getifaddrs(&list) != 0)
        return -1;
    for (const struct ifaddrs *ifa = list; ifa; ifa = ifa->ifa_next)
        if (ifa->ifa_addr && get_arp(rep, arp, ifa->ifa_name) == 0)
            break;
    return 0;
}

/* Resolves a next hop through the kernel into a cache slot; the endpoint lock is dropped while it is asked. */
static int resolve_next_hop(struct ruk__ep *rep, uint32_t nh, struct ruk__peer_addr *slot, struct ruk__peer_addr *paddr,
                            int retries)
{
    char text[INET_ADDRSTRLEN];
    struct arpreq arp = {};
    struct sockaddr_in pa = {};
    pa.sin_family = AF_INET;
    pa.sin_addr.s_addr = nh;
    memcpy(&arp.arp_pa, &pa, sizeof pa);

    for (int tries = 0;;) {
        /* 1. Ask, and from the second time on prompt first. */
        ruk__ep_unlock(rep);
        int rc = tries > 0 ? prompt_kernel(rep, nh) : 0;
        if (rc != 0) {
            ruk__ep_lock(rep);
            return rc;
        }
        int listed = read_arp(rep, &arp);
        int cause = errno;
        ruk__ep_lock(rep);

        /* 2. The host's interfaces could not be listed. */
        if (listed != 0) {
            if (cause == 0)
                continue;
            if (cause != ENXIO) {
                fprintf(stderr, "read_arp failed, errono:%d, %s\n", cause, strerror(cause));
                return cause;
            }
            if (tries == retries) {
                fprintf(stderr, "ARP lookup of %s failed after %d tries.\n", dotted(nh, text), retries);
                return ENXIO;
            }
            tries++;
            continue;
        }

        /* 3. An answer. */
        if (arp.arp_flags != 0) {
            slot->pa_ip_addr_be32 = nh;
            set_peer(slot, (const uint8_t *)arp.arp_ha.sa_data);
            set_peer(paddr, slot->pa_eth_dest);
            return 0;
        }
        if (++tries > retries) {
            errno = EADDRNOTAVAIL;
            return EADDRNOTAVAIL;
        }
    }
}

static int no_route(uint32_t dst)
{
    char text[INET_ADDRSTRLEN];
    fprintf(stderr, "No route to host %s\n", dotted(dst, text));
    return EHOSTUNREACH;
}

extern "C" int ruk__peer_addr_lookup(struct ruk__ep *rep, uint32_t src_ip_addr_be32, struct ruk__peer_addr *paddr,
                                     int retries)
{
    static const uint8_t broadcast[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
    const uint32_t dst = paddr->pa_ip_addr_be32;

    /* 1. Groups and broadcasts need no lookup; any address ending in .255 is a broadcast. */
    if (ruk__ip_is_group(dst)) {
        ruk__group_to_macaddr(dst, paddr->pa_eth_dest);
        paddr->pa_isvalid = 1;
        return 0;
    }
    if (ruk__ip_octet(dst, 3) == 255) {
        set_peer(paddr, broadcast);
        return 0;
    }

    /* 2. The next hop. */
    uint32_t nh;
    paddr->pa_isvalid = 0;
    if (!find_next_hop(rep, dst, &nh))
        return no_route(dst);

    /* 3. Its MAC address: from the cache, else from the kernel. */
    bool hit;
    struct ruk__peer_addr *slot = cache_slot(rep, nh, &hit);
    if (hit) {
        set_peer(paddr, slot->pa_eth_dest);
        return 0;
    }
    return resolve_next_hop(rep, nh, slot, paddr, retries);
}

extern "C" int ruk__resolve_mac(ruk_device_t rep, uint32_t src_ip_addr_be32, uint32_t dst_ip_addr_be32, uint8_t *mac)
{
    struct ruk__peer_addr peer = {};
    peer.pa_ip_addr_be32 = dst_ip_addr_be32;
    int rc = ruk__peer_addr_lookup(rep, src_ip_addr_be32, &peer, 1000);
    if (rc == 0)
        memcpy(mac, peer.pa_eth_dest, 6);
    return rc;
}
