// A board's wire is an ordinary host interface, reached through packet sockets.
#pragma once

#include "port.h"

#include <memory>
#include <string>

namespace softnic {

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
std::unique_ptr<Port> make_packet_port(const std::string &ifname, std::string *error, bool trailer_on_wire = false);

} // namespace softnic
