/* Header templates, and the requests of datagrams sent on handles. */
#include "send_rig.h"

#include <random>
#include <set>
#include <thread>

namespace {

using namespace send_rig;

/* ------------------------------------------------------------------ the template */

/* 10.77.0.1:5000 of an adapter with MAC address 02:6f:78:00:00:01, to 10.77.0.2:5001 by 02:00:00:00:00:02. */
class TemplateTest : public testing::Test {
protected:
    TemplateTest()
    {
        memcpy(mif.tov_ifa_macaddr, "\x02\x6f\x78\x00\x00\x01", 6);
        ep->rep_mif = &mif;
        chan.ch_rep = ep.get();
        chan.ch_ipaddr_be32 = be32("10.77.0.1");
        chan.ch_port_be16 = htons(5000);
    }
    ruk__send &make(int ttl = 0, int protocol = 17)
    {
        memset(static_cast<void *>(&dhs), 0, sizeof dhs);
        ruk__sendhandle_init(&dhs, &chan, &peer, &sin, ttl, protocol);
        return dhs;
    }
    ruk__send &make_to(const char *address, int ttl)
    {
        peer.pa_ip_addr_be32 = be32(address);
        return make(ttl);
    }
    Bytes bytes(size_t from = 0, size_t to = 64) const
    {
        const uint8_t *start = dhs.dhs_peer_hdrinfo.ureq->bytes;
        return Bytes(start + from, start + to);
    }
    ptrdiff_t place(const void *p) const { return static_cast<const uint8_t *>(p) - dhs.dhs_peer_hdrinfo.ureq->bytes; }

    std::unique_ptr<ruk__ep> ep = std::make_unique<ruk__ep>();
    tov_ifaddrs mif = {};
    ruk__channel chan = {};
    ruk__peer_addr peer = {be32("10.77.0.2"), {2, 0, 0, 0, 0, 2}, 1};
    struct sockaddr_in sin = ipv4("10.77.0.2", 5001);
    ruk__send dhs = {};
};

TEST_F(TemplateTest, Untagged_ByteForByte)
{
    make();
    EXPECT_EQ(bytes(), unhex("000000000000 020000000002 026f78000001 0800 "
                             "4500 0000 0000 4000 4011 0000 0a4d0001 0a4d0002 "
                             "1388 1389 0000 0000 0000000000000000000000000000 2a 00"));
    const ruk__hdrinfo &info = dhs.dhs_peer_hdrinfo;
    EXPECT_EQ(info.eth_proto, 0x0800);
    EXPECT_EQ(place(info.hdr_eth), 6);
    EXPECT_EQ(place(info.hdr_ip), 20);
    EXPECT_EQ(place(info.hdr_udp), 40);
    EXPECT_EQ(place(info.hdr_tcp), 40);
    EXPECT_EQ(place(info.data), 4);
}

/* The pointer to the Ethernet header lies two bytes before it. */
TEST_F(TemplateTest, Tagged_ByteForByte)
{
    chan.ch_vlan_be16 = htons(0xe007);
    make();
    EXPECT_EQ(bytes(), unhex("000000000000 020000000002 026f78000001 8100 e007 0800 "
                             "4500 0000 0000 4000 4011 0000 0a4d0001 0a4d0002 "
                             "1388 1389 0000 0000 00000000000000000000 2e 00"));
    const ruk__hdrinfo &info = dhs.dhs_peer_hdrinfo;
    EXPECT_EQ(info.eth_proto, 0x8100);
    EXPECT_EQ(place(info.hdr_eth), 4);
    EXPECT_EQ(place(info.hdr_ip), 24);
    EXPECT_EQ(place(info.hdr_udp), 44);
    EXPECT_EQ(place(info.hdr_tcp), 44);
    EXPECT_EQ(place(info.data), 4);
}

TEST_F(TemplateTest, HandleFields_CopiedFromPeerAndAddress)
{
    peer.pa_ip_addr_be32 = be32("10.77.0.9");
    make(7);
    EXPECT_EQ(dhs.dhs_socket, nullptr);
    EXPECT_EQ(dhs.dhs_rep, ep.get());
    EXPECT_EQ(dhs.dhs_chan, &chan);
    EXPECT_EQ(dhs.dhs_dpeer.pa_ip_addr_be32, be32("10.77.0.9"));
    EXPECT_EQ(hex(dhs.dhs_dpeer.pa_eth_dest, 6), "020000000002");
    EXPECT_EQ(dhs.dhs_ip_proto, 17);
    EXPECT_EQ(dhs.dhs_dport_be16, htons(5001));
    EXPECT_EQ(dhs.dhs_isuser, 0);
    EXPECT_EQ(dhs.dhs_hashval, 0);
    EXPECT_EQ(dhs.dhs_peer_hdrinfo.ip_ttl, 7);
    EXPECT_EQ(dhs.dhs_peer_hdrinfo.ip_proto, 17);
    EXPECT_EQ(bytes(36, 40), unhex("0a4d0009")) << "the peer's, not the caller's";
}

TEST_F(TemplateTest, TemplateLiesAtTheFirstBoundaryOfItsStorage)
{
    alignas(64) static uint8_t storage[sizeof(ruk__send) + 64];
    for (size_t at = 0; at < 64; at += alignof(ruk__send)) {
        memset(storage, 0, sizeof storage);
        ruk__send *placed = reinterpret_cast<ruk__send *>(storage + at);
        ruk__sendhandle_init(placed, &chan, &peer, &sin, 0, 17);
        const uintptr_t start = reinterpret_cast<uintptr_t>(placed->dhs_peer_hdrinfo.ureq_data);
        const uintptr_t ureq = reinterpret_cast<uintptr_t>(placed->dhs_peer_hdrinfo.ureq);
        EXPECT_EQ(ureq % 64, 0u);
        EXPECT_GE(ureq, start);
        EXPECT_LT(ureq, start + 64);
        EXPECT_EQ(placed->dhs_peer_hdrinfo.ureq->bytes[62], 42);
    }
}

TEST_F(TemplateTest, TtlZero_OneForGroups64ForOthers)
{
    const struct {
        const char *address;
        int given;
        uint8_t ttl;
    } cases[] = {
        {"10.77.0.2", 0, 64},       {"239.0.0.1", 0, 1},  {"224.0.0.0", 0, 1},        {"239.255.255.255", 0, 1},
        {"223.255.255.255", 0, 64}, {"240.0.0.0", 0, 64}, {"255.255.255.255", 0, 64}, {"10.77.0.255", 0, 64},
        {"10.77.0.2", 1, 1},        {"239.0.0.1", 5, 5},  {"239.0.0.1", 64, 64},      {"10.77.0.2", 64, 64},
    };
    for (const auto &c : cases) {
        make_to(c.address, c.given);
        EXPECT_EQ(dhs.dhs_peer_hdrinfo.ip_ttl, c.ttl) << c.address;
        EXPECT_EQ(bytes()[28], c.ttl) << c.address;
    }
}

/* Ten words as they are loaded, without a fold: identification 0, lengths and checksum still 0. */
TEST_F(TemplateTest, PartialSumOfTheIpHeader_PlainSumOfItsWords)
{
    make();
    EXPECT_EQ(dhs.dhs_peer_hdrinfo.csum_ip_partial,
              0x0045u + 0x0000 + 0x0000 + 0x0040 + 0x1140 + 0x0000 + 0x4d0a + 0x0100 + 0x4d0a + 0x0200);
    chan.ch_ipaddr_be32 = be32("255.255.255.254");
    make_to("255.254.255.255", 64);
    EXPECT_EQ(dhs.dhs_peer_hdrinfo.csum_ip_partial, 0x0045u + 0x0040 + 0x1140 + 0xffff + 0xfeff + 0xfeff + 0xffff)
        << "above 16 bits";
}

TEST_F(TemplateTest, PartialSumForUdp_AddressesPortsAndProtocolWithCarries)
{
    make();
    EXPECT_EQ(dhs.dhs_peer_hdrinfo.csum_hdr_partial, 0x01004d0au + 0x02004d0a + 0x8913 + 0x8813 + 0x1100);
    /* 0xfeffa8c0 + 0xfafafafa carries. */
    chan.ch_ipaddr_be32 = be32("192.168.255.254");
    chan.ch_port_be16 = 0xffff;
    sin.sin_port = 0xffff;
    make_to("250.250.250.250", 0);
    EXPECT_EQ(dhs.dhs_peer_hdrinfo.csum_hdr_partial, 0xf9fcb4b9u);
    /* The addresses' sum 0xfffffff0 and the rest 0x210fe carry. */
    chan.ch_ipaddr_be32 = be32("240.255.255.127");
    make_to("0.0.0.128", 0);
    EXPECT_EQ(dhs.dhs_peer_hdrinfo.csum_hdr_partial, 0x000210efu);
}

TEST_F(TemplateTest, Tcp_PortsAndNoHeaderLength)
{
    make(0, 6);
    EXPECT_EQ(bytes(), unhex("000000000000 020000000002 026f78000001 0800 "
                             "4500 0000 0000 4000 4006 0000 0a4d0001 0a4d0002 "
                             "1388 1389 00000000 0000000000000000000000000000 00 00"));
    EXPECT_EQ(dhs.dhs_ip_proto, 6);
    EXPECT_EQ(dhs.dhs_peer_hdrinfo.csum_hdr_partial, 0x01004d0au + 0x02004d0a + 0x8913 + 0x8813 + 0x0600);
    chan.ch_vlan_be16 = htons(7);
    make(0, 6);
    EXPECT_EQ(bytes(44), unhex("1388 1389 00000000 00000000 0000 0000 0000 0000"));
}

/* ------------------------------------------------------------------ requests of datagrams */

class HandleTest : public RequestTest {
protected:
    HandleTest()
    {
        host.add_route("oxel0", "127.0.0.0", "0.0.0.0", "255.0.0.0");
        host.arp = {{"127.0.0.2", {2, 0, 0, 0, 0, 2}}};
    }
    void start(uint32_t threshold = 1400, uint32_t records = 16, uint16_t vlan = 0, int flags = RUK_OPEN_THREAD_SAFE)
    {
        open_with(threshold, records, flags);
        ASSERT_EQ(ruk_bind(dev, 0, 5000, nullptr, &ch), 0);
        struct sockaddr_in sin = ipv4("127.0.0.2", 5001);
        ch->ch_vlan_be16 = htons(vlan); /* while the handle is made; the channel's filter has none */
        ASSERT_EQ(ruk_send_connect(ch, &sin, 0, 0, &dhs), 0);
        ch->ch_vlan_be16 = 0;
        host.sockets.clear();
    }
    /* The frame that a request stands for, its header and the payload where it lies, padded to 60 bytes. */
    Bytes frame(unsigned type)
    {
        using recv_rig::operator+;
        Bytes s = slot(type);
        EXPECT_EQ(s[63], type);
        const size_t length = static_cast<size_t>(s[4] << 8 | s[5]);
        Bytes f = Bytes(s.begin() + 6, s.begin() + 6 + s[62]) +
                  (type == DMA ? dma(data_offset(type), length) : pio(data_offset(type), length));
        if (f.size() < 60)
            f.resize(60);
        return f;
    }
    /* Sends, reads the request as a datagram, and completes it. */
    Datagram sent_by(ruk_send_t handle, const void *payload, int length)
    {
        Datagram d;
        EXPECT_EQ(ruk_send(handle, payload, length, RUK_NONBLOCK), 0);
        EXPECT_TRUE(read_datagram(frame(static_cast<uint32_t>(length) > dev->rep_dmasend_threshold ? DMA : PIO), &d));
        complete();
        return d;
    }
    /* Header bytes of the template: 86, 87, 88, ... */
    void fill_template(unsigned length)
    {
        for (unsigned i = 6; i < 6 + length; i++)
            dhs->dhs_peer_hdrinfo.ureq->bytes[i] = static_cast<uint8_t>(0x80 + i);
    }
    /* The PIO request has them, but for the halves of a word at those offsets. */
    void expect_template_but(const std::set<unsigned> &halves, unsigned length)
    {
        const Bytes request = slot(PIO);
        for (unsigned i = 6; i < 6 + length; i++)
            if (!halves.count(i & ~1u)) {
                EXPECT_EQ(request[i], 0x80 + i) << "byte " << i;
            }
    }
    ruk_channel_t ch = nullptr;
    ruk_send_t dhs = nullptr;
};

TEST_F(HandleTest, Untagged_RequestByteForByte)
{
    start();
    memcpy(buffer, "abc", 3);
    ASSERT_EQ(ruk_send(dhs, buffer, 3, 0), 0);
    Bytes request = slot(PIO);
    EXPECT_EQ(Bytes(request.begin(), request.begin() + 48),
              unhex("00000000 0003 020000000002 026f78000001 0800 "
                    "4500 001f 0000 4000 4011 3ccb 7f000001 7f000002 1388 1389 000b 1661"));
    EXPECT_EQ(request[62], 42);
    EXPECT_EQ(request[63], 13);
    EXPECT_EQ(pio(0, 3), unhex("616263"));
}

/* The checksum is computed all the same, and goes behind the header, where it is not sent. */
TEST_F(HandleTest, Tagged_RequestByteForByte_ChecksumBehindTheHeader)
{
    start(1400, 16, 0xe007);
    memcpy(buffer, "abc", 3);
    ASSERT_EQ(ruk_send(dhs, buffer, 3, 0), 0);
    Bytes request = slot(PIO);
    EXPECT_EQ(Bytes(request.begin(), request.begin() + 54),
              unhex("00000000 0003 020000000002 026f78000001 8100 e007 0800 "
                    "4500 001f 0000 4000 4011 3ccb 7f000001 7f000002 1388 1389 000b 0000 1661"));
    EXPECT_EQ(request[62], 46);
    EXPECT_EQ(request[63], 13);
    EXPECT_EQ(Bytes(dhs->dhs_peer_hdrinfo.ureq->bytes + 50, dhs->dhs_peer_hdrinfo.ureq->bytes + 54), unhex("00000000"))
        << "the template's own checksum stays 0";
}

TEST_F(HandleTest, Empty_HeaderAlone)
{
    start();
    ASSERT_EQ(ruk_send(dhs, nullptr, 0, 0), 0);
    Bytes request = slot(PIO);
    EXPECT_EQ(Bytes(request.begin(), request.begin() + 48),
              unhex("00000000 0000 020000000002 026f78000001 0800 "
                    "4500 001c 0000 4000 4011 3cce 7f000001 7f000002 1388 1389 0008 dac9"));
}

/* All of the header is the template's as it stands, but for lengths and checksums. */
TEST_F(HandleTest, Untagged_TemplateOfOtherBytes_RequestCarriesThem)
{
    start();
    fill_template(42);
    ASSERT_EQ(ruk_send(dhs, buffer, 3, 0), 0);
    expect_template_but({22, 30, 44, 46}, 42);
    EXPECT_EQ(window(PIO * 256 + 22, 2), unhex("001f"));
    EXPECT_EQ(window(PIO * 256 + 44, 2), unhex("000b"));
}

TEST_F(HandleTest, Tagged_TemplateOfOtherBytes_RequestCarriesThem)
{
    start(1400, 16, 0xe007);
    fill_template(46);
    ASSERT_EQ(ruk_send(dhs, buffer, 3, 0), 0);
    expect_template_but({26, 34, 48}, 46);
    EXPECT_EQ(window(PIO * 256 + 26, 2), unhex("001f"));
    EXPECT_EQ(window(PIO * 256 + 48, 2), unhex("000b"));
}

TEST_F(HandleTest, EveryAlignmentAndLength_BothChecksumsGood)
{
    start(700);
    for (uint32_t at = 0; at < 4; at++)
        for (int length = at == 0 ? 0 : 1; length <= 1472; length += length < 80 ? 1 : 29) {
            Datagram d = sent_by(dhs, buffer + at, length);
            ASSERT_TRUE(d.ip_checksum_good) << at << " " << length;
            ASSERT_TRUE(d.udp_checksum_good) << at << " " << length;
            ASSERT_EQ(d.payload, Bytes(buffer + at, buffer + at + length));
            ASSERT_EQ(d.udp_length, 8u + static_cast<unsigned>(length));
            ASSERT_EQ(d.total_length, 28u + static_cast<unsigned>(length));
        }
}

TEST_F(HandleTest, Tagged_EveryAlignmentAndLength_NoUdpChecksum_IpChecksumGood)
{
    start(700, 16, 0xe064);
    for (uint32_t at = 0; at < 4; at++)
        for (int length = at == 0 ? 0 : 1; length <= 1472; length += length < 80 ? 1 : 29) {
            Datagram d = sent_by(dhs, buffer + at, length);
            ASSERT_TRUE(d.ip_checksum_good) << at << " " << length;
            ASSERT_EQ(d.udp_checksum, 0u) << at << " " << length;
            ASSERT_EQ(d.vlan, 0xe064);
            ASSERT_EQ(d.payload, Bytes(buffer + at, buffer + at + length));
        }
}

TEST_F(HandleTest, AnyAddressesPortsAndTtl_BothChecksumsGood)
{
    start(700);
    std::mt19937 random(17);
    auto any_address = [&](bool high) { return static_cast<uint32_t>(high ? 0xffffffff - random() % 4 : random()); };
    for (int i = 0; i < 3000; i++) {
        ruk__channel from = {};
        from.ch_rep = dev;
        from.ch_ipaddr_be32 = any_address(i % 3 == 0);
        from.ch_port_be16 = static_cast<uint16_t>(random());
        ruk__peer_addr peer = {any_address(i % 5 == 0), {2, 0, 0, 0, 0, 2}, 1};
        struct sockaddr_in sin = ipv4("0.0.0.0", static_cast<uint16_t>(random()));
        const int ttl = static_cast<int>(random() % 65);
        ruk__send handle = {};
        ruk__sendhandle_init(&handle, &from, &peer, &sin, ttl, 17);
        const uint32_t at = random() % 8;
        const int length = 1 + static_cast<int>(random() % 1472);
        Datagram d = sent_by(&handle, buffer + at, length);
        ASSERT_TRUE(d.ip_checksum_good) << i;
        ASSERT_TRUE(d.udp_checksum_good) << i;
        if (ttl != 0) {
            ASSERT_EQ(d.ttl, static_cast<unsigned>(ttl));
        }
        ASSERT_EQ(d.src,
                  std::string(inet_ntoa({from.ch_ipaddr_be32})) + ":" + std::to_string(ntohs(from.ch_port_be16)));
        ASSERT_EQ(d.dst, std::string(inet_ntoa({peer.pa_ip_addr_be32})) + ":" + std::to_string(ntohs(sin.sin_port)));
    }
}

/* Each sum that the header's words can have below its upper half: some carry again when the carries are added. */
TEST_F(HandleTest, AnySumOfTheIpHeader_FoldedTwice)
{
    start();
    ruk__channel from = {};
    from.ch_rep = dev;
    ruk__peer_addr peer = {be32("255.255.255.254"), {2, 0, 0, 0, 0, 2}, 1};
    struct sockaddr_in sin = ipv4("255.255.255.254", 5001);
    for (uint32_t word = 0; word < 0x10000; word++) {
        from.ch_ipaddr_be32 = 0xfeff0000 | word;
        ruk__send handle = {};
        ruk__sendhandle_init(&handle, &from, &peer, &sin, 0, 17);
        ASSERT_EQ(ruk_send(&handle, buffer, 4, RUK_NONBLOCK), 0);
        complete();
        Bytes request = slot(PIO);
        ASSERT_EQ(internet_sum(Bytes(request.begin() + 20, request.begin() + 40)), 0xffff) << word;
    }
}

TEST_F(HandleTest, EachDatagram_IdentificationZero_NeverFragmented)
{
    start();
    for (int i = 0; i < 100; i++) {
        Datagram d = sent_by(dhs, buffer, i);
        EXPECT_EQ(d.id, 0u);
        EXPECT_EQ(d.fragment_word, 0x4000u);
        EXPECT_EQ(d.tos, 0u);
        EXPECT_EQ(d.ttl, 64u);
    }
}

TEST_F(HandleTest, UdpChecksumOfZero_SentAsAllOnes)
{
    start();
    buffer[0] = buffer[1] = 0;
    const unsigned check = sent_by(dhs, buffer, 2).udp_checksum;
    buffer[0] = static_cast<uint8_t>(check >> 8);
    buffer[1] = static_cast<uint8_t>(check);
    Datagram d = sent_by(dhs, buffer, 2);
    EXPECT_EQ(d.udp_checksum, 0xffffu);
    EXPECT_TRUE(d.udp_checksum_good);
}

/* Only lengths and checksums of the template change, and a longer datagram leaves nothing to a shorter one. */
TEST_F(HandleTest, LongThenShort_TemplateRewrittenEachTime)
{
    start();
    const Datagram before = sent_by(dhs, buffer, 10);
    sent_by(dhs, buffer, 1400);
    sent_by(dhs, buffer, 1401);
    const Datagram after = sent_by(dhs, buffer, 10);
    EXPECT_EQ(after.total_length, 38u);
    EXPECT_EQ(after.udp_checksum, before.udp_checksum);
    EXPECT_TRUE(after.ip_checksum_good && after.udp_checksum_good);
}

/* Lengths are 16 bits wide and nobody checks them. */
TEST_F(HandleTest, LengthBeyondAFrame_NotChecked)
{
    start(8192);
    ASSERT_EQ(ruk_send(dhs, buffer, 8000, RUK_NONBLOCK), 0);
    Bytes request = slot(PIO);
    EXPECT_EQ(Bytes(request.begin() + 4, request.begin() + 6), unhex("1f40"));
    EXPECT_EQ(Bytes(request.begin() + 22, request.begin() + 24), unhex("1f5c"));
    EXPECT_EQ(Bytes(request.begin() + 44, request.begin() + 46), unhex("1f48"));
}

/* ------------------------------------------------------------------ results */

TEST_F(HandleTest, Full_Nonblocking_AgainLater)
{
    start(1400, 8);
    for (int i = 0; i < 8; i++)
        ASSERT_EQ(ruk_send(dhs, buffer, 10, RUK_NONBLOCK), 0);
    errno = 77;
    EXPECT_EQ(ruk_send(dhs, buffer, 10, RUK_NONBLOCK), EAGAIN);
    EXPECT_EQ(errno, 77) << "the result alone tells";
    struct sockaddr_in sin = ipv4("127.0.0.2", 5001);
    EXPECT_EQ(ruk_sendto(ch, &sin, buffer, 10, RUK_NONBLOCK), EAGAIN);
    EXPECT_TRUE(lock_is_free());
    complete();
    EXPECT_EQ(ruk_send(dhs, buffer, 10, RUK_NONBLOCK), 0);
}

TEST_F(HandleTest, WaitFails_ItsErrorReturned)
{
    start(1400, 8);
    for (int i = 0; i < 8; i++)
        ASSERT_EQ(ruk_send(dhs, buffer, 10, 0), 0);
    on_wait = [] { return EINTR; };
    EXPECT_EQ(ruk_send(dhs, buffer, 10, 0), EINTR);
    struct sockaddr_in sin = ipv4("127.0.0.2", 5001);
    EXPECT_EQ(ruk_sendto(ch, &sin, buffer, 10, 0), EINTR);
    EXPECT_TRUE(lock_is_free());
}

TEST_F(HandleTest, QueuesNotSetUp_Invalid_SentOnceEnabled)
{
    open(RUK_OPEN_DISABLED | RUK_OPEN_THREAD_SAFE);
    ASSERT_EQ(ruk_bind(dev, 0, 5000, nullptr, &ch), 0);
    struct sockaddr_in sin = ipv4("127.0.0.2", 5001);
    ASSERT_EQ(ruk_send_connect(ch, &sin, 0, 0, &dhs), 0);
    EXPECT_EQ(ruk_send(dhs, buffer, 10, 0), EINVAL);
    EXPECT_EQ(ruk_sendto(ch, &sin, buffer, 10, 0), EINVAL);
    EXPECT_TRUE(lock_is_free());
    ASSERT_EQ(ruk_device_enable(dev), 0);
    EXPECT_EQ(ruk_send(dhs, buffer, 10, 0), 0);
    EXPECT_EQ(slot(PIO)[63], PIO);
}

/* ------------------------------------------------------------------ locks */

TEST_F(HandleTest, LockIsHeldWhileSending_OtherThreadWaits)
{
    start();
    pthread_mutex_lock(&dev->rep_lock);
    std::thread other([this] { EXPECT_EQ(ruk_send(dhs, buffer, 10, RUK_NONBLOCK), 0); });
    usleep(20000);
    EXPECT_EQ(slot(PIO)[63], 0xee) << "waits for the lock, whatever its flags";
    EXPECT_EQ(dhs->dhs_peer_hdrinfo.hdr_udp->udp_len_be16, 0) << "nor is the template touched";
    pthread_mutex_unlock(&dev->rep_lock);
    other.join();
    EXPECT_EQ(slot(PIO)[63], PIO);
    EXPECT_TRUE(lock_is_free());
}

/* While a sender waits for room the lock is free, and another may send on the same handle. */
TEST_F(HandleTest, AnotherSendsOnTheHandleDuringTheWait_EachHasItsOwnLengths)
{
    start(1400, 8);
    for (int i = 0; i < 8; i++)
        ASSERT_EQ(ruk_send(dhs, buffer, 10, 0), 0);
    Datagram inner;
    on_wait = [&] {
        complete(2);
        EXPECT_TRUE(lock_is_free());
        EXPECT_EQ(ruk_send(dhs, buffer, 33, RUK_NONBLOCK), 0);
        EXPECT_TRUE(read_datagram(frame(PIO), &inner));
        return 0;
    };
    ASSERT_EQ(ruk_send(dhs, buffer + 100, 200, 0), 0);
    Datagram outer;
    ASSERT_TRUE(read_datagram(frame(PIO), &outer));
    EXPECT_EQ(inner.payload, Bytes(buffer, buffer + 33));
    EXPECT_TRUE(inner.ip_checksum_good && inner.udp_checksum_good);
    EXPECT_EQ(outer.payload, Bytes(buffer + 100, buffer + 300));
    EXPECT_EQ(outer.udp_length, 208u);
    EXPECT_TRUE(outer.ip_checksum_good && outer.udp_checksum_good);
}

TEST_F(HandleTest, EndpointWithoutLocks_Sends)
{
    start(1400, 16, 0, 0);
    ASSERT_EQ(dev->rep_lockp, nullptr);
    EXPECT_EQ(sent_by(dhs, buffer, 10).payload, Bytes(buffer, buffer + 10));
}

TEST_F(HandleTest, RoomThere_NoCommandAndNoAllocation)
{
    start();
    struct sockaddr_in sin = ipv4("127.0.0.2", 5001);
    ASSERT_EQ(ruk_sendto(ch, &sin, buffer, 10, 0), 0);
    host.sockets.clear();
    AllocFault allocations;
    ASSERT_EQ(ruk_send(dhs, buffer, 1000, 0), 0);
    ASSERT_EQ(ruk_sendto(ch, &sin, buffer, 1401, 0), 0);
    EXPECT_EQ(allocations.calls(), 0u);
    EXPECT_TRUE(host.sockets.log().empty());
}

/* ------------------------------------------------------------------ data of a software endpoint */

TEST_F(HandleTest, SoftData_CommandWithoutAnArgument)
{
    open();
    int error = 0;
    unsigned calls = 0;
    host.sockets.on_ioctl[0x4da1] = [&](int fd, void *arg) {
        calls++;
        EXPECT_EQ(fd, 12345);
        EXPECT_EQ(arg, nullptr);
        errno = error;
        return error == 0 ? 0 : -1;
    };
    EXPECT_EQ(ruk__post_soft_data(12345), 0);
    error = ENODEV;
    EXPECT_EQ(ruk__post_soft_data(12345), ENODEV);
    EXPECT_EQ(calls, 2u);
}

} // namespace
