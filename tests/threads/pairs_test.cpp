/*
 * Every operation against every other, itself included, on one thread-safe endpoint: two threads, the first of which
 * gets a head start. The thread checker judges; here it counts that both ran, and that nothing came back which cannot.
 */
#include "rig.h"
#include "ruk_core.h"
#include "sanitizer.h"
#include "tov.h"

#include <algorithm>
#include <arpa/inet.h>
#include <atomic>
#include <chrono>
#include <errno.h>
#include <functional>
#include <gtest/gtest.h>
#include <set>
#include <thread>
#include <vector>

namespace {

using namespace threads;

constexpr int ROUNDS = 6; /* of each operation in a pair */

enum Kind : unsigned {
    other = 0,
    receives = 1,       /* under the receive lock */
    receives_alone = 2, /* takes no lock: for an endpoint that one thread reads */
    waits_for_room = 4, /* there is none at first: waits in the driver, without the endpoint lock, for completions */
    measures = 8,       /* leaves a request in flight for good, which a completion is then taken for */
    sends_at_once = 16,
    enables = 32,
};

/* EINVAL where the endpoint is not enabled. */
constexpr unsigned needs_queues = receives | receives_alone | waits_for_room | measures | sends_at_once;

struct Op {
    const char *name;
    std::function<int(Shared &, int side)> run;
    std::set<int> results = {0}; /* that can come back */
    unsigned kind = other;
};

/* Why two operations are not run at once: the caller is to see to that. Null when they are. */
const char *left_to_the_caller(const Op &a, const Op &b)
{
    auto meet = [&](unsigned one, unsigned two) {
        return ((a.kind & one) && (b.kind & two)) || ((b.kind & one) && (a.kind & two));
    };
    if (meet(receives_alone, receives | receives_alone))
        return "takes no lock: for an endpoint that one thread reads";
    if (meet(measures, waits_for_room))
        return "the completion waited for would be taken for the measurement's request";
    return nullptr;
}

/* Left to the caller as well, and therefore not among the operations as such:
 *   closing while anything but a receiver is inside: the handle is gone then (receivers: rounds_test.cpp);
 *   unbinding a channel, or ending a handle, that another thread uses: each thread has its own here;
 *   blocking and unblocking sources on one channel from two threads: each thread has its own channel for it;
 *   sending frames of one's own, measuring the copy, or resolving without the endpoint lock, and parsing an event
 *   without the receive lock: they take it here;
 *   the first ruk_init(): it comes before any other thread.
 * And ruk__assertion_failed() ends the process. */

int send_frame(Shared &s, int flags)
{
    uint8_t header[42] = {};
    ruk__ep_lock(s.dev);
    const int rc = ruk_raw_send(s.dev, header, sizeof header, 0, 0, header, 20, flags);
    ruk__ep_unlock(s.dev);
    return rc;
}

int send_datagram(Shared &s, int len, int flags)
{
    const uint8_t payload[1472] = {};
    return ruk_send(s.handle, payload, len, flags);
}

int send_to(Shared &s, int side, int flags)
{
    const sockaddr_in to = peer_address(side);
    return ruk_sendto(s.ch, &to, "abc", 3, flags);
}

int counted(Shared &s, int rc)
{
    if (rc == 0)
        s.posted.fetch_add(1, std::memory_order_relaxed);
    return rc;
}

int receive(Shared &s, enum ruk_recvmode mode)
{
    uint8_t buf[2048];
    struct ruk_recv_info info = {};
    return ruk_recvfrom(s.dev, mode, buf, sizeof buf, &info);
}

int receive_frame(Shared &s, enum ruk_recvmode mode)
{
    uint8_t buf[2048];
    size_t len;
    return ruk_raw_recv(s.dev, mode, buf, &len, nullptr);
}

int first_error(std::initializer_list<int> results)
{
    for (int rc : results)
        if (rc != 0)
            return rc;
    return 0;
}

std::vector<Op> operations()
{
    std::vector<Op> ops = {
        {"ruk_init, again", [](Shared &, int) { return ruk_init(RUK_API_VERSION); }},
        {"ruk__init, again", [](Shared &, int) { return ruk__init(RUK_API_VERSION); }},
        {"ruk_getticks",
         [](Shared &s, int) {
             ruk_ticks_t t;
             return ruk_getticks(s.dev, &t);
         }},
        {"ruk_device_handle", [](Shared &s, int) { return ruk_device_handle(s.dev) >= 0 ? 0 : -1; }},
        {"ruk_open and ruk_close, another endpoint", [](Shared &, int) { return ruk_close(open_endpoint()); }},
        {"ruk_open_if and ruk_close, another endpoint",
         [](Shared &, int) {
             ruk_device_t dev = nullptr;
             const int rc = ruk_open_if("oxel0", RUK_OPEN_THREAD_SAFE, &dev);
             return rc != 0 ? rc : ruk_close(dev);
         }},
        {"ruk_open_by_perm_mac and ruk_close, another endpoint",
         [](Shared &s, int) {
             uint8_t mac[6];
             std::copy_n(s.adapter.mac, sizeof mac, mac);
             in_addr addr = {htonl(HOST)};
             ruk_device_t dev = nullptr;
             const int rc = ruk_open_by_perm_mac(mac, &addr, RUK_OPEN_THREAD_SAFE, &dev);
             return rc != 0 ? rc : ruk_close(dev);
         }},
        {"ruk_device_get_attrs",
         [](Shared &s, int) {
             struct ruk_device_attrs a;
             return ruk_device_get_attrs(s.dev, &a);
         }},
        {"ruk_device_set_attrs",
         [](Shared &s, int side) {
             struct ruk_device_attrs on = {RUK_RECV_FILTER_NORMAL, 65536, 1, 0}, off = on;
             off.hw_timestamping = 0;
             off.recvq_filter_mode = side ? RUK_RECV_FILTER_ALLMULTI : RUK_RECV_FILTER_NORMAL;
             return first_error({ruk_device_set_attrs(s.dev, &on), ruk_device_set_attrs(s.dev, &off)});
         }},
        {"ruk_device_enable", [](Shared &s, int) { return ruk_device_enable(s.dev); }, {EINVAL}, enables},
        {"ruk_shutdown", [](Shared &s, int) { return ruk_shutdown(s.dev, 0); }},
        {"ruk_bind and ruk_unbind",
         [](Shared &s, int) {
             ruk_channel_t ch = nullptr;
             return first_error({ruk_bind(s.dev, RUK_BIND_BROADCAST, 0, nullptr, &ch), ruk_unbind(ch)});
         }},
        {"ruk_bind_addr and ruk_unbind",
         [](Shared &s, int) {
             in_addr addr = {htonl(HOST)};
             ruk_channel_t ch = nullptr;
             return first_error({ruk_bind_addr(s.dev, &addr, RUK_BIND_KERNEL, 0, nullptr, &ch), ruk_unbind(ch)});
         }},
        {"ruk_getaddress",
         [](Shared &s, int) {
             sockaddr_in sin;
             return ruk_getaddress(s.ch, &sin);
         }},
        {"ruk_filter_add and ruk_filter_del",
         [](Shared &s, int side) {
             const uint16_t port = htons(static_cast<uint16_t>(900 + side)), tag = static_cast<uint16_t>(4000 + side);
             return first_error({ruk_filter_add(s.dev, 17, 0, htonl(HOST), port, tag, 0),
                                 ruk_filter_del(s.dev, 17, 0, htonl(HOST), port, tag)});
         }},
        {"ruk_set_filter_mode",
         [](Shared &s, int side) {
             const enum ruk_filter_mode mode = side ? RUK_RECV_FILTER_RAW : RUK_RECV_FILTER_ALLMULTI;
             return first_error({ruk_set_filter_mode(s.dev, mode), ruk_set_filter_mode(s.dev, RUK_RECV_FILTER_NORMAL)});
         }},
        {"ruk_mcast_join and ruk_mcast_leave",
         [](Shared &s, int side) {
             const in_addr group = group_of(side);
             return first_error({ruk_mcast_join(s.ch, &group, nullptr), ruk_mcast_leave(s.ch, &group)});
         }},
        {"ruk_mcast_join_source and ruk_mcast_leave_source",
         [](Shared &s, int side) {
             const in_addr group = group_of(side + 4), source = {htonl(PEER)};
             return first_error(
                 {ruk_mcast_join_source(s.ch, &group, &source), ruk_mcast_leave_source(s.ch, &group, &source)});
         }},
        {"ruk_mcast_block_source and ruk_mcast_unblock_source",
         [](Shared &s, int side) {
             const in_addr group = group_of(side + 2), source = {htonl(PEER)};
             return first_error({ruk_mcast_block_source(s.own[side], &group, &source),
                                 ruk_mcast_unblock_source(s.own[side], &group, &source)});
         }},
        {"ruk_raw_recv_nb",
         [](Shared &s, int) {
             uint8_t buf[2048];
             size_t len;
             uint64_t time;
             int tag;
             return ruk_raw_recv_nb(s.dev, buf, &len, &time, &tag);
         },
         {0, EAGAIN},
         receives_alone},
        {"ruk_raw_recv_peek", [](Shared &s, int) { return ruk_raw_recv_peek(s.dev); }, {0, EAGAIN}, receives_alone},
        {"ruk_dump_stats",
         [](Shared &s, int) {
             ruk_dump_stats(s.dev, 1);
             return 0;
         }},
        {"ruk_send_connect and ruk_send_disconnect",
         [](Shared &s, int side) {
             const sockaddr_in to = peer_address(side);
             ruk_send_t dhs = nullptr;
             return first_error({ruk_send_connect(s.ch, &to, 0, 0, &dhs), ruk_send_disconnect(dhs)});
         }},
        {"ruk__eventq_process_uevt",
         [](Shared &s, int) {
             /* That there are queues is the caller's business. */
             if (__atomic_load_n(&s.dev->rep_state, __ATOMIC_ACQUIRE) == REP_STATE_ALLOC)
                 return EINVAL;
             ruk__ep_rx_lock(s.dev);
             ruk__eventq_process_uevt(s.dev, &s.dev->rep_eventq);
             ruk__ep_rx_unlock(s.dev);
             return 0;
         },
         {0},
         receives},
        {"ruk__piocopy_test",
         [](Shared &s, int) {
             uint64_t ns, mb;
             ruk__ep_lock(s.dev);
             const int rc = ruk__piocopy_test(s.dev, 2, 64, 1, &ns, &mb);
             ruk__ep_unlock(s.dev);
             return rc;
         },
         {0, EBUSY},
         measures},
        {"ruk__resolve_mac",
         [](Shared &s, int) {
             uint8_t mac[6];
             ruk__ep_lock(s.dev);
             const int rc = ruk__resolve_mac(s.dev, htonl(HOST), htonl(PEER), mac);
             ruk__ep_unlock(s.dev);
             return rc;
         }},
        {"ruk__post_soft_data", [](Shared &s, int) { return ruk__post_soft_data(s.soft); }},
        {"tov_getifaddrs and tov_freeifaddrs",
         [](Shared &, int) {
             struct tov_ifaddrs *list = nullptr;
             int n = 0;
             const int rc = tov_getifaddrs(&list, 1, &n);
             tov_freeifaddrs(list);
             return rc;
         }},
        {"tov_ifaddr_to_macaddr",
         [](Shared &, int) {
             uint8_t mac[6];
             return tov_ifaddr_to_macaddr(htonl(HOST), mac);
         }},
        {"tov_cycles_counter_init",
         [](Shared &, int) {
             tov_cycles_counter_init();
             return 0;
         }},
        {"tov_cycles_per_second", [](Shared &, int) { return tov_cycles_per_second() != 0 ? 0 : -1; }},
        {"tov_get_vlan_tag", [](Shared &, int) { return tov_get_vlan_tag("vlan7") == htons(0xe007) ? 0 : -1; }},
        {"tov_select",
         [](Shared &, int) {
             struct timeval now = {};
             return tov_select(0, nullptr, nullptr, nullptr, &now);
         }},
        {"oxel_raw_open_endpoint and oxel_raw_close_endpoint, another one",
         [](Shared &, int) {
             oxel_raw_endpoint_t raw = nullptr;
             const int rc = oxel_raw_open_endpoint(0, &raw, TOV_PRODUCT);
             if (rc != 0)
                 return rc;
             tov_close(oxel_raw_handle(raw));
             return oxel_raw_close_endpoint(raw);
         }},
        {"oxel_raw_handle", [](Shared &s, int) { return oxel_raw_handle(s.raw) >= 0 ? 0 : -1; }},
        {"oxel_raw_send and oxel_raw_next_event",
         [](Shared &s, int) {
             uint8_t frame[60] = {}, route[1] = {};
             int port, bytes = 0, status = 0;
             void *context;
             uint64_t ticks;
             int rc = oxel_raw_send(s.raw, 0, route, 0, frame, sizeof frame, &s);
             while (rc == 0 && status != OXEL_RAW_EVENT_SENT) /* what arrives is an event as well */
                 rc = oxel_raw_next_event(s.raw, &port, &context, nullptr, &bytes, 100, &status, &ticks);
             return rc;
         },
         {0}},
    };
    const struct {
        const char *datagram, *frame;
        enum ruk_recvmode mode;
    } modes[] = {{"ruk_recvfrom, spinning", "ruk_raw_recv, spinning", RUK_RECV_DEFAULT},
                 {"ruk_recvfrom, not waiting", "ruk_raw_recv, not waiting", RUK_RECV_NONBLOCK},
                 {"ruk_recvfrom, sleeping", "ruk_raw_recv, sleeping", RUK_RECV_BLOCK},
                 {"ruk_recvfrom, peeking", "ruk_raw_recv, peeking", RUK_RECV_PEEK},
                 {"ruk_recvfrom, peeking with the data", "ruk_raw_recv, peeking with the data", RUK_RECV_PEEK_MSG}};
    for (const auto &m : modes) {
        const enum ruk_recvmode mode = m.mode;
        const bool waits = mode == RUK_RECV_DEFAULT || mode == RUK_RECV_BLOCK;
        const std::set<int> results = waits ? std::set<int>{0, EINTR} : std::set<int>{0, EAGAIN};
        ops.push_back({m.datagram, [mode](Shared &s, int) { return receive(s, mode); }, results, receives});
        ops.push_back({m.frame, [mode](Shared &s, int) { return receive_frame(s, mode); }, results, receives});
    }
    const struct {
        const char *at_once, *waiting;
        std::function<int(Shared &, int side, int flags)> send;
    } sends[] = {
        {"ruk_send", "ruk_send, waiting", [](Shared &s, int, int flags) { return send_datagram(s, 64, flags); }},
        {"ruk_send, by DMA", "ruk_send, by DMA, waiting",
         [](Shared &s, int, int flags) { return send_datagram(s, 1472, flags); }},
        {"ruk_sendto", "ruk_sendto, waiting", send_to},
        {"ruk_raw_send", "ruk_raw_send, waiting", [](Shared &s, int, int flags) { return send_frame(s, flags); }},
    };
    for (const auto &call : sends) {
        auto with = [send = call.send](int flags) {
            return [send, flags](Shared &s, int side) { return counted(s, send(s, side, flags)); };
        };
        ops.push_back({call.at_once, with(RUK_NONBLOCK), {0, EAGAIN}, sends_at_once});
        ops.push_back({call.waiting, with(0), {0}, waits_for_room});
    }
    return ops;
}

/* Two threads that are told what to run; between runs they meet, within one nothing orders them but the library. */
class TwoThreads {
public:
    TwoThreads()
    {
        for (int side = 0; side < 2; side++)
            workers_[side] = std::thread([this, side] { work(side); });
    }
    ~TwoThreads()
    {
        start({}, {});
        for (std::thread &worker : workers_)
            worker.join();
    }

    void start(std::function<void()> first, std::function<void()> second)
    {
        what_[0] = std::move(first);
        what_[1] = std::move(second);
        begun_.store(false, std::memory_order_relaxed);
        done_.store(0, std::memory_order_relaxed);
        turn_.fetch_add(1, std::memory_order_release);
    }
    bool done() const { return done_.load(std::memory_order_acquire) == 2; }

private:
    void work(int side)
    {
        for (unsigned turn = 1;; turn++) {
            for (int i = 0; turn_.load(std::memory_order_acquire) < turn; i++)
                pause(i);
            if (!what_[side])
                return;
            if (side == 0)
                begun_.store(true, std::memory_order_relaxed);
            for (int i = 0; side == 1 && !begun_.load(std::memory_order_relaxed); i++)
                pause(i);
            what_[side]();
            done_.fetch_add(1, std::memory_order_release);
        }
    }
    std::function<void()> what_[2];
    std::atomic<unsigned> turn_{0};
    std::atomic<int> done_{0};
    std::atomic<bool> begun_{false};
    std::thread workers_[2];
};

/* Runs both; whoever waits for a datagram that another has taken, or the filters have dropped, gets further ones. */
void run_pair(Shared &s, TwoThreads &threads, const Op &a, const Op &b)
{
    std::atomic<int> wrong{0}; /* a result that cannot be */
    std::atomic<unsigned> waits{0};
    auto rounds = [&](const Op &op, int side) {
        return [&s, &op, &wrong, &waits, side] {
            const unsigned before = PlainHost::own_waits();
            for (int i = 0; i < ROUNDS; i++)
                if (const int rc = op.run(s, side); op.results.count(rc) == 0)
                    wrong.store(rc, std::memory_order_relaxed);
            waits.fetch_add(PlainHost::own_waits() - before, std::memory_order_relaxed);
        };
    };
    const unsigned kinds = a.kind | b.kind;
    if (kinds & (receives | receives_alone))
        for (int i = 0; i < 2 * ROUNDS; i++)
            s.deliver();
    if (kinds & waits_for_room)
        s.fill();
    cycles_per_second = 0; /* whoever asks first has to find it */
    threads.start(rounds(a, 0), rounds(b, 1));
    for (int i = 0; !threads.done(); i++) {
        pause(i);
        if (i >= PATIENCE)
            s.deliver();
        s.complete_one();
    }
    EXPECT_EQ(wrong.load(), 0) << a.name << " against " << b.name;
    if (kinds & waits_for_room)
        EXPECT_GE(waits.load(), 1u) << a.name << " against " << b.name;
    else
        EXPECT_EQ(waits.load(), 0u) << a.name << " against " << b.name;
}

void run_all_pairs(Switch before)
{
    const std::vector<Op> ops = operations();
    unsigned pairs = 0, left = 0;
    {
        Adapter adapter(before);
        TwoThreads threads;
        auto shared = std::make_unique<Shared>(adapter);
        for (const Op &a : ops) {
            for (const Op &b : ops) {
                if (left_to_the_caller(a, b)) {
                    left++;
                    continue;
                }
                run_pair(*shared, threads, a, b);
                pairs++;
                if ((a.kind | b.kind) & measures) {
                    shared.reset();
                    shared = std::make_unique<Shared>(adapter);
                } else {
                    shared->settle();
                }
            }
        }
    }
    printf("thread pairs: %zu operations, %u ordered pairs run, %u left to the caller\n", ops.size(), pairs, left);
    EXPECT_EQ(ops.size(), 54u);
    EXPECT_EQ(pairs + left, ops.size() * ops.size());
    EXPECT_EQ(left, 2u * (2 * 11) + 2 * 2 + 2 * 4);
}

TEST(ThreadPairs, EveryOperationAgainstEveryOther_NoRaceAndNoWrongResult) { run_all_pairs(Switch::off); }

/* Every frame is dated and keyframes are followed, while closing other endpoints sums theirs up. */
TEST(ThreadPairs, EveryOperationAgainstEveryOther_BehindASwitch_NoRaceAndNoWrongResult) { run_all_pairs(Switch::on); }

/* ------------------------------------------------------------------ against the enabling */

constexpr int ENABLINGS = test_support::kRacesDetected ? 3 : 1; /* of each operation, before and after it */

/* What came back of an operation that ran until the endpoint was enabled, and once more. */
struct Seen {
    unsigned disabled = 0; /* EINVAL, for want of queues */
    unsigned enabled = 0;  /* the endpoint, by the operation itself */
    int wrong = 0;         /* a result that cannot be */
};

Seen run_until_enabled(Shared &s, const Op &op, const std::atomic<bool> &enabled)
{
    Seen seen;
    auto run = [&](bool after) {
        const int rc = op.run(s, 1);
        const bool for_want = rc == EINVAL && (op.kind & needs_queues) != 0 && !after;
        const bool itself = rc == 0 && (op.kind & enables) != 0 && !after;
        seen.disabled += for_want;
        seen.enabled += itself;
        if (!for_want && !itself && op.results.count(rc) == 0)
            seen.wrong = rc;
    };
    while (!enabled.load(std::memory_order_acquire))
        run(false);
    run(true);
    return seen;
}

/* On an endpoint that was opened disabled, and is enabled meanwhile. */
Seen run_against_enable(const Adapter &adapter, TwoThreads &threads, const Op &op, bool enable_first)
{
    Shared s(adapter, RUK_OPEN_THREAD_SAFE | RUK_OPEN_DISABLED);
    std::atomic<bool> enabled{false};
    int rc = -1;
    Seen seen;
    const std::function<void()> enable = [&] {
        rc = ruk_device_enable(s.dev);
        enabled.store(true, std::memory_order_release);
    };
    const std::function<void()> operate = [&] { seen = run_until_enabled(s, op, enabled); };
    if (enable_first)
        threads.start(enable, operate);
    else
        threads.start(operate, enable);
    for (int i = 0; !threads.done(); i++) {
        pause(i);
        if (i >= PATIENCE)
            s.deliver();
        s.complete_one();
    }
    EXPECT_EQ(rc, seen.enabled == 0 ? 0 : EINVAL) << op.name;
    EXPECT_LE(seen.enabled, 1u) << op.name;
    EXPECT_EQ(seen.wrong, 0) << op.name << " against the enabling";
    EXPECT_EQ(s.dev->rep_state, REP_STATE_OPEN) << op.name;
    return seen;
}

TEST(ThreadPairs, EveryOperationAgainstEnable_OpenedDisabled_NoRaceAndNoWrongResult)
{
    const std::vector<Op> ops = operations();
    unsigned runs = 0, disabled = 0;
    Adapter adapter;
    TwoThreads threads;
    for (const Op &op : ops) {
        for (int i = 0; i < 2 * ENABLINGS; i++, runs++)
            disabled += run_against_enable(adapter, threads, op, i % 2 != 0).disabled != 0;
    }
    printf("thread pairs: %u enablings, %u of them after an operation that found no queues\n", runs, disabled);
    EXPECT_EQ(runs, 54u * 2 * ENABLINGS);
    EXPECT_GE(disabled, 1u); /* so that they meet */
}

} // namespace
