/*
 * The other end of an acceptance run: a kernel program that sends numbered datagrams on request and returns what is
 * sent to its echo port. Requests are lines of text in datagrams.
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

/* The payload of the n-th datagram: n where it fits, then bytes that occur nowhere else. */
std::vector<uint8_t> payload(uint32_t number, int size);

/* "send PORT COUNT SIZE GAP_US FIRST [GROUP]": datagrams FIRST, FIRST + 1 ... */
std::string send_request(uint16_t port, uint32_t count, int size, uint32_t gap_us, uint32_t first = 0,
                         const std::string &group = {});

/* Serves until a stop is requested. */
int serve(in_addr address, uint16_t port);

} // namespace accept_run
