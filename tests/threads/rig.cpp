#include "rig.h"
#include "ruk_core.h"
#include "tov.h"

#include <arpa/inet.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

namespace threads {

constexpr uint16_t STRAY_TAG = 3967;
constexpr uint64_t MS = 1000000;

Adapter::Adapter(Switch before) : switch_times("OXEL_ARISTA_ENABLE_TIMESTAMPING", before == Switch::on ? "1" : nullptr)
{
    softnic_board_config_t config;
    softnic_board_defaults(&config, 0);
    config.one_address = 1;
    config.endpoints = 4;
    config.recvq_size = 65536;
    config.sreqs_count = REQUESTS;
    config.manual_sends = 1; /* requests are posted over here, faster than a firmware that looks for them can read */
    nic = softnic_create(&config, 1, 1700000000000000000);
    EXPECT_EQ(softnic_attach(nic), 0);
    softnic_set_blocking_waits(nic, 1);
    if (before == Switch::on)
        EXPECT_EQ(softnic_set_switch(nic, 0, "interval=1"), 0);
    memcpy(mac, config.mac, sizeof mac);
    host = std::make_unique<PlainHost>(mac);
    EXPECT_EQ(ruk_init(RUK_API_VERSION), 0);
}

Adapter::~Adapter() { softnic_destroy(nic); }

void Adapter::deliver(uint32_t to, uint16_t port) const
{
    recv_rig::UdpFrame frame;
    frame.src = PEER;
    frame.dst = to;
    frame.dport = port;
    frame.payload = {'a', 'b', 'c'};
    const recv_rig::Bytes bytes = frame.bytes();
    softnic_inject(nic, 0, bytes.data(), bytes.size() - 4);
    deliver_keyframe();
}

void Adapter::deliver_keyframe() const
{
    softnic_advance(nic, MS);
    softnic_run(nic);
}

ruk_device_t open_endpoint(int flags)
{
    in_addr addr = {htonl(HOST)};
    ruk_device_t dev = nullptr;
    EXPECT_EQ(ruk_open(&addr, flags, &dev), 0);
    return dev;
}

void add_stray(ruk_device_t dev)
{
    EXPECT_EQ(ruk_filter_add(dev, 17, 0, htonl(HOST), htons(STRAY_PORT), STRAY_TAG, 0), 0);
}

Shared::Shared(const Adapter &a, int flags) : adapter(a), dev(open_endpoint(flags))
{
    EXPECT_EQ(ruk_bind(dev, RUK_BIND_BROADCAST, 0, this, &ch), 0);
    add_stray(dev);
    sockaddr_in sin = {};
    EXPECT_EQ(ruk_getaddress(ch, &sin), 0);
    port = ntohs(sin.sin_port);
    for (int side = 0; side < 2; side++) {
        const in_addr group = group_of(side + 2);
        EXPECT_EQ(ruk_bind(dev, 0, 0, nullptr, &own[side]), 0);
        EXPECT_EQ(ruk_mcast_join(own[side], &group, nullptr), 0);
    }
    const sockaddr_in to = peer_address(0);
    EXPECT_EQ(ruk_send_connect(ch, &to, 0, 0, &handle), 0);
    EXPECT_EQ(oxel_raw_open_endpoint(0, &raw, TOV_PRODUCT), 0);
    EXPECT_EQ(ruk__open_soft(dev, &soft), 0);
}

Shared::~Shared()
{
    tov_close(soft);
    tov_close(oxel_raw_handle(raw));
    oxel_raw_close_endpoint(raw);
    EXPECT_EQ(ruk_close(dev), 0);
}

void Shared::deliver() const
{
    adapter.deliver(HOST, STRAY_PORT);
    adapter.deliver(HOST, port);
}

void Shared::settle()
{
    uint8_t buf[2048];
    size_t len;
    while (ruk_raw_recv_nb(dev, buf, &len, nullptr, nullptr) == 0) {
    }
    EXPECT_EQ(ruk_set_filter_mode(dev, RUK_RECV_FILTER_NORMAL), 0);
    ruk__try_send_completion(dev);
    unsigned left = 0;
    struct ruk__request *req;
    STAILQ_FOREACH(req, &dev->rep_sreq_inflightq, req_link)
    left++;
    softnic_bump_completions(adapter.nic, 0, dev->rep_epid, left);
    ruk__try_send_completion(dev);
    posted.store(0, std::memory_order_relaxed);
    completed = 0;
}

void Shared::fill()
{
    const uint8_t payload[64] = {};
    int rc;
    while ((rc = ruk_send(handle, payload, sizeof payload, RUK_NONBLOCK)) == 0)
        posted.fetch_add(1, std::memory_order_relaxed);
    EXPECT_EQ(rc, EAGAIN);
}

void Shared::complete_one()
{
    if (adapter.host->waiting() == 0 || posted.load(std::memory_order_relaxed) == completed)
        return;
    softnic_bump_completions(adapter.nic, 0, dev->rep_epid, 1);
    completed++;
}

void pause(int i)
{
    if (i < PATIENCE)
        __builtin_ia32_pause();
    else
        usleep(20);
}

struct sockaddr_in peer_address(int side)
{
    struct sockaddr_in sin = {};
    sin.sin_family = AF_INET;
    sin.sin_port = htons(static_cast<uint16_t>(5001 + side));
    sin.sin_addr.s_addr = htonl(PEER);
    return sin;
}

struct in_addr group_of(int side) { return {htonl(0xef4d0200u + static_cast<uint32_t>(side))}; }

} // namespace threads
