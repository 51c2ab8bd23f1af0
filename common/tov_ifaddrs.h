/*
 * The host interfaces that sit on the maker's adapters. C11 and C++.
 *
 * None of these functions keeps state between calls; they may run on any thread at the same time.
 * All return 0 or a positive errno value unless said otherwise.
 */
#ifndef TOV_IFADDRS_H
#define TOV_IFADDRS_H

#include "tov_types.h"

TOV_BEGIN_DECLS

#define TOV_IFF_MULTICAST 1u /* the interface has IFF_MULTICAST */
#define TOV_IFF_BROADCAST 2u /* the interface has IFF_BROADCAST */

/* Characters of an interface name kept in a record, its terminating zero included. */
#define TOV_IFNAMSIZ 16

/*
 * One interface address that belongs to an adapter. The records of one list and their names lie in one
 * allocation, owned by whoever called tov_getifaddrs() and freed by tov_freeifaddrs().
 */
struct tov_ifaddrs {
    struct tov_ifaddrs *tov_ifa_next; /* null at the last record */
    char *tov_ifa_name;               /* at most 15 characters, inside the same allocation */
    uint32_t tov_ifa_flags;           /* TOV_IFF_* */
    uint32_t tov_ifa_ipaddr;          /* network byte order */
    uint32_t tov_ifa_netmask;         /* network byte order */
    uint32_t tov_ifa_bcastaddr;       /* network byte order */
    uint32_t tov_ifa_boardnum;        /* board number of the adapter */
    uint64_t tov_ifa_nicid;           /* permanent MAC address, first byte most significant */
    uint8_t tov_ifa_macaddr[6];       /* the same address as bytes */
    uint8_t pad[2];
    uint32_t tov_ifa_max_endpoints; /* endpoints of the adapter */
    uint32_t tov_ifa_link_state;    /* 1 when the adapter's link is up, else 0 */
};

/*
 * Lists the host's interface addresses that belong to an adapter, in the host's order. With inet_only
 * non-zero only IPv4 addresses are listed; with 0 entries of every family are, and only their adapter
 * fields and names are meaningful. An address word that the host does not give is left unset.
 * On success *ifaddrs_o is the head (null when none) and *num_ifs the number of records.
 * Errors: those of the driver's adapter list (ENOENT, ENODEV, EACCES, EBUSY, ...), errno of getifaddrs(),
 * ENOMEM; the outputs are then unwritten.
 */
int tov_getifaddrs(struct tov_ifaddrs **ifaddrs_o, int inet_only, int *num_ifs);

/* Frees a list of tov_getifaddrs(); null is harmless. */
void tov_freeifaddrs(struct tov_ifaddrs *ifa);

/*
 * Writes the 6-byte MAC address of the adapter interface that holds ipaddr_be32 (network byte order).
 * Errors: ENODEV when no adapter interface holds it; those of tov_getifaddrs().
 */
int tov_ifaddr_to_macaddr(uint32_t ipaddr_be32, uint8_t *mac);

/*
 * The 802.1Q tag control word of a VLAN interface in network byte order, taken from its name ("vlan7",
 * "eth2.100"), or 0 when the name designates no VLAN. The priority bits are always 7.
 */
uint16_t tov_get_vlan_tag(const char *ifname);

TOV_END_DECLS

#endif
