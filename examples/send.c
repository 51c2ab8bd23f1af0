/*
 * Send: one datagram on a handle, another to an address.
 *
 *     example-send IF ADDR PORT TEXT
 */
#include "ruk.h"

#include <arpa/inet.h>
#include <error.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static void check(int rc, const char *what)
{
    if (rc != 0)
        error(1, abs(rc), "%s", what); /* ends the program, and with it the endpoint */
}

int main(int argc, char **argv)
{
    struct sockaddr_in to = {.sin_family = AF_INET};
    if (argc != 5 || inet_pton(AF_INET, argv[2], &to.sin_addr) != 1) {
        fprintf(stderr, "usage: %s IF ADDR PORT TEXT\n", argv[0]);
        return 2;
    }
    to.sin_port = htons((uint16_t)atoi(argv[3]));
    int len = (int)strlen(argv[4]);
    ruk_device_t dev;
    ruk_channel_t channel;
    ruk_send_t handle;
    check(ruk_init(RUK_API_VERSION), "ruk_init");
    check(ruk_open_if(argv[1], 0, &dev), "ruk_open_if");
    check(ruk_bind(dev, 0, 0, NULL, &channel), "ruk_bind"); /* port 0: the host chooses */

    /* The handle knows the next hop and has the headers ready: the way for many datagrams. */
    check(ruk_send_connect(channel, &to, 0, 0, &handle), "ruk_send_connect");
    check(ruk_send(handle, argv[4], len, 0), "ruk_send");
    check(ruk_send_disconnect(handle), "ruk_send_disconnect");

    check(ruk_sendto(channel, &to, argv[4], len, 0), "ruk_sendto"); /* the library keeps the handle */
    return ruk_close(dev);
}
