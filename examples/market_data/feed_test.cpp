/*
 * How to test an application of libruk without an adapter, a network or privileges: the software adapter is linked
 * into the test and driven step by step, in virtual time. The same seed gives the same run, always. The loopback
 * interface has to be up.
 */
#include "feed.h"
#include "softnic.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <endian.h>
#include <gtest/gtest.h>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

uint16_t port; /* of the feed: the host's choice, so that several tests can run at once */
constexpr uint64_t start_ns = 1700000000000000000;
constexpr uint64_t microsecond = 1000;

using Frame = std::vector<uint8_t>;

void put16(Frame &frame, uint16_t v)
{
    frame.push_back(static_cast<uint8_t>(v >> 8));
    frame.push_back(static_cast<uint8_t>(v));
}

/* A datagram to 127.0.0.1 as it is on the wire; no checksum is verified. */
Frame frame_with(const Frame &payload)
{
    Frame frame = {0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 0, 2, 8, 0, 0x45, 0};
    put16(frame, static_cast<uint16_t>(28 + payload.size()));
    for (const uint8_t byte : {0, 0, 0x40, 0, 64, 17, 0, 0, 127, 0, 0, 9, 127, 0, 0, 1})
        frame.push_back(byte);
    put16(frame, 40000);
    put16(frame, port);
    put16(frame, static_cast<uint16_t>(8 + payload.size()));
    put16(frame, 0);
    frame.insert(frame.end(), payload.begin(), payload.end());
    return frame;
}

Frame message(uint64_t number, uint64_t price)
{
    const uint64_t fields[2] = {htobe64(number), htobe64(price)};
    Frame payload(sizeof fields);
    memcpy(payload.data(), fields, sizeof fields);
    return frame_with(payload);
}

class FeedTest : public testing::Test {
protected:
    void SetUp() override
    {
        /* A board is on the host interface that has its address: here the loopback, where anybody may bind. */
        softnic_board_config_t config;
        softnic_board_defaults(&config, 0);
        memset(config.mac, 0, sizeof config.mac);
        nic = softnic_create(&config, 1, start_ns);
        ASSERT_EQ(softnic_attach(nic), 0);
        ASSERT_EQ(ruk_init(RUK_API_VERSION), 0);
        const in_addr loopback = {htonl(INADDR_LOOPBACK)};
        ASSERT_EQ(ruk_open(&loopback, RUK_OPEN_HW_TIMESTAMPING, &dev), 0);
        ASSERT_EQ(ruk_bind(dev, 0, 0, nullptr, &channel), 0);
        sockaddr_in bound;
        ASSERT_EQ(ruk_getaddress(channel, &bound), 0);
        port = ntohs(bound.sin_port);
    }
    void TearDown() override
    {
        if (dev != nullptr)
            ruk_close(dev);
        softnic_destroy(nic);
    }

    /* The frame arrives at that moment of virtual time, and the adapter does its work. */
    void deliver(const Frame &frame, uint64_t when_ns)
    {
        if (when_ns > softnic_now(nic))
            softnic_advance(nic, when_ns - softnic_now(nic));
        softnic_inject(nic, 0, frame.data(), frame.size());
        softnic_run(nic);
    }

    softnic_t *nic = nullptr;
    ruk_device_t dev = nullptr;
    ruk_channel_t channel = nullptr;
};

/* What a bad network makes of a feed, from a seed. */
struct Arrival {
    uint64_t when_ns;
    uint64_t number;
};

std::vector<Arrival> bad_network(uint64_t seed, uint64_t messages, uint64_t *lost, uint64_t *doubled)
{
    std::mt19937_64 random(seed);
    std::vector<Arrival> arrivals;
    for (uint64_t number = 1; number <= messages; number++) {
        const uint64_t sent = start_ns + number * 100 * microsecond;
        if (number != 1 && number != messages && random() % 20 == 0) {
            ++*lost;
            continue;
        }
        arrivals.push_back({sent + random() % (500 * microsecond), number}); /* up to five messages late */
        if (random() % 30 == 0) {
            ++*doubled;
            arrivals.push_back({sent + random() % (500 * microsecond), number});
        }
    }
    std::stable_sort(arrivals.begin(), arrivals.end(),
                     [](const Arrival &a, const Arrival &b) { return a.when_ns < b.when_ns; });
    return arrivals;
}

} // namespace

TEST_F(FeedTest, MessagesInOrder_NewestPriceAndItsTime)
{
    Feed feed(dev);
    for (uint64_t number = 1; number <= 10; number++)
        deliver(message(number, 100 + number), start_ns + number * 100 * microsecond);
    EXPECT_EQ(feed.poll(), 10);
    EXPECT_EQ(feed.state().messages, 10u);
    EXPECT_EQ(feed.state().missing, 0u);
    EXPECT_EQ(feed.state().price, 110u);
    EXPECT_NEAR(static_cast<double>(feed.state().time_ns), static_cast<double>(start_ns + 1000 * microsecond), 200);
}

TEST_F(FeedTest, LossDelayDuplication_EachIsCounted)
{
    for (uint64_t seed = 1; seed <= 20; seed++) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Feed feed(dev);
        uint64_t lost = 0, doubled = 0;
        uint64_t late = 0, highest = 0, base = softnic_now(nic) - start_ns;
        std::vector<uint64_t> seen;
        for (const Arrival &arrival : bad_network(seed, 500, &lost, &doubled)) {
            deliver(message(arrival.number, 1000 + arrival.number), base + arrival.when_ns);
            if (arrival.number < highest && std::find(seen.begin(), seen.end(), arrival.number) == seen.end())
                late++;
            seen.push_back(arrival.number);
            highest = std::max(highest, arrival.number);
            ASSERT_EQ(feed.poll(), 1);
        }
        EXPECT_EQ(feed.state().missing, lost);
        EXPECT_EQ(feed.state().duplicates, doubled);
        EXPECT_EQ(feed.state().late, late);
        EXPECT_EQ(feed.state().messages, 500 - lost);
        EXPECT_EQ(feed.state().price, 1500u);
    }
}

TEST_F(FeedTest, ShortDatagram_IsDamaged)
{
    Feed feed(dev);
    deliver(frame_with({1, 2, 3}), start_ns);
    EXPECT_EQ(feed.poll(), 1);
    EXPECT_EQ(feed.state().damaged, 1u);
    EXPECT_EQ(feed.state().messages, 0u);
}

TEST_F(FeedTest, NumberZero_IsDamaged)
{
    Feed feed(dev);
    deliver(message(0, 999), start_ns);
    deliver(message(1, 100), start_ns);
    deliver(message(0, 999), start_ns);
    EXPECT_EQ(feed.poll(), 3);
    EXPECT_EQ(feed.state().damaged, 2u);
    EXPECT_EQ(feed.state().duplicates, 0u);
    EXPECT_EQ(feed.state().messages, 1u);
    EXPECT_EQ(feed.state().price, 100u);
}

TEST_F(FeedTest, NumberTooFarAhead_IsDamagedAndTheFeedGoesOn)
{
    Feed feed(dev);
    deliver(message(1, 100), start_ns);
    deliver(message(uint64_t{1} << 63 | 2, 999), start_ns);
    deliver(message(UINT64_MAX, 999), start_ns);
    deliver(message(1 + longest_gap + 1, 999), start_ns);
    EXPECT_EQ(feed.poll(), 4);
    EXPECT_EQ(feed.state().damaged, 3u);
    EXPECT_EQ(feed.state().messages, 1u);
    EXPECT_EQ(feed.state().missing, 0u);
    deliver(message(1 + longest_gap, 101), start_ns);
    EXPECT_EQ(feed.poll(), 1);
    EXPECT_EQ(feed.state().damaged, 3u);
    EXPECT_EQ(feed.state().missing, longest_gap - 1);
    EXPECT_EQ(feed.state().price, 101u);
}

TEST_F(FeedTest, ReaderThatSleeps_LosesOnlyWhatTheRingCannotHold)
{
    Feed feed(dev);
    for (uint64_t number = 1; number <= 20000; number++)
        deliver(message(number, number), start_ns + number * microsecond);
    softnic_endpoint_counters_t counters;
    softnic_endpoint_counters(nic, 0, 0, &counters);
    EXPECT_GT(counters.ring_full, 0u);
    EXPECT_EQ(feed.poll(), static_cast<int>(counters.delivered));
    EXPECT_EQ(counters.delivered + counters.ring_full, 20000u);
    EXPECT_EQ(feed.state().last, counters.delivered); /* the newest are dropped */
}

TEST_F(FeedTest, CaptureFile_IsReplayedAtItsOwnPace)
{
    /* Two frames, 250 us apart, as tcpdump would have written them. */
    char name[] = "/tmp/feed-XXXXXX";
    FILE *file = fdopen(mkstemp(name), "wb");
    const uint32_t header[6] = {0xa1b2c3d4, 0x00040002, 0, 0, 65535, 1};
    fwrite(header, sizeof header, 1, file);
    for (uint32_t number = 1; number <= 2; number++) {
        const Frame frame = message(number, 70 + number);
        const uint32_t record[4] = {1600000000, 250 * number, static_cast<uint32_t>(frame.size()),
                                    static_cast<uint32_t>(frame.size())};
        fwrite(record, sizeof record, 1, file);
        fwrite(frame.data(), frame.size(), 1, file);
    }
    fclose(file);

    char error[200] = "";
    softnic_pcap_t *capture = softnic_pcap_open(name, error, sizeof error);
    unlink(name);
    ASSERT_NE(capture, nullptr) << error;
    Feed feed(dev);
    uint64_t time_ns, first_ns = 0;
    const void *frame;
    size_t len;
    int more;
    while ((more = softnic_pcap_next(capture, &time_ns, &frame, &len)) == 1) {
        if (first_ns == 0)
            first_ns = time_ns;
        softnic_advance(nic, start_ns + (time_ns - first_ns) - softnic_now(nic));
        softnic_inject(nic, 0, frame, len);
        softnic_run(nic);
        EXPECT_EQ(feed.poll(), 1);
    }
    EXPECT_EQ(more, 0);
    softnic_pcap_close(capture);
    EXPECT_EQ(feed.state().messages, 2u);
    EXPECT_EQ(feed.state().price, 72u);
    EXPECT_NEAR(static_cast<double>(feed.state().time_ns), static_cast<double>(start_ns + 250 * microsecond), 200);
}
