// Where the frames of a board go to and come from.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace softnic {

// A received frame: from the destination MAC address to the last payload byte, VLAN tag in place, checksums
// complete, padded to at least 60 bytes, without a frame check sequence; or with the 4-byte trailer behind all that,
// when frames have theirs on arrival. Valid until the next receive().
struct RxFrame {
    const uint8_t *data = nullptr;
    uint32_t len = 0;
    uint64_t arrival_ns = 0; // host real-time clock, 0 when unknown
};

// IP protocol of a switch's keyframes.
constexpr uint8_t kProtoKeyframe = 253;

// Frames to take away from the host's own stack because the adapter delivers them. All in host byte order.
struct SteerKey {
    uint32_t ip_addr = 0;
    uint16_t port = 0;
    uint16_t vlan = 0; // 12-bit identifier, 0 = untagged
    uint8_t proto = 0; // IP protocol: 17, 6 or kProtoKeyframe (then port is not looked at)
    auto operator<=>(const SteerKey &) const = default;
};

struct PortCounters {
    uint64_t received = 0;     // frames handed out by receive()
    uint64_t rx_dropped = 0;   // frames lost before receive(): packet ring full
    uint64_t rx_malformed = 0; // frames that could not be handed out as they are
    uint64_t sent = 0;         // frames put on the wire
    uint64_t tx_errors = 0;    // frames that the host refused
};

class Port {
public:
    virtual ~Port() = default;

    // Descriptor that polls readable while a frame waits, -1 when there is none.
    virtual int poll_fd() const = 0;

    // The next waiting frame; false when none waits.
    virtual bool receive(RxFrame *frame) = 0;

    // Puts a frame on the wire, without check sequence; it is padded to 60 bytes. 0 or an errno value.
    virtual int send(const uint8_t *frame, size_t len) = 0;

    // Takes matching frames from the host's stack, or gives them back. 0 or an errno value.
    virtual int steer(const SteerKey &key, bool install) = 0;

    // An endpoint takes frames that no filter matches: from its first filter or from this call on somebody listens.
    virtual void listen() {}

    // Frames to any station arrive as well, or only those to this one, to groups and to all. 0 or an errno value.
    virtual int set_promiscuous(bool on) = 0;

    // 1 when the link is up.
    virtual bool link_up() const = 0;

    virtual PortCounters counters() const = 0;
};

} // namespace softnic
