// What the sending program and the receiving test agree on.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

constexpr uint16_t kCreditPort = 6001;

// Bytes of the payload of the n-th datagram of a thread: at least what names it.
inline size_t stream_size(uint32_t n, size_t largest)
{
    const size_t size = 8 + n * 37u % (largest - 7);
    return size < largest ? size : largest;
}

// The payload of the n-th datagram of a thread: both numbers, then bytes that depend on them.
inline void fill_stream_payload(char *payload, size_t size, uint32_t thread, uint32_t n)
{
    memcpy(payload, &thread, 4);
    memcpy(payload + 4, &n, 4);
    for (size_t i = 8; i < size; i++)
        payload[i] = char(n * 31 + thread * 7 + i);
}
