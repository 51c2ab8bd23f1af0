/*
 * Memberships in numbers, through libruk: "ADDRESS GROUPS [SOURCE]" joins so many groups on one channel, leaves them,
 * joins them again; then takes filter tags by joins until one is refused, gives all back, and takes them again. A line
 * of output each; it waits for a line of input between them. With SOURCE joins and leaves are of that source alone.
 */
#include "ruk.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

const in_addr *source; // null = any

in_addr group(unsigned n) { return {htonl(0xef010000u + n)}; } // 239.1.0.0 and on

void pause_for_the_test()
{
    fflush(stdout);
    char line[16];
    if (fgets(line, sizeof line, stdin) == nullptr)
        exit(3);
}

// Joins from n on, at most count; how many were joined, and in *rc why no more.
unsigned join(ruk_channel_t channel, unsigned from, unsigned count, int *rc)
{
    unsigned n = 0;
    *rc = 0;
    for (; n < count; n++) {
        const in_addr addr = group(from + n);
        *rc =
            source != nullptr ? ruk_mcast_join_source(channel, &addr, source) : ruk_mcast_join(channel, &addr, nullptr);
        if (*rc != 0)
            break;
    }
    return n;
}

unsigned leave(ruk_channel_t channel, unsigned from, unsigned count)
{
    unsigned left = 0;
    for (unsigned n = 0; n < count; n++) {
        const in_addr addr = group(from + n);
        left +=
            (source != nullptr ? ruk_mcast_leave_source(channel, &addr, source) : ruk_mcast_leave(channel, &addr)) == 0;
    }
    return left;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3 && argc != 4)
        return 2;
    in_addr addr, one;
    inet_pton(AF_INET, argv[1], &addr);
    if (argc == 4) {
        inet_pton(AF_INET, argv[3], &one);
        source = &one;
    }
    const auto groups = static_cast<unsigned>(atoi(argv[2]));
    ruk_device_t dev;
    ruk_channel_t channel;
    if (ruk_init(RUK_API_VERSION) != 0 || ruk_open(&addr, 0, &dev) != 0 ||
        ruk_bind(dev, 0, 5000, nullptr, &channel) != 0)
        return 1;
    int rc;
    for (int round = 0; round < 2; round++) {
        printf("joined %u\n", join(channel, 0, groups, &rc));
        pause_for_the_test();
        printf("left %u\n", leave(channel, 0, groups));
        pause_for_the_test();
    }
    // The channel's own address has a tag; groups take the others.
    for (int round = 0; round < 2; round++) {
        const unsigned taken = join(channel, 0, 10000, &rc);
        printf("tags %u, then %s\n", taken + 1, strerrorname_np(rc));
        fflush(stdout);
        if (leave(channel, 0, taken) != taken)
            return 1;
    }
    ruk_close(dev);
    return 0;
}
