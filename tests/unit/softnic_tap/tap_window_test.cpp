// The request window of an endpoint under the tap, from mapping to unmapping and close.
#include "../softnic/rig.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstring>
#include <thread>

namespace {

using namespace softnic_test;

class TapWindow : public testing::Test {
protected:
    TapWindow() { softnic_capture_requests(nic); }

    static Bytes header_numbered(uint8_t n) { return Bytes(42, n); }

    // Header bytes of the frames that left, in order.
    std::vector<int> sent()
    {
        std::vector<int> numbers;
        uint8_t frame[2048];
        while (size_t len = softnic_take_sent(nic, 0, frame, sizeof frame))
            numbers.push_back(len >= 42 ? frame[0] : -1);
        return numbers;
    }

    Nic nic;
};

TEST_F(TapWindow, RequestsBackToBack_FirmwareRunsAfterwards_AllLeave)
{
    Device device;
    ASSERT_EQ(device.set_up(), 0);
    std::vector<int> expected;
    for (uint8_t n = 1; n <= 40; n++) {
        device.post(n % 2 ? 13 : 14, 0, header_numbered(n), 0);
        expected.push_back(n);
    }
    softnic_run(nic);
    EXPECT_EQ(sent(), expected);
    EXPECT_EQ(device.completions(), 40u);
}

// Far more than may be in flight, as no library posts them: the tap keeps 512, of which the adapter takes 128.
TEST_F(TapWindow, MoreThanTheTapKeeps_Posted_LostOnesAreCountedBeyondTheClose)
{
    {
        Device device;
        ASSERT_EQ(device.set_up(), 0);
        for (unsigned n = 0; n < 600; n++)
            device.post(13, 0, header_numbered(1), 0);
        EXPECT_EQ(nic.counters().lost_requests, 88u);
        softnic_run(nic);
        EXPECT_EQ(nic.counters().post_overflow, 384u);
        EXPECT_EQ(sent().size(), 128u);
    }
    softnic_run(nic);
    EXPECT_EQ(nic.counters().lost_requests, 88u);
    EXPECT_EQ(nic.counters().requests, 128u);
}

// Behind each late hit any number of requests may be lost: that there were some has to be known.
TEST_F(TapWindow, ThreadThatBlocksTheTrap_Posts_LateHitsAreCountedAsLosses)
{
    Device device;
    ASSERT_EQ(device.set_up(), 0);
    EXPECT_EQ(nic.counters().lost_requests, 0u);
    testing::internal::CaptureStderr();
    std::thread([&] {
        uint64_t mask = ~uint64_t(0);
        syscall(SYS_rt_sigprocmask, SIG_SETMASK, &mask, nullptr, sizeof mask);
        for (int n = 0; n < 20; n++)
            device.post(13, 0, header_numbered(1), 0);
        mask = 0;
        syscall(SYS_rt_sigprocmask, SIG_SETMASK, &mask, nullptr, sizeof mask);
    }).join();
    EXPECT_NE(testing::internal::GetCapturedStderr().find("a thread that blocks SIGTRAP"), std::string::npos);
    EXPECT_GE(nic.counters().lost_requests, 1u);
}

// The library unmaps its regions and closes after that.
TEST_F(TapWindow, PostedBeforeUnmapAndClose_StillLeaves)
{
    {
        Device device;
        ASSERT_EQ(device.set_up(), 0);
        device.post(13, 0, header_numbered(7), 0);
        device.post(13, 0, header_numbered(8), 0);
        device.unmap();
    }
    softnic_run(nic);
    EXPECT_EQ(sent(), (std::vector<int>{7, 8}));
}

// What the program puts in the window's place is its own business.
TEST_F(TapWindow, OtherMemoryInTheWindowsPlace_WritesThere_PostNothing)
{
    Device device;
    ASSERT_EQ(device.set_up(), 0);
    device.post(13, 0, header_numbered(9), 0);
    uint8_t *where = device.zreq;
    device.unmap();
    void *other = mmap(where, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED_NOREPLACE, -1, 0);
    ASSERT_EQ(other, where);
    for (size_t at = 0; at < 4096; at += 4)
        *reinterpret_cast<volatile uint32_t *>(where + at) = 0x0d0d0d0d;
    softnic_run(nic);
    device.close_now();
    softnic_run(nic);
    for (size_t at = 0; at < 4096; at += 4)
        *reinterpret_cast<volatile uint32_t *>(where + at) = 0x0e0e0e0e;
    munmap(where, 4096);
    EXPECT_EQ(sent(), (std::vector<int>{9}));
}

// A window that is still mapped when its endpoint closes stays memory like any other.
TEST_F(TapWindow, ClosedWhileMapped_StoresStillWork)
{
    Device device;
    ASSERT_EQ(device.set_up(), 0);
    device.close_now();
    device.post(13, 0, header_numbered(3), 0);
    EXPECT_EQ(device.zreq[13 * 256 + 6], 3);
    softnic_run(nic);
    EXPECT_EQ(sent(), std::vector<int>{});
}

} // namespace
