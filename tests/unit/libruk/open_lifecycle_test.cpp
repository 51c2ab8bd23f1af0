/* An endpoint between its opening and its end: attributes, enabling, the software handle, shutdown, close. */
#include "endpoint_test.h"

#include <atomic>
#include <fstream>
#include <functional>
#include <signal.h>
#include <thread>
#include <unistd.h>

using namespace test_support;

namespace {

struct LockUse {
    pthread_mutex_t *lock;
    bool taken; /* else released */
    bool operator==(const LockUse &) const = default;
};
thread_local std::vector<LockUse> *lock_uses; /* of this thread, while a test asks for them */

} // namespace

/* The linker gives the calls of linked-in code to these. */
extern "C" {
int __real_pthread_mutex_lock(pthread_mutex_t *lock);
int __real_pthread_mutex_unlock(pthread_mutex_t *lock);
int __wrap_pthread_mutex_lock(pthread_mutex_t *lock);
int __wrap_pthread_mutex_unlock(pthread_mutex_t *lock);

int __wrap_pthread_mutex_lock(pthread_mutex_t *lock)
{
    if (lock_uses)
        lock_uses->push_back({lock, true});
    return __real_pthread_mutex_lock(lock);
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t *lock)
{
    if (lock_uses)
        lock_uses->push_back({lock, false});
    return __real_pthread_mutex_unlock(lock);
}
}

namespace {

/* A call on a thread of its own. */
class Caller {
public:
    explicit Caller(std::function<void()> call)
        : thread_([this, call = std::move(call)] {
              tid_ = gettid();
              call();
              returned_ = true;
          })
    {}
    void wait_until_it_sleeps_or_returns() const
    {
        while (tid_ == 0 || !(returned_ || sleeps()))
            usleep(100);
    }
    bool returned() const { return returned_; }
    void join() { thread_.join(); }

private:
    bool sleeps() const
    {
        std::ifstream file("/proc/self/task/" + std::to_string(tid_) + "/stat");
        std::string text;
        std::getline(file, text);
        const size_t name_end = text.rfind(')');
        return name_end != std::string::npos && text.compare(name_end, 3, ") S") == 0;
    }
    std::atomic<pid_t> tid_ = 0;
    std::atomic<bool> returned_ = false;
    std::thread thread_; /* last: it uses the others */
};

class LifecycleTest : public EndpointTest {
protected:
    bool lock_is_free()
    {
        if (pthread_mutex_trylock(&dev->rep_lock) != 0)
            return false;
        pthread_mutex_unlock(&dev->rep_lock);
        return true;
    }
    struct ruk_device_attrs attrs = {};
};

/* ------------------------------------------------------------------ attributes */

TEST_F(LifecycleTest, GetAttributes_FromTheRecordWithoutTheDriver)
{
    driver.params = {1111, 65536, 1, 77};
    open(RUK_OPEN_HW_TIMESTAMPING | RUK_OPEN_THREAD_SAFE);
    driver.take_trace();
    memset(&attrs, 0xEE, sizeof attrs);
    EXPECT_EQ(ruk_device_get_attrs(dev, &attrs), 0);
    EXPECT_EQ(attrs.recvq_filter_mode, 1u);
    EXPECT_EQ(attrs.recvq_size, 65536u);
    EXPECT_EQ(attrs.hw_timestamping, 1u);
    EXPECT_EQ(attrs.reserved_1, 0u);
    EXPECT_EQ(driver.trace, Lines{});
    EXPECT_TRUE(lock_is_free());
}

TEST_F(LifecycleTest, SetAttributes_SameModeOnAnOpenEndpoint_OnlyReadBack)
{
    open();
    driver.take_trace();
    driver.params = {2222, 131072, 2, 0};
    attrs = {0, 99, 5, 6};
    EXPECT_EQ(ruk_device_set_attrs(dev, &attrs), 0);
    EXPECT_EQ(driver.trace, Lines{"4D9C"}) << "a new queue size alone is not sent";
    EXPECT_EQ(dev->rep_dmasend_threshold, 2222u);
    EXPECT_EQ(dev->rep_recvq_size, 131072u);
    EXPECT_EQ(dev->rep_recvq_filter_mode, RUK_RECV_FILTER_RAW);
    EXPECT_EQ(dev->rep_timestamping_enabled, 1u);
}

TEST_F(LifecycleTest, SetAttributes_OtherMode_SentWithThresholdAndSize)
{
    driver.params = {0x578, 32768, 0, 0};
    open(RUK_OPEN_THREAD_SAFE);
    driver.take_trace();
    attrs = {1, 0x10000, 0, 0xFFFFFFFF};
    EXPECT_EQ(ruk_device_set_attrs(dev, &attrs), 0);
    EXPECT_EQ(driver.trace, (Lines{"4D9D 78050000"
                                   "00000100"
                                   "01000000"
                                   "00000000",
                                   "4D9C"}));
    EXPECT_EQ(dev->rep_recvq_filter_mode, RUK_RECV_FILTER_ALLMULTI);
    EXPECT_EQ(dev->rep_recvq_size, 0x10000u);
    EXPECT_TRUE(lock_is_free());
}

TEST_F(LifecycleTest, SetAttributes_Disabled_SentEvenWithTheSameMode)
{
    open(RUK_OPEN_DISABLED);
    driver.take_trace();
    attrs = {0, 0x40000, 0, 0};
    EXPECT_EQ(ruk_device_set_attrs(dev, &attrs), 0);
    EXPECT_EQ(driver.trace, (Lines{"4D9D 78050000000004000000000000000000", "4D9C"}));
    EXPECT_EQ(dev->rep_recvq_size, 0x40000u) << "in force before the queues are mapped";
}

TEST_F(LifecycleTest, SetAttributes_DriverRefuses_TimestampingStaysChanged)
{
    open(RUK_OPEN_THREAD_SAFE);
    driver.take_trace();
    driver.fail(OXEL_SET_RUK_PARAMS, 1, EPERM);
    attrs = {2, 99, 1, 0};
    EXPECT_EQ(ruk_device_set_attrs(dev, &attrs), EPERM);
    EXPECT_EQ(driver.count("4D9C"), 0u);
    EXPECT_EQ(dev->rep_timestamping_enabled, 1u);
    EXPECT_EQ(dev->rep_recvq_filter_mode, RUK_RECV_FILTER_NORMAL);
    EXPECT_EQ(dev->rep_recvq_size, 32768u);
    EXPECT_TRUE(lock_is_free());
    attrs.hw_timestamping = 0;
    attrs.recvq_filter_mode = 0;
    EXPECT_EQ(ruk_device_set_attrs(dev, &attrs), 0);
    EXPECT_EQ(dev->rep_timestamping_enabled, 0u);
}

TEST_F(LifecycleTest, SetAttributes_ReadingBackFails_Aborts)
{
    open();
    driver.fail(OXEL_GET_RUK_PARAMS, 1, EIO);
    ChildResult child = run_in_child([&] { return ruk_device_set_attrs(dev, &attrs); });
    EXPECT_TRUE(child.killed_by(SIGABRT)) << child;
    const std::string start = "ruk: assertion: <<rc == 0>>  failed at line ";
    EXPECT_EQ(child.out.substr(0, start.size()), start);
    EXPECT_NE(child.out.find(", file ruk_open\n"), std::string::npos) << child.out;
}

/* What the lock's holder changes meanwhile is what the caller gets. */
TEST_F(LifecycleTest, GetAttributes_LockHeldByAnotherThread_WaitsForIt)
{
    open(RUK_OPEN_THREAD_SAFE);
    memset(&attrs, 0xEE, sizeof attrs);
    pthread_mutex_lock(&dev->rep_lock);
    Caller caller([this] { ruk_device_get_attrs(dev, &attrs); });
    caller.wait_until_it_sleeps_or_returns();
    dev->rep_recvq_size = 0x12340000;
    pthread_mutex_unlock(&dev->rep_lock);
    caller.join();
    EXPECT_EQ(attrs.recvq_size, 0x12340000u);
}

/* ------------------------------------------------------------------ enabling */

TEST_F(LifecycleTest, Enable_DisabledEndpoint_BecomesUsable)
{
    open(RUK_OPEN_DISABLED | RUK_OPEN_THREAD_SAFE);
    driver.take_trace();
    EXPECT_EQ(ruk_device_enable(dev), 0);
    EXPECT_EQ(dev->rep_state, REP_STATE_OPEN);
    EXPECT_EQ(driver.trace.front(), "50EA");
    EXPECT_EQ(driver.trace.back(), "5097");
    EXPECT_TRUE(lock_is_free());
}

TEST_F(LifecycleTest, Enable_OpenEndpoint_InvalidAndUnchanged)
{
    open(RUK_OPEN_THREAD_SAFE);
    driver.take_trace();
    struct ruk__map before = dev->rep_map;
    EXPECT_EQ(ruk_device_enable(dev), EINVAL);
    EXPECT_EQ(driver.trace, Lines{});
    EXPECT_EQ(memcmp(&before, &dev->rep_map, sizeof before), 0);
    EXPECT_EQ(dev->rep_state, REP_STATE_OPEN);
    EXPECT_TRUE(lock_is_free());
}

TEST_F(LifecycleTest, Enable_StepFails_ErrorAndStillDisabled)
{
    open(RUK_OPEN_DISABLED | RUK_OPEN_THREAD_SAFE);
    driver.fail(OXEL_ENABLE_ENDPT, 1, EPERM);
    EXPECT_EQ(ruk_device_enable(dev), EPERM);
    EXPECT_EQ(dev->rep_state, REP_STATE_ALLOC);
    EXPECT_TRUE(lock_is_free());
    EXPECT_EQ(ruk_device_enable(dev), 0);
}

TEST_F(LifecycleTest, Enable_UnderTheEndpointLock)
{
    open(RUK_OPEN_DISABLED | RUK_OPEN_THREAD_SAFE);
    int held = 0;
    auto answer = host.sockets.on_ioctl[OXEL_ENABLE_ENDPT];
    host.sockets.on_ioctl[OXEL_ENABLE_ENDPT] = [&](int fd, void *arg) {
        held = pthread_mutex_trylock(&dev->rep_lock);
        return answer(fd, arg);
    };
    EXPECT_EQ(ruk_device_enable(dev), 0);
    EXPECT_EQ(held, EBUSY);
}

TEST_F(LifecycleTest, SetAttributes_UnderTheEndpointLock)
{
    open(RUK_OPEN_THREAD_SAFE);
    int held = 0;
    auto answer = host.sockets.on_ioctl[OXEL_GET_RUK_PARAMS];
    host.sockets.on_ioctl[OXEL_GET_RUK_PARAMS] = [&](int fd, void *arg) {
        held = pthread_mutex_trylock(&dev->rep_lock);
        return answer(fd, arg);
    };
    EXPECT_EQ(ruk_device_set_attrs(dev, &attrs), 0);
    EXPECT_EQ(held, EBUSY);
}

/* ------------------------------------------------------------------ the software handle */

TEST_F(LifecycleTest, SoftHandle_AnotherHandleOnTheSameEndpoint)
{
    driver.taken = {0, 1, 2};
    open();
    driver.take_trace();
    tov_handle_t soft = -1;
    ASSERT_EQ(ruk__open_soft(dev, &soft), 0);
    ASSERT_EQ(driver.handles().size(), 2u);
    EXPECT_EQ(soft, driver.handles()[1]);
    const uint32_t number = static_cast<uint32_t>(soft);
    EXPECT_EQ(driver.trace,
              (Lines{"open /dev/oxelBp0", "50E9 03000000c9000000", "4DA0 " + hex(&number, sizeof number)}));
    EXPECT_EQ(driver.command_handles.back(), soft);
    EXPECT_EQ(tov_close(soft), 0);
}

TEST_F(LifecycleTest, SoftHandle_EndpointOfAnotherBoard_ThatBoardsFileOpened)
{
    driver.boards.push_back({0x026f78000002, 0x026f78000002});
    host.interfaces.push_back({.name = "oxel1", .mac = {0x02, 0x6f, 0x78, 0, 0, 2}, .address = "10.77.0.2"});
    loopback = in_addr_of("10.77.0.2");
    driver.taken = {0};
    open();
    driver.take_trace();
    tov_handle_t soft = -1;
    ASSERT_EQ(ruk__open_soft(dev, &soft), 0);
    EXPECT_EQ(driver.trace[0], "open /dev/oxelBp1");
    EXPECT_EQ(driver.trace[1], "50E9 01000000c9000000");
    EXPECT_EQ(tov_close(soft), 0);
}

TEST_F(LifecycleTest, SoftHandle_StepFails_ErrorAndClosed)
{
    open();
    tov_handle_t soft = -7;
    for (unsigned long command : {OXEL_SET_ENDPT, OXEL_ATTACH_SOFT}) {
        driver.take_trace();
        driver.fail(command, 1, ENOSYS);
        EXPECT_EQ(ruk__open_soft(dev, &soft), ENOSYS);
        EXPECT_EQ(driver.trace.back(), "close");
        EXPECT_EQ(driver.handles().size(), 1u);
    }
    driver.open_errors = {{"/dev/oxelBp0", EMFILE}, {"/dev/oxelB0", ENFILE}};
    EXPECT_EQ(ruk__open_soft(dev, &soft), ENFILE);
    EXPECT_EQ(soft, -7);
}

/* ------------------------------------------------------------------ shutdown and close */

TEST_F(LifecycleTest, Shutdown_OnlyAFlag)
{
    EXPECT_EQ(ruk_shutdown(nullptr, 0), EINVAL);
    open(RUK_OPEN_THREAD_SAFE);
    driver.take_trace();
    pthread_mutex_lock(&dev->rep_rx_lock); /* takes neither lock */
    pthread_mutex_lock(&dev->rep_lock);
    EXPECT_EQ(ruk_shutdown(dev, 4711), 0);
    pthread_mutex_unlock(&dev->rep_lock);
    pthread_mutex_unlock(&dev->rep_rx_lock);
    EXPECT_EQ(dev->rep_shutdown, 1u);
    EXPECT_EQ(driver.trace, Lines{});
}

TEST_F(LifecycleTest, Close_ChannelsThenRegionsThenDeviceThenSocket)
{
    open(RUK_OPEN_THREAD_SAFE);
    ruk_channel_t ch;
    ASSERT_EQ(ruk_bind(dev, RUK_BIND_BROADCAST, 5000, nullptr, &ch), 0);
    const int device = dev->rep_handle, channel = ch->ch_fd, sender = dev->rep_send_fd;
    driver.take_trace();
    host.sockets.clear();
    close();
    ASSERT_EQ(driver.trace.size(), 11u);
    EXPECT_EQ(driver.trace[0].substr(0, 4), "50EB");
    EXPECT_EQ(driver.trace[1].substr(0, 4), "50EB");
    EXPECT_EQ(driver.trace[2], "munmap 10000+4000");
    EXPECT_EQ(driver.trace[10], "close");
    EXPECT_EQ(driver.filters.size(), 0u);
    std::vector<int> closed;
    for (const SocketCall &call : host.sockets.log())
        if (call.slot == Slot::close)
            closed.push_back(call.fd);
    EXPECT_EQ(closed, (std::vector<int>{channel, device, sender}));
}

TEST_F(LifecycleTest, Close_LocksHeldUntilTheEnd)
{
    open(RUK_OPEN_THREAD_SAFE);
    std::vector<int> held; /* at the close of the device and of the socket; a lock that is free stays taken */
    auto answer = host.sockets.close;
    host.sockets.close = [&](int fd) {
        held.push_back(pthread_mutex_trylock(&dev->rep_rx_lock));
        held.push_back(pthread_mutex_trylock(&dev->rep_lock));
        return answer(fd);
    };
    EXPECT_EQ(ruk_close(dev), 0);
    dev = nullptr;
    host.sockets.close = answer;
    EXPECT_EQ(held, (std::vector<int>{EBUSY, EBUSY, EBUSY, EBUSY}));
}

/* In the reverse order, when all else is done, and none of them twice. */
TEST_F(LifecycleTest, Close_TakesReceiveLockThenEndpointLock_ReleasesEndpointLockThenReceiveLock)
{
    open(RUK_OPEN_THREAD_SAFE);
    pthread_mutex_t *const receive = &dev->rep_rx_lock, *const endpoint = &dev->rep_lock;
    std::vector<LockUse> all;
    size_t before_last_close = 0; /* of the send socket, the last thing given back */
    auto answer = host.sockets.close;
    host.sockets.close = [&](int fd) {
        before_last_close = all.size();
        return answer(fd);
    };
    lock_uses = &all;
    EXPECT_EQ(ruk_close(dev), 0);
    lock_uses = nullptr;
    dev = nullptr;
    host.sockets.close = answer;

    std::vector<LockUse> ours;
    for (size_t i = 0; i < all.size(); i++) {
        if (all[i].lock != receive && all[i].lock != endpoint)
            continue;
        EXPECT_EQ(all[i].taken, i < before_last_close) << "held until all is given back";
        ours.push_back(all[i]);
    }
    EXPECT_EQ(ours, (std::vector<LockUse>{{receive, true}, {endpoint, true}, {endpoint, false}, {receive, false}}));
}

/* The receive lock comes first: a close that waits for it does not keep others from the endpoint. */
TEST_F(LifecycleTest, Close_ReceiveLockHeldByAnotherThread_WaitsForItWithoutTheEndpointLock)
{
    open(RUK_OPEN_THREAD_SAFE);
    ruk_device_t closing = dev;
    pthread_mutex_lock(&closing->rep_rx_lock);
    Caller caller([closing] { ruk_close(closing); });
    caller.wait_until_it_sleeps_or_returns();
    const bool returned = caller.returned();
    EXPECT_FALSE(returned);
    if (!returned) {
        EXPECT_TRUE(lock_is_free());
        EXPECT_EQ(driver.handles().size(), 1u) << "nothing released yet";
        pthread_mutex_unlock(&closing->rep_rx_lock);
    }
    caller.join();
    dev = nullptr;
}

/* A receiver inside is found before the endpoint lock is asked for. */
TEST_F(LifecycleTest, Close_ReceiverCountedAndEndpointLockHeld_ReturnsAtOnce)
{
    open(RUK_OPEN_THREAD_SAFE);
    dev->rep_inuse = 1;
    std::atomic<bool> held = false, enough = false;
    Caller holder([&] {
        pthread_mutex_lock(&dev->rep_lock);
        held = true;
        while (!enough)
            usleep(100);
        pthread_mutex_unlock(&dev->rep_lock);
    });
    while (!held)
        usleep(100);
    EXPECT_EQ(ruk_close(dev), 0);
    enough = true;
    holder.join();
    EXPECT_EQ(dev->rep_state, REP_STATE_CLOSING);
    dev->rep_inuse = 0;
}

/* The receiver sleeps while it is closed on, and leaves when it is shut down. */
TEST_F(LifecycleTest, Close_ReceiverThreadInside_ReturnsAtOnceAndIsLeftToIt)
{
    open(RUK_OPEN_THREAD_SAFE);
    ruk_device_t closing = dev;
    std::atomic<bool> asleep = false, wake = false;
    LibcHookGuard hooks;
    hooks->poll = [&](struct pollfd *, nfds_t, int) {
        asleep = true;
        while (!wake)
            usleep(100);
        return 0;
    };
    int result = -1;
    std::thread receiver([&] {
        char buf[16];
        struct ruk_recv_info info;
        result = ruk_recvfrom(closing, RUK_RECV_BLOCK, buf, sizeof buf, &info);
    });
    while (!asleep)
        usleep(100);
    driver.take_trace();
    EXPECT_EQ(ruk_close(closing), 0);
    dev = nullptr;
    EXPECT_EQ(driver.trace, Lines{}) << "nothing released while the receiver is inside";
    EXPECT_EQ(closing->rep_state, REP_STATE_CLOSING);
    EXPECT_EQ(ruk_shutdown(closing, 0), 0);
    wake = true;
    receiver.join();
    EXPECT_EQ(result, EINTR);
    ASSERT_FALSE(driver.trace.empty());
    EXPECT_EQ(driver.trace.front(), "munmap 10000+4000");
    EXPECT_EQ(driver.trace.back(), "close");
}

TEST_F(LifecycleTest, Close_ReceiverCounted_StateSaysSo)
{
    open(RUK_OPEN_THREAD_SAFE);
    driver.take_trace();
    dev->rep_inuse = 1;
    EXPECT_EQ(ruk_close(dev), 0);
    EXPECT_EQ(dev->rep_state, REP_STATE_CLOSING);
    EXPECT_EQ(driver.trace, Lines{});
    EXPECT_TRUE(lock_is_free());
    EXPECT_EQ(pthread_mutex_trylock(&dev->rep_rx_lock), 0);
    pthread_mutex_unlock(&dev->rep_rx_lock);
    dev->rep_inuse = 0;
}

/* ------------------------------------------------------------------ the closing summary */

class SummaryTest : public LifecycleTest {
protected:
    ChildResult closed_with_counters(int verbose, enum arista_tsp_status status)
    {
        return run_in_child([&] {
            open();
            __ruk_verbose = verbose;
            dev->arista_control.arct_status = status;
            struct arista_stats *stats = &dev->arista_control.arct_stats;
            stats->arst_kfrecv = 1;
            stats->arst_flips = 2;
            stats->arst_kfneeded = 3;
            stats->arst_kfmalformed = 4;
            stats->arst_ptpoos = 5;
            stats->arst_unsupported_mode = 6;
            dev->arista_control.arct_lastkf.ak_dropped_frames = 7;
            stats->arst_neg_adj_event = 8;
            return ruk_close(dev);
        });
    }
};

TEST_F(SummaryTest, SwitchTimestampsInUse_OneLineWhenVerbose)
{
    for (auto status : {ARISTA_STATUS_INITED, ARISTA_STATUS_NEED_KEYFRAME}) {
        ChildResult child = closed_with_counters(1, status);
        EXPECT_TRUE(child.exited_with(0)) << child;
        EXPECT_EQ(child.err, "Arista stats: KF [recv 1, flips 2, shortages 3, malformed 4] "
                             "Sw [ptp out of sync. 5, unsupp. 6, dropped frm 7, neg_adj_events 8]\n");
        EXPECT_EQ(child.out, "");
    }
}

TEST_F(SummaryTest, NotVerboseOrNotInUse_Silent)
{
    ChildResult child = closed_with_counters(0, ARISTA_STATUS_ACTIVE);
    EXPECT_TRUE(child.exited_with(0)) << child;
    EXPECT_EQ(child.err + child.out, "");
    child = closed_with_counters(1, ARISTA_STATUS_DISABLED);
    EXPECT_TRUE(child.exited_with(0)) << child;
    EXPECT_EQ(child.err + child.out, "");
}

} // namespace
