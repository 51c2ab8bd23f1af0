/* Device files, driver commands, and the wrappers over the socket-function table. */
#include "child.h"
#include "fake_driver.h"
#include "tov.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

using namespace test_support;

/* ------------------------------------------------------------------ the table */

TEST(SocketFunctionTable, Layout_EighteenSlots_InTheSharedOrder)
{
    /* A companion library fills this record, so each slot's place counts. */
    const size_t w = sizeof(void *);
    EXPECT_EQ(offsetof(tov_socket_functions_t, dup), 0 * w);
    EXPECT_EQ(offsetof(tov_socket_functions_t, dup2), 1 * w);
    EXPECT_EQ(offsetof(tov_socket_functions_t, socket), 2 * w);
    EXPECT_EQ(offsetof(tov_socket_functions_t, bind), 3 * w);
    EXPECT_EQ(offsetof(tov_socket_functions_t, listen), 4 * w);
    EXPECT_EQ(offsetof(tov_socket_functions_t, connect), 5 * w);
    EXPECT_EQ(offsetof(tov_socket_functions_t, accept), 6 * w);
    EXPECT_EQ(offsetof(tov_socket_functions_t, recvfrom), 7 * w);
    EXPECT_EQ(offsetof(tov_socket_functions_t, sendto), 8 * w);
    EXPECT_EQ(offsetof(tov_socket_functions_t, recv), 9 * w);
    EXPECT_EQ(offsetof(tov_socket_functions_t, send), 10 * w);
    EXPECT_EQ(offsetof(tov_socket_functions_t, close), 11 * w);
    EXPECT_EQ(offsetof(tov_socket_functions_t, getsockname), 12 * w);
    EXPECT_EQ(offsetof(tov_socket_functions_t, getpeername), 13 * w);
    EXPECT_EQ(offsetof(tov_socket_functions_t, setsockopt), 14 * w);
    EXPECT_EQ(offsetof(tov_socket_functions_t, getsockopt), 15 * w);
    EXPECT_EQ(offsetof(tov_socket_functions_t, select), 16 * w);
    EXPECT_EQ(offsetof(tov_socket_functions_t, ioctl), 17 * w);
    EXPECT_EQ(sizeof(tov_socket_functions_t), 18 * w);
}

TEST(SocketFunctionTable, NoCompanion_Init_FillsEverySlotWithLibc)
{
    ChildResult child = run_in_child([] {
        memset(&_tov_fops, 0, sizeof _tov_fops);
        init_done = 0;
        tov_init();
        EXPECT_EQ(init_done, 1);
        EXPECT_EQ(_tov_fops.dup, ::dup);
        EXPECT_EQ(_tov_fops.dup2, ::dup2);
        EXPECT_EQ(_tov_fops.socket, ::socket);
        EXPECT_EQ(_tov_fops.bind, ::bind);
        EXPECT_EQ(_tov_fops.listen, ::listen);
        EXPECT_EQ(_tov_fops.connect, ::connect);
        EXPECT_EQ(_tov_fops.accept, ::accept);
        EXPECT_EQ(_tov_fops.recvfrom, ::recvfrom);
        EXPECT_EQ(_tov_fops.sendto, ::sendto);
        EXPECT_EQ(_tov_fops.recv, ::recv);
        EXPECT_EQ(_tov_fops.send, ::send);
        EXPECT_EQ(_tov_fops.close, ::close);
        EXPECT_EQ(_tov_fops.getsockname, ::getsockname);
        EXPECT_EQ(_tov_fops.getpeername, ::getpeername);
        EXPECT_EQ(_tov_fops.setsockopt, ::setsockopt);
        EXPECT_EQ(_tov_fops.getsockopt, ::getsockopt);
        EXPECT_EQ(_tov_fops.select, ::select);
        EXPECT_EQ(_tov_fops.ioctl, ::ioctl);
        return 0;
    });
    EXPECT_TRUE(child.exited_with(0)) << child;
}

static int canned_close(int) { return 17; }

TEST(SocketFunctionTable, AlreadyFilled_InitAgain_LeavesTheTable)
{
    ChildResult child = run_in_child([] {
        tov_init();
        _tov_fops.close = canned_close;
        tov_init();
        EXPECT_EQ(_tov_fops.close, canned_close);
        tov_init_fops();
        EXPECT_EQ(_tov_fops.close, ::close) << "filling it explicitly is not guarded";
        return 0;
    });
    EXPECT_TRUE(child.exited_with(0)) << child;
}

TEST(SocketFunctionTable, Unfilled_FirstUse_OnlyOpenAndSocketFillIt)
{
    ChildResult child = run_in_child([] {
        tov_handle_t handle;
        init_done = 0;
        _tov_fops = {};
        EXPECT_EQ(tov_open(0, 0, &handle, 26), EINVAL);
        EXPECT_EQ(init_done, 1) << "before the arguments are looked at";

        init_done = 0;
        _tov_fops = {};
        int s = tov_socket(AF_INET, SOCK_DGRAM, 0);
        EXPECT_GE(s, 0);
        EXPECT_EQ(init_done, 1);

        init_done = 0;
        _tov_fops = {};
        _tov_fops.close = canned_close;
        EXPECT_EQ(tov_closesocket(s), 17);
        EXPECT_EQ(init_done, 0);
        EXPECT_EQ(_tov_fops.ioctl, nullptr);
        return 0;
    });
    EXPECT_TRUE(child.exited_with(0)) << child;
}

TEST(SocketWrappers, EachSlot_Called_GetsTheArgumentsAndGivesItsResult)
{
    SocketTable table;
    struct sockaddr addr = {};
    socklen_t len = sizeof addr;
    char buf[3] = {'a', 'b', 'c'};
    fd_set r, w, e;
    struct timeval tv = {};

    table.socket = [](int af, int type, int protocol) { return af == 2 && type == 3 && protocol == 4 ? 77 : -2; };
    EXPECT_EQ(tov_socket(2, 3, 4), 77);
    table.bind = [&](int fd, const struct sockaddr *a, socklen_t n) {
        return fd == 5 && a == &addr && n == len ? 78 : -2;
    };
    EXPECT_EQ(tov_bind(5, &addr, len), 78);
    table.setsockopt = [&](int fd, int level, int name, const void *v, socklen_t n) {
        return fd == 5 && level == 6 && name == 7 && v == buf && n == 3 ? 79 : -2;
    };
    EXPECT_EQ(tov_setsockopt(5, 6, 7, buf, 3), 79);
    table.getsockopt = [&](int fd, int level, int name, void *v, socklen_t *n) {
        return fd == 5 && level == 6 && name == 7 && v == buf && n == &len ? 80 : -2;
    };
    EXPECT_EQ(tov_getsockopt(5, 6, 7, buf, &len), 80);
    table.getsockname = [&](int fd, struct sockaddr *a, socklen_t *n) {
        return fd == 5 && a == &addr && n == &len ? 81 : -2;
    };
    EXPECT_EQ(tov_getsockname(5, &addr, &len), 81);
    table.sendto = [&](int fd, const void *b, size_t n, int flags, const struct sockaddr *to,
                       socklen_t tolen) -> ssize_t {
        return fd == 5 && b == buf && n == 3 && flags == 9 && to == &addr && tolen == len ? 82 : -2;
    };
    EXPECT_EQ(tov_sendto(5, buf, 3, 9, &addr, len), 82);
    table.select = [&](int n, fd_set *rr, fd_set *ww, fd_set *ee, struct timeval *t) {
        return n == 10 && rr == &r && ww == &w && ee == &e && t == &tv ? 83 : -2;
    };
    EXPECT_EQ(tov_select(10, &r, &w, &e, &tv), 83);
    table.close = [](int fd) { return fd == 5 ? 84 : -2; };
    EXPECT_EQ(tov_closesocket(5), 84);
    EXPECT_EQ(table.log().size(), 8u);
}

TEST(SocketWrappers, SlotFails_Called_MinusOneAndErrno)
{
    SocketTable table;
    char c;
    socklen_t len = 0;
    const std::pair<Slot, std::function<long()>> calls[] = {
        {Slot::socket, [] { return tov_socket(AF_INET, SOCK_DGRAM, 0); }},
        {Slot::bind, [] { return tov_bind(3, nullptr, 0); }},
        {Slot::setsockopt, [] { return tov_setsockopt(3, 0, 0, nullptr, 0); }},
        {Slot::getsockopt, [&] { return tov_getsockopt(3, 0, 0, &c, &len); }},
        {Slot::getsockname, [&] { return tov_getsockname(3, nullptr, &len); }},
        {Slot::sendto, [&] { return static_cast<long>(tov_sendto(3, nullptr, 0, 0, nullptr, 0)); }},
        {Slot::select, [] { return tov_select(0, nullptr, nullptr, nullptr, nullptr); }},
        {Slot::close, [] { return tov_closesocket(3); }},
        {Slot::close, [] { return __tov_close(3); }},
        {Slot::ioctl, [&] { return __tov_ioctl(3, 1, &c); }},
    };
    int error = 40;
    for (const auto &[slot, call] : calls) {
        table.fail(slot, 1, ++error);
        errno = 0;
        EXPECT_EQ(call(), -1) << static_cast<int>(slot);
        EXPECT_EQ(errno, error) << static_cast<int>(slot);
    }
}

/* ------------------------------------------------------------------ opening */

TEST(DeviceOpen, FirstNameExists_Open_ReadWriteWithoutOtherFlags)
{
    FakeDriver driver;
    driver.files["/dev/oxelBp3"] = 0;
    driver.files["/dev/oxelB3"] = 0;
    tov_handle_t handle = -1;
    ASSERT_EQ(tov_open(3, 5, &handle, 1), 0);
    EXPECT_EQ(handle, driver.handle);
    EXPECT_EQ(driver.opens, std::vector<std::string>{"/dev/oxelBp3"});
    EXPECT_EQ(driver.open_flags, std::vector<int>{O_RDWR});
    EXPECT_EQ(tov_close(handle), 0);
}

TEST(DeviceOpen, OnlySecondNameExists_Open_Succeeds)
{
    FakeDriver driver;
    driver.files["/dev/oxelB0"] = 0;
    tov_handle_t handle = -1;
    ASSERT_EQ(tov_open(0, 0, &handle, 1), 0);
    EXPECT_EQ(handle, driver.handle);
    EXPECT_EQ(driver.opens, (std::vector<std::string>{"/dev/oxelBp0", "/dev/oxelB0"}));
    EXPECT_EQ(driver.open_flags, (std::vector<int>{O_RDWR, O_RDWR}));
    EXPECT_EQ(tov_close(handle), 0);
}

TEST(DeviceOpen, BothNamesFail_Open_ErrnoOfTheSecond)
{
    FakeDriver driver;
    driver.files["/dev/oxelBp0"] = EACCES;
    driver.files["/dev/oxelB0"] = EMFILE;
    tov_handle_t handle = -7;
    EXPECT_EQ(tov_open(0, 0, &handle, 1), EMFILE);
    EXPECT_EQ(handle, -7);
}

TEST(DeviceOpen, ProductAboveTheAlphabet_Open_InvalidWithoutTouchingFiles)
{
    FakeDriver driver;
    tov_handle_t handle = -7;
    for (int product : {26, 27, 255})
        EXPECT_EQ(tov_open(0, 0, &handle, static_cast<uint8_t>(product)), EINVAL);
    EXPECT_TRUE(driver.opens.empty());
    EXPECT_EQ(handle, -7);
}

TEST(DeviceOpen, Product_Open_SelectsTheLetter)
{
    FakeDriver driver;
    tov_handle_t handle;
    EXPECT_EQ(tov_open(12, 0, &handle, 0), ENOENT);
    EXPECT_EQ(tov_open(12, 0, &handle, 25), ENOENT);
    EXPECT_EQ(tov_open(-2147483647 - 1, 0, &handle, 1), ENOENT);
    EXPECT_EQ(driver.opens, (std::vector<std::string>{"/dev/oxelAp12", "/dev/oxelA12", "/dev/oxelZp12", "/dev/oxelZ12",
                                                      "/dev/oxelBp-2147483648", "/dev/oxelB-2147483648"}));
}

struct SearchCase {
    const char *name;
    std::vector<int> board_errors; /* of boards 0, 1, ...; those behind are missing */
    int result;
    size_t boards_tried;
};

static void PrintTo(const SearchCase &c, std::ostream *os) { *os << c.name; }

class BoardSearch : public testing::TestWithParam<SearchCase> {};

TEST_P(BoardSearch, DeviceFiles_OpenAny_ResultAndNumberOfAttempts)
{
    const SearchCase &c = GetParam();
    FakeDriver driver;
    for (size_t i = 0; i < c.board_errors.size(); i++) {
        driver.files["/dev/oxelBp" + std::to_string(i)] = c.board_errors[i];
        driver.files["/dev/oxelB" + std::to_string(i)] = c.board_errors[i];
    }
    tov_handle_t handle = -1;
    EXPECT_EQ(tov_open_any_board(&handle, 1), c.result);
    size_t opens = 2 * c.boards_tried - (c.result == 0 ? 1 : 0);
    EXPECT_EQ(driver.opens.size(), opens);
    if (c.result == 0) {
        EXPECT_EQ(handle, driver.handle);
        EXPECT_EQ(driver.opens.back(), "/dev/oxelBp" + std::to_string(c.boards_tried - 1));
        tov_close(handle);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Rules, BoardSearch,
    testing::Values(SearchCase{"NoFiles", {}, ENOENT, 1}, SearchCase{"FirstOpens", {0}, 0, 1},
                    SearchCase{"NoAdapterNxio", {ENXIO, 0}, ENODEV, 1},
                    SearchCase{"NoAdapterNodev", {ENODEV, 0}, ENODEV, 1},
                    SearchCase{"RefusedAccess", {EACCES}, EACCES, 2}, SearchCase{"RefusedPerm", {EPERM}, EACCES, 2},
                    SearchCase{"Busy", {EBUSY}, EBUSY, 2}, SearchCase{"OtherError", {EIO}, EBUSY, 2},
                    SearchCase{"SecondOpens", {EACCES, 0}, 0, 2}, SearchCase{"ThirdOpens", {EBUSY, EPERM, 0}, 0, 3},
                    SearchCase{"RefusedThenNxio", {EACCES, ENXIO, 0}, EACCES, 2},
                    SearchCase{"BusyThenNodev", {EBUSY, ENODEV, 0}, EBUSY, 2},
                    SearchCase{"BusyThenRefused", {EBUSY, EACCES}, EBUSY, 3},
                    SearchCase{"RefusedThenBusy", {EACCES, EMFILE}, EBUSY, 3},
                    SearchCase{"LastBoardOpens",
                               [] {
                                   std::vector<int> v(32, EACCES);
                                   v.push_back(0);
                                   return v;
                               }(),
                               0, 33},
                    SearchCase{"AllRefuse", std::vector<int>(40, EACCES), EACCES, 33},
                    SearchCase{"AllBusy", std::vector<int>(40, EBUSY), EBUSY, 33}),
    [](const testing::TestParamInfo<SearchCase> &info) { return std::string(info.param.name); });

/* ------------------------------------------------------------------ commands, close, mappings */

TEST(DriverCommand, Slot_Called_CodeAndArgumentUnchanged)
{
    SocketTable table;
    int argument;
    table.ioctl = [&](int fd, unsigned long cmd, void *arg) {
        EXPECT_EQ(fd, 9);
        EXPECT_EQ(cmd, 0xfedcba98ul);
        EXPECT_EQ(arg, &argument);
        return 0;
    };
    errno = EIO;
    EXPECT_EQ(tov_ioctl(9, 0xfedcba98ul, &argument, 4), 0) << "a stale errno does not count";
    EXPECT_EQ(__tov_ioctl(9, 0xfedcba98ul, &argument), 0);
    EXPECT_EQ(table.count(Slot::ioctl), 2u);
}

TEST(DriverCommand, SlotFails_Called_ErrnoAsResult)
{
    SocketTable table;
    table.ioctl = [](int, unsigned long, void *) {
        errno = ENOTTY;
        return -1;
    };
    EXPECT_EQ(tov_ioctl(9, 1, nullptr, 0), ENOTTY);
    EXPECT_EQ(__tov_ioctl(9, 1, nullptr), -1);
    table.ioctl = [](int, unsigned long, void *) {
        errno = ERANGE;
        return 5;
    };
    EXPECT_EQ(tov_ioctl(9, 1, nullptr, 0), ERANGE) << "anything but 0 is a failure";
    EXPECT_EQ(__tov_ioctl(9, 1, nullptr), 5) << "the raw form hides nothing";
}

TEST(DeviceClose, Slot_Called_ZeroOrErrno)
{
    SocketTable table;
    table.close = [](int fd) { return fd == 9 ? 0 : -1; };
    EXPECT_EQ(tov_close(9), 0);
    EXPECT_EQ(__tov_close(9), 0);
    errno = EBADF;
    EXPECT_EQ(tov_close(8), EBADF);
    EXPECT_EQ(__tov_close(8), -1);
    EXPECT_EQ(table.count(Slot::close), 4u);
}

TEST(DeviceMapping, ReadOnlyOrNot_Mapped_SharedWithTheAskedProtection)
{
    LibcHookGuard hooks;
    void *hint = reinterpret_cast<void *>(0x10000);
    void *mapped = reinterpret_cast<void *>(0x20000);
    int prot_seen = -1;
    hooks->mmap = [&](void *start, size_t length, int prot, int flags, int fd, off_t offset) {
        EXPECT_EQ(start, hint);
        EXPECT_EQ(length, 8192u);
        EXPECT_EQ(flags, MAP_SHARED);
        EXPECT_EQ(fd, 6);
        EXPECT_EQ(offset, 0x7ffff000);
        prot_seen = prot;
        return mapped;
    };
    EXPECT_EQ(tov_mmap(hint, 8192, 6, 0x7ffff000, 0), mapped);
    EXPECT_EQ(prot_seen, PROT_READ | PROT_WRITE);
    EXPECT_EQ(tov_mmap(hint, 8192, 6, 0x7ffff000, 1), mapped);
    EXPECT_EQ(prot_seen, PROT_READ);
    EXPECT_EQ(tov_mmap(hint, 8192, 6, 0x7ffff000, -4), mapped);
    EXPECT_EQ(prot_seen, PROT_READ);
    hooks->mmap = [](void *, size_t, int, int, int, off_t) { return MAP_FAILED; };
    EXPECT_EQ(tov_mmap(hint, 8192, 6, 0, 0), MAP_FAILED);
}

TEST(DeviceMapping, Unmapped_ResultUnchanged)
{
    LibcHookGuard hooks;
    void *start = reinterpret_cast<void *>(0x20000);
    hooks->munmap = [&](void *p, size_t length) { return p == start && length == 4096 ? -1 : 3; };
    EXPECT_EQ(tov_munmap(start, 4096), -1);
    EXPECT_EQ(tov_munmap(start, 8192), 3);
}

TEST(DeviceMapping, RealFile_MappedTwice_SharesBytes)
{
    int fd = memfd_create("region", MFD_CLOEXEC);
    ASSERT_EQ(ftruncate(fd, 8192), 0);
    char *rw = static_cast<char *>(tov_mmap(nullptr, 4096, fd, 4096, 0));
    const char *ro = static_cast<const char *>(tov_mmap(nullptr, 4096, fd, 4096, 1));
    ASSERT_NE(rw, MAP_FAILED);
    ASSERT_NE(ro, MAP_FAILED);
    rw[5] = 'x';
    EXPECT_EQ(ro[5], 'x');
    char byte = 0;
    EXPECT_EQ(pread(fd, &byte, 1, 4101), 1);
    EXPECT_EQ(byte, 'x');
    EXPECT_EQ(tov_munmap(rw, 4096), 0);
    EXPECT_EQ(tov_munmap(const_cast<char *>(ro), 4096), 0);
    close(fd);
}
