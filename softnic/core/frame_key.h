// What of a received frame the filters look at.
#pragma once

#include "../ports/port.h"

#include <cstdint>

namespace softnic {

// Fills the key under which a frame would be steered. False when no filter can match it: anything but IPv4 in
// an untagged frame or one with a single 802.1Q tag of an identifier above 0, a header that does not hold up
// (version, lengths), a fragment other than the first, or a protocol that no filter names.
//
// This is the host's own view at its ingress hook, so that the frames taken from the host and the frames that
// the adapter delivers are the same ones: the port number is read wherever the header length puts it, also
// from bytes behind the IP datagram's end.
bool parse_frame_key(const uint8_t *frame, uint32_t len, SteerKey *key);

// A frame to a group or to everybody.
inline bool is_group_frame(const uint8_t *frame) { return (frame[0] & 1) != 0; }

} // namespace softnic
