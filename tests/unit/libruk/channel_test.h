/*
 * An endpoint with channels on it, for tests of memberships and unbinding. Events can be made pending by hand.
 */
#pragma once

#include "endpoint_test.h"

namespace test_support {

class ChannelTest : public EndpointTest {
protected:
    ChannelTest()
    {
        open(RUK_OPEN_THREAD_SAFE);
        driver.take_trace();
    }

    ruk_channel_t bind(int port = 5000, int flags = 0)
    {
        ruk_channel_t ch = nullptr;
        EXPECT_EQ(ruk_bind(dev, flags, port, nullptr, &ch), 0);
        driver.take_trace();
        host.sockets.clear();
        return ch;
    }
    int join(ruk_channel_t ch, const char *group)
    {
        struct in_addr addr = in_addr_of(group);
        return ruk_mcast_join(ch, &addr, nullptr);
    }
    int join_source(ruk_channel_t ch, const char *group, const char *source)
    {
        struct in_addr addr = in_addr_of(group), src = in_addr_of(source);
        return ruk_mcast_join_source(ch, &addr, &src);
    }
    int leave(ruk_channel_t ch, const char *group)
    {
        struct in_addr addr = in_addr_of(group);
        return ruk_mcast_leave(ch, &addr);
    }
    int leave_source(ruk_channel_t ch, const char *group, const char *source)
    {
        struct in_addr addr = in_addr_of(group), src = in_addr_of(source);
        return ruk_mcast_leave_source(ch, &addr, &src);
    }
    bool lock_is_free()
    {
        if (pthread_mutex_trylock(&dev->rep_lock) != 0)
            return false;
        pthread_mutex_unlock(&dev->rep_lock);
        return true;
    }
    /* One event of that many packets at the current position, not yet received. */
    void set_pending(uint8_t packets)
    {
        unsigned char *ring = reinterpret_cast<unsigned char *>(dev->rep_map.map_recvq);
        ring[29] = 64;
        ring[30] = packets;
        ring[63] = packets ? 0 : 0xFF;
    }
    /* The socket options set since the last bind, as "NAME VALUE" with the bytes of the value. */
    Lines options()
    {
        Lines lines;
        for (const SocketCall &call : host.sockets.log())
            if (call.slot == Slot::setsockopt)
                lines.push_back((call.level == IPPROTO_IP ? "" : "level " + std::to_string(call.level) + " ") +
                                std::to_string(call.name) + " " + hex(call.in.data(), call.in.size()));
        return lines;
    }
    std::vector<ruk_channel_t> channels()
    {
        std::vector<ruk_channel_t> all;
        for (ruk_channel_t ch = dev->rep_chanq.tqh_first; ch; ch = ch->ch_link.tqe_next)
            all.push_back(ch);
        return all;
    }
    /* An entry's address as it is printed. */
    static std::string printed(const struct ruk__tag_entry *entry)
    {
        char text[32];
        snprintf(text, sizeof text, "%#lx", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(entry)));
        return text;
    }
};

} // namespace test_support
