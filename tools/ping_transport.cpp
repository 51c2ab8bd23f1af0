#include "ping_transport.h"

#include <cerrno>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

namespace tools {

namespace {

class RukTransport : public Transport {
public:
    RukTransport(const TransportOptions &opt, const StopSignal &stop)
        : opt_(opt), endpoint_(opt.interface, 0), channel_(endpoint_.bind(opt.port)), stop_(stop),
          receiver_(endpoint_.dev(), opt.wait, stop)
    {
        if (!opt.destination || opt.sendto)
            return;
        int rc = connect_waiting(stop, channel_, *opt.destination, 0, &handle_);
        if (rc != 0 && rc != ECANCELED) /* after a stop request nothing is sent */
            fail("cannot send to {}: {}", endpoint_text(*opt.destination), send_error_text(rc));
    }

    int send(const void *data, size_t len) override
    {
        return handle_ ? ruk_send(handle_, data, static_cast<int>(len), 0)
                       : sendto_waiting(stop_, channel_, *opt_.destination, data, static_cast<int>(len));
    }

    int receive(void *buf, size_t size, size_t *len, int64_t deadline_ns) override
    {
        ruk_recv_info info;
        int rc = receiver_.receive(buf, size, &info, deadline_ns);
        if (rc != 0)
            return rc;
        from_ = info.sin_from;
        *len = info.msg_len;
        return 0;
    }

    int reply(const void *data, size_t len) override
    {
        return sendto_waiting(stop_, channel_, from_, data, static_cast<int>(len));
    }

    const Interface &interface() const override { return endpoint_.interface(); }
    sockaddr_in local() const override { return channel_address(channel_); }

private:
    TransportOptions opt_;
    Endpoint endpoint_;
    ruk_channel_t channel_;
    ruk_send_t handle_ = nullptr; /* ends with its channel */
    const StopSignal &stop_;
    Receiver receiver_;
    sockaddr_in from_{};
};

class KernelTransport : public Transport {
public:
    KernelTransport(const TransportOptions &opt, const StopSignal &stop)
        : opt_(opt), stop_(stop), interface_(find_interface(opt.interface)),
          socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0))
    {
        sockaddr_in sin{};
        sin.sin_family = AF_INET;
        sin.sin_addr = interface_.addr;
        sin.sin_port = htons(opt.port);
        if (socket_ < 0 || ::bind(socket_, reinterpret_cast<sockaddr *>(&sin), sizeof sin) != 0)
            fail("cannot bind {}: {}", endpoint_text(sin), errno_text(errno));
        if (opt.destination && !opt.sendto &&
            connect(socket_, reinterpret_cast<const sockaddr *>(&*opt.destination), sizeof *opt.destination) != 0)
            fail("cannot send to {}: {}", endpoint_text(*opt.destination), errno_text(errno));
        /* A sleeping receiver looks at its deadline and at signals a few times a second. */
        timeval step{0, 200'000};
        setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &step, sizeof step);
    }

    ~KernelTransport() override { close(socket_); }

    int send(const void *data, size_t len) override
    {
        const auto *to = opt_.sendto ? reinterpret_cast<const sockaddr *>(&*opt_.destination) : nullptr;
        return ::sendto(socket_, data, len, 0, to, to ? sizeof(sockaddr_in) : 0) < 0 ? errno : 0;
    }

    int receive(void *buf, size_t size, size_t *len, int64_t deadline_ns) override
    {
        /* MSG_TRUNC: the full length, whatever the buffer holds. */
        int flags = MSG_TRUNC | (opt_.wait == WaitMode::block ? 0 : MSG_DONTWAIT);
        for (;;) {
            socklen_t from_len = sizeof from_;
            ssize_t n = recvfrom(socket_, buf, size, flags, reinterpret_cast<sockaddr *>(&from_), &from_len);
            if (n >= 0) {
                *len = static_cast<size_t>(n);
                return 0;
            }
            /* ECONNREFUSED tells of an earlier datagram that nobody wanted: a loss like another. */
            if (errno != EAGAIN && errno != EINTR && errno != ECONNREFUSED)
                return errno;
            if (stop_.requested())
                return ECANCELED;
            if (monotonic_ns() >= deadline_ns)
                return EAGAIN;
            if (opt_.wait == WaitMode::nonblock)
                wait_readable(socket_, stop_.fd(), deadline_ns);
        }
    }

    int reply(const void *data, size_t len) override
    {
        ssize_t n = ::sendto(socket_, data, len, 0, reinterpret_cast<const sockaddr *>(&from_), sizeof from_);
        return n < 0 ? errno : 0;
    }

    const Interface &interface() const override { return interface_; }

    sockaddr_in local() const override
    {
        sockaddr_in sin{};
        socklen_t len = sizeof sin;
        getsockname(socket_, reinterpret_cast<sockaddr *>(&sin), &len);
        return sin;
    }

private:
    TransportOptions opt_;
    const StopSignal &stop_;
    Interface interface_;
    int socket_;
    sockaddr_in from_{};
};

} // namespace

std::unique_ptr<Transport> make_transport(const TransportOptions &opt, const StopSignal &stop)
{
    if (opt.kernel)
        return std::make_unique<KernelTransport>(opt, stop);
    return std::make_unique<RukTransport>(opt, stop);
}

} // namespace tools
