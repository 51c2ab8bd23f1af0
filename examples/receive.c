/*
 * Receive: prints the datagrams that arrive on a UDP port.
 *
 *     example-receive IF PORT [COUNT]
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
    if (argc < 3) {
        fprintf(stderr, "usage: %s IF PORT [COUNT]\n", argv[0]);
        return 2;
    }
    ruk_device_t dev;
    ruk_channel_t channel;
    check(ruk_init(RUK_API_VERSION), "ruk_init");
    check(ruk_open_if(argv[1], 0, &dev), "ruk_open_if");
    check(ruk_bind(dev, 0, atoi(argv[2]), NULL, &channel), "ruk_bind");

    for (int left = argc > 3 ? atoi(argv[3]) : 1; left > 0; left--) {
        char payload[1500], from[INET_ADDRSTRLEN];
        struct ruk_recv_info info;
        check(ruk_recvfrom(dev, RUK_RECV_BLOCK, payload, sizeof payload, &info), "ruk_recvfrom");
        if (info.msg_len > sizeof payload) /* longer than the buffer: cut, or malformed */
            continue;
        inet_ntop(AF_INET, &info.sin_from.sin_addr, from, sizeof from);
        printf("%s:%d %.*s\n", from, ntohs(info.sin_from.sin_port), (int)info.msg_len, payload);
        fflush(stdout);
    }
    return ruk_close(dev);
}
