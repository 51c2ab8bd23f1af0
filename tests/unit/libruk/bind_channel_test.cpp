/* Binding: the channel, its tags and filters, shared ports, and what a failed bind leaves. */
#include "endpoint_test.h"

using namespace test_support;

namespace {

class BindTest : public EndpointTest {
protected:
    BindTest()
    {
        open(RUK_OPEN_THREAD_SAFE);
        driver.take_trace();
    }

    ruk_channel_t bind(int port = 5000, int flags = 0)
    {
        ruk_channel_t ch = nullptr;
        EXPECT_EQ(ruk_bind(dev, flags, port, &context, &ch), 0);
        return ch;
    }
    bool lock_is_free()
    {
        if (pthread_mutex_trylock(&dev->rep_lock) != 0)
            return false;
        pthread_mutex_unlock(&dev->rep_lock);
        return true;
    }
    std::vector<ruk_channel_t> channels()
    {
        std::vector<ruk_channel_t> all;
        ruk_channel_t ch;
        TAILQ_FOREACH(ch, &dev->rep_chanq, ch_link)
        all.push_back(ch);
        return all;
    }
    /* An event of two packets waits in the ring. */
    void one_event_pending()
    {
        unsigned char *ring = reinterpret_cast<unsigned char *>(dev->rep_map.map_recvq);
        ring[29] = 64;
        ring[30] = 2;
        ring[63] = 0;
    }
    int context = 0;
};

TEST_F(BindTest, PlainBind_ChannelFilled)
{
    ruk_channel_t ch = bind(5000, 0x40);
    ASSERT_NE(ch, nullptr);
    EXPECT_EQ(ch->ch_type, 0u);
    EXPECT_EQ(ch->ch_rep, dev);
    EXPECT_EQ(ch->ch_ucontext, &context);
    ASSERT_NE(ch->ch_uni_entry, nullptr);
    EXPECT_EQ(ch->ch_bc_entry, nullptr);
    EXPECT_EQ(ch->ch_deferred_uni_entry, nullptr);
    EXPECT_EQ(ch->ch_mif, dev->rep_mif);
    EXPECT_EQ(ch->ch_bindflags, 0x40u) << "other bits are kept";
    EXPECT_GE(ch->ch_fd, 0);
    EXPECT_EQ(ch->ch_ipaddr_be32, be32("127.0.0.1"));
    EXPECT_EQ(ch->ch_vlan_be16, 0);
    EXPECT_EQ(ch->ch_port_be16, htons(5000));
    for (const struct ruk__send_queue &queue : ch->ch_sendhandleq)
        EXPECT_TRUE(TAILQ_EMPTY(&queue));
    EXPECT_TRUE(TAILQ_EMPTY(&ch->ch_tag_multiq));
    EXPECT_TRUE(TAILQ_EMPTY(&ch->ch_mreq_blocked));
    EXPECT_EQ(channels(), std::vector<ruk_channel_t>{ch});
    EXPECT_EQ(entries_of(dev->rep_tag_uniq), std::vector<struct ruk__tag_entry *>{ch->ch_uni_entry});
    EXPECT_EQ(ch->ch_uni_entry->tage_channel, ch);
    EXPECT_EQ(ch->ch_uni_entry->tage_bindflags, 0x40);
    EXPECT_TRUE(lock_is_free());
}

TEST_F(BindTest, PlainBind_OneFilter)
{
    bind(5000);
    EXPECT_EQ(driver.trace, Lines{"50EB 0100007f" /* 127.0.0.1, little-endian */
                                  "8813"          /* 5000 */
                                  "0000"          /* VLAN */
                                  "0000"          /* tag */
                                  "00"            /* install */
                                  "00"            /* not to the kernel */
                                  "00"});         /* UDP */
    EXPECT_EQ(driver.command_handles.back(), dev->rep_handle);
}

TEST_F(BindTest, KernelFlag_InTheFilter)
{
    bind(5000, RUK_BIND_KERNEL);
    bind(5001, 0x4 | RUK_BIND_BROADCAST);
    EXPECT_EQ(driver.trace, (Lines{"50EB 0100007f88130000"
                                   "0000"
                                   "000100",
                                   "50EB 0100007f89130000"
                                   "0100"
                                   "000100",
                                   "50EB ffffffff89130000"
                                   "0200"
                                   "000100"}));
}

TEST_F(BindTest, FreshEndpoint_TagsInOrder_BroadcastTakesTwo)
{
    ruk_channel_t first = bind(5000), second = bind(5001, RUK_BIND_BROADCAST), third = bind(5002);
    EXPECT_EQ(first->ch_uni_entry->tage_nuv_tag, 0);
    EXPECT_EQ(second->ch_uni_entry->tage_nuv_tag, 1);
    ASSERT_NE(second->ch_bc_entry, nullptr);
    EXPECT_EQ(second->ch_bc_entry->tage_nuv_tag, 2);
    EXPECT_EQ(third->ch_uni_entry->tage_nuv_tag, 3);
    EXPECT_EQ(second->ch_bc_entry->tage_ip_addr, 0xFFFFFFFFu);
    EXPECT_EQ(second->ch_bc_entry->tage_channel, second);
    EXPECT_EQ(tags_of(dev->rep_tag_uniq), (std::vector<int>{0, 1, 2, 3}));
    EXPECT_EQ(channels(), (std::vector<ruk_channel_t>{first, second, third}));
    ASSERT_EQ(driver.filters.size(), 4u);
    EXPECT_EQ(driver.filters[2].ip_addr, 0xFFFFFFFFu);
    EXPECT_EQ(driver.filters[2].port, 5001);
    EXPECT_EQ(driver.filters[2].tag, 2);
}

TEST_F(BindTest, BroadcastFlag_SocketMayBroadcast)
{
    host.sockets.clear();
    bind(5000, RUK_BIND_BROADCAST);
    ASSERT_EQ(host.sockets.count(Slot::setsockopt), 1u);
    EXPECT_EQ(host.sockets.log()[1].name, SO_BROADCAST);
}

TEST_F(BindTest, PortZero_HostsChoiceInAddressAndFilter)
{
    kernel.next_port = 43210;
    ruk_channel_t ch = bind(0);
    struct sockaddr_in sin;
    memset(&sin, 0xEE, sizeof sin);
    pthread_mutex_lock(&dev->rep_lock); /* takes no lock */
    EXPECT_EQ(ruk_getaddress(ch, &sin), 0);
    pthread_mutex_unlock(&dev->rep_lock);
    EXPECT_EQ(sin.sin_family, AF_INET);
    EXPECT_EQ(sin.sin_port, htons(43210));
    EXPECT_EQ(sin.sin_addr.s_addr, be32("127.0.0.1"));
    EXPECT_EQ(hex(sin.sin_zero, 8), "eeeeeeeeeeeeeeee") << "the rest is left as it was";
    ASSERT_EQ(driver.filters.size(), 1u);
    EXPECT_EQ(driver.filters[0].port, 43210);
    EXPECT_EQ(ruk_getaddress(nullptr, &sin), EINVAL);
}

TEST_F(BindTest, PortZeroTwice_NeverShared)
{
    kernel.next_port = 43210;
    ruk_channel_t first = bind(0, RUK_BIND_REUSE);
    kernel.next_port = 43210;
    ruk_channel_t second = bind(0, RUK_BIND_REUSE);
    EXPECT_EQ(second->ch_port_be16, first->ch_port_be16);
    EXPECT_NE(second->ch_uni_entry, nullptr) << "sharing is looked up by the port asked for";
    EXPECT_EQ(second->ch_deferred_uni_entry, nullptr);
}

TEST_F(BindTest, PortIsCutToSixteenBits)
{
    ruk_channel_t ch = bind(0x10000 + 5000);
    EXPECT_EQ(ch->ch_port_be16, htons(5000));
}

TEST_F(BindTest, PortBeyondSixteenBits_ThatPortIsBound_OwnEntry)
{
    bind(5000, RUK_BIND_REUSE);
    ruk_channel_t second = bind(0x10000 + 5000, RUK_BIND_REUSE);
    EXPECT_EQ(second->ch_port_be16, htons(5000));
    EXPECT_NE(second->ch_uni_entry, nullptr) << "sharing compares the port as it was given";
    EXPECT_EQ(second->ch_deferred_uni_entry, nullptr);
}

TEST_F(BindTest, NoUnicast_NoTagNoFilter)
{
    ruk_channel_t ch = bind(5000, RUK_BIND_NO_UNICAST);
    EXPECT_EQ(ch->ch_uni_entry, nullptr);
    EXPECT_EQ(ch->ch_deferred_uni_entry, nullptr);
    EXPECT_GE(ch->ch_fd, 0);
    EXPECT_EQ(driver.trace, Lines{});
    EXPECT_EQ(dev->rep_tag_cnt, 0);
    bind(5001);
    ruk_channel_t other = bind(5001, RUK_BIND_NO_UNICAST | RUK_BIND_REUSE);
    EXPECT_EQ(other->ch_deferred_uni_entry, nullptr) << "asked to take none, it inherits none";
}

TEST_F(BindTest, NoUnicastWithBroadcast_OneFilter)
{
    ruk_channel_t ch = bind(5000, RUK_BIND_NO_UNICAST | RUK_BIND_BROADCAST);
    EXPECT_EQ(ch->ch_uni_entry, nullptr);
    ASSERT_NE(ch->ch_bc_entry, nullptr);
    ASSERT_EQ(driver.filters.size(), 1u);
    EXPECT_EQ(driver.filters[0].ip_addr, 0xFFFFFFFFu);
}

TEST_F(BindTest, SharedPort_SecondChannelDefersToTheFirst)
{
    ruk_channel_t owner = bind(5000, RUK_BIND_REUSE);
    driver.take_trace();
    ruk_channel_t waiting = bind(5000, RUK_BIND_REUSE);
    EXPECT_EQ(waiting->ch_uni_entry, nullptr);
    EXPECT_EQ(waiting->ch_deferred_uni_entry, owner->ch_uni_entry);
    EXPECT_EQ(waiting->ch_bindflags, 0x2u | 0x8u);
    EXPECT_EQ(owner->ch_uni_entry->tage_channel, owner);
    EXPECT_EQ(driver.trace, Lines{});
    ruk_channel_t with_broadcast = bind(5000, RUK_BIND_REUSE | RUK_BIND_BROADCAST);
    EXPECT_EQ(with_broadcast->ch_deferred_uni_entry, owner->ch_uni_entry);
    ASSERT_NE(with_broadcast->ch_bc_entry, nullptr);
    EXPECT_EQ(with_broadcast->ch_bc_entry->tage_bindflags, 0x2 | 0x8 | 0x10);
    EXPECT_EQ(driver.trace.size(), 1u);
}

/* A port number beyond 16 bits finds no entry; its own then stands behind the first of that port. */
TEST_F(BindTest, SharedPort_SeveralEntriesOfThePort_FirstOneWaitedFor)
{
    ruk_channel_t first = bind(5000, RUK_BIND_REUSE), beyond = bind(0x10000 + 5000, RUK_BIND_REUSE);
    ASSERT_NE(first->ch_uni_entry, nullptr);
    ASSERT_NE(beyond->ch_uni_entry, nullptr);
    EXPECT_EQ(beyond->ch_port_be16, htons(5000));
    EXPECT_EQ(beyond->ch_deferred_uni_entry, nullptr);
    EXPECT_EQ(tags_of(dev->rep_tag_uniq), (std::vector<int>{0, 1}));
    ruk_channel_t third = bind(5000, RUK_BIND_REUSE);
    EXPECT_EQ(third->ch_uni_entry, nullptr);
    EXPECT_EQ(third->ch_deferred_uni_entry, first->ch_uni_entry);
}

/* A broadcast entry is no unicast entry of the port. */
TEST_F(BindTest, SharedPort_FoundByAddressAndPort)
{
    bind(5000, RUK_BIND_BROADCAST);
    ruk_channel_t ch = bind(5001);
    EXPECT_EQ(ch->ch_deferred_uni_entry, nullptr);
    EXPECT_NE(ch->ch_uni_entry, nullptr);
}

/* With the host's own sockets. */
TEST_F(BindTest, SharedPortWithoutReuse_AddressInUse_NothingTaken)
{
    kernel.real = true;
    ruk_channel_t owner = nullptr;
    ASSERT_EQ(ruk_bind(dev, 0, 0, nullptr, &owner), 0);
    driver.take_trace();
    ruk_channel_t none = nullptr;
    EXPECT_EQ(ruk_bind(dev, 0, ntohs(owner->ch_port_be16), nullptr, &none), EADDRINUSE);
    EXPECT_EQ(none, nullptr);
    EXPECT_EQ(driver.trace, Lines{});
    EXPECT_EQ(channels(), std::vector<ruk_channel_t>{owner});
    EXPECT_EQ(tags_of(dev->rep_tag_uniq), std::vector<int>{0});
    EXPECT_EQ(entries_of(dev->rep_tag_filterq).size(), 127u);
    EXPECT_TRUE(lock_is_free());
    ruk_channel_t next = bind(0);
    EXPECT_EQ(next->ch_uni_entry->tage_nuv_tag, 1);
}

/* ------------------------------------------------------------------ addresses */

class BindAddressTest : public BindTest {
protected:
    BindAddressTest()
    {
        close();
        driver.taken.clear();
        driver.boards.push_back({0x026f78000002, 0x026f78000002});
        host.interfaces.push_back({.name = "vlan7", .address = "127.0.0.7"});
        host.interfaces.push_back({.name = "oxel0.100", .address = "127.0.0.8"});
        host.interfaces.push_back({.name = "oxel1", .mac = {0x02, 0x6f, 0x78, 0, 0, 2}, .address = "127.0.0.9"});
        open(RUK_OPEN_THREAD_SAFE);
        driver.take_trace();
    }
};

TEST_F(BindAddressTest, VlanInterface_TagControlWordOfItsName)
{
    struct in_addr vlan7 = in_addr_of("127.0.0.7"), vlan100 = in_addr_of("127.0.0.8");
    ruk_channel_t ch;
    ASSERT_EQ(ruk_bind_addr(dev, &vlan7, 0, 5000, nullptr, &ch), 0);
    EXPECT_EQ(ch->ch_vlan_be16, htons(0xe007));
    EXPECT_STREQ(ch->ch_mif->tov_ifa_name, "vlan7");
    EXPECT_EQ(ch->ch_ipaddr_be32, be32("127.0.0.7"));
    ASSERT_EQ(ruk_bind_addr(dev, &vlan100, 0, 5000, nullptr, &ch), 0);
    EXPECT_EQ(driver.trace, (Lines{"50EB 0700007f881307e00000000000", "50EB 0800007f881364e00100000000"}));
}

TEST_F(BindAddressTest, NullArguments_Invalid)
{
    ruk_channel_t ch;
    EXPECT_EQ(ruk_bind_addr(dev, nullptr, 0, 5000, nullptr, &ch), EINVAL);
    EXPECT_EQ(ruk_bind_addr(nullptr, &loopback, 0, 5000, nullptr, &ch), EINVAL);
    EXPECT_EQ(ruk_bind(nullptr, 0, 5000, nullptr, &ch), EINVAL);
    EXPECT_EQ(ruk__bind(nullptr, 0, 0, 5000, nullptr, &ch, 0), EINVAL);
    EXPECT_TRUE(lock_is_free());
}

/* Two adapters with one address: the endpoint's own counts, wherever it is in the list. */
TEST_F(BindAddressTest, AddressOfAnotherAdapterToo_TheEndpointsOwnTaken)
{
    close();
    driver.taken.clear();
    host.interfaces.push_back({.name = "vlan50", .mac = {0x02, 0x6f, 0x78, 0, 0, 2}, .address = "127.0.0.50"});
    host.interfaces.push_back({.name = "vlan51", .address = "127.0.0.50"});
    open(); /* without locks: a bind that is refused keeps them */
    driver.take_trace();
    struct in_addr both = in_addr_of("127.0.0.50");
    ruk_channel_t ch = nullptr;
    ASSERT_EQ(ruk_bind_addr(dev, &both, 0, 5000, nullptr, &ch), 0);
    EXPECT_STREQ(ch->ch_mif->tov_ifa_name, "vlan51");
    EXPECT_EQ(ch->ch_mif->tov_ifa_boardnum, 0u);
    EXPECT_EQ(driver.trace, Lines{"50EB 3200007f881333e00000000000"});
}

/* Opened on the second adapter with an address of the first: the address decides where channels are bound. */
TEST_F(BindAddressTest, EndpointsInterfaceOnAnotherAdapterThanItself_InterfacesAdapterCounts)
{
    close();
    driver.taken.clear();
    uint8_t mac[6] = {0x02, 0x6f, 0x78, 0, 0, 2};
    ASSERT_EQ(ruk_open_by_perm_mac(mac, &loopback, 0, &dev), 0);
    ASSERT_EQ(dev->rep_unit, 1u);
    ASSERT_EQ(dev->rep_mif->tov_ifa_boardnum, 0u);
    ruk_channel_t ch = nullptr;
    ASSERT_EQ(ruk_bind(dev, 0, 5000, nullptr, &ch), 0);
    EXPECT_EQ(ch->ch_mif, dev->rep_mif);
    struct in_addr beside = in_addr_of("127.0.0.7"), of_the_second = in_addr_of("127.0.0.9");
    ASSERT_EQ(ruk_bind_addr(dev, &beside, 0, 5000, nullptr, &ch), 0);
    EXPECT_STREQ(ch->ch_mif->tov_ifa_name, "vlan7");
    EXPECT_EQ(ruk_bind_addr(dev, &of_the_second, 0, 5000, nullptr, &ch), EINVAL);
}

/* The hazard: the endpoint's lock is not given back. */
TEST_F(BindAddressTest, AddressOfAnotherAdapterOrOfNone_InvalidAndTheLockStaysHeld)
{
    for (const char *text : {"127.0.0.9", "127.0.0.77"}) {
        struct in_addr foreign = in_addr_of(text);
        ruk_channel_t ch = nullptr;
        EXPECT_EQ(ruk_bind_addr(dev, &foreign, 0, 5000, nullptr, &ch), EINVAL) << text;
        EXPECT_EQ(ch, nullptr);
        EXPECT_FALSE(lock_is_free()) << text;
        pthread_mutex_unlock(&dev->rep_lock);
    }
    EXPECT_EQ(driver.trace, Lines{});
    EXPECT_TRUE(channels().empty());
}

TEST_F(BindAddressTest, ForeignAddressWithoutLocks_OnlyInvalid)
{
    close();
    driver.taken.clear();
    open();
    struct in_addr foreign = in_addr_of("127.0.0.77");
    ruk_channel_t ch = nullptr;
    EXPECT_EQ(ruk_bind_addr(dev, &foreign, 0, 5000, nullptr, &ch), EINVAL);
    EXPECT_EQ(ruk_bind(dev, 0, 5000, nullptr, &ch), 0);
}

TEST_F(BindTest, EndpointWithoutAnInterface_Invalid)
{
    close();
    driver.taken.clear();
    uint8_t mac[6] = {0x02, 0x6f, 0x78, 0, 0, 1};
    struct in_addr nowhere = in_addr_of("10.9.9.9");
    ASSERT_EQ(ruk_open_by_perm_mac(mac, &nowhere, 0, &dev), 0);
    ruk_channel_t ch = nullptr;
    EXPECT_EQ(ruk_bind(dev, 0, 5000, nullptr, &ch), EINVAL);
    EXPECT_EQ(ruk_bind_addr(dev, &loopback, 0, 5000, nullptr, &ch), EINVAL);
}

/* ------------------------------------------------------------------ bare channels */

TEST_F(BindTest, BareChannel_OnlyTheRecord)
{
    host.sockets.clear();
    ruk_channel_t ch = nullptr;
    ASSERT_EQ(ruk__bind(dev, be32("127.0.0.1"), 0x1A, 5000, &context, &ch, 1), 0);
    EXPECT_EQ(host.sockets.log().size(), 0u);
    EXPECT_EQ(driver.trace, Lines{});
    EXPECT_EQ(ch->ch_fd, -1);
    EXPECT_EQ(ch->ch_uni_entry, nullptr);
    EXPECT_EQ(ch->ch_bc_entry, nullptr);
    EXPECT_EQ(ch->ch_deferred_uni_entry, nullptr);
    EXPECT_EQ(ch->ch_port_be16, htons(5000));
    EXPECT_EQ(ch->ch_bindflags, 0x1Au);
    EXPECT_EQ(dev->rep_tag_cnt, 0);
    EXPECT_EQ(channels(), std::vector<ruk_channel_t>{ch});
    EXPECT_EQ(ruk_unbind(ch), 0);
    EXPECT_EQ(host.sockets.log().size(), 0u);
    EXPECT_EQ(driver.trace, Lines{});
}

TEST_F(BindTest, KernelSocketCannotBeHad_ChannelWithoutOne)
{
    host.sockets.fail(Slot::socket, 1, EMFILE);
    ruk_channel_t ch = bind(5000);
    EXPECT_EQ(ch->ch_fd, -1);
    EXPECT_EQ(ch->ch_port_be16, htons(5000));
    EXPECT_EQ(driver.filters.size(), 1u);
    host.sockets.clear();
    EXPECT_EQ(ruk_unbind(ch), 0);
    EXPECT_EQ(host.sockets.count(Slot::close), 0u);
}

TEST_F(BindTest, UnderTheEndpointLock)
{
    int held = 0;
    auto answer = host.sockets.on_ioctl[OXEL_RX_FILTER];
    host.sockets.on_ioctl[OXEL_RX_FILTER] = [&](int fd, void *arg) {
        held = pthread_mutex_trylock(&dev->rep_lock);
        return answer(fd, arg);
    };
    bind(5000);
    EXPECT_EQ(held, EBUSY);
    host.sockets.on_ioctl[OXEL_RX_FILTER] = answer;
}

/* ------------------------------------------------------------------ failed binds */

TEST_F(BindTest, KernelSocketRefused_ItsError_NothingTaken)
{
    struct {
        Slot slot;
        int error, result;
    } const cases[] = {{Slot::setsockopt, EPERM, -1}, {Slot::bind, EACCES, EACCES}, {Slot::getsockname, EIO, -1}};
    for (const auto &c : cases) {
        host.sockets.fail(c.slot, 1, c.error);
        ruk_channel_t ch = nullptr;
        EXPECT_EQ(ruk_bind(dev, RUK_BIND_REUSE, 5000, nullptr, &ch), c.result);
        EXPECT_EQ(ch, nullptr);
        EXPECT_TRUE(lock_is_free());
    }
    EXPECT_EQ(dev->rep_tag_cnt, 0);
    EXPECT_EQ(driver.trace, Lines{});
    EXPECT_TRUE(channels().empty());
}

TEST_F(BindTest, NoTagLeft_SocketClosed)
{
    for (int i = 0; i < 3968; i++) {
        struct ruk__tag_entry *entry;
        ASSERT_EQ(ruk__get_tag_entry(dev, 0, 0, 0, &entry), 0);
    }
    host.sockets.clear();
    ruk_channel_t ch = nullptr;
    EXPECT_EQ(ruk_bind(dev, 0, 5000, nullptr, &ch), ENOMEM);
    EXPECT_EQ(ch, nullptr);
    EXPECT_EQ(host.sockets.count(Slot::close), 1u);
    EXPECT_EQ(host.sockets.log().back().fd, host.sockets.log().front().result);
    EXPECT_TRUE(TAILQ_EMPTY(&dev->rep_tag_uniq));
    EXPECT_TRUE(lock_is_free());
    EXPECT_EQ(ruk_bind(dev, RUK_BIND_NO_UNICAST, 5000, nullptr, &ch), 0);
}

/* A broadcast bind takes two tags. With one left the first goes back, and stays where entries are looked for as well.
 */
TEST_F(BindTest, BroadcastWithOneTagLeft_NoFilter_SocketClosed_UnicastEntryFreeAndStillListed)
{
    struct ruk__tag_entry *entry = nullptr;
    for (int i = 0; i < 3967; i++)
        ASSERT_EQ(ruk__get_tag_entry(dev, 0, 0, 0, &entry), 0);
    struct ruk__tag_entry *last = &dev->rep_tag_table[30][127];
    ASSERT_EQ(entries_of(dev->rep_tag_filterq), std::vector<struct ruk__tag_entry *>{last});
    host.sockets.clear();
    ruk_channel_t ch = nullptr;
    for (int expected : {ENOMEM, EAGAIN}) {
        if (expected == EAGAIN) { /* releases are pending: tags will come back */
            TAILQ_INIT(&dev->rep_tag_uniq);
            one_event_pending();
            ruk__delay_put_tag_entry(dev, entry);
            host.sockets.clear();
        }
        EXPECT_EQ(ruk_bind(dev, RUK_BIND_BROADCAST, 5000, nullptr, &ch), expected);
        EXPECT_EQ(ch, nullptr);
        EXPECT_EQ(driver.trace, Lines{});
        ASSERT_EQ(host.sockets.count(Slot::close), 1u);
        EXPECT_EQ(host.sockets.log().back().fd, host.sockets.log().front().result);
        EXPECT_EQ(entries_of(dev->rep_tag_filterq), std::vector<struct ruk__tag_entry *>{last});
        EXPECT_EQ(entries_of(dev->rep_tag_uniq), std::vector<struct ruk__tag_entry *>{last});
        EXPECT_EQ(last->tage_udp_port, 5000);
        EXPECT_TRUE(channels().empty());
        EXPECT_TRUE(lock_is_free());
    }
}

TEST_F(BindTest, BroadcastWithOneTagLeftInItsBlock_NextBlockCannotBeAllocated_OutOfMemory)
{
    struct ruk__tag_entry *entry = nullptr;
    for (int i = 0; i < 127; i++)
        ASSERT_EQ(ruk__get_tag_entry(dev, 0, 0, 0, &entry), 0);
    struct ruk__tag_entry *last = &dev->rep_tag_table[0][127];
    host.sockets.clear();
    ruk_channel_t ch = nullptr;
    {
        AllocFault fault(1);
        EXPECT_EQ(ruk_bind(dev, RUK_BIND_BROADCAST, 5000, nullptr, &ch), ENOMEM);
        EXPECT_EQ(fault.calls(), 1u) << "nothing else is asked for";
    }
    EXPECT_EQ(ch, nullptr);
    EXPECT_EQ(dev->rep_tag_cnt, 1);
    EXPECT_EQ(driver.trace, Lines{});
    EXPECT_EQ(host.sockets.count(Slot::close), 1u);
    EXPECT_EQ(entries_of(dev->rep_tag_filterq), std::vector<struct ruk__tag_entry *>{last});
    EXPECT_EQ(entries_of(dev->rep_tag_uniq), std::vector<struct ruk__tag_entry *>{last});
    EXPECT_TRUE(lock_is_free());
}

/* Neither filter was installed: the broadcast entry goes back first, so that it is the first to be used again. */
TEST_F(BindTest, BroadcastChannelCannotBeAllocated_EntriesGivenBack_BroadcastFirst)
{
    bind(5000);
    {
        AllocFault fault(1);
        ruk_channel_t ch = nullptr;
        EXPECT_EQ(ruk_bind(dev, RUK_BIND_BROADCAST, 5001, nullptr, &ch), ENOMEM);
    }
    EXPECT_EQ(driver.count("50EB"), 1u);
    const std::vector<int> tags = tags_of(dev->rep_tag_filterq);
    ASSERT_EQ(tags.size(), 127u);
    EXPECT_EQ(std::vector<int>(tags.end() - 2, tags.end()), (std::vector<int>{2, 1}));
}

/* Entries given back by a failed bind stay where channels' entries are looked for. */
TEST_F(BindTest, ChannelCannotBeAllocated_EntriesGivenBackAndStillListed)
{
    ruk_channel_t first = bind(5000);
    host.sockets.clear();
    {
        AllocFault fault(1);
        ruk_channel_t ch = nullptr;
        EXPECT_EQ(ruk_bind(dev, 0, 5001, nullptr, &ch), ENOMEM);
        EXPECT_EQ(ch, nullptr);
    }
    EXPECT_EQ(driver.count("50EB"), 1u) << "no filter was installed, none is removed";
    EXPECT_EQ(host.sockets.count(Slot::close), 1u);
    EXPECT_TRUE(lock_is_free());
    struct ruk__tag_entry *entry = &dev->rep_tag_table[0][1];
    EXPECT_EQ(entries_of(dev->rep_tag_filterq).back(), entry);
    EXPECT_EQ(entries_of(dev->rep_tag_uniq), (std::vector<struct ruk__tag_entry *>{first->ch_uni_entry, entry}));
    EXPECT_EQ(channels(), std::vector<ruk_channel_t>{first});
}

TEST_F(BindTest, FilterRefused_RemovedAndGivenBackAndStillListed)
{
    driver.fail(OXEL_RX_FILTER, 1, ENOSPC);
    host.sockets.clear();
    StreamCapture streams;
    ruk_channel_t ch = nullptr;
    EXPECT_EQ(ruk_bind(dev, RUK_BIND_KERNEL, 5000, nullptr, &ch), ENOSPC);
    std::string said = streams.err();
    EXPECT_EQ(streams.out(), "");
    EXPECT_EQ(ch, nullptr);
    EXPECT_EQ(driver.trace, (Lines{"50EB 0100007f88130000"
                                   "0000"
                                   "000100",
                                   "50EB 0100007f88130000"
                                   "0000"
                                   "010000"}));
    struct ruk__tag_entry *entry = &dev->rep_tag_table[0][0];
    char where[32];
    snprintf(where, sizeof where, "%#lx", static_cast<unsigned long>(reinterpret_cast<uintptr_t>(entry)));
    EXPECT_EQ(said, std::string("filter-add ip 7f000001, port 1388 to tag 0 entry is ") + where +
                        " : FAILED with return value 28\n"
                        "filter-del ip 7f000001, port 1388 to tag 0 entry is " +
                        where + " : FAILED with return value 2\n");
    EXPECT_EQ(host.sockets.count(Slot::close), 1u);
    EXPECT_EQ(host.sockets.log().back().slot, Slot::ioctl) << "the socket is closed before the filters go";
    EXPECT_EQ(entry->tage_channel, nullptr);
    EXPECT_EQ(entries_of(dev->rep_tag_uniq).front(), entry);
    EXPECT_EQ(entries_of(dev->rep_tag_filterq).back(), entry);
    EXPECT_TRUE(channels().empty());
    EXPECT_TRUE(lock_is_free());
}

/* The hazard that follows: the port's next channel waits for an entry that nobody owns. */
TEST_F(BindTest, PortOfARefusedFilterBoundAgain_GetsNoFilter)
{
    driver.fail(OXEL_RX_FILTER, 1, ENOSPC);
    {
        StreamCapture streams;
        ruk_channel_t none;
        EXPECT_EQ(ruk_bind(dev, 0, 5000, nullptr, &none), ENOSPC);
    }
    driver.take_trace();
    ruk_channel_t ch = bind(5000);
    EXPECT_EQ(ch->ch_uni_entry, nullptr);
    EXPECT_EQ(ch->ch_deferred_uni_entry, &dev->rep_tag_table[0][0]);
    EXPECT_EQ(driver.trace, Lines{});
}

TEST_F(BindTest, BroadcastFilterRefused_BothUndone_BroadcastFirst)
{
    driver.fail(OXEL_RX_FILTER, 2, ENOSPC);
    StreamCapture streams;
    ruk_channel_t ch = nullptr;
    EXPECT_EQ(ruk_bind(dev, RUK_BIND_BROADCAST, 5000, nullptr, &ch), ENOSPC);
    EXPECT_EQ(driver.trace, (Lines{"50EB 0100007f881300000000000000", "50EB ffffffff881300000100000000",
                                   "50EB ffffffff881300000100010000", "50EB 0100007f881300000000010000"}));
    EXPECT_EQ(driver.filters.size(), 0u);
    EXPECT_EQ(ch, nullptr);
    EXPECT_TRUE(lock_is_free());
}

TEST_F(BindTest, UnicastFilterRefusedWithBroadcast_SecondNeverInstalled)
{
    driver.fail(OXEL_RX_FILTER, 1, ENOSPC);
    StreamCapture streams;
    ruk_channel_t ch = nullptr;
    EXPECT_EQ(ruk_bind(dev, RUK_BIND_BROADCAST, 5000, nullptr, &ch), ENOSPC);
    EXPECT_EQ(driver.trace, (Lines{"50EB 0100007f881300000000000000", "50EB 0100007f881300000000010000"}));
    const std::vector<int> tags = tags_of(dev->rep_tag_filterq);
    ASSERT_EQ(tags.size(), 128u);
    EXPECT_EQ(std::vector<int>(tags.end() - 2, tags.end()), (std::vector<int>{1, 0})) << "the broadcast entry first";
}

TEST_F(BindTest, FilterRefusedWithPacketsPending_TagDelayed)
{
    one_event_pending();
    driver.fail(OXEL_RX_FILTER, 1, ENOSPC);
    StreamCapture streams;
    ruk_channel_t ch = nullptr;
    EXPECT_EQ(ruk_bind(dev, 0, 5000, nullptr, &ch), ENOSPC);
    EXPECT_EQ(tags_of(dev->rep_tag_delayq), std::vector<int>{0x8000});
}

} // namespace
