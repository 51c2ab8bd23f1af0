/*
 * ruk-ping: request-response latency between two hosts, through libruk or kernel sockets at either end.
 */
#include "common.h"
#include "options.h"
#include "ping_placement.h"
#include "ping_report.h"
#include "ping_transport.h"

#include <nlohmann/json.hpp>

#include <cerrno>
#include <cstring>
#include <map>
#include <unistd.h>

using namespace tools;
using nlohmann::ordered_json;

namespace {

struct Options {
    TransportOptions transport;
    std::string destination;
    std::optional<int> processor;
    std::optional<uint64_t> limit; /* server */
    std::optional<double> seconds;
    size_t size = 64;
    uint64_t count = 10000;
    uint64_t warmup = 100;
    double interval_us = 0;
    double timeout_ms = 1000;
    bool connect = false; /* as without it */
    std::string csv;
    std::string plot;
    bool json = false;
};

void describe_common(CommandLine line, Options &opt)
{
    opt.transport.interface.add_options(line);
    line.flag("--kernel", opt.transport.kernel,
              "Use kernel sockets instead of libruk, on any interface or address of the host");
    line.option("--cpu", opt.processor, "Run on this processor").whole(0, 1023).type_name("N");
}

void describe_server(CommandLine line, Options &opt)
{
    describe_common(line, opt);
    line.option("-p,--port", opt.transport.port, "UDP port to answer on").port().type_name("PORT").required();
    add_wait_option(line, opt.transport.wait);
    line.option("-n,--count", opt.limit, "End after so many requests").whole().type_name("COUNT");
    line.option("-t,--time", opt.seconds, "End after so many seconds").seconds().type_name("SECONDS");
}

void describe_client(CommandLine line, Options &opt)
{
    describe_common(line, opt);
    line.option("destination", opt.destination, "The server, or any UDP echo service")
        .type_name("DEST:PORT")
        .required();
    line.option("-p,--port", opt.transport.port, "Source port (0 lets the host choose)").port().type_name("SRCPORT");
    add_wait_option(line, opt.transport.wait);
    line.option("--size", opt.size, "Payload bytes (64)").whole(0, SIZE_MAX).type_name("N");
    line.option("-n,--count", opt.count, "Requests to measure (10000)").whole(1, 1000000000).type_name("N");
    line.option("-t,--time", opt.seconds, "End the measurement after so many seconds, whatever the count")
        .seconds()
        .type_name("SECONDS");
    line.option("--warmup", opt.warmup, "Requests before those (100)").whole(0, 1000000000).type_name("N");
    line.option("--interval", opt.interval_us, "Microseconds from request to request (0: at once)")
        .number(0, 1e9)
        .type_name("US");
    line.option("--timeout", opt.timeout_ms, "Milliseconds until a request counts as lost (1000)")
        .number(0.001, 1e9)
        .type_name("MS");
    const Option connect =
        line.flag("--connect", opt.connect, "Send on a handle or connected socket (this is the default)");
    line.flag("--sendto", opt.transport.sendto, "Address each datagram").excludes(connect);
    line.option("--csv", opt.csv, "Write the whole distribution to a file").type_name("FILE");
    line.option("--plot", opt.plot, "Draw the distribution with gnuplot").type_name("FILE.png");
    line.flag("--json", opt.json, "Result as one JSON object");
}

/* Who spins and who sleeps, and a warning when the processors do not suffice. */
void announce_placement(const std::string &role, const Options &opt)
{
    auto describe = [](const Party &party) { return party.who + (party.spins ? " spins" : " sleeps"); };
    std::vector<Party> parties = own_parties(role, opt.transport.wait == WaitMode::spin, opt.transport.kernel);
    size_t spinners = 0;
    std::string text;
    for (const Party &party : parties)
        text += (text.empty() ? "" : "; ") + describe(party);
    note(fmt::format("{}; on processor {} of {}", text,
                     opt.processor ? std::to_string(*opt.processor) : processors_text(allowed_processors()),
                     sysconf(_SC_NPROCESSORS_ONLN)));
    for (const Party &other : other_parties()) {
        note(fmt::format("on this machine too: {}", describe(other)));
        parties.push_back(other);
    }
    for (const Party &party : parties)
        spinners += party.spins;
    size_t processors = static_cast<size_t>(sysconf(_SC_NPROCESSORS_ONLN));
    if (spinners > processors)
        note(fmt::format("warning: {} spinners on {} processors: they wait for each other, expect milliseconds",
                         spinners, processors));
}

/* ------------------------------------------------------------------ server */

int serve(Options opt)
{
    StopSignal stop;
    auto transport = make_transport(opt.transport, stop);
    if (opt.processor)
        pin_to_processor(*opt.processor);
    announce_placement("server", opt);
    note(fmt::format("answering on {}", endpoint_text(transport->local())));

    std::vector<uint8_t> buffer(receive_buffer_size);
    size_t limit = transport->interface().max_payload();
    std::map<std::string, uint64_t> refused;
    uint64_t answered = 0;
    uint64_t requests = 0;
    int64_t deadline = deadline_after(opt.seconds);
    while (!opt.limit || requests < *opt.limit) {
        size_t len = 0;
        int rc = transport->receive(buffer.data(), buffer.size(), &len, deadline);
        if (rc == EAGAIN || rc == ECANCELED)
            break;
        if (rc != 0)
            fail("cannot receive: {}", errno_text(rc));
        requests++;
        if (len > limit) {
            refused["too long"]++;
            continue;
        }
        rc = transport->reply(buffer.data(), len);
        if (rc == 0)
            answered++;
        else
            refused[errno_name(rc)]++;
    }
    std::string text = fmt::format("answered {} of {} requests", answered, requests);
    for (const auto &[reason, n] : refused)
        text += fmt::format(", {} {}", n, reason);
    put_line(text);
    return opt.limit && requests < *opt.limit ? exit_incomplete : exit_ok;
}

/* ------------------------------------------------------------------ client */

struct Result {
    std::vector<uint32_t> round_trips_ns;
    uint64_t sent = 0;
    uint64_t lost = 0;
    int64_t elapsed_ns = 0;
    bool time_ran_out = false;
    uint64_t late = 0; /* datagrams that were not the awaited answer: too late, a second time, or foreign */
    std::map<std::string, uint64_t> refused;
    std::vector<std::pair<ThreadUse, double>> threads; /* with the share of a processor that each took */
};

class Client {
public:
    Client(const Options &opt, Transport &transport, const StopSignal &stop)
        : opt_(opt), transport_(transport), stop_(stop), request_(opt.size), reply_(receive_buffer_size)
    {
        for (size_t i = 0; i < request_.size(); i++)
            request_[i] = static_cast<uint8_t>(i);
        result_.round_trips_ns.reserve(opt.count);
    }

    Result run()
    {
        for (uint64_t i = 0; i < opt_.warmup && !given_up(); i++)
            exchange(false);
        result_.late = 0;

        std::vector<ThreadUse> before = thread_use();
        /* The end first: time lost between the two readings must not add requests. */
        int64_t end = deadline_after(opt_.seconds);
        int64_t start = monotonic_ns();
        for (uint64_t i = 0; i < opt_.count && !given_up(); i++) {
            int64_t due = start + static_cast<int64_t>(static_cast<double>(i) * opt_.interval_us * 1000);
            wait_until(std::min(due, end));
            if (monotonic_ns() >= end) {
                result_.time_ran_out = true;
                break;
            }
            exchange(true);
        }
        result_.elapsed_ns = monotonic_ns() - start;
        note_threads(before);
        return std::move(result_);
    }

private:
    /* Nobody is there when not one of the first requests was answered. */
    bool given_up() const { return stop_.requested() || (!anybody_ && unanswered_ >= 5); }

    void wait_until(int64_t when)
    {
        if (opt_.interval_us <= 0)
            return;
        if (opt_.transport.wait != WaitMode::spin)
            stop_.sleep_until(when);
        while (monotonic_ns() < when && !stop_.requested()) {
        }
    }

    /* As much of the request's number as fits is what tells replies apart. */
    size_t stamp_size() const { return std::min(request_.size(), sizeof sequence_); }

    bool is_answer(size_t len) const
    {
        return len == request_.size() && memcmp(reply_.data(), &sequence_, stamp_size()) == 0;
    }

    void exchange(bool counted)
    {
        sequence_++;
        memcpy(request_.data(), &sequence_, stamp_size());
        int64_t sent_at = monotonic_ns();
        int rc = transport_.send(request_.data(), request_.size());
        if (rc != 0) {
            if (counted)
                result_.refused[errno_name(rc)]++;
            unanswered_++;
            return;
        }
        int64_t deadline = sent_at + static_cast<int64_t>(opt_.timeout_ms * 1e6);
        for (;;) {
            size_t len = 0;
            rc = transport_.receive(reply_.data(), reply_.size(), &len, deadline);
            int64_t now = monotonic_ns();
            if (rc == ECANCELED)
                return;
            if (rc == EAGAIN)
                break;
            if (rc != 0)
                fail("cannot receive: {}", errno_text(rc));
            if (is_answer(len)) {
                anybody_ = true;
                if (counted) {
                    result_.sent++;
                    result_.round_trips_ns.push_back(
                        static_cast<uint32_t>(std::min<int64_t>(now - sent_at, UINT32_MAX)));
                }
                return;
            }
            result_.late++;
        }
        unanswered_++;
        if (counted) {
            result_.sent++;
            result_.lost++;
        }
    }

    void note_threads(const std::vector<ThreadUse> &before)
    {
        for (const ThreadUse &use : thread_use())
            for (const ThreadUse &earlier : before)
                if (earlier.tid == use.tid && result_.elapsed_ns > 0)
                    result_.threads.emplace_back(use, static_cast<double>(use.cpu_ns - earlier.cpu_ns) /
                                                          static_cast<double>(result_.elapsed_ns));
    }

    const Options &opt_;
    Transport &transport_;
    const StopSignal &stop_;
    std::vector<uint8_t> request_;
    std::vector<uint8_t> reply_;
    uint64_t sequence_ = 0;
    bool anybody_ = false;
    uint64_t unanswered_ = 0;
    Result result_;
};

void print_json(const Options &opt, const Result &result, const Distribution *distribution)
{
    ordered_json out = {{"via", opt.transport.kernel ? "kernel" : "libruk"},
                        {"wait", wait_mode_name(opt.transport.wait)},
                        {"size", opt.size},
                        {"sent", result.sent},
                        {"answered", result.round_trips_ns.size()},
                        {"lost", result.lost},
                        {"late", result.late}};
    ordered_json refused = ordered_json::object();
    for (const auto &[reason, n] : result.refused)
        refused[reason] = n;
    out["refused"] = refused;
    ordered_json figures = ordered_json::object();
    if (distribution)
        for (const auto &[name, ns] : distribution->figures())
            figures[name] = ns;
    out["half_round_trip_ns"] = figures;
    ordered_json threads = ordered_json::array();
    for (const auto &[use, share] : result.threads)
        threads.push_back({{"name", use.name}, {"cpu_share", share}, {"processor", use.processor}});
    out["threads"] = threads;
    put_line(json_text(out));
}

void print_text(const Options &opt, const Result &result, const Distribution *distribution)
{
    std::string head =
        fmt::format("{}, {} bytes: {} of {} answered, {} lost", opt.transport.kernel ? "kernel" : "libruk", opt.size,
                    result.round_trips_ns.size(), result.sent, result.lost);
    if (result.late)
        head += fmt::format(", {} late", result.late);
    for (const auto &[reason, n] : result.refused)
        head += fmt::format(", {} not sent ({})", n, reason);
    put_line(head);
    if (distribution) {
        std::string names = "half round trip, us:";
        std::string values = "                    ";
        for (const auto &[name, ns] : distribution->figures()) {
            names += fmt::format(" {:>9}", name);
            values += fmt::format(" {:>9.3f}", ns / 1000);
        }
        put_line(names);
        put_line(values);
    }
    for (const auto &[use, share] : result.threads)
        put_line(fmt::format("thread {} ({}): {:.0f} % of a processor, last on {}", use.name, use.tid, share * 100,
                             use.processor));
}

/* A spinning thread that did not have its processor for itself has measured the others' work. */
void warn_of_load(const Options &opt, const Result &result)
{
    constexpr double own_processor = 0.8;
    constexpr int64_t enough_to_tell_ns = 200'000'000; /* processor time comes in ticks of 10 ms */
    if (opt.transport.wait != WaitMode::spin || result.elapsed_ns < enough_to_tell_ns)
        return;
    for (const auto &[use, share] : result.threads)
        if (use.tid == getpid() && share < own_processor)
            note(fmt::format("warning: the spinning client had only {:.0f} % of a processor: this machine is busy with "
                             "something else, and the figures show it",
                             share * 100));
}

int measure(Options opt)
{
    opt.transport.destination = parse_destination(opt.destination);
    if (!opt.plot.empty())
        require_gnuplot();

    StopSignal stop;
    auto transport = make_transport(opt.transport, stop);
    if (opt.size > transport->interface().max_payload())
        fail("a payload of {} bytes does not fit a frame: {} carries {} at most", opt.size, transport->interface().name,
             transport->interface().max_payload());
    if (opt.processor)
        pin_to_processor(*opt.processor);
    announce_placement("client", opt);

    Result result = Client(opt, *transport, stop).run();
    bool complete =
        result.round_trips_ns.size() == (result.time_ran_out ? result.sent : opt.count) && result.refused.empty();
    std::optional<Distribution> distribution;
    size_t answered = result.round_trips_ns.size();
    if (answered > 0)
        distribution.emplace(result.round_trips_ns);
    const Distribution *shown = distribution ? &*distribution : nullptr;
    opt.json ? print_json(opt, result, shown) : print_text(opt, result, shown);
    warn_of_load(opt, result);
    if (!shown) {
        note("no request was answered");
        return exit_incomplete;
    }
    if (!opt.csv.empty())
        shown->write_csv(opt.csv);
    if (!opt.plot.empty())
        plot(*shown,
             fmt::format("{} to {}, {} bytes, {} round trips", opt.transport.kernel ? "kernel sockets" : "libruk",
                         opt.destination, opt.size, answered),
             opt.plot);
    return complete ? exit_ok : exit_incomplete;
}

} // namespace

int main(int argc, char **argv)
{
    Program line("Measures request-response latency, through libruk or kernel sockets at either end.", "ruk-ping");
    Options server_options;
    Options client_options;
    client_options.transport.wait = WaitMode::spin;
    // Before the subcommands, which take it over when they are made.
    line.footer(
        "Exit status: 0 of the client, every request was answered, of the server, COUNT was reached or none was\n"
        "given, whatever became of the replies; 1 not so; 2 error.\n"
        "SIGINT and SIGTERM end it with what it has.");
    const CommandLine server = line.command("server", "Send every datagram back to where it came from");
    const CommandLine client = line.command("client", "Send requests and measure until their replies arrive");
    describe_server(server, server_options);
    describe_client(client, client_options);
    return line.run(argc, argv, [&] { return server.given() ? serve(server_options) : measure(client_options); });
}
