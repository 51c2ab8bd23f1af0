/*
 * Receiving. Events are written outside the measured time, a batch at a time.
 */
#include "cases.h"
#include "floors.h"
#include "memory_endpoint.h"

#include <algorithm>
#include <bit>
#include <cerrno>

namespace bench {

namespace {

constexpr size_t cold_ring = 8 << 20;

struct Setting {
    size_t payload = 64;
    unsigned packets = 1; /* an event */
    bool dated = false, cold = false;
    unsigned tags = 1;
    unsigned queued = 60; /* datagrams at a time in a warm ring */
    size_t ring_bytes() const
    {
        return cold ? cold_ring
                    : std::max<size_t>(256 << 10, std::bit_ceil(queued * EventRing::event_bytes(1, payload) + 1));
    }
    /* Datagrams at a time: a warm ring's stay in the cache, a cold ring is filled and driven out of it. */
    unsigned batch() const
    {
        return cold ? unsigned(ring_bytes() / EventRing::event_bytes(packets, payload) - 1) * packets : queued;
    }
};

/* Nanoseconds a datagram, `receive` taking one into a buffer and its info. */
template <typename Receive>
double receive_all(EventRing &ring, const Setting &s, uint16_t tag, uint16_t port, size_t datagrams, Receive receive)
{
    uint8_t *const buffer = receive_buffer;
    ruk_recv_info info = {};
    double ns = 0;
    size_t done = 0;
    const unsigned batch = s.batch();
    while (done < datagrams) {
        for (unsigned i = 0; i < batch / s.packets; ++i)
            ring.write_event(s.packets, s.payload, tag, port);
        if (s.cold)
            ring.evict();
        int result = 0;
        const double began = now_ns();
        for (unsigned i = 0; i < batch; ++i)
            result |= receive(buffer, sizeof receive_buffer, &info);
        ns += now_ns() - began - reading_ns();
        done += batch;
        if (result != 0 || info.msg_len != s.payload || buffer[s.payload - 1] != uint8_t(s.payload - 1) ||
            info.sin_to.sin_port != tov_be16(port) || (info.timestamp != 0) != s.dated)
            wrong("a datagram did not arrive as it was sent");
    }
    if (receive(buffer, sizeof receive_buffer, &info) != EAGAIN)
        wrong("more arrived than was sent");
    return ns / double(done);
}

Measure library(const Setting &s, size_t datagrams)
{
    auto endpoint = std::make_shared<MemoryEndpoint>(s.ring_bytes(), s.tags);
    if (s.dated)
        endpoint->date_by_adapter_clock();
    return [=] {
        return receive_all(endpoint->ring, s, endpoint->tag(), endpoint->port(), datagrams,
                           [rep = endpoint->device()](void *buf, size_t len, ruk_recv_info *info) {
                               return ruk_recvfrom(rep, RUK_RECV_NONBLOCK, buf, len, info);
                           });
    };
}

struct FloorRing {
    explicit FloorRing(size_t bytes) : ring(bytes)
    {
        publish_clock(&window);
        receiver.cur = receiver.base = ring.base();
        receiver.end = ring.base() + ring.bytes();
        receiver.channels = &channel;
        receiver.flow = &flow;
        receiver.doorbell = &doorbell;
        receiver.clock = &window;
    }
    EventRing ring;
    oxel_flow_window_t flow = {};
    alignas(64) uint64_t doorbell = 0;
    kz_kernel_window_t window = {};
    ruk_channel_t channel = nullptr;
    FloorReceiver receiver = {};
};

Measure floor(const Setting &s, size_t datagrams)
{
    auto ring = std::make_shared<FloorRing>(s.ring_bytes());
    auto *receive = s.dated ? floor_receive_dated : s.cold ? floor_receive_ahead : floor_receive;
    return [=] {
        return receive_all(ring->ring, s, 0, own_port, datagrams,
                           [receive, r = &ring->receiver](void *buf, size_t len, ruk_recv_info *info) {
                               return receive(r, buf, len, info);
                           });
    };
}

} // namespace

Measure library_receive(size_t payload, unsigned queued, size_t datagrams)
{
    return library({.payload = payload, .queued = queued}, datagrams);
}

void add_receive_cases(std::vector<Case> &cases, Effort effort)
{
    const size_t many = effort.of(60000);
    auto against_floor = [=](const Setting &s, size_t n) {
        return [=] { return Measured{library(s, n), floor(s, n)}; };
    };
    auto against = [=](const Setting &s, const Setting &other) {
        return [=] { return Measured{library(s, many), library(other, many)}; };
    };
    const Setting small, large{.payload = 1400};

    cases.push_back({"receive_64", "64 B, against a hand-written receive call", one_thread, Compare::ratio, 1.5, 1.15,
                     0, "", 0, against_floor(small, many)});
    cases.push_back({"receive_1400", "1400 B, against a hand-written receive call", one_thread, Compare::ratio, 1.2,
                     1.08, 1400, "", 0, against_floor(large, many)});
    cases.push_back({"receive_64_five_an_event", "64 B, five datagrams an event, against one", one_thread,
                     Compare::faster, 1, 0, 0, "", 0, against({.packets = 5}, small)});
    cases.push_back({"receive_1400_five_an_event", "1400 B, five datagrams an event, against one", one_thread,
                     Compare::none, 0, 0, 1400, "", 0, against({.payload = 1400, .packets = 5}, large)});
    cases.push_back({"receive_64_cold", "64 B, ring not in the cache, against the same fetched ahead", one_thread,
                     Compare::ratio, 1.5, 1.1, 0, "", 0, against_floor({.cold = true}, many)});
    cases.push_back({"receive_1400_cold", "1400 B, ring not in the cache, against the same fetched ahead", one_thread,
                     Compare::none, 0, 0, 1400, "", 0, against_floor({.payload = 1400, .cold = true}, 1)});
    cases.push_back({"receive_64_dated", "64 B, adapter timestamps, against the same barriers and division", one_thread,
                     Compare::ratio, 1.3, 1.1, 0, "", 0, against_floor({.dated = true}, many)});
    cases.push_back({"receive_64_all_tags", "64 B, 3968 tags bound and one hot, against 1 bound", one_thread,
                     Compare::ratio, 1.1, 1.0, 0, "", 0, against({.tags = MemoryEndpoint::all_tags}, small)});
}

} // namespace bench
