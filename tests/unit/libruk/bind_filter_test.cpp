/* Filters without channels, filters of tag entries, and the filter mode. */
#include "endpoint_test.h"

#include <signal.h>
#include <unistd.h>

using namespace test_support;

namespace {

class FilterTest : public EndpointTest {
protected:
    FilterTest()
    {
        open(RUK_OPEN_THREAD_SAFE);
        driver.take_trace();
    }
    const uint32_t address = be32("10.1.2.3");
};

TEST_F(FilterTest, Add_RecordInHostOrder)
{
    EXPECT_EQ(ruk_filter_add(dev, 17, htons(0xe007), address, htons(5000), 0x1234, 0), 0);
    EXPECT_EQ(ruk_filter_add(dev, 6, 0, address, htons(80), 1, RUK_BIND_KERNEL), 0);
    EXPECT_EQ(ruk_filter_add(dev, 253, 0, address, 0, 0xFFFF, ~4), 0);
    EXPECT_EQ(driver.trace, (Lines{"50EB 0302010a881307e03412000000", "50EB 0302010a500000000100000101",
                                   "50EB 0302010a00000000ffff000002"}));
}

TEST_F(FilterTest, Delete_RecordMarkedAsRemoval)
{
    ASSERT_EQ(ruk_filter_add(dev, 253, htons(0xe007), address, htons(5), 9, RUK_BIND_KERNEL), 0);
    driver.take_trace();
    EXPECT_EQ(ruk_filter_del(dev, 253, htons(0xe007), address, htons(5), 9), 0);
    EXPECT_EQ(driver.trace, Lines{"50EB 0302010a050007e00900010002"});
    EXPECT_EQ(driver.filters.size(), 0u);
}

TEST_F(FilterTest, OtherProtocol_InvalidBeforeTheDriverIsAsked)
{
    for (int protocol : {0, 1, 2, 16, 18, 252, 254, 255, -1, 256 + 17}) {
        EXPECT_EQ(ruk_filter_add(dev, protocol, 0, address, htons(5000), 0, 0), EINVAL) << protocol;
        EXPECT_EQ(ruk_filter_del(dev, protocol, 0, address, htons(5000), 0), EINVAL) << protocol;
    }
    EXPECT_EQ(driver.trace, Lines{});
}

/* Address and port are printed as they were passed: 5000 reads 34835. */
TEST_F(FilterTest, Refused_MessageWithNetworkOrderNumbers)
{
    driver.fail(OXEL_RX_FILTER, 1, ENOSPC);
    StreamCapture streams;
    EXPECT_EQ(ruk_filter_add(dev, 17, 0, address, htons(5000), 7, 0), ENOSPC);
    EXPECT_EQ(streams.err(), "filter-add ip=302010a,port=34835: FAILED with return value 28\n");
    streams.clear();
    EXPECT_EQ(ruk_filter_del(dev, 17, 0, address, htons(5000), 7), ENOENT);
    EXPECT_EQ(streams.err(), "filter-del ip=302010a,port=34835: FAILED with return value 2\n");
    EXPECT_EQ(streams.out(), "");
}

/* What standard output holds back is written out by a failure, to a file too. */
TEST_F(FilterTest, Refused_StandardOutputFlushed)
{
    ChildResult child = run_in_child([&] {
        driver.fail(OXEL_RX_FILTER, 1, ENOSPC, 3);
        printf("one ");
        ruk_filter_add(dev, 17, 0, address, htons(5000), 7, 0);
        printf("two ");
        ruk_filter_del(dev, 17, 0, address, htons(5000), 7);
        printf("three ");
        struct ruk__channel chan = {};
        struct ruk__tag_entry entry = {};
        entry.tage_channel = &chan;
        ruk__filter_op(dev, 1, &entry);
        printf("never");
        return raise(SIGKILL);
    });
    EXPECT_TRUE(child.killed_by(SIGKILL)) << child;
    EXPECT_EQ(child.out, "one two three ");
}

/* Standard error is not: what a program buffers there waits for the program's own flush. */
TEST_F(FilterTest, Refused_StandardErrorNotFlushed)
{
    struct ruk__channel chan = {};
    struct ruk__tag_entry entry = {};
    entry.tage_channel = &chan;
    const std::function<void()> refused[] = {
        [&] { ruk_filter_add(dev, 17, 0, address, htons(5000), 7, 0); },
        [&] { ruk_filter_del(dev, 17, 0, address, htons(5000), 7); },
        [&] { ruk__filter_op(dev, 1, &entry); },
        [&] { ruk__filter_op(dev, 0, &entry); },
    };
    for (const auto &call : refused) {
        ChildResult child = run_in_child([&] {
            static char room[4096];
            setvbuf(stderr, room, _IOFBF, sizeof room);
            fputs("flushed\n", stderr); /* a stream that was used before settles into its new buffer */
            fflush(stderr);
            driver.fail(OXEL_RX_FILTER, 1, ENOSPC);
            call();
            EXPECT_EQ(file_contents(STDERR_FILENO), "flushed\n");
            return 0;
        });
        EXPECT_TRUE(child.exited_with(0)) << child;
        EXPECT_NE(child.err.find("FAILED with return value 28"), std::string::npos) << child.err;
    }
}

TEST_F(FilterTest, TagsOfChannelsNotConsulted)
{
    ruk_channel_t ch;
    ASSERT_EQ(ruk_bind(dev, 0, 5000, nullptr, &ch), 0);
    EXPECT_EQ(ruk_filter_add(dev, 17, 0, address, htons(6000), 0, 0), 0) << "tag 0 is the channel's";
    ASSERT_EQ(driver.filters.size(), 2u);
    EXPECT_EQ(driver.filters[1].tag, 0);
    EXPECT_EQ(ruk_filter_del(dev, 17, 0, address, htons(6000), 0), 0);
}

TEST_F(FilterTest, TakesNoLock)
{
    pthread_mutex_lock(&dev->rep_lock);
    EXPECT_EQ(ruk_filter_add(dev, 17, 0, address, htons(6000), 0, 0), 0);
    EXPECT_EQ(ruk_filter_del(dev, 17, 0, address, htons(6000), 0), 0);
    pthread_mutex_unlock(&dev->rep_lock);
}

/* ------------------------------------------------------------------ filters of entries */

TEST_F(FilterTest, EntryFilter_FromEntryAndChannel)
{
    struct ruk__channel chan = {};
    chan.ch_vlan_be16 = htons(0xe064);
    struct ruk__tag_entry entry = {};
    entry.tage_channel = &chan;
    entry.tage_ip_addr = 0xEF010203;
    entry.tage_udp_port = 5000;
    entry.tage_nuv_tag = 300;
    entry.tage_bindflags = 0xFFFF;
    entry.tage_tcp = 1;
    EXPECT_EQ(ruk__filter_op(dev, 1, &entry), 0);
    EXPECT_EQ(ruk__filter_op(dev, 0, &entry), 0);
    EXPECT_EQ(ruk__filter_op(dev, 1, &entry), 0);
    EXPECT_EQ(ruk__filter_op(dev, 7, &entry), 0) << "whatever is not 1 removes";
    EXPECT_EQ(driver.trace, (Lines{"50EB 030201ef881364e02c01000101", "50EB 030201ef881364e02c01010001",
                                   "50EB 030201ef881364e02c01000101", "50EB 030201ef881364e02c01010001"}));
    entry.tage_bindflags = static_cast<uint16_t>(~4);
    driver.take_trace();
    EXPECT_EQ(ruk__filter_op(dev, 1, &entry), 0);
    EXPECT_EQ(driver.trace, Lines{"50EB 030201ef881364e02c01000001"});
}

/* ------------------------------------------------------------------ filter mode */

TEST_F(FilterTest, Mode_SentAndRemembered)
{
    int held = 0;
    auto answer = host.sockets.on_ioctl[OXEL_SET_FILTER_MODE];
    host.sockets.on_ioctl[OXEL_SET_FILTER_MODE] = [&](int fd, void *arg) {
        held = pthread_mutex_trylock(&dev->rep_lock);
        return answer(fd, arg);
    };
    EXPECT_EQ(ruk_set_filter_mode(dev, RUK_RECV_FILTER_RAW), 0);
    EXPECT_EQ(held, EBUSY) << "under the endpoint lock";
    EXPECT_EQ(dev->rep_recvq_filter_mode, RUK_RECV_FILTER_RAW);
    EXPECT_EQ(ruk_set_filter_mode(dev, RUK_RECV_FILTER_ALLMULTI), 0);
    EXPECT_EQ(ruk_set_filter_mode(dev, static_cast<enum ruk_filter_mode>(3)), 0) << "no range test";
    EXPECT_EQ(driver.trace, (Lines{"4D9F 02000000", "4D9F 01000000", "4D9F 03000000"}));
    EXPECT_EQ(static_cast<uint32_t>(dev->rep_recvq_filter_mode), 3u);
    EXPECT_EQ(pthread_mutex_trylock(&dev->rep_lock), 0);
    pthread_mutex_unlock(&dev->rep_lock);
}

TEST_F(FilterTest, ModeRefused_ErrorAndUnchanged)
{
    driver.fail(OXEL_SET_FILTER_MODE, 1, EPERM);
    EXPECT_EQ(ruk_set_filter_mode(dev, RUK_RECV_FILTER_RAW), EPERM);
    EXPECT_EQ(dev->rep_recvq_filter_mode, RUK_RECV_FILTER_NORMAL);
    EXPECT_EQ(pthread_mutex_trylock(&dev->rep_lock), 0);
    pthread_mutex_unlock(&dev->rep_lock);
}

} // namespace
