#include "recv_rig.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <signal.h>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

namespace recv_rig {

/* ------------------------------------------------------------------ the ring's writer */

size_t RingWriter::put(const std::vector<Packet> &packets, const EventOptions &options)
{
    size_t length = options.offset;
    for (const Packet &p : packets) {
        size_t slot = p.frame.size() + 12;
        slot += (16 - slot % 16) % 16;
        length += slot;
    }
    length += (64 - length % 64) % 64 + 64 * options.extra_slots;

    event_ = at_;
    length_ = length;
    Bytes header = be64(options.ticks);
    for (size_t i = 0; i < 5; i++)
        header = header + (i < packets.size() ? be16(packets[i].frame.size()) + be16(packets[i].tag) : be32(0));
    header = header + be16(length);
    for (size_t i = 0; i < header.size(); i++)
        at(event_ + i) = header[i];
    at(event_ + 31) = options.offset;

    size_t slot = event_ + options.offset;
    for (const Packet &p : packets) {
        for (size_t i = 0; i < p.frame.size(); i++)
            at(slot + 8 + i) = p.frame[i];
        size_t bytes = p.frame.size() + 12;
        slot += bytes + (16 - bytes % 16) % 16;
    }
    at_ = (event_ + length) % size_;
    if (options.complete)
        complete();
    else
        __atomic_store_n(&at(event_ + length - 1), uint8_t{0xff}, __ATOMIC_RELAXED);
    __atomic_store_n(&at(event_ + 30), static_cast<uint8_t>(packets.size()), __ATOMIC_RELEASE);
    return event_;
}

void RingWriter::complete() { __atomic_store_n(&at(event_ + length_ - 1), uint8_t{0}, __ATOMIC_RELEASE); }

/* ------------------------------------------------------------------ memory that watches itself */

static size_t page() { return static_cast<size_t>(sysconf(_SC_PAGESIZE)); }

GuardedBytes::GuardedBytes(size_t size) : size_(size)
{
    size_t inner = (size + page() - 1) / page() * page();
    map_len_ = inner + 2 * page();
    void *map = mmap(nullptr, map_len_, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (map == MAP_FAILED)
        abort();
    map_ = static_cast<uint8_t *>(map);
    data_ = map_ + page() + inner - size;
    allow();
}

GuardedBytes::~GuardedBytes() { test_support::real::munmap(map_, map_len_); }

void GuardedBytes::forbid() const { mprotect(map_, map_len_, PROT_NONE); }

void GuardedBytes::allow() const { mprotect(map_ + page(), map_len_ - 2 * page(), PROT_READ | PROT_WRITE); }

namespace {
struct TrapState {
    uint8_t *page = nullptr;
    void (*action)() = nullptr;
    volatile sig_atomic_t sprung = 0;
    struct sigaction old = {};
} trap;

void trap_handler(int sig, siginfo_t *info, void *)
{
    uint8_t *touched = static_cast<uint8_t *>(info->si_addr);
    if (trap.sprung || touched < trap.page || touched >= trap.page + page()) {
        sigaction(sig, &trap.old, nullptr); /* a real fault: let it happen again */
        return;
    }
    mprotect(trap.page, page(), PROT_READ | PROT_WRITE);
    trap.sprung = 1;
    trap.action();
}
} // namespace

PageTrap::PageTrap(void *address, void (*action)())
{
    trap.page = reinterpret_cast<uint8_t *>(reinterpret_cast<uintptr_t>(address) & ~(page() - 1));
    trap.action = action;
    trap.sprung = 0;
    struct sigaction act = {};
    act.sa_sigaction = trap_handler;
    act.sa_flags = SA_SIGINFO;
    sigaction(SIGSEGV, &act, &trap.old);
    mprotect(trap.page, page(), PROT_NONE);
}

PageTrap::~PageTrap()
{
    mprotect(trap.page, page(), PROT_READ | PROT_WRITE);
    sigaction(SIGSEGV, &trap.old, nullptr);
}

bool PageTrap::sprung() const { return trap.sprung != 0; }

/* ------------------------------------------------------------------ the endpoint */

RigEndpoint::RigEndpoint(const Options &options)
    : ring_memory(options.ring), flow_memory(128), sram_memory(16384), window_memory(192),
      ring(ring_memory.data(), options.ring)
{
    tov_init();
    ep = static_cast<ruk__ep *>(calloc(1, sizeof *ep));
    ep->rep_handle = -1;
    ep->rep_send_fd = -1;
    pthread_mutex_init(&ep->rep_lock, nullptr);
    pthread_mutex_init(&ep->rep_rx_lock, nullptr);
    if (options.locks) {
        ep->rep_lockp = &ep->rep_lock;
        ep->rep_rx_lockp = &ep->rep_rx_lock;
    }
    TAILQ_INIT(&ep->rep_chanq);
    TAILQ_INIT(&ep->rep_tag_uniq);
    TAILQ_INIT(&ep->rep_tag_filterq);
    TAILQ_INIT(&ep->rep_tag_delayq);
    STAILQ_INIT(&ep->rep_sreq_inflightq);
    ep->rep_timestamping_enabled = options.timestamping;

    for (size_t slot = 0; slot < options.ring; slot += 64)
        ring.at(slot + 63) = 0xff;
    ep->rep_map.map_recvq = reinterpret_cast<uintptr_t>(ring_memory.data());
    ep->rep_map.map_recvq_len = options.ring;
    ep->rep_map.map_recvq_end = ep->rep_map.map_recvq + options.ring;
    ep->rep_map.map_sram = reinterpret_cast<uintptr_t>(sram_memory.data());
    ep->rep_map.map_sram_len = sram_memory.size();
    ep->rep_map.map_kwindow = reinterpret_cast<uintptr_t>(window_memory.data());
    ep->rep_map.map_kwindow_len = window_memory.size();
    ep->rep_map.map_kflow_window = reinterpret_cast<uintptr_t>(flow_memory.data());
    ep->rep_map.map_kflow_window_len = flow_memory.size();
    ep->rep_flow = reinterpret_cast<oxel_endpt_flow_t *>(flow_memory.data());
    initialize_queues(ep);
    ep->rep_state = REP_STATE_OPEN;

    hooks_->munmap = [this](void *start, size_t length) {
        const std::pair<const char *, const GuardedBytes *> regions[] = {
            {"recvq", &ring_memory}, {"sram", &sram_memory}, {"kwindow", &window_memory}, {"flow", &flow_memory}};
        for (const auto &[name, memory] : regions) {
            if (start != memory->data() || length != memory->size())
                continue;
            unmapped_.push_back(name);
            memory->forbid();
            return 0;
        }
        return test_support::real::munmap(start, length);
    };
}

RigEndpoint::~RigEndpoint()
{
    if (!closed())
        ruk_close(ep);
}

int RigEndpoint::close() { return ruk_close(ep); }

ruk__tag_entry &RigEndpoint::entry(uint16_t tag)
{
    while (ep->rep_tag_cnt <= tag / 128) {
        auto *block = static_cast<ruk__tag_entry *>(calloc(128, sizeof(ruk__tag_entry)));
        for (int i = 0; i < 128; i++)
            block[i].tage_nuv_tag = static_cast<uint16_t>(ep->rep_tag_cnt * 128 + i);
        ep->rep_tag_table[ep->rep_tag_cnt++] = block;
    }
    return ep->rep_tag_table[tag / 128][tag % 128];
}

ruk__channel *RigEndpoint::bind(uint16_t tag, uint32_t dst, uint16_t port, uint32_t src)
{
    channels_.push_back(std::make_unique<ruk__channel>());
    ruk__channel *chan = channels_.back().get();
    chan->ch_rep = ep;
    chan->ch_fd = -1;
    chan->ch_mif = &mif;
    chan->ch_ucontext = reinterpret_cast<void *>(uintptr_t{0x1000} + tag);
    ruk__tag_entry &e = entry(tag);
    e.tage_channel = chan;
    e.tage_ip_addr = dst;
    e.tage_udp_port = port;
    e.tage_src_ip_addr = src;
    return chan;
}

Received RigEndpoint::recv(enum ruk_recvmode mode, size_t buffer)
{
    Received got;
    got.data.assign(buffer, 0xee);
    memset(&got.info, 0xee, sizeof got.info);
    got.rc = ruk_recvfrom(ep, mode, got.data.data(), buffer, &got.info);
    return got;
}

bool RigEndpoint::rx_lock_free()
{
    bool is_free = false;
    std::thread([&] {
        is_free = pthread_mutex_trylock(&ep->rep_rx_lock) == 0;
        if (is_free)
            pthread_mutex_unlock(&ep->rep_rx_lock);
    }).join();
    return is_free;
}

void RigEndpoint::window32(size_t offset, uint32_t v)
{
    __atomic_store_n(reinterpret_cast<uint32_t *>(window_memory.data() + offset), v, __ATOMIC_SEQ_CST);
}

void RigEndpoint::window64(size_t offset, uint64_t v)
{
    window32(offset, static_cast<uint32_t>(v));
    window32(offset + 4, static_cast<uint32_t>(v >> 32));
}

void RigEndpoint::clock_is_ticks()
{
    window64(100, 0); /* ticks */
    window64(108, 0); /* mask */
    window64(116, 0); /* nanoseconds */
    window32(124, 1);
    window32(128, 1);
    ep->rep_nticks = {};
}

void RigEndpoint::date_by(Dating dating)
{
    clock_is_ticks();
    ep->rep_timestamping_enabled = dating != Dating::off;
    if (dating == Dating::own_parameters)
        ep->rep_nticks = {0, UINT64_MAX, 0, 1, 1};
}

uint32_t RigEndpoint::flow32(size_t offset) const
{
    uint32_t v;
    memcpy(&v, flow_memory.data() + offset, sizeof v);
    return v;
}

uint64_t RigEndpoint::flow64(size_t offset) const
{
    uint64_t v;
    memcpy(&v, flow_memory.data() + offset, sizeof v);
    return v;
}

Bytes RigEndpoint::doorbell() const { return Bytes(sram_memory.data() + 16376, sram_memory.data() + 16384); }

} // namespace recv_rig
