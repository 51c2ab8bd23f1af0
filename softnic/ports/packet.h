// A board's wire is an ordinary host interface, reached through packet sockets.
#pragma once

#include "port.h"

#include <cstdint>
#include <memory>
#include <string>

namespace softnic {

// The ring in which the kernel keeps what the adapter has not taken yet: 2 KiB a frame at the usual MTU, so 4096
// frames; four times as much above it.
constexpr uint32_t kPacketRing = 8u << 20, kMinPacketRing = 256u << 10, kMaxPacketRing = 256u << 20;

// Receives what arrives on the interface and sends through it. Null when that cannot be had, with one line that
// says why in *error. The frames are those of the wire: what the host's offloads left open (checksums, VLAN tags
// kept aside, segments merged into one) is made good here.
//
// Steered frames are dropped at the interface's ingress hook, which lies behind the packet sockets. When the host
// cannot do that, one line on standard error says so, and its own stack sees the frames as well.
//
// receive(), send() and steer() may run on different threads, each on one at a time; link_up() and counters() on
// any. A child process must not use an inherited port.
//
// With trailer_on_wire each frame ends in a 4-byte trailer already, which padding must not follow.
// The ring's size is made a power of two; where the host has not that much memory, or the process not that many
// addresses, it is halved until they have, down to the smallest, and a line on standard error says so.
std::unique_ptr<Port> make_packet_port(const std::string &ifname, std::string *error, bool trailer_on_wire = false,
                                       uint32_t ring_bytes = kPacketRing);

} // namespace softnic
