// Raw endpoints of the driver.
#include "rig.h"

#include <thread>

namespace softnic_test {
namespace {

int raw_send(int fd, const Bytes &frame, uint64_t context, uint8_t port = 0)
{
    oxel_raw_send_t s = {};
    s.data_pointer = reinterpret_cast<uintptr_t>(frame.data());
    s.data_length = static_cast<uint16_t>(frame.size());
    s.context = context;
    s.physical_port = port;
    return command(fd, OXEL_RAW_SEND, &s);
}

struct Event {
    int rc;
    oxel_raw_next_event_t e;
    Bytes buffer;
};

Event next_event(int fd, uint32_t timeout = 0, uint32_t size = 2000)
{
    Event event{0, {}, Bytes(size)};
    event.e.recv_buffer = reinterpret_cast<uintptr_t>(event.buffer.data());
    event.e.recv_bytes = size;
    event.e.timeout = timeout;
    event.rc = command(fd, OXEL_RAW_NEXT_EVENT, &event.e);
    if (event.rc == 0)
        event.buffer.resize(event.e.recv_bytes);
    return event;
}

TEST(Raw, SentFrame_LeavesAndIsReportedWithItsContextAndTime)
{
    Nic nic(1, [](softnic_board_config_t &c) {
        c.clock_ns_numerator = c.clock_ns_denominator = 1;
        c.clock_first_ticks = 1000;
    });
    Device dev;
    ASSERT_EQ(command(dev.fd, OXEL_RAW_OPEN), 0);
    EXPECT_FALSE(readable(dev.fd));
    const Bytes frame = make_frame();
    softnic_advance(nic, 234);
    ASSERT_EQ(raw_send(dev.fd, frame, 0xFEDCBA9876543210u), 0);
    EXPECT_TRUE(readable(dev.fd));
    Bytes out(2000);
    out.resize(softnic_take_sent(nic, 0, out.data(), out.size()));
    EXPECT_EQ(out, frame);
    const Event event = next_event(dev.fd);
    ASSERT_EQ(event.rc, 0);
    EXPECT_EQ(event.e.status, 1u);
    EXPECT_EQ(event.e.context, 0xFEDCBA9876543210u);
    EXPECT_EQ(event.e.nic_ticks, 1234u);
    EXPECT_FALSE(readable(dev.fd));
}

TEST(Raw, ReceivedFrame_IsAnEventOfAnotherKind)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(command(dev.fd, OXEL_RAW_OPEN), 0);
    const Bytes frame = make_frame();
    softnic_advance(nic, 123456789);
    nic.inject(frame);
    softnic_run(nic);
    oxel_get_nic_ticks_t now = {};
    ASSERT_EQ(command(dev.fd, OXEL_GET_NIC_TICKS, &now), 0);
    softnic_advance(nic, 1000000); // fetched later
    EXPECT_TRUE(readable(dev.fd));
    const Event event = next_event(dev.fd);
    ASSERT_EQ(event.rc, 0);
    EXPECT_EQ(event.e.status, 2u);
    EXPECT_EQ(event.e.incoming_port, 0u);
    EXPECT_GT(now.nic_ticks, 0u);
    EXPECT_EQ(event.e.nic_ticks, now.nic_ticks);
    EXPECT_EQ(event.buffer, frame);
}

TEST(Raw, FirmwareThatRunsLater_DatesTheFrameWhenItCame)
{
    Nic nic(1, [](softnic_board_config_t &c) { c.clock_ns_numerator = c.clock_ns_denominator = 1; });
    Device dev;
    ASSERT_EQ(command(dev.fd, OXEL_RAW_OPEN), 0);
    softnic_advance(nic, 234);
    const uint64_t came = softnic_ticks(nic, 0);
    constexpr uint64_t hour = UINT64_C(3600000000000);
    for (const uint64_t wait : {UINT64_C(500000000), UINT64_C(1500000000), hour}) {
        const uint64_t injected = softnic_ticks(nic, 0);
        nic.inject(make_frame());
        softnic_advance(nic, wait);
        softnic_run(nic);
        EXPECT_EQ(next_event(dev.fd).e.nic_ticks, injected) << wait;
    }
    // Nobody could tell what time that was.
    nic.inject(make_frame());
    softnic_advance(nic, hour + 1);
    softnic_run(nic);
    EXPECT_EQ(next_event(dev.fd).e.nic_ticks, came + 2000000000 + 2 * hour + 1);
}

TEST(Raw, KeyframesOfOneLongAdvance_EachDatedAtItsOwnMoment)
{
    Nic nic(1, [](softnic_board_config_t &c) { c.clock_ns_numerator = c.clock_ns_denominator = 1; });
    Device dev;
    ASSERT_EQ(command(dev.fd, OXEL_RAW_OPEN), 0);
    const uint64_t first = softnic_ticks(nic, 0);
    ASSERT_EQ(softnic_set_switch(nic, 0, "interval=1000"), 0);
    softnic_advance(nic, UINT64_C(10000000000));
    softnic_run(nic);
    for (uint64_t i = 0; i <= 10; i++) {
        const Event event = next_event(dev.fd);
        ASSERT_EQ(event.rc, 0);
        EXPECT_EQ(event.e.nic_ticks, first + i * 1000000000);
    }
}

TEST(Raw, BufferTooSmall_GetsTheFramesStart)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(command(dev.fd, OXEL_RAW_OPEN), 0);
    const Bytes frame = make_frame();
    nic.inject(frame);
    const Event event = next_event(dev.fd, 0, 20); // waiting runs the firmware
    ASSERT_EQ(event.rc, 0);
    EXPECT_EQ(event.buffer, Bytes(frame.begin(), frame.begin() + 20));
}

TEST(Raw, NothingWithinTheLimit_IsEtimedoutAfterThatManyMilliseconds)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(command(dev.fd, OXEL_RAW_OPEN), 0);
    EXPECT_EQ(next_event(dev.fd, 15).rc, ETIMEDOUT);
    EXPECT_EQ(softnic_now(nic), kStart + 15000000u);
    EXPECT_EQ(next_event(dev.fd, 0).rc, ETIMEDOUT);
}

TEST(Raw, CompletionsNotFetched_AreLimitedTo64)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(command(dev.fd, OXEL_RAW_OPEN), 0);
    for (uint64_t i = 0; i < 64; i++)
        ASSERT_EQ(raw_send(dev.fd, make_frame(), i), 0);
    EXPECT_EQ(raw_send(dev.fd, make_frame(), 64), EBUSY);
    EXPECT_EQ(next_event(dev.fd).e.context, 0u);
    EXPECT_EQ(raw_send(dev.fd, make_frame(), 64), 0);
    for (uint64_t i = 1; i <= 64; i++)
        EXPECT_EQ(next_event(dev.fd).e.context, i);
}

TEST(Raw, BadFrames_AreRefused)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(command(dev.fd, OXEL_RAW_OPEN), 0);
    EXPECT_EQ(raw_send(dev.fd, Bytes(13, 0), 1), EINVAL);
    EXPECT_EQ(raw_send(dev.fd, make_frame(), 1, 2), EINVAL);
    oxel_raw_send_t s = {};
    s.data_length = 60;
    EXPECT_EQ(command(dev.fd, OXEL_RAW_SEND, &s), EFAULT);
    softnic_fail_sends(nic, 0, ENETDOWN, 1);
    EXPECT_EQ(raw_send(dev.fd, make_frame(), 1), ENETDOWN);
    EXPECT_EQ(next_event(dev.fd).rc, ETIMEDOUT); // none of them is ever reported
}

TEST(Raw, HandleThatIsSomethingElse_CannotBecomeRaw)
{
    Nic nic;
    Device ruk, raw;
    ASSERT_EQ(ruk.claim(0), 0);
    EXPECT_EQ(command(ruk.fd, OXEL_RAW_OPEN), EINVAL);
    ASSERT_EQ(command(raw.fd, OXEL_RAW_OPEN), 0);
    EXPECT_EQ(command(raw.fd, OXEL_RAW_OPEN), EINVAL);
    EXPECT_EQ(raw.claim(1), EINVAL);
}

TEST(Raw, SteeredFrames_ReachTheirEndpointAsWell)
{
    Nic nic;
    Device ruk, raw;
    ASSERT_EQ(ruk.set_up(0), 0);
    ASSERT_EQ(ruk.filter(1), 0);
    ASSERT_EQ(command(raw.fd, OXEL_RAW_OPEN), 0);
    nic.inject(make_frame());
    softnic_run(nic);
    EXPECT_EQ(ruk.take_tags().size(), 1u);
    EXPECT_EQ(next_event(raw.fd).e.status, 2u);
}

TEST(Raw, FramesThatNobodyFetches_AreHeldToALimit)
{
    Nic nic;
    Device raw;
    ASSERT_EQ(command(raw.fd, OXEL_RAW_OPEN), 0);
    for (int i = 0; i < 300; i++)
        nic.inject(make_frame());
    softnic_run(nic);
    int n = 0;
    while (next_event(raw.fd).rc == 0)
        n++;
    EXPECT_EQ(n, 256);
    EXPECT_EQ(nic.board_counters().raw_dropped, 44u);
}

TEST(Raw, SeveralHandles_EachHasItsOwnLimitAndTheirLossesAreAddedUp)
{
    Nic nic;
    Device busy;
    ASSERT_EQ(command(busy.fd, OXEL_RAW_OPEN), 0);
    {
        Device idle;
        ASSERT_EQ(command(idle.fd, OXEL_RAW_OPEN), 0);
        for (int i = 0; i < 260; i++) {
            nic.inject(make_frame());
            softnic_run(nic);
            ASSERT_EQ(next_event(busy.fd).rc, 0);
        }
        EXPECT_EQ(nic.board_counters().raw_dropped, 4u);
    }
    EXPECT_EQ(nic.board_counters().raw_dropped, 4u) << "a closed handle's losses stay in the account";
    EXPECT_EQ(nic.board_counters().arrived, 260u);
}

TEST(Raw, CloseWhileAThreadWaits_EndsTheWait)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(command(dev.fd, OXEL_RAW_OPEN), 0);
    softnic_set_blocking_waits(nic, 1);
    std::thread closer([&] {
        usleep(20000);
        close(dev.fd);
    });
    EXPECT_EQ(next_event(dev.fd, 60000).rc, EBADF);
    closer.join();
    dev.fd = -1;
}

} // namespace
} // namespace softnic_test
