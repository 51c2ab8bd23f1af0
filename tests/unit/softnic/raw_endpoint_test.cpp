// The raw endpoint of the platform layer over the adapter: stepped, and over the firmware's thread in real time.
#include "live_rig.h"

#include "ledger/writer.h"
#include "oxel_raw.h"

#include <atomic>
#include <chrono>
#include <thread>

namespace softnic_test {
namespace {

using Clock = std::chrono::steady_clock;

// An endpoint and the arguments of its event wait, which keep what a call does not write.
struct Raw {
    oxel_raw_endpoint_t ep = nullptr;
    Bytes buffer = Bytes(2048, 0xEE);
    int port = -1, bytes = 2048, status = -1;
    void *context = this;
    uint64_t ticks = 1234;

    explicit Raw(int board = 0) { EXPECT_EQ(oxel_raw_open_endpoint(board, &ep, 1 /* the family "B" */), 0); }
    ~Raw()
    {
        const tov_handle_t handle = oxel_raw_handle(ep);
        EXPECT_EQ(oxel_raw_close_endpoint(ep), 0);
        close(handle);
    }
    Raw(const Raw &) = delete;
    Raw &operator=(const Raw &) = delete;

    int send(const Bytes &frame, uintptr_t number = 0)
    {
        return oxel_raw_send(ep, 0, nullptr, 0, const_cast<uint8_t *>(frame.data()), static_cast<int>(frame.size()),
                             reinterpret_cast<void *>(number));
    }
    int next(int timeout_ms = 0)
    {
        return oxel_raw_next_event(ep, &port, &context, buffer.data(), &bytes, timeout_ms, &status, &ticks);
    }
    uintptr_t number() const { return reinterpret_cast<uintptr_t>(context); }
};

Bytes frame_of(size_t size, unsigned seed)
{
    Bytes frame = make_frame();
    frame.resize(std::max<size_t>(size, 14));
    for (size_t i = 14; i < frame.size(); i++)
        frame[i] = static_cast<uint8_t>(i * 7 + seed);
    return frame;
}

Bytes take_sent(softnic_t *nic)
{
    Bytes out(4096);
    out.resize(softnic_take_sent(nic, 0, out.data(), out.size()));
    return out;
}

// ---------------------------------------------------------------- stepped

TEST(RawEndpointStepped, Frames_LeaveByteForByteAndComplete)
{
    Nic nic(1, [](softnic_board_config_t &c) {
        c.clock_ns_numerator = c.clock_ns_denominator = 1;
        c.clock_first_ticks = 1000;
    });
    Raw raw;
    uint64_t now = 1000;
    for (size_t size : {60, 61, 342, 1500, 1514}) {
        softnic_advance(nic, 50);
        now += 50;
        const Bytes frame = frame_of(size, static_cast<unsigned>(size));
        ASSERT_EQ(raw.send(frame, size), 0);
        EXPECT_EQ(take_sent(nic), frame);
        EXPECT_EQ(raw.ep->pending_sends, 1);
        ASSERT_EQ(raw.next(), 0);
        EXPECT_EQ(raw.status, 1);
        EXPECT_EQ(raw.number(), size);
        EXPECT_EQ(raw.ticks, now);
        EXPECT_EQ(raw.ep->pending_sends, 0);
        EXPECT_EQ(raw.port, -1) << "never written back";
        EXPECT_EQ(raw.bytes, 2048) << "never written back";
    }
}

TEST(RawEndpointStepped, ReceivedFrame_InTheBufferAndNothingElseWritten)
{
    Nic nic;
    Raw raw;
    const Bytes frame = frame_of(200, 3);
    nic.inject(frame);
    ASSERT_EQ(raw.next(), 0);
    EXPECT_EQ(raw.status, 2);
    EXPECT_EQ(Bytes(raw.buffer.begin(), raw.buffer.begin() + 200), frame);
    EXPECT_EQ(Bytes(raw.buffer.begin() + 200, raw.buffer.end()), Bytes(1848, 0xEE));
    EXPECT_EQ(raw.context, &raw);
    EXPECT_EQ(raw.ticks, 1234u);
    EXPECT_EQ(raw.port, -1);
    EXPECT_EQ(raw.bytes, 2048);
    EXPECT_EQ(raw.ep->pending_sends, 0);
}

TEST(RawEndpointStepped, BufferShorterThanTheFrame_FilledAndNoFurther)
{
    Nic nic;
    Raw raw;
    const Bytes frame = frame_of(200, 3);
    nic.inject(frame);
    raw.bytes = 20;
    ASSERT_EQ(raw.next(), 0);
    EXPECT_EQ(Bytes(raw.buffer.begin(), raw.buffer.begin() + 20), Bytes(frame.begin(), frame.begin() + 20));
    EXPECT_EQ(Bytes(raw.buffer.begin() + 20, raw.buffer.end()), Bytes(2028, 0xEE));
}

TEST(RawEndpointStepped, SixtyFourOutstanding_TheNextIsBusyAndNeverOnTheWire)
{
    Nic nic;
    Raw raw;
    for (uintptr_t i = 1; i <= 64; i++)
        ASSERT_EQ(raw.send(frame_of(60, static_cast<unsigned>(i)), i), 0);
    softnic_clear_commands(nic);
    EXPECT_EQ(raw.send(frame_of(60, 65), 65), EBUSY);
    EXPECT_EQ(softnic_commands(nic, nullptr, 0), 0u) << "the driver is not asked";
    EXPECT_EQ(softnic_sent_count(nic, 0), 64u);
    ASSERT_EQ(raw.next(), 0);
    EXPECT_EQ(raw.number(), 1u);
    ASSERT_EQ(raw.send(frame_of(60, 65), 65), 0);
    EXPECT_EQ(raw.send(frame_of(60, 66), 66), EBUSY);
    for (uintptr_t i = 2; i <= 65; i++) {
        ASSERT_EQ(raw.next(), 0);
        EXPECT_EQ(raw.number(), i) << "completions come in order";
    }
    EXPECT_EQ(raw.ep->pending_sends, 0);
    for (unsigned i = 1; i <= 65; i++)
        EXPECT_EQ(take_sent(nic), frame_of(60, i));
}

TEST(RawEndpointStepped, NothingHappens_TimeOutAfterThatManyMilliseconds)
{
    Nic nic;
    Raw raw;
    EXPECT_EQ(raw.next(0), ETIMEDOUT);
    EXPECT_EQ(softnic_now(nic), kStart);
    EXPECT_EQ(raw.next(15), ETIMEDOUT);
    EXPECT_EQ(softnic_now(nic), kStart + 15000000u);
    EXPECT_EQ(raw.status, -1);
    EXPECT_EQ(raw.context, &raw);
    EXPECT_EQ(raw.bytes, 2048);
}

TEST(RawEndpointStepped, SendThatTheWireRefuses_ErrorAndNothingOutstanding)
{
    Nic nic;
    Raw raw;
    softnic_fail_sends(nic, 0, ENETDOWN, 1);
    EXPECT_EQ(raw.send(frame_of(60, 1), 1), ENETDOWN);
    EXPECT_EQ(raw.ep->pending_sends, 0);
    EXPECT_EQ(raw.next(), ETIMEDOUT);
}

TEST(RawEndpointStepped, CompletionsAndFrames_InTheOrderInWhichTheyHappened)
{
    Nic nic;
    Raw raw;
    std::vector<int> kinds;
    for (int i = 0; i < 3; i++) {
        ASSERT_EQ(raw.send(frame_of(60, 1), 7), 0);
        nic.inject(frame_of(60, 2));
        softnic_run(nic);
    }
    while (raw.next() == 0)
        kinds.push_back(raw.status);
    EXPECT_EQ(kinds, (std::vector<int>{1, 2, 1, 2, 1, 2}));
    EXPECT_EQ(raw.ep->pending_sends, 0);
}

// ---------------------------------------------------------------- live

class RawEndpointLive : public testing::Test {
protected:
    Bytes sent()
    {
        Bytes frame;
        EXPECT_TRUE(port_.take_sent(&frame));
        return frame;
    }

    WakingPort port_;
    LiveAdapter adapter_{port_};
};

TEST_F(RawEndpointLive, Frames_LeaveByteForByteAndComplete)
{
    Raw raw;
    uint64_t before = 0;
    for (uintptr_t size : {60u, 61u, 342u, 1514u}) {
        const Bytes frame = frame_of(size, static_cast<unsigned>(size));
        ASSERT_EQ(raw.send(frame, size), 0);
        ASSERT_EQ(raw.next(20000), 0);
        EXPECT_EQ(raw.status, 1);
        EXPECT_EQ(raw.number(), size);
        EXPECT_GT(raw.ticks, before) << "the adapter's clock runs";
        before = raw.ticks;
        EXPECT_EQ(sent(), frame);
        EXPECT_EQ(raw.ep->pending_sends, 0);
    }
}

TEST_F(RawEndpointLive, FrameArrives_EndsTheWait)
{
    Raw raw;
    for (unsigned i = 0; i < 20; i++) {
        const Bytes frame = frame_of(60 + i, i);
        std::thread wire([&] { port_.arrive(frame); });
        EXPECT_EQ(raw.next(20000), 0);
        wire.join();
        EXPECT_EQ(raw.status, 2);
        EXPECT_EQ(Bytes(raw.buffer.begin(), raw.buffer.begin() + static_cast<ptrdiff_t>(frame.size())), frame);
    }
}

TEST_F(RawEndpointLive, NothingHappens_TimeOutNotBeforeThatManyMilliseconds)
{
    Raw raw;
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(raw.next(30), ETIMEDOUT);
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(30));
    EXPECT_EQ(raw.next(0), ETIMEDOUT);
    EXPECT_EQ(raw.status, -1);
}

TEST_F(RawEndpointLive, SixtyFourOutstanding_TheNextIsBusyUntilOneIsFetched)
{
    Raw raw;
    for (uintptr_t i = 1; i <= 64; i++)
        ASSERT_EQ(raw.send(frame_of(60, static_cast<unsigned>(i)), i), 0);
    EXPECT_EQ(raw.send(frame_of(60, 65), 65), EBUSY);
    EXPECT_EQ(port_.sent_waiting(), 64u);
    ASSERT_EQ(raw.next(20000), 0);
    EXPECT_EQ(raw.number(), 1u);
    EXPECT_EQ(raw.send(frame_of(60, 65), 65), 0);
    EXPECT_EQ(raw.ep->pending_sends, 64);
}

TEST_F(RawEndpointLive, FramesThatNobodyFetches_InTheLedger)
{
    Raw raw;
    for (int i = 0; i < 300; i++)
        port_.arrive(make_frame());
    LedgerPage page = {};
    for (int i = 0; i < 20000 && page.arrived < 300; i++) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        std::lock_guard guard(adapter_.card().lock());
        take_ledger(adapter_.card(), 0, &page);
    }
    EXPECT_EQ(page.arrived, 300u);
    EXPECT_EQ(page.raw_dropped, 44u) << "256 are kept";
    EXPECT_EQ(page.unmatched, 300u) << "no other endpoint asked for them";
    EXPECT_NE(ledger_json(page).find("\"raw_dropped\":44,"), std::string::npos);
    unsigned kept = 0;
    while (raw.next() == 0)
        kept++;
    EXPECT_EQ(kept, 256u);
}

// The wait holds a lock of its own, and the driver's: a sender needs neither.
TEST_F(RawEndpointLive, ThreadInAWait_OthersSendAndItGetsTheirCompletions)
{
    constexpr unsigned kThreads = 3, kEach = 200;
    Raw raw;
    std::atomic<unsigned> accepted{0};
    std::vector<unsigned> completions(kThreads, 0);
    std::thread waiter([&] {
        for (unsigned n = 0; n < kThreads * kEach; n++) {
            ASSERT_EQ(raw.next(60000), 0);
            ASSERT_EQ(raw.status, 1);
            const uintptr_t number = raw.number(); // the sender's, and which of its frames
            ASSERT_LT(number >> 16, kThreads);
            EXPECT_EQ(number & 0xffff, completions[number >> 16]++) << "in the order of each sender";
        }
    });
    std::vector<std::thread> senders;
    for (unsigned t = 0; t < kThreads; t++)
        senders.emplace_back([&, t] {
            for (unsigned i = 0; i < kEach; i++) {
                int rc;
                while ((rc = raw.send(frame_of(60, t), t << 16 | i)) == EBUSY)
                    std::this_thread::sleep_for(std::chrono::microseconds(50));
                ASSERT_EQ(rc, 0);
                accepted++;
            }
        });
    for (std::thread &sender : senders)
        sender.join();
    waiter.join();
    EXPECT_EQ(accepted, kThreads * kEach);
    EXPECT_EQ(completions, std::vector<unsigned>(kThreads, kEach));
    EXPECT_EQ(raw.ep->pending_sends, 0);
    EXPECT_EQ(port_.sent_waiting(), kThreads * kEach);
    EXPECT_EQ(raw.next(0), ETIMEDOUT);
}

} // namespace
} // namespace softnic_test
