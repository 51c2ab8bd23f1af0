/*
 * A C++20 face over ruk.h: owners that may be moved, std::span payloads, std::chrono times, and each error as an
 * exception or as a std::error_code. Everything is inline, an owner holds one handle, and a datagram is the record that
 * the library fills: receiving is the C call and not an instruction more, sending the call and a test of the payload's
 * length, two instructions (up to five in 32 bits); error codes add up to four and two.
 *
 *     ruk::init();
 *     auto endpoint = ruk::endpoint::open_if("oxel0", ruk::open_flags::thread_safe);
 *     auto channel = endpoint.bind(5000);
 *     auto to = channel.connect(ruk::address("192.168.1.2", 5000));
 *     to.send("hello"sv);
 *
 * What can fail comes twice: with a std::error_code it never throws and sets that, cleared on success; without, it
 * throws std::system_error. Codes are errno values of the generic category. What cannot fail comes once: attributes(),
 * shutdown(), print_counters(), descriptor(), and address() of an in_addr; address() of a text only throws.
 *
 * Lifetimes are those of ruk.h: an endpoint outlives its channels, a channel its send handles. Declared in this
 * order, or as members in this order, they are. Threads: as in ruk.h.
 *
 * Assigning an owner to another swaps the two: what was there ends with the other, which for a temporary is the end of
 * the statement. So structures with owners as members in this order may be assigned, and erased from a std::vector.
 *
 * An owner that was made without a handle, that another was made from, released or reset is empty. It may be destroyed,
 * assigned, moved, asked whether it holds something, and get(), release() and reset(); any other call on it may crash.
 * An interface_list that another was made from is an empty range.
 */
#ifndef RUK_HPP
#define RUK_HPP

#include "ruk.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <optional>
#include <span>
#include <string_view>
#include <system_error>
#include <type_traits>
#include <utility>

namespace ruk {

/* ------------------------------------------------------------------ errors */

namespace detail {

/* Some calls give negated errno values. */
inline std::error_code code(int rc) noexcept { return {rc < 0 ? -rc : rc, std::generic_category()}; }

/* For calls that hand on the -1 of a call of the kernel's: binding, and blocking and unblocking a source. */
inline std::error_code code_or_errno(int rc) noexcept { return code(rc == -1 ? errno : rc); }

[[noreturn, gnu::cold, gnu::noinline]] inline void fail(const std::error_code &ec, const char *what)
{
    throw std::system_error(ec, what);
}
[[noreturn, gnu::cold, gnu::noinline]] inline void fail(int rc, const char *what) { fail(code(rc), what); }

inline void raise(const std::error_code &ec, const char *what)
{
    if (ec) [[unlikely]]
        fail(ec, what);
}

/*
 * For calls that are worth it: no error_code is touched while all goes well, and what is done when it does not stays
 * out of the way, with the registers that it takes.
 */
[[gnu::cold, gnu::noinline]] inline void store(std::error_code &ec, int rc) noexcept
{
    if (rc != 0)
        ec = code(rc);
    else
        ec.clear();
}
inline void check(int rc, const char *what)
{
    if (rc != 0) [[unlikely]]
        fail(rc, what);
}
/* False when there is no room, or nothing waits, which is no error. */
inline bool done(int rc, const char *what)
{
    if (rc == 0)
        return true;
    check(rc == EAGAIN ? 0 : rc, what);
    return false;
}
inline void set(std::error_code &ec, int rc) noexcept
{
    if (rc != 0 || ec) [[unlikely]]
        store(ec, rc);
}

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

/* A hardware address of six bytes. */
using mac_address = std::array<uint8_t, 6>;

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

namespace send_flags {
inline constexpr int none = 0;
inline constexpr int nonblock = RUK_NONBLOCK;
} // namespace send_flags

enum class wait { spin = RUK_RECV_DEFAULT, none = RUK_RECV_NONBLOCK, sleep = RUK_RECV_BLOCK };

enum class filter { normal = RUK_RECV_FILTER_NORMAL, allmulti = RUK_RECV_FILTER_ALLMULTI, raw = RUK_RECV_FILTER_RAW };

/* ------------------------------------------------------------------ what is sent and received */

namespace detail {

template <typename R> using element_of = std::remove_pointer_t<decltype(std::data(std::declval<R &>()))>;

template <typename T, typename... Of> inline constexpr bool is_one_of = (std::is_same_v<T, Of> || ...);
template <typename E>
inline constexpr bool quoted = is_one_of<E, const char, const wchar_t, const char8_t, const char16_t, const char32_t>;

/* What lies in one piece and may be sent byte for byte. Not text in quotes, whose last character is none of it. */
template <typename R>
concept sendable = requires
{
    typename element_of<R>;
}
&&std::is_trivially_copyable_v<element_of<R>> && !std::is_volatile_v<element_of<R>> &&
    std::is_constructible_v<std::span<const element_of<R>>, R &> && !(std::is_array_v<R> && quoted<element_of<R>>);

} // namespace detail

/*
 * Payload to send: any contiguous sequence of trivially copyable elements, such as a std::span, std::vector,
 * std::array, array or text ("as such"sv). Nothing is copied here: the sequence outlives the payload.
 */
class payload {
public:
    payload(const void *data, size_t size) noexcept : bytes_(static_cast<const std::byte *>(data), size) {}
    payload(std::string_view text) noexcept : payload(text.data(), text.size()) {}
    template <typename R>
    requires detail::sendable<std::remove_reference_t<R>> payload(R &&elements)
    noexcept : bytes_(std::as_bytes(std::span<const detail::element_of<R>>(elements))) {}

    const void *data() const noexcept { return bytes_.data(); }
    size_t size() const noexcept { return bytes_.size(); }

private:
    std::span<const std::byte> bytes_;
};

namespace detail {

/* The calls take an int. What it does not hold is longer than any frame, and its low bits may be a wrong length. */
inline bool too_long(payload data) noexcept { return data.size() > static_cast<size_t>(INT_MAX); }

inline int send(ruk_send_t handle, payload data, int flags) noexcept
{
    if (too_long(data)) [[unlikely]]
        return EMSGSIZE;
    return ruk_send(handle, data.data(), static_cast<int>(data.size()), flags);
}
inline int send_to(ruk_channel_t channel, const sockaddr_in &to, payload data, int flags) noexcept
{
    if (too_long(data)) [[unlikely]]
        return EMSGSIZE;
    return ruk_sendto(channel, &to, data.data(), static_cast<int>(data.size()), flags);
}

} // namespace detail

/* A datagram that was received; its payload lies in the buffer that it was received into. */
class datagram {
public:
    datagram() noexcept : buffer_(nullptr), size_(0), info_() {}

    /* What of it is in the buffer, if the UDP header's length is right: nobody compares it with the frame's. */
    std::span<std::byte> data() const noexcept { return {buffer_, std::min<size_t>(size_, info_.msg_len)}; }
    /* Its full length as the UDP header tells it. */
    uint32_t length() const noexcept { return info_.msg_len; }
    bool truncated() const noexcept { return length() > size_; }

    /*
     * In the filter modes other than normal the family of to() is what was in memory, and in the raw mode so are both
     * whole where data() is no IPv4 frame: the library does not write them, and to clear them would cost every
     * datagram. After a peek they are zero then.
     */
    const sockaddr_in &from() const noexcept { return info_.sin_from; }
    const sockaddr_in &to() const noexcept { return info_.sin_to; }
    /* When it arrived, when that is known; never of a peek. */
    std::optional<time_point> time() const noexcept
    {
        if (info_.timestamp == 0)
            return std::nullopt;
        return time_point(std::chrono::nanoseconds(info_.timestamp));
    }
    /* Null in the filter modes other than normal. */
    ruk_channel_t channel() const noexcept { return info_.chan; }
    void *context() const noexcept { return info_.chan_context; }
    const ruk_recv_info &info() const noexcept { return info_; }

private:
    friend class endpoint;
    friend class maybe_datagram;
    struct unfilled {};
    struct cleared {};
    explicit datagram(unfilled) noexcept {}
    explicit datagram(cleared) noexcept : info_() {}
    [[gnu::cold, gnu::noinline]] std::span<std::byte> told(std::error_code &ec, int rc,
                                                           std::span<std::byte> buffer) noexcept
    {
        detail::store(ec, rc);
        if (rc == 0)
            return buffer;
        info_ = {};
        return {};
    }
    void lies_in(std::span<std::byte> buffer) noexcept
    {
        buffer_ = buffer.data();
        size_ = buffer.size();
    }

    /* The library fills the record. Buffer and size are set after its call, so that compilers need not ask memory. */
    std::byte *buffer_;
    size_t size_;
    ruk_recv_info info_;
};

/* A datagram or none, to be used as a std::optional is. It knows without asking memory which of them it is. */
class maybe_datagram {
public:
    maybe_datagram() noexcept : there_(false) {}

    bool has_value() const noexcept { return there_; }
    explicit operator bool() const noexcept { return there_; }
    const datagram &operator*() const noexcept { return datagram_; }
    const datagram *operator->() const noexcept { return &datagram_; }
    const datagram &value() const
    {
        if (!there_)
            throw std::bad_optional_access();
        return datagram_;
    }

private:
    friend class endpoint;
    template <typename How> explicit maybe_datagram(How how) noexcept : datagram_(how) {}
    void is_in(std::span<std::byte> buffer) noexcept
    {
        datagram_.lies_in(buffer);
        there_ = true;
    }
    void is_not() noexcept
    {
        datagram_.lies_in({});
        there_ = false;
    }

    datagram datagram_;
    bool there_;
};

/* Frames are never cut, so that a buffer for them holds the largest of any adapter. */
inline constexpr size_t frame_capacity = 65536;
using frame_buffer = std::span<std::byte, frame_capacity>;

/* A whole frame, with the 4-byte trailer. */
struct frame {
    std::span<std::byte> data;
    std::optional<time_point> time; /* not of a switch's keyframes either */
    int tag = 0;                    /* of the filter that it matched */
};

/* What a filter without a channel lets in. */
struct filter_rule {
    in_addr to{};
    uint16_t port = 0;          /* host byte order */
    int protocol = IPPROTO_UDP; /* 17, 6 or 253 */
    uint16_t vlan = 0;          /* tag control word, host byte order; 0: none */
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
        std::swap(handle_, other.handle_);
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

    /* Waits for room. EMSGSIZE for a payload of 2 GiB or more; what is too long for a frame is not refused. */
    void send(payload data, std::error_code &ec) noexcept { detail::set(ec, detail::send(handle_, data, 0)); }
    void send(payload data) { detail::check(detail::send(handle_, data, 0), "ruk_send"); }

    /* False when there is no room, which is no error. */
    [[nodiscard]] bool try_send(payload data, std::error_code &ec) noexcept
    {
        const int rc = detail::send(handle_, data, RUK_NONBLOCK);
        detail::set(ec, rc == EAGAIN ? 0 : rc);
        return rc == 0;
    }
    [[nodiscard]] bool try_send(payload data)
    {
        return detail::done(detail::send(handle_, data, RUK_NONBLOCK), "ruk_send");
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
        std::swap(handle_, other.handle_);
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

    /*
     * ttl 0 takes the library's. Where the next hop is not known the call may sleep about ten seconds; with
     * send_flags::nonblock it gives EADDRNOTAVAIL at once: try again every 50 to 100 ms. At a few hundred tries within
     * three seconds, as one every 10 ms, it sleeps too.
     */
    send_handle connect(const sockaddr_in &to, std::error_code &ec, int ttl = 0, int flags = send_flags::none) noexcept
    {
        ruk_send_t handle = nullptr;
        ec = detail::code(ruk_send_connect(handle_, &to, flags, ttl, &handle));
        return send_handle(ec ? nullptr : handle);
    }
    send_handle connect(const sockaddr_in &to, int ttl = 0, int flags = send_flags::none)
    {
        std::error_code ec;
        send_handle handle = connect(to, ec, ttl, flags);
        detail::raise(ec, "ruk_send_connect");
        return handle;
    }

    /* EMSGSIZE as by a send handle. */
    void send_to(const sockaddr_in &to, payload data, std::error_code &ec) noexcept
    {
        detail::set(ec, detail::send_to(handle_, to, data, 0));
    }
    void send_to(const sockaddr_in &to, payload data)
    {
        detail::check(detail::send_to(handle_, to, data, 0), "ruk_sendto");
    }

    /*
     * False when there is no room, which is no error, and in the same way when the host's interfaces cannot be listed
     * (EAGAIN as well). ARP is asked twice at most; to a next hop not known yet, tries as with connect().
     */
    [[nodiscard]] bool try_send_to(const sockaddr_in &to, payload data, std::error_code &ec) noexcept
    {
        const int rc = detail::send_to(handle_, to, data, RUK_NONBLOCK);
        detail::set(ec, rc == EAGAIN ? 0 : rc);
        return rc == 0;
    }
    [[nodiscard]] bool try_send_to(const sockaddr_in &to, payload data)
    {
        return detail::done(detail::send_to(handle_, to, data, RUK_NONBLOCK), "ruk_sendto");
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
        std::swap(handle_, other.handle_);
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

    /* By the adapter's permanent MAC address. */
    static endpoint open(mac_address mac, in_addr interface_addr, int flags, std::error_code &ec) noexcept
    {
        ruk_device_t handle = nullptr;
        ec = detail::code(ruk_open_by_perm_mac(mac.data(), &interface_addr, flags, &handle));
        return opened(handle, ec);
    }
    static endpoint open(mac_address mac, in_addr interface_addr, int flags = open_flags::none)
    {
        std::error_code ec;
        endpoint e = open(mac, interface_addr, flags, ec);
        detail::raise(ec, "ruk_open_by_perm_mac");
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
    /*
     * A filter without a channel, for frames that are received raw. Tags from 3968 up: those below are the library's
     * own. Of the flags only bind_flags::kernel.
     */
    void add_filter(const filter_rule &rule, uint16_t tag, int flags, std::error_code &ec) noexcept
    {
        ec = detail::code(
            ruk_filter_add(handle_, rule.protocol, htons(rule.vlan), rule.to.s_addr, htons(rule.port), tag, flags));
    }
    void add_filter(const filter_rule &rule, uint16_t tag, int flags = bind_flags::none)
    {
        std::error_code ec;
        add_filter(rule, tag, flags, ec);
        detail::raise(ec, "ruk_filter_add");
    }
    void remove_filter(const filter_rule &rule, uint16_t tag, std::error_code &ec) noexcept
    {
        ec = detail::code(
            ruk_filter_del(handle_, rule.protocol, htons(rule.vlan), rule.to.s_addr, htons(rule.port), tag));
    }
    void remove_filter(const filter_rule &rule, uint16_t tag)
    {
        std::error_code ec;
        remove_filter(rule, tag, ec);
        detail::raise(ec, "ruk_filter_del");
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
        ec = detail::code_or_errno(ruk_bind(handle_, flags, port, context, &handle));
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
        ec = detail::code_or_errno(ruk_bind_addr(handle_, &interface_addr, flags, port, context, &handle));
        return channel(ec ? nullptr : handle);
    }
    channel bind(in_addr interface_addr, uint16_t port, int flags = bind_flags::none, void *context = nullptr)
    {
        std::error_code ec;
        channel c = bind(interface_addr, port, flags, context, ec);
        detail::raise(ec, "ruk_bind_addr");
        return c;
    }

    /*
     * EAGAIN when nothing waits and wait::none was asked for; EINTR when the endpoint is shut down while this waits,
     * and when a signal handler runs while it sleeps. A shutdown before the call is forgotten.
     */
    datagram receive(std::span<std::byte> buffer, wait how, std::error_code &ec) noexcept
    {
        datagram d{datagram::unfilled{}};
        const int rc = take(static_cast<ruk_recvmode>(how), buffer, d);
        if (rc != 0 || ec) [[unlikely]]
            buffer = d.told(ec, rc, buffer);
        d.lies_in(buffer);
        return d;
    }
    datagram receive(std::span<std::byte> buffer, wait how = wait::spin)
    {
        datagram d{datagram::unfilled{}};
        detail::check(take(static_cast<ruk_recvmode>(how), buffer, d), "ruk_recvfrom");
        d.lies_in(buffer);
        return d;
    }

    /* Nothing when no datagram waits, which is no error. */
    maybe_datagram try_receive(std::span<std::byte> buffer, std::error_code &ec) noexcept
    {
        return take_if_any<RUK_RECV_NONBLOCK>(buffer, ec);
    }
    maybe_datagram try_receive(std::span<std::byte> buffer) { return take_if_any<RUK_RECV_NONBLOCK>(buffer); }

    /* The next datagram, which stays there; without a buffer all but its payload. A peek never tells a time. */
    maybe_datagram peek(std::error_code &ec) noexcept { return take_if_any<RUK_RECV_PEEK>({}, ec); }
    maybe_datagram peek() { return take_if_any<RUK_RECV_PEEK>({}); }
    maybe_datagram peek(std::span<std::byte> buffer, std::error_code &ec) noexcept
    {
        return take_if_any<RUK_RECV_PEEK_MSG>(buffer, ec);
    }
    maybe_datagram peek(std::span<std::byte> buffer) { return take_if_any<RUK_RECV_PEEK_MSG>(buffer); }

    /*
     * Whole frames, of filters without a channel or in the raw filter mode; waits as receive() does, but forgets no
     * shutdown: from one on each call that would wait gives EINTR, until receive(), try_receive() or peek() is called.
     */
    std::span<std::byte> receive_frame(frame_buffer buffer, wait how, std::error_code &ec) noexcept
    {
        size_t length = 0;
        detail::set(ec, ruk_raw_recv(handle_, static_cast<ruk_recvmode>(how), buffer.data(), &length, nullptr));
        return buffer.first(length);
    }
    std::span<std::byte> receive_frame(frame_buffer buffer, wait how = wait::spin)
    {
        size_t length = 0;
        detail::check(ruk_raw_recv(handle_, static_cast<ruk_recvmode>(how), buffer.data(), &length, nullptr),
                      "ruk_raw_recv");
        return buffer.first(length);
    }

    /*
     * The next frame, which stays there; without a buffer its length alone. Nothing when none waits, which is no error.
     * It passes over a switch's keyframes and consumes them, while frame_waits() counts them.
     */
    std::optional<size_t> peek_frame(std::error_code &ec) noexcept
    {
        size_t length = 0;
        const int rc = ruk_raw_recv(handle_, RUK_RECV_PEEK, nullptr, &length, nullptr);
        detail::set(ec, rc == EAGAIN ? 0 : rc);
        return rc == 0 ? std::optional(length) : std::nullopt;
    }
    std::optional<size_t> peek_frame()
    {
        size_t length = 0;
        const bool there =
            detail::done(ruk_raw_recv(handle_, RUK_RECV_PEEK, nullptr, &length, nullptr), "ruk_raw_recv");
        return there ? std::optional(length) : std::nullopt;
    }
    std::optional<std::span<std::byte>> peek_frame(frame_buffer buffer, std::error_code &ec) noexcept
    {
        size_t length = 0;
        const int rc = ruk_raw_recv(handle_, RUK_RECV_PEEK_MSG, buffer.data(), &length, nullptr);
        detail::set(ec, rc == EAGAIN ? 0 : rc);
        return rc == 0 ? std::optional(buffer.first(length)) : std::nullopt;
    }
    std::optional<std::span<std::byte>> peek_frame(frame_buffer buffer)
    {
        size_t length = 0;
        const bool there =
            detail::done(ruk_raw_recv(handle_, RUK_RECV_PEEK_MSG, buffer.data(), &length, nullptr), "ruk_raw_recv");
        return there ? std::optional(buffer.first(length)) : std::nullopt;
    }

    /* With time and tag, without lock or waiting: for endpoints that one thread reads. */
    std::optional<frame> try_receive_frame(frame_buffer buffer, std::error_code &ec) noexcept
    {
        std::optional<frame> f;
        const int rc = take_frame(buffer, f);
        detail::set(ec, rc == EAGAIN ? 0 : rc);
        return f;
    }
    std::optional<frame> try_receive_frame(frame_buffer buffer)
    {
        std::optional<frame> f;
        const int rc = take_frame(buffer, f);
        detail::check(rc == EAGAIN ? 0 : rc, "ruk_raw_recv_nb");
        return f;
    }

    /* Whether a frame waits. Takes no lock. */
    bool frame_waits(std::error_code &ec) const noexcept
    {
        const int rc = ruk_raw_recv_peek(handle_);
        detail::set(ec, rc == EAGAIN ? 0 : rc);
        return rc == 0;
    }
    bool frame_waits() const { return detail::done(ruk_raw_recv_peek(handle_), "ruk_raw_recv_peek"); }

    /*
     * A frame with a header of the caller's, as ruk_raw_send() has it, for endpoints without locks. False when there is
     * no room and send_flags::nonblock was given, which is no error. EINVAL for a header that has not 1 to 56 bytes,
     * and for a checksum that does not lie in it; EMSGSIZE for a payload of 2 GiB or more.
     */
    bool send_frame(std::span<uint8_t> header, uint32_t header_sum, int checksum_offset, payload data, int flags,
                    std::error_code &ec) noexcept
    {
        const int rc = post(header, header_sum, checksum_offset, data, flags);
        detail::set(ec, rc == EAGAIN ? 0 : rc);
        return rc == 0;
    }
    bool send_frame(std::span<uint8_t> header, uint32_t header_sum, int checksum_offset, payload data,
                    int flags = send_flags::none)
    {
        return detail::done(post(header, header_sum, checksum_offset, data, flags), "ruk_raw_send");
    }

    /* The counters, on standard output. */
    void print_counters(bool non_zero = false) const noexcept { ruk_dump_stats(handle_, non_zero ? 1 : 0); }

private:
    /* An open that fails for want of memory may hand out an endpoint, which is closed here. */
    static endpoint opened(ruk_device_t handle, const std::error_code &ec) noexcept
    {
        endpoint e(handle);
        if (ec)
            e.reset();
        return e;
    }

    int take(ruk_recvmode mode, std::span<std::byte> buffer, datagram &d) noexcept
    {
        return ruk_recvfrom(handle_, mode, buffer.data(), buffer.size(), &d.info_);
    }
    /* In a peek's record the library may leave the time of a frame that it dropped before the datagram. */
    template <ruk_recvmode mode> int take_or_peek(std::span<std::byte> buffer, datagram &d) noexcept
    {
        const int rc = take(mode, buffer, d);
        if constexpr (mode != RUK_RECV_NONBLOCK)
            d.info_.timestamp = 0;
        return rc;
    }
    /* The library does not write all of a peek's record. */
    template <ruk_recvmode mode>
    using peeked_or_not = std::conditional_t<mode == RUK_RECV_NONBLOCK, datagram::unfilled, datagram::cleared>;

    template <ruk_recvmode mode> maybe_datagram take_if_any(std::span<std::byte> buffer, std::error_code &ec) noexcept
    {
        maybe_datagram d{peeked_or_not<mode>{}};
        const int rc = take_or_peek<mode>(buffer, d.datagram_);
        detail::set(ec, rc == EAGAIN ? 0 : rc);
        if (rc == 0)
            d.is_in(buffer);
        else
            d.is_not();
        return d;
    }
    template <ruk_recvmode mode> maybe_datagram take_if_any(std::span<std::byte> buffer)
    {
        maybe_datagram d{peeked_or_not<mode>{}};
        const int rc = take_or_peek<mode>(buffer, d.datagram_);
        if (rc == 0) {
            d.is_in(buffer);
        } else {
            detail::check(rc == EAGAIN ? 0 : rc, "ruk_recvfrom");
            d.is_not();
        }
        return d;
    }

    int take_frame(frame_buffer buffer, std::optional<frame> &f) noexcept
    {
        constexpr uint64_t keyframe = ~uint64_t{0};
        size_t length = 0;
        uint64_t time = 0;
        int tag = 0;
        const int rc = ruk_raw_recv_nb(handle_, buffer.data(), &length, &time, &tag);
        if (rc == 0) {
            f = frame{buffer.first(length), std::nullopt, tag};
            if (time != 0 && time != keyframe)
                f->time = time_point(std::chrono::nanoseconds(time));
        }
        return rc;
    }

    /* The library tests neither the header's length nor where the checksum goes. */
    int post(std::span<uint8_t> header, uint32_t header_sum, int checksum_offset, payload data, int flags) noexcept
    {
        constexpr size_t longest_header = 56, checksum_size = 2;
        if (header.empty() || header.size() > longest_header)
            return EINVAL;
        if (checksum_offset > 0 && static_cast<size_t>(checksum_offset) + checksum_size > header.size())
            return EINVAL;
        if (detail::too_long(data))
            return EMSGSIZE;
        return ruk_raw_send(handle_, header.data(), static_cast<int>(header.size()), header_sum, checksum_offset,
                            static_cast<const uint8_t *>(data.data()), static_cast<int>(data.size()), flags);
    }

    ruk_device_t handle_ = nullptr;
};

/* ------------------------------------------------------------------ interfaces */

/* The host's IPv4 addresses on adapters: a range of tov_ifaddrs. */
class interface_list {
public:
    class iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = tov_ifaddrs;
        using difference_type = std::ptrdiff_t;
        using pointer = const tov_ifaddrs *;
        using reference = const tov_ifaddrs &;

        iterator() noexcept = default;
        explicit iterator(const tov_ifaddrs *at) noexcept : at_(at) {}
        reference operator*() const noexcept { return *at_; }
        pointer operator->() const noexcept { return at_; }
        iterator &operator++() noexcept
        {
            at_ = at_->tov_ifa_next;
            return *this;
        }
        iterator operator++(int) noexcept
        {
            const iterator before = *this;
            ++*this;
            return before;
        }
        bool operator==(const iterator &) const noexcept = default;

    private:
        const tov_ifaddrs *at_ = nullptr;
    };

    explicit interface_list(std::error_code &ec) noexcept { ec = detail::code(tov_getifaddrs(&head_, 1, &count_)); }
    interface_list()
    {
        const int rc = tov_getifaddrs(&head_, 1, &count_);
        detail::check(rc, "tov_getifaddrs");
    }
    interface_list(interface_list &&other) noexcept
        : head_(std::exchange(other.head_, nullptr)), count_(std::exchange(other.count_, 0))
    {}
    interface_list &operator=(interface_list &&other) noexcept
    {
        std::swap(head_, other.head_);
        std::swap(count_, other.count_);
        return *this;
    }
    ~interface_list() { tov_freeifaddrs(head_); }

    iterator begin() const noexcept { return iterator(head_); }
    iterator end() const noexcept { return iterator(); }
    size_t size() const noexcept { return static_cast<size_t>(count_); }

private:
    tov_ifaddrs *head_ = nullptr;
    int count_ = 0;
};

} // namespace ruk

#endif
