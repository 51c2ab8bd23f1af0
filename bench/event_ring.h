/*
 * A ring of received events in plain memory, and a writer of events into it, as the firmware writes them.
 */
#ifndef EVENT_RING_H
#define EVENT_RING_H

#include "nuv_events.h"
#include "tov_io.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

namespace bench {

struct Free {
    void operator()(void *p) const { std::free(p); }
};
template <typename T> using Memory = std::unique_ptr<T, Free>;

/* Page-aligned memory, touched. */
inline Memory<uint8_t> pages(size_t bytes)
{
    auto *p = static_cast<uint8_t *>(std::aligned_alloc(4096, bytes));
    if (!p)
        throw std::bad_alloc();
    std::memset(p, 0, bytes);
    return Memory<uint8_t>(p);
}

constexpr uint32_t own_address = 0x0A4D0001, peer_address = 0x0A4D0002; /* 10.77.0.1 and .2 */
constexpr uint16_t own_port = 5000, peer_port = 40000;
constexpr size_t header_bytes = 42; /* Ethernet, IPv4, UDP */

inline void put16(uint8_t *to, uint16_t v)
{
    to[0] = uint8_t(v >> 8);
    to[1] = uint8_t(v);
}
inline void put32(uint8_t *to, uint32_t v)
{
    put16(to, uint16_t(v >> 16));
    put16(to + 2, uint16_t(v));
}

class EventRing {
public:
    explicit EventRing(size_t bytes) : memory_(pages(bytes)), bytes_(bytes)
    {
        for (size_t slot = 0; slot < bytes; slot += NUV_UEVT_SLOT)
            memory_.get()[slot + NUV_UEVT_COMPLETE] = NUV_UEVT_FREE_BYTE;
    }

    uint8_t *base() const { return memory_.get(); }
    size_t bytes() const { return bytes_; }

    /* Bytes of an event with `packets` datagrams of `payload` bytes. */
    static size_t event_bytes(unsigned packets, size_t payload)
    {
        size_t bytes = sizeof(nuv_uevt_ruk_t) + packets * nuv_uevt_pkt_space(uint32_t(frame_bytes(payload)));
        return (bytes + 1 + NUV_UEVT_SLOT - 1) / NUV_UEVT_SLOT * NUV_UEVT_SLOT;
    }

    /* Writes an event of datagrams that count up from 0. The caller leaves room: it knows what it has received. */
    void write_event(unsigned packets, size_t payload, uint16_t tag, uint16_t port)
    {
        if (frame_.size() != frame_bytes(payload))
            make_frame(payload);
        put16(frame_.data() + 36, port);
        write(packets, frame_.data(), frame_.size(), tag);
    }

    /* An event of one datagram: header and payload as they leave a sender, and a check sequence nobody reads. */
    void write_datagram(const uint8_t *header, const uint8_t *payload, size_t payload_bytes, uint16_t tag)
    {
        const size_t length = frame_bytes(payload_bytes);
        const size_t bytes = begin(1, length, tag, event_bytes(1, payload_bytes));
        const size_t frame = sizeof(nuv_uevt_ruk_t) + NUV_UEVT_FRAME_OFFSET;
        put(frame, header, header_bytes);
        put(frame + header_bytes, payload, payload_bytes);
        end(1, bytes);
    }

    /* Out of the processor's caches. */
    void evict() const
    {
        for (size_t line = 0; line < bytes_; line += 64)
            __builtin_ia32_clflush(memory_.get() + line);
        __builtin_ia32_mfence(); /* not every processor orders flushes by another */
    }

private:
    static size_t frame_bytes(size_t payload) { return header_bytes + payload + NUV_UEVT_FCS_LEN; }

    uint8_t *at(size_t offset) const
    {
        const size_t i = writer_ + offset;
        return memory_.get() + (i < bytes_ ? i : i - bytes_);
    }
    void put(size_t offset, const uint8_t *from, size_t bytes) const
    {
        uint8_t *to = at(offset);
        const size_t first = std::min(bytes, size_t(memory_.get() + bytes_ - to));
        std::memcpy(to, from, first);
        if (first < bytes)
            std::memcpy(memory_.get(), from + first, bytes - first);
    }

    void write(unsigned packets, const uint8_t *frame, size_t length, uint16_t tag)
    {
        const size_t bytes =
            begin(packets, length, tag, event_bytes(packets, length - header_bytes - NUV_UEVT_FCS_LEN));
        size_t slot = sizeof(nuv_uevt_ruk_t);
        for (unsigned i = 0; i < packets; ++i) {
            put(slot + NUV_UEVT_FRAME_OFFSET, frame, length);
            slot += nuv_uevt_pkt_space(uint32_t(length));
        }
        end(packets, bytes);
    }

    /* The header but for the byte that says an event is present; returns the event's bytes. */
    size_t begin(unsigned packets, size_t length, uint16_t tag, size_t bytes)
    {
        uint8_t *header = at(0); /* half a slot: in one piece */
        ticks_ += 1000;
        put32(header, uint32_t(ticks_ >> 32));
        put32(header + 4, uint32_t(ticks_));
        for (unsigned i = 0; i < packets; ++i) {
            put32(header + 8 + 4 * i, uint32_t(length) << 16 | tag);
        }
        put16(header + 28, uint16_t(bytes));
        header[31] = sizeof(nuv_uevt_ruk_t);
        return bytes;
    }
    void end(unsigned packets, size_t bytes)
    {
        tov_st8_rel(at(NUV_UEVT_PRESENT), uint8_t(packets));
        tov_st8_rel(at(bytes - 1), 0);
        writer_ += bytes;
        if (writer_ >= bytes_)
            writer_ -= bytes_;
    }

    void make_frame(size_t payload)
    {
        frame_.assign(frame_bytes(payload), 0);
        uint8_t *f = frame_.data();
        put16(f + 12, 0x0800);
        f[14] = 0x45;
        put16(f + 16, uint16_t(28 + payload));
        f[22] = 64;
        f[23] = 17;
        put32(f + 26, peer_address);
        put32(f + 30, own_address);
        put16(f + 34, peer_port);
        put16(f + 38, uint16_t(8 + payload));
        for (size_t i = 0; i < payload; ++i)
            f[header_bytes + i] = uint8_t(i);
    }

    Memory<uint8_t> memory_;
    size_t bytes_;
    size_t writer_ = 0;
    uint64_t ticks_ = 0;
    std::vector<uint8_t> frame_;
};

/* A clock record as a driver publishes it: 2.5 ns a tick and a slight drift. */
inline void publish_clock(kz_kernel_window_t *window)
{
    window->clksync.seqnum = 2;
    window->clksync.clkp = {1'000'000, 1'500'000'000, 4321, 0};
    window->clksync.nticks = {0, ~UINT64_C(0), 1'000'000, 5, 2};
}

} // namespace bench

#endif
