/*
 * Epoll: the device descriptor in an event loop beside others; here standard input, whose end stops the loop.
 *
 *     example-epoll IF PORT
 */
#include "ruk.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/epoll.h>
#include <unistd.h>

static int add(int epoll, int fd)
{
    struct epoll_event event = {.events = EPOLLIN, .data.fd = fd}; /* level-triggered */
    return epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
}

/* Takes all that waits: the descriptor stays readable until then. */
static void drain(ruk_device_t dev)
{
    char payload[1500];
    struct ruk_recv_info info;
    while (ruk_recvfrom(dev, RUK_RECV_NONBLOCK, payload, sizeof payload, &info) == 0)
        if (info.msg_len <= sizeof payload)
            printf("%.*s\n", (int)info.msg_len, payload);
    fflush(stdout);
}

int main(int argc, char **argv)
{
    if (argc != 3) {
        fprintf(stderr, "usage: %s IF PORT\n", argv[0]);
        return 2;
    }
    ruk_device_t dev;
    ruk_channel_t channel;
    int rc = ruk_init(RUK_API_VERSION);
    if (rc != 0 || (rc = ruk_open_if(argv[1], 0, &dev)) != 0) {
        fprintf(stderr, "cannot open %s: %s\n", argv[1], strerror(abs(rc)));
        return 1;
    }
    int epoll = epoll_create1(EPOLL_CLOEXEC);
    int running = ruk_bind(dev, 0, atoi(argv[2]), NULL, &channel) == 0 && add(epoll, STDIN_FILENO) == 0 &&
                  add(epoll, ruk_device_handle(dev)) == 0;
    int failed = !running;
    while (running) {
        struct epoll_event event;
        char input[256];
        if (epoll_wait(epoll, &event, 1, -1) == 1 && event.data.fd == STDIN_FILENO)
            running = read(STDIN_FILENO, input, sizeof input) > 0;
        drain(dev);
    }
    close(epoll);
    ruk_close(dev);
    return failed;
}
