/* Opening, binding, joining and unbinding over the software adapter: what arrives where, and what is left. */
#include "endpoint_test.h"
#include "softnic.h"

#include <signal.h>

using namespace test_support;

namespace {

using Bytes = std::vector<uint8_t>;

void put16(Bytes *b, unsigned v)
{
    b->push_back(static_cast<uint8_t>(v >> 8));
    b->push_back(static_cast<uint8_t>(v));
}
void put32(Bytes *b, uint32_t v)
{
    put16(b, v >> 16);
    put16(b, v & 0xFFFF);
}

/* A datagram of three bytes from 10.77.0.2:40000; vlan 0 is untagged. */
Bytes datagram(const char *to, uint16_t port, uint16_t vlan = 0)
{
    Bytes b = {0x02, 0x6f, 0x78, 0, 0, 1, 0x02, 0, 0, 0, 0, 2};
    const uint32_t dst = ntohl(inet_addr(to));
    if (dst >> 28 == 0xE) { /* a group's MAC address */
        const uint8_t group[6] = {1,
                                  0,
                                  0x5e,
                                  static_cast<uint8_t>(dst >> 16 & 0x7F),
                                  static_cast<uint8_t>(dst >> 8),
                                  static_cast<uint8_t>(dst)};
        std::copy(group, group + 6, b.begin());
    }
    if (dst == 0xFFFFFFFF)
        std::fill(b.begin(), b.begin() + 6, 0xFF);
    if (vlan) {
        put16(&b, 0x8100);
        put16(&b, vlan);
    }
    put16(&b, 0x0800);
    put16(&b, 0x4500);
    put16(&b, 20 + 8 + 3);
    put32(&b, 0);
    put32(&b, 0x40110000); /* TTL 64, UDP */
    put32(&b, 0x0A4D0002);
    put32(&b, dst);
    put16(&b, 40000);
    put16(&b, port);
    put16(&b, 8 + 3);
    put16(&b, 0);
    for (char c : {'a', 'b', 'c'})
        b.push_back(static_cast<uint8_t>(c));
    b.resize(std::max<size_t>(b.size(), 60));
    return b;
}

class BindAdapterTest : public testing::Test {
protected:
    BindAdapterTest()
    {
        host.interfaces = {{.name = "oxel0", .address = "10.77.0.1", .netmask = "255.255.255.0"},
                           {.name = "vlan7", .address = "10.77.7.1", .netmask = "255.255.255.0"}};
        softnic_board_config_t config;
        softnic_board_defaults(&config, 0);
        nic = softnic_create(&config, 1, 1700000000000000000u);
        EXPECT_EQ(softnic_attach(nic), 0);
    }
    ~BindAdapterTest() override
    {
        for (ruk_device_t d : devices)
            ruk_close(d);
        EXPECT_EQ(softnic_claimed(nic, 0), 0u);
        softnic_destroy(nic);
    }
    ruk_device_t open(int flags = 0)
    {
        struct in_addr address = in_addr_of("10.77.0.1");
        ruk_device_t d = nullptr;
        EXPECT_EQ(ruk_open(&address, flags, &d), 0);
        devices.push_back(d);
        return d;
    }
    ruk_channel_t bind(ruk_device_t d, int port, int flags = 0)
    {
        ruk_channel_t ch = nullptr;
        EXPECT_EQ(ruk_bind(d, flags, port, nullptr, &ch), 0);
        return ch;
    }
    int join(ruk_channel_t ch, const char *group)
    {
        struct in_addr addr = in_addr_of(group);
        return ruk_mcast_join(ch, &addr, nullptr);
    }
    int leave(ruk_channel_t ch, const char *group)
    {
        struct in_addr addr = in_addr_of(group);
        return ruk_mcast_leave(ch, &addr);
    }
    void arrive(const Bytes &frame) { softnic_inject(nic, 0, frame.data(), frame.size()); }
    /* The channels of all that waits on an endpoint, in order. */
    std::vector<ruk_channel_t> receive(ruk_device_t d)
    {
        softnic_run(nic);
        std::vector<ruk_channel_t> channels;
        char buf[64];
        struct ruk_recv_info info;
        int rc;
        while ((rc = ruk_recvfrom(d, RUK_RECV_NONBLOCK, buf, sizeof buf, &info)) == 0) {
            EXPECT_EQ(info.msg_len, 3u);
            EXPECT_EQ(std::string(buf, 3), "abc");
            channels.push_back(info.chan);
        }
        EXPECT_EQ(rc, EAGAIN);
        return channels;
    }
    bool steered(const char *address, uint16_t port, uint16_t vlan = 0)
    {
        return softnic_steered(nic, 0, ntohl(inet_addr(address)), port, vlan, 17);
    }
    using Channels = std::vector<ruk_channel_t>;

    LibraryState state;
    ScopedEnv no_check{"RUK_IP_ACCELERATION", "1"};
    ScopedEnv no_arista{"OXEL_ARISTA_ENABLE_TIMESTAMPING", nullptr};
    ScopedEnv no_banner{"RUK_BANNER", nullptr};
    FakeHost host;
    KernelSockets kernel{host.sockets};
    softnic_t *nic = nullptr;
    std::vector<ruk_device_t> devices;
};

TEST_F(BindAdapterTest, Init_DriverOfTheAdapterAccepted)
{
    ruk__api_version = 0;
    EXPECT_EQ(ruk_init(4), 0);
    EXPECT_EQ(ruk__api_version, 4u);
}

TEST_F(BindAdapterTest, DriverOfAnotherMajorVersion_Refused)
{
    softnic_destroy(nic);
    softnic_board_config_t config;
    softnic_board_defaults(&config, 0);
    config.driver_api_magic = 0x0500;
    nic = softnic_create(&config, 1, 1700000000000000000u);
    ASSERT_EQ(softnic_attach(nic), 0);
    ruk__api_version = 0;
    StreamCapture streams;
    EXPECT_EQ(ruk_init(4), ENXIO);
    EXPECT_EQ(streams.err().substr(0, 58), "RUK library and driver API mismatch (lib=4.0, kernel=5.0\n\t");
}

TEST_F(BindAdapterTest, EveryEndpointTaken_Busy_FreedOneTakenAgain)
{
    for (uint32_t e = 0; e < 8; e++)
        EXPECT_EQ(open(RUK_OPEN_DISABLED)->rep_epid, e);
    struct in_addr address = in_addr_of("10.77.0.1");
    ruk_device_t none = nullptr;
    EXPECT_EQ(ruk_open(&address, 0, &none), EBUSY);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(ruk_close(devices[3]), 0);
    devices.erase(devices.begin() + 3);
    EXPECT_EQ(softnic_claimed(nic, 0), 0xF7u);
    EXPECT_EQ(open()->rep_epid, 3u);
}

TEST_F(BindAdapterTest, OpenedDisabled_ReceivesOnceEnabled)
{
    ruk_device_t d = open(RUK_OPEN_DISABLED);
    struct ruk_device_attrs attrs = {RUK_RECV_FILTER_NORMAL, 1u << 16, 0, 0};
    EXPECT_EQ(ruk_device_set_attrs(d, &attrs), 0);
    EXPECT_EQ(ruk_device_enable(d), 0);
    EXPECT_EQ(d->rep_map.map_recvq_len, 1u << 16) << "the queue size asked for before";
    ruk_channel_t ch = bind(d, 5000);
    arrive(datagram("10.77.0.1", 5000));
    EXPECT_EQ(receive(d), Channels{ch});
}

TEST_F(BindAdapterTest, EnableFailsOnce_WorksWhenTriedAgain)
{
    ruk_device_t d = open(RUK_OPEN_DISABLED);
    static unsigned long refused;
    for (unsigned long command : {OXEL_ENABLE_ENDPT, OXEL_GET_COPYBLOCK, OXEL_GET_SREQS_CNT}) {
        refused = command;
        softnic_set_command_hook(
            nic, [](void *, unsigned, unsigned long asked) { return asked == refused ? EIO : 0; }, nullptr);
        EXPECT_EQ(ruk_device_enable(d), EIO);
    }
    softnic_set_command_hook(nic, nullptr, nullptr);
    EXPECT_EQ(ruk_device_enable(d), 0);
    ruk_channel_t ch = bind(d, 5000);
    arrive(datagram("10.77.0.1", 5000));
    EXPECT_EQ(receive(d), Channels{ch});
}

TEST_F(BindAdapterTest, SharedPort_TrafficToTheOwnerThenToItsHeir)
{
    ruk_device_t d = open();
    ruk_channel_t owner = bind(d, 5000, RUK_BIND_REUSE), heir = bind(d, 5000, RUK_BIND_REUSE);
    arrive(datagram("10.77.0.1", 5000));
    EXPECT_EQ(receive(d), Channels{owner});
    EXPECT_EQ(ruk_unbind(owner), 0);
    arrive(datagram("10.77.0.1", 5000));
    EXPECT_EQ(receive(d), Channels{heir});
    EXPECT_TRUE(steered("10.77.0.1", 5000));
    EXPECT_EQ(ruk_unbind(heir), 0);
    EXPECT_FALSE(steered("10.77.0.1", 5000));
    arrive(datagram("10.77.0.1", 5000));
    EXPECT_EQ(receive(d), Channels{});
}

TEST_F(BindAdapterTest, SharedPort_WaitingEventsGoToTheHeirToo)
{
    ruk_device_t d = open();
    ruk_channel_t owner = bind(d, 5000, RUK_BIND_REUSE), heir = bind(d, 5000, RUK_BIND_REUSE);
    arrive(datagram("10.77.0.1", 5000));
    softnic_run(nic);
    EXPECT_EQ(ruk_unbind(owner), 0);
    EXPECT_EQ(receive(d), Channels{heir});
}

TEST_F(BindAdapterTest, Broadcast_DeliveredByItsOwnFilter)
{
    ruk_device_t d = open();
    ruk_channel_t deaf = bind(d, 5000), hearing = bind(d, 5001, RUK_BIND_BROADCAST);
    arrive(datagram("255.255.255.255", 5000));
    arrive(datagram("255.255.255.255", 5001));
    arrive(datagram("10.77.0.1", 5001));
    arrive(datagram("10.77.0.1", 5000));
    EXPECT_EQ(receive(d), (Channels{hearing, hearing, deaf}));
}

TEST_F(BindAdapterTest, VlanInterface_TaggedFramesOfThatVlanOnly)
{
    ruk_device_t d = open();
    struct in_addr address = in_addr_of("10.77.7.1");
    ruk_channel_t ch = nullptr;
    ASSERT_EQ(ruk_bind_addr(d, &address, 0, 5000, nullptr, &ch), 0);
    EXPECT_TRUE(steered("10.77.7.1", 5000, 7));
    EXPECT_FALSE(steered("10.77.7.1", 5000));
    arrive(datagram("10.77.7.1", 5000));
    arrive(datagram("10.77.7.1", 5000, 8));
    EXPECT_EQ(receive(d), Channels{});
    arrive(datagram("10.77.7.1", 5000, 7));
    EXPECT_EQ(receive(d), Channels{ch});
}

TEST_F(BindAdapterTest, Groups_EachChannelItsOwnUntilItLeaves)
{
    ruk_device_t d = open();
    ruk_channel_t first = bind(d, 5000), second = bind(d, 5001);
    ASSERT_EQ(join(first, "239.1.1.1"), 0);
    ASSERT_EQ(join(second, "239.1.1.1"), 0);
    ASSERT_EQ(join(second, "239.1.1.2"), 0);
    auto send_all = [&] {
        arrive(datagram("239.1.1.1", 5000));
        arrive(datagram("239.1.1.2", 5000));
        arrive(datagram("239.1.1.1", 5001));
        arrive(datagram("239.1.1.2", 5001));
    };
    send_all();
    EXPECT_EQ(receive(d), (Channels{first, second, second}));
    EXPECT_EQ(leave(second, "239.1.1.1"), 0);
    send_all();
    EXPECT_EQ(receive(d), (Channels{first, second}));
    EXPECT_EQ(ruk_unbind(first), 0);
    EXPECT_FALSE(steered("239.1.1.1", 5000));
    EXPECT_TRUE(steered("239.1.1.2", 5001));
}

TEST_F(BindAdapterTest, WaitingEventsOfAReleasedTag_NeverTheNextOwners)
{
    ruk_device_t d = open();
    ruk_channel_t ch = bind(d, 5000);
    for (int i = 0; i < 3; i++)
        arrive(datagram("10.77.0.1", 5000));
    softnic_run(nic);
    EXPECT_EQ(ruk_unbind(ch), 0);
    std::vector<ruk_channel_t> others;
    for (int i = 0; i < 300; i++) /* through the rest of the block and two more */
        others.push_back(bind(d, 6000 + i));
    for (const ruk_channel_t other : others)
        EXPECT_NE(other->ch_uni_entry, &d->rep_tag_table[0][0]);
    EXPECT_EQ(receive(d), Channels{});
    EXPECT_EQ(d->rep_stats.dropped_nosock, 3u);
}

TEST_F(BindAdapterTest, PortsOfSeveralEndpoints_DoNotMix)
{
    ruk_device_t a = open(), b = open();
    ruk_channel_t on_a = bind(a, 5000), on_b = bind(b, 5001);
    arrive(datagram("10.77.0.1", 5001));
    arrive(datagram("10.77.0.1", 5000));
    EXPECT_EQ(receive(a), Channels{on_a});
    EXPECT_EQ(receive(b), Channels{on_b});
}

TEST_F(BindAdapterTest, ClosedWithManyChannels_NothingLeftInTheAdapter)
{
    ruk_device_t d = open();
    for (int i = 0; i < 200; i++) {
        ruk_channel_t ch = bind(d, 5000 + i, RUK_BIND_BROADCAST);
        ASSERT_EQ(join(ch, "239.1.1.1"), 0);
    }
    EXPECT_EQ(ruk_close(d), 0);
    devices.clear();
    EXPECT_EQ(softnic_claimed(nic, 0), 0u);
    for (int i = 0; i < 200; i++) {
        const uint16_t port = static_cast<uint16_t>(5000 + i);
        EXPECT_FALSE(steered("10.77.0.1", port));
        EXPECT_FALSE(steered("255.255.255.255", port));
        EXPECT_FALSE(steered("239.1.1.1", port));
    }
    EXPECT_TRUE(kernel.memberships.empty());
}

/* The adapter refuses to remove what it removed already, which ends the process. */
TEST_F(BindAdapterTest, GroupJoinedTwiceThenUnbound_ProcessEnds)
{
    ruk_device_t d = open();
    ruk_channel_t ch = bind(d, 5000);
    ASSERT_EQ(join(ch, "239.1.1.1"), 0);
    ChildResult child = run_in_child([&] {
        EXPECT_EQ(join(ch, "239.1.1.1"), EEXIST);
        return ruk_unbind(ch);
    });
    EXPECT_TRUE(child.killed_by(SIGABRT)) << child;
    const std::string report = "ruk: assertion: <<rc == 0>>  failed at line 71, file ruk_bind\n";
    ASSERT_GT(child.out.size(), report.size()) << child;
    EXPECT_EQ(child.out.substr(0, 30), "ruk__filter_op delete returns ");
    EXPECT_EQ(child.out.substr(child.out.size() - report.size()), report);
}

TEST_F(BindAdapterTest, GetTicks_AdaptersClockBesideTheHosts)
{
    ruk_device_t d = open();
    ruk_ticks_t before, after;
    ASSERT_EQ(ruk_getticks(d, &before), 0);
    EXPECT_EQ(before.nic_ticks, softnic_ticks(nic, 0));
    EXPECT_EQ(before.host_nsecs, softnic_now(nic));
    softnic_advance(nic, 1000000);
    ASSERT_EQ(ruk_getticks(d, &after), 0);
    EXPECT_EQ(after.host_nsecs - before.host_nsecs, 1000000u);
    EXPECT_EQ(after.nic_ticks, softnic_ticks(nic, 0));
}

} // namespace
