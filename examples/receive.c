/*
 * Receive: prints the datagrams that arrive on a UDP port.
 *
 *     example-receive IF PORT [COUNT]
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
    if (argc < 3) {
        fprintf(stderr, "usage: %s IF PORT [COUNT]\n", argv[0]);
        return 2;
    }
    int count = argc > 3 ? atoi(argv[3]) : 1;
    ruk_device_t dev;
    ruk_channel_t channel;
    if (check(ruk_init(RUK_API_VERSION), "ruk_init") || check(ruk_open_if(argv[1], 0, &dev), "ruk_open_if"))
        return 1;

    int rc = check(ruk_bind(dev, 0, atoi(argv[2]), NULL, &channel), "ruk_bind");
    while (rc == 0 && count-- > 0) {
        char payload[1500], from[INET_ADDRSTRLEN];
        struct ruk_recv_info info;
        rc = check(ruk_recvfrom(dev, RUK_RECV_BLOCK, payload, sizeof payload, &info), "ruk_recvfrom");
        if (rc != 0 || info.msg_len > sizeof payload) /* longer than the buffer: cut, or malformed */
            continue;
        inet_ntop(AF_INET, &info.sin_from.sin_addr, from, sizeof from);
        printf("%s:%d %.*s\n", from, ntohs(info.sin_from.sin_port), (int)info.msg_len, payload);
        fflush(stdout);
    }
    ruk_close(dev);
    return rc != 0;
}
