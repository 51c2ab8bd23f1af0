/*
 * Capture: every frame that the adapter receives, whole, with its time and its first bytes.
 *
 *     example-capture IF [COUNT]
 */
#include "ruk.h"

#include <errno.h>
#include <error.h>
#include <inttypes.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>

static void check(int rc, const char *what)
{
    if (rc != 0)
        error(1, abs(rc), "%s", what); /* ends the program, and with it the endpoint */
}

int main(int argc, char **argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: %s IF [COUNT]\n", argv[0]);
        return 2;
    }
    static unsigned char frame[65536]; /* frames are never cut: room for the largest */
    ruk_device_t dev;
    check(ruk_init(RUK_API_VERSION), "ruk_init");
    check(ruk_open_if(argv[1], RUK_OPEN_HW_TIMESTAMPING, &dev), "ruk_open_if");
    check(ruk_set_filter_mode(dev, RUK_RECV_FILTER_RAW), "ruk_set_filter_mode");

    for (int left = argc > 2 ? atoi(argv[2]) : 1; left > 0; left--) {
        size_t len;
        uint64_t time;
        struct pollfd waiting = {.fd = ruk_device_handle(dev), .events = POLLIN};
        while (ruk_raw_recv_nb(dev, frame, &len, &time, NULL) == EAGAIN)
            poll(&waiting, 1, 1000);
        printf("%" PRIu64 " %zu bytes:", time, len - 4); /* the last 4 are the frame check sequence */
        for (int i = 0; i < 14; i++)
            printf(" %02x", frame[i]);
        puts("");
        fflush(stdout);
    }
    return ruk_close(dev);
}
