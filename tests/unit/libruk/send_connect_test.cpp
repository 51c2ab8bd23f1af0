/* Making and removing send handles, and those that a channel keeps by itself. */
#include "send_rig.h"

#include <atomic>
#include <thread>

namespace {

using namespace send_rig;

class ConnectTest : public SendTest {
protected:
    ConnectTest()
    {
        host.sockets.sendto = [this](int, const void *, size_t, int, const struct sockaddr *, socklen_t) -> ssize_t {
            prompts++;
            return 0;
        };
        host.sockets.on_ioctl[SIOCGARP] = [this, next = host.sockets.on_ioctl[SIOCGARP]](int fd, void *arg) {
            if (on_arp)
                on_arp();
            return next(fd, arg);
        };
    }
    ~ConnectTest() override
    {
        if (dev)
            ruk_close(dev);
        dev = nullptr;
    }

    ruk_send_t connect(const std::string &address, uint16_t port, int ttl = 0, int flags = 0)
    {
        struct sockaddr_in sin = ipv4(address, port);
        ruk_send_t dhs = nullptr;
        EXPECT_EQ(ruk_send_connect(ch, &sin, flags, ttl, &dhs), 0) << address;
        return dhs;
    }
    /* The result; the handle's place must stay as it was, errno must tell the same, and no handle be made. */
    int refused(const std::string &address, int flags = 0, int ttl = 0)
    {
        struct sockaddr_in sin = ipv4(address, 5001);
        ruk_send_t const mark = reinterpret_cast<ruk_send_t>(this);
        ruk_send_t dhs = mark;
        const size_t before = handles(ch);
        errno = 0;
        int rc = ruk_send_connect(ch, &sin, flags, ttl, &dhs);
        EXPECT_EQ(errno, rc);
        EXPECT_EQ(dhs, mark);
        EXPECT_EQ(handles(ch), before);
        EXPECT_TRUE(lock_is_free());
        return rc;
    }
    int sendto(const std::string &address, uint16_t port, int flags = 0)
    {
        struct sockaddr_in sin = ipv4(address, port);
        return ruk_sendto(ch, &sin, "abc", 3, flags);
    }
    /* Rounds of asking the kernel: each that finds nothing lists the host's interfaces once. */
    unsigned rounds() { return host.getifaddrs_calls - lists_before_; }
    void count_anew()
    {
        lists_before_ = host.getifaddrs_calls;
        prompts = 0;
        host.sockets.clear();
    }
    void SetUp() override
    {
        SendTest::SetUp();
        count_anew();
    }

    unsigned prompts = 0;
    std::function<void()> on_arp;

private:
    unsigned lists_before_ = 0;
};

/* ------------------------------------------------------------------ arguments */

TEST_F(ConnectTest, NoAddress_Invalid)
{
    ruk_send_t dhs = nullptr;
    errno = 0;
    EXPECT_EQ(ruk_send_connect(ch, nullptr, 0, 0, &dhs), EINVAL);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(refused("0.0.0.0"), EINVAL);
    errno = 0;
    EXPECT_EQ(ruk_sendto(ch, nullptr, "abc", 3, 0), EINVAL);
    EXPECT_EQ(errno, EINVAL);
    errno = 0;
    EXPECT_EQ(sendto("0.0.0.0", 5001), EINVAL);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(arp_queries(), 0u);
    EXPECT_EQ(handles(ch), 0u);
    EXPECT_EQ(sent().size(), 0u);
}

TEST_F(ConnectTest, TtlBelow0OrAbove64_Invalid)
{
    for (int ttl : {-1, 65, 255, 256, INT32_MIN, INT32_MAX})
        EXPECT_EQ(refused("10.77.0.2", 0, ttl), EINVAL) << ttl;
    EXPECT_EQ(arp_queries(), 0u);
}

TEST_F(ConnectTest, TtlUpTo64_Taken)
{
    for (int ttl : {1, 2, 63, 64}) {
        ruk_send_t dhs = connect("10.77.0.2", 5001, ttl);
        ASSERT_EQ(ruk_send(dhs, "abc", 3, 0), 0);
        EXPECT_EQ(sent_datagram().ttl, static_cast<unsigned>(ttl));
    }
}

/* ------------------------------------------------------------------ what is made */

TEST_F(ConnectTest, Connected_HandleFilledIn)
{
    ruk_send_t dhs = connect("10.77.0.2", 5001, 7);
    EXPECT_EQ(dhs->dhs_socket, nullptr);
    EXPECT_EQ(dhs->dhs_rep, dev);
    EXPECT_EQ(dhs->dhs_chan, ch);
    EXPECT_EQ(dhs->dhs_dpeer.pa_ip_addr_be32, be32("10.77.0.2"));
    EXPECT_EQ(hex(dhs->dhs_dpeer.pa_eth_dest, 6), "020000000002");
    EXPECT_EQ(dhs->dhs_dport_be16, htons(5001));
    EXPECT_EQ(dhs->dhs_ip_proto, 17);
    EXPECT_EQ(dhs->dhs_isuser, 1);
    EXPECT_EQ(dhs->dhs_hashval, 245);
    EXPECT_EQ(dhs->dhs_peer_hdrinfo.ip_ttl, 7);
}

TEST_F(ConnectTest, BehindTheGateway_ItsMacAddressAndTheDestinationsOwnAddress)
{
    ruk_send_t dhs = connect("8.8.4.4", 53);
    EXPECT_EQ(hex(dhs->dhs_dpeer.pa_eth_dest, 6), "0200000000fe");
    EXPECT_EQ(dhs->dhs_dpeer.pa_ip_addr_be32, be32("8.8.4.4"));
}

/* Sum of the six bytes of port and address, modulo 256. */
TEST_F(ConnectTest, Bucket_SumOfPortAndAddress)
{
    const struct {
        const char *address;
        uint16_t port;
        int bucket;
    } cases[] = {
        {"10.77.0.2", 5001, 245}, {"10.77.0.2", 0x8913, 245}, {"10.77.0.2", 0, 89},
        {"10.77.0.2", 65535, 87}, {"10.77.0.2", 167, 0},      {"10.77.0.2", 166, 255},
        {"0.0.0.1", 0, 1},        {"224.1.2.3", 0x1020, 22},  {"250.250.250.250", 0, 232},
    };
    size_t n = 0;
    for (const auto &c : cases) {
        ruk_send_t dhs = connect(c.address, c.port);
        EXPECT_EQ(dhs->dhs_hashval, c.bucket) << c.address << ":" << c.port;
        EXPECT_EQ(bucket(ch, c.bucket).back(), dhs);
        EXPECT_EQ(handles(ch), ++n) << "and in no other";
    }
}

TEST_F(ConnectTest, OneDestinationTwice_TwoHandlesAtTheBucketsEnd)
{
    ruk_send_t first = connect("10.77.0.2", 5001), second = connect("10.77.0.2", 5001);
    EXPECT_NE(first, second);
    ASSERT_EQ(sendto("10.77.0.2", 5001), 0);
    ruk_send_t third = connect("10.77.0.2", 0x8913);
    std::vector<ruk_send_t> all = bucket(ch, 245);
    ASSERT_EQ(all.size(), 4u);
    EXPECT_EQ(all[0], first);
    EXPECT_EQ(all[1], second);
    EXPECT_EQ(all[2]->dhs_isuser, 0);
    EXPECT_EQ(all[3], third);
    EXPECT_EQ(ch->ch_sendhandleq[245].tqh_last, &third->dhs_link.tqe_next);
    EXPECT_EQ(arp_queries(), 1u) << "the next hop is known after the first";
}

TEST_F(ConnectTest, EachChannelHasHandlesOfItsOwn)
{
    struct sockaddr_in sin = ipv4("10.77.0.2", 5001);
    ASSERT_EQ(ruk_sendto(ch, &sin, "abc", 3, 0), 0);
    ASSERT_EQ(ruk_sendto(tagged, &sin, "abc", 3, 0), 0);
    EXPECT_EQ(handles(ch), 1u);
    EXPECT_EQ(handles(tagged), 1u);
    EXPECT_EQ(bucket(tagged, 245).at(0)->dhs_chan, tagged);
}

TEST_F(ConnectTest, MemoryShort_SaidAndNothingMade)
{
    connect("10.77.0.2", 5001);
    {
        AllocFault fault(1);
        EXPECT_EQ(refused("10.77.0.2"), ENOMEM);
    }
    AllocFault fault(1);
    errno = 0;
    EXPECT_EQ(sendto("10.77.0.2", 5001), ENOMEM);
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_EQ(handles(ch), 1u);
    EXPECT_EQ(sent().size(), 0u);
}

/* ------------------------------------------------------------------ the next hop */

TEST_F(ConnectTest, OwnMacAddress_Invalid)
{
    host.arp.push_back({"10.77.0.3", {0x02, 0x6f, 0x78, 0x00, 0x00, 0x01}});
    host.arp.push_back({"10.77.0.4", {0x02, 0x6f, 0x78, 0x00, 0x00, 0x02}});
    EXPECT_EQ(refused("10.77.0.3"), EINVAL);
    errno = 0;
    EXPECT_EQ(sendto("10.77.0.3", 5001), EINVAL);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(handles(ch), 0u);
    connect("10.77.0.4", 5001); /* another adapter's is none of ours */
    EXPECT_EQ(sent().size(), 0u);
}

/* What counts is the permanent address, whatever the adapter uses. */
TEST_F(ConnectTest, GatewayThatIsThisAdapter_Invalid)
{
    host.arp[1].mac = {0x02, 0x6f, 0x78, 0x00, 0x00, 0x01};
    EXPECT_EQ(refused("8.8.8.8"), EINVAL);
}

TEST_F(ConnectTest, NoRoute_Unreachable)
{
    dev->rep_num_valid_rts = 0;
    StreamCapture streams;
    EXPECT_EQ(refused("10.77.0.2"), EHOSTUNREACH);
    EXPECT_EQ(sendto("10.77.0.2", 5001), EHOSTUNREACH);
    EXPECT_EQ(streams.err(), "No route to host 10.77.0.2\nNo route to host 10.77.0.2\n");
}

TEST_F(ConnectTest, NeighbourMissing_Nonblocking_NotAvailableAfterTwoQueries)
{
    EXPECT_EQ(refused("10.77.0.9", RUK_NONBLOCK), EADDRNOTAVAIL);
    EXPECT_EQ(rounds(), 2u);
    EXPECT_EQ(prompts, 1u);
    count_anew();
    errno = 0;
    EXPECT_EQ(sendto("10.77.0.9", 5001, RUK_NONBLOCK), EADDRNOTAVAIL);
    EXPECT_EQ(errno, EADDRNOTAVAIL);
    EXPECT_EQ(rounds(), 2u);
    EXPECT_EQ(prompts, 1u);
    EXPECT_EQ(handles(ch), 0u);
    EXPECT_EQ(sent().size(), 0u);
}

TEST_F(ConnectTest, NeighbourMissing_Blocking_ThousandRetries)
{
    EXPECT_EQ(refused("10.77.0.9"), EADDRNOTAVAIL);
    EXPECT_EQ(rounds(), 1001u);
    EXPECT_EQ(prompts, 1000u);
    count_anew();
    EXPECT_EQ(sendto("10.77.0.9", 5001), EADDRNOTAVAIL);
    EXPECT_EQ(rounds(), 1001u);
}

TEST_F(ConnectTest, OnlyTheNonblockBitCounts)
{
    EXPECT_EQ(refused("10.77.0.9", ~RUK_NONBLOCK), EADDRNOTAVAIL);
    EXPECT_EQ(rounds(), 1001u);
    count_anew();
    EXPECT_EQ(refused("10.77.0.9", -1), EADDRNOTAVAIL);
    EXPECT_EQ(rounds(), 2u);
}

TEST_F(ConnectTest, NeighbourFoundWhileTrying_Connected)
{
    unsigned queries = 0;
    on_arp = [&] {
        if (++queries == 31)
            host.arp.push_back({"10.77.0.9", {2, 0, 0, 0, 0, 9}});
    };
    ruk_send_t dhs = connect("10.77.0.9", 5001);
    EXPECT_EQ(hex(dhs->dhs_dpeer.pa_eth_dest, 6), "020000000009");
    EXPECT_EQ(queries, 31u);
}

TEST_F(ConnectTest, ResolutionReportsEnxio_AgainLaterWhenNonblocking)
{
    host.getifaddrs_error = ENXIO;
    StreamCapture streams;
    EXPECT_EQ(refused("10.77.0.9", RUK_NONBLOCK), EAGAIN);
    EXPECT_EQ(streams.err(), "ARP lookup of 10.77.0.9 failed after 1 tries.\n");
    errno = 0;
    EXPECT_EQ(sendto("10.77.0.9", 5001, RUK_NONBLOCK), EAGAIN);
    EXPECT_EQ(errno, EAGAIN);
    streams.clear();
    EXPECT_EQ(refused("10.77.0.9"), ENXIO);
    EXPECT_EQ(streams.err(), "ARP lookup of 10.77.0.9 failed after 1000 tries.\n");
}

TEST_F(ConnectTest, OtherErrorsOfResolution_PassThrough)
{
    host.getifaddrs_error = EMFILE;
    StreamCapture streams;
    EXPECT_EQ(refused("10.77.0.9", RUK_NONBLOCK), EMFILE);
    EXPECT_EQ(streams.err(), "read_arp failed, errono:24, Too many open files\n");
}

TEST_F(ConnectTest, GroupsAndBroadcasts_ConnectedWithoutAsking)
{
    dev->rep_num_valid_rts = 0;
    EXPECT_EQ(hex(connect("239.0.0.1", 5001)->dhs_dpeer.pa_eth_dest, 6), "01005e000001");
    EXPECT_EQ(hex(connect("10.77.0.255", 5001)->dhs_dpeer.pa_eth_dest, 6), "ffffffffffff");
    EXPECT_EQ(arp_queries(), 0u);
}

/* ------------------------------------------------------------------ kept handles */

TEST_F(ConnectTest, SendtoTwice_OneKeptHandle)
{
    ASSERT_EQ(sendto("10.77.0.2", 5001), 0);
    ASSERT_EQ(handles(ch), 1u);
    ruk_send_t dhs = bucket(ch, 245).at(0);
    EXPECT_EQ(dhs->dhs_isuser, 0);
    ASSERT_EQ(sendto("10.77.0.2", 5001), 0);
    EXPECT_EQ(bucket(ch, 245), (std::vector<ruk_send_t>{dhs}));
    EXPECT_EQ(handles(ch), 1u);
    EXPECT_EQ(arp_queries(), 1u);
}

TEST_F(ConnectTest, OtherPortOrAddressInTheSameBucket_HandleOfItsOwn)
{
    host.arp.push_back({"10.77.0.3", {2, 0, 0, 0, 0, 3}});
    ASSERT_EQ(sendto("10.77.0.2", 5001), 0);
    ASSERT_EQ(sendto("10.77.0.2", 0x8913), 0);
    ASSERT_EQ(sendto("10.77.0.3", 5000), 0);
    ASSERT_EQ(sendto("10.77.1.1", 5001), 0);
    std::vector<ruk_send_t> all = bucket(ch, 245);
    ASSERT_EQ(all.size(), 4u);
    EXPECT_EQ(handles(ch), 4u);
    sent();
    ASSERT_EQ(sendto("10.77.1.1", 5001), 0);
    EXPECT_EQ(sent_datagram().dst, "10.77.1.1:5001");
    ASSERT_EQ(sendto("10.77.0.2", 0x8913), 0);
    EXPECT_EQ(sent_datagram().dst, "10.77.0.2:35091");
    ASSERT_EQ(sendto("10.77.0.3", 5000), 0);
    EXPECT_EQ(sent_datagram().dst, "10.77.0.3:5000");
    ASSERT_EQ(sendto("10.77.0.2", 5001), 0);
    EXPECT_EQ(sent_datagram().dst, "10.77.0.2:5001");
    EXPECT_EQ(bucket(ch, 245), all);
}

TEST_F(ConnectTest, HandlesOfTheApplication_NotTakenBySendto)
{
    ruk_send_t dhs = connect("10.77.0.2", 5001, 3);
    ASSERT_EQ(sendto("10.77.0.2", 5001), 0);
    EXPECT_EQ(sent_datagram().ttl, 64u);
    EXPECT_EQ(bucket(ch, 245).size(), 2u);
    EXPECT_EQ(dhs->dhs_isuser, 1);
}

TEST_F(ConnectTest, KeptHandle_ItsTtlIsNotCompared)
{
    struct sockaddr_in sin = ipv4("10.77.0.2", 5001);
    ruk_send_t first = nullptr, second = nullptr;
    ASSERT_EQ(ruk__do_send_connect(ch, &sin, 0, 5, &first, 0), 0);
    ASSERT_EQ(ruk__do_send_connect(ch, &sin, RUK_NONBLOCK, 9, &second, 0), 0);
    EXPECT_EQ(first, second);
    EXPECT_EQ(first->dhs_peer_hdrinfo.ip_ttl, 5);
    EXPECT_EQ(ruk__do_send_connect(ch, &sin, 0, 65, &second, 0), EINVAL) << "though checked";
}

/* A neighbour that gets another MAC address is not noticed. */
TEST_F(ConnectTest, KeptHandle_NeverExpires)
{
    ASSERT_EQ(sendto("10.77.0.2", 5001), 0);
    host.arp[0].mac = {2, 0, 0, 0, 0, 0x22};
    memset(dev->rep_mac_cache, 0, sizeof dev->rep_mac_cache);
    dev->rep_num_valid_rts = 0;
    sent();
    ASSERT_EQ(sendto("10.77.0.2", 5001), 0);
    EXPECT_EQ(sent_datagram().dst_mac, "020000000002");
    EXPECT_EQ(arp_queries(), 1u);
}

TEST_F(ConnectTest, RefusedOnce_MadeWhenItBecomesPossible)
{
    EXPECT_EQ(sendto("10.77.0.9", 5001, RUK_NONBLOCK), EADDRNOTAVAIL);
    host.arp.push_back({"10.77.0.9", {2, 0, 0, 0, 0, 9}});
    EXPECT_EQ(sendto("10.77.0.9", 5001, RUK_NONBLOCK), 0);
    EXPECT_EQ(sent_datagram().dst_mac, "020000000009");
}

/* ------------------------------------------------------------------ disconnecting */

TEST_F(ConnectTest, Disconnected_TakenOutOfItsBucket)
{
    ruk_send_t first = connect("10.77.0.2", 5001), second = connect("10.77.0.2", 5001),
               third = connect("10.77.0.2", 5001), other = connect("10.77.0.2", 5002);
    EXPECT_EQ(ruk_send_disconnect(second), 0);
    EXPECT_EQ(bucket(ch, 245), (std::vector<ruk_send_t>{first, third}));
    EXPECT_EQ(ruk_send_disconnect(third), 0);
    EXPECT_EQ(bucket(ch, 245), (std::vector<ruk_send_t>{first}));
    EXPECT_EQ(ch->ch_sendhandleq[245].tqh_last, &first->dhs_link.tqe_next);
    EXPECT_EQ(ruk_send_disconnect(first), 0);
    EXPECT_TRUE(bucket(ch, 245).empty());
    EXPECT_EQ(ch->ch_sendhandleq[245].tqh_last, &ch->ch_sendhandleq[245].tqh_first);
    EXPECT_EQ(bucket(ch, 246), (std::vector<ruk_send_t>{other}));
    EXPECT_TRUE(lock_is_free());
    ASSERT_EQ(ruk_send(other, "abc", 3, 0), 0);
    EXPECT_EQ(sent_datagram().dst, "10.77.0.2:5002");
}

TEST_F(ConnectTest, HandleWithoutAChannel_NotConnected)
{
    struct ruk__send dhs = {};
    errno = 0;
    EXPECT_EQ(ruk_send_disconnect(&dhs), ENOTCONN);
    EXPECT_EQ(errno, ENOTCONN);
}

TEST_F(ConnectTest, ManyMadeAndRemoved_NothingStays)
{
    std::vector<ruk_send_t> all;
    for (int i = 0; i < 1000; i++)
        all.push_back(connect("10.77.0.2", static_cast<uint16_t>(7 * i)));
    EXPECT_EQ(handles(ch), 1000u);
    for (size_t i = 0; i < 1000; i += 2)
        ASSERT_EQ(ruk_send_disconnect(all[i]), 0);
    EXPECT_EQ(handles(ch), 500u);
    for (size_t i = 1; i < 1000; i += 2)
        ASSERT_EQ(ruk_send_disconnect(all[i]), 0);
    EXPECT_EQ(handles(ch), 0u);
}

/* Both kinds go with their channel; what was left shows under the address sanitizer. */
TEST_F(ConnectTest, UnboundOrClosedWithHandles_AllReleased)
{
    for (uint16_t port = 1; port <= 300; port++) {
        connect("10.77.0.2", port);
        ASSERT_EQ(sendto("10.77.0.2", port), 0);
        sent();
    }
    struct sockaddr_in sin = ipv4("10.77.7.2", 5001);
    ruk_send_t dhs;
    ASSERT_EQ(ruk_send_connect(tagged, &sin, 0, 0, &dhs), 0);
    ASSERT_EQ(ruk_sendto(tagged, &sin, "abc", 3, 0), 0);
    EXPECT_EQ(handles(ch), 600u);
    EXPECT_EQ(ruk_unbind(ch), 0);
    EXPECT_EQ(handles(tagged), 2u) << "the other channel's stay";
    ASSERT_EQ(ruk_send(dhs, "abc", 3, 0), 0);
    EXPECT_EQ(ruk_close(dev), 0);
    dev = nullptr;
    EXPECT_EQ(softnic_claimed(nic, 0), 0u);
}

/* ------------------------------------------------------------------ locks */

TEST_F(ConnectTest, LockIsDroppedWhileTheKernelIsAskedAlone_OtherThreadWaits)
{
    unsigned asked = 0;
    on_arp = [&] {
        asked++;
        EXPECT_TRUE(lock_is_free());
    };
    connect("10.77.0.2", 5001);
    EXPECT_EQ(asked, 1u);
    EXPECT_TRUE(lock_is_free());

    pthread_mutex_lock(&dev->rep_lock);
    std::atomic<int> done{0};
    std::thread other([&] {
        connect("10.77.0.2", 5001);
        done = 1;
        EXPECT_EQ(ruk_send_disconnect(bucket(ch, 245).at(0)), 0);
        done = 2;
    });
    usleep(20000);
    EXPECT_EQ(done, 0) << "making waits for the lock";
    EXPECT_EQ(bucket(ch, 245).size(), 1u);
    pthread_mutex_unlock(&dev->rep_lock);
    other.join();
    EXPECT_EQ(done, 2);
}

TEST_F(ConnectTest, Disconnect_WaitsForTheThreadThatHoldsTheLock)
{
    ruk_send_t dhs = connect("10.77.0.2", 5001);
    pthread_mutex_lock(&dev->rep_lock);
    std::atomic<bool> done{false};
    std::thread other([&] {
        EXPECT_EQ(ruk_send_disconnect(dhs), 0);
        done = true;
    });
    usleep(20000);
    EXPECT_FALSE(done);
    EXPECT_EQ(bucket(ch, 245), (std::vector<ruk_send_t>{dhs}));
    pthread_mutex_unlock(&dev->rep_lock);
    other.join();
    EXPECT_TRUE(bucket(ch, 245).empty());
}

/* The lock is dropped while the kernel is asked: two first sends to one destination may both make a handle. */
TEST_F(ConnectTest, TwoFirstSendsAtOnce_BothLeave)
{
    on_arp = [this] {
        on_arp = nullptr;
        EXPECT_EQ(sendto("10.77.0.2", 5001), 0);
        EXPECT_EQ(sent().size(), 1u);
    };
    EXPECT_EQ(sendto("10.77.0.2", 5001), 0);
    EXPECT_EQ(sent().size(), 1u);
    EXPECT_EQ(bucket(ch, 245).size(), 2u);
    EXPECT_EQ(sendto("10.77.0.2", 5001), 0);
    EXPECT_EQ(bucket(ch, 245).size(), 2u) << "the first of them serves from now on";
}

/* More next hops than the cache holds, so that each thread lets go of the lock again and again. */
TEST_F(ConnectTest, FourThreads_ConnectAndDisconnect_BucketsStayWhole)
{
    for (int i = 20; i < 40; i++)
        host.arp.push_back({"10.77.0." + std::to_string(i), {2, 0, 0, 0, 0, static_cast<uint8_t>(i)}});
    std::vector<std::thread> threads;
    for (unsigned t = 0; t < 4; t++)
        threads.emplace_back([&, t] {
            for (unsigned i = 0; i < 400; i++) {
                const unsigned last = 20 + (i * 7 + t * 5) % 20;
                struct sockaddr_in sin = ipv4("10.77.0." + std::to_string(last), static_cast<uint16_t>(i % 10));
                ruk_send_t dhs = nullptr;
                ASSERT_EQ(ruk_send_connect(ch, &sin, 0, 0, &dhs), 0);
                ASSERT_EQ(dhs->dhs_dpeer.pa_eth_dest[5], last);
                if (i % 4) {
                    ASSERT_EQ(ruk_send_disconnect(dhs), 0);
                }
            }
        });
    for (std::thread &thread : threads)
        thread.join();
    EXPECT_EQ(handles(ch), 4u * 100);
    for (int i = 0; i < RUK_SEND_BUCKETS; i++) {
        for (ruk_send_t dhs : bucket(ch, i)) {
            EXPECT_EQ(dhs->dhs_hashval, i);
            EXPECT_EQ(dhs->dhs_dpeer.pa_eth_dest[5], dhs->dhs_dpeer.pa_ip_addr_be32 >> 24);
        }
    }
    EXPECT_GT(arp_queries(), 100u);
}

TEST_F(ConnectTest, EndpointWithoutLocks_ConnectsAndSends)
{
    ASSERT_EQ(ruk_close(dev), 0);
    dev = nullptr;
    struct in_addr address = in_addr_of("10.77.0.1");
    ASSERT_EQ(ruk_open(&address, 0, &dev), 0);
    ASSERT_EQ(dev->rep_lockp, nullptr);
    ASSERT_EQ(ruk_bind(dev, 0, 5000, nullptr, &ch), 0);
    ruk_send_t dhs = connect("10.77.0.2", 5001);
    ASSERT_EQ(ruk_send(dhs, "abc", 3, 0), 0);
    EXPECT_EQ(sent_datagram().dst, "10.77.0.2:5001");
    EXPECT_EQ(ruk_send_disconnect(dhs), 0);
}

} // namespace
