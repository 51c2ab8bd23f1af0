/*
 * Multicast from one source: joins a group for one sender and prints what arrives.
 *
 *     example-multicast_source IF PORT GROUP SOURCE [COUNT]
 */
#include "ruk.h"

#include <arpa/inet.h>
#include <error.h>
#include <stdio.h>
#include <stdlib.h>

static void check(int rc, const char *what)
{
    if (rc != 0)
        error(1, abs(rc), "%s", what); /* ends the program, and with it the endpoint */
}

int main(int argc, char **argv)
{
    struct in_addr group, source;
    if (argc < 5 || inet_pton(AF_INET, argv[3], &group) != 1 || inet_pton(AF_INET, argv[4], &source) != 1) {
        fprintf(stderr, "usage: %s IF PORT GROUP SOURCE [COUNT]\n", argv[0]);
        return 2;
    }
    ruk_device_t dev;
    ruk_channel_t channel;
    check(ruk_init(RUK_API_VERSION), "ruk_init");
    check(ruk_open_if(argv[1], 0, &dev), "ruk_open_if");
    check(ruk_bind(dev, 0, atoi(argv[2]), NULL, &channel), "ruk_bind"); /* groups arrive on its port */
    check(ruk_mcast_join_source(channel, &group, &source), "ruk_mcast_join_source");

    for (int left = argc > 5 ? atoi(argv[5]) : 1; left > 0; left--) {
        char payload[1500];
        struct ruk_recv_info info;
        check(ruk_recvfrom(dev, RUK_RECV_BLOCK, payload, sizeof payload, &info), "ruk_recvfrom");
        if (info.msg_len <= sizeof payload)
            printf("%.*s\n", (int)info.msg_len, payload);
        fflush(stdout);
    }
    return ruk_close(dev); /* leaves the group too */
}
