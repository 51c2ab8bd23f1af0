#include "board.h"

#include "frame_key.h"
#include "tov_io.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace softnic {
namespace {

constexpr uint32_t kEthHeader = 14;
constexpr uint64_t bit(unsigned ep) { return uint64_t{1} << ep; }

BoardConfig checked(BoardConfig config)
{
    config.endpoints = std::clamp(config.endpoints, 1u, kMaxEndpoints);
    return config;
}

} // namespace

Board::Board(const BoardConfig &config, Now power_up) : config_(checked(config)), clock_(config.clock, power_up)
{
    for (unsigned ep = 0; ep < config_.endpoints; ep++)
        endpoints_.push_back(std::make_unique<Endpoint>(clock_, config_));
}

EndpointCounters Board::endpoint_counters(unsigned ep) const
{
    EndpointCounters c = endpoints_[ep]->counters;
    c.ring = endpoints_[ep]->ring.counters();
    c.post_overflow = endpoints_[ep]->post_overflow.load(std::memory_order_relaxed);
    return c;
}

// Frames that wait in an event which nobody will see are lost with the queues.
void Board::drop_filling(Endpoint &e) { e.counters.disabled += e.ring.packets_filling(); }

void Board::enable(unsigned ep, const EndpointMemory &memory)
{
    Endpoint &e = *endpoints_[ep];
    drop_filling(e);
    e.memory = memory;
    memset(memory.flow, 0, sizeof(*memory.flow));
    memset(memory.sram + NUV_DOORBELL_OFFSET, 0, 8);
    memset(memory.zreq, 0, NUV_UREQ_STRIDE * NUV_UREQ_LAST_TYPE);
    e.posted.reset();
    e.counters.completed = 0;
    tov_st16_rel(memory.compcnt, 0);
    e.ring.attach(memory.recvq, memory.recvq_len, &memory.flow->rx_flow, memory.sram + NUV_DOORBELL_OFFSET);
    filling_ &= ~bit(ep);
}

void Board::disable(unsigned ep)
{
    Endpoint &e = *endpoints_[ep];
    drop_filling(e);
    e.ring.detach();
    e.posted.reset();
    e.memory = EndpointMemory{};
    filling_ &= ~bit(ep);
    set_filter_mode(ep, FilterMode::Normal);
}

void Board::set_filter_mode(unsigned ep, FilterMode mode)
{
    endpoints_[ep]->mode = mode;
    raw_ = mode == FilterMode::Raw ? raw_ | bit(ep) : raw_ & ~bit(ep);
    allmulti_ = mode == FilterMode::AllMulti ? allmulti_ | bit(ep) : allmulti_ & ~bit(ep);
}

bool Board::remove_filter(unsigned ep, const SteerKey &key, uint16_t tag, Now now)
{
    if (!filters_.remove(static_cast<uint8_t>(ep), key, tag))
        return false;
    if (filling_ & bit(ep)) {
        endpoints_[ep]->ring.publish(now);
        filling_ &= ~bit(ep);
    }
    return true;
}

void Board::remove_all_filters(unsigned ep, Now now)
{
    filters_.remove_all(static_cast<uint8_t>(ep));
    if (filling_ & bit(ep)) {
        endpoints_[ep]->ring.publish(now);
        filling_ &= ~bit(ep);
    }
}

void Board::deliver(unsigned ep, const uint8_t *frame, uint32_t len, uint16_t tag, Now now)
{
    Endpoint &e = *endpoints_[ep];
    e.counters.steered++;
    if (!e.ring.attached()) {
        e.counters.disabled++;
        return;
    }
    e.ring.append(frame, len, tag, config_.trailer_on_wire, now);
    filling_ = e.ring.filling() ? filling_ | bit(ep) : filling_ & ~bit(ep);
}

void Board::receive(const uint8_t *frame, uint32_t len, Now now)
{
    counters_.arrived++;
    if (len < kEthHeader || len > 0xFFFF - NUV_UEVT_FCS_LEN) {
        counters_.malformed++;
        return;
    }
    uint64_t served = 0;
    SteerKey key;
    // Over the whole frame, a switch's trailer included: as the host looks at it, so that none is lost between them.
    if (parse_frame_key(frame, len, &key)) {
        if (const std::vector<Filter> *list = filters_.find(key)) {
            for (auto f = list->rbegin(); f != list->rend(); ++f) { // newest first: one copy an endpoint
                if (served & bit(f->endpoint))
                    continue;
                served |= bit(f->endpoint);
                deliver(f->endpoint, frame, len, f->tag, now);
            }
        }
    }
    uint64_t by_mode = (raw_ | (is_group_frame(frame) ? allmulti_ : 0)) & ~served;
    served |= by_mode;
    for (; by_mode != 0; by_mode &= by_mode - 1)
        deliver(static_cast<unsigned>(std::countr_zero(by_mode)), frame, len, kNoFilterTag, now);
    if (served != 0)
        counters_.matched++;
    else
        counters_.unmatched++;
}

bool Board::publish(Now now)
{
    const bool any = filling_ != 0;
    for (; filling_ != 0; filling_ &= filling_ - 1)
        endpoints_[static_cast<unsigned>(std::countr_zero(filling_))]->ring.publish(now);
    return any;
}

bool Board::complete_events()
{
    bool any = false;
    for (const auto &e : endpoints_)
        any |= e->ring.complete();
    return any;
}

bool Board::post_request(unsigned ep, const nuv_ureq_t &request)
{
    if (endpoints_[ep]->posted.post(request))
        return true;
    endpoints_[ep]->post_overflow.fetch_add(1, std::memory_order_relaxed);
    return false;
}

unsigned Board::poll_request_window(unsigned ep)
{
    uint8_t *window = endpoints_[ep]->memory.zreq;
    if (window == nullptr)
        return 0;
    unsigned found = 0;
    for (unsigned type = NUV_UREQ_NONE + 1; type < NUV_UREQ_LAST_TYPE; type++) {
        auto *slot = reinterpret_cast<uint32_t *>(window + type * NUV_UREQ_STRIDE);
        nuv_ureq_t request;
        request.words[15] = tov_ld32_acq(slot + 15);
        if (request.bytes[63] == NUV_UREQ_NONE)
            continue;
        for (unsigned i = 0; i < 15; i++)
            request.words[i] = tov_ld32(slot + i);
        tov_st32_rel(slot + 15, 0);
        post_request(ep, request);
        found++;
    }
    return found;
}

bool Board::take_request(unsigned ep, nuv_ureq_t *request, std::vector<uint8_t> *frame, bool *completes)
{
    Endpoint &e = *endpoints_[ep];
    if (!e.posted.take(request))
        return false;
    e.counters.requests++;
    PayloadRegions regions;
    regions.pio = e.memory.sram;
    regions.pio_len = e.memory.sram != nullptr ? NUV_PIO_BYTES : 0;
    regions.dma = e.memory.sendq;
    regions.dma_len = e.memory.sendq_len;
    const RequestResult result = build_frame(*request, regions, frame);
    *completes = result != RequestResult::UnknownType;
    if (result == RequestResult::Frame)
        return true;
    frame->clear();
    if (result == RequestResult::UnknownType)
        e.counters.bad_type++;
    else if (result == RequestResult::BadHeader)
        e.counters.bad_header++;
    else
        e.counters.bad_payload++;
    return true;
}

void Board::complete_requests(unsigned ep, unsigned n)
{
    Endpoint &e = *endpoints_[ep];
    e.counters.completed += n;
    if (e.memory.compcnt != nullptr)
        tov_st16_rel(e.memory.compcnt, tov_be16(static_cast<uint16_t>(e.counters.completed)));
}

bool Board::completions_unreaped(unsigned ep) const
{
    const Endpoint &e = *endpoints_[ep];
    return e.memory.flow != nullptr &&
           static_cast<uint16_t>(tov_ld32_acq(&e.memory.flow->tx_flow.flow_desc)) != completion_count(ep);
}

void Board::count_sent(unsigned ep, bool ok)
{
    EndpointCounters &c = endpoints_[ep]->counters;
    (ok ? c.frames_sent : c.send_errors)++;
}

} // namespace softnic
