// The firmware's thread, over a port of the test's own and real time.
#include "live_rig.h"

#include "child.h"
#include "ledger/writer.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <thread>

namespace softnic_test {
namespace {

/* The machine as the firmware sees it. */
std::atomic<int> processors{0}; /* of the machine, all of them allowed; 0: as it is */
std::atomic<long> yields{0};

} // namespace
} // namespace softnic_test

/* The linker gives the firmware's calls to these. */
extern "C" {
int __real_sched_getaffinity(pid_t pid, size_t size, cpu_set_t *set);
int __real_sched_yield();
int __wrap_sched_getaffinity(pid_t pid, size_t size, cpu_set_t *set);
int __wrap_sched_yield();

int __wrap_sched_getaffinity(pid_t pid, size_t size, cpu_set_t *set)
{
    const int n = softnic_test::processors;
    if (n == 0)
        return __real_sched_getaffinity(pid, size, set);
    if (8 * size < static_cast<size_t>(n)) {
        errno = EINVAL;
        return -1;
    }
    CPU_ZERO_S(size, set);
    for (int i = 0; i < n; i++)
        CPU_SET_S(static_cast<size_t>(i), size, set);
    return 0;
}

int __wrap_sched_yield()
{
    softnic_test::yields++;
    return __real_sched_yield();
}
}

namespace softnic_test {
namespace {

using namespace softnic;
using namespace std::chrono_literals;

void refuse_userfaultfd()
{
    sock_filter program[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_userfaultfd, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    sock_fprog filter = {sizeof program / sizeof *program, program};
    EXPECT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    EXPECT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter), 0);
    EXPECT_EQ(syscall(SYS_userfaultfd, 0), -1);
}

bool eventually(const std::function<bool()> &condition)
{
    const auto end = std::chrono::steady_clock::now() + 10s;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::sleep_for(100us);
    }
    return true;
}

class FirmwareTest : public testing::Test {
protected:
    void SetUp() override { adapter_ = std::make_unique<LiveAdapter>(port_); }

    // Times that the firmware's thread gave its processor up by itself.
    static long switches()
    {
        long n = 0;
        for (int tid : thread_ids()) {
            const std::string task = "/proc/self/task/" + std::to_string(tid);
            std::string name, line;
            std::getline(std::ifstream(task + "/comm") >> std::ws, name);
            std::ifstream status(task + "/status");
            while (name == "softnic" && std::getline(status, line))
                if (line.rfind("voluntary_ctxt_switches:", 0) == 0)
                    n += std::stol(line.substr(24));
        }
        EXPECT_GT(n, 0);
        return n;
    }
    static std::vector<int> thread_ids();

    WakingPort port_;
    std::unique_ptr<LiveAdapter> adapter_;
};

std::vector<int> FirmwareTest::thread_ids()
{
    std::vector<int> ids;
    for (const auto &entry : std::filesystem::directory_iterator("/proc/self/task"))
        ids.push_back(std::stoi(entry.path().filename().string()));
    return ids;
}

TEST_F(FirmwareTest, ArrivingFrame_WakesASleepingReceiver)
{
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(3), 0);
    for (int i = 0; i < 20; i++) {
        std::this_thread::sleep_for(i % 2 ? 1ms : 0ms); // asleep or just awake
        port_.arrive(make_frame());
        pollfd p = {dev.fd, POLLIN, 0};
        ASSERT_EQ(poll(&p, 1, 10000), 1);
        ASSERT_TRUE(eventually([&] { return dev.recvq[dev.at + 30] != 0; }));
        EXPECT_EQ(dev.take_tags(), std::vector<uint16_t>{3});
        EXPECT_TRUE(eventually([&] { return !readable(dev.fd); }));
    }
}

// Where it has a single processor it gives that up between looks; a kernel of many refuses a set that is too small.
// One that was given another than the program's does not.
TEST_F(FirmwareTest, ProcessorsOfTheMachine_ManyAreNotTakenForOne)
{
    const auto yields_on = [&](int machine, int own = -1) {
        adapter_.reset();
        processors = machine;
        FirmwareOptions options;
        options.cpu = own;
        adapter_ = std::make_unique<LiveAdapter>(port_, nullptr, options);
        processors = 0;
        std::this_thread::sleep_for(20ms); // asleep
        const long before = yields;
        for (int i = 0; i < 20; i++) {
            port_.arrive(make_frame()); // nobody's
            std::this_thread::sleep_for(2ms);
        }
        return yields - before;
    };
    EXPECT_GT(yields_on(1), 0);
    EXPECT_GT(yields_on(1, 0), 0);
    cpu_set_t set;
    ASSERT_EQ(sched_getaffinity(0, sizeof set, &set), 0);
    if (CPU_ISSET(1, &set)) {
        EXPECT_EQ(yields_on(1, 1), 0);
    }
    EXPECT_GT(yields_on(1, CPU_SETSIZE - 1), 0); // not to be had
    EXPECT_EQ(yields_on(2), 0);
    EXPECT_EQ(yields_on(5000), 0);
}

TEST_F(FirmwareTest, IdleAdapter_MakesFewerThanTenWakeUpsASecond)
{
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    std::this_thread::sleep_for(200ms);
    const long before = switches();
    std::this_thread::sleep_for(1s);
    EXPECT_LT(switches() - before, 10);
}

// A slow reader that comes back long after the firmware has gone to sleep: the descriptor must not go on saying
// that there is something to read.
TEST_F(FirmwareTest, DrainedAfterALongPause_ReceiverSleepsWithoutFurtherWakeUps)
{
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(3), 0);
    for (int i = 0; i < 30; i++)
        port_.arrive(make_frame());
    pollfd p = {dev.fd, POLLIN, 0};
    ASSERT_EQ(poll(&p, 1, 10000), 1);
    std::this_thread::sleep_for(300ms); // the firmware sleeps with events unconsumed
    size_t taken = 0;
    ASSERT_TRUE(eventually([&] { return (taken += dev.take_tags().size()) == 30; }));
    ASSERT_TRUE(eventually([&] { return !readable(dev.fd); })); // a busy machine lets the firmware wait for its turn
    int wakes = 0;
    const auto end = std::chrono::steady_clock::now() + 1s;
    while (std::chrono::steady_clock::now() < end) {
        if (poll(&p, 1, 100) == 1)
            wakes++;
        if (wakes > 100000)
            break;
        std::this_thread::yield();
    }
    EXPECT_LT(wakes, 10);
}

TEST_F(FirmwareTest, UnconsumedEvents_CostNoWakeUpsWhereTheConsumerCanBeWatched)
{
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(3), 0);
    ConsumerWatch probe;
    void *page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    const bool watchable = probe.watch(page, 4096);
    port_.arrive(make_frame());
    std::this_thread::sleep_for(200ms);
    const long before = switches();
    std::this_thread::sleep_for(1s);
    EXPECT_LT(switches() - before, watchable ? 10 : 2000);
    EXPECT_TRUE(readable(dev.fd));
    dev.take_tags();
    EXPECT_TRUE(eventually([&] { return !readable(dev.fd); }));
    munmap(page, 4096);
}

// Hosts and containers refuse userfaultfd: a watch that cannot be had is no watch, and leaves nothing behind.
TEST(ConsumerWatchRefused, EveryCall_IsHarmless)
{
    const test_support::ChildResult child = test_support::run_in_child([] {
        refuse_userfaultfd();
        void *page = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        const auto open_files = [] {
            return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                                 std::filesystem::directory_iterator());
        };
        const auto before = open_files();
        {
            ConsumerWatch watch;
            EXPECT_FALSE(watch.watch(page, 4096));
            EXPECT_FALSE(watch.arm());
            EXPECT_EQ(watch.wake_fd(), -1);
            watch.disarm();
        }
        EXPECT_EQ(open_files(), before);
        *static_cast<volatile char *>(page) = 1; // nobody holds the page up
        return 0;
    });
    EXPECT_TRUE(child.exited_with(0)) << child;
}

// The firmware then looks again after a while: what an application consumes is seen all the same.
TEST(ConsumerWatchRefused, EventsUnconsumed_DescriptorFollowsWhatIsConsumed)
{
    const test_support::ChildResult child = test_support::run_in_child([] {
        refuse_userfaultfd();
        WakingPort port;
        LiveAdapter adapter(port);
        Device dev;
        EXPECT_EQ(dev.set_up(), 0);
        EXPECT_EQ(dev.filter(3), 0);
        for (int round = 0; round < 3; round++) {
            for (int i = 0; i < 10; i++)
                port.arrive(make_frame());
            pollfd p = {dev.fd, POLLIN, 0};
            EXPECT_EQ(poll(&p, 1, 10000), 1);
            std::this_thread::sleep_for(100ms); // the firmware has nothing else to do
            EXPECT_TRUE(readable(dev.fd));
            size_t taken = 0;
            EXPECT_TRUE(eventually([&] { return (taken += dev.take_tags().size()) == 10; }));
            EXPECT_TRUE(eventually([&] { return !readable(dev.fd); }));
        }
        dev.unmap();
        dev.close_now();
        return 0;
    });
    EXPECT_TRUE(child.exited_with(0)) << child;
}

// ------------------------------------------------------------ who has the frames when filters come and go

// Each change of the steering, and whether the adapter delivers such frames at that moment: they may be seen twice,
// but there must always be somebody who takes them.
class SteeringOrder : public FirmwareTest {
protected:
    void SetUp() override
    {
        FirmwareTest::SetUp();
        port_.on_steer = [this](const SteerKey &key, bool install) {
            const auto *filters = adapter_->card().board().filters().find(key);
            changes.push_back((install ? "from the host " : "to the host ") + std::to_string(key.port) +
                              (filters != nullptr && !filters->empty() ? ", delivered" : ", not delivered"));
        };
    }
    void TearDown() override { port_.on_steer = nullptr; }
    std::vector<std::string> taken()
    {
        std::vector<std::string> all;
        all.swap(changes);
        return all;
    }
    std::vector<std::string> changes;
};
using Changes = std::vector<std::string>;

TEST_F(SteeringOrder, FilterComesAndGoes_AdapterDeliversBeforeAndAfterTheHostDoesNot)
{
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(3), 0);
    EXPECT_EQ(taken(), Changes{"from the host 5000, delivered"});
    ASSERT_EQ(dev.unfilter(3), 0);
    EXPECT_EQ(taken(), Changes{"to the host 5000, delivered"});
    EXPECT_TRUE(port_.steered().empty());
}

TEST_F(SteeringOrder, EndpointCloses_HostHasItsFramesBackBeforeTheAdapterStops)
{
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(3), 0);
    ASSERT_EQ(dev.filter(4, 0x0A4D0001, 5001), 0);
    taken();
    dev.unmap();
    dev.close_now();
    EXPECT_EQ(taken(), (Changes{"to the host 5000, delivered", "to the host 5001, delivered"}));
    EXPECT_TRUE(port_.steered().empty());
}

TEST_F(SteeringOrder, EndpointClosesWhileAnotherHasTheFilterToo_HostGetsNothing_UntilThatOneCloses)
{
    Device one, other;
    ASSERT_EQ(one.set_up(0), 0);
    ASSERT_EQ(other.set_up(1), 0);
    ASSERT_EQ(one.filter(3), 0);
    ASSERT_EQ(other.filter(3), 0);
    taken();
    one.unmap();
    one.close_now();
    EXPECT_EQ(taken(), Changes{});
    EXPECT_EQ(port_.steered().size(), 1u);
    other.unmap();
    other.close_now();
    EXPECT_EQ(taken(), Changes{"to the host 5000, delivered"});
    EXPECT_TRUE(port_.steered().empty());
}

TEST_F(FirmwareTest, PostedRequests_LeaveAlsoFromSleep)
{
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    nuv_ureq_t r = {};
    r.bytes[62] = 42;
    r.bytes[63] = 13;
    for (unsigned i = 1; i <= 50; i++) {
        std::this_thread::sleep_for(i % 3 == 0 ? 1ms : 0ms);
        adapter_->post(r);
        int32_t timeo = -1;
        ASSERT_EQ(command(dev.fd, OXEL_WAIT_SEND_COMPLETION, &timeo), 0);
        ASSERT_EQ(dev.completions(), i);
        dev.flow->tx_flow.flow_desc = i;
    }
    EXPECT_EQ(port_.sent_waiting(), 50u);
}

TEST_F(FirmwareTest, RequestsLostOnTheirWay_InTheLedgerAfterTheCloseAsWell)
{
    const auto in_the_ledger = [this] {
        LedgerPage page = {};
        std::lock_guard guard(adapter_->card().lock());
        take_ledger(adapter_->card(), 0, &page);
        return page.endpoint[0].lost_requests;
    };
    {
        Device dev;
        ASSERT_EQ(dev.set_up(), 0);
        EXPECT_EQ(in_the_ledger(), 0u);
        adapter_->lose(7);
        EXPECT_EQ(in_the_ledger(), 7u);
    }
    EXPECT_EQ(in_the_ledger(), 7u);
}

// The way of catching requests counts on the threshold that it gave: others are asked for in vain, with what else is
// asked for at once all the same.
TEST(SendSetupOfAnEndpoint, ThresholdFixed_AnotherIsNotTaken_ElsewhereItIs)
{
    WakingPort port;
    unsigned asked = 0;
    LiveAdapter adapter(port, [&](CardConfig &config) {
        config.send_setup = [&](const char *) {
            const bool fixed = asked++ != 1; // the second claim's is not
            return SendSetup{nullptr, 8192, 64, fixed};
        };
    });
    for (uint32_t threshold : {64u, 512u, 64u}) {
        Device dev;
        ASSERT_EQ(dev.claim(0), 0);
        oxel_ruk_params_t p = {};
        ASSERT_EQ(command(dev.fd, OXEL_GET_RUK_PARAMS, &p), 0);
        EXPECT_EQ(p.dmasend_threshold, 64u);
        p = {512, 65536, 1, 0};
        ASSERT_EQ(command(dev.fd, OXEL_SET_RUK_PARAMS, &p), 0);
        ASSERT_EQ(command(dev.fd, OXEL_GET_RUK_PARAMS, &p), 0);
        EXPECT_EQ(p.dmasend_threshold, threshold);
        EXPECT_EQ(p.recvq_size, 65536u);
        EXPECT_EQ(p.recvq_filter_mode, 1u);
        ASSERT_EQ(dev.enable(), 0);
        EXPECT_EQ(dev.block.sendq_len, 8192u);
        p = {0, 0, 0, 0}; // while it runs, too
        ASSERT_EQ(command(dev.fd, OXEL_SET_RUK_PARAMS, &p), 0);
        ASSERT_EQ(command(dev.fd, OXEL_GET_RUK_PARAMS, &p), 0);
        EXPECT_EQ(p.dmasend_threshold, threshold == 512 ? 0u : 64u);
    }
    EXPECT_EQ(asked, 3u);
}

TEST_F(FirmwareTest, WaitWithALimit_EndsWithoutAnError)
{
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    const auto before = std::chrono::steady_clock::now();
    int32_t timeo = 30;
    EXPECT_EQ(command(dev.fd, OXEL_WAIT_SEND_COMPLETION, &timeo), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - before, 30ms);
}

TEST_F(FirmwareTest, Stop_SendsWhatHasBeenPosted)
{
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    nuv_ureq_t r = {};
    r.bytes[62] = 42;
    r.bytes[63] = 13;
    for (int i = 0; i < 60; i++)
        adapter_->post(r);
    adapter_->firmware().stop();
    EXPECT_EQ(port_.sent_waiting(), 60u);
}

TEST_F(FirmwareTest, CommandsWhileFramesPourIn_AreAnsweredSoon)
{
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.mode(2), 0);
    std::atomic<bool> stop{false};
    std::thread flood([&] {
        while (!stop) {
            port_.arrive(make_frame());
            if (port_.waiting() > 1000)
                std::this_thread::yield();
        }
    });
    const auto before = std::chrono::steady_clock::now();
    for (int i = 0; i < 200; i++) {
        ASSERT_EQ(dev.filter(static_cast<uint16_t>(i)), 0);
        ASSERT_EQ(dev.unfilter(static_cast<uint16_t>(i)), 0);
    }
    const auto took = std::chrono::steady_clock::now() - before;
    stop = true;
    flood.join();
    EXPECT_LT(took, 10s);
}

TEST_F(FirmwareTest, ItsThread_LeavesTheProgramsSignalsAlone)
{
    for (int tid : thread_ids()) {
        std::ifstream status("/proc/self/task/" + std::to_string(tid) + "/status");
        std::string line, name;
        while (std::getline(status, line)) {
            if (line.rfind("Name:", 0) == 0)
                name = line;
            if (name.find("softnic") != std::string::npos && tid != getpid() && line.rfind("SigBlk:", 0) == 0) {
                const uint64_t blocked = std::stoull(line.substr(7), nullptr, 16);
                EXPECT_NE(blocked & (uint64_t{1} << (SIGINT - 1)), 0u);
                EXPECT_NE(blocked & (uint64_t{1} << (SIGTERM - 1)), 0u);
            }
        }
    }
}

TEST_F(FirmwareTest, AdapterClock_FollowsHostTime)
{
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    oxel_get_nic_ticks_t t = {};
    ASSERT_EQ(command(dev.fd, OXEL_GET_NIC_TICKS, &t), 0);
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    const uint64_t host = static_cast<uint64_t>(now.tv_sec) * 1000000000u + static_cast<uint64_t>(now.tv_nsec);
    EXPECT_LT(host - t.host_nsecs, 1000000000u);
    EXPECT_LT(t.host_nsecs_delay, 1000000000u);
}

} // namespace
} // namespace softnic_test
