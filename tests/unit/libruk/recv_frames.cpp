#include "recv_frames.h"

namespace recv_rig {

Bytes operator+(Bytes a, const Bytes &b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

static Bytes big_endian(uint64_t v, int bytes)
{
    Bytes out;
    for (int i = bytes - 1; i >= 0; i--)
        out.push_back(static_cast<uint8_t>(v >> (8 * i)));
    return out;
}

Bytes be16(uint64_t v) { return big_endian(v, 2); }
Bytes be32(uint64_t v) { return big_endian(v, 4); }
Bytes be64(uint64_t v) { return big_endian(v, 8); }
Bytes text(const std::string &s) { return Bytes(s.begin(), s.end()); }

Bytes pattern(size_t n, unsigned seed)
{
    Bytes out(n);
    uint32_t x = seed * 2654435761u + 12345;
    for (uint8_t &b : out) {
        x = x * 1664525u + 1013904223u;
        b = static_cast<uint8_t>(x >> 24);
    }
    return out;
}

/* ------------------------------------------------------------------ frames */

Bytes UdpFrame::bytes() const
{
    Bytes frame = {0x02, 0x6f, 0x78, 0, 0, 1, 0x02, 0, 0, 0, 0, 0x99};
    if (vlan)
        frame = frame + be16(0x8100) + be16(*vlan);
    frame = frame + be16(ethertype);
    frame = frame + Bytes{ip_first, 0} + be16(28 + payload.size()) + be16(0) + be16(0x4000) + Bytes{64, protocol} +
            be16(0) + be32(src) + be32(dst);
    frame = frame + be16(sport) + be16(dport) + be16(udp_len ? *udp_len : 8 + payload.size()) + be16(0);
    return frame + payload + be32(trailer);
}

Bytes udp_frame(const std::string &payload)
{
    UdpFrame frame;
    frame.payload = text(payload);
    return frame.bytes();
}

} // namespace recv_rig
