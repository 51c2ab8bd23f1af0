// The account that a preloaded adapter gives of a board: where every frame went. A page of shared memory, which
// ruk-info and ruk-top find through the descriptors of the process ("/proc/<pid>/fd") and read while it runs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace softnic {

constexpr char kLedgerName[] = "softnic-ledger";      // of the memfd
constexpr uint64_t kLedgerMagic = 0x3352474c4b555253; // "SRUKLGR3"
constexpr unsigned kLedgerEndpoints = 64;

// Written by the firmware, read by anybody. All numbers count since the board was made.
struct LedgerEndpoint {
    uint32_t claimed;
    uint32_t enabled;
    uint64_t ring_bytes; // size of the event ring, or of the last one
    uint64_t unconsumed; // bytes of it that the application has not released
    // steered = delivered + pending + disabled + ring_full + oversize
    uint64_t steered;
    uint64_t delivered;
    uint64_t pending; // in an event that is being filled
    uint64_t disabled;
    uint64_t ring_full;
    uint64_t oversize;
    uint64_t events;
    uint64_t bad_flow;
    uint64_t high_water; // most bytes of that ring unconsumed at a time
    // requests = frames_sent + send_errors + bad_type + bad_header + bad_payload
    uint64_t requests;
    uint64_t frames_sent;
    uint64_t send_errors;
    uint64_t bad_type;
    uint64_t bad_header;
    uint64_t bad_payload;
    uint64_t post_overflow; // requests lost before they were taken: more waited than may be in flight
    // Lost before that: requests beyond those that the tap keeps, and watchpoint hits that came late, behind each of
    // which any number of requests may be lost.
    uint64_t lost_requests;
};
static_assert(sizeof(LedgerEndpoint) == 160);

struct LedgerPage {
    uint64_t magic; // written last when the page is made
    uint32_t board;
    uint32_t endpoints;
    char interface[16]; // zero-terminated
    uint64_t sequence;  // odd while the page changes
    uint64_t time_ns;   // CLOCK_MONOTONIC of the last change
    // The port: frames on the interface.
    uint64_t received;
    uint64_t rx_dropped;   // before the adapter: the packet ring was full
    uint64_t rx_malformed; // could not be handed out
    uint64_t sent;
    uint64_t tx_errors;
    // arrived = matched + unmatched + malformed
    uint64_t arrived;
    uint64_t matched;
    uint64_t unmatched;
    uint64_t malformed;
    uint64_t raw_dropped; // copies for raw endpoints, which held as many as they may
    LedgerEndpoint endpoint[kLedgerEndpoints];
};
static_assert(offsetof(LedgerPage, sequence) == 32 && offsetof(LedgerPage, received) == 48 &&
              offsetof(LedgerPage, endpoint) == 128 && sizeof(LedgerPage) == 128 + 64 * 160);

// A consistent copy of a page that is being written. False when it is none, or changes faster than it can be read.
bool copy_ledger(const void *page, LedgerPage *copy);

// {"interface":...,"port":{...},"arrived":...,"endpoints":[...]}, with all of the board's endpoints.
std::string ledger_json(const LedgerPage &page);

// A board of a running process.
struct LiveLedger {
    int pid;
    std::string program; // the process's name
    LedgerPage page;
};

// Of all processes in the caller's network namespace that it may look into, by process and board.
std::vector<LiveLedger> find_ledgers();

} // namespace softnic
