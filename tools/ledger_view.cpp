#include "ledger_view.h"

#include "common.h"

#include <fmt/format.h>

#include <string_view>
#include <unistd.h>

namespace tools {

using nlohmann::ordered_json;

namespace {

struct Explanation {
    std::string_view reason, meaning, remedy;
};

/* The library's other drop counters belong to adapters that check and buffer differently: they stay 0. */
constexpr Explanation library_reasons[] = {
    {"dropped_badproto", "frames neither IPv4 nor VLAN-tagged, let in by the filter mode",
     "none; the normal filter mode keeps them out"},
    {"dropped_badfilter", "datagrams for another port, address or source than the membership's",
     "none for sources that were not joined; else a filter mode lets in more than the ports"},
    {"dropped_nosock", "datagrams of a channel that was unbound meanwhile, or that a filter mode let in",
     "none after an unbind; else use the normal filter mode"},
    {"dropped_runts", "frames shorter than their headers", "look for a damaged sender with ruk-capture"},
    {"dropped_broadcast_filtered", "broadcasts to another subnet's broadcast address",
     "compare the sender's netmask with the interface's"},
};

constexpr Explanation interface_reasons[] = {
    {"rx_dropped", "frames lost before the adapter saw them: the packet ring was full",
     "give the adapter's thread a processor of its own (RUK_SOFTNIC_CPU)"},
    {"rx_malformed", "frames that the interface handed over incomplete", "look at the sender's offload settings"},
    {"tx_errors", "frames that the interface refused to send", "look at its link, queue length and MTU"},
};

constexpr Explanation board_reasons[] = {
    {"unmatched", "frames that no endpoint asked for: the kernel's", "none: they went their usual way"},
    {"malformed", "frames too short or too long for any event", "look for a damaged sender"},
    {"raw_dropped", "frames for a raw endpoint that had 256 waiting already",
     "call oxel_raw_next_event() more often, from a thread of its own"},
};

constexpr Explanation endpoint_reasons[] = {
    {"disabled", "frames that came while the endpoint's queues were off", "enable the endpoint before binding"},
    {"ring_full", "frames for which the event ring had no room: the application did not keep up",
     "receive faster, or ask for a larger ring"},
    {"oversize", "frames larger than an event", "lower the sender's MTU"},
    {"send_errors", "datagrams that the interface refused", "look at its link, queue length and MTU"},
    {"bad_type", "send requests of a kind that is not served", "memory of the request window was damaged"},
    {"bad_header", "send requests with an impossible header length", "memory of the request window was damaged"},
    {"bad_payload", "send requests whose payload lies outside its ring", "memory of the request window was damaged"},
    {"post_overflow", "send requests that came faster than they were taken", "use --mode=exact or report it"},
};

template <size_t N>
void add(std::vector<Drop> &drops, const Explanation (&reasons)[N], std::string_view reason, const std::string &where,
         uint64_t count)
{
    if (count == 0)
        return;
    for (const Explanation &e : reasons)
        if (e.reason == reason)
            drops.push_back({std::string(reason), where, count, std::string(e.meaning), std::string(e.remedy)});
}

} // namespace

std::vector<Drop> library_drops(const std::vector<std::pair<std::string, uint64_t>> &counters)
{
    std::vector<Drop> drops;
    for (const auto &[name, value] : counters)
        add(drops, library_reasons, name, "library", value);
    return drops;
}

std::vector<Drop> adapter_drops(const softnic::LedgerPage &page)
{
    std::vector<Drop> drops;
    add(drops, interface_reasons, "rx_dropped", "interface", page.rx_dropped);
    add(drops, interface_reasons, "rx_malformed", "interface", page.rx_malformed);
    add(drops, interface_reasons, "tx_errors", "interface", page.tx_errors);
    add(drops, board_reasons, "unmatched", "board", page.unmatched);
    add(drops, board_reasons, "malformed", "board", page.malformed);
    add(drops, board_reasons, "raw_dropped", "board", page.raw_dropped);
    for (unsigned ep = 0; ep < page.endpoints; ep++) {
        const softnic::LedgerEndpoint &e = page.endpoint[ep];
        const std::string where = fmt::format("endpoint {}", ep);
        add(drops, endpoint_reasons, "disabled", where, e.disabled);
        add(drops, endpoint_reasons, "ring_full", where, e.ring_full);
        add(drops, endpoint_reasons, "oversize", where, e.oversize);
        add(drops, endpoint_reasons, "send_errors", where, e.send_errors);
        add(drops, endpoint_reasons, "bad_type", where, e.bad_type);
        add(drops, endpoint_reasons, "bad_header", where, e.bad_header);
        add(drops, endpoint_reasons, "bad_payload", where, e.bad_payload);
        add(drops, endpoint_reasons, "post_overflow", where, e.post_overflow);
    }
    return drops;
}

ordered_json drops_json(const std::vector<Drop> &drops)
{
    ordered_json list = ordered_json::array();
    for (const Drop &drop : drops)
        list.push_back({{"reason", drop.reason},
                        {"where", drop.where},
                        {"count", drop.count},
                        {"meaning", drop.meaning},
                        {"remedy", drop.remedy}});
    return list;
}

bool in_use(const softnic::LedgerEndpoint &e) { return e.claimed != 0 || e.steered != 0 || e.requests != 0; }

ordered_json ledger_object(const softnic::LiveLedger &ledger)
{
    ordered_json object = {{"pid", ledger.pid}, {"program", ledger.program}, {"board", ledger.page.board}};
    ordered_json page = ordered_json::parse(softnic::ledger_json(ledger.page));
    ordered_json endpoints = ordered_json::array();
    for (unsigned ep = 0; ep < ledger.page.endpoints; ep++) {
        if (!in_use(ledger.page.endpoint[ep]))
            continue;
        ordered_json endpoint = {{"endpoint", ep}};
        endpoint.update(page["endpoints"][ep]);
        endpoints.push_back(endpoint);
    }
    page["endpoints"] = endpoints;
    object.update(page);
    object["drops"] = drops_json(adapter_drops(ledger.page));
    return object;
}

std::vector<std::string> ledger_lines(const softnic::LiveLedger &ledger)
{
    const softnic::LedgerPage &p = ledger.page;
    std::vector<std::string> lines;
    lines.push_back(fmt::format("{} (process {}), board {} on {}:", ledger.program, ledger.pid, p.board, p.interface));
    lines.push_back(fmt::format("\tinterface: received {}, sent {}", p.received, p.sent));
    lines.push_back(fmt::format("\tboard: arrived {} = matched {} + unmatched {} + malformed {}", p.arrived, p.matched,
                                p.unmatched, p.malformed));
    for (unsigned ep = 0; ep < p.endpoints; ep++) {
        const softnic::LedgerEndpoint &e = p.endpoint[ep];
        if (!in_use(e))
            continue;
        lines.push_back(fmt::format(
            "\tendpoint {}: steered {} = delivered {} + pending {} + disabled {} + ring_full {} "
            "+ oversize {}; ring {} of {} bytes used at most",
            ep, e.steered, e.delivered, e.pending, e.disabled, e.ring_full, e.oversize, e.high_water, e.ring_bytes));
        lines.push_back(fmt::format("\tendpoint {}: requests {} = frames_sent {} + send_errors {} + bad_type {} + "
                                    "bad_header {} + bad_payload {}",
                                    ep, e.requests, e.frames_sent, e.send_errors, e.bad_type, e.bad_header,
                                    e.bad_payload));
    }
    return lines;
}

std::vector<softnic::LiveLedger> own_ledgers()
{
    /* An adapter under load brings its account up to date every few milliseconds. */
    usleep(15000);
    std::vector<softnic::LiveLedger> ledgers = softnic::find_ledgers();
    std::erase_if(ledgers, [](const softnic::LiveLedger &ledger) { return ledger.pid != getpid(); });
    return ledgers;
}

std::string drop_text(const Drop &d)
{
    return fmt::format("{} ({}): {}: {}; {}", d.reason, d.where, d.count, d.meaning, d.remedy);
}

void put_drops(const std::vector<Drop> &drops)
{
    if (!drops.empty())
        put_line("drops:");
    for (const Drop &drop : drops)
        put_line("\t" + drop_text(drop));
}

} // namespace tools
