#include "ledger_view.h"

#include "common.h"

#include <fmt/format.h>

#include <string_view>
#include <unistd.h>

namespace tools {

using nlohmann::ordered_json;

namespace {

struct Words {
    std::string_view reason, meaning, remedy;
};

constexpr Words library_reasons[] = {
    {"dropped_badproto", "frames neither IPv4 nor VLAN-tagged, let in by the filter mode",
     "none; the normal filter mode keeps them out"},
    {"dropped_badfilter",
     "datagrams for another port, address or source than the membership's, or a switch's keyframes where the adapter "
     "dates datagrams",
     "none for sources that were not joined; for keyframes open without RUK_OPEN_HW_TIMESTAMPING; else a filter mode "
     "lets in more than the ports"},
    {"dropped_nosock",
     "datagrams of a channel that was unbound or a group that was left meanwhile, or let in by a filter mode "
     "that has ended, or a switch's keyframes where the adapter dates datagrams",
     "none after an unbind or a leave; for keyframes open without RUK_OPEN_HW_TIMESTAMPING; else use the normal filter "
     "mode"},
    {"dropped_runts", "frames shorter than their headers", "look for a damaged sender with ruk-capture"},
    {"keyframes_malformed", "frames of the switch's keyframe protocol, of a length that keyframes do not have",
     "set OXEL_ARISTA_ENABLE_SKEW as the switch has it"},
    {"dropped_broadcast_filtered", "broadcasts to another subnet's broadcast address",
     "compare the sender's netmask with the interface's"},
};

/* The library's other drop counters. */
constexpr Words other_library_reason = {
    {}, "a counter of adapters that check and buffer differently, which is 0 with this one", "report it"};

/* A counter of the adapter's account that tells of a loss. */
template <typename Account> struct Reason {
    uint64_t Account::*counter;
    Words words;
};

using Page = softnic::LedgerPage;
constexpr Reason<Page> interface_reasons[] = {
    {&Page::rx_dropped,
     {"rx_dropped", "frames lost before the adapter saw them: the packet ring was full",
      "give the adapter's thread a processor of its own (RUK_SOFTNIC_CPU), or the ring more room "
      "(RUK_SOFTNIC_PACKETQ)"}},
    {&Page::rx_malformed,
     {"rx_malformed",
      "frames that the interface, or a replayed file, handed over incomplete, or without the trailer that they should "
      "bear",
      "look at the sender's offload settings, and whether the switch adds its trailer (--switch=wire); for a replay "
      "capture whole frames (tcpdump -s 0)"}},
    {&Page::tx_errors,
     {"tx_errors", "frames that the interface refused to send", "look at its link, queue length and MTU"}},
};

constexpr Reason<Page> board_reasons[] = {
    {&Page::unmatched,
     {"unmatched", "frames that no endpoint asked for: the kernel's, but for those of a replayed file, which are lost",
      "none: they went their usual way, as broadcasts to a subnet's own address do, which RUK_BIND_BROADCAST does not "
      "ask for; for a replay bind or join before it begins"}},
    {&Page::malformed,
     {"malformed", "frames shorter than an Ethernet header, or longer than a length field can say",
      "look for a damaged sender"}},
    {&Page::raw_dropped,
     {"raw_dropped", "frames for a raw endpoint that had 256 waiting already",
      "take the frames more often, from a thread of its own"}},
};

using Queues = softnic::LedgerEndpoint;
constexpr std::string_view damaged = "memory of the request window was damaged";
constexpr Reason<Queues> endpoint_reasons[] = {
    {&Queues::disabled,
     {"disabled", "frames that came while the endpoint's queues were off", "enable the endpoint before binding"}},
    {&Queues::ring_full,
     {"ring_full", "frames for which the event ring had no room: the application did not keep up",
      "receive faster, or ask for a larger ring"}},
    {&Queues::oversize, {"oversize", "frames larger than an event", "lower the sender's MTU"}},
    {&Queues::bad_flow,
     {"bad_flow", "reports of consumption that cannot be, passed over", "memory of the flow window was damaged"}},
    {&Queues::send_errors,
     {"send_errors", "datagrams that the interface refused", "look at its link, queue length and MTU"}},
    {&Queues::bad_type, {"bad_type", "send requests of a kind that is not served", damaged}},
    {&Queues::bad_header, {"bad_header", "send requests with an impossible header length", damaged}},
    {&Queues::bad_payload, {"bad_payload", "send requests whose payload lies outside its ring", damaged}},
    {&Queues::post_overflow,
     {"post_overflow", "send requests beyond those that may be in flight",
      "only a program that writes the request window itself can make them; if yours does not, report it"}},
    {&Queues::lost_requests,
     {"lost_requests",
      "send requests beyond those that can be kept, and traps that came late, behind each of which any number of "
      "requests may be lost",
      "block signals through the C library in threads that send; a program that writes the request window itself has "
      "to wait for completions; else report it"}},
};

void add(std::vector<Drop> &drops, const Words &words, std::string_view reason, const std::string &where,
         uint64_t count)
{
    if (count != 0)
        drops.push_back({std::string(reason), where, count, std::string(words.meaning), std::string(words.remedy)});
}

template <typename Account, size_t N>
void add_all(std::vector<Drop> &drops, const Reason<Account> (&reasons)[N], const std::string &where,
             const Account &account)
{
    for (const Reason<Account> &r : reasons)
        add(drops, r.words, r.words.reason, where, account.*r.counter);
}

} // namespace

std::vector<Drop> library_drops(const std::vector<std::pair<std::string, uint64_t>> &counters)
{
    std::vector<Drop> drops;
    for (const auto &[name, value] : counters) {
        const Words *words = name.starts_with("dropped_") ? &other_library_reason : nullptr;
        for (const Words &known : library_reasons)
            if (known.reason == name)
                words = &known;
        if (words != nullptr)
            add(drops, *words, name, "library", value);
    }
    return drops;
}

std::vector<Drop> adapter_drops(const softnic::LedgerPage &page)
{
    std::vector<Drop> drops;
    add_all(drops, interface_reasons, "interface", page);
    add_all(drops, board_reasons, "board", page);
    for (unsigned ep = 0; ep < page.endpoints; ep++)
        add_all(drops, endpoint_reasons, fmt::format("endpoint {}", ep), page.endpoint[ep]);
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

std::string board_text(const softnic::LiveLedger &ledger)
{
    return fmt::format("{} (process {}), board {} on {}", printable(ledger.program), ledger.pid, ledger.page.board,
                       printable(ledger.page.interface));
}

std::vector<std::string> ledger_lines(const softnic::LiveLedger &ledger)
{
    const softnic::LedgerPage &p = ledger.page;
    std::vector<std::string> lines;
    lines.push_back(fmt::format("{}:", board_text(ledger)));
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

std::string no_ledgers_text(const std::string &interface)
{
    return fmt::format("no running program in this network namespace uses the software adapter{}{} (that this user may "
                       "look into)",
                       interface.empty() ? "" : " on ", interface);
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
