/*
 * The two ways in which ruk-ping sends and receives: libruk and kernel sockets.
 */
#pragma once

#include "common.h"

#include <memory>

namespace tools {

class Transport {
public:
    virtual ~Transport() = default;

    /* To the destination. 0 or an errno value. */
    virtual int send(const void *data, size_t len) = 0;

    /*
     * The next datagram; *len is its full length. 0, EAGAIN past the deadline, ECANCELED after a stop request,
     * or another errno value.
     */
    virtual int receive(void *buf, size_t size, size_t *len, int64_t deadline_ns) = 0;

    /* To the sender of the datagram received last. 0 or an errno value. */
    virtual int reply(const void *data, size_t len) = 0;

    virtual const Interface &interface() const = 0;
    virtual sockaddr_in local() const = 0;
};

struct TransportOptions {
    InterfaceChoice interface;
    uint16_t port = 0;
    std::optional<sockaddr_in> destination; /* needed for send() */
    WaitMode wait = WaitMode::nonblock;
    bool sendto = false; /* address each datagram instead of using a handle or connected socket */
    bool kernel = false;
};

std::unique_ptr<Transport> make_transport(const TransportOptions &opt, const StopSignal &stop);

} // namespace tools
