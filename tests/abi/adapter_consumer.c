/*
 * A test program of a user's, over the installed software adapter: the library opens an endpoint on a board of its own
 * making, as softnic.h shows, and what comes is received or counted. Compiled as C11 and as C++20.
 */
#include <softnic.h>

#include <ruk.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

/* "ok" for a port of 127.0.0.1, which it is sent from. */
static const unsigned char datagram[60] = {0,   0, 0,  0, 0, 0, 0, 0, 0,  0,  0, 0,   8,   0,  0x45,
                                           0,   0, 30, 0, 0, 0, 0, 9, 17, 0,  0, 127, 0,   0,  1,
                                           127, 0, 0,  1, 0, 9, 0, 0, 0,  10, 0, 0,   'o', 'k'};

int main(void)
{
    const struct in_addr loopback = {htonl(INADDR_LOOPBACK)};
    softnic_board_config_t config;
    softnic_board_counters_t counters;
    struct ruk_recv_info info;
    struct sockaddr_in bound;
    ruk_device_t device = NULL;
    ruk_channel_t channel = NULL;
    unsigned char frame[sizeof datagram] = {0}, room[16];
    int failures = 0;

    memset(&info, 0, sizeof info);
    softnic_board_defaults(&config, 0);
    memset(config.mac, 0, sizeof config.mac);
    softnic_t *nic = softnic_create(&config, 1, UINT64_C(1700000000000000000));
    if (nic == NULL || softnic_attach(nic) != 0) {
        puts("failed: no adapter");
        return 1;
    }
#ifdef WITH_CAPTURE
    softnic_capture_requests(nic);
#endif
    failures += open("/dev/oxelB1", O_RDWR) >= 0;
    if (ruk_init(RUK_API_VERSION) != 0 || ruk_open(&loopback, 0, &device) != 0 ||
        ruk_bind(device, 0, 0, NULL, &channel) != 0 || ruk_getaddress(channel, &bound) != 0) {
        puts("failed: no endpoint");
        return 1;
    }
    softnic_inject(nic, 0, frame, sizeof frame);
    memcpy(frame, datagram, sizeof frame);
    memcpy(frame + 36, &bound.sin_port, sizeof bound.sin_port);
    softnic_inject(nic, 0, frame, sizeof frame);
    softnic_run(nic);
    failures += ruk_recvfrom(device, RUK_RECV_NONBLOCK, room, sizeof room, &info) != 0;
    failures += info.msg_len != 2 || memcmp(room, "ok", 2) != 0;
    softnic_board_counters(nic, 0, &counters);
    failures += counters.arrived != 2 || counters.matched != 1 || counters.unmatched != 1;
    ruk_unbind(channel);
    ruk_close(device);
    softnic_destroy(nic);
    failures += open("/dev/oxelB0", O_RDWR) >= 0;
    if (failures != 0)
        printf("failed: %d\n", failures);
    return failures != 0;
}
