/*
 * Multicast from one source: joins a group for one sender and prints what arrives.
 *
 *     example-multicast_source IF PORT GROUP SOURCE [COUNT]
 */
#include "ruk.h"

#include <arpa/inet.h>
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
    struct in_addr group, source;
    if (argc < 5 || inet_pton(AF_INET, argv[3], &group) != 1 || inet_pton(AF_INET, argv[4], &source) != 1) {
        fprintf(stderr, "usage: %s IF PORT GROUP SOURCE [COUNT]\n", argv[0]);
        return 2;
    }
    int count = argc > 5 ? atoi(argv[5]) : 1;
    ruk_device_t dev;
    ruk_channel_t channel;
    if (check(ruk_init(RUK_API_VERSION), "ruk_init") || check(ruk_open_if(argv[1], 0, &dev), "ruk_open_if"))
        return 1;

    int rc = check(ruk_bind(dev, 0, atoi(argv[2]), NULL, &channel), "ruk_bind");
    if (rc == 0)
        rc = check(ruk_mcast_join_source(channel, &group, &source), "ruk_mcast_join_source");
    while (rc == 0 && count-- > 0) {
        char payload[1500];
        struct ruk_recv_info info;
        rc = check(ruk_recvfrom(dev, RUK_RECV_BLOCK, payload, sizeof payload, &info), "ruk_recvfrom");
        if (rc == 0 && info.msg_len <= sizeof payload)
            printf("%.*s\n", (int)info.msg_len, payload);
        fflush(stdout);
    }
    ruk_close(dev); /* leaves the group too */
    return rc != 0;
}
