/* An endpoint of the library, opened and bound through its public calls, on a stepped adapter. */
#pragma once

#include "fake_host.h"
#include "recv_frames.h"
#include "ruk.h"
#include "scoped_env.h"
#include "softnic.h"

#include <arpa/inet.h>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>

namespace adapter_rig {

using recv_rig::Bytes;
using recv_rig::UdpFrame;
using test_support::FakeHost;
using test_support::ScopedEnv;

constexpr uint64_t START = 1700000000000000000;
constexpr uint32_t HOST = 0x7f000001;
constexpr uint32_t PEER = 0x7f000002;
constexpr uint32_t GROUP = 0xe0010203;

/* One board, and the host that its interface belongs to. */
struct Wire {
    FakeHost host;
    softnic_t *nic;

    explicit Wire(const std::function<void(softnic_board_config_t &)> &change = {})
    {
        softnic_board_config_t config;
        softnic_board_defaults(&config, 0);
        if (change)
            change(config);
        memcpy(host.interfaces[0].mac.data(), config.mac, 6);
        host.interfaces[0].broadcast = "127.255.255.255";
        nic = softnic_create(&config, 1, START);
        EXPECT_EQ(softnic_attach(nic), 0);
        EXPECT_EQ(ruk_init(RUK_API_VERSION), 0);
    }
    ~Wire() { softnic_destroy(nic); }

    /* The frame as it is on the wire: the adapter appends the check sequence itself. */
    void inject(const UdpFrame &frame) const
    {
        const Bytes bytes = frame.bytes();
        softnic_inject(nic, 0, bytes.data(), bytes.size() - 4);
    }
    void inject_raw(const Bytes &frame) const { softnic_inject(nic, 0, frame.data(), frame.size()); }
    softnic_endpoint_counters_t counters() const
    {
        softnic_endpoint_counters_t c;
        softnic_endpoint_counters(nic, 0, 0, &c);
        return c;
    }
};

struct Endpoint {
    ruk_device_t dev = nullptr;
    explicit Endpoint(int flags = 0)
    {
        ScopedEnv no_check("RUK_IP_ACCELERATION", "1");
        in_addr addr = {htonl(HOST)};
        EXPECT_EQ(ruk_open(&addr, flags, &dev), 0);
    }
    ~Endpoint()
    {
        if (dev)
            ruk_close(dev);
    }
    ruk_channel_t bind(int port = 0, int flags = 0, void *context = nullptr)
    {
        ruk_channel_t chan = nullptr;
        EXPECT_EQ(ruk_bind(dev, flags, port, context, &chan), 0);
        return chan;
    }
    uint16_t port_of(ruk_channel_t chan)
    {
        sockaddr_in sin = {};
        EXPECT_EQ(ruk_getaddress(chan, &sin), 0);
        return ntohs(sin.sin_port);
    }
};

struct Got {
    int rc = -1;
    ruk_recv_info info = {};
    Bytes data;
};

inline Got recv(const Endpoint &ep, enum ruk_recvmode mode = RUK_RECV_NONBLOCK)
{
    Got got;
    got.data.assign(2048, 0);
    got.rc = ruk_recvfrom(ep.dev, mode, got.data.data(), got.data.size(), &got.info);
    got.data.resize(got.rc == 0 && got.info.msg_len <= 2048 ? got.info.msg_len : 0);
    return got;
}

inline UdpFrame frame_for(uint16_t port, Bytes payload)
{
    UdpFrame frame;
    frame.src = PEER;
    frame.dst = HOST;
    frame.dport = port;
    frame.payload = std::move(payload);
    return frame;
}

} // namespace adapter_rig
