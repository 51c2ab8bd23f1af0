#include "frame_key.h"

namespace softnic {
namespace {

constexpr uint32_t kEthHeader = 14;
constexpr uint32_t kVlanHeader = 18;
constexpr uint32_t kIpHeaderMin = 20;
constexpr uint16_t kTypeVlan = 0x8100;
constexpr uint16_t kTypeIpv4 = 0x0800;
constexpr uint16_t kFragmentOffset = 0x1FFF;
constexpr uint8_t kProtoTcp = 6, kProtoUdp = 17;

uint16_t load_be16(const uint8_t *p) { return static_cast<uint16_t>(p[0] << 8 | p[1]); }
uint32_t load_be32(const uint8_t *p) { return static_cast<uint32_t>(load_be16(p)) << 16 | load_be16(p + 2); }

} // namespace

bool parse_frame_key(const uint8_t *frame, uint32_t len, SteerKey *key)
{
    if (len < kEthHeader)
        return false;
    uint16_t type = load_be16(frame + 12);
    uint32_t l3 = kEthHeader;
    uint16_t vlan = 0;
    if (type == kTypeVlan) {
        if (len < kVlanHeader)
            return false;
        vlan = load_be16(frame + 14) & 0x0FFF;
        if (vlan == 0)
            return false; // a priority tag: to the host an untagged frame, to the filters none
        type = load_be16(frame + 16);
        l3 = kVlanHeader;
    }
    if (type != kTypeIpv4 || len < l3 + kIpHeaderMin)
        return false;

    const uint8_t *ip = frame + l3;
    const uint32_t avail = len - l3;
    const uint32_t header = (ip[0] & 0x0Fu) * 4;
    const uint32_t total = load_be16(ip + 2);
    if (ip[0] >> 4 != 4 || header < kIpHeaderMin || total < header || total > avail)
        return false;
    if ((load_be16(ip + 6) & kFragmentOffset) != 0)
        return false;

    *key = SteerKey{};
    key->ip_addr = load_be32(ip + 16);
    key->vlan = vlan;
    key->proto = ip[9];
    if (key->proto == kProtoKeyframe)
        return true;
    if (key->proto != kProtoUdp && key->proto != kProtoTcp)
        return false;
    if (avail < header + 4)
        return false;
    key->port = load_be16(ip + header + 2);
    return true;
}

} // namespace softnic
