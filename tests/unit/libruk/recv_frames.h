/*
 * Frames made for receive tests, and the bytes that they are put together from.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace recv_rig {

using Bytes = std::vector<uint8_t>;

Bytes operator+(Bytes a, const Bytes &b);
Bytes be16(uint64_t v);
Bytes be32(uint64_t v);
Bytes be64(uint64_t v);
Bytes text(const std::string &s);
Bytes pattern(size_t n, unsigned seed = 1); /* n bytes, no two stretches alike */

/* ------------------------------------------------------------------ frames */

/* A frame with all its fields at hand; addresses and ports in host order. */
struct UdpFrame {
    uint32_t src = 0x0a4d0002; /* 10.77.0.2 */
    uint32_t dst = 0x0a4d0001; /* 10.77.0.1 */
    uint16_t sport = 40000;
    uint16_t dport = 5000;
    Bytes payload = {};
    std::optional<uint16_t> vlan = {};    /* tag control word */
    std::optional<uint16_t> udp_len = {}; /* else 8 + payload */
    uint16_t ethertype = 0x0800;          /* behind a tag: the inner one */
    uint8_t protocol = 17;
    uint8_t ip_first = 0x45;
    uint32_t trailer = 0x5a5b5c5d; /* the four bytes after the frame */

    Bytes bytes() const;
};

Bytes udp_frame(const std::string &payload);

} // namespace recv_rig
