/*
 * A C++20 face over ruk.h: owners that may be moved, std::span payloads, std::chrono times, and each error as an
 * exception or as a std::error_code. Everything is inline and holds one handle: a call costs what the C call does.
 *
 *     ruk::init();
 *     auto endpoint = ruk::endpoint::open_if("oxel0", ruk::open_flags::thread_safe);
 *     auto channel = endpoint.bind(5000);
 *     auto to = channel.connect(ruk::address("192.168.1.2", 5000));
 *     to.send("hello"sv);
 *
 * Each operation comes twice: with a trailing std::error_code it never throws and sets that, cleared on success;
 * without, it throws std::system_error. Codes are errno values of the generic category.
 *
 * Lifetimes are those of ruk.h: an endpoint outlives its channels, a channel its send handles. Declared in this
 * order, or as members in this order, they are. Threads: as in ruk.h.
 */
#ifndef RUK_HPP
#define RUK_HPP

#include "ruk.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <span>
#include <string_view>
#include <system_error>
#include <utility>

namespace ruk {

/* ------------------------------------------------------------------ errors */

namespace detail {

/* Some calls give negated errno values, and blocking a source gives -1 with errno. */
inline std::error_code code(int rc) noexcept { return {rc < 0 ? -rc : rc, std::generic_category()}; }

inline void raise(const std::error_code &ec, const char *what)
{
    if (ec) [[unlikely]]
        throw std::system_error(ec, what);
}

inline std::error_code code_or_errno(int rc) noexcept { return code(rc == -1 ? errno : rc); }

} // namespace detail

/* ------------------------------------------------------------------ time and addresses */

/* Nanoseconds of the host's real-time clock. */
using time_point = std::chrono::sys_time<std::chrono::nanoseconds>;

/* An IPv4 address in network byte order; EINVAL for text that is none. */
inline in_addr ip(const char *text, std::error_code &ec) noexcept
{
    in_addr addr{};
    ec = detail::code(inet_pton(AF_INET, text, &addr) == 1 ? 0 : EINVAL);
    return addr;
}
inline in_addr ip(const char *text)
{
    std::error_code ec;
    const in_addr addr = ip(text, ec);
    detail::raise(ec, "ruk::ip");
    return addr;
}

/* An address with a port in host byte order. */
inline sockaddr_in address(in_addr addr, uint16_t port) noexcept
{
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_addr = addr;
    sin.sin_port = htons(port);
    return sin;
}
inline sockaddr_in address(const char *text, uint16_t port) { return address(ip(text), port); }

/* ------------------------------------------------------------------ flags */

namespace open_flags {
inline constexpr int none = 0;
inline constexpr int thread_safe = RUK_OPEN_THREAD_SAFE;
inline constexpr int disabled = RUK_OPEN_DISABLED;
inline constexpr int hw_timestamping = RUK_OPEN_HW_TIMESTAMPING;
} // namespace open_flags

namespace bind_flags {
inline constexpr int none = 0;
inline constexpr int reuse = RUK_BIND_REUSE;
inline constexpr int kernel = RUK_BIND_KERNEL;
inline constexpr int no_unicast = RUK_BIND_NO_UNICAST;
inline constexpr int broadcast = RUK_BIND_BROADCAST;
} // namespace bind_flags

enum class wait { spin = RUK_RECV_DEFAULT, none = RUK_RECV_NONBLOCK, sleep = RUK_RECV_BLOCK };

enum class filter { normal = RUK_RECV_FILTER_NORMAL, allmulti = RUK_RECV_FILTER_ALLMULTI, raw = RUK_RECV_FILTER_RAW };

/* ------------------------------------------------------------------ what is sent and received */

/* Payload to send: any contiguous sequence of trivially copyable elements. Nothing is copied here. */
class payload {
public:
    payload(const void *data, size_t size) noexcept : bytes_(static_cast<const std::byte *>(data), size) {}
    payload(std::string_view text) noexcept : payload(text.data(), text.size()) {}
    template <typename T, size_t N> payload(std::span<T, N> elements) noexcept : bytes_(std::as_bytes(elements)) {}

    const void *data() const noexcept { return bytes_.data(); }
    /* Longer than a frame in any case where an int does not hold it. */
    int size() const noexcept { return static_cast<int>(bytes_.size()); }

private:
    std::span<const std::byte> bytes_;
};

struct datagram {
    std::span<std::byte> data; /* what of it is in the buffer */
    uint32_t length = 0;       /* its full length as the UDP header tells it */
    sockaddr_in from{}, to{};
    std::optional<time_point> time; /* when it arrived, when that is known */
    ruk_channel_t channel = nullptr;
    void *context = nullptr;

    bool truncated() const noexcept { return length > data.size(); }
};

/* ------------------------------------------------------------------ initialisation */

inline void init(std::error_code &ec) noexcept { ec = detail::code(ruk_init(RUK_API_VERSION)); }
inline void init()
{
    std::error_code ec;
    init(ec);
    detail::raise(ec, "ruk_init");
}

/* ------------------------------------------------------------------ send handle */

/* A destination of a channel; ends when it is destroyed. */
class send_handle {
public:
    send_handle() noexcept = default;
    explicit send_handle(ruk_send_t handle) noexcept : handle_(handle) {}
    send_handle(send_handle &&other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    send_handle &operator=(send_handle &&other) noexcept
    {
        if (this != &other) {
            reset();
            handle_ = other.release();
        }
        return *this;
    }
    ~send_handle() { reset(); }

    explicit operator bool() const noexcept { return handle_ != nullptr; }
    ruk_send_t get() const noexcept { return handle_; }
    ruk_send_t release() noexcept { return std::exchange(handle_, nullptr); }
    void reset() noexcept
    {
        if (handle_)
            ruk_send_disconnect(release());
    }

    /* Waits for room. */
    void send(payload data, std::error_code &ec) noexcept
    {
        ec = detail::code(ruk_send(handle_, data.data(), data.size(), 0));
    }
    void send(payload data)
    {
        std::error_code ec;
        send(data, ec);
        detail::raise(ec, "ruk_send");
    }

    /* False when there is no room, which is no error. */
    [[nodiscard]] bool try_send(payload data, std::error_code &ec) noexcept
    {
        const int rc = ruk_send(handle_, data.data(), data.size(), RUK_NONBLOCK);
        ec = detail::code(rc == EAGAIN ? 0 : rc);
        return rc == 0;
    }
    [[nodiscard]] bool try_send(payload data)
    {
        std::error_code ec;
        const bool sent = try_send(data, ec);
        detail::raise(ec, "ruk_send");
        return sent;
    }

private:
    ruk_send_t handle_ = nullptr;
};

/* ------------------------------------------------------------------ channel */

/* A bound port; unbound when it is destroyed. */
class channel {
public:
    channel() noexcept = default;
    explicit channel(ruk_channel_t handle) noexcept : handle_(handle) {}
    channel(channel &&other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    channel &operator=(channel &&other) noexcept
    {
        if (this != &other) {
            reset();
            handle_ = other.release();
        }
        return *this;
    }
    ~channel() { reset(); }

    explicit operator bool() const noexcept { return handle_ != nullptr; }
    ruk_channel_t get() const noexcept { return handle_; }
    ruk_channel_t release() noexcept { return std::exchange(handle_, nullptr); }
    void reset() noexcept
    {
        if (handle_)
            ruk_unbind(release());
    }

    sockaddr_in address(std::error_code &ec) const noexcept
    {
        sockaddr_in sin{};
        ec = detail::code(ruk_getaddress(handle_, &sin));
        return sin;
    }
    sockaddr_in address() const
    {
        std::error_code ec;
        const sockaddr_in sin = address(ec);
        detail::raise(ec, "ruk_getaddress");
        return sin;
    }

    /* ttl 0 takes the library's. */
    send_handle connect(const sockaddr_in &to, std::error_code &ec, int ttl = 0) noexcept
    {
        ruk_send_t handle = nullptr;
        ec = detail::code(ruk_send_connect(handle_, &to, 0, ttl, &handle));
        return send_handle(ec ? nullptr : handle);
    }
    send_handle connect(const sockaddr_in &to, int ttl = 0)
    {
        std::error_code ec;
        send_handle handle = connect(to, ec, ttl);
        detail::raise(ec, "ruk_send_connect");
        return handle;
    }

    void send_to(const sockaddr_in &to, payload data, std::error_code &ec) noexcept
    {
        ec = detail::code(ruk_sendto(handle_, &to, data.data(), data.size(), 0));
    }
    void send_to(const sockaddr_in &to, payload data)
    {
        std::error_code ec;
        send_to(to, data, ec);
        detail::raise(ec, "ruk_sendto");
    }

    void join(in_addr group, std::error_code &ec) noexcept
    {
        ec = detail::code(ruk_mcast_join(handle_, &group, nullptr));
    }
    void join(in_addr group)
    {
        std::error_code ec;
        join(group, ec);
        detail::raise(ec, "ruk_mcast_join");
    }
    void join(in_addr group, in_addr source, std::error_code &ec) noexcept
    {
        ec = detail::code(ruk_mcast_join_source(handle_, &group, &source));
    }
    void join(in_addr group, in_addr source)
    {
        std::error_code ec;
        join(group, source, ec);
        detail::raise(ec, "ruk_mcast_join_source");
    }
    void leave(in_addr group, std::error_code &ec) noexcept { ec = detail::code(ruk_mcast_leave(handle_, &group)); }
    void leave(in_addr group)
    {
        std::error_code ec;
        leave(group, ec);
        detail::raise(ec, "ruk_mcast_leave");
    }
    void leave(in_addr group, in_addr source, std::error_code &ec) noexcept
    {
        ec = detail::code(ruk_mcast_leave_source(handle_, &group, &source));
    }
    void leave(in_addr group, in_addr source)
    {
        std::error_code ec;
        leave(group, source, ec);
        detail::raise(ec, "ruk_mcast_leave_source");
    }
    void block(in_addr group, in_addr source, std::error_code &ec) noexcept
    {
        ec = detail::code_or_errno(ruk_mcast_block_source(handle_, &group, &source));
    }
    void block(in_addr group, in_addr source)
    {
        std::error_code ec;
        block(group, source, ec);
        detail::raise(ec, "ruk_mcast_block_source");
    }
    void unblock(in_addr group, in_addr source, std::error_code &ec) noexcept
    {
        ec = detail::code_or_errno(ruk_mcast_unblock_source(handle_, &group, &source));
    }
    void unblock(in_addr group, in_addr source)
    {
        std::error_code ec;
        unblock(group, source, ec);
        detail::raise(ec, "ruk_mcast_unblock_source");
    }

private:
    ruk_channel_t handle_ = nullptr;
};

/* ------------------------------------------------------------------ endpoint */

struct clock_reading {
    uint64_t ticks;                       /* adapter clock */
    time_point host;                      /* host clock at the same moment */
    std::chrono::nanoseconds uncertainty; /* duration of the reading */
};

/* Closed when it is destroyed. */
class endpoint {
public:
    endpoint() noexcept = default;
    explicit endpoint(ruk_device_t handle) noexcept : handle_(handle) {}
    endpoint(endpoint &&other) noexcept : handle_(std::exchange(other.handle_, nullptr)) {}
    endpoint &operator=(endpoint &&other) noexcept
    {
        if (this != &other) {
            reset();
            handle_ = other.release();
        }
        return *this;
    }
    ~endpoint() { reset(); }

    static endpoint open(in_addr interface_addr, int flags, std::error_code &ec) noexcept
    {
        ruk_device_t handle = nullptr;
        ec = detail::code(ruk_open(&interface_addr, flags, &handle));
        return opened(handle, ec);
    }
    static endpoint open(in_addr interface_addr, int flags = open_flags::none)
    {
        std::error_code ec;
        endpoint e = open(interface_addr, flags, ec);
        detail::raise(ec, "ruk_open");
        return e;
    }
    static endpoint open_if(const char *name, int flags, std::error_code &ec) noexcept
    {
        ruk_device_t handle = nullptr;
        ec = detail::code(ruk_open_if(name, flags, &handle));
        return opened(handle, ec);
    }
    static endpoint open_if(const char *name, int flags = open_flags::none)
    {
        std::error_code ec;
        endpoint e = open_if(name, flags, ec);
        detail::raise(ec, "ruk_open_if");
        return e;
    }

    explicit operator bool() const noexcept { return handle_ != nullptr; }
    ruk_device_t get() const noexcept { return handle_; }
    ruk_device_t release() noexcept { return std::exchange(handle_, nullptr); }
    void reset() noexcept
    {
        if (handle_)
            ruk_close(release());
    }

    /* Readable while events wait; the endpoint's own. */
    int descriptor() const noexcept { return ruk_device_handle(handle_); }

    void enable(std::error_code &ec) noexcept { ec = detail::code(ruk_device_enable(handle_)); }
    void enable()
    {
        std::error_code ec;
        enable(ec);
        detail::raise(ec, "ruk_device_enable");
    }
    void set_filter(filter mode, std::error_code &ec) noexcept
    {
        ec = detail::code(ruk_set_filter_mode(handle_, static_cast<ruk_filter_mode>(mode)));
    }
    void set_filter(filter mode)
    {
        std::error_code ec;
        set_filter(mode, ec);
        detail::raise(ec, "ruk_set_filter_mode");
    }
    ruk_device_attrs attributes() const noexcept
    {
        ruk_device_attrs attrs{};
        ruk_device_get_attrs(handle_, &attrs);
        return attrs;
    }
    void set_attributes(ruk_device_attrs attrs, std::error_code &ec) noexcept
    {
        ec = detail::code(ruk_device_set_attrs(handle_, &attrs));
    }
    void set_attributes(ruk_device_attrs attrs)
    {
        std::error_code ec;
        set_attributes(attrs, ec);
        detail::raise(ec, "ruk_device_set_attrs");
    }
    void shutdown() noexcept { ruk_shutdown(handle_, 0); }

    clock_reading clocks(std::error_code &ec) const noexcept
    {
        ruk_ticks_t t{};
        ec = detail::code(ruk_getticks(handle_, &t));
        return {t.nic_ticks, time_point(std::chrono::nanoseconds(t.host_nsecs)),
                std::chrono::nanoseconds(t.host_nsecs_delay)};
    }
    clock_reading clocks() const
    {
        std::error_code ec;
        const clock_reading reading = clocks(ec);
        detail::raise(ec, "ruk_getticks");
        return reading;
    }

    /* The port is in host byte order; 0 lets the host choose. */
    channel bind(uint16_t port, int flags, void *context, std::error_code &ec) noexcept
    {
        ruk_channel_t handle = nullptr;
        ec = detail::code(ruk_bind(handle_, flags, port, context, &handle));
        return channel(ec ? nullptr : handle);
    }
    channel bind(uint16_t port, int flags = bind_flags::none, void *context = nullptr)
    {
        std::error_code ec;
        channel c = bind(port, flags, context, ec);
        detail::raise(ec, "ruk_bind");
        return c;
    }
    channel bind(in_addr interface_addr, uint16_t port, int flags, void *context, std::error_code &ec) noexcept
    {
        ruk_channel_t handle = nullptr;
        ec = detail::code(ruk_bind_addr(handle_, &interface_addr, flags, port, context, &handle));
        return channel(ec ? nullptr : handle);
    }
    channel bind(in_addr interface_addr, uint16_t port, int flags = bind_flags::none, void *context = nullptr)
    {
        std::error_code ec;
        channel c = bind(interface_addr, port, flags, context, ec);
        detail::raise(ec, "ruk_bind_addr");
        return c;
    }

    /* EAGAIN when nothing waits and wait::none was asked for; EINTR after a shutdown. */
    datagram receive(std::span<std::byte> buffer, wait how, std::error_code &ec) noexcept
    {
        ruk_recv_info info;
        ec = detail::code(ruk_recvfrom(handle_, static_cast<ruk_recvmode>(how), buffer.data(), buffer.size(), &info));
        if (ec)
            return {};
        return taken(buffer, info);
    }
    datagram receive(std::span<std::byte> buffer, wait how = wait::spin)
    {
        std::error_code ec;
        datagram d = receive(buffer, how, ec);
        detail::raise(ec, "ruk_recvfrom");
        return d;
    }

    /* Nothing when no datagram waits, which is no error. */
    std::optional<datagram> try_receive(std::span<std::byte> buffer, std::error_code &ec) noexcept
    {
        ruk_recv_info info;
        const int rc = ruk_recvfrom(handle_, RUK_RECV_NONBLOCK, buffer.data(), buffer.size(), &info);
        ec = detail::code(rc == EAGAIN ? 0 : rc);
        if (rc != 0)
            return std::nullopt;
        return taken(buffer, info);
    }
    std::optional<datagram> try_receive(std::span<std::byte> buffer)
    {
        std::error_code ec;
        std::optional<datagram> d = try_receive(buffer, ec);
        detail::raise(ec, "ruk_recvfrom");
        return d;
    }

private:
    /* An open that fails for want of memory may hand out an endpoint, which is closed here. */
    static endpoint opened(ruk_device_t handle, const std::error_code &ec) noexcept
    {
        endpoint e(handle);
        if (ec)
            e.reset();
        return e;
    }

    static datagram taken(std::span<std::byte> buffer, const ruk_recv_info &info) noexcept
    {
        datagram d;
        d.data = buffer.first(std::min<size_t>(buffer.size(), info.msg_len));
        d.length = info.msg_len;
        d.from = info.sin_from;
        d.to = info.sin_to;
        if (info.timestamp != 0)
            d.time = time_point(std::chrono::nanoseconds(info.timestamp));
        d.channel = info.chan;
        d.context = info.chan_context;
        return d;
    }

    ruk_device_t handle_ = nullptr;
};

} // namespace ruk

#endif
