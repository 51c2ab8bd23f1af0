/*
 * ruk-recv: prints the datagrams that arrive on UDP ports of an adapter, one line each.
 *
 * Accounts for what it leaves in the ring, so it is linked with the archive.
 */
#include "common.h"
#include "ledger_view.h"
#include "options.h"
#include "receive_account.h"

#include <nlohmann/json.hpp>

#include <set>

using namespace tools;
using nlohmann::ordered_json;

namespace {

struct Options {
    InterfaceChoice interface;
    std::vector<uint16_t> ports;
    std::vector<std::string> groups;
    std::vector<std::string> blocks;
    std::optional<uint64_t> count;
    std::optional<double> seconds;
    WaitMode wait = WaitMode::nonblock;
    ruk_filter_mode filter = RUK_RECV_FILTER_NORMAL;
    bool hw_timestamps = false;
    bool broadcast = false;
    bool reuse = false;
    bool json = false;
    bool stats = false;
};

void describe_options(CommandLine line, Options &opt)
{
    opt.interface.add_options(line);
    line.option("-p,--port", opt.ports, "UDP port to receive on (repeatable; 0 lets the host choose)")
        .port()
        .type_name("PORT")
        .repeatable();
    line.option("-g,--group", opt.groups, "Multicast group to join, from any source or from one (repeatable)")
        .type_name("GROUP[@SOURCE]")
        .repeatable();
    line.option("--block", opt.blocks,
                "Have the kernel socket block a source of a joined group (repeatable); the adapter goes on delivering "
                "what arrives, but routers are told and may keep the source away")
        .type_name("GROUP@SOURCE")
        .repeatable();
    line.option("-n,--count", opt.count, "End after so many datagrams").whole().type_name("COUNT");
    line.option("-t,--time", opt.seconds, "End after so many seconds").seconds().type_name("SECONDS");
    add_wait_option(line, opt.wait);
    line.flag("--hw-timestamps", opt.hw_timestamps, "Date datagrams by the adapter's clock");
    line.choice(
            "--filter", {"normal", "allmulti", "raw"}, "normal",
            [&opt](const std::string &mode) {
                opt.filter = mode == "raw"        ? RUK_RECV_FILTER_RAW
                             : mode == "allmulti" ? RUK_RECV_FILTER_ALLMULTI
                                                  : RUK_RECV_FILTER_NORMAL;
            },
            "Which frames to receive: normal (datagrams of the ports), allmulti (every multicast frame too), "
            "raw (every frame with its 4-byte trailer, less the last 2 bytes)")
        .type_name("MODE");
    line.flag("--broadcast", opt.broadcast, "Receive broadcasts (to 255.255.255.255) to the ports as well");
    line.flag("--reuse", opt.reuse, "Share the ports with other programs that ask for it too");
    line.flag("--json", opt.json, "One JSON object a line");
    line.flag("--stats", opt.stats, "Print the endpoint's counters at the end, and where every frame went");
    line.footer("Exit status: 0 COUNT was reached or none was given; 1 it was not reached; 2 error.\n"
                "SIGINT and SIGTERM end it cleanly.");
}

/* A group joined twice on a channel would be released twice. */
std::vector<Group> parse_groups(const std::vector<std::string> &texts)
{
    std::vector<Group> groups;
    std::set<uint32_t> any_source;
    std::set<uint32_t> some_source;
    std::set<std::string> seen;
    for (const std::string &text : texts) {
        Group group = parse_group(text);
        for (const Group &earlier : groups)
            if (group.source && earlier.source && group.group.s_addr == earlier.group.s_addr &&
                group.source->s_addr == __builtin_bswap32(earlier.source->s_addr))
                fail("group {}: the library cannot tell source {} from {}, whose bytes mirror it",
                     addr_text(group.group), addr_text(*group.source), addr_text(*earlier.source));
        if (!seen.insert(group_text(group)).second)
            fail("group {} is given twice", group_text(group));
        (group.source ? some_source : any_source).insert(group.group.s_addr);
        if (any_source.count(group.group.s_addr) && some_source.count(group.group.s_addr))
            fail("group {} is given both with and without a source", addr_text(group.group));
        groups.push_back(group);
    }
    return groups;
}

std::vector<Group> parse_blocks(const std::vector<std::string> &texts, const std::vector<Group> &joined)
{
    std::vector<Group> blocks;
    for (const std::string &text : texts) {
        Group block = parse_group(text);
        if (!block.source)
            fail("--block: '{}' names no source; write GROUP@SOURCE", text);
        bool member = false;
        for (const Group &group : joined)
            member = member || (group.group.s_addr == block.group.s_addr && !group.source);
        if (!member)
            fail("--block {}: join the group with -g {}", text, addr_text(block.group));
        blocks.push_back(block);
    }
    return blocks;
}

void check_ports(const Options &opt)
{
    std::set<uint16_t> seen;
    for (uint16_t port : opt.ports)
        if (port != 0 && !seen.insert(port).second)
            fail("port {} is given twice", port);
    if (opt.ports.empty() && opt.filter == RUK_RECV_FILTER_NORMAL)
        fail("which port? (-p PORT)");
    if (opt.ports.empty() && !opt.groups.empty())
        fail("a group is joined on a port: give -p PORT");
}

void join(ruk_channel_t channel, const std::vector<Group> &groups, const std::vector<Group> &blocks)
{
    for (const Group &group : groups) {
        int rc = group.source ? ruk_mcast_join_source(channel, &group.group, &*group.source)
                              : ruk_mcast_join(channel, &group.group, nullptr);
        if (rc != 0)
            fail("cannot join {}: {}", group_text(group), errno_text(rc));
    }
    for (const Group &block : blocks) {
        int rc = ruk_mcast_block_source(channel, &block.group, &*block.source);
        if (rc != 0)
            fail("cannot block {}: {}", group_text(block), errno_text(rc < 0 ? errno : rc));
    }
}

std::string hex(const uint8_t *data, size_t len)
{
    static const char digits[] = "0123456789abcdef";
    std::string text(2 * len, '\0');
    for (size_t i = 0; i < len; i++) {
        text[2 * i] = digits[data[i] >> 4];
        text[2 * i + 1] = digits[data[i] & 15];
    }
    return text;
}

/* The first bytes as text. */
std::string preview(const uint8_t *data, size_t len)
{
    constexpr size_t shown = 32;
    const std::string_view first(reinterpret_cast<const char *>(data), std::min(len, shown));
    return '"' + printable(first, "\"\\") + (len > shown ? "\"..." : "\"");
}

/*
 * The length comes from the sender's header: more than the frame holds means that there is no such payload. Headers
 * are taken for the shortest, Ethernet, IPv4 and UDP: whole frames are what the raw filter mode is for.
 */
bool malformed(const Options &opt, const Endpoint &endpoint, const ruk_recv_info &info)
{
    constexpr uint64_t headers = 14 + 20 + 8;
    return opt.filter == RUK_RECV_FILTER_RAW ? info.msg_len > receive_buffer_size
                                             : info.msg_len + headers > last_frame_bytes(endpoint.dev());
}

/* A frame that is not IPv4, in the raw filter mode, has no addresses. */
bool has_addresses(const ruk_recv_info &info) { return info.sin_from.sin_family == AF_INET; }

/*
 * Where the datagram's time comes from. An endpoint that the adapter dates does not recognise a switch's keyframes,
 * as long as the adapter's clock does not stand at 0; one that it does not date has times from a switch or none.
 */
const char *time_source(const Options &opt, const ruk_recv_info &info)
{
    if (info.timestamp == 0)
        return "none";
    return opt.hw_timestamps ? "adapter" : "switch";
}

std::string json_line(const Options &opt, const ruk_recv_info &info, bool bad, const uint8_t *data, size_t len)
{
    ordered_json line;
    line["from"] = has_addresses(info) ? ordered_json(endpoint_text(info.sin_from)) : ordered_json(nullptr);
    line["to"] = has_addresses(info) ? ordered_json(endpoint_text(info.sin_to)) : ordered_json(nullptr);
    line["len"] = info.msg_len;
    line["timestamp_ns"] = info.timestamp;
    if (bad)
        line["malformed"] = true;
    else
        line["payload"] = hex(data, len);
    line["timestamp_source"] = time_source(opt, info);
    return json_text(line);
}

std::string text_line(const Options &opt, const ruk_recv_info &info, bool bad, const uint8_t *data, size_t len)
{
    std::string line = info.timestamp == 0 ? "-" : time_text(info.timestamp) + " " + time_source(opt, info);
    if (has_addresses(info))
        line += fmt::format(" {} > {}", endpoint_text(info.sin_from), endpoint_text(info.sin_to));
    else
        line += " frame";
    line += fmt::format(" len {} ", info.msg_len);
    return line + (bad ? "malformed" : preview(data, len));
}

struct Tally {
    uint64_t delivered = 0;
    uint64_t malformed = 0;
};

void print_stats(const Options &opt, const Endpoint &endpoint, const Tally &tally)
{
    auto counters = endpoint_counters(endpoint.dev());

    /* In front of the library: the boards that the software adapter keeps in this process. */
    const std::vector<softnic::LiveLedger> ledgers = own_ledgers_covering(endpoint.dev());
    const ReceiveAccount account = receive_account(endpoint.dev(), tally.delivered, tally.malformed, counters, ledgers);

    std::vector<Drop> drops = library_drops(account.parts);
    counters.insert(counters.begin(), {{"delivered", tally.delivered}, {"malformed", tally.malformed}});
    for (const softnic::LiveLedger &ledger : ledgers)
        for (Drop &drop : adapter_drops(ledger.page))
            drops.push_back(std::move(drop));
    if (opt.json) {
        ordered_json stats;
        for (const auto &[name, value] : counters)
            stats[name] = value;
        ordered_json object = {{"stats", stats},
                               {"account", account_object(account)},
                               {"drops", drops_json(drops)},
                               {"adapters", ordered_json::array()}};
        for (const softnic::LiveLedger &ledger : ledgers)
            object["adapters"].push_back(ledger_object(ledger));
        put_line(json_text(object));
        return;
    }
    put_line("counters:");
    for (const auto &[name, value] : counters)
        put_line(fmt::format("\t{:<26} = {:12}", name, value));
    for (const std::string &line : account_lines(account))
        put_line(line);
    for (const softnic::LiveLedger &ledger : ledgers)
        for (const std::string &line : ledger_lines(ledger))
            put_line(line);
    put_drops(drops);
}

int receive_all(const Options &opt, const Endpoint &endpoint, const StopSignal &stop, Tally &tally)
{
    int64_t deadline = deadline_after(opt.seconds);
    Receiver receiver(endpoint.dev(), opt.wait, stop);
    std::vector<uint8_t> buffer(receive_buffer_size);
    while (!opt.count || tally.delivered < *opt.count) {
        ruk_recv_info info;
        int rc = receiver.receive(buffer.data(), buffer.size(), &info, deadline);
        if (rc == EAGAIN || rc == ECANCELED)
            break;
        if (rc != 0)
            fail("cannot receive: {}", errno_text(rc));
        const bool bad = malformed(opt, endpoint, info);
        (bad ? tally.malformed : tally.delivered)++;
        size_t len = bad ? 0 : info.msg_len;
        put_line(opt.json ? json_line(opt, info, bad, buffer.data(), len)
                          : text_line(opt, info, bad, buffer.data(), len));
    }
    return opt.count && tally.delivered < *opt.count ? exit_incomplete : exit_ok;
}

int receive(const Options &opt)
{
    check_ports(opt);
    std::vector<Group> groups = parse_groups(opt.groups);
    std::vector<Group> blocks = parse_blocks(opt.blocks, groups);

    StopSignal stop;
    Endpoint endpoint(opt.interface, opt.hw_timestamps ? RUK_OPEN_HW_TIMESTAMPING : 0);
    int flags = (opt.broadcast ? RUK_BIND_BROADCAST : 0) | (opt.reuse ? RUK_BIND_REUSE : 0);
    std::string where;
    for (uint16_t port : opt.ports) {
        ruk_channel_t channel = endpoint.bind(port, flags);
        join(channel, groups, blocks);
        where += (where.empty() ? "" : ", ") + endpoint_text(channel_address(channel));
    }
    if (opt.filter != RUK_RECV_FILTER_NORMAL) {
        int rc = ruk_set_filter_mode(endpoint.dev(), opt.filter);
        if (rc != 0)
            fail("cannot set the filter mode: {}", errno_text(rc));
    }
    note(fmt::format("listening on {}", where.empty() ? endpoint.interface().name : where));

    Tally tally;
    int status = receive_all(opt, endpoint, stop, tally);
    if (opt.stats)
        print_stats(opt, endpoint, tally);
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    Program line("Prints the datagrams that arrive on UDP ports of an adapter, one line each.", "ruk-recv");
    Options opt;
    describe_options(line, opt);
    return line.run(argc, argv, [&] { return receive(opt); });
}
