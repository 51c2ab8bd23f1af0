/*
 * Epoll: the device descriptor in an event loop beside others; here standard input, a terminal or
 * a pipe, whose end stops the loop.
 *
 *     example-epoll IF PORT
 */
#include "ruk.h"

#include <errno.h>
#include <error.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <unistd.h>

int main(int argc, char **argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: %s IF PORT\n", argv[0]);
        return 2;
    }
    ruk_device_t dev = NULL;
    ruk_channel_t channel;
    int rc;
    if ((rc = ruk_init(RUK_API_VERSION)) || (rc = ruk_open_if(argv[1], 0, &dev)) ||
        (rc = ruk_bind(dev, 0, atoi(argv[2]), NULL, &channel)))
        error(1, abs(rc), "cannot receive on %s", argv[1]); /* ends the program, and with it the endpoint */

    int epoll = epoll_create1(EPOLL_CLOEXEC), fds[] = {STDIN_FILENO, ruk_device_handle(dev)};
    for (int i = 0; i < 2; i++) { /* level-triggered */
        struct epoll_event readable = {.events = EPOLLIN, .data.fd = fds[i]};
        if (epoll_ctl(epoll, EPOLL_CTL_ADD, fds[i], &readable) != 0)
            error(1, errno, "epoll_ctl");
    }
    for (int running = 1; running;) {
        struct epoll_event event;
        struct ruk_recv_info info;
        char payload[1500], input[256];
        if (epoll_wait(epoll, &event, 1, -1) == 1 && event.data.fd == STDIN_FILENO)
            running = read(STDIN_FILENO, input, sizeof input) > 0;
        /* Takes all that waits: the descriptor stays readable until then. */
        while ((rc = ruk_recvfrom(dev, RUK_RECV_NONBLOCK, payload, sizeof payload, &info)) == 0)
            if (info.msg_len <= sizeof payload)
                dprintf(STDOUT_FILENO, "%.*s\n", (int)info.msg_len, payload);
        if (rc != EAGAIN)
            error(1, rc, "ruk_recvfrom");
    }
    return ruk_close(dev);
}
