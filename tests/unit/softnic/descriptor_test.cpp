// The device file's descriptor among the other descriptors of the process.
#include "rig.h"

#include "child.h"
#include "driver/sys.h"

#include <algorithm>
#include <fstream>
#include <linux/close_range.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>

// What programs call that were built with _FORTIFY_SOURCE; not in any header.
extern "C" {
int __open_2(const char *path, int flags);
int __open64_2(const char *path, int flags);
int __openat_2(int dir, const char *path, int flags);
int __openat64_2(int dir, const char *path, int flags);
}

namespace softnic_test {
namespace {

using test_support::run_in_child;
namespace sys = softnic::sys;

bool is_device(int fd)
{
    uint32_t n = 0;
    return ioctl(fd, OXEL_GET_BOARD_CNT, &n) == 0 && n != 0;
}

TEST(DeviceFile, EveryFormOfOpen_ReachesTheBoard)
{
    Nic nic;
    const char *path = "/dev/oxelB0";
    const std::function<int()> forms[] = {
        [&] { return open(path, O_RDWR); },
        [&] { return open64(path, O_RDWR); },
        [&] { return openat(AT_FDCWD, path, O_RDWR); },
        [&] { return openat64(AT_FDCWD, path, O_RDWR); },
        [&] { return openat(-1, path, O_RDWR); },
        [&] { return __open_2(path, O_RDWR); },
        [&] { return __open64_2(path, O_RDWR); },
        [&] { return __openat_2(AT_FDCWD, path, O_RDWR); },
        [&] { return __openat64_2(AT_FDCWD, path, O_RDWR); },
    };
    for (const auto &form : forms) {
        const int fd = form();
        ASSERT_GE(fd, 0) << &form - forms;
        EXPECT_TRUE(is_device(fd)) << &form - forms;
        EXPECT_EQ(close(fd), 0);
        EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    }
}

TEST(DeviceFile, NamesThatAreNoBoard_AreNotThere)
{
    Nic nic(2);
    for (const char *path :
         {"/dev/oxelB2", "/dev/oxelB99", "/dev/oxelB00", "/dev/oxelB01", "/dev/oxelB", "/dev/oxelB0x", "/dev/oxelB-1",
          "/dev/oxelB 0", "/dev/oxelA0", "/dev/oxelBp0", "/dev/oxelB4294967296"}) {
        EXPECT_EQ(open(path, O_RDWR), -1) << path;
        EXPECT_EQ(errno, ENOENT) << path;
    }
    const int fd = open("/dev/oxelB1", O_RDWR);
    EXPECT_GE(fd, 0);
    close(fd);
}

TEST(DeviceFile, FirstForm_IsThereWhenAskedFor)
{
    Nic nic;
    softnic_answer_first_form(1);
    const int fd = open("/dev/oxelBp0", O_RDWR);
    softnic_answer_first_form(0);
    EXPECT_GE(fd, 0);
    EXPECT_TRUE(is_device(fd));
    close(fd);
    EXPECT_EQ(open("/dev/oxelBp0", O_RDWR), -1);
}

TEST(DeviceFile, FlagsThatMakeNoSense_AreRefused)
{
    Nic nic;
    EXPECT_EQ(open("/dev/oxelB0", O_RDWR | O_DIRECTORY), -1);
    EXPECT_EQ(errno, ENOTDIR);
    EXPECT_EQ(open("/dev/oxelB0", O_RDWR | O_CREAT | O_EXCL, 0600), -1);
    EXPECT_EQ(errno, EEXIST);
}

TEST(DeviceFile, CloseOnExec_IsAsAsked)
{
    Nic nic;
    const int plain = open("/dev/oxelB0", O_RDWR);
    const int cloexec = open("/dev/oxelB0", O_RDWR | O_CLOEXEC);
    EXPECT_EQ(fcntl(plain, F_GETFD), 0);
    EXPECT_EQ(fcntl(cloexec, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(fcntl(plain, F_GETFL) & O_ACCMODE, O_RDWR);
    close(plain);
    close(cloexec);
}

TEST(DeviceFile, NothingAttached_IsTheHosts)
{
    EXPECT_EQ(open("/dev/oxelB0", O_RDWR), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST(DeviceFile, SecondAdapter_IsRefusedWhileOneIsAttached)
{
    Nic nic;
    softnic_board_config_t config;
    softnic_board_defaults(&config, 0);
    softnic_t *second = softnic_create(&config, 1, kStart);
    EXPECT_EQ(softnic_attach(second), EBUSY);
    softnic_detach(nic);
    EXPECT_EQ(softnic_attach(second), 0);
    softnic_destroy(second);
    EXPECT_EQ(open("/dev/oxelB0", O_RDWR), -1);
}

TEST(DeviceFile, Detach_ClosesWhatIsOpen)
{
    Nic nic;
    const int fd = open("/dev/oxelB0", O_RDWR);
    softnic_detach(nic);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
}

TEST(OtherFiles, CallsOnThem_ArePassedOn)
{
    Nic nic;
    char name[] = "/tmp/softnic_test_XXXXXX";
    close(mkstemp(name));
    int fd = open(name, O_RDWR | O_TRUNC | O_CREAT, 0640);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(write(fd, "hello", 5), 5);
    void *p = mmap(nullptr, 5, PROT_READ, MAP_SHARED, fd, 0);
    ASSERT_NE(p, MAP_FAILED);
    EXPECT_EQ(memcmp(p, "hello", 5), 0);
    munmap(p, 5);
    int waiting = -1;
    EXPECT_EQ(ioctl(fd, FIONREAD, &waiting), 0);
    EXPECT_EQ(close(fd), 0);
    EXPECT_EQ(close(fd), -1);
    EXPECT_EQ(errno, EBADF);
    unlink(name);

    const mode_t before = umask(0);
    fd = open(name, O_RDWR | O_CREAT | O_EXCL, 0612);
    umask(before);
    struct stat st;
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_EQ(st.st_mode & 0777u, 0612u);
    close(fd);
    unlink(name);

    void *anonymous = mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(anonymous, MAP_FAILED);
    munmap(anonymous, 4096);
    EXPECT_EQ(ioctl(-1, FIONREAD, &waiting), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(OtherFiles, TemporaryFileWithoutName_KeepsItsMode)
{
    Nic nic;
    const int fd = open("/tmp", O_TMPFILE | O_RDWR, 0600);
    if (fd < 0)
        GTEST_SKIP() << "/tmp has no unnamed files";
    struct stat st;
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_EQ(st.st_mode & 0777u, 0600u);
    close(fd);
}

TEST(Readiness, PollSelectAndEpoll_SeeTheSame)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(1), 0);
    const int ep = epoll_create1(0);
    epoll_event event = {EPOLLIN, {}};
    ASSERT_EQ(epoll_ctl(ep, EPOLL_CTL_ADD, dev.fd, &event), 0);
    const auto all = [&] {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(dev.fd, &set);
        timeval zero = {};
        return (readable(dev.fd) ? 1 : 0) + select(dev.fd + 1, &set, nullptr, nullptr, &zero) +
               epoll_wait(ep, &event, 1, 0);
    };
    EXPECT_EQ(all(), 0);
    nic.inject(make_frame());
    nic.inject(make_frame());
    softnic_set_max_packets(nic, 0, 1);
    softnic_run(nic);
    EXPECT_EQ(all(), 3);
    dev.consume();
    softnic_run(nic);
    EXPECT_EQ(all(), 3); // one more waits
    dev.consume();
    softnic_run(nic);
    EXPECT_EQ(all(), 0);
    close(ep);
}

// A number that was closed where nobody told the driver, and what it means then.

TEST(Reuse, NumberClosedByCloseRangeAndGivenToAFile_IsTheFile)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    const int fd = dev.fd;
    ASSERT_EQ(syscall(SYS_close_range, fd, fd, 0), 0);
    const int file = open("/proc/self/stat", O_RDONLY);
    ASSERT_EQ(file, fd);
    EXPECT_FALSE(is_device(fd));
    EXPECT_EQ(errno, ENOTTY);
    char byte;
    EXPECT_EQ(read(fd, &byte, 1), 1);
    nic.inject(make_frame()); // nothing may be written to it
    softnic_run(nic);
    EXPECT_EQ(close(fd), 0);
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    dev.fd = -1;
    EXPECT_EQ(softnic_claimed(nic, 0), 0u);
}

TEST(Reuse, NumberReplacedByDup2_IsNeverTakenForTheDevice)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    ASSERT_EQ(dev.filter(1), 0);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    ASSERT_EQ(dup2(ends[1], dev.fd), dev.fd); // now the writing end of the program's own pipe
    EXPECT_FALSE(is_device(dev.fd));
    nic.inject(make_frame());
    softnic_run(nic);
    EXPECT_FALSE(readable(ends[0])); // no byte of the adapter's in it
    EXPECT_EQ(write(dev.fd, "x", 1), 1);
    EXPECT_TRUE(readable(ends[0]));
    close(dev.fd);
    dev.fd = -1;
    close(ends[0]);
    close(ends[1]);
}

TEST(Reuse, NumberReplacedByAnEventfd_IsTheEventfd)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(), 0);
    const int other = eventfd(0, EFD_NONBLOCK);
    ASSERT_EQ(dup2(other, dev.fd), dev.fd);
    EXPECT_FALSE(is_device(dev.fd));
    close(other);
}

TEST(Reuse, DescriptorClosedBehindTheDriver_FreesItsEndpointForTheNextClaim)
{
    Nic nic;
    Device lost, next;
    ASSERT_EQ(lost.set_up(0), 0);
    ASSERT_EQ(lost.filter(1), 0);
    ASSERT_EQ(syscall(SYS_close, lost.fd), 0);
    EXPECT_EQ(next.claim(0), 0);
    EXPECT_EQ(softnic_steered(nic, 0, 0x0A4D0001, 5000, 0, 17), 0);
    lost.fd = -1;
}

TEST(Reuse, NumberThatBecomesADeviceAgain_IsTheNewOne)
{
    Nic nic;
    Device first;
    ASSERT_EQ(first.set_up(0), 0);
    const int fd = first.fd;
    ASSERT_EQ(syscall(SYS_close, fd), 0);
    const int again = open("/dev/oxelB0", O_RDWR);
    ASSERT_EQ(again, fd);
    uint32_t n;
    EXPECT_EQ(command(again, OXEL_GET_SREQS_CNT, &n), EINVAL); // nothing claimed on this one
    EXPECT_EQ(softnic_claimed(nic, 0), 0u);
}

TEST(Reuse, EveryDescriptorClosedAtOnce_LeavesAUsableAdapter)
{
    const auto child = run_in_child([] {
        Nic nic;
        auto *lost = new Device;
        EXPECT_EQ(lost->set_up(0), 0);
        EXPECT_EQ(syscall(SYS_close_range, 3, ~0u, 0), 0);
        lost->fd = -1;
        lost->recvq[0] = 1; // the memory is still there
        Device dev;
        EXPECT_EQ(dev.set_up(0), 0);
        EXPECT_EQ(dev.filter(1), 0);
        nic.inject(make_frame());
        softnic_run(nic);
        EXPECT_TRUE(readable(dev.fd));
        return 0;
    });
    EXPECT_TRUE(child.exited_with(0)) << child;
}

TEST(Reuse, RangeClosedByTheLibrary_ClosesTheDevicesInItAsCloseDoes)
{
    Nic nic;
    Device first, second;
    ASSERT_EQ(first.set_up(0), 0);
    ASSERT_EQ(second.set_up(1), 0);
    const auto [low, high] = std::minmax(first.fd, second.fd);
    EXPECT_EQ(close_range(static_cast<unsigned>(high), static_cast<unsigned>(low), 0), -1);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(close_range(static_cast<unsigned>(first.fd), static_cast<unsigned>(first.fd), CLOSE_RANGE_CLOEXEC), 0);
    EXPECT_EQ(fcntl(first.fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(softnic_claimed(nic, 0), 3u); // still open
    EXPECT_EQ(close_range(static_cast<unsigned>(first.fd), static_cast<unsigned>(first.fd), 0), 0);
    EXPECT_EQ(softnic_claimed(nic, 0), 2u);
    EXPECT_EQ(fcntl(first.fd, F_GETFD), -1);
    EXPECT_TRUE(is_device(second.fd));
    first.fd = -1;
}

TEST(Reuse, EverythingClosedByTheLibrary_LeavesWhatTheAdapterKeeps)
{
    const auto child = run_in_child([] {
        Nic nic;
        auto *dev = new Device;
        EXPECT_EQ(dev->set_up(0), 0);
        const int plain = open("/dev/null", O_RDWR | O_CLOEXEC);
        const int kept = sys::keep(open("/dev/null", O_RDWR | O_CLOEXEC));
        EXPECT_GE(kept, 512);
        EXPECT_EQ(close(kept), -1);
        EXPECT_EQ(errno, EBADF);
        closefrom(3);
        EXPECT_EQ(fcntl(dev->fd, F_GETFD), -1);
        EXPECT_EQ(softnic_claimed(nic, 0), 0u);
        EXPECT_EQ(fcntl(plain, F_GETFD), -1);
        EXPECT_EQ(fcntl(kept, F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(close_range(3, ~0u, 0), 0);
        EXPECT_EQ(fcntl(kept, F_GETFD), FD_CLOEXEC);
        sys::close(kept);
        EXPECT_EQ(fcntl(kept, F_GETFD), -1);
        dev->fd = -1;
        return 0;
    });
    EXPECT_TRUE(child.exited_with(0)) << child;
}

// A process may have a million descriptors: the device is known by whatever number it has. Beyond 65535 where that
// many are allowed, else as high as can be, which is beyond the adapter's own table.
TEST(Reuse, HighNumber_IsTheDevice_AndAFileAfterwards)
{
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    if (before.rlim_max < 17000)
        GTEST_SKIP() << "no more than " << before.rlim_max << " descriptors are allowed";
    const int beyond = static_cast<int>(std::min<rlim_t>(before.rlim_max, 66536)) - 100;
    const rlimit more = {before.rlim_max, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &more), 0);
    {
        Nic nic;
        std::vector<int> fillers;
        do
            fillers.push_back(sys::open("/dev/null", O_RDONLY | O_CLOEXEC));
        while (fillers.back() >= 0 && fillers.back() < beyond);
        ASSERT_GE(fillers.back(), beyond);
        Device device;
        EXPECT_GT(device.fd, beyond);
        EXPECT_TRUE(is_device(device.fd));
        EXPECT_EQ(device.set_up(), 0);
        EXPECT_FALSE(is_device(fillers.back()));
        const int number = device.fd;
        device.unmap();
        device.close_now();
        EXPECT_EQ(sys::open("/dev/null", O_RDONLY | O_CLOEXEC), number);
        EXPECT_FALSE(is_device(number));
        EXPECT_EQ(close(number), 0);
        Device closed_by_range;
        EXPECT_EQ(close_range(beyond + 1, ~0u, 0), 0);
        EXPECT_EQ(fcntl(closed_by_range.fd, F_GETFD), -1);
        Device again; // its endpoint is free
        EXPECT_EQ(again.set_up(), 0);
        for (const int fd : fillers)
            sys::close(fd);
    }
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
}

TEST(Fork, ChildHasNoDevicesAndLeavesTheParentsAlone)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(0), 0);
    ASSERT_EQ(dev.filter(1), 0);
    const pid_t pid = fork();
    if (pid == 0) {
        int bad = 0;
        bad += is_device(dev.fd) ? 1 : 0;
        bad += mmap(nullptr, 4096, PROT_READ, MAP_SHARED, dev.fd, dev.block.flow_window_offset) != MAP_FAILED ? 2 : 0;
        bad += close(dev.fd) != 0 ? 4 : 0; // an inert descriptor
        _exit(bad);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_TRUE(is_device(dev.fd));
    nic.inject(make_frame());
    softnic_run(nic);
    EXPECT_TRUE(readable(dev.fd));
    EXPECT_EQ(dev.take_tags(), std::vector<uint16_t>{1});
}

TEST(Fork, Child_MayOpenTheSteppedAdapterAnew)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(0), 0);
    ASSERT_EQ(dev.filter(1), 0);
    dev.recvq[1000] = 0x33;
    const pid_t pid = fork();
    if (pid == 0) {
        auto *mine = new Device;
        int bad = mine->set_up(0) != 0 ? 1 : 0; // free in this process
        bad += mine->filter(2) != 0 ? 2 : 0;
        nic.inject(make_frame());
        softnic_run(nic);
        bad += mine->take_tags() != std::vector<uint16_t>{2} ? 4 : 0;
        _exit(bad);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_EQ(dev.recvq[30], 0); // the child's frame is in the child's ring
    EXPECT_EQ(dev.recvq[1000], 0x33);
    EXPECT_EQ(dev.unfilter(1), 0);
}

TEST(Fork, ChildThatSharesMemoryWithoutForkHandlers_HasNoDevices)
{
    Nic nic;
    Device dev;
    ASSERT_EQ(dev.set_up(0), 0);
    const pid_t pid = static_cast<pid_t>(syscall(SYS_fork)); // no handler runs
    if (pid == 0)
        _exit((is_device(dev.fd) ? 1 : 0) + (close(dev.fd) != 0 ? 2 : 0));
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    EXPECT_TRUE(is_device(dev.fd));
}

TEST(Fork, ProcessThatEndsWithoutClosing_EndsCleanly)
{
    const auto child = run_in_child([] {
        Nic *nic = new Nic;
        auto *dev = new Device;
        EXPECT_EQ(dev->set_up(0), 0);
        EXPECT_EQ(dev->filter(1), 0);
        nic->inject(make_frame());
        return 0;
    });
    EXPECT_TRUE(child.exited_with(0)) << child;
}

TEST(Threads, OpensClaimsAndClosesFromMany_KeepEveryEndpointWithOneOwner)
{
    Nic nic(2);
    std::vector<std::thread> threads;
    std::atomic<int> claimed{0}, wrong{0};
    std::atomic<int> owners[2][8] = {};
    for (int t = 0; t < 4; t++)
        threads.emplace_back([&, t] {
            for (int i = 0; i < 100; i++) {
                const unsigned board = static_cast<unsigned>(i + t) % 2;
                Device dev(board);
                const int e = (i * 3 + t) % 8;
                const int rc = dev.claim(e);
                if (rc == 0) {
                    claimed++;
                    wrong += owners[board][e]++ != 0 ? 1 : 0;
                    wrong += dev.enable() != 0 ? 1 : 0;
                    wrong += dev.filter(static_cast<uint16_t>(t)) != 0 ? 1 : 0;
                    softnic_run(nic);
                    owners[board][e]--;
                } else {
                    wrong += rc != EBUSY ? 1 : 0;
                }
            }
        });
    for (std::thread &t : threads)
        t.join();
    EXPECT_GT(claimed.load(), 0);
    EXPECT_EQ(wrong.load(), 0);
    EXPECT_EQ(softnic_claimed(nic, 0) | softnic_claimed(nic, 1), 0u);
}

TEST(Resources, ManyLives_LeaveNoDescriptorAndNoMapping)
{
    const auto count = [] {
        std::ifstream maps("/proc/self/maps");
        int n = 0;
        for (std::string line; std::getline(maps, line);)
            n += line.find("oxel-") != std::string::npos ? 1 : 0;
        return n;
    };
    const int first = dup(0);
    close(first);
    for (int i = 0; i < 20; i++) {
        Nic nic(2);
        Device a(0), b(1);
        ASSERT_EQ(a.set_up(i % 8), 0);
        ASSERT_EQ(b.set_up(i % 8), 0);
    }
    EXPECT_EQ(count(), 0);
    const int last = dup(0);
    close(last);
    EXPECT_EQ(first, last);
}

} // namespace
} // namespace softnic_test
