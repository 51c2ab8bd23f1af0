// Makes good what senders and receivers on one host leave open in frames that never saw a wire.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace softnic {

constexpr uint32_t kMinFrame = 60; // shortest frame on the wire, without check sequence

// Pads a short frame where senders do: behind its last byte, before the trailer that it may have already. The buffer
// has room for kMinFrame and the trailer; the length afterwards.
uint32_t pad_frame(uint8_t *frame, uint32_t len, uint32_t trailer);

// Stores the Internet checksum of frame[start..len) at start + offset, where the sum of the pseudo header is
// already. False when these positions are not inside the frame.
bool complete_checksum(uint8_t *frame, uint32_t len, uint32_t start, uint32_t offset);

// A short frame whose IP datagram or port numbers would continue in the padding. No sender's wire carries one:
// padding it would make up bytes of a datagram that were never sent.
bool ends_inside_datagram(const uint8_t *frame, uint32_t len);

// Cuts a frame that stands for many TCP segments or UDP datagrams into the frames of the wire. Frames are as
// they come from the ring: the outer VLAN tag may be aside, and at most one is in place.
class Segmenter {
public:
    // Bytes of payload a segment; the frame must stay where it is until the last segment was taken. False when
    // the frame is none that can be cut.
    bool start(const uint8_t *frame, uint32_t len, uint32_t segment_payload);

    bool active() const { return payload_at_ < len_; }

    // Length of what comes before the payload, in every segment alike.
    uint32_t headers() const { return headers_; }

    // The next segment, checksums complete, in a buffer that is valid until the next call. Null at the end.
    uint8_t *next(uint32_t *len);

private:
    const uint8_t *frame_ = nullptr;
    uint32_t len_ = 0;
    uint32_t payload_at_ = 0; // what was not handed out yet
    uint32_t segment_payload_ = 0;
    uint32_t l3_ = 0, l4_ = 0, headers_ = 0; // offsets; length of all headers
    uint32_t index_ = 0;
    bool ipv6_ = false, tcp_ = false;
    std::vector<uint8_t> segment_; // with room for a VLAN tag in front
};

} // namespace softnic
