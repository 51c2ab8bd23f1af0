/*
 * Sending and its copy. The adapter has completed every request before the next one: each send reaps one.
 */
#include "cases.h"
#include "floors.h"
#include "memory_endpoint.h"
#include "tov_piocopy.h"

namespace bench {

namespace {

void fill_payload()
{
    for (size_t i = 0; i < sizeof send_payload; ++i)
        send_payload[i] = uint8_t(i * 7 + 1);
}

constexpr uint32_t pio_always = 1472, dma_always = 0; /* thresholds */

template <typename Send> double send_all(size_t datagrams, MemoryEndpoint &endpoint, uint16_t *count, Send send)
{
    int result = 0;
    const double began = now_ns();
    for (size_t i = 0; i < datagrams; ++i) {
        endpoint.complete((*count)++);
        result |= send();
    }
    const double ns = now_ns() - began;
    if (result != 0)
        wrong("a datagram was refused");
    return ns / double(datagrams);
}

/* The request is as it should be: the payload's length, and the type last. */
void check(MemoryEndpoint &endpoint, size_t bytes, uint32_t threshold)
{
    const uint8_t type = bytes > threshold ? NUV_UREQ_RUK_DMA : NUV_UREQ_RUK_PIO;
    const nuv_ureq_t *slot = endpoint.slot(type);
    if (slot->ruk.type != type || slot->ruk.ruk_data_length != tov_be16(uint16_t(bytes)))
        wrong("a request is not as it should be");
}

Measure connected(size_t bytes, uint32_t threshold, size_t datagrams)
{
    auto endpoint = std::make_shared<MemoryEndpoint>(4096, 1, threshold);
    auto count = std::make_shared<uint16_t>(uint16_t(0));
    return [=] {
        const double ns = send_all(datagrams, *endpoint, count.get(), [&, dhs = endpoint->connected()] {
            return ruk_send(dhs, send_payload, int(bytes), RUK_NONBLOCK);
        });
        check(*endpoint, bytes, threshold);
        return ns;
    };
}

Measure addressed(size_t bytes, uint32_t threshold, size_t datagrams)
{
    auto endpoint = std::make_shared<MemoryEndpoint>(4096, 1, threshold);
    auto count = std::make_shared<uint16_t>(uint16_t(0));
    return [=] {
        const sockaddr_in to = MemoryEndpoint::destination();
        const double ns = send_all(datagrams, *endpoint, count.get(), [&, ch = endpoint->channel()] {
            return ruk_sendto(ch, &to, send_payload, int(bytes), RUK_NONBLOCK);
        });
        check(*endpoint, bytes, threshold);
        return ns;
    };
}

struct FloorWindow {
    FloorWindow(bool dma) : payloads(pages(dma ? MemoryEndpoint::dma_bytes : NUV_PIO_BYTES)), requests(pages(4096))
    {
        /* The header that the library makes, so that both send the same. */
        MemoryEndpoint endpoint(4096);
        ruk_send(endpoint.connected(), send_payload, 0, RUK_NONBLOCK);
        uint8_t header[header_bytes];
        std::memcpy(header, endpoint.slot(NUV_UREQ_RUK_PIO)->ruk.ruk_header, sizeof header);
        for (size_t at : {16, 24, 38, 40}) /* lengths and checksums */
            header[at] = header[at + 1] = 0;
        const uint8_t type = dma ? NUV_UREQ_RUK_DMA : NUV_UREQ_RUK_PIO;
        sender.payloads = payloads.get();
        sender.size = dma ? MemoryEndpoint::dma_bytes : NUV_PIO_BYTES;
        sender.grain = dma ? NUV_DMA_PAGE : 4;
        sender.slot = reinterpret_cast<uint32_t *>(requests.get() + type * NUV_UREQ_STRIDE);
        sender.completions = &completions;
        floor_sender_init(&sender, header, type);
    }
    Memory<uint8_t> payloads, requests;
    alignas(64) uint16_t completions = 0;
    FloorSender sender = {};
};

Measure floor(size_t bytes, bool dma, size_t datagrams)
{
    auto window = std::make_shared<FloorWindow>(dma);
    /* The library's request for the same payload is what the floor's has to be, but for the offset. */
    auto endpoint = std::make_shared<MemoryEndpoint>(4096, 1, dma ? dma_always : pio_always);
    return [=] {
        int result = 0;
        uint16_t *count = &window->completions;
        const double began = now_ns();
        for (size_t i = 0; i < datagrams; ++i) {
            tov_st16_rel(count, tov_be16(window->sender.posted));
            result |= floor_send(&window->sender, send_payload, bytes);
        }
        const double ns = now_ns() - began;
        ruk_send(endpoint->connected(), send_payload, int(bytes), RUK_NONBLOCK);
        endpoint->complete(1);
        const nuv_ureq_t *want = endpoint->slot(dma ? NUV_UREQ_RUK_DMA : NUV_UREQ_RUK_PIO);
        const uint8_t *sent = window->payloads.get() + tov_be32(window->sender.slot[0]);
        if (result != 0 || std::memcmp(window->sender.slot + 1, &want->words[1], 60) != 0 ||
            std::memcmp(sent, send_payload, bytes) != 0)
            wrong("the floor of sending posted another request than the library");
        endpoint->complete(uint16_t(endpoint->device()->rep_sreq_inflight));
        return ns / double(datagrams);
    };
}

/* Copies into one place of a payload ring after the other, as sending does. */
Measure repeated(size_t times, const std::function<void(uint32_t *)> &copy)
{
    auto to = std::make_shared<Memory<uint8_t>>(pages(NUV_PIO_BYTES));
    return [=] {
        return time_of(times, [&] {
            for (size_t i = 0; i < times; ++i)
                copy(reinterpret_cast<uint32_t *>(to->get() + i % 5 * 1408));
        });
    };
}

Measure checksumming_copy(size_t bytes, size_t times)
{
    return repeated(times, [=](uint32_t *to) {
        uint32_t misalign;
        volatile uint32_t sum =
            tov_piocopy_csum(reinterpret_cast<uintptr_t *>(to), send_payload, uint32_t(bytes), &misalign);
        (void)sum;
    });
}

} // namespace

Measure library_send(size_t payload, size_t datagrams) { return connected(payload, pio_always, datagrams); }

void add_send_cases(std::vector<Case> &cases, Effort effort)
{
    fill_payload();
    const size_t many = effort.of(50000);
    auto send = [=](size_t bytes, bool dma) {
        return [=] { return Measured{connected(bytes, dma ? dma_always : pio_always, many), floor(bytes, dma, many)}; };
    };
    cases.push_back({"send_64", "connected, 64 B, PIO, against a hand-written send", one_thread, Compare::ratio, 2.0,
                     1.35, 0, "", 0, send(64, false)});
    cases.push_back({"send_1400", "connected, 1400 B, PIO, against a hand-written send", one_thread, Compare::ratio,
                     1.15, 1.05, 1400, "", 0, send(1400, false)});
    cases.push_back({"send_64_dma", "connected, 64 B, DMA, against a hand-written send", one_thread, Compare::none, 0,
                     0, 0, "", 0, send(64, true)});
    cases.push_back({"send_1400_dma", "connected, 1400 B, DMA, against a hand-written send", one_thread, Compare::none,
                     0, 0, 1400, "", 0, send(1400, true)});
    auto send_to = [=](size_t bytes, uint32_t threshold) {
        return [=] { return Measured{addressed(bytes, threshold, many), connected(bytes, threshold, many)}; };
    };
    cases.push_back({"sendto_64", "to an address with a handle kept, 64 B, over connected", one_thread,
                     Compare::difference, 8, 4, 0, "", 0, send_to(64, pio_always)});
    cases.push_back({"sendto_1400", "to an address with a handle kept, 1400 B, over connected", one_thread,
                     Compare::none, 0, 0, 1400, "", 0, send_to(1400, pio_always)});
    cases.push_back({"sendto_64_dma", "to an address with a handle kept, 64 B, DMA, over connected", one_thread,
                     Compare::none, 0, 0, 0, "", 0, send_to(64, dma_always)});
    cases.push_back({"sendto_1400_dma", "to an address with a handle kept, 1400 B, DMA, over connected", one_thread,
                     Compare::none, 0, 0, 1400, "", 0, send_to(1400, dma_always)});
    cases.push_back({"copy_sum_1400", "checksumming copy, 1400 B, against 32-bit stores without a sum", one_thread,
                     Compare::speed, 0.85, 0.92, 1400, "", 0, [=] {
                         return Measured{checksumming_copy(1400, many),
                                         repeated(many, [](uint32_t *to) { floor_copy32(to, send_payload, 1400); })};
                     }});
    cases.push_back({"memcpy_1400", "memcpy, 1400 B", one_thread, Compare::none, 0, 0, 1400, "", 0, [=] {
                         return Measured{repeated(many,
                                                  [](uint32_t *to) {
                                                      std::memcpy(to, send_payload, 1400);
                                                      __asm__ __volatile__("" ::"r"(to) : "memory");
                                                  }),
                                         {}};
                     }});
}

} // namespace bench
