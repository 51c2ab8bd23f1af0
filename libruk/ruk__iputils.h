/*
 * Addresses and Internet checksums.
 */
#ifndef RUK__IPUTILS_H
#define RUK__IPUTILS_H

#include <stdint.h>

/* Octet i (0 = first) of a network-order address. */
inline uint8_t ruk__ip_octet(uint32_t addr_be32, int i) { return (uint8_t)(addr_be32 >> (8 * i)); }

/* A group address: 224.0.0.0/4. */
inline bool ruk__ip_is_group(uint32_t addr_be32) { return (ruk__ip_octet(addr_be32, 0) & 0xf0) == 0xe0; }

/* The multicast MAC address of a group: 01:00:5e and the low 23 bits of the address. */
inline void ruk__group_to_macaddr(uint32_t group_be32, uint8_t *mac)
{
    mac[0] = 0x01;
    mac[1] = 0x00;
    mac[2] = 0x5e;
    mac[3] = ruk__ip_octet(group_be32, 1) & 0x7f;
    mac[4] = ruk__ip_octet(group_be32, 2);
    mac[5] = ruk__ip_octet(group_be32, 3);
}

/* Ones'-complement addition: the carry out of bit 31 is added back in. */
inline uint32_t ruk__csum_add(uint32_t a, uint32_t b)
{
    uint32_t s = a + b;
    return s + (s < a);
}

/* Folds a sum to 16 bits and complements it. */
inline uint16_t ruk__csum_fold(uint32_t s)
{
    s = (s & 0xFFFF) + (s >> 16);
    s = s + (s >> 16);
    return (uint16_t)~s;
}

#endif
