#include "common.h"

#include "options.h"

#include <nlohmann/json.hpp>

#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <ifaddrs.h>
#include <net/if.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

namespace tools {

std::string program_name = "ruk";

namespace {

constexpr int64_t second_ns = 1'000'000'000;

} // namespace

/* ------------------------------------------------------------------ program frame */

std::string errno_text(int error) { return strerror(error); }

std::string errno_name(int error)
{
    const char *name = strerrorname_np(error);
    return name ? name : std::to_string(error);
}

void note(std::string_view text)
{
    std::string line = fmt::format("{}: {}\n", program_name, text);
    fwrite(line.data(), 1, line.size(), stderr);
}

void put_line(std::string_view text)
{
    fwrite(text.data(), 1, text.size(), stdout);
    fputc('\n', stdout);
    if (fflush(stdout) != 0 || ferror(stdout))
        fail("cannot write to standard output: {}", errno_text(errno));
}

std::string printable(std::string_view bytes, std::string_view escaped)
{
    std::string text;
    for (const char c : bytes) {
        if (c < 0x20 || c > 0x7e)
            text += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
        else if (escaped.find(c) != std::string_view::npos)
            text += {'\\', c};
        else
            text += c;
    }
    return text;
}

std::string json_text(const nlohmann::ordered_json &object, int indent)
{
    return object.dump(indent, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

/* ------------------------------------------------------------------ time */

int64_t monotonic_ns()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return ts.tv_sec * second_ns + ts.tv_nsec;
}

int64_t deadline_after(std::optional<double> seconds)
{
    /* A year and a century are the same to a waiting program; the limit keeps the sum in range. */
    if (!seconds || *seconds > 1e9)
        return no_deadline;
    return monotonic_ns() + static_cast<int64_t>(*seconds * 1e9);
}

std::string time_text(uint64_t timestamp_ns)
{
    if (timestamp_ns == 0)
        return "-";
    return fmt::format("{}.{:09}", timestamp_ns / second_ns, timestamp_ns % second_ns);
}

/* ------------------------------------------------------------------ addresses */

std::string addr_text(in_addr addr)
{
    char text[INET_ADDRSTRLEN];
    inet_ntop(AF_INET, &addr, text, sizeof text);
    return text;
}

std::string endpoint_text(const sockaddr_in &sin)
{
    return fmt::format("{}:{}", addr_text(sin.sin_addr), ntohs(sin.sin_port));
}

in_addr parse_addr(const std::string &text, std::string_view what)
{
    in_addr addr;
    if (inet_pton(AF_INET, text.c_str(), &addr) != 1)
        fail("{}: '{}' is not an IPv4 address like 10.0.0.1", what, text);
    return addr;
}

sockaddr_in parse_destination(const std::string &text)
{
    size_t colon = text.rfind(':');
    unsigned port = 0;
    bool port_good = false;
    if (colon != std::string::npos) {
        const char *first = text.data() + colon + 1;
        const char *last = text.data() + text.size();
        auto [end, error] = std::from_chars(first, last, port);
        port_good = error == std::errc{} && end == last && port >= 1 && port <= 65535;
    }
    if (!port_good)
        fail("'{}' is not a destination like 10.0.0.1:5000", text);
    sockaddr_in sin{};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(static_cast<uint16_t>(port));
    sin.sin_addr = parse_addr(text.substr(0, colon), "destination");
    return sin;
}

Group parse_group(const std::string &text)
{
    Group group;
    size_t at = text.find('@');
    group.group = parse_addr(text.substr(0, at), "group");
    if (!IN_MULTICAST(ntohl(group.group.s_addr)))
        fail("group: {} is not a multicast address (224.0.0.0 to 239.255.255.255)", addr_text(group.group));
    if (at != std::string::npos)
        group.source = parse_addr(text.substr(at + 1), "source of the group");
    return group;
}

std::string group_text(const Group &group)
{
    return addr_text(group.group) + (group.source ? "@" + addr_text(*group.source) : "");
}

/* ------------------------------------------------------------------ interface and endpoint */

void InterfaceChoice::add_options(CommandLine line)
{
    const CommandLine choice = line.group("interface", "Which adapter to use", 1, 1);
    choice.option("-i,--interface", name, "Name of a host interface on the adapter").type_name("IF");
    choice.option("-a,--address", addr, "IPv4 address of a host interface on the adapter").type_name("ADDR");
}

size_t Interface::max_payload() const
{
    constexpr int headers = 20 + 8; /* IPv4 and UDP */
    if (mtu <= headers)
        return 0;
    return std::min<size_t>(static_cast<size_t>(mtu - headers), max_udp_payload);
}

namespace {

int interface_mtu(const std::string &name)
{
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (s < 0)
        fail("cannot open a socket: {}", errno_text(errno));
    ifreq ifr{};
    name.copy(ifr.ifr_name, sizeof ifr.ifr_name - 1);
    int rc = ioctl(s, SIOCGIFMTU, &ifr);
    int error = errno;
    close(s);
    if (rc != 0)
        fail("cannot read the MTU of {}: {}", name, errno_text(error));
    return ifr.ifr_mtu;
}

} // namespace

Interface find_interface(const InterfaceChoice &choice)
{
    in_addr wanted{};
    if (choice.addr.empty() && choice.name.empty())
        fail("-i and -a take the name or the address of an interface, not nothing");
    if (!choice.addr.empty())
        wanted = parse_addr(choice.addr, "-a");
    else if (if_nametoindex(choice.name.c_str()) == 0)
        fail("no interface is named '{}'", choice.name);

    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0)
        fail("cannot list the interfaces: {}", errno_text(errno));
    Interface found;
    for (ifaddrs *entry = list; entry && found.name.empty(); entry = entry->ifa_next) {
        if (!entry->ifa_addr || entry->ifa_addr->sa_family != AF_INET)
            continue;
        in_addr addr = reinterpret_cast<sockaddr_in *>(entry->ifa_addr)->sin_addr;
        if (choice.addr.empty() ? choice.name == entry->ifa_name : addr.s_addr == wanted.s_addr) {
            found.name = entry->ifa_name;
            found.addr = addr;
        }
    }
    freeifaddrs(list);
    if (found.name.empty() && choice.addr.empty())
        fail("interface {} has no IPv4 address", choice.name);
    if (found.name.empty())
        fail("no interface has the address {}", choice.addr);
    /* An alias has a name of its own ("eth0:1"); its device has the MTU. */
    found.mtu = interface_mtu(found.name.substr(0, found.name.find(':')));
    return found;
}

std::string adapter_error_text(int error)
{
    switch (error) {
    case ENOENT:
        return "no adapter device file (/dev/oxelB*): the driver is not loaded";
    case ENODEV:
    case ENXIO:
        return "the driver is there but offers no adapter that this library can use: " + errno_text(error);
    case EACCES:
    case EPERM:
        return "no permission to open the adapter's device files (/dev/oxelB*)";
    case ENOTTY:
        return "the driver of /dev/oxelB* is not this library's: " + errno_text(error);
    default:
        return "the library cannot be initialised: " + errno_text(error);
    }
}

void init_library()
{
    if (const int rc = ruk_init(RUK_API_VERSION); rc != 0)
        fail("{}{}", adapter_error_text(rc),
             rc == ENOENT ? ". To use the software adapter, run this under 'rukrun --soft=IF --'" : "");
}

Endpoint::Endpoint(const InterfaceChoice &choice, int flags) : interface_(find_interface(choice))
{
    init_library();
    int rc =
        choice.addr.empty() ? ruk_open_if(choice.name.c_str(), flags, &dev_) : ruk_open(&interface_.addr, flags, &dev_);
    if (rc == 0)
        return;
    if (dev_) /* open, but without its routes */
        ruk_close(dev_);
    if (rc == ENODEV)
        fail("interface {} ({}) is not on an adapter of this driver; for the software adapter name it in "
             "'rukrun --soft={} --'",
             interface_.name, addr_text(interface_.addr), interface_.name);
    if (rc == EBUSY)
        fail("every endpoint of the adapter behind {} is in use", interface_.name);
    fail("cannot open an endpoint on {}: {}", interface_.name, errno_text(abs(rc)));
}

Endpoint::~Endpoint()
{
    ruk_shutdown(dev_, 0);
    ruk_close(dev_);
}

ruk_channel_t Endpoint::bind(int port, int flags)
{
    ruk_channel_t channel = nullptr;
    int rc = ruk_bind(dev_, flags, port, nullptr, &channel);
    if (rc == EADDRINUSE)
        fail("port {} of {} is in use by another program", port, addr_text(interface_.addr));
    if (rc != 0)
        fail("cannot bind port {}: {}", port, errno_text(rc < 0 ? errno : rc)); /* -1: the socket refused an option */
    return channel;
}

sockaddr_in channel_address(ruk_channel_t channel)
{
    sockaddr_in sin{};
    ruk_getaddress(channel, &sin);
    return sin;
}

std::string send_error_text(int error)
{
    switch (error) {
    case EHOSTUNREACH:
        return "no route to the destination";
    case EADDRNOTAVAIL:
        return "the next hop does not answer ARP";
    case EINVAL:
        return "the next hop has this adapter's own MAC address, or the destination is not a valid one";
    default:
        return errno_text(error);
    }
}

namespace {

/* Tries again while the next hop has not answered ARP, at most as long as the library itself would sleep for it. */
template <typename Attempt> int await_next_hop(const StopSignal &stop, Attempt attempt)
{
    constexpr int64_t patience = 10 * second_ns;
    constexpr int64_t longest_step = second_ns / 10;
    int rc = attempt();
    const int64_t end = monotonic_ns() + patience;
    for (int64_t step = second_ns / 1000; rc == EADDRNOTAVAIL && monotonic_ns() < end;
         step = std::min(2 * step, longest_step)) {
        stop.sleep_until(monotonic_ns() + step);
        if (stop.requested())
            return ECANCELED;
        rc = attempt();
    }
    return rc;
}

} // namespace

int connect_waiting(const StopSignal &stop, ruk_channel_t channel, const sockaddr_in &to, int ttl, ruk_send_t *handle)
{
    return await_next_hop(stop, [&] { return ruk_send_connect(channel, &to, RUK_NONBLOCK, ttl, handle); });
}

int sendto_waiting(const StopSignal &stop, ruk_channel_t channel, const sockaddr_in &to, const void *data, int len)
{
    int rc = await_next_hop(stop, [&] { return ruk_sendto(channel, &to, data, len, RUK_NONBLOCK); });
    return rc == EAGAIN ? ruk_sendto(channel, &to, data, len, 0) : rc;
}

std::vector<std::pair<std::string, uint64_t>> endpoint_counters(ruk_device_t dev)
{
    /* The library reports on standard output alone: lend it a file for the time of the call. */
    int file = memfd_create("counters", MFD_CLOEXEC);
    fflush(stdout);
    int saved = dup(STDOUT_FILENO);
    if (file < 0 || saved < 0)
        fail("cannot read the counters: {}", errno_text(errno));
    dup2(file, STDOUT_FILENO);
    ruk_dump_stats(dev, 0);
    fflush(stdout);
    dup2(saved, STDOUT_FILENO);
    close(saved);

    std::vector<std::pair<std::string, uint64_t>> counters;
    lseek(file, 0, SEEK_SET);
    FILE *report = fdopen(file, "r");
    char name[64];
    unsigned long long value;
    while (report && fscanf(report, " %63s = %llu", name, &value) == 2)
        counters.emplace_back(name, value);
    if (report)
        fclose(report);
    return counters;
}

/* ------------------------------------------------------------------ signals and waiting */

namespace {

volatile sig_atomic_t stop_requested = 0;
int stop_fd = -1;

void request_stop(int)
{
    int saved = errno;
    stop_requested = 1;
    uint64_t one = 1;
    [[maybe_unused]] ssize_t n = write(stop_fd, &one, sizeof one);
    errno = saved;
}

} // namespace

StopSignal::StopSignal()
{
    stop_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (stop_fd < 0)
        fail("cannot make an event descriptor: {}", errno_text(errno));
    struct sigaction action {};
    action.sa_handler = request_stop;
    /* A line that waits for its reader is still written whole; the second signal ends the program. */
    action.sa_flags = static_cast<int>(SA_RESTART | SA_RESETHAND);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

bool StopSignal::requested() const { return stop_requested != 0; }

int StopSignal::fd() const { return stop_fd; }

void StopSignal::sleep_until(int64_t when_ns) const
{
    while (!requested() && monotonic_ns() < when_ns)
        wait_readable(stop_fd, -1, when_ns);
}

const char *wait_mode_name(WaitMode mode)
{
    switch (mode) {
    case WaitMode::spin:
        return "spin";
    case WaitMode::nonblock:
        return "nonblock";
    case WaitMode::block:
        break;
    }
    return "block";
}

void add_wait_option(CommandLine line, WaitMode &mode)
{
    line.choice(
            "--wait", {"spin", "nonblock", "block"}, wait_mode_name(mode),
            [&mode](const std::string &name) {
                for (WaitMode known : {WaitMode::spin, WaitMode::nonblock, WaitMode::block})
                    if (name == wait_mode_name(known))
                        mode = known;
            },
            "How to wait: spin (shortest latency, takes a processor), nonblock (look, then poll the device "
            "descriptor), block (sleep inside the library)")
        .type_name("MODE");
}

std::vector<int> allowed_processors()
{
    /* Larger until it holds all that the machine may have. */
    std::vector<cpu_set_t> sets(1);
    while (sched_getaffinity(0, sets.size() * sizeof(cpu_set_t), sets.data()) != 0) {
        if (errno != EINVAL || sets.size() == 1024)
            return {};
        sets.resize(2 * sets.size());
    }
    std::vector<int> processors;
    const size_t bytes = sets.size() * sizeof(cpu_set_t);
    for (size_t i = 0; i < 8 * bytes; i++)
        if (CPU_ISSET_S(i, bytes, sets.data()))
            processors.push_back(static_cast<int>(i));
    return processors;
}

void wait_readable(int fd, int other_fd, int64_t deadline_ns)
{
    pollfd fds[2] = {{fd, POLLIN, 0}, {other_fd, POLLIN, 0}};
    if (deadline_ns == no_deadline) {
        poll(fds, 2, -1);
        return;
    }
    int64_t left = std::max<int64_t>(deadline_ns - monotonic_ns(), 0);
    timespec ts{};
    ts.tv_sec = static_cast<time_t>(left / second_ns);
    ts.tv_nsec = static_cast<long>(left % second_ns);
    ppoll(fds, 2, &ts, nullptr);
}

Receiver::Receiver(ruk_device_t dev, WaitMode mode, const StopSignal &stop) : dev_(dev), mode_(mode), stop_(stop)
{
    if (mode_ == WaitMode::nonblock)
        return;
    wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wake_fd_ < 0)
        fail("cannot make an event descriptor: {}", errno_text(errno));
    /* Ignored unless it is handled, and whatever else it comes upon is restarted. */
    struct sigaction action {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART;
    sigaction(SIGURG, &action, nullptr);
    guard_ = std::thread([this] { guard(); });
    pthread_setname_np(guard_.native_handle(), "wait-guard");
}

Receiver::~Receiver()
{
    if (!guard_.joinable())
        return;
    quit_ = true;
    eventfd_write(wake_fd_, 1);
    guard_.join();
    close(wake_fd_);
}

/*
 * Ends receive calls that wait past their deadline or past a stop request. One that sleeps looks for a shutdown after
 * a second without any frame, dropped ones included: a signal ends its poll, too.
 */
void Receiver::guard()
{
    constexpr int64_t retry = second_ns / 500;   /* the call may not have begun to wait */
    constexpr int64_t retry_out = second_ns / 5; /* nobody waits: a call may begin that is due already */
    while (!quit_) {
        int64_t now = monotonic_ns();
        bool due = stop_.requested() || now >= deadline_.load();
        if (due && inside_) {
            ruk_shutdown(dev_, 0);
            if (mode_ == WaitMode::block)
                pthread_kill(receiver_, SIGURG);
        }
        int64_t wake = due ? now + (inside_ ? retry : retry_out) : deadline_.load();
        wait_readable(wake_fd_, stop_.requested() ? -1 : stop_.fd(), wake);
        eventfd_t ignored;
        eventfd_read(wake_fd_, &ignored);
    }
}

int Receiver::receive(void *buf, size_t len, ruk_recv_info *info, int64_t deadline_ns)
{
    memset(info, 0, sizeof *info);
    /* First of all, so that a flood of datagrams cannot keep the program from ending. */
    if (stop_.requested())
        return ECANCELED;
    if (deadline_ns != no_deadline && monotonic_ns() >= deadline_ns)
        return EAGAIN;
    switch (mode_) {
    case WaitMode::spin:
        return receive_guarded(RUK_RECV_DEFAULT, buf, len, info, deadline_ns);
    case WaitMode::block:
        return receive_guarded(RUK_RECV_BLOCK, buf, len, info, deadline_ns);
    case WaitMode::nonblock:
        break;
    }
    return receive_polling(buf, len, info, deadline_ns);
}

int Receiver::receive_polling(void *buf, size_t len, ruk_recv_info *info, int64_t deadline_ns)
{
    for (;;) {
        int rc = ruk_recvfrom(dev_, RUK_RECV_NONBLOCK, buf, len, info);
        if (rc != EAGAIN)
            return rc;
        if (stop_.requested())
            return ECANCELED;
        if (monotonic_ns() >= deadline_ns)
            return EAGAIN;
        wait_readable(ruk_device_handle(dev_), stop_.fd(), deadline_ns);
    }
}

int Receiver::receive_guarded(ruk_recvmode mode, void *buf, size_t len, ruk_recv_info *info, int64_t deadline_ns)
{
    for (;;) {
        if (deadline_ns < deadline_.exchange(deadline_ns))
            eventfd_write(wake_fd_, 1); /* the guard may sleep for longer */
        receiver_ = pthread_self();
        inside_ = true;
        int rc = ruk_recvfrom(dev_, mode, buf, len, info);
        inside_ = false;
        if (rc != EINTR)
            return rc;
        if (stop_.requested())
            return ECANCELED;
        if (monotonic_ns() >= deadline_ns)
            return EAGAIN;
    }
}

} // namespace tools
