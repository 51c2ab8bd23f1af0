/*
 * Capture: every frame that the adapter receives, whole, with its time and its first bytes.
 *
 *     example-capture IF [COUNT]
 */
#include "ruk.h"

#include <errno.h>
#include <inttypes.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static int check(int rc, const char *what)
{
    if (rc != 0)
        fprintf(stderr, "%s: %s\n", what, strerror(abs(rc)));
    return rc;
}

int main(int argc, char **argv)
{
    if (argc < 2) {
        fprintf(stderr, "usage: %s IF [COUNT]\n", argv[0]);
        return 2;
    }
    int count = argc > 2 ? atoi(argv[2]) : 1;
    static unsigned char frame[65536]; /* frames are never cut: room for the largest */
    ruk_device_t dev;
    if (check(ruk_init(RUK_API_VERSION), "ruk_init") ||
        check(ruk_open_if(argv[1], RUK_OPEN_HW_TIMESTAMPING, &dev), "ruk_open_if"))
        return 1;

    int rc = check(ruk_set_filter_mode(dev, RUK_RECV_FILTER_RAW), "ruk_set_filter_mode");
    while (rc == 0 && count > 0) {
        size_t len;
        uint64_t time;
        if (ruk_raw_recv_nb(dev, frame, &len, &time, NULL) == EAGAIN) {
            struct pollfd waiting = {.fd = ruk_device_handle(dev), .events = POLLIN};
            poll(&waiting, 1, 1000);
            continue;
        }
        count--;
        printf("%" PRIu64 " %zu bytes:", time, len - 4); /* the last 4 are the frame check sequence */
        for (int i = 0; i < 14; i++)
            printf(" %02x", frame[i]);
        puts("");
        fflush(stdout);
    }
    ruk_close(dev);
    return rc != 0;
}
