/* A sender that finds no room: spinning, waiting in the driver, refusing, and what it costs when there is room. */
#include "send_rig.h"

#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

using namespace send_rig;

/* ------------------------------------------------------------------ waiting for room */

class WaitTest : public RequestTest {
protected:
    void fill()
    {
        open_with(1400, 8);
        for (int i = 0; i < 8; i++)
            ASSERT_EQ(send(4), 0);
        host.sockets.clear();
    }
};

TEST_F(WaitTest, Full_Blocking_WaitsInTheDriverForASlotWithoutLimit)
{
    fill();
    on_wait = [this] {
        complete();
        return 0;
    };
    EXPECT_EQ(send(buffer, 4, 0), 0);
    EXPECT_EQ(waits, (std::vector<Bytes>{unhex("ffffffff")}));
    EXPECT_EQ(host.sockets.ioctl_requests(), (std::vector<unsigned long>{0x4d9b}));
    EXPECT_EQ(dev->rep_sreq_inflight, 9);
    EXPECT_EQ(in_flight().size(), 8u);
}

TEST_F(WaitTest, WaitsThatBringNothing_GoOn)
{
    fill();
    on_wait = [this] {
        if (waits.size() == 5)
            complete(2);
        return 0;
    };
    EXPECT_EQ(send(buffer, 4, 0), 0);
    EXPECT_EQ(waits.size(), 5u);
    EXPECT_EQ(send(buffer, 4, 0), 0) << "the other slot";
    EXPECT_EQ(waits.size(), 5u);
}

/* Room counts, not completions: a small one may not be enough. */
TEST_F(WaitTest, CompletionThatDoesNotMakeRoomEnough_WaitsForMore)
{
    open_with(8192, 8);
    for (int i = 0; i < 4; i++)
        ASSERT_EQ(send(2048), 0);
    on_wait = [this] {
        complete();
        return 0;
    };
    EXPECT_EQ(send(buffer, 6000, 0), 0);
    EXPECT_EQ(waits.size(), 3u);
}

TEST_F(WaitTest, WaitFails_ItsErrorReturned_NothingTaken)
{
    fill();
    const State before = state_now();
    for (int error : {EIO, EINTR, EAGAIN}) {
        on_wait = [error] { return error; };
        EXPECT_EQ(send(buffer, 4, 0), error);
        EXPECT_TRUE(state_now() == before);
    }
    EXPECT_EQ(waits.size(), 3u);
}

TEST_F(WaitTest, LockIsDroppedAroundTheWaitAlone)
{
    fill();
    bool was_free = false;
    on_wait = [&] {
        was_free = lock_is_free();
        complete();
        return 0;
    };
    ruk__ep_lock(dev);
    EXPECT_EQ(ruk_raw_send(dev, header, 42, 0, 0, buffer, 4, 0), 0);
    EXPECT_TRUE(was_free);
    EXPECT_FALSE(lock_is_free()) << "held again on return";

    was_free = false;
    on_wait = [&] {
        was_free = lock_is_free();
        return ENODEV;
    };
    EXPECT_EQ(ruk_raw_send(dev, header, 42, 0, 0, buffer, 4, 0), ENODEV);
    EXPECT_TRUE(was_free);
    EXPECT_FALSE(lock_is_free());

    EXPECT_EQ(ruk_raw_send(dev, header, 42, 0, 0, buffer, 4, RUK_NONBLOCK), EAGAIN);
    EXPECT_FALSE(lock_is_free());
    ruk__ep_unlock(dev);
}

/* Another sender may take the room meanwhile. */
TEST_F(WaitTest, AnotherSenderTakesTheRoomDuringTheWait_WaitsAgain)
{
    fill();
    on_wait = [this] {
        complete();
        if (waits.size() == 1) {
            EXPECT_EQ(send(buffer, 8, RUK_NONBLOCK), 0);
        }
        return 0;
    };
    EXPECT_EQ(send(buffer, 16, 0), 0);
    EXPECT_EQ(waits.size(), 2u);
    EXPECT_EQ(in_flight().at(6)->req_size, 8u);
    EXPECT_EQ(in_flight().at(7)->req_size, 16u);
}

TEST_F(WaitTest, EndpointWithoutLocks_WaitsAsWell)
{
    open_with(1400, 8, 0);
    ASSERT_EQ(dev->rep_lockp, nullptr);
    for (int i = 0; i < 8; i++)
        ASSERT_EQ(send(4), 0);
    on_wait = [this] {
        complete();
        return 0;
    };
    EXPECT_EQ(send(buffer, 4, 0), 0);
    EXPECT_EQ(waits.size(), 1u);
}

TEST_F(WaitTest, OnlyTheNonblockBitCounts)
{
    fill();
    on_wait = [] { return EIO; };
    EXPECT_EQ(send(buffer, 4, ~4), EIO);
    EXPECT_EQ(waits.size(), 1u);
    EXPECT_EQ(send(buffer, 4, ~0), EAGAIN);
    EXPECT_EQ(send(buffer, 4, 4), EAGAIN);
    EXPECT_EQ(waits.size(), 1u);
}

TEST_F(WaitTest, CompletionFoundWhileFailing_ReapedAndTriedAgain)
{
    open_with(8192, 8);
    for (int i = 0; i < 4; i++)
        ASSERT_EQ(send(2048), 0);
    complete(4);
    EXPECT_EQ(send(buffer, 8192, RUK_NONBLOCK), 0);
    EXPECT_EQ(waits.size(), 0u);
}

/* ------------------------------------------------------------------ debug lines */

TEST_F(WaitTest, DebugOn_Refused_TwoLinesOnStandardOutput)
{
    fill();
    __ruk_debug = 1;
    StreamCapture streams;
    EXPECT_EQ(send(buffer, 4, RUK_NONBLOCK), EAGAIN);
    EXPECT_EQ(streams.out(), "processing for ruk__get_requests, timeo 0\n"
                             "processing for ruk__get_requests ended with error 11\n");
    EXPECT_EQ(streams.err(), "");
}

TEST_F(WaitTest, DebugOn_Waited_BeginAndEndOnceEach)
{
    fill();
    on_wait = [this] {
        if (waits.size() == 3)
            complete();
        return 0;
    };
    __ruk_debug = 1;
    StreamCapture streams;
    EXPECT_EQ(send(buffer, 4, 0), 0);
    EXPECT_EQ(streams.out(), "processing for ruk__get_requests, timeo -1\n"
                             "processing for ruk__get_requests completed fine\n");
    EXPECT_EQ(streams.err(), "");
}

TEST_F(WaitTest, DebugOn_WaitFailed_ErrorTold)
{
    fill();
    __ruk_debug = 1;
    StreamCapture streams;
    EXPECT_EQ(send(buffer, 4, 0), EIO);
    EXPECT_EQ(streams.out(), "processing for ruk__get_requests, timeo -1\n"
                             "processing for ruk__get_requests ended with error 5\n");
}

TEST_F(WaitTest, DebugOn_RoomAtOnce_Silent)
{
    open_with(1400, 8);
    __ruk_debug = 1;
    StreamCapture streams;
    EXPECT_EQ(send(4), 0);
    EXPECT_EQ(streams.out() + streams.err(), "");
}

TEST_F(WaitTest, DebugOff_Silent)
{
    fill();
    on_wait = [this] {
        complete();
        return 0;
    };
    StreamCapture streams;
    EXPECT_EQ(send(buffer, 4, RUK_NONBLOCK), EAGAIN);
    EXPECT_EQ(send(buffer, 4, 0), 0);
    on_wait = nullptr;
    EXPECT_EQ(send(buffer, 4, 0), EIO);
    EXPECT_EQ(streams.out() + streams.err(), "");
}

/* Whether the end is told: a good one when the beginning was, an error only while debug is still on. */
TEST_F(WaitTest, DebugSwitchedDuringTheWait_EndToldByWhatWasPrinted)
{
    fill();
    on_wait = [this] {
        __ruk_debug = 0;
        complete();
        return 0;
    };
    StreamCapture streams;
    __ruk_debug = 1;
    EXPECT_EQ(send(buffer, 4, 0), 0);
    EXPECT_EQ(streams.out(), "processing for ruk__get_requests, timeo -1\n"
                             "processing for ruk__get_requests completed fine\n");
    streams.clear();
    on_wait = [] {
        __ruk_debug = 0;
        return EIO;
    };
    __ruk_debug = 1;
    EXPECT_EQ(send(buffer, 4, 0), EIO);
    EXPECT_EQ(streams.out(), "processing for ruk__get_requests, timeo -1\n");
    streams.clear();
    on_wait = [this] {
        __ruk_debug = 1;
        if (waits.size() > 3)
            complete();
        return 0;
    };
    EXPECT_EQ(send(buffer, 4, 0), 0);
    EXPECT_EQ(streams.out(), "processing for ruk__get_requests, timeo -1\n"
                             "processing for ruk__get_requests completed fine\n")
        << "the beginning is told when it comes to be on";
}

/* ------------------------------------------------------------------ cost and state */

TEST_F(RequestTest, RoomThere_NoSystemCallAndNoAllocation)
{
    open_with(1400, 64);
    {
        AllocFault allocations;
        ASSERT_EQ(send(1400), 0);
        ASSERT_EQ(send(1401), 0);
        complete(2);
        ASSERT_EQ(send(64), 0);
        EXPECT_EQ(allocations.calls(), 0u);
    }
    /* In that mode any system call but read, write and exit ends the process. */
    ChildResult child = run_in_child([this] {
        if (prctl(PR_SET_SECCOMP, SECCOMP_MODE_STRICT) != 0)
            _exit(1);
        for (int i = 0; i < 20; i++) {
            if (send(i * 20) != 0)
                syscall(SYS_exit, 2);
            if (i % 2)
                send(0x3000); /* most are refused */
        }
        syscall(SYS_exit, 3);
        return 0;
    });
    EXPECT_TRUE(child.exited_with(3)) << child;
}

TEST_F(RequestTest, QueuesNotSetUp_Send_Invalid)
{
    open(RUK_OPEN_DISABLED);
    EXPECT_EQ(ruk_raw_send(dev, header, 42, 0, 0, buffer, 4, 0), EINVAL);
    uint64_t nsecs = 77, mbytes = 78;
    EXPECT_EQ(ruk__piocopy_test(dev, 1, 64, 1, &nsecs, &mbytes), EINVAL);
    EXPECT_EQ(nsecs, 77u);
    EXPECT_EQ(mbytes, 78u);
}

TEST_F(RequestTest, EnabledLater_Sends)
{
    open(RUK_OPEN_DISABLED);
    ASSERT_EQ(ruk_device_enable(dev), 0);
    EXPECT_EQ(send(4), 0);
    EXPECT_EQ(slot(PIO)[63], PIO);
}

} // namespace
