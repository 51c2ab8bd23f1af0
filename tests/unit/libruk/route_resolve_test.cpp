/* Next-hop resolution: groups and broadcasts, the endpoint's cache, the kernel's ARP table and how it is prompted. */
#include "route_rig.h"

namespace {

using namespace route_rig;

class ArpTest : public ResolveTest {
protected:
    ArpTest()
    {
        host.add_route("oxel0", "0.0.0.0", "10.77.0.254", "0.0.0.0", RTF_UP | RTF_GATEWAY);
        host.add_route("oxel0", "10.77.0.0", "0.0.0.0", "255.255.0.0");
        host.add_route("oxel0", "200.1.0.0", "0.0.0.0", "255.255.0.0");
    }
    void SetUp() override { open_here(); }

    void add_neighbour(const std::string &address, uint8_t last, const std::string &dev_name = "oxel0",
                       int flags = ATF_COM)
    {
        host.arp.push_back({address, {2, 0, 0, 0, 0, last}, dev_name, flags});
    }
    std::string cached(size_t slot) const
    {
        const struct ruk__peer_addr &entry = dev->rep_mac_cache[slot];
        return std::string(inet_ntoa({entry.pa_ip_addr_be32})) + " " + hex(entry.pa_eth_dest, 6);
    }
};

/* ------------------------------------------------------------------ groups and broadcasts */

TEST_F(ArpTest, Groups_MappedWithoutAsking)
{
    const struct {
        const char *address, *mac;
    } groups[] = {
        {"239.1.2.3", "01005e010203"},   {"224.129.2.3", "01005e010203"},     {"224.0.0.1", "01005e000001"},
        {"230.255.9.8", "01005e7f0908"}, {"239.255.255.255", "01005e7fffff"},
    };
    dev->rep_num_valid_rts = 0;
    for (const auto &group : groups) {
        Lookup got = lookup(group.address);
        EXPECT_EQ(got.rc, 0);
        EXPECT_EQ(got.mac, group.mac) << group.address;
        EXPECT_EQ(got.valid, 1);
    }
    EXPECT_EQ(trace, Lines{});
}

TEST_F(ArpTest, AddressesBesideTheGroups_AreNone)
{
    dev->rep_num_valid_rts = 0;
    StreamCapture streams;
    EXPECT_EQ(lookup("223.255.255.254").rc, EHOSTUNREACH);
    EXPECT_EQ(lookup("240.0.0.1").rc, EHOSTUNREACH);
}

/* Any address that ends in .255, whatever the subnet's mask. */
TEST_F(ArpTest, Broadcasts_AllOnesWithoutAsking)
{
    dev->rep_num_valid_rts = 0;
    for (const char *address : {"10.1.2.255", "10.77.0.255", "255.255.255.255", "8.8.8.255"}) {
        Lookup got = lookup(address);
        EXPECT_EQ(got.rc, 0);
        EXPECT_EQ(got.mac, "ffffffffffff") << address;
        EXPECT_EQ(got.valid, 1);
    }
    EXPECT_EQ(trace, Lines{});
    EXPECT_EQ(dev->rep_mac_cache[0].pa_ip_addr_be32, 0u) << "nothing to remember";
}

/* ------------------------------------------------------------------ the kernel's table */

TEST_F(ArpTest, KnownToTheKernel_AskedOnceByTheEndpointsInterface)
{
    add_neighbour("10.77.0.2", 2);
    Lookup got = lookup("10.77.0.2");
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(got.mac, "020000000002");
    EXPECT_EQ(got.valid, 1);
    EXPECT_EQ(trace, (Lines{"ask oxel0 10.77.0.2"}));
    EXPECT_EQ(cached(0), "10.77.0.2 020000000002");
}

TEST_F(ArpTest, EndpointOnAnotherInterface_AskedByThatOne)
{
    close();
    host.interfaces.insert(host.interfaces.begin() + 1, {.name = "vlan9", .address = "10.78.0.1"});
    struct in_addr address = in_addr_of("10.78.0.1");
    ASSERT_EQ(ruk_open(&address, RUK_OPEN_THREAD_SAFE, &dev), 0);
    forget();
    add_neighbour("10.77.0.2", 2, "vlan9");
    EXPECT_EQ(lookup("10.77.0.2").mac, "020000000002");
    EXPECT_EQ(trace, (Lines{"ask vlan9 10.77.0.2"}));
}

TEST_F(ArpTest, AnyFlag_IsAnAnswer)
{
    add_neighbour("10.77.0.2", 2, "oxel0", ATF_PUBL);
    EXPECT_EQ(lookup("10.77.0.2").mac, "020000000002");
    EXPECT_EQ(trace.size(), 1u);
}

TEST_F(ArpTest, KnownByAnotherInterface_EachAskedInTheHostsOrder)
{
    host.interfaces.push_back({.name = "eth2", .address = "192.168.2.1"});
    host.interfaces.push_back({.name = "eth3", .address = "192.168.3.1"});
    add_neighbour("10.77.0.2", 9, "eth2");
    add_neighbour("10.77.0.2", 10, "eth3");
    Lookup got = lookup("10.77.0.2");
    EXPECT_EQ(got.mac, "020000000009");
    EXPECT_EQ(got.valid, 1);
    EXPECT_EQ(trace, (Lines{"ask oxel0 10.77.0.2", "list", "ask oxel0 10.77.0.2", "ask eth1 10.77.0.2",
                            "ask eth2 10.77.0.2"}));
}

TEST_F(ArpTest, InterfacesWithoutAnAddress_AreNotAskedBy)
{
    host.interfaces[1].address = "";
    host.interfaces.push_back({.name = "eth2", .address = "192.168.2.1", .family = AF_INET6});
    lookup("10.77.0.2", 0);
    EXPECT_EQ(trace, (Lines{"ask oxel0 10.77.0.2", "list", "ask oxel0 10.77.0.2", "ask eth2 10.77.0.2"}));
}

TEST_F(ArpTest, LongInterfaceName_CutAtFifteenCharacters)
{
    host.interfaces[1].name = "interface-of-a-long-name";
    lookup("10.77.0.2", 0);
    EXPECT_EQ(trace.back(), "ask interface-of-a- 10.77.0.2");
}

/* An entry that is still incomplete ends the round: the first call that succeeds does. */
TEST_F(ArpTest, IncompleteEntry_EndsTheRound)
{
    host.interfaces.push_back({.name = "eth2", .address = "192.168.2.1"});
    add_neighbour("10.77.0.2", 1, "eth1", 0);
    add_neighbour("10.77.0.2", 2, "eth2");
    EXPECT_EQ(lookup("10.77.0.2", 0).rc, EADDRNOTAVAIL);
    EXPECT_EQ(take_trace(), (Lines{"ask oxel0 10.77.0.2", "list", "ask oxel0 10.77.0.2", "ask eth1 10.77.0.2"}));
    host.arp[0].dev = "oxel0";
    EXPECT_EQ(lookup("10.77.0.2", 0).rc, EADDRNOTAVAIL);
    EXPECT_EQ(take_trace(), (Lines{"ask oxel0 10.77.0.2", "list", "ask oxel0 10.77.0.2"}));
}

TEST_F(ArpTest, ListsOfInterfaces_StayUnreleased)
{
    host.interfaces.push_back({.name = "eth2", .address = "192.168.2.1"});
    EXPECT_EQ(lookup("10.77.0.2", 2).rc, EADDRNOTAVAIL);
    EXPECT_EQ(host.unreleased_lists(), 3u) << "one a round";
    add_neighbour("10.77.0.2", 2, "eth2");
    EXPECT_EQ(lookup("10.77.0.2").rc, 0);
    EXPECT_EQ(host.unreleased_lists(), 4u);
    host.interfaces.clear();
    EXPECT_EQ(lookup("10.77.0.3", 0).rc, EADDRNOTAVAIL) << "an empty list is nothing to ask by";
    close();
    EXPECT_EQ(host.unreleased_lists(), 4u) << "after the endpoint as well";
}

/* ------------------------------------------------------------------ prompting */

TEST_F(ArpTest, Missing_OneRetry_AskedWithoutAndThenWithAPrompt)
{
    errno = 0;
    Lookup got = lookup("10.77.0.9", 1);
    EXPECT_EQ(got.rc, EADDRNOTAVAIL);
    EXPECT_EQ(errno, EADDRNOTAVAIL);
    EXPECT_EQ(got.valid, 0);
    EXPECT_EQ(got.mac, "eeeeeeeeeeee");
    const Lines round = {"ask oxel0 10.77.0.9", "list", "ask oxel0 10.77.0.9", "ask eth1 10.77.0.9"};
    const Lines prompt = {"command 0a4d0009", "datagram 10.77.0.9:67 0"};
    EXPECT_EQ(trace, round + prompt + round);
    EXPECT_EQ(dev->rep_mac_cache[0].pa_ip_addr_be32, 0u);
}

TEST_F(ArpTest, Missing_NoRetry_NoPrompt)
{
    EXPECT_EQ(lookup("10.77.0.9", 0).rc, EADDRNOTAVAIL);
    EXPECT_EQ(trace.size(), 4u);
}

TEST_F(ArpTest, Missing_ThousandRetries_ThousandAndOneRounds_Silent)
{
    StreamCapture streams;
    EXPECT_EQ(lookup("10.77.0.9", 1000).rc, EADDRNOTAVAIL);
    EXPECT_EQ(streams.out() + streams.err(), "");
    unsigned rounds = 0, prompts = 0;
    for (const std::string &line : trace) {
        rounds += line == "list";
        prompts += line == "datagram 10.77.0.9:67 0";
    }
    EXPECT_EQ(rounds, 1001u);
    EXPECT_EQ(prompts, 1000u);
}

TEST_F(ArpTest, DriverKnowsTheCommand_NoDatagram)
{
    command_error = 0;
    EXPECT_EQ(lookup("10.77.0.9", 2).rc, EADDRNOTAVAIL);
    const Lines round = {"ask oxel0 10.77.0.9", "list", "ask oxel0 10.77.0.9", "ask eth1 10.77.0.9"};
    const Lines prompt = {"command 0a4d0009"};
    EXPECT_EQ(trace, round + prompt + round + prompt + round);
}

TEST_F(ArpTest, AnswerAfterAPrompt_ThatsIt)
{
    for (int error : {0, ENOTTY}) {
        forget();
        memset(dev->rep_mac_cache, 0, sizeof dev->rep_mac_cache);
        host.arp.clear();
        command_error = error;
        meanwhile = [this] {
            if (trace.size() == (command_error == 0 ? 5 : 6))
                add_neighbour("10.77.0.9", 9);
        };
        Lookup got = lookup("10.77.0.9", 1000);
        EXPECT_EQ(got.rc, 0);
        EXPECT_EQ(got.mac, "020000000009");
        EXPECT_EQ(got.valid, 1);
        EXPECT_EQ(trace.size(), error == 0 ? 6u : 7u);
        EXPECT_EQ(trace.back(), "ask oxel0 10.77.0.9");
    }
}

TEST_F(ArpTest, ThePromptGoesToTheNextHop)
{
    EXPECT_EQ(lookup("8.8.8.8", 1).rc, EADDRNOTAVAIL);
    EXPECT_EQ(trace.at(4), "command 0a4d00fe");
    EXPECT_EQ(trace.at(5), "datagram 10.77.0.254:67 0");
}

TEST_F(ArpTest, CommandFailsOtherwise_ItsErrorSilently)
{
    StreamCapture streams;
    for (int error : {EIO, EINVAL, ENOSYS, EOPNOTSUPP, EHOSTUNREACH, ENXIO}) {
        command_error = error;
        trace.clear();
        Lookup got = lookup("10.77.0.9", 1000);
        EXPECT_EQ(got.rc, error);
        EXPECT_EQ(got.valid, 0);
        EXPECT_EQ(got.mac, "eeeeeeeeeeee");
        EXPECT_EQ(trace.size(), 5u);
        EXPECT_EQ(trace.back(), "command 0a4d0009") << "neither datagram nor question";
    }
    EXPECT_EQ(streams.out() + streams.err(), "");
}

TEST_F(ArpTest, DatagramFails_ItsErrorSilently)
{
    datagram_error = ENETUNREACH;
    StreamCapture streams;
    Lookup got = lookup("10.77.0.9", 1000);
    EXPECT_EQ(got.rc, ENETUNREACH);
    EXPECT_EQ(got.valid, 0);
    EXPECT_EQ(streams.out() + streams.err(), "");
    EXPECT_EQ(trace.size(), 6u);
    EXPECT_EQ(trace.back(), "datagram 10.77.0.9:67 0");
}

TEST_F(ArpTest, DatagramFailsWithoutAnError_GoesOn)
{
    datagram_error = 0;
    EXPECT_EQ(lookup("10.77.0.9", 2).rc, EADDRNOTAVAIL);
    EXPECT_EQ(trace.size(), 4u + 6u + 6u);
}

/* ------------------------------------------------------------------ interfaces that cannot be listed */

TEST_F(ArpTest, InterfacesNotListed_Enxio_TriedAgainThenTold)
{
    host.getifaddrs_error = ENXIO;
    StreamCapture streams;
    Lookup got = lookup("10.77.0.9", 2);
    EXPECT_EQ(got.rc, ENXIO);
    EXPECT_EQ(got.valid, 0);
    EXPECT_EQ(streams.err(), "ARP lookup of 10.77.0.9 failed after 2 tries.\n");
    EXPECT_EQ(streams.out(), "");
    const Lines round = {"ask oxel0 10.77.0.9", "list"}, prompt = {"command 0a4d0009", "datagram 10.77.0.9:67 0"};
    EXPECT_EQ(trace, round + prompt + round + prompt + round);
}

TEST_F(ArpTest, InterfacesNotListed_TheMessageNamesTheNextHop)
{
    host.getifaddrs_error = ENXIO;
    StreamCapture streams;
    EXPECT_EQ(lookup("8.8.8.8", 0).rc, ENXIO);
    EXPECT_EQ(streams.err(), "ARP lookup of 10.77.0.254 failed after 0 tries.\n");
}

TEST_F(ArpTest, InterfacesNotListed_OtherErrors_ToldAndReturned)
{
    host.getifaddrs_error = ENOMEM;
    StreamCapture streams;
    Lookup got = lookup("10.77.0.9", 1000);
    EXPECT_EQ(got.rc, ENOMEM);
    EXPECT_EQ(got.valid, 0);
    EXPECT_EQ(streams.err(), "read_arp failed, errono:12, Cannot allocate memory\n");
    EXPECT_EQ(streams.out(), "");
    EXPECT_EQ(trace, (Lines{"ask oxel0 10.77.0.9", "list"})) << "at once";
}

TEST_F(ArpTest, InterfacesNotListed_NoError_AgainWithoutCounting)
{
    host.getifaddrs_error = 0;
    meanwhile = [this] {
        if (trace.size() == 2 * 50 + 1)
            host.getifaddrs_error.reset();
    };
    StreamCapture streams;
    EXPECT_EQ(lookup("10.77.0.9", 0).rc, EADDRNOTAVAIL);
    EXPECT_EQ(streams.err(), "");
    EXPECT_EQ(trace.size(), 2u * 50 + 4) << "fifty rounds, none prompted, and the one that counts";
    EXPECT_EQ(trace.at(99), "list");
    EXPECT_EQ(trace.at(100), "ask oxel0 10.77.0.9");
}

/* The endpoint's own entry needs no list. */
TEST_F(ArpTest, InterfacesNotListed_KnownByTheOwnInterface_NoMatter)
{
    host.getifaddrs_error = ENOMEM;
    add_neighbour("10.77.0.2", 2);
    EXPECT_EQ(lookup("10.77.0.2").rc, 0);
}

/* ------------------------------------------------------------------ the cache */

TEST_F(ArpTest, Cached_NothingIsAsked)
{
    add_neighbour("10.77.0.2", 2);
    ASSERT_EQ(lookup("10.77.0.2").rc, 0);
    host.arp.clear();
    trace.clear();
    Lookup got = lookup("10.77.0.2");
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(got.mac, "020000000002");
    EXPECT_EQ(got.valid, 1);
    EXPECT_EQ(trace, Lines{});
}

TEST_F(ArpTest, CacheGoesByNextHop_NotByDestination)
{
    add_neighbour("10.77.0.254", 0xfe);
    for (const char *address : {"8.8.8.8", "9.9.9.9", "10.77.0.254"})
        EXPECT_EQ(lookup(address).mac, "0200000000fe") << address;
    EXPECT_EQ(trace, (Lines{"ask oxel0 10.77.0.254"}));
    EXPECT_EQ(cached(0), "10.77.0.254 0200000000fe");
    EXPECT_EQ(dev->rep_mac_cache[1].pa_ip_addr_be32, 0u);
}

TEST_F(ArpTest, SixteenNextHops_InTheOrderTheyCame_AllRemembered)
{
    for (int i = 1; i <= 16; i++) {
        const std::string address = "10.77.0." + std::to_string(i);
        add_neighbour(address, static_cast<uint8_t>(i));
        ASSERT_EQ(lookup(address).rc, 0);
        EXPECT_EQ(cached(static_cast<size_t>(i) - 1), address + " " + hex(host.arp.back().mac.data(), 6));
    }
    trace.clear();
    for (int i = 16; i >= 1; i--)
        EXPECT_EQ(lookup("10.77.0." + std::to_string(i)).mac, hex(host.arp[static_cast<size_t>(i) - 1].mac.data(), 6));
    EXPECT_EQ(trace, Lines{});
}

/*
 * The slot of a next hop a.b.c.d: the halves of its bytes as they lie in memory, a + 256 b and c + 256 d, and 177573,
 * modulo 16, which is a + c + 5 modulo 16.
 */
TEST_F(ArpTest, CacheFull_HashedSlotReplaced_AndAskedForAgain)
{
    for (int i = 1; i <= 16; i++) {
        add_neighbour("10.77.0." + std::to_string(i), static_cast<uint8_t>(i));
        ASSERT_EQ(lookup(host.arp.back().address).rc, 0);
    }
    const struct {
        const char *address;
        size_t slot;
    } cases[] = {{"10.77.0.99", 15}, {"10.77.3.99", 2}, {"10.77.1.200", 0}, {"200.1.100.1", 1}, {"200.1.255.77", 12}};
    for (const auto &c : cases) {
        add_neighbour(c.address, 0x99);
        struct ruk__peer_addr before[RUK_MAC_CACHE];
        memcpy(before, dev->rep_mac_cache, sizeof before);
        trace.clear();
        ASSERT_EQ(lookup(c.address).mac, "020000000099");
        EXPECT_EQ(trace, (Lines{std::string("ask oxel0 ") + c.address}));
        EXPECT_EQ(cached(c.slot), std::string(c.address) + " 020000000099");
        for (size_t i = 0; i < RUK_MAC_CACHE; i++) {
            if (i != c.slot) {
                EXPECT_EQ(memcmp(&before[i], &dev->rep_mac_cache[i], sizeof before[i]), 0) << c.address << " " << i;
            }
        }
    }
    trace.clear();
    EXPECT_EQ(lookup("10.77.0.2").mac, "020000000002") << "was in slot 1";
    EXPECT_EQ(lookup("10.77.0.4").mac, "020000000004");
    EXPECT_EQ(trace, (Lines{"ask oxel0 10.77.0.2"})) << "the one was replaced, the other not";
}

TEST_F(ArpTest, CacheFull_FailedLookup_ReplacesNothing)
{
    for (int i = 1; i <= 16; i++) {
        add_neighbour("10.77.0." + std::to_string(i), static_cast<uint8_t>(i));
        ASSERT_EQ(lookup(host.arp.back().address).rc, 0);
    }
    EXPECT_EQ(lookup("10.77.0.99").rc, EADDRNOTAVAIL);
    EXPECT_EQ(cached(15), "10.77.0.16 020000000010");
}

/* The first free entry ends the search, and takes what was found. */
TEST_F(ArpTest, GapInTheCache_EndsTheSearchAndIsFilled)
{
    for (uint8_t i = 1; i <= 3; i++) {
        add_neighbour("10.77.0." + std::to_string(i), i);
        ASSERT_EQ(lookup(host.arp.back().address).rc, 0);
    }
    memset(&dev->rep_mac_cache[1], 0, sizeof dev->rep_mac_cache[1]);
    trace.clear();
    EXPECT_EQ(lookup("10.77.0.1").rc, 0);
    EXPECT_EQ(trace, Lines{});
    EXPECT_EQ(lookup("10.77.0.3").rc, 0);
    EXPECT_EQ(trace, (Lines{"ask oxel0 10.77.0.3"}));
    EXPECT_EQ(cached(1), "10.77.0.3 020000000003");
}

TEST_F(ArpTest, EachEndpointHasItsOwnCache)
{
    add_neighbour("10.77.0.2", 2);
    ASSERT_EQ(lookup("10.77.0.2").rc, 0);
    ruk_device_t first = dev;
    open_here();
    EXPECT_EQ(dev->rep_mac_cache[0].pa_ip_addr_be32, 0u) << "starts empty";
    ASSERT_EQ(lookup("10.77.0.2").rc, 0);
    EXPECT_EQ(trace, (Lines{"ask oxel0 10.77.0.2"}));
    EXPECT_EQ(ruk_close(first), 0);
}

/* ------------------------------------------------------------------ locks */

TEST_F(ArpTest, LockIsFreeWhileKernelAndDriverAreAsked)
{
    unsigned questions = 0;
    meanwhile = [&] {
        questions++;
        EXPECT_TRUE(lock_is_free()) << trace.back();
    };
    EXPECT_EQ(lookup("10.77.0.9", 1).rc, EADDRNOTAVAIL);
    EXPECT_EQ(questions, 3u + 2u + 3u);
    LibcHookGuard hooks;
    hooks->getifaddrs = [&](struct ifaddrs **) {
        questions++;
        EXPECT_TRUE(lock_is_free());
        errno = EMFILE;
        return -1;
    };
    questions = 0;
    StreamCapture streams;
    EXPECT_EQ(lookup("10.77.0.9", 1).rc, EMFILE);
    EXPECT_EQ(questions, 2u);
}

/* lookup() sees to it that the lock is held on return, whatever the outcome. */
TEST_F(ArpTest, LockIsKeptWhereNothingIsAsked)
{
    dev->rep_num_valid_rts = 0;
    StreamCapture streams;
    EXPECT_EQ(lookup("224.0.0.1").rc, 0);
    EXPECT_EQ(lookup("10.1.2.255").rc, 0);
    EXPECT_EQ(lookup("10.77.0.2").rc, EHOSTUNREACH);
}

TEST_F(ArpTest, EndpointWithoutLocks_ResolvesAsWell)
{
    close();
    open_here(0);
    ASSERT_EQ(dev->rep_lockp, nullptr);
    add_neighbour("10.77.0.2", 2);
    EXPECT_EQ(lookup("10.77.0.2").mac, "020000000002");
    EXPECT_EQ(lookup("10.77.0.9").rc, EADDRNOTAVAIL);
}

/* Another sender that resolves the same next hop meanwhile takes the same entry. */
TEST_F(ArpTest, ResolvedByAnotherMeanwhile_SameEntryWrittenTwice)
{
    add_neighbour("10.77.0.2", 2);
    meanwhile = [this] {
        meanwhile = nullptr;
        EXPECT_EQ(lookup("10.77.0.2").rc, 0);
    };
    EXPECT_EQ(lookup("10.77.0.2").rc, 0);
    EXPECT_EQ(cached(0), "10.77.0.2 020000000002");
    EXPECT_EQ(dev->rep_mac_cache[1].pa_ip_addr_be32, 0u);
}

/* ------------------------------------------------------------------ the public call */

class ResolveMac : public ArpTest {
protected:
    int resolve(const char *address, const char *source = "10.77.0.1")
    {
        memset(mac, 0xee, sizeof mac);
        ruk__ep_lock(dev);
        int rc = ruk__resolve_mac(dev, be32(source), be32(address), mac);
        ruk__ep_unlock(dev);
        return rc;
    }
    uint8_t mac[7];
};

TEST_F(ResolveMac, Resolved_SixBytesWritten)
{
    add_neighbour("10.77.0.2", 2);
    EXPECT_EQ(resolve("10.77.0.2"), 0);
    EXPECT_EQ(hex(mac, 7), "020000000002ee");
    EXPECT_EQ(resolve("239.1.2.3"), 0);
    EXPECT_EQ(hex(mac, 7), "01005e010203ee");
    EXPECT_EQ(resolve("10.1.2.255"), 0);
    EXPECT_EQ(hex(mac, 7), "ffffffffffffee");
}

TEST_F(ResolveMac, SourceAddress_HasNoSay)
{
    add_neighbour("10.77.0.2", 2);
    for (const char *source : {"0.0.0.0", "1.2.3.4", "192.168.1.1"}) {
        memset(dev->rep_mac_cache, 0, sizeof dev->rep_mac_cache);
        trace.clear();
        EXPECT_EQ(resolve("10.77.0.2", source), 0);
        EXPECT_EQ(trace, (Lines{"ask oxel0 10.77.0.2"}));
    }
}

TEST_F(ResolveMac, NotResolved_ErrorOfTheLookupAndNothingWritten)
{
    EXPECT_EQ(resolve("10.77.0.9"), EADDRNOTAVAIL);
    EXPECT_EQ(hex(mac, 7), "eeeeeeeeeeeeee");
    EXPECT_EQ(host.getifaddrs_calls, 1001u + 1u) << "a thousand retries; one list was the open's";
    dev->rep_num_valid_rts = 0;
    StreamCapture streams;
    EXPECT_EQ(resolve("10.77.0.2"), EHOSTUNREACH);
    EXPECT_EQ(streams.err(), "No route to host 10.77.0.2\n");
}

} // namespace
