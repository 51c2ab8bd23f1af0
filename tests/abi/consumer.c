/*
 * A program that uses the installed library, compiled as C11 and as C++20. It needs no adapter: what it calls
 * answers without one. It refers to one operation of each family, so that linking proves them present.
 */
#include <ruk.h>

#include <arpa/inet.h>
#include <errno.h>
#include <stdio.h>
#include <string.h>

#define EXPECT(condition)                                                                                              \
    do {                                                                                                               \
        if (!(condition)) {                                                                                            \
            printf("failed: %s\n", #condition);                                                                        \
            ++failures;                                                                                                \
        }                                                                                                              \
    } while (0)

int main(void)
{
    int failures = 0;
    struct in_addr address;
    struct sockaddr_in sin;
    ruk_device_t device = NULL;
    ruk_channel_t channel = NULL;
    struct ruk_recv_info info;

    memset(&sin, 0, sizeof sin);
    memset(&info, 0, sizeof info);
    address.s_addr = htonl(INADDR_LOOPBACK);

    /* Another major version is refused before any device is looked for. */
    EXPECT(ruk_init(0x0104) == EINVAL);
    EXPECT(ruk_open(&address, RUK_OPEN_THREAD_SAFE, &device) == EINVAL);
    EXPECT(device == NULL);
    EXPECT(ruk_shutdown(NULL, 0) == EINVAL);
    EXPECT(ruk_bind(NULL, RUK_BIND_REUSE, 5000, NULL, &channel) == EINVAL);
    EXPECT(ruk_getaddress(NULL, &sin) == EINVAL);
    EXPECT(ruk_unbind(NULL) == EINVAL);
    EXPECT(ruk_mcast_join(NULL, &address, NULL) == EINVAL);
    EXPECT(ruk_recvfrom(NULL, RUK_RECV_NONBLOCK, NULL, 0, &info) == EINVAL);
    EXPECT(ruk_send_connect(NULL, &sin, RUK_NONBLOCK, 0, NULL) == EINVAL);
    EXPECT(tov_get_vlan_tag("vlan7") == htons(0xE007));
    tov_freeifaddrs(NULL);
    return failures != 0;
}
