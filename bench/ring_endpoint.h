/*
 * An endpoint over plain memory: a ring, a flow window and a doorbell word that no firmware looks at, one channel
 * whose entry is tag 0, and a writer of events. What is measured on it is the library's own work.
 */
#ifndef RING_ENDPOINT_H
#define RING_ENDPOINT_H

#include "ruk_core.h"

#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

class RingEndpoint {
public:
    static constexpr size_t ring_bytes = 1 << 20;
    static constexpr uint32_t address = 0x0A4D0001, peer = 0x0A4D0002; /* 10.77.0.1 and .2 */
    static constexpr uint16_t port = 5000, peer_port = 40000;

    RingEndpoint() : ring_(static_cast<uint8_t *>(std::aligned_alloc(4096, ring_bytes))), block_(RUK_TAG_BLOCK)
    {
        std::memset(ring_.get(), 0, ring_bytes);
        for (size_t slot = 0; slot < ring_bytes; slot += NUV_UEVT_SLOT)
            _eventq_clear(ring_.get() + slot);

        ep_->rep_state = REP_STATE_OPEN;
        ep_->rep_handle = -1;
        ep_->rep_send_fd = -1;
        ep_->rep_tag_table[0] = block_.data();
        ep_->rep_tag_cnt = 1;
        block_[0].tage_channel = channel_.get();
        block_[0].tage_ip_addr = address;
        block_[0].tage_udp_port = port;
        channel_->ch_rep = ep_.get();
        channel_->ch_fd = -1;

        ruk__eventq &evq = ep_->rep_eventq;
        evq.evq_recvq_base = reinterpret_cast<uintptr_t>(ring_.get());
        evq.evq_recvq_size = ring_bytes;
        evq.evq_recvq_end = evq.evq_recvq_base + ring_bytes;
        evq.evq_recvq_state.evs_uevt_cur = reinterpret_cast<volatile nuv_uevt_ruk_t *>(evq.evq_recvq_base);
        evq.evq_flow = &flow_.rx_flow;
        evq.evq_flow_be64 = &doorbell_;
    }

    ruk_device_t device() { return ep_.get(); }
    ruk_channel_t channel() { return channel_.get(); }

    /* Bytes of an event with `packets` datagrams of `payload` bytes. */
    static size_t event_bytes(unsigned packets, size_t payload)
    {
        size_t bytes = sizeof(nuv_uevt_ruk_t) + packets * nuv_uevt_pkt_space(uint32_t(frame_bytes(payload)));
        return (bytes + 1 + NUV_UEVT_SLOT - 1) / NUV_UEVT_SLOT * NUV_UEVT_SLOT;
    }

    /* Writes an event as the firmware does. The caller leaves room: it knows what it has received. */
    void write_event(unsigned packets, size_t payload)
    {
        const size_t length = frame_bytes(payload);
        const size_t bytes = event_bytes(packets, payload);
        uint8_t header[sizeof(nuv_uevt_ruk_t)] = {};
        for (unsigned i = 0; i < packets; ++i)
            put16(header + 8 + 4 * i, uint16_t(length)); /* tag 0 */
        put16(header + 28, uint16_t(bytes));
        header[31] = sizeof header;

        if (frame_.size() != length)
            make_frame(payload);
        size_t slot = sizeof header;
        for (unsigned i = 0; i < packets; ++i) {
            put(slot + NUV_UEVT_FRAME_OFFSET, frame_.data(), length);
            slot += nuv_uevt_pkt_space(uint32_t(length));
        }
        put(0, header, sizeof header);
        tov_st8_rel(at(NUV_UEVT_PRESENT), uint8_t(packets));
        tov_st8_rel(at(bytes - 1), 0);
        writer_ = (writer_ + bytes) % ring_bytes;
    }

private:
    struct Free {
        void operator()(void *p) const { std::free(p); }
    };
    template <typename T> static std::unique_ptr<T, Free> zeroed()
    {
        return std::unique_ptr<T, Free>(static_cast<T *>(std::calloc(1, sizeof(T))));
    }

    static size_t frame_bytes(size_t payload) { return 14 + 20 + 8 + payload + NUV_UEVT_FCS_LEN; }
    static void put16(uint8_t *to, uint16_t v)
    {
        to[0] = uint8_t(v >> 8);
        to[1] = uint8_t(v);
    }
    static void put32(uint8_t *to, uint32_t v)
    {
        put16(to, uint16_t(v >> 16));
        put16(to + 2, uint16_t(v));
    }

    uint8_t *at(size_t offset) { return ring_.get() + (writer_ + offset) % ring_bytes; }
    void put(size_t offset, const uint8_t *from, size_t bytes)
    {
        size_t first = ring_bytes - (writer_ + offset) % ring_bytes;
        if (first > bytes)
            first = bytes;
        std::memcpy(at(offset), from, first);
        std::memcpy(ring_.get(), from + first, bytes - first);
    }

    void make_frame(size_t payload)
    {
        frame_.assign(frame_bytes(payload), 0);
        uint8_t *f = frame_.data();
        put16(f + 12, RUK_ETHERTYPE_IPV4);
        f[14] = 0x45;
        put16(f + 16, uint16_t(28 + payload));
        f[22] = 64;
        f[23] = RUK_IPPROTO_UDP;
        put32(f + 26, peer);
        put32(f + 30, address);
        put16(f + 34, peer_port);
        put16(f + 36, port);
        put16(f + 38, uint16_t(8 + payload));
        for (size_t i = 0; i < payload; ++i)
            f[42 + i] = uint8_t(i);
    }

    std::unique_ptr<uint8_t, Free> ring_;
    std::unique_ptr<ruk__ep, Free> ep_ = zeroed<ruk__ep>();
    std::unique_ptr<ruk__channel, Free> channel_ = zeroed<ruk__channel>();
    std::vector<ruk__tag_entry> block_;
    oxel_endpt_flow_t flow_ = {};
    uint64_t doorbell_ = 0;
    std::vector<uint8_t> frame_;
    size_t writer_ = 0;
};

#endif
