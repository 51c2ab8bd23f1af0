/*
 * What the ruk-* programs share: the choice of an interface, an open endpoint, waiting that can be ended,
 * signals, error texts and exit statuses.
 */
#pragma once

#include <fmt/core.h>
#include <nlohmann/json_fwd.hpp>

#include <atomic>
#include <cstdint>
#include <functional>
#include <limits>
#include <netinet/in.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "ruk.h"

namespace tools {

class CommandLine;

/* Exit statuses of every program. */
enum ExitStatus : int {
    exit_ok = 0,
    exit_incomplete = 1, /* it ran, but did not do all that was asked */
    exit_error = 2,      /* usage, no such interface, no adapter, no permission ... */
};

/* Ends the program with exit_error and one line on standard error. */
class Failure : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

template <typename... Args> [[noreturn]] void fail(fmt::format_string<Args...> text, Args &&...args)
{
    throw Failure(fmt::format(text, std::forward<Args>(args)...));
}

/* "No route to host" and the like. */
std::string errno_text(int error);

/* "EAGAIN" and the like; the number for a value without a name. */
std::string errno_name(int error);

/* In front of the lines on standard error: "ruk-recv". */
extern std::string program_name;

/* A line on standard error: "ruk-recv: listening ...". */
void note(std::string_view text);

/* Writes a line to standard output at once; a failure to write ends the program. */
void put_line(std::string_view text);

/* Bytes of others' for a terminal: what is not printable ASCII as \xNN, and what is escaped behind a backslash. */
std::string printable(std::string_view bytes, std::string_view escaped = "\\");

/*
 * The JSON of an object. Names of programs and the driver's texts come as they are: bytes that are not UTF-8 become
 * U+FFFD.
 */
std::string json_text(const nlohmann::ordered_json &object, int indent = -1);

/* ------------------------------------------------------------------ time */

constexpr int64_t no_deadline = std::numeric_limits<int64_t>::max();

int64_t monotonic_ns();

/* The moment that lies so many seconds ahead; no_deadline without a value. */
int64_t deadline_after(std::optional<double> seconds);

/* "1700000000.000000000", or "-" for a time that is not known (0). */
std::string time_text(uint64_t timestamp_ns);

/* ------------------------------------------------------------------ addresses */

std::string addr_text(in_addr addr);
std::string endpoint_text(const sockaddr_in &sin); /* "10.0.0.1:5000" */

/* Dotted IPv4 address; what names the argument in the message of a refusal. */
in_addr parse_addr(const std::string &text, std::string_view what);

/* "10.0.0.1:5000" */
sockaddr_in parse_destination(const std::string &text);

/* "239.1.1.1" or "239.1.1.1@10.0.0.2" */
struct Group {
    in_addr group{};
    std::optional<in_addr> source;
};
Group parse_group(const std::string &text);
std::string group_text(const Group &group);

/* ------------------------------------------------------------------ interface and endpoint */

/* -i IF | -a ADDR */
struct InterfaceChoice {
    std::string name;
    std::string addr;

    void add_options(CommandLine line);
};

/* A host interface with an IPv4 address. */
struct Interface {
    std::string name;
    in_addr addr{};
    int mtu = 0;

    /* Largest payload of an unfragmented datagram, bytes. */
    size_t max_payload() const;
};

Interface find_interface(const InterfaceChoice &choice);

/* Largest payload that any UDP datagram over IPv4 can have, bytes. */
constexpr uint32_t max_udp_payload = 65507;

/* Room for every datagram and every frame that an adapter can deliver. */
constexpr size_t receive_buffer_size = 65536;

/* Why the library or the driver has no adapter to offer, in words, for what a call returned. */
std::string adapter_error_text(int error);

/* Initialises the library. */
void init_library();

/* An open endpoint; closed with it. Names the interface in the messages of failures. */
class Endpoint {
public:
    Endpoint(const InterfaceChoice &choice, int flags);
    ~Endpoint();
    Endpoint(const Endpoint &) = delete;
    Endpoint &operator=(const Endpoint &) = delete;

    ruk_device_t dev() const { return dev_; }
    const Interface &interface() const { return interface_; }

    /* Binds a UDP port; 0 lets the host choose. */
    ruk_channel_t bind(int port, int flags = 0);

private:
    Interface interface_;
    ruk_device_t dev_ = nullptr;
};

sockaddr_in channel_address(ruk_channel_t channel);

/* What ruk_send_connect() and ruk_sendto() say about a destination, in words. */
std::string send_error_text(int error);

/* The endpoint's counters, in the library's order. */
std::vector<std::pair<std::string, uint64_t>> endpoint_counters(ruk_device_t dev);

/* ------------------------------------------------------------------ signals and waiting */

/*
 * SIGINT and SIGTERM ask the program to end; a second one ends it at once. One object a process. Calls that
 * sleep are interrupted with EINTR.
 */
class StopSignal {
public:
    StopSignal();
    bool requested() const;
    int fd() const; /* readable once it was requested */
    /* Sleeps until the moment or until a stop is requested. */
    void sleep_until(int64_t when_ns) const;
};

/*
 * ruk_send_connect() and ruk_sendto() that wait for ARP outside of the library, where a stop request ends it:
 * ECANCELED.
 */
int connect_waiting(const StopSignal &stop, ruk_channel_t channel, const sockaddr_in &to, int ttl, ruk_send_t *handle);
int sendto_waiting(const StopSignal &stop, ruk_channel_t channel, const sockaddr_in &to, const void *data, int len);

/*
 * Between two tries while the next hop is unknown. Each prompts the kernel, which lets the caller sleep at a few
 * hundred prompts within three seconds.
 */
constexpr int64_t next_hop_pause_ns = 50'000'000;

enum class WaitMode { spin, nonblock, block };
const char *wait_mode_name(WaitMode mode);
void add_wait_option(CommandLine line, WaitMode &mode);

/*
 * Receives datagrams one at a time until a deadline or a stop request. A receive call that spins or sleeps
 * inside the library is ended from outside by ruk_shutdown(), which such a call forgets when it was made just
 * before, and a sleeping one may not see for long: a helper thread repeats it, with a signal, until the receiver has
 * left.
 */
class Receiver {
public:
    Receiver(ruk_device_t dev, WaitMode mode, const StopSignal &stop);
    ~Receiver();
    Receiver(const Receiver &) = delete;
    Receiver &operator=(const Receiver &) = delete;

    /*
     * 0, EAGAIN past the deadline, ECANCELED after a stop request, or an error of the library. *info is
     * cleared first.
     */
    int receive(void *buf, size_t len, ruk_recv_info *info, int64_t deadline_ns);

private:
    int receive_polling(void *buf, size_t len, ruk_recv_info *info, int64_t deadline_ns);
    int receive_guarded(ruk_recvmode mode, void *buf, size_t len, ruk_recv_info *info, int64_t deadline_ns);
    void guard();

    ruk_device_t dev_;
    WaitMode mode_;
    const StopSignal &stop_;
    int wake_fd_ = -1;
    std::atomic<bool> quit_{false};
    std::atomic<bool> inside_{false};
    std::atomic<pthread_t> receiver_{}; /* of the thread that is or was inside */
    std::atomic<int64_t> deadline_{no_deadline};
    std::thread guard_;
};

/* Processors that this thread may run on. */
std::vector<int> allowed_processors();

/* Sleeps until one of the descriptors is readable (a negative one is ignored), at most until the deadline. */
void wait_readable(int fd, int other_fd, int64_t deadline_ns);

} // namespace tools
