#include "receive_account.h"

#include "common.h"
#include "ledger_view.h"

#include "ruk__eventq.h"
#include "ruk__libtypes.h"

#include <fmt/format.h>

#include <algorithm>

namespace tools {

using nlohmann::ordered_json;
using softnic::LedgerEndpoint;
using softnic::LiveLedger;

namespace {

constexpr int64_t longest_wait = 10'000'000'000; /* ns, for an account that lags */

/* The adapter's account of the endpoint; null where it gives none. */
const LedgerEndpoint *find_account(const ruk__ep &ep, const std::vector<LiveLedger> &ledgers)
{
    for (const LiveLedger &ledger : ledgers)
        if (ledger.page.board == ep.rep_unit && ep.rep_epid < ledger.page.endpoints)
            return &ledger.page.endpoint[ep.rep_epid];
    return nullptr;
}

/* Events that the adapter had put into the ring by its account and that are not consumed. Negative: it is older. */
int32_t events_waiting(const ruk__ep &ep, const LedgerEndpoint &account)
{
    return static_cast<int32_t>(static_cast<uint32_t>(account.events) - ep.rep_eventq.evq_flow->flow_desc);
}

/* Frames in the next so many events, less those of the first one that were handed out. */
uint64_t frames_waiting(const ruk__eventq &evq, int64_t events)
{
    uint64_t frames = 0;
    auto left = static_cast<int64_t>(evq.evq_recvq_size);
    auto cursor = reinterpret_cast<uintptr_t>(evq.evq_recvq_state.evs_uevt_cur);
    if (evq.evq_recvq_state.evs_pkt_cur != nullptr && events > 0) {
        for (const ruk__evpacket *p = evq.evq_recvq_state.evs_pkt_cur; p != nullptr; p = p->evp_next)
            frames++;
        left -= evq.evq_recvq_state.evs_length;
        cursor = _eventq_wrap(&evq, cursor + evq.evq_recvq_state.evs_length);
        events--;
    }
    for (; events > 0 && left > 0; events--) {
        const auto *event = reinterpret_cast<const volatile nuv_uevt_ruk_t *>(cursor);
        const uint8_t packets = tov_ld8_acq(&event->pkt_cnt);
        const uint16_t length = _uevt_length(event);
        if (packets == 0 || length == 0)
            break;
        frames += packets;
        left -= length;
        cursor = _eventq_wrap(&evq, cursor + length);
    }
    return frames;
}

} // namespace

uint64_t ReceiveAccount::sum() const
{
    uint64_t sum = 0;
    for (const auto &[name, frames] : parts)
        sum += frames;
    return sum;
}

uint64_t ReceiveAccount::part(const std::string &name) const
{
    for (const auto &[known, frames] : parts)
        if (known == name)
            return frames;
    return 0;
}

ReceiveAccount receive_account(ruk_device_t dev, uint64_t received, uint64_t malformed,
                               const std::vector<std::pair<std::string, uint64_t>> &counters,
                               const std::vector<LiveLedger> &ledgers)
{
    const ruk__ep &ep = *dev;
    ReceiveAccount account;
    account.board = ep.rep_unit;
    account.endpoint = ep.rep_epid;
    int64_t events = std::numeric_limits<int64_t>::max(); /* all that there are */
    if (const LedgerEndpoint *adapter = find_account(ep, ledgers); adapter && events_waiting(ep, *adapter) >= 0) {
        account.in_ring = adapter->delivered;
        events = events_waiting(ep, *adapter);
    }
    const arista_stats &stamps = ep.arista_control.arct_stats;
    account.parts = {{"received", received},
                     {"malformed", malformed},
                     {"keyframes", stamps.arst_kfrecv},
                     {"keyframes_malformed", stamps.arst_kfmalformed}};
    for (const auto &counter : counters)
        if (counter.first.starts_with("dropped_"))
            account.parts.push_back(counter);
    account.parts.emplace_back("waiting", frames_waiting(ep.rep_eventq, events));
    return account;
}

std::vector<LiveLedger> own_ledgers_covering(ruk_device_t dev)
{
    for (const int64_t deadline = monotonic_ns() + longest_wait;;) {
        std::vector<LiveLedger> ledgers = own_ledgers();
        const LedgerEndpoint *adapter = find_account(*dev, ledgers);
        if (adapter == nullptr || events_waiting(*dev, *adapter) >= 0 || monotonic_ns() >= deadline)
            return ledgers;
    }
}

size_t last_frame_bytes(ruk_device_t dev)
{
    const ruk__event_state &event = dev->rep_eventq.evq_recvq_state;
    const ruk__evpacket *last = event.evs_pkt_cur ? event.evs_pkt_cur - 1 : &event.evs_pkts[event.evs_pkt_cnt - 1];
    const bool may_be_stripped = dev->arista_control.arct_status != ARISTA_STATUS_DISABLED;
    return last->length - (may_be_stripped ? 0 : std::min<size_t>(last->length, NUV_UEVT_FCS_LEN));
}

ordered_json account_object(const ReceiveAccount &account)
{
    ordered_json parts = ordered_json::object();
    for (const auto &[name, frames] : account.parts)
        parts[name] = frames;
    return {{"board", account.board},
            {"endpoint", account.endpoint},
            {"in_ring", account.in_ring ? ordered_json(*account.in_ring) : ordered_json(nullptr)},
            {"sum", account.sum()},
            {"parts", parts}};
}

std::vector<std::string> account_lines(const ReceiveAccount &account)
{
    const auto line = [](std::string_view what, uint64_t frames) {
        return fmt::format("\t{:<26} = {:12}", what, frames);
    };
    std::vector<std::string> lines = {
        fmt::format("account of the frames in the ring (board {}, endpoint {}):", account.board, account.endpoint)};
    lines.push_back(account.in_ring
                        ? line("put in by the adapter", *account.in_ring)
                        : "\tput in by the adapter      =      unknown: it gives no account of itself, as a card does "
                          "not; the sum is of what was found in the ring");
    for (const auto &[name, frames] : account.parts)
        lines.push_back(line(name == "waiting" ? "still waiting" : name, frames));
    lines.push_back(line("sum", account.sum()));
    if (account.in_ring && *account.in_ring != account.sum())
        lines.emplace_back("\tthe two differ: something wrote over the ring, or an error of the software: report it");
    return lines;
}

} // namespace tools
