/* The raw endpoint: driver commands with literal records, the limit of outstanding sends, its two locks. */
#include "fake_driver.h"
#include "oxel_raw.h"

#include <atomic>
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <thread>
#include <unistd.h>

using namespace test_support;

namespace {

constexpr unsigned long cmd_open = 0x50C3, cmd_type = 0x4D0A, cmd_send = 0x4D5B, cmd_event = 0x4D5C;

struct RawEndpoint : testing::Test {
    RawEndpoint()
    {
        driver.files["/dev/oxelBp2"] = 0;
        driver.boards.resize(3);
        driver.boards[2].type = 42;
        driver.table.on_ioctl[cmd_open] = [this](int, void *arg) {
            open_argument = arg;
            return 0;
        };
        driver.table.on_ioctl[cmd_send] = [](int, void *) { return 0; };
    }
    ~RawEndpoint() override
    {
        if (endpoint) {
            tov_handle_t handle = oxel_raw_handle(endpoint);
            EXPECT_EQ(oxel_raw_close_endpoint(endpoint), 0);
            close(handle);
        }
    }
    void open_it() { ASSERT_EQ(oxel_raw_open_endpoint(2, &endpoint, 1), 0); }
    int send_one() { return oxel_raw_send(endpoint, 0, nullptr, 0, nullptr, 0, nullptr); }
    void answer_events(uint32_t status, uint64_t context = 0, uint64_t ticks = 0)
    {
        driver.table.on_ioctl[cmd_event] = [=](int, void *arg) {
            oxel_raw_next_event_t *event = static_cast<oxel_raw_next_event_t *>(arg);
            event->context = context;
            event->nic_ticks = ticks;
            event->incoming_port = 3;
            event->recv_bytes = 99;
            event->status = status;
            return 0;
        };
    }
    int next_event() { return oxel_raw_next_event(endpoint, &port, &context, buffer, &bytes, 250, &status, &ticks); }

    FakeDriver driver;
    oxel_raw_endpoint_t endpoint = nullptr;
    void *open_argument = this;

    int port = -1;
    void *context = this;
    char buffer[64] = {};
    int bytes = sizeof buffer;
    int status = -1;
    uint64_t ticks = 1234;
};

} // namespace

TEST_F(RawEndpoint, Record_Fields_InOrder)
{
    EXPECT_EQ(offsetof(oxel_raw_endpoint, lock), 0u);
    EXPECT_EQ(offsetof(oxel_raw_endpoint, next_event_lock), sizeof(pthread_mutex_t));
    EXPECT_EQ(offsetof(oxel_raw_endpoint, handle), 2 * sizeof(pthread_mutex_t));
    EXPECT_EQ(offsetof(oxel_raw_endpoint, board_num), 2 * sizeof(pthread_mutex_t) + 4);
    EXPECT_EQ(offsetof(oxel_raw_endpoint, board_type), 2 * sizeof(pthread_mutex_t) + 8);
    EXPECT_EQ(offsetof(oxel_raw_endpoint, pending_sends), 2 * sizeof(pthread_mutex_t) + 12);
}

TEST_F(RawEndpoint, Board_Opened_CommandsInOrderRecordFilled)
{
    open_it();
    EXPECT_EQ(driver.opens, std::vector<std::string>{"/dev/oxelBp2"});
    EXPECT_EQ(driver.table.ioctl_requests(), (std::vector<unsigned long>{cmd_open, cmd_type}));
    EXPECT_EQ(open_argument, nullptr);
    EXPECT_EQ(oxel_raw_handle(endpoint), driver.handle);
    EXPECT_EQ(endpoint->handle, driver.handle);
    EXPECT_EQ(endpoint->board_num, 2);
    EXPECT_EQ(endpoint->board_type, 42);
    EXPECT_EQ(endpoint->pending_sends, 0);
}

TEST_F(RawEndpoint, Product_Opened_SelectsTheFamily)
{
    EXPECT_EQ(oxel_raw_open_endpoint(0, &endpoint, 26), EINVAL);
    EXPECT_EQ(oxel_raw_open_endpoint(5, &endpoint, 3), ENOENT);
    EXPECT_EQ(driver.opens, (std::vector<std::string>{"/dev/oxelDp5", "/dev/oxelD5"}));
    EXPECT_EQ(endpoint, nullptr);
    EXPECT_EQ(driver.table.count(Slot::close), 0u) << "no handle, nothing to close";
}

TEST_F(RawEndpoint, CommandFails_Opened_HandleClosedErrorReturned)
{
    for (unsigned long command : {cmd_open, cmd_type}) {
        driver.table.clear();
        driver.table.fail_ioctl(command, 1, EPROTO);
        EXPECT_EQ(oxel_raw_open_endpoint(2, &endpoint, 1), EPROTO);
        EXPECT_EQ(endpoint, nullptr);
        EXPECT_EQ(driver.table.ioctl_requests().back(), command);
        EXPECT_EQ(driver.table.count(Slot::close), 1u);
        EXPECT_EQ(driver.table.log().back().fd, driver.handle);
        EXPECT_EQ(fcntl(driver.handle, F_GETFD), -1);
    }
}

TEST_F(RawEndpoint, NoMemory_Opened_EnomemBeforeAnythingElse)
{
    AllocFault fault(1);
    EXPECT_EQ(oxel_raw_open_endpoint(2, &endpoint, 1), ENOMEM);
    EXPECT_EQ(endpoint, nullptr);
    EXPECT_TRUE(driver.opens.empty());
}

TEST_F(RawEndpoint, Closed_HandleStaysOpen)
{
    open_it();
    tov_handle_t handle = oxel_raw_handle(endpoint);
    EXPECT_EQ(oxel_raw_close_endpoint(endpoint), 0);
    endpoint = nullptr;
    EXPECT_EQ(driver.table.count(Slot::close), 0u);
    EXPECT_GE(fcntl(handle, F_GETFD), 0);
    close(handle);
}

TEST_F(RawEndpoint, Frame_Sent_RecordByteForByte)
{
    open_it();
    unsigned char record[32];
    driver.table.on_ioctl[cmd_send] = [&](int fd, void *arg) {
        EXPECT_EQ(fd, driver.handle);
        memcpy(record, arg, sizeof record);
        return 0;
    };
    /* Addresses that fit 32 bits; nothing looks behind them. */
    void *data = reinterpret_cast<void *>(0x11223344), *route = reinterpret_cast<void *>(0x55667708),
         *ctx = reinterpret_cast<void *>(0x0badcafe);
    EXPECT_EQ(oxel_raw_send(endpoint, 0x1a, route, 0x1b, data, 0x12345, ctx), 0);
    const unsigned char expected[28] = {0x44, 0x33, 0x22, 0x11, 0,    0,    0, 0, 0x08, 0x77, 0x66, 0x55, 0,    0,
                                        0,    0,    0xfe, 0xca, 0xad, 0x0b, 0, 0, 0,    0,    0x1b, 0x1a, 0x45, 0x23};
    EXPECT_EQ(memcmp(record, expected, sizeof expected), 0);
    EXPECT_EQ(endpoint->pending_sends, 1);
}

#if UINTPTR_MAX > UINT32_MAX
TEST_F(RawEndpoint, WidePointers_Sent_TravelWhole)
{
    open_it();
    oxel_raw_send_t seen = {};
    driver.table.on_ioctl[cmd_send] = [&](int, void *arg) {
        memcpy(&seen, arg, sizeof seen);
        return 0;
    };
    const auto wide = [](uint64_t address) { return reinterpret_cast<void *>(static_cast<uintptr_t>(address)); };
    EXPECT_EQ(
        oxel_raw_send(endpoint, 0, wide(0x7ffd0123456789ab), 3, wide(0x7ffe123456789abc), 1, wide(0x7fff23456789abcd)),
        0);
    EXPECT_EQ(seen.data_pointer, 0x7ffe123456789abcu);
    EXPECT_EQ(seen.route_pointer, 0x7ffd0123456789abu);
    EXPECT_EQ(seen.context, 0x7fff23456789abcdu);
}
#endif

TEST_F(RawEndpoint, CommandFails_Sent_ErrorAndNothingPending)
{
    open_it();
    driver.table.fail_ioctl(cmd_send, 1, EIO);
    EXPECT_EQ(send_one(), EIO);
    EXPECT_EQ(endpoint->pending_sends, 0);
    EXPECT_EQ(send_one(), 0);
    EXPECT_EQ(endpoint->pending_sends, 1);
}

TEST_F(RawEndpoint, SixtyFourPending_Sent_BusyWithoutACommandUntilOneCompletes)
{
    open_it();
    for (int i = 0; i < 64; i++)
        ASSERT_EQ(send_one(), 0);
    EXPECT_EQ(endpoint->pending_sends, 64);
    EXPECT_EQ(send_one(), EBUSY);
    EXPECT_EQ(driver.table.count_ioctl(cmd_send), 64u);
    EXPECT_EQ(endpoint->pending_sends, 64);

    answer_events(1);
    ASSERT_EQ(next_event(), 0);
    EXPECT_EQ(endpoint->pending_sends, 63);
    EXPECT_EQ(send_one(), 0);
    EXPECT_EQ(send_one(), EBUSY);
}

TEST_F(RawEndpoint, Event_AwaitedRecord_ByteForByte)
{
    open_it();
    unsigned char record[40];
    driver.table.on_ioctl[cmd_event] = [&](int fd, void *arg) {
        EXPECT_EQ(fd, driver.handle);
        memcpy(record, arg, sizeof record);
        return 0;
    };
    bytes = 0x1234;
    EXPECT_EQ(oxel_raw_next_event(endpoint, &port, &context, reinterpret_cast<void *>(0x11223344), &bytes, 0x55667788,
                                  &status, &ticks),
              0);
    const unsigned char address[8] = {0x44, 0x33, 0x22, 0x11, 0, 0, 0, 0};
    EXPECT_EQ(memcmp(record, address, 8), 0);
    const unsigned char size[4] = {0x34, 0x12, 0, 0};
    EXPECT_EQ(memcmp(record + 28, size, 4), 0);
    const unsigned char timeout[4] = {0x88, 0x77, 0x66, 0x55};
    EXPECT_EQ(memcmp(record + 32, timeout, 4), 0);
}

TEST_F(RawEndpoint, SendCompleted_Event_ContextAndTicksPendingLowered)
{
    open_it();
    ASSERT_EQ(send_one(), 0);
    ASSERT_EQ(send_one(), 0);
    answer_events(1, 0x0badcafe, 0x1122334455667788);
    ASSERT_EQ(next_event(), 0);
    EXPECT_EQ(status, 1);
    EXPECT_EQ(context, reinterpret_cast<void *>(0x0badcafe));
    EXPECT_EQ(ticks, 0x1122334455667788u);
    EXPECT_EQ(endpoint->pending_sends, 1);
    EXPECT_EQ(port, -1) << "never written back";
    EXPECT_EQ(bytes, 64) << "never written back";
}

TEST_F(RawEndpoint, OtherKinds_Event_OnlyTheStatusWrittenBack)
{
    open_it();
    ASSERT_EQ(send_one(), 0);
    for (uint32_t kind : {0u, 2u, 3u, 0x80000000u}) {
        answer_events(kind, 0x0badcafe, 77);
        ASSERT_EQ(next_event(), 0);
        EXPECT_EQ(static_cast<uint32_t>(status), kind);
        EXPECT_EQ(context, this);
        EXPECT_EQ(ticks, 1234u);
        EXPECT_EQ(port, -1);
        EXPECT_EQ(bytes, 64);
        EXPECT_EQ(endpoint->pending_sends, 1);
    }
}

TEST_F(RawEndpoint, CommandFails_Event_ErrorAndNothingWritten)
{
    open_it();
    ASSERT_EQ(send_one(), 0);
    driver.table.fail_ioctl(cmd_event, 1, ETIMEDOUT);
    EXPECT_EQ(next_event(), ETIMEDOUT);
    EXPECT_EQ(status, -1);
    EXPECT_EQ(context, this);
    EXPECT_EQ(ticks, 1234u);
    EXPECT_EQ(endpoint->pending_sends, 1);
    EXPECT_EQ(pthread_mutex_trylock(&endpoint->next_event_lock), 0) << "the lock is free again";
    pthread_mutex_unlock(&endpoint->next_event_lock);
}

TEST_F(RawEndpoint, CommandsRunning_Locks_EachUnderItsOwn)
{
    open_it();
    auto locked = [](pthread_mutex_t *mutex) {
        bool result = false;
        std::thread([&] {
            result = pthread_mutex_trylock(mutex) == EBUSY;
            if (!result)
                pthread_mutex_unlock(mutex);
        }).join();
        return result;
    };
    driver.table.on_ioctl[cmd_send] = [&](int, void *) {
        EXPECT_TRUE(locked(&endpoint->lock));
        EXPECT_FALSE(locked(&endpoint->next_event_lock));
        return 0;
    };
    driver.table.on_ioctl[cmd_event] = [&](int, void *) {
        EXPECT_FALSE(locked(&endpoint->lock));
        EXPECT_TRUE(locked(&endpoint->next_event_lock));
        return 0;
    };
    EXPECT_EQ(send_one(), 0);
    EXPECT_EQ(next_event(), 0);
    EXPECT_FALSE(locked(&endpoint->lock));
    EXPECT_FALSE(locked(&endpoint->next_event_lock));
}

TEST_F(RawEndpoint, ThreadInsideAnEventWait_OtherThreadSends_BothProceed)
{
    open_it();
    std::atomic<bool> waiting{false}, sent{false};
    driver.table.on_ioctl[cmd_event] = [&](int, void *arg) {
        waiting = true;
        while (!sent)
            std::this_thread::yield();
        static_cast<oxel_raw_next_event_t *>(arg)->status = 1;
        return 0;
    };
    std::thread waiter([&] { EXPECT_EQ(next_event(), 0); });
    while (!waiting)
        std::this_thread::yield();
    EXPECT_EQ(send_one(), 0);
    EXPECT_EQ(endpoint->pending_sends, 1);
    sent = true;
    waiter.join();
    EXPECT_EQ(endpoint->pending_sends, 0);
}
