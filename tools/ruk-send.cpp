/*
 * ruk-send: sends datagrams through an adapter.
 */
#include "common.h"
#include "options.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <unistd.h>

using namespace tools;
using nlohmann::ordered_json;

namespace {

constexpr int64_t second_ns = 1'000'000'000;

struct Options {
    InterfaceChoice interface;
    std::string destination;
    uint16_t source_port = 0;
    std::optional<std::string> text;
    std::optional<std::string> file;
    std::optional<size_t> size;
    std::optional<uint64_t> count;
    std::optional<double> per_second;
    int ttl = 0; /* 0: the library's choice */
    bool connect = false;
    bool sendto = false;
    bool nonblock = false;
    bool json = false;
};

void describe_options(CommandLine line, Options &opt)
{
    opt.interface.add_options(line);
    line.option("destination", opt.destination, "Where to send").type_name("DEST:PORT").required();
    line.option("-p,--port", opt.source_port, "Source port (0 lets the host choose)").port().type_name("SRCPORT");
    const CommandLine payload =
        line.group("payload", "What to send; without any of these each line of standard input is a datagram", 0, 1);
    payload.option("-m,--message", opt.text, "This text").type_name("TEXT");
    payload.option("-f,--file", opt.file, "The contents of a file, as one datagram").type_name("FILE");
    payload.option("--size", opt.size, "So many bytes (0, 1, 2, ... 255, 0, ...)").whole(0, SIZE_MAX).type_name("N");
    line.option("-n,--count", opt.count, "How many datagrams (1; of standard input: all lines)")
        .whole()
        .type_name("COUNT");
    line.option("-r,--rate", opt.per_second, "Datagrams a second (as fast as they go)")
        .number(0.001, 1e9)
        .type_name("PER_SECOND");
    const Option ttl =
        line.option("--ttl", opt.ttl, "Time to live, 1 to 64 (64; to a group 1)").whole(1, 64).type_name("N");
    const Option connect = line.flag("--connect", opt.connect, "Send on a handle made once (this is the default)");
    line.flag("--sendto", opt.sendto, "Send to the address each time, on the handle that the library keeps")
        .excludes(connect)
        .excludes(ttl);
    line.flag("--nonblock", opt.nonblock, "Do not wait for room: what does not fit counts as refused");
    line.flag("--json", opt.json, "Summary as one JSON object");
    line.footer("Exit status: 0 every datagram was accepted; 1 some were not; 2 error.\n"
                "SIGINT and SIGTERM end it with its summary.");
}

struct Tally {
    uint64_t sent = 0;
    uint64_t bytes = 0;
    std::map<std::string, uint64_t> refused; /* by reason */

    uint64_t refused_total() const
    {
        uint64_t total = 0;
        for (const auto &[reason, n] : refused)
            total += n;
        return total;
    }
};

/* The lines of standard input. Waiting for one ends with a stop request. */
class LineReader {
public:
    explicit LineReader(const StopSignal &stop) : stop_(stop) {}

    /* The next line without its end, valid until the next call; false at the end of the input or at a stop. */
    bool next(std::string_view *line)
    {
        buffer_.erase(0, taken_);
        taken_ = 0;
        size_t searched = 0;
        size_t end;
        while ((end = buffer_.find('\n', searched)) == std::string::npos) {
            searched = buffer_.size();
            if (!fill())
                break;
        }
        if (stop_.requested() || (end == std::string::npos && buffer_.empty()))
            return false;
        *line = std::string_view(buffer_).substr(0, end);
        taken_ = end == std::string::npos ? buffer_.size() : end + 1;
        return true;
    }

private:
    /* False at the end of the input or at a stop. */
    bool fill()
    {
        char chunk[65536];
        wait_readable(STDIN_FILENO, stop_.fd(), no_deadline);
        if (stop_.requested())
            return false;
        ssize_t n = read(STDIN_FILENO, chunk, sizeof chunk);
        if (n < 0 && errno != EINTR)
            fail("cannot read standard input: {}", errno_text(errno));
        if (n > 0)
            buffer_.append(chunk, static_cast<size_t>(n));
        return n != 0;
    }

    const StopSignal &stop_;
    std::string buffer_;
    size_t taken_ = 0; /* bytes of the line handed out last */
};

std::string read_file(const std::string &name)
{
    std::ifstream in(name, std::ios::binary);
    std::string contents;
    char chunk[65536];
    while (in.read(chunk, sizeof chunk), in.gcount() != 0)
        contents.append(chunk, static_cast<size_t>(in.gcount()));
    if (!in.is_open() || in.bad())
        fail("cannot read {}: {}", name, errno_text(errno));
    return contents;
}

/* The one payload of every datagram, unless lines of standard input are sent. */
std::optional<std::string> fixed_payload(const Options &opt)
{
    if (opt.text)
        return opt.text;
    if (opt.file)
        return read_file(*opt.file);
    if (!opt.size)
        return std::nullopt;
    if (*opt.size > max_udp_payload)
        fail("no datagram carries {} bytes", *opt.size);
    std::string payload(*opt.size, '\0');
    for (size_t i = 0; i < payload.size(); i++)
        payload[i] = static_cast<char>(i);
    return payload;
}

/* One destination of one channel. */
class Sender {
public:
    Sender(const Options &opt, ruk_channel_t channel, const sockaddr_in &to, const StopSignal &stop)
        : channel_(channel), to_(to), stop_(stop), flags_(opt.nonblock ? RUK_NONBLOCK : 0)
    {
        if (opt.sendto)
            return;
        /* Waits for ARP even with --nonblock: without the handle there would be nothing to send on. */
        int rc = connect_waiting(stop, channel, to_, opt.ttl, &handle_);
        if (rc != 0 && rc != ECANCELED) /* after a stop request nothing is sent */
            fail("cannot send to {}: {}", endpoint_text(to_), send_error_text(rc));
    }

    ~Sender()
    {
        if (handle_)
            ruk_send_disconnect(handle_);
    }
    Sender(const Sender &) = delete;
    Sender &operator=(const Sender &) = delete;

    /* Of the library's errors, and ECANCELED after a stop request. */
    int send(std::string_view payload)
    {
        int len = static_cast<int>(payload.size());
        if (handle_)
            return ruk_send(handle_, payload.data(), len, flags_);
        return flags_ & RUK_NONBLOCK ? sendto_at_once(payload.data(), len)
                                     : sendto_waiting(stop_, channel_, to_, payload.data(), len);
    }

private:
    /* While the next hop is unknown the library is called now and then only: each call prompts the kernel. */
    int sendto_at_once(const void *data, int len)
    {
        if (next_try_ != 0 && monotonic_ns() < next_try_)
            return EADDRNOTAVAIL;
        int rc = ruk_sendto(channel_, &to_, data, len, RUK_NONBLOCK);
        if (rc != EADDRNOTAVAIL) {
            pause_ = first_pause_ns;
            next_try_ = 0;
            return rc;
        }
        next_try_ = monotonic_ns() + pause_;
        pause_ = std::min(2 * pause_, next_hop_pause_ns);
        return rc;
    }

    ruk_channel_t channel_;
    sockaddr_in to_;
    const StopSignal &stop_;
    int flags_;
    ruk_send_t handle_ = nullptr;
    static constexpr int64_t first_pause_ns = 1'000'000; /* a neighbour that is there answers soon */
    int64_t pause_ = first_pause_ns, next_try_ = 0; /* 0: the next hop was known when the library was called last */
};

/* A line a second for whoever watches a terminal. */
class Progress {
public:
    explicit Progress(const std::optional<uint64_t> &count) : count_(count), shown_(isatty(STDERR_FILENO) == 1) {}

    void show(const Tally &tally)
    {
        if (!shown_)
            return;
        int64_t now = monotonic_ns();
        if (now < next_)
            return;
        next_ = now + second_ns;
        fmt::print(stderr, "\rruk-send: {} sent, {} refused{}", tally.sent, tally.refused_total(),
                   count_ ? fmt::format(" of {}", *count_) : "");
        drawn_ = true;
    }

    ~Progress()
    {
        if (drawn_)
            fputc('\n', stderr);
    }

private:
    std::optional<uint64_t> count_;
    bool shown_;
    bool drawn_ = false;
    int64_t next_ = monotonic_ns() + second_ns;
};

/* False when a stop request came before the datagram was accepted or refused. */
bool send_one(Sender &sender, std::string_view payload, size_t limit, Tally &tally)
{
    if (payload.size() > limit) {
        tally.refused[fmt::format("longer than {} bytes", limit)]++;
        return true;
    }
    int rc = sender.send(payload);
    if (rc == ECANCELED)
        return false;
    if (rc == 0) {
        tally.sent++;
        tally.bytes += payload.size();
    } else {
        tally.refused[errno_name(rc)]++;
    }
    return true;
}

/* True when all datagrams asked for were offered to the library. */
bool send_all(const Options &opt, const std::optional<std::string> &payload, Sender &sender, size_t limit,
              const StopSignal &stop, Tally &tally)
{
    std::optional<uint64_t> count = opt.count;
    if (!count && payload)
        count = 1;
    LineReader lines(stop);
    Progress progress(count);
    int64_t start = monotonic_ns();
    for (uint64_t i = 0; !count || i < *count; i++) {
        std::string_view next = payload ? *payload : std::string_view();
        if (!payload && !lines.next(&next))
            return !stop.requested();
        if (opt.per_second)
            stop.sleep_until(start + static_cast<int64_t>(static_cast<double>(i) * 1e9 / *opt.per_second));
        if (stop.requested())
            return false;
        if (!send_one(sender, next, limit, tally))
            return false;
        progress.show(tally);
    }
    return true;
}

void summarise(const Options &opt, const Tally &tally, double seconds)
{
    double rate = seconds > 0 ? static_cast<double>(tally.sent) / seconds : 0;
    if (opt.json) {
        ordered_json refused = ordered_json::object();
        for (const auto &[reason, n] : tally.refused)
            refused[reason] = n;
        put_line(json_text({{"sent", tally.sent},
                            {"bytes", tally.bytes},
                            {"refused", refused},
                            {"seconds", seconds},
                            {"per_second", rate}}));
        return;
    }
    std::string line = fmt::format("sent {} datagrams, {} bytes, in {:.6f} s ({:.0f} a second); refused {}", tally.sent,
                                   tally.bytes, seconds, rate, tally.refused_total());
    const char *separator = ": ";
    for (const auto &[reason, n] : tally.refused) {
        line += fmt::format("{}{} {}", separator, n, reason);
        separator = ", ";
    }
    put_line(line);
}

int send(const Options &opt)
{
    sockaddr_in to = parse_destination(opt.destination);
    std::optional<std::string> payload = fixed_payload(opt);
    StopSignal stop;
    Endpoint endpoint(opt.interface, 0);
    size_t limit = endpoint.interface().max_payload();
    if (payload && payload->size() > limit)
        fail("a payload of {} bytes does not fit a frame: {} carries {} at most", payload->size(),
             endpoint.interface().name, limit);

    ruk_channel_t channel = endpoint.bind(opt.source_port);
    Tally tally;
    Sender sender(opt, channel, to, stop);
    int64_t start = monotonic_ns();
    bool complete = send_all(opt, payload, sender, limit, stop, tally);
    summarise(opt, tally, static_cast<double>(monotonic_ns() - start) / 1e9);
    return complete && tally.refused.empty() ? exit_ok : exit_incomplete;
}

} // namespace

int main(int argc, char **argv)
{
    Program line("Sends datagrams through an adapter.", "ruk-send");
    Options opt;
    describe_options(line, opt);
    return line.run(argc, argv, [&] { return send(opt); });
}
