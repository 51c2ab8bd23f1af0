/*
 * An endpoint whose host answers from the test, and a trace of what resolution asks: "ask DEV ADDRESS" of the kernel's
 * ARP table, "list" of the interfaces, "command BYTES" to the driver, "datagram ADDRESS:PORT LENGTH" to the next hop.
 *
 * 10.77.0.1/24 on "oxel0" of the endpoint's adapter, 192.168.1.1/24 on "eth1" of none.
 */
#pragma once

#include "endpoint_test.h"

#include <algorithm>
#include <ifaddrs.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>

namespace route_rig {

using namespace test_support;

class ResolveTest : public EndpointTest {
protected:
    ResolveTest()
    {
        host.interfaces = {{.name = "oxel0", .address = "10.77.0.1", .netmask = "255.255.255.0"},
                           {.name = "eth1", .mac = {2, 0, 0, 0, 1, 1}, .address = "192.168.1.1"}};
        libc_->getifaddrs = [this, next = libc_->getifaddrs](struct ifaddrs **out) {
            trace.push_back("list");
            int rc = next(out);
            if (rc == 0 && *out)
                lists.push_back(*out);
            return rc;
        };
        libc_->freeifaddrs = [this, next = libc_->freeifaddrs](struct ifaddrs *list) {
            lists.erase(std::remove(lists.begin(), lists.end(), list), lists.end());
            next(list);
        };
        host.sockets.on_ioctl[SIOCGARP] = [this, next = host.sockets.on_ioctl[SIOCGARP]](int fd, void *arg) {
            EXPECT_EQ(fd, dev->rep_send_fd);
            const struct arpreq *request = static_cast<const struct arpreq *>(arg);
            struct sockaddr_in sin;
            memcpy(&sin, &request->arp_pa, sizeof sin);
            EXPECT_EQ(sin.sin_family, AF_INET);
            EXPECT_EQ(sin.sin_port, 0);
            trace.push_back("ask " + std::string(request->arp_dev, strnlen(request->arp_dev, 16)) + " " +
                            inet_ntoa(sin.sin_addr));
            if (meanwhile)
                meanwhile();
            return next(fd, arg);
        };
        host.sockets.on_ioctl[OXEL_ARP_RESOLVE] = [this](int fd, void *arg) {
            EXPECT_EQ(fd, dev->rep_handle);
            trace.push_back("command " + hex(arg, 4));
            if (meanwhile)
                meanwhile();
            errno = command_error;
            return command_error == 0 ? 0 : -1;
        };
        host.sockets.sendto = [this](int fd, const void *, size_t n, int flags, const struct sockaddr *to,
                                     socklen_t length) -> ssize_t {
            EXPECT_EQ(fd, dev->rep_send_fd);
            EXPECT_EQ(flags, 0);
            EXPECT_EQ(length, sizeof(struct sockaddr_in));
            struct sockaddr_in sin;
            memcpy(&sin, to, sizeof sin);
            EXPECT_EQ(sin.sin_family, AF_INET);
            trace.push_back(std::string("datagram ") + inet_ntoa(sin.sin_addr) + ":" +
                            std::to_string(ntohs(sin.sin_port)) + " " + std::to_string(n));
            if (meanwhile)
                meanwhile();
            errno = datagram_error.value_or(0);
            return datagram_error ? -1 : 0;
        };
    }
    ~ResolveTest() override
    {
        close();
        release_lists();
    }

    /* Lists that lookups have asked for stay with the process: none was released, and the test now does it. */
    void release_lists()
    {
        EXPECT_EQ(host.unreleased_lists(), lists.size());
        while (!lists.empty())
            freeifaddrs(lists.back());
    }

    void open_here(int flags = RUK_OPEN_THREAD_SAFE)
    {
        struct in_addr address = in_addr_of("10.77.0.1");
        ASSERT_EQ(ruk_open(&address, flags, &dev), 0);
        forget();
    }
    void forget()
    {
        trace.clear();
        release_lists();
    }

    struct Lookup {
        int rc;
        std::string mac; /* twelve digits; of e's when it was not written */
        int valid;
    };
    Lookup lookup(const std::string &address, int retries = 1)
    {
        struct ruk__peer_addr peer = {inet_addr(address.c_str()), {0xee, 0xee, 0xee, 0xee, 0xee, 0xee}, 7};
        ruk__ep_lock(dev);
        int rc = ruk__peer_addr_lookup(dev, be32("10.77.0.1"), &peer, retries);
        const int error = errno;
        if (dev->rep_lockp) {
            EXPECT_FALSE(lock_is_free()) << "held again on return";
        }
        ruk__ep_unlock(dev);
        EXPECT_EQ(peer.pa_ip_addr_be32, inet_addr(address.c_str()));
        errno = error;
        return {rc, hex(peer.pa_eth_dest, 6), peer.pa_isvalid};
    }
    /* The address that the kernel is asked for first: the next hop. */
    std::string next_hop_of(const std::string &address)
    {
        memset(dev->rep_mac_cache, 0, sizeof dev->rep_mac_cache);
        trace.clear();
        lookup(address, 0);
        const std::string start = "ask oxel0 ";
        return trace.empty() || trace[0].rfind(start, 0) != 0 ? "" : trace[0].substr(start.size());
    }
    Lines take_trace()
    {
        Lines lines;
        lines.swap(trace);
        return lines;
    }
    bool lock_is_free()
    {
        if (pthread_mutex_trylock(&dev->rep_lock) != 0)
            return false;
        pthread_mutex_unlock(&dev->rep_lock);
        return true;
    }

    Lines trace;
    std::vector<struct ifaddrs *> lists; /* not released */
    int command_error = ENOTTY;          /* of the driver's command, 0 when it knows it */
    std::optional<int> datagram_error;   /* errno of a failing send, which may be 0 */
    std::function<void()> meanwhile;     /* runs at each question to kernel and driver */

private:
    LibcHookGuard libc_;
};

} // namespace route_rig
