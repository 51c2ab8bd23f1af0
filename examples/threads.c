/*
 * Threads: one receives while another sends the lines of standard input to a peer; the right order to stop.
 *
 *     example-threads IF PORT PEER PEERPORT
 */
#include "ruk.h"

#include <arpa/inet.h>
#include <error.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static atomic_int stopping, left;

static void *receive(void *dev)
{
    char payload[1500];
    struct ruk_recv_info info;
    while (!stopping && ruk_recvfrom(dev, RUK_RECV_BLOCK, payload, sizeof payload, &info) == 0) /* EINTR: shut down */
        if (info.msg_len <= sizeof payload)
            dprintf(STDOUT_FILENO, "%.*s\n", (int)info.msg_len, payload);
    left = 1;
    return NULL;
}

int main(int argc, char **argv)
{
    struct sockaddr_in peer = {.sin_family = AF_INET};
    if (argc != 5 || inet_pton(AF_INET, argv[3], &peer.sin_addr) != 1) {
        fprintf(stderr, "usage: %s IF PORT PEER PEERPORT\n", argv[0]);
        return 2;
    }
    peer.sin_port = htons((uint16_t)atoi(argv[4]));
    ruk_device_t dev;
    ruk_channel_t channel;
    pthread_t receiver;
    int rc, refused = 0;
    if ((rc = ruk_init(RUK_API_VERSION)) || (rc = ruk_open_if(argv[1], RUK_OPEN_THREAD_SAFE, &dev)) || /* with locks */
        (rc = ruk_bind(dev, 0, atoi(argv[2]), NULL, &channel)) || (rc = pthread_create(&receiver, NULL, receive, dev)))
        error(1, abs(rc), "cannot receive on %s", argv[1]);

    for (char line[1400]; fgets(line, sizeof line, stdin);)
        if ((rc = ruk_sendto(channel, &peer, line, (int)strcspn(line, "\n"), 0)) != 0)
            error(0, refused = rc, "ruk_sendto");
    /*
     * Closing wakes no sleeping receiver, and a receive call forgets a shutdown made before it: repeat. While datagrams
     * arrive none sleeps, and it is the flag that is seen.
     */
    for (stopping = 1; !left; usleep(10000))
        ruk_shutdown(dev, 0);
    pthread_join(receiver, NULL);
    ruk_close(dev);
    return refused != 0;
}
