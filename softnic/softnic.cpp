#include "softnic_private.h"

#include "ports/pcap.h"
#include "shim/devices.h"

#include <algorithm>
#include <cstring>

using namespace softnic;

namespace softnic {

constexpr unsigned kRoundFrames = 64;
constexpr size_t kRequestLog = 4096;

Now StepRunner::now()
{
    const uint64_t ns = now_ns_.load(std::memory_order_relaxed);
    return Now{ns, ns};
}

int StepRunner::wait(Card &card, std::unique_lock<CardLock> &lock, const std::function<bool()> &done, int timeout_ms)
{
    while (!done()) {
        if (wait_hook) {
            lock.unlock();
            const int rc = wait_hook(card);
            lock.lock();
            if (rc != 0)
                return rc;
            continue;
        }
        if (card.service(kRoundFrames).progress || done())
            continue;
        if (blocking.load(std::memory_order_relaxed)) {
            if (timeout_ms < 0)
                card.progress().wait(lock, done);
            else if (!card.progress().wait_for(lock, std::chrono::milliseconds(timeout_ms), done))
                return ETIMEDOUT;
            continue;
        }
        if (timeout_ms < 0)
            return EDEADLK;
        advance(static_cast<uint64_t>(timeout_ms) * 1000000u);
        return ETIMEDOUT;
    }
    return 0;
}

void SteppedPort::set_switch(const SwitchOptions *options)
{
    const uint64_t now = runner_.now().real_ns;
    std::lock_guard guard(switch_mutex_);
    if (switch_) {
        send_due_keyframes(now);
        rewrite_waiting([](std::vector<uint8_t> *frame) { frame->resize(frame->size() - NUV_UEVT_FCS_LEN); });
    }
    switch_.reset();
    if (options == nullptr)
        return;
    switch_.emplace(*options, now);
    rewrite_waiting([&](std::vector<uint8_t> *frame) {
        *frame = switch_->stamped(frame->data(), static_cast<uint32_t>(frame->size()), now);
    });
}

void SteppedPort::send_due_keyframes(uint64_t now_ns)
{
    for (uint64_t due; (due = switch_->next_keyframe_ns()) <= now_ns && due != UINT64_MAX;) {
        const std::vector<uint8_t> keyframe = switch_->keyframe(due);
        if (!keyframe.empty())
            inject(keyframe.data(), keyframe.size(), due);
    }
}

void SteppedPort::arrive(const uint8_t *frame, size_t len)
{
    const uint64_t now = runner_.now().real_ns;
    std::lock_guard guard(switch_mutex_);
    if (!switch_) {
        inject(frame, len, now);
        return;
    }
    send_due_keyframes(now);
    const std::vector<uint8_t> stamped = switch_->stamped(frame, static_cast<uint32_t>(len), now);
    inject(stamped.data(), stamped.size(), now);
}

bool SteppedPort::receive(RxFrame *frame)
{
    {
        std::lock_guard guard(switch_mutex_);
        if (switch_)
            send_due_keyframes(runner_.now().real_ns);
    }
    return MemoryPort::receive(frame);
}

namespace {

BoardConfig board_config(const softnic_board_config_t &c)
{
    BoardConfig b;
    memcpy(b.mac.data(), c.mac, b.mac.size());
    b.endpoints = c.endpoints;
    b.clock.ns_numerator = c.clock_ns_numerator;
    b.clock.ns_denominator = c.clock_ns_denominator;
    b.clock.drift_ppb = c.clock_drift_ppb;
    b.clock.ticks_mask = c.clock_ticks_mask;
    b.clock.first_ticks = c.clock_first_ticks;
    b.writer = c.hardware_order ? WriterKind::HardwareOrder : WriterKind::InOrder;
    b.max_packets = c.max_packets;
    b.trailer_on_wire = c.trailer_on_wire != 0;
    return b;
}

std::string text(const char *chars, size_t size) { return std::string(chars, strnlen(chars, size)); }

CardConfig card_config(const softnic_board_config_t &c, unsigned board)
{
    CardConfig card;
    card.board = board_config(c);
    memcpy(card.current_mac.data(), c.current_mac, card.current_mac.size());
    card.nic_type = c.nic_type;
    card.recvq_size = c.recvq_size;
    card.sendq_size = c.sendq_size;
    card.dmasend_threshold = c.dmasend_threshold;
    card.sreqs = c.sreqs_count;
    card.api_magic = c.driver_api_magic;
    card.version = text(c.driver_version, sizeof(c.driver_version));
    card.build = text(c.driver_build, sizeof(c.driver_build));
    card.manual_sends = c.manual_sends != 0;
    card.one_address = c.one_address != 0;
    card.name = "oxelB" + std::to_string(board);
    return card;
}

Card *card_of(softnic_t *nic, unsigned board)
{
    return nic != nullptr && board < nic->driver->boards() ? &nic->driver->card(board) : nullptr;
}

Card *card_of(softnic_t *nic, unsigned board, unsigned endpoint)
{
    Card *card = card_of(nic, board);
    return card != nullptr && endpoint < card->board().endpoints() ? card : nullptr;
}

SteppedPort *port_of(softnic_t *nic, unsigned board)
{
    return nic != nullptr && board < nic->ports.size() ? nic->ports[board].get() : nullptr;
}

} // namespace
} // namespace softnic

extern "C" {

void softnic_board_defaults(softnic_board_config_t *config, unsigned board)
{
    const CardConfig card;
    *config = softnic_board_config_t{};
    memcpy(config->mac, card.board.mac.data(), sizeof(config->mac));
    config->mac[4] = static_cast<uint8_t>((board + 1) >> 8);
    config->mac[5] = static_cast<uint8_t>(board + 1);
    config->endpoints = card.board.endpoints;
    config->nic_type = card.nic_type;
    config->recvq_size = card.recvq_size;
    config->sendq_size = card.sendq_size;
    config->dmasend_threshold = card.dmasend_threshold;
    config->sreqs_count = card.sreqs;
    config->max_packets = card.board.max_packets;
    config->clock_ns_numerator = card.board.clock.ns_numerator;
    config->clock_ns_denominator = card.board.clock.ns_denominator;
    config->link_up = 1;
    config->driver_api_magic = card.api_magic;
    card.version.copy(config->driver_version, sizeof(config->driver_version) - 1);
    card.build.copy(config->driver_build, sizeof(config->driver_build) - 1);
}

softnic_t *softnic_create(const softnic_board_config_t *boards, unsigned count, uint64_t start_ns)
{
    auto nic = std::make_unique<softnic_t>(start_ns);
    std::vector<std::unique_ptr<Card>> cards;
    nic->requests.resize(count);
    for (unsigned board = 0; board < count; board++) {
        nic->ports.push_back(std::make_unique<SteppedPort>(nic->runner));
        nic->ports.back()->set_link(boards[board].link_up != 0);
        nic->trailer_on_wire.push_back(boards[board].trailer_on_wire != 0);
        cards.push_back(std::make_unique<Card>(card_config(boards[board], board), *nic->ports.back(), nic->runner));
        if (cards.back()->power_up() != 0)
            return nullptr;
        cards.back()->on_request = [n = nic.get(), board](unsigned endpoint, const nuv_ureq_t &request) {
            std::lock_guard guard(n->log_mutex);
            n->requests[board].push_back({endpoint, request});
            if (n->requests[board].size() > kRequestLog)
                n->requests[board].pop_front();
        };
    }
    nic->driver = std::make_unique<Driver>(std::move(cards));
    nic->driver->before_command = [n = nic.get()](unsigned board, unsigned long command) {
        std::unique_lock lock(n->log_mutex);
        n->commands.push_back(command);
        const auto hook = n->command_hook;
        void *context = n->command_context;
        lock.unlock();
        return hook != nullptr ? hook(context, board, command) : 0;
    };
    return nic.release();
}

int softnic_attach(softnic_t *nic)
{
    const int rc = attach_driver(nic->driver.get());
    nic->attached |= rc == 0;
    return rc;
}

void softnic_detach(softnic_t *nic)
{
    if (!nic->attached)
        return;
    nic->driver->close_all();
    detach_driver(nic->driver.get());
    nic->attached = false;
}

void softnic_destroy(softnic_t *nic)
{
    if (nic == nullptr)
        return;
    softnic_detach(nic);
    delete nic;
}

uint64_t softnic_now(softnic_t *nic) { return nic->runner.now().real_ns; }

void softnic_advance(softnic_t *nic, uint64_t ns)
{
    nic->runner.advance(ns);
    for (unsigned board = 0; board < nic->driver->boards(); board++) {
        Card &card = nic->driver->card(board);
        std::lock_guard guard(card.lock());
        card.publish_clock();
    }
}

uint64_t softnic_ticks(softnic_t *nic, unsigned board)
{
    Card *card = card_of(nic, board);
    return card != nullptr ? card->board().clock().ticks(nic->runner.now().mono_ns) : 0;
}

unsigned softnic_run(softnic_t *nic)
{
    unsigned rounds = 0;
    for (bool progress = true; progress;) {
        progress = false;
        for (unsigned board = 0; board < nic->driver->boards(); board++) {
            Card &card = nic->driver->card(board);
            std::lock_guard guard(card.lock());
            const bool did = card.service(kRoundFrames).progress;
            rounds += did ? 1 : 0;
            progress |= did;
        }
    }
    return rounds;
}

int softnic_step(softnic_t *nic, unsigned board)
{
    Card *card = card_of(nic, board);
    if (card == nullptr)
        return 0;
    std::lock_guard guard(card->lock());
    return card->step() ? 1 : 0;
}

void softnic_hold_events(softnic_t *nic, unsigned board, unsigned endpoint, int hold)
{
    if (Card *card = card_of(nic, board, endpoint)) {
        std::lock_guard guard(card->lock());
        card->board().ring(endpoint).hold_completion(hold != 0);
    }
}

void softnic_set_max_packets(softnic_t *nic, unsigned board, unsigned n)
{
    if (Card *card = card_of(nic, board)) {
        std::lock_guard guard(card->lock());
        for (unsigned ep = 0; ep < card->board().endpoints(); ep++)
            card->board().ring(ep).set_max_packets(n);
    }
}

void softnic_inject(softnic_t *nic, unsigned board, const void *frame, size_t len)
{
    if (SteppedPort *port = port_of(nic, board))
        port->arrive(static_cast<const uint8_t *>(frame), len);
}

int softnic_set_switch(softnic_t *nic, unsigned board, const char *options)
{
    Card *card = card_of(nic, board);
    if (card == nullptr || nic->trailer_on_wire[board])
        return EINVAL;
    const bool on = options != nullptr && *options != '\0';
    SwitchOptions parsed;
    std::string error;
    if (on && !parse_switch_options(options, &parsed, &error))
        return EINVAL;
    std::lock_guard guard(card->lock());
    nic->ports[board]->set_switch(on ? &parsed : nullptr);
    card->board().set_trailer_on_wire(on);
    return 0;
}

size_t softnic_take_sent(softnic_t *nic, unsigned board, void *frame, size_t cap)
{
    MemoryPort *port = port_of(nic, board);
    std::vector<uint8_t> bytes;
    if (port == nullptr || !port->take_sent(&bytes))
        return 0;
    memcpy(frame, bytes.data(), std::min(cap, bytes.size()));
    return bytes.size();
}

unsigned softnic_sent_count(softnic_t *nic, unsigned board)
{
    MemoryPort *port = port_of(nic, board);
    return port != nullptr ? static_cast<unsigned>(port->sent_waiting()) : 0;
}

void softnic_set_link(softnic_t *nic, unsigned board, int up)
{
    if (MemoryPort *port = port_of(nic, board))
        port->set_link(up != 0);
}

void softnic_fail_sends(softnic_t *nic, unsigned board, int error, int n)
{
    if (MemoryPort *port = port_of(nic, board))
        port->fail_sends(error, n);
}

void softnic_fail_steering(softnic_t *nic, unsigned board, int error)
{
    if (MemoryPort *port = port_of(nic, board))
        port->fail_steering(error);
}

int softnic_steered(softnic_t *nic, unsigned board, uint32_t ip, uint16_t port_number, uint16_t vlan, uint8_t proto)
{
    MemoryPort *port = port_of(nic, board);
    SteerKey key;
    key.ip_addr = ip;
    key.port = port_number;
    key.vlan = vlan;
    key.proto = proto;
    return port != nullptr && port->steered().count(key) != 0 ? 1 : 0;
}

int softnic_promiscuous(softnic_t *nic, unsigned board)
{
    MemoryPort *port = port_of(nic, board);
    return port != nullptr && port->promiscuous() ? 1 : 0;
}

unsigned softnic_posted_requests(softnic_t *nic, unsigned board, unsigned endpoint)
{
    Card *card = card_of(nic, board, endpoint);
    if (card == nullptr)
        return 0;
    std::lock_guard guard(card->lock());
    return card->posted_requests(endpoint);
}

unsigned softnic_take_requests(softnic_t *nic, unsigned board, unsigned endpoint, unsigned max)
{
    Card *card = card_of(nic, board, endpoint);
    if (card == nullptr)
        return 0;
    std::lock_guard guard(card->lock());
    return card->take_requests(endpoint, max);
}

unsigned softnic_complete_requests(softnic_t *nic, unsigned board, unsigned endpoint, unsigned max)
{
    Card *card = card_of(nic, board, endpoint);
    if (card == nullptr)
        return 0;
    std::lock_guard guard(card->lock());
    return card->complete_requests(endpoint, max);
}

void softnic_bump_completions(softnic_t *nic, unsigned board, unsigned endpoint, unsigned n)
{
    if (Card *card = card_of(nic, board, endpoint)) {
        std::lock_guard guard(card->lock());
        card->board().complete_requests(endpoint, n);
        card->progress().notify_all();
    }
}

int softnic_post_request(softnic_t *nic, unsigned board, unsigned endpoint, const void *request)
{
    Card *card = card_of(nic, board, endpoint);
    nuv_ureq_t copy;
    memcpy(&copy, request, sizeof(copy));
    return card != nullptr && card->post_request(endpoint, copy) ? 1 : 0;
}

int softnic_next_request(softnic_t *nic, unsigned board, unsigned *endpoint, void *request)
{
    if (nic == nullptr || board >= nic->requests.size())
        return 0;
    std::lock_guard guard(nic->log_mutex);
    auto &log = nic->requests[board];
    if (log.empty())
        return 0;
    if (endpoint != nullptr)
        *endpoint = log.front().endpoint;
    memcpy(request, &log.front().request, sizeof(nuv_ureq_t));
    log.pop_front();
    return 1;
}

void softnic_set_command_hook(softnic_t *nic, int (*hook)(void *, unsigned, unsigned long), void *context)
{
    std::lock_guard guard(nic->log_mutex);
    nic->command_hook = hook;
    nic->command_context = context;
}

size_t softnic_commands(softnic_t *nic, unsigned long *list, size_t cap)
{
    std::lock_guard guard(nic->log_mutex);
    std::copy_n(nic->commands.begin(), std::min(cap, nic->commands.size()), list);
    return nic->commands.size();
}

void softnic_clear_commands(softnic_t *nic)
{
    std::lock_guard guard(nic->log_mutex);
    nic->commands.clear();
}

void softnic_set_wait_hook(softnic_t *nic, int (*hook)(void *, unsigned), void *context)
{
    if (hook == nullptr) {
        nic->runner.wait_hook = nullptr;
        return;
    }
    nic->runner.wait_hook = [nic, hook, context](const Card &card) {
        unsigned board = 0;
        while (&nic->driver->card(board) != &card)
            board++;
        return hook(context, board);
    };
}

void softnic_set_blocking_waits(softnic_t *nic, int blocking)
{
    nic->runner.blocking.store(blocking != 0, std::memory_order_relaxed);
}

void softnic_answer_first_form(int answer) { answer_first_form(answer != 0); }

uint64_t softnic_claimed(softnic_t *nic, unsigned board)
{
    Card *card = card_of(nic, board);
    if (card == nullptr)
        return 0;
    std::lock_guard guard(card->lock());
    uint64_t mask = 0;
    for (unsigned ep = 0; ep < card->board().endpoints(); ep++)
        mask |= uint64_t{card->owner(ep) != nullptr} << ep;
    return mask;
}

int softnic_regions(softnic_t *nic, unsigned board, unsigned endpoint, softnic_regions_t *regions)
{
    *regions = softnic_regions_t{};
    Card *card = card_of(nic, board, endpoint);
    if (card == nullptr)
        return EINVAL;
    std::lock_guard guard(card->lock());
    if (!card->board().enabled(endpoint))
        return EINVAL;
    const EndpointMemory m = card->memory(endpoint);
    regions->recvq = m.recvq;
    regions->recvq_len = m.recvq_len;
    regions->sendq = const_cast<uint8_t *>(m.sendq);
    regions->sendq_len = m.sendq_len;
    regions->sram = m.sram;
    regions->sram_len = kSramBytes;
    regions->zreq = m.zreq;
    regions->zreq_len = kRequestWindowBytes;
    regions->flow = reinterpret_cast<uint8_t *>(m.flow);
    regions->flow_len = kPage;
    regions->window = reinterpret_cast<uint8_t *>(card->kernel_window());
    regions->window_len = kPage;
    regions->compcnt = reinterpret_cast<uint8_t *>(m.compcnt);
    return 0;
}

void softnic_board_counters(softnic_t *nic, unsigned board, softnic_board_counters_t *out)
{
    *out = softnic_board_counters_t{};
    if (Card *card = card_of(nic, board)) {
        std::lock_guard guard(card->lock());
        const BoardCounters &c = card->board().counters();
        *out = {c.arrived, c.matched, c.unmatched, c.malformed, card->raw_dropped()};
    }
}

void softnic_endpoint_counters(softnic_t *nic, unsigned board, unsigned endpoint, softnic_endpoint_counters_t *out)
{
    *out = softnic_endpoint_counters_t{};
    Card *card = card_of(nic, board, endpoint);
    if (card == nullptr)
        return;
    std::lock_guard guard(card->lock());
    const EndpointCounters c = card->board().endpoint_counters(endpoint);
    out->steered = c.steered;
    out->delivered = c.ring.delivered;
    out->events = c.ring.events;
    out->disabled = c.disabled;
    out->ring_full = c.ring.ring_full;
    out->oversize = c.ring.oversize;
    out->bad_flow = c.ring.bad_flow;
    out->high_water = c.ring.high_water;
    out->requests = c.requests;
    out->frames_sent = c.frames_sent;
    out->send_errors = c.send_errors;
    out->completed = c.completed;
    out->bad_type = c.bad_type;
    out->bad_header = c.bad_header;
    out->bad_payload = c.bad_payload;
    out->post_overflow = c.post_overflow;
    out->lost_requests = card->lost_requests(endpoint);
}

struct softnic_pcap {
    std::unique_ptr<PcapReader> reader;
    std::vector<uint8_t> frame;
};

softnic_pcap_t *softnic_pcap_open(const char *path, char *error, size_t cap)
{
    std::string reason;
    std::unique_ptr<PcapReader> reader = PcapReader::open(path, &reason);
    if (!reader) {
        if (error != nullptr && cap != 0)
            error[reason.copy(error, cap - 1)] = '\0';
        return nullptr;
    }
    return new softnic_pcap{std::move(reader), {}};
}

int softnic_pcap_next(softnic_pcap_t *file, uint64_t *time_ns, const void **frame, size_t *len)
{
    if (!file->reader->next(time_ns, &file->frame))
        return file->reader->damaged() ? -1 : 0;
    *frame = file->frame.data();
    *len = file->frame.size();
    return 1;
}

void softnic_pcap_close(softnic_pcap_t *file) { delete file; }

} // extern "C"
