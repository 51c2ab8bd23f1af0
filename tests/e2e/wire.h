// Frames as byte strings, made and checked independently of the code under test.
#pragma once

#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

using Bytes = std::vector<uint8_t>;

inline void put16(Bytes *b, uint32_t v)
{
    b->push_back(static_cast<uint8_t>(v >> 8));
    b->push_back(static_cast<uint8_t>(v));
}
inline void put32(Bytes *b, uint32_t v)
{
    put16(b, v >> 16);
    put16(b, v & 0xFFFF);
}
inline void put(Bytes *b, const void *p, size_t n)
{
    const auto *from = static_cast<const uint8_t *>(p);
    b->insert(b->end(), from, from + n);
}
inline uint16_t get16(const Bytes &b, size_t at) { return static_cast<uint16_t>(b.at(at) << 8 | b.at(at + 1)); }
inline uint32_t get32(const Bytes &b, size_t at)
{
    return static_cast<uint32_t>(get16(b, at)) << 16 | get16(b, at + 2);
}

// One's complement sum over bytes [from, to) and whatever was summed before.
inline uint16_t ones_sum(const Bytes &b, size_t from, size_t to, uint32_t sum = 0)
{
    for (size_t i = from; i < to; i += 2)
        sum += static_cast<uint32_t>(b.at(i) << 8) + (i + 1 < to ? b.at(i + 1) : 0u);
    while (sum > 0xFFFF)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(sum);
}

// An untagged IPv4 frame's header and UDP or TCP checksums add up as a receiver demands.
inline bool checksums_hold(const Bytes &frame)
{
    const size_t ip = 14, header = (frame.at(ip) & 15u) * 4, l4 = ip + header, end = ip + get16(frame, ip + 2);
    if (end > frame.size() || ones_sum(frame, ip, l4) != 0xFFFF)
        return false;
    const uint8_t proto = frame.at(ip + 9);
    if (proto == 17 && get16(frame, l4 + 6) == 0)
        return false;
    const uint32_t pseudo = ones_sum(frame, ip + 12, ip + 20) + proto + static_cast<uint32_t>(end - l4);
    return ones_sum(frame, l4, end, pseudo) == 0xFFFF;
}

struct UdpFrame {
    uint8_t to[6] = {0x02, 0x6F, 0x78, 0x00, 0x00, 0x01};
    uint8_t from[6] = {0x02, 0x00, 0x00, 0x00, 0x00, 0x02};
    std::vector<uint32_t> tags; // 802.1Q and kin, outermost first: type << 16 | control word
    uint32_t source = 0x0A4D0002, destination = 0x0A4D0001;
    uint16_t source_port = 40000, port = 5000;
    std::string payload;

    Bytes bytes() const
    {
        Bytes b;
        put(&b, to, 6);
        put(&b, from, 6);
        for (uint32_t tag : tags)
            put32(&b, tag);
        put16(&b, 0x0800);
        const size_t ip = b.size();
        put16(&b, 0x4500);
        put16(&b, static_cast<uint32_t>(28 + payload.size()));
        put32(&b, 0x00014000);
        put32(&b, 0x40110000);
        put32(&b, source);
        put32(&b, destination);
        const auto header = static_cast<uint16_t>(~ones_sum(b, ip, ip + 20));
        b[ip + 10] = static_cast<uint8_t>(header >> 8);
        b[ip + 11] = static_cast<uint8_t>(header);
        put16(&b, source_port);
        put16(&b, port);
        put16(&b, static_cast<uint32_t>(8 + payload.size()));
        put16(&b, 0);
        put(&b, payload.data(), payload.size());
        const uint32_t pseudo = ones_sum(b, ip + 12, ip + 20) + 17 + static_cast<uint32_t>(8 + payload.size());
        auto sum = static_cast<uint16_t>(~ones_sum(b, ip + 20, b.size(), pseudo));
        sum = sum == 0 ? 0xFFFF : sum;
        b[ip + 26] = static_cast<uint8_t>(sum >> 8);
        b[ip + 27] = static_cast<uint8_t>(sum);
        return b;
    }
};
