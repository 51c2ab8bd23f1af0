/*
 * An endpoint over plain memory: its regions are the benchmark's, no driver and no firmware stands behind them. What
 * is measured on it is the library's own work.
 */
#ifndef MEMORY_ENDPOINT_H
#define MEMORY_ENDPOINT_H

#include "event_ring.h"
#include "ruk_core.h"

namespace bench {

class MemoryEndpoint {
public:
    static constexpr unsigned records = 64;
    static constexpr size_t dma_bytes = 64 << 10;
    static constexpr unsigned all_tags = RUK_TAG_MAX_BLOCKS * RUK_TAG_BLOCK;

    /* Tags 0 to tags - 1 are bound, each to a port of its own; the last is the channel's. PIO up to `threshold`. */
    explicit MemoryEndpoint(size_t ring_bytes = 256 << 10, unsigned tags = 1, uint32_t threshold = 1472)
        : ring(ring_bytes), entries_(tags), tags_(tags)
    {
        ruk__api_version = RUK_API_VERSION; /* as after ruk_init(), which wants a driver */
        ep_->rep_state = REP_STATE_OPEN;
        ep_->rep_handle = -1;
        ep_->rep_send_fd = -1;
        ep_->rep_mif = &interface_;
        for (size_t i = 0; i < 6; ++i)
            interface_.tov_ifa_macaddr[i] = uint8_t(0x10 + i);
        set_up_tags();
        set_up_receive();
        set_up_send(threshold);
    }
    ~MemoryEndpoint() { tov_mpool_fini(ep_->rep_sreq_pool); }
    MemoryEndpoint(const MemoryEndpoint &) = delete;
    MemoryEndpoint &operator=(const MemoryEndpoint &) = delete;

    ruk_device_t device() { return ep_.get(); }
    ruk_channel_t channel() { return channel_.get(); }
    uint16_t tag() const { return uint16_t(tags_ - 1); }
    uint16_t port() const { return uint16_t(own_port + tag()); }

    void date_by_adapter_clock()
    {
        publish_clock(&window_);
        ep_->rep_nticks = window_.clksync.nticks;
        ep_->rep_timestamping_enabled = 1;
    }

    /* The destination of all sends. */
    static sockaddr_in destination()
    {
        sockaddr_in sin = {};
        sin.sin_family = AF_INET;
        sin.sin_port = tov_be16(peer_port);
        sin.sin_addr.s_addr = tov_be32(peer_address);
        return sin;
    }
    ruk_send_t connected() { return &connected_; }

    /* The adapter's side of sending: everything posted so far is done. */
    void complete(uint16_t count) { tov_st16_rel(&completions_, tov_be16(count)); }
    const nuv_ureq_t *slot(unsigned type) const
    {
        return reinterpret_cast<const nuv_ureq_t *>(requests_.get() + type * NUV_UREQ_STRIDE);
    }
    nuv_ureq_t *slot(unsigned type) { return reinterpret_cast<nuv_ureq_t *>(requests_.get() + type * NUV_UREQ_STRIDE); }
    const uint8_t *pio() const { return sram_.get(); }

    EventRing ring;

private:
    template <typename T> static Memory<T> zeroed() { return Memory<T>(static_cast<T *>(std::calloc(1, sizeof(T)))); }

    void set_up_tags()
    {
        const unsigned blocks = (tags_ + RUK_TAG_BLOCK - 1) / RUK_TAG_BLOCK;
        entries_.resize(blocks * RUK_TAG_BLOCK);
        for (unsigned tag = 0; tag < tags_; ++tag) {
            ruk__tag_entry &entry = entries_[tag];
            entry.tage_nuv_tag = uint16_t(tag);
            entry.tage_channel = channel_.get();
            entry.tage_ip_addr = own_address;
            entry.tage_udp_port = uint16_t(own_port + tag);
        }
        for (unsigned b = 0; b < blocks; ++b)
            ep_->rep_tag_table[b] = &entries_[b * RUK_TAG_BLOCK];
        ep_->rep_tag_cnt = int(blocks);
        channel_->ch_rep = ep_.get();
        channel_->ch_fd = -1;
        channel_->ch_mif = &interface_;
        channel_->ch_ipaddr_be32 = tov_be32(own_address);
        channel_->ch_port_be16 = tov_be16(port());
    }

    void set_up_receive()
    {
        ruk__eventq &evq = ep_->rep_eventq;
        evq.evq_recvq_base = reinterpret_cast<uintptr_t>(ring.base());
        evq.evq_recvq_size = ring.bytes();
        evq.evq_recvq_end = evq.evq_recvq_base + ring.bytes();
        evq.evq_recvq_state.evs_uevt_cur = reinterpret_cast<volatile nuv_uevt_ruk_t *>(evq.evq_recvq_base);
        evq.evq_flow = &flow_.rx_flow;
        evq.evq_flow_be64 = reinterpret_cast<uint64_t *>(sram_.get() + NUV_DOORBELL_OFFSET);
        ep_->rep_kwindow = &window_;
    }

    void set_up_send(uint32_t threshold)
    {
        ep_->rep_dmasend_threshold = threshold;
        if (tov_mpool_init(reinterpret_cast<char *>(requests_in_flight_), sizeof requests_in_flight_,
                           sizeof(ruk__request), &ep_->rep_sreq_pool) != 0)
            throw std::bad_alloc();
        STAILQ_INIT(&ep_->rep_sreq_inflightq);
        ep_->rep_pioreq.compl_done = &completions_;
        ep_->rep_pioreq.tx_flow = &flow_.tx_flow;
        ep_->rep_pioreq.pio_req_db = reinterpret_cast<nuv_ureq_t *>(requests_.get());
        sendbuf_init(&ep_->rep_pioreq.pio_sb, reinterpret_cast<uintptr_t>(sram_.get()), NUV_PIO_BYTES);
        sendbuf_init(&ep_->rep_dmabuf, reinterpret_cast<uintptr_t>(dma_.get()), uint32_t(dma_bytes));

        const sockaddr_in sin = destination();
        ruk__peer_addr peer = {};
        peer.pa_ip_addr_be32 = sin.sin_addr.s_addr;
        for (size_t i = 0; i < 6; ++i)
            peer.pa_eth_dest[i] = uint8_t(0x20 + i);
        ruk__sendhandle_init(&connected_, channel_.get(), &peer, &sin, 0, RUK_IPPROTO_UDP);
        ruk__sendhandle_init(&kept_, channel_.get(), &peer, &sin, 0, RUK_IPPROTO_UDP);

        /* The one that the channel keeps, in its bucket: the sum of the bytes of port and address. */
        int bucket = 0;
        for (uint32_t v : {uint32_t(peer_port), peer_address})
            for (; v; v >>= 8)
                bucket += int(v & 0xff);
        kept_.dhs_hashval = bucket % RUK_SEND_BUCKETS;
        for (auto &queue : channel_->ch_sendhandleq)
            TAILQ_INIT(&queue);
        TAILQ_INSERT_TAIL(&channel_->ch_sendhandleq[kept_.dhs_hashval], &kept_, dhs_link);
    }

    Memory<ruk__ep> ep_ = zeroed<ruk__ep>();
    Memory<ruk__channel> channel_ = zeroed<ruk__channel>();
    std::vector<ruk__tag_entry> entries_;
    unsigned tags_;
    tov_ifaddrs interface_ = {};
    oxel_endpt_flow_t flow_ = {};
    kz_kernel_window_t window_ = {};
    Memory<uint8_t> sram_ = pages(16 << 10), requests_ = pages(4096), dma_ = pages(dma_bytes);
    alignas(128) uint16_t completions_ = 0;
    alignas(128) ruk__request requests_in_flight_[records] = {}; /* off the line that the adapter's side writes */
    ruk__send connected_ = {}, kept_ = {};
};

} // namespace bench

#endif
