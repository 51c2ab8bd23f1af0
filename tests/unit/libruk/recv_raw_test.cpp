/* Whole frames: the three calls that hand them out. */
#include "capture.h"
#include "child.h"
#include "recv_rig.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <unistd.h>

using namespace recv_rig;

namespace {

struct RawFrame {
    int rc = -1;
    size_t len = 0xdead;
    uint64_t timestamp = 0xeeee;
    int tag = -7;
    Bytes data = Bytes(4096, 0xee);

    Bytes frame() const { return Bytes(data.begin(), data.begin() + static_cast<long>(len)); }
    bool untouched() const { return data == Bytes(4096, 0xee); }
};

RawFrame raw(RigEndpoint &rig, enum ruk_recvmode mode = RUK_RECV_NONBLOCK)
{
    RawFrame got;
    got.rc = ruk_raw_recv(rig.ep, mode, got.data.data(), &got.len, &got.timestamp);
    return got;
}

RawFrame raw_nb(RigEndpoint &rig)
{
    RawFrame got;
    got.rc = ruk_raw_recv_nb(rig.ep, got.data.data(), &got.len, &got.timestamp, &got.tag);
    return got;
}

/* All memory that a receive could change. */
Bytes memory_of(const RigEndpoint &rig)
{
    auto bytes = [](const void *p, size_t n) {
        return Bytes(static_cast<const uint8_t *>(p), static_cast<const uint8_t *>(p) + n);
    };
    return bytes(rig.ep, sizeof *rig.ep) + bytes(rig.ring_memory.data(), rig.ring_memory.size()) +
           bytes(rig.flow_memory.data(), rig.flow_memory.size()) +
           bytes(rig.sram_memory.data(), rig.sram_memory.size());
}

Bytes keyframe()
{
    UdpFrame frame;
    frame.protocol = 253;
    frame.payload = Bytes(20, 0);
    return frame.bytes(); /* too short a one: 66 bytes */
}

} // namespace

/* ------------------------------------------------------------------ ruk_raw_recv */

/* The endpoint's pointer is read without a test. */
TEST(RawRecv, NullEndpoint_ReadWithoutATest)
{
    static uint8_t frame[64];
    size_t length = 0;
    uint64_t time = 0;
    int tag = 0;
    const std::function<int()> calls[] = {
        [&] { return ruk_raw_recv(nullptr, RUK_RECV_NONBLOCK, frame, &length, &time); },
        [&] { return ruk_raw_recv(nullptr, RUK_RECV_PEEK, frame, &length, &time); },
        [&] { return ruk_raw_recv_nb(nullptr, frame, &length, &time, &tag); },
        [&] { return ruk_raw_recv_peek(nullptr); },
    };
    for (const auto &call : calls) {
        const test_support::ChildResult child = test_support::run_in_child([&] {
            struct sigaction faulted = {};
            faulted.sa_flags = SA_SIGINFO;
            faulted.sa_sigaction = [](int, siginfo_t *info, void *) {
                _exit(reinterpret_cast<uintptr_t>(info->si_addr) < sizeof(struct ruk__ep) ? 42 : 43);
            };
            sigaction(SIGSEGV, &faulted, nullptr);
            return call();
        });
        EXPECT_TRUE(child.exited_with(42) || child.err.find("null pointer") != std::string::npos /* a checked build */)
            << "a read of the record at address 0: " << child;
    }
}

TEST(RawRecv, AnyFrame_WholeWithTrailerUncheckedAndUncounted)
{
    RigEndpoint rig;
    const std::vector<Bytes> frames = {pattern(1, 1), pattern(14, 2), pattern(60, 3), udp_frame("abc"),
                                       pattern(1518, 4)};
    for (const Bytes &frame : frames)
        rig.ring.put({{frame, 0xffff}});
    for (const Bytes &frame : frames) {
        RawFrame got = raw(rig, RUK_RECV_DEFAULT);
        EXPECT_EQ(got.rc, 0);
        EXPECT_EQ(got.len, frame.size());
        EXPECT_EQ(got.frame(), frame);
        EXPECT_EQ(got.data[frame.size()], 0xee);
    }
    const ruk__epstats none = {};
    EXPECT_EQ(memcmp(&rig.ep->rep_stats, &none, sizeof none), 0);
    EXPECT_EQ(rig.ep->rep_num_packets, 0u);
    EXPECT_EQ(rig.ep->rep_inuse, 0u);
    EXPECT_EQ(rig.flow32(0), 5u);
    EXPECT_EQ(raw(rig).rc, EAGAIN);
}

TEST(RawRecv, LengthIsOutputOnly_FrameNeverCut)
{
    RigEndpoint rig;
    const Bytes frame = pattern(500);
    rig.ring.put({{frame, 0}});
    RawFrame got;
    got.len = 10;
    EXPECT_EQ(ruk_raw_recv(rig.ep, RUK_RECV_NONBLOCK, got.data.data(), &got.len, &got.timestamp), 0);
    EXPECT_EQ(got.frame(), frame);
}

TEST(RawRecv, TimestampArgument_KeepsItsContents)
{
    RigEndpoint rig;
    rig.ep->rep_timestamping_enabled = 1;
    rig.clock_is_ticks();
    EventOptions options;
    options.ticks = 1234;
    for (auto mode : {RUK_RECV_PEEK, RUK_RECV_PEEK_MSG, RUK_RECV_DEFAULT}) {
        if (mode == RUK_RECV_PEEK)
            rig.ring.put({{pattern(60), 0}}, options);
        EXPECT_EQ(raw(rig, mode).timestamp, 0xeeeeu);
    }
    rig.ring.put({{pattern(60), 0}}, options);
    size_t len;
    uint8_t buf[64];
    EXPECT_EQ(ruk_raw_recv(rig.ep, RUK_RECV_NONBLOCK, buf, &len, nullptr), 0);
}

TEST(RawRecv, Peek_LengthOnlyAndFrameStays)
{
    RigEndpoint rig;
    const Bytes frame = pattern(77);
    rig.ring.put({{frame, 0}});
    for (int i = 0; i < 2; i++) {
        RawFrame got = raw(rig, RUK_RECV_PEEK);
        EXPECT_EQ(got.rc, 0);
        EXPECT_EQ(got.len, 77u);
        EXPECT_TRUE(got.untouched());
    }
    EXPECT_EQ(raw(rig, RUK_RECV_DEFAULT).frame(), frame);
    EXPECT_EQ(raw(rig, RUK_RECV_PEEK).rc, EAGAIN);
}

TEST(RawRecv, PeekMsg_CopiedAndFrameStays)
{
    RigEndpoint rig;
    const Bytes frame = pattern(77);
    rig.ring.put({{frame, 0}});
    for (int i = 0; i < 2; i++)
        EXPECT_EQ(raw(rig, RUK_RECV_PEEK_MSG).frame(), frame);
    EXPECT_EQ(rig.flow32(0), 0u);
    EXPECT_EQ(raw(rig).frame(), frame);
    EXPECT_EQ(raw(rig, RUK_RECV_PEEK_MSG).rc, EAGAIN);
}

TEST(RawRecv, Keyframe_HandledAndNotDelivered)
{
    RigEndpoint rig;
    rig.ep->arista_control.arct_status = ARISTA_STATUS_INITED;
    rig.ring.put({{keyframe(), 0}, {pattern(60), 0}});
    RawFrame got;
    {
        test_support::StreamCapture streams;
        got = raw(rig, RUK_RECV_PEEK);
        EXPECT_EQ(streams.err(), "---: Arista switch sent malformed IP PROTO 253 packet, expected=84 got=66.\n");
    }
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(got.len, 60u);
    EXPECT_EQ(rig.ep->arista_control.arct_stats.arst_kfmalformed, 1u);
    EXPECT_EQ(raw(rig).frame(), pattern(60));
}

TEST(RawRecv, ShutdownAskedForBefore_DefaultWaitEndsAtOnce)
{
    RigEndpoint rig;
    EXPECT_EQ(ruk_shutdown(rig.ep, 0), 0);
    EXPECT_EQ(raw(rig, RUK_RECV_DEFAULT).rc, EINTR);
    EXPECT_EQ(rig.ep->rep_shutdown, 1u); /* and stays */
    EXPECT_EQ(raw(rig, RUK_RECV_DEFAULT).rc, EINTR);
    EXPECT_EQ(raw(rig, RUK_RECV_NONBLOCK).rc, EAGAIN);
    rig.ring.put({{pattern(60), 0}});
    EXPECT_EQ(raw(rig, RUK_RECV_DEFAULT).rc, 0);
    EXPECT_EQ(rig.ep->rep_inuse, 0u);
}

TEST(RawRecv, UnknownMode_EinvalOnlyWhenEmpty)
{
    RigEndpoint rig;
    const auto mode = static_cast<enum ruk_recvmode>(5);
    EXPECT_EQ(raw(rig, mode).rc, EINVAL);
    rig.ring.put({{pattern(60), 0}});
    EXPECT_EQ(raw(rig, mode).rc, 0);
    EXPECT_EQ(raw(rig, mode).rc, EINVAL);
    EXPECT_EQ(rig.ep->rep_inuse, 0u);
}

/* Frames of 200 bytes whose first byte lies from 64 bytes before the ring's end to 64 behind it. */
TEST(RawRecv, FrameAnywhereAtTheRingsEnd_Contiguous)
{
    unsigned before = 0, at = 0, behind = 0;
    for (int ahead = 64; ahead >= -64; ahead--) {
        RigEndpoint::Options options;
        options.ring = 1024;
        RigEndpoint rig(options);
        rig.ring.put({{pattern(840), 0}});
        ASSERT_EQ(raw(rig).rc, 0);
        ASSERT_EQ(rig.ring.position(), 896u);
        const Bytes frame = pattern(200, static_cast<unsigned>(ahead + 100));
        EventOptions event;
        event.offset = static_cast<uint8_t>(1024 - ahead - 896 - 8);
        for (int call = 0; call < 2; call++) {
            rig.ring.put({{frame, 0}}, event);
            RawFrame got = call == 0 ? raw(rig) : raw_nb(rig);
            ASSERT_EQ(got.rc, 0);
            ASSERT_EQ(got.frame(), frame) << ahead;
            ASSERT_EQ(got.data[200], 0xee);
            (ahead > 0 ? before : ahead == 0 ? at : behind)++;
            while (rig.ring.position() != 896) { /* round to the same place */
                rig.ring.put({{pattern(1), 0}});
                ASSERT_EQ(raw(rig).rc, 0);
            }
        }
    }
    EXPECT_EQ(before, 2u * 64);
    EXPECT_EQ(at, 2u);
    EXPECT_EQ(behind, 2u * 64);
}

/* ------------------------------------------------------------------ ruk_raw_recv_nb */

TEST(RawRecvNb, FrameWaiting_WithItsTimeAndTag)
{
    RigEndpoint rig;
    rig.ep->rep_timestamping_enabled = 1;
    rig.clock_is_ticks();
    EventOptions options;
    options.ticks = 5000;
    rig.ring.put({{pattern(60, 1), 7}, {pattern(61, 2), 0xfffe}}, options);
    RawFrame got = raw_nb(rig);
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(got.frame(), pattern(60, 1));
    EXPECT_EQ(got.timestamp, 5000u - 129 + 61);
    EXPECT_EQ(got.tag, 7);
    got = raw_nb(rig);
    EXPECT_EQ(got.frame(), pattern(61, 2));
    EXPECT_EQ(got.timestamp, 5000u - 4);
    EXPECT_EQ(got.tag, 0xfffe);
    EXPECT_EQ(raw_nb(rig).rc, EAGAIN);
    EXPECT_EQ(rig.ep->rep_num_packets, 0u);
}

TEST(RawRecvNb, NullTimeAndTag_Allowed)
{
    RigEndpoint rig;
    rig.ring.put({{pattern(60), 7}});
    size_t len = 0;
    uint8_t buf[64];
    EXPECT_EQ(ruk_raw_recv_nb(rig.ep, buf, &len, nullptr, nullptr), 0);
    EXPECT_EQ(len, 60u);
}

TEST(RawRecvNb, EmptyQueue_EagainAndNothingChanges)
{
    RigEndpoint rig;
    const Bytes before = memory_of(rig);
    RawFrame got = raw_nb(rig);
    EXPECT_EQ(got.rc, EAGAIN);
    EXPECT_EQ(got.len, 0xdeadu);
    EXPECT_EQ(got.timestamp, 0xeeeeu);
    EXPECT_EQ(got.tag, -7);
    EXPECT_TRUE(got.untouched());
    EXPECT_EQ(memory_of(rig), before);
}

TEST(RawRecvNb, Keyframe_LikeAnyFrameWithAllOnes)
{
    RigEndpoint rig;
    rig.ep->arista_control.arct_status = ARISTA_STATUS_INITED;
    rig.ring.put({{keyframe(), 3}});
    RawFrame got = raw_nb(rig);
    EXPECT_EQ(got.rc, 0);
    EXPECT_EQ(got.frame(), keyframe());
    EXPECT_EQ(got.timestamp, UINT64_MAX);
    EXPECT_EQ(got.tag, 3);
    EXPECT_EQ(rig.ep->arista_control.arct_stats.arst_kfmalformed, 0u);
    EXPECT_EQ(rig.ep->arista_control.arct_status, ARISTA_STATUS_INITED);
}

TEST(RawRecvNb, ReceiveLockHeldElsewhere_NoLockTakenAndUseNotCounted)
{
    RigEndpoint::Options options;
    options.locks = true;
    RigEndpoint rig(options);
    rig.ring.put({{pattern(60), 7}});
    pthread_mutex_lock(&rig.ep->rep_rx_lock); /* a second lock would hang */
    EXPECT_EQ(ruk_raw_recv_peek(rig.ep), 0);
    EXPECT_EQ(raw_nb(rig).rc, 0);
    EXPECT_EQ(rig.ep->rep_inuse, 0u);
    EXPECT_FALSE(rig.rx_lock_free());
    pthread_mutex_unlock(&rig.ep->rep_rx_lock);
}

TEST(RawRecvNb, LastFrameOfAnEvent_FlowWindowAndDoorbellAsEver)
{
    RigEndpoint rig;
    rig.ep->rep_eventq.evq_recvq_flow = 4096 - 64;
    rig.ring.put({{pattern(20), 7}});
    EXPECT_EQ(raw_nb(rig).rc, 0);
    EXPECT_EQ(rig.flow32(0), 1u);
    EXPECT_EQ(rig.flow32(8), 1u);
    EXPECT_EQ(rig.flow64(16), 64u);
    EXPECT_EQ(rig.doorbell(), be32(1) + be32(1));
}

/* ------------------------------------------------------------------ ruk_raw_recv_peek */

TEST(RawRecvPeek, EventWaiting_ZeroWithoutSideEffects)
{
    RigEndpoint rig;
    EXPECT_EQ(ruk_raw_recv_peek(rig.ep), EAGAIN);
    rig.ring.put({{pattern(60), 7}, {pattern(60), 8}});
    const Bytes before = memory_of(rig);
    EXPECT_EQ(ruk_raw_recv_peek(rig.ep), 0);
    EXPECT_EQ(memory_of(rig), before);
    EXPECT_EQ(raw_nb(rig).rc, 0);
    EXPECT_EQ(ruk_raw_recv_peek(rig.ep), 0); /* one packet of the event is left */
    EXPECT_EQ(raw_nb(rig).rc, 0);
    EXPECT_EQ(ruk_raw_recv_peek(rig.ep), EAGAIN);
}

TEST(RawRecvPeek, EventIncomplete_AlreadyWaiting)
{
    RigEndpoint rig;
    EventOptions options;
    options.complete = false;
    rig.ring.put({{pattern(60), 7}}, options);
    EXPECT_EQ(ruk_raw_recv_peek(rig.ep), 0);
}

/* Only an endpoint that was never set up is refused; a close is left to those who are counted. */
TEST(RawRecvNb, EndpointBeingClosed_AsEverAndNotClosed)
{
    for (auto state : {REP_STATE_NEEDCLOSE, REP_STATE_CLOSING}) {
        RigEndpoint rig;
        rig.ep->rep_state = state;
        EXPECT_EQ(raw_nb(rig).rc, EAGAIN) << state;
        EXPECT_EQ(ruk_raw_recv_peek(rig.ep), EAGAIN) << state;
        ASSERT_FALSE(rig.closed());
        EXPECT_EQ(rig.ep->rep_state, state);

        rig.ring.put({{pattern(60), 7}});
        EXPECT_EQ(ruk_raw_recv_peek(rig.ep), 0) << state;
        RawFrame got = raw_nb(rig);
        EXPECT_EQ(got.rc, 0) << state;
        EXPECT_EQ(got.frame(), pattern(60));
        ASSERT_FALSE(rig.closed());
        EXPECT_EQ(rig.ep->rep_state, state);
        EXPECT_EQ(rig.ep->rep_inuse, 0u);
        EXPECT_EQ(raw_nb(rig).rc, EAGAIN) << state;
    }
}

/* ------------------------------------------------------------------ together */

TEST(RawRecv, MixedWithDatagramReceive_OneQueue)
{
    RigEndpoint rig;
    rig.bind(0, 0x0a4d0001, 5000);
    rig.ring.put({{udp_frame("one"), 0}, {udp_frame("two"), 0}, {udp_frame("three"), 0}, {udp_frame("four"), 0}});
    EXPECT_EQ(raw(rig).frame(), udp_frame("one"));
    EXPECT_EQ(rig.recv(RUK_RECV_PEEK).info.msg_len, 3u);
    EXPECT_EQ(raw_nb(rig).frame(), udp_frame("two"));
    EXPECT_EQ(rig.recv().info.msg_len, 5u);
    EXPECT_EQ(raw(rig, RUK_RECV_PEEK_MSG).frame(), udp_frame("four"));
    EXPECT_EQ(rig.recv().info.msg_len, 4u);
    EXPECT_EQ(raw(rig).rc, EAGAIN);
}

TEST(RawRecv, DisabledEndpoint_Einval)
{
    RigEndpoint rig;
    rig.ep->rep_state = REP_STATE_ALLOC;
    rig.ep->rep_eventq = {};
    EXPECT_EQ(raw(rig).rc, EINVAL);
    EXPECT_EQ(raw_nb(rig).rc, EINVAL);
    EXPECT_EQ(ruk_raw_recv_peek(rig.ep), EINVAL);
    EXPECT_EQ(rig.ep->rep_inuse, 0u);
}
