#include "own_network.h"

#include <cerrno>
#include <cstring>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace test_support {

std::string enter_own_network()
{
    if (unshare(CLONE_NEWNET) != 0 && unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
        return std::string("no network namespace: ") + strerror(errno);
    ifreq loopback = {};
    strcpy(loopback.ifr_name, "lo");
    loopback.ifr_flags = IFF_UP | IFF_RUNNING;
    const int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const bool up = s >= 0 && ioctl(s, SIOCSIFFLAGS, &loopback) == 0;
    const int error = errno;
    if (s >= 0)
        close(s);
    return up ? "" : std::string("loopback stays down in a network namespace: ") + strerror(error);
}

} // namespace test_support
