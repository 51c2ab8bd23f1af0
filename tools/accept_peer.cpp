#include "accept_peer.h"

#include "common.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstring>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

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

std::string send_request(uint16_t port, uint32_t count, int size, uint32_t gap_us, uint32_t first,
                         const std::string &group)
{
    return fmt::format("send {} {} {} {} {} {}", port, count, size, gap_us, first, group);
}

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

void serve_request(int fd, in_addr own, const std::string &text, sockaddr_in to, const StopSignal &stop)
{
    std::istringstream words(text);
    std::string verb, group;
    uint32_t port = 0, count = 0, gap_us = 0, first = 0;
    int size = 0;
    if (!(words >> verb >> port >> count >> size >> gap_us >> first) || verb != "send" || port > 65535 || size > 1472)
        return;
    if (words >> group && inet_pton(AF_INET, group.c_str(), &to.sin_addr) == 1)
        setsockopt(fd, IPPROTO_IP, IP_MULTICAST_IF, &own, sizeof own);
    to.sin_port = htons(static_cast<uint16_t>(port));
    int64_t due = monotonic_ns();
    for (uint32_t n = 0; n < count && !stop.requested(); n++) {
        const std::vector<uint8_t> bytes = payload(first + n, size);
        while (sendto(fd, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr *>(&to), sizeof to) < 0 &&
               errno == ENOBUFS)
            usleep(100);
        due += gap_us * INT64_C(1000);
        if (gap_us >= 200)
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
            sendto(requests, "ok", 2, 0, reinterpret_cast<sockaddr *>(&from), len);
            serve_request(requests, address, std::string(bytes, static_cast<size_t>(n)), from, stop);
        }
    }
    close(requests);
    close(echo);
    return exit_ok;
}

} // namespace accept_run
