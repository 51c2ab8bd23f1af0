// Frames for tests of the adapter, put together byte by byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace softnic_test {

using Bytes = std::vector<uint8_t>;

struct FrameSpec {
    uint8_t mac[6] = {0x02, 0x6f, 0x78, 0, 0, 1};
    uint32_t dst_ip = 0x0A4D0001; // 10.77.0.1
    uint16_t dst_port = 5000;
    uint8_t proto = 17;
    int vlan_tci = -1; // below 0: no tag
    uint8_t ihl = 5;
    uint8_t version = 4;
    uint16_t fragment = 0; // flags and offset
    int total_length = -1; // below 0: the true one
    uint16_t ethertype = 0x0800;
    size_t payload = 18;
    uint8_t fill = 0x5A;
    bool pad = true; // to 60 bytes
};

inline void put16(Bytes *b, unsigned v)
{
    b->push_back(static_cast<uint8_t>(v >> 8));
    b->push_back(static_cast<uint8_t>(v));
}

inline void put32(Bytes *b, uint32_t v)
{
    put16(b, v >> 16);
    put16(b, v & 0xFFFF);
}

inline Bytes make_frame(const FrameSpec &s = {})
{
    Bytes b(s.mac, s.mac + 6);
    b.insert(b.end(), {0x02, 0xAA, 0xBB, 0xCC, 0xDD, 0xEE});
    if (s.vlan_tci >= 0) {
        put16(&b, 0x8100);
        put16(&b, static_cast<unsigned>(s.vlan_tci));
    }
    put16(&b, s.ethertype);
    const unsigned options = s.ihl > 5 ? (s.ihl - 5u) * 4 : 0;
    b.push_back(static_cast<uint8_t>(s.version << 4 | s.ihl));
    b.push_back(0);
    put16(&b, s.total_length >= 0 ? static_cast<unsigned>(s.total_length)
                                  : static_cast<unsigned>(20 + options + 8 + s.payload));
    put16(&b, 0);
    put16(&b, s.fragment);
    b.push_back(64);
    b.push_back(s.proto);
    put16(&b, 0);
    put32(&b, 0x0A4D0002); // 10.77.0.2
    put32(&b, s.dst_ip);
    b.insert(b.end(), options, 0x01);
    put16(&b, 40000);
    put16(&b, s.dst_port);
    put16(&b, static_cast<unsigned>(8 + s.payload));
    put16(&b, 0);
    b.insert(b.end(), s.payload, s.fill);
    if (s.pad && b.size() < 60)
        b.resize(60, 0);
    return b;
}

} // namespace softnic_test
