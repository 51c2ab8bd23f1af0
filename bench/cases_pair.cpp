/*
 * Two endpoints and a perfect adapter between them: memory alone. Each side is a thread that spins; the adapter's
 * work, from a posted request to an event in the other ring, is done by the thread that receives. Against it, two
 * bare rings of messages of the same size.
 */
#include "cases.h"
#include "memory_endpoint.h"

#include <atomic>
#include <sched.h>
#include <stdexcept>
#include <thread>

namespace bench {

namespace {

constexpr size_t message = 64;

/* A message of one thread, on lines that the other one does not touch. */
struct alignas(128) Buffer {
    uint8_t bytes[message];
};

/* A wait that has gone on for seconds ends the program's run of the case, not the user's patience. */
class Patience {
public:
    void spin()
    {
        __builtin_ia32_pause();
        if (++spins_ > 2'000'000'000)
            wrong("an answer did not come");
    }

private:
    uint64_t spins_ = 0;
};

class Side {
public:
    Side() : endpoint_(64 << 10) {}

    void send(const uint8_t *bytes) { failed |= ruk_send(endpoint_.connected(), bytes, message, RUK_NONBLOCK); }

    /*
     * Receives what the other side sends next: takes its request, writes the event, receives. The request is completed
     * by the next call: an adapter does that beside everything else, and nobody waits for it here.
     */
    void receive_from(Side &other, uint8_t *bytes)
    {
        nuv_ureq_t *slot = other.endpoint_.slot(NUV_UREQ_RUK_PIO);
        other.endpoint_.complete(taken_);
        Patience patience;
        while (tov_ld32_acq(&slot->words[15]) == 0)
            patience.spin();
        const uint32_t offset = tov_be32(slot->ruk.ruk_data_offset);
        endpoint_.ring.write_datagram(slot->ruk.ruk_header, other.endpoint_.pio() + offset, message, 0);
        tov_st32_rel(&slot->words[15], 0);
        ++taken_;
        ruk_recv_info info = {};
        failed |= ruk_recvfrom(endpoint_.device(), RUK_RECV_NONBLOCK, bytes, message, &info);
        failed |= info.msg_len != message;
    }

    /* The handle's destination is what this endpoint's own filter lets in. */
    void address_the_other(Side &other)
    {
        ruk__tag_entry *entry = &other.endpoint_.device()->rep_tag_table[0][0];
        entry->tage_ip_addr = peer_address;
        entry->tage_udp_port = peer_port;
    }

    int failed = 0;

private:
    MemoryEndpoint endpoint_;
    uint16_t taken_ = 0;
};

struct BareRing {
    struct alignas(128) Slot {
        uint8_t bytes[message];
        alignas(64) std::atomic<uint32_t> number{0};
    };
    Slot slots[64];
};

/* While it lives the thread that made it stays on a processor. */
class Held {
public:
    explicit Held(int processor)
    {
        cpu_set_t one;
        CPU_ZERO(&one);
        CPU_SET(size_t(processor), &one);
        sched_getaffinity(0, sizeof before_, &before_);
        sched_setaffinity(0, sizeof one, &one);
    }
    ~Held() { sched_setaffinity(0, sizeof before_, &before_); }
    Held(const Held &) = delete;
    Held &operator=(const Held &) = delete;

private:
    cpu_set_t before_;
};

/* Half a round trip, ns: this thread asks, another one, which is there by then, answers. */
template <typename Ask, typename Answer> double half_round_trip(size_t times, Ask ask, Answer answer)
{
    const std::vector<int> processors = two_processors();
    const Held here(processors[0]);
    std::exception_ptr problem;
    std::atomic<bool> ready{false};
    std::thread other([&] {
        const Held there(processors[1]);
        ready = true;
        try {
            for (size_t i = 0; i < times; ++i)
                answer(i);
        } catch (...) {
            problem = std::current_exception();
        }
    });
    while (!ready)
        std::this_thread::yield();
    const double began = now_ns();
    std::exception_ptr own;
    try {
        for (size_t i = 0; i < times; ++i)
            ask(i);
    } catch (...) {
        own = std::current_exception();
    }
    const double ns = now_ns() - began;
    other.join();
    if (own || problem)
        std::rethrow_exception(own ? own : problem);
    return ns / double(times) / 2;
}

Measure endpoints(size_t times)
{
    auto a = std::make_shared<Side>(), b = std::make_shared<Side>();
    a->address_the_other(*b);
    b->address_the_other(*a);
    return [=] {
        Buffer question = {1}, answer = {}, got;
        const double ns = half_round_trip(
            times,
            [&](size_t i) {
                question.bytes[1] = uint8_t(i);
                a->send(question.bytes);
                a->receive_from(*b, got.bytes);
            },
            [&](size_t) {
                b->receive_from(*a, answer.bytes);
                b->send(answer.bytes);
            });
        if (a->failed || b->failed || got.bytes[0] != 1 || got.bytes[1] != uint8_t(times - 1))
            wrong("a message did not come back as it was sent");
        return ns;
    };
}

Measure bare_rings(size_t times)
{
    auto there = std::make_shared<BareRing>(), back = std::make_shared<BareRing>();
    auto sent = std::make_shared<uint32_t>(0u);
    return [=] {
        const uint32_t base = *sent;
        auto put = [base](BareRing &ring, size_t i, const uint8_t *bytes) {
            auto &slot = ring.slots[(base + i) % 64];
            std::memcpy(slot.bytes, bytes, message);
            slot.number.store(uint32_t(base + i + 1), std::memory_order_release);
        };
        auto get = [base](BareRing &ring, size_t i, uint8_t *bytes) {
            auto &slot = ring.slots[(base + i) % 64];
            Patience patience;
            while (slot.number.load(std::memory_order_acquire) != uint32_t(base + i + 1))
                patience.spin();
            std::memcpy(bytes, slot.bytes, message);
        };
        Buffer question = {1}, answer, got = {};
        const double ns = half_round_trip(
            times,
            [&](size_t i) {
                question.bytes[1] = uint8_t(i);
                put(*there, i, question.bytes);
                get(*back, i, got.bytes);
            },
            [&](size_t i) {
                get(*there, i, answer.bytes);
                put(*back, i, answer.bytes);
            });
        *sent += uint32_t(times);
        if (got.bytes[0] != 1 || got.bytes[1] != uint8_t(times - 1))
            wrong("a message did not come back as it was sent");
        return ns;
    };
}

/* Measures at one place in memory after the other: how far a line travels depends on its address. */
Measure in_turn(Measure (*make)(size_t), size_t times)
{
    auto places = std::make_shared<std::vector<Measure>>();
    for (int i = 0; i < 16; ++i)
        places->push_back(make(times));
    auto next = std::make_shared<size_t>(0u);
    return [=] { return (*places)[(*next)++ % places->size()](); };
}

} // namespace

void add_pair_case(std::vector<Case> &cases, Effort effort)
{
    Case pair = {"pair_64",
                 "half round trip, 64 B, two endpoints over a perfect adapter in memory, against two bare rings",
                 "two threads, both spinning, each on a processor of its own",
                 Compare::ratio,
                 1.5,
                 1.25,
                 0,
                 "",
                 201, /* a virtual machine's processors may be near each other at one moment, and far at the next */
                 [=] {
                     return Measured{in_turn(endpoints, effort.of(5000)), in_turn(bare_rings, effort.of(5000))};
                 }};
    if (two_processors().size() < 2)
        pair.skipped = "two threads spin, and there is one processor";
    cases.push_back(pair);
}

} // namespace bench
