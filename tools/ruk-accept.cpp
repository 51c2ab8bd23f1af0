/*
 * ruk-accept: a run for the first person with a card. Tries what the library takes for granted of adapter, firmware
 * and driver, one thing after the other, and writes a report to send back.
 *
 * Looks into the endpoint's ring and counters, so it is linked with the archive.
 */
#include "accept_peer.h"
#include "common.h"
#include "options.h"

#include "oxel_clksync.h"
#include "ruk__eventq.h"
#include "ruk_core.h"
#include "tov.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <map>
#include <net/if_arp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace tools;
using namespace accept_run;
using nlohmann::ordered_json;

namespace {

constexpr int64_t ms = 1'000'000, second = 1'000'000'000;
constexpr int64_t quiet_for = 300 * ms; /* after that nothing more is expected */
constexpr int64_t spins_for = 5 * ms; /* what is measured comes sooner; then others have the processor between looks */
constexpr const char *group_address = "239.255.77.77";
constexpr const char *nobody = "192.0.2.1"; /* of a network for examples */

struct Options {
    InterfaceChoice interface;
    std::string peer;
    uint16_t port = default_port;
    double minutes = 10;
    std::string report;
    std::vector<std::string> only;
    bool json = false;
};

struct Probe {
    std::string name;
    std::string expected; /* in words */
    bool as_expected = true;
    std::string failure; /* why it could not be finished; what was measured until then is kept */
    std::string lacking; /* why it could not be tried at all here */
    std::string differs; /* why it differs, where what was measured does not say */
    ordered_json measured = ordered_json::object();

    void require(bool holds) { as_expected = as_expected && holds; }
    const char *result() const
    {
        if (!failure.empty())
            return "failed";
        return !lacking.empty() ? "not probed" : as_expected ? "as expected" : "differs";
    }
};

/* What a probe needs is not here. */
class Lacking : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/* Runs at the end of a scope, however it is left. */
template <typename F> class AtEnd {
public:
    explicit AtEnd(F f) : f_(std::move(f)) {}
    ~AtEnd() { f_(); }
    AtEnd(const AtEnd &) = delete;
    AtEnd &operator=(const AtEnd &) = delete;

private:
    F f_;
};

ordered_json spread(std::vector<int64_t> values)
{
    if (values.empty())
        return nullptr;
    std::sort(values.begin(), values.end());
    const auto at = [&](double part) {
        return values[static_cast<size_t>(part * static_cast<double>(values.size() - 1))];
    };
    return {{"min", values.front()}, {"median", at(0.5)}, {"p99", at(0.99)}, {"max", values.back()}};
}

class AcceptRun {
public:
    explicit AcceptRun(const Options &opt) : opt_(opt), endpoint_(opt.interface, 0)
    {
        peer_.sin_family = AF_INET;
        peer_.sin_addr = parse_addr(opt.peer, "PEER");
        peer_.sin_port = htons(opt.port);
        /* The long probes share the time. */
        repeat_ = std::max(opt.minutes * 60 / 6, 0.1);
    }
    ~AcceptRun() { close(control_); }
    AcceptRun(const AcceptRun &) = delete;
    AcceptRun &operator=(const AcceptRun &) = delete;

    /* The names of all probes. */
    static std::string probe_names()
    {
        std::string names;
        for (const auto &[name, step] : probes())
            names += (names.empty() ? "" : ", ") + std::string(name);
        return names;
    }

    /* All probes, or those that were chosen; each is told of when it ends, be it by a failure or a stop request. False
     * when not all were tried to the end. */
    bool all(const std::function<void(const Probe &)> &ended)
    {
        const auto steps = probes();
        for (const std::string &name : opt_.only)
            if (std::none_of(steps.begin(), steps.end(), [&](const auto &s) { return name == s.first; }))
                fail("there is no probe named '{}'; there are: {}", name, probe_names());
        try {
            ask("hello");
        } catch (const Failure &) {
            if (!stop_.requested())
                throw;
            return false;
        }
        size_t number = 0;
        for (const auto &[name, step] : steps) {
            if (!opt_.only.empty() && std::find(opt_.only.begin(), opt_.only.end(), name) == opt_.only.end())
                continue;
            note(fmt::format("{} of {}: {} ...", ++number, opt_.only.empty() ? steps.size() : opt_.only.size(), name));
            Probe probe;
            probe.name = name;
            passed_over_ = 0;
            const bool deaf = !unfit_.empty();
            try {
                (this->*step)(probe);
            } catch (const Failure &failure) {
                probe.failure = failure.what();
            } catch (const Lacking &lacking) {
                probe.lacking = lacking.what();
            }
            if (!unfit_.empty() && probe.lacking.empty())
                probe.failure = (deaf ? "nothing is received any more: " : "") + unfit_;
            if (passed_over_ != 0) {
                probe.require(false);
                probe.differs = fmt::format("{} of more than {} packets passed over, which the library does not take",
                                            passed_over_ == 1 ? "an event" : fmt::format("{} events", passed_over_),
                                            NUV_UEVT_MAX_PKTS);
            }
            if (stop_.requested())
                probe.failure = "stopped";
            ended(probe);
            if (stop_.requested())
                return false;
        }
        return true;
    }

private:
    using Step = void (AcceptRun::*)(Probe &);

    /* In their order. */
    static std::vector<std::pair<const char *, Step>> probes()
    {
        return {
            {"endpoints", &AcceptRun::endpoints},
            {"delivery", &AcceptRun::delivery},
            {"event_order", &AcceptRun::event_order},
            {"coalescing", &AcceptRun::coalescing},
            {"poll", &AcceptRun::polling},
            {"blocking", &AcceptRun::blocking},
            {"filter_modes", &AcceptRun::filter_modes},
            {"kernel_duplicate", &AcceptRun::kernel_duplicate},
            {"group", &AcceptRun::group},
            {"source_group", &AcceptRun::source_group},
            {"broadcast", &AcceptRun::broadcast},
            {"vlan", &AcceptRun::vlan},
            {"next_hop", &AcceptRun::next_hop},
            {"tag_reuse", &AcceptRun::tag_reuse},
            {"clock", &AcceptRun::clock},
            {"thresholds", &AcceptRun::thresholds},
            {"store_to_wire", &AcceptRun::store_to_wire},
            {"full_ring", &AcceptRun::full_ring},
        };
    }

    ruk__ep *ep() { return endpoint_.dev(); }

    /* A channel for the time of a probe. */
    struct Channel {
        explicit Channel(AcceptRun &run, int flags = 0) : Channel(run, run.endpoint_.bind(0, flags)) {}
        Channel(AcceptRun &run, ruk_channel_t bound) : handle(bound), run_(run) {}
        ~Channel() { unbind(); }
        void unbind()
        {
            if (handle == nullptr)
                return;
            run_.look_ahead();
            ruk_unbind(handle);
            handle = nullptr;
        }
        Channel(const Channel &) = delete;
        Channel &operator=(const Channel &) = delete;
        uint16_t port() const { return ntohs(channel_address(handle).sin_port); }
        ruk_channel_t handle;

    private:
        AcceptRun &run_;
    };

    struct Datagram {
        bool there = false;
        std::vector<uint8_t> bytes;
        ruk_recv_info info{};
        int64_t at_ns = 0;
    };

    /*
     * Whether an event waits that the library can take. The library has room for the packets that an event may have,
     * and does not look how many there are: an event of more is passed over, and the probe differs.
     */
    bool event_waits()
    {
        ruk__eventq &evq = ep()->rep_eventq;
        const uint8_t packets = _eventq_present(&evq);
        if (packets == 0 || !unfit_.empty())
            return false;
        const auto *event = evq.evq_recvq_state.evs_uevt_cur;
        const uint16_t length = length_of(event);
        if (length == 0)
            return false;
        if (packets <= NUV_UEVT_MAX_PKTS)
            return true;
        _eventq_release(&evq, reinterpret_cast<uintptr_t>(event), length);
        if (passed_over_++ == 0)
            note(fmt::format("an event of {} packets is passed over: the library takes {} at most", packets,
                             NUV_UEVT_MAX_PKTS));
        return false;
    }

    /*
     * The length of an event, once it is complete. The library waits without end for that, and goes where the length
     * says: after one that would lead it astray, for which this is 0, nothing is received any more.
     */
    uint16_t length_of(const volatile nuv_uevt_ruk_t *event)
    {
        const uint16_t length = _uevt_length(event);
        if (length == 0 || length % NUV_UEVT_SLOT != 0)
            unfit_ = fmt::format("an event has {} bytes, which is no multiple of {}", length, NUV_UEVT_SLOT);
        else if (completion_of(event, length) >= second)
            unfit_ = "an event was not complete after a second";
        else
            return length;
        /* Out of sight: the ring ends here. */
        _eventq_clear(const_cast<volatile uint8_t *>(reinterpret_cast<const volatile uint8_t *>(event)));
        return 0;
    }

    /*
     * Whether a packet waits that the library delivers. Those that it drops are dropped here: behind them it would go
     * on by itself, to events that nobody has looked at.
     */
    bool packet_waits()
    {
        ruk__eventq &evq = ep()->rep_eventq;
        while (event_waits()) {
            ruk__evpacket *packet = ruk__eventq_first(ep(), &evq);
            const uint64_t delivered = ep()->rep_num_packets;
            ruk_recv_info info{};
            if (packet->timestamp == ARISTA_KEYFRAME_MARK) {
                arista_get_kf_pkt(ep(), packet);
            } else if (handle_ruk_uevt(ep(), packet, RUK_RECV_PEEK, nullptr, 0, &info) != PACKET_DROP) {
                ep()->rep_num_packets = delivered; /* the receive call counts it */
                return true;
            }
            ruk__eventq_advance(&evq);
        }
        return false;
    }

    /* Before an unbind or a leave, which look at the length of all events that wait, and wait for each. */
    void look_ahead()
    {
        const ruk__eventq &evq = ep()->rep_eventq;
        uintptr_t at = _eventq_current(&evq.evq_recvq_state);
        for (uintptr_t passed = 0; passed < evq.evq_recvq_size;) {
            const auto *event = reinterpret_cast<const volatile nuv_uevt_ruk_t *>(at);
            const uint16_t length = tov_ld8_acq(&event->pkt_cnt) != 0 ? length_of(event) : uint16_t{0};
            if (length == 0)
                return;
            at = _eventq_wrap(&evq, at + length);
            passed += length;
        }
    }

    /* After what time an event was complete: 0 when it was at once, a second or more when it was not by then. */
    int64_t completion_of(const volatile nuv_uevt_ruk_t *event, uint16_t length)
    {
        const volatile uint8_t *last = _eventq_crcbyte(&ep()->rep_eventq, event, length);
        if (tov_ld8_acq(last) == 0)
            return 0;
        const int64_t seen = monotonic_ns();
        int64_t waited = 0;
        while (tov_ld8_acq(last) != 0 && waited < second)
            waited = monotonic_ns() - seen;
        return std::max<int64_t>(waited, 1);
    }

    /* Fails after an event that the library must not see. */
    Datagram next(int64_t timeout_ns)
    {
        Datagram d = look(timeout_ns);
        if (!unfit_.empty())
            fail("{}", unfit_);
        return d;
    }

    Datagram look(int64_t timeout_ns)
    {
        Datagram d;
        d.bytes.resize(receive_buffer_size);
        const int64_t start = monotonic_ns();
        for (;;) {
            if (packet_waits() &&
                ruk_recvfrom(endpoint_.dev(), RUK_RECV_NONBLOCK, d.bytes.data(), d.bytes.size(), &d.info) == 0) {
                d.at_ns = monotonic_ns();
                d.there = true;
                d.bytes.resize(std::min<size_t>(d.info.msg_len, d.bytes.size()));
                return d;
            }
            const int64_t waited = monotonic_ns() - start;
            if (waited >= timeout_ns || stop_.requested() || !unfit_.empty())
                return d;
            if (waited >= spins_for)
                usleep(50);
        }
    }

    void drain()
    {
        while (look(20 * ms).there) { /* also at the end of a probe that has failed */
        }
    }

    /* In place of the one before: a late answer to an earlier request is none to the next, and the peer, which goes by
     * the port, does not take the next for a repetition. */
    void renew_control()
    {
        close(control_);
        control_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in local{};
        local.sin_family = AF_INET;
        local.sin_addr = endpoint_.interface().addr;
        if (control_ < 0 || bind(control_, reinterpret_cast<sockaddr *>(&local), sizeof local) != 0)
            fail("cannot make a control socket: {}", errno_text(errno));
    }

    /* Has the peer send; it answers before it begins, and after what it was asked for before. */
    std::string ask(const std::string &request, int attempts = 3)
    {
        if (!unfit_.empty())
            fail("{}", unfit_);
        renew_control();
        char answer[16];
        for (int attempt = 0; attempt < attempts && !stop_.requested(); attempt++) {
            sendto(control_, request.data(), request.size(), 0, reinterpret_cast<sockaddr *>(&peer_), sizeof peer_);
            wait_readable(control_, stop_.fd(), monotonic_ns() + second);
            if (recv(control_, answer, sizeof answer, MSG_DONTWAIT) != 2)
                continue;
            std::string said(answer, 2);
            if (said != "ok" && request.starts_with("send "))
                fail("{} refuses to send: is it of this release?", endpoint_text(peer_));
            return said;
        }
        if (stop_.requested())
            fail("stopped");
        fail("no answer from {}: is 'ruk-accept peer' running there?", endpoint_text(peer_));
    }

    /* Asks for it and waits until the peer has sent everything: it answers one after the other. */
    void have_sent(const std::string &request)
    {
        ask(request);
        ask("hello");
    }

    /* The next of what the peer was asked for. A peer that is held up is waited for until it has sent everything. */
    Datagram awaited()
    {
        Datagram d = next(quiet_for);
        if (d.there)
            return d;
        ask("hello");
        return next(quiet_for);
    }

    /* The number in a payload; of one that is too short for it the last up to that one that a sweep gives its size. */
    static uint32_t number_of(const Datagram &d, uint32_t last)
    {
        const auto size = static_cast<uint32_t>(d.bytes.size());
        uint32_t number = last - (last - size) % sizes;
        if (size >= sizeof number)
            memcpy(&number, d.bytes.data(), sizeof number);
        return number;
    }

    /* Has the peer send count datagrams, some at a time for which the ring has room, and hands on all that arrive: what
     * one request left out may come amid the next, or at the very end. */
    void stream(uint16_t port, uint32_t count, int size, uint32_t gap_us, uint32_t at_a_time, uint32_t *sent,
                const std::function<void(const Datagram &)> &take)
    {
        const uint32_t room = ring_holds(size == sweep ? sizes - 1 : static_cast<uint32_t>(size));
        while (*sent < count && !stop_.requested()) {
            const uint32_t piece = std::min(std::clamp(room, 1u, at_a_time), count - *sent);
            ask(send_request(port, piece, size, gap_us, *sent));
            *sent += piece;
            for (uint32_t n = 0; n < piece; n++) {
                const Datagram d = awaited();
                if (!d.there)
                    break;
                take(d);
            }
        }
        for (Datagram d = next(quiet_for); d.there; d = next(quiet_for))
            take(d);
    }

    void endpoints(Probe &p)
    {
        p.expected = "all endpoints of the board open that others have not, one more is refused, and all close";
        std::vector<ruk_device_t> open;
        const AtEnd close_all([&] {
            for (ruk_device_t dev : open)
                ruk_close(dev);
        });
        int rc = 0;
        while (open.size() < 256) {
            ruk_device_t dev = nullptr;
            rc = ruk_open(&endpoint_.interface().addr, RUK_OPEN_DISABLED, &dev);
            if (rc != 0)
                break;
            open.push_back(dev);
        }
        const size_t most = ep()->rep_mif->tov_ifa_max_endpoints, taken = open.size() + 1,
                     others = open_device_files_of_others();
        p.measured = {{"board", most},
                      {"opened_beside_this_one", open.size()},
                      {"refusal", errno_name(rc)},
                      {"device_files_open_in_other_programs", others}};
        p.require(rc == EBUSY && taken <= most && most - taken <= others);
    }

    /* How often other programs, as far as this user may look into them, have an adapter's device file open. */
    static size_t open_device_files_of_others()
    {
        namespace fs = std::filesystem;
        size_t count = 0;
        std::error_code error;
        const std::string self = std::to_string(getpid());
        for (const auto &process : fs::directory_iterator("/proc", error)) {
            const std::string pid = process.path().filename();
            if (pid.find_first_not_of("0123456789") != std::string::npos || pid == self)
                continue;
            std::error_code gone; /* or not for this user */
            for (fs::directory_iterator fd(process.path() / "fd", gone), end; !gone && fd != end; fd.increment(gone)) {
                std::error_code closed;
                count += fs::read_symlink(fd->path(), closed).string().starts_with("/dev/oxel");
            }
        }
        return count;
    }

    /* How many datagrams of a size the ring has room for, each in an event of its own: no more may be sent at a time
     * where a receiver that was kept waiting must not lose one. */
    uint32_t ring_holds(uint32_t size)
    {
        constexpr uint32_t headers = 14 + 4 + 20 + 8; /* with a VLAN's tag */
        const uint32_t event = sizeof(nuv_uevt_ruk_t) + nuv_uevt_pkt_space(headers + size + NUV_UEVT_FCS_LEN);
        const uint32_t slots = (event + NUV_UEVT_SLOT - 1) / NUV_UEVT_SLOT;
        return static_cast<uint32_t>(ep()->rep_eventq.evq_recvq_size / NUV_UEVT_SLOT / slots);
    }

    void delivery(Probe &p)
    {
        p.expected = "every datagram of every size arrives once, whole and in order";
        Channel channel(*this);
        const auto rounds = static_cast<uint32_t>(std::max(1.0, repeat_ / 2));
        uint32_t sent = 0, received = 0, damaged = 0, disorder = 0;
        const AtEnd record([&] {
            p.measured = {{"sent", sent}, {"received", received}, {"damaged", damaged}, {"out_of_order", disorder}};
        });
        uint32_t expected = 0;
        stream(channel.port(), rounds * sizes, sweep, 30, 32, &sent, [&](const Datagram &d) {
            received++;
            const uint32_t number = number_of(d, sent - 1);
            if (d.bytes != payload(number, sweep))
                damaged++;
            else if (number < expected)
                disorder++; /* or a second time */
            else
                expected = number + 1;
        });
        p.require(received == rounds * sizes && damaged == 0 && disorder == 0);
    }

    void event_order(Probe &p)
    {
        p.expected = "an event that can be seen has its header, and its last byte becomes zero when it is complete";
        Channel channel(*this);
        const ruk__eventq &evq = ep()->rep_eventq;
        const auto count = static_cast<uint32_t>(1000 * std::max(1.0, repeat_ / 10));
        uint32_t events = 0, early = 0, bad_length = 0, bad_count = 0;
        std::vector<int64_t> waits;
        const AtEnd record([&] {
            p.measured = {{"events", events},
                          {"seen_before_complete", early},
                          {"wait_for_completion_ns", spread(waits)},
                          {"bad_length", bad_length},
                          {"bad_packet_count", bad_count}};
        });
        ask(send_request(channel.port(), count, 1400, 200));
        int64_t deadline = monotonic_ns() + 2 * second;
        while (monotonic_ns() < deadline && !stop_.requested()) {
            const uint8_t packets = _eventq_present(&evq);
            if (packets == 0)
                continue;
            const auto *event = evq.evq_recvq_state.evs_uevt_cur;
            const uint16_t length = _uevt_length(event);
            events++;
            bad_count += packets > NUV_UEVT_MAX_PKTS;
            bad_length += length == 0 || length % NUV_UEVT_SLOT != 0;
            if (length != 0 && length % NUV_UEVT_SLOT == 0) {
                if (const int64_t waited = completion_of(event, length); waited != 0) {
                    early++;
                    waits.push_back(waited);
                }
            }
            while (_eventq_present(&evq) != 0 && evq.evq_recvq_state.evs_uevt_cur == event) {
                if (!next(0).there)
                    break;
                deadline = monotonic_ns() + second;
            }
        }
        p.require(events > 0 && bad_length == 0 && bad_count == 0 && (waits.empty() || spread(waits)["max"] < second));
    }

    void coalescing(Probe &p)
    {
        p.expected = "events of one to five packets";
        Channel channel(*this);
        const ruk__eventq &evq = ep()->rep_eventq;
        std::map<int, uint32_t> histogram;
        uint32_t sent = 0, received = 0;
        constexpr uint32_t count = 5000;
        const AtEnd record([&] {
            ordered_json counts = ordered_json::object();
            for (const auto &[packets, events] : histogram)
                counts[std::to_string(packets)] = events;
            p.measured = {{"sent", sent}, {"received", received}, {"events_by_packets", counts}};
        });
        ask(send_request(channel.port(), count, 64, 0));
        sent = count;
        for (int64_t deadline = monotonic_ns() + second;
             monotonic_ns() < deadline && received < count && !stop_.requested();) {
            const uint8_t packets = _eventq_present(&evq);
            if (packets == 0)
                continue;
            if (evq.evq_recvq_state.evs_pkt_cur == nullptr)
                histogram[packets]++;
            if (!next(0).there)
                continue;
            received++;
            deadline = monotonic_ns() + second;
        }
        for (const auto &[packets, events] : histogram)
            p.require(packets >= 1 && packets <= int{NUV_UEVT_MAX_PKTS});
        p.require(received > 0);
    }

    bool readable(int timeout_ms)
    {
        pollfd waiting = {ruk_device_handle(endpoint_.dev()), POLLIN, 0};
        return poll(&waiting, 1, timeout_ms) == 1 && (waiting.revents & POLLIN) != 0;
    }

    void polling(Probe &p)
    {
        p.expected = "the descriptor is readable while events wait, and soon after the last is taken no longer";
        Channel channel(*this);
        drain();
        p.require(!readable(50));
        std::vector<int64_t> quiet;
        uint32_t rounds = 0, woken = 0;
        const AtEnd record([&] {
            p.measured = {{"rounds", rounds}, {"readable", woken}, {"readable_after_the_last_ns", spread(quiet)}};
        });
        /* Each one in vain costs a second. */
        while (rounds < 20 && rounds - woken < 3 && !stop_.requested()) {
            rounds++;
            /* Numbered: the port of a request may come again, and the same from it would be a repetition. */
            ask(send_request(channel.port(), 1, 64, 0, rounds));
            woken += readable(1000);
            p.require(next(second).there);
            const int64_t taken = monotonic_ns();
            while (readable(0) && monotonic_ns() - taken < second) {
            }
            quiet.push_back(monotonic_ns() - taken);
        }
        p.require(woken == rounds && spread(quiet)["max"] < second);
    }

    /*
     * A program of its own that sleeps in the library's receive call for each datagram. What wakes it nobody has
     * looked at: an event that leads the library astray leads no more than this program. It tells its port, then "got"
     * for each datagram, or what went wrong.
     */
    class Sleeper {
    public:
        explicit Sleeper(const AcceptRun &run) : run_(run)
        {
            int ends[2];
            if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
                fail("cannot make a pair of sockets: {}", errno_text(errno));
            said_ = ends[0];
            process_ = fork();
            if (process_ == 0) {
                prctl(PR_SET_PDEATHSIG, SIGKILL);
                sleep_and_tell(ends[1]);
            }
            close(ends[1]);
            if (process_ < 0)
                fail("cannot start a process: {}", errno_text(errno));
        }
        ~Sleeper()
        {
            if (process_ > 0) {
                kill(process_, SIGKILL);
                waitpid(process_, nullptr, 0);
            }
            close(said_);
        }
        Sleeper(const Sleeper &) = delete;
        Sleeper &operator=(const Sleeper &) = delete;

        /* What it says next; "" when it says nothing within two seconds, or is gone. */
        std::string next()
        {
            const int64_t deadline = monotonic_ns() + 2 * second;
            char text[256];
            ssize_t n;
            while ((n = recv(said_, text, sizeof text, MSG_DONTWAIT)) < 0 && monotonic_ns() < deadline &&
                   !run_.stop_.requested())
                wait_readable(said_, run_.stop_.fd(), deadline);
            return {text, n > 0 ? static_cast<size_t>(n) : 0};
        }

    private:
        [[noreturn]] void sleep_and_tell(int to) const
        {
            const auto tell = [to](const std::string &text) { return send(to, text.data(), text.size(), 0) > 0; };
            try {
                Endpoint endpoint(run_.opt_.interface, 0);
                tell(std::to_string(ntohs(channel_address(endpoint.bind(0)).sin_port)));
                std::vector<uint8_t> buffer(receive_buffer_size);
                ruk_recv_info info;
                int rc;
                while ((rc = ruk_recvfrom(endpoint.dev(), RUK_RECV_BLOCK, buffer.data(), buffer.size(), &info)) == 0)
                    tell("got");
                tell("the receive call failed: " + errno_text(rc));
            } catch (const std::exception &e) {
                tell(e.what());
            }
            _exit(1);
        }

        const AcceptRun &run_;
        int said_ = -1;
        pid_t process_ = -1;
    };

    void blocking(Probe &p)
    {
        p.expected = "a receiver that sleeps wakes for each datagram";
        constexpr uint32_t count = 50;
        uint32_t sent = 0, received = 0;
        const AtEnd record([&] { p.measured = {{"sent", sent}, {"received", received}}; });
        Sleeper sleeper(*this);
        const std::string port = sleeper.next();
        if (port.empty() || port.find_first_not_of("0123456789") != std::string::npos)
            fail("the sleeping receiver: {}", port.empty() ? "not ready after two seconds" : port);
        stop_.sleep_until(monotonic_ns() + second / 10); /* until it sleeps; so it does between them */
        ask(send_request(static_cast<uint16_t>(std::stoi(port)), count, 64, 10000));
        sent = count;
        while (received < count) {
            const std::string said = sleeper.next();
            if (said.empty())
                break;
            if (said != "got")
                fail("the sleeping receiver: {}", said);
            received++;
        }
        p.require(received == count);
    }

    uint32_t count_until_quiet()
    {
        uint32_t n = 0;
        while (next(quiet_for).there)
            n++;
        return n;
    }

    /*
     * On which channels the ten datagrams with numbers from first on arrive, as they are or within their frames, once
     * the peer was asked to send them. What other hosts send beside them does not count.
     */
    std::vector<ruk_channel_t> arrivals_on(uint16_t port, uint32_t first, const Target &target = {})
    {
        have_sent(send_request(port, 10, 64, 100, first, target));
        std::vector<ruk_channel_t> channels;
        for (Datagram d = next(quiet_for); d.there; d = next(quiet_for))
            for (uint32_t number = first; number < first + 10; number++) {
                const std::vector<uint8_t> bytes = payload(number, 64);
                if (std::search(d.bytes.begin(), d.bytes.end(), bytes.begin(), bytes.end()) != d.bytes.end())
                    channels.push_back(d.info.chan);
            }
        return channels;
    }

    /* How many of them arrive. */
    size_t arrivals(uint16_t port, uint32_t first, const Target &target = {})
    {
        return arrivals_on(port, first, target).size();
    }

    /* How many arrive when a switch in between is given time to learn of a membership. */
    size_t arrivals_of_members(uint16_t port, uint32_t first, const Target &target)
    {
        size_t n = arrivals(port, first, target);
        for (int attempt = 0; attempt < 2 && n == 0 && !stop_.requested(); attempt++) {
            stop_.sleep_until(monotonic_ns() + second / 2);
            n = arrivals(port, first, target);
        }
        return n;
    }

    void filter_modes(Probe &p)
    {
        p.expected = "normal: only the channels' datagrams; all-multicast: groups too; raw: everything";
        Channel channel(*this);
        const AtEnd back([&] {
            ruk_set_filter_mode(endpoint_.dev(), RUK_RECV_FILTER_NORMAL);
            drain();
        });
        const uint16_t other = channel.port() == 9 ? 10 : 9;
        const struct {
            const char *name;
            ruk_filter_mode mode;
        } modes[] = {
            {"normal", RUK_RECV_FILTER_NORMAL}, {"allmulti", RUK_RECV_FILTER_ALLMULTI}, {"raw", RUK_RECV_FILTER_RAW}};
        for (const auto &[name, mode] : modes) {
            if (const int rc = ruk_set_filter_mode(endpoint_.dev(), mode); rc != 0)
                fail("the mode '{}' is refused: {}", name, errno_text(rc));
            drain();
            const size_t own = arrivals(channel.port(), 100);
            const size_t multicast = arrivals(channel.port(), 200, {group_address, {}});
            const size_t foreign = arrivals(other, 300);
            p.measured[name] = {{"own", own}, {"group_not_joined", multicast}, {"other_port", foreign}};
            /* In the raw mode a copy may come beside the datagram itself. */
            p.require(own >= 10 && (mode == RUK_RECV_FILTER_NORMAL ? multicast == 0 : multicast >= 10) &&
                      (mode == RUK_RECV_FILTER_RAW ? foreign >= 10 : foreign == 0));
        }
    }

    void kernel_duplicate(Probe &p)
    {
        p.expected = "the kernel gets a copy when the binding asks for it, and nothing otherwise";
        for (const bool duplicate : {false, true}) {
            Channel channel(*this, duplicate ? RUK_BIND_KERNEL : 0);
            have_sent(send_request(channel.port(), 10, 64, 100));
            const uint32_t library = count_until_quiet();
            uint32_t kernel = 0;
            char bytes[128];
            while (recv(channel.handle->ch_fd, bytes, sizeof bytes, MSG_DONTWAIT) >= 0)
                kernel++;
            p.measured[duplicate ? "asked_for" : "not_asked_for"] = {{"library", library}, {"kernel", kernel}};
            p.require(library == 10 && kernel == (duplicate ? 10 : 0));
        }
    }

    static void must(int rc, std::string_view what)
    {
        if (rc != 0)
            fail("{}: {}", what, errno_text(rc < 0 ? errno : rc));
    }

    void group(Probe &p)
    {
        p.expected = "a joined group's datagrams to the channel's port arrive once, none before the join, to another "
                     "port, or after the leave";
        Channel channel(*this);
        drain();
        const Target to = {group_address, {}};
        const in_addr address = parse_addr(group_address, "group");
        const uint16_t other = channel.port() == 9 ? 10 : 9;
        const size_t before = arrivals(channel.port(), 400, to);
        p.measured = {{"before", before}};
        must(ruk_mcast_join(channel.handle, &address, nullptr), "the group cannot be joined");
        const size_t joined = arrivals_of_members(channel.port(), 410, to), foreign = arrivals(other, 420, to);
        p.measured.update({{"joined", joined}, {"other_port", foreign}});
        look_ahead();
        must(ruk_mcast_leave(channel.handle, &address), "the group cannot be left");
        /* The library would drop what still comes: it is not to come at all. */
        const uint64_t dropped = ep()->rep_stats.dropped_nosock;
        const size_t left = arrivals(channel.port(), 430, to) + (ep()->rep_stats.dropped_nosock - dropped);
        p.measured["left"] = left;
        must(ruk_mcast_join(channel.handle, &address, nullptr), "the group cannot be joined again");
        const size_t again = arrivals_of_members(channel.port(), 440, to);
        p.measured["joined_again"] = again;
        p.require(before == 0 && joined == 10 && foreign == 0 && left == 0 && again == 10);
    }

    void source_group(Probe &p)
    {
        p.expected = "of a group that is joined for one source its datagrams arrive once, another's do not, and none "
                     "after the leave";
        Channel channel(*this);
        drain();
        const Target to = {group_address, {}};
        const in_addr address = parse_addr(group_address, "group"), stranger = parse_addr(nobody, "source");
        must(ruk_mcast_join_source(channel.handle, &address, &peer_.sin_addr), "the group cannot be joined");
        const size_t its = arrivals_of_members(channel.port(), 500, to);
        p.measured = {{"of_the_source", its}};
        look_ahead();
        must(ruk_mcast_leave_source(channel.handle, &address, &peer_.sin_addr), "the group cannot be left");
        const size_t left = arrivals(channel.port(), 510, to);
        p.measured["left"] = left;
        must(ruk_mcast_join_source(channel.handle, &address, &stranger), "the group cannot be joined");
        /* Who keeps them away is the adapter's choice: the library looks at the source itself. */
        const uint64_t dropped = ep()->rep_stats.dropped_badfilter;
        const size_t others = arrivals(channel.port(), 520, to);
        p.measured.update(
            {{"of_another_source", others}, {"kept_away_by_the_library", ep()->rep_stats.dropped_badfilter - dropped}});
        p.require(its == 10 && left == 0 && others == 0);
    }

    void broadcast(Probe &p)
    {
        p.expected =
            "broadcasts to 255.255.255.255 arrive once when the binding asks for them, and no broadcast when it "
            "does not";
        const in_addr subnet = {ep()->rep_mif->tov_ifa_ipaddr | ~ep()->rep_mif->tov_ifa_netmask};
        for (const bool asked : {false, true}) {
            Channel channel(*this, asked ? RUK_BIND_BROADCAST : 0);
            drain();
            const size_t limited = arrivals(channel.port(), 600, {"255.255.255.255", {}}),
                         directed = arrivals(channel.port(), 610, {addr_text(subnet), {}});
            p.measured[asked ? "asked_for" : "not_asked_for"] = {{"to_all", limited}, {"to_the_subnet", directed}};
            /* Whether an adapter takes the subnet's as well is left to it: the library knows both. */
            p.require(asked ? limited == 10 && directed <= 10 : limited == 0 && directed == 0);
        }
    }

    /* Another interface on the adapter that has another VLAN, or none where the endpoint's has one. */
    const tov_ifaddrs *interface_of_another_vlan()
    {
        const tov_ifaddrs *own = ep()->rep_mif;
        for (const tov_ifaddrs *i = ep()->rep_mif_addrs; i != nullptr; i = i->tov_ifa_next)
            if (i->tov_ifa_boardnum == own->tov_ifa_boardnum && i->tov_ifa_ipaddr != 0 &&
                tov_get_vlan_tag(i->tov_ifa_name) != tov_get_vlan_tag(own->tov_ifa_name))
                return i;
        return nullptr;
    }

    void vlan(Probe &p)
    {
        p.expected = "datagrams reach the channels of their own VLAN alone";
        const tov_ifaddrs *own = ep()->rep_mif, *other = interface_of_another_vlan();
        if (other == nullptr)
            throw Lacking(fmt::format("the adapter has no interface of another VLAN than {}'s with an address ({}.5 "
                                      "would be one)",
                                      own->tov_ifa_name, own->tov_ifa_name));
        const in_addr other_address = {other->tov_ifa_ipaddr};
        if (ask(reach_request(other_address)) != "ok")
            throw Lacking(fmt::format("the peer has no interface on the subnet of {}, which is {}'s",
                                      addr_text(other_address), other->tov_ifa_name));

        Channel here(*this);
        ruk_channel_t bound = nullptr;
        must(ruk_bind_addr(endpoint_.dev(), &other_address, 0, here.port(), nullptr, &bound),
             "the VLAN's address cannot be bound");
        Channel there(*this, bound);
        drain();
        const in_addr group = parse_addr(group_address, "group");
        must(ruk_mcast_join(here.handle, &group, nullptr), "the group cannot be joined");
        must(ruk_mcast_join(there.handle, &group, nullptr), "the group cannot be joined on the VLAN");
        const auto look = [&](const Channel &right, uint32_t first, const Target &target) {
            std::vector<ruk_channel_t> seen = arrivals_on(here.port(), first, target);
            const auto its = static_cast<size_t>(std::count(seen.begin(), seen.end(), right.handle));
            p.require(its == 10 && seen.size() == its);
            return ordered_json{{"arrived", its}, {"on_the_other_vlan", seen.size() - its}};
        };
        const std::string here_address = addr_text({own->tov_ifa_ipaddr}), there_address = addr_text(other_address);
        const auto look_at = [&](const Channel &channel, const char *name, const std::string &address, uint32_t first) {
            return ordered_json{{"interface", name},
                                {"vlan", ntohs(tov_get_vlan_tag(name)) & 0xfff},
                                {"unicast", look(channel, first, {address, address})},
                                {"group", look(channel, first + 10, {group_address, address})}};
        };
        p.measured["own"] = look_at(here, own->tov_ifa_name, here_address, 700);
        p.measured["other"] = look_at(there, other->tov_ifa_name, there_address, 720);
    }

    /* The kernel's entry for the next hop, or none. */
    bool read_arp(in_addr next_hop, arpreq *entry)
    {
        *entry = {};
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr = next_hop;
        memcpy(&entry->arp_pa, &address, sizeof address);
        strncpy(entry->arp_dev, ep()->rep_mif->tov_ifa_name, sizeof entry->arp_dev - 1);
        return ioctl(control_, SIOCGARP, entry) == 0 && (entry->arp_flags & ATF_COM) != 0;
    }

    void next_hop(Probe &p)
    {
        p.expected = "the MAC address of a next hop that the kernel does not know is asked for when a handle is made, "
                     "and is right";
        Channel channel(*this);
        drain();
        ask("hello"); /* so that the kernel knows it, which tells the right answer */
        const auto forget = [&] { memset(ep()->rep_mac_cache, 0, sizeof ep()->rep_mac_cache); };
        forget();
        {
            Echo first(*this, channel);
        }
        const in_addr hop = {ep()->rep_mac_cache[0].pa_ip_addr_be32};
        arpreq known;
        if (!read_arp(hop, &known))
            throw Lacking(
                fmt::format("the kernel has no MAC address of {} on {}", addr_text(hop), ep()->rep_mif->tov_ifa_name));
        if (arpreq gone = known; ioctl(control_, SIOCDARP, &gone) != 0)
            throw Lacking(
                fmt::format("the kernel's entry for {} cannot be removed: {}", addr_text(hop), errno_text(errno)));
        const AtEnd restore([&] {
            forget();
            if ((known.arp_flags & ATF_PERM) != 0)
                ioctl(control_, SIOCSARP, &known);
        });

        const auto mac = [](const uint8_t *b) {
            return fmt::format("{:02x}:{:02x}:{:02x}:{:02x}:{:02x}:{:02x}", b[0], b[1], b[2], b[3], b[4], b[5]);
        };
        const auto *right = reinterpret_cast<const uint8_t *>(known.arp_ha.sa_data);
        p.measured = {{"next_hop", addr_text(hop)},   {"mac", mac(right)}, {"resolved", nullptr},
                      {"resolved_after_ns", nullptr}, {"attempts", 0},     {"echoed", false}};
        forget();
        sockaddr_in to = peer_;
        to.sin_port = htons(static_cast<uint16_t>(opt_.port + 1));
        const int64_t start = monotonic_ns();
        ruk_send_t handle = nullptr;
        uint32_t attempts = 0;
        int rc = 0;
        do {
            attempts++;
            rc = ruk_send_connect(channel.handle, &to, RUK_NONBLOCK, 0, &handle);
            if (rc != 0)
                stop_.sleep_until(monotonic_ns() + next_hop_pause_ns);
        } while (rc != 0 && monotonic_ns() - start < 3 * second && !stop_.requested());
        const int64_t after = monotonic_ns() - start;
        uint32_t address = hop.s_addr;
        const int says = tov_ioctl(ep()->rep_handle, OXEL_ARP_RESOLVE, &address, sizeof address);
        p.measured["driver_says"] = says == 0 ? "done" : errno_name(says);
        p.measured["attempts"] = attempts;
        if (rc != 0) {
            p.measured["refusal"] = errno_name(rc);
            p.require(false);
            return;
        }
        ruk_send_disconnect(handle);
        const uint8_t *found = ep()->rep_mac_cache[0].pa_eth_dest;
        p.measured.update({{"resolved", mac(found)}, {"resolved_after_ns", after}});
        p.require(memcmp(found, right, 6) == 0);
        Echo echo(*this, channel);
        const std::vector<uint8_t> bytes = payload(800, 64);
        echo.send(bytes);
        const Datagram d = echoed(800);
        p.measured["echoed"] = d.there && d.bytes == bytes;
        p.require(p.measured["echoed"]);
    }

    void tag_reuse(Probe &p)
    {
        p.expected = "after an unbind nothing reaches the old channel, and its tag serves a new one";
        const auto rounds = static_cast<uint32_t>(20 * std::max(1.0, repeat_ / 10));
        constexpr uint32_t to_new = 20;
        const uint32_t room = ring_holds(64), to_old = std::clamp(room - std::min(room, to_new), 1u, 200u);
        uint32_t tried = 0, wrong = 0, fresh = 0;
        const AtEnd record([&] {
            p.measured = {{"rounds", tried}, {"to_new_channels", fresh}, {"to_old_channels", wrong}};
        });
        while (tried < rounds && !stop_.requested()) {
            tried++;
            Channel first(*this);
            ask(send_request(first.port(), to_old, 64, 20));
            next(second); /* amid the stream */
            const ruk_channel_t gone = first.handle;
            first.unbind();
            Channel second_one(*this);
            ask(send_request(second_one.port(), to_new, 64, 20));
            uint32_t here = 0;
            for (Datagram d = next(second); d.there && here < to_new; d = next(100 * ms)) {
                /* The old channel's memory may be the new one's: the port tells them apart. */
                if (ntohs(d.info.sin_to.sin_port) != second_one.port() ||
                    (d.info.chan == gone && gone != second_one.handle))
                    wrong++;
                else
                    here++;
                if (here == to_new)
                    break;
            }
            fresh += here;
            drain();
        }
        p.require(wrong == 0 && fresh == rounds * to_new);
    }

    /* The shortest of some paired readings of both clocks. */
    ruk_ticks_t read_clocks()
    {
        ruk_ticks_t best{};
        for (int i = 0; i < 50; i++) {
            ruk_ticks_t t;
            if (const int rc = ruk_getticks(endpoint_.dev(), &t); rc != 0)
                fail("the clocks cannot be read: {}", errno_text(rc));
            if (i == 0 || t.host_nsecs_delay < best.host_nsecs_delay)
                best = t;
        }
        return best;
    }

    void clock(Probe &p)
    {
        p.expected = "every datagram arrives, dated shortly before it is received, and never backwards; the adapter's "
                     "clock runs as told, to 1000 ppm, and is read within 100 us";
        ruk_device_attrs attrs{};
        ruk_device_get_attrs(endpoint_.dev(), &attrs);
        attrs.hw_timestamping = 1;
        if (const int rc = ruk_device_set_attrs(endpoint_.dev(), &attrs); rc != 0)
            fail("timestamps of the adapter are refused: {}", errno_text(rc));
        const AtEnd back([&] {
            attrs.hw_timestamping = 0;
            ruk_device_set_attrs(endpoint_.dev(), &attrs);
        });
        Channel channel(*this);
        std::vector<int64_t> ages;
        uint32_t sent = 0, undated = 0, backwards = 0;
        uint64_t last = 0;
        const auto count = static_cast<uint32_t>(500 * std::max(1.0, repeat_));
        ordered_json rate = nullptr;
        const AtEnd record([&] {
            p.measured = {{"sent", sent},
                          {"received", ages.size()},
                          {"undated", undated},
                          {"backwards", backwards},
                          {"age_when_received_ns", spread(ages)},
                          {"rate", rate}};
        });
        const ruk_ticks_t before = read_clocks();
        /* Half a second's at a time. */
        stream(channel.port(), count, 64, 2000, 250, &sent, [&](const Datagram &d) {
            timespec now;
            clock_gettime(CLOCK_REALTIME, &now);
            undated += d.info.timestamp == 0;
            backwards += d.info.timestamp < last;
            last = d.info.timestamp;
            ages.push_back(now.tv_sec * second + now.tv_nsec - static_cast<int64_t>(d.info.timestamp));
        });
        rate = clock_rate(before, read_clocks());
        const ordered_json age = spread(ages);
        /* A microsecond of error of the clock itself is well within what a reading of it costs. */
        p.require(ages.size() == count && undated == 0 && backwards == 0 && age["min"] > -1000 &&
                  age["median"] < second);
        const auto ppb = rate["deviation_ppb"].get<int64_t>(), uncertain = rate["uncertainty_ppb"].get<int64_t>();
        p.require(rate["host_ns"] > 0 && std::abs(ppb) <= 1'000'000 + uncertain && rate["reading_ns"] < 100'000);
    }

    /* How much faster than told the adapter's clock ran between two readings. */
    ordered_json clock_rate(const ruk_ticks_t &a, const ruk_ticks_t &b)
    {
        oxel_clksync_nticks_t since_a = ep()->rep_nticks;
        since_a.ticks = a.nic_ticks;
        since_a.nsecs = 0;
        if (since_a.ticks_mask == 0) /* none */
            since_a.ticks_mask = ~UINT64_C(0);
        const auto adapter = static_cast<int64_t>(oxel_clksync_nticks_update(&since_a, b.nic_ticks));
        const auto host = static_cast<int64_t>(b.host_nsecs - a.host_nsecs);
        const double span = static_cast<double>(std::max<int64_t>(host, 1));
        const auto ppb = [&](int64_t ns) { return static_cast<int64_t>(static_cast<double>(ns) / span * 1e9); };
        const auto slack = static_cast<int64_t>(a.host_nsecs_delay + b.host_nsecs_delay);
        return {{"host_ns", host},
                {"deviation_ppb", ppb(adapter - host)},
                {"uncertainty_ppb", ppb(slack)},
                {"reading_ns", std::max(a.host_nsecs_delay, b.host_nsecs_delay)}};
    }

    /* A send handle to the peer's echo, for the time of a probe. */
    class Echo {
    public:
        Echo(AcceptRun &run, const Channel &channel) : run_(run)
        {
            sockaddr_in to = run.peer_;
            to.sin_port = htons(static_cast<uint16_t>(run.opt_.port + 1));
            const int64_t deadline = monotonic_ns() + 3 * second;
            while (ruk_send_connect(channel.handle, &to, RUK_NONBLOCK, 0, &handle_) != 0) {
                const int error = errno;
                if (run.stop_.requested() || monotonic_ns() >= deadline)
                    fail("cannot send to {}: {}", endpoint_text(to), send_error_text(error));
                run.stop_.sleep_until(monotonic_ns() + next_hop_pause_ns);
            }
        }
        ~Echo() { ruk_send_disconnect(handle_); }
        Echo(const Echo &) = delete;
        Echo &operator=(const Echo &) = delete;

        /* Never waits without end: an adapter that takes nothing ends the probe. */
        void send(const std::vector<uint8_t> &bytes)
        {
            const int64_t deadline = monotonic_ns() + second;
            while (const int rc = ruk_send(handle_, bytes.data(), static_cast<int>(bytes.size()), RUK_NONBLOCK)) {
                if (rc != EAGAIN)
                    fail("a datagram of {} bytes is refused: {}", bytes.size(), send_error_text(rc));
                if (run_.stop_.requested() || monotonic_ns() >= deadline)
                    fail("the adapter took no request for a second");
            }
        }

    private:
        AcceptRun &run_;
        ruk_send_t handle_ = nullptr;
    };

    /* The datagram of that number as it comes back from the peer's echo, which may be late with those before it. */
    Datagram echoed(uint32_t number)
    {
        Datagram d = awaited();
        while (d.there && number_of(d, number) != number)
            d = awaited();
        return d;
    }

    void thresholds(Probe &p)
    {
        p.expected =
            "payloads of every size leave whole, on either side of the threshold between the two ways of sending";
        ask("hello"); /* without the peer nothing would tell of the adapter */
        Channel channel(*this);
        Echo echo(*this, channel);
        oxel_ruk_params_t params{};
        if (const int rc = tov_ioctl(ep()->rep_handle, OXEL_GET_RUK_PARAMS, &params, sizeof params); rc != 0)
            fail("the driver does not tell its parameters: {}", errno_text(rc));
        std::vector<int> lengths = {0, 1, 2, 3, 4, 5, 63, 64, 65, 1471, 1472}, tried;
        for (int d = -1; d <= 1; d++)
            if (const int length = static_cast<int>(params.dmasend_threshold) + d; length >= 0 && length <= 1472)
                lengths.push_back(length);
        uint32_t failed = 0;
        bool came_back = false;
        const AtEnd record([&] {
            p.measured = {{"threshold", params.dmasend_threshold}, {"sizes", tried}, {"failed", failed}};
        });
        for (const int length : lengths) {
            const std::vector<uint8_t> bytes = payload(static_cast<uint32_t>(length), length);
            tried.push_back(length);
            echo.send(bytes);
            const Datagram d = echoed(static_cast<uint32_t>(length));
            failed += !d.there || d.bytes != bytes;
            came_back = came_back || d.there;
            /* Each costs time. */
            if (!came_back && tried.size() == 5)
                fail("nothing came back from the peer in time, five times in a row");
        }
        p.require(failed == 0);
    }

    void store_to_wire(Probe &p)
    {
        p.expected = "every request is completed, and its datagram comes back";
        Channel channel(*this);
        Echo echo(*this, channel);
        const auto count = static_cast<uint32_t>(1000 * std::max(1.0, repeat_));
        uint32_t number = 0;
        for (const int size : {64, 1400}) {
            std::vector<int64_t> round_trips, completions;
            uint32_t lost = 0;
            const AtEnd record([&] {
                p.measured[std::to_string(size)] = {{"lost", lost},
                                                    {"completed", completions.size()},
                                                    {"store_to_completion_ns", spread(completions)},
                                                    {"round_trip_ns", spread(round_trips)}};
            });
            uint32_t in_a_row = 0;
            for (uint32_t i = 0; i < count && !stop_.requested(); i++) {
                const std::vector<uint8_t> bytes = payload(++number, size);
                const volatile uint16_t *counter = ep()->rep_pioreq.compl_done;
                const uint16_t before = *counter;
                const int64_t start = monotonic_ns();
                echo.send(bytes);
                int64_t done = monotonic_ns();
                while (*counter == before && done - start < second && !stop_.requested())
                    done = monotonic_ns();
                if (*counter != before)
                    completions.push_back(done - start);
                const Datagram d = echoed(number);
                if (d.there && d.bytes == bytes) {
                    round_trips.push_back(d.at_ns - start);
                    in_a_row = 0;
                    continue;
                }
                lost++;
                /* Each costs time. */
                if (++in_a_row == 5)
                    fail("nothing came back from the peer in time, five times in a row");
            }
            p.require(lost == 0 && completions.size() == count);
        }
    }

    void full_ring(Probe &p)
    {
        p.expected = "a full ring drops the newest datagrams, and after it is emptied all goes on";
        Channel channel(*this);
        drain();
        const uint32_t count = static_cast<uint32_t>(ep()->rep_eventq.evq_recvq_size / 64 * 6 / 5);
        uint32_t sent = 0, received = 0, after = 0;
        std::vector<bool> kept(count); /* by number */
        const auto newer = [&] {
            const uint32_t oldest = std::min(received, count);
            return received - std::count(kept.begin(), kept.begin() + oldest, true);
        };
        const AtEnd record([&] {
            p.measured = {
                {"sent", sent}, {"kept", received}, {"not_the_oldest", newer()}, {"received_afterwards", after}};
        });
        ask(send_request(channel.port(), count, 64, 4));
        sent = count;
        /* Nobody receives until the peer is ready and the last frame is through: what comes later finds room. */
        ask("hello", 30);
        stop_.sleep_until(monotonic_ns() + second);
        for (Datagram d = next(second); d.there; d = next(100 * ms)) {
            received++;
            const uint32_t number = number_of(d, count - 1);
            if (number < count && d.bytes == payload(number, 64))
                kept[number] = true;
        }
        have_sent(send_request(channel.port(), 10, 64, 100));
        after = count_until_quiet();
        p.require(received > 0 && received < count && newer() == 0 && after == 10);
    }

    Options opt_;
    StopSignal stop_;
    Endpoint endpoint_;
    sockaddr_in peer_{};
    int control_ = -1;
    double repeat_ = 1;        /* seconds for a long probe */
    uint32_t passed_over_ = 0; /* events of the probe that the library cannot take */
    std::string unfit_;        /* why nothing may be received any more */
};

ordered_json about_the_host(const Options &opt)
{
    utsname host{};
    uname(&host);
    char when[32];
    const time_t now = time(nullptr);
    strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", gmtime(&now));
    ordered_json about = {{"program", "ruk-accept " RUK_VERSION},
                          {"time", when},
                          {"kernel", fmt::format("{} {}", host.sysname, host.release)},
                          {"machine", host.machine},
                          {"library", std::string(ruk__lib_build)}};
    tov_handle_t handle;
    oxel_get_version_t version{};
    if (tov_open_any_board(&handle, TOV_PRODUCT) == 0) {
        if (tov_ioctl(handle, OXEL_GET_VERSION, &version, sizeof version) == 0)
            about["driver"] = {{"version", std::string(version.version_str, strnlen(version.version_str, 60))},
                               {"build", std::string(version.build_str, strnlen(version.build_str, 128))}};
        tov_close(handle);
    }
    about["interface"] = find_interface(opt.interface).name;
    return about;
}

/* In place of the file as it was, which stays whole when this is interrupted. */
bool write_report(const std::string &path, const ordered_json &report)
{
    const std::string draft = fmt::format("{}.{}.new", path, getpid());
    const int fd = open(draft.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666); /* nobody else's, no link */
    if (fd < 0)
        return false;
    const std::string text = json_text(report, 2) + '\n';
    FILE *file = fdopen(fd, "w");
    const bool written = file != nullptr && fwrite(text.data(), 1, text.size(), file) == text.size();
    if ((file != nullptr ? fclose(file) : close(fd)) == 0 && written && rename(draft.c_str(), path.c_str()) == 0)
        return true;
    unlink(draft.c_str());
    return false;
}

int run(const Options &opt)
{
    if (!opt.report.empty() && access(opt.report.c_str(), F_OK) == 0)
        fail("{} is there already", opt.report);
    AcceptRun session(opt);
    ordered_json report = about_the_host(opt);
    report["probes"] = ordered_json::array();
    report["result"] = "unfinished";
    /* Found out before the time is spent. */
    if (!opt.report.empty() && (!write_report(opt.report, report) || unlink(opt.report.c_str()) != 0))
        fail("cannot write {}", opt.report);
    bool differs = false, failed = false, probed = false, written = true;
    const bool finished = session.all([&](const Probe &p) {
        const std::string result = p.result(), measured = json_text(p.measured);
        differs = differs || result == "differs";
        failed = failed || result == "failed";
        probed = probed || result != "not probed";
        ordered_json entry = {
            {"probe", p.name}, {"result", result}, {"expected", p.expected}, {"measured", p.measured}};
        const std::string reason = result == "differs" ? p.differs : p.failure + p.lacking;
        if (!reason.empty())
            entry["reason"] = reason;
        report["probes"].push_back(std::move(entry));
        if (!opt.json)
            put_line(fmt::format("{:<12} {:<17} assumed: {}; seen: {}{}",
                                 result == "differs"  ? "DIFFERS"
                                 : result == "failed" ? "FAILED"
                                                      : result,
                                 p.name, p.expected, measured, reason.empty() ? "" : "; " + reason));
        if (!opt.report.empty())
            written = write_report(opt.report, report);
    });
    if (finished)
        report["result"] = !probed ? "nothing probed" : failed ? "failed" : differs ? "differs" : "as expected";
    if (opt.json)
        put_line(json_text(report));
    else if (finished && !probed)
        put_line("nothing probed");
    if (!opt.report.empty()) {
        if (!write_report(opt.report, report) || !written)
            fail("cannot write {}", opt.report);
        note("the report is in " + opt.report);
    }
    return finished && probed && !failed && !differs ? exit_ok : exit_incomplete;
}

} // namespace

int main(int argc, char **argv)
{
    Program line("Tries what the library takes for granted of adapter, firmware and driver, and writes a report. On "
                 "the other host, joined by a cable or a switch, runs 'ruk-accept peer'.",
                 "ruk-accept");
    Options opt;
    std::string own = "0.0.0.0";
    // Before the subcommands, which take it over when they are made.
    line.footer("Exit status: 0 all that could be probed is as expected; 1 something differs or failed, a signal "
                "ended the run, or nothing could be probed; 2 error.");
    const CommandLine peer = line.command("peer", "The other end: an ordinary program over kernel sockets");
    peer.option("-a,--address", own, "Address to serve on (default: all)").type_name("ADDR");
    peer.option("-p,--port", opt.port, "Port of requests; the next one echoes (7700)")
        .whole(1, 65534)
        .type_name("PORT");
    const CommandLine run_it = line.command("run", "The run itself, on the host with the adapter");
    opt.interface.add_options(run_it);
    run_it.option("peer", opt.peer, "Address of the other host").type_name("PEER").required();
    run_it.option("-p,--port", opt.port, "Its port (7700)").whole(1, 65534).type_name("PORT");
    run_it.option("--minutes", opt.minutes, "How long it may take, about (10)").number(0.01, 1000).type_name("N");
    run_it.option("-o,--report", opt.report, "Write the report to this new file, as JSON").type_name("FILE");
    run_it.option("--only", opt.only, "Only this probe (repeatable): " + AcceptRun::probe_names())
        .type_name("PROBE")
        .repeatable();
    run_it.flag("--json", opt.json, "Print the report as one JSON object");
    return line.run(argc, argv, [&] { return peer.given() ? serve(parse_addr(own, "-a"), opt.port) : run(opt); });
}
