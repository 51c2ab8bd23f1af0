/*
 * The receive path: nanoseconds a datagram of ruk_recvfrom(), events waiting in a ring of plain memory. The events
 * are written outside the measured time, a batch at a time, small enough to stay in the processor's cache.
 *
 * Beside it stands the floor: copying the same payloads out of the ring and nothing else.
 */
#include "ring_endpoint.h"

#include <benchmark/benchmark.h>

#include <chrono>

namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned batch_packets = 60; /* a multiple of 1 and 5 */

void set_time(benchmark::State &state, Clock::duration time)
{
    state.SetIterationTime(std::chrono::duration<double>(time).count());
}

void finish(benchmark::State &state, size_t payload)
{
    const int64_t datagrams = state.iterations() * int64_t(batch_packets);
    state.SetItemsProcessed(datagrams);
    state.SetBytesProcessed(datagrams * int64_t(payload));
    state.counters["per_datagram"] =
        benchmark::Counter(double(datagrams), benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void BM_recvfrom(benchmark::State &state)
{
    const size_t payload = size_t(state.range(0));
    const unsigned packets = unsigned(state.range(1));
    RingEndpoint endpoint;
    uint8_t buffer[2048];
    ruk_recv_info info = {};

    for (auto _ : state) {
        for (unsigned i = 0; i < batch_packets / packets; ++i)
            endpoint.write_event(packets, payload);

        int result = 0;
        const auto began = Clock::now();
        for (unsigned i = 0; i < batch_packets; ++i)
            result |= ruk_recvfrom(endpoint.device(), RUK_RECV_NONBLOCK, buffer, sizeof buffer, &info);
        set_time(state, Clock::now() - began);

        if (result != 0 || info.msg_len != payload || info.chan != endpoint.channel() ||
            buffer[payload - 1] != uint8_t(payload - 1)) {
            state.SkipWithError("a datagram did not arrive as sent");
            return;
        }
    }
    if (ruk_recvfrom(endpoint.device(), RUK_RECV_NONBLOCK, buffer, sizeof buffer, &info) != EAGAIN)
        state.SkipWithError("more arrived than was sent");
    finish(state, payload);
}

void BM_payload_copy(benchmark::State &state)
{
    const size_t payload = size_t(state.range(0));
    constexpr size_t stride = 1536;
    std::vector<uint8_t> frames(batch_packets * stride, 1);
    uint8_t buffer[2048];

    for (auto _ : state) {
        const auto began = Clock::now();
        for (unsigned i = 0; i < batch_packets; ++i) {
            std::memcpy(buffer, frames.data() + i * stride + 42, payload);
            benchmark::DoNotOptimize(buffer);
            benchmark::ClobberMemory();
        }
        set_time(state, Clock::now() - began);
    }
    finish(state, payload);
}

BENCHMARK(BM_recvfrom)->ArgNames({"bytes", "packets_an_event"})->ArgsProduct({{64, 1400}, {1, 5}})->UseManualTime();
BENCHMARK(BM_payload_copy)->ArgName("bytes")->Arg(64)->Arg(1400)->UseManualTime();

} // namespace

int main(int argc, char **argv)
{
    ruk__api_version = RUK_API_VERSION; /* as after ruk_init(), which wants a driver */
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
