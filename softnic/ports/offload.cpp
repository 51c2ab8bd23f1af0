#include "offload.h"

#include "nuv_events.h"

#include <algorithm>
#include <cstring>

namespace softnic {
namespace {

constexpr uint32_t kEthHeader = 14, kVlanTag = 4;
constexpr uint16_t kTypeVlan = 0x8100, kTypeServiceVlan = 0x88A8, kTypeIpv4 = 0x0800, kTypeIpv6 = 0x86DD;
constexpr uint32_t kIpv4Header = 20, kIpv6Header = 40, kUdpHeader = 8, kTcpHeader = 20;
constexpr uint8_t kProtoTcp = 6, kProtoUdp = 17;
constexpr uint8_t kTcpFin = 0x01, kTcpPush = 0x08, kTcpCwr = 0x80;

uint16_t load16(const uint8_t *p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
uint32_t load32(const uint8_t *p) { return static_cast<uint32_t>(load16(p)) << 16 | load16(p + 2); }
void store16(uint8_t *p, uint32_t v)
{
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}
void store32(uint8_t *p, uint32_t v)
{
    store16(p, v >> 16);
    store16(p + 2, v & 0xFFFF);
}

uint64_t sum16(const uint8_t *p, uint32_t n)
{
    uint64_t sum = 0;
    for (; n > 1; p += 2, n -= 2)
        sum += load16(p);
    if (n != 0)
        sum += static_cast<uint32_t>(p[0]) << 8;
    return sum;
}

uint16_t fold(uint64_t sum)
{
    while (sum >> 16 != 0)
        sum = (sum & 0xFFFF) + (sum >> 16);
    return static_cast<uint16_t>(sum);
}

// Where the network header begins, and its type.
uint32_t network_header(const uint8_t *frame, uint32_t len, uint16_t *type)
{
    *type = load16(frame + 12);
    if ((*type != kTypeVlan && *type != kTypeServiceVlan) || len < kEthHeader + kVlanTag)
        return kEthHeader;
    *type = load16(frame + 16);
    return kEthHeader + kVlanTag;
}

} // namespace

bool complete_checksum(uint8_t *frame, uint32_t len, uint32_t start, uint32_t offset)
{
    if (start >= len || offset + 2 > len - start)
        return false;
    const auto sum = static_cast<uint16_t>(~fold(sum16(frame + start, len - start)));
    // Both forms of zero sum up alike, and in UDP the all-zero one means that there is no checksum.
    store16(frame + start + offset, sum == 0 ? 0xFFFF : sum);
    return true;
}

uint32_t pad_frame(uint8_t *frame, uint32_t len, uint32_t trailer)
{
    if (len >= kMinFrame + trailer)
        return len;
    const uint32_t end = len - trailer;
    memmove(frame + kMinFrame, frame + end, trailer);
    memset(frame + end, 0, kMinFrame - end);
    return kMinFrame + trailer;
}

bool ends_inside_datagram(const uint8_t *frame, uint32_t len)
{
    if (len < kEthHeader)
        return true;
    uint16_t type;
    const uint32_t l3 = network_header(frame, len, &type);
    if (type != kTypeIpv4)
        return false;
    const uint8_t *ip = frame + l3;
    const uint32_t avail = len - l3;
    if (avail < kIpv4Header)
        return true;
    uint32_t needed = load16(ip + 2);
    const bool first = (load16(ip + 6) & 0x1FFF) == 0;
    if (first && (ip[9] == kProtoTcp || ip[9] == kProtoUdp))
        needed = std::max(needed, (ip[0] & 0x0Fu) * 4 + 4);
    return avail < needed;
}

bool Segmenter::start(const uint8_t *frame, uint32_t len, uint32_t segment_payload)
{
    len_ = payload_at_ = index_ = 0;
    if (len < kEthHeader || segment_payload == 0)
        return false;
    uint16_t type;
    l3_ = network_header(frame, len, &type);
    const uint8_t *ip = frame + l3_;
    uint8_t proto;
    if (type == kTypeIpv4 && len >= l3_ + kIpv4Header) {
        ipv6_ = false;
        proto = ip[9];
        l4_ = l3_ + (ip[0] & 0x0Fu) * 4;
    } else if (type == kTypeIpv6 && len >= l3_ + kIpv6Header) {
        ipv6_ = true;
        proto = ip[6];
        l4_ = l3_ + kIpv6Header;
    } else {
        return false;
    }
    tcp_ = proto == kProtoTcp;
    if ((!tcp_ && proto != kProtoUdp) || len < l4_ + (tcp_ ? kTcpHeader : kUdpHeader))
        return false;
    headers_ = l4_ + (tcp_ ? (frame[l4_ + 12] >> 4) * 4u : kUdpHeader);
    if (headers_ < l4_ + kUdpHeader || headers_ >= len)
        return false;
    frame_ = frame;
    len_ = len;
    payload_at_ = headers_;
    segment_payload_ = segment_payload;
    return true;
}

uint8_t *Segmenter::next(uint32_t *len)
{
    if (!active())
        return nullptr;
    const uint32_t payload = std::min(segment_payload_, len_ - payload_at_);
    const bool first = payload_at_ == headers_, last = payload == len_ - payload_at_;
    *len = headers_ + payload;
    segment_.resize(kVlanTag + std::max(*len, kMinFrame + NUV_UEVT_FCS_LEN)); // to be padded in place
    uint8_t *frame = segment_.data() + kVlanTag;
    memcpy(frame, frame_, headers_);
    memcpy(frame + headers_, frame_ + payload_at_, payload);

    uint8_t *ip = frame + l3_, *l4 = frame + l4_;
    const uint32_t l4_len = *len - l4_;
    if (ipv6_) {
        store16(ip + 4, l4_len);
    } else {
        store16(ip + 2, *len - l3_);
        store16(ip + 4, load16(ip + 4) + index_);
        store16(ip + 10, 0);
        store16(ip + 10, static_cast<uint16_t>(~fold(sum16(ip, l4_ - l3_))));
    }
    if (tcp_) {
        store32(l4 + 4, load32(l4 + 4) + (payload_at_ - headers_));
        if (!first)
            l4[13] &= static_cast<uint8_t>(~kTcpCwr);
        if (!last)
            l4[13] &= static_cast<uint8_t>(~(kTcpFin | kTcpPush));
    } else {
        store16(l4 + 4, l4_len);
    }
    const uint32_t field = tcp_ ? 16 : 6;
    const uint64_t addresses = ipv6_ ? sum16(ip + 8, 32) : sum16(ip + 12, 8);
    store16(l4 + field, fold(addresses + (tcp_ ? kProtoTcp : kProtoUdp) + l4_len));
    complete_checksum(frame, *len, l4_, field);

    payload_at_ += payload;
    index_++;
    return frame;
}

} // namespace softnic
