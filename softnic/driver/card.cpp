#include "card.h"

#include "sys.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <new>

namespace softnic {
namespace {

// Where each region lies in the device file, as mmap() sees it.
constexpr uint32_t kRegionStride = kMaxRecvq;
constexpr uint32_t kRecvqOffset = 1 * kRegionStride;
constexpr uint32_t kSendqOffset = 2 * kRegionStride;
constexpr uint32_t kSramOffset = 3 * kRegionStride;
constexpr uint32_t kZreqOffset = 4 * kRegionStride;
constexpr uint32_t kWindowOffset = 5 * kRegionStride;
constexpr uint32_t kFlowOffset = 6 * kRegionStride;
constexpr uint32_t kCompcntOffset = 7 * kRegionStride;

// The unmasked clock record loses its point when the reference grows old; once in this time is plenty.
constexpr uint64_t kClockPeriod = 100000000;

// Frames taken from the port at most when a filter goes.
constexpr unsigned kDrainFrames = 4096;

uint32_t ring_bytes(uint64_t wanted, uint32_t at_least, uint32_t at_most)
{
    return static_cast<uint32_t>(std::bit_ceil(std::clamp<uint64_t>(wanted, at_least, at_most)));
}

SteerKey key_of(const oxel_rx_filter_t &filter)
{
    static constexpr uint8_t kProto[] = {17, 6, 253};
    SteerKey key;
    key.ip_addr = filter.ip_addr;
    key.proto = kProto[filter.tcp];
    key.vlan = filter.vlan & 0x0FFF; // the priority bits are not matched
    key.port = filter.tcp == OXEL_FILTER_IP253 ? 0 : filter.port;
    return key;
}

} // namespace

Card::Card(const CardConfig &config, Port &port, Runner &runner)
    : config_(config), port_(&port), runner_(&runner), board_(config.board, runner.now()), claims_(board_.endpoints())
{
    config_.recvq_size = ring_bytes(config.recvq_size, kMinRecvq, kMaxRecvq);
    config_.sendq_size = ring_bytes(config.sendq_size, kPage, kMaxRecvq);
    for (Claim &claim : claims_)
        claim.recvq_size = config_.recvq_size;
}

Card::~Card()
{
    if (promiscuous_)
        port_->set_promiscuous(false);
    for (const SteerKey &key : steered_)
        port_->steer(key, false);
}

int Card::power_up()
{
    if (int rc = window_.create("oxel-window", kPage, true))
        return rc;
    if (int rc = compcnt_.create("oxel-compcnt", kPage, true))
        return rc;
    publish_clock();
    return 0;
}

kz_kernel_window_t *Card::kernel_window() const { return reinterpret_cast<kz_kernel_window_t *>(window_.data()); }

void Card::publish_clock()
{
    const Now now = runner_->now();
    board_.clock().publish(kernel_window(), now);
    clock_published_ = now.mono_ns;
}

void Card::restart_in_child()
{
    // Both may have been in use by a thread that the child does not have.
    new (&lock_) CardLock;
    new (&progress_) std::condition_variable_any;
    for (unsigned ep = 0; ep < claims_.size(); ep++) {
        Claim &claim = claims_[ep];
        for (Region *region : {&claim.recvq, &claim.sendq, &claim.sram, &claim.zreq, &claim.flow})
            region->forget();
        (void)claim.source.release();
        windows_[ep].store(0);
        (void)claim.watch.release(); // descriptors and protected pages are the parent's
        claim = Claim{};
        claim.recvq_size = config_.recvq_size;
        board_.filters().remove_all(static_cast<uint8_t>(ep));
        board_.disable(ep);
    }
    for (const SteerKey &key : steered_)
        port_->steer(key, false);
    steered_.clear();
    follow_modes();
    raws_.clear();
    window_.forget();
    compcnt_.forget();
    power_up();
}

// ---------------------------------------------------------------- claims

int Card::require_ruk(const Handle &handle) const { return handle.kind == HandleKind::Ruk ? 0 : EINVAL; }

// Whoever claims the endpoint next has not asked for this handle.
bool Card::serves_its_claim(const Handle &soft) const
{
    return soft.kind == HandleKind::Soft && claims_[soft.endpoint].owner != nullptr &&
           claims_[soft.endpoint].number == soft.claim;
}

int Card::claim(Handle &handle, int32_t endpoint, uint32_t type)
{
    if (endpoint < 0 || static_cast<unsigned>(endpoint) >= claims_.size())
        return EINVAL;
    if (handle.kind != HandleKind::Plain)
        return EINVAL;
    Claim &claim = claims_[static_cast<unsigned>(endpoint)];
    if (type == OXEL_ES_RUK_SOFT) {
        if (claim.owner == nullptr)
            return EINVAL;
        handle.kind = HandleKind::Soft;
        handle.endpoint = static_cast<unsigned>(endpoint);
        handle.claim = claim.number;
        return 0;
    }
    if (type != OXEL_ES_RUK)
        return EINVAL;
    if (claim.owner != nullptr && !claim.owner->device.alive())
        release(*claim.owner); // its descriptor was closed where nobody told the driver
    if (claim.owner != nullptr)
        return EBUSY;
    claim.owner = &handle;
    claim.number = ++claims_made_;
    claim.recvq_size = config_.recvq_size;
    claim.send = config_.send_setup
                     ? config_.send_setup(endpoint_name(static_cast<unsigned>(endpoint)).c_str())
                     : SendSetup{nullptr, config_.sendq_size, config_.dmasend_threshold, config_.threshold_fixed};
    claim.send.sendq_size = ring_bytes(claim.send.sendq_size, kPage, kMaxRecvq);
    claim.threshold = claim.send.dmasend_threshold;
    claim.mode = FilterMode::Normal;
    handle.kind = HandleKind::Ruk;
    handle.endpoint = static_cast<unsigned>(endpoint);
    return 0;
}

int Card::attach_soft(Handle &handle, Handle &soft)
{
    if (!serves_its_claim(soft) || (&handle != &soft && require_ruk(handle) != 0))
        return EINVAL;
    if (handle.endpoint != soft.endpoint)
        return EINVAL;
    if (soft.attached)
        return EBUSY;
    soft.attached = true;
    return 0;
}

int Card::post_soft(const Handle &soft) const { return serves_its_claim(soft) && soft.attached ? 0 : EINVAL; }

int Card::raw_open(Handle &handle)
{
    if (handle.kind != HandleKind::Plain)
        return EINVAL;
    handle.kind = HandleKind::Raw;
    raws_.push_back(&handle);
    return 0;
}

void Card::release(Handle &handle)
{
    handle.closed = true;
    if (handle.kind == HandleKind::Raw)
        std::erase(raws_, &handle);
    if (handle.kind == HandleKind::Ruk && claims_[handle.endpoint].owner == &handle) {
        const unsigned ep = handle.endpoint;
        Claim &claim = claims_[ep];
        if (claim.enabled) {
            if (!config_.manual_sends) // what was posted before the close still leaves
                while (gather_requests(ep), send_one(ep)) {
                }
            drop_watches(ep);
        }
        // The host gets its frames back before the adapter stops delivering them.
        const std::vector<SteerKey> keys = board_.filters().keys_of(static_cast<uint8_t>(ep));
        const auto of_this = [ep](const Filter &filter) { return filter.endpoint == ep; };
        for (const SteerKey &key : keys)
            if (std::ranges::all_of(*board_.filters().find(key), of_this))
                give_back(key);
        board_.remove_all_filters(ep, runner_->now());
        for (const SteerKey &key : keys)
            steer_for(key, nullptr);
        board_.disable(ep);
        follow_modes();
        claim = Claim{};
        claim.recvq_size = config_.recvq_size;
    }
    handle.kind = HandleKind::Plain;
    runner_->kick(*this);
    progress_.notify_all();
}

int Card::enable(Handle &handle)
{
    if (int rc = require_ruk(handle))
        return rc;
    const unsigned ep = handle.endpoint;
    Claim &claim = claims_[ep];
    const auto make = [](Region &region, const char *name, size_t size) {
        return region.size() == size ? 0 : region.create(name, size);
    };
    if (claim.enabled) {
        drop_watches(ep); // of an earlier enable whose mapping was given up
        board_.disable(ep);
        claim.enabled = false;
    }
    int rc = make(claim.recvq, "oxel-recvq", claim.recvq_size);
    if (rc == 0)
        rc = make(claim.sendq, "oxel-sendq", claim.send.sendq_size);
    if (rc == 0)
        rc = make(claim.sram, "oxel-sram", kSramBytes);
    if (rc == 0)
        rc = make(claim.zreq, "oxel-zreq", kRequestWindowBytes);
    if (rc == 0)
        rc = make(claim.flow, "oxel-flow", kPage);
    if (rc != 0)
        return rc;
    claim.enabled = true;
    claim.taken = 0;
    board_.enable(ep, memory(ep));
    board_.set_filter_mode(ep, claim.mode);
    follow_modes();
    publish_clock();
    runner_->kick(*this);
    return 0;
}

EndpointMemory Card::memory(unsigned ep) const
{
    const Claim &claim = claims_[ep];
    EndpointMemory m;
    m.recvq = claim.recvq.data();
    m.recvq_len = static_cast<uint32_t>(claim.recvq.size());
    m.sendq = claim.sendq.data();
    m.sendq_len = static_cast<uint32_t>(claim.sendq.size());
    m.sram = claim.sram.data();
    m.zreq = claim.zreq.data();
    m.flow = reinterpret_cast<oxel_endpt_flow_t *>(claim.flow.data());
    m.compcnt = reinterpret_cast<uint16_t *>(compcnt_.data()) + ep;
    return m;
}

int Card::get_params(const Handle &handle, oxel_ruk_params_t *params) const
{
    if (int rc = require_ruk(handle))
        return rc;
    const Claim &claim = claims_[handle.endpoint];
    params->dmasend_threshold = claim.threshold;
    params->recvq_size = claim.recvq_size;
    params->recvq_filter_mode = static_cast<uint32_t>(claim.mode);
    params->reserved_0 = 0;
    return 0;
}

int Card::set_params(Handle &handle, const oxel_ruk_params_t &params)
{
    if (int rc = require_ruk(handle))
        return rc;
    if (params.recvq_filter_mode > static_cast<uint32_t>(FilterMode::Raw) || params.dmasend_threshold > NUV_PIO_BYTES)
        return EINVAL;
    Claim &claim = claims_[handle.endpoint];
    // A size of 0 asks for none in particular. The queue of an endpoint that runs stays as it is.
    if (!claim.enabled && params.recvq_size != 0) {
        if (params.recvq_size > kMaxRecvq)
            return EINVAL;
        claim.recvq_size = ring_bytes(params.recvq_size, kMinRecvq, kMaxRecvq);
    }
    if (!claim.send.threshold_fixed)
        claim.threshold = params.dmasend_threshold;
    return set_filter_mode(handle, params.recvq_filter_mode);
}

int Card::set_filter_mode(Handle &handle, uint32_t mode)
{
    if (int rc = require_ruk(handle))
        return rc;
    if (mode > static_cast<uint32_t>(FilterMode::Raw))
        return EINVAL;
    Claim &claim = claims_[handle.endpoint];
    claim.mode = static_cast<FilterMode>(mode);
    if (claim.enabled)
        board_.set_filter_mode(handle.endpoint, claim.mode);
    follow_modes();
    return 0;
}

// Frames to other stations reach the card while some endpoint asks for them. A host that refuses leaves that endpoint
// with what does arrive.
void Card::follow_modes()
{
    if (board_.takes_all() != promiscuous_ && port_->set_promiscuous(!promiscuous_) == 0)
        promiscuous_ = !promiscuous_;
    if (board_.takes_unfiltered())
        port_->listen();
}

// Brings the host's side of a key in line with the filters. *took tells whether the host gave its frames up now.
int Card::steer_for(const SteerKey &key, bool *took)
{
    const auto at = std::ranges::lower_bound(steered_, key);
    const bool is = at != steered_.end() && *at == key;
    const bool wanted = board_.filters().takes_from_host(key);
    if (took != nullptr)
        *took = false;
    if (is == wanted)
        return 0;
    const int rc = port_->steer(key, wanted);
    if (!wanted)
        steered_.erase(at);
    else if (rc == 0)
        steered_.insert(at, key);
    if (took != nullptr)
        *took = wanted && rc == 0;
    return rc;
}

// The host has the frames of this key again, whatever filters there are.
void Card::give_back(const SteerKey &key)
{
    const auto at = std::ranges::lower_bound(steered_, key);
    if (at == steered_.end() || *at != key)
        return;
    port_->steer(key, false);
    steered_.erase(at);
}

int Card::rx_filter(Handle &handle, const oxel_rx_filter_t &filter)
{
    if (int rc = require_ruk(handle))
        return rc;
    if (filter.tcp > OXEL_FILTER_IP253)
        return EINVAL;
    const unsigned ep = handle.endpoint;
    const SteerKey key = key_of(filter);
    FilterTable &filters = board_.filters();
    if (filter.remove == 0) {
        if (filters.count(static_cast<uint8_t>(ep)) >= kMaxFiltersPerEndpoint)
            return ENOSPC;
        // The adapter delivers before the host stops: a frame in between is seen twice, not lost.
        const bool known = filters.contains(static_cast<uint8_t>(ep), key, filter.tag);
        filters.install(static_cast<uint8_t>(ep), key, filter.tag, filter.kernel != 0);
        const int rc = steer_for(key, nullptr);
        if (rc != 0 && !known)
            board_.remove_filter(ep, key, filter.tag, runner_->now());
        return rc;
    }
    if (!filters.contains(static_cast<uint8_t>(ep), key, filter.tag))
        return ENOENT;
    // And the host gets its frames back before the adapter stops.
    if (filters.find(key)->size() == 1)
        give_back(key);
    Now now = runner_->now();
    if (config_.drain_before_removal)
        receive_frames(kDrainFrames, &now);
    board_.remove_filter(ep, key, filter.tag, now);
    board_.publish(now);
    watch_rings_ = true;
    update_readable();
    steer_for(key, nullptr); // the filters that are left may ask for something else
    return 0;
}

// ---------------------------------------------------------------- regions

std::vector<Card::MapEntry> Card::map_entries(const Claim &claim) const
{
    const auto whole = [](uint32_t offset, const Region &region) {
        return MapEntry{offset, static_cast<uint32_t>(region.size()), &region, false, false, false};
    };
    std::vector<MapEntry> entries = {whole(kRecvqOffset, claim.recvq), whole(kSendqOffset, claim.sendq),
                                     whole(kSramOffset, claim.sram),   whole(kZreqOffset, claim.zreq),
                                     whole(kWindowOffset, window_),    whole(kFlowOffset, claim.flow),
                                     whole(kCompcntOffset, compcnt_)};
    entries[3].requests = true;
    entries[4].read_only = entries[6].read_only = true;
    entries[5].flow = true;
    return entries;
}

int Card::copyblock(const Handle &handle, kz_get_copyblock_t *block) const
{
    if (int rc = require_ruk(handle))
        return rc;
    const Claim &claim = claims_[handle.endpoint];
    if (!claim.enabled)
        return EINVAL;
    *block = kz_get_copyblock_t{};
    block->sendq_offset = kSendqOffset;
    block->sendq_len = static_cast<uint32_t>(claim.sendq.size());
    block->recvq_offset = kRecvqOffset;
    block->recvq_len = static_cast<uint32_t>(claim.recvq.size());
    block->user_mmapped_sram_offset = kSramOffset;
    block->user_mmapped_sram_len = kSramBytes;
    block->user_mmapped_zreq_offset = kZreqOffset;
    block->user_mmapped_zreq_len = kRequestWindowBytes;
    block->kernel_window_offset = kWindowOffset;
    block->kernel_window_len = kPage;
    block->flow_window_offset = kFlowOffset;
    block->flow_window_len = kPage;
    block->send_compcnt_offset = kCompcntOffset;
    block->send_compcnt_len = kPage;
    return 0;
}

bool Card::keeps(const void *addr, size_t len) const
{
    const auto *from = static_cast<const uint8_t *>(addr);
    const auto in = [=](const Region &region) {
        return region.data() != nullptr && from >= region.data() && from + len <= region.data() + region.size();
    };
    return in(window_) || in(compcnt_) || std::any_of(claims_.begin(), claims_.end(), [&](const Claim &c) {
               return in(c.recvq) || in(c.sendq) || in(c.sram) || in(c.zreq) || in(c.flow);
           });
}

bool Card::window_in(const void *addr, size_t len) const
{
    const uintptr_t from = reinterpret_cast<uintptr_t>(addr);
    return std::any_of(windows_.begin(), windows_.end(), [=](const auto &window) {
        const uintptr_t at = window.load(std::memory_order_relaxed);
        return at != 0 && at < from + len && from < at + kRequestWindowBytes;
    });
}

// Whatever comes to lie there next is not the window.
void Card::unmapping(const void *addr, size_t len)
{
    const uintptr_t from = reinterpret_cast<uintptr_t>(addr);
    for (unsigned ep = 0; ep < claims_.size(); ep++) {
        const uintptr_t at = windows_[ep].load();
        if (at == 0 || at >= from + len || from >= at + kRequestWindowBytes)
            continue;
        windows_[ep].store(0);
        if (claims_[ep].source)
            claims_[ep].source->detach();
    }
}

void *Card::map(Handle &handle, void *addr, size_t len, int prot, int flags, uint64_t offset)
{
    const auto fail = [](int error) {
        errno = error;
        return MAP_FAILED;
    };
    if (require_ruk(handle) != 0 || !claims_[handle.endpoint].enabled)
        return fail(EINVAL);
    const int type = flags & MAP_TYPE;
    if (len == 0 || (type != MAP_SHARED && type != MAP_SHARED_VALIDATE) || (flags & MAP_ANONYMOUS) != 0)
        return fail(EINVAL);
    if ((prot & PROT_EXEC) != 0)
        return fail(EACCES);
    const bool fixed = (flags & MAP_FIXED) != 0;
    if (fixed && config_.one_address)
        return fail(EINVAL);
    if (fixed && reinterpret_cast<uintptr_t>(addr) % kPage != 0)
        return fail(EINVAL);
    Claim &claim = claims_[handle.endpoint];
    for (const MapEntry &entry : map_entries(claim)) {
        if (offset < entry.offset || offset >= entry.offset + entry.len || offset % kPage != 0)
            continue;
        const uint64_t within = offset - entry.offset;
        if (len > entry.len - within)
            return fail(EINVAL);
        if (entry.read_only && (prot & PROT_WRITE) != 0)
            return fail(EACCES);
        const size_t whole_pages = (len + kPage - 1) / kPage * kPage;
        void *at = config_.one_address ? entry.region->data() + within
                                       : entry.region->view(addr, fixed, static_cast<size_t>(within), whole_pages, prot,
                                                            entry.read_only);
        const MakeRequestSource &make_source = config_.send_setup ? claim.send.make_source : config_.make_source;
        if (at != MAP_FAILED && entry.requests && make_source) {
            drop_source(handle.endpoint); // a further mapping of the window: the latest is the one that posts
            claim.source = make_source(at, claim.zreq.data(), whole_pages, endpoint_name(handle.endpoint).c_str());
            windows_[handle.endpoint].store(reinterpret_cast<uintptr_t>(at));
            runner_->kick(*this);
        }
        if (at != MAP_FAILED && entry.flow && config_.watch_consumers) {
            claim.watch = std::make_unique<ConsumerWatch>();
            if (!claim.watch->watch(at, whole_pages))
                claim.watch.reset();
        }
        return at;
    }
    return fail(EINVAL);
}

// ---------------------------------------------------------------- sending

void Card::drop_watches(unsigned ep)
{
    Claim &claim = claims_[ep];
    windows_[ep].store(0);
    claim.watch.reset();
    drop_source(ep);
}

void Card::drop_source(unsigned ep)
{
    lost_requests_[ep] = lost_requests(ep);
    claims_[ep].source.reset();
}

uint64_t Card::lost_requests(unsigned ep) const
{
    const Claim &claim = claims_[ep];
    return lost_requests_[ep] + (claim.source ? claim.source->lost() : 0);
}

void Card::gather_requests(unsigned ep)
{
    Claim &claim = claims_[ep];
    nuv_ureq_t request;
    if (!claim.source) {
        board_.poll_request_window(ep);
        return;
    }
    while (claim.source->pop(&request))
        board_.post_request(ep, request);
}

bool Card::post_request(unsigned ep, const nuv_ureq_t &request) { return board_.post_request(ep, request); }

unsigned Card::posted_requests(unsigned ep)
{
    if (!claims_[ep].enabled)
        return 0;
    gather_requests(ep);
    return board_.requests_waiting(ep);
}

// Takes one request to the wire without reporting it. False when none waits.
bool Card::send_one(unsigned ep)
{
    Claim &claim = claims_[ep];
    nuv_ureq_t request;
    bool completes = false;
    if (!board_.take_request(ep, &request, &frame_, &completes))
        return false;
    if (on_request)
        on_request(ep, request);
    if (!frame_.empty())
        board_.count_sent(ep, port_->send(frame_.data(), frame_.size()) == 0);
    if (completes) {
        if (config_.manual_sends)
            claim.taken++;
        else
            board_.complete_requests(ep, 1);
    }
    return true;
}

unsigned Card::take_requests(unsigned ep, unsigned max)
{
    unsigned n = 0;
    if (claims_[ep].enabled)
        for (gather_requests(ep); n < max && send_one(ep); n++) {
        }
    return n;
}

unsigned Card::complete_requests(unsigned ep, unsigned max)
{
    Claim &claim = claims_[ep];
    const unsigned n = std::min(max, claim.taken);
    claim.taken -= n;
    if (n != 0) {
        board_.complete_requests(ep, n);
        progress_.notify_all();
    }
    return n;
}

unsigned Card::serve_requests(unsigned max)
{
    unsigned n = 0;
    if (config_.manual_sends)
        return 0;
    for (unsigned ep = 0; ep < claims_.size(); ep++) {
        if (!claims_[ep].enabled)
            continue;
        gather_requests(ep);
        unsigned mine = 0;
        while (mine < max && send_one(ep))
            mine++;
        if (mine != 0 && claims_[ep].owner->waiters != 0)
            progress_.notify_all();
        n += mine;
    }
    return n;
}

int Card::wait_send(std::unique_lock<CardLock> &lock, Handle &handle, int32_t timeout_ms)
{
    if (int rc = require_ruk(handle))
        return rc;
    const unsigned ep = handle.endpoint;
    if (!claims_[ep].enabled || timeout_ms < -1)
        return EINVAL;
    const auto done = [&] { return handle.closed || board_.completions_unreaped(ep); };
    if (!done() && timeout_ms == 0)
        return 0;
    handle.waiters++;
    runner_->kick(*this);
    int rc = done() ? 0 : runner_->wait(*this, lock, done, timeout_ms);
    handle.waiters--;
    if (handle.closed)
        return EBADF;
    return rc == ETIMEDOUT ? 0 : rc; // a wait that ran out is not an error
}

// ---------------------------------------------------------------- raw endpoints

int Card::raw_send(Handle &handle, const oxel_raw_send_t &send)
{
    if (handle.kind != HandleKind::Raw)
        return EINVAL;
    if (send.physical_port >= kRawPorts || send.data_length < 14)
        return EINVAL;
    if (send.route_length != 0 && send.route_pointer == 0)
        return EFAULT;
    if (handle.raw_pending >= kRawMaxPending)
        return EBUSY;
    std::vector<uint8_t> frame(send.data_length);
    if (int rc = sys::copy_in(frame.data(), send.data_pointer, frame.size()))
        return rc;
    if (int rc = port_->send(frame.data(), frame.size()))
        return rc;
    Handle::RawEvent event;
    event.kind = kRawEventSent;
    event.context = send.context;
    event.ticks = board_.clock().ticks(runner_->now().mono_ns);
    handle.raw_events.push_back(std::move(event));
    handle.raw_pending++;
    handle.device.set_readable(true);
    progress_.notify_all();
    return 0;
}

int Card::raw_next_event(std::unique_lock<CardLock> &lock, Handle &handle, oxel_raw_next_event_t *out)
{
    if (handle.kind != HandleKind::Raw)
        return EINVAL;
    if (handle.raw_events.empty()) {
        handle.waiters++;
        const auto done = [&] { return handle.closed || !handle.raw_events.empty(); };
        const int limit = static_cast<int>(std::min<uint32_t>(out->timeout, INT32_MAX));
        const int rc = runner_->wait(*this, lock, done, limit);
        handle.waiters--;
        if (handle.closed)
            return EBADF;
        if (rc != 0)
            return rc;
    }
    const Handle::RawEvent &event = handle.raw_events.front();
    uint32_t bytes = 0;
    if (event.kind == kRawEventReceived) {
        bytes = static_cast<uint32_t>(std::min<size_t>(event.frame.size(), out->recv_bytes));
        if (bytes != 0)
            if (int rc = sys::copy_out(out->recv_buffer, event.frame.data(), bytes))
                return rc;
        handle.raw_frames--;
    } else {
        handle.raw_pending--;
    }
    out->context = event.context;
    out->nic_ticks = event.ticks;
    out->incoming_port = 0;
    out->recv_bytes = bytes;
    out->status = event.kind;
    handle.raw_events.pop_front();
    handle.device.set_readable(!handle.raw_events.empty());
    return 0;
}

void Card::raw_deliver(const RxFrame &frame, Now now)
{
    for (Handle *handle : raws_) {
        if (handle->raw_frames >= kRawMaxFrames) {
            raw_dropped_++;
            continue;
        }
        Handle::RawEvent event;
        event.kind = kRawEventReceived;
        event.ticks = board_.clock().ticks(now.mono_ns);
        event.frame.assign(frame.data, frame.data + frame.len);
        handle->raw_events.push_back(std::move(event));
        handle->raw_frames++;
        handle->device.set_readable(true);
    }
    progress_.notify_all();
}

// ---------------------------------------------------------------- firmware

// When a frame came in, which is earlier than it is looked at when the firmware was busy or kept waiting.
static Now arrival(const RxFrame &frame, Now now, int64_t most)
{
    const auto age = static_cast<int64_t>(now.real_ns - frame.arrival_ns);
    if (frame.arrival_ns == 0 || age > most || age < -most)
        return now;
    return Now{now.mono_ns - static_cast<uint64_t>(age), frame.arrival_ns, true};
}

unsigned Card::receive_frames(unsigned max, Now *now)
{
    const auto longest = static_cast<int64_t>(std::min(runner_->longest_wait(), board_.clock().reach()));
    unsigned n = 0;
    RxFrame frame;
    for (; n < max && port_->receive(&frame); n++) {
        if (n == 0)
            *now = runner_->now();
        const Now at = arrival(frame, *now, longest);
        board_.receive(frame.data, frame.len, at);
        if (!raws_.empty())
            raw_deliver(frame, at);
    }
    return n;
}

bool Card::update_readable()
{
    if (!watch_rings_)
        return false;
    bool unconsumed = false;
    const uint64_t now = runner_->now().mono_ns;
    for (Claim &claim : claims_) {
        if (!claim.enabled)
            continue;
        EventRing &ring = board_.ring(claim.owner->endpoint);
        if (const uint32_t released = ring.unconsumed() != 0 ? ring.poll_consumed() : 0) {
            consumed_ += released;
            claim.unconsumed_since = now;
        }
        if (ring.unconsumed() == 0) {
            claim.unconsumed_since = 0;
            claim.owner->device.set_readable(false);
            continue;
        }
        if (claim.unconsumed_since == 0)
            claim.unconsumed_since = now;
        if (now - claim.unconsumed_since >= config_.readable_grace_ns)
            claim.owner->device.set_readable(true);
        unconsumed = true;
    }
    watch_rings_ = unconsumed;
    return unconsumed;
}

Card::Round Card::service(unsigned max_frames)
{
    Round round;
    Now now;
    if (board_.complete_events())
        round.progress = true;
    if (serve_requests(RequestQueue::kCapacity) != 0)
        round.progress = true;
    if (receive_frames(max_frames, &now) != 0 || board_.filling()) {
        round.progress = true;
        now = runner_->now();
        if (now.mono_ns - clock_published_ >= kClockPeriod)
            publish_clock();
        board_.publish(now);
        watch_rings_ = true;
    }
    round.unconsumed = update_readable();
    return round;
}

Card::Arm Card::arm(std::vector<int> *fds)
{
    Arm result = Arm::Armed;
    fds->clear();
    fds->push_back(port_->poll_fd());
    for (unsigned ep = 0; ep < claims_.size(); ep++) {
        Claim &claim = claims_[ep];
        if (!claim.enabled)
            continue;
        const RequestSource::Idle idle = claim.source ? claim.source->arm_idle() : RequestSource::Idle::Timed;
        if (idle == RequestSource::Idle::Work) {
            disarm();
            return Arm::Work;
        }
        claim.armed = claim.source != nullptr;
        if (idle == RequestSource::Idle::Timed)
            result = Arm::Timed;
        if (claim.source)
            fds->push_back(claim.source->wake_fd());
        if (board_.ring(ep).unconsumed() == 0)
            continue;
        if (claim.watch && claim.watch->arm())
            fds->push_back(claim.watch->wake_fd());
        else if (result != Arm::Timed)
            result = Arm::TimedConsumers;
    }
    // What was consumed before the pages were protected has woken nobody.
    watch_rings_ = true;
    const uint64_t before = consumed_;
    update_readable();
    if (consumed_ != before) {
        disarm();
        return Arm::Work;
    }
    return result;
}

void Card::disarm()
{
    for (Claim &claim : claims_) {
        if (claim.source && claim.armed)
            claim.source->disarm_idle();
        claim.armed = false;
        if (claim.watch)
            claim.watch->disarm();
    }
}

bool Card::step()
{
    Now now = runner_->now();
    bool did = board_.complete_events();
    if (!did && !config_.manual_sends) {
        for (unsigned ep = 0; ep < claims_.size() && !did; ep++) {
            if (!claims_[ep].enabled)
                continue;
            gather_requests(ep);
            did = send_one(ep);
            if (did)
                progress_.notify_all();
        }
    }
    if (!did)
        did = receive_frames(1, &now) != 0;
    if (!did)
        did = board_.publish(now);
    watch_rings_ |= did;
    update_readable();
    return did;
}

} // namespace softnic
