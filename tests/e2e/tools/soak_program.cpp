/*
 * Both ends of a long run: "receive ADDRESS PORT" takes numbered datagrams through libruk until one says that it is
 * the last, "send ADDRESS PORT COUNT RATE" sends them with a kernel socket (rate 0: as fast as it can).
 */
#include "ruk.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

namespace {

constexpr uint64_t last_mark = UINT64_MAX;
constexpr unsigned batch = 16;

int64_t now_ns()
{
    timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return t.tv_sec * INT64_C(1000000000) + t.tv_nsec;
}

int receive(const char *address, int port)
{
    in_addr addr;
    inet_pton(AF_INET, address, &addr);
    ruk_device_t dev;
    ruk_channel_t channel;
    if (ruk_init(RUK_API_VERSION) != 0 || ruk_open(&addr, 0, &dev) != 0 ||
        ruk_bind(dev, 0, port, nullptr, &channel) != 0)
        return 1;
    fprintf(stderr, "listening\n");
    uint64_t received = 0, disorder = 0, next = 0;
    int64_t first = 0, last = 0;
    for (;;) {
        uint8_t payload[2048];
        ruk_recv_info info;
        const int rc = ruk_recvfrom(dev, RUK_RECV_BLOCK, payload, sizeof payload, &info);
        if (rc == EINTR)
            continue;
        if (rc != 0)
            return 1;
        uint64_t number;
        memcpy(&number, payload, sizeof number);
        if (number == last_mark)
            break;
        last = now_ns();
        if (received++ == 0)
            first = last;
        disorder += number < next;
        next = number + 1;
    }
    printf("{\"received\":%llu,\"disorder\":%llu,\"ns\":%lld}\n", static_cast<unsigned long long>(received),
           static_cast<unsigned long long>(disorder), static_cast<long long>(last - first));
    ruk_close(dev);
    return 0;
}

int send_all(const char *address, int port, uint64_t count, uint64_t rate)
{
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in to = {};
    to.sin_family = AF_INET;
    to.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, address, &to.sin_addr);
    if (connect(fd, reinterpret_cast<sockaddr *>(&to), sizeof to) != 0)
        return 1;
    std::array<std::array<uint8_t, 64>, batch> payload = {};
    std::array<iovec, batch> pieces;
    std::array<mmsghdr, batch> messages = {};
    for (unsigned i = 0; i < batch; i++) {
        pieces[i] = {payload[i].data(), payload[i].size()};
        messages[i].msg_hdr.msg_iov = &pieces[i];
        messages[i].msg_hdr.msg_iovlen = 1;
    }
    const int64_t start = now_ns();
    for (uint64_t sent = 0; sent < count;) {
        if (rate != 0) {
            // Short of its time it sleeps: the other programs have the processor meanwhile.
            const int64_t due =
                start + static_cast<int64_t>(static_cast<double>(sent) * 1e9 / static_cast<double>(rate));
            const int64_t early = due - now_ns();
            if (early > 0) {
                const timespec pause = {0, static_cast<long>(early < 1000000 ? early : 1000000)};
                nanosleep(&pause, nullptr);
                continue;
            }
        }
        unsigned n = batch;
        for (unsigned i = 0; i < batch; i++) {
            const uint64_t number = sent + i;
            memcpy(payload[i].data(), &number, sizeof number);
            if (number + 1 == count) {
                n = i + 1;
                break;
            }
        }
        const int done = sendmmsg(fd, messages.data(), n, 0);
        if (done > 0)
            sent += static_cast<uint64_t>(done);
        else if (errno != EINTR && errno != ENOBUFS)
            return 1;
    }
    printf("{\"ns\":%lld}\n", static_cast<long long>(now_ns() - start));
    fflush(stdout);
    // The mark is repeated: a run beyond the ceiling loses datagrams, and may lose this one.
    for (int i = 0; i < 20; i++) {
        usleep(50000);
        memcpy(payload[0].data(), &last_mark, sizeof last_mark);
        if (send(fd, payload[0].data(), payload[0].size(), 0) < 0)
            break;
    }
    return 0;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc == 4 && strcmp(argv[1], "receive") == 0)
        return receive(argv[2], atoi(argv[3]));
    if (argc == 6 && strcmp(argv[1], "send") == 0)
        return send_all(argv[2], atoi(argv[3]), strtoull(argv[4], nullptr, 10), strtoull(argv[5], nullptr, 10));
    fprintf(stderr, "usage: soak_program receive ADDRESS PORT | send ADDRESS PORT COUNT RATE\n");
    return 2;
}
