/* Empty queues: waiting, shutting down, and endpoints that are closed while receivers are inside. */
#include "recv_rig.h"

#include <cerrno>
#include <chrono>
#include <functional>
#include <gtest/gtest.h>
#include <thread>

using namespace recv_rig;
using test_support::LibcHookGuard;

namespace {

constexpr uint32_t OWN_ADDRESS = 0x0a4d0001;

RigEndpoint::Options with_locks()
{
    RigEndpoint::Options options;
    options.locks = true;
    return options;
}

/* The two calls that wait alike. */
struct Call {
    const char *name;
    int (*receive)(RigEndpoint &, enum ruk_recvmode);
};

int datagram(RigEndpoint &rig, enum ruk_recvmode mode)
{
    ruk_recv_info info = {};
    uint8_t buf[2048];
    return ruk_recvfrom(rig.ep, mode, buf, sizeof buf, &info);
}

int frame(RigEndpoint &rig, enum ruk_recvmode mode)
{
    uint8_t buf[2048];
    size_t len;
    return ruk_raw_recv(rig.ep, mode, buf, &len, nullptr);
}

const Call calls[] = {{"ruk_recvfrom", datagram}, {"ruk_raw_recv", frame}};

/* Both calls in each of the modes, on an endpoint with locks and on one without. */
template <typename Body> void in_each_way(std::initializer_list<enum ruk_recvmode> modes, const Body &body)
{
    for (const Call &call : calls) {
        for (enum ruk_recvmode mode : modes) {
            for (bool locks : {false, true}) {
                SCOPED_TRACE(std::string(call.name) + ", mode " + std::to_string(mode) + (locks ? ", locks" : ""));
                RigEndpoint::Options options;
                options.locks = locks;
                RigEndpoint rig(options);
                body(rig, call, mode);
            }
        }
    }
}

const auto modes_that_return_at_once = {RUK_RECV_NONBLOCK, RUK_RECV_PEEK, RUK_RECV_PEEK_MSG};

/* What poll() was asked, and what it answers: one step a call. */
struct Polls {
    LibcHookGuard hooks;
    std::vector<std::function<int()>> steps;
    size_t asked = 0;

    explicit Polls(std::vector<std::function<int()>> answers) : steps(std::move(answers))
    {
        hooks->poll = [this](struct pollfd *fds, nfds_t n, int timeout) {
            EXPECT_EQ(n, 1u);
            EXPECT_EQ(fds->fd, 4711);
            EXPECT_EQ(fds->events, POLLIN);
            EXPECT_EQ(timeout, 1000);
            if (asked >= steps.size()) {
                ADD_FAILURE() << "more polls than expected";
                errno = EIO;
                return -1;
            }
            return steps[asked++]();
        };
    }
};

/* Descriptor numbers are only shown to poll(): no close() may see them. */
struct Handle {
    explicit Handle(RigEndpoint &rig) : rig_(rig) { rig.ep->rep_handle = 4711; }
    ~Handle()
    {
        if (!rig_.closed())
            rig_.ep->rep_handle = -1;
    }
    RigEndpoint &rig_;
};

/* close() of that number is swallowed and counted. */
struct CloseLog {
    LibcHookGuard hooks;
    unsigned closed = 0;
    CloseLog()
    {
        hooks->close = [this](int fd) {
            if (fd != 4711)
                return test_support::real::close(fd);
            closed++;
            return 0;
        };
    }
};

bool wait_until(const std::function<bool()> &condition)
{
    for (int i = 0; i < 20000; i++) {
        if (condition())
            return true;
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
    return false;
}

uint32_t inuse(const RigEndpoint &rig) { return __atomic_load_n(&rig.ep->rep_inuse, __ATOMIC_SEQ_CST); }

} // namespace

/* ------------------------------------------------------------------ arguments and modes */

TEST(RecvArguments, NullEndpointOrInfo_Einval)
{
    RigEndpoint rig;
    rig.ep->rep_shutdown = 1;
    ruk_recv_info info = {};
    uint8_t buf[16];
    EXPECT_EQ(ruk_recvfrom(nullptr, RUK_RECV_NONBLOCK, buf, sizeof buf, &info), EINVAL);
    EXPECT_EQ(ruk_recvfrom(rig.ep, RUK_RECV_NONBLOCK, buf, sizeof buf, nullptr), EINVAL);
    EXPECT_EQ(rig.ep->rep_shutdown, 1u);
    EXPECT_EQ(rig.ep->rep_inuse, 0u);
}

TEST(RecvArguments, DisabledEndpoint_Einval)
{
    RigEndpoint rig;
    rig.ep->rep_state = REP_STATE_ALLOC;
    rig.ep->rep_eventq = {};
    EXPECT_EQ(rig.recv().rc, EINVAL);
    EXPECT_EQ(rig.ep->rep_inuse, 0u);
}

TEST(RecvArguments, UnknownMode_EinvalOnlyWhenTheQueueIsEmpty)
{
    for (int mode : {5, 6, 7}) {
        RigEndpoint rig(with_locks());
        rig.bind(0, OWN_ADDRESS, 5000);
        rig.ring.put({{udp_frame("x"), 0}});
        EXPECT_EQ(rig.recv(static_cast<enum ruk_recvmode>(mode)).rc, 0);
        EXPECT_EQ(rig.recv(static_cast<enum ruk_recvmode>(mode)).rc, EINVAL);
        EXPECT_EQ(rig.ep->rep_inuse, 0u);
        EXPECT_TRUE(rig.rx_lock_free());
    }
}

TEST(RecvModes, ValuesOfThePublicInterface)
{
    EXPECT_EQ(RUK_RECV_DEFAULT, 0);
    EXPECT_EQ(RUK_RECV_NONBLOCK, 1);
    EXPECT_EQ(RUK_RECV_BLOCK, 2);
    EXPECT_EQ(RUK_RECV_PEEK, 3);
    EXPECT_EQ(RUK_RECV_PEEK_MSG, 4);
}

TEST(RecvModes, EmptyQueue_NonblockAndPeeksReturnEagain)
{
    for (const Call &call : calls) {
        for (auto mode : {RUK_RECV_NONBLOCK, RUK_RECV_PEEK, RUK_RECV_PEEK_MSG}) {
            RigEndpoint rig(with_locks());
            EXPECT_EQ(call.receive(rig, mode), EAGAIN) << call.name;
            EXPECT_EQ(rig.ep->rep_inuse, 0u);
            EXPECT_TRUE(rig.rx_lock_free());
        }
    }
}

/* ------------------------------------------------------------------ spinning */

TEST(SpinningReceiverThread, DatagramArrives_DeliveredWithTheLockHeldMeanwhile)
{
    RigEndpoint rig(with_locks());
    rig.bind(0, OWN_ADDRESS, 5000);
    int rc = -1;
    std::thread receiver([&] { rc = datagram(rig, RUK_RECV_DEFAULT); });
    ASSERT_TRUE(wait_until([&] { return inuse(rig) == 1; }));
    EXPECT_FALSE(rig.rx_lock_free());
    rig.ring.put({{udp_frame("x"), 0}});
    receiver.join();
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(rig.ep->rep_inuse, 0u);
    EXPECT_TRUE(rig.rx_lock_free());
}

TEST(SpinningReceiverThread, Shutdown_Eintr)
{
    in_each_way({RUK_RECV_DEFAULT}, [](RigEndpoint &rig, const Call &call, enum ruk_recvmode mode) {
        int rc = -1;
        bool started = false;
        std::thread receiver([&] {
            __atomic_store_n(&started, true, __ATOMIC_RELEASE);
            rc = call.receive(rig, mode);
        });
        ASSERT_TRUE(wait_until([&] { return __atomic_load_n(&started, __ATOMIC_ACQUIRE); }));
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        /* A request that comes before the call is forgotten by ruk_recvfrom: ask until it is heard. */
        bool over = false;
        std::thread asker([&] {
            while (!__atomic_load_n(&over, __ATOMIC_ACQUIRE)) {
                EXPECT_EQ(ruk_shutdown(rig.ep, 0), 0);
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        receiver.join();
        __atomic_store_n(&over, true, __ATOMIC_RELEASE);
        asker.join();
        EXPECT_EQ(rc, EINTR);
        EXPECT_EQ(rig.ep->rep_inuse, 0u);
        EXPECT_TRUE(rig.rx_lock_free());
    });
}

TEST(SpinningReceiverThread, ShutdownBeforeTheCall_Forgotten)
{
    for (bool locks : {false, true}) {
        RigEndpoint::Options settings;
        settings.locks = locks;
        RigEndpoint rig(settings);
        rig.bind(0, OWN_ADDRESS, 5000);
        ruk_shutdown(rig.ep, 0);
        EXPECT_EQ(rig.recv().rc, EAGAIN);
        EXPECT_EQ(rig.ep->rep_shutdown, 0u);
        ruk_shutdown(rig.ep, 2);
        EXPECT_EQ(rig.ep->rep_shutdown, 1u);
        rig.ring.put({{udp_frame("x"), 0}, {udp_frame("y"), 0}});
        EXPECT_EQ(rig.recv(RUK_RECV_DEFAULT).rc, 0);
        EXPECT_EQ(rig.ep->rep_shutdown, 0u);
        ruk_shutdown(rig.ep, 2);
        EXPECT_EQ(rig.recv(RUK_RECV_DEFAULT).rc, 0);
        EXPECT_EQ(rig.ep->rep_shutdown, 0u);
    }
}

TEST(Shutdown, NullEndpoint_Einval) { EXPECT_EQ(ruk_shutdown(nullptr, 0), EINVAL); }

TEST(Shutdown, DatagramWaiting_DeliveredFirst)
{
    RigEndpoint rig;
    rig.ring.put({{udp_frame("x"), 0}});
    ruk_shutdown(rig.ep, 0);
    EXPECT_EQ(frame(rig, RUK_RECV_DEFAULT), 0);
    EXPECT_EQ(frame(rig, RUK_RECV_DEFAULT), EINTR);
}

/* ------------------------------------------------------------------ sleeping */

TEST(SleepingReceiver, QueueNotEmpty_NoPoll)
{
    RigEndpoint rig;
    Handle handle(rig);
    Polls polls({});
    rig.bind(0, OWN_ADDRESS, 5000);
    rig.ring.put({{udp_frame("x"), 0}});
    EXPECT_EQ(rig.recv(RUK_RECV_BLOCK).rc, 0);
    EXPECT_EQ(polls.asked, 0u);
}

TEST(SleepingReceiver, Timeouts_PollAgainWithTheLockFree)
{
    for (const Call &call : calls) {
        RigEndpoint rig(with_locks());
        Handle handle(rig);
        rig.bind(0, OWN_ADDRESS, 5000);
        auto timeout = [&] {
            EXPECT_TRUE(rig.rx_lock_free());
            EXPECT_EQ(inuse(rig), 1u);
            return 0;
        };
        Polls polls({timeout, timeout, timeout, [&] {
                         EXPECT_TRUE(rig.rx_lock_free());
                         rig.ring.put({{udp_frame("x"), 0}});
                         return 1;
                     }});
        EXPECT_EQ(call.receive(rig, RUK_RECV_BLOCK), 0) << call.name;
        EXPECT_EQ(polls.asked, 4u);
        EXPECT_EQ(rig.ep->rep_inuse, 0u);
        EXPECT_TRUE(rig.rx_lock_free());
    }
}

TEST(SleepingReceiver, EventArrivesDuringATimeout_SeenOnlyWhenPollSaysSo)
{
    RigEndpoint rig;
    Handle handle(rig);
    rig.bind(0, OWN_ADDRESS, 5000);
    Polls polls({[&] {
                     rig.ring.put({{udp_frame("x"), 0}});
                     return 0;
                 },
                 [] { return 1; }});
    EXPECT_EQ(rig.recv(RUK_RECV_BLOCK).rc, 0);
    EXPECT_EQ(polls.asked, 2u);
}

TEST(SleepingReceiver, WokenForNothing_SleepsAgain)
{
    RigEndpoint rig(with_locks());
    Handle handle(rig);
    rig.bind(0, OWN_ADDRESS, 5000);
    Polls polls({[] { return 1; }, [] { return 1; },
                 [&] {
                     rig.ring.put({{udp_frame("dropped"), 9}});
                     return 1;
                 },
                 [&] {
                     rig.ring.put({{udp_frame("x"), 0}});
                     return 1;
                 }});
    EXPECT_EQ(rig.recv(RUK_RECV_BLOCK).rc, 0);
    EXPECT_EQ(polls.asked, 4u);
    EXPECT_EQ(rig.ep->rep_stats.dropped_badfilter, 1u);
}

TEST(SleepingReceiver, ShutdownDuringATimeout_EintrWithoutTouchingTheLock)
{
    for (const Call &call : calls) {
        RigEndpoint rig(with_locks());
        Handle handle(rig);
        /* The lock is another's when the receiver leaves: taking it would hang, releasing it would free it. */
        Polls polls({[] { return 0; },
                     [&] {
                         pthread_mutex_lock(&rig.ep->rep_rx_lock);
                         ruk_shutdown(rig.ep, 0);
                         return 0;
                     }});
        EXPECT_EQ(call.receive(rig, RUK_RECV_BLOCK), EINTR) << call.name;
        EXPECT_EQ(polls.asked, 2u);
        EXPECT_FALSE(rig.rx_lock_free()) << call.name;
        pthread_mutex_unlock(&rig.ep->rep_rx_lock);
        EXPECT_EQ(rig.ep->rep_inuse, 0u);
    }
}

TEST(SleepingReceiver, ShutdownWithAnEventReady_NotAskedFor)
{
    RigEndpoint rig;
    Handle handle(rig);
    rig.bind(0, OWN_ADDRESS, 5000);
    Polls polls({[&] {
        ruk_shutdown(rig.ep, 0);
        rig.ring.put({{udp_frame("x"), 0}});
        return 1;
    }});
    EXPECT_EQ(rig.recv(RUK_RECV_BLOCK).rc, 0);
}

TEST(SleepingReceiver, PollFails_ItsErrno)
{
    for (const Call &call : calls) {
        for (int error : {EINTR, EBADF, ENOMEM}) {
            RigEndpoint rig(with_locks());
            Handle handle(rig);
            Polls polls({[] { return 0; },
                         [error] {
                             errno = error;
                             return -1;
                         }});
            EXPECT_EQ(call.receive(rig, RUK_RECV_BLOCK), error) << call.name;
            EXPECT_EQ(rig.ep->rep_inuse, 0u);
            EXPECT_TRUE(rig.rx_lock_free());
        }
    }
}

TEST(SleepingReceiver, RealPollOnAReadableDescriptor_ThreadWoken)
{
    int pipe_fds[2];
    ASSERT_EQ(pipe(pipe_fds), 0);
    RigEndpoint rig(with_locks());
    rig.bind(0, OWN_ADDRESS, 5000);
    rig.ep->rep_handle = pipe_fds[0];
    int rc = -1;
    std::thread receiver([&] { rc = datagram(rig, RUK_RECV_BLOCK); });
    ASSERT_TRUE(wait_until([&] { return inuse(rig) == 1; }));
    rig.ring.put({{udp_frame("x"), 0}});
    ASSERT_EQ(write(pipe_fds[1], "!", 1), 1);
    receiver.join();
    EXPECT_EQ(rc, 0);
    rig.ep->rep_handle = -1;
    ::close(pipe_fds[0]);
    ::close(pipe_fds[1]);
}

/* ------------------------------------------------------------------ closing with receivers inside */

TEST(ClosingEndpoint, NeedcloseAndQueueEmpty_Enxio)
{
    for (const Call &call : calls) {
        for (auto mode : {RUK_RECV_DEFAULT, RUK_RECV_NONBLOCK, RUK_RECV_BLOCK, RUK_RECV_PEEK, RUK_RECV_PEEK_MSG,
                          static_cast<enum ruk_recvmode>(6)}) {
            RigEndpoint rig(with_locks());
            rig.ep->rep_state = REP_STATE_NEEDCLOSE;
            EXPECT_EQ(call.receive(rig, mode), ENXIO) << call.name << ", mode " << mode;
            EXPECT_EQ(rig.ep->rep_inuse, 0u);
            EXPECT_TRUE(rig.rx_lock_free());
            EXPECT_FALSE(rig.closed());
            EXPECT_EQ(rig.ep->rep_state, REP_STATE_NEEDCLOSE);
        }
    }
}

TEST(ClosingEndpoint, NeedcloseButDatagramWaiting_Delivered)
{
    RigEndpoint rig;
    rig.bind(0, OWN_ADDRESS, 5000);
    rig.ep->rep_state = REP_STATE_NEEDCLOSE;
    rig.ring.put({{udp_frame("x"), 0}});
    EXPECT_EQ(rig.recv().rc, 0);
    EXPECT_EQ(rig.recv().rc, ENXIO);
}

/* A closer that found nobody inside frees the endpoint itself: the receiver only has to go. */
TEST(ClosingEndpoint, NeedcloseWhileAsleep_EnxioWithNothingConsumedOrClosed)
{
    for (int ready : {1, -1}) {
        in_each_way({RUK_RECV_BLOCK}, [ready](RigEndpoint &rig, const Call &call, enum ruk_recvmode mode) {
            Handle handle(rig);
            rig.bind(0, OWN_ADDRESS, 5000);
            Polls polls({[&] {
                rig.ring.put({{udp_frame("x"), 0}});
                rig.ep->rep_state = REP_STATE_NEEDCLOSE;
                errno = EBADF;
                return ready;
            }});
            EXPECT_EQ(call.receive(rig, mode), ENXIO) << "poll returned " << ready;
            EXPECT_EQ(polls.asked, 1u);
            EXPECT_EQ(rig.ep->rep_inuse, 0u);
            EXPECT_TRUE(rig.rx_lock_free());
            EXPECT_FALSE(rig.closed());
            EXPECT_EQ(rig.ep->rep_state, REP_STATE_NEEDCLOSE);
            EXPECT_EQ(rig.flow32(0), 0u);
            EXPECT_EQ(rig.ring.at(30), 1) << "the event is still there";
            EXPECT_EQ(rig.ep->rep_num_packets, 0u);
        });
    }
}

TEST(ClosingEndpoint, NeedcloseWhileAsleepAndShutDown_InterruptedAndTheCloseLeftToTheCloser)
{
    in_each_way({RUK_RECV_BLOCK}, [](RigEndpoint &rig, const Call &call, enum ruk_recvmode mode) {
        Handle handle(rig);
        rig.bind(0, OWN_ADDRESS, 5000);
        Polls polls({[&] {
            rig.ep->rep_state = REP_STATE_NEEDCLOSE;
            EXPECT_EQ(ruk_shutdown(rig.ep, 0), 0);
            return 0;
        }});
        EXPECT_EQ(call.receive(rig, mode), EINTR);
        EXPECT_EQ(polls.asked, 1u);
        EXPECT_EQ(rig.ep->rep_inuse, 0u);
        EXPECT_TRUE(rig.rx_lock_free());
        EXPECT_FALSE(rig.closed());
        EXPECT_EQ(rig.ep->rep_state, REP_STATE_NEEDCLOSE);
    });
}

TEST(DeferredClose, QueueEmptyAndOthersInside_EagainAndLeftToThem)
{
    in_each_way(modes_that_return_at_once, [](RigEndpoint &rig, const Call &call, enum ruk_recvmode mode) {
        rig.ep->rep_inuse = 1;
        rig.ep->rep_state = REP_STATE_CLOSING;
        EXPECT_EQ(call.receive(rig, mode), EAGAIN);
        ASSERT_FALSE(rig.closed());
        EXPECT_EQ(rig.ep->rep_inuse, 1u);
        EXPECT_EQ(rig.ep->rep_state, REP_STATE_CLOSING);
        EXPECT_TRUE(rig.rx_lock_free());
        rig.ep->rep_inuse = 0; /* the other one is gone */
    });
}

TEST(DeferredClose, QueueEmptyAndNobodyElseInside_EagainAndCompleted)
{
    in_each_way(modes_that_return_at_once, [](RigEndpoint &rig, const Call &call, enum ruk_recvmode mode) {
        rig.ep->rep_state = REP_STATE_CLOSING;
        EXPECT_EQ(call.receive(rig, mode), EAGAIN);
        EXPECT_EQ(rig.unmapped(), (std::vector<std::string>{"recvq", "sram", "kwindow", "flow"}));
    });
}

/* The shutdown comes between the receiver's entry, which forgets earlier ones, and its first look at the ring. */
TEST(DeferredClose, ShutdownOfASpinningReceiver_EintrAndCompleted)
{
    static RigEndpoint *shut_down;
    in_each_way({RUK_RECV_DEFAULT}, [](RigEndpoint &rig, const Call &call, enum ruk_recvmode mode) {
        shut_down = &rig;
        rig.ep->rep_state = REP_STATE_CLOSING;
        PageTrap trap(rig.ring.base(), [] { ruk_shutdown(shut_down->ep, 0); });
        EXPECT_EQ(call.receive(rig, mode), EINTR);
        EXPECT_TRUE(trap.sprung());
        EXPECT_EQ(rig.unmapped(), (std::vector<std::string>{"recvq", "sram", "kwindow", "flow"}));
    });
}

TEST(DeferredClose, ReceiverAsleep_CloseReturnsAtOnceReceiverCompletesIt)
{
    for (const Call &call : calls) {
        CloseLog log;
        RigEndpoint rig(with_locks());
        rig.ep->rep_handle = 4711;
        Polls polls({[&] {
                         EXPECT_EQ(ruk_close(rig.ep), 0);
                         EXPECT_EQ(rig.ep->rep_state, REP_STATE_CLOSING);
                         EXPECT_FALSE(rig.closed());
                         EXPECT_TRUE(rig.rx_lock_free());
                         return 0;
                     },
                     [&] {
                         EXPECT_EQ(rig.ep->rep_state, REP_STATE_CLOSING); /* close alone wakes nobody */
                         return 1;
                     }});
        EXPECT_EQ(call.receive(rig, RUK_RECV_BLOCK), ENXIO) << call.name;
        EXPECT_EQ(rig.unmapped(), (std::vector<std::string>{"recvq", "sram", "kwindow", "flow"}));
        EXPECT_EQ(log.closed, 1u);
    }
}

TEST(DeferredClose, ShutdownOfTheSleeper_CompletesItToo)
{
    for (const Call &call : calls) {
        CloseLog log;
        RigEndpoint rig(with_locks());
        rig.ep->rep_handle = 4711;
        Polls polls({[&] {
            EXPECT_EQ(ruk_close(rig.ep), 0);
            EXPECT_EQ(ruk_shutdown(rig.ep, 0), 0);
            return 0;
        }});
        EXPECT_EQ(call.receive(rig, RUK_RECV_BLOCK), EINTR) << call.name;
        EXPECT_TRUE(rig.closed());
        EXPECT_EQ(log.closed, 1u);
    }
}

TEST(DeferredClose, PollFailsAfterwards_EnxioAndCompleted)
{
    CloseLog log;
    RigEndpoint rig(with_locks());
    rig.ep->rep_handle = 4711;
    Polls polls({[&] {
        EXPECT_EQ(ruk_close(rig.ep), 0);
        errno = EBADF;
        return -1;
    }});
    EXPECT_EQ(datagram(rig, RUK_RECV_BLOCK), ENXIO);
    EXPECT_TRUE(rig.closed());
}

TEST(DeferredClose, EventReadyAfterwards_NotDelivered)
{
    CloseLog log;
    RigEndpoint rig(with_locks());
    rig.ep->rep_handle = 4711;
    rig.bind(0, OWN_ADDRESS, 5000);
    Polls polls({[&] {
        rig.ring.put({{udp_frame("x"), 0}});
        EXPECT_EQ(ruk_close(rig.ep), 0);
        return 1;
    }});
    Received got = rig.recv(RUK_RECV_BLOCK);
    EXPECT_EQ(got.rc, ENXIO);
    EXPECT_EQ(got.data[0], 0xee);
    EXPECT_TRUE(rig.closed());
}

TEST(DeferredClose, TwoSleepingThreads_TheLastCompletesIt)
{
    CloseLog log;
    RigEndpoint rig(with_locks());
    rig.ep->rep_handle = 4711;
    LibcHookGuard hooks;
    unsigned asleep = 0, go = 0;
    hooks->poll = [&](struct pollfd *, nfds_t, int) {
        const unsigned me = __atomic_add_fetch(&asleep, 1, __ATOMIC_SEQ_CST);
        while (__atomic_load_n(&go, __ATOMIC_SEQ_CST) < me)
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        return 1;
    };
    int results[2] = {-1, -1};
    unsigned left = 0;
    auto receive = [&](int i) {
        results[i] = datagram(rig, RUK_RECV_BLOCK);
        __atomic_add_fetch(&left, 1, __ATOMIC_SEQ_CST);
    };
    std::thread one(receive, 0), two(receive, 1);
    ASSERT_TRUE(wait_until([&] { return __atomic_load_n(&asleep, __ATOMIC_SEQ_CST) == 2; }));
    EXPECT_EQ(inuse(rig), 2u);
    EXPECT_EQ(ruk_close(rig.ep), 0);
    __atomic_store_n(&go, 1u, __ATOMIC_SEQ_CST);
    ASSERT_TRUE(wait_until([&] { return __atomic_load_n(&left, __ATOMIC_SEQ_CST) == 1; }));
    EXPECT_FALSE(rig.closed());
    EXPECT_EQ(inuse(rig), 1u);
    __atomic_store_n(&go, 2u, __ATOMIC_SEQ_CST);
    one.join();
    two.join();
    EXPECT_TRUE(rig.closed());
    EXPECT_EQ(results[0], ENXIO);
    EXPECT_EQ(results[1], ENXIO);
}

TEST(DeferredClose, WithoutLocks_ReceiverAsleepCompletesIt)
{
    CloseLog log;
    RigEndpoint rig;
    rig.ep->rep_handle = 4711;
    Polls polls({[&] {
        EXPECT_EQ(ruk_close(rig.ep), 0);
        EXPECT_FALSE(rig.closed());
        return 1;
    }});
    EXPECT_EQ(datagram(rig, RUK_RECV_BLOCK), ENXIO);
    EXPECT_TRUE(rig.closed());
}

TEST(Close, SpinningReceiverThread_EnxioAndTheCloserCloses)
{
    /* A receiver that spins holds the lock; close marks the endpoint and waits for it. */
    for (const Call &call : calls) {
        RigEndpoint rig(with_locks());
        int rc = -1;
        std::thread receiver([&] { rc = call.receive(rig, RUK_RECV_DEFAULT); });
        ASSERT_TRUE(wait_until([&] { return inuse(rig) == 1; }));
        EXPECT_EQ(rig.close(), 0);
        receiver.join();
        EXPECT_EQ(rc, ENXIO) << call.name;
        EXPECT_TRUE(rig.closed());
    }
}

TEST(Close, NobodyInside_ClosedAtOnce)
{
    RigEndpoint rig(with_locks());
    EXPECT_EQ(rig.close(), 0);
    EXPECT_TRUE(rig.closed());
}

TEST(DeferredClose, ManyReceiverThreadsShutdownAndCloseRacing_ClosedExactlyOnce)
{
    for (int round = 0; round < 60; round++) {
        CloseLog log;
        RigEndpoint rig(with_locks());
        rig.ep->rep_handle = 4711;
        LibcHookGuard hooks;
        bool wake = false;
        unsigned asleep = 0;
        hooks->poll = [&](struct pollfd *, nfds_t, int) {
            __atomic_add_fetch(&asleep, 1, __ATOMIC_SEQ_CST);
            while (!__atomic_load_n(&wake, __ATOMIC_SEQ_CST))
                std::this_thread::yield();
            return 0; /* a time-out: the shutdown is looked at */
        };
        std::vector<std::thread> receivers;
        for (int i = 0; i < 4; i++)
            receivers.emplace_back([&] { EXPECT_EQ(datagram(rig, RUK_RECV_BLOCK), EINTR); });
        ASSERT_TRUE(wait_until([&] { return __atomic_load_n(&asleep, __ATOMIC_SEQ_CST) == 4; }));
        ruk_shutdown(rig.ep, 0);
        std::thread closer([&] { EXPECT_EQ(ruk_close(rig.ep), 0); });
        if (round % 2)
            std::this_thread::yield();
        __atomic_store_n(&wake, true, __ATOMIC_SEQ_CST);
        for (std::thread &t : receivers)
            t.join();
        closer.join();
        EXPECT_EQ(log.closed, 1u);
        EXPECT_EQ(rig.unmapped().size(), 4u);
    }
}

/* ------------------------------------------------------------------ several receivers at work */

TEST(ThreadSafeEndpoint, FourReceiversOneWriter_EveryDatagramOnceAndIntact)
{
    RigEndpoint::Options options = with_locks();
    options.ring = 4096;
    RigEndpoint rig(options);
    rig.bind(0, OWN_ADDRESS, 5000);
    constexpr unsigned total = 20000;
    std::vector<uint8_t> seen(total);
    unsigned received = 0, damaged = 0;
    std::vector<std::thread> receivers;
    for (int i = 0; i < 4; i++) {
        receivers.emplace_back([&] {
            uint8_t buf[256];
            ruk_recv_info info = {};
            for (;;) {
                int rc = ruk_recvfrom(rig.ep, RUK_RECV_NONBLOCK, buf, sizeof buf, &info);
                if (rc == EAGAIN) {
                    if (__atomic_load_n(&received, __ATOMIC_SEQ_CST) == total)
                        return;
                    std::this_thread::yield();
                    continue;
                }
                const unsigned number = static_cast<unsigned>(buf[0] << 16 | buf[1] << 8 | buf[2]);
                bool good = rc == 0 && number < total && info.msg_len == 3 + number % 100;
                for (unsigned k = 3; good && k < info.msg_len; k++)
                    good = buf[k] == static_cast<uint8_t>(number + k);
                if (good)
                    __atomic_add_fetch(&seen[number], 1, __ATOMIC_RELAXED);
                else
                    __atomic_add_fetch(&damaged, 1, __ATOMIC_RELAXED);
                __atomic_add_fetch(&received, 1, __ATOMIC_SEQ_CST);
            }
        });
    }
    uint64_t written = 0;
    uint64_t consumed = 0, offset = 0; /* by the flow window */
    for (unsigned number = 0; number < total; number++) {
        UdpFrame frame;
        frame.payload = {static_cast<uint8_t>(number >> 16), static_cast<uint8_t>(number >> 8),
                         static_cast<uint8_t>(number)};
        for (unsigned k = 3; k < 3 + number % 100; k++)
            frame.payload.push_back(static_cast<uint8_t>(number + k));
        for (;;) { /* an event is 256 bytes at most */
            const uint64_t now =
                __atomic_load_n(reinterpret_cast<uint32_t *>(rig.flow_memory.data() + 16), __ATOMIC_ACQUIRE);
            consumed += (now + 4096 - offset) % 4096;
            offset = now;
            if (written - consumed + 256 < 4096)
                break;
            std::this_thread::yield();
        }
        rig.ring.put({{frame.bytes(), 0}});
        written += rig.ring.last_length();
    }
    for (std::thread &t : receivers)
        t.join();
    EXPECT_EQ(damaged, 0u);
    for (unsigned i = 0; i < total; i++)
        ASSERT_EQ(seen[i], 1) << i;
    EXPECT_EQ(rig.ep->rep_num_packets, total);
    EXPECT_EQ(rig.flow32(0), total);
}
