/*
 * Timestamps: when each datagram arrived by the adapter's clock, and how old it is when the application has it.
 *
 *     example-timestamps IF PORT [COUNT]
 */
#include "ruk.h"

#include <error.h>
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

static void check(int rc, const char *what)
{
    if (rc != 0)
        error(1, abs(rc), "%s", what); /* ends the program, and with it the endpoint */
}

int main(int argc, char **argv)
{
    if (argc < 3) {
        fprintf(stderr, "usage: %s IF PORT [COUNT]\n", argv[0]);
        return 2;
    }
    ruk_device_t dev;
    ruk_channel_t channel;
    /* Interface version 2 or later fills in timestamps; the open flag asks the adapter's clock for them. */
    check(ruk_init(RUK_API_VERSION), "ruk_init");
    check(ruk_open_if(argv[1], RUK_OPEN_HW_TIMESTAMPING, &dev), "ruk_open_if");
    check(ruk_bind(dev, 0, atoi(argv[2]), NULL, &channel), "ruk_bind");

    for (int left = argc > 3 ? atoi(argv[3]) : 1; left > 0; left--) {
        char payload[1500];
        struct ruk_recv_info info;
        struct timespec now;
        check(ruk_recvfrom(dev, RUK_RECV_BLOCK, payload, sizeof payload, &info), "ruk_recvfrom");
        clock_gettime(CLOCK_REALTIME, &now); /* the same scale */
        int64_t age = (int64_t)now.tv_sec * 1000000000 + now.tv_nsec - (int64_t)info.timestamp;
        printf("arrived at %" PRIu64 " ns, received %" PRId64 " ns later\n", info.timestamp, age);
        fflush(stdout);
    }
    return ruk_close(dev);
}
