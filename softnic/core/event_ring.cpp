#include "event_ring.h"

#include "crc32.h"
#include "tov_io.h"

#include <algorithm>
#include <cstring>

namespace softnic {
namespace {

constexpr uint32_t kHeader = sizeof(nuv_uevt_ruk_t);
constexpr uint32_t kMaxBatch = 0xFFFF / NUV_UEVT_SLOT * NUV_UEVT_SLOT;
// The part of the last frame that a hardware-order event shows late, and what stands there until then.
constexpr uint32_t kLateBytes = 8;
constexpr uint8_t kNotYet = 0xEE;
// Frames that came further apart do not share an event: it has one time for all.
constexpr uint64_t kTogetherNs = 50000;

constexpr uint32_t whole_slots(uint32_t bytes) { return (bytes + NUV_UEVT_SLOT - 1) / NUV_UEVT_SLOT * NUV_UEVT_SLOT; }

} // namespace

EventRing::EventRing(const Clock &clock, WriterKind kind, unsigned max_packets) : clock_(clock), kind_(kind)
{
    set_max_packets(max_packets);
}

void EventRing::set_max_packets(unsigned n) { max_packets_ = std::clamp(n, 1u, NUV_UEVT_MAX_PKTS); }

void EventRing::attach(uint8_t *base, uint32_t size, oxel_flow_window_t *flow, const uint8_t *doorbell)
{
    base_ = base;
    size_ = size;
    flow_ = flow;
    doorbell_ = doorbell;
    head_ = used_ = consumed_ = 0;
    counters_.ring_bytes = size;
    counters_.high_water = 0;
    last_bad_flow_ = last_bad_doorbell_ = kNoPosition;
    open_packets_ = 0;
    lengths_.clear();
    withheld_.clear();
    for (uint32_t slot = 0; slot < size_; slot += NUV_UEVT_SLOT) {
        tov_st8(base_ + slot + NUV_UEVT_PRESENT, 0);
        tov_st8_rel(base_ + slot + NUV_UEVT_COMPLETE, NUV_UEVT_FREE_BYTE);
    }
}

void EventRing::detach()
{
    base_ = nullptr;
    flow_ = nullptr;
    doorbell_ = nullptr;
    size_ = used_ = 0;
    open_packets_ = 0;
    lengths_.clear();
    withheld_.clear();
}

void EventRing::copy_in(uint32_t at, const uint8_t *data, uint32_t len)
{
    at = wrap(at);
    const uint32_t first = std::min(len, size_ - at);
    memcpy(base_ + at, data, first);
    if (first < len)
        memcpy(base_, data + first, len - first);
}

bool EventRing::fits(uint32_t batch_len)
{
    if (batch_len <= size_ - used_)
        return true;
    poll_consumed();
    return batch_len <= size_ - used_;
}

bool EventRing::append(const uint8_t *frame, uint32_t len, uint16_t tag, bool has_trailer, Now now)
{
    const uint32_t length = has_trailer ? len : len + NUV_UEVT_FCS_LEN;
    if (length > 0xFFFF || whole_slots(kHeader + nuv_uevt_pkt_space(length)) > std::min(kMaxBatch, size_)) {
        counters_.oversize++;
        return false;
    }
    const uint32_t space = nuv_uevt_pkt_space(length);
    const bool apart = now.of_arrival && arrived_ns_ != 0 && now.mono_ns > arrived_ns_ + kTogetherNs;
    if (open_packets_ != 0 &&
        (apart || open_packets_ >= max_packets_ || whole_slots(open_bytes_ + space) > std::min(kMaxBatch, size_)))
        publish(now);
    const uint32_t start = open_packets_ != 0 ? open_bytes_ : kHeader;
    if (!fits(whole_slots(start + space))) {
        counters_.ring_full++;
        return false;
    }

    const uint32_t at = head_ + start + NUV_UEVT_FRAME_OFFSET;
    copy_in(at, frame, len);
    if (!has_trailer) {
        const uint32_t fcs = crc32(frame, len);
        const uint8_t bytes[NUV_UEVT_FCS_LEN] = {static_cast<uint8_t>(fcs), static_cast<uint8_t>(fcs >> 8),
                                                 static_cast<uint8_t>(fcs >> 16), static_cast<uint8_t>(fcs >> 24)};
        copy_in(at + len, bytes, NUV_UEVT_FCS_LEN);
    }
    open_pkts_[open_packets_].length = tov_be16(static_cast<uint16_t>(length));
    open_pkts_[open_packets_].tag = tov_be16(tag);
    open_packets_++;
    arrived_ns_ = now.of_arrival ? now.mono_ns : 0;
    open_bytes_ = start + space;
    last_frame_at_ = at;
    last_frame_len_ = length;
    return true;
}

bool EventRing::publish(Now now)
{
    if (open_packets_ == 0)
        return false;
    const uint32_t batch_len = whole_slots(open_bytes_);
    // An event's time is that of its last frame: the consumer dates the others back from there.
    const uint64_t ticks = clock_.ticks(arrived_ns_ != 0 ? arrived_ns_ : now.mono_ns);
    uint8_t *slot = base_ + head_;
    uint8_t *last_byte = base_ + wrap(head_ + batch_len - 1);

    nuv_uevt_ruk_t header = {};
    header.timestamp_hi = tov_be32(static_cast<uint32_t>(ticks >> 32));
    header.timestamp_lo = tov_be32(static_cast<uint32_t>(ticks));
    memcpy(header.pkts, open_pkts_, open_packets_ * sizeof(open_pkts_[0]));
    header.batch_len = tov_be16(static_cast<uint16_t>(batch_len));
    header.offset = kHeader;

    Withheld late;
    if (kind_ == WriterKind::HardwareOrder) {
        const uint32_t n = std::min(kLateBytes, last_frame_len_);
        late.tail_at = last_frame_at_ + last_frame_len_ - n;
        late.last_byte_at = wrap(head_ + batch_len - 1);
        for (uint32_t i = 0; i < n; i++) {
            uint8_t &byte = base_[wrap(late.tail_at + i)];
            late.tail.push_back(byte);
            byte = kNotYet;
        }
    }

    // Byte 30 says that all of the header stands, so it is the last of the header to change.
    memcpy(slot, &header, NUV_UEVT_PRESENT);
    slot[NUV_UEVT_PRESENT + 1] = header.offset;
    tov_st8_rel(slot + NUV_UEVT_PRESENT, static_cast<uint8_t>(open_packets_));
    if (kind_ == WriterKind::HardwareOrder)
        withheld_.push_back(std::move(late));
    else
        tov_st8_rel(last_byte, 0); // says that the frames stand

    counters_.delivered += open_packets_;
    counters_.events++;
    open_packets_ = 0;
    arrived_ns_ = 0;
    used_ += batch_len;
    counters_.high_water = std::max<uint64_t>(counters_.high_water, used_);
    lengths_.push_back(static_cast<uint16_t>(batch_len));
    head_ = wrap(head_ + batch_len);
    return true;
}

bool EventRing::complete()
{
    if (hold_ || withheld_.empty())
        return false;
    for (const Withheld &late : withheld_) {
        copy_in(late.tail_at, late.tail.data(), static_cast<uint32_t>(late.tail.size()));
        tov_st8_rel(base_ + late.last_byte_at, 0);
    }
    withheld_.clear();
    return true;
}

void EventRing::release(uint32_t events)
{
    consumed_ += events;
    for (; events != 0; events--) {
        used_ -= lengths_.front();
        lengths_.pop_front();
    }
    // An event released before it was complete is the consumer's mistake; its place is no longer ours to write.
    while (withheld_.size() > lengths_.size())
        withheld_.pop_front();
}

uint32_t EventRing::poll_consumed()
{
    if (flow_ == nullptr)
        return 0;
    const uint32_t before = consumed_;
    const auto take = [this](uint32_t position, uint64_t *last_bad, bool may_lag) {
        const uint32_t ahead = position - consumed_;
        if (ahead == 0)
            return;
        if (ahead <= lengths_.size())
            release(ahead);
        else if (!(may_lag && ahead > 0x7FFFFFFFu) && position != *last_bad) {
            *last_bad = position;
            counters_.bad_flow++;
        }
    };
    take(tov_ld32_acq(&flow_->flow_desc), &last_bad_flow_, false);
    // The doorbell is rung once in 64 KiB only and usually lies behind.
    if (doorbell_ != nullptr)
        take(tov_be32(tov_ld32_acq(reinterpret_cast<const uint32_t *>(doorbell_))), &last_bad_doorbell_, true);
    return consumed_ - before;
}

} // namespace softnic
