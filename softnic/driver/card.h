// An adapter as the driver sees it: the firmware's board, the memory shared with applications, the port that its
// frames go through, and who has claimed what.
#pragma once

#include "../core/board.h"
#include "../ports/port.h"
#include "consumer_watch.h"
#include "device_fd.h"
#include "region.h"
#include "request_source.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <string>
#include <vector>

namespace softnic {

constexpr uint32_t kPage = 4096;
constexpr uint32_t kSramBytes = 16384;
constexpr uint32_t kRequestWindowBytes = 4096;
constexpr uint32_t kMinRecvq = 16384;
constexpr uint32_t kMaxRecvq = 32u << 20;
constexpr uint32_t kMaxFiltersPerEndpoint = 16384;
constexpr unsigned kRawPorts = 2;
constexpr unsigned kRawMaxPending = 64;
constexpr unsigned kRawMaxFrames = 256;

// Event kinds of a raw endpoint.
enum : uint32_t { kRawEventSent = 1, kRawEventReceived = 2 };

struct CardConfig {
    BoardConfig board;
    std::array<uint8_t, 6> current_mac = {}; // the address in use; all zero = the permanent one
    uint32_t nic_type = 4;
    uint32_t recvq_size = 1u << 20; // bytes, made a power of two
    uint32_t sendq_size = 256u << 10;
    uint32_t dmasend_threshold = 1024; // largest payload sent by PIO
    bool threshold_fixed = false;      // the harvesting of requests depends on it: not to be changed
    uint32_t sreqs = 64;
    uint32_t api_magic = OXEL_DRIVER_API_MAGIC;
    std::string version = "1.0.0";
    std::string build = "software adapter";
    MakeRequestSource make_source;
    // Asked at each claim with the endpoint's name, when set; then what is said of sending above does not count.
    std::function<SendSetup(const char *name)> send_setup;
    bool drain_before_removal = false; // frames that wait in the port were taken from the host: deliver them first
    bool one_address = false;          // mappings are the adapter's own memory, not further views of it
    bool manual_sends = false;         // requests wait until somebody takes and completes them
    bool watch_consumers = false;      // so that the firmware may sleep while events are unconsumed
    uint64_t readable_grace_ns = 0;    // how long events may be unconsumed before the descriptor polls readable
    std::string name = "oxelB0";       // for messages
};

enum class HandleKind : uint8_t { Plain, Ruk, Soft, Raw };

// One open of the device file.
struct Handle {
    DeviceFd device;
    HandleKind kind = HandleKind::Plain;
    unsigned endpoint = 0; // of Ruk and Soft
    uint64_t claim = 0;    // of Soft: the endpoint's claim that it belongs to
    bool attached = false; // of Soft
    unsigned waiters = 0;  // threads inside a waiting command
    bool closed = false;

    struct RawEvent {
        uint32_t kind = 0;
        uint64_t context = 0;
        uint64_t ticks = 0;
        std::vector<uint8_t> frame;
    };
    std::deque<RawEvent> raw_events;
    unsigned raw_pending = 0; // completions not yet fetched
    unsigned raw_frames = 0;  // frames not yet fetched
};

// Held by whoever touches a card. The firmware gives way to commands that wait for it.
class CardLock {
public:
    void lock()
    {
        waiting_.fetch_add(1, std::memory_order_relaxed);
        mutex_.lock();
        waiting_.fetch_sub(1, std::memory_order_relaxed);
        holder_.store(pthread_self(), std::memory_order_relaxed);
    }
    bool try_lock()
    {
        const bool taken = mutex_.try_lock();
        if (taken)
            holder_.store(pthread_self(), std::memory_order_relaxed);
        return taken;
    }
    void unlock()
    {
        holder_.store(pthread_t(), std::memory_order_relaxed);
        mutex_.unlock();
    }
    bool wanted() const { return waiting_.load(std::memory_order_relaxed) != 0; }
    bool held_by_this_thread() const { return holder_.load(std::memory_order_relaxed) == pthread_self(); }

private:
    std::mutex mutex_;
    std::atomic<unsigned> waiting_{0};
    std::atomic<pthread_t> holder_{};
};

class Card;

// Who runs the firmware, and where time comes from.
class Runner {
public:
    virtual ~Runner() = default;
    virtual Now now() = 0;

    // How long a paired reading of adapter and host clock takes, ns.
    virtual uint64_t reading_delay() = 0;

    // How far apart, ns, frames come and are looked at. What says more was dated by a clock that somebody set.
    virtual uint64_t longest_wait() const = 0;

    // Waits, with the card's lock held by the caller and let go meanwhile, until done() holds, which is looked at
    // under the lock. A limit below 0 is none. 0, ETIMEDOUT, or another errno value.
    virtual int wait(Card &card, std::unique_lock<CardLock> &lock, const std::function<bool()> &done,
                     int timeout_ms) = 0;

    // There is work, or the card's set-up has changed.
    virtual void kick(Card &card) = 0;
};

class Card {
public:
    // The port is the caller's and outlives the card.
    Card(const CardConfig &config, Port &port, Runner &runner);
    ~Card();

    // Creates the pages that all endpoints share. 0 or an errno value.
    int power_up();

    CardLock &lock() { return lock_; }
    std::condition_variable_any &progress() { return progress_; }
    Board &board() { return board_; }
    Port &port() { return *port_; }
    Runner &runner() { return *runner_; }
    const CardConfig &config() const { return config_; }
    void set_source(MakeRequestSource make) { config_.make_source = std::move(make); }

    // Some application's request window lies in that range. Needs no lock.
    bool window_in(const void *addr, size_t len) const;

    // All that follows is called with the lock held.

    // With one_address: the range lies in memory that the adapter goes on using when the application unmaps it.
    bool keeps(const void *addr, size_t len) const;

    // --- claims. Results are 0 or an errno value.
    int claim(Handle &handle, int32_t endpoint, uint32_t type);
    int attach_soft(Handle &handle, Handle &soft);
    int post_soft(const Handle &soft) const; // data was sent on the kernel path
    int raw_open(Handle &handle);
    void release(Handle &handle); // everything of a handle that closes
    int enable(Handle &handle);
    int get_params(const Handle &handle, oxel_ruk_params_t *params) const;
    int set_params(Handle &handle, const oxel_ruk_params_t &params);
    int set_filter_mode(Handle &handle, uint32_t mode);
    int rx_filter(Handle &handle, const oxel_rx_filter_t &filter);
    int copyblock(const Handle &handle, kz_get_copyblock_t *block) const;
    void unmapping(const void *addr, size_t len); // the application is about to unmap that
    void *map(Handle &handle, void *addr, size_t len, int prot, int flags, uint64_t offset); // errno when MAP_FAILED
    int wait_send(std::unique_lock<CardLock> &lock, Handle &handle, int32_t timeout_ms);
    uint64_t raw_dropped() const { return raw_dropped_; }

    // Requests of an endpoint that were lost on their way to the adapter, since power-up.
    uint64_t lost_requests(unsigned ep) const;
    int raw_send(Handle &handle, const oxel_raw_send_t &send);
    int raw_next_event(std::unique_lock<CardLock> &lock, Handle &handle, oxel_raw_next_event_t *event);

    // --- firmware
    struct Round {
        bool progress = false;   // something was done
        bool unconsumed = false; // some endpoint has events that its application has not released
    };
    // One round: requests out, frames in (at most max_frames), events published, windows and descriptors
    // brought up to date.
    Round service(unsigned max_frames);

    // One unit of work: a completion, a request, a frame, or the publication of events. False when idle.
    bool step();

    // Before the firmware sleeps: asks to be woken by what comes, under the lock. Then it waits on the descriptors
    // in *fds, and takes the requests back with disarm().
    enum class Arm {
        Work,           // something is waiting: nothing was armed
        Armed,          // whatever happens makes one of the descriptors readable
        Timed,          // requests may come unnoticed: sleep a millisecond at most
        TimedConsumers, // an application's progress may go unnoticed: sleep for a time that grows
    };
    Arm arm(std::vector<int> *fds);
    void disarm();

    void publish_clock();
    // Looks at what applications have released, and makes their descriptors readable or not. True while events
    // are unconsumed.
    bool update_readable();

    // Sends of manual cards: take moves posted requests to the wire, complete reports them.
    unsigned take_requests(unsigned ep, unsigned max);
    unsigned complete_requests(unsigned ep, unsigned max);
    unsigned posted_requests(unsigned ep);
    unsigned taken_requests(unsigned ep) const { return claims_[ep].taken; }
    bool post_request(unsigned ep, const nuv_ureq_t &request);

    const Handle *owner(unsigned ep) const { return claims_[ep].owner; }
    EndpointMemory memory(unsigned ep) const;
    kz_kernel_window_t *kernel_window() const;

    // Told of each request as it is taken.
    std::function<void(unsigned ep, const nuv_ureq_t &request)> on_request;

    // In the child of a fork: a card as after power-up, that leaves the parent's memory and threads alone.
    void restart_in_child();

private:
    struct Claim {
        Handle *owner = nullptr;
        uint64_t number = 0; // of all claims made, which tells one of an endpoint from the next
        uint32_t recvq_size = 0;
        uint32_t threshold = 0;
        SendSetup send;
        FilterMode mode = FilterMode::Normal;
        bool enabled = false;
        Region recvq, sendq, sram, zreq, flow;
        std::unique_ptr<RequestSource> source;
        std::unique_ptr<ConsumerWatch> watch;
        bool armed = false; // the source is, for the firmware's sleep
        unsigned taken = 0; // requests taken and not completed
        uint64_t unconsumed_since = 0;
    };
    struct MapEntry {
        uint32_t offset;
        uint32_t len;
        const Region *region;
        bool read_only;
        bool requests;
        bool flow;
    };

    int require_ruk(const Handle &handle) const;
    bool serves_its_claim(const Handle &soft) const;
    std::string endpoint_name(unsigned ep) const { return config_.name + ", endpoint " + std::to_string(ep); }
    std::vector<MapEntry> map_entries(const Claim &claim) const;
    void drop_watches(unsigned ep);
    void drop_source(unsigned ep);
    void gather_requests(unsigned ep);
    bool send_one(unsigned ep);
    unsigned serve_requests(unsigned max);
    unsigned receive_frames(unsigned max, Now *now);
    int steer_for(const SteerKey &key, bool *took);
    void give_back(const SteerKey &key);
    void follow_modes();
    void raw_deliver(const RxFrame &frame, Now now);

    CardConfig config_;
    Port *port_;
    Runner *runner_;
    Board board_;
    CardLock lock_;
    std::condition_variable_any progress_;
    Region window_;  // the kernel window
    Region compcnt_; // completion counters
    std::vector<Claim> claims_;
    std::vector<Handle *> raws_;
    uint64_t raw_dropped_ = 0;      // of all handles, closed ones too
    std::vector<SteerKey> steered_; // sorted: taken from the host
    bool promiscuous_ = false;      // the port is
    std::vector<uint8_t> frame_;    // of the request being served
    // By endpoint: the application's mapping that the claim's source serves, 0 when none.
    std::array<std::atomic<uintptr_t>, kMaxEndpoints> windows_{};
    std::array<uint64_t, kMaxEndpoints> lost_requests_{}; // by sources that are gone
    bool watch_rings_ = false;                            // events may be unconsumed, or a descriptor readable
    uint64_t consumed_ = 0;                               // events that applications have released
    uint64_t clock_published_ = 0;
    uint64_t claims_made_ = 0;
};

} // namespace softnic
