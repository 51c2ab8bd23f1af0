/* Sending through the public calls, from the caller's buffer to the frame on the wire of a stepped adapter. */
#include "send_rig.h"

#include <atomic>
#include <random>
#include <thread>

namespace {

using namespace send_rig;
using recv_rig::operator+;

class AdapterSend : public SendTest {
protected:
    ~AdapterSend() override
    {
        if (dev)
            ruk_close(dev);
        dev = nullptr;
    }
    int sendto(ruk_channel_t from, const std::string &address, uint16_t port, const Bytes &payload, int flags = 0)
    {
        struct sockaddr_in sin = ipv4(address, port);
        return ruk_sendto(from, &sin, payload.data(), static_cast<int>(payload.size()), flags);
    }
    ruk_send_t connect(ruk_channel_t from, const std::string &address, uint16_t port, int ttl = 0)
    {
        struct sockaddr_in sin = ipv4(address, port);
        ruk_send_t dhs = nullptr;
        EXPECT_EQ(ruk_send_connect(from, &sin, 0, ttl, &dhs), 0);
        return dhs;
    }
    softnic_endpoint_counters_t counters()
    {
        softnic_endpoint_counters_t c;
        softnic_endpoint_counters(nic, 0, dev->rep_epid, &c);
        return c;
    }
    /* A frame of these digits, with zeros up to the shortest length that leaves. */
    static std::vector<Bytes> frame(const std::string &digits)
    {
        Bytes bytes = unhex(digits);
        bytes.resize(std::max<size_t>(bytes.size(), 60));
        return {bytes};
    }
    const Bytes abc = {'a', 'b', 'c'};
};

/* ------------------------------------------------------------------ frames */

TEST_F(AdapterSend, Untagged_FrameByteForByte)
{
    const std::vector<Bytes> expected = frame("020000000002 026f78000001 0800 "
                                              "4500 001f 0000 4000 4011 2632 0a4d0001 0a4d0002 "
                                              "1388 1389 000b ffc7 616263");
    ASSERT_EQ(sendto(ch, "10.77.0.2", 5001, abc), 0);
    EXPECT_EQ(sent(), expected);
    ASSERT_EQ(ruk_send(connect(ch, "10.77.0.2", 5001), abc.data(), 3, RUK_NONBLOCK), 0);
    EXPECT_EQ(sent(), expected);
}

TEST_F(AdapterSend, Tagged_FrameByteForByte_WithoutUdpChecksum)
{
    const std::vector<Bytes> expected = frame("020000000702 026f78000001 8100 e007 0800 "
                                              "4500 001f 0000 4000 4011 1832 0a4d0701 0a4d0702 "
                                              "1388 1389 000b 0000 616263");
    ASSERT_EQ(sendto(tagged, "10.77.7.2", 5001, abc), 0);
    EXPECT_EQ(sent(), expected);
    ASSERT_EQ(ruk_send(connect(tagged, "10.77.7.2", 5001), abc.data(), 3, RUK_NONBLOCK), 0);
    EXPECT_EQ(sent(), expected);
}

TEST_F(AdapterSend, Group_ItsMacAddressAndTtlOne)
{
    ASSERT_EQ(sendto(ch, "239.0.0.1", 5001, abc), 0);
    EXPECT_EQ(sent(), frame("01005e000001 026f78000001 0800 "
                            "4500 001f 0000 4000 0111 807f 0a4d0001 ef000001 "
                            "1388 1389 000b 1b15 616263"));
    ASSERT_EQ(ruk_send(connect(ch, "239.0.0.1", 5001, 64), abc.data(), 3, 0), 0);
    EXPECT_EQ(sent_datagram().ttl, 64u);
}

TEST_F(AdapterSend, Broadcast_AllOnes)
{
    ASSERT_EQ(sendto(ch, "10.77.0.255", 5001, abc), 0);
    EXPECT_EQ(sent(), frame("ffffffffffff 026f78000001 0800 "
                            "4500 001f 0000 4000 4011 2535 0a4d0001 0a4d00ff "
                            "1388 1389 000b feca 616263"));
}

TEST_F(AdapterSend, OffLink_ToTheGateway)
{
    ASSERT_EQ(sendto(ch, "8.8.8.8", 53, abc), 0);
    EXPECT_EQ(sent(), frame("0200000000fe 026f78000001 0800 "
                            "4500 001f 0000 4000 4011 2071 0a4d0001 08080808 "
                            "1388 0035 000b 0d5b 616263"));
}

TEST_F(AdapterSend, Empty_HeaderAndPadding)
{
    ASSERT_EQ(sendto(ch, "10.77.0.2", 5001, {}), 0);
    EXPECT_EQ(sent(), frame("020000000002 026f78000001 0800 "
                            "4500 001c 0000 4000 4011 2635 0a4d0001 0a4d0002 "
                            "1388 1389 0008 c430"));
}

/* Routes are the adapter's, tags the channel's. */
TEST_F(AdapterSend, TaggedChannel_OffLink_TagStays)
{
    ASSERT_EQ(sendto(tagged, "8.8.8.8", 53, abc), 0);
    Datagram d = sent_datagram();
    EXPECT_EQ(d.dst_mac, "0200000000fe");
    EXPECT_EQ(d.vlan, 0xe007);
    EXPECT_EQ(d.src, "10.77.7.1:5000");
}

TEST_F(AdapterSend, EverySize_ArrivesWithGoodChecksums)
{
    ruk_send_t plain = connect(ch, "10.77.0.2", 5001), vlan = connect(tagged, "10.77.7.2", 5001);
    const Bytes source = pattern(1480);
    for (size_t size = 0; size <= 1472; size++) {
        const uint8_t *payload = source.data() + (size == 0 ? 0 : size % 8);
        const Bytes expected(payload, payload + size);
        ASSERT_EQ(ruk_send(plain, payload, static_cast<int>(size), RUK_NONBLOCK), 0);
        Datagram d = sent_datagram();
        ASSERT_EQ(d.payload, expected) << size;
        ASSERT_TRUE(d.ip_checksum_good && d.udp_checksum_good) << size;
        ASSERT_EQ(d.vlan, -1);
        ASSERT_EQ(d.id, 0u);
        ASSERT_EQ(d.fragment_word, 0x4000u);

        ASSERT_EQ(ruk_send(vlan, payload, static_cast<int>(size), RUK_NONBLOCK), 0);
        d = sent_datagram();
        ASSERT_EQ(d.payload, expected) << size;
        ASSERT_TRUE(d.ip_checksum_good) << size;
        ASSERT_EQ(d.udp_checksum, 0u);
        ASSERT_EQ(d.vlan, 0xe007);
    }
    EXPECT_EQ(counters().frames_sent, 2u * 1473);
    EXPECT_EQ(counters().bad_payload + counters().bad_header + counters().bad_type, 0u);
}

TEST_F(AdapterSend, LengthAtTheDriversThreshold_Pio_OneByteMore_Dma)
{
    const int threshold = static_cast<int>(dev->rep_dmasend_threshold);
    ASSERT_EQ(threshold, 1024);
    ruk_send_t dhs = connect(ch, "10.77.0.2", 5001);
    const Bytes payload = pattern(1025);
    for (int length : {1024, 1025}) {
        ASSERT_EQ(ruk_send(dhs, payload.data(), length, 0), 0);
        EXPECT_EQ(sent_datagram().payload, Bytes(payload.begin(), payload.begin() + length));
        Bytes request = next_request();
        ASSERT_EQ(request.size(), 64u);
        EXPECT_EQ(request[63], length == 1024 ? 13 : 14);
        EXPECT_EQ(request[62], 42);
    }
}

TEST_F(AdapterSend, HeaderOfTheCallersOwn_LeavesAsItIs)
{
    Bytes header = unhex("0102030405060708090a0b0c 88b5");
    header.resize(56, 0x5a);
    for (int length : {14, 42, 56}) {
        pthread_mutex_lock(&dev->rep_lock);
        EXPECT_EQ(ruk_raw_send(dev, header.data(), length, 0, 0, abc.data(), 3, 0), 0);
        pthread_mutex_unlock(&dev->rep_lock);
        Bytes expected = Bytes(header.begin(), header.begin() + length) + abc;
        expected.resize(60);
        EXPECT_EQ(sent(), (std::vector<Bytes>{expected})) << length;
    }
}

/* ------------------------------------------------------------------ the rings */

TEST_F(AdapterSend, ManyOfAllSizes_RingsGoRound_EachIntact)
{
    ruk_send_t dhs = connect(ch, "10.77.0.2", 5001);
    std::mt19937 random(3);
    const Bytes source = pattern(1480);
    for (int i = 0; i < 3000; i++) {
        const size_t at = random() % 8, size = 1 + random() % 1472;
        ASSERT_EQ(ruk_send(dhs, source.data() + at, static_cast<int>(size), RUK_NONBLOCK), 0) << i;
        Datagram d = sent_datagram();
        ASSERT_EQ(d.payload, Bytes(source.begin() + static_cast<ptrdiff_t>(at),
                                   source.begin() + static_cast<ptrdiff_t>(at + size)))
            << i;
        ASSERT_TRUE(d.udp_checksum_good);
    }
    EXPECT_GT(dev->rep_pioreq.pio_sb.sb_tail, 10u * 8192);
    EXPECT_GT(dev->rep_dmabuf.sb_tail, 10u * dev->rep_dmabuf.sb_length / 4);
}

TEST_F(AdapterSend, CounterGoesRound_GoesOn)
{
    ruk_send_t dhs = connect(ch, "10.77.0.2", 5001);
    softnic_run(nic);
    for (uint32_t i = 0; i < 66000; i++) {
        ASSERT_EQ(ruk_send(dhs, &i, 4, RUK_NONBLOCK), 0) << i;
        softnic_run(nic);
        uint8_t bytes[64];
        ASSERT_EQ(softnic_take_sent(nic, 0, bytes, sizeof bytes), 60u);
        ASSERT_EQ(memcmp(bytes + 42, &i, 4), 0);
    }
    EXPECT_EQ(dev->rep_sreq_inflight, 66000 % 65536);
}

/* ------------------------------------------------------------------ an adapter that takes its time */

class SlowAdapter : public AdapterSend {
protected:
    void SetUp() override
    {
        start([](softnic_board_config_t &config) {
            config.manual_sends = 1;
            config.sreqs_count = 8;
        });
        dhs = connect(ch, "10.77.0.2", 5001);
    }
    /* Sends the number, and has the request taken when it was accepted. */
    int post(uint32_t number, int flags = RUK_NONBLOCK)
    {
        int rc = ruk_send(dhs, &number, 4, flags);
        if (rc == 0) {
            EXPECT_EQ(softnic_posted_requests(nic, 0, 0), 1u);
            EXPECT_EQ(softnic_take_requests(nic, 0, 0, 1), 1u);
        }
        return rc;
    }
    std::vector<uint32_t> numbers_sent()
    {
        std::vector<uint32_t> numbers;
        for (const Bytes &f : sent()) {
            Datagram d;
            EXPECT_TRUE(read_datagram(f, &d));
            uint32_t number = 0;
            memcpy(&number, d.payload.data(), 4);
            numbers.push_back(number);
        }
        return numbers;
    }
    ruk_send_t dhs = nullptr;
};

TEST_F(SlowAdapter, Full_Nonblocking_AgainLater_NothingAcceptedIsLost)
{
    std::vector<uint32_t> accepted;
    for (uint32_t i = 0; i < 8; i++) {
        ASSERT_EQ(post(i), 0);
        accepted.push_back(i);
    }
    EXPECT_EQ(post(100), EAGAIN);
    ASSERT_EQ(softnic_complete_requests(nic, 0, 0, 3), 3u);
    for (uint32_t i = 8; i < 20; i++)
        if (post(i) == 0)
            accepted.push_back(i);
    EXPECT_EQ(accepted.size(), 11u);
    ASSERT_EQ(softnic_complete_requests(nic, 0, 0, 100), 8u);
    ASSERT_EQ(post(20), 0);
    accepted.push_back(20);
    EXPECT_EQ(numbers_sent(), accepted);
}

TEST_F(SlowAdapter, CompletionsInBurstsAndLate_AllLeaveInOrder)
{
    std::mt19937 random(5);
    std::vector<uint32_t> accepted;
    for (uint32_t i = 0; i < 5000; i++) {
        if (post(i) == 0)
            accepted.push_back(i);
        if (random() % 5 == 0)
            softnic_complete_requests(nic, 0, 0, random() % 9);
    }
    EXPECT_GT(accepted.size(), 2000u);
    EXPECT_LT(accepted.size(), 5000u) << "some were refused";
    EXPECT_EQ(numbers_sent(), accepted);
    softnic_complete_requests(nic, 0, 0, 100);
    pthread_mutex_lock(&dev->rep_lock);
    ruk__try_send_completion(dev);
    pthread_mutex_unlock(&dev->rep_lock);
    EXPECT_EQ(dev->rep_sreq_pool->elem_avail, 8);
    EXPECT_EQ(dev->rep_pioreq.pio_sb.sb_avail, 8192u);
    EXPECT_EQ(counters().completed, accepted.size());
}

TEST_F(SlowAdapter, Full_BlockingThread_SleepsUntilACompletion)
{
    softnic_set_blocking_waits(nic, 1);
    for (uint32_t i = 0; i < 8; i++)
        ASSERT_EQ(post(i), 0);
    std::atomic<bool> waiting{false}, done{false};
    host.sockets.on_ioctl[OXEL_WAIT_SEND_COMPLETION] = [&](int fd, void *arg) {
        waiting = true;
        return host.sockets.next_ioctl(fd, OXEL_WAIT_SEND_COMPLETION, arg);
    };
    std::thread sender([&] {
        EXPECT_EQ(post(8, 0), 0);
        done = true;
    });
    for (int i = 0; i < 5000 && !waiting; i++)
        usleep(1000);
    EXPECT_TRUE(waiting);
    usleep(5000);
    EXPECT_FALSE(done);
    EXPECT_EQ(softnic_complete_requests(nic, 0, 0, 1), 1u);
    sender.join();
    EXPECT_EQ(numbers_sent(), (std::vector<uint32_t>{0, 1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST_F(SlowAdapter, DriverRefusesTheWait_ItsErrorAndNothingLeaves)
{
    for (uint32_t i = 0; i < 8; i++)
        ASSERT_EQ(post(i), 0);
    softnic_set_command_hook(
        nic, [](void *, unsigned, unsigned long command) { return command == OXEL_WAIT_SEND_COMPLETION ? EIO : 0; },
        nullptr);
    EXPECT_EQ(post(8, 0), EIO);
    softnic_set_command_hook(nic, nullptr, nullptr);
    EXPECT_EQ(numbers_sent().size(), 8u);
    EXPECT_EQ(softnic_complete_requests(nic, 0, 0, 1), 1u);
    EXPECT_EQ(post(9, 0), 0) << "it goes on";
}

/* A wire that refuses is the adapter's affair: the request completes. */
TEST_F(AdapterSend, WireRefuses_SenderIsNotTold)
{
    softnic_fail_sends(nic, 0, ENETDOWN, 3);
    for (int i = 0; i < 3; i++) {
        ASSERT_EQ(sendto(ch, "10.77.0.2", 5001, abc), 0);
        EXPECT_EQ(sent().size(), 0u);
    }
    ASSERT_EQ(sendto(ch, "10.77.0.2", 5001, abc), 0);
    EXPECT_EQ(sent().size(), 1u);
    EXPECT_EQ(counters().send_errors, 3u);
    EXPECT_EQ(counters().completed, 4u);
}

/* ------------------------------------------------------------------ several endpoints, close */

TEST_F(AdapterSend, TwoEndpoints_EachSendsByItsOwnRings)
{
    struct in_addr address = in_addr_of("10.77.0.1");
    ruk_device_t second = nullptr;
    ruk_channel_t other = nullptr;
    ASSERT_EQ(ruk_open(&address, 0, &second), 0);
    ASSERT_EQ(second->rep_epid, 1u);
    ASSERT_EQ(ruk_bind(second, 0, 6000, nullptr, &other), 0);
    for (int i = 0; i < 100; i++) {
        ASSERT_EQ(sendto(ch, "10.77.0.2", 5001, abc, RUK_NONBLOCK), 0);
        ASSERT_EQ(sendto(other, "10.77.0.2", 5001, abc, RUK_NONBLOCK), 0);
        std::vector<Bytes> frames = sent();
        ASSERT_EQ(frames.size(), 2u);
        Datagram a, b;
        ASSERT_TRUE(read_datagram(frames[0], &a) && read_datagram(frames[1], &b));
        EXPECT_EQ(a.src, "10.77.0.1:5000");
        EXPECT_EQ(b.src, "10.77.0.1:6000");
    }
    EXPECT_EQ(ruk_close(second), 0);
    ASSERT_EQ(sendto(ch, "10.77.0.2", 5001, abc, RUK_NONBLOCK), 0);
    EXPECT_EQ(sent().size(), 1u);
}

TEST_F(AdapterSend, OpenedAgain_RoutesAndNeighboursReadAnew)
{
    ASSERT_EQ(sendto(ch, "10.77.0.2", 5001, abc), 0);
    sent();
    ASSERT_EQ(ruk_close(dev), 0);
    dev = nullptr;
    host.arp[0].mac = {2, 0, 0, 0, 0, 0x33};
    host.add_route("oxel0", "8.8.8.0", "10.77.0.2", "255.255.255.0", RTF_UP | RTF_GATEWAY);
    struct in_addr address = in_addr_of("10.77.0.1");
    ASSERT_EQ(ruk_open(&address, RUK_OPEN_THREAD_SAFE, &dev), 0);
    ASSERT_EQ(ruk_bind(dev, 0, 5000, nullptr, &ch), 0);
    ASSERT_EQ(sendto(ch, "8.8.8.8", 53, abc), 0);
    EXPECT_EQ(sent_datagram().dst_mac, "020000000033");
}

/* ------------------------------------------------------------------ data of a software endpoint */

TEST_F(AdapterSend, SoftData_PostedOnASoftHandleAlone)
{
    tov_handle_t soft = -1;
    ASSERT_EQ(ruk__open_soft(dev, &soft), 0);
    EXPECT_EQ(ruk__post_soft_data(soft), 0);
    EXPECT_EQ(ruk__post_soft_data(dev->rep_handle), EINVAL);
    EXPECT_EQ(tov_close(soft), 0);
}

} // namespace
