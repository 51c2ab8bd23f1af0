// Writer of one endpoint's event ring. The format is that of nuv_events.h.
#pragma once

#include "clock.h"
#include "nuv_events.h"

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

namespace softnic {

enum class WriterKind : uint8_t {
    // Header and frames, then byte 30, then the event's last byte.
    InOrder,
    // As adapters may do: byte 30 becomes visible with the header, before the last frame's last bytes; these and
    // the event's last byte follow on a later step.
    HardwareOrder,
};

struct RingCounters {
    uint64_t delivered = 0; // frames written in published events
    uint64_t events = 0;    // events published
    uint64_t ring_full = 0; // frames dropped for want of room
    uint64_t oversize = 0;  // frames longer than any event or than the ring
    uint64_t bad_flow = 0;  // positions reported by the consumer that cannot be, ignored
    // Of the ring that it has, or had last.
    uint64_t ring_bytes = 0;
    uint64_t high_water = 0; // most bytes of it unconsumed at a time
};

// An event is filled in place: frames are copied behind the header's place as they come, and publish() hands
// the event over. What the consumer has not released is never written to.
class EventRing {
public:
    EventRing(const Clock &clock, WriterKind kind, unsigned max_packets);

    // Takes over a ring (a power of two, at least one slot) with the consumer's flow window and the doorbell
    // word, every slot of which becomes free.
    void attach(uint8_t *base, uint32_t size, oxel_flow_window_t *flow, const uint8_t *doorbell);
    void detach();
    bool attached() const { return base_ != nullptr; }

    // Adds a frame to the event being filled; begins one, or publishes a full one first, as needed. A check
    // sequence is appended unless the frame's last 4 bytes are a trailer already. False when it was dropped.
    bool append(const uint8_t *frame, uint32_t len, uint16_t tag, bool has_trailer, Now now);

    // Hands the event being filled to the consumer. False when there is none.
    bool publish(Now now);

    // Finishes events that were made visible before they were complete, unless they are held. True when any was.
    bool complete();
    void hold_completion(bool hold) { hold_ = hold; }

    // Takes note of what the consumer has released since. Returns the number of events.
    uint32_t poll_consumed();

    // Published events that the consumer has not released, as of the last poll_consumed().
    size_t unconsumed() const { return lengths_.size(); }
    uint32_t unconsumed_bytes() const { return used_; }
    size_t incomplete() const { return withheld_.size(); }
    bool filling() const { return open_packets_ != 0; }
    unsigned packets_filling() const { return open_packets_; }
    uint32_t bytes_free() const { return size_ - used_; }
    const RingCounters &counters() const { return counters_; }
    void set_max_packets(unsigned n);
    void set_kind(WriterKind kind) { kind_ = kind; }

private:
    static constexpr uint64_t kNoPosition = ~uint64_t{0};

    struct Withheld { // the part of an event that is not visible yet
        uint32_t tail_at = 0;
        std::vector<uint8_t> tail;
        uint32_t last_byte_at = 0;
    };

    bool fits(uint32_t batch_len);
    void copy_in(uint32_t at, const uint8_t *data, uint32_t len);
    uint32_t wrap(uint32_t at) const { return at & (size_ - 1); }
    void release(uint32_t events);

    const Clock &clock_;
    WriterKind kind_;
    unsigned max_packets_;
    bool hold_ = false;

    uint8_t *base_ = nullptr;
    uint32_t size_ = 0;
    oxel_flow_window_t *flow_ = nullptr;
    const uint8_t *doorbell_ = nullptr;

    uint32_t head_ = 0;            // where the next event starts
    uint32_t used_ = 0;            // bytes of published, unconsumed events
    std::deque<uint16_t> lengths_; // their lengths, oldest first
    uint32_t consumed_ = 0;        // events released by the consumer, modulo 2^32
    uint64_t last_bad_flow_ = kNoPosition, last_bad_doorbell_ = kNoPosition;

    unsigned open_packets_ = 0;
    uint64_t arrived_ns_ = 0; // of the last frame in the event being filled; 0 = not known
    uint32_t open_bytes_ = 0; // header and packet slots so far
    uint32_t last_frame_at_ = 0, last_frame_len_ = 0;
    nuv_uevt_pkt_t open_pkts_[NUV_UEVT_MAX_PKTS] = {};
    std::deque<Withheld> withheld_;
    RingCounters counters_;
};

} // namespace softnic
