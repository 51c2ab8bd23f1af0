#include "accept_peer.h"

#include "common.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <ifaddrs.h>
#include <net/if.h>
#include <optional>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace accept_run {

using namespace tools;

std::vector<uint8_t> payload(uint32_t number, int size)
{
    std::vector<uint8_t> bytes(size == sweep ? number % sizes : static_cast<size_t>(size));
    uint32_t state = number * 2654435761u + 1;
    for (uint8_t &b : bytes) {
        state = state * 1664525u + 1013904223u;
        b = static_cast<uint8_t>(state >> 24);
    }
    if (bytes.size() >= sizeof number)
        memcpy(bytes.data(), &number, sizeof number);
    return bytes;
}

std::string send_request(uint16_t port, uint32_t count, int size, uint32_t gap_us, uint32_t first, const Target &target)
{
    return fmt::format("send {} {} {} {} {} {} {}", port, count, size, gap_us, first, target.address, target.via);
}

std::string reach_request(in_addr address) { return "reach " + addr_text(address); }

namespace {

int bound_socket(in_addr address, uint16_t port)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_addr = address;
    local.sin_port = htons(port);
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&local), sizeof local) != 0)
        fail("cannot listen on {}: {}", endpoint_text(local), errno_text(errno));
    return fd;
}

/* The own address that datagrams to an address leave from: of the interface that its route leads to. */
bool own_address_towards(in_addr address, in_addr *own)
{
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_addr = address;
    to.sin_port = htons(9);
    sockaddr_in from{};
    socklen_t len = sizeof from;
    const bool found = fd >= 0 && connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to) == 0 &&
                       getsockname(fd, reinterpret_cast<sockaddr *>(&from), &len) == 0;
    close(fd);
    *own = from.sin_addr;
    return found;
}

bool on_a_subnet_of_ours(in_addr address)
{
    ifaddrs *list = nullptr;
    if (getifaddrs(&list) != 0)
        return false;
    bool found = false;
    for (const ifaddrs *i = list; i != nullptr; i = i->ifa_next) {
        if (i->ifa_addr == nullptr || i->ifa_addr->sa_family != AF_INET || i->ifa_netmask == nullptr ||
            (i->ifa_flags & IFF_UP) == 0)
            continue;
        const in_addr_t own = reinterpret_cast<const sockaddr_in *>(i->ifa_addr)->sin_addr.s_addr;
        const in_addr_t mask = reinterpret_cast<const sockaddr_in *>(i->ifa_netmask)->sin_addr.s_addr;
        found = found || ((own ^ address.s_addr) & mask) == 0;
    }
    freeifaddrs(list);
    return found;
}

/* From that own address, which for a group or a broadcast says on which network. */
ssize_t send_from(int fd, in_addr own, const std::vector<uint8_t> &bytes, sockaddr_in to)
{
    iovec data = {const_cast<uint8_t *>(bytes.data()), bytes.size()};
    in_pktinfo info{};
    info.ipi_spec_dst = own;
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof info)] = {};
    msghdr message{};
    message.msg_name = &to;
    message.msg_namelen = sizeof to;
    message.msg_iov = &data;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    cmsghdr *header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = IPPROTO_IP;
    header->cmsg_type = IP_PKTINFO;
    header->cmsg_len = CMSG_LEN(sizeof info);
    memcpy(CMSG_DATA(header), &info, sizeof info);
    return sendmsg(fd, &message, 0);
}

struct SendRequest {
    uint32_t port = 0, count = 0, gap_us = 0, first = 0;
    int size = 0;
    std::string address, via;
};

/* Anybody may ask: what no run asks for is refused, so that a request is over in time and harms nothing here. */
std::optional<SendRequest> send_request_in(const std::string &text)
{
    std::istringstream words(text);
    std::string verb;
    SendRequest r;
    if (!(words >> verb >> r.port >> r.count >> r.size >> r.gap_us >> r.first) || verb != "send" || r.port > 65535 ||
        r.count > most_datagrams || r.size < sweep || r.size > largest_size || r.gap_us > longest_gap_us)
        return std::nullopt;
    words >> r.address >> r.via;
    return r;
}

/* What is answered before the request is served. */
std::string answer_to(const std::string &text)
{
    std::istringstream words(text);
    std::string verb, address;
    in_addr wanted{};
    words >> verb;
    if (verb == "send")
        return send_request_in(text) ? "ok" : "no";
    if (verb == "reach" && words >> address && inet_pton(AF_INET, address.c_str(), &wanted) == 1)
        return on_a_subnet_of_ours(wanted) ? "ok" : "no";
    return "ok";
}

void serve_request(int fd, const std::string &text, sockaddr_in to, const StopSignal &stop)
{
    const std::optional<SendRequest> r = send_request_in(text);
    if (!r)
        return;
    in_addr via = to.sin_addr, own{};
    inet_pton(AF_INET, r->address.c_str(), &to.sin_addr);
    inet_pton(AF_INET, r->via.c_str(), &via);
    if (!own_address_towards(via, &own))
        return;
    to.sin_port = htons(static_cast<uint16_t>(r->port));
    int64_t due = monotonic_ns();
    for (uint32_t n = 0; n < r->count && !stop.requested(); n++) {
        const std::vector<uint8_t> bytes = payload(r->first + n, r->size);
        while (send_from(fd, own, bytes, to) < 0 && errno == ENOBUFS && !stop.requested())
            usleep(100);
        due += r->gap_us * INT64_C(1000);
        if (r->gap_us >= 200)
            stop.sleep_until(due);
        else
            while (monotonic_ns() < due) {
            }
    }
}

} // namespace

int serve(in_addr address, uint16_t port)
{
    StopSignal stop;
    const int requests = bound_socket(address, port), echo = bound_socket(address, static_cast<uint16_t>(port + 1));
    const int on = 1;
    if (setsockopt(requests, SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0)
        fail("cannot send broadcasts: {}", errno_text(errno));
    std::string served; /* the last request, and whose: not again when it is repeated, as its answer was late */
    note(fmt::format("serving on {}:{} and {}", addr_text(address), port, port + 1));
    while (!stop.requested()) {
        pollfd fds[] = {{requests, POLLIN, 0}, {echo, POLLIN, 0}, {stop.fd(), POLLIN, 0}};
        if (poll(fds, 3, -1) < 0 && errno != EINTR)
            fail("cannot wait: {}", errno_text(errno));
        static char bytes[65536];
        for (int i = 0; i < 2; i++) {
            if ((fds[i].revents & POLLIN) == 0)
                continue;
            sockaddr_in from{};
            socklen_t len = sizeof from;
            const ssize_t n = recvfrom(fds[i].fd, bytes, sizeof bytes, 0, reinterpret_cast<sockaddr *>(&from), &len);
            if (n < 0)
                continue;
            if (i == 1) {
                sendto(echo, bytes, static_cast<size_t>(n), 0, reinterpret_cast<sockaddr *>(&from), len);
                continue;
            }
            const std::string request(bytes, static_cast<size_t>(n)), answer = answer_to(request);
            sendto(requests, answer.data(), answer.size(), 0, reinterpret_cast<sockaddr *>(&from), len);
            const std::string whose = endpoint_text(from) + ' ' + request;
            if (whose != std::exchange(served, whose))
                serve_request(requests, request, from, stop);
        }
    }
    close(requests);
    close(echo);
    return exit_ok;
}

} // namespace accept_run
