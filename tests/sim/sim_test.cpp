/*
 * Two hosts of the library, one board each, and a faulty wire between them: applications, wire, firmware schedule,
 * clock and faults all come from one seed, in virtual time. A plain model says what must arrive.
 *
 * RUK_SIM_SEED replays one seed; RUK_SIM_FIRST and RUK_SIM_SEEDS say which are run, RUK_SIM_STEPS how many steps each
 * makes.
 */
#include "adapter_rig.h"
#include "capture.h"
#include "child.h"
#include "libc_seam.h"
#include "own_network.h"
#include "ruk_core.h"
#include "sanitizer.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <deque>
#include <dirent.h>
#include <fcntl.h>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <utility>

using namespace adapter_rig;

/* There with a sanitizer. */
extern "C" __attribute__((weak)) void __sanitizer_set_death_callback(void (*callback)());

namespace {

constexpr uint32_t kAddress[2] = {0x7f000001, 0x7f000002};
constexpr uint64_t kNotWritten = 0xdeadbeefdeadbeef;
constexpr size_t kNumbered = 8; /* bytes of the number that a payload begins with */

/* splitmix64: the same numbers on every machine. */
class Random {
public:
    explicit Random(uint64_t seed) : state_(seed) {}
    uint64_t next()
    {
        uint64_t z = state_ += 0x9e3779b97f4a7c15;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
        z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
        return z ^ (z >> 31);
    }
    uint32_t below(uint32_t n) { return static_cast<uint32_t>(next() % n); }
    bool one_in(uint32_t n) { return below(n) == 0; }

private:
    uint64_t state_;
};

struct Figures {
    uint64_t steps, sent, refused, send_errors, lost, lost_in_a_row, delayed, duplicated, reordered, corrupted, cut,
        bursts, arrived, malformed, unmatched, ring_full, delivered, received, stale, inherited, faults, jumps;
};

size_t open_descriptors()
{
    size_t n = 0;
    if (DIR *dir = opendir("/proc/self/fd")) {
        while (readdir(dir) != nullptr)
            n++;
        closedir(dir);
    }
    return n;
}

size_t shared_mappings()
{
    size_t n = 0;
    std::ifstream maps("/proc/self/maps");
    for (std::string line; std::getline(maps, line);)
        n += line.find("memfd:") != std::string::npos;
    return n;
}

/* A datagram's frame on its way, untagged, its IP header without options. */
struct Frame {
    Bytes bytes;
    uint64_t due = 0;
    size_t length = 0; /* of the payload */

    uint16_t be16(size_t at) const { return static_cast<uint16_t>(bytes[at] << 8 | bytes[at + 1]); }
    uint32_t be32(size_t at) const { return static_cast<uint32_t>(be16(at)) << 16 | be16(at + 2); }
    bool malformed() const { return bytes.size() < 14; } /* no Ethernet header */
    /* An adapter looks at UDP over IPv4 that has come whole; sums it leaves to others. */
    bool is_datagram() const { return bytes.size() >= 42 + length && be16(12) == 0x0800 && bytes[23] == 17; }
    uint32_t src() const { return be32(26); }
    uint32_t dst() const { return be32(30); }
    uint16_t sport() const { return be16(34); }
    uint16_t dport() const { return be16(36); }
    const uint8_t *payload() const { return bytes.data() + 42; }
};

/* Who gets which filter tag. */
class Tags {
public:
    /* The oldest of those kept back when its time has come, else a free one, of a new block if need be. */
    unsigned take(uint64_t told)
    {
        if (!kept_back.empty() && told > kept_back.front().until) {
            const unsigned tag = kept_back.front().tag;
            kept_back.pop_front();
            return tag;
        }
        if (free.empty())
            for (const unsigned block_end = made_ + 128; made_ < block_end; made_++)
                free.push_back(made_);
        const unsigned tag = free.front();
        free.pop_front();
        return tag;
    }
    /* Never in use: no event names it. */
    void put(unsigned tag) { free.push_back(tag); }
    /* Kept back until the datagrams that waited, and one more, were told of; without any nothing is kept back. */
    void release(unsigned tag, uint64_t told, uint64_t waiting)
    {
        if (waiting != 0) {
            kept_back.push_back({tag, told + waiting});
            return;
        }
        free.push_back(tag);
        for (; !kept_back.empty(); kept_back.pop_front())
            free.push_back(kept_back.front().tag);
    }

    struct KeptBack {
        unsigned tag;
        uint64_t until;
    };
    std::deque<unsigned> free;
    std::deque<KeptBack> kept_back;

private:
    unsigned made_ = 0;
};

struct Channel {
    uint64_t serial = 0;
    ruk_channel_t handle = nullptr;
    uint16_t port = 0;
    std::map<uint32_t, uint64_t> filters; /* address -> serial of its filter */
    ruk_send_t connected = nullptr;
    uint16_t connected_port = 0;
};

/* A datagram that the adapter put into the ring. */
struct Waiting {
    uint64_t filter = 0;
    Frame frame;
    bool given_back = false; /* its filter was, */
    bool unshown = false;    /* before the event was shown */
    uint64_t peeks = 0;      /* the host's by then */
};

struct Host {
    ruk_device_t dev = nullptr;
    bool dated = false;
    bool late_bytes = false; /* events are shown before they are whole */
    std::vector<Channel> channels;
    std::deque<Bytes> leaving;   /* payloads accepted by the library, not yet on the wire */
    std::deque<Frame> wire;      /* on its way to this host */
    std::deque<Frame> port;      /* injected, not yet taken by the firmware */
    std::deque<Waiting> ring;    /* in the event ring */
    uint64_t stale = 0;          /* datagrams whose filter was gone when their turn came */
    uint64_t before = 0;         /* datagrams delivered before it was opened */
    uint64_t received = 0;       /* datagrams by the application */
    uint64_t peeks = 0;          /* that found a datagram, since it was opened */
    std::deque<uint64_t> events; /* datagrams of each event shown and not consumed */
    uint64_t consumed = 0;       /* of the first of them */
    uint64_t shown = 0;          /* datagrams in events shown, ever */
    Tags tags;
    std::map<uint64_t, unsigned> tag_of; /* by the serial of the filter that has it */
    size_t descriptors = 0;              /* that its endpoint and channels hold */
    uint64_t last_time = 0;              /* of the last datagram */
    softnic_board_counters_t board = {}; /* expected */
    softnic_endpoint_counters_t nic = {};
};

/* One driver command that fails. */
struct {
    int error;   /* errno; 0 = none fails */
    unsigned in; /* after so many that work */
} g_fault;

int fail_once(void *, unsigned, unsigned long command)
{
    if (command == 0 || g_fault.error == 0) /* 0 is the open, which another name may answer */
        return 0;
    return g_fault.in-- == 0 ? std::exchange(g_fault.error, 0) : 0;
}

class Simulation {
public:
    Simulation(uint64_t seed, Figures &figures) : random_(seed), figures_(figures)
    {
        softnic_board_config_t config[2];
        host_.interfaces.resize(2);
        for (unsigned b = 0; b < 2; b++) {
            softnic_board_defaults(&config[b], b);
            config[b].recvq_size = 16384;
            config[b].sendq_size = 4096U << random_.below(3);
            config[b].sreqs_count = 8 + random_.below(24);
            config[b].dmasend_threshold = random_.one_in(3) ? 0 : random_.below(1473);
            config[b].max_packets = 1 + random_.below(5);
            config[b].clock_drift_ppb = static_cast<int64_t>(random_.below(100001)) - 50000;
            /* Its counter runs over soon. */
            config[b].clock_ticks_mask = random_.one_in(2) ? 0 : (uint64_t{1} << 48) - 1;
            config[b].clock_first_ticks = 0ULL - random_.below(1U << 26);
            config[b].hardware_order = static_cast<int>(random_.below(2));
            config[b].manual_sends = 1;
            hosts_[b].late_bytes = config[b].hardware_order != 0;
            test_support::FakeInterface &i = host_.interfaces[b];
            i.name = "oxel" + std::to_string(b);
            i.address = b == 0 ? "127.0.0.1" : "127.0.0.2";
            memcpy(i.mac.data(), config[b].mac, 6);
            host_.add_route(i.name, "127.0.0.0", "0.0.0.0", "255.0.0.0");
        }
        for (unsigned b = 0; b < 2; b++)
            host_.arp.push_back({host_.interfaces[b].address, host_.interfaces[b].mac, host_.interfaces[1 - b].name});
        nic_ = softnic_create(config, 2, START);
        EXPECT_EQ(softnic_attach(nic_), 0);
        EXPECT_EQ(ruk_init(RUK_API_VERSION), 0);
        idle_descriptors_ = open_descriptors();
        softnic_set_command_hook(nic_, fail_once, nullptr);
        loss_ = random_.below(200);
        burst_ = random_.below(16);
        idle_ = random_.below(4);
    }
    ~Simulation()
    {
        /* After a failure an event may be shown and not whole, which a close would wait for. */
        for (unsigned b = 0; b < 2; b++)
            while (softnic_step(nic_, b) != 0)
                continue;
        for (Host &h : hosts_)
            if (h.dev) {
                EXPECT_EQ(ruk_close(h.dev), 0);
            }
        for (unsigned b = 0; b < 2; b++)
            EXPECT_EQ(softnic_claimed(nic_, b), 0u);
        softnic_set_command_hook(nic_, nullptr, nullptr);
        softnic_destroy(nic_);
        g_fault = {};
    }

    uint64_t run(unsigned steps)
    {
        for (step_ = 0; step_ < steps && !testing::Test::HasFailure(); step_++) {
            SCOPED_TRACE("step " + std::to_string(step_));
            const unsigned b = random_.below(2), what = random_.below(32);
            note(what * 2 + b);
            step(b, what);
            check();
            if (what < 2 || what == 5) { /* something was opened, closed, bound or refused */
                EXPECT_EQ(open_descriptors(), descriptors_held());
            }
            figures_.steps++;
        }
        for (unsigned b = 0; b < 2 && !testing::Test::HasFailure(); b++)
            if (hosts_[b].dev) {
                drain(b);
                check();
                EXPECT_TRUE(hosts_[b].ring.empty());
                check_tags(hosts_[b]);
            }
        for (const Host &h : hosts_)
            for (uint64_t n : {h.board.unmatched, h.nic.delivered, h.nic.ring_full, h.nic.send_errors, h.last_time})
                note(n);
        return hash_;
    }

private:
    void note(uint64_t value) { hash_ = (hash_ ^ value) * 0x100000001b3; }

    void step(unsigned b, unsigned what)
    {
        if (hosts_[b].dev == nullptr)
            return open(b);
        switch (what) {
        case 0:
            return random_.one_in(6) ? close(b) : bind(b);
        case 1:
            return random_.one_in(3) ? unbind(b) : bind(b);
        case 2:
            return join(b);
        case 3:
            return leave(b);
        case 4:
            return connect(b);
        case 5:
            return fault(b);
        case 6:
        case 7:
            if (jumps_left_ != 0 && random_.one_in(100)) { /* a host that stood still */
                softnic_advance(nic_, uint64_t{1 + random_.below(1000)} * 1000000000);
                jumps_left_--;
                figures_.jumps++;
                return;
            }
            softnic_advance(nic_, random_.below(5000000));
            return;
        case 8:
        case 9:
        case 10:
        case 11:
            softnic_take_requests(nic_, b, 0, 1 + random_.below(32));
            return carry(b);
        case 12:
        case 13:
        case 14:
            softnic_complete_requests(nic_, b, 0, 1 + random_.below(64));
            return;
        case 15:
        case 16:
        case 17:
        case 18:
            return arrive(b);
        case 19:
        case 20:
        case 21:
            return firmware(b, 1 + random_.below(12));
        case 22:
        case 23:
        case 24:
        case 25:
            if (random_.below(4) < idle_) /* an application that is slow to read */
                return;
            for (unsigned i = random_.below(6) + 1; i != 0; i--)
                receive(b);
            return;
        default:
            for (unsigned i = 1 + random_.below(random_.one_in(8) ? 30 : 3); i != 0; i--)
                send(b);
        }
    }

    /* ------------------------------------------------------------------ applications */

    void open(unsigned b)
    {
        Host &h = hosts_[b];
        const int flags =
            (random_.one_in(2) ? RUK_OPEN_THREAD_SAFE : 0) | (random_.one_in(2) ? RUK_OPEN_HW_TIMESTAMPING : 0);
        test_support::ScopedEnv no_check("RUK_IP_ACCELERATION", "1");
        in_addr addr = {htonl(kAddress[b])};
        if (random_.one_in(6))
            return failing_open(b, &addr, flags);
        ASSERT_EQ(ruk_open(&addr, flags, &h.dev), 0);
        h.received = h.peeks = 0;
        h.tags = {};
        h.descriptors = open_descriptors() - descriptors_held();
        ASSERT_GT(h.descriptors, 0u);
        h.dated = (flags & RUK_OPEN_HW_TIMESTAMPING) != 0;
        h.last_time = 0;
        h.stale = 0;
        softnic_endpoint_counters(nic_, b, 0, &h.nic);
        h.before = h.shown = h.nic.delivered;
    }

    /* An open of which a driver command or an allocation fails leaves nothing behind. */
    void failing_open(unsigned b, in_addr *addr, int flags)
    {
        test_support::StreamCapture diagnostics;
        ruk_device_t none = nullptr;
        int rc;
        if (random_.one_in(2)) {
            g_fault = {EIO, random_.below(3)};
            rc = ruk_open(addr, flags, &none);
            ASSERT_EQ(std::exchange(g_fault.error, 0), 0) << "no command failed";
            ASSERT_NE(rc, 0);
        } else {
            test_support::AllocFault out_of_memory(1 + random_.below(2));
            rc = ruk_open(addr, flags, &none);
            ASSERT_EQ(rc, ENOMEM);
        }
        note(static_cast<uint64_t>(rc));
        figures_.faults++;
        ASSERT_EQ(softnic_claimed(nic_, b), 0u);
    }

    /* As many as all opens and binds took, and the harness before them. */
    size_t descriptors_held() const { return idle_descriptors_ + hosts_[0].descriptors + hosts_[1].descriptors; }

    void close(unsigned b)
    {
        drain(b);
        Host &h = hosts_[b];
        ASSERT_EQ(ruk_close(h.dev), 0);
        h.dev = nullptr;
        h.channels.clear();
        h.ring.clear();
        h.events.clear();
        h.consumed = 0;
        h.tag_of.clear();
        h.leaving.clear();
        h.descriptors = 0;
        ASSERT_EQ(softnic_claimed(nic_, b), 0u);
    }

    void bind(unsigned b)
    {
        Host &h = hosts_[b];
        if (h.channels.size() >= 6)
            return;
        Channel c;
        c.serial = ++serial_;
        const int port = next_port_++; /* none twice in a run: a frame that comes late must find nobody */
        ASSERT_EQ(ruk_bind(h.dev, 0, port, &h, &c.handle), 0);
        sockaddr_in sin = {};
        ASSERT_EQ(ruk_getaddress(c.handle, &sin), 0);
        c.port = ntohs(sin.sin_port);
        ASSERT_EQ(c.port, port);
        c.filters[kAddress[b]] = ++serial_;
        const ruk__tag_entry *entry;
        TAILQ_FOREACH(entry, &h.dev->rep_tag_uniq, tage_link)
        {
            if (entry->tage_channel == c.handle)
                break;
        }
        give_tag(h, serial_, entry);
        h.channels.push_back(c);
        h.descriptors++; /* the socket that holds the port */
    }

    Channel *any(unsigned b)
    {
        Host &h = hosts_[b];
        return h.channels.empty() ? nullptr : &h.channels[random_.below(static_cast<uint32_t>(h.channels.size()))];
    }

    void unbind(unsigned b)
    {
        Channel *c = any(b);
        if (c == nullptr)
            return;
        wait_for_whole_events(b);
        std::vector<uint64_t> filters; /* groups as they were joined, then its own address */
        for (const auto &[address, serial] : c->filters)
            filters.push_back(serial);
        std::sort(filters.begin(), filters.end());
        std::rotate(filters.begin(), filters.begin() + 1, filters.end());
        ASSERT_EQ(ruk_unbind(c->handle), 0);
        hosts_[b].channels.erase(hosts_[b].channels.begin() + (c - hosts_[b].channels.data()));
        hosts_[b].descriptors--;
        mark_given_back(b);
        release_tags(b, filters);
    }

    static uint32_t group(uint32_t n) { return 0xef020300 + n; }

    void join(unsigned b)
    {
        Channel *c = any(b);
        const uint32_t g = group(random_.below(4));
        if (c == nullptr || c->filters.count(g) != 0)
            return;
        join_group(b, c, g);
    }

    void leave(unsigned b)
    {
        Channel *c = any(b);
        const uint32_t g = group(random_.below(4));
        if (c == nullptr || c->filters.count(g) == 0)
            return;
        wait_for_whole_events(b);
        leave_group(b, c, g);
        /* An undecided application takes one tag of a block of 128 after another, until the first is due again. */
        if (random_.one_in(4)) {
            size_t used = 0;
            for (const Channel &other : hosts_[b].channels)
                used += other.filters.size();
            for (size_t times = 124 - used + random_.below(6); times != 0 && !testing::Test::HasFailure(); times--) {
                join_group(b, c, g);
                leave_group(b, c, g);
            }
        }
        if (random_.one_in(2))
            join_group(b, c, g);
    }

    void join_group(unsigned b, Channel *c, uint32_t g)
    {
        in_addr addr = {htonl(g)};
        ASSERT_EQ(ruk_mcast_join(c->handle, &addr, nullptr), 0);
        c->filters[g] = ++serial_;
        const ruk__tag_entry *entry;
        TAILQ_FOREACH(entry, &c->handle->ch_tag_multiq, tage_link)
        {
            if (entry->tage_ip_addr == g)
                break;
        }
        give_tag(hosts_[b], serial_, entry);
    }

    void leave_group(unsigned b, Channel *c, uint32_t g)
    {
        in_addr addr = {htonl(g)};
        const uint64_t filter = c->filters[g];
        ASSERT_EQ(ruk_mcast_leave(c->handle, &addr), 0);
        c->filters.erase(g);
        mark_given_back(b);
        release_tags(b, {filter});
    }

    static uint64_t told(const Host &h) { return h.received + h.peeks; }

    /* The tag of a new filter is the one whose turn it is. */
    void give_tag(Host &h, uint64_t filter, const ruk__tag_entry *entry)
    {
        const unsigned tag = h.tags.take(told(h));
        h.tag_of[filter] = tag;
        note(tag);
        ASSERT_NE(entry, nullptr);
        ASSERT_EQ(entry->tage_nuv_tag, tag);
    }

    /* To be called when filters of the board were given back, in their order. */
    void release_tags(unsigned b, const std::vector<uint64_t> &filters)
    {
        Host &h = hosts_[b];
        note_shown(b);
        uint64_t waiting = 0; /* an event begun counts whole */
        for (uint64_t datagrams : h.events)
            waiting += datagrams;
        for (uint64_t filter : filters) {
            h.tags.release(h.tag_of.at(filter), told(h), waiting);
            h.tag_of.erase(filter);
        }
    }

    /* All tags are where they should be. */
    void check_tags(const Host &h)
    {
        const ruk__tag_entry *entry;
        std::vector<unsigned> free, kept_back, expected;
        TAILQ_FOREACH(entry, &h.dev->rep_tag_filterq, tage_link)
        free.push_back(entry->tage_nuv_tag & ~RUK_TAG_DELAYED);
        EXPECT_TRUE(std::equal(free.begin(), free.end(), h.tags.free.begin(), h.tags.free.end()));
        TAILQ_FOREACH(entry, &h.dev->rep_tag_delayq, tage_link)
        kept_back.push_back(entry->tage_nuv_tag & ~RUK_TAG_DELAYED);
        for (const Tags::KeptBack &kept : h.tags.kept_back)
            expected.push_back(kept.tag);
        EXPECT_EQ(kept_back, expected);
    }

    sockaddr_in destination(unsigned b)
    {
        const Channel *to = any(1 - b);
        uint32_t address = random_.one_in(4) ? group(random_.below(4)) : kAddress[1 - b];
        if (to != nullptr && random_.one_in(2)) {
            auto filter = to->filters.begin();
            std::advance(filter, random_.below(static_cast<uint32_t>(to->filters.size())));
            address = filter->first;
        }
        sockaddr_in sin = {};
        sin.sin_family = AF_INET;
        sin.sin_addr.s_addr = htonl(address);
        sin.sin_port = htons(to != nullptr ? to->port : 9);
        return sin;
    }

    void connect(unsigned b)
    {
        Channel *c = any(b);
        if (c == nullptr)
            return;
        if (c->connected != nullptr) {
            ASSERT_EQ(ruk_send_disconnect(c->connected), 0);
            c->connected = nullptr;
            return;
        }
        const sockaddr_in sin = destination(b);
        if (random_.one_in(4)) {
            ruk_send_t none = nullptr;
            test_support::AllocFault out_of_memory(1);
            ASSERT_EQ(ruk_send_connect(c->handle, &sin, 0, 0, &none), ENOMEM);
            figures_.faults++;
            return;
        }
        ASSERT_EQ(ruk_send_connect(c->handle, &sin, 0, 0, &c->connected), 0);
    }

    void send(unsigned b)
    {
        Channel *c = any(b);
        if (c == nullptr)
            return;
        Bytes payload(kNumbered + random_.below(random_.one_in(3) ? 1465 : 100));
        const uint64_t number = ++number_;
        for (size_t i = 0; i < payload.size(); i++)
            payload[i] = static_cast<uint8_t>(i < kNumbered ? number >> (8 * i) : number * 31 + i * 7);
        const int length = static_cast<int>(payload.size());
        const sockaddr_in sin = destination(b);
        const int rc = c->connected != nullptr && random_.one_in(2)
                           ? ruk_send(c->connected, payload.data(), length, RUK_NONBLOCK)
                           : ruk_sendto(c->handle, &sin, payload.data(), length, RUK_NONBLOCK);
        note(static_cast<uint64_t>(rc));
        if (rc != 0) {
            ASSERT_EQ(rc, EAGAIN);
            figures_.refused++;
            return;
        }
        figures_.sent++;
        hosts_[b].leaving.push_back(payload);
        ASSERT_EQ(softnic_posted_requests(nic_, b, 0),
                  posted(b)); /* the window is read before its slot is used again */
    }
    unsigned posted(unsigned b) const { return static_cast<unsigned>(hosts_[b].leaving.size()); }

    void receive(unsigned b)
    {
        Host &h = hosts_[b];
        constexpr enum ruk_recvmode modes[] = {RUK_RECV_NONBLOCK, RUK_RECV_PEEK, RUK_RECV_PEEK_MSG, RUK_RECV_DEFAULT,
                                               RUK_RECV_BLOCK};
        enum ruk_recvmode mode = modes[random_.below(5)];
        settle(b);            /* what is in the ring is whole and shown */
        bool skipped = false; /* and so its time was told */
        while (!h.ring.empty() && owner(h, h.ring.front().filter) == nullptr) {
            if (inherits(h, h.ring.front()))
                break;
            consume(h); /* its filter is gone */
            skipped = true;
            h.stale++;
            figures_.stale++;
        }
        if (h.ring.empty() && (mode == RUK_RECV_DEFAULT || mode == RUK_RECV_BLOCK))
            mode = RUK_RECV_NONBLOCK;
        Bytes buffer(2048);
        ruk_recv_info info = {};
        info.timestamp = kNotWritten;
        const int rc = ruk_recvfrom(h.dev, mode, buffer.data(), buffer.size(), &info);
        note(static_cast<uint64_t>(rc));
        /* A tag that serves another channel by now tells by its port; the library has no other reason to drop. */
        ASSERT_EQ(drops(h), h.stale);
        if (h.ring.empty()) {
            ASSERT_EQ(rc, EAGAIN);
            return;
        }
        ASSERT_EQ(rc, 0);
        const Waiting &w = h.ring.front();
        const Channel *c = owner(h, w.filter);
        ASSERT_EQ(info.chan, c->handle);
        ASSERT_EQ(info.chan_context, &h);
        ASSERT_EQ(info.msg_len, w.frame.length);
        ASSERT_EQ(ntohl(info.sin_from.sin_addr.s_addr), w.frame.src());
        ASSERT_EQ(ntohs(info.sin_from.sin_port), w.frame.sport());
        ASSERT_EQ(ntohl(info.sin_to.sin_addr.s_addr), w.frame.dst());
        ASSERT_EQ(ntohs(info.sin_to.sin_port), w.frame.dport());
        if (mode != RUK_RECV_PEEK) {
            ASSERT_TRUE(std::equal(w.frame.payload(), w.frame.payload() + w.frame.length, buffer.begin()));
        }
        if (mode == RUK_RECV_PEEK || mode == RUK_RECV_PEEK_MSG) {
            h.peeks++;
            if (!skipped) {
                ASSERT_EQ(info.timestamp, kNotWritten);
            }
        } else if (h.dated) {
            ASSERT_GE(info.timestamp, h.last_time);
            ASSERT_LE(info.timestamp, softnic_now(nic_) + 1000);
            h.last_time = info.timestamp;
        } else {
            ASSERT_EQ(info.timestamp, 0u);
        }
        for (size_t i = 0; i < kNumbered; i++)
            note(w.frame.payload()[i]);
        if (mode != RUK_RECV_PEEK && mode != RUK_RECV_PEEK_MSG) {
            consume(h);
            h.received++;
            figures_.received++;
        }
    }

    /* The oldest datagram of the ring is consumed, and its event with the last one. */
    static void consume(Host &h)
    {
        h.ring.pop_front();
        ASSERT_FALSE(h.events.empty());
        if (++h.consumed == h.events.front()) {
            h.events.pop_front();
            h.consumed = 0;
        }
    }

    /* To be called when an event may have been shown. */
    void note_shown(unsigned b)
    {
        Host &h = hosts_[b];
        softnic_endpoint_counters_t now;
        softnic_endpoint_counters(nic_, b, 0, &now);
        if (now.events == h.nic.events)
            return;
        ASSERT_EQ(now.events, h.nic.events + 1);
        h.nic.events = now.events;
        h.events.push_back(now.delivered - h.shown);
        h.shown = now.delivered;
    }

    static uint64_t drops(const Host &h)
    {
        return h.dev->rep_stats.dropped_nosock + h.dev->rep_stats.dropped_badfilter;
    }

    /* A tag is kept from use until as many datagrams were told of as waited, as far as shown, when its filter was given
     * back. A peek tells of one as well. So one that was not shown, or that has been waiting through peeks, may meet
     * the tag in use again; should that be for the same address and port, it is delivered. */
    bool inherits(Host &h, Waiting &w)
    {
        uint64_t heir = 0;
        for (const Channel &c : h.channels)
            if (const auto it = c.filters.find(w.frame.dst()); c.port == w.frame.dport() && it != c.filters.end())
                heir = it->second;
        if (heir == 0 || (!w.unshown && h.peeks == w.peeks))
            return false;
        Bytes buffer(1);
        ruk_recv_info info = {};
        if (ruk_recvfrom(h.dev, RUK_RECV_PEEK, buffer.data(), buffer.size(), &info) == 0)
            h.peeks++;
        if (drops(h) != h.stale)
            return false;
        w.filter = heir;
        figures_.inherited++;
        return true;
    }

    /* To be called when filters of the board were given back. */
    void mark_given_back(unsigned b)
    {
        Host &h = hosts_[b];
        softnic_endpoint_counters_t now;
        softnic_endpoint_counters(nic_, b, 0, &now);
        const size_t shown = h.ring.size() - (h.nic.delivered - now.delivered);
        for (size_t i = 0; i < h.ring.size(); i++)
            if (Waiting &w = h.ring[i]; !w.given_back && owner(h, w.filter) == nullptr) {
                w.given_back = true;
                w.unshown = i >= shown;
                w.peeks = h.peeks;
            }
    }

    static const Channel *owner(const Host &h, uint64_t filter)
    {
        for (const Channel &c : h.channels)
            for (const auto &[address, serial] : c.filters)
                if (serial == filter)
                    return &c;
        return nullptr;
    }

    /* ------------------------------------------------------------------ wire */

    /* Frames that left board b go onto the wire, which does to them what it likes. */
    void carry(unsigned b)
    {
        Host &h = hosts_[b], &peer = hosts_[1 - b];
        softnic_endpoint_counters_t now;
        softnic_endpoint_counters(nic_, b, 0, &now);
        for (uint64_t failed = now.send_errors - h.nic.send_errors; failed != 0; failed--) {
            ASSERT_FALSE(h.leaving.empty()); /* the failing ones are the first of a batch */
            h.leaving.pop_front();
            figures_.send_errors++;
        }
        h.nic.send_errors = now.send_errors;
        Bytes bytes(2048);
        while (const size_t n = softnic_take_sent(nic_, b, bytes.data(), bytes.size())) {
            ASSERT_FALSE(h.leaving.empty());
            const Bytes payload = h.leaving.front();
            h.leaving.pop_front();
            Frame f;
            f.bytes.assign(bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(n));
            f.length = payload.size();
            ASSERT_EQ(n, std::max<size_t>(60, 42 + f.length));
            ASSERT_TRUE(std::equal(payload.begin(), payload.end(), f.payload()));
            ASSERT_TRUE(f.is_datagram());
            ASSERT_EQ(f.src(), kAddress[b]);
            if (random_.one_in(300))
                gap_ = 2 + random_.below(8);
            if (gap_ != 0 || random_.below(1000) < loss_) {
                figures_.lost++;
                figures_.lost_in_a_row += gap_ != 0;
                gap_ -= gap_ != 0;
                continue;
            }
            disturb(&f);
            const bool late = random_.one_in(5);
            f.due = softnic_now(nic_) + random_.below(late ? 3000000 : 1000);
            figures_.delayed += late;
            if (random_.one_in(20)) {
                peer.wire.push_back(f);
                figures_.duplicated++;
            }
            if (random_.one_in(10) && !peer.wire.empty()) {
                peer.wire.push_front(f);
                figures_.reordered++;
            } else {
                peer.wire.push_back(f);
            }
        }
    }

    /* A bit of it turns over, or its end is missing. */
    void disturb(Frame *f)
    {
        if (random_.one_in(20)) {
            /* Anywhere in the payload, the type, the protocol, a sum, addresses and ports. */
            constexpr uint8_t heads[] = {12, 13, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32, 33, 34, 35, 36, 37, 40, 41};
            const size_t at = random_.one_in(2) ? 42 + random_.below(static_cast<uint32_t>(f->length))
                                                : heads[random_.below(sizeof heads)];
            f->bytes[at] ^= static_cast<uint8_t>(1U << random_.below(8));
            figures_.corrupted++;
        }
        if (random_.one_in(60)) {
            f->bytes.resize(1 + random_.below(static_cast<uint32_t>(f->bytes.size()) - 1));
            figures_.cut++;
        }
    }

    void arrive(unsigned b)
    {
        Host &h = hosts_[b];
        const unsigned at_once = 1 + random_.below(burst_ + 1);
        for (unsigned n = 0; n != at_once && !h.wire.empty(); n++) {
            const auto it =
                std::find_if(h.wire.begin(), h.wire.end(), [&](const Frame &f) { return f.due <= softnic_now(nic_); });
            if (it == h.wire.end())
                return;
            softnic_inject(nic_, b, it->bytes.data(), it->bytes.size());
            h.port.push_back(*it);
            h.wire.erase(it);
            figures_.bursts += n == 8;
        }
    }

    /* ------------------------------------------------------------------ firmware */

    void firmware(unsigned b, unsigned units)
    {
        for (; units != 0 && unit(b); units--)
            continue;
    }
    void settle(unsigned b)
    {
        while (unit(b))
            continue;
        softnic_endpoint_counters_t now;
        softnic_endpoint_counters(nic_, b, 0, &now);
        EXPECT_EQ(now.delivered, hosts_[b].nic.delivered);
        EXPECT_TRUE(hosts_[b].port.empty());
    }

    /* One unit of firmware work; what it did to the oldest frame must be what the model says. */
    bool unit(unsigned b)
    {
        Host &h = hosts_[b];
        const bool worked = softnic_step(nic_, b) != 0;
        if (h.dev)
            note_shown(b);
        softnic_board_counters_t board;
        softnic_board_counters(nic_, b, &board);
        if (board.arrived == h.board.arrived)
            return worked;
        EXPECT_EQ(board.arrived, h.board.arrived + 1);
        EXPECT_FALSE(h.port.empty());
        if (h.port.empty())
            return false;
        const Frame f = h.port.front();
        h.port.pop_front();
        h.board.arrived++;
        figures_.arrived++;
        if (f.malformed()) {
            h.board.malformed++;
            figures_.malformed++;
            return worked;
        }
        uint64_t filter = 0;
        for (const Channel &c : h.channels)
            if (!f.is_datagram())
                break;
            else if (const auto it = c.filters.find(f.dst()); c.port == f.dport() && it != c.filters.end())
                filter = it->second;
        if (filter == 0) {
            h.board.unmatched++;
            figures_.unmatched++;
            return worked;
        }
        h.board.matched++;
        h.nic.steered++;
        softnic_endpoint_counters_t now;
        softnic_endpoint_counters(nic_, b, 0, &now);
        if (now.ring_full != h.nic.ring_full) {
            h.nic.ring_full++;
            figures_.ring_full++;
            note(1);
            return worked;
        }
        h.nic.delivered++;
        figures_.delivered++;
        h.ring.push_back({filter, f});
        return worked;
    }

    /* Giving a filter back counts what waits for it, and spins on an event until the firmware has finished it. */
    void wait_for_whole_events(unsigned b)
    {
        if (hosts_[b].late_bytes)
            settle(b);
    }

    /* All requests leave and complete, all frames are taken, all datagrams received. */
    void drain(unsigned b)
    {
        softnic_fail_sends(nic_, b, 0, 0);
        while (softnic_take_requests(nic_, b, 0, 64) != 0)
            continue;
        carry(b);
        while (softnic_complete_requests(nic_, b, 0, 64) != 0)
            continue;
        ASSERT_TRUE(hosts_[b].leaving.empty());
        settle(b);
        while (!hosts_[b].ring.empty() && !testing::Test::HasFailure())
            receive(b);
    }

    void fault(unsigned b)
    {
        figures_.faults++;
        if (random_.one_in(2)) {
            softnic_take_requests(nic_, b, 0, 64);
            carry(b);
            softnic_fail_sends(nic_, b, ENOBUFS, 1); /* of the next batch the first */
            return;
        }
        if (random_.one_in(2))
            return taken_port(b);
        Channel *c = any(b);
        in_addr addr = {htonl(group(9))}; /* nobody sends there */
        if (c == nullptr)
            return;
        test_support::StreamCapture diagnostics;
        g_fault = {ENOSPC, 0};
        ASSERT_EQ(ruk_mcast_join(c->handle, &addr, nullptr), ENOSPC);
        hosts_[b].tags.put(hosts_[b].tags.take(told(hosts_[b])));
        ASSERT_EQ(std::exchange(g_fault.error, 0), 0);
        ASSERT_NE(diagnostics.err().find("FAILED with return value 28"), std::string::npos);
    }

    /* A bind to a port that somebody else has takes nothing. */
    void taken_port(unsigned b)
    {
        const int other = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in sin = {};
        sin.sin_family = AF_INET;
        sin.sin_addr.s_addr = htonl(kAddress[b]);
        sin.sin_port = htons(static_cast<uint16_t>(next_port_));
        ASSERT_EQ(::bind(other, reinterpret_cast<sockaddr *>(&sin), sizeof sin), 0);
        ruk_channel_t none = nullptr;
        ASSERT_EQ(ruk_bind(hosts_[b].dev, 0, next_port_, nullptr, &none), EADDRINUSE);
        ASSERT_EQ(none, nullptr);
        ::close(other);
    }

    /* arrived = delivered + each reason for a drop, and each of them is the model's. */
    void check()
    {
        for (unsigned b = 0; b < 2; b++) {
            const Host &h = hosts_[b];
            softnic_board_counters_t board;
            softnic_board_counters(nic_, b, &board);
            ASSERT_EQ(board.arrived, h.board.arrived);
            ASSERT_EQ(board.matched, h.board.matched);
            ASSERT_EQ(board.unmatched, h.board.unmatched);
            ASSERT_EQ(board.malformed, h.board.malformed);
            ASSERT_EQ(board.arrived, board.matched + board.unmatched + board.malformed);
            if (h.dev == nullptr)
                continue;
            softnic_endpoint_counters_t now;
            softnic_endpoint_counters(nic_, b, 0, &now);
            ASSERT_EQ(now.steered, h.nic.steered);
            const uint64_t filling = h.nic.delivered - now.delivered; /* in the event that is not shown yet */
            ASSERT_LE(filling, 5u);
            ASSERT_EQ(now.ring_full, h.nic.ring_full);
            ASSERT_EQ(now.steered, now.delivered + filling + now.ring_full);
            ASSERT_EQ(h.nic.delivered, h.received + h.stale + h.ring.size() + h.before);
            ASSERT_EQ(now.bad_flow + now.bad_type + now.bad_header + now.bad_payload + now.post_overflow, 0u);
        }
    }

    Random random_;
    Figures &figures_;
    test_support::FakeHost host_;
    softnic_t *nic_;
    Host hosts_[2];
    size_t idle_descriptors_ = 0; /* open without any endpoint */
    uint32_t loss_ = 0, burst_ = 0, idle_ = 0;
    unsigned gap_ = 0;        /* frames that the wire still loses in a row */
    unsigned jumps_left_ = 3; /* of the clock: a time of an hour ago cannot be told from its ticks */
    unsigned step_ = 0;
    int next_port_ = 10000;
    uint64_t serial_ = 0, number_ = 0, hash_ = 0xcbf29ce484222325;
};

uint64_t setting(const char *name, uint64_t fallback)
{
    const char *text = getenv(name);
    return text != nullptr ? strtoull(text, nullptr, 0) : fallback;
}

constexpr uint64_t kSteps = 1000;

/*
 * The line that makes a seed happen again. It is written when a check failed, and also when the process does not
 * survive the seed: at a fatal signal or a sanitizer's report, to where standard output went before anything was
 * captured.
 */
class Replay {
public:
    Replay(uint64_t seed, uint64_t steps) : output_(fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 0))
    {
        const int n = snprintf(line_, sizeof line_,
                               "replay: RUK_SIM_SEED=%" PRIu64 " RUK_SIM_STEPS=%" PRIu64
                               " tests/sim_test --gtest_filter='*EverySeed*'\n",
                               seed, steps);
        length_ = static_cast<size_t>(n);
        current_ = this;
        fflush(stdout); /* what stands before it comes before it */
        struct sigaction action = {};
        action.sa_handler = [](int signal) {
            tell();
            raise(signal); /* the default, once this returns */
        };
        action.sa_flags = static_cast<int>(SA_RESETHAND);
        for (size_t i = 0; i < kCaught; i++)
            sigaction(kSignals[i], &action, &before_[i]);
        if (__sanitizer_set_death_callback != nullptr)
            __sanitizer_set_death_callback(tell);
    }
    ~Replay()
    {
        for (size_t i = 0; i < kCaught; i++)
            sigaction(kSignals[i], &before_[i], nullptr);
        current_ = nullptr;
        close(output_);
    }
    Replay(const Replay &) = delete;
    Replay &operator=(const Replay &) = delete;

    /* As a signal handler may. */
    static void tell()
    {
        if (const Replay *r = std::exchange(current_, nullptr))
            (void)!write(r->output_, r->line_, r->length_);
    }

private:
    static constexpr int kSignals[] = {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL};
    static constexpr size_t kCaught = test_support::kSanitized ? 1 : std::size(kSignals); /* it reports the others */

    static inline const Replay *current_ = nullptr;
    char line_[160];
    size_t length_;
    int output_;
    struct sigaction before_[kCaught];
};

/* The blocks of memory that the library, or whoever else calls malloc() here, took and did not give back. */
class Held : public test_support::AllocWatch {
public:
    bool refuses() override { return false; }
    void taken(void *, size_t) override
    {
        blocks++;
        total++;
    }
    void given_back(void *) override { blocks--; }
    int64_t blocks = 0;
    uint64_t total = 0;
};

uint64_t simulate(uint64_t seed, uint64_t steps, Figures &figures)
{
    Simulation simulation(seed, figures);
    return simulation.run(static_cast<unsigned>(steps));
}

uint64_t run(uint64_t seed, Figures &figures)
{
    const uint64_t steps = setting("RUK_SIM_STEPS", kSteps);
    const Replay replay(seed, steps);
    const size_t descriptors = open_descriptors(), mappings = shared_mappings();
    Held held;
    const uint64_t hash = simulate(seed, steps, figures);
    EXPECT_EQ(open_descriptors(), descriptors);
    EXPECT_EQ(shared_mappings(), mappings);
    EXPECT_GT(held.total, 0u);
    if (held.blocks != 0 && !testing::Test::HasFailure()) { /* what is made once is there now */
        Figures again = {};
        Held held_again;
        EXPECT_EQ(simulate(seed, steps, again), hash);
        EXPECT_EQ(held_again.blocks, 0);
    }
    if (testing::Test::HasFailure()) {
        fflush(stdout);
        Replay::tell();
    }
    return hash;
}

/* As many seeds as a minute holds. */
constexpr uint64_t kSeeds = test_support::kSanitized ? 100 : 1000;

/* In a network of the process's own nobody else takes ports, so that they can come from the seed. */
class Simulations : public testing::Test {
protected:
    void SetUp() override
    {
        static const std::string why_not = test_support::enter_own_network();
        if (!why_not.empty())
            GTEST_SKIP() << why_not;
    }
};
} // namespace

TEST_F(Simulations, EverySeed_WhatArrivesIsDeliveredOrCountedAndNothingLeaks)
{
    Figures f = {};
    const bool replay = getenv("RUK_SIM_SEED") != nullptr;
    const uint64_t first = setting("RUK_SIM_SEED", setting("RUK_SIM_FIRST", 1));
    const uint64_t seeds = replay ? 1 : setting("RUK_SIM_SEEDS", kSeeds);
    uint64_t hash = 0;
    for (uint64_t seed = first; seed < first + seeds && !HasFailure(); seed++)
        hash = run(seed, f);
    printf("seeds %" PRIu64 ", trace of the last %016" PRIx64, seeds, hash);
    const struct {
        const char *what;
        uint64_t n;
    } troubles[] = {{"refused", f.refused},
                    {"send errors", f.send_errors},
                    {"lost", f.lost},
                    {"lost in a row", f.lost_in_a_row},
                    {"delayed", f.delayed},
                    {"duplicated", f.duplicated},
                    {"reordered", f.reordered},
                    {"corrupted", f.corrupted},
                    {"cut", f.cut},
                    {"bursts", f.bursts},
                    {"malformed", f.malformed},
                    {"unmatched", f.unmatched},
                    {"ring full", f.ring_full},
                    {"stale", f.stale},
                    {"faults", f.faults},
                    {"clock jumps", f.jumps}},
      rest[] = {{"steps", f.steps},         {"sent", f.sent},         {"arrived", f.arrived},
                {"delivered", f.delivered}, {"received", f.received}, {"inherited", f.inherited}};
    for (const auto &[what, n] : rest)
        printf(", %s %" PRIu64, what, n);
    for (const auto &[what, n] : troubles) {
        printf(", %s %" PRIu64, what, n);
        if (seeds >= 100) { /* each kind of trouble took place */
            EXPECT_GT(n, 0u) << what;
        }
    }
    printf("\n");
    EXPECT_EQ(f.arrived, f.malformed + f.unmatched + f.ring_full + f.delivered);
}

TEST_F(Simulations, SameSeedTwice_SameTrace_AnotherSeed_AnotherTrace)
{
    Figures f = {};
    for (uint64_t seed = 1; seed <= 10; seed++) {
        const uint64_t once = run(seed, f);
        EXPECT_EQ(run(seed, f), once);
        EXPECT_NE(run(seed + 1000, f), once);
    }
}

namespace {

constexpr char kReplayOf7[] = "replay: RUK_SIM_SEED=7 RUK_SIM_STEPS=9 tests/sim_test --gtest_filter='*EverySeed*'\n";

} // namespace

TEST_F(Simulations, SeedThatTheProcessDoesNotSurvive_PrintsItsReplayAndEndsAsItWould)
{
    const auto dies = [](const std::function<void()> &blow) {
        return test_support::run_in_child([&] {
            const Replay replay(7, 9);
            test_support::StreamCapture diagnostics; /* its output is lost with the process, the line is not */
            blow();
            return 0;
        });
    };
    const test_support::ChildResult checked = dies([] { ruk__assertion_failed("rc == 0", 1, "sim"); });
    EXPECT_TRUE(checked.killed_by(SIGABRT)) << checked;
    EXPECT_EQ(checked.out, kReplayOf7);
    const test_support::ChildResult wild = dies([] {
        void *nowhere = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        *static_cast<volatile int *>(nowhere) = 1;
    });
    EXPECT_FALSE(wild.exited_with(0)) << wild;
    EXPECT_EQ(wild.out, kReplayOf7);
    if (!test_support::kSanitized) {
        EXPECT_TRUE(wild.killed_by(SIGSEGV)) << wild;
    }
    const test_support::ChildResult survived = dies([] {});
    EXPECT_TRUE(survived.exited_with(0)) << survived;
    EXPECT_EQ(survived.out, "");
}

/* What is left behind is seen. */
TEST_F(Simulations, MemoryThatIsKept_IsCounted)
{
    Held held;
    void *volatile kept = malloc(16); /* or the compiler does without it */
    EXPECT_EQ(held.blocks, 1);
    free(kept);
    EXPECT_EQ(held.blocks, 0);
    EXPECT_EQ(held.total, 1u);
}
