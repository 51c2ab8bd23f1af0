// One adapter: its endpoints, filters, clock and counters. Makes no system call; time is an argument.
#pragma once

#include "clock.h"
#include "event_ring.h"
#include "filter_table.h"
#include "nuv_events.h"
#include "nuv_types.h"
#include "request_queue.h"
#include "request_reader.h"

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace softnic {

enum class FilterMode : uint32_t {
    Normal = 0,   // frames that a filter matches
    AllMulti = 1, // these and every multicast or broadcast frame
    Raw = 2,      // every frame
};

// Tag of frames that an endpoint gets by its mode and no filter of it matched: beyond the tag space.
constexpr uint16_t kNoFilterTag = 0xFFFF;

constexpr unsigned kMaxEndpoints = 64;

struct BoardConfig {
    std::array<uint8_t, 6> mac = {OXEL_MAC_PREFIX_0, OXEL_MAC_PREFIX_1, OXEL_MAC_PREFIX_2, 0, 0, 1};
    unsigned endpoints = 8;
    ClockConfig clock;
    WriterKind writer = WriterKind::InOrder;
    unsigned max_packets = NUV_UEVT_MAX_PKTS; // packets an event at most
    bool trailer_on_wire = false;             // frames arrive with a switch's 4-byte trailer already on
};

// Every frame that arrived is exactly one of: steered to at least one endpoint, unmatched, malformed.
struct BoardCounters {
    uint64_t arrived = 0;
    uint64_t matched = 0;
    uint64_t unmatched = 0; // no endpoint wanted it
    uint64_t malformed = 0; // shorter than a header or longer than a length field can say
};

// steered = ring.delivered + frames of the event being filled + disabled + ring.ring_full + ring.oversize
struct EndpointCounters {
    uint64_t steered = 0;  // frames meant for the endpoint
    uint64_t disabled = 0; // dropped: its queues were not enabled, or ended with an event being filled
    RingCounters ring;
    uint64_t requests = 0;      // send requests taken
    uint64_t frames_sent = 0;   // of these, put on the wire
    uint64_t send_errors = 0;   // of these, refused by the port
    uint64_t completed = 0;     // requests reported complete
    uint64_t bad_type = 0;      // requests of a type not served, dropped
    uint64_t bad_header = 0;    // requests with an impossible header length, dropped
    uint64_t bad_payload = 0;   // requests whose payload lies outside its ring, dropped
    uint64_t post_overflow = 0; // requests lost because more were posted than can be in flight
};

// The memory that an endpoint shares with its application, as seen by the firmware.
struct EndpointMemory {
    uint8_t *recvq = nullptr;
    uint32_t recvq_len = 0;
    const uint8_t *sendq = nullptr;
    uint32_t sendq_len = 0;
    uint8_t *sram = nullptr; // PIO payloads, and the doorbell word
    uint8_t *zreq = nullptr; // request window
    oxel_endpt_flow_t *flow = nullptr;
    uint16_t *compcnt = nullptr; // this endpoint's completion counter
};

class Board {
public:
    Board(const BoardConfig &config, Now power_up);

    const BoardConfig &config() const { return config_; }
    const Clock &clock() const { return clock_; }
    FilterTable &filters() { return filters_; }
    const FilterTable &filters() const { return filters_; }
    unsigned endpoints() const { return static_cast<unsigned>(endpoints_.size()); }
    const BoardCounters &counters() const { return counters_; }
    EndpointCounters endpoint_counters(unsigned ep) const;

    // Starts an endpoint's queues over this memory, which becomes as a consumer leaves it: every slot free,
    // flow window and completion counter zero. Also restarts one that runs.
    void enable(unsigned ep, const EndpointMemory &memory);
    void disable(unsigned ep);
    bool enabled(unsigned ep) const { return endpoints_[ep]->ring.attached(); }
    EventRing &ring(unsigned ep) { return endpoints_[ep]->ring; }

    void set_filter_mode(unsigned ep, FilterMode mode);
    bool takes_unfiltered() const { return (raw_ | allmulti_) != 0; }
    bool takes_all() const { return raw_ != 0; } // an endpoint takes every frame, to whomever

    // False when there is no such filter. Frames of the filter that wait in an event being filled are published
    // first: no event that comes after the call bears the tag on this filter's account.
    bool remove_filter(unsigned ep, const SteerKey &key, uint16_t tag, Now now);
    void remove_all_filters(unsigned ep, Now now);

    // Whether frames from now on arrive with a switch's trailer already on.
    void set_trailer_on_wire(bool on) { config_.trailer_on_wire = on; }

    // A frame from the wire. It waits in the events being filled until publish().
    void receive(const uint8_t *frame, uint32_t len, Now now);

    // Hands over what waits. True when there was anything.
    bool publish(Now now);

    // Completes events that were shown early. True when there was one.
    bool complete_events();

    bool filling() const { return filling_ != 0; }

    // --- sending

    // Any thread, also from a signal handler.
    bool post_request(unsigned ep, const nuv_ureq_t &request);

    // Looks for requests left in the window's slots and posts them, clearing the slots. For windows that nobody
    // watches: a request overwritten before the look is lost. Returns how many were found.
    unsigned poll_request_window(unsigned ep);

    unsigned requests_waiting(unsigned ep) const { return endpoints_[ep]->posted.size(); }

    // Takes the oldest posted request. False when none waits. *frame is empty when the request was dropped;
    // *completes tells whether the library waits for a completion of it.
    bool take_request(unsigned ep, nuv_ureq_t *request, std::vector<uint8_t> *frame, bool *completes);

    // Reports n more requests complete.
    void complete_requests(unsigned ep, unsigned n);
    uint16_t completion_count(unsigned ep) const { return static_cast<uint16_t>(endpoints_[ep]->counters.completed); }

    // Completions that the library has not reaped, by its own account in the flow window.
    bool completions_unreaped(unsigned ep) const;

    void count_sent(unsigned ep, bool ok);

private:
    struct Endpoint {
        Endpoint(const Clock &clock, const BoardConfig &config) : ring(clock, config.writer, config.max_packets) {}
        EventRing ring;
        EndpointMemory memory;
        FilterMode mode = FilterMode::Normal;
        RequestQueue posted;
        std::atomic<uint64_t> post_overflow{0};
        EndpointCounters counters;
    };
    static void drop_filling(Endpoint &e);

    void deliver(unsigned ep, const uint8_t *frame, uint32_t len, uint16_t tag, Now now);

    BoardConfig config_;
    Clock clock_;
    FilterTable filters_;
    std::vector<std::unique_ptr<Endpoint>> endpoints_;
    uint64_t raw_ = 0, allmulti_ = 0; // endpoints in these modes, one bit each
    uint64_t filling_ = 0;            // endpoints with an event being filled
    BoardCounters counters_;
};

} // namespace softnic
