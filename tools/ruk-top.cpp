/*
 * ruk-top: what the boards of the software adapter do right now, in all processes that run one: rates, fill of the
 * event rings, and drops by reason.
 */
#include "common.h"
#include "ledger_view.h"
#include "options.h"

#include <map>
#include <unistd.h>

using namespace tools;
using nlohmann::ordered_json;
using softnic::LedgerEndpoint;
using softnic::LiveLedger;

namespace {

struct Options {
    double seconds = 1;
    std::optional<uint64_t> count;
    std::string interface;
    bool json = false;
};

using Key = std::pair<int, unsigned>; /* process, board */

double rate(uint64_t now, uint64_t before, double seconds)
{
    return seconds > 0 && now >= before ? static_cast<double>(now - before) / seconds : 0;
}

uint64_t lost(const LedgerEndpoint &e) { return e.disabled + e.ring_full + e.oversize; }

/* 12.3k, 4.5M */
std::string short_number(double n)
{
    const char *unit = "";
    for (const char *next : {"k", "M", "G"}) {
        if (n < 10000)
            break;
        n /= 1000;
        unit = next;
    }
    return fmt::format("{:.{}f}{}", n, *unit != '\0' ? 1 : 0, unit);
}

std::string percent(uint64_t part, uint64_t whole)
{
    return whole != 0 ? fmt::format("{:.1f}%", 100 * static_cast<double>(part) / static_cast<double>(whole)) : "-";
}

/* What changed between two looks at a board. */
struct Look {
    const LiveLedger &now;
    const LiveLedger *before; /* null at the first look: rates are not known yet */
    double seconds;

    std::string per_second(uint64_t LedgerEndpoint::*counter, unsigned ep) const
    {
        if (before == nullptr)
            return "-";
        return short_number(rate(now.page.endpoint[ep].*counter, before->page.endpoint[ep].*counter, seconds));
    }
};

void print_board(const Look &look)
{
    const softnic::LedgerPage &p = look.now.page;
    put_line(fmt::format("{}: arrived {}, unmatched {}, lost before the adapter {}", board_text(look.now), p.arrived,
                         p.unmatched, p.rx_dropped));
    put_line(fmt::format("  {:>8} {:>10} {:>10} {:>10} {:>8} {:>8} {:>10} {:>10}", "endpoint", "received/s", "received",
                         "dropped", "ring", "peak", "sent/s", "sent"));
    for (unsigned ep = 0; ep < p.endpoints; ep++) {
        const LedgerEndpoint &e = p.endpoint[ep];
        if (in_use(e))
            put_line(fmt::format("  {:>8} {:>10} {:>10} {:>10} {:>8} {:>8} {:>10} {:>10}", ep,
                                 look.per_second(&LedgerEndpoint::delivered, ep), e.delivered, lost(e),
                                 percent(e.unconsumed, e.ring_bytes), percent(e.high_water, e.ring_bytes),
                                 look.per_second(&LedgerEndpoint::frames_sent, ep), e.frames_sent));
    }
    put_drops(adapter_drops(p));
}

ordered_json board_json(const Look &look)
{
    ordered_json object = ledger_object(look.now);
    for (ordered_json &endpoint : object["endpoints"]) {
        const unsigned ep = endpoint["endpoint"];
        if (look.before == nullptr)
            continue;
        const LedgerEndpoint &now = look.now.page.endpoint[ep], &before = look.before->page.endpoint[ep];
        endpoint["delivered_per_second"] = rate(now.delivered, before.delivered, look.seconds);
        endpoint["sent_per_second"] = rate(now.frames_sent, before.frames_sent, look.seconds);
    }
    return object;
}

int watch(const Options &opt)
{
    StopSignal stop;
    std::map<Key, LiveLedger> last;
    int64_t last_look = 0;
    bool any = false;
    const bool redraw = !opt.json && isatty(STDOUT_FILENO) != 0;
    for (uint64_t n = 0; !stop.requested() && (!opt.count || n < *opt.count); n++) {
        if (n != 0)
            stop.sleep_until(last_look + static_cast<int64_t>(opt.seconds * 1e9));
        if (stop.requested())
            break;
        const int64_t now = monotonic_ns();
        std::map<Key, LiveLedger> seen;
        for (LiveLedger &ledger : softnic::find_ledgers())
            if (opt.interface.empty() || opt.interface == ledger.page.interface)
                seen.emplace(Key{ledger.pid, ledger.page.board}, std::move(ledger));

        if (redraw)
            put_line("\033[H\033[2Jruk-top: Ctrl-C ends it");
        ordered_json list = ordered_json::array();
        for (const auto &[key, ledger] : seen) {
            const auto before = last.find(key);
            const Look look = {ledger, before == last.end() ? nullptr : &before->second,
                               static_cast<double>(now - last_look) / 1e9};
            if (opt.json)
                list.push_back(board_json(look));
            else
                print_board(look);
        }
        if (opt.json)
            put_line(json_text({{"ledgers", list}}));
        else if (seen.empty())
            put_line(no_ledgers_text(opt.interface));
        any = any || !seen.empty();
        last = std::move(seen);
        last_look = now;
    }
    return any ? exit_ok : exit_incomplete;
}

} // namespace

int main(int argc, char **argv)
{
    Program line(
        "Shows what the boards of the software adapter do, in all processes in this network namespace that this user "
        "may look into: rates, fill of the event rings, drops by reason.",
        "ruk-top");
    Options opt;
    line.option("-d,--delay", opt.seconds, "Seconds between two looks (default 1)")
        .number(0.01, 3600)
        .type_name("SECONDS");
    line.option("-n,--count", opt.count, "End after so many looks").whole(1, 1000000000).type_name("COUNT");
    line.option("-i,--interface", opt.interface, "Only boards on this interface").type_name("IF");
    line.flag("--json", opt.json, "One JSON object a look");
    line.footer("Exit status: 0 there was something to show; 1 there was not; 2 error.\n"
                "'ring' is how full the event ring is, 'peak' how full it, or the last one, ever was.");
    return line.run(argc, argv, [&] { return watch(opt); });
}
