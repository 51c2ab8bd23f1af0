// The Ethernet frame check sequence.
#pragma once

#include <cstddef>
#include <cstdint>

namespace softnic {

// CRC-32 of IEEE 802.3 over these bytes; on the wire its least significant byte goes first.
uint32_t crc32(const uint8_t *data, size_t len);

} // namespace softnic
