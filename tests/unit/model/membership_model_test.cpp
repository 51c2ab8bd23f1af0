/*
 * Random binds, joins, leaves, blocks, sends, receives, unbinds and closes over a stepped adapter with real kernel
 * sockets, against a plain model of tags, filters, memberships and all counters. Closes come in the middle of a run,
 * with channels bound and datagrams waiting; in some runs the tags run out. What ends the process or corrupts a queue
 * by design is left out: a group joined twice by the library's reckoning, a filter refused at bind, a foreign address.
 * That reckoning takes a source for one whose octets run the other way, so that no source here reads the same in both
 * orders, and none is the mirror of another: both have tests of their own.
 *
 * A run is its seed: RUK_MODEL_SEED replays one, and lets out what the library says; RUK_MODEL_STEPS sets how many
 * steps are made in all. A run that the library ends or never returns from says its seed as well.
 */
#include "adapter_rig.h"
#include "child.h"
#include "own_network.h"
#include "ruk_core.h"
#include "sanitizer.h"

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <deque>
#include <dirent.h>
#include <fcntl.h>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <unistd.h>

/* Where a sanitizer ends the process. */
extern "C" void __sanitizer_set_death_callback(void (*)()) __attribute__((weak));

using namespace adapter_rig;

namespace {

constexpr uint32_t kBroadcast = 0xffffffff;
constexpr uint32_t kSubnetBroadcast = 0x7fffffff; /* of the interface */
constexpr uint32_t kOtherBroadcast = 0x0affffff;  /* of another */
constexpr unsigned kBlock = 128, kMaxBlocks = 31;
constexpr unsigned long kRxFilter = 0x50EB;

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

/* ------------------------------------------------------------------ the model */

struct Entry {
    int channel = -1;
    uint32_t ip = 0, src = 0;
    uint16_t port = 0;
    uint16_t tag = 0; /* with the bit of a delayed release */
    uint64_t recycle = 0;
};

/* A socket's membership of a group, as Linux keeps it. */
struct Membership {
    bool include = false;
    bool listed = false; /* a source list was ever made */
    std::set<uint32_t> sources;
};

struct Channel {
    ruk_channel_t handle = nullptr;
    uint16_t port = 0;
    int flags = 0;
    int uni = -1, bc = -1, deferred = -1; /* entries */
    bool beside = false;                  /* further filters lead to the broadcast entry */
    std::vector<int> multi;
    std::map<uint32_t, Membership> kernel;
};

struct Packet {
    uint16_t tag;
    uint32_t dst, src;
    uint16_t port;
    uint32_t number;
};

struct Model {
    std::vector<Entry> entries;
    std::deque<int> free_queue, delay_queue;
    std::map<int, Channel> channels;                                        /* by number: bind order */
    std::map<std::pair<uint32_t, uint16_t>, std::vector<uint16_t>> filters; /* tags, oldest first */
    std::deque<std::deque<Packet>> events;                                  /* what is left of each event that waits */
    std::deque<size_t> event_packets;                                       /* how many each had */
    uint64_t packets = 0;                                                   /* consumed by channels */
    uint64_t nosock = 0, badfilter = 0, broadcast_filtered = 0;

    size_t pending() const
    {
        size_t n = 0;
        for (size_t packets_of_event : event_packets)
            n += packets_of_event;
        return n;
    }

    /* An entry, or -1 with the error. */
    int take(uint32_t ip, uint16_t port, int *error)
    {
        int e;
        if (!delay_queue.empty() && static_cast<int64_t>(packets - entries[delay_queue.front()].recycle) > 0) {
            e = delay_queue.front();
            delay_queue.pop_front();
        } else {
            if (free_queue.empty()) {
                if (entries.size() == kBlock * kMaxBlocks) {
                    *error = delay_queue.empty() ? ENOMEM : EAGAIN;
                    return -1;
                }
                for (unsigned i = 0; i < kBlock; i++) {
                    free_queue.push_back(static_cast<int>(entries.size()));
                    entries.push_back({});
                    entries.back().tag = static_cast<uint16_t>(entries.size() - 1);
                }
            }
            e = free_queue.front();
            free_queue.pop_front();
        }
        entries[e].ip = ip;
        entries[e].port = port;
        entries[e].tag &= 0x7fff;
        return e;
    }

    void put(int e)
    {
        entries[e].channel = -1;
        free_queue.push_back(e);
    }

    void delay_put(int e)
    {
        entries[e].channel = -1;
        if (const size_t waiting = pending(); waiting != 0) {
            entries[e].recycle = packets + waiting;
            entries[e].tag |= 0x8000;
            delay_queue.push_back(e);
            return;
        }
        free_queue.push_back(e);
        free_queue.insert(free_queue.end(), delay_queue.begin(), delay_queue.end());
        delay_queue.clear();
    }

    void install(int e) { filters[{entries[e].ip, entries[e].port}].push_back(entries[e].tag); }
    void remove(int e)
    {
        auto &tags = filters[{entries[e].ip, entries[e].port}];
        tags.erase(std::find(tags.begin(), tags.end(), entries[e].tag));
        if (tags.empty())
            filters.erase({entries[e].ip, entries[e].port});
    }

    /* The channel that a packet reaches, or -1 with the reason counted. */
    int lookup(const Packet &p)
    {
        if (p.tag / kBlock >= entries.size() / kBlock || entries[p.tag].tag != p.tag) {
            nosock++;
            return -1;
        }
        const Entry &e = entries[p.tag];
        if (e.port != p.port) {
            badfilter++;
            return -1;
        }
        if (e.ip == kBroadcast) {
            if (e.channel < 0) {
                nosock++;
                return -1;
            }
            if (p.dst == kBroadcast || p.dst == kSubnetBroadcast)
                return e.channel;
            broadcast_filtered++;
            return -1;
        }
        if (e.src == 0 && e.ip == p.dst) {
            nosock += e.channel < 0;
            return e.channel;
        }
        if (e.src != 0)
            for (int i = p.tag; i >= static_cast<int>(p.tag / kBlock * kBlock); i--)
                if (entries[i].src == p.src && entries[i].ip == p.dst && entries[i].channel >= 0)
                    return entries[i].channel;
        badfilter++;
        return -1;
    }
};

/* ------------------------------------------------------------------ the run */

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

int g_refuse; /* errno with which the adapter refuses the next filter, 0 = it takes it */

int refuse_filters(void *, unsigned, unsigned long command)
{
    return command == kRxFilter ? std::exchange(g_refuse, 0) : 0;
}

class Episode {
public:
    explicit Episode(uint64_t seed) : random_(seed)
    {
        wire_.host.add_route("oxel0", "127.0.0.0", "0.0.0.0", "255.0.0.0");
        wire_.host.arp.push_back({"127.0.0.2", {2, 0, 0, 0, 0, 2}});
        most_packets_ = 1 + random_.below(5);
        softnic_set_max_packets(wire_.nic, 0, static_cast<unsigned>(most_packets_));
        softnic_set_command_hook(wire_.nic, refuse_filters, nullptr);
        endpoint_ = std::make_unique<Endpoint>(random_.one_in(2) ? RUK_OPEN_THREAD_SAFE : 0);
    }

    void run(unsigned steps)
    {
        for (unsigned i = 0; i < steps && !testing::Test::HasFailure(); i++) {
            SCOPED_TRACE("step " + std::to_string(i));
            step();
        }
        if (!testing::Test::HasFailure())
            end();
    }

    uint64_t delivered() const { return delivered_; }
    uint64_t refused() const { return refused_; }
    uint64_t tags_gone() const { return tags_gone_; }       /* joins refused with ENOMEM */
    uint64_t tags_resting() const { return tags_resting_; } /* and with EAGAIN */
    uint64_t broadcasts_filtered() const { return broadcasts_filtered_ + model_.broadcast_filtered; }

private:
    ruk_device_t dev() { return endpoint_->dev; }

    void step()
    {
        if (random_.one_in(150))
            return close_and_open();
        switch (random_.below(14)) {
        case 0:
            return bind();
        case 1:
            return random_.one_in(3) ? unbind() : join(false);
        case 2:
        case 3:
            return join(random_.one_in(2));
        case 4:
            return leave(random_.one_in(2));
        case 5:
            return block(random_.one_in(2));
        case 6:
            return send();
        case 7:
        case 8:
        case 9:
            return arrive();
        default:
            return receive(random_.below(12));
        }
    }

    /* All goes, whatever is bound and waits: a new endpoint begins as one that was never used. */
    void close_and_open()
    {
        const auto filters = model_.filters;
        ASSERT_EQ(ruk_close(std::exchange(endpoint_->dev, nullptr)), 0);
        ASSERT_EQ(softnic_claimed(wire_.nic, 0), 0u);
        for (const auto &[key, tags] : filters)
            ASSERT_FALSE(softnic_steered(wire_.nic, 0, key.first, key.second, 0, 17));
        broadcasts_filtered_ += model_.broadcast_filtered;
        model_ = Model{};
        numbers_.clear();
        endpoint_ = std::make_unique<Endpoint>(random_.one_in(2) ? RUK_OPEN_THREAD_SAFE : 0);
        if (random_.one_in(4))
            leave_few_tags();
    }

    /* Takes tags away until only some are left, as if other channels had them, so that a run meets the end of them. */
    void leave_few_tags()
    {
        const unsigned left = 3 * 12 + random_.below(6); /* enough for every bind: a join is what fails */
        for (unsigned n = kBlock * kMaxBlocks - left; n != 0; n--) {
            struct ruk__tag_entry *entry = nullptr;
            ASSERT_EQ(ruk__get_tag_entry(dev(), 0, 0, 0, &entry), 0);
            int error = 0;
            ASSERT_GE(model_.take(0, 0, &error), 0);
        }
    }

    int any_channel()
    {
        if (model_.channels.empty())
            return -1;
        auto at = model_.channels.begin();
        std::advance(at, random_.below(static_cast<uint32_t>(model_.channels.size())));
        return at->first;
    }
    static uint32_t group(uint32_t n) { return 0xef020100 + n; }
    static uint32_t source(uint32_t n) { return 0x7f000002 + n; }

    void bind()
    {
        if (model_.channels.size() >= 12)
            return unbind();
        if (model_.free_queue.size() + kBlock * kMaxBlocks - model_.entries.size() < 2)
            return; /* joins are what runs out of tags here */
        constexpr int choices[] = {0,
                                   RUK_BIND_REUSE,
                                   RUK_BIND_REUSE,
                                   RUK_BIND_BROADCAST,
                                   RUK_BIND_REUSE | RUK_BIND_BROADCAST,
                                   RUK_BIND_REUSE | RUK_BIND_NO_UNICAST,
                                   RUK_BIND_KERNEL};
        const int flags = choices[random_.below(std::size(choices))];
        const int other = any_channel();
        /* Not a port of the kernel's choice: that one is another in each run, and of sockets that share ports it may be
           one that is already bound. */
        const uint16_t port = other >= 0 && random_.one_in(2) ? model_.channels[other].port
                                                              : static_cast<uint16_t>(20000 + random_.below(10000));

        /* Linux shares a port only among sockets that all ask for it. */
        bool in_use = false;
        int owned = -1;
        for (const auto &[number, c] : model_.channels) {
            if (c.port == port)
                in_use |= (flags & c.flags & RUK_BIND_REUSE) == 0;
            if (c.port == port && c.uni >= 0)
                owned = c.uni;
        }
        ruk_channel_t handle = nullptr;
        const int rc = ruk_bind(dev(), flags, port, &model_, &handle);
        if (in_use) {
            ASSERT_EQ(rc, EADDRINUSE);
            refused_++;
            return;
        }
        ASSERT_EQ(rc, 0);
        Channel c;
        c.handle = handle;
        c.port = endpoint_->port_of(handle);
        c.flags = flags;
        ASSERT_EQ(c.port, port);
        const int number = next_channel_++;
        int error = 0;
        const bool deferred = owned >= 0 && (flags & RUK_BIND_NO_UNICAST) == 0;
        if (deferred)
            c.deferred = owned;
        else if ((flags & RUK_BIND_NO_UNICAST) == 0)
            c.uni = model_.take(HOST, c.port, &error);
        if ((flags & RUK_BIND_BROADCAST) != 0)
            c.bc = model_.take(kBroadcast, c.port, &error);
        for (int e : {c.uni, c.bc})
            if (e >= 0) {
                model_.entries[e].channel = number;
                model_.install(e);
            }
        ASSERT_EQ(error, 0);
        /* A filter beside the channel's own lets two more addresses in under its broadcast tag. */
        if (c.bc >= 0 && random_.one_in(2))
            for (uint32_t ip : {kSubnetBroadcast, kOtherBroadcast}) {
                const uint16_t tag = model_.entries[c.bc].tag;
                ASSERT_EQ(ruk_filter_add(dev(), 17, 0, htonl(ip), htons(c.port), tag, 0), 0);
                model_.filters[{ip, c.port}].push_back(tag);
                c.beside = true;
            }
        model_.channels[number] = c;
        numbers_[handle] = number;
    }

    void release_multi(Channel &c, int e)
    {
        c.kernel.erase(model_.entries[e].ip); /* the whole membership, or nothing to drop any more */
        model_.remove(e);
        c.multi.erase(std::find(c.multi.begin(), c.multi.end(), e));
        model_.delay_put(e);
    }

    void unbind()
    {
        const int number = any_channel();
        if (number < 0)
            return;
        Channel c = model_.channels[number];
        if (c.beside)
            for (uint32_t ip : {kSubnetBroadcast, kOtherBroadcast}) {
                const uint16_t tag = model_.entries[c.bc].tag;
                ASSERT_EQ(ruk_filter_del(dev(), 17, 0, htonl(ip), htons(c.port), tag), 0);
                auto &tags = model_.filters[{ip, c.port}];
                tags.erase(std::find(tags.begin(), tags.end(), tag));
                if (tags.empty())
                    model_.filters.erase({ip, c.port});
            }
        ASSERT_EQ(ruk_unbind(c.handle), 0);
        numbers_.erase(c.handle);
        model_.channels.erase(number);
        while (!c.multi.empty())
            release_multi(c, c.multi.front());
        if (c.uni >= 0) {
            const auto heir = std::find_if(model_.channels.begin(), model_.channels.end(),
                                           [&](const auto &other) { return other.second.deferred == c.uni; });
            if (heir != model_.channels.end()) {
                heir->second.uni = c.uni;
                heir->second.deferred = -1;
                model_.entries[c.uni].channel = heir->first;
            } else {
                model_.remove(c.uni);
                model_.delay_put(c.uni);
            }
        }
        if (c.bc >= 0) {
            model_.remove(c.bc);
            model_.delay_put(c.bc);
        }
    }

    void join(bool with_source)
    {
        const int number = any_channel();
        if (number < 0)
            return;
        Channel &c = model_.channels[number];
        const uint32_t ip = group(random_.below(8)), src = source(random_.below(3));
        const bool member =
            std::any_of(c.multi.begin(), c.multi.end(), [&](int e) { return model_.entries[e].ip == ip; });
        if (!with_source && member)
            return; /* by design the end of the process, later */
        const bool refuse = random_.one_in(20);
        g_refuse = refuse ? EIO : 0;
        const in_addr group_addr = {htonl(ip)}, source_addr = {htonl(src)};
        const int rc = with_source ? ruk_mcast_join_source(c.handle, &group_addr, &source_addr)
                                   : ruk_mcast_join(c.handle, &group_addr, nullptr);
        const bool asked = g_refuse == 0;
        g_refuse = 0;

        int expected = 0;
        const int e = model_.take(ip, c.port, &expected);
        if (e < 0) {
            ASSERT_EQ(rc, expected);
            (expected == EAGAIN ? tags_resting_ : tags_gone_)++;
            refused_++;
            return;
        }
        if (with_source)
            model_.entries[e].src = src;
        /* The kernel. */
        const auto kept = c.kernel.find(ip);
        if (!with_source) {
            if (kept != c.kernel.end())
                expected = EADDRINUSE;
            else
                c.kernel[ip] = Membership{};
        } else if (kept == c.kernel.end()) {
            c.kernel[ip] = Membership{true, true, {src}};
        } else if (kept->second.listed ? !kept->second.include : false) {
            expected = EINVAL;
        } else if (!kept->second.sources.insert(src).second) {
            expected = EADDRNOTAVAIL;
        } else {
            kept->second.include = kept->second.listed = true;
        }
        if (expected != 0) {
            ASSERT_EQ(rc, expected) << "kernel";
            refused_++;
            model_.put(e);
            return;
        }
        /* The adapter. */
        if (refuse) {
            ASSERT_TRUE(asked);
            ASSERT_EQ(rc, EIO);
            refused_++;
            if (with_source && c.kernel[ip].sources.size() > 1)
                c.kernel[ip].sources.erase(src);
            else
                c.kernel.erase(ip);
            model_.put(e);
            return;
        }
        ASSERT_EQ(rc, 0);
        model_.entries[e].channel = number;
        c.multi.push_back(e);
        model_.install(e);
    }

    void leave(bool with_source)
    {
        const int number = any_channel();
        if (number < 0)
            return;
        Channel &c = model_.channels[number];
        const uint32_t ip = group(random_.below(8)), src = source(random_.below(3));
        const auto at = std::find_if(c.multi.begin(), c.multi.end(), [&](int e) {
            return model_.entries[e].ip == ip && (!with_source || model_.entries[e].src == src);
        });
        const in_addr group_addr = {htonl(ip)}, source_addr = {htonl(src)};
        const int rc = with_source ? ruk_mcast_leave_source(c.handle, &group_addr, &source_addr)
                                   : ruk_mcast_leave(c.handle, &group_addr);
        if (at == c.multi.end()) {
            ASSERT_EQ(rc, EADDRNOTAVAIL);
            refused_++;
            return;
        }
        ASSERT_EQ(rc, 0);
        release_multi(c, *at);
    }

    void block(bool unblock)
    {
        const int number = any_channel();
        if (number < 0)
            return;
        Channel &c = model_.channels[number];
        const uint32_t ip = group(random_.below(8)), src = source(random_.below(3));
        const in_addr group_addr = {htonl(ip)}, source_addr = {htonl(src)};
        errno = 0;
        const int rc = unblock ? ruk_mcast_unblock_source(c.handle, &group_addr, &source_addr)
                               : ruk_mcast_block_source(c.handle, &group_addr, &source_addr);
        const int error = errno;
        int expected = 0;
        const auto kept = c.kernel.find(ip);
        if (kept == c.kernel.end() || (kept->second.listed && kept->second.include))
            expected = EINVAL;
        else if (unblock ? kept->second.sources.erase(src) == 0 : !kept->second.sources.insert(src).second)
            expected = EADDRNOTAVAIL;
        else
            kept->second.listed = true;
        ASSERT_EQ(rc, expected != 0 ? -1 : 0);
        if (expected != 0) {
            ASSERT_EQ(error, expected);
            refused_++;
        }
    }

    void send()
    {
        const int number = any_channel();
        if (number < 0)
            return;
        const Channel &c = model_.channels[number];
        Bytes payload(random_.below(1473));
        for (uint8_t &b : payload)
            b = static_cast<uint8_t>(random_.next());
        sockaddr_in to = {};
        to.sin_family = AF_INET;
        to.sin_addr.s_addr = htonl(PEER);
        to.sin_port = htons(static_cast<uint16_t>(1 + random_.below(65535)));
        if (random_.one_in(2)) {
            ruk_send_t handle = nullptr;
            ASSERT_EQ(ruk_send_connect(c.handle, &to, 0, 0, &handle), 0);
            ASSERT_EQ(ruk_send(handle, payload.data(), static_cast<int>(payload.size()), 0), 0);
            if (random_.one_in(2)) {
                ASSERT_EQ(ruk_send_disconnect(handle), 0);
            }
        } else {
            ASSERT_EQ(ruk_sendto(c.handle, &to, payload.data(), static_cast<int>(payload.size()), 0), 0);
        }
        run_firmware();
        Bytes frame(2048);
        const size_t n = softnic_take_sent(wire_.nic, 0, frame.data(), frame.size());
        ASSERT_EQ(n, std::max<size_t>(60, 42 + payload.size()));
        ASSERT_EQ(frame[34] << 8 | frame[35], c.port);
        ASSERT_EQ(frame[36] << 8 | frame[37], ntohs(to.sin_port));
        ASSERT_EQ(Bytes(frame.begin() + 42, frame.begin() + 42 + static_cast<ptrdiff_t>(payload.size())), payload);
        ASSERT_EQ(softnic_sent_count(wire_.nic, 0), 0u);
    }

    /* Firmware puts what waits on the wire into events. */
    void run_firmware()
    {
        const softnic_endpoint_counters_t before = wire_.counters();
        softnic_run(wire_.nic);
        const softnic_endpoint_counters_t after = wire_.counters();
        ASSERT_EQ(after.steered - before.steered, on_the_wire_.size());
        ASSERT_EQ(after.delivered - before.delivered, on_the_wire_.size());
        /* As many packets an event as the firmware was told, the last event fewer. */
        size_t events = 0;
        for (; !on_the_wire_.empty(); events++) {
            const size_t n = std::min(on_the_wire_.size(), most_packets_);
            model_.events.emplace_back(on_the_wire_.begin(), on_the_wire_.begin() + static_cast<ptrdiff_t>(n));
            model_.event_packets.push_back(n);
            on_the_wire_.erase(on_the_wire_.begin(), on_the_wire_.begin() + static_cast<ptrdiff_t>(n));
        }
        ASSERT_EQ(after.events - before.events, events);
    }

    void arrive()
    {
        if (model_.pending() > 150)
            return receive(20);
        for (unsigned n = 1 + random_.below(7); n != 0; n--) {
            const int number = any_channel();
            Packet p = {};
            p.port = number >= 0 && !random_.one_in(10) ? model_.channels[number].port : 9;
            p.src = source(random_.below(4));
            const uint32_t choices[] = {HOST,
                                        kBroadcast,
                                        random_.one_in(2) ? kSubnetBroadcast : kOtherBroadcast,
                                        group(random_.below(8)),
                                        group(random_.below(8)),
                                        group(random_.below(8))};
            p.dst = choices[random_.below(std::size(choices))];
            p.number = ++arrived_;
            UdpFrame frame;
            frame.src = p.src;
            frame.dst = p.dst;
            frame.dport = p.port;
            frame.payload = recv_rig::be32(p.number);
            wire_.inject(frame);
            const auto filter = model_.filters.find({p.dst, p.port});
            if (filter != model_.filters.end()) {
                p.tag = filter->second.back(); /* the newest */
                on_the_wire_.push_back(p);
            }
        }
        run_firmware();
    }

    void receive(unsigned most)
    {
        for (unsigned i = 0; i < most; i++) {
            /* What the model gives: datagrams without a channel are passed over. */
            int channel = -1;
            Packet p = {};
            while (channel < 0 && !model_.events.empty()) {
                p = model_.events.front().front();
                model_.events.front().pop_front();
                channel = model_.lookup(p);
                if (model_.events.front().empty()) {
                    model_.events.pop_front();
                    model_.event_packets.pop_front();
                }
            }
            const Got got = recv(*endpoint_);
            if (channel < 0) {
                ASSERT_EQ(got.rc, EAGAIN);
                break;
            }
            model_.packets++;
            delivered_++;
            ASSERT_EQ(got.rc, 0) << "datagram " << p.number;
            ASSERT_EQ(got.data, recv_rig::be32(p.number));
            ASSERT_EQ(got.info.chan, model_.channels[channel].handle);
            ASSERT_EQ(got.info.chan_context, &model_);
            ASSERT_EQ(ntohl(got.info.sin_from.sin_addr.s_addr), p.src);
            ASSERT_EQ(ntohl(got.info.sin_to.sin_addr.s_addr), p.dst);
            ASSERT_EQ(ntohs(got.info.sin_to.sin_port), p.port);
        }
        /* The three that these steps move; all others stay 0. */
        ruk__epstats expected = {};
        expected.dropped_nosock = model_.nosock;
        expected.dropped_badfilter = model_.badfilter;
        expected.dropped_broadcast_filtered = model_.broadcast_filtered;
        const ruk__epstats &stats = dev()->rep_stats;
        ASSERT_EQ(stats.dropped_nosock, model_.nosock);
        ASSERT_EQ(stats.dropped_badfilter, model_.badfilter);
        ASSERT_EQ(stats.dropped_broadcast_filtered, model_.broadcast_filtered);
        ASSERT_EQ(memcmp(&stats, &expected, sizeof stats), 0) << "a counter that nothing here should move";
        ASSERT_EQ(dev()->rep_num_packets, model_.packets);
        ASSERT_EQ(static_cast<size_t>(dev()->rep_tag_cnt) * kBlock, model_.entries.size());
    }

    void end()
    {
        if (random_.one_in(2))
            receive(1000);
        if (random_.one_in(2))
            while (!model_.channels.empty())
                unbind();
        endpoint_.reset();
        EXPECT_EQ(softnic_claimed(wire_.nic, 0), 0u);
        for (const auto &[key, tags] : model_.filters)
            EXPECT_FALSE(softnic_steered(wire_.nic, 0, key.first, key.second, 0, 17));
    }

    Random random_;
    Wire wire_;
    std::unique_ptr<Endpoint> endpoint_;
    Model model_;
    std::map<ruk_channel_t, int> numbers_;
    std::deque<Packet> on_the_wire_;
    int next_channel_ = 0;
    uint32_t arrived_ = 0;
    uint64_t delivered_ = 0, refused_ = 0, tags_gone_ = 0, tags_resting_ = 0, broadcasts_filtered_ = 0;
    size_t most_packets_ = 5;
};

/* What the library prints of refusals is not wanted here. */
class Quiet {
public:
    Quiet()
    {
        fflush(stdout);
        for (int fd : {1, 2}) {
            saved_[fd - 1] = dup(fd);
            const int null = open("/dev/null", O_WRONLY);
            dup2(null, fd);
            close(null);
        }
    }
    ~Quiet()
    {
        fflush(stdout);
        for (int fd : {1, 2}) {
            dup2(saved_[fd - 1], fd);
            close(saved_[fd - 1]);
        }
    }

private:
    int saved_[2];
};

/*
 * Says the seed of the run where no check will: on an abort, on a crash, and when the run takes a minute, which ends
 * nothing. It goes to what was standard error at first.
 */
class LastWords {
public:
    LastWords()
    {
        out_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
        struct sigaction action = {};
        action.sa_flags = SA_RESTART;
        action.sa_handler = [](int) { say(); };
        sigaction(SIGALRM, &action, &before_alarm_);
        action.sa_handler = [](int signal_number) {
            say();
            for (size_t i = 0; i < std::size(deadly_); i++)
                if (deadly_[i] == signal_number) /* abort() or the fault comes again, to whoever was there before */
                    sigaction(signal_number, &before_[i], nullptr);
        };
        for (size_t i = 0; i < std::size(deadly_); i++)
            sigaction(deadly_[i], &action, &before_[i]);
        if (__sanitizer_set_death_callback != nullptr)
            __sanitizer_set_death_callback([] { say(); });
    }
    ~LastWords()
    {
        alarm(0);
        sigaction(SIGALRM, &before_alarm_, nullptr);
        for (size_t i = 0; i < std::size(deadly_); i++)
            sigaction(deadly_[i], &before_[i], nullptr);
        length_ = 0; /* nothing to say any more */
        close(out_);
    }
    LastWords(const LastWords &) = delete;
    LastWords &operator=(const LastWords &) = delete;

    static void run_begins(uint64_t seed)
    {
        alarm(0);
        length_ =
            snprintf(text_, sizeof text_, "in the run of RUK_MODEL_SEED=%llu\n", static_cast<unsigned long long>(seed));
        alarm(60);
    }

private:
    static void say()
    {
        if (write(out_, text_, static_cast<size_t>(length_)) < 0)
            return;
    }

    static constexpr int deadly_[] = {SIGABRT, SIGSEGV, SIGBUS, SIGILL, SIGFPE};
    inline static struct sigaction before_[std::size(deadly_)], before_alarm_;
    inline static int out_ = -1, length_ = 0;
    inline static char text_[64];
};

/* Failures were reported while standard output was set aside: they are said again, with the seed in their trace. */
void repeat_failures()
{
    const testing::TestResult &result = *testing::UnitTest::GetInstance()->current_test_info()->result();
    for (int i = 0; i < result.total_part_count(); i++) {
        const testing::TestPartResult &part = result.GetTestPartResult(i);
        if (part.failed())
            printf("%s:%d: Failure\n%s\n", part.file_name(), part.line_number(), part.message());
    }
}

uint64_t number(const char *name, uint64_t fallback)
{
    const char *text = getenv(name);
    return text != nullptr ? strtoull(text, nullptr, 0) : fallback;
}

} // namespace

TEST(MembershipModel, RandomStepsAgainstThePlainModel_SameDeliveriesCountersAndErrors)
{
    constexpr unsigned kSteps = 400;
    const bool one = getenv("RUK_MODEL_SEED") != nullptr;
    const uint64_t first = number("RUK_MODEL_SEED", 1);
    const uint64_t steps = number("RUK_MODEL_STEPS", test_support::kSanitized ? 100000 : 400000);
    /* Nobody else takes ports there. No other test here has a network to lose. */
    if (const std::string why_not = test_support::enter_own_network(); !why_not.empty())
        GTEST_SKIP() << why_not;
    const LastWords last_words;
    const size_t descriptors = open_descriptors();
    uint64_t made = 0, delivered = 0, refused = 0, tags_gone = 0, tags_resting = 0, broadcasts_filtered = 0;
    for (uint64_t seed = first; made < steps && !HasFailure(); seed++) {
        SCOPED_TRACE("replay with RUK_MODEL_SEED=" + std::to_string(seed));
        LastWords::run_begins(seed);
        {
            std::optional<Quiet> quiet;
            if (!one)
                quiet.emplace();
            Episode episode(seed);
            episode.run(kSteps);
            delivered += episode.delivered();
            refused += episode.refused();
            tags_gone += episode.tags_gone();
            tags_resting += episode.tags_resting();
            broadcasts_filtered += episode.broadcasts_filtered();
        }
        made += kSteps;
        if (HasFailure())
            return one ? void() : repeat_failures();
        ASSERT_EQ(open_descriptors(), descriptors);
        if (one)
            break;
    }
    printf("%llu steps from seed %llu on, %llu datagrams delivered, %llu calls refused as the model says\n",
           static_cast<unsigned long long>(made), static_cast<unsigned long long>(first),
           static_cast<unsigned long long>(delivered), static_cast<unsigned long long>(refused));
    EXPECT_GT(delivered, made / 8);
    EXPECT_GT(refused, made / 50);
    if (made >= 200000) {
        EXPECT_GT(tags_gone, 0u);
        EXPECT_GT(tags_resting, 0u);
        EXPECT_GT(broadcasts_filtered, 0u);
    }
}

/* Standard error is set aside during a run, and the seed is all that a replay needs. */
TEST(MembershipModel, RunThatTheProcessDoesNotSurvive_SeedIsSaid)
{
    const std::function<void()> ends[] = {
        [] { abort(); },
        [] {
            volatile uintptr_t nowhere = 8;
            *reinterpret_cast<volatile int *>(nowhere) = 1;
        },
        [] {
            raise(SIGALRM); /* as after a minute */
            _exit(7);
        },
    };
    for (const auto &end : ends) {
        const test_support::ChildResult child = test_support::run_in_child([&] {
            const LastWords last_words;
            LastWords::run_begins(4711);
            const Quiet quiet;
            end();
            return 0;
        });
        EXPECT_FALSE(child.exited_with(0)) << child;
        EXPECT_EQ(child.err.substr(0, 34), "in the run of RUK_MODEL_SEED=4711\n") << child;
    }
}
