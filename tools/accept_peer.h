/*
 * The other end of an acceptance run: a kernel program that sends numbered datagrams on request and returns what is
 * sent to its echo port. Requests are lines of text in datagrams; one that is repeated from the same port is answered
 * again, and served once.
 */
#pragma once

#include <cstddef>
#include <cstdint>
#include <netinet/in.h>
#include <string>
#include <vector>

namespace accept_run {

constexpr uint16_t default_port = 7700; /* requests; the next one echoes */
constexpr int sweep = -1;               /* as a size: 0 to 1472 in turn */
constexpr uint32_t sizes = 1473;
constexpr int largest_size = 1472;

/* The most that is served: of a run of a thousand minutes. */
constexpr uint32_t most_datagrams = 5'000'000;
constexpr uint32_t longest_gap_us = 10'000;

/* The payload of the n-th datagram: n where it fits, then bytes that occur nowhere else. */
std::vector<uint8_t> payload(uint32_t number, int size);

/* Where the peer sends to: other than whoever asks, when there is an address, a group or a broadcast. */
struct Target {
    std::string address;
    std::string via; /* an address of the network to send on; empty: whose asks */
};

/* "send PORT COUNT SIZE GAP_US FIRST [ADDRESS [VIA]]": datagrams FIRST, FIRST + 1 ...; "no" when it is not served. */
std::string send_request(uint16_t port, uint32_t count, int size, uint32_t gap_us, uint32_t first = 0,
                         const Target &target = {});

/* "reach ADDRESS": the answer is "ok" when the peer has an interface on that address's subnet, else "no". */
std::string reach_request(in_addr address);

/* Serves until a stop is requested. */
int serve(in_addr address, uint16_t port);

} // namespace accept_run
